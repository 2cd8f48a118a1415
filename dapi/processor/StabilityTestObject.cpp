// The pi stability test: Borwein's quadratic algorithm in GMP mpf, one thread per instance.
#include "dapi/processor/StabilityTestObject.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "api/StringUtil.h"
#include "api/platform/Files.h"
#include "api/platform/Platform.h"
#include "dapi/processor/PiSlots.h"

std::atomic<char> stoppressed{0};
mpf_t bd[StabilityTestObject::kMaxInstances][kPiValuesPerInstance];

namespace {
constexpr ERRORCODE kStabilityTest = 0xC1040C00;
constexpr ERRORCODE kBadParameter1 = 0x205;

enum Slot { X, XN, PI, PIN, Y, YN, SQRTX, INVSQRTX, XP1, YP1, RATIO };

// Thread arguments: a stable address per instance index.
int g_instanceIndex[StabilityTestObject::kMaxInstances];
struct IndexTable {
    IndexTable() {
        for (int i = 0; i < StabilityTestObject::kMaxInstances; ++i) g_instanceIndex[i] = i;
    }
} g_indexTable;

struct DigitChecksum {
    long digits;
    unsigned checksum;
};
const DigitChecksum kChecksums[] = {
    {131072, 0x53FC},   {262144, 0x6A32},   {524288, 0x009C},    {1048576, 0x5654},
    {2097152, 0x36C4},  {4194304, 0x2B76},  {8388608, 0x4BDC},   {16777216, 0x003A},
    {33554432, 0x3977}, {67108864, 0x4056}, {134217728, 0xED4C},
};

struct MemoryNeed {
    int power;
    unsigned long megabytes;
};
const MemoryNeed kMemoryNeeds[] = {{16, 60},   {17, 120},  {18, 200},  {19, 400}, {20, 800},
                                   {21, 1800}, {22, 3000}, {23, 3500}, {24, 4000}};

// The largest loop count with a stored checksum (2^27 digits); beyond it a run could only
// fail, after exhausting the machine.
constexpr int kMaxLoopCount = 26;
constexpr int kMinLoopCount = 4;

int idx(void* arg) { return *static_cast<int*>(arg); }

// Phase 1, thread A: x(next) = (sqrt(x) + 1/sqrt(x)) / 2, and x(next) + 1.
void* stepNextX(void* arg) {
    mpf_t* v = bd[idx(arg)];
    mpf_add(v[XN], v[SQRTX], v[INVSQRTX]);
    mpf_div_ui(v[XN], v[XN], 2);
    mpf_add_ui(v[XP1], v[XN], 1);
    return nullptr;
}

// Phase 1, thread B: y + 1.
void* stepYPlusOne(void* arg) {
    mpf_t* v = bd[idx(arg)];
    mpf_add_ui(v[YP1], v[Y], 1);
    return nullptr;
}

// Phase 2, thread C: pi(next) = pi (x + 1) / (y + 1).
void* stepNextPi(void* arg) {
    mpf_t* v = bd[idx(arg)];
    mpf_div(v[RATIO], v[XP1], v[YP1]);
    mpf_mul(v[PIN], v[PI], v[RATIO]);
    return nullptr;
}

// Phase 2, thread D: sqrt(x(next)), its inverse, and y(next) = (y sqrt(x) + 1/sqrt(x)) / (y + 1).
// y + 1 is formed in y itself, since thread C reads the copy in slot 9 meanwhile.
void* stepNextY(void* arg) {
    mpf_t* v = bd[idx(arg)];
    mpf_sqrt(v[SQRTX], v[XN]);
    mpf_ui_div(v[INVSQRTX], 1, v[SQRTX]);
    mpf_mul(v[YN], v[Y], v[SQRTX]);
    mpf_add(v[YN], v[YN], v[INVSQRTX]);
    mpf_add_ui(v[Y], v[Y], 1);
    mpf_div(v[YN], v[YN], v[Y]);
    return nullptr;
}

// Two routines side by side. A thread that cannot be started runs on this one instead, so
// the values come out the same either way.
void runPair(void* (*a)(void*), void* (*b)(void*), void* arg) {
    pthread_t threads[2];
    int started = 0;
    if (StabilityTestObject::st_thread_create(&threads[0], a, arg) == 0) ++started;
    else a(arg);
    if (started == 1) {
        if (StabilityTestObject::st_thread_create(&threads[1], b, arg) == 0) ++started;
        else b(arg);
    } else {
        b(arg);
    }
    int results[2];
    StabilityTestObject::st_thread_join(started, threads, results);
}
}  // namespace

