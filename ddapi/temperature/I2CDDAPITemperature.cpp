// The sensor side of the I2C device layer: temperature requests by well-known name,
// handed to the driver the device's model text selects.
#include <memory>
#include <new>

#include "ddapi/i2c/I2CDDAPI.h"
#include "ddapi/temperature/I2CTemperature.h"

namespace {
constexpr ERRORCODE kReadByAddress = 0xCF081000;
constexpr ERRORCODE kNoDevice = 0x03;
constexpr ERRORCODE kSensor = 0xCF041800;

std::unique_ptr<I2CTemperature> driverFor(const std::string& model) {
    if (model == "MAX6657") return std::unique_ptr<I2CTemperature>(new (std::nothrow) MAX6657("MAX6657 i2c driver"));
    if (model == "SPDTMP")
        return std::unique_ptr<I2CTemperature>(new (std::nothrow) DIMMTemperature("DIMM Temperature i2c driver"));
    return nullptr;
}
}  // namespace

ErrorMsg* I2CDDAPI::getTemperatureDataByID(std::string name, TEMPERATURE_OPERATION_ID op, std::string* value) {
    I2CDevice* device = get_device_by_well_known_name(name.c_str());
    if (!device) return returnErrorMsg(kReadByAddress | kNoDevice, "by well_know_name", nullptr);
    std::unique_ptr<I2CTemperature> driver = driverFor(device->get_model());
    if (!driver) return returnErrorMsg(kSensor, "Not support temperature sensor", nullptr);
    ErrorMsg* e = nullptr;
    switch (op) {
    case TEMPERATURE_OPERATION_CURRENT: e = driver->GetCurrntTemperature(name, value); break;
    case TEMPERATURE_OPERATION_HIGH: e = driver->GetThresholdHigh(name, value); break;
    case TEMPERATURE_OPERATION_LOW: e = driver->GetThresholdLow(name, value); break;
    default: break;
    }
    if (e) return returnErrorMsg(kSensor, nullptr, e);
    return nullptr;
}

ErrorMsg* I2CDDAPI::setTemperatureDataByID(std::string name, TEMPERATURE_OPERATION_ID op, std::string value) {
    I2CDevice* device = get_device_by_well_known_name(name.c_str());
    if (!device) return returnErrorMsg(kReadByAddress | kNoDevice, "by well_know_name", nullptr);
    std::unique_ptr<I2CTemperature> driver = driverFor(device->get_model());
    if (!driver) return returnErrorMsg(kSensor, "Not support temperature sensor", nullptr);
    ErrorMsg* e = nullptr;
    if (op == TEMPERATURE_OPERATION_HIGH) e = driver->SetThresholdHigh(name, value);
    if (op == TEMPERATURE_OPERATION_LOW) e = driver->SetThresholdLow(name, value);
    if (e) return returnErrorMsg(kSensor, nullptr, e);
    return nullptr;
}
