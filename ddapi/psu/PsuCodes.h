// Error codes of the power-supply device layer: one function row per operation.
#pragma once

#include "api/ErrorCode.h"

namespace quarn::psu {
constexpr ERRORCODE kConstructor = 0xCD080400;
constexpr ERRORCODE kInitializeInfoFile = 0xCD080800;
constexpr ERRORCODE kIsPresent = 0xCD080C00;
constexpr ERRORCODE kGetDeviceList = 0xCD081000;
constexpr ERRORCODE kGetVendor = 0xCD081400;
constexpr ERRORCODE kGetFWVersion = 0xCD081800;
constexpr ERRORCODE kGetPartNumber = 0xCD081C00;
constexpr ERRORCODE kGetSerialNumber = 0xCD082000;
constexpr ERRORCODE kGetMaxPower = 0xCD082400;
constexpr ERRORCODE kGetFanList = 0xCD082800;
constexpr ERRORCODE kGetFanSpeed = 0xCD082C00;
constexpr ERRORCODE kGetSupportFanSpeed = 0xCD083000;
constexpr ERRORCODE kSetFanSpeed = 0xCD083400;
constexpr ERRORCODE kGetTemperatureList = 0xCD083800;
constexpr ERRORCODE kGetTemperature = 0xCD083C00;
constexpr ERRORCODE kGetThresholdList = 0xCD084000;
constexpr ERRORCODE kGetThreshold = 0xCD084400;
constexpr ERRORCODE kSetThreshold = 0xCD084800;
constexpr ERRORCODE kGetLEDList = 0xCD084C00;
constexpr ERRORCODE kGetLEDStatus = 0xCD085000;
constexpr ERRORCODE kSetLEDStatus = 0xCD085400;
constexpr ERRORCODE kGetType = 0xCD085800;
constexpr ERRORCODE kProgram = 0xCD085C00;

constexpr ERRORCODE kProgramFail = 0x03;  // "fail to program data"
constexpr ERRORCODE kBadParameter1 = 0x205;
constexpr ERRORCODE kBadParameter3 = 0x207;
constexpr ERRORCODE kBadParameter4 = 0x208;
constexpr ERRORCODE kCreateFail = 0x20F;
constexpr ERRORCODE kOpenFail = 0x215;
constexpr ERRORCODE kReadFileFail = 0x217;
constexpr ERRORCODE kNoDevice = 0x22E;
constexpr ERRORCODE kUnexpectedValue = 0x230;
constexpr ERRORCODE kNotImplemented = 0x234;
constexpr ERRORCODE kNotSupported = 0x235;
constexpr ERRORCODE kBadFormat = 0x236;
constexpr ERRORCODE kTimeOut = 0x238;
}  // namespace quarn::psu
