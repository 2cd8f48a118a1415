// The board's nvSRAM (a Cypress-style SRAM with a shadow non-volatile array) behind its
// own PCI function: BAR 1 is the SRAM. The chip's software STORE (SRAM to the
// non-volatile array) and RECALL (array to SRAM) run only after the exact sequence of
// six reads at the chip's fixed addresses; any other access in between aborts it.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "vboard/VirtualClock.h"

namespace quarn::vboard {

class NvsramModel {
public:
    static constexpr uint32_t kSize = 0x20000;  // 1 Mbit

    explicit NvsramModel(VirtualClock* clock) : m_clock(clock), m_sram(kSize, 0), m_nv(kSize, 0) {}

    // A CPU access of the SRAM window (width 1, 2, 4 or 8 bytes).
    uint64_t read(uint32_t offset, int width);
    void write(uint32_t offset, uint64_t value, int width);

    // The model's own view (no sequence tracking).
    std::vector<uint8_t>& sram() { return m_sram; }
    std::vector<uint8_t>& nonVolatile() { return m_nv; }
    unsigned stores() const { return m_stores; }
    unsigned recalls() const { return m_recalls; }

    // Power cycle: the SRAM loses its contents and the chip recalls the array.
    void powerCycle();

    // Fault: a STORE sequence is accepted but copies nothing.
    bool storeIgnored = false;
    // Fault: a bit of the SRAM that reads as value whatever was written.
    void addStuckBit(uint32_t offset, int bit, int value) { m_stuck.push_back({offset, bit, value}); }

private:
    void track(uint32_t offset);
    std::mutex m_mutex;
    VirtualClock* m_clock;
    std::vector<uint8_t> m_sram, m_nv;
    int m_matched = 0;  // reads of the sequence seen so far
    unsigned m_stores = 0, m_recalls = 0;
    struct Stuck {
        uint32_t offset;
        int bit, value;
    };
    std::vector<Stuck> m_stuck;
};

}  // namespace quarn::vboard

namespace quarn::vboard {
class PciBoard;
class PhysicalMemory;
class VirtualBoard;
// The nvSRAM's PCI function (0000:00:04.0, 1d5a:7110, class 0x0880) with the SRAM as
// BAR 1 in the physical memory map.
std::shared_ptr<NvsramModel> installNvsram(VirtualBoard& board, PciBoard& pci, PhysicalMemory& memory);
}  // namespace quarn::vboard
