// A SATA disk behind libata's SCSI translation (SAT-3): ATA PASS-THROUGH(16) with the
// ATA8-ACS IDENTIFY DEVICE and SMART layouts, the rest served by the SCSI disk model.
#include "vboard/models/sata/SataDiskModel.h"
#include "vboard/models/scsi/SgHandle.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <linux/hdreg.h>
#include <scsi/sg.h>

#include <algorithm>
#include <cstring>

#include "vboard/VirtualBoard.h"
#include "vboard/VirtualClock.h"
#include "vboard/models/sata/AhciControllerModel.h"

namespace quarn::vboard {

namespace {
constexpr uint8_t kAtaPassThrough16 = 0x85;
constexpr uint8_t kStatusDrdy = 0x40, kStatusDsc = 0x10, kStatusErr = 0x01;
constexpr uint8_t kErrorAbort = 0x04;

ScsiDiskConfig scsiSide(const SataDiskConfig& s) {
    ScsiDiskConfig c;
    c.vendor = "ATA";  // libata's INQUIRY: vendor "ATA", the model's first 16 characters
    c.product = s.model.substr(0, 16);
    c.revision = s.firmware.size() > 4 ? s.firmware.substr(s.firmware.size() - 4) : s.firmware;
    c.serial = s.serial;
    c.blocks = s.blocks;
    c.blockSize = 512;
    c.rpm = s.rpm;
    return c;
}

// ATA strings: two characters per word, the first in the high byte, blank padded.
void putAtaString(std::vector<uint8_t>& d, unsigned word, unsigned words, const std::string& text) {
    for (unsigned i = 0; i < words * 2; ++i) {
        const char c = i < text.size() ? text[i] : ' ';
        d[word * 2 + (i ^ 1)] = static_cast<uint8_t>(c);
    }
}

void putWord(std::vector<uint8_t>& d, unsigned word, uint16_t value) {
    d[word * 2] = static_cast<uint8_t>(value);
    d[word * 2 + 1] = static_cast<uint8_t>(value >> 8);
}

// The SMART sectors end in a checksum byte that makes the 512 bytes sum to zero.
void checksum(std::vector<uint8_t>& d) {
    uint8_t sum = 0;
    for (size_t i = 0; i < 511; ++i) sum = static_cast<uint8_t>(sum + d[i]);
    d[511] = static_cast<uint8_t>(-sum);
}


// The sd block node: the buffer flush and size requests the diagnostics use.
class SataBlockDevice : public DeviceModel {
public:
    explicit SataBlockDevice(std::shared_ptr<SataDiskModel> disk) : m_disk(std::move(disk)) {}
    std::unique_ptr<FileHandle> open(int) override { return std::make_unique<Handle>(*this); }

private:
    class Handle : public FileHandle {
    public:
        explicit Handle(SataBlockDevice& dev) : m_dev(dev) {}
        int ioctl(unsigned long request, void* arg) override {
            switch (request) {
            case BLKFLSBUF: return 0;
            case BLKGETSIZE64:
                if (!arg) return static_cast<int>(fail(EFAULT));
                *static_cast<uint64_t*>(arg) = m_dev.m_disk->sataConfig().blocks * 512;
                return 0;
            case HDIO_DRIVE_CMD:
                // libata's ata_cmd_ioctl refuses a missing argument.
                if (!arg) return static_cast<int>(fail(EINVAL));
                return 0;
            default: return static_cast<int>(fail(ENOTTY));
            }
        }

