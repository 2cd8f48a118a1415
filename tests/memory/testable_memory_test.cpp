// Testable memory above the kernel's "mem=" limit, and the placement of a rank map
// onto the physical address space.
#include <gtest/gtest.h>

#include <string>

#include "api/ErrorText.h"
#include "api/platform/Files.h"
#include "api/platform/Platform.h"
#include "dapi/memory/MemoryDAPI.h"
#include "vboard/VirtualBoard.h"
#include "tests/lib/Render.h"

namespace {

using quarn::test::render;
class TestableMemory : public ::testing::Test {
protected:
    void SetUp() override {
        quarn::installPlatform(&board);
        board.writeFile("/tmp/veltrax/ktd/mem/layout",
                        "low: 0x0-0x7fffffff\nchannel: 0,1\nch0: 0,1\nch1: 0\nr0: 0,1\nr1: 2\nr2: 3\n"
                        "mid: 0x100000000-0x1ffffffff\nchannel: 0\nch0: 0\nr0: 1\n"
                        "high: 0x100000000-0x27fffffff\nchannel: 0,1\nch0: 0\nch1: 1\nr0: 0\nr1: 1\n"
                        "top: 0x280000000-0x47fffffff\nchannel: 1\nch1: 0,1\nr0: 4\nr1: 5\n");
    }
    void TearDown() override { quarn::installPlatform(nullptr); }
    std::string testable() {
        std::string text;
        quarn::readTextFile("/tmp/veltrax/ktd/mem/testable", &text);
        return text;
    }

