// Intel XL710 driver.
#include "ddapi/ethernet/INTEL_XL710.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "api/platform/Platform.h"

namespace {
constexpr ERRORCODE kGetEEPROM = 0xC3081C00;
constexpr ERRORCODE kSetEEPROMDriver = 0xC30C0C00;
constexpr ERRORCODE kSendIoctl = 0xC3080400;
constexpr ERRORCODE kLed = 0xC3080001;
constexpr uint32_t kGpioLed0 = 0x88158;
constexpr uint32_t kGpioLed1 = 0x8815C;
constexpr size_t kGpioWindow = 0x90000;
constexpr uint32_t kI2cCommand = 0x881E0;
constexpr size_t kSfpWindow = 0x100000;
constexpr uint32_t kI2cRead = 0x08000000;
constexpr uint32_t kI2cReady = 1u << 29;
// The ready bit comes within a few microseconds on a working module; a missing or hung
// one would otherwise hold the caller for ever.
constexpr int kSfpPollLimit = 10000;
// The port's MAC address words in the NVM (LAN MAC address of each PCI function).
constexpr int kMacWord = 0x30;
}  // namespace

INTEL_XL710::INTEL_XL710(const char* name) : IntelPhyDriver(name) {}
INTEL_XL710::~INTEL_XL710() = default;

ErrorMsg* INTEL_XL710::Get_self_test_result(ethtool_test* result, TestType type, int* value) {
    return intelSelfTest(result, type, value);
}

ErrorMsg* INTEL_XL710::SetupSpeed(std::string ifname, int) {
    runTool({"ifconfig", ifname, "mtu", "9700"});
    return nullptr;
}

ErrorMsg* INTEL_XL710::GetMAC(std::string ifname, std::string* mac) {
    int fn = 0;
    if (ErrorMsg* e = GetPCIFunction(ifname, &fn)) return returnErrorMsg(0xC30C0800, nullptr, e);
    return readMacBytes(ifname, (kMacWord + 4 * fn) * 2, mac);
}

ErrorMsg* INTEL_XL710::SetMAC(std::string ifname, std::string* bytes) {
    if (!bytes) return returnErrorMsg(0xC308280A, "no MAC bytes", nullptr);
    std::string joined;
    for (int i = 0; i < 6; ++i) {
        const std::string& b = bytes[i];
        bool ok = !b.empty() && b.size() <= 2;
        for (char c : b) ok = ok && isxdigit(static_cast<unsigned char>(c));
        if (!ok) return returnErrorMsg(0xC308280A + i, formatMessage("bad byte \"%.20s\"", b.c_str()), nullptr);
        joined += b;
    }
    return runEeupdate(ifname, {"/MAC=" + joined}, 0xC3044000, "I210 program EEPROM fail", "XL710 get PCI BDF fail");
}

ErrorMsg* INTEL_XL710::GetEEPROM(std::string ifname, int offset, int length, int* data) {
    return ethtoolReadEEPROM(ifname, offset, length, data, kGetEEPROM);
}

ErrorMsg* INTEL_XL710::SetEEPROM(std::string ifname, int offset, int* data, int length) {
    if (offset < 0 || length <= 0 || !data)
        return returnErrorMsg(kSetEEPROMDriver | 0x219, formatMessage("offset %d length %d", offset, length), nullptr);
    for (int i = 0; i < length; ++i) {
        const int o = offset + i;
        int word[2] = {0, 0};
        if (ErrorMsg* e = GetEEPROM(ifname, 2 * (o / 2), 2, word))
            return returnErrorMsg(kSetEEPROMDriver, "XL710 set EEPROM fail", e);
        if (o & 1) word[1] = data[i] & 0xFF;
        else word[0] = data[i] & 0xFF;
        const unsigned value = static_cast<unsigned>((word[0] & 0xFF) | (word[1] & 0xFF) << 8);
        char address[16], text[16];
        snprintf(address, sizeof(address), "0x%x", o / 2);
        snprintf(text, sizeof(text), "0x%x", value);
        if (ErrorMsg* e = runEeupdate(ifname, {"/WW", address, text}, kSetEEPROMDriver, "XL710 set EEPROM fail",
                                      "XL710 get PCI BDF fail"))
            return e;
    }
    return nullptr;
}

ErrorMsg* INTEL_XL710::Program(std::string ifname, std::string imageFile) {
    return runEeupdate(ifname, {"/D", imageFile}, 0xC3044000, "I210 program EEPROM fail", "Get PCI BDF fail");
}

ErrorMsg* INTEL_XL710::getLEDName(std::string ifname, std::list<std::string>* names) {
    if (names)
        for (const char* suffix : {"_led0", "_led1"}) names->push_back(ifname + suffix);
    return nullptr;
}

