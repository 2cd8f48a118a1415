// Tests of the pi stability test: checksums, instance comparison, memory gate, interruption.
#include <gtest/gtest.h>

#include <cstdio>
#include <regex>
#include <string>

#include "api/ErrorText.h"
#include "api/platform/Platform.h"
#include "dapi/processor/PiSlots.h"
#include "dapi/processor/StabilityTestObject.h"
#include "vboard/Board.h"
#include "tests/lib/Render.h"

namespace {

using quarn::vboard::Board;

const char kNotEnough[] = "ProcessorDAPI::StabilityTest: \"System free memory isn't enough\"";

using quarn::test::render;
class StabilityTest : public ::testing::Test {
protected:
    void SetUp() override {
        quarn::installPlatform(&board);
        stoppressed = 0;
    }
    void TearDown() override {
        stoppressed = 0;
        quarn::installPlatform(nullptr);
    }
    // Runs one test with its table captured.
    ErrorMsg* run(StabilityTestObject& t, int* passed, int power, std::string* table) {
        testing::internal::CaptureStdout();
        ErrorMsg* e = t.PiCalculate(passed, 1, power);
        *table = testing::internal::GetCapturedStdout();
        return e;
    }
    Board board;
};

// Disturbs the last bit of instance 1's pi after the given step, as a flipped bit in a
// core or in memory would.
class PerturbedStability : public StabilityTestObject {
public:
    PerturbedStability(int step) : StabilityTestObject("perturbed"), m_step(step) {}

protected:
    void afterStep(int loop) override {
        if (loop != m_step) return;
        mpf_t tiny;
        mpf_init(tiny);
        mpf_set_ui(tiny, 1);
        mpf_div_2exp(tiny, tiny, mpf_get_prec(bd[1][2]) - 4);
        mpf_add(bd[1][2], bd[1][2], tiny);
        mpf_clear(tiny);
    }

private:
    int m_step;
};

// Stops the run from inside, as Ctrl-C would while loop 3 computes.
class InterruptedStability : public StabilityTestObject {
public:
    InterruptedStability() : StabilityTestObject("interrupted") {}

protected:
    void afterStep(int loop) override {
        if (loop == 2) stoppressed = 1;
    }
};

TEST_F(StabilityTest, Power16PassesStoredChecksumWithFourInstances) {
    StabilityTestObject t("stability");
    ASSERT_TRUE(t.setInstanceCount(4));
    int passed = -1;
    std::string table;
    ASSERT_EQ(run(t, &passed, 16, &table), nullptr);
    EXPECT_EQ(passed, 1);
    EXPECT_EQ(t.digitCount(), 131072);
    EXPECT_EQ(t.mismatchCount(), 0);
    EXPECT_EQ(t.checksumFailureCount(), 0);
    EXPECT_EQ(table.find(" Calculating 131072 digits of pi\n Loop Digits State    Time\n"), 0u);
    EXPECT_NE(table.find("    0      2  OK "), std::string::npos) << table;
    EXPECT_NE(table.find("   16   128K  OK "), std::string::npos) << table;
    EXPECT_NE(table.find(" Checksum validation...Borwein PASSED!!!\n"), std::string::npos);
    EXPECT_EQ(table.find(" BAD "), std::string::npos);
    EXPECT_STREQ(t.firstFailureText(), "No fail yet");
}

TEST_F(StabilityTest, Power17And18PassStoredChecksums) {
    for (int power : {17, 18}) {
        StabilityTestObject t("stability");
        ASSERT_TRUE(t.setInstanceCount(2));
        int passed = -1;
        std::string table;
        ASSERT_EQ(run(t, &passed, power, &table), nullptr);
        EXPECT_EQ(passed, 1) << power;
        EXPECT_EQ(t.digitCount(), 1L << (power + 1));
    }
}

TEST_F(StabilityTest, OneInstanceReadsNotApplicableEveryStep) {
    StabilityTestObject t("stability");
    ASSERT_TRUE(t.setInstanceCount(1));
    int passed = -1;
    std::string table;
    ASSERT_EQ(run(t, &passed, 5, &table), nullptr);
    // 5 loops: rows 0 to 5, each " N/A ".
    size_t rows = 0;
    for (size_t at = table.find(" N/A "); at != std::string::npos; at = table.find(" N/A ", at + 1))
        ++rows;
    EXPECT_EQ(rows, 6u) << table;
    EXPECT_EQ(table.find(" OK "), std::string::npos);
    // 64 digits have no stored checksum.
    EXPECT_EQ(passed, 0);
    EXPECT_EQ(t.checksumFailureCount(), 1);
    EXPECT_NE(table.find(" FAILED!!!\n"), std::string::npos);
}

// The digits are computed for real on the simulated board too, so the table times them
// with the work clock (here one that moves 1.25 s per reading), never with the board's
// virtual clock, which stands still while nothing waits.
TEST(StabilityTiming, RowsAndTotalShowTheWorkClock) {
    class TimedBoard : public Board {
    public:
        int workClock(struct timespec* now) override {
            m_ms += 1250;
            now->tv_sec = static_cast<time_t>(1700000000 + m_ms / 1000);
            now->tv_nsec = static_cast<long>(m_ms % 1000) * 1000000L;
            return 0;
        }
        uint64_t m_ms = 0;
    } board;
    quarn::installPlatform(&board);
    StabilityTestObject t("stability");
    ASSERT_TRUE(t.setInstanceCount(1));
    int passed = -1;
    testing::internal::CaptureStdout();
    ErrorMsg* e = t.PiCalculate(&passed, 1, 5);
    const std::string table = testing::internal::GetCapturedStdout();
    quarn::installPlatform(nullptr);
    ASSERT_EQ(e, nullptr);
    // Start, then one reading per row: row 0 is 1.25 s after the start, row 5 7.5 s.
    EXPECT_NE(table.find(" N/A   0h  0m  1.250s\n"), std::string::npos) << table;
    EXPECT_NE(table.find(" N/A   0h  0m  7.500s\n"), std::string::npos) << table;
    EXPECT_NE(table.find("Time:  0h  0m  8.750s\n"), std::string::npos) << table;
    // And on the plain simulated board the total is real elapsed time, not the frozen clock.
    Board plain;
    quarn::installPlatform(&plain);
    struct timespec a, b, v;
    plain.wallClock(&v);
    plain.workClock(&a);
    quarn::platform().sleepMicroseconds(5000000);  // virtual: no real wait
    plain.workClock(&b);
    struct timespec v2;
    plain.wallClock(&v2);
    quarn::installPlatform(nullptr);
    EXPECT_GE(v2.tv_sec - v.tv_sec, 5);
    EXPECT_LT(b.tv_sec - a.tv_sec, 5);
}

TEST_F(StabilityTest, DisabledComparisonReadsNotApplicable) {
    PerturbedStability t(1);
    ASSERT_TRUE(t.setInstanceCount(2));
    t.setCompareDisabled(1);
    int passed = -1;
    std::string table;
    ASSERT_EQ(run(t, &passed, 4, &table), nullptr);
    EXPECT_EQ(table.find(" BAD "), std::string::npos);
    EXPECT_EQ(t.mismatchCount(), 0);
}

TEST_F(StabilityTest, PerturbedInstanceIsBadAndEndsTheRun) {
    PerturbedStability t(3);
    ASSERT_TRUE(t.setInstanceCount(3));
    int passed = 7;
    std::string table;
    ASSERT_EQ(run(t, &passed, 16, &table), nullptr);
    EXPECT_NE(table.find("    2      8  OK "), std::string::npos) << table;
    EXPECT_NE(table.find("    3     16  BAD "), std::string::npos) << table;
    EXPECT_EQ(table.find("    4     32 "), std::string::npos) << "the run went on after a mismatch";
    EXPECT_EQ(table.find("Checksum"), std::string::npos);
    EXPECT_EQ(passed, 7);  // left as the caller set it
    EXPECT_EQ(t.mismatchCount(), 1);
    EXPECT_EQ(t.checksumFailureCount(), 0);
    // Real elapsed time since the start, in the "%2dh %2dm %6.3fs" form.
    EXPECT_TRUE(std::regex_match(t.firstFailureText(), std::regex(" 0h  0m +[0-9]+\\.[0-9]{3}s")))
        << t.firstFailureText();

    // Counters grow over runs of the same object; a clean run adds nothing.
    ASSERT_EQ(run(t, &passed, 4, &table), nullptr);
    EXPECT_EQ(t.mismatchCount(), 2);
}

TEST_F(StabilityTest, PerturbationOnTheLastStepIsCaught) {
    PerturbedStability t(4);
    ASSERT_TRUE(t.setInstanceCount(2));
    int passed = 7;
    std::string table;
    ASSERT_EQ(run(t, &passed, 4, &table), nullptr);
    EXPECT_NE(table.find("    4     32  BAD "), std::string::npos) << table;
    EXPECT_EQ(t.mismatchCount(), 1);
}

TEST_F(StabilityTest, PowerZeroKeepsLoopCountAndSmallPowerBecomesFour) {
    StabilityTestObject t("stability");
    ASSERT_TRUE(t.setInstanceCount(2));
    int passed = -1;
    std::string table;
    ASSERT_EQ(run(t, &passed, 3, &table), nullptr);
    EXPECT_EQ(t.loopCount(), 4);
    EXPECT_EQ(t.digitCount(), 32);
    EXPECT_EQ(passed, 0);
    EXPECT_NE(table.find(" FAILED!!!"), std::string::npos);

    StabilityTestObject d("default");
    d.setInstanceCount(1);
    ASSERT_EQ(run(d, &passed, 0, &table), nullptr);
    EXPECT_EQ(d.loopCount(), 16);
    EXPECT_EQ(d.digitCount(), 131072);
    EXPECT_EQ(passed, 1);
}

TEST_F(StabilityTest, InterruptEndsTheRunCleanly) {
    InterruptedStability t;
    ASSERT_TRUE(t.setInstanceCount(2));
    int passed = 7;
    std::string table;
    ASSERT_EQ(run(t, &passed, 16, &table), nullptr);
    EXPECT_NE(table.find("Interrupted by user \n"), std::string::npos) << table;
    EXPECT_EQ(table.find(" BAD "), std::string::npos);
    EXPECT_EQ(table.find("Checksum"), std::string::npos);
    EXPECT_EQ(passed, 7);
    EXPECT_EQ(t.mismatchCount(), 0);
}

TEST_F(StabilityTest, DryRunStartsNothing) {
    StabilityTestObject t("dry");
    t.setDryRun(1);
    int passed = 7;
    std::string table;
    ASSERT_EQ(run(t, &passed, 16, &table), nullptr);
    EXPECT_EQ(passed, 7);
    EXPECT_EQ(table.find("Checksum"), std::string::npos);
    EXPECT_NE(table.find("   16   128K  OK "), std::string::npos);
}

TEST_F(StabilityTest, MemoryGateAtPower16) {
    StabilityTestObject t("gate");
    quarn::vboard::writeMeminfo(board, 1u << 20, 60 * 1024);
    EXPECT_EQ(t.check_system_memory_available(16), nullptr);
    quarn::vboard::writeMeminfo(board, 1u << 20, 60 * 1024 - 1);
    EXPECT_EQ(render(t.check_system_memory_available(16)),
              "ProcessorDAPI::StabilityTest: \"System free memory isn't enough\"");
    // Powers outside the table have no requirement.
    EXPECT_EQ(t.check_system_memory_available(12), nullptr);
    // 1800 MB for power 21.
    quarn::vboard::writeMeminfo(board, 4u << 20, 1800 * 1024);
    EXPECT_EQ(t.check_system_memory_available(21), nullptr);
    EXPECT_EQ(render(t.check_system_memory_available(22)), kNotEnough);
}

TEST_F(StabilityTest, RunRefusedWhenMemoryShort) {
    StabilityTestObject t("gate");
    quarn::vboard::writeMeminfo(board, 1u << 20, 59 * 1024);
    int passed = 7;
    EXPECT_EQ(render(t.PiCalculate(&passed, 0, 16)),
              "ProcessorDAPI::StabilityTest -> ProcessorDAPI::StabilityTest: "
              "\"System free memory isn't enough\"");
    EXPECT_EQ(passed, 7);
}

TEST_F(StabilityTest, MeminfoWithoutAvailableOrMalformedCountsAsNothing) {
    StabilityTestObject t("gate");
    board.writeFile("/proc/meminfo", "MemTotal: 1000 kB\nMemAvailable: lots kB\n");
    EXPECT_EQ(render(t.check_system_memory_available(16)), kNotEnough);
    board.writeFile("/proc/meminfo", "MemAvailable: 99999999999999999999999 kB\n");
    EXPECT_EQ(render(t.check_system_memory_available(16)), kNotEnough);
    board.writeFile("/proc/meminfo", "MemAvailable:\t   61440 kB\n");
    EXPECT_EQ(t.check_system_memory_available(16), nullptr);
}

TEST_F(StabilityTest, MissingMeminfo) {
    board.removeDevice("/proc/meminfo");
    StabilityTestObject t("gate");
    EXPECT_EQ(render(t.check_system_memory_available(16)),
              "ProcessorDAPI::StabilityTest: \"Open /proc/meminfo fail\"");
}

TEST_F(StabilityTest, InstanceCountAndPowerLimits) {
    StabilityTestObject t("limits");
    EXPECT_FALSE(t.setInstanceCount(0));
    EXPECT_FALSE(t.setInstanceCount(65));
    EXPECT_TRUE(t.setInstanceCount(64));
    int passed = 0;
    EXPECT_EQ(render(t.PiCalculate(&passed, 0, 27)),
              "ProcessorDAPI::StabilityTest: \"Bad parameter 1 - power 27 is above 26\"");
}

TEST(StabilityFormat, Digits) {
    char out[16];
    StabilityTestObject::outxdigits(1024, out);
    EXPECT_STREQ(out, "1K");
    StabilityTestObject::outxdigits(1023, out);
    EXPECT_STREQ(out, "1023");
    StabilityTestObject::outxdigits(1048576, out);
    EXPECT_STREQ(out, "1M");
    StabilityTestObject::outxdigits(0xFFFFF, out);
    EXPECT_STREQ(out, "1023K");
}

TEST(StabilityFormat, Time) {
    char out[32];
    StabilityTestObject::outtime(1000, 1000 + 3723500, out);
    EXPECT_STREQ(out, " 1h  2m  3.500s");
    StabilityTestObject::outtime(5, 5, out);
    EXPECT_STREQ(out, " 0h  0m  0.000s");
}

TEST(StabilityFormat, ChecksumFoldsCarriesAndRejectsUnknownCounts) {
    // 131072 digits of '0' (0x30): 65536 words of 0x3030 sum to 0x30300000; folded
    // 0x3030, complement 0xCFCF, which is not the stored 0x53FC.
    std::string zeros(131072, '0');
    EXPECT_FALSE(StabilityTestObject::validate_checksum(131072, &zeros[0]));
    std::string shortText(100, '3');
    EXPECT_FALSE(StabilityTestObject::validate_checksum(100, &shortText[0]));
}

}  // namespace
