// PCI diagnostic layer: the device list for the front end, hidden functions, configuration
// reads and writes, error reports and clears, switch error tables and the slot report.
#pragma once

#include <list>
#include <string>
#include <vector>

#include "api/BaseClass.h"
#include "ddapi/pci/PCITypes.h"

class PCIDDAPI;

class QUARN_EXPORT PCIDAPI : public BaseClassDAPI {
public:
    explicit PCIDAPI(const char* name);
    ~PCIDAPI() override;

    PCIDDAPI* device() { return m_device; }

    ErrorMsg* getDevices(std::vector<_PCIInformantion>* list);
    ErrorMsg* scanHiddenDevices(uint16_t domain, std::vector<_PCIInformantion>* out);
    ErrorMsg* convertStringToClassCode(std::string text, uint32_t* code);
    ErrorMsg* readConfig(_PFA pfa, uint32_t first, uint32_t last, uint8_t* buffer);
    ErrorMsg* writeConfig(_PFA pfa, uint32_t offset, uint8_t* data, uint32_t length);
    ErrorMsg* ConfigWriteByte(_PFA pfa, uint32_t offset, uint8_t value);
    ErrorMsg* ConfigWriteWord(_PFA pfa, uint32_t offset, uint16_t value);
    ErrorMsg* ConfigWriteDword(_PFA pfa, uint32_t offset, uint32_t value);
    bool isPCIe(_PFA pfa);
    ERRORCODE checkPresenceOfDevice(_PFA pfa);
    uint32_t GetDataByBDF(_PFA pfa, _DATA_TYPE type);
    float GetReadableSpeed(_PFA pfa, _DATA_TYPE type);
    std::string getReadableStringByBDF(_PFA pfa, _DATA_TYPE type);
    void showPciDefinedTypes();

    // Error statistics.
    ErrorMsg* getErrorStatistics(_PFA pfa, _PCI_ERROR_TYPE family, std::list<_PCI_ERROR>* out);
    ErrorMsg* showErrorStatistics(_PFA pfa, _PCI_ERROR_TYPE family, bool summary);
    // side 3 selects the link side; any other value the virtual side.
    ErrorMsg* showPlxNtbErrorStatistics(_PFA pfa, _PCI_ERROR_TYPE family, bool summary, uint8_t side);
    void showErrors(std::list<_PCI_ERROR> errors, _PCI_ERROR_TYPE family, bool summary);
    ErrorMsg* clearErrors(_PFA pfa);
    ErrorMsg* getSwitchPortsInformation(std::string switchID, std::vector<_PORT_ERROR>* out);
    ErrorMsg* getSwitchErrorStatistics(std::string switchID, std::vector<_PORT_ERROR>* out);
    ErrorMsg* showSwitchErrorStatistics(std::string switchID, _PCI_ERROR_TYPE family);
    ErrorMsg* clearPCIeSwitchPortErrors(std::string switchID);
    void showSwitchPciErrors(std::vector<_PORT_ERROR> ports, std::vector<std::string> portNames,
                             std::vector<std::string> errorNames, uint32_t table[][20]);
    void showSwitchPCIeErrors(std::vector<_PORT_ERROR> ports, std::vector<std::string> portNames,
                              std::vector<std::string> errorNames, uint32_t table[][20]);
    void showSwitchAerErrors(std::vector<_PORT_ERROR> ports, std::vector<std::string> portNames,
                             std::vector<std::string> errorNames, uint32_t table[][20]);

    // Slots and switches.
    ErrorMsg* displayHBAs();
    ErrorMsg* getPCIeSwitchList(std::vector<_SWITCH_UNIT>* units, uint32_t* count);

    // Link retraining.
    ErrorMsg* testRetrain(_PFA pfa);
    // count retrains instead of 1,000, with the progress counter kept.
    ErrorMsg* testRetrain(_PFA pfa, uint32_t count);
    ErrorMsg* getRetrainSupportedDeviceList(std::vector<RetrainInfo>* list);

    // Switch EEPROMs, by name ("eeprom0", ...).
    ErrorMsg* getEepromList(std::vector<_EEPROM_INFO>* list);
    ErrorMsg* DisplayPCIeSwitchEepromList();
    ErrorMsg* testEeprom(std::string name);
    ErrorMsg* getEepromSize(std::string name, uint32_t* size);
    ErrorMsg* readEeprom(std::string name, uint32_t byteOffset, uint32_t count, uint32_t* buffer);
    ErrorMsg* writeEeprom(std::string name, uint32_t byteOffset, uint32_t count, uint32_t* buffer);
    ErrorMsg* saveEeprom(std::string name, const char* path);
    ErrorMsg* programEeprom(std::string name, std::string path);
    ErrorMsg* showEepromImageVersion(std::string name);
    ErrorMsg* getEepromImageVersion(std::string name, uint16_t* version);
    void progressHandler(float ticks);

private:
    ErrorMsg* collectSwitch(ERRORCODE function, const std::string& switchID,
                            std::vector<_PORT_ERROR>* out, _SWITCH_UNIT* unitOut);

    PCIDDAPI* m_device;
};
