// One physical I2C bus: the i2c-dev node "/dev/i2c-N" and the kernel transfers on it.
#include "ddapi/i2c/I2CBus.h"

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "api/StringUtil.h"
#include "api/platform/Platform.h"

namespace {
constexpr ERRORCODE kRead = 0xCF080400;
constexpr ERRORCODE kWrite = 0xCF080800;

constexpr ERRORCODE kNodeOpenFail = 0x01;
constexpr ERRORCODE kSetSlaveFail = 0x04;
constexpr ERRORCODE kReadByteFail = 0x05;
constexpr ERRORCODE kReadByteDataFail = 0x06;
constexpr ERRORCODE kReadWordFail = 0x07;
constexpr ERRORCODE kReadBlockFail = 0x08;
constexpr ERRORCODE kReadI2CBlockFail = 0x09;
constexpr ERRORCODE kWriteByteFail = 0x0A;
constexpr ERRORCODE kWriteByteDataFail = 0x0B;
constexpr ERRORCODE kWriteWordFail = 0x0C;
constexpr ERRORCODE kWriteBlockFail = 0x0D;
constexpr ERRORCODE kWriteI2CBlockFail = 0x0E;
constexpr ERRORCODE kOutOfRange = 0x219;

// EE1004 page-address commands (SPA0, SPA1), 8-bit form.
constexpr int kSpdPage0 = 0x6C;
constexpr int kSpdPage1 = 0x6E;

// Closes the node on every way out of a transfer.
class Node {
public:
    explicit Node(int fd) : m_fd(fd) {}
    ~Node() {
        if (m_fd >= 0) quarn::platform().close(m_fd);
    }
    int fd() const { return m_fd; }

private:
    int m_fd;
};
}  // namespace

I2CBus::I2CBus(const char* class_name, const char* bus_name, int bus_id, int frequency_,
               const char* master_)
    : BaseClassDDAPI(class_name),
      Bus_name(bus_name ? bus_name : ""),
      Bus_ID(bus_id),
      frequency(frequency_),
      master(master_ ? master_ : "") {}

I2CBus::~I2CBus() = default;

ErrorMsg* I2CBus::transferError(ERRORCODE code, int err) {
    return returnErrorMsg(code, quarn::systemErrorText(err).c_str(), nullptr);
}

ErrorMsg* I2CBus::openDevice(ERRORCODE function, int address, int* fd) {
    char node[32];
    snprintf(node, sizeof(node), "/dev/i2c-%d", Bus_ID);
    *fd = quarn::platform().open(node, O_RDWR);
    if (*fd < 0) return transferError(function | kNodeOpenFail, errno);
    if (I2C_set_slave_address(*fd, address) < 0) {
        const int err = errno;
        quarn::platform().close(*fd);
        *fd = -1;
        return transferError(function | kSetSlaveFail, err);
    }
    return nullptr;
}

ErrorMsg* I2CBus::selectSpdPage(ERRORCODE function, int fd, int address, int reg) {
    // Both SPD page-address commands are broadcast to every EE1004 on the segment; the
    // read half of the call after SPA1 is not acknowledged, so its result means nothing.
    I2C_set_slave_address(fd, reg < 256 ? kSpdPage0 : kSpdPage1);
    I2C_smbus_read_byte_data(fd, static_cast<unsigned char>(reg & 0xFF));
    if (I2C_set_slave_address(fd, address) < 0) return transferError(function | kSetSlaveFail, errno);
    return nullptr;
}

