// A simulated instance of the board behind the platform interface: files under a
// private root directory, device models behind device nodes, I/O ports, board tools
// on a private PATH and virtual time.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "api/platform/Platform.h"
#include "vboard/DeviceModel.h"
#include "vboard/VirtualClock.h"

namespace quarn::vboard {

class VirtualBoard : public Platform {
public:
    // An in-process board tool: argv in, standard output appended to out, exit code back.
    using Program = std::function<int(const std::vector<std::string>& argv, std::string* out)>;

    // root empty: a fresh private directory under $TMPDIR, removed with the board.
    explicit VirtualBoard(const std::string& root = "");
    ~VirtualBoard() override;

    const std::string& root() const { return m_root; }
    // Removes the private roots under dir (quarn-board-*) that no living process owns:
    // those of a killed process. Boards made without a root of their own call it first.
    static void removeAbandonedRoots(const std::string& dir);
    // Where a path of the board lives on the host.
    std::string hostPath(const std::string& path) const;
    VirtualClock& clock() { return m_clock; }

    // Board building and fault injection.
    void addDevice(const std::string& path, std::shared_ptr<DeviceModel> model);
    std::shared_ptr<DeviceModel> device(const std::string& path) const;
    void removeDevice(const std::string& path);
    void addPorts(uint16_t first, uint16_t count, std::shared_ptr<PortModel> model);
    void writeFile(const std::string& path, const std::string& contents);
    void makeSymlink(const std::string& target, const std::string& linkPath);
    void addProgram(const std::string& name, Program program);
    // The network stack behind socket(); without one, sockets fail with EAFNOSUPPORT.
    void setNetwork(std::shared_ptr<NetworkModel> network);
    // Refuses iopl/ioperm with EPERM, as for an unprivileged process.
    void setPortAccessAllowed(bool allowed) { m_portAccessAllowed = allowed; }
    // A port that always reads value and ignores writes.
    void stickPort(uint16_t port, uint32_t value);
    // Port accesses made without permission (a real process would have died of SIGSEGV).
    uint64_t portViolations() const { return m_portViolations; }
    void setKernelRelease(const std::string& release) { m_kernelRelease = release; }
    void setCpuCount(int count) { m_cpuCount = count; }
    // Called on the sleeping thread after every sleep (links to another board pace
    // their peer in real time and deliver posted writes here).
    void setSleepHook(std::function<void(uint64_t microseconds)> hook) { m_sleepHook = std::move(hook); }
    // Wall-clock time at virtual time zero (seconds since the epoch).
    void setEpoch(int64_t seconds) { m_epochSeconds = seconds; }
    int64_t epoch() const { return m_epochSeconds; }

