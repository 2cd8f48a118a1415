// The PCI layers against the virtual board's PCI hierarchy, and against a real sysfs.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "api/ErrorText.h"
#include "api/platform/Files.h"
#include "api/platform/Platform.h"
#include "dapi/pci/PCIDAPI.h"
#include "ddapi/pci/PCIDDAPI.h"
#include "vboard/Board.h"
#include "tests/lib/Render.h"

namespace {

using quarn::test::render;
_PFA pfa(uint16_t d, uint16_t b, uint16_t dev, uint8_t f) { return _PFA{d, b, dev, f, 0}; }

class PciTest : public ::testing::Test {
protected:
    void SetUp() override { quarn::installPlatform(&board); }
    void TearDown() override {
        quarn::installPlatform(nullptr);
        EXPECT_EQ(board.portViolations(), 0u);
    }
    std::shared_ptr<quarn::vboard::PciFunction> fn(const char* a) { return board.pci->function(a); }

    quarn::vboard::Board board;
};

std::string bdf(const _PCIInformantion& r) {
    char t[24];
    snprintf(t, sizeof(t), "%04x:%02x:%02x.%x", r.domain, r.bus, r.device, r.function);
    return t;
}

TEST_F(PciTest, UnsortedKeepsDirectoryOrderSortedOrdersByAddress) {
    board.writeFile("/sys/bus/pci/devices/0001:00:00.0/vendor", "0x8086\n");
    PCIDDAPI pci("PCIDDAPI");
    std::vector<_PCIInformantion> unsorted, sorted;
    testing::internal::CaptureStdout();
    ASSERT_EQ(pci.getDeviceList(&unsorted, false), nullptr);
    ASSERT_EQ(pci.getDeviceList(&sorted, true), nullptr);
    testing::internal::GetCapturedStdout();
    std::vector<quarn::DirEntry> entries;
    ASSERT_EQ(board.listDirectory("/sys/bus/pci/devices", &entries), 0);
    ASSERT_EQ(unsorted.size(), entries.size());
    for (size_t i = 0; i < entries.size(); ++i) EXPECT_EQ(bdf(unsorted[i]), entries[i].name);
    std::vector<std::string> names;
    for (const auto& r : sorted) names.push_back(bdf(r));
    EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
    EXPECT_EQ(names.back(), "0001:00:00.0");
    auto at = [&](const char* n) { return std::find(names.begin(), names.end(), n) - names.begin(); };
    EXPECT_LT(at("0000:00:1f.0"), at("0000:01:00.0"));
    // A record of a function read from its config: class and port type.
    for (const auto& r : sorted) {
        if (bdf(r) == "0000:00:1f.2") { EXPECT_EQ(r.classCode, 0x0106u); }
        if (bdf(r) == "0000:01:00.0") {
            EXPECT_EQ(r.portType, 5);
            EXPECT_EQ(r.portNumber, 0);
        }
        if (bdf(r) == "0000:00:00.0") { EXPECT_EQ(r.portType, 0xFF); }
    }
}

TEST_F(PciTest, UnparsableEntryIsStillListed) {
    board.writeFile("/sys/bus/pci/devices/0000:zz/vendor", "");
    PCIDDAPI pci("PCIDDAPI");
    std::vector<_PCIInformantion> list;
    testing::internal::CaptureStdout();
    pci.getDeviceList(&list, false);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("sysfs_scan: Couldn't parse entry name 0000:zz\n"), std::string::npos);
    EXPECT_EQ(list.size(), 32u);  // 31 functions and the malformed entry
    // Only its domain parsed: the record carries 0000:00:00.0 and that function's IDs.
    EXPECT_EQ(std::count_if(list.begin(), list.end(), [](const _PCIInformantion& r) {
                  return bdf(r) == "0000:00:00.0" && r.vendorID == 0x8086 && r.deviceID == 0x6F00;
              }), 2);
}

