// Guest checks of the NTB layers where the guest has no non-transparent bridge and no
// PLX NT driver node: every operation ends in its clean chain.
#include <string>
#include <vector>

#include "api/platform/Files.h"
#include "dapi/ntb/NTBDAPI.h"
#include "itest/GuestCheck.h"

namespace {

using namespace itest;

void runNtbChecks() {
    part("NTB without a bridge and without the NT driver node");
    NTBDAPI ntb("NTBDAPI");
    std::vector<_NTB_INFO> list;
    std::string t = take(ntb.searchDevice(&list));
    expect("ntb.search-none", t == "NTBDAPI::searchDevice -> NTBDDAPI::searchDevice: \"no device is found\"", t);
    quarn::removePath("/tmp/ntbInfo");
    t = take(ntb.initialWindow());
    expect("ntb.no-window-file",
           t == "NTBDAPI::initialWindow -> NTBDDAPI::initialWindow -> NTBDDAPI::getWindowInfo: \"can't find ntbInfo file\"",
           t);
    quarn::writeScratchFile("/tmp/ntbInfo",
                            "ntbWriteWindow=3c0000000\nntbReadWindow=2f0001000\nntbWindowSize=1048576\n"
                            "ntbRemoteBuffSize=524288\n");
    t = take(ntb.testPerformance(1, 0, 1));
    expect("ntb.window-size-mismatch",
           t == "NTBDAPI::testPerformance -> NTBDDAPI::testPerformance -> NTBDDAPI::getWindowInfo: \"window size mismatch\"",
           t);
    quarn::writeScratchFile("/tmp/ntbInfo",
                            "ntbWriteWindow=3c0000000\nntbReadWindow=2f0001000\nntbWindowSize=1048576\n"
                            "ntbRemoteBuffSize=1048576\n");
    t = take(ntb.server("NTB0", 1, 2, 1));
    expect("ntb.no-driver-node",
           t == "NTBDAPI::send -> NTBDDAPI::server -> NTBDDAPI::setForIoTransfer -> NTBDDAPI::getWindowInfo: "
                "\"fail to open driver\"",
           t);
    quarn::removePath("/tmp/ntbInfo");
}

static RegisterGuestPart reg("ntb", runNtbChecks);

}  // namespace
