// Voxels of warp and remap in whole registers, at the levels that have them wide enough: as many voxels at a time as
// floats fit a register.
//
// Taps are loaded voxel by voxel, neighbours along x at once, and put together in registers: gathers of bytes would read
// beyond a caller's memory, and gathers of anything take longer.
#pragma once
#include "frame/simd.h"
#include "volume/prsamplechunk.h"

namespace zenr {
namespace ZENR_LEVEL {
namespace {

typedef double Doubles __attribute__((vector_size(kSimdBytes)));
typedef int64_t Flags __attribute__((vector_size(kSimdBytes))); // -1 or 0
inline constexpr int kLanes = kSimdBytes / int(sizeof(double));
inline constexpr int kParts = kChunk / kLanes;

#if defined(ZENR_LEVEL_sse2)
inline unsigned bitsOf(Flags flags) {
    return unsigned(_mm_movemask_pd(__m128d(flags)));
}
#endif

} // namespace
} // namespace ZENR_LEVEL
} // namespace zenr

#if defined(ZENR_LEVEL_avx2) || defined(ZENR_LEVEL_avx512)
#define ZENR_WIDE 1
#define ZENR_INLINED __attribute__((always_inline)) // of lambdas

// The compiler's own header starts results from undefined registers, and warns of them.
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

