// Device layer of the AHCI SATA controllers: discovery, port registers, device nodes,
// data elements, PxSERR decoding and the 16-byte SCSI commands sent over SG_IO.
#include "ddapi/sata/SATADDAPI.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <linux/hdreg.h>
#include <scsi/sg.h>
#include <sys/mman.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "api/StringUtil.h"
#include "api/platform/Platform.h"
#include "ddapi/pci/PCIDDAPI.h"
#include "ddapi/scsi/SCSISenseAnalyzer.h"

namespace {
constexpr ERRORCODE kIOCTL = 0xC8080800;
constexpr ERRORCODE kGenerateSATAList = 0xC8080C00;
constexpr ERRORCODE kInitControllerInfo = 0xC8081000;
constexpr ERRORCODE kInitPortInfo = 0xC8081400;
constexpr ERRORCODE kFlushBufferCache = 0xC8081C00;
constexpr ERRORCODE kIdentifyCommandTest = 0xC8082000;
constexpr ERRORCODE kGetLogicalIDByName = 0xC8082400;
constexpr ERRORCODE kGetDataByID = 0xC8082800;
constexpr ERRORCODE kGetErrorRegisterByID = 0xC8082C00;
constexpr ERRORCODE kGetDataByName = 0xC8083400;
constexpr ERRORCODE kReadCapacity16 = 0xC8083800;
constexpr ERRORCODE kSATIdentify16 = 0xC8083C00;
constexpr ERRORCODE kPREAD = 0xC8084000;
constexpr ERRORCODE kPWRITE = 0xC8084400;

constexpr ERRORCODE kWrongNodeName = 0x01;
constexpr ERRORCODE kNoSuchOperation = 0x02;
constexpr ERRORCODE kOpenMemoryMapFail = 0x03;
constexpr ERRORCODE kMemoryMapFail = 0x04;
constexpr ERRORCODE kMemoryUnmapFail = 0x05;
constexpr ERRORCODE kOpenNodeFail = 0x06;
constexpr ERRORCODE kCloseNodeFail = 0x07;
constexpr ERRORCODE kOpenDirectoryFail = 0x09;
constexpr ERRORCODE kReadLinkError = 0x0A;
constexpr ERRORCODE kDumpSMARTError = 0x0B;
constexpr ERRORCODE kNoController = 0x0C;
constexpr ERRORCODE kIDNotFound = 0x0D;
constexpr ERRORCODE kNoSuchErrorElement = 0x0E;
constexpr ERRORCODE kNoSuchDataElement = 0x0F;
constexpr ERRORCODE kNotMultipleOf512 = 0x11;
constexpr ERRORCODE kSGIOFail = 0x12;
constexpr ERRORCODE kSGIOSense = 0x13;
constexpr ERRORCODE kLinkStatusUnknown = 0x14;
constexpr ERRORCODE kLinkSpeedUnknown = 0x15;
constexpr ERRORCODE kNoSuchHexFormat = 0x16;

constexpr ERRORCODE kPciNoDevice = 0x05;  // the PCI layer's "no device found" row

constexpr unsigned int kAhciCap = 0x00;
constexpr unsigned int kAhciBarIndex = 5;
constexpr PCIClassCode kClassSATAAHCI = 0x0106;

const char kDevMem[] = "/dev/mem";
const char kSysBlock[] = "/sys/block/";

// PxSERR bits of error elements 2 to 14 and their report labels.
struct SErrorBit {
    unsigned int bit;
    const char* label;
};
const SErrorBit kSErrorBits[] = {
    {24, "Transport State Transition Error                 : "},
    {23, "Link Sequence Error                              : "},
    {22, "Handshake Error                                  : "},
    {21, "CRC Error                                        : "},
    {20, "Disparity Error                                  : "},
    {19, "10B To 8B Decode Error                           : "},
    {17, "PHY Internal Error                               : "},
    {11, "Internal Error                                   : "},
    {10, "Protocol Error                                   : "},
    {9, "Persistent Communication or Data Integrity Error : "},
    {8, "Transient Data Integrity Error                   : "},
    {1, "Recover Communications Error                     : "},
    {0, "Recover Data Intregrity Error                    : "},
};

std::string bitText(unsigned int value, unsigned int bit) { return (value >> bit) & 1 ? "0x1" : "0x0"; }

// The ATA string fields: characters swapped in pairs, every blank (inner ones too) and
// anything unprintable dropped, since the texts come straight from the drive.
std::string ataString(const std::string& raw) {
    std::string swapped = raw;
    for (size_t i = 0; i + 1 < swapped.size(); i += 2) std::swap(swapped[i], swapped[i + 1]);
    std::string out;
    for (char c : swapped)
        if (c > ' ' && c < 127) out += c;
    return out;
}
}  // namespace

