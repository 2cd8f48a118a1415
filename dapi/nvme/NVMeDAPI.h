// Diagnostic layer of the NVMe controllers: argument checks and the commands by
// controller number, firmware download from a file and the register BAR.
#pragma once

#include <string>
#include <vector>

#include "api/BaseClass.h"
#include "ddapi/nvme/NVMeDDAPI.h"

class QUARN_EXPORT NVMeDAPI : public BaseClassDAPI {
public:
    explicit NVMeDAPI(const char* name);
    ~NVMeDAPI() override;

    ErrorMsg* getInformationList(std::vector<NVMe_DEVICE_INFO>* list);
    ErrorMsg* getInformationByController(unsigned char controller, NVMe_DEVICE_INFO* info);
    ErrorMsg* getLogicalIDByName(std::string name, unsigned char* controller);
    ErrorMsg* resetNVMe(unsigned char controller);
    ErrorMsg* getIdentityCTRLByController(unsigned char controller, nvme_id_ctrl* data);
    ErrorMsg* getIdentityNSByController(unsigned char controller, nvme_id_ns* data);
    ErrorMsg* getFirmwareLogByController(unsigned char controller, nvme_firmware_log_page* data);
    ErrorMsg* activateFirmwareByController(unsigned char controller, nvme_fw_active request);
    ErrorMsg* getSmartLogByController(unsigned char controller, nvme_smart_log* data);
    ErrorMsg* getErrorLogByController(unsigned char controller, nvme_error_log_page* data);
    ErrorMsg* getNameSpaceIDByController(unsigned char controller, int* nsid);
    // blocks is the NVMe count: 0-based (0 zeroes one block).
    ErrorMsg* writeZeroByController(unsigned char controller, unsigned long long startLBA, unsigned short blocks);
    // Format NVM of the controller's namespace (not one of the fixed-code operations).
    ErrorMsg* formatByController(unsigned char controller, NVMeFormatArgument format);
    ErrorMsg* doIOCTL(unsigned char controller, unsigned int op, unsigned int* result);
    // Maps the first page of BAR0 read-only; release with platform().munmap(*bar, pageSize).
    ErrorMsg* getBarResourceByController(unsigned char controller, nvme_bar** bar);
    ErrorMsg* downloadFirmwareByController(unsigned char controller, const char* file);

    ErrorMsg* readFromDevice() { return nullptr; }
    ErrorMsg* writeToDevice() { return nullptr; }

    NVMeDDAPI* device() { return m_device; }

private:
    ErrorMsg* checkController(ERRORCODE function, unsigned char controller);
    ErrorMsg* command(ERRORCODE function, unsigned char controller, NVMeIOCTL::IOCTL_OP_CODE op, void* argument);

    NVMeDDAPI* m_device;
};
