// Link retraining and the switch EEPROM operations against the virtual board's ports
// (link training in virtual time) and the PLX switch's EEPROM controller.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include "api/platform/Files.h"
#include "api/platform/Platform.h"
#include "dapi/pci/PCIDAPI.h"
#include "ddapi/pci/PCIDDAPI.h"
#include "tests/lib/Render.h"
#include "vboard/Board.h"

namespace {

using quarn::test::render;
using quarn::vboard::PciFunction;

_PFA pfa(uint16_t b, uint16_t d, uint8_t f) { return _PFA{0, b, d, f, 0}; }

class RetrainEepromTest : public ::testing::Test {
protected:
    void SetUp() override {
        quarn::installPlatform(&board);
        image = board.pci->plx->eeprom->eeprom().contents();
    }
    void TearDown() override { quarn::installPlatform(nullptr); }
    std::shared_ptr<PciFunction> fn(const char* a) { return board.pci->function(a); }
    std::vector<uint8_t>& eepromBytes() { return board.pci->plx->eeprom->eeprom().contents(); }
    std::string readHostFile(const std::string& path) {
        std::ifstream in(board.hostPath(path), std::ios::binary);
        return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    }

    quarn::vboard::Board board;
    std::vector<uint8_t> image;
};

// ---------------------------------------------------------------- retraining

TEST_F(RetrainEepromTest, CandidatesAreDownstreamFacingBridgesWithTheDeviceBehindThem) {
    PCIDAPI pci("PCIDAPI");
    std::vector<RetrainInfo> list;
    ASSERT_EQ(render(pci.getRetrainSupportedDeviceList(&list)), "");
    std::vector<std::string> got;
    for (const RetrainInfo& r : list) {
        char t[64];
        // The first function on the secondary bus in directory order: any function of
        // a multi-function device may come first.
        snprintf(t, sizeof(t), "%02x:%02x.%x up=%d -> %04x:%02x:%02x %04x", r.port.bus, r.port.device,
                 r.port.function, r.linkUp, r.downstreamDomain, r.downstreamBus & 0xFF, r.downstreamDevice & 0xFF,
                 r.downstreamVendorID);
        got.push_back(t);
    }
    // Root ports (type 4) and switch downstream ports (6); not the NT bridge, not the
    // upstream port (5), not endpoints.
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, (std::vector<std::string>{
                       "00:01.0 up=1 -> 0000:01:00 10b5", "00:01.1 up=1 -> 0000:08:00 8086",
                       "00:02.0 up=1 -> 0000:09:00 8086", "00:02.2 up=1 -> 0000:0a:00 8086",
                       "00:03.2 up=1 -> 0000:0c:00 1077",
                       "02:01.0 up=1 -> 0000:03:00 1000", "02:02.0 up=1 -> 0000:04:00 8086",
                       "02:03.0 up=1 -> 0000:05:00 10ee", "02:04.0 up=0 -> ffff:ff:ff ffff",
                       "02:05.0 up=1 -> 0000:07:00 10b5"}));
    for (const RetrainInfo& r : list) {
        EXPECT_EQ(r.port.classCode, 0x060400u);
        EXPECT_EQ(r.port.headerType & 1, 1);
        EXPECT_TRUE(r.downstreamName.empty());
    }
}

TEST_F(RetrainEepromTest, ThousandRetrainsTakeVirtualTimeAndKeepWidthAndSpeed) {
    PCIDAPI pci("PCIDAPI");
    const uint64_t before = board.clock().nowNs();
    EXPECT_EQ(render(pci.testRetrain(pfa(2, 1, 0))), "");
    EXPECT_EQ(fn("0000:02:01.0")->retrains(), 1000u);
    EXPECT_GE(board.clock().nowNs() - before, 1000u * 100000u);  // 100 us of training each
    EXPECT_EQ(pci.getProgress(), 100u);
    // The port's link status is as before, with the bandwidth change latched.
    const uint32_t c = fn("0000:02:01.0")->pcieCapability();
    EXPECT_EQ(fn("0000:02:01.0")->read(c + 0x12, 2), 0x6083u);
}

TEST_F(RetrainEepromTest, NarrowerOrSlowerRetrainIsFoundAtItsTry) {
    PCIDAPI pci("PCIDAPI");
    fn("0000:02:01.0")->degradeRetrain(7, 4, 0);
    EXPECT_EQ(render(pci.testRetrain(pfa(2, 1, 0), 100)),
              "PCIDAPI::testRetrain -> PCIDDAPI::testRetrain: \"link width check fail\"");
    EXPECT_EQ(fn("0000:02:01.0")->retrains(), 7u);
    fn("0000:00:02.0")->degradeRetrain(3, 0, 2);
    EXPECT_EQ(render(pci.testRetrain(pfa(0, 2, 0), 100)),
              "PCIDAPI::testRetrain -> PCIDDAPI::testRetrain: \"link speed check fail\"");
}

