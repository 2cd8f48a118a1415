// Tests of the processor layers: /proc/cpuinfo parsing, names, MSR access and binding,
// the host-bridge register through libpci and the temperature forwarding.
#include <gtest/gtest.h>

#include <sched.h>

#include <cerrno>
#include <cstring>
#include <list>
#include <string>

#include "api/ErrorText.h"
#include "api/platform/Platform.h"
#include "dapi/processor/ProcessorDAPI.h"
#include "ddapi/processor/ProcessorDDAPI.h"
#include "vboard/Board.h"
#include "tests/lib/Render.h"

namespace {

using quarn::vboard::Board;
using quarn::vboard::ProcessorComplex;
namespace msr = quarn::vboard::msr;

using quarn::test::render;
class ProcessorTest : public ::testing::Test {
protected:
    void SetUp() override { quarn::installPlatform(&board); }
    void TearDown() override {
        quarn::installPackageTemperatureDriver(nullptr);
        quarn::installPlatform(nullptr);
    }
    // The CPUs the calling thread is bound to, as the board recorded them.
    std::vector<int> boundCpus() {
        cpu_set_t set;
        quarn::platform().getAffinity(&set);
        std::vector<int> cpus;
        for (int c = 0; c < CPU_SETSIZE; ++c)
            if (CPU_ISSET(c, &set)) cpus.push_back(c);
        return cpus;
    }
    // Two Xeon D packages of 4 cores and 2 threads: CPUs 0-3 and 8-11 are package 0.
    void useTwoPackages() {
        board.processors = std::make_shared<ProcessorComplex>(2, 4, 2);
        board.processors->install(board);
    }
    Board board;
};

TEST_F(ProcessorTest, CountsProcessorsAndPackages) {
    ProcessorDDAPI cpu("CPU");
    int n = 0;
    ASSERT_EQ(cpu.GetCPUNumber(&n), nullptr);
    EXPECT_EQ(n, 16);
    ASSERT_EQ(cpu.GetCPUPhysicalNumber(&n), nullptr);
    EXPECT_EQ(n, 1);
    useTwoPackages();
    ASSERT_EQ(cpu.GetCPUPhysicalNumber(&n), nullptr);
    EXPECT_EQ(n, 2);
    ASSERT_EQ(cpu.GetCPUNumber(&n), nullptr);
    EXPECT_EQ(n, 16);
}

TEST_F(ProcessorTest, ParsesEveryFieldOfABroadwellDeRecord) {
    ProcessorDDAPI cpu("CPU");
    std::list<CPUInformation> records;
    ASSERT_EQ(cpu.GetCPUInformation(&records), nullptr);
    ASSERT_EQ(records.size(), 16u);
    const CPUInformation& r = records.back();
    EXPECT_EQ(r.processor, 15);
    EXPECT_EQ(r.vendor, "GenuineIntel");
    EXPECT_EQ(r.family, 6);
    EXPECT_EQ(r.model, 86);
    EXPECT_EQ(r.modelName, "Intel(R) Xeon(R) CPU D-1548 @ 2.00GHz");
    EXPECT_EQ(r.stepping, 3);
    EXPECT_FLOAT_EQ(r.frequency, 2000.0f);
    EXPECT_EQ(r.cacheSize, 12288);
    EXPECT_EQ(r.physicalId, 0);
    EXPECT_EQ(r.siblings, 16);
    EXPECT_EQ(r.coreId, 7);
    EXPECT_EQ(r.cpuCores, 8);
    EXPECT_EQ(r.apicid, 15);
    EXPECT_EQ(r.initialApicid, 15);
    EXPECT_TRUE(r.fpu);
    EXPECT_TRUE(r.fpuException);
    EXPECT_TRUE(r.wp);
    EXPECT_EQ(r.cpuidLevel, 20);
    EXPECT_EQ(r.flags.substr(0, 11), "fpu vme de ");
    EXPECT_FLOAT_EQ(r.bogomips, 3999.86f);
    EXPECT_EQ(r.clflushSize, 64);
    EXPECT_EQ(r.cacheAlignment, 64);
    EXPECT_EQ(r.physicalAddressBits, 46);
    EXPECT_EQ(r.virtualAddressBits, 48);
    EXPECT_EQ(r.powerManagement, "");
}

TEST_F(ProcessorTest, MalformedLinesAreRejectedAndValuesKept) {
    std::string longLine = "flags\t: " + std::string(10000, 'x') + "\n";
    board.writeFile("/proc/cpuinfo",
                    "processor\t: 0\n"
                    "cpu family\t: 6\n"
                    "model\t\t: 86\n"
                    "fpu\t\t: yes\n"
                    "\n"
                    "processor\t: 1\n"
                    "cpu family\t: six\n"               // not a number: keeps 6
                    "model\t\t: 99999999999999999999\n"  // out of range: keeps 86
                    "physical id\t: 3x\n"               // trailing junk: keeps 0
                    "fpu\t\t: maybe\n"                  // neither yes nor no: kept
                    "cpu MHz\t\t: nan\n"
                    "address sizes\t: lots\n"
                    "no colon on this line\n"
                    ": no key\n" +
                        longLine +
                        "cache size\t: 512 KB\n"
                        "\n"
                        "processor\t: 2\n");  // no closing blank line: still a processor
    ProcessorDDAPI cpu("CPU");
    std::list<CPUInformation> records;
    ASSERT_EQ(cpu.GetCPUInformation(&records), nullptr);
    ASSERT_EQ(records.size(), 3u);
    auto second = std::next(records.begin());
    EXPECT_EQ(second->processor, 1);
    EXPECT_EQ(second->family, 6);
    EXPECT_EQ(second->model, 86);
    EXPECT_EQ(second->physicalId, 0);
    EXPECT_TRUE(second->fpu);
    EXPECT_FLOAT_EQ(second->frequency, 0.0f);
    EXPECT_EQ(second->physicalAddressBits, 0);
    EXPECT_EQ(second->cacheSize, 512);
    // The long line arrives in 4095-byte pieces: the first is the flags field.
    EXPECT_EQ(second->flags.size(), 4095u - strlen("flags\t: "));
    EXPECT_EQ(records.back().processor, 2);
    EXPECT_EQ(records.back().cacheSize, 512);  // not cleared between processors
}

TEST_F(ProcessorTest, NoPhysicalIdMeansOnePackage) {
    board.writeFile("/proc/cpuinfo", "processor\t: 0\n\nprocessor\t: 1\n\n");
    ProcessorDDAPI cpu("CPU");
    int n = 0;
    ASSERT_EQ(cpu.GetCPUPhysicalNumber(&n), nullptr);
    EXPECT_EQ(n, 1);
}

TEST_F(ProcessorTest, MissingCpuinfo) {
    board.removeDevice("/proc/cpuinfo");
    ProcessorDDAPI cpu("CPU");
    int n = 0;
    testing::internal::CaptureStdout();
    std::string count = render(cpu.GetCPUNumber(&n));
    std::string packages = render(cpu.GetCPUPhysicalNumber(&n));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error opening file\nError opening file\n");
    // The device table keeps no function rows of its own, so the head cannot be named.
    EXPECT_EQ(count, "ProcessorDDAPIFail to parse error code!!");
    EXPECT_EQ(packages, "ProcessorDDAPIFail to parse error code!!");
    std::list<CPUInformation> records;
    EXPECT_EQ(render(cpu.GetCPUInformation(&records)), "ProcessorDDAPIFail to parse error code!!");
}

TEST_F(ProcessorTest, NamesMapToNumbersAndPackages) {
    useTwoPackages();
    ProcessorDDAPI cpu("CPU");
    int id = -1;
    ASSERT_EQ(cpu.GetCPUIDByWellKnowName("processor1", &id), nullptr);
    EXPECT_EQ(id, 1);
    EXPECT_EQ(render(cpu.GetCPUIDByWellKnowName("processor16", &id)),
              "ProcessorDAPI::GetInformation: \"CPU ID out of range\"");
    EXPECT_EQ(render(cpu.GetCPUIDByWellKnowName("processor01", &id)),
              "ProcessorDAPI::GetInformation: \"CPU ID out of range\"");
    int logical = -1;
    ASSERT_EQ(cpu.GetCoreIDByPhycailID(1, &logical), nullptr);
    EXPECT_EQ(logical, 4);
    EXPECT_EQ(render(cpu.GetCoreIDByPhycailID(2, &logical)),
              "ProcessorDAPI::GetInformation: \"CPU ID not founded\"");
    CPUInformation record;
    ASSERT_EQ(cpu.get_device_by_well_known_name("processor1", &record), nullptr);
    EXPECT_EQ(record.processor, 4);
}

TEST_F(ProcessorTest, MsrReadGoesToTheAskedCpuAndLeavesTheThreadBound) {
    useTwoPackages();
    board.processors->package(1)->setRegister(0, msr::kThermInterrupt, 0x1234);
    board.processors->package(0)->setRegister(0, msr::kThermInterrupt, 0x9999);
    ProcessorDAPI cpu("CPU");
    std::list<uint64_t> values;
    ASSERT_EQ(cpu.Read("processor1", msr::kThermInterrupt, 1, &values), nullptr);
    ASSERT_EQ(values.size(), 1u);
    EXPECT_EQ(values.front(), 0x1234u);
    EXPECT_EQ(boundCpus(), std::vector<int>{4});

    values.clear();
    ASSERT_EQ(cpu.Read("processor0", msr::kTemperatureTarget, 1, &values), nullptr);
    EXPECT_EQ(values.front(), 100u << 16);
    EXPECT_EQ(boundCpus(), std::vector<int>{0});
}

TEST_F(ProcessorTest, MsrReadOfSeveralRegistersAndOfNone) {
    ProcessorDDAPI cpu("CPU");
    board.processors->package(0)->setTemperature(55);
    std::list<uint64_t> values;
    ASSERT_EQ(cpu.ReadCPURegister("processor0", msr::kPackageThermStatus, 2, &values), nullptr);
    ASSERT_EQ(values.size(), 2u);
    EXPECT_EQ((values.front() >> 16) & 0x7F, 45u);  // TjMax 100 - 55
    EXPECT_EQ(values.back(), 0u);
    values.clear();
    ASSERT_EQ(cpu.ReadCPURegister("processor0", msr::kPackageThermStatus, 0, &values), nullptr);
    EXPECT_TRUE(values.empty());
}

TEST_F(ProcessorTest, MsrFailures) {
    ProcessorDAPI cpu("CPU");
    std::list<uint64_t> values;
    // No such register: the driver answers EIO.
    EXPECT_EQ(render(cpu.Read("processor0", 0x1B3, 1, &values)),
              "ProcessorDAPI::GetErrorRegisters -> MemoryDDAPI::writeMemory: "
              "\"Read register 0x1b3 fail\"");
    // Name valid by count but no package of that number.
    EXPECT_EQ(render(cpu.Read("processor1", msr::kThermStatus, 1, &values)),
              "ProcessorDAPI::GetErrorRegisters -> MemoryDDAPI::writeMemory -> "
              "ProcessorDAPI::GetInformation: \"CPU ID not founded\"");
    EXPECT_EQ(render(cpu.Write("processor99", msr::kThermInterrupt, 0)),
              "ProcessorDAPI::GetErrorRegisters -> MemoryDDAPI::getMemroryBuffer -> "
              "ProcessorDAPI::GetInformation: \"CPU ID out of range\"");
    board.device("/dev/cpu/0/msr")->faults().openErrno = EPERM;
    EXPECT_EQ(render(cpu.Read("processor0", msr::kThermStatus, 1, &values)),
              "ProcessorDAPI::GetErrorRegisters -> MemoryDDAPI::writeMemory: "
              "\"Open /dev/cpu/0/msr CPU MSR node fail\"");
    EXPECT_EQ(render(cpu.Write("processor0", msr::kThermInterrupt, 0)),
              "ProcessorDAPI::GetErrorRegisters -> MemoryDDAPI::getMemroryBuffer: "
              "\"Open /dev/cpu/0/msr CPU MSR node fail\"");
    board.device("/dev/cpu/0/msr")->faults().openErrno = 0;
    // A board with fewer online CPUs than cpuinfo lists refuses the binding.
    board.setCpuCount(0);
    EXPECT_EQ(render(cpu.Read("processor0", msr::kThermStatus, 1, &values)),
              "ProcessorDAPI::GetErrorRegisters -> MemoryDDAPI::writeMemory: "
              "\"sched_setaffinity fail\"");
}

TEST_F(ProcessorTest, MsrWriteIsKeptAndReservedBitsFault) {
    useTwoPackages();
    ProcessorDAPI cpu("CPU");
    ASSERT_EQ(cpu.Write("processor1", msr::kPackageThermInterrupt, 0xA34), nullptr);
    EXPECT_EQ(board.processors->package(1)->registerValue(0, msr::kPackageThermInterrupt), 0xA34u);
    EXPECT_EQ(board.processors->package(0)->registerValue(0, msr::kPackageThermInterrupt), 0u);
    EXPECT_EQ(boundCpus(), std::vector<int>{4});
    EXPECT_EQ(render(cpu.Write("processor1", msr::kPackageThermInterrupt, 1ULL << 40)),
              "ProcessorDAPI::GetErrorRegisters -> MemoryDDAPI::getMemroryBuffer: "
              "\"Write register 0x1b2 fail\"");
    EXPECT_EQ(render(cpu.Write("processor1", msr::kTemperatureTarget, 0)),
              "ProcessorDAPI::GetErrorRegisters -> MemoryDDAPI::getMemroryBuffer: "
              "\"Write register 0x1a2 fail\"");
    EXPECT_EQ(board.processors->package(1)->registerValue(0, msr::kPackageThermInterrupt), 0xA34u);
}

TEST_F(ProcessorTest, ExecutionBindingCoversThePackage) {
    useTwoPackages();
    ProcessorDAPI cpu("CPU");
    ASSERT_EQ(cpu.SetExecutionCPUCore("processor1"), nullptr);
    EXPECT_EQ(boundCpus(), (std::vector<int>{4, 5, 6, 7, 12, 13, 14, 15}));
    EXPECT_EQ(render(cpu.SetExecutionCPUCore("cpu1")),
              "ProcessorDAPI::GetInformation -> ProcessorDAPI::GetInformation: "
              "\"CPU ID out of range\"");
}

TEST_F(ProcessorTest, InformationLines) {
    ProcessorDAPI cpu("CPU");
    std::string out;
    ASSERT_EQ(cpu.GetInformation("processor0", 0, &out), nullptr);
    EXPECT_EQ(out,
              "Thread per core: 2\nVendor: GenuineIntel\nModel: 86\nFamily: 6\nCore: 8\n"
              "Frequency: 2.00GHz\nStepping: 3\nCache: 12288 KB\n");
    ASSERT_EQ(cpu.GetInformation("processor0", 5, &out), nullptr);
    EXPECT_EQ(out, "Core: 8\n");
    EXPECT_EQ(render(cpu.GetInformation("processor1", 2, &out)),
              "ProcessorDAPI::GetInformation: \"CPU ID not founded\"");
    EXPECT_EQ(render(cpu.GetInformation("processor16", 2, &out)),
              "ProcessorDAPI::GetInformation -> ProcessorDAPI::GetInformation: "
              "\"CPU ID out of range\"");
}

TEST_F(ProcessorTest, FrequencyWithoutAtSignIsEmpty) {
    board.processors->modelName = "Intel(R) Xeon(R) CPU D-1548";
    board.processors->install(board);
    ProcessorDAPI cpu("CPU");
    std::string out;
    ASSERT_EQ(cpu.GetInformation("processor0", 6, &out), nullptr);
    EXPECT_EQ(out, "Frequency: \n");
}

TEST_F(ProcessorTest, HostBridgeRegisterThroughLibpci) {
    // Fresh config space with the error register set.
    std::string config(256, '\0');
    config[0] = '\x86';
    config[1] = '\x80';
    config[0xC8] = '\x21';
    config[0xCB] = '\x80';
    board.writeFile("/sys/bus/pci/devices/0000:00:00.0/config", config);
    ProcessorDAPI cpu("CPU");
    int value = 0;
    ASSERT_EQ(cpu.GetErrorRegisters(&value), nullptr);
    EXPECT_EQ(static_cast<uint32_t>(value), 0x80000021u);

    ProcessorDDAPI dev("CPU");
    pci_device word{0, 0, 0x00, 0, 2};
    ASSERT_EQ(dev.RegRead(&word), nullptr);
    EXPECT_EQ(word.value, 0x8086u);
    pci_device byte{0, 0, 0xCB, 0, 1};
    ASSERT_EQ(dev.RegRead(&byte), nullptr);
    EXPECT_EQ(byte.value, 0x80u);
    pci_device wide{0, 0, 0xC8, 0, 3};
    EXPECT_EQ(render(dev.RegRead(&wide)),
              "ProcessorDDAPIFail to parse error code!!");
    pci_device absent{0x7E00, 0, 0, 0, 4};  // no function on bus 0x7e
    ErrorMsg* e = dev.RegRead(&absent);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->getErrorCode(), 0xC1081002u);
    EXPECT_EQ(e->getDetailMessage(), "no PCI device 0000:7e:00.0");
    deleteErrorMsg(e);
}

