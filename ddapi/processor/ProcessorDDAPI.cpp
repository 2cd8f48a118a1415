// Device layer of the processors: /proc/cpuinfo, MSR nodes, libpci and the temperature hook.
#include "ddapi/processor/ProcessorDDAPI.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <csetjmp>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <vector>

#include "api/platform/Files.h"
#include "api/platform/Platform.h"

extern "C" {
#include <pci/pci.h>
}

namespace {
const char kCpuinfo[] = "/proc/cpuinfo";

constexpr ERRORCODE kGetCPUInformationOpen = 0xC1080401;
constexpr ERRORCODE kGetCPUNumberOpen = 0xC1080801;
constexpr ERRORCODE kGetErrorRegisters = 0xC1080C02;
constexpr ERRORCODE kRegRead = 0xC1081002;
constexpr ERRORCODE kReadRegister = 0xC2081400;
constexpr ERRORCODE kWriteRegister = 0xC2081800;
constexpr ERRORCODE kNameLookup = 0xC1040800;
constexpr ERRORCODE kNameLookupRead = 0xC1041000;
constexpr ERRORCODE kTemperature = 0xCF041800;

constexpr size_t kInfoLineSize = 4096;   // record parser
constexpr size_t kCountLineSize = 500;   // processor and package counting
constexpr int kAffinityCpus = 1024;

// The file cut as fgets with a buffer of size would hand it over: pieces of at most
// size - 1 characters, each ending at its newline when the line fits.
std::vector<std::string> fgetsLines(const std::string& text, size_t size) {
    std::vector<std::string> lines;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t nl = text.find('\n', pos);
        size_t end = nl == std::string::npos ? text.size() : nl + 1;
        if (end - pos > size - 1) end = pos + size - 1;
        lines.push_back(text.substr(pos, end - pos));
        pos = end;
    }
    return lines;
}

std::string stripBlanks(const std::string& s) {
    size_t b = s.find_first_not_of(" \t");
    if (b == std::string::npos) return std::string();
    size_t e = s.find_last_not_of(" \t");
    return s.substr(b, e - b + 1);
}

// Whole text as a decimal int; anything else leaves the field as it was.
bool toInt(const std::string& s, int* out) {
    if (s.empty()) return false;
    char* end = nullptr;
    errno = 0;
    long v = strtol(s.c_str(), &end, 10);
    if (errno || *end != '\0' || v < INT_MIN || v > INT_MAX) return false;
    *out = static_cast<int>(v);
    return true;
}

// Leading decimal number ("35840 KB").
bool toLeadingInt(const std::string& s, int* out) {
    char* end = nullptr;
    errno = 0;
    long v = strtol(s.c_str(), &end, 10);
    if (errno || end == s.c_str() || v < INT_MIN || v > INT_MAX) return false;
    *out = static_cast<int>(v);
    return true;
}

bool toFloat(const std::string& s, float* out) {
    if (s.empty()) return false;
    char* end = nullptr;
    errno = 0;
    float v = strtof(s.c_str(), &end);
    if (errno || *end != '\0' || !std::isfinite(v)) return false;
    *out = v;
    return true;
}

void toBool(const std::string& s, bool* out) {
    if (s == "yes") *out = true;
    else if (s == "no") *out = false;
}

