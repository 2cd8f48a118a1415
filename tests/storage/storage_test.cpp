// The drive list and the storage tests over the virtual board's disks: numbering across
// attachments, reports, sectors per command, LBA walk and wrap, sense listings, zero
// fill, SMART texts.
#include <gtest/gtest.h>

#include <fcntl.h>

#include <cstring>
#include <string>

#include "api/platform/Platform.h"
#include "dapi/storage/StorageDAPI.h"
#include "ddapi/scsi/SCSISenseAnalyzer.h"
#include "ddapi/storage/StorageDDAPIOperation.h"
#include "vboard/Board.h"
#include "tests/lib/Render.h"

namespace {

using quarn::test::render;

// The head record's code (the chain is freed).
unsigned int code(ErrorMsg* chain) {
    const unsigned int c = chain ? chain->getErrorCode() : 0;
    deleteErrorMsg(chain);
    return c;
}

class StorageTest : public ::testing::Test {
protected:
    void SetUp() override { quarn::installPlatform(&board); }
    void TearDown() override { quarn::installPlatform(nullptr); }
    // Logical ID of the first drive of a type.
    unsigned int idOf(StorageDAPI& s, uint32_t type) {
        for (const StorageDrive& d : s.device()->drives())
            if (d.controllerType == type) return d.logicalID;
        ADD_FAILURE() << "no drive of type " << type;
        return 0;
    }
    uint64_t nvmeReads() { return board.nvme->commandCount(false, 0x02); }

