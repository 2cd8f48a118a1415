// Records shared by the PCI layers and their callers: function addresses, device-list
// records, capability nodes, name and class tables, error, slot and switch records.
#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include "api/Export.h"

typedef uint32_t PCIClassCode;  // base class << 8 | subclass

#pragma pack(push, 1)
// Address of one function; the spare byte after function carries the slot's link state.
struct _PFA {
    uint16_t domain;
    uint16_t bus;
    uint16_t device;
    uint8_t function;
    uint8_t spare;
};
#pragma pack(pop)
static_assert(sizeof(_PFA) == 8, "_PFA is passed as 8 bytes");

struct _PCIInformantion {
    std::string name;
    uint16_t domain;
    uint16_t bus;
    uint16_t device;
    uint8_t function;
    uint16_t vendorID;
    uint16_t deviceID;
    uint32_t classCode;
    uint8_t revisionID;
    uint8_t headerType;
    uint8_t capabilityPointer;
    uint8_t portType;
    uint8_t portNumber;
};

struct CapInfo {
    uint32_t ID;
    uint32_t offset;
    uint32_t next;
};

enum _DATA_TYPE {
    PCI_DOMAIN = 0,
    PCI_BUS = 1,
    PCI_DEVICE = 2,
    PCI_FUNCTION = 3,
    PCI_VENDOR_ID = 4,
    PCI_DEVICE_ID = 5,
    PCI_CLASS_CODE = 6,
    PCI_CLASS_TEXT = 7,
    PCI_REVISION_ID = 8,
    PCI_REVISION = 9,
    PCI_CURRENT_LINK_WIDTH = 10,
    PCI_MAX_LINK_WIDTH = 11,
    PCI_CURRENT_LINK_SPEED = 12,
    PCI_MAX_LINK_SPEED = 13,
    PCI_PORT_TYPE = 14,
    PCI_PORT_NUMBER = 15,
    PCI_LINK_STATUS = 16,
};

struct _PCI_NAME_MAPPING {
    uint16_t vendorID;
    uint16_t deviceID;
    std::string vendorName;
    std::string deviceName;
};

struct _PCI_CLASS_MAPPING {
    uint8_t classCode;
    uint8_t subclass;
    uint8_t programmingInterface;
    std::string className;
    std::string subclassName;
    std::string interfaceName;
};

struct PCIClassInfo {
    uint32_t code;
    char name[128];
};
// Class keywords, ended by the row of code 0xFFFF.
extern QUARN_EXPORT const PCIClassInfo PCIClassInformation[];

// Selects a register family (0-2) or one named error (4-21).
enum _PCI_ERROR_TYPE {
    PCI_COMPATIBLE_ERROR = 0,
    PCIE_CAPABILITY_ERROR = 1,
    PCIE_AER_ERROR = 2,
    DETECTED_PARITY_ERROR = 4,
    SIGNALED_SYSTEM_ERROR = 5,
    RECEIVED_MASTER_ABORT = 6,
    RECEIVED_TARGET_ABORT = 7,
    SIGNALED_TARGET_ABORT = 8,
    MASTER_DATA_PARITY_ERROR = 9,
    SECONDARY_DETECTED_PARITY_ERROR = 10,
    RECEIVED_SYSTEM_ERROR = 11,
    SECONDARY_RECEIVED_MASTER_ABORT = 12,
    SECONDARY_RECEIVED_TARGET_ABORT = 13,
    SECONDARY_SIGNALED_TARGET_ABORT = 14,
    SECONDARY_MASTER_DATA_PARITY_ERROR = 15,
    UNSUPPORTED_REQUEST_DETECTED = 16,
    FATAL_ERROR_DETECTED = 17,
    NON_FATAL_ERROR_DETECTED = 18,
    CORRECTABLE_ERROR_DETECTED = 19,
    UNCORRECTABLE_ERROR_STATUS = 20,
    CORRECTABLE_ERROR_STATUS = 21,
};

struct _PCI_ERROR {
    std::string name;
    uint32_t value;
};

struct _PORT_ERROR {
    _PFA port;
    std::list<_PCI_ERROR> errors;
};

struct _SLOT_INFO {
    _PFA port;  // port.spare holds linkUp
    _PCIInformantion device;
    std::string slotName;
    std::string hbaName;
    std::string hbaDescription;
};

struct _SUPPORTED_HBA {
    uint16_t vendorID;
    uint16_t deviceID;
    std::string name;
    std::string description;
};

struct _SWITCH_UNIT {
    std::string switchID;
    std::string name;
    uint16_t vendorID;
    uint16_t deviceID;
    _PFA upstreamPort;
    std::vector<_PFA> downstreamPorts;
};

// One candidate port of the link retrain test and the function behind it.
struct RetrainInfo {
    _PCIInformantion port;  // address, IDs, 24-bit class code, revision, header type, capability pointer
    uint8_t linkUp;
    uint8_t spare;
    uint16_t downstreamDomain;  // 0xFFFF when nothing is behind the port
    uint16_t downstreamBus;
    uint16_t downstreamDevice;
    uint16_t downstreamFunction;
    uint16_t downstreamVendorID;
    uint16_t downstreamDeviceID;
    std::string downstreamName;
};

// A serial EEPROM on a PLX switch, by the upstream port that carries it.
struct _EEPROM_INFO {
    std::string name;  // "eeprom%d"
    uint16_t domain;
    uint16_t bus;
    uint16_t device;
    uint16_t function;
};
