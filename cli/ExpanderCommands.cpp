// quarn expander ...: SAS expanders, their PHYs and ports from the SAS transport class,
// PHY error counters, clearing them through the enclosure scripts, expander reset.
#include <cstdio>
#include <string>
#include <vector>

#include "cli/Cli.h"
#include "dapi/expander/ExpanderDAPI.h"

namespace quarn::cli {
namespace {

// A device by name (EXP0, EXP0-PHY3) or logical ID.
int resolve(Context& ctx, ExpanderDAPI& exp, const std::string& arg, unsigned int* id) {
    long long n = 0;
    if (parseInt(arg, 0, 0xFFFFFF, &n)) {
        *id = static_cast<unsigned int>(n);
        return 0;
    }
    ErrorMsg* e = exp.getLogicalIDByName(arg, id);
    return e ? ctx.fail(e) : 0;
}

const ExpanderDDAPI::ExpanderDeviceConfig* deviceOf(ExpanderDAPI& exp, unsigned int id) {
    const auto& list = exp.device()->getDeviceList();
    return id < list.size() ? &list[id] : nullptr;
}

int constructed(Context& ctx, ExpanderDAPI& exp) {
    if (ErrorMsg* e = exp.getErrorMsg()) return ctx.fail(e);
    if (exp.device()) return 0;
    ctx.error = "cannot create the expander device layer";
    return 1;
}

int list(Context& ctx, const std::vector<std::string>& args) {
    if (!args.empty()) return ctx.usage("expander list takes no arguments");
    ExpanderDAPI exp("ExpanderDAPI");
    if (int rc = constructed(ctx, exp)) return rc;
    Value out = Value::array();
    for (const auto& d : exp.device()->getDeviceList()) {
        if (d.kind != EXP_DEVICE_EXPANDER) continue;
        std::string type, address;
        if (ErrorMsg* e = exp.device()->getDataByID(d.logicalID, EXP_DATA_ATTACHED_TYPE, &type)) return ctx.fail(e);
        if (ErrorMsg* e = exp.device()->getDataByID(d.logicalID, EXP_DATA_SAS_ADDRESS, &address)) return ctx.fail(e);
        unsigned int phys = 0, ports = 0;
        for (const auto& m : exp.device()->getDeviceList()) {
            if (m.expanderNumber != d.expanderNumber) continue;
            phys += m.kind == EXP_DEVICE_PHY;
            ports += m.kind == EXP_DEVICE_PORT;
        }
        Value v = Value::object();
        v.set("name", d.name).set("id", d.logicalID).set("sysfs", d.expander).set("type", type);
        v.set("sas_address", address).set("phys", phys).set("ports", ports);
        out.push(v);
        char line[160];
        snprintf(line, sizeof(line), "%-5s ID %-3u %-14s %-14s %s  %u PHYs  %u ports\n", d.name.c_str(), d.logicalID,
                 d.expander.c_str(), type.c_str(), address.c_str(), phys, ports);
        ctx.text += line;
    }
    if (ctx.text.empty()) ctx.text = "NONE\n";
    ctx.result.set("expanders", out);
    return 0;
}

int phys(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("usage: quarn expander phys EXP");
    ExpanderDAPI exp("ExpanderDAPI");
    if (int rc = constructed(ctx, exp)) return rc;
    unsigned int id = 0;
    if (int rc = resolve(ctx, exp, args[0], &id)) return rc;
    const auto* target = deviceOf(exp, id);
    if (!target) return ctx.usage("no device with ID " + std::to_string(id));
    Value phyList = Value::array(), portList = Value::array();
    for (const auto& d : exp.device()->getDeviceList()) {
        if (d.kind == EXP_DEVICE_EXPANDER || d.expanderNumber != target->expanderNumber) continue;
        if (target->kind != EXP_DEVICE_EXPANDER && d.logicalID != target->logicalID) continue;
        std::string value[4];
        for (unsigned int e = 0; e < 4; ++e) {
            ErrorMsg* f = exp.device()->getDataByID(d.logicalID, static_cast<EXP_DATAELEMENT>(e), &value[e]);
            if (f) return ctx.fail(f);
        }
        Value v = Value::object();
        v.set("name", d.name).set("id", d.logicalID).set("attached_type", value[0]).set("link", value[1]);
        v.set("speed", value[2]).set("sas_address", value[3]);
        (d.kind == EXP_DEVICE_PHY ? phyList : portList).push(v);
        char line[160];
        snprintf(line, sizeof(line), "%-13s %-5s %-10s %-14s %s\n", d.name.c_str(), value[1].c_str(), value[2].c_str(),
                 value[0].c_str(), value[3].c_str());
        ctx.text += line;
    }
    ctx.result.set("phys", phyList).set("ports", portList);
    return 0;
}

int errors(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("usage: quarn expander errors EXP");
    ExpanderDAPI exp("ExpanderDAPI");
    if (int rc = constructed(ctx, exp)) return rc;
    unsigned int id = 0;
    if (int rc = resolve(ctx, exp, args[0], &id)) return rc;
    const auto* target = deviceOf(exp, id);
    if (!target) return ctx.usage("no device with ID " + std::to_string(id));
    Value out = Value::array();
    ctx.text = "PHY           disparity  invalid dword  loss of sync  reset problem\n";
    for (const auto& d : exp.device()->getDeviceList()) {
        if (d.kind != EXP_DEVICE_PHY || d.expanderNumber != target->expanderNumber) continue;
        if (target->kind == EXP_DEVICE_PHY && d.logicalID != target->logicalID) continue;
        std::string n[4];
        for (unsigned int e = 0; e < 4; ++e) {
            ErrorMsg* f = exp.device()->getErrorDataByID(d.logicalID, static_cast<EXP_ERRORELEMENT>(e), &n[e]);
            if (f) return ctx.fail(f);
        }
        Value v = Value::object();
        v.set("name", d.name).set("running_disparity", n[0]).set("invalid_dword", n[1]);
        v.set("loss_of_dword_sync", n[2]).set("phy_reset_problem", n[3]);
        out.push(v);
        char line[128];
        snprintf(line, sizeof(line), "%-13s %9s  %13s  %12s  %13s\n", d.name.c_str(), n[0].c_str(), n[1].c_str(),
                 n[2].c_str(), n[3].c_str());
        ctx.text += line;
    }
    ctx.result.set("phys", out);
    return 0;
}

int clearErrors(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("usage: quarn expander clear-errors EXP");
    ExpanderDAPI exp("ExpanderDAPI");
    if (int rc = constructed(ctx, exp)) return rc;
    unsigned int id = 0;
    if (int rc = resolve(ctx, exp, args[0], &id)) return rc;
    // The enclosure's SES register clears the PHY error logs of its expanders together.
    if (ErrorMsg* e = exp.clearPHYError()) return ctx.fail(e);
    ctx.result.set("cleared", true);
    ctx.text = "PHY error counters cleared through the enclosure\n";
    return 0;
}

int resetCmd(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("usage: quarn expander reset EXP");
    ExpanderDAPI exp("ExpanderDAPI");
    if (int rc = constructed(ctx, exp)) return rc;
    unsigned int id = 0;
    if (int rc = resolve(ctx, exp, args[0], &id)) return rc;
    if (ErrorMsg* e = exp.reset(id)) return ctx.fail(e);
    ctx.result.set("id", id).set("reset", true);
    ctx.text = "expander reset\n";
    return 0;
}

Register reg{
    {"expander", "list", "", "SAS expanders with type, SAS address, PHY and port counts", list},
    {"expander", "phys", "EXP", "PHYs and ports of an expander (or one PHY/port): link, speed, attached device",
     phys},
    {"expander", "errors", "EXP", "PHY error counters of an expander (or one PHY)", errors},
    {"expander", "clear-errors", "EXP", "clear PHY error counters through the enclosure's SES scripts", clearErrors},
    {"expander", "reset", "EXP", "reset the expander with smp_reset_expander", resetCmd},
};

}  // namespace
}  // namespace quarn::cli
