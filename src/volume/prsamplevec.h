// Chunks of warp and remap in whole registers, at the level that has them wide enough: sixteen voxels at a time.
//
// Taps are loaded voxel by voxel, neighbours along x at once, and put together in registers: gathers of bytes would read
// beyond a caller's memory.
#pragma once
#include "volume/prsample.h"

#if defined(ZENR_LEVEL_avx512)
#include <immintrin.h>

// The compiler's own header starts results from undefined registers, and warns of them.
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

namespace zenr {
namespace avx512 {
namespace {

inline __m512i both(__m256i low, __m256i high) {
    return _mm512_inserti64x4(_mm512_castsi256_si512(low), high, 1);
}
inline __m512 both(__m256 low, __m256 high) {
    return _mm512_castpd_ps(
        _mm512_insertf64x4(_mm512_castps_pd(_mm512_castps256_ps512(low)), _mm256_castps_pd(high), 1));
}
inline __m512d firstHalf(__m512 v) {
    return _mm512_cvtps_pd(_mm512_castps512_ps256(v));
}
inline __m512d secondHalf(__m512 v) {
    return _mm512_cvtps_pd(_mm512_extractf32x8_ps(v, 1));
}
inline __m512d firstHalf(__m512i v) {
    return _mm512_cvtepi32_pd(_mm512_castsi512_si256(v));
}
inline __m512d secondHalf(__m512i v) {
    return _mm512_cvtepi32_pd(_mm512_extracti64x4_epi64(v, 1));
}

// Numbers that sums run in: sixteen floats, or twice eight doubles.
struct Floats16 {
    __m512 v;
    static Floats16 of(__m512d low, __m512d high) { return {both(_mm512_cvtpd_ps(low), _mm512_cvtpd_ps(high))}; }
    static Floats16 of(__m512i v) { return {_mm512_cvtepi32_ps(v)}; }
};
struct Doubles16 {
    __m512d low, high;
    static Doubles16 of(__m512d low, __m512d high) { return {low, high}; }
    static Doubles16 of(__m512i v) { return {firstHalf(v), secondHalf(v)}; }
    static Doubles16 of(__m512 v) { return {firstHalf(v), secondHalf(v)}; }
};
template <class Real> struct Real16Of { using Type = Doubles16; };
template <> struct Real16Of<float> { using Type = Floats16; };
inline Floats16 all16(float x) {
    return {_mm512_set1_ps(x)};
}
inline Doubles16 all16(double x) {
    return {_mm512_set1_pd(x), _mm512_set1_pd(x)};
}
inline Floats16 blend(Floats16 a, Floats16 b, Floats16 f) {
    return {_mm512_add_ps(a.v, _mm512_mul_ps(_mm512_sub_ps(b.v, a.v), f.v))};
}
inline __m512d blend(__m512d a, __m512d b, __m512d f) {
    return _mm512_add_pd(a, _mm512_mul_pd(_mm512_sub_pd(b, a), f));
}
inline Doubles16 blend(Doubles16 a, Doubles16 b, Doubles16 f) {
    return {blend(a.low, b.low, f.low), blend(a.high, b.high, f.high)};
}

// Base voxels along an axis whose last voxel is `high`, and the fractions behind them.
template <class Real> struct Placed16 {
    __m512i base;
    Real fraction;
};
inline __m256i place8(__m512d at, int high, double snap, __m512d* fraction) {
    const __m512d snapped = _mm512_add_pd(at, _mm512_set1_pd(snap));
    const __mmask8 last = _mm512_cmp_pd_mask(snapped, _mm512_set1_pd(high), _CMP_GE_OQ);
    const __m256i i = _mm512_cvttpd_epi32(snapped);
    *fraction = _mm512_mask_mov_pd(_mm512_sub_pd(at, _mm512_cvtepi32_pd(i)), last, _mm512_set1_pd(1));
    return _mm256_mask_mov_epi32(i, last, _mm256_set1_epi32(high - 1));
}
template <class Real> inline Placed16<Real> place16(__m512d low, __m512d up, int high, double snap) {
    __m512d f[2];
    const __m256i a = place8(low, high, snap, &f[0]), b = place8(up, high, snap, &f[1]);
    return {both(a, b), Real::of(f[0], f[1])};
}
template <class Real> inline Placed16<Real> place16(const double* s, int high, double snap) {
    return place16<Real>(_mm512_loadu_pd(s), _mm512_loadu_pd(s + 8), high, snap);
}

// Neighbours of sixteen voxels, tap(x) the first of voxel x: the pairs' first and second voxels.
struct IntPairs16 {
    __m512i first, second;
};
struct FloatPairs16 {
    __m512 first, second;
};
template <class T> struct Pairs16 { using Type = IntPairs16; };
template <> struct Pairs16<float> { using Type = FloatPairs16; };
inline uint16_t pairAt(const uint8_t* p) {
    uint16_t v;
    __builtin_memcpy(&v, p, 2);
    return v;
}
inline int pairAt(const uint16_t* p) {
    int v;
    __builtin_memcpy(&v, p, 4);
    return v;
}
template <class Tap> inline __m128i words8(const Tap& tap, int x) {
    __m128i v = _mm_cvtsi32_si128(pairAt(tap(x)));
    v = _mm_insert_epi16(v, pairAt(tap(x + 1)), 1);
    v = _mm_insert_epi16(v, pairAt(tap(x + 2)), 2);
    v = _mm_insert_epi16(v, pairAt(tap(x + 3)), 3);
    v = _mm_insert_epi16(v, pairAt(tap(x + 4)), 4);
    v = _mm_insert_epi16(v, pairAt(tap(x + 5)), 5);
    v = _mm_insert_epi16(v, pairAt(tap(x + 6)), 6);
    return _mm_insert_epi16(v, pairAt(tap(x + 7)), 7);
}
template <class Tap> inline IntPairs16 pairs16(const uint8_t*, const Tap& tap) {
    const __m512i v = _mm512_cvtepu16_epi32(_mm256_set_m128i(words8(tap, 8), words8(tap, 0)));
    return {_mm512_and_si512(v, _mm512_set1_epi32(0xFF)), _mm512_srli_epi32(v, 8)};
}
template <class Tap> inline __m128i dwords4(const Tap& tap, int x) {
    __m128i v = _mm_cvtsi32_si128(pairAt(tap(x)));
    v = _mm_insert_epi32(v, pairAt(tap(x + 1)), 1);
    v = _mm_insert_epi32(v, pairAt(tap(x + 2)), 2);
    return _mm_insert_epi32(v, pairAt(tap(x + 3)), 3);
}
template <class Tap> inline IntPairs16 pairs16(const uint16_t*, const Tap& tap) {
    const __m512i v =
        both(_mm256_set_m128i(dwords4(tap, 4), dwords4(tap, 0)), _mm256_set_m128i(dwords4(tap, 12), dwords4(tap, 8)));
    return {_mm512_and_si512(v, _mm512_set1_epi32(0xFFFF)), _mm512_srli_epi32(v, 16)};
}
template <class Tap> inline __m128 twoPairs(const Tap& tap, int x) {
    const __m128 v = _mm_castpd_ps(_mm_load_sd(reinterpret_cast<const double*>(tap(x))));
    return _mm_loadh_pi(v, reinterpret_cast<const __m64*>(tap(x + 1)));
}
template <class Tap> inline __m512 eightPairs(const Tap& tap, int x) {
    return both(_mm256_set_m128(twoPairs(tap, x + 2), twoPairs(tap, x)),
                _mm256_set_m128(twoPairs(tap, x + 6), twoPairs(tap, x + 4)));
}
template <class Tap> inline FloatPairs16 pairs16(const float*, const Tap& tap) {
    const __m512i even = _mm512_setr_epi32(0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30);
    const __m512i odd = _mm512_add_epi32(even, _mm512_set1_epi32(1));
    const __m512 low = eightPairs(tap, 0), high = eightPairs(tap, 8);
    return {_mm512_permutex2var_ps(low, even, high), _mm512_permutex2var_ps(low, odd, high)};
}

// Cubic weights of eight fractions as weightPolynomials has them: one formula for numbers and registers.
typedef double Double8 __attribute__((vector_size(64)));

// Rounded to 24 bits. The result is the mask of those whose rounding is open, as the weights defined lie up to `error`
// off. A weight of 0 is one within 2^-52.
inline __mmask8 roundWeights8(__m512d w, __m512d error, double* rounded) {
    const __m512d scaled = _mm512_mul_pd(w, _mm512_set1_pd(536870913)); // 2^29 + 1
    const __m512d r = _mm512_sub_pd(scaled, _mm512_sub_pd(scaled, w));
    const __m512d power = _mm512_and_pd(w, _mm512_castsi512_pd(_mm512_set1_epi64(0x7FF0000000000000)));
    const __m512d half = _mm512_mul_pd(power, _mm512_set1_pd(5.9604644775390625e-8)); // 2^-24
    _mm512_storeu_pd(rounded, r);
    return _mm512_cmp_pd_mask(_mm512_abs_pd(_mm512_sub_pd(w, r)), _mm512_sub_pd(half, error), _CMP_GE_OQ) &
           _mm512_cmp_pd_mask(w, _mm512_setzero_pd(), _CMP_NEQ_OQ);
}

// Four rows of four voxels, one below the other, as numbers.
inline __m512 block4x4(const uint8_t* p, ptrdiff_t step) {
    const auto four = [&](int row) {
        int v;
        __builtin_memcpy(&v, p + row * step, 4);
        return v;
    };
    __m128i v = _mm_cvtsi32_si128(four(0));
    v = _mm_insert_epi32(v, four(1), 1);
    v = _mm_insert_epi32(v, four(2), 2);
    v = _mm_insert_epi32(v, four(3), 3);
    return _mm512_cvtepi32_ps(_mm512_cvtepu8_epi32(v));
}

// The sum of a voxel's 64 taps from p on; weights of voxel x at [axis][tap][x].
inline float cubicSum(const uint8_t* p, ptrdiff_t step, ptrdiff_t planeStep, const float (*w)[4][16], int x, float*) {
    const __m128 wx = _mm_setr_ps(w[0][0][x], w[0][1][x], w[0][2][x], w[0][3][x]);
    const __m512 wy = both(_mm256_set_m128(_mm_set1_ps(w[1][1][x]), _mm_set1_ps(w[1][0][x])),
                           _mm256_set_m128(_mm_set1_ps(w[1][3][x]), _mm_set1_ps(w[1][2][x])));
    __m512 total = _mm512_mul_ps(block4x4(p, step), _mm512_set1_ps(w[2][0][x]));
    for (int k = 1; k < 4; ++k)
        total = _mm512_add_ps(total, _mm512_mul_ps(block4x4(p + k * planeStep, step), _mm512_set1_ps(w[2][k][x])));
    total = _mm512_mul_ps(total, _mm512_mul_ps(wy, _mm512_broadcast_f32x4(wx)));
    const __m256 half = _mm256_add_ps(_mm512_castps512_ps256(total), _mm512_extractf32x8_ps(total, 1));
    const __m128 row = _mm_add_ps(_mm256_castps256_ps128(half), _mm256_extractf128_ps(half, 1));
    const __m128 two = _mm_add_ps(row, _mm_movehl_ps(row, row));
    return _mm_cvtss_f32(_mm_add_ss(two, _mm_movehdup_ps(two)));
}

inline __m256d fourDoubles(const uint16_t* p, __m128*) {
    return _mm256_cvtepi32_pd(_mm_cvtepu16_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p))));
}
inline __m256d fourDoubles(const float* p, __m128* most) {
    const __m128 v = _mm_loadu_ps(p);
    *most = _mm_range_ps(v, *most, 0xB); // the larger in size, as a size
    return _mm256_cvtps_pd(v);
}
template <class T>
inline double cubicSum(const T* p, ptrdiff_t step, ptrdiff_t planeStep, const double (*w)[4][16], int x, float* most) {
    const __m256d wx = _mm256_setr_pd(w[0][0][x], w[0][1][x], w[0][2][x], w[0][3][x]);
    __m256d wy[4], total = _mm256_setzero_pd();
    for (int j = 0; j < 4; ++j) wy[j] = _mm256_set1_pd(w[1][j][x]);
    __m128 size = _mm_setzero_ps();
    for (int k = 0; k < 4; ++k) {
        const T* const q = p + k * planeStep;
        const __m256d a = _mm256_mul_pd(wy[0], fourDoubles(q, &size)),
                      b = _mm256_mul_pd(wy[1], fourDoubles(q + step, &size)),
                      c = _mm256_mul_pd(wy[2], fourDoubles(q + 2 * step, &size)),
                      d = _mm256_mul_pd(wy[3], fourDoubles(q + 3 * step, &size));
        const __m256d sum = _mm256_add_pd(_mm256_add_pd(a, b), _mm256_add_pd(c, d));
        total = _mm256_add_pd(total, _mm256_mul_pd(sum, _mm256_set1_pd(w[2][k][x])));
    }
    if constexpr (sizeof(T) == 4) {
        size = _mm_max_ps(size, _mm_movehl_ps(size, size));
        *most = _mm_cvtss_f32(_mm_max_ss(size, _mm_movehdup_ps(size)));
    }
    total = _mm256_mul_pd(total, wx);
    const __m128d two = _mm_add_pd(_mm256_castpd256_pd128(total), _mm256_extractf128_pd(total, 1));
    return _mm_cvtsd_f64(_mm_add_sd(two, _mm_unpackhi_pd(two, two)));
}

