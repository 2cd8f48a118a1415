// The nvSRAM model.
#include "vboard/models/nvsram/NvsramModel.h"

#include <algorithm>

namespace quarn::vboard {

namespace {
// The chip's software sequences: five common reads, then 0x8FC0 (STORE) or 0x4C63 (RECALL).
constexpr uint32_t kPrefix[] = {0x4E38, 0xB1C7, 0x83E0, 0x7C1F, 0x703F};
constexpr uint32_t kStore = 0x8FC0;
constexpr uint32_t kRecall = 0x4C63;
constexpr int kPrefixLength = 5;
}  // namespace

void NvsramModel::track(uint32_t offset) {
    if (m_matched < kPrefixLength) {
        if (offset == kPrefix[m_matched]) ++m_matched;
        else m_matched = offset == kPrefix[0] ? 1 : 0;
        return;
    }
    m_matched = 0;
    if (offset == kStore) {
        ++m_stores;
        if (!storeIgnored) m_nv = m_sram;
        if (m_clock) m_clock->advanceNs(8000000);  // tSTORE: the SRAM is busy meanwhile
    } else if (offset == kRecall) {
        ++m_recalls;
        m_sram = m_nv;
        if (m_clock) m_clock->advanceNs(20000);  // tRECALL
    } else if (offset == kPrefix[0]) {
        m_matched = 1;
    }
}

uint64_t NvsramModel::read(uint32_t offset, int width) {
    std::lock_guard<std::mutex> lock(m_mutex);
    uint64_t v = 0;
    for (int i = 0; i < width; ++i) v |= static_cast<uint64_t>(m_sram[(offset + i) % kSize]) << (8 * i);
    for (const Stuck& s : m_stuck) {
        if (s.offset < offset || s.offset >= offset + static_cast<uint32_t>(width)) continue;
        const uint64_t bit = 1ull << (8 * (s.offset - offset) + s.bit);
        v = s.value ? (v | bit) : (v & ~bit);
    }
    // Only single-byte reads take part in a sequence; a wider read aborts it.
    if (width == 1) track(offset % kSize);
    else m_matched = 0;
    return v;
}

void NvsramModel::write(uint32_t offset, uint64_t value, int width) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_matched = 0;
    for (int i = 0; i < width; ++i) m_sram[(offset + i) % kSize] = static_cast<uint8_t>(value >> (8 * i));
}

void NvsramModel::powerCycle() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_matched = 0;
    m_sram = m_nv;
    ++m_recalls;
}

}  // namespace quarn::vboard

#include "vboard/VirtualBoard.h"
#include "vboard/models/memory/PhysicalMemory.h"
#include "vboard/models/pci/PciModels.h"

namespace quarn::vboard {

namespace {
constexpr uint32_t kControlBar = 0xFB120000;  // BAR 0: the bridge's own registers (unused)
constexpr uint32_t kSramBar = 0xFB100000;     // BAR 1: the SRAM
}  // namespace

std::shared_ptr<NvsramModel> installNvsram(VirtualBoard& board, PciBoard& pci, PhysicalMemory& memory) {
    auto model = std::make_shared<NvsramModel>(&board.clock());
    auto f = std::make_shared<PciFunction>(0x1D5A, 0x7110, 0x088000, 1, 0x00, 4096);
    f->addCapability(0x01, 8);
    f->addPcieCapability(9, 0, 1, 1, 1, 1);  // root-complex integrated endpoint
    f->setBar(0, kControlBar, 0x1000, 0);
    f->setBar(1, kSramBar, NvsramModel::kSize, 0);
    pci.add("0000:00:04.0", f);
    memory.addRegisterWindow(
        kSramBar, NvsramModel::kSize,
        [model](uint64_t offset, int width) { return model->read(static_cast<uint32_t>(offset), width); },
        [model](uint64_t offset, uint64_t value, int width) { model->write(static_cast<uint32_t>(offset), value, width); });
    return model;
}

}  // namespace quarn::vboard
