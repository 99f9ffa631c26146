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

// Comparisons of several registers, turned into bits at once: without mask registers that is cheaper than one by one.
#if defined(__AVX512BW__)
constexpr int kGroup = 1;
typedef Bits Flags;
ZENR_INLINE Flags flagLess(Floats a, Floats b) {
    return less(a, b);
}
ZENR_INLINE Flags flagLessEqual(Floats a, Floats b) {
    return lessEqual(a, b);
}
ZENR_INLINE Bits bitsOf(const Flags (&flags)[kGroup]) {
    return flags[0];
}
#else
constexpr int kGroup = 4;
typedef Ints Flags;
ZENR_INLINE Flags flagLess(Floats a, Floats b) {
    return a < b;
}
ZENR_INLINE Flags flagLessEqual(Floats a, Floats b) {
    return a <= b;
}
ZENR_INLINE Bits bitsOf(const Flags (&flags)[kGroup]) {
#if defined(__AVX2__)
    const __m256i low = _mm256_packs_epi32((__m256i)flags[0], (__m256i)flags[1]);
    const __m256i high = _mm256_packs_epi32((__m256i)flags[2], (__m256i)flags[3]);
    // Packing keeps to halves of a register: fours of rays are in the order 0 2 4 6 1 3 5 7.
    const __m256i fours = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    return Bits(_mm256_movemask_epi8(_mm256_permutevar8x32_epi32(_mm256_packs_epi16(low, high), fours)));
#else
    // cppcheck-suppress ctuArrayIndex  // four, as everywhere
    const __m128i low = _mm_packs_epi32((__m128i)flags[0], (__m128i)flags[1]);
    const __m128i high = _mm_packs_epi32((__m128i)flags[2], (__m128i)flags[3]);
    return Bits(_mm_movemask_epi8(_mm_packs_epi16(low, high)));
#endif
}
#endif
constexpr int kGroupLanes = kGroup * kLanes;

