// Device layer of the board FPGA.
#include "ddapi/fpga/FPGADDAPI.h"

#include <new>

#include "api/StringUtil.h"
#include "api/platform/Platform.h"
#include "ddapi/memory/MemoryDDAPI.h"

namespace {
const char kDevice[] = "fpga0";
// Bits 23-16 and 31-24 of the FPGA's base address.
constexpr uint16_t kBasePortLow = 0x700;
constexpr uint16_t kBasePortHigh = 0x701;

constexpr ERRORCODE kConstructor = 0xD6080400;
constexpr ERRORCODE kGetDeviceList = 0xD6080800;
constexpr ERRORCODE kRead = 0xD6081000;
constexpr ERRORCODE kWrite = 0xD6081400;
constexpr ERRORCODE kGetSPADInfo = 0xD6081800;
constexpr ERRORCODE kReadSPAD = 0xD6081C00;
constexpr ERRORCODE kWriteSPAD = 0xD6082000;

constexpr ERRORCODE kUnknownRegister = 0x01;
constexpr ERRORCODE kUnknownBase = 0x02;
constexpr ERRORCODE kBadParameter = 0x204;
constexpr ERRORCODE kBadParameter2 = 0x206;
constexpr ERRORCODE kBadParameter3 = 0x207;
constexpr ERRORCODE kCreateMemoryFail = 0x211;  // a common number without text
constexpr ERRORCODE kNoDevice = 0x22E;
constexpr ERRORCODE kReadOnly = 0x23B;
constexpr ERRORCODE kWriteOnly = 0x23C;

constexpr unsigned int RW = FPGADDAPI::kAccessReadWrite;
constexpr unsigned int RO = FPGADDAPI::kAccessReadOnly;
constexpr unsigned int WO = FPGADDAPI::kAccessWriteOnly;
const FPGA_REG_INFO kRegisters[FPGADDAPI::kRegisterCount] = {
    {0, 1, RW},  {1, 1, RW},  {2, 1, RW},  {3, 1, RW},  {4, 1, RW},  {5, 1, RW},
    {6, 1, RW},  {7, 1, RW},  {16, 1, WO}, {17, 1, RO}, {18, 1, RO}, {19, 1, WO},
    {20, 1, WO}, {21, 1, WO}, {22, 1, WO}, {23, 1, RO}, {24, 1, RO}, {25, 1, RO},
    {26, 1, RO}, {27, 1, WO}, {28, 1, WO}, {29, 1, WO}, {31, 1, RO}, {32, 1, RO},
    {33, 1, RO}, {34, 1, RO}, {42, 1, RO}, {43, 1, RO}, {44, 1, RO},
};

std::string registerDetail(unsigned int reg) { return "register: 0x" + Int2HexStr(reg, 2); }
}  // namespace

FPGADDAPI::FPGADDAPI() : BaseClassDDAPI("FPGADDAPI"), m_baseAddress(0), m_memory(nullptr) {
    m_baseAddress = getBaseAddress();
    if (m_baseAddress == 0) {
        addErrorMsg(kConstructor | kUnknownBase, nullptr);
        return;
    }
    m_memory = new (std::nothrow) MemoryDDAPI("MemoryDDAPI");
    if (!m_memory) {
        addErrorMsg(kConstructor | kCreateMemoryFail, "fail to create MemoryDDAPI");
        return;
    }
    if (ErrorMsg* errors = m_memory->getErrorMsg())
        addErrorMsg(kConstructor | kCreateMemoryFail, "fail to create MemoryDDAPI", errors);
}

FPGADDAPI::~FPGADDAPI() { delete m_memory; }

const FPGA_REG_INFO* FPGADDAPI::registerTable() { return kRegisters; }

unsigned int FPGADDAPI::getBaseAddress() {
    quarn::Platform& p = quarn::platform();
    if (p.iopl(3) != 0) return 0;
    const unsigned int lo = p.inb(kBasePortLow);
    const unsigned int hi = p.inb(kBasePortHigh);
    p.iopl(0);
    return (hi << 24) | (lo << 16);
}

ErrorMsg* FPGADDAPI::getDeviceList(std::list<std::string>* names) {
    if (!names) return returnErrorMsg(kGetDeviceList | kBadParameter, "NULL pointer", nullptr);
    names->push_back(kDevice);
    return nullptr;
}

