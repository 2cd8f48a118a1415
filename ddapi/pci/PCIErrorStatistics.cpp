// PCI device layer: reading, naming and clearing the error registers of one function,
// of both sides of a PLX non-transparent bridge and of all ports of a switch.
#include <cstdio>

#include "ddapi/memory/MemoryDDAPI.h"
#include "ddapi/pci/PCIDDAPI.h"

namespace {
constexpr ERRORCODE kCapabilityUnsupported = 0xC9080003;
constexpr ERRORCODE kGetNtbDevice = 0xC9089000;
constexpr ERRORCODE kGetPortErrorList = 0xC9089400;
constexpr uint32_t kPcieCapability = 0x10;
constexpr uint32_t kAerCapability = 0x01;
constexpr uint16_t kStatusErrorBits = 0xF900;
constexpr uint16_t kDeviceStatusErrorBits = 0x000F;
// The Intel NTB keeps its AER status registers at fixed offsets.
constexpr uint32_t kIntelNtbUncorrectable = 332;
constexpr uint32_t kIntelNtbCorrectable = 344;

struct BitName {
    int bit;
    const char* name;
};
const BitName kStatusBits[12] = {
    {15, "DetectedParityError"}, {14, "SignaledSystemError"}, {13, "ReceivedMasterAbort"},
    {12, "ReceivedTargetAbort"}, {11, "SignaledTargetAbort"}, {8, "MasterDataParityError"},
    {15, "SecondaryDetectedParityError"}, {14, "ReceivedSystemError"},
    {13, "SecondaryReceivedMasterAbort"}, {12, "SecondaryReceivedTargetAbort"},
    {11, "SecondarySignaledTargetAbort"}, {8, "SecondaryMasterDataParityError"},
};
const BitName kDeviceStatusBits[4] = {
    {3, "UnsupportedRequestDetected"}, {2, "FatalErrorDetected"},
    {1, "NonFatalErrorDetected"}, {0, "CorrectableErrorDetected"},
};

_PCI_ERROR blank() { return {" ", 0}; }
const char* aerName(_PCI_ERROR_TYPE t) {
    return t == UNCORRECTABLE_ERROR_STATUS ? "UncorrectableErrorStatus" : "CorrectableErrorStatus";
}
}  // namespace

_PCI_ERROR PCIDDAPI::getSingleBitPciStatusError(uint16_t status, _PCI_ERROR_TYPE type) {
    if (type < DETECTED_PARITY_ERROR || type > SECONDARY_MASTER_DATA_PARITY_ERROR) return blank();
    const BitName& b = kStatusBits[type - DETECTED_PARITY_ERROR];
    return {b.name, static_cast<uint32_t>((status >> b.bit) & 1)};
}

_PCI_ERROR PCIDDAPI::getPciCompatibleErrorStatistics(_PCI_ERROR_TYPE type) {
    if (!m_current) return blank();
    const uint32_t reg = type <= MASTER_DATA_PARITY_ERROR ? 6 : 30;
    return getSingleBitPciStatusError(m_current->ConfigReadWord(reg), type);
}

_PCI_ERROR PCIDDAPI::getSingleBitPCIeError(uint16_t status, _PCI_ERROR_TYPE type) {
    if (type < UNSUPPORTED_REQUEST_DETECTED || type > CORRECTABLE_ERROR_DETECTED) return blank();
    const BitName& b = kDeviceStatusBits[type - UNSUPPORTED_REQUEST_DETECTED];
    return {b.name, static_cast<uint32_t>((status >> b.bit) & 1)};
}

_PCI_ERROR PCIDDAPI::getPCIeErrorStatistics(_PCI_ERROR_TYPE type, uint32_t capabilityOffset) {
    if (!m_current) return blank();
    return getSingleBitPCIeError(m_current->ConfigReadWord(capabilityOffset + 10), type);
}

_PCI_ERROR PCIDDAPI::getAerErrorStatistics(_PCI_ERROR_TYPE type, uint32_t registerOffset) {
    if (!m_current || (type != UNCORRECTABLE_ERROR_STATUS && type != CORRECTABLE_ERROR_STATUS))
        return blank();
    return {aerName(type), m_current->ConfigReadDword(registerOffset)};
}

_PCI_ERROR PCIDDAPI::getPlxAerErrorStatistics(_PCI_ERROR_TYPE type, unsigned long long address) {
    if (!m_memoryDriver || (type != UNCORRECTABLE_ERROR_STATUS && type != CORRECTABLE_ERROR_STATUS))
        return blank();
    return {aerName(type), m_memoryDriver->read32(address)};
}

