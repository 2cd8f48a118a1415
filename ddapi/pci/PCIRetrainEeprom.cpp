// PCI device layer: the link retrain test of downstream-facing ports and the serial
// EEPROMs of PLX switches behind their controller registers (0x260 control and status,
// 0x264 data) in the upstream port's BAR0.
#include <cstdio>
#include <new>

#include "api/platform/Platform.h"
#include "ddapi/memory/MemoryDDAPI.h"
#include "ddapi/pci/PCIDDAPI.h"

namespace {
constexpr ERRORCODE kTestRetrain = 0xC9080800;
constexpr ERRORCODE kSendCommand = 0xC9082C00;
constexpr ERRORCODE kSendTimeout = 0xC9082E38;  // "fail to send eeprom command", "Time out"
constexpr ERRORCODE kReadAttached = 0xC9083C00;
constexpr ERRORCODE kReadOutOfRange = 0xC9083E19;
constexpr ERRORCODE kReadDword = 0xC9084C00;
constexpr ERRORCODE kReadBlock = 0xC9085000;
constexpr ERRORCODE kTestEeprom = 0xC9085400;
constexpr ERRORCODE kWaitIdle = 0xC9085800;
constexpr ERRORCODE kGetEeprom = 0xC9085C00;
constexpr ERRORCODE kGetSize = 0xC9086000;
constexpr ERRORCODE kWriteEeprom = 0xC9086400;
constexpr ERRORCODE kWriteOutOfRange = 0xC9086619;
constexpr ERRORCODE kRestore = 0xC9086C00;
constexpr ERRORCODE kImageVersion = 0xC9088400;

constexpr uint32_t kControl = 0x260;
constexpr uint32_t kData = 0x264;
constexpr uint32_t kCommandBusy = 0x01040000;  // bits 24 and 18
constexpr uint32_t kIdleMask = 0x71000000;     // bits 30:28 and 24
constexpr uint32_t kHandshakeReads = 100000;
constexpr uint32_t kIdleRounds = 100000;
constexpr uint64_t kHandshakeSleepUs = 500;
constexpr uint32_t kByteRange = 0x4000;
constexpr uint32_t kRetrains = 1000;
constexpr uint64_t kTrainingPollUs = 10;
// A retrain that has not ended after this many polls (1 s) never will: the port is
// reported instead of being polled for ever.
constexpr uint32_t kTrainingPolls = 100000;
constexpr uint16_t kLinkBandwidthStatus = 0x4000;
constexpr uint16_t kLinkAutonomousStatus = 0x8000;
constexpr uint16_t kRetrainLink = 0x0020;

uint32_t addressBits(uint32_t current, uint32_t index) {
    return (current & ~(0x100000u | 0xFFFFu)) | (index & 0x1FFF) | ((index << 7) & 0x100000);
}
uint32_t readStatusCommand(uint32_t current) { return (current & 0x8EFF1FFF) | 0x0200A000; }
uint32_t readCommand(uint32_t current, uint32_t i) { return addressBits(current, i) | 0x6000; }
uint32_t writeEnableCommand(uint32_t current) { return (current & ~(0x100000u | 0xFFFFu)) | 0x0200C000; }
uint32_t writeCommand(uint32_t current, uint32_t i) { return addressBits(current, i) | 0x02004000; }

const uint32_t kPatterns[] = {0xAAAAAAAA, 0x55555555, 0xFFFFFFFF, 0x00000000};
}  // namespace

// ---------------------------------------------------------------- link retraining

bool PCIDDAPI::isAvailableForRetrainTest(PCIDevice& port) {
    const uint16_t vendor = port.GetVendorID();
    const uint16_t device = port.GetDeviceID();
    if (vendor == 0x8086 && device == 0x6F0D) return false;
    if (vendor == 0x10B5 && device == 0x87B0) return false;
    if (!port.checkRetrainCap()) return false;
    return (port.GetHeaderType() & 0x01) != 0;
}

ErrorMsg* PCIDDAPI::getRetrainRegs(PCIDevice& port, uint32_t* controlOffset, uint32_t* statusOffset) {
    uint32_t cap = 0;
    if (port.GetCapabilityOffset(0x10, &cap) != 0)
        return returnErrorMsg(kTestRetrain, "capability unsupported", nullptr);
    *controlOffset = cap + 16;
    *statusOffset = cap + 18;
    return nullptr;
}

