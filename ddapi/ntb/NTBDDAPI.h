// Non-transparent bridge device layer: finds the bridges, reads the window description
// the platform's NTB setup leaves in /tmp/ntbInfo, maps the windows through the PLX NT
// driver node and moves test data between the two sides of the bridge.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "api/BaseClass.h"
#include "ddapi/pci/PCITypes.h"

class PCIDDAPI;

struct _NTB_INFO {
    uint16_t index;
    std::string name;  // "NTB%d"
    _PCIInformantion info;
};

class QUARN_EXPORT NTBDDAPI : public BaseClassDDAPI {
public:
    static constexpr uint64_t kReadyMark = 0x00000000646F6E65ull;

    explicit NTBDDAPI(const char* name);
    ~NTBDDAPI() override;

    ErrorMsg* searchDevice(std::vector<_NTB_INFO>* list);
    ErrorMsg* getWindowInfo(uint32_t bufferSize);
    ErrorMsg* releaseWindowResource();
    ErrorMsg* createDataBlocks(uint64_t sendPattern, uint64_t expectPattern);
    ErrorMsg* releaseDataBlocks();
    ErrorMsg* setForIoTransfer(uint64_t sendPattern, uint64_t expectPattern);
    ErrorMsg* receiveData(uint64_t* expected, uint64_t* window, uint32_t words);

    ErrorMsg* initialWindow();
    ErrorMsg* server(std::string name, uint64_t sendPattern, uint64_t expectPattern, uint32_t rounds);
    ErrorMsg* client(std::string name, uint64_t expectPattern, uint64_t sendPattern, uint32_t rounds);
    ErrorMsg* receiver(uint64_t pattern, uint64_t rounds);
    // The argument between the round count and the verify flag is not used.
    ErrorMsg* stress(uint64_t pattern, uint64_t rounds, uint32_t reserved, bool verify);
    ErrorMsg* testPerformance(uint64_t pattern, uint32_t bufferSize, uint64_t rounds);

    // What the last performance test measured, in Gb/s.
    double lastSpeed() const { return m_lastSpeed; }
    uint64_t windowSize() const { return m_size; }
    uint64_t* readWindow() { return m_readWindow; }
    uint64_t* writeWindow() { return m_writeWindow; }

private:
    void fill(std::vector<uint64_t>* block, uint64_t pattern);
    void copyToWindow(const std::vector<uint64_t>& block);
    ErrorMsg* fail(ERRORCODE function, ErrorMsg* cause);

    PCIDDAPI* m_pci;
    uint64_t m_size;
    uint64_t m_words;
    uint64_t* m_readWindow;
    uint64_t* m_writeWindow;
    void* m_readMap;
    void* m_writeMap;
    uint64_t m_readMapLength;
    uint64_t m_writeMapLength;
    std::vector<uint64_t> m_sendBlock;
    std::vector<uint64_t> m_spareBlock;
    std::vector<uint64_t> m_expectBlock;
    int m_fd;
    double m_lastSpeed;
};
