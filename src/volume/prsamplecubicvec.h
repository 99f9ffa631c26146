// Cubic warp and remap in whole registers, at the levels that have them wide enough: the weights, taps and sums of a
// register of voxels.
//
// Voxels lie side by side in a register wherever numbers are their own. Only taps in double are four neighbours of one
// voxel: their conversion from memory costs no more than a load. So y and z are summed first, voxel by voxel, and the
// four columns that remain are turned over to voxels side by side for the sum along x.
#pragma once
#include "volume/prsampleline.h"

#if defined(ZENR_WIDE)
namespace zenr {
namespace ZENR_LEVEL {
namespace {

// Weights by axis and tap. 8-bit voxels have theirs in registers.
struct alignas(64) WideWeights {
    double w[3][4][kWide];
};

// Rounds four weights of a register of voxels to float, which differ from the weights defined by less than `error`. The
// result is the bits of those voxels whose rounding that leaves open.
ZENR_INLINE unsigned roundWeights(const Doubles v[4], Doubles error, double (*w)[kWide], int at) {
    constexpr long long kUnit = 1LL << 29; // of a float's last place, in those of a double
    // Neither end of the interval is -0 where the error is 0.
    const Doubles back = 0 - error;
    Flags apart = {};
    for (int t = 0; t < 4; ++t) {
        const Flags low = (Flags)(v[t] + back) + kUnit / 2, high = (Flags)(v[t] + error) + kUnit / 2;
        const Flags rounded = high & -kUnit;
        __builtin_memcpy(&w[t][at], &rounded, sizeof rounded);
        apart |= low ^ high;
    }
    return bitsOf((Flags)((apart & -kUnit) != 0));
}

// Where the taps of a register of voxels are. Voxel x's first is at first + offset[x] of its group of four voxels.
inline constexpr int kGroup = 4;
template <class T> struct TapGroup {
    const T* first;
    ptrdiff_t step, planeStep;
};
template <class T> struct alignas(64) WideTaps {
    int offset[kWide];
    TapGroup<T> group[kWide / kGroup];
};

// Which of four voxels in memory are a row's taps, as bytes to shuffle: where the first, none or the last tap lies beyond
// the box, and the one next to it stands in.
struct RowShuffles {
    alignas(16) uint8_t byte[3][16];
};
template <class T> constexpr RowShuffles rowShuffles() {
    constexpr int kTap[3][4] = {{0, 0, 1, 2}, {0, 1, 2, 3}, {1, 2, 3, 3}};
    RowShuffles result = {};
    for (int way = 0; way < 3; ++way)
        for (int i = 0; i < 16; ++i)
            result.byte[way][i] = uint8_t(kTap[way][i / int(sizeof(T)) % 4] * int(sizeof(T)) + i % int(sizeof(T)));
    return result;
}
template <class T> inline constexpr RowShuffles kRowShuffles = rowShuffles<T>();

inline void copyRow(const uint8_t* from, __m128i shuffle, uint8_t* to) {
    int v;
    __builtin_memcpy(&v, from, 4);
    v = _mm_cvtsi128_si32(_mm_shuffle_epi8(_mm_cvtsi32_si128(v), shuffle));
    __builtin_memcpy(to, &v, 4);
}
inline void copyRow(const uint16_t* from, __m128i shuffle, uint16_t* to) {
    const __m128i v = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(from));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(to), _mm_shuffle_epi8(v, shuffle));
}
inline void copyRow(const float* from, __m128i shuffle, float* to) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(to), _mm_shuffle_epi8(v, shuffle));
}

// The taps of a voxel at the edges of the box, or of a source whose planes are apart: row by row.
template <class T> inline void copyTaps(const SampleSource<T>& src, const int base[3], T* taps) {
    ptrdiff_t row[4];
    for (int t = 0; t < 4; ++t) row[t] = kept(base[1] - 1 + t, src.low[1], src.high[1]) * src.step;
    const auto eachRow = [&](int column, const auto& copy) {
        for (int k = 0; k < 4; ++k) {
            const T* const plane = src.planes[kept(base[2] - 1 + k, src.low[2], src.high[2])] + column;
            for (int j = 0; j < 4; ++j) copy(plane + row[j], taps + 16 * k + 4 * j);
        }
    };
    if (src.high[0] - src.low[0] >= 3) {
        const int way = 1 - (base[0] - 1 < src.low[0]) + (base[0] + 2 > src.high[0]);
        const __m128i shuffle = _mm_load_si128(reinterpret_cast<const __m128i*>(kRowShuffles<T>.byte[way]));
        eachRow(base[0] - way, [&](const T* from, T* to) { copyRow(from, shuffle, to); });
    } else {
        int tap[4];
        for (int t = 0; t < 4; ++t) tap[t] = kept(base[0] - 1 + t, src.low[0], src.high[0]);
        eachRow(0, [&](const T* from, T* to) {
            for (int t = 0; t < 4; ++t) to[t] = from[tap[t]];
        });
    }
}

