// Non-transparent bridge diagnostic layer.
#include "dapi/ntb/NTBDAPI.h"

#include <new>

namespace {
constexpr ERRORCODE kSearchDevice = 0xD4040400;
constexpr ERRORCODE kSend = 0xD4040800;
constexpr ERRORCODE kReceiver = 0xD4040C00;
constexpr ERRORCODE kInitialWindow = 0xD4041000;
constexpr ERRORCODE kTestPerformance = 0xD4041C00;
}  // namespace

NTBDAPI::NTBDAPI(const char* name) : BaseClassDAPI(name), m_device(new NTBDDAPI("NTBDDAPI")) {}

NTBDAPI::~NTBDAPI() { delete m_device; }

ErrorMsg* NTBDAPI::searchDevice(std::vector<_NTB_INFO>* list) {
    if (ErrorMsg* e = m_device->searchDevice(list)) return returnErrorMsg(kSearchDevice, nullptr, e);
    return nullptr;
}

ErrorMsg* NTBDAPI::initialWindow() {
    if (ErrorMsg* e = m_device->initialWindow()) return returnErrorMsg(kInitialWindow, nullptr, e);
    return nullptr;
}

ErrorMsg* NTBDAPI::server(std::string name, uint64_t sendPattern, uint64_t expectPattern, uint32_t rounds) {
    if (ErrorMsg* e = m_device->server(name, sendPattern, expectPattern, rounds)) return returnErrorMsg(kSend, nullptr, e);
    return nullptr;
}

ErrorMsg* NTBDAPI::client(std::string name, uint64_t expectPattern, uint64_t sendPattern, uint32_t rounds) {
    if (ErrorMsg* e = m_device->client(name, expectPattern, sendPattern, rounds))
        return returnErrorMsg(kReceiver, nullptr, e);
    return nullptr;
}

ErrorMsg* NTBDAPI::receiver(uint64_t pattern, uint64_t rounds) {
    if (ErrorMsg* e = m_device->receiver(pattern, rounds)) return returnErrorMsg(kReceiver, nullptr, e);
    return nullptr;
}

ErrorMsg* NTBDAPI::stress(uint64_t pattern, uint64_t rounds, uint32_t reserved, bool verify, bool last) {
    if (!last) {
        m_lastStress.clear();
        ErrorMsg* e = m_device->stress(pattern, rounds, reserved, verify);
        if (!e) return nullptr;
        ErrorMsg* head = returnErrorMsg(kSend, nullptr, e);
        for (ErrorMsg* r = head; r; r = r->getNextErrorMsg()) {
            m_lastStress.emplace_back(r->getErrorCode(), r->getDetailMessage());
            if (r->getNextErrorMsg() == head) break;
        }
        return head;
    }
    // The chain handed out last time belongs to the caller: a copy of it is returned.
    ErrorMsg* head = nullptr;
    for (const auto& record : m_lastStress) {
        ErrorMsg* r = new (std::nothrow) ErrorMsg(record.first, record.second);
        if (!r) break;
        if (head) head->appendToList(r);
        else head = r;
    }
    return head;
}

ErrorMsg* NTBDAPI::testPerformance(uint64_t pattern, uint32_t bufferSize, uint64_t rounds) {
    if (ErrorMsg* e = m_device->testPerformance(pattern, bufferSize, rounds))
        return returnErrorMsg(kTestPerformance, nullptr, e);
    return nullptr;
}
