// Management requests to the SAS3008 driver's control node: request buffers, request
// numbers and the decoding of the replies.
#include "ddapi/sas/SASIOCTL.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "api/platform/Platform.h"
#include "ddapi/sas/SASDDAPI.h"

namespace {
constexpr ERRORCODE kNoSuchOperation = 0xC0000220;
constexpr ERRORCODE kIoctlFail = 0xC000022C;
constexpr ERRORCODE kAllocateFail = 0xC000022D;

// Selectors of the configuration-page request (byte 0).
constexpr unsigned char kPageTemperature = 0x09;
constexpr unsigned char kPageErrorCounters = 0x07;
constexpr unsigned char kPageLink = 0x20;
constexpr unsigned char kPageAttached = 0x21;
constexpr unsigned char kPageAddress = 0x22;
// Codes of the PHY control request (16-bit at 0).
constexpr uint16_t kControlOperation = 9;
constexpr uint16_t kClearControllerErrors = 16;
constexpr uint16_t kClearPhyErrors = 17;

void put16(unsigned char* at, uint16_t v) {
    at[0] = static_cast<unsigned char>(v);
    at[1] = static_cast<unsigned char>(v >> 8);
}
void put32(unsigned char* at, uint32_t v) {
    for (int i = 0; i < 4; ++i) at[i] = static_cast<unsigned char>(v >> (8 * i));
}
uint32_t get32(const unsigned char* at) {
    return static_cast<uint32_t>(at[0]) | static_cast<uint32_t>(at[1]) << 8 | static_cast<uint32_t>(at[2]) << 16 |
           static_cast<uint32_t>(at[3]) << 24;
}

// "a.b.c.d" from bytes 3, 2, 1 and 0 of a 4-byte field.
std::string versionText(const unsigned char* at) {
    char text[20];
    snprintf(text, sizeof(text), "%u.%u.%u.%u", at[3], at[2], at[1], at[0]);
    return text;
}

// Device-information word of the attached-device reply; later tests override earlier ones.
std::string attachedText(uint32_t info) {
    if (info == 0) return "not present";
    std::string text;
    if ((info & 0x7) == 2) text = "Edge Expander";
    if ((info & 0x7) == 3) text = "FanOut Expander";
    const bool sasInit = info & (1u << 6), sasTarget = info & (1u << 10);
    const bool sataInit = info & (1u << 3), sataTarget = info & (1u << 7);
    if (sasInit && sasTarget) text = "SAS Initiator and Target";
    else if (sasInit) text = "SAS Initiator";
    else if (sasTarget) text = "SAS Target";
    if (sataInit && sataTarget) text = "SATA Initiator and Target";
    else if (sataInit) text = "SATA Initiator";
    else if (sataTarget) text = "SATA Target";
    if (info & (1u << 13)) text = "ATAPI";
    return text;
}
}  // namespace

SASIOCTL::SASIOCTL(const char* path) : IOCTL(path), m_path(path), m_argumentLength(0), m_allocatedOp(0), m_lastErrno(0) {}

SASIOCTL::~SASIOCTL() = default;

unsigned int SASIOCTL::bufferSizeOf(uint8_t op) {
    switch (op) {
    case 1: case 2: case 4: return 40;
    case 3: return 28;
    case 5: return 12;
    case 8: return 92;
    case 6: case 7: case 9: case 10: case 11: case 12: case 13: case 14: return 32;
    default: return 0;
    }
}

unsigned long SASIOCTL::requestOf(uint8_t op) {
    switch (op) {
    case 1: case 2: case 4: return kPhyControlRequest;
    case 3: return kLoopbackRequest;
    case 5: return kHardResetRequest;
    case 8: return kIOCInfoRequest;
    case 6: case 7: case 10: case 11: case 12: case 13: return kConfigPageRequest;
    default: return 0;
    }
}

ERRORCODE SASIOCTL::allocateIOCTLArgument(uint8_t op) {
    const unsigned int size = bufferSizeOf(op);
    if (size == 0) return kNoSuchOperation;
    free(m_argument);
    m_argument = calloc(1, size);
    m_argumentLength = m_argument ? size : 0;
    m_allocatedOp = m_argument ? op : 0;
    return m_argument ? 0 : kAllocateFail;
}

