// SCSI command layer: builds CDBs, sends them to an sg node over SG_IO, judges the sense
// data and decodes the log, mode and VPD pages the diagnostics use.
#include "ddapi/scsi/SCSIFactory.h"

#include <scsi/sg.h>

#include <cctype>
#include <cstdarg>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "api/StringUtil.h"
#include "api/platform/Platform.h"

namespace {

// Function rows of the SCSI device table.
constexpr ERRORCODE kConstruct = 0xCB080400;
constexpr ERRORCODE kRead = 0xCB080800;
constexpr ERRORCODE kWrite = 0xCB080C00;
constexpr ERRORCODE kTestUnitReady = 0xCB081000;
constexpr ERRORCODE kStdInquiry = 0xCB081400;
constexpr ERRORCODE kInquiryVpd = 0xCB081800;
constexpr ERRORCODE kLogSense = 0xCB081C00;
constexpr ERRORCODE kLogSelect = 0xCB082000;
constexpr ERRORCODE kModeSense = 0xCB082400;
constexpr ERRORCODE kModeSelect = 0xCB082800;
constexpr ERRORCODE kModeSense10 = 0xCB082C00;
constexpr ERRORCODE kModeSelect10 = 0xCB083000;
constexpr ERRORCODE kRequestSense = 0xCB083800;
constexpr ERRORCODE kSendDiagnostic = 0xCB083C00;
constexpr ERRORCODE kReadCapacity10 = 0xCB084000;
constexpr ERRORCODE kReadCapacity16 = 0xCB084400;
constexpr ERRORCODE kDriveRPM = 0xCB084800;
constexpr ERRORCODE kTransportProtocol = 0xCB084C00;
constexpr ERRORCODE kDriveTemperature = 0xCB085000;
constexpr ERRORCODE kErrorLog = 0xCB085400;
constexpr ERRORCODE kHealthStatus = 0xCB085800;
constexpr ERRORCODE kReadDefect12 = 0xCB085C00;

// Error rows and common errors used as causes.
constexpr ERRORCODE kUnsupportedOpcode = 0xCB080002;
constexpr ERRORCODE kUnsupportedField = 0xCB080003;
constexpr ERRORCODE kBadParameters = 0xCB080004;
constexpr ERRORCODE kSanity = 0xCB080005;
constexpr ERRORCODE kUnitAttention = 0xCB080008;
constexpr ERRORCODE kIllegalBufferSize = 0xC0000213;
constexpr ERRORCODE kIoctlFail = 0xC0000229;
constexpr ERRORCODE kBadDirection = 0xC000022B;
constexpr ERRORCODE kBadParameter1 = 0x205;
constexpr ERRORCODE kCauseMask = 0x000003FF;

constexpr unsigned int kTimeoutMs = 40000;
constexpr unsigned int kPageBuffer = 252;
constexpr unsigned int kMaxInquiry = 1023;

void putBE(unsigned char* at, uint64_t value, int bytes) {
    for (int i = bytes - 1; i >= 0; --i) {
        at[i] = static_cast<unsigned char>(value);
        value >>= 8;
    }
}

uint64_t getBE(const unsigned char* at, int bytes) {
    uint64_t value = 0;
    for (int i = 0; i < bytes; ++i) value = value << 8 | at[i];
    return value;
}

// Key, ASC and ASCQ of either sense format, for record details.
void senseFields(const unsigned char* sense, unsigned int* key, unsigned int* asc, unsigned int* ascq) {
    const unsigned int response = sense[0] & 0x7F;
    if (response >= 0x72) {
        *key = sense[1] & 0x0F;
        *asc = sense[2];
        *ascq = sense[3];
    } else {
        *key = sense[2] & 0x0F;
        *asc = sense[12];
        *ascq = sense[13];
    }
}

bool isUnsupported(ERRORCODE cause) {
    return cause == kUnsupportedOpcode || cause == kUnsupportedField || cause == kBadParameters;
}

const char* const kFailureReasons[13] = {
    "GENERAL HARD DRIVE FAILURE", "DRIVE ERROR RATE TOO HIGH",  "DATA ERROR RATE TOO HIGH",
    "SEEK ERROR RATE TOO HIGH",   "TOO MANY BLOCK REASSIGNS",   "ACCESS TIMES TOO HIGH",
    "START UNIT TIMES TOO HIGH",  "CHANNEL PARAMETRICS",        "CONTROLLER DETECTED",
    "THROUGHPUT PERFORMANCE",     "SEEK TIME PERFORMANCE",      "SPIN-UP RETRY COUNT",
    "DRIVE CALIBRATION RETRY COUNT"};
const char* const kFailureGroups[6] = {"HARDWARE", "CONTROLLER", "DATA CHANNEL", "SERVO", "SPINDLE", "FIRMWARE"};

// Texts of ASC 0x5D, built once: 4 general entries and six groups of 13.
const char* failurePredictionText(unsigned char ascq) {
    static const std::vector<std::string> table = [] {
        std::vector<std::string> t(0x6D);
        t[0x00] = "FAILURE PREDICTION THRESHOLD EXCEEDED";
        t[0x01] = "MEDIA FAILURE PREDICTION THRESHOLD EXCEEDED";
        t[0x02] = "LOGICAL UNIT FAILURE PREDICTION THRESHOLD EXCEEDED";
        t[0x03] = "SPARE AREA EXHAUSTION PREDICTION THRESHOLD EXCEEDED";
        for (int g = 0; g < 6; ++g)
            for (int r = 0; r < 13; ++r)
                t[0x10 * (g + 1) + r] = std::string(kFailureGroups[g]) + " IMPENDING FAILURE " + kFailureReasons[r];
        return t;
    }();
    if (ascq >= table.size() || table[ascq].empty()) return nullptr;
    return table[ascq].c_str();
}

// Bounded writer into the caller's identifier buffer.
struct Writer {
    char* out;
    int size;
    int pos = 0;
    void append(const char* format, ...) __attribute__((format(printf, 2, 3))) {
        if (pos >= size - 1) return;
        va_list args;
        va_start(args, format);
        const int n = vsnprintf(out + pos, static_cast<size_t>(size - pos), format, args);
        va_end(args);
        if (n > 0) pos = (pos + n < size - 1) ? pos + n : size - 1;
    }
    int error(const char* text) {
        append("%s", text);
        return -1;
    }
};

}  // namespace

