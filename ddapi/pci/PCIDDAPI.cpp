// PCI device layer: device list, names and classes, configuration access, BARs, port-I/O scan.
#include "ddapi/pci/PCIDDAPI.h"

#include <fcntl.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "api/StringUtil.h"
#include "api/platform/Files.h"
#include "api/platform/Platform.h"
#include "ddapi/memory/MemoryDDAPI.h"

MemoryDDAPI* m_memoryDriver = nullptr;

const PCIClassInfo PCIClassInformation[] = {
    {0x0000, "NVGA"}, {0x0001, "VGA_DEVICE"}, {0x0100, "SCSI"}, {0x0101, "IDE"},
    {0x0102, "FD"}, {0x0103, "IPI"}, {0x0104, "RAID"}, {0x0105, "ATA"}, {0x0106, "SATA"},
    {0x0107, "SAS"}, {0x0108, "NVME"}, {0x0109, "UFS"}, {0x0180, "MASS_STORAGE"},
    {0x0200, "ETH"}, {0x0201, "TR"}, {0x0202, "FDDI"}, {0x0203, "ATM"}, {0x0204, "ISDN"},
    {0x0205, "WF"}, {0x0206, "PICMG"}, {0x0207, "IB"}, {0x0280, "OTHER_02"},
    {0x0300, "VGA_CONTROLLER"}, {0x0301, "XGA_CONTROLLER"}, {0x0302, "3D_CONTROLLER"},
    {0x0303, "DISPALY_CONTOLLER"}, {0x0400, "VIDEO"}, {0x0401, "AUDIO"}, {0x0402, "CT"},
    {0x0403, "MMD"}, {0x0480, "OTHER_04"}, {0x0500, "RAM"}, {0x0501, "FLASH"},
    {0x0580, "OTHER_05"}, {0x0600, "HOST_BRIDGE"}, {0x0601, "ISA_BRIDGE"},
    {0x0602, "EISA_BRIDGE"}, {0x0603, "MCA_BRIDGE"}, {0x0604, "P2P_BRIDGE"},
    {0x0605, "PCMCIA_BRIDGE"}, {0x0606, "NUBUS_BRIDGE"}, {0x0607, "CARD_BUS_BRIDGE"},
    {0x0608, "RACEWAY_BRIDGE"}, {0x0609, "ST_P2P_BRIDGE"}, {0x060a, "I2P_HOST_BRIDGE"},
    {0x060b, "A2P_HOST_BRIDGE"}, {0x0680, "OTHER_06"}, {0x0800, "PIC"}, {0x0801, "DMA"},
    {0x0802, "Timer"}, {0x0803, "RTC"}, {0x0804, "PCI_HB"}, {0x0805, "SD_HOST"},
    {0x0806, "IOMMU"}, {0x0807, "RCE"}, {0x0880, "SYSTEM_PERIPHERAL"},
    {0x0b00, "PROCESSOR_386"}, {0x0b01, "PROCESSOR_486"}, {0x0b02, "PROCESSOR_PENTIUM"},
    {0x0b10, "PROCESSOR_ALPHA"}, {0x0b20, "PROCESSOR_PPC"}, {0x0b30, "PROCESSOR_MIPS"},
    {0x0b40, "PROCESSOR_CP"}, {0x0b80, "OTHER_0B"}, {0x0c00, "IEEE_1394"},
    {0x0c01, "ACCESS_BUS"}, {0x0c02, "SSA"}, {0x0c03, "USB"}, {0x0c04, "FC"},
    {0x0c05, "SMBUS"}, {0x0c06, "IBD"}, {0x0c07, "IPMI"}, {0x0c08, "SERCOS"},
    {0x0c09, "CANBUS"}, {0x0c80, "OTHER_0C"}, {0x0d00, "IRDA"}, {0x0d01, "NULL"},
    {0x0d10, "RF"}, {0x0d11, "BLUETOOTH"}, {0x0d12, "BROADBAND"}, {0x0d20, "ETH_802_11A_5G"},
    {0x0d21, "ETH_802_11B_2P4G"}, {0x0d80, "OTHER_0D"}, {0xFFFF, "NULL"},
};

