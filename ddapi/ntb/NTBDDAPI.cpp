// Non-transparent bridge device layer.
#include "ddapi/ntb/NTBDDAPI.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sstream>

#include "api/platform/Files.h"
#include "api/platform/Platform.h"
#include "ddapi/pci/PCIDDAPI.h"

namespace {
constexpr ERRORCODE kSearchDevice = 0xD4080400;
constexpr ERRORCODE kReceiver = 0xD4080C00;
constexpr ERRORCODE kInitialWindow = 0xD4081000;
constexpr ERRORCODE kGetWindowInfo = 0xD4081800;
constexpr ERRORCODE kServer = 0xD4081C00;
constexpr ERRORCODE kClient = 0xD4082000;
constexpr ERRORCODE kSetForIoTransfer = 0xD4082400;
constexpr ERRORCODE kReleaseDataBlocks = 0xD4082800;
constexpr ERRORCODE kCreateDataBlocks = 0xD4082C00;
constexpr ERRORCODE kTestPerformance = 0xD4083000;
constexpr ERRORCODE kStress = 0xD4083400;
constexpr ERRORCODE kReceiveData = 0xD4083800;

const char kInfoFile[] = "/tmp/ntbInfo";
const char kDriverNode[] = "/dev/plx/Plx8000_NT-0";
constexpr size_t kLineLimit = 1024;
constexpr uint64_t kMapUnitMask = (1ull << 20) - 1;
// Windows are apertures of a PCI BAR: the description is refused beyond 1 GB.
constexpr uint64_t kLargestWindow = 1ull << 30;
constexpr int kPolls = 10;
constexpr uint64_t kPollUs = 1000000;

bool parseNumber(const std::string& text, int base, uint64_t* out) {
    if (text.empty() || text.size() > 20) return false;
    errno = 0;
    char* end = nullptr;
    const unsigned long long v = strtoull(text.c_str(), &end, base);
    if (errno != 0 || end == text.c_str()) return false;
    while (*end == ' ' || *end == '\t' || *end == '\r') ++end;
    if (*end != '\0') return false;
    *out = v;
    return true;
}

bool sameWords(const uint64_t* expected, const uint64_t* window, uint64_t words) {
    const volatile uint64_t* w = window;
    for (uint64_t i = 0; i < words; ++i)
        if (w[i] != expected[i]) return false;
    return true;
}
}  // namespace

NTBDDAPI::NTBDDAPI(const char* name)
    : BaseClassDDAPI(name), m_pci(new PCIDDAPI("PCIDDAPI")), m_size(0), m_words(0), m_readWindow(nullptr),
      m_writeWindow(nullptr), m_readMap(nullptr), m_writeMap(nullptr), m_readMapLength(0), m_writeMapLength(0),
      m_fd(-1), m_lastSpeed(0) {}

NTBDDAPI::~NTBDDAPI() {
    deleteErrorMsg(releaseWindowResource());
    delete m_pci;
}

ErrorMsg* NTBDDAPI::searchDevice(std::vector<_NTB_INFO>* list) {
    std::vector<_PCIInformantion> devices;
    if (ErrorMsg* e = m_pci->getDeviceList(&devices, false)) return returnErrorMsg(kSearchDevice, nullptr, e);
    uint16_t index = 0;
    for (const _PCIInformantion& d : devices) {
        if (!m_pci->isNtbDevice(d.vendorID, d.deviceID)) continue;
        _NTB_INFO info;
        info.index = index;
        info.name = "NTB" + std::to_string(index);
        info.info = d;
        list->push_back(info);
        ++index;
    }
    if (index == 0) return returnErrorMsg(kSearchDevice, "no device is found", nullptr);
    return nullptr;
}

