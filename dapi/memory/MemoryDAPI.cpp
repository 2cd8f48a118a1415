// Memory diagnostic layer: the memory tests, the ECC report, single accesses.
#include "dapi/memory/MemoryDAPI.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <ctime>

#include "api/StringUtil.h"
#include "api/platform/Platform.h"

namespace {
constexpr ERRORCODE kReadMemory = 0xC2040C00;
constexpr ERRORCODE kWriteMemory = 0xC2041000;
constexpr ERRORCODE kGetMemoryBuffer = 0xC2041400;
constexpr ERRORCODE kReleaseMemoryBuffer = 0xC2041800;
constexpr ERRORCODE kDataLineTest = 0xC2041C00;
constexpr ERRORCODE kAddressLineTest = 0xC2042000;
constexpr ERRORCODE kMarchCTest = 0xC2042400;
constexpr ERRORCODE kChecksumTest = 0xC2042800;
constexpr ERRORCODE kGetECCReport = 0xC2043000;
constexpr ERRORCODE kClearECCReport = 0xC2043400;
constexpr ERRORCODE kECCDetectionTest = 0xC2043800;
constexpr ERRORCODE kPatternTest = 0xC2043C00;
constexpr ERRORCODE kVerifyMemoryBlock = 0xC2044000;
constexpr ERRORCODE kVerifyByMarchC = 0xC2044800;
constexpr ERRORCODE kRandomAddressTest = 0xC2044C00;

constexpr ERRORCODE kCompareFail = 0x05;
constexpr ERRORCODE kBadParameter = 0x204;
constexpr ERRORCODE kBadParameter1 = 0x205;
constexpr ERRORCODE kBadParameter2 = 0x206;
constexpr ERRORCODE kBadParameter3 = 0x207;
constexpr ERRORCODE kBadParameter4 = 0x208;
constexpr ERRORCODE kOpenFileFail = 0x215;
constexpr ERRORCODE kUnexpectedValue = 0x230;
constexpr ERRORCODE kIOAccessFail = 0x233;

// The injections of the ECC detection test: (second value, bit) for each word.
const struct {
    unsigned long long second;
    int bit;
} kInjections[] = {{0, 1},      {0xC, 3},      {0xA, 0},      {9, 1},
                   {0x41, 6},   {0x4001, 13},  {0x2001, 28},  {0x10000001, 59}};

bool validWidth(int width) { return width == 8 || width == 16 || width == 32 || width == 64; }

template <typename T>
T deviceRead(MemoryDDAPI* d, unsigned long long a);
template <>
unsigned char deviceRead(MemoryDDAPI* d, unsigned long long a) { return d->read8(a); }
template <>
unsigned short deviceRead(MemoryDDAPI* d, unsigned long long a) { return d->read16(a); }
template <>
unsigned int deviceRead(MemoryDDAPI* d, unsigned long long a) { return d->read32(a); }
template <>
unsigned long long deviceRead(MemoryDDAPI* d, unsigned long long a) { return d->read64(a); }

std::string hexAddress(unsigned long long a) { return UINT64ToHexStr(a); }

// Elements of a block in walking order: ascending start, start + e, ... below end, or
// descending start - e, start - 2e, ... down to end. Runs of them that share a page
// are handed out together, so each page is mapped once and walked in a tight loop.
struct Walk {
    unsigned long long start;
    unsigned long long e;
    unsigned long long count;
    bool up;
    unsigned long long address(unsigned long long k) const {
        return up ? start + k * e : start - (k + 1) * e;
    }
    // Elements from k on that lie in the page of element k (0 if it straddles a page).
    unsigned long long run(unsigned long long k, unsigned long long page) const {
        const unsigned long long a = address(k);
        const unsigned long long base = a & ~(page - 1);
        if (a + e > base + page) return 0;
        const unsigned long long fit = up ? (base + page - a) / e : (a - base) / e + 1;
        return std::min(fit, count - k);
    }
    // Lowest address of a run of n elements starting at element k.
    unsigned long long low(unsigned long long k, unsigned long long n) const {
        return up ? address(k) : address(k + n - 1);
    }
};

Walk makeWalk(unsigned long long start, unsigned long long end, unsigned long long e) {
    if (start < end) return {start, e, (end - start + e - 1) / e, true};
    return {start, e, (start - end) / e, false};
}
}  // namespace

MemoryDAPI::MemoryDAPI(const char* name)
    : BaseClassDAPI(name), m_device(new MemoryDDAPI("MEMORY_DRVR")), m_socketCount(1) {}

