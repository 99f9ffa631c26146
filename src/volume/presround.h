// Sums that are defined in extended precision, computed in double: see pirescub.cpp. Internal linkage throughout, so
// that kernels of several levels may include it.
#pragma once

namespace zenr {

static inline double sizeOf(double x) {
    return __builtin_fabs(x);
}
static inline int bitsOf(float x) {
    return __builtin_bit_cast(int, x);
}

// The float next to `sum`, whose exact counterpart lies within 2^-50 * size of it. Sets bits of *doubt when not every
// number there rounds to the same float; compared by bits, so that zeros of either sign differ and equal NaNs do not.
static inline float roundDoubtfully(double sum, double size, int* doubt) {
    constexpr double kError = 8.8817841970012523e-16; // 2^-50
    const float low = float(sum - kError * size);
    const float high = float(sum + kError * size);
    *doubt |= bitsOf(low) ^ bitsOf(high);
    return low;
}

} // namespace zenr
