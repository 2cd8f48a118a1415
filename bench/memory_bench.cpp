// Throughput of the memory tests over the virtual board's RAM, next to a plain
// fill-and-compare loop over the same memory (the bandwidth limit) and, when it is
// installed, memtester on the same size.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "api/ErrorText.h"
#include "api/platform/Platform.h"
#include "dapi/memory/MemoryDAPI.h"
#include "vboard/VirtualBoard.h"
#include "vboard/models/memory/MemoryController.h"

namespace {

double seconds(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

bool ok(ErrorMsg* e) {
    if (!e) return true;
    std::string text;
    getErrorMessage(e, &text);
    fprintf(stderr, "test failed: %s\n", text.c_str());
    return false;
}

// One pass of fill and compare, 64-bit, as a plain program would write it.
double plainPass(volatile unsigned long long* p, size_t words, unsigned long long v) {
    auto t0 = std::chrono::steady_clock::now();
    for (size_t i = 0; i < words; ++i) p[i] = v;
    for (size_t i = 0; i < words; ++i)
        if (p[i] != v) abort();
    return seconds(t0);
}

}  // namespace

int main(int argc, char** argv) {
    const unsigned long long mib = argc > 1 ? strtoull(argv[1], nullptr, 0) : 256;
    const unsigned long long size = mib << 20;
    quarn::vboard::VirtualBoard board;
    quarn::vboard::MemoryController controller(8ULL << 30);
    controller.install(board);
    quarn::installPlatform(&board);
    const unsigned long long start = 0x200000000ULL, end = start + size;
    auto* view = reinterpret_cast<volatile unsigned long long*>(controller.memory()->view(start));
    // Touch the memory once so no run pays for first-touch page allocation.
    plainPass(view, size / 8, 0);

    const double mb = static_cast<double>(size) / 1e6;
    double plain = 1e9;
    for (int i = 0; i < 3; ++i) plain = std::min(plain, plainPass(view, size / 8, 0xA5A5A5A5A5A5A5A5ULL));
    printf("range %llu MiB; rates are MB of range per second for one write+read pass\n", mib);
    printf("%-28s %10.1f MB/s\n", "plain fill+compare (64-bit)", mb / plain);

    MemoryDAPI memory("MemoryDAPI");
    // Each test is timed in turn with a plain pass right before it, five times, and the
    // best of each is compared: another program taking the memory bus or a core for a
    // while then slows both sides of one comparison instead of one side only.
    auto run = [&](const char* name, int passes, auto f) {
        double best = 1e9, bestPlain = 1e9;
        for (int i = 0; i < 5; ++i) {
            bestPlain = std::min(bestPlain, plainPass(view, size / 8, 0xA5A5A5A5A5A5A5A5ULL));
            auto t0 = std::chrono::steady_clock::now();
            if (!ok(f())) return;
            best = std::min(best, seconds(t0));
        }
        const double rate = mb * passes / best;
        printf("%-28s %10.1f MB/s  (%.2f of plain at %.1f MB/s)\n", name, rate, rate / (mb / bestPlain),
               mb / bestPlain);
    };
    run("patternTest 64-bit", 1, [&] { return memory.patternTest(start, end, 64, 0x5A5A5A5A5A5A5A5AULL); });
    run("patternTest 32-bit", 1, [&] { return memory.patternTest(start, end, 32, 0x5A5A5A5A); });
    // 65 write+read passes per page: zero and each walking one.
    run("dataLineTest 64-bit", 65, [&] { return memory.dataLineTest(start, end, 64); });
    // March C-: six elements, each about one read and/or write pass; counted as 5 passes
    // of write+read work (1 write, 4 read+write, 1 read).
    run("marchCTest 64-bit", 5, [&] { return memory.marchCTest(start, end, 64, 0); });
    quarn::installPlatform(nullptr);

    std::string out;
    int status = 0;
    auto t0 = std::chrono::steady_clock::now();
    if (quarn::linuxPlatform().runProgram({"memtester", std::to_string(mib) + "M", "1"}, &out, &status) == 0 &&
        WIFEXITED(status) && WEXITSTATUS(status) == 0) {
        printf("%-28s %10.1f s for one loop of its 22 tests over %llu MiB\n", "memtester", seconds(t0), mib);
    } else {
        printf("%-28s not run (install the memtester package, and run as root to lock memory)\n", "memtester");
    }
    return 0;
}
