// Simulated Broadwell-DE processors: /proc/cpuinfo, the per-CPU MSR nodes with the thermal
// registers, the kernel's machine-check log /dev/mcelog, /proc/meminfo and the host bridge.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "dapi/processor/GetMCEDAPI.h"
#include "vboard/DeviceModel.h"

namespace quarn::vboard {

class VirtualBoard;

// Architectural MSR indices the model holds.
namespace msr {
constexpr uint32_t kMcgCap = 0x179;
constexpr uint32_t kThermInterrupt = 0x19B;     // IA32_THERM_INTERRUPT (core)
constexpr uint32_t kThermStatus = 0x19C;        // IA32_THERM_STATUS (core)
constexpr uint32_t kTemperatureTarget = 0x1A2;  // MSR_TEMPERATURE_TARGET (package)
constexpr uint32_t kPackageThermStatus = 0x1B1;
constexpr uint32_t kPackageThermInterrupt = 0x1B2;
}  // namespace msr

// One register: bits outside writable fail a write with #GP (EIO through the driver);
// clearOnly bits (the sticky log bits) can only be written to 0.
struct MsrRegister {
    uint64_t value = 0;
    uint64_t writable = 0;
    uint64_t clearOnly = 0;
};

// The registers of one package and its cores, and its die temperature.
class ProcessorPackage {
public:
    ProcessorPackage(int id, int cores, int tjMax);

    int id() const { return m_id; }
    void setTemperature(int celsius);
    int temperature() const;
    // Backdoor for tests and board set-up: any value, reserved bits included.
    void setRegister(int core, uint32_t index, uint64_t value);
    uint64_t registerValue(int core, uint32_t index) const;
    // The MSR instructions as the driver issues them; false for #GP.
    bool rdmsr(int core, uint32_t index, uint64_t* value);
    bool wrmsr(int core, uint32_t index, uint64_t value);
    uint64_t writes() const;

private:
    MsrRegister* find(int core, uint32_t index);
    const MsrRegister* find(int core, uint32_t index) const;
    uint64_t readout() const;

    mutable std::mutex m_mutex;
    int m_id;
    int m_tjMax;
    int m_temperature;
    uint64_t m_writes = 0;
    std::map<uint32_t, MsrRegister> m_package;
    std::vector<std::map<uint32_t, MsrRegister>> m_cores;
};

// /dev/cpu/N/msr of one logical CPU: the file offset is the MSR index, 8 bytes a register.
class MsrModel : public DeviceModel {
public:
    MsrModel(std::shared_ptr<ProcessorPackage> package, int core)
        : m_package(std::move(package)), m_core(core) {}
    std::unique_ptr<FileHandle> open(int flags) override;

private:
    std::shared_ptr<ProcessorPackage> m_package;
    int m_core;
};

// The board's processors: packages x cores x threads, listed in /proc/cpuinfo in the
// kernel's order (first thread of every core of every package, then the second threads).
class ProcessorComplex {
public:
    ProcessorComplex(int packages, int coresPerPackage, int threadsPerCore, int tjMax = 100);

    // Writes /proc/cpuinfo, adds /dev/cpu/N/msr for every CPU and sets the CPU count.
    void install(VirtualBoard& board);
    std::string cpuinfo() const;
    int cpuCount() const { return static_cast<int>(m_packages.size()) * m_cores * m_threads; }
    std::shared_ptr<ProcessorPackage> package(int id) const { return m_packages.at(id); }
    // Package and core of logical CPU n.
    int packageOf(int cpu) const;
    int coreOf(int cpu) const;

    // The model name, family and model written to /proc/cpuinfo.
    std::string modelName = "Intel(R) Xeon(R) CPU D-1548 @ 2.00GHz";
    int family = 6;
    int model = 0x56;

private:
    std::vector<std::shared_ptr<ProcessorPackage>> m_packages;
    int m_cores;
    int m_threads;
};

// /dev/mcelog as the kernel's x86 machine-check driver serves it: fixed-size records,
// MCE_GET_RECORD_LEN / MCE_GET_LOG_LEN, a read that wants room for the whole log and
// hands over (and clears) every logged record.
class McelogModel : public DeviceModel {
public:
    static constexpr int kLogLength = 32;  // MCE_LOG_LEN

    // The record length the driver reports; the layout up to mcgcap is 88 bytes.
    explicit McelogModel(uint32_t recordLength = 88) : m_recordLength(recordLength) {}
    std::unique_ptr<FileHandle> open(int flags) override;

    // Logs an event as the machine-check handler would; beyond the log's size, it is
    // dropped and the overflow flag set.
    void log(const struct mce& event);
    size_t pending() const;
    void setRecordLength(uint32_t length) { m_recordLength = length; }

private:
    friend class McelogHandle;
    uint32_t m_recordLength;
    std::vector<struct mce> m_records;
    unsigned m_flags = 0;
};

// /proc/meminfo with the given total and available memory.
void writeMeminfo(VirtualBoard& board, uint64_t totalKb, uint64_t availableKb);
// The Broadwell-DE host bridge 0000:00:00.0 in sysfs, unless the PCI tree already has it,
// with the register at 0xC8 holding errorRegister.
void addHostBridge(VirtualBoard& board, uint32_t errorRegister = 0);

}  // namespace quarn::vboard
