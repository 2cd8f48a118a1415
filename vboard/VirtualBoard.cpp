// The virtual board's side of the platform interface.
#include "vboard/VirtualBoard.h"

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>

namespace quarn::vboard {

namespace {

// A regular file of the board's tree, backed by a host file under the root.
class HostFileHandle : public FileHandle {
public:
    explicit HostFileHandle(int fd) : m_fd(fd) {}
    ~HostFileHandle() override { ::close(m_fd); }
    ssize_t read(void* buf, size_t n) override { return ::read(m_fd, buf, n); }
    ssize_t write(const void* buf, size_t n) override { return ::write(m_fd, buf, n); }
    ssize_t pread(void* buf, size_t n, off_t off) override { return ::pread(m_fd, buf, n, off); }
    ssize_t pwrite(const void* buf, size_t n, off_t off) override {
        return ::pwrite(m_fd, buf, n, off);
    }
    off_t lseek(off_t off, int whence) override { return ::lseek(m_fd, off, whence); }
    void* mmap(size_t length, int prot, int flags, off_t offset) override {
        return ::mmap(nullptr, length, prot, flags, m_fd, offset);
    }
    int munmap(void* addr, size_t length) override { return ::munmap(addr, length); }

private:
    int m_fd;
};

unsigned long threadKey() { return static_cast<unsigned long>(pthread_self()); }

}  // namespace

VirtualBoard::VirtualBoard(const std::string& root) {
    if (root.empty()) {
        const char* tmp = getenv("TMPDIR");
        const std::string dir = tmp && *tmp ? tmp : "/tmp";
        removeAbandonedRoots(dir);
        std::string templ = dir + "/quarn-board-XXXXXX";
        std::vector<char> buf(templ.begin(), templ.end());
        buf.push_back('\0');
        if (!mkdtemp(buf.data())) throw std::runtime_error("cannot create the board's root");
        m_root = buf.data();
        m_ownsRoot = true;
        // The owner file appears under its name only once it is locked, so a cleaner that
        // finds it unlocked knows its process is gone.
        const std::string fresh = m_root + "/.owner.new";
        m_ownerFd = ::open(fresh.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (m_ownerFd < 0 || ::flock(m_ownerFd, LOCK_EX) != 0 ||
            ::rename(fresh.c_str(), (m_root + "/.owner").c_str()) != 0)
            throw std::runtime_error("cannot lock the board's root");
    } else {
        m_root = root;
        std::filesystem::create_directories(m_root);
    }
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    m_epochSeconds = ts.tv_sec;
}

VirtualBoard::~VirtualBoard() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_files.clear();
        m_fileModels.clear();
        m_mappings.clear();
    }
    if (m_ownsRoot) {
        std::error_code ec;
        std::filesystem::remove_all(m_root, ec);
    }
    if (m_ownerFd >= 0) ::close(m_ownerFd);
}

void VirtualBoard::removeAbandonedRoots(const std::string& dir) {
    DIR* d = ::opendir(dir.c_str());
    if (!d) return;
    std::vector<std::string> candidates;
    while (struct dirent* e = ::readdir(d))
        if (strncmp(e->d_name, "quarn-board-", 12) == 0) candidates.push_back(dir + "/" + e->d_name);
    ::closedir(d);
    for (const std::string& path : candidates) {
        struct stat st;
        // Only real directories of this user; a link planted under the name is left alone.
        if (::lstat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != ::geteuid()) continue;
        std::error_code ec;
        const int fd = ::open((path + "/.owner").c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0) {
            // No owner file: a root being made this instant, or one from a build that did
            // not lock its roots. Only the second kind is ever ten minutes old.
            if (errno == ENOENT && ::time(nullptr) - st.st_mtime > 600) std::filesystem::remove_all(path, ec);
            continue;
        }
        if (::flock(fd, LOCK_EX | LOCK_NB) == 0) std::filesystem::remove_all(path, ec);
        ::close(fd);
    }
}

