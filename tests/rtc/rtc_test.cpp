// The real-time clock module against the virtual board's clock and interval timer.
#include <gtest/gtest.h>

#include <linux/rtc.h>

#include <cerrno>
#include <string>

#include "api/ErrorText.h"
#include "api/platform/Platform.h"
#include "dapi/rtc/RTCDAPI.h"
#include "ddapi/rtc/RTCDDAPI.h"
#include "vboard/Board.h"
#include "tests/lib/Render.h"

namespace {

using quarn::test::render;
class RtcTest : public ::testing::Test {
protected:
    void SetUp() override { quarn::installPlatform(&board); }
    void TearDown() override {
        quarn::installPlatform(nullptr);
        EXPECT_EQ(board.portViolations(), 0u) << "a port was used without permission";
    }

    // Runs showDateTime and returns what it printed, failing the test on an error.
    std::string show() {
        testing::internal::CaptureStdout();
        ErrorMsg* e = rtc.showDateTime();
        std::string printed = testing::internal::GetCapturedStdout();
        EXPECT_EQ(render(e), "");
        return printed;
    }

    quarn::vboard::Board board;
    RTCDAPI rtc{"RTCDAPI"};
};

TEST_F(RtcTest, SetAndShowRoundTripAndTheClockKeepsRunning) {
    EXPECT_EQ(render(rtc.setDateTime(2024, 2, 29, "THU", 23, 59, 58)), "");
    EXPECT_EQ(show(), "2024/02/29  THU  23:59:58\n\n");
    board.clock().advanceNs(3'000'000'000ULL);
    EXPECT_EQ(show(), "2024/03/01  FRI  00:00:01\n\n");

    // setTime keeps the date, setDate keeps the time.
    EXPECT_EQ(render(rtc.setTime(7, 8, 9)), "");
    EXPECT_EQ(show(), "2024/03/01  FRI  07:08:09\n\n");
    EXPECT_EQ(render(rtc.setDate(2000, 3, 1, "MON")), "");  // the weekday is only checked
    EXPECT_EQ(show(), "2000/03/01  WED  07:08:09\n\n");
    EXPECT_EQ(render(rtc.setDate(2024, 1, 1, "SUN")), "");
    EXPECT_EQ(show(), "2024/01/01  MON  07:08:09\n\n");
}

TEST_F(RtcTest, WeekdayComesFromTheDateNotTheDriver) {
    // Dates around the January/February and century corners of Gauss's method.
    struct Case {
        int y, m, d;
        const char* day;
    } cases[] = {{2000, 1, 1, "SAT"},  {2000, 2, 29, "TUE"}, {2001, 2, 28, "WED"},
                 {2024, 12, 31, "TUE"}, {2099, 12, 31, "THU"}, {2038, 1, 19, "TUE"}};
    for (const Case& c : cases) {
        ASSERT_EQ(render(rtc.setDate(c.y, c.m, c.d, "MON")), "");
        char expected[64];
        snprintf(expected, sizeof(expected), "%04d/%02d/%02d  %s  ", c.y, c.m, c.d, c.day);
        EXPECT_EQ(show().substr(0, 17), expected);
    }
}

TEST_F(RtcTest, ArgumentChecksComeInOrderWithTheirDetail) {
    struct Case {
        int y, m, d;
        const char* day;
        const char* detail;
    } cases[] = {
        {2024, 1, 1, "mon", "Day: mon\tDay is out of range!\n"},
        {2024, 1, 1, "MONDAY", "Day: MONDAY\tDay is out of range!\n"},
        {2024, 13, 1, "MON", "Month: 13\tMonth is out of range!\n"},
        {2100, 0, 1, "FRI", "Month: 0\tMonth is out of range!\n"},  // month is checked first
        {2100, 1, 1, "FRI", "Year: 2100\tYear is out of range!\n"},
        {1999, 12, 31, "FRI", "Year: 1999\tYear is out of range!\n"},
        {2023, 2, 29, "WED", "Date: 29\tDate is out of range!\n"},
        {2024, 4, 31, "WED", "Date: 31\tDate is out of range!\n"},
        {2024, 1, 0, "WED", "Date: 0\tDate is out of range!\n"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(render(rtc.setDate(c.y, c.m, c.d, c.day)),
                  std::string("RTCDAPI::setDate: \"value out of range - ") + c.detail + "\"");
    }
    EXPECT_EQ(render(rtc.setDate(2000, 2, 29, "TUE")), "");
    EXPECT_EQ(render(rtc.setDate(2024, 2, 29, "SUN")), "");

    EXPECT_EQ(render(rtc.setTime(-1, 0, 0)),
              "RTCDAPI::setTime: \"value out of range - Hour: -1\tHour is out of range!\n\"");
    EXPECT_EQ(render(rtc.setTime(0, 60, 0)),
              "RTCDAPI::setTime: \"value out of range - Minute: 60\tMinute is out of range!\n\"");
    EXPECT_EQ(render(rtc.setTime(0, 0, -3)),
              "RTCDAPI::setTime: \"value out of range - Second: -3\tSecond is out of range!\n\"");
    EXPECT_EQ(render(rtc.setTime(23, 59, 59)), "");

    // setDateTime stops at a bad date and never touches the time.
    EXPECT_EQ(render(rtc.setDateTime(2024, 2, 30, "FRI", 99, 0, 0)),
              "RTCDAPI::setDate: \"value out of range - Date: 30\tDate is out of range!\n\"");
    EXPECT_EQ(render(rtc.setDateTime(2024, 2, 29, "THU", 99, 0, 0)),
              "RTCDAPI::setTime: \"value out of range - Hour: 99\tHour is out of range!\n\"");
}

TEST_F(RtcTest, DeviceFailuresAreWrappedUnderTheDiagnosticFunction) {
    auto node = board.device("/dev/rtc0");
    node->faults().openErrno = ENOENT;
    EXPECT_EQ(render(rtc.setDate(2024, 1, 1, "MON")),
              "RTCDAPI::setDate -> RTCDDAPI::setDate: \"RTC device open fail\"");
    EXPECT_EQ(render(rtc.setTime(1, 2, 3)),
              "RTCDAPI::setTime -> RTCDDAPI::setTime: \"RTC device open fail\"");
    EXPECT_EQ(render(rtc.showDateTime()),
              "RTCDAPI::showDateTime -> RTCDDAPI::showDateTime: \"RTC device open fail\"");
    node->faults().openErrno = 0;

    node->faults().ioctlErrno[RTC_SET_TIME] = EIO;
    EXPECT_EQ(render(rtc.setDate(2024, 1, 1, "MON")),
              "RTCDAPI::setDate -> RTCDDAPI::setDate: \"RTC IOCTL access fail - RTC IOCTL Error: "
              "RTC_SET_TIME  Input/output error\n\"");
    node->faults().ioctlErrno.clear();

    node->faults().ioctlErrno[RTC_RD_TIME] = EINVAL;
    EXPECT_EQ(render(rtc.setTime(1, 2, 3)),
              "RTCDAPI::setTime -> RTCDDAPI::setTime: \"RTC IOCTL access fail - RTC IOCTL Error: "
              "RTC_RD_TIME  Invalid argument\n\"");
    node->faults().ioctlErrno.clear();

    // Every failure closed the node: it opens again.
    EXPECT_EQ(render(rtc.setDate(2024, 1, 2, "TUE")), "");
}

TEST_F(RtcTest, ADriverWithoutUpdateInterruptsStillReadsThenFailsOnUieOff) {
    board.rtc->setUpdateInterruptSupported(false);
    ASSERT_EQ(board.rtc->clockNs() >= 0, true);
    testing::internal::CaptureStdout();
    ErrorMsg* e = rtc.showDateTime();
    std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(printed.size(), 27u) << printed;  // "YYYY/MM/DD  DAY  HH:MM:SS\n\n"
    EXPECT_EQ(render(e),
              "RTCDAPI::showDateTime -> RTCDDAPI::showDateTime: \"RTC IOCTL access fail - RTC IOCTL "
              "Error: RTC_UIE_OFF  Inappropriate ioctl for device\n\"");
    EXPECT_EQ(render(rtc.setDate(2024, 5, 6, "MON")),
              "RTCDAPI::setDate -> RTCDDAPI::setDate: \"RTC IOCTL access fail - RTC IOCTL Error: "
              "RTC_UIE_OFF  Inappropriate ioctl for device\n\"");
    // The date was written before UIE_OFF failed.
    board.rtc->setUpdateInterruptSupported(true);
    EXPECT_EQ(show().substr(0, 10), "2024/05/06");
}

TEST_F(RtcTest, RefusedPortAccessFailsEveryOperationAtConstruction) {
    board.setPortAccessAllowed(false);
    const std::string cause = " -> RTCDDAPI::Constructor: \"port permission error\"";
    EXPECT_EQ(render(rtc.showDateTime()), "RTCDAPI::showDateTime" + cause);
    EXPECT_EQ(render(rtc.setDate(2024, 1, 1, "MON")),
              "RTCDAPI::setDate: \"Construct RTC DDAPI failed\"" + cause);
    EXPECT_EQ(render(rtc.setTime(1, 1, 1)), "RTCDAPI::setTime: \"Construct RTC DDAPI failed\"" + cause);
    EXPECT_EQ(render(rtc.rtcAccuracyTest()),
              "RTCDAPI::rtcAccuracyTest: \"Construct RTC DDAPI failed\"" + cause);
    EXPECT_EQ(render(rtc.rtcWDTTest()), "RTCDAPI::rtcWDTTest: \"Construct RTC DDAPI failed\"" + cause);
    // Argument checks still come first.
    EXPECT_EQ(render(rtc.setTime(24, 0, 0)),
              "RTCDAPI::setTime: \"value out of range - Hour: 24\tHour is out of range!\n\"");
}

TEST_F(RtcTest, WatchdogTestAlwaysFails) {
    EXPECT_EQ(render(rtc.rtcWDTTest()),
              "RTCDAPI::rtcWDTTest -> RTCDDAPI::rtcWDTTest: \"function is not implement\"");
    RTCDDAPI device("RTCDDAPI");
    std::string last;
    getLastErrorMessage(device.rtcWDTTest(), &last);
    EXPECT_EQ(last, "function is not implement");
}

TEST_F(RtcTest, AccuracyTestPassesOnAnAccurateClockInVirtualTime) {
    const uint64_t start = board.clock().nowNs();
    EXPECT_EQ(render(rtc.rtcAccuracyTest()), "");
    const uint64_t elapsed = board.clock().nowNs() - start;
    // One interval to synchronise and one measured: between 31.25 and 62.5 ms.
    EXPECT_GT(elapsed, 31'250'000u);
    EXPECT_LE(elapsed, 62'500'000u);
    // Left behind: the timer in mode 0, the periodic interrupt off, the node closed.
    EXPECT_EQ(board.pit->mode(0), 0);
    EXPECT_FALSE(board.rtc->periodicEnabled());
    EXPECT_EQ(board.rtc->periodicRate(), 32);
    EXPECT_EQ(render(rtc.rtcAccuracyTest()), "");  // and it runs again
}

TEST_F(RtcTest, AccuracyTestCatchesAClockTwoPercentOff) {
    for (int64_t ppm : {20000, -20000}) {
        board.rtc->setDriftPpm(ppm);
        ErrorMsg* e = rtc.rtcAccuracyTest();
        ASSERT_NE(e, nullptr) << ppm;
        EXPECT_EQ(e->getNextErrorMsg(), nullptr);  // one record of its own
        std::string text = render(e);
        int count = 0, low = 0, high = 0, diff = 0;
        ASSERT_EQ(sscanf(text.c_str(),
                         "RTCDAPI::rtcAccuracyTest: \"unexpected test result - Count %d should be "
                         "less than %d or greater than %d. Diff: %d\n\"",
                         &count, &low, &high, &diff),
                  4)
            << text;
        EXPECT_EQ(low, 580);
        EXPECT_EQ(high, 37291 - 540);
        EXPECT_GT(count, low);
        EXPECT_LT(count, high);
        EXPECT_EQ(diff, std::min(count - low, high - count));
    }
    // 2% fast: the interrupt comes 0.61 ms early, about 1470 counts short of the end
    // of the square wave's second half.
    board.rtc->setDriftPpm(20000);
    std::string text = render(rtc.rtcAccuracyTest());
    EXPECT_NE(text.find("Count 14"), std::string::npos) << text;
}

TEST_F(RtcTest, AccuracyTestStopsTheTimerWhenTheInterruptReadFails) {
    board.device("/dev/rtc0")->faults().readErrno = EIO;
    EXPECT_EQ(render(rtc.rtcAccuracyTest()),
              "RTCDAPI::rtcAccuracyTest -> RTCDDAPI::readRTCTimerStatus: \"read rtc dev fail - read "
              "RTC timer status fail  Input/output error\n\"");
    EXPECT_FALSE(board.rtc->periodicEnabled());
    EXPECT_EQ(board.pit->mode(0), 0);
    board.device("/dev/rtc0")->faults().readErrno = 0;

    board.device("/dev/rtc0")->faults().ioctlErrno[RTC_IRQP_SET] = EACCES;
    EXPECT_EQ(render(rtc.rtcAccuracyTest()),
              "RTCDAPI::rtcAccuracyTest -> RTCDDAPI::startRTCTimer: \"RTC IOCTL access fail - RTC "
              "IOCTL Error: RTC_IRQP_SET  Permission denied\n\"");
    board.device("/dev/rtc0")->faults().ioctlErrno.clear();
    EXPECT_EQ(render(rtc.rtcAccuracyTest()), "");
}

TEST_F(RtcTest, TimerRateAndTickConversion) {
    RTCDDAPI device("RTCDDAPI");
    EXPECT_EQ(render(device.setRTCTimerRate(31250.0f)), "");
    EXPECT_EQ(device.periodicRate(), 32u);
    EXPECT_EQ(render(device.setRTCTimerRate(100000.0f)),
              "RTCDDAPI::setRTCTimerRate: \"Bad parameter 1 - rate isn't support\"");
    EXPECT_EQ(device.periodicRate(), 10u);  // stored although refused
    EXPECT_EQ(render(device.setRTCTimerRate(600000.0f)),
              "RTCDDAPI::setRTCTimerRate: \"Bad parameter 1 - rate isn't support\"");
    EXPECT_EQ(render(device.setRTCTimerRate(100.0f)),
              "RTCDDAPI::setRTCTimerRate: \"Bad parameter 1 - rate isn't support\"");
    EXPECT_EQ(device.periodicRate(), 10u);  // range failures store nothing
    EXPECT_EQ(render(device.setRTCTimerRate(500000.0f)), "");  // 2 Hz
    EXPECT_EQ(device.periodicRate(), 2u);
    EXPECT_EQ(render(device.setRTCTimerRate(122.0703125f)), "");  // 8192 Hz
    EXPECT_EQ(device.periodicRate(), 8192u);
    // 122.07 as a float is a little below 122.07 as a double, so it is refused.
    EXPECT_NE(render(device.setRTCTimerRate(122.07f)), "");

    unsigned int count = 0;
    device.convertGPTTimeToCount(31250.0f, &count);
    EXPECT_EQ(count, 37291u);
    device.convertGPTTimeToCount(0.419f, &count);  // half a tick rounds up
    EXPECT_EQ(count, 1u);
}

TEST_F(RtcTest, PeriodicInterruptsArriveAtTheProgrammedRate) {
    RTCDDAPI device("RTCDDAPI");
    ASSERT_EQ(render(device.setRTCTimerRate(1000000.0f / 1024)), "");
    ASSERT_EQ(render(device.startRTCTimer()), "");
    bool fired = false;
    ASSERT_EQ(render(device.readRTCTimerStatus(&fired)), "");
    EXPECT_TRUE(fired);
    const uint64_t t0 = board.clock().nowNs();
    for (int i = 0; i < 1024; ++i) ASSERT_EQ(render(device.readRTCTimerStatus(&fired)), "");
    EXPECT_NEAR(static_cast<double>(board.clock().nowNs() - t0), 1e9, 2.0);
    device.stopRTCTimer();
    EXPECT_FALSE(board.rtc->periodicEnabled());
}

TEST_F(RtcTest, IntervalTimerThroughTheDeviceLayer) {
    RTCDDAPI device("RTCDDAPI");
    device.startGPTTimer(1000, 0);
    bool out = true;
    device.readGPTTimerStatus(&out);
    EXPECT_FALSE(out);  // mode 0 holds OUT low until the count runs out
    board.clock().advanceNs(2'000'000);  // 2386 ticks
    unsigned int count = 0;
    // The read-back above left a count latched; the latch command is then ignored and
    // the stale latched count is what reads back, as on the real part.
    device.readGPTTimer(&count);
    EXPECT_EQ(count, 1000u);
    device.readGPTTimerStatus(&out);
    EXPECT_TRUE(out);
    device.readGPTTimer(&count);  // stale again: the read-back latched the count
    device.readGPTTimer(&count);  // now live
    EXPECT_EQ(count, (1000u + 65536u - (2386u - 1u)) % 65536u);
    device.stopGPTTimer();
    EXPECT_EQ(board.pit->mode(0), 0);
}

TEST(RtcOnHost, TheDefaultPlatformGivesADocumentedAnswer) {
    // On a machine without port access or without /dev/rtc0 the chain says so; as root
    // on the board it prints the date. Either way nothing crashes.
    RTCDAPI rtc("RTCDAPI");
    testing::internal::CaptureStdout();
    ErrorMsg* e = rtc.showDateTime();
    testing::internal::GetCapturedStdout();
    std::string text = render(e);
    if (!text.empty()) {
        EXPECT_TRUE(text == "RTCDAPI::showDateTime -> RTCDDAPI::Constructor: \"port permission error\"" ||
                    text == "RTCDAPI::showDateTime -> RTCDDAPI::showDateTime: \"RTC device open fail\"" ||
                    text.rfind("RTCDAPI::showDateTime -> RTCDDAPI::showDateTime: \"RTC IOCTL access fail", 0) == 0)
            << text;
    }
}

}  // namespace
