// quarn cpu ... and quarn stability: processors, their MSRs, the machine-check log, pi test.
#include <signal.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <list>

#include "api/ErrorText.h"
#include "cli/Cli.h"
#include "dapi/processor/ProcessorDAPI.h"
#include "dapi/processor/StabilityTestObject.h"

namespace quarn::cli {
namespace {

// "processor1" or just "1".
std::string packageName(const std::string& arg) {
    long long n;
    if (parseInt(arg, 0, 4095, &n)) return "processor" + std::to_string(n);
    return arg;
}

// "Thread per core" -> "thread_per_core".
std::string jsonKey(const std::string& label) {
    std::string key;
    for (char c : label) key += c == ' ' ? '_' : static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return key;
}

// "Key: value\n" lines into an object.
void addLines(Value* object, const std::string& lines) {
    size_t pos = 0;
    while (pos < lines.size()) {
        size_t nl = lines.find('\n', pos);
        std::string line = lines.substr(pos, nl == std::string::npos ? std::string::npos : nl - pos);
        pos = nl == std::string::npos ? lines.size() : nl + 1;
        size_t colon = line.find(": ");
        if (colon == std::string::npos) continue;
        std::string value = line.substr(colon + 2);
        long long n;
        if (parseInt(value, -1000000, 1000000000, &n)) object->set(jsonKey(line.substr(0, colon)), n);
        else object->set(jsonKey(line.substr(0, colon)), value);
    }
}

int info(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() > 1) return ctx.usage("usage: quarn cpu info [PACKAGE]");
    ProcessorDAPI cpu("ProcessorDAPI");
    int logical = 0, packages = 0;
    if (ErrorMsg* e = cpu.Get_CPU_number(&logical)) return ctx.fail(e);
    if (ErrorMsg* e = cpu.Get_CPU_physical_number(&packages)) return ctx.fail(e);
    ctx.result.set("logical_processors", logical).set("packages", packages);
    ctx.text = "Logical processors: " + std::to_string(logical) +
               "\nPackages: " + std::to_string(packages) + "\n";
    std::vector<std::string> names;
    if (args.empty()) {
        for (int i = 0; i < packages; ++i) names.push_back("processor" + std::to_string(i));
    } else {
        names.push_back(packageName(args[0]));
    }
    Value list = Value::array();
    for (const std::string& name : names) {
        std::string lines;
        if (ErrorMsg* e = cpu.GetInformation(name, 0, &lines)) return ctx.fail(e);
        Value entry = Value::object();
        entry.set("name", name);
        addLines(&entry, lines);
        ctx.text += "\n" + name + "\n" + lines;
        // The temperature needs the package sensor driver; without it the rest still shows.
        std::string temperature;
        if (ErrorMsg* e = cpu.GetInformation(name, 9, &temperature)) {
            std::string why;
            getLastErrorMessage(e, &why);
            entry.set("temperature", Value());
            ctx.text += "Temperature: unavailable (" + why + ")\n";
        } else {
            addLines(&entry, temperature + "\n");
            ctx.text += temperature + "\n";
        }
        list.push(entry);
    }
    ctx.result.set("processors", list);
    return 0;
}

std::string hex64(unsigned long long v) {
    char buf[24];
    snprintf(buf, sizeof(buf), "0x%016llx", v);
    return buf;
}

int msrRead(Context& ctx, const std::vector<std::string>& args) {
    long long msr, count = 1;
    if (args.size() < 2 || args.size() > 3 || !parseInt(args[1], 0, 0xFFFFFFFFLL, &msr) ||
        (args.size() == 3 && !parseInt(args[2], 0, 256, &count)))
        return ctx.usage("usage: quarn cpu msr-read PACKAGE MSR [COUNT]  (COUNT 0-256)");
    ProcessorDAPI cpu("ProcessorDAPI");
    std::list<uint64_t> values;
    const std::string name = packageName(args[0]);
    if (ErrorMsg* e = cpu.Read(name, static_cast<int>(static_cast<uint32_t>(msr)),
                               static_cast<int>(count), &values))
        return ctx.fail(e);
    ctx.result.set("package", name);
    Value regs = Value::array();
    uint32_t index = static_cast<uint32_t>(msr);
    for (uint64_t v : values) {
        char line[64];
        snprintf(line, sizeof(line), "MSR 0x%x: %s\n", index, hex64(v).c_str());
        ctx.text += line;
        Value r = Value::object();
        char idx[16];
        snprintf(idx, sizeof(idx), "0x%x", index);
        r.set("msr", idx).set("value", hex64(v));
        regs.push(r);
        ++index;
    }
    ctx.result.set("registers", regs);
    return 0;
}

int msrWrite(Context& ctx, const std::vector<std::string>& args) {
    long long msr;
    unsigned long long value = 0;
    char* end = nullptr;
    if (args.size() == 3) {
        errno = 0;
        value = strtoull(args[2].c_str(), &end, 0);
    }
    if (args.size() != 3 || !parseInt(args[1], 0, 0xFFFFFFFFLL, &msr) || args[2].empty() ||
        errno != 0 || *end != '\0' || args[2][0] == '-')
        return ctx.usage("usage: quarn cpu msr-write PACKAGE MSR VALUE");
    ProcessorDAPI cpu("ProcessorDAPI");
    const std::string name = packageName(args[0]);
    if (ErrorMsg* e = cpu.Write(name, static_cast<int>(static_cast<uint32_t>(msr)), value))
        return ctx.fail(e);
    char idx[16];
    snprintf(idx, sizeof(idx), "0x%x", static_cast<uint32_t>(msr));
    ctx.result.set("package", name).set("msr", idx).set("value", hex64(value));
    ctx.text = std::string("MSR ") + idx + " of " + name + " set to " + hex64(value) + "\n";
    return 0;
}

int mce(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() > 1) return ctx.usage("usage: quarn cpu mce [PACKAGE]");
    ProcessorDAPI cpu("ProcessorDAPI");
    std::string text;
    ErrorMsg* e = args.empty() ? cpu.GetMCE(&text) : cpu.GetMCE(packageName(args[0]), &text);
    ctx.text = text.empty() || text.back() == '\n' ? text : text + "\n";
    ctx.result.set("log", text);
    if (e) return ctx.fail(e);
    return 0;
}

