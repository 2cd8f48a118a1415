// quarn nvsram ...: the nvSRAM device, its STORE and RECALL, and its tests.
#include <cstdio>
#include <string>
#include <vector>

#include "cli/Cli.h"
#include "cli/Progress.h"
#include "dapi/nvsram/NVSRAMDAPI.h"

namespace quarn::cli {
namespace {

std::string hex(unsigned long long v) {
    char t[24];
    snprintf(t, sizeof(t), "0x%llx", v);
    return t;
}

int list(Context& ctx, const std::vector<std::string>&) {
    NVSRAMDAPI nv("NVSRAMDAPI");
    std::vector<NVSRAM_RESOURCE_INFO> devices;
    if (ErrorMsg* e = nv.getInformationList(&devices)) return ctx.fail(e);
    Value arr = Value::array();
    for (const NVSRAM_RESOURCE_INFO& d : devices) {
        arr.push(Value::object()
                     .set("id", static_cast<int>(d.id))
                     .set("name", d.name)
                     .set("base", hex(d.base))
                     .set("size", static_cast<long long>(d.size))
                     .set("element_bits", static_cast<int>(d.elementSize)));
        char line[128];
        snprintf(line, sizeof(line), "%u %s base %s size %u bytes, %u-bit elements\n", d.id, d.name.c_str(),
                 hex(d.base).c_str(), d.size, d.elementSize);
        ctx.text += line;
    }
    ctx.result.set("devices", arr);
    return 0;
}

int store(Context& ctx, const std::vector<std::string>&) {
    NVSRAMDAPI nv("NVSRAMDAPI");
    if (ErrorMsg* e = nv.store()) return ctx.fail(e);
    ctx.result.set("operation", "store");
    ctx.text += "STORE: SRAM copied to the non-volatile array\n";
    return 0;
}

int recall(Context& ctx, const std::vector<std::string>&) {
    NVSRAMDAPI nv("NVSRAMDAPI");
    if (ErrorMsg* e = nv.recall()) return ctx.fail(e);
    ctx.result.set("operation", "recall");
    ctx.text += "RECALL: non-volatile array copied to the SRAM\n";
    return 0;
}

// quarn nvsram test KIND [START END [WIDTH]]: offsets inside the SRAM, END inclusive.
int test(Context& ctx, const std::vector<std::string>& args) {
    const char* usage = "usage: quarn nvsram test dataline|addressline|nonvolatile [START END [8|16|32|64]]";
    if (args.empty() || (args.size() != 1 && args.size() != 3 && args.size() != 4)) return ctx.usage(usage);
    const std::string& kind = args[0];
    if (kind != "dataline" && kind != "addressline" && kind != "nonvolatile") return ctx.usage(usage);
    NVSRAMDAPI nv("NVSRAMDAPI");
    NVSRAM_RESOURCE_INFO info;
    if (ErrorMsg* e = nv.getInformationByID(0, &info)) return ctx.fail(e);
    long long start = 0, end = static_cast<long long>(info.size) - 1, width = 64;
    // Without a range the data lines are tested over the first 4 KB (they are the same
    // for every address); the other tests cover the whole SRAM.
    if (kind == "dataline" && end > 0xFFF) end = 0xFFF;
    if (args.size() >= 3 && (!parseInt(args[1], 0, 0xFFFFFFFFll, &start) || !parseInt(args[2], 0, 0xFFFFFFFFll, &end)))
        return ctx.usage(usage);
    if (args.size() == 4 && !parseInt(args[3], 0, 64, &width)) return ctx.usage(usage);
    const unsigned long long s = static_cast<unsigned long long>(start), e = static_cast<unsigned long long>(end);
    const int w = static_cast<int>(width);
    ErrorMsg* chain = runWithProgress(ctx, nv, [&]() -> ErrorMsg* {
        if (kind == "dataline") return nv.dataLineTest(s, e, w);
        if (kind == "addressline") return nv.addressLineTest(s, e, w);
        return nv.runNonVolatileTest(s, e, w);
    });
    ctx.result.set("test", kind).set("start", hex(s)).set("end", hex(e)).set("width", w).set("passed", chain == nullptr);
    if (chain) return ctx.fail(chain);
    ctx.text += "nvsram " + kind + " test passed on " + hex(s) + "-" + hex(e) + " (contents restored)\n";
    return 0;
}

Register reg{
    {"nvsram", "list", "", "the nvSRAM device and its SRAM window (BAR 1)", list},
    {"nvsram", "store", "", "software STORE: SRAM to the non-volatile array", store},
    {"nvsram", "recall", "", "software RECALL: non-volatile array to the SRAM", recall},
    {"nvsram", "test", "dataline|addressline|nonvolatile [START END [WIDTH]]", "tests that put the contents back", test},
};

}  // namespace
}  // namespace quarn::cli
