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
#include "api/platform/Files.h"
#include "api/platform/Platform.h"
#include "ddapi/memory/SPDDDAPI.h"

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

// The inner loops of the block tests. Every element is written once and read once, with
// an access of its own width and in walking order; the loops are unrolled by four and a
// group of four reads is compared with one branch, which keeps a page that sits in the
// cache at the speed of its loads and stores rather than of the loop's bookkeeping.
// fillRun writes value over the n elements at p (lowest first when up, else highest
// first); checkRun reads them in the same order and returns the index of the first
// element that differs, or n.
template <typename T>
void fillRun(volatile T* p, unsigned long long n, T value, bool up) {
    unsigned long long i = 0;
    if (up) {
        for (; i + 4 <= n; i += 4) {
            p[i] = value;
            p[i + 1] = value;
            p[i + 2] = value;
            p[i + 3] = value;
        }
        for (; i < n; ++i) p[i] = value;
    } else {
        for (i = n; i >= 4; i -= 4) {
            p[i - 1] = value;
            p[i - 2] = value;
            p[i - 3] = value;
            p[i - 4] = value;
        }
        while (i-- > 0) p[i] = value;
    }
}

template <typename T>
unsigned long long checkRun(const volatile T* p, unsigned long long n, T value, bool up) {
    if (up) {
        unsigned long long i = 0;
        for (; i + 4 <= n; i += 4) {
            const T a = p[i], b = p[i + 1], c = p[i + 2], d = p[i + 3];
            if (((a ^ value) | (b ^ value) | (c ^ value) | (d ^ value)) != 0)
                return i + (a != value ? 0 : b != value ? 1 : c != value ? 2 : 3);
        }
        for (; i < n; ++i)
            if (p[i] != value) return i;
        return n;
    }
    unsigned long long i = n;
    for (; i >= 4; i -= 4) {
        const T a = p[i - 1], b = p[i - 2], c = p[i - 3], d = p[i - 4];
        if (((a ^ value) | (b ^ value) | (c ^ value) | (d ^ value)) != 0)
            return i - (a != value ? 1 : b != value ? 2 : c != value ? 3 : 4);
    }
    while (i-- > 0)
        if (p[i] != value) return i;
    return n;
}

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
        fillRun(reinterpret_cast<volatile T*>(pointer), n, value, walk.up);
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
        const unsigned long long bad = checkRun(reinterpret_cast<volatile T*>(pointer), n, value, walk.up);
        if (bad != n) return mismatch(walk.low(k, n) + bad * sizeof(T));
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
        if (ErrorMsg* chain = injectWord(w)) return chain;
        updateProgress(1);
    }
    return finishEccDetection();
}

// The eight injections of one word; a failure clears the counters and ends the test.
ErrorMsg* MemoryDAPI::injectWord(unsigned long long address) {
    for (const auto& inj : kInjections) {
        if (ErrorMsg* chain = m_device->injectECC(address, inj.second, inj.bit)) {
            initProgress(0);
            deleteErrorMsg(m_device->clearECCReport());
            return returnErrorMsg(kECCDetectionTest, nullptr, chain);
        }
    }
    return nullptr;
}

ErrorMsg* MemoryDAPI::finishEccDetection() {
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
        if (ErrorMsg* chain = injectWord(p)) return chain;
        updateProgress(1);
    }
    return finishEccDetection();
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
    std::list<std::string> nameList;
    if (ErrorMsg* e = getDeviceList(&nameList, false)) return returnErrorMsg(kGetECCReport, nullptr, e);
    const std::vector<std::string> names(nameList.begin(), nameList.end());
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

// ---- Testable memory ----

