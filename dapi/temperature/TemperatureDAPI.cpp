// Diagnostic layer of the temperature sensors.
#include "dapi/temperature/TemperatureDAPI.h"

#include <new>

#include "ddapi/temperature/TemperatureDDAPI.h"

namespace {
constexpr ERRORCODE kConstructor = 0xD0040400;
constexpr ERRORCODE kGetDataByName = 0xD0041C00;
constexpr ERRORCODE kSetDataByName = 0xD0042000;
constexpr ERRORCODE kDisplayNameList = 0xD0042400;
constexpr ERRORCODE kAllocate = 0x214;

const char* const kLabels[] = {"", "temperature: ", "threshold_hi0: ", "threshold_low0: ", "threshold_hi1: ",
                               "threshold_low1: "};
}  // namespace

TemperatureDAPI::TemperatureDAPI(const char* name) : BaseClassDAPI(name), m_device(nullptr), m_lastResult(nullptr) {
    if (ErrorMsg* e = getErrorMsg()) addErrorMsg(kConstructor, nullptr, e);
    m_device = new (std::nothrow) TemperatureDDAPI("Temperature_drv");
    if (!m_device) addErrorMsg(kConstructor | kAllocate, nullptr);
}

TemperatureDAPI::~TemperatureDAPI() { delete m_device; }

ErrorMsg* TemperatureDAPI::displayTemperatureNameList(std::list<std::string>* list) {
    if (!m_device) return keep(returnErrorMsg(kDisplayNameList | kAllocate, nullptr, nullptr));
    if (ErrorMsg* e = m_device->getTemperatureNameList(list)) return keep(returnErrorMsg(kDisplayNameList, nullptr, e));
    return keep(nullptr);
}

ErrorMsg* TemperatureDAPI::getTemperatureDataAllInfo(std::string name, std::list<std::string>* list) {
    if (!m_device) return keep(returnErrorMsg(kGetDataByName | kAllocate, nullptr, nullptr));
    std::list<std::string> values;
    for (uint32_t element = TEMPERATURE_CURRENT; element <= TEMPERATURE_THRESHOLD_LOW1; ++element)
        if (ErrorMsg* e = m_device->getDataByName(name, static_cast<TEMPERATURE_DATA_ELEMENT>(element), &values))
            return keep(returnErrorMsg(kGetDataByName, nullptr, e));
    uint32_t element = TEMPERATURE_CURRENT;
    for (const std::string& v : values) {
        if (element > TEMPERATURE_THRESHOLD_LOW1) break;
        if (list) list->push_back(std::string(kLabels[element]) + v);
        ++element;
    }
    return keep(nullptr);
}

ErrorMsg* TemperatureDAPI::getDataByName(std::string name, TEMPERATURE_DATA_ELEMENT element,
                                         std::list<std::string>* list) {
    if (element == TEMPERATURE_ALL_INFO) return getTemperatureDataAllInfo(name, list);
    if (element > TEMPERATURE_THRESHOLD_LOW1) {
        // The previous call's chain belongs to whoever received it; it is not chained again.
        formatMessage("element %u outside 0 to 5", static_cast<unsigned>(element));
        return keep(returnErrorMsg(kGetDataByName, m_message, nullptr));
    }
    if (!m_device) return keep(returnErrorMsg(kGetDataByName | kAllocate, nullptr, nullptr));
    if (ErrorMsg* e = m_device->getDataByName(name, element, list)) return keep(returnErrorMsg(kGetDataByName, nullptr, e));
    return keep(nullptr);
}

ErrorMsg* TemperatureDAPI::setDataByName(std::string name, TEMPERATURE_DATA_ELEMENT element, std::string value) {
    if (element == TEMPERATURE_ALL_INFO || element == TEMPERATURE_CURRENT) return keep(nullptr);
    if (element > TEMPERATURE_THRESHOLD_LOW1) {
        formatMessage("element %u outside 0 to 5", static_cast<unsigned>(element));
        return keep(returnErrorMsg(kSetDataByName, m_message, nullptr));
    }
    if (!m_device) return keep(returnErrorMsg(kSetDataByName | kAllocate, nullptr, nullptr));
    if (ErrorMsg* e = m_device->setDataByName(name, element, value)) return keep(returnErrorMsg(kSetDataByName, nullptr, e));
    return keep(nullptr);
}
