// Device layer of the AHCI SATA controllers: controllers and ports from PCI and the ABAR
// registers, drives from sysfs, SMART through libatasmart, SCSI-to-ATA commands over SG_IO.
#pragma once

#include <list>
#include <string>

#include "api/BaseClass.h"

enum SATAIOCTLOperation : unsigned int {
    SATA_IOCTL_GENERATE_LIST = 0,
    SATA_IOCTL_LIST_CONTROLLER = 1,
    SATA_IOCTL_LIST_PORT = 2,
    SATA_IOCTL_LIST_DRIVE = 3,
    SATA_IOCTL_FLUSH_BUFFER = 4,
    SATA_IOCTL_IDENTIFY_TEST = 5,
};

enum SATADataElement : unsigned int {
    SATA_DATA_REPORT = 4,
    SATA_DATA_DEVICE_NODE = 5,
    SATA_DATA_SG_NODE = 6,
    SATA_DATA_SERIAL = 7,
    SATA_DATA_MODEL = 8,
    SATA_DATA_FIRMWARE = 9,
    SATA_DATA_CAPACITY = 10,
    SATA_DATA_PORT_NUMBER = 11,
    SATA_DATA_LINK_STATUS = 12,
    SATA_DATA_LINK_SPEED = 13,
    SATA_DATA_TEMPERATURE = 14,
};

// 0 clears (reports only), 1 is the full PxSERR report, 2-14 single bits.
enum SATAErrorElement : unsigned int {
    SATA_ERROR_CLEAR = 0,
    SATA_ERROR_REPORT = 1,
    SATA_ERROR_TRANSPORT_STATE = 2,
    SATA_ERROR_LINK_SEQUENCE = 3,
    SATA_ERROR_HANDSHAKE = 4,
    SATA_ERROR_CRC = 5,
    SATA_ERROR_DISPARITY = 6,
    SATA_ERROR_DECODE = 7,
    SATA_ERROR_PHY_INTERNAL = 8,
    SATA_ERROR_INTERNAL = 9,
    SATA_ERROR_PROTOCOL = 10,
    SATA_ERROR_PERSISTENT = 11,
    SATA_ERROR_TRANSIENT = 12,
    SATA_ERROR_RECOVER_COMMUNICATIONS = 13,
    SATA_ERROR_RECOVER_DATA_INTEGRITY = 14,
};

struct QUARN_EXPORT SMARTAttribute {
    unsigned int id = 0;
    std::string name;
    std::string current;
    std::string worst;
    std::string threshold;
    std::string readable;
    std::string rawData;  // 12 hex digits, raw byte 0 first
    std::string type;     // "prefail" or "old-age"
    std::string update;   // "online" or "offline"
    std::string healthStatus;
    std::string pastHealthStatus;
};

struct QUARN_EXPORT SATAPort {
    unsigned int logicalID = 0;
    unsigned int portNumber = 0;
    std::string name;
    std::string driveName;
    std::string deviceNode;
    std::string sgDeviceNode;
    std::string serialNumber;
    std::string modelName;
    std::string firmwareVersion;
    std::string capacity;
    std::string linkStatus;
    std::string linkSpeed;
    std::string temperature;
    std::list<SMARTAttribute> smartAttributes;
    std::string smartStatus;
    unsigned int sError = 0;
    unsigned int sStatus = 0;
};

struct QUARN_EXPORT SATAController {
    unsigned int logicalID = 0;
    unsigned int portAmount = 0;
    std::string name;
    std::string bdf;
    unsigned int domain = 0;
    unsigned int bus = 0;
    unsigned int device = 0;
    unsigned int function = 0;
    unsigned int abar = 0;
    std::list<SATAPort> ports;
};

class QUARN_EXPORT SATADDAPI : public BaseClassDDAPI {
public:
    static constexpr unsigned int kCDBLength = 16;
    static constexpr unsigned int kSenseLength = 32;
    // The port registers are read here for every controller (the board's ABAR).
    static constexpr unsigned long long kPortRegisterBase = 0xFBF02000ull;
    static constexpr unsigned int kRegisterMapLength = 896;

    explicit SATADDAPI(const char* name);
    ~SATADDAPI() override;

    ErrorMsg* generateSATAList();
    ErrorMsg* IOCTL(unsigned int id, SATAIOCTLOperation op);
    ErrorMsg* listController();
    ErrorMsg* listPort();
    ErrorMsg* listDrive();
    ErrorMsg* getLogicalIdByName(std::string name, unsigned int* id);
    ErrorMsg* getDataByName(std::string name, SATADataElement element, std::string* out);
    ErrorMsg* getDataByID(unsigned int id, SATADataElement element, std::string* out);
    ErrorMsg* getErrorRegisterByID(unsigned int id, SATAErrorElement element, std::string* out);
    ErrorMsg* getSMARTInfoByID(unsigned int id, unsigned int firstAttribute, unsigned int lastAttribute,
                               std::string* out);
    ErrorMsg* SATIdentify16(unsigned int id, std::string* firmware, std::string* model, std::string* serial);
    ErrorMsg* identifyCommandTest(unsigned int id);
    ErrorMsg* readCapacity16(unsigned int id, unsigned int* capacityMB);

    ERRORCODE SCSICDBGenerate(unsigned int length, unsigned int index, unsigned int operation);
    ERRORCODE SCSICDBSend(int fd, unsigned int length, unsigned int* buffer, bool toDevice);
    ERRORCODE PREAD(int fd, unsigned int* buffer, unsigned int length, unsigned int index);
    ERRORCODE PWRITE(int fd, unsigned int* buffer, unsigned int length, unsigned int index);
    ERRORCODE flushBufferCache(int fd);
    ERRORCODE checkDeviceNodeName(std::string node);
    // format "ASCII": the bytes as characters; "HEX": two lower-case digits per byte.
    ERRORCODE dumpHexDataToString(const unsigned char* data, unsigned int length, const char* format,
                                  std::string* out);
    static unsigned int SWAB4(unsigned int value);
    static std::string convertStringToUpperCase(std::string text);

    const std::list<SATAController>& getControllers() const { return m_controllers; }
    const unsigned char* getCDB() const { return m_cdb; }
    unsigned int getCDBLength() const { return m_cdbLength; }
    // Sense data of the last pass-through command (kSenseLength bytes).
    const unsigned char* getSenseBuffer() const { return m_sense; }
    // The last sense data in fixed format (descriptor data restated), zero-padded to length.
    void getFixedSense(unsigned char* out, unsigned int length) const;
    // The port with this logical ID, or null (controllers and unknown IDs).
    const SATAPort* findPort(unsigned int id) const;

private:
    ErrorMsg* initControllerInfo();
    ErrorMsg* initPortInfo();
    ErrorMsg* getPortDeviceNode(SATAController& controller);
    SATAPort* portByID(unsigned int id);
    SATAController* controllerByID(unsigned int id);
    ErrorMsg* portReport(SATAPort& port, ERRORCODE function, std::string* out);
    // SMART: reads identify, SMART data, thresholds and status through pass-through
    // commands on the SG node and runs libatasmart's parsers over them.
    ERRORCODE dumpSMARTInfo(SATAPort& port, const std::string& sgNode);
    ERRORCODE ataCommand(int fd, unsigned char command, unsigned char feature, bool dataIn, unsigned char* data,
                         unsigned char* registers);

    std::list<SATAController> m_controllers;
    unsigned char m_cdb[kCDBLength];
    unsigned int m_cdbLength;
    unsigned char m_sense[kSenseLength];
    int m_ioctlErrno;
};
