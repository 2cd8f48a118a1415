// An NVMe controller with one namespace behind the Linux driver's nodes.
#include "vboard/models/nvme/NvmeControllerModel.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "vboard/VirtualBoard.h"

namespace quarn::vboard {

namespace {

// Opcodes (admin and NVM command sets).
constexpr uint8_t kGetLogPage = 0x02, kIdentify = 0x06, kFirmwareCommit = 0x10, kFirmwareDownload = 0x11,
                  kFormatNvm = 0x80;
constexpr uint8_t kFlush = 0x00, kWrite = 0x01, kRead = 0x02, kWriteZeroes = 0x08;

// Status fields: status code type << 8 | status code.
constexpr uint16_t kInvalidOpcode = 0x001, kInvalidField = 0x002, kInvalidNamespace = 0x00B,
                   kLbaOutOfRange = 0x080, kInvalidFirmwareSlot = 0x106, kInvalidFirmwareImage = 0x107,
                   kInvalidLogPage = 0x109, kInvalidFormat = 0x10A, kOverlappingRange = 0x114,
                   kUnrecoveredReadError = 0x281;
constexpr uint16_t kDoNotRetry = 0x4000;

constexpr unsigned kSlots = 3;
constexpr unsigned kErrorEntries = 64;

void put16(std::vector<uint8_t>& d, size_t at, uint16_t v) {
    d[at] = static_cast<uint8_t>(v);
    d[at + 1] = static_cast<uint8_t>(v >> 8);
}
void put32(std::vector<uint8_t>& d, size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) d[at + i] = static_cast<uint8_t>(v >> (8 * i));
}
void put64(std::vector<uint8_t>& d, size_t at, uint64_t v) {
    for (int i = 0; i < 8; ++i) d[at + i] = static_cast<uint8_t>(v >> (8 * i));
}
// A 128-bit counter (the upper 64 bits stay zero here).
void put128(std::vector<uint8_t>& d, size_t at, uint64_t v) { put64(d, at, v); }
void text(std::vector<uint8_t>& d, size_t at, const std::string& s, size_t n) {
    for (size_t i = 0; i < n; ++i) d[at + i] = i < s.size() ? static_cast<uint8_t>(s[i]) : ' ';
}

uint64_t slbaOf(const nvme_passthru_cmd* c) { return c->cdw10 | static_cast<uint64_t>(c->cdw11) << 32; }

}  // namespace

// The namespace as a SCSI direct-access device (the driver's translation).
class NvmeControllerModel::Medium : public BlockMedium {
public:
    explicit Medium(NvmeControllerModel& c) : m_c(c) {}
    uint32_t blockSize() const override { return m_c.blockSize(); }
    uint64_t blockCount() const override { return m_c.blockCount(); }
    bool readBlocks(uint64_t lba, uint32_t count, uint8_t* out, uint64_t* bad) override {
        ++m_c.m_hostReads;
        ++m_c.m_commandCounts[1u << 8 | kRead];
        return m_c.readMedium(lba, count, out, bad);
    }
    bool writeBlocks(uint64_t lba, uint32_t count, const uint8_t* in) override {
        ++m_c.m_hostWrites;
        ++m_c.m_commandCounts[1u << 8 | kWrite];
        return m_c.writeMedium(lba, count, in);
    }
    void charge(uint64_t bytes) override { m_c.charge(bytes); }
    std::string vendor() const override { return "NVMe"; }
    std::string product() const override { return m_c.m_config.model.substr(0, 16); }
    std::string revision() const override { return m_c.runningFirmware().substr(0, 4); }
    std::string serial() const override { return m_c.m_config.serial; }

private:
    NvmeControllerModel& m_c;
};

NvmeControllerModel::NvmeControllerModel(NvmeConfig config, VirtualClock* clock, const std::string& mediaHostPath,
                                         const std::string& barHostPath)
    : m_config(std::move(config)),
      m_clock(clock),
      m_media(mediaHostPath, m_config.namespaceAttached ? m_config.bytes : 0),
      m_barPath(barHostPath),
      m_scsi(std::make_unique<Medium>(*this)) {
    m_slots[0] = m_config.firmware;
    writeRegisters();
}

