// The virtual board's 8254 timer, driven through its ports as software drives the chip.
#include <gtest/gtest.h>

#include "vboard/VirtualClock.h"
#include "vboard/models/rtc/Pit8254Model.h"

namespace {

using quarn::vboard::Pit8254Model;

class PitTest : public ::testing::Test {
protected:
    // Advances by whole input-clock ticks (rounded up to the nanosecond).
    void ticks(uint64_t n) {
        clock.advanceTo(start + (n * 1000000000ULL + Pit8254Model::kInputHz - 1) / Pit8254Model::kInputHz);
    }
    void load(int mode, uint32_t count) {
        pit.out(0x43, 0x30 | (mode << 1), 1);
        pit.out(0x40, count & 0xFF, 1);
        pit.out(0x40, (count >> 8) & 0xFF, 1);
        start = clock.nowNs();
    }
    uint16_t latched() {
        pit.out(0x43, 0x00, 1);
        uint16_t lo = pit.in(0x40, 1);
        uint16_t hi = pit.in(0x40, 1);
        return static_cast<uint16_t>(lo | hi << 8);
    }
    uint8_t status() {
        pit.out(0x43, 0xE2, 1);  // read-back: status only, counter 0
        return static_cast<uint8_t>(pit.in(0x40, 1));
    }

    quarn::vboard::VirtualClock clock;
    Pit8254Model pit{clock};
    uint64_t start = 0;
};

TEST_F(PitTest, SquareWaveWithAnOddCount) {
    const uint32_t n = 37291;
    load(3, n);
    ticks(1);  // the load pulse
    EXPECT_EQ(latched(), n);
    ticks(2);
    EXPECT_EQ(latched(), n - 1);  // the first counting pulse takes one off
    ticks(3);
    EXPECT_EQ(latched(), n - 3);
    EXPECT_TRUE(pit.output(0));
    ticks(1 + (n + 1) / 2);  // high half over: reload, OUT low
    EXPECT_EQ(latched(), n);
    EXPECT_FALSE(pit.output(0));
    ticks(2 + (n + 1) / 2);  // the first pulse of the low half takes three off
    EXPECT_EQ(latched(), n - 3);
    ticks(1 + n);  // one full period
    EXPECT_TRUE(pit.output(0));
    EXPECT_EQ(latched(), n);
    // 31.25 ms after loading, a whisker before the end of the first period.
    load(3, n);
    clock.advanceTo(start + 31250000);
    EXPECT_EQ(latched(), 12);
}

TEST_F(PitTest, SquareWaveWithAnEvenCount) {
    load(3, 10);
    for (int t = 1; t <= 5; ++t) {
        ticks(static_cast<uint64_t>(t) + 1);
        EXPECT_EQ(latched(), 10 - 2 * ((t) % 5)) << t;
        EXPECT_EQ(pit.output(0), t < 5) << t;
    }
}

TEST_F(PitTest, InterruptOnTerminalCount) {
    load(0, 100);
    EXPECT_EQ(status() & 0x80, 0);   // OUT low after the count is written
    EXPECT_EQ(status() & 0x40, 0);   // count loaded: no null count
    EXPECT_EQ(status() & 0x3F, 0x30);  // the control word: low/high byte, mode 0, binary
    ticks(100);
    EXPECT_FALSE(pit.output(0));
    ticks(101);  // N + 1 pulses after the write
    EXPECT_TRUE(pit.output(0));
    EXPECT_EQ(latched(), 0);
    ticks(102);  // keeps counting, wrapping through 0xFFFF
    EXPECT_EQ(latched(), 0xFFFF);
    EXPECT_TRUE(pit.output(0));
}

TEST_F(PitTest, RateGeneratorPulsesLowForOneTick) {
    load(2, 4);
    ticks(1);
    EXPECT_EQ(latched(), 4);
    ticks(4);
    EXPECT_EQ(latched(), 1);
    EXPECT_FALSE(pit.output(0));
    ticks(5);
    EXPECT_EQ(latched(), 4);
    EXPECT_TRUE(pit.output(0));
}

TEST_F(PitTest, ControlWordModesSixAndSevenAreTwoAndThree) {
    pit.out(0x43, 0x3C, 1);  // mode 6
    EXPECT_EQ(pit.mode(0), 2);
    pit.out(0x43, 0x3E, 1);  // mode 7
    EXPECT_EQ(pit.mode(0), 3);
    pit.out(0x43, 0x7A, 1);  // counter 1, mode 5: counter 0 untouched
    EXPECT_EQ(pit.mode(0), 3);
    EXPECT_EQ(pit.mode(1), 5);
    EXPECT_EQ(pit.in(0x43, 1), 0xFFu);  // the control register cannot be read
}

TEST_F(PitTest, ALatchHoldsItsValueAndASecondLatchIsIgnored) {
    load(0, 1000);
    ticks(11);
    pit.out(0x43, 0x00, 1);
    ticks(500);
    pit.out(0x43, 0x00, 1);  // ignored: the first latch is unread
    uint16_t lo = pit.in(0x40, 1), hi = pit.in(0x40, 1);
    EXPECT_EQ(lo | hi << 8, 990);
    EXPECT_EQ(latched(), 1000 - 499);  // a fresh latch after the read
}

TEST_F(PitTest, ReadBackGivesStatusThenCount) {
    load(3, 0x1234);
    ticks(1);
    pit.out(0x43, 0xC2, 1);  // count and status of counter 0
    EXPECT_EQ(pit.in(0x40, 1), 0x80u | 0x36u);
    EXPECT_EQ(pit.in(0x40, 1), 0x34u);
    EXPECT_EQ(pit.in(0x40, 1), 0x12u);
}

TEST_F(PitTest, SingleByteAccessAndBcd) {
    pit.out(0x43, 0x10 | (2 << 1), 1);  // low byte only, mode 2
    EXPECT_EQ(status() & 0x40, 0x40);   // null count until a count is written
    pit.out(0x40, 50, 1);
    start = clock.nowNs();
    ticks(11);
    EXPECT_EQ(pit.in(0x40, 1), 40u);    // live read, low byte only
    pit.out(0x43, 0x31 | (2 << 1), 1);  // low/high, mode 2, BCD
    pit.out(0x40, 0x00, 1);
    pit.out(0x40, 0x01, 1);  // BCD 0100 = 100
    start = clock.nowNs();
    ticks(1);
    EXPECT_EQ(latched(), 100);
    pit.out(0x43, 0x30, 1);  // mode 0 with a zero count counts 65536
    pit.out(0x40, 0, 1);
    pit.out(0x40, 0, 1);
    start = clock.nowNs();
    ticks(2);
    EXPECT_EQ(latched(), 0xFFFF);
}

}  // namespace
