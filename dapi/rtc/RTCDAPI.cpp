// Diagnostic layer of the real-time clock.
#include "dapi/rtc/RTCDAPI.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "ddapi/rtc/RTCDDAPI.h"

namespace {
constexpr ERRORCODE kShowDateTime = 0xCA040800;
constexpr ERRORCODE kSetDate = 0xCA040C00;
constexpr ERRORCODE kSetTime = 0xCA041000;
constexpr ERRORCODE kAccuracyTest = 0xCA041400;
constexpr ERRORCODE kWDTTest = 0xCA041800;
constexpr ERRORCODE kUnexpectedResult = 0x01;
constexpr ERRORCODE kOutOfRange = 0x02;

const char kConstructFailed[] = "Construct RTC DDAPI failed";

// Accuracy test: 31.25 ms is one period at 32 Hz. The window allows for the time
// between the interrupt and the latch of the counter.
constexpr float kTestPeriodUs = 31250.0f;
constexpr int kLowBound = 580;
constexpr int kHighMargin = 540;
constexpr int kSquareWaveMode = 3;

bool isLeapYear(int year) { return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0); }

int daysInMonth(int year, int month) {
    switch (month) {
    case 4:
    case 6:
    case 9:
    case 11:
        return 30;
    case 2:
        return isLeapYear(year) ? 29 : 28;
    default:
        return 31;
    }
}
}  // namespace

RTCDAPI::RTCDAPI(const char* name) : BaseClassDAPI(name), m_device(nullptr) {}

RTCDAPI::~RTCDAPI() { releaseDevice(); }

ErrorMsg* RTCDAPI::createDevice(ERRORCODE code, const char* detail) {
    releaseDevice();
    m_device = new (std::nothrow) RTCDDAPI("RTCDDAPI");
    if (!m_device) return returnErrorMsg(code | 0x23A, detail, nullptr);
    ErrorMsg* errors = m_device->getErrorMsg();
    if (!errors) return nullptr;
    releaseDevice();
    return returnErrorMsg(code, detail, errors);
}

// The device object is deleted on failure too: the chain handed back does not belong
// to it, and a later call starts from a fresh object anyway.
void RTCDAPI::releaseDevice() {
    delete m_device;
    m_device = nullptr;
}

ErrorMsg* RTCDAPI::showDateTime() {
    if (ErrorMsg* e = createDevice(kShowDateTime, nullptr)) return e;
    ErrorMsg* chain = m_device->showDateTime();
    releaseDevice();
    return chain ? returnErrorMsg(kShowDateTime, nullptr, chain) : nullptr;
}

ErrorMsg* RTCDAPI::setDate(int year, int month, int day, const char* weekday) {
    static const char* const kDays[] = {"MON", "TUE", "WED", "THU", "FRI", "SAT", "SUN"};
    bool dayKnown = false;
    for (const char* d : kDays) dayKnown = dayKnown || (weekday && strcmp(weekday, d) == 0);
    if (!dayKnown) {
        formatMessage("Day: %s\tDay is out of range!\n", weekday ? weekday : "(null)");
        return returnErrorMsg(kSetDate | kOutOfRange, m_message, nullptr);
    }
    if (month < 1 || month > 12) {
        formatMessage("Month: %d\tMonth is out of range!\n", month);
        return returnErrorMsg(kSetDate | kOutOfRange, m_message, nullptr);
    }
    if (year < 2000 || year > 2099) {
        formatMessage("Year: %d\tYear is out of range!\n", year);
        return returnErrorMsg(kSetDate | kOutOfRange, m_message, nullptr);
    }
    if (day < 1 || day > daysInMonth(year, month)) {
        formatMessage("Date: %d\tDate is out of range!\n", day);
        return returnErrorMsg(kSetDate | kOutOfRange, m_message, nullptr);
    }
    if (ErrorMsg* e = createDevice(kSetDate, kConstructFailed)) return e;
    ErrorMsg* chain = m_device->setDate(year, month, day);
    releaseDevice();
    return chain ? returnErrorMsg(kSetDate, nullptr, chain) : nullptr;
}

ErrorMsg* RTCDAPI::setTime(int hour, int minute, int second) {
    if (static_cast<unsigned>(hour) > 23) {
        formatMessage("Hour: %d\tHour is out of range!\n", hour);
        return returnErrorMsg(kSetTime | kOutOfRange, m_message, nullptr);
    }
    if (static_cast<unsigned>(minute) > 59) {
        formatMessage("Minute: %d\tMinute is out of range!\n", minute);
        return returnErrorMsg(kSetTime | kOutOfRange, m_message, nullptr);
    }
    if (static_cast<unsigned>(second) > 59) {
        formatMessage("Second: %d\tSecond is out of range!\n", second);
        return returnErrorMsg(kSetTime | kOutOfRange, m_message, nullptr);
    }
    if (ErrorMsg* e = createDevice(kSetTime, kConstructFailed)) return e;
    ErrorMsg* chain = m_device->setTime(hour, minute, second);
    releaseDevice();
    return chain ? returnErrorMsg(kSetTime, nullptr, chain) : nullptr;
}

ErrorMsg* RTCDAPI::setDateTime(int year, int month, int day, const char* weekday, int hour,
                               int minute, int second) {
    if (ErrorMsg* e = setDate(year, month, day, weekday)) return e;
    return setTime(hour, minute, second);
}

ErrorMsg* RTCDAPI::rtcAccuracyTest() {
    if (ErrorMsg* e = createDevice(kAccuracyTest, kConstructFailed)) return e;
    unsigned int n = 0;
    m_device->convertGPTTimeToCount(kTestPeriodUs, &n);
    const int count = static_cast<int>(n);

    bool fired = false;
    ErrorMsg* chain = m_device->setRTCTimerRate(kTestPeriodUs);
    if (!chain) chain = m_device->startRTCTimer();
    // The first interrupt only synchronises with the clock's period.
    if (!chain) chain = m_device->readRTCTimerStatus(&fired);
    unsigned int reading = 0;
    if (!chain) {
        m_device->startGPTTimer(n, kSquareWaveMode);
        chain = m_device->readRTCTimerStatus(&fired);
        if (!chain) m_device->readGPTTimer(&reading);
    }
    if (!chain) {
        const int r = static_cast<int>(reading);
        const int high = count - kHighMargin;
        if (!(r <= kLowBound || r >= high)) {
            const int diff = std::min(r - kLowBound, high - r);
            formatMessage("Count %d should be less than %d or greater than %d. Diff: %d\n", r,
                          kLowBound, high, diff);
            addErrorMsg(kAccuracyTest | kUnexpectedResult, m_message, nullptr);
        }
    }
    m_device->stopRTCTimer();
    m_device->stopGPTTimer();
    releaseDevice();
    if (chain) addErrorMsg(kAccuracyTest, nullptr, chain);
    return getErrorMsg();
}

ErrorMsg* RTCDAPI::rtcWDTTest() {
    if (ErrorMsg* e = createDevice(kWDTTest, kConstructFailed)) return e;
    ErrorMsg* chain = m_device->rtcWDTTest();
    releaseDevice();
    return chain ? returnErrorMsg(kWDTTest, nullptr, chain) : nullptr;
}