// The first `count` of a list, and zeros.
ZENR_INLINE Ints firstOf(const int* list, int count) {
#if defined(__AVX512BW__)
    return (Ints)_mm512_maskz_loadu_epi32(count < kLanes ? __mmask16((1u << count) - 1) : __mmask16(0xFFFF), list);
#else
    Ints x = {};
    for (int i = 0; i < kLanes; ++i) {
        if (i < count) x[i] = list[i];
    }
    return x;
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
ZENR_INLINE Doubles select(Bits bits, Doubles a, Doubles b) {
#if defined(__AVX512BW__)
    return (Doubles)_mm512_mask_blend_pd((__mmask8)bits, (__m512d)b, (__m512d)a);
#elif defined(__AVX2__)
    const __m256i lane = _mm256_setr_epi64x(1, 2, 4, 8);
    const __m256i mask = _mm256_cmpeq_epi64(_mm256_and_si256(_mm256_set1_epi64x(bits), lane), lane);
    return (Doubles)_mm256_blendv_pd((__m256d)b, (__m256d)a, _mm256_castsi256_pd(mask));
#else
    return Doubles{bits & 1 ? a[0] : b[0], bits & 2 ? a[1] : b[1]};
#endif
}

#if defined(__AVX2__) && !defined(__AVX512BW__)
// The lanes of each set of bits one after the other.
struct PackedLanes {
    uint8_t of[256][8];
    constexpr PackedLanes() : of() {
        for (int bits = 0; bits < 256; ++bits) {
            for (int lane = 0, at = 0; lane < 8; ++lane) {
                if (bits >> lane & 1) of[bits][at++] = uint8_t(lane);
            }
        }
    }
};
constexpr PackedLanes kPackedLanes;
#endif

// Writes the lanes of `bits` one after the other; what follows them, up to a register, is overwritten too.
ZENR_INLINE void storePacked(void* to, Bits bits, Ints x) {
#if defined(__AVX512BW__)
    _mm512_storeu_si512(to, _mm512_maskz_compress_epi32(__mmask16(bits), (__m512i)x));
#elif defined(__AVX2__)
    const __m128i lanes = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(kPackedLanes.of[bits]));
    _mm256_storeu_si256(static_cast<__m256i*>(to),
                        _mm256_permutevar8x32_epi32((__m256i)x, _mm256_cvtepu8_epi32(lanes)));
#else
    for (int i = 0; i < kLanes; ++i) {
        const int32_t lane = x[i];
        __builtin_memcpy(to, &lane, sizeof lane);
        to = static_cast<int32_t*>(to) + (bits >> i & 1);
    }
#endif
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

// a * b + c, rounded once where the level can: only for what is bounded anyway.
ZENR_INLINE Floats about(Floats a, Floats b, Floats c) {
#if defined(__AVX512BW__)
    return (Floats)_mm512_fmadd_ps((__m512)a, (__m512)b, (__m512)c);
#elif defined(__AVX2__)
    return (Floats)_mm256_fmadd_ps((__m256)a, (__m256)b, (__m256)c);
#else
    return a * b + c;
#endif
}

// Four floats of each lane, that row(lane) gives: four by four of them are turned around within each quarter of the
// registers.
template <class Row> ZENR_INLINE void turnRows(const Row& row, Floats& x, Floats& y, Floats& z, Floats& w) {
#if defined(__AVX512BW__)
    const auto rows = [&](int lane) {
        __m512 r = _mm512_castps128_ps512(row(lane));
        r = _mm512_insertf32x4(r, row(lane + 4), 1);
        r = _mm512_insertf32x4(r, row(lane + 8), 2);
        return _mm512_insertf32x4(r, row(lane + 12), 3);
    };
    const __m512 a = rows(0), b = rows(1), c = rows(2), d = rows(3);
    const __m512d ab = _mm512_castps_pd(_mm512_unpacklo_ps(a, b)), cd = _mm512_castps_pd(_mm512_unpacklo_ps(c, d));
    const __m512d AB = _mm512_castps_pd(_mm512_unpackhi_ps(a, b)), CD = _mm512_castps_pd(_mm512_unpackhi_ps(c, d));
    x = (Floats)_mm512_unpacklo_pd(ab, cd);
    y = (Floats)_mm512_unpackhi_pd(ab, cd);
    z = (Floats)_mm512_unpacklo_pd(AB, CD);
    w = (Floats)_mm512_unpackhi_pd(AB, CD);
#elif defined(__AVX2__)
    const auto rows = [&](int lane) {
        return _mm256_insertf128_ps(_mm256_castps128_ps256(row(lane)), row(lane + 4), 1);
    };
    const __m256 a = rows(0), b = rows(1), c = rows(2), d = rows(3);
    const __m256d ab = _mm256_castps_pd(_mm256_unpacklo_ps(a, b)), cd = _mm256_castps_pd(_mm256_unpacklo_ps(c, d));
    const __m256d AB = _mm256_castps_pd(_mm256_unpackhi_ps(a, b)), CD = _mm256_castps_pd(_mm256_unpackhi_ps(c, d));
    x = (Floats)_mm256_unpacklo_pd(ab, cd);
    y = (Floats)_mm256_unpackhi_pd(ab, cd);
    z = (Floats)_mm256_unpacklo_pd(AB, CD);
    w = (Floats)_mm256_unpackhi_pd(AB, CD);
#else
    const __m128 a = row(0), b = row(1), c = row(2), d = row(3);
    const __m128 ab = _mm_unpacklo_ps(a, b), cd = _mm_unpacklo_ps(c, d);
    const __m128 AB = _mm_unpackhi_ps(a, b), CD = _mm_unpackhi_ps(c, d);
    x = (Floats)_mm_movelh_ps(ab, cd);
    y = (Floats)_mm_movehl_ps(cd, ab);
    z = (Floats)_mm_movelh_ps(AB, CD);
    w = (Floats)_mm_movehl_ps(CD, AB);
#endif
}

// The least and the largest of each four lanes that are apart by a multiple of four; of `count` registers at a time.
ZENR_INLINE __m128 leastQuarter(Floats a) {
#if defined(__AVX512BW__)
    const __m256 b = _mm256_min_ps(_mm512_castps512_ps256((__m512)a), _mm512_extractf32x8_ps((__m512)a, 1));
    return _mm_min_ps(_mm256_castps256_ps128(b), _mm256_extractf128_ps(b, 1));
#elif defined(__AVX2__)
    return _mm_min_ps(_mm256_castps256_ps128((__m256)a), _mm256_extractf128_ps((__m256)a, 1));
#else
    return (__m128)a;
#endif
}
ZENR_INLINE __m128 greatestQuarter(Floats a) {
#if defined(__AVX512BW__)
    const __m256 b = _mm256_max_ps(_mm512_castps512_ps256((__m512)a), _mm512_extractf32x8_ps((__m512)a, 1));
    return _mm_max_ps(_mm256_castps256_ps128(b), _mm256_extractf128_ps(b, 1));
#elif defined(__AVX2__)
    return _mm_max_ps(_mm256_castps256_ps128((__m256)a), _mm256_extractf128_ps((__m256)a, 1));
#else
    return (__m128)a;
#endif
}

// The least of each of four times four floats, and the largest.
ZENR_INLINE __m128 leastOfEach(__m128 a, __m128 b, __m128 c, __m128 d) {
    const __m128 ab = _mm_min_ps(_mm_unpacklo_ps(a, b), _mm_unpackhi_ps(a, b));
    const __m128 cd = _mm_min_ps(_mm_unpacklo_ps(c, d), _mm_unpackhi_ps(c, d));
    return _mm_min_ps(_mm_movelh_ps(ab, cd), _mm_movehl_ps(cd, ab));
}
ZENR_INLINE __m128 greatestOfEach(__m128 a, __m128 b, __m128 c, __m128 d) {
    const __m128 ab = _mm_max_ps(_mm_unpacklo_ps(a, b), _mm_unpackhi_ps(a, b));
    const __m128 cd = _mm_max_ps(_mm_unpacklo_ps(c, d), _mm_unpackhi_ps(c, d));
    return _mm_max_ps(_mm_movelh_ps(ab, cd), _mm_movehl_ps(cd, ab));
}

ZENR_INLINE float greatestOfFour(__m128 a) {
    const __m128 b = _mm_max_ps(a, _mm_movehl_ps(a, a));
    return _mm_cvtss_f32(_mm_max_ss(b, _mm_shuffle_ps(b, b, 1)));
}

// A register of rays from fours that lie apart, and back again; `lanes` are those that are written.
template <class From> ZENR_INLINE Floats joinFours(const From& four) {
#if defined(__AVX512BW__)
    __m512 r = _mm512_castps128_ps512(four(0));
    r = _mm512_insertf32x4(r, four(1), 1);
    r = _mm512_insertf32x4(r, four(2), 2);
    return (Floats)_mm512_insertf32x4(r, four(3), 3);
#elif defined(__AVX2__)
    return (Floats)_mm256_insertf128_ps(_mm256_castps128_ps256(four(0)), four(1), 1);
#else
    return (Floats)four(0);
#endif
}
ZENR_INLINE void storeFour(float* to, __m128 x, unsigned lanes) {
#if defined(__AVX512BW__)
    _mm_mask_storeu_ps(to, __mmask8(lanes), x);
#elif defined(__AVX2__)
    const __m128i lane = _mm_setr_epi32(1, 2, 4, 8);
    _mm_maskstore_ps(to, _mm_cmpeq_epi32(_mm_and_si128(_mm_set1_epi32(int(lanes)), lane), lane), x);
#else
    if (lanes == 15u) return _mm_storeu_ps(to, x);
    for (int i = 0; i < 4; ++i) {
        const float lane = x[i];
        if (lanes >> i & 1) __builtin_memcpy(to + i, &lane, sizeof lane);
    }
#endif
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

// The pair of each lane, pairs[index(lane)], one half after the other: loads and shuffles, of which a gather would take more.
template <class Index> ZENR_INLINE void gatherPairs(const float (*pairs)[2], const Index& index, Floats& a, Floats& b) {
    const auto two = [&](int lane) {
        const __m128d one = _mm_load_sd(reinterpret_cast<const double*>(pairs[index(lane)]));
        return _mm_castpd_ps(_mm_loadh_pd(one, reinterpret_cast<const double*>(pairs[index(lane + 1)])));
    };
    const Floats even = joinFours([&](int four) { return two(4 * four); });
    const Floats odd = joinFours([&](int four) { return two(4 * four + 2); });
#if defined(__AVX512BW__)
    a = (Floats)_mm512_shuffle_ps((__m512)even, (__m512)odd, 0x88);
    b = (Floats)_mm512_shuffle_ps((__m512)even, (__m512)odd, 0xDD);
#elif defined(__AVX2__)
    a = (Floats)_mm256_shuffle_ps((__m256)even, (__m256)odd, 0x88);
    b = (Floats)_mm256_shuffle_ps((__m256)even, (__m256)odd, 0xDD);
#else
    a = (Floats)_mm_shuffle_ps((__m128)even, (__m128)odd, 0x88);
    b = (Floats)_mm_shuffle_ps((__m128)even, (__m128)odd, 0xDD);
#endif
}
template <class Index> ZENR_INLINE Floats gatherOnes(const float* from, const Index& index) {
    return joinFours([&](int four) {
        return _mm_setr_ps(from[index(4 * four)], from[index(4 * four + 1)], from[index(4 * four + 2)],
                           from[index(4 * four + 3)]);
    });
}

} // namespace ZENR_LEVEL
} // namespace zenr
