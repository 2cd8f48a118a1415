// quarn: the command-line front end over the diagnostic classes.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>

#include "api/ErrorText.h"
#include "api/platform/Platform.h"
#include "cli/Cli.h"
#include "cli/ManPage.h"
#include "vboard/Board.h"

namespace quarn::cli {

namespace {

void printHelp(const std::string& kind) {
    if (kind.empty()) {
        printf("usage: quarn [--board host|virtual] [--output-format=text|json|ocp] KIND COMMAND [ARGS]\n\n");
        printf("Hardware diagnostics of the storage-controller board.\n\n");
        printf("  --board host      the machine this runs on (default; most commands need root)\n");
        printf("  --board virtual   a simulated board, no root and no hardware needed\n");
        printf("  --output-format   text (default), json, or ocp (board check: OCP Test and Validation lines)\n");
        printf("  --fault NAME      with --board virtual: break one part of the simulated board\n");
        for (const auto& f : quarn::vboard::Board::faultList()) printf("                      %-18s %s\n", f.first.c_str(), f.second.c_str());
        printf("\nKinds:\n");
        std::set<std::string> seen;
        for (const Command& c : commands()) {
            if (!seen.insert(c.kind).second) continue;
            printf("  %-8s", c.kind.c_str());
            bool first = true;
            for (const Command& d : commands()) {
                if (d.kind != c.kind) continue;
                if (d.name.empty()) {
                    printf(" %s", d.summary.c_str());
                    break;
                }
                printf("%s%s", first ? " " : " | ", d.name.c_str());
                first = false;
            }
            printf("\n");
        }
        printf("\n'quarn KIND --help' lists a kind's commands.\n");
        return;
    }
    printf("usage:\n");
    for (const Command& c : commands()) {
        if (c.kind != kind) continue;
        std::string line = "quarn " + c.kind + (c.name.empty() ? "" : " " + c.name) +
                           (c.usage.empty() ? "" : " " + c.usage);
        printf("  %-44s %s\n", line.c_str(), c.summary.c_str());
    }
}

bool parseFormat(const std::string& text, Format* format) {
    if (text == "json" || text == "text" || text == "ocp") {
        *format = text == "json" ? Format::Json : text == "ocp" ? Format::Ocp : Format::Text;
        return true;
    }
    fprintf(stderr, "quarn: unknown output format '%s' (text, json, or ocp for board check)\n", text.c_str());
    return false;
}

}  // namespace
}  // namespace quarn::cli

int main(int argc, char** argv) {
    using namespace quarn::cli;
    std::string board = "host";
    Format format = Format::Text;
    std::vector<std::string> args, faults;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--fault" && i + 1 < argc) {
            faults.push_back(argv[++i]);
        } else if (a.rfind("--fault=", 0) == 0) {
            faults.push_back(a.substr(8));
        } else if (a == "--board" && i + 1 < argc) {
            board = argv[++i];
        } else if (a.rfind("--board=", 0) == 0) {
            board = a.substr(8);
        } else if ((a == "--output-format" || a == "-o") && i + 1 < argc) {
            if (!parseFormat(argv[++i], &format)) return 2;
        } else if (a.rfind("--output-format=", 0) == 0) {
            if (!parseFormat(a.substr(16), &format)) return 2;
        } else {
            args.push_back(a);
        }
    }
    if (!args.empty() && args[0] == "--list-commands") {
        // One "KIND COMMAND" line each, for shell completion.
        for (const Command& c : commands()) printf("%s %s\n", c.kind.c_str(), c.name.c_str());
        return 0;
    }
    if (!args.empty() && args[0] == "--man") {
        // The manual page, in troff; the build installs it as quarn.1.
        fputs(manPage(QUARN_VERSION).c_str(), stdout);
        return 0;
    }
    if (args.empty() || args[0] == "--help" || args[0] == "-h" || args[0] == "help") {
        printHelp("");
        return args.empty() ? 2 : 0;
    }
    if (board != "host" && board != "virtual") {
        fprintf(stderr, "quarn: unknown board '%s' (host or virtual)\n", board.c_str());
        return 2;
    }

    const std::string kind = args[0];
    bool kindKnown = false;
    for (const Command& c : commands()) kindKnown = kindKnown || c.kind == kind;
    if (!kindKnown) {
        fprintf(stderr, "quarn: unknown kind '%s'; 'quarn --help' lists them\n", kind.c_str());
        return 2;
    }
    if (args.size() > 1 && (args[1] == "--help" || args[1] == "-h")) {
        printHelp(kind);
        return 0;
    }
    const Command* command = nullptr;
    std::vector<std::string> rest;
    for (const Command& c : commands()) {
        if (c.kind != kind) continue;
        if (c.name.empty()) {
            command = &c;
            rest.assign(args.begin() + 1, args.end());
            break;
        }
        if (args.size() > 1 && c.name == args[1]) {
            command = &c;
            rest.assign(args.begin() + 2, args.end());
            break;
        }
    }
    if (!command) {
        fprintf(stderr, "quarn: %s: unknown command '%s'\n", kind.c_str(),
                args.size() > 1 ? args[1].c_str() : "");
        printHelp(kind);
        return 2;
    }

    if (format == Format::Ocp && !command->ocp) {
        fprintf(stderr, "quarn: --output-format=ocp is for 'quarn board check'\n");
        return 2;
    }

    std::unique_ptr<quarn::vboard::Board> virtualBoard;
    if (board == "virtual") {
        try {
            virtualBoard = std::make_unique<quarn::vboard::Board>();
        } catch (const std::exception& e) {
            fprintf(stderr, "quarn: cannot start the virtual board: %s\n", e.what());
            return 1;
        }
        for (const std::string& f : faults) {
            if (!virtualBoard->injectFault(f)) {
                fprintf(stderr, "quarn: unknown fault '%s'; the virtual board has:\n", f.c_str());
                for (const auto& known : quarn::vboard::Board::faultList())
                    fprintf(stderr, "  %-18s %s\n", known.first.c_str(), known.second.c_str());
                return 2;
            }
        }
        quarn::installPlatform(virtualBoard.get());
    } else if (!faults.empty()) {
        fprintf(stderr, "quarn: --fault is for --board virtual\n");
        return 2;
    }

    Context ctx;
    ctx.format = format;
    ctx.virtualBoard = board == "virtual";
    int status = command->run(ctx, rest);
    quarn::installPlatform(nullptr);

    if (format == Format::Json) {
        Value out = Value::object();
        out.set("command", kind + (command->name.empty() ? "" : " " + command->name));
        out.set("board", board);
        out.set("status", status == 0 ? "pass" : "fail");
        if (!ctx.error.empty()) out.set("error", ctx.error);
        out.set("result", ctx.result);
        printf("%s\n", out.toJson().c_str());
    } else if (format == Format::Ocp) {
        fputs(ctx.text.c_str(), stdout);  // the JSON lines; a failure is in them as well
        if (!ctx.error.empty() && ctx.usageError) fprintf(stderr, "quarn: %s\n", ctx.error.c_str());
    } else {
        fputs(ctx.text.c_str(), stdout);
        if (!ctx.error.empty()) {
            fprintf(stderr, "%s%s\n", ctx.usageError ? "quarn: " : "", ctx.error.c_str());
        }
    }
    return status;
}
