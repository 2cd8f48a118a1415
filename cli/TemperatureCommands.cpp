// quarn temp ...: every temperature sensor of the board in one list: I2C sensors of the
// profile, SATA drives, SAS adapters, processor packages and supply sensors.
#include <cstdio>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "api/ErrorText.h"
#include "cli/Cli.h"
#include "dapi/temperature/TemperatureDAPI.h"
#include "ddapi/temperature/TemperatureGeneric.h"

namespace quarn::cli {
namespace {

std::string renderChain(ErrorMsg* e) {
    std::string text;
    getErrorMessage(e, &text);
    return text;
}

// One sensor: its kind and how to ask for an element.
struct Sensor {
    std::string name;
    std::string kind;
};

// The sensors of every kind; a kind that cannot list its sensors is reported by its chain.
void collect(std::vector<Sensor>* sensors, Value* kindErrors) {
    {
        TemperatureDAPI api("TemperatureDAPI");
        std::list<std::string> names;
        if (ErrorMsg* e = api.displayTemperatureNameList(&names)) kindErrors->set("i2c", renderChain(e));
        for (const std::string& n : names) sensors->push_back({n, "i2c"});
    }
    {
        StdoutCapture quiet;
        Temperature_SATA sata("TEMP_SATA");
        quiet.finish();
        deleteErrorMsg(sata.getErrorMsg());
        std::list<std::string> names;
        deleteErrorMsg(sata.getDriveNames(&names));
        for (const std::string& n : names) sensors->push_back({n, "sata"});
    }
    {
        Temperature_SAS sas("TEMP_SAS");
        std::list<std::string> names;
        ErrorMsg* e = sas.getErrorMsg();
        if (!e) e = sas.getTemperatureNameList(&names);
        if (e) kindErrors->set("sas", renderChain(e));
        for (const std::string& n : names) sensors->push_back({n, "sas"});
    }
    {
        Temperature_CPU cpu("TEMP_CPU");
        std::list<std::string> names;
        if (ErrorMsg* e = cpu.getTemperatureNameList(&names)) kindErrors->set("cpu", renderChain(e));
        for (const std::string& n : names) sensors->push_back({n, "cpu"});
    }
    {
        Temperature_PSU psu("TEMP_PSU");
        std::list<std::string> names;
        ErrorMsg* e = psu.getErrorMsg();
        if (!e) e = psu.getTemperatureNameList(&names);
        if (e) kindErrors->set("psu", renderChain(e));
        for (const std::string& n : names) sensors->push_back({n, "psu"});
    }
}

// The processor layer names packages in lower case ("processor0").
std::string cpuName(const std::string& n) {
    std::string s = n;
    for (char& c : s)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return s;
}

ErrorMsg* request(const Sensor& s, TEMPERATURE_DATA_ELEMENT element, std::list<std::string>* out) {
    if (s.kind == "i2c") {
        TemperatureDAPI api("TemperatureDAPI");
        return api.getDataByName(s.name, element, out);
    }
    if (s.kind == "sata") {
        StdoutCapture quiet;
        Temperature_SATA k("TEMP_SATA");
        quiet.finish();
        deleteErrorMsg(k.getErrorMsg());
        return k.getDataByName(s.name, element, out);
    }
    if (s.kind == "sas") {
        Temperature_SAS k("TEMP_SAS");
        deleteErrorMsg(k.getErrorMsg());
        return k.getDataByName(s.name, element, out);
    }
    if (s.kind == "cpu") {
        Temperature_CPU k("TEMP_CPU");
        return k.getDataByName(cpuName(s.name), element, out);
    }
    Temperature_PSU k("TEMP_PSU");
    deleteErrorMsg(k.getErrorMsg());
    return k.getDataByName(s.name, element, out);
}

int find(Context& ctx, const std::string& name, Sensor* out) {
    std::vector<Sensor> sensors;
    Value ignored = Value::object();
    collect(&sensors, &ignored);
    for (const Sensor& s : sensors)
        if (s.name == name || (s.kind == "cpu" && cpuName(s.name) == cpuName(name))) {
            *out = s;
            return 0;
        }
    ctx.error = "no temperature sensor named " + name;
    return 1;
}

int list(Context& ctx, const std::vector<std::string>& args) {
    if (!args.empty()) return ctx.usage("temp list takes no arguments");
    std::vector<Sensor> sensors;
    Value kindErrors = Value::object();
    collect(&sensors, &kindErrors);
    Value out = Value::array();
    for (const Sensor& s : sensors) {
        Value v = Value::object();
        v.set("name", s.name).set("kind", s.kind);
        std::list<std::string> value;
        ErrorMsg* e = request(s, TEMPERATURE_CURRENT, &value);
        char line[512];
        if (e || value.empty()) {
            const std::string chain = e ? renderChain(e) : "no reading";
            v.set("error", chain);
            snprintf(line, sizeof(line), "%-14s %-5s error: %s\n", s.name.c_str(), s.kind.c_str(), chain.c_str());
        } else {
            v.set("temperature", value.front());
            // SATA readings carry their unit already ("34.0 C").
            const std::string& t = value.front();
            const bool unit = t.size() > 2 && t.compare(t.size() - 2, 2, " C") == 0;
            snprintf(line, sizeof(line), "%-14s %-5s %s%s\n", s.name.c_str(), s.kind.c_str(), t.c_str(), unit ? "" : " C");
        }
        ctx.text += line;
        out.push(v);
    }
    for (const auto& k : kindErrors.items()) ctx.text += "warning: " + k.first + ": " + k.second.str() + "\n";
    ctx.result.set("sensors", out).set("kind_errors", kindErrors);
    return 0;
}

int get(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("temp get NAME");
    Sensor s;
    if (int rc = find(ctx, args[0], &s)) return rc;
    std::list<std::string> value;
    if (ErrorMsg* e = request(s, TEMPERATURE_CURRENT, &value)) return ctx.fail(e);
    const std::string v = value.empty() ? "" : value.front();
    ctx.result.set("name", s.name).set("kind", s.kind).set("temperature", v);
    const bool unit = v.size() > 2 && v.compare(v.size() - 2, 2, " C") == 0;
    ctx.text = s.name + ": " + v + (unit ? "\n" : " C\n");
    return 0;
}

int limits(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("temp limits NAME");
    Sensor s;
    if (int rc = find(ctx, args[0], &s)) return rc;
    static const struct {
        TEMPERATURE_DATA_ELEMENT element;
        const char* key;
    } kLimits[] = {{TEMPERATURE_THRESHOLD_HIGH0, "high0"},
                   {TEMPERATURE_THRESHOLD_LOW0, "low0"},
                   {TEMPERATURE_THRESHOLD_HIGH1, "high1"},
                   {TEMPERATURE_THRESHOLD_LOW1, "low1"}};
    ctx.result.set("name", s.name).set("kind", s.kind);
    for (const auto& l : kLimits) {
        std::list<std::string> value;
        if (ErrorMsg* e = request(s, l.element, &value)) return ctx.fail(e);
        const std::string v = value.empty() ? "Not Support" : value.front();
        ctx.result.set(l.key, v);
        ctx.text += std::string(l.key) + ": " + v + "\n";
    }
    return 0;
}

int setLimit(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 3) return ctx.usage("temp set-limit NAME high|low|high1|low1 VALUE");
    TEMPERATURE_DATA_ELEMENT element;
    if (args[1] == "high")
        element = TEMPERATURE_THRESHOLD_HIGH0;
    else if (args[1] == "low")
        element = TEMPERATURE_THRESHOLD_LOW0;
    else if (args[1] == "high1")
        element = TEMPERATURE_THRESHOLD_HIGH1;
    else if (args[1] == "low1")
        element = TEMPERATURE_THRESHOLD_LOW1;
    else
        return ctx.usage("limit kind is high, low, high1 or low1");
    Sensor s;
    if (int rc = find(ctx, args[0], &s)) return rc;
    ErrorMsg* e = nullptr;
    try {
        if (s.kind == "i2c") {
            TemperatureDAPI api("TemperatureDAPI");
            e = api.setDataByName(s.name, element, args[2]);
        } else if (s.kind == "cpu") {
            Temperature_CPU k("TEMP_CPU");
            e = k.setDataByName(cpuName(s.name), element, args[2]);
        } else if (s.kind == "psu") {
            Temperature_PSU k("TEMP_PSU");
            deleteErrorMsg(k.getErrorMsg());
            e = k.setDataByName(s.name, element, args[2]);
        } else {
            ctx.error = s.kind + " sensors have no limits to set";
            return 1;
        }
    } catch (const std::exception& x) {
        ctx.error = "value is not a number (" + std::string(x.what()) + "): " + args[2];
        return 1;
    }
    if (e) return ctx.fail(e);
    ctx.result.set("name", s.name).set("limit", args[1]).set("value", args[2]);
    ctx.text = s.name + " " + args[1] + " limit set to " + args[2] + "\n";
    return 0;
}

Register reg{
    {"temp", "list", "", "every sensor (I2C, SATA, SAS, processor, supply) with its reading", list},
    {"temp", "get", "NAME", "the current temperature of one sensor", get},
    {"temp", "limits", "NAME", "the sensor's limits (high0, low0, high1, low1)", limits},
    {"temp", "set-limit", "NAME KIND VALUE", "set a limit (KIND: high, low, high1, low1) where the sensor allows it",
     setLimit},
};

}  // namespace
}  // namespace quarn::cli
