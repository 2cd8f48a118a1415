// PCI diagnostic layer: argument checks, reports and the wrapping of device-layer errors.
#include "dapi/pci/PCIDAPI.h"

#include <cstdio>
#include <new>
#include <string>

#include "ddapi/pci/PCIDDAPI.h"

namespace {
constexpr ERRORCODE kPCIErrorReport = 0xC9042000;
constexpr ERRORCODE kPCIResetStatistics = 0xC9042800;
constexpr ERRORCODE kReadConfig = 0xC9040800;
constexpr ERRORCODE kConvertClass = 0xC9048000;
constexpr ERRORCODE kScanDevicesFromIO = 0xC9048400;
constexpr ERRORCODE kShowSpecificErrors = 0xC9048800;
constexpr ERRORCODE kGetSwitchErrors = 0xC9049000;
constexpr ERRORCODE kGetSwitchList = 0xC9049400;
constexpr ERRORCODE kShowSwitchErrors = 0xC9049800;
constexpr ERRORCODE kGetSwitchPorts = 0xC9049C00;
constexpr ERRORCODE kNotSupported = 0x235;
constexpr ERRORCODE kBadParameter1 = 0x205;
constexpr ERRORCODE kNoDevice = 0x22E;
constexpr size_t kRows = 18;
constexpr size_t kColumns = 20;
constexpr size_t kConfigSpace = 4096;

bool samePlace(const _PCIInformantion& a, const _PCIInformantion& b) {
    return a.domain == b.domain && a.bus == b.bus && a.device == b.device && a.function == b.function;
}
}  // namespace

PCIDAPI::PCIDAPI(const char* name) : BaseClassDAPI(name), m_device(nullptr) {
    m_device = new (std::nothrow) PCIDDAPI("PCIDDAPI");
    if (!m_device) {
        addErrorMsg(0xC9040400 | 0x23A, nullptr);
        return;
    }
    if (ErrorMsg* e = m_device->getErrorMsg()) addErrorMsg(0xC9040400, nullptr, e);
}

PCIDAPI::~PCIDAPI() { delete m_device; }

ErrorMsg* PCIDAPI::getDevices(std::vector<_PCIInformantion>* list) {
    if (!m_device || !list) return nullptr;
    m_device->getDeviceList(list, true);
    m_device->getDevicesName(list);
    return nullptr;
}

ErrorMsg* PCIDAPI::scanHiddenDevices(uint16_t domain, std::vector<_PCIInformantion>* out) {
    if (domain != 0) return returnErrorMsg(kScanDevicesFromIO | kNotSupported, nullptr, nullptr);
    std::vector<_PCIInformantion> listed, probed;
    getDevices(&listed);
    if (ErrorMsg* e = m_device->scanDevicesFromIO(&probed))
        return returnErrorMsg(kScanDevicesFromIO, nullptr, e);
    std::vector<_PCIInformantion> hidden;
    for (const _PCIInformantion& p : probed) {
        bool seen = false;
        for (const _PCIInformantion& l : listed)
            if (samePlace(p, l)) seen = true;
        if (!seen) hidden.push_back(p);
    }
    m_device->getDevicesName(&hidden);
    if (out) out->insert(out->end(), hidden.begin(), hidden.end());
    return nullptr;
}

ErrorMsg* PCIDAPI::convertStringToClassCode(std::string text, uint32_t* code) {
    uint32_t scratch;
    if (m_device->convertStringToClassCode(text, code ? code : &scratch) != 0)
        return returnErrorMsg(kConvertClass, "invalid class string", nullptr);
    return nullptr;
}

// Ranges are checked against the 4 KB configuration space: the buffer is the caller's,
// sized from first and last.
ErrorMsg* PCIDAPI::readConfig(_PFA pfa, uint32_t first, uint32_t last, uint8_t* buffer) {
    if (!buffer || first > last || last >= kConfigSpace)
        return returnErrorMsg(kReadConfig | kBadParameter1, "offset out of configuration space", nullptr);
    if (m_device->checkPresenceOfDevice(pfa) != 0)
        return returnErrorMsg(kReadConfig | kNoDevice, nullptr, nullptr);
    m_device->ConfigReadByte(pfa, first, last, buffer);
    return nullptr;
}

ErrorMsg* PCIDAPI::writeConfig(_PFA pfa, uint32_t offset, uint8_t* data, uint32_t length) {
    if (!data || offset >= kConfigSpace || length > kConfigSpace - offset)
        return returnErrorMsg(kReadConfig | kBadParameter1, "offset out of configuration space", nullptr);
    if (m_device->checkPresenceOfDevice(pfa) != 0)
        return returnErrorMsg(kReadConfig | kNoDevice, nullptr, nullptr);
    m_device->ConfigWriteByte(pfa, offset, data, length);
    return nullptr;
}

