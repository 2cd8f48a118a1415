// Sensor drivers: MAX6657, the JEDEC DIMM sensor and the Broadwell-DE package sensor.
#include "ddapi/temperature/I2CTemperature.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <new>

#include "ddapi/i2c/I2CDDAPI.h"
#include "ddapi/processor/ProcessorDDAPI.h"

namespace {
// The sensor drivers report with the I2C module's code.
constexpr ERRORCODE kSensor = 0xCF041800;

constexpr int kMsrTemperatureTarget = 0x1A2;
constexpr int kMsrPackageThermStatus = 0x1B1;
constexpr int kMsrPackageThermInterrupt = 0x1B2;
constexpr int kHighShift = 8;
constexpr int kLowShift = 16;

// A limit text as "%d" reads it, but whole: trailing garbage and overflow are refused.
bool parseDecimal(const std::string& text, long* out) {
    if (text.empty()) return false;
    errno = 0;
    char* end = nullptr;
    const long v = strtol(text.c_str(), &end, 10);
    if (errno != 0 || end == text.c_str()) return false;
    while (*end == ' ' || *end == '\t' || *end == '\n') ++end;
    if (*end != '\0') return false;
    *out = v;
    return true;
}
}  // namespace

I2CTemperature::I2CTemperature(const char* name) : BaseClassDDAPI(name), m_lastResult(nullptr) {}
I2CTemperature::~I2CTemperature() = default;
ErrorMsg* I2CTemperature::GetCurrntTemperature(std::string, std::string*) { return nullptr; }
ErrorMsg* I2CTemperature::GetThresholdHigh(std::string, std::string*) { return nullptr; }
ErrorMsg* I2CTemperature::GetThresholdLow(std::string, std::string*) { return nullptr; }
ErrorMsg* I2CTemperature::SetThresholdHigh(std::string, std::string) { return nullptr; }
ErrorMsg* I2CTemperature::SetThresholdLow(std::string, std::string) { return nullptr; }

// ---- MAX6657 ----

MAX6657::MAX6657(const char* name) : I2CTemperature(name), m_i2c(new (std::nothrow) I2CDDAPI("I2C driver")) {}

MAX6657::~MAX6657() { delete m_i2c; }

ErrorMsg* MAX6657::readDegrees(const std::string& name, int reg, const char* failure, int* value) {
    if (!m_i2c) return returnErrorMsg(kSensor | 0x214, failure, nullptr);
    int data[1] = {0};
    int count = 0;
    if (ErrorMsg* e = m_i2c->read(name.c_str(), reg, reg, data, &count, 1)) return returnErrorMsg(kSensor, failure, e);
    // Readings below zero (bit 7 set) are reported as 0.
    *value = (data[0] & 0x80) ? 0 : (data[0] & 0xFF);
    return nullptr;
}

ErrorMsg* MAX6657::GetCurrntTemperature(std::string name, std::string* value) {
    int degrees = 0;
    if (ErrorMsg* e = readDegrees(name, 0x00, "Read Internal Temperature", &degrees)) return keep(e);
    int extended = 0;
    if (ErrorMsg* e = readDegrees(name, 0x11, "Read Internal Extended Temperature fail", &extended)) return keep(e);
    char text[16];
    snprintf(text, sizeof(text), "%d", degrees);
    if (value) *value = text;
    return keep(nullptr);
}

ErrorMsg* MAX6657::GetThresholdHigh(std::string name, std::string* value) {
    int degrees = 0;
    if (ErrorMsg* e = readDegrees(name, 0x05, "Read Internal High Limit fail", &degrees)) return keep(e);
    char text[16];
    snprintf(text, sizeof(text), "%d", degrees);
    if (value) *value = text;
    return keep(nullptr);
}

ErrorMsg* MAX6657::GetThresholdLow(std::string name, std::string* value) {
    int degrees = 0;
    if (ErrorMsg* e = readDegrees(name, 0x06, "Read Internal Low Limit fail", &degrees)) return keep(e);
    char text[16];
    snprintf(text, sizeof(text), "%d", degrees);
    if (value) *value = text;
    return keep(nullptr);
}

