// Affine warp and remap by their definition, voxel by voxel: positions in double, interpolation in extended precision.
// Slow, and shares nothing with the library's sources.
#pragma once
#include <math.h>
#include <stdint.h>

#include <algorithm>
#include <type_traits>

#include "reference/volume_resize.h"

namespace reference {

// What may be read of a source: the first and last voxels along x, y, z.
struct SampleBox {
    int low[3], high[3];
    SampleBox(const int begin[3], const int length[3], const int size[3]) {
        for (int a = 0; a < 3; ++a) {
            low[a] = begin[a];
            high[a] = begin[a] + std::min(size[a] - begin[a], length[a]) - 1;
        }
    }
    bool contains(const double s[3]) const {
        for (int a = 0; a < 3; ++a)
            if (!(s[a] >= low[a]) || !(s[a] <= high[a])) return false;
        return true;
    }
    int clamped(int axis, int i) const { return std::clamp(i, low[axis], high[axis]); }
};

inline int effectiveMode(const int size[3], int mode) {
    const int least = std::min({size[0], size[1], size[2]});
    if (least < 4 && mode > 2) mode = 2;
    if (least < 2) mode = 1;
    return mode;
}

template <class T> T roundedVoxel(long double v) {
    static const volatile double half = 0.5000001;
    if (std::is_same<T, float>::value) return T(v);
    const long double most = sizeof(T) == 1 ? 255 : 65535;
    const long double up = truncl(v + half);
    return T(up < 0 ? 0 : up > most ? most : up);
}

// The voxel at a position inside the box; `at(x, y, z)` reads the source, and reads nothing outside the box.
template <class T, class At> T sampledVoxel(const SampleBox& box, int mode, const double s[3], const At& at) {
    if (mode == 1) {
        int i[3];
        for (int a = 0; a < 3; ++a) {
            const volatile double up = s[a] + 0.5000001;
            i[a] = int(trunc(up));
        }
        return at(i[0], i[1], i[2]);
    }
    int base[3];
    double f[3];
    for (int a = 0; a < 3; ++a) {
        const volatile double up = s[a] + 1e-7;
        base[a] = int(trunc(up));
        f[a] = s[a] - base[a];
        if (base[a] >= box.high[a]) {
            base[a] = box.high[a] - 1;
            f[a] = 1;
        }
    }
    if (mode == 2) {
        const auto tap = [&](int i, int j, int k) -> long double {
            return at(box.clamped(0, base[0] + i), box.clamped(1, base[1] + j), box.clamped(2, base[2] + k));
        };
        const auto blend = [](long double a, long double b, double weight) { return a + (b - a) * weight; };
        const long double r00 = blend(tap(0, 0, 0), tap(1, 0, 0), f[0]), r10 = blend(tap(0, 1, 0), tap(1, 1, 0), f[0]),
                          r01 = blend(tap(0, 0, 1), tap(1, 0, 1), f[0]), r11 = blend(tap(0, 1, 1), tap(1, 1, 1), f[0]);
        return roundedVoxel<T>(blend(blend(r00, r10, f[1]), blend(r01, r11, f[1]), f[2]));
    }
    float w[3][4];
    for (int a = 0; a < 3; ++a)
        for (int k = 0; k < 4; ++k) w[a][k] = cubicWeight(mode, float(f[a]), k);
    // Sums start from -0, which leaves their first term as it is.
    long double total = -0.0L;
    for (int k = 0; k < 4; ++k) {
        long double plane = -0.0L;
        for (int j = 0; j < 4; ++j) {
            long double row = -0.0L;
            for (int i = 0; i < 4; ++i)
                row += (long double)w[0][i] * (long double)at(box.clamped(0, base[0] - 1 + i),
                                                              box.clamped(1, base[1] - 1 + j),
                                                              box.clamped(2, base[2] - 1 + k));
            plane += (long double)w[1][j] * row;
        }
        total += (long double)w[2][k] * plane;
    }
    return roundedVoxel<T>(total);
}

// The adjugate over the determinant; false for a matrix that is nearly singular.
inline bool invert(const double c[12], double inverse[12]) {
    const double c00 = c[0], c01 = c[1], c02 = c[2], c03 = c[3];
    const double c10 = c[4], c11 = c[5], c12 = c[6], c13 = c[7];
    const double c20 = c[8], c21 = c[9], c22 = c[10], c23 = c[11];
    const double det = c00 * (c11 * c22 - c21 * c12) - c01 * (c10 * c22 - c20 * c12) + c02 * (c10 * c21 - c20 * c11);
    if (-1e-10 < det && det < 1e-10) return false;
    const double adjugate[3][3] = {{c11 * c22 - c21 * c12, c21 * c02 - c01 * c22, c01 * c12 - c11 * c02},
                                   {c20 * c12 - c10 * c22, c00 * c22 - c20 * c02, c10 * c02 - c00 * c12},
                                   {c10 * c21 - c20 * c11, c20 * c01 - c00 * c21, c00 * c11 - c10 * c01}};
    for (int r = 0; r < 3; ++r) {
        for (int k = 0; k < 3; ++k) inverse[4 * r + k] = adjugate[r][k] / det;
        inverse[4 * r + 3] = -(adjugate[r][0] * c03 + adjugate[r][1] * c13 + adjugate[r][2] * c23) / det;
    }
    return true;
}

inline bool degenerateTransform(const double c[12]) {
    if (fabs(c[0]) <= 1e-100 && fabs(c[5]) <= 1e-100 && fabs(c[10]) <= 1e-100) return true;
    const double pairs[3][2] = {{c[5] * c[10], c[6] * c[9]}, {c[10] * c[4], c[6] * c[8]}, {c[9] * c[4], c[8] * c[5]}};
    for (const double* p : pairs) {
        const double t = p[0], u = p[1];
        if (fabs(t) > 1e-200) {
            if (fabs((t - u) / t) > 1e-10) return false;
        } else if (fabs(u) > 1e-10) {
            return false;
        }
    }
    return true;
}

} // namespace reference
