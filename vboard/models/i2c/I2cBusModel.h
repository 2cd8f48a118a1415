// I2C on the simulated board: targets on bus segments, PCA9548-style switches that join
// segments, and the i2c-dev adapter node "/dev/i2c-N" of each physical bus.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "vboard/DeviceModel.h"

struct i2c_msg;
union i2c_smbus_data;

namespace quarn::vboard {

// A device on a segment, driven by the bus conditions it sees: START (or repeated START)
// with its address, data bytes, STOP. New device kinds (sensors, PMBus supplies, battery
// gauges) derive from this or from SmbusDeviceModel. addr7 is the address the master
// used, so one target can answer several addresses.
class I2cTarget {
public:
    virtual ~I2cTarget() = default;
    // The address byte; true = ACK.
    virtual bool start(uint8_t addr7, bool read) = 0;
    // A byte from the master; true = ACK.
    virtual bool writeByte(uint8_t addr7, uint8_t value) = 0;
    // A byte to the master.
    virtual uint8_t readByte(uint8_t addr7) = 0;
    virtual void stop(uint8_t addr7) {}

    // An absent (unpowered, unplugged) device does not acknowledge anything.
    void setPresent(bool present) { m_present = present; }
    bool present() const { return m_present; }

private:
    bool m_present = true;
};

class Pca9548Model;

// One electrical bus segment: the targets wired to it and the switches hanging off it.
class I2cSegment {
public:
    void attach(uint8_t addr7, std::shared_ptr<I2cTarget> target);
    // A switch answers at addr7 itself and joins its channel segments to this one.
    void attachSwitch(uint8_t addr7, std::shared_ptr<Pca9548Model> sw);
    // Every present target that hears addr7 now: this segment's and those behind the
    // currently connected channels of its switches.
    void reachable(uint8_t addr7, std::vector<std::shared_ptr<I2cTarget>>* out, int depth = 0) const;

private:
    std::multimap<uint8_t, std::shared_ptr<I2cTarget>> m_targets;
    std::vector<std::shared_ptr<Pca9548Model>> m_switches;
};

// An 8-channel switch (NXP PCA9548A): one control register, bit k connects channel k.
// A new value takes effect at the STOP that ends the write, as on the part.
class Pca9548Model : public I2cTarget {
public:
    static constexpr int kChannels = 8;
    I2cSegment& channel(int k) { return m_channels[k & 7]; }
    const I2cSegment& channel(int k) const { return m_channels[k & 7]; }
    uint8_t control() const { return m_control; }
    // Control values written, in order (each one applied at its STOP).
    const std::vector<uint8_t>& controlWrites() const { return m_writes; }
    void clearControlWrites() { m_writes.clear(); }
    // The RESET pin: every channel disconnected.
    void reset() { m_control = 0; }

    bool start(uint8_t addr7, bool read) override;
    bool writeByte(uint8_t addr7, uint8_t value) override;
    uint8_t readByte(uint8_t addr7) override { return m_control; }
    void stop(uint8_t addr7) override;

private:
    I2cSegment m_channels[kChannels];
    uint8_t m_control = 0;
    bool m_pendingValid = false;
    uint8_t m_pending = 0;
    std::vector<uint8_t> m_writes;
};

// One message as the adapter put it on the wire.
struct I2cWireMessage {
    uint8_t addr7;
    bool read;
    bool acked;  // address acknowledged
    std::vector<uint8_t> data;  // the first 512 bytes
};

// The adapter of a physical bus and its i2c-dev node: I2C_SLAVE(_FORCE), I2C_FUNCS,
// I2C_SMBUS (every size, emulated over plain I2C messages as the kernel does for an
// I2C-level adapter), I2C_RDWR, read and write. An address nobody acknowledges fails
// with ENXIO; a data byte that is not acknowledged with EIO.
class I2cAdapterModel : public DeviceModel {
public:
    std::unique_ptr<FileHandle> open(int flags) override;

    I2cSegment& segment() { return m_segment; }
    // An address bound to a kernel driver: I2C_SLAVE answers EBUSY, I2C_SLAVE_FORCE works.
    void claimAddress(uint8_t addr7) { m_claimed.insert(addr7); }
    bool claimed(uint8_t addr7) const { return m_claimed.count(addr7) != 0; }
    // Messages on the wire, oldest first (the last 4096 are kept).
    const std::deque<I2cWireMessage>& wireLog() const { return m_log; }
    void clearWireLog() { m_log.clear(); }

    // Runs messages as one transfer (repeated STARTs, one STOP). 0 or -errno.
    int transfer(struct i2c_msg* msgs, int count);
    // The kernel's SMBus request on top of transfer(); 0 or -errno.
    int smbus(uint8_t addr7, uint8_t readWrite, uint8_t command, uint32_t size,
              union i2c_smbus_data* data);

private:
    void log(I2cWireMessage message);

    I2cSegment m_segment;
    std::set<uint8_t> m_claimed;
    std::deque<I2cWireMessage> m_log;
};

}  // namespace quarn::vboard
