// The Ethernet device layer against the virtual board's ports: port list, addresses,
// MAC and EEPROM through each chip driver, self-tests, well-known names.
#include <gtest/gtest.h>

#include <fstream>
#include <list>
#include <string>
#include <vector>

#include "ddapi/ethernet/EthernetDDAPI.h"
#include "ddapi/ethernet/INTEL_I210.h"
#include "ddapi/ethernet/INTEL_X552.h"
#include "ddapi/ethernet/INTEL_XL710.h"
#include "ddapi/ethernet/QLOGIC_EP8324.h"
#include "tests/ethernet/EthernetTestSupport.h"

namespace {

using quarn::test::EthernetTest;
using quarn::test::render;

std::string mac(EthernetDDAPI& dev, const std::string& ifname) {
    std::string out;
    if (ErrorMsg* e = dev.GetEthernetMAC(ifname, &out)) return render(e);
    return out;
}

TEST_F(EthernetTest, PortListNamesEveryPortWithSlotControllerAddressAndDriver) {
    EthernetDDAPI dev("ethDrv");
    std::list<ethernet_data> ports;
    ASSERT_EQ(render(dev.GetEthernetNamesList(&ports)), "");
    std::map<std::string, ethernet_data> byName;
    for (const ethernet_data& p : ports) byName[p.name] = p;
    ASSERT_EQ(byName.size(), 6u);
    EXPECT_EQ(byName.count("lo"), 0u);
    EXPECT_EQ(byName["eth0"].slotName, "0000:08:00.0");
    EXPECT_EQ(byName["eth0"].ipAddress, "192.168.1.10");
    EXPECT_EQ(byName["eth0"].driver, "igb");
    EXPECT_EQ(byName["eth0"].controller.rfind("  Intel Corporation", 0), 0u) << byName["eth0"].controller;
    EXPECT_NE(byName["eth0"].controller.find("I210"), std::string::npos);
    EXPECT_EQ(byName["eth2"].slotName, "0000:0a:00.1");
    EXPECT_EQ(byName["eth2"].ipAddress, "0.0.0.0");
    EXPECT_EQ(byName["eth3"].driver, "i40e");
    EXPECT_EQ(byName["eth5"].driver, "qlcnic");
    EXPECT_EQ(byName["eth5"].slotName, "0000:0c:00.3");
}

TEST_F(EthernetTest, AddressQueriesAndNameLimits) {
    EthernetDDAPI dev("ethDrv");
    unsigned char ip[4] = {9, 9, 9, 9};
    char eth0[] = "eth0";
    ASSERT_EQ(render(dev.GetEthernetIP(eth0, ip)), "");
    EXPECT_EQ(std::vector<int>(ip, ip + 4), (std::vector<int>{10, 1, 168, 192}));
    ASSERT_EQ(render(dev.GetEthernetMask(eth0, ip)), "");
    EXPECT_EQ(std::vector<int>(ip, ip + 4), (std::vector<int>{0, 255, 255, 255}));
    char eth1[] = "eth1";
    ASSERT_EQ(render(dev.GetEthernetIP(eth1, ip)), "");
    EXPECT_EQ(std::vector<int>(ip, ip + 4), (std::vector<int>{0, 0, 0, 0}));
    int mtu = 0;
    ASSERT_EQ(render(dev.GetEthernetMTU(eth1, &mtu)), "");
    EXPECT_EQ(mtu, 1500);

    char sixteen[] = "eth0123456789abc";  // 16 characters: no room for the end in ifr_name
    EXPECT_EQ(render(dev.GetEthernetIP(sixteen, ip)), "EthernetDDAPI::GetEthernetIP: \"Interface's name is too long\"");
    EXPECT_EQ(render(dev.GetEthernetMTU(sixteen, &mtu)), "EthernetDDAPI::GetEthernetMTU: \"Interface's name is too long\"");
    char fifteen[] = "eth0123456789ab";
    EXPECT_EQ(render(dev.GetEthernetMask(fifteen, ip)),
              "EthernetDDAPI::GetEthernetMask: \"IOCTL operation execute fail - No such device\"");
    char empty[] = "";
    EXPECT_EQ(render(dev.GetEthernetMTU(empty, &mtu)), "EthernetDDAPI::GetEthernetMTU: \"No specify ethernet name\"");
}

TEST_F(EthernetTest, EveryChipReadsItsOwnMacAddress) {
    EthernetDDAPI dev("ethDrv");
    EXPECT_EQ(mac(dev, "eth0"), "00:1B:21:A0:00:10");
    EXPECT_EQ(mac(dev, "eth1"), "00:1B:21:B0:00:20");  // X552 function 0: pointer at byte 18
    EXPECT_EQ(mac(dev, "eth2"), "00:1B:21:B0:00:21");  // function 1: pointer at byte 20
    EXPECT_EQ(mac(dev, "eth3"), "3C:FD:FE:C0:00:30");
    EXPECT_EQ(mac(dev, "eth4"), "00:0E:1E:D0:00:40");  // EP8324 through the BAR0 mailbox
    EXPECT_EQ(mac(dev, "eth5"), "00:0E:1E:D0:00:41");
    EXPECT_EQ(dev.boundName(), "eth5");
}

TEST_F(EthernetTest, SixStepMacWriteOnTheI210KeepsTheChecksumValid) {
    EthernetDDAPI dev("ethDrv");
    std::string bytes[6] = {"00", "1b", "21", "aa", "bb", "cc"};
    ASSERT_EQ(render(dev.SetEthernetMAC("eth0", bytes)), "");
    EXPECT_EQ(mac(dev, "eth0"), "00:1B:21:AA:BB:CC");
    EXPECT_TRUE(port("eth0").nvm->checksumValid());
    int result = -1;
    EXPECT_EQ(render(dev.SendIoctl("eth0", EEPROM_VALIDATION_TEST, &result)), "");
    EXPECT_EQ(result, 0);
    // The interface keeps its address until the driver reads the NVM again.
    EXPECT_EQ(sysfs("/sys/class/net/eth0/address"), "00:1b:21:a0:00:10");
}

TEST_F(EthernetTest, FailedMacStepNamesTheStepAndLeavesTheOldAddress) {
    EthernetDDAPI dev("ethDrv");
    port("eth0").nvm->failWriteOffset = 3;  // the fourth byte cannot be written
    std::string bytes[6] = {"02", "00", "00", "11", "22", "33"};
    EXPECT_EQ(render(dev.SetEthernetMAC("eth0", bytes)),
              "EthernetDDAPI::SetEthernetMAC -> EthernetDDAPI::SetEthernetMAC: \"Set MAC four fail\" -> "
              "EthernetDDAPI::SetEthernetEEPROM: \"IOCTL operation execute fail - Input/output error\"");
    EXPECT_EQ(mac(dev, "eth0"), "00:1B:21:A0:00:10");

    port("eth0").nvm->failWriteOffset = -1;
    std::string bad[6] = {"02", "00", "zz", "11", "22", "33"};
    EXPECT_EQ(render(dev.SetEthernetMAC("eth0", bad)),
              "EthernetDDAPI::SetEthernetMAC -> EthernetDDAPI::SetEthernetMAC: \"Set MAC three fail - bad byte \"zz\"\"");
    std::string shell[6] = {"02", "00", "$(reboot)", "11", "22", "33"};
    EXPECT_NE(render(dev.SetEthernetMAC("eth0", shell)).find("Set MAC three fail"), std::string::npos);
    EXPECT_EQ(mac(dev, "eth0"), "00:1B:21:A0:00:10");
}

TEST_F(EthernetTest, X552MacWriteFollowsThePortsPointer) {
    EthernetDDAPI dev("ethDrv");
    std::string bytes[6] = {"00", "1b", "21", "b0", "99", "21"};
    ASSERT_EQ(render(dev.SetEthernetMAC("eth2", bytes)), "");
    EXPECT_EQ(mac(dev, "eth2"), "00:1B:21:B0:99:21");
    EXPECT_EQ(mac(dev, "eth1"), "00:1B:21:B0:00:20");  // the shared NVM keeps the other port's address
    EXPECT_EQ(port("eth2").nvm->bytes[0x92 + 4], 0x99);
}

TEST_F(EthernetTest, Xl710MacAndEepromWritesGoThroughTheVendorTool) {
    EthernetDDAPI dev("ethDrv");
    std::string bytes[6] = {"3c", "fd", "fe", "c0", "12", "34"};
    ASSERT_EQ(render(dev.SetEthernetMAC("eth3", bytes)), "");
    EXPECT_EQ(mac(dev, "eth3"), "3C:FD:FE:C0:12:34");
    int data[3] = {0x11, 0x22, 0x33};
    ASSERT_EQ(render(dev.SetEthernetEEPROM("eth3", 0x201, data, 3)), "");
    int back[4] = {0};
    ASSERT_EQ(render(dev.GetEthernetEEPROM("eth3", 0x200, 4, back)), "");
    EXPECT_EQ(std::vector<int>(back, back + 4), (std::vector<int>{0xFF, 0x11, 0x22, 0x33}));
    // ethtool itself refuses NVM writes on this chip.
    char eth3[] = "eth3";
    EXPECT_EQ(render(dev.SetEthernetEEPROM(eth3, 0x200, 1)),
              "EthernetDDAPI::SetEthernetEEPROM: \"IOCTL operation execute fail - Operation not supported\"");
    port("eth3").nvm->failWriteOffset = 0x204;
    int one = 7;
    EXPECT_EQ(render(dev.SetEthernetEEPROM("eth3", 0x205, &one, 1)),
              "EthernetDDAPI::SendIoctl: \"Set EEPROM fail\" -> "
              "EthernetDriver::XL710 set EEPROM: \"XL710 set EEPROM fail\"");
}

TEST_F(EthernetTest, Ep8324MacWriteUpdatesTheFlashBlockAndItsChecksum) {
    EthernetDDAPI dev("ethDrv");
    testing::internal::CaptureStdout();
    std::string bytes[6] = {"00", "0e", "1e", "d0", "77", "41"};
    ASSERT_EQ(render(dev.SetEthernetMAC("eth5", bytes)), "");
    const std::string progress = testing::internal::GetCapturedStdout();
    EXPECT_NE(progress.find("100%\n"), std::string::npos);
    EXPECT_NE(progress.find("  1%\r"), std::string::npos);
    EXPECT_EQ(mac(dev, "eth5"), "00:0E:1E:D0:77:41");
    EXPECT_EQ(mac(dev, "eth4"), "00:0E:1E:D0:00:40");
    EXPECT_TRUE(board.ethernet->ep8324->macBlockValid());

    // A dword that cannot be programmed: the block is put back and stays valid.
    board.ethernet->ep8324->failWriteAddress = 0x370418;
    std::string again[6] = {"00", "0e", "1e", "d0", "55", "41"};
    testing::internal::CaptureStdout();
    const std::string text = render(dev.SetEthernetMAC("eth5", again));
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(text.rfind("EthernetDDAPI::SetEthernetMAC -> EthernetDAPI::Setup_speed: \"SPI write fail\" -> "
                         "EthernetDAPI::Setup_speed: \"SPI write mailbox fail\"", 0), 0u) << text;
    EXPECT_EQ(mac(dev, "eth5"), "00:0E:1E:D0:77:41");
    EXPECT_TRUE(board.ethernet->ep8324->macBlockValid());
}

TEST_F(EthernetTest, Ep8324FlashBytesAndChecksumHelper) {
    QLOGIC_EP8324 chip("eth4");
    int data[6] = {0};
    ASSERT_EQ(render(chip.GetEEPROM("eth4", 0x370411, 6, data)), "");
    // Dword 0x370410 holds MAC bytes 2-5 of port 0 from its top byte down.
    EXPECT_EQ(std::vector<int>(data, data + 6), (std::vector<int>{0x00, 0xD0, 0x1E, 0x0E, 0x00, 0x00}));
    int patch[2] = {0xAB, 0xCD};
    ASSERT_EQ(render(chip.SetEEPROM("eth4", 0x100002, patch, 2)), "");
    EXPECT_EQ(board.ethernet->ep8324->flash(0x100000), 0xCDABFFFFu);
    EXPECT_EQ(render(chip.UpdateFlashChecksum(0x200, 0x100, 0x100)),
              "EthernetDAPI::Setup_speed: \"Start address bigger than end\"");
    int sfp[3] = {0};
    ASSERT_EQ(render(chip.ReadSFP("eth5", 0xA0, 20, 3, sfp)), "");
    EXPECT_EQ(std::string({static_cast<char>(sfp[0]), static_cast<char>(sfp[1]), static_cast<char>(sfp[2])}), "QLO");
    ASSERT_EQ(render(chip.WriteSFP("eth5", 0xA2, 130, 0x5A)), "");
    EXPECT_EQ(board.ethernet->ep8324->sfp[1][1][130], 0x5A);
    EXPECT_EQ(board.ethernet->ep8324->sfp[0][1][130], 0x00);
}

TEST_F(EthernetTest, EepromThroughEthtoolOnTheIntelPorts) {
    EthernetDDAPI dev("ethDrv");
    char eth0[] = "eth0";
    unsigned char bytes[6] = {0};
    ASSERT_EQ(render(dev.GetEthernetEEPROM(eth0, bytes, 6)), "");
    EXPECT_EQ(bytes[3], 0xA0);
    int size = 0, magic = 0;
    ASSERT_EQ(render(dev.GetEthernetEEPROMSize(eth0, &size)), "");
    EXPECT_EQ(size, 4096);
    ASSERT_EQ(render(dev.GetEthernetMagic(eth0, &magic)), "");
    EXPECT_EQ(static_cast<uint32_t>(magic), 0x15338086u);
    ASSERT_EQ(render(dev.SetEthernetEEPROM(eth0, 0x100, 0x42)), "");
    EXPECT_EQ(port("eth0").nvm->bytes[0x100], 0x42);
    EXPECT_EQ(render(dev.GetEthernetEEPROM(eth0, bytes, 0)),
              "EthernetDDAPI::GetEthernetEEPROM: \"out of range - length 0\"");
    int data[2] = {0};
    EXPECT_EQ(render(dev.GetEthernetEEPROM("eth1", 8190, 4, data)),
              "EthernetDDAPI::SendIoctl: \"Get EEPROM fail\" -> "
              "EthernetDDAPI::GetEthernetEEPROM: \"IOCTL operation execute fail - Invalid argument\"");
}

TEST_F(EthernetTest, SelfTestResultsMapPerChip) {
    EthernetDDAPI dev("ethDrv");
    for (int type = 0; type <= 4; ++type) {
        int value = -1;
        EXPECT_EQ(render(dev.SendIoctl("eth1", static_cast<TestType>(type), &value)), "") << type;
        EXPECT_EQ(value, 0);
    }
    int value = -1;
    EXPECT_EQ(render(dev.SendIoctl("eth1", static_cast<TestType>(5), &value)),
              "EthernetDDAPI::SendIoctl: \"Undefined test option\"");
    board.ethernet->corruptNvmChecksum("eth1");
    EXPECT_EQ(render(dev.SendIoctl("eth2", EEPROM_VALIDATION_TEST, &value)),
              "EthernetDDAPI::SendIoctl: \"EEPROM validation test fail\"");  // the NVM is shared
    EXPECT_EQ(value, 1);
    port("eth0").failingSelfTests = {2};
    EXPECT_EQ(render(dev.SendIoctl("eth0", INTERRUPT_TEST, &value)), "EthernetDDAPI::SendIoctl: \"Interrupt test fail\"");
    EXPECT_EQ(render(dev.SendIoctl("eth0", REGISTER_TEST, &value)), "");
    port("eth0").neverLinks = true;
    EXPECT_EQ(render(dev.SendIoctl("eth0", LINK_STATUS_TEST, &value)), "EthernetDDAPI::SendIoctl: \"Link status test fail\"");
    // The QLogic driver reports a failed result without an error.
    port("eth4").failingSelfTests = {5};
    EXPECT_EQ(render(dev.SendIoctl("eth4", EEPROM_VALIDATION_TEST, &value)), "");
    EXPECT_EQ(value, 1);
    EXPECT_EQ(render(dev.SendIoctl("", REGISTER_TEST, &value)), "EthernetDDAPI::SendIoctl: \"No specify ethernet name\"");
}

TEST_F(EthernetTest, UnknownChipRefusesForwardingButLedsSucceed) {
    board.writeFile("/sys/bus/pci/devices/0000:08:00.0/device", "0x1234\n");
    EthernetDDAPI dev("ethDrv");
    EXPECT_EQ(mac(dev, "eth0"), "EthernetDDAPI::SendIoctl: \"IOCTL operation execute fail - No define ethernet\"");
    std::string bytes[6] = {"0", "1", "2", "3", "4", "5"};
    EXPECT_EQ(render(dev.SetEthernetMAC("eth0", bytes)), "EthernetDDAPI::SetEthernetMAC: \"No define ethernet\"");
    int data[1];
    EXPECT_EQ(render(dev.GetEthernetEEPROM("eth0", 0, 1, data)),
              "EthernetDDAPI::SendIoctl: \"IOCTL operation execute fail - No define ethernet\"");
    EXPECT_EQ(render(dev.setLEDStatus("eth0_led0", "on")), "");
    board.removeDevice("/sys/bus/pci/devices/0000:08:00.0/vendor");
    EXPECT_EQ(mac(dev, "eth0"), "EthernetDDAPI::SendIoctl: \"Get vender ID fail\" -> "
                                "EthernetDDAPI::get_device_ID: \"Open ethernet node failed - /sys/class/net/eth0/device/vendor\"");
}

TEST_F(EthernetTest, WellKnownNamesLaterMatchWinsAndNoMatchKeepsTheOutput) {
    EthernetDDAPI dev("ethDrv");
    std::string real = "unchanged";
    ASSERT_EQ(render(dev.ConverWellKnowNameToRealName("DATA1", &real)), "");
    EXPECT_EQ(real, "eth2");
    board.writeFile("/Ethernet_profile.ini",
                    "[Other]\nMGMT eth9\n[Ethernet]\n# MGMT eth7\nMGMT eth0\n  MGMT   eth3 extra\n[Ethernet2]\nMGMT eth8\n"
                    "[Ethernet]\nODD $(touch /tmp/quarn-pwned);ls\n");
    ASSERT_EQ(render(dev.ConverWellKnowNameToRealName("MGMT", &real)), "");
    EXPECT_EQ(real, "eth3");
    ASSERT_EQ(render(dev.ConverWellKnowNameToRealName("ODD", &real)), "");
    EXPECT_EQ(real, "$(touch");
    real = "unchanged";
    ASSERT_EQ(render(dev.ConverWellKnowNameToRealName("NOPE", &real)), "");
    EXPECT_EQ(real, "unchanged");
    board.unlink("/Ethernet_profile.ini");
    EXPECT_EQ(render(dev.ConverWellKnowNameToRealName("MGMT", &real)),
              "EthernetDDAPI::GetEthernetNamesList: \"Fail to open file node - No such file or directory\"");
}

TEST_F(EthernetTest, IdentityAndBusType) {
    EthernetDDAPI dev("eth3");
    std::string text;
    ASSERT_EQ(render(dev.get_vendor_ID(&text)), "");
    EXPECT_EQ(text, "0x8086");
    ASSERT_EQ(render(dev.get_device_ID(&text)), "");
    EXPECT_EQ(text, "0x1583");
    ASSERT_EQ(render(dev.get_device_bus_type(&text)), "");
    EXPECT_EQ(text, "pci");
    EthernetDDAPI lo("lo");
    EXPECT_EQ(render(lo.get_device_bus_type(&text)), "EthernetDDAPI::get_device_bus_type: \"Read symbolic link fail - No such file or directory\"");
    char text1[] = "xxabc";
    EXPECT_STREQ(EthernetDDAPI::LTrim(text1, 'x'), "abc");
}

}  // namespace
