// PCI device layer: the tree of PCI-to-PCI bridges, the slot map of the board profile
// with the adapters found in the slots, and the PLX switches with their downstream ports.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <sstream>

#include "api/platform/Files.h"
#include "ddapi/pci/PCIDDAPI.h"

namespace {
const char kProfileDir[] = "/etc/quarn/";
constexpr size_t kProfileLine = 500;
constexpr ERRORCODE kOpenFileFail = 0xC0000215;
constexpr ERRORCODE kGetPCIeSwitchList = 0xC9088C00;
constexpr int kMaxSwitches = 2;
// Deeper than any real hierarchy (one level per bus number at most); stops a descent
// through bridges whose bus ranges contradict each other.
constexpr int kMaxTreeDepth = 256;

std::vector<std::string> splitBlanks(const std::string& s) {
    std::vector<std::string> words;
    std::istringstream in(s);
    std::string w;
    while (in >> w) words.push_back(w);
    return words;
}

bool parseHexWord(const std::string& text, uint16_t* out) {
    if (text.empty() || text.size() > 6) return false;
    char* end = nullptr;
    const unsigned long v = strtoul(text.c_str(), &end, 16);
    if (*end != '\0' || v > 0xFFFF) return false;
    *out = static_cast<uint16_t>(v);
    return true;
}
}  // namespace

void PCIDDAPI::grow_tree() {
    scanDevices(false);
    bridge* tail = &m_hostBridge;
    for (device* d = m_devices; d; d = d->next) {
        const pci_dev* p = d->dev;
        const uint32_t cls = m_common.ConfigReadDword(p->domain, p->bus, p->device, p->function, 8);
        const uint8_t header = m_common.ConfigReadByte(p->domain, p->bus, p->device, p->function, 14) & 0x7F;
        if ((cls >> 16) != 0x0604 || (header != 1 && header != 2)) continue;
        bridge* b = static_cast<bridge*>(m_common.xmalloc(sizeof(bridge)));
        if (!b) break;
        b->domain = p->domain;
        b->primary = m_common.ConfigReadByte(p->domain, p->bus, p->device, p->function, 24);
        b->secondary = m_common.ConfigReadByte(p->domain, p->bus, p->device, p->function, 25);
        b->subordinate = m_common.ConfigReadByte(p->domain, p->bus, p->device, p->function, 26);
        b->br_dev = d;
        tail->chain = b;
        tail = b;
    }
    // The host bridge is the root and never a child.
    for (bridge* b = m_hostBridge.chain; b; b = b->chain) {
        bridge* parent = nullptr;
        for (bridge* c = &m_hostBridge; c; c = c->chain) {
            if (c == b) continue;
            if (c != &m_hostBridge && c->domain != b->domain) continue;
            if (!(c->secondary <= b->primary && b->primary <= c->subordinate)) continue;
            if (!parent || c->subordinate - c->primary < parent->subordinate - parent->primary) parent = c;
        }
        if (!parent) parent = &m_hostBridge;
        b->next = parent->child;
        parent->child = b;
    }
    for (bridge* b = &m_hostBridge; b; b = b->chain)
        if (!m_common.find_bus(b, b->domain, b->secondary)) m_common.new_bus(b, b->domain, b->secondary);
    for (device* d = m_devices; d; d = d->next) {
        bridge* b = &m_hostBridge;
        for (int depth = 0;; ++depth) {
            const pci_dev* p = d->dev;
            bus* found = m_common.find_bus(b, p->domain, p->bus);
            bridge* c = nullptr;
            if (!found && depth < kMaxTreeDepth)
                for (c = b->child; c; c = c->next)
                    if (c->domain == p->domain && c->secondary <= p->bus && p->bus <= c->subordinate) break;
            if (!found && c) {
                b = c;
                continue;
            }
            if (!found) found = m_common.new_bus(b, p->domain, p->bus);
            if (found) {
                d->busNext = nullptr;
                *found->last_dev = d;
                found->last_dev = &d->busNext;
            }
            break;
        }
    }
}

