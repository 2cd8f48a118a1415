// The board inventory and the board check, over the tool's own commands.
#include "cli/BoardCheck.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "api/platform/Platform.h"

namespace quarn::cli {

CommandRun runCommand(const std::string& kind, const std::string& name, const std::vector<std::string>& args,
                      bool virtualBoard) {
    CommandRun run;
    for (const Command& c : commands()) {
        if (c.kind != kind || c.name != name) continue;
        Context ctx;
        ctx.format = Format::Json;  // data only: no progress bar, nothing drawn
        ctx.virtualBoard = virtualBoard;
        // Whatever a command prints itself (a report printed by the library) is kept with
        // its text, never mixed into the board's document.
        StdoutCapture capture;
        run.status = c.run(ctx, args);
        const std::string printed = capture.finish();
        run.result = ctx.result;
        run.text = printed + ctx.text;
        run.error = ctx.error;
        if (run.status != 0 && run.error.empty()) run.error = "quarn " + kind + " " + name + " failed";
        return run;
    }
    run.known = false;
    run.status = 1;
    run.error = "the tool has no command '" + kind + " " + name + "'";
    return run;
}

namespace {

const Value* field(const Value& v, const std::string& key) { return v.get(key); }

std::string str(const Value& v, const std::string& key) {
    const Value* f = v.get(key);
    if (!f) return "";
    if (f->kind() == Value::Kind::String) return f->str();
    if (f->kind() == Value::Kind::Int) return std::to_string(f->integer());
    return "";
}

const std::vector<std::pair<std::string, Value>>& items(const Value& v, const std::string& key) {
    static const std::vector<std::pair<std::string, Value>> none;
    const Value* f = v.get(key);
    return f && f->kind() == Value::Kind::Array ? f->items() : none;
}

CheckResult result(const std::string& kind, const std::string& name, const std::string& part = "") {
    CheckResult r;
    r.kind = kind;
    r.name = name;
    r.part = part;
    return r;
}

// A check that passes when the command does; the command's data is handed to judge.
void command(std::vector<CheckResult>* out, const std::string& kind, const std::string& name,
             const std::string& part, const std::string& cmdKind, const std::string& cmd,
             const std::vector<std::string>& args, bool virtualBoard,
             const std::function<void(const CommandRun&, CheckResult&)>& judge = nullptr) {
    CheckResult r = result(kind, name, part);
    CommandRun run = runCommand(cmdKind, cmd, args, virtualBoard);
    if (!run.known) {
        r.status = "skip";
        r.error = run.error;
    } else if (run.status != 0) {
        r.fail(run.error);
    } else if (judge) {
        judge(run, r);
    }
    out->push_back(std::move(r));
}

unsigned long long parseHex(const std::string& text) { return strtoull(text.c_str(), nullptr, 16); }

void memoryTest(bool quick, bool virtualBoard, std::vector<CheckResult>* out) {
    CommandRun testable = runCommand("memory", "testable", {}, virtualBoard);
    CheckResult r = result("memory", "memory.pattern-test");
    if (testable.status != 0) {
        r.fail(testable.error);
        out->push_back(r);
        return;
    }
    const auto& ranges = items(testable.result, "ranges");
    if (ranges.empty()) {
        r.status = "skip";
        r.error = "no testable memory (the kernel uses all of it)";
        out->push_back(r);
        return;
    }
    // A short pass at the start of the first testable range: long enough to cross many
    // pages and both channels, short enough for every board check.
    const unsigned long long start = parseHex(str(ranges[0].second, "start"));
    const unsigned long long end = parseHex(str(ranges[0].second, "end"));
    unsigned long long length = quick ? (4ULL << 20) : (64ULL << 20);
    if (end - start + 1 < length) length = end - start + 1;
    char s[32], e[32];
    snprintf(s, sizeof(s), "0x%llx", start);
    snprintf(e, sizeof(e), "0x%llx", start + length);
    r.part = std::string(s) + "-" + e;
    CommandRun run = runCommand("memory", "test", {"pattern", s, e}, virtualBoard);
    if (run.status != 0) r.fail(run.error);
    Measurement m;
    m.name = "tested bytes";
    m.value = static_cast<double>(length);
    m.unit = "B";
    r.measurements.push_back(m);
    out->push_back(r);
}

void pciErrors(bool virtualBoard, std::vector<CheckResult>* out) {
    CommandRun list = runCommand("pci", "list", {}, virtualBoard);
    if (list.status != 0) {
        CheckResult r = result("pci", "pci.errors");
        r.fail(list.error);
        out->push_back(r);
        return;
    }
    CheckResult r = result("pci", "pci.errors");
    size_t functions = 0;
    for (const auto& d : items(list.result, "devices")) {
        const std::string bdf = str(d.second, "address");
        if (bdf.empty()) continue;
        ++functions;
        CommandRun errors = runCommand("pci", "errors", {bdf}, virtualBoard);
        if (errors.status != 0) {
            r.part = bdf;
            r.fail(errors.error);
            continue;
        }
        std::string set;
        for (const auto& e : items(errors.result, "errors")) {
            const Value* v = field(e.second, "value");
            if (v && v->kind() == Value::Kind::Int && v->integer() != 0) set += (set.empty() ? "" : ", ") + str(e.second, "name");
        }
        if (!set.empty() && r.status != "fail") {
            r.part = bdf;
            r.fail(set);
        }
    }
    Measurement m;
    m.name = "functions checked";
    m.value = static_cast<double>(functions);
    r.measurements.push_back(m);
    out->push_back(r);
}

void pciSwitches(bool virtualBoard, std::vector<CheckResult>* out) {
    CommandRun list = runCommand("pci", "switches", {}, virtualBoard);
    if (list.status != 0) {
        CheckResult r = result("pci", "pci.switch-errors");
        r.fail(list.error);
        out->push_back(r);
        return;
    }
    for (const auto& s : items(list.result, "switches")) {
        const std::string id = str(s.second, "id");
        command(out, "pci", "pci.switch-errors", id, "pci", "switch-errors", {id}, virtualBoard,
                [](const CommandRun& run, CheckResult& r) {
                    // Any error bit set on any port of the switch.
                    for (const auto& port : items(run.result, "ports")) {
                        const Value* errors = port.second.get("errors");
                        if (!errors) continue;
                        for (const auto& e : errors->items())
                            if (e.second.kind() == Value::Kind::Int && e.second.integer() != 0)
                                r.fail(str(port.second, "port") + ": " + e.first);
                    }
                });
    }
}

void sataChecks(bool virtualBoard, std::vector<CheckResult>* out) {
    command(out, "sata", "sata.port-errors", "", "sata", "errors", {}, virtualBoard,
            [](const CommandRun& run, CheckResult& r) {
                for (const auto& p : items(run.result, "ports"))
                    if (parseHex(str(p.second, "serror")) != 0 && r.status != "fail") {
                        r.part = str(p.second, "name");
                        r.fail("SError " + str(p.second, "serror"));
                    }
            });
    CommandRun drives = runCommand("sata", "drives", {}, virtualBoard);
    if (drives.status != 0) {
        CheckResult r = result("sata", "sata.smart");
        r.fail(drives.error);
        out->push_back(r);
        return;
    }
    for (const auto& d : items(drives.result, "drives")) {
        const std::string port = str(d.second, "name");
        command(out, "sata", "sata.smart", port, "sata", "smart", {port}, virtualBoard,
                [](const CommandRun& run, CheckResult& r) {
                    const std::string overall = str(run.result, "overall");
                    if (overall != "good") r.fail("SMART overall status: " + overall);
                    const std::string t = str(run.result, "temperature");
                    if (!t.empty()) {
                        Measurement m;
                        m.name = "drive temperature";
                        m.value = atof(t.c_str());
                        m.unit = "C";
                        m.hasMax = true;
                        m.max = 60;  // a drive above 60 C on a test floor is a cooling fault
                        if (!m.within()) r.fail("drive temperature " + t + " above 60 C");
                        r.measurements.push_back(m);
                    }
                });
    }
}

void i2cChecks(bool virtualBoard, std::vector<CheckResult>* out) {
    CommandRun list = runCommand("i2c", "list", {}, virtualBoard);
    CheckResult profile = result("i2c", "i2c.profile");
    if (list.status != 0) {
        profile.fail(list.error);
        out->push_back(profile);
        return;
    }
    const std::string warnings = str(list.result, "profile_warnings");
    if (!warnings.empty()) profile.fail(warnings);
    out->push_back(profile);
    for (const auto& d : items(list.result, "devices"))
        if (str(d.second, "type") == "mux") {
            const std::string name = str(d.second, "name");
            command(out, "i2c", "i2c.mux-test", name, "i2c", "mux-test", {name}, virtualBoard);
        }
}

// A check per part named by a list command: list, then run cmd on each part's name.
void perPart(bool virtualBoard, std::vector<CheckResult>* out, const std::string& kind, const std::string& name,
             const std::string& listKind, const std::string& listCmd, const std::string& arrayKey,
             const std::string& nameKey, const std::string& cmdKind, const std::string& cmd,
             const std::vector<std::string>& extra = {},
             const std::function<bool(const Value&)>& wanted = nullptr) {
    CommandRun list = runCommand(listKind, listCmd, {}, virtualBoard);
    if (!list.known) return;
    if (list.status != 0) {
        CheckResult r = result(kind, name);
        r.fail(list.error);
        out->push_back(r);
        return;
    }
    for (const auto& item : items(list.result, arrayKey)) {
        const std::string part = str(item.second, nameKey);
        if (part.empty() || (wanted && !wanted(item.second))) continue;
        std::vector<std::string> args = {part};
        args.insert(args.end(), extra.begin(), extra.end());
        command(out, kind, name, part, cmdKind, cmd, args, virtualBoard);
    }
}

}  // namespace

std::vector<BoardCheck> boardChecks(bool quick) {
    std::vector<BoardCheck> all = {
        {"rtc", "rtc.clock", "the real-time clock reads", true,
         [](bool v, std::vector<CheckResult>* out) { command(out, "rtc", "rtc.clock", "rtc0", "rtc", "show", {}, v); }},
        {"rtc", "rtc.accuracy", "the clock's periodic interrupt against the interval timer", true,
         [](bool v, std::vector<CheckResult>* out) {
             command(out, "rtc", "rtc.accuracy", "rtc0", "rtc", "accuracy-test", {}, v);
         }},
        {"memory", "memory.dimms", "every DIMM slot described from SPD", true,
         [](bool v, std::vector<CheckResult>* out) {
             command(out, "memory", "memory.dimms", "", "memory", "dimms", {}, v,
                     [](const CommandRun& run, CheckResult& r) {
                         Measurement m;
                         m.name = "DIMMs";
                         m.value = static_cast<double>(items(run.result, "dimms").size());
                         m.hasMin = true;
                         m.min = 1;
                         if (!m.within()) r.fail("no DIMM found");
                         r.measurements.push_back(m);
                     });
         }},
        {"memory", "memory.ecc", "no corrected ECC errors on any rank", true,
         [](bool v, std::vector<CheckResult>* out) {
             command(out, "memory", "memory.ecc", "", "memory", "ecc", {}, v,
                     [](const CommandRun& run, CheckResult& r) {
                         for (const auto& e : items(run.result, "corrected_errors")) {
                             Measurement m;
                             m.name = "corrected errors " + str(e.second, "dimm");
                             const Value* c = e.second.get("count");
                             m.value = c ? static_cast<double>(c->integer()) : 0;
                             m.hasMax = true;
                             m.max = 0;
                             if (!m.within() && r.status != "fail") {
                                 r.part = str(e.second, "dimm");
                                 r.fail(r.part + ": " + std::to_string(static_cast<long long>(m.value)) +
                                        " corrected errors");
                             }
                             r.measurements.push_back(m);
                         }
                     });
         }},
        {"memory", "memory.pattern-test", "a pattern test at the start of testable memory", true,
         [quick](bool v, std::vector<CheckResult>* out) { memoryTest(quick, v, out); }},
        {"pci", "pci.functions", "the PCI functions are listed", true,
         [](bool v, std::vector<CheckResult>* out) {
             command(out, "pci", "pci.functions", "", "pci", "list", {}, v, [](const CommandRun& run, CheckResult& r) {
                 Measurement m;
                 m.name = "functions";
                 m.value = static_cast<double>(items(run.result, "devices").size());
                 m.hasMin = true;
                 m.min = 1;
                 if (!m.within()) r.fail("no PCI function found");
                 r.measurements.push_back(m);
             });
         }},
        {"pci", "pci.errors", "no PCI, PCIe or AER error bit set on any function", false, pciErrors},
        {"pci", "pci.switch-errors", "no error bit on any port of each PCIe switch", true, pciSwitches},
        {"cpu", "cpu.info", "the processors are described", true,
         [](bool v, std::vector<CheckResult>* out) { command(out, "cpu", "cpu.info", "", "cpu", "info", {}, v); }},
        {"cpu", "cpu.mce", "the machine-check log is empty", true,
         [](bool v, std::vector<CheckResult>* out) {
             command(out, "cpu", "cpu.mce", "", "cpu", "mce", {}, v, [](const CommandRun& run, CheckResult& r) {
                 const std::string log = str(run.result, "log");
                 if (log.find("No MCE error message") == std::string::npos) r.fail("machine checks logged: " + log);
             });
         }},
        {"cpu", "cpu.stability", "a short pi-digit stability run on two instances", true,
         [quick](bool v, std::vector<CheckResult>* out) {
             command(out, "cpu", "cpu.stability", "", "stability", "",
                     {"--power", quick ? "16" : "18", "--instances", "2", "--quiet"}, v);
         }},
        {"i2c", "i2c.profile", "the I2C profile parses and every switch routes", true, i2cChecks},
        {"sata", "sata.smart", "SATA port errors, SMART health and drive temperatures", true, sataChecks},
        {"uart", "uart.scratch-test", "every serial port's scratch register (restored)", true,
         [](bool v, std::vector<CheckResult>* out) {
             perPart(v, out, "uart", "uart.scratch-test", "uart", "list", "ports", "name", "uart", "scratch-test");
         }},
        {"uart", "uart.loopback-test", "every serial port's internal loopback (registers restored)", true,
         [](bool v, std::vector<CheckResult>* out) {
             perPart(v, out, "uart", "uart.loopback-test", "uart", "list", "ports", "name", "uart", "loopback-test");
         }},
        {"tpm", "tpm.selftest", "the TPM's full self-test", true,
         [](bool v, std::vector<CheckResult>* out) { command(out, "tpm", "tpm.selftest", "tpm0", "tpm", "selftest", {}, v); }},
        {"sas", "sas.phy-errors", "every SAS adapter's PHY error counters read", true,
         [](bool v, std::vector<CheckResult>* out) {
             perPart(v, out, "sas", "sas.phy-errors", "sas", "list", "controllers", "name", "sas", "phy-errors");
         }},
        {"expander", "expander.errors", "every expander's PHY error counters read", true,
         [](bool v, std::vector<CheckResult>* out) {
             perPart(v, out, "expander", "expander.errors", "expander", "list", "expanders", "name", "expander", "errors");
         }},
        {"nvme", "nvme.smart", "every NVMe controller's SMART / health log", true,
         [](bool v, std::vector<CheckResult>* out) {
             perPart(v, out, "nvme", "nvme.smart", "nvme", "list", "controllers", "name", "nvme", "smart");
         }},
        {"storage", "storage.smart", "the health of every drive of the board's drive list", true,
         [](bool v, std::vector<CheckResult>* out) {
             // USB sticks carry no SMART data: their health is the read test's business.
             perPart(v, out, "storage", "storage.smart", "storage", "list", "drives", "name", "storage", "smart", {},
                     [](const Value& d) { return str(d, "type") != "USB"; });
         }},
        {"eth", "eth.link", "every Ethernet port's link", true,
         [](bool v, std::vector<CheckResult>* out) {
             perPart(v, out, "eth", "eth.link", "eth", "list", "ports", "name", "eth", "link");
         }},
        {"temp", "temp.sensors", "every temperature sensor reads", true,
         [](bool v, std::vector<CheckResult>* out) { command(out, "temp", "temp.sensors", "", "temp", "list", {}, v); }},
        {"psu", "psu.info", "every power supply answers", true,
         [](bool v, std::vector<CheckResult>* out) {
             perPart(v, out, "psu", "psu.info", "psu", "list", "supplies", "name", "psu", "info");
         }},
        {"bbu", "bbu.report", "the battery gauge's report", true,
         [](bool v, std::vector<CheckResult>* out) { command(out, "bbu", "bbu.report", "", "bbu", "report", {}, v); }},
        {"fpga", "fpga.spad-test", "the FPGA scratch pad (contents restored)", false,
         [](bool v, std::vector<CheckResult>* out) { command(out, "fpga", "fpga.spad-test", "", "fpga", "spad-test", {}, v); }},
    };
    if (!quick) return all;
    std::vector<BoardCheck> q;
    for (BoardCheck& c : all)
        if (c.quick) q.push_back(std::move(c));
    return q;
}

std::vector<CheckResult> runBoardChecks(const std::vector<BoardCheck>& checks, bool virtualBoard,
                                        const std::function<void(size_t, size_t)>& progress) {
    std::vector<CheckResult> results;
    for (size_t i = 0; i < checks.size(); ++i) {
        const size_t first = results.size();
        // Time as the test floor sees it: the host's clock, also on the simulated board.
        const uint64_t t0 = quarn::linuxPlatform().monotonicNanoseconds();
        checks[i].run(virtualBoard, &results);
        const double seconds = static_cast<double>(quarn::linuxPlatform().monotonicNanoseconds() - t0) / 1e9;
        for (size_t k = first; k < results.size(); ++k) results[k].seconds = seconds / static_cast<double>(results.size() - first);
        if (progress) progress(i + 1, checks.size());
    }
    return results;
}

std::vector<InventorySection> boardInventory(bool virtualBoard) {
    // Each kind's list command, in board order; a kind this build lacks is left out.
    static const std::vector<std::pair<std::string, std::string>> lists = {
        {"memory", "dimms"},  {"cpu", "info"},      {"pci", "list"},     {"pci", "switches"},  {"sata", "drives"},
        {"sas", "list"},      {"sas", "drives"},    {"expander", "list"}, {"nvme", "list"},    {"usb", "list"},
        {"storage", "list"},  {"eth", "list"},      {"i2c", "list"},     {"temp", "list"},     {"psu", "list"},
        {"bbu", "list"},      {"uart", "list"},     {"tpm", "caps"},     {"fpga", "base"},     {"gpio", "list"},
        {"led", "list"},      {"nvsram", "list"},   {"ntb", "list"},     {"rtc", "show"},
    };
    std::vector<InventorySection> out;
    for (const auto& l : lists) {
        CommandRun run = runCommand(l.first, l.second, {}, virtualBoard);
        if (!run.known) continue;
        out.push_back({l.first, l.first + " " + l.second, std::move(run)});
    }
    return out;
}

std::string nowRfc3339() {
    struct timespec t;
    quarn::linuxPlatform().wallClock(&t);
    struct tm tm;
    gmtime_r(&t.tv_sec, &tm);
    char text[64];
    snprintf(text, sizeof(text), "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
             tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<int>(t.tv_nsec / 1000000) % 1000);
    return text;
}

std::string ocpLines(const std::vector<CheckResult>& results, const std::string& commandLine,
                     const std::string& dutId, const std::string& startTime, const std::string& endTime) {
    std::string out;
    long long sequence = 0;
    auto emit = [&](const std::string& key, Value body, const std::string& time) {
        Value line = Value::object();
        line.set(key, std::move(body));
        line.set("sequenceNumber", sequence++);
        line.set("timestamp", time);
        out += line.toJson() + "\n";
    };
    emit("schemaVersion", Value::object().set("major", 2).set("minor", 0), startTime);

    Value hardware = Value::array();
    std::vector<std::string> parts;
    for (const CheckResult& r : results) {
        if (r.part.empty()) continue;
        bool seen = false;
        for (const std::string& p : parts) seen = seen || p == r.kind + ":" + r.part;
        if (seen) continue;
        parts.push_back(r.kind + ":" + r.part);
        hardware.push(Value::object().set("hardwareInfoId", r.kind + ":" + r.part).set("name", r.part).set("partType", r.kind));
    }
    Value dut = Value::object();
    dut.set("id", dutId);
    dut.set("softwareInfos", Value::array().push(Value::object()
                                                     .set("softwareInfoId", "quarn")
                                                     .set("name", "quarn")
                                                     .set("version", QUARN_VERSION)
                                                     .set("softwareType", "APPLICATION")));
    dut.set("hardwareInfos", hardware);
    Value start = Value::object();
    start.set("name", "quarn board check").set("version", QUARN_VERSION).set("commandLine", commandLine);
    start.set("parameters", Value::object()).set("dutInfo", dut);
    emit("testRunArtifact", Value::object().set("testRunStart", start), startTime);

    bool failed = false;
    for (size_t i = 0; i < results.size(); ++i) {
        const CheckResult& r = results[i];
        const std::string id = std::to_string(i);
        auto step = [&](const std::string& key, Value body) {
            emit("testStepArtifact", Value::object().set("testStepId", id).set(key, std::move(body)), endTime);
        };
        step("testStepStart", Value::object().set("name", r.name + (r.part.empty() ? "" : " " + r.part)));
        for (const Measurement& m : r.measurements) {
            Value v = Value::object().set("name", m.name).set("value", m.value);
            if (!m.unit.empty()) v.set("unit", m.unit);
            Value validators = Value::array();
            if (m.hasMax) validators.push(Value::object().set("type", "LESS_THAN_OR_EQUAL").set("value", m.max));
            if (m.hasMin) validators.push(Value::object().set("type", "GREATER_THAN_OR_EQUAL").set("value", m.min));
            if (!validators.items().empty()) v.set("validators", validators);
            if (!r.part.empty()) v.set("hardwareInfoId", r.kind + ":" + r.part);
            step("measurement", v);
        }
        Value diagnosis = Value::object();
        const std::string type = r.status == "pass" ? "PASS" : r.status == "fail" ? "FAIL" : "UNKNOWN";
        diagnosis.set("verdict", r.name + "-" + r.status).set("type", type);
        if (!r.error.empty()) diagnosis.set("message", r.error);
        if (!r.part.empty()) diagnosis.set("hardwareInfoId", r.kind + ":" + r.part);
        step("diagnosis", diagnosis);
        step("testStepEnd", Value::object().set("status", r.status == "skip" ? "SKIP" : "COMPLETE"));
        failed = failed || r.status == "fail";
    }
    emit("testRunArtifact",
         Value::object().set("testRunEnd", Value::object().set("status", "COMPLETE").set("result", failed ? "FAIL" : "PASS")),
         endTime);
    return out;
}

}  // namespace quarn::cli
