// Diagnostic layer of USB.
#include "dapi/usb/USBDAPI.h"

#include <fcntl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "api/StringUtil.h"
#include "api/platform/Platform.h"
#include "dapi/memory/MemoryDAPI.h"

namespace {
constexpr ERRORCODE kConstructor = 0xC5040400;
constexpr ERRORCODE kDisplayList = 0xC5040800;
constexpr ERRORCODE kOpenDeviceFile = 0xC5040C00;
constexpr ERRORCODE kCloseDeviceFile = 0xC5041000;
constexpr ERRORCODE kGetLogicalIdByName = 0xC5045C00;
constexpr ERRORCODE kGetDataByID = 0xC5046000;

constexpr ERRORCODE kDividedZero = 0x03;
constexpr ERRORCODE kBackupBufferFail = 0x07;
constexpr ERRORCODE kPatternBufferFail = 0x08;
constexpr ERRORCODE kOpenFileFail = 0x215;
constexpr ERRORCODE kCloseFileFail = 0x216;
constexpr ERRORCODE kOutOfRange = 0x219;
constexpr ERRORCODE kBadParameter = 0x204;

// Execute rows: the read/write test's timing failure carries the read test's row, as the
// two share it.
constexpr ERRORCODE kReadExecute = 0xC5042C00;
}  // namespace

USBDAPI::USBDAPI(const char* name)
    : BaseClassDAPI(name),
      m_device(new (std::nothrow) USBDDAPI("USB_drv")),
      m_memory(new (std::nothrow) MemoryDAPI("MemoryDAPI")),
      m_fd(-1),
      m_buffer(0) {
    if (!m_device || !m_memory) {
        addErrorMsg(kConstructor | 0x23A, nullptr);
        return;
    }
    if (ErrorMsg* e = m_device->getErrorMsg()) addErrorMsg(kConstructor, nullptr, e);
}

USBDAPI::~USBDAPI() {
    if (m_fd >= 0) quarn::platform().close(m_fd);
    if (m_buffer && m_memory) {
        if (ErrorMsg* e = m_memory->releaseMemoryBuffer(m_buffer)) deleteErrorMsg(e);
    }
    delete m_memory;
    delete m_device;
}

ErrorMsg* USBDAPI::displayUSBDevicesList(std::list<std::string>* names) {
    if (!m_device) return returnErrorMsg(kDisplayList | 0x23A, nullptr, nullptr);
    if (ErrorMsg* e = m_device->getUSBDevicesList(names)) return returnErrorMsg(kDisplayList, nullptr, e);
    return nullptr;
}

ErrorMsg* USBDAPI::getLogicalIdByName(std::string name, uint32_t* id) {
    if (!m_device) return returnErrorMsg(kGetLogicalIdByName | 0x23A, nullptr, nullptr);
    if (ErrorMsg* e = m_device->getLogicalIdByName(name, id)) return returnErrorMsg(kGetLogicalIdByName, nullptr, e);
    return nullptr;
}

ErrorMsg* USBDAPI::getDataByID(uint32_t id, USB_DATA_ELEMENT element, std::list<std::string>* out) {
    if (!m_device) return returnErrorMsg(kGetDataByID | 0x23A, nullptr, nullptr);
    if (ErrorMsg* e = m_device->getDataByID(id, element, out)) return returnErrorMsg(kGetDataByID, nullptr, e);
    return nullptr;
}

ErrorMsg* USBDAPI::openDeviceFile(const std::string& path) {
    quarn::Platform& p = quarn::platform();
    if (m_fd >= 0) p.close(m_fd);
    m_fd = p.open(path, O_RDWR | O_SYNC);
    if (m_fd < 0)
        return returnErrorMsg(kOpenDeviceFile | kOpenFileFail,
                              formatMessage("%.30s: %.30s", path.c_str(), quarn::systemErrorText(errno).c_str()), nullptr);
    return nullptr;
}

