// Diagnostic layer of the SAS host bus adapters: argument checks, wrapping of device-layer
// chains in the function rows, drive look-up by name and programming through sas3flash.
#include "dapi/sas/SASDAPI.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <sstream>

#include "api/StringUtil.h"
#include "api/platform/Files.h"
#include "api/platform/Platform.h"

namespace {
constexpr ERRORCODE kClearPHYErrorLog = 0xC7041000;
constexpr ERRORCODE kGetInformation = 0xC7041400;
constexpr ERRORCODE kGetTemperature = 0xC7041800;
constexpr ERRORCODE kGetLogicalIDByName = 0xC7041C00;
constexpr ERRORCODE kLoopbackTest = 0xC7045000;
constexpr ERRORCODE kResetIOC = 0xC7045400;
constexpr ERRORCODE kProgramAddress = 0xC7045800;
constexpr ERRORCODE kIoctlCommand = 0xC7045C00;
constexpr ERRORCODE kGetAttachDevice = 0xC7046000;
constexpr ERRORCODE kGetErrorCount = 0xC7046400;
constexpr ERRORCODE kGetLinkSpeed = 0xC7046800;
constexpr ERRORCODE kGetLinkStatus = 0xC7046C00;
constexpr ERRORCODE kDeviceNodeList = 0xC7047000;
constexpr ERRORCODE kDriveInformation = 0xC7047400;
constexpr ERRORCODE kGetAddress = 0xC7047800;
constexpr ERRORCODE kProgramFirmware = 0xC7047C00;

constexpr ERRORCODE kBadParameter = 0x204;
constexpr ERRORCODE kBadParameter2 = 0x206;
constexpr ERRORCODE kBadParameter5 = 0x209;
constexpr ERRORCODE kBufferSize = 0x213;
constexpr ERRORCODE kAllocateFail = 0x214;
constexpr ERRORCODE kFailToReadFile = 0x217;
constexpr ERRORCODE kNoDevice = 0x22E;

constexpr size_t kCommandLimit = 128;
constexpr size_t kLogLines = 11;
constexpr size_t kLogLineLimit = 100;
const char kFinished[] = "Finished Processing Commands Successfully";
}  // namespace

SASDAPI::SASDAPI(const char* name) : BaseClassDAPI(name), m_device(nullptr) {}

SASDAPI::~SASDAPI() { delete m_device; }

SASDDAPI* SASDAPI::device() {
    if (!m_device) m_device = new (std::nothrow) SASDDAPI("SASDDAPI");
    return m_device;
}

ErrorMsg* SASDAPI::checkController(unsigned char controller, ERRORCODE function) {
    SASDDAPI* d = device();
    if (!d) return returnErrorMsg(function | kAllocateFail, nullptr, nullptr);
    std::vector<SAS_CONTROLLER_INFO> list;
    if (ErrorMsg* e = d->getControllerList(&list)) return returnErrorMsg(function, nullptr, e);
    if (controller >= list.size()) return returnErrorMsg(function | kBadParameter, "Bad IOC logical ID", nullptr);
    return nullptr;
}

ErrorMsg* SASDAPI::phyRequest(ERRORCODE function, unsigned char controller, unsigned char phy,
                              SASIOCTL::IOCTL_OP_CODE op, void* result) {
    if (ErrorMsg* e = checkController(controller, function)) return e;
    SASDDAPI* d = device();
    ErrorMsg* e = d->setControllerID(controller);
    if (!e) e = d->setPHYNumber(phy);
    if (!e) e = d->doIOCTLCommand(op, result);
    if (ErrorMsg* reset = d->setPHYNumber(0xFF)) deleteErrorMsg(reset);
    return e ? returnErrorMsg(function, nullptr, e) : nullptr;
}

// ---- controllers ----

ErrorMsg* SASDAPI::getInformationList(std::vector<SAS_CONTROLLER_INFO>* list) {
    if (!list) return returnErrorMsg(kGetInformation | kBadParameter, nullptr, nullptr);
    SASDDAPI* d = device();
    if (!d) return returnErrorMsg(kGetInformation | kAllocateFail, nullptr, nullptr);
    if (ErrorMsg* e = d->getControllerList(list)) return returnErrorMsg(kGetInformation, nullptr, e);
    return nullptr;
}

