// Links the installed library, renders a chain and checks the text it gets back.
#include <api/BaseClass.h>
#include <api/ErrorText.h>
#include <dapi/rtc/RTCDAPI.h>

#include <cstdio>
#include <string>

int main() {
    BaseClassDAPI object("consumer");
    ErrorMsg* chain = object.returnErrorMsg(0xCA040C00, nullptr,
                                            object.returnErrorMsg(0xCA081801, nullptr, nullptr));
    std::string text;
    getErrorMessage(chain, &text);
    const std::string expected = "RTCDAPI::setDate -> RTCDDAPI::setDate: \"RTC device open fail\"";
    if (text != expected) {
        fprintf(stderr, "got '%s'\n", text.c_str());
        return 1;
    }
    RTCDAPI rtc("RTCDAPI");  // the diagnostic classes are exported too
    puts("consumer ok");
    return 0;
}
