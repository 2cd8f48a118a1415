// The board's numbered list of disks.
#include "ddapi/storage/StorageDDAPIOperation.h"

#include <fcntl.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "api/StringUtil.h"
#include "api/platform/Platform.h"
#include "ddapi/nvme/NVMeDDAPI.h"
#include "ddapi/sata/SATADDAPI.h"
#include "ddapi/usb/USBDDAPI.h"

namespace {
constexpr ERRORCODE kConstructor = 0xC4080400;
constexpr ERRORCODE kIOCTL = 0xC4080800;
constexpr ERRORCODE kGenerateList = 0xC4080C00;
constexpr ERRORCODE kListDrive = 0xC4081800;
constexpr ERRORCODE kGetLogicalIDByName = 0xC4082400;
constexpr ERRORCODE kGetDataByID = 0xC4082800;
constexpr ERRORCODE kGetSMARTInfoByID = 0xC4083000;
constexpr ERRORCODE kGetDataByName = 0xC4083400;

constexpr ERRORCODE kNoSuchOperation = 0x02;
constexpr ERRORCODE kOpenNodeFail = 0x06;
constexpr ERRORCODE kCloseNodeFail = 0x07;
constexpr ERRORCODE kIDNotFound = 0x0D;
constexpr ERRORCODE kNoSuchElement = 0x0F;
constexpr ERRORCODE kNoSuchType = 0x17;
constexpr ERRORCODE kGenerateFail = 0xC408060F;

std::string upper(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::toupper(c); });
    return s;
}

std::string trimmed(const char* p, size_t n) {
    std::string s(p, strnlen(p, n));
    while (!s.empty() && (s.back() == ' ' || s.back() == '\0')) s.pop_back();
    while (!s.empty() && s.front() == ' ') s.erase(s.begin());
    return s;
}

std::string line(const char* label, const std::string& value) { return std::string(label) + value + "\n"; }

std::string u64(unsigned long long v) { return std::to_string(v); }
}  // namespace

StorageDDAPIOperation::StorageDDAPIOperation(const char* name)
    : BaseClassDDAPI(name), m_sata(nullptr), m_sas(nullptr), m_nvme(nullptr), m_usb(nullptr), m_factory(nullptr) {
    m_sata = new (std::nothrow) SATADDAPI("SATA");
    if (!m_sata) addErrorMsg(kConstructor, "SATA");
    m_sas = createSASLayer();
    m_nvme = new (std::nothrow) NVMeDDAPI("NVME");
    m_usb = new (std::nothrow) USBDDAPI("USB");
    m_factory = new (std::nothrow) SCSIFactory("SCSIFactory");
    if (ErrorMsg* e = generateStorageList()) addErrorMsg(kGenerateFail, "Generate storage list fail", e);
}

StorageDDAPIOperation::~StorageDDAPIOperation() {
    delete m_factory;
    delete m_usb;
    delete m_nvme;
    deleteSASLayer(m_sas);
    delete m_sata;
}

// SAS drives first (adapters in list order), then NVMe controllers, then USB disks; the
// logical IDs count through all three.
ErrorMsg* StorageDDAPIOperation::generateStorageList() {
    m_drives.clear();
    if (!m_sas || !m_nvme || !m_usb || !m_factory) return returnErrorMsg(kGenerateList | 0x23A, nullptr, nullptr);
    uint32_t next = 0;
    if (ErrorMsg* e = addSASDrives(&next)) return returnErrorMsg(kGenerateList, nullptr, e);
    if (ErrorMsg* e = addNVMeDrives(&next)) return returnErrorMsg(kGenerateList, nullptr, e);
    if (ErrorMsg* e = addUSBDrives(&next)) return returnErrorMsg(kGenerateList, nullptr, e);
    return nullptr;
}