namespace zenr {
namespace ZENR_LEVEL {
namespace {

typedef float Floats __attribute__((vector_size(kSimdBytes)));
typedef int Ints __attribute__((vector_size(kSimdBytes)));
typedef uint32_t Words __attribute__((vector_size(kSimdBytes)));
typedef uint16_t HalfWords __attribute__((vector_size(kSimdBytes)));
inline constexpr int kWide = kSimdBytes / int(sizeof(float)); // voxels of a register

// ---- What differs between the levels: conversions, and what compiler vectors have no operator for. ----

#if defined(ZENR_LEVEL_avx512)
ZENR_INLINE Ints joined(__m256i low, __m256i high) {
    return (Ints)_mm512_inserti64x4(_mm512_castsi256_si512(low), high, 1);
}
ZENR_INLINE Floats joined(__m256 low, __m256 high) {
    return (Floats)_mm512_insertf32x8(_mm512_castps256_ps512(low), high, 1);
}
ZENR_INLINE Floats narrowed(Doubles low, Doubles high) {
    return joined(_mm512_cvtpd_ps(__m512d(low)), _mm512_cvtpd_ps(__m512d(high)));
}
ZENR_INLINE Ints integers(Doubles low, Doubles high) { // truncated
    return joined(_mm512_cvttpd_epi32(__m512d(low)), _mm512_cvttpd_epi32(__m512d(high)));
}
ZENR_INLINE Doubles lowHalf(Floats v) {
    return (Doubles)_mm512_cvtps_pd(_mm512_castps512_ps256(__m512(v)));
}
ZENR_INLINE Doubles highHalf(Floats v) {
    return (Doubles)_mm512_cvtps_pd(_mm512_extractf32x8_ps(__m512(v), 1));
}
ZENR_INLINE Doubles lowHalf(Ints v) {
    return (Doubles)_mm512_cvtepi32_pd(_mm512_castsi512_si256(__m512i(v)));
}
ZENR_INLINE Doubles highHalf(Ints v) {
    return (Doubles)_mm512_cvtepi32_pd(_mm512_extracti64x4_epi64(__m512i(v), 1));
}
ZENR_INLINE Doubles truncated(Doubles v) {
    return (Doubles)_mm512_roundscale_pd(__m512d(v), _MM_FROUND_TO_ZERO);
}
ZENR_INLINE Floats multiplyAdd(Floats a, Floats b, Floats c) {
    return (Floats)_mm512_fmadd_ps(__m512(a), __m512(b), __m512(c));
}
ZENR_INLINE Doubles multiplyAdd(Doubles a, Doubles b, Doubles c) {
    return (Doubles)_mm512_fmadd_pd(__m512d(a), __m512d(b), __m512d(c));
}
ZENR_INLINE Floats sizes(Floats v) {
    return (Floats)_mm512_abs_ps(__m512(v));
}
ZENR_INLINE Floats larger(Floats a, Floats b) { // b where one of them is no number
    return (Floats)_mm512_max_ps(__m512(a), __m512(b));
}
ZENR_INLINE Ints clamped(Ints v, int most) {
    return (Ints)_mm512_min_epi32(_mm512_max_epi32(__m512i(v), _mm512_setzero_si512()), _mm512_set1_epi32(most));
}
ZENR_INLINE unsigned bitsOf(Ints flags) {
    return _mm512_movepi32_mask(__m512i(flags));
}
ZENR_INLINE unsigned bitsOf(Flags flags) {
    return _mm512_movepi64_mask(__m512i(flags));
}
ZENR_INLINE void storeVoxels(uint8_t* dst, Ints v) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), _mm512_cvtepi32_epi8(__m512i(v)));
}
ZENR_INLINE void storeVoxels(uint16_t* dst, Ints v) {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst), _mm512_cvtepi32_epi16(__m512i(v)));
}
#else
ZENR_INLINE Floats narrowed(Doubles low, Doubles high) {
    return (Floats)_mm256_set_m128(_mm256_cvtpd_ps(__m256d(high)), _mm256_cvtpd_ps(__m256d(low)));
}
ZENR_INLINE Ints integers(Doubles low, Doubles high) { // truncated
    return (Ints)_mm256_set_m128i(_mm256_cvttpd_epi32(__m256d(high)), _mm256_cvttpd_epi32(__m256d(low)));
}
ZENR_INLINE Doubles lowHalf(Floats v) {
    return (Doubles)_mm256_cvtps_pd(_mm256_castps256_ps128(__m256(v)));
}
ZENR_INLINE Doubles highHalf(Floats v) {
    return (Doubles)_mm256_cvtps_pd(_mm256_extractf128_ps(__m256(v), 1));
}
ZENR_INLINE Doubles lowHalf(Ints v) {
    return (Doubles)_mm256_cvtepi32_pd(_mm256_castsi256_si128(__m256i(v)));
}
ZENR_INLINE Doubles highHalf(Ints v) {
    return (Doubles)_mm256_cvtepi32_pd(_mm256_extracti128_si256(__m256i(v), 1));
}
ZENR_INLINE Doubles truncated(Doubles v) {
    return (Doubles)_mm256_round_pd(__m256d(v), _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC);
}
ZENR_INLINE Floats multiplyAdd(Floats a, Floats b, Floats c) {
    return (Floats)_mm256_fmadd_ps(__m256(a), __m256(b), __m256(c));
}
ZENR_INLINE Doubles multiplyAdd(Doubles a, Doubles b, Doubles c) {
    return (Doubles)_mm256_fmadd_pd(__m256d(a), __m256d(b), __m256d(c));
}
ZENR_INLINE Floats sizes(Floats v) {
    return (Floats)_mm256_andnot_ps(_mm256_set1_ps(-0.f), __m256(v));
}
ZENR_INLINE Floats larger(Floats a, Floats b) { // b where one of them is no number
    return (Floats)_mm256_max_ps(__m256(a), __m256(b));
}
ZENR_INLINE Ints clamped(Ints v, int most) {
    return (Ints)_mm256_min_epi32(_mm256_max_epi32(__m256i(v), _mm256_setzero_si256()), _mm256_set1_epi32(most));
}
ZENR_INLINE unsigned bitsOf(Ints flags) {
    return unsigned(_mm256_movemask_ps(_mm256_castsi256_ps(__m256i(flags))));
}
ZENR_INLINE unsigned bitsOf(Flags flags) {
    return unsigned(_mm256_movemask_pd(_mm256_castsi256_pd(__m256i(flags))));
}
ZENR_INLINE __m128i words8(Ints v) {
    return _mm_packus_epi32(_mm256_castsi256_si128(__m256i(v)), _mm256_extracti128_si256(__m256i(v), 1));
}
ZENR_INLINE void storeVoxels(uint8_t* dst, Ints v) {
    const __m128i words = words8(v);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(dst), _mm_packus_epi16(words, words));
}
ZENR_INLINE void storeVoxels(uint16_t* dst, Ints v) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), words8(v));
}
#endif

