// Simulated Broadwell-DE processors, their MSR nodes, the machine-check log and meminfo.
#include "vboard/models/processor/ProcessorModels.h"

#include <fcntl.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "vboard/VirtualBoard.h"

namespace quarn::vboard {

namespace {
constexpr uint64_t kReadingValid = 1ULL << 31;
constexpr uint64_t kThermLogBits = 0xAAAULL;  // bits 1, 3, 5, 7, 9, 11
// IA32_(PACKAGE_)THERM_INTERRUPT: enables (0-4), thresholds with their enables (8-23),
// power-limit notification (24). The high dword is reserved and faults; the few reserved
// bits of the low dword are latched as written, so a read-modify-write of a value that
// carries them (as firmware leaves it) goes through.
constexpr uint64_t kThermInterruptWritable = 0xFFFFFFFFULL;
// Broadwell-DE: 22 banks, control and status registers present, LMCE.
constexpr uint64_t kMcgCapValue = 0x0000000007000C16ULL;

const char kFlags[] =
    "fpu vme de pse tsc msr pae mce cx8 apic sep mtrr pge mca cmov pat pse36 clflush dts acpi "
    "mmx fxsr sse sse2 ss ht tm pbe syscall nx pdpe1gb rdtscp lm constant_tsc arch_perfmon "
    "pebs bts rep_good nopl xtopology nonstop_tsc cpuid aperfmperf pni pclmulqdq dtes64 "
    "monitor ds_cpl vmx smx est tm2 ssse3 sdbg fma cx16 xtpr pdcm pcid dca sse4_1 sse4_2 "
    "x2apic movbe popcnt tsc_deadline_timer aes xsave avx f16c rdrand lahf_lm abm "
    "3dnowprefetch cpuid_fault epb cat_l3 cdp_l3 invpcid_single pti intel_ppin tpr_shadow "
    "vnmi flexpriority ept vpid ept_ad fsgsbase tsc_adjust bmi1 hle avx2 smep bmi2 erms "
    "invpcid rtm cqm rdt_a rdseed adx smap intel_pt xsaveopt cqm_llc cqm_occup_llc "
    "cqm_mbm_total cqm_mbm_local dtherm arat pln pts";
}  // namespace

ProcessorPackage::ProcessorPackage(int id, int cores, int tjMax)
    : m_id(id), m_tjMax(tjMax), m_temperature(45), m_cores(static_cast<size_t>(cores)) {
    m_package[msr::kTemperatureTarget] = {static_cast<uint64_t>(tjMax & 0xFF) << 16, 0, 0};
    m_package[msr::kPackageThermStatus] = {0, 0, kThermLogBits};
    m_package[msr::kPackageThermInterrupt] = {0, kThermInterruptWritable, 0};
    for (auto& core : m_cores) {
        core[msr::kThermStatus] = {0, 0, kThermLogBits};
        core[msr::kThermInterrupt] = {0, kThermInterruptWritable, 0};
        core[msr::kMcgCap] = {kMcgCapValue, 0, 0};
    }
}

void ProcessorPackage::setTemperature(int celsius) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_temperature = celsius;
}

int ProcessorPackage::temperature() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_temperature;
}

// The digital readout counts down from TjMax in its 7-bit field.
uint64_t ProcessorPackage::readout() const {
    int below = m_tjMax - m_temperature;
    if (below < 0) below = 0;
    if (below > 0x7F) below = 0x7F;
    return kReadingValid | (static_cast<uint64_t>(below) << 16);
}

MsrRegister* ProcessorPackage::find(int core, uint32_t index) {
    auto p = m_package.find(index);
    if (p != m_package.end()) return &p->second;
    if (core < 0 || static_cast<size_t>(core) >= m_cores.size()) return nullptr;
    auto c = m_cores[static_cast<size_t>(core)].find(index);
    return c == m_cores[static_cast<size_t>(core)].end() ? nullptr : &c->second;
}

const MsrRegister* ProcessorPackage::find(int core, uint32_t index) const {
    return const_cast<ProcessorPackage*>(this)->find(core, index);
}

void ProcessorPackage::setRegister(int core, uint32_t index, uint64_t value) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (MsrRegister* r = find(core, index)) r->value = value;
    else if (core >= 0 && static_cast<size_t>(core) < m_cores.size())
        m_cores[static_cast<size_t>(core)][index] = {value, ~0ULL, 0};
}

uint64_t ProcessorPackage::registerValue(int core, uint32_t index) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    const MsrRegister* r = find(core, index);
    return r ? r->value : 0;
}

uint64_t ProcessorPackage::writes() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_writes;
}

bool ProcessorPackage::rdmsr(int core, uint32_t index, uint64_t* value) {
    std::lock_guard<std::mutex> lock(m_mutex);
    MsrRegister* r = find(core, index);
    if (!r) return false;
    *value = r->value;
    if (index == msr::kPackageThermStatus || index == msr::kThermStatus)
        *value = (r->value & kThermLogBits) | readout();
    return true;
}

