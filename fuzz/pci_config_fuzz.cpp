// Fuzz target of the PCI layers' handling of what PCI functions answer: the input places
// up to four functions on the board (sysfs directory name, configuration space bytes,
// BAR sizing, hidden or listed, optionally mirrored in a PLX switch's register window),
// plus the slot profile and the PCI ID list, and the layers' queries read them back:
// the device list and names, header fields, capability walks, PCIe link and port data,
// error statistics and clears, BARs, the bridge tree, slots, switches and the port-I/O
// scan for hidden functions. Every write lands on the simulated board.
//
// Input layout (bytes, front to back; zeros once it runs out):
//   options   bit0-1: 1 = scan for hidden functions through ports 0xCF8/0xCFC,
//                     2 = the same scan with port access refused (iopl fails)
//             bit2: sorted device list   bit3: PLX register window on /dev/mem
//             bit4: no /sys/bus/pci/devices directory at all
//   count     number of functions (& 7, at most 4)
//   per function:
//     bus, devfn, flags  (flags bit0: 4 KB space, else 256 bytes; bit1: hidden from
//                         sysfs; bit2: own directory name follows; bit3: domain 1;
//                         bit4: stored in the switch's register space, a port byte
//                         follows; bit5: BARs sized from their values; bit6: the
//                         config file fails to open; bit7: its reads fail)
//     [name length (& 31), name bytes]   if flags bit2
//     [port number (& 63)]                if flags bit4
//     chunk count (& 31), chunks of: offset high, offset low, length, bytes
//   the rest: PCI_profile.ini text, "\n#--file--\n", pci.ids text (a missing piece
//   leaves its file absent)
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <list>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "api/ErrorText.h"
#include "api/platform/Files.h"
#include "api/platform/Platform.h"
#include "dapi/pci/PCIDAPI.h"
#include "ddapi/pci/PCIDDAPI.h"
#include "vboard/DeviceModel.h"
#include "fuzz/FuzzSupport.h"
#include "vboard/VirtualBoard.h"
#include "vboard/models/pci/PciModels.h"

