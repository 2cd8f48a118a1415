// The NVMe layers against the virtual board's controller: command records, status
// translation, firmware slots, Write Zeroes, Format and node discovery.
#include <gtest/gtest.h>

#include <sys/mman.h>

#include <cstring>
#include <string>
#include <vector>

#include "api/platform/Platform.h"
#include "dapi/nvme/NVMeDAPI.h"
#include "ddapi/nvme/NVMeIOCTL.h"
#include "vboard/Board.h"
#include "vboard/models/pci/PciModels.h"
#include "tests/lib/Render.h"

namespace {

using quarn::test::render;

std::string field(const char* p, size_t n) {
    std::string s(p, n);
    while (!s.empty() && s.back() == ' ') s.pop_back();
    return s;
}

uint64_t counter(const uint8_t* p) {
    uint64_t v = 0;
    for (int i = 7; i >= 0; --i) v = v << 8 | p[i];
    return v;
}

class NvmeTest : public ::testing::Test {
protected:
    void SetUp() override { quarn::installPlatform(&board); }
    void TearDown() override { quarn::installPlatform(nullptr); }
    quarn::vboard::NvmeControllerModel& ctrl() { return *board.nvme; }
    // An I/O command straight to the controller, as another program on the host would send it.
    int io(uint8_t opcode, uint64_t lba, uint16_t blocks0, void* data, uint32_t length) {
        nvme_passthru_cmd c{};
        c.opcode = opcode;
        c.nsid = 1;
        c.addr = reinterpret_cast<uintptr_t>(data);
        c.data_len = length;
        c.cdw10 = static_cast<uint32_t>(lba);
        c.cdw11 = static_cast<uint32_t>(lba >> 32);
        c.cdw12 = blocks0;
        return ctrl().io(&c);
    }

    quarn::vboard::Board board;
};

TEST_F(NvmeTest, ControllerListFindsNodesAndNamespace) {
    NVMeDAPI nvme("NVMeDAPI");
    EXPECT_EQ(render(nvme.getErrorMsg()), "");
    std::vector<NVMe_DEVICE_INFO> list;
    ASSERT_EQ(render(nvme.getInformationList(&list)), "");
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].name, "NVME0");
    EXPECT_EQ(list[0].pciAddress, "0000:04:00.0");
    EXPECT_EQ(list[0].deviceNode, "/dev/nvme0");
    EXPECT_EQ(list[0].blockNode, "/dev/nvme0n1");
    nvme_id_ns ns;
    memcpy(&ns, list[0].identifyNamespace, sizeof(ns));
    EXPECT_EQ(ns.nsze, 781422768u);  // 400 GB of 512-byte blocks
    EXPECT_EQ(ns.lbaf[ns.flbas & 0xF].ds, 9);
    unsigned char id = 9;
    EXPECT_EQ(render(nvme.getLogicalIDByName("NVME0", &id)), "");
    EXPECT_EQ(id, 0);
    EXPECT_EQ(render(nvme.getLogicalIDByName("nvme0", &id)), "NVMeDAPI::getLogicalIDByName: \"Bad parameter 5 - nvme0\"");
}

TEST_F(NvmeTest, AdminCommandRecordsFollowTheLayout) {
    NVMeDAPI nvme("NVMeDAPI");
    nvme_id_ctrl idc;
    ASSERT_EQ(render(nvme.getIdentityCTRLByController(0, &idc)), "");
    EXPECT_EQ(field(idc.mn, 40), "INTEL SSDPEDMD400G4");
    EXPECT_EQ(field(idc.sn, 20), "CVFT6123004Y400BGN");
    EXPECT_EQ(field(idc.fr, 8), "8DV10171");
    EXPECT_EQ(idc.oncs & 0x8, 0x8);  // Write Zeroes
    nvme_passthru_cmd c = ctrl().lastCommand();
    EXPECT_EQ(c.opcode, 0x06);
    EXPECT_EQ(c.nsid, 0u);
    EXPECT_EQ(c.cdw10, 1u);
    EXPECT_EQ(c.data_len, 4096u);

    nvme_id_ns ns;
    ASSERT_EQ(render(nvme.getIdentityNSByController(0, &ns)), "");
    c = ctrl().lastCommand();
    EXPECT_EQ(c.nsid, 1u);
    EXPECT_EQ(c.cdw10, 0u);

    nvme_firmware_log_page fw;
    ASSERT_EQ(render(nvme.getFirmwareLogByController(0, &fw)), "");
    c = ctrl().lastCommand();
    EXPECT_EQ(c.opcode, 0x02);
    EXPECT_EQ(c.nsid, 0xFFFFFFFFu);
    EXPECT_EQ(c.cdw10, 0x007F0003u);
    EXPECT_EQ(c.data_len, 512u);
    EXPECT_EQ(fw.afi, 1);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&fw.frs[0]), 8), "8DV10171");

    nvme_smart_log smart;
    ASSERT_EQ(render(nvme.getSmartLogByController(0, &smart)), "");
    EXPECT_EQ(ctrl().lastCommand().cdw10, 0x007F0002u);
    EXPECT_EQ(smart.temperature[0] | smart.temperature[1] << 8, 308);

    nvme_error_log_page err;
    ASSERT_EQ(render(nvme.getErrorLogByController(0, &err)), "");
    EXPECT_EQ(ctrl().lastCommand().cdw10, 0x000F0001u);
    EXPECT_EQ(ctrl().lastCommand().data_len, 64u);
    EXPECT_EQ(err.error_count, 0u);

    int nsid = 0;
    ASSERT_EQ(render(nvme.getNameSpaceIDByController(0, &nsid)), "");
    EXPECT_EQ(nsid, 1);
}

