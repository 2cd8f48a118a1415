// USB devices of the board behind the xHCI controller (00:14.0) as the kernel shows them:
// the device and interface directories in sysfs with their descriptors' attributes, the
// usbhid and usb-storage driver bindings, and a mass-storage disk whose SCSI side (sd
// and sg nodes) is a direct-access target over a medium file.
#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>

#include "vboard/DeviceModel.h"
#include "vboard/models/scsi/BlockTarget.h"

struct sg_io_hdr;

namespace quarn::vboard {

class VirtualBoard;
class VirtualClock;

struct UsbDiskConfig {
    std::string manufacturer = "SanDisk";
    std::string product = "Cruzer Blade";
    std::string serial = "4C530001230817116082";
    std::string revision = "1.00";
    uint64_t sectors = 31260672;  // 16 GB in 512-byte sectors
    uint64_t commandOverheadNs = 250000;  // bulk-only transport: CBW, data, CSW
    uint64_t mediaBytesPerSecond = 35000000;  // high speed, 480 Mb/s
};

// The disk's SCSI target (both its /dev/sdX and /dev/sgN open into it).
class UsbDiskModel : public DeviceModel, private BlockMedium {
public:
    UsbDiskModel(UsbDiskConfig config, VirtualClock* clock, const std::string& mediaHostPath);
    std::unique_ptr<FileHandle> open(int flags) override;
    int execute(sg_io_hdr* io, bool writable);

    // Fault model: reads covering lba fail with MEDIUM ERROR 11/00 until it is written.
    void addUnreadableBlock(uint64_t lba) { m_unreadable.insert(lba); }
    uint64_t commandCount() const { return m_commands; }
    const uint8_t* lastCdb() const { return m_lastCdb; }
    const std::string& mediaPath() const { return m_media.path(); }
    const UsbDiskConfig& config() const { return m_config; }

private:
    uint32_t blockSize() const override { return 512; }
    uint64_t blockCount() const override { return m_config.sectors; }
    bool readBlocks(uint64_t lba, uint32_t count, uint8_t* out, uint64_t* bad) override;
    bool writeBlocks(uint64_t lba, uint32_t count, const uint8_t* in) override;
    void charge(uint64_t bytes) override;
    std::string vendor() const override { return m_config.manufacturer; }
    std::string product() const override { return m_config.product; }
    std::string revision() const override { return m_config.revision; }
    std::string serial() const override { return m_config.serial; }

    UsbDiskConfig m_config;
    VirtualClock* m_clock;
    MediaFile m_media;
    std::set<uint64_t> m_unreadable;
    uint64_t m_commands = 0;
    uint8_t m_lastCdb[16] = {};
};

// The disk's block node (a block device; the sd driver serves SG_IO on it too).
class UsbBlockNode : public DeviceModel {
public:
    explicit UsbBlockNode(std::shared_ptr<UsbDiskModel> disk) : m_disk(std::move(disk)) {}
    std::unique_ptr<FileHandle> open(int flags) override { return m_disk->open(flags); }
    bool isBlockDevice() const override { return true; }

private:
    std::shared_ptr<UsbDiskModel> m_disk;
};

struct UsbTree {
    std::shared_ptr<UsbDiskModel> disk;  // 1-1: /dev/sdf, /dev/sg5
};

// Root hub usb1 with a mass-storage stick on port 1 (sdf, sg5), a keyboard on port 2
// (boot keyboard interface and a consumer-control interface) and a mouse on port 3.
UsbTree installUsbDevices(VirtualBoard& board, UsbDiskConfig disk = UsbDiskConfig());

}  // namespace quarn::vboard