// Lexical normalisation; ".." never climbs above the board's "/". Relative paths are
// taken from the board's "/" (its working directory).
std::string VirtualBoard::normalize(const std::string& path) const {
    std::vector<std::string> parts;
    size_t pos = 0;
    while (pos <= path.size()) {
        size_t next = path.find('/', pos);
        if (next == std::string::npos) next = path.size();
        std::string part = path.substr(pos, next - pos);
        if (part == "..") {
            if (!parts.empty()) parts.pop_back();
        } else if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
        pos = next + 1;
    }
    std::string out;
    for (const std::string& p : parts) out += "/" + p;
    return out.empty() ? "/" : out;
}

std::string VirtualBoard::hostPath(const std::string& path) const {
    std::string n = normalize(path);
    return n == "/" ? m_root : m_root + n;
}

void VirtualBoard::addDevice(const std::string& path, std::shared_ptr<DeviceModel> model) {
    std::string n = normalize(path);
    // A placeholder in the tree, so directory walks and stat see the node.
    std::filesystem::create_directories(std::filesystem::path(hostPath(n)).parent_path());
    std::ofstream(hostPath(n)).flush();
    std::lock_guard<std::mutex> lock(m_mutex);
    m_devices[n] = std::move(model);
}

std::shared_ptr<DeviceModel> VirtualBoard::device(const std::string& path) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_devices.find(normalize(path));
    return it == m_devices.end() ? nullptr : it->second;
}

void VirtualBoard::removeDevice(const std::string& path) {
    std::string n = normalize(path);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_devices.erase(n);
    }
    ::unlink(hostPath(n).c_str());
}

void VirtualBoard::addPorts(uint16_t first, uint16_t count, std::shared_ptr<PortModel> model) {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (uint32_t p = first; p < static_cast<uint32_t>(first) + count && p < 65536; ++p)
        m_ports[static_cast<uint16_t>(p)] = model;
}

void VirtualBoard::writeFile(const std::string& path, const std::string& contents) {
    std::string host = hostPath(path);
    std::filesystem::create_directories(std::filesystem::path(host).parent_path());
    std::ofstream out(host, std::ios::binary | std::ios::trunc);
    out << contents;
}

void VirtualBoard::makeSymlink(const std::string& target, const std::string& linkPath) {
    std::string host = hostPath(linkPath);
    std::filesystem::create_directories(std::filesystem::path(host).parent_path());
    ::unlink(host.c_str());
    if (::symlink(target.c_str(), host.c_str()) != 0)
        throw std::runtime_error("cannot create link " + linkPath);
}

void VirtualBoard::addProgram(const std::string& name, Program program) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_programs[name] = std::move(program);
}

void VirtualBoard::stickPort(uint16_t port, uint32_t value) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_stuckPorts[port] = value;
}

std::shared_ptr<FileHandle> VirtualBoard::handle(int fd) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_files.find(fd);
    return it == m_files.end() ? nullptr : it->second;
}

std::shared_ptr<DeviceModel> VirtualBoard::modelOf(int fd) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_fileModels.find(fd);
    return it == m_fileModels.end() ? nullptr : it->second;
}

int VirtualBoard::open(const std::string& path, int flags, mode_t mode) {
    std::string n = normalize(path);
    std::shared_ptr<DeviceModel> model = device(n);
    if (!model && (n.compare(0, 11, "/sys/class/") == 0 || n.compare(0, 11, "/sys/block/") == 0)) {
        // A model's attribute reached through a sysfs class or block link is the same
        // node: the links inside the root are followed to its own path.
        std::error_code ec;
        const std::string real = std::filesystem::canonical(hostPath(n), ec).string();
        const std::string root = ec ? "" : std::filesystem::canonical(m_root, ec).string();
        if (!ec && real.size() > root.size() && real.compare(0, root.size() + 1, root + "/") == 0)
            model = device(real.substr(root.size()));
    }
    std::shared_ptr<FileHandle> h;
    if (model) {
        if (model->faults().openErrno) {
            errno = model->faults().openErrno;
            return -1;
        }
        std::unique_ptr<FileHandle> opened = model->open(flags);
        if (!opened) return -1;
        h = std::move(opened);
    } else {
        int fd = ::open(hostPath(n).c_str(), flags | O_CLOEXEC, mode);
        if (fd < 0) return -1;
        h = std::make_shared<HostFileHandle>(fd);
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    int fd = m_nextFd++;
    m_files[fd] = h;
    if (model) m_fileModels[fd] = model;
    return fd;
}

int VirtualBoard::close(int fd) {
    std::shared_ptr<FileHandle> h;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_files.find(fd);
        if (it == m_files.end()) {
            errno = EBADF;
            return -1;
        }
        h = it->second;
        m_files.erase(it);
        m_fileModels.erase(fd);
    }
    h.reset();  // the handle's release runs outside the board's lock
    return 0;
}

