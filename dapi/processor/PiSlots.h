// The pi test's instance slots: eleven GMP values per instance (see StabilityTestObject).
#pragma once

#include <gmp.h>

#include "api/Export.h"
#include "dapi/processor/StabilityTestObject.h"

// 0 x, 1 x next, 2 pi, 3 pi next, 4 y, 5 y next, 6 sqrt(x), 7 1/sqrt(x), 8 x + 1,
// 9 y + 1, 10 (x + 1) / (y + 1).
constexpr int kPiValuesPerInstance = 11;
QUARN_EXPORT extern mpf_t bd[StabilityTestObject::kMaxInstances][kPiValuesPerInstance];
