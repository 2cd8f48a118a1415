// quarn eth ...: Ethernet ports, MAC and EEPROM programming, self-tests, link, speed,
// statistics and the raw-frame loopback tests.
#include <cctype>
#include <cstdio>
#include <list>
#include <string>
#include <vector>

#include "cli/Cli.h"
#include "cli/Progress.h"
#include "dapi/ethernet/EthernetDAPI.h"
#include "ddapi/ethernet/EthernetDDAPI.h"

namespace quarn::cli {
namespace {

std::vector<char> cname(const std::string& s) {
    std::vector<char> v(s.begin(), s.end());
    v.push_back('\0');
    return v;
}

std::string dotted(const unsigned char b[4]) {
    char t[16];
    snprintf(t, sizeof(t), "%u.%u.%u.%u", b[3], b[2], b[1], b[0]);
    return t;
}

// A value that is only informative: on failure its chain is dropped and value becomes
// fallback.
template <typename T>
void orDefault(ErrorMsg* e, T* value, T fallback) {
    if (!e) return;
    deleteErrorMsg(e);
    *value = fallback;
}

int list(Context& ctx, const std::vector<std::string>& args) {
    if (!args.empty()) return ctx.usage("eth list takes no arguments");
    EthernetDAPI eth("EthernetDAPI");
    std::list<ethernet_data> ports;
    if (ErrorMsg* e = eth.GetDeviceNames(&ports)) return ctx.fail(e);
    Value out = Value::array();
    ctx.text += "name             slot           driver   address          controller\n";
    for (const ethernet_data& p : ports) {
        char line[256];
        snprintf(line, sizeof(line), "%-16s %-14s %-8s %-16s %s\n", p.name.c_str(), p.slotName.c_str(), p.driver.c_str(),
                 p.ipAddress.c_str(), p.controller.c_str());
        ctx.text += line;
        Value v = Value::object();
        v.set("name", p.name).set("slot", p.slotName).set("driver", p.driver).set("address", p.ipAddress);
        v.set("controller", p.controller);
        out.push(v);
    }
    ctx.result.set("ports", out);
    return 0;
}

int info(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("usage: quarn eth info IF");
    const std::string& ifname = args[0];
    EthernetDAPI eth("EthernetDAPI");
    std::string mac;
    if (ErrorMsg* e = eth.ReadMacAddress(ifname, &mac)) return ctx.fail(e);
    std::vector<char> n = cname(ifname);
    unsigned char ip[4] = {0}, mask[4] = {0};
    int mtu = 0, size = 0;
    if (ErrorMsg* e = eth.ReadIPAddress(n.data(), ip)) return ctx.fail(e);
    if (ErrorMsg* e = eth.ReadIPMask(n.data(), mask)) return ctx.fail(e);
    if (ErrorMsg* e = eth.ReadMTU(n.data(), &mtu)) return ctx.fail(e);
    orDefault(eth.ReadEEPROMSize(n.data(), &size), &size, 0);
    std::string link, speed, firmware, controller;
    orDefault(eth.GetLinkStatus(ifname, &link), &link, std::string("unknown"));
    orDefault(eth.GetSpeedDuplex(ifname, &speed), &speed, std::string("unknown"));
    orDefault(eth.GetFirmwareVersion(ifname, &firmware), &firmware, std::string("unknown"));
    orDefault(eth.GetControllerName(ifname, &controller), &controller, std::string("unknown"));
    ctx.result.set("name", ifname).set("mac", mac).set("address", dotted(ip)).set("netmask", dotted(mask));
    ctx.result.set("mtu", mtu).set("link", link).set("speed", speed).set("firmware", firmware);
    ctx.result.set("controller", controller).set("eeprom_size", size);
    ctx.text += "Interface  : " + ifname + "\nController : " + controller + "\nMAC        : " + mac +
                "\nAddress    : " + dotted(ip) + "/" + dotted(mask) + "\nMTU        : " + std::to_string(mtu) +
                "\nLink       : " + link + " " + speed + "\nFirmware   : " + firmware +
                "\nEEPROM     : " + std::to_string(size) + " bytes\n";
    return 0;
}

int mac(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("usage: quarn eth mac IF");
    EthernetDAPI eth("EthernetDAPI");
    std::string text;
    if (ErrorMsg* e = eth.ReadMacAddress(args[0], &text)) return ctx.fail(e);
    ctx.result.set("name", args[0]).set("mac", text);
    ctx.text = text + "\n";
    return 0;
}

// "00:1b:21:aa:bb:cc", "00-1b-...", or twelve hexadecimal digits.
bool splitMac(const std::string& text, std::string bytes[6]) {
    std::string hex;
    for (char c : text) {
        if (c == ':' || c == '-') continue;
        if (!isxdigit(static_cast<unsigned char>(c))) return false;
        hex += c;
    }
    if (hex.size() != 12) return false;
    for (int i = 0; i < 6; ++i) bytes[i] = hex.substr(2 * i, 2);
    return true;
}

int setMac(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 2) return ctx.usage("usage: quarn eth set-mac IF MAC");
    std::string bytes[6];
    if (!splitMac(args[1], bytes)) return ctx.usage("MAC is six hexadecimal bytes, e.g. 00:1b:21:aa:bb:cc");
    EthernetDAPI eth("EthernetDAPI");
    StdoutCapture capture;  // the flash programming prints its progress
    ErrorMsg* e = eth.WriteMacAddress(args[0], bytes);
    capture.finish();
    if (e) return ctx.fail(e);
    std::string now;
    if (ErrorMsg* r = eth.ReadMacAddress(args[0], &now)) return ctx.fail(r);
    ctx.result.set("name", args[0]).set("mac", now);
    ctx.text = "MAC address of " + args[0] + " is now " + now + "\n";
    return 0;
}

int eeprom(Context& ctx, const std::vector<std::string>& args) {
    if (args.empty() || args.size() > 3) return ctx.usage("usage: quarn eth eeprom IF [OFFSET [LENGTH]]");
    long long offset = 0, length = 128;
    if (args.size() > 1 && !parseInt(args[1], 0, 0xFFFFFF, &offset)) return ctx.usage("OFFSET is 0-0xFFFFFF");
    if (args.size() > 2 && !parseInt(args[2], 1, 65536, &length)) return ctx.usage("LENGTH is 1-65536");
    EthernetDAPI eth("EthernetDAPI");
    std::vector<int> data(static_cast<size_t>(length), 0);
    if (ErrorMsg* e = eth.ReadEEPROM(args[0], static_cast<int>(offset), static_cast<int>(length), data.data()))
        return ctx.fail(e);
    Value bytes = Value::array();
    for (long long i = 0; i < length; ++i) {
        if (i % 16 == 0) {
            char head[16];
            snprintf(head, sizeof(head), "%s%06llx:", i ? "\n" : "", offset + i);
            ctx.text += head;
        }
        char b[8];
        snprintf(b, sizeof(b), " %02x", data[static_cast<size_t>(i)] & 0xFF);
        ctx.text += b;
        bytes.push(data[static_cast<size_t>(i)] & 0xFF);
    }
    ctx.text += "\n";
    ctx.result.set("name", args[0]).set("offset", offset).set("bytes", bytes);
    return 0;
}

int writeEeprom(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 3) return ctx.usage("usage: quarn eth write-eeprom IF OFFSET HEX");
    long long offset = 0;
    if (!parseInt(args[1], 0, 0xFFFFFF, &offset)) return ctx.usage("OFFSET is 0-0xFFFFFF");
    std::string hex = args[2];
    if (hex.rfind("0x", 0) == 0) hex = hex.substr(2);
    if (hex.empty() || hex.size() % 2 || hex.size() > 512 ||
        hex.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        return ctx.usage("HEX is 1-256 bytes as hexadecimal digits, e.g. a1b2");
    std::vector<int> data;
    for (size_t i = 0; i < hex.size(); i += 2) data.push_back(static_cast<int>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    EthernetDAPI eth("EthernetDAPI");
    if (ErrorMsg* e = eth.WriteEEPROM(args[0], static_cast<int>(offset), data.data(), static_cast<int>(data.size())))
        return ctx.fail(e);
    ctx.result.set("name", args[0]).set("offset", offset).set("count", static_cast<long long>(data.size()));
    ctx.text = "wrote " + std::to_string(data.size()) + " byte(s) at offset " + std::to_string(offset) + "\n";
    return 0;
}

int eepromTest(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("usage: quarn eth eeprom-test IF");
    EthernetDAPI eth("EthernetDAPI");
    int result = 0;
    ErrorMsg* e = eth.EepromValidationTest(args[0], &result);
    ctx.result.set("name", args[0]).set("result", result).set("passed", e == nullptr);
    if (e) return ctx.fail(e);
    ctx.text = "EEPROM validation test pass\n";
    return 0;
}

int selftest(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("usage: quarn eth selftest IF");
    const std::string& ifname = args[0];
    struct Step {
        const char* name;
        TestType type;
    };
    const Step steps[] = {{"register", REGISTER_TEST},
                          {"eeprom", EEPROM_VALIDATION_TEST},
                          {"interrupt", INTERRUPT_TEST},
                          {"internal-loopback", INTERNAL_LOOPBACK_TEST},
                          {"link", LINK_STATUS_TEST}};
    EthernetDAPI eth("EthernetDAPI");
    EthernetDDAPI dev("ethDrv");
    Value results = Value::array();
    ErrorMsg* first = nullptr;
    for (const Step& s : steps) {
        int value = 0;
        ErrorMsg* e = nullptr;
        switch (s.type) {
        case REGISTER_TEST: e = dev.SendIoctl(ifname, s.type, &value); break;
        case EEPROM_VALIDATION_TEST: e = eth.EepromValidationTest(ifname, &value); break;
        case INTERRUPT_TEST: e = eth.InterruptTest(ifname, &value); break;
        case INTERNAL_LOOPBACK_TEST: e = eth.InternalLoopbackTest(ifname, &value); break;
        case LINK_STATUS_TEST: e = eth.MDIRegisterTest(ifname, &value); break;
        }
        const bool passed = !e && value == 0;
        char line[96];
        snprintf(line, sizeof(line), "%-18s %s (%d)\n", s.name, passed ? "pass" : "FAIL", value);
        ctx.text += line;
        Value v = Value::object();
        v.set("test", s.name).set("result", value).set("passed", passed);
        results.push(v);
        if (e) {
            if (!first) first = e;
            else deleteErrorMsg(e);
        }
    }
    ctx.result.set("name", ifname).set("tests", results);
    if (first) return ctx.fail(first);
    return 0;
}

int link(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("usage: quarn eth link IF");
    EthernetDAPI eth("EthernetDAPI");
    std::string state, speed;
    if (ErrorMsg* e = eth.GetLinkStatus(args[0], &state)) return ctx.fail(e);
    if (ErrorMsg* e = eth.GetSpeedDuplex(args[0], &speed)) return ctx.fail(e);
    ctx.result.set("name", args[0]).set("link", state).set("speed", speed);
    ctx.text = args[0] + ": link " + state + (speed.empty() ? "" : ", speed " + speed) + "\n";
    return 0;
}

int modes(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("usage: quarn eth modes IF");
    EthernetDAPI eth("EthernetDAPI");
    std::string names[EthernetDAPI::kLinkModeCount];
    int count = 0;
    if (ErrorMsg* e = eth.GetSupportedLinkModes(args[0], names, &count)) return ctx.fail(e);
    Value out = Value::array();
    for (int i = 0; i < count; ++i) {
        ctx.text += names[i] + "\n";
        out.push(names[i]);
    }
    ctx.result.set("name", args[0]).set("modes", out);
    return 0;
}

int speed(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 2) return ctx.usage("usage: quarn eth speed IF MBPS");
    long long mbps = 0;
    if (!parseInt(args[1], 10, 100000, &mbps)) return ctx.usage("MBPS is 10-100000");
    EthernetDAPI eth("EthernetDAPI");
    if (ErrorMsg* e = eth.Setup_speed(args[0], static_cast<int>(mbps), 1)) return ctx.fail(e);
    std::string state, now;
    orDefault(eth.GetLinkStatus(args[0], &state), &state, std::string("unknown"));
    orDefault(eth.GetSpeedDuplex(args[0], &now), &now, std::string("unknown"));
    ctx.result.set("name", args[0]).set("requested", mbps).set("link", state).set("speed", now);
    ctx.text = args[0] + ": set to " + std::to_string(mbps) + " Mb/s, link " + state + " " + now + "\n";
    return 0;
}

int stats(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("usage: quarn eth stats IF");
    EthernetDAPI eth("EthernetDAPI");
    Ethetnet_statistics s;
    if (ErrorMsg* e = eth.GetStatistics(args[0], &s)) return ctx.fail(e);
    const std::pair<const char*, std::string*> rows[] = {
        {"rx_packets", &s.rx_packets}, {"rx_errors", &s.rx_errors},   {"rx_dropped", &s.rx_dropped},
        {"rx_frame_errors", &s.rx_frame_errors}, {"tx_packets", &s.tx_packets}, {"tx_errors", &s.tx_errors},
        {"tx_dropped", &s.tx_dropped}, {"tx_aborted_errors", &s.tx_aborted_errors}};
    Value counters = Value::object();
    for (const auto& [name, value] : rows) {
        char line[96];
        snprintf(line, sizeof(line), "%-18s %s\n", name, value->c_str());
        ctx.text += line;
        counters.set(name, *value);
    }
    std::string errors;
    ErrorMsg* e = eth.GetStatistics(args[0], &errors);
    ctx.result.set("name", args[0]).set("counters", counters).set("error_counters", errors);
    ctx.text += "error counters (ethtool -S):\n" + errors;
    if (e) return ctx.fail(e);
    return 0;
}

int clearStats(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("usage: quarn eth clear-stats IF");
    EthernetDAPI eth("EthernetDAPI");
    if (ErrorMsg* e = eth.Clear(args[0])) return ctx.fail(e);
    ctx.result.set("name", args[0]).set("cleared", true);
    ctx.text = "AER status and driver counters of " + args[0] + " cleared\n";
    return 0;
}

int firmware(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("usage: quarn eth firmware IF");
    EthernetDAPI eth("EthernetDAPI");
    std::string version;
    if (ErrorMsg* e = eth.GetFirmwareVersion(args[0], &version)) return ctx.fail(e);
    ctx.result.set("name", args[0]).set("firmware", version);
    ctx.text = version + "\n";
    return 0;
}

int loopback(Context& ctx, const std::vector<std::string>& args) {
    if (args.empty() || args.size() > 2) return ctx.usage("usage: quarn eth loopback IF [MBPS]");
    long long mbps = 1000;
    if (args.size() > 1 && !parseInt(args[1], 10, 100000, &mbps)) return ctx.usage("MBPS is 10-100000");
    EthernetDAPI eth("EthernetDAPI");
    float throughput = 0;
    ErrorMsg* e = runWithProgress(ctx, eth, [&] { return eth.Extrenal_loopback(args[0], static_cast<int>(mbps), &throughput); });
    ctx.result.set("name", args[0]).set("mbps", mbps).set("throughput_mbit", static_cast<double>(throughput));
    if (e) return ctx.fail(e);
    char line[96];
    snprintf(line, sizeof(line), "external loopback of %s: %.1f Mbit/s\n", args[0].c_str(), throughput);
    ctx.text = line;
    return 0;
}

int loopback2(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() < 2 || args.size() > 3) return ctx.usage("usage: quarn eth loopback2 IF_A IF_B [MBPS]");
    long long mbps = 1000;
    if (args.size() > 2 && !parseInt(args[2], 10, 100000, &mbps)) return ctx.usage("MBPS is 10-100000");
    EthernetDAPI eth("EthernetDAPI");
    float throughput = 0;
    std::string note;
    ErrorMsg* e = runWithProgress(
        ctx, eth, [&] { return eth.Extrenal_loopback(args[0], args[1], static_cast<int>(mbps), &throughput, &note); });
    ctx.result.set("port_a", args[0]).set("port_b", args[1]).set("mbps", mbps);
    ctx.result.set("throughput_mbit", static_cast<double>(throughput));
    if (e) return ctx.fail(e);
    char line[128];
    snprintf(line, sizeof(line), "loopback %s <-> %s: %.1f Mbit/s (mean of both directions)\n", args[0].c_str(),
             args[1].c_str(), throughput);
    ctx.text = line;
    return 0;
}