    quarn::vboard::VirtualBoard board;
    MemoryDAPI memory{"MemoryDAPI"};
};

TEST_F(TestableMemory, TheFileKeepsWhatLiesAboveTheLimit) {
    board.writeFile("/proc/cmdline", "ro quiet mem=8G iomem=relaxed\n");
    ASSERT_EQ(render(memory.initializeTestableMemoryFile()), "");
    EXPECT_EQ(testable(),
              "high:0x0000000200000000-0x000000027fffffff\nchannel: 0,1\nch0: 0\nch1: 1\nr0: 0\nr1: 1\n"
              "top: 0x280000000-0x47fffffff\nchannel: 1\nch1: 0,1\nr0: 4\nr1: 5\n");

    std::list<MemoryRange> ranges;
    ASSERT_EQ(render(memory.getTestableMemory(&ranges, 0, 0)), "");
    ASSERT_EQ(ranges.size(), 2u);
    EXPECT_EQ(ranges.front().name, "high");
    EXPECT_EQ(ranges.front().start, 0x200000000u);
    EXPECT_EQ(ranges.front().ranks, (std::list<int>{0, 1}));
    EXPECT_EQ(ranges.front().rankGroups, (std::list<std::list<int>>{{0}, {1}}));
    EXPECT_EQ(ranges.front().rankAddresses, (std::list<std::list<int>>{{0}, {1}}));
    EXPECT_EQ(ranges.back().rankGroups, (std::list<std::list<int>>{{0, 1}}));
    EXPECT_EQ(ranges.back().rankAddresses, (std::list<std::list<int>>{{4}, {5}}));

    // Clipped to a span: only what touches it, cut to it.
    ASSERT_EQ(render(memory.getTestableMemory(&ranges, 0x300000000ULL, 0x3FFFFFFFFULL)), "");
    ASSERT_EQ(ranges.size(), 1u);
    EXPECT_EQ(ranges.front().name, "top");
    EXPECT_EQ(ranges.front().start, 0x300000000u);
    EXPECT_EQ(ranges.front().end, 0x3FFFFFFFFu);
    EXPECT_EQ(render(memory.getTestableMemory(&ranges, 0x500000000ULL, 0x5FFFFFFFFULL)),
              "MemoryDAPI::getTestableMemory: \"no testable memory information\"");
    EXPECT_EQ(render(memory.getTestableMemory(nullptr, 0, 0)),
              "MemoryDAPI::getTestableMemory: \"Bad parameter 1 - Testable memory list is a NULL\"");
}

TEST_F(TestableMemory, TheLimitAndItsUnits) {
    board.writeFile("/proc/cmdline", "mem=4096 ro\n");  // no unit: KiB, 4 MiB in all
    ASSERT_EQ(render(memory.initializeTestableMemoryFile()), "");
    EXPECT_EQ(testable().substr(0, 42), "low:0x0000000000400000-0x000000007fffffff\n");
    board.writeFile("/proc/cmdline", "mem=16384m\n");  // 16 GiB: only the top range reaches past it
    ASSERT_EQ(render(memory.initializeTestableMemoryFile()), "");
    EXPECT_EQ(testable(), "top:0x0000000400000000-0x000000047fffffff\nchannel: 1\nch1: 0,1\nr0: 4\nr1: 5\n");
    board.writeFile("/proc/cmdline", "ro quiet\n");
    EXPECT_EQ(render(memory.initializeTestableMemoryFile()),
              "MemoryDAPI::initializeTestableMemoryFile: \"no testable memory information\"");
    board.writeFile("/proc/cmdline", "mem=64G\n");  // nothing above it
    EXPECT_EQ(render(memory.initializeTestableMemoryFile()),
              "MemoryDAPI::initializeTestableMemoryFile: \"no testable memory information\"");
    EXPECT_EQ(testable(), "");  // and no file is left behind
}

TEST_F(TestableMemory, AMissingLayoutIsCopiedFromTheController) {
    quarn::removePath("/tmp/veltrax/ktd/mem/layout");
    board.writeFile("/proc/cmdline", "mem=8G\n");
    board.writeFile("/sys/devices/system/edac/mc/mc0/layout", "r: 0x100000000-0x2ffffffff\nc: 0\nc0: 0\nr0: 0\n");
    std::list<MemoryRange> ranges;
    ASSERT_EQ(render(memory.getTestableMemory(&ranges, 0, 0)), "");
    ASSERT_EQ(ranges.size(), 1u);
    EXPECT_EQ(ranges.front().start, 0x200000000u);
    EXPECT_EQ(ranges.front().end, 0x2FFFFFFFFu);
    // Without a controller layout either, the chain names both steps.
    quarn::removePath("/tmp/veltrax/ktd/mem/testable");
    quarn::removePath("/tmp/veltrax/ktd/mem/layout");
    quarn::removePath("/sys/devices/system/edac/mc/mc0/layout");
    EXPECT_EQ(render(memory.getTestableMemory(&ranges, 0, 0)),
              "MemoryDAPI::getTestableMemory -> MemoryDAPI::initializeTestableMemoryFile -> "
              "MemoryDDAPI::initializeMemoryLayoutFile: \"Fail to open file node - /tmp/veltrax/ktd/mem/layout\"");
}

std::list<MemoryRange> rankMap(std::initializer_list<std::tuple<const char*, unsigned long long, int>> dimms) {
    std::list<MemoryRange> out;
    unsigned long long next = 0;
    for (auto& [name, size, ranks] : dimms) {
        for (int r = 0; r < ranks; ++r) {
            MemoryRange m;
            m.name = name;
            m.start = next + r * (size / ranks);
            m.end = m.start + size / ranks - 1;
            out.push_back(m);
        }
        next += size;
    }
    return out;
}

std::vector<std::tuple<std::string, unsigned long long, unsigned long long>> flat(const std::list<MemoryRange>& l) {
    std::vector<std::tuple<std::string, unsigned long long, unsigned long long>> out;
    for (const MemoryRange& r : l) out.push_back({r.name, r.start, r.end});
    return out;
}

TEST(RankPlacement, TwoFourGibDimmsAroundTheHole) {
    auto placed = MemoryDAPI::placeRanks(rankMap({{"D0", 4ULL << 30, 2}, {"D1", 4ULL << 30, 2}}),
                                         0x100000000ULL, 0x27FFFFFFFULL);
    EXPECT_EQ(flat(placed), (std::vector<std::tuple<std::string, unsigned long long, unsigned long long>>{
                                {"D0", 0, 0x7FFFFFFF},
                                {"D1", 0x100000000, 0x17FFFFFFF},
                                {"D1", 0x180000000, 0x1FFFFFFFF},
                                {"D0", 0x200000000, 0x27FFFFFFF}}));
}

TEST(RankPlacement, TwoEightGibDimms) {
    auto placed = MemoryDAPI::placeRanks(rankMap({{"D0", 8ULL << 30, 2}, {"D1", 8ULL << 30, 2}}),
                                         0x100000000ULL, 0x47FFFFFFFULL);
    EXPECT_EQ(flat(placed), (std::vector<std::tuple<std::string, unsigned long long, unsigned long long>>{
                                {"D0", 0, 0x7FFFFFFF},
                                {"D1", 0x100000000, 0x1FFFFFFFF},
                                {"D1", 0x200000000, 0x2FFFFFFFF},
                                {"D0", 0x300000000, 0x3FFFFFFFF},
                                {"D0", 0x400000000, 0x47FFFFFFF}}));
}

TEST(RankPlacement, PassThreeNeverRevisitsWhatItAppends) {
    // Ranks that all end below T: the walk ends with the ranges it started with.
    auto placed = MemoryDAPI::placeRanks(rankMap({{"D0", 1ULL << 20, 1}}), 0x100000000ULL, 0x1FFFFFULL);
    EXPECT_LE(placed.size(), 3u);
}

}  // namespace
