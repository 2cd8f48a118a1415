// QLogic EP8324 converged adapter ports: MAC through the BAR0 mailbox, flash and SFP
// access through the adapter's management node "/dev/ep8324".
#pragma once

#include <cstdint>
#include <vector>

#include "ddapi/ethernet/EthernetBaseClass.h"

class QUARN_EXPORT QLOGIC_EP8324 : public EthernetBaseClass {
public:
    explicit QLOGIC_EP8324(const char* name);
    ~QLOGIC_EP8324() override;

    ErrorMsg* Get_self_test_result(ethtool_test* result, TestType type, int* value) override;
    ErrorMsg* SetupSpeed(std::string ifname, int mbps) override;
    ErrorMsg* GetMAC(std::string ifname, std::string* mac) override;
    ErrorMsg* SetMAC(std::string ifname, std::string* bytes) override;
    ErrorMsg* GetEEPROM(std::string ifname, int offset, int length, int* data) override;
    ErrorMsg* SetEEPROM(std::string ifname, int offset, int* data, int length) override;
    ErrorMsg* Program(std::string ifname, std::string imageFile) override;
    ErrorMsg* ReadSFP(std::string ifname, int device, int offset, int count, int* data) override;
    ErrorMsg* WriteSFP(std::string ifname, int device, int offset, int value) override;

    ErrorMsg* OpenDevice();
    // Sums the dwords of [start, end) except the one at at, and stores the two's
    // complement of the sum at at.
    ErrorMsg* UpdateFlashChecksum(uint32_t start, uint32_t end, uint32_t at);

    // The adapter's management requests.
    static constexpr unsigned long kSpiRead = 0xC1206508;
    static constexpr unsigned long kSpiWrite = 0xC1206509;
    static constexpr unsigned long kSfpRead = 0xC1206506;
    static constexpr unsigned long kSfpWrite = 0xC1206507;

private:
    ErrorMsg* request(unsigned long code, int bus, int device, int function, uint32_t address,
                      uint32_t* data, int sfpDevice);
    ErrorMsg* readFlash(const std::string& ifname, uint32_t address, uint32_t count,
                        std::vector<uint32_t>* out);
    ErrorMsg* writeFlash(const std::string& ifname, uint32_t address,
                         const std::vector<uint32_t>& dwords, bool progress);
    ErrorMsg* adapterAddress(const std::string& ifname, int* bus, int* device, int* function);

    int m_fd = -1;
    ERRORCODE m_lastError = 0;
    std::string m_port;  // the interface the flash requests are for
};
