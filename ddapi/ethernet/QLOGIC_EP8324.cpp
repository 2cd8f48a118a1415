// QLogic EP8324 driver: MAC through the BAR0 mailbox, flash and SFP through the
// adapter's management node.
#include "ddapi/ethernet/QLOGIC_EP8324.h"

#include <fcntl.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "api/platform/Files.h"
#include "api/platform/Platform.h"
#include "ddapi/memory/MemoryDDAPI.h"
#include "ddapi/pci/PCIDDAPI.h"

namespace {
constexpr ERRORCODE kDriverError = 0xC3044000;
constexpr ERRORCODE kSendIoctl = 0xC3080400;
const char kNode[] = "/dev/ep8324";

// One management request: adapter name, then the request's 32-bit fields. Flash
// requests use {address in dwords, count, data}; SFP requests {device, offset, count,
// data}. The driver reports a failed adapter mailbox in status.
struct Ep8324Request {
    char adapter[32];
    uint32_t field[4];
    uint32_t status;
    uint8_t reserved[288 - 32 - 20];
};
static_assert(sizeof(Ep8324Request) == 288, "the request record is 288 bytes");

constexpr uint32_t kMacBlock = 0x370000;
constexpr uint32_t kMacBlockDwords = 16384;
constexpr uint32_t kMacWords = 0x370410;
constexpr uint32_t kChecksumEnd = 0x375000;
constexpr uint32_t kChecksumAt = 0x37001C;
constexpr uint32_t kFlashDwords = 4194304;
constexpr uint32_t kMailboxDone = 0x80000000u;
constexpr int kMailboxPollLimit = 10000;  // 10 ms at 1 us per poll
}  // namespace

QLOGIC_EP8324::QLOGIC_EP8324(const char* name) : EthernetBaseClass(name) {}

QLOGIC_EP8324::~QLOGIC_EP8324() {
    if (m_fd >= 0) quarn::platform().close(m_fd);
}

ErrorMsg* QLOGIC_EP8324::Get_self_test_result(ethtool_test* result, TestType type, int* value) {
    static const int kIndex[] = {5, 0, 2, 3, 1};
    if (static_cast<unsigned>(type) > 4u) return returnErrorMsg(0xC3080406, nullptr, nullptr);
    const int index = kIndex[type];
    if (!result || static_cast<uint32_t>(index) >= result->len)
        return returnErrorMsg(0xC3080406, formatMessage("result %d not reported", index), nullptr);
    if (value) *value = static_cast<int>(result->data[index]);
    return nullptr;
}

ErrorMsg* QLOGIC_EP8324::SetupSpeed(std::string ifname, int) {
    for (int i = 0; i < 7; ++i) {
        std::string state;
        if (ErrorMsg* e = GetLinkStatus(ifname, &state)) deleteErrorMsg(e);
        if (state == "Up") return nullptr;
        quarn::platform().sleepMicroseconds(1000000);
    }
    return returnErrorMsg(0xC3044008, ifname.c_str(), nullptr);
}

ErrorMsg* QLOGIC_EP8324::OpenDevice() {
    m_fd = quarn::platform().open(kNode, O_RDWR);
    if (m_fd < 0) {
        m_lastError = kDriverError;
        return returnErrorMsg(kDriverError, "Open /dev/ep8324 fail", nullptr);
    }
    return nullptr;
}

ErrorMsg* QLOGIC_EP8324::adapterAddress(const std::string& ifname, int* bus, int* device, int* function) {
    int domain = 0;
    if (ErrorMsg* e = GetPCIBusDeviceFunction(ifname, &domain, bus, device, function))
        return returnErrorMsg(kDriverError, "EP8324 get PCI BDF fail", e);
    return nullptr;
}