ErrorMsg* PCIDAPI::ConfigWriteByte(_PFA pfa, uint32_t offset, uint8_t value) {
    m_device->ConfigWriteByte(pfa, offset, value);
    return nullptr;
}
ErrorMsg* PCIDAPI::ConfigWriteWord(_PFA pfa, uint32_t offset, uint16_t value) {
    m_device->ConfigWriteWord(pfa, offset, value);
    return nullptr;
}
ErrorMsg* PCIDAPI::ConfigWriteDword(_PFA pfa, uint32_t offset, uint32_t value) {
    m_device->ConfigWriteDword(pfa, offset, value);
    return nullptr;
}

bool PCIDAPI::isPCIe(_PFA pfa) { return m_device->isPCIe(pfa); }
ERRORCODE PCIDAPI::checkPresenceOfDevice(_PFA pfa) { return m_device->checkPresenceOfDevice(pfa); }
uint32_t PCIDAPI::GetDataByBDF(_PFA pfa, _DATA_TYPE type) { return m_device->GetDataByBDF(pfa, type); }
float PCIDAPI::GetReadableSpeed(_PFA pfa, _DATA_TYPE type) { return m_device->GetFloatDataByID(pfa, type); }
void PCIDAPI::showPciDefinedTypes() { m_device->showPciDefinedTypes(); }

std::string PCIDAPI::getReadableStringByBDF(_PFA pfa, _DATA_TYPE type) {
    switch (type) {
    case PCI_CLASS_TEXT: return m_device->getClassTypeString(pfa);
    case PCI_PORT_TYPE: return m_device->getPortTypeString(pfa);
    case PCI_LINK_STATUS: return m_device->getLinkStatus(pfa);
    default: return "null";
    }
}

ErrorMsg* PCIDAPI::getErrorStatistics(_PFA pfa, _PCI_ERROR_TYPE family, std::list<_PCI_ERROR>* out) {
    std::list<_PCI_ERROR> scratch;
    const ERRORCODE code = m_device->getErrorStatistics(pfa, family, out ? out : &scratch);
    if (code != 0) return returnErrorMsg(code | kPCIErrorReport, nullptr, nullptr);
    return nullptr;
}

void PCIDAPI::showErrors(std::list<_PCI_ERROR> errors, _PCI_ERROR_TYPE family, bool summary) {
    if (summary) {
        const char* title = family == PCI_COMPATIBLE_ERROR ? "PCI-Compatible Error Statistics"
                            : family == PCIE_CAPABILITY_ERROR ? "PCIE Error Statistics"
                                                              : "PCIE AER Statistics";
        uint32_t sum = 0;
        for (const _PCI_ERROR& e : errors) sum += e.value;
        printf("%s: 0x%x\n", title, sum);
        return;
    }
    printf("%s\n", family == PCI_COMPATIBLE_ERROR ? "==== PCI-compatible ===="
                   : family == PCIE_CAPABILITY_ERROR ? "==== PCIE ===="
                                                     : "==== AER ====");
    for (const _PCI_ERROR& e : errors) {
        if (family == PCIE_AER_ERROR) printf("%s: 0x%08x\n", e.name.c_str(), e.value);
        else printf("%s: %u\n", e.name.c_str(), e.value);
    }
}

ErrorMsg* PCIDAPI::showErrorStatistics(_PFA pfa, _PCI_ERROR_TYPE family, bool summary) {
    std::list<_PCI_ERROR> errors;
    if (ErrorMsg* e = getErrorStatistics(pfa, family, &errors))
        return returnErrorMsg(kShowSpecificErrors, nullptr, e);
    showErrors(errors, family, summary);
    return nullptr;
}

ErrorMsg* PCIDAPI::showPlxNtbErrorStatistics(_PFA pfa, _PCI_ERROR_TYPE family, bool summary, uint8_t side) {
    if (side != 3) return showErrorStatistics(pfa, family, summary);
    std::list<_PCI_ERROR> errors;
    const ERRORCODE code = m_device->getPlxNtbLinkSideErrorStatistics(pfa, family, &errors);
    if (code != 0)
        return returnErrorMsg(kShowSpecificErrors, nullptr,
                              returnErrorMsg(code | kPCIErrorReport, nullptr, nullptr));
    showErrors(errors, family, summary);
    return nullptr;
}

ErrorMsg* PCIDAPI::clearErrors(_PFA pfa) {
    const uint16_t vendor = m_device->ConfigReadWord(pfa, 0);
    const uint16_t device = m_device->ConfigReadWord(pfa, 2);
    if (vendor == 0x10B5 && (device == 0x87B0 || device == 0x87B1)) {
        m_device->clearErrors(pfa);
        m_device->clearPlxNtbLinkSideErrors(pfa);
        return nullptr;
    }
    const ERRORCODE code = m_device->clearErrors(pfa);
    if (code != 0) return returnErrorMsg(code | kPCIResetStatistics, nullptr, nullptr);
    return nullptr;
}

