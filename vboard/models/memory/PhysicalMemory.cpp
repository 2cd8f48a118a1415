// The board's physical memory behind /dev/mem.
#include "vboard/models/memory/PhysicalMemory.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <stdexcept>

namespace quarn::vboard {

namespace {
constexpr uint64_t kPage = 4096;

// Pages of CPU mappings that carry bit faults are kept inaccessible. An access traps:
// the handler opens the page and single-steps the instruction; the trap after it lets
// the model apply its faults and closes the page again. Fixed-size and lock-free, as
// signal handlers need.
struct TrapSlot {
    std::atomic<uintptr_t> start{0};
    PhysicalMemory* model = nullptr;
    uint64_t physPage = 0;
};
constexpr int kTrapSlots = 256;
TrapSlot g_traps[kTrapSlots];

struct Pending {
    uintptr_t page;
    PhysicalMemory* model;
    uint64_t physAddress;
    uint8_t* host;
    int width;
    bool write;
    bool active;
};

// Width in bytes of the memory operand of the instruction at ip, for the plain moves,
// loads with extension, compares and tests that register code compiles to; 4 when the
// form is not recognised.
int operandWidth(const uint8_t* ip) {
    bool opsize = false, rexW = false;
    for (int i = 0; i < 4; ++i, ++ip) {
        if (*ip == 0x66) opsize = true;
        else if (*ip == 0x67 || *ip == 0xF2 || *ip == 0xF3 || *ip == 0x2E || *ip == 0x3E) continue;
        else break;
    }
    if ((*ip & 0xF0) == 0x40) {
        rexW = (*ip & 0x08) != 0;
        ++ip;
    }
    const int full = rexW ? 8 : opsize ? 2 : 4;
    switch (ip[0]) {
    case 0x88: case 0x8A: case 0xC6: case 0x84: case 0x38: case 0x3A: case 0x80:
    case 0xA0: case 0xA2: case 0x86:
        return 1;
    case 0x89: case 0x8B: case 0xC7: case 0x85: case 0x39: case 0x3B: case 0x81: case 0x83:
    case 0xA1: case 0xA3: case 0x87:
        return full;
    case 0x0F:
        if (ip[1] == 0xB6 || ip[1] == 0xBE) return 1;
        if (ip[1] == 0xB7 || ip[1] == 0xBF) return 2;
        return full;
    default:
        return full;
    }
}
thread_local Pending t_pending{};

struct sigaction g_oldSegv, g_oldTrap;
std::once_flag g_installed;

TrapSlot* findTrap(uintptr_t address) {
    const uintptr_t page = address & ~(kPage - 1);
    if (page == 0) return nullptr;  // 0 marks a free slot; nothing is ever mapped there
    for (TrapSlot& s : g_traps)
        if (s.start.load(std::memory_order_acquire) == page) return &s;
    return nullptr;
}

void onSegv(int sig, siginfo_t* info, void* context) {
    const uintptr_t address = reinterpret_cast<uintptr_t>(info->si_addr);
    TrapSlot* slot = findTrap(address);
    if (!slot) {
        // Not ours: let the previous disposition deal with it when the access repeats.
        sigaction(SIGSEGV, &g_oldSegv, nullptr);
        return;
    }
    auto* uc = static_cast<ucontext_t*>(context);
    const uintptr_t page = address & ~(kPage - 1);
    mprotect(reinterpret_cast<void*>(page), kPage, PROT_READ | PROT_WRITE);
    const bool write = (uc->uc_mcontext.gregs[REG_ERR] & 2) != 0;
    const int width = operandWidth(reinterpret_cast<const uint8_t*>(uc->uc_mcontext.gregs[REG_RIP]));
    t_pending = {page, slot->model, slot->physPage + (address - page),
                 reinterpret_cast<uint8_t*>(address), width, write, true};
    slot->model->beforeAccess(t_pending.physAddress, t_pending.host, width, write);
    uc->uc_mcontext.gregs[REG_EFL] |= 0x100;  // trap after the one instruction
    (void)sig;
}

void onTrap(int sig, siginfo_t* info, void* context) {
    auto* uc = static_cast<ucontext_t*>(context);
    if (!t_pending.active) {
        if (g_oldTrap.sa_flags & SA_SIGINFO) {
            if (g_oldTrap.sa_sigaction) g_oldTrap.sa_sigaction(sig, info, context);
        } else if (g_oldTrap.sa_handler != SIG_DFL && g_oldTrap.sa_handler != SIG_IGN) {
            g_oldTrap.sa_handler(sig);
        }
        return;
    }
    uc->uc_mcontext.gregs[REG_EFL] &= ~0x100LL;
    t_pending.active = false;
    t_pending.model->afterAccess(t_pending.physAddress, t_pending.host, t_pending.width,
                                 t_pending.write);
    mprotect(reinterpret_cast<void*>(t_pending.page), kPage, PROT_NONE);
}

void installHandlers() {
    std::call_once(g_installed, [] {
        struct sigaction sa;
        memset(&sa, 0, sizeof(sa));
        sa.sa_flags = SA_SIGINFO | SA_NODEFER;
        sigemptyset(&sa.sa_mask);
        sa.sa_sigaction = onSegv;
        sigaction(SIGSEGV, &sa, &g_oldSegv);
        sa.sa_sigaction = onTrap;
        sigaction(SIGTRAP, &sa, &g_oldTrap);
    });
}

bool registerTrap(uintptr_t page, PhysicalMemory* model, uint64_t physPage) {
    for (TrapSlot& s : g_traps) {
        if (s.start.load(std::memory_order_acquire) != 0) continue;
        s.model = model;
        s.physPage = physPage;
        s.start.store(page, std::memory_order_release);
        return true;
    }
    return false;
}

void unregisterTraps(uintptr_t start, uint64_t length) {
    for (TrapSlot& s : g_traps) {
        uintptr_t p = s.start.load(std::memory_order_acquire);
        if (p >= start && p < start + length) s.start.store(0, std::memory_order_release);
    }
}
}  // namespace

class PhysicalMemoryHandle : public FileHandle {
public:
    explicit PhysicalMemoryHandle(PhysicalMemory& model) : m_model(model) {}
    void* mmap(size_t length, int prot, int, off_t offset) override {
        return m_model.map(static_cast<uint64_t>(offset), length, prot);
    }
    int munmap(void* addr, size_t length) override {
        m_model.unmap(addr, length);
        return 0;
    }
    ssize_t pread(void* buf, size_t count, off_t offset) override {
        std::lock_guard<std::mutex> lock(m_model.mutex());
        if (!m_model.isRam(static_cast<uint64_t>(offset), count)) return fail(EFAULT);
        memcpy(buf, m_model.view(static_cast<uint64_t>(offset)), count);
        return static_cast<ssize_t>(count);
    }

private:
    PhysicalMemory& m_model;
};

PhysicalMemory::PhysicalMemory() { installHandlers(); }

PhysicalMemory::~PhysicalMemory() {
    for (auto& [addr, length] : m_liveMaps) {
        unregisterTraps(addr, length);
        ::munmap(reinterpret_cast<void*>(addr), length);
    }
    if (m_view) ::munmap(m_view, m_fileSize);
    if (m_fd >= 0) ::close(m_fd);
}

void PhysicalMemory::addRam(uint64_t start, uint64_t end) {
    std::lock_guard<std::mutex> lock(mutex());
    const uint64_t size = end - start + 1;
    if (start % kPage || size % kPage) throw std::invalid_argument("RAM ranges are page aligned");
    if (m_fd < 0) {
        m_fd = memfd_create("quarn-physical-memory", MFD_CLOEXEC);
        if (m_fd < 0) throw std::runtime_error("memfd_create failed");
    }
    if (m_view) ::munmap(m_view, m_fileSize);
    m_ranges.push_back({start, end, m_fileSize});
    m_fileSize += size;
    if (ftruncate(m_fd, static_cast<off_t>(m_fileSize)) != 0)
        throw std::runtime_error("cannot size the memory file");
    void* view = ::mmap(nullptr, m_fileSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_NORESERVE,
                        m_fd, 0);
    if (view == MAP_FAILED) throw std::runtime_error("cannot map the memory file");
    m_view = static_cast<uint8_t*>(view);
}

void PhysicalMemory::addWindow(uint64_t start, uint64_t length, uint8_t* backing) {
    std::lock_guard<std::mutex> lock(mutex());
    m_windows.push_back({start, length, backing});
}

std::unique_ptr<FileHandle> PhysicalMemory::open(int) {
    return std::make_unique<PhysicalMemoryHandle>(*this);
}

bool PhysicalMemory::isRam(uint64_t address, uint64_t length) const {
    for (const Range& r : m_ranges)
        if (address >= r.start && length > 0 && address + length - 1 <= r.end) return true;
    return false;
}

uint8_t* PhysicalMemory::view(uint64_t address) {
    for (const Range& r : m_ranges)
        if (address >= r.start && address <= r.end) return m_view + r.fileOffset + (address - r.start);
    return nullptr;
}

uint64_t PhysicalMemory::effective(uint64_t address) const {
    if (m_shortA < 0) return address;
    const uint64_t a = 1ULL << m_shortA, b = 1ULL << m_shortB;
    const bool both = (address & a) && (address & b);
    return both ? address : (address & ~(a | b));
}

bool PhysicalMemory::trapped(uint64_t page) const {
    for (const StuckBit& s : m_stuck)
        if ((s.address & ~(kPage - 1)) == page) return true;
    for (const Coupling& c : m_couplings)
        if ((c.aggressor & ~(kPage - 1)) == page || (c.victim & ~(kPage - 1)) == page) return true;
    return false;
}

void* PhysicalMemory::map(uint64_t offset, uint64_t length, int prot) {
    std::lock_guard<std::mutex> lock(mutex());
    if (offset % kPage || length == 0) {
        errno = EINVAL;
        return MAP_FAILED;
    }
    const uint64_t pages = (length + kPage - 1) / kPage;
    if (m_clock) m_clock->advanceNs(m_mapCostNs * pages);
    for (uint64_t p = 0; p < pages; ++p) {
        for (uint64_t failed : m_failedPages) {
            if (failed == offset + p * kPage) {
                errno = EIO;
                return MAP_FAILED;
            }
        }
    }
    // Register windows with register semantics: private pages, every access trapped.
    if (const RegisterWindow* rw = registerWindow(offset)) {
        if (offset + length > rw->start + rw->length) {
            errno = EINVAL;
            return MAP_FAILED;
        }
        void* area = ::mmap(nullptr, pages * kPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (area == MAP_FAILED) return MAP_FAILED;
        auto* base = static_cast<uint8_t*>(area);
        for (uint64_t p = 0; p < pages; ++p)
            registerTrap(reinterpret_cast<uintptr_t>(base + p * kPage), this, offset + p * kPage);
        m_liveMaps[reinterpret_cast<uintptr_t>(base)] = pages * kPage;
        ++m_mapCount;
        return base;
    }
    // Register windows of other models.
    for (const Window& w : m_windows) {
        if (offset >= w.start && offset + length <= w.start + w.length) {
            ++m_mapCount;
            return w.backing + (offset - w.start);
        }
    }
    // The common case, no fault in reach: a view of the memory file, no system call.
    if (m_shortA < 0 && isRam(offset, pages * kPage)) {
        bool anyTrap = false;
        for (uint64_t p = 0; p < pages && !anyTrap; ++p) anyTrap = trapped(offset + p * kPage);
        if (!anyTrap) {
            ++m_mapCount;
            return view(offset);
        }
    }
    // Writable while the undecoded pages are filled; each page gets the caller's protection below.
    void* area = ::mmap(nullptr, pages * kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (area == MAP_FAILED) return MAP_FAILED;
    auto* base = static_cast<uint8_t*>(area);
    for (uint64_t p = 0; p < pages; ++p) {
        const uint64_t phys = effective(offset + p * kPage);
        bool mapped = false;
        for (const Range& r : m_ranges) {
            if (phys < r.start || phys > r.end) continue;
            void* at = ::mmap(base + p * kPage, kPage, prot, MAP_SHARED | MAP_FIXED, m_fd,
                              static_cast<off_t>(r.fileOffset + (phys - r.start)));
            mapped = at != MAP_FAILED;
            break;
        }
        // Nothing decodes the address: reads float high, writes go nowhere.
        if (!mapped) {
            memset(base + p * kPage, 0xFF, kPage);
            ::mprotect(base + p * kPage, kPage, prot);
        }
        if (mapped && trapped(phys & ~(kPage - 1))) {
            registerTrap(reinterpret_cast<uintptr_t>(base + p * kPage), this, phys);
            ::mprotect(base + p * kPage, kPage, PROT_NONE);
        }
    }
    m_liveMaps[reinterpret_cast<uintptr_t>(base)] = pages * kPage;
    ++m_mapCount;
    return base;
}

void PhysicalMemory::unmap(void* addr, uint64_t length) {
    std::lock_guard<std::mutex> lock(mutex());
    auto it = m_liveMaps.find(reinterpret_cast<uintptr_t>(addr));
    if (it == m_liveMaps.end()) return;  // a view or a register window: nothing to release
    unregisterTraps(it->first, it->second);
    ::munmap(addr, it->second);
    m_liveMaps.erase(it);
    (void)length;
}

void PhysicalMemory::forceStuckBits() {
    for (const StuckBit& s : m_stuck) {
        uint8_t* byte = view(s.address);
        if (!byte) continue;
        if (s.value)
            *byte = static_cast<uint8_t>(*byte | (1u << s.bit));
        else
            *byte = static_cast<uint8_t>(*byte & ~(1u << s.bit));
    }
}

const PhysicalMemory::RegisterWindow* PhysicalMemory::registerWindow(uint64_t address) const {
    for (const RegisterWindow& w : m_registerWindows)
        if (address >= w.start && address < w.start + w.length) return &w;
    return nullptr;
}

void PhysicalMemory::addRegisterWindow(uint64_t start, uint64_t length, RegisterRead read,
                                       RegisterWrite write) {
    std::lock_guard<std::mutex> lock(mutex());
    m_registerWindows.push_back({start, length, std::move(read), std::move(write)});
}

// These run in the trap handler, on the thread that made the access. The signal is
// synchronous: it interrupts a plain load or store of the accessing code, never the
// allocator or a lock holder, so the models' callbacks may allocate and lock.
void PhysicalMemory::beforeAccess(uint64_t physAddress, uint8_t* host, int width, bool write) {
    const RegisterWindow* rw = registerWindow(physAddress);
    if (!rw || write) return;
    const uint64_t value = rw->read ? rw->read(physAddress - rw->start, width) : ~0ULL;
    memcpy(host, &value, static_cast<size_t>(width));
}

void PhysicalMemory::afterAccess(uint64_t physAddress, uint8_t* host, int width, bool write) {
    if (const RegisterWindow* rw = registerWindow(physAddress)) {
        if (write && rw->write) {
            uint64_t value = 0;
            memcpy(&value, host, static_cast<size_t>(width));
            rw->write(physAddress - rw->start, value, width);
        }
        return;
    }
    if (write) {
        for (const Coupling& c : m_couplings) {
            if ((c.aggressor & ~7ULL) != (physAddress & ~7ULL)) continue;
            uint8_t* byte = view(c.victim);
            if (!byte) continue;
            if (c.value)
                *byte = static_cast<uint8_t>(*byte | (1u << c.bit));
            else
                *byte = static_cast<uint8_t>(*byte & ~(1u << c.bit));
        }
    }
    forceStuckBits();
}

void PhysicalMemory::addStuckBit(uint64_t address, int bit, int value) {
    std::lock_guard<std::mutex> lock(mutex());
    m_stuck.push_back({address, bit & 7, value ? 1 : 0});
    forceStuckBits();
}

void PhysicalMemory::addCoupling(uint64_t aggressor, uint64_t victim, int victimBit, int value) {
    std::lock_guard<std::mutex> lock(mutex());
    m_couplings.push_back({aggressor, victim, victimBit & 7, value ? 1 : 0});
}

void PhysicalMemory::shortAddressLines(int lineA, int lineB) {
    std::lock_guard<std::mutex> lock(mutex());
    if (lineA < 12 || lineB < 12 || lineA > 46 || lineB > 46 || lineA == lineB)
        throw std::invalid_argument("shorted lines are page address lines");
    m_shortA = lineA;
    m_shortB = lineB;
}

void PhysicalMemory::failPage(uint64_t address) {
    std::lock_guard<std::mutex> lock(mutex());
    m_failedPages.push_back(address & ~(kPage - 1));
}

void PhysicalMemory::clearFaults() {
    std::lock_guard<std::mutex> lock(mutex());
    m_stuck.clear();
    m_couplings.clear();
    m_failedPages.clear();
    m_shortA = m_shortB = -1;
}

}  // namespace quarn::vboard