namespace {
struct NameRow {
    uint16_t vendor, device;
    const char* vendorName;
    const char* deviceName;
};
const NameRow pciNameMapping[] = {
    {0x8086, 0x6F0D, "Intel", "NTB"},
    {0x1077, 0x8832, "QLogic", "EP83xx - iSCSI"},
    {0x1077, 0x8830, "QLogic", "EP83xx - NIC"},
    {0x1077, 0x8831, "QLogic", "EP83xx - FCoE"},
    {0x1077, 0x2831, "QLogic", "EP83xx - FC"},
    {0x1000, 0x0097, "LSI", "SAS3008"},
    {0xFFFF, 0xFFFF, "NULL", "NULL"},
};

const char kPciIds[] = "/usr/share/pci.ids";
constexpr size_t kMaxIdLine = 1024;

constexpr ERRORCODE kOpenFileFail = 0xC0000215;
constexpr ERRORCODE kNoDevice = 0xC000022E;
constexpr ERRORCODE kBadParameter1 = 0xC0000205;
constexpr ERRORCODE kInvalidClass = 0xC9080001;
constexpr ERRORCODE kGetBarFail = 0xC9087800;
constexpr ERRORCODE kGetPciInfoFail = 0xC9087C00;
constexpr ERRORCODE kNoDeviceFound = 0x05;
constexpr ERRORCODE kIllegalRequest = 0x201;

// Lines of a text file, each cut to the reader's line limit, without their newline.
bool readLines(const char* path, size_t limit, std::vector<std::string>* lines) {
    std::string text;
    if (quarn::readTextFile(path, &text) != 0) return false;
    for (std::string& line : quarn::splitLines(text, limit - 1)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        lines->push_back(std::move(line));
    }
    return true;
}

bool hexField(const std::string& text, size_t first, size_t count, uint32_t* out) {
    if (text.size() < first + count) return false;
    uint32_t v = 0;
    for (size_t i = first; i < first + count; ++i) {
        const char c = text[i];
        if (!isxdigit(static_cast<unsigned char>(c))) return false;
        v = v * 16 + static_cast<uint32_t>(isdigit(static_cast<unsigned char>(c)) ? c - '0'
                                                                                  : (tolower(c) - 'a' + 10));
    }
    *out = v;
    return true;
}

uint32_t hexPrefix(const std::string& text, size_t first, size_t count) {
    uint32_t v = 0;
    for (size_t i = first; i < first + count && i < text.size(); ++i) {
        const char c = text[i];
        if (!isxdigit(static_cast<unsigned char>(c))) break;
        v = v * 16 + static_cast<uint32_t>(isdigit(static_cast<unsigned char>(c)) ? c - '0'
                                                                                  : (tolower(c) - 'a' + 10));
    }
    return v;
}

std::string from(const std::string& s, size_t column) { return s.size() > column ? s.substr(column) : ""; }
}  // namespace

PCIDDAPI::PCIDDAPI(const char* name)
    : BaseClassDDAPI(name),
      m_table{},
      m_deviceCount(0),
      m_current(nullptr),
      m_access(nullptr),
      m_devices(nullptr),
      m_hostBridge{},
      m_plxBar(0) {
    initialPciInfoStructure(&m_currentInfo);
    MemoryDDAPI* memory = new (std::nothrow) MemoryDDAPI("MemoryDAPI");
    if (!memory) {
        addErrorMsg(0xC9040400 | 0x23A, nullptr);
        return;
    }
    // The memory object's constructor failures (no /dev/mem yet) only matter to the
    // switch-register paths, which report their own access failures.
    deleteErrorMsg(memory->getErrorMsg());
    delete m_memoryDriver;
    m_memoryDriver = memory;
}

PCIDDAPI::~PCIDDAPI() {
    releasePciObject();
    releaseTable();
    releaseScan();
    delete m_memoryDriver;
    m_memoryDriver = nullptr;
}

_PCIInformantion PCIDDAPI::scannedInfo(const device& d) {
    _PCIInformantion info;
    initialPciInfoStructure(&info);
    info.domain = d.dev->domain;
    info.bus = d.dev->bus;
    info.device = d.dev->device;
    info.function = d.dev->function;
    info.vendorID = d.dev->vendorID;
    info.deviceID = d.dev->deviceID;
    return info;
}

