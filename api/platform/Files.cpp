// File helpers built on the platform primitives.
#include "api/platform/Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "api/platform/Platform.h"

namespace quarn {

int readTextFile(const std::string& path, std::string* text, size_t limit) {
    Platform& p = platform();
    int fd = p.open(path, O_RDONLY);
    if (fd < 0) return -1;
    text->clear();
    char buf[4096];
    for (;;) {
        ssize_t n = p.read(fd, buf, sizeof(buf));
        if (n < 0) {
            if (errno == EINTR) continue;
            int saved = errno;
            p.close(fd);
            errno = saved;
            return -1;
        }
        if (n == 0) break;
        if (text->size() + static_cast<size_t>(n) > limit) {
            p.close(fd);
            errno = EFBIG;
            return -1;
        }
        text->append(buf, static_cast<size_t>(n));
    }
    p.close(fd);
    return 0;
}

namespace {
int writeAll(Platform& p, int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = p.write(fd, text.data() + done, text.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (n == 0) {
            errno = EIO;
            return -1;
        }
        done += static_cast<size_t>(n);
    }
    return 0;
}
}  // namespace

int writeTextFile(const std::string& path, const std::string& text) {
    Platform& p = platform();
    int fd = p.open(path, O_WRONLY | O_TRUNC);
    if (fd < 0) return -1;
    int rc = writeAll(p, fd, text);
    int saved = errno;
    if (p.close(fd) != 0 && rc == 0) return -1;
    errno = saved;
    return rc;
}

int makeDirectories(const std::string& path, unsigned int mode) {
    Platform& p = platform();
    if (path.empty()) {
        errno = ENOENT;
        return -1;
    }
    size_t pos = 0;
    while (pos != std::string::npos) {
        pos = path.find('/', pos + 1);
        std::string part = path.substr(0, pos);
        if (part.empty() || part == "/") continue;
        struct stat st;
        if (p.lstat(part, &st) == 0) {
            if (S_ISLNK(st.st_mode)) {
                errno = ELOOP;
                return -1;
            }
            if (!S_ISDIR(st.st_mode)) {
                errno = ENOTDIR;
                return -1;
            }
            continue;
        }
        if (errno != ENOENT) return -1;
        if (p.mkdir(part, mode) != 0 && errno != EEXIST) return -1;
    }
    return 0;
}

int writeScratchFile(const std::string& path, const std::string& text, unsigned int mode) {
    Platform& p = platform();
    // A fresh name beside the target, created exclusively: nobody else's file or link
    // can be opened through it.
    std::string temp;
    int fd = -1;
    for (int attempt = 0; attempt < 100 && fd < 0; ++attempt) {
        char suffix[48];
        snprintf(suffix, sizeof(suffix), ".tmp.%d.%d.%llu", static_cast<int>(getpid()), attempt,
                 static_cast<unsigned long long>(p.monotonicNanoseconds()));
        temp = path + suffix;
        fd = p.open(temp, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, mode);
        if (fd < 0 && errno != EEXIST) return -1;
    }
    if (fd < 0) return -1;
    int rc = writeAll(p, fd, text);
    int saved = errno;
    if (p.close(fd) != 0 && rc == 0) {
        saved = errno;
        rc = -1;
    }
    // rename replaces a link at path itself instead of writing where it points.
    if (rc == 0 && p.rename(temp, path) != 0) {
        saved = errno;
        rc = -1;
    }
    if (rc != 0) {
        p.unlink(temp);
        errno = saved;
    }
    return rc;
}

int listNames(const std::string& path, std::vector<std::string>* names) {
    std::vector<DirEntry> entries;
    if (platform().listDirectory(path, &entries) != 0) return -1;
    names->clear();
    for (const DirEntry& e : entries) names->push_back(e.name);
    std::sort(names->begin(), names->end());
    return 0;
}

int removePath(const std::string& path) {
    Platform& p = platform();
    struct stat st;
    if (p.lstat(path, &st) != 0) return errno == ENOENT ? 0 : -1;
    if (S_ISDIR(st.st_mode)) return p.rmdir(path);
    return p.unlink(path);
}

}  // namespace quarn
