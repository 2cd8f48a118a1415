// Ethernet device layer: the port list, address, EEPROM and statistics queries through
// the kernel's interfaces, the chip driver of a port chosen by its PCI IDs, the raw-frame
// loopback measurement and the Ethernet LEDs.
#pragma once

#include <list>
#include <string>

#include "ddapi/ethernet/EthernetBaseClass.h"

// One port of the port list.
struct QUARN_EXPORT ethernet_data {
    std::string name;        // interface name
    std::string slotName;    // PCI address, domain:bus:device.function
    std::string controller;  // vendor and device names from pci.ids
    std::string ipAddress;   // dotted IPv4 address, "0.0.0.0" without one
    std::string driver;      // kernel driver
};

// The kernel's interface counters, as their texts.
struct QUARN_EXPORT Ethetnet_statistics {
    std::string rx_packets;
    std::string rx_errors;
    std::string rx_dropped;
    std::string rx_frame_errors;
    std::string tx_packets;
    std::string tx_errors;
    std::string tx_dropped;
    std::string tx_aborted_errors;
};

class QUARN_EXPORT EthernetDDAPI : public EthernetBaseClass {
public:
    explicit EthernetDDAPI(const char* name);
    ~EthernetDDAPI() override;

    using EthernetBaseClass::GetMAC;
    using EthernetBaseClass::getLEDStatus;
    using EthernetBaseClass::setLEDStatus;

    // LEDs of the Ethernet ports, named interface + "_led0" and so on.
    ErrorMsg* getLEDList(std::list<std::string>* names) override;
    ErrorMsg* getLEDStatus(std::string led, std::string* state) override;
    ErrorMsg* setLEDStatus(std::string led, std::string state) override;

    ErrorMsg* SetupSpeed(std::string ifname, int mbps) override;
    ErrorMsg* Program(std::string ifname, std::string image) override;
    ErrorMsg* ReadSFP(std::string ifname, int device, int offset, int count, int* data) override;
    ErrorMsg* WriteSFP(std::string ifname, int device, int offset, int value) override;

    // Identity of the bound port.
    ErrorMsg* get_vendor_ID(std::string* id);
    ErrorMsg* get_device_ID(std::string* id);
    ErrorMsg* get_device_bus_type(std::string* bus);

    // Chip-forwarding operations.
    ErrorMsg* GetEthernetMAC(std::string ifname, std::string* mac);
    ErrorMsg* SetEthernetMAC(std::string ifname, std::string* bytes);
    ErrorMsg* GetEthernetEEPROM(std::string ifname, int offset, int length, int* data);
    ErrorMsg* SetEthernetEEPROM(std::string ifname, int offset, int* data, int length);
    ErrorMsg* SendIoctl(std::string ifname, TestType type, int* value);

    // Kernel queries on a port name.
    ErrorMsg* GetEthernetIP(char* name, unsigned char address[4]);
    ErrorMsg* GetEthernetMask(char* name, unsigned char mask[4]);
    ErrorMsg* GetEthernetMTU(char* name, int* mtu);
    ErrorMsg* GetEthernetEEPROM(char* name, unsigned char* data, int length);
    ErrorMsg* GetEthernetEEPROMSize(char* name, int* size);
    ErrorMsg* GetEthernetMagic(char* name, int* magic);
    ErrorMsg* SetEthernetEEPROM(char* name, int offset, unsigned char value);

    // Port list and the well-known names of "Ethernet_profile.ini".
    ErrorMsg* GetEthernetNamesList(std::list<ethernet_data>* ports);
    ErrorMsg* ConverWellKnowNameToRealName(std::string wellKnown, std::string* real);

    // Statistics and loopback.
    ErrorMsg* getStatistics(std::string ifname, std::string* text);
    ErrorMsg* get_receive_packet_number(std::string sender, std::string receiver, long* txPackets,
                                        long* rxPackets);
    ErrorMsg* Enable_external_loopback(std::string ifname);
    ErrorMsg* Disable_external_loopback();
    ErrorMsg* Execute_external_loopback(std::string sender, std::string receiver, float* throughput);

    ErrorMsg* clearStatistics(std::string ifname);
    ErrorMsg* clearAER(std::string ifname);

    static char* LTrim(char* text, char c);

    const std::string& boundName() const { return m_bound; }

private:
    enum class Chip { None, I210, X552, XL710, EP8324 };
    // Binds ifname and reads its IDs; on failure a chain under function with the detail.
    ErrorMsg* readIds(const std::string& ifname, ERRORCODE function, std::string* vendor,
                      std::string* device);
    static Chip chipOf(const std::string& vendor, const std::string& device);
    EthernetBaseClass* makeDriver(Chip chip);
    ErrorMsg* nodeLine(const std::string& path, std::string* line, ERRORCODE code);
    ErrorMsg* addressQuery(char* name, unsigned long request, unsigned char out[4],
                           ERRORCODE function);
    ErrorMsg* driverInfo(const char* name, struct ethtool_drvinfo* info, ERRORCODE function);

    std::string m_bound;
};
