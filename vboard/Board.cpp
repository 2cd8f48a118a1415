// The simulated board with its device population.
#include "vboard/Board.h"

#include <asm/mce.h>

#include <cerrno>
#include <cstring>

#include "ddapi/processor/ProcessorDDAPI.h"

namespace quarn::vboard {

Board::Board(const std::string& root) : VirtualBoard(root) {
    rtc = std::make_shared<RtcModel>(clock(), epoch());
    addDevice("/dev/rtc0", rtc);

    pit = std::make_shared<Pit8254Model>(clock());
    addPorts(0x40, 4, pit);

    i2c = std::make_unique<I2cBoard>(*this);

    // One Xeon D-1548: 8 cores, 2 threads each.
    processors = std::make_shared<ProcessorComplex>(1, 8, 2);
    processors->install(*this);
    mcelog = std::make_shared<McelogModel>();
    addDevice("/dev/mcelog", mcelog);
    addHostBridge(*this);
    pci = std::make_unique<PciBoard>(*this);
    quarn::registerLibpciSysfsPath(this, hostPath("/sys/bus/pci"));

    // Four 32 GiB registered DIMMs (their SPD images are on the I2C buses); the kernel
    // runs with mem=8G and leaves the rest for the memory tests.
    memory = std::make_unique<MemoryController>(32ULL << 30);
    memory->install(*this, "8G");
    writeMeminfo(*this, 8u << 20, 6u << 20);
    smbios = installBoardFirmware(*this, *i2c);  // DIMMs as the firmware reports them

    // The PLX switch's register windows, with register semantics through /dev/mem.
    for (const PciBoard::Window& w : pci->windows) {
        std::shared_ptr<PlxRegisters> plx = pci->plx;
        memory->memory()->addRegisterWindow(
            w.base, w.length,
            [plx](uint64_t offset, int width) -> uint64_t {
                const uint32_t o = static_cast<uint32_t>(offset);
                if (width == 8) return plx->read(o, 4) | (static_cast<uint64_t>(plx->read(o + 4, 4)) << 32);
                return plx->read(o, width);
            },
            [plx](uint64_t offset, uint64_t value, int width) {
                const uint32_t o = static_cast<uint32_t>(offset);
                if (width == 8) {
                    plx->write(o, static_cast<uint32_t>(value), 4);
                    plx->write(o + 4, static_cast<uint32_t>(value >> 32), 4);
                } else {
                    plx->write(o, static_cast<uint32_t>(value), width);
                }
            });
    }

    nvsram = installNvsram(*this, *pci, *memory->memory());

    // The battery's charge/discharge registers: BAR 0 of 72:00.0.
    installChargeControl(*pci, *memory->memory(), i2c->chargeControl);

    // The SAS3008 behind the switch (03:00.0) with two cascaded expanders and their disks.
    sas = std::make_unique<SasFabric>(*this);
    scsiDisk = sas->addDrive(0, 0x10, 0, "sda");
    {
        ScsiDiskConfig ssd;
        ssd.vendor = "HGST";
        ssd.product = "HUSMM1640ASS204";
        ssd.revision = "A204";
        ssd.serial = "0QV1KX5A";
        ssd.blocks = 781422768ull;  // 400 GB
        ssd.naa = 0x5000CCA04E1A2B30ull;
        ssd.portAddress = 0x5000CCA04E1A2B31ull;
        ssd.rpm = 1;  // non-rotating
        ssd.formFactor = 3;
        ssd.linkRate = 0x0A;  // 6 Gbit/s
        sasDisk2 = sas->addDrive(0, 0x12, 3, "sdd", ssd);
        ScsiDiskConfig second;
        second.serial = "ZC11K7PL0000C8301AB2";
        second.naa = 0x5000C500A1B2D4E0ull;
        second.portAddress = 0x5000C500A1B2D4E1ull;
        sasDisk5 = sas->addDrive(1, 0x15, 4, "sde", second);
    }
    usb = installUsbDevices(*this);
    nvme = installNvmeController(*this, 0, "0000:04:00.0", "pci0000:00/0000:00:01.0/0000:01:00.0/0000:02:02.0/0000:04:00.0");

    // The AHCI controller's ABAR sits at 0xFBF02000 (the address the SATA layer reads its
    // port registers at); two SATA disks on ports 0 and 2. The window covers the whole
    // page, as /dev/mem maps pages: the 2 KB past the BAR read as zero.
    ahci = std::make_shared<AhciControllerModel>(6);
    {
        std::shared_ptr<AhciControllerModel> a = ahci;
        memory->memory()->addRegisterWindow(
            0xFBF02000, 0x1000, [a](uint64_t offset, int width) { return a->read(offset, width); },
            [a](uint64_t offset, uint64_t value, int width) { a->write(offset, value, width); });
    }
    sataDisk0 = installSataDisk(*this, *ahci, 0, 1, "sdb");
    SataDiskConfig second;
    second.model = "ST2000NM0055-1V4104";
    second.serial = "ZC20K7MQ";
    second.firmware = "SN04";
    second.blocks = 3907029168ull;
    second.rpm = 7200;
    sataDisk2 = installSataDisk(*this, *ahci, 2, 2, "sdc", second);

    serial = installSerialPorts(*this);
    tpm = std::make_shared<TpmModel>();
    addDevice("/dev/tpm0", tpm);
    writeFile("/sys/class/tpm/tpm0/tpm_version_major", "2\n");
    ethernet = std::make_unique<EthernetBoard>(*this, *pci, *memory->memory());

    // Chipset GPIO (the slot ID strap and board controls) and the FPGA at 0xFE200000.
    gpio = std::make_shared<PchGpioModel>();
    gpio->install(*this, *pci);
    fpga = std::make_shared<FpgaModel>(0xFE200000u);
    fpga->install(*this, *memory->memory());

    // The root file system lives on the SAS disk.
    writeFile("/proc/mounts", "/dev/sda2 / ext4 rw,relatime 0 0\nproc /proc proc rw,nosuid 0 0\nsysfs /sys sysfs rw 0 0\n");
    writeFile("/proc/version", "Linux version 4.19.0-veltrax-amd64 (quarn virtual board)\n");
}

Board::~Board() { quarn::registerLibpciSysfsPath(this, ""); }

const std::vector<std::pair<std::string, std::string>>& Board::faultList() {
    static const std::vector<std::pair<std::string, std::string>> list = {
        {"rtc-busy", "the clock's node refuses to open (EBUSY)"},
        {"memory-stuck-bit", "bit 5 of the byte at 0x200001238 (testable memory) stuck at 0"},
        {"ecc-errors", "three corrected ECC errors on the DIMM in channel 1, slot 0"},
        {"pci-parity", "switch port 0000:02:02.0 reports a detected parity error"},
        {"machine-check", "an uncorrected machine check logged in bank 4"},
        {"sata-link", "SATA port 2 records a link error in SError"},
        {"sata-hot", "the drive on SATA port 0 runs at 71 C"},
        {"uart3-loop", "the fourth serial port's loop path holds data bit 3 high"},
    };
    return list;
}

bool Board::injectFault(const std::string& name) {
    if (name == "rtc-busy") {
        rtc->faults().openErrno = EBUSY;
    } else if (name == "memory-stuck-bit") {
        memory->memory()->addStuckBit(0x200001238ULL, 5, 0);
    } else if (name == "ecc-errors") {
        memory->addCorrected(1, 0, 3);
    } else if (name == "pci-parity") {
        pci->function("0000:02:02.0")->raise(0x06, 0x8000, 2);
    } else if (name == "machine-check") {
        struct mce m;
        memset(&m, 0, sizeof m);
        m.status = (1ULL << 63) | (1ULL << 61);  // valid, uncorrected
        m.bank = 4;
        mcelog->log(m);
    } else if (name == "sata-link") {
        ahci->raiseSError(2, 0x00000002);
    } else if (name == "sata-hot") {
        sataDisk0->setDriveTemperature(71);
    } else if (name == "uart3-loop") {
        serial.uart[3]->setLoopbackStuckHigh(0x08);
    } else {
        return false;
    }
    return true;
}

}  // namespace quarn::vboard
