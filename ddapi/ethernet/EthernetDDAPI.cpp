// Ethernet device layer.
#include "ddapi/ethernet/EthernetDDAPI.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_packet.h>
#include <linux/sockios.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <set>
#include <sstream>
#include <vector>

#include "api/platform/Files.h"
#include "api/platform/Platform.h"
#include "ddapi/ethernet/INTEL_I210.h"
#include "ddapi/ethernet/INTEL_X552.h"
#include "ddapi/ethernet/INTEL_XL710.h"
#include "ddapi/ethernet/QLOGIC_EP8324.h"
#include "ddapi/pci/PCIDDAPI.h"

namespace {
constexpr ERRORCODE kSendIoctl = 0xC3080400;
constexpr ERRORCODE kGetEthernetNamesList = 0xC3080C00;  // also the LED operations' row
constexpr ERRORCODE kGetEthernetIP = 0xC3081000;
constexpr ERRORCODE kGetEthernetMask = 0xC3081400;
constexpr ERRORCODE kGetEthernetMTU = 0xC3081800;
constexpr ERRORCODE kGetEthernetEEPROM = 0xC3081C00;
constexpr ERRORCODE kGetEthernetEEPROMSize = 0xC3082000;
constexpr ERRORCODE kSetEthernetEEPROM = 0xC3082400;
constexpr ERRORCODE kSetEthernetMAC = 0xC3082800;
constexpr ERRORCODE kGetEthernetMagic = 0xC3082C00;
constexpr ERRORCODE kExecuteLoopback = 0xC3083400;
constexpr ERRORCODE kGetDeviceID = 0xC3083800;
constexpr ERRORCODE kEnableLoopback = 0xC3083C00;
constexpr ERRORCODE kDisableLoopback = 0xC3084000;
constexpr ERRORCODE kGetBusType = 0xC3084400;
constexpr ERRORCODE kGetStatistics = 0xC3084800;
constexpr ERRORCODE kClearAER = 0xC3084C00;
constexpr ERRORCODE kClearStatistics = 0xC3085000;

constexpr ERRORCODE kOpenNodeFail = 0x01;
constexpr ERRORCODE kOpenSocketFail = 0x02;
constexpr ERRORCODE kNotSupported = 0x03;
constexpr ERRORCODE kIoctlFail = 0x04;
constexpr ERRORCODE kEthtoolFail = 0x05;
constexpr ERRORCODE kNoName = 0x07;
constexpr ERRORCODE kNameTooLong = 0x08;
constexpr ERRORCODE kAllocFail = 0x09;
constexpr ERRORCODE kReadLinkFail = 0x1E;
constexpr ERRORCODE kOpenFileFail = 0x215;  // common "Fail to open file node"

const char kSysClassNet[] = "/sys/class/net/";
const char kPciIds[] = "/usr/share/pci.ids";
const char kWellKnownProfile[] = "Ethernet_profile.ini";
const char kLedProfile[] = "/etc/quarn/Ethernet_LED_profile.ini";

std::string firstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

std::vector<std::string> words(const std::string& line) {
    std::vector<std::string> out;
    std::istringstream in(line);
    for (std::string w; in >> w;) out.push_back(w);
    return out;
}

std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return s;
}

// Wall-clock reading as whole seconds and microseconds.
struct Stamp {
    long long sec;
    long usec;
};
Stamp now() {
    struct timespec ts = {0, 0};
    quarn::platform().wallClock(&ts);
    return {static_cast<long long>(ts.tv_sec), ts.tv_nsec / 1000};
}
double since(const Stamp& a, const Stamp& b) {
    return static_cast<double>(b.sec - a.sec) + static_cast<double>(b.usec - a.usec) / 1e6;
}

void copyName(struct ifreq* ifr, const std::string& name) {
    memset(ifr, 0, sizeof(*ifr));
    memcpy(ifr->ifr_name, name.c_str(), std::min(name.size(), sizeof(ifr->ifr_name) - 1));
}

// Closes the sockets of the measurement on every path.
struct SocketPair {
    int send = -1, receive = -1;
    ~SocketPair() {
        if (send >= 0) quarn::platform().close(send);
        if (receive >= 0) quarn::platform().close(receive);
    }
};
}  // namespace

EthernetDDAPI::EthernetDDAPI(const char* name) : EthernetBaseClass(name) { m_bound = name ? name : ""; }

EthernetDDAPI::~EthernetDDAPI() = default;

char* EthernetDDAPI::LTrim(char* text, char c) {
    if (!text) return text;
    size_t skip = 0;
    while (text[skip] == c && c != '\0') ++skip;
    if (skip) memmove(text, text + skip, strlen(text + skip) + 1);
    return text;
}

// ---- identity ----

ErrorMsg* EthernetDDAPI::nodeLine(const std::string& path, std::string* line, ERRORCODE code) {
    std::string text;
    if (quarn::readTextFile(path, &text, 4096) != 0) return returnErrorMsg(code, path.c_str(), nullptr);
    *line = firstLine(text);
    return nullptr;
}

