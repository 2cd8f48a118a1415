// The NVSRAM layers against the virtual board's nvSRAM: the device record, the STORE and
// RECALL sequences, the tests and the contents they must put back.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "api/platform/Platform.h"
#include "dapi/nvsram/NVSRAMDAPI.h"
#include "ddapi/memory/MemoryDDAPI.h"
#include "ddapi/nvsram/NVSRAMDDAPI.h"
#include "tests/lib/Render.h"
#include "vboard/Board.h"

namespace {

using quarn::test::render;

class NvsramTest : public ::testing::Test {
protected:
    void SetUp() override {
        quarn::installPlatform(&board);
        // Distinct contents in both arrays, so that a lost or swapped byte shows.
        std::vector<uint8_t>& sram = board.nvsram->sram();
        std::vector<uint8_t>& nv = board.nvsram->nonVolatile();
        for (size_t i = 0; i < sram.size(); ++i) {
            sram[i] = static_cast<uint8_t>(i * 7 + 3);
            nv[i] = static_cast<uint8_t>(i * 13 + 1);
        }
        sramBefore = sram;
        nvBefore = nv;
    }
    void TearDown() override { quarn::installPlatform(nullptr); }

    quarn::vboard::Board board;
    std::vector<uint8_t> sramBefore, nvBefore;
};

TEST_F(NvsramTest, DeviceRecordComesFromBarOneOfTheFunction) {
    NVSRAMDDAPI dev("NVSRAM_DRVR");
    std::vector<NVSRAM_RESOURCE_INFO> list;
    ASSERT_EQ(render(dev.getDeviceList(&list)), "");
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].id, 0);
    EXPECT_EQ(list[0].name, "00:04.00");
    EXPECT_EQ(list[0].base, 0xFB100000ull);
    EXPECT_EQ(list[0].size, 0x20000u);
    EXPECT_EQ(list[0].elementSize, 64);
    unsigned long long base = 1;
    unsigned int size = 1;
    unsigned char bits = 1;
    EXPECT_EQ(render(dev.getBaseAddress(0, &base)), "");
    EXPECT_EQ(render(dev.getResourceSize(0, &size)), "");
    EXPECT_EQ(render(dev.getElementSize(0, &bits)), "");
    EXPECT_EQ(base, 0xFB100000ull);
    EXPECT_EQ(size, 0x20000u);
    EXPECT_EQ(bits, 64);
    // An id that matches no entry leaves the output alone.
    base = 7;
    EXPECT_EQ(render(dev.getBaseAddress(1, &base)), "");
    EXPECT_EQ(base, 7u);
}

TEST_F(NvsramTest, OnlyTheExactSequencesCopyBetweenTheArrays) {
    NVSRAMDDAPI dev("NVSRAM_DRVR");
    std::vector<uint8_t>& sram = board.nvsram->sram();
    std::vector<uint8_t>& nv = board.nvsram->nonVolatile();
    EXPECT_EQ(render(dev.storeNVSRAM()), "");
    EXPECT_EQ(board.nvsram->stores(), 1u);
    EXPECT_EQ(nv, sramBefore);

    sram.assign(sram.size(), 0x11);
    EXPECT_EQ(render(dev.recallNVSRAM()), "");
    EXPECT_EQ(sram, sramBefore);

    // A read between the sequence's reads aborts it; so does a write.
    MemoryDDAPI mem("MEMORY_DRVR");
    const unsigned long long base = 0xFB100000;
    sram.assign(sram.size(), 0x22);
    for (unsigned offset : {0x4E38u, 0xB1C7u, 0x83E0u, 0x1234u, 0x7C1Fu, 0x703Fu, 0x4C63u}) mem.read8(base + offset);
    for (unsigned offset : {0x4E38u, 0xB1C7u, 0x83E0u, 0x7C1Fu, 0x703Fu}) mem.read8(base + offset);
    deleteErrorMsg(mem.write(base + 0x10, static_cast<unsigned char>(0x22)));
    mem.read8(base + 0x4C63);
    // A wider read at the first offset is no part of a sequence either.
    mem.read16(base + 0x4E38);
    for (unsigned offset : {0xB1C7u, 0x83E0u, 0x7C1Fu, 0x703Fu, 0x8FC0u}) mem.read8(base + offset);
    EXPECT_EQ(render(mem.getErrorMsg()), "");
    EXPECT_EQ(board.nvsram->recalls(), 1u);
    EXPECT_EQ(board.nvsram->stores(), 1u);
    EXPECT_EQ(sram, std::vector<uint8_t>(sram.size(), 0x22));
    EXPECT_EQ(nv, sramBefore);
}

