// quarn bbu ...: the battery backup unit: gauge report, direct commands, charge mode.
#include <cstdio>
#include <list>
#include <string>
#include <vector>

#include "api/ErrorText.h"
#include "cli/Cli.h"
#include "dapi/bbu/BBUDAPI.h"

namespace quarn::cli {
namespace {

// The battery named, or the first one.
int battery(Context& ctx, BBUDAPI& api, const std::vector<std::string>& args, size_t at, std::string* name) {
    if (ErrorMsg* e = api.getErrorMsg()) return ctx.fail(e);
    if (args.size() > at) {
        *name = args[at];
        return 0;
    }
    std::list<std::string> names;
    deleteErrorMsg(api.Get_BBU_List(&names));
    if (names.empty()) {
        ctx.error = "no battery (TI bq40z50) in the I2C profile";
        return 1;
    }
    *name = names.front();
    return 0;
}

int list(Context& ctx, const std::vector<std::string>& args) {
    if (!args.empty()) return ctx.usage("bbu list takes no arguments");
    BBUDAPI api("BBUDAPI");
    if (ErrorMsg* e = api.getErrorMsg()) return ctx.fail(e);
    std::list<std::string> names;
    if (ErrorMsg* e = api.Get_BBU_List(&names)) return ctx.fail(e);
    Value out = Value::array();
    for (const std::string& n : names) {
        int status = 0;
        Value v = Value::object();
        v.set("name", n);
        if (ErrorMsg* e = api.GetChargeStatus(n, &status)) {
            std::string text;
            getErrorMessage(e, &text);
            v.set("mode_error", text);
            ctx.text += n + "\n";
        } else {
            v.set("mode", status ? "discharge" : "charge");
            ctx.text += n + " (" + (status ? "discharging" : "charging") + ")\n";
        }
        out.push(v);
    }
    ctx.result.set("batteries", out);
    return 0;
}

int report(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() > 1) return ctx.usage("bbu report [BBU]");
    BBUDAPI api("BBUDAPI");
    std::string name;
    if (int rc = battery(ctx, api, args, 0, &name)) return rc;
    StdoutCapture capture;
    ErrorMsg* e = api.getBBUInformation(name);
    ctx.text = capture.finish();
    if (e) return ctx.fail(e);
    // The report's "label :value" lines as data.
    Value fields = Value::object();
    size_t pos = 0;
    while (pos < ctx.text.size()) {
        size_t nl = ctx.text.find('\n', pos);
        if (nl == std::string::npos) nl = ctx.text.size();
        const std::string line = ctx.text.substr(pos, nl - pos);
        pos = nl + 1;
        size_t colon = line.find(':');
        if (colon == std::string::npos || line[0] == '*') continue;
        auto trim = [](std::string s) {
            while (!s.empty() && s.back() == ' ') s.pop_back();
            return s;
        };
        if (colon <= 21 && line.size() > 36 && line.find(':', 22) != std::string::npos) {
            const size_t second = line.find(':', 22);
            fields.set(trim(line.substr(0, colon)), trim(line.substr(colon + 1, 14)));
            fields.set(trim(line.substr(36, second - 36)), trim(line.substr(second + 1)));
        } else {
            fields.set(trim(line.substr(0, colon)), trim(line.substr(colon + 1)));
        }
    }
    ctx.result.set("name", name).set("report", fields);
    return 0;
}

int readCmd(Context& ctx, const std::vector<std::string>& args) {
    if (args.empty() || args.size() > 2) return ctx.usage("bbu read CMD [BBU]");
    long long cmd = 0;
    if (!parseInt(args[0], 0, 0xFF, &cmd)) return ctx.usage("CMD is a command code 0-0xff");
    BBUDAPI api("BBUDAPI");
    std::string name;
    if (int rc = battery(ctx, api, args, 1, &name)) return rc;
    int data[32] = {0};
    int count = 0;
    if (ErrorMsg* e = api.Read(name, static_cast<int>(cmd), static_cast<int>(cmd), data, &count)) return ctx.fail(e);
    Value values = Value::array();
    char line[32];
    snprintf(line, sizeof(line), "0x%02llx:", cmd);
    ctx.text = line;
    for (int i = 0; i < count && i < 32; ++i) {
        values.push(data[i]);
        snprintf(line, sizeof(line), " 0x%x", static_cast<unsigned>(data[i]));
        ctx.text += line;
    }
    ctx.text += "\n";
    ctx.result.set("name", name).set("command", static_cast<int>(cmd)).set("values", values);
    return 0;
}

int writeCmd(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() < 2 || args.size() > 3) return ctx.usage("bbu write CMD VALUE [BBU]");
    long long cmd = 0, value = 0;
    if (!parseInt(args[0], 0, 0xFF, &cmd)) return ctx.usage("CMD is a command code 0-0xff");
    if (!parseInt(args[1], 0, 0xFFFF, &value)) return ctx.usage("VALUE is a word 0-0xffff");
    BBUDAPI api("BBUDAPI");
    std::string name;
    if (int rc = battery(ctx, api, args, 2, &name)) return rc;
    // A word, most significant byte first as the word protocol takes it.
    int data[2] = {static_cast<int>((value >> 8) & 0xFF), static_cast<int>(value & 0xFF)};
    int count = 0;
    StdoutCapture capture;
    ErrorMsg* e = api.Write(name, static_cast<int>(cmd), data, 2, &count);
    ctx.text = capture.finish();
    if (e) return ctx.fail(e);
    ctx.result.set("name", name).set("command", static_cast<int>(cmd)).set("value", static_cast<int>(value));
    ctx.text += "written\n";
    return 0;
}

int mode(Context& ctx, const std::vector<std::string>& args, bool discharge) {
    if (args.size() > 1) return ctx.usage(discharge ? "bbu discharge [BBU]" : "bbu charge [BBU]");
    BBUDAPI api("BBUDAPI");
    std::string name;
    if (int rc = battery(ctx, api, args, 0, &name)) return rc;
    if (ErrorMsg* e = discharge ? api.Discharge(name) : api.Charge(name)) return ctx.fail(e);
    int status = 0;
    if (ErrorMsg* e = api.GetChargeStatus(name, &status)) return ctx.fail(e);
    ctx.result.set("name", name).set("mode", status ? "discharge" : "charge");
    ctx.text = name + ": " + (status ? "discharging" : "charging") + "\n";
    return 0;
}

int charge(Context& ctx, const std::vector<std::string>& args) { return mode(ctx, args, false); }
int discharge(Context& ctx, const std::vector<std::string>& args) { return mode(ctx, args, true); }

Register reg{
    {"bbu", "list", "", "batteries (TI bq40z50 in the I2C profile) and their charge mode", list},
    {"bbu", "report", "[BBU]", "the three-block battery report", report},
    {"bbu", "read", "CMD [BBU]", "read a gauge command (Smart Battery Data code)", readCmd},
    {"bbu", "write", "CMD VALUE [BBU]", "write a word to a gauge command", writeCmd},
    {"bbu", "charge", "[BBU]", "switch the unit to charging", charge},
    {"bbu", "discharge", "[BBU]", "switch the unit to discharging", discharge},
};

}  // namespace
}  // namespace quarn::cli
