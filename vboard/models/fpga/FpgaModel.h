// The board FPGA: a 64 KiB memory block whose base the board reports on ports 0x700
// (bits 23-16) and 0x701 (bits 31-24). Byte registers at the start of the block, each
// bit readable, writable or both; a 16 KiB scratch pad at 0x8000; the controller's
// activity and fault lamps driven from the LED control register.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <vector>

#include "vboard/DeviceModel.h"

namespace quarn::vboard {

class VirtualBoard;
class PciBoard;
class PhysicalMemory;

class FpgaModel : public std::enable_shared_from_this<FpgaModel> {
public:
    static constexpr uint32_t kWindowSize = 0x10000;
    static constexpr uint32_t kRegisterSpan = 0x40;
    static constexpr uint32_t kSpadOffset = 0x8000;
    static constexpr uint32_t kSpadSize = 0x4000;
    // LED control (write-only): bits 0/1 hand the activity/fault lamp to software, bits
    // 4/5 are the lamps' software states. LED status (read-only): bit 0 activity lamp,
    // bit 1 fault lamp, as they are lit.
    static constexpr uint32_t kLedControl = 16;
    static constexpr uint32_t kLedStatus = 18;
    static constexpr uint32_t kVersion = 17;
    enum Lamp { kActivity = 0, kFault = 1 };

    // One access that reached the block's registers (scratch-pad accesses are not logged).
    struct Access {
        bool write;
        uint32_t offset;
        uint8_t value;
    };

    explicit FpgaModel(uint32_t base);

    // The base ports and the memory window (the window keeps the model alive).
    void install(VirtualBoard& board, PhysicalMemory& memory);
    // Boards that also enumerate the FPGA as PCI function 72:00.0, BAR 0 on the block.
    void installPciFunction(PciBoard& pci);

    uint32_t base() const { return m_base; }
    uint8_t read(uint32_t offset);
    void write(uint32_t offset, uint8_t value);

    // What the board shows: the lamp lit or dark, and how often it changed.
    bool lampOn(Lamp lamp) const;
    unsigned lampChanges(Lamp lamp) const;
    // Without software control the activity lamp follows the controller's I/O activity.
    void setHardwareActivity(bool active);

    std::vector<Access> accessLog() const;
    void clearAccessLog();
    // The model's own view of a register (no access rights applied).
    uint8_t peek(uint32_t offset) const;
    void poke(uint32_t offset, uint8_t value);

    // Fault: a scratch-pad cell that always reads value, whatever is written to it
    // (for mappings made after the fault is set).
    void stickSpadCell(uint32_t offset, uint8_t value);
    void clearFaults();

private:
    struct Bits {
        uint8_t readable, writable;
    };
    static constexpr uint32_t kPage = 0x1000;
    Bits bits(uint32_t offset) const;
    void addTrappedRange(uint32_t offset, uint32_t length);
    uint8_t ledStatus() const;
    void updateLamps();

    uint32_t m_base;
    mutable std::mutex m_mutex;
    std::array<uint8_t, kRegisterSpan> m_registers{};
    std::vector<uint8_t> m_spad;
    std::map<uint32_t, uint8_t> m_stuck;
    std::set<uint32_t> m_trappedSpadPages;
    PhysicalMemory* m_memory = nullptr;
    std::vector<Access> m_log;
    bool m_hardwareActivity = false;
    bool m_lamp[2] = {false, false};
    unsigned m_lampChanges[2] = {0, 0};
};

}  // namespace quarn::vboard
