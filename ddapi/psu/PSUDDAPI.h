// The board's present power supplies: lists of supplies and composed item names
// ("psu0_fan1", "psu0_rtr_led"), item routing, the psu info file, and firmware
// programming under a lock shared by every process.
#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include "api/BaseClass.h"

class BaseClassPSUDDAPI;

namespace quarn::psu {
QUARN_EXPORT extern const char kInfoDirectory[];
QUARN_EXPORT extern const char kInfoFile[];
// The System V key of the firmware lock.
constexpr int kFirmwareLockKey = static_cast<int>(0xCD085C00u);
}  // namespace quarn::psu

class QUARN_EXPORT PSUDDAPI : public BaseClassDDAPI {
public:
    explicit PSUDDAPI(const char* name = "PSUDDAPI");
    ~PSUDDAPI() override;

    ErrorMsg* getDeviceList(std::list<std::string>* list);
    ErrorMsg* getFanList(std::list<std::string>* list);
    ErrorMsg* getLEDList(std::list<std::string>* list) override;
    ErrorMsg* getTemperatureList(std::list<std::string>* list);
    ErrorMsg* getTemperatureThresholdList(std::list<std::string>* list);

    // By supply name.
    ErrorMsg* getType(std::string name, std::string* value);
    ErrorMsg* getVendor(std::string name, std::string* value);
    ErrorMsg* getFWVersion(std::string name, std::string* value);
    ErrorMsg* getPartNumber(std::string name, std::string* value);
    ErrorMsg* getSerialNumber(std::string name, std::string* value);
    ErrorMsg* getMaxPower(std::string name, std::string* value);

    // By composed item name: supply name, underscore, item.
    ErrorMsg* getFanSpeed(std::string name, int* speed);
    ErrorMsg* setFanSpeed(std::string name, int speed);
    ErrorMsg* getSupportFanSpeed(std::string name, std::list<std::string>* speeds);
    ErrorMsg* getLEDStatus(std::string name, std::string* status) override;
    ErrorMsg* setLEDStatus(std::string name, std::string status) override;
    // Text with "%f"; a value to set is read with std::stof (its exceptions reach the caller).
    ErrorMsg* getTemperature(std::string name, std::string* value);
    ErrorMsg* getTemperatureThreshold(std::string name, std::string* value);
    ErrorMsg* setTemperatureThreshold(std::string name, std::string value);

    ErrorMsg* program(std::string name, uint8_t sector, char* image, int size);
    ErrorMsg* initializePSUInfoFile();

    // The supplies, in psu info file order (owned here).
    const std::vector<BaseClassPSUDDAPI*>& supplies() const { return m_supplies; }

private:
    void setUp();
    BaseClassPSUDDAPI* find(const std::string& name) const;
    // Splits "psu0_fan1"; on failure the chain under code.
    ErrorMsg* route(ERRORCODE code, const std::string& name, BaseClassPSUDDAPI** supply, std::string* item);
    ErrorMsg* byName(ERRORCODE code, const std::string& name, BaseClassPSUDDAPI** supply);
    ErrorMsg* itemList(ERRORCODE code, std::list<std::string>* list,
                       ErrorMsg* (BaseClassPSUDDAPI::*get)(std::list<std::string>*));

    std::vector<BaseClassPSUDDAPI*> m_supplies;
};
