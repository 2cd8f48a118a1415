// Diagnostic layer of the serial ports.
#include "dapi/uart/UARTDAPI.h"

#include <new>

namespace {
constexpr ERRORCODE kTestScratchPad = 0xCC040800;
constexpr ERRORCODE kLoopbackTest = 0xCC040C00;
constexpr ERRORCODE kGetUartInfoByName = 0xCC041000;
constexpr ERRORCODE kGetUartList = 0xCC041400;
constexpr ERRORCODE kNoDevice = 0x22E;
constexpr ERRORCODE kCreateFail = 0x23A;
}  // namespace

UARTDAPI::UARTDAPI(const char* name) : BaseClassDAPI(name), m_device(nullptr), m_lastError(nullptr) {
    m_device = new (std::nothrow) UARTDDAPI("UARTDDAPI");
    if (!m_device) addErrorMsg(0xCC040000 | kCreateFail, "UARTDDAPI");
    else m_device->setProgressOwner(this);
}

UARTDAPI::~UARTDAPI() {
    if (m_lastError) deleteErrorMsg(m_lastError);
    delete m_device;
}

ErrorMsg* UARTDAPI::getUartList(std::vector<_SERIAL_INFO>* list) {
    if (!m_device) return returnErrorMsg(kGetUartList | kCreateFail, "UARTDDAPI", nullptr);
    if (ErrorMsg* e = m_device->scanUarts(list)) return returnErrorMsg(kGetUartList, nullptr, e);
    return nullptr;
}

ErrorMsg* UARTDAPI::getUartInfoByName(const char* name, _SERIAL_INFO* info) {
    if (!m_device) return returnErrorMsg(kGetUartInfoByName | kCreateFail, "UARTDDAPI", nullptr);
    std::vector<_SERIAL_INFO> ports;
    if (ErrorMsg* e = m_device->scanUarts(&ports)) return returnErrorMsg(kGetUartInfoByName, nullptr, e);
    for (const _SERIAL_INFO& port : ports) {
        if (name && port.name == name) {
            if (info) *info = port;
            return nullptr;
        }
    }
    return returnErrorMsg(kGetUartInfoByName | kNoDevice, name, nullptr);
}

ErrorMsg* UARTDAPI::testScratchPad(const char* name) {
    if (!m_device) return returnErrorMsg(kTestScratchPad | kCreateFail, "UARTDDAPI", nullptr);
    if (ErrorMsg* e = m_device->testScratchPad(name)) return returnErrorMsg(kTestScratchPad, nullptr, e);
    return nullptr;
}

ErrorMsg* UARTDAPI::doInternalLoopbackTest(const char* name, bool external, unsigned int length,
                                           bool fixed, uint8_t pattern) {
    if (!m_device) return returnErrorMsg(kLoopbackTest | kCreateFail, "UARTDDAPI", nullptr);
    if (!external) {
        initProgress(length);
        if (m_lastError) deleteErrorMsg(m_lastError);
        m_lastError = m_device->doInternalLoopbackTest(name, length, fixed, pattern);
    }
    if (!m_lastError) return nullptr;
    ErrorMsg* last = m_lastError;
    m_lastError = nullptr;  // handed to the caller, who frees it
    return returnErrorMsg(kLoopbackTest, nullptr, last);
}