// Assigns one key's value; unknown keys are ignored.
void assignField(CPUInformation* r, const std::string& key, const std::string& v) {
    if (key == "processor") toInt(v, &r->processor);
    else if (key == "vendor_id") r->vendor = v;
    else if (key == "cpu family") toInt(v, &r->family);
    else if (key == "model") toInt(v, &r->model);
    else if (key == "model name") r->modelName = v;
    else if (key == "stepping") toInt(v, &r->stepping);
    else if (key == "cpu MHz") toFloat(v, &r->frequency);
    else if (key == "cache size") toLeadingInt(v, &r->cacheSize);
    else if (key == "physical id") toInt(v, &r->physicalId);
    else if (key == "siblings") toInt(v, &r->siblings);
    else if (key == "core id") toInt(v, &r->coreId);
    else if (key == "cpu cores") toInt(v, &r->cpuCores);
    else if (key == "apicid") toInt(v, &r->apicid);
    else if (key == "initial apicid") toInt(v, &r->initialApicid);
    else if (key == "fdiv_bug") toBool(v, &r->fdivBug);
    else if (key == "hlt_bug") toBool(v, &r->hltBug);
    else if (key == "f00f_bug") toBool(v, &r->f00fBug);
    else if (key == "coma_bug") toBool(v, &r->comaBug);
    else if (key == "fpu") toBool(v, &r->fpu);
    else if (key == "fpu_exception") toBool(v, &r->fpuException);
    else if (key == "cpuid level") toInt(v, &r->cpuidLevel);
    else if (key == "wp") toBool(v, &r->wp);
    else if (key == "flags") r->flags = v;
    else if (key == "bogomips") toFloat(v, &r->bogomips);
    else if (key == "clflush size") toInt(v, &r->clflushSize);
    else if (key == "cache_alignment") toInt(v, &r->cacheAlignment);
    else if (key == "address sizes") {
        int phys, virt;
        if (sscanf(v.c_str(), "%d bits physical, %d bits virtual", &phys, &virt) == 2) {
            r->physicalAddressBits = phys;
            r->virtualAddressBits = virt;
        }
    } else if (key == "power management") r->powerManagement = v;
}

std::mutex g_hookMutex;
quarn::PackageTemperatureDriver g_temperatureDriver;
std::map<const quarn::Platform*, std::string> g_libpciPaths;

std::string libpciPathFor(const quarn::Platform* p) {
    std::lock_guard<std::mutex> lock(g_hookMutex);
    auto it = g_libpciPaths.find(p);
    return it == g_libpciPaths.end() ? std::string() : it->second;
}

// libpci's error callback must not return; it jumps back into the read below, which
// holds no C++ objects, so nothing is skipped but libpci's own frames.
struct LibpciJob {
    const char* sysfsPath;  // null: libpci's own choice of method
    unsigned domain, bus, device, function;
    uint16_t offset;
    uint8_t width;
    uint32_t value;
    int found;
    char error[128];
};
thread_local jmp_buf* t_libpciJump = nullptr;
thread_local char t_libpciError[128];

void libpciError(char* msg, ...) {
    va_list ap;
    va_start(ap, msg);
    vsnprintf(t_libpciError, sizeof(t_libpciError), msg, ap);
    va_end(ap);
    longjmp(*t_libpciJump, 1);
}

void libpciQuiet(char*, ...) {}

// 0 on a completed scan (job->found tells whether the device was there), -1 when libpci
// gave up, with its message in job->error.
int runLibpci(LibpciJob* job) {
    struct pci_access* volatile acc = nullptr;
    jmp_buf jump;
    t_libpciJump = &jump;
    if (setjmp(jump) != 0) {
        snprintf(job->error, sizeof(job->error), "%s", t_libpciError);
        if (acc) pci_cleanup(acc);
        t_libpciJump = nullptr;
        return -1;
    }
    acc = pci_alloc();
    acc->error = libpciError;
    acc->warning = libpciQuiet;
    acc->debug = libpciQuiet;
    if (job->sysfsPath) {
        acc->method = PCI_ACCESS_SYS_BUS_PCI;
        pci_set_param(acc, const_cast<char*>("sysfs.path"), const_cast<char*>(job->sysfsPath));
    }
    pci_init(acc);
    pci_scan_bus(acc);
    job->found = 0;
    for (struct pci_dev* d = acc->devices; d; d = d->next) {
        if (static_cast<unsigned>(d->domain) != job->domain || d->bus != job->bus ||
            d->dev != job->device || d->func != job->function)
            continue;
        if (job->width == 1) job->value = pci_read_byte(d, job->offset);
        else if (job->width == 2) job->value = pci_read_word(d, job->offset);
        else job->value = pci_read_long(d, job->offset);
        job->found = 1;
        break;
    }
    pci_cleanup(acc);
    t_libpciJump = nullptr;
    return 0;
}
}  // namespace