const std::string& NvmeControllerModel::runningFirmware() const { return m_slots[m_running - 1]; }
uint32_t NvmeControllerModel::blockSize() const { return m_lbaFormat == 1 ? 4096u : 512u; }
uint64_t NvmeControllerModel::blockCount() const {
    return m_config.namespaceAttached ? m_config.bytes / blockSize() : 0;
}

uint64_t NvmeControllerModel::commandCount(bool adminQueue, uint8_t opcode) const {
    auto it = m_commandCounts.find((adminQueue ? 0u : 1u) << 8 | opcode);
    return it == m_commandCounts.end() ? 0 : it->second;
}

void NvmeControllerModel::injectStatus(bool adminQueue, uint8_t opcode, uint16_t status, unsigned times) {
    for (unsigned i = 0; i < times; ++i) m_injected[(adminQueue ? 0u : 1u) << 8 | opcode].push_back(status);
}

void NvmeControllerModel::charge(uint64_t bytes) {
    const uint64_t ns = m_config.commandOverheadNs + bytes * 1000000000ull / std::max<uint64_t>(1, m_config.mediaBytesPerSecond);
    m_busyNs += ns;
    if (m_clock) m_clock->advanceNs(ns);
}

// Register block at the start of BAR0: CAP, VS, CC, CSTS and AQA of an enabled controller.
void NvmeControllerModel::writeRegisters() {
    if (m_barPath.empty()) return;
    std::vector<uint8_t> r(0x40, 0);
    const uint64_t cap = 1023ull | 1ull << 16 | 0x14ull << 24 | 1ull << 37;  // MQES, CQR, TO 10 s, NVM set
    put64(r, 0x00, cap);
    put32(r, 0x08, 0x00010200);                  // version 1.2
    put32(r, 0x14, 0x00460001);                  // CC: EN, IOSQES 6, IOCQES 4
    put32(r, 0x1C, 1);                           // CSTS: RDY
    put32(r, 0x24, 0x001F001F);                  // AQA
    std::fstream f(m_barPath, std::ios::in | std::ios::out | std::ios::binary);
    if (!f) return;
    f.seekp(0);
    f.write(reinterpret_cast<const char*>(r.data()), static_cast<std::streamsize>(r.size()));
}

void NvmeControllerModel::writeNamespaceAttributes() {
    if (m_namespaceDir.empty()) return;
    const std::string bs = std::to_string(blockSize()) + "\n";
    std::ofstream(m_namespaceDir + "/queue/logical_block_size") << bs;
    std::ofstream(m_namespaceDir + "/queue/physical_block_size") << bs;
    std::ofstream(m_namespaceDir + "/size") << std::to_string(blockCount() * blockSize() / 512) << "\n";
}

int NvmeControllerModel::copyOut(nvme_passthru_cmd* cmd, const std::vector<uint8_t>& data) {
    if (cmd->data_len && !cmd->addr) {
        errno = EFAULT;
        return -1;
    }
    memcpy(reinterpret_cast<void*>(static_cast<uintptr_t>(cmd->addr)), data.data(),
           std::min<size_t>(cmd->data_len, data.size()));
    return 0;
}

// Completion: a failed command leaves an entry in the error log; the driver hands the
// status field back as the ioctl's value (with Do Not Retry, as controllers set it).
int NvmeControllerModel::complete(bool adminQueue, const nvme_passthru_cmd& cmd, uint16_t status, uint64_t lba) {
    const uint16_t id = m_nextCommandId++;
    if (status == 0) return 0;
    ErrorEntry e{++m_errorCount, static_cast<uint16_t>(adminQueue ? 0 : 1), id, status, lba, cmd.nsid};
    m_errors.push_front(e);
    if (m_errors.size() > kErrorEntries) m_errors.pop_back();
    return status | kDoNotRetry;
}

int NvmeControllerModel::admin(nvme_passthru_cmd* cmd) {
    if (!cmd) {
        errno = EFAULT;
        return -1;
    }
    m_last = *cmd;
    ++m_commandCounts[cmd->opcode];
    charge(0);
    auto inj = m_injected.find(cmd->opcode);
    if (inj != m_injected.end() && !inj->second.empty()) {
        const uint16_t status = inj->second.front();
        inj->second.pop_front();
        return complete(true, *cmd, status);
    }
    switch (cmd->opcode) {
        case kIdentify:
            return identify(cmd);
        case kGetLogPage:
            return getLogPage(cmd);
        case kFirmwareDownload:
            return firmwareDownload(cmd);
        case kFirmwareCommit:
            return firmwareCommit(cmd);
        case kFormatNvm:
            return format(cmd);
        default:
            return complete(true, *cmd, kInvalidOpcode);
    }
}