TEST_F(RetrainEepromTest, PortsThatCannotBeRetrained) {
    PCIDAPI pci("PCIDAPI");
    // Nothing behind the port: the link is down.
    EXPECT_EQ(render(pci.testRetrain(pfa(2, 4, 0))),
              "PCIDAPI::testRetrain -> PCIDDAPI::testRetrain: \"link is down\"");
    EXPECT_EQ(fn("0000:02:04.0")->retrains(), 0u);
    const std::string unsupported = "PCIDAPI::testRetrain -> PCIDDAPI::testRetrain: \"retrain is unsupported\"";
    EXPECT_EQ(render(pci.testRetrain(pfa(1, 0, 0))), unsupported);  // upstream port
    EXPECT_EQ(render(pci.testRetrain(pfa(3, 0, 0))), unsupported);  // endpoint
    EXPECT_EQ(render(pci.testRetrain(pfa(0, 3, 0))), unsupported);  // Intel NTB
    EXPECT_EQ(render(pci.testRetrain(pfa(0x40, 0, 0))), unsupported);  // no function
    // A training that never ends is reported after a second of polls.
    PciFunction& stuck = *fn("0000:00:02.2");
    stuck.enableLinkTraining(&board.clock(), 10ull * 1000 * 1000 * 1000);
    EXPECT_EQ(render(pci.testRetrain(pfa(0, 2, 2), 1)),
              "PCIDAPI::testRetrain -> PCIDDAPI::testRetrain: \"link training did not end\"");
}

// ---------------------------------------------------------------- EEPROM

