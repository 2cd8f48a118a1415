// The physical-memory model behind /dev/mem: mappings against the model's own view, windows
// of other models, and the memory faults a memory test must be able to see.
#include <gtest/gtest.h>

#include <atomic>

#include <fcntl.h>
#include <sys/mman.h>

#include <memory>
#include <stdexcept>
#include <vector>

#include "api/platform/Platform.h"
#include "vboard/VirtualBoard.h"
#include "vboard/models/memory/PhysicalMemory.h"

namespace {

using quarn::vboard::PhysicalMemory;
using quarn::vboard::VirtualBoard;

constexpr uint64_t kPage = 4096;
constexpr uint64_t kLowEnd = 0x3FFFF;     // 256 KB at 0
constexpr uint64_t kHigh = 0x100000;      // 64 KB at 1 MB
constexpr uint64_t kWindow = 0x80000;     // a plain register window, 8 KB
constexpr uint64_t kRegisters = 0x90000;  // a window with register semantics, one page

class PhysicalMemoryTest : public ::testing::Test {
protected:
    void SetUp() override {
        memory = std::make_shared<PhysicalMemory>();
        memory->addRam(0, kLowEnd);
        memory->addRam(kHigh, kHigh + 0xFFFF);
        backing.assign(2 * kPage, 0);
        memory->addWindow(kWindow, 2 * kPage, backing.data());
        memory->addRegisterWindow(
            kRegisters, kPage,
            [this](uint64_t offset, int width) -> uint64_t {
                reads.push_back({offset, 0, width});
                return 0x1122334455667788ull + offset;
            },
            [this](uint64_t offset, uint64_t value, int width) { writes.push_back({offset, value, width}); });
        board.addDevice("/dev/mem", memory);
        quarn::installPlatform(&board);
        fd = board.open("/dev/mem", O_RDWR);
        ASSERT_GE(fd, 0);
    }
    void TearDown() override {
        for (auto& [addr, length] : maps) board.munmap(addr, length);
        board.close(fd);
        quarn::installPlatform(nullptr);
    }
    uint8_t* map(uint64_t physical, size_t length) {
        void* p = board.mmap(length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, static_cast<off_t>(physical));
        if (p == MAP_FAILED) return nullptr;
        maps.emplace_back(p, length);
        return static_cast<uint8_t*>(p);
    }

