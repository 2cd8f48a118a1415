// Turns error codes, records and chains into the one-line text the front end shows.
#include "api/ErrorText.h"

#include <cstring>

namespace {
const char kFunctionSeparator[] = "::";
const char kQuoteOpener[] = ": \"";
const char kDetailSeparator[] = " - ";
const char kQuoteCloser[] = "\"";
const char kChainSeparator[] = " -> ";
const char kParseFail[] = "Fail to parse error code!!";

// Looks up without appending, so callers can tell "no entry" from an empty text.
const char* findText(ERRORCODE value, unsigned int key) {
    for (const ErrorCodeTextTable& slot : ErrorCodeTextTableCollect) {
        if (slot.key != key) continue;
        if (slot.count < 1 || !slot.table) return nullptr;
        for (int32_t i = 0; i < slot.count; ++i) {
            if (slot.table[i].code == value) return slot.table[i].text;
        }
        return nullptr;
    }
    return nullptr;
}

// Appends the looked-up text; false when nothing (or an empty text) was found.
bool appendLookup(ERRORCODE value, unsigned int key, std::string* out) {
    const char* text = findText(value, key);
    if (!text || !*text) return false;
    out->append(text, strnlen(text, sizeof(ErrorCodeText::text)));
    return true;
}
}  // namespace

void parseErrorText(ERRORCODE value, unsigned int key, std::string* out) {
    const char* text = findText(value, key);
    if (text) out->append(text, strnlen(text, sizeof(ErrorCodeText::text)));
}

void parseErrorTextFail(std::string* out) { out->append(kParseFail); }

void getErrorMsgText(ErrorMsg* record, std::string* out) {
    if (!record) return;
    const ERRORCODE code = record->getErrorCode();
    const std::string detail = record->getDetailMessage();

    if (!appendLookup(code & quarn::kModuleMask, quarn::kModuleMask, out) ||
        !appendLookup(code & quarn::kLayerMask, quarn::kLayerMask, out)) {
        parseErrorTextFail(out);
        return;
    }
    const ERRORCODE key = code & 0xFF0C0000u;
    if (code & quarn::kFunctionMask) {
        std::string function;
        if (!appendLookup(code & (key | quarn::kFunctionMask), key, &function)) {
            parseErrorTextFail(out);
            return;
        }
        out->append(kFunctionSeparator);
        out->append(function);
    }
    if (code & quarn::kNumberMask) {
        std::string error;
        bool found;
        if ((code & 0xC0000200u) == 0xC0000200u)
            found = appendLookup(code & 0xC00003FFu, 0xC0000200u, &error);
        else
            found = appendLookup(code & (key | quarn::kNumberMask), key, &error);
        if (!found) {
            parseErrorTextFail(out);
            return;
        }
        out->append(kQuoteOpener);
        out->append(error);
        if (!detail.empty()) {
            out->append(kDetailSeparator);
            out->append(detail);
        }
        out->append(kQuoteCloser);
    } else if (!detail.empty()) {
        out->append(kQuoteOpener);
        out->append(detail);
        out->append(kQuoteCloser);
    }
}

void getErrorMessage(ErrorMsg* chain, std::string* out) {
    if (!chain) return;
    for (ErrorMsg* record = chain; record; record = record->getNextErrorMsg()) {
        if (!record->isListHead()) out->append(kChainSeparator);
        getErrorMsgText(record, out);
    }
    deleteErrorMsg(chain);
}

void getLastErrorMessage(ErrorMsg* chain, std::string* out) {
    std::string text;
    getErrorMessage(chain, &text);
    // Read the text piece by piece up to each double quote, as getline would; the
    // piece read last is the text inside the last pair of quotes when the text ends
    // with a closing quote, and the whole text when it holds no quote.
    std::string last;
    size_t start = 0;
    while (start < text.size()) {
        size_t quote = text.find('"', start);
        if (quote == std::string::npos) {
            last = text.substr(start);
            break;
        }
        last = text.substr(start, quote - start);
        start = quote + 1;
    }
    *out = last;
}
