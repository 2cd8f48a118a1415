// One NVMe command through the kernel's pass-through requests.
#include "ddapi/nvme/NVMeIOCTL.h"

#include <sys/stat.h>

#include <cstdlib>
#include <cstring>

#include "api/platform/Platform.h"

namespace {
constexpr ERRORCODE kAllocateFail = 0xC000022D;
constexpr ERRORCODE kIoctlFail = 0xC000021A;
constexpr ERRORCODE kInvalidFileMode = 0xD708002A;
constexpr ERRORCODE kNvmeIoctlFail = 0xD708002B;
constexpr ERRORCODE kGetHandleFail = 0xC000021C;

constexpr uint8_t kOpcodeGetLogPage = 0x02;
constexpr uint8_t kOpcodeIdentify = 0x06;
constexpr uint8_t kOpcodeFirmwareCommit = 0x10;
constexpr uint8_t kOpcodeFirmwareDownload = 0x11;
constexpr uint8_t kOpcodeFormat = 0x80;
constexpr uint8_t kOpcodeWriteZeroes = 0x08;
constexpr uint32_t kAllNamespaces = 0xFFFFFFFF;
constexpr uint32_t kFormatTimeoutMs = 120000;

// Status field (status code type << 8 | status code) to the device layer's rows.
struct StatusRow {
    unsigned int status;
    ERRORCODE code;
};
constexpr StatusRow kStatusRows[] = {
    {0x001, 0xD7080008}, {0x002, 0xD7080009}, {0x003, 0xD708000A}, {0x004, 0xD708000B},
    {0x005, 0xD708000C}, {0x006, 0xD708000D}, {0x007, 0xD708000E}, {0x008, 0xD708000F},
    {0x009, 0xD7080010}, {0x00A, 0xD7080011}, {0x00B, 0xD7080012}, {0x00C, 0xD7080013},
    {0x080, 0xD7080014}, {0x081, 0xD7080015}, {0x082, 0xD7080016}, {0x100, 0xD7080017},
    {0x101, 0xD7080018}, {0x102, 0xD7080019}, {0x103, 0xD708001A}, {0x104, 0xD708001B},
    {0x105, 0xD708001C}, {0x106, 0xD708001D}, {0x107, 0xD708001E}, {0x108, 0xD708001F},
    {0x109, 0xD7080020}, {0x10A, 0xD7080021}, {0x180, 0xD7080022}, {0x280, 0xD7080023},
    {0x281, 0xD7080024}, {0x282, 0xD7080025}, {0x283, 0xD7080026}, {0x284, 0xD7080027},
    {0x285, 0xD7080028}, {0x286, 0xD7080029},
};

bool allocates(unsigned char op) { return (op >= 3 && op <= 9) || op == 11 || op == 12; }
}  // namespace

NVMeIOCTL::NVMeIOCTL(const char* node) : IOCTL(node), m_node(node ? node : ""), m_data(nullptr) {}

NVMeIOCTL::~NVMeIOCTL() { releaseArgument(); }

void NVMeIOCTL::releaseArgument() {
    free(m_argument);
    m_argument = nullptr;
    free(m_data);
    m_data = nullptr;
}

unsigned int NVMeIOCTL::dataLength(unsigned char op) {
    switch (op) {
        case NVME_IDENTIFY_CONTROLLER:
        case NVME_IDENTIFY_NAMESPACE:
            return 4096;
        case NVME_FIRMWARE_LOG:
        case NVME_SMART_LOG:
            return 512;
        case NVME_ERROR_LOG:
            return 64;
        default:
            return 0;
    }
}

ERRORCODE NVMeIOCTL::switchNode(const char* node) {
    m_node = node ? node : "";
    return setFileHandle(node);
}

ERRORCODE NVMeIOCTL::allocateIOCTLArgument(unsigned char op) {
    releaseArgument();
    if (!allocates(op)) return 0;
    auto* cmd = static_cast<nvme_passthru_cmd*>(calloc(1, sizeof(nvme_passthru_cmd)));
    if (!cmd) return kAllocateFail;
    m_argument = cmd;
    if (const unsigned int length = dataLength(op)) {
        m_data = calloc(1, length);
        if (!m_data) return kAllocateFail;
        cmd->addr = reinterpret_cast<uintptr_t>(m_data);
        cmd->data_len = length;
    }
    switch (op) {
        case NVME_IDENTIFY_CONTROLLER:
            cmd->opcode = kOpcodeIdentify;
            cmd->nsid = 0;
            cmd->cdw10 = 1;
            break;
        case NVME_IDENTIFY_NAMESPACE:
            cmd->opcode = kOpcodeIdentify;
            cmd->nsid = 1;
            cmd->cdw10 = 0;
            break;
        case NVME_FIRMWARE_LOG:
            cmd->opcode = kOpcodeGetLogPage;
            cmd->nsid = kAllNamespaces;
            cmd->cdw10 = 0x007F0003;
            break;
        case NVME_FIRMWARE_COMMIT:
            cmd->opcode = kOpcodeFirmwareCommit;
            break;
        case NVME_FIRMWARE_DOWNLOAD:
            cmd->opcode = kOpcodeFirmwareDownload;
            break;
        case NVME_SMART_LOG:
            cmd->opcode = kOpcodeGetLogPage;
            cmd->nsid = kAllNamespaces;
            cmd->cdw10 = 0x007F0002;
            break;
        case NVME_ERROR_LOG:
            cmd->opcode = kOpcodeGetLogPage;
            cmd->nsid = kAllNamespaces;
            cmd->cdw10 = 0x000F0001;
            break;
        case NVME_WRITE_ZEROES:
            cmd->opcode = kOpcodeWriteZeroes;
            break;
        case NVME_FORMAT:
            cmd->opcode = kOpcodeFormat;
            cmd->timeout_ms = kFormatTimeoutMs;
            break;
        default:
            break;
    }
    return 0;
}