StabilityTestObject::StabilityTestObject(const char* name)
    : BaseClassDAPI(name),
      m_lastError(nullptr),
      m_mismatchCount(0),
      m_checksumFailureCount(0),
      m_compareDisabled(0),
      m_firstFailureTime(0),
      m_startTime(0),
      m_lastTime(0),
      m_instanceCount(16),
      m_dryRun(0),
      m_loopCount(16),
      m_digitCount(0),
      m_initialized(false) {
    snprintf(m_firstFailureText, sizeof(m_firstFailureText), "No fail yet");
}

StabilityTestObject::~StabilityTestObject() {
    clearInstances();
    deleteErrorMsg(m_lastError);
}

bool StabilityTestObject::setInstanceCount(int count) {
    if (count < 1 || count > kMaxInstances) return false;
    m_instanceCount = count;
    return true;
}

void StabilityTestObject::afterStep(int) {}

uint64_t StabilityTestObject::pitimer() {
    struct timespec now;
    if (quarn::platform().workClock(&now) != 0) return 0;
    return static_cast<uint64_t>(now.tv_sec) * 1000u + static_cast<uint64_t>(now.tv_nsec / 1000000);
}

void StabilityTestObject::outxdigits(uint64_t n, char* out) {
    if (n > 0xFFFFF)
        snprintf(out, 16, "%dM", static_cast<int>(n >> 20));
    else if (n > 1023)
        snprintf(out, 16, "%dK", static_cast<int>(n >> 10));
    else
        snprintf(out, 16, "%d", static_cast<int>(n));
}

void StabilityTestObject::outtime(uint64_t start, uint64_t end, char* out) {
    const uint64_t t = end - start;
    const uint64_t h = t / 3600000;
    const uint64_t m = (t / 1000 - 3600 * h) / 60;
    const double s = static_cast<double>(t - 3600000 * h - 60000 * m) / 1000.0;
    snprintf(out, 32, "%2dh %2dm %6.3fs", static_cast<int>(h), static_cast<int>(m), s);
}

bool StabilityTestObject::validate_checksum(int digits, char* text) {
    const DigitChecksum* entry = nullptr;
    for (const DigitChecksum& c : kChecksums) {
        if (c.digits == digits) entry = &c;
    }
    if (!entry || !text) return false;
    const long words = (static_cast<long>(digits) + 1) / 2;
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(text);
    uint32_t sum = 0;
    for (long i = 0; i < words; ++i) sum += static_cast<uint32_t>(bytes[2 * i] | (bytes[2 * i + 1] << 8));
    sum = (sum >> 16) + (sum & 0xFFFF);
    sum = (sum >> 16) + (sum & 0xFFFF);
    return (~sum & 0xFFFF) == entry->checksum;
}

int StabilityTestObject::st_thread_create(pthread_t* thread, void* (*routine)(void*), void* arg) {
    return pthread_create(thread, nullptr, routine, arg);
}

void StabilityTestObject::st_thread_join(int count, pthread_t* threads, int* results) {
    for (int i = 0; i < count; ++i) {
        void* ret = nullptr;
        pthread_join(threads[i], &ret);
        if (results) results[i] = static_cast<int>(reinterpret_cast<intptr_t>(ret));
    }
}

void* StabilityTestObject::borwein_initialize(void* arg) {
    mpf_t* v = bd[idx(arg)];
    for (int i = 0; i < kPiValuesPerInstance; ++i) mpf_init(v[i]);
    mpf_set_d(v[X], 2.0);
    mpf_sqrt(v[X], v[X]);
    mpf_add_ui(v[PI], v[X], 2);
    mpf_sqrt(v[SQRTX], v[X]);
    mpf_set(v[Y], v[SQRTX]);
    mpf_ui_div(v[INVSQRTX], 1, v[SQRTX]);
    return nullptr;
}