ErrorMsg* EthernetDDAPI::get_vendor_ID(std::string* id) {
    return nodeLine(kSysClassNet + m_bound + "/device/vendor", id, kGetDeviceID | kOpenNodeFail);
}

ErrorMsg* EthernetDDAPI::get_device_ID(std::string* id) {
    return nodeLine(kSysClassNet + m_bound + "/device/device", id, kGetDeviceID | kOpenNodeFail);
}

ErrorMsg* EthernetDDAPI::get_device_bus_type(std::string* bus) {
    std::string target;
    if (quarn::platform().readlink(kSysClassNet + m_bound + "/device/subsystem", &target) < 0)
        return returnErrorMsg(kGetBusType | kReadLinkFail, strerror(errno), nullptr);
    if (target.size() > 100) target.resize(100);
    const size_t slash = target.rfind('/');
    *bus = slash == std::string::npos ? target : target.substr(slash + 1);
    return nullptr;
}

ErrorMsg* EthernetDDAPI::readIds(const std::string& ifname, ERRORCODE function, std::string* vendor,
                                 std::string* device) {
    m_bound = ifname;
    if (ErrorMsg* e = get_vendor_ID(vendor)) return returnErrorMsg(function, "Get vender ID fail", e);
    if (ErrorMsg* e = get_device_ID(device)) return returnErrorMsg(function, "Get device ID fail", e);
    return nullptr;
}

EthernetDDAPI::Chip EthernetDDAPI::chipOf(const std::string& vendor, const std::string& device) {
    if (vendor == "0x8086") {
        if (device == "0x1533" || device == "0x1537") return Chip::I210;
        if (device == "0x15ab") return Chip::X552;
        if (device == "0x1583") return Chip::XL710;
    }
    if (vendor == "0x1077" && device == "0x8830") return Chip::EP8324;
    return Chip::None;
}

EthernetBaseClass* EthernetDDAPI::makeDriver(Chip chip) {
    const char* name = m_bound.c_str();
    switch (chip) {
    case Chip::I210: return new (std::nothrow) INTEL_I210(name);
    case Chip::X552: return new (std::nothrow) INTEL_X552(name);
    case Chip::XL710: return new (std::nothrow) INTEL_XL710(name);
    case Chip::EP8324: return new (std::nothrow) QLOGIC_EP8324(name);
    case Chip::None: break;
    }
    return nullptr;
}

// ---- chip forwarding ----

ErrorMsg* EthernetDDAPI::GetEthernetMAC(std::string ifname, std::string* mac) {
    std::string vendor, device;
    if (ErrorMsg* e = readIds(ifname, kSendIoctl, &vendor, &device)) return e;
    std::unique_ptr<EthernetBaseClass> driver(makeDriver(chipOf(vendor, device)));
    if (!driver) return returnErrorMsg(kSendIoctl | kIoctlFail, "No define ethernet", nullptr);
    std::string text;
    if (ErrorMsg* e = driver->GetMAC(ifname, &text)) return returnErrorMsg(kSendIoctl, nullptr, e);
    if (text.size() != 17) return returnErrorMsg(kSendIoctl | kIoctlFail, "MAC length is incorrect", nullptr);
    if (mac) *mac = text;
    return nullptr;
}

ErrorMsg* EthernetDDAPI::SetEthernetMAC(std::string ifname, std::string* bytes) {
    std::string vendor, device;
    if (ErrorMsg* e = readIds(ifname, kSetEthernetMAC, &vendor, &device)) return e;
    std::unique_ptr<EthernetBaseClass> driver(makeDriver(chipOf(vendor, device)));
    if (!driver) return returnErrorMsg(kSetEthernetMAC, "No define ethernet", nullptr);
    if (ErrorMsg* e = driver->SetMAC(ifname, bytes)) return returnErrorMsg(kSetEthernetMAC, nullptr, e);
    return nullptr;
}

#define QUARN_FORWARD(call, failText)                                                        \
    std::string vendor, device;                                                               \
    if (ErrorMsg* e = readIds(ifname, kSendIoctl, &vendor, &device)) return e;                \
    std::unique_ptr<EthernetBaseClass> driver(makeDriver(chipOf(vendor, device)));            \
    if (!driver) return returnErrorMsg(kSendIoctl | kIoctlFail, "No define ethernet", nullptr); \
    if (ErrorMsg* e = driver->call) return returnErrorMsg(kSendIoctl, failText, e);           \
    return nullptr;

ErrorMsg* EthernetDDAPI::GetEthernetEEPROM(std::string ifname, int offset, int length, int* data) {
    QUARN_FORWARD(GetEEPROM(ifname, offset, length, data), "Get EEPROM fail")
}

ErrorMsg* EthernetDDAPI::SetEthernetEEPROM(std::string ifname, int offset, int* data, int length) {
    QUARN_FORWARD(SetEEPROM(ifname, offset, data, length), "Set EEPROM fail")
}