void onInterrupt(int) { stoppressed.store(1); }

int stability(Context& ctx, const std::vector<std::string>& args) {
    long long power = 0, instances = 16;
    bool compare = true, quiet = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (a == "--power" && i + 1 < args.size()) {
            if (!parseInt(args[++i], 4, 26, &power)) return ctx.usage("--power takes 4 to 26");
        } else if (a == "--instances" && i + 1 < args.size()) {
            if (!parseInt(args[++i], 1, StabilityTestObject::kMaxInstances, &instances))
                return ctx.usage("--instances takes 1 to 64");
        } else if (a == "--no-compare") {
            compare = false;
        } else if (a == "--quiet") {
            quiet = true;
        } else {
            return ctx.usage("usage: quarn stability [--power N] [--instances K] [--no-compare] [--quiet]");
        }
    }
    StabilityTestObject test("StabilityTest");
    test.setInstanceCount(static_cast<int>(instances));
    test.setCompareDisabled(compare ? 0 : 1);

    struct sigaction action {}, previous {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    stoppressed.store(0);
    sigaction(SIGINT, &action, &previous);
    int passed = -1;
    // The table goes straight to the terminal in text mode; JSON keeps stdout clean.
    StdoutCapture* capture = ctx.format == Format::Json ? new StdoutCapture : nullptr;
    ErrorMsg* e = test.PiCalculate(&passed, quiet ? 0 : 1, static_cast<int>(power));
    std::string table = capture ? capture->finish() : std::string();
    delete capture;
    sigaction(SIGINT, &previous, nullptr);
    const bool interrupted = stoppressed.load() != 0;
    stoppressed.store(0);
    if (e) return ctx.fail(e);

    ctx.result.set("digits", static_cast<long long>(test.digitCount()))
        .set("instances", static_cast<int>(instances))
        .set("compare", compare)
        .set("mismatches", test.mismatchCount())
        .set("checksum_failures", test.checksumFailureCount())
        .set("interrupted", interrupted);
    if (!table.empty()) ctx.result.set("table", table);
    if (interrupted) {
        ctx.result.set("passed", false);
        return 130;
    }
    if (test.mismatchCount() > 0) {
        ctx.result.set("passed", false);
        ctx.error = std::string("instances differ; first failure after ") + test.firstFailureText();
        return 1;
    }
    ctx.result.set("passed", passed == 1);
    if (passed != 1) {
        ctx.error = "checksum of " + std::to_string(test.digitCount()) + " digits of pi is wrong";
        return 1;
    }
    if (quiet) ctx.text = "PASSED\n";
    return 0;
}

Register reg{
    {"cpu", "info", "[PACKAGE]", "processor counts and information lines per package", info},
    {"cpu", "msr-read", "PACKAGE MSR [COUNT]", "read MSRs on the package's first CPU", msrRead},
    {"cpu", "msr-write", "PACKAGE MSR VALUE", "write an MSR on the package's first CPU", msrWrite},
    {"cpu", "mce", "[PACKAGE]", "the kernel's machine-check log", mce},
    {"stability", "", "[--power N] [--instances K] [--no-compare] [--quiet]",
     "pi stability test (Ctrl-C stops it)", stability},
};

}  // namespace
}  // namespace quarn::cli
