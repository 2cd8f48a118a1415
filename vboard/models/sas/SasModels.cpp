// The board's SAS fabric: the SAS3008 control node, the expanders' SAS transport tree,
// SAS disks on expander PHYs and the board's SAS tools.
#include "vboard/models/sas/SasModels.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <sstream>

#include "vboard/AttributeModel.h"
#include "vboard/VirtualBoard.h"

namespace quarn::vboard {

namespace {

// The control node's requests: _IOWR('L', nr, size) with the request sizes the driver
// accepts for each number.
constexpr unsigned kIocInfo = 0x11;     // 92 bytes: IOC facts
constexpr unsigned kHardReset = 0x18;   // 12 bytes: ioc number
constexpr unsigned kPhyControl = 0x2E;  // 40 bytes: code at 0, ioc at 8, phy at 10
constexpr unsigned kConfigPage = 0x30;  // 32 bytes: selector at 0, ioc at 2/12, phy at 13
constexpr unsigned kLoopback = 0x32;    // 28 bytes

unsigned expectedSize(unsigned nr) {
    switch (nr) {
    case kIocInfo: return 92;
    case kHardReset: return 12;
    case kPhyControl: return 40;
    case kConfigPage: return 32;
    case kLoopback: return 28;
    default: return 0;
    }
}

// Codes of the PHY control request.
constexpr uint16_t kRediscover = 9;
constexpr uint16_t kClearAll = 16;
constexpr uint16_t kClearOne = 17;
// Configuration page selectors.
constexpr uint8_t kSelTemperature = 0x09;
constexpr uint8_t kSelErrors = 0x07;
constexpr uint8_t kSelLink = 0x20;
constexpr uint8_t kSelAttached = 0x21;
constexpr uint8_t kSelAddress = 0x22;

constexpr uint8_t kOurIoc = 0;  // the board has one IOC

uint16_t le16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }
uint32_t le32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
           static_cast<uint32_t>(p[3]) << 24;
}
void putLe(uint8_t* p, uint64_t v, int bytes) {
    for (int i = 0; i < bytes; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}

int fail(int err) {
    errno = err;
    return -1;
}

std::string hex64(uint64_t v) {
    char text[24];
    snprintf(text, sizeof(text), "0x%016llx", static_cast<unsigned long long>(v));
    return text;
}

bool parseHex(const std::string& text, uint64_t* out) {
    std::string t = text;
    if (t.size() > 2 && t[0] == '0' && (t[1] == 'x' || t[1] == 'X')) t = t.substr(2);
    if (t.empty() || t.size() > 16) return false;
    uint64_t v = 0;
    for (char c : t) {
        int d;
        if (c >= '0' && c <= '9') d = c - '0';
        else if (c >= 'a' && c <= 'f') d = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F') d = c - 'A' + 10;
        else return false;
        v = v << 4 | static_cast<uint64_t>(d);
    }
    *out = v;
    return true;
}

class ControlHandle : public FileHandle {
public:
    explicit ControlHandle(Sas3008Model& model) : m_model(model) {}
    int ioctl(unsigned long request, void* arg) override {
        std::lock_guard<std::mutex> lock(m_model.mutex());
        return m_model.request(request, arg);
    }

private:
    Sas3008Model& m_model;
};

// MPI firmware image header: three signatures, versions, vendor, size; the 32-bit words
// of the whole image sum to zero.
constexpr size_t kImageHeader = 0x40;
constexpr uint32_t kSignature0 = 0x5AFAA55A, kSignature1 = 0xA55AFAA5, kSignature2 = 0x5AA55AFA;

}  // namespace

void SasPhyCounters::climb() {
    invalidDword += climbInvalid;
    disparity += climbDisparity;
}

// ---- adapter ----

Sas3008Model::Sas3008Model(uint8_t bus, uint8_t device, uint8_t function, uint8_t revision)
    : m_bus(bus), m_device(device), m_function(function), m_revision(revision) {}

std::unique_ptr<FileHandle> Sas3008Model::open(int) { return std::make_unique<ControlHandle>(*this); }