MemoryDAPI::~MemoryDAPI() {
    delete m_device;
    m_ranges.clear();
}

ErrorMsg* MemoryDAPI::failTest(ErrorMsg* chain) {
    initProgress(0);
    return chain;
}

unsigned long long MemoryDAPI::alignMemoryAddress(unsigned long long address, int width) {
    const unsigned long long e = static_cast<unsigned long long>(width) / 8;
    if (e == 0 || address % e == 0) return address;
    return address + (e - address % e);
}

unsigned long long MemoryDAPI::getTestBlockSize() {
    const int cpus = std::max(1, quarn::platform().onlineCpuCount());
    const unsigned long long q = 1280ULL / static_cast<unsigned long long>(cpus);
    if (q == 0) return 0;
    unsigned long long p = 1;
    while (p * 2 <= q) p *= 2;
    return p << 20;
}

MemoryRange MemoryDAPI::getOverlapMemoryRange(MemoryRange a, MemoryRange b) {
    MemoryRange r;
    const unsigned long long start = std::max(a.start, b.start);
    const unsigned long long otherEnd = a.start >= b.start ? b.end : a.end;
    if (start < otherEnd) {
        r.start = start;
        r.end = std::min(a.end, b.end);
    }
    return r;
}

template <typename T>
ErrorMsg* MemoryDAPI::verifyBlock(unsigned long long start, unsigned long long end, T value) {
    if (start == end) return nullptr;
    const Walk walk = makeWalk(start, end, sizeof(T));
    const unsigned long long page = static_cast<unsigned long long>(m_device->getMemoryMapSize());

    for (unsigned long long k = 0; k < walk.count;) {
        unsigned long long n = walk.run(k, page), pointer = 0;
        if (n == 0 || m_device->remapIOAddress(walk.low(k, n), n * sizeof(T), &pointer) != 0) {
            // Across a page, or the window failed: the device reports it.
            if (ErrorMsg* chain = m_device->write(walk.address(k), value))
                return returnErrorMsg(kVerifyMemoryBlock, nullptr, chain);
            ++k;
            continue;
        }
        volatile T* p = reinterpret_cast<volatile T*>(pointer);
        if (walk.up) {
            for (unsigned long long i = 0; i < n; ++i) p[i] = value;
        } else {
            for (unsigned long long i = n; i-- > 0;) p[i] = value;
        }
        k += n;
    }
    auto mismatch = [&](unsigned long long address) {
        if (ErrorMsg* errors = m_device->getErrorMsg())
            return returnErrorMsg(kVerifyMemoryBlock, nullptr, errors);
        return returnErrorMsg(kVerifyMemoryBlock | kCompareFail,
                              ("failed address is " + hexAddress(address)).c_str(), nullptr);
    };
    for (unsigned long long k = 0; k < walk.count;) {
        unsigned long long n = walk.run(k, page), pointer = 0;
        if (n == 0 || m_device->remapIOAddress(walk.low(k, n), n * sizeof(T), &pointer) != 0) {
            const unsigned long long a = walk.address(k);
            if (deviceRead<T>(m_device, a) != value) return mismatch(a);
            ++k;
            continue;
        }
        volatile T* p = reinterpret_cast<volatile T*>(pointer);
        if (walk.up) {
            for (unsigned long long i = 0; i < n; ++i)
                if (p[i] != value) return mismatch(walk.low(k, n) + i * sizeof(T));
        } else {
            for (unsigned long long i = n; i-- > 0;)
                if (p[i] != value) return mismatch(walk.low(k, n) + i * sizeof(T));
        }
        k += n;
    }
    return nullptr;
}

ErrorMsg* MemoryDAPI::verifyMemoryBlock(unsigned long long s, unsigned long long e, unsigned char v) {
    return verifyBlock(s, e, v);
}
ErrorMsg* MemoryDAPI::verifyMemoryBlock(unsigned long long s, unsigned long long e, unsigned short v) {
    return verifyBlock(s, e, v);
}
ErrorMsg* MemoryDAPI::verifyMemoryBlock(unsigned long long s, unsigned long long e, unsigned int v) {
    return verifyBlock(s, e, v);
}
ErrorMsg* MemoryDAPI::verifyMemoryBlock(unsigned long long s, unsigned long long e,
                                        unsigned long long v) {
    return verifyBlock(s, e, v);
}

