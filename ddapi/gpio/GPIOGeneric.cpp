// The common base of the GPIO drivers.
#include "ddapi/gpio/GPIOGeneric.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>

GPIOGeneric::GPIOGeneric(const char* name) : BaseClassDDAPI(name) {}
GPIOGeneric::~GPIOGeneric() = default;

void GPIOGeneric::readINIFile(char*) {}
ErrorMsg* GPIOGeneric::getGPIOList(std::list<std::string>*) { return nullptr; }
ErrorMsg* GPIOGeneric::readBit(std::string, bool*) { return nullptr; }
ErrorMsg* GPIOGeneric::isMyGPIO(std::string) { return nullptr; }
ErrorMsg* GPIOGeneric::writeBit(std::string, bool) { return nullptr; }

std::list<std::string> GPIOGeneric::splitFields(const char* line) {
    std::list<std::string> fields;
    std::string field;
    for (const char* c = line; c && *c; ++c) {
        if (*c == ' ' || *c == '\t' || *c == '\r' || *c == '\n') {
            if (!field.empty()) fields.push_back(field);
            field.clear();
        } else {
            field += *c;
        }
    }
    if (!field.empty()) fields.push_back(field);
    return fields;
}

bool GPIOGeneric::activeHighOf(const std::string& activeToken, const std::string* lastToken) {
    bool high = activeToken == "ACTIVE_HI";
    if (lastToken) high = *lastToken == "TRUE";
    return high;
}

bool GPIOGeneric::parseNumber(const std::string& text, int base, unsigned long limit, unsigned long* out) {
    if (text.empty() || !isxdigit(static_cast<unsigned char>(text[0]))) return false;
    errno = 0;
    char* end = nullptr;
    const unsigned long value = strtoul(text.c_str(), &end, base);
    if (errno != 0 || !end || *end != '\0' || value > limit) return false;
    *out = value;
    return true;
}

std::string GPIOGeneric::upper(std::string text) {
    for (char& c : text) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    return text;
}

GPIO_RW_MODE GPIOGeneric::modeOf(const std::string& k) {
    if (k == "GPIO_READ_ONLY") return GPIO_READ_ONLY;
    if (k == "GPIO_WRITE_ONLY") return GPIO_WRITE_ONLY;
    if (k == "GPIO_WRITE_CLEAR") return GPIO_WRITE_CLEAR;
    if (k == "GPIO_READ_WRITE") return GPIO_READ_WRITE;
    return GPIO_NOT_SUPPORT;
}
