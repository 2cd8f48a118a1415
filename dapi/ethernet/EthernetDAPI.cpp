// Ethernet diagnostic layer.
#include "dapi/ethernet/EthernetDAPI.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <list>
#include <new>

#include "api/platform/Files.h"
#include "api/platform/Platform.h"
#include "ddapi/pci/PCIDDAPI.h"

namespace {
constexpr ERRORCODE kGetDeviceNames = 0xC3040800;
constexpr ERRORCODE kReadMacAddress = 0xC3040C00;
constexpr ERRORCODE kReadIPAddress = 0xC3041000;
constexpr ERRORCODE kReadIPMask = 0xC3041400;
constexpr ERRORCODE kReadMTU = 0xC3041800;
constexpr ERRORCODE kReadEEPROM = 0xC3041C00;
constexpr ERRORCODE kReadEEPROMSize = 0xC3042000;
constexpr ERRORCODE kEepromValidationTest = 0xC3042400;
constexpr ERRORCODE kMDIRegisterTest = 0xC3042800;
constexpr ERRORCODE kInterruptTest = 0xC3042C00;
constexpr ERRORCODE kInternalLoopbackTest = 0xC3043000;
constexpr ERRORCODE kWriteEEPROM = 0xC3043400;
constexpr ERRORCODE kWriteMacAddress = 0xC3043800;
constexpr ERRORCODE kExtrenalLoopback = 0xC3043C00;
constexpr ERRORCODE kSetupSpeed = 0xC3044000;
constexpr ERRORCODE kGetSupportedLinkModes = 0xC3044400;
constexpr ERRORCODE kGetStatistics = 0xC3044C00;
constexpr ERRORCODE kGetNodeValue = 0xC3045000;
constexpr ERRORCODE kGetControllerName = 0xC3045400;
constexpr ERRORCODE kGetFirmwareVersion = 0xC3045800;
constexpr ERRORCODE kClear = 0xC3045C00;

constexpr ERRORCODE kSetSpeedFail = 0x03;
constexpr ERRORCODE kIoctlFail = 0x04;
constexpr ERRORCODE kOpenSocketFail = 0x05;
constexpr ERRORCODE kOpenNodeFail = 0x06;
constexpr ERRORCODE kThroughputZero = 0x07;
constexpr ERRORCODE kLinkTimeout = 0x08;
constexpr ERRORCODE kAllocFail = 0x23A;

struct LinkMode {
    uint32_t bit;
    const char* name;
};
const LinkMode kLinkModes[EthernetDAPI::kLinkModeCount] = {
    {0x1, "10baseT/Half"},         {0x2, "10baseT/Full"},         {0x4, "100baseT/Half"},
    {0x8, "100baseT/Full"},        {0x10, "1000baseT/Half"},      {0x20, "1000baseT/Full"},
    {0x20000, "1000baseKX/Full"},  {0x8000, "2500baseX/Full"},    {0x1000, "10000baseT/Full"},
    {0x40000, "10000baseKX4/Full"}, {0x80000, "10000baseKR/Full"}, {0x200000, "20000baseMLD2/Full"},
    {0x400000, "20000baseKR2/Full"}, {0x800000, "40000baseKR4/Full"}, {0x1000000, "40000baseCR4/Full"},
    {0x2000000, "40000baseSR4/Full"}, {0x4000000, "40000baseLR4/Full"},
};

const char* const kCounters[8] = {"rx_packets", "rx_errors", "rx_dropped", "rx_frame_errors",
                                  "tx_packets", "tx_errors", "tx_dropped", "tx_aborted_errors"};

// The ethtool request on a fresh socket, as the device layer makes it.
class EthtoolPort : public EthernetBaseClass {
public:
    EthtoolPort() : EthernetBaseClass("ethtool") {}
    static int request(const std::string& ifname, void* req, bool* openFailed) {
        return ethtoolRequest(ifname, req, openFailed);
    }
    static int run(const std::vector<std::string>& argv) { return runTool(argv); }
};
}  // namespace

EthernetDAPI::EthernetDAPI(const char* name) : BaseClassDAPI(name), m_device(nullptr), m_lastResult(nullptr) {
    m_device = new (std::nothrow) EthernetDDAPI("ethDrv");
    if (!m_device) addErrorMsg(0xC3040400 | kAllocFail, nullptr);
}

EthernetDAPI::~EthernetDAPI() {
    delete m_device;
    deleteErrorMsg(m_lastResult);
}

