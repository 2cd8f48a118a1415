// One physical I2C bus: the i2c-dev node "/dev/i2c-N" and the kernel transfers on it.
#pragma once

#include <string>

#include "api/BaseClass.h"
#include "ddapi/i2c/I2CDevice.h"

union i2c_smbus_data;

namespace quarn::i2c {
// The fixed transfer buffers: values a read may yield and bytes a write may carry.
constexpr int kMaxTransferValues = 8192;
// An I2C block read fetches 32 bytes: a count byte and at most 31 data bytes.
constexpr int kMaxI2CBlockCount = 31;
constexpr int kVpdPageSize = 32;
}  // namespace quarn::i2c

class QUARN_EXPORT I2CBus : public BaseClassDDAPI {
public:
    I2CBus(const char* class_name, const char* bus_name, int bus_id, int frequency,
           const char* master);
    ~I2CBus() override;

    const std::string& get_Bus_name() const { return Bus_name; }
    int get_Bus_ID() const { return Bus_ID; }
    int get_frequency() const { return frequency; }
    const std::string& get_master() const { return master; }

    // Registers start..end of the device at the 8-bit address; one value per int.
    // capacity is the number of ints data holds: a read that would store more fails
    // before anything is transferred (or, for block reads, before anything is stored).
    ErrorMsg* read(int address, int start, int end, I2C_DEVICE_PROTOCOL protocol, int* data,
                   int* count, I2C_DEVICE_TYPE type,
                   int capacity = quarn::i2c::kMaxTransferValues);
    ErrorMsg* write(int address, int reg, I2C_DEVICE_PROTOCOL protocol, int* data, int length,
                    I2C_DEVICE_TYPE type);
    ErrorMsg* write(int address, int reg, I2C_DEVICE_PROTOCOL protocol, int* data, int length,
                    int* count, I2C_DEVICE_TYPE type);

    // Kernel calls on an open node; -1 with errno on failure, as the ioctl itself.
    int I2C_set_slave_address(int fd, int address);
    int I2C_smbus_access(int fd, char read_write, unsigned char command, int size,
                         union i2c_smbus_data* data);
    int I2C_access(int fd, unsigned short flags, int address, unsigned short length,
                   unsigned char* buffer);
    int I2C_smbus_read_byte(int fd);
    int I2C_smbus_write_byte(int fd, unsigned char value);
    int I2C_smbus_read_byte_data(int fd, unsigned char command);
    int I2C_smbus_write_byte_data(int fd, unsigned char command, unsigned char value);
    int I2C_smbus_read_word_data(int fd, unsigned char command);
    int I2C_smbus_write_word_data(int fd, unsigned char command, unsigned short value);
    // Block reads store into values (32 bytes room) and return the length or -1.
    int I2C_smbus_read_block_data(int fd, unsigned char command, unsigned char* values);
    int I2C_smbus_write_block_data(int fd, unsigned char command, unsigned char length,
                                   const unsigned char* values);
    // One 32-byte I2C block read (the kernel's I2C_SMBUS_I2C_BLOCK_BROKEN size).
    int I2c_smbus_read_i2c_block_data(int fd, unsigned char command, unsigned char* values);
    int I2C_smbus_write_i2c_block_data(int fd, unsigned char command, unsigned char length,
                                       const unsigned char* values);

private:
    // Opens the node and sets the slave address; on failure returns the chain.
    ErrorMsg* openDevice(ERRORCODE function, int address, int* fd);
    ErrorMsg* transferError(ERRORCODE code, int err);
    // Selects the SPD page of register reg through the EE1004 page-address commands.
    ErrorMsg* selectSpdPage(ERRORCODE function, int fd, int address, int reg);
    // Block transfers of the given SMBus transaction size.
    int readBlock(int fd, unsigned char command, int size, unsigned char* values);
    int writeBlock(int fd, unsigned char command, int size, unsigned char length,
                   const unsigned char* values);

    std::string Bus_name;
    int32_t Bus_ID;
    int32_t frequency;
    std::string master;
};
