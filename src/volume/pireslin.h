// Linear interpolation: fixed-point passes for 8u and 16u, extended precision for 32f.
//
//   8u   row  r = (c0*s[i] + c1*s[i+1] + 128) >> 8           Q6, 0..16320
//        col  p = (r1*w + r0*(16384-w) + 8192) >> 14         Q6: the fraction bits are kept for the last pass
//        dep  d = (p1*w + p0*(16384-w) + 524288) >> 20       0..255
//   16u  row  r = (c0*s[i] + c1*s[i+1] + 8192) >> 14         no fraction bits, on purpose
//        col, dep  likewise
//   32f  row  s[i] + (s[i+1] - s[i])*f;  col  r1*f + r0*(1 - f);  dep  p0 + (p1 - p0)*f
#pragma once
#include <stdint.h>

#include "frame/dispatch.h"
#include "volume/presbound.h"

namespace zenr {

constexpr int kOneQ14 = 16384;

// What a tap pair is weighted with: the second tap's share in Q14, or the fraction itself. For integers the first
// tap's weight is kOneQ14 minus it.
constexpr uint16_t weightQ14(float fraction) {
    return uint16_t(int(fraction * double(kOneQ14) + 0.5));
}

template <class T> struct LinearTypes {
    using Weight = uint16_t;
    using RowWeight = uint16_t;
    using Inter = uint16_t;
    using RowInter = uint16_t;
};
template <> struct LinearTypes<float> {
    using Weight = float;
    using RowWeight = double;
    using Inter = float;
    using RowInter = double;
};

// Columns of a row, and where they find their taps (presgroup.h).
//
// Sixteen of a fixed-point row. Eight columns share a window of sixteen bytes, or four do: the latter in windows 0 and 2,
// eight columns in all, and 1 and 3.
struct alignas(32) FixedGroup {
    uint16_t twice[16];  // weights in Q15; 0, and the second tap for both, where 1 would not fit
    uint8_t taps[2][32]; // bytes of the windows
    int window[4];       // voxels that windows begin with
};
// Eight of a row of floats, that share a window of eight: taps[k] has tap k of each. Or taps[k] has the first and then
// the second taps of four that share window k.
struct FloatGroup {
    int taps[2][8];
    int window[2];
};

// Sixteen of a row of floats in single precision (presbracket.h): taps[k] has tap k of each, counted from voxel `window`
// on, low and high the ends of their weights.
struct alignas(64) BracketGroup {
    int taps[2][16];
    float low[16], high[16];
    int window;
};
struct Bracket {
    float low, high;
};
constexpr Bracket bracketOf(float weight) {
    if (weight == 0 || weight >= 0x1p-10f) return {weight, weight};
    if (weight < 0x1p-100f) return {0, 0x1p-99f};
    return {weight * (1 - 0x1p-21f), weight * (1 + 0x1p-21f)};
}

// `far` says that voxels above 32767 may occur; 8-bit rows never are.
template <class T> struct LinearKernels {
    using Weight = typename LinearTypes<T>::Weight;
    using Inter = typename LinearTypes<T>::Inter;
    bool (*far)(const T* v, int n);
    // Whole groups, where `columns` share a window; null at levels that have no shuffles.
    void (*rowGroups)(const T* src, const FixedGroup* groups, int count, int columns, bool far, Inter* dst);
    // Columns inside the row, however far apart.
    void (*row)(const T* src, const int* index, const Weight* weights, Inter* dst, int n);
    void (*col)(const Inter* r0, const Inter* r1, Weight w, bool far, Inter* dst, int n);
    void (*dep)(const Inter* p0, const Inter* p1, Weight w, bool far, T* dst, int n);
};

// Rows of 32f, once resampled along x, are doubles already rounded to float: the passes that read them again need no
// conversion. Row weights are floats in doubles, too. guarded[x] is 0 where sums of voxels that are close to each other
// are exact in double, otherwise all ones. `bound` holds for the rows that a pass reads; without `mixed` in it, and
// with a Care other than `full`, no element is negative.
template <> struct LinearKernels<float> {
    void (*boundOf)(const float* v, int n, RowBound* bound);
    void (*rowGroups)(const float* src, const FloatGroup* groups, int count, int columns, const double* weights,
                      const int* guarded, const RowBound& bound, Care care, double* dst);
    void (*row)(const float* src, const int* index, const double* weights, const int* guarded, const RowBound& bound,
                Care care, double* dst, int n);
    void (*col)(const double* r0, const double* r1, float w, const RowBound& bound, Care care, float* dst, int n);
    void (*dep)(const float* p0, const float* p1, float w, const RowBound& bound, Care care, float* dst, int n);
};

// The same in single precision; null at levels that have no instructions for it.
struct BracketKernels {
    // `reach` voxels from its window on hold all taps of a group, or any number where it is 0.
    void (*rowGroups)(const float* src, const BracketGroup* groups, int reach, const float* weights, float* dst, int n);
    void (*col)(const float* r0, const float* r1, float w, float* dst, int n);
    // Tells how many were summed in double.
    int (*dep)(const float* p0, const float* p1, float w, float* dst, int n);
};

struct AllLinearKernels {
    LinearKernels<uint8_t> u8;
    LinearKernels<uint16_t> u16;
    LinearKernels<float> f32;
    BracketKernels single;
    // Two Q6 rows into final 8-bit values, where no depth pass follows.
    void (*plane8)(const uint16_t* r0, const uint16_t* r1, uint16_t w, uint8_t* dst, int n);
};

namespace sse2 {
extern const AllLinearKernels kLinear;
}
namespace avx2 {
extern const AllLinearKernels kLinear;
}
namespace avx512 {
extern const AllLinearKernels kLinear;
}
inline const AllLinearKernels& linearKernels(Level level) {
    return pick(level, sse2::kLinear, avx2::kLinear, avx512::kLinear);
}

} // namespace zenr