void PCIDDAPI::initialPciInfoStructure(_PCIInformantion* info) {
    info->name.clear();
    info->domain = 0xFFFF;
    info->bus = 0xFF;
    info->device = 0xFF;
    info->function = 0x0F;
    info->vendorID = 0xFFFF;
    info->deviceID = 0xFFFF;
    info->classCode = 0xFFFFFFFF;
    info->revisionID = 0xFF;
    info->headerType = 0xFF;
    info->capabilityPointer = 0xFF;
    info->portType = 0xFF;
    info->portNumber = 0xFF;
}

void PCIDDAPI::CreatePCIInfoList() { printf("CreatePCIInfoList\n"); }

void PCIDDAPI::releaseTable() {
    for (size_t i = 0; i < m_deviceCount; ++i) {
        delete m_table[i];
        m_table[i] = nullptr;
    }
    m_deviceCount = 0;
}

void PCIDDAPI::releaseScan() {
    m_common.release_pci_tree(&m_hostBridge);
    m_hostBridge = bridge{};
    m_common.release_device_struct(m_devices);
    m_devices = nullptr;
    m_common.pci_cleanup(m_access);
    m_access = nullptr;
}

void PCIDDAPI::scanDevices(bool sort) {
    releaseScan();
    m_access = m_common.pci_alloc();
    if (!m_access) return;
    m_common.sysfs_init(m_access);
    m_common.sysfs_scan(m_access);
    for (pci_dev* p = m_access->devices; p; p = p->next) {
        device* d = m_common.scan_device(p);
        if (!d) break;
        d->next = m_devices;
        m_devices = d;
    }
    if (sort) {
        std::vector<device*> items;
        for (device* d = m_devices; d; d = d->next) items.push_back(d);
        std::stable_sort(items.begin(), items.end(), [](const device* a, const device* b) {
            const pci_dev* x = a->dev;
            const pci_dev* y = b->dev;
            if (x->domain != y->domain) return x->domain < y->domain;
            if (x->bus != y->bus) return x->bus < y->bus;
            if (x->device != y->device) return x->device < y->device;
            return x->function < y->function;
        });
        for (size_t i = 0; i < items.size(); ++i) items[i]->next = i + 1 < items.size() ? items[i + 1] : nullptr;
        m_devices = items.empty() ? nullptr : items[0];
    }
}

ErrorMsg* PCIDDAPI::getDeviceList(std::vector<_PCIInformantion>* list, bool sort) {
    scanDevices(sort);
    releaseTable();
    for (device* d = m_devices; d; d = d->next) {
        _PCIInformantion info = scannedInfo(*d);
        PCIDevice* dev = new (std::nothrow) PCIDevice(info);
        if (!dev) break;
        info.classCode = dev->GetClassCode() >> 8;
        info.portType = static_cast<uint8_t>(dev->getPortTypeRawData());
        info.portNumber = static_cast<uint8_t>(dev->getPortNumber());
        if (list) list->push_back(info);
        // Functions beyond the table's size are listed but not kept for index queries.
        if (m_deviceCount < kMaxDevices) m_table[m_deviceCount++] = dev;
        else delete dev;
    }
    releaseTable();
    releaseScan();
    return nullptr;
}

ERRORCODE PCIDDAPI::getPciDeviceNameMappingTable() {
    // The table is read afresh on every naming: it holds the list as it is now, and a
    // long-lived object does not grow by a whole pci.ids per call.
    m_names.clear();
    std::vector<std::string> lines;
    if (!readLines(kPciIds, kMaxIdLine, &lines)) {
        printf("fail_to_open_pci.ids");
        return kOpenFileFail;
    }
    for (const std::string& line : lines) {
        if (line.empty() || line[0] == '#' || line[0] == 'C' || line[0] == '\n') continue;
        if (line.size() >= 2 && line[0] == '\t' && line[1] == '\t') continue;
        _PCI_NAME_MAPPING m;
        if (line[0] != '\t') {
            m.vendorID = static_cast<uint16_t>(hexPrefix(line, 0, 4));
            m.deviceID = 0;
            m.vendorName = from(line, 6);
        } else {
            m.vendorID = 0;
            m.deviceID = static_cast<uint16_t>(hexPrefix(line, 1, 4));
            m.deviceName = from(line, 7);
        }
        m_names.push_back(std::move(m));
    }
    return 0;
}