namespace {
const char kLayoutPath[] = "/tmp/veltrax/ktd/mem/layout";
const char kTestablePath[] = "/tmp/veltrax/ktd/mem/testable";
const char kMemDir[] = "/tmp/veltrax/ktd/mem/";
constexpr ERRORCODE kGetTestableMemory = 0xC2042C00;
constexpr ERRORCODE kInitTestableFile = 0xC2046000;
constexpr ERRORCODE kNoTestable = 0x04;
// Interleave description lines are the driver's; more items than this on one line
// is a damaged file rather than a layout.
constexpr size_t kMaxItems = 256;

// "label: 0x...-0x..." → label, start, end.
bool parseRangeLine(const std::string& line, std::string* label, unsigned long long* start,
                    unsigned long long* end) {
    const size_t colon = line.find(':');
    if (colon == std::string::npos) return false;
    if (sscanf(line.c_str() + colon + 1, " 0x%llx-0x%llx", start, end) != 2) return false;
    *label = line.substr(0, colon);
    return true;
}

// "label: 1,2,3" → the integers; false for a line that is not such a list.
bool parseLevelLine(const std::string& line, std::list<int>* items) {
    const size_t colon = line.find(':');
    if (colon == std::string::npos) return false;
    items->clear();
    const char* p = line.c_str() + colon + 1;
    while (*p) {
        char* next = nullptr;
        long v = strtol(p, &next, 10);
        if (next == p) return false;
        if (v < INT_MIN || v > INT_MAX || items->size() >= kMaxItems) return false;
        items->push_back(static_cast<int>(v));
        p = next;
        while (*p == ' ') ++p;
        if (*p == ',') ++p;
        else if (*p) return false;
    }
    return !items->empty();
}
}  // namespace

ErrorMsg* MemoryDAPI::getTestableMemory(std::list<MemoryRange>* ranges, unsigned long long start,
                                        unsigned long long end) {
    if (!ranges)
        return returnErrorMsg(kGetTestableMemory | kBadParameter1, "Testable memory list is a NULL", nullptr);
    std::string text;
    if (quarn::readTextFile(kTestablePath, &text) != 0) {
        if (ErrorMsg* chain = initializeTestableMemoryFile())
            return returnErrorMsg(kGetTestableMemory, nullptr, chain);
        if (quarn::readTextFile(kTestablePath, &text) != 0)
            return returnErrorMsg(kGetTestableMemory | kOpenFileFail,
                                  (std::string("can not open ") + kTestablePath).c_str(), nullptr);
    }
    ranges->clear();
    const std::vector<std::string> all = quarn::splitLines(text, 127);
    for (size_t i = 0; i < all.size(); ++i) {
        MemoryRange r;
        if (!parseRangeLine(all[i], &r.name, &r.start, &r.end)) continue;
        // Level 1: one line; level 2: one line per level-1 item; level 3: one line per
        // item of all level-2 lines.
        size_t next = i + 1;
        std::list<int> items;
        if (next < all.size() && parseLevelLine(all[next], &items)) {
            r.ranks = items;
            ++next;
            size_t level3 = 0;
            for (size_t k = 0; k < r.ranks.size() && next < all.size(); ++k, ++next) {
                if (!parseLevelLine(all[next], &items)) break;
                r.rankGroups.push_back(items);
                level3 += items.size();
            }
            for (size_t k = 0; k < level3 && next < all.size(); ++k, ++next) {
                if (!parseLevelLine(all[next], &items)) break;
                r.rankAddresses.push_back(items);
            }
        }
        i = next - 1;
        if (start != 0 || end != 0) {
            if (r.end < start || end < r.start) continue;
            r.start = std::max(r.start, start);
            r.end = std::min(r.end, end);
        }
        ranges->push_back(r);
    }
    if (ranges->empty()) return returnErrorMsg(kGetTestableMemory | kNoTestable, nullptr, nullptr);
    return nullptr;
}

