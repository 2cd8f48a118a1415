// I2C transfers on the board: switch routing, SPD pages, VPD page writes, the diagnostic
// tests and the failures the kernel reports.
#include <linux/i2c-dev.h>

#include <cerrno>
#include <vector>

#include "dapi/i2c/I2CDAPI.h"
#include "ddapi/i2c/I2CDDAPI.h"
#include "tests/i2c/I2cTestSupport.h"

namespace {

using i2ctest::render;
using quarn::vboard::I2cWireMessage;

class I2cTransferTest : public i2ctest::BoardTest {
protected:
    I2CDAPI api{"I2CDAPI"};

    std::vector<I2cWireMessage> wire(int bus) {
        const auto& log = i2c().adapter[bus]->wireLog();
        return std::vector<I2cWireMessage>(log.begin(), log.end());
    }
    void clearWire() {
        for (auto& a : i2c().adapter) a->clearWireLog();
    }
};

// Index of the first message to addr7 in direction read, or -1.
int firstTo(const std::vector<I2cWireMessage>& log, int addr7, bool read) {
    for (size_t i = 0; i < log.size(); ++i)
        if (log[i].addr7 == addr7 && log[i].read == read) return static_cast<int>(i);
    return -1;
}

TEST_F(I2cTransferTest, BoardProfileBuildsWithoutWarnings) {
    I2CDDAPI dev("I2C_drv");
    EXPECT_EQ(render(dev.getErrorMsg()), "");
    EXPECT_EQ(render(dev.getProfileWarnings()), "");
    EXPECT_EQ(dev.getSwitchCount(), 3);
    std::list<std::string> lines;
    EXPECT_EQ(render(api.DisplayI2cDevicesList(&lines)), "");
    ASSERT_EQ(lines.size(), 18u);
    EXPECT_EQ(lines.front(), "mux0 0 0xe0 0x3 0x4 0x5 0x6 ");
    EXPECT_EQ(*std::next(lines.begin()), "max6657 0 0x98 ");
    I2CDevice* spd[200];
    EXPECT_EQ(render(api.DisplayI2cDevicesListByType(spd, I2C_DEVICE_TYPE_SPD_DDR4)), "");
    int n = 0;
    while (n < 200 && spd[n]) {
        EXPECT_EQ(spd[n]->get_vender(), "Samsung");
        EXPECT_EQ(spd[n]->get_Master_bus(), nullptr);
        delete spd[n++];
    }
    EXPECT_EQ(n, 4);
}

TEST_F(I2cTransferTest, CascadedRouteIsWrittenRootSideFirst) {
    unsigned char data[32];
    int count = -1;
    EXPECT_EQ(render(api.Read("bp-vpd", 0, 17, data, &count)), "");
    ASSERT_EQ(count, 18);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(data), 18), "BP-12G-SAS-8 rev B");
    EXPECT_EQ(i2c().mux0->controlWrites(), std::vector<uint8_t>({0x08}));
    EXPECT_EQ(i2c().mux1->controlWrites(), std::vector<uint8_t>({0x01}));
    const auto log = wire(0);
    const int m0 = firstTo(log, 0x70, false), m1 = firstTo(log, 0x72, false), dev = firstTo(log, 0x57, false);
    ASSERT_GE(m0, 0);
    EXPECT_LT(m0, m1);
    EXPECT_LT(m1, dev);
    EXPECT_EQ(log[m0].data, std::vector<uint8_t>({0x08}));
    EXPECT_EQ(log[m1].data, std::vector<uint8_t>({0x01}));
}

TEST_F(I2cTransferTest, CascadeListedDeviceSideFirstIsStillWrittenRootSideFirst) {
    setProfile(
        "[BUS]\nsmbus0 0 100 pch-smbus\n"
        "[Topology]\nmux1 6 0xe4 mux 7 8\nmux0 0 0xe0 mux 3 4 5 6\nbp-vpd 7 0xae vpd\n"
        "[Protocol]\nbp-vpd all=vpd_block_data\n");
    int data[8];
    int count = 0;
    EXPECT_EQ(render(api.Read("bp-vpd", 0, 1, data, &count)), "");
    EXPECT_EQ(count, 2);
    const auto log = wire(0);
    const int m0 = firstTo(log, 0x70, false), m1 = firstTo(log, 0x72, false);
    ASSERT_GE(m0, 0);
    ASSERT_GE(m1, 0);
    EXPECT_LT(m0, m1);
}