void PCIDDAPI::getDownstreamDevice(RetrainInfo* info) {
    for (bridge* b = m_hostBridge.chain; b; b = b->chain) {
        const pci_dev* p = b->br_dev ? b->br_dev->dev : nullptr;
        if (!p || p->domain != info->port.domain || p->bus != info->port.bus || p->device != info->port.device ||
            p->function != info->port.function)
            continue;
        for (size_t i = 0; i < m_deviceCount; ++i) {
            PCIDevice* d = m_table[i];
            if (d->GetDomain() != b->domain || d->GetBus() != b->secondary) continue;
            info->downstreamDomain = d->GetDomain();
            info->downstreamBus = d->GetBus();
            info->downstreamDevice = d->GetDevice();
            info->downstreamFunction = d->GetFunction();
            info->downstreamVendorID = d->GetVendorID();
            info->downstreamDeviceID = d->GetDeviceID();
            return;
        }
        return;
    }
}

ErrorMsg* PCIDDAPI::getRetrainSupportDevices(std::vector<RetrainInfo>* list) {
    grow_tree();
    releaseTable();
    for (device* d = m_devices; d && m_deviceCount < kMaxDevices; d = d->next) {
        PCIDevice* dev = new (std::nothrow) PCIDevice(scannedInfo(*d));
        if (!dev) break;
        m_table[m_deviceCount++] = dev;
    }
    for (size_t i = 0; i < m_deviceCount; ++i) {
        PCIDevice& port = *m_table[i];
        if (!isAvailableForRetrainTest(port)) continue;
        RetrainInfo info;
        initialPciInfoStructure(&info.port);
        info.port.domain = port.GetDomain();
        info.port.bus = port.GetBus();
        info.port.device = port.GetDevice();
        info.port.function = port.GetFunction();
        info.port.vendorID = port.GetVendorID();
        info.port.deviceID = port.GetDeviceID();
        info.port.classCode = port.GetClassCode();
        info.port.revisionID = port.GetRevisionID();
        info.port.headerType = port.GetHeaderType();
        info.port.capabilityPointer = port.GetCapPtrValue();
        info.linkUp = getLinkStatus(port) ? 1 : 0;
        info.spare = 0;
        info.downstreamDomain = info.downstreamBus = info.downstreamDevice = info.downstreamFunction = 0xFFFF;
        info.downstreamVendorID = info.downstreamDeviceID = 0xFFFF;
        info.downstreamName.clear();
        getDownstreamDevice(&info);
        list->push_back(info);
    }
    releaseTable();
    releaseScan();
    return nullptr;
}

ErrorMsg* PCIDDAPI::testRetrainRun(PCIDevice& port) {
    uint32_t control = 0, status = 0;
    if (ErrorMsg* e = getRetrainRegs(port, &control, &status)) return e;
    port.ConfigWriteWord(status, static_cast<uint16_t>(port.ConfigReadWord(status) | kLinkBandwidthStatus));
    if (port.ConfigReadWord(status) & kLinkBandwidthStatus)
        return returnErrorMsg(kTestRetrain, "link bandwidth management status can't be cleared", nullptr);
    const uint32_t width = port.GetCurrentLinkWidth();
    const float speed = port.GetCurrentLinkSpeed();
    port.ConfigWriteWord(control, static_cast<uint16_t>(port.ConfigReadWord(control) | kRetrainLink));
    quarn::Platform& os = quarn::platform();
    uint32_t polls = 0;
    while (port.ConfigReadWord(status) & kLinkAutonomousStatus) {
        if (++polls > kTrainingPolls) return returnErrorMsg(kTestRetrain, "link training did not end", nullptr);
        os.sleepMicroseconds(kTrainingPollUs);
    }
    if (!(port.ConfigReadWord(status) & kLinkBandwidthStatus))
        return returnErrorMsg(kTestRetrain, "retrain didn't completed", nullptr);
    if (port.GetCurrentLinkWidth() != width) return returnErrorMsg(kTestRetrain, "link width check fail", nullptr);
    if (port.GetCurrentLinkSpeed() != speed) return returnErrorMsg(kTestRetrain, "link speed check fail", nullptr);
    return nullptr;
}

