// A sysfs attribute served by a model.
#include "vboard/AttributeModel.h"

#include <fcntl.h>

#include <cstring>

namespace quarn::vboard {

class AttributeHandle : public FileHandle {
public:
    AttributeHandle(AttributeModel& model, int flags) : m_model(model), m_flags(flags) {}

    ssize_t read(void* buf, size_t count) override {
        ssize_t n = pread(buf, count, m_offset);
        if (n > 0) m_offset += n;
        return n;
    }
    // Like sysfs: the value is produced when reading starts at offset 0.
    ssize_t pread(void* buf, size_t count, off_t offset) override {
        if ((m_flags & O_ACCMODE) == O_WRONLY) return fail(EBADF);
        if (!m_model.m_show) return fail(EIO);
        if (offset == 0) {
            std::lock_guard<std::mutex> lock(m_model.mutex());
            m_text = m_model.m_show();
        }
        if (static_cast<size_t>(offset) >= m_text.size()) return 0;
        size_t n = std::min(count, m_text.size() - static_cast<size_t>(offset));
        memcpy(buf, m_text.data() + offset, n);
        return static_cast<ssize_t>(n);
    }
    ssize_t write(const void* buf, size_t count) override {
        if ((m_flags & O_ACCMODE) == O_RDONLY) return fail(EBADF);
        if (!m_model.m_store) return fail(EIO);
        std::lock_guard<std::mutex> lock(m_model.mutex());
        int err = m_model.m_store(std::string(static_cast<const char*>(buf), count));
        if (err) return fail(err);
        return static_cast<ssize_t>(count);
    }
    ssize_t pwrite(const void* buf, size_t count, off_t) override { return write(buf, count); }
    off_t lseek(off_t offset, int whence) override {
        if (whence != SEEK_SET || offset < 0) return fail(EINVAL);
        m_offset = offset;
        return offset;
    }

private:
    AttributeModel& m_model;
    int m_flags;
    off_t m_offset = 0;
    std::string m_text;
};

std::unique_ptr<FileHandle> AttributeModel::open(int flags) {
    return std::make_unique<AttributeHandle>(*this, flags);
}

}  // namespace quarn::vboard