void Sas3008Model::setPhy(int phy, uint8_t rate, uint32_t deviceInfo) {
    m_phys[phy].rate = rate;
    m_phys[phy].deviceInfo = deviceInfo;
}

void Sas3008Model::injectLinkErrors(int phy, uint32_t invalidDword, uint32_t disparity, uint32_t lossOfSync,
                                    uint32_t resetProblem) {
    std::lock_guard<std::mutex> lock(mutex());
    SasPhyCounters& c = m_phys[phy].counters;
    c.invalidDword += invalidDword;
    c.disparity += disparity;
    c.lossOfSync += lossOfSync;
    c.resetProblem += resetProblem;
}

void Sas3008Model::setClimbingErrors(int phy, uint32_t invalidPerRead, uint32_t disparityPerRead) {
    std::lock_guard<std::mutex> lock(mutex());
    m_phys[phy].counters.climbInvalid = invalidPerRead;
    m_phys[phy].counters.climbDisparity = disparityPerRead;
}

int Sas3008Model::request(unsigned long number, void* argument) {
    const unsigned type = (number >> 8) & 0xFF;
    const unsigned nr = number & 0xFF;
    const unsigned size = (number >> 16) & 0x3FFF;
    const unsigned dir = (number >> 30) & 3;
    if (type != 'L' || expectedSize(nr) == 0) return fail(ENOTTY);
    if (dir != 3 || size != expectedSize(nr)) return fail(EINVAL);
    if (!argument) return fail(EFAULT);
    auto* b = static_cast<uint8_t*>(argument);
    m_lastRequest = number;
    m_lastBytes.assign(b, b + size);
    // The driver waits for the IOC's reply and gives up.
    if (!m_responding) return fail(ETIMEDOUT);
    switch (nr) {
    case kIocInfo: return iocInformation(b);
    case kHardReset:
        if (le32(b) != kOurIoc) return fail(ENODEV);
        ++m_hardResets;
        for (Phy& p : m_phys) p.counters.clear();
        return 0;
    case kPhyControl: return phyControl(b);
    case kConfigPage: return configPage(b);
    case kLoopback: return loopback(b);
    default: return fail(ENOTTY);
    }
}

int Sas3008Model::iocInformation(uint8_t* b) {
    if (le32(b) != kOurIoc) return fail(ENODEV);  // header: ioc number
    memset(b, 0, 92);
    putLe(b + 12, 0x07, 4);  // adapter type: SAS3
    putLe(b + 20, 0x0097, 4);  // PCI device ID
    putLe(b + 24, m_revision, 4);
    putLe(b + 28, 0x3090, 4);  // subsystem
    putLe(b + 32, 0x1000, 4);
    putLe(b + 40, m_firmware, 4);
    putLe(b + 44, m_bios, 4);
    const char version[] = "mpt3sas-27.101.00.00";
    memcpy(b + 48, version, sizeof(version));
    const uint32_t pci = (m_device & 0x1Fu) | (m_function & 0x7u) << 5 | static_cast<uint32_t>(m_bus) << 8;
    putLe(b + 84, pci, 4);
    putLe(b + 88, 0, 4);  // segment
    return 0;
}

int Sas3008Model::phyControl(uint8_t* b) {
    const uint16_t code = le16(b);
    if (b[8] != kOurIoc) return fail(ENODEV);
    switch (code) {
    case kClearAll:
        for (Phy& p : m_phys) p.counters.clear();
        return 0;
    case kClearOne:
        if (b[10] >= kPhys) return fail(EINVAL);
        m_phys[b[10]].counters.clear();
        return 0;
    case kRediscover:
        ++m_controlOperations;
        return 0;
    default:
        return fail(EINVAL);
    }
}

int Sas3008Model::loopback(uint8_t* b) {
    // Request: type 2 (internal loopback), ioc, pattern, iterations, start flag.
    if (b[0] != 2 || b[18] != 1 || le32(b + 12) == 0) return fail(EINVAL);
    if (b[8] != kOurIoc) return fail(ENODEV);
    ++m_loopbacks;
    if (m_loopbackFails) return fail(EIO);
    return 0;
}

