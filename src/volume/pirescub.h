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

// The passes. Row: the taps of destination column x lie at src[index[x] - 1] and on, its weights at weights[4 * x] and
// on. guarded[x] is 0 where sums of voxels that are close to each other are exact in double, otherwise all ones.
// Sums run in extended precision, and each pass rounds once. `bound` is RowBound's `most` for the rows.
template <class T>
using RowCubic = void(const T* const* rows, float* const* dst, int rowCount, const int* index, const double* weights,
                      const int* guarded, const RowBound* bounds, int n);
using ColCubic = void(const float* const rows[4], const float* weights, float bound, float* dst, int n);
template <class T> using DepCubic = void(const float* const planes[4], const float* weights, T* dst, int n);

struct CubicKernels {
    RowBound (*boundOf)(const float* v, int n);
    RowCubic<uint8_t>* row8;
    RowCubic<uint16_t>* row16;
    RowCubic<float>* row32;
    ColCubic* col;
    DepCubic<uint8_t>* dep8;
    DepCubic<uint16_t>* dep16;
    ColCubic* dep32; // the same sum, stored as it is
};

namespace sse2 {
extern const CubicKernels kCubic;
}
namespace avx2 {
extern const CubicKernels kCubic;
}
namespace avx512 {
extern const CubicKernels kCubic;
}
inline const CubicKernels& cubicKernels(Level level) {
    return pick(level, sse2::kCubic, avx2::kCubic, avx512::kCubic);
}

} // namespace zenr
