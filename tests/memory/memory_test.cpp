// Physical memory access, the EDAC controller files and the memory tests, on the
// virtual board's RAM with faults planted in it.
#include <gtest/gtest.h>

#include <string>

#include "api/ErrorText.h"
#include "api/StringUtil.h"
#include "api/platform/Files.h"
#include "api/platform/Platform.h"
#include "dapi/memory/MemoryDAPI.h"
#include "ddapi/memory/MemoryDDAPI.h"
#include "vboard/Board.h"
#include "vboard/models/memory/MemoryController.h"
#include "tests/lib/Render.h"

namespace {

using quarn::vboard::MemoryController;

using quarn::test::render;
constexpr unsigned long long kBase = 0x200000000ULL;  // above the board's mem=8G

class MemoryTest : public ::testing::Test {
protected:
    void SetUp() override {
        controller.install(board);
        quarn::installPlatform(&board);
    }
    void TearDown() override { quarn::installPlatform(nullptr); }

    quarn::vboard::VirtualBoard board;
    MemoryController controller{2ULL << 30};  // four 2 GiB DIMMs: RAM up to 10 GiB
};

TEST_F(MemoryTest, ReadsAndWritesGoThroughAOnePageWindow) {
    MemoryDDAPI device("MEMORY_DRVR");
    auto ram = controller.memory();
    EXPECT_EQ(render(device.write(kBase + 8, 0x1122334455667788ULL)), "");
    EXPECT_EQ(*reinterpret_cast<uint64_t*>(ram->view(kBase + 8)), 0x1122334455667788ULL);
    const uint64_t maps = ram->mapCount();
    EXPECT_EQ(device.read32(kBase + 8), 0x55667788u);
    EXPECT_EQ(device.read16(kBase + 14), 0x1122u);
    EXPECT_EQ(ram->mapCount(), maps);  // same page: no new mapping
    device.read8(kBase + 4096);
    EXPECT_EQ(ram->mapCount(), maps + 1);
    EXPECT_EQ(device.getErrorMsg(), nullptr);

    // Across a page boundary: "mmap fail", 0xDE, and the next access reopens /dev/mem.
    EXPECT_EQ(device.read64(kBase + 4096 - 4), 0xDEu);
    EXPECT_EQ(render(device.getErrorMsg()),
              "MemoryDDAPI::readMemory: \"mmap fail - failed address: " + UINT64ToHexStr(kBase + 4092) + "\"");
    EXPECT_EQ(device.read8(kBase + 8), 0x88u);
    EXPECT_EQ(device.getErrorMsg(), nullptr);

    board.device("/dev/mem")->faults().openErrno = EACCES;
    MemoryDDAPI denied("MEMORY_DRVR");
    EXPECT_EQ(render(denied.write(kBase, static_cast<unsigned char>(1))),
              "MemoryDDAPI::writeMemory: \"open /dev/mem fail - failed address: " + UINT64ToHexStr(kBase) + "\"");
}

TEST_F(MemoryTest, BuffersAndHighRam) {
    MemoryDDAPI device("MEMORY_DRVR");
    unsigned long long buffer = 0;
    EXPECT_EQ(render(device.getMemoryBuffer(0, &buffer)),
              "MemoryDDAPI::getMemroryBuffer: \"Bad parameter 1 - Memory size can not be zero\"");
    EXPECT_EQ(render(device.getMemoryBuffer(16, nullptr)),
              "MemoryDDAPI::getMemroryBuffer: \"Bad parameter 2 - NULL pointer\"");
    ASSERT_EQ(render(device.getMemoryBuffer(16, &buffer)), "");
    EXPECT_EQ(render(device.releaseMemoryBuffer(buffer)), "");
    EXPECT_EQ(render(device.releaseMemoryBuffer(0)),
              "MemoryDDAPI::releaseMemoryBuffer: \"Bad parameter - Invalid buffer address\"");

    MemoryRange range;
    ASSERT_EQ(render(device.getX86HighRamRange(&range)), "");
    EXPECT_EQ(range.start, 0x100000000ULL);
    EXPECT_EQ(range.end, controller.highEnd());
    quarn::removePath("/sys/firmware/memmap/4/end");
    EXPECT_EQ(render(device.getX86HighRamRange(&range)),
              "MemoryDDAPI::getHighRamRange: \"Fail to open file node - /sys/firmware/memmap/4/end\"");
}

TEST_F(MemoryTest, MemoryConfKeysAndComments) {
    MemoryDDAPI device("MEMORY_DRVR");
    int channels = 0, slots = 0;
    board.writeFile("/etc/quarn/memory.conf",
                    "#CHANNEL_NUM = 2\nCHANNEL_NUM = 4\nCHANNEL_SLOT_NUM=3 # three\nCHANNEL_SLOT_NUM=2\n");
    EXPECT_EQ(render(device.getControllerChannelCount(&channels)), "");
    EXPECT_EQ(channels, 4);
    EXPECT_EQ(render(device.getControllerSlotCount(&slots)), "");
    EXPECT_EQ(slots, 2);  // a line with a '#' anywhere is ignored
    board.writeFile("/etc/quarn/memory.conf", "CHANNEL_NUM=0\n");
    EXPECT_EQ(render(device.getControllerChannelCount(&channels)),
              "MemoryDDAPI::getControllerChannelCount: \"unexpected value - amount of channels must be larger than 0\"");
    EXPECT_EQ(channels, 0);
    EXPECT_EQ(render(device.getControllerSlotCount(&slots)),
              "MemoryDDAPI::getControllerSlotCount: \"configuration is not found\"");
    board.writeFile("/etc/quarn/memory.conf", "CHANNEL_NUM=123\n");
    EXPECT_EQ(render(device.getControllerChannelCount(&channels)), "");
    EXPECT_EQ(channels, 12);  // the first two characters
    EXPECT_EQ(render(device.getControllerChannelCount(nullptr)),
              "MemoryDDAPI::getControllerChannelCount: \"Bad parameter - NULL pointer\"");
}

TEST_F(MemoryTest, InjectedErrorsShowInTheCountersUntilCleared) {
    MemoryDDAPI device("MEMORY_DRVR");
    std::list<ECCInformation> report;
    ASSERT_EQ(render(device.getECCReport(&report)), "");
    EXPECT_TRUE(report.empty());
    // Two errors on one DIMM, one on another.
    int channel, slot, rank;
    uint64_t rankAddress;
    ASSERT_TRUE(controller.physicalToRank(kBase, &channel, &slot, &rank, &rankAddress));
    EXPECT_EQ(render(device.injectECC(kBase, 0, 1)), "");
    EXPECT_EQ(render(device.injectECC(kBase + 8, 0xC, 3)), "");
    EXPECT_EQ(render(device.injectECC(kBase + 64, 0xA, 0)), "");  // the next line: other channel
    ASSERT_EQ(render(device.getECCReport(&report)), "");
    ASSERT_EQ(report.size(), 2u);
    EXPECT_EQ(report.front().channel, channel);
    EXPECT_EQ(report.front().slot, slot);
    EXPECT_EQ(report.front().count + report.back().count, 3);
    EXPECT_EQ(render(device.clearECCReport()), "");
    ASSERT_EQ(render(device.getECCReport(&report)), "");
    EXPECT_TRUE(report.empty());

    EXPECT_EQ(render(device.injectECC(kBase, 0, 64)),
              "MemoryDDAPI::injectECC: \"Bad parameter 3 - error bit should be 0 ~ 63\"");
    controller.setInjectionLocked(true);
    EXPECT_EQ(render(device.injectECC(kBase, 0, 1)),
              "MemoryDDAPI::injectECC -> MemoryDriver: \"ecc injection is locked\"");
    controller.setInjectionLocked(false);
    EXPECT_EQ(render(device.injectECC(0x90000000ULL, 0, 1)),  // the PCI hole
              "MemoryDDAPI::injectECC -> MemoryDriver: \"fail to translate address\"");
}

TEST_F(MemoryTest, ChannelFilesSkipTwoAndThree) {
    // A controller with four channels: indexes 2 and 3 read ch4 and ch5.
    const std::string mc = "/sys/devices/system/edac/mc/mc1/";
    board.writeFile("/etc/quarn/memory.conf", "CHANNEL_NUM=4\nCHANNEL_SLOT_NUM=1\n");
    board.writeFile(mc + "ce_count", "9\n");
    for (int ch : {0, 1, 2, 3, 4, 5}) board.writeFile(mc + "csrow0/ch" + std::to_string(ch) + "_ce_count", std::to_string(ch + 1) + "\n");
    board.writeFile("/sys/devices/system/edac/mc/mc2/ce_count", "0\n");
    board.writeFile("/sys/devices/system/edac/mc/mc2/csrow0/ch0_ce_count", "7\n");  // ignored: total 0
    MemoryDDAPI device("MEMORY_DRVR");
    std::list<ECCInformation> report;
    ASSERT_EQ(render(device.getECCReport(&report)), "");
    std::vector<std::pair<int, int>> got;
    for (const ECCInformation& e : report)
        if (e.controller == 1) got.push_back({e.channel, e.count});
    EXPECT_EQ(got, (std::vector<std::pair<int, int>>{{0, 1}, {1, 2}, {2, 5}, {3, 6}}));
    for (const ECCInformation& e : report) EXPECT_NE(e.controller, 2);
}

TEST_F(MemoryTest, AddressTranslationRoundTripsUnderTheLock) {
    MemoryDDAPI device("MEMORY_DRVR");
    unsigned long long rankAddress = 0, physical = 0;
    ASSERT_EQ(render(device.getRankOffset(kBase + 0x12345678, &rankAddress)), "");
    int c, s, r;
    uint64_t expected;
    ASSERT_TRUE(controller.physicalToRank(kBase + 0x12345678, &c, &s, &r, &expected));
    EXPECT_EQ(rankAddress, expected);
    ASSERT_EQ(render(device.getPhysicalAddress(rankAddress, c, s, r, &physical)), "");
    EXPECT_EQ(physical, kBase + 0x12345678);
    EXPECT_EQ(render(device.getPhysicalAddress(0, 7, 0, 0, &physical)),
              "MemoryDDAPI::getPhysicalAddress: \"address translation fail\"");
    EXPECT_EQ(render(device.getRankOffset(0xF0000000ULL, &rankAddress)),
              "MemoryDDAPI::getRankOffset: \"address translation fail\"");
    // The semaphore is released after each request.
    int id = board.semget(static_cast<key_t>(0xC2083C00), 1, 0);
    ASSERT_GE(id, 0);
    EXPECT_EQ(board.semctl(id, 0, GETVAL, 0), 1);
}

TEST_F(MemoryTest, LayoutCopyIsValidated) {
    MemoryDDAPI device("MEMORY_DRVR");
    ASSERT_EQ(render(device.initializeMemoryLayoutFile()), "");
    std::string copy;
    ASSERT_EQ(quarn::readTextFile("/tmp/veltrax/ktd/mem/layout", &copy), 0);
    EXPECT_EQ(copy, controller.layoutText());

    auto withLayout = [&](const std::string& text) {
        quarn::removePath("/sys/devices/system/edac/mc/mc0/layout");
        board.removeDevice("/sys/devices/system/edac/mc/mc0/layout");
        board.writeFile("/sys/devices/system/edac/mc/mc0/layout", text);
        return render(device.initializeMemoryLayoutFile());
    };
    EXPECT_EQ(withLayout("a: 0x0-0x7fffffff\nb: 0x80000000-0xffffffff\nch-list: 0,1\n"), "");
    EXPECT_EQ(withLayout("a: 0x100-0x100\n"), "MemoryDDAPI::initializeMemoryLayoutFile: \"incorrect layout information\"");
    std::string gone;
    EXPECT_EQ(quarn::readTextFile("/tmp/veltrax/ktd/mem/layout", &gone), -1);  // removed
    EXPECT_EQ(withLayout("a: 0x1000-0x2000\nb: 0x1800-0x3000\n"),
              "MemoryDDAPI::initializeMemoryLayoutFile: \"incorrect layout information\"");
}

class MemoryTestsOnRam : public MemoryTest {
protected:
    MemoryDAPI memory{"MemoryDAPI"};
    const unsigned long long start = kBase, end = kBase + 64 * 1024;
};

TEST_F(MemoryTestsOnRam, EveryTestPassesOnGoodMemory) {
    for (int width : {8, 16, 32, 64}) {
        EXPECT_EQ(render(memory.patternTest(start, end, width, 0xA5A5A5A5A5A5A5A5ULL)), "") << width;
        EXPECT_EQ(render(memory.dataLineTest(start, start + 8192, width)), "") << width;
        EXPECT_EQ(render(memory.addressLineTest(start, end, width, 0x5A5A5A5A5A5A5A5AULL)), "") << width;
        EXPECT_EQ(render(memory.marchCTest(start, end, width, 0x0F0F0F0F0F0F0F0FULL)), "") << width;
    }
    EXPECT_EQ(memory.getProgress(), 100u);
    EXPECT_EQ(render(memory.randomAddressTest(start, end, 0)), "");
    EXPECT_EQ(render(memory.eccErrorDetectionTest(start, start + 64)), "");
    EXPECT_EQ(controller.ceCount(0, 0) + controller.ceCount(1, 0) + controller.ceCount(0, 1), 0);  // cleared
}

TEST_F(MemoryTestsOnRam, AStuckBitIsFoundAtItsAddress) {
    const unsigned long long bad = start + 0x2345;
    controller.memory()->addStuckBit(bad, 3, 0);
    const std::string where = UINT64ToHexStr(bad);
    EXPECT_EQ(render(memory.patternTest(start, end, 8, 0xFF)),
              "MemoryDAPI::patternTest -> MemoryDAPI::verifyMemoryBlock: \"test pattern compare fail - failed address is " + where + "\"");
    EXPECT_EQ(memory.getProgress(), 100u);
    EXPECT_EQ(render(memory.dataLineTest(start, end, 8)),
              "MemoryDAPI::dataLineTest -> MemoryDAPI::verifyMemoryBlock: \"test pattern compare fail - failed address is " + where + "\"");
    EXPECT_EQ(render(memory.marchCTest(start, end, 64, 0)),
              "MemoryDAPI::MarchCTest -> MemoryDAPI::verifyMemoryBlockByMarchC: \"test pattern compare fail\"");
    // A word-wide pattern test names the word holding the bit.
    EXPECT_EQ(render(memory.patternTest(start, end, 32, ~0ULL)),
              "MemoryDAPI::patternTest -> MemoryDAPI::verifyMemoryBlock: \"test pattern compare fail - failed address is " + UINT64ToHexStr(bad & ~3ULL) + "\"");
}

// The block loops read four elements at a time: whichever element of a group (or of the
// tail of a page) holds the fault, the first failing element in walking order is named.
TEST_F(MemoryTestsOnRam, EachElementOfAGroupIsNamedInWalkingOrder) {
    const unsigned long long page = start + 0x5000;
    for (int width : {8, 16, 32, 64}) {
        const unsigned long long e = static_cast<unsigned long long>(width) / 8;
        for (unsigned long long index : {0ULL, 1ULL, 2ULL, 3ULL, 5ULL, 4096 / e - 1, 4096 / e - 2}) {
            const unsigned long long bad = page + index * e;
            controller.memory()->clearFaults();
            controller.memory()->addStuckBit(bad + e - 1, 7, 0);
            MemoryDAPI fresh("MemoryDAPI");  // its window is opened after the fault
            const std::string where = " - failed address is " + UINT64ToHexStr(bad) + "\"";
            EXPECT_EQ(render(fresh.patternTest(page, page + 0x1000, width, ~0ULL)),
                      "MemoryDAPI::patternTest -> MemoryDAPI::verifyMemoryBlock: \"test pattern compare fail" + where)
                << width << " " << index;
            EXPECT_EQ(render(fresh.verifyMemoryBlock(page + 0x1000, page, static_cast<unsigned char>(0xFF))),
                      "MemoryDAPI::verifyMemoryBlock: \"test pattern compare fail - failed address is " +
                          UINT64ToHexStr(bad + e - 1) + "\"")
                << width << " " << index << " descending";
        }
    }
    // Two faults in one group: ascending names the lower, descending the higher.
    controller.memory()->clearFaults();
    controller.memory()->addStuckBit(page + 0x11, 0, 0);
    controller.memory()->addStuckBit(page + 0x12, 0, 0);
    MemoryDAPI fresh("MemoryDAPI");
    EXPECT_EQ(render(fresh.verifyMemoryBlock(page, page + 0x20, static_cast<unsigned char>(1))),
              "MemoryDAPI::verifyMemoryBlock: \"test pattern compare fail - failed address is " + UINT64ToHexStr(page + 0x11) + "\"");
    EXPECT_EQ(render(fresh.verifyMemoryBlock(page + 0x20, page, static_cast<unsigned char>(1))),
              "MemoryDAPI::verifyMemoryBlock: \"test pattern compare fail - failed address is " + UINT64ToHexStr(page + 0x12) + "\"");
    controller.memory()->clearFaults();
}

TEST_F(MemoryTestsOnRam, ACouplingFaultIsFoundByMarchC) {
    // Writing the aggressor word sets bit 0 of a cell further down: a plain pattern
    // test writes the same value everywhere and cannot see it.
    controller.memory()->addCoupling(start + 0x3000, start + 0x1000, 0, 1);
    EXPECT_EQ(render(memory.patternTest(start, end, 64, ~0ULL)), "");
    EXPECT_EQ(render(memory.marchCTest(start, end, 64, 0)),
              "MemoryDAPI::MarchCTest -> MemoryDAPI::verifyMemoryBlockByMarchC: \"test pattern compare fail\"");
}

TEST_F(MemoryTestsOnRam, ShortedAddressLinesAreFoundByTheAddressLineTest) {
    controller.memory()->shortAddressLines(13, 14);
    // The pattern test writes every cell with the same value: aliasing stays hidden.
    EXPECT_EQ(render(memory.patternTest(start, end, 64, 0x1234)), "");
    std::string text = render(memory.addressLineTest(start, end, 64, 0x5555555555555555ULL));
    EXPECT_EQ(text, "MemoryDAPI::addressLineTest: \"test pattern compare fail - failed address: " +
                        UINT64ToHexStr(start + 0x2000) + "\"");
}

TEST_F(MemoryTestsOnRam, AFailingReadTakesTheDeviceChain) {
    controller.memory()->failPage(start + 0x4000);
    EXPECT_EQ(render(memory.patternTest(start, end, 64, 1)),
              "MemoryDAPI::patternTest -> MemoryDAPI::verifyMemoryBlock -> MemoryDDAPI::writeMemory: "
              "\"mmap fail - failed address: " + UINT64ToHexStr(start + 0x4000) + "\"");
    memory.readMemory32(start + 0x4000);
    EXPECT_EQ(render(memory.getErrorMsg()),
              "MemoryDAPI::readMemory -> MemoryDDAPI::readMemory: \"mmap fail - failed address: " +
                  UINT64ToHexStr(start + 0x4000) + "\"");
}

TEST_F(MemoryTestsOnRam, ArgumentRulesAndSmallCases) {
    EXPECT_EQ(render(memory.addressLineTest(start, end, 12, 0)),
              "MemoryDAPI::addressLineTest: \"Bad parameter 3 - Unknown element size\"");
    EXPECT_EQ(render(memory.patternTest(start, end, 12, 0)),
              "MemoryDAPI::patternTest: \"Bad parameter 3 - invalid data line amount\"");
    EXPECT_EQ(render(memory.marchCTest(start, end, 12, 0)),
              "MemoryDAPI::MarchCTest: \"Bad parameter 3 - Unknown element size\"");
    EXPECT_EQ(render(memory.dataLineTest(start, end, 0)),
              "MemoryDAPI::dataLineTest: \"Bad parameter 3 - invalid data line amount\"");
    EXPECT_EQ(memory.getProgress(), 100u);
    EXPECT_EQ(memory.alignMemoryAddress(0x1003, 32), 0x1004u);
    EXPECT_EQ(memory.alignMemoryAddress(0x1004, 32), 0x1004u);

    // Bytes 01 02 03: sum 6, checksum 0xFA.
    ASSERT_EQ(render(memory.writeMemory8(start, 1)), "");
    ASSERT_EQ(render(memory.writeMemory8(start + 1, 2)), "");
    ASSERT_EQ(render(memory.writeMemory8(start + 2, 3)), "");
    EXPECT_EQ(render(memory.checksumTest(start, start + 3, "FA", CHECKSUM_8BIT_TWOS_COMPLEMENT)), "");
    EXPECT_EQ(render(memory.checksumTest(start, start + 3, "fb", CHECKSUM_8BIT_TWOS_COMPLEMENT)),
              "MemoryDAPI::ChecksumTest: \"unexpected value - expected value: 0xfb, actual value: 0xfa\"");
    EXPECT_EQ(render(memory.checksumTest(start, start + 3, "zz", CHECKSUM_8BIT_TWOS_COMPLEMENT)),
              "MemoryDAPI::ChecksumTest: \"Bad parameter 3 - expected value is not a hexadecimal number: zz\"");
    EXPECT_EQ(render(memory.checksumTest(start, start + 3, "FA", static_cast<CHECKSUM_TYPES>(1))),
              "MemoryDAPI::ChecksumTest: \"Bad parameter 4\"");

    MemoryRange a, b;
    a.start = 0x1000, a.end = 0x5000, b.start = 0x3000, b.end = 0x9000;
    MemoryRange o = memory.getOverlapMemoryRange(a, b);
    EXPECT_EQ(o.start, 0x3000u);
    EXPECT_EQ(o.end, 0x5000u);
    b.start = 0x6000;
    o = memory.getOverlapMemoryRange(a, b);
    EXPECT_EQ(o.start + o.end, 0u);
    board.setCpuCount(8);
    EXPECT_EQ(memory.getTestBlockSize(), 128ULL << 20);
    board.setCpuCount(4);
    EXPECT_EQ(memory.getTestBlockSize(), 256ULL << 20);
}

TEST_F(MemoryTestsOnRam, DescendingBlocksAndTheFill) {
    EXPECT_EQ(render(memory.verifyMemoryBlock(start + 0x100, start, static_cast<unsigned int>(0xCAFEF00D))), "");
    EXPECT_EQ(memory.readMemory32(start), 0xCAFEF00Du);
    EXPECT_EQ(memory.readMemory32(start + 0xFC), 0xCAFEF00Du);
    EXPECT_EQ(memory.readMemory32(start + 0x100), 0u);  // the top bound is not part of it
    // The fill writes all-ones words within [start, end) and nothing outside.
    EXPECT_EQ(render(memory.patternTest(start + 8, start + 0x3008)), "");
    EXPECT_EQ(memory.readMemory64(start), 0x00000000CAFEF00DULL | (0xCAFEF00DULL << 32));
    EXPECT_EQ(memory.readMemory64(start + 8), ~0ULL);
    EXPECT_EQ(memory.readMemory64(start + 0x3000), ~0ULL);
    EXPECT_EQ(memory.readMemory64(start + 0x3008), 0u);
    EXPECT_EQ(memory.getProgress(), 100u);
}

TEST_F(MemoryTestsOnRam, RankAddressedTestsWalkOneRank) {
    EXPECT_EQ(render(memory.dataLineTest(start, 256, 0, 1, 1, 64)), "");
    EXPECT_EQ(render(memory.addressLineTest(start, 4096, 0, 1, 1, 32, 0xAAAAAAAA)), "");
    EXPECT_EQ(render(memory.eccErrorDetectionTest(start, 16, 0, 1, 1)), "");
    // A rank that does not exist: the translation fails and the test says so.
    testing::internal::CaptureStdout();
    std::string text = render(memory.dataLineTest(start, 64, 5, 0, 0, 64));
    EXPECT_NE(testing::internal::GetCapturedStdout().find(" 5 0 0\n"), std::string::npos);
    EXPECT_EQ(text, "MemoryDAPI::dataLineTest -> MemoryDDAPI::getPhysicalAddress: \"address translation fail\"");
}

TEST_F(MemoryTestsOnRam, RandomAddressTestRunsForItsVirtualSeconds) {
    EXPECT_EQ(render(memory.randomAddressTest(start, end, 1)), "");
    EXPECT_EQ(memory.getProgress(), 100u);
    // Inside one page the window is never moved, so no device access marks time:
    // the test still ends when its seconds are over.
    EXPECT_EQ(render(memory.randomAddressTest(start, start + 0x100, 1)), "");
    EXPECT_EQ(memory.getProgress(), 100u);
    // A fault is seen through windows opened after it appears: a new test object.
    controller.memory()->addStuckBit(start + 0x10, 0, 1);
    MemoryDAPI faulty("MemoryDAPI");
    std::string text = render(faulty.randomAddressTest(start, start + 0x100, 5));
    EXPECT_EQ(text.rfind("MemoryDAPI::randomAddressTest -> MemoryDAPI::verifyMemoryBlock: \"test pattern compare fail", 0), 0u) << text;
}

}  // namespace