TEST_F(ProcessorTest, HostBridgeMissingTreeIsAnErrorNotAnExit) {
    quarn::registerLibpciSysfsPath(&board, board.hostPath("/nowhere"));
    ProcessorDDAPI dev("CPU");
    int value = 0;
    ErrorMsg* e = dev.GetErrorRegistersExecute(&value);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->getErrorCode(), 0xC1080C02u);
    ASSERT_NE(e->getNextErrorMsg(), nullptr);
    EXPECT_EQ(e->getNextErrorMsg()->getDetailMessage().rfind("libpci: ", 0), 0u);
    deleteErrorMsg(e);
}

TEST_F(ProcessorTest, TemperatureIsForwardedToThePackageDriver) {
    // A stand-in for the temperature module's driver, reading the MSRs the way it does.
    quarn::installPackageTemperatureDriver(
        [](const std::string& name, int op, bool set, std::string* value) -> ErrorMsg* {
            ProcessorDDAPI cpu("CPU driver");
            std::list<uint64_t> target, status;
            if (ErrorMsg* e = cpu.ReadCPURegister(name, msr::kTemperatureTarget, 1, &target)) return e;
            if (ErrorMsg* e = cpu.ReadCPURegister(name, msr::kPackageThermStatus, 1, &status)) return e;
            if (set || op != 0) return cpu.returnErrorMsg(0xCF041800, "stand-in reads only", nullptr);
            *value = std::to_string(((target.front() >> 16) & 0xFF) - ((status.front() >> 16) & 0x7F));
            return nullptr;
        });
    board.processors->package(0)->setTemperature(55);
    ProcessorDAPI cpu("CPU");
    std::string out;
    ASSERT_EQ(cpu.GetInformation("processor0", 9, &out), nullptr);
    EXPECT_EQ(out, "Temperature: 55");
    ProcessorDDAPI dev("CPU");
    EXPECT_EQ(render(dev.getTemperatureDataByID("processor0", 1, &out)),
              "I2CDAPI::MUX_Test -> I2CDAPI::MUX_Test: \"stand-in reads only\"");
    EXPECT_EQ(render(dev.setTemperatureDataByID("processor0", 1, "90")),
              "I2CDAPI::MUX_Test -> I2CDAPI::MUX_Test: \"stand-in reads only\"");
}

