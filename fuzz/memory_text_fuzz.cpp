// Fuzz target of the memory layer's readers of kernel and board text files: the input is
// cut into pieces at a marker line, each piece becomes one file (kernel command line,
// firmware memory map, EDAC counters and layout, the testable-memory and layout files,
// memory.conf, mc_info, cpuinfo), and the layer's queries read them.
#include <cstddef>
#include <cstdint>
#include <list>
#include <string>

#include "api/ErrorText.h"
#include "api/platform/Files.h"
#include "api/platform/Platform.h"
#include "dapi/memory/MemoryDAPI.h"
#include "ddapi/memory/MemoryDDAPI.h"
#include "fuzz/FuzzSupport.h"
#include "vboard/VirtualBoard.h"

namespace {

using quarn::fuzz::drop;

const char kMarker[] = "\n#--file--\n";
// A piece that is exactly this leaves its file absent, so the paths that create or
// skip a missing file run too.
const char kAbsent[] = "-";

const char* const kFiles[] = {
    "/proc/cmdline",
    "/sys/firmware/memmap/0/start",
    "/sys/firmware/memmap/0/end",
    "/sys/firmware/memmap/0/type",
    "/sys/firmware/memmap/1/start",
    "/sys/firmware/memmap/1/end",
    "/sys/firmware/memmap/1/type",
    "/tmp/veltrax/ktd/mem/testable",
    "/tmp/veltrax/ktd/mem/layout",
    "/sys/devices/system/edac/mc/mc0/layout",
    "/sys/devices/system/edac/mc/mc0/ce_count",
    "/sys/devices/system/edac/mc/mc0/csrow0/ch0_ce_count",
    "/sys/devices/system/edac/mc/mc0/csrow0/ch0_dimm_label",
    "/etc/quarn/memory.conf",
    "/opt/veltrax/quarn/etc/mc_info",
    "/proc/cpuinfo",
};

quarn::vboard::VirtualBoard& board() { return quarn::fuzz::board(); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    quarn::vboard::VirtualBoard& b = board();
    const std::string input(reinterpret_cast<const char*>(data), size);
    size_t at = 0;
    for (const char* path : kFiles) {
        size_t next = at <= input.size() ? input.find(kMarker, at) : std::string::npos;
        const std::string piece =
            at <= input.size() ? input.substr(at, next == std::string::npos ? std::string::npos : next - at)
                               : std::string(kAbsent);
        at = next == std::string::npos ? input.size() + 1 : next + sizeof(kMarker) - 1;
        quarn::removePath(path);
        if (piece != kAbsent) b.writeFile(path, piece);
    }

    MemoryDAPI memory("fuzz");
    drop(memory.getErrorMsg());
    std::list<MemoryRange> ranges;
    drop(memory.getTestableMemory(&ranges, 0, ~0ULL));
    drop(memory.getTestableMemory(&ranges, 1ULL << 32, 1ULL << 36));
    drop(memory.getRankRange(&ranges));
    std::list<DIMMInformation> dimms;
    drop(memory.getInformation(&dimms));

    MemoryDDAPI device("fuzz");
    MemoryRange high;
    drop(device.getX86HighRamRange(&high));
    std::list<ECCInformation> report;
    drop(device.getECCReport(&report));
    int count = 0;
    drop(device.getControllerChannelCount(&count));
    drop(device.getControllerSlotCount(&count));
    unsigned long long physical = 0;
    drop(device.getPhysicalAddress(0x1000, 0, 0, 0, &physical));
    drop(device.getErrorMsg());
    return 0;
}