ErrorMsg* EthernetDAPI::wrap(ERRORCODE function, ErrorMsg* cause) {
    return cause ? returnErrorMsg(function, nullptr, cause) : nullptr;
}

int EthernetDAPI::getSettings(const std::string& ifname, struct ethtool_cmd* cmd) {
    memset(cmd, 0, sizeof(*cmd));
    cmd->cmd = ETHTOOL_GSET;
    bool openFailed = false;
    if (EthtoolPort::request(ifname, cmd, &openFailed) < 0) return openFailed ? 1 : 2;
    return 0;
}

void EthernetDAPI::setMtu1500(const std::string& ifname) { EthtoolPort::run({"ifconfig", ifname, "mtu", "1500"}); }

#define QUARN_DEVICE_OR_FAIL(function) \
    if (!m_device) return returnErrorMsg((function) | kAllocFail, nullptr, nullptr)

ErrorMsg* EthernetDAPI::GetDeviceNames(std::list<ethernet_data>* ports) {
    QUARN_DEVICE_OR_FAIL(kGetDeviceNames);
    return wrap(kGetDeviceNames, m_device->GetEthernetNamesList(ports));
}

ErrorMsg* EthernetDAPI::ReadMacAddress(std::string ifname, std::string* mac) {
    QUARN_DEVICE_OR_FAIL(kReadMacAddress);
    return wrap(kReadMacAddress, m_device->GetEthernetMAC(ifname, mac));
}

ErrorMsg* EthernetDAPI::WriteMacAddress(std::string ifname, std::string* bytes) {
    QUARN_DEVICE_OR_FAIL(kWriteMacAddress);
    return wrap(kWriteMacAddress, m_device->SetEthernetMAC(ifname, bytes));
}

ErrorMsg* EthernetDAPI::ReadIPAddress(char* name, unsigned char* address) {
    QUARN_DEVICE_OR_FAIL(kReadIPAddress);
    return wrap(kReadIPAddress, m_device->GetEthernetIP(name, address));
}

ErrorMsg* EthernetDAPI::ReadIPMask(char* name, unsigned char* mask) {
    QUARN_DEVICE_OR_FAIL(kReadIPMask);
    return wrap(kReadIPMask, m_device->GetEthernetMask(name, mask));
}

ErrorMsg* EthernetDAPI::ReadMTU(char* name, int* mtu) {
    QUARN_DEVICE_OR_FAIL(kReadMTU);
    return wrap(kReadMTU, m_device->GetEthernetMTU(name, mtu));
}

ErrorMsg* EthernetDAPI::ReadEEPROM(char* name, unsigned char* data, int length) {
    QUARN_DEVICE_OR_FAIL(kReadEEPROM);
    return wrap(kReadEEPROM, m_device->GetEthernetEEPROM(name, data, length));
}

ErrorMsg* EthernetDAPI::ReadEEPROMSize(char* name, int* size) {
    QUARN_DEVICE_OR_FAIL(kReadEEPROMSize);
    return wrap(kReadEEPROMSize, m_device->GetEthernetEEPROMSize(name, size));
}

ErrorMsg* EthernetDAPI::WriteEEPROM(char* name, int offset, int count, unsigned char* bytes) {
    QUARN_DEVICE_OR_FAIL(kWriteEEPROM);
    for (int i = 0; i < count; ++i)
        if (ErrorMsg* e = m_device->SetEthernetEEPROM(name, offset + i, bytes[i])) return wrap(kWriteEEPROM, e);
    return nullptr;
}

ErrorMsg* EthernetDAPI::ReadEEPROM(std::string ifname, int offset, int length, int* data) {
    QUARN_DEVICE_OR_FAIL(kReadEEPROM);
    return m_device->GetEthernetEEPROM(ifname, offset, length, data);
}

ErrorMsg* EthernetDAPI::WriteEEPROM(std::string ifname, int offset, int* data, int length) {
    QUARN_DEVICE_OR_FAIL(kWriteEEPROM);
    return m_device->SetEthernetEEPROM(ifname, offset, data, length);
}

ErrorMsg* EthernetDAPI::EepromValidationTest(char* name, int* result) {
    QUARN_DEVICE_OR_FAIL(kEepromValidationTest);
    return wrap(kEepromValidationTest, m_device->SendIoctl(name ? name : "", EEPROM_VALIDATION_TEST, result));
}

ErrorMsg* EthernetDAPI::EepromValidationTest(std::string ifname, int* result) {
    QUARN_DEVICE_OR_FAIL(kEepromValidationTest);
    return m_device->SendIoctl(ifname, EEPROM_VALIDATION_TEST, result);
}

