// quarn ntb ...: the non-transparent bridges and transfers through their windows. On the
// virtual board a second board is joined over the NT link and runs the peer's role in
// a child process, as the other controller would.
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "api/platform/Platform.h"
#include "cli/Cli.h"
#include "dapi/ntb/NTBDAPI.h"
#include "vboard/Board.h"
#include "vboard/models/ntb/NtbModel.h"

namespace quarn::cli {
namespace {

constexpr unsigned long long kServerPattern = 0x5A5A5A5A5A5A5A5Aull;
constexpr unsigned long long kClientPattern = 0x0F0F0F0F0F0F0F0Full;

bool parseU64(const std::string& text, unsigned long long* out) {
    if (text.empty() || text.size() > 18 || text[0] == '-') return false;
    char* end = nullptr;
    errno = 0;
    *out = strtoull(text.c_str(), &end, 0);
    return errno == 0 && *end == '\0';
}

std::string hex(unsigned long long v) {
    char t[24];
    snprintf(t, sizeof(t), "0x%llx", v);
    return t;
}

// The other controller of the virtual board: a second board on the NT link, running
// role in a child process. Nothing to do on the real board.
class VirtualPeer {
public:
    VirtualPeer(Context& ctx, std::function<ErrorMsg*(NTBDAPI&)> role) {
        if (!ctx.virtualBoard) return;
        auto* local = dynamic_cast<quarn::vboard::VirtualBoard*>(&quarn::platform());
        if (!local) return;
        m_board = std::make_unique<quarn::vboard::Board>();
        m_link = quarn::vboard::connectNtb(*local, *m_board);
        fflush(stdout);
        fflush(stderr);
        m_pid = fork();
        if (m_pid == 0) {
            if (!freopen("/dev/null", "w", stdout)) _exit(3);
            quarn::installPlatform(m_board.get());
            ErrorMsg* e = nullptr;
            {
                NTBDAPI peer("NTBDAPI");
                e = role(peer);
            }
            const int status = e ? 1 : 0;
            deleteErrorMsg(e);
            _exit(status);
        }
    }
    ~VirtualPeer() {
        if (m_pid > 0) waitpid(m_pid, nullptr, 0);
    }

private:
    std::unique_ptr<quarn::vboard::Board> m_board;
    std::shared_ptr<quarn::vboard::NtbLink> m_link;
    pid_t m_pid = -1;
};

// Library output ("Receiving data ...") stays out of a JSON document.
template <typename F>
ErrorMsg* quietInJson(Context& ctx, F call) {
    if (ctx.format == Format::Text) return call();
    StdoutCapture capture;
    ErrorMsg* e = call();
    capture.finish();
    return e;
}

int list(Context& ctx, const std::vector<std::string>&) {
    NTBDAPI ntb("NTBDAPI");
    std::vector<_NTB_INFO> bridges;
    if (ErrorMsg* e = ntb.searchDevice(&bridges)) return ctx.fail(e);
    Value arr = Value::array();
    for (const _NTB_INFO& b : bridges) {
        char address[24], ids[16];
        snprintf(address, sizeof(address), "%04x:%02x:%02x.%x", b.info.domain, b.info.bus, b.info.device,
                 b.info.function);
        snprintf(ids, sizeof(ids), "%04x:%04x", b.info.vendorID, b.info.deviceID);
        arr.push(Value::object().set("name", b.name).set("address", address).set("id", ids));
        ctx.text += b.name + " " + address + " " + ids + "\n";
    }
    ctx.result.set("bridges", arr);
    return 0;
}

int pingPong(Context& ctx, const std::vector<std::string>& args, bool server) {
    const std::string usage = std::string("usage: quarn ntb ") + (server ? "server" : "client") + " [ROUNDS [SEND EXPECT]]";
    long long rounds = 10;
    unsigned long long send = server ? kServerPattern : kClientPattern;
    unsigned long long expect = server ? kClientPattern : kServerPattern;
    if (args.size() > 3 || args.size() == 2 || (!args.empty() && !parseInt(args[0], 1, 1000000, &rounds)) ||
        (args.size() == 3 && (!parseU64(args[1], &send) || !parseU64(args[2], &expect))))
        return ctx.usage(usage);
    const uint32_t n = static_cast<uint32_t>(rounds);
    VirtualPeer peer(ctx, [=](NTBDAPI& p) {
        return server ? p.client("NTB0", send, expect, n) : p.server("NTB0", expect, send, n);
    });
    NTBDAPI ntb("NTBDAPI");
    ErrorMsg* e = quietInJson(ctx, [&]() {
        return server ? ntb.server("NTB0", send, expect, n) : ntb.client("NTB0", expect, send, n);
    });
    ctx.result.set("role", server ? "server" : "client").set("rounds", rounds).set("send", hex(send))
        .set("expect", hex(expect)).set("passed", e == nullptr);
    if (e) return ctx.fail(e);
    ctx.text += std::string(server ? "server" : "client") + ": " + std::to_string(rounds) + " rounds exchanged\n";
    return 0;
}
int serverCmd(Context& ctx, const std::vector<std::string>& args) { return pingPong(ctx, args, true); }
int clientCmd(Context& ctx, const std::vector<std::string>& args) { return pingPong(ctx, args, false); }

int receiverCmd(Context& ctx, const std::vector<std::string>& args) {
    unsigned long long pattern = 0;
    long long rounds = 1;
    if (args.empty() || args.size() > 2 || !parseU64(args[0], &pattern) ||
        (args.size() == 2 && !parseInt(args[1], 1, 1000000, &rounds)))
        return ctx.usage("usage: quarn ntb receiver PATTERN [ROUNDS]");
    VirtualPeer peer(ctx, [=](NTBDAPI& p) { return p.stress(pattern, 1, 0, false, false); });
    NTBDAPI ntb("NTBDAPI");
    ErrorMsg* e = quietInJson(ctx, [&]() { return ntb.receiver(pattern, static_cast<uint64_t>(rounds)); });
    ctx.result.set("pattern", hex(pattern)).set("rounds", rounds).set("passed", e == nullptr);
    if (e) return ctx.fail(e);
    ctx.text += "receiver: the pattern arrived " + std::to_string(rounds) + " times\n";
    return 0;
}

// Without --verify the writes go out and nothing is awaited (the peer's readiness mark
// for a throughput test is written this way with the pattern 0x646f6e65).
int stressCmd(Context& ctx, const std::vector<std::string>& args) {
    std::vector<std::string> rest;
    bool verify = false;
    for (const std::string& a : args) {
        if (a == "--verify") verify = true;
        else rest.push_back(a);
    }
    unsigned long long pattern = 0;
    long long rounds = 1;
    if (rest.empty() || rest.size() > 2 || !parseU64(rest[0], &pattern) ||
        (rest.size() == 2 && !parseInt(rest[1], 1, 100000000, &rounds)))
        return ctx.usage("usage: quarn ntb stress PATTERN [ROUNDS] [--verify]");
    NTBDAPI ntb("NTBDAPI");
    ErrorMsg* e = quietInJson(ctx, [&]() { return ntb.stress(pattern, static_cast<uint64_t>(rounds), 0, verify, false); });
    ctx.result.set("pattern", hex(pattern)).set("rounds", rounds).set("verify", verify).set("passed", e == nullptr);
    if (e) return ctx.fail(e);
    ctx.text += "stress: " + std::to_string(rounds) + " window writes\n";
    return 0;
}

int clearCmd(Context& ctx, const std::vector<std::string>&) {
    NTBDAPI ntb("NTBDAPI");
    if (ErrorMsg* e = ntb.initialWindow()) return ctx.fail(e);
    ctx.text += "both windows cleared\n";
    return 0;
}

int perfCmd(Context& ctx, const std::vector<std::string>& args) {
    long long size = 0, rounds = 1000;
    unsigned long long pattern = 0xA5A5A5A5A5A5A5A5ull;
    if (args.size() > 3 || (!args.empty() && !parseInt(args[0], 0, 0xFFFFFFFFll, &size)) ||
        (args.size() > 1 && !parseInt(args[1], 1, 100000000, &rounds)) ||
        (args.size() > 2 && !parseU64(args[2], &pattern)))
        return ctx.usage("usage: quarn ntb perf [BUFSIZE [ROUNDS [PATTERN]]]  (BUFSIZE 0: the whole window)");
    VirtualPeer peer(ctx, [](NTBDAPI& p) { return p.stress(NTBDDAPI::kReadyMark, 1, 0, false, false); });
    NTBDAPI ntb("NTBDAPI");
    ErrorMsg* e = quietInJson(ctx, [&]() {
        return ntb.testPerformance(pattern, static_cast<uint32_t>(size), static_cast<uint64_t>(rounds));
    });
    ctx.result.set("buffer_bytes", size).set("rounds", rounds).set("passed", e == nullptr);
    if (e) return ctx.fail(e);
    ctx.result.set("gbit_per_s", ntb.device()->lastSpeed());
    return 0;
}

Register reg{
    {"ntb", "list", "", "non-transparent bridges (Intel and PLX)", list},
    {"ntb", "server", "[ROUNDS [SEND EXPECT]]", "ping-pong, this side first (the peer runs client)", serverCmd},
    {"ntb", "client", "[ROUNDS [EXPECT SEND]]", "ping-pong, the peer first (the peer runs server)", clientCmd},
    {"ntb", "receiver", "PATTERN [ROUNDS]", "wait for the peer's pattern in the read window", receiverCmd},
    {"ntb", "stress", "PATTERN [ROUNDS] [--verify]", "write the pattern through the window", stressCmd},
    {"ntb", "clear", "", "zero both windows", clearCmd},
    {"ntb", "perf", "[BUFSIZE [ROUNDS [PATTERN]]]", "window throughput after the peer's readiness mark", perfCmd},
};

}  // namespace
}  // namespace quarn::cli
