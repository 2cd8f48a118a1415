// Device layer of the SAS expanders: sysfs of the SAS transport class, read in-process as
// "cat" and "ls" would, and the board's SMP and SES tools run by argument vector.
#include "ddapi/expander/ExpanderDDAPI.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "api/StringUtil.h"
#include "api/platform/Files.h"
#include "api/platform/Platform.h"

namespace {
constexpr ERRORCODE kConstructor = 0xD5080400;
constexpr ERRORCODE kGetLogicalIDByName = 0xD5080800;
constexpr ERRORCODE kGetDataByID = 0xD5080C00;
constexpr ERRORCODE kGetErrorDataByID = 0xD5081000;
constexpr ERRORCODE kClearPHYError = 0xD5081400;
constexpr ERRORCODE kReset = 0xD5081800;

constexpr ERRORCODE kPopenFail = 0x01;
constexpr ERRORCODE kUnknownName = 0x02;
constexpr ERRORCODE kUnknownID = 0x03;
constexpr ERRORCODE kDiffPhySpeed = 0x04;
constexpr ERRORCODE kUnsupportedType = 0x05;
constexpr ERRORCODE kSystemCmdFail = 0x06;
constexpr ERRORCODE kSESFail = 0x07;
constexpr ERRORCODE kSMPFail = 0x08;
constexpr ERRORCODE kBadParameter = 0x204;

constexpr size_t kNameLimit = 20;   // an "ls" line as the list reads it
constexpr size_t kLineLimit = 100;  // a tool output line
const char kEnclosureCommand[] = "EXP_Enclosure_Data.sh | grep \"^Port ID\" | awk '{printf $3 \"\\n\"}'";

// The number after the last colon of "phy-0:0:12".
bool numberAfterColon(const std::string& entry, unsigned int* out) {
    const size_t colon = entry.rfind(':');
    if (colon == std::string::npos || colon + 1 >= entry.size() || entry.size() - colon > 6) return false;
    unsigned int v = 0;
    for (size_t i = colon + 1; i < entry.size(); ++i) {
        if (!isdigit(static_cast<unsigned char>(entry[i]))) return false;
        v = v * 10 + static_cast<unsigned int>(entry[i] - '0');
    }
    *out = v;
    return true;
}

bool parseNumber(const std::string& text, unsigned int* out) {
    if (text.empty() || text.size() > 6) return false;
    unsigned int v = 0;
    for (char c : text) {
        if (!isdigit(static_cast<unsigned char>(c))) return false;
        v = v * 10 + static_cast<unsigned int>(c - '0');
    }
    *out = v;
    return true;
}

std::vector<std::string> outputLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (line.size() > kLineLimit - 1) line.resize(kLineLimit - 1);
        lines.push_back(line);
    }
    return lines;
}
}  // namespace

ExpanderDDAPI::ExpanderDDAPI(const char* name) : BaseClassDDAPI(name) {
    if (ErrorMsg* e = buildDeviceList()) addErrorMsg(kConstructor, nullptr, e);
}

ExpanderDDAPI::~ExpanderDDAPI() = default;

std::string ExpanderDDAPI::convertStringToUpperCase(std::string text) {
    for (char& c : text) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    return text;
}

bool ExpanderDDAPI::compareStrNum(const ExpanderDeviceConfig& a, const ExpanderDeviceConfig& b) {
    if (a.kind != b.kind) return a.kind < b.kind;
    if (a.expanderNumber != b.expanderNumber) return a.expanderNumber < b.expanderNumber;
    return a.number < b.number;
}

bool ExpanderDDAPI::readValue(const std::string& path, std::string* value) {
    std::string text;
    if (quarn::readTextFile(path, &text, 4096) != 0) return false;
    const size_t end = text.find('\n');
    if (end != std::string::npos) text.resize(end);
    *value = text;
    return true;
}

