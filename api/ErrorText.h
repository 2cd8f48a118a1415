// Turns error codes, records and chains into the one-line text the front end shows.
#pragma once

#include <string>

#include "api/ErrorMsg.h"

// Appends the text of the entry whose code equals value in the table keyed by key.
QUARN_EXPORT void parseErrorText(ERRORCODE value, unsigned int key, std::string* out);
QUARN_EXPORT void parseErrorTextFail(std::string* out);
// Appends the text of one record; frees nothing.
QUARN_EXPORT void getErrorMsgText(ErrorMsg* record, std::string* out);
// Appends the text of record and of every record behind it, then frees them.
QUARN_EXPORT void getErrorMessage(ErrorMsg* chain, std::string* out);
// Replaces out with the innermost quoted text of the chain, then frees the chain.
QUARN_EXPORT void getLastErrorMessage(ErrorMsg* chain, std::string* out);