TEST_F(NvmeTest, StatusFieldsMapToTheirRows) {
    NVMeIOCTL ioctl("/dev/nvme0n1");
    EXPECT_EQ(ioctl.convertNVMEStatustoErrorcode(0), 0u);
    EXPECT_EQ(ioctl.convertNVMEStatustoErrorcode(0x0281), 0xD7080024u);
    EXPECT_EQ(ioctl.convertNVMEStatustoErrorcode(0x4281), 0xD7080024u);  // with Do Not Retry
    EXPECT_EQ(ioctl.convertNVMEStatustoErrorcode(0x0183), 0xC000021Au);
    EXPECT_EQ(ioctl.convertNVMEStatustoErrorcode(0x0001), 0xD7080008u);
    EXPECT_EQ(ioctl.convertNVMEStatustoErrorcode(0x0286), 0xD7080029u);
}

TEST_F(NvmeTest, ResetNeedsTheCharacterNode) {
    NVMeIOCTL block("/dev/nvme0n1");
    EXPECT_EQ(block.executeIOCTL(NVMeIOCTL::NVME_RESET), 0xD708002Au);
    NVMeIOCTL chr("/dev/nvme0");
    EXPECT_EQ(chr.executeIOCTL(NVMeIOCTL::NVME_RESET), 0u);
    NVMeDAPI nvme("NVMeDAPI");
    EXPECT_EQ(render(nvme.resetNVMe(0)), "");
    EXPECT_EQ(render(nvme.resetNVMe(1)), "NVMeDAPI::getInformation: \"Bad parameter - Bad NVME logical ID\"");
}

TEST_F(NvmeTest, OpZeroIsRefused) {
    NVMeDDAPI dev("NVME");
    EXPECT_EQ(render(dev.doIOCTLCommand(0, NVMeIOCTL::NVME_INVALID, nullptr)).substr(0, 40),
              "NVMeDDAPI::NVME execute IOCTL fail: \"inv");
}

TEST_F(NvmeTest, FirmwareIsDownloadedInPagesAndActivatedAtReset) {
    const std::vector<uint8_t> image = quarn::vboard::NvmeControllerModel::makeFirmwareImage("8DV10200", 9984);
    ASSERT_EQ(image.size(), 10000u);
    board.writeFile("/tmp/fw.bin", std::string(image.begin(), image.end()));
    NVMeDAPI nvme("NVMeDAPI");
    ASSERT_EQ(render(nvme.downloadFirmwareByController(0, "/tmp/fw.bin")), "");
    EXPECT_EQ(ctrl().commandCount(true, 0x11), 3u);
    const nvme_passthru_cmd last = ctrl().lastCommand();
    EXPECT_EQ(last.data_len, 1808u);
    EXPECT_EQ(last.cdw10, 1808u / 4 - 1);
    EXPECT_EQ(last.cdw11, 2048u);  // byte offset 8192 in dwords

    ASSERT_EQ(render(nvme.activateFirmwareByController(0, nvme_fw_active{2, 1})), "");
    EXPECT_EQ(ctrl().lastCommand().cdw10, 2u | 1u << 3);
    nvme_firmware_log_page fw;
    ASSERT_EQ(render(nvme.getFirmwareLogByController(0, &fw)), "");
    EXPECT_EQ(fw.afi, 0x21);  // running slot 1, slot 2 at the next reset
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&fw.frs[1]), 8), "8DV10200");
    EXPECT_EQ(ctrl().runningFirmware(), "8DV10171");
    ASSERT_EQ(render(nvme.resetNVMe(0)), "");
    nvme_id_ctrl idc;
    ASSERT_EQ(render(nvme.getIdentityCTRLByController(0, &idc)), "");
    EXPECT_EQ(field(idc.fr, 8), "8DV10200");
}

