// Guest checks of the SAS adapter and expander layers. QEMU's SAS adapter is the LSI
// SAS1068 (mptsas): an LSI function that QEMU gives the SCSI class (0x0100), whose driver
// has no mpt3ctl node, with no expanders. So the guest proves what a real kernel gives: the
// adapter is not taken for a SAS3008, a request finds the node missing and returns a clean
// chain, the expander layer lists nothing, and
// the SAS transport attributes the expander code reads exist with the names and texts it
// expects (on the adapter's own PHYs and end device).
#include <string>
#include <vector>

#include "dapi/expander/ExpanderDAPI.h"
#include "dapi/sas/SASDAPI.h"
#include "ddapi/sas/SASDDAPI.h"
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
    // The LSI SAS functions on the guest's bus. QEMU's SAS1068 says class 0x0100 (SCSI), not
    // 0x0107 (SAS), so the SAS layer's class filter does not take it as an adapter.
    std::string adapter, adapterClass;
    for (const std::string& f : names("/sys/bus/pci/devices")) {
        const std::string d = "/sys/bus/pci/devices/" + f;
        const std::string cls = readText(d + "/class");
        if (readText(d + "/vendor") == "0x1000" && (cls.compare(0, 6, "0x0107") == 0 || cls.compare(0, 6, "0x0100") == 0)) {
            adapter = f;
            adapterClass = cls;
        }
    }
    if (adapter.empty()) {
        skip("sas.adapter", "no LSI SAS function in the guest");
    } else {
        pass("sas.adapter-on-pci " + adapter + " class " + adapterClass);
        SASDAPI sas("SASDAPI");
        std::vector<SAS_CONTROLLER_INFO> list;
        ErrorMsg* e = sas.getInformationList(&list);
        const std::string listed = take(e);
        if (adapterClass.compare(0, 6, "0x0107") != 0) {
            expect("sas.scsi-class-adapter-not-listed", listed.empty() && list.empty(),
                   listed.empty() ? std::to_string(list.size()) + " controllers" : listed);
            unsigned int celsius = 0;
            const std::string t = take(sas.getTemperatureByController(0, &celsius));
            expect("sas.no-controller-is-bad-ioc-id", t == "SASDAPI::getTemperature: \"Bad parameter - Bad IOC logical ID\"", t);
        }
        if (exists("/dev/mpt3ctl")) {
            skip("sas.missing-node", "/dev/mpt3ctl exists in this guest");
        } else {
            // A request on the control node itself: the node's absence is the chain's cause.
            SASDDAPI dev("SASDDAPI");
            take(dev.getErrorMsg());
            unsigned int celsius = 0;
            e = dev.doIOCTLCommand(SASIOCTL::SAS_IOCTL_TEMPERATURE, &celsius);
            const ERRORCODE code = e ? e->getErrorCode() : 0;
            const std::string text = take(e);
            expect("sas.missing-mpt3ctl-is-a-chain",
                   code == 0xC7080803 && text == "SASDDAPI::SAS execute IOCTL fail: \"Can not open SAS device - "
                                                 "/dev/mpt3ctl: No such file or directory\"",
                   text.empty() ? "no chain" : text);
        }
        // The drive list's rule: a drive's /sys/block link passes through its adapter.
        bool linked = false;
        for (int attempt = 0; attempt < 20 && !linked; ++attempt) {
            for (const std::string& b : names("/sys/block")) {
                std::string link;
                if (quarn::platform().readlink("/sys/block/" + b, &link) == 0 && link.find(adapter) != std::string::npos) {
                    linked = true;
                    printf("INFO %s -> %s\n", b.c_str(), link.c_str());
                }
            }
            if (!linked) quarn::platform().sleepMicroseconds(500000);  // the SAS scan is asynchronous
        }
        if (linked) pass("sas.block-link-through-adapter");
        else skip("sas.block-link-through-adapter", "no disk of " + adapter + " in /sys/block after 10 s");
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
        printf("INFO sas_device %s\n", e.c_str());
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
