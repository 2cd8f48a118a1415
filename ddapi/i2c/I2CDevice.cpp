// Descriptions of the devices on the board's I2C buses: plain devices and switches.
#include "ddapi/i2c/I2CDevice.h"

#include <algorithm>
#include <cctype>

I2CDevice::I2CDevice(const char* name_, int bus_, int address_, I2C_DEVICE_TYPE type_,
                     const char* vender_, const char* model_)
    : name(name_ ? name_ : ""),
      bus(bus_),
      address(address_),
      master_bus(nullptr),
      type(type_),
      vender(vender_ ? vender_ : ""),
      model(model_ ? model_ : "") {
    // Well-known names are matched case-insensitively by storing them lower-cased.
    for (char& c : name) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    std::fill(std::begin(register_protocol), std::end(register_protocol),
              quarn::i2c::kDefaultProtocol);
}

I2CDevice::~I2CDevice() = default;

int I2CDevice::IsSwitch() { return 0; }

void I2CDevice::set_Register_protocol(int reg, I2C_DEVICE_PROTOCOL protocol) {
    if (reg < 0 || reg >= quarn::i2c::kRegisterCount) return;
    register_protocol[reg] = protocol;
}

I2C_DEVICE_PROTOCOL I2CDevice::get_Register_protocol(int reg) const {
    if (reg < 0 || reg >= quarn::i2c::kRegisterCount) return quarn::i2c::kNoProtocol;
    return register_protocol[reg];
}

I2CSwitch::I2CSwitch(const char* name_, int bus_, int address_, const int* ports,
                     int port_count, I2C_DEVICE_TYPE type_, const char* vender_,
                     const char* model_)
    : I2CDevice(name_, bus_, address_, type_, vender_, model_) {
    const int n = std::min(std::max(port_count, 0), quarn::i2c::kMaxSwitchPorts);
    if (ports) output_ports.assign(ports, ports + n);
}

I2CSwitch::~I2CSwitch() = default;

int I2CSwitch::IsSwitch() { return 1; }

int I2CSwitch::get_output_port(int k) const {
    if (k < 0 || k >= static_cast<int>(output_ports.size())) return -1;
    return output_ports[k];
}