int Sas3008Model::configPage(uint8_t* b) {
    const uint8_t selector = b[0];
    switch (selector) {
    case kSelTemperature: {
        if (b[12] != kOurIoc) return fail(ENODEV);
        putLe(b + 14, m_temperature, 2);
        return 0;
    }
    case kSelAddress:
        if (b[2] != kOurIoc) return fail(ENODEV);
        putLe(b + 4, m_sasAddress, 8);
        return 0;
    case kSelErrors:
    case kSelLink:
    case kSelAttached: {
        if (b[2] != kOurIoc || b[12] != kOurIoc) return fail(ENODEV);
        const uint8_t n = b[13];
        if (n >= kPhys) return fail(EINVAL);
        Phy& p = m_phys[n];
        if (selector == kSelErrors) {
            p.counters.climb();
            putLe(b + 16, p.counters.invalidDword, 4);
            putLe(b + 20, p.counters.disparity, 4);
            putLe(b + 24, p.counters.lossOfSync, 4);
            putLe(b + 28, p.counters.resetProblem, 4);
        } else if (selector == kSelLink) {
            b[15] = p.rate;
        } else {
            putLe(b + 16, p.deviceInfo, 4);
        }
        return 0;
    }
    default:
        return fail(EINVAL);
    }
}

int Sas3008Model::flashAddress(const std::string& address, std::string* text) {
    uint64_t v = 0;
    if (address.size() != 16 || !parseHex(address, &v) || (v >> 60) != 5) {
        *text = "\tERROR: Invalid SAS Address entered!";
        return 1;
    }
    std::lock_guard<std::mutex> lock(mutex());
    if (!m_responding) {
        *text = "\tERROR: Failed to communicate with the adapter!";
        return 1;
    }
    if (m_flashFailsHalfway) {
        *text = "\tERROR: Manufacturing page write failed at offset 0x00000400!";
        return 1;
    }
    m_sasAddress = v;
    *text = "\tSAS Address Programmed Successfully.";
    return 0;
}

int Sas3008Model::flashFirmware(const std::vector<uint8_t>& image, std::string* text) {
    if (image.size() < kImageHeader || image.size() % 4 != 0 || le32(&image[4]) != kSignature0 ||
        le32(&image[8]) != kSignature1 || le32(&image[12]) != kSignature2) {
        *text = "\tERROR: Invalid Firmware Image!";
        return 1;
    }
    uint32_t sum = 0;
    for (size_t i = 0; i < image.size(); i += 4) sum += le32(&image[i]);
    if (le16(&image[0x20]) != 0x1000 || le32(&image[0x2C]) != image.size() || sum != 0) {
        *text = "\tERROR: Firmware Image Checksum or Size Mismatch!";
        return 1;
    }
    std::lock_guard<std::mutex> lock(mutex());
    if (!m_responding) {
        *text = "\tERROR: Failed to communicate with the adapter!";
        return 1;
    }
    if (m_flashFailsHalfway) {
        // The write stops in the inactive region: the running image stays as it was.
        char line[96];
        snprintf(line, sizeof(line), "\tERROR: Flash write failed at offset 0x%08zx!", image.size() / 2);
        *text = line;
        return 1;
    }
    m_firmware = le32(&image[0x14]);
    ++m_hardResets;  // the tool resets the IOC into the new image
    *text = "\tFirmware Flash Successful!";
    return 0;
}

// ---- expanders ----

SasExpanderModel::SasExpanderModel(std::string sysfsName, uint64_t address, int phys)
    : m_name(std::move(sysfsName)), m_address(address), m_phys(static_cast<size_t>(phys)) {}