void PCIDDAPI::defineName(_PCIInformantion* info) {
    info->name.clear();
    for (const NameRow* r = pciNameMapping; r->vendor != 0xFFFF; ++r) {
        if (r->vendor == info->vendorID && r->device == info->deviceID) {
            info->name = std::string(r->vendorName) + " " + r->deviceName;
            return;
        }
    }
    char text[40];
    snprintf(text, sizeof(text), "Vendor %04x Device %04x", info->vendorID, info->deviceID);
    info->name = text;
}

void PCIDDAPI::getDevicesName(std::vector<_PCIInformantion>* list) {
    if (!list) return;
    getPciDeviceNameMappingTable();
    for (_PCIInformantion& info : *list) {
        info.name.clear();
        bool named = false;
        size_t i = 0;
        for (; i < m_names.size(); ++i)
            if (!m_names[i].vendorName.empty() && m_names[i].vendorID == info.vendorID) break;
        if (i < m_names.size()) {
            info.name = m_names[i].vendorName;
            for (size_t j = i + 1; j < m_names.size(); ++j) {
                const _PCI_NAME_MAPPING& m = m_names[j];
                if (m.vendorID != 0 && m.vendorID != info.vendorID) break;
                if (m.vendorName.empty() && m.deviceID == info.deviceID) {
                    info.name += " " + m.deviceName;
                    named = true;
                    break;
                }
            }
        }
        if (!named) defineName(&info);
    }
}

ErrorMsg* PCIDDAPI::getPciInfoByClass(PCIClassCode code, std::vector<_PCIInformantion>* out) {
    std::vector<_PCIInformantion> all;
    getDeviceList(&all, false);
    std::vector<_PCIInformantion> found;
    for (const _PCIInformantion& r : all)
        if (r.classCode == code) found.push_back(r);
    if (found.empty()) return returnErrorMsg(kGetPciInfoFail | kNoDeviceFound, nullptr, nullptr);
    getDevicesName(&found);
    if (out) out->insert(out->end(), found.begin(), found.end());
    return nullptr;
}

ERRORCODE PCIDDAPI::getPciClassMappingTable(std::vector<_PCI_CLASS_MAPPING>* table) {
    std::vector<std::string> lines;
    if (!readLines(kPciIds, kMaxIdLine, &lines)) {
        printf("fail_to_open_pci.ids");
        return kOpenFileFail;
    }
    bool inClasses = false;
    _PCI_CLASS_MAPPING current{0, 0, 0, "", "", ""};
    for (const std::string& line : lines) {
        if (line.empty() || line[0] == '#' || line[0] == '\n') continue;
        if (line[0] == 'C') {
            inClasses = true;
            current.classCode = static_cast<uint8_t>(hexPrefix(line, 2, 2));
            current.className = from(line, 6);
        } else if (!inClasses) {
            continue;
        } else if (line[0] == '\t' && (line.size() < 2 || line[1] != '\t')) {
            current.subclass = static_cast<uint8_t>(hexPrefix(line, 1, 2));
            current.subclassName = from(line, 5);
        }
        table->push_back(current);
    }
    return 0;
}

ERRORCODE PCIDDAPI::convertStringToClassCode(std::string text, uint32_t* code) {
    for (char& c : text) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    for (const PCIClassInfo* r = PCIClassInformation; r->code != 0xFFFF; ++r) {
        if (text == r->name) {
            *code = r->code;
            return 0;
        }
    }
    *code = 0xFFFF;
    return kInvalidClass;
}

void PCIDDAPI::showPciDefinedTypes() {
    printf("PCI defined types:\n");
    for (const PCIClassInfo* r = PCIClassInformation; r->code != 0xFFFF; ++r) printf("%s\n", r->name);
}