ErrorMsg* I2CBus::read(int address, int start, int end, I2C_DEVICE_PROTOCOL protocol, int* data,
                       int* count, I2C_DEVICE_TYPE type, int capacity) {
    if (count) *count = 0;
    if (protocol > I2C_DEVICE_PROTOCOL_PMBUS_BLOCK) return nullptr;
    if (protocol == I2C_DEVICE_PROTOCOL_SMBUS_PROCESS_CALL) {
        printf("I2C_DEVICE_PROTOCOL_SMBUS_PROCESS_CALL\n");
        return nullptr;
    }
    if (!data || !count) return returnErrorMsg(kRead | kOutOfRange, "null buffer", nullptr);
    if (address < 0 || address > 0xFF) {
        formatMessage("address 0x%x is not an 8-bit address", address);
        return returnErrorMsg(kRead | kOutOfRange, m_message, nullptr);
    }
    capacity = std::min(capacity, quarn::i2c::kMaxTransferValues);
    const bool perRegister = protocol == I2C_DEVICE_PROTOCOL_SMBUS_BYTE_DATA ||
                             protocol == I2C_DEVICE_PROTOCOL_SMBUS_WORD_DATA ||
                             protocol == I2C_DEVICE_PROTOCOL_VPD_BLOCK_DATA;
    if (perRegister && end < start) return nullptr;
    // The value count is known before the transfer for these; a block's only after it.
    const long long wanted = perRegister ? static_cast<long long>(end) - start + 1
                                         : (protocol == I2C_DEVICE_PROTOCOL_SMBUS_BYTE ? 1 : 0);
    if (wanted > capacity) {
        formatMessage("%lld values do not fit a buffer of %d", wanted, capacity);
        return returnErrorMsg(kRead | kOutOfRange, m_message, nullptr);
    }

    int fd = -1;
    if (ErrorMsg* e = openDevice(kRead, address, &fd)) return e;
    Node node(fd);

    switch (protocol) {
    case I2C_DEVICE_PROTOCOL_SMBUS_BYTE: {
        const int v = I2C_smbus_read_byte(fd);
        if (v < 0) return transferError(kRead | kReadByteFail, errno);
        data[0] = v;
        *count = 1;
        return nullptr;
    }
    case I2C_DEVICE_PROTOCOL_SMBUS_BYTE_DATA:
        for (int reg = start; reg <= end; ++reg) {
            if (type == I2C_DEVICE_TYPE_SPD_DDR4)
                if (ErrorMsg* e = selectSpdPage(kRead, fd, address, reg)) return e;
            const int v = I2C_smbus_read_byte_data(fd, static_cast<unsigned char>(reg & 0xFF));
            if (v < 0) return transferError(kRead | kReadByteDataFail, errno);
            data[(*count)++] = v;
        }
        return nullptr;
    case I2C_DEVICE_PROTOCOL_SMBUS_WORD_DATA:
        for (int reg = start; reg <= end; ++reg) {
            const int v = I2C_smbus_read_word_data(fd, static_cast<unsigned char>(reg & 0xFF));
            if (v < 0) return transferError(kRead | kReadWordFail, errno);
            data[(*count)++] = v;
        }
        return nullptr;
    case I2C_DEVICE_PROTOCOL_SMBUS_BLOCK_DATA: {
        unsigned char values[I2C_SMBUS_BLOCK_MAX + 2] = {0};
        const int n = I2C_smbus_read_block_data(fd, static_cast<unsigned char>(start & 0xFF), values);
        if (n < 0) return transferError(kRead | kReadBlockFail, errno);
        if (n > capacity) {
            formatMessage("block of %d bytes does not fit a buffer of %d", n, capacity);
            return returnErrorMsg(kRead | kReadBlockFail, m_message, nullptr);
        }
        for (int i = 0; i < n; ++i) data[i] = values[i];
        *count = n;
        return nullptr;
    }
    case I2C_DEVICE_PROTOCOL_SMBUS_I2C_BLOCK_DATA:
    case I2C_DEVICE_PROTOCOL_PMBUS_BLOCK: {
        unsigned char values[I2C_SMBUS_BLOCK_MAX + 2] = {0};
        const int got = I2c_smbus_read_i2c_block_data(fd, static_cast<unsigned char>(start & 0xFF), values);
        if (got < 0) return transferError(kRead | kReadI2CBlockFail, errno);
        // The device's own count byte leads the 32 bytes; it is device data, so it is
        // checked against what was fetched before it can index anything.
        const int n = got > 0 ? values[0] : 0;
        if (n == 0) return returnErrorMsg(kRead | kReadI2CBlockFail, "block count 0", nullptr);
        if (n > quarn::i2c::kMaxI2CBlockCount || n > got - 1) {
            formatMessage("block count %d above %d", n, std::min(got - 1, quarn::i2c::kMaxI2CBlockCount));
            return returnErrorMsg(kRead | kReadI2CBlockFail, m_message, nullptr);
        }
        if (n > capacity) {
            formatMessage("block of %d bytes does not fit a buffer of %d", n, capacity);
            return returnErrorMsg(kRead | kReadI2CBlockFail, m_message, nullptr);
        }
        for (int i = 0; i < n; ++i) data[i] = values[1 + i];
        *count = n;
        return nullptr;
    }
    case I2C_DEVICE_PROTOCOL_VPD_BLOCK_DATA: {
        unsigned char offset[2] = {static_cast<unsigned char>((start >> 8) & 0x1F),
                                   static_cast<unsigned char>(start & 0xFF)};
        if (I2C_access(fd, 0, address, 2, offset) < 0)
            return transferError(kRead | kReadI2CBlockFail, errno);
        static thread_local unsigned char buffer[quarn::i2c::kMaxTransferValues];
        const int n = static_cast<int>(wanted);
        if (I2C_access(fd, I2C_M_RD, address, static_cast<unsigned short>(n), buffer) < 0)
            return transferError(kRead | kReadI2CBlockFail, errno);
        for (int i = 0; i < n; ++i) data[i] = buffer[i];
        *count = n;
        return nullptr;
    }
    default:
        return nullptr;
    }
}

