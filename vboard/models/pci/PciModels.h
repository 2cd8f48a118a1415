// PCI functions of the virtual board: configuration spaces with register semantics
// behind sysfs config files, configuration mechanism #1 on ports 0xCF8/0xCFC, the PLX
// switch register space, and the board's PCI population with its slot profile.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "vboard/DeviceModel.h"
#include "vboard/VirtualClock.h"
#include "vboard/models/pci/PlxEeprom.h"

namespace quarn::vboard {

class VirtualBoard;

// One function's configuration space (256 bytes, or 4096 for PCI Express). Writes go
// through the writable and write-1-to-clear masks, as the hardware applies them.
class PciFunction : public DeviceModel {
public:
    PciFunction(uint16_t vendor, uint16_t device, uint32_t classCode, uint8_t revision,
                uint8_t headerType, size_t size, uint8_t* storage = nullptr);

    std::unique_ptr<FileHandle> open(int flags) override;

    size_t size() const { return m_size; }
    uint32_t read(uint32_t offset, int width) const;
    // A configuration write with register semantics.
    void write(uint32_t offset, uint32_t value, int width);
    // Raw store, ignoring the masks: building the space, or a faulty device.
    void poke(uint32_t offset, uint32_t value, int width);
    // Fault injection: the hardware sets error bits in a status register.
    void raise(uint32_t offset, uint32_t bits, int width);

    void setBar(int index, uint32_t base, uint32_t size, uint32_t flags);
    void setBusNumbers(uint8_t primary, uint8_t secondary, uint8_t subordinate);
    // Appends a standard capability of len bytes; returns its offset.
    uint32_t addCapability(uint8_t id, uint32_t length);
    // PCI Express capability; speeds are link speed codes (1 = 2.5 GT/s ...).
    uint32_t addPcieCapability(int portType, int portNumber, int maxSpeed, int maxWidth,
                               int speed, int width, uint32_t offset = 0);
    uint32_t addAer(uint32_t offset = 0x100);
    // Sets the link as trained with its partner: the port's state, which retraining
    // comes back to.
    void setLink(int speed, int width);
    // Link training of a port: writing Retrain Link (link control bit 5) starts it; it
    // lasts trainingNs of the clock, with bits 11 and 15 of the link status set, and
    // ends with the port's width and speed and bit 14 (bandwidth management) set.
    void enableLinkTraining(VirtualClock* clock, uint64_t trainingNs = 100000);
    // Fault: every n-th retrain comes back at this width and speed (0 keeps either).
    void degradeRetrain(int everyN, int width, int speed);
    unsigned retrains() const { return m_retrains; }

    uint32_t pcieCapability() const { return m_pcie; }
    uint32_t aerCapability() const { return m_aer; }

    // Keeps a host file in step with the space (readers outside the board's
    // platform, such as libpci on the host-bridge file).
    void mirrorTo(const std::string& hostPath);

private:
    void mask(uint32_t offset, uint32_t writable, uint32_t w1c, int width);
    void mirror() const;
    void startTraining();
    void settle() const;

    size_t m_size;
    std::vector<uint8_t> m_own;
    uint8_t* m_cfg;
    std::vector<uint8_t> m_writable;
    std::vector<uint8_t> m_w1c;
    uint32_t m_lastCap = 0;
    uint32_t m_nextCap = 0x40;
    uint32_t m_pcie = 0;
    uint32_t m_aer = 0;
    uint32_t m_lastExt = 0;
    std::string m_mirror;
    VirtualClock* m_clock = nullptr;
    uint64_t m_trainingNs = 0;
    mutable uint64_t m_trainUntil = 0;
    mutable bool m_training = false;
    int m_partnerSpeed = 0, m_partnerWidth = 0;
    int m_targetSpeed = 0, m_targetWidth = 0;
    int m_degradeEvery = 0, m_degradeWidth = 0, m_degradeSpeed = 0;
    unsigned m_retrains = 0;
};

// Configuration mechanism #1: address latch at 0xCF8, data window at 0xCFC-0xCFF.
class PciConfigPorts : public PortModel {
public:
    void attach(uint8_t bus, uint8_t device, uint8_t function, std::shared_ptr<PciFunction> f);
    uint32_t in(uint16_t port, int size) override;
    void out(uint16_t port, uint32_t value, int size) override;

private:
    PciFunction* target(uint32_t* reg) const;
    uint32_t m_address = 0;
    std::map<uint32_t, std::shared_ptr<PciFunction>> m_functions;
};

// A PLX switch's register space: 4 KB of configuration registers per port number,
// reached through BAR0 of the upstream port and of the NT port. The link side of the
// NT port lives at 0x3F000 (NT0) and is not a function of the host's hierarchy.
class PlxRegisters {
public:
    static constexpr uint32_t kSize = 0x40000;
    PlxRegisters();
    uint8_t* storage(uint32_t portNumber) { return m_space.data() + (portNumber << 12); }
    uint8_t* base() { return m_space.data(); }
    void attach(uint32_t portNumber, std::shared_ptr<PciFunction> f);
    // Register accesses with the port's register semantics (write-1-to-clear status).
    uint32_t read32(uint32_t offset) const;
    void write32(uint32_t offset, uint32_t value);
    uint32_t read(uint32_t offset, int width) const;
    void write(uint32_t offset, uint32_t value, int width);

    // The EEPROM controller at 0x260/0x264 of the upstream port's registers.
    std::shared_ptr<PlxEepromController> eeprom;

private:
    std::vector<uint8_t> m_space;
    std::map<uint32_t, std::shared_ptr<PciFunction>> m_ports;
};

// The board's PCI hierarchy (Broadwell-DE SoC, PCH, one PLX switch and the adapters).
class PciBoard {
public:
    explicit PciBoard(VirtualBoard& board);

    // Adds a function: sysfs directory, config model, and the port mechanism for domain 0.
    std::shared_ptr<PciFunction> add(const std::string& address, std::shared_ptr<PciFunction> f,
                                     const std::string& driver = "", bool listed = true);
    std::shared_ptr<PciFunction> function(const std::string& address) const;

    std::shared_ptr<PciConfigPorts> ports;
    std::shared_ptr<PlxRegisters> plx;
    std::shared_ptr<PciFunction> plxLink;  // NT link side, only in the switch's registers
    struct Window {
        uint64_t base, length;
        uint8_t* backing;
    };
    // Memory windows of register spaces, for the physical-memory model.
    std::vector<Window> windows;

private:
    VirtualBoard& m_board;
    std::map<std::string, std::shared_ptr<PciFunction>> m_functions;
};

}  // namespace quarn::vboard
