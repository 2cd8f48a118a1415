// The non-transparent bridge layers on two virtual boards joined by their NT link: the
// bridge search, the window file, and transfers between a process on each side.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "api/platform/Platform.h"
#include "dapi/ntb/NTBDAPI.h"
#include "ddapi/ntb/NTBDDAPI.h"
#include "tests/lib/Render.h"
#include "vboard/Board.h"
#include "vboard/models/ntb/NtbModel.h"

namespace {

using quarn::test::render;

class NtbTest : public ::testing::Test {
protected:
    void SetUp() override { quarn::installPlatform(&local); }
    void TearDown() override { quarn::installPlatform(nullptr); }

    void connect() { link = quarn::vboard::connectNtb(local, peer); }

    // Runs role on the peer board in a child process; returns its rendered result.
    pid_t startPeer(const std::function<ErrorMsg*(NTBDAPI&)>& role) {
        fflush(stdout);
        const pid_t pid = fork();
        if (pid == 0) {
            quarn::installPlatform(&peer);
            std::string text;
            {
                NTBDAPI ntb("NTBDAPI");
                text = render(role(ntb));
            }
            std::ofstream(peer.hostPath("/tmp/peer-result")) << text;
            fflush(stdout);
            _exit(text.empty() ? 0 : 1);
        }
        return pid;
    }
    std::string peerResult(pid_t pid) {
        int status = 0;
        waitpid(pid, &status, 0);
        std::ifstream in(peer.hostPath("/tmp/peer-result"));
        std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        return WIFEXITED(status) ? text : "peer died";
    }

