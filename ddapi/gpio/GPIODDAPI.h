// GPIO device layer: reads the GPIO profile, owns one driver per section and hands
// each request to the driver that knows the pin.
#pragma once

#include <list>
#include <string>

#include "api/BaseClass.h"

class GPIOGeneric;

class QUARN_EXPORT GPIODDAPI : public BaseClassDDAPI {
public:
    static constexpr int kSlots = 10;
    static constexpr int kFpgaSlot = 0;
    static constexpr int kPchSlot = 1;
    static constexpr size_t kMaxLine = 499;

    explicit GPIODDAPI(const char* name);
    ~GPIODDAPI() override;

    ErrorMsg* getGPIOList(std::list<std::string>* list);
    ErrorMsg* readBit(std::string name, bool* value);
    ErrorMsg* writeBit(std::string name, bool value);
    ErrorMsg* getLogicalIdByName(const char* name, unsigned int* id);
    ErrorMsg* GetWellKnownNameByIndex(int index, char* name, int length);

    GPIOGeneric* driver(int slot) const { return slot >= 0 && slot < kSlots ? m_drivers[slot] : nullptr; }

private:
    // The driver serving name: the first that claims it. Null when there is no driver;
    // *refusal gets the first driver's refusal when none claims it.
    GPIOGeneric* driverFor(const std::string& name, ErrorMsg** refusal);

    GPIOGeneric* m_drivers[kSlots];
};
