// Drives behind the SAS adapter and the flash tool: the drive list against what the disks
// answer over SG_IO, SAS address and firmware programming with its failure paths.
#include <gtest/gtest.h>

#include <fcntl.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "api/platform/Files.h"
#include "api/platform/Platform.h"
#include "dapi/sas/SASDAPI.h"
#include "ddapi/scsi/SCSIFactory.h"
#include "tests/lib/Render.h"
#include "vboard/Board.h"

namespace {

using quarn::test::render;

const char kImage[] = "/lib/firmware/sas3008/SAS3008_IT_16.00.10.00.bin";

class SasDrivesTest : public ::testing::Test {
protected:
    void SetUp() override {
        quarn::installPlatform(&board);
        sas = std::make_unique<SASDAPI>("SASDAPI");
    }
    void TearDown() override {
        sas.reset();
        quarn::installPlatform(nullptr);
    }
    std::vector<SAS_DRIVE_INFO> drives() {
        std::vector<SAS_DRIVE_INFO> list;
        EXPECT_EQ(render(sas->getDriveDeviceNodeListByController(0, &list)), "");
        return list;
    }
    quarn::vboard::Sas3008Model& ioc() { return *board.sas->adapter; }

    quarn::vboard::Board board;
    std::unique_ptr<SASDAPI> sas;
};

TEST_F(SasDrivesTest, DrivesAreNamedByTheirExpanderPhy) {
    const std::vector<SAS_DRIVE_INFO> list = drives();
    ASSERT_EQ(list.size(), 3u);
    EXPECT_EQ(list[0].name, "SAS1-DRIVE0");  // target 0x10
    EXPECT_EQ(list[0].deviceNode, "/dev/sda");
    EXPECT_EQ(list[0].sgDeviceNode, "/dev/sg0");
    EXPECT_EQ(list[1].name, "SAS1-DRIVE2");  // target 0x12
    EXPECT_EQ(list[1].deviceNode, "/dev/sdd");
    EXPECT_EQ(list[1].sgDeviceNode, "/dev/sg3");
    EXPECT_EQ(list[2].name, "SAS1-DRIVE5");  // target 0x15 behind the second expander
    EXPECT_EQ(list[2].targetNumber, 0x15u);
    EXPECT_EQ(list[2].phy.attachedSASAddress, 0x500605B0000273BFull);
}

TEST_F(SasDrivesTest, DriveDetailsAgreeWithInquiryOverSgIo) {
    SCSIFactory scsi("SCSIFactory");
    for (const SAS_DRIVE_INFO& d : drives()) {
        const int fd = quarn::platform().open(d.sgDeviceNode, O_RDWR | O_NONBLOCK);
        ASSERT_GE(fd, 0) << d.sgDeviceNode;
        unsigned char inq[36];
        ASSERT_EQ(render(scsi.scsiStdInquiry(fd, inq, sizeof(inq))), "");
        unsigned char text[65];
        scsi.scsiFormatIDtoString(reinterpret_cast<char*>(inq + 8), 8, text);
        EXPECT_EQ(d.vendor, reinterpret_cast<char*>(text)) << d.name;
        scsi.scsiFormatIDtoString(reinterpret_cast<char*>(inq + 16), 16, text);
        EXPECT_EQ(d.model, reinterpret_cast<char*>(text)) << d.name;
        scsi.scsiFormatIDtoString(reinterpret_cast<char*>(inq + 32), 4, text);
        EXPECT_EQ(d.firmware, reinterpret_cast<char*>(text)) << d.name;
        unsigned int last = 0, length = 0;
        ASSERT_EQ(render(scsi.scsiReadCapacity10(fd, &last, &length)), "");
        EXPECT_EQ(d.logicalBlockSize, length);
        quarn::platform().close(fd);
    }
    const std::vector<SAS_DRIVE_INFO> list = drives();
    const quarn::vboard::ScsiDiskConfig& a = board.scsiDisk->config();
    EXPECT_EQ(list[0].serial, a.serial);
    EXPECT_EQ(list[0].sasAddress, a.portAddress);
    EXPECT_EQ(list[0].capacity, a.blocks * a.blockSize);  // past 2 TiB: READ CAPACITY(16)
    EXPECT_EQ(list[0].rotationRate, "7200 rpm");
    EXPECT_EQ(list[0].formFactor, "3.5 inches");
    EXPECT_EQ(list[0].transportProtocol, "SAS (SPL-3)");
    EXPECT_EQ(list[0].linkSpeed, "12G");
    EXPECT_EQ(list[0].temperature, "34 C");
    EXPECT_EQ(list[0].healthStatus, "OK");
    EXPECT_EQ(list[1].rotationRate, "Solid State Device");
    EXPECT_EQ(list[1].formFactor, "2.5 inches");
    EXPECT_EQ(list[1].linkSpeed, "6G");
    EXPECT_EQ(list[1].vendor, "HGST");
}

TEST_F(SasDrivesTest, DriveByNameAndSmartData) {
    board.sasDisk5->setTemperature(47, 68);
    board.sasDisk5->setFailurePrediction(0x5D, 0x00);
    StorageSASSMARTData smart;
    ASSERT_EQ(render(sas->getSmartDataByDriveName("SAS1-DRIVE5", &smart)), "");
    EXPECT_EQ(smart.temperature, "47 C");
    EXPECT_NE(smart.healthStatus, "OK");
    SAS_DRIVE_INFO info;
    EXPECT_EQ(render(sas->getInformationByDriveName("SAS1-DRIVE7", &info)),
              "SASDAPI::getSASDriveInformation: \"No device is found - NO Attached SAS Drive\"");
    EXPECT_EQ(render(sas->getInformationByDriveName("SAS0-DRIVE0", &info)),
              "SASDAPI::getSASDriveInformation: \"No device is found - NO Attached SAS Drive\"");
}

TEST_F(SasDrivesTest, ADriveThatFailsInquiryFailsTheListWithItsChain) {
    board.device("/dev/sg3")->faults().openErrno = EBUSY;
    std::vector<SAS_DRIVE_INFO> list;
    EXPECT_EQ(render(sas->getDriveDeviceNodeListByController(0, &list)),
              "SASDAPI::getSASDeviceNodeList -> SASDDAPI::Get SAS drive PHY info fail: \"Can not open SAS device - "
              "/dev/sg3: Device or resource busy\"");
}

TEST_F(SasDrivesTest, TargetOutsideTheDriveTableIsRefused) {
    quarn::vboard::ScsiDiskConfig c;
    c.portAddress = 0x5000C500A1B2F001ull;
    board.sas->addDrive(1, 5, 9, "sdz", c);  // expander PHY 5: no drive bay
    std::vector<SAS_DRIVE_INFO> list;
    EXPECT_EQ(render(sas->getDriveDeviceNodeListByController(0, &list)),
              "SASDAPI::getSASDeviceNodeList -> SASDDAPI::Get SAS drive PHY info fail: \"out of range - sdz: target "
              "0x5 outside 0x10-0x27\"");
}

TEST_F(SasDrivesTest, ProgramSasAddress) {
    ASSERT_EQ(render(sas->programSASAddress(0, "5000C50012345678")), "");
    EXPECT_EQ(ioc().sasAddress(), 0x5000C50012345678ull);
    // One adapter: the tool's index is the controller's.
    EXPECT_EQ(board.sas->lastFlash, (std::vector<std::string>{"sas3flash", "-o", "-c", "0", "-sasadd",
                                                               "5000C50012345678", "-l", "/tmp/sasADDRflash.log"}));
    ASSERT_EQ(sas->getFlashLog().size(), 11u);
    EXPECT_EQ(sas->getFlashLog()[10], "\tFinished Processing Commands Successfully.");
    unsigned long long address = 0;
    ASSERT_EQ(render(sas->getAddressByController(0, &address)), "");
    EXPECT_EQ(address, 0x5000C50012345678ull);
}

TEST_F(SasDrivesTest, AddressWithShellTextIsRefusedBeforeAnythingRuns) {
    EXPECT_EQ(render(sas->programSASAddress(0, "5000;touch /tmp/x")),
              "SASDAPI::program SAS address: \"Bad parameter 2 - SAS address \"5000;touch /tmp/x\" is not 16 hex "
              "digits\"");
    EXPECT_TRUE(board.sas->lastFlash.empty());
    // The adapter's own tool refuses what is not an NAA 5 address.
    EXPECT_EQ(render(sas->programSASAddress(0, "1234567812345678")),
              "SASDAPI::program SAS address: \"SAS address programming fail\"");
    EXPECT_EQ(ioc().sasAddress(), 0x500605B00A1B2C00ull);
}

TEST_F(SasDrivesTest, FlashFailingHalfWayKeepsThePreviousState) {
    ioc().setFlashFailsHalfway(true);
    EXPECT_EQ(render(sas->programSASAddress(0, "5000C50012345678")),
              "SASDAPI::program SAS address: \"SAS address programming fail\"");
    EXPECT_EQ(ioc().sasAddress(), 0x500605B00A1B2C00ull);
    EXPECT_EQ(render(sas->programSASFirmware(0, kImage)), "SASDAPI::program SAS new firmware: \"SAS FW programming fail\"");
    EXPECT_EQ(ioc().firmwareVersion(), 0x0F000000u);
    ASSERT_EQ(sas->getFlashLog().size(), 11u);
    EXPECT_NE(sas->getFlashLog()[8].find("Flash write failed"), std::string::npos);
    SAS_CONTROLLER_INFO info;
    ASSERT_EQ(render(sas->getInformationByController(0, &info)), "");
    EXPECT_EQ(info.firmwareVersion, "15.0.0.0");
}

TEST_F(SasDrivesTest, FirmwareImageIsProgrammedAndABadOneRefused) {
    ASSERT_EQ(render(sas->programSASFirmware(0, kImage)), "");
    EXPECT_EQ(ioc().firmwareVersion(), 0x10000A00u);
    SASDAPI fresh("SASDAPI");
    SAS_CONTROLLER_INFO info;
    ASSERT_EQ(render(fresh.getInformationByController(0, &info)), "");
    EXPECT_EQ(info.firmwareVersion, "16.0.10.0");

    std::string image;
    ASSERT_EQ(quarn::readTextFile(kImage, &image), 0);
    image[100] ^= 0x01;  // checksum broken
    board.writeFile("/tmp/bad.bin", image);
    EXPECT_EQ(render(sas->programSASFirmware(0, "/tmp/bad.bin")),
              "SASDAPI::program SAS new firmware: \"SAS FW programming fail\"");
    EXPECT_EQ(ioc().firmwareVersion(), 0x10000A00u);
}

TEST_F(SasDrivesTest, ImagePathWithShellTextIsOneArgument) {
    const std::string path = "/tmp/fw.bin; rm -rf / #$(reboot)";
    EXPECT_EQ(render(sas->programSASFirmware(0, path)), "SASDAPI::program SAS new firmware: \"SAS FW programming fail\"");
    ASSERT_EQ(board.sas->lastFlash.size(), 8u);
    EXPECT_EQ(board.sas->lastFlash[5], path);
    EXPECT_EQ(board.sas->lastFlash[7], "/tmp/sasFWflash.log");
    EXPECT_NE(sas->getFlashLog()[8].find("Could not open Firmware file"), std::string::npos);
}

TEST_F(SasDrivesTest, MissingFlashToolOrLog) {
    board.addProgram("sas3flash", [](const std::vector<std::string>&, std::string*) { return 0; });
    EXPECT_EQ(render(sas->programSASAddress(0, "5000C50012345678")),
              "SASDAPI::program SAS address: \"fail to read file - /tmp/sasADDRflash.log: No such file or directory\"");
    board.addProgram("sas3flash", [this](const std::vector<std::string>&, std::string*) {
        board.writeFile("/tmp/sasADDRflash.log", "Avago Technologies SAS3 Flash Utility\n\tERROR: busy\n");
        return 1;
    });
    // A short log without the success line is a failure.
    EXPECT_EQ(render(sas->programSASAddress(0, "5000C50012345678")),
              "SASDAPI::program SAS address: \"SAS address programming fail\"");
}

}  // namespace
