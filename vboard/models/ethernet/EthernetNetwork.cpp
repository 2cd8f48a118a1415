// The board's network and its socket layer.
#include "vboard/models/ethernet/EthernetNetwork.h"

#include <arpa/inet.h>
#include <linux/ethtool.h>
#include <net/if_arp.h>
#include <linux/if_packet.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstring>

namespace quarn::vboard {

namespace {
constexpr uint16_t kEthPAll = 0x0003;
constexpr size_t kSocketQueueFrames = 256;  // what a default receive buffer holds of full frames
constexpr uint32_t kModeSpeeds[][2] = {
    {0x1, 10},       {0x2, 10},        {0x4, 100},       {0x8, 100},       {0x10, 1000},
    {0x20, 1000},    {0x20000, 1000},  {0x8000, 2500},   {0x1000, 10000},  {0x40000, 10000},
    {0x80000, 10000}, {0x800000, 40000}, {0x1000000, 40000}, {0x2000000, 40000}, {0x4000000, 40000},
};

int highestSpeed(uint32_t modes) {
    int best = 0;
    for (const auto& m : kModeSpeeds)
        if (modes & m[0]) best = std::max(best, static_cast<int>(m[1]));
    return best;
}

bool supportsSpeed(uint32_t modes, int speed) {
    for (const auto& m : kModeSpeeds)
        if ((modes & m[0]) && static_cast<int>(m[1]) == speed) return true;
    return false;
}

// The speed a port is willing to run at against a partner that offers partnerModes.
int agreedSpeed(const NicPort& a, const NicPort& b) {
    if (a.autoneg && b.autoneg) {
        int best = 0;
        for (const auto& m : kModeSpeeds)
            if ((a.advertising & m[0]) && supportsSpeed(b.advertising, static_cast<int>(m[1])))
                best = std::max(best, static_cast<int>(m[1]));
        return best;
    }
    if (!a.autoneg && !b.autoneg) return a.speed == b.speed ? a.speed : 0;
    const NicPort& forced = a.autoneg ? b : a;
    const NicPort& negotiating = a.autoneg ? a : b;
    // Parallel detection finds a forced partner at 10 or 100 Mb/s only.
    if (forced.speed <= 100 && supportsSpeed(negotiating.advertising, forced.speed)) return forced.speed;
    return 0;
}

class InetSocket : public SocketHandle {
public:
    explicit InetSocket(std::shared_ptr<EthernetNetwork> net) : m_net(std::move(net)) {}
    int ioctl(unsigned long request, void* arg) override { return m_net->interfaceRequest(request, arg); }

private:
    std::shared_ptr<EthernetNetwork> m_net;
};

class PacketSocket : public SocketHandle {
public:
    PacketSocket(std::shared_ptr<EthernetNetwork> net, uint16_t protocol) : m_net(std::move(net)) {
        m_queue.protocol = protocol;
        m_net->attach(&m_queue);
    }
    ~PacketSocket() override { m_net->detach(&m_queue); }

    int ioctl(unsigned long request, void* arg) override { return m_net->interfaceRequest(request, arg); }

    int bind(const struct sockaddr* addr, socklen_t len) override {
        if (!addr || len < sizeof(sockaddr_ll) || addr->sa_family != AF_PACKET) return static_cast<int>(fail(EINVAL));
        const auto* ll = reinterpret_cast<const sockaddr_ll*>(addr);
        std::lock_guard<std::mutex> lock(m_net->lock());
        if (ll->sll_ifindex && !m_net->portByIndex(ll->sll_ifindex)) return static_cast<int>(fail(ENODEV));
        m_queue.ifindex = ll->sll_ifindex;
        if (ll->sll_protocol) m_queue.protocol = ll->sll_protocol;
        m_queue.frames.clear();
        return 0;
    }

    ssize_t sendto(const void* buf, size_t len, int, const struct sockaddr* addr, socklen_t addrLen) override {
        int index = m_queue.ifindex;
        if (addr) {
            if (addrLen < sizeof(sockaddr_ll) || addr->sa_family != AF_PACKET) return fail(EINVAL);
            index = reinterpret_cast<const sockaddr_ll*>(addr)->sll_ifindex;
        }
        std::lock_guard<std::mutex> lock(m_net->lock());
        NicPort* port = m_net->portByIndex(index);
        if (!port) return fail(ENXIO);
        return m_net->transmit(&m_queue, *port, static_cast<const uint8_t*>(buf), len);
    }

