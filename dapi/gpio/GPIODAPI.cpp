// GPIO diagnostic layer.
#include "dapi/gpio/GPIODAPI.h"

#include <new>

#include "ddapi/gpio/GPIODDAPI.h"

namespace {
constexpr ERRORCODE kConstructor = 0xC6040400;
constexpr ERRORCODE kDisplayGPIOList = 0xC6040800;
constexpr ERRORCODE kGetStatus = 0xC6040C00;
constexpr ERRORCODE kSetStatus = 0xC6041000;
constexpr ERRORCODE kCreateFail = 0x23A;
}  // namespace

GPIODAPI::GPIODAPI(const char* name) : BaseClassDAPI(name), m_device(nullptr) {
    m_device = new (std::nothrow) GPIODDAPI("GPIO_drv");
    if (!m_device) {
        addErrorMsg(kConstructor | kCreateFail, nullptr);
        return;
    }
    if (ErrorMsg* errors = m_device->getErrorMsg()) addErrorMsg(kConstructor, nullptr, errors);
}

GPIODAPI::~GPIODAPI() { delete m_device; }

ErrorMsg* GPIODAPI::displayGPIOList(std::list<std::string>* list) {
    if (!m_device) return returnErrorMsg(kDisplayGPIOList | kCreateFail, nullptr, nullptr);
    if (ErrorMsg* e = m_device->getGPIOList(list)) return returnErrorMsg(kDisplayGPIOList, nullptr, e);
    return nullptr;
}

ErrorMsg* GPIODAPI::getStatus(std::string name, bool* value) {
    if (!m_device) return returnErrorMsg(kGetStatus | kCreateFail, nullptr, nullptr);
    if (ErrorMsg* e = m_device->readBit(name, value)) return returnErrorMsg(kGetStatus, nullptr, e);
    return nullptr;
}

ErrorMsg* GPIODAPI::setStatus(std::string name, bool value) {
    if (!m_device) return returnErrorMsg(kSetStatus | kCreateFail, nullptr, nullptr);
    if (ErrorMsg* e = m_device->writeBit(name, value)) return returnErrorMsg(kSetStatus, nullptr, e);
    return nullptr;
}
