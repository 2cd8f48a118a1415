// The present supplies, composed item names, the psu info file and the firmware lock.
#include "ddapi/psu/PSUDDAPI.h"

#include <sys/ipc.h>
#include <sys/sem.h>

#include <cerrno>
#include <cstdio>
#include <new>
#include <string>

#include "api/platform/Files.h"
#include "api/platform/Platform.h"
#include "dapi/i2c/I2CDAPI.h"
#include "ddapi/psu/PsuCodes.h"
#include "ddapi/psu/VarnelPSU.h"

using namespace quarn::psu;

namespace quarn::psu {
const char kInfoDirectory[] = "/tmp/veltrax/ktd/psu";
const char kInfoFile[] = "/tmp/veltrax/ktd/psu/psuinfo";
}  // namespace quarn::psu

namespace {
// A line of the info file is read into 128 bytes; the rest of a longer line is dropped
// rather than read as a line of its own.
constexpr size_t kMaxInfoLine = 127;
constexpr uint64_t kLockRetryUs = 10000;

// The firmware lock: one System V semaphore of value 1 shared by every process.
class FirmwareLock {
public:
    FirmwareLock() { m_held = change(-1); }
    ~FirmwareLock() {
        if (m_held) change(+1);
    }

private:
    static int openSet() {
        quarn::Platform& p = quarn::platform();
        int id = p.semget(static_cast<key_t>(kFirmwareLockKey), 1, 0666);
        if (id < 0) {
            id = p.semget(static_cast<key_t>(kFirmwareLockKey), 1, IPC_CREAT | 0666);
            if (id >= 0) p.semctl(id, 0, SETVAL, 1);
        }
        return id;
    }
    static bool change(int delta) {
        quarn::Platform& p = quarn::platform();
        for (;;) {
            const int id = openSet();
            if (id < 0) return false;
            struct sembuf op = {0, static_cast<short>(delta), SEM_UNDO};
            if (p.semop(id, &op, 1) == 0) return true;
            // Interrupted, or a platform that cannot block (the simulated board): wait and
            // try again. A set removed meanwhile is created anew on the next pass.
            if (errno != EINTR && errno != EAGAIN && errno != EIDRM && errno != EINVAL) return false;
            p.sleepMicroseconds(kLockRetryUs);
        }
    }
    bool m_held = false;
};

std::vector<std::string> infoLines(const std::string& text) {
    std::vector<std::string> lines;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t nl = text.find('\n', pos);
        if (nl == std::string::npos) nl = text.size();
        std::string line = text.substr(pos, nl - pos);
        if (line.size() > kMaxInfoLine) line.resize(kMaxInfoLine);
        lines.push_back(line);
        pos = nl + 1;
    }
    return lines;
}
}  // namespace

PSUDDAPI::PSUDDAPI(const char* name) : BaseClassDDAPI(name) { setUp(); }

PSUDDAPI::~PSUDDAPI() {
    for (BaseClassPSUDDAPI* s : m_supplies) delete s;
    m_supplies.clear();
}

void PSUDDAPI::setUp() {
    std::string text;
    if (quarn::readTextFile(kInfoFile, &text) != 0) {
        if (ErrorMsg* e = initializePSUInfoFile()) {
            addErrorMsg(kConstructor, nullptr, e);
            return;
        }
        if (quarn::readTextFile(kInfoFile, &text) != 0) {
            addErrorMsg(kConstructor | kOpenFail, kInfoFile);
            return;
        }
    }
    for (const std::string& line : infoLines(text)) {
        VarnelPSU* supply = new (std::nothrow) VarnelPSU(line);
        if (!supply) {
            addErrorMsg(kConstructor | kCreateFail, nullptr);
            return;
        }
        if (ErrorMsg* e = supply->getErrorMsg()) {
            delete supply;
            addErrorMsg(kConstructor, nullptr, e);
            return;
        }
        bool present = false;
        if (ErrorMsg* e = supply->isPresent(&present)) {
            delete supply;
            addErrorMsg(kConstructor, nullptr, e);
            return;
        }
        if (present)
            m_supplies.push_back(supply);
        else
            delete supply;
    }
}