bool ProcessorPackage::wrmsr(int core, uint32_t index, uint64_t value) {
    std::lock_guard<std::mutex> lock(m_mutex);
    MsrRegister* r = find(core, index);
    if (!r) return false;
    if (!r->writable && !r->clearOnly) return false;  // read-only MSR: #GP
    if (r->clearOnly) {
        // Status registers: read-only fields ignore the write; log bits clear on 0.
        r->value &= value | ~r->clearOnly;
    } else {
        if (value & ~r->writable) return false;
        r->value = value;
    }
    ++m_writes;
    return true;
}

class MsrHandle : public FileHandle {
public:
    MsrHandle(std::shared_ptr<ProcessorPackage> package, int core, int flags)
        : m_package(std::move(package)), m_core(core), m_flags(flags) {}

    // The driver keeps the position where it was put: reading does not advance it.
    off_t lseek(off_t offset, int whence) override {
        off_t next;
        if (whence == SEEK_SET) next = offset;
        else if (whence == SEEK_CUR) next = m_position + offset;
        else return fail(EINVAL);
        if (next < 0) return fail(EINVAL);
        m_position = next;
        return next;
    }
    ssize_t read(void* buf, size_t count) override { return pread(buf, count, m_position); }
    ssize_t write(const void* buf, size_t count) override { return pwrite(buf, count, m_position); }

    ssize_t pread(void* buf, size_t count, off_t offset) override {
        if ((m_flags & O_ACCMODE) == O_WRONLY) return fail(EBADF);
        if (count % 8) return fail(EINVAL);
        size_t done = 0;
        for (; done < count; done += 8) {
            uint64_t value;
            if (!m_package->rdmsr(m_core, static_cast<uint32_t>(offset), &value)) break;
            memcpy(static_cast<char*>(buf) + done, &value, 8);
        }
        return done ? static_cast<ssize_t>(done) : (count ? fail(EIO) : 0);
    }

    ssize_t pwrite(const void* buf, size_t count, off_t offset) override {
        if ((m_flags & O_ACCMODE) == O_RDONLY) return fail(EBADF);
        if (count % 8) return fail(EINVAL);
        size_t done = 0;
        for (; done < count; done += 8) {
            uint64_t value;
            memcpy(&value, static_cast<const char*>(buf) + done, 8);
            if (!m_package->wrmsr(m_core, static_cast<uint32_t>(offset), value)) break;
        }
        return done ? static_cast<ssize_t>(done) : (count ? fail(EIO) : 0);
    }

private:
    std::shared_ptr<ProcessorPackage> m_package;
    int m_core;
    int m_flags;
    off_t m_position = 0;
};

std::unique_ptr<FileHandle> MsrModel::open(int flags) {
    return std::make_unique<MsrHandle>(m_package, m_core, flags);
}

ProcessorComplex::ProcessorComplex(int packages, int coresPerPackage, int threadsPerCore,
                                   int tjMax)
    : m_cores(coresPerPackage), m_threads(threadsPerCore) {
    for (int p = 0; p < packages; ++p)
        m_packages.push_back(std::make_shared<ProcessorPackage>(p, coresPerPackage, tjMax));
}

int ProcessorComplex::packageOf(int cpu) const {
    return (cpu / m_cores) % static_cast<int>(m_packages.size());
}

int ProcessorComplex::coreOf(int cpu) const { return cpu % m_cores; }

std::string ProcessorComplex::cpuinfo() const {
    std::ostringstream out;
    const int count = cpuCount();
    for (int cpu = 0; cpu < count; ++cpu) {
        const int pkg = packageOf(cpu);
        const int core = coreOf(cpu);
        const int thread = cpu / (m_cores * static_cast<int>(m_packages.size()));
        const int apic = (pkg << 5) | (core << 1) | thread;
        out << "processor\t: " << cpu << "\n"
            << "vendor_id\t: GenuineIntel\n"
            << "cpu family\t: " << family << "\n"
            << "model\t\t: " << model << "\n"
            << "model name\t: " << modelName << "\n"
            << "stepping\t: 3\n"
            << "microcode\t: 0x7000019\n"
            << "cpu MHz\t\t: 2000.000\n"
            << "cache size\t: 12288 KB\n"
            << "physical id\t: " << pkg << "\n"
            << "siblings\t: " << m_cores * m_threads << "\n"
            << "core id\t\t: " << core << "\n"
            << "cpu cores\t: " << m_cores << "\n"
            << "apicid\t\t: " << apic << "\n"
            << "initial apicid\t: " << apic << "\n"
            << "fpu\t\t: yes\n"
            << "fpu_exception\t: yes\n"
            << "cpuid level\t: 20\n"
            << "wp\t\t: yes\n"
            << "flags\t\t: " << kFlags << "\n"
            << "bugs\t\t: cpu_meltdown spectre_v1 spectre_v2 spec_store_bypass l1tf mds\n"
            << "bogomips\t: 3999.86\n"
            << "clflush size\t: 64\n"
            << "cache_alignment\t: 64\n"
            << "address sizes\t: 46 bits physical, 48 bits virtual\n"
            << "power management:\n\n";
    }
    return out.str();
}