ErrorMsg* I2CBus::write(int address, int reg, I2C_DEVICE_PROTOCOL protocol, int* data, int length,
                        I2C_DEVICE_TYPE type) {
    int count = 0;
    return write(address, reg, protocol, data, length, &count, type);
}

ErrorMsg* I2CBus::write(int address, int reg, I2C_DEVICE_PROTOCOL protocol, int* data, int length,
                        int* count, I2C_DEVICE_TYPE type) {
    int ignored = 0;
    if (!count) count = &ignored;
    *count = 0;
    if (protocol > I2C_DEVICE_PROTOCOL_PMBUS_BLOCK ||
        protocol == I2C_DEVICE_PROTOCOL_SMBUS_PROCESS_CALL)
        return nullptr;
    if (length < 0 || length > quarn::i2c::kMaxTransferValues || (length > 0 && !data)) {
        formatMessage("length %d outside 0 to %d", length, quarn::i2c::kMaxTransferValues);
        return returnErrorMsg(kWrite | kOutOfRange, m_message, nullptr);
    }
    if (address < 0 || address > 0xFF) {
        formatMessage("address 0x%x is not an 8-bit address", address);
        return returnErrorMsg(kWrite | kOutOfRange, m_message, nullptr);
    }

    int fd = -1;
    if (ErrorMsg* e = openDevice(kWrite, address, &fd)) return e;
    Node node(fd);

    switch (protocol) {
    case I2C_DEVICE_PROTOCOL_SMBUS_BYTE:
        for (int i = 0; i < length; ++i) {
            if (I2C_smbus_write_byte(fd, static_cast<unsigned char>(data[i])) < 0)
                return transferError(kWrite | kWriteByteFail, errno);
            ++*count;
        }
        return nullptr;
    case I2C_DEVICE_PROTOCOL_SMBUS_BYTE_DATA:
        for (int i = 0; i < length; ++i) {
            const int r = reg + i;
            if (type == I2C_DEVICE_TYPE_SPD_DDR4)
                if (ErrorMsg* e = selectSpdPage(kWrite, fd, address, r)) return e;
            if (I2C_smbus_write_byte_data(fd, static_cast<unsigned char>(r & 0xFF),
                                          static_cast<unsigned char>(data[i])) < 0)
                return transferError(kWrite | kWriteByteDataFail, errno);
            ++*count;
        }
        return nullptr;
    case I2C_DEVICE_PROTOCOL_SMBUS_WORD_DATA:
        for (int i = 0; i < length / 2; ++i) {
            const unsigned short word = static_cast<unsigned short>(((data[2 * i] & 0xFF) << 8) |
                                                                    (data[2 * i + 1] & 0xFF));
            if (I2C_smbus_write_word_data(fd, static_cast<unsigned char>((reg + i) & 0xFF), word) < 0)
                return transferError(kWrite | kWriteWordFail, errno);
            ++*count;
        }
        return nullptr;
    case I2C_DEVICE_PROTOCOL_SMBUS_BLOCK_DATA:
    case I2C_DEVICE_PROTOCOL_PMBUS_BLOCK: {
        unsigned char values[I2C_SMBUS_BLOCK_MAX] = {0};
        const int n = std::min(length, I2C_SMBUS_BLOCK_MAX);
        for (int i = 0; i < n; ++i) values[i] = static_cast<unsigned char>(data[i]);
        if (I2C_smbus_write_block_data(fd, static_cast<unsigned char>(reg & 0xFF),
                                       static_cast<unsigned char>(n), values) < 0)
            return transferError(kWrite | kWriteBlockFail, errno);
        if (protocol == I2C_DEVICE_PROTOCOL_SMBUS_BLOCK_DATA) ++*count;
        return nullptr;
    }
    case I2C_DEVICE_PROTOCOL_SMBUS_I2C_BLOCK_DATA: {
        unsigned char values[I2C_SMBUS_BLOCK_MAX] = {0};
        const int n = std::min(length, I2C_SMBUS_BLOCK_MAX);
        for (int i = 0; i < n; ++i) values[i] = static_cast<unsigned char>(data[i]);
        I2C_smbus_write_i2c_block_data(fd, static_cast<unsigned char>(reg & 0xFF),
                                       static_cast<unsigned char>(n), values);
        ++*count;
        return nullptr;
    }
    case I2C_DEVICE_PROTOCOL_VPD_BLOCK_DATA: {
        // A 24Cxx page write wraps inside its page, so no piece may cross a page end.
        unsigned char piece[2 + quarn::i2c::kVpdPageSize];
        int done = 0;
        while (done < length) {
            const int a = reg + done;
            const int room = quarn::i2c::kVpdPageSize - (a % quarn::i2c::kVpdPageSize);
            const int n = std::min(room, length - done);
            piece[0] = static_cast<unsigned char>((a >> 8) & 0x1F);
            piece[1] = static_cast<unsigned char>(a & 0xFF);
            for (int i = 0; i < n; ++i) piece[2 + i] = static_cast<unsigned char>(data[done + i]);
            if (I2C_access(fd, 0, address, static_cast<unsigned short>(2 + n), piece) < 0)
                return transferError(kWrite | kWriteI2CBlockFail, errno);
            done += n;
        }
        *count = length;
        return nullptr;
    }
    default:
        return nullptr;
    }
}

