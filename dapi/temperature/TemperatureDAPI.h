// Diagnostic layer of the temperature sensors: the sensor names of the I2C profile,
// readings and limits by name, limit settings.
#pragma once

#include <list>
#include <string>

#include "api/BaseClass.h"
#include "ddapi/temperature/TemperatureGeneric.h"

class TemperatureDDAPI;

class QUARN_EXPORT TemperatureDAPI : public BaseClassDAPI {
public:
    explicit TemperatureDAPI(const char* name);
    ~TemperatureDAPI() override;

    ErrorMsg* displayTemperatureNameList(std::list<std::string>* list);
    ErrorMsg* getDataByName(std::string name, TEMPERATURE_DATA_ELEMENT element, std::list<std::string>* list);
    // One line per element 1-5: its label ("temperature: ", "threshold_hi0: " ...) and value.
    ErrorMsg* getTemperatureDataAllInfo(std::string name, std::list<std::string>* list);
    ErrorMsg* setDataByName(std::string name, TEMPERATURE_DATA_ELEMENT element, std::string value);

    ErrorMsg* getLastResult() const { return m_lastResult; }

private:
    ErrorMsg* keep(ErrorMsg* e) { return m_lastResult = e; }
    TemperatureDDAPI* m_device;
    ErrorMsg* m_lastResult;
};
