// Guest checks of the NVSRAM layers where the guest has no nvSRAM function.
#include <cstdio>
#include <string>
#include <vector>

#include "dapi/nvsram/NVSRAMDAPI.h"
#include "itest/GuestCheck.h"

namespace {

using namespace itest;

void runNvsramChecks() {
    part("NVSRAM without the device");
    NVSRAMDAPI nv("NVSRAMDAPI");
    std::vector<NVSRAM_RESOURCE_INFO> list;
    const std::string t = take(nv.getInformationList(&list));
    printf("INFO nvsram list: %s\n", t.c_str());
    expect("nvsram.none", t.rfind("NVSRAMDAPI::getInformation: \"no NVSRAM device\"", 0) == 0 && list.empty(), t);
    const std::string n = take(nv.runNonVolatileTest(0, 0xFF, 8));
    expect("nvsram.test-without-device", n.rfind("NVSRAMDAPI::getInformation: \"no NVSRAM device\"", 0) == 0, n);
    const std::string d = take(nv.dataLineTest(0, 0xFF, 64));
    expect("nvsram.dataline-without-device", d == n, d);
}

static RegisterGuestPart reg("nvsram", runNvsramChecks);

}  // namespace
