// Diagnostic layer of the NVMe controllers.
#include "dapi/nvme/NVMeDAPI.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <new>

#include "api/StringUtil.h"
#include "api/platform/Platform.h"
#include "ddapi/memory/MemoryDDAPI.h"

namespace {
constexpr ERRORCODE kConstructor = 0xD7040400;
constexpr ERRORCODE kGetFirmwareLog = 0xD7040800;
constexpr ERRORCODE kGetInformation = 0xD7041000;
constexpr ERRORCODE kGetSmartLog = 0xD7041400;
constexpr ERRORCODE kGetLogicalIDByName = 0xD7041800;
constexpr ERRORCODE kResetNVMe = 0xD7044C00;
constexpr ERRORCODE kDownloadFirmware = 0xD7045000;
constexpr ERRORCODE kIoctlCommand = 0xD7045400;
constexpr ERRORCODE kGetBar = 0xD7046000;
constexpr ERRORCODE kErrorLog = 0xD7046400;  // also the activation's row
constexpr ERRORCODE kNamespaceID = 0xD7046800;
constexpr ERRORCODE kIdentifyController = 0xD7046C00;
constexpr ERRORCODE kIdentifyNamespace = 0xD7047000;

constexpr ERRORCODE kBadLogicalID = 0xD7041204;
constexpr ERRORCODE kNameNotFound = 0xD7041A09;
constexpr ERRORCODE kOpenFileFail = 0xD7045215;
constexpr ERRORCODE kShortRead = 0xD7045217;
constexpr ERRORCODE kMapFail = 0xD70C6004;
constexpr ERRORCODE kAllocateFail = 0x23A;
}  // namespace

NVMeDAPI::NVMeDAPI(const char* name) : BaseClassDAPI(name), m_device(new (std::nothrow) NVMeDDAPI("NVMeDDAPI")) {
    if (!m_device) {
        addErrorMsg(kConstructor | kAllocateFail, nullptr);
        return;
    }
    if (ErrorMsg* e = m_device->getErrorMsg()) addErrorMsg(kConstructor, nullptr, e);
}

NVMeDAPI::~NVMeDAPI() { delete m_device; }

ErrorMsg* NVMeDAPI::checkController(ERRORCODE function, unsigned char controller) {
    if (!m_device) return returnErrorMsg(function | kAllocateFail, nullptr, nullptr);
    if (controller >= m_device->controllerCount())
        return returnErrorMsg(kBadLogicalID, "Bad NVME logical ID", nullptr);
    return nullptr;
}

ErrorMsg* NVMeDAPI::command(ERRORCODE function, unsigned char controller, NVMeIOCTL::IOCTL_OP_CODE op,
                            void* argument) {
    if (ErrorMsg* e = checkController(function, controller)) return e;
    if (ErrorMsg* e = m_device->doIOCTLCommand(controller, op, argument)) return returnErrorMsg(function, nullptr, e);
    return nullptr;
}

ErrorMsg* NVMeDAPI::getInformationList(std::vector<NVMe_DEVICE_INFO>* list) {
    if (!m_device) return returnErrorMsg(kGetInformation | kAllocateFail, nullptr, nullptr);
    if (ErrorMsg* e = m_device->getControllerList(list)) return returnErrorMsg(kGetInformation, nullptr, e);
    return nullptr;
}

ErrorMsg* NVMeDAPI::getInformationByController(unsigned char controller, NVMe_DEVICE_INFO* info) {
    if (ErrorMsg* e = checkController(kGetInformation, controller)) return e;
    if (info) *info = m_device->controllers()[controller];
    return nullptr;
}

ErrorMsg* NVMeDAPI::getLogicalIDByName(std::string name, unsigned char* controller) {
    if (!m_device) return returnErrorMsg(kGetLogicalIDByName | kAllocateFail, nullptr, nullptr);
    const std::vector<NVMe_DEVICE_INFO>& list = m_device->controllers();
    for (size_t i = 0; i < list.size(); ++i) {
        if (list[i].name == name) {
            if (controller) *controller = static_cast<unsigned char>(i);
            return nullptr;
        }
    }
    return returnErrorMsg(kNameNotFound, formatMessage("%.60s", name.c_str()), nullptr);
}

ErrorMsg* NVMeDAPI::resetNVMe(unsigned char controller) {
    return command(kResetNVMe, controller, NVMeIOCTL::NVME_RESET, nullptr);
}

ErrorMsg* NVMeDAPI::getIdentityCTRLByController(unsigned char controller, nvme_id_ctrl* data) {
    return command(kIdentifyController, controller, NVMeIOCTL::NVME_IDENTIFY_CONTROLLER, data);
}

ErrorMsg* NVMeDAPI::getIdentityNSByController(unsigned char controller, nvme_id_ns* data) {
    return command(kIdentifyNamespace, controller, NVMeIOCTL::NVME_IDENTIFY_NAMESPACE, data);
}

ErrorMsg* NVMeDAPI::getFirmwareLogByController(unsigned char controller, nvme_firmware_log_page* data) {
    return command(kGetFirmwareLog, controller, NVMeIOCTL::NVME_FIRMWARE_LOG, data);
}

ErrorMsg* NVMeDAPI::activateFirmwareByController(unsigned char controller, nvme_fw_active request) {
    unsigned char bytes[2] = {request.slot, request.action};
    return command(kErrorLog, controller, NVMeIOCTL::NVME_FIRMWARE_COMMIT, bytes);
}

