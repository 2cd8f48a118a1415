// Device layer of the real-time clock: the RTC driver's node and the 8254 interval timer.
#include "ddapi/rtc/RTCDDAPI.h"

#include <fcntl.h>
#include <linux/rtc.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "api/StringUtil.h"
#include "api/platform/Platform.h"

namespace {
const char kRtcNode[] = "/dev/rtc0";

constexpr uint16_t kTimerData0 = 0x40;
constexpr uint16_t kTimerControl = 0x43;
constexpr uint8_t kReadBackCounter0 = 0xC2;  // latch count and status of counter 0
constexpr uint8_t kLatchCounter0 = 0x00;
// Counter 0, low then high byte, binary, modes 1-5.
constexpr uint8_t kControlWords[5] = {0x32, 0x34, 0x36, 0x38, 0x3A};
constexpr uint8_t kControlWordMode0 = 0x30;

// Function rows of the device table.
constexpr ERRORCODE kShowDateTime = 0xCA080800;
constexpr ERRORCODE kSetRTCTimerRate = 0xCA080C00;
constexpr ERRORCODE kStartRTCTimer = 0xCA081000;
constexpr ERRORCODE kReadRTCTimerStatus = 0xCA081400;
constexpr ERRORCODE kSetDate = 0xCA081800;
constexpr ERRORCODE kSetTime = 0xCA081C00;
constexpr ERRORCODE kRtcWDTTest = 0xCA082000;

constexpr ERRORCODE kOpenFail = 0x01;
constexpr ERRORCODE kIoctlFail = 0x03;
constexpr ERRORCODE kPortPermission = 0x05;
constexpr ERRORCODE kReadFail = 0x08;
constexpr ERRORCODE kBadParameter1 = 0x205;
constexpr ERRORCODE kNotImplemented = 0x234;

// Weekday from the date by Gauss's method, 0 = Sunday; month 1-12, full year.
int gaussWeekday(int year, int month, int day) {
    int f;
    if (month == 1) {
        f = 28;
        --year;
    } else if (month == 2) {
        f = 31;
        --year;
    } else {
        f = static_cast<int>(2.6 * (month - 2) - 0.2);
    }
    const int c = year / 100;
    const int y = year % 100;
    return (day + f + 3 * y + 5 * (y % 4) + 5 * (c % 4)) % 7;
}
}  // namespace

RTCDDAPI::RTCDDAPI(const char* name)
    : BaseClassDDAPI(name),
      m_rtcFd(-1),
      m_weekdays{"SUN", "MON", "TUE", "WED", "THU", "FRI", "SAT"},
      m_gptMode(0),
      m_rate(0) {
    memset(m_errorText, 0, sizeof(m_errorText));
    if (quarn::platform().ioperm(kTimerData0, 4, 1) != 0) addErrorMsg(0xCA080400 | kPortPermission, nullptr);
}

RTCDDAPI::~RTCDDAPI() {
    // A timer run left open by the caller is stopped rather than leaked.
    if (m_rtcFd >= 0) stopRTCTimer();
    quarn::platform().ioperm(kTimerData0, 4, 0);
}

ErrorMsg* RTCDDAPI::ioctlError(unsigned int code, const char* request) {
    const int err = errno;
    quarn::platform().close(m_rtcFd);
    m_rtcFd = -1;
    snprintf(m_errorText, sizeof(m_errorText), "RTC IOCTL Error: %s  %s\n", request,
             quarn::systemErrorText(err).c_str());
    return returnErrorMsg(code, m_errorText, nullptr);
}

