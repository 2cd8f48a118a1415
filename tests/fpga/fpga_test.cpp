// FPGA registers and scratch pad against the virtual board's FPGA.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "api/platform/Platform.h"
#include "dapi/fpga/FPGADAPI.h"
#include "ddapi/fpga/FPGADDAPI.h"
#include "tests/lib/Render.h"
#include "vboard/Board.h"

namespace {

using quarn::test::render;
using quarn::vboard::FpgaModel;

class FpgaTest : public ::testing::Test {
protected:
    void SetUp() override { quarn::installPlatform(&board); }
    void TearDown() override {
        quarn::installPlatform(nullptr);
        EXPECT_EQ(board.portViolations(), 0u) << "a port was used without permission";
    }
    // Register writes that reached the block.
    std::vector<uint32_t> writesTo(uint32_t offset) {
        std::vector<uint32_t> values;
        for (const FpgaModel::Access& a : board.fpga->accessLog())
            if (a.write && a.offset == offset) values.push_back(a.value);
        return values;
    }

    quarn::vboard::Board board;
};

TEST_F(FpgaTest, BaseComesFromTheTwoBoardPorts) {
    FPGADDAPI fpga;
    EXPECT_EQ(render(fpga.getErrorMsg()), "");
    EXPECT_EQ(fpga.getBaseAddress(), 0xFE200000u);
    EXPECT_EQ(fpga.baseAddress(), 0xFE200000u);
}

TEST_F(FpgaTest, AnotherBaseMovesEveryAccess) {
    // Port 0x700 gives bits 23-16, 0x701 bits 31-24: reading 0x21/0xFE puts the block
    // at 0xFE210000, where nothing answers, so a register there reads the floating bus.
    board.stickPort(0x700, 0x21);
    FPGADDAPI fpga;
    EXPECT_EQ(fpga.baseAddress(), 0xFE210000u);
    unsigned char v = 0;
    board.fpga->clearAccessLog();
    EXPECT_EQ(render(fpga.read("fpga0", 17, &v)), "");
    EXPECT_TRUE(board.fpga->accessLog().empty());
}

TEST_F(FpgaTest, NoPortAccessMeansNoFpgaAndNoAccess) {
    board.setPortAccessAllowed(false);
    FPGADAPI fpga("FPGADAPI");
    EXPECT_EQ(render(fpga.getErrorMsg()),
              "FPGADAPI::Constructor -> FPGADDAPI::Constructor: \"unknown base address\"");
    std::string value = "untouched";
    EXPECT_EQ(render(fpga.readReg("fpga0", 0, &value)),
              "FPGADAPI::readReg -> FPGADDAPI::read: \"unknown base address\"");
    EXPECT_EQ(value, "untouched");
    EXPECT_TRUE(board.fpga->accessLog().empty());
}

TEST_F(FpgaTest, BasePortsReadingZeroMeanNoFpga) {
    board.stickPort(0x700, 0);
    board.stickPort(0x701, 0);
    FPGADDAPI fpga;
    EXPECT_EQ(render(fpga.getErrorMsg()), "FPGADDAPI::Constructor: \"unknown base address\"");
}

TEST_F(FpgaTest, RegisterAccessRightsAndUnknownRegisters) {
    FPGADAPI fpga("FPGADAPI");
    ASSERT_EQ(render(fpga.getErrorMsg()), "");
    std::string v;
    EXPECT_EQ(render(fpga.readReg("fpga0", 16, &v)),
              "FPGADAPI::readReg -> FPGADDAPI::read: \"register is write-only - register: 0x10\"");
    EXPECT_EQ(render(fpga.writeReg("fpga0", 17, "1")),
              "FPGADAPI::writeReg -> FPGADDAPI::write: \"register is read-only - register: 0x11\"");
    EXPECT_EQ(render(fpga.readReg("fpga0", 8, &v)), "FPGADAPI::readReg -> FPGADDAPI::read: \"unknown register\"");
    EXPECT_EQ(render(fpga.readReg("fpga0", 30, &v)), "FPGADAPI::readReg -> FPGADDAPI::read: \"unknown register\"");
    EXPECT_EQ(render(fpga.writeReg("fpga0", 45, "1")),
              "FPGADAPI::writeReg -> FPGADDAPI::write: \"unknown register\"");
    EXPECT_EQ(render(fpga.readReg("fpga1", 0, &v)), "FPGADAPI::readReg -> FPGADDAPI::read: \"No device is found\"");
    EXPECT_EQ(render(fpga.readReg("FPGA0", 0, &v)), "FPGADAPI::readReg -> FPGADDAPI::read: \"No device is found\"");
    EXPECT_EQ(render(fpga.readReg("fpga0", 0, nullptr)), "FPGADAPI::readReg: \"Bad parameter 3 - NULL pointer\"");
    EXPECT_EQ(render(fpga.writeReg("fpga1", 0, "1")),
              "FPGADAPI::writeReg -> FPGADDAPI::write: \"No device is found\"");
}

TEST_F(FpgaTest, RefusedAccessesNeverReachTheBlock) {
    FPGADAPI fpga("FPGADAPI");
    board.fpga->clearAccessLog();
    // Every read-only register refuses a write, every write-only one a read.
    for (unsigned reg = 0; reg < 64; ++reg) {
        const FPGA_REG_INFO* info = fpga.device()->getRegInfo(reg);
        std::string v;
        if (!info || info->access == FPGADDAPI::kAccessReadOnly) {
            EXPECT_NE(render(fpga.writeReg("fpga0", reg, "0xff")), "");
        }
        if (!info || info->access == FPGADDAPI::kAccessWriteOnly) {
            EXPECT_NE(render(fpga.readReg("fpga0", reg, &v)), "");
        }
    }
    EXPECT_TRUE(board.fpga->accessLog().empty()) << board.fpga->accessLog().size() << " accesses";
    EXPECT_EQ(board.fpga->peek(17), 0x23);  // the version is still there
}

TEST_F(FpgaTest, RegisterTableHasItsTwentyNineRows) {
    FPGADDAPI fpga;
    unsigned rw = 0, ro = 0, wo = 0;
    for (unsigned reg = 0; reg < 256; ++reg) {
        const FPGA_REG_INFO* info = fpga.getRegInfo(reg);
        if (!info) {
            EXPECT_EQ(fpga.getRegSize(reg), 0u);
            continue;
        }
        EXPECT_EQ(info->offset, reg);
        EXPECT_EQ(fpga.getRegSize(reg), 1u);
        rw += info->access == 0;
        ro += info->access == 1;
        wo += info->access == 2;
    }
    EXPECT_EQ(rw, 8u);
    EXPECT_EQ(ro, 13u);
    EXPECT_EQ(wo, 8u);
    EXPECT_EQ(fpga.getRegInfo(42)->access, 1u);
    EXPECT_EQ(fpga.getRegInfo(29)->access, 2u);
    EXPECT_EQ(fpga.getRegInfo(30), nullptr);
}

TEST_F(FpgaTest, ValuesAsHexadecimalText) {
    FPGADAPI fpga("FPGADAPI");
    std::string v;
    board.fpga->poke(3, 0x0A);
    EXPECT_EQ(render(fpga.readReg("fpga0", 3, &v)), "");
    EXPECT_EQ(v, "0a");
    EXPECT_EQ(render(fpga.writeReg("fpga0", 3, "0x1ff")), "");
    EXPECT_EQ(board.fpga->peek(3), 0xFF);
    EXPECT_EQ(render(fpga.writeReg("fpga0", 4, "255")), "");
    EXPECT_EQ(board.fpga->peek(4), 0xFF);
    EXPECT_EQ(render(fpga.writeReg("fpga0", 5, "010")), "");
    EXPECT_EQ(board.fpga->peek(5), 8);
    EXPECT_EQ(render(fpga.writeReg("fpga0", 6, "  0X2ag")), "");  // trailing text ignored
    EXPECT_EQ(board.fpga->peek(6), 0x2A);
    EXPECT_THROW(fpga.writeReg("fpga0", 7, "zz"), std::invalid_argument);
    EXPECT_THROW(fpga.writeReg("fpga0", 7, "0x1ffffffffffffffffff"), std::out_of_range);
    EXPECT_EQ(render(fpga.readReg("fpga0", 17, &v)), "");
    EXPECT_EQ(v, "23");
    // Write-only registers are written, and read back as nothing on the bus.
    EXPECT_EQ(render(fpga.writeReg("fpga0", 19, "0x5a")), "");
    EXPECT_EQ(writesTo(19), std::vector<uint32_t>{0x5A});
    EXPECT_EQ(board.fpga->read(19), 0);
}

TEST_F(FpgaTest, AddressesOfRegistersAndScratchPad) {
    // With 0x20 on port 0x700 and 0xFE on 0x701, register 18 is at 0xFE200012 and
    // scratch-pad byte 5 at 0xFE208005: the model sees offsets 0x12 and 0x8005.
    FPGADDAPI fpga;
    board.fpga->poke(0x8005, 0x77);
    unsigned char v = 0;
    EXPECT_EQ(render(fpga.readSPAD("fpga0", 5, &v)), "");
    EXPECT_EQ(v, 0x77);
    EXPECT_EQ(render(fpga.writeSPAD("fpga0", 5, 0x11)), "");
    EXPECT_EQ(board.fpga->peek(0x8005), 0x11);
    board.fpga->clearAccessLog();
    EXPECT_EQ(render(fpga.read("fpga0", 18, &v)), "");
    ASSERT_EQ(board.fpga->accessLog().size(), 1u);
    EXPECT_EQ(board.fpga->accessLog()[0].offset, 0x12u);
}

TEST_F(FpgaTest, ScratchPadInfoAndArguments) {
    FPGADAPI fpga("FPGADAPI");
    unsigned start = 9, size = 9;
    EXPECT_EQ(render(fpga.getSPADInfo("fpga0", &start, &size)), "");
    EXPECT_EQ(start, 0u);
    EXPECT_EQ(size, 16384u);
    EXPECT_EQ(render(fpga.getSPADInfo("fpga0", nullptr, &size)),
              "FPGADAPI::getSPADInfo -> FPGADDAPI::getSPADInfo: \"Bad parameter 2 - NULL pointer\"");
    EXPECT_EQ(render(fpga.getSPADInfo("fpga0", &start, nullptr)),
              "FPGADAPI::getSPADInfo -> FPGADDAPI::getSPADInfo: \"Bad parameter 3 - NULL pointer\"");
    EXPECT_EQ(render(fpga.getSPADInfo("fpga2", &start, &size)),
              "FPGADAPI::getSPADInfo -> FPGADDAPI::getSPADInfo: \"No device is found\"");
    std::string v;
    EXPECT_EQ(render(fpga.readSPAD("fpga0", 0, nullptr)), "FPGADAPI::readSPAD: \"Bad parameter 3 - NULL pointer\"");
    EXPECT_EQ(render(fpga.readSPAD("x", 0, &v)), "FPGADAPI::readSPAD -> FPGADDAPI::readSPAD: \"No device is found\"");
    EXPECT_EQ(render(fpga.writeSPAD("x", 0, "1")),
              "FPGADAPI::writeSPAD -> FPGADDAPI::writeSPAD: \"No device is found\"");
    EXPECT_EQ(render(fpga.writeSPAD("fpga0", 16383, "0x3c")), "");
    EXPECT_EQ(render(fpga.readSPAD("fpga0", 16383, &v)), "");
    EXPECT_EQ(v, "3c");
    std::list<std::string> names;
    EXPECT_EQ(render(fpga.getDeviceList(&names)), "");
    EXPECT_EQ(names, std::list<std::string>{"fpga0"});
    EXPECT_EQ(render(fpga.getDeviceList(nullptr)),
              "FPGADAPI::getDeviceList -> FPGADDAPI::getDeviceList: \"Bad parameter - NULL pointer\"");
}

TEST_F(FpgaTest, ScratchPadTestPassesAndRestoresEveryByte) {
    std::vector<uint8_t> before(16384);
    for (uint32_t i = 0; i < before.size(); ++i) before[i] = board.fpga->peek(0x8000 + i);
    FPGADAPI fpga("FPGADAPI");
    unsigned failed = 0;
    EXPECT_EQ(render(fpga.spadTest("fpga0", &failed)), "");
    EXPECT_EQ(failed, 16384u);
    for (uint32_t i = 0; i < before.size(); ++i) ASSERT_EQ(board.fpga->peek(0x8000 + i), before[i]) << i;
    EXPECT_EQ(fpga.getProgress(), 100u);
}

TEST_F(FpgaTest, ScratchPadTestFindsTheStuckCellAndStillRestores) {
    board.fpga->stickSpadCell(0x1234, 0x55);  // passes 0x55, fails 0xAA
    // What the pad shows (the stuck cell's value): what a restore can put back.
    std::vector<uint8_t> before(16384);
    for (uint32_t i = 0; i < before.size(); ++i) before[i] = board.fpga->read(0x8000 + i);
    FPGADAPI fpga("FPGADAPI");
    unsigned failed = 0;
    EXPECT_EQ(render(fpga.spadTest("fpga0", &failed)),
              "FPGADAPI::readSPAD: \"unexpected value - SPAD offset 0x1234: wrote 0xaa, read 0x55\"");
    EXPECT_EQ(failed, 0x1234u);
    for (uint32_t i = 0; i < before.size(); ++i) ASSERT_EQ(board.fpga->read(0x8000 + i), before[i]) << i;

    // The last cell, stuck at zero, fails the first pattern.
    board.fpga->clearFaults();
    board.fpga->stickSpadCell(0x3FFF, 0x00);
    EXPECT_EQ(render(fpga.spadTest("fpga0", &failed)),
              "FPGADAPI::readSPAD: \"unexpected value - SPAD offset 0x3fff: wrote 0x55, read 0x00\"");
    EXPECT_EQ(failed, 0x3FFFu);
    for (uint32_t i = 0; i < 0x3FFF; ++i) ASSERT_EQ(board.fpga->read(0x8000 + i), before[i]) << i;
    EXPECT_EQ(render(fpga.spadTest("fpga9", &failed)),
              "FPGADAPI::getSPADInfo -> FPGADDAPI::getSPADInfo: \"No device is found\"");
}

}  // namespace
