// The one boundary between quarn and the operating system. Every file, device-node,
// port, process, socket, semaphore, affinity and clock access goes through here, so the
// whole library can run against a real Linux host or a simulated board.
#pragma once

#include <sched.h>
#include <sys/sem.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "api/Export.h"

namespace quarn {

struct DirEntry {
    std::string name;
    unsigned char type;  // DT_* value; DT_UNKNOWN when the backend cannot tell
};

// Primitives keep libc's contract: -1 (or MAP_FAILED) with errno set on failure, so
// callers format errno texts exactly as they would around the system calls themselves.
class QUARN_EXPORT Platform {
public:
    virtual ~Platform();

    // Files and device nodes.
    virtual int open(const std::string& path, int flags, mode_t mode = 0) = 0;
    virtual int close(int fd) = 0;
    virtual ssize_t read(int fd, void* buf, size_t count) = 0;
    virtual ssize_t write(int fd, const void* buf, size_t count) = 0;
    virtual ssize_t pread(int fd, void* buf, size_t count, off_t offset) = 0;
    virtual ssize_t pwrite(int fd, const void* buf, size_t count, off_t offset) = 0;
    virtual off_t lseek(int fd, off_t offset, int whence) = 0;
    // arg is the request's pointer, or its value cast to a pointer for requests that
    // take the argument by value (as the kernel sees it either way).
    virtual int ioctl(int fd, unsigned long request, void* arg) = 0;
    virtual void* mmap(size_t length, int prot, int flags, int fd, off_t offset) = 0;
    virtual int munmap(void* addr, size_t length) = 0;
    virtual int stat(const std::string& path, struct stat* st) = 0;
    virtual int lstat(const std::string& path, struct stat* st) = 0;
    virtual int readlink(const std::string& path, std::string* target) = 0;
    // Entries of a directory without "." and "..", in the order the backend gives.
    virtual int listDirectory(const std::string& path, std::vector<DirEntry>* entries) = 0;
    virtual int mkdir(const std::string& path, mode_t mode) = 0;
    virtual int unlink(const std::string& path) = 0;
    virtual int rmdir(const std::string& path) = 0;
    virtual int rename(const std::string& from, const std::string& to) = 0;

    // x86 port I/O.
    virtual int iopl(int level) = 0;
    virtual int ioperm(unsigned long from, unsigned long num, int turnOn) = 0;
    virtual uint8_t inb(uint16_t port) = 0;
    virtual uint16_t inw(uint16_t port) = 0;
    virtual uint32_t inl(uint16_t port) = 0;
    virtual void outb(uint8_t value, uint16_t port) = 0;
    virtual void outw(uint16_t value, uint16_t port) = 0;
    virtual void outl(uint32_t value, uint16_t port) = 0;

    // External programs, by argument vector and never through a shell, so no value
    // taken from a device, profile or caller can become a command. Standard output
    // (and standard error when mergeStderr) is collected into output. Returns 0 when
    // the program ran, with its wait status in *status; -1 with errno when it could not
    // be started.
    virtual int runProgram(const std::vector<std::string>& argv, std::string* output,
                           int* status, bool mergeStderr = false) = 0;

    // Sockets (ethtool and interface requests, raw packet sockets).
    virtual int socket(int domain, int type, int protocol) = 0;
    virtual int bind(int fd, const struct sockaddr* addr, socklen_t len) = 0;
    virtual ssize_t sendto(int fd, const void* buf, size_t len, int flags,
                           const struct sockaddr* addr, socklen_t addrLen) = 0;
    virtual ssize_t recvfrom(int fd, void* buf, size_t len, int flags, struct sockaddr* addr,
                             socklen_t* addrLen) = 0;
    virtual int setsockopt(int fd, int level, int name, const void* value, socklen_t len) = 0;

    // System V semaphores.
    virtual int semget(key_t key, int nsems, int flags) = 0;
    virtual int semop(int id, struct sembuf* ops, size_t count) = 0;
    virtual int semctl(int id, int num, int cmd, int value) = 0;

    // CPUs: binding the calling thread and reading its binding back.
    virtual int setAffinity(const cpu_set_t& cpus) = 0;
    virtual int getAffinity(cpu_set_t* cpus) = 0;
    virtual int onlineCpuCount() = 0;

    // Time.
    virtual void sleepMicroseconds(uint64_t microseconds) = 0;
    virtual uint64_t monotonicNanoseconds() = 0;
    virtual int wallClock(struct timespec* now) = 0;
    // The clock that times computation (the pi digits of the stability test). On hardware
    // it is the wall clock. A simulated board, whose own clock moves only when something
    // waits, answers with the clock of the machine it runs on, where the computing
    // really takes its time.
    virtual int workClock(struct timespec* now) { return wallClock(now); }

    // System identity ("uname -r") and the memory page size.
    virtual int kernelRelease(std::string* release) = 0;
    virtual long pageSize() = 0;
};

// The platform in use: the Linux one unless a caller installed another.
QUARN_EXPORT Platform& platform();
// Installs p (not owned; nullptr restores Linux). Install before any object is created
// and keep p alive while objects use it.
QUARN_EXPORT void installPlatform(Platform* p);
QUARN_EXPORT Platform& linuxPlatform();

// Value-argument form of ioctl (RTC_IRQP_SET and the like).
inline int ioctlValue(Platform& p, int fd, unsigned long request, unsigned long value) {
    return p.ioctl(fd, request, reinterpret_cast<void*>(value));
}

}  // namespace quarn
