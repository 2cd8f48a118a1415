// Tests of the processor layers against absurd answers of the kernel, as the fuzz target
// processor_answers_fuzz found them.
#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "api/platform/Platform.h"
#include "ddapi/processor/ProcessorDDAPI.h"
#include "vboard/Board.h"

namespace {

using quarn::vboard::Board;

class ProcessorAnswersTest : public ::testing::Test {
protected:
    void SetUp() override { quarn::installPlatform(&board); }
    void TearDown() override { quarn::installPlatform(nullptr); }
    Board board;
};

// The package count is the highest package number plus one; a number with no successor
// in int is not counted (it used to overflow into a negative count).
TEST_F(ProcessorAnswersTest, PackageNumberAtIntMaxIsNotCounted) {
    board.writeFile("/proc/cpuinfo",
                    "processor\t: 0\nphysical id\t: 0\n\n"
                    "processor\t: 1\nphysical id\t: 2147483647\n\n");
    ProcessorDDAPI cpu("CPU");
    int n = 0;
    ASSERT_EQ(cpu.GetCPUPhysicalNumber(&n), nullptr);
    EXPECT_EQ(n, 1);

    board.writeFile("/proc/cpuinfo", "processor\t: 0\nphysical id\t: 2147483647\n\n");
    n = 0;
    ASSERT_EQ(cpu.GetCPUPhysicalNumber(&n), nullptr);
    EXPECT_EQ(n, 1);

    board.writeFile("/proc/cpuinfo", "processor\t: 0\nphysical id\t: 2147483646\n\n");
    ASSERT_EQ(cpu.GetCPUPhysicalNumber(&n), nullptr);
    EXPECT_EQ(n, INT_MAX);
}

}  // namespace
