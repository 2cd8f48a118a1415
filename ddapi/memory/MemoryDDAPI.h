// Memory device layer: physical memory through a one-page /dev/mem window, test
// buffers, the firmware memory map, the EDAC counters, ECC injection and address
// translation through the board's memory-controller driver.
#pragma once

#include <list>
#include <string>

#include "api/BaseClass.h"

class DIMMInformation;
class I2CDAPI;

// A physical range [start, end] (end inclusive); the lists are the memory tests' own.
class QUARN_EXPORT MemoryRange {
public:
    virtual ~MemoryRange() = default;
    std::string name;
    unsigned long long start = 0;
    unsigned long long end = 0;
    std::list<int> ranks;
    std::list<std::list<int>> rankGroups;
    std::list<std::list<int>> rankAddresses;
};

// Corrected errors counted on one DIMM.
class QUARN_EXPORT ECCInformation {
public:
    virtual ~ECCInformation() = default;
    std::string name;
    int controller = 0;
    int channel = 0;
    int slot = 0;
    int reserved = 0;
    int count = 0;
};

class QUARN_EXPORT MemoryDDAPI : public BaseClassDDAPI {
public:
    explicit MemoryDDAPI(const char* name);
    ~MemoryDDAPI() override;

    // 0, 0xC2080004 (open) or 0xC2080005 (mmap); *pointer = where address is reachable.
    ERRORCODE remapIOAddress(unsigned long long address, unsigned long long length,
                             unsigned long long* pointer);
    int getMemoryMapSize();

    // On failure: 0xDE and a record on the own list.
    unsigned char read8(unsigned long long address);
    unsigned short read16(unsigned long long address);
    unsigned int read32(unsigned long long address);
    unsigned long long read64(unsigned long long address);
    ErrorMsg* write(unsigned long long address, unsigned char value);
    ErrorMsg* write(unsigned long long address, unsigned short value);
    ErrorMsg* write(unsigned long long address, unsigned int value);
    ErrorMsg* write(unsigned long long address, unsigned long long value);

    ErrorMsg* getMemoryBuffer(unsigned int size, unsigned long long* buffer);
    ErrorMsg* releaseMemoryBuffer(unsigned long long buffer);
    ErrorMsg* getX86HighRamRange(MemoryRange* range);
    ErrorMsg* getECCReport(std::list<ECCInformation>* report);
    ErrorMsg* clearECCReport();
    ErrorMsg* injectECC(unsigned long long first, unsigned long long second, int bit);
    ErrorMsg* getPhysicalAddress(unsigned long long rankAddress, int a, int b, int c,
                                 unsigned long long* physical);
    ErrorMsg* getRankOffset(unsigned long long physical, unsigned long long* rankAddress);
    ErrorMsg* initializeMemoryLayoutFile();
    ErrorMsg* getControllerChannelCount(int* channels);
    ErrorMsg* getControllerSlotCount(int* slots);
    bool openMemoryControllerDriver();

    // DIMM inventory: SPD decoded by decode-dimms, placement from SMBIOS (dmidecode).
    ErrorMsg* getDIMMInformationBySPD(std::string name, DIMMInformation* info);
    ErrorMsg* getDIMMInformationBySMBIOS(DIMMInformation* info);

private:
    template <typename T>
    T readWidth(unsigned long long address);
    template <typename T>
    ErrorMsg* writeWidth(unsigned long long address, T value);
    void unmap();
    ErrorMsg* readConfigValue(const char* key, ERRORCODE function, const char* belowOneText,
                              int* value);
    ErrorMsg* translate(ERRORCODE function, const std::string& request, const char* file,
                        unsigned long long* value);

    int m_memFd;
    unsigned long long m_mapBase;
    unsigned long long m_mapLength;
    unsigned char* m_mapPointer;
    int m_controllerFd;
    I2CDAPI* m_spdBus = nullptr;  // SPD bus object, created on the first SPD request
};
