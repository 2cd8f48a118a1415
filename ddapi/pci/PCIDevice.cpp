// One PCI function: header fields, capability walks, link width, speed and port type.
#include "ddapi/pci/PCIDevice.h"

#include <set>

namespace {
constexpr uint32_t kPcieCapabilityId = 0x10;
// A standard capability lives in 0x40-0xFF, an extended one in 0x100-0xFFF on a dword
// boundary; these bound the walks on a device whose chain loops or points outside.
constexpr size_t kMaxStandardNodes = 48;
constexpr size_t kMaxExtendedNodes = 960;
}  // namespace

PCIDevice::PCIDevice(const _PCIInformantion& info)
    : BaseClassAPI("PCIDevice"),
      m_helper(nullptr),
      m_name(info.name),
      m_domain(info.domain),
      m_bus(info.bus),
      m_device(info.device),
      m_function(info.function),
      m_vendorID(info.vendorID),
      m_deviceID(info.deviceID),
      m_classCode(0),
      m_revisionID(0),
      m_headerType(0),
      m_capabilityPointer(0),
      m_currentLinkWidth(0),
      m_currentLinkSpeed(255.0f),
      m_maxLinkWidth(0),
      m_maxLinkSpeed(255.0f) {
    GetClassCode();
    GetRevisionID();
    GetHeaderType();
    GetCapPtrValue();
    GetCapList();
}

PCIDevice::PCIDevice(const PCIDevice& o)
    : BaseClassAPI(const_cast<PCIDevice&>(o).getClassName()),
      m_helper(nullptr),
      m_name(o.m_name),
      m_domain(o.m_domain),
      m_bus(o.m_bus),
      m_device(o.m_device),
      m_function(o.m_function),
      m_vendorID(o.m_vendorID),
      m_deviceID(o.m_deviceID),
      m_classCode(o.m_classCode),
      m_revisionID(o.m_revisionID),
      m_headerType(o.m_headerType),
      m_capabilityPointer(o.m_capabilityPointer),
      m_currentLinkWidth(o.m_currentLinkWidth),
      m_currentLinkSpeed(o.m_currentLinkSpeed),
      m_maxLinkWidth(o.m_maxLinkWidth),
      m_maxLinkSpeed(o.m_maxLinkSpeed),
      m_spareList(o.m_spareList),
      m_capList(o.m_capList) {}

PCIDevice::~PCIDevice() = default;

uint8_t PCIDevice::ConfigReadByte(uint32_t offset) {
    return m_common.ConfigReadByte(m_domain, m_bus, m_device, m_function, offset);
}
uint16_t PCIDevice::ConfigReadWord(uint32_t offset) {
    return m_common.ConfigReadWord(m_domain, m_bus, m_device, m_function, offset);
}
uint32_t PCIDevice::ConfigReadDword(uint32_t offset) {
    return m_common.ConfigReadDword(m_domain, m_bus, m_device, m_function, offset);
}
int PCIDevice::ConfigWriteByte(uint32_t offset, uint8_t value) {
    return m_common.ConfigWriteByte(m_domain, m_bus, m_device, m_function, offset, value);
}
int PCIDevice::ConfigWriteWord(uint32_t offset, uint16_t value) {
    return m_common.ConfigWriteWord(m_domain, m_bus, m_device, m_function, offset, value);
}
int PCIDevice::ConfigWriteDword(uint32_t offset, uint32_t value) {
    return m_common.ConfigWriteDword(m_domain, m_bus, m_device, m_function, offset, value);
}

uint16_t PCIDevice::GetVendorID() { return m_vendorID = ConfigReadWord(0); }
uint16_t PCIDevice::GetDeviceID() { return m_deviceID = ConfigReadWord(2); }
uint32_t PCIDevice::GetClassCode() { return m_classCode = ConfigReadDword(8) >> 8; }
uint8_t PCIDevice::GetRevisionID() { return m_revisionID = ConfigReadByte(8); }
uint8_t PCIDevice::GetHeaderType() { return m_headerType = ConfigReadByte(14); }
uint8_t PCIDevice::GetCapPtrValue() { return m_capabilityPointer = ConfigReadByte(52); }

void PCIDevice::GetCapList() {
    m_capList.clear();
    uint32_t ptr = ConfigReadByte(52) & 0xFC;
    std::set<uint32_t> seen;
    while (ptr != 0 && ptr >= 0x40 && seen.insert(ptr).second && seen.size() <= kMaxStandardNodes) {
        const uint32_t header = ConfigReadDword(ptr);
        const uint32_t next = (header >> 8) & 0xFF;
        m_capList.push_back({header & 0xFF, ptr, next});
        ptr = next & 0xFC;
    }
    getExtendedCapList();
}