SCSIFactory::SCSIFactory(const char* name)
    : BaseClassDDAPI(name), m_analyzer(nullptr), m_cdbLength(0), m_ioctlErrno(0) {
    memset(m_sense, 0, sizeof(m_sense));
    memset(m_cdb, 0, sizeof(m_cdb));
    memset(m_ieText, 0, sizeof(m_ieText));
    m_analyzer = new (std::nothrow) SCSISenseAnalyzer("Sense Analyzer");
    if (!m_analyzer) addErrorMsg(kConstruct, "Sense Analyzer allocation failed");
}

SCSIFactory::~SCSIFactory() { delete m_analyzer; }

ERRORCODE SCSIFactory::sg_io_cmnd_io(int fd, scsi_cmnd_io* command) {
    sg_io_hdr_t io;
    memset(&io, 0, sizeof(io));
    io.interface_id = 'S';
    switch (command->direction) {
    case SCSI_DXFER_NONE:
        io.dxfer_direction = SG_DXFER_NONE;
        break;
    case SCSI_DXFER_FROM_DEVICE:
        io.dxfer_direction = SG_DXFER_FROM_DEV;
        break;
    case SCSI_DXFER_TO_DEVICE:
        io.dxfer_direction = SG_DXFER_TO_DEV;
        break;
    default:
        return kBadDirection;
    }
    io.cmdp = command->cdb;
    io.cmd_len = static_cast<unsigned char>(command->cdbLength);
    io.dxferp = command->buffer;
    io.dxfer_len = command->bufferLength;
    io.sbp = command->sense;
    io.mx_sb_len = static_cast<unsigned char>(command->senseLength > 255 ? 255 : command->senseLength);
    io.timeout = kTimeoutMs;
    io.flags = SG_FLAG_DIRECT_IO;
    if (command->sense && command->senseLength) memset(command->sense, 0, command->senseLength);

    quarn::Platform& p = quarn::platform();
    int rc;
    if (command->direction == SCSI_DXFER_TO_DEVICE) {
        // A write interrupted before the driver queued it has not reached the disk.
        do {
            rc = p.ioctl(fd, SG_IO, &io);
        } while (rc < 0 && errno == EINTR);
    } else {
        rc = p.ioctl(fd, SG_IO, &io);
    }
    if (rc < 0) {
        m_ioctlErrno = errno;
        return kIoctlFail;
    }
    return 0;
}

ERRORCODE SCSIFactory::issue(int fd, const unsigned char* cdb, unsigned int cdbLength, int direction,
                             unsigned char* buffer, unsigned int length, bool translate) {
    if (cdb != m_cdb) {
        memset(m_cdb, 0, sizeof(m_cdb));
        memcpy(m_cdb, cdb, cdbLength);
    }
    m_cdbLength = cdbLength;
    scsi_cmnd_io command;
    command.cdb = m_cdb;
    command.cdbLength = cdbLength;
    command.direction = direction;
    command.buffer = buffer;
    command.bufferLength = buffer ? length : 0;
    command.sense = m_sense;
    command.senseLength = kSenseLength;
    command.timeout = kTimeoutMs;
    const ERRORCODE rc = sg_io_cmnd_io(fd, &command);
    if (rc) return rc;
    if (!translate || !m_analyzer) return 0;
    return m_analyzer->translateSenseDataToErrorCode(m_sense, kSenseLength);
}

