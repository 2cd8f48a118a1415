// The non-transparent bridge between two boards: each side's write window is carried
// over the link into the other side's read window. Both sides reach their windows by
// mapping the PLX NT driver's node; the platform's NTB setup describes them in
// /tmp/ntbInfo. The link memory is one shared mapping, so the two sides may be two
// threads or two processes (it survives fork).
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "vboard/DeviceModel.h"

namespace quarn::vboard {

class VirtualBoard;

class NtbLink {
public:
    static constexpr uint64_t kMapUnit = 1ull << 20;  // the driver maps 1 MB units

    // Window addresses as each side's setup assigns them (low 20 bits are the offset
    // of the window inside its 1 MB unit).
    NtbLink(uint64_t windowSize, uint64_t writeAddress, uint64_t readAddress);
    ~NtbLink();
    NtbLink(const NtbLink&) = delete;
    NtbLink& operator=(const NtbLink&) = delete;

    uint64_t windowSize() const { return m_window; }
    uint64_t writeAddress() const { return m_writeAddress; }
    uint64_t readAddress() const { return m_readAddress; }

    // Posted writes of side (0 or 1) travel the link: what the side wrote into its write
    // window reaches the peer's read window. Runs on the writing side's own thread.
    void deliver(int side);
    // The memory behind a mapping of side's driver node at offset, or null.
    uint8_t* unit(int side, uint64_t offset, uint64_t length);
    // Peer memory of side (its read window), for checks.
    uint8_t* readWindow(int side);
    uint8_t* writeWindow(int side);

    // Fault: the link drops the 64-bit word at this index of side's writes (-1 heals).
    void dropWord(int side, long long index) { m_drop[side] = index; }

private:
    uint8_t* region(int which) const { return m_base + which * m_span; }
    uint64_t m_window, m_writeAddress, m_readAddress;
    uint64_t m_span = 0;  // bytes of one mapped unit range
    uint8_t* m_base = nullptr;
    long long m_drop[2] = {-1, -1};
};

// /dev/plx/Plx8000_NT-0 of one side: mmap of the write or read window unit.
class NtbDriverNode : public DeviceModel {
public:
    NtbDriverNode(std::shared_ptr<NtbLink> link, int side) : m_link(std::move(link)), m_side(side) {}
    std::unique_ptr<FileHandle> open(int flags) override;

private:
    std::shared_ptr<NtbLink> m_link;
    int m_side;
};

// Joins two boards by their NT ports: the driver node on both, /tmp/ntbInfo written as
// the platform's NTB setup writes it (never through a link planted there), and the
// sleep hooks that carry posted writes and pace the peer in real time.
std::shared_ptr<NtbLink> connectNtb(VirtualBoard& a, VirtualBoard& b, uint64_t windowSize = 1u << 20);
// The setup's window file: replaces whatever is at path (a symbolic link included).
void writeNtbInfo(VirtualBoard& board, uint64_t writeAddress, uint64_t readAddress, uint64_t windowSize,
                  uint64_t remoteSize);

}  // namespace quarn::vboard