ERRORCODE PCIDDAPI::getErrorStatistics(_PFA pfa, _PCI_ERROR_TYPE family, std::list<_PCI_ERROR>* out) {
    createPciObject(pfa);
    ERRORCODE code = 0;
    uint32_t cap = 0;
    switch (family) {
    case PCI_COMPATIBLE_ERROR: {
        for (int t = DETECTED_PARITY_ERROR; t <= MASTER_DATA_PARITY_ERROR; ++t)
            out->push_back(getPciCompatibleErrorStatistics(static_cast<_PCI_ERROR_TYPE>(t)));
        if (m_current && (m_current->GetHeaderType() & 1))
            for (int t = SECONDARY_DETECTED_PARITY_ERROR; t <= SECONDARY_MASTER_DATA_PARITY_ERROR; ++t)
                out->push_back(getPciCompatibleErrorStatistics(static_cast<_PCI_ERROR_TYPE>(t)));
        break;
    }
    case PCIE_CAPABILITY_ERROR:
        if (!m_current || m_current->GetCapabilityOffset(kPcieCapability, &cap) != 0) {
            code = kCapabilityUnsupported;
            break;
        }
        for (int t = UNSUPPORTED_REQUEST_DETECTED; t <= CORRECTABLE_ERROR_DETECTED; ++t)
            out->push_back(getPCIeErrorStatistics(static_cast<_PCI_ERROR_TYPE>(t), cap));
        break;
    case PCIE_AER_ERROR:
        if (m_current && isIntelNtb()) {
            out->push_back(getAerErrorStatistics(UNCORRECTABLE_ERROR_STATUS, kIntelNtbUncorrectable));
            out->push_back(getAerErrorStatistics(CORRECTABLE_ERROR_STATUS, kIntelNtbCorrectable));
            break;
        }
        if (!m_current || m_current->getExtendedCapabilityOffset(kAerCapability, &cap) != 0) {
            code = kCapabilityUnsupported;
            break;
        }
        out->push_back(getAerErrorStatistics(UNCORRECTABLE_ERROR_STATUS, cap + 4));
        out->push_back(getAerErrorStatistics(CORRECTABLE_ERROR_STATUS, cap + 16));
        break;
    default:
        break;
    }
    releasePciObject();
    return code;
}

ERRORCODE PCIDDAPI::getPlxNtbLinkSideErrorStatistics(_PFA pfa, _PCI_ERROR_TYPE family,
                                                     std::list<_PCI_ERROR>* out) {
    createPciObject(pfa);
    const unsigned long long block = getPlxNtbLinkSideBase();
    ERRORCODE code = 0;
    uint32_t cap = 0;
    if (!m_memoryDriver || !m_current) {
        releasePciObject();
        return kCapabilityUnsupported;
    }
    switch (family) {
    case PCI_COMPATIBLE_ERROR: {
        const uint16_t status = m_memoryDriver->read16(block + 6);
        for (int t = DETECTED_PARITY_ERROR; t <= MASTER_DATA_PARITY_ERROR; ++t)
            out->push_back(getSingleBitPciStatusError(status, static_cast<_PCI_ERROR_TYPE>(t)));
        break;
    }
    case PCIE_CAPABILITY_ERROR: {
        if (m_current->GetCapabilityOffset(kPcieCapability, &cap) != 0) {
            code = kCapabilityUnsupported;
            break;
        }
        const uint16_t status = m_memoryDriver->read16(block + cap + 10);
        for (int t = UNSUPPORTED_REQUEST_DETECTED; t <= CORRECTABLE_ERROR_DETECTED; ++t)
            out->push_back(getSingleBitPCIeError(status, static_cast<_PCI_ERROR_TYPE>(t)));
        break;
    }
    case PCIE_AER_ERROR:
        if (m_current->getExtendedCapabilityOffset(kAerCapability, &cap) != 0) {
            code = kCapabilityUnsupported;
            break;
        }
        out->push_back(getPlxAerErrorStatistics(UNCORRECTABLE_ERROR_STATUS, block + cap + 4));
        out->push_back(getPlxAerErrorStatistics(CORRECTABLE_ERROR_STATUS, block + cap + 16));
        break;
    default:
        break;
    }
    // Register-window failures read as the memory layer's filler; they are not the
    // error statistics' own failures.
    deleteErrorMsg(m_memoryDriver->getErrorMsg());
    releasePciObject();
    return code;
}