ErrorMsg* SASDAPI::getInformationByController(unsigned char controller, SAS_CONTROLLER_INFO* info) {
    if (!info) return returnErrorMsg(kGetInformation | kBadParameter, nullptr, nullptr);
    if (ErrorMsg* e = checkController(controller, kGetInformation)) return e;
    if (ErrorMsg* e = device()->getInformationByController(controller, info))
        return returnErrorMsg(kGetInformation, nullptr, e);
    return nullptr;
}

ErrorMsg* SASDAPI::getLogicalIDByName(std::string name, unsigned char* controller) {
    if (!controller) return returnErrorMsg(kGetLogicalIDByName | kBadParameter, nullptr, nullptr);
    std::vector<SAS_CONTROLLER_INFO> list;
    if (ErrorMsg* e = getInformationList(&list)) return returnErrorMsg(kGetLogicalIDByName, nullptr, e);
    for (const SAS_CONTROLLER_INFO& c : list) {
        if (c.name == name) {
            *controller = c.controller;
            return nullptr;
        }
    }
    return returnErrorMsg(kGetLogicalIDByName | kBadParameter5, formatMessage("%.60s", name.c_str()), nullptr);
}

ErrorMsg* SASDAPI::clearPHYErrorCountByController(unsigned char controller) {
    return phyRequest(kClearPHYErrorLog, controller, 0xFF, SASIOCTL::SAS_IOCTL_CLEAR_CONTROLLER_PHY_ERRORS, nullptr);
}

ErrorMsg* SASDAPI::clearPHYErrorCountByPHY(unsigned char controller, unsigned char phy) {
    return phyRequest(kClearPHYErrorLog, controller, phy, SASIOCTL::SAS_IOCTL_CLEAR_PHY_ERRORS, nullptr);
}

ErrorMsg* SASDAPI::doLoopbackTest(unsigned char controller) {
    return phyRequest(kLoopbackTest, controller, 0xFF, SASIOCTL::SAS_IOCTL_LOOPBACK_TEST, nullptr);
}

ErrorMsg* SASDAPI::resetIOC(unsigned char controller) {
    return phyRequest(kResetIOC, controller, 0xFF, SASIOCTL::SAS_IOCTL_HARD_RESET, nullptr);
}

ErrorMsg* SASDAPI::getAttachDeviceByPHY(unsigned char controller, unsigned char phy, std::string* type) {
    if (!type) return returnErrorMsg(kGetAttachDevice | kBadParameter, nullptr, nullptr);
    return phyRequest(kGetAttachDevice, controller, phy, SASIOCTL::SAS_IOCTL_ATTACHED_DEVICE, type);
}

ErrorMsg* SASDAPI::getTemperatureByController(unsigned char controller, unsigned int* celsius) {
    if (!celsius) return returnErrorMsg(kGetTemperature | kBadParameter, nullptr, nullptr);
    return phyRequest(kGetTemperature, controller, 0xFF, SASIOCTL::SAS_IOCTL_TEMPERATURE, celsius);
}

ErrorMsg* SASDAPI::getErrorCountByPHY(unsigned char controller, unsigned char phy, ERROR_COUNT_INFO* counts) {
    if (!counts) return returnErrorMsg(kGetErrorCount | kBadParameter, nullptr, nullptr);
    return phyRequest(kGetErrorCount, controller, phy, SASIOCTL::SAS_IOCTL_PHY_ERROR_COUNTERS, counts);
}

ErrorMsg* SASDAPI::getErrorCountByController(unsigned char controller, ERROR_COUNT_INFO* counts) {
    if (!counts) return returnErrorMsg(kGetErrorCount | kBadParameter, nullptr, nullptr);
    ERROR_COUNT_INFO sum;
    for (unsigned int phy = 0; phy < SASDDAPI::kPhysPerController; ++phy) {
        ERROR_COUNT_INFO one;
        if (ErrorMsg* e = getErrorCountByPHY(controller, static_cast<unsigned char>(phy), &one)) return e;
        sum.invalidDwordCount += one.invalidDwordCount;
        sum.runningDisparityErrorCount += one.runningDisparityErrorCount;
        sum.lossOfDwordSyncCount += one.lossOfDwordSyncCount;
        sum.phyResetProblemCount += one.phyResetProblemCount;
    }
    *counts = sum;
    return nullptr;
}