int NvmeControllerModel::io(nvme_passthru_cmd* cmd) {
    if (!cmd) {
        errno = EFAULT;
        return -1;
    }
    m_last = *cmd;
    ++m_commandCounts[1u << 8 | cmd->opcode];
    auto inj = m_injected.find(1u << 8 | cmd->opcode);
    if (inj != m_injected.end() && !inj->second.empty()) {
        const uint16_t status = inj->second.front();
        inj->second.pop_front();
        charge(0);
        return complete(false, *cmd, status, slbaOf(cmd));
    }
    if (cmd->nsid != 1 || !m_config.namespaceAttached) {
        charge(0);
        return complete(false, *cmd, kInvalidNamespace);
    }
    switch (cmd->opcode) {
        case kFlush:
            charge(0);
            return complete(false, *cmd, 0);
        case kRead:
            return readWrite(cmd, false);
        case kWrite:
            return readWrite(cmd, true);
        case kWriteZeroes:
            return writeZeroes(cmd);
        default:
            charge(0);
            return complete(false, *cmd, kInvalidOpcode);
    }
}

int NvmeControllerModel::reset() {
    if (m_nextReset) {
        m_running = m_nextReset;
        m_nextReset = 0;
    }
    m_staged.clear();
    if (m_clock) m_clock->advanceNs(50000000);  // the controller is ready again after 50 ms
    writeRegisters();
    return 0;
}

int NvmeControllerModel::executeScsi(sg_io_hdr* io, bool writable) {
    if (!m_config.namespaceAttached) {
        errno = ENXIO;
        return -1;
    }
    return executeBlockCommand(io, writable, *m_scsi);
}

std::vector<uint8_t> NvmeControllerModel::identifyController() const {
    std::vector<uint8_t> d(4096, 0);
    put16(d, 0, 0x8086);
    put16(d, 2, 0x8086);
    text(d, 4, m_config.serial, 20);
    text(d, 24, m_config.model, 40);
    text(d, 64, runningFirmware(), 8);
    d[73] = 0xE4;  // IEEE OUI 5C:D2:E4, least significant byte first
    d[74] = 0xD2;
    d[75] = 0x5C;
    d[77] = 5;  // MDTS: 128 KiB
    put32(d, 80, 0x00010200);
    put16(d, 256, 0x0006);  // OACS: Format NVM, Firmware Download/Commit
    d[258] = 3;             // ACL
    d[259] = 3;             // AERL
    d[260] = static_cast<uint8_t>(0x10 | kSlots << 1 | 1);  // FRMW: activation without reset, 3 slots, slot 1 read-only
    d[261] = 0x02;          // LPA: command effects log
    d[262] = kErrorEntries - 1;  // ELPE (0-based)
    put16(d, 266, 343);     // WCTEMP 70 C
    put16(d, 268, 358);     // CCTEMP 85 C
    put128(d, 280, m_config.bytes);  // TNVMCAP
    d[512] = 0x66;  // SQES
    d[513] = 0x44;  // CQES
    put32(d, 516, 1);       // NN
    put16(d, 520, 0x0008);  // ONCS: Write Zeroes
    const std::string nqn = "nqn.2014.08.org.nvmexpress:80868086" + m_config.serial + m_config.model;
    memcpy(d.data() + 768, nqn.data(), std::min<size_t>(nqn.size(), 255));
    put16(d, 2048, 2500);  // PSD0: 25 W
    return d;
}