    quarn::vboard::Board board;
};

TEST_F(StorageTest, OneListNumberedAcrossAttachments) {
    StorageDDAPIOperation list("StorageDDAPIOperation");
    EXPECT_EQ(render(list.getErrorMsg()), "");
    const std::vector<StorageDrive>& drives = list.drives();
    ASSERT_GE(drives.size(), 2u);
    // SAS drives first, then NVMe controllers, then USB disks; IDs count through all.
    uint32_t previousType = 0;
    for (size_t i = 0; i < drives.size(); ++i) {
        EXPECT_EQ(drives[i].logicalID, i);
        const int rank = drives[i].controllerType == STORAGE_TYPE_SAS ? 0 : drives[i].controllerType == STORAGE_TYPE_NVME ? 1 : 2;
        const int before = previousType == STORAGE_TYPE_SAS ? 0 : previousType == STORAGE_TYPE_NVME ? 1 : 2;
        if (i) EXPECT_LE(before, rank) << drives[i].driveName;
        previousType = drives[i].controllerType;
    }
    const StorageDrive& usb = drives.back();
    EXPECT_EQ(usb.controllerType, STORAGE_TYPE_USB);
    EXPECT_EQ(usb.driveName, "USB0");  // keyboards and mice are not disks
    const StorageDrive& nvme = drives[drives.size() - 2];
    EXPECT_EQ(nvme.controllerType, STORAGE_TYPE_NVME);
    EXPECT_EQ(nvme.driveName, "NVME0");
    EXPECT_EQ(nvme.capacityMB, 400088457216ull >> 20);
    EXPECT_EQ(nvme.modelName, "INTEL SSDPEDMD400G4");

    unsigned int id = 99;
    ASSERT_EQ(render(list.getLogicalIdByName("usb0", &id)), "");
    EXPECT_EQ(id, usb.logicalID);
    std::string out;
    EXPECT_EQ(render(list.getDataByName("nvme0", STORAGE_DATA_SG_NODE, &out)), "");
    EXPECT_EQ(out, "/dev/nvme0n1");
    EXPECT_EQ(render(list.getDataByID(99, STORAGE_DATA_REPORT, &out)),
              "StorageDDAPI::getDataByID: \"logical ID not found - ID 99\"");
    EXPECT_EQ(render(list.getDataByID(usb.logicalID, STORAGE_DATA_SAS_ADDRESS, &out)),
              "StorageDDAPI::getDataByID: \"no such data element - element 9 of USB0\"");
    EXPECT_EQ(render(list.IOCTL(0, static_cast<StorageIOCTLOperation>(5))),
              "StorageDDAPI::IOCTL: \"no such operation - operation 5\"");
}

TEST_F(StorageTest, ReportsOfUsbAndNvmeDrives) {
    StorageDDAPIOperation list("StorageDDAPIOperation");
    unsigned int usb = 0, nvme = 0;
    ASSERT_EQ(render(list.getLogicalIdByName("USB0", &usb)), "");
    ASSERT_EQ(render(list.getLogicalIdByName("NVME0", &nvme)), "");
    std::string r;
    ASSERT_EQ(render(list.getDataByID(usb, STORAGE_DATA_REPORT, &r)), "");
    EXPECT_EQ(r,
              "Device Node Name    : /dev/sdf\n"
              "SG Device Node Name : /dev/sg5\n"
              "Vendor              : SanDisk\n"
              "Serial Number       : 4C530001230817116082\n"
              "Capacity            : 15264 MB\n"
              "Link Speed          : 480 Mb/s\n"
              "USB Version         : 2.00\n"
              "Physical Block Size : 512\n"
              "Logical Block Size  : 512\n");
    ASSERT_EQ(render(list.getDataByID(nvme, STORAGE_DATA_REPORT, &r)), "");
    EXPECT_EQ(r,
              "Device Node Name    : /dev/nvme0n1\n"
              "SG Device Node Name : /dev/nvme0n1\n"
              "Capacity            : 381554 MB\n"
              "Logical Block Size  : 512\n"
              "Physical Block Size : 512\n");
    std::string smart;
    EXPECT_EQ(render(list.getSMARTInfoByID(usb, &smart)),
              "StorageDDAPI::getSMARTInfoByID: \"no such controller type - USB0\"");
}

TEST_F(StorageTest, SectorsPerCommandFollowTheAttachment) {
    StorageDAPI s("StorageDAPI");
    EXPECT_EQ(render(s.getErrorMsg()), "");
    ASSERT_EQ(render(s.setSectorCountPerRDWRAccess(idOf(s, STORAGE_TYPE_USB))), "");
    EXPECT_EQ(s.getSectorCountPerAccess(), 128u);
    ASSERT_EQ(render(s.setSectorCountPerRDWRAccess(idOf(s, STORAGE_TYPE_NVME))), "");
    EXPECT_EQ(s.getSectorCountPerAccess(), 2048u);
    EXPECT_EQ(render(s.setSectorCountPerRDWRAccess(77)),
              "StorageDAPI::setSectorCountPerRDWRAccess -> StorageDDAPI::getDataByID: \"logical ID not found - ID 77\"");
}

TEST_F(StorageTest, OneMegabyteReadIsOneCommandOnA512ByteNamespace) {
    StorageDAPI s("StorageDAPI");
    const unsigned int id = idOf(s, STORAGE_TYPE_NVME);
    const uint64_t before = nvmeReads();
    EXPECT_EQ(render(s.readPerformanceTest(id, 0, 1, false)), "");
    EXPECT_EQ(nvmeReads() - before, 1u);
    EXPECT_EQ(s.getCommandCount(), 1u);
    EXPECT_EQ(s.getProgress(), 100u);
    // 20 us + 1 MiB at 2 GB/s, and a microsecond for the clock reading after it.
    EXPECT_EQ(s.getResultText(),
              "Spend time : 0.00 s\nSpeed      : 1833.89 MB/s\n"
              "\nCategory\tKey\tASC\tASCQ\tError_Condition\t\tCount\n" + std::string(92, '-') +
                  "\nNoAnyErrorSenseData\n\n");
}

TEST_F(StorageTest, FourKilobyteBlocksCountEightMegabytesAsOneUnit) {
    nvme_passthru_cmd format{};
    format.opcode = 0x80;
    format.nsid = 1;
    format.cdw10 = 1;  // LBA format 1: 4096-byte blocks
    ASSERT_EQ(board.nvme->admin(&format), 0);
    StorageDAPI s("StorageDAPI");
    const unsigned int id = idOf(s, STORAGE_TYPE_NVME);
    std::string block;
    ASSERT_EQ(render(s.getDataByID(id, STORAGE_DATA_LOGICAL_BLOCK_SIZE, &block)), "");
    EXPECT_EQ(block, "4096");
    const uint64_t before = nvmeReads();
    EXPECT_EQ(render(s.readPerformanceTest(id, 0, 1, true)), "");
    EXPECT_EQ(nvmeReads() - before, 1u);  // one READ of 2048 blocks = 8 MiB
    EXPECT_EQ(s.getResultText().rfind("NVME0: 0.00s\t", 0), 0u) << s.getResultText();
    EXPECT_NE(s.getResultText().find("NoAnyErrorSenseData\t"), std::string::npos);
}

TEST_F(StorageTest, StartBeyondTheLastUsableBlockWraps) {
    StorageDAPI s("StorageDAPI");
    const unsigned int id = idOf(s, STORAGE_TYPE_USB);
    const unsigned long long last = (15264ull * 1048576 - 1048576) / 512;  // the last MB is never touched
    EXPECT_EQ(render(s.readPerformanceTest(id, last + 100, 1, false)), "");
    EXPECT_EQ(s.getCommandCount(), 16u);  // 1 MiB in commands of 128 blocks
    const uint8_t* cdb = board.usb.disk->lastCdb();
    EXPECT_EQ(cdb[0], 0x28);
    const uint32_t lba = static_cast<uint32_t>(cdb[2]) << 24 | cdb[3] << 16 | cdb[4] << 8 | cdb[5];
    EXPECT_EQ(lba, 100u + 15 * 128);
    EXPECT_EQ(cdb[8], 128);
}

TEST_F(StorageTest, MediumErrorIsListedAndFailsTheTest) {
    board.usb.disk->addUnreadableBlock(300);
    StorageDAPI s("StorageDAPI");
    const unsigned int id = idOf(s, STORAGE_TYPE_USB);
    const std::string chain = render(s.readPerformanceTest(id, 0, 1, false));
    EXPECT_EQ(chain.rfind("StorageDAPI::readPerformanceTest -> ", 0), 0u) << chain;
    EXPECT_NE(s.getResultText().find("Medium Error\t3\t11\t0"), std::string::npos) << s.getResultText();
    EXPECT_EQ(s.getProgress(), 100u);
}

TEST_F(StorageTest, VerifyTestWritesThePatternAndReadsItBack) {
    StorageDAPI s("StorageDAPI");
    const unsigned int id = idOf(s, STORAGE_TYPE_NVME);
    ASSERT_EQ(render(s.readwriteTest(id, 4096, 2, false)), "");
    EXPECT_EQ(s.getCommandCount(), 4u);
    std::vector<uint8_t> block(512);
    nvme_passthru_cmd read{};
    read.opcode = 0x02;
    read.nsid = 1;
    read.addr = reinterpret_cast<uintptr_t>(block.data());
    read.data_len = 512;
    read.cdw10 = 4096 + 2048;
    ASSERT_EQ(board.nvme->io(&read), 0);
    EXPECT_EQ(block[0], 0x55);  // 0xAAAA5555, little-endian words
    EXPECT_EQ(block[3], 0xAA);
}

TEST_F(StorageTest, ZeroFillCoversTheDriveInCommandsOf128Blocks) {
    quarn::vboard::UsbDiskConfig small;
    small.sectors = 64 * 2048;  // a 64 MB stick replaces the 16 GB one
    board.usb = quarn::vboard::installUsbDevices(board, small);
    StorageDAPI s("StorageDAPI");
    const unsigned int id = idOf(s, STORAGE_TYPE_USB);
    ASSERT_EQ(render(s.writePerformanceTest(id, 0, 4, false)), "");
    EXPECT_EQ(render(s.writeZeroByID(id, 0, true)), "");
    EXPECT_EQ(s.getSectorCountPerAccess(), 128u);
    EXPECT_EQ(s.getCommandCount(), 64u * 16);  // 64 MB of 64 KiB commands
    EXPECT_EQ(s.getResultText(), "USB0: NoAnyErrorSenseData\t");
    EXPECT_EQ(s.getProgress(), 100u);
    const int fd = quarn::platform().open("/dev/sg5", O_RDWR);
    std::vector<uint8_t> data(512, 0xFF);
    SCSIFactory f("SCSIFactory");
    ASSERT_EQ(render(f.executeSCSIRead(fd, 100, 1, data.data(), 512)), "");
    quarn::platform().close(fd);
    EXPECT_EQ(data[0], 0);  // the write test's pattern is gone
}

TEST_F(StorageTest, NvmeSmartText) {
    StorageDAPI s("StorageDAPI");
    const unsigned int id = idOf(s, STORAGE_TYPE_NVME);
    ASSERT_EQ(render(s.getSMARTInfoByID(id)), "");
    const std::vector<std::string> l = quarn::test::lines(s.getResultText());
    ASSERT_EQ(l.size(), 26u);
    EXPECT_EQ(l[0], "Smart Log for NVME device: NVME0");
    EXPECT_EQ(l[2], "temperature                         : 35 C");
    EXPECT_EQ(l[11], "power_cycles                        : 23");
    EXPECT_EQ(l[18], "Temperature Sensor 1                : 33 C");
    EXPECT_EQ(l[19], "Temperature Sensor 2                : 38 C");
    EXPECT_EQ(l[20], "Temperature Sensor                  : 0 C");
    // The diagnostic layer's error rows carry the getPGListByID function bits in their
    // codes, so the table lookup of the error number finds no text: the code is checked.
    EXPECT_EQ(code(s.getSMARTInfoByID(idOf(s, STORAGE_TYPE_USB))), 0xC4044407u);
}

TEST_F(StorageTest, HelpersAndRefusals) {
    StorageDAPI s("StorageDAPI");
    unsigned char counter[16] = {0x01, 0x02};
    EXPECT_EQ(s.int128_to_double(counter), 513.0);
    counter[8] = 1;  // 2^64
    EXPECT_EQ(s.int128_to_double(counter), 18446744073709552129.0);
    unsigned int word = 0x10000000;
    std::string out;
    ASSERT_EQ(render(s.dumpHexDataToString(&out, &word, 4, "HEX", false)), "");
    EXPECT_EQ(out, "00000010");
    EXPECT_EQ(code(s.dumpHexDataToString(&out, &word, 4, "BIN", false)), 0xC4044406u);
    EXPECT_EQ(code(s.getPGListByID(0, 0, 0, 5, false)), 0xC4044401u);
}

// Three SAS drives behind the SAS3008, then the NVMe controller, then the USB stick.
TEST_F(StorageTest, SasDrivesComeFirst) {
    StorageDDAPIOperation list("StorageDDAPIOperation");
    const std::vector<StorageDrive>& d = list.drives();
    ASSERT_EQ(d.size(), 5u);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(d[i].controllerType, STORAGE_TYPE_SAS) << d[i].driveName;
    EXPECT_EQ(d[3].controllerType, STORAGE_TYPE_NVME);
    EXPECT_EQ(d[3].logicalID, 3u);
    EXPECT_EQ(d[4].controllerType, STORAGE_TYPE_USB);
    EXPECT_EQ(d[4].logicalID, 4u);
    EXPECT_EQ(d[0].deviceNode, "/dev/sda");
    EXPECT_EQ(d[0].sgDeviceNode, "/dev/sg0");
    std::string r;
    ASSERT_EQ(render(list.getDataByID(0, STORAGE_DATA_REPORT, &r)), "");
    const std::vector<std::string> l = quarn::test::lines(r);
    ASSERT_EQ(l.size(), 15u);
    EXPECT_EQ(l[2], "Vendor              : SEAGATE");
    EXPECT_EQ(l[5], "Capacity            : " + std::to_string(7814037168ull * 512 >> 20) + " MB");
    EXPECT_EQ(l[7], "Logical Block Size  : 512 Bytes");
    std::string smart;
    ASSERT_EQ(render(list.getSMARTInfoByID(0, &smart)), "");
    const std::vector<std::string> s = quarn::test::lines(smart);
    ASSERT_EQ(s.size(), 23u);
    EXPECT_EQ(s[0], "SMART Health Status   : OK");
    EXPECT_EQ(s[2], "Read error count :");
    EXPECT_EQ(s[3].substr(0, 24), "Fast ECC              : ");
    EXPECT_EQ(s[10].substr(0, 24), "fast ECC              : ");
}

TEST_F(StorageTest, OneMegabyteReadOnASasDriveIsOneRead) {
    StorageDAPI s("StorageDAPI");
    const uint64_t before = board.scsiDisk->commandCount(0x28);
    EXPECT_EQ(render(s.readPerformanceTest(0, 0, 1, false)), "");
    EXPECT_EQ(board.scsiDisk->commandCount(0x28) - before, 1u);
    EXPECT_EQ(s.getProgress(), 100u);
}

TEST_F(StorageTest, VerifyMiscompareEndsWithoutSpeed) {
    board.scsiDisk->injectMiscompare(2048);
    StorageDAPI s("StorageDAPI");
    EXPECT_EQ(code(s.readwriteTest(0, 0, 2, false)), 0xC4047C02u);
    EXPECT_EQ(s.getResultText(), "");
}

TEST_F(StorageTest, CorrectedErrorsAreListedAndFailTheTest) {
    board.scsiDisk->injectSense(0x28, 0x01, 0x18, 0x00);  // recovered data with correction
    StorageDAPI s("StorageDAPI");
    const std::string chain = render(s.readPerformanceTest(0, 0, 2, false));
    EXPECT_EQ(chain, "StorageDAPI::readPerformanceTest -> StorageDDAPI: \"SG_IO ioctl sense error\"") << chain;
    EXPECT_NE(s.getResultText().find("Speed      : "), std::string::npos);
    EXPECT_NE(s.getResultText().find("Soft Error\t1\t18\t0"), std::string::npos) << s.getResultText();
}

TEST_F(StorageTest, DefectListLengths) {
    for (uint64_t lba : {10, 20, 30}) board.scsiDisk->addPrimaryDefect(lba);
    board.scsiDisk->addGrownDefect(40);
    StorageDAPI s("StorageDAPI");
    ASSERT_EQ(render(s.getPGListByID(0, 1, 1, 5, false)), "");
    EXPECT_EQ(s.getResultText(), "P&G-ListCount: 32\n");  // four 8-byte descriptors
    ASSERT_EQ(render(s.getPGListByID(0, 0, 1, 5, true)), "");
    EXPECT_EQ(s.getResultText(), "SAS1-DRIVE0: G-ListCount: 8");
}

}  // namespace