ErrorMsg* PCIDDAPI::testRetrain(_PFA pfa) { return testRetrain(pfa, kRetrains, nullptr); }

ErrorMsg* PCIDDAPI::testRetrain(_PFA pfa, uint32_t count, const std::function<void(uint32_t)>& done) {
    createPciObject(pfa);
    if (!m_current) return returnErrorMsg(kTestRetrain, "retrain is unsupported", nullptr);
    PCIDevice& port = *m_current;
    ErrorMsg* result = nullptr;
    if (!isAvailableForRetrainTest(port)) {
        result = returnErrorMsg(kTestRetrain, "retrain is unsupported", nullptr);
    } else if (!getLinkStatus(port)) {
        result = returnErrorMsg(kTestRetrain, "link is down", nullptr);
    } else {
        for (uint32_t i = 0; i < count && !result; ++i) {
            result = testRetrainRun(port);
            if (!result && done) done(i + 1);
        }
    }
    releasePciObject();
    return result;
}

// ---------------------------------------------------------------- switch EEPROMs

uint32_t PCIDDAPI::eepromRead(uint32_t offset, ErrorMsg** failure) {
    *failure = nullptr;
    if (!m_memoryDriver) {
        *failure = returnErrorMsg(kSendCommand, "no physical-memory object", nullptr);
        return 0xFFFFFFFF;
    }
    const uint32_t v = m_memoryDriver->read32(m_plxBar + offset);
    *failure = m_memoryDriver->getErrorMsg();
    return v;
}

ErrorMsg* PCIDDAPI::scanEeproms(std::vector<_EEPROM_INFO>* list) {
    scanDevices(false);
    releaseTable();
    int counter = 0;
    for (device* d = m_devices; d; d = d->next) {
        PCIDevice dev(scannedInfo(*d));
        if (dev.getPortTypeRawData() != 5) continue;
        const unsigned long long bar =
            (static_cast<unsigned long long>(dev.ConfigReadDword(20)) << 32) | (dev.ConfigReadDword(16) & 0xFFFFFFF0u);
        // An upstream port without an assigned BAR0 has no register window to look at.
        if (bar == 0 || !m_memoryDriver) continue;
        const uint32_t control = m_memoryDriver->read32(bar + kControl);
        if (ErrorMsg* e = m_memoryDriver->getErrorMsg()) {
            deleteErrorMsg(e);
            continue;
        }
        const uint32_t present = (control >> 16) & 3;
        if (present != 1 && present != 3) continue;
        char name[24];
        snprintf(name, sizeof(name), "eeprom%d", counter++);
        list->push_back(_EEPROM_INFO{name, dev.GetDomain(), dev.GetBus(), dev.GetDevice(), dev.GetFunction()});
    }
    releaseScan();
    return nullptr;
}

ErrorMsg* PCIDDAPI::getEeprom(std::string name, _EEPROM_INFO* info) {
    std::vector<_EEPROM_INFO> list;
    if (ErrorMsg* e = scanEeproms(&list)) return returnErrorMsg(kGetEeprom, nullptr, e);
    for (const _EEPROM_INFO& entry : list) {
        if (entry.name != name) continue;
        *info = entry;
        return nullptr;
    }
    return returnErrorMsg(kGetEeprom, "Device is not found", nullptr);
}

ErrorMsg* PCIDDAPI::setEepromBase(_PFA pfa) {
    const uint32_t low = ConfigReadDword(pfa, 16);
    const uint32_t high = ConfigReadDword(pfa, 20);
    m_plxBar = (static_cast<unsigned long long>(high) << 32) | (low & 0xFFFFFFF0u);
    return nullptr;
}

