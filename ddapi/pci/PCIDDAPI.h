// PCI device layer: the device list and its naming, configuration access by address,
// BARs, the port-I/O scan, error statistics, the bridge tree, slots and switches.
#pragma once

#include <functional>
#include <list>
#include <string>
#include <vector>

#include "api/BaseClass.h"
#include "ddapi/pci/PCICommonFunction.h"
#include "ddapi/pci/PCIDevice.h"
#include "ddapi/pci/PCITypes.h"

class MemoryDDAPI;

// The physical-memory object of the last PCIDDAPI made (switch registers, BAR windows).
extern QUARN_EXPORT MemoryDDAPI* m_memoryDriver;

class QUARN_EXPORT PCIDDAPI : public BaseClassDDAPI {
public:
    static constexpr size_t kMaxDevices = 10000;

    explicit PCIDDAPI(const char* name);
    ~PCIDDAPI() override;

    // Device list.
    ErrorMsg* getDeviceList(std::vector<_PCIInformantion>* list, bool sort);
    void getDevicesName(std::vector<_PCIInformantion>* list);
    ErrorMsg* getPciInfoByClass(PCIClassCode code, std::vector<_PCIInformantion>* out);
    void CreatePCIInfoList();
    static void initialPciInfoStructure(_PCIInformantion* info);
    // A fresh record holding the address and IDs of a scanned function.
    static _PCIInformantion scannedInfo(const device& d);

    // Names and classes.
    ERRORCODE getPciDeviceNameMappingTable();
    ERRORCODE getPciClassMappingTable(std::vector<_PCI_CLASS_MAPPING>* table);
    void defineName(_PCIInformantion* info);
    ERRORCODE convertStringToClassCode(std::string text, uint32_t* code);
    void showPciDefinedTypes();
    std::string getClassTypeString(_PFA pfa);
    std::string getPortTypeString(_PFA pfa);
    std::string getLinkStatus(_PFA pfa);
    bool getLinkStatus(PCIDevice& dev);
    uint32_t getLinkWidth(PCIDevice& dev, _DATA_TYPE type);
    float getLinkSpeed(PCIDevice& dev, _DATA_TYPE type);

    // Queries.
    uint32_t GetDataByBDF(_PFA pfa, _DATA_TYPE type);
    uint32_t GetDataByID(uint32_t index, _DATA_TYPE type);
    float GetFloatDataByID(_PFA pfa, _DATA_TYPE type);
    std::string GetDeviceNameByID(uint32_t index);
    uint32_t getDeviceAmount() const { return static_cast<uint32_t>(m_deviceCount); }

    // Configuration space.
    uint8_t ConfigReadByte(uint32_t index, uint32_t offset);
    uint16_t ConfigReadWord(_PFA pfa, uint32_t offset);
    uint32_t ConfigReadDword(_PFA pfa, uint32_t offset);
    void ConfigReadByte(_PFA pfa, uint32_t first, uint32_t last, uint8_t* buffer);
    int ConfigWriteByte(_PFA pfa, uint32_t offset, uint8_t value);
    int ConfigWriteWord(_PFA pfa, uint32_t offset, uint16_t value);
    int ConfigWriteDword(_PFA pfa, uint32_t offset, uint32_t value);
    void ConfigWriteByte(_PFA pfa, uint32_t offset, uint8_t* data, uint32_t length);

    bool isPCIe(_PFA pfa);
    ERRORCODE checkPresenceOfDevice(_PFA pfa);
    ERRORCODE convertStringToBDF(std::string text, _PFA* pfa);
    void createPFA(_PCIInformantion* info, _PFA* pfa);

    ErrorMsg* getBarByBDF(_PFA pfa, uint32_t index, uint32_t* base, uint32_t* size);
    ErrorMsg* getBarByBDF(uint16_t domain, uint16_t bus, uint16_t device, uint8_t function,
                          uint32_t index, uint32_t* base);

    ErrorMsg* scanDevicesFromIO(std::vector<_PCIInformantion>* list);

    bool isNtbDevice(uint16_t vendorID, uint16_t deviceID);
    bool isNtbDevice(_PFA pfa);
    bool isSpecialPort(_PFA pfa);
    unsigned long long getPlxNtbLinkSideBase();

