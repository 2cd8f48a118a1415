// Device layer of USB: keyboards, mice and mass-storage devices found through the
// kernel's usbhid and usb-storage drivers in sysfs, their attributes, and READ(10)/
// WRITE(10) transfers over SCSI generic for the storage tests.
#pragma once

#include <cstdint>
#include <list>
#include <string>

#include "api/BaseClass.h"

enum USB_DATA_ELEMENT : uint32_t {
    USB_DATA_NONE = 0,
    USB_DATA_DEVICE_NODE = 1,
    USB_DATA_SERIAL = 2,
    USB_DATA_MANUFACTURER = 3,
    USB_DATA_SIZE = 4,  // whole MiB, "%.2f"
    USB_DATA_VERSION = 5,
    USB_DATA_SPEED = 6,  // Mb/s
    USB_DATA_PHYSICAL_BLOCK_SIZE = 7,
    USB_DATA_LOGICAL_BLOCK_SIZE = 8,
    USB_DATA_SG_NODE = 9,
};

#pragma pack(push, 1)
struct QUARN_EXPORT UsbConfiguration {
    uint32_t id;  // 0xFFFF when the entry is free
    char name[31];
    char node[31];
    char interface[34];
};
#pragma pack(pop)
static_assert(sizeof(UsbConfiguration) == 100, "a device table entry is 100 bytes");

struct QUARN_EXPORT UsbDataElementPath {
    uint32_t element;
    char path[32];
};

class QUARN_EXPORT USBDDAPI : public BaseClassDDAPI {
public:
    static constexpr unsigned int kTableSize = 256;
    static constexpr uint32_t kFree = 0xFFFF;

    explicit USBDDAPI(const char* name);
    ~USBDDAPI() override;

    ErrorMsg* getUSBDevicesList(std::list<std::string>* names);
    ErrorMsg* getLogicalIdByName(std::string name, uint32_t* id);
    ErrorMsg* getDataByID(uint32_t id, USB_DATA_ELEMENT element, std::list<std::string>* out);
    ErrorMsg* getUSBDeviceNode(uint32_t id, std::list<std::string>* out);
    ErrorMsg* PREAD(int fd, void* buffer, uint32_t lba, uint32_t bytes);
    ErrorMsg* PWRITE(int fd, void* buffer, uint32_t lba, uint32_t bytes);
    ErrorMsg* SCSIRead(int fd, unsigned char* cdb, void* buffer, uint32_t bytes);
    ErrorMsg* SCSIWrite(int fd, unsigned char* cdb, void* buffer, uint32_t bytes);

    const UsbConfiguration* entry(uint32_t id) const;
    const unsigned char* getSenseBuffer() const { return m_sense; }
    // The error of discovery, if any (kept for the diagnostic layer's constructor).
    unsigned long long transferCount() const { return m_transfers; }

private:
    ErrorMsg* discover();
    ErrorMsg* getUSBInfoFromSysBus(const UsbConfiguration& e, const char* attribute, std::list<std::string>* out);
    ErrorMsg* getUSBInfoFromSysBlock(const UsbConfiguration& e, const char* attribute, bool size,
                                     std::list<std::string>* out);
    ErrorMsg* getUSBSGDeviceNode(const UsbConfiguration& e, std::list<std::string>* out);
    ErrorMsg* transfer(bool write, int fd, unsigned char* cdb, void* buffer, uint32_t bytes);

    unsigned char m_sense[96];
    UsbConfiguration m_devices[kTableSize];
    UsbDataElementPath m_elements[10];
    unsigned long long m_transfers;
};
