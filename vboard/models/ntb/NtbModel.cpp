// The non-transparent bridge between two boards.
#include "vboard/models/ntb/NtbModel.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "vboard/VirtualBoard.h"

namespace quarn::vboard {

namespace {
constexpr uint64_t kLowMask = NtbLink::kMapUnit - 1;
constexpr uint64_t kPage = 4096;
// Regions of the link memory: 0 and 1 hold what side 0 and side 1 posted to their
// write windows, 2 and 3 the read windows of side 0 and side 1 (the peer's memory).
constexpr int kPosted = 0, kPeerMemory = 2;

class NtbDriverHandle : public FileHandle {
public:
    NtbDriverHandle(std::shared_ptr<NtbLink> link, int side) : m_link(std::move(link)), m_side(side) {}
    void* mmap(size_t length, int, int flags, off_t offset) override {
        if (!(flags & MAP_SHARED)) return failMap(EINVAL);
        uint8_t* p = m_link->unit(m_side, static_cast<uint64_t>(offset), length);
        return p ? p : failMap(EINVAL);
    }
    int munmap(void* addr, size_t) override {
        // Unmapping the write window flushes the posted writes over the link.
        if (addr == m_link->unit(m_side, m_link->writeAddress() & ~kLowMask, 1)) m_link->deliver(m_side);
        return 0;
    }

private:
    static void* failMap(int err) {
        errno = err;
        return MAP_FAILED;
    }
    std::shared_ptr<NtbLink> m_link;
    int m_side;
};
}  // namespace

NtbLink::NtbLink(uint64_t windowSize, uint64_t writeAddress, uint64_t readAddress)
    : m_window(windowSize), m_writeAddress(writeAddress), m_readAddress(readAddress) {
    const uint64_t low = std::max(writeAddress & kLowMask, readAddress & kLowMask);
    m_span = (low + windowSize + kPage - 1) & ~(kPage - 1);
    void* p = ::mmap(nullptr, 4 * m_span, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) throw std::runtime_error("cannot map the NT link memory");
    m_base = static_cast<uint8_t*>(p);
}

NtbLink::~NtbLink() { ::munmap(m_base, 4 * m_span); }

uint8_t* NtbLink::writeWindow(int side) { return region(kPosted + side) + (m_writeAddress & kLowMask); }
uint8_t* NtbLink::readWindow(int side) { return region(kPeerMemory + side) + (m_readAddress & kLowMask); }

uint8_t* NtbLink::unit(int side, uint64_t offset, uint64_t length) {
    if (side < 0 || side > 1 || length > m_span) return nullptr;
    if (offset == (m_writeAddress & ~kLowMask)) return region(kPosted + side);
    if (offset == (m_readAddress & ~kLowMask)) return region(kPeerMemory + side);
    return nullptr;
}

void NtbLink::deliver(int side) {
    const uint8_t* from = writeWindow(side);
    uint8_t* to = readWindow(1 - side);
    const long long drop = m_drop[side];
    if (drop < 0 || static_cast<uint64_t>(drop) * 8 + 8 > m_window) {
        memcpy(to, from, m_window);
        return;
    }
    const uint64_t at = static_cast<uint64_t>(drop) * 8;
    memcpy(to, from, at);
    memcpy(to + at + 8, from + at + 8, m_window - at - 8);
}

std::unique_ptr<FileHandle> NtbDriverNode::open(int flags) {
    if ((flags & O_ACCMODE) != O_RDWR) {
        errno = EACCES;
        return nullptr;
    }
    return std::make_unique<NtbDriverHandle>(m_link, m_side);
}

void writeNtbInfo(VirtualBoard& board, uint64_t writeAddress, uint64_t readAddress, uint64_t windowSize,
                  uint64_t remoteSize) {
    char text[256];
    snprintf(text, sizeof(text),
             "ntbWriteWindow=%llx\nntbReadWindow=%llx\nntbWindowSize=%llu\nntbRemoteBuffSize=%llu\n",
             static_cast<unsigned long long>(writeAddress), static_cast<unsigned long long>(readAddress),
             static_cast<unsigned long long>(windowSize), static_cast<unsigned long long>(remoteSize));
    const std::string path = board.hostPath("/tmp/ntbInfo");
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    // A fresh file renamed over the name: a link planted at the name is replaced.
    const std::string temp = path + ".setup";
    ::unlink(temp.c_str());
    const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0) throw std::runtime_error("cannot write the NTB window file");
    const size_t n = strlen(text);
    const bool ok = ::write(fd, text, n) == static_cast<ssize_t>(n);
    ::close(fd);
    if (!ok || ::rename(temp.c_str(), path.c_str()) != 0) throw std::runtime_error("cannot write the NTB window file");
}

std::shared_ptr<NtbLink> connectNtb(VirtualBoard& a, VirtualBoard& b, uint64_t windowSize) {
    // The setup places the write window in the NT port's BAR2 range and the read window
    // in reserved host memory, 4 KB into its 1 MB unit.
    constexpr uint64_t kWrite = 0x3C0000000ull;
    constexpr uint64_t kRead = 0x2F0001000ull;
    auto link = std::make_shared<NtbLink>(windowSize, kWrite, kRead);
    VirtualBoard* sides[2] = {&a, &b};
    for (int side = 0; side < 2; ++side) {
        VirtualBoard& board = *sides[side];
        board.addDevice("/dev/plx/Plx8000_NT-0", std::make_shared<NtbDriverNode>(link, side));
        writeNtbInfo(board, kWrite, kRead, windowSize, windowSize);
        std::weak_ptr<NtbLink> weak = link;
        board.setSleepHook([weak, side](uint64_t microseconds) {
            std::shared_ptr<NtbLink> l = weak.lock();
            if (!l || microseconds < 1000) return;
            l->deliver(side);
            // The peer runs in real time: a long wait here gives it real time to answer.
            const uint64_t real = std::min<uint64_t>(microseconds / 50, 50000);
            std::this_thread::sleep_for(std::chrono::microseconds(real));
        });
    }
    return link;
}

}  // namespace quarn::vboard
