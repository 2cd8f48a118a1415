// The base of the Ethernet chip drivers: operations a chip does not override succeed
// without action; ethtool helpers every port uses.
#include "ddapi/ethernet/EthernetBaseClass.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <vector>

#include "api/platform/Files.h"
#include "api/platform/Platform.h"

namespace {
constexpr ERRORCODE kSetupSpeed = 0xC3044000;        // Setup_speed row
constexpr ERRORCODE kGetLinkStatus = 0xC3044800;     // GetLinkStatus row
constexpr ERRORCODE kGetFirmwareVersion = 0xC3045800;  // driver information requests
constexpr ERRORCODE kGetDeviceID = 0xC3083800;
constexpr ERRORCODE kOpenSocketFail = 0x05;
constexpr ERRORCODE kIoctlFail = 0x04;
constexpr ERRORCODE kGetSettingsFail = 0x02;
constexpr ERRORCODE kOpenNodeFail = 0x01;
constexpr ERRORCODE kNoName = 0x07;
constexpr ERRORCODE kAllocFail = 0x09;

const char kSysClassNet[] = "/sys/class/net/";

struct SpeedBit {
    int mbps;
    uint32_t bit;
};
const SpeedBit kSpeedBits[] = {{10, 0x2}, {100, 0x8}, {1000, 0x20}, {10000, 0x1000}, {40000, 0x1000000}};
}  // namespace

EthernetBaseClass::EthernetBaseClass(const char* name) : BaseClassDDAPI(name) {
    m_interface = name ? name : "";
    m_node = kSysClassNet + m_interface;
}

EthernetBaseClass::~EthernetBaseClass() = default;

ErrorMsg* EthernetBaseClass::Set_external_loopback() { return nullptr; }
ErrorMsg* EthernetBaseClass::Remove_external_loopback() { return nullptr; }
ErrorMsg* EthernetBaseClass::Get_self_test_result(ethtool_test*, TestType, int*) { return nullptr; }
ErrorMsg* EthernetBaseClass::SetupSpeed(std::string, int) { return nullptr; }
ErrorMsg* EthernetBaseClass::GetMAC(std::string, std::string*) { return nullptr; }
ErrorMsg* EthernetBaseClass::SetMAC(std::string, std::string*) { return nullptr; }
ErrorMsg* EthernetBaseClass::GetEEPROM(std::string, int, int, int*) { return nullptr; }
ErrorMsg* EthernetBaseClass::SetEEPROM(std::string, int, int*, int) { return nullptr; }
ErrorMsg* EthernetBaseClass::Program(std::string, std::string) { return nullptr; }
ErrorMsg* EthernetBaseClass::ReadSFP(std::string, int, int, int, int*) { return nullptr; }
ErrorMsg* EthernetBaseClass::WriteSFP(std::string, int, int, int) { return nullptr; }
ErrorMsg* EthernetBaseClass::getLEDName(std::string, std::list<std::string>*) { return nullptr; }
ErrorMsg* EthernetBaseClass::setLEDStatus(std::string, std::string, std::string) { return nullptr; }
ErrorMsg* EthernetBaseClass::getLEDStatus(std::string, std::string, std::string*) { return nullptr; }

void EthernetBaseClass::Append_Node(std::string suffix) { m_node += suffix; }
std::string EthernetBaseClass::Get_Node() { return m_node; }

int EthernetBaseClass::ethtoolRequest(const std::string& ifname, void* request, bool* openFailed) {
    quarn::Platform& p = quarn::platform();
    const int fd = p.socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        *openFailed = true;
        return -1;
    }
    *openFailed = false;
    struct ifreq ifr;
    memset(&ifr, 0, sizeof(ifr));
    // At most 16 bytes of the name reach the request; the kernel ends it at 15.
    memcpy(ifr.ifr_name, ifname.c_str(), std::min(ifname.size(), sizeof(ifr.ifr_name) - 1));
    ifr.ifr_data = static_cast<char*>(request);
    const int rc = p.ioctl(fd, SIOCETHTOOL, &ifr);
    const int err = errno;
    p.close(fd);
    errno = err;
    return rc;
}

int EthernetBaseClass::runTool(const std::vector<std::string>& argv) {
    std::string output;
    int status = 0;
    if (quarn::platform().runProgram(argv, &output, &status, true) != 0) return -1;
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    return -1;
}

ErrorMsg* EthernetBaseClass::ethtoolReadEEPROM(const std::string& ifname, int offset, int length,
                                              int* data, ERRORCODE function) {
    if (ifname.empty()) return returnErrorMsg(function | kNoName, nullptr, nullptr);
    if (offset < 0 || length <= 0 || length > (1 << 24) || !data)
        return returnErrorMsg(function | 0x219, formatMessage("offset %d length %d", offset, length), nullptr);
    std::vector<uint8_t> buffer;
    try {
        buffer.assign(sizeof(ethtool_eeprom) + static_cast<size_t>(length), 0);
    } catch (const std::bad_alloc&) {
        return returnErrorMsg(function | kAllocFail, nullptr, nullptr);
    }
    auto* req = reinterpret_cast<ethtool_eeprom*>(buffer.data());
    req->cmd = ETHTOOL_GEEPROM;
    req->offset = static_cast<uint32_t>(offset);
    req->len = static_cast<uint32_t>(length);
    bool openFailed = false;
    if (ethtoolRequest(ifname, req, &openFailed) < 0)
        return returnErrorMsg(function | (openFailed ? kGetSettingsFail : kIoctlFail), strerror(errno), nullptr);
    for (int i = 0; i < length; ++i) data[i] = req->data[i];
    return nullptr;
}

