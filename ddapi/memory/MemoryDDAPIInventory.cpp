// Memory device layer, DIMM inventory: a DIMM's whole SPD decoded by decode-dimms, and its
// placement (locator, configured speed and voltage) from the SMBIOS memory devices.
#include <cstdio>
#include <string>
#include <vector>

#include "api/StringUtil.h"
#include "api/platform/Files.h"
#include "api/platform/Platform.h"
#include "dapi/i2c/I2CDAPI.h"
#include "ddapi/memory/DIMMInformation.h"
#include "ddapi/memory/MemoryDDAPI.h"

namespace {
constexpr ERRORCODE kBySPD = 0xC2080400;
constexpr ERRORCODE kBySMBIOS = 0xC2080800;
constexpr ERRORCODE kDecodeFail = 0x01;
constexpr ERRORCODE kDmidecodeFail = 0x02;
constexpr ERRORCODE kNotInDmidecode = 0x03;
constexpr ERRORCODE kBadParameter2 = 0x206;
constexpr ERRORCODE kOpenFileFail = 0x215;

// I2C read failures that mean nobody answered at the SPD address: an empty slot.
constexpr ERRORCODE kFunctionMask = 0xFFFC03FF;
constexpr ERRORCODE kI2cReadByteDataFail = 0xCF080006;
constexpr ERRORCODE kI2cReadBlockDataFail = 0xCF080009;

constexpr size_t kLineLimit = 127;
constexpr size_t kKeyColumns = 47;
constexpr size_t kValueColumn = 48;

bool isEmptySlot(ErrorMsg* chain) {
    for (ErrorMsg* e = chain; e; e = e->getNextErrorMsg()) {
        const ERRORCODE code = e->getErrorCode() & kFunctionMask;
        if (code == kI2cReadByteDataFail || code == kI2cReadBlockDataFail) return true;
    }
    return false;
}

// i2cdump's layout, which decode-dimms -x reads: a column header, then rows "00: xx ...".
std::string hexDump(const unsigned char* bytes, int count) {
    std::string text = "     0  1  2  3  4  5  6  7  8  9  a  b  c  d  e  f\n";
    char cell[16];
    for (int row = 0; row < count; row += 16) {
        snprintf(cell, sizeof(cell), "%02x:", row);
        text += cell;
        for (int i = row; i < row + 16 && i < count; ++i) {
            snprintf(cell, sizeof(cell), " %02x", bytes[i]);
            text += cell;
        }
        text += "\n";
    }
    return text;
}

std::string trimBlanks(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) return "";
    const size_t last = text.find_last_not_of(" \t\r\n");
    return text.substr(first, last - first + 1);
}

bool containsNoModule(const std::string& line) {
    std::string lower = line;
    for (char& c : lower) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return lower.find("no module") != std::string::npos;
}

// dmidecode 3.2 and later print SMBIOS 2.7's "Configured Clock Speed" field as
// "Configured Memory Speed", and capitalise "Configured Voltage"; both spellings are
// taken so the record is filled whichever dmidecode the system carries.
bool isClockSpeedKey(const std::string& key) {
    return key == "Configured Clock Speed" || key == "Configured Memory Speed";
}
bool isVoltageKey(const std::string& key) {
    return key == "Configured voltage" || key == "Configured Voltage";
}

// One line per memory device: its Locator, Serial Number and configured speed and
// voltage items as "key:value" joined by commas, leading tabs gone; devices reported
// as "no module" are dropped. The same lines a pipeline through awk, sed, grep and tr
// would give, built in-process so no device text ever reaches a shell.
std::vector<std::string> memoryDeviceLines(const std::string& output) {
    std::vector<std::string> records;
    std::string current;
    auto flush = [&]() {
        std::string line = current;
        const size_t comma = line.find(',');
        if (comma != std::string::npos) line.erase(comma, 1);
        std::string clean;
        for (char c : line)
            if (c != '\t') clean += c;
        if (!containsNoModule(clean)) records.push_back(clean);
        current.clear();
    };
    for (const std::string& line : quarn::splitLines(output)) {
        const size_t colon = line.find(':');
        const std::string key = trimBlanks(line.substr(0, colon));
        if (line.find("Serial Number") != std::string::npos || line.find("Locator") != std::string::npos ||
            isClockSpeedKey(key) || isVoltageKey(key)) {
            std::string value;
            if (colon != std::string::npos) {
                const size_t next = line.find(':', colon + 1);
                value = line.substr(colon + 1, next == std::string::npos ? std::string::npos : next - colon - 1);
            }
            current += "," + line.substr(0, colon) + ":" + value;
        }
        if (line.compare(0, 6, "Memory") == 0) flush();
    }
    flush();
    return records;
}
}  // namespace

