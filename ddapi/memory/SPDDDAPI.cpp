// SPD device layer: reads single SPD fields through the I2C diagnostic object and decodes
// them after the JEDEC DDR3 and DDR4 layouts and the JEP106 manufacturer list.
#include "ddapi/memory/SPDDDAPI.h"

#include <cstring>

#include "api/StringUtil.h"
#include "dapi/i2c/I2CDAPI.h"
#include "ddapi/memory/JEP106.h"

namespace {
constexpr ERRORCODE kConstructor = 0xD1080400;
constexpr ERRORCODE kGetDeviceList = 0xD1080800;
constexpr ERRORCODE kGetDeviceType = 0xD1080C00;
constexpr ERRORCODE kGetModuleType = 0xD1081000;
constexpr ERRORCODE kGetSize = 0xD1081400;
constexpr ERRORCODE kGetSpeed = 0xD1081800;
constexpr ERRORCODE kGetRankCount = 0xD1081C00;
constexpr ERRORCODE kGetPartNumber = 0xD1082000;
constexpr ERRORCODE kGetSerialNumber = 0xD1082400;
constexpr ERRORCODE kGetDRAMVendor = 0xD1082800;
constexpr ERRORCODE kGetModuleVendor = 0xD1082C00;

constexpr ERRORCODE kNoSpdDevice = 0x01;
constexpr ERRORCODE kUnknownVendor = 0x02;
constexpr ERRORCODE kBadParameter = 0x204;
constexpr ERRORCODE kBadParameter2 = 0x206;
constexpr ERRORCODE kUnexpectedValue = 0x230;

// Field offsets: DDR3, DDR4.
constexpr int kDeviceType = 2;
constexpr int kModuleType = 3;
constexpr int kDensity = 4;
constexpr int kPackageDdr4 = 6;
constexpr int kOrganisation[2] = {7, 12};
constexpr int kBusWidth[2] = {8, 13};
constexpr int kCycleTime[2] = {12, 18};
constexpr int kModuleVendor[2] = {117, 320};
constexpr int kDramVendor[2] = {148, 350};
constexpr int kSerial[2] = {122, 325};
constexpr int kPartFirst[2] = {128, 329};
constexpr int kPartLast[2] = {145, 348};

int layout(DDRType type) { return type == DDR4 ? 1 : 0; }

std::string hexField(const char* head, unsigned int value) {
    return std::string(head) + Int2HexStr(value, 2) + ")";
}
}  // namespace

SPDDDAPI::SPDDDAPI() : BaseClassDDAPI("SPDDDAPI"), m_i2c(new I2CDAPI("I2CDAPI")) {
    if (ErrorMsg* chain = m_i2c->getErrorMsg()) addErrorMsg(kConstructor, nullptr, chain);
}

SPDDDAPI::~SPDDDAPI() { delete m_i2c; }

ErrorMsg* SPDDDAPI::readField(ERRORCODE function, const std::string& name, int first, int last,
                              unsigned char* bytes) {
    memset(bytes, 0, static_cast<size_t>(last - first + 1));
    int count = 0;
    if (ErrorMsg* chain = m_i2c->Read(name.c_str(), first, last, bytes, &count))
        return returnErrorMsg(function, nullptr, chain);
    return nullptr;
}

ErrorMsg* SPDDDAPI::getDeviceList(std::list<std::string>* names, bool checkType) {
    if (!names) return returnErrorMsg(kGetDeviceList | kBadParameter, "NULL pointer", nullptr);
    names->clear();
    std::list<std::string> all;
    if (ErrorMsg* chain = m_i2c->DisplayI2cDevicesList(&all))
        return returnErrorMsg(kGetDeviceList, nullptr, chain);
    for (const std::string& line : all) {
        if (line.find("spd") == std::string::npos) continue;
        const std::string name = line.substr(0, line.find(' '));
        if (checkType) {
            DDRType type;
            if (ErrorMsg* chain = getDeviceType(name, &type)) {
                deleteErrorMsg(chain);
                continue;
            }
        }
        names->push_back(name);
    }
    if (names->empty()) return returnErrorMsg(kGetDeviceList | kNoSpdDevice, nullptr, nullptr);
    return nullptr;
}

ErrorMsg* SPDDDAPI::getDeviceType(std::string name, DDRType* type) {
    if (!type) return returnErrorMsg(kGetDeviceType | kBadParameter2, "NULL pointer", nullptr);
    unsigned char value = 0;
    if (ErrorMsg* chain = readField(kGetDeviceType, name, kDeviceType, kDeviceType, &value)) return chain;
    if (value != DDR3 && value != DDR4)
        return returnErrorMsg(kGetDeviceType | kUnexpectedValue, "unknown device", nullptr);
    *type = static_cast<DDRType>(value);
    return nullptr;
}

