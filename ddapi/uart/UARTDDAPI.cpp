// Device layer of the serial ports.
#include "ddapi/uart/UARTDDAPI.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <termios.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "api/StringUtil.h"
#include "api/platform/Files.h"
#include "api/platform/Platform.h"

namespace {
const char kTtyClass[] = "/sys/class/tty";
const char kListFile[] = "uartList";
constexpr size_t kMaxListLine = 63;

// Function rows of the device table.
constexpr ERRORCODE kTestScratchPad = 0xCC080400;
constexpr ERRORCODE kLoopbackTest = 0xCC080C00;
constexpr ERRORCODE kScanUarts = 0xCC081C00;
constexpr ERRORCODE kGetDevice = 0xCC082000;
constexpr ERRORCODE kReadRegister = 0xCC082400;
constexpr ERRORCODE kWriteRegister = 0xCC082800;
constexpr ERRORCODE kSearchUart = 0xCC082C00;
constexpr ERRORCODE kNotSupported = 0x01;
constexpr ERRORCODE kSerialIoctl = 0x04;
constexpr ERRORCODE kOpenNode = 0x215;
constexpr ERRORCODE kNoDevice = 0x22E;
constexpr ERRORCODE kTimeOut = 0x238;

// 16550 registers (offsets from the base port) and line status bits.
constexpr unsigned int kData = 0;
constexpr unsigned int kInterruptEnable = 1;
constexpr unsigned int kLineControl = 3;
constexpr unsigned int kModemControl = 4;
constexpr unsigned int kLineStatus = 5;
constexpr unsigned int kScratch = 7;
constexpr uint8_t kDataReady = 0x01;
constexpr uint8_t kTransmitEmpty = 0x20;
constexpr uint8_t kLoopbackOn = 0x10;
constexpr uint8_t kEightNoneOne = 0x03;
constexpr int kPolls = 3500;
constexpr uint64_t kPollPauseUs = 10;

struct PortType {
    unsigned int number;
    const char* name;
};
// Linux serial-core port type numbers; the last entry ends the search.
const PortType kUartPortTypeTable[] = {
    {0, "UNKNOWN"}, {1, "8250"},      {2, "16450"},    {3, "16550"},     {4, "16550A"},
    {5, "CIRRUS"},  {6, "16650"},     {7, "16650V2"},  {8, "16750"},     {9, "STARTECH"},
    {10, "16C950"}, {11, "16654"},    {12, "16850"},   {0xFFFFFFFF, "UNKNOWN"},
};

bool legacyBase(unsigned long port) { return (port & ~0x110UL) == 0x2E8; }
}  // namespace

UARTDDAPI::UARTDDAPI(const char* name)
    : BaseClassDDAPI(name),
      m_port(0),
      m_length(0),
      m_sent(nullptr),
      m_received(nullptr),
      m_savedLineControl(0),
      m_savedModemControl(0),
      m_savedInterruptEnable(0),
      m_bytesDone(0) {}

UARTDDAPI::~UARTDDAPI() {
    releaseBuffers();
    for (uint16_t port : m_granted) quarn::platform().ioperm(port, 1, 0);
}

const char* UARTDDAPI::getUartPortType(unsigned int type) {
    for (const PortType& t : kUartPortTypeTable) {
        if (t.number == 0xFFFFFFFF) break;
        if (t.number == type) return t.name;
    }
    return "UNKNOWN";
}

// The port list goes through the scratch file as the lines "ls" would print for each
// /sys/class/tty/NAME/device/driver, so what was found can be looked at afterwards. It is
// written without following a link planted at its name.
ErrorMsg* UARTDDAPI::scanUarts(std::vector<_SERIAL_INFO>* list) {
    quarn::Platform& p = quarn::platform();
    std::vector<std::string> ttys;
    std::string listing;
    if (quarn::listNames(kTtyClass, &ttys) == 0) {
        for (const std::string& tty : ttys) {
            const std::string driver = std::string(kTtyClass) + "/" + tty + "/device/driver";
            struct stat st;
            if (p.stat(driver, &st) == 0) listing += driver + ":\n";
        }
    }
    std::string text;
    if (quarn::writeScratchFile(kListFile, listing) != 0 || quarn::readTextFile(kListFile, &text) != 0) {
        printf("open uartList file fail !!!\n");
        fflush(stdout);
        return returnErrorMsg(kScanUarts | kOpenNode, nullptr, nullptr);
    }

    int index = 0;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        if (end == std::string::npos) end = text.size();
        const std::string line = text.substr(pos, end - pos);
        pos = end + 1;
        if (line.size() > kMaxListLine) continue;  // no tty path is that long
        // Fourth non-empty piece between slashes: /sys/class/tty/NAME/...
        std::vector<std::string> pieces;
        size_t at = 0;
        while (at <= line.size()) {
            size_t slash = line.find('/', at);
            if (slash == std::string::npos) slash = line.size();
            if (slash > at) pieces.push_back(line.substr(at, slash - at));
            at = slash + 1;
        }
        if (pieces.size() < 4) continue;
        _SERIAL_INFO info;
        info.path = "/dev/" + pieces[3];
        memset(&info.serial, 0, sizeof(info.serial));
        if (ErrorMsg* e = getDevice(info.path.c_str(), &info.serial)) {
            deleteErrorMsg(e);  // a listed port that does not answer is not a port
            continue;
        }
        char name[16];
        snprintf(name, sizeof(name), "uart%d", index++);
        info.name = name;
        info.type = getUartPortType(static_cast<unsigned int>(info.serial.type));
        if (list) list->push_back(info);
    }
    return nullptr;
}

