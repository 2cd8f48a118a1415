// SCSI command layer: builds CDBs, sends them to an sg node over SG_IO, judges the sense
// data and decodes the log, mode and VPD pages the diagnostics use.
#pragma once

#include <cstdint>
#include <string>

#include "api/BaseClass.h"
#include "ddapi/scsi/SCSISenseAnalyzer.h"

// Data directions of scsi_cmnd_io.
constexpr int SCSI_DXFER_NONE = 0;
constexpr int SCSI_DXFER_FROM_DEVICE = 1;
constexpr int SCSI_DXFER_TO_DEVICE = 2;

// One command for the SG_IO routine.
struct QUARN_EXPORT scsi_cmnd_io {
    unsigned char* cdb = nullptr;
    unsigned int cdbLength = 0;
    int direction = SCSI_DXFER_NONE;
    unsigned char* buffer = nullptr;
    unsigned int bufferLength = 0;
    unsigned char* sense = nullptr;
    unsigned int senseLength = 0;
    unsigned int timeout = 0;  // not used: the routine has its own time-out
};

// Counters of one error counter log page (write, read or verify).
struct QUARN_EXPORT SCSI_ERROR_COUNTER {
    uint64_t correctedFast = 0;         // corrected without substantial delay
    uint64_t correctedDelayed = 0;      // corrected with possible delay
    uint64_t rereadsRewrites = 0;
    uint64_t totalCorrected = 0;
    uint64_t correctionAlgorithmRuns = 0;
    char gigabytesProcessed[32] = {0};  // "%.3f" of bytes processed / 10^9
    uint64_t totalUncorrected = 0;
    bool gotParameter[7] = {false, false, false, false, false, false, false};
    bool gotOther = false;
};

struct QUARN_EXPORT SCSI_ERROR_LOG {
    SCSI_ERROR_COUNTER read;
    SCSI_ERROR_COUNTER write;
    SCSI_ERROR_COUNTER verify;
    uint64_t nonMediumErrors = 0;
    bool gotNonMedium = false;
    bool gotNonMediumOther = false;
};

class QUARN_EXPORT SCSIFactory : public BaseClassDDAPI {
public:
    static constexpr unsigned int kSenseLength = SCSISenseAnalyzer::kSenseBufferLength;

    explicit SCSIFactory(const char* name);
    ~SCSIFactory() override;

    ErrorMsg* executeSCSIRead(int fd, unsigned long long lba, unsigned int blocks, unsigned char* buffer,
                              unsigned int bytes);
    ErrorMsg* executeSCSIWrite(int fd, unsigned long long lba, unsigned int blocks, unsigned char* buffer,
                               unsigned int bytes);
    ErrorMsg* scsiTestUnitReady(int fd);
    ErrorMsg* scsiStdInquiry(int fd, unsigned char* buffer, unsigned int length);
    ErrorMsg* scsiInquiryVpd(int fd, unsigned char page, unsigned char* buffer, unsigned int length);
    // knownLength non-zero: the page is read once with that length.
    ErrorMsg* scsiLogSense(int fd, unsigned char page, unsigned char subpage, unsigned char* buffer,
                           unsigned int length, unsigned char knownLength);
    ErrorMsg* scsiLogSelect(int fd, unsigned char pcr, unsigned char sp, unsigned char pc, unsigned char page,
                            unsigned char subpage, unsigned char* buffer, unsigned int length);
    ErrorMsg* scsiModeSense(int fd, unsigned char page, unsigned char subpage, unsigned char pc,
                            unsigned char* buffer, unsigned int length);
    ErrorMsg* scsiModeSelect(int fd, unsigned char sp, unsigned char* buffer, unsigned int length);
    ErrorMsg* scsiModeSense10(int fd, unsigned char page, unsigned char subpage, unsigned char pc,
                              unsigned char* buffer, unsigned int length);
    ErrorMsg* scsiModeSelect10(int fd, unsigned char sp, unsigned char* buffer, unsigned int length);
    // modeSense: 6 or 10, the command that produced buffer.
    int getSCSIModePageOffset(unsigned char* buffer, unsigned int length, unsigned char modeSense);
    ErrorMsg* scsiRequestSense(int fd, unsigned char* buffer, unsigned int length);
    // functionCode 0 runs the default self-test; 1-7 is the self-test code.
    ErrorMsg* scsiSendDiagnostic(int fd, unsigned char functionCode, unsigned char* buffer, unsigned int length);
    ErrorMsg* scsiReadCapacity10(int fd, unsigned int* lastLBA, unsigned int* blockLength);
    ErrorMsg* scsiReadCapacity16(int fd, unsigned char* buffer, unsigned int length);
    ErrorMsg* getSCSIDriveRPM(int fd, unsigned char modeSense, int* rpm, int* formFactor, int* zoned);
    ErrorMsg* getSCSITransportProtocol(int fd, unsigned char modeSense, int* protocol);
    ErrorMsg* getSCSIDriveTemperature(int fd, unsigned char* current, unsigned char* reference);
    ErrorMsg* getSCSIErrorLog(int fd, SCSI_ERROR_LOG* log);
    ErrorMsg* getSmartHealthStatus(int fd, std::string* status);
    ErrorMsg* scsiReadDefect12(int fd, unsigned int requestPList, unsigned int requestGList, unsigned int format,
                               unsigned int addressDescriptorIndex, unsigned char* buffer, unsigned int length);
    ERRORCODE sg_io_cmnd_io(int fd, scsi_cmnd_io* command);