std::string PCIDDAPI::getClassTypeString(_PFA pfa) {
    std::vector<_PCI_CLASS_MAPPING> table;
    if (getPciClassMappingTable(&table) != 0) return "class unknown";
    createPciObject(pfa);
    const uint32_t cls = m_current ? m_current->GetClassCode() : 0;
    releasePciObject();
    const uint8_t base = static_cast<uint8_t>(cls >> 16);
    const uint8_t sub = static_cast<uint8_t>(cls >> 8);
    size_t i = 0;
    while (i < table.size() && table[i].classCode != base) ++i;
    for (size_t j = i + 1; j < table.size(); ++j)
        if (table[j].subclass == sub) return table[j].subclassName;
    return "class undefined";
}

void PCIDDAPI::createPciObject(_PFA pfa) {
    releasePciObject();
    initialPciInfoStructure(&m_currentInfo);
    m_currentInfo.name = "NULL";
    m_currentInfo.domain = pfa.domain;
    m_currentInfo.bus = pfa.bus;
    m_currentInfo.device = pfa.device;
    m_currentInfo.function = pfa.function;
    m_currentInfo.vendorID = 0;
    m_currentInfo.deviceID = 0;
    m_current = new (std::nothrow) PCIDevice(m_currentInfo);
    if (m_current) {
        m_currentInfo.vendorID = m_current->GetVendorID();
        m_currentInfo.deviceID = m_current->GetDeviceID();
    }
}

void PCIDDAPI::releasePciObject() {
    delete m_current;
    m_current = nullptr;
}

bool PCIDDAPI::isIntelNtb() const {
    return m_currentInfo.vendorID == 0x8086 && m_currentInfo.deviceID == 0x6F0D;
}

std::string PCIDDAPI::getPortTypeString(_PFA pfa) {
    createPciObject(pfa);
    std::string text = m_current ? m_current->getPortTypeString() : "PCI";
    releasePciObject();
    return text;
}

bool PCIDDAPI::getLinkStatus(PCIDevice& dev) {
    if (dev.GetVendorID() == 0x8086 && dev.GetDeviceID() == 0x6F0D)
        return (dev.ConfigReadWord(418) >> 13) & 1;
    return dev.LinkStatus();
}

std::string PCIDDAPI::getLinkStatus(_PFA pfa) {
    createPciObject(pfa);
    const bool up = m_current && getLinkStatus(*m_current);
    releasePciObject();
    return up ? "Up" : "Down";
}

uint32_t PCIDDAPI::getLinkWidth(PCIDevice& dev, _DATA_TYPE type) {
    if (dev.GetVendorID() == 0x8086 && dev.GetDeviceID() == 0x6F0D) {
        if (type == PCI_CURRENT_LINK_WIDTH) return (dev.ConfigReadWord(418) >> 4) & 0x3F;
        if (type == PCI_MAX_LINK_WIDTH) return (dev.ConfigReadWord(412) >> 4) & 0x3F;
        return 0xFFFFFFFF;
    }
    if (type == PCI_CURRENT_LINK_WIDTH) return dev.GetCurrentLinkWidth();
    if (type == PCI_MAX_LINK_WIDTH) return dev.GetMaxLinkWidth();
    return 0xFFFFFFFF;
}

float PCIDDAPI::getLinkSpeed(PCIDevice& dev, _DATA_TYPE type) { return readableSpeed(dev, type); }

float PCIDDAPI::readableSpeed(PCIDevice& dev, _DATA_TYPE type) {
    if (type != PCI_CURRENT_LINK_SPEED && type != PCI_MAX_LINK_SPEED) return 255.0f;
    if (dev.GetVendorID() == 0x8086 && dev.GetDeviceID() == 0x6F0D)
        return PCIDevice::decodeLinkSpeed(dev.ConfigReadWord(type == PCI_CURRENT_LINK_SPEED ? 418 : 412));
    if (!dev.IsPCIe()) return 255.0f;
    return type == PCI_CURRENT_LINK_SPEED ? dev.GetCurrentLinkSpeed() : dev.GetMaxLinkSpeed();
}

