// The chipset's legacy GPIO registers in I/O space.
#include "ddapi/gpio/GPIO_PCHDriver.h"

#include <cstdio>
#include <cstring>
#include <new>
#include <vector>

#include "api/platform/Platform.h"
#include "ddapi/memory/MemoryDDAPI.h"
#include "ddapi/pci/PCIDDAPI.h"

namespace {
const char kSourceFile[] = "ddapi/gpio/GPIO_PCHDriver";

constexpr ERRORCODE kConstructor = 0xC6082400;
constexpr ERRORCODE kReadBit = 0xC6082800;
constexpr ERRORCODE kIsMyGPIO = 0xC6082C00;
constexpr ERRORCODE kSetBit = 0xC6083000;
constexpr ERRORCODE kGetList = 0xC6083000;  // shares the setBit row
constexpr ERRORCODE kIndexFail = 0x03;
constexpr ERRORCODE kReadOnly = 0x04;
constexpr ERRORCODE kNotSupport = 0x05;
constexpr ERRORCODE kUnsupportType = 0x06;
constexpr ERRORCODE kGetFail = 0x07;
constexpr ERRORCODE kSetFail = 0x08;
constexpr ERRORCODE kCreateFail = 0x23A;

constexpr PCIClassCode kIsaBridge = 0x0601;
// LPC bridge: GPIO base address register; the base is 128-byte aligned I/O space.
constexpr uint32_t kGpioBaseRegister = 0x48;
constexpr uint32_t kGpioBaseMask = 0xFF80;
constexpr unsigned int kPortPause = 1000;  // microseconds after every access
constexpr unsigned int kAllOnes = 0xFFFFFFFF;

PCH_DRIVER_DATA_TYPE typeOf(const std::string& k) {
    if (k == "GPIO_PCH_DRIVER_DATA_TYPE_BOOLEAN") return GPIO_PCH_DRIVER_DATA_TYPE_BOOLEAN;
    if (k == "GPIO_PCH_DRIVER_DATA_TYPE_UINT8") return GPIO_PCH_DRIVER_DATA_TYPE_UINT8;
    if (k == "GPIO_PCH_DRIVER_DATA_TYPE_UINT16") return GPIO_PCH_DRIVER_DATA_TYPE_UINT16;
    if (k == "GPIO_PCH_DRIVER_DATA_TYPE_UINT32") return GPIO_PCH_DRIVER_DATA_TYPE_UINT32;
    return GPIO_PCH_DRIVER_DATA_TYPE_UNKNOWN;
}
}  // namespace

GPIO_PCHDriver::GPIO_PCHDriver(const char* name)
    : GPIOGeneric(name), m_gpioBase(0), m_lastError(nullptr), m_entryCount(0), m_pci(nullptr), m_memory(nullptr) {
    memset(m_table, 0, sizeof(m_table));
    m_pci = new (std::nothrow) PCIDDAPI("GPIO_PCH_PCI");
    if (!m_pci) {
        addErrorMsg(kConstructor | kCreateFail, nullptr);
        return;
    }
    if (ErrorMsg* errors = m_pci->getErrorMsg()) {
        addErrorMsg(kConstructor, nullptr, errors);
        return;
    }
    std::vector<_PCIInformantion> bridges;
    if (ErrorMsg* e = m_pci->getPciInfoByClass(kIsaBridge, &bridges)) {
        addErrorMsg(kConstructor, nullptr, e);
    } else if (!bridges.empty()) {
        const _PCIInformantion& lpc = bridges.front();
        _PFA pfa{lpc.domain, lpc.bus, lpc.device, lpc.function, 0};
        m_gpioBase = m_pci->ConfigReadDword(pfa, kGpioBaseRegister) & kGpioBaseMask;
    }
    m_memory = new (std::nothrow) MemoryDDAPI("GPIO_MEM");
    if (!m_memory) {
        addErrorMsg(kConstructor | kCreateFail, nullptr);
        return;
    }
    if (ErrorMsg* errors = m_memory->getErrorMsg()) addErrorMsg(kConstructor, nullptr, errors);
}

GPIO_PCHDriver::~GPIO_PCHDriver() {
    deleteErrorMsg(m_lastError);
    delete m_memory;
    delete m_pci;
}

