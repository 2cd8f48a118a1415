// One power supply of the board: its well-known name, its I2C access and the operations
// every supply kind offers. Items of a supply are named without the supply prefix here
// ("fan0", "rtr_led"); PSUDDAPI routes composed names ("psu0_fan0") to them.
#pragma once

#include <cstdint>
#include <list>
#include <string>

#include "api/BaseClass.h"

class I2CDAPI;

class QUARN_EXPORT BaseClassPSUDDAPI : public BaseClassDDAPI {
public:
    BaseClassPSUDDAPI();
    ~BaseClassPSUDDAPI() override;

    std::string getName() const { return name; }
    void setName(std::string n) { name = std::move(n); }

    ErrorMsg* getLEDList(std::list<std::string>* list) override;
    ErrorMsg* getLEDStatus(std::string led, std::string* status) override;
    ErrorMsg* setLEDStatus(std::string led, std::string status) override;
    virtual ErrorMsg* getFanList(std::list<std::string>* list);
    virtual ErrorMsg* getFanSpeed(std::string fan, int* speed);
    virtual ErrorMsg* getFWVersion(std::string* version);
    virtual ErrorMsg* getMaxPower(std::string* power);
    virtual ErrorMsg* getPartNumber(std::string* part);
    virtual ErrorMsg* getSerialNumber(std::string* serial);
    virtual ErrorMsg* getSupportFanSpeed(std::string fan, std::list<std::string>* speeds);
    virtual ErrorMsg* getTemperature(std::string sensor, float* value);
    virtual ErrorMsg* getTemperatureList(std::list<std::string>* list);
    virtual ErrorMsg* getTemperatureThreshold(std::string threshold, float* value);
    virtual ErrorMsg* getTemperatureThresholdList(std::list<std::string>* list);
    virtual ErrorMsg* getType(std::string* type);
    virtual ErrorMsg* getVendor(std::string* vendor);
    virtual ErrorMsg* isPresent(bool* present);
    virtual ErrorMsg* program(uint8_t sector, char* image, int size);
    virtual ErrorMsg* setFanSpeed(std::string fan, int speed);
    virtual ErrorMsg* setTemperatureThreshold(std::string threshold, float value);

protected:
    std::string name;
    I2CDAPI* m_i2c;  // owned; created by PMBusPSU
};
