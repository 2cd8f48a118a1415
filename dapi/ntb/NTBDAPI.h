// Non-transparent bridge diagnostic layer: forwards to NTBDDAPI and wraps its failures.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "api/BaseClass.h"
#include "ddapi/ntb/NTBDDAPI.h"

class QUARN_EXPORT NTBDAPI : public BaseClassDAPI {
public:
    explicit NTBDAPI(const char* name);
    ~NTBDAPI() override;

    NTBDDAPI* device() { return m_device; }

    ErrorMsg* searchDevice(std::vector<_NTB_INFO>* list);
    ErrorMsg* initialWindow();
    ErrorMsg* server(std::string name, uint64_t sendPattern, uint64_t expectPattern, uint32_t rounds);
    ErrorMsg* client(std::string name, uint64_t expectPattern, uint64_t sendPattern, uint32_t rounds);
    ErrorMsg* receiver(uint64_t pattern, uint64_t rounds);
    // With last set the bridge is left alone and the result of the last stress run
    // is returned again.
    ErrorMsg* stress(uint64_t pattern, uint64_t rounds, uint32_t reserved, bool verify, bool last);
    ErrorMsg* testPerformance(uint64_t pattern, uint32_t bufferSize, uint64_t rounds);

private:
    NTBDDAPI* m_device;
    std::vector<std::pair<unsigned int, std::string>> m_lastStress;  // records of the last result
};