ErrorMsg* EthernetDAPI::MDIRegisterTest(std::string ifname, int* result) {
    QUARN_DEVICE_OR_FAIL(kMDIRegisterTest);
    return wrap(kMDIRegisterTest, m_device->SendIoctl(ifname, LINK_STATUS_TEST, result));
}

ErrorMsg* EthernetDAPI::InterruptTest(std::string ifname, int* result) {
    QUARN_DEVICE_OR_FAIL(kInterruptTest);
    return wrap(kInterruptTest, m_device->SendIoctl(ifname, INTERRUPT_TEST, result));
}

ErrorMsg* EthernetDAPI::InternalLoopbackTest(std::string ifname, int* result) {
    QUARN_DEVICE_OR_FAIL(kInternalLoopbackTest);
    return wrap(kInternalLoopbackTest, m_device->SendIoctl(ifname, INTERNAL_LOOPBACK_TEST, result));
}

ErrorMsg* EthernetDAPI::Program(std::string ifname, std::string image) {
    QUARN_DEVICE_OR_FAIL(kWriteEEPROM);
    return m_device->Program(ifname, image);
}

ErrorMsg* EthernetDAPI::ReadSFP(std::string ifname, int device, int offset, int count, int* data) {
    QUARN_DEVICE_OR_FAIL(kReadEEPROM);
    return m_device->ReadSFP(ifname, device, offset, count, data);
}

ErrorMsg* EthernetDAPI::writeSFP(std::string ifname, int device, int offset, int value) {
    QUARN_DEVICE_OR_FAIL(kWriteEEPROM);
    return m_device->WriteSFP(ifname, device, offset, value);
}

ErrorMsg* EthernetDAPI::GetStatistics(std::string ifname, std::string* text) {
    QUARN_DEVICE_OR_FAIL(kGetStatistics);
    return wrap(kGetStatistics, m_device->getStatistics(ifname, text));
}

ErrorMsg* EthernetDAPI::Clear(std::string ifname) {
    QUARN_DEVICE_OR_FAIL(kClear);
    if (ErrorMsg* e = m_device->clearAER(ifname)) return wrap(kClear, e);
    return wrap(kClear, m_device->clearStatistics(ifname));
}

// ---- loopback ----

ErrorMsg* EthernetDAPI::Extrenal_loopback(std::string ifname, int mbps, float* throughput) {
    deleteErrorMsg(m_lastResult);
    m_lastResult = nullptr;
    delete m_device;
    m_device = new (std::nothrow) EthernetDDAPI(ifname.c_str());
    if (!m_device) return returnErrorMsg(kExtrenalLoopback | kAllocFail, nullptr, nullptr);
    float value = 0;
    if (ErrorMsg* e = m_device->Enable_external_loopback(ifname)) return wrap(kExtrenalLoopback, e);
    if (ErrorMsg* e = m_device->SetupSpeed(ifname, mbps)) {
        if (ErrorMsg* d = m_device->Disable_external_loopback()) deleteErrorMsg(d);
        return wrap(kExtrenalLoopback, e);
    }
    if (ErrorMsg* e = m_device->Execute_external_loopback(ifname, ifname, &value)) {
        if (ErrorMsg* d = m_device->Disable_external_loopback()) deleteErrorMsg(d);
        return wrap(kExtrenalLoopback, e);
    }
    if (ErrorMsg* e = m_device->Disable_external_loopback()) return wrap(kExtrenalLoopback, e);
    if (throughput) *throughput = value;
    if (value == 0.0f) return returnErrorMsg(kExtrenalLoopback | kThroughputZero, nullptr, nullptr);
    return nullptr;
}

ErrorMsg* EthernetDAPI::Extrenal_loopback(std::string portA, std::string portB, int mbps, float* throughput,
                                          std::string*) {
    deleteErrorMsg(m_lastResult);
    m_lastResult = nullptr;
    delete m_device;
    m_device = new (std::nothrow) EthernetDDAPI(portA.c_str());
    if (!m_device) return returnErrorMsg(kExtrenalLoopback | kAllocFail, nullptr, nullptr);
    if (ErrorMsg* e = m_device->SetupSpeed(portA, mbps)) {
        setMtu1500(portA);
        return wrap(kExtrenalLoopback, e);
    }
    if (ErrorMsg* e = m_device->SetupSpeed(portB, mbps)) {
        setMtu1500(portB);
        return wrap(kExtrenalLoopback, e);
    }
    float t1 = 0, t2 = 0;
    ErrorMsg* e = m_device->Execute_external_loopback(portA, portB, &t1);
    if (!e && t1 != 0.0f) {
        quarn::platform().sleepMicroseconds(1000000);
        e = m_device->Execute_external_loopback(portB, portA, &t2);
    }
    setMtu1500(portA);
    setMtu1500(portB);
    if (e) return wrap(kExtrenalLoopback, e);
    if (t1 != 0.0f && t2 != 0.0f) {
        if (throughput) *throughput = (t1 + t2) * 0.5f;
        return nullptr;
    }
    if (throughput) *throughput = 0;
    return returnErrorMsg(kExtrenalLoopback | kThroughputZero, nullptr, nullptr);
}

