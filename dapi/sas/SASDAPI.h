// Diagnostic layer of the SAS host bus adapters: checks the controller number, forwards to
// the device layer and wraps its chains, and programs SAS address and firmware with the
// vendor's flash tool.
#pragma once

#include <string>
#include <vector>

#include "api/BaseClass.h"
#include "ddapi/sas/SASDDAPI.h"

// Health data of one SAS drive (SCSI log pages).
struct QUARN_EXPORT StorageSASSMARTData {
    std::string name;
    std::string temperature;  // "34 C"
    std::string healthStatus;  // "OK" or the informational exception text
    SCSI_ERROR_LOG errorLog;
};

class QUARN_EXPORT SASDAPI : public BaseClassDAPI {
public:
    // Flash tool logs.
    static constexpr const char* kAddressLog = "/tmp/sasADDRflash.log";
    static constexpr const char* kFirmwareLog = "/tmp/sasFWflash.log";

    explicit SASDAPI(const char* name);
    ~SASDAPI() override;

    ErrorMsg* getInformationList(std::vector<SAS_CONTROLLER_INFO>* list);
    ErrorMsg* getInformationByController(unsigned char controller, SAS_CONTROLLER_INFO* info);
    // Exact match of the name ("SAS0"); the controller's number comes back.
    ErrorMsg* getLogicalIDByName(std::string name, unsigned char* controller);

    ErrorMsg* clearPHYErrorCountByController(unsigned char controller);
    ErrorMsg* clearPHYErrorCountByPHY(unsigned char controller, unsigned char phy);
    ErrorMsg* doLoopbackTest(unsigned char controller);
    ErrorMsg* resetIOC(unsigned char controller);
    ErrorMsg* getAttachDeviceByPHY(unsigned char controller, unsigned char phy, std::string* type);
    ErrorMsg* getTemperatureByController(unsigned char controller, unsigned int* celsius);
    ErrorMsg* getErrorCountByPHY(unsigned char controller, unsigned char phy, ERROR_COUNT_INFO* counts);
    // Sum over the controller's PHYs.
    ErrorMsg* getErrorCountByController(unsigned char controller, ERROR_COUNT_INFO* counts);
    ErrorMsg* getLinkStatusByPHY(unsigned char controller, unsigned char phy, std::string* status);
    ErrorMsg* getLinkSpeedByPHY(unsigned char controller, unsigned char phy, std::string* speed);
    ErrorMsg* getAddressByController(unsigned char controller, unsigned long long* address);
    // Any op on the whole controller; result receives the temperature for op 7, the low
    // 32 bits of the address for op 13, 0 otherwise.
    ErrorMsg* doIOCTL(unsigned char controller, unsigned int op, unsigned int* result);

    ErrorMsg* getDriveDeviceNodeListByController(unsigned char controller, std::vector<SAS_DRIVE_INFO>* list);
    ErrorMsg* getInformationByDriveName(std::string name, SAS_DRIVE_INFO* info);
    ErrorMsg* getSmartDataByDriveName(std::string name, StorageSASSMARTData* data);

    // address: 16 hexadecimal digits; file: the firmware image path. Both go to the
    // flash tool as single arguments, never through a shell.
    ErrorMsg* programSASAddress(unsigned char controller, std::string address);
    ErrorMsg* programSASFirmware(unsigned char controller, std::string file);

    ErrorMsg* readFromDevice();
    ErrorMsg* writeToDevice();

    // Lines of the last flash log (at most 11).
    const std::vector<std::string>& getFlashLog() const { return m_flashLog; }
    // The device layer (created on first use).
    SASDDAPI* device();

private:
    ErrorMsg* checkController(unsigned char controller, ERRORCODE function);
    ErrorMsg* phyRequest(ERRORCODE function, unsigned char controller, unsigned char phy,
                         SASIOCTL::IOCTL_OP_CODE op, void* result);
    ErrorMsg* flash(ERRORCODE function, ERRORCODE startFail, unsigned char controller, const char* option,
                    const std::string& value, const char* log, const char* failText);
    ErrorMsg* findDrive(ERRORCODE function, const std::string& name, SAS_DRIVE_INFO* info);

    SASDDAPI* m_device;
    std::vector<std::string> m_flashLog;
};
