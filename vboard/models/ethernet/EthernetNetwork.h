// The board's network: its Ethernet ports with their kernel-visible state (link,
// speed, addresses, counters, NVM, PHY, LEDs, SFP module), the cables and loopback
// plugs between them, and the socket layer the kernel offers on top (interface and
// ethtool requests on datagram sockets, AF_PACKET raw sockets that move frames).
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "vboard/DeviceModel.h"
#include "vboard/VirtualClock.h"

namespace quarn::vboard {

enum class NicChip { I210, X552, XL710, EP8324 };

// A non-volatile memory of 16-bit words as the Intel controllers keep it: words 0x00-0x3F
// sum to 0xBABA, the last of them being the checksum word.
struct NicNvm {
    std::vector<uint8_t> bytes;
    int failWriteOffset = -1;  // fault: a write covering this byte fails (EIO)
    uint16_t word(size_t w) const { return static_cast<uint16_t>(bytes[2 * w] | bytes[2 * w + 1] << 8); }
    void setWord(size_t w, uint16_t v) {
        bytes[2 * w] = static_cast<uint8_t>(v);
        bytes[2 * w + 1] = static_cast<uint8_t>(v >> 8);
    }
    bool checksumValid() const;
    void updateChecksum();
};

struct NicCounters {
    uint64_t rxPackets = 0, txPackets = 0, rxBytes = 0, txBytes = 0;
    uint64_t rxErrors = 0, txErrors = 0, rxDropped = 0, txDropped = 0;
    uint64_t rxFrameErrors = 0, txAbortedErrors = 0, rxCrcErrors = 0, txCarrierErrors = 0;
};

struct NicPort {
    std::string name;
    int ifindex = 0;
    NicChip chip = NicChip::I210;
    std::string pciAddress;  // domain:bus:device.function
    int function = 0;
    uint16_t vendor = 0, device = 0;
    std::string driver, driverVersion, firmware;
    uint8_t mac[6] = {0};
    int mtu = 1500;
    bool up = false;
    bool present = true;  // false while its driver is unloaded
    uint32_t ip = 0, netmask = 0;  // host order; 0 = none
    // Link settings (ethtool_cmd semantics).
    uint32_t supported = 0, advertising = 0;
    uint8_t portType = 0;
    int speed = 1000;  // forced speed, or the speed autonegotiation is limited to
    int maxSpeed = 1000;
    bool autoneg = true;
    // PHY (32 registers per page, page register 22) and its external loopback mode.
    std::map<int, std::map<int, uint16_t>> phy;
    int phyPage = 0;
    uint32_t mdic = 0;
    // Registers of BAR0 the drivers touch, stored as written.
    std::map<uint32_t, uint32_t> registers;
    // The port's NVM (shared by the ports of one controller where the chip does that).
    std::shared_ptr<NicNvm> nvm;
    bool nvmWritable = true;  // through ethtool
    // SFP/QSFP module: page A0 and A2.
    std::vector<uint8_t> sfpA0, sfpA2;
    NicCounters counters;
    // Where the port's frames go.
    NicPort* peer = nullptr;  // the other end of the cable
    bool plug = false;        // a loopback plug
    // Faults.
    bool cableDropsFrames = false;  // the cable on this port loses every frame
    bool neverLinks = false;        // the port never reports a link
    std::set<int> failingSelfTests;  // result indices reported as failed

    bool phyExternalLoopback() const;
    bool linkUp() const;
    int linkSpeed() const;  // Mb/s of the link when it is up
    int selfTestCount() const { return chip == NicChip::EP8324 ? 6 : 5; }
};

class EthernetNetwork : public NetworkModel, public std::enable_shared_from_this<EthernetNetwork> {
public:
    explicit EthernetNetwork(VirtualClock& clock);
    ~EthernetNetwork() override;

    std::unique_ptr<SocketHandle> socket(int domain, int type, int protocol) override;

    NicPort& addPort(const std::string& name);
    NicPort* port(const std::string& name);
    NicPort* portByIndex(int ifindex);
    std::vector<NicPort*> ports();
    // Wiring: a cable between two ports, a loopback plug on one, or nothing.
    void connect(const std::string& a, const std::string& b);
    void plug(const std::string& name);
    void unplug(const std::string& name);

    // Requests on a datagram or packet socket (SIOCETHTOOL, SIOCGIF*).
    int interfaceRequest(unsigned long request, void* arg);
    // Frame transmission from a packet socket: counters, wire time, delivery.
    ssize_t transmit(void* fromSocket, NicPort& port, const uint8_t* frame, size_t length);

    // Packet sockets register themselves to receive frames.
    struct PacketQueue {
        int ifindex = 0;  // 0: every interface
        uint16_t protocol = 0;  // network order; ETH_P_ALL for everything
        std::deque<std::vector<uint8_t>> frames;
    };
    void attach(PacketQueue* queue);
    void detach(PacketQueue* queue);
    bool pop(PacketQueue* queue, std::vector<uint8_t>* frame);

    std::mutex& lock() { return m_lock; }

private:
    int ethtool(NicPort& port, void* data);
    void deliver(NicPort& port, const uint8_t* frame, size_t length, void* except, bool outgoing);

    VirtualClock& m_clock;
    std::mutex m_lock;
    std::vector<std::unique_ptr<NicPort>> m_ports;
    std::set<PacketQueue*> m_queues;
    int m_nextIndex = 2;  // 1 is the loopback device
};

}  // namespace quarn::vboard
