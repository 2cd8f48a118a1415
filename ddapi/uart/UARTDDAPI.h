// Device layer of the serial ports: the 16550-compatible ports the kernel lists, and two
// register tests done directly on the UART through x86 I/O ports.
#pragma once

#include <linux/serial.h>

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "api/BaseClass.h"

// One port found by the scan.
struct _SERIAL_INFO {
    std::string name;             // "uart0", "uart1" ... in scan order
    std::string path;             // device node, "/dev/ttyS0"
    std::string type;             // UART type name ("16550A")
    struct serial_struct serial;  // as TIOCGSERIAL returned it
};

class QUARN_EXPORT UARTDDAPI : public BaseClassDDAPI {
public:
    explicit UARTDDAPI(const char* name);
    ~UARTDDAPI() override;

    // Lists the tty devices that have a driver, through the scratch file "uartList" in the
    // current directory, and appends every node that answers TIOCGSERIAL.
    ErrorMsg* scanUarts(std::vector<_SERIAL_INFO>* list);
    ErrorMsg* searchUart(const char* name, struct serial_struct* out);
    ErrorMsg* getDevice(const char* path, struct serial_struct* out);
    const char* getUartPortType(unsigned int type);

    // One byte at base + offset of the port under test.
    ErrorMsg* readRegister(unsigned int offset, uint8_t* value);
    ErrorMsg* writeRegister(unsigned int offset, uint8_t value);

    ErrorMsg* testScratchPad(const char* name);
    ErrorMsg* doInternalLoopbackTest(const char* name, unsigned int length, bool fixed,
                                     uint8_t pattern);

    // The last byte patterns of a loopback test are gone once it returns; these report
    // how far the last test got (bytes compared equal before a failure).
    unsigned int loopbackBytesDone() const { return m_bytesDone; }
    // Each looped byte is counted on this object's progress (the diagnostic object that
    // owns this one), so a front end can show how far a long test is.
    void setProgressOwner(BaseClassDAPI* owner) { m_progressOwner = owner; }

private:
    // Finds the port and checks that it sits at a legacy base; function is the test's row.
    ErrorMsg* selectPort(const char* name, ERRORCODE function);
    // Polls line status for bit; 3500 polls 10 us apart.
    ErrorMsg* waitLineStatus(uint8_t bit);
    void restoreLoopbackRegisters();
    void releaseBuffers();

    uint16_t m_port;
    unsigned int m_length;
    uint8_t* m_sent;
    uint8_t* m_received;
    uint8_t m_savedLineControl;
    uint8_t m_savedModemControl;
    uint8_t m_savedInterruptEnable;
    unsigned int m_bytesDone;
    BaseClassDAPI* m_progressOwner = nullptr;
    std::set<uint16_t> m_granted;   // ports opened with ioperm, closed by the destructor
};