TEST_F(RetrainEepromTest, EepromListSizeAndImageVersion) {
    PCIDAPI pci("PCIDAPI");
    testing::internal::CaptureStdout();
    EXPECT_EQ(render(pci.DisplayPCIeSwitchEepromList()), "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "eeprom0 (attached to PCIE switch 0000:01:00.0)\n");
    uint32_t size = 0;
    EXPECT_EQ(render(pci.getEepromSize("eeprom0", &size)), "");
    EXPECT_EQ(size, (static_cast<uint32_t>(image[2] | image[3] << 8)) + 8);
    EXPECT_EQ(size, 92u);
    EXPECT_EQ(render(pci.getEepromSize("eeprom1", &size)),
              "PCIDAPI::getEepromSize -> PCIDDAPI::getEeprom: \"Device is not found\"");
    // The version word of the upstream port's configuration (port 0 at 0x20C).
    fn("0000:01:00.0")->poke(0x20C, 0x0307, 2);
    testing::internal::CaptureStdout();
    EXPECT_EQ(render(pci.showEepromImageVersion("eeprom0")), "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "EEPROM Image version: 03.07\n");
    // Without an EEPROM the switch reports none.
    board.pci->plx->eeprom->present = false;
    std::vector<_EEPROM_INFO> list;
    EXPECT_EQ(render(pci.getEepromList(&list)), "");
    EXPECT_TRUE(list.empty());
    EXPECT_EQ(render(pci.showEepromImageVersion("eeprom0")),
              "PCIDDAPI::showEepromImageVersion -> PCIDDAPI::getEeprom: \"Device is not found\"");
}

TEST_F(RetrainEepromTest, ReadWriteByOffsetWithTheRangeLimit) {
    PCIDAPI pci("PCIDAPI");
    uint32_t words[3] = {0, 0, 0};
    ASSERT_EQ(render(pci.readEeprom("eeprom0", 0, 3, words)), "");
    EXPECT_EQ(words[0] & 0xFF, 0x5Au);
    EXPECT_EQ(words[1], static_cast<uint32_t>(image[4] | image[5] << 8 | image[6] << 16 | image[7] << 24));
    uint32_t value[1] = {0x12345678};
    EXPECT_EQ(render(pci.writeEeprom("eeprom0", 16380, 1, value)), "");
    EXPECT_EQ(eepromBytes()[16380], 0x78);
    EXPECT_EQ(eepromBytes()[16383], 0x12);
    EXPECT_EQ(render(pci.readEeprom("eeprom0", 16380, 1, words)), "");
    EXPECT_EQ(words[0], 0x12345678u);
    EXPECT_EQ(render(pci.writeEeprom("eeprom0", 16384, 1, value)),
              "PCIDAPI::Fil to write EEPROM -> PCIDDAPI::writeEeprom: \"out of range\"");
    EXPECT_EQ(render(pci.readEeprom("eeprom0", 16384, 1, words)),
              "PCIDAPI::Failt to read EEPROM -> PCIDDAPI::ReadAttachedFlash: \"out of range\"");
    EXPECT_EQ(render(pci.readEeprom("eeprom9", 0, 1, words)),
              "PCIDAPI::Failt to read EEPROM -> PCIDDAPI::getEeprom: \"Device is not found\"");
}

TEST_F(RetrainEepromTest, CommandWordsKeepTheOtherBitsAndAddressBitThirteen) {
    PCIDDAPI dev("PCIDDAPI");
    ASSERT_EQ(render(dev.setEepromBase(pfa(1, 0, 0))), "");
    // Dword 0x2001 lies past 32 KB: bit 13 travels in bit 20 and the chip wraps it.
    eepromBytes()[4] = 0xA5;
    uint32_t v = 0;
    ASSERT_EQ(render(dev.readEepromDword(0x2001, &v)), "");
    EXPECT_EQ(v & 0xFF, 0xA5u);
    const uint32_t control = board.pci->plx->read(0x260, 4);
    EXPECT_EQ(control & 0x1FFF, 0x0001u);
    EXPECT_EQ(control & 0x100000, 0x100000u);
    EXPECT_EQ((control >> 13) & 7, 3u);  // the last command: read
    EXPECT_EQ((control >> 16) & 3, 1u);  // present, valid signature
}

TEST_F(RetrainEepromTest, CommandsKeepBitsOutsideTheirFields) {
    PCIDDAPI dev("PCIDDAPI");
    ASSERT_EQ(render(dev.setEepromBase(pfa(1, 0, 0))), "");
    board.pci->plx->write(0x260, 0x00C00000, 4);  // bits 23:22, owned by nobody here
    uint32_t v = 0;
    ASSERT_EQ(render(dev.readEepromDword(3, &v)), "");
    ASSERT_EQ(render(dev.writeEepromDword(3, v)), "");
    EXPECT_EQ(board.pci->plx->read(0x260, 4) & 0x00C00000, 0x00C00000u);
}

TEST_F(RetrainEepromTest, SwitchBarIsTheFirstTwoDwordsAsOneAddress) {
    PCIDDAPI dev("PCIDDAPI");
    std::vector<_EEPROM_INFO> list;
    ASSERT_EQ(render(dev.scanEeproms(&list)), "");
    EXPECT_EQ(list.size(), 1u);
    // With an upper dword the registers lie above 1 TB, where nothing answers: reads
    // come back all ones, so the controller looks busy for ever.
    fn("0000:01:00.0")->poke(0x14, 0x100, 4);
    ASSERT_EQ(render(dev.setEepromBase(pfa(1, 0, 0))), "");
    uint32_t v = 0;
    EXPECT_EQ(render(dev.readEepromDword(0, &v)),
              "PCIDDAPI::readEepromDword -> PCIDDAPI::time out to wait eeprom idle -> "
              "PCIDDAPI::fail to send eeprom command: \"Time out\"");
    EXPECT_EQ(board.pci->plx->eeprom->eeprom().writes(), 0u);
}

TEST_F(RetrainEepromTest, StuckControllerTimesOutAndLeavesThePlaceholder) {
    PCIDDAPI dev("PCIDDAPI");
    ASSERT_EQ(render(dev.setEepromBase(pfa(1, 0, 0))), "");
    board.pci->plx->eeprom->stuckBusy = true;
    uint32_t v = 0;
    EXPECT_EQ(render(dev.readEepromDword(5, &v)),
              "PCIDDAPI::readEepromDword -> PCIDDAPI::time out to wait eeprom idle -> "
              "PCIDDAPI::fail to send eeprom command: \"Time out\"");
    EXPECT_EQ(v, 0u);  // the idle wait failed before the placeholder
}

TEST_F(RetrainEepromTest, PatternTestPutsTheImageBackAlsoAfterAFlippedBit) {
    PCIDAPI pci("PCIDAPI");
    EXPECT_EQ(render(pci.testEeprom("eeprom0")), "");
    EXPECT_EQ(eepromBytes(), image);
    board.pci->plx->eeprom->eeprom().flipBitOnNextWrite(9, 4);
    EXPECT_EQ(render(pci.testEeprom("eeprom0")),
              "PCIDAPI::eeprom test fail -> PCIDDAPI::testEeprom: \"compare data fail\"");
    EXPECT_EQ(eepromBytes(), image);
}

TEST_F(RetrainEepromTest, PatternTestRefusesAnImageWithoutSignature) {
    PCIDAPI pci("PCIDAPI");
    eepromBytes()[0] = 0x00;
    const unsigned writes = board.pci->plx->eeprom->eeprom().writes();
    EXPECT_EQ(render(pci.testEeprom("eeprom0")),
              "PCIDAPI::eeprom test fail -> PCIDDAPI::testEeprom: \"Invalid eeprom signature\"");
    EXPECT_EQ(board.pci->plx->eeprom->eeprom().writes(), writes);
}

TEST_F(RetrainEepromTest, SaveAndProgramRoundTripWithTheProgressPrinter) {
    PCIDAPI pci("PCIDAPI");
    testing::internal::CaptureStdout();
    ASSERT_EQ(render(pci.saveEeprom("eeprom0", "/tmp/eeprom0.bin")), "");
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("progress:  0%\r"), std::string::npos);
    EXPECT_NE(out.find("Progressing: 100%\nCompleted!\n"), std::string::npos);
    const std::string saved = readHostFile("/tmp/eeprom0.bin");
    ASSERT_EQ(saved.size(), 92u);
    EXPECT_EQ(saved, std::string(image.begin(), image.begin() + 92));

    // Program a changed image from the file, then the saved one back.
    std::string changed = saved;
    changed[10] = 0x3C;
    board.writeFile("/tmp/changed.bin", changed);
    testing::internal::CaptureStdout();
    EXPECT_EQ(render(pci.programEeprom("eeprom0", "/tmp/changed.bin")), "");
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(eepromBytes()[10], 0x3C);
    testing::internal::CaptureStdout();
    EXPECT_EQ(render(pci.programEeprom("eeprom0", "/tmp/eeprom0.bin")), "");
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(eepromBytes(), image);
}

TEST_F(RetrainEepromTest, ProgrammingFromBadFilesFailsBeforeAnyWrite) {
    PCIDAPI pci("PCIDAPI");
    const unsigned writes = board.pci->plx->eeprom->eeprom().writes();
    const std::string head = "PCIDAPI::programEeprom: ";
    EXPECT_EQ(render(pci.programEeprom("eeprom0", "/tmp/missing.bin")), head + "\"open file fail\"");
    board.writeFile("/tmp/empty.bin", "");
    EXPECT_EQ(render(pci.programEeprom("eeprom0", "/tmp/empty.bin")), head + "\"empty file\"");
    board.writeFile("/tmp/large.bin", std::string(16385, 'x'));
    EXPECT_EQ(render(pci.programEeprom("eeprom0", "/tmp/large.bin")), head + "\"file is larger than the EEPROM\"");
    // A configuration image cut short of the length in its first dword.
    board.writeFile("/tmp/short.bin", std::string(image.begin(), image.begin() + 40));
    EXPECT_EQ(render(pci.programEeprom("eeprom0", "/tmp/short.bin")), head + "\"file is shorter than its image\"");
    mkdir(board.hostPath("/tmp/dir.bin").c_str(), 0755);
    EXPECT_EQ(render(pci.programEeprom("eeprom0", "/tmp/dir.bin")), head + "\"open file fail\"");
    EXPECT_EQ(render(pci.programEeprom("eeprom7", "/tmp/short.bin")),
              head.substr(0, head.size() - 2) + " -> PCIDDAPI::getEeprom: \"Device is not found\"");
    EXPECT_EQ(board.pci->plx->eeprom->eeprom().writes(), writes);
    EXPECT_EQ(eepromBytes(), image);
}

TEST_F(RetrainEepromTest, TenByteFileProgramsThreeDwordsPaddedWithErasedBytes) {
    PCIDAPI pci("PCIDAPI");
    board.writeFile("/tmp/ten.bin", std::string("\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a", 10));
    testing::internal::CaptureStdout();
    EXPECT_EQ(render(pci.programEeprom("eeprom0", "/tmp/ten.bin")), "");
    testing::internal::GetCapturedStdout();
    const std::vector<uint8_t>& bytes = eepromBytes();
    EXPECT_EQ(std::vector<uint8_t>(bytes.begin(), bytes.begin() + 13),
              (std::vector<uint8_t>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 0xFF, 0xFF, image[12]}));
}

TEST_F(RetrainEepromTest, SaveReplacesAPlantedLinkInsteadOfFollowingIt) {
    PCIDAPI pci("PCIDAPI");
    board.writeFile("/etc/victim", "keep me\n");
    board.makeSymlink(board.hostPath("/etc/victim"), "/tmp/planted.bin");
    testing::internal::CaptureStdout();
    EXPECT_EQ(render(pci.saveEeprom("eeprom0", "/tmp/planted.bin")), "");
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(readHostFile("/etc/victim"), "keep me\n");
    struct stat st;
    ASSERT_EQ(lstat(board.hostPath("/tmp/planted.bin").c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_size, 92);
    EXPECT_EQ(render(pci.saveEeprom("eeprom0", "/nonexistent/dir/x.bin")), "PCIDAPI::saveEeprom: \"open file fail\"");
}

}  // namespace
