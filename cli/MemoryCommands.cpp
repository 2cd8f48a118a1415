// quarn memory ...: physical memory, the ECC counters, testable memory, memory tests.
#include <cstdio>
#include <cstring>

#include "api/StringUtil.h"
#include "api/platform/Files.h"
#include "cli/Cli.h"
#include "cli/Progress.h"
#include "dapi/memory/MemoryDAPI.h"

namespace quarn::cli {
namespace {

bool parseU64(const std::string& text, unsigned long long* out) {
    if (text.empty() || text[0] == '-') return false;
    char* end = nullptr;
    errno = 0;
    *out = strtoull(text.c_str(), &end, 0);
    return errno == 0 && *end == '\0';
}

bool parseWidth(const std::string& text, int* width) {
    long long w;
    if (!parseInt(text, 8, 64, &w) || (w != 8 && w != 16 && w != 32 && w != 64)) return false;
    *width = static_cast<int>(w);
    return true;
}

std::string hex(unsigned long long v) { return UINT64ToHexStr(v); }

int ecc(Context& ctx, const std::vector<std::string>& args) {
    if (!args.empty()) return ctx.usage("memory ecc takes no arguments");
    MemoryDAPI memory("MemoryDAPI");
    std::list<ECCInformation> report;
    if (ErrorMsg* e = memory.getECCReport(&report)) return ctx.fail(e);
    Value list = Value::array();
    for (const ECCInformation& r : report) {
        list.push(Value::object()
                      .set("dimm", r.name)
                      .set("controller", r.controller)
                      .set("channel", r.channel)
                      .set("slot", r.slot)
                      .set("count", r.count));
        char line[160];
        snprintf(line, sizeof(line), "mc%d channel %d slot %d %-12s %d corrected\n", r.controller,
                 r.channel, r.slot, r.name.c_str(), r.count);
        ctx.text += line;
    }
    if (report.empty()) ctx.text = "no corrected errors\n";
    ctx.result.set("corrected_errors", list);
    return 0;
}

int eccClear(Context& ctx, const std::vector<std::string>& args) {
    if (!args.empty()) return ctx.usage("memory ecc-clear takes no arguments");
    MemoryDAPI memory("MemoryDAPI");
    if (ErrorMsg* e = memory.clearECCReport()) return ctx.fail(e);
    ctx.text = "corrected-error counters cleared\n";
    return 0;
}

int testable(Context& ctx, const std::vector<std::string>& args) {
    unsigned long long start = 0, end = 0;
    if (!(args.empty() || (args.size() == 2 && parseU64(args[0], &start) && parseU64(args[1], &end))))
        return ctx.usage("usage: quarn memory testable [START END]");
    MemoryDAPI memory("MemoryDAPI");
    std::list<MemoryRange> ranges;
    if (ErrorMsg* e = memory.getTestableMemory(&ranges, start, end)) return ctx.fail(e);
    Value list = Value::array();
    for (const MemoryRange& r : ranges) {
        list.push(Value::object().set("name", r.name).set("start", hex(r.start)).set("end", hex(r.end))
                      .set("bytes", static_cast<long long>(r.end - r.start + 1)));
        ctx.text += r.name + ": " + hex(r.start) + "-" + hex(r.end) + "  (" +
                    std::to_string((r.end - r.start + 1) >> 20) + " MiB)\n";
    }
    ctx.result.set("ranges", list);
    return 0;
}

Value rangesValue(const std::list<MemoryRange>& ranges, std::string* text) {
    Value list = Value::array();
    for (const MemoryRange& r : ranges) {
        list.push(Value::object().set("name", r.name).set("start", hex(r.start)).set("end", hex(r.end)));
        *text += r.name + ": " + hex(r.start) + "-" + hex(r.end) + "\n";
    }
    return list;
}

int ranks(Context& ctx, const std::vector<std::string>& args) {
    if (!args.empty()) return ctx.usage("memory ranks takes no arguments");
    MemoryDAPI memory("MemoryDAPI");
    std::list<MemoryRange> ranges;
    if (ErrorMsg* e = memory.getRankRange(&ranges)) return ctx.fail(e);
    ctx.result.set("ranks", rangesValue(ranges, &ctx.text));
    return 0;
}

int layout(Context& ctx, const std::vector<std::string>& args) {
    if (!args.empty()) return ctx.usage("memory layout takes no arguments");
    MemoryDAPI memory("MemoryDAPI");
    if (ErrorMsg* e = memory.initializeMemoryLayoutFile()) return ctx.fail(e);
    std::string text;
    quarn::readTextFile("/tmp/veltrax/ktd/mem/layout", &text);
    Value lines = Value::array();
    size_t pos = 0;
    while (pos < text.size()) {
        size_t nl = text.find('\n', pos);
        if (nl == std::string::npos) nl = text.size();
        lines.push(text.substr(pos, nl - pos));
        pos = nl + 1;
    }
    ctx.result.set("file", "/tmp/veltrax/ktd/mem/layout").set("lines", lines);
    ctx.text = text;
    return 0;
}

int readCmd(Context& ctx, const std::vector<std::string>& args) {
    unsigned long long address;
    int width = 32;
    if (args.empty() || args.size() > 2 || !parseU64(args[0], &address) ||
        (args.size() == 2 && !parseWidth(args[1], &width)))
        return ctx.usage("usage: quarn memory read ADDRESS [8|16|32|64]");
    MemoryDAPI memory("MemoryDAPI");
    unsigned long long v = 0;
    switch (width) {
    case 8: v = memory.readMemory8(address); break;
    case 16: v = memory.readMemory16(address); break;
    case 32: v = memory.readMemory32(address); break;
    default: v = memory.readMemory64(address); break;
    }
    if (ErrorMsg* e = memory.getErrorMsg()) return ctx.fail(e);
    char text[64];
    snprintf(text, sizeof(text), "0x%0*llx", width / 4, v);
    ctx.result.set("address", hex(address)).set("width", width).set("value", text);
    ctx.text = hex(address) + ": " + text + "\n";
    return 0;
}

int writeCmd(Context& ctx, const std::vector<std::string>& args) {
    unsigned long long address, value;
    int width = 32;
    if (args.size() < 2 || args.size() > 3 || !parseU64(args[0], &address) || !parseU64(args[1], &value) ||
        (args.size() == 3 && !parseWidth(args[2], &width)))
        return ctx.usage("usage: quarn memory write ADDRESS VALUE [8|16|32|64]");
    if (width < 64 && value >> width) return ctx.usage("memory write: value does not fit the width");
    MemoryDAPI memory("MemoryDAPI");
    ErrorMsg* e = nullptr;
    switch (width) {
    case 8: e = memory.writeMemory8(address, static_cast<unsigned char>(value)); break;
    case 16: e = memory.writeMemory16(address, static_cast<unsigned short>(value)); break;
    case 32: e = memory.writeMemory32(address, static_cast<unsigned int>(value)); break;
    default: e = memory.writeMemory64(address, value); break;
    }
    if (e) return ctx.fail(e);
    ctx.result.set("address", hex(address)).set("width", width).set("value", hex(value));
    ctx.text = "wrote " + hex(value) + " at " + hex(address) + "\n";
    return 0;
}

const char kTestUsage[] =
    "usage: quarn memory test KIND START END [ARGS]   (or KIND testable [ARGS]: every testable range)\n"
    "  pattern|dataline|addressline|marchc [WIDTH] [PATTERN]   checksum EXPECTED_HEX\n"
    "  random SECONDS   ecc-detect   fill";

int test(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() < 2) return ctx.usage(kTestUsage);
    const std::string kind = args[0];
    MemoryDAPI memory("MemoryDAPI");
    std::list<MemoryRange> ranges;
    size_t next;
    if (args[1] == "testable") {
        if (ErrorMsg* e = memory.getTestableMemory(&ranges, 0, 0)) return ctx.fail(e);
        next = 2;
    } else {
        MemoryRange r;
        if (args.size() < 3 || !parseU64(args[1], &r.start) || !parseU64(args[2], &r.end) || r.end <= r.start)
            return ctx.usage(kTestUsage);
        r.end -= 1;  // END is exclusive on the command line, ranges are inclusive
        ranges.push_back(r);
        next = 3;
    }
    const std::vector<std::string> rest(args.begin() + static_cast<long>(next), args.end());
    int width = 64;
    unsigned long long pattern = 0xA5A5A5A5A5A5A5A5ULL, seconds = 0;
    const bool widthKind = kind == "pattern" || kind == "dataline" || kind == "addressline" || kind == "marchc";
    if (widthKind) {
        if (rest.size() > 2 || (rest.size() >= 1 && !parseWidth(rest[0], &width)) ||
            (rest.size() == 2 && !parseU64(rest[1], &pattern)))
            return ctx.usage(kTestUsage);
    } else if (kind == "checksum") {
        if (rest.size() != 1) return ctx.usage(kTestUsage);
    } else if (kind == "random") {
        if (rest.size() != 1 || !parseU64(rest[0], &seconds) || seconds == 0 || seconds > 86400)
            return ctx.usage(kTestUsage);
    } else if (kind == "ecc-detect" || kind == "fill") {
        if (!rest.empty()) return ctx.usage(kTestUsage);
    } else {
        return ctx.usage(kTestUsage);
    }
    // The simulated RAM is host memory once touched: on the virtual board a test covers
    // at most the first 256 MiB of each range.
    constexpr unsigned long long kVirtualLimit = 256ULL << 20;
    for (MemoryRange& r : ranges) {
        if (ctx.virtualBoard && r.end - r.start + 1 > kVirtualLimit) {
            r.end = r.start + kVirtualLimit - 1;
            ctx.result.set("clipped_to_bytes", static_cast<long long>(kVirtualLimit));
            fprintf(stderr, "quarn: virtual board: testing the first 256 MiB of %s-%s\n",
                    hex(r.start).c_str(), hex(r.end).c_str());
        }
    }
    Value done = Value::array();
    for (const MemoryRange& r : ranges) {
        const unsigned long long s = r.start, e = r.end + 1;
        ErrorMsg* chain = runWithProgress(ctx, memory, [&]() -> ErrorMsg* {
            if (kind == "pattern") return memory.patternTest(s, e, width, pattern);
            if (kind == "dataline") return memory.dataLineTest(s, e, width);
            if (kind == "addressline") return memory.addressLineTest(s, e, width, pattern);
            if (kind == "marchc") return memory.marchCTest(s, e, width, pattern);
            if (kind == "checksum") return memory.checksumTest(s, e, rest[0], CHECKSUM_8BIT_TWOS_COMPLEMENT);
            if (kind == "random") return memory.randomAddressTest(s, e, static_cast<unsigned int>(seconds));
            if (kind == "ecc-detect") return memory.eccErrorDetectionTest(s, e);
            return memory.patternTest(s, e);
        });
        done.push(Value::object().set("start", hex(s)).set("end", hex(r.end)).set("passed", chain == nullptr));
        ctx.result.set("test", kind).set("ranges", done);
        if (chain) return ctx.fail(chain);
        ctx.text += "memory " + kind + " test passed on " + hex(s) + "-" + hex(r.end) + "\n";
    }
    return 0;
}

Register reg{
    {"memory", "ecc", "", "corrected-error counts per DIMM (EDAC)", ecc},
    {"memory", "ecc-clear", "", "reset the corrected-error counters", eccClear},
    {"memory", "testable", "[START END]", "memory above the kernel's mem= limit", testable},
    {"memory", "ranks", "", "the address range of every DIMM rank (from SPD)", ranks},
    {"memory", "layout", "", "write the rank layout around the PCI hole and show it", layout},
    {"memory", "read", "ADDRESS [8|16|32|64]", "read physical memory", readCmd},
    {"memory", "write", "ADDRESS VALUE [8|16|32|64]", "write physical memory", writeCmd},
    {"memory", "test", "KIND START END|testable [ARGS]", "pattern, dataline, addressline, marchc, checksum, random, ecc-detect, fill", test},
};

}  // namespace
}  // namespace quarn::cli