TEST_F(PciTest, ClassLookupAndItsFailure) {
    PCIDDAPI pci("PCIDDAPI");
    std::vector<_PCIInformantion> out;
    ASSERT_EQ(pci.getPciInfoByClass(0x0107, &out), nullptr);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].name.rfind("Broadcom / LSI SAS3008", 0), 0u) << out[0].name;
    board.removeDevice("/sys/bus/pci/devices/0000:00:1f.2/config");
    board.pci->function("0000:00:1f.2")->poke(0x0A, 0x0000, 2);  // nor through the ports
    std::vector<_PCIInformantion> none;
    // The directory stays but its config is gone: the function reads as vendor 0, class 0.
    ErrorMsg* e = pci.getPciInfoByClass(0x0106, &none);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->getErrorCode(), 0xC9087C05u);
    EXPECT_TRUE(none.empty());
    deleteErrorMsg(e);

    uint32_t code = 0;
    EXPECT_EQ(pci.convertStringToClassCode("sata", &code), 0u);
    EXPECT_EQ(code, 0x0106u);
    EXPECT_EQ(pci.convertStringToClassCode("nothing", &code), 0xC9080001u);
    EXPECT_EQ(code, 0xFFFFu);
    PCIDAPI dapi("PCIDAPI");
    EXPECT_EQ(render(dapi.convertStringToClassCode("nothing", &code)).rfind("PCIDAPI::convertStringToClassCode", 0), 0u);
}

TEST_F(PciTest, PlainPciFunctionAndLinkDecoding) {
    PCIDDAPI pci("PCIDDAPI");
    const _PFA host = pfa(0, 0, 0, 0);
    EXPECT_EQ(pci.getPortTypeString(host), "PCI");
    EXPECT_EQ(pci.GetFloatDataByID(host, PCI_CURRENT_LINK_SPEED), 255.0f);
    EXPECT_EQ(pci.GetFloatDataByID(host, PCI_MAX_LINK_SPEED), 255.0f);
    EXPECT_EQ(pci.GetDataByBDF(host, PCI_PORT_TYPE), 0xFFFFFFFFu);

    const _PFA up = pfa(0, 1, 0, 0);
    EXPECT_EQ(pci.getPortTypeString(up), "PCIe switch Upstream port");
    EXPECT_EQ(pci.GetFloatDataByID(up, PCI_CURRENT_LINK_SPEED), 8.0f);
    EXPECT_EQ(pci.GetDataByBDF(up, PCI_CURRENT_LINK_WIDTH), 8u);
    board.pci->function("0000:01:00.0")->setLink(4, 8);  // 16 GT/s is not decoded
    EXPECT_EQ(pci.GetFloatDataByID(up, PCI_CURRENT_LINK_SPEED), 0.0f);
    EXPECT_EQ(pci.GetFloatDataByID(up, PCI_MAX_LINK_SPEED), 8.0f);

    // The Intel NTB reports its link from its own registers.
    const _PFA ntb = pfa(0, 0, 3, 0);
    EXPECT_EQ(pci.getLinkStatus(ntb), "Up");
    EXPECT_EQ(pci.GetDataByBDF(ntb, PCI_CURRENT_LINK_WIDTH), 8u);
    board.pci->function("0000:00:03.0")->poke(0x1A2, 0x0003, 2);
    EXPECT_EQ(pci.getLinkStatus(ntb), "Down");
    EXPECT_EQ(pci.getLinkStatus(pfa(0, 2, 4, 0)), "Down");
}

TEST_F(PciTest, BdfTextParsing) {
    PCIDDAPI pci("PCIDDAPI");
    _PFA a{}, b{};
    EXPECT_EQ(pci.convertStringToBDF("00:1f.2", &a), 0u);
    EXPECT_EQ(pci.convertStringToBDF("0000:00:1f.2", &b), 0u);
    EXPECT_EQ(memcmp(&a, &b, sizeof(a)), 0);
    EXPECT_EQ(a.bus, 0);
    EXPECT_EQ(a.device, 0x1F);
    EXPECT_EQ(a.function, 2);
    EXPECT_EQ(pci.convertStringToBDF("0001:0a:00.1", &a), 0u);
    EXPECT_EQ(a.domain, 1);
    EXPECT_EQ(a.bus, 0x0A);
    EXPECT_NE(pci.convertStringToBDF("00:1f", &a), 0u);
    EXPECT_NE(pci.convertStringToBDF("", &a), 0u);
    EXPECT_NE(pci.convertStringToBDF("0000:00:1g.2", &a), 0u);
}

TEST_F(PciTest, BarProbeRestoresTheBar) {
    PCIDDAPI pci("PCIDDAPI");
    uint32_t base = 1, size = 1;
    ASSERT_EQ(pci.getBarByBDF(pfa(0, 4, 0, 0), 0, &base, &size), nullptr);
    EXPECT_EQ(base, 0xFB300000u);
    EXPECT_EQ(size, 0x4000u);
    EXPECT_EQ(board.pci->function("0000:04:00.0")->read(0x10, 4), 0xFB300004u);
    ErrorMsg* e = pci.getBarByBDF(pfa(0, 4, 0, 0), 6, &base, &size);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->getErrorCode(), 0xC9087A01u);
    deleteErrorMsg(e);
    e = pci.getBarByBDF(pfa(0, 0x30, 0, 0), 0, &base, &size);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->getErrorCode(), 0xC9087A2Eu);
    EXPECT_EQ(base, 0u);
    deleteErrorMsg(e);
}

