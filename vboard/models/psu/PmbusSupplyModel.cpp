// The board's PMBus power supply.
#include "vboard/models/psu/PmbusSupplyModel.h"

#include <algorithm>
#include <cmath>

namespace quarn::vboard {

namespace {
constexpr uint8_t kStatusEnterLoader = 0x01;
constexpr uint8_t kStatusEraseBusy = 0x04;
constexpr uint8_t kStatusError = 0x80;
constexpr int kEraseBusyReads = 2;
constexpr size_t kRevisionBytes = 16;
constexpr size_t kMaxBlockData = 28;
constexpr size_t kMaxImage = 1u << 20;
// VOUT_MODE: LINEAR16 with exponent -9.
constexpr uint8_t kVoutModeValue = 0x17;
constexpr double kVout = 12.05;
}  // namespace

uint16_t encodeLinear11(double value, int exponent) {
    long mantissa = std::lround(std::ldexp(value, -exponent));
    mantissa = std::max(-1024L, std::min(1023L, mantissa));
    return static_cast<uint16_t>(((exponent & 0x1F) << 11) | (mantissa & 0x7FF));
}

double decodeLinear11(uint16_t word) {
    int exponent = (word >> 11) & 0x1F;
    if (exponent & 0x10) exponent -= 32;
    int mantissa = word & 0x7FF;
    if (mantissa & 0x400) mantissa -= 2048;
    return std::ldexp(mantissa, exponent);
}

PmbusSupplyModel::PmbusSupplyModel(PmbusSupplyConfig config)
    : m_config(std::move(config)),
      m_firmware(m_config.firmware),
      m_temperature{m_config.temperature0, m_config.temperature1},
      m_fanCommand{6200, 5800} {
    setByte(0x00, 0x00);  // PAGE
    setByte(0x01, 0x80);  // OPERATION: on
    setByte(0x19, 0xB0);  // CAPABILITY: PEC, 400 kHz, SMBALERT#
    setByte(kVoutMode, kVoutModeValue);
    setWord(kStatusWord, 0x0000);
    setWord(0x88, encodeLinear11(230.0, -1));   // READ_VIN
    setWord(0x89, encodeLinear11(2.0, -6));     // READ_IIN
    setWord(kReadVout, static_cast<uint16_t>(std::lround(std::ldexp(kVout, 9))));
    setWord(0x8C, encodeLinear11(25.0, -3));    // READ_IOUT
    setWord(0x96, encodeLinear11(300.0, 0));    // READ_POUT
    setWord(kOtFaultLimit, encodeLinear11(85.0, -2));
    setWord(kUtFaultLimit, encodeLinear11(-10.0, -2));
    setWord(kMfrPoutMax, encodeLinear11(m_config.maxPowerW, 0));
    setByte(kPmbusRevision, 0x22);  // Part I and II revision 1.2
    setReply(kMfrId, identityBlock(m_config.vendor));
    setReply(kMfrSerial, identityBlock(m_config.serial));
    setBlock(0x9A, m_config.model.c_str());  // MFR_MODEL
    setBlock(0x9B, "S1F");                   // MFR_REVISION
    setReply(kPartNumber, identityBlock(m_config.part));
    const uint16_t erase = encodeLinear11(1500.0, 2);  // 1.5 s
    setBlock(kEraseTime, std::vector<uint8_t>{static_cast<uint8_t>(erase & 0xFF), static_cast<uint8_t>(erase >> 8),
                                              0, 0});
    std::vector<uint8_t> range;
    for (int rpm : {m_config.maxFanRpm0, m_config.maxFanRpm1}) {
        const uint16_t w = encodeLinear11(rpm, 5);
        range.push_back(static_cast<uint8_t>(w & 0xFF));
        range.push_back(static_cast<uint8_t>(w >> 8));
    }
    setBlock(kFanRange, range);
    for (uint8_t r : {uint8_t{kStatusWord}, uint8_t{0x88}, uint8_t{0x89}, uint8_t{kReadVout}, uint8_t{0x8C},
                      uint8_t{kReadTemperature1}, uint8_t{kReadTemperature2}, uint8_t{kReadFanSpeed1},
                      uint8_t{kReadFanSpeed2}, uint8_t{0x96}, uint8_t{kPmbusRevision}, uint8_t{kMfrId},
                      uint8_t{kMfrSerial}, uint8_t{kMfrPoutMax}, uint8_t{kFirmwareRevision}, uint8_t{kPartNumber},
                      uint8_t{kEraseTime}, uint8_t{kFanRange}})
        setReadOnly(r);
}

// Identity fields: a 3-byte field header (format 1, field type, length), then the text
// zero-padded to 13 bytes.
std::vector<uint8_t> PmbusSupplyModel::identityBlock(const std::string& text) const {
    std::vector<uint8_t> block = {0x01, 0x00, static_cast<uint8_t>(std::min<size_t>(text.size(), 13))};
    for (size_t i = 0; i < 13; ++i) block.push_back(i < text.size() ? static_cast<uint8_t>(text[i]) : 0);
    std::vector<uint8_t> reply = {static_cast<uint8_t>(block.size())};
    reply.insert(reply.end(), block.begin(), block.end());
    return reply;
}

int PmbusSupplyModel::fanRpm(int fan) const {
    const int f = fan ? 1 : 0;
    const int max = f ? m_config.maxFanRpm1 : m_config.maxFanRpm0;
    return std::max(0, std::min(max, m_fanCommand[f]));
}

void PmbusSupplyModel::setTemperature(int sensor, double celsius) { m_temperature[sensor ? 1 : 0] = celsius; }

std::vector<uint8_t> PmbusSupplyModel::makeFirmwareBody(const std::string& revision, size_t fillerBytes) {
    std::vector<uint8_t> body(kRevisionBytes, 0);
    for (size_t i = 0; i < revision.size() && i < kRevisionBytes - 1; ++i) body[i] = static_cast<uint8_t>(revision[i]);
    for (size_t i = 0; i < fillerBytes; ++i) body.push_back(static_cast<uint8_t>(i * 7 + 3));
    unsigned sum = 0;
    for (uint8_t b : body) sum += b;
    body.push_back(static_cast<uint8_t>(sum & 0xFF));
    body.push_back(static_cast<uint8_t>((sum >> 8) & 0xFF));
    return body;
}

bool PmbusSupplyModel::start(uint8_t addr7, bool read) {
    if (!read) {
        m_bytes = 0;
        m_command = 0;
    }
    return SmbusDeviceModel::start(addr7, read);
}

bool PmbusSupplyModel::writeByte(uint8_t addr7, uint8_t value) {
    if (m_bytes == 0) m_command = value;
    ++m_bytes;
    // A data block refused by the faulty supply: its first data byte is not acknowledged.
    if (m_bytes == 2 && m_command == kLoaderData && m_nackFrom >= 0 && m_dataBlocks >= m_nackFrom) return false;
    if (m_bytes == 2 && m_command == kLoaderData) ++m_dataBlocks;
    return SmbusDeviceModel::writeByte(addr7, value);
}

std::vector<uint8_t> PmbusSupplyModel::readCommand(uint8_t command) {
    auto word = [](uint16_t w) { return std::vector<uint8_t>{static_cast<uint8_t>(w & 0xFF), static_cast<uint8_t>(w >> 8)}; };
    switch (command) {
    case kReadTemperature1:
    case kReadTemperature2:
        return word(encodeLinear11(m_temperature[command - kReadTemperature1], -2));
    case kReadFanSpeed1:
    case kReadFanSpeed2:
        return word(encodeLinear11(fanRpm(command - kReadFanSpeed1), 5));
    case kLedControl:
        return word(m_leds);
    case kLoaderStatus:
        if (m_status & kStatusEraseBusy) {
            if (!m_eraseStuck && ++m_eraseReads >= kEraseBusyReads) {
                m_status = static_cast<uint8_t>(m_status & ~kStatusEraseBusy);
                m_erased = true;
            }
            return {static_cast<uint8_t>(m_status | kStatusEraseBusy)};
        }
        return {m_status};
    case kFirmwareRevision: {
        std::vector<uint8_t> text(m_firmware.begin(), m_firmware.end());
        text.resize(16, 0);
        std::vector<uint8_t> reply = {16};
        reply.insert(reply.end(), text.begin(), text.end());
        return reply;
    }
    default:
        return SmbusDeviceModel::readCommand(command);
    }
}

void PmbusSupplyModel::writeCommand(uint8_t command, const std::vector<uint8_t>& data) {
    auto wordOf = [&data]() { return static_cast<uint16_t>(data[0] | (data.size() > 1 ? data[1] << 8 : 0)); };
    switch (command) {
    case kFanCommand1:
    case kFanCommand2:
        if (data.size() != 2) return;
        m_fanCommand[command - kFanCommand1] = static_cast<int>(decodeLinear11(wordOf()));
        setWord(command, wordOf());
        return;
    case kLedControl:
        if (data.size() == 2) m_leds = wordOf();
        return;
    case kLoaderStatus: {
        const uint8_t v = data[0];
        if (v == kStatusEnterLoader) {
            m_loader = true;
            m_erased = false;
            m_failed = false;
            m_status = 0;
            m_image.clear();
            m_blocks.clear();
            m_dataBlocks = 0;
        } else if (v == (kStatusEnterLoader | kStatusEraseBusy) && m_loader) {
            m_status = kStatusEraseBusy;
            m_eraseReads = 0;
        } else if (v == 0x00 && m_loader) {
            // Start the received image: only a whole one with a good sum.
            bool good = m_erased && !m_failed && m_image.size() >= kRevisionBytes + 2;
            if (good) {
                unsigned sum = 0;
                for (size_t i = 0; i + 2 < m_image.size(); ++i) sum += m_image[i];
                const unsigned stored = m_image[m_image.size() - 2] | (m_image[m_image.size() - 1] << 8);
                good = (sum & 0xFFFF) == stored;
            }
            if (good) {
                m_firmware.assign(m_image.begin(), m_image.begin() + kRevisionBytes);
                m_firmware.resize(m_firmware.find('\0') == std::string::npos ? m_firmware.size()
                                                                              : m_firmware.find('\0'));
                m_status = 0;
            } else {
                m_status = kStatusError;
            }
            m_loader = false;
        }
        return;
    }
    case kLoaderData: {
        // [count, offset (4, little endian), data...]
        if (!m_loader || !m_erased || data.size() < 5 || data[0] != data.size() - 1) {
            m_status |= kStatusError;
            m_failed = true;
            return;
        }
        const uint32_t offset = data[1] | (data[2] << 8) | (data[3] << 16) | (static_cast<uint32_t>(data[4]) << 24);
        const size_t length = data.size() - 5;
        if (offset != m_image.size() || length > kMaxBlockData || offset + length > kMaxImage ||
            static_cast<long>(offset) == m_badOffset) {
            m_status |= kStatusError;
            m_failed = true;
            return;
        }
        m_image.insert(m_image.end(), data.begin() + 5, data.end());
        m_blocks.emplace_back(offset, static_cast<uint32_t>(length));
        return;
    }
    case kOtFaultLimit:
    case kUtFaultLimit:
        if (data.size() == 2) setWord(command, wordOf());
        return;
    default:
        SmbusDeviceModel::writeCommand(command, data);
    }
}

}  // namespace quarn::vboard
