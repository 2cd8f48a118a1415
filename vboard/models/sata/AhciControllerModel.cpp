// The PCH's AHCI SATA controller as its ABAR registers (AHCI 1.3.1, chapter 3).
#include "vboard/models/sata/AhciControllerModel.h"

namespace quarn::vboard {

namespace {
// Generic host control.
constexpr uint32_t kCAP = 0x00, kGHC = 0x04, kIS = 0x08, kPI = 0x0C, kVS = 0x10, kCCC_CTL = 0x14,
                   kCCC_PORTS = 0x18, kCAP2 = 0x24, kBOHC = 0x28;
// Port registers, relative to the port's block.
constexpr uint32_t kPxCLB = 0x00, kPxCLBU = 0x04, kPxFB = 0x08, kPxFBU = 0x0C, kPxIS = 0x10, kPxIE = 0x14,
                   kPxCMD = 0x18, kPxTFD = 0x20, kPxSIG = 0x24, kPxSSTS = 0x28, kPxSCTL = 0x2C, kPxSERR = 0x30,
                   kPxSACT = 0x34, kPxCI = 0x38, kPxSNTF = 0x3C, kPxFBS = 0x40;

// PxCMD: ST, SUD, POD, CLO, FRE are written; FR and CR follow FRE and ST.
constexpr uint32_t kCmdST = 1u << 0, kCmdFRE = 1u << 4, kCmdFR = 1u << 14, kCmdCR = 1u << 15;
constexpr uint32_t kCmdWritable = 0x0000001Fu | 0xF0000000u;  // ST SUD POD CLO FRE, ICC
// Writable bits of PxSERR (everything defined): they are write-1-to-clear.
constexpr uint32_t kSErrDefined = 0x07FF0F03u;
// PxIS bits defined in AHCI 1.3.1 (write-1-to-clear).
constexpr uint32_t kPxISDefined = 0xFDC000FFu;
}  // namespace

// CAP: S64A SNCQ SSS SALP SAL SCLO, ISS Gen3, SAM, PMD SSC PSC, NCS 32, CCCS EMS SXS, NP.
AhciControllerModel::AhciControllerModel(unsigned ports)
    : m_cap(0xCF34FFE0u | ((ports ? ports - 1 : 0) & 0x1F)),
      m_pi(ports >= 32 ? 0xFFFFFFFFu : (1u << ports) - 1),
      m_ports(ports ? ports : 1) {}

void AhciControllerModel::linkUp(Port& p) {
    if (p.drive) {
        p.ssts = 0x100u | (p.gen & 0xF) << 4 | 0x3;  // IPM active, SPD, DET: device and PHY up
        p.sig = 0x00000101u;                        // ATA device
        p.tfd = 0x50;                               // DRDY, DSC
        // Link establishment records an exchanged COMINIT (DIAG.X) as the drive comes up.
        p.serr |= 1u << 26 & kSErrDefined;
    } else {
        p.ssts = 0;
        p.sig = 0xFFFFFFFFu;
        p.tfd = 0x7F;
    }
}

void AhciControllerModel::attachDrive(unsigned port, unsigned gen) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (port >= m_ports.size()) return;
    m_ports[port].drive = true;
    m_ports[port].gen = gen;
    linkUp(m_ports[port]);
    m_ports[port].serr = 0;
}

void AhciControllerModel::detachDrive(unsigned port) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (port >= m_ports.size()) return;
    m_ports[port].drive = false;
    linkUp(m_ports[port]);
    m_ports[port].serr |= 1u << 16;  // DIAG.N: PhyRdy changed
    m_ports[port].is |= 1u << 22;    // PRCS
}

void AhciControllerModel::raiseSError(unsigned port, uint32_t bits) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (port < m_ports.size()) m_ports[port].serr |= bits & kSErrDefined;
}

void AhciControllerModel::forceSStatus(unsigned port, uint32_t value) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (port < m_ports.size()) m_ports[port].ssts = value & 0xFFF;
}

uint32_t AhciControllerModel::sError(unsigned port) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return port < m_ports.size() ? m_ports[port].serr : 0;
}

uint32_t AhciControllerModel::read32(uint32_t offset) {
    if (offset < kPortBase) {
        switch (offset) {
        case kCAP: return m_cap;
        case kGHC: return m_ghc;
        case kIS: return m_is;
        case kPI: return m_pi;
        case kVS: return 0x00010301u;
        case kCCC_CTL: return m_cccCtl;
        case kCCC_PORTS: return 0;
        case kCAP2: return 0x00000004u;  // APST
        case kBOHC: return 0;
        default: return 0;
        }
    }
    const uint32_t index = (offset - kPortBase) / kPortStride;
    if (index >= m_ports.size() || ((m_pi >> index) & 1) == 0) return 0;
    Port& p = m_ports[index];
    switch ((offset - kPortBase) % kPortStride) {
    case kPxCLB: return p.clb;
    case kPxCLBU: return p.clbu;
    case kPxFB: return p.fb;
    case kPxFBU: return p.fbu;
    case kPxIS: return p.is;
    case kPxIE: return p.ie;
    case kPxCMD: return p.cmd;
    case kPxTFD: return p.tfd;
    case kPxSIG: return p.sig;
    case kPxSSTS: return p.ssts;
    case kPxSCTL: return p.sctl;
    case kPxSERR: return p.serr;
    case kPxSACT: return p.sact;
    case kPxCI: return p.ci;
    case kPxSNTF: return p.sntf;
    case kPxFBS: return p.fbs;
    default: return 0;
    }
}

