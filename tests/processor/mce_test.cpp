// Tests of the machine-check log reader against the simulated /dev/mcelog.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <ctime>
#include <string>

#include "api/ErrorText.h"
#include "api/platform/Platform.h"
#include "dapi/processor/GetMCEDAPI.h"
#include "dapi/processor/ProcessorDAPI.h"
#include "vboard/Board.h"
#include "tests/lib/Render.h"

namespace {

using quarn::vboard::Board;

using quarn::test::render;
std::string ctimeOf(uint64_t seconds) {
    time_t t = static_cast<time_t>(seconds);
    char buf[64];
    ctime_r(&t, buf);
    return buf;
}

struct mce event(uint8_t cpu, uint32_t extcpu, uint32_t socket, uint64_t time) {
    struct mce m {};
    m.status = 0x9C00004001010091ULL;  // uncorrected memory read error, valid, enabled
    m.misc = 0x86;
    m.addr = 0x12345000;
    m.mcgstatus = 0x5;
    m.ip = 0xFFFFFFFF81000000ULL;
    m.cs = 0x10;
    m.tsc = 0x1D3A5F0C2B;
    m.time = time;
    m.bank = 7;
    m.cpu = cpu;
    m.extcpu = extcpu;
    m.socketid = socket;
    m.apicid = 0x22;
    m.mcgcap = 0x7000C16;
    return m;
}

class MceTest : public ::testing::Test {
protected:
    void SetUp() override { quarn::installPlatform(&board); }
    void TearDown() override { quarn::installPlatform(nullptr); }
    Board board;
};

TEST_F(MceTest, EmptyLog) {
    ProcessorDAPI cpu("CPU");
    std::string text = "stale";
    ASSERT_EQ(cpu.GetMCE(&text), nullptr);
    EXPECT_EQ(text, "No MCE error message.");
}

TEST_F(MceTest, FormatsEveryRecordAndDrainsTheLog) {
    board.mcelog->log(event(3, 0, 0, 1700000000));
    board.mcelog->log(event(1, 5, 0, 1700000100));
    ProcessorDAPI cpu("CPU");
    std::string text;
    ASSERT_EQ(cpu.GetMCE(&text), nullptr);
    const std::string common =
        "BANK 7\nTSC 0x1d3a5f0c2b\nRIP 0x10:0xffffffff81000000\nMISC 0x86\nADDR 0x12345000\n"
        "STATUS 0x9c00004001010091\nMCGSTATUS 0x5\n";
    const std::string tail = "SOCKETID 0\nAPICID 34\nMCGCAP 0x7000c16\n";
    EXPECT_EQ(text, "\nCPU 3\n" + common + "TIME 1700000000, " + ctimeOf(1700000000) + tail +
                        "\nCPU 5\n" + common + "TIME 1700000100, " + ctimeOf(1700000100) + tail);
    EXPECT_EQ(board.mcelog->pending(), 0u);
    ASSERT_EQ(cpu.GetMCE(&text), nullptr);
    EXPECT_EQ(text, "No MCE error message.");
}

TEST_F(MceTest, ZeroTimeBecomesNowAndUnfinishedIsFlagged) {
    board.setEpoch(1600000000);
    GetMCEDAPI mce("MCE");
    struct mce m = event(2, 0, 0, 0);
    std::string text;
    mce.mce_prepare(&m);
    EXPECT_EQ(m.time, 1600000000u);
    m.finished = 0;
    mce.dump_mce_raw_ascii(&m, 88, &text);
    EXPECT_EQ(text.rfind("not finished?\n\nCPU 2\n", 0), 0u) << text;
}

TEST_F(MceTest, ShortRecordLengthLeavesOutLaterFields) {
    board.mcelog->setRecordLength(72);
    board.mcelog->log(event(3, 0, 0, 1700000000));
    ProcessorDAPI cpu("CPU");
    std::string text;
    ASSERT_EQ(cpu.GetMCE(&text), nullptr);
    EXPECT_NE(text.find("SOCKETID 0\n"), std::string::npos);
    EXPECT_EQ(text.find("APICID"), std::string::npos);
    EXPECT_EQ(text.find("MCGCAP"), std::string::npos);
}

TEST_F(MceTest, NewerLayoutIsFormattedThenReported) {
    board.mcelog->setRecordLength(sizeof(struct mce));
    board.mcelog->log(event(3, 0, 0, 1700000000));
    ProcessorDAPI cpu("CPU");
    std::string text;
    EXPECT_EQ(render(cpu.GetMCE(&text)),
              "ProcessorDAPI::GetMCE -> ProcessorDAPI::process: \"Consider an update\"");
    EXPECT_NE(text.find("MCGCAP 0x7000c16\n"), std::string::npos);
}

TEST_F(MceTest, OnePackageOnly) {
    board.processors = std::make_shared<quarn::vboard::ProcessorComplex>(2, 4, 2);
    board.processors->install(board);
    board.mcelog->log(event(3, 0, 0, 1700000000));
    board.mcelog->log(event(0, 9, 1, 1700000200));
    ProcessorDAPI cpu("CPU");
    std::string text;
    ASSERT_EQ(cpu.GetMCE("processor1", &text), nullptr);
    EXPECT_EQ(text,
              "CPU 9\nBANK 7\nTSC 0x1d3a5f0c2b\nRIP 0x10:0xffffffff81000000\nMISC 0x86\n"
              "ADDR 0x12345000\nSTATUS 0x9c00004001010091\nMCGSTATUS 0x5\nSOCKETID 1\n"
              "APICID 34\nMCGCAP 0x7000c16\nTIME 1700000200, " +
                  ctimeOf(1700000200) + "\n");
    EXPECT_EQ(render(cpu.GetMCE("processor16", &text)),
              "ProcessorDAPI::GetInformation -> ProcessorDAPI::GetInformation: "
              "\"CPU ID out of range\"");
}

TEST_F(MceTest, DeviceFailures) {
    ProcessorDAPI cpu("CPU");
    std::string text;
    board.mcelog->faults().ioctlErrno[MCE_GET_LOG_LEN] = EINVAL;
    EXPECT_EQ(render(cpu.GetMCE(&text)),
              "ProcessorDAPI::GetMCE -> ProcessorDAPI::Execute: \"Can't get MCE log lenth\"");
    board.mcelog->faults().ioctlErrno[MCE_GET_RECORD_LEN] = ENOTTY;
    EXPECT_EQ(render(cpu.GetMCE(&text)),
              "ProcessorDAPI::GetMCE -> ProcessorDAPI::Execute: \"Can't get MCE record lenth\"");
    board.mcelog->faults().ioctlErrno.clear();
    board.mcelog->faults().readErrno = EIO;
    ASSERT_EQ(cpu.GetMCE(&text), nullptr);
    EXPECT_EQ(text, "mcelog read");
    board.mcelog->faults().openErrno = EACCES;
    EXPECT_EQ(render(cpu.GetMCE(&text)),
              "ProcessorDAPI::GetMCE -> ProcessorDAPI::Execute: \"Open /dev/mcelog failed\"");
}

TEST_F(MceTest, DriverWantsRoomForTheWholeLog) {
    board.mcelog->log(event(3, 0, 0, 1));
    quarn::Platform& p = quarn::platform();
    int fd = p.open("/dev/mcelog", O_RDONLY);
    ASSERT_GE(fd, 0);
    char small[88];
    EXPECT_EQ(p.read(fd, small, sizeof(small)), -1);
    EXPECT_EQ(errno, EINVAL);
    p.close(fd);
    EXPECT_EQ(board.mcelog->pending(), 1u);
}

}  // namespace