namespace {
// Calls f with the value cast to the element type of width.
template <typename F>
ErrorMsg* byWidth(int width, unsigned long long value, F f) {
    switch (width) {
    case 8: return f(static_cast<unsigned char>(value));
    case 16: return f(static_cast<unsigned short>(value));
    case 32: return f(static_cast<unsigned int>(value));
    default: return f(static_cast<unsigned long long>(value));
    }
}
}  // namespace

ErrorMsg* MemoryDAPI::patternTest(unsigned long long start, unsigned long long end, int width,
                                  unsigned long long pattern) {
    if (!validWidth(width))
        return failTest(returnErrorMsg(kPatternTest | kBadParameter3, "invalid data line amount", nullptr));
    const unsigned long long a = alignMemoryAddress(start, width);
    if (a >= end) return nullptr;
    initProgress(end - a);
    const unsigned long long page = static_cast<unsigned long long>(m_device->getMemoryMapSize());
    for (unsigned long long cur = a; cur < end;) {
        const unsigned long long chunkEnd = std::min(cur + page, end);
        ErrorMsg* chain = byWidth(width, pattern, [&](auto v) { return verifyBlock(cur, chunkEnd, v); });
        if (chain) return failTest(returnErrorMsg(kPatternTest, nullptr, chain));
        updateProgress(chunkEnd - cur);
        cur = chunkEnd;
    }
    return nullptr;
}

// The fill maps whole blocks of /dev/mem itself and never writes outside [start, end):
// a start off a page boundary is mapped from its page and written from start on.
ErrorMsg* MemoryDAPI::patternTest(unsigned long long start, unsigned long long end) {
    const unsigned long long a = alignMemoryAddress(start, 64);
    if (a >= end) return nullptr;
    initProgress(end - a);
    quarn::Platform& p = quarn::platform();
    const unsigned long long page = static_cast<unsigned long long>(p.pageSize());
    unsigned long long block = getTestBlockSize();
    if (block == 0) block = page;  // more than 1280 processors: one page at a time
    int fd = p.open("/dev/mem", O_RDWR | O_SYNC);
    if (fd < 0)
        return failTest(returnErrorMsg(kPatternTest | kOpenFileFail, "/dev/mem", nullptr));
    for (unsigned long long cur = a; cur + 8 <= end;) {
        const unsigned long long base = cur & ~(page - 1);
        const unsigned long long blockEnd = std::min(base + block, end);
        const unsigned long long length = ((blockEnd - base) + page - 1) & ~(page - 1);
        void* mapped = p.mmap(length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, static_cast<off_t>(base));
        if (mapped == MAP_FAILED) {
            p.close(fd);
            return failTest(returnErrorMsg(kPatternTest | kIOAccessFail,
                                           ("mmap fail at " + hexAddress(base)).c_str(), nullptr));
        }
        volatile unsigned long long* words = static_cast<volatile unsigned long long*>(mapped);
        unsigned long long w = cur;
        for (; w + 8 <= blockEnd; w += 8) {
            words[(w - base) / 8] = ~0ULL;
            // Progress per page rather than per word keeps the fill at memory speed.
            if (((w + 8) & (page - 1)) == 0) updateProgress(page - ((w + 8 - page < cur) ? cur - (w + 8 - page) : 0));
        }
        p.munmap(mapped, length);
        if (w == cur) break;
        cur = w;
    }
    p.close(fd);
    initProgress(end - a);
    updateProgress(end - a);
    return nullptr;
}

ErrorMsg* MemoryDAPI::dataLineTest(unsigned long long start, unsigned long long end, int width) {
    if (!validWidth(width))
        return failTest(returnErrorMsg(kDataLineTest | kBadParameter3, "invalid data line amount", nullptr));
    const unsigned long long a = alignMemoryAddress(start, width);
    if (a >= end) return nullptr;
    initProgress(end - a);
    const unsigned long long page = static_cast<unsigned long long>(m_device->getMemoryMapSize());
    for (unsigned long long cur = a; cur < end;) {
        const unsigned long long chunkEnd = std::min(cur + page, end);
        for (int k = -1; k < width; ++k) {
            const unsigned long long value = k < 0 ? 0 : 1ULL << k;
            ErrorMsg* chain =
                byWidth(width, value, [&](auto v) { return verifyBlock(cur, chunkEnd, v); });
            if (chain) return failTest(returnErrorMsg(kDataLineTest, nullptr, chain));
        }
        updateProgress(chunkEnd - cur);
        cur = chunkEnd;
    }
    return nullptr;
}