void SasExpanderModel::injectLinkErrors(int phy, uint32_t invalidDword, uint32_t disparity, uint32_t lossOfSync,
                                        uint32_t resetProblem) {
    SasPhyCounters& c = m_phys.at(static_cast<size_t>(phy)).counters;
    c.invalidDword += invalidDword;
    c.disparity += disparity;
    c.lossOfSync += lossOfSync;
    c.resetProblem += resetProblem;
}

void SasExpanderModel::setClimbingErrors(int phy, uint32_t invalidPerRead, uint32_t disparityPerRead) {
    SasPhyCounters& c = m_phys.at(static_cast<size_t>(phy)).counters;
    c.climbInvalid = invalidPerRead;
    c.climbDisparity = disparityPerRead;
}

void SasExpanderModel::reset() {
    ++m_resets;
    for (Phy& p : m_phys) p.counters.clear();
}

// ---- fabric ----

SasFabric::SasFabric(VirtualBoard& board) : m_board(board) {
    adapter = std::make_shared<Sas3008Model>(3, 0, 0, 0x02);
    board.addDevice("/dev/mpt3ctl", adapter);
    // PHYs 0-3: a x4 wide port to EXP0; 4-7 without cable.
    for (int phy = 0; phy < 4; ++phy) adapter->setPhy(phy, 0x0B, 0x0102);  // edge expander, SMP target
    for (int phy = 4; phy < Sas3008Model::kPhys; ++phy) adapter->setPhy(phy, 0x00, 0);

    expanders.push_back(std::make_shared<SasExpanderModel>("expander-0:0", 0x500605B0000272BFull, 24));
    expanders.push_back(std::make_shared<SasExpanderModel>("expander-0:1", 0x500605B0000273BFull, 24));

    // Host port 0 (PHYs 0-3) holds EXP0; EXP0's PHYs 8-11 are a wide port to EXP1.
    const std::string hostPort = std::string(kHost) + "/port-0:0";
    const std::string exp0 = hostPort + "/expander-0:0";
    m_expanderDirs.push_back(exp0);
    addExpanderTree(0, exp0);
    for (int phy = 0; phy < 4; ++phy) expanders[0]->phy(phy).rate = "12.0 Gbit";

    const std::string cascade = exp0 + "/port-0:0:" + std::to_string(m_nextPort[0]++);
    for (int phy = 8; phy < 12; ++phy) {
        board.makeSymlink("../phy-0:0:" + std::to_string(phy), cascade + "/phy-0:0:" + std::to_string(phy));
        expanders[0]->phy(phy).rate = "12.0 Gbit";
    }
    const std::string exp1 = cascade + "/expander-0:1";
    m_expanderDirs.push_back(exp1);
    addExpanderTree(1, exp1);
    for (int phy = 0; phy < 4; ++phy) expanders[1]->phy(phy).rate = "12.0 Gbit";

    // A firmware image for the flash tool (16.0.10.0), as the board's firmware package ships it.
    std::vector<uint8_t> image(4096, 0);
    putLe(&image[4], kSignature0, 4);
    putLe(&image[8], kSignature1, 4);
    putLe(&image[12], kSignature2, 4);
    putLe(&image[0x10], 0x02060000, 4);  // MPI 2.6
    putLe(&image[0x14], 0x10000A00, 4);  // 16.0.10.0
    putLe(&image[0x20], 0x1000, 2);
    putLe(&image[0x22], 0x0097, 2);
    putLe(&image[0x2C], image.size(), 4);
    for (size_t i = kImageHeader; i < image.size(); ++i) image[i] = static_cast<uint8_t>(i * 7);
    uint32_t sum = 0;
    for (size_t i = 0; i < image.size(); i += 4) sum += le32(&image[i]);
    putLe(&image[0], 0u - sum, 4);  // the first word balances the checksum
    board.writeFile("/lib/firmware/sas3008/SAS3008_IT_16.00.10.00.bin", std::string(image.begin(), image.end()));

    installPrograms();
}