// ---- From here on the levels are alike. ----

// Numbers that sums run in: a register of floats, or two of doubles.
struct WideFloats {
    Floats v;
    static ZENR_INLINE WideFloats of(Doubles low, Doubles high) { return {narrowed(low, high)}; }
    static ZENR_INLINE WideFloats of(Ints v) { return {__builtin_convertvector(v, Floats)}; }
    static ZENR_INLINE WideFloats of(Floats v) { return {v}; }
    static ZENR_INLINE WideFloats all(double x) { return {Floats{} + float(x)}; }
};
struct WideDoubles {
    Doubles low, high;
    static ZENR_INLINE WideDoubles of(Doubles low, Doubles high) { return {low, high}; }
    static ZENR_INLINE WideDoubles of(Ints v) { return {lowHalf(v), highHalf(v)}; }
    static ZENR_INLINE WideDoubles of(Floats v) { return {lowHalf(v), highHalf(v)}; }
    static ZENR_INLINE WideDoubles all(double x) { return {Doubles{} + x, Doubles{} + x}; }
};
template <class Real> struct WideOf { using Type = WideDoubles; };
template <> struct WideOf<float> { using Type = WideFloats; };

ZENR_INLINE WideFloats blend(WideFloats a, WideFloats b, WideFloats f) {
    return {multiplyAdd(b.v - a.v, f.v, a.v)};
}
ZENR_INLINE WideDoubles blend(WideDoubles a, WideDoubles b, WideDoubles f) {
    return {multiplyAdd(b.low - a.low, f.low, a.low), multiplyAdd(b.high - a.high, f.high, a.high)};
}

// Base voxels along an axis whose last voxel is `high`, as whole numbers, and the fractions behind them: axisBase of each.
ZENR_INLINE Doubles baseOf(Doubles s, int high, Doubles* fraction) {
    const Doubles snapped = s + kSnap, end = Doubles{} + high, i = truncated(snapped);
    *fraction = snapped >= end ? Doubles{} + 1 : s - i;
    return snapped >= end ? end - 1 : i;
}
template <class Wide> struct Placed {
    Ints base;
    Wide fraction;
};
template <class Wide> ZENR_INLINE Placed<Wide> placed(const double* s, int high) {
    Doubles a, b, f, g;
    __builtin_memcpy(&a, s, sizeof a);
    __builtin_memcpy(&b, s + kLanes, sizeof b);
    const Doubles low = baseOf(a, high, &f), up = baseOf(b, high, &g);
    return {integers(low, up), Wide::of(f, g)};
}

