// Device layer of the temperature sensors.
#include "ddapi/temperature/TemperatureDDAPI.h"

#include <new>

namespace {
constexpr ERRORCODE kGetDataByName = 0xD0082800;
constexpr ERRORCODE kGetNameList = 0xD0082C00;
constexpr ERRORCODE kAllocate = 0x214;
}  // namespace

TemperatureDDAPI::TemperatureDDAPI(const char* name) : BaseClassDDAPI(name), m_kinds{} {}

TemperatureDDAPI::~TemperatureDDAPI() { releaseKinds(); }

void TemperatureDDAPI::releaseKinds() {
    for (TemperatureGeneric*& k : m_kinds) {
        delete k;
        k = nullptr;
    }
}

ErrorMsg* TemperatureDDAPI::createI2CKind(ERRORCODE code) {
    delete m_kinds[kI2CSlot];
    m_kinds[kI2CSlot] = new (std::nothrow) Temperature_I2C("TEMP_I2C");
    if (!m_kinds[kI2CSlot]) return returnErrorMsg(code | kAllocate, nullptr, nullptr);
    if (ErrorMsg* e = m_kinds[kI2CSlot]->getErrorMsg()) return returnErrorMsg(code, nullptr, e);
    return nullptr;
}

ErrorMsg* TemperatureDDAPI::getTemperatureNameList(std::list<std::string>* list) {
    if (ErrorMsg* e = createI2CKind(kGetNameList)) return e;
    if (ErrorMsg* e = m_kinds[kI2CSlot]->getTemperatureNameList(list)) return returnErrorMsg(kGetNameList, nullptr, e);
    return nullptr;
}

ErrorMsg* TemperatureDDAPI::getDataByName(std::string name, TEMPERATURE_DATA_ELEMENT element,
                                          std::list<std::string>* list) {
    if (ErrorMsg* e = createI2CKind(kGetDataByName)) return e;
    std::list<std::string> local;
    std::list<std::string>* out = list ? list : &local;
    if (ErrorMsg* e = m_kinds[kI2CSlot]->getDataByName(name, element, out)) return returnErrorMsg(kGetDataByName, nullptr, e);
    if (out->empty()) return returnErrorMsg(kGetDataByName, "Unknow well-known name", nullptr);
    return nullptr;
}

ErrorMsg* TemperatureDDAPI::setDataByName(std::string name, TEMPERATURE_DATA_ELEMENT element, std::string value) {
    if (ErrorMsg* e = createI2CKind(kGetDataByName)) return e;
    return m_kinds[kI2CSlot]->setDataByName(name, element, value);
}