ErrorMsg* MemoryDAPI::dataLineTest(unsigned long long start, unsigned long long length, int a,
                                   int b, int c, int width) {
    if (!validWidth(width))
        return failTest(returnErrorMsg(kDataLineTest | kBadParameter3, "invalid data line amount", nullptr));
    unsigned long long r0 = 0;
    if (ErrorMsg* chain = m_device->getRankOffset(alignMemoryAddress(start, width), &r0))
        return failTest(returnErrorMsg(kDataLineTest, nullptr, chain));
    const unsigned long long e = static_cast<unsigned long long>(width) / 8;
    const unsigned long long n = length / e;
    if (n == 0) return nullptr;
    initProgress(n);
    for (unsigned long long i = 0; i < n; ++i) {
        const unsigned long long r = r0 + i * e;
        unsigned long long p = 0;
        if (ErrorMsg* chain = m_device->getPhysicalAddress(r, a, b, c, &p)) {
            printf("0x%llx %d %d %d\n", r, a, b, c);
            return failTest(returnErrorMsg(kDataLineTest, nullptr, chain));
        }
        for (int k = -1; k < width; ++k) {
            const unsigned long long value = k < 0 ? 0 : 1ULL << k;
            ErrorMsg* chain = byWidth(width, value, [&](auto v) -> ErrorMsg* {
                using T = decltype(v);
                if (ErrorMsg* w = m_device->write(p, v)) return w;
                if (deviceRead<T>(m_device, p) != v) {
                    m_device->clearErrorMsg();
                    return returnErrorMsg(kDataLineTest, ("failed address is " + hexAddress(p)).c_str(),
                                          nullptr);
                }
                return nullptr;
            });
            if (chain) {
                if (chain->getErrorCode() == kDataLineTest) return failTest(chain);
                return failTest(returnErrorMsg(kDataLineTest, nullptr, chain));
            }
        }
        updateProgress(1);
    }
    return nullptr;
}

namespace {
// Offsets 0, e, 2e, 4e, ... below length.
std::vector<unsigned long long> lineOffsets(unsigned long long length, unsigned long long e) {
    std::vector<unsigned long long> offsets{0};
    for (unsigned long long o = e; o < length && o != 0; o <<= 1) offsets.push_back(o);
    return offsets;
}
}  // namespace

ErrorMsg* MemoryDAPI::addressLineTest(unsigned long long start, unsigned long long end, int width,
                                      unsigned long long pattern) {
    if (!validWidth(width))
        return failTest(returnErrorMsg(kAddressLineTest | kBadParameter3, "Unknown element size", nullptr));
    const unsigned long long a = alignMemoryAddress(start, width);
    if (a >= end) return nullptr;
    const std::vector<unsigned long long> offsets = lineOffsets(end - a, width / 8);
    initProgress(offsets.size());
    return byWidth(width, pattern, [&](auto p) -> ErrorMsg* {
        using T = decltype(p);
        const T q = static_cast<T>(~p);
        for (unsigned long long o : offsets) {
            if (o == 0) continue;
            if (ErrorMsg* chain = m_device->write(a + o, p))
                return failTest(returnErrorMsg(kAddressLineTest, nullptr, chain));
        }
        for (unsigned long long t : offsets) {
            if (ErrorMsg* chain = m_device->write(a + t, q))
                return failTest(returnErrorMsg(kAddressLineTest, nullptr, chain));
            for (unsigned long long o : offsets) {
                if (o == t || deviceRead<T>(m_device, a + o) == p) continue;
                if (ErrorMsg* errors = m_device->getErrorMsg())
                    return failTest(returnErrorMsg(kAddressLineTest, nullptr, errors));
                return failTest(returnErrorMsg(kAddressLineTest | kCompareFail,
                                               ("failed address: " + hexAddress(a + o)).c_str(), nullptr));
            }
            if (ErrorMsg* chain = m_device->write(a + t, p))
                return failTest(returnErrorMsg(kAddressLineTest, nullptr, chain));
            updateProgress(1);
        }
        return nullptr;
    });
}

