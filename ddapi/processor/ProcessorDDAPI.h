// Device layer of the processors: /proc/cpuinfo records, processor names, model-specific
// registers through the per-CPU MSR nodes, the host-bridge register and package temperature.
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <string>

#include "api/BaseClass.h"

namespace quarn {
class Platform;
}

// One logical processor as /proc/cpuinfo describes it.
struct CPUInformation {
    int processor = 0;
    std::string vendor;
    int family = 0;
    int model = 0;
    std::string modelName;
    int stepping = 0;
    float frequency = 0.0f;
    int cacheSize = 0;  // KB
    int physicalId = 0;
    int siblings = 0;
    int coreId = 0;
    int cpuCores = 0;
    int apicid = 0;
    int initialApicid = 0;
    bool fdivBug = false;
    bool hltBug = false;
    bool f00fBug = false;
    bool comaBug = false;
    bool fpu = false;
    bool fpuException = false;
    int cpuidLevel = 0;
    bool wp = false;
    std::string flags;
    float bogomips = 0.0f;
    int clflushSize = 0;
    int cacheAlignment = 0;
    int physicalAddressBits = 0;
    int virtualAddressBits = 0;
    std::string powerManagement;
};

// 0 current temperature, 1 high threshold, 2 low threshold.
typedef int CPU_TEMPERATURE_OPERATION_ID;

// One host-bridge register request for RegRead.
struct pci_device {
    uint32_t address;  // domain << 16 | bus << 8 | device
    uint8_t function;
    uint16_t offset;
    uint32_t value;  // the result
    uint8_t width;   // 1, 2 or 4 bytes
};

class QUARN_EXPORT ProcessorDDAPI : public BaseClassDDAPI {
public:
    explicit ProcessorDDAPI(const char* name);
    ~ProcessorDDAPI() override;

    ErrorMsg* GetCPUNumber(int* count);
    ErrorMsg* GetCPUPhysicalNumber(int* count);
    ErrorMsg* GetCPUInformation(std::list<CPUInformation>* records);
    ErrorMsg* GetCPUIDByWellKnowName(std::string name, int* id);
    ErrorMsg* GetCoreIDByPhycailID(int physicalID, int* cpu);
    ErrorMsg* get_device_by_well_known_name(std::string name, CPUInformation* out);

    // Both leave the calling thread bound to the register's CPU.
    ErrorMsg* ReadCPURegister(std::string name, int msr, int count, std::list<uint64_t>* values);
    ErrorMsg* WriteCPURegister(std::string name, int msr, uint64_t value);

    ErrorMsg* GetErrorRegistersExecute(int* value);
    ErrorMsg* RegRead(pci_device* request);

    ErrorMsg* getTemperatureDataByID(std::string name, CPU_TEMPERATURE_OPERATION_ID op,
                                     std::string* value);
    ErrorMsg* setTemperatureDataByID(std::string name, CPU_TEMPERATURE_OPERATION_ID op,
                                     std::string value);

    static void RTrim(char* text, char c);
    static void LTrim(char* text, char c);

private:
    // Name to CPU number to logical CPU, then binds the thread to it.
    ErrorMsg* bindToRegisterCpu(ERRORCODE code, const std::string& name, int* cpu);
    ErrorMsg* openMsrNode(ERRORCODE code, const std::string& name, int flags, int* fd);
};

namespace quarn {

// The package temperature sensor driver (BroadwellDE, in the temperature module) reads its
// registers through ProcessorDDAPI, so the two modules reach each other through this hook
// rather than through each other's headers. The temperature module installs it; set false
// for a read (op 0-2), true for a threshold write (op 1-2); value is in or out accordingly.
using PackageTemperatureDriver = std::function<ErrorMsg*(
    const std::string& name, CPU_TEMPERATURE_OPERATION_ID op, bool set, std::string* value)>;
QUARN_EXPORT void installPackageTemperatureDriver(PackageTemperatureDriver driver);

// libpci does its own file I/O, past the platform. A platform whose sysfs lives elsewhere
// (the virtual board) registers where libpci is to look while that platform is installed;
// an empty path removes the registration.
QUARN_EXPORT void registerLibpciSysfsPath(const Platform* owner, const std::string& path);

}  // namespace quarn