TEST_F(I2cTransferTest, DeviceOnPhysicalBusCausesNoSwitchWrite) {
    int data[4];
    int count = 0;
    EXPECT_EQ(render(api.Read("max6657", 0, 1, data, &count)), "");
    ASSERT_EQ(count, 2);
    EXPECT_EQ(data[0], 41);
    EXPECT_EQ(data[1], 52);
    EXPECT_EQ(firstTo(wire(0), 0x70, false), -1);
    EXPECT_TRUE(i2c().mux0->controlWrites().empty());
}

TEST_F(I2cTransferTest, DeviceBehindChannelOneGetsMaskTwoThenReadsThroughBusZero) {
    setProfile(
        "[BUS]\nsmbus0 0 100 ctl0\nsmbus1 1 100 ctl1\n"
        "[Topology]\nmux0 0 0xe0 mux 2 3\npsu1 3 0xb0 psu\n");
    int data[4];
    int count = 0;
    EXPECT_EQ(render(api.Read(3, 0xb0, 0x98, 0x98, data, &count)), "");
    ASSERT_EQ(count, 1);
    EXPECT_EQ(data[0], 0x22);  // PMBUS_REVISION of the supply behind channel 1
    const auto log = wire(0);
    ASSERT_GE(log.size(), 3u);
    EXPECT_EQ(log[0].addr7, 0x70);
    EXPECT_EQ(log[0].data, std::vector<uint8_t>({0x02}));
    EXPECT_EQ(log[1].addr7, 0x58);
    EXPECT_EQ(log[1].data, std::vector<uint8_t>({0x98}));
}

TEST_F(I2cTransferTest, Ddr4SpdRegisterAbove255SelectsPageOneFirst) {
    int data[4];
    int count = 0;
    EXPECT_EQ(render(api.Read("spd-dimm0", 0x140, 0x140, data, &count)), "");
    ASSERT_EQ(count, 1);
    EXPECT_EQ(data[0], 0x80);  // module manufacturer bank byte
    const auto log = wire(1);
    const int select = firstTo(log, 0x37, false);
    const int command = firstTo(log, 0x50, false);
    ASSERT_GE(select, 0);
    ASSERT_GT(command, select);
    EXPECT_EQ(log[command].data, std::vector<uint8_t>({0x40}));
    EXPECT_EQ(i2c().spd[0]->page(), 1);
}

TEST_F(I2cTransferTest, Ddr4SpdReadsBothPagesWithValidCrcs) {
    int data[512];
    int count = 0;
    EXPECT_EQ(render(api.Read("spd-dimm3", 0, 511, data, &count)), "");
    ASSERT_EQ(count, 512);
    std::vector<uint8_t> bytes(data, data + 512);
    EXPECT_EQ(bytes, i2c().spd[3]->bytes());
    const uint16_t crc0 = quarn::vboard::spdCrc16(bytes.data(), 126);
    EXPECT_EQ(bytes[126] | (bytes[127] << 8), crc0);
    const uint16_t crc1 = quarn::vboard::spdCrc16(bytes.data() + 128, 126);
    EXPECT_EQ(bytes[254] | (bytes[255] << 8), crc1);
    EXPECT_EQ(std::string(bytes.begin() + 329, bytes.begin() + 345), "M393A2K40BB2-CTD");
    // The other module on the channel heard every page command too and stays in step.
    EXPECT_EQ(i2c().spd[2]->page(), 1);
}