TEST_F(NvmeTest, RejectedImageAtCommitAndReadOnlySlot) {
    const std::vector<uint8_t> image = quarn::vboard::NvmeControllerModel::makeFirmwareImage("8DV10300", 100);
    board.writeFile("/tmp/fw.bin", std::string(image.begin(), image.end()));
    NVMeDAPI nvme("NVMeDAPI");
    ASSERT_EQ(render(nvme.downloadFirmwareByController(0, "/tmp/fw.bin")), "");
    EXPECT_EQ(render(nvme.activateFirmwareByController(0, nvme_fw_active{1, 1})),
              "NVMeDAPI::getNVMEErrorLog -> NVMeDDAPI::NVME execute IOCTL fail: \"NVME ioctl firmware slot - /dev/nvme0n1 op 6\"");
    ASSERT_EQ(render(nvme.downloadFirmwareByController(0, "/tmp/fw.bin")), "");
    ctrl().rejectFirmwareAtCommit(true);
    EXPECT_EQ(render(nvme.activateFirmwareByController(0, nvme_fw_active{2, 3})),
              "NVMeDAPI::getNVMEErrorLog -> NVMeDDAPI::NVME execute IOCTL fail: \"NVME ioctl firmware image - /dev/nvme0n1 op 6\"");
    EXPECT_EQ(ctrl().runningFirmware(), "8DV10171");
    // Both failures are in the error log, newest first.
    nvme_error_log_page err;
    ASSERT_EQ(render(nvme.getErrorLogByController(0, &err)), "");
    EXPECT_EQ(err.error_count, 2u);
    EXPECT_EQ(err.status_field >> 1, 0x107);
    EXPECT_EQ(render(nvme.downloadFirmwareByController(0, "/tmp/none.bin")),
              "NVMeDAPI::download firmware: \"Fail to open file node - /tmp/none.bin\"");
}

TEST_F(NvmeTest, WriteZeroesUsesAZeroBasedCount) {
    NVMeDAPI nvme("NVMeDAPI");
    // Beyond the namespace: the record is still built as laid out, the controller refuses it.
    EXPECT_EQ(render(nvme.writeZeroByController(0, 0x100000000ull, 7)),
              "NVMeDAPI::ioctl command fail -> NVMeDDAPI::NVME execute IOCTL fail: \"NVME ioctl LBA range - /dev/nvme0n1 op 11\"");
    nvme_passthru_cmd c = ctrl().lastCommand();
    EXPECT_EQ(c.opcode, 0x08);
    EXPECT_EQ(c.nsid, 1u);
    EXPECT_EQ(c.cdw10, 0u);
    EXPECT_EQ(c.cdw11, 1u);
    EXPECT_EQ(c.cdw12, 0x80000007u);

    std::vector<uint8_t> data(512 * 10, 0xA5);
    ASSERT_EQ(io(0x01, 100, 9, data.data(), static_cast<uint32_t>(data.size())), 0);
    ASSERT_EQ(render(nvme.writeZeroByController(0, 100, 7)), "");  // blocks 100-107
    std::vector<uint8_t> back(data.size(), 0x11);
    ASSERT_EQ(io(0x02, 100, 9, back.data(), static_cast<uint32_t>(back.size())), 0);
    EXPECT_EQ(back[0], 0);
    EXPECT_EQ(back[8 * 512 - 1], 0);
    EXPECT_EQ(back[8 * 512], 0xA5);  // block 108 kept
}

TEST_F(NvmeTest, FormatChangesTheBlockSizeAndErases) {
    std::vector<uint8_t> data(512, 0x5A);
    ASSERT_EQ(io(0x01, 0, 0, data.data(), 512), 0);
    NVMeDAPI nvme("NVMeDAPI");
    NVMeFormatArgument bad{1, 1, 0, 1, 0, 0};  // protection information without metadata
    EXPECT_EQ(render(nvme.formatByController(0, bad)),
              "NVMeDAPI::ioctl command fail -> NVMeDDAPI::NVME execute IOCTL fail: \"NVME ioctl invalid format - /dev/nvme0n1 op 12\"");
    EXPECT_EQ(ctrl().lastCommand().cdw10, 1u | 1u << 5);
    NVMeFormatArgument f{1, 1, 0, 0, 0, 1};
    ASSERT_EQ(render(nvme.formatByController(0, f)), "");
    const nvme_passthru_cmd c = ctrl().lastCommand();
    EXPECT_EQ(c.opcode, 0x80);
    EXPECT_EQ(c.cdw10, 1u | 1u << 9);
    EXPECT_EQ(c.timeout_ms, 120000u);
    nvme_id_ns ns;
    ASSERT_EQ(render(nvme.getIdentityNSByController(0, &ns)), "");
    EXPECT_EQ(ns.flbas & 0xF, 1);
    EXPECT_EQ(ns.lbaf[1].ds, 12);
    EXPECT_EQ(ns.nsze, 400088457216ull / 4096);
    std::vector<uint8_t> back(4096, 0x11);
    ASSERT_EQ(io(0x02, 0, 0, back.data(), 4096), 0);
    EXPECT_EQ(back[0], 0);
}

