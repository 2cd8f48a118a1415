// GPIO device layer.
#include "ddapi/gpio/GPIODDAPI.h"

#include <cstdio>
#include <cstring>
#include <new>
#include <vector>

#include "api/StringUtil.h"
#include "api/platform/Files.h"
#include "ddapi/gpio/GPIO_FPGADriver.h"
#include "ddapi/gpio/GPIO_PCHDriver.h"

namespace {
const char kProfile[] = "/etc/quarn/GPIO_profile.ini";
constexpr size_t kMaxProfileSize = 1u << 20;

constexpr ERRORCODE kConstructor = 0xC6080400;
constexpr ERRORCODE kGetGPIOList = 0xC6080800;
constexpr ERRORCODE kReadBit = 0xC6081800;
constexpr ERRORCODE kWriteBit = 0xC6081C00;
constexpr ERRORCODE kOpenProfileFail = 0x02;
constexpr ERRORCODE kCreateFail = 0x23A;
}  // namespace

GPIODDAPI::GPIODDAPI(const char* name) : BaseClassDDAPI(name), m_drivers{} {
    std::string text;
    if (quarn::readTextFile(kProfile, &text, kMaxProfileSize) != 0) {
        addErrorMsg(kConstructor | kOpenProfileFail, nullptr);
        return;
    }
    enum { kNone, kFpga, kPch } section = kNone;
    for (const std::string& line : quarn::splitLines(text, kMaxLine)) {
        if (line.empty() || line[0] == '#') continue;
        char header[kMaxLine + 1];
        if (sscanf(line.c_str(), "[%499[^]]", header) == 1) {
            section = strcmp(header, "FPGA") == 0 ? kFpga : strcmp(header, "PCH") == 0 ? kPch : kNone;
            continue;
        }
        if (section == kNone) continue;  // before the first header, or a section nobody serves
        const int slot = section == kFpga ? kFpgaSlot : kPchSlot;
        if (!m_drivers[slot]) {
            GPIOGeneric* d = section == kFpga ? static_cast<GPIOGeneric*>(new (std::nothrow) GPIO_FPGADriver("GPIO_FPGA"))
                                              : new (std::nothrow) GPIO_PCHDriver("GPIO_PCH");
            if (!d) {
                addErrorMsg(kConstructor | kCreateFail, nullptr);
                section = kNone;
                continue;
            }
            // A driver that could not find its hardware stays: its pins are listed and
            // refuse every access, and the creator learns why from this list.
            if (ErrorMsg* errors = d->getErrorMsg()) addErrorMsg(kConstructor, nullptr, errors);
            m_drivers[slot] = d;
        }
        std::vector<char> copy(line.begin(), line.end());
        copy.push_back('\0');
        m_drivers[slot]->readINIFile(copy.data());
    }
}

GPIODDAPI::~GPIODDAPI() {
    for (GPIOGeneric*& d : m_drivers) {
        delete d;
        d = nullptr;
    }
}

ErrorMsg* GPIODDAPI::getGPIOList(std::list<std::string>* list) {
    for (GPIOGeneric* d : m_drivers) {
        if (!d) continue;
        if (ErrorMsg* e = d->getGPIOList(list)) return returnErrorMsg(kGetGPIOList, nullptr, e);
    }
    return nullptr;
}

// Both sections are served: a name the first driver does not know is offered to the
// next, so the chipset's pins stay reachable on a board whose profile also has FPGA pins.
GPIOGeneric* GPIODDAPI::driverFor(const std::string& name, ErrorMsg** refusal) {
    *refusal = nullptr;
    for (GPIOGeneric* d : m_drivers) {
        if (!d) continue;
        ErrorMsg* e = d->isMyGPIO(name);
        if (!e) {
            deleteErrorMsg(*refusal);
            *refusal = nullptr;
            return d;
        }
        if (*refusal) {
            deleteErrorMsg(e);
        } else {
            *refusal = e;
        }
    }
    return nullptr;
}

ErrorMsg* GPIODDAPI::readBit(std::string name, bool* value) {
    ErrorMsg* refusal = nullptr;
    GPIOGeneric* d = driverFor(name, &refusal);
    if (refusal) return returnErrorMsg(kReadBit, nullptr, refusal);
    if (!d) return nullptr;  // no profile: nothing to read
    if (ErrorMsg* e = d->readBit(name, value)) return returnErrorMsg(kReadBit, nullptr, e);
    return nullptr;
}

ErrorMsg* GPIODDAPI::writeBit(std::string name, bool value) {
    ErrorMsg* refusal = nullptr;
    GPIOGeneric* d = driverFor(name, &refusal);
    if (refusal) return returnErrorMsg(kWriteBit, nullptr, refusal);
    if (!d) return nullptr;
    if (ErrorMsg* e = d->writeBit(name, value)) return returnErrorMsg(kWriteBit, nullptr, e);
    return nullptr;
}

ErrorMsg* GPIODDAPI::getLogicalIdByName(const char*, unsigned int*) {
    printf("getLogicalIdByName\n");
    return nullptr;
}

ErrorMsg* GPIODDAPI::GetWellKnownNameByIndex(int, char*, int) {
    printf("GetWellKnownNameByIndex\n");
    return nullptr;
}
