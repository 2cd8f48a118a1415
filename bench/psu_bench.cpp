// Cost of the platform-management requests on the virtual board: a LINEAR11 round trip,
// one supply reading through the whole stack (profile, switch routing, SMBus), one
// temperature request, one gauge word, and a full firmware update in virtual time.
#include <chrono>
#include <cstdio>
#include <list>
#include <string>

#include "api/ErrorText.h"
#include "api/platform/Platform.h"
#include "dapi/psu/PSUDAPI.h"
#include "dapi/temperature/TemperatureDAPI.h"
#include "ddapi/bbu/BBU_I2C_TI_bq40z50.h"
#include "ddapi/psu/PMBusPSU.h"
#include "vboard/Board.h"

namespace {
double seconds(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}
template <typename F>
void measure(const char* what, int n, F f) {
    const auto t0 = std::chrono::steady_clock::now();
    for (int i = 0; i < n; ++i) f(i);
    const double s = seconds(t0);
    printf("%-40s %8d calls  %10.1f us/call\n", what, n, s * 1e6 / n);
}
void drop(ErrorMsg* e) { deleteErrorMsg(e); }
}  // namespace

int main() {
    quarn::vboard::Board board;
    quarn::installPlatform(&board);
    volatile unsigned sink = 0;
    measure("LINEAR11 encode + decode", 200000, [&](int i) {
        sink = sink + static_cast<unsigned>(quarn::psu::linear11ToDouble(quarn::psu::floatToLinear11(i * 0.37f)));
    });
    PSUDAPI psu("PSUDAPI");
    measure("psu get psu0_fan0 (PSUDAPI)", 200, [&](int) {
        std::string v;
        drop(psu.getDataByElement(PSU_FAN_SPEED, "psu0_fan0", &v));
    });
    TemperatureDAPI temp("TemperatureDAPI");
    measure("temp current dimm0-temp (TemperatureDAPI)", 200, [&](int) {
        std::list<std::string> v;
        drop(temp.getDataByName("dimm0-temp", TEMPERATURE_CURRENT, &v));
    });
    BBU_I2C_TI_bq40z50 gauge;
    gauge.Set_name("bbu0");
    measure("bbu relative state of charge", 200, [&](int) {
        int v = 0;
        drop(gauge.Get_Relative_State_Charge(&v));
    });
    std::string image(32, 'H');
    // A body the supply's loader accepts: revision text, filler, sum.
    for (uint8_t b : quarn::vboard::PmbusSupplyModel::makeFirmwareBody("S1F 9.99", 4078)) image += static_cast<char>(b);
    board.writeFile("/tmp/bench.bin", image);
    const uint64_t v0 = board.clock().nowNs();
    const auto t0 = std::chrono::steady_clock::now();
    FILE* saved = stdout;
    stdout = fopen("/dev/null", "w");
    ErrorMsg* e = psu.updateFWByFile("psu1", 0, "/tmp/bench.bin");
    fclose(stdout);
    stdout = saved;
    std::string text;
    getErrorMessage(e, &text);
    printf("%-40s %8.3f s wall  %8.1f s board time  %s\n", "firmware update, 4096-byte body", seconds(t0),
           (board.clock().nowNs() - v0) / 1e9, text.empty() ? "ok" : text.c_str());
    quarn::installPlatform(nullptr);
    return 0;
}
