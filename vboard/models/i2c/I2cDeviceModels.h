// Devices on the simulated I2C buses: a plain register file, SPD EEPROMs (DDR4 EE1004
// with its two pages, DDR3), a two-byte-addressed VPD EEPROM and the command-oriented
// SMBus device that sensors, PMBus supplies and battery gauges build on.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "vboard/VirtualClock.h"
#include "vboard/models/i2c/I2cBusModel.h"

namespace quarn::vboard {

// Observation logs of the models keep the most recent entries only, so a long run (the
// command-line tool, a fuzzer) does not grow without bound.
template <typename T>
void appendBounded(std::vector<T>& log, T entry, size_t limit = 4096) {
    if (log.size() >= limit) log.erase(log.begin(), log.begin() + static_cast<long>(limit / 2));
    log.push_back(std::move(entry));
}

// Byte registers behind an 8-bit pointer (24C02-like): the first byte of a write sets
// the pointer, later bytes are stored; reads continue from the pointer. The pointer wraps
// at the end of memory; with pageSize, writes wrap inside their page as an EEPROM's do.
class RegisterFileModel : public I2cTarget {
public:
    explicit RegisterFileModel(size_t size = 256, size_t pageSize = 0);
    std::vector<uint8_t>& bytes() { return m_bytes; }
    void load(const std::vector<uint8_t>& image);
    // Write-protected parts acknowledge the pointer but not the data.
    void setWriteProtected(bool on) { m_writeProtected = on; }

    bool start(uint8_t addr7, bool read) override;
    bool writeByte(uint8_t addr7, uint8_t value) override;
    uint8_t readByte(uint8_t addr7) override;

private:
    std::vector<uint8_t> m_bytes;
    size_t m_pageSize;
    size_t m_pointer = 0;
    bool m_pointerNext = false;
    bool m_writeProtected = false;
};

// A DDR4 SPD EEPROM (JEDEC EE1004-v): 512 bytes in two pages of 256, the page chosen by
// the SPA0/SPA1 commands at 7-bit addresses 0x36/0x37 (8-bit 0x6C/0x6E), which every
// EE1004 on the segment hears. Attach it at its own address and at 0x36 and 0x37 (see
// attachTo). RPA (a read at 0x36) is acknowledged only while page 0 is selected.
class Ddr4SpdModel : public I2cTarget {
public:
    static constexpr uint8_t kSpa0 = 0x36;
    static constexpr uint8_t kSpa1 = 0x37;
    static constexpr size_t kSize = 512;

    explicit Ddr4SpdModel(uint8_t addr7);
    void attachTo(I2cSegment& segment, std::shared_ptr<Ddr4SpdModel> self);
    std::vector<uint8_t>& bytes() { return m_bytes; }
    void load(const std::vector<uint8_t>& image);
    int page() const { return m_page; }
    // Page selections seen, in order (0 or 1).
    const std::vector<int>& pageSelects() const { return m_pageSelects; }
    void setWriteProtected(bool on) { m_writeProtected = on; }

    bool start(uint8_t addr7, bool read) override;
    bool writeByte(uint8_t addr7, uint8_t value) override;
    uint8_t readByte(uint8_t addr7) override;

private:
    uint8_t m_addr7;
    std::vector<uint8_t> m_bytes;
    int m_page = 0;
    uint8_t m_offset = 0;
    bool m_offsetNext = false;
    bool m_writeProtected = false;
    std::vector<int> m_pageSelects;
};

// A 24C64-class EEPROM: 8 KiB behind a two-byte address (13 bits used), 32-byte page
// writes that wrap inside their page, sequential reads that wrap at the end of memory.
// With a write-cycle time and a clock, the part ignores its address (NACK) until the
// internal write that follows each write STOP is over, as real parts do.
class VpdEepromModel : public I2cTarget {
public:
    static constexpr size_t kSize = 8192;
    static constexpr size_t kPageSize = 32;

