// quarn sas ...: SAS host bus adapters (IOCs), their PHYs and drives, IOC reset, loopback,
// temperature, SAS address and firmware programming through sas3flash.
#include <cstdio>
#include <string>
#include <vector>

#include "cli/Cli.h"
#include "dapi/sas/SASDAPI.h"

namespace quarn::cli {
namespace {

std::string hex64(unsigned long long v) {
    char text[24];
    snprintf(text, sizeof(text), "0x%016llx", v);
    return text;
}

// An IOC by name ("SAS1") or controller number.
int resolve(Context& ctx, SASDAPI& sas, const std::string& arg, unsigned char* controller) {
    long long n = 0;
    if (parseInt(arg, 0, 255, &n)) {
        *controller = static_cast<unsigned char>(n);
        return 0;
    }
    ErrorMsg* e = sas.getLogicalIDByName(arg, controller);
    return e ? ctx.fail(e) : 0;
}

int list(Context& ctx, const std::vector<std::string>& args) {
    if (!args.empty()) return ctx.usage("sas list takes no arguments");
    SASDAPI sas("SASDAPI");
    std::vector<SAS_CONTROLLER_INFO> list;
    if (ErrorMsg* e = sas.getInformationList(&list)) return ctx.fail(e);
    Value out = Value::array();
    for (const SAS_CONTROLLER_INFO& c : list) {
        unsigned long long address = 0;
        if (ErrorMsg* e = sas.getAddressByController(c.controller, &address)) return ctx.fail(e);
        Value v = Value::object();
        v.set("name", c.name).set("controller", static_cast<unsigned int>(c.controller)).set("pci", c.pciLocation);
        v.set("revision", c.revision).set("version", c.version).set("firmware", c.firmwareVersion);
        v.set("bios", c.secondVersion).set("sas_address", hex64(address));
        out.push(v);
        char line[200];
        snprintf(line, sizeof(line), "%-5s IOC %u  %s  %s  FW %s  BIOS %s  %s  SAS address %s\n", c.name.c_str(),
                 c.controller, c.pciLocation.c_str(), c.revision.c_str(), c.firmwareVersion.c_str(),
                 c.secondVersion.c_str(), c.version.c_str(), hex64(address).c_str());
        ctx.text += line;
    }
    if (list.empty()) ctx.text = "no SAS adapter\n";
    ctx.result.set("controllers", out);
    return 0;
}

int drives(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() > 1) return ctx.usage("usage: quarn sas drives [IOC]");
    SASDAPI sas("SASDAPI");
    std::vector<SAS_CONTROLLER_INFO> list;
    if (ErrorMsg* e = sas.getInformationList(&list)) return ctx.fail(e);
    std::vector<unsigned char> wanted;
    if (args.empty()) {
        for (const SAS_CONTROLLER_INFO& c : list) wanted.push_back(c.controller);
    } else {
        unsigned char c = 0;
        if (int rc = resolve(ctx, sas, args[0], &c)) return rc;
        wanted.push_back(c);
    }
    Value out = Value::array();
    for (unsigned char c : wanted) {
        std::vector<SAS_DRIVE_INFO> drives;
        if (ErrorMsg* e = sas.getDriveDeviceNodeListByController(c, &drives)) return ctx.fail(e);
        for (const SAS_DRIVE_INFO& d : drives) {
            Value v = Value::object();
            v.set("name", d.name).set("device_node", d.deviceNode).set("sg_node", d.sgDeviceNode);
            v.set("sas_address", hex64(d.sasAddress)).set("vendor", d.vendor).set("model", d.model);
            v.set("serial", d.serial).set("firmware", d.firmware).set("capacity", std::to_string(d.capacity));
            v.set("block_size", d.logicalBlockSize).set("physical_block_size", d.physicalBlockSize);
            v.set("rotation", d.rotationRate).set("form_factor", d.formFactor).set("protocol", d.transportProtocol);
            v.set("link_speed", d.linkSpeed).set("target", d.targetNumber).set("temperature", d.temperature);
            v.set("health", d.healthStatus);
            out.push(v);
            char line[256];
            snprintf(line, sizeof(line), "%-12s %-9s %-9s %s  %-8s %-16s %-20s %-5s %7.1f GB  %-18s %-4s %s %s\n",
                     d.name.c_str(), d.deviceNode.c_str(), d.sgDeviceNode.c_str(), hex64(d.sasAddress).c_str(),
                     d.vendor.c_str(), d.model.c_str(), d.serial.c_str(), d.firmware.c_str(), d.capacity / 1e9,
                     d.rotationRate.c_str(), d.linkSpeed.c_str(), d.temperature.c_str(), d.healthStatus.c_str());
            ctx.text += line;
        }
    }
    ctx.result.set("drives", out);
    return 0;
}

int phys(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("usage: quarn sas phys IOC");
    SASDAPI sas("SASDAPI");
    unsigned char c = 0;
    if (int rc = resolve(ctx, sas, args[0], &c)) return rc;
    Value out = Value::array();
    for (unsigned int phy = 0; phy < SASDDAPI::kPhysPerController; ++phy) {
        std::string status, speed = "-", attached;
        const auto p = static_cast<unsigned char>(phy);
        if (ErrorMsg* e = sas.getLinkStatusByPHY(c, p, &status)) return ctx.fail(e);
        if (ErrorMsg* e = sas.getLinkSpeedByPHY(c, p, &speed)) return ctx.fail(e);
        if (ErrorMsg* e = sas.getAttachDeviceByPHY(c, p, &attached)) return ctx.fail(e);
        Value v = Value::object();
        v.set("phy", phy).set("link", status).set("speed", speed).set("attached", attached);
        out.push(v);
        char line[128];
        snprintf(line, sizeof(line), "PHY%u  %-8s %-25s %s\n", phy, status.c_str(), speed.c_str(), attached.c_str());
        ctx.text += line;
    }
    ctx.result.set("phys", out);
    return 0;
}

int phyErrors(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("usage: quarn sas phy-errors IOC");
    SASDAPI sas("SASDAPI");
    unsigned char c = 0;
    if (int rc = resolve(ctx, sas, args[0], &c)) return rc;
    Value out = Value::array();
    ctx.text = "PHY   invalid dword  disparity  loss of sync  reset problem\n";
    for (unsigned int phy = 0; phy < SASDDAPI::kPhysPerController; ++phy) {
        ERROR_COUNT_INFO n;
        if (ErrorMsg* e = sas.getErrorCountByPHY(c, static_cast<unsigned char>(phy), &n)) return ctx.fail(e);
        Value v = Value::object();
        v.set("phy", phy).set("invalid_dword", n.invalidDwordCount).set("running_disparity", n.runningDisparityErrorCount);
        v.set("loss_of_dword_sync", n.lossOfDwordSyncCount).set("phy_reset_problem", n.phyResetProblemCount);
        out.push(v);
        char line[96];
        snprintf(line, sizeof(line), "PHY%u  %13u  %9u  %12u  %13u\n", phy, n.invalidDwordCount,
                 n.runningDisparityErrorCount, n.lossOfDwordSyncCount, n.phyResetProblemCount);
        ctx.text += line;
    }
    ctx.result.set("phys", out);
    return 0;
}

int clearPhyErrors(Context& ctx, const std::vector<std::string>& args) {
    if (args.empty() || args.size() > 2) return ctx.usage("usage: quarn sas clear-phy-errors IOC [PHY]");
    SASDAPI sas("SASDAPI");
    unsigned char c = 0;
    if (int rc = resolve(ctx, sas, args[0], &c)) return rc;
    if (args.size() == 2) {
        long long phy = 0;
        if (!parseInt(args[1], 0, 254, &phy)) return ctx.usage("PHY is a number");
        if (ErrorMsg* e = sas.clearPHYErrorCountByPHY(c, static_cast<unsigned char>(phy))) return ctx.fail(e);
        ctx.result.set("phy", static_cast<unsigned int>(phy));
        ctx.text = "PHY" + std::to_string(phy) + " error counters cleared\n";
    } else {
        if (ErrorMsg* e = sas.clearPHYErrorCountByController(c)) return ctx.fail(e);
        ctx.text = "error counters of every PHY cleared\n";
    }
    ctx.result.set("controller", static_cast<unsigned int>(c)).set("cleared", true);
    return 0;
}

int resetCmd(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("usage: quarn sas reset IOC");
    SASDAPI sas("SASDAPI");
    unsigned char c = 0;
    if (int rc = resolve(ctx, sas, args[0], &c)) return rc;
    if (ErrorMsg* e = sas.resetIOC(c)) return ctx.fail(e);
    ctx.result.set("controller", static_cast<unsigned int>(c)).set("reset", true);
    ctx.text = "IOC " + std::to_string(c) + " hard reset done\n";
    return 0;
}

int loopback(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("usage: quarn sas loopback IOC");
    SASDAPI sas("SASDAPI");
    unsigned char c = 0;
    if (int rc = resolve(ctx, sas, args[0], &c)) return rc;
    if (ErrorMsg* e = sas.doLoopbackTest(c)) return ctx.fail(e);
    ctx.result.set("controller", static_cast<unsigned int>(c)).set("loopback", "pass");
    ctx.text = "loopback test passed\n";
    return 0;
}

int temperature(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("usage: quarn sas temperature IOC");
    SASDAPI sas("SASDAPI");
    unsigned char c = 0;
    if (int rc = resolve(ctx, sas, args[0], &c)) return rc;
    unsigned int celsius = 0;
    if (ErrorMsg* e = sas.getTemperatureByController(c, &celsius)) return ctx.fail(e);
    ctx.result.set("controller", static_cast<unsigned int>(c)).set("celsius", celsius);
    ctx.text = std::to_string(celsius) + " C\n";
    return 0;
}

int flashCommon(Context& ctx, const std::vector<std::string>& args, bool address) {
    if (args.size() != 2)
        return ctx.usage(address ? "usage: quarn sas set-address IOC ADDRESS" : "usage: quarn sas flash IOC IMAGE");
    SASDAPI sas("SASDAPI");
    unsigned char c = 0;
    if (int rc = resolve(ctx, sas, args[0], &c)) return rc;
    ErrorMsg* e = address ? sas.programSASAddress(c, args[1]) : sas.programSASFirmware(c, args[1]);
    Value log = Value::array();
    for (const std::string& line : sas.getFlashLog()) log.push(line);
    ctx.result.set("controller", static_cast<unsigned int>(c)).set("log", log);
    if (e) {
        for (const std::string& line : sas.getFlashLog()) ctx.text += line + "\n";
        return ctx.fail(e);
    }
    if (address) {
        unsigned long long now = 0;
        if (ErrorMsg* f = sas.getAddressByController(c, &now)) return ctx.fail(f);
        ctx.result.set("sas_address", hex64(now));
        ctx.text = "SAS address now " + hex64(now) + "\n";
    } else {
        SAS_CONTROLLER_INFO info;
        SASDAPI fresh("SASDAPI");  // the IOC information as the reset IOC reports it
        if (ErrorMsg* f = fresh.getInformationByController(c, &info)) return ctx.fail(f);
        ctx.result.set("firmware", info.firmwareVersion);
        ctx.text = "firmware now " + info.firmwareVersion + "\n";
    }
    return 0;
}

int setAddress(Context& ctx, const std::vector<std::string>& args) { return flashCommon(ctx, args, true); }
int flash(Context& ctx, const std::vector<std::string>& args) { return flashCommon(ctx, args, false); }

Register reg{
    {"sas", "list", "", "SAS adapters (IOCs): name, number, PCI location, versions, SAS address", list},
    {"sas", "drives", "[IOC]", "drives behind the adapters, with SG INQUIRY details", drives},
    {"sas", "phys", "IOC", "link status, negotiated rate and attached device of each PHY", phys},
    {"sas", "phy-errors", "IOC", "PHY error counters (invalid dword, disparity, sync loss, reset problem)", phyErrors},
    {"sas", "clear-phy-errors", "IOC [PHY]", "clear the PHY error counters of the IOC or of one PHY", clearPhyErrors},
    {"sas", "reset", "IOC", "hard reset of the IOC", resetCmd},
    {"sas", "loopback", "IOC", "the adapter's loopback test", loopback},
    {"sas", "temperature", "IOC", "IOC temperature", temperature},
    {"sas", "set-address", "IOC ADDRESS", "program the SAS address (16 hex digits) with sas3flash", setAddress},
    {"sas", "flash", "IOC IMAGE", "program a firmware image with sas3flash", flash},
};

}  // namespace
}  // namespace quarn::cli
