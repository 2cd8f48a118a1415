// Guest checks of the GPIO, FPGA and LED layers on a real kernel: port privilege, the
// LPC bridge's configuration through sysfs. QEMU's q35 machine has neither the board
// FPGA nor a GPIO block behind the LPC bridge, so the checks only read, and the layers
// must refuse what they cannot reach without touching stray ports or memory.
#include <list>
#include <string>

#include "GuestCheck.h"
#include "dapi/fpga/FPGADAPI.h"
#include "dapi/gpio/GPIODAPI.h"
#include "dapi/led/LEDDAPI.h"
#include "ddapi/controller/ControllerDDAPI.h"
#include "ddapi/fpga/FPGADDAPI.h"

namespace {

using namespace itest;

const char kProfile[] = "/etc/quarn/GPIO_profile.ini";

// The LPC bridge's GPIO base as the kernel shows its configuration space, 0 when unreadable.
unsigned lpcGpioBase() {
    std::string config;
    if (quarn::readTextFile("/sys/bus/pci/devices/0000:00:1f.0/config", &config) != 0 || config.size() < 0x4C) return 0;
    unsigned v = 0;
    for (int i = 3; i >= 0; --i) v = (v << 8) | static_cast<unsigned char>(config[0x48 + i]);
    return v & 0xFF80;
}

void runGpio() {
    part("gpio");
    quarn::removePath(kProfile);
    {
        GPIODAPI gpio("GPIODAPI");
        expect("gpio missing profile", take(gpio.getErrorMsg()) ==
                   "GPIODAPI::Constructor -> GPIODDAPI::Constructor: \"Open GPIO_profile.ini fail\"",
               "constructor chain");
    }
    quarn::writeScratchFile(kProfile,
                            "[PCH]\nSLT_AB_PCH GPIO_PCH_DRIVER_DATA_TYPE_BOOLEAN GPIO_READ_ONLY 40 ACTIVE_HI TRUE\n"
                            "FAN GPIO_PCH_DRIVER_DATA_TYPE_BOOLEAN GPIO_READ_WRITE 12 ACTIVE_HI TRUE\n");
    GPIODAPI gpio("GPIODAPI");
    ok("gpio constructor (LPC bridge found)", gpio.getErrorMsg());
    std::list<std::string> list;
    ok("gpio list", gpio.displayGPIOList(&list));
    expect("gpio list line", !list.empty() && list.back() == "FAN  <" + std::string(34, '-') + ">  12",
           list.empty() ? "empty" : list.back());
    expect("gpio read-only refused", take(gpio.setStatus("slt_ab_pch", true)) ==
               "GPIODAPI::setStatus -> GPIODDAPI::GPIO setBit -> GPIODDAPI::GPIO_PCHDriver setBit: \"GPIO Read Only\"",
           "read-only pin written");
    bool v = false;
    const std::string read = take(gpio.getStatus("SLT_AB_PCH", &v));
    if (lpcGpioBase() == 0) {
        expect("gpio no base, no port access", read ==
                   "GPIODAPI::getStatus -> GPIODDAPI::GPIO readBit -> GPIODDAPI::GPIO_PCHDriver readBit: "
                   "\"GPIO Get Fail - no GPIO base\"",
               read);
        unsigned id = 7;
        ControllerDDAPI ctrl;
        const std::string slot = take(ctrl.getSlotID(&id));
        expect("controller slot without GPIO base", slot.rfind("CONTROLLERDDAPI::getSlotID -> ", 0) == 0 && id == 7, slot);
    } else {
        expect("gpio read through the LPC base", read.empty(), read);
    }
    quarn::removePath(kProfile);
}

void runFpga() {
    part("fpga");
    FPGADDAPI probe;
    const unsigned base = probe.getBaseAddress();
    deleteErrorMsg(probe.getErrorMsg());
    FPGADAPI fpga("FPGADAPI");
    std::string value = "x";
    // Refusals by the register table come before any hardware access.
    expect("fpga write-only refused", take(fpga.readReg("fpga0", 16, &value)) ==
               "FPGADAPI::readReg -> FPGADDAPI::read: \"register is write-only - register: 0x10\"" && value == "x",
           value);
    expect("fpga read-only refused", take(fpga.writeReg("fpga0", 17, "1")) ==
               "FPGADAPI::writeReg -> FPGADDAPI::write: \"register is read-only - register: 0x11\"",
           "write reached the device layer");
    LEDDAPI led("LEDDAPI");
    std::string state = "x";
    std::list<std::string> names;
    ok("led list", led.getDeviceList(&names));
    expect("led list has the controller", !names.empty() && names.front() == "ctrl_act_led", "first LED");
    if (base == 0) {
        // q35 decodes nothing at ports 0x700/0x701 and reads them as 0: no FPGA.
        pass("fpga base ports read 0 (no FPGA on this machine)");
        expect("fpga constructor says no FPGA", take(fpga.getErrorMsg()) ==
                   "FPGADAPI::Constructor -> FPGADDAPI::Constructor: \"unknown base address\"",
               "constructor chain");
        const std::string read = take(fpga.readReg("fpga0", 17, &value));
        expect("fpga no base, no memory access",
               read == "FPGADAPI::readReg -> FPGADDAPI::read: \"unknown base address\"" && value == "x", read);
        const std::string lamp = take(led.getLEDStatus("ctrl_act_led", &state));
        expect("led ctrl without FPGA", lamp == "LEDDAPI::getLEDStatus -> CONTROLLERDDAPI::getLEDStatus -> "
                                               "FPGADDAPI::Constructor: \"unknown base address\"" && state == "x",
               lamp);
    } else {
        expect("fpga base is 64 KiB aligned", (base & 0xFFFF) == 0, hex(base));
        ok("fpga constructor", fpga.getErrorMsg());
        const std::string read = take(fpga.readReg("fpga0", 17, &value));
        expect("fpga register read through /dev/mem", read.empty() && value.size() == 2, read + " " + value);
        ok("led ctrl_act_led read", led.getLEDStatus("ctrl_act_led", &state));
        expect("led state text", state == "on" || state == "off", state);
    }
}

RegisterGuestPart regGpio("gpio", runGpio);
RegisterGuestPart regFpga("fpga", runFpga);

}  // namespace
