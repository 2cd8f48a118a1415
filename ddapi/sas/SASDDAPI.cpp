// Device layer of the SAS host bus adapters: the controller list, management requests and
// the drives behind each adapter (sysfs for the nodes, SCSI commands for the details).
#include "ddapi/sas/SASDDAPI.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "api/StringUtil.h"
#include "api/platform/Files.h"
#include "api/platform/Platform.h"
#include "ddapi/pci/PCIDDAPI.h"

namespace {
constexpr ERRORCODE kConstructor = 0xC7080400;
constexpr ERRORCODE kExecuteIOCTL = 0xC7080800;
constexpr ERRORCODE kProgramImage = 0xC7081400;
constexpr ERRORCODE kDeviceNode = 0xC7082800;
constexpr ERRORCODE kDriveInformation = 0xC7082C00;
constexpr ERRORCODE kDrivePHYInfo = 0xC7083000;
constexpr ERRORCODE kIOCInformation = 0xC7083400;

constexpr ERRORCODE kCannotOpenDevice = 0x03;
constexpr ERRORCODE kSpecificPHY = 0x06;
constexpr ERRORCODE kReadLinkFail = 0x07;
constexpr ERRORCODE kNoController = 0x08;
constexpr ERRORCODE kDriveSizeFail = 0x09;
constexpr ERRORCODE kBadParameter = 0x204;
constexpr ERRORCODE kFailToReadFile = 0x217;
constexpr ERRORCODE kOpenDirectoryFail = 0x218;
constexpr ERRORCODE kOutOfRange = 0x219;
constexpr ERRORCODE kCommandCode = 0x223;
constexpr ERRORCODE kUnexpectedValue = 0x230;

const char kSysBlock[] = "/sys/block/";

// Byte-wise order, a shorter name first on a common prefix.
bool nameBefore(const SAS_CONTROLLER_INFO& a, const SAS_CONTROLLER_INFO& b) { return a.name < b.name; }

uint64_t getBE(const unsigned char* at, int bytes) {
    uint64_t v = 0;
    for (int i = 0; i < bytes; ++i) v = v << 8 | at[i];
    return v;
}

const char* const kProtocolNames[16] = {
    "Fibre channel (FCP-2)", "Parallel SCSI (SPI-4)", "SSA", "IEEE 1394 (SBP-2)", "RDMA (SRP)", "iSCSI",
    "SAS (SPL-3)", "ADT", "ATA (ACS-2)", "UAS", "SOP", "0xb", "0xc", "0xd", "0xe", "0xf"};

std::string linkRateText(unsigned int rate) {
    switch (rate) {
    case 8: return "1.5G";
    case 9: return "3G";
    case 10: return "6G";
    case 11: return "12G";
    case 2: return "Speed negotiation failed";
    case 1: return "PHY disabled";
    default: return "Link rate unknown";
    }
}

// The sg node stays open for one drive's commands and is closed on every path.
class SgNode {
public:
    explicit SgNode(const std::string& path)
        : m_fd(quarn::platform().open(path, O_RDWR | O_NONBLOCK | O_SYNC)), m_errno(m_fd < 0 ? errno : 0) {}
    ~SgNode() {
        if (m_fd >= 0) quarn::platform().close(m_fd);
    }
    SgNode(const SgNode&) = delete;
    SgNode& operator=(const SgNode&) = delete;
    int fd() const { return m_fd; }
    int error() const { return m_errno; }

private:
    int m_fd;
    int m_errno;
};
}  // namespace

SASDDAPI::SASDDAPI(const char* name)
    : BaseClassDDAPI(name), m_ioctl(nullptr), m_pci(nullptr), m_scsi(nullptr), m_lastError(0) {
    m_ioctl = new (std::nothrow) SASIOCTL(SASIOCTL::kControlNode);
    m_pci = new (std::nothrow) PCIDDAPI("PCIDDAPI");
    m_scsi = new (std::nothrow) SCSIFactory("SCSIFactory");
    if (!m_ioctl || !m_pci || !m_scsi) {
        addErrorMsg(kConstructor | 0x214, "allocate device objects");
        return;
    }
    if (ErrorMsg* pciErrors = m_pci->getErrorMsg()) addErrorMsg(kConstructor, nullptr, pciErrors);
    if (ErrorMsg* e = addIOCController()) addErrorMsg(kConstructor, nullptr, e);
}

SASDDAPI::~SASDDAPI() {
    delete m_ioctl;
    delete m_pci;
    delete m_scsi;
}

