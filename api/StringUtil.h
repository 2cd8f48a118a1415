// Small string helpers shared by every module.
#pragma once

#include <string>
#include <vector>

#include "api/Export.h"

QUARN_EXPORT std::string Int2Str(int value);
// Lower-case hex without prefix, zero-padded on the left to width characters.
QUARN_EXPORT std::string Int2HexStr(unsigned int value, unsigned char width);
// "0x" and exactly 16 lower-case hex digits.
QUARN_EXPORT std::string UINT64ToHexStr(unsigned long long value);
// Decimal of the high nibble shifted down, then of the low nibble: 0x12 gives "12".
QUARN_EXPORT std::string BCDToStr(unsigned char value);
QUARN_EXPORT char* trimRightChar(char* text, char c);
QUARN_EXPORT char* trimLeftChar(char* text, char c);
QUARN_EXPORT int ConvertCharToUpperCase(char* c);
QUARN_EXPORT int ConvertCharToLowerCase(char* c);
QUARN_EXPORT void ConvertStringToUpperCase(char* text);
QUARN_EXPORT void ConvertStringLowerCase(char* text);
// 1 for an ARM kernel, 2 for PowerPC, 0 otherwise (the x86 case).
QUARN_EXPORT int getArch();

namespace quarn {
// The operating system's text for an errno value (thread-safe strerror).
QUARN_EXPORT std::string systemErrorText(int err);
// The lines of text without their line feeds, each cut to at most maxLength characters
// (as a fixed line buffer would take them); a last line without a feed counts, an empty
// text has no lines.
QUARN_EXPORT std::vector<std::string> splitLines(const std::string& text,
                                                 size_t maxLength = std::string::npos);
}  // namespace quarn
