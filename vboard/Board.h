// The simulated board with its device population. A new model is one member and one
// line in the constructor.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "vboard/VirtualBoard.h"
#include "vboard/models/ethernet/EthernetBoard.h"
#include "vboard/models/fpga/FpgaModel.h"
#include "vboard/models/gpio/PchGpioModel.h"
#include "vboard/models/i2c/I2cBoard.h"
#include "vboard/models/memory/MemoryController.h"
#include "vboard/models/nvme/NvmeControllerModel.h"
#include "vboard/models/pci/PciModels.h"
#include "vboard/models/rtc/Pit8254Model.h"
#include "vboard/models/processor/ProcessorModels.h"
#include "vboard/models/rtc/RtcModel.h"
#include "vboard/models/sas/SasModels.h"
#include "vboard/models/scsi/ScsiDiskModel.h"
#include "vboard/models/sata/AhciControllerModel.h"
#include "vboard/models/sata/SataDiskModel.h"
#include "vboard/models/memory/SmbiosModel.h"
#include "vboard/models/tpm/TpmModel.h"
#include "vboard/models/uart/Uart16550Model.h"
#include "vboard/models/nvsram/NvsramModel.h"
#include "vboard/models/usb/UsbModels.h"

namespace quarn::vboard {

class Board : public VirtualBoard {
public:
    explicit Board(const std::string& root = "");
    ~Board() override;

    // The board's named faults (name, what breaks), as the tool's --fault option and the
    // demonstrations switch them on; the board is healthy until one is injected.
    static const std::vector<std::pair<std::string, std::string>>& faultList();
    bool injectFault(const std::string& name);

    std::shared_ptr<RtcModel> rtc;
    std::shared_ptr<Pit8254Model> pit;
    std::unique_ptr<I2cBoard> i2c;
    std::shared_ptr<ProcessorComplex> processors;
    std::shared_ptr<McelogModel> mcelog;
    std::unique_ptr<MemoryController> memory;  // /dev/mem, memmap, EDAC, memory.conf
    std::unique_ptr<PciBoard> pci;  // PCI hierarchy, config mechanism #1, PLX registers
    std::unique_ptr<SasFabric> sas;  // SAS3008 (/dev/mpt3ctl), expanders EXP0/EXP1, SAS tools
    std::shared_ptr<ScsiDiskModel> scsiDisk;   // SAS1-DRIVE0 (EXP0 PHY 16): /dev/sg0, sda
    std::shared_ptr<ScsiDiskModel> sasDisk2;   // SAS1-DRIVE2 (EXP0 PHY 18, 6 Gbit/s SSD): /dev/sg3, sdd
    std::shared_ptr<ScsiDiskModel> sasDisk5;   // SAS1-DRIVE5 (EXP1 PHY 21): /dev/sg4, sde
    std::shared_ptr<AhciControllerModel> ahci;  // 00:1f.2 ABAR registers (6 ports)
    std::shared_ptr<SataDiskModel> sataDisk0;   // SATA0 port 0: /dev/sg1, sdb
    std::shared_ptr<SataDiskModel> sataDisk2;   // SATA0 port 2: /dev/sg2, sdc
    std::shared_ptr<NvmeControllerModel> nvme;  // 04:00.0: /dev/nvme0, /dev/nvme0n1
    UsbTree usb;  // xHCI 00:14.0: a USB stick (/dev/sdf, /dev/sg5), a keyboard and a mouse
    std::unique_ptr<SmbiosFirmware> smbios;  // SMBIOS memory devices, dmidecode, decode-dimms
    SerialPorts serial;  // 16550A at 0x3F8/0x2F8/0x3E8/0x2E8 (/dev/ttyS0-3), ttyS4 without UART
    std::shared_ptr<TpmModel> tpm;  // TPM 2.0 (libtpms) behind /dev/tpm0
    std::unique_ptr<EthernetBoard> ethernet;  // I210, X552, XL710, EP8324 ports, cables, NIC programs
    std::shared_ptr<PchGpioModel> gpio;  // PCH GPIO block at the LPC bridge's base, GPIO profile
    std::shared_ptr<FpgaModel> fpga;     // FPGA block (base ports 0x700/0x701), controller lamps
    std::shared_ptr<NvsramModel> nvsram;     // 00:04.0, SRAM at BAR 1 with its non-volatile array
};

}  // namespace quarn::vboard
