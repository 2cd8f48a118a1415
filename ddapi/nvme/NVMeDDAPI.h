// Device layer of the NVMe controllers: the controller list from PCI (class 0x0108),
// each controller's character and block nodes, and command submission.
#pragma once

#include <string>
#include <vector>

#include "api/BaseClass.h"
#include "ddapi/nvme/NVMeIOCTL.h"
#include "ddapi/nvme/NVMeTypes.h"

class PCIDDAPI;

struct QUARN_EXPORT NVMe_DEVICE_INFO {
    std::string name;           // NVME0, NVME1, ...
    std::string deviceNode;     // character node, /dev/nvme0
    std::string blockNode;      // namespace node, /dev/nvme0n1 (empty without a namespace)
    std::string pciAddress;     // 0000:04:00.0
    unsigned char identifyController[4096];
    unsigned char identifyNamespace[4096];
    unsigned char smartLog[512];
};

class QUARN_EXPORT NVMeDDAPI : public BaseClassDDAPI {
public:
    explicit NVMeDDAPI(const char* name);
    ~NVMeDDAPI() override;

    ErrorMsg* getControllerList(std::vector<NVMe_DEVICE_INFO>* list);
    ErrorMsg* getDeviceNodeByController(unsigned char controller);
    ErrorMsg* doIOCTLCommand(unsigned char controller, NVMeIOCTL::IOCTL_OP_CODE op, void* argument);
    ErrorMsg* downloadFirmware(unsigned char controller, void* image, unsigned int length);
    ErrorMsg* addNVMeController();

    size_t controllerCount() const { return m_controllers.size(); }
    const std::vector<NVMe_DEVICE_INFO>& controllers() const { return m_controllers; }
    // Commands submitted since construction (pass-through requests, resets, ID requests).
    unsigned long long commandCount() const { return m_commands; }

private:
    // Finds the entry of directory whose link target contains address; "" when none.
    ERRORCODE findLinkedEntry(const char* directory, const std::string& address, std::string* entry);

    PCIDDAPI* m_pci;
    std::vector<NVMe_DEVICE_INFO> m_controllers;
    unsigned long long m_commands;
};
