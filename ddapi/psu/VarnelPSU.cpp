// The fitted supply: manufacturer registers for identity, LEDs, fan range and the
// firmware loader (status register 0xF2, data register 0xF5).
#include "ddapi/psu/VarnelPSU.h"

#include <cstdio>
#include <cstring>

#include "api/platform/Platform.h"
#include "dapi/i2c/I2CDAPI.h"
#include "ddapi/psu/PsuCodes.h"

using namespace quarn::psu;

namespace {
constexpr int kMfrId = 0x99;
constexpr int kMfrSerial = 0x9E;
constexpr int kPartNumber = 0xEE;
constexpr int kFirmwareVersion = 0xD5;
constexpr int kLedControl = 0xF1;
constexpr int kLoaderStatus = 0xF2;
constexpr int kLoaderData = 0xF5;
constexpr int kEraseTime = 0xF6;
constexpr int kFanRange = 0xF8;

// Reply buffers of the supply's registers.
constexpr int kIdentityBytes = 24;
constexpr int kVersionBytes = 16;
constexpr int kFanRangeBytes = 16;
constexpr int kEraseTimeBytes = 32;

constexpr int kStatusErase = 0x01;
constexpr int kStatusEraseBusy = 0x04;
constexpr int kStatusError = 0x80;
constexpr int kEraseChecks = 10;
constexpr int kTransferAttempts = 3;
constexpr int kImageHeader = 32;
constexpr int kBlockData = 28;

struct Led {
    const char* name;
    int bit;
    int alsoClear;  // cleared first when the LED is set
};
constexpr Led kLeds[] = {
    {"fault_led", 0x0008, 0x0004},    {"rtr_led", 0x0002, 0},        {"standby_led", 0x0020, 0x0010},
    {"fan0_fault_led", 0x0100, 0},    {"fan1_fault_led", 0x0400, 0},
};

const Led* findLed(const std::string& name) {
    for (const Led& l : kLeds)
        if (name == l.name) return &l;
    return nullptr;
}

void sleepMs(uint64_t ms) { quarn::platform().sleepMicroseconds(ms * 1000); }
}  // namespace

VarnelPSU::VarnelPSU(std::string line) {
    const size_t first = line.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) {
        addErrorMsg(kConstructor | kBadFormat, nullptr);
        return;
    }
    const size_t end = line.find_first_of(" \t\r\n", first);
    setName(line.substr(first, end == std::string::npos ? std::string::npos : end - first));
}

VarnelPSU::~VarnelPSU() = default;

ErrorMsg* VarnelPSU::readText(ERRORCODE code, int command, int capacity, int offset, int length,
                              std::string* out) {
    int data[32] = {0};
    int count = 0;
    if (ErrorMsg* e = readBytes(command, data, capacity, &count)) return returnErrorMsg(code, nullptr, e);
    std::string text;
    for (int i = offset; i < offset + length && i < capacity && i < count; ++i) {
        if (data[i] == 0) break;
        text += static_cast<char>(data[i]);
    }
    if (out) *out = text;
    return nullptr;
}

ErrorMsg* VarnelPSU::getVendor(std::string* vendor) {
    return readText(kGetVendor, kMfrId, kIdentityBytes, 3, 9, vendor);
}

ErrorMsg* VarnelPSU::getPartNumber(std::string* part) {
    return readText(kGetPartNumber, kPartNumber, kIdentityBytes, 3, 13, part);
}

ErrorMsg* VarnelPSU::getSerialNumber(std::string* serial) {
    return readText(kGetSerialNumber, kMfrSerial, kIdentityBytes, 3, 13, serial);
}

ErrorMsg* VarnelPSU::getFWVersion(std::string* version) {
    int data[kVersionBytes] = {0};
    int count = 0;
    if (ErrorMsg* e = readBytes(kFirmwareVersion, data, kVersionBytes, &count))
        return returnErrorMsg(kGetFWVersion, nullptr, e);
    std::string text;
    int i = 0;
    for (; i < kVersionBytes && i < count && data[i] != 0; ++i) text += static_cast<char>(data[i]);
    // The version is a zero-terminated text in 16 bytes; a full buffer without the zero
    // is not a version.
    if (i == kVersionBytes) return returnErrorMsg(kGetFWVersion | kUnexpectedValue, "no end of text in 16 bytes", nullptr);
    if (version) *version = text;
    return nullptr;
}

ErrorMsg* VarnelPSU::getSupportFanSpeed(std::string fan, std::list<std::string>* speeds) {
    int index = -1;
    if (fan == "fan0") index = 0;
    if (fan == "fan1") index = 1;
    if (index < 0) return returnErrorMsg(kGetSupportFanSpeed | kNoDevice, fan.c_str(), nullptr);
    int data[kFanRangeBytes] = {0};
    int count = 0;
    if (ErrorMsg* e = readBytes(kFanRange, data, kFanRangeBytes, &count))
        return returnErrorMsg(kGetSupportFanSpeed, nullptr, e);
    const uint16_t word = static_cast<uint16_t>((data[2 * index] & 0xFF) | ((data[2 * index + 1] & 0xFF) << 8));
    char text[24];
    snprintf(text, sizeof(text), "%d", static_cast<int>(quarn::psu::linear11ToDouble(word)));
    if (speeds) {
        speeds->push_back("0");
        speeds->push_back(text);
    }
    return nullptr;
}

ErrorMsg* VarnelPSU::getLEDList(std::list<std::string>* list) {
    if (list)
        for (const Led& l : kLeds) list->push_back(l.name);
    return nullptr;
}

