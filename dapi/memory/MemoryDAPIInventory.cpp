// Memory diagnostic layer, DIMM inventory: the DIMM list with socket, channel, rank and
// address numbering, single DIMMs decoded from their SPD, and DIMMs the firmware disabled.
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "api/StringUtil.h"
#include "api/platform/Files.h"
#include "api/platform/Platform.h"
#include "dapi/i2c/I2CDAPI.h"
#include "dapi/memory/MemoryDAPI.h"
#include "ddapi/memory/SPDDDAPI.h"

namespace {
constexpr ERRORCODE kGetInformation = 0xC2040800;
constexpr ERRORCODE kGetDeviceList = 0xC2045400;
constexpr ERRORCODE kCheckDeviceBySMBIOS = 0xC2046400;
constexpr ERRORCODE kNoSpdInformation = 0x01;
constexpr ERRORCODE kNoDimmInformation = 0x02;
constexpr ERRORCODE kBadParameter = 0x204;
constexpr ERRORCODE kBadParameter2 = 0x206;
constexpr ERRORCODE kOpenFileFail = 0x215;

const char kMcInfo[] = "/opt/veltrax/quarn/etc/mc_info";
constexpr size_t kMcInfoLine = 31;

std::string upper(std::string text) {
    for (char& c : text) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    return text;
}

// The leading decimal number of text, 0 when there is none.
unsigned long long leadingNumber(const std::string& text, int base) {
    const char* begin = text.c_str();
    char* end = nullptr;
    const long long value = strtoll(begin, &end, base);
    return end == begin || value < 0 ? 0 : static_cast<unsigned long long>(value);
}
}  // namespace

ErrorMsg* MemoryDAPI::getInformation(std::string name, DIMMInformation* info) {
    if (!info) return returnErrorMsg(kGetInformation | kBadParameter2, "NULL pointer", nullptr);
    SPDDDAPI spd;
    if (ErrorMsg* chain = spd.getErrorMsg()) return returnErrorMsg(kGetInformation, nullptr, chain);
    const std::string device = "spd-" + name;

    DDRType type;
    std::string moduleType, moduleVendor, dramVendor, part, serial;
    unsigned long long bytes = 0;
    unsigned int ranks = 0, speed = 0;
    ErrorMsg* chain = spd.getDeviceType(device, &type);
    if (!chain) chain = spd.getModuleType(device, &moduleType);
    if (!chain) chain = spd.getSize(device, &bytes);
    if (!chain) chain = spd.getRankCount(device, &ranks);
    if (!chain) chain = spd.getSpeed(device, &speed);
    if (!chain) chain = spd.getModuleVendor(device, &moduleVendor);
    if (!chain) chain = spd.getDRAMVendor(device, &dramVendor);
    if (!chain) chain = spd.getPartNumber(device, &part);
    if (!chain) chain = spd.getSerialNumber(device, &serial);
    if (chain) return returnErrorMsg(kGetInformation, nullptr, chain);

    char text[32];
    info->memoryType = type == DDR3 ? "DDR3" : "DDR4";
    info->moduleType = moduleType;
    snprintf(text, sizeof(text), "%llu", bytes >> 20);
    info->size = std::string(text) + " MB";
    snprintf(text, sizeof(text), "%u", ranks);
    info->ranks = text;
    snprintf(text, sizeof(text), "%u", speed);
    info->speed = std::string(text) + " MHz";
    info->moduleManufacturer = moduleVendor;
    info->dramManufacturer = dramVendor;
    info->partNumber = part;
    info->serialNumber = serial;
    return nullptr;
}

ErrorMsg* MemoryDAPI::getDeviceList(std::list<std::string>* names, bool checkBIOS) {
    if (!names) return returnErrorMsg(kGetDeviceList | kBadParameter, "NULL pointer", nullptr);
    names->clear();
    SPDDDAPI spd;
    if (ErrorMsg* chain = spd.getErrorMsg()) {
        addErrorMsg(kGetDeviceList, nullptr, chain);
        return getErrorMsg();
    }
    if (ErrorMsg* chain = spd.getDeviceList(names, checkBIOS)) {
        addErrorMsg(kGetDeviceList, nullptr, chain);
        return getErrorMsg();
    }
    // spd-dimm1 is DIMM dimm1.
    for (std::string& name : *names) name.erase(0, name.size() < 4 ? name.size() : 4);
    if (checkBIOS)
        if (ErrorMsg* chain = checkDeviceBySMBIOS(names)) return returnErrorMsg(kGetDeviceList, nullptr, chain);
    return nullptr;
}

ErrorMsg* MemoryDAPI::checkDeviceBySMBIOS(std::list<std::string>* names) {
    if (!names) return returnErrorMsg(kCheckDeviceBySMBIOS | kBadParameter, "NULL pointer", nullptr);
    std::string output;
    int status = 0;
    if (quarn::platform().runProgram({"dmidecode", "-t", "17"}, &output, &status, false) != 0)
        return returnErrorMsg(kCheckDeviceBySMBIOS | kOpenFileFail, "dmidecode -t 17", nullptr);
    // The second blank-separated word of every line naming a size, in SMBIOS order.
    std::vector<std::string> sizes;
    for (const std::string& line : quarn::splitLines(output)) {
        if (line.find("Size") == std::string::npos) continue;
        const size_t first = line.find_first_not_of(" \t");
        const size_t gap = first == std::string::npos ? first : line.find_first_of(" \t", first);
        const size_t second = gap == std::string::npos ? gap : line.find_first_not_of(" \t", gap);
        if (second == std::string::npos) {
            sizes.emplace_back();
            continue;
        }
        const size_t end = line.find_first_of(" \t", second);
        sizes.push_back(line.substr(second, end == std::string::npos ? std::string::npos : end - second));
    }
    // dimmN is checked against the N-th memory device counted from 1.
    for (std::string& name : *names) {
        int n = 0;
        if (sscanf(name.c_str(), "dimm%d", &n) != 1 || n < 1 || static_cast<size_t>(n) > sizes.size()) continue;
        const std::string& size = sizes[static_cast<size_t>(n) - 1];
        if (size == "No" || size == "0") name += "(disabled by BIOS)";
    }
    return nullptr;
}