ErrorMsg* MAX6657::writeLimit(const std::string& name, int reg, const char* failure, const std::string& value) {
    long limit = 0;
    if (!parseDecimal(value, &limit)) {
        formatMessage("limit is not a number: %.40s", value.c_str());
        return keep(returnErrorMsg(kSensor | 0x230, m_message, nullptr));
    }
    // The limit registers hold 8-bit two's complement degrees.
    if (limit < -128 || limit > 127) {
        formatMessage("limit %ld outside -128 to 127", limit);
        return keep(returnErrorMsg(kSensor | 0x219, m_message, nullptr));
    }
    if (!m_i2c) return keep(returnErrorMsg(kSensor | 0x214, failure, nullptr));
    int data[1] = {static_cast<int>(limit & 0xFF)};
    if (ErrorMsg* e = m_i2c->write(name.c_str(), reg, data, 1)) return keep(returnErrorMsg(kSensor, failure, e));
    return keep(nullptr);
}

ErrorMsg* MAX6657::SetThresholdHigh(std::string name, std::string value) {
    return writeLimit(name, 0x0B, "Write Internal High Limit fail", value);
}

ErrorMsg* MAX6657::SetThresholdLow(std::string name, std::string value) {
    return writeLimit(name, 0x0C, nullptr, value);
}

// ---- DIMMTemperature ----

DIMMTemperature::DIMMTemperature(const char* name)
    : I2CTemperature(name), m_i2c(new (std::nothrow) I2CDDAPI("I2C driver")) {}

DIMMTemperature::~DIMMTemperature() { delete m_i2c; }

std::string DIMMTemperature::convert(unsigned int w) {
    const unsigned int r = ((w >> 8) & 0xFC) | ((w << 8) & 0x1FFC);
    const bool negative = (r & 0x1000) != 0;
    const unsigned int q = negative ? ((r ^ 0x1FFC) >> 2) + 1 : r >> 2;
    double t = (q >> 2) + ((q & 2) ? 0.5 : 0.0) + ((q & 1) ? 0.25 : 0.0);
    if (negative) t = -t;
    char text[24];
    snprintf(text, sizeof(text), "%.2f", t);
    return text;
}

ErrorMsg* DIMMTemperature::readRegister(const std::string& name, int reg, const char* failure, std::string* value) {
    if (!m_i2c) return keep(returnErrorMsg(kSensor | 0x214, failure, nullptr));
    int data[1] = {0};
    int count = 0;
    if (ErrorMsg* e = m_i2c->read(name.c_str(), reg, reg, data, &count, 1)) return keep(returnErrorMsg(kSensor, failure, e));
    if (value) *value = convert(static_cast<unsigned int>(data[0]) & 0xFFFF);
    return keep(nullptr);
}

ErrorMsg* DIMMTemperature::GetCurrntTemperature(std::string name, std::string* value) {
    return readRegister(name, 0x05, "Read Current Ambient temperature fail", value);
}
ErrorMsg* DIMMTemperature::GetThresholdHigh(std::string name, std::string* value) {
    return readRegister(name, 0x02, "Read Temperature High Limit fail", value);
}
ErrorMsg* DIMMTemperature::GetThresholdLow(std::string name, std::string* value) {
    return readRegister(name, 0x03, "Read Temperature Low Limit fail", value);
}
ErrorMsg* DIMMTemperature::SetThresholdHigh(std::string, std::string) {
    return keep(returnErrorMsg(kSensor, "Write Temperature High Limit not support", nullptr));
}
ErrorMsg* DIMMTemperature::SetThresholdLow(std::string, std::string) {
    return keep(returnErrorMsg(kSensor, "Write Temperature Low Limit not support", nullptr));
}

// ---- BroadwellDE ----

BroadwellDE::BroadwellDE(const char* name)
    : I2CTemperature(name), m_cpu(new (std::nothrow) ProcessorDDAPI("CPU driver")) {}

BroadwellDE::~BroadwellDE() { delete m_cpu; }

