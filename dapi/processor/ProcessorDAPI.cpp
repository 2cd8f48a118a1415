// Diagnostic layer of the processors.
#include "dapi/processor/ProcessorDAPI.h"

#include <sched.h>

#include <cstdio>
#include <new>
#include <vector>

#include "api/platform/Platform.h"
#include "dapi/processor/GetMCEDAPI.h"

namespace {
constexpr ERRORCODE kGetInformation = 0xC1040800;
constexpr ERRORCODE kGetErrorRegisters = 0xC1041000;
constexpr ERRORCODE kGetMCE = 0xC1041400;
constexpr ERRORCODE kConstructor = 0xC1040400;
constexpr ERRORCODE kCommonAllocationFail = 0x23A;
constexpr int kAffinityCpus = 1024;

std::string formatLine(const char* format, int value) {
    char line[64];
    snprintf(line, sizeof(line), format, value);
    return line;
}

// The text after the model name's first at sign ("... @ 2.00GHz" gives "2.00GHz").
std::string frequencyOf(const std::string& modelName) {
    std::vector<char> buf(modelName.size() + 1, '\0');
    if (sscanf(modelName.c_str(), "%*[^@]@%s", buf.data()) != 1) return std::string();
    return buf.data();
}

std::string itemLines(const CPUInformation& r, CPU_ITEM item, int threadsPerCore) {
    switch (item) {
    case 1:
        return formatLine("Thread per core: %d\n", threadsPerCore);
    case 2:
        return "Vendor: " + r.vendor + "\n";
    case 3:
        return formatLine("Model: %d\n", r.model);
    case 4:
        return formatLine("Family: %d\n", r.family);
    case 5:
        return formatLine("Core: %d\n", r.cpuCores);
    case 6:
        return "Frequency: " + frequencyOf(r.modelName) + "\n";
    case 7:
        return formatLine("Stepping: %d\n", r.stepping);
    case 8:
        return formatLine("Cache: %d KB\n", r.cacheSize);
    default:
        return std::string();
    }
}

// Device chains that already say the name is unknown are passed on as they are.
bool isNameFailure(ErrorMsg* e) { return e && e->getErrorCode() == kGetInformation; }
}  // namespace

ProcessorDAPI::ProcessorDAPI(const char* name) : BaseClassDAPI(name) {
    m_device = new (std::nothrow) ProcessorDDAPI("CPU");
    if (!m_device) addErrorMsg(kConstructor | kCommonAllocationFail, nullptr);
}

ProcessorDAPI::~ProcessorDAPI() { delete m_device; }

ErrorMsg* ProcessorDAPI::Get_CPU_number(int* count) { return m_device->GetCPUNumber(count); }

ErrorMsg* ProcessorDAPI::Get_CPU_physical_number(int* count) {
    return m_device->GetCPUPhysicalNumber(count);
}

ErrorMsg* ProcessorDAPI::GetCPUIDByWellKnowName(std::string name, int* id) {
    ErrorMsg* e = m_device->GetCPUIDByWellKnowName(name, id);
    if (!e || isNameFailure(e)) return e;
    return returnErrorMsg(kGetInformation, "CPU ID out of range", e);
}

ErrorMsg* ProcessorDAPI::GetInformation(std::string name, CPU_ITEM item, std::string* out) {
    int package = 0;
    if (ErrorMsg* e = m_device->GetCPUIDByWellKnowName(name, &package))
        return returnErrorMsg(kGetInformation, nullptr, e);
    std::string text;
    if (item == 9) {
        std::string temperature;
        if (ErrorMsg* e = m_device->getTemperatureDataByID(name, 0, &temperature))
            return returnErrorMsg(kGetInformation, nullptr, e);
        text = "Temperature: " + temperature;
        if (out) *out = text;
        return nullptr;
    }
    std::list<CPUInformation> records;
    if (ErrorMsg* e = m_device->GetCPUInformation(&records))
        return returnErrorMsg(kGetInformation, nullptr, e);
    int threadsPerCore = 0;
    bool any = false;
    for (const CPUInformation& r : records) {
        if (r.physicalId != package) continue;
        any = true;
        if (r.coreId == 0) ++threadsPerCore;
    }
    // A valid name whose package has no processor gives an error, not an empty answer.
    if (!any) return returnErrorMsg(kGetInformation, "CPU ID not founded", nullptr);
    for (const CPUInformation& r : records) {
        if (r.physicalId != package) continue;
        text.clear();
        if (item == 0) {
            for (int i = 1; i <= 8; ++i) text += itemLines(r, i, threadsPerCore);
        } else {
            text = itemLines(r, item, threadsPerCore);
        }
    }
    if (out) *out = text;
    return nullptr;
}

ErrorMsg* ProcessorDAPI::Read(std::string name, int msr, int count, std::list<uint64_t>* values) {
    if (ErrorMsg* e = m_device->ReadCPURegister(name, msr, count, values))
        return returnErrorMsg(kGetErrorRegisters, nullptr, e);
    return nullptr;
}

ErrorMsg* ProcessorDAPI::Write(std::string name, int msr, uint64_t value) {
    if (ErrorMsg* e = m_device->WriteCPURegister(name, msr, value))
        return returnErrorMsg(kGetErrorRegisters, nullptr, e);
    return nullptr;
}

ErrorMsg* ProcessorDAPI::GetErrorRegisters(int* value) {
    if (ErrorMsg* e = m_device->GetErrorRegistersExecute(value))
        return returnErrorMsg(kGetErrorRegisters, nullptr, e);
    return nullptr;
}

ErrorMsg* ProcessorDAPI::SetExecutionCPUCore(std::string name) {
    int package = 0;
    if (ErrorMsg* e = m_device->GetCPUIDByWellKnowName(name, &package))
        return returnErrorMsg(kGetInformation, nullptr, e);
    std::list<CPUInformation> records;
    if (ErrorMsg* e = m_device->GetCPUInformation(&records))
        return returnErrorMsg(kGetErrorRegisters, nullptr, e);
    cpu_set_t set;
    CPU_ZERO(&set);
    for (const CPUInformation& r : records) {
        if (r.physicalId == package && r.processor >= 0 && r.processor < kAffinityCpus)
            CPU_SET(r.processor, &set);
    }
    quarn::platform().setAffinity(set);
    return nullptr;
}

ErrorMsg* ProcessorDAPI::GetMCE(std::string* text) {
    if (text) text->clear();
    std::string local;
    GetMCEDAPI mce("MCE");
    if (ErrorMsg* e = mce.Execute(text ? text : &local)) return returnErrorMsg(kGetMCE, nullptr, e);
    return nullptr;
}

ErrorMsg* ProcessorDAPI::GetMCE(std::string name, std::string* text) {
    if (text) text->clear();
    int package = 0;
    if (ErrorMsg* e = m_device->GetCPUIDByWellKnowName(name, &package))
        return returnErrorMsg(kGetInformation, nullptr, e);
    std::string local;
    GetMCEDAPI mce("MCE");
    if (ErrorMsg* e = mce.Execute(package, text ? text : &local))
        return returnErrorMsg(kGetMCE, nullptr, e);
    return nullptr;
}