ErrorMsg* MemoryDAPI::addressLineTest(unsigned long long start, unsigned long long length, int a,
                                      int b, int c, int width, unsigned long long pattern) {
    if (!validWidth(width))
        return failTest(returnErrorMsg(kAddressLineTest | kBadParameter3, "Unknown element size", nullptr));
    unsigned long long r0 = 0;
    if (ErrorMsg* chain = m_device->getRankOffset(start, &r0))
        return failTest(returnErrorMsg(kAddressLineTest, nullptr, chain));
    r0 = alignMemoryAddress(r0, width);
    const std::vector<unsigned long long> offsets = lineOffsets(length, width / 8);
    initProgress(offsets.size());
    auto physical = [&](unsigned long long o, unsigned long long* p) {
        return m_device->getPhysicalAddress(r0 + o, a, b, c, p);
    };
    return byWidth(width, pattern, [&](auto pat) -> ErrorMsg* {
        using T = decltype(pat);
        const T q = static_cast<T>(~pat);
        unsigned long long p = 0;
        for (unsigned long long o : offsets) {
            if (o == 0) continue;
            ErrorMsg* chain = physical(o, &p);
            if (!chain) chain = m_device->write(p, pat);
            if (chain) return failTest(returnErrorMsg(kAddressLineTest, nullptr, chain));
        }
        for (unsigned long long t : offsets) {
            unsigned long long pt = 0;
            ErrorMsg* chain = physical(t, &pt);
            if (!chain) chain = m_device->write(pt, q);
            if (chain) return failTest(returnErrorMsg(kAddressLineTest, nullptr, chain));
            for (unsigned long long o : offsets) {
                if (o == t) continue;
                if ((chain = physical(o, &p))) return failTest(returnErrorMsg(kAddressLineTest, nullptr, chain));
                if (deviceRead<T>(m_device, p) == pat) continue;
                if (ErrorMsg* errors = m_device->getErrorMsg())
                    return failTest(returnErrorMsg(kAddressLineTest, nullptr, errors));
                return failTest(returnErrorMsg(kAddressLineTest | kCompareFail,
                                               ("failed address: " + hexAddress(r0 + o)).c_str(), nullptr));
            }
            if ((chain = m_device->write(pt, pat)))
                return failTest(returnErrorMsg(kAddressLineTest, nullptr, chain));
            updateProgress(1);
        }
        return nullptr;
    });
}

template <typename T>
ErrorMsg* MemoryDAPI::marchElement(unsigned long long from, unsigned long long to, T expected,
                                   T written) {
    const unsigned long long e = sizeof(T);
    const bool up = from < to;
    // Elements from..to inclusive, in walking order.
    const Walk walk = up ? Walk{from, e, (to - from) / e + 1, true}
                         : Walk{from + e, e, (from - to) / e + 1, false};
    const unsigned long long page = static_cast<unsigned long long>(m_device->getMemoryMapSize());
    auto mismatch = [&]() {
        if (ErrorMsg* errors = m_device->getErrorMsg())
            return returnErrorMsg(kVerifyByMarchC, nullptr, errors);
        return returnErrorMsg(kVerifyByMarchC | kCompareFail, nullptr, nullptr);
    };
    for (unsigned long long k = 0; k < walk.count;) {
        unsigned long long n = walk.run(k, page), pointer = 0;
        if (n == 0 || m_device->remapIOAddress(walk.low(k, n), n * e, &pointer) != 0) {
            const unsigned long long a = walk.address(k);
            if (deviceRead<T>(m_device, a) != expected) return mismatch();
            if (ErrorMsg* chain = m_device->write(a, written))
                return returnErrorMsg(kVerifyByMarchC, nullptr, chain);
            updateProgress(e);
            ++k;
            continue;
        }
        volatile T* p = reinterpret_cast<volatile T*>(pointer);
        if (up) {
            for (unsigned long long i = 0; i < n; ++i) {
                if (p[i] != expected) return mismatch();
                p[i] = written;
            }
        } else {
            for (unsigned long long i = n; i-- > 0;) {
                if (p[i] != expected) return mismatch();
                p[i] = written;
            }
        }
        updateProgress(n * e);
        k += n;
    }
    return nullptr;
}

ErrorMsg* MemoryDAPI::verfiyMemoryBlockByMarchC(unsigned long long from, unsigned long long to,
                                                int width, unsigned long long expected,
                                                unsigned long long written) {
    switch (width) {
    case 8: return marchElement<unsigned char>(from, to, expected, written);
    case 16: return marchElement<unsigned short>(from, to, expected, written);
    case 32: return marchElement<unsigned int>(from, to, expected, written);
    case 64: return marchElement<unsigned long long>(from, to, expected, written);
    default: return nullptr;  // other widths only advance
    }
}

