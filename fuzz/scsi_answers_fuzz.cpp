// Fuzz target of the SCSI layer's handling of what a disk answers: every command sent
// to the node gets its status, sense bytes and data from the input, and the layer's
// decoders (sense translation, VPD designators, mode and log pages, capacity, defect
// lists) read what comes back.
#include <fcntl.h>
#include <scsi/sg.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "api/ErrorText.h"
#include "api/platform/Platform.h"
#include "ddapi/scsi/SCSIFactory.h"
#include "ddapi/scsi/SCSISenseAnalyzer.h"
#include "vboard/DeviceModel.h"
#include "fuzz/FuzzSupport.h"
#include "vboard/VirtualBoard.h"

namespace {

using quarn::fuzz::drop;

// The input, consumed front to back; zeros once it runs out.
struct Feed {
    const uint8_t* data = nullptr;
    size_t size = 0;
    size_t at = 0;
    uint8_t byte() { return at < size ? data[at++] : 0; }
    size_t take(uint8_t* out, size_t n) {
        const size_t k = std::min(n, size - std::min(size, at));
        if (k) memcpy(out, data + at, k);
        at += k;
        return k;
    }
};
Feed g_feed;

// A disk whose every answer is taken from the feed: a status byte, a sense length and
// that many sense bytes, a 16-bit data length and the data (cut to what was asked).
class FuzzedDiskHandle : public quarn::vboard::FileHandle {
public:
    int ioctl(unsigned long request, void* arg) override {
        if (request != SG_IO) return static_cast<int>(fail(ENOTTY));
        auto* io = static_cast<sg_io_hdr_t*>(arg);
        if (io->interface_id != 'S') return static_cast<int>(fail(ENOSYS));
        io->status = g_feed.byte();
        io->masked_status = static_cast<unsigned char>((io->status >> 1) & 0x7F);
        const uint8_t host = g_feed.byte();  // now and then a transport error
        io->host_status = (host & 0xF0) == 0xF0 ? host & 0x07 : 0;
        io->driver_status = 0;
        const size_t senseLength = std::min<size_t>(g_feed.byte(), io->mx_sb_len);
        io->sb_len_wr = static_cast<unsigned char>(io->sbp ? g_feed.take(io->sbp, senseLength) : 0);
        size_t length = static_cast<size_t>(g_feed.byte()) << 8;
        length |= g_feed.byte();
        length = std::min<size_t>(length, io->dxfer_len);
        size_t got = 0;
        if (io->dxfer_direction == SG_DXFER_FROM_DEV && io->dxferp)
            got = g_feed.take(static_cast<uint8_t*>(io->dxferp), length);
        io->resid = static_cast<int>(io->dxfer_len - got);
        io->duration = 1;
        io->info = io->status ? SG_INFO_CHECK : SG_INFO_OK;
        return 0;
    }
};

class FuzzedDisk : public quarn::vboard::DeviceModel {
public:
    std::unique_ptr<quarn::vboard::FileHandle> open(int) override {
        return std::make_unique<FuzzedDiskHandle>();
    }
};

quarn::vboard::VirtualBoard& board() {
    return quarn::fuzz::board([](quarn::vboard::VirtualBoard& b) {
        b.addDevice("/dev/sg9", std::make_shared<FuzzedDisk>());
    });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    quarn::Platform& p = board();
    g_feed = Feed{data, size, 0};

    // The first 96 bytes also go straight to the sense decoders.
    unsigned char sense[SCSISenseAnalyzer::kSenseBufferLength] = {};
    memcpy(sense, data, std::min(size, sizeof(sense)));
    SCSISenseAnalyzer analyzer("fuzz");
    analyzer.translateSenseDataToErrorCode(sense, static_cast<unsigned int>(std::min(size, sizeof(sense))));
    unsigned int key = 0, asc = 0, ascq = 0;
    analyzer.parseSenseData(sense, &key, &asc, &ascq);
    analyzer.errorConditionOf(key, asc, ascq);
    drop(analyzer.setSenseDataByID(1, sense));

    const int fd = p.open("/dev/sg9", O_RDWR);
    if (fd < 0) return 0;
    SCSIFactory f("fuzz");
    unsigned char buffer[4096];
    drop(f.scsiStdInquiry(fd, buffer, 96));
    if (ErrorMsg* chain = f.scsiInquiryVpd(fd, 0x83, buffer, sizeof(buffer))) {
        drop(chain);
    } else {
        const int pageLength = std::min<int>((buffer[2] << 8 | buffer[3]), sizeof(buffer) - 4);
        char id[256];
        int transport = -1;
        f.scsiDecodeLUDevID(buffer + 4, pageLength, id, sizeof(id), &transport);
    }
    int rpm = 0, formFactor = 0, zoned = 0, protocol = 0;
    drop(f.getSCSIDriveRPM(fd, 10, &rpm, &formFactor, &zoned));
    drop(f.getSCSIDriveRPM(fd, 6, &rpm, &formFactor, &zoned));
    drop(f.getSCSITransportProtocol(fd, 10, &protocol));
    unsigned char current = 0, reference = 0;
    drop(f.getSCSIDriveTemperature(fd, &current, &reference));
    SCSI_ERROR_LOG log;
    drop(f.getSCSIErrorLog(fd, &log));
    std::string health;
    drop(f.getSmartHealthStatus(fd, &health));
    unsigned int lastLBA = 0, blockLength = 0;
    drop(f.scsiReadCapacity10(fd, &lastLBA, &blockLength));
    drop(f.scsiReadCapacity16(fd, buffer, 32));
    drop(f.scsiLogSense(fd, 0x2F, 0, buffer, sizeof(buffer), 0));
    drop(f.scsiReadDefect12(fd, 1, 1, 0, 0, buffer, sizeof(buffer)));
    drop(f.scsiRequestSense(fd, buffer, 252));
    drop(f.scsiModeSense(fd, 0x3F, 0, 0, buffer, 255));
    f.getSCSIModePageOffset(buffer, 255, 6);
    drop(f.executeSCSIRead(fd, 0, 8, buffer, sizeof(buffer)));
    drop(f.getErrorMsg());
    p.close(fd);
    return 0;
}
