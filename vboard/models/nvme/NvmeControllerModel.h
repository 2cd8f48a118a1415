// An NVMe controller with one namespace, as the Linux nvme driver shows it: the
// controller's character node (/dev/nvmeN) and the namespace's block node (/dev/nvmeNn1)
// answering the pass-through requests, the sysfs links that tie both to the PCI function,
// and the register block at the start of BAR0. Commands are decoded from the submission
// entry's dwords as the NVMe Base Specification lays them out: Identify, Get Log Page
// (error information, SMART / Health, firmware slots), Firmware Image Download and
// Commit, Format NVM, and the I/O commands Read, Write, Write Zeroes and Flush. The
// namespace node also serves SCSI READ/WRITE over SG_IO (the board's driver translates).
#pragma once

#include <sys/ioctl.h>
#include <linux/nvme_ioctl.h>

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "vboard/DeviceModel.h"
#include "vboard/models/scsi/BlockTarget.h"

namespace quarn::vboard {

class VirtualBoard;
class VirtualClock;

struct NvmeConfig {
    std::string serial = "CVFT6123004Y400BGN";
    std::string model = "INTEL SSDPEDMD400G4";
    std::string firmware = "8DV10171";
    uint64_t bytes = 400088457216ull;  // 400 GB
    bool namespaceAttached = true;
    uint64_t commandOverheadNs = 20000;        // per command
    uint64_t mediaBytesPerSecond = 2000000000; // 2 GB/s
};

class NvmeControllerModel {
public:
    NvmeControllerModel(NvmeConfig config, VirtualClock* clock, const std::string& mediaHostPath,
                        const std::string& barHostPath);

    // Pass-through entry points; the return value is what the ioctl returns: 0, the
    // status field (type << 8 | code) of a failed command, or -1 with errno.
    int admin(nvme_passthru_cmd* cmd);
    int io(nvme_passthru_cmd* cmd);
    // NVME_IOCTL_RESET: a controller reset; a firmware slot set for activation at reset
    // becomes the running one.
    int reset();
    int executeScsi(sg_io_hdr* io, bool writable);
    // Serialises the controller between its nodes' handles.
    std::mutex& mutex() { return m_lock; }

    // Fault injection.
    // The next `times` commands with this opcode (admin or I/O) complete with status,
    // without doing their work.
    void injectStatus(bool adminQueue, uint8_t opcode, uint16_t status, unsigned times = 1);
    // Reads covering lba fail with Unrecovered Read Error until it is written.
    void addUnreadableBlock(uint64_t lba) { m_unreadable.insert(lba); }
    // Every Firmware Commit that replaces an image fails with Invalid Firmware Image.
    void rejectFirmwareAtCommit(bool reject) { m_rejectFirmware = reject; }
    void setTemperatureKelvin(uint16_t kelvin) { m_temperature = kelvin; }

    // Observation.
    const std::string& runningFirmware() const;
    uint32_t blockSize() const;
    uint64_t blockCount() const;
    bool namespaceAttached() const { return m_config.namespaceAttached; }
    const std::string& mediaPath() const { return m_media.path(); }
    uint64_t commandCount(bool adminQueue, uint8_t opcode) const;
    const nvme_passthru_cmd& lastCommand() const { return m_last; }
    // Firmware image of this controller: "VTXF", the 8-byte revision, then any payload,
    // padded to whole dwords, with a last dword making the sum of all dwords 0.
    static std::vector<uint8_t> makeFirmwareImage(const std::string& revision, size_t payload);
    void setNamespaceDirectory(const std::string& hostDir) { m_namespaceDir = hostDir; }
    // Rewrites the namespace's size and block-size attributes (after a format).
    void writeNamespaceAttributes();

private:
    class Medium;
    int complete(bool adminQueue, const nvme_passthru_cmd& cmd, uint16_t status, uint64_t lba = 0);
    int identify(nvme_passthru_cmd* cmd);
    int getLogPage(nvme_passthru_cmd* cmd);
    int firmwareDownload(nvme_passthru_cmd* cmd);
    int firmwareCommit(nvme_passthru_cmd* cmd);
    int format(nvme_passthru_cmd* cmd);
    int readWrite(nvme_passthru_cmd* cmd, bool write);
    int writeZeroes(nvme_passthru_cmd* cmd);
    std::vector<uint8_t> identifyController() const;
    std::vector<uint8_t> identifyNamespace() const;
    std::vector<uint8_t> smartLog() const;
    std::vector<uint8_t> errorLog(size_t bytes) const;
    std::vector<uint8_t> firmwareLog() const;
    bool readMedium(uint64_t lba, uint32_t count, uint8_t* out, uint64_t* bad);
    bool writeMedium(uint64_t lba, uint32_t count, const uint8_t* in);
    void charge(uint64_t bytes);
    void writeRegisters();
    static int copyOut(nvme_passthru_cmd* cmd, const std::vector<uint8_t>& data);