ErrorMsg* BroadwellDE::readMsr(const std::string& name, int msr, uint64_t* value) {
    if (!m_cpu) return returnErrorMsg(kSensor | 0x214, nullptr, nullptr);
    std::list<uint64_t> values;
    if (ErrorMsg* e = m_cpu->ReadCPURegister(name, msr, 1, &values)) return e;
    if (values.empty()) {
        formatMessage("MSR 0x%x gave no value", msr);
        return returnErrorMsg(kSensor | 0x230, m_message, nullptr);
    }
    *value = values.front();
    return nullptr;
}

ErrorMsg* BroadwellDE::tjMax(const std::string& name, long long* value) {
    uint64_t target = 0;
    if (ErrorMsg* e = readMsr(name, kMsrTemperatureTarget, &target)) return e;
    *value = static_cast<long long>((target >> 16) & 0xFF);
    return nullptr;
}

ErrorMsg* BroadwellDE::offsetReading(const std::string& name, int msr, int shift, std::string* value) {
    long long tj = 0;
    if (ErrorMsg* e = tjMax(name, &tj)) return keep(e);
    uint64_t reg = 0;
    if (ErrorMsg* e = readMsr(name, msr, &reg)) return keep(e);
    char text[24];
    snprintf(text, sizeof(text), "%lld", tj - static_cast<long long>((reg >> shift) & 0x7F));
    if (value) *value = text;
    return keep(nullptr);
}

ErrorMsg* BroadwellDE::GetCurrntTemperature(std::string name, std::string* value) {
    return offsetReading(name, kMsrPackageThermStatus, 16, value);
}
ErrorMsg* BroadwellDE::GetThresholdHigh(std::string name, std::string* value) {
    return offsetReading(name, kMsrPackageThermInterrupt, kHighShift, value);
}
ErrorMsg* BroadwellDE::GetThresholdLow(std::string name, std::string* value) {
    return offsetReading(name, kMsrPackageThermInterrupt, kLowShift, value);
}

ErrorMsg* BroadwellDE::setThreshold(const std::string& name, int shift, const std::string& value) {
    long limit = 0;
    if (!parseDecimal(value, &limit)) {
        formatMessage("limit is not a number: %.40s", value.c_str());
        return keep(returnErrorMsg(kSensor | 0x230, m_message, nullptr));
    }
    long long tj = 0;
    if (ErrorMsg* e = tjMax(name, &tj)) return keep(e);
    const long long offset = tj - limit;
    // The threshold is a 7-bit offset below TjMax.
    if (offset < 0 || offset > 127) {
        formatMessage("limit %ld outside %lld to %lld", limit, tj - 127, tj);
        return keep(returnErrorMsg(kSensor | 0x219, m_message, nullptr));
    }
    uint64_t reg = 0;
    if (ErrorMsg* e = readMsr(name, kMsrPackageThermInterrupt, &reg)) return keep(e);
    const uint32_t mask = shift == kHighShift ? 0xFFFF80FFu : 0xFF80FFFFu;
    const uint64_t updated = (static_cast<uint32_t>(reg) & mask) | (static_cast<uint32_t>(offset) << shift);
    return keep(m_cpu->WriteCPURegister(name, kMsrPackageThermInterrupt, updated));
}

ErrorMsg* BroadwellDE::SetThresholdHigh(std::string name, std::string value) {
    return setThreshold(name, kHighShift, value);
}
ErrorMsg* BroadwellDE::SetThresholdLow(std::string name, std::string value) {
    return setThreshold(name, kLowShift, value);
}

namespace quarn::temperature {

void installBroadwellDE() {
    quarn::installPackageTemperatureDriver(
        [](const std::string& name, CPU_TEMPERATURE_OPERATION_ID op, bool set, std::string* value) -> ErrorMsg* {
            BroadwellDE sensor("BroadwellDE");
            if (set) {
                const std::string v = value ? *value : std::string();
                return op == TEMPERATURE_OPERATION_HIGH ? sensor.SetThresholdHigh(name, v) : sensor.SetThresholdLow(name, v);
            }
            if (op == TEMPERATURE_OPERATION_HIGH) return sensor.GetThresholdHigh(name, value);
            if (op == TEMPERATURE_OPERATION_LOW) return sensor.GetThresholdLow(name, value);
            return sensor.GetCurrntTemperature(name, value);
        });
}

}  // namespace quarn::temperature
