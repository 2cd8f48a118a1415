// SMART of a SATA drive: the identify and SMART sectors are read over SG_IO with ATA
// PASS-THROUGH(16) and handed to libatasmart, which names, scales and judges them.
#include <fcntl.h>
#include <scsi/sg.h>

#include <cstddef>  // atasmart.h uses size_t without including it

#include <atasmart.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "api/StringUtil.h"
#include "api/platform/Platform.h"
#include "ddapi/sata/SATADDAPI.h"

namespace {
constexpr ERRORCODE kGetSMARTInfoByID = 0xC8083000;
constexpr ERRORCODE kOpenNodeFail = 0x06;
constexpr ERRORCODE kDumpSMARTError = 0x0B;
constexpr ERRORCODE kIDNotFound = 0x0D;
constexpr ERRORCODE kWrongLogicalID = 0x10;
constexpr ERRORCODE kSGIOFail = 0x12;
constexpr ERRORCODE kSGIOSense = 0x13;

constexpr unsigned char kAtaIdentify = 0xEC;
constexpr unsigned char kAtaSmart = 0xB0;
constexpr unsigned char kSmartReadData = 0xD0;
constexpr unsigned char kSmartReadThresholds = 0xD1;
constexpr unsigned char kSmartReturnStatus = 0xDA;

// The port whose attribute list the callback fills.
struct CallbackTarget {
    SATAPort* port;
};

// libatasmart keeps its printers (print_name, print_value) to itself; these give the
// same texts from the name, unit and value libatasmart parsed.
std::string printName(const SkSmartAttributeParsedData* a) {
    return a->name ? std::string(a->name) : std::to_string(a->id);
}

std::string printValue(uint64_t value, SkSmartAttributeUnit unit) {
    char s[32];
    switch (unit) {
    case SK_SMART_ATTRIBUTE_UNIT_MSECONDS:
        if (value >= 1000ull * 60 * 60 * 24 * 365)
            snprintf(s, sizeof(s), "%0.1f years", static_cast<double>(value) / (1000.0 * 60 * 60 * 24 * 365));
        else if (value >= 1000ull * 60 * 60 * 24 * 30)
            snprintf(s, sizeof(s), "%0.1f months", static_cast<double>(value) / (1000.0 * 60 * 60 * 24 * 30));
        else if (value >= 1000ull * 60 * 60 * 24)
            snprintf(s, sizeof(s), "%0.1f days", static_cast<double>(value) / (1000.0 * 60 * 60 * 24));
        else if (value >= 1000ull * 60 * 60)
            snprintf(s, sizeof(s), "%0.1f h", static_cast<double>(value) / (1000.0 * 60 * 60));
        else if (value >= 1000ull * 60)
            snprintf(s, sizeof(s), "%0.1f min", static_cast<double>(value) / (1000.0 * 60));
        else if (value >= 1000ull)
            snprintf(s, sizeof(s), "%0.1f s", static_cast<double>(value) / 1000.0);
        else
            snprintf(s, sizeof(s), "%llu ms", static_cast<unsigned long long>(value));
        break;
    case SK_SMART_ATTRIBUTE_UNIT_MKELVIN:
        snprintf(s, sizeof(s), "%0.1f C", (static_cast<double>(value) - 273150) / 1000);
        break;
    case SK_SMART_ATTRIBUTE_UNIT_SECTORS:
        snprintf(s, sizeof(s), "%llu sectors", static_cast<unsigned long long>(value));
        break;
    case SK_SMART_ATTRIBUTE_UNIT_PERCENT:
        snprintf(s, sizeof(s), "%llu%%", static_cast<unsigned long long>(value));
        break;
    case SK_SMART_ATTRIBUTE_UNIT_SMALL_PERCENT:
        snprintf(s, sizeof(s), "%0.3f%%", static_cast<double>(value));
        break;
    case SK_SMART_ATTRIBUTE_UNIT_MB:
        if (value >= 1000000ull)
            snprintf(s, sizeof(s), "%0.3f TB", static_cast<double>(value) / 1000000ull);
        else if (value >= 1000ull)
            snprintf(s, sizeof(s), "%0.3f GB", static_cast<double>(value) / 1000ull);
        else
            snprintf(s, sizeof(s), "%llu MB", static_cast<unsigned long long>(value));
        break;
    case SK_SMART_ATTRIBUTE_UNIT_NONE:
        snprintf(s, sizeof(s), "%llu", static_cast<unsigned long long>(value));
        break;
    default:
        snprintf(s, sizeof(s), "n/a");
        break;
    }
    return s;
}

void appendAttribute(SkDisk*, const SkSmartAttributeParsedData* a, void* userdata) {
    SATAPort* port = static_cast<CallbackTarget*>(userdata)->port;
    SMARTAttribute attribute;
    attribute.id = a->id;
    attribute.name = printName(a);
    attribute.current = a->current_value_valid ? std::to_string(a->current_value) : "n/a";
    attribute.worst = a->worst_value_valid ? std::to_string(a->worst_value) : "n/a";
    attribute.threshold = a->threshold_valid ? std::to_string(a->threshold) : "n/a";
    attribute.readable = printValue(a->pretty_value, a->pretty_unit);
    char raw[16];
    snprintf(raw, sizeof(raw), "%02x%02x%02x%02x%02x%02x", a->raw[0], a->raw[1], a->raw[2], a->raw[3], a->raw[4],
             a->raw[5]);
    attribute.rawData = raw;
    attribute.type = a->prefailure ? "prefail" : "old-age";
    attribute.update = a->online ? "online" : "offline";
    attribute.healthStatus = a->good_now_valid ? (a->good_now ? "yes" : "no") : "n/a";
    attribute.pastHealthStatus = a->good_in_the_past_valid ? (a->good_in_the_past ? "yes" : "no") : "n/a";
    port->smartAttributes.push_back(attribute);
}

const char* overallText(SkSmartOverall overall) {
    switch (overall) {
    case SK_SMART_OVERALL_GOOD: return "good";
    case SK_SMART_OVERALL_BAD_ATTRIBUTE_IN_THE_PAST: return "bad attribute in the past";
    case SK_SMART_OVERALL_BAD_SECTOR: return "bad sector";
    case SK_SMART_OVERALL_BAD_ATTRIBUTE_NOW: return "bad attribute now";
    case SK_SMART_OVERALL_BAD_SECTOR_MANY: return "bad sector many";
    case SK_SMART_OVERALL_BAD_STATUS: return "bad status";
    default: return "unknown status";
    }
}

// One section of libatasmart's blob: a four-letter tag, the length big-endian, the data.
void appendSection(std::vector<unsigned char>* blob, const char tag[4], const unsigned char* data, uint32_t length) {
    blob->insert(blob->end(), tag, tag + 4);
    for (int shift = 24; shift >= 0; shift -= 8) blob->push_back(static_cast<unsigned char>(length >> shift));
    blob->insert(blob->end(), data, data + length);
}
}  // namespace

