// LEDs of every module behind one interface.
#include "dapi/led/LEDDAPI.h"

#include <cctype>
#include <new>

#include "ddapi/controller/ControllerDDAPI.h"
#include "ddapi/ethernet/EthernetDDAPI.h"
#include "ddapi/psu/PSUDDAPI.h"

namespace {
constexpr ERRORCODE kGetDeviceList = 0xCE040800;
constexpr ERRORCODE kGetLEDStatus = 0xCE040C00;
constexpr ERRORCODE kSetLEDStatus = 0xCE041000;
constexpr ERRORCODE kNoDevice = 0x22E;

// The modules whose LEDs are listed.
const LED_MODULE_INDEX kListed[] = {LED_MODULE_CONTROLLER, LED_MODULE_ETHERNET};

std::string lower(std::string text) {
    for (char& c : text) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return text;
}
}  // namespace

LEDDAPI::LEDDAPI(const char* name) : BaseClassDAPI(name) {}
LEDDAPI::~LEDDAPI() = default;

std::string LEDDAPI::getModuleName(std::string name) {
    size_t n = 0;
    while (n < name.size() && isalpha(static_cast<unsigned char>(name[n]))) ++n;
    if (n == name.size()) return "";
    return name.substr(0, n);
}

BaseClassDDAPI* LEDDAPI::createModuleClassByID(LED_MODULE_INDEX index) {
    switch (index) {
    case LED_MODULE_CONTROLLER:
        return new (std::nothrow) ControllerDDAPI();
    case LED_MODULE_ETHERNET:
        return new (std::nothrow) EthernetDDAPI("EthernetDDAPI");
    case LED_MODULE_PSU:
        return new (std::nothrow) PSUDDAPI("PSUDDAPI");
    default:
        // The SAS adapter's device class has no LED operations in this build: "sas"
        // names are refused as "No device is found" rather than answered by a stand-in.
        return nullptr;
    }
}

BaseClassDDAPI* LEDDAPI::createModuleClassByName(std::string module) {
    const std::string m = lower(module);
    if (m == "ctrl") return createModuleClassByID(LED_MODULE_CONTROLLER);
    if (m == "eth") return createModuleClassByID(LED_MODULE_ETHERNET);
    if (m == "psu") return createModuleClassByID(LED_MODULE_PSU);
    if (m == "sas") return createModuleClassByID(LED_MODULE_SAS);
    return nullptr;  // "encl" and anything else
}

ErrorMsg* LEDDAPI::getLEDStatus(std::string name, std::string* state) {
    const std::string module = getModuleName(name);
    BaseClassDDAPI* object = createModuleClassByName(module);
    if (!object) return returnErrorMsg(kGetLEDStatus | kNoDevice, name.c_str(), nullptr);
    // Ethernet ports take the name without "eth" and the separator.
    const std::string led = lower(module) == "eth" ? name.substr(module.size() + 1) : name;
    ErrorMsg* e = object->getLEDStatus(led, state);
    delete object;
    if (e) return returnErrorMsg(kGetLEDStatus, nullptr, e);
    return nullptr;
}

ErrorMsg* LEDDAPI::setLEDStatus(std::string name, std::string state) {
    const std::string module = getModuleName(name);
    BaseClassDDAPI* object = createModuleClassByName(module);
    if (!object) return returnErrorMsg(kSetLEDStatus | kNoDevice, name.c_str(), nullptr);
    const std::string led = lower(module) == "eth" ? name.substr(module.size() + 1) : name;
    ErrorMsg* e = object->setLEDStatus(led, state);
    delete object;
    if (e) return returnErrorMsg(kSetLEDStatus, nullptr, e);
    return nullptr;
}

ErrorMsg* LEDDAPI::getDeviceList(std::list<std::string>* names) {
    std::list<std::string> found;
    for (LED_MODULE_INDEX index : kListed) {
        BaseClassDDAPI* object = createModuleClassByID(index);
        if (!object) continue;
        if (ErrorMsg* errors = object->getErrorMsg()) {
            deleteErrorMsg(errors);
            delete object;
            continue;
        }
        std::list<std::string> scratch;
        deleteErrorMsg(object->getLEDList(&scratch));
        for (const std::string& n : scratch) found.push_back(index == LED_MODULE_ETHERNET ? "eth_" + n : n);
        delete object;
    }
    if (found.empty()) return returnErrorMsg(kGetDeviceList | kNoDevice, nullptr, nullptr);
    if (names) names->splice(names->end(), found);
    return nullptr;
}