void* StabilityTestObject::borwein_calculate(void* arg) {
    mpf_t* v = bd[idx(arg)];
    runPair(stepNextX, stepYPlusOne, arg);
    if (stoppressed.load(std::memory_order_relaxed)) return nullptr;
    runPair(stepNextPi, stepNextY, arg);
    if (stoppressed.load(std::memory_order_relaxed)) return nullptr;
    mpf_set(v[X], v[XN]);
    mpf_set(v[PI], v[PIN]);
    mpf_set(v[Y], v[YN]);
    return nullptr;
}

void* StabilityTestObject::borwein_finalize(void* arg) {
    stepNextX(arg);
    stepYPlusOne(arg);
    stepNextPi(arg);
    return nullptr;
}

void StabilityTestObject::runStep(void* (*routine)(void*)) {
    if (m_dryRun) return;
    std::vector<pthread_t> threads(static_cast<size_t>(m_instanceCount));
    std::vector<int> results(threads.size());
    int started = 0;
    for (int i = 0; i < m_instanceCount; ++i) {
        // Threads are joined in order, so an instance that must run here waits until the
        // started ones are joined, and then runs on this thread.
        if (st_thread_create(&threads[static_cast<size_t>(started)], routine, &g_instanceIndex[i]) == 0) {
            ++started;
        } else {
            st_thread_join(started, threads.data(), results.data());
            started = 0;
            routine(&g_instanceIndex[i]);
        }
    }
    st_thread_join(started, threads.data(), results.data());
}

const char* StabilityTestObject::compareInstances() {
    if (m_instanceCount == 1 || m_compareDisabled) return " N/A ";
    if (m_dryRun) return " OK ";
    for (int i = 0; i + 1 < m_instanceCount; ++i) {
        if (mpf_cmp(bd[i][PI], bd[i + 1][PI]) == 0) continue;
        ++m_mismatchCount;
        if (m_firstFailureTime == 0) {
            m_firstFailureTime = pitimer();
            outtime(m_startTime, m_firstFailureTime, m_firstFailureText);
        }
        return " BAD ";
    }
    return " OK ";
}

void StabilityTestObject::clearInstances() {
    if (!m_initialized) return;
    for (int i = 0; i < m_instanceCount; ++i) {
        for (int k = 0; k < kPiValuesPerInstance; ++k) mpf_clear(bd[i][k]);
    }
    m_initialized = false;
}

ErrorMsg* StabilityTestObject::check_system_memory_available(int power) {
    std::string text;
    if (quarn::readTextFile("/proc/meminfo", &text) != 0)
        return returnErrorMsg(kStabilityTest, "Open /proc/meminfo fail", nullptr);
    unsigned long long availableKb = 0;
    for (const std::string& line : quarn::splitLines(text)) {
        size_t colon = line.find(':');
        if (colon == std::string::npos || line.compare(0, colon, "MemAvailable") != 0) continue;
        const char* value = line.c_str() + colon + 1;
        char* end = nullptr;
        errno = 0;
        unsigned long long kb = strtoull(value, &end, 10);
        // A malformed or overflowing number counts as nothing available.
        if (errno == 0 && end != value && strchr(value, '-') == nullptr) availableKb = kb;
    }
    unsigned long need = 0;
    for (const MemoryNeed& m : kMemoryNeeds) {
        if (m.power == power) need = m.megabytes;
    }
    if (need && availableKb / 1024 < need)
        return returnErrorMsg(kStabilityTest, "System free memory isn't enough", nullptr);
    return nullptr;
}

