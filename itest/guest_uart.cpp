// Guest checks of the serial ports: the kernel's 8250 driver lists QEMU's four 16550A
// UARTs, and the scratch-pad and internal loopback tests run on their registers.
#include <vector>

#include "dapi/uart/UARTDAPI.h"
#include "itest/GuestCheck.h"

namespace {

using namespace itest;

// Line control, modem control, interrupt enable and scratch, read directly.
std::vector<int> registers(unsigned base) {
    quarn::Platform& p = quarn::platform();
    std::vector<int> v;
    for (unsigned off : {3u, 4u, 1u, 7u}) {
        if (p.ioperm(base + off, 1, 1) != 0) return {};
        v.push_back(p.inb(static_cast<uint16_t>(base + off)));
        p.ioperm(base + off, 1, 0);
    }
    return v;
}

void runUartChecks() {
    part("uart");
    UARTDAPI uart("UARTDAPI");
    std::vector<_SERIAL_INFO> ports;
    if (!ok("uart list", uart.getUartList(&ports))) return;
    std::string found;
    size_t legacy = 0;
    for (const _SERIAL_INFO& p : ports) {
        found += p.name + "=" + p.path + ":" + p.type + "@" + hex(p.serial.port) + " ";
        if (p.type == "16550A" && (p.serial.port & ~0x110) == 0x2E8) ++legacy;
    }
    expect("uart list: four 16550A at the legacy bases", legacy == 4, found);

    for (const _SERIAL_INFO& p : ports) {
        if ((p.serial.port & ~0x110) != 0x2E8) continue;
        const std::string tag = p.name + " (" + p.path + ", " + hex(p.serial.port) + ")";
        // Nothing is printed between the two register reads: the console's driver turns
        // the transmit interrupt (IER bit 1) on and off as it sends, so that bit is the
        // driver's and not compared.
        const std::vector<int> before = registers(p.serial.port);
        ErrorMsg* scratch = uart.testScratchPad(p.name.c_str());
        ErrorMsg* counting = uart.doInternalLoopbackTest(p.name.c_str(), false, 300, false, 0);
        ErrorMsg* fixed = uart.doInternalLoopbackTest(p.name.c_str(), false, 64, true, 0xA5);
        const std::vector<int> after = registers(p.serial.port);
        ok("uart scratch-test " + tag, scratch);
        ok("uart loopback-test " + tag + " 300 counting bytes", counting);
        ok("uart loopback-test " + tag + " 64 x 0xA5", fixed);
        static const char* const kNames[] = {"LCR", "MCR", "IER", "SCR"};
        std::string why;
        bool same = !before.empty() && before.size() == after.size();
        for (size_t i = 0; same && i < after.size(); ++i) {
            const int mask = i == 2 ? ~0x02 : ~0;
            if ((before[i] & mask) != (after[i] & mask)) {
                why += std::string(kNames[i]) + " " + hex(before[i]) + "->" + hex(after[i]) + " ";
                same = false;
            }
        }
        expect("uart " + tag + ": LCR, MCR, IER and scratch restored", same, before.empty() ? "no port access" : why);
    }
}

itest::RegisterGuestPart reg("uart", runUartChecks);

}  // namespace
