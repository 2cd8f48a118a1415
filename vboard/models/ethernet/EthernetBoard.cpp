// The board's Ethernet controllers and the programs that act on them.
#include "vboard/models/ethernet/EthernetBoard.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/ethtool.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "vboard/AttributeModel.h"
#include "vboard/VirtualBoard.h"
#include "vboard/models/memory/PhysicalMemory.h"
#include "vboard/models/pci/PciModels.h"

namespace quarn::vboard {

namespace {
// The adapter's management requests (its driver's interface): a 288-byte record with
// the adapter name, four 32-bit fields and a status.
constexpr unsigned long kSfpRead = 0xC1206506;
constexpr unsigned long kSfpWrite = 0xC1206507;
constexpr unsigned long kSpiRead = 0xC1206508;
constexpr unsigned long kSpiWrite = 0xC1206509;
struct ManagementRecord {
    char adapter[32];
    uint32_t field[4];
    uint32_t status;
    uint8_t reserved[288 - 52];
};
static_assert(sizeof(ManagementRecord) == 288, "management records are 288 bytes");

constexpr uint32_t kMdic = 0x20;
constexpr uint32_t kXl710I2c = 0x881E0;

// Where each Intel chip keeps a port's MAC address in its NVM.
int macOffset(const NicPort& p) {
    switch (p.chip) {
    case NicChip::I210: return 0;
    case NicChip::X552: {
        const size_t pointerWord = p.function == 0 ? 9 : 10;
        return p.nvm->word(pointerWord) * 2 + 2;
    }
    case NicChip::XL710: return (0x30 + 4 * p.function) * 2;
    case NicChip::EP8324: break;
    }
    return -1;
}

std::string macText(const uint8_t* mac) {
    char t[18];
    snprintf(t, sizeof(t), "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    return t;
}

std::string ipText(uint32_t ip) {
    char t[16];
    snprintf(t, sizeof(t), "%u.%u.%u.%u", ip >> 24, ip >> 16 & 0xFF, ip >> 8 & 0xFF, ip & 0xFF);
    return t;
}

bool parseIp(const std::string& text, uint32_t* ip) {
    struct in_addr a;
    if (inet_pton(AF_INET, text.c_str(), &a) != 1) return false;
    *ip = ntohl(a.s_addr);
    return true;
}

bool parseNumber(const std::string& text, unsigned long* value, int base) {
    if (text.empty()) return false;
    char* end = nullptr;
    errno = 0;
    *value = strtoul(text.c_str(), &end, base);
    return errno == 0 && end && *end == '\0';
}

void fillSfp(std::vector<uint8_t>* a0, std::vector<uint8_t>* a2, uint8_t identifier, const char* vendor,
             const char* part, const char* serial) {
    a0->assign(256, 0);
    a2->assign(256, 0);
    (*a0)[0] = identifier;
    (*a0)[1] = 0x04;
    (*a0)[2] = 0x07;  // LC connector
    (*a0)[3] = 0x10;  // 10GBASE-SR
    auto put = [&](int at, const char* text, int width) {
        for (int i = 0; i < width; ++i) (*a0)[at + i] = static_cast<uint8_t>(i < static_cast<int>(strlen(text)) ? text[i] : ' ');
    };
    put(20, vendor, 16);
    put(40, part, 16);
    put(68, serial, 16);
    uint8_t sum = 0;
    for (int i = 0; i < 63; ++i) sum = static_cast<uint8_t>(sum + (*a0)[i]);
    (*a0)[63] = sum;
    (*a2)[96] = 0x28;  // 40 degrees C
    (*a2)[97] = 0x80;
}

// BAR0 of a controller through its sysfs resource file: maps of the file are maps of
// the BAR's physical window, with the register semantics of the chip.
class BarResource : public DeviceModel {
public:
    BarResource(PhysicalMemory& memory, uint64_t base, uint64_t size) : m_memory(memory), m_base(base), m_size(size) {}
    bool isAttribute() const override { return true; }
    std::unique_ptr<FileHandle> open(int) override;

private:
    friend class BarHandle;
    PhysicalMemory& m_memory;
    uint64_t m_base, m_size;
};

class BarHandle : public FileHandle {
public:
    explicit BarHandle(BarResource& r) : m_res(r), m_inner(r.m_memory.open(O_RDWR)) {}
    void* mmap(size_t length, int prot, int flags, off_t offset) override {
        if (offset < 0 || static_cast<uint64_t>(offset) + length > m_res.m_size || (offset & 0xFFF)) {
            errno = EINVAL;
            return MAP_FAILED;
        }
        return m_inner->mmap(length, prot, flags, static_cast<off_t>(m_res.m_base + static_cast<uint64_t>(offset)));
    }
    int munmap(void* addr, size_t length) override { return m_inner->munmap(addr, length); }

private:
    BarResource& m_res;
    std::unique_ptr<FileHandle> m_inner;
};

std::unique_ptr<FileHandle> BarResource::open(int) { return std::make_unique<BarHandle>(*this); }

}  // namespace

// ---- EP8324 adapter ----

class Ep8324Handle : public FileHandle {
public:
    explicit Ep8324Handle(Ep8324Adapter& a) : m_a(a) {}
    int ioctl(unsigned long request, void* arg) override {
        if (request != kSpiRead && request != kSpiWrite && request != kSfpRead && request != kSfpWrite)
            return static_cast<int>(fail(ENOTTY));
        if (!arg) return static_cast<int>(fail(EFAULT));
        auto* r = static_cast<ManagementRecord*>(arg);
        std::lock_guard<std::mutex> lock(m_a.mutex());
        const std::string name(r->adapter, strnlen(r->adapter, sizeof(r->adapter)));
        unsigned bus = 0, device = 0, fn = 0;
        char tail = 0;
        if (sscanf(name.c_str(), "CNA-%2x:%2x.%2x%c", &bus, &device, &fn, &tail) != 3 ||
            static_cast<int>(bus) != m_a.bus || static_cast<int>(device) != m_a.device)
            return static_cast<int>(fail(ENODEV));
        r->status = 0;
        if (request == kSpiRead || request == kSpiWrite) {
            if (fn != 0 || r->field[1] != 1) return static_cast<int>(fail(EINVAL));
            const uint64_t byte = static_cast<uint64_t>(r->field[0]) * 4;
            if (byte >= Ep8324Adapter::kFlashBytes) {
                r->status = 0x4005;  // address outside the part
                return 0;
            }
            if (request == kSpiRead) {
                r->field[2] = m_a.flash(static_cast<uint32_t>(byte));
            } else if (m_a.failWriteAddress >= 0 && static_cast<uint64_t>(m_a.failWriteAddress) / 4 == byte / 4) {
                r->status = 0x4006;  // the flash part did not complete the program cycle
            } else {
                m_a.setFlash(static_cast<uint32_t>(byte), r->field[2]);
            }
            return 0;
        }
        if (fn > 1) return static_cast<int>(fail(ENODEV));
        const int page = r->field[0] == 0xA0 ? 0 : r->field[0] == 0xA2 ? 1 : -1;
        const uint32_t offset = r->field[1];
        if (page < 0 || offset > 255 || r->field[2] != 1) {
            r->status = 0x4001;  // no module answers there
            return 0;
        }
        std::vector<uint8_t>& mem = m_a.sfp[fn][page];
        if (request == kSfpRead) {
            r->field[3] = mem[offset];
        } else if (page == 1 && offset >= 128 && offset < 248) {
            mem[offset] = static_cast<uint8_t>(r->field[3]);
        } else {
            r->status = 0x4002;  // read-only area
        }
        return 0;
    }

private:
    Ep8324Adapter& m_a;
};

Ep8324Adapter::Ep8324Adapter(int b, int d) : bus(b), device(d) {
    fillSfp(&sfp[0][0], &sfp[0][1], 0x03, "QLOGIC CORP.", "FTLX8571D3BCV-QL", "AQK0R1K");
    fillSfp(&sfp[1][0], &sfp[1][1], 0x03, "QLOGIC CORP.", "FTLX8571D3BCV-QL", "AQK0R1L");
}

std::unique_ptr<FileHandle> Ep8324Adapter::open(int) { return std::make_unique<Ep8324Handle>(*this); }

void Ep8324Adapter::ensureFlash() {
    if (!m_flash.empty()) return;
    m_flash.assign(kFlashBytes / 4, 0xFFFFFFFFu);
    for (uint32_t a = kMacBlock; a < kChecksumEnd; a += 4) m_flash[a / 4] = 0;
    m_flash[kMacBlock / 4] = 0x4D414331;  // block signature
}

uint32_t Ep8324Adapter::flash(uint32_t byteAddress) {
    ensureFlash();
    return m_flash[(byteAddress % kFlashBytes) / 4];
}

void Ep8324Adapter::setFlash(uint32_t byteAddress, uint32_t value) {
    ensureFlash();
    m_flash[(byteAddress % kFlashBytes) / 4] = value;
}

void Ep8324Adapter::setMac(int port, const uint8_t m[6]) {
    const uint32_t at = kMacWords + 8 * static_cast<uint32_t>(port);
    setFlash(at, static_cast<uint32_t>(m[2]) << 24 | m[3] << 16 | m[4] << 8 | m[5]);
    setFlash(at + 4, (flash(at + 4) & 0xFFFF0000u) | static_cast<uint32_t>(m[0]) << 8 | m[1]);
    uint32_t sum = 0;
    for (uint32_t a = kMacBlock; a < kChecksumEnd; a += 4)
        if (a != kChecksumAt) sum += flash(a);
    setFlash(kChecksumAt, 0u - sum);
}

void Ep8324Adapter::mac(int port, uint8_t out[6]) {
    const uint32_t at = kMacWords + 8 * static_cast<uint32_t>(port);
    const uint32_t lo = flash(at), hi = flash(at + 4);
    const uint8_t m[6] = {static_cast<uint8_t>(hi >> 8), static_cast<uint8_t>(hi), static_cast<uint8_t>(lo >> 24),
                          static_cast<uint8_t>(lo >> 16), static_cast<uint8_t>(lo >> 8), static_cast<uint8_t>(lo)};
    memcpy(out, m, 6);
}

bool Ep8324Adapter::macBlockValid() {
    uint32_t sum = 0;
    for (uint32_t a = kMacBlock; a < kChecksumEnd; a += 4) sum += flash(a);
    return sum == 0;
}

uint32_t Ep8324Adapter::readBar(int port, uint32_t offset) {
    std::lock_guard<std::mutex> lock(mutex());
    if (offset == 0) return m_mailbox[port];
    if (offset == 4) return m_mailboxData[port];
    return 0;
}

// The mailbox: a write of an indirect address starts a read of the adapter's
// configuration; bit 31 reports it done, the data follows at offset 4.
void Ep8324Adapter::writeBar(int port, uint32_t offset, uint32_t value) {
    std::lock_guard<std::mutex> lock(mutex());
    if (offset != 0) return;
    const uint32_t index = value & 0xF;
    if ((value & 0xFFFFFFF0u) == 0x7F8DC100u && index >= 4 && index <= 7) {
        m_mailboxData[port] = flash(kMacWords + 4 * (index - 4));
        m_mailbox[port] = value | 0x80000000u;
    } else {
        m_mailboxData[port] = 0xFFFFFFFFu;
        m_mailbox[port] = value | 0xC0000000u;  // done, with the error bit
    }
}

// ---- the board's controllers ----

namespace {
struct PortPlan {
    const char* name;
    NicChip chip;
    const char* address;
    int function;
    uint16_t vendor, device;
    const char* driver;
    const char* version;
    const char* firmware;
    uint8_t mac[6];
    uint64_t bar, barSize;
};

const PortPlan kPorts[] = {
    {"eth0", NicChip::I210, "0000:08:00.0", 0, 0x8086, 0x1533, "igb", "5.6.0-k", "3.25, 0x800005cf",
     {0x00, 0x1B, 0x21, 0xA0, 0x00, 0x10}, 0xFB800000, 0x100000},
    {"eth1", NicChip::X552, "0000:0a:00.0", 0, 0x8086, 0x15AB, "ixgbe", "5.1.0-k", "0x800003e7",
     {0x00, 0x1B, 0x21, 0xB0, 0x00, 0x20}, 0xF9000000, 0x200000},
    {"eth2", NicChip::X552, "0000:0a:00.1", 1, 0x8086, 0x15AB, "ixgbe", "5.1.0-k", "0x800003e7",
     {0x00, 0x1B, 0x21, 0xB0, 0x00, 0x21}, 0xF9200000, 0x200000},
    {"eth3", NicChip::XL710, "0000:09:00.0", 0, 0x8086, 0x1583, "i40e", "2.8.20-k", "6.01 0x800035da 1.1747.0",
     {0x3C, 0xFD, 0xFE, 0xC0, 0x00, 0x30}, 0xFA000000, 0x800000},
    {"eth4", NicChip::EP8324, "0000:0c:00.2", 2, 0x1077, 0x8830, "qlcnic", "5.3.66", "5.3.63",
     {0x00, 0x0E, 0x1E, 0xD0, 0x00, 0x40}, 0xF8200000, 0x100000},
    {"eth5", NicChip::EP8324, "0000:0c:00.3", 3, 0x1077, 0x8830, "qlcnic", "5.3.66", "5.3.63",
     {0x00, 0x0E, 0x1E, 0xD0, 0x00, 0x41}, 0xF8300000, 0x100000},
};

std::shared_ptr<NicNvm> makeNvm(size_t size) {
    auto nvm = std::make_shared<NicNvm>();
    nvm->bytes.assign(size, 0xFF);
    for (size_t w = 0; w < 0x40; ++w) nvm->setWord(w, 0);
    nvm->setWord(0x0A, 0x6EF7);  // init control word
    nvm->setWord(0x0F, 0x0C00);
    return nvm;
}

uint32_t readRegister(NicPort& p, uint32_t offset) {
    if (offset == kMdic) return p.mdic;
    auto it = p.registers.find(offset);
    return it == p.registers.end() ? 0 : it->second;
}

void phyWrite(NicPort& p, int reg, uint16_t value) {
    if (reg == 22) {
        p.phyPage = value & 0xFF;
        return;
    }
    if (p.phyPage == 0 && reg == 0) value &= static_cast<uint16_t>(~0x8200);  // reset and restart self-clear
    p.phy[p.phyPage][reg] = value;
}

uint16_t phyRead(NicPort& p, int reg) {
    if (reg == 22) return static_cast<uint16_t>(p.phyPage);
    uint16_t v = p.phy[p.phyPage][reg];
    if (p.phyPage == 0 && reg == 1) v = static_cast<uint16_t>((v & ~0x4) | (p.linkUp() ? 0x4 : 0));
    return v;
}

void writeRegister(NicPort& p, uint32_t offset, uint32_t value) {
    if (offset == kMdic) {
        const uint32_t op = value >> 26 & 3;
        const int reg = static_cast<int>(value >> 16 & 31);
        if (op == 1) {
            phyWrite(p, reg, static_cast<uint16_t>(value));
            p.mdic = value | 1u << 28;
        } else if (op == 2) {
            p.mdic = (value & 0xFFFF0000u) | phyRead(p, reg) | 1u << 28;
        } else {
            p.mdic = value | 1u << 30;  // error: no operation
        }
        return;
    }
    if (p.chip == NicChip::XL710 && offset >= kXl710I2c && offset < kXl710I2c + 16 &&
        (offset - kXl710I2c) / 4 == static_cast<uint32_t>(p.function)) {
        const int device = static_cast<int>(value >> 24 & 15);
        const uint32_t at = value >> 16 & 0xFF;
        std::vector<uint8_t>* page = device == 0 ? &p.sfpA0 : device == 1 ? &p.sfpA2 : nullptr;
        uint32_t result = value & ~0xFFu & ~(1u << 29);
        if (!page || page->size() != 256) {
            result |= 1u << 30 | 0xFF;  // no module answers
        } else if (value & 0x08000000u) {
            result |= (*page)[at];
        } else {
            if (device == 1 && at >= 128 && at < 248) (*page)[at] = static_cast<uint8_t>(value);
            result |= value & 0xFF;
        }
        p.registers[offset] = result | 1u << 29;
        return;
    }
    p.registers[offset] = value;
}
}  // namespace

EthernetBoard::EthernetBoard(VirtualBoard& board, PciBoard& pci, PhysicalMemory& memory) : m_board(board) {
    network = std::make_shared<EthernetNetwork>(board.clock());
    board.setNetwork(network);

    // The EP8324 sits behind root port 3C on bus 0x0c: FC, FCoE and two NIC functions.
    auto root = std::make_shared<PciFunction>(0x8086, 0x6F0A, 0x060400, 3, 0x01, 4096);
    root->addCapability(0x0D, 8);
    root->addCapability(0x05, 0x18);
    root->addPcieCapability(4, 7, 3, 8, 3, 8);
    root->addCapability(0x01, 8);
    root->addAer();
    root->setBusNumbers(0, 0x0C, 0x0C);
    pci.add("0000:00:03.2", root, "pcieport");
    const uint16_t qlogicIds[4] = {0x2831, 0x8831, 0x8830, 0x8830};
    const char* qlogicDrivers[4] = {"qla2xxx", "", "qlcnic", "qlcnic"};
    for (int fn = 0; fn < 4; ++fn) {
        auto f = std::make_shared<PciFunction>(0x1077, qlogicIds[fn], fn < 2 ? 0x0C0400 : 0x020000, 2, 0x80, 4096);
        f->addCapability(0x01, 8);
        f->addCapability(0x05, 0x18);
        f->addPcieCapability(0, 0, 3, 8, 3, 8);
        f->addCapability(0x11, 12);
        f->addAer();
        f->setBar(0, 0xF8000000u + 0x100000u * static_cast<uint32_t>(fn), 0x100000, 0);
        pci.add("0000:0c:00." + std::to_string(fn), f, qlogicDrivers[fn]);
    }
    ep8324 = std::make_shared<Ep8324Adapter>(0x0C, 0);
    board.addDevice("/dev/ep8324", ep8324);

    std::shared_ptr<NicNvm> x552Nvm = makeNvm(8192);
    x552Nvm->setWord(9, 0x40);
    x552Nvm->setWord(10, 0x48);
    for (const PortPlan& plan : kPorts) {
        NicPort& p = network->addPort(plan.name);
        p.chip = plan.chip;
        p.pciAddress = plan.address;
        p.function = plan.function;
        p.vendor = plan.vendor;
        p.device = plan.device;
        p.driver = plan.driver;
        p.driverVersion = plan.version;
        p.firmware = plan.firmware;
        memcpy(p.mac, plan.mac, 6);
        p.up = true;
        switch (plan.chip) {
        case NicChip::I210:
            p.supported = 0x2F | SUPPORTED_Autoneg | SUPPORTED_TP;
            p.advertising = 0x2F | ADVERTISED_Autoneg | ADVERTISED_TP;
            p.portType = PORT_TP;
            p.nvm = makeNvm(4096);
            p.phy[0][0] = 0x1140;
            p.phy[0][1] = 0x7949;
            p.phy[0][2] = 0x0141;
            p.phy[0][3] = 0x0C00;
            p.registers[0xE00] = 0x00040302;  // LEDCTL: link, activity and speed modes
            p.ip = 0xC0A8010A;                // 192.168.1.10/24
            p.netmask = 0xFFFFFF00;
            break;
        case NicChip::X552:
            p.supported = SUPPORTED_1000baseT_Full | SUPPORTED_10000baseT_Full | SUPPORTED_1000baseKX_Full |
                          SUPPORTED_10000baseKR_Full | SUPPORTED_Autoneg | SUPPORTED_Backplane;
            p.advertising = ADVERTISED_1000baseT_Full | ADVERTISED_10000baseT_Full | ADVERTISED_Autoneg;
            p.portType = PORT_NONE;
            p.nvm = x552Nvm;
            p.phy[0][0] = 0x1140;
            p.speed = 10000;
            break;
        case NicChip::XL710:
            p.supported = SUPPORTED_1000baseKX_Full | SUPPORTED_40000baseKR4_Full | SUPPORTED_40000baseCR4_Full |
                          SUPPORTED_40000baseSR4_Full | SUPPORTED_40000baseLR4_Full | SUPPORTED_Autoneg |
                          SUPPORTED_FIBRE;
            p.advertising = ADVERTISED_40000baseCR4_Full | ADVERTISED_40000baseSR4_Full | ADVERTISED_Autoneg;
            p.portType = PORT_FIBRE;
            p.nvm = makeNvm(8192);
            p.nvmWritable = false;  // i40e takes NVM writes only through the update tool
            p.speed = 40000;
            fillSfp(&p.sfpA0, &p.sfpA2, 0x0D, "INTEL CORP", "XLDACBL1", "INT40G0001");
            break;
        case NicChip::EP8324:
            p.supported = SUPPORTED_10000baseT_Full | SUPPORTED_FIBRE;
            p.advertising = ADVERTISED_10000baseT_Full | ADVERTISED_FIBRE;
            p.portType = PORT_FIBRE;
            p.autoneg = false;
            p.speed = 10000;
            ep8324->setMac(plan.function - 2, plan.mac);
            break;
        }
        if (p.nvm) {
            const int at = macOffset(p);
            memcpy(p.nvm->bytes.data() + at, plan.mac, 6);
            p.nvm->updateChecksum();
        }
        NicPort* port = &p;
        std::shared_ptr<EthernetNetwork> net = network;
        std::shared_ptr<Ep8324Adapter> adapter = ep8324;
        const int qport = plan.function - 2;
        PhysicalMemory::RegisterRead read;
        PhysicalMemory::RegisterWrite write;
        if (plan.chip == NicChip::EP8324) {
            read = [adapter, qport](uint64_t offset, int) -> uint64_t {
                return adapter->readBar(qport, static_cast<uint32_t>(offset));
            };
            write = [adapter, qport](uint64_t offset, uint64_t value, int) {
                adapter->writeBar(qport, static_cast<uint32_t>(offset), static_cast<uint32_t>(value));
            };
        } else {
            read = [net, port](uint64_t offset, int width) -> uint64_t {
                std::lock_guard<std::mutex> lock(net->lock());
                const uint32_t aligned = static_cast<uint32_t>(offset & ~3ULL);
                uint64_t v = readRegister(*port, aligned);
                if (width == 8) v |= static_cast<uint64_t>(readRegister(*port, aligned + 4)) << 32;
                else if (width < 4) v = (v >> (8 * (offset & 3))) & ((1ULL << (8 * width)) - 1);
                return v;
            };
            write = [net, port](uint64_t offset, uint64_t value, int width) {
                std::lock_guard<std::mutex> lock(net->lock());
                const uint32_t aligned = static_cast<uint32_t>(offset & ~3ULL);
                if (width == 4) {
                    writeRegister(*port, aligned, static_cast<uint32_t>(value));
                } else if (width == 8) {
                    writeRegister(*port, aligned, static_cast<uint32_t>(value));
                    writeRegister(*port, aligned + 4, static_cast<uint32_t>(value >> 32));
                } else {
                    const uint32_t shift = static_cast<uint32_t>(8 * (offset & 3));
                    const uint32_t mask = static_cast<uint32_t>(((1ULL << (8 * width)) - 1) << shift);
                    const uint32_t old = readRegister(*port, aligned);
                    writeRegister(*port, aligned, (old & ~mask) | (static_cast<uint32_t>(value << shift) & mask));
                }
            };
        }
        memory.addRegisterWindow(plan.bar, plan.barSize, read, write);
        if (plan.chip != NicChip::EP8324) {
            auto resource = std::make_shared<BarResource>(memory, plan.bar, plan.barSize);
            board.addDevice("/sys/bus/pci/devices/" + std::string(plan.address) + "/resource0", resource);
        }
        std::ostringstream uevent;
        uevent << "DRIVER=" << plan.driver << "\nPCI_CLASS=20000\n";
        char ids[64];
        snprintf(ids, sizeof(ids), "PCI_ID=%04X:%04X\nPCI_SUBSYS_ID=%04X:0000\n", plan.vendor, plan.device, plan.vendor);
        uevent << ids << "PCI_SLOT_NAME=" << plan.address << "\n";
        board.writeFile("/sys/bus/pci/devices/" + std::string(plan.address) + "/uevent", uevent.str());
        board.makeSymlink("../../../../bus/pci", "/sys/bus/pci/devices/" + std::string(plan.address) + "/subsystem");
        publish(p);
    }
    board.writeFile("/sys/class/net/lo/mtu", "65536\n");
    board.writeFile("/sys/class/net/lo/address", "00:00:00:00:00:00\n");

    network->plug("eth0");
    network->connect("eth1", "eth2");
    network->plug("eth3");
    network->connect("eth4", "eth5");

    board.writeFile("/Ethernet_profile.ini",
                    "# Well-known port names of the controller board\n"
                    "[Ethernet]\n"
                    "MGMT eth0\n"
                    "DATA0 eth1\n"
                    "DATA1 eth2\n"
                    "UPLINK eth3\n"
                    "CNA0 eth4\n"
                    "CNA1 eth5\n");
    board.writeFile("/etc/quarn/Ethernet_LED_profile.ini",
                    "# LEDs that are not fitted on this board\n"
                    "eth0_led2\n");
    installPrograms();
}

EthernetBoard::~EthernetBoard() { m_board.setNetwork(nullptr); }

NicPort& EthernetBoard::port(const std::string& name) {
    NicPort* p = network->port(name);
    if (!p) throw std::invalid_argument("no port " + name);
    return *p;
}

void EthernetBoard::corruptNvmChecksum(const std::string& name) {
    std::lock_guard<std::mutex> lock(network->lock());
    NicPort& p = port(name);
    if (p.nvm) p.nvm->setWord(0x3F, static_cast<uint16_t>(p.nvm->word(0x3F) ^ 0x5A5A));
}

void EthernetBoard::publish(NicPort& p) {
    const std::string dir = "/sys/class/net/" + p.name;
    m_board.makeSymlink("../../../bus/pci/devices/" + p.pciAddress, dir + "/device");
    std::shared_ptr<EthernetNetwork> net = network;
    NicPort* port = &p;
    auto attribute = [&](const std::string& name, std::function<std::string(NicPort&)> show) {
        m_board.addDevice(dir + "/" + name, std::make_shared<AttributeModel>(
                                                 [net, port, show]() {
                                                     std::lock_guard<std::mutex> lock(net->lock());
                                                     return show(*port) + "\n";
                                                 },
                                                 [](const std::string&) { return EACCES; }));
    };
    attribute("address", [](NicPort& q) { return macText(q.mac); });
    attribute("mtu", [](NicPort& q) { return std::to_string(q.mtu); });
    attribute("ifindex", [](NicPort& q) { return std::to_string(q.ifindex); });
    attribute("operstate", [](NicPort& q) { return std::string(q.linkUp() ? "up" : "down"); });
    attribute("carrier", [](NicPort& q) { return std::string(q.linkUp() ? "1" : "0"); });
    attribute("speed", [](NicPort& q) { return std::to_string(q.linkUp() ? q.linkSpeed() : -1); });
    const std::pair<const char*, uint64_t NicCounters::*> counters[] = {
        {"rx_packets", &NicCounters::rxPackets},       {"tx_packets", &NicCounters::txPackets},
        {"rx_bytes", &NicCounters::rxBytes},           {"tx_bytes", &NicCounters::txBytes},
        {"rx_errors", &NicCounters::rxErrors},         {"tx_errors", &NicCounters::txErrors},
        {"rx_dropped", &NicCounters::rxDropped},       {"tx_dropped", &NicCounters::txDropped},
        {"rx_frame_errors", &NicCounters::rxFrameErrors}, {"tx_aborted_errors", &NicCounters::txAbortedErrors},
        {"rx_crc_errors", &NicCounters::rxCrcErrors},  {"tx_carrier_errors", &NicCounters::txCarrierErrors},
    };
    for (const auto& [name, member] : counters) {
        auto m = member;
        attribute(std::string("statistics/") + name, [m](NicPort& q) { return std::to_string(q.counters.*m); });
    }
    if (p.chip != NicChip::EP8324) {
        auto resource = m_board.device("/sys/bus/pci/devices/" + p.pciAddress + "/resource0");
        if (resource) m_board.device(dir + "/device/resource0") ? void() : m_board.addDevice(dir + "/device/resource0", resource);
    }
}

void EthernetBoard::unpublish(NicPort& p) {
    const std::string dir = "/sys/class/net/" + p.name;
    for (const char* name : {"address", "mtu", "ifindex", "operstate", "carrier", "speed"}) m_board.removeDevice(dir + "/" + name);
    for (const char* name : {"rx_packets", "tx_packets", "rx_bytes", "tx_bytes", "rx_errors", "tx_errors", "rx_dropped",
                             "tx_dropped", "rx_frame_errors", "tx_aborted_errors", "rx_crc_errors", "tx_carrier_errors"})
        m_board.removeDevice(dir + "/statistics/" + name);
    if (auto resource = m_board.device(dir + "/device/resource0")) {
        m_board.removeDevice(dir + "/device/resource0");  // also drops the placeholder behind the link
        m_board.addDevice("/sys/bus/pci/devices/" + p.pciAddress + "/resource0", resource);
    }
    std::error_code ec;
    std::filesystem::remove_all(m_board.hostPath(dir), ec);
}

void EthernetBoard::macFromNvm(NicPort& p) {
    if (p.chip == NicChip::EP8324) {
        ep8324->mac(p.function - 2, p.mac);
        return;
    }
    const int at = macOffset(p);
    if (at >= 0 && static_cast<size_t>(at) + 6 <= p.nvm->bytes.size()) memcpy(p.mac, p.nvm->bytes.data() + at, 6);
}

bool EthernetBoard::unloadDriver(const std::string& driver) {
    bool any = false;
    for (NicPort* p : network->ports()) {
        if (p->driver != driver || !p->present) continue;
        {
            std::lock_guard<std::mutex> lock(network->lock());
            p->present = false;
            p->up = false;
        }
        unpublish(*p);
        any = true;
    }
    return any;
}

bool EthernetBoard::loadDriver(const std::string& driver) {
    bool any = false;
    for (NicPort* p : network->ports()) {
        if (p->driver != driver) continue;
        any = true;
        if (p->present) continue;
        {
            std::lock_guard<std::mutex> lock(network->lock());
            p->present = true;
            p->up = false;
            p->ip = p->netmask = 0;
            p->mtu = 1500;
            p->counters = NicCounters();
            macFromNvm(*p);
        }
        publish(*p);
    }
    return any;
}

// ---- board programs ----

void EthernetBoard::installPrograms() {
    m_board.addProgram("eeupdate64e", [this](const std::vector<std::string>& a, std::string* o) { return eeupdate(a, o); });
    m_board.addProgram("ethtool", [this](const std::vector<std::string>& a, std::string* o) { return ethtoolProgram(a, o); });
    m_board.addProgram("ifconfig", [this](const std::vector<std::string>& a, std::string* o) { return ifconfig(a, o); });
    m_board.addProgram("modprobe", [this](const std::vector<std::string>& a, std::string* o) { return modprobe(a, o); });
}

// eeupdate64e /bus=B /dev=D /fun=F (/D image | /MAC=hex12 | /WW word value)
int EthernetBoard::eeupdate(const std::vector<std::string>& argv, std::string* out) {
    long bus = -1, dev = -1, fun = -1;
    std::vector<std::string> rest;
    for (size_t i = 1; i < argv.size(); ++i) {
        const std::string& a = argv[i];
        unsigned long v = 0;
        if (a.rfind("/bus=", 0) == 0 && parseNumber(a.substr(5), &v, 10)) bus = static_cast<long>(v);
        else if (a.rfind("/dev=", 0) == 0 && parseNumber(a.substr(5), &v, 10)) dev = static_cast<long>(v);
        else if (a.rfind("/fun=", 0) == 0 && parseNumber(a.substr(5), &v, 10)) fun = static_cast<long>(v);
        else rest.push_back(a);
    }
    std::lock_guard<std::mutex> lock(network->lock());
    NicPort* target = nullptr;
    for (NicPort* p : network->ports()) {
        unsigned d = 0, b = 0, de = 0, f = 0;
        sscanf(p->pciAddress.c_str(), "%x:%x:%x.%x", &d, &b, &de, &f);
        if (p->vendor == 0x8086 && p->nvm && static_cast<long>(b) == bus && static_cast<long>(de) == dev &&
            static_cast<long>(f) == fun)
            target = p;
    }
    if (!target) {
        *out += "Error: no Intel adapter at the given location\n";
        return 2;
    }
    NicNvm& nvm = *target->nvm;
    auto blocked = [&](size_t from, size_t length) {
        return nvm.failWriteOffset >= 0 && static_cast<size_t>(nvm.failWriteOffset) >= from &&
               static_cast<size_t>(nvm.failWriteOffset) < from + length;
    };
    if (rest.size() == 2 && rest[0] == "/D") {
        std::ifstream in(m_board.hostPath(rest[1]), std::ios::binary);
        std::vector<uint8_t> image((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        if (!in.good() && image.empty()) {
            *out += "Error: cannot open image file\n";
            return 3;
        }
        NicNvm check;
        check.bytes = image;
        if (image.size() < 0x80 || image.size() > nvm.bytes.size() || !check.checksumValid()) {
            *out += "Error: image checksum invalid\n";
            return 4;
        }
        if (blocked(0, image.size())) {
            *out += "Error: NVM write failed\n";
            return 5;
        }
        std::copy(image.begin(), image.end(), nvm.bytes.begin());
        *out += "NVM programmed\n";
        return 0;
    }
    if (rest.size() == 1 && rest[0].rfind("/MAC=", 0) == 0) {
        const std::string hex = rest[0].substr(5);
        if (hex.size() != 12 || hex.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
            *out += "Error: invalid MAC address\n";
            return 6;
        }
        const int at = macOffset(*target);
        if (blocked(static_cast<size_t>(at), 6)) {
            *out += "Error: NVM write failed\n";
            return 5;
        }
        for (int i = 0; i < 6; ++i) nvm.bytes[static_cast<size_t>(at + i)] = static_cast<uint8_t>(std::stoul(hex.substr(2 * i, 2), nullptr, 16));
        nvm.updateChecksum();
        *out += "MAC address updated\n";
        return 0;
    }
    if (rest.size() == 3 && rest[0] == "/WW") {
        unsigned long word = 0, value = 0;
        if (!parseNumber(rest[1], &word, 0) || !parseNumber(rest[2], &value, 0) || value > 0xFFFF ||
            word * 2 + 2 > nvm.bytes.size()) {
            *out += "Error: invalid word or value\n";
            return 6;
        }
        if (blocked(word * 2, 2)) {
            *out += "Error: NVM write failed\n";
            return 5;
        }
        nvm.setWord(word, static_cast<uint16_t>(value));
        if (word != 0x3F && word < 0x40) nvm.updateChecksum();
        return 0;
    }
    *out += "Error: unknown command\n";
    return 1;
}

int EthernetBoard::ethtoolProgram(const std::vector<std::string>& argv, std::string* out) {
    if (argv.size() < 2) return 1;
    std::string option, name;
    if (argv.size() == 2) name = argv[1];
    else {
        option = argv[1];
        name = argv[2];
    }
    std::lock_guard<std::mutex> lock(network->lock());
    NicPort* p = network->port(name);
    if (!p || !p->present) {
        *out += "Cannot get device settings: No such device\n";
        return 1;
    }
    char line[160];
    if (option == "-S") {
        const NicCounters& c = p->counters;
        *out += "NIC statistics:\n";
        const std::pair<const char*, uint64_t> rows[] = {
            {"rx_packets", c.rxPackets},   {"tx_packets", c.txPackets},     {"rx_bytes", c.rxBytes},
            {"tx_bytes", c.txBytes},       {"rx_errors", c.rxErrors},       {"tx_errors", c.txErrors},
            {"rx_dropped", c.rxDropped},   {"tx_dropped", c.txDropped},     {"rx_crc_errors", c.rxCrcErrors},
            {"rx_frame_errors", c.rxFrameErrors}, {"tx_aborted_errors", c.txAbortedErrors},
            {"tx_carrier_errors", c.txCarrierErrors},
        };
        for (const auto& [n, v] : rows) {
            snprintf(line, sizeof(line), "     %s: %llu\n", n, static_cast<unsigned long long>(v));
            *out += line;
        }
        return 0;
    }
    if (option == "-i") {
        *out += "driver: " + p->driver + "\nversion: " + p->driverVersion + "\nfirmware-version: " + p->firmware +
                "\nbus-info: " + p->pciAddress + "\n";
        return 0;
    }
    if (option.empty()) {
        const bool link = p->linkUp();
        snprintf(line, sizeof(line), "Settings for %s:\n\tSpeed: %s\n\tDuplex: %s\n\tLink detected: %s\n", p->name.c_str(),
                 link ? (std::to_string(p->linkSpeed()) + "Mb/s").c_str() : "Unknown!", link ? "Full" : "Unknown! (255)",
                 link ? "yes" : "no");
        *out += line;
        return 0;
    }
    *out += "ethtool: bad command line argument(s)\n";
    return 1;
}

int EthernetBoard::ifconfig(const std::vector<std::string>& argv, std::string* out) {
    if (argv.size() < 2) return 1;
    std::lock_guard<std::mutex> lock(network->lock());
    NicPort* p = network->port(argv[1]);
    if (!p || !p->present) {
        *out += argv[1] + ": error fetching interface information: Device not found\n";
        return 1;
    }
    if (argv.size() == 2) {
        *out += p->name + ": flags=" + (p->up ? "4163<UP,BROADCAST,RUNNING,MULTICAST>" : "4098<BROADCAST,MULTICAST>") +
                "  mtu " + std::to_string(p->mtu) + "\n";
        if (p->ip) *out += "        inet " + ipText(p->ip) + "  netmask " + ipText(p->netmask) + "\n";
        *out += "        ether " + macText(p->mac) + "\n";
        return 0;
    }
    for (size_t i = 2; i < argv.size(); ++i) {
        const std::string& a = argv[i];
        unsigned long v = 0;
        uint32_t ip = 0;
        if (a == "up") p->up = true;
        else if (a == "down") p->up = false;
        else if (a == "mtu" && i + 1 < argv.size() && parseNumber(argv[i + 1], &v, 10) && v >= 68 && v <= 9710) {
            p->mtu = static_cast<int>(v);
            ++i;
        } else if (a == "netmask" && i + 1 < argv.size() && parseIp(argv[i + 1], &ip)) {
            p->netmask = ip;
            ++i;
        } else if (parseIp(a, &ip)) {
            p->ip = ip;
            if (!p->netmask) p->netmask = (ip >> 24) < 128 ? 0xFF000000u : (ip >> 24) < 192 ? 0xFFFF0000u : 0xFFFFFF00u;
            p->up = true;
        } else {
            *out += "ifconfig: bad argument " + a + "\n";
            return 1;
        }
    }
    return 0;
}

int EthernetBoard::modprobe(const std::vector<std::string>& argv, std::string* out) {
    bool remove = false;
    std::string module;
    for (size_t i = 1; i < argv.size(); ++i) {
        if (argv[i] == "-r") remove = true;
        else module = argv[i];
    }
    bool known = false;
    for (NicPort* p : network->ports()) known = known || p->driver == module;
    if (!known) {
        *out += "modprobe: FATAL: Module " + module + " not found in directory /lib/modules/4.19.0-veltrax-amd64\n";
        return 1;
    }
    if (remove) unloadDriver(module);
    else loadDriver(module);
    return 0;
}

}  // namespace quarn::vboard
