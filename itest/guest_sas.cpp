// Guest checks of the SAS adapter and expander layers. QEMU's SAS adapter is the LSI
// SAS1068 (mptsas): it is an LSI SAS function on PCI, but its driver has no mpt3ctl node
// and it has no expanders. So the guest proves what a real kernel gives: the adapter list
// fails as a clean chain naming the missing node, the expander layer lists nothing, and
// the SAS transport attributes the expander code reads exist with the names and texts it
// expects (on the adapter's own PHYs and end device).
#include <string>
#include <vector>

#include "dapi/expander/ExpanderDAPI.h"
#include "dapi/sas/SASDAPI.h"
#include "itest/GuestCheck.h"

namespace {

using namespace itest;

bool isNumber(const std::string& s) {
    if (s.empty()) return false;
    for (char c : s)
        if (c < '0' || c > '9') return false;
    return true;
}

void runSasChecks() {
    part("SAS: SAS1068 (mptsas) adapter, SAS transport class, no mpt3ctl, no expanders");
    // The LSI SAS functions on the guest's bus (vendor 0x1000, class 0x0107).
    std::string adapter;
    for (const std::string& f : names("/sys/bus/pci/devices")) {
        const std::string d = "/sys/bus/pci/devices/" + f;
        if (readText(d + "/vendor") == "0x1000" && readText(d + "/class").compare(0, 6, "0x0107") == 0) adapter = f;
    }
    if (adapter.empty()) {
        skip("sas.adapter", "no LSI SAS function in the guest");
    } else {
        pass("sas.adapter-on-pci " + adapter);
        if (exists("/dev/mpt3ctl")) {
            skip("sas.missing-node", "/dev/mpt3ctl exists in this guest");
        } else {
            SASDAPI sas("SASDAPI");
            std::vector<SAS_CONTROLLER_INFO> list;
            ErrorMsg* e = sas.getInformationList(&list);
            ERRORCODE head = e ? e->getErrorCode() : 0, tail = 0;
            for (ErrorMsg* r = e; r; r = r->getNextErrorMsg()) tail = r->getErrorCode();
            const std::string text = take(e);
            expect("sas.missing-mpt3ctl-is-a-chain", head == 0xC7041400 && tail == 0xC7080803 &&
                                                          text.find("/dev/mpt3ctl: No such file or directory") !=
                                                              std::string::npos,
                   text.empty() ? "no chain" : text);
            unsigned int celsius = 0;
            e = sas.getTemperatureByController(0, &celsius);
            head = e ? e->getErrorCode() : 0;
            const std::string t = take(e);
            expect("sas.temperature-without-node", head == 0xC7041800, t.empty() ? "no chain" : t);
        }
        // The drive list's rule: a drive's /sys/block link passes through its adapter.
        bool linked = false;
        for (const std::string& b : names("/sys/block")) {
            std::string link;
            if (quarn::platform().readlink("/sys/block/" + b, &link) == 0 && link.find(adapter) != std::string::npos &&
                link.find("/end_device-") != std::string::npos) {
                linked = true;
                printf("INFO %s -> %s\n", b.c_str(), link.c_str());
            }
        }
        expect("sas.block-link-through-adapter-and-end-device", linked, "no /sys/block entry under " + adapter);
    }

    // SAS transport attributes as the kernel names and prints them.
    const std::vector<std::string> phys = names("/sys/class/sas_phy");
    if (phys.empty()) {
        skip("sas.transport-phy-attributes", "no sas_phy class");
    } else {
        unsigned up = 0, counters = 0;
        std::string bad;
        for (const std::string& p : phys) {
            const std::string d = "/sys/class/sas_phy/" + p + "/";
            const std::string rate = readText(d + "negotiated_linkrate");
            if (ExpanderDDAPI::convertStringToUpperCase(rate).find("GBIT") != std::string::npos) ++up;
            if (readText(d + "sas_address").compare(0, 2, "0x") != 0) bad += p + " sas_address; ";
            if (readText(d + "device_type").empty()) bad += p + " device_type; ";
            const char* files[] = {"invalid_dword_count", "running_disparity_error_count", "loss_of_dword_sync_count",
                                   "phy_reset_problem_count"};
            for (const char* f : files) {
                if (!exists(d + f)) bad += p + " " + f + "; ";
                else if (isNumber(readText(d + f))) ++counters;
            }
            printf("INFO %s: %s, %s\n", p.c_str(), rate.c_str(), readText(d + "device_type").c_str());
        }
        expect("sas.transport-phy-attributes", bad.empty(), bad);
        expect("sas.negotiated-rate-text-reads-up", up > 0, "no PHY reports a rate in Gbit");
        if (counters == 0) skip("sas.phy-counters-readable", "the adapter does not report PHY error counters");
        else pass("sas.phy-counters-readable (" + std::to_string(counters) + ")");
    }
    bool endDevice = false;
    for (const std::string& e : names("/sys/class/sas_device")) {
        if (e.compare(0, 11, "end_device-") != 0) continue;
        const std::string d = "/sys/class/sas_device/" + e + "/";
        endDevice = true;
        expect("sas.end-device-attributes " + e,
               readText(d + "device_type") == "end device" && isNumber(readText(d + "phy_identifier")) &&
                   readText(d + "sas_address").compare(0, 2, "0x") == 0,
               readText(d + "device_type") + "/" + readText(d + "phy_identifier"));
    }
    if (!endDevice) skip("sas.end-device-attributes", "no end device");

    // No expander in QEMU: the layer builds an empty list and names nothing.
    ExpanderDAPI exp("ExpanderDAPI");
    const std::string built = take(exp.getErrorMsg());
    const size_t count = exp.device() ? exp.device()->getDeviceList().size() : 0;
    const size_t kernel = names("/sys/class/sas_expander").size();
    if (kernel == 0)
        expect("expander.none-listed", built.empty() && count == 0, built + " / " + std::to_string(count) + " devices");
    else
        expect("expander.listed", built.empty() && count >= kernel, built);
    unsigned int id = 0;
    const std::string unknown = take(exp.getLogicalIDByName("EXP99", &id));
    expect("expander.unknown-name-chain", unknown.find("unknown name") != std::string::npos, unknown);
}

itest::RegisterGuestPart reg("sas", runSasChecks);

}  // namespace
