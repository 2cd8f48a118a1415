// The SATA device layer against the virtual board's AHCI controller and SATA disks.
#include <gtest/gtest.h>

#include <linux/fs.h>
#include <scsi/sg.h>

#include <cerrno>
#include <numeric>
#include <sstream>
#include <string>
#include <vector>

#include "api/ErrorText.h"
#include "api/platform/Platform.h"
#include "ddapi/memory/MemoryDDAPI.h"
#include "ddapi/sata/SATADDAPI.h"
#include "vboard/Board.h"
#include "tests/lib/Render.h"

namespace {

using quarn::test::render;
using quarn::test::lines;
class SataDdapiTest : public ::testing::Test {
protected:
    void SetUp() override { quarn::installPlatform(&board); }
    void TearDown() override { quarn::installPlatform(nullptr); }
    void discover() { ASSERT_EQ(render(sata.generateSATAList()), ""); }
    std::string data(unsigned int id, SATADataElement element) {
        std::string out;
        ErrorMsg* e = sata.getDataByID(id, element, &out);
        return e ? render(e) : out;
    }
    std::string error(unsigned int id, SATAErrorElement element) {
        std::string out;
        ErrorMsg* e = sata.getErrorRegisterByID(id, element, &out);
        return e ? render(e) : out;
    }

    quarn::vboard::Board board;
    SATADDAPI sata{"SATA"};
};

TEST_F(SataDdapiTest, SixPortsFromCapNamedAndNumberedInDiscoveryOrder) {
    discover();
    ASSERT_EQ(sata.getControllers().size(), 1u);
    const SATAController& c = sata.getControllers().front();
    EXPECT_EQ(c.name, "SATA0");
    EXPECT_EQ(c.bdf, "00:1f.2");
    EXPECT_EQ(c.logicalID, 0u);
    EXPECT_EQ(c.abar, 0xFBF02000u);
    EXPECT_EQ(c.portAmount, 6u);  // CAP bits 3-0 = 5
    ASSERT_EQ(c.ports.size(), 6u);
    unsigned int n = 0;
    for (const SATAPort& p : c.ports) {
        EXPECT_EQ(p.portNumber, n);
        EXPECT_EQ(p.logicalID, n + 1);
        EXPECT_EQ(p.name, "SATA0-Port" + std::to_string(n));
        ++n;
    }
    unsigned int id = 99;
    EXPECT_EQ(render(sata.getLogicalIdByName("sata0-port5", &id)), "");
    EXPECT_EQ(id, 6u);
    EXPECT_EQ(render(sata.getLogicalIdByName("Sata0", &id)), "");
    EXPECT_EQ(id, 0u);
    EXPECT_EQ(data(0, SATA_DATA_REPORT), "ID          : 0\nBDF         : 00:1f.2\nPort Amount : 6\n");

    testing::internal::CaptureStdout();
    sata.IOCTL(0, SATA_IOCTL_LIST_CONTROLLER);
    sata.IOCTL(0, SATA_IOCTL_LIST_PORT);
    sata.IOCTL(0, SATA_IOCTL_LIST_DRIVE);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "SATA0 (0000:00:1f.2)\nSATA0-Port0\nSATA0-Port1\nSATA0-Port2\nSATA0-Port3\nSATA0-Port4\nSATA0-Port5\n"
              "SATA0-Port0\nSATA0-Port2\n");
}

TEST_F(SataDdapiTest, UnknownNamesAndIdsFail) {
    discover();
    unsigned int id = 0;
    const std::string byName = render(sata.getLogicalIdByName("SATA0-Port6", &id));
    EXPECT_NE(byName.find("getLogicalIDByName"), std::string::npos) << byName;
    EXPECT_NE(byName.find("logical ID not found"), std::string::npos) << byName;
    const std::string viaData = data(7, SATA_DATA_PORT_NUMBER);
    EXPECT_NE(viaData.find("getDataByID"), std::string::npos) << viaData;
    EXPECT_NE(viaData.find("logical ID not found"), std::string::npos) << viaData;
    std::string out;
    EXPECT_EQ(render(sata.getDataByName("SATA1", SATA_DATA_REPORT, &out)),
              "SATADDAPI::getDataByName -> SATADDAPI::getLogicalIDByName: \"logical ID not found - name SATA1\"");
    EXPECT_NE(data(0, SATA_DATA_SERIAL).find("no such data element"), std::string::npos);
    EXPECT_NE(data(1, static_cast<SATADataElement>(3)).find("no such data element"), std::string::npos);
}

