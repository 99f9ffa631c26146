// Vectors for the spherical-harmonic kernels of one level: kLanes directions at once, in double and in float, and a
// plain double with the same operations for single directions. Included by kernel sources only.
#pragma once
#include <immintrin.h>
#include <stddef.h>
#include <stdint.h>

#define ZENR_SH_INLINE inline __attribute__((always_inline))

namespace zenr::ZENR_LEVEL {

#if defined(ZENR_LEVEL_sse2)
constexpr int kLanes = 4;
using HalfD = __m128d;
using Floats = __m128;
#else
constexpr int kLanes = 8;
using HalfD = __m256d;
using Floats = __m256;
#endif

#if defined(ZENR_LEVEL_avx512)
using Doubles = __m512d;
#else
// Two registers side by side: one alone would leave the multipliers waiting for each other's results.
struct Doubles {
    HalfD lo, hi;
};
ZENR_SH_INLINE Doubles operator+(Doubles a, Doubles b) {
    return {a.lo + b.lo, a.hi + b.hi};
}
ZENR_SH_INLINE Doubles operator-(Doubles a, Doubles b) {
    return {a.lo - b.lo, a.hi - b.hi};
}
ZENR_SH_INLINE Doubles operator*(Doubles a, Doubles b) {
    return {a.lo * b.lo, a.hi * b.hi};
}
ZENR_SH_INLINE Doubles operator*(double k, Doubles a) {
    return {k * a.lo, k * a.hi};
}
ZENR_SH_INLINE Doubles operator+(Doubles a, double k) {
    return {a.lo + k, a.hi + k};
}
ZENR_SH_INLINE Doubles operator-(Doubles a, double k) {
    return {a.lo - k, a.hi - k};
}
#endif

template <class V> V splat(double k);
#if defined(ZENR_LEVEL_sse2)
template <> ZENR_SH_INLINE Doubles splat<Doubles>(double k) {
    return {_mm_set1_pd(k), _mm_set1_pd(k)};
}
ZENR_SH_INLINE Floats splatFloat(float k) {
    return _mm_set1_ps(k);
}
ZENR_SH_INLINE Floats loadFloats(const float* p) {
    return _mm_loadu_ps(p);
}
ZENR_SH_INLINE void storeFloats(float* p, Floats v) {
    _mm_storeu_ps(p, v);
}
ZENR_SH_INLINE Doubles toDoubles(Floats v) {
    return {_mm_cvtps_pd(v), _mm_cvtps_pd(_mm_movehl_ps(v, v))};
}
ZENR_SH_INLINE Floats toFloats(Doubles v) {
    return _mm_movelh_ps(_mm_cvtpd_ps(v.lo), _mm_cvtpd_ps(v.hi));
}
// One bit per lane that is zero, of either sign.
ZENR_SH_INLINE unsigned zeroLanes(Floats v) {
    return unsigned(_mm_movemask_ps(_mm_cmpeq_ps(v, _mm_setzero_ps())));
}
// x, but +0 in the lanes where v is zero.
ZENR_SH_INLINE Floats whereNotZero(Floats v, Floats x) {
    return _mm_and_ps(x, _mm_cmpneq_ps(v, _mm_setzero_ps()));
}
// One bit per lane whose bits are equal.
ZENR_SH_INLINE unsigned sameBits(Floats a, Floats b) {
    return unsigned(_mm_movemask_ps(_mm_castsi128_ps(_mm_cmpeq_epi32(_mm_castps_si128(a), _mm_castps_si128(b)))));
}
// One bit per lane with lowest <= v <= highest; a NaN is outside.
ZENR_SH_INLINE unsigned within(Doubles v, double lowest, double highest) {
    const HalfD a = _mm_set1_pd(lowest), b = _mm_set1_pd(highest);
    return unsigned(_mm_movemask_pd(_mm_and_pd(_mm_cmpge_pd(v.lo, a), _mm_cmple_pd(v.lo, b)))) |
           unsigned(_mm_movemask_pd(_mm_and_pd(_mm_cmpge_pd(v.hi, a), _mm_cmple_pd(v.hi, b)))) << 2;
}
#else
ZENR_SH_INLINE Floats splatFloat(float k) {
    return _mm256_set1_ps(k);
}
ZENR_SH_INLINE Floats loadFloats(const float* p) {
    return _mm256_loadu_ps(p);
}
ZENR_SH_INLINE void storeFloats(float* p, Floats v) {
    _mm256_storeu_ps(p, v);
}
ZENR_SH_INLINE unsigned zeroLanes(Floats v) {
    return unsigned(_mm256_movemask_ps(_mm256_cmp_ps(v, _mm256_setzero_ps(), _CMP_EQ_OQ)));
}
ZENR_SH_INLINE Floats whereNotZero(Floats v, Floats x) {
    return _mm256_and_ps(x, _mm256_cmp_ps(v, _mm256_setzero_ps(), _CMP_NEQ_UQ));
}
ZENR_SH_INLINE unsigned sameBits(Floats a, Floats b) {
    return unsigned(
        _mm256_movemask_ps(_mm256_castsi256_ps(_mm256_cmpeq_epi32(_mm256_castps_si256(a), _mm256_castps_si256(b)))));
}
#if defined(ZENR_LEVEL_avx2)
template <> ZENR_SH_INLINE Doubles splat<Doubles>(double k) {
    return {_mm256_set1_pd(k), _mm256_set1_pd(k)};
}
ZENR_SH_INLINE Doubles toDoubles(Floats v) {
    return {_mm256_cvtps_pd(_mm256_castps256_ps128(v)), _mm256_cvtps_pd(_mm256_extractf128_ps(v, 1))};
}
ZENR_SH_INLINE Floats toFloats(Doubles v) {
    return _mm256_insertf128_ps(_mm256_castps128_ps256(_mm256_cvtpd_ps(v.lo)), _mm256_cvtpd_ps(v.hi), 1);
}
ZENR_SH_INLINE unsigned within(Doubles v, double lowest, double highest) {
    const HalfD a = _mm256_set1_pd(lowest), b = _mm256_set1_pd(highest);
    const HalfD lo = _mm256_and_pd(_mm256_cmp_pd(v.lo, a, _CMP_GE_OQ), _mm256_cmp_pd(v.lo, b, _CMP_LE_OQ));
    const HalfD hi = _mm256_and_pd(_mm256_cmp_pd(v.hi, a, _CMP_GE_OQ), _mm256_cmp_pd(v.hi, b, _CMP_LE_OQ));
    return unsigned(_mm256_movemask_pd(lo)) | unsigned(_mm256_movemask_pd(hi)) << 4;
}
#else
template <> ZENR_SH_INLINE Doubles splat<Doubles>(double k) {
    return _mm512_set1_pd(k);
}
ZENR_SH_INLINE Doubles toDoubles(Floats v) {
    return _mm512_maskz_cvtps_pd(0xFF, v);
}
ZENR_SH_INLINE Floats toFloats(Doubles v) {
    return _mm512_maskz_cvtpd_ps(0xFF, v);
}
ZENR_SH_INLINE unsigned within(Doubles v, double lowest, double highest) {
    return _mm512_cmp_pd_mask(v, _mm512_set1_pd(lowest), _CMP_GE_OQ) &
           _mm512_cmp_pd_mask(v, _mm512_set1_pd(highest), _CMP_LE_OQ);
}
#endif
#endif

template <> ZENR_SH_INLINE double splat<double>(double k) {
    return k;
}

ZENR_SH_INLINE float splatLike(float, float k) {
    return k;
}
ZENR_SH_INLINE Floats splatLike(Floats, float k) {
    return splatFloat(k);
}
ZENR_SH_INLINE Doubles widen(Floats v) {
    return toDoubles(v);
}
ZENR_SH_INLINE double widen(float v) {
    return v;
}
ZENR_SH_INLINE Floats narrow(Doubles v) {
    return toFloats(v);
}
ZENR_SH_INLINE float narrow(double v) {
    return float(v);
}

// Four by four floats in each part of four of the vectors.
template <int kFloats> struct TileOf;
template <> struct TileOf<kLanes> { using Vector = Floats; };
#if defined(ZENR_LEVEL_sse2)
constexpr int kWidest = 4;
ZENR_SH_INLINE void transposeFour(__m128 (&q)[4]) {
    _MM_TRANSPOSE4_PS(q[0], q[1], q[2], q[3]);
}
ZENR_SH_INLINE void load(const float* p, __m128& v) {
    v = _mm_loadu_ps(p);
}
ZENR_SH_INLINE void store(float* p, __m128 v) {
    _mm_storeu_ps(p, v);
}
#else
ZENR_SH_INLINE void transposeFour(__m256 (&q)[4]) {
    const __m256d ab0 = _mm256_castps_pd(_mm256_unpacklo_ps(q[0], q[1]));
    const __m256d ab1 = _mm256_castps_pd(_mm256_unpackhi_ps(q[0], q[1]));
    const __m256d cd0 = _mm256_castps_pd(_mm256_unpacklo_ps(q[2], q[3]));
    const __m256d cd1 = _mm256_castps_pd(_mm256_unpackhi_ps(q[2], q[3]));
    q[0] = _mm256_castpd_ps(_mm256_unpacklo_pd(ab0, cd0));
    q[1] = _mm256_castpd_ps(_mm256_unpackhi_pd(ab0, cd0));
    q[2] = _mm256_castpd_ps(_mm256_unpacklo_pd(ab1, cd1));
    q[3] = _mm256_castpd_ps(_mm256_unpackhi_pd(ab1, cd1));
}
ZENR_SH_INLINE void load(const float* p, __m256& v) {
    v = _mm256_loadu_ps(p);
}
ZENR_SH_INLINE void store(float* p, __m256 v) {
    _mm256_storeu_ps(p, v);
}
#if defined(ZENR_LEVEL_avx512)
constexpr int kWidest = 16;
template <> struct TileOf<16> { using Vector = __m512; };
ZENR_SH_INLINE void transposeFour(__m512 (&q)[4]) {
    const __m512d ab0 = _mm512_castps_pd(_mm512_maskz_unpacklo_ps(0xFFFF, q[0], q[1]));
    const __m512d ab1 = _mm512_castps_pd(_mm512_maskz_unpackhi_ps(0xFFFF, q[0], q[1]));
    const __m512d cd0 = _mm512_castps_pd(_mm512_maskz_unpacklo_ps(0xFFFF, q[2], q[3]));
    const __m512d cd1 = _mm512_castps_pd(_mm512_maskz_unpackhi_ps(0xFFFF, q[2], q[3]));
    q[0] = _mm512_castpd_ps(_mm512_maskz_unpacklo_pd(0xFF, ab0, cd0));
    q[1] = _mm512_castpd_ps(_mm512_maskz_unpackhi_pd(0xFF, ab0, cd0));
    q[2] = _mm512_castpd_ps(_mm512_maskz_unpacklo_pd(0xFF, ab1, cd1));
    q[3] = _mm512_castpd_ps(_mm512_maskz_unpackhi_pd(0xFF, ab1, cd1));
}
ZENR_SH_INLINE void load(const float* p, __m512& v) {
    v = _mm512_loadu_ps(p);
}
ZENR_SH_INLINE void store(float* p, __m512 v) {
    _mm512_storeu_ps(p, v);
}
#else
constexpr int kWidest = 8;
#endif
#endif

// A tile of kLanes values (rows of kLanes directions), transposed in quarters of four directions: out[i] takes the values
// of direction 4 * quarter + i.
constexpr int kQuarters = kLanes / 4;
ZENR_SH_INLINE void transposeQuarter(const float* rows, int quarter, Floats out[4]) {
#if defined(ZENR_LEVEL_sse2)
    (void)quarter;
    for (int i = 0; i < 4; ++i) out[i] = loadFloats(rows + 4 * i);
    _MM_TRANSPOSE4_PS(out[0], out[1], out[2], out[3]);
#else
    // The lower half of each register takes values 0..3 and the upper half 4..7, so that a transposition inside the
    // halves is all that is needed.
    const float* r = rows + 4 * quarter;
    Floats q[4];
    for (int j = 0; j < 4; ++j)
        q[j] = _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(r + 8 * j)), _mm_loadu_ps(r + 8 * (j + 4)), 1);
    transposeFour(q);
    for (int j = 0; j < 4; ++j) out[j] = q[j];