int I2CBus::I2C_set_slave_address(int fd, int address) {
    return quarn::ioctlValue(quarn::platform(), fd, I2C_SLAVE,
                             static_cast<unsigned long>(address >> 1));
}

int I2CBus::I2C_smbus_access(int fd, char read_write, unsigned char command, int size,
                             union i2c_smbus_data* data) {
    struct i2c_smbus_ioctl_data args;
    args.read_write = static_cast<__u8>(read_write);
    args.command = command;
    args.size = static_cast<__u32>(size);
    args.data = data;
    return quarn::platform().ioctl(fd, I2C_SMBUS, &args);
}

int I2CBus::I2C_access(int fd, unsigned short flags, int address, unsigned short length,
                       unsigned char* buffer) {
    struct i2c_msg msg;
    msg.addr = static_cast<__u16>(address >> 1);
    msg.flags = flags;
    msg.len = length;
    msg.buf = buffer;
    struct i2c_rdwr_ioctl_data args;
    args.msgs = &msg;
    args.nmsgs = 1;
    return quarn::platform().ioctl(fd, I2C_RDWR, &args);
}

int I2CBus::I2C_smbus_read_byte(int fd) {
    union i2c_smbus_data data;
    memset(&data, 0, sizeof(data));
    if (I2C_smbus_access(fd, I2C_SMBUS_READ, 0, I2C_SMBUS_BYTE, &data) < 0) return -1;
    return data.byte;
}