    struct ErrorEntry {
        uint64_t count;
        uint16_t sqid, cmdid, status;
        uint64_t lba;
        uint32_t nsid;
    };

    NvmeConfig m_config;
    VirtualClock* m_clock;
    MediaFile m_media;
    std::string m_barPath;
    std::unique_ptr<Medium> m_scsi;
    unsigned m_lbaFormat = 0;  // 0: 512-byte blocks, 1: 4096-byte blocks
    std::set<uint64_t> m_unreadable;
    std::map<uint32_t, std::deque<uint16_t>> m_injected;  // queue << 8 | opcode
    bool m_rejectFirmware = false;
    uint16_t m_temperature = 308;
    // Firmware: slots 1-3 (slot 1 read-only), the running and the next-reset slot.
    std::string m_slots[3];
    unsigned m_running = 1;
    unsigned m_nextReset = 0;
    std::vector<uint8_t> m_staged;
    // SMART / Health counters.
    uint64_t m_unitsRead512 = 0, m_unitsWritten512 = 0;
    uint64_t m_hostReads = 0, m_hostWrites = 0;
    uint64_t m_busyNs = 0;
    uint64_t m_powerCycles = 23, m_powerOnHours = 4711, m_unsafeShutdowns = 3;
    uint64_t m_mediaErrors = 0;
    std::deque<ErrorEntry> m_errors;  // newest first
    uint64_t m_errorCount = 0;
    uint16_t m_nextCommandId = 1;
    std::map<uint32_t, uint64_t> m_commandCounts;
    nvme_passthru_cmd m_last{};
    std::string m_namespaceDir;  // host path of the namespace's sysfs directory
    std::mutex m_lock;
};

// The character node of the controller.
class NvmeCharNode : public DeviceModel {
public:
    explicit NvmeCharNode(std::shared_ptr<NvmeControllerModel> c) : m_controller(std::move(c)) {}
    std::unique_ptr<FileHandle> open(int flags) override;
    NvmeControllerModel& controller() { return *m_controller; }

private:
    std::shared_ptr<NvmeControllerModel> m_controller;
};

// The namespace's block node.
class NvmeNamespaceNode : public DeviceModel {
public:
    explicit NvmeNamespaceNode(std::shared_ptr<NvmeControllerModel> c) : m_controller(std::move(c)) {}
    std::unique_ptr<FileHandle> open(int flags) override;
    bool isBlockDevice() const override { return true; }

private:
    std::shared_ptr<NvmeControllerModel> m_controller;
};

// Puts controller `index` on the board for the PCI function at pciAddress (whose sysfs
// directory the PCI model made): /dev/nvmeN, /dev/nvmeNn1, /sys/class/nvme/nvmeN,
// /sys/block/nvmeNn1 and the registers in the function's resource0. pciPath is the
// function's place in /sys/devices (e.g. "pci0000:00/0000:00:01.0/.../0000:04:00.0").
std::shared_ptr<NvmeControllerModel> installNvmeController(VirtualBoard& board, int index,
                                                           const std::string& pciAddress,
                                                           const std::string& pciPath,
                                                           NvmeConfig config = NvmeConfig());

}  // namespace quarn::vboard