ErrorMsg* ExpanderDDAPI::buildDeviceList() {
    m_devices.clear();
    std::vector<std::string> expanders;
    // No SAS transport class (or no expander): an empty list.
    if (quarn::listNames(kClassDirectory, &expanders) != 0) return nullptr;
    std::vector<ExpanderDeviceConfig> list;
    unsigned int index = 0;
    for (const std::string& expander : expanders) {
        if (expander.size() > kNameLimit) {
            addErrorMsg(kConstructor | kUnknownName, formatMessage("%.40s... ignored", expander.c_str()));
            continue;
        }
        ExpanderDeviceConfig e;
        e.kind = EXP_DEVICE_EXPANDER;
        e.name = "EXP" + std::to_string(index);
        e.expander = expander;
        e.expanderNumber = index;
        list.push_back(e);

        const std::string device = kClassDirectory + expander + "/device/";
        std::vector<std::string> entries;
        if (quarn::listNames(device, &entries) != 0)
            return returnErrorMsg(kConstructor | kSystemCmdFail,
                                  formatMessage("%.30s: %s", device.c_str(), quarn::systemErrorText(errno).c_str()),
                                  nullptr);
        for (const std::string& entry : entries) {
            ExpanderDeviceConfig d;
            d.expander = expander;
            d.entry = entry;
            d.expanderNumber = index;
            if (entry.compare(0, 4, "port") == 0) {
                // Numbered by the expander PHY its device hangs from; a port leading to
                // another expander has no end device: its lowest PHY numbers it.
                const std::string suffix = entry.substr(4);
                std::string text;
                unsigned int number = 0;
                bool found = readValue(device + entry + "/end_device" + suffix + "/sas_device/end_device" + suffix +
                                           "/phy_identifier",
                                       &text) &&
                             parseNumber(text, &number);
                if (!found) {
                    std::vector<std::string> members;
                    if (quarn::listNames(device + entry, &members) == 0) {
                        for (const std::string& m : members) {
                            unsigned int n = 0;
                            if (m.find("phy") != std::string::npos && numberAfterColon(m, &n) && (!found || n < number)) {
                                number = n;
                                found = true;
                            }
                        }
                    }
                }
                if (!found) continue;
                d.kind = EXP_DEVICE_PORT;
                d.number = number;
                d.name = "EXP" + std::to_string(index) + "-PORT" + std::to_string(number);
            } else if (entry.find(':') != std::string::npos) {
                if (!numberAfterColon(entry, &d.number)) continue;
                d.kind = EXP_DEVICE_PHY;
                d.name = "EXP" + std::to_string(index) + "-PHY" + std::to_string(d.number);
            } else {
                continue;
            }
            list.push_back(d);
        }
        ++index;
    }
    std::stable_sort(list.begin(), list.end(), compareStrNum);
    for (size_t i = 0; i < list.size(); ++i) list[i].logicalID = static_cast<unsigned int>(i);
    m_devices = std::move(list);
    return nullptr;
}

const ExpanderDDAPI::ExpanderDeviceConfig* ExpanderDDAPI::find(unsigned int id) const {
    return id < m_devices.size() ? &m_devices[id] : nullptr;
}

ErrorMsg* ExpanderDDAPI::getDeviceNameByID(EXP_DEVICE kind, unsigned int index, std::string* name) {
    if (!name) return returnErrorMsg(kGetLogicalIDByName | kBadParameter, nullptr, nullptr);
    unsigned int seen = 0;
    for (const ExpanderDeviceConfig& d : m_devices) {
        if (d.kind != kind) continue;
        if (seen++ == index) {
            *name = d.name;
            return nullptr;
        }
    }
    return returnErrorMsg(kGetLogicalIDByName | kUnknownID, formatMessage("kind %u index %u", kind, index), nullptr);
}

ErrorMsg* ExpanderDDAPI::getLogicalIDByName(std::string name, unsigned int* id) {
    if (!id) return returnErrorMsg(kGetLogicalIDByName | kBadParameter, nullptr, nullptr);
    const std::string wanted = convertStringToUpperCase(name);
    for (const ExpanderDeviceConfig& d : m_devices) {
        if (d.name == wanted) {
            *id = d.logicalID;
            return nullptr;
        }
    }
    return returnErrorMsg(kGetLogicalIDByName | kUnknownName, formatMessage("%.60s", name.c_str()), nullptr);
}

