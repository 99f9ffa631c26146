// Rays side by side: a register of floats, one lane a ray, and the doubles of its two halves. Comparisons give one bit a
// lane. What compiler vectors have no operator for stands here, once per level.
#pragma once
#include "frame/simd.h"

namespace zenr {
namespace ZENR_LEVEL {

constexpr int kLanes = kSimdBytes / 4;
constexpr int kHalf = kLanes / 2;

typedef float Floats __attribute__((vector_size(kSimdBytes), may_alias));
typedef double Doubles __attribute__((vector_size(kSimdBytes), may_alias));
typedef int32_t Ints __attribute__((vector_size(kSimdBytes), may_alias));
typedef uint32_t Bits;

constexpr Bits kAllLanes = Bits((1ull << kLanes) - 1);
constexpr Bits kHalfLanes = Bits((1u << kHalf) - 1);

// The same in all lanes, its sign of zero included.
ZENR_INLINE Floats all(float x) {
#if defined(__AVX512BW__)
    return (Floats)_mm512_set1_ps(x);
#elif defined(__AVX2__)
    return (Floats)_mm256_set1_ps(x);
#else
    return (Floats)_mm_set1_ps(x);
#endif
}
ZENR_INLINE Doubles all(double x) {
#if defined(__AVX512BW__)
    return (Doubles)_mm512_set1_pd(x);
#elif defined(__AVX2__)
    return (Doubles)_mm256_set1_pd(x);
#else
    return (Doubles)_mm_set1_pd(x);
#endif
}
ZENR_INLINE Ints all(int32_t x) {
    return Ints{} + x;
}

// The second operand when either is NaN, or when both are zeros.
ZENR_INLINE Floats smaller(Floats a, Floats b) {
#if defined(__AVX512BW__)
    return (Floats)_mm512_min_ps((__m512)a, (__m512)b);
#elif defined(__AVX2__)
    return (Floats)_mm256_min_ps((__m256)a, (__m256)b);
#else
    return (Floats)_mm_min_ps((__m128)a, (__m128)b);
#endif
}
ZENR_INLINE Floats larger(Floats a, Floats b) {
#if defined(__AVX512BW__)
    return (Floats)_mm512_max_ps((__m512)a, (__m512)b);
#elif defined(__AVX2__)
    return (Floats)_mm256_max_ps((__m256)a, (__m256)b);
#else
    return (Floats)_mm_max_ps((__m128)a, (__m128)b);
#endif
}

// Ordered comparisons: false where either is NaN.
ZENR_INLINE Bits less(Floats a, Floats b) {
#if defined(__AVX512BW__)
    return _mm512_cmp_ps_mask((__m512)a, (__m512)b, _CMP_LT_OQ);
#elif defined(__AVX2__)
    return Bits(_mm256_movemask_ps(_mm256_cmp_ps((__m256)a, (__m256)b, _CMP_LT_OQ)));
#else
    return Bits(_mm_movemask_ps(_mm_cmplt_ps((__m128)a, (__m128)b)));
#endif
}
ZENR_INLINE Bits lessEqual(Floats a, Floats b) {
#if defined(__AVX512BW__)
    return _mm512_cmp_ps_mask((__m512)a, (__m512)b, _CMP_LE_OQ);
#elif defined(__AVX2__)
    return Bits(_mm256_movemask_ps(_mm256_cmp_ps((__m256)a, (__m256)b, _CMP_LE_OQ)));
#else
    return Bits(_mm_movemask_ps(_mm_cmple_ps((__m128)a, (__m128)b)));
#endif
}
ZENR_INLINE Bits less(Doubles a, Doubles b) {
#if defined(__AVX512BW__)
    return _mm512_cmp_pd_mask((__m512d)a, (__m512d)b, _CMP_LT_OQ);
#elif defined(__AVX2__)
    return Bits(_mm256_movemask_pd(_mm256_cmp_pd((__m256d)a, (__m256d)b, _CMP_LT_OQ)));
#else
    return Bits(_mm_movemask_pd(_mm_cmplt_pd((__m128d)a, (__m128d)b)));
#endif
}
ZENR_INLINE Bits lessEqual(Doubles a, Doubles b) {
#if defined(__AVX512BW__)
    return _mm512_cmp_pd_mask((__m512d)a, (__m512d)b, _CMP_LE_OQ);
#elif defined(__AVX2__)
    return Bits(_mm256_movemask_pd(_mm256_cmp_pd((__m256d)a, (__m256d)b, _CMP_LE_OQ)));
#else
    return Bits(_mm_movemask_pd(_mm_cmple_pd((__m128d)a, (__m128d)b)));
#endif
}
ZENR_INLINE Bits equal(Ints a, Ints b) {
#if defined(__AVX512BW__)
    return _mm512_cmpeq_epi32_mask((__m512i)a, (__m512i)b);
#elif defined(__AVX2__)
    return Bits(_mm256_movemask_ps((__m256)_mm256_cmpeq_epi32((__m256i)a, (__m256i)b)));
#else
    return Bits(_mm_movemask_ps((__m128)_mm_cmpeq_epi32((__m128i)a, (__m128i)b)));
#endif
}

// Lanes of a where the bit is set, of b elsewhere.
ZENR_INLINE Floats select(Bits bits, Floats a, Floats b) {
#if defined(__AVX512BW__)
    return (Floats)_mm512_mask_blend_ps((__mmask16)bits, (__m512)b, (__m512)a);
#elif defined(__AVX2__)
    const Ints lane = {1, 2, 4, 8, 16, 32, 64, 128};
    return (Floats)_mm256_blendv_ps((__m256)b, (__m256)a, (__m256)((all(int32_t(bits)) & lane) == lane));
#else
    const Ints lane = {1, 2, 4, 8};
    const Ints mask = (all(int32_t(bits)) & lane) == lane;
    return (Floats)((mask & (Ints)a) | (~mask & (Ints)b));
#endif
}
ZENR_INLINE Ints select(Bits bits, Ints a, Ints b) {
    return (Ints)select(bits, (Floats)a, (Floats)b);
}

// The doubles of a half: 0 the lower, 1 the upper.
template <int Half> ZENR_INLINE Doubles toDoubles(Floats a) {
#if defined(__AVX512BW__)
    return (Doubles)_mm512_cvtps_pd(Half ? _mm512_extractf32x8_ps((__m512)a, 1) : _mm512_castps512_ps256((__m512)a));
#elif defined(__AVX2__)
    return (Doubles)_mm256_cvtps_pd(Half ? _mm256_extractf128_ps((__m256)a, 1) : _mm256_castps256_ps128((__m256)a));
#else
    return (Doubles)_mm_cvtps_pd(Half ? _mm_movehl_ps((__m128)a, (__m128)a) : (__m128)a);
#endif
}
ZENR_INLINE Floats toFloats(Doubles low, Doubles high) {
#if defined(__AVX512BW__)
    return (Floats)_mm512_insertf32x8(_mm512_castps256_ps512(_mm512_cvtpd_ps((__m512d)low)),
                                      _mm512_cvtpd_ps((__m512d)high), 1);
#elif defined(__AVX2__)
    return (Floats)_mm256_insertf128_ps(_mm256_castps128_ps256(_mm256_cvtpd_ps((__m256d)low)),
                                        _mm256_cvtpd_ps((__m256d)high), 1);
#else
    return (Floats)_mm_movelh_ps(_mm_cvtpd_ps((__m128d)low), _mm_cvtpd_ps((__m128d)high));
#endif
}

ZENR_INLINE Floats absolute(Floats a) {
    return (Floats)((Ints)a & all(int32_t(0x7FFFFFFF)));
}
ZENR_INLINE Doubles absolute(Doubles a) {
    typedef int64_t Longs __attribute__((vector_size(kSimdBytes), may_alias));
    return (Doubles)((Longs)a & (Longs{} + 0x7FFFFFFFFFFFFFFFll));
}

// Of all lanes, none of which is NaN.
ZENR_INLINE float least(Floats a) {
#if defined(__AVX512BW__)
    return _mm512_reduce_min_ps((__m512)a);
#else
    float x = a[0];
    for (int i = 1; i < kLanes; ++i) x = x < a[i] ? x : a[i];
    return x;
#endif
}
ZENR_INLINE float greatest(Floats a) {
#if defined(__AVX512BW__)
    return _mm512_reduce_max_ps((__m512)a);
#else
    float x = a[0];
    for (int i = 1; i < kLanes; ++i) x = x > a[i] ? x : a[i];
    return x;
#endif
}

} // namespace ZENR_LEVEL
} // namespace zenr
