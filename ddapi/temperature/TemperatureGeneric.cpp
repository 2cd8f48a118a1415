// Sensor kinds: I2C sensors, SATA drives, processors and power supplies.
#include "ddapi/temperature/TemperatureGeneric.h"

#include <cstdio>
#include <new>

#include "ddapi/i2c/I2CDDAPI.h"
#include "ddapi/processor/ProcessorDDAPI.h"
#include "ddapi/psu/PSUDDAPI.h"
#include "ddapi/sas/SASDDAPI.h"
#include "ddapi/sata/SATADDAPI.h"
#include "ddapi/temperature/I2CTemperature.h"

namespace {
constexpr ERRORCODE kConstructor = 0xD0080400;
constexpr ERRORCODE kGetCurrent = 0xD0080C00;
constexpr ERRORCODE kI2CNameList = 0xD0083000;
constexpr ERRORCODE kI2CCurrent = 0xD0083400;
constexpr ERRORCODE kI2CGetData = 0xD0083800;
constexpr ERRORCODE kI2CSetData = 0xD0083C00;
constexpr ERRORCODE kI2CHigh0 = 0xD0084000;
constexpr ERRORCODE kI2CLow0 = 0xD0084400;
constexpr ERRORCODE kI2CSetHigh0 = 0xD0085000;
constexpr ERRORCODE kI2CSetLow0 = 0xD0085400;
constexpr ERRORCODE kNotSupported = 0x235;
constexpr ERRORCODE kAllocate = 0x214;
const char kNotSupport[] = "Not Support";
}  // namespace

TemperatureGeneric::TemperatureGeneric(const char* name) : BaseClassDDAPI(name) {}
TemperatureGeneric::~TemperatureGeneric() = default;

ErrorMsg* TemperatureGeneric::getTemperatureNameList(std::list<std::string>*) {
    return returnErrorMsg(0xC0000000u | kNotSupported, nullptr, nullptr);
}
ErrorMsg* TemperatureGeneric::getDataByName(std::string, TEMPERATURE_DATA_ELEMENT, std::list<std::string>*) {
    return returnErrorMsg(0xC0000000u | kNotSupported, nullptr, nullptr);
}
ErrorMsg* TemperatureGeneric::setDataByName(std::string, TEMPERATURE_DATA_ELEMENT, std::string) {
    return returnErrorMsg(0xC0000000u | kNotSupported, nullptr, nullptr);
}

// ---- Temperature_I2C ----

Temperature_I2C::Temperature_I2C(const char* name) : TemperatureGeneric(name), m_i2c(new (std::nothrow) I2CDDAPI("TEMP_I2C")) {
    if (!m_i2c) {
        addErrorMsg(kConstructor | kAllocate, nullptr);
        return;
    }
    // A profile that could not be read makes every request fail: say why at once.
    if (ErrorMsg* e = m_i2c->getErrorMsg()) addErrorMsg(kConstructor, nullptr, e);
}

Temperature_I2C::~Temperature_I2C() { delete m_i2c; }

ErrorMsg* Temperature_I2C::getTemperatureNameList(std::list<std::string>* list) {
    if (!m_i2c) return returnErrorMsg(kI2CNameList | kAllocate, nullptr, nullptr);
    I2CDevice* copies[quarn::i2c::kMaxDevices] = {};
    ErrorMsg* e = m_i2c->DisplayI2cDevicesListByType(copies, I2C_DEVICE_TYPE_TEMPERATURE);
    for (I2CDevice*& d : copies) {
        if (d && !e && list) list->push_back(d->get_Name());
        delete d;
        d = nullptr;
    }
    if (e) return returnErrorMsg(kI2CNameList, nullptr, e);
    return nullptr;
}

ErrorMsg* Temperature_I2C::get(ERRORCODE code, const std::string& name, uint32_t op, std::list<std::string>* list) {
    if (!m_i2c) return returnErrorMsg(code | kAllocate, nullptr, nullptr);
    std::string value;
    if (ErrorMsg* e = m_i2c->getTemperatureDataByID(name, static_cast<TEMPERATURE_OPERATION_ID>(op), &value))
        return returnErrorMsg(code, nullptr, e);
    if (list) list->push_back(value);
    return nullptr;
}

ErrorMsg* Temperature_I2C::set(ERRORCODE code, const std::string& name, uint32_t op, const std::string& value) {
    if (!m_i2c) return returnErrorMsg(code | kAllocate, nullptr, nullptr);
    if (ErrorMsg* e = m_i2c->setTemperatureDataByID(name, static_cast<TEMPERATURE_OPERATION_ID>(op), value))
        return returnErrorMsg(code, nullptr, e);
    return nullptr;
}

