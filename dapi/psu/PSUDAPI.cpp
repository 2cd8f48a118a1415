// Diagnostic layer of the power supplies.
#include "dapi/psu/PSUDAPI.h"

#include <fcntl.h>

#include <cstdio>
#include <new>

#include "api/platform/Platform.h"
#include "ddapi/memory/MemoryDDAPI.h"
#include "ddapi/psu/PSUDDAPI.h"

namespace {
constexpr ERRORCODE kConstructor = 0xCD040400;
constexpr ERRORCODE kGetDeviceList = 0xCD040800;
constexpr ERRORCODE kGetData = 0xCD040C00;
constexpr ERRORCODE kGetSupport = 0xCD041000;
constexpr ERRORCODE kSetData = 0xCD041400;
constexpr ERRORCODE kUpdate = 0xCD041800;
constexpr ERRORCODE kDeviceProgram = 0xCD085C00;
constexpr ERRORCODE kUnknownKind = 0x201;
constexpr ERRORCODE kOpenFail = 0x215;
constexpr ERRORCODE kReadFail = 0x217;
constexpr ERRORCODE kNotSupported = 0x235;
constexpr ERRORCODE kCreateFail = 0x23A;

// Images are read whole into one buffer; nothing a supply takes comes near this.
constexpr long long kMaxImage = 16ll << 20;
}  // namespace

PSUDAPI::PSUDAPI(const char* name) : BaseClassDAPI(name), m_device(nullptr) {
    m_device = new (std::nothrow) PSUDDAPI("PSUDDAPI");
    if (!m_device) {
        addErrorMsg(kConstructor | kCreateFail, nullptr);
        return;
    }
    if (ErrorMsg* e = m_device->getErrorMsg()) addErrorMsg(kConstructor, nullptr, e);
}

PSUDAPI::~PSUDAPI() {
    delete m_device;
    m_device = nullptr;
}

ErrorMsg* PSUDAPI::getDeviceList(std::string kind, std::list<std::string>* list) {
    if (!m_device) return returnErrorMsg(kGetDeviceList | kCreateFail, nullptr, nullptr);
    ErrorMsg* e = nullptr;
    if (kind == "psu")
        e = m_device->getDeviceList(list);
    else if (kind == "fan")
        e = m_device->getFanList(list);
    else if (kind == "led")
        e = m_device->getLEDList(list);
    else if (kind == "temp")
        e = m_device->getTemperatureList(list);
    else if (kind == "threshold")
        e = m_device->getTemperatureThresholdList(list);
    else
        return returnErrorMsg(kGetDeviceList | kUnknownKind, kind.c_str(), nullptr);
    if (e) return returnErrorMsg(kGetDeviceList, nullptr, e);
    return nullptr;
}

ErrorMsg* PSUDAPI::getDataByElement(PSU_ELEMENT_TYPE element, std::string name, std::string* value) {
    if (element > PSU_FAN_SPEED) return returnErrorMsg(kGetData | kNotSupported, nullptr, nullptr);
    if (!m_device) return returnErrorMsg(kGetData | kCreateFail, nullptr, nullptr);
    std::string text;
    ErrorMsg* e = nullptr;
    switch (element) {
    case PSU_TYPE: e = m_device->getType(name, &text); break;
    case PSU_FW_VERSION: e = m_device->getFWVersion(name, &text); break;
    case PSU_MAX_POWER: e = m_device->getMaxPower(name, &text); break;
    case PSU_PART_NUMBER: e = m_device->getPartNumber(name, &text); break;
    case PSU_SERIAL_NUMBER: e = m_device->getSerialNumber(name, &text); break;
    case PSU_VENDOR: e = m_device->getVendor(name, &text); break;
    case PSU_LED_STATUS: e = m_device->getLEDStatus(name, &text); break;
    case PSU_TEMPERATURE: e = m_device->getTemperature(name, &text); break;
    case PSU_TEMPERATURE_THRESHOLD: e = m_device->getTemperatureThreshold(name, &text); break;
    case PSU_FAN_SPEED: {
        int speed = 0;
        e = m_device->getFanSpeed(name, &speed);
        char buffer[24];
        snprintf(buffer, sizeof(buffer), "%d", speed);
        text = buffer;
        break;
    }
    }
    if (e) {
        if (value) value->clear();
        return returnErrorMsg(kGetData, nullptr, e);
    }
    if (value) *value = text;
    return nullptr;
}

