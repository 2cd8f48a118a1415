// Diagnostic layer of the battery backup unit: the batteries of the I2C profile (type
// "battery", vendor TI, model bq40z50), the battery report, direct gauge commands and
// the charge/discharge mode.
#pragma once

#include <list>
#include <string>

#include "api/BaseClass.h"

class BBUBaseClassDDAPI;

class QUARN_EXPORT BBUDAPI : public BaseClassDAPI {
public:
    static constexpr int kMaxBatteries = 10;

    explicit BBUDAPI(const char* name);
    ~BBUDAPI() override;

    ErrorMsg* Get_BBU_List(std::list<std::string>* list);
    // Names the caller's objects (out[0..count-1]) after the batteries.
    ErrorMsg* Get_BBU_List(BBUBaseClassDDAPI* out, int* count);
    ErrorMsg* Get_BBU_Device(std::string name, BBUBaseClassDDAPI** out);
    ErrorMsg* Charge(std::string name);
    ErrorMsg* Discharge(std::string name);
    ErrorMsg* GetChargeStatus(std::string name, int* status);
    ErrorMsg* Read(std::string name, int start, int end, int* data, int* count);
    ErrorMsg* Write(std::string name, int reg, int* data, int length, int* count);
    // Prints the three-block battery report to standard output.
    ErrorMsg* getBBUInformation(std::string name);

private:
    BBUBaseClassDDAPI* find(const std::string& name) const;
    BBUBaseClassDDAPI* m_batteries[kMaxBatteries];
    int m_count;
};
