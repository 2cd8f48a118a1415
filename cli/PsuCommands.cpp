// quarn psu ...: power supplies, their items (fans, temperatures, limits, LEDs) and
// firmware updates.
#include <cstdio>
#include <list>
#include <stdexcept>
#include <string>
#include <vector>

#include "api/ErrorText.h"
#include "cli/Cli.h"
#include "dapi/psu/PSUDAPI.h"

namespace quarn::cli {
namespace {

bool endsWith(const std::string& s, const std::string& tail) {
    return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

// The element an item name addresses: psu0_fan1, psu0_temp0, psu0_over_temp_threshold,
// psu0_rtr_led. A plain supply name has none (-1).
int elementOf(const std::string& item) {
    const size_t u = item.find('_');
    if (u == std::string::npos) return -1;
    const std::string rest = item.substr(u + 1);
    if (endsWith(rest, "_led")) return PSU_LED_STATUS;
    if (endsWith(rest, "_threshold")) return PSU_TEMPERATURE_THRESHOLD;
    if (rest.compare(0, 4, "temp") == 0) return PSU_TEMPERATURE;
    if (rest.compare(0, 3, "fan") == 0) return PSU_FAN_SPEED;
    return PSU_FAN_SPEED;  // let the supply say what is wrong with it
}

int construct(Context& ctx, PSUDAPI& api) {
    ErrorMsg* e = api.getErrorMsg();
    return e ? ctx.fail(e) : 0;
}

int list(Context& ctx, const std::vector<std::string>& args) {
    if (!args.empty()) return ctx.usage("psu list takes no arguments");
    PSUDAPI api("PSUDAPI");
    if (int rc = construct(ctx, api)) return rc;
    std::list<std::string> supplies;
    if (ErrorMsg* e = api.getDeviceList("psu", &supplies)) return ctx.fail(e);
    Value out = Value::array();
    for (const std::string& s : supplies) {
        Value v = Value::object();
        v.set("name", s);
        ctx.text += s + "\n";
        for (const char* kind : {"fan", "temp", "threshold", "led"}) {
            std::list<std::string> items;
            deleteErrorMsg(api.getDeviceList(kind, &items));
            Value a = Value::array();
            std::string line;
            for (const std::string& i : items)
                if (i.compare(0, s.size() + 1, s + "_") == 0) {
                    a.push(i);
                    line += " " + i;
                }
            v.set(kind, a);
            ctx.text += std::string("  ") + kind + ":" + line + "\n";
        }
        out.push(v);
    }
    ctx.result.set("supplies", out);
    return 0;
}

int info(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("psu info PSU");
    PSUDAPI api("PSUDAPI");
    if (int rc = construct(ctx, api)) return rc;
    static const struct {
        PSU_ELEMENT_TYPE element;
        const char* key;
        const char* label;
    } kFields[] = {{PSU_TYPE, "type", "Type"},
                   {PSU_VENDOR, "vendor", "Vendor"},
                   {PSU_PART_NUMBER, "part_number", "Part number"},
                   {PSU_SERIAL_NUMBER, "serial_number", "Serial number"},
                   {PSU_FW_VERSION, "firmware", "Firmware"},
                   {PSU_MAX_POWER, "max_power_w", "Max power (W)"}};
    for (const auto& f : kFields) {
        std::string v;
        if (ErrorMsg* e = api.getDataByElement(f.element, args[0], &v)) return ctx.fail(e);
        ctx.result.set(f.key, v);
        char line[128];
        snprintf(line, sizeof(line), "%-15s: %s\n", f.label, v.c_str());
        ctx.text += line;
    }
    Value items = Value::object();
    for (const auto& kind : {std::make_pair("temp", PSU_TEMPERATURE), std::make_pair("threshold", PSU_TEMPERATURE_THRESHOLD),
                             std::make_pair("fan", PSU_FAN_SPEED), std::make_pair("led", PSU_LED_STATUS)}) {
        std::list<std::string> names;
        deleteErrorMsg(api.getDeviceList(kind.first, &names));
        for (const std::string& n : names) {
            if (n.compare(0, args[0].size() + 1, args[0] + "_") != 0) continue;
            std::string v;
            ErrorMsg* e = api.getDataByElement(kind.second, n, &v);
            if (e) {
                std::string text;
                getErrorMessage(e, &text);
                v = "error: " + text;
            }
            items.set(n, v);
            char line[256];
            snprintf(line, sizeof(line), "%-28s: %s\n", n.c_str(), v.c_str());
            ctx.text += line;
        }
    }
    ctx.result.set("name", args[0]).set("items", items);
    return 0;
}

int get(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("psu get ITEM");
    const int element = elementOf(args[0]);
    if (element < 0) return info(ctx, args);
    PSUDAPI api("PSUDAPI");
    if (int rc = construct(ctx, api)) return rc;
    std::string v;
    if (ErrorMsg* e = api.getDataByElement(static_cast<PSU_ELEMENT_TYPE>(element), args[0], &v)) return ctx.fail(e);
    ctx.result.set("item", args[0]).set("value", v);
    if (element == PSU_FAN_SPEED) {
        std::list<std::string> range;
        if (!api.getSupportValueByElement(PSU_FAN_SPEED, args[0], &range) && range.size() == 2) {
            ctx.result.set("min", range.front()).set("max", range.back());
            v += " (range " + range.front() + "-" + range.back() + ")";
        }
    }
    ctx.text = args[0] + ": " + v + "\n";
    return 0;
}

int set(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 2) return ctx.usage("psu set ITEM VALUE");
    const int element = elementOf(args[0]);
    if (element < 0) return ctx.usage("psu set takes an item name such as psu0_fan0 or psu0_rtr_led");
    PSUDAPI api("PSUDAPI");
    if (int rc = construct(ctx, api)) return rc;
    ErrorMsg* e = nullptr;
    try {
        e = api.setDataByElement(static_cast<PSU_ELEMENT_TYPE>(element), args[0], args[1]);
    } catch (const std::invalid_argument& x) {
        ctx.error = "value is not a number (" + std::string(x.what()) + "): " + args[1];
        return 1;
    } catch (const std::out_of_range& x) {
        ctx.error = "value out of range (" + std::string(x.what()) + "): " + args[1];
        return 1;
    }
    if (e) return ctx.fail(e);
    ctx.result.set("item", args[0]).set("value", args[1]);
    ctx.text = args[0] + " set to " + args[1] + "\n";
    return 0;
}

int update(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 2) return ctx.usage("psu update PSU IMAGE");
    PSUDAPI api("PSUDAPI");
    if (int rc = construct(ctx, api)) return rc;
    std::string before, after;
    deleteErrorMsg(api.getDataByElement(PSU_FW_VERSION, args[0], &before));
    StdoutCapture capture;
    ErrorMsg* e = api.updateFWByFile(args[0], 0, args[1]);
    ctx.text = capture.finish();
    if (e) return ctx.fail(e);
    deleteErrorMsg(api.getDataByElement(PSU_FW_VERSION, args[0], &after));
    ctx.result.set("name", args[0]).set("image", args[1]).set("firmware_before", before).set("firmware_after", after);
    ctx.text += "firmware: " + before + " -> " + after + "\n";
    return 0;
}

Register reg{
    {"psu", "list", "", "power supplies and their items (fans, temperatures, limits, LEDs)", list},
    {"psu", "info", "PSU", "identity, temperatures, limits, fan speeds and LED states of a supply", info},
    {"psu", "get", "ITEM", "one value: psu0_fan1, psu0_temp0, psu0_over_temp_threshold, psu0_rtr_led", get},
    {"psu", "set", "ITEM VALUE", "fan speed (rpm), temperature limit (C) or LED (on|off)", set},
    {"psu", "update", "PSU IMAGE", "program supply firmware from an image file (32-byte header)", update},
};

}  // namespace
}  // namespace quarn::cli