// Opened without becoming the controlling terminal and without waiting for carrier.
ErrorMsg* UARTDDAPI::getDevice(const char* path, struct serial_struct* out) {
    quarn::Platform& p = quarn::platform();
    const int fd = p.open(path, O_RDWR | O_NOCTTY | O_NONBLOCK);
    if (fd < 0) return returnErrorMsg(kGetDevice | kOpenNode, path, nullptr);
    struct termios attributes;
    if (p.ioctl(fd, TCGETS, &attributes) != 0) {
        p.close(fd);
        return returnErrorMsg(kGetDevice | kNoDevice, path, nullptr);
    }
    struct serial_struct serial;
    memset(&serial, 0, sizeof(serial));
    if (p.ioctl(fd, TIOCGSERIAL, &serial) != 0) {
        const int err = errno;
        p.close(fd);
        formatMessage("%s: %s", path, quarn::systemErrorText(err).c_str());
        return returnErrorMsg(kGetDevice | kSerialIoctl, m_message, nullptr);
    }
    p.close(fd);
    if (out) *out = serial;
    return nullptr;
}

ErrorMsg* UARTDDAPI::searchUart(const char* name, struct serial_struct* out) {
    std::vector<_SERIAL_INFO> ports;
    if (ErrorMsg* e = scanUarts(&ports)) return returnErrorMsg(kSearchUart, nullptr, e);
    for (const _SERIAL_INFO& port : ports) {
        if (name && port.name == name) {
            if (out) *out = port.serial;
            return nullptr;
        }
    }
    return returnErrorMsg(kSearchUart | kNoDevice, name, nullptr);
}

ErrorMsg* UARTDDAPI::readRegister(unsigned int offset, uint8_t* value) {
    quarn::Platform& p = quarn::platform();
    const uint16_t port = static_cast<uint16_t>(m_port + offset);
    if (p.ioperm(port, 1, 1) != 0) {
        formatMessage("port 0x%X: %s", port, quarn::systemErrorText(errno).c_str());
        return returnErrorMsg(kReadRegister, m_message, nullptr);
    }
    m_granted.insert(port);
    const uint8_t v = p.inb(port);
    if (value) *value = v;
    return nullptr;
}

ErrorMsg* UARTDDAPI::writeRegister(unsigned int offset, uint8_t value) {
    quarn::Platform& p = quarn::platform();
    const uint16_t port = static_cast<uint16_t>(m_port + offset);
    if (p.ioperm(port, 1, 1) != 0) {
        formatMessage("port 0x%X: %s", port, quarn::systemErrorText(errno).c_str());
        return returnErrorMsg(kWriteRegister, m_message, nullptr);
    }
    m_granted.insert(port);
    p.outb(value, port);
    return nullptr;
}

ErrorMsg* UARTDDAPI::selectPort(const char* name, ERRORCODE function) {
    struct serial_struct serial;
    memset(&serial, 0, sizeof(serial));
    if (ErrorMsg* e = searchUart(name, &serial)) return returnErrorMsg(function, nullptr, e);
    if (!legacyBase(serial.port)) {
        formatMessage("%s at I/O port 0x%X", name, serial.port);
        return returnErrorMsg(function | kNotSupported, m_message, nullptr);
    }
    m_port = static_cast<uint16_t>(serial.port);
    return nullptr;
}

ErrorMsg* UARTDDAPI::testScratchPad(const char* name) {
    if (ErrorMsg* e = selectPort(name, kTestScratchPad)) return e;
    uint8_t kept = 0;
    if (ErrorMsg* e = readRegister(kScratch, &kept)) return returnErrorMsg(kTestScratchPad, nullptr, e);
    static const uint8_t kPatterns[] = {0xAA, 0x55, 0xFF, 0x00};
    ErrorMsg* result = nullptr;
    for (uint8_t pattern : kPatterns) {
        if (ErrorMsg* e = writeRegister(kScratch, pattern)) {
            result = returnErrorMsg(kTestScratchPad, nullptr, e);
            break;
        }
        uint8_t back = 0;
        if (ErrorMsg* e = readRegister(kScratch, &back)) {
            result = returnErrorMsg(kTestScratchPad, nullptr, e);
            break;
        }
        if (back != pattern) {
            result = returnErrorMsg(kTestScratchPad, "compare data fail", nullptr);
            break;
        }
    }
    if (ErrorMsg* e = writeRegister(kScratch, kept)) deleteErrorMsg(e);  // granted above already
    return result;
}

