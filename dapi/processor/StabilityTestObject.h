// The pi stability test: identical Borwein instances side by side, compared after every
// iteration, with the digits of the first checked against a stored checksum.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "api/BaseClass.h"

// Set by the front end (a SIGINT handler, say) to end a running test between steps.
// Atomic so that setting it from any thread or a signal handler is well defined.
QUARN_EXPORT extern std::atomic<char> stoppressed;

class QUARN_EXPORT StabilityTestObject : public BaseClassDAPI {
public:
    static constexpr int kMaxInstances = 64;

    explicit StabilityTestObject(const char* name);
    ~StabilityTestObject() override;

    // power 0 keeps the loop count; passed is left alone when a run ends early.
    ErrorMsg* PiCalculate(int* passed, int verbose, int power);
    ErrorMsg* check_system_memory_available(int power);

    static bool validate_checksum(int digits, char* text);
    // out holds at least 16 bytes.
    static void outxdigits(uint64_t n, char* out);
    // out holds at least 32 bytes.
    static void outtime(uint64_t start, uint64_t end, char* out);
    static uint64_t pitimer();

    // Worker routines; arg points at the instance index.
    static void* borwein_initialize(void* arg);
    static void* borwein_calculate(void* arg);
    static void* borwein_finalize(void* arg);
    static int st_thread_create(pthread_t* thread, void* (*routine)(void*), void* arg);
    static void st_thread_join(int count, pthread_t* threads, int* results);

    // Settings: 1-64 instances (false otherwise); comparison and dry run on or off.
    bool setInstanceCount(int count);
    void setCompareDisabled(int disabled) { m_compareDisabled = disabled ? 1 : 0; }
    void setDryRun(int dryRun) { m_dryRun = dryRun ? 1 : 0; }
    void setLoopCount(int loops) { m_loopCount = loops; }

    int instanceCount() const { return m_instanceCount; }
    int loopCount() const { return m_loopCount; }
    long digitCount() const { return m_digitCount; }
    int mismatchCount() const { return m_mismatchCount; }
    int checksumFailureCount() const { return m_checksumFailureCount; }
    uint64_t firstFailureTime() const { return m_firstFailureTime; }
    const char* firstFailureText() const { return m_firstFailureText; }
    uint64_t startTime() const { return m_startTime; }
    uint64_t lastTime() const { return m_lastTime; }

protected:
    // Runs on the calling thread after a step's threads are joined and before the
    // instances are compared (loop 0 is the start, loopCount() the last step). A test
    // overrides it to disturb one instance and see the comparison catch it.
    virtual void afterStep(int loop);

private:
    // Runs routine for every instance, one thread each, and joins them.
    void runStep(void* (*routine)(void*));
    const char* compareInstances();
    void clearInstances();

    ErrorMsg* m_lastError;  // the memory check's chain, until it is handed to the caller
    int m_mismatchCount;
    int m_checksumFailureCount;
    int m_compareDisabled;
    uint64_t m_firstFailureTime;
    char m_firstFailureText[32];
    uint64_t m_startTime;
    uint64_t m_lastTime;
    int m_instanceCount;
    int m_dryRun;
    int m_loopCount;
    long m_digitCount;
    bool m_initialized;
};
