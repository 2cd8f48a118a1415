// Diagnostic layer of I2C: device lists, register reads and writes by name or by bus and
// address, the multiplexer and write/read tests, route texts and buffer dumps.
#include "dapi/i2c/I2CDAPI.h"

#include <cstdio>
#include <new>
#include <vector>

#include "ddapi/i2c/I2CDDAPI.h"

namespace {
using namespace quarn::i2c;

constexpr ERRORCODE kConstructor = 0xCF040400;
constexpr ERRORCODE kDisplayList = 0xCF040800;
constexpr ERRORCODE kRead = 0xCF040C00;
constexpr ERRORCODE kWrite = 0xCF041000;
constexpr ERRORCODE kDisplayByType = 0xCF041400;
constexpr ERRORCODE kMuxTest = 0xCF041800;
constexpr ERRORCODE kOutOfRange = 0x219;
constexpr ERRORCODE kAllocateFail = 0x214;

const char kByName[] = "By well_know_name";
const char kByAddress[] = "By bus_address";
const char kMuxTestText[] = "MUX test";

constexpr int kTestRegisters = 256;
}  // namespace

I2CDAPI::I2CDAPI(const char* name) : BaseClassDAPI(name), m_device(nullptr), m_lastResult(nullptr) {}

I2CDAPI::~I2CDAPI() {
    delete m_device;
    m_device = nullptr;
}

ErrorMsg* I2CDAPI::createDevice(ERRORCODE code, const char* detail) {
    delete m_device;
    m_lastResult = nullptr;
    m_device = new (std::nothrow) I2CDDAPI("I2C_drv");
    if (!m_device) return returnErrorMsg(code | kAllocateFail, detail, nullptr);
    ErrorMsg* errors = m_device->getErrorMsg();
    if (!errors) return nullptr;
    return returnErrorMsg(code, detail, errors);
}

ErrorMsg* I2CDAPI::wrap(ErrorMsg* chain, ERRORCODE code, const char* detail) {
    m_lastResult = chain;
    if (!chain) return nullptr;
    return returnErrorMsg(code, detail, chain);
}

ErrorMsg* I2CDAPI::CheckProfile() {
    if (ErrorMsg* e = createDevice(kConstructor, "I2C profile")) return e;
    ErrorMsg* warnings = m_device->getProfileWarnings();
    if (!warnings) return nullptr;
    return returnErrorMsg(kConstructor, "I2C profile lines ignored", warnings);
}

ErrorMsg* I2CDAPI::DisplayI2cDevicesList(std::list<std::string>* list) {
    if (ErrorMsg* e = createDevice(kDisplayList, nullptr)) return e;
    return wrap(m_device->get_i2c_devices_list(list), kDisplayList, nullptr);
}

ErrorMsg* I2CDAPI::DisplayI2cDevicesList(I2CDevice** out, int* count) {
    if (count) *count = 0;
    if (out)
        for (int i = 0; i < kMaxDevices; ++i) out[i] = nullptr;
    if (ErrorMsg* e = createDevice(kDisplayList, nullptr)) return e;
    ErrorMsg* e = m_device->get_i2c_devices_list(out);
    if (!e && count && out)
        while (*count < kMaxDevices && out[*count]) ++*count;
    return wrap(e, kDisplayList, nullptr);
}

ErrorMsg* I2CDAPI::DisplayI2cDevicesListByType(I2CDevice** out, I2C_DEVICE_TYPE type) {
    if (ErrorMsg* e = createDevice(kDisplayByType, nullptr)) return e;
    return wrap(m_device->DisplayI2cDevicesListByType(out, type), kDisplayByType, nullptr);
}

ErrorMsg* I2CDAPI::Read(const char* name, int start, int end, int* data, int* count) {
    return Read(name, start, end, data, count, kMaxTransferValues);
}

ErrorMsg* I2CDAPI::Read(const char* name, int start, int end, int* data, int* count, int capacity) {
    if (count) *count = 0;
    if (ErrorMsg* e = createDevice(kRead, nullptr)) return e;
    return wrap(m_device->read(name, start, end, data, count, capacity), kRead, nullptr);
}

ErrorMsg* I2CDAPI::Read(int bus, int address, int start, int end, int* data, int* count) {
    return Read(bus, address, start, end, data, count, kMaxTransferValues);
}

ErrorMsg* I2CDAPI::Read(int bus, int address, int start, int end, int* data, int* count, int capacity) {
    if (count) *count = 0;
    if (ErrorMsg* e = createDevice(kRead, kByAddress)) return e;
    return wrap(m_device->read(bus, address, start, end, data, count, capacity), kRead, kByAddress);
}

