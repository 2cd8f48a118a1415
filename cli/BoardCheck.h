// The whole board in one run: an inventory of every device kind and one check of every
// non-destructive diagnostic, built on the tool's own commands so that each check reads
// exactly what `quarn KIND COMMAND` shows, with the same rendered chains.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "cli/Cli.h"
#include "cli/Output.h"

namespace quarn::cli {

// What one command of the tool gave: its exit status, data and rendered chain.
struct CommandRun {
    int status = 0;
    Value result = Value::object();
    std::string text;
    std::string error;
    bool known = true;  // false: the tool has no such command
};
CommandRun runCommand(const std::string& kind, const std::string& name, const std::vector<std::string>& args,
                      bool virtualBoard);

// A number a check measured, with the limits it must stay within.
struct Measurement {
    std::string name;
    double value = 0;
    std::string unit;
    bool hasMax = false;
    double max = 0;
    bool hasMin = false;
    double min = 0;
    bool within() const { return (!hasMax || value <= max) && (!hasMin || value >= min); }
};

struct CheckResult {
    std::string kind;   // device kind ("memory", "pci" ...)
    std::string name;   // "memory.ecc"
    std::string part;   // the device it judged, when one ("SATA0-Port2", "0000:03:00.0")
    std::string status = "pass";  // pass, fail or skip
    std::string error;            // the rendered chain or the reason, when not a pass
    std::vector<Measurement> measurements;
    double seconds = 0;

    void fail(const std::string& why) {
        if (status != "fail") error = why;
        status = "fail";
    }
};

struct BoardCheck {
    std::string kind;
    std::string name;
    std::string summary;
    bool quick;  // part of `board check --quick`
    // Appends one or more results (a check over every port gives one per port).
    std::function<void(bool virtualBoard, std::vector<CheckResult>* out)> run;
};

// Every check in run order; with quick, only the quick ones.
std::vector<BoardCheck> boardChecks(bool quick);

// Runs the checks, calling progress(done, total) after each.
std::vector<CheckResult> runBoardChecks(const std::vector<BoardCheck>& checks, bool virtualBoard,
                                        const std::function<void(size_t, size_t)>& progress);

// One section per device kind: the list command of that kind and what it gave.
struct InventorySection {
    std::string kind;
    std::string command;
    CommandRun run;
};
std::vector<InventorySection> boardInventory(bool virtualBoard);

// The host's time now in RFC 3339, Z-normalised, to the millisecond.
std::string nowRfc3339();

// The run as OCP Test and Validation output: one JSON object per line (schema version,
// test run start, per check a test step with its measurements and diagnosis, test run end).
std::string ocpLines(const std::vector<CheckResult>& results, const std::string& commandLine,
                     const std::string& dutId, const std::string& startTime, const std::string& endTime);

}  // namespace quarn::cli
