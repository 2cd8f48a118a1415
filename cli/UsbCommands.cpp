// quarn usb ...: keyboards, mice and USB disks, their attributes and the disk tests.
#include <cstdio>
#include <list>
#include <string>
#include <vector>

#include "cli/Cli.h"
#include "cli/MountCheck.h"
#include "cli/Progress.h"
#include "dapi/usb/USBDAPI.h"

namespace quarn::cli {
namespace {

const char* const kElementNames[10] = {"",      "device_node", "serial",        "manufacturer",       "size_mib",
                                       "version", "speed_mbps", "physical_block", "logical_block", "sg_node"};

int list(Context& ctx, const std::vector<std::string>& args) {
    if (!args.empty()) return ctx.usage("usb list takes no arguments");
    USBDAPI usb("USBDAPI");
    std::list<std::string> names;
    if (ErrorMsg* e = usb.displayUSBDevicesList(&names)) return ctx.fail(e);
    Value out = Value::array();
    for (const std::string& name : names) {
        uint32_t id = 0;
        ErrorMsg* e = usb.getLogicalIdByName(name, &id);
        if (e) {  // the "nothing attached" line
            deleteErrorMsg(e);
            ctx.text += name + "\n";
            continue;
        }
        std::list<std::string> node, maker, speed;
        ErrorMsg* f = usb.getDataByID(id, USB_DATA_DEVICE_NODE, &node);
        if (!f) f = usb.getDataByID(id, USB_DATA_MANUFACTURER, &maker);
        if (!f) f = usb.getDataByID(id, USB_DATA_SPEED, &speed);
        if (f) return ctx.fail(f);
        const UsbConfiguration* entry = usb.device()->entry(id);
        Value v = Value::object();
        v.set("id", id).set("name", name).set("interface", entry ? entry->interface : "");
        v.set("device_node", node.front()).set("manufacturer", maker.front()).set("speed_mbps", speed.front());
        out.push(v);
        char line[160];
        snprintf(line, sizeof(line), "%-3u %-10s %-8s %-9s %-12s %s Mb/s\n", id, name.c_str(),
                 entry ? entry->interface : "", node.front().c_str(), maker.front().c_str(), speed.front().c_str());
        ctx.text += line;
    }
    ctx.result.set("devices", out);
    return 0;
}

int resolve(Context& ctx, USBDAPI& usb, const std::string& name, uint32_t* id) {
    ErrorMsg* e = usb.getLogicalIdByName(name, id);
    return e ? ctx.fail(e) : 0;
}

int info(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("usage: quarn usb info NAME");
    USBDAPI usb("USBDAPI");
    uint32_t id = 0;
    if (int rc = resolve(ctx, usb, args[0], &id)) return rc;
    ctx.result.set("id", id).set("name", usb.device()->entry(id)->name);
    for (uint32_t element = 1; element <= 9; ++element) {
        std::list<std::string> out;
        if (ErrorMsg* e = usb.getDataByID(id, static_cast<USB_DATA_ELEMENT>(element), &out)) return ctx.fail(e);
        const std::string value = out.empty() ? "" : out.front();
        ctx.result.set(kElementNames[element], value);
        char line[128];
        snprintf(line, sizeof(line), "%-15s: %s\n", kElementNames[element], value.c_str());
        ctx.text += line;
    }
    return 0;
}

// NAME [LBA [SIZE_MB [BLOCK_KB]]]
int runTest(Context& ctx, const std::vector<std::string>& argv, const char* name, int kind) {
    std::vector<std::string> args = argv;
    const bool force = takeFlag(args, "--force");
    if (args.empty() || args.size() > 4)
        return ctx.usage(std::string("usage: quarn usb ") + name + " NAME [LBA [SIZE_MB [BLOCK_KB]]]" +
                         (kind == 1 ? "" : " [--force]"));
    long long lba = 0, size = 16, block = 64;
    if (args.size() > 1 && !parseInt(args[1], 0, 0xFFFFFFFFll, &lba)) return ctx.usage("LBA is a 512-byte block 0-4294967295");
    if (args.size() > 2 && !parseInt(args[2], 1, 65536, &size)) return ctx.usage("SIZE_MB is 1-65536");
    if (args.size() > 3 && !parseInt(args[3], 1, 4096, &block)) return ctx.usage("BLOCK_KB is 1-4096");
    USBDAPI usb("USBDAPI");
    uint32_t id = 0;
    if (int rc = resolve(ctx, usb, args[0], &id)) return rc;
    if (kind != 1) {
        std::list<std::string> node;
        if (ErrorMsg* e = usb.getDataByID(id, USB_DATA_DEVICE_NODE, &node)) return ctx.fail(e);
        if (int rc = refuseMounted(ctx, node.front(), force, name)) return rc;
    }
    std::list<std::string> out;
    const uint64_t total = static_cast<uint64_t>(size) << 20;
    const uint32_t bytes = static_cast<uint32_t>(block) << 10;
    ErrorMsg* e = runWithProgress(ctx, usb, [&] {
        const uint32_t start = static_cast<uint32_t>(lba);
        return kind == 0   ? usb.readwriteTest(id, &out, start, total, bytes)
               : kind == 1 ? usb.readPerformanceTest(id, &out, start, total, bytes)
                           : usb.writePerformanceTest(id, &out, start, total, bytes);
    });
    ctx.result.set("test", name).set("id", id).set("lba", lba).set("size_mb", size).set("block_bytes", bytes);
    ctx.result.set("passed", e == nullptr).set("commands", static_cast<long long>(usb.device()->transferCount()));
    if (e) return ctx.fail(e);
    Value lines = Value::array();
    for (const std::string& l : out) {
        lines.push(l);
        ctx.text += l + "\n";
    }
    ctx.result.set("result", lines);
    return 0;
}

int rwTest(Context& ctx, const std::vector<std::string>& args) { return runTest(ctx, args, "rw-test", 0); }
int readPerf(Context& ctx, const std::vector<std::string>& args) { return runTest(ctx, args, "read-perf", 1); }
int writePerf(Context& ctx, const std::vector<std::string>& args) { return runTest(ctx, args, "write-perf", 2); }

Register reg{
    {"usb", "list", "", "USB keyboards, mice and disks (usbhid, usb-storage) with logical names", list},
    {"usb", "info", "NAME", "node, serial, manufacturer, size, version, speed, block sizes, SG node", info},
    {"usb", "rw-test", "NAME [LBA [SIZE_MB [BLOCK_KB]]] [--force]", "random data written and read back (overwrites)", rwTest},
    {"usb", "read-perf", "NAME [LBA [SIZE_MB [BLOCK_KB]]]", "READ(10) throughput", readPerf},
    {"usb", "write-perf", "NAME [LBA [SIZE_MB [BLOCK_KB]]] [--force]", "WRITE(10) throughput (overwrites)", writePerf},
};

}  // namespace
}  // namespace quarn::cli
