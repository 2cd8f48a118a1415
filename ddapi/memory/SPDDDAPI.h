// SPD device layer: single fields of a DIMM's serial-presence-detect EEPROM read over
// I2C and decoded after the JEDEC DDR3 and DDR4 SPD layouts.
#pragma once

#include <list>
#include <string>

#include "api/BaseClass.h"

class I2CDAPI;

// SPD byte 2.
enum DDRType { DDR3 = 11, DDR4 = 12 };

class QUARN_EXPORT SPDDDAPI : public BaseClassDDAPI {
public:
    SPDDDAPI();
    ~SPDDDAPI() override;

    ErrorMsg* getDeviceList(std::list<std::string>* names, bool checkType);
    ErrorMsg* getDeviceType(std::string name, DDRType* type);
    ErrorMsg* getModuleType(std::string name, std::string* type);
    ErrorMsg* getSize(std::string name, unsigned long long* bytes);
    ErrorMsg* getSpeed(std::string name, unsigned int* mts);
    ErrorMsg* getRankCount(std::string name, unsigned int* ranks);
    ErrorMsg* getPartNumber(std::string name, std::string* text);
    ErrorMsg* getSerialNumber(std::string name, std::string* text);
    ErrorMsg* getDRAMVendor(std::string name, std::string* text);
    ErrorMsg* getModuleVendor(std::string name, std::string* text);

private:
    // Reads bytes first..last of the SPD; a failure comes back under function.
    ErrorMsg* readField(ERRORCODE function, const std::string& name, int first, int last,
                        unsigned char* bytes);
    // The device type, then the field's offset in that layout.
    ErrorMsg* readTyped(ERRORCODE function, const std::string& name, int ddr3First, int ddr3Last,
                        int ddr4First, int ddr4Last, unsigned char* bytes, DDRType* type = nullptr);
    ErrorMsg* getVendor(ERRORCODE function, const std::string& name, int ddr3First, int ddr4First,
                        std::string* text);

    I2CDAPI* m_i2c;
};
