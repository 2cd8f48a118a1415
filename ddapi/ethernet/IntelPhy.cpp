// Shared code of the Intel drivers: BAR0 through the port's resource file, the PHY
// registers behind the MDI control register, external loopback and eeupdate64e.
#include "ddapi/ethernet/IntelPhy.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <cerrno>
#include <cctype>
#include <cstdio>
#include <cstring>

#include "api/platform/Platform.h"

namespace {
constexpr ERRORCODE kSetExternalLoopback = 0xC3083000;
constexpr uint32_t kMdic = 0x20;
constexpr uint32_t kMdicWrite = 0x04000000;
constexpr uint32_t kMdicRead = 0x08000000;
constexpr uint32_t kPageSelect = 0x04160000;  // write of PHY register 22, the page register
constexpr size_t kPhyWindow = 4096;

struct SelfTestRow {
    int index;
    ERRORCODE error;
};
const SelfTestRow kIntelSelfTest[] = {
    {1, 0xC3080411},  // EEPROM validation
    {0, 0xC3080410},  // register
    {2, 0xC3080413},  // interrupt
    {3, 0xC3080414},  // internal loopback
    {4, 0xC3080412},  // link status
};
}  // namespace

IntelPhyDriver::IntelPhyDriver(const char* name) : EthernetBaseClass(name) { Append_Node("/device/resource0"); }

IntelPhyDriver::~IntelPhyDriver() {
    if (m_window) unmapWindow(kPhyWindow);
}

volatile uint32_t* IntelPhyDriver::mapWindow(size_t length) {
    quarn::Platform& p = quarn::platform();
    m_fd = p.open(Get_Node(), O_RDWR | O_SYNC);
    if (m_fd < 0) return nullptr;
    void* addr = p.mmap(length, PROT_READ | PROT_WRITE, MAP_SHARED, m_fd, 0);
    if (addr == MAP_FAILED) {
        const int err = errno;
        p.close(m_fd);
        m_fd = -1;
        errno = err;
        return nullptr;
    }
    m_window = static_cast<volatile uint32_t*>(addr);
    return m_window;
}

void IntelPhyDriver::unmapWindow(size_t length) {
    quarn::Platform& p = quarn::platform();
    if (m_window) p.munmap(const_cast<uint32_t*>(m_window), length);
    if (m_fd >= 0) p.close(m_fd);
    m_window = nullptr;
    m_fd = -1;
}

uint16_t IntelPhyDriver::read_PHY_reg(int reg, int page) {
    if (!m_window) return 0xFFFF;
    quarn::Platform& p = quarn::platform();
    volatile uint32_t* mdic = m_window + kMdic / 4;
    if (reg != 22) {
        *mdic = (static_cast<uint32_t>(page) & 0xFFFF) | kPageSelect;
        p.sleepMicroseconds(1);
    }
    *mdic = (static_cast<uint32_t>(reg) & 31) << 16 | kMdicRead;
    p.sleepMicroseconds(1);
    return static_cast<uint16_t>(*mdic & 0xFFFF);
}

void IntelPhyDriver::write_PHY_reg(int reg, int page, uint16_t value) {
    if (!m_window) return;
    quarn::Platform& p = quarn::platform();
    volatile uint32_t* mdic = m_window + kMdic / 4;
    if (reg != 22) {
        *mdic = (static_cast<uint32_t>(page) & 0xFFFF) | kPageSelect;
        p.sleepMicroseconds(1);
    }
    *mdic = (static_cast<uint32_t>(reg) & 31) << 16 | value | kMdicWrite;
    p.sleepMicroseconds(1);
}

ErrorMsg* IntelPhyDriver::Set_external_loopback() {
    if (!mapWindow(kPhyWindow))
        return returnErrorMsg(kSetExternalLoopback | 0x01, formatMessage("%.40s: %s", Get_Node().c_str(), strerror(errno)),
                              nullptr);
    write_PHY_reg(18, 6, 8);
    write_PHY_reg(0, 0, 0x9340);
    unmapWindow(kPhyWindow);
    return nullptr;
}

