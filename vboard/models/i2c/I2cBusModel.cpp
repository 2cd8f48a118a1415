// I2C on the simulated board: segments, switches and the i2c-dev adapter nodes.
#include "vboard/models/i2c/I2cBusModel.h"

#include <linux/i2c-dev.h>
#include <linux/i2c.h>

#include <algorithm>
#include <cstring>

namespace quarn::vboard {

namespace {
// Deeper than any real cascade; it only stops a mis-wired loop of switches.
constexpr int kMaxSwitchDepth = 16;
constexpr size_t kLogLimit = 4096;
constexpr size_t kLogBytes = 512;  // of each message; the rest is not kept
// i2c-dev refuses longer messages and longer read()/write() calls are cut to this.
constexpr uint16_t kMaxMessage = 8192;
constexpr unsigned long kFunctionality =
    I2C_FUNC_I2C | I2C_FUNC_SMBUS_EMUL | I2C_FUNC_SMBUS_READ_BLOCK_DATA;
}  // namespace

void I2cSegment::attach(uint8_t addr7, std::shared_ptr<I2cTarget> target) {
    m_targets.emplace(addr7 & 0x7F, std::move(target));
}

void I2cSegment::attachSwitch(uint8_t addr7, std::shared_ptr<Pca9548Model> sw) {
    attach(addr7, sw);
    m_switches.push_back(std::move(sw));
}

void I2cSegment::reachable(uint8_t addr7, std::vector<std::shared_ptr<I2cTarget>>* out,
                           int depth) const {
    if (depth > kMaxSwitchDepth) return;
    auto range = m_targets.equal_range(addr7);
    for (auto it = range.first; it != range.second; ++it)
        if (it->second->present()) out->push_back(it->second);
    for (const auto& sw : m_switches) {
        if (!sw->present()) continue;
        for (int k = 0; k < Pca9548Model::kChannels; ++k)
            if (sw->control() & (1u << k)) sw->channel(k).reachable(addr7, out, depth + 1);
    }
}

bool Pca9548Model::start(uint8_t, bool read) {
    if (!read) m_pendingValid = false;
    return true;
}

bool Pca9548Model::writeByte(uint8_t, uint8_t value) {
    // Of several bytes in one write, the part keeps the last.
    m_pending = value;
    m_pendingValid = true;
    return true;
}

void Pca9548Model::stop(uint8_t) {
    if (!m_pendingValid) return;
    m_control = m_pending;
    // The most recent writes are what tests look at; older ones are dropped.
    if (m_writes.size() >= kLogLimit) m_writes.erase(m_writes.begin(), m_writes.begin() + kLogLimit / 2);
    m_writes.push_back(m_pending);
    m_pendingValid = false;
}

void I2cAdapterModel::log(I2cWireMessage message) {
    if (message.data.size() > kLogBytes) message.data.resize(kLogBytes);
    if (m_log.size() >= kLogLimit) m_log.pop_front();
    m_log.push_back(std::move(message));
}

int I2cAdapterModel::transfer(struct i2c_msg* msgs, int count) {
    struct Started {
        std::shared_ptr<I2cTarget> target;
        uint8_t addr7;
    };
    std::vector<Started> started;
    auto stopAll = [&]() {
        for (auto& s : started) s.target->stop(s.addr7);
    };
    for (int i = 0; i < count; ++i) {
        struct i2c_msg& m = msgs[i];
        const uint8_t addr7 = static_cast<uint8_t>(m.addr & 0x7F);
        const bool read = (m.flags & I2C_M_RD) != 0;
        std::vector<std::shared_ptr<I2cTarget>> heard;
        m_segment.reachable(addr7, &heard);
        std::vector<std::shared_ptr<I2cTarget>> acked;
        for (auto& t : heard) {
            if (t->start(addr7, read)) acked.push_back(t);
            started.push_back({t, addr7});
        }
        I2cWireMessage wire{addr7, read, !acked.empty(), {}};
        if (acked.empty()) {
            log(std::move(wire));
            stopAll();
            return -ENXIO;
        }
        if (read) {
            // Open-drain: several devices answering at once read as their AND.
            auto readOne = [&]() {
                uint8_t b = 0xFF;
                for (auto& t : acked) b &= t->readByte(addr7);
                wire.data.push_back(b);
                return b;
            };
            uint16_t length = m.len;
            uint16_t at = 0;
            if (m.flags & I2C_M_RECV_LEN) {
                const uint8_t n = readOne();
                m.buf[0] = n;
                if (n == 0 || n > I2C_SMBUS_BLOCK_MAX) {
                    log(std::move(wire));
                    stopAll();
                    return -EPROTO;
                }
                length = static_cast<uint16_t>(n + 1);
                m.len = length;
                at = 1;
            }
            for (; at < length; ++at) m.buf[at] = readOne();
        } else {
            for (uint16_t j = 0; j < m.len; ++j) {
                bool ack = false;
                for (auto& t : acked) ack = t->writeByte(addr7, m.buf[j]) || ack;
                wire.data.push_back(m.buf[j]);
                if (!ack) {
                    log(std::move(wire));
                    stopAll();
                    return -EIO;
                }
            }
        }
        log(std::move(wire));
    }
    stopAll();
    return 0;
}

int I2cAdapterModel::smbus(uint8_t addr7, uint8_t readWrite, uint8_t command, uint32_t size,
                           union i2c_smbus_data* data) {
    uint8_t buf0[I2C_SMBUS_BLOCK_MAX + 3] = {0};
    uint8_t buf1[I2C_SMBUS_BLOCK_MAX + 2] = {0};
    struct i2c_msg msg[2];
    msg[0].addr = addr7;
    msg[0].flags = 0;
    msg[0].len = 1;
    msg[0].buf = buf0;
    msg[1].addr = addr7;
    msg[1].flags = I2C_M_RD;
    msg[1].len = 0;
    msg[1].buf = buf1;
    int count = readWrite == I2C_SMBUS_READ ? 2 : 1;
    buf0[0] = command;
    switch (size) {
    case I2C_SMBUS_QUICK:
        msg[0].len = 0;
        msg[0].flags = readWrite == I2C_SMBUS_READ ? I2C_M_RD : 0;
        count = 1;
        break;
    case I2C_SMBUS_BYTE:
        if (readWrite == I2C_SMBUS_READ) {
            msg[0].flags = I2C_M_RD;
            count = 1;
        }
        break;
    case I2C_SMBUS_BYTE_DATA:
        if (readWrite == I2C_SMBUS_READ) {
            msg[1].len = 1;
        } else {
            msg[0].len = 2;
            buf0[1] = data->byte;
        }
        break;
    case I2C_SMBUS_WORD_DATA:
        if (readWrite == I2C_SMBUS_READ) {
            msg[1].len = 2;
        } else {
            msg[0].len = 3;
            buf0[1] = static_cast<uint8_t>(data->word & 0xFF);
            buf0[2] = static_cast<uint8_t>(data->word >> 8);
        }
        break;
    case I2C_SMBUS_PROC_CALL:
        count = 2;
        readWrite = I2C_SMBUS_READ;
        msg[0].len = 3;
        msg[1].len = 2;
        buf0[1] = static_cast<uint8_t>(data->word & 0xFF);
        buf0[2] = static_cast<uint8_t>(data->word >> 8);
        break;
    case I2C_SMBUS_BLOCK_DATA:
        if (readWrite == I2C_SMBUS_READ) {
            msg[1].flags |= I2C_M_RECV_LEN;
            msg[1].len = 1;
        } else {
            if (data->block[0] > I2C_SMBUS_BLOCK_MAX) return -EINVAL;
            msg[0].len = static_cast<uint16_t>(data->block[0] + 2);
            memcpy(buf0 + 1, data->block, data->block[0] + 1u);
        }
        break;
    case I2C_SMBUS_I2C_BLOCK_DATA:
        if (data->block[0] > I2C_SMBUS_BLOCK_MAX) return -EINVAL;
        if (readWrite == I2C_SMBUS_READ) {
            msg[1].len = data->block[0];
        } else {
            msg[0].len = static_cast<uint16_t>(data->block[0] + 1);
            memcpy(buf0 + 1, data->block + 1, data->block[0]);
        }
        break;
    default:
        return -EOPNOTSUPP;
    }
    const int status = transfer(msg, count);
    if (status < 0) return status;
    if (readWrite == I2C_SMBUS_READ) {
        switch (size) {
        case I2C_SMBUS_BYTE:
            data->byte = buf0[0];
            break;
        case I2C_SMBUS_BYTE_DATA:
            data->byte = buf1[0];
            break;
        case I2C_SMBUS_WORD_DATA:
        case I2C_SMBUS_PROC_CALL:
            data->word = static_cast<uint16_t>(buf1[0] | (buf1[1] << 8));
            break;
        case I2C_SMBUS_I2C_BLOCK_DATA:
            memcpy(data->block + 1, buf1, data->block[0]);
            break;
        case I2C_SMBUS_BLOCK_DATA:
            memcpy(data->block, buf1, buf1[0] + 1u);
            break;
        default:
            break;
        }
    }
    return 0;
}

namespace {

class I2cDevHandle : public FileHandle {
public:
    explicit I2cDevHandle(I2cAdapterModel& model) : m_model(model) {}