bool GPIO_PCHDriver::AddEntry(const char* name, PCH_DRIVER_DATA_TYPE type, GPIO_RW_MODE mode, unsigned int number,
                              bool activeHigh) {
    if (m_entryCount >= kMaxEntries) return false;
    GPIO_PCH_ENTRY& e = m_table[m_entryCount++];
    snprintf(e.name, sizeof(e.name), "%s", name);
    e.type = type;
    e.mode = mode;
    e.number = number;
    e.activeHigh = activeHigh;
    e.valid = true;
    return true;
}

// name, data type, mode, GPIO number (decimal), active level, "TRUE" or other. A line
// without a usable number is ignored; numbers from 96 up are kept and refused on use.
void GPIO_PCHDriver::readINIFile(char* line) {
    const std::list<std::string> f = splitFields(line);
    if (f.size() < 4) return;
    std::vector<std::string> v(f.begin(), f.end());
    unsigned long number = 0;
    if (!parseNumber(v[3], 10, kNotFound, &number)) return;
    const std::string active = v.size() > 4 ? v[4] : "";
    const bool high = activeHighOf(active, v.size() > 5 ? &v[5] : nullptr);
    AddEntry(v[0].c_str(), typeOf(v[1]), modeOf(v[2]), static_cast<unsigned int>(number), high);
}

unsigned int GPIO_PCHDriver::GetGPIOIndexByName(std::string name) {
    const std::string wanted = upper(name);
    for (unsigned int i = 0; i < kMaxEntries && m_table[i].name[0] != '\0'; ++i)
        if (wanted == m_table[i].name) return i;
    return kNotFound;
}

ErrorMsg* GPIO_PCHDriver::isMyGPIO(std::string name) {
    if (GetGPIOIndexByName(name) == kNotFound) return returnErrorMsg(kIsMyGPIO, nullptr, nullptr);
    return nullptr;
}

unsigned int GPIO_PCHDriver::levelRegister(unsigned int number, unsigned int* bit) {
    *bit = number % 32;
    if (number < 32) return 0x0C;
    if (number < 64) return 0x38;
    return 0x48;
}

void GPIO_PCHDriver::delay(int microseconds) {
    if (microseconds > 0) quarn::platform().sleepMicroseconds(static_cast<uint64_t>(microseconds));
}

// Ports below 0x400 are opened for the access alone; the GPIO block above needs the
// I/O privilege level. Either is dropped again right after.
unsigned int GPIO_PCHDriver::readIOPort(unsigned int port, unsigned int* value, unsigned int size) {
    quarn::Platform& p = quarn::platform();
    if (!value || port > 0xFFFF || port + size > 0x10000) {
        fprintf(stderr, "[%s +%d]: Port address %d error, or other parameter error !\n", kSourceFile, __LINE__,
                static_cast<int>(port));
        return kAllOnes;
    }
    if (size != 1 && size != 2 && size != 4) {
        fprintf(stderr, "[%s +%d]: Not define such size(%c) for write the register!\n", kSourceFile, __LINE__,
                static_cast<char>('0' + size % 10));
        return kAllOnes;
    }
    const bool low = port < 0x400;
    if ((low ? p.ioperm(port, size, 1) : p.iopl(3)) != 0) {
        fprintf(stderr, "[%s +%d]: Can't set the io port permission for reading !\n", kSourceFile, __LINE__);
        return kAllOnes;
    }
    const uint16_t at = static_cast<uint16_t>(port);
    *value = size == 1 ? p.inb(at) : size == 2 ? p.inw(at) : p.inl(at);
    if (low) {
        p.ioperm(port, size, 0);
    } else {
        p.iopl(0);
    }
    delay(kPortPause);
    return 0;
}

unsigned int GPIO_PCHDriver::writeIOPort(unsigned int port, unsigned int value, unsigned int size) {
    quarn::Platform& p = quarn::platform();
    if (port > 0xFFFF || port + size > 0x10000) {
        fprintf(stderr, "[%s +%d]: Port address %d error, or other parameter error !\n", kSourceFile, __LINE__,
                static_cast<int>(port));
        return kAllOnes;
    }
    if (size != 1 && size != 2 && size != 4) {
        fprintf(stderr, "[%s +%d]: Not define such size(%c) for write the register!\n", kSourceFile, __LINE__,
                static_cast<char>('0' + size % 10));
        return kAllOnes;
    }
    const bool low = port < 0x400;
    if ((low ? p.ioperm(port, size, 1) : p.iopl(3)) != 0) {
        fprintf(stderr, "[%s +%d]: Can't set the io port permission for reading !\n", kSourceFile, __LINE__);
        return kAllOnes;
    }
    const uint16_t at = static_cast<uint16_t>(port);
    if (size == 1) {
        p.outb(static_cast<uint8_t>(value), at);
    } else if (size == 2) {
        p.outw(static_cast<uint16_t>(value), at);
    } else {
        p.outl(value, at);
    }
    if (low) {
        p.ioperm(port, size, 0);
    } else {
        p.iopl(0);
    }
    delay(kPortPause);
    return 0;
}

