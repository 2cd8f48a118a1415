// NVSRAM diagnostic layer.
#include "dapi/nvsram/NVSRAMDAPI.h"

#include <cstring>

#include "api/platform/Platform.h"
#include "dapi/memory/MemoryDAPI.h"

namespace {
constexpr ERRORCODE kNoDevice = 0xD2040801;
constexpr ERRORCODE kBadId = 0xD2040A04;
constexpr ERRORCODE kDataLineTest = 0xD2040C00;
constexpr ERRORCODE kAddressLineTest = 0xD2041000;
constexpr ERRORCODE kNVRAMTest = 0xD2041400;
constexpr ERRORCODE kIllegalElementSize = 0x212;
constexpr ERRORCODE kOutOfRange = 0x219;
constexpr ERRORCODE kCommonIllegalElementSize = 0xC0000212;
constexpr ERRORCODE kPatternCompareFail = 0xC2040005;
constexpr unsigned long long kSettleUs = 3000000;
constexpr unsigned long long kAddressPattern = 0x5AA5C33C0FF01EE1ull;

bool validWidth(int width) { return width == 8 || width == 16 || width == 32 || width == 64; }

unsigned long long repeatByte(unsigned char byte, int width) {
    unsigned long long v = 0;
    for (int i = 0; i < width / 8; ++i) v |= static_cast<unsigned long long>(byte) << (8 * i);
    return v;
}

void pause() { quarn::platform().sleepMicroseconds(kSettleUs); }
}  // namespace

NVSRAMDAPI::NVSRAMDAPI(const char* name)
    : BaseClassDAPI(name), m_memory(new MemoryDAPI("MEMORY_DAPI")), m_device(new NVSRAMDDAPI("NVSRAM_DRVR")),
      m_dut(nullptr), m_sramBackup(0), m_nvBackup(0), m_start(0), m_end(0) {}

NVSRAMDAPI::~NVSRAMDAPI() {
    releaseBackups();
    delete m_device;
    delete m_memory;
}

// The backups outlive the cleanup (a caller may still want them); they are freed with
// the object or when a new test takes new ones.
void NVSRAMDAPI::releaseBackups() {
    if (m_sramBackup) deleteErrorMsg(m_memory->releaseMemoryBuffer(m_sramBackup));
    if (m_nvBackup) deleteErrorMsg(m_memory->releaseMemoryBuffer(m_nvBackup));
    m_sramBackup = m_nvBackup = 0;
}

ErrorMsg* NVSRAMDAPI::getInformationList(std::vector<NVSRAM_RESOURCE_INFO>* list) {
    list->clear();
    ErrorMsg* lower = m_device->getDeviceList(list);
    if (!list->empty()) {
        deleteErrorMsg(lower);
        return nullptr;
    }
    // The constructor's failure (no PCI device of the class at all) is the root cause.
    if (ErrorMsg* construction = m_device->getErrorMsg()) {
        deleteErrorMsg(lower);
        lower = construction;
    }
    return returnErrorMsg(kNoDevice, nullptr, lower);
}

ErrorMsg* NVSRAMDAPI::getInformationByID(unsigned char id, NVSRAM_RESOURCE_INFO* info) {
    std::vector<NVSRAM_RESOURCE_INFO> list;
    if (ErrorMsg* e = getInformationList(&list)) return e;
    if (id >= list.size()) return returnErrorMsg(kBadId, "Bad NVSRAM logical ID", nullptr);
    *info = list[id];
    return nullptr;
}

ErrorMsg* NVSRAMDAPI::prepare(ERRORCODE function, unsigned long long start, unsigned long long end, int width) {
    m_dut = nullptr;
    if (ErrorMsg* e = getInformationList(&m_list)) return e;
    m_dut = &m_list[0];
    if (!validWidth(width)) return returnErrorMsg(function | kIllegalElementSize, "Unknown element size", nullptr);
    if (end < start || end >= m_dut->size)
        return returnErrorMsg(function | kOutOfRange, "Out of NVSRAM range", nullptr);
    m_start = start;
    m_end = end;
    return nullptr;
}

// Whole 64-bit words where possible, single bytes at the edges.
ErrorMsg* NVSRAMDAPI::saveRange(unsigned long long from, unsigned long long length,
                                std::vector<unsigned long long>* out) {
    out->assign((length + 7) / 8, 0);
    unsigned char* bytes = reinterpret_cast<unsigned char*>(out->data());
    unsigned long long i = 0;
    for (; i + 8 <= length; i += 8) {
        const unsigned long long v = m_memory->readMemory64(from + i);
        memcpy(bytes + i, &v, 8);
    }
    for (; i < length; ++i) bytes[i] = m_memory->readMemory8(from + i);
    return m_memory->getErrorMsg();
}

void NVSRAMDAPI::restoreRange(unsigned long long from, unsigned long long length,
                              const std::vector<unsigned long long>& data) {
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(data.data());
    unsigned long long i = 0;
    for (; i + 8 <= length; i += 8) {
        unsigned long long v = 0;
        memcpy(&v, bytes + i, 8);
        deleteErrorMsg(m_memory->writeMemory64(from + i, v));
    }
    for (; i < length; ++i) deleteErrorMsg(m_memory->writeMemory8(from + i, bytes[i]));
}

