// The PLX switch's EEPROM controller and its serial EEPROM.
#include "vboard/models/pci/PlxEeprom.h"

namespace quarn::vboard {

namespace {
// Control register fields.
constexpr uint32_t kAddressLow = 0x1FFF;        // dword address bits 12:0
constexpr uint32_t kAddressHigh = 1u << 20;     // dword address bit 13
constexpr uint32_t kCommandShift = 13;          // bits 15:13
constexpr uint32_t kPresentValid = 0x1u << 16;  // bits 17:16 = 01: EEPROM with a valid signature
constexpr uint32_t kPresentBlank = 0x3u << 16;  // 11: EEPROM present, no valid image
constexpr uint32_t kBusy = 1u << 18;            // command in progress
constexpr uint32_t kStatusShift = 24;           // bits 31:24: EEPROM status of the last read status
enum Command { kWrite = 2, kRead = 3, kReadStatus = 5, kWriteEnable = 6 };
}  // namespace

SerialEeprom::SerialEeprom(VirtualClock* clock) : m_clock(clock), m_bytes(kSize, 0xFF) {}

bool SerialEeprom::busy() const { return m_clock && m_clock->nowNs() < m_busyUntil; }

uint8_t SerialEeprom::status() const { return static_cast<uint8_t>((busy() ? 1 : 0) | (m_wel ? 2 : 0)); }

void SerialEeprom::writeEnable() {
    if (!busy()) m_wel = true;
}

bool SerialEeprom::writeDword(uint32_t index, uint32_t value) {
    if (busy() || !m_wel) return false;
    const uint32_t at = (index * 4) % kSize;
    if (m_flipIndex == static_cast<long long>(index)) {
        value ^= 1u << m_flipBit;
        m_flipIndex = -1;
    }
    for (int i = 0; i < 4; ++i) m_bytes[at + i] = static_cast<uint8_t>(value >> (8 * i));
    m_wel = false;
    ++m_writes;
    if (m_clock) m_busyUntil = m_clock->nowNs() + kWriteCycleNs;
    return true;
}

uint32_t SerialEeprom::readDword(uint32_t index) const {
    const uint32_t at = (index * 4) % kSize;
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) v |= static_cast<uint32_t>(m_bytes[at + i]) << (8 * i);
    return v;
}

PlxEepromController::PlxEepromController(VirtualClock* clock, bool present)
    : present(present), m_clock(clock), m_eeprom(clock) {}

void PlxEepromController::load(const std::vector<uint32_t>& dwords) {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<uint8_t>& bytes = m_eeprom.contents();
    for (size_t i = 0; i < dwords.size() && i * 4 + 4 <= bytes.size(); ++i)
        for (int b = 0; b < 4; ++b) bytes[i * 4 + b] = static_cast<uint8_t>(dwords[i] >> (8 * b));
}

uint32_t PlxEepromController::control() {
    // The status byte follows the EEPROM (write in progress, write enable latch); a read
    // status command refreshes it, as the controller polls the chip on its own as well.
    uint32_t v = (m_control & 0x00FFFFFFu & ~(kBusy | kPresentBlank)) |
                 static_cast<uint32_t>(present ? m_eeprom.status() : 0) << kStatusShift;
    if (present) v |= (m_eeprom.readDword(0) & 0xFF) == 0x5A ? kPresentValid : kPresentBlank;
    if (stuckBusy || (m_clock && m_clock->nowNs() < m_busyUntil)) v |= kBusy;
    return v;
}

uint32_t PlxEepromController::read(uint32_t offset) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (offset == kData) return m_data;
    if (offset == kControl) return control();
    return 0;
}

void PlxEepromController::write(uint32_t offset, uint32_t value) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (offset == kData) {
        m_data = value;
        return;
    }
    if (offset != kControl) return;
    // The status byte and the busy and presence bits are the controller's own.
    m_control = value & 0x00F0FFFFu & ~kBusy;
    if (!present || stuckBusy || (m_clock && m_clock->nowNs() < m_busyUntil)) return;
    const uint32_t index = (value & kAddressLow) | ((value & kAddressHigh) ? 0x2000 : 0);
    switch ((value >> kCommandShift) & 7) {
        case kRead:
            m_data = m_eeprom.readDword(index);
            break;
        case kWrite:
            m_eeprom.writeDword(index, m_data);
            break;
        case kReadStatus:
            break;  // the status byte is refreshed on every read of the register
        case kWriteEnable:
            m_eeprom.writeEnable();
            break;
        default:
            return;  // no command: a plain register write
    }
    if (m_clock) m_busyUntil = m_clock->nowNs() + kCommandNs;
}

}  // namespace quarn::vboard
