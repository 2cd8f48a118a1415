// A battery-backed CMOS clock behind /dev/rtc0, as the Linux RTC character device
// presents it: time keeping, setting, update and periodic interrupts, blocking reads.
#pragma once

#include <cstdint>

#include "vboard/DeviceModel.h"
#include "vboard/VirtualClock.h"

namespace quarn::vboard {

class RtcModel : public DeviceModel {
public:
    // startSeconds: the clock's time (seconds since the epoch) at virtual time now.
    RtcModel(VirtualClock& clock, int64_t startSeconds);

    std::unique_ptr<FileHandle> open(int flags) override;

    // Crystal error in parts per million: +20000 runs the clock 2% fast. Applies to time
    // keeping and to the interrupts, which come from the same divider chain.
    void setDriftPpm(int64_t ppm);
    // A driver without update-interrupt support answers RTC_UIE_ON/OFF with ENOTTY.
    void setUpdateInterruptSupported(bool supported) { m_uieSupported = supported; }
    // The clock's own time now, in nanoseconds since the epoch.
    int64_t clockNs() const;
    int periodicRate() const { return m_rate; }
    bool periodicEnabled() const { return m_pie; }

private:
    friend class RtcHandle;
    int64_t clockNsAt(uint64_t virtualNs) const;
    uint64_t virtualAt(int64_t clockNs) const;
    void rebase();
    // Number of interrupts between virtual times from (exclusive) and to (inclusive).
    uint64_t interruptsBetween(uint64_t from, uint64_t to) const;
    // Virtual time of the first interrupt after virtual time t, or 0 if none is enabled.
    uint64_t nextInterruptAfter(uint64_t t) const;

    VirtualClock& m_clock;
    int64_t m_baseClockNs;
    uint64_t m_baseVirtualNs;
    int64_t m_driftPpm = 0;
    bool m_uieSupported = true;
    bool m_open = false;
    bool m_uie = false;
    bool m_pie = false;
    int m_rate = 64;
    uint64_t m_lastAckNs = 0;  // interrupts up to here have been read
};

}  // namespace quarn::vboard
