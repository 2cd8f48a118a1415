// quarn i2c ...: the I2C buses, switches and devices of the board's I2C profile.
#include <cstdio>
#include <string>
#include <vector>

#include "api/ErrorText.h"
#include "cli/Cli.h"
#include "dapi/i2c/I2CDAPI.h"

namespace quarn::cli {
namespace {

const char* typeKeyword(I2C_DEVICE_TYPE type) {
    static const char* const kNames[] = {"unknown", "mux", "temperature", "battery", "spd_ddr1",
                                         "spd_ddr2", "spd_ddr3", "spd_ddr4", "vpd"};
    return type <= I2C_DEVICE_TYPE_VPD ? kNames[type] : "unknown";
}

// A device is a well-known name or BUS:ADDRESS with the 8-bit address ("0:0x98").
struct Target {
    std::string name;
    int bus = -1;
    int address = -1;
    bool byName() const { return !name.empty(); }
    std::string label() const {
        if (byName()) return name;
        char text[32];
        snprintf(text, sizeof(text), "%x:0x%02x", bus, address);
        return text;
    }
};

bool parseTarget(const std::string& text, Target* t) {
    const size_t colon = text.find(':');
    if (colon == std::string::npos) {
        if (text.empty()) return false;
        t->name = text;
        return true;
    }
    long long bus, address;
    if (!parseInt(text.substr(0, colon), 0, 255, &bus) || !parseInt(text.substr(colon + 1), 0, 255, &address))
        return false;
    t->bus = static_cast<int>(bus);
    t->address = static_cast<int>(address);
    return true;
}

std::string dump(I2CDAPI& api, std::vector<int>& values, int count) {
    StdoutCapture capture;
    api.DisplayBufferContent(values.data(), count);
    return capture.finish();
}

int list(Context& ctx, const std::vector<std::string>& args) {
    if (!args.empty()) return ctx.usage("i2c list takes no arguments");
    I2CDAPI api("I2CDAPI");
    std::vector<I2CDevice*> devices(200, nullptr);
    int count = 0;
    if (ErrorMsg* e = api.DisplayI2cDevicesList(devices.data(), &count)) return ctx.fail(e);
    Value rows = Value::array();
    char line[256];
    snprintf(line, sizeof(line), "%-12s %-4s %-5s %-12s %-8s %-20s %s\n", "NAME", "BUS", "ADDR", "TYPE",
             "VENDOR", "MODEL", "ROUTE");
    ctx.text = line;
    for (int i = 0; i < count; ++i) {
        I2CDevice* d = devices[i];
        std::string route;
        ErrorMsg* e = api.ShowRoutePath(d->get_Name().c_str(), &route);
        if (e) deleteErrorMsg(e);
        Value row = Value::object();
        row.set("name", d->get_Name()).set("bus", d->get_Bus()).set("address", d->get_Address());
        row.set("type", typeKeyword(d->get_type())).set("vendor", d->get_vender()).set("model", d->get_model());
        if (d->IsSwitch()) {
            I2CSwitch* sw = static_cast<I2CSwitch*>(d);
            Value ports = Value::array();
            for (int k = 0; k < sw->get_output_port_counter(); ++k) ports.push(sw->get_output_port(k));
            row.set("channels", ports);
        }
        row.set("route", route);
        rows.push(row);
        char addr[8];
        snprintf(addr, sizeof(addr), "0x%02x", d->get_Address());
        char bus[8];
        snprintf(bus, sizeof(bus), "%x", d->get_Bus());
        snprintf(line, sizeof(line), "%-12s %-4s %-5s %-12s %-8s %-20s %s\n", d->get_Name().c_str(), bus, addr,
                 typeKeyword(d->get_type()), d->get_vender().c_str(), d->get_model().c_str(), route.c_str());
        ctx.text += line;
        delete d;
    }
    ctx.result.set("devices", rows);
    // Refused profile lines do not stop the library; they are shown, not hidden.
    if (ErrorMsg* warnings = api.CheckProfile()) {
        std::string text;
        getErrorMessage(warnings, &text);
        ctx.result.set("profile_warnings", text);
        ctx.text += "warning: " + text + "\n";
    }
    return 0;
}

int read(Context& ctx, const std::vector<std::string>& args) {
    Target t;
    long long start, end;
    if (args.size() < 2 || args.size() > 3 || !parseTarget(args[0], &t) || !parseInt(args[1], 0, 511, &start))
        return ctx.usage("usage: quarn i2c read NAME|BUS:ADDR START [END]");
    end = start;
    if (args.size() == 3 && !parseInt(args[2], 0, 8191 + start, &end))
        return ctx.usage("usage: quarn i2c read NAME|BUS:ADDR START [END]");
    I2CDAPI api("I2CDAPI");
    std::vector<int> values(8192, 0);
    int count = 0;
    ErrorMsg* e = t.byName() ? api.Read(t.name.c_str(), static_cast<int>(start), static_cast<int>(end), values.data(), &count)
                             : api.Read(t.bus, t.address, static_cast<int>(start), static_cast<int>(end),
                                        values.data(), &count);
    if (e) return ctx.fail(e);
    Value v = Value::array();
    for (int i = 0; i < count; ++i) v.push(values[i]);
    ctx.result.set("device", t.label()).set("start", start).set("count", count).set("values", v);
    ctx.text = dump(api, values, count);
    return 0;
}

int write(Context& ctx, const std::vector<std::string>& args) {
    Target t;
    long long reg;
    if (args.size() < 3 || !parseTarget(args[0], &t) || !parseInt(args[1], 0, 511, &reg))
        return ctx.usage("usage: quarn i2c write NAME|BUS:ADDR REGISTER VALUE...");
    std::vector<int> values;
    for (size_t i = 2; i < args.size(); ++i) {
        long long v;
        if (!parseInt(args[i], 0, 255, &v)) return ctx.usage("values are bytes, 0 to 255: " + args[i]);
        values.push_back(static_cast<int>(v));
    }
    I2CDAPI api("I2CDAPI");
    int count = 0;
    const int n = static_cast<int>(values.size());
    ErrorMsg* e = t.byName() ? api.Write(t.name.c_str(), static_cast<int>(reg), values.data(), n, &count)
                             : api.Write(t.bus, t.address, static_cast<int>(reg), values.data(), n, &count);
    if (e) return ctx.fail(e);
    ctx.result.set("device", t.label()).set("register", reg).set("written", count);
    ctx.text = "wrote " + std::to_string(n) + " value(s) to " + t.label() + "\n";
    return 0;
}

int byName(Context& ctx, const std::vector<std::string>& args, const char* usage,
           ErrorMsg* (*run)(I2CDAPI&, const char*, std::string*), const char* okText) {
    if (args.size() != 1) return ctx.usage(usage);
    I2CDAPI api("I2CDAPI");
    std::string out;
    StdoutCapture capture;
    ErrorMsg* e = run(api, args[0].c_str(), &out);
    const std::string printed = capture.finish();
    ctx.text = printed;
    if (e) return ctx.fail(e);
    ctx.result.set("device", args[0]);
    if (!out.empty()) {
        ctx.result.set("route", out);
        ctx.text += out + "\n";
    } else {
        ctx.result.set("result", "pass");
        ctx.text += std::string(okText) + "\n";
    }
    return 0;
}

int muxTest(Context& ctx, const std::vector<std::string>& args) {
    return byName(ctx, args, "usage: quarn i2c mux-test NAME",
                  [](I2CDAPI& api, const char* n, std::string*) { return api.MUX_Test(n); }, "mux test pass");
}

int writeReadTest(Context& ctx, const std::vector<std::string>& args) {
    return byName(ctx, args, "usage: quarn i2c write-read-test NAME",
                  [](I2CDAPI& api, const char* n, std::string*) { return api.WriteReadTest(n); },
                  "write/read test pass");
}

int route(Context& ctx, const std::vector<std::string>& args) {
    return byName(ctx, args, "usage: quarn i2c route NAME",
                  [](I2CDAPI& api, const char* n, std::string* p) { return api.ShowRoutePath(n, p); }, "");
}

Register reg{
    {"i2c", "list", "", "devices of the I2C profile with their routes", list},
    {"i2c", "read", "NAME|BUS:ADDR START [END]", "read registers (8-bit address, e.g. 0:0x98)", read},
    {"i2c", "write", "NAME|BUS:ADDR REGISTER VALUE...", "write register bytes", write},
    {"i2c", "mux-test", "NAME", "select channel 1 of a switch and read it back", muxTest},
    {"i2c", "write-read-test", "NAME", "write 0xAA and 0x55 to registers 0-255, then restore", writeReadTest},
    {"i2c", "route", "NAME", "the path from the bus controller through the switches", route},
};

}  // namespace
}  // namespace quarn::cli