ErrorMsg* ExpanderDDAPI::getDataByID(unsigned int id, EXP_DATAELEMENT element, std::string* out) {
    if (!out || element > EXP_DATA_SAS_ADDRESS)
        return returnErrorMsg(kGetDataByID | kBadParameter, formatMessage("element %u", element), nullptr);
    const ExpanderDeviceConfig* d = find(id);
    if (!d) return returnErrorMsg(kGetDataByID | kUnknownID, formatMessage("ID %u", id), nullptr);
    const std::string device = kClassDirectory + d->expander + "/device/";
    std::string path;
    switch (d->kind) {
    case EXP_DEVICE_PHY: {
        const std::string phy = device + d->entry + "/sas_phy/" + d->entry + "/";
        path = phy + (element == EXP_DATA_ATTACHED_TYPE ? "device_type"
                      : element == EXP_DATA_SAS_ADDRESS ? "sas_address"
                                                        : "negotiated_linkrate");
        break;
    }
    case EXP_DEVICE_PORT:
        return portData(*d, element, out);
    case EXP_DEVICE_EXPANDER:
        if (element == EXP_DATA_LINK_STATUS || element == EXP_DATA_SPEED) {
            *out = "UNSUPPORT";
            return nullptr;
        }
        path = device + "sas_device/" + d->expander + "/" +
               (element == EXP_DATA_ATTACHED_TYPE ? "device_type" : "sas_address");
        break;
    }
    std::string value;
    if (!readValue(path, &value))
        return returnErrorMsg(kGetDataByID | kSystemCmdFail,
                              formatMessage("%s: %s", d->name.c_str(), quarn::systemErrorText(errno).c_str()), nullptr);
    if (element == EXP_DATA_LINK_STATUS)
        *out = convertStringToUpperCase(value).find("GBIT") != std::string::npos ? "UP" : "DOWN";
    else
        *out = value;
    return nullptr;
}

ErrorMsg* ExpanderDDAPI::portData(const ExpanderDeviceConfig& d, EXP_DATAELEMENT element, std::string* out) {
    const std::string port = kClassDirectory + d.expander + "/device/" + d.entry + "/";
    std::vector<std::string> members;
    if (quarn::listNames(port, &members) != 0)
        return returnErrorMsg(kGetDataByID | kSystemCmdFail,
                              formatMessage("%s: %s", d.name.c_str(), quarn::systemErrorText(errno).c_str()), nullptr);
    std::vector<std::string> phys;
    std::string attached;  // the device behind the port: an end device or an expander
    for (const std::string& m : members) {
        if (m.find("phy") != std::string::npos) phys.push_back(m);
        else if (attached.empty() && (m.compare(0, 10, "end_device") == 0 || m.compare(0, 8, "expander") == 0))
            attached = m;
    }
    if (element == EXP_DATA_ATTACHED_TYPE || element == EXP_DATA_SAS_ADDRESS) {
        if (attached.empty())
            return returnErrorMsg(kGetDataByID | kUnsupportedType, formatMessage("%s: nothing attached", d.name.c_str()),
                                  nullptr);
        std::string value;
        const std::string path = port + attached + "/sas_device/" + attached + "/" +
                                 (element == EXP_DATA_ATTACHED_TYPE ? "device_type" : "sas_address");
        if (!readValue(path, &value))
            return returnErrorMsg(kGetDataByID | kSystemCmdFail,
                                  formatMessage("%s: %s", d.name.c_str(), quarn::systemErrorText(errno).c_str()),
                                  nullptr);
        *out = value;
        return nullptr;
    }
    std::string speed;
    bool first = true;
    for (const std::string& phy : phys) {
        std::string rate;
        if (!readValue(port + phy + "/sas_phy/" + phy + "/negotiated_linkrate", &rate))
            return returnErrorMsg(kGetDataByID | kSystemCmdFail,
                                  formatMessage("%s %s: %s", d.name.c_str(), phy.c_str(),
                                                quarn::systemErrorText(errno).c_str()),
                                  nullptr);
        if (!first && rate != speed)
            return returnErrorMsg(kGetDataByID | kDiffPhySpeed,
                                  formatMessage("%s: %s, %s", d.name.c_str(), speed.c_str(), rate.c_str()), nullptr);
        speed = rate;
        first = false;
    }
    if (element == EXP_DATA_LINK_STATUS)
        *out = convertStringToUpperCase(speed).find("GBIT") != std::string::npos ? "UP" : "DOWN";
    else
        *out = speed;
    return nullptr;
}

