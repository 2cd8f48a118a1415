// Diagnostic layer of the board FPGA.
#include "dapi/fpga/FPGADAPI.h"

#include <cstdio>
#include <new>
#include <vector>

#include "api/StringUtil.h"
#include "ddapi/fpga/FPGADDAPI.h"

namespace {
constexpr ERRORCODE kConstructor = 0xD6040400;
constexpr ERRORCODE kGetDeviceList = 0xD6040800;
constexpr ERRORCODE kReadReg = 0xD6040C00;
constexpr ERRORCODE kWriteReg = 0xD6041000;
constexpr ERRORCODE kGetSPADInfo = 0xD6041400;
constexpr ERRORCODE kReadSPAD = 0xD6041800;
constexpr ERRORCODE kWriteSPAD = 0xD6041C00;
constexpr ERRORCODE kBadParameter2 = 0x206;
constexpr ERRORCODE kBadParameter3 = 0x207;
constexpr ERRORCODE kCreateFail = 0x23A;
constexpr ERRORCODE kUnexpectedValue = 0x230;

// A byte pattern that differs between any two offsets one address line apart, so a
// shorted or stuck address line shows as a mismatch.
unsigned char addressPattern(unsigned int offset) {
    return static_cast<unsigned char>((offset ^ (offset >> 8) ^ 0xA5u) & 0xFFu);
}
}  // namespace

FPGADAPI::FPGADAPI(const char* name) : BaseClassDAPI(name), m_device(nullptr) {
    m_device = new (std::nothrow) FPGADDAPI();
    if (!m_device) {
        addErrorMsg(kConstructor | kCreateFail, nullptr);
        return;
    }
    if (ErrorMsg* errors = m_device->getErrorMsg()) addErrorMsg(kConstructor, nullptr, errors);
}

FPGADAPI::~FPGADAPI() { delete m_device; }

ErrorMsg* FPGADAPI::getDeviceList(std::list<std::string>* names) {
    if (!m_device) return returnErrorMsg(kGetDeviceList | kCreateFail, nullptr, nullptr);
    if (ErrorMsg* e = m_device->getDeviceList(names)) return returnErrorMsg(kGetDeviceList, nullptr, e);
    return nullptr;
}

ErrorMsg* FPGADAPI::getSPADInfo(std::string device, unsigned int* start, unsigned int* size) {
    if (!m_device) return returnErrorMsg(kGetSPADInfo | kCreateFail, nullptr, nullptr);
    if (ErrorMsg* e = m_device->getSPADInfo(device, start, size))
        return returnErrorMsg(kGetSPADInfo, nullptr, e);
    return nullptr;
}

ErrorMsg* FPGADAPI::readReg(std::string device, unsigned int reg, std::string* value) {
    if (!value) return returnErrorMsg(kReadReg | kBadParameter3, "NULL pointer", nullptr);
    if (!m_device) return returnErrorMsg(kReadReg | kCreateFail, nullptr, nullptr);
    unsigned char byte = 0;
    if (ErrorMsg* e = m_device->read(device, reg, &byte)) return returnErrorMsg(kReadReg, nullptr, e);
    *value = Int2HexStr(byte, 2);
    return nullptr;
}

ErrorMsg* FPGADAPI::writeReg(std::string device, unsigned int reg, std::string value) {
    const unsigned long number = std::stoul(value, nullptr, 0);
    if (!m_device) return returnErrorMsg(kWriteReg | kCreateFail, nullptr, nullptr);
    if (ErrorMsg* e = m_device->write(device, reg, static_cast<unsigned char>(number & 0xFF)))
        return returnErrorMsg(kWriteReg, nullptr, e);
    return nullptr;
}

ErrorMsg* FPGADAPI::readSPAD(std::string device, unsigned int offset, std::string* value) {
    if (!value) return returnErrorMsg(kReadSPAD | kBadParameter3, "NULL pointer", nullptr);
    if (!m_device) return returnErrorMsg(kReadSPAD | kCreateFail, nullptr, nullptr);
    unsigned char byte = 0;
    if (ErrorMsg* e = m_device->readSPAD(device, offset, &byte)) return returnErrorMsg(kReadSPAD, nullptr, e);
    *value = Int2HexStr(byte, 2);
    return nullptr;
}

ErrorMsg* FPGADAPI::writeSPAD(std::string device, unsigned int offset, std::string value) {
    const unsigned long number = std::stoul(value, nullptr, 0);
    if (!m_device) return returnErrorMsg(kWriteSPAD | kCreateFail, nullptr, nullptr);
    if (ErrorMsg* e = m_device->writeSPAD(device, offset, static_cast<unsigned char>(number & 0xFF)))
        return returnErrorMsg(kWriteSPAD, nullptr, e);
    return nullptr;
}

ErrorMsg* FPGADAPI::spadTest(std::string device, unsigned int* failedOffset) {
    if (!m_device) return returnErrorMsg(kReadSPAD | kCreateFail, nullptr, nullptr);
    unsigned int start = 0, size = 0;
    if (ErrorMsg* e = m_device->getSPADInfo(device, &start, &size)) return returnErrorMsg(kGetSPADInfo, nullptr, e);
    if (failedOffset) *failedOffset = size;
    // Passes: save, 0x55 and 0xAA per byte, the address pattern over the whole pad
    // (written in full before it is read back), restore.
    initProgress(6ull * size);
    std::vector<unsigned char> saved(size);
    for (unsigned int i = 0; i < size; ++i) {
        if (ErrorMsg* e = m_device->readSPAD(device, start + i, &saved[i])) return returnErrorMsg(kReadSPAD, nullptr, e);
        updateProgress(1);
    }

    ErrorMsg* failure = nullptr;
    unsigned int restoreUpTo = size;  // bytes [0, restoreUpTo) may have been overwritten
    auto check = [&](unsigned int i, unsigned char expected) -> bool {
        unsigned char got = 0;
        if (ErrorMsg* e = m_device->readSPAD(device, start + i, &got)) {
            failure = returnErrorMsg(kReadSPAD, nullptr, e);
            return false;
        }
        if (got == expected) return true;
        if (failedOffset) *failedOffset = i;
        failure = returnErrorMsg(kReadSPAD | kUnexpectedValue,
                                 formatMessage("SPAD offset 0x%04x: wrote 0x%02x, read 0x%02x", i, expected, got),
                                 nullptr);
        return false;
    };
    auto put = [&](unsigned int i, unsigned char value) -> bool {
        if (ErrorMsg* e = m_device->writeSPAD(device, start + i, value)) {
            failure = returnErrorMsg(kWriteSPAD, nullptr, e);
            return false;
        }
        return true;
    };

    for (unsigned int i = 0; i < size && !failure; ++i) {
        restoreUpTo = i + 1;
        if (put(i, 0x55) && check(i, 0x55) && put(i, 0xAA)) check(i, 0xAA);
        updateProgress(2);
    }
    if (!failure) {
        for (unsigned int i = 0; i < size && !failure; ++i) {
            put(i, addressPattern(i));
            updateProgress(1);
        }
        for (unsigned int i = 0; i < size && !failure; ++i) {
            check(i, addressPattern(i));
            updateProgress(1);
        }
    }

    // What the test overwrote goes back, whether it passed or not; the first failure
    // is the one reported.
    for (unsigned int i = 0; i < restoreUpTo; ++i) {
        ErrorMsg* e = m_device->writeSPAD(device, start + i, saved[i]);
        if (e && !failure) {
            failure = returnErrorMsg(kWriteSPAD, nullptr, e);
        } else {
            deleteErrorMsg(e);
        }
    }
    initProgress(0);
    return failure;
}
