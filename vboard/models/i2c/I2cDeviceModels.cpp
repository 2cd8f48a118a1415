// Devices on the simulated I2C buses: register file, SPD and VPD EEPROMs, SMBus devices.
#include "vboard/models/i2c/I2cDeviceModels.h"

#include <algorithm>
#include <cstring>

namespace quarn::vboard {

RegisterFileModel::RegisterFileModel(size_t size, size_t pageSize)
    : m_bytes(std::max<size_t>(size, 1), 0xFF), m_pageSize(pageSize) {}

void RegisterFileModel::load(const std::vector<uint8_t>& image) {
    std::copy_n(image.begin(), std::min(image.size(), m_bytes.size()), m_bytes.begin());
}

bool RegisterFileModel::start(uint8_t, bool read) {
    if (!read) m_pointerNext = true;
    return true;
}

bool RegisterFileModel::writeByte(uint8_t, uint8_t value) {
    if (m_pointerNext) {
        m_pointer = value % m_bytes.size();
        m_pointerNext = false;
        return true;
    }
    if (m_writeProtected) return false;
    m_bytes[m_pointer] = value;
    if (m_pageSize) {
        const size_t base = m_pointer - m_pointer % m_pageSize;
        m_pointer = base + (m_pointer + 1) % m_pageSize;
    } else {
        m_pointer = (m_pointer + 1) % m_bytes.size();
    }
    return true;
}

uint8_t RegisterFileModel::readByte(uint8_t) {
    const uint8_t v = m_bytes[m_pointer];
    m_pointer = (m_pointer + 1) % m_bytes.size();
    return v;
}

Ddr4SpdModel::Ddr4SpdModel(uint8_t addr7) : m_addr7(addr7), m_bytes(kSize, 0xFF) {}

void Ddr4SpdModel::attachTo(I2cSegment& segment, std::shared_ptr<Ddr4SpdModel> self) {
    segment.attach(m_addr7, self);
    segment.attach(kSpa0, self);
    segment.attach(kSpa1, self);
}

void Ddr4SpdModel::load(const std::vector<uint8_t>& image) {
    std::copy_n(image.begin(), std::min(image.size(), m_bytes.size()), m_bytes.begin());
}

bool Ddr4SpdModel::start(uint8_t addr7, bool read) {
    if (addr7 == kSpa0 || addr7 == kSpa1) {
        const int page = addr7 == kSpa0 ? 0 : 1;
        if (!read) {
            m_page = page;
            appendBounded(m_pageSelects, page);
            return true;
        }
        // RPA answers at 0x36 only, with ACK for page 0 and NACK for page 1.
        return addr7 == kSpa0 && m_page == 0;
    }
    if (!read) m_offsetNext = true;
    return true;
}

bool Ddr4SpdModel::writeByte(uint8_t addr7, uint8_t value) {
    if (addr7 != m_addr7) return true;  // the page commands' don't-care bytes
    if (m_offsetNext) {
        m_offset = value;
        m_offsetNext = false;
        return true;
    }
    if (m_writeProtected) return false;
    m_bytes[static_cast<size_t>(m_page) * 256 + m_offset] = value;
    // 16-byte write pages.
    m_offset = static_cast<uint8_t>((m_offset & 0xF0) | ((m_offset + 1) & 0x0F));
    return true;
}

uint8_t Ddr4SpdModel::readByte(uint8_t addr7) {
    if (addr7 != m_addr7) return 0xFF;
    const uint8_t v = m_bytes[static_cast<size_t>(m_page) * 256 + m_offset];
    m_offset = static_cast<uint8_t>(m_offset + 1);
    return v;
}

VpdEepromModel::VpdEepromModel() : m_bytes(kSize, 0xFF) {}

bool VpdEepromModel::start(uint8_t, bool read) {
    if (m_clock && m_clock->nowNs() < m_busyUntil) return false;
    if (!read) {
        m_addressBytes = 0;
        m_written = 0;
        m_writing = true;
    }
    return true;
}

bool VpdEepromModel::writeByte(uint8_t, uint8_t value) {
    if (m_addressBytes == 0) {
        m_address = static_cast<uint16_t>((value & 0x1F) << 8);
        ++m_addressBytes;
        return true;
    }
    if (m_addressBytes == 1) {
        m_address = static_cast<uint16_t>(m_address | value);
        m_firstAddress = m_address;
        ++m_addressBytes;
        return true;
    }
    // Past the end of its page the address counter wraps to the page's start.
    const uint16_t base = static_cast<uint16_t>(m_firstAddress & ~(kPageSize - 1));
    const uint16_t at = static_cast<uint16_t>(base + ((m_firstAddress + m_written) % kPageSize));
    m_bytes[at] = value;
    ++m_written;
    return true;
}

uint8_t VpdEepromModel::readByte(uint8_t) {
    const uint8_t v = m_bytes[m_address];
    m_address = static_cast<uint16_t>((m_address + 1) % kSize);
    return v;
}

void VpdEepromModel::stop(uint8_t) {
    if (m_writing && m_written > 0) {
        appendBounded(m_pageWrites, std::make_pair(m_firstAddress, m_written));
        if (m_clock) m_busyUntil = m_clock->nowNs() + m_cycleNs;
    }
    m_writing = false;
}

void SmbusDeviceModel::setBlock(uint8_t command, const std::vector<uint8_t>& data) {
    std::vector<uint8_t> reply;
    reply.push_back(static_cast<uint8_t>(data.size()));
    reply.insert(reply.end(), data.begin(), data.end());
    setReply(command, reply);
}

void SmbusDeviceModel::setBlock(uint8_t command, const char* text) {
    setBlock(command, std::vector<uint8_t>(text, text + strlen(text)));
}

std::vector<uint8_t> SmbusDeviceModel::reply(uint8_t command) const {
    auto it = m_replies.find(command);
    return it == m_replies.end() ? std::vector<uint8_t>() : it->second;
}

bool SmbusDeviceModel::start(uint8_t, bool read) {
    if (!read) {
        m_pending.clear();
        m_writeUsedForRead = false;
        return true;
    }
    if (!m_pending.empty()) {
        m_lastCommand = m_pending[0];
        m_writeUsedForRead = true;
        m_out = readCommand(m_lastCommand);
    } else {
        m_out = {receiveByte()};
    }
    m_outAt = 0;
    return true;
}

bool SmbusDeviceModel::writeByte(uint8_t, uint8_t value) {
    if (m_pending.size() == 1) {
        auto it = m_readOnly.find(m_pending[0]);
        if (it != m_readOnly.end() && it->second) return false;
    }
    m_pending.push_back(value);
    return true;
}

uint8_t SmbusDeviceModel::readByte(uint8_t) { return m_outAt < m_out.size() ? m_out[m_outAt++] : 0xFF; }

void SmbusDeviceModel::stop(uint8_t) {
    if (!m_pending.empty() && !m_writeUsedForRead) {
        m_lastCommand = m_pending[0];
        appendBounded(m_writes, m_pending);
        if (m_pending.size() > 1)
            writeCommand(m_pending[0], std::vector<uint8_t>(m_pending.begin() + 1, m_pending.end()));
    }
    m_pending.clear();
    m_writeUsedForRead = false;
}

void SmbusDeviceModel::writeCommand(uint8_t command, const std::vector<uint8_t>& data) {
    setReply(command, data);
}

uint16_t spdCrc16(const uint8_t* bytes, size_t count) {
    unsigned int crc = 0;
    for (size_t i = 0; i < count; ++i) {
        crc ^= static_cast<unsigned int>(bytes[i]) << 8;
        for (int b = 0; b < 8; ++b) crc = (crc & 0x8000) ? (crc << 1) ^ 0x1021 : crc << 1;
    }
    return static_cast<uint16_t>(crc & 0xFFFF);
}

namespace {
void putText(std::vector<uint8_t>& image, size_t at, const char* text, size_t width) {
    const size_t n = strlen(text);
    for (size_t i = 0; i < width; ++i) image[at + i] = i < n ? static_cast<uint8_t>(text[i]) : 0x20;
}

void putSerial(std::vector<uint8_t>& image, size_t at, uint32_t serial) {
    for (int i = 0; i < 4; ++i) image[at + i] = static_cast<uint8_t>(serial >> (24 - 8 * i));
}
}  // namespace

std::vector<uint8_t> makeDdr4RdimmSpd(uint32_t serial) {
    std::vector<uint8_t> s(512, 0x00);
    // Base configuration (block 0).
    const uint8_t base[] = {
        0x23,  // 0: 384 bytes used, 512 total
        0x11,  // 1: SPD revision 1.1
        0x0C,  // 2: DDR4 SDRAM
        0x01,  // 3: RDIMM
        0x45,  // 4: 8 Gb per die, 4 bank groups of 4 banks
        0x29,  // 5: 17 row, 10 column address bits
        0x00,  // 6: monolithic package
        0x08,  // 7: tMAW 8192 x tREFI, unlimited MAC
        0x00,  // 8
        0x60,  // 9: post-package repair, soft PPR
        0x00,  // 10
        0x03,  // 11: 1.2 V operable and endurant
        0x08,  // 12: 2 package ranks, x4 devices
        0x0B,  // 13: 64-bit bus with 8-bit ECC
        0x80,  // 14: thermal sensor present
        0x00, 0x00,
        0x00,  // 17: MTB 125 ps, FTB 1 ps
        0x07,  // 18: tCKAVGmin 0.833 ns (DDR4-2400), with fine offset at 125
        0x0D,  // 19: tCKAVGmax 1.6 ns
        0xF8, 0x3F, 0x00, 0x00,  // 20-23: CL 10-20 supported
        0x6B,  // 24: tAAmin 13.32 ns
        0x6B,  // 25: tRCDmin
        0x6B,  // 26: tRPmin
        0x11,  // 27: tRAS/tRC upper nibbles
        0x00,  // 28: tRASmin 32 ns
        0x6B,  // 29: tRCmin 45.32 ns
        0xF0, 0x0A,  // 30-31: tRFC1min 350 ns
        0x20, 0x08,  // 32-33: tRFC2min 260 ns
        0x00, 0x05,  // 34-35: tRFC4min 160 ns
        0x00, 0xA8,  // 36-37: tFAWmin 21 ns
        0x1B,  // 38: tRRD_Smin 3.3 ns
        0x28,  // 39: tRRD_Lmin 4.9 ns
        0x28,  // 40: tCCD_Lmin 5 ns
        0x00, 0x78,  // 41-42: tWRmin 15 ns
        0x00, 0x14, 0x3C,  // 43-45: tWTR_Smin 2.5 ns, tWTR_Lmin 7.5 ns
    };
    memcpy(s.data(), base, sizeof(base));
    // 60-77: connector-to-SDRAM bit mapping.
    const uint8_t mapping[] = {0x0C, 0x2C, 0x0C, 0x2C, 0x0C, 0x2C, 0x0C, 0x2C, 0x0C,
                               0x2C, 0x0C, 0x2C, 0x0C, 0x2C, 0x0C, 0x2C, 0x0C, 0x2C};
    memcpy(s.data() + 60, mapping, sizeof(mapping));
    // 117-125: fine offsets (two's complement, in ps).
    const uint8_t fine[] = {0x00, 0x9C, 0xB5, 0xC9, 0xC9, 0xC9, 0xC9, 0xE7, 0xD6};
    memcpy(s.data() + 117, fine, sizeof(fine));
    uint16_t crc = spdCrc16(s.data(), 126);
    s[126] = static_cast<uint8_t>(crc & 0xFF);
    s[127] = static_cast<uint8_t>(crc >> 8);

    // Module-specific section (block 1) for a registered module.
    s[128] = 0x11;  // nominal height 31 mm
    s[129] = 0x11;  // maximum thickness 1-2 mm front and back
    s[130] = 0x23;  // reference raw card D
    s[131] = 0x11;  // 1 register, 1 row of DRAMs
    s[132] = 0x00;  // no heat spreader
    s[133] = 0x80;  // register manufacturer (JEDEC bank 1, IDT)
    s[134] = 0xB3;
    s[135] = 0x31;  // register revision
    s[136] = 0x00;  // standard rank 1 mapping
    s[137] = 0x05;  // register output drive strengths
    s[138] = 0x00;
    crc = spdCrc16(s.data() + 128, 126);
    s[254] = static_cast<uint8_t>(crc & 0xFF);
    s[255] = static_cast<uint8_t>(crc >> 8);

    // Manufacturing information (block 2, no CRC).
    s[320] = 0x80;  // module manufacturer: Samsung (bank 1, 0xCE)
    s[321] = 0xCE;
    s[322] = 0x01;  // location
    s[323] = 0x18;  // year 2018 (BCD)
    s[324] = 0x24;  // week 24 (BCD)
    putSerial(s, 325, serial);
    putText(s, 329, "M393A2K40BB2-CTD", 20);
    s[349] = 0x00;  // revision
    s[350] = 0x80;  // DRAM manufacturer: Samsung
    s[351] = 0xCE;
    s[352] = 0x00;  // DRAM stepping
    return s;
}

std::vector<uint8_t> makeDdr3RdimmSpd(uint32_t serial) {
    std::vector<uint8_t> s(256, 0x00);
    const uint8_t base[] = {
        0x92,  // 0: CRC over 0-116, 176 bytes used, 256 total
        0x13,  // 1: SPD revision 1.3
        0x0B,  // 2: DDR3 SDRAM
        0x01,  // 3: RDIMM
        0x04,  // 4: 4 Gb per die, 8 banks
        0x19,  // 5: 15 row, 10 column address bits
        0x00,  // 6: 1.5 V
        0x09,  // 7: 2 ranks, x8 devices
        0x0B,  // 8: 64-bit bus with 8-bit ECC
        0x11,  // 9: FTB 1 ps
        0x01, 0x08,  // 10-11: MTB 1/8 ns
        0x0A,  // 12: tCKmin 1.25 ns (DDR3-1600)
        0x00,
        0xFE, 0x00,  // 14-15: CL 5-11
        0x69,  // 16: tAAmin 13.125 ns
        0x78,  // 17: tWRmin 15 ns
        0x69,  // 18: tRCDmin
        0x30,  // 19: tRRDmin 6 ns
        0x69,  // 20: tRPmin
        0x11,  // 21: tRAS/tRC upper nibbles
        0x18,  // 22: tRASmin 35 ns
        0x81,  // 23: tRCmin 48.125 ns
        0x20, 0x08,  // 24-25: tRFCmin 260 ns
        0x3C,  // 26: tWTRmin 7.5 ns
        0x3C,  // 27: tRTPmin 7.5 ns
        0x00, 0xF0,  // 28-29: tFAWmin 30 ns
        0x83,  // 30: RZQ/6, RZQ/7, DLL-off
        0x05,  // 31: ASR, extended temperature range
        0x80,  // 32: thermal sensor present
    };
    memcpy(s.data(), base, sizeof(base));
    s[60] = 0x11;  // module height 30 mm
    s[61] = 0x11;
    s[62] = 0x0B;  // raw card B
    s[63] = 0x05;  // 1 register, 2 rows
    s[65] = 0x80;  // register manufacturer
    s[66] = 0xB3;
    s[117] = 0x80;  // module manufacturer: Samsung
    s[118] = 0xCE;
    s[119] = 0x01;
    s[120] = 0x15;  // 2015 (BCD)
    s[121] = 0x10;  // week 10
    putSerial(s, 122, serial);
    const uint16_t crc = spdCrc16(s.data(), 117);
    s[126] = static_cast<uint8_t>(crc & 0xFF);
    s[127] = static_cast<uint8_t>(crc >> 8);
    putText(s, 128, "M393B5173QH0-CK0", 18);
    s[146] = 0x00;
    s[147] = 0x00;
    s[148] = 0x80;  // DRAM manufacturer
    s[149] = 0xCE;
    return s;
}

}  // namespace quarn::vboard