ErrorMsg* PCIDDAPI::sendEepromCommand(uint32_t word) {
    if (!m_memoryDriver) return returnErrorMsg(kSendCommand, "no physical-memory object", nullptr);
    if (ErrorMsg* e = m_memoryDriver->write(m_plxBar + kControl, static_cast<unsigned int>(word)))
        return returnErrorMsg(kSendCommand, nullptr, e);
    quarn::Platform& os = quarn::platform();
    for (uint32_t i = 0; i < kHandshakeReads; ++i) {
        ErrorMsg* failure = nullptr;
        const uint32_t v = eepromRead(kControl, &failure);
        if (failure) return returnErrorMsg(kSendCommand, nullptr, failure);
        if ((v & kCommandBusy) == 0) return nullptr;
        os.sleepMicroseconds(kHandshakeSleepUs);
    }
    return returnErrorMsg(kSendTimeout, nullptr, nullptr);
}

ErrorMsg* PCIDDAPI::waitEepromToBeIdle() {
    for (uint32_t round = 0; round < kIdleRounds; ++round) {
        ErrorMsg* failure = nullptr;
        const uint32_t current = eepromRead(kControl, &failure);
        if (failure) return returnErrorMsg(kWaitIdle, nullptr, failure);
        if (ErrorMsg* e = sendEepromCommand(readStatusCommand(current))) return returnErrorMsg(kWaitIdle, nullptr, e);
        const uint32_t v = eepromRead(kControl, &failure);
        if (failure) return returnErrorMsg(kWaitIdle, nullptr, failure);
        if ((v & kIdleMask) == 0) return nullptr;
    }
    return nullptr;
}

ErrorMsg* PCIDDAPI::readEepromDword(uint32_t index, uint32_t* value) {
    if (ErrorMsg* e = waitEepromToBeIdle()) return returnErrorMsg(kReadDword, nullptr, e);
    *value = 0xDEADBEAF;
    ErrorMsg* failure = nullptr;
    const uint32_t current = eepromRead(kControl, &failure);
    if (failure) return returnErrorMsg(kReadDword, nullptr, failure);
    if (ErrorMsg* e = sendEepromCommand(readCommand(current, index))) return returnErrorMsg(kReadDword, nullptr, e);
    const uint32_t v = eepromRead(kData, &failure);
    if (failure) return returnErrorMsg(kReadDword, nullptr, failure);
    *value = v;
    return nullptr;
}

ErrorMsg* PCIDDAPI::writeEepromDword(uint32_t index, uint32_t value) {
    if (ErrorMsg* e = waitEepromToBeIdle()) return e;
    ErrorMsg* failure = nullptr;
    uint32_t current = eepromRead(kControl, &failure);
    if (failure) return returnErrorMsg(kSendCommand, nullptr, failure);
    if (ErrorMsg* e = sendEepromCommand(writeEnableCommand(current))) return e;
    if (ErrorMsg* e = m_memoryDriver->write(m_plxBar + kData, static_cast<unsigned int>(value)))
        return returnErrorMsg(kSendCommand, nullptr, e);
    current = eepromRead(kControl, &failure);
    if (failure) return returnErrorMsg(kSendCommand, nullptr, failure);
    return sendEepromCommand(writeCommand(current, index));
}

ErrorMsg* PCIDDAPI::readEepromBlock(uint32_t first, uint32_t count, uint32_t* buffer) {
    for (uint32_t i = 0; i < count; ++i)
        if (ErrorMsg* e = readEepromDword(first + i, &buffer[i])) return returnErrorMsg(kReadBlock, nullptr, e);
    return nullptr;
}

ErrorMsg* PCIDDAPI::writeEepromBlock(uint32_t first, uint32_t count, uint32_t* buffer) {
    for (uint32_t i = 0; i < count; ++i)
        if (ErrorMsg* e = writeEepromDword(first + i, buffer[i])) return e;
    return nullptr;
}

ErrorMsg* PCIDDAPI::readEeprom(_PFA pfa, uint32_t byteOffset, uint32_t count, uint32_t* buffer) {
    if (byteOffset >= kByteRange) return returnErrorMsg(kReadOutOfRange, nullptr, nullptr);
    setEepromBase(pfa);
    if (ErrorMsg* e = readEepromBlock(byteOffset / 4, count, buffer)) return returnErrorMsg(kReadAttached, nullptr, e);
    return nullptr;
}

ErrorMsg* PCIDDAPI::writeEeprom(_PFA pfa, uint32_t byteOffset, uint32_t count, uint32_t* buffer) {
    if (byteOffset >= kByteRange) return returnErrorMsg(kWriteOutOfRange, nullptr, nullptr);
    setEepromBase(pfa);
    if (ErrorMsg* e = writeEepromBlock(byteOffset / 4, count, buffer)) return returnErrorMsg(kWriteEeprom, nullptr, e);
    return nullptr;
}