ErrorMsg* SCSIFactory::finish(ERRORCODE function, ERRORCODE cause, const char* whatText) {
    if (cause == 0) {
        m_statusCode = 0;
        return nullptr;
    }
    // The caller often formatted whatText in the message buffer that is rewritten here.
    const std::string copy = whatText ? whatText : "";
    const char* what = copy.c_str();
    m_statusCode = function | (cause & kCauseMask);
    if (cause == kIoctlFail) {
        formatMessage("%s: SG_IO: %s", what, quarn::systemErrorText(m_ioctlErrno).c_str());
    } else if ((cause & 0xFF000000u) == 0xCB000000u && (cause & kCauseMask) != (kSanity & kCauseMask)) {
        unsigned int key, asc, ascq;
        senseFields(m_sense, &key, &asc, &ascq);
        formatMessage("%s: sense key 0x%x, ASC 0x%02x, ASCQ 0x%02x", what, key, asc, ascq);
    } else {
        formatMessage("%s", what);
    }
    return returnErrorMsg(m_statusCode, m_message, nullptr);
}

// READ/WRITE(10) reach LBA 0xFFFFFFFF and 65535 blocks; the 16-byte form is used beyond
// either limit, so a large count is never cut to its low 16 bits.
static unsigned int buildReadWrite(unsigned char* cdb, bool write, unsigned long long lba, unsigned int blocks) {
    memset(cdb, 0, 16);
    if (lba <= 0xFFFFFFFFull && blocks <= 0xFFFF) {
        cdb[0] = write ? 0x2A : 0x28;
        putBE(cdb + 2, lba, 4);
        putBE(cdb + 7, blocks, 2);
    } else {
        cdb[0] = write ? 0x8A : 0x88;
        putBE(cdb + 2, lba, 8);
        putBE(cdb + 10, blocks, 4);
    }
    return 16;
}

ErrorMsg* SCSIFactory::executeSCSIRead(int fd, unsigned long long lba, unsigned int blocks, unsigned char* buffer,
                                       unsigned int bytes) {
    unsigned char cdb[16];
    const unsigned int n = buildReadWrite(cdb, false, lba, blocks);
    const ERRORCODE cause = issue(fd, cdb, n, SCSI_DXFER_FROM_DEVICE, buffer, bytes, false);
    return finish(kRead, cause, formatMessage("READ(%d) LBA 0x%llx", cdb[0] == 0x28 ? 10 : 16, lba));
}

ErrorMsg* SCSIFactory::executeSCSIWrite(int fd, unsigned long long lba, unsigned int blocks, unsigned char* buffer,
                                        unsigned int bytes) {
    unsigned char cdb[16];
    const unsigned int n = buildReadWrite(cdb, true, lba, blocks);
    const ERRORCODE cause = issue(fd, cdb, n, SCSI_DXFER_TO_DEVICE, buffer, bytes, false);
    return finish(kWrite, cause, formatMessage("WRITE(%d) LBA 0x%llx", cdb[0] == 0x2A ? 10 : 16, lba));
}

ErrorMsg* SCSIFactory::scsiTestUnitReady(int fd) {
    const unsigned char cdb[6] = {0x00, 0, 0, 0, 0, 0};
    ERRORCODE cause = issue(fd, cdb, 6, SCSI_DXFER_NONE, nullptr, 0, true);
    if (cause == kUnitAttention) cause = issue(fd, cdb, 6, SCSI_DXFER_NONE, nullptr, 0, true);
    return finish(kTestUnitReady, cause, "TEST UNIT READY");
}

ERRORCODE SCSIFactory::inquiryCause(int fd, bool vpd, unsigned char page, unsigned char* buffer,
                                    unsigned int length) {
    if (length > kMaxInquiry || !buffer) return kIllegalBufferSize;
    unsigned char cdb[6] = {0x12, 0, 0, 0, 0, 0};
    if (vpd) {
        cdb[1] = 0x01;
        cdb[2] = page;
    }
    putBE(cdb + 3, length, 2);
    memset(buffer, 0, length);
    const ERRORCODE cause = issue(fd, cdb, 6, SCSI_DXFER_FROM_DEVICE, buffer, length, true);
    if (cause || !vpd) return cause;
    if (length > 1 && buffer[1] != page) return kSanity;
    if (page == 0x80 && length > 2 && buffer[2] != 0) return kSanity;
    return 0;
}

ErrorMsg* SCSIFactory::scsiStdInquiry(int fd, unsigned char* buffer, unsigned int length) {
    return finish(kStdInquiry, inquiryCause(fd, false, 0, buffer, length), "INQUIRY");
}

