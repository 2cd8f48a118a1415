// The DIMM inventory: SPD fields decoded in-library, the decode-dimms and dmidecode routes
// run as the real tools against the virtual board's SPD EEPROMs and SMBIOS table.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "api/ErrorText.h"
#include "api/platform/Files.h"
#include "api/platform/Platform.h"
#include "dapi/memory/MemoryDAPI.h"
#include "ddapi/memory/DIMMInformation.h"
#include "ddapi/memory/MemoryDDAPI.h"
#include "ddapi/memory/SPDDDAPI.h"
#include "vboard/Board.h"

#include "tests/lib/Render.h"
namespace {

using quarn::test::render;
bool hostToolsPresent() {
    return ::access("/usr/bin/decode-dimms", X_OK) == 0 && ::access("/usr/sbin/dmidecode", X_OK) == 0;
}

class DimmInventoryTest : public ::testing::Test {
protected:
    void SetUp() override { quarn::installPlatform(&board); }
    void TearDown() override { quarn::installPlatform(nullptr); }

    std::vector<uint8_t>& spd(int d) { return board.i2c->spd[d]->bytes(); }
    int toolCalls(const std::string& tool) {
        int n = 0;
        for (const auto& argv : board.smbios->calls()) n += argv[0] == tool;
        return n;
    }

