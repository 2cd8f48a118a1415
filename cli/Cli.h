// The command-line tool's command table and the context each command runs in.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "api/ErrorMsg.h"
#include "cli/Output.h"

namespace quarn::cli {

// Ocp: JSON lines of the OCP Test and Validation output (board check only).
enum class Format { Text, Json, Ocp };

// What a command hands back: its data, the text rendering of that data, and the
// rendered error chain when it failed.
struct Context {
    Format format = Format::Text;
    bool virtualBoard = false;  // the simulated board: its RAM costs host memory when touched
    Value result = Value::object();
    std::string text;       // printed in text mode
    std::string error;      // the rendered chain, empty on success
    bool usageError = false;

    // Renders (and frees) chain; returns the exit status for the command.
    int fail(ErrorMsg* chain);
    int usage(const std::string& message);
};

using Handler = std::function<int(Context&, const std::vector<std::string>& args)>;

struct Command {
    std::string kind;     // "rtc", "error", ...
    std::string name;     // "show", "set-date"; empty for a kind that is itself a command
    std::string usage;    // arguments, for help
    std::string summary;
    Handler run;
    bool ocp = false;  // speaks --output-format=ocp
};

// Each kind's file adds its commands here.
std::vector<Command>& commands();
struct Register {
    Register(std::initializer_list<Command> list);
};

// Captures what a library call prints to standard output (the clock's date line,
// test tables), so it can be parsed into data or passed through.
class StdoutCapture {
public:
    StdoutCapture();
    ~StdoutCapture();
    std::string finish();

private:
    FILE* m_saved;
    FILE* m_stream;
    char* m_buffer = nullptr;
    size_t m_size = 0;
};

bool parseInt(const std::string& text, long long min, long long max, long long* out);

}  // namespace quarn::cli