ErrorMsg* QLOGIC_EP8324::request(unsigned long code, int bus, int device, int function, uint32_t address,
                                 uint32_t* data, int sfpDevice) {
    if (ErrorMsg* e = OpenDevice()) return e;
    Ep8324Request r;
    memset(&r, 0, sizeof(r));
    snprintf(r.adapter, sizeof(r.adapter), "CNA-%02x:%02x.%02x", bus & 0xFF, device & 0xFF, function & 0xFF);
    const bool sfp = code == kSfpRead || code == kSfpWrite;
    if (sfp) {
        r.field[0] = static_cast<uint32_t>(sfpDevice);
        r.field[1] = address;
        r.field[2] = 1;
        r.field[3] = *data;
    } else {
        r.field[0] = address / 4;
        r.field[1] = 1;
        r.field[2] = *data;
    }
    const int rc = quarn::platform().ioctl(m_fd, code, &r);
    const int err = errno;
    quarn::platform().close(m_fd);
    m_fd = -1;
    const bool write = code == kSpiWrite || code == kSfpWrite;
    if (rc < 0) {
        m_lastError = kDriverError;
        return returnErrorMsg(kDriverError, write ? "SPI write IOCTL fail" : "SPI read fail",
                              new ErrorMsg(kSendIoctl | 0x04, strerror(err)));
    }
    if (r.status != 0) {
        m_lastError = kDriverError;
        return returnErrorMsg(kDriverError, write ? "SPI write mailbox fail" : "SPI read fail",
                              new ErrorMsg(kSendIoctl | 0x04, formatMessage("status 0x%x", r.status)));
    }
    *data = sfp ? r.field[3] : r.field[2];
    return nullptr;
}

ErrorMsg* QLOGIC_EP8324::readFlash(const std::string& ifname, uint32_t address, uint32_t count,
                                   std::vector<uint32_t>* out) {
    int bus = 0, device = 0, function = 0;
    if (ErrorMsg* e = adapterAddress(ifname, &bus, &device, &function)) return e;
    out->assign(count, 0);
    for (uint32_t i = 0; i < count; ++i)
        if (ErrorMsg* e = request(kSpiRead, bus, device, 0, address + 4 * i, &(*out)[i], 0)) return e;
    return nullptr;
}

// A failed dword puts back the dwords already written from the copy read before, so
// the flash keeps its previous contents.
ErrorMsg* QLOGIC_EP8324::writeFlash(const std::string& ifname, uint32_t address,
                                    const std::vector<uint32_t>& dwords, bool progress) {
    int bus = 0, device = 0, function = 0;
    if (ErrorMsg* e = adapterAddress(ifname, &bus, &device, &function)) return e;
    std::vector<uint32_t> old;
    if (ErrorMsg* e = readFlash(ifname, address, static_cast<uint32_t>(dwords.size()), &old))
        return returnErrorMsg(kDriverError, "SPI write fail", e);
    int shown = -1;
    const size_t n = dwords.size();
    for (size_t i = 0; i < n; ++i) {
        uint32_t v = dwords[i];
        if (v != old[i]) {
            if (ErrorMsg* e = request(kSpiWrite, bus, device, 0, address + 4 * static_cast<uint32_t>(i), &v, 0)) {
                for (size_t j = 0; j < i; ++j) {
                    uint32_t back = old[j];
                    if (back == dwords[j]) continue;
                    if (ErrorMsg* r = request(kSpiWrite, bus, device, 0, address + 4 * static_cast<uint32_t>(j), &back, 0))
                        deleteErrorMsg(r);
                }
                if (progress && shown >= 0) printf("\n");
                return returnErrorMsg(kDriverError, "SPI write fail", e);
            }
        }
        if (progress) {
            const int percent = static_cast<int>((i + 1) * 100 / n);
            if (percent != shown) {
                shown = percent;
                if (i + 1 < n) printf("%3d%%\r", percent);
                else printf("%3d%%\n", percent);
                fflush(stdout);
            }
        }
    }
    return nullptr;
}