ErrorMsg* UARTDDAPI::waitLineStatus(uint8_t bit) {
    quarn::Platform& p = quarn::platform();
    for (int poll = 0; poll < kPolls; ++poll) {
        uint8_t status = 0;
        if (ErrorMsg* e = readRegister(kLineStatus, &status)) return returnErrorMsg(kLoopbackTest, nullptr, e);
        if (status & bit) return nullptr;
        p.sleepMicroseconds(kPollPauseUs);
    }
    formatMessage("line status bit 0x%02X not set after %d polls", bit, kPolls);
    return returnErrorMsg(kLoopbackTest | kTimeOut, m_message, nullptr);
}

void UARTDDAPI::restoreLoopbackRegisters() {
    if (ErrorMsg* e = writeRegister(kModemControl, m_savedModemControl)) deleteErrorMsg(e);
    if (ErrorMsg* e = writeRegister(kLineControl, m_savedLineControl)) deleteErrorMsg(e);
    if (ErrorMsg* e = writeRegister(kInterruptEnable, m_savedInterruptEnable)) deleteErrorMsg(e);
}

void UARTDDAPI::releaseBuffers() {
    delete[] m_sent;
    delete[] m_received;
    m_sent = nullptr;
    m_received = nullptr;
}

ErrorMsg* UARTDDAPI::doInternalLoopbackTest(const char* name, unsigned int length, bool fixed,
                                            uint8_t pattern) {
    m_bytesDone = 0;
    if (ErrorMsg* e = selectPort(name, kLoopbackTest)) return e;
    ErrorMsg* e = readRegister(kLineControl, &m_savedLineControl);
    if (!e) e = readRegister(kModemControl, &m_savedModemControl);
    if (!e) e = readRegister(kInterruptEnable, &m_savedInterruptEnable);
    if (e) return returnErrorMsg(kLoopbackTest, nullptr, e);

    // Interrupts are off while looping, so a kernel driver that has the port open does
    // not take the looped bytes out of the receiver before the test reads them; the
    // saved value comes back at the end. Characters already waiting are drained.
    uint8_t scratch = 0;
    e = writeRegister(kInterruptEnable, 0);
    if (!e) e = writeRegister(kModemControl, kLoopbackOn);
    if (!e) e = writeRegister(kLineControl, kEightNoneOne);
    if (!e) e = readRegister(kLineStatus, &scratch);
    for (int drained = 0; !e && (scratch & kDataReady) && drained < 64; ++drained) {
        e = readRegister(kData, &scratch);
        if (!e) e = readRegister(kLineStatus, &scratch);
    }
    if (e) {
        restoreLoopbackRegisters();
        return returnErrorMsg(kLoopbackTest, nullptr, e);
    }

    m_length = length;
    ErrorMsg* result = nullptr;
    m_sent = new (std::nothrow) uint8_t[length ? length : 1];
    m_received = new (std::nothrow) uint8_t[length ? length : 1];
    if (!m_sent || !m_received) {
        result = returnErrorMsg(kLoopbackTest | 0x23A, "buffer allocation", nullptr);
    } else {
        for (unsigned int i = 0; i < length; ++i) {
            m_sent[i] = fixed ? pattern : static_cast<uint8_t>(i % 256);
            m_received[i] = 0;
        }
    }
    for (unsigned int i = 0; !result && i < length; ++i) {
        if ((result = waitLineStatus(kTransmitEmpty))) break;
        if ((e = writeRegister(kData, m_sent[i]))) {
            result = returnErrorMsg(kLoopbackTest, nullptr, e);
            break;
        }
        if ((result = waitLineStatus(kDataReady))) {
            printf("check DR bit fail !!!!!!!!!!!!!!!!!!!!!!\n");
            fflush(stdout);
            break;
        }
        if ((e = readRegister(kData, &m_received[i]))) {
            result = returnErrorMsg(kLoopbackTest, nullptr, e);
            break;
        }
        if (m_progressOwner) m_progressOwner->updateProgress(1);
    }
    for (unsigned int i = 0; !result && i < length; ++i) {
        if (m_sent[i] != m_received[i]) {
            formatMessage("compare data fail");
            result = returnErrorMsg(kLoopbackTest, m_message, nullptr);
            break;
        }
        m_bytesDone = i + 1;
    }
    restoreLoopbackRegisters();
    releaseBuffers();
    return result;
}
