// Diagnostic layer of the real-time clock: argument checks, the accuracy test against
// the interval timer, and the wrapping of device errors.
#pragma once

#include "api/BaseClass.h"

class RTCDDAPI;

class QUARN_EXPORT RTCDAPI : public BaseClassDAPI {
public:
    explicit RTCDAPI(const char* name);
    ~RTCDAPI() override;

    ErrorMsg* showDateTime();
    // weekday is one of "MON".."SUN"; it is checked but not written to the clock.
    ErrorMsg* setDate(int year, int month, int day, const char* weekday);
    ErrorMsg* setTime(int hour, int minute, int second);
    ErrorMsg* setDateTime(int year, int month, int day, const char* weekday, int hour,
                          int minute, int second);
    // Measures one 31.25 ms periodic interval of the clock with the interval timer.
    ErrorMsg* rtcAccuracyTest();
    ErrorMsg* rtcWDTTest();

private:
    // Creates the device object; returns its constructor errors wrapped under code.
    ErrorMsg* createDevice(ERRORCODE code, const char* detail);
    void releaseDevice();

    RTCDDAPI* m_device;
};
