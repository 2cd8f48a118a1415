// Raw-frame loopback path on two real kernel interfaces: a veth pair in a private network
// namespace. Measures the library's Execute_external_loopback (frames/s and MB/s from the
// receiver's kernel counters, and the figure the library reports) next to a plain
// send/receive loop over the same pair with the same frame. Needs root and network
// namespaces; prints one SKIP line and exits 0 otherwise.
#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <tuple>
#include <string>
#include <vector>

#include "api/ErrorText.h"
#include "ddapi/ethernet/EthernetDDAPI.h"

namespace {

int skip(const char* why) {
    printf("SKIP ethernet_bench: %s\n", why);
    return 0;
}

int run(const std::vector<const char*>& argv) {
    const pid_t pid = fork();
    if (pid < 0) return -1;
    if (pid == 0) {
        execvp(argv[0], const_cast<char* const*>(argv.data()));
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

unsigned long long counter(const char* port, const char* name) {
    std::ifstream in(std::string("/sys/class/net/") + port + "/statistics/" + name);
    unsigned long long v = 0;
    in >> v;
    return v;
}

struct Figures {
    double seconds, frames, bytes;
};

void report(const char* what, const Figures& f) {
    printf("%-34s %10.0f frames/s %9.1f MB/s  (%.0f frames in %.2f s)\n", what, f.frames / f.seconds,
           f.bytes / f.seconds / 1e6, f.frames, f.seconds);
}

// The same frame as the library's: receiver's address, sender's, MTU little-endian, 0xAA.
Figures plainLoop(double seconds) {
    Figures f{0, 0, 0};
    const int tx = socket(AF_PACKET, SOCK_RAW, htons(ETH_P_ALL));
    const int rx = socket(AF_PACKET, SOCK_RAW, htons(ETH_P_ALL));
    if (tx < 0 || rx < 0) return f;
    struct ifreq ifr;
    sockaddr_ll a{}, b{};
    uint8_t macA[6], macB[6];
    for (auto [name, ll, mac] : {std::make_tuple("veth0", &a, macA), std::make_tuple("veth1", &b, macB)}) {
        memset(&ifr, 0, sizeof ifr);
        strcpy(ifr.ifr_name, name);
        ioctl(tx, SIOCGIFINDEX, &ifr);
        ll->sll_family = AF_PACKET;
        ll->sll_protocol = htons(ETH_P_ALL);
        ll->sll_ifindex = ifr.ifr_ifindex;
        ioctl(tx, SIOCGIFHWADDR, &ifr);
        memcpy(mac, ifr.ifr_hwaddr.sa_data, 6);
    }
    bind(tx, reinterpret_cast<sockaddr*>(&a), sizeof a);
    bind(rx, reinterpret_cast<sockaddr*>(&b), sizeof b);
    const int mtu = 1500;
    std::vector<uint8_t> frame(mtu + 14, 0xAA), buf(18000);
    memcpy(frame.data(), macB, 6);
    memcpy(frame.data() + 6, macA, 6);
    frame[12] = mtu & 0xFF;
    frame[13] = mtu >> 8;
    const auto start = std::chrono::steady_clock::now();
    for (;;) {
        const double t = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (t >= seconds) {
            f.seconds = t;
            break;
        }
        sendto(tx, frame.data(), frame.size(), 0, reinterpret_cast<sockaddr*>(&a), sizeof a);
        const ssize_t n = recvfrom(rx, buf.data(), buf.size(), MSG_DONTWAIT, nullptr, nullptr);
        if (n == static_cast<ssize_t>(frame.size()) && memcmp(buf.data(), frame.data(), frame.size()) == 0) {
            f.frames += 1;
            f.bytes += static_cast<double>(n);
        }
    }
    close(tx);
    close(rx);
    return f;
}

}  // namespace

int main() {
    if (geteuid() != 0) return skip("needs root (a private network namespace and raw sockets)");
    // A private network namespace, and a private mount namespace with its own sysfs so
    // that /sys/class/net shows the namespace's interfaces (the counters are read there).
    if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) return skip("no network or mount namespaces here");
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("sysfs", "/sys", "sysfs", 0, nullptr) != 0)
        return skip("cannot mount a private sysfs");
    if (run({"ip", "link", "add", "veth0", "type", "veth", "peer", "name", "veth1", nullptr}) != 0)
        return skip("cannot create a veth pair (ip from iproute2 and the veth driver)");
    run({"ip", "link", "set", "veth0", "up", nullptr});
    run({"ip", "link", "set", "veth1", "up", nullptr});
    usleep(200000);

    EthernetDDAPI dev("veth0");
    const unsigned long long p0 = counter("veth1", "rx_packets"), b0 = counter("veth1", "rx_bytes");
    const auto start = std::chrono::steady_clock::now();
    float throughput = 0;
    if (ErrorMsg* e = dev.Execute_external_loopback("veth0", "veth1", &throughput)) {
        std::string text;
        getErrorMessage(e, &text);
        printf("FAIL ethernet_bench: %s\n", text.c_str());
        return 1;
    }
    Figures lib{std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(),
                static_cast<double>(counter("veth1", "rx_packets") - p0),
                static_cast<double>(counter("veth1", "rx_bytes") - b0)};
    // The measurement loop runs for a little over 3 s, then pauses 1 s before it returns.
    lib.seconds -= 1.0;
    report("Execute_external_loopback (rx)", lib);
    printf("%-34s %10.1f Mbit/s (MiB-based, as the library computes it)\n", "  library's own figure", throughput);
    report("plain send/receive loop (matched)", plainLoop(3.0));
    return 0;
}