#endif
}

// Stores two coefficients' values of kLanes directions so that a tile (a vector of kTile floats for each direction) lies
// in one piece, four directions after the other: loaded and transposed by fours it gives the coefficients of one
// direction, the first ones of four slots, then their second ones (then those of the next four slots).
template <int kTile> ZENR_SH_INLINE void storeSlot(float* tiles, int slot, Floats first, Floats second) {
#if defined(ZENR_LEVEL_sse2)
    float* p = tiles + slot / 4 * 32 + slot % 4 * 4;
    storeFloats(p, first);
    storeFloats(p + 16, second);
#else
    constexpr int kSlots = kTile / 2;
    float* p = tiles + slot / kSlots * kSlots * 16 + slot % 4 * kTile + slot % kSlots / 4 * 8;
    storeFloats(p, _mm256_insertf128_ps(first, _mm256_castps256_ps128(second), 1));
    storeFloats(p + 4 * kTile, _mm256_permute2f128_ps(first, second, 0x31));
#endif
}

// kTiles tiles turned into consecutive values of each direction. The stores of a direction follow each other: those to
// one cache line are merged on their way.
template <int kTiles> ZENR_SH_INLINE void turnTiles(const float* rows, float* dst, ptrdiff_t stride) {
    for (int quarter = 0; quarter < kQuarters; ++quarter) {
        Floats v[kTiles][4];
        for (int tile = 0; tile < kTiles; ++tile) transposeQuarter(rows + tile * kLanes * kLanes, quarter, v[tile]);
        for (int i = 0; i < 4; ++i)
            for (int tile = 0; tile < kTiles; ++tile)
                storeFloats(dst + (4 * quarter + i) * stride + tile * kLanes, v[tile][i]);
    }
}