    ssize_t read(void* buf, size_t count) override {
        const uint16_t n = static_cast<uint16_t>(std::min<size_t>(count, kMaxMessage));
        struct i2c_msg m = {m_address, I2C_M_RD, n, static_cast<__u8*>(buf)};
        std::lock_guard<std::mutex> lock(m_model.mutex());
        const int r = m_model.transfer(&m, 1);
        return r < 0 ? fail(-r) : n;
    }

    ssize_t write(const void* buf, size_t count) override {
        const uint16_t n = static_cast<uint16_t>(std::min<size_t>(count, kMaxMessage));
        std::vector<uint8_t> copy(static_cast<const uint8_t*>(buf), static_cast<const uint8_t*>(buf) + n);
        struct i2c_msg m = {m_address, 0, n, copy.data()};
        std::lock_guard<std::mutex> lock(m_model.mutex());
        const int r = m_model.transfer(&m, 1);
        return r < 0 ? fail(-r) : n;
    }

    int ioctl(unsigned long request, void* arg) override {
        const unsigned long value = reinterpret_cast<unsigned long>(arg);
        std::lock_guard<std::mutex> lock(m_model.mutex());
        switch (request) {
        case I2C_SLAVE:
        case I2C_SLAVE_FORCE:
            if (value > 0x7F) return static_cast<int>(fail(EINVAL));
            if (request == I2C_SLAVE && m_model.claimed(static_cast<uint8_t>(value)))
                return static_cast<int>(fail(EBUSY));
            m_address = static_cast<uint16_t>(value);
            return 0;
        case I2C_TENBIT:
            return value ? static_cast<int>(fail(EINVAL)) : 0;
        case I2C_PEC:
        case I2C_RETRIES:
        case I2C_TIMEOUT:
            return 0;
        case I2C_FUNCS:
            if (!arg) return static_cast<int>(fail(EFAULT));
            *static_cast<unsigned long*>(arg) = kFunctionality;
            return 0;
        case I2C_RDWR:
            return rdwr(static_cast<struct i2c_rdwr_ioctl_data*>(arg));
        case I2C_SMBUS:
            return smbus(static_cast<struct i2c_smbus_ioctl_data*>(arg));
        default:
            return static_cast<int>(fail(ENOTTY));
        }
    }

private:
    // The checks i2c-dev makes before a combined transfer reaches the adapter.
    int rdwr(struct i2c_rdwr_ioctl_data* request) {
        if (!request || !request->msgs) return static_cast<int>(fail(EFAULT));
        if (request->nmsgs > I2C_RDWR_IOCTL_MAX_MSGS) return static_cast<int>(fail(EINVAL));
        std::vector<struct i2c_msg> msgs(request->msgs, request->msgs + request->nmsgs);
        for (auto& m : msgs) {
            if (m.len > kMaxMessage) return static_cast<int>(fail(EINVAL));
            if (m.len > 0 && !m.buf) return static_cast<int>(fail(EFAULT));
            if (m.flags & I2C_M_TEN) return static_cast<int>(fail(EINVAL));
            if (m.flags & I2C_M_RECV_LEN) {
                if (!(m.flags & I2C_M_RD) || m.len < 1 || m.buf[0] < 1 ||
                    m.len < m.buf[0] + I2C_SMBUS_BLOCK_MAX)
                    return static_cast<int>(fail(EINVAL));
            }
        }
        const int r = m_model.transfer(msgs.data(), static_cast<int>(msgs.size()));
        if (r < 0) return static_cast<int>(fail(-r));
        for (size_t i = 0; i < msgs.size(); ++i) request->msgs[i].len = msgs[i].len;
        return static_cast<int>(msgs.size());
    }