void PCIDevice::getExtendedCapList() {
    uint32_t offset = 256;
    std::set<uint32_t> seen;
    do {
        const uint32_t header = ConfigReadDword(offset);
        const uint32_t next = header >> 20;
        m_capList.push_back({header & 0xFFFF, offset, next});
        seen.insert(offset);
        offset = next & 0xFFC;
    } while (offset >= 256 && !seen.count(offset) && seen.size() < kMaxExtendedNodes);
}

bool PCIDevice::IsPCIe() {
    for (const CapInfo& c : m_capList)
        if (c.ID == kPcieCapabilityId && c.offset <= 255) return true;
    return false;
}

int PCIDevice::GetCapabilityOffset(uint32_t id, uint32_t* offset) {
    for (const CapInfo& c : m_capList) {
        if (c.ID == id && c.offset < 256) {
            *offset = c.offset;
            return 0;
        }
    }
    *offset = 0xFFFFFFFF;
    return 1;
}

int PCIDevice::getExtendedCapabilityOffset(uint32_t id, uint32_t* offset) {
    for (const CapInfo& c : m_capList) {
        if (c.ID == id && c.offset > 255) {
            *offset = c.offset;
            return 0;
        }
    }
    *offset = 0xFFFFFFFF;
    return 1;
}

uint32_t PCIDevice::getPortTypeRawData() {
    uint32_t cap;
    if (GetCapabilityOffset(kPcieCapabilityId, &cap) != 0) return 0xFFFFFFFF;
    return (ConfigReadWord(cap + 2) >> 4) & 0xF;
}

uint16_t PCIDevice::GetPCIeType() {
    const uint32_t t = getPortTypeRawData();
    return t == 0xFFFFFFFF ? 0xFFFF : static_cast<uint16_t>(t);
}

const char* PCIDevice::portTypeText(uint32_t type) {
    switch (type) {
    case 0: return "PCIe Endpoint";
    case 1: return "Legancy PCIe Endpoint";
    case 4: return "PCIe Root Complex Root Port";
    case 5: return "PCIe switch Upstream port";
    case 6: return "PCIe switch Downstream port";
    case 7: return "PCIe to PCI/PCI-X Bridge";
    case 8: return "PCI/PCI-X to PCIe Bridge";
    case 9: return "Root Complex Integrated Endpoint";
    case 10: return "Root Complex Event Collector";
    default: return "Port Type undefined";
    }
}

std::string PCIDevice::getPortTypeString() {
    if (!IsPCIe()) return "PCI";
    return portTypeText(getPortTypeRawData());
}

uint32_t PCIDevice::getPortNumber() {
    uint32_t cap;
    if (GetCapabilityOffset(kPcieCapabilityId, &cap) != 0) return 0xFFFFFFFF;
    return ConfigReadDword(cap + 12) >> 24;
}

float PCIDevice::decodeLinkSpeed(uint16_t linkRegister) {
    switch (linkRegister & 0xF) {
    case 1: return 2.5f;
    case 2: return 5.0f;
    case 3: return 8.0f;
    default: return 0.0f;
    }
}

float PCIDevice::GetLinkSpeed(uint32_t registerOffset) {
    return decodeLinkSpeed(ConfigReadWord(registerOffset));
}

void PCIDevice::GetLinkInfo() {
    // The Intel NTB's link registers are special-cased by PCIDDAPI, not here.
    uint32_t cap;
    if (GetCapabilityOffset(kPcieCapabilityId, &cap) != 0) return;
    const uint32_t statusOffset = cap + 18;
    const uint32_t capsOffset = cap + 12;
    const uint16_t status = ConfigReadWord(statusOffset);
    const uint16_t caps = ConfigReadWord(capsOffset);
    m_currentLinkSpeed = decodeLinkSpeed(status);
    m_maxLinkSpeed = decodeLinkSpeed(caps);
    m_currentLinkWidth = (status >> 4) & 0x3F;
    m_maxLinkWidth = (caps >> 4) & 0x3F;
}

float PCIDevice::GetCurrentLinkSpeed() {
    GetLinkInfo();
    return m_currentLinkSpeed;
}
uint32_t PCIDevice::GetCurrentLinkWidth() {
    GetLinkInfo();
    return m_currentLinkWidth;
}
float PCIDevice::GetMaxLinkSpeed() {
    GetLinkInfo();
    return m_maxLinkSpeed;
}
uint32_t PCIDevice::GetMaxLinkWidth() {
    GetLinkInfo();
    return m_maxLinkWidth;
}

bool PCIDevice::LinkStatus() {
    if (!IsPCIe()) return false;
    return GetCurrentLinkWidth() != 0;
}

bool PCIDevice::checkRetrainCap() {
    switch (getPortTypeRawData()) {
    case 4: case 6: case 8: case 9: case 10: return true;
    default: return false;
    }
}

void PCIDevice::GetBARList(std::vector<uint32_t>* bars) {
    if (!bars) return;
    const int count = (GetHeaderType() & 1) ? 2 : 6;
    for (int i = 0; i < count; ++i) bars->push_back(ConfigReadDword(16 + 4 * i));
}