namespace quarn {
void installPackageTemperatureDriver(PackageTemperatureDriver driver) {
    std::lock_guard<std::mutex> lock(g_hookMutex);
    g_temperatureDriver = std::move(driver);
}

void registerLibpciSysfsPath(const Platform* owner, const std::string& path) {
    std::lock_guard<std::mutex> lock(g_hookMutex);
    if (path.empty()) g_libpciPaths.erase(owner);
    else g_libpciPaths[owner] = path;
}
}  // namespace quarn

ProcessorDDAPI::ProcessorDDAPI(const char* name) : BaseClassDDAPI(name) {}

ProcessorDDAPI::~ProcessorDDAPI() = default;

void ProcessorDDAPI::RTrim(char* text, char c) {
    if (!text) return;
    size_t n = strlen(text);
    while (n > 0 && text[n - 1] == c) text[--n] = '\0';
}

void ProcessorDDAPI::LTrim(char* text, char c) {
    if (!text) return;
    size_t skip = 0;
    while (text[skip] == c) ++skip;
    if (skip) memmove(text, text + skip, strlen(text + skip) + 1);
}

ErrorMsg* ProcessorDDAPI::GetCPUInformation(std::list<CPUInformation>* records) {
    std::string text;
    if (quarn::readTextFile(kCpuinfo, &text) != 0)
        return returnErrorMsg(kGetCPUInformationOpen, nullptr, nullptr);
    CPUInformation record;
    bool pending = false;
    for (const std::string& line : fgetsLines(text, kInfoLineSize)) {
        if (line == "\n") {
            if (records) records->push_back(record);
            pending = false;
            continue;
        }
        size_t colon = line.find(':');
        // A line without a key and its colon (or cut off by the line limit) is not a field.
        if (colon == std::string::npos || colon == 0) continue;
        std::string key = stripBlanks(line.substr(0, colon));
        size_t valueEnd = line.find(':', colon + 1);
        std::string value =
            line.substr(colon + 1, valueEnd == std::string::npos ? std::string::npos
                                                                 : valueEnd - colon - 1);
        if (!value.empty() && value.back() == '\n') value.pop_back();
        value = stripBlanks(value);
        assignField(&record, key, value);
        pending = true;
    }
    // A last block without its closing blank line still describes a processor.
    if (pending && records) records->push_back(record);
    return nullptr;
}

ErrorMsg* ProcessorDDAPI::GetCPUNumber(int* count) {
    std::string text;
    if (quarn::readTextFile(kCpuinfo, &text) != 0) {
        printf("Error opening file\n");
        return returnErrorMsg(kGetCPUNumberOpen, nullptr, nullptr);
    }
    int n = 0;
    for (const std::string& line : fgetsLines(text, kCountLineSize)) {
        if (line.compare(0, 9, "processor") == 0) ++n;
    }
    if (count) *count = n;
    return nullptr;
}

ErrorMsg* ProcessorDDAPI::GetCPUPhysicalNumber(int* count) {
    std::string text;
    if (quarn::readTextFile(kCpuinfo, &text) != 0) {
        printf("Error opening file\n");
        return returnErrorMsg(kGetCPUNumberOpen, "Open /proc/cpuinfo fail", nullptr);
    }
    int highest = -1;
    for (const std::string& line : fgetsLines(text, kCountLineSize)) {
        if (line.compare(0, 11, "physical id") != 0) continue;
        int id;
        // A package number the count cannot hold is no package of this machine.
        if (sscanf(line.c_str(), "physical id     : %d", &id) == 1 && id > highest && id < INT_MAX)
            highest = id;
    }
    if (count) *count = highest < 0 ? 1 : highest + 1;
    return nullptr;
}

ErrorMsg* ProcessorDDAPI::GetCPUIDByWellKnowName(std::string name, int* id) {
    int count = 0;
    if (ErrorMsg* e = GetCPUNumber(&count)) return e;
    char candidate[32];
    for (int i = 0; i < count; ++i) {
        snprintf(candidate, sizeof(candidate), "processor%d", i);
        if (name == candidate) {
            if (id) *id = i;
            return nullptr;
        }
    }
    return returnErrorMsg(kNameLookup, "CPU ID out of range", nullptr);
}

