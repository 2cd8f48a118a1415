// Reads the kernel's machine-check log (/dev/mcelog) and formats its records as text.
#include "dapi/processor/GetMCEDAPI.h"

#include <fcntl.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

#include "api/platform/Platform.h"

namespace {
const char kMcelog[] = "/dev/mcelog";
constexpr ERRORCODE kOpenFail = 0xC1041802;
constexpr ERRORCODE kRecordLenFail = 0xC1041803;
constexpr ERRORCODE kLogLenFail = 0xC1041804;
constexpr ERRORCODE kConsiderUpdate = 0xC1041C05;
// The last field this formatter knows (mcgcap) ends at byte 88; a longer record means
// a newer kernel layout.
constexpr uint32_t kKnownRecordLength = 88;
// More than any kernel's log (32 records of a few hundred bytes); keeps a bogus answer
// from the driver from turning into a huge allocation.
constexpr uint64_t kMaxLogBytes = 16u << 20;

void appendf(std::string* text, const char* format, ...) __attribute__((format(printf, 2, 3)));
void appendf(std::string* text, const char* format, ...) {
    char line[256];
    va_list ap;
    va_start(ap, format);
    vsnprintf(line, sizeof(line), format, ap);
    va_end(ap);
    text->append(line);
}

std::string ctimeText(uint64_t seconds) {
    time_t t = static_cast<time_t>(seconds);
    char buf[64];
    if (!ctime_r(&t, buf)) return "\n";
    return buf;
}
}  // namespace

GetMCEDAPI::GetMCEDAPI(const char* name) : BaseClassDAPI(name) {}

GetMCEDAPI::~GetMCEDAPI() = default;

ErrorMsg* GetMCEDAPI::Execute(std::string* text) { return run(false, 0, text); }

ErrorMsg* GetMCEDAPI::Execute(int package, std::string* text) { return run(true, package, text); }

ErrorMsg* GetMCEDAPI::run(bool onePackage, int package, std::string* text) {
    quarn::Platform& p = quarn::platform();
    int fd = p.open(kMcelog, O_RDONLY);
    if (fd < 0) return returnErrorMsg(kOpenFail, nullptr, nullptr);
    int recordLength = 0;
    if (p.ioctl(fd, MCE_GET_RECORD_LEN, &recordLength) < 0) {
        p.close(fd);
        return returnErrorMsg(kRecordLenFail, nullptr, nullptr);
    }
    int logLength = 0;
    if (p.ioctl(fd, MCE_GET_LOG_LEN, &logLength) < 0) {
        p.close(fd);
        return returnErrorMsg(kLogLenFail, nullptr, nullptr);
    }
    const uint64_t bytes =
        static_cast<uint64_t>(static_cast<uint32_t>(recordLength)) * static_cast<uint32_t>(logLength);
    if (bytes > kMaxLogBytes) {
        p.close(fd);
        formatMessage("log of %u records of %u bytes", static_cast<uint32_t>(logLength),
                      static_cast<uint32_t>(recordLength));
        return returnErrorMsg(kLogLenFail, m_message, nullptr);
    }
    std::vector<char> buffer(static_cast<size_t>(bytes) + 1, '\0');
    std::string local;
    ErrorMsg* e = processRecords(fd, static_cast<uint32_t>(recordLength),
                                 static_cast<uint32_t>(logLength), buffer.data(),
                                 text ? text : &local, onePackage, package);
    p.close(fd);
    return e;
}

ErrorMsg* GetMCEDAPI::process(int fd, uint32_t recordLength, uint32_t logLength, char* buffer,
                              std::string* text) {
    return processRecords(fd, recordLength, logLength, buffer, text, false, 0);
}

ErrorMsg* GetMCEDAPI::process(int fd, uint32_t recordLength, uint32_t logLength, char* buffer,
                              std::string* text, int package) {
    return processRecords(fd, recordLength, logLength, buffer, text, true, package);
}

