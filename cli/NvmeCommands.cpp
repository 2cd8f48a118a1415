// quarn nvme ...: NVMe controllers, identify data, logs, firmware, Write Zeroes, Format.
#include <fcntl.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "api/platform/Files.h"
#include "api/platform/Platform.h"
#include "cli/Cli.h"
#include "cli/MountCheck.h"
#include "dapi/nvme/NVMeDAPI.h"

namespace quarn::cli {
namespace {

std::string text(const char* p, size_t n) {
    std::string s(p, strnlen(p, n));
    while (!s.empty() && s.back() == ' ') s.pop_back();
    return s;
}

std::string hex(unsigned long long v, int width) {
    char t[32];
    snprintf(t, sizeof(t), "0x%0*llx", width, v);
    return t;
}

double counter(const uint8_t* v) {
    double r = 0;
    for (int i = 15; i >= 0; --i) r = r * 256 + v[i];
    return r;
}

std::string number(double v) {
    char t[48];
    snprintf(t, sizeof(t), "%.0f", v);
    return t;
}

// A controller by number or name (NVME0).
int resolve(Context& ctx, NVMeDAPI& nvme, const std::string& arg, unsigned char* controller) {
    long long n = 0;
    if (parseInt(arg, 0, 255, &n)) {
        *controller = static_cast<unsigned char>(n);
        NVMe_DEVICE_INFO info;
        ErrorMsg* e = nvme.getInformationByController(*controller, &info);
        return e ? ctx.fail(e) : 0;
    }
    ErrorMsg* e = nvme.getLogicalIDByName(arg, controller);
    return e ? ctx.fail(e) : 0;
}

int list(Context& ctx, const std::vector<std::string>& args) {
    if (!args.empty()) return ctx.usage("nvme list takes no arguments");
    NVMeDAPI nvme("NVMeDAPI");
    std::vector<NVMe_DEVICE_INFO> controllers;
    if (ErrorMsg* e = nvme.getInformationList(&controllers)) return ctx.fail(e);
    Value out = Value::array();
    for (size_t i = 0; i < controllers.size(); ++i) {
        const NVMe_DEVICE_INFO& c = controllers[i];
        nvme_id_ctrl id;
        memset(&id, 0, sizeof(id));
        if (ErrorMsg* e = nvme.getIdentityCTRLByController(static_cast<unsigned char>(i), &id)) deleteErrorMsg(e);
        nvme_id_ns ns;
        memcpy(&ns, c.identifyNamespace, sizeof(ns));
        const unsigned ds = ns.lbaf[ns.flbas & 0xF].ds;
        const unsigned block = ds >= 9 && ds < 32 ? 1u << ds : 0;
        const unsigned long long bytes = block ? ns.nsze * block : 0;
        Value v = Value::object();
        v.set("id", static_cast<unsigned int>(i)).set("name", c.name).set("pci", c.pciAddress);
        v.set("device_node", c.deviceNode).set("block_node", c.blockNode);
        v.set("model", text(id.mn, sizeof(id.mn))).set("serial", text(id.sn, sizeof(id.sn)));
        v.set("firmware", text(id.fr, sizeof(id.fr))).set("block_size", block).set("bytes", static_cast<long long>(bytes));
        out.push(v);
        char line[256];
        snprintf(line, sizeof(line), "%-6s %s  %-11s %-13s %-28s %-20s %-8s %.1f GB (%u-byte blocks)\n", c.name.c_str(),
                 c.pciAddress.c_str(), c.deviceNode.c_str(), c.blockNode.empty() ? "(no namespace)" : c.blockNode.c_str(),
                 text(id.mn, sizeof(id.mn)).c_str(), text(id.sn, sizeof(id.sn)).c_str(), text(id.fr, sizeof(id.fr)).c_str(),
                 bytes / 1e9, block);
        ctx.text += line;
    }
    if (controllers.empty()) ctx.text = "no NVMe controller\n";
    ctx.result.set("controllers", out);
    return 0;
}

int identify(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("usage: quarn nvme identify N|NAME");
    NVMeDAPI nvme("NVMeDAPI");
    unsigned char n = 0;
    if (int rc = resolve(ctx, nvme, args[0], &n)) return rc;
    nvme_id_ctrl id;
    if (ErrorMsg* e = nvme.getIdentityCTRLByController(n, &id)) return ctx.fail(e);
    nvme_id_ns ns;
    memset(&ns, 0, sizeof(ns));
    ErrorMsg* nsError = nvme.getIdentityNSByController(n, &ns);
    if (nsError) deleteErrorMsg(nsError);
    const unsigned ds = ns.lbaf[ns.flbas & 0xF].ds;
    Value v = Value::object();
    v.set("vid", hex(id.vid, 4)).set("ssvid", hex(id.ssvid, 4)).set("serial", text(id.sn, 20));
    v.set("model", text(id.mn, 40)).set("firmware", text(id.fr, 8)).set("version", hex(id.ver, 8));
    v.set("oacs", hex(id.oacs, 4)).set("frmw", hex(id.frmw, 2)).set("elpe", static_cast<unsigned int>(id.elpe));
    v.set("oncs", hex(id.oncs, 4)).set("namespaces", id.nn).set("wctemp_k", static_cast<unsigned int>(id.wctemp));
    v.set("cctemp_k", static_cast<unsigned int>(id.cctemp));
    Value nsv = Value::object();
    nsv.set("nsze", static_cast<long long>(ns.nsze)).set("ncap", static_cast<long long>(ns.ncap));
    nsv.set("nuse", static_cast<long long>(ns.nuse)).set("formats", static_cast<unsigned int>(ns.nlbaf) + 1);
    nsv.set("format_in_use", static_cast<unsigned int>(ns.flbas & 0xF)).set("block_size", ds ? 1u << ds : 0u);
    Value formats = Value::array();
    for (unsigned i = 0; i <= ns.nlbaf && i < 16; ++i) {
        Value f = Value::object();
        f.set("index", i).set("block_size", ns.lbaf[i].ds ? 1u << ns.lbaf[i].ds : 0u);
        f.set("metadata", static_cast<unsigned int>(ns.lbaf[i].ms)).set("performance", static_cast<unsigned int>(ns.lbaf[i].rp));
        formats.push(f);
    }
    nsv.set("lba_formats", formats);
    ctx.result.set("controller", v).set("namespace", nsv);
    char buf[512];
    snprintf(buf, sizeof(buf),
             "Model:       %s\nSerial:      %s\nFirmware:    %s\nVendor:      %s (subsystem %s)\nVersion:     %u.%u\n"
             "OACS:        %s (format %s, firmware %s)\nFirmware:    %u slots, slot 1 %s\nError log:   %u entries\n"
             "ONCS:        %s (Write Zeroes %s)\nNamespaces:  %u\n",
             text(id.mn, 40).c_str(), text(id.sn, 20).c_str(), text(id.fr, 8).c_str(), hex(id.vid, 4).c_str(),
             hex(id.ssvid, 4).c_str(), id.ver >> 16, (id.ver >> 8) & 0xFF, hex(id.oacs, 4).c_str(),
             id.oacs & 2 ? "yes" : "no", id.oacs & 4 ? "yes" : "no", (id.frmw >> 1) & 7,
             id.frmw & 1 ? "read-only" : "writable", id.elpe + 1u, hex(id.oncs, 4).c_str(), id.oncs & 8 ? "yes" : "no",
             id.nn);
    ctx.text = buf;
    snprintf(buf, sizeof(buf), "Namespace 1: %llu blocks of %u bytes (format %u of %u)\n",
             static_cast<unsigned long long>(ns.nsze), ds ? 1u << ds : 0u, ns.flbas & 0xF, ns.nlbaf + 1u);
    ctx.text += buf;
    return 0;
}

int smart(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("usage: quarn nvme smart N|NAME");
    NVMeDAPI nvme("NVMeDAPI");
    unsigned char n = 0;
    if (int rc = resolve(ctx, nvme, args[0], &n)) return rc;
    nvme_smart_log s;
    if (ErrorMsg* e = nvme.getSmartLogByController(n, &s)) return ctx.fail(e);
    const int kelvin = s.temperature[0] | s.temperature[1] << 8;
    struct Row {
        const char* key;
        std::string value;
    };
    std::vector<Row> rows = {
        {"critical_warning", hex(s.critical_warning, 2)},
        {"temperature_c", std::to_string(kelvin - 273)},
        {"available_spare", std::to_string(s.avail_spare)},
        {"available_spare_threshold", std::to_string(s.spare_thresh)},
        {"percentage_used", std::to_string(s.percent_used)},
        {"data_units_read", number(counter(s.data_units_read))},
        {"data_units_written", number(counter(s.data_units_written))},
        {"host_read_commands", number(counter(s.host_reads))},
        {"host_write_commands", number(counter(s.host_writes))},
        {"controller_busy_time", number(counter(s.ctrl_busy_time))},
        {"power_cycles", number(counter(s.power_cycles))},
        {"power_on_hours", number(counter(s.power_on_hours))},
        {"unsafe_shutdowns", number(counter(s.unsafe_shutdowns))},
        {"media_errors", number(counter(s.media_errors))},
        {"num_err_log_entries", number(counter(s.num_err_log_entries))},
        {"warning_temp_time", std::to_string(s.warning_temp_time)},
        {"critical_comp_time", std::to_string(s.critical_comp_time)},
    };
    for (int i = 0; i < 8; ++i)
        if (s.temp_sensor[i]) rows.push_back({nullptr, std::to_string(static_cast<int>(s.temp_sensor[i]) - 273) + ":" + std::to_string(i + 1)});
    Value sensors = Value::array();
    for (const Row& r : rows) {
        if (!r.key) {
            const size_t colon = r.value.find(':');
            Value t = Value::object();
            t.set("sensor", static_cast<unsigned int>(std::stoul(r.value.substr(colon + 1))));
            t.set("celsius", static_cast<long long>(std::stol(r.value.substr(0, colon))));
            sensors.push(t);
            ctx.text += "temperature_sensor_" + r.value.substr(colon + 1) + std::string(8, ' ') + ": " +
                        r.value.substr(0, colon) + " C\n";
            continue;
        }
        char line[96];
        snprintf(line, sizeof(line), "%-27s: %s\n", r.key, r.value.c_str());
        ctx.text += line;
        ctx.result.set(r.key, r.value);
    }
    ctx.result.set("temperature_sensors", sensors);
    return 0;
}

int errorLog(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("usage: quarn nvme error-log N|NAME");
    NVMeDAPI nvme("NVMeDAPI");
    unsigned char n = 0;
    if (int rc = resolve(ctx, nvme, args[0], &n)) return rc;
    nvme_error_log_page e;
    if (ErrorMsg* f = nvme.getErrorLogByController(n, &e)) return ctx.fail(f);
    const unsigned status = e.status_field >> 1;
    ctx.result.set("error_count", static_cast<long long>(e.error_count)).set("sqid", static_cast<unsigned int>(e.sqid));
    ctx.result.set("cmdid", static_cast<unsigned int>(e.cmdid)).set("status", hex(status & 0x7FF, 3));
    ctx.result.set("do_not_retry", (status & 0x4000) != 0).set("lba", static_cast<long long>(e.lba)).set("nsid", e.nsid);
    char line[256];
    if (e.error_count == 0) {
        ctx.text = "no errors logged\n";
    } else {
        // The status as the library names it.
        NVMeIOCTL translate("");
        const ERRORCODE code = translate.convertNVMEStatustoErrorcode(status);
        snprintf(line, sizeof(line),
                 "Newest entry %llu: SQ %u command %u status %s (type %u code 0x%02x, 0x%08x)\nLBA %llu, namespace %u\n",
                 static_cast<unsigned long long>(e.error_count), e.sqid, e.cmdid, hex(status & 0x7FF, 3).c_str(),
                 (status >> 8) & 7, status & 0xFF, code, static_cast<unsigned long long>(e.lba), e.nsid);
        ctx.text = line;
    }
    return 0;
}

int fwLog(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("usage: quarn nvme fw-log N|NAME");
    NVMeDAPI nvme("NVMeDAPI");
    unsigned char n = 0;
    if (int rc = resolve(ctx, nvme, args[0], &n)) return rc;
    nvme_firmware_log_page fw;
    if (ErrorMsg* e = nvme.getFirmwareLogByController(n, &fw)) return ctx.fail(e);
    ctx.result.set("active_slot", fw.afi & 7).set("next_reset_slot", (fw.afi >> 4) & 7);
    Value slots = Value::array();
    char line[96];
    snprintf(line, sizeof(line), "Active slot: %u   next reset: %s\n", fw.afi & 7,
             (fw.afi >> 4) & 7 ? std::to_string((fw.afi >> 4) & 7).c_str() : "-");
    ctx.text = line;
    for (int i = 0; i < 7; ++i) {
        const std::string rev = text(reinterpret_cast<const char*>(&fw.frs[i]), 8);
        if (rev.empty()) continue;
        Value s = Value::object();
        s.set("slot", i + 1).set("revision", rev);
        slots.push(s);
        snprintf(line, sizeof(line), "Slot %d: %s\n", i + 1, rev.c_str());
        ctx.text += line;
    }
    ctx.result.set("slots", slots);
    return 0;
}

// On the virtual board the image is a file of the host: it is copied into the board first.
int fwDownload(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 2) return ctx.usage("usage: quarn nvme fw-download N|NAME IMAGE");
    NVMeDAPI nvme("NVMeDAPI");
    unsigned char n = 0;
    if (int rc = resolve(ctx, nvme, args[0], &n)) return rc;
    std::string path = args[1];
    if (ctx.virtualBoard) {
        std::string image;
        quarn::Platform& host = quarn::linuxPlatform();
        const int fd = host.open(args[1], O_RDONLY);
        if (fd < 0) {
            ctx.error = "cannot read " + args[1];
            return 1;
        }
        char buf[65536];
        ssize_t got;
        while ((got = host.read(fd, buf, sizeof(buf))) > 0) image.append(buf, static_cast<size_t>(got));
        host.close(fd);
        path = "/tmp/quarn-nvme-image.bin";
        if (quarn::writeScratchFile(path, image) != 0) {
            ctx.error = "cannot place the image on the virtual board";
            return 1;
        }
    }
    if (ErrorMsg* e = nvme.downloadFirmwareByController(n, path.c_str())) return ctx.fail(e);
    ctx.result.set("controller", static_cast<unsigned int>(n)).set("image", args[1]);
    ctx.text = "image downloaded; commit it with 'quarn nvme fw-commit " + args[0] + " SLOT ACTION'\n";
    return 0;
}

int fwCommit(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 3) return ctx.usage("usage: quarn nvme fw-commit N|NAME SLOT ACTION");
    long long slot = 0, action = 0;
    if (!parseInt(args[1], 0, 7, &slot)) return ctx.usage("SLOT is 0-7 (0: the controller chooses)");
    if (!parseInt(args[2], 0, 7, &action))
        return ctx.usage("ACTION is 0-7 (0 replace, 1 replace and activate at reset, 2 activate at reset, 3 replace and "
                         "activate now)");
    NVMeDAPI nvme("NVMeDAPI");
    unsigned char n = 0;
    if (int rc = resolve(ctx, nvme, args[0], &n)) return rc;
    nvme_fw_active request{static_cast<uint8_t>(slot), static_cast<uint8_t>(action)};
    if (ErrorMsg* e = nvme.activateFirmwareByController(n, request)) return ctx.fail(e);
    ctx.result.set("slot", static_cast<int>(slot)).set("action", static_cast<int>(action));
    ctx.text = "firmware commit done\n";
    return 0;
}