// The byte and 16-bit forms read through a buffer of the form's size; a read that would
// yield more values than it holds is refused by the device layer before any transfer.
ErrorMsg* I2CDAPI::readBytes(const char* name, int bus, int address, int start, int end, int* values,
                             int capacity, int* count) {
    const char* detail = name ? kByName : kByAddress;
    if (ErrorMsg* e = createDevice(kRead, detail)) return e;
    ErrorMsg* e = name ? m_device->read(name, start, end, values, count, capacity)
                       : m_device->read(bus, address, start, end, values, count, capacity);
    return wrap(e, kRead, detail);
}

ErrorMsg* I2CDAPI::Read(const char* name, int start, int end, unsigned char* data, int* count) {
    if (count) *count = 0;
    std::vector<int> values(kByteFormValues);
    int n = 0;
    if (ErrorMsg* e = readBytes(name ? name : "", 0, 0, start, end, values.data(), kByteFormValues, &n))
        return e;
    for (int i = 0; i < n; ++i) data[i] = static_cast<unsigned char>(values[i]);
    if (count) *count = n;
    return nullptr;
}

ErrorMsg* I2CDAPI::Read(const char* name, int start, int end, unsigned short* data, int* count) {
    if (count) *count = 0;
    std::vector<int> values(kWordFormValues);
    int n = 0;
    if (ErrorMsg* e = readBytes(name ? name : "", 0, 0, start, end, values.data(), kWordFormValues, &n))
        return e;
    for (int i = 0; i < n; ++i) data[i] = static_cast<unsigned short>(values[i]);
    if (count) *count = n;
    return nullptr;
}

ErrorMsg* I2CDAPI::Read(int bus, int address, int start, int end, unsigned char* data, int* count) {
    if (count) *count = 0;
    std::vector<int> values(kByteFormValues);
    int n = 0;
    if (ErrorMsg* e = readBytes(nullptr, bus, address, start, end, values.data(), kByteFormValues, &n))
        return e;
    for (int i = 0; i < n; ++i) data[i] = static_cast<unsigned char>(values[i]);
    if (count) *count = n;
    return nullptr;
}

ErrorMsg* I2CDAPI::Read(int bus, int address, int start, int end, unsigned short* data, int* count) {
    if (count) *count = 0;
    std::vector<int> values(kWordFormValues);
    int n = 0;
    if (ErrorMsg* e = readBytes(nullptr, bus, address, start, end, values.data(), kWordFormValues, &n))
        return e;
    for (int i = 0; i < n; ++i) data[i] = static_cast<unsigned short>(values[i]);
    if (count) *count = n;
    return nullptr;
}

ErrorMsg* I2CDAPI::Write(const char* name, int reg, int* data, int length) {
    int count = 0;
    return Write(name, reg, data, length, &count);
}

ErrorMsg* I2CDAPI::Write(const char* name, int reg, int* data, int length, int* count) {
    if (ErrorMsg* e = createDevice(kWrite, kByName)) return e;
    return wrap(m_device->write(name, reg, data, length, count), kWrite, kByName);
}

ErrorMsg* I2CDAPI::Write(int bus, int address, int reg, int* data, int length) {
    int count = 0;
    return Write(bus, address, reg, data, length, &count);
}

ErrorMsg* I2CDAPI::Write(int bus, int address, int reg, int* data, int length, int* count) {
    if (ErrorMsg* e = createDevice(kWrite, kByAddress)) return e;
    return wrap(m_device->write(bus, address, reg, data, length, count), kWrite, kByAddress);
}

ErrorMsg* I2CDAPI::Write(const char* name, int reg, unsigned char* data, int length) {
    if (length < 0 || length > kByteFormValues || (length > 0 && !data)) {
        formatMessage("length %d outside 0 to %d", length, kByteFormValues);
        return returnErrorMsg(kWrite | kOutOfRange, m_message, nullptr);
    }
    std::vector<int> values(data, data + length);
    return Write(name, reg, values.data(), length);
}

ErrorMsg* I2CDAPI::Write(int bus, int address, int reg, unsigned char* data, int length) {
    if (length < 0 || length > kByteFormValues || (length > 0 && !data)) {
        formatMessage("length %d outside 0 to %d", length, kByteFormValues);
        return returnErrorMsg(kWrite | kOutOfRange, m_message, nullptr);
    }
    std::vector<int> values(data, data + length);
    return Write(bus, address, reg, values.data(), length);
}

