// Memory diagnostic layer: the memory tests over physical ranges, the ECC report,
// single reads and writes, and the testable memory above the kernel's "mem=" limit.
#pragma once

#include <list>
#include <string>
#include <vector>

#include "api/BaseClass.h"
#include "ddapi/memory/DIMMInformation.h"
#include "ddapi/memory/MemoryDDAPI.h"

// Checksum kinds; 0, the 8-bit two's-complement sum, is the one implemented.
enum CHECKSUM_TYPES { CHECKSUM_8BIT_TWOS_COMPLEMENT = 0 };

class QUARN_EXPORT MemoryDAPI : public BaseClassDAPI {
public:
    explicit MemoryDAPI(const char* name);
    ~MemoryDAPI() override;

    ErrorMsg* patternTest(unsigned long long start, unsigned long long end, int width,
                          unsigned long long pattern);
    // Fills [start, end) with all-ones words; nothing is read back.
    ErrorMsg* patternTest(unsigned long long start, unsigned long long end);
    ErrorMsg* dataLineTest(unsigned long long start, unsigned long long end, int width);
    ErrorMsg* dataLineTest(unsigned long long start, unsigned long long length, int a, int b,
                           int c, int width);
    ErrorMsg* addressLineTest(unsigned long long start, unsigned long long end, int width,
                              unsigned long long pattern);
    ErrorMsg* addressLineTest(unsigned long long start, unsigned long long length, int a, int b,
                              int c, int width, unsigned long long pattern);
    ErrorMsg* marchCTest(unsigned long long start, unsigned long long end, int width,
                         unsigned long long pattern);
    ErrorMsg* verfiyMemoryBlockByMarchC(unsigned long long from, unsigned long long to, int width,
                                        unsigned long long expected, unsigned long long written);
    ErrorMsg* checksumTest(unsigned long long start, unsigned long long end, std::string expected,
                           CHECKSUM_TYPES type);
    ErrorMsg* randomAddressTest(unsigned long long start, unsigned long long end,
                                unsigned int seconds);
    ErrorMsg* eccErrorDetectionTest(unsigned long long start, unsigned long long end);
    ErrorMsg* eccErrorDetectionTest(unsigned long long start, unsigned long long length, int a,
                                    int b, int c);
    ErrorMsg* verifyMemoryBlock(unsigned long long start, unsigned long long end, unsigned char value);
    ErrorMsg* verifyMemoryBlock(unsigned long long start, unsigned long long end, unsigned short value);
    ErrorMsg* verifyMemoryBlock(unsigned long long start, unsigned long long end, unsigned int value);
    ErrorMsg* verifyMemoryBlock(unsigned long long start, unsigned long long end,
                                unsigned long long value);

    ErrorMsg* getECCReport(std::list<ECCInformation>* report);
    ErrorMsg* clearECCReport();
    unsigned char readMemory8(unsigned long long address);
    unsigned short readMemory16(unsigned long long address);
    unsigned int readMemory32(unsigned long long address);
    unsigned long long readMemory64(unsigned long long address);
    ErrorMsg* writeMemory8(unsigned long long address, unsigned char value);
    ErrorMsg* writeMemory16(unsigned long long address, unsigned short value);
    ErrorMsg* writeMemory32(unsigned long long address, unsigned int value);
    ErrorMsg* writeMemory64(unsigned long long address, unsigned long long value);
    ErrorMsg* getMemoryBuffer(unsigned int size, unsigned long long* buffer);
    ErrorMsg* releaseMemoryBuffer(unsigned long long buffer);

    // Testable memory: the layout above the kernel's "mem=" limit.
    ErrorMsg* getTestableMemory(std::list<MemoryRange>* ranges, unsigned long long start,
                                unsigned long long end);
    ErrorMsg* initializeTestableMemoryFile();
    // Places a rank map (ranks back to back from 0, in DIMM order) onto the physical
    // address space around the hole below highStart; highEnd is the last byte of RAM.
    // Every DIMM rank's range, ranks back to back from 0 in DIMM order (from SPD).
    ErrorMsg* getRankRange(std::list<MemoryRange>* ranges);
    // Writes /tmp/veltrax/ktd/mem/layout from the rank map placed around the PCI hole.
    ErrorMsg* initializeMemoryLayoutFile();
    static std::list<MemoryRange> placeRanks(std::list<MemoryRange> ranks,
                                             unsigned long long highStart,
                                             unsigned long long highEnd);

    unsigned long long alignMemoryAddress(unsigned long long address, int width);
    unsigned long long getTestBlockSize();
    MemoryRange getOverlapMemoryRange(MemoryRange a, MemoryRange b);

    // DIMM inventory (MemoryDAPIInventory.cpp). name is a DIMM name such as dimm1.
    ErrorMsg* getInformation(std::string name, DIMMInformation* info);
    ErrorMsg* getInformation(std::list<DIMMInformation>* list);
    ErrorMsg* getDeviceList(std::list<std::string>* names, bool checkBIOS);
    ErrorMsg* checkDeviceBySMBIOS(std::list<std::string>* names);

private:
    template <typename T>
    ErrorMsg* verifyBlock(unsigned long long start, unsigned long long end, T value);
    template <typename T>
    ErrorMsg* marchElement(unsigned long long from, unsigned long long to, T expected, T written);
    ErrorMsg* failTest(ErrorMsg* chain);
    ErrorMsg* injectWord(unsigned long long address);
    ErrorMsg* finishEccDetection();

    MemoryDDAPI* m_device;
    int m_socketCount;
    std::list<MemoryRange> m_ranges;
    // DIMM inventory (MemoryDAPIInventory.cpp): computed once, then served from here.
    std::list<DIMMInformation> m_dimms;
};