SATADDAPI::SATADDAPI(const char* name) : BaseClassDDAPI(name), m_cdbLength(kCDBLength), m_ioctlErrno(0) {
    memset(m_cdb, 0, sizeof(m_cdb));
    memset(m_sense, 0, sizeof(m_sense));
}

SATADDAPI::~SATADDAPI() = default;

unsigned int SATADDAPI::SWAB4(unsigned int value) {
    return (value & 0xFF) << 24 | (value & 0xFF00) << 8 | (value >> 8 & 0xFF00) | value >> 24;
}

std::string SATADDAPI::convertStringToUpperCase(std::string text) {
    for (char& c : text) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    return text;
}

// ---- discovery ----

ErrorMsg* SATADDAPI::generateSATAList() {
    m_controllers.clear();
    if (ErrorMsg* e = initControllerInfo()) return returnErrorMsg(kGenerateSATAList, nullptr, e);
    if (ErrorMsg* e = initPortInfo()) {
        const ERRORCODE row = e->getErrorCode() & 0xFF;
        return returnErrorMsg(kGenerateSATAList | row, nullptr, e);
    }
    for (SATAController& c : m_controllers) {
        if (ErrorMsg* e = getPortDeviceNode(c)) {
            const ERRORCODE row = e->getErrorCode() & 0xFF;
            return returnErrorMsg(kGenerateSATAList | row, nullptr, e);
        }
    }
    return nullptr;
}

ErrorMsg* SATADDAPI::initControllerInfo() {
    PCIDDAPI pci("PCIDDAPI");
    std::vector<_PCIInformantion> devices;
    if (ErrorMsg* e = pci.getPciInfoByClass(kClassSATAAHCI, &devices)) {
        // The PCI layer reports an empty class as its own "no device" error.
        if ((e->getErrorCode() & 0xFF) == kPciNoDevice)
            return returnErrorMsg(kInitControllerInfo | kNoController, nullptr, e);
        return returnErrorMsg(kInitControllerInfo, nullptr, e);
    }
    if (devices.empty()) return returnErrorMsg(kInitControllerInfo | kNoController, nullptr, nullptr);

    quarn::Platform& p = quarn::platform();
    unsigned int index = 0;
    for (const _PCIInformantion& d : devices) {
        SATAController c;
        c.name = "SATA" + std::to_string(index++);
        char bdf[16];
        snprintf(bdf, sizeof(bdf), "%02x:%02x.%x", d.bus & 0xFF, d.device & 0x1F, d.function & 7);
        c.bdf = bdf;
        c.domain = d.domain;
        c.bus = d.bus;
        c.device = d.device;
        c.function = d.function;
        uint32_t bar = 0;
        if (ErrorMsg* e = pci.getBarByBDF(d.domain, d.bus, d.device, d.function, kAhciBarIndex, &bar))
            return returnErrorMsg(kInitControllerInfo, formatMessage("BAR5 of %s", bdf), e);
        c.abar = bar & ~0xFu;

        const int fd = p.open(kDevMem, O_RDONLY | O_SYNC);
        if (fd < 0)
            return returnErrorMsg(kInitControllerInfo | kOpenMemoryMapFail,
                                  formatMessage("%s: %s", kDevMem, quarn::systemErrorText(errno).c_str()), nullptr);
        void* map = p.mmap(kRegisterMapLength, PROT_READ, MAP_SHARED, fd, static_cast<off_t>(c.abar));
        if (map == MAP_FAILED) {
            const int err = errno;
            p.close(fd);
            return returnErrorMsg(kInitControllerInfo | kMemoryMapFail,
                                  formatMessage("ABAR 0x%08x: %s", c.abar, quarn::systemErrorText(err).c_str()),
                                  nullptr);
        }
        const uint32_t cap = static_cast<volatile uint32_t*>(map)[kAhciCap / 4];
        c.portAmount = (cap & 0xF) + 1;
        if (p.munmap(map, kRegisterMapLength) != 0) {
            const int err = errno;
            p.close(fd);
            return returnErrorMsg(kInitControllerInfo | kMemoryUnmapFail, quarn::systemErrorText(err).c_str(),
                                  nullptr);
        }
        p.close(fd);
        m_controllers.push_back(c);
    }
    return nullptr;
}