std::vector<uint8_t> NvmeControllerModel::identifyNamespace() const {
    std::vector<uint8_t> d(4096, 0);
    if (!m_config.namespaceAttached) return d;  // an inactive namespace reads as zeroes
    const uint64_t blocks = blockCount();
    put64(d, 0, blocks);   // NSZE
    put64(d, 8, blocks);   // NCAP
    put64(d, 16, blocks);  // NUSE
    d[25] = 1;             // NLBAF: two formats (0-based)
    d[26] = static_cast<uint8_t>(m_lbaFormat);
    put128(d, 48, blocks * blockSize());  // NVMCAP
    d[128 + 2] = 9;   // LBAF0: 512-byte data, no metadata
    d[128 + 3] = 2;   // good performance
    d[132 + 2] = 12;  // LBAF1: 4096-byte data
    d[132 + 3] = 0;   // best performance
    return d;
}

std::vector<uint8_t> NvmeControllerModel::smartLog() const {
    std::vector<uint8_t> d(512, 0);
    d[0] = 0;  // critical warning
    put16(d, 1, m_temperature);
    d[3] = 100;  // available spare
    d[4] = 10;   // threshold
    d[5] = 3;    // percentage used
    put128(d, 32, (m_unitsRead512 + 999) / 1000);
    put128(d, 48, (m_unitsWritten512 + 999) / 1000);
    put128(d, 64, m_hostReads);
    put128(d, 80, m_hostWrites);
    put128(d, 96, m_busyNs / 60000000000ull);  // minutes
    put128(d, 112, m_powerCycles);
    const uint64_t hours = m_clock ? m_clock->nowNs() / 3600000000000ull : 0;
    put128(d, 128, m_powerOnHours + hours);
    put128(d, 144, m_unsafeShutdowns);
    put128(d, 160, m_mediaErrors);
    put128(d, 176, m_errorCount);
    put16(d, 200, static_cast<uint16_t>(m_temperature - 2));  // sensor 1
    put16(d, 202, static_cast<uint16_t>(m_temperature + 3));  // sensor 2
    return d;
}

std::vector<uint8_t> NvmeControllerModel::errorLog(size_t bytes) const {
    std::vector<uint8_t> d(std::max<size_t>(bytes, 64), 0);
    size_t at = 0;
    for (const ErrorEntry& e : m_errors) {
        if (at + 64 > d.size()) break;
        put64(d, at, e.count);
        put16(d, at + 8, e.sqid);
        put16(d, at + 10, e.cmdid);
        put16(d, at + 12, static_cast<uint16_t>(e.status << 1));  // phase tag 0
        put16(d, at + 14, 0xFFFF);  // parameter error location not given
        put64(d, at + 16, e.lba);
        put32(d, at + 24, e.nsid);
        at += 64;
    }
    return d;
}

std::vector<uint8_t> NvmeControllerModel::firmwareLog() const {
    std::vector<uint8_t> d(512, 0);
    d[0] = static_cast<uint8_t>(m_running | m_nextReset << 4);
    for (unsigned i = 0; i < kSlots; ++i)
        if (!m_slots[i].empty()) text(d, 8 + 8 * i, m_slots[i], 8);
    return d;
}

int NvmeControllerModel::identify(nvme_passthru_cmd* cmd) {
    const uint8_t cns = static_cast<uint8_t>(cmd->cdw10 & 0xFF);
    std::vector<uint8_t> data;
    if (cns == 1) {
        data = identifyController();
    } else if (cns == 0) {
        if (cmd->nsid == 0 || (cmd->nsid != 1 && cmd->nsid != 0xFFFFFFFF)) return complete(true, *cmd, kInvalidNamespace);
        data = identifyNamespace();
    } else if (cns == 2) {  // active namespace list
        data.assign(4096, 0);
        if (m_config.namespaceAttached && cmd->nsid < 1) put32(data, 0, 1);
    } else {
        return complete(true, *cmd, kInvalidField);
    }
    if (copyOut(cmd, data) != 0) return -1;
    return complete(true, *cmd, 0);
}

int NvmeControllerModel::getLogPage(nvme_passthru_cmd* cmd) {
    const uint8_t lid = static_cast<uint8_t>(cmd->cdw10 & 0xFF);
    const uint32_t numd = (cmd->cdw10 >> 16) | (cmd->cdw11 & 0xFFFF) << 16;  // NUMDL, NUMDU (0-based)
    const size_t bytes = (static_cast<size_t>(numd) + 1) * 4;
    std::vector<uint8_t> data;
    switch (lid) {
        case 0x01:
            data = errorLog(std::min<size_t>(bytes, kErrorEntries * 64));
            break;
        case 0x02:
            if (cmd->nsid != 0xFFFFFFFF && cmd->nsid != 0 && cmd->nsid != 1) return complete(true, *cmd, kInvalidNamespace);
            data = smartLog();
            break;
        case 0x03:
            data = firmwareLog();
            break;
        default:
            return complete(true, *cmd, kInvalidLogPage);
    }
    data.resize(std::min(bytes, data.size()));
    if (copyOut(cmd, data) != 0) return -1;
    return complete(true, *cmd, 0);
}

