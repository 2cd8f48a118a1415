// A battery-backed CMOS clock behind /dev/rtc0.
#include "vboard/models/rtc/RtcModel.h"

#include <fcntl.h>
#include <linux/rtc.h>

#include <cstring>
#include <ctime>

namespace quarn::vboard {

namespace {
constexpr int64_t kNsPerSecond = 1000000000LL;
constexpr int kMaxPeriodicRate = 8192;  // the CMOS divider's fastest periodic rate

bool isLeap(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

int monthDays(int month0, int year) {
    static const int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return days[month0] + (month0 == 1 && isLeap(year) ? 1 : 0);
}

// The checks the kernel applies before writing a time to the clock.
bool validTime(const struct rtc_time& tm) {
    if (tm.tm_year < 70 || static_cast<unsigned>(tm.tm_mon) >= 12 || tm.tm_mday < 1 ||
        tm.tm_mday > monthDays(tm.tm_mon, tm.tm_year + 1900) ||
        static_cast<unsigned>(tm.tm_hour) >= 24 || static_cast<unsigned>(tm.tm_min) >= 60 ||
        static_cast<unsigned>(tm.tm_sec) >= 60)
        return false;
    return true;
}
}  // namespace

class RtcHandle : public FileHandle {
public:
    RtcHandle(RtcModel& model, int flags) : m_model(model), m_flags(flags) {}
    ~RtcHandle() override {
        std::lock_guard<std::mutex> lock(m_model.mutex());
        // Closing the node turns its interrupts off, as the driver's release does.
        m_model.m_uie = false;
        m_model.m_pie = false;
        m_model.m_open = false;
    }

    ssize_t read(void* buf, size_t count) override {
        if (count < sizeof(unsigned int)) return fail(EINVAL);
        std::lock_guard<std::mutex> lock(m_model.mutex());
        uint64_t now = m_model.m_clock.nowNs();
        uint64_t pending = m_model.interruptsBetween(m_model.m_lastAckNs, now);
        if (pending == 0) {
            if (m_flags & O_NONBLOCK) return fail(EAGAIN);
            uint64_t next = m_model.nextInterruptAfter(now);
            // With no interrupt enabled a real read would sleep until a signal; the
            // simulation cannot wait for one, so it reports the read as failed.
            if (next == 0) return fail(EIO);
            m_model.m_clock.advanceTo(next);
            now = next;
            pending = 1;
        }
        m_model.m_lastAckNs = now;
        unsigned long data = (static_cast<unsigned long>(pending) << 8) | RTC_IRQF |
                             (m_model.m_pie ? RTC_PF : 0) | (m_model.m_uie ? RTC_UF : 0);
        if (count < sizeof(unsigned long)) {
            unsigned int small = static_cast<unsigned int>(data);
            memcpy(buf, &small, sizeof(small));
            return sizeof(small);
        }
        memcpy(buf, &data, sizeof(data));
        return sizeof(data);
    }

