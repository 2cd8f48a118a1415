// Diagnostic layer of the board FPGA: registers and scratch-pad bytes as hexadecimal
// text, and the scratch-pad test.
#pragma once

#include <list>
#include <string>

#include "api/BaseClass.h"

class FPGADDAPI;

class QUARN_EXPORT FPGADAPI : public BaseClassDAPI {
public:
    explicit FPGADAPI(const char* name);
    ~FPGADAPI() override;

    ErrorMsg* getDeviceList(std::list<std::string>* names);
    ErrorMsg* getSPADInfo(std::string device, unsigned int* start, unsigned int* size);
    // value: two lower-case hexadecimal digits.
    ErrorMsg* readReg(std::string device, unsigned int reg, std::string* value);
    // value: converted as std::stoul with base 0 (its exceptions reach the caller);
    // the low byte is written.
    ErrorMsg* writeReg(std::string device, unsigned int reg, std::string value);
    ErrorMsg* readSPAD(std::string device, unsigned int offset, std::string* value);
    ErrorMsg* writeSPAD(std::string device, unsigned int offset, std::string value);

    // Every scratch-pad byte holds 0x55, 0xAA and a pattern unique to its address, then
    // gets its old contents back, also after a failure. The first byte that reads back
    // wrong fails the test with its offset; *failedOffset (optional) receives it, or
    // the scratch-pad size when the test passed. Progress goes through getProgress().
    ErrorMsg* spadTest(std::string device, unsigned int* failedOffset = nullptr);

    FPGADDAPI* device() { return m_device; }

private:
    FPGADDAPI* m_device;
};