ErrorMsg* GetMCEDAPI::processRecords(int fd, uint32_t recordLength, uint32_t logLength,
                                     char* buffer, std::string* text, bool onePackage,
                                     int package) {
    const size_t want = static_cast<size_t>(recordLength) * logLength;
    ssize_t got = quarn::platform().read(fd, buffer, want);
    if (got < 0) {
        text->append("mcelog read");
        return nullptr;
    }
    if (got == 0 || recordLength == 0) {
        text->append("No MCE error message.");
        return nullptr;
    }
    const size_t records = static_cast<size_t>(got) / recordLength;
    for (size_t i = 0; i < records; ++i) {
        struct mce m;
        memset(&m, 0, sizeof(m));
        memcpy(&m, buffer + i * recordLength, std::min<size_t>(recordLength, sizeof(m)));
        mce_prepare(&m);
        if (onePackage)
            dump_mce_raw_ascii(&m, recordLength, text, package);
        else
            dump_mce_raw_ascii(&m, recordLength, text);
    }
    if (static_cast<int32_t>(recordLength) < 0 || recordLength > kKnownRecordLength)
        return returnErrorMsg(kConsiderUpdate, nullptr, nullptr);
    return nullptr;
}

void GetMCEDAPI::mce_prepare(struct mce* m) {
    if (m->time != 0) return;
    struct timespec now;
    if (quarn::platform().wallClock(&now) == 0) m->time = static_cast<uint64_t>(now.tv_sec);
}

namespace {
// The lines both record layouts share: the bank and its registers.
void appendBankRegisters(const struct mce& m, std::string* text) {
    appendf(text, "BANK %d\n", m.bank);
    appendf(text, "TSC %#llx\n", static_cast<unsigned long long>(m.tsc));
    appendf(text, "RIP %#02x:%#llx\n", m.cs, static_cast<unsigned long long>(m.ip));
    appendf(text, "MISC %#llx\n", static_cast<unsigned long long>(m.misc));
    appendf(text, "ADDR %#llx\n", static_cast<unsigned long long>(m.addr));
    appendf(text, "STATUS %#llx\n", static_cast<unsigned long long>(m.status));
    appendf(text, "MCGSTATUS %#llx\n", static_cast<unsigned long long>(m.mcgstatus));
}
}  // namespace

void GetMCEDAPI::dump_mce_raw_ascii(struct mce* m, uint32_t recordLength, std::string* text) {
    if (m->finished == 0) text->append("not finished?\n");
    appendf(text, "\nCPU %u\n", m->extcpu ? m->extcpu : m->cpu);
    appendBankRegisters(*m, text);
    if (m->time != 0)
        appendf(text, "TIME %llu, %s", static_cast<unsigned long long>(m->time),
                ctimeText(m->time).c_str());
    if (recordLength > 71) appendf(text, "SOCKETID %u\n", m->socketid);
    if (recordLength >= 76) appendf(text, "APICID %u\n", m->apicid);
    if (recordLength >= 80) appendf(text, "MCGCAP %#llx\n", static_cast<unsigned long long>(m->mcgcap));
}

void GetMCEDAPI::dump_mce_raw_ascii(struct mce* m, uint32_t recordLength, std::string* text,
                                    int package) {
    if (static_cast<int>(m->socketid) != package) return;
    if (m->finished == 0) text->append("not finished?\n");
    appendf(text, "CPU %u\n", m->extcpu ? m->extcpu : m->cpu);
    appendBankRegisters(*m, text);
    appendf(text, "SOCKETID %d\n", static_cast<int>(m->socketid));
    appendf(text, "APICID %d\n", static_cast<int>(m->apicid));
    appendf(text, "MCGCAP 0x%llx\n", static_cast<unsigned long long>(m->mcgcap));
    if (m->time != 0)
        appendf(text, "TIME %llu, %s\n", static_cast<unsigned long long>(m->time),
                ctimeText(m->time).c_str());
}