    int ioctl(unsigned long request, void* arg) override {
        std::lock_guard<std::mutex> lock(m_model.mutex());
        switch (request) {
        case RTC_RD_TIME: {
            if (!arg) return static_cast<int>(fail(EFAULT));
            time_t secs = static_cast<time_t>(m_model.clockNs() / kNsPerSecond);
            struct tm tm;
            gmtime_r(&secs, &tm);
            struct rtc_time rt;
            memset(&rt, 0, sizeof(rt));
            rt.tm_sec = tm.tm_sec;
            rt.tm_min = tm.tm_min;
            rt.tm_hour = tm.tm_hour;
            rt.tm_mday = tm.tm_mday;
            rt.tm_mon = tm.tm_mon;
            rt.tm_year = tm.tm_year;
            rt.tm_wday = tm.tm_wday;
            rt.tm_yday = tm.tm_yday;
            memcpy(arg, &rt, sizeof(rt));
            return 0;
        }
        case RTC_SET_TIME: {
            if (!arg) return static_cast<int>(fail(EFAULT));
            struct rtc_time rt;
            memcpy(&rt, arg, sizeof(rt));
            if (!validTime(rt)) return static_cast<int>(fail(EINVAL));
            // Without a century register the CMOS clock holds 2000-2099 only.
            if (rt.tm_year < 100 || rt.tm_year > 199) return static_cast<int>(fail(ERANGE));
            struct tm tm;
            memset(&tm, 0, sizeof(tm));
            tm.tm_sec = rt.tm_sec;
            tm.tm_min = rt.tm_min;
            tm.tm_hour = rt.tm_hour;
            tm.tm_mday = rt.tm_mday;
            tm.tm_mon = rt.tm_mon;
            tm.tm_year = rt.tm_year;
            m_model.m_baseClockNs = static_cast<int64_t>(timegm(&tm)) * kNsPerSecond;
            m_model.m_baseVirtualNs = m_model.m_clock.nowNs();
            return 0;
        }
        case RTC_UIE_ON:
        case RTC_UIE_OFF:
            if (!m_model.m_uieSupported) return static_cast<int>(fail(ENOTTY));
            m_model.m_uie = request == RTC_UIE_ON;
            m_model.m_lastAckNs = m_model.m_clock.nowNs();
            return 0;
        case RTC_PIE_ON:
        case RTC_PIE_OFF:
            m_model.m_pie = request == RTC_PIE_ON;
            m_model.m_lastAckNs = m_model.m_clock.nowNs();
            return 0;
        case RTC_IRQP_SET: {
            unsigned long rate = reinterpret_cast<unsigned long>(arg);
            if (rate < 2 || rate > kMaxPeriodicRate || (rate & (rate - 1)) != 0)
                return static_cast<int>(fail(EINVAL));
            m_model.m_rate = static_cast<int>(rate);
            return 0;
        }
        case RTC_IRQP_READ:
            if (!arg) return static_cast<int>(fail(EFAULT));
            *static_cast<unsigned long*>(arg) = static_cast<unsigned long>(m_model.m_rate);
            return 0;
        default:
            return static_cast<int>(fail(ENOTTY));
        }
    }

private:
    RtcModel& m_model;
    int m_flags;
};

RtcModel::RtcModel(VirtualClock& clock, int64_t startSeconds)
    : m_clock(clock),
      m_baseClockNs(startSeconds * kNsPerSecond),
      m_baseVirtualNs(clock.nowNs()) {}

std::unique_ptr<FileHandle> RtcModel::open(int flags) {
    std::lock_guard<std::mutex> lock(mutex());
    // The RTC node admits one opener at a time.
    if (m_open) {
        errno = EBUSY;
        return nullptr;
    }
    m_open = true;
    return std::make_unique<RtcHandle>(*this, flags);
}

void RtcModel::rebase() {
    uint64_t now = m_clock.nowNs();
    m_baseClockNs = clockNsAt(now);
    m_baseVirtualNs = now;
}

void RtcModel::setDriftPpm(int64_t ppm) {
    std::lock_guard<std::mutex> lock(mutex());
    rebase();
    m_driftPpm = ppm;
}

int64_t RtcModel::clockNsAt(uint64_t virtualNs) const {
    __int128 elapsed = static_cast<__int128>(virtualNs) - m_baseVirtualNs;
    return m_baseClockNs +
           static_cast<int64_t>(elapsed * (1000000 + m_driftPpm) / 1000000);
}

int64_t RtcModel::clockNs() const { return clockNsAt(m_clock.nowNs()); }

// The earliest virtual time at which the clock reads at least clockNs.
uint64_t RtcModel::virtualAt(int64_t clockNs) const {
    __int128 delta = static_cast<__int128>(clockNs) - m_baseClockNs;
    __int128 speed = 1000000 + m_driftPpm;
    __int128 v = (delta * 1000000 + speed - 1) / speed;
    return static_cast<uint64_t>(static_cast<__int128>(m_baseVirtualNs) + v);
}

namespace {
// Events at clock times k * 1e9 / rate: how many lie at or before clock time t.
__int128 eventsUpTo(int64_t t, int rate) {
    __int128 x = static_cast<__int128>(t) * rate;
    __int128 q = x / kNsPerSecond;
    if (x < 0 && q * kNsPerSecond != x) --q;
    return q;
}
}  // namespace

uint64_t RtcModel::interruptsBetween(uint64_t from, uint64_t to) const {
    if (to <= from) return 0;
    int64_t a = clockNsAt(from), b = clockNsAt(to);
    __int128 n = 0;
    if (m_pie) n += eventsUpTo(b, m_rate) - eventsUpTo(a, m_rate);
    if (m_uie) n += eventsUpTo(b, 1) - eventsUpTo(a, 1);
    return static_cast<uint64_t>(n);
}

uint64_t RtcModel::nextInterruptAfter(uint64_t t) const {
    int64_t c = clockNsAt(t);
    uint64_t best = 0;
    auto consider = [&](int rate) {
        __int128 k = eventsUpTo(c, rate) + 1;
        int64_t at = static_cast<int64_t>((k * kNsPerSecond + rate - 1) / rate);
        uint64_t v = virtualAt(at);
        if (v <= t) v = t + 1;
        if (best == 0 || v < best) best = v;
    };
    if (m_pie) consider(m_rate);
    if (m_uie) consider(1);
    return best;
}

}  // namespace quarn::vboard