// An NVMe controller is one drive: its namespace node is both the device node and the
// node SCSI commands go to (the driver translates them). A controller without a
// namespace is listed with its character node and no capacity.
ErrorMsg* StorageDDAPIOperation::addNVMeDrives(uint32_t* next) {
    std::vector<NVMe_DEVICE_INFO> controllers;
    if (ErrorMsg* e = m_nvme->getControllerList(&controllers)) return e;
    for (size_t i = 0; i < controllers.size(); ++i) {
        const NVMe_DEVICE_INFO& c = controllers[i];
        StorageDrive d;
        d.controllerType = STORAGE_TYPE_NVME;
        d.logicalID = (*next)++;
        d.driveName = c.name;
        d.deviceNode = c.blockNode.empty() ? c.deviceNode : c.blockNode;
        d.sgDeviceNode = c.blockNode;
        d.transportProtocol = "NVMe";
        nvme_id_ns ns;
        memcpy(&ns, c.identifyNamespace, sizeof(ns));
        const unsigned ds = ns.lbaf[ns.flbas & 0xF].ds;
        const unsigned int blockSize = ds >= 9 && ds < 32 ? 1u << ds : 512u;
        d.logicalBlockSize = blockSize;
        d.physicalBlockSize = blockSize;
        d.capacityMB = static_cast<unsigned long long>((static_cast<unsigned __int128>(ns.nsze) * blockSize) >> 20);
        nvme_id_ctrl id;
        memset(&id, 0, sizeof(id));
        if (ErrorMsg* e = m_nvme->doIOCTLCommand(static_cast<unsigned char>(i), NVMeIOCTL::NVME_IDENTIFY_CONTROLLER, &id)) {
            deleteErrorMsg(e);  // the names stay empty; the drive is still usable
        } else {
            d.modelName = trimmed(id.mn, sizeof(id.mn));
            d.serialNumber = trimmed(id.sn, sizeof(id.sn));
            d.firmwareVersion = trimmed(id.fr, sizeof(id.fr));
            char vendor[8];
            snprintf(vendor, sizeof(vendor), "0x%04x", id.vid);
            d.vendor = vendor;
        }
        m_drives.push_back(d);
    }
    return nullptr;
}

ErrorMsg* StorageDDAPIOperation::addUSBDrives(uint32_t* next) {
    std::list<std::string> names;
    if (ErrorMsg* e = m_usb->getUSBDevicesList(&names)) return e;
    for (const std::string& name : names) {
        uint32_t id = 0;
        ErrorMsg* e = m_usb->getLogicalIdByName(name, &id);
        if (e) {
            deleteErrorMsg(e);  // the "nothing attached" line
            continue;
        }
        // Keyboards and mice have no node; a disk's descriptor texts (serial, maker,
        // version, speed) may be missing without making it unusable.
        std::string values[10];
        for (uint32_t element = 1; element <= 9; ++element) {
            std::list<std::string> out;
            if (ErrorMsg* f = m_usb->getDataByID(id, static_cast<USB_DATA_ELEMENT>(element), &out)) {
                const bool optional = element == USB_DATA_SERIAL || element == USB_DATA_MANUFACTURER ||
                                      element == USB_DATA_VERSION || element == USB_DATA_SPEED;
                if (!optional) return f;
                deleteErrorMsg(f);
                continue;
            }
            if (!out.empty()) values[element] = out.front();
            if (element == USB_DATA_DEVICE_NODE && values[element] == "None") break;
        }
        if (values[USB_DATA_DEVICE_NODE] == "None") continue;  // keyboards and mice
        StorageDrive d;
        d.controllerType = STORAGE_TYPE_USB;
        d.logicalID = (*next)++;
        d.driveName = name;
        d.deviceNode = values[USB_DATA_DEVICE_NODE];
        d.sgDeviceNode = values[USB_DATA_SG_NODE];
        d.vendor = values[USB_DATA_MANUFACTURER];
        d.serialNumber = values[USB_DATA_SERIAL];
        d.capacityMB = strtoull(values[USB_DATA_SIZE].c_str(), nullptr, 10);
        d.linkSpeed = values[USB_DATA_SPEED];
        d.usbVersion = trimmed(values[USB_DATA_VERSION].c_str(), values[USB_DATA_VERSION].size());
        d.physicalBlockSize = static_cast<unsigned int>(strtoul(values[USB_DATA_PHYSICAL_BLOCK_SIZE].c_str(), nullptr, 10));
        d.logicalBlockSize = static_cast<unsigned int>(strtoul(values[USB_DATA_LOGICAL_BLOCK_SIZE].c_str(), nullptr, 10));
        d.transportProtocol = "USB";
        m_drives.push_back(d);
    }
    return nullptr;
}

const StorageDrive* StorageDDAPIOperation::findDrive(unsigned int id) const {
    for (const StorageDrive& d : m_drives)
        if (d.logicalID == id) return &d;
    return nullptr;
}

ErrorMsg* StorageDDAPIOperation::listDrive() {
    for (const StorageDrive& d : m_drives)
        if (!d.deviceNode.empty()) printf("%s\n", d.driveName.c_str());
    fflush(stdout);
    return nullptr;
}

ErrorMsg* StorageDDAPIOperation::IOCTL(unsigned int, StorageIOCTLOperation op) {
    ErrorMsg* e = nullptr;
    switch (op) {
        case STORAGE_IOCTL_GENERATE_LIST:
            e = generateStorageList();
            break;
        case STORAGE_IOCTL_LIST_DRIVE:
            e = listDrive();
            break;
        default:
            return returnErrorMsg(kIOCTL | kNoSuchOperation, formatMessage("operation %u", op), nullptr);
    }
    return e ? returnErrorMsg(kIOCTL, nullptr, e) : nullptr;
}

