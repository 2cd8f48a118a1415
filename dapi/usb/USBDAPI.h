// Diagnostic layer of USB: the device list and attributes, and the read/write and
// throughput tests on a USB disk with buffers from the memory layer.
#pragma once

#include <cstdint>
#include <list>
#include <string>

#include "api/BaseClass.h"
#include "ddapi/usb/USBDDAPI.h"

class MemoryDAPI;

class QUARN_EXPORT USBDAPI : public BaseClassDAPI {
public:
    explicit USBDAPI(const char* name);
    ~USBDAPI() override;

    ErrorMsg* displayUSBDevicesList(std::list<std::string>* names);
    ErrorMsg* getLogicalIdByName(std::string name, uint32_t* id);
    ErrorMsg* getDataByID(uint32_t id, USB_DATA_ELEMENT element, std::list<std::string>* out);
    ErrorMsg* openDeviceFile(const std::string& path);
    ErrorMsg* closeDeviceFile(int fd);

    // lba: first 512-byte block; total: bytes to move, a multiple of block; block: bytes
    // per command. The read/write test overwrites the range with random data.
    ErrorMsg* readwriteTest(uint32_t id, std::list<std::string>* out, uint32_t lba, uint64_t total, uint32_t block);
    ErrorMsg* readPerformanceTest(uint32_t id, std::list<std::string>* out, uint32_t lba, uint64_t total,
                                  uint32_t block);
    ErrorMsg* writePerformanceTest(uint32_t id, std::list<std::string>* out, uint32_t lba, uint64_t total,
                                   uint32_t block);

    ErrorMsg* readFromDevice() { return nullptr; }
    ErrorMsg* writeToDevice() { return nullptr; }
    USBDDAPI* device() { return m_device; }

private:
    enum class Test { ReadWrite, Read, Write };
    struct Rows {
        ERRORCODE test, setup, execute, clean;
    };
    static Rows rowsOf(Test t);
    ErrorMsg* run(Test t, uint32_t id, std::list<std::string>* out, uint32_t lba, uint64_t total, uint32_t block);
    ErrorMsg* setup(Test t, uint32_t id, uint32_t lba, uint64_t total, uint32_t block);
    ErrorMsg* execute(Test t, std::list<std::string>* out, uint32_t lba, uint64_t total, uint32_t block);
    ErrorMsg* cleanup(Test t);
    ErrorMsg* release(unsigned long long* buffer);

    USBDDAPI* m_device;
    MemoryDAPI* m_memory;
    int m_fd;
    unsigned long long m_buffer;
};