ERRORCODE NVMeIOCTL::setIOCTLOperationArgument(unsigned char op, void* argument) {
    auto* cmd = static_cast<nvme_passthru_cmd*>(m_argument);
    if (!cmd || !argument) return allocates(op) ? kAllocateFail : 0;
    switch (op) {
        case NVME_FIRMWARE_COMMIT: {
            const auto* bytes = static_cast<const unsigned char*>(argument);  // slot, action
            cmd->cdw10 = bytes[0] | static_cast<uint32_t>(bytes[1]) << 3;
            break;
        }
        case NVME_FIRMWARE_DOWNLOAD: {
            const auto* chunk = static_cast<const NVMeFirmwareChunk*>(argument);
            cmd->addr = reinterpret_cast<uintptr_t>(chunk->data);
            cmd->data_len = chunk->length;
            cmd->cdw10 = chunk->length / 4 - 1;
            cmd->cdw11 = chunk->offset / 4;
            break;
        }
        case NVME_WRITE_ZEROES: {
            const auto* w = static_cast<const NVMeWriteZeroesArgument*>(argument);
            cmd->nsid = w->nsid;
            cmd->cdw10 = static_cast<uint32_t>(w->startLBA & 0xFFFFFFFFu);
            cmd->cdw11 = static_cast<uint32_t>(w->startLBA >> 32);
            cmd->cdw12 = w->blocks | 0x80000000u;  // limited retry
            break;
        }
        case NVME_FORMAT: {
            const auto* f = static_cast<const NVMeFormatArgument*>(argument);
            cmd->nsid = f->nsid;
            cmd->cdw10 = (f->lbaf & 0xFu) | (f->mset & 1u) << 4 | (f->pi & 7u) << 5 | (f->pil & 1u) << 8 |
                         (f->ses & 7u) << 9;
            break;
        }
        default:
            break;
    }
    return 0;
}

ERRORCODE NVMeIOCTL::convertNVMEStatustoErrorcode(unsigned int status) {
    const unsigned int field = status & 0x3FF;
    if (field == 0) return 0;
    for (const StatusRow& row : kStatusRows)
        if (row.status == field) return row.code;
    return kIoctlFail;
}

ERRORCODE NVMeIOCTL::nvme_submit_passthru(int request, nvme_passthru_cmd* cmd) {
    if (m_fileHandle <= 0) return kGetHandleFail;
    const int rc = quarn::platform().ioctl(m_fileHandle, static_cast<unsigned int>(request), cmd);
    if (rc < 0) return kNvmeIoctlFail;
    return convertNVMEStatustoErrorcode(static_cast<unsigned int>(rc));
}

ERRORCODE NVMeIOCTL::nvme_submit_admin_passthru(nvme_passthru_cmd* cmd) {
    return nvme_submit_passthru(static_cast<int>(kAdminRequest), cmd);
}

ERRORCODE NVMeIOCTL::nvme_submit_io_passthru(nvme_passthru_cmd* cmd) {
    return nvme_submit_passthru(static_cast<int>(kIORequest), cmd);
}

// The reset request is only served by the controller's character node.
ERRORCODE NVMeIOCTL::reset() {
    struct stat st;
    if (quarn::platform().stat(m_node, &st) != 0 || !S_ISCHR(st.st_mode)) return kInvalidFileMode;
    if (m_fileHandle <= 0) return kGetHandleFail;
    const int rc = quarn::ioctlValue(quarn::platform(), m_fileHandle, NVME_IOCTL_RESET, 0);
    if (rc < 0) return kNvmeIoctlFail;
    return convertNVMEStatustoErrorcode(static_cast<unsigned int>(rc));
}

ERRORCODE NVMeIOCTL::executeIOCTL(unsigned char op) { return executeIOCTL(op, nullptr); }

ERRORCODE NVMeIOCTL::executeIOCTL(unsigned char op, void* result) {
    switch (op) {
        case NVME_RESET:
        case NVME_RESET_CONTROLLER:
            return reset();
        case NVME_NAMESPACE_ID: {
            if (m_fileHandle <= 0) return kGetHandleFail;
            const int rc = quarn::ioctlValue(quarn::platform(), m_fileHandle, NVME_IOCTL_ID, 0);
            if (rc < 0) return kNvmeIoctlFail;
            if (result) *static_cast<unsigned int*>(result) = static_cast<unsigned int>(rc);
            return 0;
        }
        default:
            break;
    }
    if (!allocates(op)) return kIoctlFail;
    auto* cmd = static_cast<nvme_passthru_cmd*>(m_argument);
    if (!cmd) return kAllocateFail;
    const ERRORCODE e = op == NVME_WRITE_ZEROES ? nvme_submit_io_passthru(cmd) : nvme_submit_admin_passthru(cmd);
    if (e) return e;
    if (result && m_data) memcpy(result, m_data, dataLength(op));
    return 0;
}
