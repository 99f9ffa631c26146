// Bounds of a row of voxels, for the levels whose passes ask for them.
#pragma once
#include "frame/simd.h"
#include "volume/presround.h"

namespace zenr {
namespace ZENR_LEVEL {
namespace {

#if defined(__AVX2__)
// Whether all bits of sixteen voxels are 0.
ZENR_INLINE bool zeros16(const uint8_t* v) {
    const __m128i all = _mm_loadu_si128(reinterpret_cast<const __m128i*>(v));
    return _mm_testz_si128(all, all);
}
ZENR_INLINE bool zeros16(const uint16_t* v) {
    const __m256i all = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(v));
    return _mm256_testz_si256(all, all);
}
ZENR_INLINE bool zeros16(const float* v) {
    const __m256i* const p = reinterpret_cast<const __m256i*>(v);
    const __m256i all = _mm256_or_si256(_mm256_loadu_si256(p), _mm256_loadu_si256(p + 1));
    return _mm256_testz_si256(all, all);
}

// A row without its zeros at both ends, as far as whole groups of sixteen go: linear passes gain nothing from knowing them
// to the voxel.
struct Middle {
    int begin, end;
};
template <class T> ZENR_INLINE Middle middleOf(const T* v, int n) {
    Middle m = {0, n};
    while (m.end - m.begin >= 16 && zeros16(v + m.begin)) m.begin += 16;
    while (m.end - m.begin >= 16 && zeros16(v + m.end - 16)) m.end -= 16;
    return m;
}

// The larger of two numbers in all lanes, for each of two registers.
struct Largest {
    unsigned a, b;
};
ZENR_INLINE Largest largest(__m256i a, __m256i b) {
    const __m256i pairs = _mm256_max_epu32(_mm256_unpacklo_epi32(a, b), _mm256_unpackhi_epi32(a, b));
    const __m128i half = _mm_max_epu32(_mm256_castsi256_si128(pairs), _mm256_extracti128_si256(pairs, 1));
    const __m128i one = _mm_max_epu32(half, _mm_unpackhi_epi64(half, half));
    return {unsigned(_mm_cvtsi128_si32(one)), unsigned(_mm_extract_epi32(one, 1))};
}

// Infinities and NaNs are left out of `most`: sums with those are the same in any precision.
inline void boundOf(const float* v, int n, RowBound* bound) {
    const Middle middle = middleOf(v, n);
    const int begin = middle.begin, end = middle.end;
    // Sizes are bits without the sign, doubled. Negated as unsigned numbers they keep their order the other way round,
    // and 0 stays the least.
    __m256i any = _mm256_setzero_si256(), most = any, least = any;
    const auto take = [&](__m256i bits) __attribute__((always_inline)) {
        const __m256i size = _mm256_add_epi32(bits, bits);
        any = _mm256_or_si256(any, bits);
        most = _mm256_max_epu32(most, size);
        least = _mm256_max_epu32(least, _mm256_sub_epi32(_mm256_setzero_si256(), size));
    };
    if (end >= 8)
        for (int x = begin; x < end; x += 8)
            take(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(v + (end - x < 8 ? end - 8 : x))));
    else
        for (int x = begin; x < end; ++x) take(_mm256_set1_epi32(bitsOf(v[x])));
    const bool mixed = _mm256_movemask_ps(_mm256_castsi256_ps(any)) != 0;
    const Largest size = largest(most, least);
    bound->begin = begin;
    bound->end = end;
    bound->mixed = mixed;
    if (size.a == 0) {
        bound->most = 0;
        bound->least = 0x1p100f;
        return;
    }
    if (size.a < 0xFF000000u) {
        bound->most = __builtin_bit_cast(float, size.a >> 1);
        bound->least = __builtin_bit_cast(float, -size.b >> 1);
        return;
    }
    int finiteMost = 0x00800000;
    for (int i = begin; i < end; ++i) {
        const int bits = bitsOf(v[i]) & 0x7FFFFFFF;
        const int finite = bits < 0x7F800000 ? bits : 0;
        finiteMost = finite > finiteMost ? finite : finiteMost;
    }
    bound->most = __builtin_bit_cast(float, finiteMost);
    bound->least = 0;
    bound->mixed = true;
}
// Integers differ in their zeros only; all are multiples of 1.
template <class T> void boundOf(const T* v, int n, RowBound* bound) {
    const Middle middle = middleOf(v, n);
    *bound = {float(T(~T(0))), 0x1p24f, true, middle.begin, middle.end};
}
#else
// Nobody asks at this level.
template <class T> void boundOf(const T*, int n, RowBound* bound) {
    *bound = {1, 0, true, 0, n};
}
#endif

} // namespace
} // namespace ZENR_LEVEL
} // namespace zenr
