// Diagnostic layer of the SAS expanders: reports on standard output, device-layer chains
// wrapped in the function rows.
#include "dapi/expander/ExpanderDAPI.h"

#include <cstdio>
#include <new>

namespace {
constexpr ERRORCODE kConstructor = 0xD5040400;
constexpr ERRORCODE kListDevice = 0xD5040800;
constexpr ERRORCODE kGetLogicalIDByName = 0xD5040C00;
constexpr ERRORCODE kShowData = 0xD5041000;
constexpr ERRORCODE kReset = 0xD5041400;
constexpr ERRORCODE kShowErrorData = 0xD5041800;
constexpr ERRORCODE kClearPHYError = 0xD5041C00;
constexpr ERRORCODE kBadParameter = 0x204;
constexpr ERRORCODE kAllocateFail = 0x214;

const char* const kDataLabels[] = {"ATTACHED TYPE     : ", "LINK STATUS       : ", "SPEED             : ",
                                   "SAS ADDRESS       : "};
const char* const kErrorLabels[] = {"DISPARITY_ERR     : ", "INVALID_DWORD_ERR : ", "LOSS_DWORD_SYNC   : ",
                                    "PHY_RESET_PRBM    : "};
}  // namespace

ExpanderDAPI::ExpanderDAPI(const char* name) : BaseClassDAPI(name), m_device(nullptr) {
    m_device = new (std::nothrow) ExpanderDDAPI("ExpanderDDAPI");
    if (!m_device) {
        addErrorMsg(kConstructor | kAllocateFail, nullptr);
        return;
    }
    if (ErrorMsg* e = m_device->getErrorMsg()) addErrorMsg(kConstructor, nullptr, e);
}

ExpanderDAPI::~ExpanderDAPI() { delete m_device; }

ErrorMsg* ExpanderDAPI::listDevice(EXP_DEVICE kind) {
    if (!m_device) return returnErrorMsg(kListDevice | kAllocateFail, nullptr, nullptr);
    if (kind > EXP_DEVICE_PORT) return returnErrorMsg(kListDevice | kBadParameter, formatMessage("kind %u", kind), nullptr);
    bool any = false;
    for (const ExpanderDDAPI::ExpanderDeviceConfig& d : m_device->getDeviceList()) {
        if (d.kind != kind) continue;
        printf("%s\n", d.name.c_str());
        any = true;
    }
    if (!any) printf("NONE\n");
    return nullptr;
}

ErrorMsg* ExpanderDAPI::getLogicalIDByName(std::string name, unsigned int* id) {
    if (!m_device) return returnErrorMsg(kGetLogicalIDByName | kAllocateFail, nullptr, nullptr);
    if (ErrorMsg* e = m_device->getLogicalIDByName(name, id)) return returnErrorMsg(kGetLogicalIDByName, nullptr, e);
    return nullptr;
}

ErrorMsg* ExpanderDAPI::showData(unsigned int id, EXP_DATAELEMENT element) {
    if (!m_device) return returnErrorMsg(kShowData | kAllocateFail, nullptr, nullptr);
    if (element > EXP_DATA_ALL) return returnErrorMsg(kShowData | kBadParameter, formatMessage("element %u", element), nullptr);
    const unsigned int first = element == EXP_DATA_ALL ? 0u : static_cast<unsigned int>(element);
    const unsigned int last = element == EXP_DATA_ALL ? 3u : static_cast<unsigned int>(element);
    for (unsigned int e = first; e <= last; ++e) {
        std::string value;
        if (ErrorMsg* cause = m_device->getDataByID(id, static_cast<EXP_DATAELEMENT>(e), &value))
            return returnErrorMsg(kShowData, nullptr, cause);
        printf("%s%s\n", kDataLabels[e], value.c_str());
    }
    return nullptr;
}

ErrorMsg* ExpanderDAPI::showErrorData(unsigned int id, EXP_ERRORELEMENT element) {
    if (!m_device) return returnErrorMsg(kShowErrorData | kAllocateFail, nullptr, nullptr);
    if (element > EXP_ERROR_ALL)
        return returnErrorMsg(kShowErrorData | kBadParameter, formatMessage("element %u", element), nullptr);
    const unsigned int first = element == EXP_ERROR_ALL ? 0u : static_cast<unsigned int>(element);
    const unsigned int last = element == EXP_ERROR_ALL ? 3u : static_cast<unsigned int>(element);
    for (unsigned int e = first; e <= last; ++e) {
        std::string value;
        if (ErrorMsg* cause = m_device->getErrorDataByID(id, static_cast<EXP_ERRORELEMENT>(e), &value))
            return returnErrorMsg(kShowErrorData, nullptr, cause);
        printf("%s%s\n", kErrorLabels[e], value.c_str());
    }
    return nullptr;
}

ErrorMsg* ExpanderDAPI::reset(unsigned int id) {
    if (!m_device) return returnErrorMsg(kReset | kAllocateFail, nullptr, nullptr);
    if (ErrorMsg* e = m_device->reset(id)) return returnErrorMsg(kReset, nullptr, e);
    return nullptr;
}

ErrorMsg* ExpanderDAPI::clearPHYError() {
    if (!m_device) return returnErrorMsg(kClearPHYError | kAllocateFail, nullptr, nullptr);
    if (ErrorMsg* e = m_device->clearPHYError()) return returnErrorMsg(kClearPHYError, nullptr, e);
    return nullptr;
}
