// Device layer of the SAS expanders: expanders, PHYs and ports named from the kernel's SAS
// transport class in sysfs, their link data and PHY error counters, expander reset through
// smp_reset_expander and the PHY error clear through the enclosure's SES scripts.
#pragma once

#include <string>
#include <vector>

#include "api/BaseClass.h"

enum EXP_DEVICE : unsigned int {
    EXP_DEVICE_EXPANDER = 0,
    EXP_DEVICE_PHY = 1,
    EXP_DEVICE_PORT = 2,
};

enum EXP_DATAELEMENT : unsigned int {
    EXP_DATA_ATTACHED_TYPE = 0,
    EXP_DATA_LINK_STATUS = 1,
    EXP_DATA_SPEED = 2,
    EXP_DATA_SAS_ADDRESS = 3,
    EXP_DATA_ALL = 4,
};

enum EXP_ERRORELEMENT : unsigned int {
    EXP_ERROR_DISPARITY = 0,
    EXP_ERROR_INVALID_DWORD = 1,
    EXP_ERROR_LOSS_DWORD_SYNC = 2,
    EXP_ERROR_PHY_RESET_PROBLEM = 3,
    EXP_ERROR_ALL = 4,
};

class QUARN_EXPORT ExpanderDDAPI : public BaseClassDDAPI {
public:
    static constexpr const char* kClassDirectory = "/sys/class/sas_expander/";

    struct ExpanderDeviceConfig {
        unsigned int logicalID = 0;
        EXP_DEVICE kind = EXP_DEVICE_EXPANDER;
        std::string name;      // "EXP0", "EXP0-PHY3", "EXP0-PORT16"
        std::string expander;  // sysfs name of the expander ("expander-0:0")
        std::string entry;     // PHY or port entry ("phy-0:0:3", "port-0:0:1"); empty for an expander
        unsigned int expanderNumber = 0;
        unsigned int number = 0;  // PHY or port number
    };

    explicit ExpanderDDAPI(const char* name);
    ~ExpanderDDAPI() override;

    // The index-th device of a kind.
    ErrorMsg* getDeviceNameByID(EXP_DEVICE kind, unsigned int index, std::string* name);
    // Names compared upper-cased.
    ErrorMsg* getLogicalIDByName(std::string name, unsigned int* id);
    // One element (0-3) of a device.
    ErrorMsg* getDataByID(unsigned int id, EXP_DATAELEMENT element, std::string* out);
    // One counter (0-3) of a PHY, as the kernel prints it.
    ErrorMsg* getErrorDataByID(unsigned int id, EXP_ERRORELEMENT element, std::string* out);
    ErrorMsg* reset(unsigned int id);
    ErrorMsg* clearPHYError();

    // Within one kind by expander number, then by PHY or port number.
    static bool compareStrNum(const ExpanderDeviceConfig& a, const ExpanderDeviceConfig& b);
    static std::string convertStringToUpperCase(std::string text);

    const std::vector<ExpanderDeviceConfig>& getDeviceList() const { return m_devices; }
    // The output lines of the last smp_reset_expander run.
    const std::vector<std::string>& getLastResetOutput() const { return m_resetOutput; }

private:
    ErrorMsg* buildDeviceList();
    const ExpanderDeviceConfig* find(unsigned int id) const;
    // One sysfs value with its line break removed; false with errno on failure.
    bool readValue(const std::string& path, std::string* value);
    ErrorMsg* portData(const ExpanderDeviceConfig& d, EXP_DATAELEMENT element, std::string* out);

    std::vector<ExpanderDeviceConfig> m_devices;
    std::vector<std::string> m_resetOutput;
};