ErrorMsg* NVSRAMDAPI::nonVolatileTest(unsigned long long start, unsigned long long end, int width) {
    if (ErrorMsg* e = prepare(kNVRAMTest, start, end, width)) return e;
    releaseBackups();
    // Both backups cover the whole SRAM, not only the range under test: RECALL and
    // STORE copy the whole chip, so anything outside the range would be lost otherwise.
    const unsigned int size = m_dut->size;
    if (ErrorMsg* e = m_memory->getMemoryBuffer(size, &m_sramBackup)) return returnErrorMsg(kNVRAMTest, nullptr, e);
    if (ErrorMsg* e = m_memory->getMemoryBuffer(size, &m_nvBackup)) {
        releaseBackups();
        return returnErrorMsg(kNVRAMTest, nullptr, e);
    }
    std::vector<unsigned long long> words;
    if (ErrorMsg* e = saveRange(m_dut->base, size, &words)) return returnErrorMsg(kNVRAMTest, nullptr, e);
    memcpy(reinterpret_cast<void*>(m_sramBackup), words.data(), size);
    pause();
    m_device->recallNVSRAM();
    pause();
    if (ErrorMsg* e = saveRange(m_dut->base, size, &words)) return returnErrorMsg(kNVRAMTest, nullptr, e);
    memcpy(reinterpret_cast<void*>(m_nvBackup), words.data(), size);
    return nullptr;
}

ErrorMsg* NVSRAMDAPI::WritePattern(int width, unsigned long long pattern) {
    if (!validWidth(width) || !m_dut) return returnErrorMsg(kCommonIllegalElementSize, nullptr, nullptr);
    const unsigned long long first = m_dut->base + m_start;
    const unsigned long long last = m_dut->base + m_end;
    const unsigned long long group = width == 64 ? 8 : 4;
    // Bytes before the first element boundary and after the last whole group are
    // written one by one: every wider access is aligned, and nothing past the range is
    // touched.
    const unsigned long long align = static_cast<unsigned long long>(width / 8);
    unsigned long long a = first;
    for (; a % align != 0 && a <= last; ++a)
        deleteErrorMsg(m_memory->writeMemory8(a, static_cast<unsigned char>(pattern >> (8 * ((a - first) % align)))));
    for (; a + group - 1 <= last; a += group) {
        switch (width) {
            case 8:
                for (int i = 0; i < 4; ++i)
                    deleteErrorMsg(m_memory->writeMemory8(a + i, static_cast<unsigned char>(pattern)));
                break;
            case 16:
                for (int i = 0; i < 2; ++i)
                    deleteErrorMsg(m_memory->writeMemory16(a + 2 * i, static_cast<unsigned short>(pattern)));
                break;
            case 32:
                deleteErrorMsg(m_memory->writeMemory32(a, static_cast<unsigned int>(pattern)));
                break;
            default:
                deleteErrorMsg(m_memory->writeMemory64(a, pattern));
        }
    }
    for (; a <= last; ++a)
        deleteErrorMsg(m_memory->writeMemory8(a, static_cast<unsigned char>(pattern >> (8 * ((a - first) % align)))));
    return nullptr;
}

ErrorMsg* NVSRAMDAPI::VerifyPattern(int width, unsigned long long pattern) {
    if (!validWidth(width) || !m_dut) return returnErrorMsg(kCommonIllegalElementSize, nullptr, nullptr);
    const unsigned long long first = m_dut->base + m_start;
    const unsigned long long last = m_dut->base + m_end;
    const unsigned long long group = width == 64 ? 8 : 4;
    const unsigned long long align = static_cast<unsigned long long>(width / 8);
    bool same = true;
    unsigned long long a = first;
    for (; a % align != 0 && a <= last && same; ++a)
        same = m_memory->readMemory8(a) == static_cast<unsigned char>(pattern >> (8 * ((a - first) % align)));
    for (; a + group - 1 <= last && same; a += group) {
        switch (width) {
            case 8:
                for (int i = 0; i < 4; ++i) same = same && m_memory->readMemory8(a + i) == static_cast<unsigned char>(pattern);
                break;
            case 16:
                for (int i = 0; i < 2; ++i)
                    same = same && m_memory->readMemory16(a + 2 * i) == static_cast<unsigned short>(pattern);
                break;
            case 32:
                same = m_memory->readMemory32(a) == static_cast<unsigned int>(pattern);
                break;
            default:
                same = m_memory->readMemory64(a) == pattern;
        }
    }
    for (; a <= last && same; ++a)
        same = m_memory->readMemory8(a) == static_cast<unsigned char>(pattern >> (8 * ((a - first) % align)));
    if (ErrorMsg* e = m_memory->getErrorMsg()) deleteErrorMsg(e);  // a failed read shows as a difference
    if (!same) return returnErrorMsg(kPatternCompareFail, nullptr, nullptr);
    return nullptr;
}

