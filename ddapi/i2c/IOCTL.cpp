// A kernel device node held open for ioctl requests.
#include "ddapi/i2c/IOCTL.h"

#include <fcntl.h>

#include <cstdlib>

#include "api/platform/Platform.h"

namespace {
constexpr ERRORCODE kUnsupported = 0xC000021B;
constexpr ERRORCODE kGetHandleFailed = 0xC000021C;
constexpr ERRORCODE kCloseHandleFailed = 0xC000021D;
}  // namespace

IOCTL::IOCTL(const char* path)
    : m_fileHandle(0), m_controllerID(0xFF), m_phyNumber(0xFF), m_argument(nullptr) {
    setFileHandle(path);
}

IOCTL::~IOCTL() {
    closeFileHandle();
    free(m_argument);
    m_argument = nullptr;
}

ERRORCODE IOCTL::allocateIOCTLArgument(uint8_t) { return kUnsupported; }
ERRORCODE IOCTL::setIOCTLOperationArgument(uint8_t, void*) { return kUnsupported; }
ERRORCODE IOCTL::executeIOCTL(uint8_t) { return kUnsupported; }
ERRORCODE IOCTL::executeIOCTL(uint8_t, void*) { return kUnsupported; }

ERRORCODE IOCTL::setFileHandle(const char* path) {
    closeFileHandle();
    if (!path) return kGetHandleFailed;
    const int fd = quarn::platform().open(path, O_RDWR);
    if (fd < 0) return kGetHandleFailed;
    m_fileHandle = fd;
    return 0;
}

ERRORCODE IOCTL::getFileHandle(int* out) {
    if (out) *out = m_fileHandle;
    return 0;
}

ERRORCODE IOCTL::getFileHandle(const char* path, int* out) {
    if (m_fileHandle <= 0) {
        if (ERRORCODE e = setFileHandle(path)) return e;
    }
    if (out) *out = m_fileHandle;
    return 0;
}

ERRORCODE IOCTL::closeFileHandle() {
    if (m_fileHandle <= 0) return 0;
    const int fd = m_fileHandle;
    m_fileHandle = 0;
    return quarn::platform().close(fd) == 0 ? 0 : kCloseHandleFailed;
}