// Every controller's ports are read at the same fixed address (the board's only ABAR).
// With six ports the last port's registers lie past the 896 mapped bytes but inside the
// mapped page, as /dev/mem maps whole pages.
ErrorMsg* SATADDAPI::initPortInfo() {
    quarn::Platform& p = quarn::platform();
    const int fd = p.open(kDevMem, O_RDONLY | O_SYNC);
    if (fd < 0)
        return returnErrorMsg(kInitPortInfo | kOpenMemoryMapFail,
                              formatMessage("%s: %s", kDevMem, quarn::systemErrorText(errno).c_str()), nullptr);
    void* map = p.mmap(kRegisterMapLength, PROT_READ, MAP_SHARED, fd, static_cast<off_t>(kPortRegisterBase));
    if (map == MAP_FAILED) {
        const int err = errno;
        p.close(fd);
        return returnErrorMsg(kInitPortInfo | kMemoryMapFail, quarn::systemErrorText(err).c_str(), nullptr);
    }
    const volatile uint32_t* regs = static_cast<volatile uint32_t*>(map);
    unsigned int next = 0;
    for (SATAController& c : m_controllers) {
        c.logicalID = next++;
        c.ports.clear();
        // CAP bits 3-0 are at most 15: at most 16 ports, all inside the mapped page.
        for (unsigned int n = 0; n < c.portAmount; ++n) {
            SATAPort port;
            port.logicalID = next++;
            port.portNumber = n;
            port.name = c.name + "-Port" + std::to_string(n);
            port.sError = regs[(0x130 + 0x80 * n) / 4];
            port.sStatus = regs[(0x128 + 0x80 * n) / 4];
            c.ports.push_back(port);
        }
    }
    if (p.munmap(map, kRegisterMapLength) != 0) {
        const int err = errno;
        p.close(fd);
        return returnErrorMsg(kInitPortInfo | kMemoryUnmapFail, quarn::systemErrorText(err).c_str(), nullptr);
    }
    p.close(fd);
    return nullptr;
}

// /sys/block/sdX -> ../devices/pci0000:00/0000:00:1f.2/ata3/host2/target2:0:0/2:0:0:0/block/sdX:
// the host number after the controller's BDF is the port number. Ports without a drive
// stay in the list with empty node texts (and keep their logical IDs).
ErrorMsg* SATADDAPI::getPortDeviceNode(SATAController& controller) {
    quarn::Platform& p = quarn::platform();
    std::vector<quarn::DirEntry> entries;
    if (p.listDirectory(kSysBlock, &entries) != 0)
        return returnErrorMsg(kOpenDirectoryFail, formatMessage("%s: %s", kSysBlock, quarn::systemErrorText(errno).c_str()),
                              nullptr);
    for (const quarn::DirEntry& entry : entries) {
        const std::string path = kSysBlock + entry.name;
        bool isLink = entry.type == DT_LNK;
        if (entry.type == DT_UNKNOWN) {
            struct stat st;
            isLink = p.lstat(path, &st) == 0 && S_ISLNK(st.st_mode);
        }
        if (!isLink) continue;
        std::string target;
        if (p.readlink(path, &target) < 0)
            return returnErrorMsg(kReadLinkError, formatMessage("%s: %s", path.c_str(), quarn::systemErrorText(errno).c_str()),
                                  nullptr);
        const size_t at = target.find(controller.bdf);
        if (at == std::string::npos) continue;
        const size_t host = target.find("host", at + controller.bdf.size());
        if (host == std::string::npos) continue;
        size_t digit = host + 4;
        unsigned long number = 0;
        size_t count = 0;
        while (digit < target.size() && isdigit(static_cast<unsigned char>(target[digit])) && count < 6) {
            number = number * 10 + static_cast<unsigned long>(target[digit] - '0');
            ++digit;
            ++count;
        }
        if (count == 0) continue;
        for (SATAPort& port : controller.ports) {
            if (port.portNumber != number) continue;
            port.deviceNode = "/dev/" + entry.name;
            std::vector<quarn::DirEntry> generic;
            if (p.listDirectory(path + "/device/scsi_generic/", &generic) == 0 && !generic.empty())
                port.sgDeviceNode = "/dev/" + generic.front().name;
            port.driveName = controller.name + "-Drive" + std::to_string(port.portNumber);
        }
    }
    return nullptr;
}

// ---- lists and lookups ----

ErrorMsg* SATADDAPI::listController() {
    for (const SATAController& c : m_controllers) printf("%s (%04u:%s)\n", c.name.c_str(), c.domain, c.bdf.c_str());
    return nullptr;
}