// Four values, likewise.
ZENR_SH_INLINE void turnFour(const float* rows, float* dst, ptrdiff_t stride) {
#if defined(ZENR_LEVEL_sse2)
    turnTiles<1>(rows, dst, stride);
#else
    const Floats a = loadFloats(rows), b = loadFloats(rows + 8), c = loadFloats(rows + 16), d = loadFloats(rows + 24);
    const __m256d ab0 = _mm256_castps_pd(_mm256_unpacklo_ps(a, b)), ab1 = _mm256_castps_pd(_mm256_unpackhi_ps(a, b));
    const __m256d cd0 = _mm256_castps_pd(_mm256_unpacklo_ps(c, d)), cd1 = _mm256_castps_pd(_mm256_unpackhi_ps(c, d));
    const Floats v[4] = {_mm256_castpd_ps(_mm256_unpacklo_pd(ab0, cd0)), _mm256_castpd_ps(_mm256_unpackhi_pd(ab0, cd0)),
                         _mm256_castpd_ps(_mm256_unpacklo_pd(ab1, cd1)),
                         _mm256_castpd_ps(_mm256_unpackhi_pd(ab1, cd1))};
    for (int i = 0; i < 4; ++i) {
        _mm_storeu_ps(dst + i * stride, _mm256_castps256_ps128(v[i]));
        _mm_storeu_ps(dst + (i + 4) * stride, _mm256_extractf128_ps(v[i], 1));
    }
#endif
}

// A cache line past the caches; both addresses on lines' boundaries.
constexpr int kLineFloats = 16;
ZENR_SH_INLINE void streamLine(float* dst, const float* src) {
#if defined(ZENR_LEVEL_avx512)
    _mm512_stream_ps(dst, _mm512_load_ps(src));
#else
    for (int i = 0; i < kLineFloats; i += kLanes)
#if defined(ZENR_LEVEL_sse2)
        _mm_stream_ps(dst + i, _mm_load_ps(src + i));
#else
        _mm256_stream_ps(dst + i, _mm256_load_ps(src + i));
#endif
#endif
}

} // namespace zenr::ZENR_LEVEL