ErrorMsg* SCSIFactory::scsiInquiryVpd(int fd, unsigned char page, unsigned char* buffer, unsigned int length) {
    const ERRORCODE cause = inquiryCause(fd, true, page, buffer, length);
    return finish(kInquiryVpd, cause, formatMessage("INQUIRY VPD page 0x%02x", page));
}

ERRORCODE SCSIFactory::logSenseCause(int fd, unsigned char page, unsigned char subpage, unsigned char* buffer,
                                     unsigned int length, unsigned char knownLength) {
    if (!buffer) return kIllegalBufferSize;
    unsigned char cdb[10] = {0x4D, 0, static_cast<unsigned char>(0x40 | (page & 0x3F)), subpage, 0, 0, 0, 0, 0, 0};
    auto pageOk = [&] { return (buffer[0] & 0x3F) == (page & 0x3F) && getBE(buffer + 2, 2) != 0; };
    unsigned int pageLength = knownLength;
    if (knownLength == 0) {
        if (length < 4) return kIllegalBufferSize;
        memset(buffer, 0, length);
        putBE(cdb + 7, 4, 2);
        const ERRORCODE cause = issue(fd, cdb, 10, SCSI_DXFER_FROM_DEVICE, buffer, 4, true);
        if (cause) return cause;
        if (!pageOk()) return kSanity;
        pageLength = static_cast<unsigned int>(getBE(buffer + 2, 2)) + 4;
        pageLength += pageLength & 1;
        if (pageLength > length) pageLength = length;
    } else if (length < knownLength) {
        return kIllegalBufferSize;
    }
    memset(buffer, 0, length);
    putBE(cdb + 7, pageLength, 2);
    const ERRORCODE cause = issue(fd, cdb, 10, SCSI_DXFER_FROM_DEVICE, buffer, pageLength, true);
    if (cause) return cause;
    return pageOk() ? 0 : kSanity;
}

ErrorMsg* SCSIFactory::scsiLogSense(int fd, unsigned char page, unsigned char subpage, unsigned char* buffer,
                                    unsigned int length, unsigned char knownLength) {
    const ERRORCODE cause = logSenseCause(fd, page, subpage, buffer, length, knownLength);
    return finish(kLogSense, cause, formatMessage("LOG SENSE page 0x%02x/0x%02x", page, subpage));
}