ErrorMsg* INTEL_XL710::setLEDStatus(std::string ifname, std::string led, std::string state) {
    if (led != "led0" && led != "led1") return returnErrorMsg(kLed, "Undefine LED index", nullptr);
    if (state != "on" && state != "off") return returnErrorMsg(kLed, "Undefine LED status", nullptr);
    int fn = 0;
    if (ErrorMsg* e = GetPCIFunction(ifname, &fn)) return returnErrorMsg(kLed, nullptr, e);
    volatile uint32_t* bar = mapWindow(kGpioWindow);
    if (!bar) return returnErrorMsg(kLed, formatMessage("%.40s: %s", Get_Node().c_str(), strerror(errno)), nullptr);
    const uint32_t reg = (led == "led0" ? kGpioLed0 : kGpioLed1) + 8 * static_cast<uint32_t>(fn);
    uint32_t v = bar[reg / 4];
    if (state == "on") v = (v & ~(1u << 16 | 1u << 11 | 0xFu << 12)) | 0xFu << 12;
    else v &= ~(0x3Fu << 11);
    bar[reg / 4] = v;
    unmapWindow(kGpioWindow);
    return nullptr;
}

ErrorMsg* INTEL_XL710::getLEDStatus(std::string ifname, std::string led, std::string* state) {
    if (led != "led0" && led != "led1") return returnErrorMsg(kLed, "Undefine LED index", nullptr);
    int fn = 0;
    if (ErrorMsg* e = GetPCIFunction(ifname, &fn)) return returnErrorMsg(kLed, nullptr, e);
    volatile uint32_t* bar = mapWindow(kGpioWindow);
    if (!bar) return returnErrorMsg(kLed, formatMessage("%.40s: %s", Get_Node().c_str(), strerror(errno)), nullptr);
    const uint32_t reg = (led == "led0" ? kGpioLed0 : kGpioLed1) + 8 * static_cast<uint32_t>(fn);
    const uint32_t field = (bar[reg / 4] >> 12) & 0xF;
    unmapWindow(kGpioWindow);
    if (field == 0xF) *state = "on";
    else if (field == 0) *state = "off";
    else return returnErrorMsg(kLed, "Undefine LED status", nullptr);
    return nullptr;
}

ErrorMsg* INTEL_XL710::sfpCommand(volatile uint32_t* reg, uint32_t command, uint32_t* reply) {
    quarn::Platform& p = quarn::platform();
    *reg = command;
    for (int i = 0; i < kSfpPollLimit; ++i) {
        const uint32_t v = *reg;
        if (v & kI2cReady) {
            *reply = v;
            return nullptr;
        }
        p.sleepMicroseconds(1);
    }
    return returnErrorMsg(kSendIoctl | 0x238, "SFP I2C command not ready", nullptr);
}

ErrorMsg* INTEL_XL710::ReadSFP(std::string ifname, int device, int offset, int count, int* data) {
    if (offset < 0 || count < 0 || offset + count > 256 || (count && !data))
        return returnErrorMsg(kSendIoctl | 0x219, formatMessage("offset %d count %d", offset, count), nullptr);
    int fn = 0;
    if (ErrorMsg* e = GetPCIFunction(ifname, &fn)) return returnErrorMsg(kSendIoctl, nullptr, e);
    volatile uint32_t* bar = mapWindow(kSfpWindow);
    if (!bar) return returnErrorMsg(kLed, formatMessage("%.40s: %s", Get_Node().c_str(), strerror(errno)), nullptr);
    volatile uint32_t* reg = bar + (kI2cCommand + 4 * static_cast<uint32_t>(fn)) / 4;
    for (int i = 0; i < count; ++i) {
        uint32_t reply = 0;
        const uint32_t cmd = static_cast<uint32_t>(offset + i) << 16 | (static_cast<uint32_t>(device) & 15) << 24 | kI2cRead;
        if (ErrorMsg* e = sfpCommand(reg, cmd, &reply)) {
            unmapWindow(kSfpWindow);
            return e;
        }
        data[i] = static_cast<int>(reply & 0xFF);
    }
    unmapWindow(kSfpWindow);
    return nullptr;
}

ErrorMsg* INTEL_XL710::WriteSFP(std::string ifname, int device, int offset, int value) {
    if (offset < 0 || offset > 255)
        return returnErrorMsg(kSendIoctl | 0x219, formatMessage("offset %d", offset), nullptr);
    int fn = 0;
    if (ErrorMsg* e = GetPCIFunction(ifname, &fn)) return returnErrorMsg(kSendIoctl, nullptr, e);
    volatile uint32_t* bar = mapWindow(kSfpWindow);
    if (!bar) return returnErrorMsg(kLed, formatMessage("%.40s: %s", Get_Node().c_str(), strerror(errno)), nullptr);
    volatile uint32_t* reg = bar + (kI2cCommand + 4 * static_cast<uint32_t>(fn)) / 4;
    const uint32_t addr = static_cast<uint32_t>(offset) << 16 | (static_cast<uint32_t>(device) & 15) << 24;
    uint32_t reply = 0;
    ErrorMsg* e = sfpCommand(reg, addr | kI2cRead, &reply);
    if (!e) e = sfpCommand(reg, (static_cast<uint32_t>(value) & 0xFF) | addr | (reply & 0xFF00), &reply);
    unmapWindow(kSfpWindow);
    return e;
}
