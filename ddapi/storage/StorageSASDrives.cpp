// The SAS side of the drive list: the adapters' drives through the SAS device layer.
#include <cstdio>
#include <new>
#include <vector>

#include "ddapi/sas/SASDDAPI.h"
#include "ddapi/storage/StorageDDAPIOperation.h"

SASDDAPI* StorageDDAPIOperation::createSASLayer() { return new (std::nothrow) SASDDAPI("SAS"); }

void StorageDDAPIOperation::deleteSASLayer(SASDDAPI* sas) { delete sas; }

// Adapters in list order, each one's drives in its order. A board without a SAS adapter
// (the SAS layer found none) simply has no SAS drives; any other failure fails the list.
ErrorMsg* StorageDDAPIOperation::addSASDrives(uint32_t* next) {
    std::vector<SAS_CONTROLLER_INFO> controllers;
    if (ErrorMsg* e = m_sas->getControllerList(&controllers)) {
        if (m_sas->getControllerCount() == 0) {
            deleteErrorMsg(e);
            return nullptr;
        }
        return e;
    }
    for (size_t c = 0; c < controllers.size(); ++c) {
        std::vector<SAS_DRIVE_INFO> list;
        if (ErrorMsg* e = m_sas->getDriveListByController(static_cast<unsigned char>(c), &list)) return e;
        for (const SAS_DRIVE_INFO& listed : list) {
            SAS_DRIVE_INFO info = listed;
            if (ErrorMsg* e = m_sas->getDriveInfoByName(listed.name, &info)) {
                deleteErrorMsg(e);  // not a disk the tests can use (a RAM disk, a drive gone quiet)
                continue;
            }
            StorageDrive d;
            d.controllerType = STORAGE_TYPE_SAS;
            d.logicalID = (*next)++;
            d.driveName = info.name;
            d.deviceNode = info.deviceNode;
            d.sgDeviceNode = info.sgDeviceNode;
            d.vendor = info.vendor;
            d.modelName = info.model;
            d.serialNumber = info.serial;
            d.firmwareVersion = info.firmware;
            char address[24];
            snprintf(address, sizeof(address), "0x%016llx", info.sasAddress);
            d.sasAddress = address;
            d.linkSpeed = info.linkSpeed;
            d.rotationRate = info.rotationRate;
            d.formFactor = info.formFactor;
            d.transportProtocol = info.transportProtocol;
            d.temperature = info.temperature;
            d.logicalBlockSize = info.logicalBlockSize;
            d.physicalBlockSize = info.physicalBlockSize;
            d.capacityMB = info.capacity >> 20;
            d.errorLog = info.errorLog;
            m_drives.push_back(d);
        }
    }
    return nullptr;
}
