// A 16550A UART on eight I/O ports, and the serial driver's tty node in front of it.
// Registers as in the 16550 data sheet: receive/transmit buffer and divisor latch (DLAB),
// interrupt enable and identification, FIFO control, line and modem control, line and
// modem status, scratch pad. Characters take their real time on the line (start, data,
// parity and stop bits at the divisor's baud rate) in the board's virtual time; with the
// modem control loop bit set the transmitter feeds the receiver.
#pragma once

#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "vboard/DeviceModel.h"
#include "vboard/VirtualClock.h"

namespace quarn::vboard {

class Uart16550Model : public PortModel {
public:
    Uart16550Model(VirtualClock& clock, uint16_t base, uint16_t divisor);

    uint32_t in(uint16_t port, int size) override;
    void out(uint16_t port, uint32_t value, int size) override;

    uint16_t base() const { return m_base; }

    // Faults. Bits set in mask are stuck at 1 on the loopback path (a damaged loop).
    void setLoopbackStuckHigh(uint8_t mask) { m_loopStuckHigh = mask; }
    // The loop never returns a character.
    void setLoopbackOpen(bool open) { m_loopOpen = open; }
    // Bits set in mask read back as 0 from the scratch register.
    void setScratchStuckLow(uint8_t mask) { m_scratchStuckLow = mask; }

    // Register values as the chip holds them (for tests; no side effects).
    uint8_t reg(int offset);
    // Characters that left on the line (loop bit clear), and those sent into the loop.
    std::vector<uint8_t> transmitted();
    std::vector<uint8_t> looped();
    // A character arriving from the line.
    void receiveFromLine(uint8_t byte);

private:
    struct Pending {
        uint8_t byte;
        bool loop;          // the loop bit at the time it was written
        uint64_t startNs;   // moves from the holding register/FIFO into the shift register
        uint64_t doneNs;    // last stop bit sent
    };
    void advance();  // moves characters whose time has come
    void receive(uint8_t byte);
    uint64_t characterNs() const;
    uint8_t lineStatus();
    uint8_t interruptId();

    VirtualClock& m_clock;
    uint16_t m_base;
    std::mutex m_mutex;
    uint8_t m_ier = 0, m_lcr = 0x03, m_mcr = 0, m_scr = 0, m_fcr = 0;
    uint8_t m_dll, m_dlm;
    uint8_t m_lsrErrors = 0;  // overrun, latched until line status is read
    std::deque<uint8_t> m_rx;
    std::deque<Pending> m_tx;
    std::vector<uint8_t> m_line;
    std::vector<uint8_t> m_looped;
    bool m_thriPending = false;
    uint8_t m_loopStuckHigh = 0;
    bool m_loopOpen = false;
    uint8_t m_scratchStuckLow = 0;
};

// The tty node of one port, as the 8250 driver presents it: opens (EIO when no UART was
// detected at the port), TCGETS and TIOCGSERIAL.
class SerialTtyModel : public DeviceModel {
public:
    // type: serial-core port type (4 = 16550A, 0 = none detected).
    SerialTtyModel(int line, unsigned int type, uint16_t port, int irq);
    std::unique_ptr<FileHandle> open(int flags) override;

    void setType(unsigned int type) { m_type = type; }
    void setPort(uint16_t port) { m_port = port; }
    unsigned int type() const { return m_type; }

private:
    friend class SerialTtyHandle;
    int m_line;
    unsigned int m_type;
    uint16_t m_port;
    int m_irq;
};

// Four 16550A ports at the legacy bases behind /dev/ttyS0-3, listed in /sys/class/tty
// with the 8250 driver, and a fifth runtime tty (ttyS4) that the driver lists although
// no UART answers for it.
struct SerialPorts {
    std::shared_ptr<Uart16550Model> uart[4];
    std::shared_ptr<SerialTtyModel> tty[5];
};
class VirtualBoard;
SerialPorts installSerialPorts(VirtualBoard& board);

}  // namespace quarn::vboard
