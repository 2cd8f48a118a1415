// Ethernet diagnostic layer: forwards to the device layer under its own function rows
// and adds the link, speed, firmware, statistics and loopback tests of a port.
#pragma once

#include <list>
#include <string>

#include "ddapi/ethernet/EthernetDDAPI.h"

class QUARN_EXPORT EthernetDAPI : public BaseClassDAPI {
public:
    explicit EthernetDAPI(const char* name);
    ~EthernetDAPI() override;

    ErrorMsg* GetDeviceNames(std::list<ethernet_data>* ports);
    ErrorMsg* ReadMacAddress(std::string ifname, std::string* mac);
    ErrorMsg* WriteMacAddress(std::string ifname, std::string* bytes);
    ErrorMsg* ReadIPAddress(char* name, unsigned char* address);
    ErrorMsg* ReadIPMask(char* name, unsigned char* mask);
    ErrorMsg* ReadMTU(char* name, int* mtu);
    ErrorMsg* ReadEEPROM(char* name, unsigned char* data, int length);
    ErrorMsg* ReadEEPROMSize(char* name, int* size);
    ErrorMsg* WriteEEPROM(char* name, int offset, int count, unsigned char* bytes);
    ErrorMsg* ReadEEPROM(std::string ifname, int offset, int length, int* data);
    ErrorMsg* WriteEEPROM(std::string ifname, int offset, int* data, int length);
    ErrorMsg* EepromValidationTest(char* name, int* result);
    ErrorMsg* EepromValidationTest(std::string ifname, int* result);
    ErrorMsg* MDIRegisterTest(std::string ifname, int* result);
    ErrorMsg* InterruptTest(std::string ifname, int* result);
    ErrorMsg* InternalLoopbackTest(std::string ifname, int* result);
    ErrorMsg* Program(std::string ifname, std::string image);
    ErrorMsg* ReadSFP(std::string ifname, int device, int offset, int count, int* data);
    ErrorMsg* writeSFP(std::string ifname, int device, int offset, int value);
    ErrorMsg* GetStatistics(std::string ifname, std::string* text);
    ErrorMsg* Clear(std::string ifname);

    ErrorMsg* Extrenal_loopback(std::string ifname, int mbps, float* throughput);
    ErrorMsg* Extrenal_loopback(std::string portA, std::string portB, int mbps, float* throughput,
                                std::string* note);
    // names must have room for the 17 rows of the link-mode table.
    ErrorMsg* GetSupportedLinkModes(std::string ifname, std::string names[], int* count);
    ErrorMsg* GetSpeedDuplex(std::string ifname, std::string* text);
    ErrorMsg* GetLinkStatus(std::string ifname, std::string* state);
    ErrorMsg* Setup_speed(std::string ifname, int mbps, int wait);
    ErrorMsg* GetStatistics(std::string ifname, Ethetnet_statistics* stats);
    ErrorMsg* GetNodeValue(std::string path, std::string* value);
    ErrorMsg* GetNode(std::string name, std::string* out);
    ErrorMsg* GetFirmwareVersion(std::string ifname, std::string* version);
    ErrorMsg* GetControllerName(std::string ifname, std::string* text);
    ErrorMsg* GetAER(std::string ifname, std::string* text);

    static constexpr int kLinkModeCount = 17;

private:
    ErrorMsg* wrap(ERRORCODE function, ErrorMsg* cause);
    void setMtu1500(const std::string& ifname);
    // ethtool GSET on a fresh socket: 0, 1 socket failure, 2 request failure (errno kept).
    static int getSettings(const std::string& ifname, struct ethtool_cmd* cmd);

    EthernetDDAPI* m_device;
    ErrorMsg* m_lastResult;
};