ErrorMsg* StorageDDAPIOperation::getNameByID(unsigned int id, std::string* name) {
    const StorageDrive* d = findDrive(id);
    if (!d) return returnErrorMsg(kGetDataByID | kIDNotFound, formatMessage("ID %u", id), nullptr);
    if (name) *name = d->driveName;
    return nullptr;
}

ErrorMsg* StorageDDAPIOperation::getControllerTypeByID(unsigned int id, unsigned int* type) {
    const StorageDrive* d = findDrive(id);
    if (!d) return returnErrorMsg(kGetDataByID | kIDNotFound, formatMessage("ID %u", id), nullptr);
    if (type) *type = d->controllerType;
    return nullptr;
}

ErrorMsg* StorageDDAPIOperation::getLogicalIdByName(std::string name, unsigned int* id) {
    const std::string wanted = upper(name);
    for (const StorageDrive& d : m_drives) {
        if (upper(d.driveName) == wanted) {
            if (id) *id = d.logicalID;
            return nullptr;
        }
    }
    return returnErrorMsg(kGetLogicalIDByName | kIDNotFound, formatMessage("%.60s", name.c_str()), nullptr);
}

std::string StorageDDAPIOperation::report(const StorageDrive& d) const {
    std::string r;
    const std::string capacity = u64(d.capacityMB) + " MB";
    switch (d.controllerType) {
        case STORAGE_TYPE_SAS:
            r += line("Device Node Name    : ", d.deviceNode);
            r += line("SG Device Node Name : ", d.sgDeviceNode);
            r += line("Vendor              : ", d.vendor);
            r += line("Model Name          : ", d.modelName);
            r += line("Serial Number       : ", d.serialNumber);
            r += line("Capacity            : ", capacity);
            r += line("SAS Address         : ", d.sasAddress);
            r += line("Logical Block Size  : ", u64(d.logicalBlockSize) + " Bytes");
            r += line("Physical Block Size : ", u64(d.physicalBlockSize) + " Bytes");
            r += line("Firmware Version    : ", d.firmwareVersion);
            r += line("Link Speed          : ", d.linkSpeed);
            r += line("Rotation Rate       : ", d.rotationRate);
            r += line("Form Factor         : ", d.formFactor);
            r += line("Transport Protocol  : ", d.transportProtocol);
            r += line("Temperature         : ", d.temperature);
            break;
        case STORAGE_TYPE_USB:
            r += line("Device Node Name    : ", d.deviceNode);
            r += line("SG Device Node Name : ", d.sgDeviceNode);
            r += line("Vendor              : ", d.vendor);
            r += line("Serial Number       : ", d.serialNumber);
            r += line("Capacity            : ", capacity);
            r += line("Link Speed          : ", d.linkSpeed + " Mb/s");
            r += line("USB Version         : ", d.usbVersion);
            r += line("Physical Block Size : ", u64(d.physicalBlockSize));
            r += line("Logical Block Size  : ", u64(d.logicalBlockSize));
            break;
        default:
            r += line("Device Node Name    : ", d.deviceNode);
            r += line("SG Device Node Name : ", d.sgDeviceNode);
            r += line("Capacity            : ", capacity);
            r += line("Logical Block Size  : ", u64(d.logicalBlockSize));
            r += line("Physical Block Size : ", u64(d.physicalBlockSize));
            break;
    }
    return r;
}

