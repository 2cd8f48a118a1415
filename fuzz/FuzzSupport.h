// What the fuzz targets share: one virtual board for the whole run, installed as the
// platform (a static object, so its private root is removed at exit), and the way to
// let go of a returned chain.
#pragma once

#include <string>

#include "api/ErrorText.h"
#include "api/platform/Platform.h"
#include "vboard/VirtualBoard.h"

namespace quarn::fuzz {

// setup runs once, before the board is installed, to add the target's device models.
template <typename Setup>
quarn::vboard::VirtualBoard& board(Setup setup) {
    static quarn::vboard::VirtualBoard b;
    static const bool ready = [&] {
        setup(b);
        quarn::installPlatform(&b);
        return true;
    }();
    (void)ready;
    return b;
}

inline quarn::vboard::VirtualBoard& board() {
    return board([](quarn::vboard::VirtualBoard&) {});
}

// Renders the chain, which frees it, so the renderer sees every chain too.
inline void drop(ErrorMsg* chain) {
    std::string text;
    getErrorMessage(chain, &text);
}

}  // namespace quarn::fuzz
