// PCI diagnostic layer: the link retrain test and the switch EEPROM operations, with
// the progress printer thread of the save and program operations.
#include <cerrno>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "api/platform/Files.h"
#include "api/platform/Platform.h"
#include "dapi/pci/PCIDAPI.h"
#include "ddapi/pci/PCIDDAPI.h"

namespace {
constexpr ERRORCODE kTestRetrain = 0xC9041000;
constexpr ERRORCODE kReadEeprom = 0xC9045400;
constexpr ERRORCODE kGetEepromSize = 0xC9046000;
constexpr ERRORCODE kWriteEeprom = 0xC9046400;
constexpr ERRORCODE kTestEeprom = 0xC9046800;
constexpr ERRORCODE kSaveEeprom = 0xC9047000;
constexpr ERRORCODE kProgramEeprom = 0xC9047400;
constexpr uint32_t kRetrains = 1000;
// Files are programmed into the byte range the EEPROM operations address (16 KB).
constexpr size_t kLargestImage = 0x4000;

_PFA addressOf(const _EEPROM_INFO& info) {
    return _PFA{info.domain, info.bus, info.device, static_cast<uint8_t>(info.function), 0};
}
}  // namespace

ErrorMsg* PCIDAPI::testRetrain(_PFA pfa) { return testRetrain(pfa, kRetrains); }

ErrorMsg* PCIDAPI::testRetrain(_PFA pfa, uint32_t count) {
    initProgress(count);
    ErrorMsg* e = m_device->testRetrain(pfa, count, [this](uint32_t) { updateProgress(1); });
    if (e) return returnErrorMsg(kTestRetrain, nullptr, e);
    return nullptr;
}

ErrorMsg* PCIDAPI::getRetrainSupportedDeviceList(std::vector<RetrainInfo>* list) {
    return m_device->getRetrainSupportDevices(list);
}

ErrorMsg* PCIDAPI::getEepromList(std::vector<_EEPROM_INFO>* list) { return m_device->scanEeproms(list); }

ErrorMsg* PCIDAPI::DisplayPCIeSwitchEepromList() {
    std::vector<_EEPROM_INFO> list;
    if (ErrorMsg* e = m_device->scanEeproms(&list)) return e;
    for (const _EEPROM_INFO& info : list)
        printf("%s (attached to PCIE switch %04x:%02x:%02x.%x)\n", info.name.c_str(), info.domain, info.bus,
               info.device, info.function);
    return nullptr;
}

ErrorMsg* PCIDAPI::testEeprom(std::string name) {
    _EEPROM_INFO info;
    if (ErrorMsg* e = m_device->getEeprom(name, &info)) return returnErrorMsg(kTestEeprom, nullptr, e);
    if (ErrorMsg* e = m_device->testEeprom(addressOf(info))) return returnErrorMsg(kTestEeprom, nullptr, e);
    return nullptr;
}

ErrorMsg* PCIDAPI::getEepromSize(std::string name, uint32_t* size) {
    _EEPROM_INFO info;
    if (ErrorMsg* e = m_device->getEeprom(name, &info)) return returnErrorMsg(kGetEepromSize, nullptr, e);
    if (ErrorMsg* e = m_device->getEepromSize(addressOf(info), size)) return returnErrorMsg(kGetEepromSize, nullptr, e);
    return nullptr;
}

ErrorMsg* PCIDAPI::readEeprom(std::string name, uint32_t byteOffset, uint32_t count, uint32_t* buffer) {
    _EEPROM_INFO info;
    if (ErrorMsg* e = m_device->getEeprom(name, &info)) return returnErrorMsg(kReadEeprom, nullptr, e);
    if (ErrorMsg* e = m_device->readEeprom(addressOf(info), byteOffset, count, buffer))
        return returnErrorMsg(kReadEeprom, nullptr, e);
    return nullptr;
}

ErrorMsg* PCIDAPI::writeEeprom(std::string name, uint32_t byteOffset, uint32_t count, uint32_t* buffer) {
    _EEPROM_INFO info;
    if (ErrorMsg* e = m_device->getEeprom(name, &info)) return returnErrorMsg(kWriteEeprom, nullptr, e);
    if (ErrorMsg* e = m_device->writeEeprom(addressOf(info), byteOffset, count, buffer))
        return returnErrorMsg(kWriteEeprom, nullptr, e);
    return nullptr;
}