#define QUARN_HANDLE_OR_EBADF(h, fd) \
    std::shared_ptr<FileHandle> h = handle(fd); \
    if (!h) { \
        errno = EBADF; \
        return -1; \
    }

ssize_t VirtualBoard::read(int fd, void* buf, size_t count) {
    QUARN_HANDLE_OR_EBADF(h, fd);
    if (auto m = modelOf(fd); m && m->faults().readErrno) {
        errno = m->faults().readErrno;
        return -1;
    }
    return h->read(buf, count);
}

ssize_t VirtualBoard::write(int fd, const void* buf, size_t count) {
    QUARN_HANDLE_OR_EBADF(h, fd);
    if (auto m = modelOf(fd); m && m->faults().writeErrno) {
        errno = m->faults().writeErrno;
        return -1;
    }
    return h->write(buf, count);
}

ssize_t VirtualBoard::pread(int fd, void* buf, size_t count, off_t offset) {
    QUARN_HANDLE_OR_EBADF(h, fd);
    if (auto m = modelOf(fd); m && m->faults().readErrno) {
        errno = m->faults().readErrno;
        return -1;
    }
    return h->pread(buf, count, offset);
}

ssize_t VirtualBoard::pwrite(int fd, const void* buf, size_t count, off_t offset) {
    QUARN_HANDLE_OR_EBADF(h, fd);
    if (auto m = modelOf(fd); m && m->faults().writeErrno) {
        errno = m->faults().writeErrno;
        return -1;
    }
    return h->pwrite(buf, count, offset);
}

off_t VirtualBoard::lseek(int fd, off_t offset, int whence) {
    QUARN_HANDLE_OR_EBADF(h, fd);
    return h->lseek(offset, whence);
}

int VirtualBoard::ioctl(int fd, unsigned long request, void* arg) {
    QUARN_HANDLE_OR_EBADF(h, fd);
    if (auto m = modelOf(fd)) {
        auto it = m->faults().ioctlErrno.find(request);
        if (it != m->faults().ioctlErrno.end() && it->second) {
            errno = it->second;
            return -1;
        }
    }
    return h->ioctl(request, arg);
}

// Callers hold m_mutex.
std::vector<std::pair<void*, std::shared_ptr<FileHandle>>>::iterator VirtualBoard::findMapping(void* addr) {
    for (auto it = m_mappings.end(); it != m_mappings.begin();) {
        --it;
        if (it->first == addr) return it;
    }
    return m_mappings.end();
}

void* VirtualBoard::mmap(size_t length, int prot, int flags, int fd, off_t offset) {
    std::shared_ptr<FileHandle> h = handle(fd);
    if (!h) {
        errno = EBADF;
        return MAP_FAILED;
    }
    void* addr = h->mmap(length, prot, flags, offset);
    if (addr != MAP_FAILED) {
        // The mapping outlives the descriptor, as on Linux: the handle stays with it.
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = findMapping(addr);
        if (it != m_mappings.end()) it->second = std::move(h);
        else m_mappings.emplace_back(addr, std::move(h));
    }
    return addr;
}

int VirtualBoard::munmap(void* addr, size_t length) {
    std::shared_ptr<FileHandle> h;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = findMapping(addr);
        if (it == m_mappings.end()) {
            errno = EINVAL;
            return -1;
        }
        h = std::move(it->second);
        if (it + 1 != m_mappings.end()) *it = std::move(m_mappings.back());
        m_mappings.pop_back();
    }
    return h->munmap(addr, length);
}

