// quarn sata ...: AHCI controllers, ports, drives, SMART and the throughput tests.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "cli/Cli.h"
#include "dapi/sata/SATADAPI.h"

namespace quarn::cli {
namespace {

std::string hex8(unsigned int v) {
    char text[16];
    snprintf(text, sizeof(text), "0x%08x", v);
    return text;
}

// Discovers into sata; returns non-zero (after ctx.fail) when discovery fails.
int discover(Context& ctx, SATADAPI& sata) {
    StdoutCapture capture;
    ErrorMsg* e = sata.generateSATAList();
    capture.finish();
    return e ? ctx.fail(e) : 0;
}

// A port by logical ID or name; without an argument the first port with a drive.
int resolvePort(Context& ctx, SATADAPI& sata, const std::vector<std::string>& args, size_t at, unsigned int* id) {
    if (args.size() > at) {
        long long n = 0;
        if (parseInt(args[at], 0, 0xFFFF, &n)) {
            *id = static_cast<unsigned int>(n);
            return 0;
        }
        ErrorMsg* e = sata.getLogicalIdByName(args[at], id);
        return e ? ctx.fail(e) : 0;
    }
    for (const SATAController& c : sata.device()->getControllers())
        for (const SATAPort& p : c.ports)
            if (!p.sgDeviceNode.empty()) {
                *id = p.logicalID;
                return 0;
            }
    ctx.error = "no SATA drive found";
    return 1;
}

int list(Context& ctx, const std::vector<std::string>& args) {
    if (!args.empty()) return ctx.usage("sata list takes no arguments");
    SATADAPI sata("SATADAPI");
    if (int rc = discover(ctx, sata)) return rc;
    Value controllers = Value::array();
    for (const SATAController& c : sata.device()->getControllers()) {
        char line[96];
        snprintf(line, sizeof(line), "%s (%04u:%s)  ID %u  ports %u  ABAR %s\n", c.name.c_str(), c.domain, c.bdf.c_str(),
                 c.logicalID, c.portAmount, hex8(c.abar).c_str());
        ctx.text += line;
        Value v = Value::object();
        v.set("id", c.logicalID).set("name", c.name).set("domain", c.domain).set("bdf", c.bdf);
        v.set("ports", c.portAmount).set("abar", hex8(c.abar));
        controllers.push(v);
    }
    ctx.result.set("controllers", controllers);
    return 0;
}

int ports(Context& ctx, const std::vector<std::string>& args, bool drivesOnly) {
    if (!args.empty()) return ctx.usage(drivesOnly ? "sata drives takes no arguments" : "sata ports takes no arguments");
    SATADAPI sata("SATADAPI");
    if (int rc = discover(ctx, sata)) return rc;
    Value out = Value::array();
    for (const SATAController& c : sata.device()->getControllers()) {
        for (const SATAPort& p : c.ports) {
            if (drivesOnly && p.sgDeviceNode.empty()) continue;
            Value v = Value::object();
            v.set("id", p.logicalID).set("name", p.name).set("port", p.portNumber);
            std::string status, speed;
            ErrorMsg* e = sata.getDataByID(p.logicalID, SATA_DATA_LINK_STATUS, &status);
            if (e) {
                deleteErrorMsg(e);
                status = "unknown";
            }
            e = sata.getDataByID(p.logicalID, SATA_DATA_LINK_SPEED, &speed);
            if (e) {
                deleteErrorMsg(e);
                speed = "unknown";
            }
            v.set("sstatus", hex8(p.sStatus)).set("serror", hex8(p.sError));
            v.set("link", status).set("speed", speed);
            v.set("drive", p.driveName).set("device_node", p.deviceNode).set("sg_node", p.sgDeviceNode);
            char line[160];
            if (drivesOnly) {
                std::string model, serial, firmware, capacity;
                StdoutCapture capture;
                ErrorMsg* f = sata.getDataByID(p.logicalID, SATA_DATA_MODEL, &model);
                if (!f) f = sata.getDataByID(p.logicalID, SATA_DATA_SERIAL, &serial);
                if (!f) f = sata.getDataByID(p.logicalID, SATA_DATA_FIRMWARE, &firmware);
                if (!f) f = sata.getDataByID(p.logicalID, SATA_DATA_CAPACITY, &capacity);
                capture.finish();
                if (f) return ctx.fail(f);
                v.set("model", model).set("serial", serial).set("firmware", firmware).set("capacity", capacity);
                snprintf(line, sizeof(line), "%-13s %-13s %-9s %-9s %-22s %-16s %-9s %s\n", p.name.c_str(),
                         p.driveName.c_str(), p.deviceNode.c_str(), p.sgDeviceNode.c_str(), model.c_str(),
                         serial.c_str(), firmware.c_str(), capacity.c_str());
            } else {
                snprintf(line, sizeof(line), "%-3u %-13s %-8s %-9s SStatus %s SError %s %s\n", p.logicalID,
                         p.name.c_str(), status.c_str(), speed.c_str(), hex8(p.sStatus).c_str(), hex8(p.sError).c_str(),
                         p.deviceNode.c_str());
            }
            ctx.text += line;
            out.push(v);
        }
    }
    ctx.result.set(drivesOnly ? "drives" : "ports", out);
    return 0;
}

int portsCmd(Context& ctx, const std::vector<std::string>& args) { return ports(ctx, args, false); }
int drivesCmd(Context& ctx, const std::vector<std::string>& args) { return ports(ctx, args, true); }

int info(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("usage: quarn sata info ID|NAME");
    SATADAPI sata("SATADAPI");
    if (int rc = discover(ctx, sata)) return rc;
    unsigned int id = 0;
    if (int rc = resolvePort(ctx, sata, args, 0, &id)) return rc;
    std::string report;
    StdoutCapture capture;
    ErrorMsg* e = sata.getDataByID(id, SATA_DATA_REPORT, &report);
    capture.finish();
    if (e) return ctx.fail(e);
    ctx.text = report;
    ctx.result.set("id", id).set("report", report);
    return 0;
}

int errors(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() > 1) return ctx.usage("usage: quarn sata errors [ID|NAME]");
    SATADAPI sata("SATADAPI");
    if (int rc = discover(ctx, sata)) return rc;
    std::vector<const SATAPort*> chosen;
    unsigned int id = 0;
    if (!args.empty() && resolvePort(ctx, sata, args, 0, &id) != 0) return 1;
    for (const SATAController& c : sata.device()->getControllers())
        for (const SATAPort& p : c.ports)
            if (args.empty() || p.logicalID == id) chosen.push_back(&p);
    if (chosen.empty()) return ctx.fail(sata.getErrorRegisterByID(id, SATA_ERROR_REPORT, nullptr));
    Value out = Value::array();
    for (const SATAPort* p : chosen) {
        std::string report;
        if (ErrorMsg* e = sata.getErrorRegisterByID(p->logicalID, SATA_ERROR_REPORT, &report)) return ctx.fail(e);
        ctx.text += p->name + " (PxSERR " + hex8(p->sError) + ")\n" + report;
        Value v = Value::object();
        v.set("id", p->logicalID).set("name", p->name).set("serror", hex8(p->sError));
        out.push(v);
    }
    ctx.result.set("ports", out);
    return 0;
}

int smart(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 0 && args.size() != 1 && args.size() != 3)
        return ctx.usage("usage: quarn sata smart [ID|NAME [FIRST LAST]]");
    SATADAPI sata("SATADAPI");
    if (int rc = discover(ctx, sata)) return rc;
    unsigned int id = 0;
    if (int rc = resolvePort(ctx, sata, args, 0, &id)) return rc;
    long long first = 0, last = 255;
    if (args.size() == 3 && (!parseInt(args[1], 0, 255, &first) || !parseInt(args[2], 0, 255, &last)))
        return ctx.usage("FIRST and LAST are attribute IDs 0-255");
    std::string table;
    StdoutCapture capture;
    ErrorMsg* e = sata.getSMARTInfoByID(id, static_cast<unsigned int>(first), static_cast<unsigned int>(last), &table);
    capture.finish();
    if (e) return ctx.fail(e);
    const SATAPort* port = sata.device()->findPort(id);
    Value attributes = Value::array();
    for (const SMARTAttribute& a : port->smartAttributes) {
        if (a.id < first || a.id > last) continue;
        Value v = Value::object();
        v.set("id", a.id).set("name", a.name).set("current", a.current).set("worst", a.worst);
        v.set("threshold", a.threshold).set("readable", a.readable).set("raw", a.rawData).set("type", a.type);
        v.set("update", a.update).set("good_now", a.healthStatus).set("good_in_the_past", a.pastHealthStatus);
        attributes.push(v);
    }
    ctx.result.set("port", port->name).set("overall", port->smartStatus).set("temperature", port->temperature);
    ctx.result.set("attributes", attributes);
    ctx.text = port->name + "  overall: " + port->smartStatus + "\n" + table;
    return 0;
}

