// The serial-port module against the virtual board's 16550A UARTs.
#include <gtest/gtest.h>

#include <linux/serial.h>
#include <sys/ioctl.h>

#include <string>
#include <vector>

#include "api/platform/Files.h"
#include "api/platform/Platform.h"
#include "dapi/uart/UARTDAPI.h"
#include "ddapi/uart/UARTDDAPI.h"
#include "tests/lib/Render.h"
#include "vboard/Board.h"

namespace {

using quarn::test::render;

class UartTest : public ::testing::Test {
protected:
    void SetUp() override { quarn::installPlatform(&board); }
    void TearDown() override {
        quarn::installPlatform(nullptr);
        EXPECT_EQ(board.portViolations(), 0u) << "a port was used without permission";
    }

    // Writes a register the way a driver would, outside the library.
    void poke(int index, int offset, uint8_t value) {
        const uint16_t port = static_cast<uint16_t>(board.serial.uart[index]->base() + offset);
        board.ioperm(port, 1, 1);
        board.outb(value, port);
        board.ioperm(port, 1, 0);
    }

    std::string loopback(const char* name, unsigned int length, bool fixed = false, uint8_t pattern = 0) {
        testing::internal::CaptureStdout();
        std::string r = render(uart.doInternalLoopbackTest(name, false, length, fixed, pattern));
        printed = testing::internal::GetCapturedStdout();
        return r;
    }

    quarn::vboard::Board board;
    UARTDAPI uart{"UARTDAPI"};
    std::string printed;
};

TEST_F(UartTest, ListsThePortsTheKernelAnswersForThroughTheScratchFile) {
    std::vector<_SERIAL_INFO> ports;
    ASSERT_EQ(render(uart.getUartList(&ports)), "");
    // ttyS4 is listed with the 8250 driver but has no UART (open fails): it is skipped
    // without using up a name; tty0 and console have no device and are not listed.
    ASSERT_EQ(ports.size(), 4u);
    const unsigned bases[] = {0x3F8, 0x2F8, 0x3E8, 0x2E8};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(ports[i].name, "uart" + std::to_string(i));
        EXPECT_EQ(ports[i].path, "/dev/ttyS" + std::to_string(i));
        EXPECT_EQ(ports[i].type, "16550A");
        EXPECT_EQ(static_cast<unsigned>(ports[i].serial.port), bases[i]);
        EXPECT_EQ(ports[i].serial.line, static_cast<int>(i));
    }
    std::string list;
    ASSERT_EQ(quarn::readTextFile("uartList", &list), 0);
    EXPECT_EQ(list,
              "/sys/class/tty/ttyS0/device/driver:\n/sys/class/tty/ttyS1/device/driver:\n"
              "/sys/class/tty/ttyS2/device/driver:\n/sys/class/tty/ttyS3/device/driver:\n"
              "/sys/class/tty/ttyS4/device/driver:\n");

    _SERIAL_INFO info;
    ASSERT_EQ(render(uart.getUartInfoByName("uart2", &info)), "");
    EXPECT_EQ(info.path, "/dev/ttyS2");
    EXPECT_EQ(render(uart.getUartInfoByName("uart4", &info)),
              "UARTDAPI::getUartInfoByName: \"No device is found - uart4\"");
}

