// The PCI operations against the virtual board: configuration access, BARs, capability
// and link data, error registers, names, the bridge tree, the slot profile and switches.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "api/ErrorText.h"
#include "api/platform/Platform.h"
#include "dapi/pci/PCIDAPI.h"
#include "ddapi/pci/PCIDDAPI.h"
#include "vboard/Board.h"
#include "tests/lib/Render.h"

namespace {

using quarn::vboard::PciFunction;

using quarn::test::render;
_PFA pfa(uint16_t d, uint16_t b, uint16_t dev, uint8_t f) { return _PFA{d, b, dev, f, 0}; }

std::string bdf(uint32_t d, uint32_t b, uint32_t dev, uint32_t f) {
    char t[24];
    snprintf(t, sizeof(t), "%04x:%02x:%02x.%x", d, b, dev, f);
    return t;
}
std::string bdf(const _PFA& p) { return bdf(p.domain, p.bus, p.device, p.function); }
std::string bdf(const _PCIInformantion& r) { return bdf(r.domain, r.bus, r.device, r.function); }

std::string configPath(const char* address) {
    return std::string("/sys/bus/pci/devices/") + address + "/config";
}

// Values of a list by name.
std::map<std::string, uint32_t> byName(const std::list<_PCI_ERROR>& errors) {
    std::map<std::string, uint32_t> m;
    for (const _PCI_ERROR& e : errors) m[e.name] = e.value;
    return m;
}
std::vector<std::string> names(const std::list<_PCI_ERROR>& errors) {
    std::vector<std::string> v;
    for (const _PCI_ERROR& e : errors) v.push_back(e.name);
    return v;
}

class PciOperationsTest : public ::testing::Test {
protected:
    void SetUp() override { quarn::installPlatform(&board); }
    void TearDown() override {
        quarn::installPlatform(nullptr);
        EXPECT_EQ(board.portViolations(), 0u);
    }
    std::shared_ptr<PciFunction> fn(const char* a) { return board.pci->function(a); }
    // A PCI Express function added to the board's sysfs.
    std::shared_ptr<PciFunction> addPcie(const std::string& address, uint16_t vendor, uint16_t device,
                                         uint32_t cls, uint8_t header, int portType) {
        auto f = std::make_shared<PciFunction>(vendor, device, cls, 1, header, 4096);
        f->addPcieCapability(portType, 0, 3, 8, 3, 8);
        return board.pci->add(address, f);
    }

    quarn::vboard::Board board;
};

// ---------------------------------------------------------------- configuration access

TEST_F(PciOperationsTest, ConfigReadsOfEachWidthAreLittleEndianAndVanishedDevicesReadZero) {
    PCIDDAPI pci("PCIDDAPI");
    const _PFA sata = pfa(0, 0, 0x1f, 2);
    EXPECT_EQ(pci.ConfigReadWord(sata, 0), 0x8086);
    EXPECT_EQ(pci.ConfigReadWord(sata, 2), 0x8C02);
    EXPECT_EQ(pci.ConfigReadDword(sata, 0), 0x8C028086u);
    EXPECT_EQ(pci.ConfigReadDword(sata, 8), 0x01060105u);  // class 01:06:01, revision 5
    // Beyond a 256-byte space the read comes back short and counts as failed.
    EXPECT_EQ(pci.ConfigReadDword(sata, 0xFE), 0u);
    EXPECT_EQ(pci.ConfigReadDword(sata, 0x100), 0u);

    board.device(configPath("0000:00:1f.2"))->faults().readErrno = EIO;
    EXPECT_EQ(pci.ConfigReadWord(sata, 0), 0u);
    EXPECT_EQ(pci.ConfigReadDword(sata, 0), 0u);
    board.device(configPath("0000:00:1f.2"))->faults().readErrno = 0;
    board.device(configPath("0000:00:1f.2"))->faults().openErrno = ENOENT;
    EXPECT_EQ(pci.ConfigReadWord(sata, 0), 0u);
    EXPECT_EQ(pci.checkPresenceOfDevice(sata), 0xC000022Eu);
    EXPECT_EQ(pci.checkPresenceOfDevice(pfa(0, 0, 0x1f, 0)), 0u);
    EXPECT_EQ(pci.checkPresenceOfDevice(pfa(0, 0x40, 0, 0)), 0xC000022Eu);
}

TEST_F(PciOperationsTest, ConfigWritesPutEachWidthAtItsOffsetAndReportFailures) {
    PCIDAPI dapi("PCIDAPI");
    auto nvme = fn("0000:04:00.0");
    const _PFA at = pfa(0, 4, 0, 0);
    const uint32_t control = nvme->pcieCapability() + 8;  // Device Control: 15 writable bits
    const uint32_t mask = nvme->aerCapability() + 8;       // AER uncorrectable mask
    ASSERT_EQ(render(dapi.ConfigWriteWord(at, control, 0x1234)), "");
    EXPECT_EQ(nvme->read(control, 2), 0x1234u);
    ASSERT_EQ(render(dapi.ConfigWriteByte(at, control, 0xAB)), "");
    EXPECT_EQ(nvme->read(control, 2), 0x12ABu);  // the high byte untouched
    ASSERT_EQ(render(dapi.ConfigWriteDword(at, mask, 0x00101010)), "");
    EXPECT_EQ(nvme->read(mask, 4), 0x00101010u);
    // Read-only identification is not changed by a write.
    ASSERT_EQ(render(dapi.ConfigWriteWord(at, 0, 0xFFFF)), "");
    EXPECT_EQ(nvme->read(0, 2), 0x8086u);

    PCIDDAPI pci("PCIDDAPI");
    testing::internal::CaptureStdout();
    EXPECT_EQ(pci.ConfigWriteWord(at, control, 0x0001), 2);
    EXPECT_EQ(pci.ConfigWriteDword(at, mask, 0), 4);
    EXPECT_EQ(pci.ConfigWriteByte(pfa(0, 0x40, 0, 0), 0x3C, 1), -1);
    board.device(configPath("0000:04:00.0"))->faults().writeErrno = EIO;
    EXPECT_EQ(pci.ConfigWriteDword(at, mask, 0x10), -1);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "cannot open /sys/bus/pci/devices/0000:40:00.0/config\nwrite failed");
    EXPECT_EQ(nvme->read(mask, 4), 0u);
    EXPECT_EQ(nvme->read(control, 2), 0x0001u);
}

