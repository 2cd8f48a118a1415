// Sensor drivers: one sensor's registers turned into a temperature text. Temperatures
// and limits are decimal texts ("%d" whole degrees for the MAX6657 and the processor,
// "%.2f" for the DIMM sensor); limits to set are decimal texts.
#pragma once

#include <cstdint>
#include <string>

#include "api/BaseClass.h"

class I2CDDAPI;
class ProcessorDDAPI;

enum TEMPERATURE_OPERATION_ID : uint32_t {
    TEMPERATURE_OPERATION_CURRENT = 0,
    TEMPERATURE_OPERATION_HIGH = 1,
    TEMPERATURE_OPERATION_LOW = 2,
};

class QUARN_EXPORT I2CTemperature : public BaseClassDDAPI {
public:
    explicit I2CTemperature(const char* name);
    ~I2CTemperature() override;

    virtual ErrorMsg* GetCurrntTemperature(std::string name, std::string* value);
    virtual ErrorMsg* GetThresholdHigh(std::string name, std::string* value);
    virtual ErrorMsg* GetThresholdLow(std::string name, std::string* value);
    virtual ErrorMsg* SetThresholdHigh(std::string name, std::string value);
    virtual ErrorMsg* SetThresholdLow(std::string name, std::string value);

    // The chain of the last call (owned by whoever received it).
    ErrorMsg* getLastResult() const { return m_lastResult; }

protected:
    ErrorMsg* keep(ErrorMsg* result) { return m_lastResult = result; }
    ErrorMsg* m_lastResult;
};

// Maxim MAX6657 (and the register-compatible MAX6658/MAX6659): the local sensor.
class QUARN_EXPORT MAX6657 : public I2CTemperature {
public:
    explicit MAX6657(const char* name);
    ~MAX6657() override;

    ErrorMsg* GetCurrntTemperature(std::string name, std::string* value) override;
    ErrorMsg* GetThresholdHigh(std::string name, std::string* value) override;
    ErrorMsg* GetThresholdLow(std::string name, std::string* value) override;
    ErrorMsg* SetThresholdHigh(std::string name, std::string value) override;
    ErrorMsg* SetThresholdLow(std::string name, std::string value) override;

private:
    ErrorMsg* readDegrees(const std::string& name, int reg, const char* failure, int* value);
    ErrorMsg* writeLimit(const std::string& name, int reg, const char* failure, const std::string& value);
    I2CDDAPI* m_i2c;
};

// The JEDEC DIMM thermal sensor (TSE2004av and the like): limits are read-only here.
class QUARN_EXPORT DIMMTemperature : public I2CTemperature {
public:
    explicit DIMMTemperature(const char* name);
    ~DIMMTemperature() override;

    ErrorMsg* GetCurrntTemperature(std::string name, std::string* value) override;
    ErrorMsg* GetThresholdHigh(std::string name, std::string* value) override;
    ErrorMsg* GetThresholdLow(std::string name, std::string* value) override;
    ErrorMsg* SetThresholdHigh(std::string name, std::string value) override;
    ErrorMsg* SetThresholdLow(std::string name, std::string value) override;

    // The received SMBus word (register's first byte in the low half) as "%.2f" degrees.
    static std::string convert(unsigned int word);

private:
    ErrorMsg* readRegister(const std::string& name, int reg, const char* failure, std::string* value);
    I2CDDAPI* m_i2c;
};

// The processor package sensor of the Broadwell-DE: TjMax from MSR 0x1A2, the reading
// from MSR 0x1B1, the two thermal interrupt thresholds in MSR 0x1B2.
class QUARN_EXPORT BroadwellDE : public I2CTemperature {
public:
    explicit BroadwellDE(const char* name);
    ~BroadwellDE() override;

    ErrorMsg* GetCurrntTemperature(std::string name, std::string* value) override;
    ErrorMsg* GetThresholdHigh(std::string name, std::string* value) override;
    ErrorMsg* GetThresholdLow(std::string name, std::string* value) override;
    ErrorMsg* SetThresholdHigh(std::string name, std::string value) override;
    ErrorMsg* SetThresholdLow(std::string name, std::string value) override;

private:
    ErrorMsg* readMsr(const std::string& name, int msr, uint64_t* value);
    ErrorMsg* tjMax(const std::string& name, long long* value);
    ErrorMsg* offsetReading(const std::string& name, int msr, int shift, std::string* value);
    ErrorMsg* setThreshold(const std::string& name, int shift, const std::string& value);
    ProcessorDDAPI* m_cpu;
};

namespace quarn::temperature {
// Makes BroadwellDE the package temperature driver of the processor layer.
QUARN_EXPORT void installBroadwellDE();
}  // namespace quarn::temperature