// One ATA command through ATA PASS-THROUGH(16), PIO data-in of one sector or non-data,
// with CK_COND set so the ATA Status Return descriptor brings the result registers back
// (SAT: RECOVERED ERROR, "ATA pass through information available" 00/1D).
ERRORCODE SATADDAPI::ataCommand(int fd, unsigned char command, unsigned char feature, bool dataIn,
                                unsigned char* data, unsigned char* registers) {
    unsigned char cdb[kCDBLength];
    memset(cdb, 0, sizeof(cdb));
    cdb[0] = 0x85;
    cdb[1] = dataIn ? (4 << 1) : (3 << 1);
    cdb[2] = dataIn ? 0x2E : 0x20;
    cdb[4] = feature;
    cdb[6] = dataIn ? 1 : 0;
    if (command == kAtaSmart) {
        cdb[10] = 0x4F;
        cdb[12] = 0xC2;
    }
    cdb[14] = command;
    memcpy(m_cdb, cdb, sizeof(cdb));
    m_cdbLength = kCDBLength;

    sg_io_hdr_t io;
    memset(&io, 0, sizeof(io));
    memset(m_sense, 0, sizeof(m_sense));
    io.interface_id = 'S';
    io.cmd_len = kCDBLength;
    io.cmdp = m_cdb;
    io.mx_sb_len = kSenseLength;
    io.sbp = m_sense;
    io.dxfer_direction = dataIn ? SG_DXFER_FROM_DEV : SG_DXFER_NONE;
    io.dxfer_len = dataIn ? 512 : 0;
    io.dxferp = dataIn ? data : nullptr;
    io.timeout = 10000;
    if (quarn::platform().ioctl(fd, SG_IO, &io) < 0) {
        m_ioctlErrno = errno;
        return kSGIOFail;
    }
    const unsigned char* desc = m_sense + 8;
    const bool returned = io.sb_len_wr >= 22 && (m_sense[0] & 0x7F) == 0x72 && desc[0] == 0x09 && desc[1] == 0x0C;
    if (!returned) return kSGIOSense;
    const unsigned int key = m_sense[1] & 0x0F;
    if (key != 0x01 || m_sense[2] != 0x00 || m_sense[3] != 0x1D) return kSGIOSense;
    if (desc[13] & 0x01) return kSGIOSense;  // ERR in the ATA status: the drive aborted it
    if (registers) memcpy(registers, desc, 14);
    return 0;
}

