// The TI bq40z50 fuel gauge (Smart Battery Data commands over I2C by the battery's
// well-known name) and the charge-control register of the battery unit (BAR 0 of PCI
// device 0000:72:00.0: key register +0x30, control register +0x32, bit 1 = discharge).
#pragma once

#include "ddapi/bbu/BBUBaseClassDDAPI.h"

namespace quarn::bbu {
constexpr int kChargeBus = 0x72;
constexpr unsigned long long kKeyRegister = 0x30;
constexpr unsigned long long kControlRegister = 0x32;
constexpr unsigned char kDischargeBit = 0x02;
}  // namespace quarn::bbu

class QUARN_EXPORT BBU_I2C_TI_bq40z50 : public BBUBaseClassDDAPI {
public:
    explicit BBU_I2C_TI_bq40z50(const char* name = "BBU_I2C_TI_bq40z50");
    ~BBU_I2C_TI_bq40z50() override;

    ErrorMsg* Get_Temperature(float* value) override;
    ErrorMsg* Get_Current(int* value) override;
    ErrorMsg* Get_Max_Error(int* value) override;
    ErrorMsg* Get_Charger_System_State(int* value) override;
    ErrorMsg* Get_FW_BBU_State(int* value) override;
    ErrorMsg* Get_Voltage(int* value) override;
    ErrorMsg* Get_Charging_Current(int* value) override;
    ErrorMsg* Get_Gas_Gauge_Stat(int* value) override;
    ErrorMsg* Get_Charger_Sys_Control(int* value) override;
    ErrorMsg* Get_Relative_State_Charge(int* value) override;
    ErrorMsg* Get_Absolute_State_Charge(int* value) override;
    ErrorMsg* Get_Remaining_Capacity(int* value) override;
    ErrorMsg* Get_Full_Charge_Capacity(int* value) override;
    ErrorMsg* Get_Time_Empty(int* value) override;
    ErrorMsg* Get_Average_Time_Empty(int* value) override;
    ErrorMsg* Get_Average_Time_Full(int* value) override;
    ErrorMsg* Get_Cycle_Count(int* value) override;
    ErrorMsg* Get_Design_Capacity(int* value) override;
    ErrorMsg* Get_Design_Voltage(int* value) override;
    ErrorMsg* Get_Specification_Info(int* value) override;
    ErrorMsg* Get_Date_Manufacture(std::string* value) override;
    ErrorMsg* Get_Serial_Number(int* value) override;
    ErrorMsg* Get_Pack_Status_Config(int* value) override;
    ErrorMsg* Get_Manufacturer_Name(std::string* value) override;
    ErrorMsg* Get_Device_name(std::string* value) override;
    ErrorMsg* Get_Device_Chemistry(std::string* value) override;
    ErrorMsg* Get_Design_Data(std::string* value) override;
    ErrorMsg* Read(std::string name, int start, int end, int* data, int* count) override;
    ErrorMsg* Write(std::string name, int reg, int* data, int length, int* count) override;
    ErrorMsg* Charge() override;
    ErrorMsg* Discharge() override;
    ErrorMsg* ShowChargeStatus(int* status) override;

    // "month/day/year" of a ManufactureDate word.
    static std::string dateText(int word);

private:
    ErrorMsg* readWord(int command, int* value, int maximum = 0xFFFF);
    ErrorMsg* readText(int command, std::string* value);
    ErrorMsg* switchMode(bool discharge);
    ErrorMsg* controlAddress(unsigned long long* bar);
    ErrorMsg* m_lastResult = nullptr;
};
