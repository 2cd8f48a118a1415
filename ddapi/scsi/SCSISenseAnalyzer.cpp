// SCSI sense data: translation to error codes, per-drive tallies with a printable report,
// and the texts of sense keys and additional sense codes.
#include "ddapi/scsi/SCSISenseAnalyzer.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

namespace {

// SCSI module, device layer: the error rows shared with the command layer.
constexpr ERRORCODE kNotReady = 0xCB080001;
constexpr ERRORCODE kUnsupportedOpcode = 0xCB080002;
constexpr ERRORCODE kUnsupportedField = 0xCB080003;
constexpr ERRORCODE kBadParameters = 0xCB080004;
constexpr ERRORCODE kNoMedium = 0xCB080006;
constexpr ERRORCODE kReadySoon = 0xCB080007;
constexpr ERRORCODE kUnitAttention = 0xCB080008;
constexpr ERRORCODE kMediumOrHardware = 0xCB080009;
constexpr ERRORCODE kUnexpectedKey = 0xCB08000A;
constexpr ERRORCODE kAborted = 0xCB08000B;

// Storage module, device layer.
constexpr ERRORCODE kSenseConditionsMet = 0xC4080013;
constexpr ERRORCODE kUnknownDrive = 0xC4082400;

struct PairText {
    unsigned char asc;
    unsigned char ascq;
    const char* text;
};

struct TripleText {
    unsigned char key;
    unsigned char asc;
    unsigned char ascq;
    const char* text;
};

// Conditions whose text is the same under every sense key.
const PairText kCommonPairs[] = {
    {0x05, 0x00, "Illegal request"},
    {0x06, 0x00, "Unit attention"},
    {0x07, 0x00, "Data protect"},
    {0x08, 0x00, "LUN communication failure"},
    {0x08, 0x01, "LUN communication timeout"},
    {0x08, 0x02, "LUN communication parity error"},
    {0x08, 0x03, "LUN communication CRC error"},
    {0x09, 0x00, "vendor specific sense key"},
    {0x09, 0x01, "servo fault"},
    {0x09, 0x04, "head select fault"},
    {0x0A, 0x00, "error log overflow"},
    {0x0B, 0x00, "aborted command"},
    {0x0C, 0x00, "write error"},
    {0x0C, 0x02, "write error - auto-realloc failed"},
    {0x0E, 0x00, "data miscompare"},
    {0x12, 0x00, "address mark not found for ID field"},
    {0x14, 0x00, "logical block not found"},
    {0x15, 0x00, "random positioning error"},
    {0x15, 0x01, "mechanical positioning error"},
    {0x15, 0x02, "positioning error detected by read of medium"},
    {0x27, 0x00, "write protected"},
    {0x29, 0x00, "POR or bus reset occurred"},
    {0x31, 0x01, "format failed"},
    {0x32, 0x01, "defect list update error"},
    {0x32, 0x02, "no spares available"},
    {0x35, 0x01, "unspecified enclosure services failure"},
    {0x37, 0x00, "parameter rounded"},
    {0x3D, 0x00, "invalid bits in identify message"},
    {0x3E, 0x00, "LUN not self-configured yet"},
    {0x40, 0x01, "DRAM parity error"},
    {0x40, 0x02, "DRAM parity error"},
    {0x42, 0x00, "power-on or self-test failure"},
    {0x4C, 0x00, "LUN failed self-configuration"},
    {0x5C, 0x00, "RPL status change"},
    {0x5C, 0x01, "spindles synchronised"},
    {0x5C, 0x02, "spindles not synchronised"},
    {0x65, 0x00, "voltage fault"},
};

const TripleText kTriples[] = {
    {0x0, 0x00, 0x00, "No error"},
    {0x0, 0x5D, 0x00, "No sense - PFA threshold reached"},
    {0x1, 0x01, 0x00, "Recovered Write error - no index"},
    {0x1, 0x02, 0x00, "Recovered no seek completion"},
    {0x1, 0x03, 0x00, "Recovered Write error - write fault"},
    {0x1, 0x09, 0x00, "Track following error"},
    {0x1, 0x0B, 0x01, "Temperature warning"},
    {0x1, 0x0C, 0x01, "Recovered Write error with auto-realloc - reallocated"},
    {0x1, 0x0C, 0x03, "Recovered Write error - recommend reassign"},
    {0x1, 0x12, 0x01, "Recovered data without ECC using prev logical block ID"},
    {0x1, 0x12, 0x02, "Recovered data with ECC using prev logical block ID"},
    {0x1, 0x14, 0x01, "Recovered Record Not Found"},
    {0x1, 0x16, 0x00, "Recovered Write error - Data Sync Mark Error"},
    {0x1, 0x16, 0x01, "Recovered Write error - Data Sync Error - data rewritten"},
    {0x1, 0x16, 0x02, "Recovered Write error - Data Sync Error - recommend rewrite"},
    {0x1, 0x16, 0x03, "Recovered Write error - Data Sync Error - data auto-reallocated"},
    {0x1, 0x16, 0x04, "Recovered Write error - Data Sync Error - recommend reassignment"},
    {0x1, 0x17, 0x00, "Recovered data with no error correction applied"},
    {0x1, 0x17, 0x01, "Recovered Read error - with retries"},
    {0x1, 0x17, 0x02, "Recovered data using positive offset"},
    {0x1, 0x17, 0x03, "Recovered data using negative offset"},
    {0x1, 0x17, 0x05, "Recovered data using previous logical block ID"},
    {0x1, 0x17, 0x06, "Recovered Read error - without ECC, auto reallocated"},
    {0x1, 0x17, 0x07, "Recovered Read error - without ECC, recommend reassign"},
    {0x1, 0x17, 0x08, "Recovered Read error - without ECC, recommend rewrite"},
    {0x1, 0x17, 0x09, "Recovered Read error - without ECC, data rewritten"},
    {0x1, 0x18, 0x00, "Recovered Read error - with ECC"},
    {0x1, 0x18, 0x01, "Recovered data with ECC and retries"},
    {0x1, 0x18, 0x02, "Recovered Read error - with ECC, auto reallocated"},
    {0x1, 0x18, 0x05, "Recovered Read error - with ECC, recommend reassign"},
    {0x1, 0x18, 0x06, "Recovered data using ECC and offsets"},
    {0x1, 0x18, 0x07, "Recovered Read error - with ECC, data rewritten"},
    {0x1, 0x1C, 0x00, "Defect List not found"},
    {0x1, 0x1C, 0x01, "Primary defect list not found"},
    {0x1, 0x1C, 0x02, "Grown defect list not found"},
    {0x1, 0x1F, 0x00, "Partial defect list transferred"},
    {0x1, 0x44, 0x00, "Internal target failure"},
    {0x1, 0x5D, 0x00, "PFA threshold reached"},
    {0x2, 0x04, 0x00, "Not Ready - Cause not reportable."},
    {0x2, 0x04, 0x01, "Not Ready - becoming ready"},
    {0x2, 0x04, 0x02, "Not Ready - need initialise command (start unit)"},
    {0x2, 0x04, 0x03, "Not Ready - manual intervention required"},
    {0x2, 0x04, 0x04, "Not Ready - format in progress"},
    {0x2, 0x04, 0x09, "Not Ready - self-test in progress"},
    {0x2, 0x31, 0x00, "Not Ready - medium format corrupted"},
    {0x2, 0x31, 0x01, "Not Ready - format command failed"},
    {0x2, 0x35, 0x02, "Not Ready - enclosure services unavailable"},
    {0x2, 0x3A, 0x00, "Not Ready - medium not present"},
    {0x2, 0x3A, 0x01, "Not Ready - medium not present - tray closed"},
    {0x2, 0x3A, 0x02, "Not Ready - medium not present - tray open"},
    {0x2, 0x4C, 0x00, "Diagnostic Failure - config not loaded"},
    {0x3, 0x02, 0x00, "Medium Error - No Seek Complete"},
    {0x3, 0x03, 0x00, "Medium Error - write fault"},
    {0x3, 0x10, 0x00, "Medium Error - ID CRC error"},
    {0x3, 0x11, 0x00, "Medium Error - unrecovered read error"},
    {0x3, 0x11, 0x01, "Medium Error - read retries exhausted"},
    {0x3, 0x11, 0x02, "Medium Error - error too long to correct"},
    {0x3, 0x11, 0x04, "Medium Error - unrecovered read error - auto re-alloc failed"},
    {0x3, 0x11, 0x0B, "Medium Error - unrecovered read error - recommend reassign"},
    {0x3, 0x14, 0x01, "Medium Error - record not found"},
    {0x3, 0x16, 0x00, "Medium Error - Data Sync Mark error"},
    {0x3, 0x16, 0x04, "Medium Error - Data Sync Error - recommend reassign"},
    {0x3, 0x19, 0x00, "Medium Error - defect list error"},
    {0x3, 0x19, 0x01, "Medium Error - defect list not available"},
    {0x3, 0x19, 0x02, "Medium Error - defect list error in primary list"},
    {0x3, 0x19, 0x03, "Medium Error - defect list error in grown list"},
    {0x3, 0x19, 0x0E, "Medium Error - fewer than 50% defect list copies"},
    {0x3, 0x31, 0x00, "Medium Error - medium format corrupted"},
    {0x3, 0x31, 0x01, "Medium Error - format command failed"},
    {0x4, 0x01, 0x00, "Hardware Error - no index or sector"},
    {0x4, 0x02, 0x00, "Hardware Error - no seek complete"},
    {0x4, 0x03, 0x00, "Hardware Error - write fault"},
    {0x4, 0x09, 0x00, "Hardware Error - track following error"},
    {0x4, 0x11, 0x00, "Hardware Error - unrecovered read error in reserved area"},
    {0x4, 0x15, 0x01, "Hardware Error - Mechanical positioning error"},
    {0x4, 0x16, 0x00, "Hardware Error - Data Sync Mark error in reserved area"},
    {0x4, 0x19, 0x00, "Hardware Error - defect list error"},
    {0x4, 0x19, 0x02, "Hardware Error - defect list error in Primary List"},
    {0x4, 0x19, 0x03, "Hardware Error - defect list error in Grown List"},
    {0x4, 0x31, 0x00, "Hardware Error - reassign failed"},
    {0x4, 0x32, 0x00, "Hardware Error - no defect spare available"},
    {0x4, 0x35, 0x01, "Hardware Error - unsupported enclosure function"},
    {0x4, 0x35, 0x02, "Hardware Error - enclosure services unavailable"},
    {0x4, 0x35, 0x03, "Hardware Error - enclosure services transfer failure"},
    {0x4, 0x35, 0x04, "Hardware Error - enclosure services refused"},
    {0x4, 0x35, 0x05, "Hardware Error - enclosure services checksum error"},
    {0x4, 0x3E, 0x03, "Hardware Error - self-test failed"},
    {0x4, 0x3E, 0x04, "Hardware Error - unable to update self-test"},
    {0x4, 0x44, 0x00, "Hardware Error - internal target failure"},
    {0x5, 0x1A, 0x00, "Illegal Request - parm list length error"},
    {0x5, 0x20, 0x00, "Illegal Request - invalid/unsupported command code"},
    {0x5, 0x21, 0x00, "Illegal Request - LBA out of range"},
    {0x5, 0x24, 0x00, "Illegal Request - invalid field in CDB (Command Descriptor Block)"},
    {0x5, 0x25, 0x00, "Illegal Request - invalid LUN"},
    {0x5, 0x26, 0x00, "Illegal Request - invalid fields in parm list"},
    {0x5, 0x26, 0x01, "Illegal Request - parameter not supported"},
    {0x5, 0x26, 0x02, "Illegal Request - invalid parm value"},
    {0x5, 0x26, 0x03, "Illegal Request - invalid field parameter - threshold parameter"},
    {0x5, 0x26, 0x04, "Illegal Request - invalid release of persistent reservation"},
    {0x5, 0x2C, 0x00, "Illegal Request - command sequence error"},
    {0x5, 0x35, 0x01, "Illegal Request - unsupported enclosure function"},
    {0x5, 0x49, 0x00, "Illegal Request - invalid message"},
    {0x5, 0x53, 0x00, "Illegal Request - media load or eject failed"},
    {0x5, 0x53, 0x01, "Illegal Request - unload tape failure"},
    {0x5, 0x53, 0x02, "Illegal Request - medium removal prevented"},
    {0x5, 0x55, 0x00, "Illegal Request - system resource failure"},
    {0x5, 0x55, 0x01, "Illegal Request - system buffer full"},
    {0x5, 0x55, 0x04, "Illegal Request - Insufficient Registration Resources"},
    {0x6, 0x28, 0x00, "Unit Attention - not-ready to ready transition (format complete)"},
    {0x6, 0x29, 0x00, "Unit Attention - POR or device reset occurred"},
    {0x6, 0x29, 0x01, "Unit Attention - POR occurred"},
    {0x6, 0x29, 0x02, "Unit Attention - SCSI bus reset occurred"},
    {0x6, 0x29, 0x03, "Unit Attention - TARGET RESET occurred"},
    {0x6, 0x29, 0x04, "Unit Attention - self-initiated-reset occurred"},
    {0x6, 0x29, 0x05, "Unit Attention - transceiver mode change to SE"},
    {0x6, 0x29, 0x06, "Unit Attention - transceiver mode change to LVD"},
    {0x6, 0x2A, 0x00, "Unit Attention - parameters changed"},
    {0x6, 0x2A, 0x01, "Unit Attention - mode parameters changed"},
    {0x6, 0x2A, 0x02, "Unit Attention - log select parms changed"},
    {0x6, 0x2A, 0x03, "Unit Attention - Reservations pre-empted"},
    {0x6, 0x2A, 0x04, "Unit Attention - Reservations released"},
    {0x6, 0x2A, 0x05, "Unit Attention - Registrations pre-empted"},
    {0x6, 0x2F, 0x00, "Unit Attention - commands cleared by another initiator"},
    {0x6, 0x3F, 0x00, "Unit Attention - target operating conditions have changed"},
    {0x6, 0x3F, 0x01, "Unit Attention - microcode changed"},
    {0x6, 0x3F, 0x02, "Unit Attention - changed operating definition"},
    {0x6, 0x3F, 0x03, "Unit Attention - inquiry parameters changed"},
    {0x6, 0x3F, 0x05, "Unit Attention - device identifier changed"},
    {0x6, 0x5D, 0x00, "Unit Attention - PFA threshold reached"},
    {0x7, 0x27, 0x00, "Write Protect - command not allowed"},
    {0xB, 0x00, 0x00, "Aborted Command - no additional sense code"},
    {0xB, 0x1B, 0x00, "Aborted Command - sync data transfer error (extra ACK)"},
    {0xB, 0x25, 0x00, "Aborted Command - unsupported LUN"},
    {0xB, 0x3F, 0x0F, "Aborted Command - echo buffer overwritten"},
    {0xB, 0x43, 0x00, "Aborted Command - message reject error"},
    {0xB, 0x44, 0x00, "Aborted Command - internal target failure"},
    {0xB, 0x45, 0x00, "Aborted Command - Selection/Reselection failure"},
    {0xB, 0x47, 0x00, "Aborted Command - SCSI parity error"},
    {0xB, 0x48, 0x00, "Aborted Command - initiator-detected error message received"},
    {0xB, 0x49, 0x00, "Aborted Command - inappropriate/illegal message"},
    {0xB, 0x4B, 0x00, "Aborted Command - data phase error"},
    {0xB, 0x4E, 0x00, "Aborted Command - overlapped commands attempted"},
    {0xB, 0x4F, 0x00, "Aborted Command - due to loop initialisation"},
    {0xB, 0x55, 0x03, "Aborted Command - insufficient resources"},
    {0xE, 0x1D, 0x00, "Miscompare - during verify byte check operation"},
};

constexpr unsigned int kTableKeys = 15;  // keys 0-14 have entries

uint32_t conditionIndex(unsigned int key, unsigned int asc, unsigned int ascq) {
    return (key & 0xFF) << 16 | (asc & 0xFF) << 8 | (ascq & 0xFF);
}

bool allZero(const unsigned char* sense, unsigned int length) {
    for (unsigned int i = 0; i < length; ++i)
        if (sense[i]) return false;
    return true;
}

// Key, ASC and ASCQ of a fixed-format buffer, left alone when the buffer is all zero.
void parseFixed(const unsigned char* sense, unsigned int length, unsigned int* key,
                unsigned int* asc, unsigned int* ascq) {
    if (length < 14 || allZero(sense, length)) return;
    *key = sense[2] & 0x0F;
    *asc = sense[12];
    *ascq = sense[13];
}

ERRORCODE translateKeyAlone(unsigned int key) {
    switch (key) {
    case 0:
    case 1:
        return 0;
    case 2:
        return kNotReady;
    case 3:
    case 4:
        return kMediumOrHardware;
    case 5:
        return kBadParameters;
    case 6:
        return kUnitAttention;
    case 11:
        return kAborted;
    default:
        return kUnexpectedKey;
    }
}

std::string hex(unsigned int value) {
    char text[16];
    snprintf(text, sizeof(text), "%x", value);
    return text;
}

}  // namespace