ErrorMsg* I2CDAPI::Write(const char* name, int reg, unsigned short* data, int length) {
    if (length < 0 || length > kByteFormValues / 2 || (length > 0 && !data)) {
        formatMessage("length %d outside 0 to %d", length, kByteFormValues / 2);
        return returnErrorMsg(kWrite | kOutOfRange, m_message, nullptr);
    }
    std::vector<int> values;
    for (int i = 0; i < length; ++i) {
        values.push_back((data[i] >> 8) & 0xFF);
        values.push_back(data[i] & 0xFF);
    }
    return Write(name, reg, values.data(), 2 * length);
}

ErrorMsg* I2CDAPI::Write(int bus, int address, int reg, unsigned short* data, int length) {
    if (length < 0 || length > kByteFormValues / 2 || (length > 0 && !data)) {
        formatMessage("length %d outside 0 to %d", length, kByteFormValues / 2);
        return returnErrorMsg(kWrite | kOutOfRange, m_message, nullptr);
    }
    std::vector<int> values;
    for (int i = 0; i < length; ++i) {
        values.push_back(data[i] & 0xFF);
        values.push_back((data[i] >> 8) & 0xFF);
    }
    return Write(bus, address, reg, values.data(), 2 * length);
}

ErrorMsg* I2CDAPI::MUX_Test(const char* name) {
    if (ErrorMsg* e = createDevice(kMuxTest, kMuxTestText)) return e;
    return wrap(m_device->mux_test(name), kMuxTest, nullptr);
}

ErrorMsg* I2CDAPI::StuckPrevention(int value) {
    if (ErrorMsg* e = createDevice(kMuxTest, kMuxTestText)) return e;
    m_lastResult = m_device->stuckPrevention(value);
    return m_lastResult;
}

ErrorMsg* I2CDAPI::ShowRoutePath(const char* name, std::string* path) {
    if (ErrorMsg* e = createDevice(kMuxTest, "Route path test")) return e;
    return wrap(m_device->get_i2c_device_path(name, path), kMuxTest, nullptr);
}

ErrorMsg* I2CDAPI::WriteReadTest(const char* name) {
    if (ErrorMsg* e = createDevice(kMuxTest, kMuxTestText)) return e;
    std::vector<int> backup(kMaxTransferValues, 0);
    int saved = 0;
    if (ErrorMsg* e = m_device->read(name, 0, kTestRegisters - 1, backup.data(), &saved, kMaxTransferValues))
        return wrap(e, kMuxTest, nullptr);

    auto restore = [&]() { return m_device->write(name, 0, backup.data(), saved); };
    const int patterns[2] = {0xAA, 0x55};
    for (int pattern : patterns) {
        std::vector<int> fill(static_cast<size_t>(saved), pattern);
        // The device may be half overwritten when a transfer fails, so its contents are
        // put back before the failure is reported; the restore's own result is dropped.
        if (ErrorMsg* e = m_device->write(name, 0, fill.data(), saved)) {
            deleteErrorMsg(restore());
            return wrap(e, kMuxTest, nullptr);
        }
        std::vector<int> got(kMaxTransferValues, 0);
        int n = 0;
        if (ErrorMsg* e = m_device->read(name, 0, kTestRegisters - 1, got.data(), &n, kMaxTransferValues)) {
            deleteErrorMsg(restore());
            return wrap(e, kMuxTest, nullptr);
        }
        for (int i = 0; i < saved; ++i) {
            if (got[i] == pattern) continue;
            if (pattern == 0xAA)
                printf("Expect: 0x%x, get 0x%x value: %x, compare fail!\n", pattern, i, got[i]);
            else
                printf("Expect: 0x%x, get value: %x, compare fail!\n", pattern, got[i]);
            fflush(stdout);
            ErrorMsg* restored = restore();
            m_lastResult = restored;
            formatMessage("compare fail at register 0x%x", i);
            return returnErrorMsg(kMuxTest, m_message, restored);
        }
    }
    deleteErrorMsg(restore());
    return nullptr;
}

void I2CDAPI::DisplayBufferContent(int* values, int count) {
    for (int i = 0; i < count && values; ++i) {
        if (i % 16 == 0) printf("%04x: ", i);
        printf("%02x ", static_cast<unsigned int>(values[i]));
        if ((i + 1) % 16 == 0 && i != count - 1) printf("\n");
    }
    printf("\n");
    fflush(stdout);
}
