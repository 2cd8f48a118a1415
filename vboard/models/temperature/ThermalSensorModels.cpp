// Temperature sensors on the board's I2C buses.
#include "vboard/models/temperature/ThermalSensorModels.h"

#include <algorithm>
#include <cmath>

namespace quarn::vboard {

namespace {
uint8_t wholeDegrees(double celsius) {
    const long v = std::lround(std::floor(celsius));
    return static_cast<uint8_t>(static_cast<int8_t>(std::max(-128L, std::min(127L, v))));
}
uint8_t eighths(double celsius) {
    const double f = celsius - std::floor(celsius);
    return static_cast<uint8_t>((static_cast<int>(f * 8) & 7) << 5);
}
constexpr uint8_t kStatusOpen = 0x04;
constexpr uint8_t kStatusLocalHigh = 0x40;
constexpr uint8_t kStatusLocalLow = 0x20;
}  // namespace

Max6657Model::Max6657Model(double local, double remote, bool max6659)
    : m_local(local), m_remote(remote), m_max6659(max6659) {}

bool Max6657Model::start(uint8_t addr7, bool read) {
    if (!read) m_bytes = 0;
    return SmbusDeviceModel::start(addr7, read);
}

bool Max6657Model::writeByte(uint8_t addr7, uint8_t value) {
    if (m_bytes == 0) m_command = value;
    ++m_bytes;
    if (m_bytes == 2) {
        const bool writable = (m_command >= 0x09 && m_command <= 0x0E) || m_command == 0x0F;
        if (!writable) return false;
        if (m_limitsLocked && m_command >= 0x0B && m_command <= 0x0E) return false;
    }
    return SmbusDeviceModel::writeByte(addr7, value);
}

std::vector<uint8_t> Max6657Model::readCommand(uint8_t command) {
    switch (command) {
    case 0x00: return {wholeDegrees(m_local)};
    case 0x01: return {m_remoteOpen ? uint8_t{0x7F} : wholeDegrees(m_remote)};
    case 0x02: {
        uint8_t s = 0;
        if (m_remoteOpen) s |= kStatusOpen;
        if (m_local > m_limit[0]) s |= kStatusLocalHigh;
        if (m_local < m_limit[1]) s |= kStatusLocalLow;
        return {s};
    }
    case 0x03: return {m_config};
    case 0x04: return {m_rate};
    case 0x05:
    case 0x06:
    case 0x07:
    case 0x08: return {static_cast<uint8_t>(static_cast<int8_t>(m_limit[command - 0x05]))};
    case 0x10: return {m_remoteOpen ? uint8_t{0} : eighths(m_remote)};
    case 0x11: return {eighths(m_local)};
    case 0xFE: return {0x4D};  // Maxim
    case 0xFF: return {static_cast<uint8_t>(m_max6659 ? 0x09 : 0x08)};
    default: return {0xFF};
    }
}

void Max6657Model::writeCommand(uint8_t command, const std::vector<uint8_t>& data) {
    const uint8_t v = data[0];
    switch (command) {
    case 0x09: m_config = v; break;
    case 0x0A: m_rate = v; break;
    case 0x0B:
    case 0x0C:
    case 0x0D:
    case 0x0E: m_limit[command - 0x0B] = static_cast<int8_t>(v); break;
    default: break;
    }
}

Tse2004Model::Tse2004Model(double celsius) : m_celsius(celsius) {
    for (uint8_t r : {0x00, 0x05, 0x06, 0x07}) setReadOnly(r);
}

uint16_t Tse2004Model::encode(double celsius, double unit) {
    long steps = std::lround(std::floor(celsius / unit));
    const long perDegree = std::lround(1.0 / unit);
    steps = std::max(-256L * perDegree, std::min(255L * perDegree, steps));
    // In 1/16 degree, 13-bit two's complement.
    const long sixteenths = steps * std::lround(16 * unit);
    return static_cast<uint16_t>(sixteenths & 0x1FFF);
}

std::vector<uint8_t> Tse2004Model::readCommand(uint8_t command) {
    auto be = [](uint16_t v) { return std::vector<uint8_t>{static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v & 0xFF)}; };
    auto signedOf = [](uint16_t r) { return (r & 0x1000) ? static_cast<int>(r & 0x1FFF) - 0x2000 : static_cast<int>(r & 0x1FFF); };
    switch (command) {
    case 0x00: return be(0x00EF);  // capabilities: 0.25 C resolution, event, range
    case 0x01: return be(m_config);
    case 0x02: return be(m_high);
    case 0x03: return be(m_low);
    case 0x04: return be(m_critical);
    case 0x05: {
        const uint16_t raw = m_useRaw ? m_raw : encode(m_celsius, 0.0625);
        const int t = signedOf(raw);
        uint16_t flags = 0;
        if (t >= signedOf(m_critical)) flags |= 0x8000;
        if (t > signedOf(m_high)) flags |= 0x4000;
        if (t < signedOf(m_low)) flags |= 0x2000;
        return be(static_cast<uint16_t>(flags | raw));
    }
    case 0x06: return be(0x0054);  // manufacturer (JEDEC id)
    case 0x07: return be(0x2201);  // device, revision
    default: return be(0x0000);
    }
}

void Tse2004Model::writeCommand(uint8_t command, const std::vector<uint8_t>& data) {
    if (data.size() != 2) return;
    const uint16_t v = static_cast<uint16_t>((data[0] << 8) | data[1]) & 0x1FFC;
    switch (command) {
    case 0x01: m_config = static_cast<uint16_t>((data[0] << 8) | data[1]); break;
    case 0x02: m_high = v; break;
    case 0x03: m_low = v; break;
    case 0x04: m_critical = v; break;
    default: break;
    }
}

}  // namespace quarn::vboard
