// The PCH's AHCI SATA controller as its ABAR registers: generic host control and one
// port register block per port, with AHCI 1.3.1 register semantics.
#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

namespace quarn::vboard {

class AhciControllerModel {
public:
    static constexpr uint32_t kPortBase = 0x100;
    static constexpr uint32_t kPortStride = 0x80;
    static constexpr uint32_t kSize = 0x800;  // BAR5 size

    explicit AhciControllerModel(unsigned ports = 6);

    // Register accesses of 1, 2, 4 or 8 bytes at an ABAR offset.
    uint64_t read(uint64_t offset, int width);
    void write(uint64_t offset, uint64_t value, int width);

    // A drive on a port: the link comes up (DET 3, IPM active) at gen (1-3) and the
    // port reports the ATA signature. Without a drive the port sits in DET 0.
    void attachDrive(unsigned port, unsigned gen = 3);
    void detachDrive(unsigned port);
    // Fault injection: the PHY or the transport sets PxSERR bits (ORed in).
    void raiseSError(unsigned port, uint32_t bits);
    // Fault injection: a raw PxSSTS value (a PHY in DET 2, a speed outside the table...).
    void forceSStatus(unsigned port, uint32_t value);
    uint32_t sError(unsigned port) const;
    unsigned ports() const { return static_cast<unsigned>(m_ports.size()); }

private:
    struct Port {
        uint32_t clb = 0, clbu = 0, fb = 0, fbu = 0, is = 0, ie = 0, cmd = 0, tfd = 0x7F, sig = 0xFFFFFFFF;
        uint32_t ssts = 0, sctl = 0, serr = 0, sact = 0, ci = 0, sntf = 0, fbs = 0;
        bool drive = false;
        unsigned gen = 3;
    };
    uint32_t read32(uint32_t offset);
    void writeLocked(uint64_t offset, uint64_t value, int width);
    void linkUp(Port& p);

    mutable std::mutex m_mutex;
    uint32_t m_cap;
    uint32_t m_ghc = 0x80000000u;  // AE: AHCI mode only (CAP.SAM)
    uint32_t m_is = 0;
    uint32_t m_pi;
    uint32_t m_cccCtl = 0x00010131u;
    std::vector<Port> m_ports;
};

}  // namespace quarn::vboard
