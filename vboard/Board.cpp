// The simulated board with its device population.
#include "vboard/Board.h"

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
    quarn::registerLibpciSysfsPath(this, hostPath("/sys/bus/pci"));

    // Four 32 GiB registered DIMMs (their SPD images are on the I2C buses); the kernel
    // runs with mem=8G and leaves the rest for the memory tests.
    memory = std::make_unique<MemoryController>(32ULL << 30);
    memory->install(*this, "8G");
    writeMeminfo(*this, 8u << 20, 6u << 20);

    writeFile("/proc/version", "Linux version 4.19.0-veltrax-amd64 (quarn virtual board)\n");
}

Board::~Board() { quarn::registerLibpciSysfsPath(this, ""); }

}  // namespace quarn::vboard
