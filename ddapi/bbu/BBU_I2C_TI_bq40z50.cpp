// The TI bq40z50 fuel gauge and the battery unit's charge-control register.
#include "ddapi/bbu/BBU_I2C_TI_bq40z50.h"

#include <cstdio>

#include "ddapi/i2c/I2CDDAPI.h"
#include "ddapi/memory/MemoryDDAPI.h"
#include "ddapi/pci/PCIDDAPI.h"

using namespace quarn::bbu;

namespace {
// The battery unit has no error module: the temperature device-layer row serves it.
constexpr ERRORCODE kGauge = 0xD0081000;
const char kGaugeText[] = "I2C_ST_STTS2002";
constexpr int kBlockValues = 32;
}  // namespace

BBU_I2C_TI_bq40z50::BBU_I2C_TI_bq40z50(const char* name) : BBUBaseClassDDAPI(name) {}
BBU_I2C_TI_bq40z50::~BBU_I2C_TI_bq40z50() = default;

ErrorMsg* BBU_I2C_TI_bq40z50::readWord(int command, int* value, int maximum) {
    I2CDDAPI i2c("I2C_driver");
    int data[kBlockValues] = {0};
    int count = 0;
    if (ErrorMsg* e = i2c.read(name.c_str(), command, command, data, &count, kBlockValues))
        return m_lastResult = returnErrorMsg(kGauge, kGaugeText, e);
    // A value the gauge cannot mean (a percentage above 100) is refused, not reported.
    if (count < 1 || data[0] > maximum) {
        formatMessage("command 0x%02x answered 0x%x, above %d", command, count < 1 ? 0 : data[0], maximum);
        return m_lastResult = returnErrorMsg(kGauge, kGaugeText, returnErrorMsg(kGauge | 0x219, m_message, nullptr));
    }
    if (value) *value = data[0];
    return m_lastResult = nullptr;
}

ErrorMsg* BBU_I2C_TI_bq40z50::readText(int command, std::string* value) {
    I2CDDAPI i2c("I2C_driver");
    int data[kBlockValues] = {0};
    int count = 0;
    if (ErrorMsg* e = i2c.read(name.c_str(), command, command, data, &count, kBlockValues))
        return m_lastResult = returnErrorMsg(kGauge, kGaugeText, e);
    if (value)
        for (int i = 0; i < count && i < kBlockValues; ++i) *value += static_cast<char>(data[i]);
    return m_lastResult = nullptr;
}

ErrorMsg* BBU_I2C_TI_bq40z50::Get_Temperature(float* value) {
    int word = 0;
    if (ErrorMsg* e = readWord(0x08, &word)) return e;
    if (value) *value = static_cast<float>(word * 0.1 - 273.15);
    return nullptr;
}

ErrorMsg* BBU_I2C_TI_bq40z50::Get_Voltage(int* v) { return readWord(0x09, v); }
ErrorMsg* BBU_I2C_TI_bq40z50::Get_Max_Error(int* v) { return readWord(0x0C, v, 100); }
ErrorMsg* BBU_I2C_TI_bq40z50::Get_Relative_State_Charge(int* v) { return readWord(0x0D, v, 100); }
ErrorMsg* BBU_I2C_TI_bq40z50::Get_Absolute_State_Charge(int* v) { return readWord(0x0E, v, 100); }
ErrorMsg* BBU_I2C_TI_bq40z50::Get_Remaining_Capacity(int* v) { return readWord(0x0F, v); }
ErrorMsg* BBU_I2C_TI_bq40z50::Get_Full_Charge_Capacity(int* v) { return readWord(0x10, v); }
ErrorMsg* BBU_I2C_TI_bq40z50::Get_Time_Empty(int* v) { return readWord(0x11, v); }
ErrorMsg* BBU_I2C_TI_bq40z50::Get_Average_Time_Empty(int* v) { return readWord(0x12, v); }
ErrorMsg* BBU_I2C_TI_bq40z50::Get_Average_Time_Full(int* v) { return readWord(0x13, v); }
ErrorMsg* BBU_I2C_TI_bq40z50::Get_Charging_Current(int* v) { return readWord(0x14, v); }
ErrorMsg* BBU_I2C_TI_bq40z50::Get_FW_BBU_State(int* v) { return readWord(0x16, v); }
ErrorMsg* BBU_I2C_TI_bq40z50::Get_Cycle_Count(int* v) { return readWord(0x17, v); }
ErrorMsg* BBU_I2C_TI_bq40z50::Get_Design_Capacity(int* v) { return readWord(0x18, v); }
ErrorMsg* BBU_I2C_TI_bq40z50::Get_Design_Voltage(int* v) { return readWord(0x19, v); }
ErrorMsg* BBU_I2C_TI_bq40z50::Get_Specification_Info(int* v) { return readWord(0x1A, v); }
ErrorMsg* BBU_I2C_TI_bq40z50::Get_Serial_Number(int* v) { return readWord(0x1C, v); }
ErrorMsg* BBU_I2C_TI_bq40z50::Get_Manufacturer_Name(std::string* v) { return readText(0x20, v); }
ErrorMsg* BBU_I2C_TI_bq40z50::Get_Device_name(std::string* v) { return readText(0x21, v); }
ErrorMsg* BBU_I2C_TI_bq40z50::Get_Device_Chemistry(std::string* v) { return readText(0x22, v); }
ErrorMsg* BBU_I2C_TI_bq40z50::Get_Design_Data(std::string* v) { return readText(0x23, v); }