ErrorMsg* NTBDDAPI::getWindowInfo(uint32_t bufferSize) {
    deleteErrorMsg(releaseWindowResource());
    std::string text;
    if (quarn::readTextFile(kInfoFile, &text, 1u << 20) != 0)
        return returnErrorMsg(kGetWindowInfo, "can't find ntbInfo file", nullptr);
    uint64_t writeAddress = 0, readAddress = 0, windowSize = 0, remoteSize = 0;
    bool haveWrite = false, haveRead = false, haveSize = false, haveRemote = false;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (line.size() > kLineLimit) line.resize(kLineLimit);
        const size_t eq = line.find('=');
        if (eq == std::string::npos) continue;
        const std::string key = line.substr(0, eq);
        const std::string value = line.substr(eq + 1);
        bool ok = true;
        if (key == "ntbWriteWindow") ok = haveWrite = parseNumber(value, 16, &writeAddress);
        else if (key == "ntbReadWindow") ok = haveRead = parseNumber(value, 16, &readAddress);
        else if (key == "ntbWindowSize") ok = haveSize = parseNumber(value, 10, &windowSize);
        else if (key == "ntbRemoteBuffSize") ok = haveRemote = parseNumber(value, 10, &remoteSize);
        if (!ok) return returnErrorMsg(kGetWindowInfo, "invalid ntbInfo entry", nullptr);
    }
    if (!haveWrite || !haveRead || !haveSize || !haveRemote || windowSize == 0 || windowSize > kLargestWindow)
        return returnErrorMsg(kGetWindowInfo, "invalid ntbInfo entry", nullptr);
    if (remoteSize != windowSize) return returnErrorMsg(kGetWindowInfo, "window size mismatch", nullptr);
    if (bufferSize != 0 && bufferSize > windowSize) return returnErrorMsg(kGetWindowInfo, "invalid buffer size", nullptr);
    const uint64_t size = bufferSize != 0 ? bufferSize : windowSize;

    quarn::Platform& os = quarn::platform();
    m_fd = os.open(kDriverNode, O_RDWR | O_SYNC);
    if (m_fd < 0) {
        m_fd = -1;
        return returnErrorMsg(kGetWindowInfo, "fail to open driver", nullptr);
    }
    const uint64_t writeLength = (writeAddress & kMapUnitMask) + size;
    void* w = os.mmap(writeLength, PROT_READ | PROT_WRITE, MAP_SHARED, m_fd,
                      static_cast<off_t>(writeAddress & ~kMapUnitMask));
    if (w == MAP_FAILED) {
        os.close(m_fd);
        m_fd = -1;
        return returnErrorMsg(kGetWindowInfo, "write window mmap fail", nullptr);
    }
    const uint64_t readLength = (readAddress & kMapUnitMask) + size;
    void* r = os.mmap(readLength, PROT_READ | PROT_WRITE, MAP_SHARED, m_fd,
                      static_cast<off_t>(readAddress & ~kMapUnitMask));
    if (r == MAP_FAILED) {
        os.munmap(w, writeLength);
        os.close(m_fd);
        m_fd = -1;
        return returnErrorMsg(kGetWindowInfo, "read window mmap fail", nullptr);
    }
    m_writeMap = w;
    m_writeMapLength = writeLength;
    m_readMap = r;
    m_readMapLength = readLength;
    m_writeWindow = reinterpret_cast<uint64_t*>(static_cast<uint8_t*>(w) + (writeAddress & kMapUnitMask));
    m_readWindow = reinterpret_cast<uint64_t*>(static_cast<uint8_t*>(r) + (readAddress & kMapUnitMask));
    m_size = size;
    m_words = size / 8;
    return nullptr;
}

ErrorMsg* NTBDDAPI::releaseWindowResource() {
    quarn::Platform& os = quarn::platform();
    if (m_writeMap) os.munmap(m_writeMap, m_writeMapLength);
    if (m_readMap) os.munmap(m_readMap, m_readMapLength);
    m_writeMap = m_readMap = nullptr;
    m_writeWindow = m_readWindow = nullptr;
    m_writeMapLength = m_readMapLength = 0;
    m_size = 0;
    m_words = 0;
    if (m_fd >= 0) os.close(m_fd);
    m_fd = -1;
    return nullptr;
}

void NTBDDAPI::fill(std::vector<uint64_t>* block, uint64_t pattern) { block->assign(m_words, pattern); }

ErrorMsg* NTBDDAPI::createDataBlocks(uint64_t sendPattern, uint64_t expectPattern) {
    if (m_words == 0) return returnErrorMsg(kCreateDataBlocks, "invalid buffer size", nullptr);
    fill(&m_sendBlock, sendPattern);
    fill(&m_spareBlock, 0);
    fill(&m_expectBlock, expectPattern);
    return nullptr;
}

ErrorMsg* NTBDDAPI::releaseDataBlocks() {
    if (m_words == 0) return returnErrorMsg(kReleaseDataBlocks, "invalid buffer size", nullptr);
    m_sendBlock.clear();
    m_sendBlock.shrink_to_fit();
    m_spareBlock.clear();
    m_spareBlock.shrink_to_fit();
    m_expectBlock.clear();
    m_expectBlock.shrink_to_fit();
    return nullptr;
}

ErrorMsg* NTBDDAPI::setForIoTransfer(uint64_t sendPattern, uint64_t expectPattern) {
    if (ErrorMsg* e = getWindowInfo(0)) return returnErrorMsg(kSetForIoTransfer, nullptr, e);
    if (ErrorMsg* e = createDataBlocks(sendPattern, expectPattern)) {
        releaseWindowResource();
        return returnErrorMsg(kSetForIoTransfer, nullptr, e);
    }
    return nullptr;
}

ErrorMsg* NTBDDAPI::receiveData(uint64_t* expected, uint64_t* window, uint32_t words) {
    quarn::Platform& os = quarn::platform();
    for (int poll = 0; poll < kPolls; ++poll) {
        printf("Receiving data ...\n");
        os.sleepMicroseconds(kPollUs);
        if (sameWords(expected, window, words)) {
            printf("data is caught !!!\n");
            return nullptr;
        }
    }
    return returnErrorMsg(kReceiveData, "timeout to wait receiver", nullptr);
}

void NTBDDAPI::copyToWindow(const std::vector<uint64_t>& block) {
    memcpy(m_writeWindow, block.data(), m_words * sizeof(uint64_t));
}