ErrorMsg* USBDAPI::closeDeviceFile(int fd) {
    if (fd < 0) return nullptr;
    if (fd == m_fd) m_fd = -1;
    if (quarn::platform().close(fd) != 0)
        return returnErrorMsg(kCloseDeviceFile | kCloseFileFail, quarn::systemErrorText(errno).c_str(), nullptr);
    return nullptr;
}

USBDAPI::Rows USBDAPI::rowsOf(Test t) {
    switch (t) {
        case Test::ReadWrite:
            return {0xC5041400, 0xC5041800, 0xC5041C00, 0xC5042000};
        case Test::Read:
            return {0xC5042400, 0xC5042800, 0xC5042C00, 0xC5043000};
        default:
            return {0xC5043400, 0xC5043800, 0xC5043C00, 0xC5044000};
    }
}

ErrorMsg* USBDAPI::readwriteTest(uint32_t id, std::list<std::string>* out, uint32_t lba, uint64_t total,
                                 uint32_t block) {
    return run(Test::ReadWrite, id, out, lba, total, block);
}

ErrorMsg* USBDAPI::readPerformanceTest(uint32_t id, std::list<std::string>* out, uint32_t lba, uint64_t total,
                                       uint32_t block) {
    return run(Test::Read, id, out, lba, total, block);
}

ErrorMsg* USBDAPI::writePerformanceTest(uint32_t id, std::list<std::string>* out, uint32_t lba, uint64_t total,
                                        uint32_t block) {
    return run(Test::Write, id, out, lba, total, block);
}

// Set-up, execution and clean-up; the first failure is returned behind the test's row,
// and a later failing clean-up does not hide it.
ErrorMsg* USBDAPI::run(Test t, uint32_t id, std::list<std::string>* out, uint32_t lba, uint64_t total,
                       uint32_t block) {
    const Rows rows = rowsOf(t);
    if (!m_device || !m_memory) return returnErrorMsg(rows.test | 0x23A, nullptr, nullptr);
    ErrorMsg* failure = setup(t, id, lba, total, block);
    if (failure) return returnErrorMsg(rows.test, nullptr, failure);
    failure = execute(t, out, lba, total, block);
    ErrorMsg* clean = cleanup(t);
    if (failure) {
        if (clean) deleteErrorMsg(clean);
        return returnErrorMsg(rows.test, nullptr, failure);
    }
    return clean ? returnErrorMsg(rows.test, nullptr, clean) : nullptr;
}

ErrorMsg* USBDAPI::setup(Test t, uint32_t id, uint32_t lba, uint64_t total, uint32_t block) {
    const Rows rows = rowsOf(t);
    initProgress(total);
    if (block == 0 || block % 512 != 0 || block / 512 > 0xFFFF)
        return returnErrorMsg(rows.setup | kBadParameter, formatMessage("block %u bytes", block), nullptr);
    if (total % block != 0)
        return returnErrorMsg(rows.setup | kBadParameter,
                              formatMessage("total %llu is not a multiple of %u", static_cast<unsigned long long>(total), block),
                              nullptr);
    std::list<std::string> value;
    if (ErrorMsg* e = m_device->getDataByID(id, USB_DATA_SIZE, &value)) return returnErrorMsg(rows.setup, nullptr, e);
    const unsigned long long sizeMiB = strtoull(value.empty() ? "0" : value.front().c_str(), nullptr, 10);
    const unsigned long long bytes = sizeMiB << 20;
    const unsigned long long start = static_cast<unsigned long long>(lba) * 512;
    if (sizeMiB == 0 || start > bytes || total > bytes - start)
        return returnErrorMsg(rows.setup | kOutOfRange,
                              formatMessage("%llu bytes at LBA %u, device %llu MiB", static_cast<unsigned long long>(total),
                                            lba, sizeMiB),
                              nullptr);
    value.clear();
    if (ErrorMsg* e = m_device->getDataByID(id, USB_DATA_DEVICE_NODE, &value))
        return returnErrorMsg(rows.setup, nullptr, e);
    if (value.empty() || value.front() == "None")
        return returnErrorMsg(rows.setup | kOutOfRange, "no storage node", nullptr);
    if (ErrorMsg* e = openDeviceFile(value.front())) return returnErrorMsg(rows.setup, nullptr, e);
    if (ErrorMsg* e = m_memory->getMemoryBuffer(block, &m_buffer)) {
        m_buffer = 0;
        if (ErrorMsg* c = closeDeviceFile(m_fd)) deleteErrorMsg(c);
        return returnErrorMsg(rows.setup | kBackupBufferFail, nullptr, e);
    }
    memset(reinterpret_cast<void*>(m_buffer), 0, block);
    return nullptr;
}