ErrorMsg* ExpanderDDAPI::getErrorDataByID(unsigned int id, EXP_ERRORELEMENT element, std::string* out) {
    if (!out || element > EXP_ERROR_PHY_RESET_PROBLEM)
        return returnErrorMsg(kGetErrorDataByID | kBadParameter, formatMessage("element %u", element), nullptr);
    const ExpanderDeviceConfig* d = find(id);
    if (!d) return returnErrorMsg(kGetErrorDataByID | kUnknownID, formatMessage("ID %u", id), nullptr);
    if (d->kind != EXP_DEVICE_PHY)
        return returnErrorMsg(kGetErrorDataByID | kUnsupportedType, formatMessage("%s", d->name.c_str()), nullptr);
    static const char* const kFiles[] = {"running_disparity_error_count", "invalid_dword_count",
                                         "loss_of_dword_sync_count", "phy_reset_problem_count"};
    const std::string path =
        kClassDirectory + d->expander + "/device/" + d->entry + "/sas_phy/" + d->entry + "/" + kFiles[element];
    if (!readValue(path, out))
        return returnErrorMsg(kGetErrorDataByID | kSystemCmdFail,
                              formatMessage("%s: %s", d->name.c_str(), quarn::systemErrorText(errno).c_str()), nullptr);
    return nullptr;
}

ErrorMsg* ExpanderDDAPI::reset(unsigned int id) {
    m_resetOutput.clear();
    std::string address;
    if (ErrorMsg* e = getDataByID(id, EXP_DATA_SAS_ADDRESS, &address)) return returnErrorMsg(kReset, nullptr, e);
    const std::vector<std::string> argv = {"smp_reset_expander", "-vvvv", "-s", address, "-I", "mpt",
                                           "-a", "0xc3800200", "-d", "0x0c0b080a", "/dev/mpt3ctl"};
    std::string output;
    int status = 0;
    if (quarn::platform().runProgram(argv, &output, &status, true) != 0)
        return returnErrorMsg(kReset | kPopenFail,
                              formatMessage("smp_reset_expander: %s", quarn::systemErrorText(errno).c_str()), nullptr);
    // The reset takes the expander's link down before it can answer: the passthrough
    // ending in IOCStatus 0x8090 is the success sign; "(IOCStatus)" reports a failure.
    std::string last;
    for (const std::string& line : outputLines(output)) {
        m_resetOutput.push_back(line);
        last = line;
        if (line.find("(IOCStatus)") != std::string::npos) break;
        if (line.find("IOCStatus=0x8090") != std::string::npos) {
            last.clear();
            break;
        }
    }
    if (!last.empty()) return returnErrorMsg(kReset | kSMPFail, formatMessage("%.70s", last.c_str()), nullptr);
    return nullptr;
}

ErrorMsg* ExpanderDDAPI::clearPHYError() {
    std::string output;
    int status = 0;
    if (quarn::platform().runProgram({"EXP_Enclosure_Data.sh"}, &output, &status) != 0)
        return returnErrorMsg(kClearPHYError | kPopenFail,
                              formatMessage("EXP_Enclosure_Data.sh: %s", quarn::systemErrorText(errno).c_str()), nullptr);
    // grep "^Port ID" | awk '{printf $3 "\n"}': the third field of the first such line.
    std::string portID;
    for (const std::string& line : outputLines(output)) {
        if (line.compare(0, 7, "Port ID") != 0) continue;
        std::istringstream fields(line);
        std::string f1, f2, f3;
        fields >> f1 >> f2 >> f3;
        portID = f3.substr(0, 19);
        break;
    }
    const char* reg = portID == "1" ? "0x80" : portID == "2" ? "0x81" : nullptr;
    if (!reg) return returnErrorMsg(kClearPHYError | kSMPFail, kEnclosureCommand, nullptr);

    const std::vector<std::string> argv = {"exp_ses.sh", "0", reg, "w", "1", "1"};
    const std::string command = "exp_ses.sh 0 " + std::string(reg) + " w 1 1";
    output.clear();
    if (quarn::platform().runProgram(argv, &output, &status) != 0)
        return returnErrorMsg(kClearPHYError | kPopenFail,
                              formatMessage("exp_ses.sh: %s", quarn::systemErrorText(errno).c_str()), nullptr);
    const std::vector<std::string> lines = outputLines(output);
    if (lines.empty() || lines.front() != "RESULT: PASSED")
        return returnErrorMsg(kClearPHYError | kSESFail, command.c_str(), nullptr);
    return nullptr;
}
