// Device layer of the real-time clock: the RTC driver's node and the 8254 interval timer.
#pragma once

#include "api/BaseClass.h"

struct rtc_time;

// Values 1-5 select 8254 counting modes 1-5; any other value selects mode 0.
typedef int GPT_TIMER_MODE;

class QUARN_EXPORT RTCDDAPI : public BaseClassDDAPI {
public:
    explicit RTCDDAPI(const char* name);
    ~RTCDDAPI() override;

    ErrorMsg* showDateTime();
    ErrorMsg* setDate(int year, int month, int day);
    ErrorMsg* setTime(int hour, int minute, int second);
    // period in microseconds; 2 Hz to 8192 Hz in powers of two.
    ErrorMsg* setRTCTimerRate(float period);
    ErrorMsg* startRTCTimer();
    void stopRTCTimer();
    // Blocks until the next periodic interrupt.
    ErrorMsg* readRTCTimerStatus(bool* fired);

    void readGPTTimerStatus(bool* out);
    void setGPTTimerControlWord(GPT_TIMER_MODE mode);
    void startGPTTimer(unsigned int count, GPT_TIMER_MODE mode);
    void stopGPTTimer();
    void setGPTReadbackCommand();
    // time in microseconds, in ticks of 838 ns.
    void convertGPTTimeToCount(float time, unsigned int* count);
    void readGPTTimer(unsigned int* count);
    ErrorMsg* rtcWDTTest();

    unsigned int periodicRate() const { return m_rate; }

private:
    ErrorMsg* rewriteClock(unsigned int function, void (*change)(struct rtc_time*, int, int, int),
                           int a, int b, int c);
    ErrorMsg* ioctlError(unsigned int code, const char* request);

    int m_rtcFd;
    const char* m_weekdays[7];
    char m_errorText[100];
    GPT_TIMER_MODE m_gptMode;
    unsigned int m_rate;
};