ErrorMsg* VarnelPSU::getLEDStatus(std::string led, std::string* status) {
    const Led* l = findLed(led);
    if (!l) return returnErrorMsg(kGetLEDStatus | kNoDevice, led.c_str(), nullptr);
    uint16_t word = 0;
    if (ErrorMsg* e = readWord(kLedControl, &word)) return returnErrorMsg(kGetLEDStatus, nullptr, e);
    // The LED lines are active low.
    if (status) *status = (word & l->bit) ? "off" : "on";
    return nullptr;
}

ErrorMsg* VarnelPSU::setLEDStatus(std::string led, std::string status) {
    const Led* l = findLed(led);
    if (!l) return returnErrorMsg(kSetLEDStatus | kNoDevice, led.c_str(), nullptr);
    uint16_t word = 0;
    if (ErrorMsg* e = readWord(kLedControl, &word)) return returnErrorMsg(kSetLEDStatus, nullptr, e);
    word = static_cast<uint16_t>(word & ~l->alsoClear);
    if (status == "on")
        word = static_cast<uint16_t>(word & ~l->bit);
    else if (status == "off")
        word = static_cast<uint16_t>(word | l->bit);
    else
        return returnErrorMsg(kSetLEDStatus | kUnexpectedValue, status.c_str(), nullptr);
    if (ErrorMsg* e = writeWord(kLedControl, word)) return returnErrorMsg(kSetLEDStatus, nullptr, e);
    return nullptr;
}

ErrorMsg* VarnelPSU::readStatus(ERRORCODE code, int* status) {
    int data[1] = {0};
    int count = 0;
    if (ErrorMsg* e = readBytes(kLoaderStatus, data, 1, &count)) return returnErrorMsg(code, nullptr, e);
    *status = data[0];
    return nullptr;
}

ErrorMsg* VarnelPSU::writeStatus(ERRORCODE code, int value) {
    int data[1] = {value};
    if (ErrorMsg* e = m_i2c->Write(name.c_str(), kLoaderStatus, data, 1)) return returnErrorMsg(code, nullptr, e);
    return nullptr;
}

ErrorMsg* VarnelPSU::program(uint8_t sector, char* image, int size) {
    if (sector != 0) return returnErrorMsg(kProgram | kBadParameter1, "sector should be 0 only", nullptr);
    if (!m_i2c) return returnErrorMsg(kProgram | kCreateFail, "create I2CDAPI fail", nullptr);
    if (ErrorMsg* e = m_i2c->getErrorMsg()) return returnErrorMsg(kProgram, nullptr, e);
    if (!image) return returnErrorMsg(kProgram | kBadParameter3, "NULL pointer", nullptr);

    int timing[kEraseTimeBytes] = {0};
    int count = 0;
    if (ErrorMsg* e = readBytes(kEraseTime, timing, kEraseTimeBytes, &count)) return returnErrorMsg(kProgram, nullptr, e);
    const double eraseMs = quarn::psu::linear11ToDouble(
        static_cast<uint16_t>((timing[0] & 0xFF) | ((timing[1] & 0xFF) << 8)));

    if (ErrorMsg* e = writeStatus(kProgram, kStatusErase)) return e;
    sleepMs(eraseMs > 0 ? static_cast<uint64_t>(eraseMs) : 0);
    printf("erase flash\n");

    if (ErrorMsg* e = writeStatus(kProgram, kStatusErase | kStatusEraseBusy)) return e;
    bool erased = false;
    for (int i = 0; i < kEraseChecks && !erased; ++i) {
        sleepMs(1000);
        int status = 0;
        if (ErrorMsg* e = readStatus(kProgram, &status)) return e;
        erased = (status & kStatusEraseBusy) == 0;
    }
    if (!erased) return returnErrorMsg(kProgram | kTimeOut, "erase timeout", nullptr);

    printf("Write FW to PSU\n");
    const int total = size - kImageHeader;
    const char* data = image + kImageHeader;
    int offset = 0;
    while (offset < total) {
        printf("\r%d%%", static_cast<int>(static_cast<long long>(offset) * 100 / total));
        fflush(stdout);
        const int length = total - offset < kBlockData ? total - offset : kBlockData;
        int block[32] = {0};
        for (int b = 0; b < 4; ++b) block[b] = (static_cast<uint32_t>(offset) >> (8 * b)) & 0xFF;
        for (int i = 0; i < length; ++i) block[4 + i] = static_cast<unsigned char>(data[offset + i]);
        ErrorMsg* failure = nullptr;
        for (int attempt = 0; attempt < kTransferAttempts; ++attempt) {
            deleteErrorMsg(failure);
            failure = m_i2c->Write(name.c_str(), kLoaderData, block, length + 4);
            if (!failure) break;
        }
        if (failure) return returnErrorMsg(kProgram, nullptr, failure);
        sleepMs(1000);
        int status = 0;
        for (int attempt = 0; attempt < kTransferAttempts; ++attempt) {
            deleteErrorMsg(failure);
            failure = readStatus(kProgram, &status);
            if (!failure) break;
        }
        if (failure) return failure;
        if (status & kStatusError) {
            formatMessage("data[%d-%d]", offset + length, offset);
            return returnErrorMsg(kProgram | kProgramFail, m_message, nullptr);
        }
        offset += length;
        sleepMs(1000);
    }
    printf("\rWrite FW complete\n");
    if (ErrorMsg* e = writeStatus(kProgram, 0x00)) return e;
    sleepMs(30000);
    int status = 0;
    if (ErrorMsg* e = readStatus(kProgram, &status)) return e;
    if (status & kStatusError) return returnErrorMsg(kProgram | kProgramFail, "whole fw upgrade", nullptr);
    printf("FW upgrade is successful\n");
    sleepMs(250);
    return nullptr;
}
