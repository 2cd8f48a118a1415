// The board firmware's SMBIOS memory description (types 16, 17 and 19) as dmidecode reads
// it, and the board tools of the DIMM inventory: dmidecode and decode-dimms (the real
// programs, run on the board's files), uname and the memory-controller description.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace quarn::vboard {

class VirtualBoard;

// One SMBIOS type 17 Memory Device; sizeMiB 0 is a slot the firmware reports empty.
struct SmbiosMemoryDevice {
    std::string locator;      // "DIMM_A0"
    std::string bankLocator;  // "NODE 0 CHANNEL 0 DIMM 0"
    uint32_t sizeMiB = 0;
    uint8_t memoryType = 0x1A;       // 0x18 DDR3, 0x1A DDR4
    uint16_t typeDetail = 0x2080;    // synchronous, registered (buffered)
    uint16_t speed = 0;              // MT/s
    uint16_t configuredSpeed = 0;    // MT/s
    std::string manufacturer;
    std::string serial;
    std::string part;
    uint8_t ranks = 0;
    uint16_t millivolts = 1200;
};

// What the firmware fills in from a DIMM's SPD image (DDR3 or DDR4), as a BIOS does
// during memory training. configuredSpeed is what the controller runs the channel at.
SmbiosMemoryDevice memoryDeviceFromSpd(const std::vector<uint8_t>& spd, const std::string& locator,
                                       const std::string& bankLocator, uint16_t configuredSpeed);

// An SMBIOS 3.0 dump as "dmidecode --dump-bin" writes it: the 64-bit entry point at 0
// with the structure table address rewritten to 0x20, the table from 0x20 on.
std::string buildSmbiosDump(const std::vector<SmbiosMemoryDevice>& devices);

class SmbiosFirmware {
public:
    static constexpr const char* kDumpPath = "/var/lib/vboard/smbios.bin";
    static constexpr const char* kMcInfoPath = "/opt/veltrax/quarn/etc/mc_info";

    // Writes the dump and mc_info and registers "dmidecode", "decode-dimms" and "uname".
    SmbiosFirmware(VirtualBoard& board, std::vector<SmbiosMemoryDevice> devices);

    std::vector<SmbiosMemoryDevice>& devices() { return m_devices; }
    // Rewrites the dump after devices() changed (a DIMM mapped out by the firmware).
    void update();
    // The argument vectors the board tools were started with, in order.
    const std::vector<std::vector<std::string>>& calls() const { return m_calls; }

private:
    VirtualBoard& m_board;
    std::vector<SmbiosMemoryDevice> m_devices;
    std::vector<std::vector<std::string>> m_calls;
};

// The board's firmware view of its four DIMMs (two channels of two slots), built from
// the SPD images on the I2C buses; the channels run at DDR4-2133 with two DIMMs each.
struct I2cBoard;
std::unique_ptr<SmbiosFirmware> installBoardFirmware(VirtualBoard& board, I2cBoard& i2c);

}  // namespace quarn::vboard
