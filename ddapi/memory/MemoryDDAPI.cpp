// Memory device layer: /dev/mem window, buffers, firmware memory map, EDAC counters,
// ECC injection and address translation through the board's memory-controller driver.
#include "ddapi/memory/MemoryDDAPI.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/sem.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <sstream>
#include <vector>

#include "api/StringUtil.h"
#include "api/platform/Files.h"
#include "api/platform/Platform.h"
#include "dapi/i2c/I2CDAPI.h"

namespace {
const char kDevMem[] = "/dev/mem";
const char kMemmapDir[] = "/sys/firmware/memmap/";
const char kEdacDir[] = "/sys/devices/system/edac/mc/";
const char kMemoryConf[] = "/etc/quarn/memory.conf";
const char kLayoutDir[] = "/tmp/veltrax/ktd/mem/";
const char kLayoutCopy[] = "/tmp/veltrax/ktd/mem/layout";
const char kControllerNode[] = "vtx_mc_drv";

constexpr ERRORCODE kOpenMemFail = 0xC2080004;
constexpr ERRORCODE kMmapFail = 0xC2080005;
constexpr ERRORCODE kReadMemory = 0xC2081000;
constexpr ERRORCODE kWriteMemory = 0xC2081400;
constexpr ERRORCODE kGetMemoryBuffer = 0xC2081800;
constexpr ERRORCODE kReleaseMemoryBuffer = 0xC2081C00;
constexpr ERRORCODE kGetECCReport = 0xC2082000;
constexpr ERRORCODE kClearECCReport = 0xC2082400;
constexpr ERRORCODE kInjectECC = 0xC2082800;
constexpr ERRORCODE kGetHighRamRange = 0xC2082C00;
constexpr ERRORCODE kChannelCount = 0xC2083000;
constexpr ERRORCODE kSlotCount = 0xC2083400;
constexpr ERRORCODE kInitLayout = 0xC2083800;
constexpr ERRORCODE kGetPhysicalAddress = 0xC2083C00;
constexpr ERRORCODE kGetRankOffset = 0xC2084000;
constexpr ERRORCODE kDriverTable = 0xC20C0000;

// Common error numbers.
constexpr ERRORCODE kBadParameter = 0x204;
constexpr ERRORCODE kBadParameter1 = 0x205;
constexpr ERRORCODE kBadParameter2 = 0x206;
constexpr ERRORCODE kBadParameter3 = 0x207;
constexpr ERRORCODE kAllocateFail = 0x214;
constexpr ERRORCODE kOpenFileFail = 0x215;
constexpr ERRORCODE kOpenDirFail = 0x218;
constexpr ERRORCODE kUnexpectedValue = 0x230;
constexpr ERRORCODE kNotSupported = 0x235;
constexpr ERRORCODE kConfigNotFound = 0x237;
// Module error numbers.
constexpr ERRORCODE kEdacNotFound = 0x06;
constexpr ERRORCODE kTranslationFail = 0x07;
constexpr ERRORCODE kIncorrectLayout = 0x08;

// The lines of a file, as a shell pipeline would see them ("cat"); empty when the file
// cannot be read, which is what reading the output of a failed cat gives.
std::vector<std::string> fileLines(const std::string& path) {
    std::string text;
    if (quarn::readTextFile(path, &text) != 0) return {};
    return quarn::splitLines(text);
}

long long firstNumber(const std::string& path) {
    std::vector<std::string> lines = fileLines(path);
    return lines.empty() ? 0 : atoll(lines[0].c_str());
}

bool isDirectory(const std::string& path) {
    struct stat st;
    return quarn::platform().stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

// Serialises a write-then-read of an mc0 attribute between processes with a one-count
// System V semaphore keyed by the operation's function code.
class TranslationLock {
public:
    explicit TranslationLock(ERRORCODE key) {
        quarn::Platform& p = quarn::platform();
        m_id = p.semget(static_cast<key_t>(key), 1, 0666);
        if (m_id < 0) {
            m_id = p.semget(static_cast<key_t>(key), 1, IPC_CREAT | 0666);
            if (m_id >= 0) p.semctl(m_id, 0, SETVAL, 1);
        }
        if (m_id >= 0) {
            struct sembuf take = {0, -1, SEM_UNDO};
            m_held = p.semop(m_id, &take, 1) == 0;
        }
    }
    ~TranslationLock() {
        if (!m_held) return;
        struct sembuf give = {0, 1, SEM_UNDO};
        quarn::platform().semop(m_id, &give, 1);
    }

private:
    int m_id = -1;
    bool m_held = false;
};
}  // namespace

MemoryDDAPI::MemoryDDAPI(const char* name)
    : BaseClassDDAPI(name),
      m_memFd(-1),
      m_mapBase(0),
      m_mapLength(0),
      m_mapPointer(nullptr),
      m_controllerFd(-1) {}

MemoryDDAPI::~MemoryDDAPI() {
    unmap();
    quarn::Platform& p = quarn::platform();
    if (m_memFd >= 0) p.close(m_memFd);
    if (m_controllerFd >= 0) p.close(m_controllerFd);
    delete m_spdBus;
}

void MemoryDDAPI::unmap() {
    if (m_mapPointer) quarn::platform().munmap(m_mapPointer, m_mapLength);
    m_mapPointer = nullptr;
    m_mapBase = 0;
    m_mapLength = 0;
}

int MemoryDDAPI::getMemoryMapSize() { return static_cast<int>(quarn::platform().pageSize()); }

ERRORCODE MemoryDDAPI::remapIOAddress(unsigned long long address, unsigned long long length,
                                      unsigned long long* pointer) {
    *pointer = 0;
    if (m_mapPointer && address >= m_mapBase && length <= m_mapLength &&
        address - m_mapBase <= m_mapLength - length) {
        *pointer = reinterpret_cast<unsigned long long>(m_mapPointer) + (address - m_mapBase);
        return 0;
    }
    quarn::Platform& p = quarn::platform();
    const bool hadMapping = m_mapPointer != nullptr;
    unmap();
    // The descriptor is kept across page moves; it is (re)opened only when closed.
    if (!hadMapping && m_memFd < 0) {
        m_memFd = p.open(kDevMem, O_RDWR | O_SYNC);
        if (m_memFd < 0) return kOpenMemFail;
    }
    const unsigned long long page = static_cast<unsigned long long>(p.pageSize());
    const unsigned long long pageBase = address & ~(page - 1);
    if (length > 0 && address + length - 1 < pageBase + page) {
        void* mapped = p.mmap(page, PROT_READ | PROT_WRITE, MAP_SHARED, m_memFd,
                              static_cast<off_t>(pageBase));
        if (mapped != MAP_FAILED) {
            m_mapPointer = static_cast<unsigned char*>(mapped);
            m_mapBase = pageBase;
            m_mapLength = page;
            *pointer = reinterpret_cast<unsigned long long>(m_mapPointer) + (address - pageBase);
            return 0;
        }
    }
    // Across a page boundary the range is mapped as it is, which the kernel refuses
    // unless it starts on a page: such an access fails with "mmap fail".
    void* mapped = p.mmap(length, PROT_READ | PROT_WRITE, MAP_SHARED, m_memFd,
                          static_cast<off_t>(address));
    if (mapped == MAP_FAILED) {
        p.close(m_memFd);
        m_memFd = -1;
        return kMmapFail;
    }
    m_mapPointer = static_cast<unsigned char*>(mapped);
    m_mapBase = address;
    m_mapLength = length;
    *pointer = reinterpret_cast<unsigned long long>(m_mapPointer);
    return 0;
}

template <typename T>
T MemoryDDAPI::readWidth(unsigned long long address) {
    unsigned long long pointer = 0;
    ERRORCODE code = remapIOAddress(address, sizeof(T), &pointer);
    if (code != 0) {
        addErrorMsg(code | kReadMemory, ("failed address: " + UINT64ToHexStr(address)).c_str());
        return static_cast<T>(0xDE);
    }
    return *reinterpret_cast<volatile T*>(pointer);
}

template <typename T>
ErrorMsg* MemoryDDAPI::writeWidth(unsigned long long address, T value) {
    unsigned long long pointer = 0;
    ERRORCODE code = remapIOAddress(address, sizeof(T), &pointer);
    if (code != 0)
        return returnErrorMsg(code | kWriteMemory,
                              ("failed address: " + UINT64ToHexStr(address)).c_str(), nullptr);
    *reinterpret_cast<volatile T*>(pointer) = value;
    return nullptr;
}

unsigned char MemoryDDAPI::read8(unsigned long long a) { return readWidth<unsigned char>(a); }
unsigned short MemoryDDAPI::read16(unsigned long long a) { return readWidth<unsigned short>(a); }
unsigned int MemoryDDAPI::read32(unsigned long long a) { return readWidth<unsigned int>(a); }
unsigned long long MemoryDDAPI::read64(unsigned long long a) {
    return readWidth<unsigned long long>(a);
}
ErrorMsg* MemoryDDAPI::write(unsigned long long a, unsigned char v) { return writeWidth(a, v); }
ErrorMsg* MemoryDDAPI::write(unsigned long long a, unsigned short v) { return writeWidth(a, v); }
ErrorMsg* MemoryDDAPI::write(unsigned long long a, unsigned int v) { return writeWidth(a, v); }
ErrorMsg* MemoryDDAPI::write(unsigned long long a, unsigned long long v) {
    return writeWidth(a, v);
}

ErrorMsg* MemoryDDAPI::getMemoryBuffer(unsigned int size, unsigned long long* buffer) {
    if (size == 0)
        return returnErrorMsg(kGetMemoryBuffer | kBadParameter1, "Memory size can not be zero",
                              nullptr);
    if (!buffer) return returnErrorMsg(kGetMemoryBuffer | kBadParameter2, "NULL pointer", nullptr);
    void* block = malloc(size);
    if (!block) return returnErrorMsg(kGetMemoryBuffer | kAllocateFail, nullptr, nullptr);
    *buffer = reinterpret_cast<unsigned long long>(block);
    return nullptr;
}

ErrorMsg* MemoryDDAPI::releaseMemoryBuffer(unsigned long long buffer) {
    if (buffer == 0)
        return returnErrorMsg(kReleaseMemoryBuffer | kBadParameter, "Invalid buffer address",
                              nullptr);
    free(reinterpret_cast<void*>(buffer));
    return nullptr;
}

ErrorMsg* MemoryDDAPI::getX86HighRamRange(MemoryRange* range) {
    if (!range) return returnErrorMsg(kGetHighRamRange | kBadParameter, "NULL pointer", nullptr);
    std::vector<quarn::DirEntry> entries;
    if (quarn::platform().listDirectory(kMemmapDir, &entries) != 0)
        return returnErrorMsg(kGetHighRamRange | kOpenDirFail, kMemmapDir, nullptr);
    auto readHex = [](const std::string& path, unsigned long long* value) {
        std::string text;
        if (quarn::readTextFile(path, &text) != 0) return false;
        *value = 0;
        sscanf(text.c_str(), "%16llx", value);
        return true;
    };
    for (const quarn::DirEntry& e : entries) {
        const std::string dir = std::string(kMemmapDir) + e.name;
        unsigned long long start = 0, end = 0;
        if (!readHex(dir + "/start", &start))
            return returnErrorMsg(kGetHighRamRange | kOpenFileFail, (dir + "/start").c_str(),
                                  nullptr);
        if (start != 0x100000000ULL) continue;
        if (!readHex(dir + "/end", &end))
            return returnErrorMsg(kGetHighRamRange | kOpenFileFail, (dir + "/end").c_str(), nullptr);
        range->start = start;
        range->end = end;
        return nullptr;
    }
    return nullptr;
}

ErrorMsg* MemoryDDAPI::getECCReport(std::list<ECCInformation>* report) {
    if (!report) return returnErrorMsg(kGetECCReport | kBadParameter, "NULL pointer", nullptr);
    report->clear();
    int channels = 0, slots = 0;
    if (ErrorMsg* e = getControllerChannelCount(&channels))
        return returnErrorMsg(kGetECCReport, nullptr, e);
    if (ErrorMsg* e = getControllerSlotCount(&slots)) return returnErrorMsg(kGetECCReport, nullptr, e);

    std::vector<quarn::DirEntry> entries;
    if (quarn::platform().listDirectory(kEdacDir, &entries) != 0)
        return returnErrorMsg(kGetECCReport | kOpenDirFail, kEdacDir, nullptr);
    for (const quarn::DirEntry& e : entries) {
        const std::string dir = std::string(kEdacDir) + e.name;
        if (e.name.find("mc") == std::string::npos || !isDirectory(dir)) continue;
        int controller = 0;
        if (sscanf(e.name.c_str(), "mc%d", &controller) != 1) continue;
        if (firstNumber(dir + "/ce_count") == 0) continue;
        for (int s = 0; s < slots; ++s) {
            for (int c = 0; c < channels; ++c) {
                // Channel files are numbered 0, 1, 4, 5: the board's controller skips 2-3.
                const int file = c < 2 ? c : c + 2;
                char path[160];
                snprintf(path, sizeof(path), "%s/csrow%d/ch%d_ce_count", dir.c_str(), s, file);
                long long count = firstNumber(path);
                if (count <= 0) continue;
                ECCInformation info;
                info.controller = controller;
                info.channel = c;
                info.slot = s;
                info.count = static_cast<int>(count);
                report->push_back(info);
            }
        }
    }
    return nullptr;
}

ErrorMsg* MemoryDDAPI::clearECCReport() {
    std::vector<quarn::DirEntry> entries;
    if (quarn::platform().listDirectory(kEdacDir, &entries) != 0)
        return returnErrorMsg(kClearECCReport | kOpenDirFail, kEdacDir, nullptr);
    bool found = false;
    for (const quarn::DirEntry& e : entries) {
        if (e.name.find("mc") == std::string::npos) continue;
        found = true;
        quarn::writeTextFile(std::string(kEdacDir) + e.name + "/reset_counters", "1\n");
    }
    return found ? nullptr : returnErrorMsg(kClearECCReport | kEdacNotFound, nullptr, nullptr);
}

ErrorMsg* MemoryDDAPI::injectECC(unsigned long long first, unsigned long long second, int bit) {
    if (bit > 63)
        return returnErrorMsg(kInjectECC | kBadParameter3, "error bit should be 0 ~ 63", nullptr);
    std::vector<quarn::DirEntry> entries;
    if (quarn::platform().listDirectory(kEdacDir, &entries) != 0)
        return returnErrorMsg(kInjectECC | kOpenDirFail, kEdacDir, nullptr);
    std::string controller;
    for (const quarn::DirEntry& e : entries) {
        const std::string dir = std::string(kEdacDir) + e.name;
        if (e.name.find("mc0") != std::string::npos && isDirectory(dir)) {
            controller = dir + "/";
            break;
        }
    }
    if (controller.empty()) return returnErrorMsg(kInjectECC | kEdacNotFound, nullptr, nullptr);
    const std::string statusPath = controller + "inject_status";
    int probe = quarn::platform().open(statusPath, O_RDONLY);
    if (probe < 0) return returnErrorMsg(kInjectECC | kNotSupported, nullptr, nullptr);
    quarn::platform().close(probe);

    char request[96];
    snprintf(request, sizeof(request), "0x%llx 0x%llx %d\n", first, second, bit);
    quarn::writeTextFile(controller + "inject_error", request);

    std::string text;
    if (quarn::readTextFile(statusPath, &text) != 0)
        return returnErrorMsg(kInjectECC | kOpenFileFail, ("cat " + statusPath).c_str(), nullptr);
    if (text.empty()) return returnErrorMsg(kInjectECC | kUnexpectedValue, nullptr, nullptr);
    char* end = nullptr;
    long status = strtol(text.c_str(), &end, 10);
    if (end == text.c_str()) return returnErrorMsg(kInjectECC | kUnexpectedValue, nullptr, nullptr);
    if (status == 0) return nullptr;
    if (status < 1 || status > 8)
        return returnErrorMsg(kInjectECC | kUnexpectedValue, nullptr, nullptr);
    // Status 1 is "locked", listed last in the driver table; 2-8 are rows 1-7.
    const ERRORCODE row = status == 1 ? 8 : static_cast<ERRORCODE>(status - 1);
    addErrorMsg(kDriverTable | row, nullptr);
    return returnErrorMsg(kInjectECC, nullptr, getErrorMsg());
}

ErrorMsg* MemoryDDAPI::translate(ERRORCODE function, const std::string& request, const char* file,
                                 unsigned long long* value) {
    const std::string path = std::string(kEdacDir) + "mc0/" + file;
    TranslationLock lock(function);
    quarn::writeTextFile(path, request + "\n");
    std::string text;
    if (quarn::readTextFile(path, &text) != 0)
        return returnErrorMsg(function | kOpenFileFail,
                              ("cat " + path).c_str(), nullptr);
    *value = 0;
    sscanf(text.c_str(), "0x%llx", value);
    if (*value == ~0ULL) return returnErrorMsg(function | kTranslationFail, nullptr, nullptr);
    return nullptr;
}

ErrorMsg* MemoryDDAPI::getPhysicalAddress(unsigned long long rankAddress, int a, int b, int c,
                                          unsigned long long* physical) {
    char request[96];
    snprintf(request, sizeof(request), "%s %d %d %d", UINT64ToHexStr(rankAddress).c_str(), a, b, c);
    unsigned long long value = 0;
    if (ErrorMsg* e = translate(kGetPhysicalAddress, request, "rank_to_addr", &value)) return e;
    if (physical) *physical = value;
    return nullptr;
}

ErrorMsg* MemoryDDAPI::getRankOffset(unsigned long long physical, unsigned long long* rankAddress) {
    unsigned long long value = 0;
    if (ErrorMsg* e = translate(kGetRankOffset, UINT64ToHexStr(physical), "addr_to_rank", &value))
        return e;
    if (rankAddress) *rankAddress = value;
    return nullptr;
}

ErrorMsg* MemoryDDAPI::initializeMemoryLayoutFile() {
    std::string layout;
    const std::string source = std::string(kEdacDir) + "mc0/layout";
    if (quarn::makeDirectories(kLayoutDir) != 0 || quarn::readTextFile(source, &layout) != 0 ||
        quarn::writeScratchFile(kLayoutCopy, layout) != 0) {
        quarn::removePath(kLayoutCopy);
        return returnErrorMsg(kInitLayout | kOpenFileFail, kLayoutCopy, nullptr);
    }
    std::istringstream in(layout);
    std::string line;
    bool first = true;
    unsigned long long previousEnd = 0;
    while (std::getline(in, line)) {
        if (line.size() > 255) line.resize(255);
        const size_t colon = line.find(':');
        if (colon == std::string::npos || line.find('-') == std::string::npos) continue;
        unsigned long long start = 0, end = 0;
        // A hyphen in a label is not a range: only lines that parse as one are checked.
        if (sscanf(line.c_str() + colon + 1, " 0x%llx-0x%llx", &start, &end) != 2) continue;
        if (start >= end || (!first && start < previousEnd)) {
            quarn::removePath(kLayoutCopy);
            return returnErrorMsg(kInitLayout | kIncorrectLayout, nullptr, nullptr);
        }
        previousEnd = end;
        first = false;
    }
    return nullptr;
}

// The memory.conf value of key: the lines holding the key, without any '#', blanks
// removed, the text after '='; the number in the first two characters of the first.
ErrorMsg* MemoryDDAPI::readConfigValue(const char* key, ERRORCODE function,
                                       const char* belowOneText, int* value) {
    if (!value) return returnErrorMsg(function | kBadParameter, "NULL pointer", nullptr);
    std::vector<std::string> values;
    for (std::string line : fileLines(kMemoryConf)) {
        if (line.find(key) == std::string::npos || line.find('#') != std::string::npos) continue;
        std::string packed;
        for (char ch : line)
            if (ch != ' ') packed += ch;
        size_t eq = packed.find('=');
        std::string field;
        if (eq != std::string::npos) field = packed.substr(eq + 1, packed.find('=', eq + 1) - eq - 1);
        values.push_back(field);
    }
    if (values.empty()) return returnErrorMsg(function | kConfigNotFound, nullptr, nullptr);
    *value = atoi(values[0].substr(0, 2).c_str());
    if (*value < 1) return returnErrorMsg(function | kUnexpectedValue, belowOneText, nullptr);
    return nullptr;
}

ErrorMsg* MemoryDDAPI::getControllerChannelCount(int* channels) {
    return readConfigValue("CHANNEL_NUM", kChannelCount, "amount of channels must be larger than 0",
                           channels);
}

ErrorMsg* MemoryDDAPI::getControllerSlotCount(int* slots) {
    return readConfigValue("CHANNEL_SLOT_NUM", kSlotCount, "amount of slots must be larger than 0",
                           slots);
}

bool MemoryDDAPI::openMemoryControllerDriver() {
    if (m_controllerFd < 1)
        m_controllerFd = quarn::platform().open(std::string("/dev/") + kControllerNode, O_RDWR);
    return m_controllerFd > 0;
}