    VpdEepromModel();
    std::vector<uint8_t>& bytes() { return m_bytes; }
    void setWriteCycle(VirtualClock* clock, uint64_t nanoseconds) {
        m_clock = clock;
        m_cycleNs = nanoseconds;
    }
    // Data bytes of each write, as (first address, length), in order.
    const std::vector<std::pair<uint16_t, uint16_t>>& pageWrites() const { return m_pageWrites; }

    bool start(uint8_t addr7, bool read) override;
    bool writeByte(uint8_t addr7, uint8_t value) override;
    uint8_t readByte(uint8_t addr7) override;
    void stop(uint8_t addr7) override;

private:
    std::vector<uint8_t> m_bytes;
    uint16_t m_address = 0;
    int m_addressBytes = 0;  // address bytes received in this write
    uint16_t m_written = 0;  // data bytes received in this write
    uint16_t m_firstAddress = 0;
    bool m_writing = false;
    VirtualClock* m_clock = nullptr;
    uint64_t m_cycleNs = 0;
    uint64_t m_busyUntil = 0;
    std::vector<std::pair<uint16_t, uint16_t>> m_pageWrites;
};

// An SMBus device addressed by command codes: a write is [command, data...], a read is a
// command write followed by a repeated START and the command's reply bytes (receive-byte
// without a command reads receiveByte()). Replies are byte strings, so byte, word (low
// byte first), and block (count byte first) commands are all set with setReply. Derived
// models override readCommand/writeCommand to compute replies and act on writes.
class SmbusDeviceModel : public I2cTarget {
public:
    void setReply(uint8_t command, std::vector<uint8_t> bytes) { m_replies[command] = std::move(bytes); }
    void setByte(uint8_t command, uint8_t value) { setReply(command, {value}); }
    void setWord(uint8_t command, uint16_t value) {
        setReply(command, {static_cast<uint8_t>(value & 0xFF), static_cast<uint8_t>(value >> 8)});
    }
    void setBlock(uint8_t command, const std::vector<uint8_t>& data);
    void setBlock(uint8_t command, const char* text);
    // Commands whose writes are refused (NACK of the first data byte).
    void setReadOnly(uint8_t command) { m_readOnly[command] = true; }
    std::vector<uint8_t> reply(uint8_t command) const;
    // Writes received, as [command, data...], in order.
    const std::vector<std::vector<uint8_t>>& writes() const { return m_writes; }

    bool start(uint8_t addr7, bool read) override;
    bool writeByte(uint8_t addr7, uint8_t value) override;
    uint8_t readByte(uint8_t addr7) override;
    void stop(uint8_t addr7) override;

protected:
    virtual std::vector<uint8_t> readCommand(uint8_t command) { return reply(command); }
    // A whole write, at its STOP: an SMBus write takes effect only when complete. The
    // default keeps the data as the command's new reply (a block write keeps its count).
    virtual void writeCommand(uint8_t command, const std::vector<uint8_t>& data);
    virtual uint8_t receiveByte() { return m_lastCommand; }

private:
    std::map<uint8_t, std::vector<uint8_t>> m_replies;
    std::map<uint8_t, bool> m_readOnly;
    std::vector<uint8_t> m_pending;  // bytes of the write in progress
    std::vector<uint8_t> m_out;      // reply being read
    size_t m_outAt = 0;
    uint8_t m_lastCommand = 0;
    bool m_writeUsedForRead = false;
    std::vector<std::vector<uint8_t>> m_writes;
};

// JEDEC SPD images with valid CRCs: a DDR4-2400 registered ECC DIMM (16 GiB, 2Rx4, 8 Gb
// parts) and a DDR3-1600 registered ECC DIMM. serial makes each module's image unique.
std::vector<uint8_t> makeDdr4RdimmSpd(uint32_t serial);
std::vector<uint8_t> makeDdr3RdimmSpd(uint32_t serial);
// The SPD CRC-16 (polynomial 0x1021, initial value 0) over bytes [0, count).
uint16_t spdCrc16(const uint8_t* bytes, size_t count);

}  // namespace quarn::vboard
