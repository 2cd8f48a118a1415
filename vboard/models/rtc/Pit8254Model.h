// The 8254 programmable interval timer on ports 0x40-0x43: three counters clocked at
// 1.193182 MHz against the board's virtual time, modes 0-5, counter latch and read-back.
#pragma once

#include <cstdint>
#include <mutex>

#include "vboard/DeviceModel.h"
#include "vboard/VirtualClock.h"

namespace quarn::vboard {

class Pit8254Model : public PortModel {
public:
    static constexpr uint64_t kInputHz = 1193182;

    explicit Pit8254Model(VirtualClock& clock) : m_clock(clock) {}

    uint32_t in(uint16_t port, int size) override;
    void out(uint16_t port, uint32_t value, int size) override;

    // State seen from outside, for tests and the board's own checks.
    int mode(int counter) const;
    bool output(int counter);
    uint16_t count(int counter);

private:
    struct Counter {
        int rw = 3;        // 1 LSB, 2 MSB, 3 LSB then MSB
        int mode = 0;
        bool bcd = false;
        bool programmed = false;  // a control word was written
        bool loaded = false;      // an initial count is counting
        uint32_t initial = 0;     // 1..65536
        uint64_t loadNs = 0;
        bool writeMsbNext = false;
        uint8_t pendingLsb = 0;
        bool readMsbNext = false;
        bool countLatched = false;
        uint16_t latchedCount = 0;
        bool latchedMsbNext = false;
        bool statusLatched = false;
        uint8_t latchedStatus = 0;
        bool nullCount = true;
    };

    // Counting element and output pin of a counter at the current virtual time.
    void state(const Counter& c, uint16_t* ce, bool* out) const;
    void writeControl(uint8_t value);
    void writeData(Counter& c, uint8_t value);
    uint8_t readData(Counter& c);
    uint8_t statusByte(const Counter& c) const;

    VirtualClock& m_clock;
    std::mutex m_mutex;
    Counter m_counters[3];
};

}  // namespace quarn::vboard