namespace {
uint32_t dataOf(PCIDDAPI* self, PCIDevice& d, _DATA_TYPE type) {
    switch (type) {
    case PCI_DOMAIN: return d.GetDomain();
    case PCI_BUS: return d.GetBus();
    case PCI_DEVICE: return d.GetDevice();
    case PCI_FUNCTION: return d.GetFunction();
    case PCI_VENDOR_ID: return d.GetVendorID();
    case PCI_DEVICE_ID: return d.GetDeviceID();
    case PCI_CLASS_CODE: return d.GetClassCode();
    case PCI_REVISION_ID:
    case PCI_REVISION: return d.GetRevisionID();
    case PCI_CURRENT_LINK_WIDTH:
    case PCI_MAX_LINK_WIDTH: return self->getLinkWidth(d, type);
    case PCI_PORT_TYPE: return d.getPortTypeRawData();
    case PCI_PORT_NUMBER: return d.getPortNumber();
    default: return 0xFFFFFFFF;
    }
}
}  // namespace

uint32_t PCIDDAPI::GetDataByBDF(_PFA pfa, _DATA_TYPE type) {
    createPciObject(pfa);
    const uint32_t v = m_current ? dataOf(this, *m_current, type) : 0xFFFFFFFF;
    releasePciObject();
    return v;
}

uint32_t PCIDDAPI::GetDataByID(uint32_t index, _DATA_TYPE type) {
    if (index >= m_deviceCount) return 0xFFFFFFFF;
    return dataOf(this, *m_table[index], type);
}

float PCIDDAPI::GetFloatDataByID(_PFA pfa, _DATA_TYPE type) {
    createPciObject(pfa);
    const float v = m_current ? readableSpeed(*m_current, type) : 255.0f;
    releasePciObject();
    return v;
}

std::string PCIDDAPI::GetDeviceNameByID(uint32_t index) {
    if (index >= m_deviceCount) return "";
    return m_table[index]->GetDeviceName();
}

uint8_t PCIDDAPI::ConfigReadByte(uint32_t index, uint32_t offset) {
    if (index >= m_deviceCount) return 0;
    return m_table[index]->ConfigReadByte(offset);
}

uint16_t PCIDDAPI::ConfigReadWord(_PFA p, uint32_t offset) {
    return m_common.ConfigReadWord(p.domain, p.bus, p.device, p.function, offset);
}

uint32_t PCIDDAPI::ConfigReadDword(_PFA p, uint32_t offset) {
    return m_common.ConfigReadDword(p.domain, p.bus, p.device, p.function, offset);
}

int PCIDDAPI::ConfigWriteByte(_PFA p, uint32_t offset, uint8_t value) {
    return m_common.ConfigWriteByte(p.domain, p.bus, p.device, p.function, offset, value);
}

int PCIDDAPI::ConfigWriteWord(_PFA p, uint32_t offset, uint16_t value) {
    return m_common.ConfigWriteWord(p.domain, p.bus, p.device, p.function, offset, value);
}

int PCIDDAPI::ConfigWriteDword(_PFA p, uint32_t offset, uint32_t value) {
    return m_common.ConfigWriteDword(p.domain, p.bus, p.device, p.function, offset, value);
}

// Finds the upstream switch port and caches its register window: every port's
// configuration space is mirrored there, 4 KB per port number.
void PCIDDAPI::readSwitchBar() {
    scanDevices(false);
    releaseTable();
    m_plxBar = 0;
    for (device* d = m_devices; d; d = d->next) {
        _PCIInformantion info = scannedInfo(*d);
        PCIDevice dev(info);
        if (dev.getPortTypeRawData() != 5) continue;
        const uint32_t low = dev.ConfigReadDword(16);
        const uint32_t high = dev.ConfigReadDword(20);
        // The BAR's type bits are not part of the address.
        m_plxBar = (static_cast<unsigned long long>(high) << 32) | (low & 0xFFFFFFF0u);
        break;
    }
    releaseScan();
}

// Ranges stay inside the 4 KB configuration space: beyond it the loop would wrap, or
// the switch route would reach the next port's registers.
constexpr uint32_t kConfigSpaceSize = 4096;

