// Volume resize by its definition, voxel by voxel: every voxel computes its own positions and weights and reads its own
// taps. Slow, and shares nothing with the library's sources.
#pragma once
#include <math.h>
#include <stdint.h>

#include <type_traits>

namespace reference {

struct ResizeAxis {
    double factor, shift;
    int srcBegin, srcLength, srcSize, dstBegin, dstLength;

    // Destination range.
    int first() const {
        const volatile double low = srcBegin * factor + shift;
        return int((low > dstBegin ? low : double(dstBegin)) + 0.4999999999);
    }
    int end() const {
        const int most = srcSize - srcBegin;
        const volatile double high = (srcBegin + (srcLength < most ? srcLength : most)) * factor + shift;
        const double boxEnd = double(dstBegin) + dstLength;
        return int((high < boxEnd ? high : boxEnd) + 0.5000000001);
    }

    double position(int d) const {
        const volatile double inverse = 1 / factor;
        const volatile double offset = -shift / factor;
        const volatile double scaled = (d + 0.5) * inverse;
        const volatile double moved = scaled - 0.5;
        return moved + offset;
    }
    int nearest(int d) const {
        const volatile double inverse = 1 / factor;
        const volatile double offset = -shift / factor;
        const volatile double scaled = (d + 0.5) * inverse;
        const volatile double moved = scaled - 1e-10;
        const double index = trunc(moved + offset);
        return index < 0 ? 0 : index > srcSize - 1 ? srcSize - 1 : int(index);
    }
    int base(int d) const { return int(floor(position(d))); }
    float fraction(int d) const { return float(position(d) - floor(position(d))); }
    int clamped(int i) const { return i < 0 ? 0 : i >= srcSize ? srcSize - 1 : i; }
    int linearTap(int d, int k) const {
        if (base(d) < 0) return 0;
        if (base(d) > srcSize - 2) return srcSize - 1;
        return base(d) + k;
    }
    int cubicTap(int d, int k) const { return clamped(base(d) - 1 + k); }
};

inline long double cubicKernel(int mode, long double d) {
    const long double t = fabsl(d);
    static volatile double sixth = -0.16666666666666666, elevenSixths = 1.8333333333333333,
                           twoThirds = 0.6666666666666666, fourThirds = 1.3333333333333333, c0 = 0.95, c1 = 1.7,
                           c2 = 0.8333333333333334, c3 = -0.38333333333333336, c4 = 1.8666666666666667, c5 = 3.4;
    const bool inner = t < 1;
    if (!inner && !(t < 2)) return 0;
    switch (mode) {
    case 4:
        return inner ? 1 - t * t + 0.5L * (t * t * t - t) : t * (sixth * (t * t) - elevenSixths) + t * t + 1;
    case 5:
        return inner ? 0.5L * (t * t * t) + twoThirds - t * t : t * t + t * t * t * sixth + fourThirds - 2 * t;
    case 6:
        return inner ? t * t * (1.5L * t - 2.5L) + 1 : t * t * (-0.5L * t + 2.5L) + 2 - 4 * t;
    default:
        return inner ? t * t * (c0 * t - c1) + c2 : t * t * (c3 * t + 2) + c4 - c5 * t;
    }
}
inline float cubicWeight(int mode, float f, int k) {
    const long double d[4] = {-1 - (long double)f, -(long double)f, 1 - (long double)f, 2 - (long double)f};
    return float(cubicKernel(mode, d[k]));
}

// Voxel d = (x, y, z) of the destination; `at(x, y, z)` reads the source.
template <class T, class At> T resizedVoxel(const ResizeAxis axis[3], int mode, const int d[3], const At& at) {
    const ResizeAxis &ax = axis[0], &ay = axis[1], &az = axis[2];
    if (mode == 1) return at(ax.nearest(d[0]), ay.nearest(d[1]), az.nearest(d[2]));
    if (mode == 2 && std::is_same<T, float>::value) {
        volatile float plane[2];
        const float fx = ax.fraction(d[0]), fy = ay.fraction(d[1]), fz = az.fraction(d[2]);
        for (int k = 0; k < 2; ++k) {
            volatile float row[2];
            for (int j = 0; j < 2; ++j) {
                const long double s0 = at(ax.linearTap(d[0], 0), ay.linearTap(d[1], j), az.linearTap(d[2], k));
                const long double s1 = at(ax.linearTap(d[0], 1), ay.linearTap(d[1], j), az.linearTap(d[2], k));
                row[j] = float(s0 + (s1 - s0) * fx);
            }
            plane[k] = float((long double)row[1] * fy + (long double)row[0] * (1 - (long double)fy));
        }
        return T(plane[0] + ((long double)plane[1] - (long double)plane[0]) * fz);
    }
    if (mode == 2) {
        const bool bytes = sizeof(T) == 1;
        long long w[3], plane[2];
        for (int a = 0; a < 3; ++a) w[a] = (long long)(axis[a].fraction(d[a]) * 16384.0 + 0.5);
        for (int k = 0; k < 2; ++k) {
            long long row[2];
            for (int j = 0; j < 2; ++j) {
                const long long s0 = (long long)at(ax.linearTap(d[0], 0), ay.linearTap(d[1], j), az.linearTap(d[2], k));
                const long long s1 = (long long)at(ax.linearTap(d[0], 1), ay.linearTap(d[1], j), az.linearTap(d[2], k));
                const long long sum = (16384 - w[0]) * s0 + w[0] * s1;
                row[j] = bytes ? (sum + 128) >> 8 : (sum + 8192) >> 14;
            }
            plane[k] = (row[1] * w[1] + row[0] * (16384 - w[1]) + 8192) >> 14;
        }
        const long long sum = plane[1] * w[2] + plane[0] * (16384 - w[2]);
        return T(bytes ? (sum + 524288) >> 20 : (sum + 8192) >> 14);
    }
    float w[3][4];
    int tap[3][4];
    for (int a = 0; a < 3; ++a)
        for (int k = 0; k < 4; ++k) {
            w[a][k] = cubicWeight(mode, axis[a].fraction(d[a]), k);
            tap[a][k] = axis[a].cubicTap(d[a], k);
        }
    // Sums start from -0, which leaves their first term as it is.
    long double total = -0.0L;
    for (int k = 0; k < 4; ++k) {
        long double column = -0.0L;
        for (int j = 0; j < 4; ++j) {
            long double row = -0.0L;
            for (int i = 0; i < 4; ++i) row += (long double)w[0][i] * (long double)at(tap[0][i], tap[1][j], tap[2][k]);
            const volatile float rounded = float(row);
            column += (long double)w[1][j] * rounded;
        }
        const volatile float rounded = float(column);
        total += (long double)w[2][k] * rounded;
    }
    if (std::is_same<T, float>::value) return T(total);
    const long double most = sizeof(T) == 1 ? 255 : 65535;
    const long double up = truncl(total + 0.5000001);
    return T(up < 0 ? 0 : up > most ? most : up);
}

// The size of the work memory for one thread, with its 64 bytes of slack.
inline long long resizeBufSize(long long w, long long h, long long d, int mode) {
    const auto a16 = [](long long n) { return (n + 15) / 16 * 16; };
    const auto a64 = [](long long n) { return (n + 63) / 64 * 64; };
    const auto cut = [](long long n) { return n / 64 * 64; };
    if (mode == 1) return ((w + 15) / 16 + (h + 15) / 16 + (d + 15) / 16) * 64 + 64;
    long long s = a16(w) + a16(h) + a16(d) + a64(h) + a64(w) + a64(d);
    if (mode == 2)
        s += cut(2 * w + 127) + 2 * h * a64(w) + cut(8 * (w + h) + 127);
    else
        s += cut(4 * w + 255) + 4 * h * a64(w) + cut(4 * w + 255) + cut(4 * h + 255) + cut(4 * d + 255) +
             cut(48 * (w + h) + 255);
    return 4 * s + 64;
}

} // namespace reference