const FPGA_REG_INFO* FPGADDAPI::getRegInfo(unsigned int reg) {
    for (const FPGA_REG_INFO& r : kRegisters)
        if (r.offset == reg) return &r;
    return nullptr;
}

unsigned int FPGADDAPI::getRegSize(unsigned int reg) {
    const FPGA_REG_INFO* info = getRegInfo(reg);
    return info ? info->size : 0;
}

// An object without a base has no accessor: its accesses fail instead of reaching
// whatever sits at physical address 0.
ErrorMsg* FPGADDAPI::read(std::string device, unsigned int reg, unsigned char* value) {
    if (!value) return returnErrorMsg(kRead | kBadParameter3, "NULL pointer", nullptr);
    if (device != kDevice) return returnErrorMsg(kRead | kNoDevice, nullptr, nullptr);
    const FPGA_REG_INFO* info = getRegInfo(reg);
    if (!info) return returnErrorMsg(kRead | kUnknownRegister, nullptr, nullptr);
    if (info->access == kAccessWriteOnly)
        return returnErrorMsg(kRead | kWriteOnly, registerDetail(reg).c_str(), nullptr);
    if (!m_memory) return returnErrorMsg(kRead | kUnknownBase, nullptr, nullptr);
    const unsigned char byte = m_memory->read8(static_cast<uint32_t>(m_baseAddress + reg));
    if (byte == 0xDE) {
        // 0xDE is also what a failed read returns; only the accessor's list tells.
        if (ErrorMsg* errors = m_memory->getErrorMsg()) return returnErrorMsg(kRead, nullptr, errors);
    }
    *value = byte;
    return nullptr;
}

ErrorMsg* FPGADDAPI::write(std::string device, unsigned int reg, unsigned char value) {
    if (device != kDevice) return returnErrorMsg(kWrite | kNoDevice, nullptr, nullptr);
    const FPGA_REG_INFO* info = getRegInfo(reg);
    if (!info) return returnErrorMsg(kWrite | kUnknownRegister, nullptr, nullptr);
    if (info->access == kAccessReadOnly)
        return returnErrorMsg(kWrite | kReadOnly, registerDetail(reg).c_str(), nullptr);
    if (!m_memory) return returnErrorMsg(kWrite | kUnknownBase, nullptr, nullptr);
    if (ErrorMsg* e = m_memory->write(static_cast<uint32_t>(m_baseAddress + reg), value))
        return returnErrorMsg(kWrite, nullptr, e);
    return nullptr;
}

ErrorMsg* FPGADDAPI::getSPADInfo(std::string device, unsigned int* start, unsigned int* size) {
    if (!start) return returnErrorMsg(kGetSPADInfo | kBadParameter2, "NULL pointer", nullptr);
    if (!size) return returnErrorMsg(kGetSPADInfo | kBadParameter3, "NULL pointer", nullptr);
    if (device != kDevice) return returnErrorMsg(kGetSPADInfo | kNoDevice, nullptr, nullptr);
    *start = 0;
    *size = kSpadSize;
    return nullptr;
}

ErrorMsg* FPGADDAPI::readSPAD(std::string device, unsigned int offset, unsigned char* value) {
    if (!value) return returnErrorMsg(kReadSPAD | kBadParameter3, "NULL pointer", nullptr);
    if (device != kDevice) return returnErrorMsg(kReadSPAD | kNoDevice, nullptr, nullptr);
    if (!m_memory) return returnErrorMsg(kReadSPAD | kUnknownBase, nullptr, nullptr);
    // The accessor's list is not consulted: a failed read gives 0xDE.
    *value = m_memory->read8(static_cast<uint32_t>(m_baseAddress + kSpadOffset + offset));
    deleteErrorMsg(m_memory->getErrorMsg());
    return nullptr;
}

ErrorMsg* FPGADDAPI::writeSPAD(std::string device, unsigned int offset, unsigned char value) {
    if (device != kDevice) return returnErrorMsg(kWriteSPAD | kNoDevice, nullptr, nullptr);
    if (!m_memory) return returnErrorMsg(kWriteSPAD | kUnknownBase, nullptr, nullptr);
    if (ErrorMsg* e = m_memory->write(static_cast<uint32_t>(m_baseAddress + kSpadOffset + offset), value))
        return returnErrorMsg(kWriteSPAD, nullptr, e);
    return nullptr;
}
