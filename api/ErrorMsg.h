// Error records and their doubly linked chains.
#pragma once

#include <string>

#include "api/ErrorCode.h"

// One error record. The head of a chain points back to itself; a null chain means success.
class QUARN_EXPORT ErrorMsg {
public:
    ErrorMsg(unsigned int code, const char* detail);
    ErrorMsg(unsigned int code, std::string detail);
    ErrorMsg(const ErrorMsg&) = delete;
    ErrorMsg& operator=(const ErrorMsg&) = delete;
    // Unlinks this record only; a following record of a head becomes the new head.
    virtual ~ErrorMsg();

    // Joins item (and whatever follows it) behind the tail of this record's chain.
    void appendToList(ErrorMsg* item);
    unsigned int getErrorCode() const { return m_code; }
    std::string getDetailMessage() const { return m_detail; }
    ErrorMsg* getPreviousErrorMsg() const { return m_previous; }
    ErrorMsg* getNextErrorMsg() const { return m_next; }
    bool isListHead() const { return m_previous == this; }

private:
    unsigned int m_code;
    std::string m_detail;
    ErrorMsg* m_previous;
    ErrorMsg* m_next;
};

// Deletes record and every record behind it; the records before it end where it stood.
QUARN_EXPORT void deleteErrorMsg(ErrorMsg* record);
