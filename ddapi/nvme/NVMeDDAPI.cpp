// Device layer of the NVMe controllers.
#include "ddapi/nvme/NVMeDDAPI.h"

#include <dirent.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "api/platform/Platform.h"
#include "ddapi/pci/PCIDDAPI.h"

namespace {
constexpr ERRORCODE kConstructor = 0xD7080400;
constexpr ERRORCODE kExecuteIOCTL = 0xD7080800;
constexpr ERRORCODE kDownloadFirmware = 0xD7080C00;
constexpr ERRORCODE kGetNodeList = 0xD7082000;

constexpr ERRORCODE kNoController = 0x07;
constexpr ERRORCODE kReadLinkFail = 0x06;
constexpr ERRORCODE kOpenDirFail = 0x218;     // common "open directory fail"
constexpr ERRORCODE kInvalidOpcode = 0x223;   // common "invalid IOCTL command code"
constexpr ERRORCODE kEmptyList = 0xD7080217;  // no controller of class 0x0108
constexpr ERRORCODE kIdentifyNamespaceFail = 0xD7081A11;

constexpr PCIClassCode kNVMeClass = 0x0108;
constexpr unsigned int kChunk = 4096;
constexpr const char* kClassNvme = "/sys/class/nvme/";
constexpr const char* kSysBlock = "/sys/block/";
}  // namespace

NVMeDDAPI::NVMeDDAPI(const char* name) : BaseClassDDAPI(name), m_pci(nullptr), m_commands(0) {
    m_pci = new (std::nothrow) PCIDDAPI("PCI_DRVR");
    if (ErrorMsg* e = addNVMeController()) {
        addErrorMsg(e->getErrorCode(), nullptr, e);
        return;
    }
    if (m_controllers.empty()) {
        addErrorMsg(kEmptyList, nullptr);
        return;
    }
    for (size_t i = 0; i < m_controllers.size(); ++i) {
        ErrorMsg* e = getDeviceNodeByController(static_cast<unsigned char>(i));
        if (!e) e = doIOCTLCommand(static_cast<unsigned char>(i), NVMeIOCTL::NVME_IDENTIFY_NAMESPACE,
                                   m_controllers[i].identifyNamespace);
        if (e) addErrorMsg(kIdentifyNamespaceFail, formatMessage("%s", m_controllers[i].name.c_str()), e);
    }
}

NVMeDDAPI::~NVMeDDAPI() { delete m_pci; }

// Controllers in PCI order, named by position; beyond NVME9 the number simply continues
// in decimal (NVME10 sorts before NVME2, as byte-wise name order has it).
ErrorMsg* NVMeDDAPI::addNVMeController() {
    m_controllers.clear();
    if (!m_pci) return returnErrorMsg(kConstructor | 0x23A, nullptr, nullptr);
    std::vector<_PCIInformantion> found;
    if (ErrorMsg* e = m_pci->getPciInfoByClass(kNVMeClass, &found)) return returnErrorMsg(kConstructor, nullptr, e);
    for (size_t i = 0; i < found.size(); ++i) {
        auto info = std::make_unique<NVMe_DEVICE_INFO>();
        info->name = "NVME" + std::to_string(i);
        char address[16];
        snprintf(address, sizeof(address), "%04x:%02x:%02x.%1x", found[i].domain & 0xFFFF, found[i].bus & 0xFF,
                 found[i].device & 0x1F, found[i].function & 0x7);
        info->pciAddress = address;
        memset(info->identifyController, 0, sizeof(info->identifyController));
        memset(info->identifyNamespace, 0, sizeof(info->identifyNamespace));
        memset(info->smartLog, 0, sizeof(info->smartLog));
        m_controllers.push_back(*info);
    }
    std::sort(m_controllers.begin(), m_controllers.end(),
              [](const NVMe_DEVICE_INFO& a, const NVMe_DEVICE_INFO& b) { return a.name < b.name; });
    return nullptr;
}

ErrorMsg* NVMeDDAPI::getControllerList(std::vector<NVMe_DEVICE_INFO>* list) {
    if (list) *list = m_controllers;
    return nullptr;
}

