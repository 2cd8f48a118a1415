// Device layer of I2C: the board's I2C profile, the bus/switch/device topology, switch
// routing, and register transfers by well-known name or by bus and address.
#pragma once

#include <list>
#include <string>
#include <vector>

#include "api/BaseClass.h"
#include "ddapi/i2c/I2CBus.h"
#include "ddapi/i2c/I2CDevice.h"

namespace quarn::i2c {
constexpr int kMaxDevices = 200;
constexpr int kMaxBuses = 20;
constexpr int kMaxRouteHops = 20;
constexpr int kMaxProfileLine = 499;
constexpr int kMaxProtocolFileLine = 1999;
// "file" entries may name further files; deeper nesting is taken for a loop.
constexpr int kMaxProtocolFileDepth = 8;
extern const char kProfilePath[];
extern const char kProfileDirectory[];
}  // namespace quarn::i2c

// Temperature operations on sensors of the topology (drivers in ddapi/temperature).
enum TEMPERATURE_OPERATION_ID : uint32_t;

struct I2CRouteHop {
    uint32_t address;
    uint32_t mask;
};

class QUARN_EXPORT I2CDDAPI : public BaseClassDDAPI {
public:
    explicit I2CDDAPI(const char* class_name);
    ~I2CDDAPI() override;

    ErrorMsg* read(int bus, int address, int start, int end, int* data, int* count);
    ErrorMsg* read(const char* name, int start, int end, int* data, int* count);
    // As above for a caller whose buffer holds capacity ints (the forms without it
    // assume the module's 8192-value buffer).
    ErrorMsg* read(int bus, int address, int start, int end, int* data, int* count, int capacity);
    ErrorMsg* read(const char* name, int start, int end, int* data, int* count, int capacity);
    ErrorMsg* write(int bus, int address, int reg, int* data, int length);
    ErrorMsg* write(int bus, int address, int reg, int* data, int length, int* count);
    ErrorMsg* write(const char* name, int reg, int* data, int length);
    ErrorMsg* write(const char* name, int reg, int* data, int length, int* count);

    I2CDevice* get_device_by_well_known_name(const char* name);
    I2CDevice* get_device_by_bus_address(int bus, int address);
    int Is_physical_bus(int bus);
    int Find_physical_master(int bus);
    // 1 when the route was written (or the bus is physical); 0 when the walk did not
    // reach a physical bus or was longer than the route table.
    int Route_path(int bus);

    ErrorMsg* get_i2c_devices_list(std::list<std::string>* list);
    ErrorMsg* get_i2c_devices_list(I2CDevice** out);
    ErrorMsg* DisplayI2cDevicesListByType(I2CDevice** out, I2C_DEVICE_TYPE type);
    ErrorMsg* get_i2c_device_path(const char* name, std::string* path);
    ErrorMsg* mux_test(const char* name);
    ErrorMsg* stuckPrevention(int value);

    // A sensor's temperature or limit by well-known name; the driver is chosen by the
    // device's model text ("MAX6657", "SPDTMP"). Implemented with the sensor drivers.
    ErrorMsg* getTemperatureDataByID(std::string name, TEMPERATURE_OPERATION_ID op, std::string* value);
    ErrorMsg* setTemperatureDataByID(std::string name, TEMPERATURE_OPERATION_ID op, std::string value);

    // BUS and Topology lines that were refused: one record per line (the line number as
    // detail, the line's own failure chained), in file order. Returns a copy the caller
    // owns; null when every line was taken.
    ErrorMsg* getProfileWarnings() const;
    ErrorMsg* getLastResult() const { return last_result; }
    int getSwitchCount() const { return switch_count; }
    I2CBus* getBus(int slot) const;
    I2CDevice* getDevice(int slot) const;
    // The hops of the last walk, device side first.
    int getRouteHopCount() const { return m_routeHops; }
    I2CRouteHop getRouteHop(int i) const;

private:
    void loadProfile();
    void processLine(const std::string& section, const std::string& line, int lineNumber,
                     int* topologyIndex, bool* fatal);
    ErrorMsg* Initial_I2C_BUS(const std::string& line);
    ErrorMsg* Initial_I2C_device(const std::string& line, int slot);
    ErrorMsg* Initial_I2C_Protocol(const std::string& line);
    ErrorMsg* applyProtocolEntries(I2CDevice* device, const std::string& deviceName,
                                   const std::vector<std::string>& tokens, size_t first,
                                   int depth);
    void addProfileWarning(int lineNumber, ErrorMsg* cause);
    // Walks from bus towards the root; records hops. Returns the physical bus reached,
    // -1 when none is reached, -2 when the walk needs more hops than the table holds.
    int walk(int bus, I2CDevice** hopSwitches);
    ErrorMsg* routeTooLong(ERRORCODE function, int bus);
    I2CDevice* copyDescription(I2CDevice* device);

    ErrorMsg* last_result;
    I2CDevice* m_devices[quarn::i2c::kMaxDevices];
    I2CBus* m_buses[quarn::i2c::kMaxBuses];
    int32_t switch_count;
    I2CRouteHop m_route[quarn::i2c::kMaxRouteHops];
    int m_routeHops;
    ErrorMsg* m_profileWarnings;
};