ErrorMsg* MemoryDDAPI::getDIMMInformationBySPD(std::string name, DIMMInformation* info) {
    if (!info) return returnErrorMsg(kBySPD | kBadParameter2, "NULL pointer", nullptr);
    *info = DIMMInformation();
    if (!m_spdBus) {
        m_spdBus = new I2CDAPI("I2CDAPI");
        if (ErrorMsg* chain = m_spdBus->getErrorMsg()) return returnErrorMsg(kBySPD, nullptr, chain);
    }

    unsigned char bytes[512] = {0};
    int count = 0;
    if (ErrorMsg* chain = m_spdBus->Read(name.c_str(), 0, 255, bytes, &count)) {
        if (isEmptySlot(chain)) {
            deleteErrorMsg(chain);
            m_spdBus->clearErrorMsg();
            return nullptr;
        }
        return returnErrorMsg(kBySPD, nullptr, chain);
    }
    // A DDR4 SPD keeps the manufacturer, serial and part number in its second 256 bytes
    // (byte 0 bits 6-4 = 2: 512 bytes); without them decode-dimms cannot name the maker,
    // so that half is dumped as well.
    int dumped = 256;
    if (bytes[2] == 0x0C && ((bytes[0] >> 4) & 0x07) == 2) {
        if (ErrorMsg* chain = m_spdBus->Read(name.c_str(), 256, 511, bytes + 256, &count))
            return returnErrorMsg(kBySPD, nullptr, chain);
        dumped = 512;
    }

    // The name comes from the I2C profile; one that would leave /tmp is refused.
    const std::string file = "/tmp/" + name;
    if (name.empty() || name.find('/') != std::string::npos ||
        quarn::writeScratchFile(file, hexDump(bytes, dumped)) != 0)
        return returnErrorMsg(kBySPD | kOpenFileFail, file.c_str(), nullptr);

    std::string output;
    int status = 0;
    if (quarn::platform().runProgram({"decode-dimms", "-x", file}, &output, &status, false) != 0)
        return returnErrorMsg(kBySPD | kDecodeFail, nullptr, nullptr);

    for (std::string line : quarn::splitLines(output)) {
        // Lines are taken up to 127 characters; the rest of a longer line is dropped.
        if (line.size() > kLineLimit) line.resize(kLineLimit);
        if (line.find("Number of SDRAM DIMMs detected and decoded: 1") != std::string::npos) {
            info->decoded = true;
            continue;
        }
        const std::string key = line.substr(0, kKeyColumns);
        // decode-dimms pads its labels to 47 or 48 columns depending on its version; the
        // value starts after the padding and keeps its trailing blanks (part numbers).
        std::string value = line.size() > kValueColumn ? line.substr(kValueColumn) : "";
        value.erase(0, value.find_first_not_of(' '));
        while (!value.empty() && (value.back() == '\n' || value.back() == '\r')) value.pop_back();
        auto has = [&key](const char* k) { return key.find(k) != std::string::npos; };
        if (has("Fundamental Memory type")) {
            info->memoryType = value;
        } else if (has("Module Type")) {
            info->moduleType = value;
        } else if (has("Maximum module speed")) {
            // Older decode-dimms give "1200 MHz (PC4-19200)", newer "2400 MT/s (PC4-19200)".
            size_t unit = value.find("MHz");
            size_t unitLength = 3;
            if (unit == std::string::npos) {
                unit = value.find("MT/s");
                unitLength = 4;
            }
            info->speed = unit == std::string::npos ? value : value.substr(0, unit + unitLength);
        } else if (has("Size")) {
            info->size = value;
        } else if (has("Ranks")) {
            info->ranks = value;
        } else if (has("Operable voltages")) {
            info->operableVoltages.clear();
            size_t at = 0;
            while (at <= value.size()) {
                size_t comma = value.find(',', at);
                if (comma == std::string::npos) comma = value.size();
                info->operableVoltages.push_back(trimBlanks(value.substr(at, comma - at)));
                at = comma + 1;
            }
        } else if (has("Module Manufacturer")) {
            info->moduleManufacturer = value;
        } else if (has("DRAM Manufacturer")) {
            info->dramManufacturer = value;
        } else if (has("Assembly Serial Number")) {
            info->serialNumber = value.size() > 2 ? value.substr(2) : "";
        } else if (has("Part Number")) {
            info->partNumber = value;
        }
    }
    return nullptr;
}

ErrorMsg* MemoryDDAPI::getDIMMInformationBySMBIOS(DIMMInformation* info) {
    if (!info) return returnErrorMsg(kBySMBIOS | kBadParameter2, "NULL pointer", nullptr);
    std::string output;
    int status = 0;
    if (quarn::platform().runProgram({"dmidecode", "-t", "17"}, &output, &status, false) != 0)
        return returnErrorMsg(kBySMBIOS | kDmidecodeFail, nullptr, nullptr);

    // The serial number is matched as plain text; an empty one would match any device.
    std::string selected;
    bool found = false;
    if (!info->serialNumber.empty())
        for (const std::string& line : memoryDeviceLines(output))
            if (line.find(info->serialNumber) != std::string::npos) {
                selected = line;
                found = true;
                break;
            }
    if (!found) return returnErrorMsg(kBySMBIOS | kNotInDmidecode, nullptr, nullptr);

    size_t at = 0;
    while (at <= selected.size()) {
        size_t comma = selected.find(',', at);
        if (comma == std::string::npos) comma = selected.size();
        const std::string item = selected.substr(at, comma - at);
        at = comma + 1;
        const size_t colon = item.find(':');
        if (colon == std::string::npos) continue;
        const std::string key = item.substr(0, colon);
        std::string value = item.substr(colon + 1);
        value.erase(0, value.find_first_not_of(' '));
        while (!value.empty() && value.back() == '\n') value.pop_back();
        if (key == "Locator")
            info->locator = value;
        else if (isClockSpeedKey(key))
            info->configuredClockSpeed = value;
        else if (isVoltageKey(key))
            info->configuredVoltage = value;
    }
    return nullptr;
}
