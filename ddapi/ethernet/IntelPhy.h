// What the three Intel drivers share: the BAR0 window of the port (its sysfs resource
// file), the PHY registers behind the MDI control register and the external loopback.
#pragma once

#include <cstdint>

#include "ddapi/ethernet/EthernetBaseClass.h"

class QUARN_EXPORT IntelPhyDriver : public EthernetBaseClass {
public:
    explicit IntelPhyDriver(const char* name);
    ~IntelPhyDriver() override;

    ErrorMsg* Set_external_loopback() override;
    ErrorMsg* Remove_external_loopback() override;

    // PHY register access through BAR0 + 0x20 (the window must be mapped).
    uint16_t read_PHY_reg(int reg, int page);
    void write_PHY_reg(int reg, int page, uint16_t value);

protected:
    // Maps length bytes of the port's BAR0 (the node); null with errno on failure.
    volatile uint32_t* mapWindow(size_t length);
    void unmapWindow(size_t length);
    // The Intel self-test result table (types 0-4).
    ErrorMsg* intelSelfTest(ethtool_test* result, TestType type, int* value);
    // LED register helpers: mode field at shift in the 32-bit register at offset.
    ErrorMsg* runEeupdate(const std::string& ifname, const std::vector<std::string>& args,
                          ERRORCODE failCode, const char* failText, const char* bdfText);

    // The six-step MAC write through ethtool at offset: every byte text is checked first,
    // then one byte is written per step; a failed step puts the bytes already written
    // back and reports "Set MAC <step> fail" with the cause behind it.
    ErrorMsg* writeMacBytes(const std::string& ifname, int offset, uint32_t magic, std::string* bytes);
    ErrorMsg* readMacBytes(const std::string& ifname, int offset, std::string* mac);

    volatile uint32_t* m_window = nullptr;
    int m_fd = -1;
};