// Voxel by voxel, the four columns of taps along x, summed up in y and z.
struct alignas(64) TapColumns {
    double sum[kWide][4];
    double size[kWide][4]; // the largest tap, of 32f
};

inline __m256d fourDoubles(const uint16_t* p) {
    const __m128i words = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p));
#if defined(ZENR_LEVEL_avx512)
    return _mm256_cvtepi64_pd(_mm256_cvtepu16_epi64(words));
#else
    return _mm256_cvtepi32_pd(_mm_cvtepu16_epi32(words));
#endif
}
inline __m256d fourDoubles(const float* p) {
    return _mm256_cvtps_pd(_mm_loadu_ps(p));
}
// The larger in size, as a size; b where a is no number.
inline __m256d largerSize(__m256d a, __m256d b) {
#if defined(ZENR_LEVEL_avx512)
    return _mm256_range_pd(a, b, 0xB);
#else
    return _mm256_max_pd(_mm256_andnot_pd(_mm256_set1_pd(-0.), a), b);
#endif
}

template <class T> inline void sumColumns(const WideTaps<T>& taps, const double (*w)[4][kWide], TapColumns* columns) {
    for (int x = 0; x < kWide; ++x) {
        const TapGroup<T>& group = taps.group[x / kGroup];
        const ptrdiff_t step = group.step;
        const T* p = group.first + taps.offset[x];
        __m256d wy[4], total = _mm256_setzero_pd(), size = _mm256_setzero_pd();
        for (int j = 0; j < 4; ++j) wy[j] = _mm256_broadcast_sd(&w[1][j][x]);
        const auto tap = [&](const T* q) ZENR_INLINED {
            const __m256d v = fourDoubles(q);
            if constexpr (sizeof(T) == 4) size = largerSize(v, size);
            return v;
        };
        for (int k = 0; k < 4; ++k, p += group.planeStep) {
            __m256d sum = _mm256_mul_pd(wy[0], tap(p));
            sum = _mm256_fmadd_pd(wy[1], tap(p + step), sum);
            sum = _mm256_fmadd_pd(wy[2], tap(p + 2 * step), sum);
            sum = _mm256_fmadd_pd(wy[3], tap(p + 3 * step), sum);
            const __m256d wz = _mm256_broadcast_sd(&w[2][k][x]);
            total = k ? _mm256_fmadd_pd(sum, wz, total) : _mm256_mul_pd(sum, wz);
        }
        _mm256_store_pd(columns->sum[x], total);
        if constexpr (sizeof(T) == 4) _mm256_store_pd(columns->size[x], size);
    }
}

// Four numbers of each of a register of voxels, turned over.
ZENR_INLINE void turnOver(const double (*rows)[4], Doubles* column) {
#if defined(ZENR_LEVEL_avx512)
    const __m512i first = _mm512_setr_epi64(0, 4, 8, 12, 1, 5, 9, 13);
    const __m512i last = _mm512_setr_epi64(2, 6, 10, 14, 3, 7, 11, 15);
    const __m512d a = _mm512_load_pd(rows[0]), b = _mm512_load_pd(rows[2]), c = _mm512_load_pd(rows[4]),
                  d = _mm512_load_pd(rows[6]);
    const __m512d ab = _mm512_permutex2var_pd(a, first, b), cd = _mm512_permutex2var_pd(c, first, d),
                  ef = _mm512_permutex2var_pd(a, last, b), gh = _mm512_permutex2var_pd(c, last, d);
    column[0] = (Doubles)_mm512_shuffle_f64x2(ab, cd, 0x44);
    column[1] = (Doubles)_mm512_shuffle_f64x2(ab, cd, 0xEE);
    column[2] = (Doubles)_mm512_shuffle_f64x2(ef, gh, 0x44);
    column[3] = (Doubles)_mm512_shuffle_f64x2(ef, gh, 0xEE);
#else
    const __m256d a = _mm256_load_pd(rows[0]), b = _mm256_load_pd(rows[1]), c = _mm256_load_pd(rows[2]),
                  d = _mm256_load_pd(rows[3]);
    const __m256d ab = _mm256_unpacklo_pd(a, b), cd = _mm256_unpacklo_pd(c, d), ef = _mm256_unpackhi_pd(a, b),
                  gh = _mm256_unpackhi_pd(c, d);
    column[0] = (Doubles)_mm256_permute2f128_pd(ab, cd, 0x20);
    column[1] = (Doubles)_mm256_permute2f128_pd(ef, gh, 0x20);
    column[2] = (Doubles)_mm256_permute2f128_pd(ab, cd, 0x31);
    column[3] = (Doubles)_mm256_permute2f128_pd(ef, gh, 0x31);
#endif
}

