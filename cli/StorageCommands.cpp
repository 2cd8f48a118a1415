// quarn storage ...: the board's drive list (SAS, NVMe, USB) and the storage tests.
#include <cstdio>
#include <string>
#include <vector>

#include "api/ErrorText.h"
#include "cli/Cli.h"
#include "cli/MountCheck.h"
#include "cli/Progress.h"
#include "dapi/storage/StorageDAPI.h"
#include "ddapi/scsi/SCSISenseAnalyzer.h"

namespace quarn::cli {
namespace {

const char* typeName(uint32_t type) {
    return type == STORAGE_TYPE_SAS ? "SAS" : type == STORAGE_TYPE_USB ? "USB" : type == STORAGE_TYPE_NVME ? "NVMe" : "?";
}

// Creates the object; its construction notes (a drive whose details could not be read)
// are kept as warnings.
int open(Context& ctx, StorageDAPI& storage) {
    if (ErrorMsg* e = storage.getErrorMsg()) {
        std::string text;
        getErrorMessage(e, &text);
        ctx.result.set("warning", text);
        ctx.text += "warning: " + text + "\n";
    }
    return 0;
}

int resolve(Context& ctx, StorageDAPI& storage, const std::string& arg, unsigned int* id) {
    long long n = 0;
    if (parseInt(arg, 0, 0xFFFF, &n)) {
        *id = static_cast<unsigned int>(n);
        if (!storage.device()->findDrive(*id)) return ctx.fail(storage.getDataByID(*id, STORAGE_DATA_NAME, nullptr));
        return 0;
    }
    ErrorMsg* e = storage.getLogicalIdByName(arg, id);
    return e ? ctx.fail(e) : 0;
}

int list(Context& ctx, const std::vector<std::string>& args) {
    if (!args.empty()) return ctx.usage("storage list takes no arguments");
    StorageDAPI storage("StorageDAPI");
    open(ctx, storage);
    Value out = Value::array();
    for (const StorageDrive& d : storage.device()->drives()) {
        Value v = Value::object();
        v.set("id", d.logicalID).set("type", typeName(d.controllerType)).set("name", d.driveName);
        v.set("device_node", d.deviceNode).set("sg_node", d.sgDeviceNode).set("vendor", d.vendor);
        v.set("model", d.modelName).set("serial", d.serialNumber).set("firmware", d.firmwareVersion);
        v.set("capacity_mb", static_cast<long long>(d.capacityMB)).set("logical_block", d.logicalBlockSize);
        v.set("physical_block", d.physicalBlockSize).set("link_speed", d.linkSpeed);
        out.push(v);
        char line[256];
        snprintf(line, sizeof(line), "%-3u %-5s %-13s %-13s %-9s %-24s %-20s %10llu MB %5u B\n", d.logicalID,
                 typeName(d.controllerType), d.driveName.c_str(), d.deviceNode.c_str(), d.sgDeviceNode.c_str(),
                 (d.modelName.empty() ? d.vendor : d.modelName).c_str(), d.serialNumber.c_str(), d.capacityMB,
                 d.logicalBlockSize);
        ctx.text += line;
    }
    if (storage.device()->drives().empty()) ctx.text += "no drive found\n";
    ctx.result.set("drives", out);
    return 0;
}

int info(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("usage: quarn storage info ID|NAME");
    StorageDAPI storage("StorageDAPI");
    open(ctx, storage);
    unsigned int id = 0;
    if (int rc = resolve(ctx, storage, args[0], &id)) return rc;
    std::string report;
    if (ErrorMsg* e = storage.getDataByID(id, STORAGE_DATA_REPORT, &report)) return ctx.fail(e);
    const StorageDrive* d = storage.device()->findDrive(id);
    ctx.result.set("id", id).set("name", d->driveName).set("type", typeName(d->controllerType)).set("report", report);
    ctx.text += d->driveName + "\n" + report;
    return 0;
}

int smart(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("usage: quarn storage smart ID|NAME");
    StorageDAPI storage("StorageDAPI");
    open(ctx, storage);
    unsigned int id = 0;
    if (int rc = resolve(ctx, storage, args[0], &id)) return rc;
    if (ErrorMsg* e = storage.getSMARTInfoByID(id)) return ctx.fail(e);
    ctx.result.set("id", id).set("smart", storage.getResultText());
    ctx.text += storage.getResultText();
    return 0;
}

// ID [START [SIZE_MB]]; the write tests refuse a disk with a mounted file system.
int runTest(Context& ctx, const std::vector<std::string>& argv, const char* name, int kind) {
    std::vector<std::string> args = argv;
    const bool force = takeFlag(args, "--force");
    const bool compact = takeFlag(args, "--compact");
    if (args.empty() || args.size() > 3)
        return ctx.usage(std::string("usage: quarn storage ") + name + " ID|NAME [START_LBA [SIZE_MB]] [--compact]" +
                         (kind == 0 ? "" : " [--force]"));
    long long start = 0, size = 64;
    if (args.size() > 1 && !parseInt(args[1], 0, 0x7FFFFFFFFFFFFFFFll, &start)) return ctx.usage("START_LBA is a block number");
    if (args.size() > 2 && !parseInt(args[2], 1, 1 << 20, &size)) return ctx.usage("SIZE_MB is 1-1048576");
    StorageDAPI storage("StorageDAPI");
    open(ctx, storage);
    unsigned int id = 0;
    if (int rc = resolve(ctx, storage, args[0], &id)) return rc;
    const StorageDrive* d = storage.device()->findDrive(id);
    if (kind != 0) {
        if (int rc = refuseMounted(ctx, d->deviceNode, force, name)) return rc;
    }
    const auto lba = static_cast<unsigned long long>(start);
    const auto mb = static_cast<unsigned int>(size);
    ErrorMsg* e = runWithProgress(ctx, storage, [&] {
        return kind == 0   ? storage.readPerformanceTest(id, lba, mb, compact)
               : kind == 1 ? storage.writePerformanceTest(id, lba, mb, compact)
                           : storage.readwriteTest(id, lba, mb, compact);
    });
    ctx.result.set("test", name).set("id", id).set("name", d->driveName).set("start_lba", start).set("size_mb", size);
    ctx.result.set("sectors_per_command", storage.getSectorCountPerAccess());
    ctx.result.set("commands", static_cast<long long>(storage.getCommandCount()));
    ctx.result.set("seconds", storage.getSeconds()).set("passed", e == nullptr);
    ctx.result.set("result", storage.getResultText());
    ctx.text += storage.getResultText();
    if (e) return ctx.fail(e);
    return 0;
}

int readTest(Context& ctx, const std::vector<std::string>& args) { return runTest(ctx, args, "read-test", 0); }
int writeTest(Context& ctx, const std::vector<std::string>& args) { return runTest(ctx, args, "write-test", 1); }
int verifyTest(Context& ctx, const std::vector<std::string>& args) { return runTest(ctx, args, "verify-test", 2); }

int zeroFill(Context& ctx, const std::vector<std::string>& argv) {
    std::vector<std::string> args = argv;
    const bool force = takeFlag(args, "--force");
    const bool compact = takeFlag(args, "--compact");
    if (args.empty() || args.size() > 2)
        return ctx.usage("usage: quarn storage zero-fill ID|NAME [START_LBA] [--compact] [--force]");
    long long start = 0;
    if (args.size() > 1 && !parseInt(args[1], 0, 0x7FFFFFFFFFFFFFFFll, &start)) return ctx.usage("START_LBA is a block number");
    StorageDAPI storage("StorageDAPI");
    open(ctx, storage);
    unsigned int id = 0;
    if (int rc = resolve(ctx, storage, args[0], &id)) return rc;
    const StorageDrive* d = storage.device()->findDrive(id);
    if (int rc = refuseMounted(ctx, d->deviceNode, force, "zero-fill")) return rc;
    ErrorMsg* e = runWithProgress(ctx, storage, [&] {
        return storage.writeZeroByID(id, static_cast<unsigned long long>(start), compact);
    });
    ctx.result.set("id", id).set("name", d->driveName).set("commands", static_cast<long long>(storage.getCommandCount()));
    ctx.result.set("seconds", storage.getSeconds()).set("passed", e == nullptr).set("result", storage.getResultText());
    ctx.text += storage.getResultText();
    if (e) return ctx.fail(e);
    return 0;
}

int defects(Context& ctx, const std::vector<std::string>& args) {
    if (args.empty() || args.size() > 2) return ctx.usage("usage: quarn storage defects ID|NAME [p|g|pg]");
    const std::string which = args.size() > 1 ? args[1] : "pg";
    if (which != "p" && which != "g" && which != "pg") return ctx.usage("the list is p, g or pg");
    StorageDAPI storage("StorageDAPI");
    open(ctx, storage);
    unsigned int id = 0;
    if (int rc = resolve(ctx, storage, args[0], &id)) return rc;
    const unsigned p = which.find('p') != std::string::npos, g = which.find('g') != std::string::npos;
    if (ErrorMsg* e = storage.getPGListByID(id, p, g, 5, false)) return ctx.fail(e);  // physical sector format
    const std::string& r = storage.getResultText();
    const size_t colon = r.find(": ");
    ctx.result.set("id", id).set("lists", which);
    ctx.result.set("list_length", colon == std::string::npos ? 0LL : std::stoll(r.substr(colon + 2)));
    ctx.text += r;
    return 0;
}

Register reg{
    {"storage", "list", "", "every disk of the board (SAS, NVMe, USB) with its logical ID", list},
    {"storage", "info", "ID|NAME", "drive report", info},
    {"storage", "smart", "ID|NAME", "SAS health and error counters, or the NVMe SMART / Health log", smart},
    {"storage", "read-test", "ID|NAME [START_LBA [SIZE_MB]] [--compact]", "sequential read throughput", readTest},
    {"storage", "write-test", "ID|NAME [START_LBA [SIZE_MB]] [--compact] [--force]", "write throughput (pattern 0x5555AAAA)",
     writeTest},
    {"storage", "verify-test", "ID|NAME [START_LBA [SIZE_MB]] [--compact] [--force]",
     "write, read back and compare (pattern 0xAAAA5555)", verifyTest},
    {"storage", "zero-fill", "ID|NAME [START_LBA] [--compact] [--force]", "zeroes the whole drive", zeroFill},
    {"storage", "defects", "ID|NAME [p|g|pg]", "primary / grown defect list length (READ DEFECT DATA(12))", defects},
};

}  // namespace
}  // namespace quarn::cli