ERRORCODE NVMeDDAPI::findLinkedEntry(const char* directory, const std::string& address, std::string* entry) {
    quarn::Platform& p = quarn::platform();
    std::vector<quarn::DirEntry> entries;
    if (p.listDirectory(directory, &entries) != 0) return kGetNodeList | kOpenDirFail;
    std::sort(entries.begin(), entries.end(),
              [](const quarn::DirEntry& a, const quarn::DirEntry& b) { return a.name < b.name; });
    for (const quarn::DirEntry& e : entries) {
        if (e.type != DT_LNK && e.type != DT_UNKNOWN) continue;  // only the kernel's links name devices
        std::string target;
        if (p.readlink(std::string(directory) + e.name, &target) != 0) {
            if (e.type == DT_UNKNOWN) continue;
            return kGetNodeList | kReadLinkFail;
        }
        if (target.find(address) != std::string::npos) {
            *entry = e.name;
            return 0;
        }
    }
    entry->clear();
    return 0;
}

ErrorMsg* NVMeDDAPI::getDeviceNodeByController(unsigned char controller) {
    if (m_controllers.empty()) return returnErrorMsg(kGetNodeList | kNoController, nullptr, nullptr);
    if (controller >= m_controllers.size())
        return returnErrorMsg(kGetNodeList | kNoController, formatMessage("controller %u", controller), nullptr);
    NVMe_DEVICE_INFO& c = m_controllers[controller];
    std::string entry;
    if (ERRORCODE e = findLinkedEntry(kClassNvme, c.pciAddress, &entry))
        return returnErrorMsg(e, kClassNvme, nullptr);
    c.deviceNode = entry.empty() ? "" : "/dev/" + entry;
    if (ERRORCODE e = findLinkedEntry(kSysBlock, c.pciAddress, &entry)) return returnErrorMsg(e, kSysBlock, nullptr);
    c.blockNode = entry.empty() ? "" : "/dev/" + entry;
    return nullptr;
}

// Commands go to the namespace's block node; a controller without a namespace is reached
// through its character node, which the driver serves admin commands on as well.
ErrorMsg* NVMeDDAPI::doIOCTLCommand(unsigned char controller, NVMeIOCTL::IOCTL_OP_CODE op, void* argument) {
    if (m_controllers.empty() || controller >= m_controllers.size())
        return returnErrorMsg(kExecuteIOCTL | kNoController, formatMessage("controller %u", controller), nullptr);
    if (op == NVMeIOCTL::NVME_INVALID) return returnErrorMsg(kExecuteIOCTL | kInvalidOpcode, nullptr, nullptr);
    const NVMe_DEVICE_INFO& c = m_controllers[controller];
    const std::string& node = c.blockNode.empty() ? c.deviceNode : c.blockNode;
    NVMeIOCTL request(node.c_str());
    ERRORCODE e = 0;
    if (op == NVMeIOCTL::NVME_RESET || op == NVMeIOCTL::NVME_RESET_CONTROLLER) e = request.switchNode(c.deviceNode.c_str());
    if (!e) e = request.allocateIOCTLArgument(op);
    if (!e && (op == NVMeIOCTL::NVME_FIRMWARE_COMMIT || op == NVMeIOCTL::NVME_FIRMWARE_DOWNLOAD ||
               op == NVMeIOCTL::NVME_WRITE_ZEROES || op == NVMeIOCTL::NVME_FORMAT))
        e = request.setIOCTLOperationArgument(op, argument);
    if (!e) {
        ++m_commands;
        e = request.executeIOCTL(op, argument);
    }
    if (e) return returnErrorMsg(kExecuteIOCTL | e, formatMessage("%s op %u", request.node().c_str(), op), nullptr);
    return nullptr;
}

ErrorMsg* NVMeDDAPI::downloadFirmware(unsigned char controller, void* image, unsigned int length) {
    if (m_controllers.empty()) return returnErrorMsg(kDownloadFirmware | kNoController, nullptr, nullptr);
    auto* bytes = static_cast<unsigned char*>(image);
    for (unsigned int offset = 0; offset < length;) {
        NVMeFirmwareChunk chunk;
        chunk.data = bytes + offset;
        chunk.length = std::min(kChunk, length - offset);
        chunk.offset = offset;
        if (ErrorMsg* e = doIOCTLCommand(controller, NVMeIOCTL::NVME_FIRMWARE_DOWNLOAD, &chunk))
            return returnErrorMsg(kDownloadFirmware | (e->getErrorCode() & 0x3FF),
                                  formatMessage("offset %u", offset), e);
        offset += chunk.length;
    }
    return nullptr;
}
