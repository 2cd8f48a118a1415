// The simulated board with its device population.
#include "vboard/Board.h"

namespace quarn::vboard {

Board::Board(const std::string& root) : VirtualBoard(root) {
    rtc = std::make_shared<RtcModel>(clock(), epoch());
    addDevice("/dev/rtc0", rtc);

    pit = std::make_shared<Pit8254Model>(clock());
    addPorts(0x40, 4, pit);

    writeFile("/proc/version", "Linux version 4.19.0-veltrax-amd64 (quarn virtual board)\n");
}

}  // namespace quarn::vboard