ErrorMsg* Temperature_I2C::getCurrentTemperatureList(std::string name, std::list<std::string>* list) {
    return get(kI2CCurrent, name, TEMPERATURE_OPERATION_CURRENT, list);
}
ErrorMsg* Temperature_I2C::getThresholdHigh0List(std::string name, std::list<std::string>* list) {
    return get(kI2CHigh0, name, TEMPERATURE_OPERATION_HIGH, list);
}
ErrorMsg* Temperature_I2C::getThresholdLow0List(std::string name, std::list<std::string>* list) {
    return get(kI2CLow0, name, TEMPERATURE_OPERATION_LOW, list);
}
ErrorMsg* Temperature_I2C::getThresholdHigh1List(std::string, std::list<std::string>* list) {
    if (list) list->push_back(kNotSupport);
    return nullptr;
}
ErrorMsg* Temperature_I2C::getThresholdLow1List(std::string, std::list<std::string>* list) {
    if (list) list->push_back(kNotSupport);
    return nullptr;
}
ErrorMsg* Temperature_I2C::setThresholdHigh0List(std::string name, std::string value) {
    return set(kI2CSetHigh0, name, TEMPERATURE_OPERATION_HIGH, value);
}
ErrorMsg* Temperature_I2C::setThresholdLow0List(std::string name, std::string value) {
    return set(kI2CSetLow0, name, TEMPERATURE_OPERATION_LOW, value);
}
ErrorMsg* Temperature_I2C::setThresholdHigh1List(std::string, std::string) { return nullptr; }
ErrorMsg* Temperature_I2C::setThresholdLow1List(std::string, std::string) { return nullptr; }

ErrorMsg* Temperature_I2C::getDataByName(std::string name, TEMPERATURE_DATA_ELEMENT element,
                                         std::list<std::string>* list) {
    ErrorMsg* e = nullptr;
    switch (element) {
    case TEMPERATURE_ALL_INFO: return nullptr;
    case TEMPERATURE_CURRENT: e = getCurrentTemperatureList(name, list); break;
    case TEMPERATURE_THRESHOLD_HIGH0: e = getThresholdHigh0List(name, list); break;
    case TEMPERATURE_THRESHOLD_LOW0: e = getThresholdLow0List(name, list); break;
    case TEMPERATURE_THRESHOLD_HIGH1: e = getThresholdHigh1List(name, list); break;
    case TEMPERATURE_THRESHOLD_LOW1: e = getThresholdLow1List(name, list); break;
    default:
        if (list) list->push_back(kNotSupport);
        return nullptr;
    }
    if (e) return returnErrorMsg(kI2CGetData, nullptr, e);
    return nullptr;
}

ErrorMsg* Temperature_I2C::setDataByName(std::string name, TEMPERATURE_DATA_ELEMENT element, std::string value) {
    ErrorMsg* e = nullptr;
    switch (element) {
    case TEMPERATURE_THRESHOLD_HIGH0: e = setThresholdHigh0List(name, value); break;
    case TEMPERATURE_THRESHOLD_LOW0: e = setThresholdLow0List(name, value); break;
    case TEMPERATURE_THRESHOLD_HIGH1: e = setThresholdHigh1List(name, value); break;
    case TEMPERATURE_THRESHOLD_LOW1: e = setThresholdLow1List(name, value); break;
    default: break;
    }
    if (e) return returnErrorMsg(kI2CSetData, nullptr, e);
    return nullptr;
}

// ---- Temperature_SATA ----

Temperature_SATA::Temperature_SATA(const char* name)
    : TemperatureGeneric(name), m_sata(new (std::nothrow) SATADDAPI("TEMP_SATA")) {
    if (!m_sata) {
        addErrorMsg(kConstructor | kAllocate, nullptr);
        return;
    }
    if (ErrorMsg* e = m_sata->generateSATAList()) addErrorMsg(kConstructor, nullptr, e);
}

Temperature_SATA::~Temperature_SATA() { delete m_sata; }

ErrorMsg* Temperature_SATA::getDriveNames(std::list<std::string>* list) {
    if (!m_sata || !list) return nullptr;
    for (const SATAController& c : m_sata->getControllers())
        for (const SATAPort& port : c.ports)
            if (!port.deviceNode.empty()) list->push_back(port.name);
    return nullptr;
}

ErrorMsg* Temperature_SATA::getTemperatureNameList(std::list<std::string>* list) {
    if (!m_sata) return nullptr;
    m_sata->listDrive();
    return getDriveNames(list);
}

