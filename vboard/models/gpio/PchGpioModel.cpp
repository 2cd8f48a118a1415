// The chipset's legacy GPIO block.
#include "vboard/models/gpio/PchGpioModel.h"

#include "vboard/VirtualBoard.h"
#include "vboard/models/pci/PciModels.h"

namespace quarn::vboard {

namespace {
// Register offsets of the three banks: use select, I/O select (1 = input), level.
constexpr uint32_t kUseSelect[3] = {0x00, 0x30, 0x40};
constexpr uint32_t kIoSelect[3] = {0x04, 0x34, 0x44};
constexpr uint32_t kLevel[3] = {0x0C, 0x38, 0x48};
enum Kind : uint32_t { kUse, kIo, kLvl };
// LPC bridge: GPIO base (bit 0: I/O space) and GPIO control (bit 4: decode enable).
constexpr uint32_t kLpcGpioBase = 0x48;
constexpr uint32_t kLpcGpioControl = 0x4C;
}  // namespace

const char kBoardGpioProfile[] =
    "# GPIO pins of the storage-controller board\n"
    "# name  data type  mode  GPIO number  active level  TRUE\n"
    "\n"
    "[PCH]\n"
    "SLT_AB_PCH\tGPIO_PCH_DRIVER_DATA_TYPE_BOOLEAN\tGPIO_READ_ONLY\t40\tACTIVE_HI\tTRUE\n"
    "FAN_FAIL\tGPIO_PCH_DRIVER_DATA_TYPE_BOOLEAN\tGPIO_READ_ONLY\t12\tACTIVE_LO\tFALSE\n"
    "BIOS_SEL\tGPIO_PCH_DRIVER_DATA_TYPE_BOOLEAN\tGPIO_READ_WRITE\t17\tACTIVE_HI\tTRUE\n"
    "HB_LED\tGPIO_PCH_DRIVER_DATA_TYPE_BOOLEAN\tGPIO_WRITE_ONLY\t34\tACTIVE_HI\tTRUE\n"
    "PEER_RST\tGPIO_PCH_DRIVER_DATA_TYPE_BOOLEAN\tGPIO_READ_WRITE\t70\tACTIVE_HI\tTRUE\n";

PchGpioModel::PchGpioModel() {
    // The firmware's pin setup of the board: straps and alarms in, controls out.
    configure(kSlotIdPin, true, true);
    configure(kFanFailPin, true, true);
    configure(kBiosSelectPin, true, false);
    configure(kHeartbeatPin, true, false);
    configure(kPeerResetPin, true, false);
    setSignal(kSlotIdPin, true);   // this controller sits in slot B
    setSignal(kFanFailPin, true);  // fans running
}

void PchGpioModel::install(VirtualBoard& board, PciBoard& pci) {
    if (std::shared_ptr<PciFunction> lpc = pci.function("0000:00:1f.0")) {
        lpc->poke(kLpcGpioBase, kBase | 1u, 4);
        lpc->poke(kLpcGpioControl, 0x10, 1);
    }
    board.addPorts(kBase, kSize, shared_from_this());
    board.writeFile("/etc/quarn/GPIO_profile.ini", kBoardGpioProfile);
}

int PchGpioModel::bankOf(uint32_t offset, uint32_t* kind) {
    for (int b = 0; b < 3; ++b) {
        if (offset == kUseSelect[b]) *kind = kUse;
        else if (offset == kIoSelect[b]) *kind = kIo;
        else if (offset == kLevel[b]) *kind = kLvl;
        else continue;
        return b;
    }
    return -1;
}

void PchGpioModel::configure(int pin, bool gpio, bool input) {
    if (pin < 0 || pin >= kPins) return;
    std::lock_guard<std::mutex> lock(m_mutex);
    const uint32_t bit = 1u << (pin % 32);
    const int b = pin / 32;
    m_useSelect[b] = gpio ? (m_useSelect[b] | bit) : (m_useSelect[b] & ~bit);
    m_inputSelect[b] = input ? (m_inputSelect[b] | bit) : (m_inputSelect[b] & ~bit);
}

void PchGpioModel::setSignal(int pin, bool high) {
    if (pin < 0 || pin >= kPins) return;
    std::lock_guard<std::mutex> lock(m_mutex);
    const uint32_t bit = 1u << (pin % 32);
    m_signal[pin / 32] = high ? (m_signal[pin / 32] | bit) : (m_signal[pin / 32] & ~bit);
}

void PchGpioModel::breakOutput(int pin, bool broken) {
    if (pin < 0 || pin >= kPins) return;
    std::lock_guard<std::mutex> lock(m_mutex);
    const uint32_t bit = 1u << (pin % 32);
    m_broken[pin / 32] = broken ? (m_broken[pin / 32] | bit) : (m_broken[pin / 32] & ~bit);
}

bool PchGpioModel::padLevel(int pin) const {
    if (pin < 0 || pin >= kPins) return false;
    std::lock_guard<std::mutex> lock(m_mutex);
    const int b = pin / 32;
    const uint32_t level = readRegister(kLevel[b]);
    return (level >> (pin % 32)) & 1u;
}

unsigned PchGpioModel::levelWrites() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_levelWrites;
}