ErrorMsg* EthernetDDAPI::Program(std::string ifname, std::string image) {
    std::string vendor, device;
    if (ErrorMsg* e = readIds(ifname, kSendIoctl, &vendor, &device)) return e;
    // Every Intel controller is programmed with the vendor tool.
    Chip chip = Chip::None;
    if (vendor == "0x8086") chip = Chip::I210;
    else if (vendor == "0x1077" && device == "0x8830") chip = Chip::EP8324;
    std::unique_ptr<EthernetBaseClass> driver(makeDriver(chip));
    if (!driver) return returnErrorMsg(kSendIoctl | kIoctlFail, "No define ethernet", nullptr);
    if (ErrorMsg* e = driver->Program(ifname, image)) return returnErrorMsg(kSendIoctl, "Program EEPROM fail", e);
    return nullptr;
}

ErrorMsg* EthernetDDAPI::ReadSFP(std::string ifname, int device, int offset, int count, int* data) {
    std::string vendorId, deviceId;
    if (ErrorMsg* e = readIds(ifname, kSendIoctl, &vendorId, &deviceId)) return e;
    const Chip chip = chipOf(vendorId, deviceId);
    if (chip == Chip::I210) return returnErrorMsg(kSendIoctl, "Intel I210 not support", nullptr);
    if (chip == Chip::X552) return returnErrorMsg(kSendIoctl, "Intel X552(KR) not support", nullptr);
    std::unique_ptr<EthernetBaseClass> driver(makeDriver(chip));
    if (!driver) return returnErrorMsg(kSendIoctl | kIoctlFail, "No define ethernet", nullptr);
    if (ErrorMsg* e = driver->ReadSFP(ifname, device, offset, count, data))
        return returnErrorMsg(kSendIoctl, "Read SFP fail", e);
    return nullptr;
}

ErrorMsg* EthernetDDAPI::WriteSFP(std::string ifname, int device, int offset, int value) {
    std::string vendorId, deviceId;
    if (ErrorMsg* e = readIds(ifname, kSendIoctl, &vendorId, &deviceId)) return e;
    const Chip chip = chipOf(vendorId, deviceId);
    if (chip == Chip::I210) return returnErrorMsg(kSendIoctl, "Intel I210 not support", nullptr);
    if (chip == Chip::X552) return returnErrorMsg(kSendIoctl, "Intel X552(KR) not support", nullptr);
    std::unique_ptr<EthernetBaseClass> driver(makeDriver(chip));
    if (!driver) return returnErrorMsg(kSendIoctl | kIoctlFail, "No define ethernet", nullptr);
    if (ErrorMsg* e = driver->WriteSFP(ifname, device, offset, value))
        return returnErrorMsg(kSendIoctl, "Write SFP fail", e);
    return nullptr;
}

ErrorMsg* EthernetDDAPI::SetupSpeed(std::string ifname, int mbps) {
    std::string vendor, device;
    if (ErrorMsg* e = readIds(ifname, kSendIoctl, &vendor, &device)) return e;
    std::unique_ptr<EthernetBaseClass> driver(makeDriver(chipOf(vendor, device)));
    if (!driver) return returnErrorMsg(kSendIoctl | kIoctlFail, "No define ethernet", nullptr);
    runTool({"ifconfig", ifname, "up"});
    if (ErrorMsg* e = CheckAdvertisedSpeed(ifname, mbps)) return returnErrorMsg(kSendIoctl, nullptr, e);
    if (ErrorMsg* e = driver->SetupSpeed(ifname, mbps)) return returnErrorMsg(kSendIoctl, "Setup speed fail", e);
    return nullptr;
}

ErrorMsg* EthernetDDAPI::SendIoctl(std::string ifname, TestType type, int* value) {
    if (ifname.empty()) return returnErrorMsg(kSendIoctl | kNoName, nullptr, nullptr);
    std::string vendor, device;
    if (ErrorMsg* e = readIds(ifname, kSendIoctl, &vendor, &device)) return e;
    uint64_t ssetStorage[(sizeof(ethtool_sset_info) + 4 + 7) / 8] = {0};
    auto* sset = reinterpret_cast<ethtool_sset_info*>(ssetStorage);
    sset->cmd = ETHTOOL_GSSET_INFO;
    sset->sset_mask = 1ULL << ETH_SS_TEST;
    bool openFailed = false;
    uint32_t results = 0;
    if (ethtoolRequest(ifname, sset, &openFailed) < 0) {
        if (openFailed) return returnErrorMsg(kSendIoctl | kOpenSocketFail, strerror(errno), nullptr);
        if (errno != EOPNOTSUPP) return returnErrorMsg(kSendIoctl | kIoctlFail, strerror(errno), nullptr);
        struct ethtool_drvinfo info;
        memset(&info, 0, sizeof(info));
        info.cmd = ETHTOOL_GDRVINFO;
        if (ethtoolRequest(ifname, &info, &openFailed) < 0)
            return returnErrorMsg(kSendIoctl | (openFailed ? kOpenSocketFail : kNotSupported), strerror(errno), nullptr);
        results = info.testinfo_len;
    } else {
        results = sset->sset_mask ? sset->data[0] : 0;
    }
    if (results > 64) results = 64;  // no driver has more; keeps the record bounded
    std::vector<uint64_t> storage(sizeof(ethtool_test) / 8 + results + 1, 0);
    auto* test = reinterpret_cast<ethtool_test*>(storage.data());
    test->cmd = ETHTOOL_TEST;
    test->flags = ETH_TEST_FL_OFFLINE;
    test->len = results;
    if (ethtoolRequest(ifname, test, &openFailed) < 0)
        return returnErrorMsg(kSendIoctl | (openFailed ? kOpenSocketFail : kEthtoolFail), strerror(errno), nullptr);
    std::unique_ptr<EthernetBaseClass> driver(makeDriver(chipOf(vendor, device)));
    if (!driver) return returnErrorMsg(kSendIoctl | kIoctlFail, "No define ethernet", nullptr);
    return driver->Get_self_test_result(test, type, value);
}