int reset(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("usage: quarn nvme reset N|NAME");
    NVMeDAPI nvme("NVMeDAPI");
    unsigned char n = 0;
    if (int rc = resolve(ctx, nvme, args[0], &n)) return rc;
    if (ErrorMsg* e = nvme.resetNVMe(n)) return ctx.fail(e);
    ctx.result.set("controller", static_cast<unsigned int>(n)).set("reset", true);
    ctx.text = "controller reset\n";
    return 0;
}

int writeZeroes(Context& ctx, const std::vector<std::string>& argv) {
    std::vector<std::string> args = argv;
    const bool force = takeFlag(args, "--force");
    if (args.size() != 3) return ctx.usage("usage: quarn nvme write-zeroes N|NAME LBA COUNT [--force]");
    long long lba = 0, count = 0;
    if (!parseInt(args[1], 0, 0x7FFFFFFFFFFFFFFFll, &lba)) return ctx.usage("LBA is a block number");
    if (!parseInt(args[2], 1, 65536, &count)) return ctx.usage("COUNT is 1-65536 blocks");
    NVMeDAPI nvme("NVMeDAPI");
    unsigned char n = 0;
    if (int rc = resolve(ctx, nvme, args[0], &n)) return rc;
    NVMe_DEVICE_INFO info;
    if (ErrorMsg* e = nvme.getInformationByController(n, &info)) return ctx.fail(e);
    if (int rc = refuseMounted(ctx, info.blockNode, force, "write-zeroes")) return rc;
    if (ErrorMsg* e = nvme.writeZeroByController(n, static_cast<unsigned long long>(lba), static_cast<unsigned short>(count - 1)))
        return ctx.fail(e);
    ctx.result.set("lba", lba).set("blocks", count);
    ctx.text = "zeroed " + std::to_string(count) + " blocks from LBA " + std::to_string(lba) + "\n";
    return 0;
}