ErrorMsg* SASDDAPI::addIOCController() {
    m_controllers.clear();
    if (!m_pci || !m_ioctl) return returnErrorMsg(kConstructor | 0x214, nullptr, nullptr);
    std::vector<_PCIInformantion> devices;
    if (ErrorMsg* e = m_pci->getPciInfoByClass(kClassSAS, &devices)) {
        // The PCI layer reports an empty class as its own "no device" row.
        if ((e->getErrorCode() & 0x3FF) == 0x05) {
            deleteErrorMsg(e);
            return nullptr;
        }
        return returnErrorMsg(kConstructor, nullptr, e);
    }
    std::vector<_PCIInformantion> adapters;
    for (const _PCIInformantion& d : devices)
        if (d.vendorID == kVendorLSI) adapters.push_back(d);

    std::vector<SAS_CONTROLLER_INFO> list;
    const size_t count = adapters.size();
    for (size_t i = 0; i < count; ++i) {
        SAS_CONTROLLER_INFO info;
        // With exactly two adapters the first on the bus is SAS1 (number 0), the second
        // SAS0 (number 1); otherwise SAS1 (0), SAS2 (1), SAS0 (1), then SASn (n).
        unsigned int digit, number;
        if (count == 2) {
            digit = i == 0 ? 1 : 0;
            number = static_cast<unsigned int>(i);
        } else if (i < 3) {
            digit = i == 0 ? 1 : i == 1 ? 2 : 0;
            number = i == 0 ? 0 : 1;
        } else {
            digit = static_cast<unsigned int>(i);
            number = static_cast<unsigned int>(i);
        }
        info.name = "SAS" + std::to_string(digit);
        info.controller = static_cast<unsigned char>(number);
        info.domain = adapters[i].domain;
        m_ioctl->setControllerID(info.controller);
        m_ioctl->setPHYNumber(0xFF);
        if (ErrorMsg* e = doIOCTLCommand(SASIOCTL::SAS_IOCTL_IOC_INFORMATION, &info)) {
            char where[40];
            snprintf(where, sizeof(where), "%04x:%02x:%02x.%x", adapters[i].domain, adapters[i].bus,
                     adapters[i].device, adapters[i].function);
            return returnErrorMsg(kIOCInformation, formatMessage("%s at %s", info.name.c_str(), where), e);
        }
        list.push_back(info);
    }
    std::sort(list.begin(), list.end(), nameBefore);
    m_controllers = std::move(list);
    return nullptr;
}

ErrorMsg* SASDDAPI::getControllerList(std::vector<SAS_CONTROLLER_INFO>* list) {
    if (!list) return returnErrorMsg(0xC7082000 | kBadParameter, nullptr, nullptr);
    // A list that could not be built at construction is built again, so the caller gets
    // the cause as a chain of its own.
    if (m_controllers.empty()) {
        if (ErrorMsg* e = addIOCController()) return returnErrorMsg(0xC7082000, nullptr, e);
    }
    *list = m_controllers;
    return nullptr;
}

ErrorMsg* SASDDAPI::controllerAt(unsigned char controller, const SAS_CONTROLLER_INFO** out, ERRORCODE function) {
    for (const SAS_CONTROLLER_INFO& c : m_controllers) {
        if (c.controller == controller) {
            *out = &c;
            return nullptr;
        }
    }
    if (m_controllers.empty())
        return returnErrorMsg(function | kNoController, nullptr, nullptr);
    return returnErrorMsg(function | kBadParameter, "Bad IOC logical ID", nullptr);
}

ErrorMsg* SASDDAPI::getInformationByController(unsigned char controller, SAS_CONTROLLER_INFO* info) {
    if (!info) return returnErrorMsg(kIOCInformation | kBadParameter, nullptr, nullptr);
    const SAS_CONTROLLER_INFO* c = nullptr;
    if (ErrorMsg* e = controllerAt(controller, &c, kIOCInformation)) return e;
    *info = *c;
    return nullptr;
}

ErrorMsg* SASDDAPI::setControllerID(unsigned char controller) {
    if (!m_ioctl) return returnErrorMsg(kExecuteIOCTL | 0x22D, nullptr, nullptr);
    if (controller >= m_controllers.size())
        return returnErrorMsg(kExecuteIOCTL | kBadParameter, "Bad IOC logical ID", nullptr);
    m_ioctl->setControllerID(controller);
    return nullptr;
}

