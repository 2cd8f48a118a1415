// One battery gauge: the values of the Smart Battery Data set, direct command access and
// the unit's charge/discharge mode. In this base every operation succeeds and does nothing.
#pragma once

#include <string>

#include "api/BaseClass.h"

class QUARN_EXPORT BBUBaseClassDDAPI : public BaseClassDDAPI {
public:
    explicit BBUBaseClassDDAPI(const char* name);
    ~BBUBaseClassDDAPI() override;

    virtual std::string Get_name();
    virtual ErrorMsg* Get_Temperature(float* value);
    virtual ErrorMsg* Get_Current(int* value);
    virtual ErrorMsg* Get_Max_Error(int* value);
    virtual ErrorMsg* Get_Charger_System_State(int* value);
    virtual ErrorMsg* Get_FW_BBU_State(int* value);
    virtual ErrorMsg* Get_Voltage(int* value);
    virtual ErrorMsg* Get_Charging_Current(int* value);
    virtual ErrorMsg* Get_Gas_Gauge_Stat(int* value);
    virtual ErrorMsg* Get_Charger_Sys_Control(int* value);
    virtual ErrorMsg* Get_Relative_State_Charge(int* value);
    virtual ErrorMsg* Get_Absolute_State_Charge(int* value);
    virtual ErrorMsg* Get_Remaining_Capacity(int* value);
    virtual ErrorMsg* Get_Full_Charge_Capacity(int* value);
    virtual ErrorMsg* Get_Time_Empty(int* value);
    virtual ErrorMsg* Get_Average_Time_Empty(int* value);
    virtual ErrorMsg* Get_Average_Time_Full(int* value);
    virtual ErrorMsg* Get_Cycle_Count(int* value);
    virtual ErrorMsg* Get_Design_Capacity(int* value);
    virtual ErrorMsg* Get_Design_Voltage(int* value);
    virtual ErrorMsg* Get_Specification_Info(int* value);
    virtual ErrorMsg* Get_Date_Manufacture(std::string* value);
    virtual ErrorMsg* Get_Serial_Number(int* value);
    virtual ErrorMsg* Get_Pack_Status_Config(int* value);
    virtual ErrorMsg* Get_Manufacturer_Name(std::string* value);
    virtual ErrorMsg* Get_Device_name(std::string* value);
    virtual ErrorMsg* Get_Device_Chemistry(std::string* value);
    virtual ErrorMsg* Get_Design_Data(std::string* value);
    virtual ErrorMsg* Read(std::string name, int start, int end, int* data, int* count);
    virtual ErrorMsg* Write(std::string name, int reg, int* data, int length, int* count);
    virtual ErrorMsg* Charge();
    virtual ErrorMsg* Discharge();
    virtual ErrorMsg* ShowChargeStatus(int* status);
    virtual void Set_name(std::string name);
    virtual ErrorMsg* Set_Temperature(float);
    virtual ErrorMsg* Set_Current(int);
    virtual ErrorMsg* Set_Max_Error(int);
    virtual ErrorMsg* Set_Charger_System_State(int);
    virtual ErrorMsg* Set_FW_BBU_State(int);
    virtual ErrorMsg* Set_Voltage(float);
    virtual ErrorMsg* Set_Charging_Current(int);
    virtual ErrorMsg* Set_Gas_Gauge_Stat(int);
    virtual ErrorMsg* Set_Charger_Sys_Control(int);
    virtual ErrorMsg* Set_Relative_State_Charge(int);
    virtual ErrorMsg* Set_Absolute_State_Charge(int);
    virtual ErrorMsg* Set_Remaining_Capacity(int);
    virtual ErrorMsg* Set_Full_Charge_Capacity(int);
    virtual ErrorMsg* Set_Time_Empty(int);
    virtual ErrorMsg* Set_Average_Time_Empty(int);
    virtual ErrorMsg* Set_Average_Time_Full(int);
    virtual ErrorMsg* Set_Cycle_Count(int);
    virtual ErrorMsg* Set_Design_Capacity(int);
    virtual ErrorMsg* Set_Design_Voltage(int);
    virtual ErrorMsg* Set_Specification_Info(int);
    virtual ErrorMsg* Set_Date_Manufacture(std::string);
    virtual ErrorMsg* Set_Serial_Number(std::string);
    virtual ErrorMsg* Set_Pack_Status_Config(int);
    virtual ErrorMsg* Set_Manufacturer_Name(std::string);
    virtual ErrorMsg* Set_Device_name(std::string);
    virtual ErrorMsg* Set_Device_Chemistry(std::string);
    virtual ErrorMsg* Set_Design_Data(std::string);

protected:
    std::string name;
};
