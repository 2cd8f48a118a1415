// A SAS disk behind a SCSI generic node (/dev/sgN): SG_IO with the SPC-4/SBC-3 commands
// a disk answers, a sparse medium, log and mode pages, defect lists and injectable faults.
#include "vboard/models/scsi/ScsiDiskModel.h"
#include "vboard/models/scsi/SgHandle.h"

#include <fcntl.h>
#include <scsi/sg.h>

#include <algorithm>
#include <cstring>

#include "vboard/VirtualBoard.h"

namespace quarn::vboard {

namespace {

// SCSI status, sense keys and the sg driver's status fields.
constexpr uint8_t kGood = 0x00;
constexpr uint8_t kCheckCondition = 0x02;
constexpr uint8_t kDriverSense = 0x08;
constexpr uint8_t kRecovered = 0x01;
constexpr uint8_t kNotReady = 0x02;
constexpr uint8_t kMediumError = 0x03;
constexpr uint8_t kIllegalRequest = 0x05;
constexpr uint8_t kUnitAttention = 0x06;
constexpr uint8_t kMiscompare = 0x0E;

void putBE(uint8_t* at, uint64_t value, int bytes) {
    for (int i = bytes - 1; i >= 0; --i) {
        at[i] = static_cast<uint8_t>(value);
        value >>= 8;
    }
}

uint64_t getBE(const uint8_t* at, int bytes) {
    uint64_t value = 0;
    for (int i = 0; i < bytes; ++i) value = value << 8 | at[i];
    return value;
}

void appendBE(std::vector<uint8_t>& v, uint64_t value, int bytes) {
    const size_t at = v.size();
    v.resize(at + bytes);
    putBE(v.data() + at, value, bytes);
}

// The ASCII field of an INQUIRY reply: left-aligned, padded with blanks.
void putAscii(uint8_t* at, const std::string& text, size_t width) {
    memset(at, ' ', width);
    memcpy(at, text.data(), std::min(text.size(), width));
}

// CDB length by operation code group (SPC-4 4.2.5.1); 0 for groups the disk does not use.
unsigned cdbLengthOf(uint8_t opcode) {
    switch (opcode >> 5) {
    case 0: return 6;
    case 1:
    case 2: return 10;
    case 4: return 16;
    case 5: return 12;
    default: return 0;
    }
}

bool isMediaAccess(uint8_t opcode) {
    switch (opcode) {
    case 0x00: case 0x28: case 0x2A: case 0x2F: case 0x88: case 0x8A: case 0x25: case 0x9E:
        return true;
    default:
        return false;
    }
}

// Commands the sg driver lets through a descriptor opened read-only (the kernel's list
// of safe commands); anything else needs O_RDWR.
bool safeForReadOnly(uint8_t opcode) {
    switch (opcode) {
    case 0x00: case 0x03: case 0x12: case 0x1A: case 0x5A: case 0x25: case 0x28: case 0x88:
    case 0x2F: case 0x37: case 0xB7: case 0x4D: case 0x9E: case 0xA0:
        return true;
    default:
        return false;
    }
}


}  // namespace

struct ScsiDiskModel::Command {
    uint8_t cdb[16];
    unsigned cdbLength;
    uint8_t* data;
    uint32_t dataLength;
    int direction;
    uint32_t transferred = 0;
    bool check = false;
    std::vector<uint8_t> sense;
};

ScsiDiskModel::ScsiDiskModel(ScsiDiskConfig config) : m_config(std::move(config)) { buildModePages(); }

std::unique_ptr<FileHandle> ScsiDiskModel::open(int flags) {
    return std::make_unique<SgHandle<ScsiDiskModel, &ScsiDiskModel::execute>>(
        *this, (flags & O_ACCMODE) != O_RDONLY);
}

void ScsiDiskModel::injectSense(uint8_t opcode, uint8_t key, uint8_t asc, uint8_t ascq, unsigned times) {
    for (unsigned i = 0; i < times; ++i) m_injected[opcode].push_back({key, asc, ascq});
}

void ScsiDiskModel::raiseUnitAttention(uint8_t asc, uint8_t ascq) {
    m_unitAttentions.push_back({kUnitAttention, asc, ascq});
}

void ScsiDiskModel::setTemperature(uint8_t current, uint8_t reference) {
    m_temperature = current;
    m_referenceTemperature = reference;
}

void ScsiDiskModel::setFailurePrediction(uint8_t asc, uint8_t ascq) {
    m_ieAsc = asc;
    m_ieAscq = ascq;
}

uint64_t ScsiDiskModel::commandCount(uint8_t opcode) const {
    auto it = m_commandCounts.find(opcode);
    return it == m_commandCounts.end() ? 0 : it->second;
}

bool ScsiDiskModel::descriptorSense() const { return (m_modeCurrent.at(0x0A)[2] & 0x04) != 0; }
bool ScsiDiskModel::writeCacheEnabled() const { return (m_modeCurrent.at(0x08)[2] & 0x04) != 0; }

int ScsiDiskModel::execute(sg_io_hdr* io, bool writable) {
    if (io->cmd_len > 16) {
        errno = EMSGSIZE;
        return -1;
    }
    if (!io->cmdp || io->cmd_len < 6 || (io->dxfer_len && !io->dxferp) || io->iovec_count) {
        errno = io->cmdp ? EINVAL : EFAULT;
        return -1;
    }
    switch (io->dxfer_direction) {
    case SG_DXFER_NONE: case SG_DXFER_TO_DEV: case SG_DXFER_FROM_DEV: case SG_DXFER_TO_FROM_DEV:
        break;
    default:
        errno = EINVAL;
        return -1;
    }
    const uint8_t opcode = io->cmdp[0];
    if (!writable && !safeForReadOnly(opcode)) {
        errno = EPERM;
        return -1;
    }

    Command c;
    memset(c.cdb, 0, sizeof(c.cdb));
    memcpy(c.cdb, io->cmdp, io->cmd_len);
    c.cdbLength = io->cmd_len;
    c.data = static_cast<uint8_t*>(io->dxferp);
    c.dataLength = io->dxfer_direction == SG_DXFER_NONE ? 0 : io->dxfer_len;
    c.direction = io->dxfer_direction;
    m_lastCdb.assign(c.cdb, c.cdb + c.cdbLength);
    ++m_commandCounts[opcode];

    run(c);

    io->status = c.check ? kCheckCondition : kGood;
    io->masked_status = io->status >> 1;
    io->msg_status = 0;
    io->host_status = 0;
    io->driver_status = c.check ? kDriverSense : 0;
    io->sb_len_wr = 0;
    io->info = c.check ? SG_INFO_CHECK : SG_INFO_OK;
    if (c.check && io->sbp && io->mx_sb_len) {
        const size_t n = std::min<size_t>(io->mx_sb_len, c.sense.size());
        memcpy(io->sbp, c.sense.data(), n);
        io->sb_len_wr = static_cast<unsigned char>(n);
    }
    io->resid = static_cast<int>(c.dataLength - std::min(c.transferred, c.dataLength));
    io->duration = 0;
    return 0;
}

void ScsiDiskModel::run(Command& c) {
    const uint8_t opcode = c.cdb[0];
    const unsigned needed = cdbLengthOf(opcode);
    static const std::set<uint8_t> kSupported = {0x00, 0x03, 0x12, 0x15, 0x1A, 0x1B, 0x1D, 0x25, 0x28, 0x2A, 0x2F,
                                                 0x37, 0x4C, 0x4D, 0x55, 0x5A, 0x88, 0x8A, 0x9E, 0xA0, 0xB7};
    if (!kSupported.count(opcode)) return checkCondition(c, kIllegalRequest, 0x20, 0x00);
    if (needed == 0 || c.cdbLength < needed) return checkCondition(c, kIllegalRequest, 0x24, 0x00);

    // SAM-5: INQUIRY, REPORT LUNS and REQUEST SENSE do not report a unit attention.
    if (!m_unitAttentions.empty() && opcode != 0x12 && opcode != 0xA0 && opcode != 0x03) {
        const Sense s = m_unitAttentions.front();
        m_unitAttentions.pop_front();
        return checkCondition(c, s.key, s.asc, s.ascq);
    }

    bool haveInjected = false;
    Sense injected{};
    auto it = m_injected.find(opcode);
    if (it != m_injected.end() && !it->second.empty()) {
        injected = it->second.front();
        it->second.pop_front();
        haveInjected = true;
        countError(opcode, injected.key);
        if (injected.key != kRecovered) return checkCondition(c, injected.key, injected.asc, injected.ascq);
    }

    if (!m_started && isMediaAccess(opcode)) return checkCondition(c, kNotReady, 0x04, 0x02);

    switch (opcode) {
    case 0x00: break;
    case 0x03: requestSense(c); break;
    case 0x12: inquiry(c); break;
    case 0x15: modeSelect(c, false); break;
    case 0x1A: modeSense(c, false); break;
    case 0x1B:
        if (c.cdb[4] & 0x02) return checkCondition(c, kIllegalRequest, 0x24, 0x00);  // fixed medium
        m_started = (c.cdb[4] & 0x01) != 0;
        break;
    case 0x1D: sendDiagnostic(c); break;
    case 0x25: readCapacity(c, false); break;
    case 0x28: readWrite(c, false, getBE(c.cdb + 2, 4), static_cast<uint32_t>(getBE(c.cdb + 7, 2))); break;
    case 0x2A: readWrite(c, true, getBE(c.cdb + 2, 4), static_cast<uint32_t>(getBE(c.cdb + 7, 2))); break;
    case 0x2F: verify(c); break;
    case 0x37: readDefects(c, false); break;
    case 0x4C: logSelect(c); break;
    case 0x4D: logSense(c); break;
    case 0x55: modeSelect(c, true); break;
    case 0x5A: modeSense(c, true); break;
    case 0x88: readWrite(c, false, getBE(c.cdb + 2, 8), static_cast<uint32_t>(getBE(c.cdb + 10, 4))); break;
    case 0x8A: readWrite(c, true, getBE(c.cdb + 2, 8), static_cast<uint32_t>(getBE(c.cdb + 10, 4))); break;
    case 0x9E:
        if ((c.cdb[1] & 0x1F) != 0x10) return checkCondition(c, kIllegalRequest, 0x24, 0x00);
        readCapacity(c, true);
        break;
    case 0xA0: reportLuns(c); break;
    case 0xB7: readDefects(c, true); break;
    }
    if (haveInjected && !c.check) checkCondition(c, injected.key, injected.asc, injected.ascq);
}

// Fixed or descriptor format as the control mode page's D_SENSE bit selects; the
// information field carries the LBA of a medium error or the offset of a miscompare.
std::vector<uint8_t> ScsiDiskModel::senseBytes(uint8_t key, uint8_t asc, uint8_t ascq, int64_t information,
                                               bool descriptor) const {
    std::vector<uint8_t> s;
    if (descriptor) {
        s.assign(8, 0);
        s[0] = 0x72;
        s[1] = key;
        s[2] = asc;
        s[3] = ascq;
        if (information >= 0) {
            const uint8_t info[12] = {0x00, 0x0A, 0x80, 0x00};
            s.insert(s.end(), info, info + 12);
            putBE(s.data() + 8 + 4, static_cast<uint64_t>(information), 8);
        }
        s[7] = static_cast<uint8_t>(s.size() - 8);
    } else {
        s.assign(18, 0);
        s[0] = 0x70;
        s[2] = key;
        if (information >= 0 && static_cast<uint64_t>(information) <= 0xFFFFFFFFull) {
            s[0] |= 0x80;  // VALID: the information field holds the value
            putBE(s.data() + 3, static_cast<uint64_t>(information), 4);
        }
        s[7] = 10;
        s[12] = asc;
        s[13] = ascq;
    }
    return s;
}

void ScsiDiskModel::checkCondition(Command& c, uint8_t key, uint8_t asc, uint8_t ascq, int64_t information) {
    c.check = true;
    c.sense = senseBytes(key, asc, ascq, information, descriptorSense());
}

void ScsiDiskModel::dataIn(Command& c, const std::vector<uint8_t>& data, uint32_t allocation) {
    const uint32_t n = std::min<uint32_t>({allocation, c.dataLength, static_cast<uint32_t>(data.size())});
    if (c.direction == SG_DXFER_FROM_DEV || c.direction == SG_DXFER_TO_FROM_DEV) {
        if (n) memcpy(c.data, data.data(), n);
        c.transferred = n;
    }
}

int ScsiDiskModel::counterPageOf(uint8_t opcode) const {
    switch (opcode) {
    case 0x28: case 0x88: return kReadPage;
    case 0x2A: case 0x8A: return kWritePage;
    case 0x2F: return kVerifyPage;
    default: return -1;
    }
}

// Error counter log pages follow what the disk met: recovered errors are corrected with
// delay, medium errors are uncorrected, anything else on a transfer is a non-medium error.
void ScsiDiskModel::countError(uint8_t opcode, uint8_t key) {
    const int page = counterPageOf(opcode);
    if (page >= 0 && key == kRecovered) {
        ++m_counters[page][1];
        ++m_counters[page][3];
        ++m_counters[page][4];
    } else if (page >= 0 && key == kMediumError) {
        ++m_counters[page][6];
    } else if (key != kUnitAttention && key != kIllegalRequest && key != 0) {
        ++m_nonMedium;
    }
}

void ScsiDiskModel::inquiry(Command& c) {
    const bool evpd = c.cdb[1] & 0x01;
    const uint8_t page = c.cdb[2];
    const uint32_t allocation = static_cast<uint32_t>(getBE(c.cdb + 3, 2));
    if ((c.cdb[1] & 0x02) || (!evpd && page)) return checkCondition(c, kIllegalRequest, 0x24, 0x00);
    std::vector<uint8_t> d;
    if (!evpd) {
        d.assign(96, 0);
        d[2] = 0x06;  // SPC-4
        d[3] = 0x12;  // HISUP, response data format 2
        d[4] = static_cast<uint8_t>(d.size() - 5);
        d[6] = 0x10;  // MULTIP: dual-ported
        d[7] = 0x02;  // CMDQUE
        putAscii(&d[8], m_config.vendor, 8);
        putAscii(&d[16], m_config.product, 16);
        putAscii(&d[32], m_config.revision, 4);
        putAscii(&d[36], m_config.serial.substr(0, 8), 8);
        const uint16_t versions[] = {0x00A0, 0x0460, 0x04C0, 0x0C0F};  // SAM-5, SPC-4, SBC-3, SAS-3
        for (int i = 0; i < 4; ++i) putBE(&d[58 + 2 * i], versions[i], 2);
        return dataIn(c, d, allocation);
    }
    d = {0x00, page, 0x00, 0x00};
    switch (page) {
    case 0x00:
        d.insert(d.end(), {0x00, 0x80, 0x83});
        if (m_config.blockCharacteristicsPage) d.push_back(0xB1);
        break;
    case 0x80:
        d.insert(d.end(), m_config.serial.begin(), m_config.serial.end());
        break;
    case 0x83:
        // Logical unit name, target port SAS address, relative port, target device name.
        d.insert(d.end(), {0x01, 0x03, 0x00, 0x08});
        appendBE(d, m_config.naa, 8);
        d.insert(d.end(), {static_cast<uint8_t>(m_config.protocol << 4 | 1), 0x93, 0x00, 0x08});
        appendBE(d, m_config.portAddress, 8);
        d.insert(d.end(), {static_cast<uint8_t>(m_config.protocol << 4 | 1), 0x94, 0x00, 0x04, 0, 0, 0, 1});
        d.insert(d.end(), {static_cast<uint8_t>(m_config.protocol << 4 | 1), 0xA3, 0x00, 0x08});
        appendBE(d, m_config.naa + 3, 8);
        break;
    case 0xB1:
        if (!m_config.blockCharacteristicsPage) return checkCondition(c, kIllegalRequest, 0x24, 0x00);
        d.resize(64, 0);
        putBE(&d[4], m_config.rpm, 2);
        d[7] = m_config.formFactor & 0x0F;
        break;
    default:
        return checkCondition(c, kIllegalRequest, 0x24, 0x00);
    }
    putBE(&d[2], d.size() - 4, 2);
    dataIn(c, d, allocation);
}

void ScsiDiskModel::readCapacity(Command& c, bool sixteen) {
    const uint64_t last = m_config.blocks - 1;
    std::vector<uint8_t> d;
    if (!sixteen) {
        appendBE(d, last > 0xFFFFFFFFull ? 0xFFFFFFFFull : last, 4);  // too large: use the 16-byte form
        appendBE(d, m_config.blockSize, 4);
        return dataIn(c, d, 8);
    }
    d.assign(32, 0);
    putBE(&d[0], last, 8);
    putBE(&d[8], m_config.blockSize, 4);
    dataIn(c, d, static_cast<uint32_t>(getBE(c.cdb + 10, 4)));
}

void ScsiDiskModel::readWrite(Command& c, bool write, uint64_t lba, uint32_t blocks) {
    if (lba > m_config.blocks || blocks > m_config.blocks - lba)
        return checkCondition(c, kIllegalRequest, 0x21, 0x00);
    const uint32_t bs = m_config.blockSize;
    const bool dataOk = write ? (c.direction == SG_DXFER_TO_DEV || c.direction == SG_DXFER_TO_FROM_DEV)
                              : (c.direction == SG_DXFER_FROM_DEV || c.direction == SG_DXFER_TO_FROM_DEV);
    const int page = write ? kWritePage : kReadPage;
    for (uint32_t i = 0; i < blocks; ++i) {
        const uint64_t block = lba + i;
        const uint64_t offset = static_cast<uint64_t>(i) * bs;
        const bool inBuffer = dataOk && offset + bs <= c.dataLength;
        if (write) {
            std::vector<uint8_t> content(bs, 0);
            if (inBuffer) {
                memcpy(content.data(), c.data + offset, bs);
                c.transferred = static_cast<uint32_t>(offset + bs);  // data-out counts for resid too
            }
            if (m_unreadable.erase(block)) m_grownDefects.insert(block);  // reallocated on write
            if (std::all_of(content.begin(), content.end(), [](uint8_t b) { return b == 0; }))
                m_medium.erase(block);
            else
                m_medium[block] = std::move(content);
        } else {
            if (m_unreadable.count(block)) {
                ++m_counters[page][6];
                return checkCondition(c, kMediumError, 0x11, 0x00, static_cast<int64_t>(block));
            }
            if (!inBuffer) continue;
            auto stored = m_medium.find(block);
            if (stored != m_medium.end())
                memcpy(c.data + offset, stored->second.data(), bs);
            else
                memset(c.data + offset, 0, bs);
            auto bad = m_miscompare.find(block);
            if (bad != m_miscompare.end() && bad->second > 0) {
                c.data[offset + block % bs] ^= 0x5A;
                if (--bad->second == 0) m_miscompare.erase(bad);
            }
        }
        if (inBuffer) c.transferred = static_cast<uint32_t>(offset + bs);
        m_counters[page][5] += bs;
    }
}

// VERIFY(10): BYTCHK 0 checks the medium only, BYTCHK 1 compares it with the data-out buffer.
void ScsiDiskModel::verify(Command& c) {
    const uint64_t lba = getBE(c.cdb + 2, 4);
    const uint32_t blocks = static_cast<uint32_t>(getBE(c.cdb + 7, 2));
    const uint8_t bytchk = (c.cdb[1] >> 1) & 0x03;
    if (bytchk > 1) return checkCondition(c, kIllegalRequest, 0x24, 0x00);
    if (lba + blocks > m_config.blocks) return checkCondition(c, kIllegalRequest, 0x21, 0x00);
    const uint32_t bs = m_config.blockSize;
    for (uint32_t i = 0; i < blocks; ++i) {
        const uint64_t block = lba + i;
        if (m_unreadable.count(block)) {
            ++m_counters[kVerifyPage][6];
            return checkCondition(c, kMediumError, 0x11, 0x00, static_cast<int64_t>(block));
        }
        if (bytchk) {
            const uint64_t offset = static_cast<uint64_t>(i) * bs;
            if (offset + bs > c.dataLength) return checkCondition(c, kIllegalRequest, 0x26, 0x00);
            auto stored = m_medium.find(block);
            for (uint32_t b = 0; b < bs; ++b) {
                const uint8_t have = stored != m_medium.end() ? stored->second[b] : 0;
                if (have != c.data[offset + b])
                    return checkCondition(c, kMiscompare, 0x1D, 0x00, static_cast<int64_t>(offset + b));
            }
            c.transferred = static_cast<uint32_t>(offset + bs);
        }
        m_counters[kVerifyPage][5] += bs;
    }
}

void ScsiDiskModel::requestSense(Command& c) {
    const bool descriptor = c.cdb[1] & 0x01;
    std::vector<uint8_t> d;
    if (!m_unitAttentions.empty()) {
        const Sense s = m_unitAttentions.front();
        m_unitAttentions.pop_front();
        d = senseBytes(s.key, s.asc, s.ascq, -1, descriptor);
    } else if (!m_started) {
        d = senseBytes(kNotReady, 0x04, 0x02, -1, descriptor);
    } else {
        d = senseBytes(0, 0, 0, -1, descriptor);
    }
    dataIn(c, d, c.cdb[4]);
}

std::vector<uint8_t> ScsiDiskModel::logPage(uint8_t page, uint8_t pc, uint16_t pointer) const {
    // Thresholds and defaults of the counters are zero; cumulative values are live.
    const bool live = pc == 1;
    std::vector<uint8_t> d = {page, 0x00, 0x00, 0x00};
    auto parameter = [&](uint16_t code, uint8_t control, std::initializer_list<uint8_t> value) {
        if (code < pointer) return;
        appendBE(d, code, 2);
        d.push_back(control);
        d.push_back(static_cast<uint8_t>(value.size()));
        d.insert(d.end(), value);
    };
    auto counter = [&](uint16_t code, uint64_t value) {
        if (code < pointer) return;
        appendBE(d, code, 2);
        d.push_back(0x02);
        d.push_back(8);
        appendBE(d, live ? value : 0, 8);
    };
    switch (page) {
    case 0x00:
        d.insert(d.end(), {0x00, 0x02, 0x03, 0x05, 0x06, 0x0D, 0x2F});
        break;
    case 0x02: case 0x03: case 0x05: {
        const int which = page == 0x02 ? kWritePage : page == 0x03 ? kReadPage : kVerifyPage;
        for (uint16_t code = 0; code < 7; ++code) counter(code, m_counters[which][code]);
        break;
    }
    case 0x06:
        counter(0, m_nonMedium);
        break;
    case 0x0D:
        parameter(0x0000, 0x03, {0x00, m_temperature});
        parameter(0x0001, 0x03, {0x00, m_referenceTemperature});
        break;
    case 0x2F:
        parameter(0x0000, 0x03, {m_ieAsc, m_ieAscq, m_temperature, m_referenceTemperature});
        break;
    default:
        return {};
    }
    putBE(&d[2], d.size() - 4, 2);
    return d;
}

void ScsiDiskModel::logSense(Command& c) {
    const uint8_t pc = c.cdb[2] >> 6;
    const uint8_t page = c.cdb[2] & 0x3F;
    if (c.cdb[1] & 0x01) return checkCondition(c, kIllegalRequest, 0x24, 0x00);  // no saved pages
    if (c.cdb[3] != 0) return checkCondition(c, kIllegalRequest, 0x24, 0x00);
    std::vector<uint8_t> d = logPage(page, pc, static_cast<uint16_t>(getBE(c.cdb + 5, 2)));
    if (d.empty()) return checkCondition(c, kIllegalRequest, 0x24, 0x00);
    dataIn(c, d, static_cast<uint32_t>(getBE(c.cdb + 7, 2)));
}

// PCR resets every counter; a zero-length list resets the named page (all pages for
// page 0). Counter values cannot be written: a parameter list is refused.
void ScsiDiskModel::logSelect(Command& c) {
    const bool pcr = c.cdb[1] & 0x02;
    const uint8_t page = c.cdb[2] & 0x3F;
    const uint32_t length = static_cast<uint32_t>(getBE(c.cdb + 7, 2));
    if (c.cdb[1] & 0x01) return checkCondition(c, kIllegalRequest, 0x24, 0x00);
    if (pcr && length) return checkCondition(c, kIllegalRequest, 0x24, 0x00);
    if (length) return checkCondition(c, kIllegalRequest, 0x26, 0x00);
    auto reset = [&](int which) { std::fill(std::begin(m_counters[which]), std::end(m_counters[which]), 0); };
    if (pcr || page == 0) {
        for (int i = 0; i < 3; ++i) reset(i);
        m_nonMedium = 0;
        return;
    }
    switch (page) {
    case 0x02: reset(kWritePage); break;
    case 0x03: reset(kReadPage); break;
    case 0x05: reset(kVerifyPage); break;
    case 0x06: m_nonMedium = 0; break;
    default: return checkCondition(c, kIllegalRequest, 0x24, 0x00);
    }
}

void ScsiDiskModel::buildModePages() {
    const uint64_t perCylinder = static_cast<uint64_t>(m_config.heads) * m_config.sectorsPerTrack;
    const uint64_t cylinders = (m_config.blocks + perCylinder - 1) / perCylinder;

    std::vector<uint8_t> p01(12, 0), p04(24, 0), p08(20, 0), p0a(12, 0), p19(16, 0), p1c(12, 0);
    p01[0] = 0x01; p01[1] = 0x0A; p01[2] = 0xC0; p01[3] = 20; p01[8] = 5; putBE(&p01[10], 0xFFFF, 2);
    p04[0] = 0x04; p04[1] = 0x16; putBE(&p04[2], cylinders, 3); p04[5] = static_cast<uint8_t>(m_config.heads);
    putBE(&p04[20], m_config.rpm, 2);
    p08[0] = 0x08; p08[1] = 0x12; p08[2] = 0x04; putBE(&p08[4], 0xFFFF, 2); putBE(&p08[8], 0xFFFF, 2);
    p0a[0] = 0x0A; p0a[1] = 0x0A; p0a[3] = 0x10; putBE(&p0a[8], 0xFFFF, 2);
    p19[0] = 0x19; p19[1] = 0x0E; p19[2] = m_config.protocol & 0x0F; putBE(&p19[4], 2000, 2);
    p1c[0] = 0x1C; p1c[1] = 0x0A; p1c[3] = 0x04; putBE(&p1c[8], 1, 4);
    for (auto* p : {&p01, &p04, &p08, &p0a, &p19, &p1c}) {
        m_modeCurrent[(*p)[0]] = *p;
        m_modeDefault[(*p)[0]] = *p;
        m_modeChangeable[(*p)[0]] = std::vector<uint8_t>(p->size(), 0);
        m_modeChangeable[(*p)[0]][1] = (*p)[1];
    }
    m_modeChangeable[0x01][2] = 0xC4;        // AWRE, ARRE, PER
    m_modeChangeable[0x08][2] = 0x05;        // WCE, RCD
    m_modeChangeable[0x0A][2] = 0x04;        // D_SENSE
    m_modeChangeable[0x1C][2] = 0x8D;        // PERF, DEXCPT, TEST, LOGERR
    m_modeChangeable[0x1C][3] = 0x0F;        // MRIE
    for (int i = 4; i < 12; ++i) m_modeChangeable[0x1C][i] = 0xFF;  // interval timer, report count
    m_modeSaved = m_modeCurrent;
}

std::vector<uint8_t> ScsiDiskModel::modePage(uint8_t page, uint8_t pc) const {
    const auto& set = pc == 0 ? m_modeCurrent : pc == 1 ? m_modeChangeable : pc == 2 ? m_modeDefault : m_modeSaved;
    auto it = set.find(page);
    return it == set.end() ? std::vector<uint8_t>() : it->second;
}

void ScsiDiskModel::modeSense(Command& c, bool ten) {
    const bool dbd = c.cdb[1] & 0x08;
    const uint8_t pc = c.cdb[2] >> 6;
    const uint8_t page = c.cdb[2] & 0x3F;
    const uint8_t subpage = c.cdb[3];
    const uint32_t allocation = ten ? static_cast<uint32_t>(getBE(c.cdb + 7, 2)) : c.cdb[4];
    const bool phySubpage = page == 0x19 && subpage == 0x01;
    if (subpage != 0 && !phySubpage && !(page == 0x3F && subpage == 0xFF))
        return checkCondition(c, kIllegalRequest, 0x24, 0x00);
    std::vector<uint8_t> pages;
    if (phySubpage) {
        pages = phyControlSubpage();
    } else if (page == 0x3F) {
        for (const auto& entry : m_modeCurrent) {
            const std::vector<uint8_t> p = modePage(entry.first, pc);
            pages.insert(pages.end(), p.begin(), p.end());
        }
    } else {
        pages = modePage(page, pc);
        if (pages.empty()) return checkCondition(c, kIllegalRequest, 0x24, 0x00);
    }
    std::vector<uint8_t> descriptor;
    if (!dbd) {
        appendBE(descriptor, std::min<uint64_t>(m_config.blocks, 0xFFFFFFFFull), 4);
        appendBE(descriptor, m_config.blockSize, 4);  // density code 0 in the top byte
    }
    std::vector<uint8_t> d(ten ? 8 : 4, 0);
    if (ten) {
        putBE(&d[6], descriptor.size(), 2);
        d[3] = 0x10;  // DPOFUA
    } else {
        d[3] = static_cast<uint8_t>(descriptor.size());
        d[2] = 0x10;
    }
    d.insert(d.end(), descriptor.begin(), descriptor.end());
    d.insert(d.end(), pages.begin(), pages.end());
    if (ten)
        putBE(&d[0], d.size() - 2, 2);
    else
        d[0] = static_cast<uint8_t>(std::min<size_t>(d.size() - 1, 0xFF));
    dataIn(c, d, allocation);
}

// SAS phy control and discover subpage (SPL-3): one 48-byte descriptor per PHY; port A
// is cabled as configured, port B is not connected.
std::vector<uint8_t> ScsiDiskModel::phyControlSubpage() const {
    std::vector<uint8_t> p(8 + 2 * 48, 0);
    p[0] = 0x40 | 0x19;  // SPF
    p[1] = 0x01;
    putBE(&p[2], p.size() - 4, 2);
    p[5] = 0x06;  // SAS
    p[7] = 2;
    for (int i = 0; i < 2; ++i) {
        uint8_t* d = &p[8 + 48 * i];
        d[1] = static_cast<uint8_t>(i);
        putBE(d + 8, m_config.portAddress + static_cast<uint64_t>(i), 8);
        d[32] = 0x88;  // programmed / hardware minimum 1.5 Gbit/s
        d[33] = 0xBB;  // maximum 12 Gbit/s
        if (i == 0 && m_config.attachedAddress) {
            d[4] = static_cast<uint8_t>((m_config.attachedDeviceType & 0x07) << 4);
            d[5] = m_config.linkRate & 0x0F;
            d[6] = m_config.attachedDeviceType == 1 ? 0x0E : 0x00;  // an HBA: SSP, STP, SMP initiator
            d[7] = m_config.attachedDeviceType == 1 ? 0x00 : 0x02;  // an expander: SMP target
            putBE(d + 16, m_config.attachedAddress, 8);
            d[24] = m_config.attachedPhy;
        }
    }
    return p;
}

// Every page of the list is checked before any is applied, so a refused list changes nothing.
void ScsiDiskModel::modeSelect(Command& c, bool ten) {
    const bool pf = c.cdb[1] & 0x10;
    const bool sp = c.cdb[1] & 0x01;
    const uint32_t length = ten ? static_cast<uint32_t>(getBE(c.cdb + 7, 2)) : c.cdb[4];
    if (!pf) return checkCondition(c, kIllegalRequest, 0x24, 0x00);
    if (length == 0) return;
    const unsigned header = ten ? 8 : 4;
    if (length < header || c.dataLength < length || c.direction != SG_DXFER_TO_DEV)
        return checkCondition(c, kIllegalRequest, 0x1A, 0x00);
    const uint8_t* d = c.data;
    const uint32_t descriptors = ten ? static_cast<uint32_t>(getBE(d + 6, 2)) : d[3];
    if (header + descriptors > length) return checkCondition(c, kIllegalRequest, 0x26, 0x00);
    if (descriptors >= 8 && getBE(d + header + 5, 3) != m_config.blockSize)
        return checkCondition(c, kIllegalRequest, 0x26, 0x00);  // no reformatting
    std::vector<std::pair<uint8_t, std::vector<uint8_t>>> changes;
    for (uint32_t at = header + descriptors; at < length;) {
        if (at + 2 > length) return checkCondition(c, kIllegalRequest, 0x26, 0x00);
        const uint8_t page = d[at] & 0x3F;
        const uint32_t size = 2u + d[at + 1];
        auto current = m_modeCurrent.find(page);
        if ((d[at] & 0x40) || current == m_modeCurrent.end() || size != current->second.size() || at + size > length)
            return checkCondition(c, kIllegalRequest, 0x26, 0x00);
        const std::vector<uint8_t>& mask = m_modeChangeable.at(page);
        std::vector<uint8_t> next(d + at, d + at + size);
        next[0] = page;
        for (uint32_t i = 2; i < size; ++i)
            if ((next[i] ^ current->second[i]) & ~mask[i]) return checkCondition(c, kIllegalRequest, 0x26, 0x00);
        changes.emplace_back(page, std::move(next));
        at += size;
    }
    c.transferred = length;
    for (auto& change : changes) {
        m_modeCurrent[change.first] = change.second;
        if (sp) m_modeSaved[change.first] = change.second;
    }
}

void ScsiDiskModel::sendDiagnostic(Command& c) {
    const uint8_t code = c.cdb[1] >> 5;
    const bool selfTest = c.cdb[1] & 0x04;
    if (selfTest && code) return checkCondition(c, kIllegalRequest, 0x24, 0x00);
    if (code == 3 || code == 7) return checkCondition(c, kIllegalRequest, 0x24, 0x00);
    if (selfTest || code) ++m_selfTests;
}

// The disk keeps its lists as LBAs and reports them in block or physical-sector form;
// a format it cannot give is answered in physical-sector form with RECOVERED ERROR 1C/00.
void ScsiDiskModel::readDefects(Command& c, bool twelve) {
    const uint8_t flags = twelve ? c.cdb[1] : c.cdb[2];
    const bool plist = flags & 0x10;
    const bool glist = flags & 0x08;
    uint8_t format = flags & 0x07;
    const uint32_t index = twelve ? static_cast<uint32_t>(getBE(c.cdb + 2, 4)) : 0;
    const uint32_t allocation = static_cast<uint32_t>(twelve ? getBE(c.cdb + 6, 4) : getBE(c.cdb + 7, 2));
    const bool shortOk = m_config.blocks - 1 <= 0xFFFFFFFFull;
    const bool supported = format == 3 || format == 4 || format == 5 || (format == 0 && shortOk);
    if (!supported) format = 5;

    std::set<uint64_t> lbas;
    if (plist) lbas.insert(m_primaryDefects.begin(), m_primaryDefects.end());
    if (glist) lbas.insert(m_grownDefects.begin(), m_grownDefects.end());
    std::vector<uint8_t> list;
    const uint64_t perCylinder = static_cast<uint64_t>(m_config.heads) * m_config.sectorsPerTrack;
    uint32_t position = 0;
    for (uint64_t lba : lbas) {
        if (position++ < index) continue;
        if (format == 0) {
            appendBE(list, lba, 4);
        } else if (format == 3) {
            appendBE(list, lba, 8);
        } else {
            const uint64_t sector = lba % m_config.sectorsPerTrack;
            appendBE(list, lba / perCylinder, 3);
            list.push_back(static_cast<uint8_t>((lba / m_config.sectorsPerTrack) % m_config.heads));
            appendBE(list, format == 4 ? sector * m_config.blockSize : sector, 4);
        }
    }
    std::vector<uint8_t> d(twelve ? 8 : 4, 0);
    d[1] = static_cast<uint8_t>((plist ? 0x10 : 0) | (glist ? 0x08 : 0) | format);
    if (twelve)
        putBE(&d[4], list.size(), 4);
    else
        putBE(&d[2], std::min<size_t>(list.size(), 0xFFFF), 2);
    d.insert(d.end(), list.begin(), list.end());
    dataIn(c, d, allocation);
    if (!supported) checkCondition(c, kRecovered, 0x1C, 0x00);
}

void ScsiDiskModel::reportLuns(Command& c) {
    const uint32_t allocation = static_cast<uint32_t>(getBE(c.cdb + 6, 4));
    if (allocation < 16) return checkCondition(c, kIllegalRequest, 0x24, 0x00);
    std::vector<uint8_t> d(16, 0);
    d[3] = 8;  // one LUN, LUN 0
    dataIn(c, d, allocation);
}

std::shared_ptr<ScsiDiskModel> installScsiDisk(VirtualBoard& board, int sgIndex, const std::string& block,
                                               ScsiDiskConfig config) {
    auto disk = std::make_shared<ScsiDiskModel>(std::move(config));
    const std::string sg = "sg" + std::to_string(sgIndex);
    board.addDevice("/dev/" + sg, disk);
    const std::string device = "/sys/block/" + block + "/device/";
    const ScsiDiskConfig& c = disk->config();
    board.writeFile(device + "vendor", c.vendor + "\n");
    board.writeFile(device + "model", c.product + "\n");
    board.writeFile(device + "rev", c.revision + "\n");
    board.writeFile(device + "scsi_generic/" + sg + "/dev", "21:" + std::to_string(sgIndex) + "\n");
    board.writeFile("/sys/block/" + block + "/size", std::to_string(c.blocks * c.blockSize / 512) + "\n");
    return disk;
}

}  // namespace quarn::vboard
