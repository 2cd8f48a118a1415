// Guest checks of the link retrain test on QEMU's real PCIe ports (a root port, the
// x3130 switch's downstream ports and an empty root port) and of the switch EEPROM
// operations where no PLX registers exist.
#include <cstdio>
#include <string>
#include <vector>

#include "dapi/pci/PCIDAPI.h"
#include "itest/GuestCheck.h"

namespace {

using namespace itest;

std::string address(const _PCIInformantion& p) {
    char b[32];
    snprintf(b, sizeof b, "%04x:%02x:%02x.%x", p.domain, p.bus, p.device, p.function);
    return b;
}

void runRetrainChecks() {
    part("PCI link retraining on QEMU's ports; switch EEPROM without PLX registers");
    PCIDAPI pci("PCIDAPI");
    std::vector<RetrainInfo> ports;
    if (!ok("retrain.candidates", pci.getRetrainSupportedDeviceList(&ports))) return;
    int empty = 0, withNvme = 0;
    for (const RetrainInfo& r : ports) {
        if (r.downstreamVendorID == 0xFFFF) ++empty;
        if (r.downstreamVendorID == 0x1b36 && r.downstreamDeviceID == 0x0010) ++withNvme;
        printf("INFO retrain candidate %s %04x:%04x link %s, behind it %04x:%04x\n", address(r.port).c_str(),
               r.port.vendorID, r.port.deviceID, r.linkUp ? "up" : "down", r.downstreamVendorID,
               r.downstreamDeviceID);
    }
    expect("retrain.candidates-root-and-downstream-ports", ports.size() >= 3,
           std::to_string(ports.size()) + " candidates");
    expect("retrain.nvme-behind-a-downstream-port", withNvme == 1, "NVMe found behind " + std::to_string(withNvme));

    // What QEMU's link model does with Retrain Link: each port is retrained 5 times and
    // the outcome reported; a chain must be one of the test's own findings.
    for (const RetrainInfo& r : ports) {
        const _PFA p{r.port.domain, r.port.bus, r.port.device, r.port.function, 0};
        const std::string text = take(pci.testRetrain(p, 5));
        printf("INFO retrain %s (link %s): %s\n", address(r.port).c_str(), r.linkUp ? "up" : "down",
               text.empty() ? "5 retrains, width and speed kept" : text.c_str());
        const bool known = text.empty() || text.rfind("PCIDAPI::testRetrain -> PCIDDAPI::testRetrain: ", 0) == 0;
        expect("retrain." + address(r.port), known, text);
    }
    // QEMU reports a link (the port's configured width and speed) on a root port with
    // nothing behind it, so such a port is retrained like the others.
    expect("retrain.port-with-nothing-behind-listed", empty >= 1, "every candidate has a device behind it");

    // Ports that are no candidates: the switch's upstream port and an endpoint.
    std::vector<_PCIInformantion> all;
    deleteErrorMsg(pci.getDevices(&all));
    for (const _PCIInformantion& d : all) {
        if (d.portType != 5 && !(d.vendorID == 0x1b36 && d.deviceID == 0x0010)) continue;
        const _PFA p{d.domain, d.bus, d.device, d.function, 0};
        const std::string text = take(pci.testRetrain(p, 1));
        expect("retrain.refused." + address(d), text == "PCIDAPI::testRetrain -> PCIDDAPI::testRetrain: \"retrain is unsupported\"",
               text);
    }

    // No PLX switch: no EEPROM, and every EEPROM operation fails cleanly.
    std::vector<_EEPROM_INFO> eeproms;
    ok("eeprom.scan", pci.getEepromList(&eeproms));
    expect("eeprom.none-without-plx-registers", eeproms.empty(), std::to_string(eeproms.size()) + " found");
    const std::string notFound = " -> PCIDDAPI::getEeprom: \"Device is not found\"";
    uint32_t words[2] = {0, 0};
    std::string t = take(pci.readEeprom("eeprom0", 0, 2, words));
    expect("eeprom.read-absent", t == "PCIDAPI::Failt to read EEPROM" + notFound, t);
    t = take(pci.testEeprom("eeprom0"));
    expect("eeprom.test-absent", t == "PCIDAPI::eeprom test fail" + notFound, t);
    t = take(pci.saveEeprom("eeprom0", "/tmp/eeprom0.bin"));
    expect("eeprom.save-absent", t == "PCIDAPI::saveEeprom -> PCIDAPI::getEepromSize" + notFound, t);
    expect("eeprom.save-absent-wrote-nothing", !exists("/tmp/eeprom0.bin"), "file created");
    t = take(pci.programEeprom("eeprom0", "/proc/version"));
    expect("eeprom.program-absent", t == "PCIDAPI::programEeprom" + notFound, t);
    t = take(pci.showEepromImageVersion("eeprom0"));
    expect("eeprom.version-absent", t == "PCIDDAPI::showEepromImageVersion" + notFound, t);
}

static RegisterGuestPart reg("pciretrain", runRetrainChecks);

}  // namespace
