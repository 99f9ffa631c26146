// Voxels of warp and remap by their definition, one at a time in extended precision: what chunks leave in doubt, and rows
// that are rare.
#pragma once
#include "volume/pirescub.h"
#include "volume/prsample.h"

namespace zenr {
namespace ZENR_LEVEL {
namespace {

// Inclusive on both sides, of the position as it is; a position that is no number is outside.
template <class T> inline bool inside(const SampleSource<T>& src, const double s[3]) {
    bool in = true;
    for (int k = 0; k < 3; ++k) in &= s[k] >= src.low[k] && s[k] <= src.high[k];
    return in;
}

// Half-way values and those up to 1e-7 below them round up: the constant is not 0.5 on purpose.
inline constexpr double kHalfUp = 0.5000001;

// What lies this close below a whole position counts as that position.
inline constexpr double kSnap = 1e-7;

// The voxel at or before a position of an axis, and how far behind it. At the last voxel the one before it is the base,
// with all weight on the last.
struct AxisBase {
    int base;
    double fraction;
};
inline AxisBase axisBase(double s, int high) {
    const int i = int(s + kSnap);
    return i >= high ? AxisBase{high - 1, 1} : AxisBase{i, s - i};
}

inline int kept(int tap, int low, int high) {
    return tap < low ? low : tap > high ? high : tap;
}

template <class T> inline T stored(long double v) {
    if constexpr (sizeof(T) == 4) {
        return T(v);
    } else {
        constexpr int kMost = T(~T(0));
        const long double up = v + kHalfUp;
        return up < 0 ? T(0) : up >= kMost ? T(kMost) : T(int(up));
    }
}

template <class T> T nearestVoxel(const SampleSource<T>& src, const double s[3]) {
    const T* const plane = src.planes[int(s[2] + kHalfUp)];
    return plane[int(s[1] + kHalfUp) * src.step + int(s[0] + kHalfUp)];
}

template <class T> __attribute__((noinline)) T linearVoxel(const SampleSource<T>& src, const double s[3]) {
    int tap[3][2];
    long double f[3];
    for (int k = 0; k < 3; ++k) {
        const AxisBase at = axisBase(s[k], src.high[k]);
        f[k] = at.fraction;
        // In a box of one voxel there is none before it.
        for (int t = 0; t < 2; ++t) tap[k][t] = kept(at.base + t, src.low[k], src.high[k]);
    }
    long double plane[2];
    for (int z = 0; z < 2; ++z) {
        long double row[2];
        for (int y = 0; y < 2; ++y) {
            const T* const r = src.planes[tap[2][z]] + tap[1][y] * src.step;
            const long double first = r[tap[0][0]];
            row[y] = first + (r[tap[0][1]] - first) * f[0];
        }
        plane[z] = row[0] + (row[1] - row[0]) * f[1];
    }
    return stored<T>(plane[0] + (plane[1] - plane[0]) * f[2]);
}

template <int mode, class Real> inline Real cubicKernel(Real d) {
    return mode == 4   ? ownpi_Cubic0Kernel(d)
           : mode == 5 ? ownpi_Cubic1Kernel(d)
           : mode == 6 ? ownpi_Cubic2Kernel(d)
                       : ownpi_Cubic3Kernel(d);
}

template <class T, int mode> __attribute__((noinline)) T cubicVoxel(const SampleSource<T>& src, const double s[3]) {
    int tap[3][4];
    float w[3][4];
    for (int k = 0; k < 3; ++k) {
        const AxisBase at = axisBase(s[k], src.high[k]);
        const long double f = float(at.fraction);
        for (int t = 0; t < 4; ++t) {
            w[k][t] = float(cubicKernel<mode>((t - 1) - f));
            tap[k][t] = kept(at.base - 1 + t, src.low[k], src.high[k]);
        }
    }
    const auto weighted = [](const float* weight, const long double* v) {
        return weight[0] * v[0] + weight[1] * v[1] + weight[2] * v[2] + weight[3] * v[3];
    };
    long double planes[4];
    for (int z = 0; z < 4; ++z) {
        long double rows[4];
        for (int y = 0; y < 4; ++y) {
            const T* const r = src.planes[tap[2][z]] + tap[1][y] * src.step;
            const long double taps[4] = {(long double)r[tap[0][0]], (long double)r[tap[0][1]],
                                         (long double)r[tap[0][2]], (long double)r[tap[0][3]]};
            rows[y] = weighted(w[0], taps);
        }
        planes[z] = weighted(w[1], rows);
    }
    return stored<T>(weighted(w[2], planes));
}

} // namespace
} // namespace ZENR_LEVEL
} // namespace zenr