ErrorMsg* PCIDAPI::collectSwitch(ERRORCODE function, const std::string& switchID,
                                 std::vector<_PORT_ERROR>* out, _SWITCH_UNIT* unitOut) {
    std::vector<_SWITCH_UNIT> units;
    uint32_t count = 0;
    if (ErrorMsg* e = m_device->getPCIeSwitchList(&units, &count))
        return returnErrorMsg(function, nullptr, e);
    if (units.empty()) return returnErrorMsg(function, "No switch is found", nullptr);
    for (_SWITCH_UNIT& unit : units) {
        if (unit.switchID != switchID) continue;
        m_device->getDownstreamPorts(&unit);
        if (unitOut) *unitOut = unit;
        if (ErrorMsg* e = m_device->getPortErrorList(unit, out)) return returnErrorMsg(function, nullptr, e);
        return nullptr;
    }
    return returnErrorMsg(function, "Invalid switch name", nullptr);
}

ErrorMsg* PCIDAPI::getSwitchPortsInformation(std::string switchID, std::vector<_PORT_ERROR>* out) {
    return collectSwitch(kGetSwitchPorts, switchID, out, nullptr);
}

ErrorMsg* PCIDAPI::getSwitchErrorStatistics(std::string switchID, std::vector<_PORT_ERROR>* out) {
    _SWITCH_UNIT unit;
    const size_t before = out->size();
    if (ErrorMsg* e = collectSwitch(kGetSwitchErrors, switchID, out, &unit)) return e;
    const _PFA& u = unit.upstreamPort;
    printf("upstream port: %04x:%02x:%02x.%x\n", u.domain, u.bus, u.device, u.function);
    for (const _PFA& p : unit.downstreamPorts) printf("%04x:%02x:%02x.%x\n", p.domain, p.bus, p.device, p.function);
    printf("%s\n", std::string(44, '-').c_str());
    for (size_t i = before; i < out->size(); ++i) {
        const _PFA& p = (*out)[i].port;
        printf("%04x:%02x:%02x.%x\n", p.domain, p.bus, p.device, p.function);
        for (const _PCI_ERROR& e : (*out)[i].errors) printf("%s: 0x%x\n", e.name.c_str(), e.value);
    }
    return nullptr;
}

ErrorMsg* PCIDAPI::clearPCIeSwitchPortErrors(std::string switchID) {
    std::vector<_PORT_ERROR> records;
    if (ErrorMsg* e = getSwitchPortsInformation(switchID, &records))
        return returnErrorMsg(kShowSwitchErrors, nullptr, e);
    for (const _PORT_ERROR& r : records) {
        // The link-side record has no address of its own; its NT port's clear covers it.
        if (r.port.domain == 0xFFFF) continue;
        if (ErrorMsg* e = clearErrors(r.port)) deleteErrorMsg(e);
    }
    return nullptr;
}

void PCIDAPI::showSwitchPciErrors(std::vector<_PORT_ERROR> ports, std::vector<std::string> portNames,
                                  std::vector<std::string> errorNames, uint32_t table[][20]) {
    printf("=============================== PCI-compatible ==============================\n");
    printf("%28s:", "Port");
    for (const std::string& n : portNames) printf("%8s", n.c_str());
    printf("\n");
    for (size_t row = 0; row < 12 && row < errorNames.size(); ++row) {
        printf("%28s:", errorNames[row].c_str());
        for (size_t c = 0; c < portNames.size() && c < kColumns; ++c) {
            if (table[row][c] == 0xFFFF) printf("       -");
            else printf("%8x", table[row][c]);
        }
        printf("\n");
    }
}

void PCIDAPI::showSwitchPCIeErrors(std::vector<_PORT_ERROR> ports, std::vector<std::string> portNames,
                                   std::vector<std::string> errorNames, uint32_t table[][20]) {
    printf("==================================== PCIE ===================================\n");
    printf("%26s:", "Port");
    for (const std::string& n : portNames) printf("%8s", n.c_str());
    printf("\n");
    for (size_t row = 12; row < 16 && row < errorNames.size(); ++row) {
        printf("%26s:", errorNames[row].c_str());
        for (size_t c = 0; c < portNames.size() && c < kColumns; ++c) printf("%8x", table[row][c]);
        printf("\n");
    }
}

