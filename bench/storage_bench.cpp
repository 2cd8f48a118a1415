// The storage read test on the virtual board's NVMe namespace and USB disk: commands
// per second and MB/s of the simulation (wall clock), next to dd with iflag=direct over
// the same medium file and region, so the library's and the simulation's own cost per
// command shows. Usage: quarn_storage_bench [SIZE_MB] (default 256).
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "api/ErrorText.h"
#include "api/platform/Platform.h"
#include "dapi/storage/StorageDAPI.h"
#include "vboard/Board.h"

extern char** environ;

namespace {

double seconds(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

bool ok(ErrorMsg* e) {
    if (!e) return true;
    std::string text;
    getErrorMessage(e, &text);
    fprintf(stderr, "test failed: %s\n", text.c_str());
    return false;
}

// dd over the medium file: the same bytes per command and the same region. Returns the
// wall seconds, or a negative value when dd did not run.
double dd(const std::string& file, unsigned long long blockBytes, unsigned long long count) {
    std::vector<std::string> args = {"dd", "if=" + file, "of=/dev/null", "bs=" + std::to_string(blockBytes),
                                     "count=" + std::to_string(count), "iflag=direct", "status=none"};
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    const auto t0 = std::chrono::steady_clock::now();
    pid_t pid;
    if (posix_spawnp(&pid, "dd", nullptr, nullptr, argv.data(), environ) != 0) return -1;
    int status = 0;
    if (waitpid(pid, &status, 0) < 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) return -1;
    return seconds(t0);
}

void run(StorageDAPI& storage, const char* label, unsigned int id, unsigned int sizeMB, const std::string& media,
         unsigned int blockSize) {
    // The region is written first, so both readers find data rather than holes.
    if (!ok(storage.writePerformanceTest(id, 0, sizeMB, true))) return;
    const auto t0 = std::chrono::steady_clock::now();
    if (!ok(storage.readPerformanceTest(id, 0, sizeMB, true))) return;
    const double wall = seconds(t0);
    const unsigned long long commands = storage.getCommandCount();
    const unsigned long long bytesPerCommand = static_cast<unsigned long long>(storage.getSectorCountPerAccess()) * blockSize;
    const double mb = static_cast<double>(commands * bytesPerCommand) / (1 << 20);
    printf("%-5s read test %u MB: %llu commands of %llu KiB\n", label, sizeMB, commands, bytesPerCommand >> 10);
    printf("      simulation : %8.3f s wall, %9.0f commands/s, %8.1f MB/s  (library result: %s)\n", wall,
           commands / wall, mb / wall, storage.getResultText().substr(0, storage.getResultText().find("\t", storage.getResultText().find("MB/s"))).c_str());
    const double d = dd(media, bytesPerCommand, commands);
    if (d < 0) {
        printf("      dd iflag=direct: did not run\n");
    } else {
        printf("      dd iflag=direct: %8.3f s wall, %9.0f commands/s, %8.1f MB/s\n", d, commands / d, mb / d);
        printf("      per command: simulation %.1f us, dd %.1f us\n", wall / commands * 1e6, d / commands * 1e6);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const unsigned int sizeMB = argc > 1 ? static_cast<unsigned int>(atoi(argv[1])) : 256;
    quarn::vboard::Board board;
    quarn::installPlatform(&board);
    {
        StorageDAPI storage("StorageDAPI");
        for (const StorageDrive& d : storage.device()->drives()) {
            if (d.controllerType == STORAGE_TYPE_NVME) run(storage, "NVMe", d.logicalID, sizeMB, board.nvme->mediaPath(), d.logicalBlockSize);
            if (d.controllerType == STORAGE_TYPE_USB) run(storage, "USB", d.logicalID, sizeMB / 4 ? sizeMB / 4 : 1, board.usb.disk->mediaPath(), d.logicalBlockSize);
        }
    }
    quarn::installPlatform(nullptr);
    return 0;
}
