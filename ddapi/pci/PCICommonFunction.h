// Lowest PCI layer: the sysfs scan of /sys/bus/pci/devices, configuration reads and
// writes through each function's sysfs config file, and the bus/bridge tree structures.
#pragma once

#include <cstddef>
#include <cstdint>

#include "api/Export.h"

struct pci_dev {
    pci_dev* next;
    uint16_t domain;
    uint8_t bus;
    uint8_t device;
    uint8_t function;
    uint16_t vendorID;
    uint16_t deviceID;
};

struct pci_access {
    pci_dev* devices;
    int fdConfig;
    int fdResource;
    char* idFileName;
};

struct device {
    device* next;
    pci_dev* dev;
    device* busNext;
    unsigned char* config;
    unsigned char* present;
};

struct bus;

struct bridge {
    bridge* chain;
    bridge* next;
    bridge* child;
    bus* first_bus;
    uint32_t domain;
    uint32_t primary;
    uint32_t secondary;
    uint32_t subordinate;
    device* br_dev;
};

struct bus {
    uint32_t domain;
    uint32_t number;
    bus* sibling;
    device* first_dev;
    device** last_dev;
};

class QUARN_EXPORT PCICommonFunction {
public:
    PCICommonFunction() = default;

    uint8_t ConfigReadByte(uint16_t domain, uint16_t bus, uint16_t device, uint8_t function,
                           uint32_t offset);
    uint16_t ConfigReadWord(uint16_t domain, uint16_t bus, uint16_t device, uint8_t function,
                            uint32_t offset);
    uint32_t ConfigReadDword(uint16_t domain, uint16_t bus, uint16_t device, uint8_t function,
                             uint32_t offset);
    int ConfigWriteByte(uint16_t domain, uint16_t bus, uint16_t device, uint8_t function,
                        uint32_t offset, uint8_t value);
    int ConfigWriteWord(uint16_t domain, uint16_t bus, uint16_t device, uint8_t function,
                        uint32_t offset, uint16_t value);
    int ConfigWriteDword(uint16_t domain, uint16_t bus, uint16_t device, uint8_t function,
                         uint32_t offset, uint32_t value);

    pci_access* pci_alloc();
    void sysfs_init(pci_access* access);
    void sysfs_scan(pci_access* access);
    device* scan_device(pci_dev* dev);
    void pci_cleanup(pci_access* access);
    void* xmalloc(size_t size);
    bus* find_bus(bridge* b, uint32_t domain, uint32_t number);
    bus* new_bus(bridge* b, uint32_t domain, uint32_t number);
    void insert_dev(device* d, bridge* b);
    void release_pci_tree(bridge* host);
    void release_device_struct(device* first);
    device* sort_them(device* first);

    // Path of a function's sysfs config file.
    static void configPath(char* out, size_t size, uint16_t domain, uint16_t bus, uint16_t device,
                           uint8_t function);

private:
    bool readConfig(uint16_t domain, uint16_t bus, uint16_t device, uint8_t function,
                    uint32_t offset, void* value, size_t width);
    int writeConfig(uint16_t domain, uint16_t bus, uint16_t device, uint8_t function,
                    uint32_t offset, const void* value, size_t width);
};