ERRORCODE PCIDDAPI::createSlotInfo(std::vector<_SLOT_INFO>* slots, uint32_t* count,
                                   std::vector<_SUPPORTED_HBA>* hbas) {
    char path[64];
    snprintf(path, sizeof(path), "%sPCI_profile.ini", kProfileDir);
    std::string text;
    if (quarn::readTextFile(path, &text) != 0) return kOpenFileFail;
    std::istringstream in(text);
    std::string line, section;
    while (std::getline(in, line)) {
        if (line.size() > kProfileLine - 1) line.resize(kProfileLine - 1);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.empty() || line[0] == '#') continue;
        char name[kProfileLine];
        if (sscanf(line.c_str(), " [%499[^]]", name) == 1) {
            section = name;
            continue;
        }
        if (section == "slot_Info") {
            const std::vector<std::string> words = splitBlanks(line);
            if (words.empty()) continue;
            _SLOT_INFO slot;
            // A line whose address does not parse names no port; it is skipped rather
            // than mapped to whatever address its characters happen to give.
            if (convertStringToBDF(words[0], &slot.port) != 0) continue;
            slot.port.spare = 0;
            initialPciInfoStructure(&slot.device);
            slot.slotName = words.size() > 1 ? words[1] : "";
            if (slots) slots->push_back(slot);
            if (count) ++*count;
        } else if (section == "supported_HBA") {
            std::istringstream words(line);
            std::string vendor, device;
            _SUPPORTED_HBA hba;
            if (!(words >> vendor >> device) || !parseHexWord(vendor, &hba.vendorID) ||
                !parseHexWord(device, &hba.deviceID))
                continue;
            std::string rest;
            std::getline(words, rest);
            const size_t first = rest.find_first_not_of(' ');
            rest = first == std::string::npos ? "" : rest.substr(first);
            const size_t colon = rest.find(':');
            hba.name = rest.substr(0, colon);
            if (colon != std::string::npos) {
                const std::string tail = rest.substr(colon + 1);
                hba.description = tail.substr(0, tail.find(':'));
            }
            if (hbas) hbas->push_back(hba);
        }
    }
    return 0;
}

void PCIDDAPI::getHbaInfo(std::vector<_SLOT_INFO>* slots, const std::vector<_SUPPORTED_HBA>& hbas) {
    for (_SLOT_INFO& s : *slots) {
        if (s.device.domain == 0xFFFF) {
            s.hbaName = "UNKNOWN";
            s.hbaDescription = "-";
            continue;
        }
        bool found = false;
        for (const _SUPPORTED_HBA& h : hbas) {
            if (h.vendorID == s.device.vendorID && h.deviceID == s.device.deviceID) {
                s.hbaName = h.name;
                s.hbaDescription = h.description;
                found = true;
            }
        }
        if (!found) {
            char text[16];
            snprintf(text, sizeof(text), "%04x:%04x", s.device.vendorID, s.device.deviceID);
            s.hbaName = "UNKNOWN";
            s.hbaDescription = text;
        }
    }
}

void PCIDDAPI::getDownstreamDevice(_SLOT_INFO slot, _PCIInformantion* out) {
    for (bridge* b = m_hostBridge.chain; b; b = b->chain) {
        const pci_dev* p = b->br_dev ? b->br_dev->dev : nullptr;
        if (!p || p->domain != slot.port.domain || p->bus != slot.port.bus ||
            p->device != slot.port.device || p->function != slot.port.function)
            continue;
        for (size_t i = 0; i < m_deviceCount; ++i) {
            PCIDevice* d = m_table[i];
            if (d->GetDomain() == b->domain && d->GetBus() == b->secondary) {
                out->domain = d->GetDomain();
                out->bus = d->GetBus();
                out->device = d->GetDevice();
                out->function = d->GetFunction();
                out->vendorID = d->GetVendorID();
                out->deviceID = d->GetDeviceID();
                return;
            }
        }
        return;
    }
}