int VirtualBoard::stat(const std::string& path, struct stat* st) {
    std::string n = normalize(path);
    if (::stat(hostPath(n).c_str(), st) != 0) return -1;
    if (auto d = device(n); d && !d->isAttribute())
        st->st_mode = (st->st_mode & ~S_IFMT) | (d->isBlockDevice() ? S_IFBLK : S_IFCHR);
    return 0;
}

int VirtualBoard::lstat(const std::string& path, struct stat* st) {
    std::string n = normalize(path);
    if (::lstat(hostPath(n).c_str(), st) != 0) return -1;
    if (auto d = device(n); d && !d->isAttribute())
        st->st_mode = (st->st_mode & ~S_IFMT) | (d->isBlockDevice() ? S_IFBLK : S_IFCHR);
    return 0;
}

int VirtualBoard::readlink(const std::string& path, std::string* target) {
    return linuxPlatform().readlink(hostPath(path), target);
}

int VirtualBoard::listDirectory(const std::string& path, std::vector<DirEntry>* entries) {
    std::string n = normalize(path);
    if (linuxPlatform().listDirectory(hostPath(n), entries) != 0) return -1;
    for (DirEntry& e : *entries) {
        auto d = device(n == "/" ? "/" + e.name : n + "/" + e.name);
        if (d && !d->isAttribute()) e.type = d->isBlockDevice() ? DT_BLK : DT_CHR;
    }
    return 0;
}

int VirtualBoard::mkdir(const std::string& path, mode_t mode) {
    return ::mkdir(hostPath(path).c_str(), mode);
}
int VirtualBoard::unlink(const std::string& path) { return ::unlink(hostPath(path).c_str()); }
int VirtualBoard::rmdir(const std::string& path) { return ::rmdir(hostPath(path).c_str()); }
int VirtualBoard::rename(const std::string& from, const std::string& to) {
    return ::rename(hostPath(from).c_str(), hostPath(to).c_str());
}

int VirtualBoard::iopl(int level) {
    if (!m_portAccessAllowed && level > 0) {
        errno = EPERM;
        return -1;
    }
    if (level < 0 || level > 3) {
        errno = EINVAL;
        return -1;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_iopl = level == 3;
    return 0;
}

int VirtualBoard::ioperm(unsigned long from, unsigned long num, int turnOn) {
    if (from + num < from || from + num > 65536) {
        errno = EINVAL;
        return -1;
    }
    if (turnOn && !m_portAccessAllowed) {
        errno = EPERM;
        return -1;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    for (unsigned long p = from; p < from + num; ++p) m_portPermission[p] = turnOn != 0;
    return 0;
}

bool VirtualBoard::portPermitted(uint16_t port, int size) const {
    if (m_iopl) return true;
    for (int i = 0; i < size; ++i) {
        uint32_t p = static_cast<uint32_t>(port) + static_cast<uint32_t>(i);
        if (p >= 65536 || !m_portPermission[p]) return false;
    }
    return true;
}

uint32_t VirtualBoard::portIn(uint16_t port, int size) {
    const uint32_t allOnes = size == 4 ? 0xFFFFFFFFu : (1u << (8 * size)) - 1;
    std::shared_ptr<PortModel> model;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!portPermitted(port, size)) {
            ++m_portViolations;
            return allOnes;
        }
        auto stuck = m_stuckPorts.find(port);
        if (stuck != m_stuckPorts.end()) return stuck->second & allOnes;
        auto it = m_ports.find(port);
        if (it == m_ports.end()) return allOnes;  // nothing decodes it: the bus floats high
        model = it->second;
    }
    return model->in(port, size) & allOnes;
}

void VirtualBoard::portOut(uint16_t port, uint32_t value, int size) {
    std::shared_ptr<PortModel> model;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!portPermitted(port, size)) {
            ++m_portViolations;
            return;
        }
        if (m_stuckPorts.count(port)) return;
        auto it = m_ports.find(port);
        if (it == m_ports.end()) return;
        model = it->second;
    }
    model->out(port, value, size);
}