namespace {

using quarn::fuzz::drop;

using quarn::vboard::PciConfigPorts;
using quarn::vboard::PciFunction;
using quarn::vboard::PlxRegisters;

constexpr size_t kMaxFunctions = 4;
constexpr uint64_t kSwitchWindow = 0xFB000000;
const char kDevicesDir[] = "/sys/bus/pci/devices";
const char kProfile[] = "/etc/quarn/PCI_profile.ini";
const char kPciIds[] = "/usr/share/pci.ids";
const char kMarker[] = "\n#--file--\n";

struct Feed {
    const uint8_t* data = nullptr;
    size_t size = 0;
    size_t at = 0;
    uint8_t byte() { return at < size ? data[at++] : 0; }
    std::string rest() const {
        return at < size ? std::string(reinterpret_cast<const char*>(data + at), size - at) : std::string();
    }
};

// The switch's register space behind /dev/mem: pages inside the window map straight
// onto its storage; anything else is not memory the board has.
std::shared_ptr<PlxRegisters> g_plx;

class SwitchWindowHandle : public quarn::vboard::FileHandle {
public:
    void* mmap(size_t length, int, int, off_t offset) override {
        const uint64_t at = static_cast<uint64_t>(offset);
        if (!g_plx || offset < 0 || at < kSwitchWindow || length > PlxRegisters::kSize ||
            at - kSwitchWindow > PlxRegisters::kSize - length) {
            errno = ENXIO;
            return MAP_FAILED;
        }
        return g_plx->base() + (at - kSwitchWindow);
    }
    int munmap(void*, size_t) override { return 0; }
};

class SwitchWindow : public quarn::vboard::DeviceModel {
public:
    std::unique_ptr<quarn::vboard::FileHandle> open(int) override {
        return std::make_unique<SwitchWindowHandle>();
    }
};

quarn::vboard::VirtualBoard& board() { return quarn::fuzz::board(); }

// The layers print their reports on stdout; the run keeps them out of the log unless
// PCI_FUZZ_SHOW_OUTPUT is set (to look at what one input does).
class QuietStdout {
public:
    QuietStdout() {
        if (getenv("PCI_FUZZ_SHOW_OUTPUT")) return;
        fflush(stdout);
        m_saved = dup(1);
        const int null = ::open("/dev/null", O_WRONLY);
        if (null >= 0) {
            dup2(null, 1);
            ::close(null);
        }
    }
    ~QuietStdout() {
        fflush(stdout);
        if (m_saved >= 0) {
            dup2(m_saved, 1);
            ::close(m_saved);
        }
    }

private:
    int m_saved = -1;
};

struct Placed {
    _PFA pfa;
    std::string name;
};

// What the previous input put on the board, removed before the next one.
std::vector<std::string> g_nodes;

void clearBoard(quarn::vboard::VirtualBoard& b) {
    for (const std::string& node : g_nodes) b.removeDevice(node);
    g_nodes.clear();
    std::error_code ec;
    std::filesystem::remove_all(b.hostPath(kDevicesDir), ec);
    b.removeDevice("/dev/mem");
    quarn::removePath(kProfile);
    quarn::removePath(kPciIds);
    b.setPortAccessAllowed(true);
}

std::string directoryName(const std::string& raw, const _PFA& pfa) {
    std::string name = raw;
    for (char& c : name)
        if (c == '/' || c == '\0') c = '_';
    if (name.empty() || name == "." || name == "..") {
        char text[24];
        snprintf(text, sizeof(text), "%04x:%02x:%02x.%x", pfa.domain, pfa.bus, pfa.device, pfa.function);
        name = text;
    }
    return name;
}

// Builds one function from the feed and places it on the board.
void placeFunction(quarn::vboard::VirtualBoard& b, Feed& feed, PciConfigPorts& ports,
                   std::vector<Placed>* placed) {
    const uint8_t bus = feed.byte();
    const uint8_t devfn = feed.byte();
    const uint8_t flags = feed.byte();
    _PFA pfa{static_cast<uint16_t>((flags & 0x08) ? 1 : 0), bus, static_cast<uint16_t>(devfn >> 3),
             static_cast<uint8_t>(devfn & 7), 0};
    std::string rawName;
    if (flags & 0x04) {
        const size_t length = feed.byte() & 31;
        for (size_t i = 0; i < length; ++i) rawName.push_back(static_cast<char>(feed.byte()));
    }
    const uint32_t port = (flags & 0x10) ? (feed.byte() & 63) : 0;
    const size_t size = (flags & 0x01) ? 4096 : 256;

    std::vector<uint8_t> space(size, 0);
    const size_t chunks = feed.byte() & 31;
    for (size_t c = 0; c < chunks; ++c) {
        size_t offset = static_cast<size_t>(feed.byte()) << 8;
        offset |= feed.byte();
        offset %= size;
        const size_t length = feed.byte();
        for (size_t i = 0; i < length; ++i) {
            const uint8_t v = feed.byte();
            if (offset + i < size) space[offset + i] = v;
        }
    }
    auto read = [&space](size_t at, int width) {
        uint32_t v = 0;
        for (int i = 0; i < width; ++i) v |= static_cast<uint32_t>(space[at + i]) << (8 * i);
        return v;
    };
    uint8_t* storage = (flags & 0x10) && g_plx ? g_plx->storage(port) : nullptr;
    auto f = std::make_shared<PciFunction>(read(0, 2), read(2, 2), read(8, 4) >> 8, space[8], space[14],
                                           size, storage);
    if (flags & 0x20) {
        // Address bits below a BAR's lowest set bit read back as zero after the
        // all-ones write, as a BAR of that size does.
        const int bars = (space[14] & 0x7F) == 1 ? 2 : 6;
        for (int i = 0; i < bars; ++i) {
            const uint32_t value = read(16 + 4 * i, 4);
            const uint32_t address = value & ((value & 1) ? ~0x3u : ~0xFu);
            if (address) f->setBar(i, value, address & (~address + 1), value & ((value & 1) ? 0x3 : 0xF));
        }
    }
    for (size_t i = 0; i < size; ++i) f->poke(static_cast<uint32_t>(i), space[i], 1);
    if (flags & 0x40) f->faults().openErrno = EACCES;
    if (flags & 0x80) f->faults().readErrno = EIO;

    if (pfa.domain == 0) ports.attach(bus, static_cast<uint8_t>(devfn >> 3), static_cast<uint8_t>(devfn & 7), f);
    const std::string name = directoryName(rawName, pfa);
    if (!(flags & 0x02)) {
        const std::string node = std::string(kDevicesDir) + "/" + name + "/config";
        b.addDevice(node, f);
        g_nodes.push_back(node);
    }
    placed->push_back({pfa, rawName});
}

// A walk of the bridge tree from the host bridge; the bounds only guard the harness.
size_t walkTree(bridge* root) {
    std::set<bridge*> seen;
    std::vector<bridge*> pending{root};
    size_t devices = 0;
    while (!pending.empty() && seen.size() < 4096) {
        bridge* b = pending.back();
        pending.pop_back();
        if (!b || !seen.insert(b).second) continue;
        for (bus* s = b->first_bus; s; s = s->sibling)
            for (device* d = s->first_dev; d && devices < 100000; d = d->busNext) ++devices;
        for (bridge* c = b->child; c; c = c->next) pending.push_back(c);
    }
    return devices;
}

void queryDeviceLayer(const std::vector<_PFA>& targets, const std::vector<Placed>& placed, bool sort) {
    auto dd = std::make_unique<PCIDDAPI>("fuzz");
    drop(dd->getErrorMsg());
    std::vector<_PCIInformantion> list;
    drop(dd->getDeviceList(&list, sort));
    dd->getDevicesName(&list);
    std::vector<_PCI_CLASS_MAPPING> classes;
    dd->getPciClassMappingTable(&classes);
    for (const _PCIInformantion& r : list) {
        drop(dd->getPciInfoByClass(r.classCode, nullptr));
        break;
    }
    for (uint32_t i = 0; i < 2; ++i) {
        dd->GetDataByID(i, PCI_VENDOR_ID);
        dd->GetDeviceNameByID(i);
        dd->ConfigReadByte(i, 0);
    }
    for (const Placed& p : placed) {
        _PFA pfa{};
        dd->convertStringToBDF(p.name, &pfa);
        uint32_t code = 0;
        dd->convertStringToClassCode(p.name, &code);
    }

    dd->grow_tree();
    walkTree(dd->hostBridge());
    std::vector<_SLOT_INFO> slots;
    uint32_t slotCount = 0;
    std::vector<_SUPPORTED_HBA> hbas;
    dd->createSlotInfo(&slots, &slotCount, &hbas);
    slots.clear();
    drop(dd->scanSlot(&slots));
    std::vector<_SWITCH_UNIT> units;
    uint32_t count = 0;
    drop(dd->getPCIeSwitchList(&units, &count));
    for (_SWITCH_UNIT& unit : units) {
        dd->getDownstreamPorts(&unit);
        std::vector<_PORT_ERROR> errors;
        drop(dd->getPortErrorList(unit, &errors));
    }
    uint8_t buffer[4096];
    for (const _PFA& pfa : targets) {
        for (int t = PCI_DOMAIN; t <= PCI_LINK_STATUS; ++t) dd->GetDataByBDF(pfa, static_cast<_DATA_TYPE>(t));
        dd->GetFloatDataByID(pfa, PCI_CURRENT_LINK_SPEED);
        dd->GetFloatDataByID(pfa, PCI_MAX_LINK_SPEED);
        dd->getClassTypeString(pfa);
        dd->getPortTypeString(pfa);
        dd->getLinkStatus(pfa);
        dd->isPCIe(pfa);
        dd->isNtbDevice(pfa);
        dd->isSpecialPort(pfa);
        for (uint32_t index = 0; index <= 6; ++index) {
            uint32_t base = 0, size = 0;
            drop(dd->getBarByBDF(pfa, index, &base, &size));
        }
        for (int family = PCI_COMPATIBLE_ERROR; family <= DETECTED_PARITY_ERROR; ++family) {
            std::list<_PCI_ERROR> errors;
            dd->getErrorStatistics(pfa, static_cast<_PCI_ERROR_TYPE>(family), &errors);
            dd->getPlxNtbLinkSideErrorStatistics(pfa, static_cast<_PCI_ERROR_TYPE>(family), &errors);
        }
        std::vector<_PORT_ERROR> ports;
        drop(dd->getPortErrorErrorStatistics(pfa, &ports));
        drop(dd->getNtbErrorStatistics(pfa, &ports));
        std::vector<std::string> names;
        dd->getPortNameString(ports, &names);
        dd->ConfigReadByte(pfa, 0, 63, buffer);
        dd->ConfigReadByte(pfa, 0xFF0, 0xFFF, buffer);
        dd->ConfigReadByte(pfa, 0xFFF, 0x1000, buffer);
        dd->ConfigReadWord(pfa, 0xFFF);
        dd->ConfigReadDword(pfa, 0xFFE);
        dd->clearErrors(pfa);
        dd->clearPlxNtbLinkSideErrors(pfa);
        uint8_t data[4] = {0xFF, 0xFF, 0xFF, 0xFF};
        dd->ConfigWriteByte(pfa, 0x3C, data, 4);
        dd->ConfigWriteByte(pfa, 0xFFE, data, 4);
        dd->ConfigWriteWord(pfa, 0x04, 0x0006);
        dd->ConfigWriteDword(pfa, 0xFFC, 0);
    }

    drop(dd->getErrorMsg());
}

void queryDiagnosticLayer(const std::vector<_PFA>& targets, uint8_t options) {
    auto da = std::make_unique<PCIDAPI>("fuzz");
    drop(da->getErrorMsg());
    std::vector<_PCIInformantion> list;
    drop(da->getDevices(&list));
    if ((options & 3) == 1 || (options & 3) == 2) {
        std::vector<_PCIInformantion> hidden;
        drop(da->scanHiddenDevices(0, &hidden));
    }
    drop(da->scanHiddenDevices(1, nullptr));
    uint32_t code = 0;
    drop(da->convertStringToClassCode("p2p_bridge", &code));
    drop(da->convertStringToClassCode("", nullptr));
    std::vector<_SWITCH_UNIT> units;
    uint32_t count = 0;
    drop(da->getPCIeSwitchList(&units, &count));
    for (const char* id : {"SW0", "SW1", "SW2"}) {
        std::vector<_PORT_ERROR> ports;
        drop(da->getSwitchPortsInformation(id, &ports));
        ports.clear();
        drop(da->getSwitchErrorStatistics(id, &ports));
        for (int family = PCI_COMPATIBLE_ERROR; family <= PCIE_AER_ERROR + 1; ++family)
            drop(da->showSwitchErrorStatistics(id, static_cast<_PCI_ERROR_TYPE>(family)));
    }
    drop(da->displayHBAs());
    uint8_t buffer[4096];
    for (const _PFA& pfa : targets) {
        drop(da->readConfig(pfa, 0, 255, buffer));
        drop(da->readConfig(pfa, 0xFC0, 0xFFF, buffer));
        drop(da->readConfig(pfa, 0x10, 0x1000, buffer));
        da->isPCIe(pfa);
        da->checkPresenceOfDevice(pfa);
        da->GetDataByBDF(pfa, PCI_PORT_NUMBER);
        da->GetReadableSpeed(pfa, PCI_CURRENT_LINK_SPEED);
        da->GetReadableSpeed(pfa, PCI_MAX_LINK_SPEED);
        for (_DATA_TYPE t : {PCI_CLASS_TEXT, PCI_PORT_TYPE, PCI_LINK_STATUS, PCI_VENDOR_ID})
            da->getReadableStringByBDF(pfa, t);
        for (int family = PCI_COMPATIBLE_ERROR; family <= PCIE_AER_ERROR + 1; ++family) {
            const auto f = static_cast<_PCI_ERROR_TYPE>(family);
            drop(da->getErrorStatistics(pfa, f, nullptr));
            drop(da->showErrorStatistics(pfa, f, family & 1));
            drop(da->showPlxNtbErrorStatistics(pfa, f, false, 3));
        }
        uint8_t data[8] = {0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF};
        drop(da->writeConfig(pfa, 0x10, data, sizeof(data)));
        drop(da->writeConfig(pfa, 0xFFC, data, sizeof(data)));
        drop(da->ConfigWriteByte(pfa, 0x0D, 0x40));
        drop(da->ConfigWriteWord(pfa, 0x06, 0xFFFF));
        drop(da->ConfigWriteDword(pfa, 0x18, 0x00FFFFFF));
        drop(da->clearErrors(pfa));
    }
    for (const char* id : {"SW0", "SW1"}) drop(da->clearPCIeSwitchPortErrors(id));
    drop(da->getErrorMsg());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    quarn::vboard::VirtualBoard& b = board();
    QuietStdout quiet;
    clearBoard(b);
    Feed feed{data, size, 0};
    const uint8_t options = feed.byte();
    const size_t count = std::min<size_t>(feed.byte() & 7, kMaxFunctions);

    g_plx = (options & 0x08) ? std::make_shared<PlxRegisters>() : nullptr;
    if (g_plx) b.addDevice("/dev/mem", std::make_shared<SwitchWindow>());
    auto ports = std::make_shared<PciConfigPorts>();
    b.addPorts(0xCF8, 8, ports);
    if ((options & 3) == 2) b.setPortAccessAllowed(false);
    if (!(options & 0x10)) quarn::makeDirectories(kDevicesDir);

    std::vector<Placed> placed;
    for (size_t i = 0; i < count; ++i) placeFunction(b, feed, *ports, &placed);

    const std::string texts = feed.rest();
    const size_t cut = texts.find(kMarker);
    if (!texts.empty()) b.writeFile(kProfile, texts.substr(0, cut));
    if (cut != std::string::npos) b.writeFile(kPciIds, texts.substr(cut + sizeof(kMarker) - 1));

    std::vector<_PFA> targets;
    for (const Placed& p : placed) targets.push_back(p.pfa);
    targets.push_back(_PFA{0, 0, 0, 0, 0});

    queryDeviceLayer(targets, placed, options & 0x04);
    queryDiagnosticLayer(targets, options);

    clearBoard(b);
    g_plx.reset();
    return 0;
}