ErrorMsg* SASDDAPI::setPHYNumber(unsigned char phy) {
    if (!m_ioctl) return returnErrorMsg(kExecuteIOCTL | 0x22D, nullptr, nullptr);
    m_ioctl->setPHYNumber(phy);
    return nullptr;
}

ErrorMsg* SASDDAPI::doIOCTLCommand(SASIOCTL::IOCTL_OP_CODE op, void* result) {
    if (op == SASIOCTL::SAS_IOCTL_NONE) return returnErrorMsg(kExecuteIOCTL | kCommandCode, nullptr, nullptr);
    if (!m_ioctl) return returnErrorMsg(kExecuteIOCTL | 0x22D, nullptr, nullptr);
    if (ERRORCODE e = m_ioctl->allocateIOCTLArgument(op)) {
        m_lastError = kExecuteIOCTL | (e & 0x3FF);
        return returnErrorMsg(m_lastError, formatMessage("operation %u", static_cast<unsigned int>(op)), nullptr);
    }
    if (ERRORCODE e = m_ioctl->setIOCTLOperationArgument(op, nullptr)) {
        m_lastError = kExecuteIOCTL | (e & 0x3FF);
        return returnErrorMsg(m_lastError, nullptr, nullptr);
    }
    const bool wholeController = op == SASIOCTL::SAS_IOCTL_TEMPERATURE || op == SASIOCTL::SAS_IOCTL_IOC_INFORMATION ||
                                 op == SASIOCTL::SAS_IOCTL_SAS_ADDRESS;
    if (wholeController && m_ioctl->getPHYNumber() != 0xFF) {
        m_lastError = kExecuteIOCTL | kSpecificPHY;
        return returnErrorMsg(m_lastError, formatMessage("PHY %u set", m_ioctl->getPHYNumber()), nullptr);
    }
    int fd = 0;
    if (op != 9 && op != 14 && m_ioctl->getFileHandle(SASIOCTL::kControlNode, &fd) != 0) {
        m_lastError = kExecuteIOCTL | kCannotOpenDevice;
        return returnErrorMsg(m_lastError,
                              formatMessage("%s: %s", SASIOCTL::kControlNode, quarn::systemErrorText(errno).c_str()),
                              nullptr);
    }
    const bool sendOnly = op >= 1 && op <= 5;
    const ERRORCODE e = sendOnly ? m_ioctl->executeIOCTL(op) : m_ioctl->executeIOCTL(op, result);
    if (e) {
        m_lastError = kExecuteIOCTL | (e & 0x3FF);
        const char* detail = m_ioctl->getLastErrno()
                                 ? formatMessage("operation %u: %s", static_cast<unsigned int>(op),
                                                 quarn::systemErrorText(m_ioctl->getLastErrno()).c_str())
                                 : formatMessage("operation %u", static_cast<unsigned int>(op));
        return returnErrorMsg(m_lastError, detail, nullptr);
    }
    m_lastError = 0;
    return nullptr;
}

// ---- drives ----