ErrorMsg* NTBDDAPI::fail(ERRORCODE function, ErrorMsg* cause) {
    deleteErrorMsg(releaseDataBlocks());
    releaseWindowResource();
    return returnErrorMsg(function, nullptr, cause);
}

ErrorMsg* NTBDDAPI::initialWindow() {
    if (ErrorMsg* e = getWindowInfo(0)) return returnErrorMsg(kInitialWindow, nullptr, e);
    memset(m_writeWindow, 0, m_size);
    memset(m_readWindow, 0, m_size);
    releaseWindowResource();
    return nullptr;
}

ErrorMsg* NTBDDAPI::server(std::string, uint64_t sendPattern, uint64_t expectPattern, uint32_t rounds) {
    if (ErrorMsg* e = setForIoTransfer(sendPattern, expectPattern)) return returnErrorMsg(kServer, nullptr, e);
    for (uint32_t round = 0; round < rounds; ++round) {
        copyToWindow(m_sendBlock);
        if (ErrorMsg* e = receiveData(m_expectBlock.data(), m_readWindow, static_cast<uint32_t>(m_words)))
            return fail(kServer, e);
        sendPattern = ~sendPattern;
        expectPattern = ~expectPattern;
        fill(&m_sendBlock, sendPattern);
        fill(&m_expectBlock, expectPattern);
    }
    deleteErrorMsg(releaseDataBlocks());
    releaseWindowResource();
    return nullptr;
}

ErrorMsg* NTBDDAPI::client(std::string, uint64_t expectPattern, uint64_t sendPattern, uint32_t rounds) {
    if (ErrorMsg* e = setForIoTransfer(sendPattern, expectPattern)) return returnErrorMsg(kClient, nullptr, e);
    for (uint32_t round = 0; round < rounds; ++round) {
        if (ErrorMsg* e = receiveData(m_expectBlock.data(), m_readWindow, static_cast<uint32_t>(m_words)))
            return fail(kClient, e);
        copyToWindow(m_sendBlock);
        sendPattern = ~sendPattern;
        expectPattern = ~expectPattern;
        fill(&m_sendBlock, sendPattern);
        fill(&m_expectBlock, expectPattern);
    }
    deleteErrorMsg(releaseDataBlocks());
    releaseWindowResource();
    return nullptr;
}

ErrorMsg* NTBDDAPI::receiver(uint64_t pattern, uint64_t rounds) {
    if (ErrorMsg* e = getWindowInfo(0)) return returnErrorMsg(kReceiver, nullptr, e);
    std::vector<uint64_t> expected(m_words, pattern);
    for (uint64_t round = 0; round < rounds; ++round) {
        if (ErrorMsg* e = receiveData(expected.data(), m_readWindow, static_cast<uint32_t>(m_words))) {
            releaseWindowResource();
            return returnErrorMsg(kReceiver, nullptr, e);
        }
    }
    releaseWindowResource();
    return nullptr;
}

ErrorMsg* NTBDDAPI::stress(uint64_t pattern, uint64_t rounds, uint32_t, bool verify) {
    if (ErrorMsg* e = setForIoTransfer(pattern, kReadyMark)) return returnErrorMsg(kStress, nullptr, e);
    for (uint64_t round = 0; round < rounds; ++round) {
        copyToWindow(m_sendBlock);
        if (!verify) continue;
        if (ErrorMsg* e = receiveData(m_sendBlock.data(), m_readWindow, static_cast<uint32_t>(m_words)))
            return fail(kStress, e);
        if (round + 1 < rounds) memcpy(m_readWindow, m_spareBlock.data(), m_words * sizeof(uint64_t));
    }
    deleteErrorMsg(releaseDataBlocks());
    releaseWindowResource();
    return nullptr;
}

ErrorMsg* NTBDDAPI::testPerformance(uint64_t pattern, uint32_t bufferSize, uint64_t rounds) {
    if (ErrorMsg* e = getWindowInfo(bufferSize)) return returnErrorMsg(kTestPerformance, nullptr, e);
    std::vector<uint64_t> block(m_words, pattern);
    copyToWindow(block);
    uint64_t mark = kReadyMark;
    if (ErrorMsg* e = receiveData(&mark, m_readWindow, 1)) {
        releaseWindowResource();
        return returnErrorMsg(kTestPerformance, nullptr, e);
    }
    quarn::Platform& os = quarn::platform();
    struct timespec before {}, after {};
    os.wallClock(&before);
    for (uint64_t round = 0; round < rounds; ++round) copyToWindow(block);
    os.wallClock(&after);
    const long long micros = (after.tv_sec - before.tv_sec) * 1000000LL + (after.tv_nsec - before.tv_nsec) / 1000;
    // Below the clock's resolution the copy counts as one microsecond.
    const double seconds = static_cast<double>(micros > 0 ? micros : 1) / 1e6;
    m_lastSpeed = static_cast<double>(rounds) * static_cast<double>(m_size) / seconds / 1073741824.0 * 8;
    printf("speed: %.8f Gb/s\n", m_lastSpeed);
    releaseWindowResource();
    return nullptr;
}