    // The checks and conversions i2c-dev makes around an SMBus request.
    int smbus(struct i2c_smbus_ioctl_data* request) {
        if (!request) return static_cast<int>(fail(EFAULT));
        uint32_t size = request->size;
        const uint8_t rw = request->read_write;
        switch (size) {
        case I2C_SMBUS_QUICK:
        case I2C_SMBUS_BYTE:
        case I2C_SMBUS_BYTE_DATA:
        case I2C_SMBUS_WORD_DATA:
        case I2C_SMBUS_PROC_CALL:
        case I2C_SMBUS_BLOCK_DATA:
        case I2C_SMBUS_I2C_BLOCK_BROKEN:
        case I2C_SMBUS_BLOCK_PROC_CALL:
        case I2C_SMBUS_I2C_BLOCK_DATA:
            break;
        default:
            return static_cast<int>(fail(EINVAL));
        }
        if (rw != I2C_SMBUS_READ && rw != I2C_SMBUS_WRITE) return static_cast<int>(fail(EINVAL));
        if (size == I2C_SMBUS_QUICK || (size == I2C_SMBUS_BYTE && rw == I2C_SMBUS_WRITE)) {
            const int r = m_model.smbus(static_cast<uint8_t>(m_address), rw, request->command, size, nullptr);
            return r < 0 ? static_cast<int>(fail(-r)) : 0;
        }
        if (!request->data) return static_cast<int>(fail(EINVAL));
        union i2c_smbus_data temp;
        memcpy(&temp, request->data, sizeof(temp));
        if (size == I2C_SMBUS_I2C_BLOCK_BROKEN) {
            size = I2C_SMBUS_I2C_BLOCK_DATA;
            if (rw == I2C_SMBUS_READ) temp.block[0] = I2C_SMBUS_BLOCK_MAX;
        }
        const int r = m_model.smbus(static_cast<uint8_t>(m_address), rw, request->command, size, &temp);
        if (r < 0) return static_cast<int>(fail(-r));
        if (rw == I2C_SMBUS_READ || size == I2C_SMBUS_PROC_CALL) memcpy(request->data, &temp, sizeof(temp));
        return 0;
    }

    I2cAdapterModel& m_model;
    uint16_t m_address = 0;
};

}  // namespace

std::unique_ptr<FileHandle> I2cAdapterModel::open(int) { return std::make_unique<I2cDevHandle>(*this); }

}  // namespace quarn::vboard
