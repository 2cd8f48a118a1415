// quarn board inventory | check [--quick]: the whole board in one document and one run.
#include <cstdio>
#include <string>
#include <vector>

#include "api/platform/Files.h"
#include "cli/BoardCheck.h"
#include "cli/Cli.h"
#include "cli/Progress.h"

namespace quarn::cli {
namespace {

int inventory(Context& ctx, const std::vector<std::string>& args) {
    if (!args.empty()) return ctx.usage("board inventory takes no arguments");
    std::vector<InventorySection> sections = boardInventory(ctx.virtualBoard);
    Value list = Value::array();
    std::string failedKinds;
    for (const InventorySection& s : sections) {
        Value v = Value::object();
        v.set("kind", s.kind).set("command", "quarn " + s.command);
        v.set("status", s.run.status == 0 ? "pass" : "fail");
        if (s.run.status != 0) {
            v.set("error", s.run.error);
            failedKinds += (failedKinds.empty() ? "" : ", ") + s.command;
        }
        v.set("result", s.run.result);
        list.push(v);
        ctx.text += "== " + s.command + "\n";
        ctx.text += s.run.status == 0 ? s.run.text : "error: " + s.run.error + "\n";
        if (!ctx.text.empty() && ctx.text.back() != '\n') ctx.text += '\n';
    }
    ctx.result.set("sections", list);
    if (!failedKinds.empty()) {
        ctx.error = "board inventory: no answer from " + failedKinds;
        return 1;
    }
    return 0;
}

std::string dutId(bool virtualBoard) {
    std::string host;
    if (quarn::readTextFile("/proc/sys/kernel/hostname", &host) == 0) {
        while (!host.empty() && (host.back() == '\n' || host.back() == ' ')) host.pop_back();
        if (!host.empty()) return host;
    }
    return virtualBoard ? "virtual-board" : "host";
}

int check(Context& ctx, const std::vector<std::string>& args) {
    bool quick = false;
    for (const std::string& a : args) {
        if (a == "--quick") quick = true;
        else return ctx.usage("usage: quarn board check [--quick]");
    }
    const std::vector<BoardCheck> checks = boardChecks(quick);
    const bool bar = progressShown(ctx);
    const std::string started = nowRfc3339();
    std::vector<CheckResult> results = runBoardChecks(checks, ctx.virtualBoard, [&](size_t done, size_t total) {
        if (bar) drawProgress(done * 100 / total, done == total);
    });
    const std::string ended = nowRfc3339();

    int passed = 0, failed = 0, skipped = 0;
    Value list = Value::array();
    std::string failedNames;
    for (const CheckResult& r : results) {
        const std::string label = r.name + (r.part.empty() ? "" : " " + r.part);
        if (r.status == "pass") ++passed;
        else if (r.status == "skip") ++skipped;
        else {
            ++failed;
            failedNames += (failedNames.empty() ? "" : ", ") + label;
        }
        char head[16];
        snprintf(head, sizeof(head), "%-5s ", r.status == "pass" ? "PASS" : r.status == "fail" ? "FAIL" : "SKIP");
        ctx.text += head + label + (r.error.empty() ? "" : ": " + r.error) + "\n";
        Value v = Value::object();
        v.set("kind", r.kind).set("name", r.name).set("part", r.part).set("status", r.status);
        if (!r.error.empty()) v.set("error", r.error);
        v.set("seconds", r.seconds);
        Value ms = Value::array();
        for (const Measurement& m : r.measurements) {
            Value mv = Value::object().set("name", m.name).set("value", m.value).set("unit", m.unit);
            if (m.hasMin) mv.set("min", m.min);
            if (m.hasMax) mv.set("max", m.max);
            ms.push(mv);
        }
        v.set("measurements", ms);
        list.push(v);
    }
    ctx.text += "board check: " + std::to_string(passed) + " passed, " + std::to_string(failed) + " failed, " +
                std::to_string(skipped) + " skipped\n";
    ctx.result.set("quick", quick).set("started", started).set("ended", ended).set("checks", list);
    ctx.result.set("passed", passed).set("failed", failed).set("skipped", skipped);
    if (ctx.format == Format::Ocp) {
        const std::string commandLine = std::string("quarn --board ") + (ctx.virtualBoard ? "virtual" : "host") +
                                        " --output-format=ocp board check" + (quick ? " --quick" : "");
        ctx.text = ocpLines(results, commandLine, dutId(ctx.virtualBoard), started, ended);
    }
    if (failed) {
        ctx.error = "board check: failed: " + failedNames;
        return 1;
    }
    return 0;
}

Register reg({
    {"board", "inventory", "", "every device of every kind in one document", inventory},
    {"board", "check", "[--quick]", "every non-destructive check of every kind; exit 0 only when none failed", check,
     true},
});

}  // namespace
}  // namespace quarn::cli
