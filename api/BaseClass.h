// Common bases of every object: class name, status, message buffer, own error list,
// LED operations of the device layer and the progress counter of the diagnostic layer.
#pragma once

#include <atomic>
#include <cstdarg>
#include <list>
#include <string>

#include "api/ErrorMsg.h"

class QUARN_EXPORT BaseClassAPI {
public:
    explicit BaseClassAPI(const char* name);
    BaseClassAPI(const BaseClassAPI&) = delete;
    BaseClassAPI& operator=(const BaseClassAPI&) = delete;
    virtual ~BaseClassAPI();

    char* getClassName() { return m_className; }
    // Code 0 adds nothing; otherwise a record is appended to the own list.
    void addErrorMsg(ERRORCODE code, const char* detail);
    // Takes ownership of lower. Passing the own list as lower wraps it under the new record.
    void addErrorMsg(ERRORCODE code, const char* detail, ErrorMsg* lower);
    // Takes ownership of lower; returns a new chain headed by (code, detail).
    ErrorMsg* returnErrorMsg(ERRORCODE code, const char* detail, ErrorMsg* lower);
    // Returns a copy of the own list (null when empty) and frees the list.
    ErrorMsg* getErrorMsg();
    void clearErrorMsg();

protected:
    // Bounded printf into the message buffer; returns the buffer.
    const char* formatMessage(const char* format, ...) __attribute__((format(printf, 2, 3)));

    static constexpr size_t kClassNameSize = 65;
    static constexpr size_t kMessageSize = 72;

    char m_className[kClassNameSize];
    ERRORCODE m_statusCode;
    char m_message[kMessageSize];
    ErrorMsg* m_errorList;
};

class QUARN_EXPORT BaseClassDDAPI : public BaseClassAPI {
public:
    explicit BaseClassDDAPI(const char* name);
    ~BaseClassDDAPI() override;

    // Device classes without LEDs keep these: the request succeeds and reports nothing.
    virtual ErrorMsg* getLEDList(std::list<std::string>* names);
    virtual ErrorMsg* getLEDStatus(std::string name, std::string* status);
    virtual ErrorMsg* setLEDStatus(std::string name, std::string status);
};

class QUARN_EXPORT BaseClassDAPI : public BaseClassAPI {
public:
    explicit BaseClassDAPI(const char* name);
    ~BaseClassDAPI() override;

    void initProgress(unsigned long long total);
    void updateProgress(unsigned long long amount);
    // Percent done, truncated; 100 when no test has set a total.
    unsigned long long getProgress() const;

protected:
    // Written by the test's thread and polled by others without locks; relaxed atomics
    // cost the same as plain 64-bit fields on x86-64 and keep the polling race-free.
    std::atomic<unsigned long long> m_progressTotal;
    std::atomic<unsigned long long> m_progressDone;
};
