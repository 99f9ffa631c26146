// Sums of products of floats at the speed of double, with the bits of the sum in extended precision.
//
// Defined is T: the products p_1 .. p_n of floats, added in index order from 0 in the 80-bit format, each addition
// rounded to 64 bits; the result is R(T), T rounded to float. A kernel may add the same products in double, in any
// order and in any number of partial sums, if it adds their magnitudes likewise: the two sums S and A decide whether
// R(T) is certain.
//
// Notation: u = 2^-53 and v = 2^-64, the relative error of one addition in double and in the 80-bit format; P the exact
// sum of |p_i|; h the greatest number of additions that any one product goes through on its way into S (and into A).
//
// 1. Every p_i is exact in both formats: 48 bits, and between 2^-298 and 2^256 in size. All partial sums are
//    multiples of 2^-298 and, for n < 2^31, below 2^287. So nothing here under- or overflows, and errors of additions are relative.
// 2. Each addition scales everything added so far by 1 + e, |e| <= u (or v). Hence
//        |S - sum p| <= ((1+u)^h - 1) P,    |T - sum p| <= ((1+v)^n - 1) P,    A >= (1-u)^h P.
//    For h, n < 2^31, hu < 2^-22 and nv < 2^-33, and with (1+x)^k - 1 <= kx (1 + kx) for kx < 1,
//        |S - T| <= (hu + nv) (1 + 2^-22) (1 + 2^-21) A < (h + n/2048) u (1 + 2^-20) A.
// 3. The ends of the interval are computed as low = S - B and high = S + B in double, rounded by at most
//    u (|S| + B) < 2uA. So low <= T <= high when
//        B >= ((h + n/2048) (1 + 2^-20) + 2) u A,
//    which B = f A with f = (h + n/2048 + 4) u (1 + 2^-18) exceeds by more than the roundings of f and of B.
//    B does not underflow: A = 0 or A >= 2^-298.
// 4. R is monotone, also in taking negative values that it rounds to zero to -0 and positive ones to +0. T itself is
//    never -0, as it starts from +0, and low and high are zero only as +0: S is never -0, for the same reason. So if R(low)
//    and R(high) have the same bits, they are R(T)'s. A value beyond the largest float rounds to infinity in all three.
// 5. With an infinite product A and B are infinite, and with a NaN one S is NaN: one of low and high is NaN then, which
//    is never taken for an answer. (Finite products never make an infinity, by 1.)
//
// An undecided sum has to be done again in extended precision. For random terms that is one sum in about
// 2^28 |S| / (h A): hardly any, unless nearly everything cancels.
//
// Included by kernels of every level: internal linkage only.
#pragma once
#include <stdint.h>

namespace zenr {

// f for n products, of which none goes through more than `additions` additions.
static inline double provenSumFactor(int additions, int n) {
    constexpr double u = 0x1p-53;
    return (additions + n * (1.0 / 2048) + 4) * (u * (1 + 0x1p-18));
}

// True when *result is certain to be the defined sum rounded to float; otherwise *result means nothing. The partial
// sums behind `sum` must have started from +0.
static inline bool provenSum(double sum, double magnitude, double factor, float* result) {
    const double bound = factor * magnitude;
    const float low = float(sum - bound);
    const float high = float(sum + bound);
    uint32_t lowBits;
    uint32_t highBits;
    __builtin_memcpy(&lowBits, &low, 4);
    __builtin_memcpy(&highBits, &high, 4);
    *result = low;
    return (lowBits == highBits) & (low == low);
}

} // namespace zenr