ErrorMsg* SPDDDAPI::readTyped(ERRORCODE function, const std::string& name, int ddr3First, int ddr3Last,
                              int ddr4First, int ddr4Last, unsigned char* bytes, DDRType* type) {
    DDRType ddr = DDR4;
    if (ErrorMsg* chain = getDeviceType(name, &ddr)) return returnErrorMsg(function, nullptr, chain);
    if (type) *type = ddr;
    return ddr == DDR4 ? readField(function, name, ddr4First, ddr4Last, bytes)
                       : readField(function, name, ddr3First, ddr3Last, bytes);
}

ErrorMsg* SPDDDAPI::getModuleType(std::string name, std::string* type) {
    if (!type) return returnErrorMsg(kGetModuleType | kBadParameter2, "NULL pointer", nullptr);
    unsigned char value = 0;
    if (ErrorMsg* chain = readField(kGetModuleType, name, kModuleType, kModuleType, &value)) return chain;
    switch (value) {
        case 1: *type = "Registered DIMM"; break;
        case 2: *type = "Unbuffered DIMM"; break;
        case 3: *type = "Unbuffered SO-DIMM (64b)"; break;
        case 4: *type = "Load Reduced DIMM"; break;
        case 5: *type = "Mini Registered DIMM"; break;
        case 6: *type = "Mini Unbuffered DIMM"; break;
        case 8: *type = "Registered SO-DIMM"; break;
        case 9: *type = "Unbuffered SO-DIMM (72b)"; break;
        case 12: *type = "Unbuffered SO-DIMM (16b)"; break;
        case 13: *type = "Unbuffered SO-DIMM (32b)"; break;
        default: return returnErrorMsg(kGetModuleType | kUnexpectedValue, "unknown module", nullptr);
    }
    return nullptr;
}

ErrorMsg* SPDDDAPI::getSize(std::string name, unsigned long long* bytes) {
    if (!bytes) return returnErrorMsg(kGetSize | kBadParameter2, "NULL pointer", nullptr);
    DDRType type = DDR4;
    unsigned char density = 0;
    if (ErrorMsg* chain = readTyped(kGetSize, name, kDensity, kDensity, kDensity, kDensity, &density, &type))
        return chain;
    const int l = layout(type);
    unsigned char organisation = 0, busWidth = 0, package = 0;
    if (ErrorMsg* chain = readField(kGetSize, name, kOrganisation[l], kOrganisation[l], &organisation)) return chain;
    if (ErrorMsg* chain = readField(kGetSize, name, kBusWidth[l], kBusWidth[l], &busWidth)) return chain;
    if (type == DDR4)
        if (ErrorMsg* chain = readField(kGetSize, name, kPackageDdr4, kPackageDdr4, &package)) return chain;

    const unsigned int d = density & 0x0F;
    if (d > (type == DDR4 ? 7u : 6u))
        return returnErrorMsg(kGetSize | kUnexpectedValue, hexField("unknown SDRAM u32Capacity (0x", d).c_str(),
                              nullptr);
    const unsigned int widthCode = busWidth & 0x07;
    if (widthCode > 3)
        return returnErrorMsg(kGetSize | kUnexpectedValue, hexField("unknown bus width(0x", widthCode).c_str(),
                              nullptr);
    const unsigned int deviceCode = organisation & 0x07;
    if (deviceCode > 3)
        return returnErrorMsg(kGetSize | kUnexpectedValue,
                              hexField("unknown SDRAM device width(0x", deviceCode).c_str(), nullptr);
    const unsigned int rankField = (organisation >> 3) & 0x07;
    if (rankField > 3)
        return returnErrorMsg(kGetSize | kUnexpectedValue,
                              hexField("unknown number of ranks(0x", rankField).c_str(), nullptr);
    const unsigned long long capacityMbit = 256ULL << d;
    const unsigned long long w = 8ULL << widthCode;
    const unsigned long long v = 4ULL << deviceCode;
    unsigned long long ranks = rankField + 1;
    if (type == DDR4 && (package & 0x80) && (package & 0x03) == 2) {
        // 3DS: each package rank holds a stack of dies, each one logical rank.
        if (ranks > 2)
            return returnErrorMsg(kGetSize | kUnexpectedValue, "unexpected number of ranks for 3DS", nullptr);
        ranks *= ((package >> 4) & 0x07) + 1;
    }
    *bytes = (capacityMbit / 8) * (w / v) * ranks * (1ULL << 20);
    return nullptr;
}

