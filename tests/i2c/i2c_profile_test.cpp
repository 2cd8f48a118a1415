// The I2C profile: sections, fields, protocol entries and files, and every limit of the
// tables, each refusal reported as a chain.
#include <string>

#include "dapi/i2c/I2CDAPI.h"
#include "ddapi/i2c/I2CDDAPI.h"
#include "tests/i2c/I2cTestSupport.h"

namespace {

using i2ctest::render;

class I2cProfileTest : public i2ctest::BoardTest {
protected:
    const std::string kBuses = "[BUS]\nsmbus0 0 100 ctl0\nsmbus1 1 100 ctl1\n";
};

TEST_F(I2cProfileTest, MissingProfileFailsEveryOperation) {
    ASSERT_EQ(quarn::platform().unlink("/etc/quarn/I2C_profile.ini"), 0);
    I2CDAPI api("I2CDAPI");
    std::list<std::string> lines;
    EXPECT_EQ(render(api.DisplayI2cDevicesList(&lines)),
              "I2CDAPI::DisplayI2cDevicesList -> I2CDDAPI::Constructor: \"Open I2C_profile.ini fail\"");
    std::string path;
    EXPECT_EQ(render(api.ShowRoutePath("x", &path)),
              "I2CDAPI::MUX_Test: \"Route path test\" -> I2CDDAPI::Constructor: \"Open I2C_profile.ini fail\"");
}

TEST_F(I2cProfileTest, ProtocolLineNamingUnknownDeviceFailsConstruction) {
    setProfile(kBuses + "[Topology]\ntmp0 0 0x98 temperature\n[Protocol]\nghost all=word\n");
    I2CDAPI api("I2CDAPI");
    int data[4];
    int count = 0;
    EXPECT_EQ(render(api.Read("tmp0", 0, 0, data, &count)),
              "I2CDAPI::Read -> I2CDDAPI::Constructor: \"Open I2C_profile.ini fail - Initial I2C Protocol fail\""
              " -> I2CDDAPI::Initial_I2C_Protocol: \"No I2C device - Can't find device by Wellknown name\"");
}

TEST_F(I2cProfileTest, SectionsCommentsBlanksAndTokens) {
    setProfile(
        "# comment\nstray line before any section\n  [BUS]\nsmbus0  0x0   100 ctl0\n\n   \n"
        "[Other]\nnot a bus line\n[Topology]\nTMP0 0 0x98 temperature Maxim MAX6657 extra\n"
        "[BUS]\nsmbus1 1 400 ctl1\n[Topology]\nmux0 0 0xe0 mux 2 3\ntmp1 3 0x9a temperature\n");
    I2CDDAPI dev("I2C_drv");
    EXPECT_EQ(render(dev.getErrorMsg()), "");
    EXPECT_EQ(render(dev.getProfileWarnings()), "");
    I2CDevice* tmp0 = dev.get_device_by_well_known_name("tmp0");
    ASSERT_NE(tmp0, nullptr);
    EXPECT_EQ(tmp0->get_vender(), "Maxim");
    EXPECT_EQ(tmp0->get_model(), "MAX6657");
    EXPECT_EQ(tmp0->get_Register_protocol(7), I2C_DEVICE_PROTOCOL_SMBUS_BYTE_DATA);
    EXPECT_EQ(dev.get_device_by_well_known_name("TMP0"), nullptr);
    ASSERT_NE(dev.getBus(1), nullptr);
    EXPECT_EQ(dev.getBus(1)->get_frequency(), 400);
    EXPECT_EQ(dev.Is_physical_bus(1), 1);
    EXPECT_EQ(dev.Is_physical_bus(3), -1);
    EXPECT_EQ(dev.Find_physical_master(3), 0);
    EXPECT_EQ(dev.get_device_by_bus_address(3, 0x9a)->get_Master_bus(), dev.getBus(0));
}

TEST_F(I2cProfileTest, BadTopologyLineLeavesItsSlotEmptyAndIsReported) {
    setProfile(kBuses + "[Topology]\ntmp0 zz 0x98 temperature\ntmp1 0 0x9a temperature\n");
    I2CDDAPI dev("I2C_drv");
    EXPECT_EQ(render(dev.getErrorMsg()), "");
    EXPECT_EQ(dev.get_device_by_well_known_name("tmp1"), nullptr);
    EXPECT_EQ(render(dev.getProfileWarnings()),
              "I2CDDAPI::Constructor: \"I2C_profile.ini line 5 ignored\" -> "
              "I2CDDAPI::Initial_I2C_device: \"Parameter is not number - bus is not a number\"");
    I2CDAPI api("I2CDAPI");
    ErrorMsg* e = api.CheckProfile();
    const std::string text = render(e);
    EXPECT_EQ(text.rfind("I2CDAPI::Constructor: \"I2C profile lines ignored\" -> ", 0), 0u) << text;
}

TEST_F(I2cProfileTest, BusLinesOutsideTheTableOrMisshapenCreateNothing) {
    setProfile(
        "[BUS]\nsmbus0 0 100 ctl0\nsmbus1 1 100 ctl1 extra\nsmbus20 14 100 c\nsmbusx q 100 c\n"
        "smbus2 2 fast c\n[Topology]\n");
    I2CDDAPI dev("I2C_drv");
    EXPECT_EQ(dev.getBus(1), nullptr);
    EXPECT_EQ(dev.getBus(2), nullptr);
    EXPECT_EQ(render(dev.getProfileWarnings()),
              "I2CDDAPI::Constructor: \"I2C_profile.ini line 3 ignored\" -> I2CDDAPI::Initial_I2C_BUS: "
              "\"incorrect format in the configuration file - 4 fields expected, 5 found\" -> "
              "I2CDDAPI::Constructor: \"I2C_profile.ini line 4 ignored\" -> I2CDDAPI::Initial_I2C_BUS: "
              "\"out of range - bus 14 outside 0 to 19\" -> "
              "I2CDDAPI::Constructor: \"I2C_profile.ini line 5 ignored\" -> I2CDDAPI::Initial_I2C_BUS: "
              "\"Parameter is not number - bus is not number\" -> "
              "I2CDDAPI::Constructor: \"I2C_profile.ini line 6 ignored\" -> I2CDDAPI::Initial_I2C_BUS: "
              "\"Parameter is not number - frequency is not number\"");
}

TEST_F(I2cProfileTest, MoreThan200TopologyLinesAreRefused) {
    std::string text = kBuses + "[Topology]\n";
    for (int i = 0; i < 201; ++i) text += "dev" + std::to_string(i) + " 0 0x" + std::to_string(10 + i % 80) + " unknown\n";
    setProfile(text);
    I2CDDAPI dev("I2C_drv");
    EXPECT_EQ(render(dev.getErrorMsg()), "");
    EXPECT_NE(dev.get_device_by_well_known_name("dev199"), nullptr);
    EXPECT_EQ(dev.get_device_by_well_known_name("dev200"), nullptr);
    EXPECT_EQ(render(dev.getProfileWarnings()),
              "I2CDDAPI::Constructor: \"I2C_profile.ini line 205 ignored\" -> "
              "I2CDDAPI::Initial_I2C_device: \"out of range - more than 200 Topology lines\"");
}

TEST_F(I2cProfileTest, SwitchWithMoreThanEightPortsAndShortLinesAreRefused) {
    setProfile(kBuses + "[Topology]\nmux0 0 0xe0 mux 2 3 4 5 6 7 8 9 a\nshort 0 0x98\nbig 0 0x1a0 unknown\n");
    I2CDDAPI dev("I2C_drv");
    EXPECT_EQ(dev.getDevice(0), nullptr);
    EXPECT_EQ(render(dev.getProfileWarnings()),
              "I2CDDAPI::Constructor: \"I2C_profile.ini line 5 ignored\" -> I2CDDAPI::Initial_I2C_device: "
              "\"out of range - switch with 9 ports, at most 8\" -> "
              "I2CDDAPI::Constructor: \"I2C_profile.ini line 6 ignored\" -> I2CDDAPI::Initial_I2C_device: "
              "\"incorrect format in the configuration file - at least 4 fields expected, 3 found\" -> "
              "I2CDDAPI::Constructor: \"I2C_profile.ini line 7 ignored\" -> I2CDDAPI::Initial_I2C_device: "
              "\"out of range - address 0x1a0 is not an 8-bit address\"");
}

TEST_F(I2cProfileTest, OverlongLineIsRefusedWhole) {
    std::string longLine = "tmp9 0 0x98 temperature " + std::string(480, 'v');
    setProfile(kBuses + "[Topology]\ntmp0 0 0x98 temperature\n" + longLine + "\ntmp1 0 0x9a temperature\n");
    I2CDDAPI dev("I2C_drv");
    EXPECT_EQ(render(dev.getErrorMsg()), "");
    EXPECT_NE(dev.get_device_by_well_known_name("tmp1"), nullptr) << "the tail is not a line of its own";
    EXPECT_EQ(dev.get_device_by_well_known_name("tmp9"), nullptr);
    EXPECT_EQ(render(dev.getProfileWarnings()),
              "I2CDDAPI::Constructor: \"I2C_profile.ini line 6 ignored\" -> I2CDDAPI::Constructor: "
              "\"incorrect format in the configuration file - line longer than 499 characters\"");
}

TEST_F(I2cProfileTest, ProtocolEntriesAndLimits) {
    board.writeFile("/etc/quarn/more.ini", "# header\n10=word file=last.ini 11=word\n");
    board.writeFile("/etc/quarn/last.ini", "12=i2c_block\n");
    setProfile(kBuses + "[Topology]\ntmp0 0 0x98 temperature\n[Protocol]\n"
               "tmp0 all=vpd_block_data 1=block 2=vpd_block_data 3=nonsense 1ff=pmbus_block\n"
               "tmp0 file=more.ini 13=word\n");
    I2CDDAPI dev("I2C_drv");
    EXPECT_EQ(render(dev.getErrorMsg()), "");
    I2CDevice* d = dev.get_device_by_well_known_name("tmp0");
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->get_Register_protocol(0), I2C_DEVICE_PROTOCOL_VPD_BLOCK_DATA);
    EXPECT_EQ(d->get_Register_protocol(1), I2C_DEVICE_PROTOCOL_SMBUS_BLOCK_DATA);
    EXPECT_EQ(d->get_Register_protocol(2), I2C_DEVICE_PROTOCOL_VPD_BLOCK_DATA) << "vpd only with all";
    EXPECT_EQ(d->get_Register_protocol(3), I2C_DEVICE_PROTOCOL_VPD_BLOCK_DATA);
    EXPECT_EQ(d->get_Register_protocol(0x1ff), I2C_DEVICE_PROTOCOL_PMBUS_BLOCK);
    EXPECT_EQ(d->get_Register_protocol(0x10), I2C_DEVICE_PROTOCOL_SMBUS_WORD_DATA);
    EXPECT_EQ(d->get_Register_protocol(0x12), I2C_DEVICE_PROTOCOL_SMBUS_I2C_BLOCK_DATA);
    EXPECT_EQ(d->get_Register_protocol(0x11), I2C_DEVICE_PROTOCOL_VPD_BLOCK_DATA) << "after file: not read";
    EXPECT_EQ(d->get_Register_protocol(0x13), I2C_DEVICE_PROTOCOL_VPD_BLOCK_DATA);
    EXPECT_EQ(d->get_Register_protocol(0x200), quarn::i2c::kNoProtocol);