    // Platform.
    int open(const std::string& path, int flags, mode_t mode = 0) override;
    int close(int fd) override;
    ssize_t read(int fd, void* buf, size_t count) override;
    ssize_t write(int fd, const void* buf, size_t count) override;
    ssize_t pread(int fd, void* buf, size_t count, off_t offset) override;
    ssize_t pwrite(int fd, const void* buf, size_t count, off_t offset) override;
    off_t lseek(int fd, off_t offset, int whence) override;
    int ioctl(int fd, unsigned long request, void* arg) override;
    void* mmap(size_t length, int prot, int flags, int fd, off_t offset) override;
    int munmap(void* addr, size_t length) override;
    int stat(const std::string& path, struct stat* st) override;
    int lstat(const std::string& path, struct stat* st) override;
    int readlink(const std::string& path, std::string* target) override;
    int listDirectory(const std::string& path, std::vector<DirEntry>* entries) override;
    int mkdir(const std::string& path, mode_t mode) override;
    int unlink(const std::string& path) override;
    int rmdir(const std::string& path) override;
    int rename(const std::string& from, const std::string& to) override;
    int iopl(int level) override;
    int ioperm(unsigned long from, unsigned long num, int turnOn) override;
    uint8_t inb(uint16_t port) override;
    uint16_t inw(uint16_t port) override;
    uint32_t inl(uint16_t port) override;
    void outb(uint8_t value, uint16_t port) override;
    void outw(uint16_t value, uint16_t port) override;
    void outl(uint32_t value, uint16_t port) override;
    int runProgram(const std::vector<std::string>& argv, std::string* output, int* status,
                   bool mergeStderr = false) override;
    int socket(int domain, int type, int protocol) override;
    int bind(int fd, const struct sockaddr* addr, socklen_t len) override;
    ssize_t sendto(int fd, const void* buf, size_t len, int flags, const struct sockaddr* addr,
                   socklen_t addrLen) override;
    ssize_t recvfrom(int fd, void* buf, size_t len, int flags, struct sockaddr* addr,
                     socklen_t* addrLen) override;
    int setsockopt(int fd, int level, int name, const void* value, socklen_t len) override;
    int semget(key_t key, int nsems, int flags) override;
    int semop(int id, struct sembuf* ops, size_t count) override;
    int semctl(int id, int num, int cmd, int value) override;
    int setAffinity(const cpu_set_t& cpus) override;
    int getAffinity(cpu_set_t* cpus) override;
    int onlineCpuCount() override { return m_cpuCount; }
    void sleepMicroseconds(uint64_t microseconds) override;
    uint64_t monotonicNanoseconds() override;
    int wallClock(struct timespec* now) override;
    int workClock(struct timespec* now) override;
    int kernelRelease(std::string* release) override;
    long pageSize() override { return 4096; }

private:
    struct Semaphore {
        std::vector<int> values;
    };

    std::string normalize(const std::string& path) const;
    std::shared_ptr<FileHandle> handle(int fd) const;
    std::shared_ptr<DeviceModel> modelOf(int fd) const;
    bool portPermitted(uint16_t port, int size) const;
    uint32_t portIn(uint16_t port, int size);
    void portOut(uint16_t port, uint32_t value, int size);

    std::string m_root;
    bool m_ownsRoot = false;
    int m_ownerFd = -1;  // the root's ".owner", locked for as long as this process lives
    VirtualClock m_clock;
    // What one reading of the clock costs in virtual time (see monotonicNanoseconds).
    static constexpr uint64_t kClockReadNs = 1000;

    mutable std::mutex m_mutex;  // guards the tables below
    std::map<std::string, std::shared_ptr<DeviceModel>> m_devices;
    std::map<int, std::shared_ptr<FileHandle>> m_files;
    std::map<int, std::shared_ptr<DeviceModel>> m_fileModels;
    // Live mmaps and their handle. A short list searched from its newest entry: tests that
    // walk memory map and unmap one page at a time, and a tree node per page cost more
    // than the page's own accesses.
    std::vector<std::pair<void*, std::shared_ptr<FileHandle>>> m_mappings;
    std::vector<std::pair<void*, std::shared_ptr<FileHandle>>>::iterator findMapping(void* addr);
    int m_nextFd = 1000;  // far from the host's descriptors, so a mix-up shows
    std::map<uint16_t, std::shared_ptr<PortModel>> m_ports;
    std::map<uint16_t, uint32_t> m_stuckPorts;
    std::map<std::string, Program> m_programs;
    std::shared_ptr<NetworkModel> m_network;
    std::shared_ptr<SocketHandle> socketHandle(int fd) const;
    std::map<key_t, int> m_semKeys;
    std::map<int, Semaphore> m_semaphores;
    int m_nextSemId = 1;
    std::map<unsigned long, cpu_set_t> m_affinity;  // per simulated thread
    std::vector<bool> m_portPermission = std::vector<bool>(65536, false);
    bool m_iopl = false;
    bool m_portAccessAllowed = true;
    uint64_t m_portViolations = 0;
    std::string m_kernelRelease = "4.19.0-veltrax-amd64";
    int m_cpuCount = 8;
    int64_t m_epochSeconds = 0;
    std::function<void(uint64_t)> m_sleepHook;
};

}  // namespace quarn::vboard
