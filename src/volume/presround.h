// Sums that are defined in extended precision and rounded to float once, computed in double.
//
// Three tiers. The double sum and the extended one differ by no more than a bound; where every number within it rounds
// to the same float, that is the result. Where not, the sum is often a tie that double holds exactly (weights such as
// 1/4 make many): then its rounding is the result. What is left, a few elements in a million and all infinities, is
// summed again in extended precision.
//
// Internal linkage throughout, so that kernels of several levels may include it.
#pragma once
#include "volume/presbound.h"

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

// What a + b loses when rounded to `sum` (Knuth's two-sum), in size.
static inline double lost(double a, double b, double sum) {
    const double back = sum - a;
    return sizeOf((a - (sum - back)) + (b - back));
}

// A sum in double: its value, the size of its terms, and something that is 0 only if no operation was inexact.
struct Sum {
    double value;
    double size;
    double residue;
};

// Rows that later passes read again are kept as doubles, already rounded to float.
static inline void putRun(float* dst, const float* run, int n) {
    __builtin_memcpy(dst, run, unsigned(n) * sizeof(float));
}
static inline void putRun(double* dst, const float* run, int n) {
    for (int i = 0; i < n; ++i) dst[i] = run[i];
}

// Elements [0, n) of a row or plane: op.sum(x) in double, op.exact(x) in extended precision.
template <class Op, class Element>
static inline __attribute__((always_inline)) void roundRun(const Op& op, Element* dst, int begin, int n) {
    constexpr int kMost = 32;
    float out[kMost];
    int doubt = 0;
    for (int i = 0; i < n; ++i) {
        const Sum s = op.sum(begin + i);
        out[i] = roundDoubtfully(s.value, s.size, &doubt);
    }
    if (__builtin_expect(doubt != 0, 0)) {
        doubt = 0;
        for (int i = 0; i < n; ++i) {
            const Sum s = op.sum(begin + i);
            int mine = 0;
            const float rounded = roundDoubtfully(s.value, s.size, &mine);
            doubt |= s.residue == 0 ? 0 : mine;
            out[i] = s.residue == 0 ? float(s.value) : rounded;
        }
        if (doubt)
            for (int i = 0; i < n; ++i) out[i] = float(op.exact(begin + i));
    }
    putRun(dst + begin, out, n);
}
template <class Op, class Element>
static inline __attribute__((always_inline)) void roundRow(const Op& op, Element* dst, int n) {
    constexpr int kRun = 32;
    int begin = 0;
    for (; n - begin >= kRun; begin += kRun) roundRun(op, dst, begin, kRun);
    if (begin < n) roundRun(op, dst, begin, n - begin);
}

// w0*s0 + w1*s1 + w2*s2 + w3*s3 of floats, weights at most 1 in size: the products are exact; three roundings of at
// most 2^-53 of the terms' size each, as much again for the ends of the interval, and the extended sum's own.
static inline Sum cubicSum(double a, double b, double c, double d) {
    const double ab = a + b;
    const double abc = ab + c;
    const double value = abc + d;
    return {value, sizeOf(a) + sizeOf(b) + sizeOf(c) + sizeOf(d),
            lost(a, b, ab) + lost(ab, c, abc) + lost(abc, d, value)};
}

// s0 + (s1 - s0)*f of floats, f from 0 to 1: difference, product and sum err by at most 2^-53 (|s0| + |s1|) each. The
// product is exact where the difference is a float.
static inline Sum linearSum(double s0, double s1, double f) {
    const double difference = s1 - s0;
    const double product = difference * f;
    const double value = s0 + product;
    return {value, sizeOf(s0) + sizeOf(s1),
            sizeOf(double(float(difference)) - difference) + lost(s1, -s0, difference) + lost(s0, product, value)};
}
static inline long double exactLine(long double s0, double s1, double f) {
    return s0 + (s1 - s0) * f;
}

} // namespace zenr