int NvmeControllerModel::firmwareDownload(nvme_passthru_cmd* cmd) {
    const uint64_t bytes = (static_cast<uint64_t>(cmd->cdw10) + 1) * 4;
    const uint64_t offset = static_cast<uint64_t>(cmd->cdw11) * 4;
    if (bytes > cmd->data_len || !cmd->addr || bytes > (1u << 20)) return complete(true, *cmd, kInvalidField);
    if (offset == 0) m_staged.clear();
    if (offset != m_staged.size()) return complete(true, *cmd, kOverlappingRange);
    const auto* p = reinterpret_cast<const uint8_t*>(static_cast<uintptr_t>(cmd->addr));
    m_staged.insert(m_staged.end(), p, p + bytes);
    charge(bytes);
    return complete(true, *cmd, 0);
}

std::vector<uint8_t> NvmeControllerModel::makeFirmwareImage(const std::string& revision, size_t payload) {
    std::vector<uint8_t> image(12 + ((payload + 3) & ~static_cast<size_t>(3)) + 4, 0);
    memcpy(image.data(), "VTXF", 4);
    for (size_t i = 0; i < 8; ++i) image[4 + i] = i < revision.size() ? static_cast<uint8_t>(revision[i]) : ' ';
    for (size_t i = 0; i < payload; ++i) image[12 + i] = static_cast<uint8_t>(i * 31 + 7);
    uint32_t sum = 0;
    for (size_t i = 0; i + 4 < image.size(); i += 4) {
        uint32_t w;
        memcpy(&w, image.data() + i, 4);
        sum += w;
    }
    const uint32_t last = 0u - sum;
    memcpy(image.data() + image.size() - 4, &last, 4);
    return image;
}

int NvmeControllerModel::firmwareCommit(nvme_passthru_cmd* cmd) {
    unsigned slot = cmd->cdw10 & 7;
    const unsigned action = (cmd->cdw10 >> 3) & 7;
    if (action > 3) return complete(true, *cmd, kInvalidField);
    if (slot > kSlots) return complete(true, *cmd, kInvalidFirmwareSlot);
    const bool replace = action != 2;
    if (slot == 0) slot = replace ? (m_running == 2 ? 3 : 2) : m_running;
    if (replace) {
        if (slot == 1) return complete(true, *cmd, kInvalidFirmwareSlot);  // read-only slot
        // The image: magic, revision, whole dwords summing to zero.
        bool valid = !m_rejectFirmware && m_staged.size() >= 16 && m_staged.size() % 4 == 0 &&
                     memcmp(m_staged.data(), "VTXF", 4) == 0;
        if (valid) {
            uint32_t sum = 0;
            for (size_t i = 0; i < m_staged.size(); i += 4) {
                uint32_t w;
                memcpy(&w, m_staged.data() + i, 4);
                sum += w;
            }
            valid = sum == 0;
        }
        if (!valid) {
            m_staged.clear();
            return complete(true, *cmd, kInvalidFirmwareImage);
        }
        std::string revision(reinterpret_cast<const char*>(m_staged.data() + 4), 8);
        while (!revision.empty() && revision.back() == ' ') revision.pop_back();
        m_slots[slot - 1] = revision;
        m_staged.clear();
        if (m_clock) m_clock->advanceNs(200000000);  // 200 ms to program the slot
    } else if (m_slots[slot - 1].empty()) {
        return complete(true, *cmd, kInvalidFirmwareImage);
    }
    if (action == 1 || action == 2) m_nextReset = slot;
    if (action == 3) {
        m_running = slot;
        m_nextReset = 0;
    }
    return complete(true, *cmd, 0);
}