ERRORCODE PCIDDAPI::clearErrors(_PFA pfa) {
    createPciObject(pfa);
    if (!m_current) return 0;
    PCIDevice& d = *m_current;
    d.ConfigWriteWord(6, d.ConfigReadWord(6) | kStatusErrorBits);
    if (d.GetHeaderType() & 1) d.ConfigWriteWord(30, d.ConfigReadWord(30) | kStatusErrorBits);
    uint32_t cap = 0;
    if (d.GetCapabilityOffset(kPcieCapability, &cap) == 0)
        d.ConfigWriteWord(cap + 10, d.ConfigReadWord(cap + 10) | kDeviceStatusErrorBits);
    if (isIntelNtb()) {
        d.ConfigWriteDword(kIntelNtbUncorrectable, 0xFFFFFFFF);
        d.ConfigWriteDword(kIntelNtbCorrectable, 0xFFFFFFFF);
    } else if (d.getExtendedCapabilityOffset(kAerCapability, &cap) == 0) {
        d.ConfigWriteDword(cap + 4, 0xFFFFFFFF);
        d.ConfigWriteDword(cap + 16, 0xFFFFFFFF);
    }
    releasePciObject();
    return 0;
}

ERRORCODE PCIDDAPI::clearPlxNtbLinkSideErrors(_PFA pfa) {
    createPciObject(pfa);
    if (!m_current || !m_memoryDriver) {
        releasePciObject();
        return 0;
    }
    MemoryDDAPI& mem = *m_memoryDriver;
    const unsigned long long block = getPlxNtbLinkSideBase();
    deleteErrorMsg(mem.write(block + 6, static_cast<unsigned short>(mem.read16(block + 6) | kStatusErrorBits)));
    uint32_t cap = 0;
    if (m_current->GetCapabilityOffset(kPcieCapability, &cap) == 0)
        deleteErrorMsg(mem.write(block + cap + 10,
                                 static_cast<unsigned short>(mem.read16(block + cap + 10) | kDeviceStatusErrorBits)));
    if (m_current->getExtendedCapabilityOffset(kAerCapability, &cap) == 0) {
        deleteErrorMsg(mem.write(block + cap + 4, 0xFFFFFFFFu));
        deleteErrorMsg(mem.write(block + cap + 16, 0xFFFFFFFFu));
    }
    deleteErrorMsg(mem.getErrorMsg());
    releasePciObject();
    return 0;
}

ErrorMsg* PCIDDAPI::getPortErrorErrorStatistics(_PFA port, std::vector<_PORT_ERROR>* out) {
    _PORT_ERROR record{port, {}};
    for (int f = PCI_COMPATIBLE_ERROR; f <= PCIE_AER_ERROR; ++f)
        getErrorStatistics(port, static_cast<_PCI_ERROR_TYPE>(f), &record.errors);
    out->push_back(std::move(record));
    return nullptr;
}

ErrorMsg* PCIDDAPI::getNtbErrorStatistics(_PFA port, std::vector<_PORT_ERROR>* out) {
    if (ConfigReadWord(port, 0) != 0x10B5)
        return returnErrorMsg(kGetNtbDevice, "unsupported request", nullptr);
    getPortErrorErrorStatistics(port, out);
    _PORT_ERROR link{{0xFFFF, 0xFF, 0xFF, 0x0F, 0}, {}};
    for (int f = PCI_COMPATIBLE_ERROR; f <= PCIE_AER_ERROR; ++f)
        getPlxNtbLinkSideErrorStatistics(port, static_cast<_PCI_ERROR_TYPE>(f), &link.errors);
    out->push_back(std::move(link));
    return nullptr;
}

ErrorMsg* PCIDDAPI::getPortErrorList(_SWITCH_UNIT unit, std::vector<_PORT_ERROR>* out) {
    getPortErrorErrorStatistics(unit.upstreamPort, out);
    for (const _PFA& port : unit.downstreamPorts) {
        if (isNtbDevice(ConfigReadWord(port, 0), ConfigReadWord(port, 2))) {
            if (ErrorMsg* e = getNtbErrorStatistics(port, out))
                return returnErrorMsg(kGetPortErrorList, nullptr, e);
        } else {
            getPortErrorErrorStatistics(port, out);
        }
    }
    return nullptr;
}

void PCIDDAPI::getPortNameString(std::vector<_PORT_ERROR> records, std::vector<std::string>* names) {
    for (const _PORT_ERROR& r : records) {
        if (isSpecialPort(r.port)) continue;
        names->push_back("Port" + std::to_string(GetDataByBDF(r.port, PCI_PORT_NUMBER)));
    }
    int ntbv = 0, dma = 0, ntbl = 0;
    for (const _PORT_ERROR& r : records) {
        if (!isSpecialPort(r.port)) continue;
        if (r.port.domain == 0xFFFF) names->push_back("NTBL" + std::to_string(ntbl++));
        else if (isNtbDevice(r.port)) names->push_back("NTBV" + std::to_string(ntbv++));
        else names->push_back("DMA" + std::to_string(dma++));
    }
}