ErrorMsg* PCIDDAPI::getEepromSize(_PFA pfa, uint32_t* size) {
    *size = 0xFFFFFFFF;
    setEepromBase(pfa);
    uint32_t first = 0;
    if (ErrorMsg* e = readEepromDword(0, &first)) return returnErrorMsg(kGetSize, nullptr, e);
    *size = (first >> 16) + 8;
    return nullptr;
}

ErrorMsg* PCIDDAPI::testEepromRun(uint32_t pattern, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i)
        if (ErrorMsg* e = writeEepromDword(i, pattern)) return returnErrorMsg(kTestEeprom, nullptr, e);
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t v = 0;
        if (ErrorMsg* e = readEepromDword(i, &v)) return returnErrorMsg(kTestEeprom, nullptr, e);
        if (v != pattern) return returnErrorMsg(kTestEeprom, "compare data fail", nullptr);
    }
    return nullptr;
}

ErrorMsg* PCIDDAPI::restoreEeprom(uint32_t* image, uint32_t count) {
    if (ErrorMsg* e = writeEepromBlock(0, count, image)) return returnErrorMsg(kRestore, nullptr, e);
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t v = 0;
        if (ErrorMsg* e = readEepromDword(i, &v)) return returnErrorMsg(kRestore, nullptr, e);
        if (v != image[i]) return returnErrorMsg(kRestore, "compare data fail", nullptr);
    }
    return nullptr;
}

ErrorMsg* PCIDDAPI::testEeprom(_PFA pfa) {
    setEepromBase(pfa);
    uint32_t first = 0;
    if (ErrorMsg* e = readEepromDword(0, &first)) return returnErrorMsg(kTestEeprom, nullptr, e);
    if ((first & 0xFF) != 0x5A) return returnErrorMsg(kTestEeprom, "Invalid eeprom signature", nullptr);
    const uint32_t count = ((first >> 16) + 8) / 4;
    std::vector<uint32_t> image(count, 0);
    if (ErrorMsg* e = readEepromBlock(0, count, image.data())) return returnErrorMsg(kTestEeprom, nullptr, e);
    ErrorMsg* failure = nullptr;
    for (uint32_t pattern : kPatterns)
        if ((failure = testEepromRun(pattern, count)) != nullptr) break;
    // The image goes back whatever the patterns did.
    ErrorMsg* restored = restoreEeprom(image.data(), count);
    if (failure) {
        // The pattern failure is the one reported; a restore that failed as well is
        // reported below it, so that nobody takes the EEPROM for intact.
        if (restored) failure->appendToList(restored);
        return failure;
    }
    if (restored) return returnErrorMsg(kTestEeprom, nullptr, restored);
    return nullptr;
}

ErrorMsg* PCIDDAPI::getEepromImageVersion(std::string name, uint16_t* version) {
    _EEPROM_INFO info;
    if (ErrorMsg* e = getEeprom(name, &info)) return returnErrorMsg(kImageVersion, nullptr, e);
    createPciObject(_PFA{info.domain, info.bus, info.device, static_cast<uint8_t>(info.function), 0});
    const uint32_t portNumber = m_current ? m_current->getPortNumber() : 0;
    releasePciObject();
    readSwitchBar();
    if (!m_memoryDriver || m_plxBar == 0) return returnErrorMsg(kImageVersion, "no switch upstream port", nullptr);
    const unsigned short v = m_memoryDriver->read16(m_plxBar + ((portNumber << 12) & 0xFF000) + 0x20C);
    if (ErrorMsg* e = m_memoryDriver->getErrorMsg()) return returnErrorMsg(kImageVersion, nullptr, e);
    *version = v;
    return nullptr;
}

ErrorMsg* PCIDDAPI::showEepromImageVersion(std::string name) {
    uint16_t version = 0;
    if (ErrorMsg* e = getEepromImageVersion(name, &version)) return e;
    printf("EEPROM Image version: %02d.%02d\n", version >> 8, version & 0xFF);
    return nullptr;
}