TEST_F(SataDdapiTest, DrivesTiedToPortsThroughSysBlockLinks) {
    discover();
    const SATAPort* p0 = sata.findPort(1);
    const SATAPort* p1 = sata.findPort(2);
    const SATAPort* p2 = sata.findPort(3);
    ASSERT_TRUE(p0 && p1 && p2);
    EXPECT_EQ(p0->deviceNode, "/dev/sdb");
    EXPECT_EQ(p0->sgDeviceNode, "/dev/sg1");
    EXPECT_EQ(p0->driveName, "SATA0-Drive0");
    EXPECT_EQ(p1->deviceNode, "");
    EXPECT_EQ(p1->driveName, "");
    EXPECT_EQ(p2->deviceNode, "/dev/sdc");
    EXPECT_EQ(p2->sgDeviceNode, "/dev/sg2");
    EXPECT_EQ(p2->driveName, "SATA0-Drive2");
    EXPECT_EQ(data(3, SATA_DATA_PORT_NUMBER), "2");
    EXPECT_EQ(data(3, SATA_DATA_SG_NODE), "/dev/sg2");
    // The SAS disk's /sys/block/sda is not under the AHCI function and stays out.
    for (const SATAPort& p : sata.getControllers().front().ports) EXPECT_NE(p.deviceNode, "/dev/sda");
}

TEST_F(SataDdapiTest, SStatusDecodesLinkStatusAndSpeed) {
    board.ahci->forceSStatus(1, 0x123);
    board.ahci->forceSStatus(3, 0x4);
    board.ahci->forceSStatus(4, 0x2);
    board.ahci->forceSStatus(5, 0x1F3);
    discover();
    EXPECT_EQ(data(1, SATA_DATA_LINK_STATUS), "linked");  // drive up at Gen3: 0x133
    EXPECT_EQ(data(1, SATA_DATA_LINK_SPEED), "6 Gb/s");
    EXPECT_EQ(data(2, SATA_DATA_LINK_STATUS), "linked");
    EXPECT_EQ(data(2, SATA_DATA_LINK_SPEED), "3 Gb/s");
    EXPECT_EQ(data(4, SATA_DATA_LINK_STATUS), "unlinked");
    EXPECT_EQ(data(4, SATA_DATA_LINK_SPEED), "0 Gb/s");
    EXPECT_EQ(data(5, SATA_DATA_LINK_STATUS), "SATADDAPI::getDataByID: \"link status unknown - SStatus 0x00000002\"");
    EXPECT_NE(data(6, SATA_DATA_LINK_SPEED).find("link speed unknown"), std::string::npos);
}