    quarn::vboard::Board local;
    quarn::vboard::Board peer;
    std::shared_ptr<quarn::vboard::NtbLink> link;
};

TEST_F(NtbTest, BridgesFoundByVendorAndDeviceId) {
    NTBDAPI ntb("NTBDAPI");
    auto f = std::make_shared<quarn::vboard::PciFunction>(0x10B5, 0x87B1, 0x068000, 0xCA, 0x00, 4096);
    local.pci->add("0000:0b:00.0", f);
    std::vector<_NTB_INFO> list;
    ASSERT_EQ(render(ntb.searchDevice(&list)), "");
    ASSERT_EQ(list.size(), 3u);
    std::vector<std::string> ids;
    for (size_t i = 0; i < list.size(); ++i) {
        EXPECT_EQ(list[i].index, i);
        EXPECT_EQ(list[i].name, "NTB" + std::to_string(i));
        char t[16];
        snprintf(t, sizeof(t), "%04x:%04x", list[i].info.vendorID, list[i].info.deviceID);
        ids.push_back(t);
    }
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(ids, (std::vector<std::string>{"10b5:87b0", "10b5:87b1", "8086:6f0d"}));

    for (const char* a : {"0000:00:03.0", "0000:07:00.0", "0000:0b:00.0"}) {
        local.removeDevice(std::string("/sys/bus/pci/devices/") + a + "/config");
        std::filesystem::remove_all(local.hostPath(std::string("/sys/bus/pci/devices/") + a));
    }
    list.clear();
    EXPECT_EQ(render(ntb.searchDevice(&list)),
              "NTBDAPI::searchDevice -> NTBDDAPI::searchDevice: \"no device is found\"");
}

TEST_F(NtbTest, WindowFileRules) {
    NTBDDAPI dev("NTBDDAPI");
    const std::string head = "NTBDDAPI::getWindowInfo: ";
    EXPECT_EQ(render(dev.getWindowInfo(0)), head + "\"can't find ntbInfo file\"");
    local.writeFile("/tmp/ntbInfo",
                    "ntbWriteWindow=3c0000000\nntbReadWindow=2f0001000\nntbWindowSize=1048576\n"
                    "ntbRemoteBuffSize=524288\n");
    EXPECT_EQ(render(dev.getWindowInfo(0)), head + "\"window size mismatch\"");
    local.writeFile("/tmp/ntbInfo", "ntbWriteWindow=zz\nntbReadWindow=0\nntbWindowSize=8\nntbRemoteBuffSize=8\n");
    EXPECT_EQ(render(dev.getWindowInfo(0)), head + "\"invalid ntbInfo entry\"");
    local.writeFile("/tmp/ntbInfo", "ntbWindowSize=8\nntbRemoteBuffSize=8\n");
    EXPECT_EQ(render(dev.getWindowInfo(0)), head + "\"invalid ntbInfo entry\"");
    local.writeFile("/tmp/ntbInfo",
                    "ntbWriteWindow=3c0000000\nntbReadWindow=2f0001000\nntbWindowSize=1048576\n"
                    "ntbRemoteBuffSize=1048576\n");
    EXPECT_EQ(render(dev.getWindowInfo(0)), head + "\"fail to open driver\"");

    connect();
    EXPECT_EQ(render(dev.getWindowInfo(1048577)), head + "\"invalid buffer size\"");
    ASSERT_EQ(render(dev.getWindowInfo(4096)), "");
    EXPECT_EQ(dev.windowSize(), 4096u);
    // The read window lies 4 KB into its 1 MB unit.
    EXPECT_EQ(reinterpret_cast<uint8_t*>(dev.readWindow()), link->readWindow(0));
    EXPECT_EQ(reinterpret_cast<uint8_t*>(dev.writeWindow()), link->writeWindow(0));
    EXPECT_EQ(render(dev.releaseWindowResource()), "");
    EXPECT_EQ(render(dev.createDataBlocks(1, 2)), "NTBDDAPI::createDataBlocks: \"invalid buffer size\"");
    EXPECT_EQ(render(dev.releaseDataBlocks()), "NTBDDAPI::releaseDataBlocks: \"invalid buffer size\"");
}

TEST_F(NtbTest, TheSetupReplacesAPlantedWindowFileLink) {
    local.writeFile("/etc/victim", "keep me\n");
    local.makeSymlink(local.hostPath("/etc/victim"), "/tmp/ntbInfo");
    connect();
    std::ifstream victim(local.hostPath("/etc/victim"));
    std::string text((std::istreambuf_iterator<char>(victim)), std::istreambuf_iterator<char>());
    EXPECT_EQ(text, "keep me\n");
    struct stat st;
    ASSERT_EQ(lstat(local.hostPath("/tmp/ntbInfo").c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    NTBDDAPI dev("NTBDDAPI");
    EXPECT_EQ(render(dev.getWindowInfo(0)), "");
}

TEST_F(NtbTest, ServerAndClientExchangeDataAcrossTheBridge) {
    connect();
    const pid_t pid = startPeer([](NTBDAPI& ntb) { return ntb.client("NTB0", 0x1111222233334444ull, 0xA5A5A5A5ull, 3); });
    NTBDAPI ntb("NTBDAPI");
    testing::internal::CaptureStdout();
    const std::string result = render(ntb.server("NTB0", 0x1111222233334444ull, 0xA5A5A5A5ull, 3));
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(result, "");
    EXPECT_EQ(peerResult(pid), "");
    EXPECT_NE(out.find("data is caught !!!"), std::string::npos);
    // Three rounds sent the pattern, its inverse and the pattern again.
    uint64_t first = 0;
    memcpy(&first, link->readWindow(1), 8);
    EXPECT_EQ(first, 0x1111222233334444ull);
}

TEST_F(NtbTest, APeerThatNeverAnswersTimesOutAfterTenPolls) {
    connect();
    NTBDAPI ntb("NTBDAPI");
    const uint64_t before = local.clock().nowNs();
    testing::internal::CaptureStdout();
    EXPECT_EQ(render(ntb.server("NTB0", 1, 2, 1)),
              "NTBDAPI::send -> NTBDDAPI::server -> NTBDDAPI::receiveData: \"timeout to wait receiver\"");
    const std::string out = testing::internal::GetCapturedStdout();
    size_t polls = 0;
    for (size_t at = out.find("Receiving data ..."); at != std::string::npos; at = out.find("Receiving data ...", at + 1))
        ++polls;
    EXPECT_EQ(polls, 10u);
    EXPECT_GE(local.clock().nowNs() - before, 10ull * 1000000000ull);
}

TEST_F(NtbTest, AWindowThatDropsAWordFailsTheTransfer) {
    connect();
    link->dropWord(1, 77);
    const pid_t pid = startPeer([](NTBDAPI& ntb) { return ntb.client("NTB0", 0x55ull, 0x0123456789ull, 1); });
    NTBDAPI ntb("NTBDAPI");
    testing::internal::CaptureStdout();
    EXPECT_EQ(render(ntb.server("NTB0", 0x55ull, 0x0123456789ull, 1)),
              "NTBDAPI::send -> NTBDDAPI::server -> NTBDDAPI::receiveData: \"timeout to wait receiver\"");
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(peerResult(pid), "");
    uint64_t word = 0;
    memcpy(&word, link->readWindow(0) + 76 * 8, 8);
    EXPECT_EQ(word, 0x0123456789ull);
    memcpy(&word, link->readWindow(0) + 77 * 8, 8);
    EXPECT_EQ(word, 0u);
}

TEST_F(NtbTest, ThroughputAfterThePeersReadinessMark) {
    connect();
    const pid_t pid = startPeer([](NTBDAPI& ntb) { return ntb.stress(NTBDDAPI::kReadyMark, 1, 0, false, false); });
    NTBDAPI ntb("NTBDAPI");
    testing::internal::CaptureStdout();
    EXPECT_EQ(render(ntb.testPerformance(0xFEEDull, 4096, 100)), "");
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(peerResult(pid), "");
    EXPECT_NE(out.find("speed: "), std::string::npos);
    EXPECT_GT(ntb.device()->lastSpeed(), 0.0);
    // 4,096 bytes per copy: 512 words reached the peer, the rest of the window did not.
    uint64_t word = 0;
    memcpy(&word, link->readWindow(1) + 511 * 8, 8);
    EXPECT_EQ(word, 0xFEEDull);
    memcpy(&word, link->readWindow(1) + 512 * 8, 8);
    EXPECT_EQ(word, 0u);
}

TEST_F(NtbTest, InitialWindowClearsAndStressVerifiesWithTheLastResultKept) {
    connect();
    memset(link->readWindow(0), 0x77, 64);
    NTBDAPI ntb("NTBDAPI");
    EXPECT_EQ(render(ntb.initialWindow()), "");
    EXPECT_EQ(link->readWindow(0)[0], 0);
    testing::internal::CaptureStdout();
    const std::string failed = render(ntb.stress(0x99, 2, 0, true, false));
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(failed, "NTBDAPI::send -> NTBDDAPI::stress -> NTBDDAPI::receiveData: \"timeout to wait receiver\"");
    EXPECT_EQ(render(ntb.stress(0x99, 2, 0, true, true)), failed);
    EXPECT_EQ(render(ntb.stress(0x99, 2, 0, false, false)), "");
    EXPECT_EQ(render(ntb.stress(0x99, 2, 0, true, true)), "");
}

}  // namespace