ErrorMsg* PCIDDAPI::scanSlot(std::vector<_SLOT_INFO>* slots) {
    std::vector<_SUPPORTED_HBA> hbas;
    uint32_t count = 0;
    createSlotInfo(slots, &count, &hbas);
    std::vector<bool> taken(slots->size(), false);
    grow_tree();
    releaseTable();
    for (device* d = m_devices; d && m_deviceCount < kMaxDevices; d = d->next) {
        _PCIInformantion info = scannedInfo(*d);
        PCIDevice* dev = new (std::nothrow) PCIDevice(info);
        if (!dev) break;
        m_table[m_deviceCount++] = dev;
    }
    for (size_t i = 0; i < m_deviceCount; ++i) {
        PCIDevice* dev = m_table[i];
        for (size_t s = 0; s < slots->size(); ++s) {
            _SLOT_INFO& slot = (*slots)[s];
            if (taken[s] || slot.port.domain != dev->GetDomain() || slot.port.bus != dev->GetBus() ||
                slot.port.device != dev->GetDevice() || slot.port.function != dev->GetFunction())
                continue;
            initialPciInfoStructure(&slot.device);
            slot.port.spare = getLinkStatus(*dev) ? 1 : 0;
            if (slot.port.spare) getDownstreamDevice(slot, &slot.device);
            taken[s] = true;
        }
    }
    getHbaInfo(slots, hbas);
    releaseTable();
    releaseScan();
    return nullptr;
}

std::string PCIDDAPI::getSwitchDeviceName(uint16_t vendorID, uint16_t deviceID) {
    if (vendorID != 0x10B5) return "Undefine";
    char text[16];
    snprintf(text, sizeof(text), "PEX%04x", deviceID);
    return text;
}

ErrorMsg* PCIDDAPI::getPCIeSwitchList(std::vector<_SWITCH_UNIT>* units, uint32_t* count) {
    std::vector<_PCIInformantion> list;
    getDeviceList(&list, false);
    uint32_t made = 0;
    if (count) *count = 0;
    for (const _PCIInformantion& r : list) {
        if (r.vendorID != 0x10B5 || r.portType != 5) continue;
        if (made == kMaxSwitches)
            return returnErrorMsg(kGetPCIeSwitchList, "switch ID is not enough", nullptr);
        _SWITCH_UNIT unit;
        unit.switchID = "SW" + std::to_string(made);
        unit.name = getSwitchDeviceName(r.vendorID, r.deviceID);
        unit.vendorID = r.vendorID;
        unit.deviceID = r.deviceID;
        unit.upstreamPort = {r.domain, r.bus, r.device, r.function, 0};
        units->push_back(unit);
        ++made;
        if (count) *count = made;
    }
    return nullptr;
}

void PCIDDAPI::getDownstreamPorts(_SWITCH_UNIT* unit) {
    const _PFA& up = unit->upstreamPort;
    const uint32_t busRegister = ConfigReadDword(up, 24);
    const uint32_t secondary = (busRegister >> 8) & 0xFF;
    const uint32_t subordinate = (busRegister >> 16) & 0xFF;
    std::vector<_PCIInformantion> list;
    getDeviceList(&list, false);
    for (const _PCIInformantion& r : list) {
        const _PFA pfa{r.domain, r.bus, r.device, r.function, 0};
        if (r.domain == up.domain && r.bus == secondary) unit->downstreamPorts.push_back(pfa);
        if (isNtbDevice(r.vendorID, r.deviceID) && r.domain == up.domain && secondary <= r.bus &&
            r.bus <= subordinate)
            unit->downstreamPorts.push_back(pfa);
        if (r.vendorID == 0x10B5 && r.deviceID == 0x87D0 && up.bus <= r.bus && r.bus <= subordinate)
            unit->downstreamPorts.push_back(pfa);
    }
}