// ---- link ----

ErrorMsg* EthernetDAPI::GetSupportedLinkModes(std::string ifname, std::string names[], int* count) {
    if (count) *count = 0;
    struct ethtool_cmd cmd;
    const int rc = getSettings(ifname, &cmd);
    if (rc == 1) return returnErrorMsg(kGetSupportedLinkModes | 0x05, strerror(errno), nullptr);
    if (rc == 2) {
        if (errno == EOPNOTSUPP) return nullptr;
        return returnErrorMsg(kGetSupportedLinkModes | 0x04, strerror(errno), nullptr);
    }
    int n = 0;
    for (const LinkMode& mode : kLinkModes)
        if (cmd.supported & mode.bit) names[n++] = mode.name;
    if (count) *count = n;
    return nullptr;
}

ErrorMsg* EthernetDAPI::GetSpeedDuplex(std::string ifname, std::string* text) {
    struct ethtool_cmd cmd;
    const int rc = getSettings(ifname, &cmd);
    if (rc == 1) return returnErrorMsg(kGetSupportedLinkModes | 0x05, strerror(errno), nullptr);
    if (rc == 2) {
        if (errno == EOPNOTSUPP) {
            if (text) text->clear();
            return nullptr;
        }
        return returnErrorMsg(kGetSupportedLinkModes | 0x04, strerror(errno), nullptr);
    }
    const uint32_t speed = static_cast<uint32_t>(cmd.speed_hi) << 16 | cmd.speed;
    char out[32];
    if (speed == 0xFFFF || speed == 0xFFFFFFFFu) snprintf(out, sizeof(out), "Unknown!");
    else if (speed >= 1000) snprintf(out, sizeof(out), "%dGb", static_cast<int>(speed / 1000));
    else snprintf(out, sizeof(out), "%dMb", static_cast<int>(speed));
    if (text) *text += out;
    return nullptr;
}

ErrorMsg* EthernetDAPI::GetLinkStatus(std::string ifname, std::string* state) {
    struct ethtool_value value;
    memset(&value, 0, sizeof(value));
    value.cmd = ETHTOOL_GLINK;
    bool openFailed = false;
    if (EthtoolPort::request(ifname, &value, &openFailed) < 0) {
        if (openFailed) return returnErrorMsg(0xC3044800 | kOpenSocketFail, strerror(errno), nullptr);
        if (errno != EOPNOTSUPP) return returnErrorMsg(0xC3044800 | kIoctlFail, strerror(errno), nullptr);
        value.data = 0;
    }
    if (state) *state = value.data == 1 ? "Up" : "Down";
    return nullptr;
}

ErrorMsg* EthernetDAPI::Setup_speed(std::string ifname, int mbps, int wait) {
    std::string state = "No";
    struct ethtool_cmd cmd;
    const int rc = getSettings(ifname, &cmd);
    if (rc == 1) return returnErrorMsg(kSetupSpeed | kOpenSocketFail, strerror(errno), nullptr);
    if (rc == 2) return returnErrorMsg(kSetupSpeed | 0x02, strerror(errno), nullptr);
    cmd.cmd = ETHTOOL_SSET;
    ethtool_cmd_speed_set(&cmd, static_cast<uint32_t>(mbps));
    cmd.duplex = DUPLEX_FULL;
    cmd.autoneg = mbps >= 1000 ? AUTONEG_ENABLE : AUTONEG_DISABLE;
    bool openFailed = false;
    if (EthtoolPort::request(ifname, &cmd, &openFailed) < 0)
        return returnErrorMsg(kSetupSpeed | (openFailed ? kOpenSocketFail : kSetSpeedFail), strerror(errno), nullptr);
    if (wait != 1) return nullptr;
    quarn::Platform& p = quarn::platform();
    for (int i = 0; i < 6; ++i) {
        p.sleepMicroseconds(1000000);
        if (ErrorMsg* e = GetLinkStatus(ifname, &state)) deleteErrorMsg(e);
        if (state != "No") return nullptr;
    }
    p.sleepMicroseconds(1000000);
    return returnErrorMsg(kSetupSpeed | kLinkTimeout, nullptr, nullptr);
}

