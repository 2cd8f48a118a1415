// The chipset's legacy GPIO registers in I/O space; the base comes from the LPC bridge.
#pragma once

#include "ddapi/gpio/GPIOGeneric.h"

class PCIDDAPI;
class MemoryDDAPI;

struct GPIO_PCH_ENTRY {
    char name[GPIOGeneric::kNameLength + 1];
    PCH_DRIVER_DATA_TYPE type;
    GPIO_RW_MODE mode;
    unsigned int number;  // 0-95 are served
    bool activeHigh;
    bool valid;
};

class QUARN_EXPORT GPIO_PCHDriver : public GPIOGeneric {
public:
    static constexpr unsigned int kMaxEntries = 95;
    static constexpr unsigned int kPins = 96;

    explicit GPIO_PCHDriver(const char* name);
    ~GPIO_PCHDriver() override;

    void readINIFile(char* line) override;
    ErrorMsg* getGPIOList(std::list<std::string>* list) override;
    // The level bit as read (the active level is not applied).
    ErrorMsg* readBit(std::string name, bool* value) override;
    ErrorMsg* isMyGPIO(std::string name) override;
    // Sets or clears the level bit and reads it back.
    ErrorMsg* writeBit(std::string name, bool value) override;

    // False (entry ignored) when the table is full.
    bool AddEntry(const char* name, PCH_DRIVER_DATA_TYPE type, GPIO_RW_MODE mode, unsigned int number,
                  bool activeHigh);
    unsigned int GetGPIOIndexByName(std::string name);
    // 0 on success; all ones (after a message on standard error) when the port cannot
    // be opened or the size is not 1, 2 or 4.
    unsigned int readIOPort(unsigned int port, unsigned int* value, unsigned int size);
    unsigned int writeIOPort(unsigned int port, unsigned int value, unsigned int size);
    void delay(int microseconds);

    unsigned int gpioBase() const { return m_gpioBase; }
    unsigned int entryCount() const { return m_entryCount; }
    const GPIO_PCH_ENTRY& entry(unsigned int index) const { return m_table[index]; }
    // The level register and bit of a GPIO number below 96.
    static unsigned int levelRegister(unsigned int number, unsigned int* bit);

private:
    unsigned int m_gpioBase;
    ErrorMsg* m_lastError;
    unsigned int m_entryCount;
    PCIDDAPI* m_pci;
    MemoryDDAPI* m_memory;
    GPIO_PCH_ENTRY m_table[kMaxEntries];
};