void SasFabric::addExpanderTree(int index, const std::string& dir) {
    SasExpanderModel& e = *expanders[static_cast<size_t>(index)];
    const std::string& name = e.name();
    m_board.writeFile(dir + "/sas_device/" + name + "/device_type", "edge expander\n");
    m_board.writeFile(dir + "/sas_device/" + name + "/sas_address", hex64(e.address()) + "\n");
    m_board.writeFile(dir + "/sas_expander/" + name + "/vendor_id", "LSI\n");
    m_board.writeFile(dir + "/sas_expander/" + name + "/product_id", "SAS3x24\n");
    m_board.makeSymlink("../../../" + name, dir + "/sas_expander/" + name + "/device");
    // /sys/devices/... relative to /sys/class/sas_expander/.
    m_board.makeSymlink("../../devices" + dir.substr(std::string("/sys/devices").size()) + "/sas_expander/" + name,
                        "/sys/class/sas_expander/" + name);
    for (int phy = 0; phy < e.phyCount(); ++phy) addPhyAttributes(index, phy, dir);
}

void SasFabric::addPhyAttributes(int expander, int phy, const std::string& dir) {
    std::shared_ptr<SasExpanderModel> e = expanders[static_cast<size_t>(expander)];
    const std::string entry = "phy-0:" + std::to_string(expander) + ":" + std::to_string(phy);
    const std::string p = dir + "/" + entry + "/sas_phy/" + entry + "/";
    m_board.writeFile(p + "device_type", "edge expander\n");
    m_board.writeFile(p + "sas_address", hex64(e->address()) + "\n");
    auto readOnly = [](const std::string&) { return EACCES; };
    m_board.addDevice(p + "negotiated_linkrate",
                      std::make_shared<AttributeModel>([e, phy] { return e->phy(phy).rate + "\n"; }, readOnly));
    using Field = uint32_t SasPhyCounters::*;
    const std::pair<const char*, Field> counters[] = {
        {"invalid_dword_count", &SasPhyCounters::invalidDword},
        {"running_disparity_error_count", &SasPhyCounters::disparity},
        {"loss_of_dword_sync_count", &SasPhyCounters::lossOfSync},
        {"phy_reset_problem_count", &SasPhyCounters::resetProblem},
    };
    for (const auto& c : counters) {
        const Field field = c.second;
        const bool climbs = field == &SasPhyCounters::invalidDword;
        m_board.addDevice(p + c.first, std::make_shared<AttributeModel>(
                                           [e, phy, field, climbs] {
                                               SasPhyCounters& k = e->phy(phy).counters;
                                               // Errors keep arriving between two readings.
                                               if (climbs) k.climb();
                                               return std::to_string(k.*field) + "\n";
                                           },
                                           readOnly));
    }
}

std::shared_ptr<ScsiDiskModel> SasFabric::addDrive(int expander, int phy, int sgIndex, const std::string& block,
                                                   ScsiDiskConfig config) {
    SasExpanderModel& e = *expanders.at(static_cast<size_t>(expander));
    config.attachedAddress = e.address();
    config.attachedPhy = static_cast<uint8_t>(phy);
    config.attachedDeviceType = 2;
    e.phy(phy).rate = config.linkRate == 0x0A ? "6.0 Gbit" : config.linkRate == 0x09 ? "3.0 Gbit" : "12.0 Gbit";
    auto disk = std::make_shared<ScsiDiskModel>(std::move(config));
    const ScsiDiskConfig& c = disk->config();
    const std::string sg = "sg" + std::to_string(sgIndex);
    m_board.addDevice("/dev/" + sg, disk);

    const std::string x = std::to_string(expander);
    const std::string suffix = "-0:" + x + ":" + std::to_string(m_nextPort[expander]++);
    const std::string port = m_expanderDirs[static_cast<size_t>(expander)] + "/port" + suffix;
    const std::string phyEntry = "phy-0:" + x + ":" + std::to_string(phy);
    m_board.makeSymlink("../" + phyEntry, port + "/" + phyEntry);
    const std::string end = port + "/end_device" + suffix;
    m_board.writeFile(end + "/sas_device/end_device" + suffix + "/device_type", "end device\n");
    m_board.writeFile(end + "/sas_device/end_device" + suffix + "/sas_address", hex64(c.portAddress) + "\n");
    // The expander PHY the device is cabled to (the driver's PhyNum of SAS device page 0).
    m_board.writeFile(end + "/sas_device/end_device" + suffix + "/phy_identifier", std::to_string(phy) + "\n");
    const std::string target = "0:0:" + std::to_string(sgIndex);
    const std::string scsi = end + "/target" + target + "/" + target + ":0";
    m_board.writeFile(scsi + "/vendor", c.vendor + "\n");
    m_board.writeFile(scsi + "/model", c.product + "\n");
    m_board.writeFile(scsi + "/rev", c.revision + "\n");
    m_board.writeFile(scsi + "/sas_address", hex64(c.portAddress) + "\n");
    m_board.writeFile(scsi + "/scsi_generic/" + sg + "/dev", "21:" + std::to_string(sgIndex) + "\n");
    m_board.writeFile(scsi + "/block/" + block + "/size", std::to_string(c.blocks * c.blockSize / 512) + "\n");
    m_board.makeSymlink("../../../" + target + ":0", scsi + "/block/" + block + "/device");
    m_board.makeSymlink(".." + scsi.substr(std::string("/sys").size()) + "/block/" + block, "/sys/block/" + block);
    return disk;
}