int NvmeControllerModel::format(nvme_passthru_cmd* cmd) {
    if (!m_config.namespaceAttached || (cmd->nsid != 1 && cmd->nsid != 0xFFFFFFFF))
        return complete(true, *cmd, kInvalidNamespace);
    const unsigned lbaf = cmd->cdw10 & 0xF;
    const unsigned pi = (cmd->cdw10 >> 5) & 7;
    const unsigned ses = (cmd->cdw10 >> 9) & 7;
    if (lbaf > 1 || pi != 0) return complete(true, *cmd, kInvalidFormat);  // no metadata, so no protection
    if (ses > 2) return complete(true, *cmd, kInvalidField);
    m_lbaFormat = lbaf;
    m_unreadable.clear();
    if (!m_media.reset(m_config.bytes)) return complete(true, *cmd, 0x006);  // internal error
    if (m_clock) m_clock->advanceNs(ses ? 2000000000ull : 500000000ull);
    writeNamespaceAttributes();
    return complete(true, *cmd, 0);
}

bool NvmeControllerModel::readMedium(uint64_t lba, uint32_t count, uint8_t* out, uint64_t* bad) {
    auto it = m_unreadable.lower_bound(lba);
    if (it != m_unreadable.end() && *it < lba + count) {
        *bad = *it;
        ++m_mediaErrors;
        return false;
    }
    const uint64_t bytes = static_cast<uint64_t>(count) * blockSize();
    m_unitsRead512 += bytes / 512;
    return m_media.read(lba * blockSize(), out, bytes);
}

bool NvmeControllerModel::writeMedium(uint64_t lba, uint32_t count, const uint8_t* in) {
    const uint64_t bytes = static_cast<uint64_t>(count) * blockSize();
    m_unreadable.erase(m_unreadable.lower_bound(lba), m_unreadable.lower_bound(lba + count));
    m_unitsWritten512 += bytes / 512;
    return m_media.write(lba * blockSize(), in, bytes);
}

int NvmeControllerModel::readWrite(nvme_passthru_cmd* cmd, bool write) {
    const uint64_t slba = slbaOf(cmd);
    const uint32_t blocks = (cmd->cdw12 & 0xFFFF) + 1;
    const uint64_t bytes = static_cast<uint64_t>(blocks) * blockSize();
    charge(bytes);
    if (slba + blocks > blockCount()) return complete(false, *cmd, kLbaOutOfRange, slba);
    if (bytes > cmd->data_len || !cmd->addr) return complete(false, *cmd, kInvalidField, slba);
    auto* data = reinterpret_cast<uint8_t*>(static_cast<uintptr_t>(cmd->addr));
    if (write) {
        ++m_hostWrites;
        if (!writeMedium(slba, blocks, data)) return complete(false, *cmd, 0x280, slba);  // write fault
        return complete(false, *cmd, 0);
    }
    ++m_hostReads;
    uint64_t bad = slba;
    if (!readMedium(slba, blocks, data, &bad)) return complete(false, *cmd, kUnrecoveredReadError, bad);
    return complete(false, *cmd, 0);
}

int NvmeControllerModel::writeZeroes(nvme_passthru_cmd* cmd) {
    const uint64_t slba = slbaOf(cmd);
    const uint32_t blocks = (cmd->cdw12 & 0xFFFF) + 1;  // 0-based count
    charge(0);
    if (slba + blocks > blockCount()) return complete(false, *cmd, kLbaOutOfRange, slba);
    m_unreadable.erase(m_unreadable.lower_bound(slba), m_unreadable.lower_bound(slba + blocks));
    if (!m_media.zero(slba * blockSize(), static_cast<uint64_t>(blocks) * blockSize()))
        return complete(false, *cmd, 0x280, slba);
    return complete(false, *cmd, 0);
}

