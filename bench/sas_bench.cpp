// Cost of the SAS and expander layers on the virtual board: management requests per
// second through /dev/mpt3ctl, a full drive list (sysfs, INQUIRY, VPD, log and mode pages
// over SG_IO), the expander device list and a read of every PHY's error counters.
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "api/ErrorText.h"
#include "api/platform/Platform.h"
#include "dapi/sas/SASDAPI.h"
#include "ddapi/expander/ExpanderDDAPI.h"
#include "vboard/Board.h"

namespace {

double seconds(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

bool ok(ErrorMsg* e) {
    if (!e) return true;
    std::string text;
    getErrorMessage(e, &text);
    fprintf(stderr, "failed: %s\n", text.c_str());
    return false;
}

}  // namespace

int main() {
    auto t0 = std::chrono::steady_clock::now();
    quarn::vboard::Board board;
    printf("board construction          : %8.1f ms\n", seconds(t0) * 1e3);
    quarn::installPlatform(&board);
    int rc = 0;
    {
        SASDAPI sas("SASDAPI");
        t0 = std::chrono::steady_clock::now();
        std::vector<SAS_CONTROLLER_INFO> list;
        if (!ok(sas.getInformationList(&list))) rc = 1;
        printf("controller list             : %8.1f ms\n", seconds(t0) * 1e3);

        const int requests = 20000;
        t0 = std::chrono::steady_clock::now();
        for (int i = 0; i < requests && rc == 0; ++i) {
            unsigned int celsius = 0;
            if (!ok(sas.getTemperatureByController(0, &celsius))) rc = 1;
        }
        const double s = seconds(t0);
        printf("temperature requests        : %8.0f per second (%d in %.2f s)\n", requests / s, requests, s);

        const int lists = 20;
        t0 = std::chrono::steady_clock::now();
        for (int i = 0; i < lists && rc == 0; ++i) {
            std::vector<SAS_DRIVE_INFO> drives;
            if (!ok(sas.getDriveDeviceNodeListByController(0, &drives))) rc = 1;
        }
        printf("drive list (3 drives)       : %8.2f ms each\n", seconds(t0) * 1e3 / lists);
    }
    {
        t0 = std::chrono::steady_clock::now();
        ExpanderDDAPI exp("ExpanderDDAPI");
        if (!ok(exp.getErrorMsg())) rc = 1;
        printf("expander device list        : %8.2f ms (%zu devices)\n", seconds(t0) * 1e3, exp.getDeviceList().size());
        t0 = std::chrono::steady_clock::now();
        unsigned reads = 0;
        for (const auto& d : exp.getDeviceList()) {
            if (d.kind != EXP_DEVICE_PHY) continue;
            for (unsigned e = 0; e < 4; ++e) {
                std::string v;
                if (!ok(exp.getErrorDataByID(d.logicalID, static_cast<EXP_ERRORELEMENT>(e), &v))) rc = 1;
                ++reads;
            }
        }
        printf("PHY counter reads           : %8.2f ms for %u counters\n", seconds(t0) * 1e3, reads);
    }
    quarn::installPlatform(nullptr);
    return rc;
}