// Neighbours along x of a register of voxels, tap(x) the first of voxel x: first and second ones.
template <class Numbers> struct Pairs { Numbers first, second; };
ZENR_INLINE uint16_t pairAt(const uint8_t* p) {
    uint16_t v;
    __builtin_memcpy(&v, p, 2);
    return v;
}
ZENR_INLINE int pairAt(const uint16_t* p) {
    int v;
    __builtin_memcpy(&v, p, 4);
    return v;
}
ZENR_INLINE double pairAt(const float* p) {
    double v;
    __builtin_memcpy(&v, p, 8);
    return v;
}
template <class Tap> ZENR_INLINE __m128i eightPairs(const Tap& tap, int x) {
    __m128i v = _mm_cvtsi32_si128(pairAt(tap(x)));
    v = _mm_insert_epi16(v, pairAt(tap(x + 1)), 1);
    v = _mm_insert_epi16(v, pairAt(tap(x + 2)), 2);
    v = _mm_insert_epi16(v, pairAt(tap(x + 3)), 3);
    v = _mm_insert_epi16(v, pairAt(tap(x + 4)), 4);
    v = _mm_insert_epi16(v, pairAt(tap(x + 5)), 5);
    v = _mm_insert_epi16(v, pairAt(tap(x + 6)), 6);
    return _mm_insert_epi16(v, pairAt(tap(x + 7)), 7);
}
template <class Tap> ZENR_INLINE Pairs<Ints> pairs(const uint8_t*, const Tap& tap) {
#if defined(ZENR_LEVEL_avx512)
    const Ints v = (Ints)_mm512_cvtepu16_epi32(_mm256_set_m128i(eightPairs(tap, 8), eightPairs(tap, 0)));
#else
    const Ints v = (Ints)_mm256_cvtepu16_epi32(eightPairs(tap, 0));
#endif
    return {v & 0xFF, v >> 8};
}
template <class Tap> ZENR_INLINE __m256i eightWordPairs(const Tap& tap, int x) {
    const auto four = [&](int i) ZENR_INLINED {
        __m128i v = _mm_cvtsi32_si128(pairAt(tap(i)));
        v = _mm_insert_epi32(v, pairAt(tap(i + 1)), 1);
        v = _mm_insert_epi32(v, pairAt(tap(i + 2)), 2);
        return _mm_insert_epi32(v, pairAt(tap(i + 3)), 3);
    };
    return _mm256_set_m128i(four(x + 4), four(x));
}
template <class Tap> ZENR_INLINE Pairs<Ints> pairs(const uint16_t*, const Tap& tap) {
#if defined(ZENR_LEVEL_avx512)
    const Ints v = joined(eightWordPairs(tap, 0), eightWordPairs(tap, 8));
#else
    const Ints v = (Ints)eightWordPairs(tap, 0);
#endif
    return {v & 0xFFFF, (Ints)((Words)v >> 16)};
}
template <class Tap> ZENR_INLINE __m256 fourPairs(const Tap& tap, int a, int b) { // a, a + 1, b and b + 1
    const auto two = [&](int i) ZENR_INLINED { return _mm_castpd_ps(_mm_set_pd(pairAt(tap(i + 1)), pairAt(tap(i)))); };
    return _mm256_set_m128(two(b), two(a));
}
template <class Tap> ZENR_INLINE Pairs<Floats> pairs(const float*, const Tap& tap) {
#if defined(ZENR_LEVEL_avx512)
    const __m512i even = _mm512_setr_epi32(0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30);
    const __m512i odd = _mm512_add_epi32(even, _mm512_set1_epi32(1));
    const __m512 low = __m512(joined(fourPairs(tap, 0, 2), fourPairs(tap, 4, 6))),
                 high = __m512(joined(fourPairs(tap, 8, 10), fourPairs(tap, 12, 14)));
    return {(Floats)_mm512_permutex2var_ps(low, even, high), (Floats)_mm512_permutex2var_ps(low, odd, high)};
#else
    // Shuffles stay within halves of a register: this order of voxels makes up for it.
    const __m256 low = fourPairs(tap, 0, 4), high = fourPairs(tap, 2, 6);
    return {(Floats)_mm256_shuffle_ps(low, high, 0x88), (Floats)_mm256_shuffle_ps(low, high, 0xDD)};
#endif
}

// Rounds sums to voxels; the result is the bits of those whose error leaves it open. As settled() for each.
ZENR_INLINE unsigned settle(uint8_t* dst, WideFloats sum, WideFloats error) {
    const Floats at = sum.v + float(kHalfUp);
    const Ints low = __builtin_convertvector(at - error.v, Ints), high = __builtin_convertvector(at + error.v, Ints);
    storeVoxels(dst, clamped(low, 255));
    return bitsOf(low != high);
}
ZENR_INLINE unsigned settle(uint16_t* dst, WideDoubles sum, WideDoubles error) {
    const Doubles a = sum.low + kHalfUp, b = sum.high + kHalfUp;
    const Ints low = integers(a - error.low, b - error.high), high = integers(a + error.low, b + error.high);
    storeVoxels(dst, clamped(low, 65535));
    return bitsOf(low != high);
}
ZENR_INLINE unsigned settle(float* dst, WideDoubles sum, WideDoubles error) {
    const Floats low = narrowed(sum.low - error.low, sum.high - error.high);
    const Floats high = narrowed(sum.low + error.low, sum.high + error.high);
    __builtin_memcpy(dst, &low, sizeof low);
    return bitsOf((Ints)low != (Ints)high);
}

} // namespace
} // namespace ZENR_LEVEL
} // namespace zenr
#endif
