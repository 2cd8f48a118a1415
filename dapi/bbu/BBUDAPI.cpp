// Diagnostic layer of the battery backup unit.
#include "dapi/bbu/BBUDAPI.h"

#include <iomanip>
#include <iostream>
#include <new>
#include <cstdio>
#include <sstream>

#include "dapi/i2c/I2CDAPI.h"
#include "ddapi/bbu/BBU_I2C_TI_bq40z50.h"
#include "ddapi/i2c/I2CDDAPI.h"

namespace {
// The battery unit has no error module: the temperature diagnostic-layer row serves it.
constexpr ERRORCODE kBBU = 0xD0040800;
const char kNoMatch[] = "There is no match name.";
const char kRule[] = "_________________________________________________________________";

std::string hex(int v) {
    std::ostringstream s;
    s << "0x" << std::hex << std::nouppercase << v;
    return s.str();
}
}  // namespace

BBUDAPI::BBUDAPI(const char* name) : BaseClassDAPI(name), m_batteries{}, m_count(0) {
    I2CDevice* copies[quarn::i2c::kMaxDevices] = {};
    I2CDAPI i2c("Temp");
    ErrorMsg* e = i2c.DisplayI2cDevicesListByType(copies, I2C_DEVICE_TYPE_BATTERY);
    if (e) addErrorMsg(kBBU, nullptr, e);
    for (I2CDevice*& d : copies) {
        if (d && !e && d->get_vender() == "TI" && d->get_model() == "bq40z50" && m_count < kMaxBatteries) {
            BBU_I2C_TI_bq40z50* gauge = new (std::nothrow) BBU_I2C_TI_bq40z50();
            if (gauge) {
                gauge->Set_name(d->get_Name());
                m_batteries[m_count++] = gauge;
            }
        }
        delete d;
        d = nullptr;
    }
}

BBUDAPI::~BBUDAPI() {
    for (BBUBaseClassDDAPI*& b : m_batteries) {
        delete b;
        b = nullptr;
    }
}

BBUBaseClassDDAPI* BBUDAPI::find(const std::string& name) const {
    for (int i = 0; i < m_count; ++i)
        if (m_batteries[i]->Get_name() == name) return m_batteries[i];
    return nullptr;
}

ErrorMsg* BBUDAPI::Get_BBU_List(std::list<std::string>* list) {
    if (list)
        for (int i = 0; i < m_count; ++i) list->push_back(m_batteries[i]->Get_name());
    return nullptr;
}

ErrorMsg* BBUDAPI::Get_BBU_List(BBUBaseClassDDAPI* out, int* count) {
    if (out)
        for (int i = 0; i < m_count; ++i) out[i].Set_name(m_batteries[i]->Get_name());
    if (count) *count = m_count;
    return nullptr;
}

ErrorMsg* BBUDAPI::Get_BBU_Device(std::string name, BBUBaseClassDDAPI** out) {
    BBUBaseClassDDAPI* b = find(name);
    if (!b) return returnErrorMsg(kBBU, kNoMatch, nullptr);
    if (out) *out = b;
    return nullptr;
}

#define QUARN_BBU_CALL(call)                                          \
    BBUBaseClassDDAPI* b = find(name);                                \
    if (!b) return returnErrorMsg(kBBU, kNoMatch, nullptr);           \
    if (ErrorMsg* e = b->call) return returnErrorMsg(kBBU, nullptr, e); \
    return nullptr;

ErrorMsg* BBUDAPI::Charge(std::string name) { QUARN_BBU_CALL(Charge()) }
ErrorMsg* BBUDAPI::Discharge(std::string name) { QUARN_BBU_CALL(Discharge()) }
ErrorMsg* BBUDAPI::GetChargeStatus(std::string name, int* status) { QUARN_BBU_CALL(ShowChargeStatus(status)) }
ErrorMsg* BBUDAPI::Read(std::string name, int start, int end, int* data, int* count) {
    QUARN_BBU_CALL(Read(name, start, end, data, count))
}
ErrorMsg* BBUDAPI::Write(std::string name, int reg, int* data, int length, int* count) {
    QUARN_BBU_CALL(Write(name, reg, data, length, count))
}
#undef QUARN_BBU_CALL