TEST_F(I2cTransferTest, VpdWriteAcrossPageGoesOutInPagePieces) {
    std::vector<unsigned char> bytes(40);
    for (int i = 0; i < 40; ++i) bytes[i] = static_cast<unsigned char>(0x30 + i);
    EXPECT_EQ(render(api.Write("vpd0", 0x1F0, bytes.data(), 40)), "");
    using Piece = std::pair<uint16_t, uint16_t>;
    EXPECT_EQ(i2c().vpd->pageWrites(), std::vector<Piece>({{0x1F0, 16}, {0x200, 24}}));
    unsigned char back[40];
    int count = 0;
    EXPECT_EQ(render(api.Read("vpd0", 0x1F0, 0x217, back, &count)), "");
    ASSERT_EQ(count, 40);
    EXPECT_EQ(std::vector<unsigned char>(back, back + 40), bytes);
}

TEST_F(I2cTransferTest, WordWriteByNameSendsHighByteFirstValueAsWord) {
    unsigned short limit = 0x1234;
    EXPECT_EQ(render(api.Write("psu0", 0x4A, &limit, 1)), "");
    const auto& writes = i2c().psu[0]->writes();
    ASSERT_FALSE(writes.empty());
    // The word (0x12 << 8 | 0x34) goes out low byte first.
    EXPECT_EQ(writes.back(), std::vector<uint8_t>({0x4A, 0x34, 0x12}));
}

TEST_F(I2cTransferTest, PmbusBlockAndSmbusBlockReads) {
    unsigned char text[64];
    int count = 0;
    EXPECT_EQ(render(api.Read("psu1", 0x9A, 0x9A, text, &count)), "");
    EXPECT_EQ(std::string(reinterpret_cast<char*>(text), count), "DPS-550AB-40 A");
    EXPECT_EQ(render(api.Read("bbu0", 0x21, 0x21, text, &count)), "");
    EXPECT_EQ(std::string(reinterpret_cast<char*>(text), count), "bq40z50");
    unsigned short words[4];
    EXPECT_EQ(render(api.Read("bbu0", 0x09, 0x09, words, &count)), "");
    ASSERT_EQ(count, 1);
    EXPECT_EQ(words[0], 12600);
}

TEST_F(I2cTransferTest, PmbusBlockWithCountZeroFails) {
    i2c().psu[0]->setReply(0x9E, {0x00});
    int data[32];
    int count = 7;
    EXPECT_EQ(render(api.Read("psu0", 0x9E, 0x9E, data, &count)),
              "I2CDAPI::Read -> I2CDDAPI::read: \"I2C read i2c block data fail - block count 0\"");
    EXPECT_EQ(count, 0);
}

TEST_F(I2cTransferTest, BlockCountAbove31IsRefused) {
    std::vector<uint8_t> reply(33, 0x41);
    reply[0] = 40;
    i2c().psu[0]->setReply(0x9E, reply);
    int data[64];
    int count = 0;
    EXPECT_EQ(render(api.Read("psu0", 0x9E, 0x9E, data, &count)),
              "I2CDAPI::Read -> I2CDDAPI::read: \"I2C read i2c block data fail - block count 40 above 31\"");
}

TEST_F(I2cTransferTest, ReadLargerThanTheFormsBufferIsRefusedBeforeAnyTransfer) {
    std::vector<unsigned short> words(4096);
    int count = 0;
    clearWire();
    EXPECT_EQ(render(api.Read("vpd0", 0, 2047, words.data(), &count)),
              "I2CDAPI::Read: \"By well_know_name\" -> I2CDDAPI::read: "
              "\"out of range - 2048 values do not fit a buffer of 1024\"");
    EXPECT_TRUE(wire(2).empty());
    int small[4];
    EXPECT_EQ(render(api.Read("max6657", 0, 4, small, &count, 4)),
              "I2CDAPI::Read -> I2CDDAPI::read: \"out of range - 5 values do not fit a buffer of 4\"");
    // An SMBus block longer than the caller's buffer is refused before it is stored.
    EXPECT_EQ(render(api.Read("bbu0", 0x20, 0x20, small, &count, 4)),
              "I2CDAPI::Read -> I2CDDAPI::read: "
              "\"I2C read block data fail - block of 11 bytes does not fit a buffer of 4\"");
}