uint8_t VirtualBoard::inb(uint16_t port) { return static_cast<uint8_t>(portIn(port, 1)); }
uint16_t VirtualBoard::inw(uint16_t port) { return static_cast<uint16_t>(portIn(port, 2)); }
uint32_t VirtualBoard::inl(uint16_t port) { return portIn(port, 4); }
void VirtualBoard::outb(uint8_t value, uint16_t port) { portOut(port, value, 1); }
void VirtualBoard::outw(uint16_t value, uint16_t port) { portOut(port, value, 2); }
void VirtualBoard::outl(uint32_t value, uint16_t port) { portOut(port, value, 4); }

int VirtualBoard::runProgram(const std::vector<std::string>& argv, std::string* output,
                             int* status, bool mergeStderr) {
    if (argv.empty()) {
        errno = EINVAL;
        return -1;
    }
    std::string name = argv[0].substr(argv[0].rfind('/') + 1);
    Program program;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_programs.find(name);
        if (it != m_programs.end()) program = it->second;
    }
    if (program) {
        std::string out;
        int code = program(argv, &out);
        if (output) output->append(out);
        if (status) *status = (code & 0xFF) << 8;  // as waitpid reports a normal exit
        return 0;
    }
    // Executables placed in the board's own PATH run for real, with that path.
    for (const char* dir : {"/usr/local/sbin", "/usr/local/bin", "/usr/sbin", "/usr/bin",
                            "/sbin", "/bin"}) {
        std::string host = hostPath(std::string(dir) + "/" + name);
        if (::access(host.c_str(), X_OK) == 0) {
            std::vector<std::string> args = argv;
            args[0] = host;
            return linuxPlatform().runProgram(args, output, status, mergeStderr);
        }
    }
    errno = ENOENT;
    return -1;
}

void VirtualBoard::setNetwork(std::shared_ptr<NetworkModel> network) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_network = std::move(network);
}

std::shared_ptr<SocketHandle> VirtualBoard::socketHandle(int fd) const {
    return std::dynamic_pointer_cast<SocketHandle>(handle(fd));
}

// Sockets come from the board's network stack; without one they fail as on a kernel
// built without the family.
int VirtualBoard::socket(int domain, int type, int protocol) {
    std::shared_ptr<NetworkModel> network;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        network = m_network;
    }
    if (!network) {
        errno = EAFNOSUPPORT;
        return -1;
    }
    std::shared_ptr<FileHandle> h = network->socket(domain, type, protocol);
    if (!h) return -1;
    std::lock_guard<std::mutex> lock(m_mutex);
    int fd = m_nextFd++;
    m_files[fd] = h;
    m_fileModels[fd] = network;
    return fd;
}

#define QUARN_SOCKET_OR_FAIL(s, fd) \
    std::shared_ptr<SocketHandle> s = socketHandle(fd); \
    if (!s) { \
        errno = handle(fd) ? ENOTSOCK : EBADF; \
        return -1; \
    }

int VirtualBoard::bind(int fd, const struct sockaddr* addr, socklen_t len) {
    QUARN_SOCKET_OR_FAIL(s, fd);
    return s->bind(addr, len);
}
ssize_t VirtualBoard::sendto(int fd, const void* buf, size_t len, int flags, const struct sockaddr* addr,
                             socklen_t addrLen) {
    QUARN_SOCKET_OR_FAIL(s, fd);
    return s->sendto(buf, len, flags, addr, addrLen);
}
ssize_t VirtualBoard::recvfrom(int fd, void* buf, size_t len, int flags, struct sockaddr* addr,
                               socklen_t* addrLen) {
    QUARN_SOCKET_OR_FAIL(s, fd);
    return s->recvfrom(buf, len, flags, addr, addrLen);
}
int VirtualBoard::setsockopt(int fd, int level, int name, const void* value, socklen_t len) {
    QUARN_SOCKET_OR_FAIL(s, fd);
    return s->setsockopt(level, name, value, len);
}

int VirtualBoard::semget(key_t key, int nsems, int flags) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (key != IPC_PRIVATE) {
        auto it = m_semKeys.find(key);
        if (it != m_semKeys.end()) {
            if ((flags & IPC_CREAT) && (flags & IPC_EXCL)) {
                errno = EEXIST;
                return -1;
            }
            return it->second;
        }
        if (!(flags & IPC_CREAT)) {
            errno = ENOENT;
            return -1;
        }
    }
    if (nsems <= 0 || nsems > 250) {
        errno = EINVAL;
        return -1;
    }
    int id = m_nextSemId++;
    m_semaphores[id].values.assign(static_cast<size_t>(nsems), 0);
    if (key != IPC_PRIVATE) m_semKeys[key] = id;
    return id;
}