void PCIDDAPI::ConfigReadByte(_PFA pfa, uint32_t first, uint32_t last, uint8_t* buffer) {
    if (!buffer || last < first || last >= kConfigSpaceSize) return;
    createPciObject(pfa);
    const bool plx = m_currentInfo.vendorID == 0x10B5;
    const uint32_t port = (plx && m_current) ? m_current->getPortNumber() : 0;
    releasePciObject();
    // Without an upstream port there is no window: its slices would start at physical
    // address 0. The port's own configuration file is used instead.
    if (plx && m_memoryDriver) readSwitchBar();
    if (plx && m_memoryDriver && m_plxBar != 0) {
        const unsigned long long base = m_plxBar + ((static_cast<unsigned long long>(port) << 12) & 0xFF000);
        for (uint32_t i = first; i <= last; ++i) buffer[i - first] = m_memoryDriver->read8(base + i);
        deleteErrorMsg(m_memoryDriver->getErrorMsg());
        return;
    }
    for (uint32_t i = first; i <= last; ++i)
        buffer[i - first] = m_common.ConfigReadByte(pfa.domain, pfa.bus, pfa.device, pfa.function, i);
}

void PCIDDAPI::ConfigWriteByte(_PFA pfa, uint32_t offset, uint8_t* data, uint32_t length) {
    if (!data || offset >= kConfigSpaceSize || length > kConfigSpaceSize - offset) return;
    createPciObject(pfa);
    const bool plx = m_currentInfo.vendorID == 0x10B5;
    const uint32_t port = (plx && m_current) ? m_current->getPortNumber() : 0;
    releasePciObject();
    if (plx && m_memoryDriver) readSwitchBar();
    if (plx && m_memoryDriver && m_plxBar != 0) {
        const unsigned long long base = m_plxBar + ((static_cast<unsigned long long>(port) << 12) & 0xFF000);
        for (uint32_t i = 0; i < length; ++i)
            deleteErrorMsg(m_memoryDriver->write(base + offset + i, static_cast<unsigned char>(data[i])));
        return;
    }
    for (uint32_t i = 0; i < length; ++i)
        m_common.ConfigWriteByte(pfa.domain, pfa.bus, pfa.device, pfa.function, offset + i, data[i]);
}

bool PCIDDAPI::isPCIe(_PFA pfa) {
    createPciObject(pfa);
    const bool yes = m_current && m_current->IsPCIe();
    releasePciObject();
    return yes;
}

ERRORCODE PCIDDAPI::checkPresenceOfDevice(_PFA p) {
    char path[96];
    PCICommonFunction::configPath(path, sizeof(path), p.domain, p.bus, p.device, p.function);
    const int fd = quarn::platform().open(path, O_RDONLY);
    if (fd < 0) return kNoDevice;
    quarn::platform().close(fd);
    return 0;
}

// Accepts "bb:dd.f" and "dddd:bb:dd.f" with exactly these widths; anything shorter,
// or with a non-hexadecimal digit or a misplaced separator, is a bad parameter rather
// than an address read out of whatever the text holds.
ERRORCODE PCIDDAPI::convertStringToBDF(std::string text, _PFA* pfa) {
    if (!pfa) return kBadParameter1;
    if (text.find(':') == 2) text = "0000:" + text;
    uint32_t d, b, dev, f;
    if (text.size() < 12 || text[4] != ':' || text[7] != ':' || text[10] != '.' ||
        !hexField(text, 0, 4, &d) || !hexField(text, 5, 2, &b) || !hexField(text, 8, 2, &dev) ||
        !hexField(text, 11, 1, &f) || dev > 0x1F || f > 7)
        return kBadParameter1;
    pfa->domain = static_cast<uint16_t>(d);
    pfa->bus = static_cast<uint16_t>(b);
    pfa->device = static_cast<uint16_t>(dev);
    pfa->function = static_cast<uint8_t>(f);
    pfa->spare = 0;
    return 0;
}

void PCIDDAPI::createPFA(_PCIInformantion* info, _PFA* pfa) {
    pfa->domain = info->domain;
    pfa->bus = info->bus;
    pfa->device = info->device;
    pfa->function = info->function;
    pfa->spare = 0;
}

