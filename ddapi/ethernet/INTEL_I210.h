// Intel I210 ports: MAC and EEPROM through ethtool, the LED control register, speed
// set-up, PHY loopback and NVM programming with eeupdate64e.
#pragma once

#include "ddapi/ethernet/IntelPhy.h"

class QUARN_EXPORT INTEL_I210 : public IntelPhyDriver {
public:
    explicit INTEL_I210(const char* name);
    ~INTEL_I210() override;

    using EthernetBaseClass::getLEDStatus;
    using EthernetBaseClass::setLEDStatus;

    ErrorMsg* Get_self_test_result(ethtool_test* result, TestType type, int* value) override;
    ErrorMsg* SetupSpeed(std::string ifname, int mbps) override;
    ErrorMsg* GetMAC(std::string ifname, std::string* mac) override;
    ErrorMsg* SetMAC(std::string ifname, std::string* bytes) override;
    ErrorMsg* GetEEPROM(std::string ifname, int offset, int length, int* data) override;
    ErrorMsg* SetEEPROM(std::string ifname, int offset, int* data, int length) override;
    ErrorMsg* Program(std::string ifname, std::string imageFile) override;
    ErrorMsg* ReadSFP(std::string ifname, int device, int offset, int count, int* data) override;
    ErrorMsg* getLEDName(std::string ifname, std::list<std::string>* names) override;
    ErrorMsg* setLEDStatus(std::string ifname, std::string led, std::string state) override;
    ErrorMsg* getLEDStatus(std::string ifname, std::string led, std::string* state) override;

private:
    ErrorMsg* magic(const std::string& ifname, uint32_t* value, ERRORCODE function);
};
