// The board's Ethernet controllers: I210 (one port), X552 (two ports sharing an NVM),
// XL710 (one QSFP+ port) and the QLogic EP8324 converged adapter (NIC functions 2 and
// 3), with their PCI functions, /sys/class/net entries, BAR0 register windows, NVM and
// flash, /dev/ep8324, SFP modules, and the board programs eeupdate64e, ethtool,
// ifconfig and modprobe acting on that state.
//
// Wiring as shipped: eth0 (I210) and eth3 (XL710) carry loopback plugs, eth1-eth2 (X552)
// and eth4-eth5 (EP8324) are joined by cables.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "vboard/models/ethernet/EthernetNetwork.h"

namespace quarn::vboard {

class VirtualBoard;
class PciBoard;
class PhysicalMemory;

// The EP8324's 16 MB flash, its SFP modules and its management node.
class Ep8324Adapter : public DeviceModel {
public:
    static constexpr uint32_t kFlashBytes = 16u << 20;
    static constexpr uint32_t kMacBlock = 0x370000;
    static constexpr uint32_t kMacWords = 0x370410;
    static constexpr uint32_t kChecksumEnd = 0x375000;
    static constexpr uint32_t kChecksumAt = 0x37001C;

    Ep8324Adapter(int bus, int device);
    std::unique_ptr<FileHandle> open(int flags) override;

    uint32_t flash(uint32_t byteAddress);
    void setFlash(uint32_t byteAddress, uint32_t value);
    void setMac(int port, const uint8_t mac[6]);  // port 0 or 1, with the block checksum
    void mac(int port, uint8_t out[6]);
    bool macBlockValid();
    // BAR0 mailbox of NIC function 2 + port.
    uint32_t readBar(int port, uint32_t offset);
    void writeBar(int port, uint32_t offset, uint32_t value);

    int bus, device;
    std::vector<uint8_t> sfp[2][2];  // [port][A0, A2]
    int64_t failWriteAddress = -1;  // fault: the write of this byte address's dword fails

private:
    friend class Ep8324Handle;
    void ensureFlash();
    std::vector<uint32_t> m_flash;  // made on first use
    uint32_t m_mailbox[2] = {0, 0};
    uint32_t m_mailboxData[2] = {0, 0};
};

class EthernetBoard {
public:
    EthernetBoard(VirtualBoard& board, PciBoard& pci, PhysicalMemory& memory);
    ~EthernetBoard();

    std::shared_ptr<EthernetNetwork> network;
    std::shared_ptr<Ep8324Adapter> ep8324;
    NicPort& port(const std::string& name);

    // Fault switches.
    void corruptNvmChecksum(const std::string& name);

    // The driver's module leaves and comes back: its interfaces vanish, then return
    // with fresh counters, no address, down, and the MAC address read from the NVM.
    bool unloadDriver(const std::string& driver);
    bool loadDriver(const std::string& driver);

private:
    void publish(NicPort& p);
    void unpublish(NicPort& p);
    void macFromNvm(NicPort& p);
    void installPrograms();
    int eeupdate(const std::vector<std::string>& argv, std::string* out);
    int ethtoolProgram(const std::vector<std::string>& argv, std::string* out);
    int ifconfig(const std::vector<std::string>& argv, std::string* out);
    int modprobe(const std::vector<std::string>& argv, std::string* out);

    VirtualBoard& m_board;
};

}  // namespace quarn::vboard
