// Device layer of the temperature sensors: requests go to the I2C sensor kind, created
// anew for every request (so every request reads the I2C profile again).
#pragma once

#include <list>
#include <string>

#include "ddapi/temperature/TemperatureGeneric.h"

class QUARN_EXPORT TemperatureDDAPI : public BaseClassDDAPI {
public:
    static constexpr int kKinds = 10;
    static constexpr int kI2CSlot = 5;

    explicit TemperatureDDAPI(const char* name);
    ~TemperatureDDAPI() override;

    ErrorMsg* getTemperatureNameList(std::list<std::string>* list);
    ErrorMsg* getDataByName(std::string name, TEMPERATURE_DATA_ELEMENT element, std::list<std::string>* list);
    // The I2C kind's failure is passed on unchanged (a refused limit write is reported).
    ErrorMsg* setDataByName(std::string name, TEMPERATURE_DATA_ELEMENT element, std::string value);

private:
    ErrorMsg* createI2CKind(ERRORCODE code);
    void releaseKinds();
    TemperatureGeneric* m_kinds[kKinds];
};
