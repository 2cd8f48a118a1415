// Device layer of USB.
#include "ddapi/usb/USBDDAPI.h"

#include <dirent.h>
#include <scsi/sg.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "api/StringUtil.h"
#include "api/platform/Files.h"
#include "api/platform/Platform.h"

namespace {
constexpr ERRORCODE kScanUSBDevice = 0xC5081400;
constexpr ERRORCODE kSCSIGroup = 0xC5087C00;
constexpr ERRORCODE kGetLogicalIdByName = 0xC5088400;
constexpr ERRORCODE kGetDataByID = 0xC5088800;
constexpr ERRORCODE kGetUSBDeviceNode = 0xC5088C00;
constexpr ERRORCODE kSysBus = 0xC5089000;
constexpr ERRORCODE kSysBlock = 0xC5089400;
constexpr ERRORCODE kPREAD = 0xC5089800;
constexpr ERRORCODE kPWRITE = 0xC5089C00;
constexpr ERRORCODE kSGNode = 0xC508A800;
constexpr ERRORCODE kSCSIRead = 0xC508A000;
constexpr ERRORCODE kSCSIWrite = 0xC508A400;
constexpr ERRORCODE kReadIoctlFail = 0xC50CA001;
constexpr ERRORCODE kWriteIoctlFail = 0xC50CA401;

constexpr ERRORCODE kNameNotFound = 0x01;
constexpr ERRORCODE kElementNotFound = 0x02;
constexpr ERRORCODE kOpenDirFail = 0x08;
constexpr ERRORCODE kOpenFileFail = 0x215;
constexpr ERRORCODE kCloseFileFail = 0x216;

constexpr unsigned int kSenseLength = 32;
constexpr unsigned int kReadTimeoutMs = 20000;
constexpr unsigned int kWriteTimeoutMs = 40000;

const char* const kSysBusDevices = "/sys/bus/usb/devices/";
const char* const kSysBlockDir = "/sys/block/";

// The directory of a driver whose interfaces are of this class; null for the others.
const char* driverDirectory(unsigned int usbClass) {
    if (usbClass == 3) return "/sys/bus/usb/drivers/usbhid/";
    if (usbClass == 8) return "/sys/bus/usb/drivers/usb-storage/";
    return nullptr;
}

// First line of a sysfs attribute without its line feed ("cat FILE | head -1").
bool firstLine(const std::string& path, std::string* line) {
    std::string text;
    if (quarn::readTextFile(path, &text, 4096) != 0) return false;
    const size_t nl = text.find('\n');
    *line = nl == std::string::npos ? text : text.substr(0, nl);
    return true;
}

// A decimal attribute; out-of-range or malformed text reads as an impossible value.
long decimal(const std::string& text) {
    char* end = nullptr;
    errno = 0;
    const long v = strtol(text.c_str(), &end, 10);
    if (errno || end == text.c_str() || v < 0 || v > 255) return -1;
    return v;
}

void copyName(char* to, size_t size, const std::string& from) {
    snprintf(to, size, "%s", from.c_str());
}

int cdbLength(unsigned char opcode) {
    switch (opcode >> 5) {  // the group code
        case 0: return 6;
        case 1: return 10;
        case 2: return 12;
        case 3: return 16;
        default: return 0;
    }
}
}  // namespace

USBDDAPI::USBDDAPI(const char* name) : BaseClassDDAPI(name), m_transfers(0) {
    memset(m_sense, 0, sizeof(m_sense));
    for (UsbConfiguration& c : m_devices) {
        memset(&c, 0, sizeof(c));
        c.id = kFree;
    }
    memset(m_elements, 0, sizeof(m_elements));
    const char* const paths[10] = {"",       "",        "serial",
                                   "manufacturer", "size", "version",
                                   "speed",  "queue/physical_block_size", "queue/logical_block_size",
                                   "device/scsi_generic/"};
    for (uint32_t i = 0; i < 10; ++i) {
        m_elements[i].element = i;
        snprintf(m_elements[i].path, sizeof(m_elements[i].path), "%s", paths[i]);
    }
    if (ErrorMsg* e = discover()) addErrorMsg(e->getErrorCode(), nullptr, e);
}