// sk_disk_open on the device node would reach the drive through libatasmart's own system
// calls; the data is read here through the platform instead and handed to libatasmart
// as its blob, so the parse (names, units, quirks, thresholds, verdicts) stays its own.
ERRORCODE SATADDAPI::dumpSMARTInfo(SATAPort& port, const std::string& sgNode) {
    quarn::Platform& p = quarn::platform();
    const int fd = p.open(sgNode, O_RDWR | O_NONBLOCK);
    if (fd < 0) {
        m_ioctlErrno = errno;
        return kOpenNodeFail;
    }
    unsigned char identify[512], data[512], thresholds[512], registers[14];
    memset(identify, 0, sizeof(identify));
    ERRORCODE code = ataCommand(fd, kAtaIdentify, 0, true, identify, registers);
    if (code != 0) {
        p.close(fd);
        return code;
    }
    std::vector<unsigned char> blob;
    appendSection(&blob, "IDFY", identify, sizeof(identify));
    const bool smartSupported = identify[164] & 1;  // word 82 bit 0
    if (smartSupported) {
        if (ataCommand(fd, kAtaSmart, kSmartReturnStatus, false, nullptr, registers) == 0) {
            // LBA mid/high 4F/C2: no threshold exceeded; F4/2C: exceeded.
            const bool good = registers[9] == 0x4F && registers[11] == 0xC2;
            const bool bad = registers[9] == 0xF4 && registers[11] == 0x2C;
            if (good || bad) {
                const unsigned char status[4] = {0, 0, 0, static_cast<unsigned char>(good ? 1 : 0)};
                appendSection(&blob, "SMST", status, 4);
            }
        }
        code = ataCommand(fd, kAtaSmart, kSmartReadData, true, data, registers);
        if (code != 0) {
            p.close(fd);
            return code;
        }
        appendSection(&blob, "SMDT", data, sizeof(data));
        // Thresholds are optional: without them libatasmart marks the thresholds invalid.
        if (ataCommand(fd, kAtaSmart, kSmartReadThresholds, true, thresholds, registers) == 0)
            appendSection(&blob, "SMTH", thresholds, sizeof(thresholds));
    }
    p.close(fd);

    SkDisk* disk = nullptr;
    if (sk_disk_open(nullptr, &disk) < 0) {
        m_ioctlErrno = errno;
        return kOpenNodeFail;
    }
    if (sk_disk_set_blob(disk, blob.data(), blob.size()) < 0) {
        m_ioctlErrno = errno;
        sk_disk_free(disk);
        return kDumpSMARTError;
    }
    const SkIdentifyParsedData* ipd = nullptr;
    if (sk_disk_identify_parse(disk, &ipd) < 0) {
        m_ioctlErrno = errno;
        sk_disk_free(disk);
        return kDumpSMARTError;
    }
    port.serialNumber = ipd->serial;
    port.modelName = ipd->model;
    port.firmwareVersion = ipd->firmware;
    // Quirks (by model and firmware) are applied by libatasmart itself when it looks
    // attribute names up. Size and power mode are not part of the blob (ENODATA/ENOTSUP):
    // the capacity comes from READ CAPACITY(16).
    uint64_t size = 0;
    sk_disk_get_size(disk, &size);
    SkBool awake = 0;
    sk_disk_check_sleep_mode(disk, &awake);
    SkBool available = 0;
    if (sk_disk_smart_is_available(disk, &available) < 0 || !available) {
        port.smartStatus = "unknown status";
        sk_disk_free(disk);
        return 0;
    }
    SkBool good = 0;
    const SkSmartParsedData* spd = nullptr;
    if (sk_disk_smart_read_data(disk) < 0) {
        m_ioctlErrno = errno;
        sk_disk_free(disk);
        return kDumpSMARTError;
    }
    // Without a status in the blob the overall verdict below becomes "unknown status".
    sk_disk_smart_status(disk, &good);
    if (sk_disk_smart_parse(disk, &spd) < 0) {
        m_ioctlErrno = errno;
        sk_disk_free(disk);
        return kDumpSMARTError;
    }
    CallbackTarget target{&port};
    if (sk_disk_smart_parse_attributes(disk, appendAttribute, &target) < 0) {
        m_ioctlErrno = errno;
        sk_disk_free(disk);
        return kDumpSMARTError;
    }
    uint64_t value = 0;
    sk_disk_smart_get_bad(disk, &value);
    sk_disk_smart_get_power_on(disk, &value);
    sk_disk_smart_get_power_cycle(disk, &value);
    if (sk_disk_smart_get_temperature(disk, &value) == 0)
        port.temperature = printValue(value, SK_SMART_ATTRIBUTE_UNIT_MKELVIN);
    SkSmartOverall overall;
    port.smartStatus = sk_disk_smart_get_overall(disk, &overall) == 0 ? overallText(overall) : "unknown status";
    sk_disk_free(disk);
    return 0;
}

