// A TPM 2.0 on libtpms behind /dev/tpm0.
#include "vboard/models/tpm/TpmModel.h"

#include <libtpms/tpm_error.h>
#include <libtpms/tpm_library.h>
#include <libtpms/tpm_memory.h>

#include <cerrno>
#include <cstring>
#include <mutex>

namespace quarn::vboard {

namespace {
constexpr size_t kBufferSize = 4096;  // the kernel's TPM_BUFSIZE

// libtpms is one TPM per process. The model that last powered it on owns it; its
// non-volatile state lives in that model, so another board's TPM starts from its own.
std::mutex g_engineMutex;
TpmModel* g_owner = nullptr;
std::map<std::string, std::vector<uint8_t>>* g_nv = nullptr;

TPM_RESULT nvInit() { return TPM_SUCCESS; }
TPM_RESULT nvLoad(unsigned char** data, uint32_t* length, uint32_t, const char* name) {
    auto it = g_nv->find(name);
    if (it == g_nv->end()) return TPM_RETRY;  // "not stored yet", as swtpm answers
    if (TPM_Malloc(data, static_cast<uint32_t>(it->second.size())) != TPM_SUCCESS) return TPM_FAIL;
    memcpy(*data, it->second.data(), it->second.size());
    *length = static_cast<uint32_t>(it->second.size());
    return TPM_SUCCESS;
}
TPM_RESULT nvStore(const unsigned char* data, uint32_t length, uint32_t, const char* name) {
    (*g_nv)[name].assign(data, data + length);
    return TPM_SUCCESS;
}
TPM_RESULT nvDelete(uint32_t, const char* name, TPM_BOOL mustExist) {
    const size_t erased = g_nv->erase(name);
    return (mustExist && erased == 0) ? TPM_FAIL : TPM_SUCCESS;
}
TPM_RESULT ioInit() { return TPM_SUCCESS; }
TPM_RESULT locality(TPM_MODIFIER_INDICATOR* modifier, uint32_t) {
    *modifier = 0;
    return TPM_SUCCESS;
}
TPM_RESULT presence(TPM_BOOL* present, uint32_t) {
    *present = FALSE;
    return TPM_SUCCESS;
}

std::vector<uint8_t> process(const uint8_t* command, uint32_t length) {
    unsigned char* response = nullptr;
    uint32_t size = 0, capacity = 0;
    std::vector<unsigned char> copy(command, command + length);
    std::vector<uint8_t> out;
    if (TPMLIB_Process(&response, &size, &capacity, copy.data(), length) == TPM_SUCCESS && response)
        out.assign(response, response + size);
    TPM_Free(response);
    return out;
}
}  // namespace

class TpmHandle : public FileHandle {
public:
    explicit TpmHandle(TpmModel& model) : m_model(model) {}
    ~TpmHandle() override {
        std::lock_guard<std::mutex> lock(m_model.mutex());
        m_model.m_open = false;
    }

    // As the kernel: the whole command in one write, no new command while a response
    // waits to be read, and a size field that does not exceed what was written.
    ssize_t write(const void* buf, size_t count) override {
        if (count > kBufferSize) return fail(E2BIG);
        if (m_pending < m_response.size()) return fail(EBUSY);
        const uint8_t* b = static_cast<const uint8_t*>(buf);
        if (count < 6) return fail(EINVAL);
        const uint32_t declared = (uint32_t(b[2]) << 24) | (uint32_t(b[3]) << 16) | (uint32_t(b[4]) << 8) | b[5];
        if (count < declared) return fail(EINVAL);
        if (declared < 10) return fail(EINVAL);
        m_response = m_model.execute(b, declared);
        m_pending = 0;
        if (m_response.empty()) return fail(EIO);
        return static_cast<ssize_t>(count);
    }

    // A response may be read in parts; without one, a read returns nothing.
    ssize_t read(void* buf, size_t count) override {
        const size_t left = m_response.size() - m_pending;
        const size_t n = std::min(left, count);
        memcpy(buf, m_response.data() + m_pending, n);
        m_pending += n;
        if (m_pending >= m_response.size()) {
            m_response.clear();
            m_pending = 0;
        }
        return static_cast<ssize_t>(n);
    }

private:
    TpmModel& m_model;
    std::vector<uint8_t> m_response;
    size_t m_pending = 0;
};

TpmModel::TpmModel() = default;

TpmModel::~TpmModel() {
    std::lock_guard<std::mutex> lock(g_engineMutex);
    if (g_owner == this) {
        TPMLIB_Terminate();
        g_owner = nullptr;
        g_nv = nullptr;
    }
}

std::unique_ptr<FileHandle> TpmModel::open(int) {
    std::lock_guard<std::mutex> lock(mutex());
    if (m_open) {  // the kernel's tpm0 has one opener at a time
        errno = EBUSY;
        return nullptr;
    }
    m_open = true;
    return std::make_unique<TpmHandle>(*this);
}

// Called with g_engineMutex held.
void TpmModel::powerOn() {
    if (g_owner == this) return;
    if (g_owner) TPMLIB_Terminate();
    g_owner = this;
    g_nv = &m_nv;
    static struct libtpms_callbacks callbacks;
    memset(&callbacks, 0, sizeof(callbacks));
    callbacks.sizeOfStruct = sizeof(callbacks);
    callbacks.tpm_nvram_init = nvInit;
    callbacks.tpm_nvram_loaddata = nvLoad;
    callbacks.tpm_nvram_storedata = nvStore;
    callbacks.tpm_nvram_deletename = nvDelete;
    callbacks.tpm_io_init = ioInit;
    callbacks.tpm_io_getlocality = locality;
    callbacks.tpm_io_getphysicalpresence = presence;
    TPMLIB_RegisterCallbacks(&callbacks);
    TPMLIB_ChooseTPMVersion(TPMLIB_TPM_VERSION_2);
    TPMLIB_MainInit();
    if (!m_skipStartup) {
        // What the platform firmware does at boot: TPM2_Startup(TPM_SU_CLEAR).
        static const uint8_t kStartup[] = {0x80, 0x01, 0x00, 0x00, 0x00, 0x0C,
                                           0x00, 0x00, 0x01, 0x44, 0x00, 0x00};
        process(kStartup, sizeof(kStartup));
    }
}

std::vector<uint8_t> TpmModel::execute(const uint8_t* command, uint32_t length) {
    std::lock_guard<std::mutex> lock(g_engineMutex);
    powerOn();
    ++m_commands;
    return process(command, length);
}

}  // namespace quarn::vboard
