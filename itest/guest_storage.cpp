// Guest checks of the NVMe, USB and storage layers against QEMU's NVMe controller, its
// xHCI with a usb-storage disk, a keyboard and a mouse, and the drive list built over them.
#include <fcntl.h>
#include <sys/mman.h>

#include <cstring>
#include <list>
#include <string>
#include <vector>

#include "dapi/nvme/NVMeDAPI.h"
#include "dapi/storage/StorageDAPI.h"
#include "dapi/usb/USBDAPI.h"
#include "itest/GuestCheck.h"

namespace {

using namespace itest;

std::string field(const char* p, size_t n) {
    std::string s(p, strnlen(p, n));
    while (!s.empty() && s.back() == ' ') s.pop_back();
    return s;
}

// What QEMU answered to a command: "accepted" or the rendered chain.
std::string answer(ErrorMsg* e) {
    const std::string t = take(e);
    return t.empty() ? "accepted" : t;
}

void nvmeChecks() {
    part("NVMe: QEMU nvme behind the x3130 switch");
    NVMeDAPI nvme("NVMeDAPI");
    const std::string notes = take(nvme.getErrorMsg());
    std::vector<NVMe_DEVICE_INFO> list;
    if (!ok("nvme list", nvme.getInformationList(&list))) return;
    if (list.empty()) {
        fail("nvme controller found", notes.empty() ? "no class 0x0108 function" : notes);
        return;
    }
    const NVMe_DEVICE_INFO& c = list[0];
    expect("nvme nodes", c.name == "NVME0" && c.deviceNode == "/dev/nvme0" && c.blockNode == "/dev/nvme0n1",
           c.name + " " + c.deviceNode + " " + c.blockNode + " at " + c.pciAddress);
    nvme_id_ctrl id;
    if (ok("nvme identify controller", nvme.getIdentityCTRLByController(0, &id)))
        expect("nvme identify serial and model", field(id.sn, 20) == "QUARN0001" && !field(id.mn, 40).empty(),
               field(id.sn, 20) + " / " + field(id.mn, 40));
    nvme_id_ns ns;
    if (ok("nvme identify namespace", nvme.getIdentityNSByController(0, &ns)))
        expect("nvme namespace size", ns.nsze << ns.lbaf[ns.flbas & 0xF].ds == 64ull << 20,
               std::to_string(ns.nsze) + " blocks of 2^" + std::to_string(ns.lbaf[ns.flbas & 0xF].ds));
    int nsid = 0;
    if (ok("nvme namespace ID", nvme.getNameSpaceIDByController(0, &nsid))) expect("nvme namespace ID is 1", nsid == 1, std::to_string(nsid));
    nvme_smart_log smart;
    if (ok("nvme SMART log", nvme.getSmartLogByController(0, &smart))) {
        const int k = smart.temperature[0] | smart.temperature[1] << 8;
        expect("nvme SMART temperature", k > 273 && k < 400, std::to_string(k) + " K");
    }
    nvme_error_log_page err;
    ok("nvme error log", nvme.getErrorLogByController(0, &err));
    nvme_firmware_log_page fw;
    if (ok("nvme firmware log", nvme.getFirmwareLogByController(0, &fw)))
        expect("nvme firmware log names the running slot", (fw.afi & 7) >= 1, "afi " + hex(fw.afi));

    // Write Zeroes over data just written through the block node.
    std::vector<char> data(4096, 'Q');
    quarn::Platform& p = quarn::platform();
    int fd = p.open("/dev/nvme0n1", O_RDWR | O_SYNC);
    const bool wrote = fd >= 0 && p.pwrite(fd, data.data(), data.size(), 1 << 20) == 4096;
    if (fd >= 0) p.close(fd);
    if (ok("nvme write zeroes", nvme.writeZeroByController(0, (1 << 20) / 512, 7))) {
        fd = p.open("/dev/nvme0n1", O_RDONLY | O_DIRECT);
        void* back = nullptr;
        bool zero = false;
        if (fd >= 0 && posix_memalign(&back, 4096, 4096) == 0) {
            zero = p.pread(fd, back, 4096, 1 << 20) == 4096 && static_cast<char*>(back)[0] == 0 &&
                   static_cast<char*>(back)[4095] == 0;
        }
        free(back);
        if (fd >= 0) p.close(fd);
        expect("nvme write zeroes cleared the blocks", wrote && zero, wrote ? "data still there" : "could not write first");
    }
    NVMeFormatArgument f{1, 0, 0, 0, 0, 0};
    ok("nvme format NVM (LBA format 0)", nvme.formatByController(0, f));

    // Firmware: QEMU's answers are reported, whichever they are.
    const std::string image = "/tmp/nvme-fw.bin";
    quarn::writeScratchFile(image, std::string(4096, '\x5A'));
    const std::string download = answer(nvme.downloadFirmwareByController(0, image.c_str()));
    const std::string commit = answer(nvme.activateFirmwareByController(0, nvme_fw_active{2, 0}));
    pass("nvme firmware download: QEMU " + download);
    pass("nvme firmware commit: QEMU " + commit);
    expect("nvme firmware answers are NVMe status codes", (download == "accepted" || download.find("NVME ioctl") != std::string::npos) &&
           (commit == "accepted" || commit.find("NVME ioctl") != std::string::npos), download + " / " + commit);

    ok("nvme controller reset", nvme.resetNVMe(0));
    nvme_bar* bar = nullptr;
    if (ok("nvme BAR0 mapped", nvme.getBarResourceByController(0, &bar)) && bar) {
        expect("nvme BAR0 version and ready", bar->vs >= 0x00010000 && (bar->csts & 1), "VS " + hex(bar->vs) + " CSTS " + hex(bar->csts));
        p.munmap(bar, static_cast<size_t>(p.pageSize()));
    }
    const std::string bad = take(nvme.resetNVMe(1));
    expect("nvme controller 1 refused", bad.find("Bad NVME logical ID") != std::string::npos, bad);
}

void usbChecks() {
    part("USB: xHCI with usb-storage, usb-kbd and usb-mouse");
    USBDAPI usb("USBDAPI");
    std::list<std::string> names;
    if (!ok("usb list", usb.displayUSBDevicesList(&names))) return;
    std::string all;
    for (const std::string& n : names) all += n + " ";
    expect("usb keyboard, mouse and disk named", all == "KEYBOARD0 MOUSE0 USB0 ", all);
    uint32_t id = 0;
    if (!ok("usb USB0 found", usb.getLogicalIdByName("usb0", &id))) return;
    auto element = [&](USB_DATA_ELEMENT e) {
        std::list<std::string> out;
        const std::string t = take(usb.getDataByID(id, e, &out));
        return !t.empty() ? "error: " + t : out.empty() ? "" : out.front();
    };
    const std::string node = element(USB_DATA_DEVICE_NODE);
    expect("usb disk node", node.rfind("/dev/sd", 0) == 0, node);
    expect("usb disk size", element(USB_DATA_SIZE) == "64.00", element(USB_DATA_SIZE));
    expect("usb disk SG node", element(USB_DATA_SG_NODE).rfind("/dev/sg", 0) == 0, element(USB_DATA_SG_NODE));
    expect("usb disk block size", element(USB_DATA_LOGICAL_BLOCK_SIZE) == "512", element(USB_DATA_LOGICAL_BLOCK_SIZE));
    pass("usb disk speed " + element(USB_DATA_SPEED) + " Mb/s, version" + element(USB_DATA_VERSION) + ", maker " +
         element(USB_DATA_MANUFACTURER));
    uint32_t kbd = 0;
    if (ok("usb KEYBOARD0 found", usb.getLogicalIdByName("keyboard0", &kbd))) {
        std::list<std::string> out;
        ok("usb keyboard node", usb.getDataByID(kbd, USB_DATA_DEVICE_NODE, &out));
        expect("usb keyboard has no node", !out.empty() && out.front() == "None", out.empty() ? "" : out.front());
    }
    std::list<std::string> result;
    if (ok("usb read/write test 1 MiB at LBA 4096", usb.readwriteTest(id, &result, 4096, 1 << 20, 65536)))
        expect("usb read/write test result lines", result.size() == 2 && result.back().rfind("Speed: ", 0) == 0,
               result.empty() ? "" : result.back());
    result.clear();
    ok("usb read performance 2 MiB", usb.readPerformanceTest(id, &result, 0, 2 << 20, 131072));
    result.clear();
    ok("usb write performance 1 MiB at LBA 8192", usb.writePerformanceTest(id, &result, 8192, 1 << 20, 65536));
    const std::string range = take(usb.readPerformanceTest(id, &result, 0, 65ull << 20, 65536));
    expect("usb test beyond the disk refused", range.find("out of range") != std::string::npos, range);
}

void storageChecks() {
    part("Storage: the drive list and the storage tests");
    StorageDAPI storage("StorageDAPI");
    const std::string notes = take(storage.getErrorMsg());
    if (!notes.empty()) skip("storage list notes", notes);
    const std::vector<StorageDrive>& drives = storage.device()->drives();
    std::string listing;
    int nvme = -1, usb = -1;
    for (const StorageDrive& d : drives) {
        listing += std::to_string(d.logicalID) + ":" + d.driveName + " ";
        if (d.controllerType == STORAGE_TYPE_NVME && nvme < 0) nvme = static_cast<int>(d.logicalID);
        if (d.controllerType == STORAGE_TYPE_USB && usb < 0) usb = static_cast<int>(d.logicalID);
    }
    expect("storage list holds NVME0 and USB0, NVMe first", nvme >= 0 && usb > nvme, listing);
    if (usb >= 0) {
        std::string report;
        if (ok("storage USB report", storage.getDataByID(static_cast<unsigned>(usb), STORAGE_DATA_REPORT, &report)))
            expect("storage USB report capacity", report.find("Capacity            : 64 MB") != std::string::npos, report);
        ok("storage read test on USB0 (2 MB)", storage.readPerformanceTest(static_cast<unsigned>(usb), 0, 2, true));
        ok("storage verify test on USB0 (1 MB at LBA 16384)", storage.readwriteTest(static_cast<unsigned>(usb), 16384, 1, true));
        pass("storage defects on USB0: " + answer(storage.getPGListByID(static_cast<unsigned>(usb), 1, 1, 5, true)));
    }
    if (nvme >= 0) {
        if (ok("storage SMART of NVME0", storage.getSMARTInfoByID(static_cast<unsigned>(nvme))))
            expect("storage NVMe SMART text", storage.getResultText().rfind("Smart Log for NVME device: NVME0", 0) == 0,
                   storage.getResultText().substr(0, 60));
        // The kernel's NVMe driver has no SCSI translation: SG_IO on the namespace fails.
        const std::string r = take(storage.readPerformanceTest(static_cast<unsigned>(nvme), 0, 1, true));
        if (r.empty()) pass("storage read test on NVME0");
        else skip("storage read test on NVME0", "this kernel's nvme driver does not translate SCSI: " + r);
    }
}

RegisterGuestPart regNvme("nvme", nvmeChecks);
RegisterGuestPart regUsb("usb", usbChecks);
RegisterGuestPart regStorage("storage", storageChecks);

}  // namespace