Register reg{
    {"eth", "list", "", "Ethernet ports: PCI slot, driver, IPv4 address, controller", list},
    {"eth", "info", "IF", "MAC, address, MTU, link, firmware and EEPROM size of a port", info},
    {"eth", "mac", "IF", "the MAC address stored in the port's EEPROM/flash", mac},
    {"eth", "set-mac", "IF MAC", "program the port's MAC address (chip driver)", setMac},
    {"eth", "eeprom", "IF [OFFSET [LENGTH]]", "dump the port's EEPROM/NVM (128 bytes by default)", eeprom},
    {"eth", "write-eeprom", "IF OFFSET HEX", "write bytes to the port's EEPROM/NVM", writeEeprom},
    {"eth", "eeprom-test", "IF", "EEPROM validation through the ethtool self-test", eepromTest},
    {"eth", "selftest", "IF", "every ethtool offline self-test result of the port", selftest},
    {"eth", "link", "IF", "link state and speed", link},
    {"eth", "modes", "IF", "supported link modes", modes},
    {"eth", "speed", "IF MBPS", "set speed (full duplex) and wait for the link", speed},
    {"eth", "stats", "IF", "interface counters and the driver's error counters", stats},
    {"eth", "clear-stats", "IF", "clear AER status and reload the driver to zero its counters", clearStats},
    {"eth", "firmware", "IF", "firmware version", firmware},
    {"eth", "loopback", "IF [MBPS]", "raw-frame throughput through a loopback plug", loopback},
    {"eth", "loopback2", "IF_A IF_B [MBPS]", "raw-frame throughput both ways over a cable", loopback2},
};

}  // namespace
}  // namespace quarn::cli