ErrorMsg* MemoryDAPI::initializeTestableMemoryFile() {
    std::string cmdline;
    if (quarn::readTextFile("/proc/cmdline", &cmdline) != 0)
        return returnErrorMsg(kGetTestableMemory | kOpenFileFail, "can not open /proc/cmdline",
                              nullptr);
    // The limit after "mem=": G or M (either case) scale by 2^30 or 2^20, anything
    // else (K included, or nothing) by 2^10. The whole line is searched, so a "mem="
    // is found wherever the line breaks.
    unsigned long long limit = 0;
    const size_t at = cmdline.find("mem=");
    if (at != std::string::npos) {
        const char* p = cmdline.c_str() + at + 4;
        char* tail = nullptr;
        unsigned long long n = strtoull(p, &tail, 10);
        if (tail != p) {
            const char unit = *tail;
            const unsigned shift = (unit == 'G' || unit == 'g') ? 30 : (unit == 'M' || unit == 'm') ? 20 : 10;
            limit = n > (~0ULL >> shift) ? 0 : n << shift;
        }
    }
    if (limit == 0) return returnErrorMsg(kInitTestableFile | kNoTestable, nullptr, nullptr);
    const unsigned long long last = limit - 1;

    std::string layout;
    if (quarn::readTextFile(kLayoutPath, &layout) != 0) {
        if (ErrorMsg* chain = m_device->initializeMemoryLayoutFile())
            return returnErrorMsg(kInitTestableFile, nullptr, chain);
        if (quarn::readTextFile(kLayoutPath, &layout) != 0)
            return returnErrorMsg(kInitTestableFile | kOpenFileFail,
                                  (std::string("can not open ") + kLayoutPath).c_str(), nullptr);
    }
    const std::vector<std::string> all = quarn::splitLines(layout, 127);
    std::string out;
    bool written = false;
    auto countItems = [](const std::string& line) {
        return static_cast<size_t>(std::count(line.begin(), line.end(), ',')) + 1;
    };
    for (size_t i = 0; i < all.size(); ++i) {
        const std::string& line = all[i];
        std::string label;
        unsigned long long s = 0, e = 0;
        if (line.find('-') == std::string::npos || !parseRangeLine(line, &label, &s, &e)) continue;
        if (e <= last) continue;  // all below the limit: its description lines are skipped too
        if (s < last)
            out += label + ":" + UINT64ToHexStr(last + 1) + "-" + UINT64ToHexStr(e) + "\n";
        else
            out += line + "\n";
        size_t next = i + 1;
        if (next >= all.size()) break;
        const size_t n = std::min(countItems(all[next]), kMaxItems);
        out += all[next++] + "\n";
        size_t m = 0;
        for (size_t k = 0; k < n && next < all.size(); ++k) {
            m += countItems(all[next]);
            out += all[next++] + "\n";
        }
        m = std::min(m, kMaxItems * kMaxItems);
        for (size_t k = 0; k < m && next < all.size(); ++k) out += all[next++] + "\n";
        i = next - 1;
        written = true;
    }
    if (!written) {
        quarn::removePath(kTestablePath);
        return returnErrorMsg(kInitTestableFile | kNoTestable, nullptr, nullptr);
    }
    if (quarn::makeDirectories(kMemDir) != 0 || quarn::writeScratchFile(kTestablePath, out) != 0)
        return returnErrorMsg(kInitTestableFile | kOpenFileFail,
                              (std::string("can not open ") + kTestablePath).c_str(), nullptr);
    return nullptr;
}

std::list<MemoryRange> MemoryDAPI::placeRanks(std::list<MemoryRange> ranks,
                                              unsigned long long H, unsigned long long E) {
    auto piece = [](const std::string& name, unsigned long long start, unsigned long long end) {
        MemoryRange r;
        r.name = name;
        r.start = start;
        r.end = end;
        return r;
    };
    // Pass 1: ranks of DIMMs based at or above H move down by what was taken out; a
    // rank crossing H is cut at H and its top set aside; ranks wholly above H of a DIMM
    // based below H are set aside whole.
    std::list<MemoryRange> moved;
    unsigned long long shift = 0, base = 0;
    std::string current;
    bool first = true;
    for (auto it = ranks.begin(); it != ranks.end();) {
        if (first || it->name != current) {
            current = it->name;
            base = it->start;
            first = false;
        }
        if (base >= H) {
            it->start -= shift;
            it->end -= shift;
            ++it;
        } else if (it->end < H) {
            ++it;
        } else if (it->start < H) {
            moved.push_back(piece(it->name, 0, it->end - H));
            if (it->end != H) shift += it->end - H + 1;
            it->end = H - 1;
            ++it;
        } else {
            moved.push_back(piece(it->name, 0, it->end - it->start));
            shift += it->end - it->start + 1;
            it = ranks.erase(it);
        }
    }
    // Pass 2: the pieces set aside go after the last range, in order.
    for (MemoryRange& m : moved) {
        const unsigned long long after = ranks.empty() ? 0 : ranks.back().end + 1;
        m.start += after;
        m.end += after;
        ranks.push_back(m);
    }
    // Pass 3: the last len bytes below H move up to [last end + 1, E], range by range.
    if (!ranks.empty() && ranks.back().end < E) {
        unsigned long long s = ranks.back().end + 1;
        const unsigned long long len = E + 1 - s;
        unsigned long long T = H - len;
        // Only the ranges present when the pass starts are visited; the walk ends at
        // the first range that reaches H - 1, or when those ranges run out.
        size_t remaining = ranks.size();
        for (auto it = ranks.begin(); it != ranks.end() && remaining > 0; --remaining) {
            if (it->end < T) {
                ++it;
                continue;
            }
            const unsigned long long formerEnd = it->end;
            ranks.push_back(piece(it->name, s, s + formerEnd - T));
            s += formerEnd + 1 - T;
            if (it->start < T) {
                it->end = T - 1;
                ++it;
            } else {
                it = ranks.erase(it);
            }
            if (formerEnd < H - 1)
                T = formerEnd + 1;
            else
                break;
        }
    }
    return ranks;
}