ErrorMsg* QLOGIC_EP8324::GetMAC(std::string ifname, std::string* mac) {
    int domain = 0, bus = 0, device = 0, function = 0;
    if (ErrorMsg* e = GetPCIBusDeviceFunction(ifname, &domain, &bus, &device, &function))
        return returnErrorMsg(kDriverError, "EP8324 get MAC fail", e);
    if (function != 2 && function != 3)
        return returnErrorMsg(kDriverError, formatMessage("EP8324 get MAC fail: function %d", function), nullptr);
    PCIDDAPI pci("PCI_driver");
    deleteErrorMsg(pci.getErrorMsg());
    uint32_t bar = 0;
    if (ErrorMsg* e = pci.getBarByBDF(static_cast<uint16_t>(domain), static_cast<uint16_t>(bus),
                                      static_cast<uint16_t>(device), static_cast<uint8_t>(function), 0, &bar))
        return returnErrorMsg(kDriverError, "EP8324 get MAC fail", e);
    MemoryDDAPI* mem = m_memoryDriver;
    if (!mem || !bar) return returnErrorMsg(kDriverError, "EP8324 get MAC fail: no BAR0", nullptr);
    const uint32_t first = function == 2 ? 0x7F8DC104 : 0x7F8DC106;
    uint32_t words[2] = {0, 0};
    for (int k = 0; k < 2; ++k) {
        if (ErrorMsg* e = mem->write(static_cast<unsigned long long>(bar), static_cast<unsigned int>(first + k)))
            return returnErrorMsg(kDriverError, "EP8324 get MAC fail", e);
        bool done = false;
        for (int i = 0; i < kMailboxPollLimit && !done; ++i) {
            done = (mem->read32(bar) & kMailboxDone) != 0;
            if (ErrorMsg* e = mem->getErrorMsg()) return returnErrorMsg(kDriverError, "EP8324 get MAC fail", e);
            if (!done) quarn::platform().sleepMicroseconds(1);
        }
        if (!done) return returnErrorMsg(kDriverError, "EP8324 get MAC fail: mailbox timeout", nullptr);
        words[k] = mem->read32(bar + 4ULL);
        if (ErrorMsg* e = mem->getErrorMsg()) return returnErrorMsg(kDriverError, "EP8324 get MAC fail", e);
    }
    char text[18];
    snprintf(text, sizeof(text), "%02X:%02X:%02X:%02X:%02X:%02X", words[1] >> 8 & 0xFF, words[1] & 0xFF,
             words[0] >> 24 & 0xFF, words[0] >> 16 & 0xFF, words[0] >> 8 & 0xFF, words[0] & 0xFF);
    if (mac) *mac = text;
    return nullptr;
}

ErrorMsg* QLOGIC_EP8324::SetMAC(std::string ifname, std::string* bytes) {
    if (!bytes) return returnErrorMsg(0xC308280A, "no MAC bytes", nullptr);
    unsigned b[6] = {0};
    for (int i = 0; i < 6; ++i) {
        bool ok = !bytes[i].empty() && bytes[i].size() <= 2;
        for (char c : bytes[i]) ok = ok && isxdigit(static_cast<unsigned char>(c));
        if (!ok || sscanf(bytes[i].c_str(), "%x", &b[i]) != 1)
            return returnErrorMsg(0xC308280A + i, formatMessage("bad byte \"%.20s\"", bytes[i].c_str()), nullptr);
    }
    int bus = 0, device = 0, function = 0;
    if (ErrorMsg* e = adapterAddress(ifname, &bus, &device, &function)) return e;
    if (function != 2 && function != 3)
        return returnErrorMsg(kDriverError, formatMessage("EP8324 set MAC fail: function %d", function), nullptr);
    std::vector<uint32_t> block;
    if (ErrorMsg* e = readFlash(ifname, kMacBlock, kMacBlockDwords, &block)) return e;
    const uint32_t at = (kMacWords - kMacBlock) / 4 + 2 * static_cast<uint32_t>(function - 2);
    block[at] = b[2] << 24 | b[3] << 16 | b[4] << 8 | b[5];
    block[at + 1] = (block[at + 1] & 0xFFFF0000u) | b[0] << 8 | b[1];
    // The block checksum, so the adapter accepts the block at its next start.
    uint32_t sum = 0;
    for (uint32_t a = kMacBlock; a < kChecksumEnd; a += 4)
        if (a != kChecksumAt) sum += block[(a - kMacBlock) / 4];
    block[(kChecksumAt - kMacBlock) / 4] = 0u - sum;
    if (ErrorMsg* e = writeFlash(ifname, kMacBlock, block, true)) return e;
    return UpdateFlashChecksum(kMacBlock, kChecksumEnd, kChecksumAt);
}

ErrorMsg* QLOGIC_EP8324::UpdateFlashChecksum(uint32_t start, uint32_t end, uint32_t at) {
    if (start >= end) return returnErrorMsg(kDriverError, "Start address bigger than end", nullptr);
    std::vector<uint32_t> dwords;
    if (ErrorMsg* e = readFlash(m_interface, start, (end - start) / 4, &dwords)) return e;
    uint32_t sum = 0;
    for (uint32_t a = start; a + 4 <= end; a += 4)
        if (a != at) sum += dwords[(a - start) / 4];
    int bus = 0, device = 0, function = 0;
    if (ErrorMsg* e = adapterAddress(m_interface, &bus, &device, &function)) return e;
    uint32_t value = 0u - sum;
    return request(kSpiWrite, bus, device, 0, at, &value, 0);
}

