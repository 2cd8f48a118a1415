// Descriptions of the devices on the board's I2C buses: plain devices and switches.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "api/Export.h"

class I2CBus;

enum I2C_DEVICE_TYPE : uint32_t {
    I2C_DEVICE_TYPE_UNKNOWN = 0,
    I2C_DEVICE_TYPE_MUX = 1,
    I2C_DEVICE_TYPE_TEMPERATURE = 2,
    I2C_DEVICE_TYPE_BATTERY = 3,
    I2C_DEVICE_TYPE_SPD_DDR1 = 4,
    I2C_DEVICE_TYPE_SPD_DDR2 = 5,
    I2C_DEVICE_TYPE_SPD_DDR3 = 6,
    I2C_DEVICE_TYPE_SPD_DDR4 = 7,
    I2C_DEVICE_TYPE_VPD = 8,
};

enum I2C_DEVICE_PROTOCOL : uint32_t {
    I2C_DEVICE_PROTOCOL_SMBUS_BYTE = 0,
    I2C_DEVICE_PROTOCOL_SMBUS_BYTE_DATA = 1,
    I2C_DEVICE_PROTOCOL_SMBUS_WORD_DATA = 2,
    I2C_DEVICE_PROTOCOL_SMBUS_BLOCK_DATA = 3,
    I2C_DEVICE_PROTOCOL_SMBUS_PROCESS_CALL = 4,
    I2C_DEVICE_PROTOCOL_SMBUS_I2C_BLOCK_DATA = 5,
    I2C_DEVICE_PROTOCOL_VPD_BLOCK_DATA = 6,
    I2C_DEVICE_PROTOCOL_PMBUS_BLOCK = 7,
};

namespace quarn::i2c {
constexpr int kRegisterCount = 512;
// Registers no Protocol entry names are read and written as SMBus register bytes: that is
// what sensors, SPD and small EEPROMs speak, and what i2cget/i2cset use by default.
constexpr I2C_DEVICE_PROTOCOL kDefaultProtocol = I2C_DEVICE_PROTOCOL_SMBUS_BYTE_DATA;
// Answered for a register outside the table: above 7, so a transfer would be a no-op.
constexpr I2C_DEVICE_PROTOCOL kNoProtocol = static_cast<I2C_DEVICE_PROTOCOL>(0xFFFFFFFFu);
// A switch's control register is one byte: one bit per channel.
constexpr int kMaxSwitchPorts = 8;
}  // namespace quarn::i2c

class QUARN_EXPORT I2CDevice {
public:
    I2CDevice(const char* name, int bus, int address, I2C_DEVICE_TYPE type, const char* vender,
              const char* model);
    virtual ~I2CDevice();
    virtual int IsSwitch();

    const std::string& get_Name() const { return name; }
    int get_Bus() const { return bus; }
    int get_Address() const { return address; }
    I2C_DEVICE_TYPE get_type() const { return type; }
    const std::string& get_vender() const { return vender; }
    const std::string& get_model() const { return model; }
    void set_Master_bus(I2CBus* bus_) { master_bus = bus_; }
    I2CBus* get_Master_bus() const { return master_bus; }
    // Registers outside 0-511 are ignored on set and answer kNoProtocol on get.
    void set_Register_protocol(int reg, I2C_DEVICE_PROTOCOL protocol);
    I2C_DEVICE_PROTOCOL get_Register_protocol(int reg) const;

private:
    std::string name;
    int32_t bus;
    int32_t address;
    I2CBus* master_bus;
    I2C_DEVICE_PROTOCOL register_protocol[quarn::i2c::kRegisterCount];
    I2C_DEVICE_TYPE type;
    std::string vender;
    std::string model;
};

class QUARN_EXPORT I2CSwitch : public I2CDevice {
public:
    // Copies the first port_count entries of ports (at most 8 are kept).
    I2CSwitch(const char* name, int bus, int address, const int* ports, int port_count,
              I2C_DEVICE_TYPE type, const char* vender, const char* model);
    ~I2CSwitch() override;
    int IsSwitch() override;

    // The logical bus behind channel k, or -1 outside 0..count-1.
    int get_output_port(int k) const;
    int get_output_port_counter() const { return static_cast<int>(output_ports.size()); }

private:
    std::vector<int32_t> output_ports;
};
