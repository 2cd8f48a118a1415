// The manual page quarn(1), written from the command table so it never lags behind it.
#include "cli/ManPage.h"

#include <set>

#include "cli/Cli.h"

namespace quarn::cli {

namespace {

// Text as troff shows it: backslashes and minus signs escaped, and a line never starts
// with a control character.
std::string roff(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '\\') out += "\\e";
        else if (c == '-') out += "\\-";
        else out += c;
    }
    if (!out.empty() && (out[0] == '.' || out[0] == '\'')) out.insert(0, "\\&");
    return out;
}

}  // namespace

std::string manPage(const std::string& version) {
    std::string m;
    m += ".TH QUARN 1 \"\" \"quarn " + roff(version) + "\" \"User Commands\"\n";
    m += ".SH NAME\nquarn \\- hardware diagnostics of the storage\\-controller board\n";
    m += ".SH SYNOPSIS\n.B quarn\n[\\fB\\-\\-board\\fR \\fIhost\\fR|\\fIvirtual\\fR] "
         "[\\fB\\-\\-output\\-format\\fR=\\fItext\\fR|\\fIjson\\fR] "
         "\\fIKIND\\fR \\fICOMMAND\\fR [\\fIARGS\\fR]\n";
    m += ".br\n.B quarn\n\\fIKIND\\fR \\fB\\-\\-help\\fR\n";
    m += ".SH DESCRIPTION\n"
         "Lists the board's devices, reads their state, changes settings and runs tests "
         "through the diagnostic classes of libquarn. A failure prints the library's "
         "error chain on one line on standard error. Most commands need root on the board.\n";
    m += ".SH OPTIONS\n";
    m += ".TP\n\\fB\\-\\-board\\fR \\fIhost\\fR|\\fIvirtual\\fR\n"
         "\\fIhost\\fR (the default) is the machine quarn runs on; \\fIvirtual\\fR is a "
         "simulated board that needs neither root nor the hardware.\n";
    m += ".TP\n\\fB\\-\\-output\\-format\\fR=\\fItext\\fR|\\fIjson\\fR, \\fB\\-o\\fR \\fIformat\\fR\n"
         "Text for people (the default) or one JSON object with the members "
         "\\fBcommand\\fR, \\fBboard\\fR, \\fBstatus\\fR (pass or fail), \\fBerror\\fR "
         "(the rendered chain, on failure) and \\fBresult\\fR.\n";
    m += ".TP\n\\fB\\-\\-list\\-commands\\fR\nOne line \"KIND COMMAND\" per command, for shell completion.\n";

    std::set<std::string> seen;
    for (const Command& c : commands()) {
        if (!seen.insert(c.kind).second) continue;
        std::string title;
        for (char ch : c.kind) title += static_cast<char>(ch >= 'a' && ch <= 'z' ? ch - 32 : ch);
        m += ".SH " + roff(title) + " COMMANDS\n";
        for (const Command& d : commands()) {
            if (d.kind != c.kind) continue;
            m += ".TP\n\\fBquarn " + roff(d.kind) + (d.name.empty() ? "" : " " + roff(d.name)) +
                 "\\fR";
            if (!d.usage.empty()) m += " " + roff(d.usage);
            m += "\n" + roff(d.summary) + "\n";
        }
    }
    m += ".SH EXIT STATUS\n"
         ".TP\n0\nThe command passed.\n"
         ".TP\n1\nThe command or its test failed; the error chain is on standard error.\n"
         ".TP\n2\nThe command line was not understood.\n";
    m += ".SH EXAMPLES\n.nf\n"
         "quarn \\-\\-board virtual rtc show\n"
         "quarn error 0xCA080E05\n"
         "quarn \\-o json pci list\n"
         ".fi\n";
    return m;
}

}  // namespace quarn::cli