ErrorMsg* SATADDAPI::listPort() {
    for (const SATAController& c : m_controllers)
        for (const SATAPort& port : c.ports) printf("%s\n", port.name.c_str());
    return nullptr;
}

ErrorMsg* SATADDAPI::listDrive() {
    for (const SATAController& c : m_controllers)
        for (const SATAPort& port : c.ports)
            if (!port.deviceNode.empty()) printf("%s\n", port.name.c_str());
    return nullptr;
}

SATAController* SATADDAPI::controllerByID(unsigned int id) {
    for (SATAController& c : m_controllers)
        if (c.logicalID == id) return &c;
    return nullptr;
}

SATAPort* SATADDAPI::portByID(unsigned int id) {
    for (SATAController& c : m_controllers)
        for (SATAPort& port : c.ports)
            if (port.logicalID == id) return &port;
    return nullptr;
}

const SATAPort* SATADDAPI::findPort(unsigned int id) const {
    return const_cast<SATADDAPI*>(this)->portByID(id);
}

ErrorMsg* SATADDAPI::getLogicalIdByName(std::string name, unsigned int* id) {
    const std::string wanted = convertStringToUpperCase(name);
    for (const SATAController& c : m_controllers) {
        if (convertStringToUpperCase(c.name) == wanted) {
            *id = c.logicalID;
            return nullptr;
        }
    }
    for (const SATAController& c : m_controllers) {
        for (const SATAPort& port : c.ports) {
            if (convertStringToUpperCase(port.name) == wanted) {
                *id = port.logicalID;
                return nullptr;
            }
        }
    }
    return returnErrorMsg(kGetLogicalIDByName | kIDNotFound, formatMessage("name %.40s", name.c_str()), nullptr);
}

ErrorMsg* SATADDAPI::getDataByName(std::string name, SATADataElement element, std::string* out) {
    unsigned int id = 0;
    if (ErrorMsg* e = getLogicalIdByName(name, &id)) return returnErrorMsg(kGetDataByName, nullptr, e);
    if (ErrorMsg* e = getDataByID(id, element, out)) return returnErrorMsg(kGetDataByName, nullptr, e);
    return nullptr;
}

// ---- data elements ----

ErrorMsg* SATADDAPI::portReport(SATAPort& port, ERRORCODE function, std::string* out) {
    static const struct {
        SATADataElement element;
        const char* label;
    } kLines[] = {
        {SATA_DATA_PORT_NUMBER, "Port Number         : "},  {SATA_DATA_DEVICE_NODE, "Device Node Name    : "},
        {SATA_DATA_SG_NODE, "SG Device Node Name : "},      {SATA_DATA_CAPACITY, "Capacity            : "},
        {SATA_DATA_SERIAL, "Serial Number       : "},       {SATA_DATA_MODEL, "Model Name          : "},
        {SATA_DATA_FIRMWARE, "Firmware Version    : "},     {SATA_DATA_LINK_SPEED, "Link Speed          : "},
        {SATA_DATA_TEMPERATURE, "Temperature         : "},
    };
    std::string report;
    const bool hasDrive = !port.sgDeviceNode.empty();
    for (const auto& line : kLines) {
        std::string value;
        const bool driveElement = line.element != SATA_DATA_PORT_NUMBER && line.element != SATA_DATA_DEVICE_NODE &&
                                  line.element != SATA_DATA_SG_NODE && line.element != SATA_DATA_LINK_SPEED;
        // A port without a drive reports what the port itself knows; drive fields are "N/A".
        if (!hasDrive && driveElement) {
            value = "N/A";
        } else if (ErrorMsg* e = getDataByID(port.logicalID, line.element, &value)) {
            return returnErrorMsg(function, nullptr, e);
        }
        report += line.label + value + "\n";
    }
    *out = report;
    return nullptr;
}