    struct Case {
        const char* line;
        const char* chain;
    } cases[] = {
        {"tmp0 200=word", "I2CDDAPI::Initial_I2C_Protocol: \"out of range - register 200 above 0x1ff\""},
        {"tmp0 zz=word", "I2CDDAPI::Initial_I2C_Protocol: \"Parameter is not number - Protocol is not a number\""},
        {"tmp0 word", "I2CDDAPI::Initial_I2C_Protocol: "
                      "\"incorrect format in the configuration file - entry is not key=value: word\""},
        {"tmp0 file=absent.ini",
         "I2CDDAPI::Initial_I2C_Protocol: \"Open I2C_profile.ini fail - /etc/quarn/absent.ini\""},
        {"tmp0 file=../shadow",
         "I2CDDAPI::Initial_I2C_Protocol: \"Open I2C_profile.ini fail - /etc/quarn/../shadow\""},
        {"tmp0 file=loop.ini",
         "I2CDDAPI::Initial_I2C_Protocol: \"out of range - \"file\" entries nested deeper than 8\""},
    };
    board.writeFile("/etc/quarn/loop.ini", "file=loop.ini\n");
    for (const Case& c : cases) {
        setProfile(kBuses + "[Topology]\ntmp0 0 0x98 temperature\n[Protocol]\n" + c.line + "\n");
        I2CDDAPI bad("I2C_drv");
        EXPECT_EQ(render(bad.getErrorMsg()),
                  std::string("I2CDDAPI::Constructor: \"Open I2C_profile.ini fail - Initial I2C Protocol fail\" -> ") +
                      c.chain)
            << c.line;
    }
}

