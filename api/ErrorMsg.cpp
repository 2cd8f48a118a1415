// Error records and their doubly linked chains.
#include "api/ErrorMsg.h"

ErrorMsg::ErrorMsg(unsigned int code, const char* detail)
    : m_code(code), m_detail(detail ? detail : ""), m_previous(this), m_next(nullptr) {}

ErrorMsg::ErrorMsg(unsigned int code, std::string detail)
    : m_code(code), m_detail(std::move(detail)), m_previous(this), m_next(nullptr) {}

ErrorMsg::~ErrorMsg() {
    if (isListHead()) {
        if (m_next) m_next->m_previous = m_next;
    } else {
        m_previous->m_next = m_next;
        if (m_next) m_next->m_previous = m_previous;
    }
}

void ErrorMsg::appendToList(ErrorMsg* item) {
    if (!item) return;
    ErrorMsg* tail = this;
    while (tail->m_next) tail = tail->m_next;
    tail->m_next = item;
    item->m_previous = tail;
}

void deleteErrorMsg(ErrorMsg* record) {
    // Each destructor unlinks its record, so the records before the first one end
    // where it stood once the walk reaches the tail.
    while (record) {
        ErrorMsg* next = record->getNextErrorMsg();
        delete record;
        record = next;
    }
}
