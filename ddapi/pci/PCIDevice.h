// One PCI function: its address, cached header fields, capability lists and link data.
#pragma once

#include <list>
#include <string>
#include <vector>

#include "api/BaseClass.h"
#include "ddapi/pci/PCICommonFunction.h"
#include "ddapi/pci/PCITypes.h"

class QUARN_EXPORT PCIDevice : public BaseClassAPI {
public:
    explicit PCIDevice(const _PCIInformantion& info);
    PCIDevice(const PCIDevice& other);
    ~PCIDevice() override;

    uint8_t ConfigReadByte(uint32_t offset);
    uint16_t ConfigReadWord(uint32_t offset);
    uint32_t ConfigReadDword(uint32_t offset);
    int ConfigWriteByte(uint32_t offset, uint8_t value);
    int ConfigWriteWord(uint32_t offset, uint16_t value);
    int ConfigWriteDword(uint32_t offset, uint32_t value);

    uint16_t GetDomain() const { return m_domain; }
    uint16_t GetBus() const { return m_bus; }
    uint16_t GetDevice() const { return m_device; }
    uint8_t GetFunction() const { return m_function; }
    uint16_t GetVendorID();
    uint16_t GetDeviceID();
    uint32_t GetClassCode();
    uint8_t GetRevisionID();
    uint8_t GetHeaderType();
    uint8_t GetCapPtrValue();
    std::string GetDeviceName() const { return m_name; }

    void GetCapList();
    void getExtendedCapList();
    const std::list<CapInfo>& capabilities() const { return m_capList; }
    bool IsPCIe();
    int GetCapabilityOffset(uint32_t id, uint32_t* offset);
    int getExtendedCapabilityOffset(uint32_t id, uint32_t* offset);
    uint32_t getPortTypeRawData();
    uint16_t GetPCIeType();
    std::string getPortTypeString();
    uint32_t getPortNumber();
    // Decodes the speed code (bits 3:0) of the word at offset.
    float GetLinkSpeed(uint32_t registerOffset);
    void GetLinkInfo();
    float GetCurrentLinkSpeed();
    uint32_t GetCurrentLinkWidth();
    float GetMaxLinkSpeed();
    uint32_t GetMaxLinkWidth();
    bool LinkStatus();
    bool checkRetrainCap();
    void GetBARList(std::vector<uint32_t>* bars);
    ERRORCODE getErrorCode() const { return m_statusCode; }

    static float decodeLinkSpeed(uint16_t linkRegister);
    static const char* portTypeText(uint32_t type);

private:
    void* m_helper;  // transient, during one configuration access
    PCICommonFunction m_common;
    std::string m_name;
    uint16_t m_domain;
    uint16_t m_bus;
    uint16_t m_device;
    uint8_t m_function;
    uint16_t m_vendorID;
    uint16_t m_deviceID;
    uint32_t m_classCode;
    uint8_t m_revisionID;
    uint8_t m_headerType;
    uint8_t m_capabilityPointer;
    uint32_t m_currentLinkWidth;
    float m_currentLinkSpeed;
    uint32_t m_maxLinkWidth;
    float m_maxLinkSpeed;
    std::list<CapInfo> m_spareList;
    std::list<CapInfo> m_capList;
};