ERRORCODE SASIOCTL::setIOCTLOperationArgument(uint8_t op, void*) {
    if (bufferSizeOf(op) == 0) return kNoSuchOperation;
    if (!m_argument || m_allocatedOp != op) return kAllocateFail;
    unsigned char* b = static_cast<unsigned char*>(m_argument);
    memset(b, 0, m_argumentLength);
    const unsigned char ioc = m_controllerID;
    const unsigned char phy = m_phyNumber;
    switch (op) {
    case 1:
        put16(b, kClearControllerErrors);
        b[8] = ioc;
        break;
    case 2:
        put16(b, kClearPhyErrors);
        b[8] = ioc;
        b[10] = phy;
        break;
    case 3:
        b[0] = 2;
        b[8] = ioc;
        b[11] = 0xAA;
        put32(b + 12, 10);
        b[18] = 1;
        break;
    case 4:
        put16(b, kControlOperation);
        b[8] = ioc;
        break;
    case 5:
        put32(b, ioc);
        break;
    case 6:
        b[0] = kPageAttached;
        b[2] = ioc;
        b[12] = ioc;
        b[13] = phy;
        break;
    case 7:
        b[0] = kPageTemperature;
        b[12] = ioc;
        put16(b + 14, 255);
        break;
    case 9:
    case 10:
        b[0] = kPageErrorCounters;
        b[2] = ioc;
        b[12] = ioc;
        b[13] = phy;
        break;
    case 11:
    case 12:
        b[0] = kPageLink;
        b[2] = ioc;
        b[12] = ioc;
        b[13] = phy;
        break;
    case 13:
        b[0] = kPageAddress;
        b[2] = ioc;
        break;
    default:  // 8: nothing set; 14: no request
        break;
    }
    return 0;
}

ERRORCODE SASIOCTL::send(uint8_t op) {
    if (op == 9 || op == 14 || requestOf(op) == 0) return kNoSuchOperation;
    if (!m_argument || m_allocatedOp != op) return kAllocateFail;
    if (m_fileHandle <= 0 && getFileHandle(m_path, nullptr) != 0) {
        m_lastErrno = errno;
        return kIoctlFail;
    }
    if (quarn::platform().ioctl(m_fileHandle, requestOf(op), m_argument) < 0) {
        m_lastErrno = errno;
        return kIoctlFail;
    }
    m_lastErrno = 0;
    return 0;
}

ERRORCODE SASIOCTL::executeIOCTL(uint8_t op) { return send(op); }

ERRORCODE SASIOCTL::executeIOCTL(uint8_t op, void* result) {
    if (ERRORCODE e = send(op)) return e;
    const unsigned char* b = static_cast<const unsigned char*>(m_argument);
    if (!result) return 0;
    switch (op) {
    case 6:
        *static_cast<std::string*>(result) = attachedText(get32(b + 16));
        break;
    case 7:
        *static_cast<unsigned int*>(result) = static_cast<unsigned int>(b[14] | b[15] << 8);
        break;
    case 8: {
        auto* info = static_cast<SAS_CONTROLLER_INFO*>(result);
        char version[33];
        memcpy(version, b + 48, 32);
        version[32] = '\0';
        info->version = version;
        info->firmwareVersion = versionText(b + 40);
        info->secondVersion = versionText(b + 44);
        const uint32_t pci = get32(b + 84);
        info->bus = (pci >> 8) & 0xFF;
        info->device = pci & 0x1F;
        info->function = (pci >> 5) & 0x7;
        info->revisionID = b[24];
        char text[32];
        snprintf(text, sizeof(text), "%04x:%02x:%02x.%x", info->domain & 0xFFFF, info->bus, info->device,
                 info->function);
        info->pciLocation = text;
        snprintf(text, sizeof(text), "Rev %02x", info->revisionID & 0xFF);
        info->revision = text;
        break;
    }
    case 10: {
        auto* counts = static_cast<ERROR_COUNT_INFO*>(result);
        counts->invalidDwordCount = get32(b + 16);
        counts->runningDisparityErrorCount = get32(b + 20);
        counts->lossOfDwordSyncCount = get32(b + 24);
        counts->phyResetProblemCount = get32(b + 28);
        break;
    }
    case 11: {
        auto* text = static_cast<std::string*>(result);
        if (b[15] == 1) *text = "DOWN";
        else if (b[15] == 0 || b[15] == 2) *text = "UNKNOWN";
        else *text = "UP";
        break;
    }
    case 12: {
        auto* text = static_cast<std::string*>(result);
        switch (b[15]) {
        case 8: *text = "1.5G"; break;
        case 9: *text = "3G"; break;
        case 10: *text = "6G"; break;
        case 11: *text = "12G"; break;
        case 2: *text = "Speed negotiation failed"; break;
        case 0: *text = "Link rate unknown"; break;
        case 1: *text = "PHY disabled"; break;
        default: break;  // other values leave the caller's text
        }
        break;
    }
    case 13: {
        uint64_t address = 0;
        for (int i = 7; i >= 0; --i) address = address << 8 | b[4 + i];
        *static_cast<unsigned long long*>(result) = address;
        break;
    }
    default:
        break;
    }
    return 0;
}
