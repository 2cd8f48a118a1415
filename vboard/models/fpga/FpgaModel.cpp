// The board FPGA: base ports, register block, scratch pad and the controller's lamps.
#include "vboard/models/fpga/FpgaModel.h"

#include "vboard/VirtualBoard.h"
#include "vboard/models/memory/PhysicalMemory.h"
#include "vboard/models/pci/PciModels.h"

namespace quarn::vboard {

namespace {
constexpr uint16_t kBasePortLow = 0x700;

// Ports 0x700/0x701: the base address's bits 23-16 and 31-24; writes are ignored.
class FpgaBasePorts : public PortModel {
public:
    explicit FpgaBasePorts(uint32_t base) : m_base(base) {}
    uint32_t in(uint16_t port, int size) override {
        uint32_t value = 0;
        for (int i = 0; i < size; ++i) {
            const uint32_t p = static_cast<uint32_t>(port) + static_cast<uint32_t>(i);
            uint32_t byte = 0xFF;
            if (p == kBasePortLow) byte = (m_base >> 16) & 0xFF;
            if (p == kBasePortLow + 1u) byte = (m_base >> 24) & 0xFF;
            value |= byte << (8 * i);
        }
        return value;
    }
    void out(uint16_t, uint32_t, int) override {}

private:
    uint32_t m_base;
};

enum Access { RW, RO, WO, NONE };
// Register map of the block (offsets 0x00-0x2C); everything else is undecoded.
Access accessOf(uint32_t offset) {
    if (offset <= 7) return RW;
    if (offset == 16 || (offset >= 19 && offset <= 22) || (offset >= 27 && offset <= 29)) return WO;
    if (offset == 17 || offset == 18 || (offset >= 23 && offset <= 26) || (offset >= 31 && offset <= 34) ||
        (offset >= 42 && offset <= 44))
        return RO;
    return NONE;
}
}  // namespace

FpgaModel::FpgaModel(uint32_t base) : m_base(base), m_spad(kSpadSize, 0) {
    // Read-only contents: version, board revision, power-good and presence, build date.
    m_registers[kVersion] = 0x23;
    m_registers[23] = 0x02;
    m_registers[24] = 0x3F;
    m_registers[25] = 0x01;
    m_registers[31] = 0x20;
    m_registers[32] = 0x24;
    m_registers[33] = 0x06;
    m_registers[34] = 0x17;
    // The scratch pad powers up with a pattern, so a restore that writes zeros shows.
    for (uint32_t i = 0; i < kSpadSize; ++i) m_spad[i] = static_cast<uint8_t>((i * 7u + 3u) & 0xFF);
}

void FpgaModel::install(VirtualBoard& board, PhysicalMemory& memory) {
    board.addPorts(kBasePortLow, 2, std::make_shared<FpgaBasePorts>(m_base));
    m_memory = &memory;
    // Registers and the undecoded rest trap every access; the scratch pad is plain
    // memory, except pages holding a faulty cell (see stickSpadCell).
    addTrappedRange(0, kSpadOffset);
    memory.addWindow(m_base + kSpadOffset, kSpadSize, m_spad.data());
    addTrappedRange(kSpadOffset + kSpadSize, kWindowSize - kSpadOffset - kSpadSize);
}

void FpgaModel::addTrappedRange(uint32_t offset, uint32_t length) {
    std::shared_ptr<FpgaModel> self = shared_from_this();
    m_memory->addRegisterWindow(
        m_base + offset, length,
        [self, offset](uint64_t at, int width) -> uint64_t {
            uint64_t value = 0;
            for (int i = 0; i < width; ++i)
                value |= static_cast<uint64_t>(self->read(offset + static_cast<uint32_t>(at) + i)) << (8 * i);
            return value;
        },
        [self, offset](uint64_t at, uint64_t value, int width) {
            for (int i = 0; i < width; ++i)
                self->write(offset + static_cast<uint32_t>(at) + i, static_cast<uint8_t>(value >> (8 * i)));
        });
}

void FpgaModel::installPciFunction(PciBoard& pci) {
    // Xilinx memory controller class "other", one 64 KiB memory BAR on the block.
    auto f = std::make_shared<PciFunction>(0x10EE, 0x7011, 0x058000, 0, 0, 256);
    f->setBar(0, m_base, kWindowSize, 0);
    pci.add("0000:72:00.0", f);
}

FpgaModel::Bits FpgaModel::bits(uint32_t offset) const {
    switch (accessOf(offset)) {
    case RW:
        return {0xFF, 0xFF};
    case RO:
        return {0xFF, 0x00};
    case WO:
        return {0x00, 0xFF};
    default:
        return {0x00, 0x00};
    }
}

uint8_t FpgaModel::ledStatus() const {
    return static_cast<uint8_t>((m_lamp[kActivity] ? 1 : 0) | (m_lamp[kFault] ? 2 : 0));
}

void FpgaModel::updateLamps() {
    const uint8_t control = m_registers[kLedControl];
    const bool lit[2] = {(control & 0x01) ? (control & 0x10) != 0 : m_hardwareActivity,
                         (control & 0x02) ? (control & 0x20) != 0 : false};
    for (int l = 0; l < 2; ++l) {
        if (lit[l] != m_lamp[l]) ++m_lampChanges[l];
        m_lamp[l] = lit[l];
    }
    m_registers[kLedStatus] = ledStatus();
}

uint8_t FpgaModel::read(uint32_t offset) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (offset >= kSpadOffset && offset < kSpadOffset + kSpadSize) {
        auto stuck = m_stuck.find(offset - kSpadOffset);
        return stuck != m_stuck.end() ? stuck->second : m_spad[offset - kSpadOffset];
    }
    if (offset >= kRegisterSpan) return 0xFF;  // nothing decodes it
    const Bits b = bits(offset);
    const uint8_t value = b.readable == 0 && b.writable == 0
                              ? 0xFF
                              : static_cast<uint8_t>(m_registers[offset] & b.readable);
    m_log.push_back({false, offset, value});
    return value;
}