TEST_F(I2cTransferTest, RegistersAbove511AreRefused) {
    int data[8];
    int count = 0;
    EXPECT_EQ(render(api.Read("spd-dimm0", 0x1FF, 0x200, data, &count)),
              "I2CDAPI::Read -> I2CDDAPI::read: \"out of range - registers 0x1ff-0x200 outside 0 to 0x1ff\"");
    int v[2] = {1, 2};
    EXPECT_EQ(render(api.Write("spd-dimm0", 0x1FF, v, 2)),
              "I2CDAPI::Write: \"By well_know_name\" -> I2CDDAPI::write: "
              "\"out of range - registers 0x1ff-0x200 outside 0 to 0x1ff\"");
}

TEST_F(I2cTransferTest, ByteDataReadWithEndBeforeStartReadsNothing) {
    int data[4];
    int count = 9;
    EXPECT_EQ(render(api.Read("max6657", 3, 2, data, &count)), "");
    EXPECT_EQ(count, 0);
}

TEST_F(I2cTransferTest, AbsentDeviceIsNotAcknowledged) {
    i2c().max6657->setPresent(false);
    int data[4];
    int count = 0;
    EXPECT_EQ(render(api.Read(0, 0x98, 0, 0, data, &count)),
              "I2CDAPI::Read: \"By bus_address\" -> I2CDDAPI::read: "
              "\"I2C read byte data fail - No such device or address\"");
}

TEST_F(I2cTransferTest, KernelFailuresCarryTheSystemText) {
    board.device("/dev/i2c-0")->faults().ioctlErrno[I2C_SMBUS] = EIO;
    int data[4];
    int count = 0;
    EXPECT_EQ(render(api.Read("max6657", 0, 0, data, &count)),
              "I2CDAPI::Read -> I2CDDAPI::read: \"I2C read byte data fail - Input/output error\"");
    board.device("/dev/i2c-0")->faults().ioctlErrno[I2C_SLAVE] = EBUSY;
    EXPECT_EQ(render(api.Write("max6657", 9, data, 1)),
              "I2CDAPI::Write: \"By well_know_name\" -> I2CDDAPI::write: "
              "\"I2C set slave address fail - Device or resource busy\"");
    board.device("/dev/i2c-2")->faults().openErrno = ENOENT;
    EXPECT_EQ(render(api.Read("vpd0", 0, 3, data, &count)),
              "I2CDAPI::Read -> I2CDDAPI::read: \"I2C node open fail - No such file or directory\"");
}

TEST_F(I2cTransferTest, UnknownDeviceIsReported) {
    int data[4];
    int count = 0;
    EXPECT_EQ(render(api.Read("nothing", 0, 0, data, &count)),
              "I2CDAPI::Read -> I2CDDAPI::read: \"No I2C device - by well_know_name\"");
    EXPECT_EQ(render(api.Write(7, 0x20, 0, data, 1)),
              "I2CDAPI::Write: \"By bus_address\" -> I2CDDAPI::write: \"No I2C device - by bus_address\"");
}

TEST_F(I2cTransferTest, MuxTestPassesAndFails) {
    EXPECT_EQ(render(api.MUX_Test("mux0")), "");
    EXPECT_EQ(i2c().mux0->control(), 0x02);
    EXPECT_EQ(render(api.MUX_Test("max6657")),
              "I2CDAPI::MUX_Test -> I2CDDAPI::mux_test: \"Type is not match - Type is not MUX\"");
    i2c().mux2->setPresent(false);
    EXPECT_EQ(render(api.MUX_Test("mux2")),
              "I2CDAPI::MUX_Test -> I2CDDAPI::mux_test -> I2CDDAPI::write: "
              "\"I2C write byte fail - No such device or address\"");
    EXPECT_EQ(render(api.StuckPrevention(0)), "I2CDDAPI::mux_test: \"Not Support\"");
}