TEST_F(PciTest, HiddenFunctionFoundByThePortScan) {
    PCIDAPI pci("PCIDAPI");
    std::vector<_PCIInformantion> hidden;
    testing::internal::CaptureStdout();
    ASSERT_EQ(render(pci.scanHiddenDevices(0, &hidden)), "");
    testing::internal::GetCapturedStdout();
    ASSERT_EQ(hidden.size(), 1u);
    EXPECT_EQ(bdf(hidden[0]), "0000:00:1f.6");
    EXPECT_EQ(hidden[0].deviceID, 0x8C24);
    EXPECT_EQ(hidden[0].classCode, 0x118000u);
    ErrorMsg* e = pci.scanHiddenDevices(1, &hidden);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->getErrorCode(), 0xC9048635u);
    deleteErrorMsg(e);
    board.setPortAccessAllowed(false);
    EXPECT_EQ(render(pci.scanHiddenDevices(0, &hidden)),
              "PCIDAPI::scanDevicesFromIO -> PCIDDAPI::get Bar fail: \"iopl fail\"");
}

TEST_F(PciTest, ErrorFamiliesOfAnEndpointAndABridge) {
    PCIDDAPI pci("PCIDDAPI");
    std::list<_PCI_ERROR> e;
    EXPECT_EQ(pci.getErrorStatistics(pfa(0, 0, 0x1f, 2), PCI_COMPATIBLE_ERROR, &e), 0u);
    EXPECT_EQ(e.size(), 6u);
    e.clear();
    EXPECT_EQ(pci.getErrorStatistics(pfa(0, 0, 0x1f, 2), PCIE_AER_ERROR, &e), 0xC9080003u);
    EXPECT_TRUE(e.empty());
    EXPECT_EQ(pci.getErrorStatistics(pfa(0, 2, 1, 0), PCI_COMPATIBLE_ERROR, &e), 0u);
    EXPECT_EQ(e.size(), 12u);
    board.pci->function("0000:00:1f.2")->raise(0x06, 0x8000, 2);
    e.clear();
    pci.getErrorStatistics(pfa(0, 0, 0x1f, 2), PCI_COMPATIBLE_ERROR, &e);
    for (const auto& x : e) EXPECT_EQ(x.value, x.name == "DetectedParityError" ? 1u : 0u) << x.name;
}

TEST_F(PciTest, AerOnASwitchPortIsReportedAndClearedWriteOneToClear) {
    auto port = board.pci->function("0000:02:02.0");
    const uint32_t aer = port->aerCapability();
    port->raise(aer + 4, 0x00001000 | 0x00100000, 4);  // poisoned TLP, unsupported request
    port->raise(port->pcieCapability() + 0x0A, 0x0008, 2);
    PCIDAPI pci("PCIDAPI");
    testing::internal::CaptureStdout();
    ASSERT_EQ(render(pci.showSwitchErrorStatistics("SW0", static_cast<_PCI_ERROR_TYPE>(9))), "");
    const std::string table = testing::internal::GetCapturedStdout();
    EXPECT_NE(table.find("\nUncorrectableErrorStatus:"), std::string::npos) << table;
    EXPECT_NE(table.find(" 0x00101000"), std::string::npos) << table;
    EXPECT_NE(table.find("NTBV0"), std::string::npos);
    EXPECT_NE(table.find("DMA0"), std::string::npos);

    // A write of one bit clears that bit only.
    PCIDDAPI dev("PCIDDAPI");
    dev.ConfigWriteDword(pfa(0, 2, 2, 0), aer + 4, 0x00001000);
    EXPECT_EQ(port->read(aer + 4, 4), 0x00100000u);
    const uint32_t command = port->read(0x04, 2);
    ASSERT_EQ(render(pci.clearPCIeSwitchPortErrors("SW0")), "");
    EXPECT_EQ(port->read(aer + 4, 4), 0u);
    EXPECT_EQ(port->read(port->pcieCapability() + 0x0A, 2) & 0xF, 0u);
    EXPECT_EQ(port->read(0x04, 2), command);
    EXPECT_EQ(port->read(0x06, 2), 0x0010u);  // capability-list bit untouched
    std::list<_PCI_ERROR> after;
    ASSERT_EQ(render(pci.getErrorStatistics(pfa(0, 2, 2, 0), PCIE_AER_ERROR, &after)), "");
    for (const auto& x : after) EXPECT_EQ(x.value, 0u);

    ErrorMsg* e = pci.showSwitchErrorStatistics("SW7", PCIE_AER_ERROR);
    EXPECT_EQ(render(e), "PCIDAPI::showSwitchErrorStatistics -> PCIDAPI::getSwitchPortsInformation: \"Invalid switch name\"");
}