// ---- kernel queries on a port name ----

ErrorMsg* EthernetDDAPI::addressQuery(char* name, unsigned long request, unsigned char out[4], ERRORCODE function) {
    if (!name || !*name) return returnErrorMsg(function | kNoName, nullptr, nullptr);
    const std::string n(name);
    if (n.size() >= IFNAMSIZ) return returnErrorMsg(function | kNameTooLong, nullptr, nullptr);
    quarn::Platform& p = quarn::platform();
    const int fd = p.socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) return returnErrorMsg(function | kOpenSocketFail, strerror(errno), nullptr);
    struct ifreq ifr;
    copyName(&ifr, n);
    auto* sin = reinterpret_cast<struct sockaddr_in*>(&ifr.ifr_addr);
    sin->sin_family = AF_INET;
    const int rc = p.ioctl(fd, request, &ifr);
    const int err = errno;
    p.close(fd);
    uint8_t bytes[4] = {0, 0, 0, 0};
    if (rc < 0) {
        if (err != EADDRNOTAVAIL) return returnErrorMsg(function | kIoctlFail, strerror(err), nullptr);
    } else {
        memcpy(bytes, &sin->sin_addr.s_addr, 4);
    }
    for (int i = 0; i < 4; ++i) out[i] = bytes[3 - i];
    return nullptr;
}

ErrorMsg* EthernetDDAPI::GetEthernetIP(char* name, unsigned char address[4]) {
    return addressQuery(name, SIOCGIFADDR, address, kGetEthernetIP);
}

ErrorMsg* EthernetDDAPI::GetEthernetMask(char* name, unsigned char mask[4]) {
    return addressQuery(name, SIOCGIFNETMASK, mask, kGetEthernetMask);
}

ErrorMsg* EthernetDDAPI::GetEthernetMTU(char* name, int* mtu) {
    if (!name || !*name) return returnErrorMsg(kGetEthernetMTU | kNoName, nullptr, nullptr);
    const std::string n(name);
    if (n.size() >= IFNAMSIZ) return returnErrorMsg(kGetEthernetMTU | kNameTooLong, nullptr, nullptr);
    quarn::Platform& p = quarn::platform();
    const int fd = p.socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) return returnErrorMsg(kGetEthernetMTU | kOpenSocketFail, strerror(errno), nullptr);
    struct ifreq ifr;
    copyName(&ifr, n);
    const int rc = p.ioctl(fd, SIOCGIFMTU, &ifr);
    const int err = errno;
    p.close(fd);
    if (rc < 0) return returnErrorMsg(kGetEthernetMTU | kIoctlFail, strerror(err), nullptr);
    if (mtu) *mtu = ifr.ifr_mtu;
    return nullptr;
}

ErrorMsg* EthernetDDAPI::GetEthernetEEPROM(char* name, unsigned char* data, int length) {
    if (!name || !*name) return returnErrorMsg(kGetEthernetEEPROM | kNoName, nullptr, nullptr);
    if (length <= 0 || !data) return returnErrorMsg(kGetEthernetEEPROM | 0x219, formatMessage("length %d", length), nullptr);
    std::vector<int> bytes;
    try {
        bytes.assign(static_cast<size_t>(length), 0);
    } catch (const std::bad_alloc&) {
        return returnErrorMsg(kGetEthernetEEPROM | kAllocFail, nullptr, nullptr);
    }
    if (ErrorMsg* e = ethtoolReadEEPROM(name, 0, length, bytes.data(), kGetEthernetEEPROM)) return e;
    for (int i = 0; i < length; ++i) data[i] = static_cast<unsigned char>(bytes[i]);
    return nullptr;
}

ErrorMsg* EthernetDDAPI::driverInfo(const char* name, struct ethtool_drvinfo* info, ERRORCODE function) {
    if (!name || !*name) return returnErrorMsg(function | kNoName, nullptr, nullptr);
    memset(info, 0, sizeof(*info));
    info->cmd = ETHTOOL_GDRVINFO;
    bool openFailed = false;
    if (ethtoolRequest(name, info, &openFailed) < 0)
        return returnErrorMsg(function | (openFailed ? kOpenSocketFail : kIoctlFail), strerror(errno), nullptr);
    info->bus_info[sizeof(info->bus_info) - 1] = '\0';
    info->driver[sizeof(info->driver) - 1] = '\0';
    info->fw_version[sizeof(info->fw_version) - 1] = '\0';
    return nullptr;
}