void ProcessorComplex::install(VirtualBoard& board) {
    board.writeFile("/proc/cpuinfo", cpuinfo());
    for (int cpu = 0; cpu < cpuCount(); ++cpu) {
        board.addDevice("/dev/cpu/" + std::to_string(cpu) + "/msr",
                        std::make_shared<MsrModel>(m_packages[static_cast<size_t>(packageOf(cpu))],
                                                   coreOf(cpu)));
    }
    board.setCpuCount(cpuCount());
}

class McelogHandle : public FileHandle {
public:
    explicit McelogHandle(McelogModel& model) : m_model(model) {}

    ssize_t read(void* buf, size_t count) override {
        std::lock_guard<std::mutex> lock(m_model.mutex());
        const size_t length = m_model.m_recordLength;
        if (m_position != 0 || count < length * McelogModel::kLogLength) return fail(EINVAL);
        size_t done = 0;
        for (const struct mce& m : m_model.m_records) {
            char* out = static_cast<char*>(buf) + done;
            memset(out, 0, length);
            memcpy(out, &m, std::min(length, sizeof(m)));
            done += length;
        }
        m_model.m_records.clear();
        return static_cast<ssize_t>(done);
    }

    int ioctl(unsigned long request, void* arg) override {
        std::lock_guard<std::mutex> lock(m_model.mutex());
        int* out = static_cast<int*>(arg);
        if (!out) return static_cast<int>(fail(EFAULT));
        switch (request) {
        case MCE_GET_RECORD_LEN:
            *out = static_cast<int>(m_model.m_recordLength);
            return 0;
        case MCE_GET_LOG_LEN:
            *out = McelogModel::kLogLength;
            return 0;
        case _IOR('M', 3, int):  // MCE_GETCLEAR_FLAGS
            *out = static_cast<int>(m_model.m_flags);
            m_model.m_flags = 0;
            return 0;
        default:
            return static_cast<int>(fail(ENOTTY));
        }
    }

private:
    McelogModel& m_model;
    off_t m_position = 0;
};

std::unique_ptr<FileHandle> McelogModel::open(int flags) {
    if ((flags & O_ACCMODE) != O_RDONLY) {
        errno = EINVAL;
        return nullptr;
    }
    return std::make_unique<McelogHandle>(*this);
}

void McelogModel::log(const struct mce& event) {
    std::lock_guard<std::mutex> lock(mutex());
    if (m_records.size() >= static_cast<size_t>(kLogLength)) {
        m_flags |= 1u;  // MCE_OVERFLOW
        return;
    }
    struct mce m = event;
    m.finished = 1;
    m_records.push_back(m);
}

size_t McelogModel::pending() const {
    std::lock_guard<std::mutex> lock(const_cast<McelogModel*>(this)->mutex());
    return m_records.size();
}

void writeMeminfo(VirtualBoard& board, uint64_t totalKb, uint64_t availableKb) {
    std::ostringstream out;
    const uint64_t freeKb = availableKb > totalKb ? totalKb : availableKb * 9 / 10;
    out << "MemTotal:       " << totalKb << " kB\n"
        << "MemFree:        " << freeKb << " kB\n"
        << "MemAvailable:   " << availableKb << " kB\n"
        << "Buffers:          120432 kB\n"
        << "Cached:          1048576 kB\n"
        << "SwapCached:            0 kB\n"
        << "SwapTotal:             0 kB\n"
        << "SwapFree:              0 kB\n";
    board.writeFile("/proc/meminfo", out.str());
}

void addHostBridge(VirtualBoard& board, uint32_t errorRegister) {
    const std::string dir = "/sys/bus/pci/devices/0000:00:00.0";
    if (std::filesystem::exists(board.hostPath(dir + "/config"))) return;
    // Type 0 header of the Broadwell-DE DMI2 host bridge (8086:6F00, class 0600, rev 3).
    std::string config(256, '\0');
    auto put = [&config](size_t off, uint32_t v, int width) {
        for (int i = 0; i < width; ++i) config[off + i] = static_cast<char>((v >> (8 * i)) & 0xFF);
    };
    put(0x00, 0x8086, 2);
    put(0x02, 0x6F00, 2);
    put(0x04, 0x0000, 2);
    put(0x06, 0x0010, 2);  // capability list
    put(0x08, 0x06000003, 4);
    put(0xC8, errorRegister, 4);
    board.writeFile(dir + "/config", config);
    board.writeFile(dir + "/vendor", "0x8086\n");
    board.writeFile(dir + "/device", "0x6f00\n");
    board.writeFile(dir + "/class", "0x060000\n");
    board.writeFile(dir + "/irq", "0\n");
    std::string resource;
    for (int i = 0; i < 13; ++i) resource += "0x0000000000000000 0x0000000000000000 0x0000000000000000\n";
    board.writeFile(dir + "/resource", resource);
}

}  // namespace quarn::vboard
