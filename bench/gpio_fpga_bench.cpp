// Wall time of the board-peripheral operations on the virtual board: the 16 KiB
// scratch-pad test (plain pages, and with a stuck cell's page trapped), FPGA register
// reads (every access trapped), GPIO reads and writes (each port access followed by a
// 1 ms pause in virtual time), LED sets and the slot ID.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "api/ErrorText.h"
#include "api/platform/Platform.h"
#include "dapi/fpga/FPGADAPI.h"
#include "dapi/gpio/GPIODAPI.h"
#include "dapi/led/LEDDAPI.h"
#include "ddapi/controller/ControllerDDAPI.h"
#include "vboard/Board.h"

namespace {

double seconds(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

void check(ErrorMsg* e) {
    if (!e) return;
    std::string text;
    getErrorMessage(e, &text);
    fprintf(stderr, "failed: %s\n", text.c_str());
    exit(1);
}

template <typename F>
void measure(const char* what, int rounds, F f) {
    auto t0 = std::chrono::steady_clock::now();
    for (int i = 0; i < rounds; ++i) f();
    const double s = seconds(t0);
    printf("%-42s %6d x  %10.1f us each\n", what, rounds, s * 1e6 / rounds);
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? atoi(argv[1]) : 5;
    quarn::vboard::Board board;
    quarn::installPlatform(&board);
    {
        FPGADAPI fpga("FPGADAPI");
        check(fpga.getErrorMsg());
        measure("fpga spad-test (16 KiB, 6 accesses/byte)", rounds, [&] { check(fpga.spadTest("fpga0")); });
        std::string v;
        measure("fpga register read (trapped)", rounds * 1000, [&] { check(fpga.readReg("fpga0", 17, &v)); });
        measure("fpga register write (trapped)", rounds * 1000, [&] { check(fpga.writeReg("fpga0", 3, "0x5a")); });
    }
    {
        GPIODAPI gpio("GPIODAPI");
        bool value = false;
        const uint64_t t0 = board.clock().nowNs();
        measure("gpio get (1 port access)", rounds * 100, [&] { check(gpio.getStatus("SLT_AB_PCH", &value)); });
        measure("gpio set (3 port accesses)", rounds * 100, [&] { check(gpio.setStatus("BIOS_SEL", true)); });
        printf("%-42s %10.1f ms\n", "  virtual time spent in port pauses", (board.clock().nowNs() - t0) / 1e6);
    }
    {
        LEDDAPI led("LEDDAPI");
        measure("led set ctrl_fault_led (FPGA object per call)", rounds * 100,
                [&] { check(led.setLEDStatus("ctrl_fault_led", "on")); });
        ControllerDDAPI ctrl;
        unsigned id = 0;
        measure("controller slot (profile read per call)", rounds * 100, [&] { check(ctrl.getSlotID(&id)); });
    }
    {
        board.fpga->stickSpadCell(0x3000, 0x00);
        FPGADAPI fpga("FPGADAPI");
        unsigned failed = 0;
        auto t0 = std::chrono::steady_clock::now();
        ErrorMsg* e = fpga.spadTest("fpga0", &failed);
        const double s = seconds(t0);
        deleteErrorMsg(e);
        printf("%-42s %6d x  %10.1f us each (failed at 0x%04x)\n", "fpga spad-test, stuck cell at 0x3000", 1, s * 1e6,
               failed);
    }
    quarn::installPlatform(nullptr);
    printf("port-permission violations: %llu\n", static_cast<unsigned long long>(board.portViolations()));
    return 0;
}
