// Argument parsing shared by the tool's commands.
#include <cerrno>
#include <cstdlib>

#include "cli/Cli.h"

namespace quarn::cli {

bool parseInt(const std::string& text, long long min, long long max, long long* out) {
    if (text.empty()) return false;
    char* end = nullptr;
    errno = 0;
    long long v = strtoll(text.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || v < min || v > max) return false;
    *out = v;
    return true;
}

}  // namespace quarn::cli
