// SCSI sense data: translation to error codes, per-drive tallies with a printable report,
// and the texts of sense keys and additional sense codes.
#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <unordered_map>

#include "api/BaseClass.h"

// One sense condition and how often a drive met it.
struct QUARN_EXPORT SCSISenseData {
    std::string category;        // name of the sense key
    std::string errorCondition;  // text of key/ASC/ASCQ
    unsigned int key = 0;
    unsigned int asc = 0;
    unsigned int ascq = 0;
    unsigned int count = 0;
};

// The sense log of one drive during a test.
struct QUARN_EXPORT SCSISenseDrive {
    uint32_t reserved = 0;
    unsigned int driveID = 0;
    std::string driveName;
    std::list<SCSISenseData> senses;  // in order of first occurrence; (key, ASC, ASCQ) unique
};

class QUARN_EXPORT SCSISenseAnalyzer : public BaseClassDDAPI {
public:
    // Size of the sense buffer the command layer hands in (and the extent that
    // parseSenseData and setSenseDataByID read).
    static constexpr unsigned int kSenseBufferLength = 96;

    explicit SCSISenseAnalyzer(const char* name);
    ~SCSISenseAnalyzer() override;

    // sense points at kSenseBufferLength bytes.
    ErrorMsg* setSenseDataByID(unsigned int driveID, unsigned char* sense);
    ErrorMsg* listSenseDataByID(unsigned int driveID, bool compact);
    ErrorMsg* clearSenseDataByID(unsigned int driveID);
    ErrorMsg* setSenseDataByName(std::string name, unsigned char sense);
    ErrorMsg* listSenseDataByName(std::string name);
    ErrorMsg* clearSenseDataByName(std::string name);

    // length is the number of valid sense bytes; 0 means no error.
    ERRORCODE translateSenseDataToErrorCode(unsigned char* sense, unsigned int length);
    // Fixed format only; sense points at kSenseBufferLength bytes. Always 0.
    ERRORCODE parseSenseData(unsigned char* sense, unsigned int* key, unsigned int* asc,
                             unsigned int* ascq);
    void initSenseKeyTable();

    // The table's texts for one condition (the table is filled first if needed).
    std::string categoryOf(unsigned int key);
    std::string errorConditionOf(unsigned int key, unsigned int asc, unsigned int ascq);

    // Sense report of an ATA pass-through command: prints the "Status: CC" block for a
    // buffer of length bytes whose key is not 0 and returns that key (0: nothing printed).
    static unsigned int printPassThroughSense(const unsigned char* sense, unsigned int length);
    // Names of sense keys 0-15 as the pass-through report prints them.
    static const char* senseKeyName(unsigned int key);

    std::string senseReport;

private:
    SCSISenseDrive* findDrive(unsigned int driveID);

    // Only the texts that differ from the per-key defaults are stored: the table reads
    // as 15 x 255 x 255 entries but holds a few hundred strings.
    std::unordered_map<uint32_t, const char*> m_conditions;
    bool tableReady;
    std::list<SCSISenseDrive> m_drives;
};