ErrorMsg* SATADDAPI::getDataByID(unsigned int id, SATADataElement element, std::string* out) {
    if (SATAController* c = controllerByID(id)) {
        if (element != SATA_DATA_REPORT)
            return returnErrorMsg(kGetDataByID | kNoSuchDataElement, formatMessage("element %u", element), nullptr);
        *out = "ID          : " + std::to_string(c->logicalID) + "\nBDF         : " + c->bdf +
               "\nPort Amount : " + std::to_string(c->portAmount) + "\n";
        return nullptr;
    }
    SATAPort* port = portByID(id);
    if (!port) return returnErrorMsg(kGetDataByID | kIDNotFound, formatMessage("logical ID %u", id), nullptr);

    switch (element) {
    case SATA_DATA_REPORT:
        return portReport(*port, kGetDataByID, out);
    case SATA_DATA_DEVICE_NODE:
        *out = port->deviceNode;
        return nullptr;
    case SATA_DATA_SG_NODE:
        *out = port->sgDeviceNode;
        return nullptr;
    case SATA_DATA_SERIAL:
    case SATA_DATA_MODEL:
    case SATA_DATA_FIRMWARE: {
        std::string firmware, model, serial;
        if (ErrorMsg* e = SATIdentify16(id, &firmware, &model, &serial)) return returnErrorMsg(kGetDataByID, nullptr, e);
        port->firmwareVersion = firmware;
        port->modelName = model;
        port->serialNumber = serial;
        *out = element == SATA_DATA_SERIAL ? serial : element == SATA_DATA_MODEL ? model : firmware;
        return nullptr;
    }
    case SATA_DATA_CAPACITY: {
        unsigned int mb = 0;
        if (ErrorMsg* e = readCapacity16(id, &mb)) return returnErrorMsg(kGetDataByID, nullptr, e);
        port->capacity = std::to_string(mb) + " MB";
        *out = port->capacity;
        return nullptr;
    }
    case SATA_DATA_PORT_NUMBER:
        *out = std::to_string(port->portNumber);
        return nullptr;
    case SATA_DATA_LINK_STATUS: {
        const unsigned int det = port->sStatus & 0xF;
        if (det == 1 || det == 3)
            port->linkStatus = "linked";
        else if (det == 0 || det == 4)
            port->linkStatus = "unlinked";
        else
            return returnErrorMsg(kGetDataByID | kLinkStatusUnknown, formatMessage("SStatus 0x%08x", port->sStatus),
                                  nullptr);
        *out = port->linkStatus;
        return nullptr;
    }
    case SATA_DATA_LINK_SPEED: {
        static const char* const kSpeeds[] = {"0 Gb/s", "1.5 Gb/s", "3 Gb/s", "6 Gb/s"};
        const unsigned int spd = port->sStatus >> 4 & 0xF;
        if (spd > 3)
            return returnErrorMsg(kGetDataByID | kLinkSpeedUnknown, formatMessage("SStatus 0x%08x", port->sStatus),
                                  nullptr);
        port->linkSpeed = kSpeeds[spd];
        *out = port->linkSpeed;
        return nullptr;
    }
    case SATA_DATA_TEMPERATURE: {
        std::string table;
        if (ErrorMsg* e = getSMARTInfoByID(id, 0xC2, 0xC2, &table)) return returnErrorMsg(kGetDataByID, nullptr, e);
        for (const SMARTAttribute& a : port->smartAttributes) {
            if (a.id == 0xC2) {
                port->temperature = a.readable;
                *out = a.readable;
                return nullptr;
            }
        }
        return returnErrorMsg(kGetDataByID | kDumpSMARTError, "the drive has no attribute 194", nullptr);
    }
    default:
        return returnErrorMsg(kGetDataByID | kNoSuchDataElement, formatMessage("element %u", element), nullptr);
    }
}

ErrorMsg* SATADDAPI::getErrorRegisterByID(unsigned int id, SATAErrorElement element, std::string* out) {
    if (controllerByID(id)) {
        if (element != SATA_ERROR_CLEAR)
            return returnErrorMsg(kGetErrorRegisterByID | kNoSuchErrorElement, formatMessage("element %u", element),
                                  nullptr);
        printf("clear controller errors\n");
        out->clear();
        return nullptr;
    }
    SATAPort* port = portByID(id);
    if (!port) return returnErrorMsg(kGetErrorRegisterByID | kIDNotFound, formatMessage("logical ID %u", id), nullptr);
    if (element == SATA_ERROR_CLEAR) {
        // Reports only: PxSERR is write-1-to-clear and the diagnostics leave it to the driver.
        printf("clear port errors\n");
        out->clear();
        return nullptr;
    }
    if (element == SATA_ERROR_REPORT) {
        std::string report;
        for (const SErrorBit& b : kSErrorBits) report += std::string(b.label) + bitText(port->sError, b.bit) + "\n";
        *out = report;
        return nullptr;
    }
    if (element >= SATA_ERROR_TRANSPORT_STATE && element <= SATA_ERROR_RECOVER_DATA_INTEGRITY) {
        *out = bitText(port->sError, kSErrorBits[element - SATA_ERROR_TRANSPORT_STATE].bit);
        return nullptr;
    }
    return returnErrorMsg(kGetErrorRegisterByID | kNoSuchErrorElement, formatMessage("element %u", element), nullptr);
}

