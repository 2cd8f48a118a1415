// The board's physical memory behind /dev/mem: RAM ranges backed by one sparse memory
// file (cost only where touched), register windows of other models, and memory faults
// (stuck-at bits, coupling between cells, shorted address lines, failing pages).
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <vector>

#include "vboard/DeviceModel.h"
#include "vboard/VirtualClock.h"

namespace quarn::vboard {

class PhysicalMemory : public DeviceModel {
public:
    PhysicalMemory();
    ~PhysicalMemory() override;

    // RAM at [start, end], end inclusive, both on page boundaries (end + 1).
    void addRam(uint64_t start, uint64_t end);
    // A register window of another model: accesses reach backing directly.
    void addWindow(uint64_t start, uint64_t length, uint8_t* backing);
    // A register window with register semantics: every CPU access of its pages traps
    // and becomes a read(offset, width) or write(offset, value, width) of the model,
    // with the width of the instruction that made it.
    using RegisterRead = std::function<uint64_t(uint64_t offset, int width)>;
    using RegisterWrite = std::function<void(uint64_t offset, uint64_t value, int width)>;
    void addRegisterWindow(uint64_t start, uint64_t length, RegisterRead read, RegisterWrite write);
    std::unique_ptr<FileHandle> open(int flags) override;

    // The model's own view of a RAM byte (no faults applied), null outside RAM.
    uint8_t* view(uint64_t address);
    bool isRam(uint64_t address, uint64_t length) const;

    // Faults. Bit faults are applied on every access of the CPU to the page holding
    // them (the page is trapped), so a test sees them exactly as on faulty hardware.
    // They apply to mappings made after they are added: a window the program already
    // holds on the page keeps seeing the plain memory.
    void addStuckBit(uint64_t address, int bit, int value);
    // A write to the 8-byte word holding aggressor forces bit victimBit of victim.
    void addCoupling(uint64_t aggressor, uint64_t victim, int victimBit, int value);
    // Lines a and b (both at least 12, page granularity) shorted: both read as a AND b.
    void shortAddressLines(int lineA, int lineB);
    // Mapping the page holding address fails (EIO), so its reads and writes fail.
    void failPage(uint64_t address);
    void clearFaults();

    uint64_t mapCount() const { return m_mapCount; }
    // Virtual time one mapping costs (opening a window and touching it uncached), so a
    // test that runs "for N seconds" ends on the virtual board too.
    void setMapCost(VirtualClock* clock, uint64_t nanoseconds) {
        m_clock = clock;
        m_mapCostNs = nanoseconds;
    }

    // Called from the trap handler around one CPU access of a trapped page: before it
    // (a register read is fetched into the page) and after it (faults applied, a
    // register write handed to its model). host is where the access landed.
    void beforeAccess(uint64_t physAddress, uint8_t* host, int width, bool write);
    void afterAccess(uint64_t physAddress, uint8_t* host, int width, bool write);

private:
    friend class PhysicalMemoryHandle;
    struct Range {
        uint64_t start, end;  // inclusive
        uint64_t fileOffset;
    };
    struct StuckBit {
        uint64_t address;
        int bit, value;
    };
    struct Coupling {
        uint64_t aggressor, victim;
        int bit, value;
    };

    void* map(uint64_t offset, uint64_t length, int prot);
    void unmap(void* addr, uint64_t length);
    uint64_t effective(uint64_t address) const;
    bool trapped(uint64_t page) const;
    void forceStuckBits();

    int m_fd = -1;
    uint64_t m_fileSize = 0;
    uint8_t* m_view = nullptr;  // the whole file, for the model itself
    std::vector<Range> m_ranges;
    struct Window {
        uint64_t start, length;
        uint8_t* backing;
    };
    std::vector<Window> m_windows;
    struct RegisterWindow {
        uint64_t start, length;
        RegisterRead read;
        RegisterWrite write;
    };
    std::vector<RegisterWindow> m_registerWindows;
    const RegisterWindow* registerWindow(uint64_t address) const;
    std::vector<StuckBit> m_stuck;
    std::vector<Coupling> m_couplings;
    std::vector<uint64_t> m_failedPages;
    int m_shortA = -1, m_shortB = -1;
    uint64_t m_mapCount = 0;
    VirtualClock* m_clock = nullptr;
    uint64_t m_mapCostNs = 0;
    std::map<uintptr_t, uint64_t> m_liveMaps;  // host address -> length
};

}  // namespace quarn::vboard
