// A supply speaking standard PMBus: readings and limits in the LINEAR11 format,
// presence from PMBUS_REVISION, fan and temperature commands.
#pragma once

#include <cstdint>

#include "ddapi/psu/BaseClassPSUDDAPI.h"

namespace quarn::psu {
// LINEAR11: bits 15-11 a two's-complement exponent N, bits 10-0 a two's-complement
// mantissa Y; value = Y x 2^N.
QUARN_EXPORT double linear11ToDouble(uint16_t word);
// The closest LINEAR11 word to x (the search of the PMBus encoder: the first candidate
// with the smallest error wins, an exact one ends the search).
QUARN_EXPORT uint16_t floatToLinear11(float x);
// LINEAR16 (output voltages): an unsigned 16-bit mantissa scaled by the five-bit
// two's-complement exponent in the low bits of VOUT_MODE.
QUARN_EXPORT double linear16ToDouble(uint16_t word, uint8_t voutMode);
}  // namespace quarn::psu

class QUARN_EXPORT PMBusPSU : public BaseClassPSUDDAPI {
public:
    PMBusPSU();
    ~PMBusPSU() override;

    ErrorMsg* getFanList(std::list<std::string>* list) override;
    ErrorMsg* getFanSpeed(std::string fan, int* speed) override;
    ErrorMsg* getMaxPower(std::string* power) override;
    ErrorMsg* getTemperature(std::string sensor, float* value) override;
    ErrorMsg* getTemperatureList(std::list<std::string>* list) override;
    ErrorMsg* getTemperatureThreshold(std::string threshold, float* value) override;
    ErrorMsg* getTemperatureThresholdList(std::list<std::string>* list) override;
    ErrorMsg* getType(std::string* type) override;
    ErrorMsg* isPresent(bool* present) override;
    ErrorMsg* setFanSpeed(std::string fan, int speed) override;
    ErrorMsg* setTemperatureThreshold(std::string threshold, float value) override;

protected:
    // One 16-bit register (SMBus word) of this supply.
    ErrorMsg* readWord(int command, uint16_t* word);
    ErrorMsg* writeWord(int command, uint16_t word);
    // Bytes of a block register into a buffer of capacity ints; *count set.
    ErrorMsg* readBytes(int command, int* data, int capacity, int* count);
};