void PCIDAPI::showSwitchAerErrors(std::vector<_PORT_ERROR> ports, std::vector<std::string> portNames,
                                  std::vector<std::string> errorNames, uint32_t table[][20]) {
    printf("==================================== AER ====================================\n");
    printf("%24s:", "Port");
    for (const std::string& n : portNames) printf("%11s", n.c_str());
    printf("\n");
    for (size_t row = 16; row < 18 && row < errorNames.size(); ++row) {
        printf("%24s:", errorNames[row].c_str());
        for (size_t c = 0; c < portNames.size() && c < kColumns; ++c) printf(" 0x%08x", table[row][c]);
        printf("\n");
    }
}

ErrorMsg* PCIDAPI::showSwitchErrorStatistics(std::string switchID, _PCI_ERROR_TYPE family) {
    std::vector<_PORT_ERROR> records;
    if (ErrorMsg* e = getSwitchPortsInformation(switchID, &records))
        return returnErrorMsg(kShowSwitchErrors, nullptr, e);
    std::vector<std::string> names;
    m_device->getPortNameString(records, &names);
    // Column order is the name order: ordinary ports first, then the special ones.
    std::vector<const _PORT_ERROR*> ordinary, special;
    for (const _PORT_ERROR& r : records)
        (m_device->isSpecialPort(r.port) ? special : ordinary).push_back(&r);
    std::vector<const _PORT_ERROR*> columns = ordinary;
    columns.insert(columns.end(), special.begin(), special.end());
    // A switch with more ports than columns shows its first 20 (the table's width).
    if (columns.size() > kColumns) columns.resize(kColumns);
    if (names.size() > kColumns) names.resize(kColumns);

    std::vector<std::string> errorNames;
    for (int t = DETECTED_PARITY_ERROR; t <= CORRECTABLE_ERROR_STATUS; ++t) {
        if (t >= UNSUPPORTED_REQUEST_DETECTED) {
            _PCI_ERROR e = m_device->getSingleBitPCIeError(0, static_cast<_PCI_ERROR_TYPE>(t));
            if (t >= UNCORRECTABLE_ERROR_STATUS)
                e.name = t == UNCORRECTABLE_ERROR_STATUS ? "UncorrectableErrorStatus" : "CorrectableErrorStatus";
            errorNames.push_back(e.name);
        } else {
            errorNames.push_back(m_device->getSingleBitPciStatusError(0, static_cast<_PCI_ERROR_TYPE>(t)).name);
        }
    }
    uint32_t table[kRows][kColumns];
    for (auto& row : table)
        for (uint32_t& cell : row) cell = 0xFFFF;
    for (size_t c = 0; c < columns.size(); ++c) {
        const bool isSpecial = c >= ordinary.size();
        size_t i = 0;
        for (const _PCI_ERROR& e : columns[c]->errors) {
            const size_t row = (isSpecial && i >= 6) ? i + 6 : i;
            if (row < kRows) table[row][c] = e.value;
            ++i;
        }
    }
    switch (family) {
    case PCI_COMPATIBLE_ERROR: showSwitchPciErrors(records, names, errorNames, table); break;
    case PCIE_CAPABILITY_ERROR: showSwitchPCIeErrors(records, names, errorNames, table); break;
    case PCIE_AER_ERROR: showSwitchAerErrors(records, names, errorNames, table); break;
    default:
        showSwitchPciErrors(records, names, errorNames, table);
        showSwitchPCIeErrors(records, names, errorNames, table);
        showSwitchAerErrors(records, names, errorNames, table);
        break;
    }
    return nullptr;
}

ErrorMsg* PCIDAPI::displayHBAs() {
    std::vector<_SLOT_INFO> slots;
    m_device->scanSlot(&slots);
    printf("slot %-10s%-15s%-9s%-22s\n", "speed", "width", "name", "description");
    printf("%s\n", std::string(78, '-').c_str());
    int number = 1;
    for (const _SLOT_INFO& s : slots) {
        printf("%-10d", number++);
        if (s.port.spare) {
            char speed[32], width[16];
            snprintf(speed, sizeof(speed), "%.1f(GT/s)", m_device->GetFloatDataByID(s.port, PCI_CURRENT_LINK_SPEED));
            snprintf(width, sizeof(width), "x%u", m_device->GetDataByBDF(s.port, PCI_CURRENT_LINK_WIDTH));
            printf("%-15s%-10s%-15s%-15s(%s)\n", speed, width, s.hbaName.c_str(), s.hbaDescription.c_str(),
                   s.slotName.c_str());
        } else {
            printf("%-15s%-10s%-15s%-15s(%s)\n", "-", "-", "-", "-", s.slotName.c_str());
        }
    }
    return nullptr;
}

ErrorMsg* PCIDAPI::getPCIeSwitchList(std::vector<_SWITCH_UNIT>* units, uint32_t* count) {
    if (ErrorMsg* e = m_device->getPCIeSwitchList(units, count)) return returnErrorMsg(kGetSwitchList, nullptr, e);
    return nullptr;
}
