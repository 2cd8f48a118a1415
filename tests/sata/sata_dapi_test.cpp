// The SATA throughput tests on the virtual board's SATA disk: progress, failures and
// the sense conditions they record.
#include <gtest/gtest.h>

#include <scsi/sg.h>

#include <cerrno>
#include <string>

#include "api/ErrorText.h"
#include "api/platform/Platform.h"
#include "dapi/sata/SATADAPI.h"
#include "ddapi/scsi/SCSISenseAnalyzer.h"
#include "vboard/Board.h"
#include "tests/lib/Render.h"

namespace {

using quarn::test::render;
class SataDapiTest : public ::testing::Test {
protected:
    void SetUp() override { quarn::installPlatform(&board); }
    void TearDown() override { quarn::installPlatform(nullptr); }
    quarn::vboard::SataDiskModel& disk() { return *board.sataDisk0; }

    quarn::vboard::Board board;
    SATADAPI sata{"SATADAPI"};
};

TEST_F(SataDapiTest, ReadTestOfOneMegabyteMovesTwoThousandBlocks) {
    const uint64_t before = disk().commandCount(0x88);
    EXPECT_EQ(render(sata.readPerformanceTest(1, 0, 1)), "");
    EXPECT_EQ(disk().commandCount(0x88) - before, 2048u);
    EXPECT_EQ(sata.getCommandCount(), 2048u);
    EXPECT_EQ(sata.getProgress(), 100u);  // one updateProgress(1) of a total of 1
    // Each 512-byte command costs the model 50 us + 3.4 us of virtual time, and reading
    // the clock after it 1 us: 2048 x 54.4 us.
    EXPECT_EQ(sata.getResultText(), "Spend time : 0.11 s\nSpeed      : 8.97 MB/s\n");
    const std::vector<uint8_t> cdb = disk().lastCdb();
    EXPECT_EQ(cdb[9] | cdb[8] << 8, 2047);  // last block group
}

TEST_F(SataDapiTest, ProgressCountsWholeMegabytes) {
    // A medium error in the second megabyte: the first one was counted, the second not.
    disk().addUnreadableBlock(2048 + 100);
    testing::internal::CaptureStdout();
    ErrorMsg* e = sata.readPerformanceTest(1, 0, 2);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(render(e),
              "SATADAPI::readPerformanceTest: \"block group 2148\" -> SATADDAPI::PREADE: \"SG_IO ioctl sense error - LBA 2148\"");
    EXPECT_EQ(sata.getProgress(), 50u);
}

TEST_F(SataDapiTest, WriteTestStoresThePattern) {
    EXPECT_EQ(render(sata.writePerformanceTest(3, 10, 1)), "");
    EXPECT_EQ(board.sataDisk2->commandCount(0x8A), 2048u);
    EXPECT_EQ(board.sataDisk2->storedBlocks(), 2048u);
    EXPECT_EQ(sata.getProgress(), 100u);
    // The pattern is on the medium: the read-write test's own read finds the other pattern.
    EXPECT_EQ(render(sata.readwriteTest(3, 10, 1)), "");
    EXPECT_EQ(board.sataDisk2->commandCount(0x8A), 4096u);
    EXPECT_EQ(board.sataDisk2->commandCount(0x88), 2048u);
}

TEST_F(SataDapiTest, ReadWriteTestReportsMiscompare) {
    disk().injectMiscompare(7, 1);  // block group 7 of 512 bytes is LBA 7
    const std::string chain = render(sata.readwriteTest(1, 7, 1));
    EXPECT_EQ(chain, "SATADAPI::readWriteTest: \"read write test compare data fail - block group 7\"");
    EXPECT_EQ(sata.getCommandCount(), 2u);
}

TEST_F(SataDapiTest, MediumErrorLandsInTheAnalyzerReport) {
    disk().addUnreadableBlock(300);
    testing::internal::CaptureStdout();
    const std::string chain = render(sata.readPerformanceTest(1, 0, 1));
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(chain,
              "SATADAPI::readPerformanceTest: \"block group 300\" -> SATADDAPI::PREADE: \"SG_IO ioctl sense error - LBA 300\"");
    EXPECT_NE(printed.find("Status: CC\nSK:     Medium Error\nSKV:    03\nASC:    11\nASCQ:   00"), std::string::npos) << printed;
    SCSISenseAnalyzer* analyzer = sata.getSenseAnalyzer();
    ASSERT_TRUE(analyzer);
    ErrorMsg* met = analyzer->listSenseDataByID(1, true);
    EXPECT_NE(met, nullptr);
    deleteErrorMsg(met);
    EXPECT_EQ(analyzer->senseReport, "3110:1, ");

    // The same condition again counts twice.
    testing::internal::CaptureStdout();
    render(sata.readPerformanceTest(1, 0, 1));
    testing::internal::GetCapturedStdout();
    deleteErrorMsg(analyzer->listSenseDataByID(1, true));
    EXPECT_EQ(analyzer->senseReport, "3110:2, ");
}

TEST_F(SataDapiTest, SetupFailuresCarryTheDeviceChain) {
    board.device("/dev/sg1")->faults().openErrno = EBUSY;
    EXPECT_EQ(render(sata.writePerformanceTest(1, 0, 1)),
              "SATADAPI::writePerformanceTest -> SATADDAPI::readCapacity16: \"open device node fail - \"/dev/sg1\": "
              "Device or resource busy\"");
    EXPECT_EQ(render(sata.readPerformanceTest(2, 0, 1)),
              "SATADAPI::readPerformanceTest -> SATADDAPI::readCapacity16: \"open device node fail - SATA0-Port1 has "
              "no drive\"");
    EXPECT_EQ(render(sata.readwriteTest(8, 0, 1)),
              "SATADAPI::readWriteTest -> SATADDAPI::getDataByID: \"logical ID not found - logical ID 8\"");
    board.device("/dev/sg1")->faults().openErrno = 0;
    board.device("/dev/sg1")->faults().ioctlErrno[SG_IO] = EIO;
    testing::internal::CaptureStderr();
    const std::string chain = render(sata.readPerformanceTest(1, 0, 1));
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(chain, "SATADAPI::readPerformanceTest -> SATADDAPI::readCapacity16: \"SG_IO ioctl fail - Input/output error\"");
}

}  // namespace