// ---- IOCTL ----

ERRORCODE SATADDAPI::checkDeviceNodeName(std::string node) {
    // "/dev/" and a kernel name: a letter, then letters and digits (sdb, sg2).
    const std::string prefix = "/dev/";
    if (node.size() <= prefix.size() || node.size() > prefix.size() + 32 || node.compare(0, prefix.size(), prefix) != 0)
        return kWrongNodeName;
    if (!islower(static_cast<unsigned char>(node[prefix.size()]))) return kWrongNodeName;
    for (size_t i = prefix.size(); i < node.size(); ++i)
        if (!islower(static_cast<unsigned char>(node[i])) && !isdigit(static_cast<unsigned char>(node[i])))
            return kWrongNodeName;
    return 0;
}

// The platform has no sync/fsync: BLKFLSBUF writes the block device's dirty buffers back
// and drops them, which is what the flush is for; HDIO_DRIVE_CMD without an argument
// only checks the drive-command path and its answer is not judged.
ERRORCODE SATADDAPI::flushBufferCache(int fd) {
    quarn::Platform& p = quarn::platform();
    if (p.ioctl(fd, BLKFLSBUF, nullptr) != 0) {
        m_ioctlErrno = errno;
        return kFlushBufferCache;
    }
    p.ioctl(fd, HDIO_DRIVE_CMD, nullptr);
    return 0;
}

ErrorMsg* SATADDAPI::IOCTL(unsigned int id, SATAIOCTLOperation op) {
    switch (op) {
    case SATA_IOCTL_GENERATE_LIST:
        if (ErrorMsg* e = generateSATAList()) return returnErrorMsg(kIOCTL, nullptr, e);
        return nullptr;
    case SATA_IOCTL_LIST_CONTROLLER:
        return listController();
    case SATA_IOCTL_LIST_PORT:
        return listPort();
    case SATA_IOCTL_LIST_DRIVE:
        return listDrive();
    case SATA_IOCTL_FLUSH_BUFFER: {
        std::string node;
        if (ErrorMsg* e = getDataByID(id, SATA_DATA_DEVICE_NODE, &node)) return returnErrorMsg(kIOCTL, nullptr, e);
        if (checkDeviceNodeName(node) != 0)
            return returnErrorMsg(kIOCTL | kWrongNodeName, formatMessage("node \"%.40s\"", node.c_str()), nullptr);
        quarn::Platform& p = quarn::platform();
        const int fd = p.open(node, O_RDWR | O_NONBLOCK | O_SYNC);
        if (fd < 0)
            return returnErrorMsg(kIOCTL | kOpenNodeFail,
                                  formatMessage("%s: %s", node.c_str(), quarn::systemErrorText(errno).c_str()), nullptr);
        const ERRORCODE flushed = flushBufferCache(fd);
        if (flushed != 0) {
            p.close(fd);
            ErrorMsg* cause = new ErrorMsg(flushed, "BLKFLSBUF: " + quarn::systemErrorText(m_ioctlErrno));
            return returnErrorMsg(kIOCTL, nullptr, cause);
        }
        if (p.close(fd) != 0)
            return returnErrorMsg(kIOCTL | kCloseNodeFail, quarn::systemErrorText(errno).c_str(), nullptr);
        return nullptr;
    }
    case SATA_IOCTL_IDENTIFY_TEST:
        if (ErrorMsg* e = identifyCommandTest(id)) return returnErrorMsg(kIOCTL, nullptr, e);
        return nullptr;
    default:
        return returnErrorMsg(kIOCTL | kNoSuchOperation, formatMessage("operation %u", static_cast<unsigned int>(op)),
                              nullptr);
    }
}

// ---- SCSI commands ----

