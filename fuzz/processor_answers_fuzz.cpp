// Fuzz target of the processor layers' handling of what the kernel answers: the
// machine-check log device (its record and log lengths, the bytes a read hands over),
// /proc/cpuinfo, /proc/meminfo, the per-CPU MSR nodes and now and then the host bridge's
// configuration space, and the layers' queries that read them.
//
// The input is cut into pieces at a marker line:
//   0  a 24-byte control block, then the bytes /dev/mcelog hands over
//   1  /proc/cpuinfo ("-" leaves it absent)
//   2  /proc/meminfo ("-" leaves it absent)
//   3  MSR values, 8 bytes each, handed out in order to every MSR read
//   4  the host bridge's configuration space (used when the control block asks for it)
#include <fcntl.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <list>
#include <memory>
#include <string>

#include "api/ErrorText.h"
#include "api/platform/Files.h"
#include "api/platform/Platform.h"
#include "dapi/processor/GetMCEDAPI.h"
#include "dapi/processor/ProcessorDAPI.h"
#include "dapi/processor/StabilityTestObject.h"
#include "ddapi/processor/ProcessorDDAPI.h"
#include "vboard/DeviceModel.h"
#include "fuzz/FuzzSupport.h"
#include "vboard/VirtualBoard.h"

namespace {

using quarn::fuzz::drop;

const char kMarker[] = "\n#--file--\n";
const char kAbsent[] = "-";
constexpr int kMsrNodes = 16;

// Control block flags.
enum : uint32_t {
    kRecordLenFails = 1u << 0,
    kLogLenFails = 1u << 1,
    kReadFails = 1u << 2,
    kReadWantsWholeLog = 1u << 3,  // EINVAL for a read shorter than the log, as the kernel does
    kReadClears = 1u << 4,         // a read hands the records over once
    kOpenFails = 1u << 5,
    kHostBridge = 1u << 6,
    kMsrWritesFail = 1u << 7,
    kMsrOpenFails = 1u << 8,
};

uint32_t le32(const std::string& s, size_t at) {
    uint32_t v = 0;
    for (size_t i = 0; i < 4; ++i)
        v |= static_cast<uint32_t>(at + i < s.size() ? static_cast<uint8_t>(s[at + i]) : 0) << (8 * i);
    return v;
}

// What the current input makes the devices answer.
struct Answers {
    uint32_t flags = 0;
    int32_t recordLength = 0;
    int32_t logLength = 0;
    std::string log;   // bytes a read of /dev/mcelog hands over
    bool logTaken = false;
    std::string msr;   // 8-byte MSR values
    size_t msrAt = 0;
};
Answers g_answers;

class FuzzedMcelogHandle : public quarn::vboard::FileHandle {
public:
    ssize_t read(void* buf, size_t count) override {
        if (g_answers.flags & kReadFails) return fail(EIO);
        if (g_answers.flags & kReadWantsWholeLog) {
            const uint64_t whole = static_cast<uint64_t>(static_cast<uint32_t>(g_answers.recordLength)) *
                                   static_cast<uint32_t>(g_answers.logLength);
            if (count < whole) return fail(EINVAL);
        }
        if (g_answers.logTaken) return 0;
        const size_t n = std::min(count, g_answers.log.size());
        if (n) memcpy(buf, g_answers.log.data(), n);
        if (g_answers.flags & kReadClears) g_answers.logTaken = true;
        return static_cast<ssize_t>(n);
    }
    int ioctl(unsigned long request, void* arg) override {
        int* out = static_cast<int*>(arg);
        if (!out) return static_cast<int>(fail(EFAULT));
        if (request == MCE_GET_RECORD_LEN) {
            if (g_answers.flags & kRecordLenFails) return static_cast<int>(fail(ENOTTY));
            *out = g_answers.recordLength;
            return 0;
        }
        if (request == MCE_GET_LOG_LEN) {
            if (g_answers.flags & kLogLenFails) return static_cast<int>(fail(EINVAL));
            *out = g_answers.logLength;
            return 0;
        }
        return static_cast<int>(fail(ENOTTY));
    }
};

class FuzzedMcelog : public quarn::vboard::DeviceModel {
public:
    std::unique_ptr<quarn::vboard::FileHandle> open(int) override {
        if (g_answers.flags & kOpenFails) {
            errno = EACCES;
            return nullptr;
        }
        return std::make_unique<FuzzedMcelogHandle>();
    }
};

// /dev/cpu/N/msr: the file position is the register, every read takes the next values.
class FuzzedMsrHandle : public quarn::vboard::FileHandle {
public:
    off_t lseek(off_t offset, int whence) override {
        if (whence != SEEK_SET || offset < 0) return fail(EINVAL);
        m_position = offset;
        return offset;
    }
    ssize_t read(void* buf, size_t count) override {
        if (count % 8) return fail(EINVAL);
        size_t done = 0;
        while (done < count && g_answers.msrAt + 8 <= g_answers.msr.size()) {
            memcpy(static_cast<char*>(buf) + done, g_answers.msr.data() + g_answers.msrAt, 8);
            g_answers.msrAt += 8;
            done += 8;
        }
        return done ? static_cast<ssize_t>(done) : (count ? fail(EIO) : 0);
    }
    ssize_t write(const void*, size_t count) override {
        if (count % 8) return fail(EINVAL);
        if (g_answers.flags & kMsrWritesFail) return fail(EIO);
        return static_cast<ssize_t>(count);
    }

private:
    off_t m_position = 0;
};

class FuzzedMsr : public quarn::vboard::DeviceModel {
public:
    std::unique_ptr<quarn::vboard::FileHandle> open(int) override {
        if (g_answers.flags & kMsrOpenFails) {
            errno = ENXIO;
            return nullptr;
        }
        return std::make_unique<FuzzedMsrHandle>();
    }
};

quarn::vboard::VirtualBoard& board() {
    return quarn::fuzz::board([](quarn::vboard::VirtualBoard& b) {
        b.addDevice("/dev/mcelog", std::make_shared<FuzzedMcelog>());
        for (int cpu = 0; cpu < kMsrNodes; ++cpu)
            b.addDevice("/dev/cpu/" + std::to_string(cpu) + "/msr", std::make_shared<FuzzedMsr>());
        b.setCpuCount(kMsrNodes);
        quarn::registerLibpciSysfsPath(&b, b.hostPath("/sys/bus/pci"));
    });
}

// The host bridge 0000:00:00.0 with the given configuration space.
void writeHostBridge(quarn::vboard::VirtualBoard& b, const std::string& config) {
    const std::string dir = "/sys/bus/pci/devices/0000:00:00.0";
    b.writeFile(dir + "/config", config.substr(0, 4096));
    b.writeFile(dir + "/vendor", "0x8086\n");
    b.writeFile(dir + "/device", "0x6f00\n");
    b.writeFile(dir + "/class", "0x060000\n");
    b.writeFile(dir + "/irq", "0\n");
    std::string resource;
    for (int i = 0; i < 13; ++i) resource += "0x0000000000000000 0x0000000000000000 0x0000000000000000\n";
    b.writeFile(dir + "/resource", resource);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    quarn::vboard::VirtualBoard& b = board();
    const std::string input(reinterpret_cast<const char*>(data), size);
    std::string pieces[5];
    bool present[5] = {};
    size_t at = 0;
    for (int i = 0; i < 5 && at <= input.size(); ++i) {
        const size_t next = input.find(kMarker, at);
        pieces[i] = input.substr(at, next == std::string::npos ? std::string::npos : next - at);
        present[i] = true;
        at = next == std::string::npos ? input.size() + 1 : next + sizeof(kMarker) - 1;
    }

    // Control block: record length, log length, flags, MSR index, MSR count and value to
    // write, package, and a number for names and small settings.
    const std::string& control = pieces[0];
    g_answers = Answers{};
    g_answers.recordLength = static_cast<int32_t>(le32(control, 0));
    g_answers.logLength = static_cast<int32_t>(le32(control, 4));
    g_answers.flags = le32(control, 8);
    const uint32_t msrIndex = le32(control, 12);
    const int msrCount = static_cast<int>(le32(control, 16) % 5);
    const uint32_t extra = le32(control, 20);
    const int package = static_cast<int>(le32(control, 16) >> 8) - 2;
    g_answers.log = control.size() > 24 ? control.substr(24) : std::string();
    g_answers.msr = pieces[3];

    const char* const files[] = {"/proc/cpuinfo", "/proc/meminfo"};
    for (int i = 0; i < 2; ++i) {
        quarn::removePath(files[i]);
        if (present[i + 1] && pieces[i + 1] != kAbsent) b.writeFile(files[i], pieces[i + 1]);
    }
    const bool hostBridge = (g_answers.flags & kHostBridge) != 0;
    if (hostBridge) writeHostBridge(b, pieces[4]);

    const std::string names[] = {"processor0", "processor1", "processor" + std::to_string(extra % 40),
                                 "cpu0"};
    const std::string& name = names[extra % 4];

    // The device layer.
    ProcessorDDAPI device("fuzz");
    int count = 0;
    drop(device.GetCPUNumber(&count));
    drop(device.GetCPUPhysicalNumber(&count));
    std::list<CPUInformation> records;
    drop(device.GetCPUInformation(&records));
    if (!records.empty()) {
        char line[64];
        snprintf(line, sizeof(line), "%s", records.front().modelName.c_str());
        ProcessorDDAPI::RTrim(line, ' ');
        ProcessorDDAPI::LTrim(line, ' ');
    }
    int id = 0;
    drop(device.GetCPUIDByWellKnowName(name, &id));
    drop(device.GetCoreIDByPhycailID(package, &id));
    CPUInformation record;
    drop(device.get_device_by_well_known_name(name, &record));
    std::list<uint64_t> values;
    drop(device.ReadCPURegister(name, static_cast<int>(msrIndex), msrCount, &values));
    drop(device.WriteCPURegister(name, static_cast<int>(msrIndex), extra));
    std::string temperature;
    drop(device.getTemperatureDataByID(name, static_cast<int>(extra % 4), &temperature));
    drop(device.getErrorMsg());

    // The diagnostic layer.
    ProcessorDAPI cpu("fuzz");
    drop(cpu.Get_CPU_number(&count));
    drop(cpu.Get_CPU_physical_number(&count));
    drop(cpu.GetCPUIDByWellKnowName(name, &id));
    std::string text;
    drop(cpu.GetInformation(name, 0, &text));
    drop(cpu.GetInformation(name, static_cast<int>(extra >> 4) % 11 - 1, &text));
    drop(cpu.Read(name, static_cast<int>(msrIndex) + 1, msrCount, &values));
    drop(cpu.Write(name, static_cast<int>(msrIndex), 0));
    drop(cpu.SetExecutionCPUCore(name));
    drop(cpu.GetMCE(&text));
    drop(cpu.GetMCE(name, &text));
    if (hostBridge) drop(cpu.GetErrorRegisters(&count));
    drop(cpu.getErrorMsg());

    GetMCEDAPI mce("fuzz");
    drop(mce.Execute(package, &text));
    drop(mce.Execute(nullptr));
    // The formatter on one record as the log bytes give it.
    struct mce m;
    memset(&m, 0, sizeof(m));
    memcpy(&m, g_answers.log.data(), std::min(sizeof(m), g_answers.log.size()));
    mce.mce_prepare(&m);
    text.clear();
    mce.dump_mce_raw_ascii(&m, static_cast<uint32_t>(g_answers.recordLength), &text);
    mce.dump_mce_raw_ascii(&m, static_cast<uint32_t>(g_answers.recordLength), &text, package);
    drop(mce.getErrorMsg());

    // The stability test's checks that only read memory information; a dry run so that
    // nothing is computed.
    StabilityTestObject stability("fuzz");
    const int power = static_cast<int>(extra >> 8) % 32 - 2;
    drop(stability.check_system_memory_available(power));
    stability.setInstanceCount(1);
    stability.setDryRun(1);
    int passed = -1;
    drop(stability.PiCalculate(&passed, 0, power));
    char small[32];
    StabilityTestObject::outxdigits(static_cast<uint64_t>(msrIndex) << (extra % 33), small);
    StabilityTestObject::outtime(extra, msrIndex, small);
    drop(stability.getErrorMsg());
    return 0;
}
