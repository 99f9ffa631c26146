// Cubic interpolation: the weight functions of the four modes, and the kernels of the separable passes.
#pragma once
#include <stdint.h>

#include "frame/dispatch.h"
#include "volume/presbound.h"

namespace zenr {

// Weight of a sample at distance t = |d|; 0 from 2 on, and for a NaN. The coefficients are double constants even where
// Real is wider: the rounded weights show them. All functions of this header have internal linkage, so that kernels of
// several levels may include it.
template <class Real> static inline Real ownpi_Cubic0Kernel(Real d) {
    const Real t = d < 0 ? -d : d;
    const Real t2 = t * t;
    if (t < 1) return 1 - t2 + Real(0.5) * (t2 * t - t);
    if (t < 2) return t * (Real(-0.16666666666666666) * t2 - Real(1.8333333333333333)) + t2 + 1;
    return 0;
}

template <class Real> static inline Real ownpi_Cubic1Kernel(Real d) {
    const Real t = d < 0 ? -d : d;
    const Real t2 = t * t;
    if (t < 1) return Real(0.5) * (t2 * t) + Real(0.6666666666666666) - t2;
    if (t < 2) return t2 + t2 * t * Real(-0.16666666666666666) + Real(1.3333333333333333) - 2 * t;
    return 0;
}

template <class Real> static inline Real ownpi_Cubic2Kernel(Real d) {
    const Real t = d < 0 ? -d : d;
    const Real t2 = t * t;
    if (t < 1) return t2 * (Real(1.5) * t - Real(2.5)) + 1;
    if (t < 2) return t2 * (Real(-0.5) * t + Real(2.5)) + 2 - 4 * t;
    return 0;
}

template <class Real> static inline Real ownpi_Cubic3Kernel(Real d) {
    const Real t = d < 0 ? -d : d;
    const Real t2 = t * t;
    if (t < 1) return t2 * (Real(0.95) * t - Real(1.7)) + Real(0.8333333333333334);
    if (t < 2) return t2 * (Real(-0.38333333333333336) * t + 2) + Real(1.8666666666666667) - Real(3.4) * t;
    return 0;
}

// The four weights of each of n fractions, in the order of the taps (source positions i - 1 .. i + 2): 4 * n floats.
void ownpi_CubicWeights(int mode, const float* fractions, int n, float* weights);

// The passes. Row: the taps of destination column x lie at src[index[x] - 1] and on, its weights at weights[x], and
// weightStep further on for each next tap. guarded[x] is 0 where sums of voxels that are close to each other are exact
// in double, otherwise all ones. Where `size` is not 0, taps beyond the row's size are its end voxels. Sums run in extended precision, and each pass rounds once to float; rows are kept in
// doubles nevertheless, because the pass along y reads them several times. `bound` holds for the rows that a pass reads.
template <class T>
using RowCubic = void(const T* row, double* dst, const int* index, const double* weights, int weightStep,
                      const int* guarded, const RowBound& bound, Care care, int size, int n);
using ColCubic = void(const double* const rows[4], const float* weights, const RowBound& bound, Care care, float* dst,
                      int n);
template <class T> using DepCubic = void(const float* const planes[4], const float* weights, T* dst, int n);
using DepCubicFloat = void(const float* const planes[4], const float* weights, const RowBound& bound, Care care,
                           float* dst, int n);

struct CubicKernels {
    void (*bound8)(const uint8_t* v, int n, RowBound* bound);
    void (*bound16)(const uint16_t* v, int n, RowBound* bound);
    void (*bound32)(const float* v, int n, RowBound* bound);
    RowCubic<uint8_t>* row8;
    RowCubic<uint16_t>* row16;
    RowCubic<float>* row32;
    ColCubic* col;
    DepCubic<uint8_t>* dep8;
    DepCubic<uint16_t>* dep16;
    DepCubicFloat* dep32;
    int reach; // rows are done whole where the taps of any sixteen columns span no more voxels
};

// 8-bit voxels by sums in float, which differ from the defined chain by less than 2^-11 before the last rounding:
//
//   With weights of at most 1 whose sizes add up to at most 1.26, sums of the three passes stay below 512, where half
//   a last place is 2^-16. A pass has at most seven roundings: four of products below 512 (255 in the first pass, so
//   that those four count half) and three of sums. The chain itself rounds once after each of the first two passes.
//   Differences after the passes, in 2^-16: 5 + 1; 1.26 * 6 + 7 + 1 < 16; 1.26 * 16 + 7 < 28. Adding 1/2 with 13 fraction
//   bits kept rounds by 4 more, at most: 32 * 2^-16.
//
// A voxel whose sum + 1/2 lies within 2^-11 of an integer is in doubt, and done again by the chain.
struct QuickCubicKernels {
    void (*bound)(const uint8_t* v, int n, RowBound* bound);
    // As above, weights and rows in float.
    void (*row)(const uint8_t* row, float* dst, const int* index, const float* weights, int weightStep, int n);
    void (*col)(const float* const rows[4], const float* weights, float* dst, int n);
    // Sets bit x % 64 of doubts[x / 64] for voxels in doubt; n is at most 64 * 16.
    void (*dep)(const float* const planes[4], const float* weights, uint8_t* dst, uint64_t* doubts, int n);
    // One voxel by the chain, out of 64: voxels[i][4 * j + k] is tap i along x, j along y and k along z.
    uint8_t (*voxel)(const uint8_t (*voxels)[16], const float* wx, const float* wy, const float* wz);
};
constexpr float kMostWeights = 1.26f; // the sizes of four

namespace sse2 {
extern const CubicKernels kCubic;
extern const QuickCubicKernels kQuickCubic;
} // namespace sse2
namespace avx2 {
extern const CubicKernels kCubic;
extern const QuickCubicKernels kQuickCubic;
} // namespace avx2
namespace avx512 {
extern const CubicKernels kCubic;
extern const QuickCubicKernels kQuickCubic;
} // namespace avx512
inline const CubicKernels& cubicKernels(Level level) {
    return pick(level, sse2::kCubic, avx2::kCubic, avx512::kCubic);
}
inline const QuickCubicKernels& quickCubicKernels(Level level) {
    return pick(level, sse2::kQuickCubic, avx2::kQuickCubic, avx512::kQuickCubic);
}

} // namespace zenr
