// The battery backup unit: fuel gauge and charge-control registers.
#include "vboard/models/bbu/BatteryModels.h"

#include <algorithm>
#include <cmath>

#include "vboard/models/memory/PhysicalMemory.h"
#include "vboard/models/pci/PciModels.h"

namespace quarn::vboard {

constexpr std::array<uint8_t, 8> ChargeControlModel::kUnlock;

uint8_t smbusPec(const uint8_t* bytes, size_t count, uint8_t crc) {
    for (size_t i = 0; i < count; ++i) {
        crc ^= bytes[i];
        for (int b = 0; b < 8; ++b) crc = static_cast<uint8_t>((crc & 0x80) ? (crc << 1) ^ 0x07 : crc << 1);
    }
    return crc;
}

uint64_t ChargeControlModel::read(uint64_t offset, int width) {
    uint64_t value = 0;
    for (int i = 0; i < width; ++i) {
        const uint64_t o = offset + static_cast<uint64_t>(i);
        uint8_t b = 0;
        if (o == kControl) b = m_control;
        if (o == kKey) b = m_progress == kUnlock.size() ? 1 : 0;
        value |= static_cast<uint64_t>(b) << (8 * i);
    }
    return value;
}

void ChargeControlModel::write(uint64_t offset, uint64_t value, int width) {
    for (int i = 0; i < width; ++i) {
        const uint64_t o = offset + static_cast<uint64_t>(i);
        const uint8_t b = static_cast<uint8_t>(value >> (8 * i));
        if (o == kKey) {
            ++m_keyWrites;
            if (m_progress < kUnlock.size() && b == kUnlock[m_progress])
                ++m_progress;
            else
                m_progress = b == kUnlock[0] ? 1 : 0;
        } else if (o == kControl) {
            if (m_progress == kUnlock.size())
                m_control = b;
            else
                ++m_refused;
            m_progress = 0;
        }
    }
}

Bq40z50Model::Bq40z50Model(uint8_t addr7, VirtualClock* clock, std::shared_ptr<ChargeControlModel> control,
                           GaugeConfig config)
    : m_addr7(addr7), m_clock(clock), m_control(std::move(control)), m_config(std::move(config)),
      m_remaining(m_config.remaining) {
    if (m_clock) m_lastNs = m_clock->nowNs();
}

void Bq40z50Model::advance() {
    if (!m_clock) return;
    const uint64_t now = m_clock->nowNs();
    const double hours = static_cast<double>(now - m_lastNs) / 3.6e12;
    m_lastNs = now;
    const bool discharging = m_control && m_control->discharging();
    const double delta = (discharging ? -m_config.loadCurrent : m_config.chargeCurrent) * hours;
    m_remaining = std::max(0.0, std::min<double>(m_config.fullChargeCapacity, m_remaining + delta));
}

int Bq40z50Model::remainingCapacity() {
    advance();
    return static_cast<int>(m_remaining);
}

int Bq40z50Model::relativeStateOfCharge() {
    const int remaining = remainingCapacity();
    return m_config.fullChargeCapacity ? (remaining * 100 + m_config.fullChargeCapacity / 2) / m_config.fullChargeCapacity : 0;
}

std::vector<uint8_t> Bq40z50Model::withPec(uint8_t command, std::vector<uint8_t> reply) const {
    const uint8_t head[3] = {static_cast<uint8_t>(m_addr7 << 1), command, static_cast<uint8_t>((m_addr7 << 1) | 1)};
    uint8_t pec = smbusPec(head, 3);
    pec = smbusPec(reply.data(), reply.size(), pec);
    reply.push_back(m_badPec ? static_cast<uint8_t>(~pec) : pec);
    return reply;
}

std::vector<uint8_t> Bq40z50Model::readCommand(uint8_t command) {
    advance();
    const bool discharging = m_control && m_control->discharging();
    const int full = m_config.fullChargeCapacity;
    const int remaining = static_cast<int>(m_remaining);
    int word = 0;
    bool isWord = true;
    switch (command) {
    case 0x00: word = m_manufacturerAccess; break;
    case 0x08: word = static_cast<int>(std::lround((m_config.temperature + 273.15) * 10)); break;
    case 0x09: word = m_config.voltage; break;
    case 0x0A:
    case 0x0B: word = discharging ? -m_config.loadCurrent : (remaining < full ? m_config.chargeCurrent : 0); break;
    case 0x0C: word = 1; break;  // MaxError
    case 0x0D: word = relativeStateOfCharge(); break;
    case 0x0E: word = m_config.designCapacity ? (remaining * 100 + m_config.designCapacity / 2) / m_config.designCapacity : 0; break;
    case 0x0F: word = remaining; break;
    case 0x10: word = full; break;
    case 0x11:
    case 0x12: word = discharging ? remaining * 60 / m_config.loadCurrent : 0xFFFF; break;
    case 0x13: word = !discharging && remaining < full ? (full - remaining) * 60 / m_config.chargeCurrent : 0xFFFF; break;
    case 0x14: word = discharging || remaining >= full ? 0 : m_config.chargeCurrent; break;
    case 0x15: word = 12600; break;  // ChargingVoltage
    case 0x16:  // BatteryStatus: INIT, DSG while discharging, FC when full
        word = 0x0080 | (discharging ? 0x0040 : 0) | (remaining >= full ? 0x0020 : 0);
        break;
    case 0x17: word = m_config.cycleCount; break;
    case 0x18: word = m_config.designCapacity; break;
    case 0x19: word = 10800; break;
    case 0x1A: word = 0x0031; break;  // SBS 1.1 with PEC
    case 0x1B: word = m_config.manufactureDate; break;
    case 0x1C: word = m_config.serial; break;
    default: isWord = false; break;
    }
    if (command == m_overrideCommand) {
        word = m_overrideValue;
        isWord = true;
    }
    if (isWord) {
        const uint16_t w = static_cast<uint16_t>(word);
        return withPec(command, {static_cast<uint8_t>(w & 0xFF), static_cast<uint8_t>(w >> 8)});
    }
    std::string text;
    switch (command) {
    case 0x20: text = m_config.manufacturer; break;
    case 0x21: text = m_config.device; break;
    case 0x22: text = m_config.chemistry; break;
    case 0x23: text = m_config.designData; break;
    default: return withPec(command, {0xFF, 0xFF});
    }
    std::vector<uint8_t> reply = {static_cast<uint8_t>(text.size())};
    reply.insert(reply.end(), text.begin(), text.end());
    return withPec(command, reply);
}

void Bq40z50Model::writeCommand(uint8_t command, const std::vector<uint8_t>& data) {
    if (command == 0x00 && data.size() >= 2) m_manufacturerAccess = static_cast<uint16_t>(data[0] | (data[1] << 8));
}

}  // namespace quarn::vboard

namespace quarn::vboard {

void installChargeControl(PciBoard& pci, PhysicalMemory& memory, std::shared_ptr<ChargeControlModel> control) {
    // A Xilinx-based board logic function of no standard class.
    auto function = std::make_shared<PciFunction>(0x10EE, 0x7012, 0xFF0000, 0, 0x00, 256);
    function->setBar(0, kChargeControlBar, 0x1000, 0);
    pci.add("0000:72:00.0", function);
    memory.addRegisterWindow(
        kChargeControlBar, 0x1000, [control](uint64_t offset, int width) { return control->read(offset, width); },
        [control](uint64_t offset, uint64_t value, int width) { control->write(offset, value, width); });
}

}  // namespace quarn::vboard