ErrorMsg* Temperature_SATA::getCurrentTemperatureList(std::string name, std::list<std::string>* list) {
    if (!m_sata) return returnErrorMsg(kGetCurrent | kAllocate, nullptr, nullptr);
    std::string value;
    if (ErrorMsg* e = m_sata->getDataByName(name, SATA_DATA_TEMPERATURE, &value)) return returnErrorMsg(kGetCurrent, nullptr, e);
    if (list) list->push_back(value);
    return nullptr;
}
ErrorMsg* Temperature_SATA::getThresholdHigh0List(std::string, std::list<std::string>*) { return nullptr; }
ErrorMsg* Temperature_SATA::getThresholdLow0List(std::string, std::list<std::string>*) { return nullptr; }
ErrorMsg* Temperature_SATA::getThresholdHigh1List(std::string, std::list<std::string>*) { return nullptr; }
ErrorMsg* Temperature_SATA::getThresholdLow1List(std::string, std::list<std::string>*) { return nullptr; }

// A drive whose temperature cannot be read is passed on: a caller asking for it wants
// to know why it got nothing.
ErrorMsg* Temperature_SATA::getDataByName(std::string name, TEMPERATURE_DATA_ELEMENT element,
                                          std::list<std::string>* list) {
    if (element == TEMPERATURE_CURRENT) return getCurrentTemperatureList(name, list);
    return nullptr;
}

// ---- Temperature_SAS ----

namespace {
std::string lowerCase(std::string text) {
    for (char& c : text)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return text;
}
constexpr ERRORCODE kGetCurrentTemperature = 0xD0040800;
constexpr size_t kMaxControllers = 255;
}  // namespace

Temperature_SAS::Temperature_SAS(const char* name)
    : TemperatureGeneric(name), m_sas(new (std::nothrow) SASDDAPI("TEMP_SAS")) {
    if (!m_sas) {
        addErrorMsg(kConstructor | kAllocate, nullptr);
        return;
    }
    if (ErrorMsg* e = m_sas->getErrorMsg()) addErrorMsg(kConstructor, nullptr, e);
}

Temperature_SAS::~Temperature_SAS() { delete m_sas; }

ErrorMsg* Temperature_SAS::getTemperatureNameList(std::list<std::string>* list) {
    if (!m_sas) return returnErrorMsg(kConstructor | kAllocate, nullptr, nullptr);
    std::vector<SAS_CONTROLLER_INFO> controllers;
    if (ErrorMsg* e = m_sas->getControllerList(&controllers)) return returnErrorMsg(kI2CNameList, nullptr, e);
    if (list)
        for (const SAS_CONTROLLER_INFO& c : controllers) list->push_back(c.name);
    return nullptr;
}

ErrorMsg* Temperature_SAS::getCurrentTemperatureList(std::string name, std::list<std::string>* list) {
    if (!m_sas) return returnErrorMsg(kGetCurrentTemperature | kAllocate, nullptr, nullptr);
    std::vector<SAS_CONTROLLER_INFO> controllers;
    if (ErrorMsg* e = m_sas->getControllerList(&controllers)) {
        deleteErrorMsg(e);
        return returnErrorMsg(kGetCurrentTemperature, nullptr, nullptr);
    }
    size_t index = 0;
    while (index < controllers.size() && index < kMaxControllers &&
           lowerCase(controllers[index].name) != lowerCase(name))
        ++index;
    if (index >= controllers.size() || index >= kMaxControllers)
        return returnErrorMsg(kGetCurrentTemperature, name.c_str(), nullptr);
    if (ErrorMsg* e = m_sas->setControllerID(static_cast<unsigned char>(index))) return returnErrorMsg(kGetCurrent, nullptr, e);
    deleteErrorMsg(m_sas->setPHYNumber(0xFF));
    unsigned int degrees = 0;
    if (ErrorMsg* e = m_sas->doIOCTLCommand(SASIOCTL::SAS_IOCTL_TEMPERATURE, &degrees))
        return returnErrorMsg(kGetCurrent, nullptr, e);
    char text[16];
    snprintf(text, sizeof(text), "%u", degrees);
    if (list) list->push_back(text);
    return nullptr;
}

ErrorMsg* Temperature_SAS::getThresholdHigh0List(std::string, std::list<std::string>*) { return nullptr; }
ErrorMsg* Temperature_SAS::getThresholdLow0List(std::string, std::list<std::string>*) { return nullptr; }
ErrorMsg* Temperature_SAS::getThresholdHigh1List(std::string, std::list<std::string>*) { return nullptr; }
ErrorMsg* Temperature_SAS::getThresholdLow1List(std::string, std::list<std::string>*) { return nullptr; }

