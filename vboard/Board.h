// The simulated board with its device population. A new model is one member and one
// line in the constructor.
#pragma once

#include <memory>
#include <string>

#include "vboard/VirtualBoard.h"
#include "vboard/models/Pit8254Model.h"
#include "vboard/models/RtcModel.h"

namespace quarn::vboard {

class Board : public VirtualBoard {
public:
    explicit Board(const std::string& root = "");

    std::shared_ptr<RtcModel> rtc;
    std::shared_ptr<Pit8254Model> pit;
};

}  // namespace quarn::vboard