TEST_F(NvsramTest, LogicalIdsAndTheMissingDevice) {
    NVSRAMDAPI nv("NVSRAMDAPI");
    NVSRAM_RESOURCE_INFO info;
    EXPECT_EQ(render(nv.getInformationByID(0, &info)), "");
    EXPECT_EQ(info.base, 0xFB100000ull);
    EXPECT_EQ(render(nv.getInformationByID(1, &info)),
              "NVSRAMDAPI::getInformation: \"Bad parameter - Bad NVSRAM logical ID\"");

    // A board without the function: the class still has other members (DMA, FPGA).
    board.removeDevice("/sys/bus/pci/devices/0000:00:04.0/config");
    std::filesystem::remove_all(board.hostPath("/sys/bus/pci/devices/0000:00:04.0"));
    NVSRAMDAPI none("NVSRAMDAPI");
    std::vector<NVSRAM_RESOURCE_INFO> list;
    EXPECT_EQ(render(none.getInformationList(&list)),
              "NVSRAMDAPI::getInformation: \"no NVSRAM device\" -> NVSRAMDDAPI::getNVSRAMList");
    EXPECT_TRUE(list.empty());
}

TEST_F(NvsramTest, WidthAndRangeAreCheckedBeforeAnythingIsTouched) {
    NVSRAMDAPI nv("NVSRAMDAPI");
    const std::string unknown = "NVSRAMDAPI::NVRAMTest: \"Illegal element size - Unknown element size\"";
    EXPECT_EQ(render(nv.nonVolatileTest(0, 0xFF, 12)), unknown);
    EXPECT_EQ(render(nv.NVTestExecute(0, 0xFF, 12)), unknown);
    EXPECT_EQ(render(nv.NVTestExecute(0, 0xFF, 12, 0x55)), unknown);
    EXPECT_EQ(render(nv.NVTestCleanup(0, 0xFF, 12)), unknown);
    ErrorMsg* illegal = nv.WritePattern(12, 0);
    ASSERT_NE(illegal, nullptr);
    EXPECT_EQ(illegal->getErrorCode(), 0xC0000212u);
    deleteErrorMsg(illegal);
    EXPECT_EQ(render(nv.nonVolatileTest(0, 0x20000, 8)),
              "NVSRAMDAPI::NVRAMTest: \"out of range - Out of NVSRAM range\"");
    EXPECT_EQ(render(nv.nonVolatileTest(0x100, 0xFF, 8)),
              "NVSRAMDAPI::NVRAMTest: \"out of range - Out of NVSRAM range\"");
    EXPECT_EQ(board.nvsram->stores() + board.nvsram->recalls(), 0u);
    EXPECT_EQ(board.nvsram->sram(), sramBefore);
}

TEST_F(NvsramTest, NonVolatileTestPassesAndPutsBothArraysBack) {
    NVSRAMDAPI nv("NVSRAMDAPI");
    const uint64_t start = board.clock().nowNs();
    EXPECT_EQ(render(nv.runNonVolatileTest(0x100, 0x1FF, 16)), "");
    // Four patterns with 3 s pauses around each STORE and RECALL.
    EXPECT_GE(board.clock().nowNs() - start, 50ull * 1000000000ull);
    EXPECT_EQ(board.nvsram->stores(), 5u);   // one per pattern and the cleanup's
    EXPECT_EQ(board.nvsram->recalls(), 5u);  // the backup's and one per pattern
    EXPECT_EQ(board.nvsram->sram(), sramBefore);
    EXPECT_EQ(board.nvsram->nonVolatile(), nvBefore);
    EXPECT_EQ(nv.getProgress(), 100u);
}

TEST_F(NvsramTest, StoreThatDoesNothingFailsAndNothingIsLost) {
    board.nvsram->storeIgnored = true;
    NVSRAMDAPI nv("NVSRAMDAPI");
    EXPECT_EQ(render(nv.runNonVolatileTest(0x10, 0x2F, 32)),
              "NVSRAMDAPI::NVRAMTest -> NVSRAMDAPI::NVRAMTest -> MemoryDAPI: \"test pattern compare fail\"");
    EXPECT_EQ(board.nvsram->sram(), sramBefore);
    EXPECT_EQ(board.nvsram->nonVolatile(), nvBefore);
}

