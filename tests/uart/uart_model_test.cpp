// The 16550A model on its own: the registers as the data sheet describes them.
#include <gtest/gtest.h>

#include "vboard/VirtualClock.h"
#include "vboard/models/uart/Uart16550Model.h"

namespace {

using quarn::vboard::Uart16550Model;

class Uart16550 : public ::testing::Test {
protected:
    uint8_t in(int offset) { return static_cast<uint8_t>(uart.in(static_cast<uint16_t>(0x2F8 + offset), 1)); }
    void out(int offset, uint8_t v) { uart.out(static_cast<uint16_t>(0x2F8 + offset), v, 1); }
    void wait(uint64_t us) { clock.advanceNs(us * 1000); }

    quarn::vboard::VirtualClock clock;
    Uart16550Model uart{clock, 0x2F8, 1};  // 115200 baud: 86.8 us per 8N1 character
};

TEST_F(Uart16550, DivisorLatchSharesTheFirstTwoRegisters) {
    out(1, 0x05);
    out(3, 0x83);
    EXPECT_EQ(in(0), 0x01);
    EXPECT_EQ(in(1), 0x00);
    out(0, 0x0C);
    out(3, 0x03);
    EXPECT_EQ(in(1), 0x05) << "IER is back when DLAB clears";
    // 9600 baud now: a looped character arrives after about 1.04 ms, not before.
    out(4, 0x10);
    out(0, 'A');
    wait(1000);
    EXPECT_EQ(in(5) & 0x01, 0);
    wait(50);
    EXPECT_EQ(in(5) & 0x61, 0x61);
    EXPECT_EQ(in(0), 'A');
}

TEST_F(Uart16550, TransmitterStatusFollowsTheCharacterOnTheLine) {
    EXPECT_EQ(in(5), 0x60);
    out(0, 0x31);  // loop bit clear: the character leaves on the line
    EXPECT_EQ(in(5), 0x20) << "the first character moves straight into the shift register";
    wait(1);
    out(0, 0x32);
    EXPECT_EQ(in(5) & 0x60, 0x00) << "second byte waits behind the first";
    wait(100);
    EXPECT_EQ(in(5) & 0x60, 0x20) << "holding register empty, shift register still busy";
    wait(100);
    EXPECT_EQ(in(5) & 0x60, 0x60);
    EXPECT_EQ(uart.transmitted(), (std::vector<uint8_t>{0x31, 0x32}));
}

TEST_F(Uart16550, OverrunWithoutFifoKeepsTheNewestAndLatchesUntilRead) {
    uart.receiveFromLine('a');
    uart.receiveFromLine('b');
    EXPECT_EQ(in(5) & 0x03, 0x03);
    EXPECT_EQ(in(5) & 0x02, 0x00) << "reading line status clears the overrun";
    EXPECT_EQ(in(0), 'b');
    EXPECT_EQ(in(5) & 0x01, 0x00);
}

TEST_F(Uart16550, FifoHoldsSixteenCharactersAndShowsInTheIdentification) {
    EXPECT_EQ(in(2), 0x01);
    out(2, 0x07);
    EXPECT_EQ(in(2) & 0xC0, 0xC0);
    for (int i = 0; i < 17; ++i) uart.receiveFromLine(static_cast<uint8_t>(i));
    EXPECT_EQ(in(5) & 0x03, 0x03);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(in(0), i);
    EXPECT_EQ(in(5) & 0x01, 0x00);
    uart.receiveFromLine(9);
    out(2, 0x03);  // clear the receive FIFO
    EXPECT_EQ(in(5) & 0x01, 0x00);
    // Received-data interrupt when enabled.
    out(1, 0x01);
    uart.receiveFromLine(1);
    EXPECT_EQ(in(2), 0xC4);
}

TEST_F(Uart16550, LoopModeFeedsModemControlIntoModemStatus) {
    out(4, 0x10 | 0x01);  // DTR -> DSR
    EXPECT_EQ(in(6), 0x20);
    out(4, 0x10 | 0x02);  // RTS -> CTS
    EXPECT_EQ(in(6), 0x10);
    out(4, 0x10 | 0x0C);  // OUT1 -> RI, OUT2 -> DCD
    EXPECT_EQ(in(6), 0xC0);
    out(4, 0x0F);  // loop off: nothing connected
    EXPECT_EQ(in(6), 0x00);
    EXPECT_EQ(in(4), 0x0F);
    out(4, 0xFF);
    EXPECT_EQ(in(4), 0x1F) << "modem control has five bits";
}

TEST_F(Uart16550, FaultsDamageOnlyTheirOwnPath) {
    uart.setScratchStuckLow(0x80);
    out(7, 0xFF);
    EXPECT_EQ(in(7), 0x7F);
    uart.setLoopbackStuckHigh(0x08);
    out(4, 0x10);
    out(0, 0x00);
    wait(100);
    EXPECT_EQ(in(0), 0x08);
    uart.setLoopbackOpen(true);
    out(0, 0x00);
    wait(100);
    EXPECT_EQ(in(5) & 0x01, 0x00);
    EXPECT_EQ(uart.looped(), (std::vector<uint8_t>{0x00, 0x00}));
}

}  // namespace
