// GPIO pins that are bits of the board FPGA's registers.
#include "ddapi/gpio/GPIO_FPGADriver.h"

#include <cstdio>
#include <cstring>
#include <new>
#include <vector>

#include "ddapi/memory/MemoryDDAPI.h"
#include "ddapi/pci/PCIDDAPI.h"

namespace {
constexpr ERRORCODE kConstructor = 0xC6080C00;
constexpr ERRORCODE kReadBit = 0xC6081000;
constexpr ERRORCODE kIsMyGPIO = 0xC6081400;
constexpr ERRORCODE kSetBit = 0xC6082000;
constexpr ERRORCODE kIndexFail = 0x03;
constexpr ERRORCODE kReadOnly = 0x04;
constexpr ERRORCODE kNotSupport = 0x05;
constexpr ERRORCODE kUnsupportType = 0x06;
constexpr ERRORCODE kGetFail = 0x07;
constexpr ERRORCODE kSetFail = 0x08;
constexpr ERRORCODE kCreateFail = 0x23A;

// The FPGA's PCI function.
constexpr uint16_t kFpgaBus = 0x72;

FPGA_DRIVER_DATA_TYPE typeOf(const std::string& k) {
    if (k == "GPIO_FPGA_DRIVER_DATA_TYPE_BOOLEAN") return GPIO_FPGA_DRIVER_DATA_TYPE_BOOLEAN;
    if (k == "GPIO_FPGA_DRIVER_DATA_TYPE_UINT8") return GPIO_FPGA_DRIVER_DATA_TYPE_UINT8;
    if (k == "GPIO_FPGA_DRIVER_DATA_TYPE_UINT16") return GPIO_FPGA_DRIVER_DATA_TYPE_UINT16;
    if (k == "GPIO_FPGA_DRIVER_DATA_TYPE_UINT32") return GPIO_FPGA_DRIVER_DATA_TYPE_UINT32;
    return GPIO_FPGA_DRIVER_DATA_TYPE_UNKNOWN;
}
}  // namespace

GPIO_FPGADriver::GPIO_FPGADriver(const char* name)
    : GPIOGeneric(name), m_base(0), m_lastError(nullptr), m_entryCount(0), m_pci(nullptr), m_memory(nullptr) {
    memset(m_table, 0, sizeof(m_table));
    m_pci = new (std::nothrow) PCIDDAPI("GPIO_FPGA_PCI");
    m_memory = new (std::nothrow) MemoryDDAPI("GPIO_MEM");
    if (!m_pci || !m_memory) {
        addErrorMsg(kConstructor | kCreateFail, nullptr);
        return;
    }
    if (ErrorMsg* errors = m_pci->getErrorMsg()) addErrorMsg(kConstructor, nullptr, errors);
    if (ErrorMsg* errors = m_memory->getErrorMsg()) addErrorMsg(kConstructor, nullptr, errors);
    // Without the FPGA function the base stays 0 and every access is refused.
    if (ErrorMsg* e = m_pci->getBarByBDF(0, kFpgaBus, 0, 0, 0, &m_base)) {
        m_base = 0;
        addErrorMsg(kConstructor, nullptr, e);
    }
}

GPIO_FPGADriver::~GPIO_FPGADriver() {
    deleteErrorMsg(m_lastError);
    delete m_memory;
    delete m_pci;
}

bool GPIO_FPGADriver::AddEntry(const char* name, FPGA_DRIVER_DATA_TYPE type, GPIO_RW_MODE mode, unsigned int offset,
                               unsigned int second, unsigned int bit, bool activeHigh) {
    if (m_entryCount >= kMaxEntries) return false;
    GPIO_FPGA_ENTRY& e = m_table[m_entryCount++];
    snprintf(e.name, sizeof(e.name), "%s", name);
    e.type = type;
    e.mode = mode;
    e.offset = offset;
    e.second = second;
    e.bit = bit;
    e.activeHigh = activeHigh;
    e.valid = true;
    return true;
}

// name, data type, mode, register offset (hexadecimal), second number (decimal), bit
// (decimal, 0-7), active level, "TRUE" or other. A line whose offset lies outside the
// FPGA window or whose bit is not 0-7 is ignored.
void GPIO_FPGADriver::readINIFile(char* line) {
    const std::list<std::string> f = splitFields(line);
    if (f.size() < 6) return;
    std::vector<std::string> v(f.begin(), f.end());
    unsigned long offset = 0, second = 0, bit = 0;
    if (!parseNumber(v[3], 16, kMaxOffset, &offset) || !parseNumber(v[4], 10, 0xFFFFFFFFul, &second) ||
        !parseNumber(v[5], 10, 7, &bit))
        return;
    const std::string active = v.size() > 6 ? v[6] : "";
    const bool high = activeHighOf(active, v.size() > 7 ? &v[7] : nullptr);
    AddEntry(v[0].c_str(), typeOf(v[1]), modeOf(v[2]), static_cast<unsigned int>(offset),
             static_cast<unsigned int>(second), static_cast<unsigned int>(bit), high);
}

