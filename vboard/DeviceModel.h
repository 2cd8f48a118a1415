// What a simulated device looks like to the virtual board: a model behind a device
// node (opened into handles), or a model behind a range of I/O ports.
#pragma once

#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <cerrno>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

namespace quarn::vboard {

class VirtualBoard;

// One open of a device node. Defaults answer like a driver without the operation.
class FileHandle {
public:
    virtual ~FileHandle() = default;
    virtual ssize_t read(void*, size_t) { return fail(EINVAL); }
    virtual ssize_t write(const void*, size_t) { return fail(EINVAL); }
    virtual ssize_t pread(void*, size_t, off_t) { return fail(ESPIPE); }
    virtual ssize_t pwrite(const void*, size_t, off_t) { return fail(ESPIPE); }
    virtual off_t lseek(off_t, int) { return fail(ESPIPE); }
    virtual int ioctl(unsigned long, void*) { return static_cast<int>(fail(ENOTTY)); }
    virtual void* mmap(size_t, int, int, off_t) {
        errno = ENODEV;
        return MAP_FAILED;
    }
    virtual int munmap(void*, size_t) { return 0; }

protected:
    static ssize_t fail(int err) {
        errno = err;
        return -1;
    }
};

// Faults any device model can be given; the board applies them before the model runs.
struct DeviceFaults {
    int openErrno = 0;                     // every open fails with this
    int readErrno = 0;                     // every read fails with this
    int writeErrno = 0;                    // every write fails with this
    std::map<unsigned long, int> ioctlErrno;  // request -> errno
};

class DeviceModel {
public:
    virtual ~DeviceModel() = default;
    // A new handle, or null with errno set.
    virtual std::unique_ptr<FileHandle> open(int flags) = 0;
    // A sysfs attribute looks like a regular file; other nodes are character devices.
    virtual bool isAttribute() const { return false; }
    // A block device node (a disk or namespace) rather than a character device.
    virtual bool isBlockDevice() const { return false; }

    DeviceFaults& faults() { return m_faults; }
    // Serialises the model's state between threads of the simulated processes.
    std::mutex& mutex() { return m_mutex; }

private:
    DeviceFaults m_faults;
    std::mutex m_mutex;
};

// One socket of a simulated network stack: a handle with the socket calls besides.
class SocketHandle : public FileHandle {
public:
    virtual int bind(const struct sockaddr*, socklen_t) { return static_cast<int>(fail(EOPNOTSUPP)); }
    virtual ssize_t sendto(const void*, size_t, int, const struct sockaddr*, socklen_t) {
        return fail(EOPNOTSUPP);
    }
    virtual ssize_t recvfrom(void*, size_t, int, struct sockaddr*, socklen_t*) { return fail(EOPNOTSUPP); }
    virtual int setsockopt(int, int, const void*, socklen_t) { return 0; }
};

// The board's network stack: makes sockets. Its faults (ioctl errnos) apply to every
// socket it made.
class NetworkModel : public DeviceModel {
public:
    std::unique_ptr<FileHandle> open(int) override {
        errno = ENODEV;
        return nullptr;
    }
    // A new socket, or null with errno set.
    virtual std::unique_ptr<SocketHandle> socket(int domain, int type, int protocol) = 0;
};

// A device decoded on a range of I/O ports. size is 1, 2 or 4 bytes.
class PortModel {
public:
    virtual ~PortModel() = default;
    virtual uint32_t in(uint16_t port, int size) = 0;
    virtual void out(uint16_t port, uint32_t value, int size) = 0;
};

}  // namespace quarn::vboard