    const char* scsiGetInformationExceptionString(unsigned char asc, unsigned char ascq);
    // page: the designator list (the VPD page after its 4-byte header).
    int scsiVPDDevIDIter(const unsigned char* page, int pageLength, int* offset, int association,
                         int designatorType, int codeSet);
    int scsiDecodeLUDevID(const unsigned char* page, int pageLength, char* out, int outLength, int* transport);
    // out holds at least 65 bytes.
    void scsiFormatIDtoString(const char* in, unsigned char length, unsigned char* out);

    unsigned char* getCurrentSenseBuffer() { return m_sense; }
    ERRORCODE getLastStatus() const { return m_statusCode; }
    SCSISenseAnalyzer* getSenseAnalyzer() { return m_analyzer; }
    // The CDB of the last command sent (or built and refused), for callers that log it.
    const unsigned char* getLastCDB() const { return m_cdb; }
    unsigned int getLastCDBLength() const { return m_cdbLength; }

private:
    // Sends one command with the factory's sense buffer; returns the SG_IO result
    // ORed with the sense translation when translate is set.
    ERRORCODE issue(int fd, const unsigned char* cdb, unsigned int cdbLength, int direction, unsigned char* buffer,
                    unsigned int length, bool translate);
    // Finishes a command: records the status and builds the record of function row
    // function | cause (null when cause is 0).
    ErrorMsg* finish(ERRORCODE function, ERRORCODE cause, const char* what);
    // The commands below return their cause (0, a common error or an error row) so that
    // the composite operations can act on it before it becomes a record.
    ERRORCODE inquiryCause(int fd, bool vpd, unsigned char page, unsigned char* buffer, unsigned int length);
    ERRORCODE logSenseCause(int fd, unsigned char page, unsigned char subpage, unsigned char* buffer,
                            unsigned int length, unsigned char knownLength);
    ERRORCODE modeSenseCause(bool tenByte, int fd, unsigned char page, unsigned char subpage, unsigned char pc,
                             unsigned char* buffer, unsigned int length);
    ERRORCODE modeSelectCause(bool tenByte, int fd, unsigned char sp, unsigned char* buffer, unsigned int length);
    // MODE SENSE of page into buffer with the 6/10 choice of modeSense; *offset is the
    // page's offset in buffer on success.
    ERRORCODE modeSenseEither(int fd, unsigned char modeSense, unsigned char page, unsigned char* buffer,
                              unsigned int length, int* offset);
    ERRORCODE readCounterPage(int fd, unsigned char page, SCSI_ERROR_COUNTER* counter);

    SCSISenseAnalyzer* m_analyzer;
    unsigned char m_sense[kSenseLength];
    unsigned char m_cdb[16];
    unsigned int m_cdbLength;
    int m_ioctlErrno;  // errno of the last failed SG_IO, for the record's detail
    // Fallback texts of scsiGetInformationExceptionString; the next call overwrites them.
    char m_ieText[128];
};