    struct Access {
        uint64_t offset, value;
        int width;
    };
    VirtualBoard board;
    std::shared_ptr<PhysicalMemory> memory;
    std::vector<uint8_t> backing;
    std::vector<Access> reads, writes;
    std::vector<std::pair<void*, size_t>> maps;
    int fd = -1;
};

TEST_F(PhysicalMemoryTest, MappingsAndTheModelsViewAreTheSameCells) {
    uint8_t* low = map(0x2000, 2 * kPage);
    ASSERT_NE(low, nullptr);
    low[0] = 0x5A;
    EXPECT_EQ(*memory->view(0x2000), 0x5A);
    *memory->view(0x3FFF) = 0x77;
    EXPECT_EQ(low[0x1FFF], 0x77);

    // The second range is its own memory, not an alias of the first.
    uint8_t* high = map(kHigh, kPage);
    ASSERT_NE(high, nullptr);
    high[0] = 0xC3;
    EXPECT_EQ(*memory->view(kHigh), 0xC3);
    EXPECT_EQ(*memory->view(0), 0x00);

    // pread goes to the same cells, and only within RAM.
    uint8_t buf[4] = {0};
    EXPECT_EQ(board.pread(fd, buf, 1, 0x2000), 1);
    EXPECT_EQ(buf[0], 0x5A);
    EXPECT_EQ(board.pread(fd, buf, 4, kHigh), 4);
    EXPECT_EQ(buf[0], 0xC3);
    EXPECT_EQ(board.pread(fd, buf, 4, kLowEnd - 1), -1);  // runs past the end of the range
    EXPECT_EQ(errno, EFAULT);
    EXPECT_EQ(board.pread(fd, buf, 4, 0x50000), -1);  // the hole
    EXPECT_EQ(errno, EFAULT);
    EXPECT_TRUE(memory->isRam(0, kLowEnd + 1));
    EXPECT_FALSE(memory->isRam(0, kLowEnd + 2));
    EXPECT_EQ(memory->view(0x50000), nullptr);

    // Nothing decodes the hole: a mapping of it reads all ones and drops writes.
    uint8_t* hole = map(0x50000, kPage);
    ASSERT_NE(hole, nullptr);
    EXPECT_EQ(hole[0], 0xFF);
    EXPECT_EQ(hole[kPage - 1], 0xFF);

    // A read-only mapping, as a reader of physical memory makes, floats high too.
    void* ro = board.mmap(kPage, PROT_READ, MAP_SHARED, fd, 0x51000);
    ASSERT_NE(ro, MAP_FAILED);
    maps.emplace_back(ro, kPage);
    EXPECT_EQ(static_cast<const volatile uint8_t*>(ro)[0], 0xFF);

    // Offsets are page aligned; an empty mapping is refused.
    EXPECT_EQ(map(0x2001, kPage), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(map(0x2000, 0), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(memory->mapCount(), 4u);  // only the mappings that succeeded
}

// The register callbacks run in the trap handler, behind the compiler's back: a signal
// fence before each look keeps it from reusing what it read before the access.
template <typename T>
const T& seen(const T& v) {
    std::atomic_signal_fence(std::memory_order_seq_cst);
    return v;
}

TEST_F(PhysicalMemoryTest, WindowsReachTheirModels) {
    uint8_t* plain = map(kWindow + kPage, kPage);
    ASSERT_NE(plain, nullptr);
    EXPECT_EQ(plain, backing.data() + kPage);
    plain[8] = 0x42;
    EXPECT_EQ(backing[kPage + 8], 0x42);

    auto* regs = reinterpret_cast<volatile uint32_t*>(map(kRegisters, kPage));
    ASSERT_NE(regs, nullptr);
    const uint32_t value = regs[4];  // offset 0x10
    ASSERT_EQ(seen(reads).size(), 1u);
    EXPECT_EQ(seen(reads)[0].offset, 0x10u);
    EXPECT_EQ(seen(reads)[0].width, 4);
    EXPECT_EQ(value, static_cast<uint32_t>(0x1122334455667788ull + 0x10));
    regs[2] = 0xDEADBEEF;  // offset 8
    ASSERT_EQ(seen(writes).size(), 1u);
    EXPECT_EQ(seen(writes)[0].offset, 8u);
    EXPECT_EQ(seen(writes)[0].value, 0xDEADBEEFu);
    EXPECT_EQ(seen(writes)[0].width, 4);
    EXPECT_TRUE(seen(reads).size() == 1u);  // a store does not fetch the register first

    // Each access reaches the model with the width of the instruction.
    const uint16_t half = reinterpret_cast<volatile uint16_t*>(regs)[3];  // offset 6
    ASSERT_EQ(seen(reads).size(), 2u);
    EXPECT_EQ(seen(reads)[1].offset, 6u);
    EXPECT_EQ(seen(reads)[1].width, 2);
    EXPECT_EQ(half, static_cast<uint16_t>(0x1122334455667788ull + 6));
    reinterpret_cast<volatile uint8_t*>(regs)[0x21] = 0x5C;
    ASSERT_EQ(seen(writes).size(), 2u);
    EXPECT_EQ(seen(writes)[1].offset, 0x21u);
    EXPECT_EQ(seen(writes)[1].value, 0x5Cu);
    EXPECT_EQ(seen(writes)[1].width, 1);
    // Every read is a new access: nothing is cached in the mapping.
    const uint32_t again = regs[4];
    EXPECT_EQ(again, value);
    EXPECT_EQ(seen(reads).size(), 3u);

    // A mapping that runs off the end of a register window is refused.
    EXPECT_EQ(map(kRegisters, 2 * kPage), nullptr);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(PhysicalMemoryTest, AFailingPageRefusesMappingsThatCoverIt) {
    memory->failPage(0x5123);  // the whole page 0x5000
    EXPECT_EQ(map(0x4000, 2 * kPage), nullptr);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(map(0x5000, kPage), nullptr);
    EXPECT_EQ(errno, EIO);
    EXPECT_NE(map(0x4000, kPage), nullptr);
    EXPECT_NE(map(0x6000, kPage), nullptr);
    EXPECT_EQ(memory->mapCount(), 2u);
    memory->clearFaults();
    EXPECT_NE(map(0x5000, kPage), nullptr);
    EXPECT_EQ(memory->mapCount(), 3u);
}

TEST_F(PhysicalMemoryTest, ShortedAddressLinesAliasExactlyThePagesWithOneLineHigh) {
    // Mark every page of the first 32 KB through the model's view.
    for (uint64_t page = 0; page < 8; ++page) *memory->view(page * kPage) = static_cast<uint8_t>(0xA0 + page);
    memory->shortAddressLines(13, 14);  // both read as A13 AND A14
    uint8_t* m = map(0, 8 * kPage);
    ASSERT_NE(m, nullptr);
    // Page n lands on page n with bits 1 and 2 both kept or both cleared.
    const uint64_t expected[8] = {0, 1, 0, 1, 0, 1, 6, 7};
    for (uint64_t page = 0; page < 8; ++page)
        EXPECT_EQ(m[page * kPage], 0xA0 + expected[page]) << "page " << page;

    // A write through an aliased page lands on the page it aliases, byte for byte.
    m[2 * kPage + 17] = 0x99;
    EXPECT_EQ(*memory->view(17), 0x99);
    EXPECT_EQ(*memory->view(2 * kPage + 17), 0x00);
    EXPECT_EQ(m[4 * kPage + 17], 0x99);  // and is seen through the other alias
    m[6 * kPage + 17] = 0x66;            // both lines high: no alias
    EXPECT_EQ(*memory->view(6 * kPage + 17), 0x66);
    EXPECT_EQ(*memory->view(17), 0x99);

    // A single-page mapping of an aliased page aliases the same way.
    uint8_t* one = map(4 * kPage, kPage);
    ASSERT_NE(one, nullptr);
    EXPECT_EQ(one[17], 0x99);

    // Lines below the page size are not address lines of a page mapping.
    EXPECT_THROW(memory->shortAddressLines(11, 14), std::invalid_argument);
    memory->clearFaults();
    uint8_t* clean = map(2 * kPage, kPage);
    ASSERT_NE(clean, nullptr);
    EXPECT_EQ(clean[0], 0xA2);
}

TEST_F(PhysicalMemoryTest, BitFaultsApplyToEveryAccessOfTheMapping) {
    memory->addStuckBit(0x7000, 3, 1);
    memory->addStuckBit(0x7001, 0, 0);
    EXPECT_EQ(*memory->view(0x7000), 0x08);  // the cell shows it at once
    auto* m = reinterpret_cast<volatile uint8_t*>(map(0x7000, kPage));
    ASSERT_NE(m, nullptr);
    m[0] = 0x00;
    EXPECT_EQ(m[0], 0x08);
    m[1] = 0xFF;
    EXPECT_EQ(m[1], 0xFE);
    m[2] = 0xFF;  // the neighbours are sound
    EXPECT_EQ(m[2], 0xFF);

    // Coupling: a write to the aggressor's word forces the victim bit.
    memory->addCoupling(0x7100, 0x7203, 5, 1);
    EXPECT_EQ(m[0x203], 0x00);
    m[0x104] = 0x01;  // same 8-byte word as the aggressor
    EXPECT_EQ(m[0x203], 0x20);
    EXPECT_EQ(*memory->view(0x7203), 0x20);
}

}  // namespace
