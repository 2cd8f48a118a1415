// Common bases of every object.
#include "api/BaseClass.h"

#include <cstdio>
#include <cstring>
#include <exception>
#include <new>

namespace {
// Creating a record may run out of memory; that is reported and otherwise swallowed.
ErrorMsg* newRecord(ERRORCODE code, const char* detail) {
    try {
        return new ErrorMsg(code, detail);
    } catch (const std::exception& e) {
        printf("Exception: %s\n", e.what());
        return nullptr;
    }
}
}  // namespace

BaseClassAPI::BaseClassAPI(const char* name) : m_statusCode(0), m_errorList(nullptr) {
    memset(m_className, 0, sizeof(m_className));
    if (name) strncpy(m_className, name, kClassNameSize - 1);
    m_className[kClassNameSize - 1] = '\0';
    memset(m_message, 0, sizeof(m_message));
}

BaseClassAPI::~BaseClassAPI() { clearErrorMsg(); }

void BaseClassAPI::addErrorMsg(ERRORCODE code, const char* detail) {
    if (code == 0) return;
    ErrorMsg* record = newRecord(code, detail);
    if (!record) return;
    if (m_errorList)
        m_errorList->appendToList(record);
    else
        m_errorList = record;
}

void BaseClassAPI::addErrorMsg(ERRORCODE code, const char* detail, ErrorMsg* lower) {
    if (code == 0) {
        deleteErrorMsg(lower);
        return;
    }
    ErrorMsg* record = newRecord(code, detail);
    if (!record) {
        // The lower chain has no record left to hang behind; free it rather than leak.
        if (lower != m_errorList) deleteErrorMsg(lower);
        return;
    }
    if (m_errorList && lower != m_errorList) {
        m_errorList->appendToList(record);
        record->appendToList(lower);
    } else {
        record->appendToList(lower);
        m_errorList = record;
    }
}

ErrorMsg* BaseClassAPI::returnErrorMsg(ERRORCODE code, const char* detail, ErrorMsg* lower) {
    if (code == 0) {
        deleteErrorMsg(lower);
        return nullptr;
    }
    ErrorMsg* record = newRecord(code, detail);
    if (!record) {
        deleteErrorMsg(lower);
        return nullptr;
    }
    record->appendToList(lower);
    return record;
}

ErrorMsg* BaseClassAPI::getErrorMsg() {
    if (!m_errorList) return nullptr;
    ErrorMsg* head = nullptr;
    for (ErrorMsg* r = m_errorList; r; r = r->getNextErrorMsg()) {
        ErrorMsg* copy = newRecord(r->getErrorCode(), r->getDetailMessage().c_str());
        if (!copy) continue;
        if (head)
            head->appendToList(copy);
        else
            head = copy;
    }
    clearErrorMsg();
    return head;
}

void BaseClassAPI::clearErrorMsg() {
    deleteErrorMsg(m_errorList);
    m_errorList = nullptr;
}

const char* BaseClassAPI::formatMessage(const char* format, ...) {
    va_list args;
    va_start(args, format);
    vsnprintf(m_message, sizeof(m_message), format, args);
    va_end(args);
    return m_message;
}

BaseClassDDAPI::BaseClassDDAPI(const char* name) : BaseClassAPI(name) {}

BaseClassDDAPI::~BaseClassDDAPI() { m_statusCode = 0; }

ErrorMsg* BaseClassDDAPI::getLEDList(std::list<std::string>*) { return nullptr; }
ErrorMsg* BaseClassDDAPI::getLEDStatus(std::string, std::string*) { return nullptr; }
ErrorMsg* BaseClassDDAPI::setLEDStatus(std::string, std::string) { return nullptr; }

BaseClassDAPI::BaseClassDAPI(const char* name)
    : BaseClassAPI(name), m_progressTotal(0), m_progressDone(0) {}

BaseClassDAPI::~BaseClassDAPI() { m_statusCode = 0; }

void BaseClassDAPI::initProgress(unsigned long long total) {
    m_progressDone.store(0, std::memory_order_relaxed);
    m_progressTotal.store(total, std::memory_order_relaxed);
}

void BaseClassDAPI::updateProgress(unsigned long long amount) {
    m_progressDone.fetch_add(amount, std::memory_order_relaxed);
}

unsigned long long BaseClassDAPI::getProgress() const {
    const unsigned long long total = m_progressTotal.load(std::memory_order_relaxed);
    if (total == 0) return 100;
    return (m_progressDone.load(std::memory_order_relaxed) * 100ULL) / total;
}