ErrorMsg* EthernetDDAPI::GetEthernetEEPROMSize(char* name, int* size) {
    struct ethtool_drvinfo info;
    if (ErrorMsg* e = driverInfo(name, &info, kGetEthernetEEPROMSize)) return e;
    if (size) *size = static_cast<int>(info.eedump_len);
    return nullptr;
}

ErrorMsg* EthernetDDAPI::GetEthernetMagic(char* name, int* magic) {
    struct ethtool_drvinfo info;
    if (ErrorMsg* e = driverInfo(name, &info, kGetEthernetMagic)) return e;
    const std::string bus = info.bus_info;
    // The bus text names a directory; anything that could leave it is refused.
    if (bus.empty() || bus.find('/') != std::string::npos || bus == "." || bus == "..")
        return returnErrorMsg(kGetEthernetMagic | kOpenFileFail, formatMessage("bus \"%.40s\"", bus.c_str()), nullptr);
    unsigned ids[2] = {0, 0};
    const char* files[2] = {"/device", "/vendor"};
    for (int i = 0; i < 2; ++i) {
        std::string text;
        if (quarn::readTextFile("/sys/bus/pci/devices/" + bus + files[i], &text, 4096) != 0)
            return returnErrorMsg(kGetEthernetMagic | kOpenFileFail, strerror(errno), nullptr);
        if (sscanf(text.c_str(), "%x", &ids[i]) != 1) ids[i] = 0;
    }
    if (magic) *magic = static_cast<int>((ids[0] & 0xFFFF) << 16 | (ids[1] & 0xFFFF));
    return nullptr;
}

ErrorMsg* EthernetDDAPI::SetEthernetEEPROM(char* name, int offset, unsigned char value) {
    int magic = 0;
    if (ErrorMsg* e = GetEthernetMagic(name, &magic)) return returnErrorMsg(kSetEthernetEEPROM, nullptr, e);
    const int byte = value;
    return ethtoolWriteEEPROM(name, offset, &byte, 1, static_cast<uint32_t>(magic), kSetEthernetEEPROM);
}

// ---- port list ----

ErrorMsg* EthernetDDAPI::GetEthernetNamesList(std::list<ethernet_data>* ports) {
    quarn::Platform& p = quarn::platform();
    std::vector<quarn::DirEntry> entries;
    if (p.listDirectory(kSysClassNet, &entries) < 0)
        return returnErrorMsg(kGetEthernetNamesList | kOpenFileFail, strerror(errno), nullptr);
    std::string ids;
    bool idsRead = false;
    for (const quarn::DirEntry& entry : entries) {
        if (entry.name == "." || entry.name == ".." || entry.name == "lo") continue;
        ethernet_data port;
        port.name = entry.name;
        std::string uevent;
        if (quarn::readTextFile(kSysClassNet + entry.name + "/device/uevent", &uevent, 65536) == 0) {
            for (const std::string& line : splitLines(uevent)) {
                if (line.rfind("PCI_SLOT_NAME", 0) == 0) {
                    const size_t eq = line.find('=');
                    if (eq != std::string::npos) port.slotName = line.substr(eq + 1);
                } else if (line.rfind("PCI_ID", 0) == 0) {
                    const size_t eq = line.find('=');
                    const size_t colon = line.find(':');
                    if (eq == std::string::npos || colon == std::string::npos) continue;
                    const std::string vendor = lower(line.substr(eq + 1, 4));
                    const std::string device = lower(line.substr(colon + 1, 4));
                    if (!idsRead) {
                        idsRead = true;
                        if (quarn::readTextFile(kPciIds, &ids, 64u << 20) != 0) ids.clear();
                    }
                    std::string vendorName, deviceName;
                    bool inVendor = false;
                    std::istringstream in(ids);
                    for (std::string l; std::getline(in, l);) {
                        if (!l.empty() && l[0] != '\t' && l[0] != '#') {
                            if (inVendor) break;
                            if (l.rfind(vendor, 0) == 0) {
                                inVendor = true;
                                vendorName = l.substr(std::min<size_t>(4, l.size()));
                            }
                        } else if (inVendor && l.size() > 1 && l[0] == '\t' && l[1] != '\t' &&
                                   l.compare(1, 4, device) == 0) {
                            deviceName = l.substr(std::min<size_t>(5, l.size()));
                            break;
                        }
                    }
                    port.controller = vendorName + deviceName;
                }
            }
        }
        unsigned char address[4] = {0, 0, 0, 0};
        std::vector<char> name(entry.name.begin(), entry.name.end());
        name.push_back('\0');
        if (ErrorMsg* e = GetEthernetIP(name.data(), address)) deleteErrorMsg(e), memset(address, 0, 4);
        char dotted[16];
        snprintf(dotted, sizeof(dotted), "%u.%u.%u.%u", address[3], address[2], address[1], address[0]);
        port.ipAddress = dotted;
        struct ethtool_drvinfo info;
        if (ErrorMsg* e = driverInfo(entry.name.c_str(), &info, kGetEthernetNamesList)) deleteErrorMsg(e);
        else port.driver = info.driver;
        if (ports) ports->push_back(port);
    }
    return nullptr;
}

