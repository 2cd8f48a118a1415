// PCI functions of the virtual board and the board's PCI population.
#include "vboard/models/pci/PciModels.h"

#include <fcntl.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "vboard/VirtualBoard.h"

namespace quarn::vboard {

namespace {
// Status register error bits (parity, SERR, master/target aborts, data parity): RW1C.
constexpr uint32_t kStatusErrors = 0xF900;
// AER uncorrectable status bits defined by PCI Express 3.0 (4, 5, 12-25): RW1C.
constexpr uint32_t kAerUncorrectable = 0x03FFF030;
// AER correctable status bits (0, 6-8, 12-15): RW1C.
constexpr uint32_t kAerCorrectable = 0x0000F1C1;

class PciConfigHandle : public FileHandle {
public:
    PciConfigHandle(PciFunction* f, bool writable) : m_f(f), m_writable(writable) {}
    ssize_t pread(void* buf, size_t n, off_t off) override {
        if (off < 0) return fail(EINVAL);
        if (static_cast<size_t>(off) >= m_f->size()) return 0;
        const size_t count = std::min(n, m_f->size() - static_cast<size_t>(off));
        uint8_t* out = static_cast<uint8_t*>(buf);
        for (size_t i = 0; i < count; ++i) out[i] = static_cast<uint8_t>(m_f->read(off + i, 1));
        return static_cast<ssize_t>(count);
    }
    ssize_t pwrite(const void* buf, size_t n, off_t off) override {
        if (!m_writable) return fail(EBADF);
        if (off < 0) return fail(EINVAL);
        if (static_cast<size_t>(off) >= m_f->size()) return 0;
        const size_t count = std::min(n, m_f->size() - static_cast<size_t>(off));
        const uint8_t* in = static_cast<const uint8_t*>(buf);
        for (size_t i = 0; i < count; ++i) m_f->write(off + i, in[i], 1);
        return static_cast<ssize_t>(count);
    }
    ssize_t read(void* buf, size_t n) override {
        const ssize_t r = pread(buf, n, m_pos);
        if (r > 0) m_pos += r;
        return r;
    }
    off_t lseek(off_t off, int whence) override {
        if (whence == SEEK_SET) m_pos = off;
        else if (whence == SEEK_CUR) m_pos += off;
        else if (whence == SEEK_END) m_pos = static_cast<off_t>(m_f->size()) + off;
        else return fail(EINVAL);
        return m_pos;
    }

private:
    PciFunction* m_f;
    bool m_writable;
    off_t m_pos = 0;
};
}  // namespace

PciFunction::PciFunction(uint16_t vendor, uint16_t device, uint32_t classCode, uint8_t revision,
                         uint8_t headerType, size_t size, uint8_t* storage)
    : m_size(size), m_writable(size, 0), m_w1c(size, 0) {
    if (storage) {
        m_cfg = storage;
        memset(m_cfg, 0, size);
    } else {
        m_own.assign(size, 0);
        m_cfg = m_own.data();
    }
    poke(0x00, vendor, 2);
    poke(0x02, device, 2);
    poke(0x08, (classCode << 8) | revision, 4);
    poke(0x0E, headerType, 1);
    mask(0x04, 0x0547, 0, 2);  // command: I/O, memory, bus master, parity, SERR, INTx
    mask(0x06, 0, kStatusErrors, 2);
    mask(0x3C, 0xFF, 0, 1);  // interrupt line
    if ((headerType & 0x7F) == 1) {
        mask(0x18, 0xFFFFFF, 0, 4);  // primary, secondary, subordinate bus
        mask(0x1E, 0, kStatusErrors, 2);
    }
}

std::unique_ptr<FileHandle> PciFunction::open(int flags) {
    return std::make_unique<PciConfigHandle>(this, (flags & O_ACCMODE) != O_RDONLY);
}

void PciFunction::mask(uint32_t offset, uint32_t writable, uint32_t w1c, int width) {
    for (int i = 0; i < width && offset + i < m_size; ++i) {
        m_writable[offset + i] = static_cast<uint8_t>(writable >> (8 * i));
        m_w1c[offset + i] = static_cast<uint8_t>(w1c >> (8 * i));
    }
}

uint32_t PciFunction::read(uint32_t offset, int width) const {
    if (m_training) settle();
    uint32_t v = 0;
    for (int i = 0; i < width; ++i)
        if (offset + i < m_size) v |= static_cast<uint32_t>(m_cfg[offset + i]) << (8 * i);
    return v;
}

void PciFunction::write(uint32_t offset, uint32_t value, int width) {
    for (int i = 0; i < width && offset + i < m_size; ++i) {
        const uint8_t b = static_cast<uint8_t>(value >> (8 * i));
        uint8_t& cell = m_cfg[offset + i];
        const uint8_t wm = m_writable[offset + i];
        cell = static_cast<uint8_t>((cell & ~wm) | (b & wm));
        cell = static_cast<uint8_t>(cell & ~(b & m_w1c[offset + i]));
    }
    const uint32_t control = m_pcie + 0x10;
    if (m_clock && m_pcie && offset <= control && control < offset + static_cast<uint32_t>(width) &&
        ((value >> (8 * (control - offset))) & 0x20))
        startTraining();
    mirror();
}

void PciFunction::enableLinkTraining(VirtualClock* clock, uint64_t trainingNs) {
    m_clock = clock;
    m_trainingNs = trainingNs;
}

void PciFunction::degradeRetrain(int everyN, int width, int speed) {
    m_degradeEvery = everyN;
    m_degradeWidth = width;
    m_degradeSpeed = speed;
}

void PciFunction::startTraining() {
    if (!m_partnerWidth) return;  // nothing behind the port: no partner to train with
    ++m_retrains;
    m_targetSpeed = m_partnerSpeed;
    m_targetWidth = m_partnerWidth;
    if (m_degradeEvery > 0 && m_retrains % static_cast<unsigned>(m_degradeEvery) == 0) {
        if (m_degradeWidth) m_targetWidth = m_degradeWidth;
        if (m_degradeSpeed) m_targetSpeed = m_degradeSpeed;
    }
    const uint32_t status = m_pcie + 0x12;
    poke(status, read(status, 2) | 0x8800, 2);
    m_trainUntil = m_clock->nowNs() + m_trainingNs;
    m_training = true;
}

void PciFunction::settle() const {
    if (m_clock->nowNs() < m_trainUntil) return;
    m_training = false;
    const uint32_t status = m_pcie + 0x12;
    const uint16_t v = static_cast<uint16_t>((m_targetSpeed & 0xF) | (m_targetWidth & 0x3F) << 4 | 0x2000 | 0x4000);
    m_cfg[status] = static_cast<uint8_t>(v);
    m_cfg[status + 1] = static_cast<uint8_t>(v >> 8);
}

void PciFunction::poke(uint32_t offset, uint32_t value, int width) {
    for (int i = 0; i < width && offset + i < m_size; ++i)
        m_cfg[offset + i] = static_cast<uint8_t>(value >> (8 * i));
    mirror();
}

void PciFunction::raise(uint32_t offset, uint32_t bits, int width) {
    poke(offset, read(offset, width) | bits, width);
}

void PciFunction::setBar(int index, uint32_t base, uint32_t size, uint32_t flags) {
    const uint32_t offset = 0x10 + 4 * index;
    poke(offset, (base & ~(size - 1)) | flags, 4);
    // Address bits below the size read back as zero: that is how the all-ones probe sizes it.
    mask(offset, ~(size - 1) & ((flags & 1) ? ~0x3u : ~0xFu), 0, 4);
    if ((flags & 0x6) == 0x4) mask(offset + 4, 0xFFFFFFFF, 0, 4);  // upper half of a 64-bit BAR
}

void PciFunction::setBusNumbers(uint8_t primary, uint8_t secondary, uint8_t subordinate) {
    poke(0x18, primary | secondary << 8 | subordinate << 16, 4);
}

uint32_t PciFunction::addCapability(uint8_t id, uint32_t length) {
    const uint32_t at = m_nextCap;
    poke(at, id, 1);
    poke(at + 1, 0, 1);
    if (m_lastCap) poke(m_lastCap + 1, at, 1);
    else poke(0x34, at, 1);
    poke(0x06, read(0x06, 2) | 0x10, 2);  // capability list present
    m_lastCap = at;
    m_nextCap = (at + length + 3) & ~3u;
    return at;
}

uint32_t PciFunction::addPcieCapability(int portType, int portNumber, int maxSpeed, int maxWidth,
                                        int speed, int width, uint32_t offset) {
    if (offset) m_nextCap = offset;
    const uint32_t c = addCapability(0x10, 0x3C);
    m_pcie = c;
    poke(c + 2, 0x0002 | (portType << 4), 2);
    poke(c + 4, 0x00008FC2, 4);  // 512-byte payload, role-based error reporting
    mask(c + 8, 0x7FFF, 0, 2);  // device control
    mask(c + 0x0A, 0, 0x000F, 2);  // device status error bits: RW1C
    poke(c + 0x0C, (maxSpeed & 0xF) | (maxWidth & 0x3F) << 4 | 0x00400000 |
                       static_cast<uint32_t>(portNumber & 0xFF) << 24, 4);
    mask(c + 0x10, 0x0FC3, 0, 2);  // link control
    mask(c + 0x12, 0, 0xC000, 2);  // link status: bandwidth change bits are RW1C
    setLink(speed, width);
    return c;
}

void PciFunction::setLink(int speed, int width) {
    if (!m_pcie) return;
    m_partnerSpeed = speed;
    m_partnerWidth = width;
    const uint32_t up = width ? 0x2000 : 0;  // data link layer active
    poke(m_pcie + 0x12, (speed & 0xF) | (width & 0x3F) << 4 | up, 2);
}

uint32_t PciFunction::addAer(uint32_t offset) {
    if (m_size <= 0x100) return 0;
    poke(offset, 0x0001 | 2u << 16, 4);
    if (m_lastExt) poke(m_lastExt, read(m_lastExt, 4) | offset << 20, 4);
    else if (offset != 0x100) poke(0x100, 0x000B | 1u << 16 | offset << 20, 4);  // vendor-specific head
    m_lastExt = offset;
    m_aer = offset;
    mask(offset + 0x04, 0, kAerUncorrectable, 4);
    mask(offset + 0x08, kAerUncorrectable, 0, 4);  // mask
    mask(offset + 0x0C, kAerUncorrectable, 0, 4);  // severity
    poke(offset + 0x0C, 0x00462030, 4);
    mask(offset + 0x10, 0, kAerCorrectable, 4);
    mask(offset + 0x14, kAerCorrectable, 0, 4);
    poke(offset + 0x14, 0x00002000, 4);
    return offset;
}

void PciFunction::mirrorTo(const std::string& hostPath) {
    m_mirror = hostPath;
    mirror();
}

void PciFunction::mirror() const {
    if (m_mirror.empty()) return;
    std::ofstream out(m_mirror, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(m_cfg), static_cast<std::streamsize>(m_size));
}

void PciConfigPorts::attach(uint8_t bus, uint8_t device, uint8_t function, std::shared_ptr<PciFunction> f) {
    m_functions[static_cast<uint32_t>(bus) << 8 | (device & 0x1F) << 3 | (function & 7)] = std::move(f);
}

PciFunction* PciConfigPorts::target(uint32_t* reg) const {
    if (!(m_address & 0x80000000u)) return nullptr;
    auto it = m_functions.find((m_address >> 8) & 0xFFFF);
    if (it == m_functions.end()) return nullptr;
    *reg = m_address & 0xFC;
    return it->second.get();
}

uint32_t PciConfigPorts::in(uint16_t port, int size) {
    if (port == 0xCF8 && size == 4) return m_address;
    if (port < 0xCFC || port > 0xCFF) return 0xFFFFFFFF;
    uint32_t reg = 0;
    PciFunction* f = target(&reg);
    if (!f) return 0xFFFFFFFF;  // master abort: nothing claims the cycle
    return f->read(reg + (port - 0xCFC), size);
}

void PciConfigPorts::out(uint16_t port, uint32_t value, int size) {
    if (port == 0xCF8 && size == 4) {
        m_address = value;
        return;
    }
    if (port < 0xCFC || port > 0xCFF) return;
    uint32_t reg = 0;
    if (PciFunction* f = target(&reg)) f->write(reg + (port - 0xCFC), value, size);
}

PlxRegisters::PlxRegisters() : m_space(kSize, 0xFF) {}

void PlxRegisters::attach(uint32_t portNumber, std::shared_ptr<PciFunction> f) {
    m_ports[portNumber] = std::move(f);
}

uint32_t PlxRegisters::read(uint32_t offset, int width) const {
    if (offset >= kSize) return 0xFFFFFFFF;
    if (eeprom && width == 4 && (offset == PlxEepromController::kControl || offset == PlxEepromController::kData))
        return eeprom->read(offset);
    auto it = m_ports.find(offset >> 12);
    if (it != m_ports.end()) return it->second->read(offset & 0xFFF, width);
    uint32_t v = 0;
    for (int i = 0; i < width && offset + i < kSize; ++i) v |= static_cast<uint32_t>(m_space[offset + i]) << (8 * i);
    return v;
}

void PlxRegisters::write(uint32_t offset, uint32_t value, int width) {
    if (offset >= kSize) return;
    if (eeprom && width == 4 && (offset == PlxEepromController::kControl || offset == PlxEepromController::kData)) {
        eeprom->write(offset, value);
        return;
    }
    auto it = m_ports.find(offset >> 12);
    if (it != m_ports.end()) {
        it->second->write(offset & 0xFFF, value, width);
        return;
    }
    for (int i = 0; i < width && offset + i < kSize; ++i) m_space[offset + i] = static_cast<uint8_t>(value >> (8 * i));
}

uint32_t PlxRegisters::read32(uint32_t offset) const { return read(offset, 4); }
void PlxRegisters::write32(uint32_t offset, uint32_t value) { write(offset, value, 4); }

namespace {
constexpr int kGen1 = 1, kGen2 = 2, kGen3 = 3;
constexpr uint32_t kPlxBar = 0xFB000000;
constexpr uint32_t kPlxNtBar = 0xFB040000;
constexpr int kPlxNtVirtualPort = 62;  // 0x3E000 in the switch's register space
constexpr int kPlxNtLinkPort = 63;     // 0x3F000

std::shared_ptr<PciFunction> make(uint16_t v, uint16_t d, uint32_t cls, uint8_t rev, uint8_t hdr,
                                  size_t size = 4096, uint8_t* storage = nullptr) {
    return std::make_shared<PciFunction>(v, d, cls, rev, hdr, size, storage);
}

// A PEX 8749 configuration image: signature 0x5A and the byte count of the register
// entries (a 16-bit register address and a 32-bit value each), the entries, and a CRC.
std::vector<uint32_t> plxEepromImage() {
    std::vector<uint8_t> bytes;
    const struct {
        uint16_t address;
        uint32_t value;
    } entries[] = {{0x0008, 0x060400CA}, {0x002C, 0x874910B5}, {0x0078, 0x00008FC2}, {0x007C, 0x00477C83},
                   {0x020C, 0x00000102}, {0x0224, 0x00000000}, {0x0280, 0x01000000}, {0x0F70, 0x00000003},
                   {0x1078, 0x00008FC2}, {0x2078, 0x00008FC2}, {0x3078, 0x00008FC2}, {0x4078, 0x00008FC2},
                   {0x5078, 0x00008FC2}, {0x3E78, 0x00008FC2}};
    for (const auto& e : entries) {
        bytes.push_back(static_cast<uint8_t>(e.address >> 2));
        bytes.push_back(static_cast<uint8_t>(e.address >> 10));
        for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<uint8_t>(e.value >> (8 * i)));
    }
    const uint32_t length = static_cast<uint32_t>(bytes.size());
    std::vector<uint32_t> image{0x5A | length << 16};
    uint32_t crc = 0xFFFFFFFF;
    for (size_t i = 0; i < bytes.size(); i += 4) {
        uint32_t v = 0;
        for (size_t b = 0; b < 4 && i + b < bytes.size(); ++b) v |= static_cast<uint32_t>(bytes[i + b]) << (8 * b);
        image.push_back(v);
        crc = (crc << 1 | crc >> 31) ^ v;
    }
    image.push_back(crc);
    return image;
}

std::shared_ptr<PciFunction> rootPort(uint16_t d, int port, int maxWidth, int width, int secondary) {
    auto f = make(0x8086, d, 0x060400, 3, 0x01);
    f->addCapability(0x0D, 8);  // subsystem ID
    f->addCapability(0x05, 0x18);  // MSI
    f->addPcieCapability(4, port, kGen3, maxWidth, width ? kGen3 : kGen1, width);
    f->addCapability(0x01, 8);  // power management
    f->addAer();
    f->setBusNumbers(0, secondary, secondary);
    return f;
}

std::shared_ptr<PciFunction> endpoint(uint16_t v, uint16_t d, uint32_t cls, uint8_t rev, int maxSpeed,
                                      int width, uint8_t hdr = 0) {
    auto f = make(v, d, cls, rev, hdr);
    f->addCapability(0x01, 8);
    f->addCapability(0x05, 0x18);
    f->addPcieCapability(0, 0, maxSpeed, width, maxSpeed, width);
    f->addCapability(0x11, 12);  // MSI-X
    f->addAer();
    return f;
}

const char kBuiltinIds[] =
    "# Subset of the PCI ID list for the board's devices\n"
    "1000  Broadcom / LSI\n"
    "\t0097  SAS3008 PCI-Express Fusion-MPT SAS-3\n"
    "1077  QLogic Corp.\n"
    "\t2831  ISP8324-based 16Gb Fibre Channel to PCI Express Adapter\n"
    "\t8830  EP83xx 10GbE Converged Network Adapter (NIC)\n"
    "\t8831  EP83xx 10GbE Converged Network Adapter (FCoE)\n"
    "10b5  PLX Technology, Inc.\n"
    "\t8749  PEX 8749 48-Lane, 18-Port PCI Express Gen 3 (8.0 GT/s) Multi-Root Switch\n"
    "\t87b0  PEX 8732 32-lane, 8-Port PCI Express Gen 3 (8.0 GT/s) Switch\n"
    "\t87d0  PEX PCI Express Switch DMA interface\n"
    "10ee  Xilinx Corporation\n"
    "8086  Intel Corporation\n"
    "\t0953  PCIe Data Center SSD\n"
    "\t1533  I210 Gigabit Network Connection\n"
    "\t1583  Ethernet Controller XL710 for 40GbE QSFP+\n"
    "\t15ab  Ethernet Connection X552 10 GbE Backplane\n"
    "\t6f00  Xeon D DMI2\n"
    "\t6f02  Xeon D PCI Express Root Port 1\n"
    "\t6f03  Xeon D PCI Express Root Port 1\n"
    "\t6f04  Xeon D PCI Express Root Port 2\n"
    "\t6f06  Xeon D PCI Express Root Port 2\n"
    "\t8c02  8 Series/C220 Series Chipset Family 6-port SATA Controller 1 [AHCI mode]\n"
    "\t8c22  8 Series/C220 Series Chipset Family SMBus Controller\n"
    "\t8c24  8 Series Chipset Family Thermal Management Controller\n"
    "\t8c54  C224 Series Chipset Family Server Standard SKU LPC Controller\n"
    "C 01  Mass storage controller\n"
    "\t06  SATA controller\n"
    "\t\t01  AHCI 1.0\n"
    "\t07  Serial Attached SCSI controller\n"
    "\t08  Non-Volatile memory controller\n"
    "C 02  Network controller\n"
    "\t00  Ethernet controller\n"
    "C 06  Bridge\n"
    "\t00  Host bridge\n"
    "\t01  ISA bridge\n"
    "\t04  PCI bridge\n"
    "\t80  Bridge\n"
    "C 08  Generic system peripheral\n"
    "\t80  System peripheral\n"
    "C 0c  Serial bus controller\n"
    "\t05  SMBus\n"
    "C 11  Signal processing controller\n"
    "\t80  Signal processing controller\n";

const char kProfile[] =
    "# PCI slots of the controller board: downstream port and slot name\n"
    "[slot_Info]\n"
    "0000:02:01.0 SLOT1\n"
    "02:02.0 SLOT2\n"
    "0000:02:04.0 SLOT3\n"
    "0000:00:02.0 SLOT4\n"
    "\n"
    "# vendor device name:description:\n"
    "[supported_HBA]\n"
    "1000 0097 LSI SAS3008:SAS 12Gb/s HBA:\n"
    "8086 0953 NVMe SSD:Intel DC P3700:\n";
}  // namespace