void FpgaModel::write(uint32_t offset, uint8_t value) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (offset >= kSpadOffset && offset < kSpadOffset + kSpadSize) {
        m_spad[offset - kSpadOffset] = value;
        return;
    }
    if (offset >= kRegisterSpan) return;
    m_log.push_back({true, offset, value});
    const Bits b = bits(offset);
    m_registers[offset] = static_cast<uint8_t>((m_registers[offset] & ~b.writable) | (value & b.writable));
    if (offset == kLedControl) updateLamps();
}

bool FpgaModel::lampOn(Lamp lamp) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lamp[lamp];
}

unsigned FpgaModel::lampChanges(Lamp lamp) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lampChanges[lamp];
}

void FpgaModel::setHardwareActivity(bool active) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_hardwareActivity = active;
    updateLamps();
}

std::vector<FpgaModel::Access> FpgaModel::accessLog() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_log;
}

void FpgaModel::clearAccessLog() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_log.clear();
}

uint8_t FpgaModel::peek(uint32_t offset) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (offset >= kSpadOffset && offset < kSpadOffset + kSpadSize) return m_spad[offset - kSpadOffset];
    return offset < kRegisterSpan ? m_registers[offset] : 0xFF;
}

void FpgaModel::poke(uint32_t offset, uint8_t value) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (offset >= kSpadOffset && offset < kSpadOffset + kSpadSize) {
        m_spad[offset - kSpadOffset] = value;
    } else if (offset < kRegisterSpan) {
        m_registers[offset] = value;
        if (offset == kLedControl) updateLamps();
    }
}

void FpgaModel::stickSpadCell(uint32_t offset, uint8_t value) {
    if (offset >= kSpadSize) return;
    const uint32_t page = offset & ~(kPage - 1);
    bool trapped = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stuck[offset] = value;
        trapped = !m_trappedSpadPages.insert(page).second;
    }
    // The page holding the cell traps from now on (mappings made later see the fault);
    // register windows are found before plain ones.
    if (!trapped && m_memory) addTrappedRange(kSpadOffset + page, kPage);
}

void FpgaModel::clearFaults() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_stuck.clear();
}

}  // namespace quarn::vboard
