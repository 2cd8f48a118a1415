// quarn uart ...: the serial ports and their register tests.
#include <cstdio>
#include <string>
#include <vector>

#include "cli/Cli.h"
#include "cli/Progress.h"
#include "dapi/uart/UARTDAPI.h"

namespace quarn::cli {
namespace {

std::string hexPort(unsigned long v) {
    char text[16];
    snprintf(text, sizeof(text), "0x%03lX", v);
    return text;
}

int list(Context& ctx, const std::vector<std::string>& args) {
    if (!args.empty()) return ctx.usage("uart list takes no arguments");
    UARTDAPI uart("UARTDAPI");
    std::vector<_SERIAL_INFO> ports;
    StdoutCapture capture;
    ErrorMsg* e = uart.getUartList(&ports);
    capture.finish();
    if (e) return ctx.fail(e);
    Value out = Value::array();
    ctx.text = "NAME    NODE          TYPE      PORT   IRQ  FIFO\n";
    for (const _SERIAL_INFO& p : ports) {
        char line[128];
        snprintf(line, sizeof(line), "%-7s %-13s %-9s %-6s %-4d %d\n", p.name.c_str(), p.path.c_str(),
                 p.type.c_str(), hexPort(p.serial.port).c_str(), p.serial.irq, p.serial.xmit_fifo_size);
        ctx.text += line;
        Value v = Value::object();
        v.set("name", p.name).set("path", p.path).set("type", p.type);
        v.set("type_number", p.serial.type).set("port", hexPort(p.serial.port));
        v.set("irq", p.serial.irq).set("line", p.serial.line).set("fifo_size", p.serial.xmit_fifo_size);
        v.set("baud_base", p.serial.baud_base);
        out.push(v);
    }
    if (ports.empty()) ctx.text = "no serial ports\n";
    ctx.result.set("ports", out);
    return 0;
}

int scratch(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("usage: quarn uart scratch-test PORT   (PORT as in uart list: uart0)");
    UARTDAPI uart("UARTDAPI");
    StdoutCapture capture;
    ErrorMsg* e = uart.testScratchPad(args[0].c_str());
    capture.finish();
    ctx.result.set("test", "scratch pad").set("port", args[0]).set("passed", e == nullptr);
    if (e) return ctx.fail(e);
    ctx.text = args[0] + ": scratch pad test passed (0xAA 0x55 0xFF 0x00)\n";
    return 0;
}

int loopback(Context& ctx, const std::vector<std::string>& args) {
    long long length = 256, pattern = -1;
    if (args.empty() || args.size() > 3 || (args.size() > 1 && !parseInt(args[1], 0, 1 << 20, &length)) ||
        (args.size() > 2 && !parseInt(args[2], 0, 255, &pattern)))
        return ctx.usage("usage: quarn uart loopback-test PORT [LENGTH [PATTERN]]");
    UARTDAPI uart("UARTDAPI");
    StdoutCapture capture;
    ErrorMsg* e = runWithProgress(ctx, uart, [&] {
        return uart.doInternalLoopbackTest(args[0].c_str(), false, static_cast<unsigned int>(length), pattern >= 0,
                                           static_cast<uint8_t>(pattern >= 0 ? pattern : 0));
    });
    capture.finish();
    ctx.result.set("test", "internal loopback").set("port", args[0]).set("length", static_cast<int>(length));
    ctx.result.set("pattern", pattern >= 0 ? Value(static_cast<int>(pattern)) : Value("counting"));
    ctx.result.set("bytes_matched", uart.device() ? uart.device()->loopbackBytesDone() : 0u);
    ctx.result.set("passed", e == nullptr);
    if (e) return ctx.fail(e);
    char line[128];
    snprintf(line, sizeof(line), "%s: internal loopback test passed (%lld bytes)\n", args[0].c_str(), length);
    ctx.text = line;
    return 0;
}

Register reg{
    {"uart", "list", "", "serial ports the kernel reports (TIOCGSERIAL)", list},
    {"uart", "scratch-test", "PORT", "scratch-pad register test through the I/O ports", scratch},
    {"uart", "loopback-test", "PORT [LENGTH [PATTERN]]",
     "internal loopback (modem control loop bit); counting bytes unless PATTERN", loopback},
};

}  // namespace
}  // namespace quarn::cli