TEST_F(NvmeTest, InjectedStatusAndSmartCountersFollowUse) {
    NVMeDAPI nvme("NVMeDAPI");
    ctrl().injectStatus(true, 0x02, 0x109);
    nvme_smart_log smart;
    EXPECT_EQ(render(nvme.getSmartLogByController(0, &smart)),
              "NVMeDAPI::getSmartLog -> NVMeDDAPI::NVME execute IOCTL fail: \"NVME ioctl invalid log page - /dev/nvme0n1 op 8\"");
    std::vector<uint8_t> data(512 * 2000, 1);
    ASSERT_EQ(io(0x01, 0, 1999, data.data(), static_cast<uint32_t>(data.size())), 0);
    ctrl().addUnreadableBlock(5);
    EXPECT_EQ(io(0x02, 0, 9, data.data(), 5120) & 0x3FF, 0x281);
    ASSERT_EQ(render(nvme.getSmartLogByController(0, &smart)), "");
    EXPECT_EQ(counter(smart.data_units_written), 2u);  // 2000 blocks of 512 bytes, in thousands
    EXPECT_EQ(counter(smart.host_writes), 1u);
    EXPECT_EQ(counter(smart.media_errors), 1u);
    EXPECT_EQ(counter(smart.num_err_log_entries), 2u);
}

TEST_F(NvmeTest, BarShowsAnEnabledController) {
    NVMeDAPI nvme("NVMeDAPI");
    nvme_bar* bar = nullptr;
    ASSERT_EQ(render(nvme.getBarResourceByController(0, &bar)), "");
    ASSERT_NE(bar, nullptr);
    EXPECT_EQ(bar->vs, 0x00010200u);
    EXPECT_EQ(bar->csts & 1, 1u);
    EXPECT_EQ(bar->cap & 0xFFFF, 1023u);
    quarn::platform().munmap(bar, static_cast<size_t>(quarn::platform().pageSize()));
}

// A second controller whose namespace is not attached: it has a character node but no
// block node, and is still reached through its character node.
TEST_F(NvmeTest, ControllerWithoutNamespace) {
    auto f = std::make_shared<quarn::vboard::PciFunction>(0x144D, 0xA808, 0x010802, 0, 0, 4096);
    f->setBar(0, 0xFB100000, 0x4000, 0x4);
    board.pci->add("0000:06:00.0", f, "nvme");
    quarn::vboard::NvmeConfig cfg;
    cfg.model = "Samsung SSD 970 EVO Plus 1TB";
    cfg.serial = "S4EWNX0N123456";
    cfg.namespaceAttached = false;
    auto second = quarn::vboard::installNvmeController(
        board, 1, "0000:06:00.0", "pci0000:00/0000:00:01.0/0000:01:00.0/0000:02:04.0/0000:06:00.0", cfg);
    NVMeDAPI nvme("NVMeDAPI");
    EXPECT_EQ(render(nvme.getErrorMsg()), "");
    NVMe_DEVICE_INFO info;
    ASSERT_EQ(render(nvme.getInformationByController(1, &info)), "");
    EXPECT_EQ(info.name, "NVME1");
    EXPECT_EQ(info.deviceNode, "/dev/nvme1");
    EXPECT_EQ(info.blockNode, "");
    nvme_id_ns ns;
    memcpy(&ns, info.identifyNamespace, sizeof(ns));
    EXPECT_EQ(ns.nsze, 0u);
    nvme_id_ctrl idc;
    ASSERT_EQ(render(nvme.getIdentityCTRLByController(1, &idc)), "");
    EXPECT_EQ(field(idc.mn, 40), "Samsung SSD 970 EVO Plus 1TB");
    EXPECT_EQ(render(nvme.getIdentityCTRLByController(2, &idc)),
              "NVMeDAPI::getInformation: \"Bad parameter - Bad NVME logical ID\"");
}

}  // namespace