// ---- tools ----

void SasFabric::installPrograms() {
    m_board.addProgram("sas3flash", [this](const std::vector<std::string>& a, std::string* o) { return sas3flash(a, o); });
    m_board.addProgram("smp_reset_expander",
                       [this](const std::vector<std::string>& a, std::string* o) { return smpResetExpander(a, o); });
    m_board.addProgram("EXP_Enclosure_Data.sh",
                       [this](const std::vector<std::string>& a, std::string* o) { return enclosureData(a, o); });
    m_board.addProgram("exp_ses.sh", [this](const std::vector<std::string>& a, std::string* o) { return expSes(a, o); });
}

// sas3flash [-o] [-c N] (-sasadd ADDR | -f FILE | -list) [-l LOG]: the log file gets what
// the screen gets.
int SasFabric::sas3flash(const std::vector<std::string>& argv, std::string* out) {
    std::string index = "0", address, file, log;
    bool haveAddress = false, haveFile = false, bad = false;
    for (size_t i = 1; i < argv.size(); ++i) {
        const std::string& a = argv[i];
        const bool more = i + 1 < argv.size();
        if (a == "-o" || a == "-list") continue;
        if (a == "-c" && more) index = argv[++i];
        else if (a == "-sasadd" && more) { address = argv[++i]; haveAddress = true; }
        else if (a == "-f" && more) { file = argv[++i]; haveFile = true; }
        else if (a == "-l" && more) log = argv[++i];
        else bad = true;
    }
    std::vector<std::string> lines = {"Avago Technologies SAS3 Flash Utility", "Version 16.00.00.00 (2017.05.02) ",
                                      "Copyright 2008-2017 Avago Technologies. All rights reserved.", ""};
    int code = 1;
    if (bad || haveAddress == haveFile) {
        lines.push_back("\tERROR: Invalid command line!");
    } else if (index != "0") {  // one adapter on this board
        lines.push_back("\tERROR: Invalid Controller Index " + index.substr(0, 16) + "!");
    } else {
        lines.push_back("\tAdapter Selected is a Avago SAS: SAS3008(C0)");
        lines.push_back("");
        lines.push_back(haveAddress ? "\tExecuting Operation: Program SAS Address" : "\tExecuting Operation: Flash Firmware Image");
        lines.push_back("");
        std::string result;
        if (haveAddress) {
            code = adapter->flashAddress(address, &result);
        } else {
            std::ifstream in(m_board.hostPath(file), std::ios::binary);
            if (!in) {
                result = "\tERROR: Could not open Firmware file!";
            } else {
                std::vector<uint8_t> image((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
                code = adapter->flashFirmware(image, &result);
            }
        }
        lines.push_back(result);
        lines.push_back("");
    }
    lines.push_back(code == 0 ? "\tFinished Processing Commands Successfully." : "\tDue to Exception Command not Executed.");
    lines.push_back(code == 0 ? "\tExiting SAS3Flash." : "\tExiting SAS3Flash with failure.");
    std::string text;
    for (const std::string& l : lines) text += l + "\n";
    out->append(text);
    if (!log.empty()) m_board.writeFile(log, text);
    return code;
}

// smp_reset_expander -vvvv -s ADDR -I mpt -a ... -d ... /dev/mpt3ctl: a hard reset of the
// expander through the adapter's SMP passthrough. The reset drops the link the reply would
// come back on, so success shows as the passthrough ending with IOCStatus 0x8090.
int SasFabric::smpResetExpander(const std::vector<std::string>& argv, std::string* out) {
    lastSmpReset = argv;
    std::string address, node;
    for (size_t i = 1; i < argv.size(); ++i) {
        if (argv[i] == "-s" && i + 1 < argv.size()) address = argv[++i];
        else if ((argv[i] == "-I" || argv[i] == "-a" || argv[i] == "-d") && i + 1 < argv.size()) ++i;
        else if (argv[i][0] != '-') node = argv[i];
    }
    uint64_t sas = 0;
    if (address.empty() || !parseHex(address, &sas)) {
        out->append("smp_reset_expander: bad SAS address\n");
        return 1;
    }
    if (node != "/dev/mpt3ctl" || !m_board.device(node)) {
        out->append("open " + node + ": No such file or directory (IOCStatus) unavailable\n");
        return 1;
    }
    out->append("    SMP target SAS address: " + hex64(sas) + "\n");
    out->append("    Request: 0x40 0x91 0x00 0x09 ... (PHY CONTROL, hard reset)\n");
    for (auto& e : expanders) {
        if (e->address() != sas) continue;
        e->reset();
        out->append("    mpt3ctl: SMP passthrough: IOCStatus=0x8090 IOCLogInfo=0x00000000\n");
        out->append("smp_reset_expander: expander reset, link lost as expected\n");
        return 0;
    }
    out->append("    mpt3ctl: SMP passthrough failed (IOCStatus) IOCStatus=0x0045 IOCLogInfo=0x31110e00\n");
    return 1;
}

int SasFabric::enclosureData(const std::vector<std::string>&, std::string* out) {
    out->append("Enclosure Logical ID: " + hex64(expanders[0]->address()) + "\n");
    out->append("Vendor ID: LSI\n");
    out->append("Product ID: SAS3x24\n");
    out->append("Port ID: " + std::to_string(enclosurePort) + "\n");
    out->append("Slots: 24\n");
    return 0;
}

// exp_ses.sh EXPANDER REGISTER w LENGTH VALUE: writes the enclosure's SES vendor register.
// Registers 0x80 and 0x81 clear the PHY error logs of the expanders behind host port 1 or
// 2 (this enclosure hangs from enclosurePort).
int SasFabric::expSes(const std::vector<std::string>& argv, std::string* out) {
    lastSes = argv;
    if (argv.size() != 6 || argv[3] != "w" || argv[4] != "1") {
        out->append("RESULT: FAILED (usage)\n");
        return 1;
    }
    uint64_t reg = 0, value = 0, expander = 0;
    if (!parseHex(argv[2], &reg) || !parseHex(argv[5], &value) || !parseHex(argv[1], &expander) ||
        expander >= expanders.size()) {
        out->append("RESULT: FAILED (argument)\n");
        return 1;
    }
    const uint64_t ours = enclosurePort == 1 ? 0x80 : enclosurePort == 2 ? 0x81 : 0;
    if (reg != ours || value != 1) {
        out->append("RESULT: FAILED\n");
        return 1;
    }
    for (auto& e : expanders)
        for (int phy = 0; phy < e->phyCount(); ++phy) e->phy(phy).counters.clear();
    out->append("RESULT: PASSED\n");
    return 0;
}

}  // namespace quarn::vboard