ErrorMsg* PSUDDAPI::initializePSUInfoFile() {
    quarn::makeDirectories(kInfoDirectory);
    std::list<std::string> devices;
    {
        I2CDAPI i2c("I2CDAPI");
        if (ErrorMsg* e = i2c.DisplayI2cDevicesList(&devices)) return returnErrorMsg(kInitializeInfoFile, nullptr, e);
    }
    std::string text;
    bool any = false;
    for (const std::string& line : devices) {
        if (line.find("psu") == std::string::npos) continue;
        if (any) text += '\n';
        text += line;
        any = true;
    }
    if (!any) return returnErrorMsg(kInitializeInfoFile | kNoDevice, nullptr, nullptr);
    if (quarn::writeScratchFile(kInfoFile, text) != 0)
        return returnErrorMsg(kInitializeInfoFile | kOpenFail, kInfoFile, nullptr);
    return nullptr;
}

BaseClassPSUDDAPI* PSUDDAPI::find(const std::string& name) const {
    for (BaseClassPSUDDAPI* s : m_supplies)
        if (s->getName() == name) return s;
    return nullptr;
}

ErrorMsg* PSUDDAPI::byName(ERRORCODE code, const std::string& name, BaseClassPSUDDAPI** supply) {
    *supply = find(name);
    if (!*supply) return returnErrorMsg(code | kNoDevice, name.c_str(), nullptr);
    return nullptr;
}

ErrorMsg* PSUDDAPI::route(ERRORCODE code, const std::string& name, BaseClassPSUDDAPI** supply,
                          std::string* item) {
    const size_t underscore = name.find('_');
    if (underscore == std::string::npos) return returnErrorMsg(code | kBadParameter1, "unexpected format", nullptr);
    *item = name.substr(underscore + 1);
    return byName(code, name.substr(0, underscore), supply);
}

ErrorMsg* PSUDDAPI::getDeviceList(std::list<std::string>* list) {
    if (!list) return returnErrorMsg(kGetDeviceList | 0x204, "NULL pointer", nullptr);
    if (m_supplies.empty()) return returnErrorMsg(kGetDeviceList | kNoDevice, nullptr, nullptr);
    for (BaseClassPSUDDAPI* s : m_supplies) list->push_back(s->getName());
    return nullptr;
}

ErrorMsg* PSUDDAPI::itemList(ERRORCODE code, std::list<std::string>* list,
                             ErrorMsg* (BaseClassPSUDDAPI::*get)(std::list<std::string>*)) {
    if (!list) return returnErrorMsg(code | 0x204, "NULL pointer", nullptr);
    size_t added = 0;
    for (BaseClassPSUDDAPI* s : m_supplies) {
        std::list<std::string> items;
        if (ErrorMsg* e = (s->*get)(&items)) return returnErrorMsg(code, nullptr, e);
        for (const std::string& item : items) list->push_back(s->getName() + "_" + item);
        added += items.size();
    }
    if (added == 0) return returnErrorMsg(code | kNoDevice, "No device is found", nullptr);
    return nullptr;
}

ErrorMsg* PSUDDAPI::getFanList(std::list<std::string>* list) {
    return itemList(kGetFanList, list, &BaseClassPSUDDAPI::getFanList);
}
ErrorMsg* PSUDDAPI::getLEDList(std::list<std::string>* list) {
    return itemList(kGetLEDList, list, &BaseClassPSUDDAPI::getLEDList);
}
ErrorMsg* PSUDDAPI::getTemperatureList(std::list<std::string>* list) {
    return itemList(kGetTemperatureList, list, &BaseClassPSUDDAPI::getTemperatureList);
}
ErrorMsg* PSUDDAPI::getTemperatureThresholdList(std::list<std::string>* list) {
    return itemList(kGetThresholdList, list, &BaseClassPSUDDAPI::getTemperatureThresholdList);
}

#define QUARN_PSU_BY_SUPPLY(method, code)                                              \
    ErrorMsg* PSUDDAPI::method(std::string name, std::string* value) {                 \
        BaseClassPSUDDAPI* s = nullptr;                                                \
        if (ErrorMsg* e = byName(code, name, &s)) return e;                            \
        if (ErrorMsg* e = s->method(value)) return returnErrorMsg(code, nullptr, e);   \
        return nullptr;                                                                \
    }

QUARN_PSU_BY_SUPPLY(getType, kGetType)
QUARN_PSU_BY_SUPPLY(getVendor, kGetVendor)
QUARN_PSU_BY_SUPPLY(getFWVersion, kGetFWVersion)
QUARN_PSU_BY_SUPPLY(getPartNumber, kGetPartNumber)
QUARN_PSU_BY_SUPPLY(getSerialNumber, kGetSerialNumber)
QUARN_PSU_BY_SUPPLY(getMaxPower, kGetMaxPower)
#undef QUARN_PSU_BY_SUPPLY