// The node is closed at the end of each of these calls and the field set back to -1,
// so a closed descriptor number can never be used again by a later call.
ErrorMsg* RTCDDAPI::showDateTime() {
    quarn::Platform& p = quarn::platform();
    m_rtcFd = p.open(kRtcNode, O_RDONLY);
    if (m_rtcFd < 0) return returnErrorMsg(kShowDateTime | kOpenFail, nullptr, nullptr);
    if (p.ioctl(m_rtcFd, RTC_UIE_ON, nullptr) != 0 && errno != ENOTTY)
        return ioctlError(kShowDateTime | kIoctlFail, "RTC_UIE_ON");
    struct rtc_time tm;
    memset(&tm, 0, sizeof(tm));
    if (p.ioctl(m_rtcFd, RTC_RD_TIME, &tm) != 0)
        return ioctlError(kShowDateTime | kIoctlFail, "RTC_RD_TIME");

    const int year = tm.tm_year + 1900;
    const int month = tm.tm_mon + 1;
    const int weekday = gaussWeekday(year, month, tm.tm_mday);
    const char* dayName = (weekday >= 0 && weekday < 7) ? m_weekdays[weekday] : "???";
    printf("%04d/%02d/%02d  %s  %02d:%02d:%02d\n\n", year, month, tm.tm_mday, dayName,
           tm.tm_hour, tm.tm_min, tm.tm_sec);
    fflush(stdout);

    if (p.ioctl(m_rtcFd, RTC_UIE_OFF, nullptr) != 0)
        return ioctlError(kShowDateTime | kIoctlFail, "RTC_UIE_OFF");
    p.close(m_rtcFd);
    m_rtcFd = -1;
    return nullptr;
}

// Reads the clock, lets change() edit the fields it sets, and writes the result back;
// the fields it leaves alone keep the values just read.
ErrorMsg* RTCDDAPI::rewriteClock(unsigned int function, void (*change)(struct rtc_time*, int, int, int),
                                 int a, int b, int c) {
    quarn::Platform& p = quarn::platform();
    m_rtcFd = p.open(kRtcNode, O_RDONLY);
    if (m_rtcFd < 0) return returnErrorMsg(function | kOpenFail, nullptr, nullptr);
    if (p.ioctl(m_rtcFd, RTC_UIE_ON, nullptr) != 0 && errno != ENOTTY)
        return ioctlError(function | kIoctlFail, "RTC_UIE_ON");
    struct rtc_time tm;
    memset(&tm, 0, sizeof(tm));
    if (p.ioctl(m_rtcFd, RTC_RD_TIME, &tm) != 0)
        return ioctlError(function | kIoctlFail, "RTC_RD_TIME");
    change(&tm, a, b, c);
    if (p.ioctl(m_rtcFd, RTC_SET_TIME, &tm) != 0)
        return ioctlError(function | kIoctlFail, "RTC_SET_TIME");
    if (p.ioctl(m_rtcFd, RTC_UIE_OFF, nullptr) != 0)
        return ioctlError(function | kIoctlFail, "RTC_UIE_OFF");
    p.close(m_rtcFd);
    m_rtcFd = -1;
    return nullptr;
}

ErrorMsg* RTCDDAPI::setDate(int year, int month, int day) {
    return rewriteClock(kSetDate, [](struct rtc_time* tm, int y, int m, int d) {
        tm->tm_year = y - 1900;
        tm->tm_mon = m - 1;
        tm->tm_mday = d;
    }, year, month, day);
}

ErrorMsg* RTCDDAPI::setTime(int hour, int minute, int second) {
    return rewriteClock(kSetTime, [](struct rtc_time* tm, int h, int m, int s) {
        tm->tm_hour = h;
        tm->tm_min = m;
        tm->tm_sec = s;
    }, hour, minute, second);
}

ErrorMsg* RTCDDAPI::setRTCTimerRate(float period) {
    const double periodUs = period;
    if (periodUs > 500000.0 || periodUs < 122.07)
        return returnErrorMsg(kSetRTCTimerRate | kBadParameter1, "rate isn't support", nullptr);
    const float hz = 1.0f / (period / 1000000.0f);
    unsigned int rate = static_cast<unsigned int>(hz);
    if (hz - static_cast<float>(rate) >= 0.5f) ++rate;
    m_rate = rate;
    if (rate != 0 && (rate & (rate - 1)) == 0) return nullptr;
    return returnErrorMsg(kSetRTCTimerRate | kBadParameter1, "rate isn't support", nullptr);
}

