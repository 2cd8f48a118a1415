// quarn pci ...: PCI functions, configuration space, error registers, tree, slots, switches.
#include <cstdio>
#include <cstdlib>
#include <list>

#include "cli/Cli.h"
#include "cli/Progress.h"
#include "dapi/pci/PCIDAPI.h"
#include "ddapi/pci/PCIDDAPI.h"

namespace quarn::cli {
namespace {

std::string bdf(uint16_t d, uint16_t b, uint16_t dev, uint8_t f) {
    char t[24];
    snprintf(t, sizeof(t), "%04x:%02x:%02x.%x", d, b, dev, f);
    return t;
}

bool parseBdf(PCIDAPI& pci, const std::string& text, _PFA* out) {
    return pci.device()->convertStringToBDF(text, out) == 0;
}

Value records(const std::vector<_PCIInformantion>& list, std::string* text) {
    Value arr = Value::array();
    for (const auto& r : list) {
        Value v = Value::object();
        v.set("address", bdf(r.domain, r.bus, r.device, r.function));
        char ids[16];
        snprintf(ids, sizeof(ids), "%04x:%04x", r.vendorID, r.deviceID);
        v.set("id", ids).set("class", static_cast<long long>(r.classCode)).set("name", r.name);
        char line[256];
        snprintf(line, sizeof(line), "%s %04x %s %s\n", bdf(r.domain, r.bus, r.device, r.function).c_str(),
                 r.classCode, ids, r.name.c_str());
        *text += line;
        arr.push(v);
    }
    return arr;
}

int list(Context& ctx, const std::vector<std::string>& args) {
    PCIDAPI pci("PCIDAPI");
    std::vector<_PCIInformantion> out;
    if (ErrorMsg* e = pci.getDevices(&out)) return ctx.fail(e);
    ctx.result.set("devices", records(out, &ctx.text));
    return 0;
}

int hidden(Context& ctx, const std::vector<std::string>& args) {
    PCIDAPI pci("PCIDAPI");
    std::vector<_PCIInformantion> out;
    if (ErrorMsg* e = pci.scanHiddenDevices(0, &out)) return ctx.fail(e);
    ctx.result.set("devices", records(out, &ctx.text));
    return 0;
}

int show(Context& ctx, const std::vector<std::string>& args) {
    PCIDAPI pci("PCIDAPI");
    _PFA p;
    if (args.size() != 1 || !parseBdf(pci, args[0], &p)) return ctx.usage("usage: quarn pci show BDF");
    if (pci.checkPresenceOfDevice(p) != 0) return ctx.fail(new ErrorMsg(0xC9040800 | 0x22E, args[0]));
    char t[512];
    snprintf(t, sizeof(t), "%s %04x:%04x class %06x\n  port type: %s\n  link: %s, %.1f GT/s x%u (max %.1f GT/s x%u)\n  class: %s\n",
             args[0].c_str(), pci.GetDataByBDF(p, PCI_VENDOR_ID), pci.GetDataByBDF(p, PCI_DEVICE_ID),
             pci.GetDataByBDF(p, PCI_CLASS_CODE), pci.getReadableStringByBDF(p, PCI_PORT_TYPE).c_str(),
             pci.getReadableStringByBDF(p, PCI_LINK_STATUS).c_str(), pci.GetReadableSpeed(p, PCI_CURRENT_LINK_SPEED),
             pci.GetDataByBDF(p, PCI_CURRENT_LINK_WIDTH), pci.GetReadableSpeed(p, PCI_MAX_LINK_SPEED),
             pci.GetDataByBDF(p, PCI_MAX_LINK_WIDTH), pci.getReadableStringByBDF(p, PCI_CLASS_TEXT).c_str());
    ctx.text = t;
    ctx.result.set("address", args[0]).set("port_type", pci.getReadableStringByBDF(p, PCI_PORT_TYPE));
    ctx.result.set("link", pci.getReadableStringByBDF(p, PCI_LINK_STATUS));
    return 0;
}

int configRead(Context& ctx, const std::vector<std::string>& args) {
    PCIDAPI pci("PCIDAPI");
    _PFA p;
    long long first = 0, last = 255;
    if (args.empty() || args.size() > 3 || !parseBdf(pci, args[0], &p) ||
        (args.size() > 1 && !parseInt(args[1], 0, 4095, &first)) ||
        (args.size() > 2 && !parseInt(args[2], 0, 4095, &last)))
        return ctx.usage("usage: quarn pci config-read BDF [FIRST [LAST]]");
    if (args.size() == 2) last = first;
    if (last < first) return ctx.usage("LAST is below FIRST");
    std::vector<uint8_t> buf(static_cast<size_t>(last - first + 1));
    if (ErrorMsg* e = pci.readConfig(p, static_cast<uint32_t>(first), static_cast<uint32_t>(last), buf.data()))
        return ctx.fail(e);
    Value bytes = Value::array();
    for (size_t i = 0; i < buf.size(); ++i) {
        char t[16];
        if (i % 16 == 0) {
            snprintf(t, sizeof(t), "%s%03llx:", i ? "\n" : "", static_cast<unsigned long long>(first + i));
            ctx.text += t;
        }
        snprintf(t, sizeof(t), " %02x", buf[i]);
        ctx.text += t;
        bytes.push(static_cast<int>(buf[i]));
    }
    ctx.text += "\n";
    ctx.result.set("address", args[0]).set("offset", first).set("bytes", bytes);
    return 0;
}

int configWrite(Context& ctx, const std::vector<std::string>& args) {
    PCIDAPI pci("PCIDAPI");
    _PFA p;
    long long offset = 0, value = 0, width = 1;
    if (args.size() < 3 || args.size() > 4 || !parseBdf(pci, args[0], &p) || !parseInt(args[1], 0, 4095, &offset) ||
        !parseInt(args[2], 0, 0xFFFFFFFFLL, &value) || (args.size() == 4 && !parseInt(args[3], 1, 4, &width)) ||
        width == 3)
        return ctx.usage("usage: quarn pci config-write BDF OFFSET VALUE [WIDTH 1|2|4]");
    ErrorMsg* e = width == 1 ? pci.ConfigWriteByte(p, offset, static_cast<uint8_t>(value))
                  : width == 2 ? pci.ConfigWriteWord(p, offset, static_cast<uint16_t>(value))
                               : pci.ConfigWriteDword(p, offset, static_cast<uint32_t>(value));
    if (e) return ctx.fail(e);
    ctx.result.set("address", args[0]).set("offset", offset).set("value", value).set("width", width);
    ctx.text = "written\n";
    return 0;
}

int bar(Context& ctx, const std::vector<std::string>& args) {
    PCIDAPI pci("PCIDAPI");
    _PFA p;
    long long index = 0;
    if (args.size() != 2 || !parseBdf(pci, args[0], &p) || !parseInt(args[1], 0, 5, &index))
        return ctx.usage("usage: quarn pci bar BDF INDEX");
    uint32_t base = 0, size = 0;
    if (ErrorMsg* e = pci.device()->getBarByBDF(p, static_cast<uint32_t>(index), &base, &size)) return ctx.fail(e);
    char t[64];
    snprintf(t, sizeof(t), "BAR%lld: base 0x%08x size 0x%x\n", index, base, size);
    ctx.text = t;
    ctx.result.set("base", static_cast<long long>(base)).set("size", static_cast<long long>(size));
    return 0;
}

int errorsFamily(Context& ctx, const std::vector<std::string>& args, _PCI_ERROR_TYPE family) {
    PCIDAPI pci("PCIDAPI");
    _PFA p;
    if (args.size() != 1 || !parseBdf(pci, args[0], &p)) return ctx.usage("usage: quarn pci errors|aer BDF");
    Value all = Value::array();
    const _PCI_ERROR_TYPE families[] = {PCI_COMPATIBLE_ERROR, PCIE_CAPABILITY_ERROR, PCIE_AER_ERROR};
    for (_PCI_ERROR_TYPE f : families) {
        if (family != 9 && f != family) continue;
        std::list<_PCI_ERROR> errors;
        ErrorMsg* e = pci.getErrorStatistics(p, f, &errors);
        if (e && family != 9) return ctx.fail(e);
        deleteErrorMsg(e);
        StdoutCapture cap;
        pci.showErrors(errors, f, false);
        ctx.text += cap.finish();
        for (const auto& x : errors) all.push(Value::object().set("name", x.name).set("value", static_cast<long long>(x.value)));
    }
    ctx.result.set("address", args[0]).set("errors", all);
    return 0;
}

int errors(Context& ctx, const std::vector<std::string>& a) { return errorsFamily(ctx, a, static_cast<_PCI_ERROR_TYPE>(9)); }
int aer(Context& ctx, const std::vector<std::string>& a) { return errorsFamily(ctx, a, PCIE_AER_ERROR); }

int clearErrors(Context& ctx, const std::vector<std::string>& args) {
    PCIDAPI pci("PCIDAPI");
    _PFA p;
    if (args.size() != 1 || !parseBdf(pci, args[0], &p)) return ctx.usage("usage: quarn pci clear-errors BDF");
    if (ErrorMsg* e = pci.clearErrors(p)) return ctx.fail(e);
    ctx.text = "errors cleared\n";
    ctx.result.set("address", args[0]).set("cleared", true);
    return 0;
}

int switchErrors(Context& ctx, const std::vector<std::string>& args) {
    if (args.empty() || args.size() > 2) return ctx.usage("usage: quarn pci switch-errors SWn [clear]");
    PCIDAPI pci("PCIDAPI");
    StdoutCapture cap;
    ErrorMsg* e = args.size() == 2 && args[1] == "clear" ? pci.clearPCIeSwitchPortErrors(args[0])
                                                         : pci.showSwitchErrorStatistics(args[0], static_cast<_PCI_ERROR_TYPE>(9));
    // The table's data: each port with the error counters that are set or clear.
    std::vector<_PORT_ERROR> table;
    ErrorMsg* te = e || args.size() == 2 ? nullptr : pci.getSwitchErrorStatistics(args[0], &table);
    ctx.text = cap.finish();
    if (e) return ctx.fail(e);
    if (te) return ctx.fail(te);
    ctx.result.set("switch", args[0]);
    if (args.size() == 1) {
        Value ports = Value::array();
        for (const _PORT_ERROR& p : table) {
            Value errors = Value::object();
            for (const _PCI_ERROR& err : p.errors) errors.set(err.name, static_cast<long long>(err.value));
            ports.push(Value::object()
                           .set("port", bdf(p.port.domain, p.port.bus, p.port.device, p.port.function))
                           .set("errors", errors));
        }
        ctx.result.set("ports", ports);
    }
    return 0;
}

void printTree(PCIDDAPI& dev, bridge* b, int depth, std::string* text, Value* out) {
    for (bus* bs = b->first_bus; bs; bs = bs->sibling) {
        char t[64];
        snprintf(t, sizeof(t), "%*sbus %04x:%02x\n", depth * 2, "", bs->domain, bs->number);
        *text += t;
        Value busValue = Value::object();
        busValue.set("bus", bdf(bs->domain, bs->number, 0, 0).substr(0, 7));
        Value devices = Value::array();
        for (device* d = bs->first_dev; d; d = d->busNext) {
            const pci_dev* p = d->dev;
            snprintf(t, sizeof(t), "%*s%s %04x:%04x\n", depth * 2 + 2, "", bdf(p->domain, p->bus, p->device, p->function).c_str(),
                     p->vendorID, p->deviceID);
            *text += t;
            devices.push(bdf(p->domain, p->bus, p->device, p->function));
        }
        busValue.set("devices", devices);
        out->push(busValue);
    }
    for (bridge* c = b->child; c; c = c->next) printTree(dev, c, depth + 1, text, out);
}

int tree(Context& ctx, const std::vector<std::string>& args) {
    PCIDAPI pci("PCIDAPI");
    pci.device()->grow_tree();
    Value buses = Value::array();
    printTree(*pci.device(), pci.device()->hostBridge(), 0, &ctx.text, &buses);
    ctx.result.set("buses", buses);
    return 0;
}

int slots(Context& ctx, const std::vector<std::string>& args) {
    PCIDAPI pci("PCIDAPI");
    StdoutCapture cap;
    ErrorMsg* e = pci.displayHBAs();
    ctx.text = cap.finish();
    if (e) return ctx.fail(e);
    return 0;
}

int switches(Context& ctx, const std::vector<std::string>& args) {
    PCIDAPI pci("PCIDAPI");
    std::vector<_SWITCH_UNIT> units;
    uint32_t count = 0;
    if (ErrorMsg* e = pci.getPCIeSwitchList(&units, &count)) return ctx.fail(e);
    Value arr = Value::array();
    for (_SWITCH_UNIT& u : units) {
        pci.device()->getDownstreamPorts(&u);
        const _PFA& up = u.upstreamPort;
        ctx.text += u.switchID + " " + u.name + " upstream " + bdf(up.domain, up.bus, up.device, up.function) + "\n";
        Value ports = Value::array();
        for (const _PFA& p : u.downstreamPorts) {
            ctx.text += "  " + bdf(p.domain, p.bus, p.device, p.function) + "\n";
            ports.push(bdf(p.domain, p.bus, p.device, p.function));
        }
        arr.push(Value::object().set("id", u.switchID).set("name", u.name)
                     .set("upstream", bdf(up.domain, up.bus, up.device, up.function)).set("downstream", ports));
    }
    ctx.result.set("switches", arr);
    return 0;
}

// ---------------------------------------------------------------- retrain and EEPROMs

int retrainList(Context& ctx, const std::vector<std::string>&) {
    PCIDAPI pci("PCIDAPI");
    std::vector<RetrainInfo> list;
    if (ErrorMsg* e = pci.getRetrainSupportedDeviceList(&list)) return ctx.fail(e);
    Value arr = Value::array();
    for (const RetrainInfo& r : list) {
        const std::string port = bdf(r.port.domain, r.port.bus, r.port.device, r.port.function);
        const bool behind = r.downstreamDomain != 0xFFFF;
        const std::string down = behind ? bdf(r.downstreamDomain, r.downstreamBus, r.downstreamDevice,
                                              static_cast<uint8_t>(r.downstreamFunction))
                                        : "-";
        arr.push(Value::object().set("port", port).set("link_up", r.linkUp != 0).set("downstream", down));
        ctx.text += port + (r.linkUp ? " up   " : " down ") + down + "\n";
    }
    ctx.result.set("ports", arr);
    return 0;
}

int retrainTest(Context& ctx, const std::vector<std::string>& args) {
    PCIDAPI pci("PCIDAPI");
    _PFA p;
    long long count = 1000;
    if (args.empty() || args.size() > 2 || !parseBdf(pci, args[0], &p) ||
        (args.size() == 2 && !parseInt(args[1], 1, 1000000, &count)))
        return ctx.usage("usage: quarn pci retrain-test PORT [COUNT]");
    ErrorMsg* chain = runWithProgress(ctx, pci, [&]() { return pci.testRetrain(p, static_cast<uint32_t>(count)); });
    ctx.result.set("port", args[0]).set("retrains", count).set("passed", chain == nullptr);
    if (chain) return ctx.fail(chain);
    ctx.text += "retrain test passed: " + std::to_string(count) + " retrains of " + args[0] + "\n";
    return 0;
}

int eeproms(Context& ctx, const std::vector<std::string>&) {
    PCIDAPI pci("PCIDAPI");
    std::vector<_EEPROM_INFO> list;
    if (ErrorMsg* e = pci.getEepromList(&list)) return ctx.fail(e);
    Value arr = Value::array();
    for (const _EEPROM_INFO& info : list) {
        const std::string at = bdf(info.domain, info.bus, info.device, static_cast<uint8_t>(info.function));
        arr.push(Value::object().set("name", info.name).set("switch_port", at));
        ctx.text += info.name + " (attached to PCIE switch " + at + ")\n";
    }
    ctx.result.set("eeproms", arr);
    return 0;
}

std::string hex32(uint32_t v) {
    char t[16];
    snprintf(t, sizeof(t), "%08x", v);
    return t;
}

int eepromRead(Context& ctx, const std::vector<std::string>& args) {
    long long offset = 0, length = 4;
    if (args.size() < 2 || args.size() > 3 || !parseInt(args[1], 0, 0xFFFFFFFFll, &offset) ||
        (args.size() == 3 && !parseInt(args[2], 1, 0x4000, &length)))
        return ctx.usage("usage: quarn pci eeprom-read EEPROM OFFSET [LEN]");
    PCIDAPI pci("PCIDAPI");
    const uint32_t count = static_cast<uint32_t>((length + 3) / 4);
    std::vector<uint32_t> words(count, 0);
    if (ErrorMsg* e = pci.readEeprom(args[0], static_cast<uint32_t>(offset), count, words.data())) return ctx.fail(e);
    Value arr = Value::array();
    const uint32_t first = static_cast<uint32_t>(offset) & ~3u;
    for (uint32_t i = 0; i < count; ++i) {
        arr.push(hex32(words[i]));
        char line[32];
        snprintf(line, sizeof(line), "%04x: %08x\n", first + 4 * i, words[i]);
        ctx.text += line;
    }
    ctx.result.set("eeprom", args[0]).set("offset", static_cast<long long>(first)).set("dwords", arr);
    return 0;
}

int eepromWrite(Context& ctx, const std::vector<std::string>& args) {
    long long offset = 0;
    if (args.size() != 3 || !parseInt(args[1], 0, 0xFFFFFFFFll, &offset))
        return ctx.usage("usage: quarn pci eeprom-write EEPROM OFFSET HEX  (HEX: dwords, 8 digits each)");
    const std::string& hex = args[2];
    if (hex.empty() || hex.size() % 8 != 0 || hex.size() > 0x4000 * 2 ||
        hex.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        return ctx.usage("quarn pci eeprom-write: HEX must be whole dwords of 8 hexadecimal digits");
    std::vector<uint32_t> words;
    for (size_t i = 0; i < hex.size(); i += 8) words.push_back(static_cast<uint32_t>(strtoul(hex.substr(i, 8).c_str(), nullptr, 16)));
    PCIDAPI pci("PCIDAPI");
    if (ErrorMsg* e = pci.writeEeprom(args[0], static_cast<uint32_t>(offset), static_cast<uint32_t>(words.size()),
                                      words.data()))
        return ctx.fail(e);
    ctx.result.set("eeprom", args[0]).set("offset", offset).set("dwords_written", static_cast<long long>(words.size()));
    ctx.text += std::to_string(words.size()) + " dwords written to " + args[0] + "\n";
    return 0;
}

// The library's progress printer writes to standard output; in JSON mode it is kept out
// of the document.
template <typename F>
ErrorMsg* withPrinter(Context& ctx, F call) {
    if (ctx.format == Format::Text) return call();
    StdoutCapture capture;
    ErrorMsg* e = call();
    capture.finish();
    return e;
}

int eepromSave(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 2) return ctx.usage("usage: quarn pci eeprom-save EEPROM FILE");
    PCIDAPI pci("PCIDAPI");
    if (ErrorMsg* e = withPrinter(ctx, [&]() { return pci.saveEeprom(args[0], args[1].c_str()); })) return ctx.fail(e);
    uint32_t size = 0;
    deleteErrorMsg(pci.getEepromSize(args[0], &size));
    ctx.result.set("eeprom", args[0]).set("file", args[1]).set("bytes", static_cast<long long>(size & ~3u));
    ctx.text += args[0] + " saved to " + args[1] + "\n";
    return 0;
}

int eepromProgram(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 2) return ctx.usage("usage: quarn pci eeprom-program EEPROM FILE");
    PCIDAPI pci("PCIDAPI");
    if (ErrorMsg* e = withPrinter(ctx, [&]() { return pci.programEeprom(args[0], args[1]); })) return ctx.fail(e);
    ctx.result.set("eeprom", args[0]).set("file", args[1]);
    ctx.text += args[0] + " programmed from " + args[1] + "\n";
    return 0;
}

int eepromTest(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("usage: quarn pci eeprom-test EEPROM");
    PCIDAPI pci("PCIDAPI");
    ErrorMsg* e = pci.testEeprom(args[0]);
    ctx.result.set("eeprom", args[0]).set("passed", e == nullptr);
    if (e) return ctx.fail(e);
    ctx.text += "eeprom test passed on " + args[0] + " (image restored)\n";
    return 0;
}

int eepromVersion(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("usage: quarn pci eeprom-version EEPROM");
    PCIDAPI pci("PCIDAPI");
    uint16_t version = 0;
    if (ErrorMsg* e = pci.getEepromImageVersion(args[0], &version)) return ctx.fail(e);
    char text[64];
    snprintf(text, sizeof(text), "%02d.%02d", version >> 8, version & 0xFF);
    ctx.result.set("eeprom", args[0]).set("version", text);
    ctx.text += std::string("EEPROM Image version: ") + text + "\n";
    return 0;
}

Register reg{
    {"pci", "list", "", "list the PCI functions (sorted, named)", list},
    {"pci", "hidden", "", "functions found by port I/O that sysfs does not list", hidden},
    {"pci", "show", "BDF", "one function: IDs, class, port type, link", show},
    {"pci", "config-read", "BDF [FIRST [LAST]]", "dump configuration bytes", configRead},
    {"pci", "config-write", "BDF OFFSET VALUE [WIDTH]", "write a configuration register", configWrite},
    {"pci", "bar", "BDF INDEX", "base and size of a BAR", bar},
    {"pci", "errors", "BDF", "PCI, PCIe and AER error registers", errors},
    {"pci", "aer", "BDF", "AER status registers", aer},
    {"pci", "clear-errors", "BDF", "clear the error registers (write-1-to-clear)", clearErrors},
    {"pci", "switch-errors", "SWn [clear]", "error table of all ports of a switch", switchErrors},
    {"pci", "tree", "", "bridges and buses", tree},
    {"pci", "slots", "", "slot report from the board profile", slots},
    {"pci", "switches", "", "PLX switches and their downstream ports", switches},
    {"pci", "retrain-list", "", "ports the link retrain test can run on", retrainList},
    {"pci", "retrain-test", "PORT [COUNT]", "retrain a port's link (1000 times) checking width and speed", retrainTest},
    {"pci", "eeproms", "", "serial EEPROMs of the PLX switches", eeproms},
    {"pci", "eeprom-read", "EEPROM OFFSET [LEN]", "read EEPROM dwords (byte offset, byte length)", eepromRead},
    {"pci", "eeprom-write", "EEPROM OFFSET HEX", "write EEPROM dwords (8 hex digits each)", eepromWrite},
    {"pci", "eeprom-save", "EEPROM FILE", "save the EEPROM image to a file", eepromSave},
    {"pci", "eeprom-program", "EEPROM FILE", "program the EEPROM from a file", eepromProgram},
    {"pci", "eeprom-test", "EEPROM", "pattern test; the image is put back", eepromTest},
    {"pci", "eeprom-version", "EEPROM", "configuration image version", eepromVersion},
};

}  // namespace
}  // namespace quarn::cli
