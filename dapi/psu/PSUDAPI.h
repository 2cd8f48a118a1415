// Diagnostic layer of the power supplies: lists, values by element, settings and
// firmware programming from an image file.
#pragma once

#include <cstdint>
#include <list>
#include <string>

#include "api/BaseClass.h"

class PSUDDAPI;

enum PSU_ELEMENT_TYPE : uint32_t {
    PSU_TYPE = 0,
    PSU_FW_VERSION = 1,
    PSU_MAX_POWER = 2,
    PSU_PART_NUMBER = 3,
    PSU_SERIAL_NUMBER = 4,
    PSU_VENDOR = 5,
    PSU_LED_STATUS = 6,
    PSU_TEMPERATURE = 7,
    PSU_TEMPERATURE_THRESHOLD = 8,
    PSU_FAN_SPEED = 9,
};

class QUARN_EXPORT PSUDAPI : public BaseClassDAPI {
public:
    explicit PSUDAPI(const char* name);
    ~PSUDAPI() override;

    // kind: "psu", "fan", "led", "temp" or "threshold".
    ErrorMsg* getDeviceList(std::string kind, std::list<std::string>* list);
    ErrorMsg* getDataByElement(PSU_ELEMENT_TYPE element, std::string name, std::string* value);
    // Elements 6 (LED "on"/"off"), 8 (threshold) and 9 (fan speed, read with std::stoi
    // base 0: its exceptions reach the caller, as those of std::stof for thresholds).
    ErrorMsg* setDataByElement(PSU_ELEMENT_TYPE element, std::string name, std::string value);
    ErrorMsg* getSupportValueByElement(PSU_ELEMENT_TYPE element, std::string name,
                                       std::list<std::string>* list);
    ErrorMsg* updateFWByFile(std::string name, uint8_t sector, std::string path);

private:
    PSUDDAPI* m_device;
};
