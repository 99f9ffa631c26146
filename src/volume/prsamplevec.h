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
    static Floats16 of(__m512 v) { return {v}; }
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
__attribute__((always_inline)) inline __m256i place8(__m512d at, int high, double snap, __m512d* fraction) {
    const __m512d snapped = _mm512_add_pd(at, _mm512_set1_pd(snap));
    const __mmask8 last = _mm512_cmp_pd_mask(snapped, _mm512_set1_pd(high), _CMP_GE_OQ);
    const __m256i i = _mm512_cvttpd_epi32(snapped);
    *fraction = _mm512_mask_mov_pd(_mm512_sub_pd(at, _mm512_cvtepi32_pd(i)), last, _mm512_set1_pd(1));
    return _mm256_mask_mov_epi32(i, last, _mm256_set1_epi32(high - 1));
}
template <class Real>
__attribute__((always_inline)) inline Placed16<Real> place16(__m512d low, __m512d up, int high, double snap) {
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
inline double pairAt(const float* p) {
    double v;
    __builtin_memcpy(&v, p, 8);
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
template <class Tap> __attribute__((always_inline)) inline IntPairs16 pairs16(const uint8_t*, const Tap& tap) {
    const __m512i v = _mm512_cvtepu16_epi32(_mm256_set_m128i(words8(tap, 8), words8(tap, 0)));
    return {_mm512_and_si512(v, _mm512_set1_epi32(0xFF)), _mm512_srli_epi32(v, 8)};
}
template <class Tap> inline __m128i dwords4(const Tap& tap, int x) {
    __m128i v = _mm_cvtsi32_si128(pairAt(tap(x)));
    v = _mm_insert_epi32(v, pairAt(tap(x + 1)), 1);
    v = _mm_insert_epi32(v, pairAt(tap(x + 2)), 2);
    return _mm_insert_epi32(v, pairAt(tap(x + 3)), 3);
}
template <class Tap> __attribute__((always_inline)) inline IntPairs16 pairs16(const uint16_t*, const Tap& tap) {
    const __m512i v =
        both(_mm256_set_m128i(dwords4(tap, 4), dwords4(tap, 0)), _mm256_set_m128i(dwords4(tap, 12), dwords4(tap, 8)));
    return {_mm512_and_si512(v, _mm512_set1_epi32(0xFFFF)), _mm512_srli_epi32(v, 16)};
}
template <class Tap> inline __m128 twoPairs(const Tap& tap, int x) {
    return _mm_castpd_ps(_mm_set_pd(pairAt(tap(x + 1)), pairAt(tap(x))));
}
template <class Tap> inline __m512 eightPairs(const Tap& tap, int x) {
    return both(_mm256_set_m128(twoPairs(tap, x + 2), twoPairs(tap, x)),
                _mm256_set_m128(twoPairs(tap, x + 6), twoPairs(tap, x + 4)));
}
template <class Tap> __attribute__((always_inline)) inline FloatPairs16 pairs16(const float*, const Tap& tap) {
    const __m512i even = _mm512_setr_epi32(0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30);
    const __m512i odd = _mm512_add_epi32(even, _mm512_set1_epi32(1));
    const __m512 low = eightPairs(tap, 0), high = eightPairs(tap, 8);
    return {_mm512_permutex2var_ps(low, even, high), _mm512_permutex2var_ps(low, odd, high)};
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