ErrorMsg* MemoryDAPI::marchCTest(unsigned long long start, unsigned long long end, int width,
                                 unsigned long long pattern) {
    if (!validWidth(width))
        return failTest(returnErrorMsg(kMarchCTest | kBadParameter3, "Unknown element size", nullptr));
    const unsigned long long e = static_cast<unsigned long long>(width) / 8;
    const unsigned long long lo = alignMemoryAddress(start, width);
    // No whole element in the range: nothing to test.
    if (end / e * e < lo + e) return nullptr;
    const unsigned long long hi = end / e * e - e;
    initProgress(6 * (hi - lo));
    const unsigned long long mask = width == 64 ? ~0ULL : (1ULL << width) - 1;
    const unsigned long long p = pattern & mask, q = ~pattern & mask;

    const unsigned long long page = static_cast<unsigned long long>(m_device->getMemoryMapSize());
    ErrorMsg* chain = byWidth(width, q, [&](auto qv) -> ErrorMsg* {
        using T = decltype(qv);
        // Element 0: Q written upwards.
        const Walk up{lo, e, (hi - lo) / e + 1, true};
        for (unsigned long long k = 0; k < up.count;) {
            unsigned long long n = up.run(k, page), pointer = 0;
            if (n == 0 || m_device->remapIOAddress(up.address(k), n * e, &pointer) != 0) {
                if (ErrorMsg* w = m_device->write(up.address(k), qv)) return w;
                updateProgress(e);
                ++k;
                continue;
            }
            volatile T* ptr = reinterpret_cast<volatile T*>(pointer);
            for (unsigned long long i = 0; i < n; ++i) ptr[i] = qv;
            updateProgress(n * e);
            k += n;
        }
        return nullptr;
    });
    if (!chain) chain = verfiyMemoryBlockByMarchC(lo, hi, width, q, p);
    if (!chain) chain = verfiyMemoryBlockByMarchC(lo, hi, width, p, q);
    if (!chain) chain = verfiyMemoryBlockByMarchC(hi, lo, width, q, p);
    if (!chain) chain = verfiyMemoryBlockByMarchC(hi, lo, width, p, q);
    if (chain) return failTest(returnErrorMsg(kMarchCTest, nullptr, chain));

    // Element 5: every element read upwards, expecting Q.
    chain = byWidth(width, q, [&](auto qv) -> ErrorMsg* {
        using T = decltype(qv);
        const Walk up{lo, e, (hi - lo) / e + 1, true};
        auto mismatch = [&]() {
            if (ErrorMsg* errors = m_device->getErrorMsg())
                return returnErrorMsg(kMarchCTest, nullptr, errors);
            return returnErrorMsg(kMarchCTest | kCompareFail, nullptr, nullptr);
        };
        for (unsigned long long k = 0; k < up.count;) {
            unsigned long long n = up.run(k, page), pointer = 0;
            if (n == 0 || m_device->remapIOAddress(up.address(k), n * e, &pointer) != 0) {
                if (deviceRead<T>(m_device, up.address(k)) != qv) return mismatch();
                updateProgress(e);
                ++k;
                continue;
            }
            volatile T* ptr = reinterpret_cast<volatile T*>(pointer);
            for (unsigned long long i = 0; i < n; ++i)
                if (ptr[i] != qv) return mismatch();
            updateProgress(n * e);
            k += n;
        }
        return nullptr;
    });
    return chain ? failTest(chain) : nullptr;
}

ErrorMsg* MemoryDAPI::checksumTest(unsigned long long start, unsigned long long end,
                                   std::string expected, CHECKSUM_TYPES type) {
    if (type != CHECKSUM_8BIT_TWOS_COMPLEMENT)
        return failTest(returnErrorMsg(kChecksumTest | kBadParameter4, nullptr, nullptr));
    // The expected text must be a hexadecimal int; anything else is refused up front.
    errno = 0;
    char* tail = nullptr;
    const long parsed = expected.empty() ? 0 : strtol(expected.c_str(), &tail, 16);
    if (expected.empty() || *tail != '\0' || errno == ERANGE || parsed > INT_MAX || parsed < INT_MIN)
        return failTest(returnErrorMsg(kChecksumTest | kBadParameter3,
                                       ("expected value is not a hexadecimal number: " + expected.substr(0, 24)).c_str(),
                                       nullptr));
    unsigned int sum = 0;
    initProgress(end > start ? end - start : 0);
    for (unsigned long long a = start; a < end; ++a) {
        sum += m_device->read8(a);
        if (((a + 1) & 0xFFF) == 0) updateProgress(0x1000);
    }
    if (ErrorMsg* errors = m_device->getErrorMsg())
        return failTest(returnErrorMsg(kChecksumTest, nullptr, errors));
    const unsigned int checksum = (0x100 - (sum & 0xFF)) & 0xFF;
    const unsigned int want = static_cast<unsigned int>(parsed) & 0xFF;
    if (want != checksum) {
        const std::string detail = "expected value: 0x" + Int2HexStr(want, 2) +
                                   ", actual value: 0x" + Int2HexStr(checksum, 2);
        return failTest(returnErrorMsg(kChecksumTest | kUnexpectedValue, detail.c_str(), nullptr));
    }
    initProgress(0);
    return nullptr;
}