ErrorMsg* SASDAPI::getLinkStatusByPHY(unsigned char controller, unsigned char phy, std::string* status) {
    if (!status) return returnErrorMsg(kGetLinkStatus | kBadParameter, nullptr, nullptr);
    return phyRequest(kGetLinkStatus, controller, phy, SASIOCTL::SAS_IOCTL_PHY_LINK_STATUS, status);
}

ErrorMsg* SASDAPI::getLinkSpeedByPHY(unsigned char controller, unsigned char phy, std::string* speed) {
    if (!speed) return returnErrorMsg(kGetLinkSpeed | kBadParameter, nullptr, nullptr);
    return phyRequest(kGetLinkSpeed, controller, phy, SASIOCTL::SAS_IOCTL_PHY_LINK_RATE, speed);
}

ErrorMsg* SASDAPI::getAddressByController(unsigned char controller, unsigned long long* address) {
    if (!address) return returnErrorMsg(kGetAddress | kBadParameter, nullptr, nullptr);
    return phyRequest(kGetAddress, controller, 0xFF, SASIOCTL::SAS_IOCTL_SAS_ADDRESS, address);
}

ErrorMsg* SASDAPI::doIOCTL(unsigned char controller, unsigned int op, unsigned int* result) {
    if (op > 0xFF) return returnErrorMsg(kIoctlCommand | 0x223, formatMessage("operation %u", op), nullptr);
    const auto code = static_cast<SASIOCTL::IOCTL_OP_CODE>(op);
    std::string text;
    unsigned int number = 0;
    unsigned long long address = 0;
    ERROR_COUNT_INFO counts;
    SAS_CONTROLLER_INFO info;
    void* answer = nullptr;
    switch (op) {
    case 6: case 11: case 12: answer = &text; break;
    case 7: answer = &number; break;
    case 8: answer = &info; break;
    case 10: answer = &counts; break;
    case 13: answer = &address; break;
    default: break;
    }
    if (ErrorMsg* e = phyRequest(kIoctlCommand, controller, 0xFF, code, answer)) return e;
    if (result) *result = op == 13 ? static_cast<unsigned int>(address) : number;
    return nullptr;
}

// ---- drives ----

ErrorMsg* SASDAPI::getDriveDeviceNodeListByController(unsigned char controller, std::vector<SAS_DRIVE_INFO>* list) {
    if (!list) return returnErrorMsg(kDeviceNodeList | kBadParameter, nullptr, nullptr);
    if (ErrorMsg* e = checkController(controller, kDeviceNodeList)) return e;
    if (ErrorMsg* e = device()->getDriveListByController(controller, list))
        return returnErrorMsg(kDeviceNodeList, nullptr, e);
    return nullptr;
}

ErrorMsg* SASDAPI::findDrive(ERRORCODE function, const std::string& name, SAS_DRIVE_INFO* info) {
    std::vector<SAS_CONTROLLER_INFO> controllers;
    if (ErrorMsg* e = getInformationList(&controllers)) return returnErrorMsg(function, nullptr, e);
    for (const SAS_CONTROLLER_INFO& c : controllers) {
        // Only the controller a name belongs to is asked for its drives.
        if (name.compare(0, c.name.size() + 1, c.name + "-") != 0) continue;
        std::vector<SAS_DRIVE_INFO> drives;
        if (ErrorMsg* e = device()->getDriveListByController(c.controller, &drives))
            return returnErrorMsg(function, nullptr, e);
        for (const SAS_DRIVE_INFO& d : drives) {
            if (d.name == name) {
                *info = d;
                return nullptr;
            }
        }
    }
    return returnErrorMsg(function | kNoDevice, "NO Attached SAS Drive", nullptr);
}

