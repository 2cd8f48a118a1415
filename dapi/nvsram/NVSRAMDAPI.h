// NVSRAM diagnostic layer: the device list and the data-line, address-line and
// non-volatile (STORE/RECALL) tests, each putting back what it found.
#pragma once

#include <vector>

#include "api/BaseClass.h"
#include "ddapi/nvsram/NVSRAMDDAPI.h"

class MemoryDAPI;

class QUARN_EXPORT NVSRAMDAPI : public BaseClassDAPI {
public:
    explicit NVSRAMDAPI(const char* name);
    ~NVSRAMDAPI() override;

    ErrorMsg* getInformationList(std::vector<NVSRAM_RESOURCE_INFO>* list);
    ErrorMsg* getInformationByID(unsigned char id, NVSRAM_RESOURCE_INFO* info);

    // The non-volatile test in its three steps (offsets inside the SRAM, end inclusive).
    ErrorMsg* nonVolatileTest(unsigned long long start, unsigned long long end, int width);
    ErrorMsg* NVTestExecute(unsigned long long start, unsigned long long end, int width);
    ErrorMsg* NVTestExecute(unsigned long long start, unsigned long long end, int width,
                            unsigned long long pattern);
    ErrorMsg* NVTestCleanup(unsigned long long start, unsigned long long end, int width);
    // The three steps; the cleanup runs whatever the test found.
    ErrorMsg* runNonVolatileTest(unsigned long long start, unsigned long long end, int width);

    // Data and address lines over [start, end] of the SRAM; its contents come back.
    ErrorMsg* dataLineTest(unsigned long long start, unsigned long long end, int width);
    ErrorMsg* addressLineTest(unsigned long long start, unsigned long long end, int width);

    // STORE and RECALL of the first device, for the front end.
    ErrorMsg* store();
    ErrorMsg* recall();

    ErrorMsg* WritePattern(int width, unsigned long long pattern);
    ErrorMsg* VerifyPattern(int width, unsigned long long pattern);

private:
    ErrorMsg* prepare(ERRORCODE function, unsigned long long start, unsigned long long end, int width);
    ErrorMsg* saveRange(unsigned long long from, unsigned long long length, std::vector<unsigned long long>* out);
    void restoreRange(unsigned long long from, unsigned long long length, const std::vector<unsigned long long>& data);
    void releaseBackups();

    MemoryDAPI* m_memory;
    NVSRAMDDAPI* m_device;
    std::vector<NVSRAM_RESOURCE_INFO> m_list;
    NVSRAM_RESOURCE_INFO* m_dut;
    unsigned long long m_sramBackup;  // heap blocks from MemoryDAPI::getMemoryBuffer
    unsigned long long m_nvBackup;
    unsigned long long m_start;
    unsigned long long m_end;
};