ErrorMsg* ProcessorDDAPI::GetCoreIDByPhycailID(int physicalID, int* cpu) {
    std::list<CPUInformation> records;
    if (ErrorMsg* e = GetCPUInformation(&records))
        return returnErrorMsg(kNameLookupRead, nullptr, e);
    for (const CPUInformation& r : records) {
        if (r.physicalId == physicalID) {
            if (cpu) *cpu = r.processor;
            return nullptr;
        }
    }
    return returnErrorMsg(kNameLookup, "CPU ID not founded", nullptr);
}

ErrorMsg* ProcessorDDAPI::get_device_by_well_known_name(std::string name, CPUInformation* out) {
    int id = 0;
    if (ErrorMsg* e = GetCPUIDByWellKnowName(name, &id)) return e;
    std::list<CPUInformation> records;
    if (ErrorMsg* e = GetCPUInformation(&records))
        return returnErrorMsg(kNameLookupRead, nullptr, e);
    for (const CPUInformation& r : records) {
        if (r.physicalId == id) {
            if (out) *out = r;
            return nullptr;
        }
    }
    return returnErrorMsg(kNameLookup, "CPU ID not founded", nullptr);
}

ErrorMsg* ProcessorDDAPI::bindToRegisterCpu(ERRORCODE code, const std::string& name, int* cpu) {
    int id = 0;
    if (ErrorMsg* e = GetCPUIDByWellKnowName(name, &id)) return returnErrorMsg(code, nullptr, e);
    if (ErrorMsg* e = GetCoreIDByPhycailID(id, cpu)) return returnErrorMsg(code, nullptr, e);
    cpu_set_t set;
    CPU_ZERO(&set);
    if (*cpu >= 0 && *cpu < kAffinityCpus) CPU_SET(*cpu, &set);
    if (quarn::platform().setAffinity(set) != 0)
        return returnErrorMsg(code, "sched_setaffinity fail", nullptr);
    return nullptr;
}

// Binds the thread to the register CPU of name and opens its MSR node.
ErrorMsg* ProcessorDDAPI::openMsrNode(ERRORCODE code, const std::string& name, int flags, int* fd) {
    int cpu = 0;
    if (ErrorMsg* e = bindToRegisterCpu(code, name, &cpu)) return e;
    char node[48];
    snprintf(node, sizeof(node), "/dev/cpu/%d/msr", cpu);
    *fd = quarn::platform().open(node, flags);
    if (*fd < 0) {
        formatMessage("Open /dev/cpu/%d/msr CPU MSR node fail", cpu);
        return returnErrorMsg(code, m_message, nullptr);
    }
    return nullptr;
}

// MSR indices are taken as unsigned 32-bit, so the 0xC000xxxx range stays reachable.
ErrorMsg* ProcessorDDAPI::ReadCPURegister(std::string name, int msr, int count,
                                          std::list<uint64_t>* values) {
    int fd = -1;
    if (ErrorMsg* e = openMsrNode(kReadRegister, name, O_RDONLY, &fd)) return e;
    quarn::Platform& p = quarn::platform();
    for (int i = 0; i < count; ++i) {
        const uint32_t reg = static_cast<uint32_t>(msr) + static_cast<uint32_t>(i);
        if (p.lseek(fd, static_cast<off_t>(reg), SEEK_SET) == static_cast<off_t>(-1)) {
            p.close(fd);
            return returnErrorMsg(kReadRegister, "Move file pointer to register fail", nullptr);
        }
        uint64_t value = 0;
        if (p.read(fd, &value, sizeof(value)) != static_cast<ssize_t>(sizeof(value))) {
            p.close(fd);
            formatMessage("Read register 0x%x fail", reg);
            return returnErrorMsg(kReadRegister, m_message, nullptr);
        }
        if (values) values->push_back(value);
    }
    p.close(fd);
    return nullptr;
}

ErrorMsg* ProcessorDDAPI::WriteCPURegister(std::string name, int msr, uint64_t value) {
    int fd = -1;
    if (ErrorMsg* e = openMsrNode(kWriteRegister, name, O_WRONLY, &fd)) return e;
    quarn::Platform& p = quarn::platform();
    const uint32_t reg = static_cast<uint32_t>(msr);
    if (p.lseek(fd, static_cast<off_t>(reg), SEEK_SET) == static_cast<off_t>(-1)) {
        p.close(fd);
        return returnErrorMsg(kWriteRegister, "Move file pointer to register fail", nullptr);
    }
    if (p.write(fd, &value, sizeof(value)) != static_cast<ssize_t>(sizeof(value))) {
        p.close(fd);
        formatMessage("Write register 0x%x fail", reg);
        return returnErrorMsg(kWriteRegister, m_message, nullptr);
    }
    p.close(fd);
    return nullptr;
}

