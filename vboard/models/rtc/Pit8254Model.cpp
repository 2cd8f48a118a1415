// The 8254 programmable interval timer on ports 0x40-0x43.
#include "vboard/models/rtc/Pit8254Model.h"

namespace quarn::vboard {

namespace {
constexpr uint16_t kDataPort0 = 0x40;
constexpr uint16_t kControlPort = 0x43;
}  // namespace

// Counting follows the 8254 data sheet: the CLK pulse after the count is written loads
// it, later pulses count. Gate inputs are high (counter 0 of a PC has its gate tied
// high), so the gate-triggered modes 1 and 5 never start and hold their count.
void Pit8254Model::state(const Counter& c, uint16_t* ce, bool* out) const {
    if (!c.loaded) {
        *ce = 0;
        *out = c.mode != 0;
        return;
    }
    const uint64_t elapsedNs = m_clock.nowNs() - c.loadNs;
    const uint64_t ticks = static_cast<uint64_t>(
        (static_cast<unsigned __int128>(elapsedNs) * kInputHz) / 1000000000ULL);
    const uint64_t n = c.initial;
    if (ticks == 0) {  // not loaded into the counting element yet
        *ce = static_cast<uint16_t>(n);
        *out = c.mode != 0;
        return;
    }
    const uint64_t e = ticks - 1;  // decrementing pulses so far
    switch (c.mode) {
    case 0:  // interrupt on terminal count
        *ce = static_cast<uint16_t>((n + 65536 * 4 - (e % 65536)) % 65536);
        *out = e >= n;
        break;
    case 2: {  // rate generator: N .. 1, OUT low while the count is 1
        uint64_t v = n - (e % n);
        *ce = static_cast<uint16_t>(v);
        *out = !(v == 1 && n > 1);
        break;
    }
    case 3: {  // square wave
        if (n % 2 == 0) {
            uint64_t half = n / 2;
            *ce = static_cast<uint16_t>(n - 2 * (e % half));
            *out = ((e / half) % 2) == 0;
        } else {
            // Odd counts: high for (N+1)/2 pulses, low for (N-1)/2. The first pulse of
            // the high half takes 1 off, the first of the low half 3, the others 2.
            uint64_t p = e % n;
            uint64_t highLen = (n + 1) / 2;
            if (p == 0) {
                *ce = static_cast<uint16_t>(n);
                *out = true;
            } else if (p < highLen) {
                *ce = static_cast<uint16_t>(n + 1 - 2 * p);
                *out = true;
            } else if (p == highLen) {
                *ce = static_cast<uint16_t>(n);
                *out = false;
            } else {
                *ce = static_cast<uint16_t>(n - 1 - 2 * (p - highLen));
                *out = false;
            }
        }
        break;
    }
    case 4:  // software-triggered strobe: one low pulse when the count reaches 0
        *ce = static_cast<uint16_t>((n + 65536 * 4 - (e % 65536)) % 65536);
        *out = e != n;
        break;
    default:  // 1 and 5 wait for a gate edge that never comes
        *ce = static_cast<uint16_t>(n);
        *out = true;
        break;
    }
}

uint8_t Pit8254Model::statusByte(const Counter& c) const {
    uint16_t ce;
    bool out;
    state(c, &ce, &out);
    return static_cast<uint8_t>((out ? 0x80 : 0) | (c.nullCount ? 0x40 : 0) | (c.rw << 4) |
                                (c.mode << 1) | (c.bcd ? 1 : 0));
}

void Pit8254Model::writeControl(uint8_t value) {
    const int sc = value >> 6;
    if (sc == 3) {  // read-back: bit 5 low latches counts, bit 4 low latches status
        for (int i = 0; i < 3; ++i) {
            if (!(value & (2 << i))) continue;
            Counter& c = m_counters[i];
            if (!(value & 0x10) && !c.statusLatched) {
                c.latchedStatus = statusByte(c);
                c.statusLatched = true;
            }
            if (!(value & 0x20) && !c.countLatched) {
                bool out;
                state(c, &c.latchedCount, &out);
                c.countLatched = true;
                c.latchedMsbNext = false;
            }
        }
        return;
    }
    Counter& c = m_counters[sc];
    const int rw = (value >> 4) & 3;
    if (rw == 0) {  // counter latch; a second latch before the read is ignored
        if (!c.countLatched) {
            bool out;
            state(c, &c.latchedCount, &out);
            c.countLatched = true;
            c.latchedMsbNext = false;
        }
        return;
    }
    int mode = (value >> 1) & 7;
    if (mode > 5) mode -= 4;  // 6 and 7 are 2 and 3
    c = Counter();
    c.rw = rw;
    c.mode = mode;
    c.bcd = value & 1;
    c.programmed = true;
}

void Pit8254Model::writeData(Counter& c, uint8_t value) {
    if (!c.programmed) return;
    uint32_t count;
    if (c.rw == 1) {
        count = value;
    } else if (c.rw == 2) {
        count = static_cast<uint32_t>(value) << 8;
    } else if (!c.writeMsbNext) {
        c.pendingLsb = value;
        c.writeMsbNext = true;
        // Mode 0 stops counting when the first byte of a new count is written.
        if (c.mode == 0) c.loaded = false;
        return;
    } else {
        count = c.pendingLsb | (static_cast<uint32_t>(value) << 8);
        c.writeMsbNext = false;
    }
    if (c.bcd) {
        uint32_t dec = 0, scale = 1;
        for (int d = 0; d < 4; ++d, count >>= 4, scale *= 10) dec += (count & 0xF) % 10 * scale;
        count = dec == 0 ? 10000 : dec;
    } else if (count == 0) {
        count = 65536;
    }
    c.initial = count;
    c.loadNs = m_clock.nowNs();
    c.loaded = true;
    c.nullCount = false;
}

uint8_t Pit8254Model::readData(Counter& c) {
    if (c.statusLatched) {
        c.statusLatched = false;
        return c.latchedStatus;
    }
    uint16_t value;
    bool msb;
    if (c.countLatched) {
        value = c.latchedCount;
        msb = c.rw == 2 || (c.rw == 3 && c.latchedMsbNext);
        if (c.rw == 3 && !c.latchedMsbNext) {
            c.latchedMsbNext = true;
        } else {
            c.countLatched = false;
            c.latchedMsbNext = false;
        }
    } else {
        bool out;
        state(c, &value, &out);
        msb = c.rw == 2 || (c.rw == 3 && c.readMsbNext);
        if (c.rw == 3) c.readMsbNext = !c.readMsbNext;
    }
    return static_cast<uint8_t>(msb ? value >> 8 : value & 0xFF);
}

uint32_t Pit8254Model::in(uint16_t port, int size) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (port == kControlPort) return size == 1 ? 0xFF : 0xFFFFFFFFu;  // write-only
    uint32_t v = readData(m_counters[port - kDataPort0]);
    return size == 1 ? v : (v | 0xFFFFFF00u);
}

void Pit8254Model::out(uint16_t port, uint32_t value, int) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (port == kControlPort)
        writeControl(static_cast<uint8_t>(value));
    else
        writeData(m_counters[port - kDataPort0], static_cast<uint8_t>(value));
}

int Pit8254Model::mode(int counter) const { return m_counters[counter].mode; }

bool Pit8254Model::output(int counter) {
    std::lock_guard<std::mutex> lock(m_mutex);
    uint16_t ce;
    bool out;
    state(m_counters[counter], &ce, &out);
    return out;
}

uint16_t Pit8254Model::count(int counter) {
    std::lock_guard<std::mutex> lock(m_mutex);
    uint16_t ce;
    bool out;
    state(m_counters[counter], &ce, &out);
    return ce;
}

}  // namespace quarn::vboard
