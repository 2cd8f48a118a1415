// The JEDEC JEP106 manufacturer table that SPD manufacturer bytes index.
#pragma once

namespace quarn::spd {

constexpr int kJep106Banks = 9;    // continuation codes 0-8
constexpr int kJep106Codes = 127;  // codes 1-127, stored at code - 1

extern const char* const kJep106[kJep106Banks][kJep106Codes];

}  // namespace quarn::spd