ErrorMsg* ProcessorDDAPI::GetErrorRegistersExecute(int* value) {
    pci_device request{0, 0, 0xC8, 0, 4};
    if (ErrorMsg* e = RegRead(&request)) return returnErrorMsg(kGetErrorRegisters, nullptr, e);
    if (value) *value = static_cast<int>(request.value);
    return nullptr;
}

ErrorMsg* ProcessorDDAPI::RegRead(pci_device* request) {
    if (!request || (request->width != 1 && request->width != 2 && request->width != 4)) {
        formatMessage("register width %u is not 1, 2 or 4", request ? request->width : 0u);
        return returnErrorMsg(kRegRead, m_message, nullptr);
    }
    const std::string sysfs = libpciPathFor(&quarn::platform());
    LibpciJob job{};
    job.sysfsPath = sysfs.empty() ? nullptr : sysfs.c_str();
    job.domain = request->address >> 16;
    job.bus = (request->address >> 8) & 0xFF;
    job.device = request->address & 0x1F;
    job.function = request->function;
    job.offset = request->offset;
    job.width = request->width;
    if (runLibpci(&job) != 0) {
        formatMessage("libpci: %s", job.error);
        return returnErrorMsg(kRegRead, m_message, nullptr);
    }
    // A device missing from the scan is an error rather than the all-ones of an empty slot.
    if (!job.found) {
        formatMessage("no PCI device %04x:%02x:%02x.%u", job.domain, job.bus, job.device,
                      job.function);
        return returnErrorMsg(kRegRead, m_message, nullptr);
    }
    request->value = job.value;
    return nullptr;
}

ErrorMsg* ProcessorDDAPI::getTemperatureDataByID(std::string name,
                                                 CPU_TEMPERATURE_OPERATION_ID op,
                                                 std::string* value) {
    CPUInformation record;
    ErrorMsg* lookup = get_device_by_well_known_name(name, &record);
    if (lookup || record.family != 6 || (record.model != 0x56 && record.model != 0x4F))
        return returnErrorMsg(kTemperature, "Not support CPU temperature", lookup);
    if (op < 0 || op > 2) {
        formatMessage("temperature operation %d not supported", op);
        return returnErrorMsg(kTemperature, m_message, nullptr);
    }
    quarn::PackageTemperatureDriver driver;
    {
        std::lock_guard<std::mutex> lock(g_hookMutex);
        driver = g_temperatureDriver;
    }
    if (!driver) return returnErrorMsg(kTemperature, "Broadwell-DE temp driver not available", nullptr);
    std::string result;
    if (ErrorMsg* e = driver(name, op, false, &result)) return returnErrorMsg(kTemperature, nullptr, e);
    if (value) *value = result;
    return nullptr;
}

ErrorMsg* ProcessorDDAPI::setTemperatureDataByID(std::string name,
                                                 CPU_TEMPERATURE_OPERATION_ID op,
                                                 std::string value) {
    CPUInformation record;
    ErrorMsg* lookup = get_device_by_well_known_name(name, &record);
    if (lookup || record.family != 6 || record.model != 0x56)
        return returnErrorMsg(kTemperature, "Not support CPU temperature", lookup);
    if (op != 1 && op != 2) {
        formatMessage("temperature operation %d not supported", op);
        return returnErrorMsg(kTemperature, m_message, nullptr);
    }
    quarn::PackageTemperatureDriver driver;
    {
        std::lock_guard<std::mutex> lock(g_hookMutex);
        driver = g_temperatureDriver;
    }
    if (!driver) return returnErrorMsg(kTemperature, "Broadwell-DE temp driver not available", nullptr);
    if (ErrorMsg* e = driver(name, op, true, &value)) return returnErrorMsg(kTemperature, nullptr, e);
    return nullptr;
}