ERRORCODE SATADDAPI::SCSICDBGenerate(unsigned int length, unsigned int index, unsigned int operation) {
    if (length % 512 != 0) return kNotMultipleOf512;
    memset(m_cdb, 0, sizeof(m_cdb));
    m_cdbLength = kCDBLength;
    switch (operation) {
    case 0:
    case 1: {
        m_cdb[0] = operation == 0 ? 0x88 : 0x8A;
        // The product is taken in 32 bits and the LBA field carries its low 24 bits.
        const uint32_t lba = static_cast<uint32_t>(index * length) / 512;
        m_cdb[7] = static_cast<unsigned char>(lba >> 16);
        m_cdb[8] = static_cast<unsigned char>(lba >> 8);
        m_cdb[9] = static_cast<unsigned char>(lba);
        const uint32_t blocks = length / 512;
        m_cdb[11] = static_cast<unsigned char>(blocks >> 16);
        m_cdb[12] = static_cast<unsigned char>(blocks >> 8);
        m_cdb[13] = static_cast<unsigned char>(blocks);
        return 0;
    }
    case 2:
        m_cdb[0] = 0x9E;
        m_cdb[1] = 0x10;
        // The 32 bytes of READ CAPACITY(16) parameter data; the caller reads the first 12.
        m_cdb[13] = 32;
        return 0;
    case 3:
        m_cdb[0] = 0x85;
        m_cdb[1] = 0x08;
        m_cdb[2] = 0x0E;
        m_cdb[6] = 1;
        m_cdb[14] = 0xEC;
        return 0;
    default:
        return kNoSuchOperation;
    }
}

ERRORCODE SATADDAPI::SCSICDBSend(int fd, unsigned int length, unsigned int* buffer, bool toDevice) {
    sg_io_hdr_t io;
    memset(&io, 0, sizeof(io));
    memset(m_sense, 0, sizeof(m_sense));
    io.interface_id = 'S';
    io.cmd_len = static_cast<unsigned char>(m_cdbLength);
    io.cmdp = m_cdb;
    io.mx_sb_len = kSenseLength;
    io.sbp = m_sense;
    io.dxfer_direction = length == 0 ? SG_DXFER_NONE : toDevice ? SG_DXFER_TO_DEV : SG_DXFER_FROM_DEV;
    io.dxfer_len = length;
    io.dxferp = buffer;
    io.timeout = 10000;
    if (quarn::platform().ioctl(fd, SG_IO, &io) < 0) {
        m_ioctlErrno = errno;
        fprintf(stderr, "cdb_16_byte_command: SG_IO ioctl error: %s\n", quarn::systemErrorText(m_ioctlErrno).c_str());
        return kSGIOFail;
    }
    if (io.sb_len_wr > 0) {
        unsigned char fixed[SCSISenseAnalyzer::kSenseBufferLength];
        getFixedSense(fixed, sizeof(fixed));
        if (SCSISenseAnalyzer::printPassThroughSense(fixed, sizeof(fixed)) != 0) return kSGIOSense;
    }
    // A transport failure without sense (host or driver status) ends the command too.
    if (io.host_status != 0 || (io.driver_status & 0x07) != 0 || (io.status != 0 && io.sb_len_wr == 0)) {
        m_ioctlErrno = EIO;
        return kSGIOFail;
    }
    return 0;
}

// libata answers pass-through commands in descriptor format, the disk's own commands
// in the format its control page selects; the sense report and the analyzer read the
// fixed layout, so descriptor data is restated in it (key, ASC, ASCQ).
void SATADDAPI::getFixedSense(unsigned char* out, unsigned int length) const {
    memset(out, 0, length);
    const unsigned int response = m_sense[0] & 0x7F;
    if (response == 0x72 || response == 0x73) {
        if (length < 14) return;
        out[0] = 0x70;
        out[2] = m_sense[1] & 0x0F;
        out[7] = 10;
        out[12] = m_sense[2];
        out[13] = m_sense[3];
        return;
    }
    if (response == 0x70 || response == 0x71) memcpy(out, m_sense, length < kSenseLength ? length : kSenseLength);
}

ERRORCODE SATADDAPI::PREAD(int fd, unsigned int* buffer, unsigned int length, unsigned int index) {
    m_cdbLength = kCDBLength;
    ERRORCODE code = SCSICDBGenerate(length, index, 0);
    if (code == 0) code = SCSICDBSend(fd, length, buffer, false);
    return code ? (kPREAD | code) : 0;
}

ERRORCODE SATADDAPI::PWRITE(int fd, unsigned int* buffer, unsigned int length, unsigned int index) {
    m_cdbLength = kCDBLength;
    ERRORCODE code = SCSICDBGenerate(length, index, 1);
    if (code == 0) code = SCSICDBSend(fd, length, buffer, true);
    return code ? (kPWRITE | code) : 0;
}