// Element 0 is the report of the drive's kind; the others are single fields, refused for
// a kind that does not have them.
ErrorMsg* StorageDDAPIOperation::getDataByID(unsigned int id, StorageDataElement element, std::string* out) {
    const StorageDrive* d = findDrive(id);
    if (!d) return returnErrorMsg(kGetDataByID | kIDNotFound, formatMessage("ID %u", id), nullptr);
    const uint32_t t = d->controllerType;
    if (t != STORAGE_TYPE_SAS && t != STORAGE_TYPE_USB && t != STORAGE_TYPE_NVME)
        return returnErrorMsg(kGetDataByID | kNoSuchType, formatMessage("type %u", t), nullptr);
    const bool sas = t == STORAGE_TYPE_SAS, usb = t == STORAGE_TYPE_USB;
    std::string v;
    bool defined = true;
    switch (element) {
        case STORAGE_DATA_REPORT: v = report(*d); break;
        case STORAGE_DATA_DEVICE_NODE: v = d->deviceNode; break;
        case STORAGE_DATA_SG_NODE: v = d->sgDeviceNode; break;
        case STORAGE_DATA_VENDOR: v = d->vendor; break;
        case STORAGE_DATA_MODEL: v = d->modelName; defined = !usb; break;
        case STORAGE_DATA_SERIAL: v = d->serialNumber; break;
        case STORAGE_DATA_FIRMWARE: v = d->firmwareVersion; defined = !usb; break;
        case STORAGE_DATA_LOGICAL_BLOCK_SIZE: v = u64(d->logicalBlockSize); break;
        case STORAGE_DATA_PHYSICAL_BLOCK_SIZE: v = u64(d->physicalBlockSize); break;
        case STORAGE_DATA_SAS_ADDRESS: v = d->sasAddress; defined = sas; break;
        case STORAGE_DATA_CAPACITY: v = u64(d->capacityMB); break;
        case STORAGE_DATA_LINK_SPEED: v = d->linkSpeed; defined = sas || usb; break;
        case STORAGE_DATA_USB_VERSION: v = d->usbVersion; defined = usb; break;
        case STORAGE_DATA_TRANSPORT_PROTOCOL: v = d->transportProtocol; break;
        case STORAGE_DATA_FORM_FACTOR: v = d->formFactor; defined = sas; break;
        case STORAGE_DATA_ROTATION_RATE: v = d->rotationRate; defined = sas; break;
        case STORAGE_DATA_TEMPERATURE: v = d->temperature; defined = sas; break;
        case STORAGE_DATA_NAME: v = d->driveName; break;
        default: defined = false; break;
    }
    if (!defined)
        return returnErrorMsg(kGetDataByID | kNoSuchElement, formatMessage("element %u of %s", element, d->driveName.c_str()),
                              nullptr);
    if (out) *out = v;
    return nullptr;
}

ErrorMsg* StorageDDAPIOperation::getDataByName(std::string name, StorageDataElement element, std::string* out) {
    unsigned int id = 0;
    if (ErrorMsg* e = getLogicalIdByName(name, &id)) return returnErrorMsg(kGetDataByName, nullptr, e);
    if (ErrorMsg* e = getDataByID(id, element, out)) return returnErrorMsg(kGetDataByName, nullptr, e);
    return nullptr;
}

namespace {
std::string counters(const SCSI_ERROR_COUNTER& c, bool capital) {
    std::string r;
    r += line(capital ? "Fast ECC              : " : "fast ECC              : ", u64(c.correctedFast));
    r += line(capital ? "Delayed ECC           : " : "delayed ECC           : ", u64(c.correctedDelayed));
    r += line(capital ? "ReReadWrites          : " : "reReadWrites          : ", u64(c.rereadsRewrites));
    r += line(capital ? "Corrected Error       : " : "corrected Error       : ", u64(c.totalCorrected));
    r += line(capital ? "Uncorrected Error     : " : "uncorrected Error     : ", u64(c.totalUncorrected));
    r += line(capital ? "Algorithm Invocation  : " : "algorithm Invocation  : ", u64(c.correctionAlgorithmRuns));
    return r;
}
}  // namespace

ErrorMsg* StorageDDAPIOperation::getSMARTInfoByID(unsigned int id, std::string* out) {
    const StorageDrive* d = findDrive(id);
    if (!d) return returnErrorMsg(kGetSMARTInfoByID | kIDNotFound, formatMessage("ID %u", id), nullptr);
    if (d->controllerType != STORAGE_TYPE_SAS)
        return returnErrorMsg(kGetSMARTInfoByID | kNoSuchType, formatMessage("%s", d->driveName.c_str()), nullptr);
    quarn::Platform& p = quarn::platform();
    const int fd = p.open(d->sgDeviceNode, O_RDWR | O_NONBLOCK | O_SYNC);
    if (fd < 0)
        return returnErrorMsg(kGetSMARTInfoByID | kOpenNodeFail,
                              formatMessage("%.30s: %.30s", d->sgDeviceNode.c_str(), quarn::systemErrorText(errno).c_str()),
                              nullptr);
    std::string status;
    SCSI_ERROR_LOG log;
    ErrorMsg* failure = m_factory->getSmartHealthStatus(fd, &status);
    if (!failure) failure = m_factory->getSCSIErrorLog(fd, &log);
    if (p.close(fd) != 0 && !failure)
        failure = returnErrorMsg(kGetSMARTInfoByID | kCloseNodeFail, quarn::systemErrorText(errno).c_str(), nullptr);
    if (failure) return returnErrorMsg(kGetSMARTInfoByID, nullptr, failure);
    std::string r;
    r += line("SMART Health Status   : ", status);
    r += line("Non-medium error count: ", u64(log.nonMediumErrors));
    r += "Read error count :\n" + counters(log.read, true);
    r += "Write error count :\n" + counters(log.write, false);
    r += "Verify error count :\n" + counters(log.verify, false);
    if (out) *out = r;
    return nullptr;
}