    quarn::vboard::Board board;
};

// ---- SPD fields -------------------------------------------------------------------------

TEST_F(DimmInventoryTest, BoardDimmsDecodeFromTheirSpd) {
    SPDDDAPI reader;
    EXPECT_STREQ(reader.getClassName(), "SPDDDAPI");
    ASSERT_EQ(render(reader.getErrorMsg()), "");
    std::list<std::string> names;
    ASSERT_EQ(render(reader.getDeviceList(&names, true)), "");
    EXPECT_EQ(names, (std::list<std::string>{"spd-dimm0", "spd-dimm1", "spd-dimm2", "spd-dimm3"}));

    unsigned long long total = 0;
    int d = 0;
    for (const std::string& name : names) {
        DDRType type{};
        std::string module, part, serial, dram, maker;
        unsigned long long bytes = 0;
        unsigned int speed = 0, ranks = 0;
        EXPECT_EQ(render(reader.getDeviceType(name, &type)), "");
        EXPECT_EQ(render(reader.getModuleType(name, &module)), "");
        EXPECT_EQ(render(reader.getSize(name, &bytes)), "");
        EXPECT_EQ(render(reader.getSpeed(name, &speed)), "");
        EXPECT_EQ(render(reader.getRankCount(name, &ranks)), "");
        EXPECT_EQ(render(reader.getPartNumber(name, &part)), "");
        EXPECT_EQ(render(reader.getSerialNumber(name, &serial)), "");
        EXPECT_EQ(render(reader.getDRAMVendor(name, &dram)), "");
        EXPECT_EQ(render(reader.getModuleVendor(name, &maker)), "");
        EXPECT_EQ(type, DDR4);
        EXPECT_EQ(module, "Registered DIMM");
        EXPECT_EQ(bytes, 32ULL << 30);  // 8 Gb dies, x4, 2 ranks, 64-bit bus
        EXPECT_EQ(speed, 2400u);
        EXPECT_EQ(ranks, 2u);
        EXPECT_EQ(part, "M393A2K40BB2-CTD    ");  // trailing blanks kept
        EXPECT_EQ(serial, "3a1b000" + std::to_string(d));
        EXPECT_EQ(dram, "Samsung");
        EXPECT_EQ(maker, "Samsung");
        total += bytes;
        ++d;
    }
    // The SPD images and the memory controller describe the same memory.
    EXPECT_EQ(total, board.memory->totalBytes());
}

TEST_F(DimmInventoryTest, DeviceTypeAndNullOutputs) {
    SPDDDAPI reader;
    DDRType type{};
    spd(0)[2] = 0x0B;
    EXPECT_EQ(render(reader.getDeviceType("spd-dimm0", &type)), "");
    EXPECT_EQ(type, DDR3);
    spd(0)[2] = 0x0E;
    EXPECT_EQ(render(reader.getDeviceType("spd-dimm0", &type)),
              "SPDDDAPI::getDeviceType: \"unexpected value - unknown device\"");
    // A field whose layout is unknown is refused under its own row.
    unsigned int speed = 0;
    EXPECT_EQ(render(reader.getSpeed("spd-dimm0", &speed)),
              "SPDDDAPI::getSpeed -> SPDDDAPI::getDeviceType: \"unexpected value - unknown device\"");
    EXPECT_EQ(render(reader.getDeviceType("spd-dimm0", nullptr)),
              "SPDDDAPI::getDeviceType: \"Bad parameter 2 - NULL pointer\"");
    EXPECT_EQ(render(reader.getDRAMVendor("spd-dimm0", nullptr)),
              "SPDDDAPI::getDRAMVendor: \"Bad parameter 2 - NULL pointer\"");
    EXPECT_EQ(render(reader.getDeviceList(nullptr, false)), "SPDDDAPI::getDeviceList: \"Bad parameter - NULL pointer\"");

    // checkType drops the SPD that no longer names a known type.
    std::list<std::string> names;
    EXPECT_EQ(render(reader.getDeviceList(&names, true)), "");
    EXPECT_EQ(names, (std::list<std::string>{"spd-dimm1", "spd-dimm2", "spd-dimm3"}));
    EXPECT_EQ(render(reader.getDeviceList(&names, false)), "");
    EXPECT_EQ(names.size(), 4u);
}

TEST_F(DimmInventoryTest, ModuleTypeSpeedAndRanks) {
    SPDDDAPI reader;
    std::string module;
    spd(1)[3] = 0x04;
    EXPECT_EQ(render(reader.getModuleType("spd-dimm1", &module)), "");
    EXPECT_EQ(module, "Load Reduced DIMM");
    spd(1)[3] = 0x07;
    EXPECT_EQ(render(reader.getModuleType("spd-dimm1", &module)),
              "SPDDDAPI::getModuleType: \"unexpected value - unknown module\"");

    unsigned int speed = 0;
    spd(1)[18] = 0x05;
    EXPECT_EQ(render(reader.getSpeed("spd-dimm1", &speed)), "");
    EXPECT_EQ(speed, 3200u);
    spd(1)[18] = 0x0B;
    EXPECT_EQ(render(reader.getSpeed("spd-dimm1", &speed)), "SPDDDAPI::getSpeed: \"unexpected value - unknown speed(0x0b)\"");

    unsigned int ranks = 0;
    spd(1)[12] = 0x18;  // 4 ranks, x4
    EXPECT_EQ(render(reader.getRankCount("spd-dimm1", &ranks)), "");
    EXPECT_EQ(ranks, 4u);
    spd(1)[12] = 0x20;  // ranks field 4
    EXPECT_EQ(render(reader.getRankCount("spd-dimm1", &ranks)),
              "SPDDDAPI::getRankCount: \"unexpected value - unknown number of ranks(04)\"");
}

TEST_F(DimmInventoryTest, SizeDecodingAndItsRefusals) {
    SPDDDAPI reader;
    unsigned long long bytes = 0;
    // 8 Gbit dies, 64-bit bus, x8 devices, 2 ranks: 2 x 8 Gbit / 8 x 64 / 8 = 16 GiB.
    spd(2)[4] = 0x45;
    spd(2)[13] = 0x03;
    spd(2)[12] = 0x09;
    EXPECT_EQ(render(reader.getSize("spd-dimm2", &bytes)), "");
    EXPECT_EQ(bytes, 16ULL << 30);

    // 3DS: 2 package ranks of 4-high stacks are 8 logical ranks.
    spd(2)[6] = 0x80 | 0x30 | 0x02;
    EXPECT_EQ(render(reader.getSize("spd-dimm2", &bytes)), "");
    EXPECT_EQ(bytes, 64ULL << 30);
    spd(2)[12] = 0x19;  // 4 package ranks
    EXPECT_EQ(render(reader.getSize("spd-dimm2", &bytes)),
              "SPDDDAPI::getSize: \"unexpected value - unexpected number of ranks for 3DS\"");
    spd(2)[6] = 0x00;
    spd(2)[12] = 0x21;  // ranks field 4
    EXPECT_EQ(render(reader.getSize("spd-dimm2", &bytes)),
              "SPDDDAPI::getSize: \"unexpected value - unknown number of ranks(0x04)\"");
    spd(2)[12] = 0x0C;  // device width field 4
    EXPECT_EQ(render(reader.getSize("spd-dimm2", &bytes)),
              "SPDDDAPI::getSize: \"unexpected value - unknown SDRAM device width(0x04)\"");
    spd(2)[12] = 0x08;
    spd(2)[13] = 0x0C;  // bus width field 4
    EXPECT_EQ(render(reader.getSize("spd-dimm2", &bytes)),
              "SPDDDAPI::getSize: \"unexpected value - unknown bus width(0x04)\"");
    spd(2)[4] = 0x48;  // density 8
    EXPECT_EQ(render(reader.getSize("spd-dimm2", &bytes)),
              "SPDDDAPI::getSize: \"unexpected value - unknown SDRAM u32Capacity (0x08)\"");
    EXPECT_EQ(render(reader.getSize("spd-dimm2", nullptr)), "SPDDDAPI::getSize: \"Bad parameter 2 - NULL pointer\"");
}

TEST_F(DimmInventoryTest, Ddr3LayoutIsReadAtItsOwnOffsets) {
    board.i2c->spd[3]->load(quarn::vboard::makeDdr3RdimmSpd(0x12345678u));
    SPDDDAPI reader;
    unsigned long long bytes = 0;
    unsigned int speed = 0, ranks = 0;
    std::string part, serial, maker, dram;
    EXPECT_EQ(render(reader.getSize("spd-dimm3", &bytes)), "");
    EXPECT_EQ(render(reader.getSpeed("spd-dimm3", &speed)), "");
    EXPECT_EQ(render(reader.getRankCount("spd-dimm3", &ranks)), "");
    EXPECT_EQ(render(reader.getPartNumber("spd-dimm3", &part)), "");
    EXPECT_EQ(render(reader.getSerialNumber("spd-dimm3", &serial)), "");
    EXPECT_EQ(render(reader.getModuleVendor("spd-dimm3", &maker)), "");
    EXPECT_EQ(render(reader.getDRAMVendor("spd-dimm3", &dram)), "");
    EXPECT_EQ(bytes, 8ULL << 30);  // 4 Gbit dies, x8, 2 ranks
    EXPECT_EQ(speed, 1600u);
    EXPECT_EQ(ranks, 2u);
    EXPECT_EQ(part, "M393B5173QH0-CK0  ");
    EXPECT_EQ(serial, "12345678");
    EXPECT_EQ(maker, "Samsung");
    EXPECT_EQ(dram, "Samsung");
    // DDR3 density stops at 16 Gbit.
    spd(3)[4] = 0x07;
    EXPECT_EQ(render(reader.getSize("spd-dimm3", &bytes)),
              "SPDDDAPI::getSize: \"unexpected value - unknown SDRAM u32Capacity (0x07)\"");
}

TEST_F(DimmInventoryTest, SerialAndManufacturerBytes) {
    SPDDDAPI reader;
    std::string text;
    spd(0)[325] = 0x12;
    spd(0)[326] = 0x34;
    spd(0)[327] = 0xAB;
    spd(0)[328] = 0xCD;
    EXPECT_EQ(render(reader.getSerialNumber("spd-dimm0", &text)), "");
    EXPECT_EQ(text, "1234abcd");

    spd(0)[320] = 0x80;
    spd(0)[321] = 0x00;
    EXPECT_EQ(render(reader.getModuleVendor("spd-dimm0", &text)),
              "SPDDDAPI::getModuleVendor: \"unexpected value - manufacture id should not be 0\"");
    spd(0)[320] = 0x89;  // nine continuation codes
    spd(0)[321] = 0xCE;
    EXPECT_EQ(render(reader.getModuleVendor("spd-dimm0", &text)),
              "SPDDDAPI::getModuleVendor: \"unexpected value - unsupported bank index(0x09)\"");
    spd(0)[350] = 0x80;
    spd(0)[351] = 0x7F;  // the continuation code itself names no maker
    EXPECT_EQ(render(reader.getDRAMVendor("spd-dimm0", &text)), "SPDDDAPI::getDRAMVendor: \"unknown vendor\"");
    spd(0)[350] = 0x80;
    spd(0)[351] = 0xAD;
    EXPECT_EQ(render(reader.getDRAMVendor("spd-dimm0", &text)), "");
    EXPECT_EQ(text, "SK Hynix (former Hyundai Electronics)");
    spd(0)[350] = 0x01;  // bank 2, code 0x98
    spd(0)[351] = 0x98;
    EXPECT_EQ(render(reader.getDRAMVendor("spd-dimm0", &text)), "");
    EXPECT_EQ(text, "Kingston");
}

TEST_F(DimmInventoryTest, I2cFailureIsWrappedUnderTheField) {
    SPDDDAPI reader;
    std::string part;
    board.i2c->spd[1]->setPresent(false);
    const std::string chain = render(reader.getPartNumber("spd-dimm1", &part));
    EXPECT_EQ(chain.rfind("SPDDDAPI::getPartNumber -> SPDDDAPI::getDeviceType -> I2CDAPI::", 0), 0u) << chain;
    EXPECT_NE(chain.find("I2C read byte data fail"), std::string::npos) << chain;
    // And getDeviceList without a single SPD answering type checks.
    for (int d = 0; d < 4; ++d) board.i2c->spd[d]->setPresent(false);
    std::list<std::string> names;
    EXPECT_EQ(render(reader.getDeviceList(&names, true)), "SPDDDAPI::getDeviceList: \"no SPD device\"");
}

// ---- the decode-dimms route and the inventory -------------------------------------------

TEST_F(DimmInventoryTest, InventoryListsEveryDimm) {
    if (!hostToolsPresent()) GTEST_SKIP() << "decode-dimms and dmidecode are not installed (scripts/packages.txt)";
    MemoryDAPI memory("MemoryDAPI");
    std::list<DIMMInformation> list;
    ASSERT_EQ(render(memory.getInformation(&list)), "");
    ASSERT_EQ(list.size(), 4u);
    EXPECT_EQ(memory.getProgress(), 100u);
    const int channels[] = {0, 0, 1, 1};
    int d = 0;
    for (const DIMMInformation& r : list) {
        SCOPED_TRACE(d);
        EXPECT_TRUE(r.decoded);
        EXPECT_EQ(r.dimmIndex, d);
        EXPECT_EQ(r.socketIndex, 0);
        EXPECT_EQ(r.channelIndex, channels[d]);
        EXPECT_EQ(r.firstRank, (d % 2) * 2);
        EXPECT_EQ(r.lastRank, (d % 2) * 2 + 1);
        EXPECT_EQ(r.start, static_cast<unsigned long long>(d) << 35);
        EXPECT_EQ(r.end, static_cast<unsigned long long>(d + 1) << 35);
        EXPECT_EQ(r.memoryType, "DDR4 SDRAM");
        EXPECT_EQ(r.moduleType, "RDIMM");
        EXPECT_EQ(r.speed, "2400 MT/s");
        EXPECT_EQ(r.size, "32768 MB");
        EXPECT_EQ(r.ranks, "2");
        EXPECT_EQ(r.moduleManufacturer, "Samsung");
        EXPECT_EQ(r.dramManufacturer, "Samsung");
        EXPECT_EQ(r.serialNumber, "3A1B000" + std::to_string(d));
        EXPECT_EQ(r.partNumber, "M393A2K40BB2-CTD    ");
        EXPECT_EQ(r.locator, "unknown");  // the SPD route knows no socket names
        ++d;
    }
    EXPECT_EQ(list.back().end, board.memory->totalBytes());

    // The dump each DIMM was decoded from, in the layout decode-dimms reads.
    std::string dump;
    ASSERT_EQ(quarn::readTextFile("/tmp/spd-dimm2", &dump), 0);
    EXPECT_EQ(dump.substr(0, 68),
              "     0  1  2  3  4  5  6  7  8  9  a  b  c  d  e  f\n"
              "00: 23 11 0c 01 ");
    EXPECT_NE(dump.find("\n140: 80 ce 01 18 24 3a 1b 00 02 4d 33 39 33 41 32 4b\n"), std::string::npos);
    EXPECT_EQ(std::count(dump.begin(), dump.end(), '\n'), 33);

    // Later calls are served from the list made the first time.
    ASSERT_EQ(toolCalls("decode-dimms"), 4);
    spd(0)[2] = 0x0E;
    std::list<DIMMInformation> again;
    EXPECT_EQ(render(memory.getInformation(&again)), "");
    EXPECT_EQ(again.size(), 4u);
    EXPECT_EQ(toolCalls("decode-dimms"), 4);
    EXPECT_EQ(render(memory.getInformation(static_cast<std::list<DIMMInformation>*>(nullptr))),
              "MemoryDAPI::getInformation: \"Bad parameter 2 - NULL pointer\"");
}

TEST_F(DimmInventoryTest, ControllerOutsideTheProcessorKeepsSocketUnset) {
    if (!hostToolsPresent()) GTEST_SKIP() << "decode-dimms and dmidecode are not installed";
    board.writeFile("/opt/veltrax/quarn/etc/mc_info", "# north bridge\nCPU_INTEGRATED=FALSE\nCHANNEL_NUM=  2\n");
    MemoryDAPI memory("MemoryDAPI");
    std::list<DIMMInformation> list;
    ASSERT_EQ(render(memory.getInformation(&list)), "");
    std::vector<int> channels;
    for (const DIMMInformation& r : list) {
        EXPECT_EQ(r.socketIndex, -1);
        channels.push_back(r.channelIndex);
    }
    EXPECT_EQ(channels, (std::vector<int>{0, 0, 1, 1}));
}

TEST_F(DimmInventoryTest, GeometryThatCannotBeDividedStillListsTheDimms) {
    if (!hostToolsPresent()) GTEST_SKIP() << "decode-dimms and dmidecode are not installed";
    board.writeFile("/opt/veltrax/quarn/etc/mc_info", "CPU_INTEGRATED=TRUE\n");  // no CHANNEL_NUM
    MemoryDAPI memory("MemoryDAPI");
    std::list<DIMMInformation> list;
    ASSERT_EQ(render(memory.getInformation(&list)), "");
    ASSERT_EQ(list.size(), 4u);
    for (const DIMMInformation& r : list) {
        EXPECT_EQ(r.socketIndex, -1);
        EXPECT_EQ(r.channelIndex, -1);
        EXPECT_EQ(r.firstRank, 0);
        EXPECT_EQ(r.lastRank, 1);
    }
    EXPECT_EQ(list.back().start, 3ULL << 35);
}

TEST_F(DimmInventoryTest, EmptySlotIsListedUndecoded) {
    if (!hostToolsPresent()) GTEST_SKIP() << "decode-dimms and dmidecode are not installed";
    board.i2c->spd[1]->setPresent(false);
    MemoryDAPI memory("MemoryDAPI");
    std::list<DIMMInformation> list;
    ASSERT_EQ(render(memory.getInformation(&list)), "");
    ASSERT_EQ(list.size(), 4u);
    auto it = list.begin();
    EXPECT_TRUE(it->decoded);
    ++it;
    EXPECT_FALSE(it->decoded);
    EXPECT_EQ(it->dimmIndex, 1);
    EXPECT_EQ(it->channelIndex, 0);
    EXPECT_EQ(it->size, "");
    EXPECT_EQ(it->firstRank, -1);
    ++it;
    EXPECT_EQ(it->start, 1ULL << 35);  // the empty slot takes no addresses
    EXPECT_EQ(it->firstRank, 0);
    EXPECT_EQ(toolCalls("decode-dimms"), 3);
}

TEST_F(DimmInventoryTest, InventoryFailures) {
    MemoryDAPI memory("MemoryDAPI");
    std::list<DIMMInformation> list;
    quarn::removePath("/opt/veltrax/quarn/etc/mc_info");
    EXPECT_EQ(render(memory.getInformation(&list)),
              "MemoryDAPI::getInformation: \"Fail to open file node - /opt/veltrax/quarn/etc/mc_info\"");

    board.writeFile("/opt/veltrax/quarn/etc/mc_info", "CPU_INTEGRATED=TRUE\nCHANNEL_NUM=2\n");
    for (int d = 0; d < 4; ++d) board.i2c->spd[d]->setPresent(false);
    EXPECT_EQ(render(memory.getInformation(&list)), "MemoryDAPI::getInformation: \"no DIMM information\"");
    EXPECT_EQ(memory.getProgress(), 100u);

    // A decoder that recognises nothing leaves no DIMM decoded either.
    for (int d = 0; d < 4; ++d) board.i2c->spd[d]->setPresent(true);
    board.addProgram("decode-dimms", [](const std::vector<std::string>&, std::string* out) {
        *out += "Number of SDRAM DIMMs detected and decoded: 0\n";
        return 0;
    });
    EXPECT_EQ(render(memory.getInformation(&list)), "MemoryDAPI::getInformation: \"no DIMM information\"");

    // An I2C failure other than a silent slot ends the inventory.
    board.device("/dev/i2c-1")->faults().openErrno = EACCES;
    const std::string chain = render(memory.getInformation(&list));
    EXPECT_EQ(chain.rfind("MemoryDAPI::getInformation -> MemoryDDAPI::getDIMMInformationBySPD -> I2CDAPI::", 0), 0u)
        << chain;
    EXPECT_NE(chain.find("Permission denied"), std::string::npos) << chain;
    EXPECT_EQ(memory.getProgress(), 100u);  // progress was reset
}

TEST_F(DimmInventoryTest, NoSpdDevicesInTheProfile) {
    board.writeFile("/etc/quarn/I2C_profile.ini", "[BUS]\nsmbus0 0 100 pch-smbus\n[Topology]\nmax6657 0 0x98 temperature\n");
    MemoryDAPI memory("MemoryDAPI");
    std::list<DIMMInformation> list;
    EXPECT_EQ(render(memory.getInformation(&list)), "MemoryDAPI::getInformation: \"no SPD information of DIMMs\"");
    std::list<std::string> names;
    EXPECT_EQ(render(memory.getDeviceList(&names, false)),
              "MemoryDAPI::getDeviceList -> SPDDDAPI::getDeviceList: \"no SPD device\"");
}

TEST_F(DimmInventoryTest, ScratchDumpReplacesAPlantedLink) {
    if (!hostToolsPresent()) GTEST_SKIP() << "decode-dimms and dmidecode are not installed";
    board.writeFile("/etc/quarn/victim", "keep\n");
    board.makeSymlink("/etc/quarn/victim", "/tmp/spd-dimm0");
    MemoryDDAPI device("MEMORY_DRVR");
    DIMMInformation info;
    ASSERT_EQ(render(device.getDIMMInformationBySPD("spd-dimm0", &info)), "");
    EXPECT_TRUE(info.decoded);
    std::string victim;
    ASSERT_EQ(quarn::readTextFile("/etc/quarn/victim", &victim), 0);
    EXPECT_EQ(victim, "keep\n");
    struct stat st;
    ASSERT_EQ(board.lstat("/tmp/spd-dimm0", &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));

    // A name that would leave /tmp is refused before anything is written.
    board.i2c->spd[0]->setPresent(true);
    EXPECT_EQ(render(device.getDIMMInformationBySPD("spd-dimm0", nullptr)),
              "MemoryDDAPI::getDIMMInformationBySPD: \"Bad parameter 2 - NULL pointer\"");
}

// ---- SMBIOS -------------------------------------------------------------------------------

TEST_F(DimmInventoryTest, SmbiosRouteFindsTheDeviceBySerial) {
    if (!hostToolsPresent()) GTEST_SKIP() << "decode-dimms and dmidecode are not installed";
    MemoryDDAPI device("MEMORY_DRVR");
    DIMMInformation info;
    ASSERT_EQ(render(device.getDIMMInformationBySPD("spd-dimm2", &info)), "");
    ASSERT_EQ(info.serialNumber, "3A1B0002");
    ASSERT_EQ(render(device.getDIMMInformationBySMBIOS(&info)), "");
    EXPECT_EQ(info.locator, "DIMM_B0");
    EXPECT_EQ(info.configuredClockSpeed, "2133 MT/s");
    EXPECT_EQ(info.configuredVoltage, "1.2 V");
    ASSERT_FALSE(board.smbios->calls().empty());
    EXPECT_EQ(board.smbios->calls().back(), (std::vector<std::string>{"dmidecode", "-t", "17"}));

    DIMMInformation unknown;
    unknown.serialNumber = "DEADBEEF";
    EXPECT_EQ(render(device.getDIMMInformationBySMBIOS(&unknown)),
              "MemoryDDAPI::getDIMMInformationBySMBIOS: \"memory device can not be found in dmidecode\"");
    DIMMInformation blank;  // no serial matches no device rather than every device
    EXPECT_EQ(render(device.getDIMMInformationBySMBIOS(&blank)),
              "MemoryDDAPI::getDIMMInformationBySMBIOS: \"memory device can not be found in dmidecode\"");
    EXPECT_EQ(blank.locator, "unknown");
}

TEST_F(DimmInventoryTest, ShellTextInDeviceStringsExecutesNothing) {
    if (!hostToolsPresent()) GTEST_SKIP() << "decode-dimms and dmidecode are not installed";
    ::unlink("/tmp/pwned");
    const std::string hostile = "1;touch /tmp/pwned";
    board.smbios->devices()[3].serial = hostile;
    board.smbios->devices()[3].locator = "$(touch /tmp/pwned)";
    board.smbios->update();
    // A DIMM whose part number is shell text as well.
    const char part[] = "`touch /tmp/pwned`  ";
    for (int i = 0; i < 20; ++i) spd(3)[329 + i] = static_cast<uint8_t>(part[i]);

    MemoryDDAPI device("MEMORY_DRVR");
    DIMMInformation info;
    ASSERT_EQ(render(device.getDIMMInformationBySPD("spd-dimm3", &info)), "");
    EXPECT_EQ(info.partNumber, part);
    info.serialNumber = hostile;
    ASSERT_EQ(render(device.getDIMMInformationBySMBIOS(&info)), "");
    EXPECT_EQ(info.locator, "$(touch /tmp/pwned)");

    MemoryDAPI memory("MemoryDAPI");
    std::list<std::string> names;
    EXPECT_EQ(render(memory.getDeviceList(&names, true)), "");

    struct stat st;
    EXPECT_NE(::stat("/tmp/pwned", &st), 0) << "a device string ran as a command on the host";
    EXPECT_NE(board.stat("/tmp/pwned", &st), 0) << "a device string ran as a command on the board";
    for (const auto& argv : board.smbios->calls()) {
        if (argv[0] == "dmidecode") {
            EXPECT_EQ(argv, (std::vector<std::string>{"dmidecode", "-t", "17"}));
        } else if (argv[0] == "decode-dimms") {
            EXPECT_EQ(argv, (std::vector<std::string>{"decode-dimms", "-x", "/tmp/spd-dimm3"}));
        }
    }
}

TEST_F(DimmInventoryTest, DeviceListMarksDimmsTheFirmwareDisabled) {
    if (!hostToolsPresent()) GTEST_SKIP() << "decode-dimms and dmidecode are not installed";
    MemoryDAPI memory("MemoryDAPI");
    std::list<std::string> names;
    ASSERT_EQ(render(memory.getDeviceList(&names, true)), "");
    EXPECT_EQ(names, (std::list<std::string>{"dimm0", "dimm1", "dimm2", "dimm3"}));

    // The firmware mapped out its first memory device: dimmN is checked against the N-th
    // device counted from 1.
    board.smbios->devices()[0].sizeMiB = 0;
    board.smbios->update();
    ASSERT_EQ(render(memory.getDeviceList(&names, true)), "");
    EXPECT_EQ(names, (std::list<std::string>{"dimm0", "dimm1(disabled by BIOS)", "dimm2", "dimm3"}));
    ASSERT_EQ(render(memory.getDeviceList(&names, false)), "");
    EXPECT_EQ(names, (std::list<std::string>{"dimm0", "dimm1", "dimm2", "dimm3"}));
    EXPECT_EQ(render(memory.getDeviceList(nullptr, false)), "MemoryDAPI::getDeviceList: \"Bad parameter - NULL pointer\"");

    std::list<std::string> listed = {"dimm3", "vpd0"};
    board.smbios->devices()[2].sizeMiB = 0;
    board.smbios->update();
    ASSERT_EQ(render(memory.checkDeviceBySMBIOS(&listed)), "");
    EXPECT_EQ(listed, (std::list<std::string>{"dimm3(disabled by BIOS)", "vpd0"}));
}

TEST_F(DimmInventoryTest, SingleDimmFromItsSpd) {
    MemoryDAPI memory("MemoryDAPI");
    DIMMInformation info;
    ASSERT_EQ(render(memory.getInformation("dimm1", &info)), "");
    EXPECT_EQ(info.memoryType, "DDR4");
    EXPECT_EQ(info.moduleType, "Registered DIMM");
    EXPECT_EQ(info.size, "32768 MB");
    EXPECT_EQ(info.ranks, "2");
    EXPECT_EQ(info.speed, "2400 MHz");
    EXPECT_EQ(info.moduleManufacturer, "Samsung");
    EXPECT_EQ(info.dramManufacturer, "Samsung");
    EXPECT_EQ(info.partNumber, "M393A2K40BB2-CTD    ");
    EXPECT_EQ(info.serialNumber, "3a1b0001");

    EXPECT_EQ(render(memory.getInformation("dimm1", nullptr)),
              "MemoryDAPI::getInformation: \"Bad parameter 2 - NULL pointer\"");
    spd(1)[18] = 0x01;
    EXPECT_EQ(render(memory.getInformation("dimm1", &info)),
              "MemoryDAPI::getInformation -> SPDDDAPI::getSpeed: \"unexpected value - unknown speed(0x01)\"");
    const std::string missing = render(memory.getInformation("dimm7", &info));
    EXPECT_EQ(missing.rfind("MemoryDAPI::getInformation -> SPDDDAPI::getDeviceType -> I2CDAPI::", 0), 0u) << missing;
}

}  // namespace

