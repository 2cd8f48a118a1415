// Intel X552 (KR backplane) ports: MAC and EEPROM through ethtool, PHY loopback through
// the MDI control register of BAR0.
#pragma once

#include "ddapi/ethernet/IntelPhy.h"

class QUARN_EXPORT INTEL_X552 : public IntelPhyDriver {
public:
    explicit INTEL_X552(const char* name);
    ~INTEL_X552() override;

    ErrorMsg* Get_self_test_result(ethtool_test* result, TestType type, int* value) override;
    ErrorMsg* SetupSpeed(std::string ifname, int mbps) override;
    ErrorMsg* GetMAC(std::string ifname, std::string* mac) override;
    ErrorMsg* SetMAC(std::string ifname, std::string* bytes) override;
    ErrorMsg* GetEEPROM(std::string ifname, int offset, int length, int* data) override;
    ErrorMsg* SetEEPROM(std::string ifname, int offset, int* data, int length) override;
    ErrorMsg* ReadSFP(std::string ifname, int device, int offset, int count, int* data) override;

private:
    ErrorMsg* macOffset(const std::string& ifname, int* offset, ERRORCODE function);
};
