// Small string helpers shared by every module.
#include "api/StringUtil.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "api/platform/Platform.h"

std::string Int2Str(int value) { return std::to_string(value); }

std::string Int2HexStr(unsigned int value, unsigned char width) {
    char buf[16];
    snprintf(buf, sizeof(buf), "%x", value);
    std::string text(buf);
    if (text.size() < width) text.insert(0, width - text.size(), '0');
    return text;
}

std::string UINT64ToHexStr(unsigned long long value) {
    char buf[24];
    snprintf(buf, sizeof(buf), "0x%016llx", value);
    return buf;
}

// The nibble is shifted down so a BCD byte reads as its two decimal digits; the
// unshifted form ("162" for 0x12) helps nobody and no caller depends on it.
std::string BCDToStr(unsigned char value) {
    return std::to_string((value & 0xF0) >> 4) + std::to_string(value & 0x0F);
}

char* trimRightChar(char* text, char c) {
    if (!text) return text;
    size_t n = strlen(text);
    while (n > 0 && text[n - 1] == c) --n;
    text[n] = '\0';
    return text;
}

char* trimLeftChar(char* text, char c) {
    if (!text) return text;
    size_t skip = 0;
    while (text[skip] != '\0' && text[skip] == c) ++skip;
    if (skip) memmove(text, text + skip, strlen(text + skip) + 1);
    return text;
}

namespace {
// C-locale conversions without consulting the process locale.
char upper(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c; }
char lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }
}  // namespace

int ConvertCharToUpperCase(char* c) {
    *c = upper(*c);
    return static_cast<unsigned char>(*c);
}

int ConvertCharToLowerCase(char* c) {
    *c = lower(*c);
    return static_cast<unsigned char>(*c);
}

void ConvertStringToUpperCase(char* text) {
    for (; text && *text; ++text) *text = upper(*text);
}

void ConvertStringLowerCase(char* text) {
    for (; text && *text; ++text) *text = lower(*text);
}

int getArch() {
    // "uname -r", first 7 characters; answered in-process by the platform.
    std::string release;
    if (quarn::platform().kernelRelease(&release) != 0) return 0;
    release = release.substr(0, 7);
    if (release.find("arm") != std::string::npos) return 1;
    if (release.find("ppc") != std::string::npos) return 2;
    return 0;
}

namespace quarn {
std::string systemErrorText(int err) {
    char buf[128];
    // GNU strerror_r returns the text, which may or may not live in buf.
    return strerror_r(err, buf, sizeof(buf));
}

std::vector<std::string> splitLines(const std::string& text, size_t maxLength) {
    std::vector<std::string> lines;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t nl = text.find('\n', pos);
        if (nl == std::string::npos) nl = text.size();
        lines.push_back(text.substr(pos, std::min(nl - pos, maxLength)));
        pos = nl + 1;
    }
    return lines;
}
}  // namespace quarn