ErrorMsg* EthernetDDAPI::ConverWellKnowNameToRealName(std::string wellKnown, std::string* real) {
    std::string text;
    if (quarn::readTextFile(kWellKnownProfile, &text, 16u << 20) != 0)
        return returnErrorMsg(kGetEthernetNamesList | kOpenFileFail, strerror(errno), nullptr);
    std::string section;
    for (std::string line : splitLines(text)) {
        // Lines are read 500 characters at a time; a longer line goes on as another.
        for (size_t pos = 0; pos < line.size() || pos == 0; pos += 499) {
            std::string part = line.substr(pos, 499);
            if (part.empty() || part[0] == '#') {
                if (line.size() <= 499) break;
                continue;
            }
            char header[500];
            if (sscanf(part.c_str(), " [%499[^]]", header) == 1) {
                section = header;
            } else if (section == "Ethernet") {
                const std::vector<std::string> w = words(part);
                if (w.size() >= 2 && w[0] == wellKnown && real) *real = w[1];
            }
            if (line.size() <= 499) break;
        }
    }
    return nullptr;
}

// ---- statistics ----

ErrorMsg* EthernetDDAPI::getStatistics(std::string ifname, std::string* text) {
    m_bound = ifname;
    std::string output;
    int status = 0;
    if (quarn::platform().runProgram({"ethtool", "-S", ifname}, &output, &status) != 0)
        return returnErrorMsg(kGetStatistics | kOpenFileFail, formatMessage("ethtool: %s", strerror(errno)), nullptr);
    bool nonZero = false;
    for (const std::string& line : splitLines(output)) {
        if (line.find("error") == std::string::npos) continue;  // "| grep error"
        const std::string bounded = line.substr(0, 255);
        char name[256];
        int value = 0;
        if (sscanf(bounded.c_str(), "     %255[^0-9:]: %d", name, &value) != 2) continue;
        char row[300];
        snprintf(row, sizeof(row), "%s: %d\n", name, value);
        if (text) *text += row;
        if (value != 0) nonZero = true;
    }
    if (nonZero) return returnErrorMsg(kGetStatistics, "Statistics not zero", nullptr);
    return nullptr;
}

ErrorMsg* EthernetDDAPI::get_receive_packet_number(std::string sender, std::string receiver, long* txPackets,
                                                   long* rxPackets) {
    std::string text;
    if (quarn::readTextFile(kSysClassNet + receiver + "/statistics/rx_packets", &text, 4096) == 0 && rxPackets)
        sscanf(text.c_str(), "%ld", rxPackets);
    text.clear();
    if (quarn::readTextFile(kSysClassNet + sender + "/statistics/tx_packets", &text, 4096) == 0 && txPackets)
        sscanf(text.c_str(), "%ld", txPackets);
    return nullptr;
}

// ---- loopback ----

ErrorMsg* EthernetDDAPI::Enable_external_loopback(std::string ifname) {
    std::string vendor, device;
    if (ErrorMsg* e = get_vendor_ID(&vendor)) return returnErrorMsg(kEnableLoopback, nullptr, e);
    if (ErrorMsg* e = get_device_ID(&device)) return returnErrorMsg(kEnableLoopback, nullptr, e);
    std::unique_ptr<EthernetBaseClass> driver;
    if (device == "0x1533" || device == "0x1537") driver.reset(new (std::nothrow) INTEL_I210(m_bound.c_str()));
    else driver.reset(new (std::nothrow) EthernetBaseClass(m_bound.c_str()));
    runTool({"ifconfig", ifname, "up"});
    if (driver)
        if (ErrorMsg* e = driver->Set_external_loopback()) deleteErrorMsg(e);
    return nullptr;
}

ErrorMsg* EthernetDDAPI::Disable_external_loopback() {
    std::string vendor, device;
    if (ErrorMsg* e = get_vendor_ID(&vendor)) return returnErrorMsg(kDisableLoopback, nullptr, e);
    if (ErrorMsg* e = get_device_ID(&device)) return returnErrorMsg(kDisableLoopback, nullptr, e);
    std::unique_ptr<EthernetBaseClass> driver;
    if (device == "0x1533" || device == "0x1537") driver.reset(new (std::nothrow) INTEL_I210(m_bound.c_str()));
    else driver.reset(new (std::nothrow) EthernetBaseClass(m_bound.c_str()));
    if (!driver) return nullptr;
    return driver->Remove_external_loopback();
}

