// Cost of the serial-port and TPM operations on the virtual board, in host time: the port
// scan, the scratch and loopback tests (one ioperm and one port access per register touch,
// through the 16550 model), and TPM commands answered by libtpms through /dev/tpm0.
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "api/ErrorText.h"
#include "api/platform/Platform.h"
#include "dapi/tpm/TPMDAPI.h"
#include "dapi/uart/UARTDAPI.h"
#include "vboard/Board.h"

namespace {

double seconds(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

bool ok(ErrorMsg* e) {
    if (!e) return true;
    std::string text;
    getErrorMessage(e, &text);
    fprintf(stderr, "failed: %s\n", text.c_str());
    return false;
}

template <typename F>
bool timeIt(const char* what, int runs, F f) {
    auto t0 = std::chrono::steady_clock::now();
    for (int i = 0; i < runs; ++i)
        if (!f()) return false;
    const double s = seconds(t0);
    printf("%-44s %6d runs  %9.1f us each\n", what, runs, s * 1e6 / runs);
    return true;
}

}  // namespace

int main() {
    quarn::vboard::Board board;
    quarn::installPlatform(&board);
    UARTDAPI uart("UARTDAPI");
    TPMDAPI tpm("TPMDAPI");
    bool good = true;

    good = good && timeIt("uart list (5 ttys, scratch file)", 200, [&] {
        std::vector<_SERIAL_INFO> ports;
        return ok(uart.getUartList(&ports)) && ports.size() == 4;
    });
    good = good && timeIt("uart scratch-test uart1", 200, [&] { return ok(uart.testScratchPad("uart1")); });
    good = good && timeIt("uart loopback-test uart0 256 bytes (115200)", 50,
                          [&] { return ok(uart.doInternalLoopbackTest("uart0", false, 256, false, 0)); });
    const uint64_t v0 = board.clock().nowNs();
    good = good && timeIt("uart loopback-test uart1 256 bytes (9600)", 50,
                          [&] { return ok(uart.doInternalLoopbackTest("uart1", false, 256, false, 0)); });
    printf("  virtual time of one 9600-baud run: %.1f ms (256 x 1.04 ms on the wire)\n",
           (board.clock().nowNs() - v0) / 50 / 1e6);

    std::vector<unsigned char> rsp(4096);
    unsigned int got = 0;
    _TPM_CMD_INPUT caps{0x8001, 22, 0x17A, {6, 0x100, 127}};
    _TPM_CMD_INPUT quick{0x8001, 11, 0x143, {0, 0, 0}};
    _TPM_CMD_INPUT full{0x8001, 11, 0x143, {1, 0, 0}};
    auto t0 = std::chrono::steady_clock::now();
    good = good && ok(tpm.commandInterface(quick, rsp.data(), 4096, &got));
    printf("%-44s %9.1f ms\n", "tpm power-on (manufacture) + first command", seconds(t0) * 1e3);
    good = good && timeIt("tpm GetCapability fixed properties", 500,
                          [&] { return ok(tpm.commandInterface(caps, rsp.data(), 4096, &got)) && got > 300; });
    good = good && timeIt("tpm SelfTest (full)", 50,
                          [&] { return ok(tpm.commandInterface(full, rsp.data(), 4096, &got)) && got == 10; });
    board.writeFile("/tmp/cmd.txt", "80 01\n00 00 00 0b\n00 00 01 43\n00\n");
    good = good && timeIt("tpm send command file (SelfTest)", 500,
                          [&] { return ok(tpm.sendCommandManually("/tmp/cmd.txt", rsp.data(), 4096, &got)); });
    quarn::installPlatform(nullptr);
    return good ? 0 : 1;
}
