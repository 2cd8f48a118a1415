// Intel I210 driver.
#include "ddapi/ethernet/INTEL_I210.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "api/platform/Platform.h"

namespace {
constexpr ERRORCODE kSendIoctl = 0xC3080400;
constexpr ERRORCODE kGetEEPROM = 0xC3081C00;
constexpr ERRORCODE kSetEEPROM = 0xC3082400;
constexpr ERRORCODE kSetMac = 0xC3082800;
constexpr ERRORCODE kLed = 0xC3080001;  // "Open ethernet node failed" row, with the LED text
constexpr ERRORCODE kSetupSpeed = 0xC3044000;
constexpr uint32_t kLedCtl = 0xE00;
constexpr size_t kLedWindow = 4096;

int ledIndex(const std::string& led) {
    if (led == "led0") return 0;
    if (led == "led1") return 1;
    if (led == "led2") return 2;
    return -1;
}
}  // namespace

INTEL_I210::INTEL_I210(const char* name) : IntelPhyDriver(name) {}
INTEL_I210::~INTEL_I210() = default;

ErrorMsg* INTEL_I210::Get_self_test_result(ethtool_test* result, TestType type, int* value) {
    return intelSelfTest(result, type, value);
}

ErrorMsg* INTEL_I210::ReadSFP(std::string, int, int, int, int*) {
    return returnErrorMsg(kSendIoctl, "Intel I210 not support", nullptr);
}

// vendor ID | device ID << 16, the device ID from the port's sysfs node.
ErrorMsg* INTEL_I210::magic(const std::string& ifname, uint32_t* value, ERRORCODE function) {
    std::string id;
    if (ErrorMsg* e = GetPCIDeviceID(ifname, &id)) return returnErrorMsg(function, nullptr, e);
    if (id == "0x1537") *value = 0x15378086;
    else *value = 0x15338086;
    return nullptr;
}

ErrorMsg* INTEL_I210::GetMAC(std::string ifname, std::string* mac) { return readMacBytes(ifname, 0, mac); }

ErrorMsg* INTEL_I210::SetMAC(std::string ifname, std::string* bytes) {
    uint32_t m = 0;
    if (ErrorMsg* e = magic(ifname, &m, kSetMac)) return e;
    return writeMacBytes(ifname, 0, m, bytes);
}

ErrorMsg* INTEL_I210::GetEEPROM(std::string ifname, int offset, int length, int* data) {
    return ethtoolReadEEPROM(ifname, offset, length, data, kGetEEPROM);
}

ErrorMsg* INTEL_I210::SetEEPROM(std::string ifname, int offset, int* data, int length) {
    uint32_t m = 0;
    if (ErrorMsg* e = magic(ifname, &m, kSetEEPROM)) return e;
    return ethtoolWriteEEPROM(ifname, offset, data, length, m, kSetEEPROM);
}

ErrorMsg* INTEL_I210::Program(std::string ifname, std::string imageFile) {
    return runEeupdate(ifname, {"/D", imageFile}, 0xC3044000, "I210 program EEPROM fail", "Get PCI BDF fail");
}

ErrorMsg* INTEL_I210::SetupSpeed(std::string ifname, int mbps) {
    quarn::Platform& p = quarn::platform();
    struct ethtool_cmd cmd;
    memset(&cmd, 0, sizeof(cmd));
    cmd.cmd = ETHTOOL_GSET;
    bool openFailed = false;
    if (ethtoolRequest(ifname, &cmd, &openFailed) < 0)
        return returnErrorMsg(kSetupSpeed | (openFailed ? 0x05 : 0x02), strerror(errno), nullptr);
    if (cmd.port == PORT_FIBRE && mbps != 1000)
        return returnErrorMsg(kSetupSpeed | 0x03, "Speed not supported", nullptr);
    const uint32_t supported = cmd.supported;
    cmd.cmd = ETHTOOL_SSET;
    ethtool_cmd_speed_set(&cmd, static_cast<uint32_t>(mbps));
    cmd.duplex = DUPLEX_FULL;
    cmd.autoneg = mbps >= 1000 ? AUTONEG_ENABLE : AUTONEG_DISABLE;
    if (ethtoolRequest(ifname, &cmd, &openFailed) < 0)
        return returnErrorMsg(kSetupSpeed | (openFailed ? 0x05 : 0x03), strerror(errno), nullptr);
    for (int i = 0; i < 7; ++i) {
        std::string state;
        if (ErrorMsg* e = GetLinkStatus(ifname, &state)) deleteErrorMsg(e);
        if (state == "Up") return nullptr;
        p.sleepMicroseconds(1000000);
    }
    // The link did not come up at the forced speed: give the port back to
    // autonegotiation over everything it supports.
    cmd.cmd = ETHTOOL_SSET;
    cmd.autoneg = AUTONEG_ENABLE;
    cmd.advertising = supported;
    if (ethtoolRequest(ifname, &cmd, &openFailed) < 0) errno = 0;
    return returnErrorMsg(0xC3044008, ifname.c_str(), nullptr);
}

ErrorMsg* INTEL_I210::getLEDName(std::string ifname, std::list<std::string>* names) {
    if (names)
        for (const char* suffix : {"_led0", "_led1", "_led2"}) names->push_back(ifname + suffix);
    return nullptr;
}

ErrorMsg* INTEL_I210::setLEDStatus(std::string, std::string led, std::string state) {
    const int index = ledIndex(led);
    if (index < 0) return returnErrorMsg(kLed, "Undefine LED index", nullptr);
    if (state != "on" && state != "off") return returnErrorMsg(kLed, "Undefine LED status", nullptr);
    volatile uint32_t* bar = mapWindow(kLedWindow);
    if (!bar) return returnErrorMsg(kLed, formatMessage("%.40s: %s", Get_Node().c_str(), strerror(errno)), nullptr);
    const int shift = index * 8;
    uint32_t v = bar[kLedCtl / 4];
    v &= ~(0xFu << shift);
    if (state == "on") {
        v |= 0xEu << shift;
        v &= ~(0x80u << shift);
        v &= 0x00FFFFFFu;
    } else {
        v |= 0xFu << shift;
    }
    bar[kLedCtl / 4] = v;
    unmapWindow(kLedWindow);
    return nullptr;
}

ErrorMsg* INTEL_I210::getLEDStatus(std::string, std::string led, std::string* state) {
    const int index = ledIndex(led);
    if (index < 0) return returnErrorMsg(kLed, "Undefine LED index", nullptr);
    volatile uint32_t* bar = mapWindow(kLedWindow);
    if (!bar) return returnErrorMsg(kLed, formatMessage("%.40s: %s", Get_Node().c_str(), strerror(errno)), nullptr);
    const uint32_t mode = (bar[kLedCtl / 4] >> (index * 8)) & 0xF;
    unmapWindow(kLedWindow);
    if (mode == 0xE) *state = "on";
    else if (mode == 0xF) *state = "off";
    else return returnErrorMsg(kLed, "Undefine LED status", nullptr);
    return nullptr;
}
