// The board's memory and its memory controller as the EDAC driver shows it.
#include "vboard/models/memory/MemoryController.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "vboard/VirtualBoard.h"
#include "vboard/AttributeModel.h"

namespace quarn::vboard {

namespace {
constexpr uint64_t k4G = 1ULL << 32;
constexpr uint64_t kLine = 64;
const char kMc0[] = "/sys/devices/system/edac/mc/mc0/";

std::string hex(uint64_t v) {
    char buf[24];
    snprintf(buf, sizeof(buf), "0x%" PRIx64, v);
    return buf;
}
}  // namespace

MemoryController::MemoryController(uint64_t dimmBytes, uint64_t lowTop)
    : m_dimmBytes(dimmBytes), m_lowTop(lowTop), m_memory(std::make_shared<PhysicalMemory>()) {
    m_memory->addRam(0, m_lowTop - 1);
    m_memory->addRam(k4G, highEnd());
}

uint64_t MemoryController::highEnd() const { return k4G + (totalBytes() - m_lowTop) - 1; }

bool MemoryController::physicalToRank(uint64_t physical, int* channel, int* slot, int* rank,
                                      uint64_t* rankAddress) const {
    uint64_t system;
    if (physical < m_lowTop)
        system = physical;
    else if (physical >= k4G && physical <= highEnd())
        system = physical - (k4G - m_lowTop);
    else
        return false;
    const uint64_t line = system / kLine;
    *channel = static_cast<int>(line % kChannels);
    const uint64_t channelAddress = (line / kChannels) * kLine + system % kLine;
    const uint64_t rankBytes = m_dimmBytes / kRanks;
    *slot = static_cast<int>(channelAddress / m_dimmBytes);
    *rank = static_cast<int>((channelAddress % m_dimmBytes) / rankBytes);
    *rankAddress = channelAddress % rankBytes;
    return true;
}

bool MemoryController::rankToPhysical(uint64_t rankAddress, int channel, int slot, int rank,
                                      uint64_t* physical) const {
    const uint64_t rankBytes = m_dimmBytes / kRanks;
    if (channel < 0 || channel >= kChannels || slot < 0 || slot >= kSlots || rank < 0 ||
        rank >= kRanks || rankAddress >= rankBytes)
        return false;
    const uint64_t channelAddress = slot * m_dimmBytes + rank * rankBytes + rankAddress;
    const uint64_t system =
        ((channelAddress / kLine) * kChannels + channel) * kLine + channelAddress % kLine;
    *physical = system < m_lowTop ? system : system + (k4G - m_lowTop);
    return true;
}

// Two ranges (below the PCI hole and above 4 GiB), each followed by its interleave:
// the channels, the slots of each channel, the ranks of each slot.
std::string MemoryController::layoutText() const {
    std::string out;
    const uint64_t ranges[2][2] = {{0, m_lowTop - 1}, {k4G, highEnd()}};
    for (int r = 0; r < 2; ++r) {
        out += "range" + std::to_string(r) + ": " + hex(ranges[r][0]) + "-" + hex(ranges[r][1]) + "\n";
        out += "channel: 0,1\n";
        for (int c = 0; c < kChannels; ++c) out += "ch" + std::to_string(c) + "_slot: 0,1\n";
        for (int c = 0; c < kChannels; ++c)
            for (int s = 0; s < kSlots; ++s)
                out += "ch" + std::to_string(c) + "_slot" + std::to_string(s) + "_rank: 0,1\n";
    }
    return out;
}

void MemoryController::install(VirtualBoard& board, const std::string& memLimit) {
    board.addDevice("/dev/mem", m_memory);
    m_memory->setMapCost(&board.clock(), 20000);  // 20 us a page: write and read it uncached

    // The firmware memory map as the kernel publishes it.
    struct Entry {
        uint64_t start, end;
        const char* type;
    } entries[] = {{0, 0x9FBFF, "System RAM"},
                   {0x9FC00, 0x9FFFF, "Reserved"},
                   {0x100000, m_lowTop - 1, "System RAM"},
                   {0xFED00000, 0xFED03FFF, "Reserved"},
                   {k4G, highEnd(), "System RAM"}};
    int n = 0;
    for (const Entry& e : entries) {
        const std::string dir = "/sys/firmware/memmap/" + std::to_string(n++) + "/";
        board.writeFile(dir + "start", hex(e.start) + "\n");
        board.writeFile(dir + "end", hex(e.end) + "\n");
        board.writeFile(dir + "type", std::string(e.type) + "\n");
    }

    board.writeFile("/etc/quarn/memory.conf",
                    "# memory controller of the board\nCHANNEL_NUM = 2\nCHANNEL_SLOT_NUM = 2\n");
    board.writeFile("/proc/cmdline", "BOOT_IMAGE=/vmlinuz-4.19.0-veltrax-amd64 root=/dev/sda2 ro "
                                     "console=ttyS0,115200 mem=" + memLimit + " iomem=relaxed\n");

    auto readOnly = [&](const std::string& path, AttributeModel::Show show) {
        board.addDevice(path, std::make_shared<AttributeModel>(std::move(show), nullptr));
    };
    readOnly(std::string(kMc0) + "ce_count", [this] {
        int total = 0;
        for (auto& ch : m_ce)
            for (int v : ch) total += v;
        return std::to_string(total) + "\n";
    });
    readOnly(std::string(kMc0) + "mc_name", [] { return std::string("Broadwell-DE SrcID#0_Ha#0\n"); });
    for (int s = 0; s < kSlots; ++s)
        for (int c = 0; c < kChannels; ++c)
            readOnly(std::string(kMc0) + "csrow" + std::to_string(s) + "/ch" + std::to_string(c) +
                         "_ce_count",
                     [this, c, s] { return std::to_string(m_ce[c][s]) + "\n"; });
    board.addDevice(std::string(kMc0) + "reset_counters",
                    std::make_shared<AttributeModel>(nullptr, [this](const std::string&) {
                        m_ce = {};
                        return 0;
                    }));
    readOnly(std::string(kMc0) + "layout", [this] { return layoutText(); });

    // Translation: a request is written, the answer read back from the same file.
    board.addDevice(std::string(kMc0) + "rank_to_addr",
                    std::make_shared<AttributeModel>(
                        [this] {
                            unsigned long long ra = 0;
                            int c = -1, s = -1, r = -1;
                            uint64_t phys = 0;
                            if (sscanf(m_rankRequest.c_str(), "%llx %d %d %d", &ra, &c, &s, &r) != 4 ||
                                !rankToPhysical(ra, c, s, r, &phys))
                                phys = ~0ULL;
                            return hex(phys) + "\n";
                        },
                        [this](const std::string& text) {
                            m_rankRequest = text;
                            return 0;
                        }));
    board.addDevice(std::string(kMc0) + "addr_to_rank",
                    std::make_shared<AttributeModel>(
                        [this] {
                            unsigned long long phys = 0;
                            int c, s, r;
                            uint64_t ra = 0;
                            if (sscanf(m_addrRequest.c_str(), "%llx", &phys) != 1 ||
                                !physicalToRank(phys, &c, &s, &r, &ra))
                                ra = ~0ULL;
                            return hex(ra) + "\n";
                        },
                        [this](const std::string& text) {
                            m_addrRequest = text;
                            return 0;
                        }));

    // Injection: "ADDRESS SYNDROME BIT" marks one corrected error on the DIMM holding
    // ADDRESS. The status file tells how the last request went.
    board.addDevice(std::string(kMc0) + "inject_error",
                    std::make_shared<AttributeModel>(nullptr, [this](const std::string& text) {
                        unsigned long long address = 0, syndrome = 0;
                        int bit = -1;
                        int c, s, r;
                        uint64_t ra;
                        if (m_locked) {
                            m_injectStatus = 1;
                        } else if (sscanf(text.c_str(), "%llx %llx %d", &address, &syndrome, &bit) != 3 ||
                                   bit < 0 || bit > 63) {
                            return EINVAL;
                        } else if (!physicalToRank(address, &c, &s, &r, &ra)) {
                            m_injectStatus = 2;
                        } else {
                            m_ce[c][s] += 1;
                            m_injectStatus = 0;
                        }
                        return 0;
                    }));
    readOnly(std::string(kMc0) + "inject_status",
             [this] { return std::to_string(m_injectStatus) + "\n"; });
}

}  // namespace quarn::vboard