namespace {
constexpr ERRORCODE kGetRankRange = 0xC2045800;
constexpr ERRORCODE kInitLayoutFile = 0xC2045C00;
constexpr ERRORCODE kNoDimmInformation = 0x02;
constexpr ERRORCODE kUnknownArch = 0x239;
}  // namespace

ErrorMsg* MemoryDAPI::getRankRange(std::list<MemoryRange>* ranges) {
    if (!ranges) return returnErrorMsg(kGetRankRange | kBadParameter, "NULL pointer", nullptr);
    ranges->clear();
    SPDDDAPI spd;
    if (ErrorMsg* e = spd.getErrorMsg()) return returnErrorMsg(kGetRankRange, nullptr, e);
    std::list<std::string> names;
    if (ErrorMsg* e = spd.getDeviceList(&names, true)) return returnErrorMsg(kGetRankRange, nullptr, e);
    unsigned long long next = 0;
    for (const std::string& name : names) {
        unsigned long long size = 0;
        unsigned int ranks = 0;
        if (ErrorMsg* e = spd.getSize(name, &size)) return returnErrorMsg(kGetRankRange, nullptr, e);
        if (ErrorMsg* e = spd.getRankCount(name, &ranks)) return returnErrorMsg(kGetRankRange, nullptr, e);
        if (ranks == 0) continue;  // the SPD reader refuses such a DIMM; never divide by it
        const unsigned long long rankSize = size / ranks;
        for (unsigned int r = 0; r < ranks; ++r) {
            MemoryRange m;
            m.name = name;
            m.start = next + r * rankSize;
            m.end = m.start + rankSize - 1;
            ranges->push_back(m);
        }
        next += size;
    }
    return nullptr;
}

// The layout written here names ranges "DIMM:start,end"; the testable-file builder reads
// the controller's own format instead, so the two are kept apart on purpose: this file
// is for people and tools that want to know where each rank sits.
ErrorMsg* MemoryDAPI::initializeMemoryLayoutFile() {
    std::list<MemoryRange> ranks;
    if (ErrorMsg* e = getRankRange(&ranks)) return returnErrorMsg(kInitLayoutFile, nullptr, e);
    if (getArch() != 0) return returnErrorMsg(kInitLayoutFile | kUnknownArch, nullptr, nullptr);
    MemoryRange high;
    if (ErrorMsg* e = m_device->getX86HighRamRange(&high)) return returnErrorMsg(kInitLayoutFile, nullptr, e);
    if (ranks.empty()) return returnErrorMsg(kInitLayoutFile | kNoDimmInformation, nullptr, nullptr);
    const std::list<MemoryRange> placed = placeRanks(ranks, 0x100000000ULL, high.end);
    std::string text;
    for (const MemoryRange& r : placed)
        text += r.name + ":" + UINT64ToHexStr(r.start) + "," + UINT64ToHexStr(r.end) + "\n";
    if (quarn::makeDirectories(kMemDir) != 0 || quarn::writeScratchFile(kLayoutPath, text) != 0)
        return returnErrorMsg(kInitLayoutFile | kOpenFileFail,
                              (std::string("can not open ") + kLayoutPath).c_str(), nullptr);
    return nullptr;
}
