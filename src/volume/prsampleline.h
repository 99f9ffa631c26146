// Lines of warps along rows, in whole registers: the taps of all voxels lie in one row along x.
#pragma once
#include "volume/prsamplechunk.h"
#include "volume/prsamplevec.h"

#if defined(ZENR_LEVEL_avx512)
namespace zenr {
namespace avx512 {
namespace {

// Room that a window may take behind the last voxel of a line.
inline constexpr int kLineRest = 32;

// Sixteen rows become one line, as far as whole registers go; returns where they end. The compiler leaves conversions
// from 8 bits one by one.
inline int blendRows16(const uint8_t* const row[16], const float weight[16], Interval range, float* line) {
    int i = range.begin;
    for (; range.end - i >= 16; i += 16) {
        __m512 sum = _mm512_setzero_ps();
        for (int r = 0; r < 16; ++r) {
            const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row[r] + i));
            sum = _mm512_fmadd_ps(_mm512_cvtepi32_ps(_mm512_cvtepu8_epi32(v)), _mm512_set1_ps(weight[r]), sum);
        }
        _mm512_storeu_ps(line + i, sum);
    }
    return i;
}

// Four rows become one line, likewise.
inline int blendRows4(const uint8_t* const row[4], float fy, float fz, Interval range, float* line) {
    const WideFloats wy = WideFloats::all(fy), wz = WideFloats::all(fz);
    const auto load = [](const uint8_t* p) {
        return WideFloats::of((Ints)_mm512_cvtepu8_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p))));
    };
    int i = range.begin;
    for (; range.end - i >= 16; i += 16) {
        const WideFloats low = blend(load(row[0] + i), load(row[1] + i), wy),
                         high = blend(load(row[2] + i), load(row[3] + i), wy);
        const Floats sum = blend(low, high, wz).v;
        __builtin_memcpy(line + i, &sum, sizeof sum);
    }
    return i;
}

// Neighbouring taps of eight or sixteen voxels, the first of each at line + at: from a window of a line where it is wide
// enough, as it is for all but strong reductions.
template <int count> inline void lineTaps(const double* line, __m256i at, Doubles* tap) {
    const int first = _mm_cvtsi128_si32(_mm256_castsi256_si128(at)), last = _mm256_extract_epi32(at, 7);
    const int from = first < last ? first : last, to = first < last ? last : first;
    if (__builtin_expect(to - from + count <= 16, 1)) {
        const __m512d low = _mm512_loadu_pd(line + from), high = _mm512_loadu_pd(line + from + 8);
        const __m512i index = _mm512_cvtepi32_epi64(_mm256_sub_epi32(at, _mm256_set1_epi32(from)));
        for (int t = 0; t < count; ++t)
            tap[t] = Doubles(_mm512_permutex2var_pd(low, _mm512_add_epi64(index, _mm512_set1_epi64(t)), high));
    } else {
        for (int t = 0; t < count; ++t) tap[t] = Doubles(_mm512_i32gather_pd(at, line + t, 8));
    }
}
template <int count> inline void lineTaps(const float* line, Ints places, Floats* tap) {
    const __m512i at = __m512i(places);
    const int first = _mm_cvtsi128_si32(_mm512_castsi512_si128(at)),
              last = _mm_extract_epi32(_mm512_extracti32x4_epi32(at, 3), 3);
    const int from = first < last ? first : last, to = first < last ? last : first;
    if (__builtin_expect(to - from + count <= 32, 1)) {
        const __m512 low = _mm512_loadu_ps(line + from), high = _mm512_loadu_ps(line + from + 16);
        const __m512i index = _mm512_sub_epi32(at, _mm512_set1_epi32(from));
        for (int t = 0; t < count; ++t)
            tap[t] = Floats(_mm512_permutex2var_ps(low, _mm512_add_epi32(index, _mm512_set1_epi32(t)), high));
    } else {
        for (int t = 0; t < count; ++t) tap[t] = Floats(_mm512_i32gather_ps(at, line + t, 4));
    }
}

} // namespace
} // namespace avx512
} // namespace zenr
#endif