SCSISenseAnalyzer::SCSISenseAnalyzer(const char* name) : BaseClassDDAPI(name), tableReady(false) {}

SCSISenseAnalyzer::~SCSISenseAnalyzer() = default;

SCSISenseDrive* SCSISenseAnalyzer::findDrive(unsigned int driveID) {
    for (SCSISenseDrive& drive : m_drives)
        if (drive.driveID == driveID) return &drive;
    return nullptr;
}

ERRORCODE SCSISenseAnalyzer::translateSenseDataToErrorCode(unsigned char* sense, unsigned int length) {
    if (!sense) return 0;
    const unsigned int response = sense[0] & 0x7F;
    if (response < 0x70) return 0;
    unsigned int key;
    unsigned int asc;
    unsigned int ascq;
    if (response <= 0x71) {
        if (length < 14) return translateKeyAlone(sense[2] & 0x0F);
        key = sense[2] & 0x0F;
        asc = sense[12];
        ascq = sense[13];
    } else {
        key = sense[1] & 0x0F;
        asc = sense[2];
        ascq = sense[3];
    }
    if (key > 11) return kUnexpectedKey;
    switch (key) {
    case 0:
    case 1:
        return 0;
    case 2:
        if (asc == 0x3A) return kNoMedium;
        if (asc == 0x04 && ascq == 0x01) return kReadySoon;
        return kNotReady;
    case 3:
    case 4:
        return kMediumOrHardware;
    case 5:
        if (asc == 0x20) return kUnsupportedOpcode;
        if (asc == 0x24) return kUnsupportedField;
        return kBadParameters;
    case 6:
        return kUnitAttention;
    case 11:
        return kAborted;
    default:
        return kUnexpectedKey;
    }
}