    ssize_t recvfrom(void* buf, size_t len, int, struct sockaddr* addr, socklen_t* addrLen) override {
        std::vector<uint8_t> frame;
        if (!m_net->pop(&m_queue, &frame)) return fail(EAGAIN);  // nothing can arrive while we wait
        const size_t n = std::min(len, frame.size());
        memcpy(buf, frame.data(), n);
        if (addr && addrLen && *addrLen >= sizeof(sockaddr_ll)) {
            auto* ll = reinterpret_cast<sockaddr_ll*>(addr);
            memset(ll, 0, sizeof(*ll));
            ll->sll_family = AF_PACKET;
            ll->sll_ifindex = m_queue.ifindex;
            *addrLen = sizeof(sockaddr_ll);
        }
        return static_cast<ssize_t>(n);
    }

private:
    std::shared_ptr<EthernetNetwork> m_net;
    EthernetNetwork::PacketQueue m_queue;
};
}  // namespace

bool NicNvm::checksumValid() const {
    if (bytes.size() < 0x80) return true;
    uint16_t sum = 0;
    for (size_t w = 0; w < 0x40; ++w) sum = static_cast<uint16_t>(sum + word(w));
    return sum == 0xBABA;
}

void NicNvm::updateChecksum() {
    if (bytes.size() < 0x80) return;
    uint16_t sum = 0;
    for (size_t w = 0; w < 0x3F; ++w) sum = static_cast<uint16_t>(sum + word(w));
    setWord(0x3F, static_cast<uint16_t>(0xBABA - sum));
}

bool NicPort::phyExternalLoopback() const {
    auto page = phy.find(6);
    if (page == phy.end()) return false;
    auto reg = page->second.find(18);
    return reg != page->second.end() && (reg->second & 0x8);
}

int NicPort::linkSpeed() const {
    if (plug) return autoneg ? highestSpeed(advertising) : speed;
    if (!peer) return 0;
    return agreedSpeed(*this, *peer);
}

bool NicPort::linkUp() const {
    if (!present || !up || neverLinks) return false;
    if (plug) {
        // A copper PHY only links against a plug in its external loopback mode.
        if (chip == NicChip::I210 && !phyExternalLoopback()) return false;
        return linkSpeed() > 0;
    }
    if (!peer || !peer->present || !peer->up || peer->neverLinks) return false;
    return linkSpeed() > 0;
}

EthernetNetwork::EthernetNetwork(VirtualClock& clock) : m_clock(clock) {}
EthernetNetwork::~EthernetNetwork() = default;

std::unique_ptr<SocketHandle> EthernetNetwork::socket(int domain, int type, int protocol) {
    const int kind = type & ~(SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (domain == AF_INET && kind == SOCK_DGRAM) return std::make_unique<InetSocket>(shared_from_this());
    if (domain == AF_PACKET && (kind == SOCK_RAW || kind == SOCK_DGRAM))
        return std::make_unique<PacketSocket>(shared_from_this(), static_cast<uint16_t>(protocol));
    errno = domain == AF_INET || domain == AF_PACKET ? EPROTONOSUPPORT : EAFNOSUPPORT;
    return nullptr;
}

NicPort& EthernetNetwork::addPort(const std::string& name) {
    std::lock_guard<std::mutex> lock(m_lock);
    m_ports.push_back(std::make_unique<NicPort>());
    NicPort& p = *m_ports.back();
    p.name = name;
    p.ifindex = m_nextIndex++;
    return p;
}

NicPort* EthernetNetwork::port(const std::string& name) {
    for (auto& p : m_ports)
        if (p->name == name) return p.get();
    return nullptr;
}

NicPort* EthernetNetwork::portByIndex(int ifindex) {
    for (auto& p : m_ports)
        if (p->ifindex == ifindex && p->present) return p.get();
    return nullptr;
}

std::vector<NicPort*> EthernetNetwork::ports() {
    std::vector<NicPort*> out;
    for (auto& p : m_ports) out.push_back(p.get());
    return out;
}

void EthernetNetwork::unplug(const std::string& name) {
    std::lock_guard<std::mutex> lock(m_lock);
    NicPort* p = port(name);
    if (!p) return;
    if (p->peer) p->peer->peer = nullptr;
    p->peer = nullptr;
    p->plug = false;
}

void EthernetNetwork::connect(const std::string& a, const std::string& b) {
    unplug(a);
    unplug(b);
    std::lock_guard<std::mutex> lock(m_lock);
    NicPort* pa = port(a);
    NicPort* pb = port(b);
    if (!pa || !pb || pa == pb) return;
    pa->peer = pb;
    pb->peer = pa;
}

void EthernetNetwork::plug(const std::string& name) {
    unplug(name);
    std::lock_guard<std::mutex> lock(m_lock);
    if (NicPort* p = port(name)) p->plug = true;
}

void EthernetNetwork::attach(PacketQueue* queue) {
    std::lock_guard<std::mutex> lock(m_lock);
    m_queues.insert(queue);
}

void EthernetNetwork::detach(PacketQueue* queue) {
    std::lock_guard<std::mutex> lock(m_lock);
    m_queues.erase(queue);
}

bool EthernetNetwork::pop(PacketQueue* queue, std::vector<uint8_t>* frame) {
    std::lock_guard<std::mutex> lock(m_lock);
    if (queue->frames.empty()) return false;
    *frame = std::move(queue->frames.front());
    queue->frames.pop_front();
    return true;
}

void EthernetNetwork::deliver(NicPort& port, const uint8_t* frame, size_t length, void* except, bool outgoing) {
    const uint16_t type = static_cast<uint16_t>(frame[12] | frame[13] << 8);  // as stored: network order
    for (PacketQueue* q : m_queues) {
        if (q == except) continue;
        if (q->ifindex && q->ifindex != port.ifindex) continue;
        const bool all = q->protocol == htons(kEthPAll);
        // Frames the host sends reach only the taps that take every protocol.
        if (outgoing ? !all : !(all || q->protocol == type)) continue;
        if (q->frames.size() >= kSocketQueueFrames) continue;
        q->frames.emplace_back(frame, frame + length);
    }
}

ssize_t EthernetNetwork::transmit(void* fromSocket, NicPort& port, const uint8_t* frame, size_t length) {
    if (!port.present) {
        errno = ENODEV;
        return -1;
    }
    if (!port.up) {
        errno = ENETDOWN;
        return -1;
    }
    if (length < 14) {
        errno = EINVAL;
        return -1;
    }
    if (length > static_cast<size_t>(port.mtu) + 14) {
        errno = EMSGSIZE;
        return -1;
    }
    deliver(port, frame, length, fromSocket, true);
    if (!port.linkUp()) {
        ++port.counters.txDropped;
        return static_cast<ssize_t>(length);
    }
    ++port.counters.txPackets;
    port.counters.txBytes += length;
    // The frame occupies the wire for its bits plus preamble, FCS and gap.
    const int speed = std::max(port.linkSpeed(), 1);
    m_clock.advanceNs(static_cast<uint64_t>(length + 24) * 8 * 1000 / static_cast<uint64_t>(speed));
    NicPort* dest = port.plug ? &port : port.peer;
    if (!dest) return static_cast<ssize_t>(length);
    if (port.cableDropsFrames || dest->cableDropsFrames) {
        ++dest->counters.rxCrcErrors;
        ++dest->counters.rxErrors;
        return static_cast<ssize_t>(length);
    }
    if (!dest->linkUp()) return static_cast<ssize_t>(length);
    const bool group = frame[0] & 1;
    if (!group && memcmp(frame, dest->mac, 6) != 0) return static_cast<ssize_t>(length);  // address filter
    if (length > static_cast<size_t>(dest->mtu) + 14) {
        ++dest->counters.rxErrors;
        ++dest->counters.rxFrameErrors;
        return static_cast<ssize_t>(length);
    }
    ++dest->counters.rxPackets;
    dest->counters.rxBytes += length;
    deliver(*dest, frame, length, nullptr, false);
    return static_cast<ssize_t>(length);
}

int EthernetNetwork::interfaceRequest(unsigned long request, void* arg) {
    auto* ifr = static_cast<struct ifreq*>(arg);
    if (!ifr) {
        errno = EFAULT;
        return -1;
    }
    const std::string name(ifr->ifr_name, strnlen(ifr->ifr_name, IFNAMSIZ));
    std::lock_guard<std::mutex> lock(m_lock);
    NicPort* p = port(name);
    if (!p || !p->present) {
        errno = ENODEV;
        return -1;
    }
    switch (request) {
    case SIOCETHTOOL:
        return ethtool(*p, ifr->ifr_data);
    case SIOCGIFINDEX:
        ifr->ifr_ifindex = p->ifindex;
        return 0;
    case SIOCGIFHWADDR:
        memset(&ifr->ifr_hwaddr, 0, sizeof(ifr->ifr_hwaddr));
        ifr->ifr_hwaddr.sa_family = ARPHRD_ETHER;
        memcpy(ifr->ifr_hwaddr.sa_data, p->mac, 6);
        return 0;
    case SIOCGIFMTU:
        ifr->ifr_mtu = p->mtu;
        return 0;
    case SIOCSIFMTU:
        if (ifr->ifr_mtu < 68 || ifr->ifr_mtu > 9710) {
            errno = EINVAL;
            return -1;
        }
        p->mtu = ifr->ifr_mtu;
        return 0;
    case SIOCGIFFLAGS:
        ifr->ifr_flags = static_cast<short>((p->up ? IFF_UP : 0) | (p->linkUp() ? IFF_RUNNING : 0) | IFF_BROADCAST |
                                            IFF_MULTICAST);
        return 0;
    case SIOCSIFFLAGS:
        p->up = ifr->ifr_flags & IFF_UP;
        return 0;
    case SIOCGIFADDR:
    case SIOCGIFNETMASK: {
        const uint32_t v = request == SIOCGIFADDR ? p->ip : p->netmask;
        if (!p->ip) {
            errno = EADDRNOTAVAIL;
            return -1;
        }
        auto* sin = reinterpret_cast<struct sockaddr_in*>(&ifr->ifr_addr);
        memset(sin, 0, sizeof(*sin));
        sin->sin_family = AF_INET;
        sin->sin_addr.s_addr = htonl(v);
        return 0;
    }
    default:
        errno = ENOTTY;
        return -1;
    }
}

int EthernetNetwork::ethtool(NicPort& p, void* data) {
    if (!data) {
        errno = EFAULT;
        return -1;
    }
    uint32_t cmd = 0;
    memcpy(&cmd, data, 4);
    switch (cmd) {
    case ETHTOOL_GSET: {
        auto* c = static_cast<ethtool_cmd*>(data);
        memset(c, 0, sizeof(*c));
        c->cmd = cmd;
        c->supported = p.supported;
        c->advertising = p.advertising;
        const bool link = p.linkUp();
        ethtool_cmd_speed_set(c, link ? static_cast<uint32_t>(p.linkSpeed()) : static_cast<uint32_t>(SPEED_UNKNOWN));
        c->duplex = link ? DUPLEX_FULL : DUPLEX_UNKNOWN;
        c->port = p.portType;
        c->phy_address = 1;
        c->transceiver = XCVR_INTERNAL;
        c->autoneg = p.autoneg ? AUTONEG_ENABLE : AUTONEG_DISABLE;
        if (link && p.peer) c->lp_advertising = p.peer->advertising;
        return 0;
    }
    case ETHTOOL_SSET: {
        auto* c = static_cast<ethtool_cmd*>(data);
        if (c->autoneg == AUTONEG_ENABLE) {
            const uint32_t modes = c->advertising & p.supported & 0x07FFF0FFu;
            if (!modes) {
                errno = EINVAL;
                return -1;
            }
            p.advertising = (p.advertising & ~0x07FFF0FFu) | modes;
            p.autoneg = true;
        } else {
            const int speed = static_cast<int>(ethtool_cmd_speed(c));
            // Backplane and 40G ports only run negotiated.
            if (p.chip == NicChip::X552 || p.chip == NicChip::XL710 || !supportsSpeed(p.supported, speed) ||
                c->duplex != DUPLEX_FULL) {
                errno = EINVAL;
                return -1;
            }
            p.speed = speed;
            p.autoneg = false;
        }
        return 0;
    }
    case ETHTOOL_GDRVINFO: {
        auto* d = static_cast<ethtool_drvinfo*>(data);
        memset(d, 0, sizeof(*d));
        d->cmd = cmd;
        snprintf(d->driver, sizeof(d->driver), "%s", p.driver.c_str());
        snprintf(d->version, sizeof(d->version), "%s", p.driverVersion.c_str());
        snprintf(d->fw_version, sizeof(d->fw_version), "%s", p.firmware.c_str());
        snprintf(d->bus_info, sizeof(d->bus_info), "%s", p.pciAddress.c_str());
        d->n_stats = 12;
        d->testinfo_len = static_cast<uint32_t>(p.selfTestCount());
        d->eedump_len = p.nvm ? static_cast<uint32_t>(p.nvm->bytes.size()) : 0;
        d->regdump_len = 0x800;
        return 0;
    }
    case ETHTOOL_GLINK: {
        auto* v = static_cast<ethtool_value*>(data);
        v->data = p.linkUp() ? 1 : 0;
        return 0;
    }
    case ETHTOOL_GEEPROM:
    case ETHTOOL_SEEPROM: {
        auto* e = static_cast<ethtool_eeprom*>(data);
        if (!p.nvm || (cmd == ETHTOOL_SEEPROM && !p.nvmWritable)) {
            errno = EOPNOTSUPP;
            return -1;
        }
        const uint64_t end = static_cast<uint64_t>(e->offset) + e->len;
        if (e->len == 0 || end > p.nvm->bytes.size()) {
            errno = EINVAL;
            return -1;
        }
        const uint32_t magic = static_cast<uint32_t>(p.vendor) | static_cast<uint32_t>(p.device) << 16;
        if (cmd == ETHTOOL_GEEPROM) {
            e->magic = magic;
            memcpy(e->data, p.nvm->bytes.data() + e->offset, e->len);
            return 0;
        }
        if (e->magic != magic) {
            errno = EINVAL;
            return -1;
        }
        if (p.nvm->failWriteOffset >= 0 && static_cast<uint64_t>(p.nvm->failWriteOffset) >= e->offset &&
            static_cast<uint64_t>(p.nvm->failWriteOffset) < end) {
            errno = EIO;
            return -1;
        }
        memcpy(p.nvm->bytes.data() + e->offset, e->data, e->len);
        // The driver rewrites the checksum word after every write, as the Intel drivers do.
        if (e->offset < 0x7E) p.nvm->updateChecksum();
        return 0;
    }
    case ETHTOOL_GSSET_INFO: {
        auto* s = static_cast<ethtool_sset_info*>(data);
        const uint64_t asked = s->sset_mask;
        uint64_t have = 0;
        int n = 0;
        for (int set = 0; set < 64; ++set) {
            if (!(asked & (1ULL << set))) continue;
            uint32_t count = 0;
            if (set == ETH_SS_TEST) count = static_cast<uint32_t>(p.selfTestCount());
            else if (set == ETH_SS_STATS) count = 12;
            else continue;
            have |= 1ULL << set;
            s->data[n++] = count;
        }
        s->sset_mask = have;
        return 0;
    }
    case ETHTOOL_TEST: {
        auto* t = static_cast<ethtool_test*>(data);
        const uint32_t count = std::min<uint32_t>(t->len, static_cast<uint32_t>(p.selfTestCount()));
        const bool qlogic = p.chip == NicChip::EP8324;
        const int eepromIndex = qlogic ? 5 : 1;
        const int linkIndex = qlogic ? 1 : 4;
        t->flags &= ETH_TEST_FL_OFFLINE;
        for (uint32_t i = 0; i < count; ++i) {
            uint64_t r = 0;
            if (static_cast<int>(i) == eepromIndex && p.nvm && !p.nvm->checksumValid()) r = 1;
            if (static_cast<int>(i) == linkIndex && !p.linkUp()) r = 1;
            if (p.failingSelfTests.count(static_cast<int>(i))) r = 1;
            t->data[i] = r;
            if (r) t->flags |= ETH_TEST_FL_FAILED;
        }
        t->len = count;
        return 0;
    }
    default:
        errno = EOPNOTSUPP;
        return -1;
    }
}

}  // namespace quarn::vboard