TEST_F(I2cProfileTest, DeviceOnUnreachableBusFailsConstruction) {
    setProfile(kBuses + "[Topology]\ntmp0 5 0x98 temperature\n");
    I2CDDAPI dev("I2C_drv");
    EXPECT_EQ(render(dev.getErrorMsg()), "I2CDDAPI::Constructor: \"I2C bus is not found - tmp0 on bus 0x5\"");
}

TEST_F(I2cProfileTest, WalkLongerThanTwentyHopsIsRefused) {
    std::string text = kBuses + "[Topology]\n";
    // 21 switches in a chain: bus 0 -> 0x20 -> 0x21 -> ... -> 0x35.
    text += "mux0 0 0xe0 mux 20\n";
    for (int i = 1; i <= 20; ++i) {
        char line[64];
        snprintf(line, sizeof(line), "mux%d %x 0xe0 mux %x\n", i, 0x1f + i, 0x20 + i);
        text += line;
    }
    text += "far 34 0x98 temperature\n";
    setProfile(text);
    I2CDDAPI dev("I2C_drv");
    EXPECT_EQ(render(dev.getErrorMsg()),
              "I2CDDAPI::Constructor: \"I2C bus is not found - far: route longer than 20 hops\"");
}

TEST_F(I2cProfileTest, TwentyHopsAreWalkedAndListedInTheRouteTable) {
    std::string text = kBuses + "[Topology]\nmux0 0 0xe0 mux 20\n";
    for (int i = 1; i < 20; ++i) {
        char line[64];
        snprintf(line, sizeof(line), "mux%d %x 0xe2 mux %x %x\n", i, 0x1f + i, 0x60 + i, 0x20 + i);
        text += line;
    }
    text += "far 33 0x98 temperature\n";
    setProfile(text);
    I2CDDAPI dev("I2C_drv");
    EXPECT_EQ(render(dev.getErrorMsg()), "");
    std::string path;
    EXPECT_EQ(render(dev.get_i2c_device_path("far", &path)), "");
    EXPECT_EQ(dev.getRouteHopCount(), 20);
    EXPECT_EQ(dev.getRouteHop(0).mask, 2u);
    EXPECT_EQ(dev.getRouteHop(19).address, 0xe0u);
    EXPECT_EQ(path.rfind("ctl0->Bus0->mux0->Bus20->mux1->Bus21->", 0), 0u) << path;
}

TEST_F(I2cProfileTest, RouteTextOfDeviceOnPhysicalBus) {
    setProfile("[BUS]\nsmbus0 0 100 ctl0\n[Topology]\ntmp0 0 0x98 temperature\n");
    I2CDAPI api("I2CDAPI");
    std::string path;
    EXPECT_EQ(render(api.ShowRoutePath("tmp0", &path)), "");
    EXPECT_EQ(path, "ctl0->Bus0->tmp0");
    EXPECT_EQ(render(api.ShowRoutePath("none", &path)),
              "I2CDAPI::MUX_Test -> I2CDDAPI::read: \"No I2C device - by well_know_name\"");
}

}  // namespace
