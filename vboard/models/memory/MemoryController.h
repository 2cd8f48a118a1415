// The board's memory: physical RAM behind /dev/mem, the firmware memory map, and the
// memory controller as its EDAC driver shows it (corrected-error counters, ECC
// injection, rank/physical address translation, the interleave layout).
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "vboard/models/memory/PhysicalMemory.h"

namespace quarn::vboard {

class VirtualBoard;

// Two channels, two DIMM slots per channel, dual-rank DIMMs. Physical addresses leave
// a hole from lowTop to 4 GiB for PCI; the system address space behind them is
// interleaved over the channels in 64-byte lines, then filled DIMM by DIMM, rank by rank.
class MemoryController {
public:
    static constexpr int kChannels = 2;
    static constexpr int kSlots = 2;
    static constexpr int kRanks = 2;

    MemoryController(uint64_t dimmBytes = 8ULL << 30, uint64_t lowTop = 2ULL << 30);

    // Adds /dev/mem, /sys/firmware/memmap, the EDAC tree, memory.conf and /proc/cmdline.
    void install(VirtualBoard& board, const std::string& memLimit = "8G");

    std::shared_ptr<PhysicalMemory> memory() const { return m_memory; }
    uint64_t totalBytes() const { return m_dimmBytes * kChannels * kSlots; }
    uint64_t highEnd() const;  // last byte of the RAM above 4 GiB

    // Translation; false when the address is outside the DIMMs.
    bool physicalToRank(uint64_t physical, int* channel, int* slot, int* rank,
                        uint64_t* rankAddress) const;
    bool rankToPhysical(uint64_t rankAddress, int channel, int slot, int rank,
                        uint64_t* physical) const;

    int ceCount(int channel, int slot) const { return m_ce[channel][slot]; }
    void addCorrected(int channel, int slot, int count) { m_ce[channel][slot] += count; }
    // The driver refuses injection while locked (status 1).
    void setInjectionLocked(bool locked) { m_locked = locked; }
    std::string layoutText() const;

private:
    uint64_t m_dimmBytes;
    uint64_t m_lowTop;
    std::shared_ptr<PhysicalMemory> m_memory;
    std::array<std::array<int, kSlots>, kChannels> m_ce{};
    bool m_locked = false;
    int m_injectStatus = 0;
    std::string m_rankRequest, m_addrRequest;
};

}  // namespace quarn::vboard
