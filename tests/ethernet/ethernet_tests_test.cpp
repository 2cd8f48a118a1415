// The Ethernet diagnostic layer: loopback measurements over the board's cables and
// plugs, link and speed, LEDs, statistics and clearing.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cmath>
#include <list>
#include <string>
#include <vector>

#include "dapi/ethernet/EthernetDAPI.h"
#include "ddapi/ethernet/EthernetDDAPI.h"
#include "ddapi/ethernet/INTEL_I210.h"
#include "ddapi/ethernet/INTEL_X552.h"
#include "tests/ethernet/EthernetTestSupport.h"

namespace {

using quarn::test::EthernetTest;
using quarn::test::render;

// Reaches the PHY registers the way the loopback code does, between its own map and unmap.
struct I210Probe : INTEL_I210 {
    using INTEL_I210::INTEL_I210;
    volatile uint32_t* map() { return mapWindow(4096); }
    void unmap() { unmapWindow(4096); }
};

TEST_F(EthernetTest, OnePortLoopbackThroughThePlugMovesFrames) {
    EthernetDAPI eth("EthernetDAPI");
    const uint64_t rxBefore = port("eth0").counters.rxPackets;
    float throughput = 0;
    ASSERT_EQ(render(eth.Extrenal_loopback("eth0", 1000, &throughput)), "");
    const uint64_t moved = port("eth0").counters.rxPackets - rxBefore;
    EXPECT_GT(moved, 100000u);
    // One 1514-byte frame taken per pass at 1 Gb/s, less the time spent reading the
    // clock: below the line rate in Mi-bits, well above zero.
    EXPECT_GT(throughput, 700.0f);
    EXPECT_LT(throughput, 1000.0f * 1000 * 1000 / 1024 / 1024);
    // The PHY left external loopback again.
    EXPECT_FALSE(port("eth0").phyExternalLoopback());
    EXPECT_EQ(port("eth0").phy[0][0], 0x1140);
}

TEST_F(EthernetTest, OnePortLoopbackWithoutFramesBackIsZero) {
    EthernetDAPI eth("EthernetDAPI");
    float throughput = -1;
    board.ethernet->network->unplug("eth0");
    EXPECT_EQ(render(eth.Extrenal_loopback("eth0", 1000, &throughput)),
              "EthernetDAPI::Extrenal_loopback -> EthernetDDAPI::SendIoctl: \"Setup speed fail\" -> "
              "EthernetDAPI::Setup_speed: \"Wait for link up timeout - eth0\"");
    // A plug with a cable fault: the link is up, the sent copies come back to the tap,
    // but the port receives nothing, so the counters reject the figure.
    board.ethernet->network->plug("eth0");
    port("eth0").cableDropsFrames = true;
    EXPECT_EQ(render(eth.Extrenal_loopback("eth0", 1000, &throughput)),
              "EthernetDAPI::Extrenal_loopback: \"External loopback throughput is zero\"");
    EXPECT_EQ(throughput, 0.0f);
    EXPECT_GT(port("eth0").counters.rxCrcErrors, 0u);
}

TEST_F(EthernetTest, CopperPhyLinksToThePlugOnlyInExternalLoopback) {
    port("eth0").up = true;
    EXPECT_FALSE(port("eth0").linkUp());
    I210Probe chip("eth0");
    ASSERT_EQ(render(chip.Set_external_loopback()), "");
    EXPECT_TRUE(port("eth0").phyExternalLoopback());
    EXPECT_TRUE(port("eth0").linkUp());
    ASSERT_NE(chip.map(), nullptr);
    EXPECT_EQ(chip.read_PHY_reg(2, 0), 0x0141);
    EXPECT_EQ(chip.read_PHY_reg(18, 6), 0x0008);
    EXPECT_EQ(chip.read_PHY_reg(1, 0) & 0x4, 0x4);
    chip.unmap();
    ASSERT_EQ(render(chip.Remove_external_loopback()), "");
    EXPECT_FALSE(port("eth0").linkUp());
}

TEST_F(EthernetTest, TwoPortLoopbackOverTheCable) {
    EthernetDAPI eth("EthernetDAPI");
    float throughput = 0;
    std::string note;
    ASSERT_EQ(render(eth.Extrenal_loopback("eth4", "eth5", 10000, &throughput, &note)), "");
    EXPECT_GT(throughput, 1000.0f);
    EXPECT_GT(port("eth4").counters.rxPackets, 100000u);
    EXPECT_GT(port("eth5").counters.rxPackets, 100000u);
    EXPECT_EQ(port("eth4").mtu, 1500);

    port("eth5").cableDropsFrames = true;
    EXPECT_EQ(render(eth.Extrenal_loopback("eth4", "eth5", 10000, &throughput, &note)),
              "EthernetDAPI::Extrenal_loopback: \"External loopback throughput is zero\"");
    port("eth5").cableDropsFrames = false;
    port("eth5").neverLinks = true;
    EXPECT_EQ(render(eth.Extrenal_loopback("eth4", "eth5", 10000, &throughput, &note)),
              "EthernetDAPI::Extrenal_loopback -> EthernetDDAPI::SendIoctl: \"Setup speed fail\" -> "
              "EthernetDAPI::Setup_speed: \"Wait for link up timeout - eth4\"");
    // The X552 driver has no speed set-up: its ports cannot run the two-port test.
    EXPECT_EQ(render(eth.Extrenal_loopback("eth1", "eth2", 10000, &throughput, &note)),
              "EthernetDAPI::Extrenal_loopback -> EthernetDDAPI::SendIoctl: \"Setup speed fail\" -> "
              "EthernetDAPI::Setup_speed: \"Wait for link up timeout - Not support\"");
}

TEST_F(EthernetTest, RawFrameMeasurementOnAJumboLink) {
    EthernetDDAPI dev("eth3");
    ASSERT_EQ(render(dev.SetupSpeed("eth3", 40000)), "");
    EXPECT_EQ(port("eth3").mtu, 9700);
    float throughput = 0;
    ASSERT_EQ(render(dev.Execute_external_loopback("eth3", "eth3", &throughput)), "");
    EXPECT_GT(throughput, 10000.0f);
    EXPECT_EQ(render(dev.SetupSpeed("eth3", 2500)), "EthernetDDAPI::SendIoctl -> EthernetDAPI::Setup_speed: \"Not difned speed\"");
    EXPECT_EQ(render(dev.SetupSpeed("eth0", 10000)),
              "EthernetDDAPI::SendIoctl -> EthernetDAPI::Setup_speed: \"eth0 not support speed\"");
    EXPECT_EQ(render(dev.Execute_external_loopback("eth9", "eth3", &throughput)),
              "EthernetDDAPI::Execute_external_loopback: \"Get network interface index ioctl fail - No such device\"");
    port("eth3").up = false;
    EXPECT_EQ(render(dev.Execute_external_loopback("eth3", "eth3", &throughput)),
              "EthernetDDAPI::Execute_external_loopback: \"Sendto API fail - Network is down\"");
}

TEST_F(EthernetTest, SpeedDuplexModesAndLink) {
    EthernetDAPI eth("EthernetDAPI");
    std::string text;
    ASSERT_EQ(render(eth.GetSpeedDuplex("eth4", &text)), "");
    EXPECT_EQ(text, "10Gb");
    text.clear();
    ASSERT_EQ(render(eth.GetSpeedDuplex("eth0", &text)), "");
    EXPECT_EQ(text, "Unknown!");  // no link to the plug outside loopback mode
    // Both ends of the cable offer 2.5 Gb/s.
    for (const char* n : {"eth1", "eth2"}) {
        port(n).supported |= 0x8000;
        port(n).advertising = 0x8000;
    }
    text.clear();
    ASSERT_EQ(render(eth.GetSpeedDuplex("eth1", &text)), "");
    EXPECT_EQ(text, "2Gb");

    std::string names[EthernetDAPI::kLinkModeCount];
    int count = -1;
    ASSERT_EQ(render(eth.GetSupportedLinkModes("eth1", names, &count)), "");
    EXPECT_EQ(std::vector<std::string>(names, names + count),
              (std::vector<std::string>{"1000baseT/Full", "1000baseKX/Full", "2500baseX/Full", "10000baseT/Full",
                                        "10000baseKR/Full"}));
    ASSERT_EQ(render(eth.GetSupportedLinkModes("eth0", names, &count)), "");
    EXPECT_EQ(std::vector<std::string>(names, names + count),
              (std::vector<std::string>{"10baseT/Half", "10baseT/Full", "100baseT/Half", "100baseT/Full",
                                        "1000baseT/Full"}));
    EXPECT_EQ(render(eth.GetSupportedLinkModes("nope", names, &count)),
              "EthernetDAPI::GetSupportedLinkModes: \"IOCTL execute fail - No such device\"");

    std::string state;
    ASSERT_EQ(render(eth.GetLinkStatus("eth4", &state)), "");
    EXPECT_EQ(state, "Up");
    port("eth5").neverLinks = true;
    ASSERT_EQ(render(eth.GetLinkStatus("eth4", &state)), "");
    EXPECT_EQ(state, "Down");
    std::string fw;
    ASSERT_EQ(render(eth.GetFirmwareVersion("eth3", &fw)), "");
    EXPECT_EQ(fw, "6.01 0x800035da 1.1747.0");
}

TEST_F(EthernetTest, SetupSpeedWaitsForTheFirstLinkRead) {
    EthernetDAPI eth("EthernetDAPI");
    port("eth0").neverLinks = true;
    const uint64_t before = board.clock().nowNs();
    EXPECT_EQ(render(eth.Setup_speed("eth0", 100, 1)), "");  // "Down" is an answer
    EXPECT_LT(board.clock().nowNs() - before, 2000000000ull);
    EXPECT_FALSE(port("eth0").autoneg);
    EXPECT_EQ(port("eth0").speed, 100);
    EXPECT_EQ(render(eth.Setup_speed("eth0", 1000, 0)), "");
    EXPECT_TRUE(port("eth0").autoneg);
    EXPECT_EQ(render(eth.Setup_speed("eth0", 50, 0)), "EthernetDAPI::Setup_speed: \"set network speed fail - Invalid argument\"");
    EXPECT_EQ(render(eth.Setup_speed("eth0;reboot", 100, 1)),
              "EthernetDAPI::Setup_speed: \"get driver info. fail - No such device\"");
}

TEST_F(EthernetTest, DriverEdgeResults) {
    INTEL_X552 x552("eth1");
    EXPECT_EQ(render(x552.SetupSpeed("eth1", 1000)), "EthernetDAPI::Setup_speed: \"Wait for link up timeout - Not support\"");
    int data[1];
    EXPECT_EQ(render(x552.ReadSFP("eth1", 0, 0, 1, data)), "EthernetDDAPI::SendIoctl: \"Intel X552(KR) not support\"");
    EXPECT_EQ(render(x552.CheckAdvertisedSpeed("eth1", 2500)), "EthernetDAPI::Setup_speed: \"Not difned speed\"");
    EXPECT_EQ(x552.Get_Node(), "/sys/class/net/eth1/device/resource0");
    EthernetDDAPI dev("ethDrv");
    EXPECT_EQ(render(dev.ReadSFP("eth0", 0, 0, 1, data)), "EthernetDDAPI::SendIoctl: \"Intel I210 not support\"");
    int sfp[2] = {0};
    ASSERT_EQ(render(dev.ReadSFP("eth3", 0, 0, 2, sfp)), "");
    EXPECT_EQ(sfp[0], 0x0D);  // QSFP+
    ASSERT_EQ(render(dev.WriteSFP("eth3", 1, 130, 0x77)), "");
    EXPECT_EQ(port("eth3").sfpA2[130], 0x77);
    port("eth3").sfpA0.clear();  // module pulled: the command completes with the error bit
    ASSERT_EQ(render(dev.ReadSFP("eth3", 0, 0, 1, sfp)), "");
    EXPECT_EQ(sfp[0], 0xFF);
}

TEST_F(EthernetTest, LedListHonoursTheProfileInLowerCase) {
    EthernetDDAPI dev("ethDrv");
    std::list<std::string> names;
    ASSERT_EQ(render(dev.getLEDList(&names)), "");
    names.sort();
    EXPECT_EQ(std::vector<std::string>(names.begin(), names.end()),
              (std::vector<std::string>{"eth0_led0", "eth0_led1", "eth3_led0", "eth3_led1"}));
    board.writeFile("/etc/quarn/Ethernet_LED_profile.ini", "# none of eth3\nETH3_LED1 not fitted\n\n  eth0_led0\n");
    names.clear();
    ASSERT_EQ(render(dev.getLEDList(&names)), "");
    names.sort();
    EXPECT_EQ(std::vector<std::string>(names.begin(), names.end()),
              (std::vector<std::string>{"eth0_led1", "eth0_led2", "eth3_led0"}));
    board.unlink("/etc/quarn/Ethernet_LED_profile.ini");
    names.clear();
    ASSERT_EQ(render(dev.getLEDList(&names)), "");
    EXPECT_EQ(names.size(), 5u);
}

TEST_F(EthernetTest, LedStatesThroughTheChipRegisters) {
    EthernetDDAPI dev("ethDrv");
    BaseClassDDAPI& leds = dev;  // the LED front end holds device objects by their base
    std::string state;
    ASSERT_EQ(render(leds.setLEDStatus("eth0_led1", "on")), "");
    ASSERT_EQ(render(leds.getLEDStatus("eth0_led1", &state)), "");
    EXPECT_EQ(state, "on");
    EXPECT_EQ(port("eth0").registers[0xE00], 0x00040E02u);
    ASSERT_EQ(render(leds.setLEDStatus("eth0_led1", "off")), "");
    ASSERT_EQ(render(leds.getLEDStatus("eth0_led1", &state)), "");
    EXPECT_EQ(state, "off");
    EXPECT_EQ(render(leds.getLEDStatus("eth0_led2", &state)),
              "EthernetDDAPI::GetEthernetNamesList -> EthernetDDAPI: \"Open ethernet node failed - Undefine LED status\"");
    port("eth0").registers[0xE00] = 0;
    EXPECT_EQ(render(leds.getLEDStatus("eth0_led0", &state)),
              "EthernetDDAPI::GetEthernetNamesList -> EthernetDDAPI: \"Open ethernet node failed - Undefine LED status\"");
    EXPECT_EQ(render(leds.setLEDStatus("eth0_led7", "on")),
              "EthernetDDAPI::GetEthernetNamesList -> EthernetDDAPI: \"Open ethernet node failed - Undefine LED index\"");
    EXPECT_EQ(render(leds.setLEDStatus("eth0_led0", "blink")),
              "EthernetDDAPI::GetEthernetNamesList -> EthernetDDAPI: \"Open ethernet node failed - Undefine LED status\"");

    ASSERT_EQ(render(leds.setLEDStatus("eth3_led1", "on")), "");
    EXPECT_EQ(port("eth3").registers[0x8815C] >> 12 & 0xF, 0xFu);
    ASSERT_EQ(render(leds.getLEDStatus("eth3_led1", &state)), "");
    EXPECT_EQ(state, "on");
    port("eth3").registers[0x8815C] |= 1u << 16 | 1u << 11;
    ASSERT_EQ(render(leds.setLEDStatus("eth3_led1", "off")), "");
    EXPECT_EQ(port("eth3").registers[0x8815C] & 0x1F800u, 0u);
    ASSERT_EQ(render(leds.getLEDStatus("eth3_led1", &state)), "");
    EXPECT_EQ(state, "off");
    // Ports without driven LEDs accept the request and do nothing.
    EXPECT_EQ(render(leds.setLEDStatus("eth1_led0", "on")), "");
    EXPECT_EQ(render(leds.setLEDStatus("noled", "on")),
              "EthernetDDAPI::GetEthernetNamesList: \"Undefine LED index\"");
}

TEST_F(EthernetTest, StatisticsTextAndRecord) {
    EthernetDAPI eth("EthernetDAPI");
    std::string text;
    ASSERT_EQ(render(eth.GetStatistics("eth1", &text)), "");
    EXPECT_NE(text.find("rx_crc_errors: 0\n"), std::string::npos);
    EXPECT_EQ(text.find("rx_packets"), std::string::npos);
    port("eth1").counters.rxCrcErrors = 7;
    text.clear();
    EXPECT_EQ(render(eth.GetStatistics("eth1", &text)),
              "EthernetDAPI::GetStatistics -> EthernetDDAPI::getStatistics: \"Statistics not zero\"");
    EXPECT_NE(text.find("rx_crc_errors: 7\n"), std::string::npos);

    port("eth4").counters.rxPackets = 1234;
    port("eth4").counters.txAbortedErrors = 2;
    Ethetnet_statistics stats;
    ASSERT_EQ(render(eth.GetStatistics("eth4", &stats)), "");
    EXPECT_EQ(stats.rx_packets, "1234");
    EXPECT_EQ(stats.tx_aborted_errors, "2");
    EXPECT_EQ(render(eth.GetStatistics("eth9", &stats)),
              "EthernetDAPI::GetStatistics: \"rx_packets\" -> EthernetDAPI::GetNodeValue: \"Open node fail fail - "
              "/sys/class/net/eth9/statistics/rx_packets\"");
}

TEST_F(EthernetTest, ClearReloadsTheDriverAndRestoresAddresses) {
    EthernetDAPI eth("EthernetDAPI");
    EthernetDDAPI dev("ethDrv");
    std::string bytes[6] = {"00", "1b", "21", "aa", "bb", "cc"};
    ASSERT_EQ(render(dev.SetEthernetMAC("eth0", bytes)), "");
    port("eth0").counters.rxErrors = 5;
    port("eth1").counters.rxErrors = 5;
    ASSERT_EQ(render(eth.Clear("eth0")), "");
    EXPECT_EQ(port("eth0").counters.rxErrors, 0u);
    EXPECT_EQ(port("eth1").counters.rxErrors, 5u);  // another driver
    EXPECT_EQ(sysfs("/sys/class/net/eth0/address"), "00:1b:21:aa:bb:cc");
    unsigned char ip[4] = {0};
    char eth0[] = "eth0";
    ASSERT_EQ(render(eth.ReadIPAddress(eth0, ip)), "");
    EXPECT_EQ(ip[0], 10);
    EXPECT_TRUE(port("eth0").up);
}

TEST_F(EthernetTest, AerReportAndClear) {
    auto f = board.pci->function("0000:08:00.0");
    f->raise(f->aerCapability() + 0x10, 0x1, 4);  // receiver error
    EthernetDAPI eth("EthernetDAPI");
    std::string text;
    ASSERT_EQ(render(eth.GetAER("eth0", &text)), "");
    EXPECT_NE(text.find("PCI AER "), std::string::npos);
    EXPECT_NE(text.find(": 0x00000001\n"), std::string::npos) << text;
    ASSERT_EQ(render(eth.Clear("eth0")), "");
    EXPECT_EQ(f->read(f->aerCapability() + 0x10, 4), 0u);
    std::string name;
    ASSERT_EQ(render(eth.GetControllerName("eth0", &name)), "");
    EXPECT_EQ(name, "8086:1533");
}

TEST_F(EthernetTest, InterfaceNamesNeverReachAShell) {
    EthernetDAPI eth("EthernetDAPI");
    float throughput = 0;
    const std::string evil = "eth0;touch /tmp/quarn-eth-pwned";
    EXPECT_NE(render(eth.Extrenal_loopback(evil, 1000, &throughput)), "");
    std::string text;
    EXPECT_NE(render(eth.GetStatistics(evil, &text)), "");
    EXPECT_EQ(render(eth.Clear("$(reboot)")), "EthernetDAPI::Clear -> EthernetDDAPI::clearAER -> "
                                               "EthernetDAPI::GetFirmwareVersion: \"IOCTL execute fail - No such device\"");
    struct stat st;
    EXPECT_NE(::stat("/tmp/quarn-eth-pwned", &st), 0);
}

}  // namespace