ErrorMsg* USBDAPI::execute(Test t, std::list<std::string>* out, uint32_t lba, uint64_t total, uint32_t block) {
    const Rows rows = rowsOf(t);
    quarn::Platform& p = quarn::platform();
    unsigned long long pattern = 0;
    if (t == Test::ReadWrite) {
        if (ErrorMsg* e = m_memory->getMemoryBuffer(block, &pattern))
            return returnErrorMsg(rows.execute | kPatternBufferFail, nullptr, e);
        struct timespec now;
        p.wallClock(&now);
        srand(static_cast<unsigned int>(now.tv_sec ^ now.tv_nsec));
    }
    auto* buffer = reinterpret_cast<uint32_t*>(m_buffer);
    auto* words = reinterpret_cast<uint32_t*>(pattern);
    const uint64_t began = p.monotonicNanoseconds();
    ErrorMsg* failure = nullptr;
    uint32_t at = lba;
    for (uint64_t remaining = total; remaining > 0; remaining -= block) {
        if (t == Test::ReadWrite) {
            for (uint32_t i = 0; i < block / 4; ++i) words[i] = static_cast<uint32_t>(rand()) << 16 ^ static_cast<uint32_t>(rand());
            failure = m_device->PWRITE(m_fd, words, at, block);
            if (!failure) failure = m_device->PREAD(m_fd, buffer, at, block);
        } else if (t == Test::Read) {
            failure = m_device->PREAD(m_fd, buffer, at, block);
        } else {
            failure = m_device->PWRITE(m_fd, buffer, at, block);
        }
        if (failure) break;
        at += block / 512;
        updateProgress(block);
    }
    const uint64_t elapsedNs = p.monotonicNanoseconds() - began;
    if (pattern) {
        if (ErrorMsg* e = m_memory->releaseMemoryBuffer(pattern)) deleteErrorMsg(e);
    }
    if (failure) return returnErrorMsg(rows.execute, nullptr, failure);
    const double elapsed = static_cast<double>(elapsedNs / 1000) / 1e6;  // whole microseconds
    if (elapsed <= 0) {
        const ERRORCODE row = t == Test::Write ? rows.execute : kReadExecute;
        return returnErrorMsg(row | kDividedZero, nullptr, nullptr);
    }
    const double speed = static_cast<double>(total) / (1 << 20) / elapsed;
    char line[64];
    snprintf(line, sizeof(line), "Spend time: %lf s\n", elapsed);
    std::string text = line;
    text.pop_back();
    if (out) out->push_back(text);
    snprintf(line, sizeof(line), "Speed: %5.2f M/s\n", speed);
    text = line;
    text.pop_back();
    if (out) out->push_back(text);
    return nullptr;
}

ErrorMsg* USBDAPI::release(unsigned long long* buffer) {
    if (!*buffer) return nullptr;
    ErrorMsg* e = m_memory->releaseMemoryBuffer(*buffer);
    *buffer = 0;
    return e;
}

ErrorMsg* USBDAPI::cleanup(Test t) {
    const Rows rows = rowsOf(t);
    ErrorMsg* failure = release(&m_buffer);
    if (ErrorMsg* e = closeDeviceFile(m_fd)) {
        if (failure) deleteErrorMsg(e);
        else failure = e;
    }
    return failure ? returnErrorMsg(rows.clean, nullptr, failure) : nullptr;
}
