// The virtual board's platform: its file tree, device nodes, faults, ports, programs,
// semaphores, affinity, time, and the RTC model's driver behaviour.
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <linux/rtc.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "api/platform/Files.h"
#include "vboard/Board.h"

namespace {

using quarn::vboard::Board;

TEST(VirtualBoard, FilesLiveUnderThePrivateRootAndCannotEscapeIt) {
    Board board;
    board.writeFile("/etc/quarn/memory.conf", "CHANNEL_NUM=2\n");
    int fd = board.open("/etc/../etc/quarn/./memory.conf", O_RDONLY);
    ASSERT_GE(fd, 1000);
    char buf[64] = {0};
    EXPECT_EQ(board.read(fd, buf, sizeof(buf)), 14);
    EXPECT_STREQ(buf, "CHANNEL_NUM=2\n");
    EXPECT_EQ(board.close(fd), 0);
    EXPECT_EQ(board.close(fd), -1);
    EXPECT_EQ(errno, EBADF);
    // ".." stops at the board's "/".
    EXPECT_EQ(board.hostPath("/../../etc/passwd"), board.root() + "/etc/passwd");
    EXPECT_EQ(board.open("/etc/passwd", O_RDONLY), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(VirtualBoard, DeviceNodesAppearInTheTreeAsCharacterDevices) {
    Board board;
    struct stat st;
    ASSERT_EQ(board.stat("/dev/rtc0", &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    std::vector<quarn::DirEntry> entries;
    ASSERT_EQ(board.listDirectory("/dev", &entries), 0);
    bool found = false;
    for (const auto& e : entries) {
        if (e.name != "rtc0") continue;
        found = true;
        EXPECT_EQ(e.type, DT_CHR);
    }
    EXPECT_TRUE(found);
    board.removeDevice("/dev/rtc0");
    EXPECT_EQ(board.open("/dev/rtc0", O_RDONLY), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(VirtualBoard, PortsNeedPermissionAndUndecodedPortsFloatHigh) {
    Board board;
    EXPECT_EQ(board.inb(0x40), 0xFF);
    EXPECT_EQ(board.portViolations(), 1u);
    ASSERT_EQ(board.ioperm(0x80, 1, 1), 0);
    EXPECT_EQ(board.inb(0x80), 0xFF);  // permitted, nothing there
    EXPECT_EQ(board.inl(0x80), 0xFFFFFFFFu);  // spans 0x80-0x83: not all permitted
    EXPECT_EQ(board.portViolations(), 2u);
    board.stickPort(0x80, 0x5A);
    EXPECT_EQ(board.inb(0x80), 0x5A);
    board.setPortAccessAllowed(false);
    EXPECT_EQ(board.ioperm(0x40, 4, 1), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(board.iopl(3), -1);
    EXPECT_EQ(board.ioperm(0x40, 4, 0), 0);  // giving up access always works
    EXPECT_EQ(board.ioperm(0xFFFF, 2, 1), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(VirtualBoard, ProgramsRunByArgumentVector) {
    Board board;
    std::vector<std::string> seen;
    board.addProgram("dmidecode", [&](const std::vector<std::string>& argv, std::string* out) {
        seen = argv;
        *out = "Memory Device\n";
        return 3;
    });
    std::string out;
    int status = 0;
    ASSERT_EQ(board.runProgram({"/usr/sbin/dmidecode", "-t", "17; rm -rf /"}, &out, &status), 0);
    EXPECT_EQ(out, "Memory Device\n");
    EXPECT_EQ(WEXITSTATUS(status), 3);
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[2], "17; rm -rf /");  // one argument, never a command
    EXPECT_EQ(board.runProgram({"no-such-tool"}, &out, &status), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(VirtualBoard, SemaphoresAffinityAndTime) {
    Board board;
    int id = board.semget(0x1234, 1, IPC_CREAT | 0600);
    ASSERT_GT(id, 0);
    EXPECT_EQ(board.semget(0x1234, 1, 0), id);
    EXPECT_EQ(board.semget(0x1234, 1, IPC_CREAT | IPC_EXCL), -1);
    ASSERT_EQ(board.semctl(id, 0, SETVAL, 1), 0);
    struct sembuf take = {0, -1, SEM_UNDO};
    EXPECT_EQ(board.semop(id, &take, 1), 0);
    EXPECT_EQ(board.semop(id, &take, 1), -1);  // held
    EXPECT_EQ(errno, EAGAIN);
    struct sembuf give = {0, 1, SEM_UNDO};
    EXPECT_EQ(board.semop(id, &give, 1), 0);
    EXPECT_EQ(board.semctl(id, 0, GETVAL, 0), 1);
    EXPECT_EQ(board.semctl(id, 0, IPC_RMID, 0), 0);
    EXPECT_EQ(board.semget(0x1234, 1, 0), -1);

    board.setCpuCount(4);
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(5, &set);
    EXPECT_EQ(board.setAffinity(set), -1);
    CPU_ZERO(&set);
    CPU_SET(2, &set);
    ASSERT_EQ(board.setAffinity(set), 0);
    cpu_set_t back;
    ASSERT_EQ(board.getAffinity(&back), 0);
    EXPECT_TRUE(CPU_EQUAL(&set, &back));

    const uint64_t t0 = board.monotonicNanoseconds();
    board.sleepMicroseconds(3'000'000);
    // The sleep and the cost of one reading of the clock.
    EXPECT_EQ(board.monotonicNanoseconds() - t0, 3'000'001'000ULL);
    // A loop that only polls the clock still reaches its deadline.
    const uint64_t deadline = board.monotonicNanoseconds() + 1'000'000;
    int polls = 0;
    while (board.monotonicNanoseconds() < deadline) ++polls;
    EXPECT_EQ(polls, 999);
    board.setEpoch(1700000000);
    struct timespec now;
    board.wallClock(&now);
    EXPECT_EQ(now.tv_sec, 1700000000 + static_cast<time_t>(board.clock().nowNs() / 1000000000ULL));
}

TEST(RtcModel, BehavesLikeTheKernelsRtcNode) {
    Board board;
    int fd = board.open("/dev/rtc0", O_RDONLY);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(board.open("/dev/rtc0", O_RDONLY), -1);  // one opener at a time
    EXPECT_EQ(errno, EBUSY);

    struct rtc_time tm = {};
    tm.tm_year = 124, tm.tm_mon = 1, tm.tm_mday = 30;  // 30 February
    EXPECT_EQ(board.ioctl(fd, RTC_SET_TIME, &tm), -1);
    EXPECT_EQ(errno, EINVAL);
    tm.tm_year = 99, tm.tm_mday = 1;  // 1999: outside the clock's range
    EXPECT_EQ(board.ioctl(fd, RTC_SET_TIME, &tm), -1);
    EXPECT_EQ(errno, ERANGE);
    tm.tm_year = 124, tm.tm_mon = 11, tm.tm_mday = 31, tm.tm_hour = 23, tm.tm_min = 59, tm.tm_sec = 59;
    ASSERT_EQ(board.ioctl(fd, RTC_SET_TIME, &tm), 0);
    board.clock().advanceNs(1'500'000'000ULL);
    struct rtc_time now = {};
    ASSERT_EQ(board.ioctl(fd, RTC_RD_TIME, &now), 0);
    EXPECT_EQ(now.tm_year, 125);
    EXPECT_EQ(now.tm_yday, 0);
    EXPECT_EQ(now.tm_wday, 3);  // 2025-01-01 was a Wednesday
    EXPECT_EQ(now.tm_sec, 0);

    EXPECT_EQ(board.ioctl(fd, RTC_IRQP_SET, reinterpret_cast<void*>(100UL)), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(board.ioctl(fd, RTC_IRQP_SET, reinterpret_cast<void*>(16384UL)), -1);
    ASSERT_EQ(board.ioctl(fd, RTC_IRQP_SET, reinterpret_cast<void*>(4UL)), 0);
    unsigned long rate = 0;
    ASSERT_EQ(board.ioctl(fd, RTC_IRQP_READ, &rate), 0);
    EXPECT_EQ(rate, 4u);

    unsigned int data = 0;
    EXPECT_EQ(board.read(fd, &data, 2), -1);  // shorter than an int
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(board.read(fd, &data, sizeof(data)), -1);  // nothing enabled
    ASSERT_EQ(board.ioctl(fd, RTC_PIE_ON, nullptr), 0);
    ASSERT_EQ(board.read(fd, &data, sizeof(data)), 4);
    EXPECT_EQ(data & 0xFF, static_cast<unsigned>(RTC_IRQF | RTC_PF));
    EXPECT_EQ(data >> 8, 1u);
    // Interrupts that happened while nobody read are counted in the next read.
    board.clock().advanceNs(1'000'000'000ULL);
    ASSERT_EQ(board.read(fd, &data, sizeof(data)), 4);
    EXPECT_EQ(data >> 8, 4u);
    EXPECT_EQ(board.ioctl(fd, 0x1234, nullptr), -1);
    EXPECT_EQ(errno, ENOTTY);
    ASSERT_EQ(board.close(fd), 0);
    EXPECT_FALSE(board.rtc->periodicEnabled());  // closing turns interrupts off
    int again = board.open("/dev/rtc0", O_RDWR | O_NONBLOCK);
    ASSERT_GE(again, 0);
    ASSERT_EQ(board.ioctl(again, RTC_UIE_ON, nullptr), 0);
    EXPECT_EQ(board.read(again, &data, sizeof(data)), -1);
    EXPECT_EQ(errno, EAGAIN);
    board.close(again);
}

TEST(RtcModel, DriftAppliesToTimeAndInterrupts) {
    Board board;
    board.rtc->setDriftPpm(20000);
    const int64_t before = board.rtc->clockNs();
    board.clock().advanceNs(1'000'000'000ULL);
    EXPECT_EQ(board.rtc->clockNs() - before, 1'020'000'000);
}

}  // namespace

namespace {

TEST(VirtualBoard, MappingsOutliveTheirDescriptorAndUnmapThroughTheirOwner) {
    quarn::vboard::Board board;
    board.writeFile("/sys/bus/pci/devices/0000:00:1f.2/resource0", std::string(4096, '\0'));
    int fd = board.open("/sys/bus/pci/devices/0000:00:1f.2/resource0", O_RDWR);
    ASSERT_GE(fd, 0);
    void* p = board.mmap(4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ASSERT_NE(p, MAP_FAILED);
    board.close(fd);
    static_cast<volatile uint32_t*>(p)[1] = 0x12345678;  // still mapped after close
    EXPECT_EQ(board.munmap(p, 4096), 0);
    EXPECT_EQ(board.munmap(p, 4096), -1);  // not a mapping any more
    EXPECT_EQ(errno, EINVAL);
    std::string back;
    int again = board.open("/sys/bus/pci/devices/0000:00:1f.2/resource0", O_RDONLY);
    uint32_t word = 0;
    ASSERT_EQ(board.pread(again, &word, 4, 4), 4);
    EXPECT_EQ(word, 0x12345678u);
    board.close(again);
    int rtc = board.open("/dev/rtc0", O_RDONLY);
    EXPECT_EQ(board.mmap(4096, PROT_READ, MAP_SHARED, rtc, 0), MAP_FAILED);  // no mmap on the clock
    EXPECT_EQ(errno, ENODEV);
    board.close(rtc);
}

}  // namespace

namespace {

// Board tools on the board's private PATH run for real, by argument vector.
TEST(VirtualBoard, ExecutablesOnThePrivatePathRunForReal) {
    quarn::vboard::VirtualBoard board;
    board.writeFile("/usr/sbin/board-tool", "#!/bin/sh\nprintf '%s|' \"$@\"\nexit 4\n");
    ASSERT_EQ(chmod(board.hostPath("/usr/sbin/board-tool").c_str(), 0755), 0);
    std::string out;
    int status = 0;
    ASSERT_EQ(board.runProgram({"board-tool", "a b", "$(touch /tmp/x)", ";"}, &out, &status), 0);
    EXPECT_EQ(out, "a b|$(touch /tmp/x)|;|");
    EXPECT_EQ(WEXITSTATUS(status), 4);
    // Not on the board's PATH: the host's tools are not reachable from the board.
    EXPECT_EQ(board.runProgram({"ls", "/"}, &out, &status), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(VirtualBoard, FaultsApplyPerDeviceAndPerRequest) {
    quarn::vboard::Board board;
    auto rtc = board.device("/dev/rtc0");
    rtc->faults().readErrno = EINTR;
    int fd = board.open("/dev/rtc0", O_RDONLY);
    ASSERT_GE(fd, 0);
    unsigned int data;
    EXPECT_EQ(board.read(fd, &data, sizeof(data)), -1);
    EXPECT_EQ(errno, EINTR);
    struct rtc_time tm {};
    EXPECT_EQ(board.ioctl(fd, RTC_RD_TIME, &tm), 0);  // other requests are untouched
    rtc->faults().ioctlErrno[RTC_RD_TIME] = EPROTO;
    EXPECT_EQ(board.ioctl(fd, RTC_RD_TIME, &tm), -1);
    EXPECT_EQ(errno, EPROTO);
    board.close(fd);
    rtc->faults().openErrno = EACCES;
    EXPECT_EQ(board.open("/dev/rtc0", O_RDONLY), -1);
    EXPECT_EQ(errno, EACCES);
}

}  // namespace

namespace {

bool present(const std::string& p) {
    struct stat st;
    return ::lstat(p.c_str(), &st) == 0;
}

// A killed tool leaves its private root behind; the next board removes it, and never a
// root that a living board holds, a root being made, or anything a link points to.
TEST(BoardRoots, RootsOfDeadProcessesAreRemovedByTheNextBoard) {
    char tmpl[] = "/tmp/quarn-roots-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const std::string dir = tmpl;
    const char* saved = getenv("TMPDIR");
    const std::string savedValue = saved ? saved : "";
    setenv("TMPDIR", dir.c_str(), 1);

    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        auto* killed = new quarn::vboard::VirtualBoard();  // never destroyed: the process dies
        const std::string& root = killed->root();
        if (::write(fds[1], root.data(), root.size()) != static_cast<ssize_t>(root.size())) _exit(2);
        _exit(0);
    }
    ::close(fds[1]);
    char buf[256] = {0};
    ASSERT_GT(::read(fds[0], buf, sizeof(buf) - 1), 0);
    ::close(fds[0]);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    const std::string killedRoot = buf;
    ASSERT_TRUE(present(killedRoot + "/.owner"));

    {
        quarn::vboard::VirtualBoard live;
        ASSERT_EQ(::mkdir((dir + "/quarn-board-fresh").c_str(), 0700), 0);  // being made now
        ASSERT_EQ(::mkdir((dir + "/quarn-board-old").c_str(), 0700), 0);    // unlocked, an hour old
        struct timespec old[2] = {{::time(nullptr) - 3600, 0}, {::time(nullptr) - 3600, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, (dir + "/quarn-board-old").c_str(), old, 0), 0);
        ASSERT_EQ(::mkdir((dir + "/target").c_str(), 0700), 0);
        ASSERT_EQ(symlink((dir + "/target").c_str(), (dir + "/quarn-board-link").c_str()), 0);

        quarn::vboard::VirtualBoard next;
        EXPECT_FALSE(present(killedRoot));
        EXPECT_TRUE(present(live.root() + "/.owner"));
        EXPECT_TRUE(present(dir + "/quarn-board-fresh"));
        EXPECT_FALSE(present(dir + "/quarn-board-old"));
        EXPECT_TRUE(present(dir + "/quarn-board-link"));
        EXPECT_TRUE(present(dir + "/target"));
    }
    if (saved) setenv("TMPDIR", savedValue.c_str(), 1); else unsetenv("TMPDIR");
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
}

}  // namespace
