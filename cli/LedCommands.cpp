// quarn led ... and quarn controller ...: LEDs of every module, the controller's slot.
#include <cstdio>
#include <string>
#include <vector>

#include "cli/Cli.h"
#include "dapi/led/LEDDAPI.h"
#include "ddapi/controller/ControllerDDAPI.h"

namespace quarn::cli {
namespace {

int list(Context& ctx, const std::vector<std::string>& args) {
    if (!args.empty()) return ctx.usage("led list takes no arguments");
    LEDDAPI led("LEDDAPI");
    std::list<std::string> names;
    if (ErrorMsg* e = led.getDeviceList(&names)) return ctx.fail(e);
    Value out = Value::array();
    for (const std::string& n : names) {
        out.push(n);
        ctx.text += n + "\n";
    }
    ctx.result.set("leds", out);
    return 0;
}

int get(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("usage: quarn led get NAME");
    LEDDAPI led("LEDDAPI");
    std::string state;
    if (ErrorMsg* e = led.getLEDStatus(args[0], &state)) return ctx.fail(e);
    ctx.result.set("name", args[0]).set("state", state);
    ctx.text = args[0] + " " + state + "\n";
    return 0;
}

int set(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 2) return ctx.usage("usage: quarn led set NAME STATE");
    LEDDAPI led("LEDDAPI");
    if (ErrorMsg* e = led.setLEDStatus(args[0], args[1])) return ctx.fail(e);
    ctx.result.set("name", args[0]).set("state", args[1]);
    ctx.text = args[0] + " set " + args[1] + "\n";
    return 0;
}

int slot(Context& ctx, const std::vector<std::string>& args) {
    if (!args.empty()) return ctx.usage("controller slot takes no arguments");
    ControllerDDAPI controller;
    unsigned int id = 0;
    if (ErrorMsg* e = controller.getSlotID(&id)) return ctx.fail(e);
    ctx.result.set("slot", id);
    ctx.text = "slot ID " + std::to_string(id) + "\n";
    return 0;
}

Register reg{
    {"led", "list", "", "the LEDs of the controller and the Ethernet ports", list},
    {"led", "get", "NAME", "an LED's state (ctrl_act_led, ctrl_fault_led, eth_..., psu..., sas...)", get},
    {"led", "set", "NAME STATE", "set an LED (the controller's take on and off)", set},
    {"controller", "slot", "", "the controller's slot ID (0 or 1) from its GPIO strap", slot},
};

}  // namespace
}  // namespace quarn::cli
