// quarn gpio ...: the board's named GPIO pins.
#include <cstdio>
#include <string>
#include <vector>

#include "cli/Cli.h"
#include "dapi/gpio/GPIODAPI.h"

namespace quarn::cli {
namespace {

// The object, or non-zero after ctx.fail when its profile or drivers failed.
int open(Context& ctx, GPIODAPI& gpio) {
    ErrorMsg* errors = gpio.getErrorMsg();
    return errors ? ctx.fail(errors) : 0;
}

int list(Context& ctx, const std::vector<std::string>& args) {
    if (!args.empty()) return ctx.usage("gpio list takes no arguments");
    GPIODAPI gpio("GPIODAPI");
    if (int rc = open(ctx, gpio)) return rc;
    std::list<std::string> lines;
    if (ErrorMsg* e = gpio.displayGPIOList(&lines)) return ctx.fail(e);
    Value pins = Value::array();
    for (const std::string& line : lines) {
        ctx.text += line + "\n";
        // Chipset lines are "NAME  <--...-->  NUMBER"; FPGA lines are the name alone.
        Value v = Value::object();
        const size_t open = line.find("  <");
        const size_t close = line.rfind(">  ");
        if (open != std::string::npos && close != std::string::npos && close > open) {
            long long number = 0;
            v.set("name", line.substr(0, open)).set("driver", "PCH");
            if (parseInt(line.substr(close + 3), 0, 0xFFFF, &number)) v.set("gpio", number);
        } else {
            v.set("name", line).set("driver", "FPGA");
        }
        pins.push(v);
    }
    ctx.result.set("pins", pins);
    return 0;
}

int get(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("usage: quarn gpio get NAME");
    GPIODAPI gpio("GPIODAPI");
    if (int rc = open(ctx, gpio)) return rc;
    bool value = false;
    if (ErrorMsg* e = gpio.getStatus(args[0], &value)) return ctx.fail(e);
    ctx.result.set("name", args[0]).set("value", value ? 1 : 0);
    ctx.text = args[0] + " " + (value ? "1" : "0") + "\n";
    return 0;
}

int set(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 2 || (args[1] != "0" && args[1] != "1")) return ctx.usage("usage: quarn gpio set NAME 0|1");
    GPIODAPI gpio("GPIODAPI");
    if (int rc = open(ctx, gpio)) return rc;
    const bool value = args[1] == "1";
    if (ErrorMsg* e = gpio.setStatus(args[0], value)) return ctx.fail(e);
    ctx.result.set("name", args[0]).set("value", value ? 1 : 0);
    ctx.text = args[0] + " set to " + args[1] + "\n";
    return 0;
}

Register reg{
    {"gpio", "list", "", "the pins of the GPIO profile (chipset pins with their GPIO number)", list},
    {"gpio", "get", "NAME", "read a pin by name (case-insensitive)", get},
    {"gpio", "set", "NAME 0|1", "drive a pin low or high", set},
};

}  // namespace
}  // namespace quarn::cli
