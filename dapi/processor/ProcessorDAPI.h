// Diagnostic layer of the processors: information lines, MSR access by processor name,
// the host-bridge error register, thread binding and the machine-check log.
#pragma once

#include <cstdint>
#include <list>
#include <string>

#include "api/BaseClass.h"
#include "ddapi/processor/ProcessorDDAPI.h"

// 0 all of 1-8; 1 threads per core; 2 vendor; 3 model; 4 family; 5 cores; 6 frequency;
// 7 stepping; 8 cache; 9 temperature.
typedef int CPU_ITEM;

class QUARN_EXPORT ProcessorDAPI : public BaseClassDAPI {
public:
    explicit ProcessorDAPI(const char* name);
    ~ProcessorDAPI() override;

    ErrorMsg* Get_CPU_number(int* count);
    ErrorMsg* Get_CPU_physical_number(int* count);
    ErrorMsg* GetCPUIDByWellKnowName(std::string name, int* id);
    ErrorMsg* GetInformation(std::string name, CPU_ITEM item, std::string* out);
    ErrorMsg* Read(std::string name, int msr, int count, std::list<uint64_t>* values);
    ErrorMsg* Write(std::string name, int msr, uint64_t value);
    ErrorMsg* GetErrorRegisters(int* value);
    // Binds the calling thread to every logical CPU of the package; the binding stays.
    ErrorMsg* SetExecutionCPUCore(std::string name);
    ErrorMsg* GetMCE(std::string* text);
    ErrorMsg* GetMCE(std::string name, std::string* text);

private:
    ProcessorDDAPI* m_device;
};
