// One power supply: the operations a supply kind does not offer answer "function is not
// implement" under their own function row.
#include "ddapi/psu/BaseClassPSUDDAPI.h"

#include "dapi/i2c/I2CDAPI.h"
#include "ddapi/psu/PsuCodes.h"

using namespace quarn::psu;

BaseClassPSUDDAPI::BaseClassPSUDDAPI() : BaseClassDDAPI("PSUDDAPI"), m_i2c(nullptr) {}

BaseClassPSUDDAPI::~BaseClassPSUDDAPI() {
    delete m_i2c;
    m_i2c = nullptr;
}

ErrorMsg* BaseClassPSUDDAPI::getLEDList(std::list<std::string>*) { return nullptr; }
ErrorMsg* BaseClassPSUDDAPI::isPresent(bool*) { return nullptr; }

#define QUARN_PSU_NOT_IMPLEMENTED(signature, code) \
    ErrorMsg* BaseClassPSUDDAPI::signature { return returnErrorMsg((code) | kNotImplemented, nullptr, nullptr); }

QUARN_PSU_NOT_IMPLEMENTED(getLEDStatus(std::string, std::string*), kGetLEDStatus)
QUARN_PSU_NOT_IMPLEMENTED(setLEDStatus(std::string, std::string), kSetLEDStatus)
QUARN_PSU_NOT_IMPLEMENTED(getFanList(std::list<std::string>*), kGetFanList)
QUARN_PSU_NOT_IMPLEMENTED(getFanSpeed(std::string, int*), kGetFanSpeed)
QUARN_PSU_NOT_IMPLEMENTED(getFWVersion(std::string*), kGetFWVersion)
QUARN_PSU_NOT_IMPLEMENTED(getMaxPower(std::string*), kGetMaxPower)
QUARN_PSU_NOT_IMPLEMENTED(getPartNumber(std::string*), kGetPartNumber)
QUARN_PSU_NOT_IMPLEMENTED(getSerialNumber(std::string*), kGetSerialNumber)
QUARN_PSU_NOT_IMPLEMENTED(getSupportFanSpeed(std::string, std::list<std::string>*), kGetSupportFanSpeed)
QUARN_PSU_NOT_IMPLEMENTED(getTemperature(std::string, float*), kGetTemperature)
QUARN_PSU_NOT_IMPLEMENTED(getTemperatureList(std::list<std::string>*), kGetTemperatureList)
QUARN_PSU_NOT_IMPLEMENTED(getTemperatureThreshold(std::string, float*), kGetThreshold)
QUARN_PSU_NOT_IMPLEMENTED(getTemperatureThresholdList(std::list<std::string>*), kGetThresholdList)
QUARN_PSU_NOT_IMPLEMENTED(getType(std::string*), kGetType)
QUARN_PSU_NOT_IMPLEMENTED(getVendor(std::string*), kGetVendor)
QUARN_PSU_NOT_IMPLEMENTED(program(uint8_t, char*, int), kProgram)
QUARN_PSU_NOT_IMPLEMENTED(setFanSpeed(std::string, int), kSetFanSpeed)
QUARN_PSU_NOT_IMPLEMENTED(setTemperatureThreshold(std::string, float), kSetThreshold)

#undef QUARN_PSU_NOT_IMPLEMENTED
