// A SATA disk behind libata's SCSI translation: the SCSI disk's commands plus ATA
// PASS-THROUGH(16) for IDENTIFY DEVICE, SMART and CHECK POWER MODE, with the ATA data
// layouts (checksummed sectors) and the ATA Status Return sense descriptor.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "vboard/models/scsi/ScsiDiskModel.h"

namespace quarn::vboard {

class AhciControllerModel;
class VirtualClock;

struct SataDiskConfig {
    std::string model = "WDC WD10EFRX-68FYTN0";
    std::string serial = "WD-WCC4J5HX2KPD";
    std::string firmware = "82.00A82";
    uint64_t blocks = 1953525168ull;  // 1 TB of 512-byte blocks
    uint16_t rpm = 5400;
    // Service time of one command: fixed overhead plus the media transfer.
    uint64_t commandOverheadNs = 50000;
    uint64_t mediaBytesPerSecond = 150000000;
};

class SataDiskModel : public ScsiDiskModel {
public:
    struct Attribute {
        uint8_t id;
        uint16_t flags;
        uint8_t current, worst, threshold;
        uint64_t raw;  // 48 bits
    };

    SataDiskModel(SataDiskConfig config, VirtualClock* clock);

    std::unique_ptr<FileHandle> open(int flags) override;
    // One SG_IO: ATA PASS-THROUGH(16) is answered here, everything else by the SCSI disk.
    int executeSg(sg_io_hdr* io, bool writable);

    // SMART state.
    void setAttribute(uint8_t id, uint8_t current, uint8_t worst, uint64_t raw);
    void setDriveTemperature(uint8_t celsius);
    void setSmartEnabled(bool enabled) { m_smartEnabled = enabled; }
    // The next `times` ATA commands with this command code end with ABRT.
    void injectAtaAbort(uint8_t command, unsigned times = 1) { m_ataAborts[command] += times; }
    const Attribute* attribute(uint8_t id) const;

    std::vector<uint8_t> identifyData() const;
    std::vector<uint8_t> smartData() const;
    std::vector<uint8_t> smartThresholds() const;
    uint64_t ataCommandCount(uint8_t command) const;
    const SataDiskConfig& sataConfig() const { return m_sata; }

private:
    int passThrough(sg_io_hdr* io);
    bool smartThresholdExceeded() const;

    SataDiskConfig m_sata;
    VirtualClock* m_clock;
    std::vector<Attribute> m_attributes;
    bool m_smartEnabled = true;
    std::map<uint8_t, unsigned> m_ataAborts;
    std::map<uint8_t, uint64_t> m_ataCounts;
};

// Puts a SATA disk on a port of the AHCI controller at 0000:00:1f.2: /dev/sgN, /dev/<block>,
// the /sys/devices tree under ataP+1/hostP and the /sys/block/<block> link into it.
std::shared_ptr<SataDiskModel> installSataDisk(VirtualBoard& board, AhciControllerModel& ahci, unsigned port,
                                               int sgIndex, const std::string& block,
                                               SataDiskConfig config = SataDiskConfig());

}  // namespace quarn::vboard