ERRORCODE SCSISenseAnalyzer::parseSenseData(unsigned char* sense, unsigned int* key, unsigned int* asc,
                                            unsigned int* ascq) {
    if (sense) parseFixed(sense, kSenseBufferLength, key, asc, ascq);
    return 0;
}

void SCSISenseAnalyzer::initSenseKeyTable() {
    if (tableReady) return;
    m_conditions.clear();
    for (const PairText& p : kCommonPairs)
        for (unsigned int key = 0; key < kTableKeys; ++key)
            m_conditions[conditionIndex(key, p.asc, p.ascq)] = p.text;
    for (const TripleText& t : kTriples) m_conditions[conditionIndex(t.key, t.asc, t.ascq)] = t.text;
    tableReady = true;
}

std::string SCSISenseAnalyzer::categoryOf(unsigned int key) {
    switch (key) {
    case 0:
        return "NO Sense";
    case 1:
        return "Soft Error";
    case 2:
        return "Not Ready";
    case 3:
        return "Medium Error";
    case 4:
        return "Hardware Error";
    case 5:
        return "Illegal Request";
    case 6:
        return "Unit Attention";
    case 7:
        return "Write Protect";
    case 11:
        return "Aborted Command";
    default:
        return "Other";
    }
}

// Key 15 and code 0xFF lie outside the table; such a condition reads like its
// neighbours: category "Other" for key 15, and the vendor-specific or "N/A" text.
std::string SCSISenseAnalyzer::errorConditionOf(unsigned int key, unsigned int asc, unsigned int ascq) {
    initSenseKeyTable();
    auto it = m_conditions.find(conditionIndex(key, asc, ascq));
    if (it != m_conditions.end()) return it->second;
    if (asc >= 0x80 || ascq >= 0x80) return "Vendor specific";
    return "N/A";
}

