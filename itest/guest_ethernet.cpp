// Ethernet checks in the integration guest: two e1000e NICs joined through a QEMU hub.
// EEPROM, link, statistics and the ethtool self-test through the real e1000e driver, and
// the raw-frame two-port loopback moving frames between the two kernel drivers.
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <list>
#include <string>
#include <vector>

#include "dapi/ethernet/EthernetDAPI.h"
#include "ddapi/ethernet/EthernetDDAPI.h"
#include "ddapi/ethernet/INTEL_I210.h"
#include "itest/GuestCheck.h"

namespace {

using namespace itest;

// The e1000e (82574L) is no chip of the board; this platform shows the two guest ports
// with the I210's device ID, so the chip drivers (whose ethtool paths e1000e shares) run.
class I210Ids : public ForwardingPlatform {
public:
    std::vector<std::string> ports;
    std::string idFile = "/tmp/quarn-itest-i210-device";
    int open(const std::string& p, int f, mode_t m) override {
        for (const std::string& port : ports)
            if (p == "/sys/class/net/" + port + "/device/device") return l.open(idFile, f, m);
        return l.open(p, f, m);
    }
};

std::vector<char> cname(const std::string& s) {
    std::vector<char> v(s.begin(), s.end());
    v.push_back('\0');
    return v;
}

long counter(const std::string& port, const char* name) {
    return std::atol(readText("/sys/class/net/" + port + "/statistics/" + name).c_str());
}

void runEthernetChecks() {
    part("ethernet");
    std::list<ethernet_data> all;
    EthernetDAPI eth("EthernetDAPI");
    if (!ok("eth port list", eth.GetDeviceNames(&all))) return;
    std::vector<std::string> e1000e;
    for (const ethernet_data& p : all)
        if (p.driver == "e1000e") e1000e.push_back(p.name);
    if (e1000e.size() < 2) {
        skip("eth two-port checks", "the guest has " + std::to_string(e1000e.size()) + " e1000e port(s), needs 2");
        return;
    }
    const std::string a = e1000e[0], b = e1000e[1];
    std::string output;
    int status = 0;
    for (const std::string& p : {a, b}) quarn::platform().runProgram({"ifconfig", p, "up"}, &output, &status);

    // EEPROM through ethtool: the NVM's first three words are the port's MAC address.
    std::vector<char> n = cname(a);
    int size = 0;
    if (ok("eth eeprom size " + a, eth.ReadEEPROMSize(n.data(), &size)))
        expect("eth eeprom size positive", size > 0, std::to_string(size));
    unsigned char nvm[64] = {0};
    if (ok("eth eeprom read " + a, eth.ReadEEPROM(n.data(), nvm, 64))) {
        char mac[18];
        snprintf(mac, sizeof mac, "%02x:%02x:%02x:%02x:%02x:%02x", nvm[0], nvm[1], nvm[2], nvm[3], nvm[4], nvm[5]);
        const std::string kernel = readText("/sys/class/net/" + a + "/address");
        expect("eth eeprom holds the MAC", kernel == mac, std::string(mac) + " vs " + kernel);
    }
    EthernetDDAPI dev("ethDrv");
    int magic = 0;
    if (ok("eth magic " + a, dev.GetEthernetMagic(n.data(), &magic)))
        expect("eth magic is vendor|device<<16", static_cast<uint32_t>(magic) == 0x10D38086u, hex(static_cast<uint32_t>(magic)));
    std::string mac;
    const std::string refused = take(dev.GetEthernetMAC(a, &mac));
    expect("eth e1000e is no board chip", refused.find("No define ethernet") != std::string::npos, refused);

    // Link over the hub.
    std::string state, speed;
    for (int i = 0; i < 10 && state != "Up"; ++i) {
        if (i) quarn::platform().sleepMicroseconds(500000);
        deleteErrorMsg(eth.GetLinkStatus(b, &state));
    }
    expect("eth link " + b, state == "Up", state);
    if (ok("eth speed " + a, eth.GetSpeedDuplex(a, &speed))) expect("eth speed text", speed == "1Gb", speed);
    std::string modes[EthernetDAPI::kLinkModeCount];
    int count = 0;
    if (ok("eth link modes " + a, eth.GetSupportedLinkModes(a, modes, &count)))
        expect("eth link modes include 1000baseT/Full",
               std::find(modes, modes + count, std::string("1000baseT/Full")) != modes + count, std::to_string(count));

    // The two-port loopback with the I210 driver's speed set-up.
    I210Ids ids;
    ids.ports = {a, b};
    quarn::writeScratchFile(ids.idFile, "0x1533\n");
    quarn::installPlatform(&ids);
    const long rx0 = counter(b, "rx_packets");
    float throughput = 0;
    std::string note;
    EthernetDAPI loop("EthernetDAPI");
    if (ok("eth two-port loopback " + a + "<->" + b, loop.Extrenal_loopback(a, b, 1000, &throughput, &note))) {
        printf("INFO two-port loopback through the QEMU hub: %.1f Mbit/s\n", throughput);
        expect("eth loopback throughput", throughput > 0, std::to_string(throughput));
    }
    Ethetnet_statistics stats;
    if (ok("eth statistics " + b, eth.GetStatistics(b, &stats)))
        expect("eth receiver counted the frames", std::atol(stats.rx_packets.c_str()) - rx0 > 19,
               stats.rx_packets + " after " + std::to_string(rx0));
    std::string firmware;
    ok("eth firmware version", eth.GetFirmwareVersion(a, &firmware));

    // The offline self-test (about 11 s under TCG each run): once through the device layer
    // (EEPROM validation), once more as a raw record mapped by the I210 driver type by type,
    // reporting what QEMU's e1000e passes. A result other than 0 or 1 is the driver's own
    // detail (the register test stores the failing register's offset).
    EthernetDDAPI self("ethDrv");
    int eepromResult = -1;
    ok("eth selftest through the device layer", self.SendIoctl(a, EEPROM_VALIDATION_TEST, &eepromResult));
    std::vector<uint64_t> storage(sizeof(ethtool_test) / 8 + 8, 0);
    auto* test = reinterpret_cast<ethtool_test*>(storage.data());
    test->cmd = ETHTOOL_TEST;
    test->flags = ETH_TEST_FL_OFFLINE;
    test->len = 5;
    struct ifreq ifr;
    memset(&ifr, 0, sizeof ifr);
    memcpy(ifr.ifr_name, a.c_str(), std::min(a.size(), sizeof(ifr.ifr_name) - 1));
    ifr.ifr_data = reinterpret_cast<char*>(test);
    const int fd = quarn::platform().socket(AF_INET, SOCK_DGRAM, 0);
    const int rc = fd < 0 ? -1 : quarn::platform().ioctl(fd, SIOCETHTOOL, &ifr);
    if (fd >= 0) quarn::platform().close(fd);
    if (rc != 0) {
        fail("eth selftest record", "SIOCETHTOOL ETHTOOL_TEST failed");
    } else {
        struct Step {
            const char* name;
            TestType type;
        };
        const Step steps[] = {{"register", REGISTER_TEST},
                              {"eeprom", EEPROM_VALIDATION_TEST},
                              {"interrupt", INTERRUPT_TEST},
                              {"internal-loopback", INTERNAL_LOOPBACK_TEST},
                              {"link", LINK_STATUS_TEST}};
        INTEL_I210 chip(a.c_str());
        for (const Step& s : steps) {
            int value = -1;
            const std::string text = take(chip.Get_self_test_result(test, s.type, &value));
            const std::string name = std::string("eth selftest ") + s.name;
            if (value == 0 && text.empty()) pass(name + " (result 0)");
            else skip(name, "QEMU's e1000e does not pass this step (result " + hex(static_cast<uint32_t>(value)) + ")" +
                                (text.empty() ? "" : ": " + text));
        }
    }
    quarn::installPlatform(nullptr);
}

static itest::RegisterGuestPart reg("ethernet", runEthernetChecks);

}  // namespace