ErrorMsg* EthernetDDAPI::Execute_external_loopback(std::string sender, std::string receiver, float* throughput) {
    quarn::Platform& p = quarn::platform();
    SocketPair s;
    s.send = p.socket(AF_PACKET, SOCK_RAW, htons(ETH_P_IP));
    if (s.send < 0) return returnErrorMsg(kExecuteLoopback | 0x15, strerror(errno), nullptr);
    s.receive = p.socket(AF_PACKET, SOCK_RAW, htons(ETH_P_IP));
    if (s.receive < 0) return returnErrorMsg(kExecuteLoopback | 0x16, strerror(errno), nullptr);

    struct ifreq ifr;
    copyName(&ifr, sender);
    if (p.ioctl(s.send, SIOCGIFINDEX, &ifr) < 0) return returnErrorMsg(kExecuteLoopback | 0x17, strerror(errno), nullptr);
    const int senderIndex = ifr.ifr_ifindex;
    copyName(&ifr, sender);
    if (p.ioctl(s.send, SIOCGIFHWADDR, &ifr) < 0) return returnErrorMsg(kExecuteLoopback | 0x18, strerror(errno), nullptr);
    uint8_t senderMac[6];
    memcpy(senderMac, ifr.ifr_hwaddr.sa_data, 6);
    copyName(&ifr, sender);
    if (p.ioctl(s.send, SIOCGIFMTU, &ifr) < 0) return returnErrorMsg(kExecuteLoopback | 0x19, strerror(errno), nullptr);
    const int mtu = ifr.ifr_mtu;
    copyName(&ifr, receiver);
    if (p.ioctl(s.receive, SIOCGIFINDEX, &ifr) < 0)
        return returnErrorMsg(kExecuteLoopback | 0x17, strerror(errno), nullptr);
    const int receiverIndex = ifr.ifr_ifindex;
    copyName(&ifr, receiver);
    if (p.ioctl(s.receive, SIOCGIFHWADDR, &ifr) < 0)
        return returnErrorMsg(kExecuteLoopback | 0x18, strerror(errno), nullptr);
    uint8_t receiverMac[6];
    memcpy(receiverMac, ifr.ifr_hwaddr.sa_data, 6);
    if (mtu <= 0 || mtu > 65535) return returnErrorMsg(kExecuteLoopback | 0x19, formatMessage("MTU %d", mtu), nullptr);

    struct sockaddr_ll sendAddr, receiveAddr;
    memset(&sendAddr, 0, sizeof(sendAddr));
    sendAddr.sll_family = AF_PACKET;
    sendAddr.sll_protocol = htons(ETH_P_ALL);
    sendAddr.sll_ifindex = senderIndex;
    receiveAddr = sendAddr;
    receiveAddr.sll_ifindex = receiverIndex;
    if (p.bind(s.send, reinterpret_cast<struct sockaddr*>(&sendAddr), sizeof(sendAddr)) < 0 ||
        p.bind(s.receive, reinterpret_cast<struct sockaddr*>(&receiveAddr), sizeof(receiveAddr)) < 0)
        return returnErrorMsg(kExecuteLoopback | 0x1A, strerror(errno), nullptr);

    const size_t frameLength = static_cast<size_t>(mtu) + 14;
    std::vector<uint8_t> frame(frameLength, 0xAA);
    memcpy(frame.data(), receiverMac, 6);
    memcpy(frame.data() + 6, senderMac, 6);
    frame[12] = static_cast<uint8_t>(mtu & 0xFF);
    frame[13] = static_cast<uint8_t>(mtu >> 8 & 0xFF);
    std::vector<uint8_t> buffer(18000);

    const Stamp start = now();
    Stamp interval = start;
    long tx0 = 0, rx0 = 0;
    get_receive_packet_number(sender, receiver, &tx0, &rx0);
    float last = 0;
    unsigned long long bytes = 0;
    for (;;) {
        Stamp t = now();
        if (t.sec - start.sec > 3) {
            p.sleepMicroseconds(1000000);
            break;
        }
        const ssize_t sent = p.sendto(s.send, frame.data(), frameLength, 0,
                                      reinterpret_cast<struct sockaddr*>(&sendAddr), sizeof(sendAddr));
        if (sent < 0) return returnErrorMsg(kExecuteLoopback | 0x1B, strerror(errno), nullptr);
        if (sent == 0) printf("Send \"0\"\n");
        const ssize_t got = p.recvfrom(s.receive, buffer.data(), buffer.size(), MSG_DONTWAIT, nullptr, nullptr);
        t = now();
        if (t.sec - interval.sec > 5) return returnErrorMsg(kExecuteLoopback | 0x1C, nullptr, nullptr);
        if (got < 0) {
            if (errno != EAGAIN && errno != EWOULDBLOCK)
                return returnErrorMsg(kExecuteLoopback | 0x1D, strerror(errno), nullptr);
            continue;
        }
        if (got < 12 || memcmp(buffer.data() + 6, senderMac, 6) != 0 || memcmp(buffer.data(), receiverMac, 6) != 0)
            continue;
        if (static_cast<size_t>(got) < frameLength || memcmp(buffer.data(), frame.data(), frameLength) != 0) break;
        bytes += static_cast<unsigned long long>(got);
        if (t.sec - interval.sec >= 1) {
            const double elapsed = since(interval, t);
            last = static_cast<float>((static_cast<double>(bytes) * 8 / 1024 / 1024) / elapsed);
            bytes = 0;
            interval = t;
        }
    }
    long tx1 = tx0, rx1 = rx0;
    get_receive_packet_number(sender, receiver, &tx1, &rx1);
    if (throughput) *throughput = rx1 - rx0 > 19 ? last : 0.0f;
    return nullptr;
}

// ---- clearing ----