// Without a GPIO base (no LPC bridge found) nothing is read or written: the level
// registers would otherwise land on the legacy DMA controller's ports.
ErrorMsg* GPIO_PCHDriver::readBit(std::string name, bool* value) {
    const unsigned int index = GetGPIOIndexByName(name);
    if (index == kNotFound) return returnErrorMsg(kReadBit | kIndexFail, nullptr, nullptr);
    const GPIO_PCH_ENTRY& e = m_table[index];
    if (e.mode == GPIO_WRITE_ONLY) return returnErrorMsg(kReadBit | kReadOnly, nullptr, nullptr);
    if (e.mode == GPIO_NOT_SUPPORT) return returnErrorMsg(kReadBit | kNotSupport, nullptr, nullptr);
    if (e.type != GPIO_PCH_DRIVER_DATA_TYPE_BOOLEAN || e.number >= kPins)
        return returnErrorMsg(kReadBit | kUnsupportType, nullptr, nullptr);
    if (!value) return returnErrorMsg(kReadBit | kGetFail, "NULL pointer", nullptr);
    if (m_gpioBase == 0) return returnErrorMsg(kReadBit | kGetFail, "no GPIO base", nullptr);
    unsigned int bit = 0;
    const unsigned int reg = levelRegister(e.number, &bit);
    unsigned int level = 0;
    if (readIOPort(m_gpioBase + reg, &level, 4) != 0) return returnErrorMsg(kReadBit | kGetFail, nullptr, nullptr);
    *value = (level >> bit) & 1u;
    return nullptr;
}

ErrorMsg* GPIO_PCHDriver::writeBit(std::string name, bool value) {
    const unsigned int index = GetGPIOIndexByName(name);
    if (index == kNotFound) return returnErrorMsg(kSetBit | kIndexFail, nullptr, nullptr);
    const GPIO_PCH_ENTRY& e = m_table[index];
    if (e.mode == GPIO_NOT_SUPPORT || e.number >= kPins) return returnErrorMsg(kSetBit | kNotSupport, nullptr, nullptr);
    if (e.mode == GPIO_READ_ONLY) return returnErrorMsg(kSetBit | kReadOnly, nullptr, nullptr);
    if (e.type != GPIO_PCH_DRIVER_DATA_TYPE_BOOLEAN) return returnErrorMsg(kSetBit | kUnsupportType, nullptr, nullptr);
    if (m_gpioBase == 0) return returnErrorMsg(kSetBit | kSetFail, "no GPIO base", nullptr);
    unsigned int bit = 0;
    const unsigned int port = m_gpioBase + levelRegister(e.number, &bit);
    unsigned int level = 0;
    if (readIOPort(port, &level, 4) != 0) return returnErrorMsg(kSetBit | kSetFail, nullptr, nullptr);
    level = value ? (level | (1u << bit)) : (level & ~(1u << bit));
    if (writeIOPort(port, level, 4) != 0) return returnErrorMsg(kSetBit | kSetFail, nullptr, nullptr);
    unsigned int check = 0;
    if (readIOPort(port, &check, 4) != 0 || ((check >> bit) & 1u) != ((level >> bit) & 1u))
        return returnErrorMsg(kSetBit | kSetFail, nullptr, nullptr);
    return nullptr;
}

ErrorMsg* GPIO_PCHDriver::getGPIOList(std::list<std::string>* list) {
    if (!list) return returnErrorMsg(kGetList | kGetFail, "NULL pointer", nullptr);
    for (unsigned int i = 0; i < m_entryCount; ++i) {
        const GPIO_PCH_ENTRY& e = m_table[i];
        if (e.type != GPIO_PCH_DRIVER_DATA_TYPE_BOOLEAN) continue;
        const size_t length = strlen(e.name);
        std::string text = std::string(e.name) + "  <" + std::string(length < 37 ? 37 - length : 0, '-') + ">  ";
        list->push_back(text + std::to_string(e.number));
    }
    if (list->empty()) return returnErrorMsg(kGetList, "Did Not Find Any PCH GPIO PIN", nullptr);
    return nullptr;
}