ErrorMsg* SCSISenseAnalyzer::setSenseDataByID(unsigned int driveID, unsigned char* sense) {
    unsigned int key = 0;
    unsigned int asc = 0;
    unsigned int ascq = 0;
    parseSenseData(sense, &key, &asc, &ascq);
    if (key == 0) return nullptr;

    SCSISenseDrive* drive = findDrive(driveID);
    if (!drive) {
        m_drives.emplace_back();
        drive = &m_drives.back();
        drive->reserved = 0;
        drive->driveID = driveID;
        drive->driveName = "testWellKnownName";
    }
    for (SCSISenseData& entry : drive->senses) {
        if (entry.key == key && entry.asc == asc && entry.ascq == ascq) {
            ++entry.count;
            return nullptr;
        }
    }
    SCSISenseData entry;
    entry.category = categoryOf(key);
    entry.errorCondition = errorConditionOf(key, asc, ascq);
    entry.key = key;
    entry.asc = asc;
    entry.ascq = ascq;
    entry.count = 1;
    drive->senses.push_back(entry);
    return nullptr;
}

ErrorMsg* SCSISenseAnalyzer::listSenseDataByID(unsigned int driveID, bool compact) {
    std::vector<const SCSISenseData*> entries;
    if (const SCSISenseDrive* drive = findDrive(driveID))
        for (const SCSISenseData& entry : drive->senses) entries.push_back(&entry);
    std::stable_sort(entries.begin(), entries.end(), [](const SCSISenseData* a, const SCSISenseData* b) {
        return conditionIndex(a->key, a->asc, a->ascq) < conditionIndex(b->key, b->asc, b->ascq);
    });

    std::string report;
    if (compact) {
        for (const SCSISenseData* e : entries)
            report += hex(e->key) + hex(e->asc) + hex(e->ascq) + ":" + hex(e->count) + ", ";
        if (entries.empty()) report = "NoAnyErrorSenseData\t";
    } else {
        report = "\nCategory\tKey\tASC\tASCQ\tError_Condition\t\tCount\n";
        report += std::string(92, '-') + "\n";
        for (const SCSISenseData* e : entries)
            report += e->category + "\t" + hex(e->key) + "\t" + hex(e->asc) + "\t" + hex(e->ascq) + "\t" +
                      e->errorCondition + "\t\t" + hex(e->count) + "\n";
        report += entries.empty() ? "NoAnyErrorSenseData\n\n" : "\n";
    }
    senseReport = report;
    if (entries.empty()) return nullptr;
    return returnErrorMsg(kSenseConditionsMet, nullptr, nullptr);
}