ErrorMsg* EthernetDDAPI::clearStatistics(std::string ifname) {
    m_bound = ifname;
    std::list<ethernet_data> ports;
    if (ErrorMsg* e = GetEthernetNamesList(&ports)) return returnErrorMsg(kClearStatistics, nullptr, e);
    std::vector<std::string> drivers;
    for (const ethernet_data& port : ports)
        if (port.name == ifname && !port.driver.empty() &&
            std::find(drivers.begin(), drivers.end(), port.driver) == drivers.end())
            drivers.push_back(port.driver);
    for (const std::string& driver : drivers) {
        runTool({"modprobe", "-r", driver});
        runTool({"modprobe", driver});
    }
    for (const ethernet_data& port : ports)
        if (port.ipAddress != "0.0.0.0") runTool({"ifconfig", port.name, port.ipAddress});
    return nullptr;
}

ErrorMsg* EthernetDDAPI::clearAER(std::string ifname) {
    m_bound = ifname;
    int domain = 0, bus = 0, device = 0, function = 0;
    if (ErrorMsg* e = GetPCIBusDeviceFunction(ifname, &domain, &bus, &device, &function))
        return returnErrorMsg(kClearAER, nullptr, e);
    PCIDDAPI pci("PCI_driver");
    deleteErrorMsg(pci.getErrorMsg());
    _PFA pfa = {static_cast<uint16_t>(domain), static_cast<uint16_t>(bus), static_cast<uint16_t>(device),
                static_cast<uint8_t>(function), 0};
    pci.clearErrors(pfa);
    return nullptr;
}

// ---- LEDs ----

ErrorMsg* EthernetDDAPI::getLEDList(std::list<std::string>* names) {
    std::set<std::string> excluded;
    std::string profile;
    if (quarn::readTextFile(kLedProfile, &profile, 1u << 20) == 0) {
        for (const std::string& line : splitLines(profile)) {
            if (line.empty() || line[0] == '#') continue;
            const std::vector<std::string> w = words(line);
            if (!w.empty()) excluded.insert(lower(w[0]));
        }
    }
    std::list<ethernet_data> ports;
    if (ErrorMsg* e = GetEthernetNamesList(&ports)) deleteErrorMsg(e);
    std::list<std::string> found;
    for (const ethernet_data& port : ports) {
        std::string vendor, device;
        if (ErrorMsg* e = readIds(port.name, kGetEthernetNamesList, &vendor, &device)) {
            deleteErrorMsg(e);
            continue;
        }
        const Chip chip = chipOf(vendor, device);
        if (chip != Chip::I210 && chip != Chip::XL710) continue;
        std::unique_ptr<EthernetBaseClass> driver(makeDriver(chip));
        if (driver)
            if (ErrorMsg* e = driver->getLEDName(port.name, &found)) deleteErrorMsg(e);
    }
    if (names)
        for (const std::string& led : found)
            if (!excluded.count(led)) names->push_back(led);
    return nullptr;
}

namespace {
bool splitLed(const std::string& led, std::string* ifname, std::string* part) {
    const size_t us = led.find('_');
    if (us == 0 || us == std::string::npos || us + 1 >= led.size()) return false;
    *ifname = led.substr(0, us);
    // "%s" stops at the first blank.
    std::string rest = led.substr(us + 1);
    *part = rest.substr(0, rest.find_first_of(" \t\n"));
    return !part->empty();
}
}  // namespace

ErrorMsg* EthernetDDAPI::setLEDStatus(std::string led, std::string state) {
    std::string ifname, part;
    if (!splitLed(led, &ifname, &part))
        return returnErrorMsg(kGetEthernetNamesList, "Undefine LED index", nullptr);
    std::string vendor, device;
    if (ErrorMsg* e = readIds(ifname, kGetEthernetNamesList, &vendor, &device)) return e;
    const Chip chip = chipOf(vendor, device);
    if (chip != Chip::I210 && chip != Chip::XL710) return nullptr;
    std::unique_ptr<EthernetBaseClass> driver(makeDriver(chip));
    if (!driver) return returnErrorMsg(kGetEthernetNamesList | 0x23A, nullptr, nullptr);
    if (ErrorMsg* e = driver->setLEDStatus(ifname, part, state)) return returnErrorMsg(kGetEthernetNamesList, nullptr, e);
    return nullptr;
}

ErrorMsg* EthernetDDAPI::getLEDStatus(std::string led, std::string* state) {
    std::string ifname, part;
    if (!splitLed(led, &ifname, &part))
        return returnErrorMsg(kGetEthernetNamesList, "Undefine LED index", nullptr);
    std::string vendor, device;
    if (ErrorMsg* e = readIds(ifname, kGetEthernetNamesList, &vendor, &device)) return e;
    const Chip chip = chipOf(vendor, device);
    if (chip != Chip::I210 && chip != Chip::XL710) return nullptr;
    std::unique_ptr<EthernetBaseClass> driver(makeDriver(chip));
    if (!driver) return returnErrorMsg(kGetEthernetNamesList | 0x23A, nullptr, nullptr);
    std::string value;
    if (ErrorMsg* e = driver->getLEDStatus(ifname, part, &value)) return returnErrorMsg(kGetEthernetNamesList, nullptr, e);
    if (state) *state = value;
    return nullptr;
}
