// A direct-access SCSI target over a block medium, and the host file that holds a medium.
#include "vboard/models/scsi/BlockTarget.h"

#include <fcntl.h>
#include <linux/falloc.h>
#include <scsi/sg.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <vector>

namespace quarn::vboard {

namespace {

uint64_t be(const uint8_t* p, int n) {
    uint64_t v = 0;
    for (int i = 0; i < n; ++i) v = v << 8 | p[i];
    return v;
}

void putBe(uint8_t* p, uint64_t v, int n) {
    for (int i = n - 1; i >= 0; --i) {
        p[i] = static_cast<uint8_t>(v);
        v >>= 8;
    }
}

void padded(uint8_t* p, const std::string& text, size_t n) {
    memset(p, ' ', n);
    memcpy(p, text.data(), std::min(n, text.size()));
}

// Fixed-format sense; information (the failing block) when valid.
void checkCondition(sg_io_hdr* io, uint8_t key, uint8_t asc, uint8_t ascq, int64_t information = -1) {
    uint8_t sense[18] = {};
    sense[0] = 0x70;
    if (information >= 0) {
        sense[0] |= 0x80;
        putBe(sense + 3, static_cast<uint64_t>(information) & 0xFFFFFFFFu, 4);
    }
    sense[2] = key;
    sense[7] = 10;
    sense[12] = asc;
    sense[13] = ascq;
    io->status = 0x02;  // CHECK CONDITION
    io->masked_status = 0x01;
    io->driver_status = 0x08;  // DRIVER_SENSE
    const unsigned int n = std::min<unsigned int>(io->mx_sb_len, sizeof(sense));
    if (io->sbp && n) memcpy(io->sbp, sense, n);
    io->sb_len_wr = static_cast<unsigned char>(n);
    io->resid = static_cast<int>(io->dxfer_len);
}

void dataIn(sg_io_hdr* io, const std::vector<uint8_t>& data, uint32_t allocation) {
    const uint32_t n = std::min<uint32_t>({static_cast<uint32_t>(data.size()), allocation, io->dxfer_len});
    if (io->dxferp && n) memcpy(io->dxferp, data.data(), n);
    io->resid = static_cast<int>(io->dxfer_len - n);
}

void inquiry(sg_io_hdr* io, const uint8_t* cdb, BlockMedium& m) {
    const uint32_t allocation = static_cast<uint32_t>(be(cdb + 3, 2));
    std::vector<uint8_t> d;
    if (cdb[1] & 1) {
        const uint8_t page = cdb[2];
        if (page == 0x00) {
            d = {0, 0x00, 0, 2, 0x00, 0x80};
        } else if (page == 0x80) {
            const std::string sn = m.serial();
            d.assign(4 + sn.size(), 0);
            d[1] = 0x80;
            d[3] = static_cast<uint8_t>(sn.size());
            memcpy(d.data() + 4, sn.data(), sn.size());
        } else {
            checkCondition(io, 0x05, 0x24, 0x00);  // invalid field in CDB
            return;
        }
    } else {
        d.assign(36, 0);
        d[2] = 0x06;  // SPC-4
        d[3] = 0x02;
        d[4] = 31;
        padded(d.data() + 8, m.vendor(), 8);
        padded(d.data() + 16, m.product(), 16);
        padded(d.data() + 32, m.revision(), 4);
    }
    dataIn(io, d, allocation);
}

void transfer(sg_io_hdr* io, bool writable, bool write, uint64_t lba, uint32_t blocks, BlockMedium& m) {
    const uint64_t bytes = static_cast<uint64_t>(blocks) * m.blockSize();
    if (lba + blocks > m.blockCount() || lba + blocks < lba) {
        checkCondition(io, 0x05, 0x21, 0x00);  // LBA out of range
        return;
    }
    if (bytes > io->dxfer_len || (bytes && !io->dxferp)) {
        errno = EINVAL;  // the sg driver refuses a buffer shorter than the transfer
        io->resid = static_cast<int>(io->dxfer_len);
        checkCondition(io, 0x05, 0x24, 0x00);
        return;
    }
    if (write && !writable) {
        checkCondition(io, 0x07, 0x27, 0x00);  // write protected
        return;
    }
    m.charge(bytes);
    if (write) {
        if (!m.writeBlocks(lba, blocks, static_cast<const uint8_t*>(io->dxferp))) {
            checkCondition(io, 0x03, 0x0C, 0x00, static_cast<int64_t>(lba));  // write error
            return;
        }
    } else {
        uint64_t bad = lba;
        if (!m.readBlocks(lba, blocks, static_cast<uint8_t*>(io->dxferp), &bad)) {
            checkCondition(io, 0x03, 0x11, 0x00, static_cast<int64_t>(bad));  // unrecovered read error
            return;
        }
    }
    io->resid = static_cast<int>(io->dxfer_len - bytes);
}

}  // namespace

int executeBlockCommand(sg_io_hdr* io, bool writable, BlockMedium& m) {
    if (!io->cmdp || io->cmd_len < 6 || io->cmd_len > 16) {
        errno = EINVAL;
        return -1;
    }
    io->status = 0;
    io->masked_status = 0;
    io->host_status = 0;
    io->driver_status = 0;
    io->sb_len_wr = 0;
    io->resid = 0;
    io->info = 0;
    const uint8_t* cdb = io->cmdp;
    switch (cdb[0]) {
        case 0x00:  // TEST UNIT READY
        case 0x35:  // SYNCHRONIZE CACHE(10)
            break;
        case 0x03: {  // REQUEST SENSE: nothing pending
            std::vector<uint8_t> d(18, 0);
            d[0] = 0x70;
            d[7] = 10;
            dataIn(io, d, cdb[4]);
            break;
        }
        case 0x12:
            inquiry(io, cdb, m);
            break;
        case 0x1A: {  // MODE SENSE(6): header only, no write protection, no block descriptor
            std::vector<uint8_t> d = {3, 0, 0, 0};
            dataIn(io, d, cdb[4]);
            break;
        }
        case 0x25: {  // READ CAPACITY(10)
            std::vector<uint8_t> d(8, 0);
            const uint64_t last = m.blockCount() - 1;
            putBe(d.data(), last > 0xFFFFFFFFu ? 0xFFFFFFFFu : last, 4);
            putBe(d.data() + 4, m.blockSize(), 4);
            dataIn(io, d, 8);
            break;
        }
        case 0x9E: {  // SERVICE ACTION IN(16)
            if ((cdb[1] & 0x1F) != 0x10) {
                checkCondition(io, 0x05, 0x24, 0x00);
                break;
            }
            std::vector<uint8_t> d(32, 0);
            putBe(d.data(), m.blockCount() - 1, 8);
            putBe(d.data() + 8, m.blockSize(), 4);
            dataIn(io, d, static_cast<uint32_t>(be(cdb + 10, 4)));
            break;
        }
        case 0x28:
        case 0x2A:
            transfer(io, writable, cdb[0] == 0x2A, be(cdb + 2, 4), static_cast<uint32_t>(be(cdb + 7, 2)), m);
            break;
        case 0x88:
        case 0x8A:
            if (io->cmd_len < 16) {
                checkCondition(io, 0x05, 0x24, 0x00);
                break;
            }
            transfer(io, writable, cdb[0] == 0x8A, be(cdb + 2, 8), static_cast<uint32_t>(be(cdb + 10, 4)), m);
            break;
        default:
            checkCondition(io, 0x05, 0x20, 0x00);  // invalid command operation code
            break;
    }
    return 0;
}

MediaFile::MediaFile(const std::string& hostPath, uint64_t bytes) : m_path(hostPath), m_fd(-1) {
    std::filesystem::create_directories(std::filesystem::path(hostPath).parent_path());
    m_fd = ::open(hostPath.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (m_fd < 0 || ::ftruncate(m_fd, static_cast<off_t>(bytes)) != 0)
        throw std::runtime_error("cannot create the medium " + hostPath);
}

MediaFile::~MediaFile() {
    if (m_fd >= 0) ::close(m_fd);
}

bool MediaFile::read(uint64_t offset, void* out, size_t length) const {
    auto* p = static_cast<uint8_t*>(out);
    while (length) {
        const ssize_t n = ::pread(m_fd, p, length, static_cast<off_t>(offset));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) {  // past the end of the file: the medium reads as zero
            memset(p, 0, length);
            return true;
        }
        p += n;
        offset += static_cast<uint64_t>(n);
        length -= static_cast<size_t>(n);
    }
    return true;
}

bool MediaFile::write(uint64_t offset, const void* in, size_t length) {
    const auto* p = static_cast<const uint8_t*>(in);
    // Zeroes are stored as a hole (a thinly provisioned medium), so a zero fill of a
    // large simulated disk costs no host space.
    if (length >= 4096 && p[0] == 0 && memcmp(p, p + 1, length - 1) == 0 && zero(offset, length)) return true;
    while (length) {
        const ssize_t n = ::pwrite(m_fd, p, length, static_cast<off_t>(offset));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        offset += static_cast<uint64_t>(n);
        length -= static_cast<size_t>(n);
    }
    return true;
}

bool MediaFile::zero(uint64_t offset, uint64_t length) {
    if (::fallocate(m_fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(offset),
                    static_cast<off_t>(length)) == 0)
        return true;
    std::vector<uint8_t> zeros(std::min<uint64_t>(length, 1u << 20), 0);
    while (length) {
        const size_t n = static_cast<size_t>(std::min<uint64_t>(length, zeros.size()));
        if (!write(offset, zeros.data(), n)) return false;
        offset += n;
        length -= n;
    }
    return true;
}

bool MediaFile::reset(uint64_t bytes) {
    return ::ftruncate(m_fd, 0) == 0 && ::ftruncate(m_fd, static_cast<off_t>(bytes)) == 0;
}

}  // namespace quarn::vboard
