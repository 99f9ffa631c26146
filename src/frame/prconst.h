// The special constants that results take where they must be infinite or undefined: exact bit patterns, because a
// compiler's own NaN may carry another sign.
#pragma once
#include <stdint.h>

namespace zenr {

union Word32 {
    uint32_t bits;
    float value;
};
union Word64 {
    uint64_t bits;
    double value;
};
static_assert(sizeof(Word32) == 4 && sizeof(Word64) == 8, "a constant is one machine word");

constexpr Word32 zenConstantOfNAN_32f = {0xFFC00000u};
constexpr Word32 zenConstantOfINF_32f = {0x7F800000u};
constexpr Word32 zenConstantOfINF_NEG_32f = {0xFF800000u};
constexpr Word64 zenConstantOfNAN_64f = {0xFFF8000000000000u};
constexpr Word64 zenConstantOfINF_64f = {0x7FF0000000000000u};
constexpr Word64 zenConstantOfINF_NEG_64f = {0xFFF0000000000000u};

} // namespace zenr