TEST_F(ProcessorTest, TemperatureRefusedForOtherProcessors) {
    board.processors->model = 0x55;
    board.processors->install(board);
    ProcessorDDAPI dev("CPU");
    std::string out;
    EXPECT_EQ(render(dev.getTemperatureDataByID("processor0", 0, &out)),
              "I2CDAPI::MUX_Test: \"Not support CPU temperature\"");
    // Model 0x4F (Broadwell-EP) reads but cannot be set.
    board.processors->model = 0x4F;
    board.processors->install(board);
    EXPECT_EQ(render(dev.getTemperatureDataByID("processor0", 0, &out)),
              "I2CDAPI::MUX_Test: \"Broadwell-DE temp driver not available\"");
    EXPECT_EQ(render(dev.setTemperatureDataByID("processor0", 1, "90")),
              "I2CDAPI::MUX_Test: \"Not support CPU temperature\"");
    EXPECT_EQ(render(dev.getTemperatureDataByID("processor7", 0, &out)),
              "I2CDAPI::MUX_Test: \"Not support CPU temperature\" -> "
              "ProcessorDAPI::GetInformation: \"CPU ID not founded\"");
}

TEST(ProcessorTrim, TrimsEveryOccurrenceInPlace) {
    char text[] = "xxabcxx";
    ProcessorDDAPI::RTrim(text, 'x');
    EXPECT_STREQ(text, "xxabc");
    ProcessorDDAPI::LTrim(text, 'x');
    EXPECT_STREQ(text, "abc");
    char all[] = "xxx";
    ProcessorDDAPI::LTrim(all, 'x');
    EXPECT_STREQ(all, "");
}

}  // namespace