ErrorMsg* NVMeDAPI::getSmartLogByController(unsigned char controller, nvme_smart_log* data) {
    return command(kGetSmartLog, controller, NVMeIOCTL::NVME_SMART_LOG, data);
}

ErrorMsg* NVMeDAPI::getErrorLogByController(unsigned char controller, nvme_error_log_page* data) {
    return command(kErrorLog, controller, NVMeIOCTL::NVME_ERROR_LOG, data);
}

ErrorMsg* NVMeDAPI::getNameSpaceIDByController(unsigned char controller, int* nsid) {
    unsigned int id = 0;
    if (ErrorMsg* e = command(kNamespaceID, controller, NVMeIOCTL::NVME_NAMESPACE_ID, &id)) return e;
    if (nsid) *nsid = static_cast<int>(id);
    return nullptr;
}

ErrorMsg* NVMeDAPI::writeZeroByController(unsigned char controller, unsigned long long startLBA,
                                          unsigned short blocks) {
    unsigned int nsid = 0;
    if (ErrorMsg* e = command(kIoctlCommand, controller, NVMeIOCTL::NVME_NAMESPACE_ID, &nsid)) return e;
    NVMeWriteZeroesArgument argument{nsid, startLBA, blocks};
    return command(kIoctlCommand, controller, NVMeIOCTL::NVME_WRITE_ZEROES, &argument);
}

ErrorMsg* NVMeDAPI::formatByController(unsigned char controller, NVMeFormatArgument format) {
    return command(kIoctlCommand, controller, NVMeIOCTL::NVME_FORMAT, &format);
}

// Ops with a data phase read into a buffer of their own; result gets its first word.
ErrorMsg* NVMeDAPI::doIOCTL(unsigned char controller, unsigned int op, unsigned int* result) {
    if (op > NVMeIOCTL::NVME_FORMAT)
        return returnErrorMsg(kIoctlCommand | 0x223, formatMessage("op %u", op), nullptr);
    const auto code = static_cast<NVMeIOCTL::IOCTL_OP_CODE>(op);
    if (code == NVMeIOCTL::NVME_NAMESPACE_ID) return command(kIoctlCommand, controller, code, result);
    if (const unsigned int length = NVMeIOCTL::dataLength(code)) {
        std::vector<unsigned char> data(length, 0);
        if (ErrorMsg* e = command(kIoctlCommand, controller, code, data.data())) return e;
        if (result) memcpy(result, data.data(), sizeof(*result));
        return nullptr;
    }
    return command(kIoctlCommand, controller, code, result);
}

ErrorMsg* NVMeDAPI::getBarResourceByController(unsigned char controller, nvme_bar** bar) {
    if (ErrorMsg* e = checkController(kGetBar, controller)) return e;
    quarn::Platform& p = quarn::platform();
    std::string name = m_device->controllers()[controller].deviceNode;
    const size_t slash = name.rfind('/');
    if (slash != std::string::npos) name = name.substr(slash + 1);
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
    int fd = name.empty() ? -1 : p.open("/sys/class/nvme/" + name + "/device/resource0", O_RDONLY);
    if (fd < 0 && !name.empty()) fd = p.open("/sys/class/misc/" + name + "/device/resource0", O_RDONLY);
    if (fd < 0) return returnErrorMsg(kGetBar, "can not find pci resource", nullptr);
    const long page = p.pageSize();
    void* map = p.mmap(static_cast<size_t>(page), PROT_READ, MAP_SHARED, fd, 0);
    const int err = errno;
    p.close(fd);
    if (map == MAP_FAILED) return returnErrorMsg(kMapFail, quarn::systemErrorText(err).c_str(), nullptr);
    if (bar) *bar = static_cast<nvme_bar*>(map);
    else p.munmap(map, static_cast<size_t>(page));
    return nullptr;
}

ErrorMsg* NVMeDAPI::downloadFirmwareByController(unsigned char controller, const char* file) {
    if (ErrorMsg* e = checkController(kDownloadFirmware, controller)) return e;
    quarn::Platform& p = quarn::platform();
    const char* path = file ? file : "";
    const int fd = p.open(path, O_RDONLY);
    if (fd < 0) return returnErrorMsg(kOpenFileFail, formatMessage("%.60s", path), nullptr);
    const off_t size = p.lseek(fd, 0, SEEK_END);
    if (size <= 0 || size > 0x7FFFFFFF || p.lseek(fd, 0, SEEK_SET) != 0) {
        p.close(fd);
        return returnErrorMsg(kShortRead, formatMessage("%.60s", path), nullptr);
    }
    MemoryDDAPI memory("MemoryDDAPI");
    unsigned long long buffer = 0;
    if (ErrorMsg* e = memory.getMemoryBuffer(static_cast<unsigned int>(size), &buffer)) {
        p.close(fd);
        return returnErrorMsg(kDownloadFirmware, nullptr, e);
    }
    auto* data = reinterpret_cast<unsigned char*>(buffer);
    off_t done = 0;
    while (done < size) {
        const ssize_t n = p.read(fd, data + done, static_cast<size_t>(size - done));
        if (n <= 0) break;
        done += n;
    }
    p.close(fd);
    ErrorMsg* failure = nullptr;
    if (done != size) {
        failure = returnErrorMsg(kShortRead, formatMessage("%.60s", path), nullptr);
    } else if (ErrorMsg* e = m_device->downloadFirmware(controller, data, static_cast<unsigned int>(size))) {
        failure = returnErrorMsg(kDownloadFirmware, nullptr, e);
    }
    if (ErrorMsg* e = memory.releaseMemoryBuffer(buffer)) deleteErrorMsg(e);
    return failure;
}