int identify(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() > 1) return ctx.usage("usage: quarn sata identify [ID|NAME]");
    SATADAPI sata("SATADAPI");
    if (int rc = discover(ctx, sata)) return rc;
    unsigned int id = 0;
    if (int rc = resolvePort(ctx, sata, args, 0, &id)) return rc;
    std::string firmware, model, serial;
    StdoutCapture capture;
    ErrorMsg* e = sata.device()->SATIdentify16(id, &firmware, &model, &serial);
    capture.finish();
    if (e) return ctx.fail(e);
    ctx.result.set("id", id).set("model", model).set("serial", serial).set("firmware", firmware);
    ctx.text = "Model:    " + model + "\nSerial:   " + serial + "\nFirmware: " + firmware + "\n";
    return 0;
}

// The progress bar goes to standard error so JSON on standard output stays clean.
void drawProgress(unsigned long long percent) {
    if (percent > 100) percent = 100;
    char bar[21];
    const unsigned filled = static_cast<unsigned>(percent / 5);
    for (unsigned i = 0; i < 20; ++i) bar[i] = i < filled ? '#' : ' ';
    bar[20] = 0;
    fprintf(stderr, "\r[%s] %llu%%", bar, percent);
    fflush(stderr);
}

int runTest(Context& ctx, const std::vector<std::string>& args, const char* name, int kind) {
    if (args.size() > 3) return ctx.usage(std::string("usage: quarn sata ") + name + " [ID|NAME [START [SIZE_MB]]]");
    SATADAPI sata("SATADAPI");
    if (int rc = discover(ctx, sata)) return rc;
    unsigned int id = 0;
    if (int rc = resolvePort(ctx, sata, args, 0, &id)) return rc;
    long long start = 0, size = 16;
    if (args.size() > 1 && !parseInt(args[1], 0, 0xFFFFFF, &start)) return ctx.usage("START is a block group 0-16777215");
    if (args.size() > 2 && !parseInt(args[2], 1, 4096, &size)) return ctx.usage("SIZE_MB is 1-4096");

    std::atomic<bool> done{false};
    std::thread poller([&] {
        while (!done.load()) {
            drawProgress(sata.getProgress());
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    });
    const auto began = std::chrono::steady_clock::now();
    StdoutCapture capture;
    ErrorMsg* e = kind == 0   ? sata.readPerformanceTest(id, static_cast<unsigned>(start), static_cast<unsigned>(size))
                  : kind == 1 ? sata.writePerformanceTest(id, static_cast<unsigned>(start), static_cast<unsigned>(size))
                              : sata.readwriteTest(id, static_cast<unsigned>(start), static_cast<unsigned>(size));
    const std::string printed = capture.finish();
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
    done.store(true);
    poller.join();
    drawProgress(sata.getProgress());
    fprintf(stderr, "\n");
    ctx.result.set("test", name).set("id", id).set("start", start).set("size_mb", size);
    ctx.result.set("passed", e == nullptr).set("commands", static_cast<long long>(sata.getCommandCount()));
    ctx.result.set("wall_seconds", wall);
    if (e) {
        ctx.text = printed;
        return ctx.fail(e);
    }
    ctx.result.set("result", sata.getResultText());
    char rate[96];
    snprintf(rate, sizeof(rate), "Commands   : %llu (%.0f per wall-clock second)\n", sata.getCommandCount(),
             wall > 0 ? sata.getCommandCount() / wall : 0.0);
    ctx.text = sata.getResultText() + rate;
    return 0;
}

int readTest(Context& ctx, const std::vector<std::string>& args) { return runTest(ctx, args, "read-test", 0); }
int writeTest(Context& ctx, const std::vector<std::string>& args) { return runTest(ctx, args, "write-test", 1); }
int rwTest(Context& ctx, const std::vector<std::string>& args) { return runTest(ctx, args, "rw-test", 2); }

Register reg{
    {"sata", "list", "", "AHCI controllers (PCI class 0x0106) with their port amount", list},
    {"sata", "ports", "", "ports with logical IDs, link status and speed, SStatus and SError", portsCmd},
    {"sata", "drives", "", "drives with nodes, model, serial, firmware and capacity", drivesCmd},
    {"sata", "info", "ID|NAME", "port report (or controller report)", info},
    {"sata", "errors", "[ID|NAME]", "PxSERR decoded per port", errors},
    {"sata", "smart", "[ID|NAME [FIRST LAST]]", "SMART attributes through libatasmart", smart},
    {"sata", "identify", "[ID|NAME]", "IDENTIFY DEVICE through ATA PASS-THROUGH(16)", identify},
    {"sata", "read-test", "[ID|NAME [START [SIZE_MB]]]", "read throughput (512-byte READ(16))", readTest},
    {"sata", "write-test", "[ID|NAME [START [SIZE_MB]]]", "write throughput (pattern 0xAAAA5555)", writeTest},
    {"sata", "rw-test", "[ID|NAME [START [SIZE_MB]]]", "write, read back and compare at START", rwTest},
};

}  // namespace
}  // namespace quarn::cli