#define QUARN_BBU_FIXED(method, constant) \
    ErrorMsg* BBU_I2C_TI_bq40z50::method(int* v) {  \
        if (v) *v = (constant);                       \
        return nullptr;                               \
    }
QUARN_BBU_FIXED(Get_Current, 1200)
QUARN_BBU_FIXED(Get_Charger_System_State, 0)
QUARN_BBU_FIXED(Get_Gas_Gauge_Stat, 1)
QUARN_BBU_FIXED(Get_Charger_Sys_Control, 1)
QUARN_BBU_FIXED(Get_Pack_Status_Config, 1234)
#undef QUARN_BBU_FIXED

std::string BBU_I2C_TI_bq40z50::dateText(int d) {
    char text[32];
    snprintf(text, sizeof(text), "%d/%d/%d", (d & 0x1E0) >> 5, d & 0x1F, ((d & 0xFE00) >> 9) + 1980);
    return text;
}

ErrorMsg* BBU_I2C_TI_bq40z50::Get_Date_Manufacture(std::string* value) {
    int word = 0;
    if (ErrorMsg* e = readWord(0x1B, &word)) return e;
    if (value) *value += dateText(word);
    return nullptr;
}

ErrorMsg* BBU_I2C_TI_bq40z50::Read(std::string device, int start, int end, int* data, int* count) {
    I2CDDAPI i2c("I2C_driver");
    return m_lastResult = i2c.read(device.c_str(), start, end, data, count);
}

ErrorMsg* BBU_I2C_TI_bq40z50::Write(std::string device, int reg, int* data, int length, int* count) {
    I2CDDAPI i2c("I2C_driver");
    ErrorMsg* e = i2c.write(device.c_str(), reg, data, length, count);
    if (e) printf("BBU_I2C_TI_bq40z50 :: Write fail\n");
    return m_lastResult = e;
}

ErrorMsg* BBU_I2C_TI_bq40z50::controlAddress(unsigned long long* bar) {
    PCIDDAPI pci("BBU_PCI_DDAPI");
    uint32_t base = 0;
    if (ErrorMsg* e = pci.getBarByBDF(0, kChargeBus, 0, 0, 0, &base)) return returnErrorMsg(kGauge, kGaugeText, e);
    *bar = base;
    return nullptr;
}

ErrorMsg* BBU_I2C_TI_bq40z50::ShowChargeStatus(int* status) {
    unsigned long long bar = 0;
    if (ErrorMsg* e = controlAddress(&bar)) return m_lastResult = e;
    MemoryDDAPI memory("BBU_MEM_DDAPI");
    const unsigned char c = memory.read8(bar + kControlRegister);
    if (ErrorMsg* e = memory.getErrorMsg()) return m_lastResult = returnErrorMsg(kGauge, kGaugeText, e);
    if (status) *status = (c & kDischargeBit) ? 1 : 0;
    return m_lastResult = nullptr;
}

ErrorMsg* BBU_I2C_TI_bq40z50::switchMode(bool discharge) {
    unsigned long long bar = 0;
    if (ErrorMsg* e = controlAddress(&bar)) return m_lastResult = e;
    MemoryDDAPI memory("BBU_MEM_DDAPI");
    const unsigned char c = memory.read8(bar + kControlRegister);
    if (ErrorMsg* e = memory.getErrorMsg()) return m_lastResult = returnErrorMsg(kGauge, kGaugeText, e);
    // The unlock sequence of the charge-control logic, written first byte first.
    const unsigned char key[8] = {0x56, 0x54, 0x58, 0x2D, 0x42, 0x42, 0x55, 0xA5};
    for (unsigned char k : key)
        if (ErrorMsg* e = memory.write(bar + kKeyRegister, k)) return m_lastResult = returnErrorMsg(kGauge, kGaugeText, e);
    const unsigned char updated = discharge ? static_cast<unsigned char>(c | kDischargeBit)
                                            : static_cast<unsigned char>(c & ~kDischargeBit);
    if (ErrorMsg* e = memory.write(bar + kControlRegister, updated)) return m_lastResult = returnErrorMsg(kGauge, kGaugeText, e);
    return m_lastResult = nullptr;
}

ErrorMsg* BBU_I2C_TI_bq40z50::Charge() { return switchMode(false); }
ErrorMsg* BBU_I2C_TI_bq40z50::Discharge() { return switchMode(true); }