ErrorMsg* SCSIFactory::scsiLogSelect(int fd, unsigned char pcr, unsigned char sp, unsigned char pc,
                                     unsigned char page, unsigned char subpage, unsigned char* buffer,
                                     unsigned int length) {
    if (length > 0xFFFF || (length && !buffer))
        return finish(kLogSelect, kIllegalBufferSize, "LOG SELECT parameter list");
    unsigned char cdb[10] = {0x4C, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    cdb[1] = static_cast<unsigned char>((pcr & 1) << 1 | (sp & 1));
    cdb[2] = static_cast<unsigned char>((pc & 3) << 6 | (page & 0x3F));
    cdb[3] = subpage;
    putBE(cdb + 7, length, 2);
    const ERRORCODE cause =
        issue(fd, cdb, 10, length ? SCSI_DXFER_TO_DEVICE : SCSI_DXFER_NONE, length ? buffer : nullptr, length, true);
    return finish(kLogSelect, cause, formatMessage("LOG SELECT page 0x%02x", page));
}

ERRORCODE SCSIFactory::modeSenseCause(bool tenByte, int fd, unsigned char page, unsigned char subpage,
                                      unsigned char pc, unsigned char* buffer, unsigned int length) {
    if (!buffer || length > (tenByte ? 0xFFFFu : 0xFFu)) return kIllegalBufferSize;
    unsigned char cdb[10] = {0};
    cdb[0] = tenByte ? 0x5A : 0x1A;
    cdb[2] = static_cast<unsigned char>((pc & 3) << 6 | (page & 0x3F));
    cdb[3] = subpage;
    if (tenByte)
        putBE(cdb + 7, length, 2);
    else
        cdb[4] = static_cast<unsigned char>(length);
    const unsigned int cdbLength = tenByte ? 10 : 6;
    memset(buffer, 0, length);
    ERRORCODE cause = issue(fd, cdb, cdbLength, SCSI_DXFER_FROM_DEVICE, buffer, length, true);
    if (cause == kUnitAttention) cause = issue(fd, cdb, cdbLength, SCSI_DXFER_FROM_DEVICE, buffer, length, true);
    if (cause) return cause;
    if ((page & 0x3F) != 0x3F) {
        const int offset = getSCSIModePageOffset(buffer, length, tenByte ? 10 : 6);
        if (offset < 0 || static_cast<unsigned int>(offset) >= length || (buffer[offset] & 0x3F) != (page & 0x3F))
            return kSanity;
    }
    return 0;
}

ErrorMsg* SCSIFactory::scsiModeSense(int fd, unsigned char page, unsigned char subpage, unsigned char pc,
                                     unsigned char* buffer, unsigned int length) {
    const ERRORCODE cause = modeSenseCause(false, fd, page, subpage, pc, buffer, length);
    return finish(kModeSense, cause, formatMessage("MODE SENSE(6) page 0x%02x", page));
}

ErrorMsg* SCSIFactory::scsiModeSense10(int fd, unsigned char page, unsigned char subpage, unsigned char pc,
                                       unsigned char* buffer, unsigned int length) {
    const ERRORCODE cause = modeSenseCause(true, fd, page, subpage, pc, buffer, length);
    return finish(kModeSense10, cause, formatMessage("MODE SENSE(10) page 0x%02x", page));
}

// The caller may hand back a MODE SENSE reply: its mode data length is reserved in a
// MODE SELECT list and is sent as zero from a copy, leaving the caller's buffer alone.
ERRORCODE SCSIFactory::modeSelectCause(bool tenByte, int fd, unsigned char sp, unsigned char* buffer,
                                       unsigned int length) {
    const unsigned int header = tenByte ? 8 : 4;
    if (!buffer || length < header || length > (tenByte ? 0xFFFFu : 0xFFu)) return kIllegalBufferSize;
    std::vector<unsigned char> list(buffer, buffer + length);
    list[0] = 0;
    if (tenByte) list[1] = 0;
    unsigned char cdb[10] = {0};
    cdb[0] = tenByte ? 0x55 : 0x15;
    cdb[1] = static_cast<unsigned char>(0x10 | (sp & 1));  // PF: pages in the standard format
    if (tenByte)
        putBE(cdb + 7, length, 2);
    else
        cdb[4] = static_cast<unsigned char>(length);
    return issue(fd, cdb, tenByte ? 10 : 6, SCSI_DXFER_TO_DEVICE, list.data(), length, true);
}

ErrorMsg* SCSIFactory::scsiModeSelect(int fd, unsigned char sp, unsigned char* buffer, unsigned int length) {
    return finish(kModeSelect, modeSelectCause(false, fd, sp, buffer, length), "MODE SELECT(6)");
}

ErrorMsg* SCSIFactory::scsiModeSelect10(int fd, unsigned char sp, unsigned char* buffer, unsigned int length) {
    return finish(kModeSelect10, modeSelectCause(true, fd, sp, buffer, length), "MODE SELECT(10)");
}

int SCSIFactory::getSCSIModePageOffset(unsigned char* buffer, unsigned int length, unsigned char modeSense) {
    if (!buffer) return -1;
    unsigned int header;
    unsigned int descriptors;
    unsigned int dataLength;
    if (modeSense == 10) {
        if (length < 8) return -1;
        header = 8;
        descriptors = static_cast<unsigned int>(getBE(buffer + 6, 2));
        dataLength = static_cast<unsigned int>(getBE(buffer, 2)) + 2;
    } else {
        if (length < 4) return -1;
        header = 4;
        descriptors = buffer[3];
        dataLength = buffer[0] + 1u;
    }
    const unsigned int offset = header + descriptors;
    if (offset >= dataLength || offset >= length) return -2;
    return static_cast<int>(offset);
}

ErrorMsg* SCSIFactory::scsiRequestSense(int fd, unsigned char* buffer, unsigned int length) {
    if (!buffer || length > 0xFF) return finish(kRequestSense, kIllegalBufferSize, "REQUEST SENSE");
    unsigned char cdb[6] = {0x03, 0, 0, 0, static_cast<unsigned char>(length), 0};
    memset(buffer, 0, length);
    return finish(kRequestSense, issue(fd, cdb, 6, SCSI_DXFER_FROM_DEVICE, buffer, length, true), "REQUEST SENSE");
}

ErrorMsg* SCSIFactory::scsiSendDiagnostic(int fd, unsigned char functionCode, unsigned char* buffer,
                                          unsigned int length) {
    if (length > 0xFFFF || (length && !buffer))
        return finish(kSendDiagnostic, kIllegalBufferSize, "SEND DIAGNOSTIC parameter list");
    unsigned char cdb[6] = {0x1D, 0, 0, 0, 0, 0};
    cdb[1] = functionCode == 0 ? 0x04 : static_cast<unsigned char>((functionCode & 7) << 5);
    if (length) cdb[1] |= 0x10;
    putBE(cdb + 3, length, 2);
    const ERRORCODE cause =
        issue(fd, cdb, 6, length ? SCSI_DXFER_TO_DEVICE : SCSI_DXFER_NONE, length ? buffer : nullptr, length, true);
    return finish(kSendDiagnostic, cause, formatMessage("SEND DIAGNOSTIC code %u", functionCode));
}

ErrorMsg* SCSIFactory::scsiReadCapacity10(int fd, unsigned int* lastLBA, unsigned int* blockLength) {
    unsigned char cdb[10] = {0x25, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    unsigned char reply[8] = {0};
    const ERRORCODE cause = issue(fd, cdb, 10, SCSI_DXFER_FROM_DEVICE, reply, sizeof(reply), true);
    if (!cause) {
        if (lastLBA) *lastLBA = static_cast<unsigned int>(getBE(reply, 4));
        if (blockLength) *blockLength = static_cast<unsigned int>(getBE(reply + 4, 4));
    }
    return finish(kReadCapacity10, cause, "READ CAPACITY(10)");
}

ErrorMsg* SCSIFactory::scsiReadCapacity16(int fd, unsigned char* buffer, unsigned int length) {
    if (!buffer || length == 0) return finish(kReadCapacity16, kIllegalBufferSize, "READ CAPACITY(16)");
    unsigned char cdb[16] = {0x9E, 0x10};
    putBE(cdb + 10, length, 4);
    memset(buffer, 0, length);
    return finish(kReadCapacity16, issue(fd, cdb, 16, SCSI_DXFER_FROM_DEVICE, buffer, length, true),
                  "READ CAPACITY(16)");
}

ERRORCODE SCSIFactory::modeSenseEither(int fd, unsigned char modeSense, unsigned char page, unsigned char* buffer,
                                       unsigned int length, int* offset) {
    bool ten = modeSense >= 7;
    ERRORCODE cause = modeSenseCause(ten, fd, page, 0, 0, buffer, length);
    if (!ten && cause == kUnsupportedOpcode) {
        ten = true;
        cause = modeSenseCause(true, fd, page, 0, 0, buffer, length);
    }
    if (cause) return cause;
    *offset = getSCSIModePageOffset(buffer, length, ten ? 10 : 6);
    return *offset < 0 ? kSanity : 0;
}

ErrorMsg* SCSIFactory::getSCSIDriveRPM(int fd, unsigned char modeSense, int* rpm, int* formFactor, int* zoned) {
    unsigned char page[64];
    if (inquiryCause(fd, true, 0xB1, page, sizeof(page)) == 0 && getBE(page + 2, 2) > 2) {
        if (rpm) *rpm = static_cast<int>(getBE(page + 4, 2));
        if (formFactor) *formFactor = page[7] & 0x0F;
        if (zoned) *zoned = (page[8] >> 4) & 1;
        return finish(kDriveRPM, 0, nullptr);
    }
    // No Block Device Characteristics page: the Rigid Disk Geometry mode page has the rate.
    int offset = 0;
    const ERRORCODE cause = modeSenseEither(fd, modeSense, 0x04, page, sizeof(page), &offset);
    if (cause) return finish(kDriveRPM, cause, "MODE SENSE page 0x04");
    if (static_cast<unsigned int>(offset) + 22 > sizeof(page)) return finish(kDriveRPM, kSanity, "page 0x04 length");
    if (rpm) *rpm = static_cast<int>(getBE(page + offset + 20, 2));
    if (formFactor) *formFactor = 0;
    if (zoned) *zoned = 0;
    return finish(kDriveRPM, 0, nullptr);
}

ErrorMsg* SCSIFactory::getSCSITransportProtocol(int fd, unsigned char modeSense, int* protocol) {
    unsigned char page[64];
    int offset = 0;
    const ERRORCODE cause = modeSenseEither(fd, modeSense, 0x19, page, sizeof(page), &offset);
    if (cause) return finish(kTransportProtocol, cause, "MODE SENSE page 0x19");
    const unsigned char* p = page + offset;
    if (static_cast<unsigned int>(offset) + 3 <= sizeof(page) && p[1] > 1 && (p[0] & 0x3F) == 0x19) {
        if (protocol) *protocol = p[2] & 0x0F;
    }
    return finish(kTransportProtocol, 0, nullptr);
}

ErrorMsg* SCSIFactory::getSCSIDriveTemperature(int fd, unsigned char* current, unsigned char* reference) {
    unsigned char page[kPageBuffer];
    const ERRORCODE cause = logSenseCause(fd, 0x0D, 0, page, sizeof(page), 0);
    if (current) *current = cause ? 0 : page[9];
    if (reference) *reference = cause ? 0 : page[15];
    return finish(kDriveTemperature, cause, "LOG SENSE page 0x0d");
}

ERRORCODE SCSIFactory::readCounterPage(int fd, unsigned char pageCode, SCSI_ERROR_COUNTER* counter) {
    unsigned char page[kPageBuffer];
    const ERRORCODE cause = logSenseCause(fd, pageCode, 0, page, sizeof(page), 0);
    if (cause) return cause;
    unsigned int end = 4 + static_cast<unsigned int>(getBE(page + 2, 2));
    if (end > sizeof(page)) end = sizeof(page);
    for (unsigned int at = 4; at + 4 <= end;) {
        const unsigned int code = static_cast<unsigned int>(getBE(page + at, 2));
        const unsigned int length = page[at + 3];
        if (at + 4 + length > end) break;
        // Wider counters keep their low-order (last) 8 bytes.
        const unsigned int width = length > 8 ? 8 : length;
        const uint64_t value = getBE(page + at + 4 + length - width, static_cast<int>(width));
        if (pageCode == 0x06) {
            if (code == 0) {
                counter->totalUncorrected = value;  // carried to nonMediumErrors by the caller
                counter->gotParameter[0] = true;
            } else {
                counter->gotOther = true;
            }
        } else if (code <= 6) {
            counter->gotParameter[code] = true;
            switch (code) {
            case 0: counter->correctedFast = value; break;
            case 1: counter->correctedDelayed = value; break;
            case 2: counter->rereadsRewrites = value; break;
            case 3: counter->totalCorrected = value; break;
            case 4: counter->correctionAlgorithmRuns = value; break;
            case 5:
                snprintf(counter->gigabytesProcessed, sizeof(counter->gigabytesProcessed), "%.3f",
                         static_cast<double>(value) / 1e9);
                break;
            default: counter->totalUncorrected = value; break;
            }
        } else {
            counter->gotOther = true;
        }
        at += 4 + length;
    }
    return 0;
}

// A counter page the drive does not implement (ILLEGAL REQUEST) leaves its counters and
// flags empty and the others are still read: many drives have no verify page. Any
// other failure ends the call.
ErrorMsg* SCSIFactory::getSCSIErrorLog(int fd, SCSI_ERROR_LOG* log) {
    if (!log) return finish(kErrorLog, kBadParameter1, "no log record");
    *log = SCSI_ERROR_LOG();
    struct {
        unsigned char page;
        SCSI_ERROR_COUNTER* counter;
    } pages[] = {{0x03, &log->read}, {0x02, &log->write}, {0x05, &log->verify}};
    for (auto& p : pages) {
        const ERRORCODE cause = readCounterPage(fd, p.page, p.counter);
        if (cause && !isUnsupported(cause)) return finish(kErrorLog, cause, formatMessage("LOG SENSE page 0x%02x", p.page));
    }
    SCSI_ERROR_COUNTER nonMedium;
    const ERRORCODE cause = readCounterPage(fd, 0x06, &nonMedium);
    if (cause && !isUnsupported(cause)) return finish(kErrorLog, cause, "LOG SENSE page 0x06");
    log->nonMediumErrors = nonMedium.totalUncorrected;
    log->gotNonMedium = nonMedium.gotParameter[0];
    log->gotNonMediumOther = nonMedium.gotOther;
    return finish(kErrorLog, 0, nullptr);
}

ErrorMsg* SCSIFactory::getSmartHealthStatus(int fd, std::string* status) {
    unsigned char page[kPageBuffer];
    const ERRORCODE cause = logSenseCause(fd, 0x2F, 0, page, sizeof(page), 0);
    if (cause) return finish(kHealthStatus, cause, "LOG SENSE page 0x2f");
    // The first parameter (code 0) carries the ASC and ASCQ in its first two bytes.
    if (getBE(page + 4, 2) != 0 || getBE(page + 2, 2) < 6) {
        m_statusCode = kHealthStatus;
        return returnErrorMsg(kHealthStatus, "bad parameter code or length", nullptr);
    }
    const char* text = scsiGetInformationExceptionString(page[8], page[9]);
    if (status) *status = text ? text : "OK";
    return finish(kHealthStatus, 0, nullptr);
}

ErrorMsg* SCSIFactory::scsiReadDefect12(int fd, unsigned int requestPList, unsigned int requestGList,
                                        unsigned int format, unsigned int addressDescriptorIndex,
                                        unsigned char* buffer, unsigned int length) {
    if (!buffer || length == 0) return finish(kReadDefect12, kIllegalBufferSize, "READ DEFECT DATA(12)");
    unsigned char cdb[12] = {0xB7};
    cdb[1] = static_cast<unsigned char>((requestPList & 1) << 4 | (requestGList & 1) << 3 | (format & 7));
    putBE(cdb + 2, addressDescriptorIndex, 4);
    putBE(cdb + 6, length, 4);
    memset(buffer, 0, length);
    return finish(kReadDefect12, issue(fd, cdb, 12, SCSI_DXFER_FROM_DEVICE, buffer, length, true),
                  "READ DEFECT DATA(12)");
}

const char* SCSIFactory::scsiGetInformationExceptionString(unsigned char asc, unsigned char ascq) {
    if (asc == 0x5D) {
        if (ascq == 0xFF) return "FAILURE PREDICTION THRESHOLD EXCEEDED (FALSE)";
        if (ascq < 0x6D) {
            if (const char* text = failurePredictionText(ascq)) return text;
        }
        snprintf(m_ieText, sizeof(m_ieText), "FAILURE PREDICTION THRESHOLD EXCEEDED: ascq=0x%x", ascq);
        return m_ieText;
    }
    if (asc == 0x0B) {
        switch (ascq) {
        case 0: return "WARNING";
        case 1: return "WARNING - SPECIFIED TEMPERATURE EXCEEDED";
        case 2: return "WARNING - ENCLOSURE DEGRADED";
        default:
            snprintf(m_ieText, sizeof(m_ieText), "WARNING: ascq=0x%x", ascq);
            return m_ieText;
        }
    }
    return nullptr;
}

int SCSIFactory::scsiVPDDevIDIter(const unsigned char* page, int pageLength, int* offset, int association,
                                  int designatorType, int codeSet) {
    int k = *offset;
    if (k < 0) {
        if (pageLength < 4) return pageLength == 0 ? -1 : -2;
        k = 0;
    } else {
        if (k + 4 > pageLength) return -2;
        k += 4 + page[k + 3];
    }
    for (;;) {
        if (pageLength - k < 4) return k == pageLength ? -1 : -2;
        const unsigned char* d = page + k;
        const bool match = (codeSet < 0 || codeSet == (d[0] & 0x0F)) &&
                           (association < 0 || association == ((d[1] >> 4) & 0x03)) &&
                           (designatorType < 0 || designatorType == (d[1] & 0x0F));
        if (match) {
            *offset = k;
            return 0;
        }
        k += 4 + d[3];
    }
}

int SCSIFactory::scsiDecodeLUDevID(const unsigned char* page, int pageLength, char* out, int outLength,
                                   int* transport) {
    if (transport) *transport = -1;
    if (outLength < 32) {
        if (outLength >= 1) out[0] = '\0';
        return -1;
    }
    out[0] = '\0';
    Writer w{out, outLength};
    int names = 0;
    int offset = -1;
    for (;;) {
        const int step = scsiVPDDevIDIter(page, pageLength, &offset, -1, -1, -1);
        if (step == -2) return w.error("error: bad structure");
        if (step != 0) return 0;
        const unsigned char* d = page + offset;
        const int length = d[3];
        const unsigned char* body = d + 4;
        if (offset + 4 + length > pageLength) return w.error("error: designator length");
        const int association = (d[1] >> 4) & 0x03;
        if (association != 0) {
            if (transport && (d[1] & 0x80) && *transport < 0) *transport = (d[0] >> 4) & 0x0F;
            continue;
        }
        const int codeSet = d[0] & 0x0F;
        switch (d[1] & 0x0F) {
        case 3: {  // NAA
            if (codeSet != 1) return w.error("error: NAA bad code_set");
            const int naa = length > 0 ? (body[0] >> 4) & 0x0F : 0;
            if (naa != 2 && naa != 3 && naa != 5 && naa != 6) return w.error("error: unexpected NAA");
            if (names) w.pos = 0;
            if (naa == 2 && length != 8) return w.error("error: NAA 2 length");
            if ((naa == 3 || naa == 5) && length != 8) return w.error("error: NAA 3 or 5 length");
            if (naa == 6 && length != 16) return w.error("error: NAA 6 length");
            w.append("0x");
            for (int i = 0; i < length; ++i) w.append("%02x", body[i]);
            break;
        }
        case 8:  // SCSI name string
            if (codeSet != 3) return w.error("error: SCSI name string");
            if (w.pos == 0) {
                // Bounded by the designator: a string without its NUL stays inside the page.
                w.append("%.*s", length, reinterpret_cast<const char*>(body));
                ++names;
            }
            break;
        case 2:  // EUI-64
            if (length != 8 && length != 12 && length != 16) return w.error("error: EUI-64 length");
            if (names) w.pos = 0;
            w.append("0x");
            for (int i = 0; i < length; ++i) w.append("%02x", body[i]);
            break;
        default:
            break;
        }
    }
}

void SCSIFactory::scsiFormatIDtoString(const char* in, unsigned char length, unsigned char* out) {
    if (!out) return;
    out[0] = '\0';
    if (!in) return;
    unsigned int n = length < 64 ? length : 64;
    unsigned int end = 0;
    while (end < n && in[end] != '\0') ++end;
    unsigned int start = 0;
    while (start < end && isspace(static_cast<unsigned char>(in[start]))) ++start;
    while (end > start && isspace(static_cast<unsigned char>(in[end - 1]))) --end;
    memcpy(out, in + start, end - start);
    out[end - start] = '\0';
}