ErrorMsg* SPDDDAPI::getSpeed(std::string name, unsigned int* mts) {
    if (!mts) return returnErrorMsg(kGetSpeed | kBadParameter2, "NULL pointer", nullptr);
    DDRType type = DDR4;
    unsigned char value = 0;
    if (ErrorMsg* chain = readTyped(kGetSpeed, name, kCycleTime[0], kCycleTime[0], kCycleTime[1], kCycleTime[1],
                                    &value, &type))
        return chain;
    unsigned int speed = 0;
    if (type == DDR3) {
        switch (value) {
            case 8: speed = 2133; break;
            case 9: speed = 1866; break;
            case 10: speed = 1600; break;
            case 12: speed = 1333; break;
            case 15: speed = 1066; break;
            case 20: speed = 800; break;
        }
    } else {
        switch (value) {
            case 5: speed = 3200; break;
            case 6: speed = 2666; break;
            case 7: speed = 2400; break;
            case 8: speed = 2133; break;
            case 9: speed = 1866; break;
            case 10: speed = 1600; break;
        }
    }
    if (!speed)
        return returnErrorMsg(kGetSpeed | kUnexpectedValue, hexField("unknown speed(0x", value).c_str(), nullptr);
    *mts = speed;
    return nullptr;
}

ErrorMsg* SPDDDAPI::getRankCount(std::string name, unsigned int* ranks) {
    if (!ranks) return returnErrorMsg(kGetRankCount | kBadParameter2, "NULL pointer", nullptr);
    unsigned char organisation = 0;
    if (ErrorMsg* chain = readTyped(kGetRankCount, name, kOrganisation[0], kOrganisation[0], kOrganisation[1],
                                    kOrganisation[1], &organisation))
        return chain;
    const unsigned int field = (organisation >> 3) & 0x07;
    if (field >= 4)
        return returnErrorMsg(kGetRankCount | kUnexpectedValue, hexField("unknown number of ranks(", field).c_str(),
                              nullptr);
    *ranks = field + 1;
    return nullptr;
}

ErrorMsg* SPDDDAPI::getPartNumber(std::string name, std::string* text) {
    if (!text) return returnErrorMsg(kGetPartNumber | kBadParameter2, "NULL pointer", nullptr);
    unsigned char part[21] = {0};
    if (ErrorMsg* chain =
            readTyped(kGetPartNumber, name, kPartFirst[0], kPartLast[0], kPartFirst[1], kPartLast[1], part))
        return chain;
    // The buffer keeps a NUL behind the longest (DDR4, 20-byte) field.
    *text = reinterpret_cast<const char*>(part);
    return nullptr;
}

ErrorMsg* SPDDDAPI::getSerialNumber(std::string name, std::string* text) {
    if (!text) return returnErrorMsg(kGetSerialNumber | kBadParameter2, "NULL pointer", nullptr);
    unsigned char serial[4];
    if (ErrorMsg* chain =
            readTyped(kGetSerialNumber, name, kSerial[0], kSerial[0] + 3, kSerial[1], kSerial[1] + 3, serial))
        return chain;
    text->clear();
    for (unsigned char byte : serial) *text += Int2HexStr(byte, 2);
    return nullptr;
}

ErrorMsg* SPDDDAPI::getVendor(ERRORCODE function, const std::string& name, int ddr3First, int ddr4First,
                              std::string* text) {
    if (!text) return returnErrorMsg(function | kBadParameter2, "NULL pointer", nullptr);
    unsigned char id[2];
    if (ErrorMsg* chain = readTyped(function, name, ddr3First, ddr3First + 1, ddr4First, ddr4First + 1, id))
        return chain;
    // Bit 7 of both bytes is odd parity.
    const unsigned int bank = id[0] & 0x7F;
    const unsigned int code = id[1] & 0x7F;
    if (bank >= static_cast<unsigned int>(quarn::spd::kJep106Banks))
        return returnErrorMsg(function | kUnexpectedValue, hexField("unsupported bank index(0x", bank).c_str(),
                              nullptr);
    if (code == 0)
        return returnErrorMsg(function | kUnexpectedValue, "manufacture id should not be 0", nullptr);
    const char* vendor = quarn::spd::kJep106[bank][code - 1];
    if (!vendor) return returnErrorMsg(function | kUnknownVendor, nullptr, nullptr);
    *text = vendor;
    return nullptr;
}

ErrorMsg* SPDDDAPI::getDRAMVendor(std::string name, std::string* text) {
    return getVendor(kGetDRAMVendor, name, kDramVendor[0], kDramVendor[1], text);
}

ErrorMsg* SPDDDAPI::getModuleVendor(std::string name, std::string* text) {
    return getVendor(kGetModuleVendor, name, kModuleVendor[0], kModuleVendor[1], text);
}
