// The battery backup unit: a TI bq40z50 fuel gauge speaking Smart Battery Data on I2C,
// and the charge-control registers in the memory space of PCI device 72:00.0 that switch
// the unit between charging and discharging.
//
// Gauge: SBS word commands (0x08-0x1C, little endian), block commands (0x20-0x23, count
// byte first). Every reply is followed by its SMBus packet error code (CRC-8, x^8+x^2+x+1,
// over address+W, command, address+R and the reply), which a host reads as one more byte
// when it checks PEC. The charge follows the control register: while charging the
// remaining capacity rises with the charging current, while discharging it falls with the
// load current, both over the board's virtual time.
//
// Charge control (BAR 0): key register 0x30 takes an eight-byte unlock sequence, one byte
// per write; the control register 0x32 (bit 1 set = discharge) accepts one write after
// the whole sequence and locks again. A wrong key byte restarts the sequence.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "vboard/VirtualClock.h"
#include "vboard/models/i2c/I2cDeviceModels.h"

namespace quarn::vboard {

class ChargeControlModel {
public:
    static constexpr uint32_t kKey = 0x30;
    static constexpr uint32_t kControl = 0x32;
    static constexpr uint8_t kDischarge = 0x02;
    // The unlock sequence of the charge-control logic.
    static constexpr std::array<uint8_t, 8> kUnlock = {0x56, 0x54, 0x58, 0x2D, 0x42, 0x42, 0x55, 0xA5};

    uint64_t read(uint64_t offset, int width);
    void write(uint64_t offset, uint64_t value, int width);

    bool discharging() const { return (m_control & kDischarge) != 0; }
    uint8_t control() const { return m_control; }
    void setControl(uint8_t v) { m_control = v; }
    int keyWrites() const { return m_keyWrites; }
    int refusedWrites() const { return m_refused; }

private:
    uint8_t m_control = 0x05;  // charger enabled, pack present, charging
    size_t m_progress = 0;
    int m_keyWrites = 0;
    int m_refused = 0;
};

struct GaugeConfig {
    int fullChargeCapacity = 2400;  // mAh
    int designCapacity = 2400;
    int remaining = 2280;
    int chargeCurrent = 1200;  // mA
    int loadCurrent = 2400;    // mA while discharging
    double temperature = 25.05;
    int voltage = 12600;
    int cycleCount = 12;
    uint16_t manufactureDate = 0x4A6F;  // 2017-03-15
    uint16_t serial = 0x0123;
    std::string manufacturer = "Texas Inst.";
    std::string device = "bq40z50";
    std::string chemistry = "LION";
    std::string designData = "3S1P 18650";
};

class Bq40z50Model : public SmbusDeviceModel {
public:
    Bq40z50Model(uint8_t addr7, VirtualClock* clock, std::shared_ptr<ChargeControlModel> control,
                 GaugeConfig config = {});

    int remainingCapacity();
    int relativeStateOfCharge();
    void setTemperature(double celsius) { m_config.temperature = celsius; }
    // Faults: every reply's PEC byte inverted; a word command answering a fixed value
    // (out of range, e.g. 0xFFFF for a percentage); -1 turns the override off.
    void setBadPec(bool on) { m_badPec = on; }
    void setWordOverride(uint8_t command, int value) {
        m_overrideCommand = command;
        m_overrideValue = value;
    }

protected:
    std::vector<uint8_t> readCommand(uint8_t command) override;
    void writeCommand(uint8_t command, const std::vector<uint8_t>& data) override;

private:
    void advance();
    std::vector<uint8_t> withPec(uint8_t command, std::vector<uint8_t> reply) const;

    uint8_t m_addr7;
    VirtualClock* m_clock;
    std::shared_ptr<ChargeControlModel> m_control;
    GaugeConfig m_config;
    double m_remaining;  // mAh
    uint64_t m_lastNs = 0;
    bool m_badPec = false;
    int m_overrideCommand = -1;
    int m_overrideValue = 0;
    uint16_t m_manufacturerAccess = 0;
};

// SMBus PEC: CRC-8 with polynomial 0x07, initial value 0.
uint8_t smbusPec(const uint8_t* bytes, size_t count, uint8_t crc = 0);

}  // namespace quarn::vboard

namespace quarn::vboard {
class PciBoard;
class PhysicalMemory;
// The charge-control function 0000:72:00.0 with its BAR 0 at kChargeControlBar, and the
// register window behind it in physical memory.
constexpr uint32_t kChargeControlBar = 0xFBB00000;
void installChargeControl(PciBoard& pci, PhysicalMemory& memory, std::shared_ptr<ChargeControlModel> control);
}  // namespace quarn::vboard