TEST_F(UartTest, ScratchFileIsNotWrittenThroughAPlantedLink) {
    board.writeFile("/etc/passwd", "root:x:0:0\n");
    board.makeSymlink("/etc/passwd", "/uartList");
    std::vector<_SERIAL_INFO> ports;
    ASSERT_EQ(render(uart.getUartList(&ports)), "");
    EXPECT_EQ(ports.size(), 4u);
    std::string victim;
    ASSERT_EQ(quarn::readTextFile("/etc/passwd", &victim), 0);
    EXPECT_EQ(victim, "root:x:0:0\n");
    struct stat st;
    ASSERT_EQ(board.lstat("/uartList", &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
}

TEST_F(UartTest, ScratchFileThatCannotBeWrittenFailsTheScan) {
    board.writeFile("/uartList/blocker", "");  // a directory stands where the file goes
    std::vector<_SERIAL_INFO> ports;
    testing::internal::CaptureStdout();
    std::string r = render(uart.getUartList(&ports));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "open uartList file fail !!!\n");
    EXPECT_EQ(r, "UARTDAPI::getUartList -> UARTDDAPI::scanUarts: \"Fail to open file node\"");
    EXPECT_TRUE(ports.empty());
}

TEST_F(UartTest, PortWhoseSerialRequestFailsIsSkipped) {
    board.serial.tty[1]->faults().ioctlErrno[TIOCGSERIAL] = EINVAL;
    std::vector<_SERIAL_INFO> ports;
    ASSERT_EQ(render(uart.getUartList(&ports)), "");
    ASSERT_EQ(ports.size(), 3u);
    EXPECT_EQ(ports[1].name, "uart1");
    EXPECT_EQ(ports[1].path, "/dev/ttyS2");
}

TEST_F(UartTest, TypeNamesFollowTheSerialCoreNumbers) {
    UARTDDAPI dev("UARTDDAPI");
    EXPECT_STREQ(dev.getUartPortType(0), "UNKNOWN");
    EXPECT_STREQ(dev.getUartPortType(1), "8250");
    EXPECT_STREQ(dev.getUartPortType(4), "16550A");
    EXPECT_STREQ(dev.getUartPortType(10), "16C950");
    EXPECT_STREQ(dev.getUartPortType(12), "16850");
    EXPECT_STREQ(dev.getUartPortType(13), "UNKNOWN");
    EXPECT_STREQ(dev.getUartPortType(0xFFFFFFFF), "UNKNOWN");
    board.serial.tty[2]->setType(13);
    std::vector<_SERIAL_INFO> ports;
    ASSERT_EQ(render(uart.getUartList(&ports)), "");
    EXPECT_EQ(ports[2].type, "UNKNOWN");
}

TEST_F(UartTest, ScratchPadPassesAndKeepsTheRegister) {
    poke(1, 7, 0x3C);
    EXPECT_EQ(render(uart.testScratchPad("uart1")), "");  // base 0x2F8
    EXPECT_EQ(board.serial.uart[1]->reg(7), 0x3C);
}

TEST_F(UartTest, ScratchPadFailingAt0x55RestoresTheKeptValue) {
    poke(0, 7, 0x12);
    board.serial.uart[0]->setScratchStuckLow(0x01);
    EXPECT_EQ(render(uart.testScratchPad("uart0")),
              "UARTDAPI::testScratchPad -> UARTDDAPI::testScratchPad: \"compare data fail\"");
    EXPECT_EQ(board.serial.uart[0]->reg(7), 0x12);
}

TEST_F(UartTest, PortOutsideTheLegacyBasesIsNotSupported) {
    board.serial.tty[2]->setPort(0x3E0);
    EXPECT_EQ(render(uart.testScratchPad("uart2")),
              "UARTDAPI::testScratchPad -> UARTDDAPI::testScratchPad: "
              "\"function is not supported - uart2 at I/O port 0x3E0\"");
    EXPECT_EQ(loopback("uart2", 8),
              "UARTDAPI::doInternalLoopbackTest -> UARTDDAPI::doInternalLoopbackTest: "
              "\"function is not supported - uart2 at I/O port 0x3E0\"");
    EXPECT_EQ(render(uart.testScratchPad("uart7")),
              "UARTDAPI::testScratchPad -> UARTDDAPI::testScratchPad -> "
              "UARTDDAPI::searchUART: \"No device is found - uart7\"");
}

TEST_F(UartTest, PortAccessRefusedEndsTheTestAtTheFirstRegister) {
    board.setPortAccessAllowed(false);
    EXPECT_EQ(render(uart.testScratchPad("uart0")),
              "UARTDAPI::testScratchPad -> UARTDDAPI::testScratchPad -> "
              "UARTDDAPI::readRegister: \"port 0x3FF: Operation not permitted\"");
}

TEST_F(UartTest, LoopbackSendsTheCountingPatternThroughTheLoop) {
    EXPECT_EQ(loopback("uart1", 300), "");
    std::vector<uint8_t> looped = board.serial.uart[1]->looped();
    ASSERT_EQ(looped.size(), 300u);
    for (size_t i = 0; i < 300; ++i) EXPECT_EQ(looped[i], i % 256) << i;
    EXPECT_TRUE(board.serial.uart[1]->transmitted().empty()) << "nothing may leave on the line";
    EXPECT_EQ(uart.device()->loopbackBytesDone(), 300u);
    EXPECT_EQ(uart.getProgress(), 100u);
}

TEST_F(UartTest, LoopbackFixedPatternAndEmptyRun) {
    EXPECT_EQ(loopback("uart2", 16, true, 0x5A), "");
    EXPECT_EQ(board.serial.uart[2]->looped(), std::vector<uint8_t>(16, 0x5A));
    EXPECT_EQ(loopback("uart0", 0), "");
    EXPECT_TRUE(board.serial.uart[0]->looped().empty());
}

TEST_F(UartTest, LoopbackRestoresLineModemAndInterruptRegisters) {
    poke(1, 3, 0x1B);  // 8 data bits, even parity
    poke(1, 4, 0x0B);  // DTR, RTS, OUT2
    poke(1, 1, 0x05);
    EXPECT_EQ(loopback("uart1", 20), "");
    EXPECT_EQ(board.serial.uart[1]->reg(3), 0x1B);
    EXPECT_EQ(board.serial.uart[1]->reg(4), 0x0B);
    EXPECT_EQ(board.serial.uart[1]->reg(1), 0x05);
    // Also when the test fails.
    poke(3, 3, 0x07);
    poke(3, 4, 0x03);
    poke(3, 1, 0x01);
    board.injectFault("uart3-loop");
    EXPECT_NE(loopback("uart3", 20), "");
    EXPECT_EQ(board.serial.uart[3]->reg(3), 0x07);
    EXPECT_EQ(board.serial.uart[3]->reg(4), 0x03);
    EXPECT_EQ(board.serial.uart[3]->reg(1), 0x01);
}

TEST_F(UartTest, BrokenLoopOnTheFourthPortFailsTheCompare) {
    EXPECT_EQ(loopback("uart3", 64), "");
    ASSERT_TRUE(board.injectFault("uart3-loop"));
    EXPECT_EQ(loopback("uart3", 64),
              "UARTDAPI::doInternalLoopbackTest -> UARTDDAPI::doInternalLoopbackTest: \"compare data fail\"");
    board.serial.uart[3]->setLoopbackStuckHigh(0);
    EXPECT_EQ(loopback("uart3", 64), "");
}

TEST_F(UartTest, OpenLoopTimesOutWaitingForDataReady) {
    board.serial.uart[2]->setLoopbackOpen(true);
    EXPECT_EQ(loopback("uart2", 4),
              "UARTDAPI::doInternalLoopbackTest -> UARTDDAPI::doInternalLoopbackTest: "
              "\"Time out - line status bit 0x01 not set after 3500 polls\"");
    EXPECT_EQ(printed, "check DR bit fail !!!!!!!!!!!!!!!!!!!!!!\n");
    EXPECT_EQ(uart.getProgress(), 0u) << "no byte came back";
    EXPECT_EQ(board.serial.uart[2]->reg(4), 0) << "loop bit left on";
}

TEST_F(UartTest, CharactersTakeTheirTimeOnTheLine) {
    // 110 baud: one character lasts 91 ms, longer than the 35 ms of polling allowed.
    poke(1, 3, 0x80);
    poke(1, 0, 0x17);  // divisor 1047
    poke(1, 1, 0x04);
    poke(1, 3, 0x03);
    EXPECT_EQ(loopback("uart1", 2),
              "UARTDAPI::doInternalLoopbackTest -> UARTDDAPI::doInternalLoopbackTest: "
              "\"Time out - line status bit 0x01 not set after 3500 polls\"");
    // 9600 baud (divisor 12): about 1 ms a character, 100 polls.
    const uint64_t before = board.clock().nowNs();
    EXPECT_EQ(loopback("uart2", 10), "");
    const uint64_t took = board.clock().nowNs() - before;
    EXPECT_GT(took, 10 * 1'000'000ULL);
    EXPECT_LT(took, 12 * 1'000'000ULL);
}

TEST_F(UartTest, StaleReceivedCharacterDoesNotSpoilTheCompare) {
    board.serial.uart[0]->receiveFromLine('x');
    EXPECT_EQ(loopback("uart0", 8), "");
}

TEST_F(UartTest, ExternalLoopbackRunsNothing) {
    EXPECT_EQ(render(uart.doInternalLoopbackTest("uart1", true, 64, false, 0)), "");
    EXPECT_TRUE(board.serial.uart[1]->looped().empty());
}

}  // namespace