int I2CBus::I2C_smbus_write_byte(int fd, unsigned char value) {
    return I2C_smbus_access(fd, I2C_SMBUS_WRITE, value, I2C_SMBUS_BYTE, nullptr);
}

int I2CBus::I2C_smbus_read_byte_data(int fd, unsigned char command) {
    union i2c_smbus_data data;
    memset(&data, 0, sizeof(data));
    if (I2C_smbus_access(fd, I2C_SMBUS_READ, command, I2C_SMBUS_BYTE_DATA, &data) < 0) return -1;
    return data.byte;
}

int I2CBus::I2C_smbus_write_byte_data(int fd, unsigned char command, unsigned char value) {
    union i2c_smbus_data data;
    memset(&data, 0, sizeof(data));
    data.byte = value;
    return I2C_smbus_access(fd, I2C_SMBUS_WRITE, command, I2C_SMBUS_BYTE_DATA, &data);
}

int I2CBus::I2C_smbus_read_word_data(int fd, unsigned char command) {
    union i2c_smbus_data data;
    memset(&data, 0, sizeof(data));
    if (I2C_smbus_access(fd, I2C_SMBUS_READ, command, I2C_SMBUS_WORD_DATA, &data) < 0) return -1;
    return data.word & 0xFFFF;
}

int I2CBus::I2C_smbus_write_word_data(int fd, unsigned char command, unsigned short value) {
    union i2c_smbus_data data;
    memset(&data, 0, sizeof(data));
    data.word = value;
    return I2C_smbus_access(fd, I2C_SMBUS_WRITE, command, I2C_SMBUS_WORD_DATA, &data);
}

// Block reads and writes of both kinds (SMBus block with the length from the device,
// I2C block with the length asked for) share the buffer handling.
int I2CBus::readBlock(int fd, unsigned char command, int size, unsigned char* values) {
    union i2c_smbus_data data;
    memset(&data, 0, sizeof(data));
    if (size == I2C_SMBUS_I2C_BLOCK_BROKEN) data.block[0] = I2C_SMBUS_BLOCK_MAX;
    if (I2C_smbus_access(fd, I2C_SMBUS_READ, command, size, &data) < 0) return -1;
    // The kernel refuses lengths above 32; clamp anyway so a misbehaving driver cannot
    // make this copy run past values.
    const int n = std::min<int>(data.block[0], I2C_SMBUS_BLOCK_MAX);
    memcpy(values, &data.block[1], static_cast<size_t>(n));
    return n;
}

int I2CBus::writeBlock(int fd, unsigned char command, int size, unsigned char length,
                       const unsigned char* values) {
    union i2c_smbus_data data;
    memset(&data, 0, sizeof(data));
    const int n = std::min<int>(length, I2C_SMBUS_BLOCK_MAX);
    data.block[0] = static_cast<__u8>(n);
    if (n > 0) memcpy(&data.block[1], values, static_cast<size_t>(n));
    return I2C_smbus_access(fd, I2C_SMBUS_WRITE, command, size, &data);
}

int I2CBus::I2C_smbus_read_block_data(int fd, unsigned char command, unsigned char* values) {
    return readBlock(fd, command, I2C_SMBUS_BLOCK_DATA, values);
}

int I2CBus::I2C_smbus_write_block_data(int fd, unsigned char command, unsigned char length,
                                       const unsigned char* values) {
    return writeBlock(fd, command, I2C_SMBUS_BLOCK_DATA, length, values);
}

int I2CBus::I2c_smbus_read_i2c_block_data(int fd, unsigned char command, unsigned char* values) {
    return readBlock(fd, command, I2C_SMBUS_I2C_BLOCK_BROKEN, values);
}

int I2CBus::I2C_smbus_write_i2c_block_data(int fd, unsigned char command, unsigned char length,
                                           const unsigned char* values) {
    return writeBlock(fd, command, I2C_SMBUS_I2C_BLOCK_BROKEN, length, values);
}