ErrorMsg* MemoryDAPI::randomAddressTest(unsigned long long start, unsigned long long end,
                                        unsigned int seconds) {
    if (start == end || seconds == 0) return nullptr;
    quarn::Platform& p = quarn::platform();
    struct timespec now;
    p.wallClock(&now);
    srand(static_cast<unsigned int>(now.tv_sec));
    initProgress(seconds);
    const unsigned long long page = static_cast<unsigned long long>(m_device->getMemoryMapSize());
    const uint64_t begin = p.monotonicNanoseconds();
    uint64_t reported = 0;
    for (;;) {
        const unsigned char pattern = static_cast<unsigned char>(rand() % 256);
        const unsigned long long r1 = static_cast<unsigned long long>(rand());
        const unsigned long long r2 = static_cast<unsigned long long>(rand());
        const unsigned long long address = ((r1 << 32) | r2) % (end - start) + start;
        const unsigned long long blockEnd = std::min(address + page, end);
        ErrorMsg* chain = (rand() & 1) ? verifyBlock(blockEnd, address, pattern)
                                       : verifyBlock(address, blockEnd, pattern);
        if (chain) return failTest(returnErrorMsg(kRandomAddressTest, nullptr, chain));
        const uint64_t elapsed = (p.monotonicNanoseconds() - begin) / 1000000000ULL;
        if (elapsed > reported) {
            updateProgress(elapsed - reported);
            reported = elapsed;
        }
        if (elapsed >= seconds) break;
    }
    return nullptr;
}

ErrorMsg* MemoryDAPI::eccErrorDetectionTest(unsigned long long start, unsigned long long end) {
    const unsigned long long a = alignMemoryAddress(start, 64);
    initProgress(end > a ? (end - a) / 8 : 0);
    for (unsigned long long w = a; w < end; w += 8) {
        for (const auto& inj : kInjections) {
            if (ErrorMsg* chain = m_device->injectECC(w, inj.second, inj.bit)) {
                initProgress(0);
                deleteErrorMsg(m_device->clearECCReport());
                return returnErrorMsg(kECCDetectionTest, nullptr, chain);
            }
        }
        updateProgress(1);
    }
    if (ErrorMsg* chain = m_device->clearECCReport())
        return failTest(returnErrorMsg(kECCDetectionTest, nullptr, chain));
    return nullptr;
}

ErrorMsg* MemoryDAPI::eccErrorDetectionTest(unsigned long long start, unsigned long long length,
                                            int a, int b, int c) {
    unsigned long long r0 = 0;
    if (ErrorMsg* chain = m_device->getRankOffset(alignMemoryAddress(start, 64), &r0))
        return failTest(returnErrorMsg(kECCDetectionTest, nullptr, chain));
    const unsigned long long words = length / 8;
    initProgress(words);
    for (unsigned long long i = 0; i < words; ++i) {
        unsigned long long p = 0;
        if (ErrorMsg* chain = m_device->getPhysicalAddress(r0 + i * 8, a, b, c, &p))
            return failTest(returnErrorMsg(kECCDetectionTest, nullptr, chain));
        for (const auto& inj : kInjections) {
            if (ErrorMsg* chain = m_device->injectECC(p, inj.second, inj.bit)) {
                initProgress(0);
                deleteErrorMsg(m_device->clearECCReport());
                return returnErrorMsg(kECCDetectionTest, nullptr, chain);
            }
        }
        updateProgress(1);
    }
    if (ErrorMsg* chain = m_device->clearECCReport())
        return failTest(returnErrorMsg(kECCDetectionTest, nullptr, chain));
    return nullptr;
}

