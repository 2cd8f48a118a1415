// Guarding destructive commands against disks with a mounted file system.
#include "cli/MountCheck.h"

#include <algorithm>
#include <cctype>
#include <sstream>

#include "api/platform/Files.h"

namespace quarn::cli {

namespace {
// /proc/mounts escapes blanks in paths as octal (\040).
std::string unescape(const std::string& s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '\\' && i + 3 < s.size() && isdigit(static_cast<unsigned char>(s[i + 1])) &&
            isdigit(static_cast<unsigned char>(s[i + 2])) && isdigit(static_cast<unsigned char>(s[i + 3]))) {
            out += static_cast<char>((s[i + 1] - '0') * 64 + (s[i + 2] - '0') * 8 + (s[i + 3] - '0'));
            i += 3;
        } else {
            out += s[i];
        }
    }
    return out;
}

bool digits(const std::string& s) {
    return !s.empty() && std::all_of(s.begin(), s.end(), [](unsigned char c) { return isdigit(c); });
}

// source is node or a partition of it: sdd -> sdd1; nvme0n1 -> nvme0n1p1.
bool onDisk(const std::string& source, const std::string& node) {
    if (node.empty() || source.compare(0, node.size(), node) != 0) return false;
    const std::string rest = source.substr(node.size());
    if (rest.empty()) return true;
    if (isdigit(static_cast<unsigned char>(node.back()))) return rest[0] == 'p' && digits(rest.substr(1));
    return digits(rest);
}
}  // namespace

std::string findMount(const std::string& node) {
    std::string text;
    if (quarn::readTextFile("/proc/mounts", &text) != 0) return "";
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line);
        std::string source, target;
        if (!(fields >> source >> target)) continue;
        if (onDisk(source, node)) return source + " on " + unescape(target);
    }
    return "";
}

bool takeFlag(std::vector<std::string>& args, const std::string& flag) {
    auto it = std::find(args.begin(), args.end(), flag);
    if (it == args.end()) return false;
    args.erase(it);
    return true;
}

int refuseMounted(Context& ctx, const std::string& node, bool force, const std::string& what) {
    const std::string mount = findMount(node);
    if (mount.empty() || force) return 0;
    ctx.error = what + " refused: " + node + " holds a mounted file system (" + mount + "); add --force to write it anyway";
    return 1;
}

}  // namespace quarn::cli
