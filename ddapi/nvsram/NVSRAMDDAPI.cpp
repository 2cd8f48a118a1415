// NVSRAM device layer.
#include "ddapi/nvsram/NVSRAMDDAPI.h"

#include "api/StringUtil.h"
#include "api/platform/Platform.h"
#include "ddapi/memory/MemoryDDAPI.h"
#include "ddapi/pci/PCIDDAPI.h"

namespace {
constexpr ERRORCODE kConstructor = 0xD2080400;
constexpr ERRORCODE kGetNVSRAMList = 0xD2081400;
constexpr PCIClassCode kSystemPeripheral = 0x0880;
constexpr uint16_t kVendor = 0x1D5A;
constexpr uint16_t kDevice = 0x7110;
constexpr unsigned int kSequence[] = {0x4E38, 0xB1C7, 0x83E0, 0x7C1F, 0x703F};
constexpr unsigned int kStore = 0x8FC0;
constexpr unsigned int kRecall = 0x4C63;
constexpr unsigned long long kStorePauseUs = 10000;
constexpr unsigned long long kRecallPauseUs = 500;
}  // namespace

NVSRAMDDAPI::NVSRAMDDAPI(const char* name)
    : BaseClassDDAPI(name), m_pci(new PCIDDAPI("PCI_DRVR")), m_memory(new MemoryDDAPI("MEMORY_DRVR")), m_index(0),
      m_base(0) {
    // A failure is kept on the own list as it is (it already names the constructor).
    if (ErrorMsg* e = addNVSRAMDevice()) {
        if (m_errorList) m_errorList->appendToList(e);
        else m_errorList = e;
    }
}

NVSRAMDDAPI::~NVSRAMDDAPI() {
    delete m_pci;
    delete m_memory;
}

ErrorMsg* NVSRAMDDAPI::addNVSRAMDevice() {
    std::vector<_PCIInformantion> list;
    if (ErrorMsg* e = m_pci->getPciInfoByClass(kSystemPeripheral, &list)) return returnErrorMsg(kConstructor, nullptr, e);
    for (const _PCIInformantion& r : list) {
        if (r.vendorID != kVendor || r.deviceID != kDevice) continue;
        uint32_t base = 0, size = 0;
        const _PFA function0{r.domain, r.bus, r.device, 0, 0};
        if (ErrorMsg* e = m_pci->getBarByBDF(function0, 1, &base, &size)) return returnErrorMsg(kConstructor, nullptr, e);
        NVSRAM_RESOURCE_INFO info;
        info.id = 0;
        info.name = Int2HexStr(r.bus, 2) + ":" + Int2HexStr(r.device, 2) + "." + Int2HexStr(r.function, 2);
        info.base = base;
        info.size = size;
        info.elementSize = 64;
        m_devices.push_back(info);
        m_base = base;
        return nullptr;
    }
    return nullptr;
}

ErrorMsg* NVSRAMDDAPI::getDeviceList(std::vector<NVSRAM_RESOURCE_INFO>* list) {
    if (m_devices.empty()) return returnErrorMsg(kGetNVSRAMList, nullptr, nullptr);
    *list = m_devices;
    return nullptr;
}

ErrorMsg* NVSRAMDDAPI::getBaseAddress(unsigned char id, unsigned long long* base) {
    for (const NVSRAM_RESOURCE_INFO& d : m_devices)
        if (d.id == id) *base = d.base;
    return nullptr;
}

ErrorMsg* NVSRAMDDAPI::getResourceSize(unsigned char id, unsigned int* size) {
    for (const NVSRAM_RESOURCE_INFO& d : m_devices)
        if (d.id == id) *size = d.size;
    return nullptr;
}

ErrorMsg* NVSRAMDDAPI::getElementSize(unsigned char id, unsigned char* bits) {
    for (const NVSRAM_RESOURCE_INFO& d : m_devices)
        if (d.id == id) *bits = d.elementSize;
    return nullptr;
}

void NVSRAMDDAPI::sequence(unsigned int last, unsigned long long pauseUs) {
    for (unsigned int offset : kSequence) m_memory->read8(m_base + offset);
    m_memory->read8(m_base + last);
    // The values read are of no interest; neither are failures (the pattern checks
    // that follow find a sequence that did not run).
    if (ErrorMsg* e = m_memory->getErrorMsg()) deleteErrorMsg(e);
    quarn::platform().sleepMicroseconds(pauseUs);
}

ErrorMsg* NVSRAMDDAPI::storeNVSRAM() {
    sequence(kStore, kStorePauseUs);
    return nullptr;
}

ErrorMsg* NVSRAMDDAPI::recallNVSRAM() {
    sequence(kRecall, kRecallPauseUs);
    return nullptr;
}