// Operations apply all at once or not at all; one that would have to wait fails with
// EAGAIN, since the simulated processes of the board never hold a semaphore across calls.
int VirtualBoard::semop(int id, struct sembuf* ops, size_t count) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_semaphores.find(id);
    if (it == m_semaphores.end()) {
        errno = EINVAL;
        return -1;
    }
    std::vector<int> values = it->second.values;
    for (size_t i = 0; i < count; ++i) {
        if (ops[i].sem_num >= values.size()) {
            errno = EFBIG;
            return -1;
        }
        int& v = values[ops[i].sem_num];
        if (ops[i].sem_op == 0 && v != 0) {
            errno = EAGAIN;
            return -1;
        }
        if (v + ops[i].sem_op < 0) {
            errno = EAGAIN;
            return -1;
        }
        v += ops[i].sem_op;
    }
    it->second.values = values;
    return 0;
}

int VirtualBoard::semctl(int id, int num, int cmd, int value) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_semaphores.find(id);
    if (it == m_semaphores.end()) {
        errno = EINVAL;
        return -1;
    }
    if (cmd == IPC_RMID) {
        for (auto k = m_semKeys.begin(); k != m_semKeys.end(); ++k) {
            if (k->second == id) {
                m_semKeys.erase(k);
                break;
            }
        }
        m_semaphores.erase(it);
        return 0;
    }
    if (num < 0 || static_cast<size_t>(num) >= it->second.values.size()) {
        errno = EINVAL;
        return -1;
    }
    if (cmd == SETVAL) {
        it->second.values[static_cast<size_t>(num)] = value;
        return 0;
    }
    if (cmd == GETVAL) return it->second.values[static_cast<size_t>(num)];
    errno = EINVAL;
    return -1;
}

int VirtualBoard::setAffinity(const cpu_set_t& cpus) {
    bool any = false;
    for (int c = 0; c < CPU_SETSIZE; ++c) {
        if (!CPU_ISSET(c, &cpus)) continue;
        if (c >= m_cpuCount) {
            errno = EINVAL;
            return -1;
        }
        any = true;
    }
    if (!any) {
        errno = EINVAL;
        return -1;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_affinity[threadKey()] = cpus;
    return 0;
}

int VirtualBoard::getAffinity(cpu_set_t* cpus) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_affinity.find(threadKey());
    if (it != m_affinity.end()) {
        *cpus = it->second;
        return 0;
    }
    CPU_ZERO(cpus);
    for (int c = 0; c < m_cpuCount; ++c) CPU_SET(c, cpus);
    return 0;
}

void VirtualBoard::sleepMicroseconds(uint64_t microseconds) {
    m_clock.advanceNs(microseconds * 1000ULL);
    if (m_sleepHook) m_sleepHook(microseconds);
}

// Virtual time moves when something waits or touches a device, but plain CPU work
// (computing, loops over mapped memory) is invisible to the board. So every reading of
// the clock moves it by a microsecond: a loop that does such work until a deadline
// still reaches it, as it would on the real board, instead of spinning for ever.
uint64_t VirtualBoard::monotonicNanoseconds() {
    m_clock.advanceNs(kClockReadNs);
    return m_clock.nowNs();
}

int VirtualBoard::wallClock(struct timespec* now) {
    m_clock.advanceNs(kClockReadNs);
    const uint64_t ns = m_clock.nowNs();
    now->tv_sec = static_cast<time_t>(m_epochSeconds + static_cast<int64_t>(ns / 1000000000ULL));
    now->tv_nsec = static_cast<long>(ns % 1000000000ULL);
    return 0;
}

int VirtualBoard::kernelRelease(std::string* release) {
    *release = m_kernelRelease;
    return 0;
}

int VirtualBoard::workClock(struct timespec* now) { return ::clock_gettime(CLOCK_REALTIME, now); }

}  // namespace quarn::vboard