ZENR_INLINE Doubles weighted(const Doubles tap[4], const double (*w)[kWide], int at) {
    Doubles weight[4];
    for (int t = 0; t < 4; ++t) __builtin_memcpy(&weight[t], &w[t][at], sizeof weight[t]);
    Doubles sum = tap[0] * weight[0];
    for (int t = 1; t < 4; ++t) sum = multiplyAdd(tap[t], weight[t], sum);
    return sum;
}
// The sums of kLanes voxels along x.
ZENR_INLINE Doubles sumRows(const double (*columns)[4], const double (*w)[kWide], int at) {
    Doubles tap[4];
    turnOver(columns + at, tap);
    return weighted(tap, w, at);
}
// The largest of each of their four sizes, none of which is less than 0.
ZENR_INLINE Doubles largestOf(const double (*size)[4], int at) {
    Doubles tap[4];
    turnOver(size + at, tap);
    const auto more = [](Doubles a, Doubles b) ZENR_INLINED { return a > b ? a : b; };
    return more(more(tap[0], tap[1]), more(tap[2], tap[3]));
}

// ---- 8 bit: the four taps of a row are one number of 32 bits, so that all stages take voxels side by side. ----

// Rows along x are summed in integers: weights in two pieces of 15 bits, of taps 0 and 2, and 1 and 3.
inline constexpr int kPiece = 15;
inline constexpr float kWhole = 1 << 29;           // weight 1, in units of the lower piece
inline constexpr float kRowUnit = 1.f / (1 << 21); // of the sums of rows
ZENR_INLINE Ints nearestInts(Floats v) {
#if defined(ZENR_LEVEL_avx512)
    return (Ints)_mm512_cvtps_epi32(__m512(v));
#else
    return (Ints)_mm256_cvtps_epi32(__m256(v));
#endif
}
struct RowWeights {
    Ints upper[2], lower[2];
    ZENR_INLINE explicit RowWeights(const Floats w[4]) {
        const Ints odd = Ints{} + int(0xFFFF0000u), low = Ints{} + ((1 << kPiece) - 1) * 0x10001;
        for (int t = 0; t < 2; ++t) {
            const Ints a = nearestInts(w[t] * kWhole), b = nearestInts(w[t + 2] * kWhole);
            const auto pair = [&](Ints first, Ints second) ZENR_INLINED { return (first & ~odd) | (second & odd); };
            upper[t] = pair(a >> kPiece, b << (16 - kPiece));
            lower[t] = pair(a, b << 16) & low;
        }
    }
};

// Rows of four taps: by row.
struct alignas(64) TapRows {
    int tap[16][kWide];
};
inline int fourBytes(const uint8_t* p) {
    int v;
    __builtin_memcpy(&v, p, 4);
    return v;
}
inline void collectRows(const WideTaps<uint8_t>& taps, TapRows* rows) {
    for (int x = 0; x < kWide; x += kGroup) {
        const TapGroup<uint8_t>& group = taps.group[x / kGroup];
        const ptrdiff_t step = group.step, planeStep = group.planeStep;
        const int* const offset = &taps.offset[x];
        const uint8_t *a = group.first + offset[0], *b = group.first + offset[1], *c = group.first + offset[2],
                      *d = group.first + offset[3];
        for (int k = 0; k < 4; ++k, a += planeStep, b += planeStep, c += planeStep, d += planeStep)
            for (int j = 0; j < 4; ++j) {
                __m128i v = _mm_cvtsi32_si128(fourBytes(a + j * step));
                v = _mm_insert_epi32(v, fourBytes(b + j * step), 1);
                v = _mm_insert_epi32(v, fourBytes(c + j * step), 2);
                v = _mm_insert_epi32(v, fourBytes(d + j * step), 3);
                _mm_store_si128(reinterpret_cast<__m128i*>(&rows->tap[4 * k + j][x]), v);
            }
    }
}

// In units of kRowUnit.
ZENR_INLINE Floats sumOfRows(const TapRows& rows, const RowWeights& wx, const Floats wy[4], const Floats wz[4]) {
    using Pieces = Simd<kSimdBytes>;
    const auto madd = [](Ints a, Ints b) ZENR_INLINED { return (Ints)Pieces::madd((Pieces::I16)a, (Pieces::I16)b); };
    Floats total = {};
    for (int k = 0; k < 4; ++k) {
        Floats sum = {};
        for (int j = 0; j < 4; ++j) {
            Ints v;
            __builtin_memcpy(&v, rows.tap[4 * k + j], sizeof v);
            const Ints a = v & 0x00FF00FF, b = (Ints)((HalfWords)v >> 8);
            const Ints upper = madd(a, wx.upper[0]) + madd(b, wx.upper[1]);
            const Ints lower = madd(a, wx.lower[0]) + madd(b, wx.lower[1]);
            sum = multiplyAdd(__builtin_convertvector((upper << 7) + (lower >> 8), Floats), wy[j], sum);
        }
        total = multiplyAdd(sum, wz[k], total);
    }
    return total;
}

#if defined(ZENR_LEVEL_avx512)
// The sums of eight voxels of a line.
ZENR_INLINE Doubles sumLine(const double* line, __m256i at, const double (*w)[kWide], int x) {
    Doubles tap[4];
    lineTaps<4>(line, at, tap);
    return weighted(tap, w, x);
}
#endif

} // namespace
} // namespace ZENR_LEVEL
} // namespace zenr
#endif
