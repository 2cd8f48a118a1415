// The supply model fitted on the board: vendor data at its offsets, the LED register,
// the supported fan range and the firmware loader.
#pragma once

#include "ddapi/psu/PMBusPSU.h"

class QUARN_EXPORT VarnelPSU : public PMBusPSU {
public:
    // line: one line of the psu info file; its first blank-separated token is the name.
    explicit VarnelPSU(std::string line);
    ~VarnelPSU() override;

    ErrorMsg* getLEDList(std::list<std::string>* list) override;
    ErrorMsg* getLEDStatus(std::string led, std::string* status) override;
    ErrorMsg* setLEDStatus(std::string led, std::string status) override;
    ErrorMsg* getFWVersion(std::string* version) override;
    ErrorMsg* getPartNumber(std::string* part) override;
    ErrorMsg* getSerialNumber(std::string* serial) override;
    ErrorMsg* getSupportFanSpeed(std::string fan, std::list<std::string>* speeds) override;
    ErrorMsg* getVendor(std::string* vendor) override;
    ErrorMsg* program(uint8_t sector, char* image, int size) override;

private:
    ErrorMsg* readStatus(ERRORCODE code, int* status);
    ErrorMsg* writeStatus(ERRORCODE code, int value);
    // Bytes offset..offset+length of a block register as text (up to a zero byte).
    ErrorMsg* readText(ERRORCODE code, int command, int capacity, int offset, int length, std::string* out);
};
