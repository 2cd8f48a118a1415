// The serial EEPROM of a PLX switch and the switch's EEPROM controller, reached through
// two registers of the upstream port: control/status at 0x260 and data at 0x264.
#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

#include "vboard/VirtualClock.h"

namespace quarn::vboard {

// An SPI EEPROM (AT25256-class, 32 KB): write enable latch, write in progress for the
// write cycle time, writes refused while busy or not enabled.
class SerialEeprom {
public:
    static constexpr uint32_t kSize = 0x8000;
    static constexpr uint64_t kWriteCycleNs = 1000000;  // tWC: 1 ms per dword page write

    explicit SerialEeprom(VirtualClock* clock);
    uint8_t status() const;  // bit 0 write in progress, bit 1 write enable latch
    void writeEnable();
    bool writeDword(uint32_t index, uint32_t value);
    uint32_t readDword(uint32_t index) const;
    std::vector<uint8_t>& contents() { return m_bytes; }

    // Fault: the next write of this dword stores the value with this bit flipped.
    void flipBitOnNextWrite(uint32_t index, int bit) {
        m_flipIndex = static_cast<long long>(index);
        m_flipBit = bit;
    }
    unsigned writes() const { return m_writes; }

private:
    bool busy() const;
    VirtualClock* m_clock;
    std::vector<uint8_t> m_bytes;
    bool m_wel = false;
    uint64_t m_busyUntil = 0;
    long long m_flipIndex = -1;
    int m_flipBit = 0;
    unsigned m_writes = 0;
};

class PlxEepromController {
public:
    static constexpr uint32_t kControl = 0x260;
    static constexpr uint32_t kData = 0x264;
    static constexpr uint64_t kCommandNs = 2000;  // one SPI transaction

    PlxEepromController(VirtualClock* clock, bool present);
    uint32_t read(uint32_t offset);
    void write(uint32_t offset, uint32_t value);

    SerialEeprom& eeprom() { return m_eeprom; }
    // Loads an image (a configuration with the 0x5A signature) into the EEPROM.
    void load(const std::vector<uint32_t>& dwords);

    // Fault: the controller never finishes a command (busy bit stays set).
    bool stuckBusy = false;
    bool present;

private:
    uint32_t control();
    std::mutex m_mutex;
    VirtualClock* m_clock;
    SerialEeprom m_eeprom;
    uint32_t m_control = 0;
    uint32_t m_data = 0;
    uint64_t m_busyUntil = 0;
};

}  // namespace quarn::vboard