ErrorMsg* Temperature_SAS::getDataByName(std::string name, TEMPERATURE_DATA_ELEMENT element,
                                         std::list<std::string>* list) {
    switch (element) {
    case TEMPERATURE_CURRENT: return getCurrentTemperatureList(name, list);
    case TEMPERATURE_THRESHOLD_HIGH0: return getThresholdHigh0List(name, list);
    case TEMPERATURE_THRESHOLD_LOW0: return getThresholdLow0List(name, list);
    case TEMPERATURE_THRESHOLD_HIGH1: return getThresholdHigh1List(name, list);
    case TEMPERATURE_THRESHOLD_LOW1: return getThresholdLow1List(name, list);
    default: return nullptr;
    }
}

// ---- Temperature_CPU ----

Temperature_CPU::Temperature_CPU(const char* name)
    : TemperatureGeneric(name), m_cpu(new (std::nothrow) ProcessorDDAPI("TEMP_CPU")) {
    quarn::temperature::installBroadwellDE();
    if (!m_cpu) addErrorMsg(kConstructor | kAllocate, nullptr);
}

Temperature_CPU::~Temperature_CPU() { delete m_cpu; }

ErrorMsg* Temperature_CPU::getTemperatureNameList(std::list<std::string>* list) {
    if (!m_cpu) return returnErrorMsg(kConstructor | kAllocate, nullptr, nullptr);
    int n = 0;
    if (ErrorMsg* e = m_cpu->GetCPUPhysicalNumber(&n)) return e;
    for (int i = 0; i < n; ++i) {
        char text[24];
        snprintf(text, sizeof(text), "Processor%d", i);
        if (list) list->push_back(text);
    }
    return nullptr;
}

ErrorMsg* Temperature_CPU::get(const std::string& name, int op, std::list<std::string>* list) {
    if (!m_cpu) return returnErrorMsg(kGetCurrent | kAllocate, nullptr, nullptr);
    std::string value;
    if (ErrorMsg* e = m_cpu->getTemperatureDataByID(name, op, &value)) return returnErrorMsg(kGetCurrent, nullptr, e);
    if (list) list->push_back(value);
    return nullptr;
}

ErrorMsg* Temperature_CPU::getCurrentTemperatureList(std::string name, std::list<std::string>* list) {
    return get(name, 0, list);
}
ErrorMsg* Temperature_CPU::getThresholdHigh0List(std::string name, std::list<std::string>* list) {
    return get(name, 1, list);
}
ErrorMsg* Temperature_CPU::getThresholdLow0List(std::string name, std::list<std::string>* list) {
    return get(name, 2, list);
}
ErrorMsg* Temperature_CPU::getThresholdHigh1List(std::string, std::list<std::string>*) { return nullptr; }
ErrorMsg* Temperature_CPU::getThresholdLow1List(std::string, std::list<std::string>*) { return nullptr; }
ErrorMsg* Temperature_CPU::setThresholdHigh0List(std::string name, std::string value) {
    if (!m_cpu) return returnErrorMsg(kConstructor | kAllocate, nullptr, nullptr);
    return m_cpu->setTemperatureDataByID(name, 1, value);
}
ErrorMsg* Temperature_CPU::setThresholdLow0List(std::string name, std::string value) {
    if (!m_cpu) return returnErrorMsg(kConstructor | kAllocate, nullptr, nullptr);
    return m_cpu->setTemperatureDataByID(name, 2, value);
}
ErrorMsg* Temperature_CPU::setThresholdHigh1List(std::string, std::string) { return nullptr; }
ErrorMsg* Temperature_CPU::setThresholdLow1List(std::string, std::string) { return nullptr; }

ErrorMsg* Temperature_CPU::getDataByName(std::string name, TEMPERATURE_DATA_ELEMENT element,
                                         std::list<std::string>* list) {
    ErrorMsg* e = nullptr;
    switch (element) {
    case TEMPERATURE_ALL_INFO: return nullptr;
    case TEMPERATURE_CURRENT: e = getCurrentTemperatureList(name, list); break;
    case TEMPERATURE_THRESHOLD_HIGH0: e = getThresholdHigh0List(name, list); break;
    case TEMPERATURE_THRESHOLD_LOW0: e = getThresholdLow0List(name, list); break;
    case TEMPERATURE_THRESHOLD_HIGH1: e = getThresholdHigh1List(name, list); break;
    case TEMPERATURE_THRESHOLD_LOW1: e = getThresholdLow1List(name, list); break;
    default:
        if (list) list->push_back(kNotSupport);
        return nullptr;
    }
    if (e) return returnErrorMsg(kI2CGetData, nullptr, e);
    return nullptr;
}