USBDDAPI::~USBDDAPI() = default;

const UsbConfiguration* USBDDAPI::entry(uint32_t id) const {
    if (id >= kTableSize || m_devices[id].id != id) return nullptr;
    return &m_devices[id];
}

// Interfaces bound to usbhid (class 3) and usb-storage (class 8), each named by its kind
// and count. Entries are taken in name order, so the numbering does not depend on the
// order the kernel happened to bind the drivers in.
ErrorMsg* USBDDAPI::discover() {
    quarn::Platform& p = quarn::platform();
    uint32_t nextId = 0;
    unsigned int storage = 0, keyboards = 0, mice = 0;
    for (unsigned int usbClass = 0; usbClass < 255; ++usbClass) {
        const char* dir = driverDirectory(usbClass);
        if (!dir) continue;
        std::vector<quarn::DirEntry> entries;
        if (p.listDirectory(dir, &entries) != 0) continue;  // driver not loaded
        std::sort(entries.begin(), entries.end(),
                  [](const quarn::DirEntry& a, const quarn::DirEntry& b) { return a.name < b.name; });
        for (const quarn::DirEntry& d : entries) {
            struct stat st;
            if (p.lstat(std::string(dir) + d.name, &st) != 0 || !S_ISLNK(st.st_mode)) continue;
            if (d.name.find("module") != std::string::npos) continue;
            if (nextId >= kTableSize) return nullptr;
            std::string cls, protocol;
            if (!firstLine(kSysBusDevices + d.name + "/bInterfaceClass", &cls) ||
                !firstLine(kSysBusDevices + d.name + "/bInterfaceProtocol", &protocol))
                continue;
            const long c = decimal(cls);
            const long pr = decimal(protocol);
            UsbConfiguration& e = m_devices[nextId];
            if (c == 8) {
                std::vector<quarn::DirEntry> blocks;
                if (p.listDirectory(kSysBlockDir, &blocks) != 0)
                    return returnErrorMsg(kScanUSBDevice, kSysBlockDir, nullptr);
                std::sort(blocks.begin(), blocks.end(),
                          [](const quarn::DirEntry& a, const quarn::DirEntry& b) { return a.name < b.name; });
                std::string node;
                for (const quarn::DirEntry& b : blocks) {
                    std::string target;
                    if (p.readlink(kSysBlockDir + b.name, &target) != 0) continue;  // not a link
                    if (target.size() > 255) target.resize(255);
                    if (target.find(d.name) != std::string::npos) node = b.name;
                }
                copyName(e.name, sizeof(e.name), "USB" + std::to_string(storage++));
                copyName(e.node, sizeof(e.node), node);
            } else if (c == 3 && pr == 1) {
                copyName(e.name, sizeof(e.name), "KEYBOARD" + std::to_string(keyboards++));
            } else if (c == 3 && pr == 2) {
                copyName(e.name, sizeof(e.name), "MOUSE" + std::to_string(mice++));
            } else {
                continue;
            }
            copyName(e.interface, sizeof(e.interface), d.name);
            e.id = nextId++;
        }
    }
    return nullptr;
}

ErrorMsg* USBDDAPI::getUSBDevicesList(std::list<std::string>* names) {
    bool any = false;
    for (const UsbConfiguration& c : m_devices) {
        if (c.id == kFree) continue;
        any = true;
        if (names) names->push_back(c.name);
    }
    if (!any && names) names->push_back("Not Attach Any USB Storage Device");
    return nullptr;
}

ErrorMsg* USBDDAPI::getLogicalIdByName(std::string name, uint32_t* id) {
    std::string wanted = name;
    std::transform(wanted.begin(), wanted.end(), wanted.begin(), [](unsigned char c) { return std::toupper(c); });
    for (const UsbConfiguration& c : m_devices) {
        if (c.id != kFree && wanted == c.name) {
            if (id) *id = c.id;
            return nullptr;
        }
    }
    return returnErrorMsg(kGetLogicalIdByName | kNameNotFound, formatMessage("%.60s", name.c_str()), nullptr);
}