unsigned int GPIO_FPGADriver::GetGPIOIndexByName(std::string name) {
    const std::string wanted = upper(name);
    for (unsigned int i = 0; i < kMaxEntries && m_table[i].name[0] != '\0'; ++i)
        if (wanted == m_table[i].name) return i;
    return kNotFound;
}

ErrorMsg* GPIO_FPGADriver::isMyGPIO(std::string name) {
    if (GetGPIOIndexByName(name) == kNotFound) return returnErrorMsg(kIsMyGPIO, nullptr, nullptr);
    return nullptr;
}

ErrorMsg* GPIO_FPGADriver::readBit(std::string name, bool* value) {
    const unsigned int index = GetGPIOIndexByName(name);
    if (index == kNotFound) return returnErrorMsg(kReadBit | kIndexFail, nullptr, nullptr);
    const GPIO_FPGA_ENTRY& e = m_table[index];
    if (e.mode == GPIO_WRITE_ONLY) return returnErrorMsg(kReadBit | kReadOnly, nullptr, nullptr);
    if (e.mode == GPIO_NOT_SUPPORT) return returnErrorMsg(kReadBit | kNotSupport, nullptr, nullptr);
    if (e.type != GPIO_FPGA_DRIVER_DATA_TYPE_BOOLEAN) return returnErrorMsg(kReadBit | kUnsupportType, nullptr, nullptr);
    if (!value) return returnErrorMsg(kReadBit | kGetFail, "NULL pointer", nullptr);
    if (m_base == 0 || !m_memory) return returnErrorMsg(kReadBit | kGetFail, "no FPGA base", nullptr);
    const unsigned char byte = m_memory->read8(static_cast<unsigned long long>(m_base) + e.offset);
    if (ErrorMsg* errors = m_memory->getErrorMsg()) return returnErrorMsg(kReadBit | kGetFail, nullptr, errors);
    const bool set = (byte >> e.bit) & 1u;
    *value = set == e.activeHigh;
    return nullptr;
}

ErrorMsg* GPIO_FPGADriver::writeBit(std::string name, bool value) { return setBit(name, value); }

ErrorMsg* GPIO_FPGADriver::setBit(std::string name, bool value) {
    const unsigned int index = GetGPIOIndexByName(name);
    if (index == kNotFound) return returnErrorMsg(kSetBit | kIndexFail, nullptr, nullptr);
    const GPIO_FPGA_ENTRY& e = m_table[index];
    if (e.mode == GPIO_NOT_SUPPORT) return returnErrorMsg(kSetBit | kNotSupport, nullptr, nullptr);
    if (e.mode == GPIO_READ_ONLY) return returnErrorMsg(kSetBit | kReadOnly, nullptr, nullptr);
    if (e.type != GPIO_FPGA_DRIVER_DATA_TYPE_BOOLEAN) return returnErrorMsg(kSetBit | kUnsupportType, nullptr, nullptr);
    if (m_base == 0 || !m_memory) return returnErrorMsg(kSetBit | kSetFail, "no FPGA base", nullptr);
    const unsigned long long address = static_cast<unsigned long long>(m_base) + e.offset;
    unsigned char byte = m_memory->read8(address);
    if (ErrorMsg* errors = m_memory->getErrorMsg()) return returnErrorMsg(kSetBit | kSetFail, nullptr, errors);
    const unsigned char mask = static_cast<unsigned char>(1u << e.bit);
    byte = value == e.activeHigh ? static_cast<unsigned char>(byte | mask) : static_cast<unsigned char>(byte & ~mask);
    return m_memory->write(address, byte);
}

ErrorMsg* GPIO_FPGADriver::getGPIOList(std::list<std::string>* list) {
    if (!list) return nullptr;
    for (unsigned int i = 0; i < m_entryCount; ++i)
        if (m_table[i].type == GPIO_FPGA_DRIVER_DATA_TYPE_BOOLEAN) list->push_back(m_table[i].name);
    if (list->empty()) list->push_back("Did Not Find Any GPIO PIN");
    return nullptr;
}