ErrorMsg* BBUDAPI::getBBUInformation(std::string name) {
    BBUBaseClassDDAPI* b = find(name);
    if (!b) return returnErrorMsg(kBBU, kNoMatch, nullptr);
    float temperature = 0;
    if (ErrorMsg* e = b->Get_Temperature(&temperature)) return returnErrorMsg(kBBU, nullptr, e);
    int voltage = 0, current = 0, charging = 0, maxError = 0, status = 0, relative = 0, absolute = 0;
    int remaining = 0, full = 0, toEmpty = 0, avgEmpty = 0, avgFull = 0, cycles = 0, designCapacity = 0;
    int designVoltage = 0, specification = 0, serial = 0;
    std::string date, manufacturer, device, chemistry, design;
    // Only the temperature decides whether there is a report; the rest is shown as read.
    deleteErrorMsg(b->Get_Voltage(&voltage));
    deleteErrorMsg(b->Get_Current(&current));
    deleteErrorMsg(b->Get_Charging_Current(&charging));
    deleteErrorMsg(b->Get_Max_Error(&maxError));
    deleteErrorMsg(b->Get_FW_BBU_State(&status));
    deleteErrorMsg(b->Get_Relative_State_Charge(&relative));
    deleteErrorMsg(b->Get_Absolute_State_Charge(&absolute));
    deleteErrorMsg(b->Get_Remaining_Capacity(&remaining));
    deleteErrorMsg(b->Get_Full_Charge_Capacity(&full));
    deleteErrorMsg(b->Get_Time_Empty(&toEmpty));
    deleteErrorMsg(b->Get_Average_Time_Empty(&avgEmpty));
    deleteErrorMsg(b->Get_Average_Time_Full(&avgFull));
    deleteErrorMsg(b->Get_Cycle_Count(&cycles));
    deleteErrorMsg(b->Get_Design_Capacity(&designCapacity));
    deleteErrorMsg(b->Get_Design_Voltage(&designVoltage));
    deleteErrorMsg(b->Get_Specification_Info(&specification));
    deleteErrorMsg(b->Get_Date_Manufacture(&date));
    deleteErrorMsg(b->Get_Serial_Number(&serial));
    deleteErrorMsg(b->Get_Manufacturer_Name(&manufacturer));
    deleteErrorMsg(b->Get_Device_name(&device));
    deleteErrorMsg(b->Get_Device_Chemistry(&chemistry));
    deleteErrorMsg(b->Get_Design_Data(&design));

    std::ostringstream t;
    t << temperature;
    // Built whole and printed through stdio, the same stream as every other report.
    std::ostringstream out;
    auto pair = [&out](const std::string& l1, const std::string& v1, const std::string& l2, const std::string& v2) {
        out << std::left << std::setw(21) << l1 << ":" << std::setw(14) << v1 << std::setw(20) << l2 << ":" << v2
            << std::endl;
    };
    auto line = [&out](const std::string& label, const std::string& value) {
        out << std::left << std::setw(25) << label << ":" << value << std::endl;
    };
    out << "*** INTELLIGENT BATTERY MONITORED INFORMATION ***" << std::endl << kRule << std::endl;
    pair("Temperature", t.str() + " C", "Voltage", std::to_string(voltage) + " mV");
    pair("Current", std::to_string(current) + " mA", "Charging Current", std::to_string(charging) + " mA");
    pair("Max Error", std::to_string(maxError) + " %", "GasGaugeStat", "N/A");
    pair("Charger System State", hex(status), "Charger Sys Control", "N/A");
    out << std::left << std::setw(21) << "FWbbuState" << ":" << "N/A" << std::endl;
    out << kRule << std::endl << std::endl << std::endl;

    out << "*** BATTERY CAPACITY INFORMATION ***" << std::endl << kRule << std::endl;
    line("Relative State of Charge", std::to_string(relative) + " %");
    line("Absolute State of Charge", std::to_string(absolute) + " %");
    line("Remaining Capacity", std::to_string(remaining) + " mW");
    line("Full Charge Capacity", std::to_string(full) + " mW");
    line("Time to Empty", std::to_string(toEmpty) + " Min");
    line("Average Time to Empty", std::to_string(avgEmpty) + " Min");
    line("Average Time to Full", std::to_string(avgFull) + " Min");
    line("Cycle Count", std::to_string(cycles));
    line("Max Error", std::to_string(maxError) + " %");
    out << kRule << std::endl << std::endl << std::endl;

    out << "*** BATTERY DESIGN INFORMATION ***" << std::endl << kRule << std::endl;
    line("Design Capacity", std::to_string(designCapacity) + " mWh");
    line("Design Voltage", std::to_string(designVoltage) + " mV");
    line("Specification Info", hex(specification) + " ");
    line("Date of Manufacture", date);
    line("Serial Number", std::to_string(serial));
    line("Pack Status-Config", "N/A");
    line("Manufacturer Name", manufacturer);
    line("Device Name", device);
    line("Device Chemistry", chemistry);
    line("Design Data", design);
    fputs(out.str().c_str(), stdout);
    return nullptr;
}
