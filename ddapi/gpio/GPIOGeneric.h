// The common base of the GPIO drivers: one driver per profile section, each serving
// the named pins of its table.
#pragma once

#include <list>
#include <string>

#include "api/BaseClass.h"

// Profile keywords are the enumerator names. Only BOOLEAN entries are served.
enum PCH_DRIVER_DATA_TYPE {
    GPIO_PCH_DRIVER_DATA_TYPE_BOOLEAN = 0,
    GPIO_PCH_DRIVER_DATA_TYPE_UINT8 = 1,
    GPIO_PCH_DRIVER_DATA_TYPE_UINT16 = 2,
    GPIO_PCH_DRIVER_DATA_TYPE_UINT32 = 3,
    GPIO_PCH_DRIVER_DATA_TYPE_UNKNOWN = 4,  // a keyword matching none of the above
};

enum FPGA_DRIVER_DATA_TYPE {
    GPIO_FPGA_DRIVER_DATA_TYPE_BOOLEAN = 0,
    GPIO_FPGA_DRIVER_DATA_TYPE_UINT8 = 1,
    GPIO_FPGA_DRIVER_DATA_TYPE_UINT16 = 2,
    GPIO_FPGA_DRIVER_DATA_TYPE_UINT32 = 3,
    GPIO_FPGA_DRIVER_DATA_TYPE_UNKNOWN = 4,
};

enum GPIO_RW_MODE {
    GPIO_READ_ONLY = 0,
    GPIO_WRITE_ONLY = 1,
    GPIO_WRITE_CLEAR = 2,
    GPIO_READ_WRITE = 3,
    GPIO_NOT_SUPPORT = 4,  // a keyword matching none of the above
};

class QUARN_EXPORT GPIOGeneric : public BaseClassDDAPI {
public:
    static constexpr size_t kNameLength = 30;
    static constexpr unsigned int kNotFound = 10000;

    explicit GPIOGeneric(const char* name);
    ~GPIOGeneric() override;

    // One entry line of the driver's profile section.
    virtual void readINIFile(char* line);
    virtual ErrorMsg* getGPIOList(std::list<std::string>* list);
    virtual ErrorMsg* readBit(std::string name, bool* value);
    // Null when the name is in the driver's table.
    virtual ErrorMsg* isMyGPIO(std::string name);
    virtual ErrorMsg* writeBit(std::string name, bool value);

protected:
    // Blank- and tab-separated fields of an entry line.
    static std::list<std::string> splitFields(const char* line);
    // The active-high flag of an entry: the active-level token, overridden by a last
    // "TRUE"/other token when present.
    static bool activeHighOf(const std::string& activeToken, const std::string* lastToken);
    // Decimal or hexadecimal field; false on text that is no number or above limit.
    static bool parseNumber(const std::string& text, int base, unsigned long limit, unsigned long* out);
    static std::string upper(std::string text);
    // GPIO_NOT_SUPPORT for a keyword matching no mode.
    static GPIO_RW_MODE modeOf(const std::string& keyword);
};
