// File helpers over the platform: scratch files never follow planted links.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "api/platform/Files.h"
#include "api/platform/Platform.h"
#include "vboard/VirtualBoard.h"

namespace {

namespace fs = std::filesystem;

std::string slurp(const std::string& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// Runs against the real Linux platform in a scratch directory of the host.
class HostFiles : public ::testing::Test {
protected:
    void SetUp() override {
        char templ[] = "/tmp/quarn-files-XXXXXX";
        ASSERT_NE(mkdtemp(templ), nullptr);
        dir = templ;
    }
    void TearDown() override { fs::remove_all(dir); }
    std::string dir;
};

TEST_F(HostFiles, ScratchFileReplacesAPlantedLinkInsteadOfWritingThroughIt) {
    const std::string victim = dir + "/victim";
    std::ofstream(victim) << "precious";
    const std::string scratch = dir + "/layout";
    fs::create_symlink(victim, scratch);

    ASSERT_EQ(quarn::writeScratchFile(scratch, "new layout\n"), 0);
    EXPECT_EQ(slurp(victim), "precious");
    EXPECT_FALSE(fs::is_symlink(scratch));
    EXPECT_EQ(slurp(scratch), "new layout\n");
    // No temporary names are left behind.
    int files = 0;
    for (auto& e : fs::directory_iterator(dir)) files += e.is_regular_file() ? 1 : 0;
    EXPECT_EQ(files, 2);
}

TEST_F(HostFiles, MakeDirectoriesRefusesToPassThroughALink) {
    fs::create_directory(dir + "/elsewhere");
    fs::create_directory_symlink(dir + "/elsewhere", dir + "/veltrax");
    EXPECT_EQ(quarn::makeDirectories(dir + "/veltrax/ktd/mem"), -1);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_FALSE(fs::exists(dir + "/elsewhere/ktd"));

    ASSERT_EQ(quarn::makeDirectories(dir + "/a/b/c"), 0);
    EXPECT_TRUE(fs::is_directory(dir + "/a/b/c"));
    EXPECT_EQ(quarn::makeDirectories(dir + "/a/b/c"), 0);  // already there
    std::ofstream(dir + "/file") << "x";
    EXPECT_EQ(quarn::makeDirectories(dir + "/file/sub"), -1);
    EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(HostFiles, ReadWriteListAndRemove) {
    const std::string path = dir + "/attr";
    std::string text;
    EXPECT_EQ(quarn::readTextFile(path, &text), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(quarn::writeTextFile(path, "1\n"), -1);  // like "echo > attr" on sysfs: no create
    std::ofstream(path) << "old contents";
    ASSERT_EQ(quarn::writeTextFile(path, "1\n"), 0);
    ASSERT_EQ(quarn::readTextFile(path, &text), 0);
    EXPECT_EQ(text, "1\n");
    std::ofstream(dir + "/big") << std::string(5000, 'x');
    EXPECT_EQ(quarn::readTextFile(dir + "/big", &text, 4096), -1);
    EXPECT_EQ(errno, EFBIG);

    std::vector<std::string> names;
    ASSERT_EQ(quarn::listNames(dir, &names), 0);
    EXPECT_EQ(names, (std::vector<std::string>{"attr", "big"}));
    EXPECT_EQ(quarn::removePath(path), 0);
    EXPECT_EQ(quarn::removePath(path), 0);  // already gone
    EXPECT_FALSE(fs::exists(path));
}

TEST(BoardFiles, HelpersFollowTheInstalledPlatform) {
    quarn::vboard::VirtualBoard board;
    quarn::installPlatform(&board);
    ASSERT_EQ(quarn::makeDirectories("/tmp/veltrax/ktd/mem"), 0);
    ASSERT_EQ(quarn::writeScratchFile("/tmp/veltrax/ktd/mem/layout", "ch0\n"), 0);
    std::string text;
    ASSERT_EQ(quarn::readTextFile("/tmp/veltrax/ktd/mem/layout", &text), 0);
    EXPECT_EQ(text, "ch0\n");
    quarn::installPlatform(nullptr);
    // Everything landed under the board's root, nothing in the host's /tmp/veltrax.
    EXPECT_EQ(slurp(board.root() + "/tmp/veltrax/ktd/mem/layout"), "ch0\n");
}

TEST(LinuxPlatform, RunsProgramsWithoutAShell) {
    quarn::Platform& p = quarn::linuxPlatform();
    std::string out;
    int status = -1;
    ASSERT_EQ(p.runProgram({"echo", "a;b", "$(id)"}, &out, &status), 0);
    EXPECT_EQ(out, "a;b $(id)\n");
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(p.runProgram({"/nonexistent/tool"}, &out, &status), -1);
    std::string release;
    ASSERT_EQ(p.kernelRelease(&release), 0);
    EXPECT_FALSE(release.empty());
    EXPECT_EQ(p.pageSize() % 4096, 0);
}

}  // namespace
