// Windows of a row, turned to doubles, that row passes take their taps from; the levels with 256-bit registers.
//
// A voxel is a tap of several columns: it is converted once. Columns are then served eight at a time, by permutations
// of sixteen doubles where the level has those, otherwise by loads that are turned over.
#pragma once
#include "volume/presguard.h"

#if defined(__AVX2__)
namespace zenr {
namespace ZENR_LEVEL {
namespace {

inline constexpr int kWindow = 768; // voxels in L1
inline constexpr int kColumns = 512;
inline constexpr int kBeyond = 24; // what whole registers may reach beyond a window

ZENR_INLINE void widen4(const uint8_t* s, double* d) {
    int four;
    __builtin_memcpy(&four, s, 4);
    _mm256_storeu_pd(d, _mm256_cvtepi32_pd(_mm_cvtepu8_epi32(_mm_cvtsi32_si128(four))));
}
ZENR_INLINE void widen4(const uint16_t* s, double* d) {
    _mm256_storeu_pd(d, _mm256_cvtepi32_pd(_mm_cvtepu16_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(s)))));
}
ZENR_INLINE void widen4(const float* s, double* d) {
    _mm256_storeu_pd(d, _mm256_cvtps_pd(_mm_loadu_ps(s)));
}

ZENR_INLINE void widen4(const uint8_t* s, float* d) {
    int four;
    __builtin_memcpy(&four, s, 4);
    _mm_storeu_ps(d, _mm_cvtepi32_ps(_mm_cvtepu8_epi32(_mm_cvtsi32_si128(four))));
}

// `origin` is where voxel 0 of the row would stand, which is outside the window mostly.
template <class Element> struct WindowOf {
    const int* index;
    uintptr_t origin;
    const Element* taps(ptrdiff_t x) const {
        return reinterpret_cast<const Element*>(origin + uintptr_t(ptrdiff_t(index[x])) * sizeof(Element));
    }
};
using Window = WindowOf<double>;

inline bool zeroColumns(const Window& w, int x, int columns, int count) {
    return zeroRun(w.taps(x), int(w.taps(x + columns - 1) - w.taps(x)) + count);
}

// The taps of columns x to x + 7: t[k] has the k-th of each.
#if defined(ZENR_LEVEL_avx512)
template <int count> ZENR_INLINE void permuted8(const Window& w, ptrdiff_t x, Taps* t) {
    const int base = w.index[x];
    const __m256i at =
        _mm256_sub_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(w.index + x)), _mm256_set1_epi32(base));
    const double* const p = w.taps(x);
    if (__builtin_expect(w.index[x + 7] - base + count <= 16, 1)) {
        const __m512d low = _mm512_loadu_pd(p), high = _mm512_loadu_pd(p + 8);
        const __m512i wide = _mm512_cvtepi32_epi64(at);
        for (int k = 0; k < count; ++k)
            t[k].all = _mm512_permutex2var_pd(low, _mm512_add_epi64(wide, _mm512_set1_epi64(k)), high);
    } else {
        for (int k = 0; k < count; ++k) t[k].all = _mm512_i32gather_pd(at, p + k, 8);
    }
}
ZENR_INLINE void two8(const Window& w, ptrdiff_t x, Taps* t) {
    permuted8<2>(w, x, t);
}
ZENR_INLINE void four8(const Window& w, ptrdiff_t x, Taps* t) {
    permuted8<4>(w, x, t);
}
#else
ZENR_INLINE void two8(const Window& w, ptrdiff_t x, Taps* t) {
    for (int half = 0; half < 2; ++half) {
        const ptrdiff_t i = x + 4 * half;
        const __m256d even =
            _mm256_insertf128_pd(_mm256_castpd128_pd256(_mm_loadu_pd(w.taps(i))), _mm_loadu_pd(w.taps(i + 2)), 1);
        const __m256d odd =
            _mm256_insertf128_pd(_mm256_castpd128_pd256(_mm_loadu_pd(w.taps(i + 1))), _mm_loadu_pd(w.taps(i + 3)), 1);
        (half ? t[0].high : t[0].low) = _mm256_unpacklo_pd(even, odd);
        (half ? t[1].high : t[1].low) = _mm256_unpackhi_pd(even, odd);
    }
}
ZENR_INLINE void four8(const Window& w, ptrdiff_t x, Taps* t) {
    for (int half = 0; half < 2; ++half) {
        const ptrdiff_t i = x + 4 * half;
        const __m256d a = _mm256_loadu_pd(w.taps(i)), b = _mm256_loadu_pd(w.taps(i + 1));
        const __m256d c = _mm256_loadu_pd(w.taps(i + 2)), d = _mm256_loadu_pd(w.taps(i + 3));
        const __m256d ab[2] = {_mm256_unpacklo_pd(a, b), _mm256_unpackhi_pd(a, b)};
        const __m256d cd[2] = {_mm256_unpacklo_pd(c, d), _mm256_unpackhi_pd(c, d)};
        for (int k = 0; k < 2; ++k) {
            (half ? t[k].high : t[k].low) = _mm256_permute2f128_pd(ab[k], cd[k], 0x20);
            (half ? t[k + 2].high : t[k + 2].low) = _mm256_permute2f128_pd(ab[k], cd[k], 0x31);
        }
    }
}
#endif

// The columns of a row, sixteen or more, window by window: fast(window, begin, end), or slow(begin, count) where the
// taps of sixteen columns lie too far apart. Column x has `taps` taps from row[index[x]] on. Where `size` is not 0, the
// row's voxels are row[-firstTap] and on, and its end voxels stand for what lies beyond them.
template <int taps, int firstTap, class Element, class T, class Fast, class Slow>
ZENR_INLINE void throughWindows(const T* row, int size, const int* index, int n, const Fast& fast, const Slow& slow) {
    alignas(64) Element window[kWindow + kBeyond];
    for (int x = 0; x < n;) {
        // Columns whose taps fit in the window; the last sixteen may overlap those before.
        if (n - x < 16) x = n - 16;
        const int first = index[x];
        int columns = n - x < kColumns ? n - x : kColumns;
        int count = index[x + columns - 1] + taps - first;
        if (count > kWindow) {
            columns = 16;
            count = index[x + columns - 1] + taps - first;
        }
        if (count > kWindow) {
            slow(x, columns);
        } else {
            int begin = 0, end = count; // voxels of the row
            if (size) {
                const int before = -firstTap - first, rest = size + before;
                begin = before < 0 ? 0 : before < count ? before : count;
                end = rest < begin ? begin : rest < count ? rest : count;
                for (int i = 0; i < begin; ++i) window[i] = row[-firstTap];
                for (int i = end; i < count; ++i) window[i] = row[size - 1 - firstTap];
            }
            const T* const s = row + first;
            int i = begin;
            for (; i + 4 <= end; i += 4) widen4(s + i, window + i);
            for (; i < end; ++i) window[i] = s[i];
            const uintptr_t origin =
                reinterpret_cast<uintptr_t>(window) - uintptr_t(ptrdiff_t(first)) * sizeof(Element);
            fast(WindowOf<Element>{index, origin}, x, x + columns);
        }
        x += columns;
    }
}

} // namespace
} // namespace ZENR_LEVEL
} // namespace zenr
#endif