ErrorMsg* SASDDAPI::getDriveListByController(unsigned char controller, std::vector<SAS_DRIVE_INFO>* list) {
    if (!list) return returnErrorMsg(kDeviceNode | kBadParameter, nullptr, nullptr);
    list->clear();
    const SAS_CONTROLLER_INFO* c = nullptr;
    if (ErrorMsg* e = controllerAt(controller, &c, kDeviceNode)) return e;
    const SAS_CONTROLLER_INFO ioc = *c;

    quarn::Platform& p = quarn::platform();
    std::vector<quarn::DirEntry> entries;
    if (p.listDirectory(kSysBlock, &entries) != 0)
        return returnErrorMsg(kDeviceNode | kNoController,
                              formatMessage("%s: %s", kSysBlock, quarn::systemErrorText(errno).c_str()), nullptr);
    std::sort(entries.begin(), entries.end(),
              [](const quarn::DirEntry& a, const quarn::DirEntry& b) { return a.name < b.name; });
    for (const quarn::DirEntry& entry : entries) {
        const std::string path = kSysBlock + entry.name;
        struct stat st;
        if (p.lstat(path, &st) != 0 || !S_ISLNK(st.st_mode)) continue;
        std::string target;
        if (p.readlink(path, &target) < 0)
            return returnErrorMsg(kDeviceNode | kReadLinkFail,
                                  formatMessage("%s: %s", path.c_str(), quarn::systemErrorText(errno).c_str()), nullptr);
        if (target.find(ioc.pciLocation) == std::string::npos) continue;

        SAS_DRIVE_INFO drive;
        drive.deviceNode = "/dev/" + entry.name;
        if (entry.name.find("ram") != std::string::npos) {
            drive.name = ioc.name + "-RAMDISK";
            list->push_back(drive);
            continue;
        }
        std::vector<std::string> generic;
        if (quarn::listNames(path + "/device/scsi_generic/", &generic) != 0 || generic.empty())
            return returnErrorMsg(kDeviceNode | kOpenDirectoryFail,
                                  formatMessage("%s/device/scsi_generic/: %s", path.c_str(),
                                                generic.empty() && errno == 0 ? "empty"
                                                                              : quarn::systemErrorText(errno).c_str()),
                                  nullptr);
        drive.sgDeviceNode = "/dev/" + generic.front();

        std::string address;
        if (quarn::readTextFile(path + "/device/sas_address", &address, 20) != 0)
            return returnErrorMsg(kDeviceNode | kFailToReadFile,
                                  formatMessage("%s/device/sas_address: %s", path.c_str(),
                                                quarn::systemErrorText(errno).c_str()),
                                  nullptr);
        char* end = nullptr;
        errno = 0;
        drive.sasAddress = strtoull(address.c_str(), &end, 16);
        if (end == address.c_str() || errno != 0 || (*end != '\0' && *end != '\n'))
            return returnErrorMsg(kDeviceNode | kFailToReadFile,
                                  formatMessage("%s/device/sas_address: not hexadecimal", path.c_str()), nullptr);

        if (ErrorMsg* e = getDrivePHYInfoByName(&drive)) return e;
        if (drive.targetNumber < kTargetBase || drive.targetNumber >= kTargetBase + kTargetCount)
            return returnErrorMsg(kDrivePHYInfo | kOutOfRange,
                                  formatMessage("%s: target 0x%x outside 0x10-0x27", entry.name.c_str(),
                                                drive.targetNumber),
                                  nullptr);
        drive.name = ioc.name + "-DRIVE" + std::to_string(drive.targetNumber - kTargetBase);
        if (ErrorMsg* e = getDriveInfoByName(drive.name, &drive)) return e;
        list->push_back(drive);
    }
    return nullptr;
}

ErrorMsg* SASDDAPI::getDrivePHYInfoByName(SAS_DRIVE_INFO* info) {
    if (!info || !m_scsi) return returnErrorMsg(kDrivePHYInfo | kBadParameter, nullptr, nullptr);
    SgNode node(info->sgDeviceNode);
    if (node.fd() < 0)
        return returnErrorMsg(kDrivePHYInfo | kCannotOpenDevice,
                              formatMessage("%s: %s", info->sgDeviceNode.c_str(),
                                            quarn::systemErrorText(node.error()).c_str()),
                              nullptr);
    unsigned char page[252];
    memset(page, 0, sizeof(page));
    // The phy control and discover subpage of the protocol-specific port page.
    if (ErrorMsg* e = m_scsi->scsiModeSense10(node.fd(), 0x19, 0x01, 0, page, sizeof(page)))
        return returnErrorMsg(kDrivePHYInfo, info->sgDeviceNode.c_str(), e);
    const int offset = m_scsi->getSCSIModePageOffset(page, sizeof(page), 10);
    if (offset < 0)
        return returnErrorMsg(kDrivePHYInfo | kUnexpectedValue, "bad mode parameter header", nullptr);
    if (ErrorMsg* e = getDriveSASPortParam(page + offset, sizeof(page) - static_cast<unsigned int>(offset), &info->phy))
        return returnErrorMsg(kDrivePHYInfo, info->sgDeviceNode.c_str(), e);
    info->targetNumber = info->phy.attachedPhyIdentifier;
    info->linkSpeed = linkRateText(info->phy.negotiatedLinkRate);
    return nullptr;
}