ErrorMsg* EthernetDAPI::GetFirmwareVersion(std::string ifname, std::string* version) {
    struct ethtool_drvinfo info;
    memset(&info, 0, sizeof(info));
    info.cmd = ETHTOOL_GDRVINFO;
    bool openFailed = false;
    if (EthtoolPort::request(ifname, &info, &openFailed) < 0)
        return returnErrorMsg(kGetFirmwareVersion | (openFailed ? kOpenSocketFail : kIoctlFail), strerror(errno),
                              nullptr);
    info.fw_version[sizeof(info.fw_version) - 1] = '\0';
    if (version) *version = info.fw_version;
    return nullptr;
}

// ---- statistics and nodes ----

ErrorMsg* EthernetDAPI::GetStatistics(std::string ifname, Ethetnet_statistics* stats) {
    std::string* fields[8] = {&stats->rx_packets, &stats->rx_errors, &stats->rx_dropped, &stats->rx_frame_errors,
                              &stats->tx_packets, &stats->tx_errors, &stats->tx_dropped, &stats->tx_aborted_errors};
    for (int i = 0; i < 8; ++i) {
        if (ErrorMsg* e = GetNodeValue("/sys/class/net/" + ifname + "/statistics/" + kCounters[i], fields[i]))
            return returnErrorMsg(kGetStatistics, i == 7 ? nullptr : kCounters[i], e);
    }
    return nullptr;
}

ErrorMsg* EthernetDAPI::GetNodeValue(std::string path, std::string* value) {
    std::string text;
    if (quarn::readTextFile(path, &text, 4096) != 0)
        return returnErrorMsg(kGetNodeValue | kOpenNodeFail, path.c_str(), nullptr);
    if (value) *value = text.substr(0, text.find('\n'));
    return nullptr;
}

ErrorMsg* EthernetDAPI::GetNode(std::string name, std::string* out) {
    if (out) *out = name;
    return nullptr;
}

ErrorMsg* EthernetDAPI::GetControllerName(std::string ifname, std::string* text) {
    delete m_device;
    m_device = new (std::nothrow) EthernetDDAPI(ifname.c_str());
    if (!m_device) return returnErrorMsg(kGetControllerName | kAllocFail, nullptr, nullptr);
    std::string bus;
    if (ErrorMsg* e = m_device->get_device_bus_type(&bus)) return e;
    if (bus != "pci") {
        if (text) *text += "Not support bus type";
        return nullptr;
    }
    std::string vendor, device;
    if (ErrorMsg* e = m_device->get_vendor_ID(&vendor)) return wrap(kGetControllerName, e);
    if (ErrorMsg* e = m_device->get_device_ID(&device)) return wrap(kGetControllerName, e);
    unsigned v = 0, d = 0;
    sscanf(vendor.c_str(), "%x", &v);
    sscanf(device.c_str(), "%x", &d);
    // A PCI controller is named by its IDs, as "lspci -n" would show them.
    if (text) {
        char ids[16];
        snprintf(ids, sizeof(ids), "%04x:%04x", v & 0xFFFF, d & 0xFFFF);
        *text += ids;
    }
    return nullptr;
}

ErrorMsg* EthernetDAPI::GetAER(std::string ifname, std::string* text) {
    EthtoolPort port;
    int domain = 0, bus = 0, device = 0, function = 0;
    if (ErrorMsg* e = port.GetPCIBusDeviceFunction(ifname, &domain, &bus, &device, &function)) deleteErrorMsg(e);
    PCIDDAPI pci("PCI_driver");
    deleteErrorMsg(pci.getErrorMsg());
    _PFA pfa = {static_cast<uint16_t>(domain), static_cast<uint16_t>(bus), static_cast<uint16_t>(device),
                static_cast<uint8_t>(function), 0};
    std::list<_PCI_ERROR> errors;
    pci.getErrorStatistics(pfa, PCIE_AER_ERROR, &errors);
    for (const _PCI_ERROR& err : errors) {
        char line[128];
        snprintf(line, sizeof(line), "PCI AER %s: 0x%08x\n", err.name.c_str(), err.value);
        if (text) *text += line;
    }
    return nullptr;
}
