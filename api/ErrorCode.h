// Error codes: bit layout, text-table entry form and the table index.
#pragma once

#include <array>
#include <cstdint>

#include "api/Export.h"

// 0xC0000000 | module<<24 | layer<<18 | function<<10 | number. Kept as a plain
// 32-bit unsigned alias so every mask and comparison is unsigned.
typedef uint32_t ERRORCODE;

namespace quarn {
constexpr ERRORCODE kErrorMarker = 0xC0000000u;
constexpr ERRORCODE kModuleMask = 0x3F000000u;
constexpr ERRORCODE kLayerMask = 0x000C0000u;
constexpr ERRORCODE kFunctionMask = 0x0003FC00u;
constexpr ERRORCODE kCommonFlag = 0x00000200u;
constexpr ERRORCODE kNumberMask = 0x000001FFu;

constexpr ERRORCODE kLayerDAPI = 1;
constexpr ERRORCODE kLayerDDAPI = 2;
constexpr ERRORCODE kLayerDriver = 3;

// Builds a code from its fields; number may carry the common flag (0x200 | n).
constexpr ERRORCODE makeErrorCode(ERRORCODE module, ERRORCODE layer, ERRORCODE function,
                                  ERRORCODE number) {
    return kErrorMarker | (module << 24) | (layer << 18) | (function << 10) | number;
}
}  // namespace quarn

// One table entry: 72 bytes, a code and a NUL-terminated text of at most 67 characters.
struct ErrorCodeText {
    uint32_t code;
    char text[68];
};
static_assert(sizeof(ErrorCodeText) == 72, "table entries are 72 bytes");

// One slot of the table index.
struct ErrorCodeTextTable {
    uint32_t key;
    const ErrorCodeText* table;
    int32_t count;
};

constexpr int kErrorCodeTextTableSlots = 60;
QUARN_EXPORT extern const ErrorCodeTextTable ErrorCodeTextTableCollect[kErrorCodeTextTableSlots];

#define QUARN_ERROR_TABLE(name, n) QUARN_EXPORT extern const std::array<ErrorCodeText, n> name;
#include "api/ErrorTableList.h"
#undef QUARN_ERROR_TABLE

// Returned as bare codes by the ioctl classes; deliberately not in the index.
QUARN_EXPORT extern const std::array<ErrorCodeText, 6> IOCTLErrorCodeText;
