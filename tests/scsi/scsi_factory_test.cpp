// The SCSI command layer against the virtual board's SAS disk on /dev/sg0.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <scsi/sg.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "api/ErrorText.h"
#include "api/platform/Platform.h"
#include "ddapi/scsi/SCSIFactory.h"
#include "vboard/Board.h"
#include "tests/lib/Render.h"

namespace {

using quarn::test::render;
class ScsiFactoryTest : public ::testing::Test {
protected:
    void SetUp() override {
        quarn::installPlatform(&board);
        fd = quarn::platform().open("/dev/sg0", O_RDWR | O_NONBLOCK);
        ASSERT_GE(fd, 0);
    }
    void TearDown() override {
        quarn::platform().close(fd);
        quarn::installPlatform(nullptr);
    }
    quarn::vboard::ScsiDiskModel& disk() { return *board.scsiDisk; }
    std::vector<uint8_t> cdb() { return disk().lastCdb(); }

    quarn::vboard::Board board;
    SCSIFactory factory{"SCSIFactory"};
    int fd = -1;
};

TEST_F(ScsiFactoryTest, ReadWriteCdbSizeFollowsLbaAndLength) {
    std::vector<unsigned char> out(1024), in(1024);
    for (size_t i = 0; i < out.size(); ++i) out[i] = static_cast<unsigned char>(i * 7 + 1);

    EXPECT_EQ(render(factory.executeSCSIWrite(fd, 0xFFFFFFFFull, 2, out.data(), 1024)), "");
    EXPECT_EQ(cdb(), (std::vector<uint8_t>{0x2A, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(render(factory.executeSCSIRead(fd, 0xFFFFFFFFull, 2, in.data(), 1024)), "");
    EXPECT_EQ(cdb()[0], 0x28);
    EXPECT_EQ(cdb().size(), 16u);  // the 10-byte command goes out in a 16-byte CDB
    EXPECT_EQ(in, out);

    // 0x100000000 is the second block written above: READ(16) with the 8-byte LBA.
    EXPECT_EQ(render(factory.executeSCSIRead(fd, 0x100000000ull, 1, in.data(), 512)), "");
    EXPECT_EQ(cdb(), (std::vector<uint8_t>{0x88, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0}));
    EXPECT_EQ(0, memcmp(in.data(), out.data() + 512, 512));

    // More blocks than READ(10) can count use the 16-byte form too.
    std::vector<unsigned char> big(0x10000u * 512u);
    EXPECT_EQ(render(factory.executeSCSIRead(fd, 0, 0x10000, big.data(), static_cast<unsigned>(big.size()))), "");
    EXPECT_EQ(cdb()[0], 0x88);
    EXPECT_EQ(cdb()[11], 0x01);
    EXPECT_EQ(disk().storedBlocks(), 2u);  // the medium stays sparse
}

TEST_F(ScsiFactoryTest, ReadMediumErrorIsNotTranslatedButTalliedByTheAnalyzer) {
    disk().addUnreadableBlock(100);
    std::vector<unsigned char> in(4096);
    SCSISenseAnalyzer analyzer("SCSISenseAnalyzer");
    for (int pass = 0; pass < 2; ++pass) {
        EXPECT_EQ(factory.executeSCSIRead(fd, 96, 8, in.data(), 4096), nullptr);
        analyzer.setSenseDataByID(0, factory.getCurrentSenseBuffer());
    }
    const unsigned char* sense = factory.getCurrentSenseBuffer();
    EXPECT_EQ(sense[0], 0xF0);  // current, information valid
    EXPECT_EQ((sense[3] << 24 | sense[4] << 16 | sense[5] << 8 | sense[6]), 100);
    EXPECT_EQ(render(analyzer.listSenseDataByID(0, true)), "StorageDDAPI: \"SG_IO ioctl sense error\"");
    EXPECT_EQ(analyzer.senseReport, "3110:2, ");

    // Writing the block reallocates it: reads succeed and the grown list holds it.
    EXPECT_EQ(factory.executeSCSIWrite(fd, 100, 1, in.data(), 512), nullptr);
    EXPECT_EQ(factory.executeSCSIRead(fd, 96, 8, in.data(), 4096), nullptr);
    unsigned char zero[SCSIFactory::kSenseLength] = {0};
    EXPECT_EQ(0, memcmp(factory.getCurrentSenseBuffer(), zero, sizeof(zero)));
    std::vector<unsigned char> defects(2048);
    EXPECT_EQ(render(factory.scsiReadDefect12(fd, 0, 1, 3, 0, defects.data(), 2048)), "");
    EXPECT_EQ(defects[1], 0x0B);  // GLISTV, long block format
    EXPECT_EQ(defects[7], 8);     // one 8-byte descriptor
    EXPECT_EQ(defects[15], 100);
}

TEST_F(ScsiFactoryTest, MiscompareInjectionCorruptsOneRead) {
    std::vector<unsigned char> out(512, 0xA5), in(512);
    ASSERT_EQ(factory.executeSCSIWrite(fd, 5000, 1, out.data(), 512), nullptr);
    disk().injectMiscompare(5000);
    EXPECT_EQ(factory.executeSCSIRead(fd, 5000, 1, in.data(), 512), nullptr);
    EXPECT_NE(in, out);
    EXPECT_EQ(factory.executeSCSIRead(fd, 5000, 1, in.data(), 512), nullptr);
    EXPECT_EQ(in, out);
}

TEST_F(ScsiFactoryTest, TestUnitReadyRetriesOneUnitAttention) {
    disk().raiseUnitAttention(0x29, 0x00);
    EXPECT_EQ(factory.scsiTestUnitReady(fd), nullptr);
    EXPECT_EQ(disk().commandCount(0x00), 2u);

    disk().injectSense(0x00, 6, 0x29, 0x00, 2);
    EXPECT_EQ(render(factory.scsiTestUnitReady(fd)),
              "SCSIDDAPI::SCSI test unit ready fail: \"attention reported, try again - TEST UNIT READY: sense key 0x6, ASC 0x29, ASCQ 0x00\"");
    EXPECT_EQ(factory.getLastStatus(), 0xcb081008u);

    disk().injectSense(0x00, 3, 0x11, 0x00);
    ErrorMsg* e = factory.scsiTestUnitReady(fd);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->getErrorCode(), 0xcb081009u);
    deleteErrorMsg(e);

    disk().setStarted(false);
    e = factory.scsiTestUnitReady(fd);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->getErrorCode(), 0xcb081001u);
    deleteErrorMsg(e);
}

TEST_F(ScsiFactoryTest, DescriptorSenseAfterModeSelectOfDSense) {
    unsigned char page[64];
    ASSERT_EQ(factory.scsiModeSense(fd, 0x0A, 0, 0, page, sizeof(page)), nullptr);
    const int offset = factory.getSCSIModePageOffset(page, sizeof(page), 6);
    ASSERT_EQ(offset, 12);  // header and one block descriptor
    page[offset + 2] |= 0x04;
    EXPECT_EQ(render(factory.scsiModeSelect(fd, 0, page, offset + 12)), "");
    EXPECT_TRUE(disk().descriptorSense());

    disk().injectSense(0x00, 2, 0x04, 0x01);
    ErrorMsg* e = factory.scsiTestUnitReady(fd);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->getErrorCode(), 0xcb081007u);
    EXPECT_EQ(factory.getCurrentSenseBuffer()[0], 0x72);
    deleteErrorMsg(e);

    // A change to a bit the page does not let change is refused and nothing applies.
    page[offset + 3] ^= 0xF0;
    EXPECT_EQ(render(factory.scsiModeSelect(fd, 0, page, offset + 12)),
              "SCSIDDAPI::SCSI mode select command fail: \"badly formed scsi parameters - MODE SELECT(6): sense key 0x5, ASC 0x26, ASCQ 0x00\"");
}

TEST_F(ScsiFactoryTest, InquiryPagesAndIdentifiers) {
    unsigned char std[96];
    ASSERT_EQ(factory.scsiStdInquiry(fd, std, sizeof(std)), nullptr);
    unsigned char text[65];
    factory.scsiFormatIDtoString(reinterpret_cast<char*>(std + 8), 8, text);
    EXPECT_STREQ(reinterpret_cast<char*>(text), "SEAGATE");
    factory.scsiFormatIDtoString(reinterpret_cast<char*>(std + 16), 16, text);
    EXPECT_STREQ(reinterpret_cast<char*>(text), "ST4000NM0025");

    unsigned char vpd[252];
    ASSERT_EQ(factory.scsiInquiryVpd(fd, 0x80, vpd, sizeof(vpd)), nullptr);
    factory.scsiFormatIDtoString(reinterpret_cast<char*>(vpd + 4), vpd[3], text);
    EXPECT_STREQ(reinterpret_cast<char*>(text), "ZC11K4VQ0000C8284FQ1");

    ASSERT_EQ(factory.scsiInquiryVpd(fd, 0x83, vpd, sizeof(vpd)), nullptr);
    char id[64];
    int transport = 0;
    EXPECT_EQ(factory.scsiDecodeLUDevID(vpd + 4, vpd[2] << 8 | vpd[3], id, sizeof(id), &transport), 0);
    EXPECT_STREQ(id, "0x5000c500a1b2c3d4");
    EXPECT_EQ(transport, 6);

    EXPECT_EQ(render(factory.scsiInquiryVpd(fd, 0xB0, vpd, sizeof(vpd))),
              "SCSIDDAPI::SCSI inquiry VPD command fail: \"unsupported field in command - INQUIRY VPD page 0xb0: sense key 0x5, ASC 0x24, "
              "ASCQ 0x00\"");
    std::vector<unsigned char> big(1024);
    const uint64_t sent = disk().commandCount(0x12);
    EXPECT_EQ(render(factory.scsiInquiryVpd(fd, 0x80, big.data(), 1024)),
              "SCSIDDAPI::SCSI inquiry VPD command fail: \"Illegal buffer size - INQUIRY VPD page 0x80\"");
    EXPECT_EQ(factory.getLastStatus(), 0xcb081a13u);
    EXPECT_EQ(disk().commandCount(0x12), sent);  // refused before anything was sent
}

TEST_F(ScsiFactoryTest, CapacityTenSaturatesSixteenGivesTheLastLba) {
    unsigned int last = 0, length = 0;
    ASSERT_EQ(factory.scsiReadCapacity10(fd, &last, &length), nullptr);
    EXPECT_EQ(last, 0xFFFFFFFFu);
    EXPECT_EQ(length, 512u);
    unsigned char cap[32];
    ASSERT_EQ(factory.scsiReadCapacity16(fd, cap, sizeof(cap)), nullptr);
    uint64_t lastLba = 0;
    for (int i = 0; i < 8; ++i) lastLba = lastLba << 8 | cap[i];
    EXPECT_EQ(lastLba, 7814037167ull);
    EXPECT_EQ(cdb()[1], 0x10);
    EXPECT_EQ(cdb()[13], 32);
}

TEST_F(ScsiFactoryTest, TemperatureRpmProtocolAndHealth) {
    disk().setTemperature(41, 65);
    unsigned char current = 0, reference = 0;
    ASSERT_EQ(factory.getSCSIDriveTemperature(fd, &current, &reference), nullptr);
    EXPECT_EQ(current, 41);
    EXPECT_EQ(reference, 65);

    int rpm = 0, formFactor = 0, zoned = -1;
    ASSERT_EQ(factory.getSCSIDriveRPM(fd, 6, &rpm, &formFactor, &zoned), nullptr);
    EXPECT_EQ(rpm, 7200);
    EXPECT_EQ(formFactor, 2);
    EXPECT_EQ(zoned, 0);

    int protocol = -1;
    ASSERT_EQ(factory.getSCSITransportProtocol(fd, 6, &protocol), nullptr);
    EXPECT_EQ(protocol, 6);

    std::string status;
    ASSERT_EQ(factory.getSmartHealthStatus(fd, &status), nullptr);
    EXPECT_EQ(status, "OK");
    disk().setFailurePrediction(0x5D, 0x14);
    ASSERT_EQ(factory.getSmartHealthStatus(fd, &status), nullptr);
    EXPECT_EQ(status, "HARDWARE IMPENDING FAILURE TOO MANY BLOCK REASSIGNS");

    disk().injectSense(0x4D, 4, 0x44, 0x00);
    EXPECT_EQ(render(factory.getSCSIDriveTemperature(fd, &current, &reference)),
              "SCSIDDAPI::SCSI get drive temperature: \"medium or hardware error - LOG SENSE page 0x0d: sense key 0x4, ASC 0x44, ASCQ 0x00\"");
    EXPECT_EQ(current, 0);
    EXPECT_EQ(reference, 0);
}

TEST_F(ScsiFactoryTest, RpmFallsBackToModePageFourAndTenByteModeSense) {
    quarn::vboard::ScsiDiskConfig config;
    config.blockCharacteristicsPage = false;
    config.rpm = 10000;
    auto old = quarn::vboard::installScsiDisk(board, 1, "sdb", config);
    int fd1 = quarn::platform().open("/dev/sg1", O_RDWR);
    ASSERT_GE(fd1, 0);
    old->injectSense(0x1A, 5, 0x20, 0x00);  // MODE SENSE(6) refused as an unknown opcode
    int rpm = 0;
    EXPECT_EQ(factory.getSCSIDriveRPM(fd1, 6, &rpm, nullptr, nullptr), nullptr);
    EXPECT_EQ(rpm, 10000);
    EXPECT_EQ(old->commandCount(0x5A), 1u);
    quarn::platform().close(fd1);
}

TEST_F(ScsiFactoryTest, ErrorCountersFollowTheDisksErrors) {
    std::vector<unsigned char> in(512 * 2048);
    disk().injectSense(0x28, 1, 0x18, 0x00, 2);  // recovered with ECC: data still arrives
    disk().injectSense(0x28, 3, 0x11, 0x00);
    disk().injectSense(0x2A, 4, 0x44, 0x00);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(factory.executeSCSIRead(fd, 0, 2048, in.data(), 1u << 20), nullptr);
    EXPECT_EQ(factory.executeSCSIWrite(fd, 0, 8, in.data(), 4096), nullptr);

    SCSI_ERROR_LOG log;
    ASSERT_EQ(render(factory.getSCSIErrorLog(fd, &log)), "");
    EXPECT_EQ(log.read.correctedDelayed, 2u);
    EXPECT_EQ(log.read.totalCorrected, 2u);
    EXPECT_EQ(log.read.totalUncorrected, 1u);
    EXPECT_STREQ(log.read.gigabytesProcessed, "0.003");  // three completed reads of 1 MiB
    EXPECT_TRUE(log.read.gotParameter[6]);
    EXPECT_FALSE(log.read.gotOther);
    EXPECT_EQ(log.nonMediumErrors, 1u);
    EXPECT_TRUE(log.gotNonMedium);
    EXPECT_STREQ(log.write.gigabytesProcessed, "0.000");

    // LOG SELECT with PCR clears them.
    EXPECT_EQ(factory.scsiLogSelect(fd, 1, 0, 1, 0, 0, nullptr, 0), nullptr);
    ASSERT_EQ(factory.getSCSIErrorLog(fd, &log), nullptr);
    EXPECT_EQ(log.read.totalUncorrected, 0u);
}

TEST_F(ScsiFactoryTest, WideCounterKeepsItsLastEightBytes) {
    // A page as some disks send it: parameter 6 ten bytes wide.
    struct Handle : quarn::vboard::FileHandle {
        int ioctl(unsigned long, void* arg) override {
            auto* io = static_cast<sg_io_hdr_t*>(arg);
            const unsigned char page[] = {0x03, 0, 0, 14, 0x00, 0x06, 0x02, 10, 0xAA, 0xBB, 0, 0, 0, 0, 0, 0, 0x01, 0x02};
            memset(io->dxferp, 0, io->dxfer_len);
            memcpy(io->dxferp, page, std::min<size_t>(sizeof(page), io->dxfer_len));
            return 0;
        }
    };
    struct Model : quarn::vboard::DeviceModel {
        std::unique_ptr<quarn::vboard::FileHandle> open(int) override { return std::make_unique<Handle>(); }
    };
    board.addDevice("/dev/sg9", std::make_shared<Model>());
    int fd9 = quarn::platform().open("/dev/sg9", O_RDWR);
    SCSI_ERROR_LOG log;
    // Every page reads back as page 3, so the write page is refused as malformed.
    EXPECT_EQ(render(factory.getSCSIErrorLog(fd9, &log)),
              "SCSIDDAPI::SCSI get smart error log: \"scsi response fails sanity test - LOG SENSE page 0x02\"");
    EXPECT_EQ(factory.getLastStatus(), 0xcb085405u);
    EXPECT_EQ(log.read.totalUncorrected, 0x0102u);
    EXPECT_TRUE(log.read.gotParameter[6]);
    quarn::platform().close(fd9);
}

TEST_F(ScsiFactoryTest, IoctlFailureAndReadOnlyDescriptor) {
    board.device("/dev/sg0")->faults().ioctlErrno[SG_IO] = EIO;
    EXPECT_EQ(render(factory.scsiTestUnitReady(fd)),
              "SCSIDDAPI::SCSI test unit ready fail: \"Fail to access SCSI ioctl - TEST UNIT READY: SG_IO: Input/output error\"");
    EXPECT_EQ(factory.getLastStatus(), 0xcb081229u);
    board.device("/dev/sg0")->faults().ioctlErrno.clear();

    int ro = quarn::platform().open("/dev/sg0", O_RDONLY);
    unsigned char block[512] = {0};
    EXPECT_EQ(render(factory.executeSCSIWrite(ro, 0, 1, block, 512)),
              "SCSIDDAPI::SCSI write function fail: \"Fail to access SCSI ioctl - WRITE(10) LBA 0x0: SG_IO: Operation not permitted\"");
    EXPECT_EQ(factory.executeSCSIRead(ro, 0, 1, block, 512), nullptr);
    quarn::platform().close(ro);
}

TEST_F(ScsiFactoryTest, UnsupportedOpcodeAndDefectFormatFallback) {
    disk().addPrimaryDefect(4096);
    disk().addGrownDefect(70000);
    unsigned char list[64];
    // Short block format is not possible on a disk past 2^32 blocks: physical-sector form.
    EXPECT_EQ(render(factory.scsiReadDefect12(fd, 1, 1, 0, 0, list, sizeof(list))), "");
    EXPECT_EQ(list[1], 0x1D);
    EXPECT_EQ(list[7], 16);
    EXPECT_EQ(factory.getCurrentSenseBuffer()[12], 0x1C);  // RECOVERED ERROR, defect list not found
    // 70000 = cylinder 2, head 2, sector 368 with 16 heads of 2048 sectors.
    EXPECT_EQ(std::vector<unsigned char>(list + 16, list + 24),
              (std::vector<unsigned char>{0, 0, 2, 2, 0, 0, 0x01, 0x70}));

    EXPECT_EQ(render(factory.scsiSendDiagnostic(fd, 0, nullptr, 0)), "");
    EXPECT_EQ(render(factory.scsiSendDiagnostic(fd, 3, nullptr, 0)),
              "SCSIDDAPI::SCSI send DIAG command fail: \"unsupported field in command - SEND DIAGNOSTIC code 3: sense key 0x5, ASC 0x24, ASCQ 0x00\"");
    unsigned char sense[18];
    disk().raiseUnitAttention(0x2A, 0x01);
    EXPECT_EQ(factory.scsiRequestSense(fd, sense, sizeof(sense)), nullptr);
    EXPECT_EQ(sense[2], 6);
    EXPECT_EQ(sense[12], 0x2A);
    unsigned char page[64];
    EXPECT_EQ(render(factory.scsiLogSense(fd, 0x30, 0, page, sizeof(page), 0)),
              "SCSIDDAPI::SCSI log sense command fail: \"unsupported field in command - LOG SENSE page 0x30/0x00: sense key 0x5, ASC 0x24, "
              "ASCQ 0x00\"");
    EXPECT_EQ(factory.getLastStatus(), 0xcb081c03u);
}

}  // namespace