    private:
        SataBlockDevice& m_dev;
    };
    std::shared_ptr<SataDiskModel> m_disk;
};
}  // namespace

SataDiskModel::SataDiskModel(SataDiskConfig config, VirtualClock* clock)
    : ScsiDiskModel(scsiSide(config)), m_sata(std::move(config)), m_clock(clock) {
    // A NAS drive after about half a year in service.
    m_attributes = {
        {1, 0x002F, 200, 200, 51, 0},    {3, 0x0027, 175, 173, 21, 4225}, {4, 0x0032, 100, 100, 0, 112},
        {5, 0x0033, 200, 200, 140, 0},   {7, 0x002E, 200, 200, 0, 0},     {9, 0x0032, 95, 95, 0, 4012},
        {10, 0x0032, 100, 253, 0, 0},    {11, 0x0032, 100, 253, 0, 0},    {12, 0x0032, 100, 100, 0, 110},
        {192, 0x0032, 200, 200, 0, 48},  {193, 0x0032, 200, 200, 0, 150}, {194, 0x0022, 116, 103, 0, 34},
        {196, 0x0032, 200, 200, 0, 0},   {197, 0x0032, 200, 200, 0, 0},   {198, 0x0030, 100, 253, 0, 0},
        {199, 0x0032, 200, 200, 0, 0},   {200, 0x0008, 100, 253, 0, 0},
    };
}

std::unique_ptr<FileHandle> SataDiskModel::open(int flags) {
    return std::make_unique<SgHandle<SataDiskModel, &SataDiskModel::executeSg>>(
        *this, (flags & O_ACCMODE) != O_RDONLY);
}

void SataDiskModel::setAttribute(uint8_t id, uint8_t current, uint8_t worst, uint64_t raw) {
    for (Attribute& a : m_attributes) {
        if (a.id == id) {
            a.current = current;
            a.worst = worst;
            a.raw = raw & 0xFFFFFFFFFFFFull;
            return;
        }
    }
}

void SataDiskModel::setDriveTemperature(uint8_t celsius) {
    for (Attribute& a : m_attributes) {
        if (a.id == 194) {
            a.raw = celsius;
            // Normalised like many drives: 150 minus the temperature.
            a.current = static_cast<uint8_t>(celsius < 149 ? 150 - celsius : 1);
            a.worst = std::min(a.worst, a.current);
        }
    }
}

const SataDiskModel::Attribute* SataDiskModel::attribute(uint8_t id) const {
    for (const Attribute& a : m_attributes)
        if (a.id == id) return &a;
    return nullptr;
}

uint64_t SataDiskModel::ataCommandCount(uint8_t command) const {
    auto it = m_ataCounts.find(command);
    return it == m_ataCounts.end() ? 0 : it->second;
}

std::vector<uint8_t> SataDiskModel::identifyData() const {
    std::vector<uint8_t> d(512, 0);
    putWord(d, 0, 0x0040);  // ATA device, fixed
    putWord(d, 1, 16383);
    putWord(d, 3, 16);
    putWord(d, 6, 63);
    putAtaString(d, 10, 10, m_sata.serial);
    putAtaString(d, 23, 4, m_sata.firmware);
    putAtaString(d, 27, 20, m_sata.model);
    putWord(d, 47, 0x8010);
    putWord(d, 49, 0x2F00);  // LBA, DMA, IORDY
    putWord(d, 50, 0x4000);
    putWord(d, 53, 0x0007);
    putWord(d, 54, 16383);
    putWord(d, 55, 16);
    putWord(d, 56, 63);
    putWord(d, 57, 0xFC10);
    putWord(d, 58, 0x00FB);
    const uint32_t lba28 = static_cast<uint32_t>(std::min<uint64_t>(m_sata.blocks, 0x0FFFFFFF));
    putWord(d, 60, static_cast<uint16_t>(lba28));
    putWord(d, 61, static_cast<uint16_t>(lba28 >> 16));
    putWord(d, 63, 0x0007);
    putWord(d, 64, 0x0003);
    for (unsigned w = 65; w <= 68; ++w) putWord(d, w, 120);
    putWord(d, 75, 31);
    putWord(d, 76, 0x010E);  // NCQ; Gen1, Gen2, Gen3
    putWord(d, 80, 0x01F0);  // ATA/ATAPI-4 to ATA8-ACS
    putWord(d, 82, 0x746B);  // bit 0: SMART feature set supported
    putWord(d, 83, 0x7C61);  // bit 10: 48-bit addresses
    putWord(d, 84, 0x6163);  // SMART error logging and self-test
    putWord(d, 85, static_cast<uint16_t>(0x7468 | (m_smartEnabled ? 1 : 0)));  // bit 0: SMART enabled
    putWord(d, 86, 0xBC41);
    putWord(d, 87, 0x6163);
    putWord(d, 88, 0x407F);  // UDMA 6 selected
    for (unsigned w = 0; w < 4; ++w) putWord(d, 100 + w, static_cast<uint16_t>(m_sata.blocks >> (16 * w)));
    putWord(d, 106, 0x6003);  // 8 logical sectors per 4 KB physical sector
    putWord(d, 217, m_sata.rpm);
    d[510] = 0xA5;  // integrity word: signature and checksum
    checksum(d);
    return d;
}

std::vector<uint8_t> SataDiskModel::smartData() const {
    std::vector<uint8_t> d(512, 0);
    putWord(d, 0, 0x0010);
    for (size_t i = 0; i < m_attributes.size() && i < 30; ++i) {
        const Attribute& a = m_attributes[i];
        uint8_t* p = &d[2 + 12 * i];
        p[0] = a.id;
        p[1] = static_cast<uint8_t>(a.flags);
        p[2] = static_cast<uint8_t>(a.flags >> 8);
        p[3] = a.current;
        p[4] = a.worst;
        for (int b = 0; b < 6; ++b) p[5 + b] = static_cast<uint8_t>(a.raw >> (8 * b));
    }
    d[362] = 0x82;  // off-line collection completed, automatic collection on
    d[363] = 0x00;  // last self-test completed without error
    putWord(d, 182, 13080);  // bytes 364-365: seconds of off-line collection
    d[367] = 0x7B;
    putWord(d, 184, 0x0003);  // bytes 368-369: saved across power modes, auto-save
    d[370] = 0x01;
    d[372] = 2;     // short self-test, minutes
    d[373] = 0xFF;  // extended: see bytes 375-376
    d[374] = 5;
    d[375] = 0xB2;
    d[376] = 0x00;
    checksum(d);
    return d;
}

std::vector<uint8_t> SataDiskModel::smartThresholds() const {
    std::vector<uint8_t> d(512, 0);
    putWord(d, 0, 0x0010);
    for (size_t i = 0; i < m_attributes.size() && i < 30; ++i) {
        d[2 + 12 * i] = m_attributes[i].id;
        d[3 + 12 * i] = m_attributes[i].threshold;
    }
    checksum(d);
    return d;
}

bool SataDiskModel::smartThresholdExceeded() const {
    for (const Attribute& a : m_attributes)
        if ((a.flags & 1) && a.threshold && a.current <= a.threshold) return true;
    return false;
}

int SataDiskModel::executeSg(sg_io_hdr* io, bool writable) {
    const bool ata = io->cmdp && io->cmd_len >= 1 && io->cmdp[0] == kAtaPassThrough16;
    uint64_t bytes = 0;
    if (io->cmdp && io->cmd_len == 16 && (io->cmdp[0] == 0x88 || io->cmdp[0] == 0x8A))
        bytes = (static_cast<uint64_t>(io->cmdp[10]) << 24 | io->cmdp[11] << 16 | io->cmdp[12] << 8 | io->cmdp[13]) * 512;
    // The caller runs as root (CAP_SYS_RAWIO): the sg driver lets ATA PASS-THROUGH through
    // a read-only descriptor, as libatasmart and the identify command rely on.
    const int rc = ata ? passThrough(io) : execute(io, writable);
    if (m_clock && rc == 0)
        m_clock->advanceNs(m_sata.commandOverheadNs + bytes * 1000000000ull / std::max<uint64_t>(1, m_sata.mediaBytesPerSecond));
    return rc;
}

int SataDiskModel::passThrough(sg_io_hdr* io) {
    if (io->cmd_len > 16) {
        errno = EMSGSIZE;
        return -1;
    }
    if (io->cmd_len < 16 || (io->dxfer_len && !io->dxferp) || io->iovec_count) {
        errno = EINVAL;
        return -1;
    }
    const uint8_t* cdb = io->cmdp;
    const unsigned protocol = cdb[1] >> 1 & 0xF;
    const bool extend = cdb[1] & 1;
    const bool ckCond = cdb[2] & 0x20;
    const bool toHost = cdb[2] & 0x08;
    const bool blocks = cdb[2] & 0x04;
    const unsigned tLength = cdb[2] & 0x03;
    const uint8_t feature = cdb[4];
    uint16_t count = cdb[6] | (extend ? cdb[5] << 8 : 0);
    uint8_t lbaLow = cdb[8], lbaMid = cdb[10], lbaHigh = cdb[12];
    const uint8_t device = cdb[13];
    const uint8_t command = cdb[14];
    ++m_ataCounts[command];

    std::vector<uint8_t> sense;
    auto finish = [&](uint8_t key, uint8_t asc, uint8_t ascq, bool withDescriptor, uint8_t status, uint8_t error,
                      uint32_t transferred) {
        const bool check = key != 0;
        if (check) {
            sense.assign(8, 0);
            sense[0] = 0x72;
            sense[1] = key;
            sense[2] = asc;
            sense[3] = ascq;
            if (withDescriptor) {
                // ATA Status Return descriptor (SAT-3 12.2.2.6).
                const uint8_t desc[14] = {0x09, 0x0C, static_cast<uint8_t>(extend ? 1 : 0), error,
                                          static_cast<uint8_t>(count >> 8), static_cast<uint8_t>(count), 0, lbaLow,
                                          0, lbaMid, 0, lbaHigh, device, status};
                sense.insert(sense.end(), desc, desc + 14);
            }
            sense[7] = static_cast<uint8_t>(sense.size() - 8);
        }
        io->status = check ? 0x02 : 0x00;
        io->masked_status = io->status >> 1;
        io->msg_status = 0;
        io->host_status = 0;
        io->driver_status = check ? 0x08 : 0;
        io->sb_len_wr = 0;
        io->info = check ? SG_INFO_CHECK : SG_INFO_OK;
        if (check && io->sbp && io->mx_sb_len) {
            const size_t n = std::min<size_t>(io->mx_sb_len, sense.size());
            memcpy(io->sbp, sense.data(), n);
            io->sb_len_wr = static_cast<unsigned char>(n);
        }
        io->resid = static_cast<int>(io->dxfer_len - std::min(transferred, io->dxfer_len));
        io->duration = 0;
        return 0;
    };
    auto invalidField = [&]() { return finish(0x05, 0x24, 0x00, false, 0, 0, 0); };
    auto abort = [&]() { return finish(0x0B, 0x00, 0x00, true, kStatusDrdy | kStatusDsc | kStatusErr, kErrorAbort, 0); };
    auto done = [&](uint32_t transferred) {
        if (ckCond) return finish(0x01, 0x00, 0x1D, true, kStatusDrdy | kStatusDsc, 0, transferred);
        return finish(0, 0, 0, false, 0, 0, transferred);
    };

    // Protocol and transfer fields must agree with each other and with the sg request.
    uint32_t length = 0;
    if (tLength == 2) length = blocks ? count * 512u : count;
    else if (tLength != 0) return invalidField();
    const bool dataIn = protocol == 4 || (protocol == 6 && toHost);
    const bool nonData = protocol == 3;
    if (!dataIn && !nonData) return invalidField();
    if (nonData && length) return invalidField();
    if (dataIn && (!toHost || !length || io->dxfer_direction != SG_DXFER_FROM_DEV || io->dxfer_len < length))
        return invalidField();

    auto it = m_ataAborts.find(command);
    if (it != m_ataAborts.end() && it->second) {
        --it->second;
        return abort();
    }
    auto dataOut = [&](const std::vector<uint8_t>& data) {
        const uint32_t n = std::min<uint32_t>(length, static_cast<uint32_t>(data.size()));
        memcpy(io->dxferp, data.data(), n);
        return done(n);
    };

    switch (command) {
    case 0xEC:  // IDENTIFY DEVICE
        if (!dataIn || length != 512) return abort();
        return dataOut(identifyData());
    case 0xE5:  // CHECK POWER MODE: active or idle
        if (!nonData) return abort();
        count = 0xFF;
        return done(0);
    case 0xE7:  // FLUSH CACHE
    case 0xEA:  // FLUSH CACHE EXT
        if (!nonData) return abort();
        return done(0);
    case 0xB0:  // SMART
        if (lbaMid != 0x4F || lbaHigh != 0xC2) return abort();
        if (!m_smartEnabled && feature != 0xD8) return abort();
        switch (feature) {
        case 0xD0:
            if (!dataIn || length != 512) return abort();
            return dataOut(smartData());
        case 0xD1:
            if (!dataIn || length != 512) return abort();
            return dataOut(smartThresholds());
        case 0xDA:
            if (!nonData) return abort();
            if (smartThresholdExceeded()) {
                lbaMid = 0xF4;
                lbaHigh = 0x2C;
            }
            return done(0);
        case 0xD8:
        case 0xD9:
            if (!nonData) return abort();
            m_smartEnabled = feature == 0xD8;
            return done(0);
        case 0xD4:  // off-line immediate / self-test: accepted, completes at once
            if (!nonData) return abort();
            return done(0);
        default:
            return abort();
        }
    default:
        return abort();
    }
}

std::shared_ptr<SataDiskModel> installSataDisk(VirtualBoard& board, AhciControllerModel& ahci, unsigned port,
                                               int sgIndex, const std::string& block, SataDiskConfig config) {
    auto disk = std::make_shared<SataDiskModel>(std::move(config), &board.clock());
    const std::string sg = "sg" + std::to_string(sgIndex);
    const std::string p = std::to_string(port);
    board.addDevice("/dev/" + sg, disk);
    board.addDevice("/dev/" + block, std::make_shared<SataBlockDevice>(disk));
    const std::string scsi = p + ":0:0:0";
    const std::string inDevices = "pci0000:00/0000:00:1f.2/ata" + std::to_string(port + 1) + "/host" + p + "/target" + p +
                                  ":0:0/" + scsi;
    const std::string dir = "/sys/devices/" + inDevices;
    const SataDiskConfig& c = disk->sataConfig();
    board.writeFile(dir + "/vendor", "ATA     \n");
    board.writeFile(dir + "/model", c.model.substr(0, 16) + "\n");
    board.writeFile(dir + "/rev", disk->config().revision + "\n");
    board.writeFile(dir + "/scsi_generic/" + sg + "/dev", "21:" + std::to_string(sgIndex) + "\n");
    board.writeFile(dir + "/block/" + block + "/size", std::to_string(c.blocks) + "\n");
    board.makeSymlink("../../../" + scsi, dir + "/block/" + block + "/device");
    board.makeSymlink("../devices/" + inDevices + "/block/" + block, "/sys/block/" + block);
    ahci.attachDrive(port, 3);
    return disk;
}

}  // namespace quarn::vboard