ErrorMsg* SCSISenseAnalyzer::clearSenseDataByID(unsigned int driveID) {
    SCSISenseDrive* drive = findDrive(driveID);
    if (!drive) return returnErrorMsg(kUnknownDrive, formatMessage("drive %u has no sense log", driveID), nullptr);
    drive->senses.clear();
    return nullptr;
}

ErrorMsg* SCSISenseAnalyzer::setSenseDataByName(std::string, unsigned char) { return nullptr; }
ErrorMsg* SCSISenseAnalyzer::listSenseDataByName(std::string) { return nullptr; }
ErrorMsg* SCSISenseAnalyzer::clearSenseDataByName(std::string) { return nullptr; }

const char* SCSISenseAnalyzer::senseKeyName(unsigned int key) {
    static const char* const kNames[16] = {
        "No Sense",        "Recovered Error", "Not Ready",       "Medium Error",
        "Hardware Error",  "Illegal Request", "Unit Attention",  "Data Protect",
        "Blank Check",     "Vendor Specific", "Copy Aborted",    "Aborted Command",
        "Equal",           "Volume Overflow", "Miscompare",      "Completed"};
    return kNames[key & 0x0F];
}

unsigned int SCSISenseAnalyzer::printPassThroughSense(const unsigned char* sense, unsigned int length) {
    unsigned int key = 0;
    unsigned int asc = 0;
    unsigned int ascq = 0;
    if (!sense) return 0;
    parseFixed(sense, length, &key, &asc, &ascq);
    if (key == 0) return 0;
    printf("Status: CC\n");
    printf("SK:     %s\n", senseKeyName(key));
    printf("SKV:    %02X\n", key);
    printf("ASC:    %02X\n", asc);
    printf("ASCQ:   %02X\n", ascq);
    fflush(stdout);
    return key;
}
