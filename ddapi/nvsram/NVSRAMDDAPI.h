// NVSRAM device layer: finds the nvSRAM's PCI function, takes its SRAM window from BAR 1
// and triggers the chip's software STORE and RECALL read sequences.
#pragma once

#include <string>
#include <vector>

#include "api/BaseClass.h"

class PCIDDAPI;
class MemoryDDAPI;

struct NVSRAM_RESOURCE_INFO {
    unsigned char id;
    std::string name;  // "bb:dd.ff"
    unsigned long long base;
    unsigned int size;
    unsigned char elementSize;  // bits
};

class QUARN_EXPORT NVSRAMDDAPI : public BaseClassDDAPI {
public:
    explicit NVSRAMDDAPI(const char* name);
    ~NVSRAMDDAPI() override;

    ErrorMsg* addNVSRAMDevice();
    ErrorMsg* getDeviceList(std::vector<NVSRAM_RESOURCE_INFO>* list);
    ErrorMsg* getBaseAddress(unsigned char id, unsigned long long* base);
    ErrorMsg* getResourceSize(unsigned char id, unsigned int* size);
    ErrorMsg* getElementSize(unsigned char id, unsigned char* bits);
    ErrorMsg* storeNVSRAM();
    ErrorMsg* recallNVSRAM();

private:
    void sequence(unsigned int last, unsigned long long pauseUs);

    PCIDDAPI* m_pci;
    MemoryDDAPI* m_memory;
    std::vector<NVSRAM_RESOURCE_INFO> m_devices;
    unsigned int m_index;
    unsigned long long m_base;
};