ErrorMsg* QLOGIC_EP8324::GetEEPROM(std::string ifname, int offset, int length, int* data) {
    if (offset < 0 || length <= 0 || !data || static_cast<long long>(offset) + length > 4LL * kFlashDwords)
        return returnErrorMsg(kDriverError | 0x219, formatMessage("offset %d length %d", offset, length), nullptr);
    const uint32_t first = static_cast<uint32_t>(offset) & ~3u;
    const uint32_t last = (static_cast<uint32_t>(offset + length) + 3) & ~3u;
    std::vector<uint32_t> dwords;
    if (ErrorMsg* e = readFlash(ifname, first, (last - first) / 4, &dwords)) return e;
    for (int i = 0; i < length; ++i) {
        const uint32_t byte = static_cast<uint32_t>(offset + i) - first;
        data[i] = static_cast<int>(dwords[byte / 4] >> (8 * (byte % 4)) & 0xFF);
    }
    return nullptr;
}

ErrorMsg* QLOGIC_EP8324::SetEEPROM(std::string ifname, int offset, int* data, int length) {
    if (offset < 0 || length <= 0 || !data || static_cast<long long>(offset) + length > 4LL * kFlashDwords)
        return returnErrorMsg(kDriverError | 0x219, formatMessage("offset %d length %d", offset, length), nullptr);
    const uint32_t first = static_cast<uint32_t>(offset) & ~3u;
    const uint32_t last = (static_cast<uint32_t>(offset + length) + 3) & ~3u;
    std::vector<uint32_t> dwords;
    if (ErrorMsg* e = readFlash(ifname, first, (last - first) / 4, &dwords)) return e;
    for (int i = 0; i < length; ++i) {
        const uint32_t byte = static_cast<uint32_t>(offset + i) - first;
        const uint32_t shift = 8 * (byte % 4);
        dwords[byte / 4] = (dwords[byte / 4] & ~(0xFFu << shift)) | (static_cast<uint32_t>(data[i]) & 0xFF) << shift;
    }
    return writeFlash(ifname, first, dwords, false);
}

ErrorMsg* QLOGIC_EP8324::Program(std::string ifname, std::string imageFile) {
    std::string image;
    if (quarn::readTextFile(imageFile, &image, 4u * kFlashDwords) != 0)
        return returnErrorMsg(kDriverError, formatMessage("Open %.50s fail", imageFile.c_str()), nullptr);
    std::vector<uint32_t> dwords(kFlashDwords, 0xFFFFFFFFu);
    memcpy(dwords.data(), image.data(), std::min(image.size(), dwords.size() * 4));
    return writeFlash(ifname, 0, dwords, true);
}

ErrorMsg* QLOGIC_EP8324::ReadSFP(std::string ifname, int device, int offset, int count, int* data) {
    if (offset < 0 || count < 0 || offset + count > 256 || (count && !data))
        return returnErrorMsg(kSendIoctl | 0x219, formatMessage("offset %d count %d", offset, count), nullptr);
    int bus = 0, dev = 0, function = 0;
    if (ErrorMsg* e = adapterAddress(ifname, &bus, &dev, &function)) return e;
    for (int i = 0; i < count; ++i) {
        uint32_t v = 0;
        if (ErrorMsg* e = request(kSfpRead, bus, dev, function - 2, static_cast<uint32_t>(offset + i), &v, device))
            return e;
        data[i] = static_cast<int>(v & 0xFF);
    }
    return nullptr;
}

ErrorMsg* QLOGIC_EP8324::WriteSFP(std::string ifname, int device, int offset, int value) {
    if (offset < 0 || offset > 255)
        return returnErrorMsg(kSendIoctl | 0x219, formatMessage("offset %d", offset), nullptr);
    int bus = 0, dev = 0, function = 0;
    if (ErrorMsg* e = adapterAddress(ifname, &bus, &dev, &function)) return e;
    uint32_t v = static_cast<uint32_t>(value) & 0xFF;
    return request(kSfpWrite, bus, dev, function - 2, static_cast<uint32_t>(offset), &v, device);
}
