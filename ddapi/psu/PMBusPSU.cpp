// Standard PMBus commands of a supply and the LINEAR11/LINEAR16 number formats.
#include "ddapi/psu/PMBusPSU.h"

#include <cmath>
#include <cstdio>
#include <new>

#include "dapi/i2c/I2CDAPI.h"
#include "ddapi/psu/PsuCodes.h"

using namespace quarn::psu;

namespace {
constexpr int kPmbusRevision = 0x98;
constexpr int kFanCommand[2] = {0x3B, 0x3C};
constexpr int kReadFanSpeed[2] = {0x90, 0x91};
constexpr int kReadTemperature[2] = {0x8D, 0x8E};
constexpr int kOverTempFaultLimit = 0x4F;
constexpr int kUnderTempFaultLimit = 0x53;
constexpr int kMfrPoutMax = 0xA7;

// 0 or 1 for "<kind>0"/"<kind>1", else -1.
int itemIndex(const std::string& item, const char* kind) {
    const std::string k(kind);
    if (item == k + "0") return 0;
    if (item == k + "1") return 1;
    return -1;
}

int thresholdCommand(const std::string& item) {
    if (item == "over_temp_threshold") return kOverTempFaultLimit;
    if (item == "under_temp_threshold") return kUnderTempFaultLimit;
    return -1;
}
}  // namespace

namespace quarn::psu {

double linear11ToDouble(uint16_t word) {
    int exponent = (word >> 11) & 0x1F;
    if (exponent & 0x10) exponent -= 0x20;
    int mantissa = word & 0x7FF;
    if (mantissa & 0x400) mantissa -= 0x800;
    return std::ldexp(static_cast<double>(mantissa), exponent);
}

uint16_t floatToLinear11(float value) {
    const double x = value;
    double bestError = std::fabs(x);
    int bestN = 0;
    long bestY = 0;
    // A later candidate wins only with a strictly smaller error; an exact one ends it.
    auto consider = [&](int n, double y) {
        const double error = std::fabs(x - std::ldexp(y, n));
        if (error < bestError) {
            bestError = error;
            bestN = n;
            bestY = static_cast<long>(y);
        }
        return error == 0.0;
    };
    if (!std::isfinite(x)) return 0;
    if (x >= 1.0) {
        for (int n = 0; n <= 15 && std::ldexp(1.0, n) <= x; ++n) {
            const double y = std::trunc(x / std::ldexp(1.0, n));
            if (y >= 1024.0) continue;
            if (consider(n, y)) break;
        }
    } else if (x >= 0.0) {
        for (int k = 15; k >= 1; --k) {
            if (x < std::ldexp(1.0, -k)) break;
            const double y = std::trunc(x * std::ldexp(1.0, k));
            if (y < 1.0 || y > 1023.0) continue;
            if (consider(-k, y)) break;
        }
    } else if (x <= -1.0) {
        for (int n = 0; n <= 15 && std::ldexp(1.0, n) <= -x; ++n) {
            const double y = std::trunc(x / std::ldexp(1.0, n));
            if (y < -1024.0) continue;
            if (consider(n, y)) break;
        }
    } else {
        for (int k = 15; k >= 1; --k) {
            if (-x < std::ldexp(1.0, -k)) break;
            const double y = std::trunc(x * std::ldexp(1.0, k));
            if (y < -1024.0 || y > -1.0) continue;
            if (consider(-k, y)) break;
        }
    }
    return static_cast<uint16_t>(((bestN & 0x1F) << 11) | (bestY & 0x7FF));
}

double linear16ToDouble(uint16_t word, uint8_t voutMode) {
    int exponent = voutMode & 0x1F;
    if (exponent & 0x10) exponent -= 0x20;
    return std::ldexp(static_cast<double>(word), exponent);
}

}  // namespace quarn::psu

PMBusPSU::PMBusPSU() {
    m_i2c = new (std::nothrow) I2CDAPI("I2CDAPI");
    if (!m_i2c) {
        addErrorMsg(kConstructor | kCreateFail, "create I2CDAPI fail");
        return;
    }
    if (ErrorMsg* e = m_i2c->getErrorMsg()) addErrorMsg(kConstructor | kCreateFail, "create I2CDAPI fail", e);
}

PMBusPSU::~PMBusPSU() = default;

ErrorMsg* PMBusPSU::readBytes(int command, int* data, int capacity, int* count) {
    *count = 0;
    if (!m_i2c) return returnErrorMsg(kConstructor | kCreateFail, "create I2CDAPI fail", nullptr);
    return m_i2c->Read(name.c_str(), command, command, data, count, capacity);
}

ErrorMsg* PMBusPSU::readWord(int command, uint16_t* word) {
    int data[1] = {0};
    int count = 0;
    if (ErrorMsg* e = readBytes(command, data, 1, &count)) return e;
    *word = static_cast<uint16_t>(data[0] & 0xFFFF);
    return nullptr;
}