#include "vboard/Board.h"

namespace {

// The rank map of the board's four 32 GiB dual-rank DIMMs, and its placement.
TEST(RankMap, BoardDimmsGiveEightRanksAndALayoutAroundTheHole) {
    quarn::vboard::Board board;
    quarn::installPlatform(&board);
    {
        MemoryDAPI memory("MemoryDAPI");
        std::list<MemoryRange> ranks;
        std::string text;
        ErrorMsg* e = memory.getRankRange(&ranks);
        getErrorMessage(e, &text);
        ASSERT_EQ(text, "");
        ASSERT_EQ(ranks.size(), 8u);
        EXPECT_EQ(ranks.front().name, "spd-dimm0");  // the SPD devices, as the profile names them
        EXPECT_EQ(ranks.front().end, (16ULL << 30) - 1);
        EXPECT_EQ(ranks.back().name, "spd-dimm3");
        EXPECT_EQ(ranks.back().start, 112ULL << 30);

        ErrorMsg* l = memory.initializeMemoryLayoutFile();
        getErrorMessage(l, &text);
        ASSERT_EQ(text, "");
        std::string layout;
        ASSERT_EQ(quarn::readTextFile("/tmp/veltrax/ktd/mem/layout", &layout), 0);
        // Nothing sits in the hole below 4 GiB, and the last byte is the end of high RAM.
        unsigned long long total = 0, last = 0;
        size_t pos = 0;
        while (pos < layout.size()) {
            size_t nl = layout.find('\n', pos);
            unsigned long long s = 0, e2 = 0;
            const std::string line = layout.substr(pos, nl - pos);
            ASSERT_EQ(sscanf(line.c_str() + line.find(':') + 1, "0x%llx,0x%llx", &s, &e2), 2) << line;
            // The board's PCI hole is 2-4 GiB: the placement frees exactly that.
            EXPECT_TRUE(e2 < (2ULL << 30) || s >= 0x100000000ULL) << line;
            total += e2 - s + 1;
            last = std::max(last, e2);
            pos = nl + 1;
        }
        EXPECT_EQ(total, 128ULL << 30);
        EXPECT_EQ(last, board.memory->highEnd());
    }
    quarn::installPlatform(nullptr);
}

}  // namespace
