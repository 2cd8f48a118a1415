// Shared by the integration guest's check files: the PASS/FAIL/SKIP lines, chain
// rendering, small file helpers, and a platform that forwards every call to Linux (test
// platforms derive from it and change one call). A check file adds its group with one
// GuestPart object; the groups run in file order after the built-in ones.
#pragma once

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "api/ErrorMsg.h"
#include "api/ErrorText.h"
#include "api/platform/Files.h"
#include "api/platform/Platform.h"

namespace itest {

inline int g_pass = 0, g_fail = 0, g_skip = 0;

inline void pass(const std::string& name) { printf("PASS %s\n", name.c_str()); ++g_pass; fflush(stdout); }
inline void fail(const std::string& name, const std::string& why) {
    printf("FAIL %s: %s\n", name.c_str(), why.c_str());
    ++g_fail;
    fflush(stdout);
}
inline void skip(const std::string& name, const std::string& why) {
    printf("SKIP %s: %s\n", name.c_str(), why.c_str());
    ++g_skip;
    fflush(stdout);
}
inline void part(const char* name) { printf("== %s\n", name); fflush(stdout); }

// Renders a chain (getErrorMessage frees it); "" for success.
inline std::string take(ErrorMsg* chain) {
    if (!chain) return "";
    std::string text;
    getErrorMessage(chain, &text);
    for (char& c : text)
        if (c == '\n') c = ' ';
    return text.empty() ? "(empty chain)" : text;
}

// One check: the chain must be null.
inline bool ok(const std::string& name, ErrorMsg* chain) {
    const std::string text = take(chain);
    if (text.empty()) { pass(name); return true; }
    fail(name, text);
    return false;
}

inline void expect(const std::string& name, bool cond, const std::string& why) {
    if (cond) pass(name); else fail(name, why);
}

inline std::string readText(const std::string& path) {
    std::string t;
    if (quarn::readTextFile(path, &t) != 0) return "";
    while (!t.empty() && (t.back() == '\n' || t.back() == ' ')) t.pop_back();
    return t;
}

inline std::vector<std::string> names(const std::string& dir) {
    std::vector<std::string> n;
    quarn::listNames(dir, &n);
    std::sort(n.begin(), n.end());
    return n;
}

inline bool exists(const std::string& p) {
    struct stat st;
    return quarn::platform().stat(p, &st) == 0;
}

inline std::string hex(unsigned long long v) {
    char b[32];
    snprintf(b, sizeof b, "0x%llx", v);
    return b;
}

// Linux, call for call; the test platforms below change one call each.
class ForwardingPlatform : public quarn::Platform {
public:
    quarn::Platform& l = quarn::linuxPlatform();
    int open(const std::string& p, int f, mode_t m) override { return l.open(p, f, m); }
    int close(int fd) override { return l.close(fd); }
    ssize_t read(int fd, void* b, size_t n) override { return l.read(fd, b, n); }
    ssize_t write(int fd, const void* b, size_t n) override { return l.write(fd, b, n); }
    ssize_t pread(int fd, void* b, size_t n, off_t o) override { return l.pread(fd, b, n, o); }
    ssize_t pwrite(int fd, const void* b, size_t n, off_t o) override { return l.pwrite(fd, b, n, o); }
    off_t lseek(int fd, off_t o, int w) override { return l.lseek(fd, o, w); }
    int ioctl(int fd, unsigned long r, void* a) override { return l.ioctl(fd, r, a); }
    void* mmap(size_t n, int p, int f, int fd, off_t o) override { return l.mmap(n, p, f, fd, o); }
    int munmap(void* a, size_t n) override { return l.munmap(a, n); }
    int stat(const std::string& p, struct stat* s) override { return l.stat(p, s); }
    int lstat(const std::string& p, struct stat* s) override { return l.lstat(p, s); }
    int readlink(const std::string& p, std::string* t) override { return l.readlink(p, t); }
    int listDirectory(const std::string& p, std::vector<quarn::DirEntry>* e) override {
        return l.listDirectory(p, e);
    }
    int mkdir(const std::string& p, mode_t m) override { return l.mkdir(p, m); }
    int unlink(const std::string& p) override { return l.unlink(p); }
    int rmdir(const std::string& p) override { return l.rmdir(p); }
    int rename(const std::string& a, const std::string& b) override { return l.rename(a, b); }
    int iopl(int v) override { return l.iopl(v); }
    int ioperm(unsigned long f, unsigned long n, int on) override { return l.ioperm(f, n, on); }
    uint8_t inb(uint16_t p) override { return l.inb(p); }
    uint16_t inw(uint16_t p) override { return l.inw(p); }
    uint32_t inl(uint16_t p) override { return l.inl(p); }
    void outb(uint8_t v, uint16_t p) override { l.outb(v, p); }
    void outw(uint16_t v, uint16_t p) override { l.outw(v, p); }
    void outl(uint32_t v, uint16_t p) override { l.outl(v, p); }
    int runProgram(const std::vector<std::string>& a, std::string* o, int* s, bool m) override {
        return l.runProgram(a, o, s, m);
    }
    int socket(int d, int t, int p) override { return l.socket(d, t, p); }
    int bind(int fd, const struct sockaddr* a, socklen_t n) override { return l.bind(fd, a, n); }
    ssize_t sendto(int fd, const void* b, size_t n, int f, const struct sockaddr* a, socklen_t al) override {
        return l.sendto(fd, b, n, f, a, al);
    }
    ssize_t recvfrom(int fd, void* b, size_t n, int f, struct sockaddr* a, socklen_t* al) override {
        return l.recvfrom(fd, b, n, f, a, al);
    }
    int setsockopt(int fd, int lv, int n, const void* v, socklen_t len) override {
        return l.setsockopt(fd, lv, n, v, len);
    }
    int semget(key_t k, int n, int f) override { return l.semget(k, n, f); }
    int semop(int id, struct sembuf* o, size_t n) override { return l.semop(id, o, n); }
    int semctl(int id, int n, int c, int v) override { return l.semctl(id, n, c, v); }
    int setAffinity(const cpu_set_t& c) override { return l.setAffinity(c); }
    int getAffinity(cpu_set_t* c) override { return l.getAffinity(c); }
    int onlineCpuCount() override { return l.onlineCpuCount(); }
    void sleepMicroseconds(uint64_t us) override { l.sleepMicroseconds(us); }
    uint64_t monotonicNanoseconds() override { return l.monotonicNanoseconds(); }
    int wallClock(struct timespec* t) override { return l.wallClock(t); }
    int kernelRelease(std::string* r) override { return l.kernelRelease(r); }
    long pageSize() override { return l.pageSize(); }
};

// A group of checks from another file; main runs each in its own child process.
struct GuestPart {
    const char* name;
    void (*run)();
};
inline std::vector<GuestPart>& guestParts() {
    static std::vector<GuestPart> parts;
    return parts;
}
struct RegisterGuestPart {
    RegisterGuestPart(const char* name, void (*run)()) { guestParts().push_back({name, run}); }
};

}  // namespace itest