ErrorMsg* PMBusPSU::writeWord(int command, uint16_t word) {
    if (!m_i2c) return returnErrorMsg(kConstructor | kCreateFail, "create I2CDAPI fail", nullptr);
    int data[2] = {(word >> 8) & 0xFF, word & 0xFF};  // the word protocol's order
    return m_i2c->Write(name.c_str(), command, data, 2);
}

ErrorMsg* PMBusPSU::getFanList(std::list<std::string>* list) {
    if (list) {
        list->push_back("fan0");
        list->push_back("fan1");
    }
    return nullptr;
}

ErrorMsg* PMBusPSU::getTemperatureList(std::list<std::string>* list) {
    if (list) {
        list->push_back("temp0");
        list->push_back("temp1");
    }
    return nullptr;
}

ErrorMsg* PMBusPSU::getTemperatureThresholdList(std::list<std::string>* list) {
    if (list) {
        list->push_back("over_temp_threshold");
        list->push_back("under_temp_threshold");
    }
    return nullptr;
}

ErrorMsg* PMBusPSU::getType(std::string* type) {
    if (type) *type = "PMBus";
    return nullptr;
}

ErrorMsg* PMBusPSU::getFanSpeed(std::string fan, int* speed) {
    const int i = itemIndex(fan, "fan");
    if (i < 0) return returnErrorMsg(kGetFanSpeed | kNoDevice, fan.c_str(), nullptr);
    uint16_t word = 0;
    if (ErrorMsg* e = readWord(kReadFanSpeed[i], &word)) return returnErrorMsg(kGetFanSpeed, nullptr, e);
    if (speed) *speed = static_cast<int>(linear11ToDouble(word));
    return nullptr;
}

ErrorMsg* PMBusPSU::setFanSpeed(std::string fan, int speed) {
    const int i = itemIndex(fan, "fan");
    if (i < 0) return returnErrorMsg(kSetFanSpeed | kNoDevice, fan.c_str(), nullptr);
    if (ErrorMsg* e = writeWord(kFanCommand[i], floatToLinear11(static_cast<float>(speed))))
        return returnErrorMsg(kSetFanSpeed, nullptr, e);
    return nullptr;
}

ErrorMsg* PMBusPSU::getTemperature(std::string sensor, float* value) {
    const int i = itemIndex(sensor, "temp");
    if (i < 0) return returnErrorMsg(kGetTemperature | kNoDevice, sensor.c_str(), nullptr);
    uint16_t word = 0;
    if (ErrorMsg* e = readWord(kReadTemperature[i], &word)) return returnErrorMsg(kGetTemperature, nullptr, e);
    if (value) *value = static_cast<float>(linear11ToDouble(word));
    return nullptr;
}

ErrorMsg* PMBusPSU::getTemperatureThreshold(std::string threshold, float* value) {
    const int command = thresholdCommand(threshold);
    if (command < 0) return returnErrorMsg(kGetThreshold | kNoDevice, threshold.c_str(), nullptr);
    uint16_t word = 0;
    if (ErrorMsg* e = readWord(command, &word)) return returnErrorMsg(kGetThreshold, nullptr, e);
    if (value) *value = static_cast<float>(linear11ToDouble(word));
    return nullptr;
}

ErrorMsg* PMBusPSU::setTemperatureThreshold(std::string threshold, float value) {
    const int command = thresholdCommand(threshold);
    if (command < 0) return returnErrorMsg(kSetThreshold | kNoDevice, threshold.c_str(), nullptr);
    if (ErrorMsg* e = writeWord(command, floatToLinear11(value))) return returnErrorMsg(kSetThreshold, nullptr, e);
    return nullptr;
}

ErrorMsg* PMBusPSU::getMaxPower(std::string* power) {
    uint16_t word = 0;
    if (ErrorMsg* e = readWord(kMfrPoutMax, &word)) return returnErrorMsg(kGetMaxPower, nullptr, e);
    char text[24];
    snprintf(text, sizeof(text), "%d", static_cast<int>(linear11ToDouble(word)));
    if (power) *power = text;
    return nullptr;
}

ErrorMsg* PMBusPSU::isPresent(bool* present) {
    if (present) *present = false;
    int data[1] = {0};
    int count = 0;
    // A supply that does not answer is simply not fitted.
    if (ErrorMsg* e = readBytes(kPmbusRevision, data, 1, &count)) {
        deleteErrorMsg(e);
        return nullptr;
    }
    const int revision = data[0];
    if (revision != 0x00 && revision != 0x11 && revision != 0x22) {
        formatMessage("PMBUS_REVISION 0x%02x", revision & 0xFF);
        return returnErrorMsg(kIsPresent | kUnexpectedValue, m_message, nullptr);
    }
    if (present) *present = true;
    return nullptr;
}