uint64_t AhciControllerModel::read(uint64_t offset, int width) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (offset >= kSize) return 0;
    const uint32_t aligned = static_cast<uint32_t>(offset & ~3ull);
    if (width == 8) return read32(aligned) | static_cast<uint64_t>(read32(aligned + 4)) << 32;
    const uint32_t shift = static_cast<uint32_t>(offset & 3) * 8;
    const uint64_t mask = width >= 4 ? 0xFFFFFFFFull : (1ull << (8 * width)) - 1;
    return (read32(aligned) >> shift) & mask;
}

void AhciControllerModel::write(uint64_t offset, uint64_t value, int width) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (width == 8) {
        writeLocked(offset, value & 0xFFFFFFFFu, 4);
        writeLocked(offset + 4, value >> 32, 4);
    } else {
        writeLocked(offset, value, width);
    }
}

void AhciControllerModel::writeLocked(uint64_t offset, uint64_t value, int width) {
    if (offset >= kSize) return;
    const uint32_t aligned = static_cast<uint32_t>(offset & ~3ull);
    const uint32_t shift = static_cast<uint32_t>(offset & 3) * 8;
    const uint32_t mask = static_cast<uint32_t>((width >= 4 ? 0xFFFFFFFFull : (1ull << (8 * width)) - 1) << shift);
    const uint32_t bits = static_cast<uint32_t>(value << shift) & mask;
    auto merge = [&](uint32_t& reg, uint32_t writable) { reg = (reg & ~(mask & writable)) | (bits & writable); };

    if (aligned < kPortBase) {
        switch (aligned) {
        case kGHC:
            // HR resets the HBA and completes at once; AE stays set (CAP.SAM); IE is written.
            if (bits & 1u) {
                m_is = 0;
                for (Port& p : m_ports) {
                    p.cmd = 0;
                    p.is = 0;
                    p.ie = 0;
                    p.serr = 0;
                    linkUp(p);
                }
            }
            merge(m_ghc, 0x2u);
            m_ghc |= 0x80000000u;
            break;
        case kIS: m_is &= ~bits; break;
        case kCCC_CTL: merge(m_cccCtl, 0xFFFFFFF9u); break;
        default: break;  // CAP, PI, VS, CAP2 are read-only
        }
        return;
    }
    const uint32_t index = (aligned - kPortBase) / kPortStride;
    if (index >= m_ports.size() || ((m_pi >> index) & 1) == 0) return;
    Port& p = m_ports[index];
    switch ((aligned - kPortBase) % kPortStride) {
    case kPxCLB: merge(p.clb, 0xFFFFFC00u); break;  // 1 KB aligned
    case kPxCLBU: merge(p.clbu, 0xFFFFFFFFu); break;
    case kPxFB: merge(p.fb, 0xFFFFFF00u); break;  // 256-byte aligned
    case kPxFBU: merge(p.fbu, 0xFFFFFFFFu); break;
    case kPxIS:
        p.is &= ~(bits & kPxISDefined);
        if (p.is == 0) m_is &= ~(1u << index);
        break;
    case kPxIE: merge(p.ie, kPxISDefined); break;
    case kPxCMD:
        merge(p.cmd, kCmdWritable);
        p.cmd &= ~(1u << 3);  // CLO completes at once
        p.cmd = (p.cmd & ~(kCmdFR | kCmdCR)) | ((p.cmd & kCmdFRE) ? kCmdFR : 0) | ((p.cmd & kCmdST) ? kCmdCR : 0);
        break;
    case kPxSCTL: {
        const uint32_t oldDet = p.sctl & 0xF;
        merge(p.sctl, 0x00000FFFu);
        const uint32_t det = p.sctl & 0xF;
        if (det == 1) {
            p.ssts = 0;  // COMRESET asserted: no device communication
        } else if (det == 0 && oldDet == 1) {
            linkUp(p);  // COMRESET released: the link comes back
        } else if (det == 4) {
            p.ssts = 0x4;  // PHY offline
        }
        break;
    }
    case kPxSERR: p.serr &= ~(bits & kSErrDefined); break;
    // Commands reach the drives over SG_IO; a slot issued through the registers
    // completes at once, so CI and SACT read back as zero.
    case kPxSACT:
    case kPxCI: break;
    case kPxSNTF: p.sntf &= ~(bits & 0xFFFFu); break;
    case kPxFBS: merge(p.fbs, 0x00000F01u); break;
    default: break;  // TFD, SIG, SSTS are read-only
    }
}

}  // namespace quarn::vboard
