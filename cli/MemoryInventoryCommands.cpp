// quarn memory dimms | dimm NAME: the DIMM inventory and one DIMM decoded from its SPD.
#include <cstdio>
#include <list>
#include <string>

#include "api/StringUtil.h"
#include "cli/Cli.h"
#include "dapi/memory/MemoryDAPI.h"

namespace quarn::cli {
namespace {

std::string hex(unsigned long long v) {
    char text[32];
    snprintf(text, sizeof(text), "0x%llx", v);
    return text;
}

Value record(const DIMMInformation& d) {
    Value voltages = Value::array();
    for (const std::string& v : d.operableVoltages) voltages.push(v);
    Value r = Value::object();
    r.set("index", d.dimmIndex)
        .set("socket", d.socketIndex)
        .set("channel", d.channelIndex)
        .set("decoded", d.decoded)
        .set("locator", d.locator)
        .set("memory_type", d.memoryType)
        .set("module_type", d.moduleType)
        .set("size", d.size)
        .set("speed", d.speed)
        .set("ranks", d.ranks)
        .set("first_rank", d.firstRank)
        .set("last_rank", d.lastRank)
        .set("module_manufacturer", d.moduleManufacturer)
        .set("dram_manufacturer", d.dramManufacturer)
        .set("part_number", d.partNumber)
        .set("serial_number", d.serialNumber)
        .set("operable_voltages", voltages)
        .set("start", hex(d.start))
        .set("end", hex(d.end));
    return r;
}

int dimms(Context& ctx, const std::vector<std::string>& args) {
    if (!args.empty()) return ctx.usage("memory dimms takes no arguments");
    MemoryDAPI memory("MemoryDAPI");
    std::list<DIMMInformation> list;
    if (ErrorMsg* e = memory.getInformation(&list)) return ctx.fail(e);
    // The names in the same SPD order as the inventory; without them the index names the DIMM.
    std::list<std::string> names;
    if (ErrorMsg* e = memory.getDeviceList(&names, false)) {
        deleteErrorMsg(e);
        names.clear();
    }
    auto name = names.begin();
    Value out = Value::array();
    char line[256];
    ctx.text = "NAME   SKT CH RANKS  SIZE       SPEED       TYPE        MODULE  MAKER     PART                  SERIAL\n";
    for (const DIMMInformation& d : list) {
        const std::string n = name != names.end() ? *name++ : "dimm" + std::to_string(d.dimmIndex);
        Value r = record(d);
        r.set("name", n);
        out.push(r);
        if (!d.decoded) {
            snprintf(line, sizeof(line), "%-6s %3d %2d (empty or not decoded)\n", n.c_str(), d.socketIndex,
                     d.channelIndex);
        } else {
            const std::string ranks = std::to_string(d.firstRank) + "-" + std::to_string(d.lastRank);
            snprintf(line, sizeof(line), "%-6s %3d %2d %-6s %-10s %-11s %-11s %-7s %-9s %-21s %s\n", n.c_str(),
                     d.socketIndex, d.channelIndex, ranks.c_str(), d.size.c_str(), d.speed.c_str(),
                     d.memoryType.c_str(), d.moduleType.c_str(), d.moduleManufacturer.c_str(),
                     d.partNumber.c_str(), d.serialNumber.c_str());
        }
        ctx.text += line;
    }
    ctx.result.set("dimms", out);
    return 0;
}

int dimm(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("usage: quarn memory dimm NAME (for example dimm1)");
    MemoryDAPI memory("MemoryDAPI");
    DIMMInformation d;
    if (ErrorMsg* e = memory.getInformation(args[0], &d)) return ctx.fail(e);
    ctx.result.set("name", args[0])
        .set("memory_type", d.memoryType)
        .set("module_type", d.moduleType)
        .set("size", d.size)
        .set("speed", d.speed)
        .set("ranks", d.ranks)
        .set("module_manufacturer", d.moduleManufacturer)
        .set("dram_manufacturer", d.dramManufacturer)
        .set("part_number", d.partNumber)
        .set("serial_number", d.serialNumber);
    ctx.text = args[0] + ": " + d.memoryType + " " + d.moduleType + ", " + d.size + ", " + d.ranks + " ranks, " +
               d.speed + "\n  module " + d.moduleManufacturer + ", DRAM " + d.dramManufacturer + "\n  part " +
               d.partNumber + ", serial " + d.serialNumber + "\n";
    return 0;
}

Register reg{
    {"memory", "dimms", "", "DIMM inventory: sockets, channels, ranks, sizes, makers", dimms},
    {"memory", "dimm", "NAME", "one DIMM decoded from its SPD (NAME: dimm0, dimm1, ...)", dimm},
};

}  // namespace
}  // namespace quarn::cli