TEST_F(SataDdapiTest, SErrorBitsAndWriteOneToClear) {
    board.ahci->raiseSError(1, 0x01000001);
    discover();
    for (unsigned e = SATA_ERROR_TRANSPORT_STATE; e <= SATA_ERROR_RECOVER_DATA_INTEGRITY; ++e) {
        const bool set = e == SATA_ERROR_TRANSPORT_STATE || e == SATA_ERROR_RECOVER_DATA_INTEGRITY;
        EXPECT_EQ(error(2, static_cast<SATAErrorElement>(e)), set ? "0x1" : "0x0") << "element " << e;
    }
    const std::vector<std::string> report = lines(error(2, SATA_ERROR_REPORT));
    ASSERT_EQ(report.size(), 13u);
    EXPECT_EQ(report.front(), "Transport State Transition Error                 : 0x1");
    EXPECT_EQ(report[6], "PHY Internal Error                               : 0x0");
    EXPECT_EQ(report.back(), "Recover Data Intregrity Error                    : 0x1");

    // PxSERR of port 1 is write-1-to-clear: writing bit 0 leaves bit 24.
    MemoryDDAPI memory("Memory");
    EXPECT_EQ(render(memory.write(0xFBF02000ull + 0x1B0, 0x00000001u)), "");
    EXPECT_EQ(board.ahci->sError(1), 0x01000000u);
    EXPECT_EQ(memory.read32(0xFBF02000ull + 0x1B0), 0x01000000u);
    EXPECT_EQ(memory.read32(0xFBF02000ull + 0x0C), 0x3Fu);  // PI: six ports
    discover();
    EXPECT_EQ(error(2, SATA_ERROR_TRANSPORT_STATE), "0x1");
    EXPECT_EQ(error(2, SATA_ERROR_RECOVER_DATA_INTEGRITY), "0x0");

    testing::internal::CaptureStdout();
    EXPECT_EQ(error(2, SATA_ERROR_CLEAR), "");
    EXPECT_EQ(error(0, SATA_ERROR_CLEAR), "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "clear port errors\nclear controller errors\n");
    EXPECT_EQ(board.ahci->sError(1), 0x01000000u);  // reporting only
    EXPECT_NE(error(0, SATA_ERROR_REPORT).find("no such error element"), std::string::npos);
    EXPECT_NE(error(2, static_cast<SATAErrorElement>(15)).find("no such error element"), std::string::npos);
    EXPECT_NE(error(9, SATA_ERROR_REPORT).find("logical ID not found"), std::string::npos);
}

TEST_F(SataDdapiTest, CdbGeneration) {
    EXPECT_EQ(sata.SCSICDBGenerate(1000, 0, 0), 0x11u);
    ASSERT_EQ(sata.SCSICDBGenerate(512, 3, 0), 0u);
    const std::vector<unsigned char> read(sata.getCDB(), sata.getCDB() + 16);
    EXPECT_EQ(read, (std::vector<unsigned char>{0x88, 0, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0, 1, 0, 0}));
    ASSERT_EQ(sata.SCSICDBGenerate(1024, 0x10000, 1), 0u);  // LBA 0x20000, 2 blocks
    const std::vector<unsigned char> write(sata.getCDB(), sata.getCDB() + 16);
    EXPECT_EQ(write, (std::vector<unsigned char>{0x8A, 0, 0, 0, 0, 0, 0, 0x02, 0, 0, 0, 0, 0, 2, 0, 0}));
    ASSERT_EQ(sata.SCSICDBGenerate(512, 0, 3), 0u);
    const std::vector<unsigned char> identify(sata.getCDB(), sata.getCDB() + 16);
    EXPECT_EQ(identify, (std::vector<unsigned char>{0x85, 0x08, 0x0E, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0xEC, 0}));
    EXPECT_EQ(SATADDAPI::SWAB4(0x11223344u), 0x44332211u);
    EXPECT_EQ(sata.checkDeviceNodeName("/dev/sdb"), 0u);
    EXPECT_EQ(sata.checkDeviceNodeName("/dev/../mem"), 1u);
    EXPECT_EQ(sata.checkDeviceNodeName(""), 1u);
}

TEST_F(SataDdapiTest, IdentifyThroughAtaPassThrough) {
    discover();
    EXPECT_EQ(data(1, SATA_DATA_SERIAL), "WD-WCC4J5HX2KPD");
    EXPECT_EQ(data(1, SATA_DATA_MODEL), "WDCWD10EFRX-68FYTN0");  // inner blanks removed too
    EXPECT_EQ(data(1, SATA_DATA_FIRMWARE), "82.00A82");
    EXPECT_EQ(data(3, SATA_DATA_MODEL), "ST2000NM0055-1V4104");
    const std::vector<uint8_t> cdb = board.sataDisk2->lastCdb();
    EXPECT_EQ(board.sataDisk2->ataCommandCount(0xEC), 1u);

    // The IDENTIFY sector is a real one: signature 0xA5 and a zero byte sum.
    const std::vector<uint8_t> id = board.sataDisk0->identifyData();
    EXPECT_EQ(id[510], 0xA5);
    EXPECT_EQ(std::accumulate(id.begin(), id.end(), 0u) % 256, 0u);
    EXPECT_EQ(render(sata.IOCTL(1, SATA_IOCTL_IDENTIFY_TEST)), "");

    board.sataDisk0->injectAtaAbort(0xEC);
    testing::internal::CaptureStdout();
    const std::string aborted = data(1, SATA_DATA_SERIAL);
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(aborted, "SATADDAPI::getDataByID -> SATADDAPI::SATIdentify16: \"SG_IO ioctl sense error - IDENTIFY DEVICE\"");
    EXPECT_NE(printed.find("Status: CC"), std::string::npos) << printed;

    board.device("/dev/sg1")->faults().openErrno = EACCES;
    const std::string closed = data(1, SATA_DATA_FIRMWARE);
    EXPECT_NE(closed.find("open device node fail"), std::string::npos) << closed;
    EXPECT_NE(closed.find("Permission denied"), std::string::npos) << closed;
}

TEST_F(SataDdapiTest, CapacityAndPortReport) {
    discover();
    EXPECT_EQ(data(1, SATA_DATA_CAPACITY), "953869 MB");  // 1953525168 x 512 bytes
    EXPECT_EQ(data(3, SATA_DATA_CAPACITY), "1907729 MB");
    EXPECT_EQ(data(1, SATA_DATA_REPORT),
              "Port Number         : 0\n"
              "Device Node Name    : /dev/sdb\n"
              "SG Device Node Name : /dev/sg1\n"
              "Capacity            : 953869 MB\n"
              "Serial Number       : WD-WCC4J5HX2KPD\n"
              "Model Name          : WDCWD10EFRX-68FYTN0\n"
              "Firmware Version    : 82.00A82\n"
              "Link Speed          : 6 Gb/s\n"
              "Temperature         : 34.0 C\n");
    EXPECT_EQ(data(2, SATA_DATA_REPORT),
              "Port Number         : 1\nDevice Node Name    : \nSG Device Node Name : \nCapacity            : N/A\n"
              "Serial Number       : N/A\nModel Name          : N/A\nFirmware Version    : N/A\n"
              "Link Speed          : 0 Gb/s\nTemperature         : N/A\n");

    board.sataDisk0->injectSense(0x9E, 0x02, 0x04, 0x01);  // becoming ready
    testing::internal::CaptureStdout();
    EXPECT_EQ(data(1, SATA_DATA_CAPACITY),
              "SATADDAPI::getDataByID -> SATADDAPI::readCapacity16: \"SG_IO ioctl sense error - READ CAPACITY(16)\"");
    EXPECT_NE(testing::internal::GetCapturedStdout().find("Status: CC"), std::string::npos);

    board.device("/dev/sg1")->faults().ioctlErrno[SG_IO] = EIO;
    testing::internal::CaptureStderr();
    const std::string failed = data(1, SATA_DATA_CAPACITY);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "cdb_16_byte_command: SG_IO ioctl error: Input/output error\n");
    EXPECT_NE(failed.find("SG_IO ioctl fail"), std::string::npos) << failed;
}