std::shared_ptr<PciFunction> PciBoard::add(const std::string& address, std::shared_ptr<PciFunction> f,
                                           const std::string& driver, bool listed) {
    unsigned dom = 0, bus = 0, dev = 0, fn = 0;
    sscanf(address.c_str(), "%x:%x:%x.%x", &dom, &bus, &dev, &fn);
    if (dom == 0) ports->attach(static_cast<uint8_t>(bus), static_cast<uint8_t>(dev), static_cast<uint8_t>(fn), f);
    m_functions[address] = f;
    if (!listed) return f;
    const std::string dir = "/sys/bus/pci/devices/" + address;
    char text[16];
    snprintf(text, sizeof(text), "0x%04x\n", f->read(0, 2));
    m_board.writeFile(dir + "/vendor", text);
    snprintf(text, sizeof(text), "0x%04x\n", f->read(2, 2));
    m_board.writeFile(dir + "/device", text);
    snprintf(text, sizeof(text), "0x%06x\n", f->read(8, 4) >> 8);
    m_board.writeFile(dir + "/class", text);
    m_board.addDevice(dir + "/config", f);
    if (address == "0000:00:00.0") f->mirrorTo(m_board.hostPath(dir + "/config"));
    // resource0 is BAR0's window: a sparse file of the BAR's size.
    const uint32_t bar0 = f->read(0x10, 4);
    if (bar0 && !(bar0 & 1)) {
        const std::string res = m_board.hostPath(dir + "/resource0");
        std::ofstream(res).flush();
        std::error_code ec;
        std::filesystem::resize_file(res, 0x4000, ec);
    }
    if (!driver.empty()) {
        std::filesystem::create_directories(m_board.hostPath("/sys/bus/pci/drivers/" + driver));
        m_board.makeSymlink("../../drivers/" + driver, dir + "/driver");
    }
    return f;
}

