// GPIO pins that are bits of the board FPGA's registers (BAR 0 of the FPGA function).
#pragma once

#include "ddapi/gpio/GPIOGeneric.h"

class PCIDDAPI;
class MemoryDDAPI;

struct GPIO_FPGA_ENTRY {
    char name[GPIOGeneric::kNameLength + 1];
    FPGA_DRIVER_DATA_TYPE type;
    GPIO_RW_MODE mode;
    unsigned int offset;  // register offset from the base
    unsigned int second;  // the profile's second number: kept for listings, not used
    unsigned int bit;     // 0-7
    bool activeHigh;
    bool valid;
};

class QUARN_EXPORT GPIO_FPGADriver : public GPIOGeneric {
public:
    static constexpr unsigned int kMaxEntries = 200;
    // The FPGA function's register window is 64 KiB; offsets beyond it are refused.
    static constexpr unsigned int kMaxOffset = 0xFFFF;

    explicit GPIO_FPGADriver(const char* name);
    ~GPIO_FPGADriver() override;

    void readINIFile(char* line) override;
    ErrorMsg* getGPIOList(std::list<std::string>* list) override;
    // True when the bit equals the active level (an active-low pin reads true at 0).
    ErrorMsg* readBit(std::string name, bool* value) override;
    ErrorMsg* isMyGPIO(std::string name) override;
    ErrorMsg* writeBit(std::string name, bool value) override;
    // The driver's write operation (the writeBit slot).
    ErrorMsg* setBit(std::string name, bool value);

    bool AddEntry(const char* name, FPGA_DRIVER_DATA_TYPE type, GPIO_RW_MODE mode, unsigned int offset,
                  unsigned int second, unsigned int bit, bool activeHigh);
    unsigned int GetGPIOIndexByName(std::string name);

    unsigned int registerBase() const { return m_base; }
    unsigned int entryCount() const { return m_entryCount; }
    const GPIO_FPGA_ENTRY& entry(unsigned int index) const { return m_table[index]; }

private:
    unsigned int m_base;
    ErrorMsg* m_lastError;
    unsigned int m_entryCount;
    PCIDDAPI* m_pci;
    MemoryDDAPI* m_memory;
    GPIO_FPGA_ENTRY m_table[kMaxEntries];
};
