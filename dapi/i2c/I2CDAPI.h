// Diagnostic layer of I2C: device lists, register reads and writes by name or by bus and
// address, the multiplexer and write/read tests, route texts and buffer dumps.
#pragma once

#include <list>
#include <string>

#include "api/BaseClass.h"
#include "ddapi/i2c/I2CDevice.h"

class I2CDDAPI;

namespace quarn::i2c {
constexpr int kByteFormValues = 8192;
constexpr int kWordFormValues = 1024;
}  // namespace quarn::i2c

class QUARN_EXPORT I2CDAPI : public BaseClassDAPI {
public:
    explicit I2CDAPI(const char* name);
    ~I2CDAPI() override;

    ErrorMsg* DisplayI2cDevicesList(std::list<std::string>* list);
    // out holds 200 slots; the caller owns the copies.
    ErrorMsg* DisplayI2cDevicesList(I2CDevice** out, int* count);
    ErrorMsg* DisplayI2cDevicesListByType(I2CDevice** out, I2C_DEVICE_TYPE type);

    // The int forms store into a buffer of 8192 values unless capacity says otherwise.
    ErrorMsg* Read(const char* name, int start, int end, int* data, int* count);
    ErrorMsg* Read(const char* name, int start, int end, int* data, int* count, int capacity);
    ErrorMsg* Read(const char* name, int start, int end, unsigned char* data, int* count);
    ErrorMsg* Read(const char* name, int start, int end, unsigned short* data, int* count);
    ErrorMsg* Read(int bus, int address, int start, int end, int* data, int* count);
    ErrorMsg* Read(int bus, int address, int start, int end, int* data, int* count, int capacity);
    ErrorMsg* Read(int bus, int address, int start, int end, unsigned char* data, int* count);
    ErrorMsg* Read(int bus, int address, int start, int end, unsigned short* data, int* count);

    ErrorMsg* Write(const char* name, int reg, int* data, int length);
    ErrorMsg* Write(const char* name, int reg, int* data, int length, int* count);
    ErrorMsg* Write(const char* name, int reg, unsigned char* data, int length);
    ErrorMsg* Write(const char* name, int reg, unsigned short* data, int length);
    ErrorMsg* Write(int bus, int address, int reg, int* data, int length);
    ErrorMsg* Write(int bus, int address, int reg, int* data, int length, int* count);
    ErrorMsg* Write(int bus, int address, int reg, unsigned char* data, int length);
    ErrorMsg* Write(int bus, int address, int reg, unsigned short* data, int length);

    ErrorMsg* MUX_Test(const char* name);
    ErrorMsg* StuckPrevention(int value);
    ErrorMsg* WriteReadTest(const char* name);
    ErrorMsg* ShowRoutePath(const char* name, std::string* path);
    void DisplayBufferContent(int* values, int count);

    // Profile lines that were refused (BUS and Topology lines do not stop construction),
    // under a record of the constructor row; null when the profile was taken whole. A
    // profile that could not be used at all returns the constructor's own chain.
    ErrorMsg* CheckProfile();

private:
    // Creates the device object; its construction errors come back under code/detail.
    ErrorMsg* createDevice(ERRORCODE code, const char* detail);
    ErrorMsg* wrap(ErrorMsg* chain, ERRORCODE code, const char* detail);
    ErrorMsg* readBytes(const char* name, int bus, int address, int start, int end, int* values,
                        int capacity, int* count);

    I2CDDAPI* m_device;
    ErrorMsg* m_lastResult;
};
