// A PMBus power supply as the board fits it: standard commands with LINEAR11 readings
// and LINEAR16 output voltage, fans that follow FAN_COMMAND, temperature fault limits,
// an LED register, identity blocks and a firmware loader that really replaces the
// running firmware revision.
//
// Loader protocol (manufacturer registers): status 0xF2 (write 0x01: enter the loader;
// 0x05: erase, bit 0x04 reads set while erasing; 0x00: leave the loader and start the
// received image; bit 0x80: error), data 0xF5 (block: 32-bit little-endian offset, then
// at most 28 data bytes, in order), erase time 0xF6 (LINEAR11 milliseconds). A firmware
// body starts with its 16-byte zero-padded revision text and ends with a 16-bit
// little-endian sum of every byte before it; a body that fails the sum, or was not
// received whole and in order, is not started: the old firmware keeps running.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vboard/models/i2c/I2cDeviceModels.h"

namespace quarn::vboard {

struct PmbusSupplyConfig {
    std::string vendor = "DELTA";
    std::string model = "DPS-550AB-40 A";
    std::string part = "DPS-550AB-40";
    std::string serial = "DPS1A2B3C4";
    std::string firmware = "S1F 1.04";
    double temperature0 = 33.0;  // inlet, degrees C
    double temperature1 = 41.5;  // hot spot
    int maxFanRpm0 = 18000;
    int maxFanRpm1 = 16000;
    int maxPowerW = 550;
};

// LINEAR11 with the given exponent (the supply's own reporting resolution).
uint16_t encodeLinear11(double value, int exponent);
double decodeLinear11(uint16_t word);

class PmbusSupplyModel : public SmbusDeviceModel {
public:
    static constexpr uint8_t kVoutMode = 0x20;
    static constexpr uint8_t kFanCommand1 = 0x3B;
    static constexpr uint8_t kFanCommand2 = 0x3C;
    static constexpr uint8_t kOtFaultLimit = 0x4F;
    static constexpr uint8_t kUtFaultLimit = 0x53;
    static constexpr uint8_t kStatusWord = 0x79;
    static constexpr uint8_t kReadVout = 0x8B;
    static constexpr uint8_t kReadTemperature1 = 0x8D;
    static constexpr uint8_t kReadTemperature2 = 0x8E;
    static constexpr uint8_t kReadFanSpeed1 = 0x90;
    static constexpr uint8_t kReadFanSpeed2 = 0x91;
    static constexpr uint8_t kPmbusRevision = 0x98;
    static constexpr uint8_t kMfrId = 0x99;
    static constexpr uint8_t kMfrSerial = 0x9E;
    static constexpr uint8_t kMfrPoutMax = 0xA7;
    static constexpr uint8_t kFirmwareRevision = 0xD5;
    static constexpr uint8_t kPartNumber = 0xEE;
    static constexpr uint8_t kLedControl = 0xF1;
    static constexpr uint8_t kLoaderStatus = 0xF2;
    static constexpr uint8_t kLoaderData = 0xF5;
    static constexpr uint8_t kEraseTime = 0xF6;
    static constexpr uint8_t kFanRange = 0xF8;

    explicit PmbusSupplyModel(PmbusSupplyConfig config = {});

    // State seen by tests.
    const std::string& firmware() const { return m_firmware; }
    bool inLoader() const { return m_loader; }
    int fanRpm(int fan) const;
    uint16_t ledRegister() const { return m_leds; }
    void setLedRegister(uint16_t v) { m_leds = v; }
    void setTemperature(int sensor, double celsius);
    void setRevision(uint8_t revision) { setByte(kPmbusRevision, revision); }
    // Builds a firmware body the loader accepts (revision text, filler, sum).
    static std::vector<uint8_t> makeFirmwareBody(const std::string& revision, size_t fillerBytes);
    // Blocks written to 0xF5 and accepted, in order (offset, length).
    const std::vector<std::pair<uint32_t, uint32_t>>& blocks() const { return m_blocks; }

    // Faults: from the nth data block on (0 = the first), every write of 0xF5 is not
    // acknowledged; -1 turns it off.
    void setNackDataFrom(int block) { m_nackFrom = block; }
    // The block at this offset is flagged bad in the status register (bit 0x80).
    void setBadBlockAt(long offset) { m_badOffset = offset; }
    // The erase never ends (status bit 0x04 stays set).
    void setEraseStuck(bool on) { m_eraseStuck = on; }

    bool start(uint8_t addr7, bool read) override;
    bool writeByte(uint8_t addr7, uint8_t value) override;

protected:
    std::vector<uint8_t> readCommand(uint8_t command) override;
    void writeCommand(uint8_t command, const std::vector<uint8_t>& data) override;

private:
    std::vector<uint8_t> identityBlock(const std::string& text) const;

    PmbusSupplyConfig m_config;
    std::string m_firmware;
    double m_temperature[2];
    int m_fanCommand[2];
    uint16_t m_leds = 0xFFFF & ~0x0002;  // every LED off but "ready to run"
    uint8_t m_status = 0;
    bool m_loader = false;
    bool m_erased = false;
    int m_eraseReads = 0;
    bool m_failed = false;
    std::vector<uint8_t> m_image;
    std::vector<std::pair<uint32_t, uint32_t>> m_blocks;
    int m_dataBlocks = 0;  // 0xF5 writes started in this loader session
    int m_nackFrom = -1;
    long m_badOffset = -1;
    bool m_eraseStuck = false;
    // The write in progress: its command and how many bytes came.
    uint8_t m_command = 0;
    int m_bytes = 0;
};

}  // namespace quarn::vboard