ErrorMsg* IntelPhyDriver::Remove_external_loopback() {
    if (!mapWindow(kPhyWindow))
        return returnErrorMsg(kSetExternalLoopback | 0x01, formatMessage("%.40s: %s", Get_Node().c_str(), strerror(errno)),
                              nullptr);
    write_PHY_reg(18, 6, 0);
    write_PHY_reg(0, 0, 0x1140);
    unmapWindow(kPhyWindow);
    return nullptr;
}

ErrorMsg* IntelPhyDriver::intelSelfTest(ethtool_test* result, TestType type, int* value) {
    if (static_cast<unsigned>(type) > 4u) return returnErrorMsg(0xC3080406, nullptr, nullptr);
    const SelfTestRow& row = kIntelSelfTest[type];
    if (!result || static_cast<uint32_t>(row.index) >= result->len)
        return returnErrorMsg(0xC3080406, formatMessage("result %d not reported", row.index), nullptr);
    const uint64_t r = result->data[row.index];
    if (value) *value = static_cast<int>(r);
    if (r == 1) return returnErrorMsg(row.error, nullptr, nullptr);
    return nullptr;
}

ErrorMsg* IntelPhyDriver::runEeupdate(const std::string& ifname, const std::vector<std::string>& args,
                                      ERRORCODE failCode, const char* failText, const char* bdfText) {
    int domain = 0, bus = 0, device = 0, function = 0;
    if (ErrorMsg* e = GetPCIBusDeviceFunction(ifname, &domain, &bus, &device, &function))
        return returnErrorMsg(0xC3044000, bdfText, e);
    std::vector<std::string> argv = {"eeupdate64e", "/bus=" + std::to_string(bus), "/dev=" + std::to_string(device),
                                     "/fun=" + std::to_string(function)};
    argv.insert(argv.end(), args.begin(), args.end());
    if (runTool(argv) != 0) return returnErrorMsg(failCode, failText, nullptr);
    return nullptr;
}

namespace {
bool parseMacByte(const std::string& text, int* value) {
    if (text.empty() || text.size() > 2) return false;
    for (char c : text)
        if (!isxdigit(static_cast<unsigned char>(c))) return false;
    unsigned v = 0;
    if (sscanf(text.c_str(), "%x", &v) != 1 || v > 0xFF) return false;
    *value = static_cast<int>(v);
    return true;
}
}  // namespace

ErrorMsg* IntelPhyDriver::readMacBytes(const std::string& ifname, int offset, std::string* mac) {
    int data[6] = {0};
    if (ErrorMsg* e = ethtoolReadEEPROM(ifname, offset, 6, data, 0xC3081C00)) return e;
    char text[18];
    snprintf(text, sizeof(text), "%02X:%02X:%02X:%02X:%02X:%02X", data[0] & 0xFF, data[1] & 0xFF, data[2] & 0xFF,
             data[3] & 0xFF, data[4] & 0xFF, data[5] & 0xFF);
    if (mac) *mac = text;
    return nullptr;
}

ErrorMsg* IntelPhyDriver::writeMacBytes(const std::string& ifname, int offset, uint32_t magic, std::string* bytes) {
    constexpr ERRORCODE kSetMac = 0xC3082800;
    constexpr ERRORCODE kStepOne = 0x0A;
    if (!bytes) return returnErrorMsg(kSetMac | kStepOne, "no MAC bytes", nullptr);
    int value[6] = {0};
    for (int i = 0; i < 6; ++i)
        if (!parseMacByte(bytes[i], &value[i]))
            return returnErrorMsg(kSetMac | (kStepOne + i), formatMessage("bad byte \"%.20s\"", bytes[i].c_str()),
                                  nullptr);
    int old[6] = {0};
    if (ErrorMsg* e = ethtoolReadEEPROM(ifname, offset, 6, old, 0xC3081C00))
        return returnErrorMsg(kSetMac | kStepOne, nullptr, e);
    for (int i = 0; i < 6; ++i) {
        if (ErrorMsg* e = ethtoolWriteEEPROM(ifname, offset + i, &value[i], 1, magic, 0xC3082400)) {
            for (int j = 0; j < i; ++j)
                if (ErrorMsg* r = ethtoolWriteEEPROM(ifname, offset + j, &old[j], 1, magic, 0xC3082400))
                    deleteErrorMsg(r);
            return returnErrorMsg(kSetMac | (kStepOne + i), nullptr, e);
        }
    }
    return nullptr;
}