ErrorMsg* EthernetBaseClass::ethtoolWriteEEPROM(const std::string& ifname, int offset, const int* data,
                                               int length, uint32_t magic, ERRORCODE function) {
    if (ifname.empty()) return returnErrorMsg(function | kNoName, nullptr, nullptr);
    if (offset < 0 || length <= 0 || length > (1 << 24) || !data)
        return returnErrorMsg(function | 0x219, formatMessage("offset %d length %d", offset, length), nullptr);
    std::vector<uint8_t> buffer;
    try {
        buffer.assign(sizeof(ethtool_eeprom) + static_cast<size_t>(length), 0);
    } catch (const std::bad_alloc&) {
        return returnErrorMsg(function | kAllocFail, nullptr, nullptr);
    }
    auto* req = reinterpret_cast<ethtool_eeprom*>(buffer.data());
    req->cmd = ETHTOOL_SEEPROM;
    req->magic = magic;
    req->offset = static_cast<uint32_t>(offset);
    req->len = static_cast<uint32_t>(length);
    for (int i = 0; i < length; ++i) req->data[i] = static_cast<uint8_t>(data[i] & 0xFF);
    bool openFailed = false;
    if (ethtoolRequest(ifname, req, &openFailed) < 0)
        return returnErrorMsg(function | (openFailed ? kGetSettingsFail : kIoctlFail), strerror(errno), nullptr);
    return nullptr;
}

ErrorMsg* EthernetBaseClass::GetLinkStatus(std::string ifname, std::string* state) {
    struct ethtool_value value;
    memset(&value, 0, sizeof(value));
    value.cmd = ETHTOOL_GLINK;
    bool openFailed = false;
    if (ethtoolRequest(ifname, &value, &openFailed) < 0) {
        if (openFailed) return returnErrorMsg(kGetLinkStatus | kOpenSocketFail, strerror(errno), nullptr);
        if (errno != EOPNOTSUPP) return returnErrorMsg(kGetLinkStatus | kIoctlFail, strerror(errno), nullptr);
        value.data = 0;
    }
    if (state) *state = value.data == 1 ? "Up" : "Down";
    return nullptr;
}

ErrorMsg* EthernetBaseClass::CheckAdvertisedSpeed(std::string ifname, int mbps) {
    uint32_t bit = 0;
    for (const SpeedBit& s : kSpeedBits)
        if (s.mbps == mbps) bit = s.bit;
    if (!bit) return returnErrorMsg(kSetupSpeed, "Not difned speed", nullptr);
    struct ethtool_cmd cmd;
    memset(&cmd, 0, sizeof(cmd));
    cmd.cmd = ETHTOOL_GSET;
    bool openFailed = false;
    if (ethtoolRequest(ifname, &cmd, &openFailed) < 0)
        return returnErrorMsg(kSetupSpeed | (openFailed ? 0x05 : 0x02), strerror(errno), nullptr);
    if (cmd.port == PORT_FIBRE && mbps == 1000) bit = 0x20000;
    if (!(cmd.supported & bit)) return returnErrorMsg(kSetupSpeed, (ifname + " not support speed").c_str(), nullptr);
    return nullptr;
}

ErrorMsg* EthernetBaseClass::GetPCIFunction(std::string ifname, int* function) {
    struct ethtool_drvinfo info;
    memset(&info, 0, sizeof(info));
    info.cmd = ETHTOOL_GDRVINFO;
    bool openFailed = false;
    if (ethtoolRequest(ifname, &info, &openFailed) < 0)
        return returnErrorMsg(kGetFirmwareVersion | (openFailed ? kOpenSocketFail : kIoctlFail), strerror(errno),
                              nullptr);
    info.bus_info[sizeof(info.bus_info) - 1] = '\0';
    const char* dot = strrchr(info.bus_info, '.');
    int fn = 0;
    if (!dot || sscanf(dot + 1, "%d", &fn) != 1)
        return returnErrorMsg(kGetFirmwareVersion | kIoctlFail,
                              formatMessage("bus information \"%.40s\"", info.bus_info), nullptr);
    if (function) *function = fn;
    return nullptr;
}

ErrorMsg* EthernetBaseClass::GetPCIBusDeviceFunction(std::string ifname, int* domain, int* bus, int* device,
                                                    int* function) {
    struct ethtool_drvinfo info;
    memset(&info, 0, sizeof(info));
    info.cmd = ETHTOOL_GDRVINFO;
    bool openFailed = false;
    if (ethtoolRequest(ifname, &info, &openFailed) < 0)
        return returnErrorMsg(kGetFirmwareVersion | (openFailed ? kOpenSocketFail : kIoctlFail), strerror(errno),
                              nullptr);
    info.bus_info[sizeof(info.bus_info) - 1] = '\0';
    unsigned d = 0, b = 0, dev = 0, fn = 0;
    if (sscanf(info.bus_info, "%x:%x:%x.%x", &d, &b, &dev, &fn) != 4 || d > 0xFFFF || b > 0xFF || dev > 31 || fn > 7)
        return returnErrorMsg(kGetFirmwareVersion | kIoctlFail,
                              formatMessage("bus information \"%.40s\"", info.bus_info), nullptr);
    if (domain) *domain = static_cast<int>(d);
    if (bus) *bus = static_cast<int>(b);
    if (device) *device = static_cast<int>(dev);
    if (function) *function = static_cast<int>(fn);
    return nullptr;
}

ErrorMsg* EthernetBaseClass::GetPCIDeviceID(std::string ifname, std::string* id) {
    const std::string path = kSysClassNet + ifname + "/device/device";
    std::string text;
    if (quarn::readTextFile(path, &text, 4096) != 0)
        return returnErrorMsg(kGetDeviceID | kOpenNodeFail, path.c_str(), nullptr);
    const size_t nl = text.find('\n');
    if (id) *id = text.substr(0, nl);
    return nullptr;
}
