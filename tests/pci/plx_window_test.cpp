// The PLX switch's registers reached through physical memory (its BAR0 window), with
// the same register semantics as its configuration spaces.
#include <gtest/gtest.h>

#include "api/platform/Platform.h"
#include "ddapi/memory/MemoryDDAPI.h"
#include "vboard/Board.h"

namespace {

TEST(PlxWindow, PortRegistersThroughBarZeroFollowConfigurationSemantics) {
    quarn::vboard::Board board;
    quarn::installPlatform(&board);
    MemoryDDAPI memory("MEMORY_DRVR");
    const unsigned long long bar = 0xFB000000ULL;
    // Port 0 (upstream) and port 2 (a downstream port) in their 4 KiB slices.
    EXPECT_EQ(memory.read32(bar), 0x874910B5u);
    EXPECT_EQ(memory.read16(bar + 0x2000 + 2), 0x8749u);
    EXPECT_EQ(memory.getErrorMsg(), nullptr);

    // A status error raised on port 2 is seen through the window and cleared by a
    // one written there, and only that bit goes.
    auto port2 = board.pci->function("0000:02:02.0");
    ASSERT_TRUE(port2);
    port2->raise(0x06, 0x9000, 2);  // detected parity error + received master abort
    EXPECT_EQ(memory.read16(bar + 0x2000 + 6) & 0xF900, 0x9000);
    ASSERT_EQ(memory.write(bar + 0x2000 + 6, static_cast<unsigned short>(0x1000)), nullptr);
    EXPECT_EQ(port2->read(0x06, 2) & 0xF900, 0x8000u);
    EXPECT_EQ(memory.read16(bar + 0x2000 + 6) & 0xF900, 0x8000);
    quarn::installPlatform(nullptr);
}

}  // namespace

#include "ddapi/pci/PCIDDAPI.h"

namespace {

// The NT link side exists only in the switch's register space: its errors are read
// and cleared through the memory window.
TEST(PlxWindow, NtLinkSideErrorsAreReadAndClearedThroughTheWindow) {
    quarn::vboard::Board board;
    quarn::installPlatform(&board);
    {
        PCIDDAPI pci("PCIDDAPI");
        const _PFA ntb{0, 7, 0, 0, 0};
        board.pci->plxLink->raise(0x06, 0x2000, 2);  // received master abort on the link side
        std::list<_PCI_ERROR> errors;
        ASSERT_EQ(pci.getPlxNtbLinkSideErrorStatistics(ntb, PCI_COMPATIBLE_ERROR, &errors), 0u);
        unsigned int set = 0;
        std::string names;
        for (const _PCI_ERROR& e : errors) {
            if (e.value) {
                ++set;
                names += e.name;
            }
        }
        EXPECT_EQ(set, 1u) << names;
        // The virtual side saw nothing.
        EXPECT_EQ(board.pci->function("0000:07:00.0")->read(0x06, 2) & 0xF900, 0u);
        ASSERT_EQ(pci.clearPlxNtbLinkSideErrors(ntb), 0u);
        EXPECT_EQ(board.pci->plxLink->read(0x06, 2) & 0xF900, 0u);
    }
    quarn::installPlatform(nullptr);
}

}  // namespace