int format(Context& ctx, const std::vector<std::string>& argv) {
    std::vector<std::string> args = argv;
    const bool force = takeFlag(args, "--force");
    if (args.empty() || args.size() > 3) return ctx.usage("usage: quarn nvme format N|NAME [LBAF [SES]] [--force]");
    long long lbaf = 0, ses = 0;
    if (args.size() > 1 && !parseInt(args[1], 0, 15, &lbaf)) return ctx.usage("LBAF is an LBA format index 0-15");
    if (args.size() > 2 && !parseInt(args[2], 0, 7, &ses)) return ctx.usage("SES is 0 (none), 1 (user data) or 2 (crypto)");
    NVMeDAPI nvme("NVMeDAPI");
    unsigned char n = 0;
    if (int rc = resolve(ctx, nvme, args[0], &n)) return rc;
    NVMe_DEVICE_INFO info;
    if (ErrorMsg* e = nvme.getInformationByController(n, &info)) return ctx.fail(e);
    if (int rc = refuseMounted(ctx, info.blockNode, force, "format")) return rc;
    NVMeFormatArgument f{1, static_cast<unsigned char>(lbaf), 0, 0, 0, static_cast<unsigned char>(ses)};
    if (ErrorMsg* e = nvme.formatByController(n, f)) return ctx.fail(e);
    ctx.result.set("lbaf", lbaf).set("ses", ses);
    ctx.text = "namespace 1 formatted with LBA format " + std::to_string(lbaf) + "\n";
    return 0;
}

Register reg{
    {"nvme", "list", "", "NVMe controllers (PCI class 0x0108) with nodes, model, firmware, capacity", list},
    {"nvme", "identify", "N|NAME", "Identify Controller and Namespace data", identify},
    {"nvme", "smart", "N|NAME", "SMART / Health Information log", smart},
    {"nvme", "error-log", "N|NAME", "newest Error Information log entry", errorLog},
    {"nvme", "fw-log", "N|NAME", "firmware slots and the active revision", fwLog},
    {"nvme", "fw-download", "N|NAME IMAGE", "Firmware Image Download in 4 KiB pieces", fwDownload},
    {"nvme", "fw-commit", "N|NAME SLOT ACTION", "Firmware Commit (ACTION 0-3)", fwCommit},
    {"nvme", "reset", "N|NAME", "controller reset (NVME_IOCTL_RESET)", reset},
    {"nvme", "write-zeroes", "N|NAME LBA COUNT [--force]", "Write Zeroes of COUNT blocks", writeZeroes},
    {"nvme", "format", "N|NAME [LBAF [SES]] [--force]", "Format NVM of namespace 1 (erases it)", format},
};

}  // namespace
}  // namespace quarn::cli
