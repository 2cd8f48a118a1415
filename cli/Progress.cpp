// A progress bar for long tests, drawn from a second thread.
#include "cli/Progress.h"

#include <sys/ioctl.h>
#include <termios.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>

#include "api/platform/Platform.h"

namespace quarn::cli {

namespace {
void draw(unsigned long long percent) {
    if (percent > 100) percent = 100;
    char bar[41];
    const int filled = static_cast<int>(percent * 40 / 100);
    for (int i = 0; i < 40; ++i) bar[i] = i < filled ? '#' : ' ';
    bar[40] = '\0';
    fprintf(stderr, "\r[%s] %3llu%%", bar, percent);
    fflush(stderr);
}
}  // namespace

bool progressShown(const Context& ctx) {
    // The terminal is always the host's, whichever board the library talks to.
    struct termios t;
    return ctx.format == Format::Text && quarn::linuxPlatform().ioctl(2, TCGETS, &t) == 0;
}

void drawProgress(unsigned long long percent, bool last) {
    draw(percent);
    if (last) fputc('\n', stderr);
}

ErrorMsg* runWithProgress(Context& ctx, BaseClassDAPI& object, const std::function<ErrorMsg*()>& test) {
    // The terminal is always the host's, whichever board the library talks to.
    struct termios t;
    const bool terminal = quarn::linuxPlatform().ioctl(2, TCGETS, &t) == 0;
    if (ctx.format != Format::Text || !terminal) return test();
    std::atomic<bool> done{false};
    std::thread painter([&] {
        while (!done.load()) {
            draw(object.getProgress());
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    });
    ErrorMsg* result = test();
    done.store(true);
    painter.join();
    draw(object.getProgress());
    fputc('\n', stderr);
    return result;
}

}  // namespace quarn::cli