ErrorMsg* SATADDAPI::getSMARTInfoByID(unsigned int id, unsigned int firstAttribute, unsigned int lastAttribute,
                                      std::string* out) {
    for (const SATAController& c : m_controllers)
        if (c.logicalID == id)
            return returnErrorMsg(kGetSMARTInfoByID | kWrongLogicalID, formatMessage("%u is a controller", id), nullptr);
    SATAPort* port = portByID(id);
    if (!port) return returnErrorMsg(kGetSMARTInfoByID | kIDNotFound, formatMessage("logical ID %u", id), nullptr);
    if (port->deviceNode.empty() || port->sgDeviceNode.empty())
        return returnErrorMsg(kGetSMARTInfoByID | kOpenNodeFail, formatMessage("%s has no drive", port->name.c_str()),
                              nullptr);
    port->smartAttributes.clear();
    const ERRORCODE code = dumpSMARTInfo(*port, port->sgDeviceNode);
    if (code == kOpenNodeFail)
        return returnErrorMsg(kGetSMARTInfoByID | kOpenNodeFail,
                              formatMessage("%s: %s", port->sgDeviceNode.c_str(),
                                            quarn::systemErrorText(m_ioctlErrno).c_str()),
                              nullptr);
    if (code != 0) {
        const char* what = code == kSGIOFail    ? "SG_IO ioctl fail"
                           : code == kSGIOSense ? "ATA command failed"
                                                : "libatasmart could not parse the data";
        return returnErrorMsg(kGetSMARTInfoByID | kDumpSMARTError, formatMessage("%s: %s", port->name.c_str(), what),
                              nullptr);
    }

    char line[256];
    snprintf(line, sizeof(line), "%5s%25s%8s%8s%10s%20s%18s%10s%10s%15s%20s\n", "ID", "Name", "Current", "Worst",
             "Threshold", "Readable", "RawData", "Type", "Update", "HealthStatus", "PastHealthStatus");
    std::string table = line;
    table += std::string(145, '-') + "\n";
    for (const SMARTAttribute& a : port->smartAttributes) {
        if (a.id < firstAttribute || a.id > lastAttribute) continue;
        snprintf(line, sizeof(line), "%5u%25s%8s%8s%10s%20s%18s%10s%10s%15s%20s\n", a.id, a.name.c_str(),
                 a.current.c_str(), a.worst.c_str(), a.threshold.c_str(), a.readable.c_str(), a.rawData.c_str(),
                 a.type.c_str(), a.update.c_str(), a.healthStatus.c_str(), a.pastHealthStatus.c_str());
        table += line;
    }
    *out = table;
    return nullptr;
}
