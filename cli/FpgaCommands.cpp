// quarn fpga ...: the board FPGA's registers and scratch pad.
#include <cctype>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "cli/Cli.h"
#include "cli/Progress.h"
#include "dapi/fpga/FPGADAPI.h"
#include "ddapi/fpga/FPGADDAPI.h"

namespace quarn::cli {
namespace {

const char kDevice[] = "fpga0";

std::string hex(unsigned long long v, int digits) {
    char text[24];
    snprintf(text, sizeof(text), "0x%0*llx", digits, v);
    return text;
}

const char* accessName(unsigned int access) {
    switch (access) {
    case FPGADDAPI::kAccessReadOnly:
        return "read-only";
    case FPGADDAPI::kAccessWriteOnly:
        return "write-only";
    default:
        return "read-write";
    }
}

int open(Context& ctx, FPGADAPI& fpga) {
    ErrorMsg* errors = fpga.getErrorMsg();
    return errors ? ctx.fail(errors) : 0;
}

// A register offset, decimal or 0x-prefixed.
bool parseRegister(const std::string& text, unsigned int* reg) {
    long long v = 0;
    if (!parseInt(text, 0, 0xFFFF, &v)) return false;
    *reg = static_cast<unsigned int>(v);
    return true;
}

int base(Context& ctx, const std::vector<std::string>& args) {
    if (!args.empty()) return ctx.usage("fpga base takes no arguments");
    FPGADAPI fpga("FPGADAPI");
    if (int rc = open(ctx, fpga)) return rc;
    unsigned int start = 0, size = 0;
    if (ErrorMsg* e = fpga.getSPADInfo(kDevice, &start, &size)) return ctx.fail(e);
    const unsigned int address = fpga.device()->baseAddress();
    const unsigned long long spad = static_cast<unsigned long long>(address) + FPGADDAPI::kSpadOffset + start;
    ctx.result.set("device", kDevice).set("base", hex(address, 8));
    ctx.result.set("scratch_pad", Value::object().set("address", hex(spad, 8)).set("size", size));
    char line[128];
    snprintf(line, sizeof(line), "%s  base %s  scratch pad %s (%u bytes)\n", kDevice, hex(address, 8).c_str(),
             hex(spad, 8).c_str(), size);
    ctx.text = line;
    return 0;
}

int list(Context& ctx, const std::vector<std::string>& args) {
    if (!args.empty()) return ctx.usage("fpga list takes no arguments");
    FPGADAPI fpga("FPGADAPI");
    if (int rc = open(ctx, fpga)) return rc;
    std::list<std::string> devices;
    if (ErrorMsg* e = fpga.getDeviceList(&devices)) return ctx.fail(e);
    Value registers = Value::array();
    const FPGA_REG_INFO* table = FPGADDAPI::registerTable();
    for (unsigned int i = 0; i < FPGADDAPI::kRegisterCount; ++i) {
        const FPGA_REG_INFO& r = table[i];
        Value v = Value::object();
        v.set("offset", hex(r.offset, 2)).set("size", r.size).set("access", accessName(r.access));
        std::string value = "--";
        if (r.access != FPGADDAPI::kAccessWriteOnly) {
            if (ErrorMsg* e = fpga.readReg(kDevice, r.offset, &value)) return ctx.fail(e);
            v.set("value", value);
        }
        char line[64];
        snprintf(line, sizeof(line), "%s  %-10s  %s\n", hex(r.offset, 2).c_str(), accessName(r.access), value.c_str());
        ctx.text += line;
        registers.push(v);
    }
    Value names = Value::array();
    for (const std::string& d : devices) names.push(d);
    ctx.result.set("devices", names).set("registers", registers);
    return 0;
}

int read(Context& ctx, const std::vector<std::string>& args) {
    unsigned int reg = 0;
    if (args.size() != 1 || !parseRegister(args[0], &reg)) return ctx.usage("usage: quarn fpga read REG");
    FPGADAPI fpga("FPGADAPI");
    if (int rc = open(ctx, fpga)) return rc;
    std::string value;
    if (ErrorMsg* e = fpga.readReg(kDevice, reg, &value)) return ctx.fail(e);
    ctx.result.set("device", kDevice).set("register", hex(reg, 2)).set("value", value);
    ctx.text = "register " + hex(reg, 2) + ": " + value + "\n";
    return 0;
}

int write(Context& ctx, const std::vector<std::string>& args) {
    unsigned int reg = 0;
    if (args.size() != 2 || !parseRegister(args[0], &reg)) return ctx.usage("usage: quarn fpga write REG HEX");
    // The value is hexadecimal with or without its 0x, and one byte.
    std::string digits = args[1];
    if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) digits = digits.substr(2);
    bool ok = !digits.empty() && digits.size() <= 2;
    for (char c : digits) ok = ok && isxdigit(static_cast<unsigned char>(c));
    if (!ok) return ctx.usage("fpga write: the value is one byte in hexadecimal (00-ff)");
    FPGADAPI fpga("FPGADAPI");
    if (int rc = open(ctx, fpga)) return rc;
    if (ErrorMsg* e = fpga.writeReg(kDevice, reg, "0x" + digits)) return ctx.fail(e);
    const std::string value = hex(std::stoul(digits, nullptr, 16), 2).substr(2);
    ctx.result.set("device", kDevice).set("register", hex(reg, 2)).set("value", value);
    ctx.text = "register " + hex(reg, 2) + " written with " + value + "\n";
    return 0;
}

int spadTest(Context& ctx, const std::vector<std::string>& args) {
    if (!args.empty()) return ctx.usage("fpga spad-test takes no arguments");
    FPGADAPI fpga("FPGADAPI");
    if (int rc = open(ctx, fpga)) return rc;
    unsigned int failed = 0;
    ErrorMsg* e = runWithProgress(ctx, fpga, [&]() { return fpga.spadTest(kDevice, &failed); });
    unsigned int start = 0, size = 0;
    deleteErrorMsg(fpga.getSPADInfo(kDevice, &start, &size));
    ctx.result.set("test", "fpga scratch pad").set("device", kDevice).set("size", size).set("passed", e == nullptr);
    if (e) {
        if (failed < size) ctx.result.set("failed_offset", hex(failed, 4));
        return ctx.fail(e);
    }
    ctx.text = "FPGA scratch-pad test passed (" + std::to_string(size) + " bytes, contents restored)\n";
    return 0;
}

Register reg{
    {"fpga", "base", "", "the FPGA's base address (board ports 0x700/0x701) and scratch pad", base},
    {"fpga", "list", "", "the register table with access rights and the readable values", list},
    {"fpga", "read", "REG", "read a register (two hexadecimal digits)", read},
    {"fpga", "write", "REG HEX", "write a register with a hexadecimal byte", write},
    {"fpga", "spad-test", "", "test every scratch-pad byte and restore its contents", spadTest},
};

}  // namespace
}  // namespace quarn::cli