namespace {

class NvmeCharHandle : public FileHandle {
public:
    explicit NvmeCharHandle(NvmeControllerModel& c) : m_c(c) {}
    int ioctl(unsigned long request, void* arg) override {
        std::lock_guard<std::mutex> lock(m_c.mutex());
        if (request == NVME_IOCTL_ADMIN_CMD) return m_c.admin(static_cast<nvme_passthru_cmd*>(arg));
        if (request == NVME_IOCTL_IO_CMD) return m_c.io(static_cast<nvme_passthru_cmd*>(arg));
        if (request == NVME_IOCTL_RESET) return m_c.reset();
        return static_cast<int>(fail(ENOTTY));
    }

private:
    NvmeControllerModel& m_c;
};

class NvmeNamespaceHandle : public FileHandle {
public:
    NvmeNamespaceHandle(NvmeControllerModel& c, bool writable) : m_c(c), m_writable(writable) {}
    int ioctl(unsigned long request, void* arg) override {
        std::lock_guard<std::mutex> lock(m_c.mutex());
        switch (request) {
            case NVME_IOCTL_ADMIN_CMD:
                return m_c.admin(static_cast<nvme_passthru_cmd*>(arg));
            case NVME_IOCTL_IO_CMD:
                return m_c.io(static_cast<nvme_passthru_cmd*>(arg));
            case NVME_IOCTL_ID:
                return 1;
            case SG_IO: {
                auto* io = static_cast<sg_io_hdr*>(arg);
                if (!io) return static_cast<int>(fail(EFAULT));
                if (io->interface_id != 'S') return static_cast<int>(fail(ENOSYS));
                return m_c.executeScsi(io, m_writable);
            }
            case SG_GET_VERSION_NUM:
                *static_cast<int*>(arg) = 30527;
                return 0;
            case BLKGETSIZE64:
                *static_cast<uint64_t*>(arg) = m_c.blockCount() * m_c.blockSize();
                return 0;
            case BLKSSZGET:
                *static_cast<int*>(arg) = static_cast<int>(m_c.blockSize());
                return 0;
            default:
                return static_cast<int>(fail(ENOTTY));
        }
    }

private:
    NvmeControllerModel& m_c;
    bool m_writable;
};

// Relative link target from the directory holding the link to a path of the board.
std::string relativeTarget(const std::string& linkDir, const std::string& target) {
    return std::filesystem::path(target).lexically_relative(linkDir).string();
}

}  // namespace

std::unique_ptr<FileHandle> NvmeCharNode::open(int) { return std::make_unique<NvmeCharHandle>(*m_controller); }

std::unique_ptr<FileHandle> NvmeNamespaceNode::open(int flags) {
    return std::make_unique<NvmeNamespaceHandle>(*m_controller, (flags & O_ACCMODE) != O_RDONLY);
}

std::shared_ptr<NvmeControllerModel> installNvmeController(VirtualBoard& board, int index,
                                                           const std::string& pciAddress,
                                                           const std::string& pciPath, NvmeConfig config) {
    const std::string ctrl = "nvme" + std::to_string(index);
    const std::string ns = ctrl + "n1";
    const bool attached = config.namespaceAttached;
    auto c = std::make_shared<NvmeControllerModel>(std::move(config), &board.clock(),
                                                   board.hostPath("/var/lib/vboard/media/" + ns + ".img"),
                                                   board.hostPath("/sys/bus/pci/devices/" + pciAddress + "/resource0"));
    const std::string dir = "/sys/devices/" + pciPath + "/nvme/" + ctrl;
    board.writeFile(dir + "/address", pciAddress + "\n");
    board.writeFile(dir + "/dev", "249:" + std::to_string(index) + "\n");
    board.writeFile(dir + "/state", "live\n");
    board.makeSymlink(relativeTarget(dir, "/sys/bus/pci/devices/" + pciAddress), dir + "/device");
    board.makeSymlink(relativeTarget("/sys/class/nvme", dir), "/sys/class/nvme/" + ctrl);
    board.addDevice("/dev/" + ctrl, std::make_shared<NvmeCharNode>(c));
    if (attached) {
        const std::string nsDir = dir + "/" + ns;
        board.writeFile(nsDir + "/dev", "259:" + std::to_string(index) + "\n");
        board.writeFile(nsDir + "/nsid", "1\n");
        board.makeSymlink(relativeTarget("/sys/block", nsDir), "/sys/block/" + ns);
        board.addDevice("/dev/" + ns, std::make_shared<NvmeNamespaceNode>(c));
        c->setNamespaceDirectory(board.hostPath(nsDir));
        std::filesystem::create_directories(board.hostPath(nsDir + "/queue"));
        c->writeNamespaceAttributes();
    }
    return c;
}

}  // namespace quarn::vboard
