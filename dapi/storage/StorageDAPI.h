// The storage tests over the board's drive list: sequential read, write and
// write-read-compare throughput, zero fill, defect-list counts and the SMART or health
// summary, each ending its result with the sense conditions the drive reported.
#pragma once

#include <string>

#include "api/BaseClass.h"
#include "ddapi/storage/StorageDDAPIOperation.h"

class SCSIFactory;
class SCSISenseAnalyzer;
class NVMeDAPI;

class QUARN_EXPORT StorageDAPI : public BaseClassDAPI {
public:
    explicit StorageDAPI(const char* name);
    ~StorageDAPI() override;

    ErrorMsg* generateStorageList();
    ErrorMsg* IOCTL(unsigned int id, StorageIOCTLOperation op);
    ErrorMsg* getLogicalIdByName(std::string name, unsigned int* id);
    ErrorMsg* getDataByID(unsigned int id, StorageDataElement element, std::string* out);
    ErrorMsg* getDataByName(std::string name, StorageDataElement element, std::string* out);

    ErrorMsg* setSectorCountPerRDWRAccess(unsigned int id);
    ErrorMsg* readPerformanceTest(unsigned int id, unsigned long long startLBA, unsigned int sizeMB, bool compact);
    ErrorMsg* writePerformanceTest(unsigned int id, unsigned long long startLBA, unsigned int sizeMB, bool compact);
    ErrorMsg* readwriteTest(unsigned int id, unsigned long long startLBA, unsigned int sizeMB, bool compact);
    ErrorMsg* writeZeroByID(unsigned int id, unsigned long long startLBA, bool compact);
    ErrorMsg* getPGListByID(unsigned int id, unsigned int requestPList, unsigned int requestGList, unsigned int format,
                            bool compact);
    ErrorMsg* getSMARTInfoByID(unsigned int id);

    double int128_to_double(unsigned char* value);
    // format: "HEX" (two hex digits per byte, no separators), "ASCII" (printable bytes,
    // others as '.'), or "" (a hex dump, 32 bytes to a line).
    ErrorMsg* dumpHexDataToString(std::string* out, unsigned int* data, unsigned int length, std::string format,
                                  bool newline);

    // The text of the last test.
    const std::string& getResultText() const { return m_result; }
    unsigned int getSectorCountPerAccess() const { return m_sectors; }
    // Commands the last test sent and the seconds they took.
    unsigned long long getCommandCount() const { return m_commands; }
    double getSeconds() const { return m_seconds; }
    StorageDDAPIOperation* device() { return m_device; }
    SCSISenseAnalyzer* getSenseAnalyzer() { return m_analyzer; }

private:
    enum class Kind { Read, Write, ReadWrite };
    ErrorMsg* throughput(Kind kind, unsigned int id, unsigned long long startLBA, unsigned int sizeMB, bool compact);
    // SG node, capacity (MB) and block size of a drive.
    ErrorMsg* geometry(ERRORCODE code, unsigned int id, std::string* node, unsigned long long* capacityMB,
                       unsigned int* blockSize);
    ErrorMsg* finish(ERRORCODE code, unsigned int id, bool compact);
    ErrorMsg* recordSense(unsigned int id);

    std::string m_result;
    StorageDDAPIOperation* m_device;
    SCSIFactory* m_factory;
    SCSISenseAnalyzer* m_analyzer;
    NVMeDAPI* m_nvme;
    unsigned int m_sectors;
    unsigned long long m_commands;
    double m_seconds;
};