ErrorMsg* PSUDDAPI::getFanSpeed(std::string name, int* speed) {
    BaseClassPSUDDAPI* s = nullptr;
    std::string item;
    if (ErrorMsg* e = route(kGetFanSpeed, name, &s, &item)) return e;
    if (ErrorMsg* e = s->getFanSpeed(item, speed)) return returnErrorMsg(kGetFanSpeed, nullptr, e);
    return nullptr;
}

ErrorMsg* PSUDDAPI::setFanSpeed(std::string name, int speed) {
    BaseClassPSUDDAPI* s = nullptr;
    std::string item;
    if (ErrorMsg* e = route(kSetFanSpeed, name, &s, &item)) return e;
    if (ErrorMsg* e = s->setFanSpeed(item, speed)) return returnErrorMsg(kSetFanSpeed, nullptr, e);
    return nullptr;
}

ErrorMsg* PSUDDAPI::getSupportFanSpeed(std::string name, std::list<std::string>* speeds) {
    BaseClassPSUDDAPI* s = nullptr;
    std::string item;
    if (ErrorMsg* e = route(kGetSupportFanSpeed, name, &s, &item)) return e;
    if (ErrorMsg* e = s->getSupportFanSpeed(item, speeds)) return returnErrorMsg(kGetSupportFanSpeed, nullptr, e);
    return nullptr;
}

ErrorMsg* PSUDDAPI::getLEDStatus(std::string name, std::string* status) {
    BaseClassPSUDDAPI* s = nullptr;
    std::string item;
    if (ErrorMsg* e = route(kGetLEDStatus, name, &s, &item)) return e;
    if (ErrorMsg* e = s->getLEDStatus(item, status)) return returnErrorMsg(kGetLEDStatus, nullptr, e);
    return nullptr;
}

ErrorMsg* PSUDDAPI::setLEDStatus(std::string name, std::string status) {
    BaseClassPSUDDAPI* s = nullptr;
    std::string item;
    if (ErrorMsg* e = route(kSetLEDStatus, name, &s, &item)) return e;
    if (ErrorMsg* e = s->setLEDStatus(item, status)) return returnErrorMsg(kSetLEDStatus, nullptr, e);
    return nullptr;
}

ErrorMsg* PSUDDAPI::getTemperature(std::string name, std::string* value) {
    BaseClassPSUDDAPI* s = nullptr;
    std::string item;
    if (ErrorMsg* e = route(kGetTemperature, name, &s, &item)) return e;
    float t = 0;
    if (ErrorMsg* e = s->getTemperature(item, &t)) return returnErrorMsg(kGetTemperature, nullptr, e);
    char text[64];
    snprintf(text, sizeof(text), "%f", static_cast<double>(t));
    if (value) *value = text;
    return nullptr;
}

ErrorMsg* PSUDDAPI::getTemperatureThreshold(std::string name, std::string* value) {
    BaseClassPSUDDAPI* s = nullptr;
    std::string item;
    if (ErrorMsg* e = route(kGetThreshold, name, &s, &item)) return e;
    float t = 0;
    if (ErrorMsg* e = s->getTemperatureThreshold(item, &t)) return returnErrorMsg(kGetThreshold, nullptr, e);
    char text[64];
    snprintf(text, sizeof(text), "%f", static_cast<double>(t));
    if (value) *value = text;
    return nullptr;
}

ErrorMsg* PSUDDAPI::setTemperatureThreshold(std::string name, std::string value) {
    BaseClassPSUDDAPI* s = nullptr;
    std::string item;
    if (ErrorMsg* e = route(kSetThreshold, name, &s, &item)) return e;
    const float t = std::stof(value);  // malformed text raises, by contract
    if (ErrorMsg* e = s->setTemperatureThreshold(item, t)) return returnErrorMsg(kSetThreshold, nullptr, e);
    return nullptr;
}

ErrorMsg* PSUDDAPI::program(std::string name, uint8_t sector, char* image, int size) {
    if (!image) return returnErrorMsg(kProgram | kBadParameter3, "NULL pointer", nullptr);
    if (size < 1) return returnErrorMsg(kProgram | kBadParameter4, "invalid FW size", nullptr);
    BaseClassPSUDDAPI* s = nullptr;
    if (ErrorMsg* e = byName(kProgram, name, &s)) return e;
    ErrorMsg* result = nullptr;
    {
        FirmwareLock lock;
        result = s->program(sector, image, size);
    }
    if (result) return returnErrorMsg(kProgram, nullptr, result);
    return nullptr;
}
