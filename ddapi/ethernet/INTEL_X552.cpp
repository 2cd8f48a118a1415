// Intel X552 (KR backplane) driver.
#include "ddapi/ethernet/INTEL_X552.h"

namespace {
constexpr uint32_t kMagic = 0x15AB8086;
constexpr ERRORCODE kSendIoctl = 0xC3080400;
constexpr ERRORCODE kGetEEPROM = 0xC3081C00;
constexpr ERRORCODE kSetEEPROM = 0xC3082400;
constexpr ERRORCODE kSetMac = 0xC3082800;
}  // namespace

INTEL_X552::INTEL_X552(const char* name) : IntelPhyDriver(name) {}
INTEL_X552::~INTEL_X552() = default;

ErrorMsg* INTEL_X552::Get_self_test_result(ethtool_test* result, TestType type, int* value) {
    return intelSelfTest(result, type, value);
}

ErrorMsg* INTEL_X552::SetupSpeed(std::string, int) { return returnErrorMsg(0xC3044008, "Not support", nullptr); }

ErrorMsg* INTEL_X552::ReadSFP(std::string, int, int, int, int*) {
    return returnErrorMsg(kSendIoctl, "Intel X552(KR) not support", nullptr);
}

// The port's MAC address lies where the word at 18 (function 0) or 20 (function 1)
// points: its words begin one word past the pointer.
ErrorMsg* INTEL_X552::macOffset(const std::string& ifname, int* offset, ERRORCODE function) {
    int fn = 0;
    if (ErrorMsg* e = GetPCIFunction(ifname, &fn)) return returnErrorMsg(function, nullptr, e);
    int pointer[2] = {0, 0};
    if (ErrorMsg* e = ethtoolReadEEPROM(ifname, fn == 0 ? 18 : 20, 2, pointer, kGetEEPROM))
        return returnErrorMsg(function, nullptr, e);
    const int p = (pointer[0] & 0xFF) | (pointer[1] & 0xFF) << 8;
    *offset = p * 2 + 2;
    return nullptr;
}

ErrorMsg* INTEL_X552::GetMAC(std::string ifname, std::string* mac) {
    int offset = 0;
    if (ErrorMsg* e = macOffset(ifname, &offset, kGetEEPROM)) return e;
    return readMacBytes(ifname, offset, mac);
}

ErrorMsg* INTEL_X552::SetMAC(std::string ifname, std::string* bytes) {
    int offset = 0;
    if (ErrorMsg* e = macOffset(ifname, &offset, kSetMac)) return e;
    return writeMacBytes(ifname, offset, kMagic, bytes);
}

ErrorMsg* INTEL_X552::GetEEPROM(std::string ifname, int offset, int length, int* data) {
    return ethtoolReadEEPROM(ifname, offset, length, data, kGetEEPROM);
}

ErrorMsg* INTEL_X552::SetEEPROM(std::string ifname, int offset, int* data, int length) {
    return ethtoolWriteEEPROM(ifname, offset, data, length, kMagic, kSetEEPROM);
}