ErrorMsg* SASDDAPI::getDriveSASPortParam(unsigned char* page, unsigned int length, SAS_DRIVE_PHY_INFO* phy) {
    if (!page || !phy) return returnErrorMsg(kDrivePHYInfo | kBadParameter, nullptr, nullptr);
    // Subpage format: code with SPF, subpage 1, 2-byte length, protocol at 5, PHY count at 7,
    // then one 48-byte descriptor per PHY.
    if (length < 8 + 48) return returnErrorMsg(kDrivePHYInfo | 0x213, formatMessage("%u bytes", length), nullptr);
    if ((page[0] & 0x3F) != 0x19 || !(page[0] & 0x40) || page[1] != 0x01)
        return returnErrorMsg(kDrivePHYInfo | kUnexpectedValue,
                              formatMessage("page 0x%02x subpage 0x%02x", page[0] & 0x3F, page[1]), nullptr);
    const unsigned int pageLength = static_cast<unsigned int>(getBE(page + 2, 2)) + 4;
    if ((page[5] & 0x0F) != 6)
        return returnErrorMsg(kDrivePHYInfo | kUnexpectedValue, formatMessage("protocol %u", page[5] & 0x0F), nullptr);
    if (page[7] == 0 || pageLength < 8 + 48)
        return returnErrorMsg(kDrivePHYInfo | kUnexpectedValue, "no PHY descriptor", nullptr);
    const unsigned char* d = page + 8;
    phy->phyCount = page[7];
    phy->phyIdentifier = d[1];
    phy->attachedDeviceType = (d[4] >> 4) & 0x07;
    phy->attachedReason = d[4] & 0x0F;
    phy->negotiatedLinkRate = d[5] & 0x0F;
    phy->attachedInitiatorProtocols = d[6] & 0x0E;
    phy->attachedTargetProtocols = d[7] & 0x0E;
    phy->sasAddress = getBE(d + 8, 8);
    phy->attachedSASAddress = getBE(d + 16, 8);
    phy->attachedPhyIdentifier = d[24];
    phy->programmedMinRate = d[32] >> 4;
    phy->hardwareMinRate = d[32] & 0x0F;
    phy->programmedMaxRate = d[33] >> 4;
    phy->hardwareMaxRate = d[33] & 0x0F;
    return nullptr;
}

ErrorMsg* SASDDAPI::getDriveSizeByNodeName(int fd, unsigned int* blockSize, int* physicalBlockSize,
                                           unsigned long long* size) {
    if (!blockSize || !size || !m_scsi) return returnErrorMsg(kDriveInformation | kBadParameter, nullptr, nullptr);
    const bool ask16 = physicalBlockSize && *physicalBlockSize;
    unsigned int last = 0, length = 0;
    if (ErrorMsg* e = m_scsi->scsiReadCapacity10(fd, &last, &length))
        return returnErrorMsg(kDriveInformation | kDriveSizeFail, nullptr, e);
    unsigned long long blocks = static_cast<unsigned long long>(last) + 1;
    unsigned int physical = length;
    if (ask16 || last == 0xFFFFFFFFu) {
        unsigned char r[32];
        memset(r, 0, sizeof(r));
        if (ErrorMsg* e = m_scsi->scsiReadCapacity16(fd, r, sizeof(r)))
            return returnErrorMsg(kDriveInformation | kDriveSizeFail, nullptr, e);
        blocks = getBE(r, 8) + 1;
        length = static_cast<unsigned int>(getBE(r + 8, 4));
        const unsigned int exponent = r[13] & 0x0F;
        physical = length << exponent;
    }
    if (length == 0) return returnErrorMsg(kDriveInformation | kDriveSizeFail, "block length 0", nullptr);
    *blockSize = length;
    *size = blocks * length;
    if (physicalBlockSize) *physicalBlockSize = static_cast<int>(physical);
    return nullptr;
}

