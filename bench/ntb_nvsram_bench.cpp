// Throughput of the NT bridge transfer on two virtual boards joined by their NT link
// (window writes as the throughput test makes them, with the link's delivery to the
// peer, next to a plain copy between the same two mappings), and the cost of the
// NVSRAM tests on the board's nvSRAM (every access of its window traps into the model).
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "api/ErrorText.h"
#include "api/platform/Platform.h"
#include "dapi/ntb/NTBDAPI.h"
#include "dapi/nvsram/NVSRAMDAPI.h"
#include "ddapi/ntb/NTBDDAPI.h"
#include "vboard/Board.h"
#include "vboard/models/ntb/NtbModel.h"

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

double mbps(double bytes, double s) { return bytes / s / 1e6; }

}  // namespace

int main() {
    quarn::vboard::Board local;
    quarn::vboard::Board peer;
    auto link = quarn::vboard::connectNtb(local, peer);
    quarn::installPlatform(&local);

    // Window traffic: the 1 MB window written 200 times, each time carried to the peer.
    {
        NTBDDAPI ntb("NTBDDAPI");
        if (!ok(ntb.getWindowInfo(0))) return 1;
        const size_t size = ntb.windowSize();
        const int rounds = 200;
        std::vector<uint64_t> block(size / 8, 0xA5A5A5A5A5A5A5A5ull);
        auto t0 = std::chrono::steady_clock::now();
        for (int i = 0; i < rounds; ++i) {
            memcpy(ntb.writeWindow(), block.data(), size);
            link->deliver(0);
        }
        const double window = seconds(t0);
        // A plain copy between the same two mappings (read window into write window).
        t0 = std::chrono::steady_clock::now();
        for (int i = 0; i < rounds; ++i) memcpy(ntb.writeWindow(), ntb.readWindow(), size);
        const double plain = seconds(t0);
        printf("ntb window traffic: %.0f MB/s (write + link delivery), plain copy between the mappings: %.0f MB/s\n",
               mbps(static_cast<double>(size) * rounds, window), mbps(static_cast<double>(size) * rounds, plain));
        ntb.releaseWindowResource();
    }

    // Ping-pong across the bridge: 20 rounds of full 1 MB windows, peer in a child process.
    {
        fflush(stdout);
        const pid_t pid = fork();
        if (pid == 0) {
            if (!freopen("/dev/null", "w", stdout)) _exit(3);
            quarn::installPlatform(&peer);
            NTBDAPI ntb("NTBDAPI");
            _exit(ok(ntb.client("NTB0", 0x1111, 0x2222, 20)) ? 0 : 1);
        }
        NTBDAPI ntb("NTBDAPI");
        FILE* saved = stdout;
        stdout = fopen("/dev/null", "w");
        auto t0 = std::chrono::steady_clock::now();
        const bool passed = ok(ntb.server("NTB0", 0x1111, 0x2222, 20));
        const double s = seconds(t0);
        fclose(stdout);
        stdout = saved;
        int status = 0;
        waitpid(pid, &status, 0);
        printf("ntb ping-pong: 20 rounds of 1 MB each way in %.2f s real (%s; paced by the 1 s polls,"
               " which the board turns into short real waits)\n",
               s, passed && WIFEXITED(status) && WEXITSTATUS(status) == 0 ? "passed" : "FAILED");
    }

    // NVSRAM tests over the 128 KB SRAM.
    {
        NVSRAMDAPI nv("NVSRAMDAPI");
        struct Run {
            const char* name;
            unsigned long long start, end;
            int width;
        } runs[] = {{"nonvolatile 64 KB, 64-bit", 0, 0xFFFF, 64},
                    {"nonvolatile 4 KB, 8-bit", 0, 0xFFF, 8},
                    {"dataline 4 KB, 64-bit", 0, 0xFFF, 64},
                    {"addressline 128 KB, 32-bit", 0, 0x1FFFF, 32}};
        for (const Run& r : runs) {
            const uint64_t v0 = local.clock().nowNs();
            auto t0 = std::chrono::steady_clock::now();
            ErrorMsg* e = nullptr;
            if (std::string(r.name).rfind("nonvolatile", 0) == 0) e = nv.runNonVolatileTest(r.start, r.end, r.width);
            else if (std::string(r.name).rfind("dataline", 0) == 0) e = nv.dataLineTest(r.start, r.end, r.width);
            else e = nv.addressLineTest(r.start, r.end, r.width);
            const double s = seconds(t0);
            const bool passed = ok(e);
            printf("nvsram %-28s %6.2f s real, %6.1f s board time (%s)\n", r.name, s,
                   static_cast<double>(local.clock().nowNs() - v0) / 1e9, passed ? "passed" : "FAILED");
        }
    }
    quarn::installPlatform(nullptr);
    return 0;
}
