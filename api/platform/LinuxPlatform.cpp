// The default platform: each primitive is the Linux system call of the same name.
#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/io.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>

#include "api/platform/Platform.h"

extern char** environ;

namespace quarn {

Platform::~Platform() = default;

namespace {

class LinuxPlatform final : public Platform {
public:
    int open(const std::string& path, int flags, mode_t mode) override {
        return ::open(path.c_str(), flags | O_CLOEXEC, mode);
    }
    int close(int fd) override { return ::close(fd); }
    ssize_t read(int fd, void* buf, size_t count) override { return ::read(fd, buf, count); }
    ssize_t write(int fd, const void* buf, size_t count) override {
        return ::write(fd, buf, count);
    }
    ssize_t pread(int fd, void* buf, size_t count, off_t offset) override {
        return ::pread(fd, buf, count, offset);
    }
    ssize_t pwrite(int fd, const void* buf, size_t count, off_t offset) override {
        return ::pwrite(fd, buf, count, offset);
    }
    off_t lseek(int fd, off_t offset, int whence) override { return ::lseek(fd, offset, whence); }
    int ioctl(int fd, unsigned long request, void* arg) override {
        return ::ioctl(fd, request, arg);
    }
    void* mmap(size_t length, int prot, int flags, int fd, off_t offset) override {
        return ::mmap(nullptr, length, prot, flags, fd, offset);
    }
    int munmap(void* addr, size_t length) override { return ::munmap(addr, length); }
    int stat(const std::string& path, struct stat* st) override {
        return ::stat(path.c_str(), st);
    }
    int lstat(const std::string& path, struct stat* st) override {
        return ::lstat(path.c_str(), st);
    }
    int readlink(const std::string& path, std::string* target) override {
        char buf[PATH_MAX];
        ssize_t n = ::readlink(path.c_str(), buf, sizeof(buf));
        if (n < 0) return -1;
        if (static_cast<size_t>(n) >= sizeof(buf)) {
            errno = ENAMETOOLONG;
            return -1;
        }
        target->assign(buf, static_cast<size_t>(n));
        return 0;
    }
    int listDirectory(const std::string& path, std::vector<DirEntry>* entries) override {
        DIR* dir = ::opendir(path.c_str());
        if (!dir) return -1;
        entries->clear();
        while (struct dirent* e = ::readdir(dir)) {
            std::string name(e->d_name);
            if (name == "." || name == "..") continue;
            entries->push_back({name, e->d_type});
        }
        ::closedir(dir);
        return 0;
    }
    int mkdir(const std::string& path, mode_t mode) override {
        return ::mkdir(path.c_str(), mode);
    }
    int unlink(const std::string& path) override { return ::unlink(path.c_str()); }
    int rmdir(const std::string& path) override { return ::rmdir(path.c_str()); }
    int rename(const std::string& from, const std::string& to) override {
        return ::rename(from.c_str(), to.c_str());
    }

    int iopl(int level) override { return ::iopl(level); }
    int ioperm(unsigned long from, unsigned long num, int turnOn) override {
        return ::ioperm(from, num, turnOn);
    }
    uint8_t inb(uint16_t port) override { return ::inb(port); }
    uint16_t inw(uint16_t port) override { return ::inw(port); }
    uint32_t inl(uint16_t port) override { return ::inl(port); }
    void outb(uint8_t value, uint16_t port) override { ::outb(value, port); }
    void outw(uint16_t value, uint16_t port) override { ::outw(value, port); }
    void outl(uint32_t value, uint16_t port) override { ::outl(value, port); }

