// The volume filter as it is defined, one voxel at a time: 32-bit products that wrap, a 64-bit sum, three kinds of
// divisors.
#pragma once
#include <stdint.h>

namespace zenrref {

inline int16_t saturate16(int64_t v) {
    return v > 32767 ? 32767 : v < -32768 ? -32768 : int16_t(v);
}

inline int16_t divideFiltered(int64_t sum, int32_t divisor) {
    if (divisor == 1) return saturate16(sum);
    if (divisor > 0 && (divisor & (divisor - 1)) == 0) {
        int s = 0;
        while ((int32_t(1) << s) != divisor) ++s;
        const int64_t q = sum >> s;
        const int64_t f = sum & (int64_t(divisor) - 1);
        const int64_t h = int64_t(1) << (s - 1);
        return saturate16(q + ((f + h - 1 + (q & 1)) >> s));
    }
    const long double v = (long double)sum / (long double)divisor;
    if (v >= 32767.0L) return 32767;
    if (v <= -32768.0L) return -32768;
    if (-0.5L <= v && v <= 0.5L) return 0;
    int64_t t;
    if (v > 0.5L) {
        t = int64_t(v + 0.5L);
        if ((long double)t - v == 0.5L && (t & 1)) --t;
    } else {
        t = int64_t(v - 0.5L);
        if ((long double)t - v == -0.5L && (t & 1)) ++t;
    }
    return saturate16(t);
}

struct FilterShape {
    int kw, kh, kd;
    int ax, ay, az;
};

// src: plane pointers; step in voxels; the kernel as stored, applied mirrored.
inline int64_t filteredSum(const int16_t* const* src, long step, const int32_t* kernel, const FilterShape& k, int x,
                           int y, int z) {
    int64_t sum = 0;
    for (int kz = 0; kz < k.kd; ++kz)
        for (int ky = 0; ky < k.kh; ++ky)
            for (int kx = 0; kx < k.kw; ++kx) {
                const int32_t w = kernel[(kz * k.kh + ky) * k.kw + kx];
                const int32_t s = src[z + k.az - kz][(y + k.ay - ky) * step + (x + k.ax - kx)];
                sum += int32_t(uint32_t(uint64_t(int64_t(w) * s)));
            }
    return sum;
}

} // namespace zenrref