ErrorMsg* PCIDDAPI::getBarByBDF(_PFA pfa, uint32_t index, uint32_t* base, uint32_t* size) {
    if (base) *base = 0;
    if (size) *size = 0;
    const ERRORCODE present = checkPresenceOfDevice(pfa);
    if (present != 0) return returnErrorMsg(kGetBarFail | present, nullptr, nullptr);
    createPciObject(pfa);
    std::vector<uint32_t> bars;
    if (m_current) m_current->GetBARList(&bars);
    if (index >= bars.size()) {
        releasePciObject();
        return returnErrorMsg(kGetBarFail | kIllegalRequest, nullptr, nullptr);
    }
    const uint32_t offset = 16 + 4 * index;
    const uint32_t saved = m_current->ConfigReadDword(offset);
    m_current->ConfigWriteDword(offset, 0xFFFFFFFF);
    const uint32_t probe = m_current->ConfigReadDword(offset);
    m_current->ConfigWriteDword(offset, saved);
    releasePciObject();
    // The type bits are cleared before the complement, or they would show in the size.
    if (size) *size = ~(probe & ~0xFu) + 1;
    if (base) *base = bars[index] & ~0xFu;
    return nullptr;
}

ErrorMsg* PCIDDAPI::getBarByBDF(uint16_t domain, uint16_t bus, uint16_t device, uint8_t function,
                                uint32_t index, uint32_t* base) {
    _PFA pfa{domain, bus, device, function, 0};
    uint32_t size = 0;
    return getBarByBDF(pfa, index, base, &size);
}

ErrorMsg* PCIDDAPI::scanDevicesFromIO(std::vector<_PCIInformantion>* list) {
    quarn::Platform& p = quarn::platform();
    if (p.iopl(3) != 0) return returnErrorMsg(kGetBarFail, "iopl fail", nullptr);
    auto readPort = [&p](uint32_t bus, uint32_t dev, uint32_t fn, uint32_t reg) {
        p.outl(0x80000000u | bus << 16 | dev << 11 | fn << 8 | reg, 0xCF8);
        return p.inl(0xCFC);
    };
    for (uint32_t bus = 0; bus < 256; ++bus) {
        for (uint32_t dev = 0; dev < 32; ++dev) {
            for (uint32_t fn = 0; fn < 8; ++fn) {
                const uint32_t id = readPort(bus, dev, fn, 0);
                if (id == 0xFFFFFFFF) continue;
                // The header fields are read by the same mechanism: a function the
                // kernel does not list has no sysfs config file to read them from.
                const uint32_t classRev = readPort(bus, dev, fn, 8);
                const uint32_t header = readPort(bus, dev, fn, 12);
                const uint32_t capPtr = readPort(bus, dev, fn, 52);
                _PCIInformantion info;
                initialPciInfoStructure(&info);
                info.domain = 0;
                info.bus = static_cast<uint16_t>(bus);
                info.device = static_cast<uint16_t>(dev);
                info.function = static_cast<uint8_t>(fn);
                info.vendorID = static_cast<uint16_t>(id & 0xFFFF);
                info.deviceID = static_cast<uint16_t>(id >> 16);
                info.classCode = classRev >> 8;
                info.revisionID = static_cast<uint8_t>(classRev & 0xFF);
                info.headerType = static_cast<uint8_t>((header >> 16) & 0xFF);
                info.capabilityPointer = static_cast<uint8_t>(capPtr & 0xFF);
                if (list) list->push_back(info);
            }
        }
    }
    p.iopl(0);
    return nullptr;
}

bool PCIDDAPI::isNtbDevice(uint16_t vendorID, uint16_t deviceID) {
    if (vendorID == 0x8086 && deviceID == 0x6F0D) return true;
    return vendorID == 0x10B5 && (deviceID == 0x87B0 || deviceID == 0x87B1);
}

bool PCIDDAPI::isNtbDevice(_PFA pfa) {
    const uint16_t v = ConfigReadWord(pfa, 0);
    const uint16_t d = ConfigReadWord(pfa, 2);
    return isNtbDevice(v, d);
}

bool PCIDDAPI::isSpecialPort(_PFA pfa) {
    if (pfa.domain == 0xFFFF) return true;
    const uint16_t v = ConfigReadWord(pfa, 0);
    const uint16_t d = ConfigReadWord(pfa, 2);
    return isNtbDevice(v, d) || (v == 0x10B5 && d == 0x87D0);
}

unsigned long long PCIDDAPI::getPlxNtbLinkSideBase() {
    if (!m_current) return 0;
    const unsigned long long bar0 = m_current->ConfigReadDword(0x10) & ~0xFull;
    return bar0 + (m_current->GetDeviceID() == 0x87B0 ? 0x3F000 : 0x3D000);
}
