// A 16550A UART and its tty node.
#include "vboard/models/uart/Uart16550Model.h"

#include <linux/serial.h>
#include <sys/ioctl.h>
#include <termios.h>

#include <cstring>

#include "vboard/VirtualBoard.h"

namespace quarn::vboard {

namespace {
// Register offsets and bits of the 16550.
constexpr int kRbrThr = 0, kIer = 1, kIirFcr = 2, kLcr = 3, kMcr = 4, kLsr = 5, kMsr = 6, kScr = 7;
constexpr uint8_t kLcrDlab = 0x80;
constexpr uint8_t kMcrLoop = 0x10;
constexpr uint8_t kFcrEnable = 0x01, kFcrClearRx = 0x02, kFcrClearTx = 0x04;
constexpr uint8_t kLsrDr = 0x01, kLsrOe = 0x02, kLsrThre = 0x20, kLsrTemt = 0x40;
constexpr size_t kFifoDepth = 16;
constexpr uint64_t kClockHz = 1843200;  // the usual 1.8432 MHz crystal
}  // namespace

Uart16550Model::Uart16550Model(VirtualClock& clock, uint16_t base, uint16_t divisor)
    : m_clock(clock),
      m_base(base),
      m_dll(static_cast<uint8_t>(divisor)),
      m_dlm(static_cast<uint8_t>(divisor >> 8)) {}

// One character: start bit, 5-8 data bits, optional parity, 1, 1.5 or 2 stop bits; each
// bit lasts 16 clocks of the divided crystal.
uint64_t Uart16550Model::characterNs() const {
    uint64_t divisor = static_cast<uint64_t>(m_dll) | (static_cast<uint64_t>(m_dlm) << 8);
    if (divisor == 0) divisor = 65536;
    const unsigned dataBits = 5 + (m_lcr & 0x03);
    unsigned halfBits = 2 * (1 + dataBits + ((m_lcr & 0x08) ? 1 : 0));
    halfBits += (m_lcr & 0x04) ? (dataBits == 5 ? 3 : 4) : 2;
    return halfBits * 16 * divisor * 1000000000ULL / kClockHz / 2;
}

void Uart16550Model::receive(uint8_t byte) {
    const size_t depth = (m_fcr & kFcrEnable) ? kFifoDepth : 1;
    if (m_rx.size() >= depth) {
        m_lsrErrors |= kLsrOe;
        // Without FIFOs the new character overwrites the holding register; with them
        // the character in the shift register is lost.
        if (depth == 1) m_rx.back() = byte;
        return;
    }
    m_rx.push_back(byte);
}

void Uart16550Model::advance() {
    const uint64_t now = m_clock.nowNs();
    while (!m_tx.empty() && m_tx.front().doneNs <= now) {
        const Pending p = m_tx.front();
        m_tx.pop_front();
        if (!p.loop) {
            m_line.push_back(p.byte);
        } else {
            m_looped.push_back(p.byte);
            if (!m_loopOpen) receive(static_cast<uint8_t>(p.byte | m_loopStuckHigh));
        }
        if (m_tx.empty() || m_tx.front().startNs <= now) m_thriPending = (m_ier & 0x02) != 0;
    }
}

uint8_t Uart16550Model::lineStatus() {
    const uint64_t now = m_clock.nowNs();
    uint8_t lsr = m_lsrErrors;
    if (!m_rx.empty()) lsr |= kLsrDr;
    bool holdingEmpty = true;
    for (const Pending& p : m_tx)
        if (p.startNs > now) holdingEmpty = false;
    if (holdingEmpty) lsr |= kLsrThre;
    if (m_tx.empty()) lsr |= kLsrTemt;
    return lsr;
}

uint8_t Uart16550Model::interruptId() {
    const uint8_t fifoBits = (m_fcr & kFcrEnable) ? 0xC0 : 0x00;
    const uint8_t lsr = lineStatus();
    if ((m_ier & 0x04) && (lsr & kLsrOe)) return fifoBits | 0x06;
    if ((m_ier & 0x01) && (lsr & kLsrDr)) return fifoBits | 0x04;
    if ((m_ier & 0x02) && m_thriPending && (lsr & kLsrThre)) {
        m_thriPending = false;  // reading the identification clears this source
        return fifoBits | 0x02;
    }
    return fifoBits | 0x01;
}

uint32_t Uart16550Model::in(uint16_t port, int size) {
    std::lock_guard<std::mutex> lock(m_mutex);
    advance();
    const int offset = port - m_base;
    const bool dlab = (m_lcr & kLcrDlab) != 0;
    uint8_t v = 0xFF;
    switch (offset) {
    case kRbrThr:
        if (dlab) {
            v = m_dll;
        } else if (!m_rx.empty()) {
            v = m_rx.front();
            m_rx.pop_front();
        } else {
            v = 0;
        }
        break;
    case kIer: v = dlab ? m_dlm : m_ier; break;
    case kIirFcr: v = interruptId(); break;
    case kLcr: v = m_lcr; break;
    case kMcr: v = m_mcr; break;
    case kLsr:
        v = lineStatus();
        m_lsrErrors = 0;
        break;
    case kMsr:
        // In loop mode the modem inputs follow the modem control outputs: CTS from RTS,
        // DSR from DTR, RI from OUT1, DCD from OUT2. Nothing is connected otherwise.
        v = (m_mcr & kMcrLoop) ? static_cast<uint8_t>(((m_mcr & 0x02) << 3) | ((m_mcr & 0x01) << 5) |
                                                      ((m_mcr & 0x04) << 4) | ((m_mcr & 0x08) << 4))
                               : 0;
        break;
    case kScr: v = static_cast<uint8_t>(m_scr & ~m_scratchStuckLow); break;
    }
    (void)size;
    return v;
}

void Uart16550Model::out(uint16_t port, uint32_t value, int size) {
    std::lock_guard<std::mutex> lock(m_mutex);
    advance();
    const int offset = port - m_base;
    const uint8_t v = static_cast<uint8_t>(value);
    const bool dlab = (m_lcr & kLcrDlab) != 0;
    switch (offset) {
    case kRbrThr:
        if (dlab) {
            m_dll = v;
        } else {
            const uint64_t now = m_clock.nowNs();
            size_t waiting = 0;
            for (const Pending& p : m_tx)
                if (p.startNs > now) ++waiting;
            const size_t room = (m_fcr & kFcrEnable) ? kFifoDepth : 1;
            if (waiting >= room) break;  // holding register or FIFO full: the byte is lost
            const uint64_t start = m_tx.empty() ? now : std::max(now, m_tx.back().doneNs);
            m_tx.push_back({v, (m_mcr & kMcrLoop) != 0, start, start + characterNs()});
            m_thriPending = false;
        }
        break;
    case kIer:
        if (dlab) {
            m_dlm = v;
        } else {
            m_ier = v & 0x0F;
            m_thriPending = (m_ier & 0x02) != 0;
        }
        break;
    case kIirFcr:
        if ((v & kFcrEnable) != (m_fcr & kFcrEnable)) m_rx.clear();  // switching mode resets them
        if (v & kFcrClearRx) m_rx.clear();
        if (v & kFcrClearTx) {
            const uint64_t now = m_clock.nowNs();
            while (!m_tx.empty() && m_tx.back().startNs > now) m_tx.pop_back();
        }
        m_fcr = v & 0xC9;
        break;
    case kLcr: m_lcr = v; break;
    case kMcr: m_mcr = v & 0x1F; break;
    case kScr: m_scr = v; break;
    default: break;  // line and modem status are read-only
    }
    (void)size;
}

uint8_t Uart16550Model::reg(int offset) {
    std::lock_guard<std::mutex> lock(m_mutex);
    switch (offset) {
    case kIer: return m_ier;
    case kLcr: return m_lcr;
    case kMcr: return m_mcr;
    case kScr: return m_scr;
    default: return 0;
    }
}

std::vector<uint8_t> Uart16550Model::transmitted() {
    std::lock_guard<std::mutex> lock(m_mutex);
    advance();
    return m_line;
}

std::vector<uint8_t> Uart16550Model::looped() {
    std::lock_guard<std::mutex> lock(m_mutex);
    advance();
    return m_looped;
}

void Uart16550Model::receiveFromLine(uint8_t byte) {
    std::lock_guard<std::mutex> lock(m_mutex);
    advance();
    receive(byte);
}

class SerialTtyHandle : public FileHandle {
public:
    explicit SerialTtyHandle(SerialTtyModel& model) : m_model(model) {}
    int ioctl(unsigned long request, void* arg) override {
        if (request == TCGETS) {
            struct termios t;
            memset(&t, 0, sizeof(t));
            t.c_cflag = B9600 | CS8 | CREAD | HUPCL | CLOCAL;
            memcpy(arg, &t, sizeof(t));
            return 0;
        }
        if (request == TIOCGSERIAL) {
            struct serial_struct s;
            memset(&s, 0, sizeof(s));
            s.type = static_cast<int>(m_model.m_type);
            s.line = m_model.m_line;
            s.port = m_model.m_port;
            s.irq = m_model.m_irq;
            s.flags = 0x10000000;  // ASYNC_BOOT_AUTOCONF, as the legacy ports are probed
            s.xmit_fifo_size = m_model.m_type == 4 ? 16 : 1;
            s.baud_base = 115200;
            s.close_delay = 50;
            s.closing_wait = 3000;
            memcpy(arg, &s, sizeof(s));
            return 0;
        }
        return static_cast<int>(fail(ENOTTY));
    }
    ssize_t read(void*, size_t) override { return fail(EAGAIN); }
    ssize_t write(const void*, size_t count) override { return static_cast<ssize_t>(count); }

private:
    SerialTtyModel& m_model;
};

SerialTtyModel::SerialTtyModel(int line, unsigned int type, uint16_t port, int irq)
    : m_line(line), m_type(type), m_port(port), m_irq(irq) {}

std::unique_ptr<FileHandle> SerialTtyModel::open(int) {
    if (m_type == 0) {  // the driver refuses a port where no UART was found
        errno = EIO;
        return nullptr;
    }
    return std::make_unique<SerialTtyHandle>(*this);
}

SerialPorts installSerialPorts(VirtualBoard& board) {
    static const uint16_t kBases[4] = {0x3F8, 0x2F8, 0x3E8, 0x2E8};
    static const int kIrqs[4] = {4, 3, 4, 3};
    SerialPorts ports;
    board.writeFile("/sys/bus/platform/drivers/serial8250/uevent", "");
    for (int i = 0; i < 5; ++i) {
        const std::string name = "ttyS" + std::to_string(i);
        const bool present = i < 4;
        if (present) {
            // ttyS0 is the console at 115200 baud; the others keep the 9600 of a closed port.
            ports.uart[i] = std::make_shared<Uart16550Model>(board.clock(), kBases[i], i == 0 ? 1 : 12);
            board.addPorts(kBases[i], 8, ports.uart[i]);
        }
        ports.tty[i] = std::make_shared<SerialTtyModel>(i, present ? 4u : 0u, present ? kBases[i] : 0, present ? kIrqs[i] : 0);
        board.addDevice("/dev/" + name, ports.tty[i]);
        board.writeFile("/sys/class/tty/" + name + "/dev", "4:" + std::to_string(64 + i) + "\n");
        board.makeSymlink("../../../../bus/platform/drivers/serial8250",
                          "/sys/class/tty/" + name + "/device/driver");
    }
    // Terminals without a device behind them are not serial ports.
    board.writeFile("/sys/class/tty/tty0/dev", "4:0\n");
    board.writeFile("/sys/class/tty/console/dev", "5:1\n");
    return ports;
}

}  // namespace quarn::vboard