ERRORCODE SATADDAPI::dumpHexDataToString(const unsigned char* data, unsigned int length, const char* format,
                                         std::string* out) {
    out->clear();
    if (strcmp(format, "ASCII") == 0) {
        out->assign(reinterpret_cast<const char*>(data), length);
        return 0;
    }
    if (strcmp(format, "HEX") == 0) {
        char two[4];
        for (unsigned int i = 0; i < length; ++i) {
            snprintf(two, sizeof(two), "%02x", data[i]);
            *out += two;
        }
        return 0;
    }
    return kNoSuchHexFormat;
}

ErrorMsg* SATADDAPI::SATIdentify16(unsigned int id, std::string* firmware, std::string* model, std::string* serial) {
    SATAPort* port = portByID(id);
    if (!port) return returnErrorMsg(kSATIdentify16 | kIDNotFound, formatMessage("logical ID %u", id), nullptr);
    if (port->sgDeviceNode.empty())
        return returnErrorMsg(kSATIdentify16 | kOpenNodeFail, formatMessage("%s has no drive", port->name.c_str()), nullptr);
    quarn::Platform& p = quarn::platform();
    const int fd = p.open(port->sgDeviceNode, O_RDONLY | O_SYNC);
    if (fd < 0)
        return returnErrorMsg(kSATIdentify16 | kOpenNodeFail,
                              formatMessage("\"%.30s\": %s", port->sgDeviceNode.c_str(),
                                            quarn::systemErrorText(errno).c_str()),
                              nullptr);
    unsigned int identify[128];
    memset(identify, 0, sizeof(identify));
    ERRORCODE code = SCSICDBGenerate(512, 0, 3);
    if (code == 0) code = SCSICDBSend(fd, 512, identify, false);
    p.close(fd);
    if (code != 0)
        return returnErrorMsg(kSATIdentify16 | code,
                              code == kSGIOFail ? quarn::systemErrorText(m_ioctlErrno).c_str() : "IDENTIFY DEVICE",
                              nullptr);
    // The ATA fields themselves: serial words 10-19, firmware 23-26, model 27-46.
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(identify);
    std::string raw;
    dumpHexDataToString(bytes + 20, 20, "ASCII", &raw);
    *serial = ataString(raw);
    dumpHexDataToString(bytes + 46, 8, "ASCII", &raw);
    *firmware = ataString(raw);
    dumpHexDataToString(bytes + 54, 40, "ASCII", &raw);
    *model = ataString(raw);
    return nullptr;
}

ErrorMsg* SATADDAPI::identifyCommandTest(unsigned int id) {
    std::string firmware, model, serial;
    if (ErrorMsg* e = SATIdentify16(id, &firmware, &model, &serial))
        return returnErrorMsg(kIdentifyCommandTest, nullptr, e);
    if (SATAPort* port = portByID(id)) {
        port->firmwareVersion = firmware;
        port->modelName = model;
        port->serialNumber = serial;
    }
    return nullptr;
}

ErrorMsg* SATADDAPI::readCapacity16(unsigned int id, unsigned int* capacityMB) {
    SATAPort* port = portByID(id);
    if (!port) return returnErrorMsg(kReadCapacity16 | kIDNotFound, formatMessage("logical ID %u", id), nullptr);
    if (port->sgDeviceNode.empty())
        return returnErrorMsg(kReadCapacity16 | kOpenNodeFail, formatMessage("%s has no drive", port->name.c_str()), nullptr);
    quarn::Platform& p = quarn::platform();
    const int fd = p.open(port->sgDeviceNode, O_RDONLY | O_SYNC);
    if (fd < 0)
        return returnErrorMsg(kReadCapacity16 | kOpenNodeFail,
                              formatMessage("\"%.30s\": %s", port->sgDeviceNode.c_str(),
                                            quarn::systemErrorText(errno).c_str()),
                              nullptr);
    unsigned int reply[128];
    memset(reply, 0, sizeof(reply));
    ERRORCODE code = SCSICDBGenerate(512, 0, 2);
    if (code == 0) code = SCSICDBSend(fd, 512, reply, false);
    p.close(fd);
    if (code != 0)
        return returnErrorMsg(kReadCapacity16 | code,
                              code == kSGIOFail ? quarn::systemErrorText(m_ioctlErrno).c_str() : "READ CAPACITY(16)",
                              nullptr);
    const unsigned long long last =
        static_cast<unsigned long long>(SWAB4(reply[0])) << 32 | static_cast<unsigned long long>(SWAB4(reply[1]));
    const unsigned long long blockLength = SWAB4(reply[2]);
    *capacityMB = static_cast<unsigned int>((blockLength * (last + 1)) >> 20);
    return nullptr;
}