ErrorMsg* SASDDAPI::getDriveInfoByName(std::string name, SAS_DRIVE_INFO* info) {
    if (!info || !m_scsi) return returnErrorMsg(kDriveInformation | kBadParameter, nullptr, nullptr);
    if (name != info->name)
        return returnErrorMsg(kDriveInformation | kBadParameter,
                              formatMessage("%s is not %s", name.c_str(), info->name.c_str()), nullptr);
    SgNode node(info->sgDeviceNode);
    if (node.fd() < 0)
        return returnErrorMsg(kDriveInformation | kSpecificPHY,
                              formatMessage("%s: %s", info->sgDeviceNode.c_str(),
                                            quarn::systemErrorText(node.error()).c_str()),
                              nullptr);
    const int fd = node.fd();

    unsigned char inquiry[64];
    memset(inquiry, 0, sizeof(inquiry));
    if (ErrorMsg* first = m_scsi->scsiStdInquiry(fd, inquiry, 36)) {
        deleteErrorMsg(first);
        if (ErrorMsg* e = m_scsi->scsiStdInquiry(fd, inquiry, 64)) return returnErrorMsg(kDriveInformation, nullptr, e);
    }
    if (inquiry[4] + 5 < 36)
        return returnErrorMsg(kDriveInformation, "Short INQUIRY response, skip product id\n", nullptr);
    if (strncmp(reinterpret_cast<const char*>(inquiry + 8), "ATA", 3) != 0) {
        unsigned char text[65];
        m_scsi->scsiFormatIDtoString(reinterpret_cast<const char*>(inquiry + 8), 8, text);
        info->vendor = reinterpret_cast<char*>(text);
        m_scsi->scsiFormatIDtoString(reinterpret_cast<const char*>(inquiry + 16), 16, text);
        info->model = reinterpret_cast<char*>(text);
        m_scsi->scsiFormatIDtoString(reinterpret_cast<const char*>(inquiry + 32), 4, text);
        info->firmware = reinterpret_cast<char*>(text);
    }

    int physical = inquiry[5] & 0x01;
    unsigned int blockSize = 0;
    if (ErrorMsg* e = getDriveSizeByNodeName(fd, &blockSize, &physical, &info->capacity))
        return returnErrorMsg(kDriveInformation, nullptr, e);
    info->logicalBlockSize = blockSize;
    info->physicalBlockSize = static_cast<unsigned int>(physical);

    int rpm = 0, formFactor = 0, zoned = 0;
    if (ErrorMsg* e = m_scsi->getSCSIDriveRPM(fd, 6, &rpm, &formFactor, &zoned))
        return returnErrorMsg(kDriveInformation, nullptr, e);
    info->rotationRate.clear();
    if (rpm == 1) info->rotationRate = "Solid State Device";
    else if (rpm > 0x400 && rpm != 0xFFFF) info->rotationRate = std::to_string(rpm) + " rpm";
    static const char* const kFormFactors[] = {"", "5.25", "3.5", "2.5", "1.8", "< 1.8"};
    info->formFactor = formFactor >= 1 && formFactor <= 5 ? std::string(kFormFactors[formFactor]) + " inches" : "";

    int protocol = -1;
    unsigned char vpd[252];
    memset(vpd, 0, sizeof(vpd));
    if (ErrorMsg* e = m_scsi->scsiInquiryVpd(fd, 0x83, vpd, sizeof(vpd))) return returnErrorMsg(kDriveInformation, nullptr, e);
    {
        const int pageLength = std::min<int>(static_cast<int>(getBE(vpd + 2, 2)), sizeof(vpd) - 4);
        char id[256];
        if (m_scsi->scsiDecodeLUDevID(vpd + 4, pageLength, id, sizeof(id), &protocol) == 0 && id[0]) info->identifier = id;
    }
    memset(vpd, 0, sizeof(vpd));
    if (ErrorMsg* e = m_scsi->scsiInquiryVpd(fd, 0x80, vpd, sizeof(vpd))) return returnErrorMsg(kDriveInformation, nullptr, e);
    {
        const unsigned int serialLength = std::min<unsigned int>(static_cast<unsigned int>(getBE(vpd + 2, 2)), 64);
        unsigned char text[65];
        m_scsi->scsiFormatIDtoString(reinterpret_cast<const char*>(vpd + 4), static_cast<unsigned char>(serialLength), text);
        info->serial = reinterpret_cast<char*>(text);
    }

    if (protocol < 0) {
        if (ErrorMsg* e = m_scsi->getSCSITransportProtocol(fd, 6, &protocol))
            return returnErrorMsg(kDriveInformation, nullptr, e);
    }
    if (protocol >= 0 && protocol < 16) info->transportProtocol = kProtocolNames[protocol];

    unsigned char current = 0, reference = 0;
    if (ErrorMsg* e = m_scsi->getSCSIDriveTemperature(fd, &current, &reference))
        return returnErrorMsg(kDriveInformation, nullptr, e);
    info->temperature = std::to_string(current) + " C";

    if (ErrorMsg* e = getDrivePHYInfoByName(info)) return returnErrorMsg(kDriveInformation, nullptr, e);
    if (ErrorMsg* e = m_scsi->getSCSIErrorLog(fd, &info->errorLog)) return returnErrorMsg(kDriveInformation, nullptr, e);
    if (ErrorMsg* e = m_scsi->getSmartHealthStatus(fd, &info->healthStatus))
        return returnErrorMsg(kDriveInformation, nullptr, e);
    return nullptr;
}

ErrorMsg* SASDDAPI::programImage() {
    (void)kProgramImage;
    return nullptr;
}
