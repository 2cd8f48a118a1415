// Virtual time of the simulated board: it moves only when something waits, so a test
// of "wait 3 s" takes no real time at all.
#pragma once

#include <atomic>
#include <cstdint>

namespace quarn::vboard {

class VirtualClock {
public:
    uint64_t nowNs() const { return m_now.load(std::memory_order_acquire); }
    void advanceNs(uint64_t ns) { m_now.fetch_add(ns, std::memory_order_acq_rel); }
    // Moves forward to t; never backwards.
    void advanceTo(uint64_t t) {
        uint64_t cur = m_now.load(std::memory_order_acquire);
        while (cur < t && !m_now.compare_exchange_weak(cur, t, std::memory_order_acq_rel)) {
        }
    }

private:
    std::atomic<uint64_t> m_now{0};
};

}  // namespace quarn::vboard