// Rounds sums to voxels; the result is the mask of those whose error leaves it open. As settled() for each.
inline void storeVoxels16(uint8_t* dst, __m512i v) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), _mm512_cvtepi32_epi8(v));
}
inline void storeVoxels16(uint16_t* dst, __m512i v) {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst), _mm512_cvtepi32_epi16(v));
}
inline __m512i clamped16(__m512i v, int most) {
    return _mm512_min_epi32(_mm512_max_epi32(v, _mm512_setzero_si512()), _mm512_set1_epi32(most));
}
inline unsigned settle16(uint8_t* dst, Floats16 sum, Floats16 error, float half) {
    const __m512 at = _mm512_add_ps(sum.v, _mm512_set1_ps(half));
    const __m512i low = _mm512_cvttps_epi32(_mm512_sub_ps(at, error.v));
    const __m512i high = _mm512_cvttps_epi32(_mm512_add_ps(at, error.v));
    storeVoxels16(dst, clamped16(low, 255));
    return _mm512_cmpneq_epi32_mask(low, high);
}
inline unsigned settle16(uint16_t* dst, Doubles16 sum, Doubles16 error, double half) {
    const __m512d h = _mm512_set1_pd(half), a = _mm512_add_pd(sum.low, h), b = _mm512_add_pd(sum.high, h);
    const __m512i low =
        both(_mm512_cvttpd_epi32(_mm512_sub_pd(a, error.low)), _mm512_cvttpd_epi32(_mm512_sub_pd(b, error.high)));
    const __m512i high =
        both(_mm512_cvttpd_epi32(_mm512_add_pd(a, error.low)), _mm512_cvttpd_epi32(_mm512_add_pd(b, error.high)));
    storeVoxels16(dst, clamped16(low, 65535));
    return _mm512_cmpneq_epi32_mask(low, high);
}
inline unsigned settle16(float* dst, Doubles16 sum, Doubles16 error, double) {
    const __m512 low =
        both(_mm512_cvtpd_ps(_mm512_sub_pd(sum.low, error.low)), _mm512_cvtpd_ps(_mm512_sub_pd(sum.high, error.high)));
    const __m512 high =
        both(_mm512_cvtpd_ps(_mm512_add_pd(sum.low, error.low)), _mm512_cvtpd_ps(_mm512_add_pd(sum.high, error.high)));
    _mm512_storeu_ps(dst, low);
    return _mm512_cmpneq_epi32_mask(_mm512_castps_si512(low), _mm512_castps_si512(high));
}

} // namespace
} // namespace avx512
} // namespace zenr
#endif