ErrorMsg* USBDDAPI::getUSBDeviceNode(uint32_t id, std::list<std::string>* out) {
    const UsbConfiguration* e = entry(id);
    if (!e) return returnErrorMsg(kGetUSBDeviceNode | 0x01, formatMessage("id %u", id), nullptr);
    if (out) out->push_back(e->node[0] ? std::string("/dev/") + e->node : "None");
    return nullptr;
}

ErrorMsg* USBDDAPI::getUSBInfoFromSysBus(const UsbConfiguration& e, const char* attribute,
                                         std::list<std::string>* out) {
    std::string device = e.interface;
    device = device.substr(0, device.find(':'));
    std::string line;
    if (!firstLine(kSysBusDevices + device + "/" + attribute, &line))
        return returnErrorMsg(kSysBus | kOpenFileFail, formatMessage("%.30s/%.30s", device.c_str(), attribute), nullptr);
    if (out) out->push_back(line);
    return nullptr;
}

ErrorMsg* USBDDAPI::getUSBInfoFromSysBlock(const UsbConfiguration& e, const char* attribute, bool size,
                                           std::list<std::string>* out) {
    std::string line;
    if (!firstLine(kSysBlockDir + std::string(e.node) + "/" + attribute, &line))
        return returnErrorMsg(kSysBlock | kOpenFileFail, formatMessage("%.30s/%.30s", e.node, attribute), nullptr);
    if (size) {
        // 512-byte sectors to whole MiB.
        const unsigned long long sectors = strtoull(line.c_str(), nullptr, 10);
        char text[32];
        snprintf(text, sizeof(text), "%.2f\n", static_cast<double>(sectors / 2048));
        line = text;
        line.pop_back();
    }
    if (out) out->push_back(line);
    return nullptr;
}

ErrorMsg* USBDDAPI::getUSBSGDeviceNode(const UsbConfiguration& e, std::list<std::string>* out) {
    std::vector<std::string> names;
    const std::string dir = kSysBlockDir + std::string(e.node) + "/device/scsi_generic/";
    if (quarn::listNames(dir, &names) != 0 || names.empty())
        return returnErrorMsg(kSGNode | kOpenDirFail, formatMessage("%.60s", dir.c_str()), nullptr);
    if (out) out->push_back("/dev/" + names.front());
    return nullptr;
}

ErrorMsg* USBDDAPI::getDataByID(uint32_t id, USB_DATA_ELEMENT element, std::list<std::string>* out) {
    if (element > USB_DATA_SG_NODE)
        return returnErrorMsg(kGetDataByID | kElementNotFound, formatMessage("element %u", element), nullptr);
    const UsbConfiguration* e = entry(id);
    if (!e) return returnErrorMsg(kGetDataByID, nullptr, returnErrorMsg(kGetUSBDeviceNode | 0x01, formatMessage("id %u", id), nullptr));
    ErrorMsg* failure = nullptr;
    switch (element) {
        case USB_DATA_NONE:
            return nullptr;
        case USB_DATA_DEVICE_NODE:
            failure = getUSBDeviceNode(id, out);
            break;
        case USB_DATA_SERIAL:
        case USB_DATA_MANUFACTURER:
        case USB_DATA_VERSION:
        case USB_DATA_SPEED:
            failure = getUSBInfoFromSysBus(*e, m_elements[element].path, out);
            break;
        case USB_DATA_SIZE:
        case USB_DATA_PHYSICAL_BLOCK_SIZE:
        case USB_DATA_LOGICAL_BLOCK_SIZE:
        case USB_DATA_SG_NODE:
            if (!e->node[0]) {
                if (out) out->push_back("None");
                return nullptr;
            }
            failure = element == USB_DATA_SG_NODE
                          ? getUSBSGDeviceNode(*e, out)
                          : getUSBInfoFromSysBlock(*e, m_elements[element].path, element == USB_DATA_SIZE, out);
            break;
    }
    return failure ? returnErrorMsg(kGetDataByID, nullptr, failure) : nullptr;
}