TEST_F(PciOperationsTest, RangeReadAndWriteCheckTheirArguments) {
    PCIDAPI pci("PCIDAPI");
    uint8_t buffer[4096] = {};
    const _PFA sata = pfa(0, 0, 0x1f, 2);
    const std::string outOfSpace =
        "PCIDAPI::Fail to read config data: \"Bad parameter 1 - offset out of configuration space\"";
    EXPECT_EQ(render(pci.readConfig(sata, 0, 4096, buffer)), outOfSpace);
    EXPECT_EQ(render(pci.readConfig(sata, 8, 7, buffer)), outOfSpace);
    EXPECT_EQ(render(pci.readConfig(sata, 0, 3, nullptr)), outOfSpace);
    EXPECT_EQ(render(pci.writeConfig(sata, 4096, buffer, 1)), outOfSpace);
    EXPECT_EQ(render(pci.writeConfig(sata, 4000, buffer, 97)), outOfSpace);
    EXPECT_EQ(render(pci.writeConfig(sata, 16, buffer, 0xFFFFFFFFu)), outOfSpace);  // no wrap-around
    EXPECT_EQ(render(pci.writeConfig(sata, 0, nullptr, 1)), outOfSpace);
    const std::string absent = "PCIDAPI::Fail to read config data: \"No device is found\"";
    EXPECT_EQ(render(pci.readConfig(pfa(0, 0x40, 0, 0), 0, 3, buffer)), absent);
    EXPECT_EQ(render(pci.writeConfig(pfa(0, 0x40, 0, 0), 0x3C, buffer, 1)), absent);

    // The last byte of the space is accepted, and a range crossing the end of a
    // 256-byte function reads zeros there.
    testing::internal::CaptureStdout();
    ASSERT_EQ(render(pci.writeConfig(sata, 4095, buffer, 1)), "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "write failed");  // past a 256-byte space
    memset(buffer, 0xEE, sizeof(buffer));
    ASSERT_EQ(render(pci.readConfig(sata, 0xFC, 0x103, buffer)), "");
    EXPECT_EQ(std::vector<uint8_t>(buffer, buffer + 8), (std::vector<uint8_t>{0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(buffer[8], 0xEE);  // nothing written past last - first
    ASSERT_EQ(render(pci.readConfig(sata, 0, 11, buffer)), "");
    EXPECT_EQ(std::vector<uint8_t>(buffer, buffer + 12),
              (std::vector<uint8_t>{0x86, 0x80, 0x02, 0x8C, 0x00, 0x00, 0x10, 0x00, 0x05, 0x01, 0x06, 0x01}));

    // A byte-wise write lands byte by byte through the register masks.
    auto sataFn = fn("0000:00:1f.2");
    sataFn->raise(0x06, 0x8000, 2);
    uint8_t data[4] = {0x5A, 0xFF, 0x00, 0x80};  // interrupt line, pin (RO), status low, status high (RW1C)
    ASSERT_EQ(render(pci.writeConfig(sata, 0x3C, data, 2)), "");
    EXPECT_EQ(sataFn->read(0x3C, 1), 0x5Au);
    EXPECT_EQ(sataFn->read(0x3D, 1), 0u);
    ASSERT_EQ(render(pci.writeConfig(sata, 0x06, data + 2, 2)), "");
    EXPECT_EQ(sataFn->read(0x06, 2), 0x0010u);
}

// A PLX port's range access goes through the upstream port's BAR0 window at the slice of
// the port's number, so it still works when the port's sysfs file refuses writes.
TEST_F(PciOperationsTest, PlxPortRangeAccessGoesThroughTheSwitchWindow) {
    PCIDAPI pci("PCIDAPI");
    auto port = fn("0000:02:03.0");
    const _PFA at = pfa(0, 2, 3, 0);
    uint8_t window[0x120] = {};
    ASSERT_EQ(render(pci.readConfig(at, 0, sizeof(window) - 1, window)), "");
    for (uint32_t i = 0; i < sizeof(window); ++i) ASSERT_EQ(window[i], port->read(i, 1)) << "offset " << i;
    EXPECT_EQ(window[0x100] | window[0x101] << 8, 0x0001);  // AER header in extended space

    board.device(configPath("0000:02:03.0"))->faults().writeErrno = EIO;
    uint8_t line = 0x77;
    testing::internal::CaptureStdout();
    ASSERT_EQ(render(pci.writeConfig(at, 0x3C, &line, 1)), "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");  // no sysfs write was tried
    EXPECT_EQ(port->read(0x3C, 1), 0x77u);
    // Other ports' slices are untouched.
    EXPECT_EQ(fn("0000:02:02.0")->read(0x3C, 1), 0u);
    EXPECT_EQ(fn("0000:02:04.0")->read(0x3C, 1), 0u);

    // A non-PLX function with the same fault is written through sysfs, which fails.
    board.device(configPath("0000:04:00.0"))->faults().writeErrno = EIO;
    testing::internal::CaptureStdout();
    ASSERT_EQ(render(pci.writeConfig(pfa(0, 4, 0, 0), 0x3C, &line, 1)), "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "write failed");
    EXPECT_EQ(fn("0000:04:00.0")->read(0x3C, 1), 0u);
}

// With no upstream port in the device list there is no switch window to go through: a
// PLX port's range access then uses its own configuration file, and never lands in
// physical memory at the bottom of the address space (the port's slice from address 0).
TEST_F(PciOperationsTest, PlxPortRangeAccessWithoutUpstreamPortUsesTheConfigFile) {
    board.removeDevice(configPath("0000:01:00.0"));
    std::error_code ec;
    std::filesystem::remove_all(board.hostPath("/sys/bus/pci/devices/0000:01:00.0"), ec);
    PCIDAPI pci("PCIDAPI");
    auto port = fn("0000:02:03.0");
    const _PFA at = pfa(0, 2, 3, 0);
    uint8_t* low = board.memory->memory()->view(0x3000);
    ASSERT_NE(low, nullptr);
    for (int i = 0; i < 0x40; ++i) low[i] = static_cast<uint8_t>(0xA0 + i);

    uint8_t header[0x40] = {};
    ASSERT_EQ(render(pci.readConfig(at, 0, sizeof(header) - 1, header)), "");
    for (uint32_t i = 0; i < sizeof(header); ++i) ASSERT_EQ(header[i], port->read(i, 1)) << "offset " << i;

    uint8_t line = 0x5A;
    ASSERT_EQ(render(pci.writeConfig(at, 0x3C, &line, 1)), "");
    EXPECT_EQ(port->read(0x3C, 1), 0x5Au);
    EXPECT_EQ(low[0x3C], 0xA0 + 0x3C);
}

// ---------------------------------------------------------------- BARs

TEST_F(PciOperationsTest, BarProbeOnMemoryAndIoBarsRestoresEveryBar) {
    PCIDDAPI pci("PCIDDAPI");
    struct Case {
        _PFA at;
        uint32_t index, base, size;
    };
    const Case cases[] = {
        {pfa(0, 0, 0x1f, 2), 4, 0xF060, 0x20},        // I/O BAR
        {pfa(0, 0, 0x1f, 2), 5, 0xFBF02000, 0x800},   // 32-bit memory
        {pfa(0, 3, 0, 0), 0, 0xE000, 0x100},          // I/O BAR of the SAS controller
        {pfa(0, 3, 0, 0), 1, 0xFB400000, 0x10000},
        {pfa(0, 9, 0, 0), 0, 0xFA000000, 0x800000},   // low half of a 64-bit prefetchable BAR
        {pfa(0, 1, 0, 0), 0, 0xFB000000, 0x40000},    // bridge BAR0: the switch registers
    };
    for (const Case& c : cases) {
        const std::string where = bdf(c.at) + " BAR" + std::to_string(c.index);
        std::vector<uint32_t> before;
        for (uint32_t off = 0x10; off < 0x28; off += 4) before.push_back(pci.ConfigReadDword(c.at, off));
        uint32_t base = 0, size = 0;
        ASSERT_EQ(render(pci.getBarByBDF(c.at, c.index, &base, &size)), "") << where;
        EXPECT_EQ(base, c.base) << where;
        EXPECT_EQ(size, c.size) << where;
        std::vector<uint32_t> after;
        for (uint32_t off = 0x10; off < 0x28; off += 4) after.push_back(pci.ConfigReadDword(c.at, off));
        EXPECT_EQ(after, before) << where;
        uint32_t only = 0;
        ASSERT_EQ(render(pci.getBarByBDF(c.at.domain, c.at.bus, c.at.device, c.at.function, c.index, &only)), "");
        EXPECT_EQ(only, c.base) << where;
    }
    // An unimplemented BAR probes to size 0 at base 0.
    uint32_t base = 1, size = 1;
    ASSERT_EQ(render(pci.getBarByBDF(pfa(0, 0, 0x1f, 2), 0, &base, &size)), "");
    EXPECT_EQ(base, 0u);
    EXPECT_EQ(size, 0u);
}

TEST_F(PciOperationsTest, BarIndexIsBoundedByTheHeaderType) {
    PCIDDAPI pci("PCIDDAPI");
    uint32_t base = 7, size = 7;
    // A bridge has two BARs, an endpoint six.
    EXPECT_EQ(render(pci.getBarByBDF(pfa(0, 2, 1, 0), 1, &base, &size)), "");
    EXPECT_EQ(render(pci.getBarByBDF(pfa(0, 2, 1, 0), 2, &base, &size)),
              "PCIDDAPI::get Bar fail: \"Illegal request\"");
    EXPECT_EQ(base, 0u);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(render(pci.getBarByBDF(pfa(0, 3, 0, 0), 5, &base, &size)), "");
    EXPECT_EQ(render(pci.getBarByBDF(pfa(0, 3, 0, 0), 6, &base, &size)),
              "PCIDDAPI::get Bar fail: \"Illegal request\"");
    EXPECT_EQ(render(pci.getBarByBDF(pfa(0, 3, 0, 0), 0xFFFFFFFFu, &base, &size)),
              "PCIDDAPI::get Bar fail: \"Illegal request\"");
    board.device(configPath("0000:03:00.0"))->faults().openErrno = ENOENT;
    EXPECT_EQ(render(pci.getBarByBDF(0, 3, 0, 0, 1, &base)), "PCIDDAPI::get Bar fail: \"No device is found\"");
    EXPECT_EQ(base, 0u);
}

// ---------------------------------------------------------------- capabilities and link

TEST_F(PciOperationsTest, CapabilityListsFollowTheChainsAndAnswerPresentAndAbsentIds) {
    _PCIInformantion info;
    PCIDDAPI::initialPciInfoStructure(&info);
    info.domain = 0, info.bus = 4, info.device = 0, info.function = 0;
    PCIDevice nvme(info);
    std::vector<std::pair<uint32_t, uint32_t>> chain;
    for (const CapInfo& c : nvme.capabilities()) chain.push_back({c.ID, c.offset});
    // Power management, MSI, PCI Express, MSI-X, then AER at 0x100.
    const std::vector<std::pair<uint32_t, uint32_t>> expected = {
        {0x01, 0x40}, {0x05, 0x48}, {0x10, 0x60}, {0x11, 0x9C}, {0x01, 0x100}};
    EXPECT_EQ(chain, expected);
    EXPECT_EQ(nvme.capabilities().back().next, 0u);
    uint32_t at = 0;
    EXPECT_EQ(nvme.GetCapabilityOffset(0x10, &at), 0);
    EXPECT_EQ(at, 0x60u);
    // ID 1 is both power management (standard) and AER (extended): each walk finds its own.
    EXPECT_EQ(nvme.GetCapabilityOffset(0x01, &at), 0);
    EXPECT_EQ(at, 0x40u);
    EXPECT_EQ(nvme.getExtendedCapabilityOffset(0x01, &at), 0);
    EXPECT_EQ(at, 0x100u);
    EXPECT_EQ(nvme.GetCapabilityOffset(0x0D, &at), 1);
    EXPECT_EQ(at, 0xFFFFFFFFu);
    EXPECT_EQ(nvme.getExtendedCapabilityOffset(0x10, &at), 1);
    EXPECT_EQ(at, 0xFFFFFFFFu);
    EXPECT_TRUE(nvme.IsPCIe());
    EXPECT_EQ(nvme.GetCapPtrValue(), 0x40);

    // The Intel NTB's extended chain: a vendor-specific header at 0x100 leading to AER.
    info.bus = 0, info.device = 3;
    PCIDevice ntb(info);
    EXPECT_EQ(ntb.getExtendedCapabilityOffset(0x01, &at), 0);
    EXPECT_EQ(at, 0x148u);

    // A plain PCI function without extended space carries the single node at 256.
    info.bus = 0, info.device = 0x1f, info.function = 3;
    PCIDevice smbus(info);
    ASSERT_EQ(smbus.capabilities().size(), 1u);
    EXPECT_EQ(smbus.capabilities().front().ID, 0u);
    EXPECT_EQ(smbus.capabilities().front().offset, 256u);
    EXPECT_FALSE(smbus.IsPCIe());
    EXPECT_EQ(smbus.getPortTypeRawData(), 0xFFFFFFFFu);
    EXPECT_EQ(smbus.GetPCIeType(), 0xFFFF);
    EXPECT_EQ(smbus.getPortNumber(), 0xFFFFFFFFu);
    EXPECT_FALSE(smbus.LinkStatus());
    EXPECT_FALSE(smbus.checkRetrainCap());
}

TEST_F(PciOperationsTest, FaultyChainsEndAtTheGuard) {
    auto sas = fn("0000:03:00.0");
    // A pointer into the header, a pointer cycle between two capabilities, and an
    // extended chain that runs through every dword of the extended space.
    sas->poke(0x49, 0x20, 1);  // MSI's next points into the header
    _PCIInformantion info;
    PCIDDAPI::initialPciInfoStructure(&info);
    info.domain = 0, info.bus = 3, info.device = 0, info.function = 0;
    {
        PCIDevice d(info);
        size_t standard = 0;
        for (const CapInfo& c : d.capabilities()) standard += c.offset < 256;
        EXPECT_EQ(standard, 2u);
        EXPECT_FALSE(d.IsPCIe());
    }
    sas->poke(0x49, 0x40, 1);  // MSI back to power management
    {
        PCIDevice d(info);
        size_t standard = 0;
        for (const CapInfo& c : d.capabilities()) standard += c.offset < 256;
        EXPECT_EQ(standard, 2u);
    }
    for (uint32_t off = 0x100; off < 0x1000; off += 4) sas->poke(off, 0x0003 | ((off + 4) & 0xFFF) << 20, 4);
    sas->poke(0xFFC, 0x0003 | 0x100u << 20, 4);  // and back to the start
    {
        PCIDevice d(info);
        size_t extended = 0;
        for (const CapInfo& c : d.capabilities()) extended += c.offset >= 256;
        EXPECT_EQ(extended, 960u);  // every dword of 0x100-0xFFF once
    }
    // A next pointer below 0x100 ends the extended walk.
    sas->poke(0x100, 0x0001 | 0x0F0u << 20, 4);
    {
        PCIDevice d(info);
        size_t extended = 0;
        for (const CapInfo& c : d.capabilities()) extended += c.offset >= 256;
        EXPECT_EQ(extended, 1u);
    }
}

TEST_F(PciOperationsTest, LinkDataOfSeveralFunctions) {
    PCIDAPI pci("PCIDAPI");
    struct Case {
        _PFA at;
        uint32_t width, maxWidth;
        float speed, maxSpeed;
        const char* type;
        uint32_t portNumber;
        const char* status;
    };
    const Case cases[] = {
        {pfa(0, 0, 1, 0), 8, 8, 8.0f, 8.0f, "PCIe Root Complex Root Port", 1, "Up"},
        {pfa(0, 0, 1, 1), 1, 4, 8.0f, 8.0f, "PCIe Root Complex Root Port", 2, "Up"},
        {pfa(0, 2, 4, 0), 0, 8, 2.5f, 8.0f, "PCIe switch Downstream port", 4, "Down"},
        {pfa(0, 5, 0, 0), 1, 1, 5.0f, 5.0f, "PCIe Endpoint", 0, "Up"},
        {pfa(0, 8, 0, 0), 1, 1, 2.5f, 2.5f, "PCIe Endpoint", 0, "Up"},
        {pfa(0, 7, 0, 0), 4, 4, 8.0f, 8.0f, "PCIe Endpoint", 62, "Up"},
    };
    for (const Case& c : cases) {
        const std::string where = bdf(c.at);
        EXPECT_EQ(pci.GetDataByBDF(c.at, PCI_CURRENT_LINK_WIDTH), c.width) << where;
        EXPECT_EQ(pci.GetDataByBDF(c.at, PCI_MAX_LINK_WIDTH), c.maxWidth) << where;
        EXPECT_EQ(pci.GetReadableSpeed(c.at, PCI_CURRENT_LINK_SPEED), c.speed) << where;
        EXPECT_EQ(pci.GetReadableSpeed(c.at, PCI_MAX_LINK_SPEED), c.maxSpeed) << where;
        EXPECT_EQ(pci.getReadableStringByBDF(c.at, PCI_PORT_TYPE), c.type) << where;
        EXPECT_EQ(pci.GetDataByBDF(c.at, PCI_PORT_NUMBER), c.portNumber) << where;
        EXPECT_EQ(pci.getReadableStringByBDF(c.at, PCI_LINK_STATUS), c.status) << where;
        EXPECT_TRUE(pci.isPCIe(c.at)) << where;
        // Selectors without a float answer.
        EXPECT_EQ(pci.GetReadableSpeed(c.at, PCI_CURRENT_LINK_WIDTH), 255.0f) << where;
    }
    // Plain PCI: no link data at all.
    const _PFA smbus = pfa(0, 0, 0x1f, 3);
    EXPECT_FALSE(pci.isPCIe(smbus));
    EXPECT_EQ(pci.GetDataByBDF(smbus, PCI_CURRENT_LINK_WIDTH), 0u);
    EXPECT_EQ(pci.GetDataByBDF(smbus, PCI_PORT_NUMBER), 0xFFFFFFFFu);
    EXPECT_EQ(pci.getReadableStringByBDF(smbus, PCI_LINK_STATUS), "Down");
    EXPECT_EQ(pci.getReadableStringByBDF(smbus, PCI_PORT_TYPE), "PCI");
    EXPECT_EQ(pci.getReadableStringByBDF(smbus, PCI_BUS), "null");

    // Port types the board has none of, and the undefined ones.
    auto sas = fn("0000:03:00.0");
    const uint32_t cap = sas->pcieCapability();
    const std::pair<int, const char*> types[] = {
        {1, "Legancy PCIe Endpoint"}, {7, "PCIe to PCI/PCI-X Bridge"}, {8, "PCI/PCI-X to PCIe Bridge"},
        {9, "Root Complex Integrated Endpoint"}, {10, "Root Complex Event Collector"},
        {2, "Port Type undefined"}, {15, "Port Type undefined"}};
    for (const auto& t : types) {
        sas->poke(cap + 2, 0x0002 | t.first << 4, 2);
        EXPECT_EQ(pci.getReadableStringByBDF(pfa(0, 3, 0, 0), PCI_PORT_TYPE), t.second) << t.first;
        EXPECT_EQ(pci.GetDataByBDF(pfa(0, 3, 0, 0), PCI_PORT_TYPE), static_cast<uint32_t>(t.first));
    }
    // Speed codes 0 and 4 and above are not decoded; width is bits 9:4 only.
    sas->setLink(0, 0x3F);
    EXPECT_EQ(pci.GetReadableSpeed(pfa(0, 3, 0, 0), PCI_CURRENT_LINK_SPEED), 0.0f);
    EXPECT_EQ(pci.GetDataByBDF(pfa(0, 3, 0, 0), PCI_CURRENT_LINK_WIDTH), 0x3Fu);
    sas->setLink(5, 2);
    EXPECT_EQ(pci.GetReadableSpeed(pfa(0, 3, 0, 0), PCI_CURRENT_LINK_SPEED), 0.0f);
    EXPECT_EQ(pci.GetDataByBDF(pfa(0, 3, 0, 0), PCI_CURRENT_LINK_WIDTH), 2u);
}

TEST_F(PciOperationsTest, IntelNtbLinkComesFromItsOwnRegisters) {
    PCIDAPI pci("PCIDAPI");
    auto ntb = fn("0000:00:03.0");
    const _PFA at = pfa(0, 0, 3, 0);
    // The standard PCI Express link registers disagree with the NTB's own ones: the
    // answers must come from 0x19C (capabilities) and 0x1A2 (status).
    ntb->setLink(1, 1);
    ntb->poke(ntb->pcieCapability() + 0x0C, 0x00400011, 4);
    ntb->poke(0x19C, 2 | 16 << 4, 4);
    ntb->poke(0x1A2, 3 | 4 << 4 | 0x2000, 2);
    EXPECT_EQ(pci.GetDataByBDF(at, PCI_CURRENT_LINK_WIDTH), 4u);
    EXPECT_EQ(pci.GetDataByBDF(at, PCI_MAX_LINK_WIDTH), 16u);
    EXPECT_EQ(pci.GetReadableSpeed(at, PCI_CURRENT_LINK_SPEED), 8.0f);
    EXPECT_EQ(pci.GetReadableSpeed(at, PCI_MAX_LINK_SPEED), 5.0f);
    EXPECT_EQ(pci.getReadableStringByBDF(at, PCI_LINK_STATUS), "Up");
    // Link up is bit 13 alone: a width with the bit clear is down.
    ntb->poke(0x1A2, 3 | 4 << 4, 2);
    EXPECT_EQ(pci.getReadableStringByBDF(at, PCI_LINK_STATUS), "Down");
    ntb->poke(0x1A2, 0x2000, 2);
    EXPECT_EQ(pci.getReadableStringByBDF(at, PCI_LINK_STATUS), "Up");
    EXPECT_EQ(pci.GetDataByBDF(at, PCI_CURRENT_LINK_WIDTH), 0u);

    PCIDDAPI dev("PCIDDAPI");
    EXPECT_TRUE(dev.isNtbDevice(0x8086, 0x6F0D));
    EXPECT_TRUE(dev.isNtbDevice(0x10B5, 0x87B0));
    EXPECT_TRUE(dev.isNtbDevice(0x10B5, 0x87B1));
    EXPECT_FALSE(dev.isNtbDevice(0x10B5, 0x87D0));
    EXPECT_FALSE(dev.isNtbDevice(0x8086, 0x6F0E));
    EXPECT_TRUE(dev.isNtbDevice(at));
    EXPECT_TRUE(dev.isSpecialPort(at));
    EXPECT_TRUE(dev.isSpecialPort(pfa(0, 1, 0, 1)));      // the switch's DMA function
    EXPECT_TRUE(dev.isSpecialPort(pfa(0xFFFF, 0xFF, 0xFF, 0x0F)));
    EXPECT_FALSE(dev.isSpecialPort(pfa(0, 2, 1, 0)));
}

TEST_F(PciOperationsTest, QueriesByAddressAndPlxLinkSideBase) {
    PCIDDAPI pci("PCIDDAPI");
    const _PFA sas = pfa(0, 3, 0, 0);
    EXPECT_EQ(pci.GetDataByBDF(sas, PCI_VENDOR_ID), 0x1000u);
    EXPECT_EQ(pci.GetDataByBDF(sas, PCI_DEVICE_ID), 0x0097u);
    EXPECT_EQ(pci.GetDataByBDF(sas, PCI_CLASS_CODE), 0x010700u);
    EXPECT_EQ(pci.GetDataByBDF(sas, PCI_REVISION_ID), 2u);
    EXPECT_EQ(pci.GetDataByBDF(sas, PCI_REVISION), 2u);
    EXPECT_EQ(pci.GetDataByBDF(pfa(1, 3, 0x1E, 6), PCI_DOMAIN), 1u);
    EXPECT_EQ(pci.GetDataByBDF(pfa(1, 3, 0x1E, 6), PCI_BUS), 3u);
    EXPECT_EQ(pci.GetDataByBDF(pfa(1, 3, 0x1E, 6), PCI_DEVICE), 0x1Eu);
    EXPECT_EQ(pci.GetDataByBDF(pfa(1, 3, 0x1E, 6), PCI_FUNCTION), 6u);
    for (_DATA_TYPE t : {PCI_CLASS_TEXT, PCI_CURRENT_LINK_SPEED, PCI_MAX_LINK_SPEED, PCI_LINK_STATUS,
                         static_cast<_DATA_TYPE>(17)})
        EXPECT_EQ(pci.GetDataByBDF(sas, t), 0xFFFFFFFFu) << t;
    // Index queries serve only while a scan holds the table.
    EXPECT_EQ(pci.getDeviceAmount(), 0u);
    EXPECT_EQ(pci.GetDataByID(0, PCI_VENDOR_ID), 0xFFFFFFFFu);
    EXPECT_EQ(pci.GetDeviceNameByID(0), "");
    EXPECT_EQ(pci.ConfigReadByte(0u, 0u), 0);

    _PCIInformantion rec;
    PCIDDAPI::initialPciInfoStructure(&rec);
    rec.domain = 2, rec.bus = 0x81, rec.device = 0x1F, rec.function = 7;
    _PFA made{0x1111, 1, 1, 1, 9};
    pci.createPFA(&rec, &made);
    EXPECT_EQ(bdf(made), "0002:81:1f.7");
    EXPECT_EQ(made.spare, 0);

    // The link-side block of a PLX NT port: BAR0 + 0x3F000 for 0x87B0, + 0x3D000 otherwise.
    pci.createPciObject(pfa(0, 7, 0, 0));
    EXPECT_EQ(pci.getPlxNtbLinkSideBase(), 0xFB07F000ull);
    pci.releasePciObject();
    fn("0000:07:00.0")->poke(0x02, 0x87B1, 2);
    pci.createPciObject(pfa(0, 7, 0, 0));
    EXPECT_EQ(pci.getPlxNtbLinkSideBase(), 0xFB07D000ull);
    pci.releasePciObject();
    EXPECT_EQ(pci.getPlxNtbLinkSideBase(), 0ull);
}

// ---------------------------------------------------------------- error registers

TEST_F(PciOperationsTest, ErrorFamiliesNameEachBitOfTheirRegister) {
    PCIDDAPI pci("PCIDDAPI");
    auto port = fn("0000:02:02.0");
    const _PFA at = pfa(0, 2, 2, 0);
    port->raise(0x06, 0x4100, 2);   // signaled system error, master data parity error
    port->raise(0x1E, 0x2800, 2);   // secondary: received master abort, signaled target abort
    port->raise(port->pcieCapability() + 0x0A, 0x0005, 2);  // fatal, correctable
    port->raise(port->aerCapability() + 0x04, 0x00040010, 4);
    port->raise(port->aerCapability() + 0x10, 0x00000041, 4);

    std::list<_PCI_ERROR> e;
    ASSERT_EQ(pci.getErrorStatistics(at, PCI_COMPATIBLE_ERROR, &e), 0u);
    EXPECT_EQ(names(e), (std::vector<std::string>{
                            "DetectedParityError", "SignaledSystemError", "ReceivedMasterAbort",
                            "ReceivedTargetAbort", "SignaledTargetAbort", "MasterDataParityError",
                            "SecondaryDetectedParityError", "ReceivedSystemError",
                            "SecondaryReceivedMasterAbort", "SecondaryReceivedTargetAbort",
                            "SecondarySignaledTargetAbort", "SecondaryMasterDataParityError"}));
    std::vector<uint32_t> values;
    for (const _PCI_ERROR& x : e) values.push_back(x.value);
    EXPECT_EQ(values, (std::vector<uint32_t>{0, 1, 0, 0, 0, 1, 0, 0, 1, 0, 1, 0}));

    e.clear();
    ASSERT_EQ(pci.getErrorStatistics(at, PCIE_CAPABILITY_ERROR, &e), 0u);
    EXPECT_EQ(names(e), (std::vector<std::string>{"UnsupportedRequestDetected", "FatalErrorDetected",
                                                  "NonFatalErrorDetected", "CorrectableErrorDetected"}));
    values.clear();
    for (const _PCI_ERROR& x : e) values.push_back(x.value);
    EXPECT_EQ(values, (std::vector<uint32_t>{0, 1, 0, 1}));

    e.clear();
    ASSERT_EQ(pci.getErrorStatistics(at, PCIE_AER_ERROR, &e), 0u);
    EXPECT_EQ(byName(e), (std::map<std::string, uint32_t>{{"UncorrectableErrorStatus", 0x00040010},
                                                          {"CorrectableErrorStatus", 0x00000041}}));
    EXPECT_EQ(e.front().name, "UncorrectableErrorStatus");

    // Families append; an unknown family appends nothing and succeeds.
    EXPECT_EQ(pci.getErrorStatistics(at, static_cast<_PCI_ERROR_TYPE>(3), &e), 0u);
    EXPECT_EQ(pci.getErrorStatistics(at, DETECTED_PARITY_ERROR, &e), 0u);
    EXPECT_EQ(e.size(), 2u);

    // The single decoders out of their range answer one blank.
    const _PCI_ERROR blank = pci.getSingleBitPciStatusError(0xFFFF, UNSUPPORTED_REQUEST_DETECTED);
    EXPECT_EQ(blank.name, " ");
    EXPECT_EQ(blank.value, 0u);
    EXPECT_EQ(pci.getSingleBitPCIeError(0xFFFF, MASTER_DATA_PARITY_ERROR).name, " ");
    EXPECT_EQ(pci.getSingleBitPCIeError(0xFFFF, CORRECTABLE_ERROR_DETECTED).value, 1u);
    EXPECT_EQ(pci.getSingleBitPciStatusError(0x0100, SECONDARY_MASTER_DATA_PARITY_ERROR).value, 1u);
    EXPECT_EQ(pci.getSingleBitPciStatusError(0xFEFF, MASTER_DATA_PARITY_ERROR).value, 0u);
}

TEST_F(PciOperationsTest, MissingCapabilitiesFailWithWholeChains) {
    PCIDAPI pci("PCIDAPI");
    const _PFA sata = pfa(0, 0, 0x1f, 2);
    std::list<_PCI_ERROR> e;
    // The device layer's code OR-ed into the report's function row.
    const ERRORCODE wrapped = 0xC9080003u | 0xC9042000u;
    for (_PCI_ERROR_TYPE family : {PCIE_CAPABILITY_ERROR, PCIE_AER_ERROR}) {
        ErrorMsg* err = pci.getErrorStatistics(sata, family, &e);
        ASSERT_NE(err, nullptr);
        EXPECT_EQ(err->getErrorCode(), wrapped);
        EXPECT_EQ(err->getNextErrorMsg(), nullptr);
        deleteErrorMsg(err);
    }
    EXPECT_TRUE(e.empty());
    testing::internal::CaptureStdout();
    for (ErrorMsg* err : {pci.showErrorStatistics(sata, PCIE_AER_ERROR, true),
                          pci.showPlxNtbErrorStatistics(sata, PCIE_CAPABILITY_ERROR, false, 3)}) {
        ASSERT_NE(err, nullptr);
        EXPECT_EQ(err->getErrorCode(), 0xC9048800u);
        ASSERT_NE(err->getNextErrorMsg(), nullptr);
        EXPECT_EQ(err->getNextErrorMsg()->getErrorCode(), wrapped);
        EXPECT_EQ(render(err).rfind("PCIDAPI::showSpecificErrorStatistics -> ", 0), 0u);
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");

    // A function whose config cannot be read has no capability list either.
    board.device(configPath("0000:02:02.0"))->faults().readErrno = EIO;
    ErrorMsg* err = pci.getErrorStatistics(pfa(0, 2, 2, 0), PCIE_CAPABILITY_ERROR, &e);
    ASSERT_NE(err, nullptr);
    EXPECT_EQ(err->getErrorCode(), wrapped);
    deleteErrorMsg(err);
    ASSERT_EQ(render(pci.getErrorStatistics(pfa(0, 2, 2, 0), PCI_COMPATIBLE_ERROR, &e)), "");
    EXPECT_EQ(e.size(), 6u);  // the header type reads 0: no secondary status
    for (const _PCI_ERROR& x : e) EXPECT_EQ(x.value, 0u);
}

TEST_F(PciOperationsTest, ErrorReportsPrintEachFamily) {
    PCIDAPI pci("PCIDAPI");
    auto nvme = fn("0000:04:00.0");
    nvme->raise(0x06, 0x8000, 2);
    nvme->raise(nvme->pcieCapability() + 0x0A, 0x0008, 2);
    nvme->raise(nvme->aerCapability() + 0x04, 0x00100000, 4);
    nvme->raise(nvme->aerCapability() + 0x10, 0x00001001, 4);
    const _PFA at = pfa(0, 4, 0, 0);
    testing::internal::CaptureStdout();
    ASSERT_EQ(render(pci.showErrorStatistics(at, PCI_COMPATIBLE_ERROR, false)), "");
    ASSERT_EQ(render(pci.showErrorStatistics(at, PCIE_CAPABILITY_ERROR, false)), "");
    ASSERT_EQ(render(pci.showErrorStatistics(at, PCIE_AER_ERROR, false)), "");
    ASSERT_EQ(render(pci.showErrorStatistics(at, PCI_COMPATIBLE_ERROR, true)), "");
    ASSERT_EQ(render(pci.showErrorStatistics(at, PCIE_CAPABILITY_ERROR, true)), "");
    ASSERT_EQ(render(pci.showErrorStatistics(at, PCIE_AER_ERROR, true)), "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "==== PCI-compatible ====\n"
              "DetectedParityError: 1\n"
              "SignaledSystemError: 0\n"
              "ReceivedMasterAbort: 0\n"
              "ReceivedTargetAbort: 0\n"
              "SignaledTargetAbort: 0\n"
              "MasterDataParityError: 0\n"
              "==== PCIE ====\n"
              "UnsupportedRequestDetected: 1\n"
              "FatalErrorDetected: 0\n"
              "NonFatalErrorDetected: 0\n"
              "CorrectableErrorDetected: 0\n"
              "==== AER ====\n"
              "UncorrectableErrorStatus: 0x00100000\n"
              "CorrectableErrorStatus: 0x00001001\n"
              "PCI-Compatible Error Statistics: 0x1\n"
              "PCIE Error Statistics: 0x1\n"
              "PCIE AER Statistics: 0x101001\n");
}

TEST_F(PciOperationsTest, ClearingWritesOnesToTheErrorBitsOnly) {
    PCIDAPI pci("PCIDAPI");
    auto port = fn("0000:02:05.0");
    const uint32_t aer = port->aerCapability();
    const uint32_t cap = port->pcieCapability();
    port->raise(0x06, 0xF900, 2);
    port->raise(0x1E, 0xF900, 2);
    port->raise(cap + 0x0A, 0x000F, 2);
    port->raise(aer + 0x04, 0x03FFF030, 4);
    port->raise(aer + 0x10, 0x0000F1C1, 4);
    port->write(cap + 8, 0x0005, 2);  // device control: error reporting enables
    const uint32_t maskBefore = port->read(aer + 0x08, 4);
    const uint32_t severityBefore = port->read(aer + 0x0C, 4);
    ASSERT_EQ(render(pci.clearErrors(pfa(0, 2, 5, 0))), "");
    EXPECT_EQ(port->read(0x06, 2), 0x0010u);
    EXPECT_EQ(port->read(0x1E, 2), 0u);
    EXPECT_EQ(port->read(cap + 0x0A, 2), 0u);
    EXPECT_EQ(port->read(aer + 0x04, 4), 0u);
    EXPECT_EQ(port->read(aer + 0x10, 4), 0u);
    EXPECT_EQ(port->read(cap + 8, 2), 0x0005u);
    EXPECT_EQ(port->read(aer + 0x08, 4), maskBefore);
    EXPECT_EQ(port->read(aer + 0x0C, 4), severityBefore);

    // The Intel NTB's AER status sits at 332 and 344.
    auto ntb = fn("0000:00:03.0");
    ntb->raise(332, 0x00001000, 4);
    ntb->raise(344, 0x00000001, 4);
    std::list<_PCI_ERROR> e;
    ASSERT_EQ(render(pci.getErrorStatistics(pfa(0, 0, 3, 0), PCIE_AER_ERROR, &e)), "");
    EXPECT_EQ(byName(e), (std::map<std::string, uint32_t>{{"UncorrectableErrorStatus", 0x1000},
                                                          {"CorrectableErrorStatus", 1}}));
    ASSERT_EQ(render(pci.clearErrors(pfa(0, 0, 3, 0))), "");
    EXPECT_EQ(ntb->read(332, 4), 0u);
    EXPECT_EQ(ntb->read(344, 4), 0u);

    // A vanished function: the writes fail quietly, the clear still succeeds.
    board.device(configPath("0000:04:00.0"))->faults().openErrno = ENOENT;
    testing::internal::CaptureStdout();
    EXPECT_EQ(render(pci.clearErrors(pfa(0, 4, 0, 0))), "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "cannot open /sys/bus/pci/devices/0000:04:00.0/config\n");
}

TEST_F(PciOperationsTest, PlxNtBothSidesAreReportedAndClearedTogether) {
    PCIDAPI pci("PCIDAPI");
    auto virt = fn("0000:07:00.0");
    auto link = board.pci->plxLink;
    const _PFA at = pfa(0, 7, 0, 0);
    virt->raise(0x06, 0x1000, 2);
    link->raise(link->pcieCapability() + 0x0A, 0x0002, 2);
    link->raise(link->aerCapability() + 0x04, 0x00000010, 4);
    link->raise(link->aerCapability() + 0x10, 0x00000040, 4);
    testing::internal::CaptureStdout();
    ASSERT_EQ(render(pci.showPlxNtbErrorStatistics(at, PCIE_AER_ERROR, true, 3)), "");
    ASSERT_EQ(render(pci.showPlxNtbErrorStatistics(at, PCIE_CAPABILITY_ERROR, true, 3)), "");
    ASSERT_EQ(render(pci.showPlxNtbErrorStatistics(at, PCIE_AER_ERROR, true, 0)), "");
    ASSERT_EQ(render(pci.showPlxNtbErrorStatistics(at, PCI_COMPATIBLE_ERROR, true, 1)), "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "PCIE AER Statistics: 0x50\n"
              "PCIE Error Statistics: 0x1\n"
              "PCIE AER Statistics: 0x0\n"
              "PCI-Compatible Error Statistics: 0x1\n");

    PCIDDAPI dev("PCIDDAPI");
    std::vector<_PORT_ERROR> records;
    ASSERT_EQ(render(dev.getNtbErrorStatistics(at, &records)), "");
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(bdf(records[0].port), "0000:07:00.0");
    EXPECT_EQ(bdf(records[1].port), "ffff:ff:ff.f");
    EXPECT_EQ(records[0].errors.size(), 12u);
    EXPECT_EQ(records[1].errors.size(), 12u);
    EXPECT_EQ(byName(records[1].errors)["NonFatalErrorDetected"], 1u);
    EXPECT_EQ(byName(records[0].errors)["NonFatalErrorDetected"], 0u);
    EXPECT_EQ(render(dev.getNtbErrorStatistics(pfa(0, 0, 3, 0), &records)),
              "PCIDDAPI::getNtbErrorStatistics: \"unsupported request\"");
    EXPECT_EQ(records.size(), 2u);

    ASSERT_EQ(render(pci.clearErrors(at)), "");
    EXPECT_EQ(virt->read(0x06, 2) & 0xF900, 0u);
    EXPECT_EQ(link->read(link->pcieCapability() + 0x0A, 2), 0u);
    EXPECT_EQ(link->read(link->aerCapability() + 0x04, 4), 0u);
    EXPECT_EQ(link->read(link->aerCapability() + 0x10, 4), 0u);
}

TEST_F(PciOperationsTest, WholeSwitchErrorTable) {
    fn("0000:02:03.0")->raise(0x1E, 0x8000, 2);  // Port3: secondary parity error
    fn("0000:01:00.0")->raise(0x06, 0x0100, 2);  // Port0: master data parity error
    board.pci->plxLink->raise(0x06, 0x2000, 2);  // NT link side: received master abort
    auto dma = fn("0000:01:00.1");
    dma->raise(dma->pcieCapability() + 0x0A, 0x0001, 2);
    dma->raise(dma->aerCapability() + 0x10, 0x00002000, 4);
    PCIDAPI pci("PCIDAPI");
    testing::internal::CaptureStdout();
    ASSERT_EQ(render(pci.showSwitchErrorStatistics("SW0", static_cast<_PCI_ERROR_TYPE>(7))), "");
    const std::string out = testing::internal::GetCapturedStdout();
    std::vector<std::string> lines;
    std::istringstream in(out);
    for (std::string l; std::getline(in, l);) lines.push_back(l);
    // The three tables: title, header, 12 + 4 + 2 rows.
    ASSERT_EQ(lines.size(), 2u + 12 + 2 + 4 + 2 + 2) << out;
    EXPECT_EQ(lines[0], "=============================== PCI-compatible ==============================");
    EXPECT_EQ(lines[14], "==================================== PCIE ===================================");
    EXPECT_EQ(lines[20], "==================================== AER ====================================");
    EXPECT_EQ(lines[1].substr(0, 29), std::string(24, ' ') + "Port:");
    EXPECT_EQ(lines[15].substr(0, 27), std::string(22, ' ') + "Port:");
    EXPECT_EQ(lines[21].substr(0, 25), std::string(20, ' ') + "Port:");
    // Cells of a line after its label, of the given width.
    auto cells = [&](size_t line, size_t width) {
        const std::string& l = lines[line];
        std::vector<std::string> v;
        const size_t colon = l.find(':');
        for (size_t i = colon + 1; i + width <= l.size(); i += width) v.push_back(l.substr(i, width));
        EXPECT_EQ((l.size() - colon - 1) % width, 0u) << l;
        return v;
    };
    auto trimmed = [](std::vector<std::string> v) {
        for (std::string& x : v) x = x.substr(x.find_first_not_of(' '));
        return v;
    };
    const std::vector<std::string> names = trimmed(cells(1, 8));
    ASSERT_EQ(names.size(), 9u) << lines[1];
    EXPECT_EQ(trimmed(cells(15, 8)), names);
    EXPECT_EQ(trimmed(cells(21, 11)), names);
    // Ordinary ports first (upstream port first), then the special ones.
    EXPECT_EQ(names[0], "Port0");
    EXPECT_EQ(std::set<std::string>(names.begin(), names.begin() + 6),
              (std::set<std::string>{"Port0", "Port1", "Port2", "Port3", "Port4", "Port5"}));
    EXPECT_EQ(std::set<std::string>(names.begin() + 6, names.end()),
              (std::set<std::string>{"DMA0", "NTBV0", "NTBL0"}));
    auto column = [&](const char* n) { return static_cast<size_t>(std::find(names.begin(), names.end(), n) - names.begin()); };

    const char* rowNames[18] = {
        "DetectedParityError", "SignaledSystemError", "ReceivedMasterAbort", "ReceivedTargetAbort",
        "SignaledTargetAbort", "MasterDataParityError", "SecondaryDetectedParityError", "ReceivedSystemError",
        "SecondaryReceivedMasterAbort", "SecondaryReceivedTargetAbort", "SecondarySignaledTargetAbort",
        "SecondaryMasterDataParityError", "UnsupportedRequestDetected", "FatalErrorDetected",
        "NonFatalErrorDetected", "CorrectableErrorDetected", "UncorrectableErrorStatus", "CorrectableErrorStatus"};
    // Every row: its label, and each cell's value; the special columns show a hyphen in
    // the six secondary-status rows.
    std::map<std::pair<size_t, std::string>, std::string> set = {
        {{5, "Port0"}, "1"}, {{2, "NTBL0"}, "1"}, {{6, "Port3"}, "1"},
        {{15, "DMA0"}, "1"}, {{17, "DMA0"}, "0x00002000"}};
    for (size_t row = 0; row < 18; ++row) {
        const size_t line = row < 12 ? 2 + row : row < 16 ? 16 + (row - 12) : 22 + (row - 16);
        const int labelWidth = row < 12 ? 28 : row < 16 ? 26 : 24;
        char label[64];
        snprintf(label, sizeof(label), "%*s:", labelWidth, rowNames[row]);
        EXPECT_EQ(lines[line].substr(0, strlen(label)), label);
        const std::vector<std::string> values = trimmed(cells(line, row < 16 ? 8 : 11));
        ASSERT_EQ(values.size(), 9u) << lines[line];
        for (size_t c = 0; c < 9; ++c) {
            auto it = set.find({row, names[c]});
            std::string want = it != set.end() ? it->second : row < 16 ? "0" : "0x00000000";
            if (row >= 6 && row < 12 && c >= 6) want = "-";
            EXPECT_EQ(values[c], want) << rowNames[row] << " of " << names[c];
        }
    }
    EXPECT_LT(column("NTBL0"), 9u);

    // One family prints one table.
    testing::internal::CaptureStdout();
    ASSERT_EQ(render(pci.showSwitchErrorStatistics("SW0", PCIE_CAPABILITY_ERROR)), "");
    const std::string pcie = testing::internal::GetCapturedStdout();
    EXPECT_EQ(pcie.rfind("==================================== PCIE ====", 0), 0u);
    EXPECT_EQ(std::count(pcie.begin(), pcie.end(), '\n'), 6);
}

TEST_F(PciOperationsTest, SwitchPortRecordsNamesAndThePrintedListing) {
    PCIDAPI pci("PCIDAPI");
    std::vector<_PORT_ERROR> records;
    testing::internal::CaptureStdout();
    ASSERT_EQ(render(pci.getSwitchErrorStatistics("SW0", &records)), "");
    const std::string out = testing::internal::GetCapturedStdout();
    // Upstream, DMA, five downstream ports, the NT port's two sides.
    ASSERT_EQ(records.size(), 9u);
    EXPECT_EQ(bdf(records[0].port), "0000:01:00.0");
    EXPECT_EQ(records[0].errors.size(), 18u);
    std::multiset<std::string> ports;
    for (const _PORT_ERROR& r : records) ports.insert(bdf(r.port));
    EXPECT_EQ(ports, (std::multiset<std::string>{"0000:01:00.0", "0000:01:00.1", "0000:02:01.0", "0000:02:02.0",
                                                 "0000:02:03.0", "0000:02:04.0", "0000:02:05.0", "0000:07:00.0",
                                                 "ffff:ff:ff.f"}));
    // The link side follows its virtual side.
    for (size_t i = 0; i < records.size(); ++i)
        if (bdf(records[i].port) == "ffff:ff:ff.f") {
            ASSERT_GT(i, 0u);
            EXPECT_EQ(bdf(records[i - 1].port), "0000:07:00.0");
        }
    EXPECT_EQ(out.rfind("upstream port: 0000:01:00.0\n", 0), 0u) << out;
    EXPECT_NE(out.find("\n" + std::string(44, '-') + "\n0000:01:00.0\nDetectedParityError: 0x0\n"), std::string::npos)
        << out;
    EXPECT_NE(out.find("\nffff:ff:ff.f\nDetectedParityError: 0x0\n"), std::string::npos);
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1 + 7 + 1 + 9 + 6 * 18 + 3 * 12) << out;

    PCIDDAPI dev("PCIDDAPI");
    std::vector<std::string> portNames;
    dev.getPortNameString(records, &portNames);
    std::vector<std::string> ordinary(portNames.begin(), portNames.begin() + 6);
    EXPECT_EQ(ordinary[0], "Port0");
    std::sort(ordinary.begin(), ordinary.end());
    EXPECT_EQ(ordinary, (std::vector<std::string>{"Port0", "Port1", "Port2", "Port3", "Port4", "Port5"}));
    EXPECT_EQ(std::multiset<std::string>(portNames.begin() + 6, portNames.end()),
              (std::multiset<std::string>{"DMA0", "NTBV0", "NTBL0"}));
    // Counters are per kind.
    std::vector<_PORT_ERROR> two = {{pfa(0xFFFF, 0xFF, 0xFF, 0x0F), {}}, {pfa(0, 7, 0, 0), {}},
                                    {pfa(0xFFFF, 0xFF, 0xFF, 0x0F), {}}, {pfa(0, 2, 2, 0), {}},
                                    {pfa(0, 0, 3, 0), {}}};
    portNames.clear();
    dev.getPortNameString(two, &portNames);
    EXPECT_EQ(portNames, (std::vector<std::string>{"Port2", "NTBL0", "NTBV0", "NTBL1", "NTBV1"}));
}

TEST_F(PciOperationsTest, SwitchLookupFailures) {
    PCIDAPI pci("PCIDAPI");
    std::vector<_PORT_ERROR> records;
    EXPECT_EQ(render(pci.getSwitchPortsInformation("SW1", &records)),
              "PCIDAPI::getSwitchPortsInformation: \"Invalid switch name\"");
    EXPECT_EQ(render(pci.getSwitchErrorStatistics("sw0", &records)),
              "PCIDAPI::getPCIeSwitcheList: \"Invalid switch name\"");
    EXPECT_EQ(render(pci.clearPCIeSwitchPortErrors("")),
              "PCIDAPI::showSwitchErrorStatistics -> PCIDAPI::getSwitchPortsInformation: \"Invalid switch name\"");
    EXPECT_TRUE(records.empty());

    // Without the switch's upstream port in sysfs there is no switch at all.
    board.unlink("/sys/bus/pci/devices/0000:01:00.0/vendor");
    board.unlink("/sys/bus/pci/devices/0000:01:00.0/device");
    board.unlink("/sys/bus/pci/devices/0000:01:00.0/class");
    board.removeDevice(configPath("0000:01:00.0"));
    board.unlink("/sys/bus/pci/devices/0000:01:00.0/resource0");
    board.unlink("/sys/bus/pci/devices/0000:01:00.0/driver");
    ASSERT_EQ(board.rmdir("/sys/bus/pci/devices/0000:01:00.0"), 0);
    EXPECT_EQ(render(pci.getSwitchPortsInformation("SW0", &records)),
              "PCIDAPI::getSwitchPortsInformation: \"No switch is found\"");
    testing::internal::CaptureStdout();
    EXPECT_EQ(render(pci.showSwitchErrorStatistics("SW0", PCIE_AER_ERROR)),
              "PCIDAPI::showSwitchErrorStatistics -> PCIDAPI::getSwitchPortsInformation: \"No switch is found\"");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST_F(PciOperationsTest, AThirdSwitchIsRefusedAfterTwoUnits) {
    addPcie("0000:20:00.0", 0x10B5, 0x8733, 0x060400, 0x01, 5);
    addPcie("0000:30:00.0", 0x8086, 0x1234, 0x060400, 0x01, 5);  // not PLX: not a switch here
    {
        PCIDDAPI pci("PCIDDAPI");
        std::vector<_SWITCH_UNIT> units;
        uint32_t count = 9;
        ASSERT_EQ(render(pci.getPCIeSwitchList(&units, &count)), "");
        ASSERT_EQ(count, 2u);
        std::set<std::string> seen;
        for (const _SWITCH_UNIT& u : units) seen.insert(u.name + "@" + bdf(u.upstreamPort));
        EXPECT_EQ(seen, (std::set<std::string>{"PEX8749@0000:01:00.0", "PEX8733@0000:20:00.0"}));
        EXPECT_EQ(units[0].switchID, "SW0");
        EXPECT_EQ(units[1].switchID, "SW1");
        EXPECT_TRUE(units[0].downstreamPorts.empty());
        EXPECT_EQ(pci.getSwitchDeviceName(0x8086, 0x1234), "Undefine");
        EXPECT_EQ(pci.getSwitchDeviceName(0x10B5, 0x87B0), "PEX87b0");
    }
    addPcie("0000:40:00.0", 0x10B5, 0x8796, 0x060400, 0x01, 5);
    PCIDAPI pci("PCIDAPI");
    std::vector<_SWITCH_UNIT> units;
    uint32_t count = 0;
    EXPECT_EQ(render(pci.getPCIeSwitchList(&units, &count)),
              "PCIDAPI::getPCIeSwitchList -> PCIDDAPI::getPCIeSwitchList: \"switch ID is not enough\"");
    EXPECT_EQ(units.size(), 2u);
    EXPECT_EQ(count, 2u);
    std::vector<_PORT_ERROR> records;
    EXPECT_EQ(render(pci.getSwitchPortsInformation("SW0", &records)),
              "PCIDAPI::getSwitchPortsInformation -> PCIDDAPI::getPCIeSwitchList: \"switch ID is not enough\"");
    EXPECT_TRUE(records.empty());
}

// ---------------------------------------------------------------- lists, sorting, names

TEST_F(PciOperationsTest, SortThemOrdersByDomainBusDeviceFunction) {
    PCICommonFunction common;
    const unsigned addresses[][4] = {{1, 0, 0, 0},   {0, 0x10, 0, 0}, {0, 0, 0x1f, 0}, {0, 1, 0, 0},
                                     {0, 0, 2, 1},   {0, 0, 2, 0},    {2, 0, 0, 0},    {0, 0xFF, 0x1F, 7},
                                     {1, 0, 0, 0}};
    device* head = nullptr;
    for (int i = 8; i >= 0; --i) {
        pci_dev* p = static_cast<pci_dev*>(calloc(1, sizeof(pci_dev)));
        p->domain = static_cast<uint16_t>(addresses[i][0]);
        p->bus = static_cast<uint8_t>(addresses[i][1]);
        p->device = static_cast<uint8_t>(addresses[i][2]);
        p->function = static_cast<uint8_t>(addresses[i][3]);
        p->vendorID = static_cast<uint16_t>(i);
        device* d = common.scan_device(p);
        d->next = head;
        head = d;
    }
    testing::internal::CaptureStdout();
    head = common.sort_them(head);
    const std::string out = testing::internal::GetCapturedStdout();
    std::vector<std::string> order;
    std::vector<uint16_t> tags;
    for (device* d = head; d; d = d->next) {
        order.push_back(bdf(d->dev->domain, d->dev->bus, d->dev->device, d->dev->function));
        tags.push_back(d->dev->vendorID);
    }
    const std::vector<std::string> sorted = {"0000:00:02.0", "0000:00:02.1", "0000:00:1f.0", "0000:01:00.0",
                                             "0000:10:00.0", "0000:ff:1f.7", "0001:00:00.0", "0001:00:00.0",
                                             "0002:00:00.0"};
    EXPECT_EQ(order, sorted);
    EXPECT_EQ(tags[6], 0);  // equal addresses keep their order
    EXPECT_EQ(tags[7], 8);
    std::string expected = "PCICommonFunction::sort_them, cnt: 9\n";
    for (int i = 0; i < 9; ++i) expected += "----\n";
    expected += std::string(43, '#') + "\n";
    for (const std::string& s : sorted) expected += s + "\n";
    expected += std::string(43, '#') + "\n";
    EXPECT_EQ(out, expected);
    // release_device_struct frees the wrappers; the pci_dev records are ours.
    std::vector<pci_dev*> devs;
    for (device* d = head; d; d = d->next) devs.push_back(d->dev);
    common.release_device_struct(head);
    for (pci_dev* p : devs) free(p);

    testing::internal::CaptureStdout();
    EXPECT_EQ(common.sort_them(nullptr), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "PCICommonFunction::sort_them, cnt: 0\n" + std::string(43, '#') + "\n" + std::string(43, '#') + "\n");
}

TEST_F(PciOperationsTest, SortedListAcrossDomainsAndBuses) {
    addPcie("0001:00:00.0", 0x8086, 0x0001, 0x060000, 0x00, 0);
    addPcie("0001:05:00.0", 0x8086, 0x0002, 0x020000, 0x00, 0);
    addPcie("0000:80:00.0", 0x8086, 0x0003, 0x020000, 0x00, 0);
    addPcie("0002:00:00.0", 0x8086, 0x0004, 0x020000, 0x00, 0);
    PCIDAPI pci("PCIDAPI");
    std::vector<_PCIInformantion> list;
    ASSERT_EQ(render(pci.getDevices(&list)), "");
    std::vector<std::string> order;
    for (const auto& r : list) order.push_back(bdf(r));
    const std::vector<std::string> expected = {
        "0000:00:00.0", "0000:00:01.0", "0000:00:01.1", "0000:00:02.0", "0000:00:02.2", "0000:00:03.0",
        "0000:00:03.2", "0000:00:04.0", "0000:00:1f.0", "0000:00:1f.2", "0000:00:1f.3", "0000:01:00.0", "0000:01:00.1", "0000:02:01.0",
        "0000:02:02.0", "0000:02:03.0", "0000:02:04.0", "0000:02:05.0", "0000:03:00.0", "0000:04:00.0",
        "0000:05:00.0", "0000:07:00.0", "0000:08:00.0", "0000:09:00.0", "0000:0a:00.0", "0000:0a:00.1",
        "0000:0c:00.0", "0000:0c:00.1", "0000:0c:00.2", "0000:0c:00.3", "0000:72:00.0", "0000:80:00.0", "0001:00:00.0", "0001:05:00.0", "0002:00:00.0"};
    EXPECT_EQ(order, expected);
    for (const auto& r : list) {
        EXPECT_FALSE(r.name.empty()) << bdf(r);
        if (bdf(r) == "0001:05:00.0") {
            EXPECT_EQ(r.classCode, 0x0200u);
            EXPECT_EQ(r.portType, 0);
            EXPECT_EQ(r.revisionID, 0xFF);  // not filled by the sysfs list
            EXPECT_EQ(r.headerType, 0xFF);
        }
        if (bdf(r) == "0000:02:03.0") {
            EXPECT_EQ(r.portType, 6);
            EXPECT_EQ(r.portNumber, 3);
        }
    }
    // A missing devices directory lists nothing.
    PCIDDAPI dev("PCIDDAPI");
    ASSERT_EQ(board.rename("/sys/bus/pci/devices", "/sys/bus/pci/gone"), 0);
    std::vector<_PCIInformantion> none;
    testing::internal::CaptureStdout();
    ASSERT_EQ(render(dev.getDeviceList(&none, true)), "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Cannot open /sys/bus/pci/devices\n");
    EXPECT_TRUE(none.empty());
}

TEST_F(PciOperationsTest, NamesFromPciIdsAndTheBuiltInTable) {
    board.writeFile("/usr/share/pci.ids",
                    "# test list\n"
                    "\n"
                    "1234  Acme Corp\n"
                    "\t0001  Widget\n"
                    "\t\t1234 0002  Widget subsystem\n"
                    "5678  Other Inc\n"
                    "\t0002  Gadget\n"
                    "8086  Intel Corporation\n"
                    "\t1533  I210 Gigabit Network Connection\n"
                    "1077  QLogic Corp.\n"
                    "\t2532  ISP2532\n"
                    "C 02  Network controller\n"
                    "\t00  Ethernet controller\n");
    PCIDDAPI pci("PCIDDAPI");
    auto record = [](uint16_t v, uint16_t d) {
        _PCIInformantion r;
        PCIDDAPI::initialPciInfoStructure(&r);
        r.vendorID = v;
        r.deviceID = d;
        r.name = "stale";
        return r;
    };
    std::vector<_PCIInformantion> list = {
        record(0x1234, 0x0001),  // vendor and device
        record(0x1234, 0x0002),  // device only under the next vendor / as a subsystem
        record(0x5678, 0x0002),
        record(0x8086, 0x1533),
        record(0x8086, 0x6F0D),  // vendor known, device from the built-in table
        record(0x1077, 0x8830),
        record(0x1000, 0x0097),  // vendor unknown to this list: built-in table
        record(0xABCD, 0x00EF),  // nowhere
        record(0x0C02, 0x0000),  // a class line is no vendor
    };
    pci.getDevicesName(&list);
    std::vector<std::string> got;
    for (const auto& r : list) got.push_back(r.name);
    EXPECT_EQ(got, (std::vector<std::string>{"Acme Corp Widget", "Vendor 1234 Device 0002", "Other Inc Gadget",
                                             "Intel Corporation I210 Gigabit Network Connection", "Intel NTB",
                                             "QLogic EP83xx - NIC", "LSI SAS3008", "Vendor abcd Device 00ef",
                                             "Vendor 0c02 Device 0000"}));
    // A second call reads the list again and answers the same.
    pci.getDevicesName(&list);
    EXPECT_EQ(list[0].name, "Acme Corp Widget");
    EXPECT_EQ(list[1].name, "Vendor 1234 Device 0002");
    // An updated list is seen by the same object: the old names are not kept in front.
    board.writeFile("/usr/share/pci.ids", "1234  Acme Holdings\n\t0001  Widget Mk II\n");
    pci.getDevicesName(&list);
    EXPECT_EQ(list[0].name, "Acme Holdings Widget Mk II");
    EXPECT_EQ(list[2].name, "Vendor 5678 Device 0002");

    // Without pci.ids every name comes from the fallback.
    ASSERT_EQ(board.unlink("/usr/share/pci.ids"), 0);
    PCIDDAPI fresh("PCIDDAPI");
    std::vector<_PCIInformantion> two = {record(0x1234, 0x0001), record(0x8086, 0x6F0D)};
    testing::internal::CaptureStdout();
    fresh.getDevicesName(&two);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "fail_to_open_pci.ids");
    EXPECT_EQ(two[0].name, "Vendor 1234 Device 0001");
    EXPECT_EQ(two[1].name, "Intel NTB");
}

TEST_F(PciOperationsTest, OverlongPciIdsLinesAreCut) {
    board.writeFile("/usr/share/pci.ids", "4321  " + std::string(3000, 'V') + "\n\t0042  " +
                                              std::string(1100, 'D') + "\n");
    PCIDDAPI pci("PCIDDAPI");
    _PCIInformantion r;
    PCIDDAPI::initialPciInfoStructure(&r);
    r.vendorID = 0x4321;
    r.deviceID = 0x0042;
    std::vector<_PCIInformantion> list = {r};
    pci.getDevicesName(&list);
    // Each line keeps 1,023 characters: the vendor name from column 6, the device from 7.
    EXPECT_EQ(list[0].name, std::string(1017, 'V') + " " + std::string(1016, 'D'));
}

TEST_F(PciOperationsTest, ClassKeywordsAndClassTexts) {
    PCIDAPI pci("PCIDAPI");
    uint32_t code = 0;
    const std::pair<const char*, uint32_t> keywords[] = {
        {"sata", 0x0106}, {"Nvme", 0x0108}, {"3d_controller", 0x0302}, {"i2p_host_bridge", 0x060A},
        {"nvga", 0x0000}, {"other_0d", 0x0D80}, {"null", 0x0D01}};
    for (const auto& k : keywords) {
        ASSERT_EQ(render(pci.convertStringToClassCode(k.first, &code)), "") << k.first;
        EXPECT_EQ(code, k.second) << k.first;
    }
    // "Timer" is the one mixed-case name: the upper-cased text never equals it.
    for (const char* bad : {"", " sata", "sata ", "SATA_", "0106", "DISPLAY_CONTROLLER", "Timer"}) {
        EXPECT_EQ(render(pci.convertStringToClassCode(bad, &code)),
                  "PCIDAPI::convertStringToClassCode: \"invalid class string\"")
            << bad;
        EXPECT_EQ(code, 0xFFFFu);
    }
    testing::internal::CaptureStdout();
    pci.showPciDefinedTypes();
    const std::string types = testing::internal::GetCapturedStdout();
    EXPECT_EQ(std::count(types.begin(), types.end(), '\n'), 84);
    EXPECT_EQ(types.rfind("PCI defined types:\nNVGA\nVGA_DEVICE\nSCSI\n", 0), 0u);
    EXPECT_EQ(types.substr(types.size() - 26), "ETH_802_11B_2P4G\nOTHER_0D\n");

    board.writeFile("/usr/share/pci.ids",
                    "8086  Intel Corporation\n"
                    "\t8c02  SATA\n"
                    "C 01  Mass storage controller\n"
                    "\t06  SATA controller\n"
                    "\t\t01  AHCI 1.0\n"
                    "\t07  Serial Attached SCSI controller\n"
                    "C 02  Network controller\n"
                    "\t00  Ethernet controller\n"
                    "C 06  Bridge\n"
                    "\t04  PCI bridge\n");
    EXPECT_EQ(pci.getReadableStringByBDF(pfa(0, 0, 0x1f, 2), PCI_CLASS_TEXT), "SATA controller");
    EXPECT_EQ(pci.getReadableStringByBDF(pfa(0, 3, 0, 0), PCI_CLASS_TEXT), "Serial Attached SCSI controller");
    EXPECT_EQ(pci.getReadableStringByBDF(pfa(0, 8, 0, 0), PCI_CLASS_TEXT), "Ethernet controller");
    EXPECT_EQ(pci.getReadableStringByBDF(pfa(0, 2, 1, 0), PCI_CLASS_TEXT), "PCI bridge");
    EXPECT_EQ(pci.getReadableStringByBDF(pfa(0, 4, 0, 0), PCI_CLASS_TEXT), "class undefined");  // 01:08
    EXPECT_EQ(pci.getReadableStringByBDF(pfa(0, 0, 0x1f, 3), PCI_CLASS_TEXT), "class undefined");  // 0c
    ASSERT_EQ(board.unlink("/usr/share/pci.ids"), 0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(pci.getReadableStringByBDF(pfa(0, 0, 0x1f, 2), PCI_CLASS_TEXT), "class unknown");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "fail_to_open_pci.ids");
}

// ---------------------------------------------------------------- bridge tree

// The tree as text, children, buses and devices each in address order.
std::string treeText(bridge* b, int depth = 0) {
    std::string pad(2 * depth, ' ');
    std::string text;
    if (b->br_dev) {
        const pci_dev* p = b->br_dev->dev;
        text += pad + "bridge " + bdf(p->domain, p->bus, p->device, p->function);
    } else {
        text += pad + "host";
    }
    char range[32];
    snprintf(range, sizeof(range), " [%02x,%02x,%02x]\n", b->primary, b->secondary, b->subordinate);
    text += range;
    std::vector<std::string> buses;
    for (bus* u = b->first_bus; u; u = u->sibling) {
        char head[32];
        snprintf(head, sizeof(head), "%04x:%02x:", u->domain, u->number);
        std::vector<std::string> devs;
        for (device* d = u->first_dev; d; d = d->busNext)
            devs.push_back(bdf(d->dev->domain, d->dev->bus, d->dev->device, d->dev->function).substr(8));
        std::sort(devs.begin(), devs.end());
        std::string line = pad + " bus " + head;
        for (const std::string& d : devs) line += " " + d;
        buses.push_back(line + "\n");
    }
    std::sort(buses.begin(), buses.end());
    for (const std::string& l : buses) text += l;
    std::vector<std::string> children;
    for (bridge* c = b->child; c; c = c->next) children.push_back(treeText(c, depth + 1));
    std::sort(children.begin(), children.end());
    for (const std::string& c : children) text += c;
    return text;
}

TEST_F(PciOperationsTest, BridgeTreeOfTheBoardWithASecondDomain) {
    // Domain 1: a root port with an endpoint behind it, and a lone device on bus 0.
    auto port = addPcie("0001:00:01.0", 0x8086, 0x6F02, 0x060400, 0x01, 4);
    port->setBusNumbers(0, 1, 1);
    addPcie("0001:01:00.0", 0x8086, 0x1533, 0x020000, 0x00, 0);
    addPcie("0001:00:05.0", 0x8086, 0x1234, 0x088000, 0x00, 0);
    PCIDDAPI pci("PCIDDAPI");
    pci.grow_tree();
    EXPECT_EQ(treeText(pci.hostBridge()),
              "host [00,00,00]\n"
              " bus 0000:00: 00.0 01.0 01.1 02.0 02.2 03.0 03.2 04.0 1f.0 1f.2 1f.3\n"
              " bus 0000:72: 00.0\n"
              " bus 0001:00: 01.0 05.0\n"
              "  bridge 0000:00:01.0 [00,01,07]\n"
              "   bus 0000:01: 00.0 00.1\n"
              "    bridge 0000:01:00.0 [01,02,07]\n"
              "     bus 0000:02: 01.0 02.0 03.0 04.0 05.0\n"
              "      bridge 0000:02:01.0 [02,03,03]\n"
              "       bus 0000:03: 00.0\n"
              "      bridge 0000:02:02.0 [02,04,04]\n"
              "       bus 0000:04: 00.0\n"
              "      bridge 0000:02:03.0 [02,05,05]\n"
              "       bus 0000:05: 00.0\n"
              "      bridge 0000:02:04.0 [02,06,06]\n"
              "       bus 0000:06:\n"
              "      bridge 0000:02:05.0 [02,07,07]\n"
              "       bus 0000:07: 00.0\n"
              "  bridge 0000:00:01.1 [00,08,08]\n"
              "   bus 0000:08: 00.0\n"
              "  bridge 0000:00:02.0 [00,09,09]\n"
              "   bus 0000:09: 00.0\n"
              "  bridge 0000:00:02.2 [00,0a,0a]\n"
              "   bus 0000:0a: 00.0 00.1\n"
              "  bridge 0000:00:03.2 [00,0c,0c]\n"
              "   bus 0000:0c: 00.0 00.1 00.2 00.3\n"
              "  bridge 0001:00:01.0 [00,01,01]\n"
              "   bus 0001:01: 00.0\n");
    // A rebuild starts from nothing.
    const std::string first = treeText(pci.hostBridge());
    pci.grow_tree();
    EXPECT_EQ(treeText(pci.hostBridge()), first);
}

// ---------------------------------------------------------------- slots

TEST_F(PciOperationsTest, SlotProfileRejectsMalformedLines) {
    board.writeFile("/etc/quarn/PCI_profile.ini",
                    "# slots\r\n"
                    "[slot_Info]\r\n"
                    "0000:02:01.0 SLOT1\r\n"
                    "02:02.0\tSLOT2 trailing words\n"
                    "garbage SLOTX\n"
                    "0000:02:1.0 SLOTY\n"
                    "0000:02:20.0 SLOTZ\n"
                    "0000:02:03.0\n"
                    "   \n"
                    "0000:0b:00.0 SLOT9\n"
                    "0000:02:04.0 " + std::string(600, 'L') + "\n"
                    "[slot_info]\n"
                    "0000:02:05.0 WRONGCASE\n"
                    "[supported_HBA]\n"
                    "1000 0097 LSI SAS3008:SAS 12Gb/s HBA:\n"
                    "zzzz 0097 Bad:hex:\n"
                    "12345 0001 Big:id:\n"
                    "1000\n"
                    "8086 0953   NVMe SSD:first:\n"
                    "8086 0953 NVMe SSD:Intel DC P3700:extra:\n"
                    "10ee 7021 NoColon\n"
                    "[other]\n"
                    "0000:02:05.0 OTHER\n");
    PCIDDAPI pci("PCIDDAPI");
    std::vector<_SLOT_INFO> slots;
    std::vector<_SUPPORTED_HBA> hbas;
    uint32_t count = 0;
    ASSERT_EQ(pci.createSlotInfo(&slots, &count, &hbas), 0u);
    ASSERT_EQ(count, 5u);
    ASSERT_EQ(slots.size(), 5u);
    std::vector<std::string> got;
    for (const _SLOT_INFO& s : slots) got.push_back(bdf(s.port) + "=" + s.slotName);
    EXPECT_EQ(got, (std::vector<std::string>{"0000:02:01.0=SLOT1", "0000:02:02.0=SLOT2", "0000:02:03.0=",
                                             "0000:0b:00.0=SLOT9",
                                             "0000:02:04.0=" + std::string(499 - 13, 'L')}));
    for (const _SLOT_INFO& s : slots) {
        EXPECT_EQ(s.device.domain, 0xFFFF);
        EXPECT_EQ(s.port.spare, 0);
    }
    ASSERT_EQ(hbas.size(), 4u);
    EXPECT_EQ(hbas[0].name, "LSI SAS3008");
    EXPECT_EQ(hbas[0].description, "SAS 12Gb/s HBA");
    EXPECT_EQ(hbas[1].name, "NVMe SSD");
    EXPECT_EQ(hbas[1].description, "first");
    EXPECT_EQ(hbas[2].description, "Intel DC P3700");
    EXPECT_EQ(hbas[3].vendorID, 0x10EE);
    EXPECT_EQ(hbas[3].deviceID, 0x7021);
    EXPECT_EQ(hbas[3].name, "NoColon");
    EXPECT_EQ(hbas[3].description, "");

    // The scan maps ports to the devices behind them; the last matching adapter row wins.
    fn("0000:02:04.0")->setLink(3, 4);  // up, but nothing behind it
    std::vector<_SLOT_INFO> scanned;
    ASSERT_EQ(render(pci.scanSlot(&scanned)), "");
    ASSERT_EQ(scanned.size(), 5u);
    EXPECT_EQ(bdf(scanned[0].device), "0000:03:00.0");
    EXPECT_EQ(scanned[0].port.spare, 1);
    EXPECT_EQ(scanned[0].hbaName, "LSI SAS3008");
    EXPECT_EQ(bdf(scanned[1].device), "0000:04:00.0");
    EXPECT_EQ(scanned[1].device.vendorID, 0x8086);
    EXPECT_EQ(scanned[1].hbaDescription, "Intel DC P3700");
    EXPECT_EQ(bdf(scanned[2].device), "0000:05:00.0");
    EXPECT_EQ(scanned[2].hbaName, "NoColon");
    EXPECT_EQ(scanned[2].hbaDescription, "");
    EXPECT_EQ(scanned[3].port.spare, 0);  // 0b:00.0 is no function
    EXPECT_EQ(scanned[3].device.domain, 0xFFFF);
    EXPECT_EQ(scanned[3].hbaName, "UNKNOWN");
    EXPECT_EQ(scanned[3].hbaDescription, "-");
    EXPECT_EQ(scanned[4].port.spare, 1);
    EXPECT_EQ(scanned[4].device.domain, 0xFFFF);
    EXPECT_EQ(scanned[4].hbaDescription, "-");
}

TEST_F(PciOperationsTest, SlotReportLinesAndAMissingProfile) {
    fn("0000:02:04.0")->setLink(2, 4);
    fn("0000:02:01.0")->setLink(1, 2);
    PCIDAPI pci("PCIDAPI");
    testing::internal::CaptureStdout();
    ASSERT_EQ(render(pci.displayHBAs()), "");
    const std::string header = "slot speed     width          name     description           \n" + std::string(78, '-') + "\n";
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              header +
                  "1         2.5(GT/s)      x2        LSI SAS3008    SAS 12Gb/s HBA (SLOT1)\n"
                  "2         8.0(GT/s)      x4        NVMe SSD       Intel DC P3700 (SLOT2)\n"
                  "3         5.0(GT/s)      x4        UNKNOWN        -              (SLOT3)\n"
                  "4         8.0(GT/s)      x8        UNKNOWN        8086:1583      (SLOT4)\n");

    ASSERT_EQ(board.unlink("/etc/quarn/PCI_profile.ini"), 0);
    PCIDDAPI dev("PCIDDAPI");
    std::vector<_SLOT_INFO> slots;
    std::vector<_SUPPORTED_HBA> hbas;
    uint32_t count = 0;
    EXPECT_EQ(dev.createSlotInfo(&slots, &count, &hbas), 0xC0000215u);
    EXPECT_EQ(count, 0u);
    testing::internal::CaptureStdout();
    ASSERT_EQ(render(pci.displayHBAs()), "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), header);
}

TEST_F(PciOperationsTest, DownstreamPortsOfASecondSwitch) {
    // A second PLX switch: upstream 20:00.0 over buses 21-23, two downstream ports, a PLX
    // NT port two levels down and a DMA function beside the upstream port.
    auto up = addPcie("0000:20:00.0", 0x10B5, 0x8733, 0x060400, 0x81, 5);
    up->setBusNumbers(0x1F, 0x21, 0x23);
    addPcie("0000:21:00.0", 0x10B5, 0x8733, 0x060400, 0x01, 6)->setBusNumbers(0x21, 0x22, 0x22);
    addPcie("0000:21:01.0", 0x10B5, 0x8733, 0x060400, 0x01, 6)->setBusNumbers(0x21, 0x23, 0x23);
    addPcie("0000:23:00.0", 0x10B5, 0x87B1, 0x068000, 0x00, 0);
    addPcie("0000:20:00.1", 0x10B5, 0x87D0, 0x088000, 0x80, 0);
    addPcie("0000:24:00.0", 0x10B5, 0x87B1, 0x068000, 0x00, 0);  // beyond the subordinate bus
    addPcie("0001:21:02.0", 0x10B5, 0x8733, 0x060400, 0x01, 6);  // other domain
    PCIDDAPI pci("PCIDDAPI");
    std::vector<_SWITCH_UNIT> units;
    uint32_t count = 0;
    ASSERT_EQ(render(pci.getPCIeSwitchList(&units, &count)), "");
    ASSERT_EQ(count, 2u);
    _SWITCH_UNIT* second = nullptr;
    for (_SWITCH_UNIT& u : units)
        if (bdf(u.upstreamPort) == "0000:20:00.0") second = &u;
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second->name, "PEX8733");
    pci.getDownstreamPorts(second);
    std::multiset<std::string> ports;
    for (const _PFA& p : second->downstreamPorts) ports.insert(bdf(p));
    EXPECT_EQ(ports, (std::multiset<std::string>{"0000:20:00.1", "0000:21:00.0", "0000:21:01.0", "0000:23:00.0"}));
}

}  // namespace

namespace {

// The device layer's range access refuses what lies outside the configuration space
// instead of wrapping its loop or writing past the caller's buffer.
TEST(PciRangeBounds, RangesOutsideTheConfigurationSpaceAreRefused) {
    quarn::vboard::Board board;
    quarn::installPlatform(&board);
    {
        PCIDDAPI pci("PCIDDAPI");
        const _PFA ahci{0, 0, 0x1f, 2, 0};
        uint8_t buffer[8];
        memset(buffer, 0xA5, sizeof(buffer));
        pci.ConfigReadByte(ahci, 0, 0xFFFFFFFF, buffer);  // would never end, and overrun
        pci.ConfigReadByte(ahci, 4095, 4096, buffer);
        EXPECT_EQ(buffer[0], 0xA5);
        pci.ConfigReadByte(ahci, 0, 1, buffer);
        EXPECT_EQ(buffer[0], 0x86);
        EXPECT_EQ(buffer[1], 0x80);
        const uint32_t before = board.pci->function("0000:00:1f.2")->read(0x3C, 1);
        uint8_t data[2] = {0x5A, 0x5A};
        pci.ConfigWriteByte(ahci, 0xFFFFFFFF, data, 2);  // offset + length wraps
        pci.ConfigWriteByte(ahci, 4095, data, 2);
        EXPECT_EQ(board.pci->function("0000:00:1f.2")->read(0x3C, 1), before);
        pci.ConfigWriteByte(ahci, 0x3C, data, 1);
        EXPECT_EQ(board.pci->function("0000:00:1f.2")->read(0x3C, 1), 0x5Au);
    }
    quarn::installPlatform(nullptr);
}

}  // namespace
