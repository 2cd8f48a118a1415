// Device layer of the SAS host bus adapters: the controller list (PCI and the driver's IOC
// information), management requests through SASIOCTL and the drives behind each adapter.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "api/BaseClass.h"
#include "ddapi/sas/SASIOCTL.h"
#include "ddapi/scsi/SCSIFactory.h"

class PCIDDAPI;

// One adapter (IOC).
struct QUARN_EXPORT SAS_CONTROLLER_INFO {
    std::string name;             // "SAS" + digit
    unsigned char controller = 0;  // the number requests carry
    std::string version;          // version text of the IOC information
    std::string firmwareVersion;  // "a.b.c.d": bytes 3, 2, 1, 0 of the firmware field
    std::string secondVersion;    // likewise, of the second (BIOS) version field
    std::string pciLocation;      // "dddd:bb:dd.f"
    std::string revision;         // "Rev " + 2 hex digits
    unsigned int domain = 0;
    unsigned int bus = 0;
    unsigned int device = 0;
    unsigned int function = 0;
    unsigned int revisionID = 0;
};

// The four PHY error counters of the adapter (op 10), in reply order.
struct QUARN_EXPORT ERROR_COUNT_INFO {
    unsigned int invalidDwordCount = 0;
    unsigned int runningDisparityErrorCount = 0;
    unsigned int lossOfDwordSyncCount = 0;
    unsigned int phyResetProblemCount = 0;
};

// The first PHY descriptor of a drive's SAS phy control and discover mode subpage (0x19/0x01).
struct QUARN_EXPORT SAS_DRIVE_PHY_INFO {
    unsigned int phyCount = 0;            // PHYs the drive reports
    unsigned int phyIdentifier = 0;
    unsigned int attachedDeviceType = 0;  // 1 end device, 2 expander, 3 fanout expander
    unsigned int attachedReason = 0;
    unsigned int negotiatedLinkRate = 0;  // 8 1.5G, 9 3G, 10 6G, 11 12G
    unsigned int attachedInitiatorProtocols = 0;  // bits: SMP 1, STP 2, SSP 3
    unsigned int attachedTargetProtocols = 0;
    unsigned long long sasAddress = 0;
    unsigned long long attachedSASAddress = 0;
    unsigned int attachedPhyIdentifier = 0;  // the target number of the drive
    unsigned int programmedMinRate = 0;
    unsigned int hardwareMinRate = 0;
    unsigned int programmedMaxRate = 0;
    unsigned int hardwareMaxRate = 0;
};

// One drive behind an adapter.
struct QUARN_EXPORT SAS_DRIVE_INFO {
    std::string name;          // "SAS0-DRIVE2", or "SAS0-RAMDISK"
    std::string deviceNode;    // "/dev/sdX"
    std::string sgDeviceNode;  // "/dev/sgN"
    unsigned long long sasAddress = 0;
    std::string vendor;
    std::string model;
    std::string serial;
    std::string firmware;
    std::string identifier;  // logical unit designator (VPD 0x83)
    unsigned long long capacity = 0;  // bytes
    unsigned int logicalBlockSize = 0;
    unsigned int physicalBlockSize = 0;
    std::string rotationRate;       // "Solid State Device", "7200 rpm" or empty
    std::string formFactor;         // "3.5 inches" ... or empty
    std::string transportProtocol;  // "SAS (SPL-3)" ...
    std::string linkSpeed;          // "12G" ... from the drive's PHY
    std::string temperature;        // "34 C"
    std::string healthStatus;       // "OK" or the informational exception text
    unsigned int targetNumber = 0;  // attached (expander) PHY of the drive
    SAS_DRIVE_PHY_INFO phy;
    SCSI_ERROR_LOG errorLog;
};

class QUARN_EXPORT SASDDAPI : public BaseClassDDAPI {
public:
    static constexpr unsigned int kVendorLSI = 0x1000;
    static constexpr unsigned int kClassSAS = 0x0107;
    static constexpr unsigned int kTargetBase = 0x10;  // drive 0 sits at target 0x10
    static constexpr unsigned int kTargetCount = 24;   // targets 0x10 to 0x27
    static constexpr unsigned int kPhysPerController = 8;  // SAS3008

    explicit SASDDAPI(const char* name);
    ~SASDDAPI() override;

    ErrorMsg* getControllerList(std::vector<SAS_CONTROLLER_INFO>* list);
    ErrorMsg* getInformationByController(unsigned char controller, SAS_CONTROLLER_INFO* info);
    // Selects the controller of the following requests; refused ("Bad IOC logical ID")
    // when it is not below the number of controllers.
    ErrorMsg* setControllerID(unsigned char controller);
    // 0xFF clears the PHY number (requests for the whole controller need it cleared).
    ErrorMsg* setPHYNumber(unsigned char phy);
    // One management request with the current controller and PHY numbers. result:
    //   ops 1-5: unused; op 6, 11, 12: std::string*; op 7: unsigned int* (degrees C);
    //   op 8: SAS_CONTROLLER_INFO* (version, firmware, second version, bus/device/function
    //   and revision; the location text uses the domain already in the record);
    //   op 10: ERROR_COUNT_INFO*; op 13: unsigned long long*.
    ErrorMsg* doIOCTLCommand(SASIOCTL::IOCTL_OP_CODE op, void* result);

    ErrorMsg* getDriveListByController(unsigned char controller, std::vector<SAS_DRIVE_INFO>* list);
    // info must carry the drive's name, device and SG nodes (as the drive list fills them).
    ErrorMsg* getDriveInfoByName(std::string name, SAS_DRIVE_INFO* info);
    ErrorMsg* getDrivePHYInfoByName(SAS_DRIVE_INFO* info);
    ErrorMsg* getDriveSASPortParam(unsigned char* page, unsigned int length, SAS_DRIVE_PHY_INFO* phy);
    // *physicalBlockSize non-zero on entry asks for READ CAPACITY(16); on return it holds
    // the physical block size (the logical one when not asked and without protection).
    ErrorMsg* getDriveSizeByNodeName(int fd, unsigned int* blockSize, int* physicalBlockSize,
                                     unsigned long long* size);
    // Images are written by the vendor's flash tool (SASDAPI); nothing to do here.
    ErrorMsg* programImage();

    unsigned int getControllerCount() const { return static_cast<unsigned int>(m_controllers.size()); }
    SASIOCTL* getIOCTL() { return m_ioctl; }
    SCSIFactory* getSCSIFactory() { return m_scsi; }
    ERRORCODE getLastError() const { return m_lastError; }

private:
    ErrorMsg* addIOCController();
    ErrorMsg* controllerAt(unsigned char controller, const SAS_CONTROLLER_INFO** out, ERRORCODE function);

    SASIOCTL* m_ioctl;
    PCIDDAPI* m_pci;
    SCSIFactory* m_scsi;
    std::vector<SAS_CONTROLLER_INFO> m_controllers;  // sorted by name
    ERRORCODE m_lastError;
};