TEST_F(PciTest, SwitchListAndDownstreamPorts) {
    PCIDDAPI pci("PCIDDAPI");
    std::vector<_SWITCH_UNIT> units;
    uint32_t count = 0;
    ASSERT_EQ(pci.getPCIeSwitchList(&units, &count), nullptr);
    ASSERT_EQ(count, 1u);
    EXPECT_EQ(units[0].switchID, "SW0");
    EXPECT_EQ(units[0].name, "PEX8749");
    pci.getDownstreamPorts(&units[0]);
    std::vector<std::string> ports;
    for (const _PFA& p : units[0].downstreamPorts) {
        _PCIInformantion r{};
        r.domain = p.domain, r.bus = p.bus, r.device = p.device, r.function = p.function;
        ports.push_back(bdf(r));
    }
    std::sort(ports.begin(), ports.end());
    EXPECT_EQ(ports, (std::vector<std::string>{"0000:01:00.1", "0000:02:01.0", "0000:02:02.0", "0000:02:03.0",
                                               "0000:02:04.0", "0000:02:05.0", "0000:07:00.0"}));
}

TEST_F(PciTest, SlotReportNamesTheAdapters) {
    PCIDAPI pci("PCIDAPI");
    testing::internal::CaptureStdout();
    ASSERT_EQ(render(pci.displayHBAs()), "");
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("1         8.0(GT/s)      x8        LSI SAS3008    SAS 12Gb/s HBA (SLOT1)"), std::string::npos) << out;
    EXPECT_NE(out.find("NVMe SSD       Intel DC P3700 (SLOT2)"), std::string::npos) << out;
    EXPECT_NE(out.find("3         -              -         -              -              (SLOT3)"), std::string::npos) << out;
    EXPECT_NE(out.find("UNKNOWN        8086:1583      (SLOT4)"), std::string::npos) << out;
}

TEST_F(PciTest, LoopingCapabilityChainsTerminate) {
    auto f = board.pci->function("0000:03:00.0");
    f->poke(0x41, 0x40, 1);  // first capability points back at itself
    f->poke(0x100, 0x00010001 | 0x100u << 20, 4);  // AER header whose next is itself
    _PCIInformantion info;
    PCIDDAPI::initialPciInfoStructure(&info);
    info.domain = 0;
    info.bus = 3;
    info.device = 0;
    info.function = 0;
    PCIDevice dev(info);
    EXPECT_EQ(dev.capabilities().size(), 2u);
    EXPECT_FALSE(dev.IsPCIe());
}

// On a Linux host with PCI, the list matches what sysfs itself says of each function.
TEST(PciHostTest, ListMatchesSysfsOnTheHost) {
    quarn::installPlatform(nullptr);
    std::vector<std::string> names;
    if (quarn::listNames("/sys/bus/pci/devices", &names) != 0 || names.empty())
        GTEST_SKIP() << "no /sys/bus/pci on this host";
    PCIDDAPI pci("PCIDDAPI");
    std::vector<_PCIInformantion> list;
    ASSERT_EQ(pci.getDeviceList(&list, true), nullptr);
    ASSERT_EQ(list.size(), names.size());
    for (size_t i = 0; i < list.size(); ++i) {
        EXPECT_EQ(bdf(list[i]), names[i]);
        std::string vendor, device, cls;
        const std::string dir = "/sys/bus/pci/devices/" + names[i];
        ASSERT_EQ(quarn::readTextFile(dir + "/vendor", &vendor), 0);
        ASSERT_EQ(quarn::readTextFile(dir + "/device", &device), 0);
        ASSERT_EQ(quarn::readTextFile(dir + "/class", &cls), 0);
        EXPECT_EQ(list[i].vendorID, std::stoul(vendor, nullptr, 16)) << names[i];
        EXPECT_EQ(list[i].deviceID, std::stoul(device, nullptr, 16)) << names[i];
        EXPECT_EQ(list[i].classCode, std::stoul(cls, nullptr, 16) >> 8) << names[i];
    }
}

}  // namespace
