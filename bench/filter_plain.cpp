// The loops of filter_plain.h.
#include "filter_plain.h"

#include <math.h>

static inline int16_t result(int64_t sum, int32_t divisor, int shift) {
    int64_t t;
    if (divisor == 1) {
        t = sum;
    } else if (shift > 0) {
        const int64_t q = sum >> shift;
        t = q + (((sum & (divisor - 1)) + (divisor / 2 - 1) + (q & 1)) >> shift);
    } else {
        t = int64_t(rint(double(sum) / divisor));
    }
    return int16_t(t > 32767 ? 32767 : t < -32768 ? -32768 : t);
}

static int shiftOf(int32_t divisor) {
    int s = 0;
    if (divisor > 0 && (divisor & (divisor - 1)) == 0)
        while (int32_t(1) << s != divisor) ++s;
    return s;
}

void plainFilterVoxels(const PlainFilter& f) {
    const int shift = shiftOf(f.divisor);
    for (int z = 0; z < f.depth; ++z)
        for (int y = 0; y < f.height; ++y)
            for (int x = 0; x < f.width; ++x) {
                int64_t sum = 0;
                const int32_t* w = f.kernel;
                for (int kz = 0; kz < f.kd; ++kz)
                    for (int ky = 0; ky < f.kh; ++ky) {
                        const int16_t* s = f.src[z + kz] + (y + ky) * f.srcStep + x;
                        for (int kx = 0; kx < f.kw; ++kx) sum += int32_t(uint32_t(*w++) * uint32_t(int32_t(s[kx])));
                    }
                f.dst[z][y * f.dstStep + x] = result(sum, f.divisor, shift);
            }
}

void plainFilterRows(const PlainFilter& f) {
    const int shift = shiftOf(f.divisor);
    int64_t sum[4096];
    for (int z = 0; z < f.depth; ++z)
        for (int y = 0; y < f.height; ++y) {
            for (int x = 0; x < f.width; ++x) sum[x] = 0;
            const int32_t* w = f.kernel;
            for (int kz = 0; kz < f.kd; ++kz)
                for (int ky = 0; ky < f.kh; ++ky)
                    for (int kx = 0; kx < f.kw; ++kx, ++w) {
                        const int16_t* s = f.src[z + kz] + (y + ky) * f.srcStep + kx;
                        for (int x = 0; x < f.width; ++x) sum[x] += int32_t(uint32_t(*w) * uint32_t(int32_t(s[x])));
                    }
            for (int x = 0; x < f.width; ++x) f.dst[z][y * f.dstStep + x] = result(sum[x], f.divisor, shift);
        }
}
