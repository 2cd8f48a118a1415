// quarn rtc ...: the real-time clock.
#include <cstdio>
#include <cstring>

#include "cli/Cli.h"
#include "dapi/rtc/RTCDAPI.h"

namespace quarn::cli {
namespace {

const char* const kWeekdays[] = {"SUN", "MON", "TUE", "WED", "THU", "FRI", "SAT"};

// Weekday of a proleptic Gregorian date (Sakamoto), to fill in an omitted one.
const char* weekdayOf(int y, int m, int d) {
    static const int t[] = {0, 3, 2, 5, 0, 3, 5, 1, 4, 6, 2, 4};
    if (m < 1 || m > 12) return "MON";  // the library rejects the month anyway
    if (m < 3) y -= 1;
    int w = (y + y / 4 - y / 100 + y / 400 + t[m - 1] + d) % 7;
    return kWeekdays[(w + 7) % 7];
}

bool parseDate(const std::string& s, int* y, int* m, int* d) {
    char tail;
    return sscanf(s.c_str(), "%d-%d-%d%c", y, m, d, &tail) == 3;
}

bool parseTime(const std::string& s, int* h, int* m, int* sec) {
    char tail;
    return sscanf(s.c_str(), "%d:%d:%d%c", h, m, sec, &tail) == 3;
}

int show(Context& ctx, const std::vector<std::string>& args) {
    if (!args.empty()) return ctx.usage("rtc show takes no arguments");
    RTCDAPI rtc("RTCDAPI");
    StdoutCapture capture;
    ErrorMsg* e = rtc.showDateTime();
    std::string printed = capture.finish();
    ctx.text = printed;
    if (e) return ctx.fail(e);
    int y, mo, d, h, mi, s;
    char day[8] = {0};
    if (sscanf(printed.c_str(), "%d/%d/%d %3s %d:%d:%d", &y, &mo, &d, day, &h, &mi, &s) == 7) {
        char iso[32];
        snprintf(iso, sizeof(iso), "%04d-%02d-%02dT%02d:%02d:%02d", y, mo, d, h, mi, s);
        Value r = Value::object();
        r.set("date_time", iso);
        r.set("year", y).set("month", mo).set("day", d).set("weekday", day);
        r.set("hour", h).set("minute", mi).set("second", s);
        ctx.result = r;
    }
    return 0;
}

int setDate(Context& ctx, const std::vector<std::string>& args) {
    int y, m, d;
    if (args.empty() || args.size() > 2 || !parseDate(args[0], &y, &m, &d))
        return ctx.usage("usage: quarn rtc set-date YYYY-MM-DD [WEEKDAY]");
    std::string weekday = args.size() > 1 ? args[1] : weekdayOf(y, m, d);
    RTCDAPI rtc("RTCDAPI");
    if (ErrorMsg* e = rtc.setDate(y, m, d, weekday.c_str())) return ctx.fail(e);
    ctx.result.set("date", args[0]).set("weekday", weekday);
    ctx.text = "date set to " + args[0] + " " + weekday + "\n";
    return 0;
}

int setTime(Context& ctx, const std::vector<std::string>& args) {
    int h, m, s;
    if (args.size() != 1 || !parseTime(args[0], &h, &m, &s))
        return ctx.usage("usage: quarn rtc set-time HH:MM:SS");
    RTCDAPI rtc("RTCDAPI");
    if (ErrorMsg* e = rtc.setTime(h, m, s)) return ctx.fail(e);
    ctx.result.set("time", args[0]);
    ctx.text = "time set to " + args[0] + "\n";
    return 0;
}

int setBoth(Context& ctx, const std::vector<std::string>& args) {
    int y, mo, d, h, mi, s;
    std::string weekday;
    std::string timeArg;
    if (args.size() == 2) {
        timeArg = args[1];
    } else if (args.size() == 3) {
        weekday = args[1];
        timeArg = args[2];
    }
    if (timeArg.empty() || !parseDate(args[0], &y, &mo, &d) || !parseTime(timeArg, &h, &mi, &s))
        return ctx.usage("usage: quarn rtc set YYYY-MM-DD [WEEKDAY] HH:MM:SS");
    if (weekday.empty()) weekday = weekdayOf(y, mo, d);
    RTCDAPI rtc("RTCDAPI");
    if (ErrorMsg* e = rtc.setDateTime(y, mo, d, weekday.c_str(), h, mi, s)) return ctx.fail(e);
    ctx.result.set("date", args[0]).set("weekday", weekday).set("time", timeArg);
    ctx.text = "clock set to " + args[0] + " " + weekday + " " + timeArg + "\n";
    return 0;
}

int accuracy(Context& ctx, const std::vector<std::string>& args) {
    if (!args.empty()) return ctx.usage("rtc accuracy-test takes no arguments");
    RTCDAPI rtc("RTCDAPI");
    ErrorMsg* e = rtc.rtcAccuracyTest();
    ctx.result.set("test", "rtc accuracy").set("passed", e == nullptr);
    if (e) return ctx.fail(e);
    ctx.text = "RTC accuracy test passed\n";
    return 0;
}

int wdt(Context& ctx, const std::vector<std::string>& args) {
    if (!args.empty()) return ctx.usage("rtc wdt-test takes no arguments");
    RTCDAPI rtc("RTCDAPI");
    ErrorMsg* e = rtc.rtcWDTTest();
    ctx.result.set("test", "rtc watchdog").set("passed", e == nullptr);
    if (e) return ctx.fail(e);
    ctx.text = "RTC watchdog test passed\n";
    return 0;
}

Register reg{
    {"rtc", "show", "", "print the clock's date, weekday and time", show},
    {"rtc", "set-date", "YYYY-MM-DD [WEEKDAY]", "set the date (weekday MON..SUN)", setDate},
    {"rtc", "set-time", "HH:MM:SS", "set the time", setTime},
    {"rtc", "set", "YYYY-MM-DD [WEEKDAY] HH:MM:SS", "set date and time", setBoth},
    {"rtc", "accuracy-test", "", "measure a 31.25 ms clock interval with the 8254 timer", accuracy},
    {"rtc", "wdt-test", "", "watchdog test (not implemented by the clock)", wdt},
};

}  // namespace
}  // namespace quarn::cli
