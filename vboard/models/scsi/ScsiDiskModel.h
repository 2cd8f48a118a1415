// A SAS disk behind a SCSI generic node (/dev/sgN): SG_IO with the SPC-4/SBC-3 commands
// a disk answers, a sparse medium, log and mode pages, defect lists and injectable faults.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "vboard/DeviceModel.h"

struct sg_io_hdr;

namespace quarn::vboard {

class VirtualBoard;

struct ScsiDiskConfig {
    std::string vendor = "SEAGATE";
    std::string product = "ST4000NM0025";
    std::string revision = "E002";
    std::string serial = "ZC11K4VQ0000C8284FQ1";
    uint64_t blocks = 7814037168ull;  // 4 TB of 512-byte blocks: needs the 16-byte commands
    uint32_t blockSize = 512;
    uint64_t naa = 0x5000C500A1B2C3D4ull;  // logical unit name, NAA 5 (IEEE registered)
    uint64_t portAddress = 0x5000C500A1B2C3D5ull;  // SAS address of target port A
    uint16_t rpm = 7200;
    uint8_t formFactor = 2;  // 3.5 inch
    bool blockCharacteristicsPage = true;  // VPD 0xB1; without it the rate is in mode page 0x04
    uint8_t protocol = 6;  // SAS Serial SCSI Protocol
    uint32_t heads = 16;
    uint32_t sectorsPerTrack = 2048;
    // Port A's PHY as the phy control and discover mode subpage (0x19/0x01) reports it.
    uint64_t attachedAddress = 0x500605B000000000ull;  // SAS address of what the PHY is cabled to
    uint8_t attachedPhy = 0;         // that device's PHY
    uint8_t attachedDeviceType = 2;  // 1 end device, 2 expander
    uint8_t linkRate = 0x0B;         // negotiated: 0x0B 12 Gbit/s
};

class ScsiDiskModel : public DeviceModel {
public:
    explicit ScsiDiskModel(ScsiDiskConfig config = ScsiDiskConfig());

    std::unique_ptr<FileHandle> open(int flags) override;
    // Executes one SG_IO request as the sg driver and the disk would; returns the ioctl result.
    int execute(sg_io_hdr* io, bool writable);

    // Fault injection.
    // The next `times` commands with this opcode end in CHECK CONDITION with this sense.
    // A recovered error (key 1) is reported after the command has done its work.
    void injectSense(uint8_t opcode, uint8_t key, uint8_t asc, uint8_t ascq, unsigned times = 1);
    // Reported once by the next command other than INQUIRY, REPORT LUNS and REQUEST SENSE.
    void raiseUnitAttention(uint8_t asc, uint8_t ascq);
    // Reads covering lba fail with MEDIUM ERROR 11/00 until it is written; the write
    // reallocates it into the grown defect list.
    void addUnreadableBlock(uint64_t lba) { m_unreadable.insert(lba); }
    // The next `times` reads covering lba return that block with one byte flipped.
    void injectMiscompare(uint64_t lba, unsigned times = 1) { m_miscompare[lba] += times; }
    void setTemperature(uint8_t current, uint8_t reference);
    // Informational exception the disk reports in log page 0x2F (0/0: none).
    void setFailurePrediction(uint8_t asc, uint8_t ascq);
    // A stopped disk answers media access with NOT READY 04/02 until START STOP UNIT.
    void setStarted(bool started) { m_started = started; }
    void addPrimaryDefect(uint64_t lba) { m_primaryDefects.insert(lba); }
    void addGrownDefect(uint64_t lba) { m_grownDefects.insert(lba); }

    // Observation.
    uint64_t commandCount(uint8_t opcode) const;
    const std::vector<uint8_t>& lastCdb() const { return m_lastCdb; }
    bool descriptorSense() const;
    bool writeCacheEnabled() const;
    size_t storedBlocks() const { return m_medium.size(); }
    const ScsiDiskConfig& config() const { return m_config; }

private:
    struct Sense {
        uint8_t key, asc, ascq;
    };
    struct Command;
    enum Counter { kWritePage = 0, kReadPage = 1, kVerifyPage = 2 };

    void run(Command& c);
    void checkCondition(Command& c, uint8_t key, uint8_t asc, uint8_t ascq, int64_t information = -1);
    std::vector<uint8_t> senseBytes(uint8_t key, uint8_t asc, uint8_t ascq, int64_t information, bool descriptor) const;
    void dataIn(Command& c, const std::vector<uint8_t>& data, uint32_t allocation);
    void countError(uint8_t opcode, uint8_t key);
    int counterPageOf(uint8_t opcode) const;

    void inquiry(Command& c);
    void readCapacity(Command& c, bool sixteen);
    void readWrite(Command& c, bool write, uint64_t lba, uint32_t blocks);
    void verify(Command& c);
    void requestSense(Command& c);
    void logSense(Command& c);
    void logSelect(Command& c);
    void modeSense(Command& c, bool ten);
    void modeSelect(Command& c, bool ten);
    void sendDiagnostic(Command& c);
    void readDefects(Command& c, bool twelve);
    void reportLuns(Command& c);
    std::vector<uint8_t> logPage(uint8_t page, uint8_t pc, uint16_t pointer) const;
    std::vector<uint8_t> modePage(uint8_t page, uint8_t pc) const;
    std::vector<uint8_t> phyControlSubpage() const;
    void buildModePages();

    ScsiDiskConfig m_config;
    std::map<uint64_t, std::vector<uint8_t>> m_medium;  // written blocks; the rest reads as zero
    std::set<uint64_t> m_unreadable;
    std::map<uint64_t, unsigned> m_miscompare;
    std::set<uint64_t> m_primaryDefects;
    std::set<uint64_t> m_grownDefects;
    std::map<uint8_t, std::deque<Sense>> m_injected;
    std::deque<Sense> m_unitAttentions;
    bool m_started = true;
    uint8_t m_temperature = 34;
    uint8_t m_referenceTemperature = 68;
    uint8_t m_ieAsc = 0;
    uint8_t m_ieAscq = 0;
    uint64_t m_counters[3][7] = {};  // write, read, verify pages, parameters 0-6
    uint64_t m_nonMedium = 0;
    std::map<uint8_t, std::vector<uint8_t>> m_modeCurrent, m_modeSaved, m_modeDefault, m_modeChangeable;
    std::map<uint8_t, uint64_t> m_commandCounts;
    std::vector<uint8_t> m_lastCdb;
    unsigned m_selfTests = 0;
};

// Puts a disk on the board: /dev/sgN, and /sys/block/<block>/device with its sg link.
std::shared_ptr<ScsiDiskModel> installScsiDisk(VirtualBoard& board, int sgIndex, const std::string& block,
                                               ScsiDiskConfig config = ScsiDiskConfig());

}  // namespace quarn::vboard