    // Error statistics.
    ERRORCODE getErrorStatistics(_PFA pfa, _PCI_ERROR_TYPE family, std::list<_PCI_ERROR>* out);
    ERRORCODE getPlxNtbLinkSideErrorStatistics(_PFA pfa, _PCI_ERROR_TYPE family,
                                               std::list<_PCI_ERROR>* out);
    _PCI_ERROR getPciCompatibleErrorStatistics(_PCI_ERROR_TYPE type);
    _PCI_ERROR getSingleBitPciStatusError(uint16_t status, _PCI_ERROR_TYPE type);
    _PCI_ERROR getPCIeErrorStatistics(_PCI_ERROR_TYPE type, uint32_t capabilityOffset);
    _PCI_ERROR getSingleBitPCIeError(uint16_t status, _PCI_ERROR_TYPE type);
    _PCI_ERROR getAerErrorStatistics(_PCI_ERROR_TYPE type, uint32_t registerOffset);
    _PCI_ERROR getPlxAerErrorStatistics(_PCI_ERROR_TYPE type, unsigned long long address);
    ERRORCODE clearErrors(_PFA pfa);
    ERRORCODE clearPlxNtbLinkSideErrors(_PFA pfa);
    ErrorMsg* getPortErrorErrorStatistics(_PFA port, std::vector<_PORT_ERROR>* out);
    ErrorMsg* getNtbErrorStatistics(_PFA port, std::vector<_PORT_ERROR>* out);
    ErrorMsg* getPortErrorList(_SWITCH_UNIT unit, std::vector<_PORT_ERROR>* out);
    void getPortNameString(std::vector<_PORT_ERROR> records, std::vector<std::string>* names);

    // Bridge tree, slots, switches.
    void grow_tree();
    bridge* hostBridge() { return &m_hostBridge; }
    ERRORCODE createSlotInfo(std::vector<_SLOT_INFO>* slots, uint32_t* count,
                             std::vector<_SUPPORTED_HBA>* hbas);
    ErrorMsg* scanSlot(std::vector<_SLOT_INFO>* slots);
    void getHbaInfo(std::vector<_SLOT_INFO>* slots, const std::vector<_SUPPORTED_HBA>& hbas);
    void getDownstreamDevice(_SLOT_INFO slot, _PCIInformantion* out);
    ErrorMsg* getPCIeSwitchList(std::vector<_SWITCH_UNIT>* units, uint32_t* count);
    void getDownstreamPorts(_SWITCH_UNIT* unit);
    std::string getSwitchDeviceName(uint16_t vendorID, uint16_t deviceID);

    // Link retraining.
    ErrorMsg* getRetrainSupportDevices(std::vector<RetrainInfo>* list);
    bool isAvailableForRetrainTest(PCIDevice& port);
    ErrorMsg* getRetrainRegs(PCIDevice& port, uint32_t* controlOffset, uint32_t* statusOffset);
    ErrorMsg* testRetrainRun(PCIDevice& port);
    ErrorMsg* testRetrain(_PFA pfa);
    // count retrains; done (if given) is called after each successful one.
    ErrorMsg* testRetrain(_PFA pfa, uint32_t count, const std::function<void(uint32_t)>& done);
    void getDownstreamDevice(RetrainInfo* info);

    // Switch EEPROMs.
    ErrorMsg* scanEeproms(std::vector<_EEPROM_INFO>* list);
    ErrorMsg* getEeprom(std::string name, _EEPROM_INFO* info);
    ErrorMsg* setEepromBase(_PFA pfa);
    ErrorMsg* sendEepromCommand(uint32_t word);
    ErrorMsg* waitEepromToBeIdle();
    ErrorMsg* readEepromDword(uint32_t index, uint32_t* value);
    ErrorMsg* writeEepromDword(uint32_t index, uint32_t value);
    ErrorMsg* readEepromBlock(uint32_t first, uint32_t count, uint32_t* buffer);
    ErrorMsg* writeEepromBlock(uint32_t first, uint32_t count, uint32_t* buffer);
    ErrorMsg* readEeprom(_PFA pfa, uint32_t byteOffset, uint32_t count, uint32_t* buffer);
    ErrorMsg* writeEeprom(_PFA pfa, uint32_t byteOffset, uint32_t count, uint32_t* buffer);
    ErrorMsg* getEepromSize(_PFA pfa, uint32_t* size);
    ErrorMsg* restoreEeprom(uint32_t* image, uint32_t count);
    ErrorMsg* testEepromRun(uint32_t pattern, uint32_t count);
    ErrorMsg* testEeprom(_PFA pfa);
    ErrorMsg* showEepromImageVersion(std::string name);
    // The version word showEepromImageVersion prints (high byte major, low byte minor).
    ErrorMsg* getEepromImageVersion(std::string name, uint16_t* version);

    // The current device of the single-device operations.
    void createPciObject(_PFA pfa);
    void releasePciObject();

private:
    void releaseTable();
    void releaseScan();
    // Scans sysfs into m_access/m_devices, in directory order or sorted.
    void scanDevices(bool sort);
    _PCIInformantion recordOf(const _PFA& pfa) const;
    void readSwitchBar();
    bool isIntelNtb() const;
    // Register access of the cached switch BAR through m_memoryDriver; a failed read
    // leaves its chain in *failure.
    uint32_t eepromRead(uint32_t offset, ErrorMsg** failure);
    float readableSpeed(PCIDevice& dev, _DATA_TYPE type);

    PCIDevice* m_table[kMaxDevices];
    size_t m_deviceCount;
    PCIDevice* m_current;
    _PCIInformantion m_currentInfo;
    pci_access* m_access;
    device* m_devices;
    bridge m_hostBridge;
    std::vector<_PCI_NAME_MAPPING> m_names;
    unsigned long long m_plxBar;
    PCICommonFunction m_common;
};
