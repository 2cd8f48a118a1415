// USB devices of the board behind the xHCI controller.
#include "vboard/models/usb/UsbModels.h"

#include <fcntl.h>
#include <scsi/sg.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "vboard/VirtualBoard.h"
#include "vboard/models/scsi/SgHandle.h"

namespace quarn::vboard {

UsbDiskModel::UsbDiskModel(UsbDiskConfig config, VirtualClock* clock, const std::string& mediaHostPath)
    : m_config(std::move(config)), m_clock(clock), m_media(mediaHostPath, m_config.sectors * 512) {}

std::unique_ptr<FileHandle> UsbDiskModel::open(int flags) {
    return std::make_unique<SgHandle<UsbDiskModel, &UsbDiskModel::execute>>(*this, (flags & O_ACCMODE) != O_RDONLY);
}

int UsbDiskModel::execute(sg_io_hdr* io, bool writable) {
    ++m_commands;
    if (io->cmdp) memcpy(m_lastCdb, io->cmdp, std::min<size_t>(io->cmd_len, sizeof(m_lastCdb)));
    return executeBlockCommand(io, writable, *this);
}

bool UsbDiskModel::readBlocks(uint64_t lba, uint32_t count, uint8_t* out, uint64_t* bad) {
    auto it = m_unreadable.lower_bound(lba);
    if (it != m_unreadable.end() && *it < lba + count) {
        *bad = *it;
        return false;
    }
    return m_media.read(lba * 512, out, static_cast<size_t>(count) * 512);
}

bool UsbDiskModel::writeBlocks(uint64_t lba, uint32_t count, const uint8_t* in) {
    m_unreadable.erase(m_unreadable.lower_bound(lba), m_unreadable.lower_bound(lba + count));
    return m_media.write(lba * 512, in, static_cast<size_t>(count) * 512);
}

void UsbDiskModel::charge(uint64_t bytes) {
    if (m_clock)
        m_clock->advanceNs(m_config.commandOverheadNs + bytes * 1000000000ull / std::max<uint64_t>(1, m_config.mediaBytesPerSecond));
}

namespace {

const char* const kController = "/sys/devices/pci0000:00/0000:00:14.0";

std::string relativeTarget(const std::string& linkDir, const std::string& target) {
    return std::filesystem::path(target).lexically_relative(linkDir).string();
}

// A USB device directory with the attributes of its device descriptor.
void usbDevice(VirtualBoard& board, const std::string& name, const std::string& manufacturer,
               const std::string& product, const std::string& serial, const std::string& version,
               const std::string& speed, const std::string& idVendor, const std::string& idProduct) {
    const std::string dir = std::string(kController) + "/usb1/" + name;
    board.writeFile(dir + "/manufacturer", manufacturer + "\n");
    board.writeFile(dir + "/product", product + "\n");
    if (!serial.empty()) board.writeFile(dir + "/serial", serial + "\n");
    board.writeFile(dir + "/version", version + "\n");
    board.writeFile(dir + "/speed", speed + "\n");
    board.writeFile(dir + "/idVendor", idVendor + "\n");
    board.writeFile(dir + "/idProduct", idProduct + "\n");
    board.writeFile(dir + "/bDeviceClass", "00\n");
    board.makeSymlink(relativeTarget("/sys/bus/usb/devices", dir), "/sys/bus/usb/devices/" + name);
}

// An interface directory (attributes in hex, as the kernel prints them) bound to driver.
void usbInterface(VirtualBoard& board, const std::string& device, const std::string& name, int cls, int subclass,
                  int protocol, const std::string& driver) {
    const std::string dir = std::string(kController) + "/usb1/" + device + "/" + name;
    char hex[8];
    snprintf(hex, sizeof(hex), "%02x\n", cls);
    board.writeFile(dir + "/bInterfaceClass", hex);
    snprintf(hex, sizeof(hex), "%02x\n", subclass);
    board.writeFile(dir + "/bInterfaceSubClass", hex);
    snprintf(hex, sizeof(hex), "%02x\n", protocol);
    board.writeFile(dir + "/bInterfaceProtocol", hex);
    board.makeSymlink(relativeTarget("/sys/bus/usb/devices", dir), "/sys/bus/usb/devices/" + name);
    const std::string drv = "/sys/bus/usb/drivers/" + driver;
    board.makeSymlink(relativeTarget(drv, dir), drv + "/" + name);
    board.makeSymlink(relativeTarget(dir, drv), dir + "/driver");
}

void driverDirectory(VirtualBoard& board, const std::string& driver) {
    const std::string drv = "/sys/bus/usb/drivers/" + driver;
    board.writeFile(drv + "/bind", "");
    board.writeFile(drv + "/unbind", "");
    board.writeFile(drv + "/new_id", "");
    board.writeFile("/sys/module/" + driver + "/refcnt", "1\n");
    board.makeSymlink(relativeTarget(drv, "/sys/module/" + driver), drv + "/module");
}

}  // namespace

UsbTree installUsbDevices(VirtualBoard& board, UsbDiskConfig config) {
    UsbTree tree;
    board.writeFile(std::string(kController) + "/usb1/version", " 3.00\n");
    board.writeFile(std::string(kController) + "/usb1/speed", "5000\n");
    board.makeSymlink(relativeTarget("/sys/bus/usb/devices", std::string(kController) + "/usb1"), "/sys/bus/usb/devices/usb1");
    driverDirectory(board, "usbhid");
    driverDirectory(board, "usb-storage");

    // Port 1: the mass-storage stick, SCSI host 6.
    usbDevice(board, "1-1", config.manufacturer, config.product, config.serial, " 2.00", "480", "0781", "5567");
    usbInterface(board, "1-1", "1-1:1.0", 8, 6, 0x50, "usb-storage");
    const std::string lun = std::string(kController) + "/usb1/1-1/1-1:1.0/host6/target6:0:0/6:0:0:0";
    board.writeFile(lun + "/vendor", config.manufacturer + "\n");
    board.writeFile(lun + "/model", config.product + "\n");
    board.writeFile(lun + "/scsi_generic/sg5/dev", "21:5\n");
    const std::string block = lun + "/block/sdf";
    board.writeFile(block + "/size", std::to_string(config.sectors) + "\n");
    board.writeFile(block + "/removable", "1\n");
    board.writeFile(block + "/queue/logical_block_size", "512\n");
    board.writeFile(block + "/queue/physical_block_size", "512\n");
    board.makeSymlink(relativeTarget(block, lun), block + "/device");
    board.makeSymlink(relativeTarget("/sys/block", block), "/sys/block/sdf");
    tree.disk = std::make_shared<UsbDiskModel>(config, &board.clock(), board.hostPath("/var/lib/vboard/media/sdf.img"));
    board.addDevice("/dev/sg5", tree.disk);
    board.addDevice("/dev/sdf", std::make_shared<UsbBlockNode>(tree.disk));

    // Port 2: a keyboard with its boot interface and a consumer-control interface.
    usbDevice(board, "1-2", "Dell", "Dell USB Entry Keyboard", "", " 1.10", "1.5", "413c", "2113");
    usbInterface(board, "1-2", "1-2:1.0", 3, 1, 1, "usbhid");
    usbInterface(board, "1-2", "1-2:1.1", 3, 0, 0, "usbhid");
    // Port 3: a mouse.
    usbDevice(board, "1-3", "Logitech", "USB Optical Mouse", "", " 2.00", "1.5", "046d", "c077");
    usbInterface(board, "1-3", "1-3:1.0", 3, 1, 2, "usbhid");
    return tree;
}

}  // namespace quarn::vboard