ErrorMsg* PSUDAPI::setDataByElement(PSU_ELEMENT_TYPE element, std::string name, std::string value) {
    if (!m_device) return returnErrorMsg(kSetData | kCreateFail, nullptr, nullptr);
    ErrorMsg* e = nullptr;
    switch (element) {
    case PSU_LED_STATUS: e = m_device->setLEDStatus(name, value); break;
    case PSU_TEMPERATURE_THRESHOLD: e = m_device->setTemperatureThreshold(name, value); break;
    case PSU_FAN_SPEED: e = m_device->setFanSpeed(name, std::stoi(value, nullptr, 0)); break;
    default: return returnErrorMsg(kSetData | kNotSupported, nullptr, nullptr);
    }
    if (e) return returnErrorMsg(kSetData, nullptr, e);
    return nullptr;
}

ErrorMsg* PSUDAPI::getSupportValueByElement(PSU_ELEMENT_TYPE element, std::string name,
                                            std::list<std::string>* list) {
    if (element != PSU_FAN_SPEED) return returnErrorMsg(kGetSupport | kNotSupported, nullptr, nullptr);
    if (!m_device) return returnErrorMsg(kGetSupport | kCreateFail, nullptr, nullptr);
    if (ErrorMsg* e = m_device->getSupportFanSpeed(name, list)) return returnErrorMsg(kGetSupport, nullptr, e);
    return nullptr;
}

ErrorMsg* PSUDAPI::updateFWByFile(std::string name, uint8_t sector, std::string path) {
    MemoryDDAPI memory("MemoryDDAPI");
    if (ErrorMsg* e = memory.getErrorMsg()) return returnErrorMsg(kUpdate, nullptr, e);
    if (!m_device) return returnErrorMsg(kUpdate | kCreateFail, nullptr, nullptr);

    quarn::Platform& p = quarn::platform();
    const int fd = p.open(path, O_RDONLY);
    if (fd < 0) return returnErrorMsg(kUpdate | kOpenFail, path.c_str(), nullptr);
    const off_t end = p.lseek(fd, 0, SEEK_END);
    if (end < 0 || end > kMaxImage || p.lseek(fd, 0, SEEK_SET) != 0) {
        p.close(fd);
        return returnErrorMsg(kUpdate | kReadFail, path.c_str(), nullptr);
    }
    const unsigned int size = static_cast<unsigned int>(end);
    unsigned long long buffer = 0;
    if (ErrorMsg* e = memory.getMemoryBuffer(size, &buffer)) {
        p.close(fd);
        return returnErrorMsg(kDeviceProgram, nullptr, e);
    }
    char* image = reinterpret_cast<char*>(static_cast<uintptr_t>(buffer));
    size_t got = 0;
    while (got < size) {
        const ssize_t n = p.read(fd, image + got, size - got);
        if (n <= 0) break;
        got += static_cast<size_t>(n);
    }
    p.close(fd);
    ErrorMsg* result = nullptr;
    if (got != size)
        result = returnErrorMsg(kUpdate | kReadFail, path.c_str(), nullptr);
    else if (ErrorMsg* e = m_device->program(name, sector, image, static_cast<int>(size)))
        result = returnErrorMsg(kUpdate, nullptr, e);
    deleteErrorMsg(memory.releaseMemoryBuffer(buffer));
    return result;
}