// A level register reads the pads: an output pin its latch (unless its driver is
// broken, then the board signal), an input pin its board signal, a native pin 0.
uint32_t PchGpioModel::readRegister(uint32_t offset) const {
    uint32_t kind = 0;
    const int b = bankOf(offset, &kind);
    if (b < 0) return m_plain[offset / 4];
    if (kind == kUse) return m_useSelect[b];
    if (kind == kIo) return m_inputSelect[b];
    const uint32_t outputs = m_useSelect[b] & ~m_inputSelect[b];
    const uint32_t inputs = m_useSelect[b] & m_inputSelect[b];
    const uint32_t driven = (m_latch[b] & ~m_broken[b]) | (m_signal[b] & m_broken[b]);
    return (driven & outputs) | (m_signal[b] & inputs);
}

void PchGpioModel::writeRegister(uint32_t offset, uint32_t value, uint32_t byteMask) {
    uint32_t kind = 0;
    const int b = bankOf(offset, &kind);
    if (b < 0) {
        m_plain[offset / 4] = (m_plain[offset / 4] & ~byteMask) | (value & byteMask);
        return;
    }
    if (kind == kUse) {
        m_useSelect[b] = (m_useSelect[b] & ~byteMask) | (value & byteMask);
    } else if (kind == kIo) {
        m_inputSelect[b] = (m_inputSelect[b] & ~byteMask) | (value & byteMask);
    } else {
        // Only output pins take a level; bits of inputs and native pins are ignored.
        const uint32_t mask = byteMask & m_useSelect[b] & ~m_inputSelect[b];
        m_latch[b] = (m_latch[b] & ~mask) | (value & mask);
        ++m_levelWrites;
    }
}

uint32_t PchGpioModel::in(uint16_t port, int size) {
    std::lock_guard<std::mutex> lock(m_mutex);
    uint32_t value = 0;
    for (int i = 0; i < size; ++i) {
        const uint32_t offset = static_cast<uint32_t>(port - kBase) + static_cast<uint32_t>(i);
        if (offset >= kSize) {
            value |= 0xFFu << (8 * i);
            continue;
        }
        const uint32_t reg = readRegister(offset & ~3u);
        value |= ((reg >> (8 * (offset & 3))) & 0xFF) << (8 * i);
    }
    return value;
}

void PchGpioModel::out(uint16_t port, uint32_t value, int size) {
    std::lock_guard<std::mutex> lock(m_mutex);
    // Byte lanes of one access that fall into the same register are written together.
    uint32_t current = ~0u, data = 0, mask = 0;
    for (int i = 0; i < size; ++i) {
        const uint32_t offset = static_cast<uint32_t>(port - kBase) + static_cast<uint32_t>(i);
        if (offset >= kSize) break;
        const uint32_t reg = offset & ~3u;
        if (reg != current && mask) {
            writeRegister(current, data, mask);
            data = mask = 0;
        }
        current = reg;
        const uint32_t shift = 8 * (offset & 3);
        data |= ((value >> (8 * i)) & 0xFF) << shift;
        mask |= 0xFFu << shift;
    }
    if (mask) writeRegister(current, data, mask);
}

}  // namespace quarn::vboard
