// Diagnostic layer of the SATA ports: forwarders to the device layer and the read, write
// and read-write throughput tests on a drive.
#pragma once

#include <string>

#include "api/BaseClass.h"
#include "ddapi/sata/SATADDAPI.h"

class SCSISenseAnalyzer;

class QUARN_EXPORT SATADAPI : public BaseClassDAPI {
public:
    explicit SATADAPI(const char* name);
    ~SATADAPI() override;

    ErrorMsg* generateSATAList();
    ErrorMsg* IOCTL(unsigned int id, SATAIOCTLOperation op);
    ErrorMsg* getLogicalIdByName(std::string name, unsigned int* id);
    ErrorMsg* getDataByID(unsigned int id, SATADataElement element, std::string* out);
    ErrorMsg* getDataByName(std::string name, SATADataElement element, std::string* out);
    ErrorMsg* getErrorRegisterByID(unsigned int id, SATAErrorElement element, std::string* out);
    ErrorMsg* getSMARTInfoByID(unsigned int id, unsigned int firstAttribute, unsigned int lastAttribute,
                               std::string* out);
    ErrorMsg* identifyCommandTest(unsigned int id);
    ErrorMsg* readBySCSI(unsigned int id, unsigned int startIndex, unsigned int sizeMB);
    ErrorMsg* writeBySCSI(unsigned int id, unsigned int startIndex, unsigned int sizeMB);
    // startIndex: first 512-byte block group; sizeMB: amount moved (read, written, or
    // written and read back).
    ErrorMsg* readPerformanceTest(unsigned int id, unsigned int startIndex, unsigned int sizeMB);
    ErrorMsg* writePerformanceTest(unsigned int id, unsigned int startIndex, unsigned int sizeMB);
    ErrorMsg* readwriteTest(unsigned int id, unsigned int startIndex, unsigned int sizeMB);

    // "Spend time : ... s\nSpeed      : ... MB/s\n" of the last finished test.
    const std::string& getResultText() const { return m_result; }
    // Commands the last test sent (for commands-per-second figures).
    unsigned long long getCommandCount() const { return m_commands; }
    // Sense conditions the tests met, per port logical ID.
    SCSISenseAnalyzer* getSenseAnalyzer();
    // The device layer (created on first use).
    SATADDAPI* device();

private:
    enum class TestKind { Read, Write, ReadWrite };
    ErrorMsg* runTest(TestKind kind, unsigned int id, unsigned int startIndex, unsigned int sizeMB);
    ErrorMsg* forward(ERRORCODE function, ErrorMsg* cause);
    void recordSense(unsigned int id);

    SATADDAPI* m_device;
    SCSISenseAnalyzer* m_analyzer;
    std::string m_result;
    unsigned long long m_commands;
};