ErrorMsg* MemoryDAPI::getInformation(std::list<DIMMInformation>* list) {
    if (!list) return returnErrorMsg(kGetInformation | kBadParameter2, "NULL pointer", nullptr);
    if (!m_dimms.empty()) {
        *list = m_dimms;
        return nullptr;
    }

    // The memory-controller description: where the controller sits and its channels.
    std::string mcInfo;
    if (quarn::readTextFile(kMcInfo, &mcInfo) != 0)
        return returnErrorMsg(kGetInformation | kOpenFileFail, kMcInfo, nullptr);
    bool integrated = false;
    int channels = 0;
    for (std::string line : quarn::splitLines(mcInfo)) {
        if (line.size() > kMcInfoLine) line.resize(kMcInfoLine);
        const size_t eq = line.find('=');
        if (eq == std::string::npos) continue;
        const std::string key = line.substr(0, eq);
        const std::string value = line.substr(eq + 1);
        if (key == "CPU_INTEGRATED") integrated = value.find("TRUE") != std::string::npos;
        if (key == "CHANNEL_NUM") channels = atoi(value.c_str());
    }

    I2CDAPI i2c("I2CDAPI");
    if (ErrorMsg* chain = i2c.getErrorMsg()) return returnErrorMsg(kGetInformation, nullptr, chain);
    std::list<std::string> devices;
    if (ErrorMsg* chain = i2c.DisplayI2cDevicesList(&devices)) return returnErrorMsg(kGetInformation, nullptr, chain);
    // The profile reader lower-cases device names, so "DIMM" and "SPD" are matched
    // without regard to case.
    std::vector<std::string> spdNames;
    for (const std::string& line : devices) {
        const std::string name = line.substr(0, line.find(' '));
        const std::string key = upper(name);
        if (key.find("DIMM") != std::string::npos && key.find("SPD") != std::string::npos) spdNames.push_back(name);
    }
    if (spdNames.empty()) return returnErrorMsg(kGetInformation | kNoSpdInformation, nullptr, nullptr);
    initProgress(spdNames.size());

    std::string machine;
    int status = 0;
    if (quarn::platform().runProgram({"uname", "-m"}, &machine, &status, false) == 0 &&
        machine.substr(0, 7).find("x86") != std::string::npos) {
        std::string cpuinfo;
        if (quarn::readTextFile("/proc/cpuinfo", &cpuinfo) != 0) {
            initProgress(0);
            return returnErrorMsg(kGetInformation | kOpenFileFail, "/proc/cpuinfo", nullptr);
        }
        std::set<std::string> sockets;
        for (const std::string& line : quarn::splitLines(cpuinfo))
            if (line.find("physical id") != std::string::npos) sockets.insert(line);
        m_socketCount = static_cast<int>(sockets.size());
    }

    // Numbering. A geometry that cannot be divided by (no CHANNEL_NUM, no socket, fewer
    // DIMMs than channels) leaves socket and channel at -1 and numbers each DIMM's ranks
    // from 0: the DIMMs are still listed with their sizes and address ranges.
    const int n = static_cast<int>(spdNames.size());
    const int sockets = m_socketCount;
    int slotsPerChannel = 0;
    if (channels > 0 && sockets > 0) slotsPerChannel = integrated ? (n / sockets) / channels : n / channels;
    const bool numbered = slotsPerChannel > 0;
    const int dimmsPerSocket = channels * slotsPerChannel;
    int socket = integrated && numbered ? 0 : -1;
    int channel = numbered ? 0 : -1;
    unsigned long long address = 0;
    int rankTotal = 0;
    int count = 0;
    bool anyDecoded = false;

    for (const std::string& name : spdNames) {
        DIMMInformation record;
        if (ErrorMsg* chain = m_device->getDIMMInformationBySPD(name, &record)) {
            m_dimms.clear();
            initProgress(0);
            return returnErrorMsg(kGetInformation, nullptr, chain);
        }
        record.dimmIndex = count;
        record.socketIndex = socket;
        record.channelIndex = channel;
        if (record.decoded) {
            anyDecoded = true;
            record.start = address;
            address += leadingNumber(record.size, 10) << 20;
            record.end = address;
            record.firstRank = rankTotal;
            rankTotal += static_cast<int>(leadingNumber(record.ranks, 0));
            record.lastRank = rankTotal - 1;
        }
        m_dimms.push_back(record);
        ++count;
        if (!numbered) {
            rankTotal = 0;
        } else if (count % slotsPerChannel == 0) {
            rankTotal = 0;
            if (count % dimmsPerSocket == 0) {
                ++socket;
                channel = 0;
            } else {
                ++channel;
            }
        }
        updateProgress(1);
    }
    if (!anyDecoded) {
        m_dimms.clear();
        return returnErrorMsg(kGetInformation | kNoDimmInformation, nullptr, nullptr);
    }
    *list = m_dimms;
    return nullptr;
}
