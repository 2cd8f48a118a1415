// The board's SAS fabric: a SAS3008 adapter behind the mpt3sas control node
// (/dev/mpt3ctl), two cascaded expanders in the kernel's SAS transport sysfs tree, SAS
// disks (SCSI disk models over SG_IO) on expander PHYs, and the board's tools that act
// on them: sas3flash, smp_reset_expander, EXP_Enclosure_Data.sh and exp_ses.sh.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "vboard/DeviceModel.h"
#include "vboard/models/scsi/ScsiDiskModel.h"

namespace quarn::vboard {

class VirtualBoard;

// The four error counters of one PHY, with the climbing-errors fault: while set, every
// reading finds that many more errors than the last one.
struct SasPhyCounters {
    uint32_t invalidDword = 0;
    uint32_t disparity = 0;
    uint32_t lossOfSync = 0;
    uint32_t resetProblem = 0;
    uint32_t climbInvalid = 0;
    uint32_t climbDisparity = 0;
    void climb();
    void clear() { invalidDword = disparity = lossOfSync = resetProblem = 0; }
};

// The SAS3008 IOC as the driver's control node shows it: IOC facts, configuration pages
// of its PHYs, PHY error counters, IOC reset, loopback, temperature, flash state.
class Sas3008Model : public DeviceModel {
public:
    static constexpr int kPhys = 8;

    Sas3008Model(uint8_t bus, uint8_t device, uint8_t function, uint8_t revision);

    std::unique_ptr<FileHandle> open(int flags) override;
    // One request on the control node (the model's lock is held); 0 or -1 with errno.
    int request(unsigned long number, void* argument);

    // Cabling: the MPI negotiated rate (0x0B 12 Gbit/s, 1 disabled, 0 unknown) and the
    // attached device-information word of a PHY.
    void setPhy(int phy, uint8_t rate, uint32_t deviceInfo);
    uint8_t phyRate(int phy) const { return m_phys[phy].rate; }

    // Faults.
    void injectLinkErrors(int phy, uint32_t invalidDword, uint32_t disparity, uint32_t lossOfSync,
                          uint32_t resetProblem);
    void setClimbingErrors(int phy, uint32_t invalidPerRead, uint32_t disparityPerRead);
    // An IOC that does not answer: every request times out.
    void setResponding(bool responding) { m_responding = responding; }
    void setLoopbackFault(bool failing) { m_loopbackFails = failing; }
    void setTemperature(uint16_t celsius) { m_temperature = celsius; }
    // The flash tool's write stops half way (the adapter keeps its previous image).
    void setFlashFailsHalfway(bool failing) { m_flashFailsHalfway = failing; }

    // State and observation.
    const SasPhyCounters& counters(int phy) const { return m_phys[phy].counters; }
    uint64_t sasAddress() const { return m_sasAddress; }
    uint32_t firmwareVersion() const { return m_firmware; }
    uint32_t biosVersion() const { return m_bios; }
    unsigned hardResets() const { return m_hardResets; }
    unsigned loopbacks() const { return m_loopbacks; }
    unsigned controlOperations() const { return m_controlOperations; }
    // The last request as it arrived (number and bytes).
    unsigned long lastRequest() const { return m_lastRequest; }
    const std::vector<uint8_t>& lastRequestBytes() const { return m_lastBytes; }

    // The flash tool's operations; text is what it logs for the result. 0 success.
    int flashAddress(const std::string& address, std::string* text);
    int flashFirmware(const std::vector<uint8_t>& image, std::string* text);

private:
    struct Phy {
        uint8_t rate = 0;
        uint32_t deviceInfo = 0;
        SasPhyCounters counters;
    };
    int phyControl(uint8_t* b);
    int loopback(uint8_t* b);
    int configPage(uint8_t* b);
    int iocInformation(uint8_t* b);

    uint8_t m_bus, m_device, m_function, m_revision;
    Phy m_phys[kPhys];
    uint64_t m_sasAddress = 0x500605B00A1B2C00ull;
    uint32_t m_firmware = 0x0F000000;  // 15.0.0.0
    uint32_t m_bios = 0x08230000;      // 8.35.0.0
    uint16_t m_temperature = 52;
    bool m_responding = true;
    bool m_loopbackFails = false;
    bool m_flashFailsHalfway = false;
    unsigned m_hardResets = 0, m_loopbacks = 0, m_controlOperations = 0;
    unsigned long m_lastRequest = 0;
    std::vector<uint8_t> m_lastBytes;
};

// One expander in the SAS transport class: its PHYs' attributes (the counters and the
// negotiated rate are live), the SAS address, and a reset count.
class SasExpanderModel {
public:
    SasExpanderModel(std::string sysfsName, uint64_t address, int phys);
    struct Phy {
        std::string rate = "Unknown";  // negotiated_linkrate as the kernel prints it
        SasPhyCounters counters;
    };
    const std::string& name() const { return m_name; }
    uint64_t address() const { return m_address; }
    int phyCount() const { return static_cast<int>(m_phys.size()); }
    Phy& phy(int n) { return m_phys.at(static_cast<size_t>(n)); }
    // Faults.
    void injectLinkErrors(int phy, uint32_t invalidDword, uint32_t disparity, uint32_t lossOfSync,
                          uint32_t resetProblem);
    void setClimbingErrors(int phy, uint32_t invalidPerRead, uint32_t disparityPerRead);
    // What a hard reset of the expander does: links renegotiate, counters start again.
    void reset();
    unsigned resets() const { return m_resets; }

private:
    std::string m_name;
    uint64_t m_address;
    std::vector<Phy> m_phys;
    unsigned m_resets = 0;
};

class SasFabric {
public:
    // PCI address of the adapter (the path its sysfs tree hangs from).
    explicit SasFabric(VirtualBoard& board);

    // A SAS disk on a PHY of an expander: /dev/sg<sgIndex>, /sys/block/<block>.
    std::shared_ptr<ScsiDiskModel> addDrive(int expander, int phy, int sgIndex, const std::string& block,
                                            ScsiDiskConfig config = ScsiDiskConfig());

    std::shared_ptr<Sas3008Model> adapter;
    std::vector<std::shared_ptr<SasExpanderModel>> expanders;  // EXP0 (expander-0:0), EXP1
    // The Port ID the enclosure tool reports (1 selects SES register 0x80, 2 0x81).
    int enclosurePort = 1;
    // Calls of the board's tools, for tests: the last argument vectors.
    std::vector<std::string> lastSmpReset, lastSes;

    static constexpr const char* kHost =
        "/sys/devices/pci0000:00/0000:00:01.0/0000:01:00.0/0000:02:01.0/0000:03:00.0/host0";

private:
    void addExpanderTree(int index, const std::string& dir);
    void addPhyAttributes(int expander, int phy, const std::string& dir);
    void addPort(int expander, const std::string& portName, const std::vector<int>& phys);
    void installPrograms();
    int sas3flash(const std::vector<std::string>& argv, std::string* out);
    int smpResetExpander(const std::vector<std::string>& argv, std::string* out);
    int enclosureData(const std::vector<std::string>& argv, std::string* out);
    int expSes(const std::vector<std::string>& argv, std::string* out);

    VirtualBoard& m_board;
    std::vector<std::string> m_expanderDirs;
    int m_nextPort[2] = {0, 0};
};

}  // namespace quarn::vboard