TEST_F(SataDdapiTest, FlushThroughTheBlockNode) {
    discover();
    EXPECT_EQ(render(sata.IOCTL(1, SATA_IOCTL_FLUSH_BUFFER)), "");
    board.device("/dev/sdb")->faults().ioctlErrno[BLKFLSBUF] = EIO;
    EXPECT_EQ(render(sata.IOCTL(1, SATA_IOCTL_FLUSH_BUFFER)),
              "SATADDAPI::IOCTL -> SATADDAPI::flushBufferCache: \"BLKFLSBUF: Input/output error\"");
    const std::string noDrive = render(sata.IOCTL(2, SATA_IOCTL_FLUSH_BUFFER));
    EXPECT_NE(noDrive.find("wrong device node name format"), std::string::npos) << noDrive;
    const std::string bad = render(sata.IOCTL(1, static_cast<SATAIOCTLOperation>(9)));
    EXPECT_NE(bad.find("no such operation"), std::string::npos) << bad;
}

TEST_F(SataDdapiTest, DiscoveryFailuresAreChained) {
    board.device("/dev/mem")->faults().openErrno = EACCES;
    const std::string failed = render(sata.generateSATAList());
    EXPECT_NE(failed.find("generateSATAList"), std::string::npos) << failed;
    EXPECT_NE(failed.find("initControllerInfo"), std::string::npos) << failed;
    EXPECT_NE(failed.find("open memory map fail"), std::string::npos) << failed;
}

}  // namespace