ErrorMsg* Temperature_CPU::setDataByName(std::string name, TEMPERATURE_DATA_ELEMENT element, std::string value) {
    ErrorMsg* e = nullptr;
    switch (element) {
    case TEMPERATURE_THRESHOLD_HIGH0: e = setThresholdHigh0List(name, value); break;
    case TEMPERATURE_THRESHOLD_LOW0: e = setThresholdLow0List(name, value); break;
    default: break;
    }
    if (e) return returnErrorMsg(kI2CSetData, nullptr, e);
    return nullptr;
}

// ---- Temperature_PSU ----

Temperature_PSU::Temperature_PSU(const char* name) : TemperatureGeneric(name), m_psu(new (std::nothrow) PSUDDAPI()) {
    if (!m_psu) {
        addErrorMsg(kConstructor | kAllocate, nullptr);
        return;
    }
    if (ErrorMsg* e = m_psu->getErrorMsg()) addErrorMsg(kConstructor, nullptr, e);
}

Temperature_PSU::~Temperature_PSU() { delete m_psu; }

ErrorMsg* Temperature_PSU::getTemperatureNameList(std::list<std::string>* list) {
    if (!m_psu) return returnErrorMsg(kConstructor | kAllocate, nullptr, nullptr);
    return m_psu->getTemperatureList(list);
}

ErrorMsg* Temperature_PSU::getCurrentTemperatureList(std::string name, std::list<std::string>* list) {
    if (!m_psu) return returnErrorMsg(kGetCurrent | kAllocate, nullptr, nullptr);
    std::string value;
    if (ErrorMsg* e = m_psu->getTemperature(name, &value)) return returnErrorMsg(kGetCurrent, nullptr, e);
    if (list) list->push_back(value);
    return nullptr;
}

ErrorMsg* Temperature_PSU::getThresholdHigh0List(std::string name, std::list<std::string>* list) {
    if (!m_psu) return returnErrorMsg(kGetCurrent | kAllocate, nullptr, nullptr);
    std::string value;
    if (ErrorMsg* e = m_psu->getTemperatureThreshold(name, &value)) return returnErrorMsg(kGetCurrent, nullptr, e);
    if (list) list->push_back(value);
    return nullptr;
}
ErrorMsg* Temperature_PSU::getThresholdLow0List(std::string name, std::list<std::string>* list) {
    return getThresholdHigh0List(name, list);
}
ErrorMsg* Temperature_PSU::getThresholdHigh1List(std::string, std::list<std::string>*) { return nullptr; }
ErrorMsg* Temperature_PSU::getThresholdLow1List(std::string, std::list<std::string>*) { return nullptr; }
ErrorMsg* Temperature_PSU::setThresholdHigh0List(std::string name, std::string value) {
    if (!m_psu) return returnErrorMsg(kGetCurrent | kAllocate, nullptr, nullptr);
    return m_psu->setTemperatureThreshold(name, value);
}
ErrorMsg* Temperature_PSU::setThresholdLow0List(std::string name, std::string value) {
    return setThresholdHigh0List(name, value);
}

namespace {
std::string thresholdName(const std::string& sensor, const char* suffix) {
    return sensor.substr(0, sensor.find('_')) + suffix;
}
}  // namespace

// Failures are passed on (a caller asking for a supply's value wants to know why).
ErrorMsg* Temperature_PSU::getDataByName(std::string name, TEMPERATURE_DATA_ELEMENT element,
                                         std::list<std::string>* list) {
    switch (element) {
    case TEMPERATURE_CURRENT: return getCurrentTemperatureList(name, list);
    case TEMPERATURE_THRESHOLD_HIGH0: return getThresholdHigh0List(thresholdName(name, "_over_temp_threshold"), list);
    case TEMPERATURE_THRESHOLD_LOW0: return getThresholdLow0List(thresholdName(name, "_under_temp_threshold"), list);
    default: return nullptr;
    }
}

ErrorMsg* Temperature_PSU::setDataByName(std::string name, TEMPERATURE_DATA_ELEMENT element, std::string value) {
    switch (element) {
    case TEMPERATURE_THRESHOLD_HIGH0: return setThresholdHigh0List(thresholdName(name, "_over_temp_threshold"), value);
    case TEMPERATURE_THRESHOLD_LOW0: return setThresholdLow0List(thresholdName(name, "_under_temp_threshold"), value);
    default: return nullptr;
    }
}