    int runProgram(const std::vector<std::string>& argv, std::string* output, int* status,
                   bool mergeStderr) override {
        if (argv.empty()) {
            errno = EINVAL;
            return -1;
        }
        int pipeFds[2];
        if (::pipe2(pipeFds, O_CLOEXEC) != 0) return -1;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
        if (mergeStderr) posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDERR_FILENO);
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        std::vector<char*> args;
        for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        pid_t pid;
        int rc = ::posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(pipeFds[1]);
        if (rc != 0) {
            ::close(pipeFds[0]);
            errno = rc;
            return -1;
        }
        char buf[4096];
        for (;;) {
            ssize_t n = ::read(pipeFds[0], buf, sizeof(buf));
            if (n > 0) {
                if (output) output->append(buf, static_cast<size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                break;
            }
        }
        ::close(pipeFds[0]);
        int ws = 0;
        while (::waitpid(pid, &ws, 0) < 0) {
            if (errno != EINTR) return -1;
        }
        if (status) *status = ws;
        return 0;
    }

    int socket(int domain, int type, int protocol) override {
        return ::socket(domain, type | SOCK_CLOEXEC, protocol);
    }
    int bind(int fd, const struct sockaddr* addr, socklen_t len) override {
        return ::bind(fd, addr, len);
    }
    ssize_t sendto(int fd, const void* buf, size_t len, int flags, const struct sockaddr* addr,
                   socklen_t addrLen) override {
        return ::sendto(fd, buf, len, flags, addr, addrLen);
    }
    ssize_t recvfrom(int fd, void* buf, size_t len, int flags, struct sockaddr* addr,
                     socklen_t* addrLen) override {
        return ::recvfrom(fd, buf, len, flags, addr, addrLen);
    }
    int setsockopt(int fd, int level, int name, const void* value, socklen_t len) override {
        return ::setsockopt(fd, level, name, value, len);
    }

    int semget(key_t key, int nsems, int flags) override { return ::semget(key, nsems, flags); }
    int semop(int id, struct sembuf* ops, size_t count) override {
        return ::semop(id, ops, count);
    }
    int semctl(int id, int num, int cmd, int value) override {
        return ::semctl(id, num, cmd, value);
    }

    int setAffinity(const cpu_set_t& cpus) override {
        int rc = ::pthread_setaffinity_np(::pthread_self(), sizeof(cpus), &cpus);
        if (rc != 0) {
            errno = rc;
            return -1;
        }
        return 0;
    }
    int getAffinity(cpu_set_t* cpus) override {
        int rc = ::pthread_getaffinity_np(::pthread_self(), sizeof(*cpus), cpus);
        if (rc != 0) {
            errno = rc;
            return -1;
        }
        return 0;
    }
    int onlineCpuCount() override { return static_cast<int>(::sysconf(_SC_NPROCESSORS_ONLN)); }

    void sleepMicroseconds(uint64_t microseconds) override {
        struct timespec ts;
        ts.tv_sec = static_cast<time_t>(microseconds / 1000000);
        ts.tv_nsec = static_cast<long>((microseconds % 1000000) * 1000);
        while (::nanosleep(&ts, &ts) != 0 && errno == EINTR) {
        }
    }
    uint64_t monotonicNanoseconds() override {
        struct timespec ts;
        ::clock_gettime(CLOCK_MONOTONIC, &ts);
        return static_cast<uint64_t>(ts.tv_sec) * 1000000000ULL +
               static_cast<uint64_t>(ts.tv_nsec);
    }
    int wallClock(struct timespec* now) override { return ::clock_gettime(CLOCK_REALTIME, now); }

    int kernelRelease(std::string* release) override {
        struct utsname u;
        if (::uname(&u) != 0) return -1;
        *release = u.release;
        return 0;
    }
    long pageSize() override { return ::sysconf(_SC_PAGESIZE); }
};

std::atomic<Platform*> g_installed{nullptr};

}  // namespace

Platform& linuxPlatform() {
    static LinuxPlatform instance;
    return instance;
}

Platform& platform() {
    Platform* p = g_installed.load(std::memory_order_acquire);
    return p ? *p : linuxPlatform();
}

void installPlatform(Platform* p) { g_installed.store(p, std::memory_order_release); }

}  // namespace quarn