ErrorMsg* StabilityTestObject::PiCalculate(int* passed, int verbose, int power) {
    m_lastError = check_system_memory_available(power);
    if (m_lastError) {
        ErrorMsg* cause = m_lastError;
        m_lastError = nullptr;  // the caller owns the chain from here
        return returnErrorMsg(kStabilityTest, nullptr, cause);
    }
    if (m_instanceCount < 1 || m_instanceCount > kMaxInstances) {
        formatMessage("instance count %d is outside 1-%d", m_instanceCount, kMaxInstances);
        return returnErrorMsg(kStabilityTest | kBadParameter1, m_message, nullptr);
    }
    if (power != 0) m_loopCount = power;
    if (m_loopCount < kMinLoopCount) m_loopCount = kMinLoopCount;
    if (m_loopCount > kMaxLoopCount) {
        formatMessage("power %d is above %d", m_loopCount, kMaxLoopCount);
        return returnErrorMsg(kStabilityTest | kBadParameter1, m_message, nullptr);
    }
    long digits = 4;
    for (int i = 1; i < m_loopCount; ++i) digits *= 2;
    m_digitCount = digits;
    mpf_set_default_prec(static_cast<mp_bitcnt_t>(digits / 9 * 32 + 2));

    char xdigits[16];
    char elapsed[32];
    auto rowHead = [&](int loop, uint64_t n) {
        if (!verbose) return;
        outxdigits(n, xdigits);
        printf(" %4d %6s ", loop, xdigits);
        fflush(stdout);
    };
    auto rowTail = [&](const char* state) {
        m_lastTime = pitimer();
        if (!verbose) return;
        outtime(m_startTime, m_lastTime, elapsed);
        printf("%s %s\n", state, elapsed);
        fflush(stdout);
    };
    auto interrupted = [&]() {
        printf("Interrupted by user \n");
        fflush(stdout);
        clearInstances();
        return nullptr;
    };

    if (verbose) printf(" Calculating %ld digits of pi\n", digits);
    m_startTime = pitimer();
    m_initialized = !m_dryRun;
    runStep(borwein_initialize);
    if (verbose) {
        printf(" Loop Digits State    Time\n");
        printf(" ---------------------------------\n");
    }
    rowHead(0, 2);
    afterStep(0);
    const char* state = compareInstances();
    rowTail(state);
    if (strcmp(state, " BAD ") == 0) {
        clearInstances();
        return nullptr;
    }

    uint64_t rowDigits = 2;
    for (int loop = 1; loop < m_loopCount; ++loop) {
        rowDigits *= 2;
        rowHead(loop, rowDigits);
        runStep(borwein_calculate);
        // An iteration cut short leaves instances at different points; comparing them
        // would report a mismatch the hardware never made.
        if (stoppressed.load(std::memory_order_relaxed)) {
            if (verbose) printf("\n");
            return interrupted();
        }
        afterStep(loop);
        state = compareInstances();
        rowTail(state);
        if (strcmp(state, " BAD ") == 0) {
            clearInstances();
            return nullptr;
        }
        if (verbose) {
            printf("%.1f%%\r", static_cast<double>(loop) / m_loopCount * 100.0);
            fflush(stdout);
        }
    }

    rowHead(m_loopCount, static_cast<uint64_t>(digits));
    runStep(borwein_finalize);
    afterStep(m_loopCount);
    state = compareInstances();
    rowTail(state);
    if (strcmp(state, " BAD ") == 0) {
        clearInstances();
        return nullptr;
    }
    if (verbose) {
        outtime(m_startTime, pitimer(), elapsed);
        printf("%.1f%%\n", 100.0);
        printf("Time: %s\n", elapsed);
    }

    if (!m_dryRun) {
        std::vector<char> text(static_cast<size_t>(digits) + 100, '\0');
        mp_exp_t exponent = 0;
        mpf_get_str(text.data(), &exponent, 10, static_cast<size_t>(digits), bd[0][PIN]);
        if (verbose) printf(" Checksum validation...Borwein");
        const bool ok = validate_checksum(static_cast<int>(digits), text.data());
        if (ok) {
            if (passed) *passed = 1;
        } else {
            if (passed) *passed = 0;
            ++m_checksumFailureCount;
        }
        if (verbose) {
            printf("%s!!\n", ok ? " PASSED!" : " FAILED!");
            fflush(stdout);
        }
    }
    clearInstances();
    return nullptr;
}