ErrorMsg* MemoryDAPI::getECCReport(std::list<ECCInformation>* report) {
    if (!report) return returnErrorMsg(kGetECCReport | kBadParameter, "NULL pointer", nullptr);
    report->clear();
    if (ErrorMsg* chain = m_device->getECCReport(report))
        return returnErrorMsg(kGetECCReport, nullptr, chain);
    int channels = 0, slots = 0;
    ErrorMsg* chain = m_device->getControllerChannelCount(&channels);
    if (!chain) chain = m_device->getControllerSlotCount(&slots);
    if (chain) return returnErrorMsg(kGetECCReport, nullptr, chain);
    // DIMM names come from the inventory; until it lists DIMMs the records stay unnamed.
    std::vector<std::string> names = m_dimmNames;
    for (ECCInformation& info : *report) {
        const size_t index = static_cast<size_t>((info.controller * channels + info.channel) * slots + info.slot);
        if (index < names.size()) info.name = names[index];
    }
    return nullptr;
}

ErrorMsg* MemoryDAPI::clearECCReport() {
    if (ErrorMsg* chain = m_device->clearECCReport())
        return returnErrorMsg(kClearECCReport, nullptr, chain);
    return nullptr;
}

unsigned char MemoryDAPI::readMemory8(unsigned long long address) {
    unsigned char v = m_device->read8(address);
    if (ErrorMsg* chain = m_device->getErrorMsg()) addErrorMsg(kReadMemory, nullptr, chain);
    return v;
}
unsigned short MemoryDAPI::readMemory16(unsigned long long address) {
    unsigned short v = m_device->read16(address);
    if (ErrorMsg* chain = m_device->getErrorMsg()) addErrorMsg(kReadMemory, nullptr, chain);
    return v;
}
unsigned int MemoryDAPI::readMemory32(unsigned long long address) {
    unsigned int v = m_device->read32(address);
    if (ErrorMsg* chain = m_device->getErrorMsg()) addErrorMsg(kReadMemory, nullptr, chain);
    return v;
}
unsigned long long MemoryDAPI::readMemory64(unsigned long long address) {
    unsigned long long v = m_device->read64(address);
    if (ErrorMsg* chain = m_device->getErrorMsg()) addErrorMsg(kReadMemory, nullptr, chain);
    return v;
}

ErrorMsg* MemoryDAPI::writeMemory8(unsigned long long a, unsigned char v) {
    ErrorMsg* chain = m_device->write(a, v);
    return chain ? returnErrorMsg(kWriteMemory, nullptr, chain) : nullptr;
}
ErrorMsg* MemoryDAPI::writeMemory16(unsigned long long a, unsigned short v) {
    ErrorMsg* chain = m_device->write(a, v);
    return chain ? returnErrorMsg(kWriteMemory, nullptr, chain) : nullptr;
}
ErrorMsg* MemoryDAPI::writeMemory32(unsigned long long a, unsigned int v) {
    ErrorMsg* chain = m_device->write(a, v);
    return chain ? returnErrorMsg(kWriteMemory, nullptr, chain) : nullptr;
}
ErrorMsg* MemoryDAPI::writeMemory64(unsigned long long a, unsigned long long v) {
    ErrorMsg* chain = m_device->write(a, v);
    return chain ? returnErrorMsg(kWriteMemory, nullptr, chain) : nullptr;
}

ErrorMsg* MemoryDAPI::getMemoryBuffer(unsigned int size, unsigned long long* buffer) {
    if (size == 0)
        return returnErrorMsg(kGetMemoryBuffer | kBadParameter1, "Memory size can not be zero", nullptr);
    if (!buffer) return returnErrorMsg(kGetMemoryBuffer | kBadParameter2, "NULL pointer", nullptr);
    ErrorMsg* chain = m_device->getMemoryBuffer(size, buffer);
    return chain ? returnErrorMsg(kGetMemoryBuffer, nullptr, chain) : nullptr;
}

ErrorMsg* MemoryDAPI::releaseMemoryBuffer(unsigned long long buffer) {
    if (buffer == 0)
        return returnErrorMsg(kReleaseMemoryBuffer | kBadParameter, "Invalid buffer address", nullptr);
    ErrorMsg* chain = m_device->releaseMemoryBuffer(buffer);
    return chain ? returnErrorMsg(kReleaseMemoryBuffer, nullptr, chain) : nullptr;
}