ErrorMsg* USBDDAPI::transfer(bool write, int fd, unsigned char* cdb, void* buffer, uint32_t bytes) {
    const int length = cdb ? cdbLength(cdb[0]) : 0;
    if (!length) return returnErrorMsg(kSCSIGroup, "NULL pointer", nullptr);
    sg_io_hdr io;
    memset(&io, 0, sizeof(io));
    memset(m_sense, 0, sizeof(m_sense));
    io.interface_id = 'S';
    io.dxfer_direction = write ? SG_DXFER_TO_DEV : SG_DXFER_FROM_DEV;
    io.cmd_len = static_cast<unsigned char>(length);
    io.cmdp = cdb;
    io.mx_sb_len = kSenseLength;
    io.sbp = m_sense;
    io.dxfer_len = bytes;
    io.dxferp = buffer;
    io.timeout = write ? kWriteTimeoutMs : kReadTimeoutMs;
    ++m_transfers;
    int rc;
    do {
        rc = quarn::platform().ioctl(fd, SG_IO, &io);
    } while (write && rc < 0 && errno == EINTR);
    // The driver-layer record carries the code; the device-layer row before it says
    // what happened in words (the driver table has no function rows to render).
    const ERRORCODE code = write ? kWriteIoctlFail : kReadIoctlFail;
    const ERRORCODE row = write ? kSCSIWrite : kSCSIRead;
    if (rc < 0)
        return returnErrorMsg(row, quarn::systemErrorText(errno).c_str(), returnErrorMsg(code, "NULL pointer", nullptr));
    // A command the device ended with CHECK CONDITION failed as well, though the request
    // itself went through: the medium error is what the test is there to find.
    if (io.status != 0 || io.host_status != 0) {
        const bool descriptor = (m_sense[0] & 0x7F) >= 0x72;
        const unsigned key = (descriptor ? m_sense[1] : m_sense[2]) & 0x0F;
        const unsigned asc = descriptor ? m_sense[2] : m_sense[12];
        const unsigned ascq = descriptor ? m_sense[3] : m_sense[13];
        return returnErrorMsg(row, formatMessage("status 0x%02x sense %x/%02x/%02x", io.status, key, asc, ascq),
                              returnErrorMsg(code, "NULL pointer", nullptr));
    }
    return nullptr;
}

ErrorMsg* USBDDAPI::SCSIRead(int fd, unsigned char* cdb, void* buffer, uint32_t bytes) {
    return transfer(false, fd, cdb, buffer, bytes);
}

ErrorMsg* USBDDAPI::SCSIWrite(int fd, unsigned char* cdb, void* buffer, uint32_t bytes) {
    return transfer(true, fd, cdb, buffer, bytes);
}

namespace {
void buildCdb(unsigned char* cdb, unsigned char opcode, uint32_t lba, uint32_t bytes) {
    memset(cdb, 0, 10);
    cdb[0] = opcode;
    cdb[2] = static_cast<unsigned char>(lba >> 24);
    cdb[3] = static_cast<unsigned char>(lba >> 16);
    cdb[4] = static_cast<unsigned char>(lba >> 8);
    cdb[5] = static_cast<unsigned char>(lba);
    const uint32_t blocks = bytes / 512;
    cdb[7] = static_cast<unsigned char>(blocks >> 8);
    cdb[8] = static_cast<unsigned char>(blocks);
}
}  // namespace

ErrorMsg* USBDDAPI::PREAD(int fd, void* buffer, uint32_t lba, uint32_t bytes) {
    unsigned char cdb[10];
    buildCdb(cdb, 0x28, lba, bytes);
    if (ErrorMsg* e = SCSIRead(fd, cdb, buffer, bytes)) return returnErrorMsg(kPREAD, formatMessage("LBA %u", lba), e);
    return nullptr;
}

ErrorMsg* USBDDAPI::PWRITE(int fd, void* buffer, uint32_t lba, uint32_t bytes) {
    unsigned char cdb[10];
    buildCdb(cdb, 0x2A, lba, bytes);
    if (ErrorMsg* e = SCSIWrite(fd, cdb, buffer, bytes)) return returnErrorMsg(kPWRITE, formatMessage("LBA %u", lba), e);
    return nullptr;
}