ErrorMsg* NVSRAMDAPI::NVTestExecute(unsigned long long start, unsigned long long end, int width,
                                    unsigned long long pattern) {
    if (!validWidth(width)) return returnErrorMsg(kNVRAMTest | kIllegalElementSize, "Unknown element size", nullptr);
    if (!m_dut) {
        if (ErrorMsg* e = prepare(kNVRAMTest, start, end, width)) return e;
    }
    m_start = start;
    m_end = end;
    const unsigned long long mask = width == 64 ? ~0ull : (1ull << width) - 1;
    if (ErrorMsg* e = WritePattern(width, pattern)) return returnErrorMsg(kNVRAMTest, nullptr, e);
    pause();
    m_device->storeNVSRAM();
    pause();
    if (ErrorMsg* e = WritePattern(width, ~pattern & mask)) return returnErrorMsg(kNVRAMTest, nullptr, e);
    if (ErrorMsg* e = VerifyPattern(width, ~pattern & mask)) return returnErrorMsg(kNVRAMTest, nullptr, e);
    pause();
    m_device->recallNVSRAM();
    pause();
    if (ErrorMsg* e = VerifyPattern(width, pattern)) return returnErrorMsg(kNVRAMTest, nullptr, e);
    return nullptr;
}

ErrorMsg* NVSRAMDAPI::NVTestExecute(unsigned long long start, unsigned long long end, int width) {
    if (!validWidth(width)) return returnErrorMsg(kNVRAMTest | kIllegalElementSize, "Unknown element size", nullptr);
    const unsigned char bytes[] = {0x55, 0xAA, 0xFF, 0x00};
    initProgress(4);
    for (unsigned char b : bytes) {
        if (ErrorMsg* e = NVTestExecute(start, end, width, repeatByte(b, width)))
            return returnErrorMsg(kNVRAMTest, nullptr, e);
        updateProgress(1);
    }
    return nullptr;
}

ErrorMsg* NVSRAMDAPI::NVTestCleanup(unsigned long long, unsigned long long, int width) {
    if (!validWidth(width)) return returnErrorMsg(kNVRAMTest | kIllegalElementSize, "Unknown element size", nullptr);
    if (!m_dut) return nullptr;
    const unsigned int size = m_dut->size;
    std::vector<unsigned long long> words((size + 7) / 8);
    if (m_nvBackup) {
        memcpy(words.data(), reinterpret_cast<const void*>(m_nvBackup), size);
        restoreRange(m_dut->base, size, words);
        pause();
        m_device->storeNVSRAM();
        pause();
    }
    if (m_sramBackup) {
        memcpy(words.data(), reinterpret_cast<const void*>(m_sramBackup), size);
        restoreRange(m_dut->base, size, words);
    }
    return nullptr;
}

ErrorMsg* NVSRAMDAPI::runNonVolatileTest(unsigned long long start, unsigned long long end, int width) {
    if (ErrorMsg* e = nonVolatileTest(start, end, width)) {
        releaseBackups();
        return e;
    }
    ErrorMsg* result = NVTestExecute(start, end, width);
    deleteErrorMsg(NVTestCleanup(start, end, width));
    return result;
}

ErrorMsg* NVSRAMDAPI::dataLineTest(unsigned long long start, unsigned long long end, int width) {
    if (ErrorMsg* e = prepare(kDataLineTest, start, end, width)) return e;
    const unsigned long long from = m_dut->base + start;
    const unsigned long long length = end - start + 1;
    std::vector<unsigned long long> saved;
    if (ErrorMsg* e = saveRange(from, length, &saved)) return returnErrorMsg(kDataLineTest, nullptr, e);
    ErrorMsg* result = m_memory->dataLineTest(from, from + length, width);
    restoreRange(from, length, saved);
    if (result) return returnErrorMsg(kDataLineTest, nullptr, result);
    return nullptr;
}

ErrorMsg* NVSRAMDAPI::addressLineTest(unsigned long long start, unsigned long long end, int width) {
    if (ErrorMsg* e = prepare(kAddressLineTest, start, end, width)) return e;
    const unsigned long long from = m_dut->base + start;
    const unsigned long long length = end - start + 1;
    std::vector<unsigned long long> saved;
    if (ErrorMsg* e = saveRange(from, length, &saved)) return returnErrorMsg(kAddressLineTest, nullptr, e);
    const unsigned long long mask = width == 64 ? ~0ull : (1ull << width) - 1;
    ErrorMsg* result = m_memory->addressLineTest(from, from + length, width, kAddressPattern & mask);
    restoreRange(from, length, saved);
    if (result) return returnErrorMsg(kAddressLineTest, nullptr, result);
    return nullptr;
}

ErrorMsg* NVSRAMDAPI::store() {
    std::vector<NVSRAM_RESOURCE_INFO> list;
    if (ErrorMsg* e = getInformationList(&list)) return e;
    return m_device->storeNVSRAM();
}

ErrorMsg* NVSRAMDAPI::recall() {
    std::vector<NVSRAM_RESOURCE_INFO> list;
    if (ErrorMsg* e = getInformationList(&list)) return e;
    return m_device->recallNVSRAM();
}
