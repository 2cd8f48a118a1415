// One installed DIMM as the inventory reports it: identity from its SPD, SMBIOS
// placement and its rank and address numbering.
#pragma once

#include <list>
#include <string>

#include "ddapi/memory/MemoryDDAPI.h"

class QUARN_EXPORT DIMMInformation {
public:
    virtual ~DIMMInformation() = default;

    int dimmIndex = 0;     // records listed before this one
    int socketIndex = -1;  // -1 when the controller is not in the processor
    int channelIndex = -1;
    std::string locator = "unknown";
    bool decoded = false;
    std::string memoryType;
    std::string moduleType;
    std::string speed;
    std::string configuredClockSpeed = "unknown";
    std::string size;
    std::string ranks;
    int firstRank = -1;
    int lastRank = -1;
    std::list<std::string> operableVoltages;
    std::string configuredVoltage = "unknown";
    std::string moduleManufacturer;
    std::string dramManufacturer;
    std::string serialNumber;
    std::string partNumber;
    unsigned long long start = 0;
    unsigned long long end = 0;  // one past the DIMM's last byte

    // Carried for the memory tests; the inventory leaves them empty.
    std::list<int> rankList;
    std::list<std::list<int>> rankGroups;
    std::list<std::list<int>> rankAddresses;
    std::list<MemoryRange> ranges;
};