namespace {

// A register window behaves like device registers: reads ask the model, writes hand
// it the value with the access width (here a write-1-to-clear status register).
TEST_F(MemoryTest, RegisterWindowsSeeEachAccessWithItsWidth) {
    uint32_t status = 0x000000F0, control = 0;
    std::vector<std::pair<uint64_t, int>> writes;
    controller.memory()->addRegisterWindow(
        0xFB000000ULL, 0x1000,
        [&](uint64_t offset, int width) -> uint64_t {
            uint64_t v = 0;  // byte by byte, so a 64-bit read spans both registers
            for (int i = width - 1; i >= 0; --i) {
                const uint64_t at = offset + static_cast<uint64_t>(i);
                const uint32_t reg = at < 4 ? status : at < 8 ? control : 0xFFFFFFFF;
                v = (v << 8) | ((reg >> (8 * (at & 3))) & 0xFF);
            }
            return v;
        },
        [&](uint64_t offset, uint64_t value, int width) {
            writes.push_back({offset, width});
            if (offset < 4) status &= ~static_cast<uint32_t>(value << (8 * (offset & 3)));
            else if (offset < 8) control = static_cast<uint32_t>(value);
        });
    MemoryDDAPI device("MEMORY_DRVR");
    EXPECT_EQ(device.read32(0xFB000000ULL), 0xF0u);
    EXPECT_EQ(render(device.write(0xFB000000ULL, 0x30u)), "");  // clears bits 4-5 only
    EXPECT_EQ(device.read32(0xFB000000ULL), 0xC0u);
    EXPECT_EQ(render(device.write(0xFB000004ULL, static_cast<unsigned short>(0xBEEF))), "");
    EXPECT_EQ(control, 0xBEEFu);
    EXPECT_EQ(device.read8(0xFB000005ULL), 0xBEu);
    EXPECT_EQ(render(device.write(0xFB000000ULL, static_cast<unsigned char>(0x40))), "");
    EXPECT_EQ(status, 0x80u);
    ASSERT_EQ(writes.size(), 3u);
    EXPECT_EQ(writes[1], (std::pair<uint64_t, int>{4, 2}));
    EXPECT_EQ(writes[2], (std::pair<uint64_t, int>{0, 1}));
    EXPECT_EQ(device.read64(0xFB000000ULL), (0xBEEFULL << 32) | 0x80u);
}

}  // namespace
