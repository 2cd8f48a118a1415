// Temperature sensors on the board's I2C buses.
//
// Max6657Model: the Maxim MAX6657/MAX6658/MAX6659 register set (separate read and write
// command codes): temperatures and limits are 8-bit two's complement degrees, extended
// registers carry the 1/8 degree bits in bits 7-5. Limits are written through the write
// commands 0x0B-0x0E and read back through 0x05-0x08; a write to a read command is not
// acknowledged. An open remote diode sets the OPEN status bit and reads +127.
//
// Tse2004Model: the JEDEC TSE2004av DIMM thermal sensor: 16-bit registers sent most
// significant byte first; the temperature in bits 12-0 as 13-bit two's complement in
// 1/16 degree (limits in 1/4 degree), event flags in bits 15-13 of the reading.
#pragma once

#include <cstdint>

#include "vboard/models/i2c/I2cDeviceModels.h"

namespace quarn::vboard {

class Max6657Model : public SmbusDeviceModel {
public:
    // MAX6659 answers with another device revision and has a second (overtemp) limit.
    explicit Max6657Model(double local, double remote, bool max6659 = false);

    void setLocal(double celsius) { m_local = celsius; }
    void setRemote(double celsius) { m_remote = celsius; }
    int localHighLimit() const { return m_limit[0]; }
    int localLowLimit() const { return m_limit[1]; }
    // Faults: the remote diode open; limit writes refused (a write-protected part).
    void setRemoteOpen(bool on) { m_remoteOpen = on; }
    void setLimitsLocked(bool on) { m_limitsLocked = on; }

    bool writeByte(uint8_t addr7, uint8_t value) override;
    bool start(uint8_t addr7, bool read) override;

protected:
    std::vector<uint8_t> readCommand(uint8_t command) override;
    void writeCommand(uint8_t command, const std::vector<uint8_t>& data) override;

private:
    double m_local;
    double m_remote;
    bool m_max6659;
    int m_limit[4] = {70, 0, 100, 0};  // local high, local low, remote high, remote low
    uint8_t m_config = 0;
    uint8_t m_rate = 0x08;
    bool m_remoteOpen = false;
    bool m_limitsLocked = false;
    int m_bytes = 0;
    uint8_t m_command = 0;
};

class Tse2004Model : public SmbusDeviceModel {
public:
    explicit Tse2004Model(double celsius);

    void setTemperature(double celsius) { m_celsius = celsius; }
    // The 13-bit reading as stored (tests of the conversion use raw values).
    void setRawReading(uint16_t raw) {
        m_raw = raw & 0x1FFF;
        m_useRaw = true;
    }
    uint16_t highLimitRegister() const { return m_high; }

protected:
    std::vector<uint8_t> readCommand(uint8_t command) override;
    void writeCommand(uint8_t command, const std::vector<uint8_t>& data) override;

private:
    static uint16_t encode(double celsius, double unit);
    double m_celsius;
    uint16_t m_raw = 0;
    bool m_useRaw = false;
    uint16_t m_config = 0;
    uint16_t m_high = 0x0550;      // 85 C
    uint16_t m_low = 0x0000;       // 0 C
    uint16_t m_critical = 0x05F0;  // 95 C
};

}  // namespace quarn::vboard
