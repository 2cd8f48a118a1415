// Common base of the Ethernet chip drivers and of the Ethernet device layer: the
// chip-specific operations (every one succeeds without action unless a driver
// overrides it) and the ethtool helpers shared by all ports.
#pragma once

#include <linux/ethtool.h>

#include <list>
#include <string>
#include <vector>

#include "api/BaseClass.h"

// Which result of an ethtool offline self-test a caller asks for.
enum TestType {
    EEPROM_VALIDATION_TEST = 0,
    REGISTER_TEST = 1,
    INTERRUPT_TEST = 2,
    INTERNAL_LOOPBACK_TEST = 3,
    LINK_STATUS_TEST = 4,
};

class QUARN_EXPORT EthernetBaseClass : public BaseClassDDAPI {
public:
    explicit EthernetBaseClass(const char* name);
    ~EthernetBaseClass() override;

    // The LED operations of the device base stay reachable beside the per-port forms.
    using BaseClassDDAPI::getLEDList;
    using BaseClassDDAPI::getLEDStatus;
    using BaseClassDDAPI::setLEDStatus;

    virtual ErrorMsg* Set_external_loopback();
    virtual ErrorMsg* Remove_external_loopback();
    virtual ErrorMsg* Get_self_test_result(ethtool_test* result, TestType type, int* value);
    virtual ErrorMsg* SetupSpeed(std::string ifname, int mbps);
    virtual ErrorMsg* GetMAC(std::string ifname, std::string* mac);
    // bytes: six hexadecimal byte texts ("00", "1b", ...).
    virtual ErrorMsg* SetMAC(std::string ifname, std::string* bytes);
    virtual ErrorMsg* GetEEPROM(std::string ifname, int offset, int length, int* data);
    virtual ErrorMsg* SetEEPROM(std::string ifname, int offset, int* data, int length);
    virtual ErrorMsg* Program(std::string ifname, std::string imageFile);
    virtual ErrorMsg* ReadSFP(std::string ifname, int device, int offset, int count, int* data);
    virtual ErrorMsg* WriteSFP(std::string ifname, int device, int offset, int value);
    virtual ErrorMsg* getLEDName(std::string ifname, std::list<std::string>* names);
    virtual ErrorMsg* setLEDStatus(std::string ifname, std::string led, std::string state);
    virtual ErrorMsg* getLEDStatus(std::string ifname, std::string led, std::string* state);

    // ethtool helpers.
    ErrorMsg* GetLinkStatus(std::string ifname, std::string* state);
    ErrorMsg* CheckAdvertisedSpeed(std::string ifname, int mbps);
    ErrorMsg* GetPCIFunction(std::string ifname, int* function);
    ErrorMsg* GetPCIBusDeviceFunction(std::string ifname, int* domain, int* bus, int* device,
                                      int* function);
    ErrorMsg* GetPCIDeviceID(std::string ifname, std::string* id);

    // The sysfs node of the port ("/sys/class/net/" + interface, plus what was appended).
    void Append_Node(std::string suffix);
    std::string Get_Node();

protected:
    // One SIOCETHTOOL request on a fresh AF_INET datagram socket. Returns 0, or -1 with
    // *openFailed telling a socket failure from a request failure (errno kept).
    static int ethtoolRequest(const std::string& ifname, void* request, bool* openFailed);
    // ethtool EEPROM read/write (commands 0x0B/0x0C) on the port; data holds one byte per int.
    ErrorMsg* ethtoolReadEEPROM(const std::string& ifname, int offset, int length, int* data,
                                ERRORCODE function);
    ErrorMsg* ethtoolWriteEEPROM(const std::string& ifname, int offset, const int* data,
                                 int length, uint32_t magic, ERRORCODE function);
    // Runs argv (never through a shell); the exit code, or -1 when it could not run.
    static int runTool(const std::vector<std::string>& argv);

    std::string m_interface;
    std::string m_driverName;
    std::string m_node;
};