ErrorMsg* RTCDDAPI::startRTCTimer() {
    quarn::Platform& p = quarn::platform();
    if (m_rtcFd < 0) {
        m_rtcFd = p.open(kRtcNode, O_RDWR);
        if (m_rtcFd < 0) return returnErrorMsg(kStartRTCTimer | kOpenFail, nullptr, nullptr);
    }
    if (quarn::ioctlValue(p, m_rtcFd, RTC_IRQP_SET, m_rate) != 0)
        return ioctlError(kStartRTCTimer | kIoctlFail, "RTC_IRQP_SET");
    if (p.ioctl(m_rtcFd, RTC_PIE_ON, nullptr) != 0)
        return ioctlError(kStartRTCTimer | kIoctlFail, "RTC_PIE_ON");
    return nullptr;
}

void RTCDDAPI::stopRTCTimer() {
    if (m_rtcFd < 0) return;
    quarn::Platform& p = quarn::platform();
    p.ioctl(m_rtcFd, RTC_PIE_OFF, nullptr);
    p.close(m_rtcFd);
    m_rtcFd = -1;
}

ErrorMsg* RTCDDAPI::readRTCTimerStatus(bool* fired) {
    quarn::Platform& p = quarn::platform();
    if (m_rtcFd < 0) {
        m_rtcFd = p.open(kRtcNode, O_RDWR);
        if (m_rtcFd < 0) return returnErrorMsg(kReadRTCTimerStatus | kOpenFail, nullptr, nullptr);
    }
    uint32_t data = 0;
    if (p.read(m_rtcFd, &data, sizeof(data)) != -1) {
        if (fired) *fired = true;
        return nullptr;
    }
    const int err = errno;
    stopRTCTimer();
    snprintf(m_errorText, sizeof(m_errorText), "read RTC timer status fail  %s\n",
             quarn::systemErrorText(err).c_str());
    return returnErrorMsg(kReadRTCTimerStatus | kReadFail, m_errorText, nullptr);
}

void RTCDDAPI::readGPTTimerStatus(bool* out) {
    quarn::Platform& p = quarn::platform();
    p.outb(kReadBackCounter0, kTimerControl);
    const uint8_t status = p.inb(kTimerData0);
    if (out) *out = (status & 0x80) != 0;
}

void RTCDDAPI::setGPTTimerControlWord(GPT_TIMER_MODE mode) {
    const uint8_t word = (mode >= 1 && mode <= 5) ? kControlWords[mode - 1] : kControlWordMode0;
    quarn::platform().outb(word, kTimerControl);
}

void RTCDDAPI::startGPTTimer(unsigned int count, GPT_TIMER_MODE mode) {
    m_gptMode = mode;
    setGPTTimerControlWord(mode);
    quarn::Platform& p = quarn::platform();
    p.outb(static_cast<uint8_t>(count & 0xFF), kTimerData0);
    p.outb(static_cast<uint8_t>((count >> 8) & 0xFF), kTimerData0);
}

void RTCDDAPI::stopGPTTimer() {
    quarn::Platform& p = quarn::platform();
    p.outb(kControlWordMode0, kTimerControl);
    p.outb(0, kTimerData0);
    p.outb(0, kTimerData0);
}

void RTCDDAPI::setGPTReadbackCommand() { quarn::platform().outb(kReadBackCounter0, kTimerControl); }

void RTCDDAPI::convertGPTTimeToCount(float time, unsigned int* count) {
    const float ticks = time * 1000.0f / 838.0f;  // one tick is 838 ns
    unsigned int whole = static_cast<unsigned int>(ticks);
    if (ticks - static_cast<float>(whole) >= 0.5f) ++whole;
    if (count) *count = whole;
}

void RTCDDAPI::readGPTTimer(unsigned int* count) {
    quarn::Platform& p = quarn::platform();
    p.outb(kLatchCounter0, kTimerControl);
    const unsigned int low = p.inb(kTimerData0);
    const unsigned int high = p.inb(kTimerData0);
    if (count) *count = low + 256 * high;
}

ErrorMsg* RTCDDAPI::rtcWDTTest() {
    return returnErrorMsg(kRtcWDTTest | kNotImplemented, nullptr, nullptr);
}