TEST_F(I2cTransferTest, RoutePathTexts) {
    std::string path;
    EXPECT_EQ(render(api.ShowRoutePath("bp-vpd", &path)), "");
    EXPECT_EQ(path, "pch-smbus->Bus0->mux0->Bus6->mux1->Bus7->bp-vpd");
    EXPECT_EQ(render(api.ShowRoutePath("vpd0", &path)), "");
    EXPECT_EQ(path, "fpga-i2c->Bus2->vpd0");
    EXPECT_EQ(render(api.ShowRoutePath("spd-dimm2", &path)), "");
    EXPECT_EQ(path, "imc-smbus->Bus1->mux2->Busa->spd-dimm2");
    EXPECT_TRUE(i2c().mux2->controlWrites().empty()) << "route texts write no switch";
}

TEST_F(I2cTransferTest, WriteReadTestLeavesContentsAsTheyWere) {
    const std::vector<uint8_t> before = i2c().spd[1]->bytes();
    EXPECT_EQ(render(api.WriteReadTest("spd-dimm1")), "");
    EXPECT_EQ(i2c().spd[1]->bytes(), before);
}

// A register file with one data bit stuck low, as a damaged cell reads.
class StuckBitMemory : public quarn::vboard::RegisterFileModel {
public:
    uint8_t readByte(uint8_t addr7) override {
        const bool stuck = pointer == 5;
        pointer = (pointer + 1) % 256;
        const uint8_t v = RegisterFileModel::readByte(addr7);
        return stuck ? static_cast<uint8_t>(v & ~1u) : v;
    }
    bool writeByte(uint8_t addr7, uint8_t value) override {
        if (first) pointer = value;
        first = false;
        return RegisterFileModel::writeByte(addr7, value);
    }
    bool start(uint8_t addr7, bool read) override {
        if (!read) first = true;
        return RegisterFileModel::start(addr7, read);
    }
    size_t pointer = 0;
    bool first = false;
};

TEST_F(I2cTransferTest, FailedWriteReadTestRestoresTheOriginalContents) {
    auto memory = std::make_shared<StuckBitMemory>();
    for (int i = 0; i < 256; ++i) memory->bytes()[i] = static_cast<uint8_t>(i * 2);
    const std::vector<uint8_t> before = memory->bytes();
    i2c().adapter[2]->segment().attach(0x50, memory);
    setProfile("[BUS]\nsmbus0 0 100 a\nsmbus1 1 100 b\ni2c2 2 400 c\n[Topology]\nmem0 2 0xa0 unknown\n");
    testing::internal::CaptureStdout();
    ErrorMsg* e = api.WriteReadTest("mem0");
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(render(e), "I2CDAPI::MUX_Test: \"compare fail at register 0x5\"");
    EXPECT_EQ(printed, "Expect: 0x55, get value: 54, compare fail!\n");
    EXPECT_EQ(memory->bytes(), before);
}

TEST_F(I2cTransferTest, WriteReadTestTransferFailureIsChained) {
    EXPECT_EQ(render(api.WriteReadTest("max6657")),
              "I2CDAPI::MUX_Test -> I2CDDAPI::write: \"I2C write byte data fail - Input/output error\"");
    int local[1] = {0};
    int n = 0;
    EXPECT_EQ(render(api.Read("max6657", 0, 0, local, &n)), "");
    EXPECT_EQ(local[0], 41);
}

TEST_F(I2cTransferTest, DisplayBufferContentLayout) {
    std::vector<int> values(17);
    for (int i = 0; i < 17; ++i) values[i] = i;
    testing::internal::CaptureStdout();
    api.DisplayBufferContent(values.data(), 17);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "0000: 00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f \n0010: 10 \n");
    testing::internal::CaptureStdout();
    api.DisplayBufferContent(values.data(), 16);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "0000: 00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f \n");
    testing::internal::CaptureStdout();
    api.DisplayBufferContent(values.data(), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\n");
}

}  // namespace
