// The board's one numbered list of disks, whatever their attachment: drives behind the
// SAS host bus adapters, NVMe controllers and USB mass storage, with each disk's nodes,
// report, block sizes and capacity, and the SMART summary of SAS drives.
#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include "api/BaseClass.h"
#include "ddapi/scsi/SCSIFactory.h"

class SATADDAPI;
class SASDDAPI;
class NVMeDDAPI;
class USBDDAPI;

constexpr uint32_t STORAGE_TYPE_SAS = 0;
constexpr uint32_t STORAGE_TYPE_USB = 2;
constexpr uint32_t STORAGE_TYPE_NVME = 3;

enum StorageIOCTLOperation : unsigned int {
    STORAGE_IOCTL_GENERATE_LIST = 0,
    STORAGE_IOCTL_LIST_DRIVE = 1,
};

enum StorageDataElement : unsigned int {
    STORAGE_DATA_REPORT = 0,
    STORAGE_DATA_DEVICE_NODE = 1,
    STORAGE_DATA_SG_NODE = 2,
    STORAGE_DATA_VENDOR = 3,
    STORAGE_DATA_MODEL = 4,
    STORAGE_DATA_SERIAL = 5,
    STORAGE_DATA_FIRMWARE = 6,
    STORAGE_DATA_LOGICAL_BLOCK_SIZE = 7,  // bytes, decimal
    STORAGE_DATA_PHYSICAL_BLOCK_SIZE = 8,
    STORAGE_DATA_SAS_ADDRESS = 9,
    STORAGE_DATA_CAPACITY = 10,  // MB (2^20 bytes), decimal
    STORAGE_DATA_LINK_SPEED = 11,
    STORAGE_DATA_USB_VERSION = 12,
    STORAGE_DATA_TRANSPORT_PROTOCOL = 13,
    STORAGE_DATA_FORM_FACTOR = 14,
    STORAGE_DATA_ROTATION_RATE = 15,
    STORAGE_DATA_TEMPERATURE = 16,
    STORAGE_DATA_NAME = 17,
};

struct QUARN_EXPORT StorageSMARTAttribute {
    std::string name;
    std::string value;
};

struct QUARN_EXPORT StorageDrive {
    uint32_t controllerType = 0;
    uint32_t logicalID = 0;
    std::string driveName;
    std::string deviceNode;
    std::string sgDeviceNode;
    std::string vendor;
    std::string modelName;
    std::string serialNumber;
    std::string sasAddress;
    std::string firmwareVersion;
    std::string linkSpeed;
    std::string usbVersion;
    std::string transportProtocol;
    std::string formFactor;
    std::string rotationRate;
    std::string temperature;
    unsigned long long capacityMB = 0;
    unsigned int logicalBlockSize = 0;
    unsigned int physicalBlockSize = 0;
    SCSI_ERROR_LOG errorLog;
    std::list<StorageSMARTAttribute> smartAttributes;
};

class QUARN_EXPORT StorageDDAPIOperation : public BaseClassDDAPI {
public:
    explicit StorageDDAPIOperation(const char* name);
    ~StorageDDAPIOperation() override;

    ErrorMsg* generateStorageList();
    ErrorMsg* listDrive();
    ErrorMsg* getNameByID(unsigned int id, std::string* name);
    ErrorMsg* getControllerTypeByID(unsigned int id, unsigned int* type);
    ErrorMsg* getLogicalIdByName(std::string name, unsigned int* id);
    ErrorMsg* getDataByID(unsigned int id, StorageDataElement element, std::string* out);
    ErrorMsg* getDataByName(std::string name, StorageDataElement element, std::string* out);
    ErrorMsg* getSMARTInfoByID(unsigned int id, std::string* out);
    ErrorMsg* IOCTL(unsigned int id, StorageIOCTLOperation op);

    const std::vector<StorageDrive>& drives() const { return m_drives; }
    const StorageDrive* findDrive(unsigned int id) const;
    SCSIFactory* factory() { return m_factory; }

private:
    // The SAS side (StorageSASDrives.cpp): the adapters' layer and their drives.
    static SASDDAPI* createSASLayer();
    static void deleteSASLayer(SASDDAPI* sas);
    ErrorMsg* addSASDrives(uint32_t* nextID);
    ErrorMsg* addNVMeDrives(uint32_t* nextID);
    ErrorMsg* addUSBDrives(uint32_t* nextID);
    std::string report(const StorageDrive& d) const;

    std::vector<StorageDrive> m_drives;
    SATADDAPI* m_sata;
    SASDDAPI* m_sas;
    NVMeDDAPI* m_nvme;
    USBDDAPI* m_usb;
    SCSIFactory* m_factory;
};
