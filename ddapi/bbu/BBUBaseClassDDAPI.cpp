// One battery gauge: the base answers every request with success and no data.
#include "ddapi/bbu/BBUBaseClassDDAPI.h"

BBUBaseClassDDAPI::BBUBaseClassDDAPI(const char* n) : BaseClassDDAPI(n) {}
BBUBaseClassDDAPI::~BBUBaseClassDDAPI() = default;
std::string BBUBaseClassDDAPI::Get_name() { return name; }
void BBUBaseClassDDAPI::Set_name(std::string n) { name = std::move(n); }
ErrorMsg* BBUBaseClassDDAPI::Get_Temperature(float*) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Get_Current(int*) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Get_Max_Error(int*) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Get_Charger_System_State(int*) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Get_FW_BBU_State(int*) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Get_Voltage(int*) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Get_Charging_Current(int*) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Get_Gas_Gauge_Stat(int*) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Get_Charger_Sys_Control(int*) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Get_Relative_State_Charge(int*) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Get_Absolute_State_Charge(int*) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Get_Remaining_Capacity(int*) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Get_Full_Charge_Capacity(int*) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Get_Time_Empty(int*) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Get_Average_Time_Empty(int*) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Get_Average_Time_Full(int*) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Get_Cycle_Count(int*) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Get_Design_Capacity(int*) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Get_Design_Voltage(int*) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Get_Specification_Info(int*) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Get_Date_Manufacture(std::string*) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Get_Serial_Number(int*) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Get_Pack_Status_Config(int*) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Get_Manufacturer_Name(std::string*) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Get_Device_name(std::string*) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Get_Device_Chemistry(std::string*) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Get_Design_Data(std::string*) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Read(std::string, int, int, int*, int*) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Write(std::string, int, int*, int, int*) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Charge() { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Discharge() { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::ShowChargeStatus(int*) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Set_Temperature(float) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Set_Current(int) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Set_Max_Error(int) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Set_Charger_System_State(int) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Set_FW_BBU_State(int) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Set_Voltage(float) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Set_Charging_Current(int) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Set_Gas_Gauge_Stat(int) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Set_Charger_Sys_Control(int) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Set_Relative_State_Charge(int) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Set_Absolute_State_Charge(int) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Set_Remaining_Capacity(int) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Set_Full_Charge_Capacity(int) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Set_Time_Empty(int) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Set_Average_Time_Empty(int) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Set_Average_Time_Full(int) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Set_Cycle_Count(int) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Set_Design_Capacity(int) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Set_Design_Voltage(int) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Set_Specification_Info(int) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Set_Date_Manufacture(std::string) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Set_Serial_Number(std::string) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Set_Pack_Status_Config(int) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Set_Manufacturer_Name(std::string) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Set_Device_name(std::string) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Set_Device_Chemistry(std::string) { return nullptr; }
ErrorMsg* BBUBaseClassDDAPI::Set_Design_Data(std::string) { return nullptr; }