std::shared_ptr<PciFunction> PciBoard::function(const std::string& address) const {
    auto it = m_functions.find(address);
    return it == m_functions.end() ? nullptr : it->second;
}

PciBoard::PciBoard(VirtualBoard& board) : m_board(board) {
    ports = std::make_shared<PciConfigPorts>();
    plx = std::make_shared<PlxRegisters>();
    board.addPorts(0xCF8, 8, ports);

    // Broadwell-DE SoC. The host bridge keeps what another model already put in its
    // error register (the processor's view of it goes through libpci on the file).
    uint32_t errorRegister = 0;
    {
        std::ifstream old(board.hostPath("/sys/bus/pci/devices/0000:00:00.0/config"), std::ios::binary);
        char bytes[4] = {0, 0, 0, 0};
        if (old.seekg(0xC8) && old.read(bytes, 4))
            memcpy(&errorRegister, bytes, 4);
    }
    auto host = make(0x8086, 0x6F00, 0x060000, 3, 0x00);
    host->poke(0xC8, errorRegister, 4);
    add("0000:00:00.0", host);
    add("0000:00:01.0", rootPort(0x6F02, 1, 8, 8, 1), "pcieport")->setBusNumbers(0, 1, 7);
    add("0000:00:01.1", rootPort(0x6F03, 2, 4, 1, 8), "pcieport");
    add("0000:00:02.0", rootPort(0x6F04, 3, 8, 8, 9), "pcieport");
    add("0000:00:02.2", rootPort(0x6F06, 5, 4, 4, 0x0A), "pcieport");
    // NTB in place of root port 3A: its link registers sit at 0x19C/0x1A2, AER at 0x148.
    auto ntb = make(0x8086, 0x6F0D, 0x068000, 3, 0x00);
    ntb->addCapability(0x01, 8);
    ntb->addPcieCapability(0, 0, kGen3, 8, kGen3, 8, 0x90);
    ntb->addAer(0x148);
    ntb->poke(0x19C, kGen3 | 8 << 4, 4);
    ntb->poke(0x1A2, kGen3 | 8 << 4 | 0x2000, 2);
    ntb->setBar(0, 0xFC000000, 0x10000, 0xC);
    add("0000:00:03.0", ntb);

    // PCH functions: plain PCI, 256-byte spaces.
    add("0000:00:1f.0", make(0x8086, 0x8C54, 0x060100, 5, 0x80, 256), "lpc_ich");
    auto ahci = make(0x8086, 0x8C02, 0x010601, 5, 0x00, 256);
    ahci->addCapability(0x05, 0x10);
    ahci->addCapability(0x01, 8);
    ahci->setBar(4, 0xF060, 0x20, 1);
    ahci->setBar(5, 0xFBF02000, 0x800, 0);
    add("0000:00:1f.2", ahci, "ahci");
    auto smbus = make(0x8086, 0x8C22, 0x0C0500, 5, 0x00, 256);
    smbus->setBar(0, 0xFBA01000, 0x100, 0x4);
    smbus->setBar(4, 0xF000, 0x20, 1);
    add("0000:00:1f.3", smbus, "i801_smbus");
    // The thermal controller is hidden from the OS: only the port mechanism reaches it.
    auto thermal = make(0x8086, 0x8C24, 0x118000, 5, 0x00, 256);
    thermal->setBar(0, 0xFBA02000, 0x1000, 0x4);
    add("0000:00:1f.6", thermal, "", false);

    // PLX PEX8749: upstream port 0, DMA, downstream ports 1-5, NT port (virtual and link).
    auto up = make(0x10B5, 0x8749, 0x060400, 0xCA, 0x81, 4096, plx->storage(0));
    up->addCapability(0x01, 8);
    up->addCapability(0x05, 0x18);
    up->addPcieCapability(5, 0, kGen3, 8, kGen3, 8);
    up->addAer();
    up->setBar(0, kPlxBar, PlxRegisters::kSize, 0);
    up->setBusNumbers(1, 2, 7);
    plx->attach(0, up);
    add("0000:01:00.0", up, "pcieport");
    auto dma = endpoint(0x10B5, 0x87D0, 0x088000, 0xCA, kGen3, 8, 0x80);
    dma->setBar(0, 0xFB0C0000, 0x2000, 0);
    add("0000:01:00.1", dma);
    struct Downstream {
        int port, device, width, bus;
    };
    const Downstream downs[] = {{1, 1, 8, 3}, {2, 2, 4, 4}, {3, 3, 1, 5}, {4, 4, 0, 6}, {5, 5, 4, 7}};
    for (const Downstream& d : downs) {
        auto f = make(0x10B5, 0x8749, 0x060400, 0xCA, 0x01, 4096, plx->storage(d.port));
        f->addCapability(0x01, 8);
        f->addCapability(0x05, 0x18);
        f->addPcieCapability(6, d.port, kGen3, 8, d.width ? kGen3 : kGen1, d.width);
        f->addAer();
        f->setBusNumbers(2, d.bus, d.bus);
        plx->attach(d.port, f);
        char address[16];
        snprintf(address, sizeof(address), "0000:02:%02x.0", d.device);
        add(address, f, "pcieport");
    }
    auto ntVirtual = make(0x10B5, 0x87B0, 0x068000, 0xCA, 0x00, 4096, plx->storage(kPlxNtVirtualPort));
    ntVirtual->addCapability(0x01, 8);
    ntVirtual->addPcieCapability(0, kPlxNtVirtualPort, kGen3, 4, kGen3, 4);
    ntVirtual->addAer();
    ntVirtual->setBar(0, kPlxNtBar, PlxRegisters::kSize, 0);
    plx->attach(kPlxNtVirtualPort, ntVirtual);
    add("0000:07:00.0", ntVirtual);
    // The link side faces the other host: same layout, reached only through BAR0.
    plxLink = make(0x10B5, 0x87B0, 0x068000, 0xCA, 0x00, 4096, plx->storage(kPlxNtLinkPort));
    plxLink->addCapability(0x01, 8);
    plxLink->addPcieCapability(0, kPlxNtVirtualPort, kGen3, 4, kGen3, 4);
    plxLink->addAer();
    plx->attach(kPlxNtLinkPort, plxLink);
    // The switch's serial EEPROM holds its configuration image.
    plx->eeprom = std::make_shared<PlxEepromController>(&board.clock(), true);
    plx->eeprom->load(plxEepromImage());
    up->poke(0x20C, 0x0102, 2);  // image version 01.02, loaded from the EEPROM at reset
    windows.push_back({kPlxBar, PlxRegisters::kSize, plx->base()});
    windows.push_back({kPlxNtBar, PlxRegisters::kSize, plx->base()});

    // Adapters behind the switch.
    auto sas = endpoint(0x1000, 0x0097, 0x010700, 2, kGen3, 8);
    sas->setBar(0, 0xE000, 0x100, 1);
    sas->setBar(1, 0xFB400000, 0x10000, 0x4);
    add("0000:03:00.0", sas, "mpt3sas");
    auto nvme = endpoint(0x8086, 0x0953, 0x010802, 1, kGen3, 4);
    nvme->setBar(0, 0xFB300000, 0x4000, 0x4);
    add("0000:04:00.0", nvme, "nvme");
    auto nvsram = endpoint(0x10EE, 0x7021, 0x088000, 0, kGen2, 1);
    nvsram->setBar(0, 0xFB200000, 0x100000, 0);
    add("0000:05:00.0", nvsram);

    // Root and downstream ports train their links in virtual time.
    for (const auto& entry : m_functions) {
        PciFunction& f = *entry.second;
        const uint32_t c = f.pcieCapability();
        const int type = c ? static_cast<int>((f.read(c + 2, 2) >> 4) & 0xF) : -1;
        if (type == 4 || type == 6) f.enableLinkTraining(&board.clock());
    }

    // Network controllers behind the SoC's root ports.
    auto i210 = endpoint(0x8086, 0x1533, 0x020000, 3, kGen1, 1);
    i210->setBar(0, 0xFB800000, 0x100000, 0);
    i210->setBar(3, 0xFB900000, 0x4000, 0);
    add("0000:08:00.0", i210, "igb");
    auto xl710 = endpoint(0x8086, 0x1583, 0x020000, 2, kGen3, 8, 0x80);
    xl710->setBar(0, 0xFA000000, 0x800000, 0xC);
    add("0000:09:00.0", xl710, "i40e");
    for (int fn = 0; fn < 2; ++fn) {
        auto x552 = endpoint(0x8086, 0x15AB, 0x020000, 0, kGen3, 4, 0x80);
        x552->setBar(0, 0xF9000000 + 0x200000 * fn, 0x200000, 0xC);
        add("0000:0a:00." + std::to_string(fn), x552, "ixgbe");
    }

    board.writeFile("/etc/quarn/PCI_profile.ini", kProfile);
    std::error_code ec;
    const std::string ids = board.hostPath("/usr/share/pci.ids");
    std::filesystem::create_directories(std::filesystem::path(ids).parent_path(), ec);
    if (!std::filesystem::copy_file("/usr/share/misc/pci.ids", ids,
                                    std::filesystem::copy_options::overwrite_existing, ec))
        board.writeFile("/usr/share/pci.ids", kBuiltinIds);
}

}  // namespace quarn::vboard