TEST_F(NvsramTest, PatternWalkStaysInsideTheRange) {
    NVSRAMDAPI nv("NVSRAMDAPI");
    ASSERT_EQ(render(nv.nonVolatileTest(0x101, 0x10A, 64)), "");  // 10 bytes: one word and 2 bytes
    // The backup recalled the array into the SRAM.
    const std::vector<uint8_t>& sram = board.nvsram->sram();
    EXPECT_EQ(sram, nvBefore);
    EXPECT_EQ(render(nv.WritePattern(64, 0x1122334455667788ull)), "");
    // 0x101-0x107 byte by byte up to the word boundary, the word at 0x108 would pass the
    // range end, so 0x108-0x10A byte by byte as well; the pattern's bytes follow the
    // offset from the range start.
    EXPECT_EQ(sram[0x100], nvBefore[0x100]);
    EXPECT_EQ(sram[0x101], 0x88);
    EXPECT_EQ(sram[0x107], 0x22);
    EXPECT_EQ(sram[0x108], 0x11);
    EXPECT_EQ(sram[0x109], 0x88);
    EXPECT_EQ(sram[0x10A], 0x77);
    EXPECT_EQ(sram[0x10B], nvBefore[0x10B]);
    EXPECT_EQ(render(nv.VerifyPattern(64, 0x1122334455667788ull)), "");
    EXPECT_EQ(render(nv.VerifyPattern(64, 0x1122334455667789ull)), "MemoryDAPI: \"test pattern compare fail\"");
    // The 16-bit pass writes 0x5555 halves.
    EXPECT_EQ(render(nv.WritePattern(16, 0x5555)), "");
    EXPECT_EQ(sram[0x101], 0x55);
    EXPECT_EQ(sram[0x10A], 0x55);
    EXPECT_EQ(render(nv.NVTestCleanup(0x101, 0x10A, 64)), "");
    EXPECT_EQ(board.nvsram->sram(), sramBefore);
    EXPECT_EQ(board.nvsram->nonVolatile(), nvBefore);
}

TEST_F(NvsramTest, DataAndAddressLineTestsRestoreTheSram) {
    NVSRAMDAPI nv("NVSRAMDAPI");
    EXPECT_EQ(render(nv.dataLineTest(0, 0xFFF, 64)), "");
    EXPECT_EQ(render(nv.addressLineTest(0, 0x1FFFF, 32)), "");
    EXPECT_EQ(board.nvsram->sram(), sramBefore);
    EXPECT_EQ(board.nvsram->nonVolatile(), nvBefore);
    EXPECT_EQ(render(nv.dataLineTest(0, 0x20000, 64)),
              "NVSRAMDAPI::dataLineTest: \"out of range - Out of NVSRAM range\"");
    EXPECT_EQ(render(nv.addressLineTest(0, 0xFF, 12)),
              "NVSRAMDAPI::addressLineTest: \"Illegal element size - Unknown element size\"");
}

TEST_F(NvsramTest, LineTestsThatFailHalfWayStillPutTheSramBack) {
    // A data bit stuck at the value it holds: the walking ones find it, and the old
    // contents (which agree with it) must all come back.
    const uint32_t at = 0x208;
    const int bit = 3;
    board.nvsram->addStuckBit(at, bit, (sramBefore[at] >> bit) & 1);
    NVSRAMDAPI nv("NVSRAMDAPI");
    const std::string data = render(nv.dataLineTest(0x200, 0x2FF, 64));
    EXPECT_EQ(data.rfind("NVSRAMDAPI::dataLineTest -> MemoryDAPI::dataLineTest", 0), 0u) << data;
    EXPECT_EQ(board.nvsram->sram(), sramBefore);
    const std::string address = render(nv.addressLineTest(0x200, 0x2FF, 8));
    EXPECT_EQ(address.rfind("NVSRAMDAPI::addressLineTest -> MemoryDAPI::addressLineTest", 0), 0u) << address;
    EXPECT_EQ(board.nvsram->sram(), sramBefore);
    EXPECT_EQ(board.nvsram->nonVolatile(), nvBefore);
}

}  // namespace