ErrorMsg* SASDAPI::getInformationByDriveName(std::string name, SAS_DRIVE_INFO* info) {
    if (!info) return returnErrorMsg(kDriveInformation | kBadParameter, nullptr, nullptr);
    return findDrive(kDriveInformation, name, info);
}

ErrorMsg* SASDAPI::getSmartDataByDriveName(std::string name, StorageSASSMARTData* data) {
    if (!data) return returnErrorMsg(kDriveInformation | kBadParameter, nullptr, nullptr);
    SAS_DRIVE_INFO info;
    if (ErrorMsg* e = findDrive(kDriveInformation, name, &info)) return e;
    data->name = info.name;
    data->temperature = info.temperature;
    data->healthStatus = info.healthStatus;
    data->errorLog = info.errorLog;
    return nullptr;
}

// ---- programming ----

ErrorMsg* SASDAPI::flash(ERRORCODE function, ERRORCODE startFail, unsigned char controller, const char* option,
                         const std::string& value, const char* log, const char* failText) {
    m_flashLog.clear();
    if (ErrorMsg* e = checkController(controller, function)) return e;
    // The tool numbers the board's two adapters the other way round from the PCI scan
    // (hence SAS1 = controller 0); with any other count its index is the controller's.
    unsigned int index = controller;
    if (device()->getControllerCount() == 2) index = controller == 0 ? 1 : 0;
    char command[kCommandLimit];
    const int n = snprintf(command, sizeof(command), "sas3flash -o -c %u %s %s -l %s", index, option, value.c_str(), log);
    if (n < 0 || static_cast<size_t>(n) >= sizeof(command))
        return returnErrorMsg(function | kBufferSize, "command longer than 128 bytes", nullptr);

    // A log left by an earlier run must not speak for this one.
    quarn::removePath(log);
    const std::vector<std::string> argv = {"sas3flash", "-o", "-c", std::to_string(index), option, value, "-l", log};
    std::string output;
    int status = 0;
    if (quarn::platform().runProgram(argv, &output, &status) != 0)
        return returnErrorMsg(startFail, formatMessage("sas3flash: %s", quarn::systemErrorText(errno).c_str()), nullptr);

    std::string text;
    if (quarn::readTextFile(log, &text, 64 * 1024) != 0)
        return returnErrorMsg(function | kFailToReadFile,
                              formatMessage("%s: %s", log, quarn::systemErrorText(errno).c_str()), nullptr);
    std::istringstream in(text);
    for (std::string line; m_flashLog.size() < kLogLines && std::getline(in, line);) {
        if (line.size() > kLogLineLimit - 1) line.resize(kLogLineLimit - 1);
        m_flashLog.push_back(line);
    }
    bool finished;
    if (m_flashLog.size() == kLogLines) {
        finished = m_flashLog.back().find(kFinished) != std::string::npos;
    } else {
        // A short log is a tool that stopped early: only its own success line counts.
        finished = false;
        for (const std::string& line : m_flashLog)
            if (line.find(kFinished) != std::string::npos) finished = true;
    }
    if (!finished) return returnErrorMsg(function, failText, nullptr);
    return nullptr;
}

ErrorMsg* SASDAPI::programSASAddress(unsigned char controller, std::string address) {
    bool valid = address.size() == 16;
    for (char c : address) valid = valid && isxdigit(static_cast<unsigned char>(c));
    if (!valid)
        return returnErrorMsg(kProgramAddress | kBadParameter2,
                              formatMessage("SAS address \"%.40s\" is not 16 hex digits", address.c_str()), nullptr);
    return flash(kProgramAddress, kProgramAddress | kFailToReadFile, controller, "-sasadd", address, kAddressLog,
                 "SAS address programming fail");
}

ErrorMsg* SASDAPI::programSASFirmware(unsigned char controller, std::string file) {
    if (file.empty()) return returnErrorMsg(kProgramFirmware | kBadParameter2, "no image file", nullptr);
    return flash(kProgramFirmware, kProgramFirmware | kFailToReadFile, controller, "-f", file, kFirmwareLog,
                 "SAS FW programming fail");
}

ErrorMsg* SASDAPI::readFromDevice() { return nullptr; }
ErrorMsg* SASDAPI::writeToDevice() { return nullptr; }