ErrorMsg* PCIDAPI::showEepromImageVersion(std::string name) { return m_device->showEepromImageVersion(name); }

ErrorMsg* PCIDAPI::getEepromImageVersion(std::string name, uint16_t* version) {
    return m_device->getEepromImageVersion(name, version);
}

void PCIDAPI::progressHandler(float ticks) {
    quarn::Platform& os = quarn::platform();
    for (int i = 0; static_cast<float>(i) < ticks; ++i) {
        os.sleepMicroseconds(10000);
        printf("progress:%3d%%\r", static_cast<int>(static_cast<float>(i) / ticks * 100));
        fflush(stdout);
    }
    printf("Progressing: 100%%\n");
    printf("Completed!\n");
    fflush(stdout);
}

ErrorMsg* PCIDAPI::saveEeprom(std::string name, const char* path) {
    uint32_t size = 0;
    if (ErrorMsg* e = getEepromSize(name, &size)) return returnErrorMsg(kSaveEeprom, nullptr, e);
    const uint32_t n = size / 4;
    // The file is created (a link planted at the path is replaced, never followed)
    // before the transfer, and filled when every dword has been read.
    if (!path || quarn::writeScratchFile(path, std::string()) != 0)
        return returnErrorMsg(kSaveEeprom, "open file fail", nullptr);
    std::thread progress(&PCIDAPI::progressHandler, this, static_cast<float>(n));
    std::vector<uint32_t> image(n, 0);
    ErrorMsg* failure = nullptr;
    for (uint32_t i = 0; i < n && !failure; ++i) failure = m_device->readEepromDword(i, &image[i]);
    if (!failure) {
        const std::string bytes(reinterpret_cast<const char*>(image.data()), image.size() * sizeof(uint32_t));
        if (quarn::writeScratchFile(path, bytes) != 0) failure = returnErrorMsg(kSaveEeprom, "write file fail", nullptr);
        else failure = nullptr;
        progress.join();
        return failure;
    }
    progress.join();
    return returnErrorMsg(kSaveEeprom, nullptr, failure);
}

ErrorMsg* PCIDAPI::programEeprom(std::string name, std::string path) {
    _EEPROM_INFO info;
    if (ErrorMsg* e = m_device->getEeprom(name, &info)) return returnErrorMsg(kProgramEeprom, nullptr, e);
    std::string bytes;
    if (quarn::readTextFile(path, &bytes, kLargestImage) != 0)
        return returnErrorMsg(kProgramEeprom, errno == EFBIG ? "file is larger than the EEPROM" : "open file fail",
                              nullptr);
    if (bytes.empty()) return returnErrorMsg(kProgramEeprom, "empty file", nullptr);
    const uint32_t n = static_cast<uint32_t>(bytes.size() / 4 + (bytes.size() % 4 ? 1 : 0));
    // The bytes past the end of a file whose size is no multiple of 4 are written as
    // 0xFF, the state of an erased EEPROM cell.
    std::vector<uint32_t> image(n, 0xFFFFFFFF);
    for (size_t i = 0; i < bytes.size(); ++i) {
        const uint32_t shift = static_cast<uint32_t>(8 * (i % 4));
        image[i / 4] = (image[i / 4] & ~(0xFFu << shift)) | static_cast<uint32_t>(static_cast<uint8_t>(bytes[i])) << shift;
    }
    // A configuration image that declares more bytes than the file holds is truncated.
    if ((image[0] & 0xFF) == 0x5A && (image[0] >> 16) + 8 > bytes.size())
        return returnErrorMsg(kProgramEeprom, "file is shorter than its image", nullptr);
    m_device->setEepromBase(addressOf(info));
    std::thread progress(&PCIDAPI::progressHandler, this, static_cast<float>(n));
    ErrorMsg* failure = nullptr;
    for (uint32_t i = 0; i < n && !failure; ++i) failure = m_device->writeEepromDword(i, image[i]);
    progress.join();
    if (failure) return returnErrorMsg(kProgramEeprom, nullptr, failure);
    return nullptr;
}
