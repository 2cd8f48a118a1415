// The controller board's LEDs and slot ID.
#include "ddapi/controller/ControllerDDAPI.h"

#include <new>

#include "ddapi/fpga/FPGADDAPI.h"
#include "ddapi/gpio/GPIODDAPI.h"

namespace {
const char kModule[] = "ctrl";
const char kActivity[] = "act_led";
const char kFault[] = "fault_led";
const char kFpga[] = "fpga0";
const char kSlotPin[] = "SLT_AB_PCH";
constexpr unsigned int kLedControl = 16;
constexpr unsigned int kLedStatus = 18;
// Bit 0/1 of the control register hand the activity/fault lamp to software; bits 4/5
// are their states. The status register has the lamps in bits 0/1.
constexpr unsigned char kActivityOn = 0x13, kFaultOn = 0x23, kBothOff = 0x03;
constexpr unsigned char kActivityBit = 0x10, kFaultBit = 0x20;

constexpr ERRORCODE kGetLEDList = 0xD8080800;
constexpr ERRORCODE kGetLEDStatus = 0xD8080C00;
constexpr ERRORCODE kSetLEDStatus = 0xD8081000;
constexpr ERRORCODE kGetSlotID = 0xD8081400;
constexpr ERRORCODE kBadParameter = 0x204;
constexpr ERRORCODE kNoDevice = 0x22E;
constexpr ERRORCODE kUnexpectedValue = 0x230;
constexpr ERRORCODE kCreateFail = 0x23A;

// "ctrl" and the separator; a shorter name loses all of it.
std::string ledOf(const std::string& name) {
    const size_t prefix = sizeof(kModule);  // 4 letters and the underscore
    return name.size() > prefix ? name.substr(prefix) : std::string();
}
}  // namespace

ControllerDDAPI::ControllerDDAPI() : BaseClassDDAPI("ControllerDDAPI") {}
ControllerDDAPI::~ControllerDDAPI() = default;

ErrorMsg* ControllerDDAPI::getLEDList(std::list<std::string>* names) {
    if (!names) return returnErrorMsg(kGetLEDList | kBadParameter, "NULL pointer", nullptr);
    names->push_back(std::string(kModule) + "_" + kActivity);
    names->push_back(std::string(kModule) + "_" + kFault);
    return nullptr;
}

ErrorMsg* ControllerDDAPI::getLEDStatus(std::string name, std::string* state) {
    const std::string led = ledOf(name);
    FPGADDAPI* fpga = new (std::nothrow) FPGADDAPI();
    if (!fpga) return returnErrorMsg(kGetLEDStatus | kCreateFail, nullptr, nullptr);
    if (ErrorMsg* errors = fpga->getErrorMsg()) {
        delete fpga;
        return returnErrorMsg(kGetLEDStatus, nullptr, errors);
    }
    unsigned char status = 0;
    ErrorMsg* e = fpga->read(kFpga, kLedStatus, &status);
    delete fpga;
    if (e) return returnErrorMsg(kGetLEDStatus, nullptr, e);
    unsigned char bit = 0;
    if (led == kActivity) {
        bit = 0x01;
    } else if (led == kFault) {
        bit = 0x02;
    } else {
        return returnErrorMsg(kGetLEDStatus | kNoDevice, name.c_str(), nullptr);
    }
    if (state) *state = (status & bit) ? "on" : "off";
    return nullptr;
}

ErrorMsg* ControllerDDAPI::setLEDStatus(std::string name, std::string state) {
    const std::string led = ledOf(name);
    unsigned char value = 0, own = 0;
    if (led == kActivity) {
        own = kActivityBit;
        if (state == "on") value = kActivityOn;
        else if (state == "off") value = kBothOff;
    } else if (led == kFault) {
        own = kFaultBit;
        if (state == "on") value = kFaultOn;
        else if (state == "off") value = kBothOff;
    } else {
        return returnErrorMsg(kSetLEDStatus | kNoDevice, name.c_str(), nullptr);
    }
    if (value == 0) return returnErrorMsg(kSetLEDStatus | kUnexpectedValue, state.c_str(), nullptr);

    FPGADDAPI* fpga = new (std::nothrow) FPGADDAPI();
    if (!fpga) return returnErrorMsg(kSetLEDStatus | kCreateFail, nullptr, nullptr);
    if (ErrorMsg* errors = fpga->getErrorMsg()) {
        delete fpga;
        return returnErrorMsg(kSetLEDStatus, nullptr, errors);
    }
    unsigned char status = 0;
    ErrorMsg* e = fpga->read(kFpga, kLedStatus, &status);
    if (!e) {
        // The other lamp keeps its state, this one gets the requested one.
        const unsigned char keep = static_cast<unsigned char>((status << 4) & ~own & 0xFF);
        e = fpga->write(kFpga, kLedControl, static_cast<unsigned char>(value | keep));
    }
    delete fpga;
    if (e) return returnErrorMsg(kSetLEDStatus, nullptr, e);
    return nullptr;
}

ErrorMsg* ControllerDDAPI::getSlotID(unsigned int* id) {
    if (!id) return returnErrorMsg(kGetSlotID | kBadParameter, "NULL pointer", nullptr);
    GPIODDAPI gpio("GPIODDAPI");
    if (ErrorMsg* errors = gpio.getErrorMsg()) return returnErrorMsg(kGetSlotID, nullptr, errors);
    bool value = false;
    if (ErrorMsg* e = gpio.readBit(kSlotPin, &value)) return returnErrorMsg(kGetSlotID, nullptr, e);
    *id = value ? 1 : 0;
    return nullptr;
}
