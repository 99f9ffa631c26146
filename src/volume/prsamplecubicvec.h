// Cubic warp and remap in whole registers, at the level that has them wide enough: the weights, taps and sums of sixteen
// voxels.
//
// Voxels lie side by side in a register wherever numbers are their own. Only taps in double are four neighbours of one
// voxel: their conversion from memory costs no more than a load. So y and z are summed first, voxel by voxel, and the
// four columns that remain are turned over to sixteen voxels for the sum along x.
#pragma once
#include "volume/prsampleline.h"

#if defined(ZENR_LEVEL_avx512)
namespace zenr {
namespace avx512 {
namespace {

// The weights of a chunk, by axis and tap. Those of x are apart for 8-bit voxels, which take them as integers.
struct alignas(64) DoubleWeights16 {
    double w[3][4][16];
};

// Rounds four weights of eight voxels to float, which differ from the weights defined by less than `error`. The result is
// a mask of those voxels whose rounding that leaves open.
inline __mmask8 roundWeights8(const Double8 v[4], __m512d error, double (*w)[16], int at) {
    constexpr long long kUnit = 1LL << 29; // of a float's last place, in those of a double
    const __m512i half = _mm512_set1_epi64(kUnit / 2), keep = _mm512_set1_epi64(-kUnit);
    // Neither end of the interval is -0 where the error is 0.
    const __m512d back = _mm512_sub_pd(_mm512_setzero_pd(), error);
    __m512i apart = _mm512_setzero_si512();
    for (int t = 0; t < 4; ++t) {
        const __m512i low = _mm512_add_epi64(_mm512_castpd_si512(_mm512_add_pd(__m512d(v[t]), back)), half);
        const __m512i high = _mm512_add_epi64(_mm512_castpd_si512(_mm512_add_pd(__m512d(v[t]), error)), half);
        _mm512_store_si512(&w[t][at], _mm512_and_si512(high, keep));
        apart = _mm512_ternarylogic_epi64(apart, low, high, 0xF6); // apart | (low ^ high)
    }
    return _mm512_test_epi64_mask(apart, keep);
}

// Where the taps of a chunk are. Voxel x's first is at first + offset[x] of its group of four voxels.
constexpr int kGroup = 4;
template <class T> struct TapGroup {
    const T* first;
    ptrdiff_t step, planeStep;
};
template <class T> struct alignas(64) Taps16 {
    int offset[16];
    TapGroup<T> group[16 / kGroup];
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
struct alignas(64) Columns16 {
    double sum[16][4];
    double size[16][4]; // the largest tap, of 32f
};

inline __m256d fourDoubles(const uint16_t* p) {
    return _mm256_cvtepi64_pd(_mm256_cvtepu16_epi64(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p))));
}
inline __m256d fourDoubles(const float* p) {
    return _mm256_cvtps_pd(_mm_loadu_ps(p));
}

template <class T> inline void sumColumns16(const Taps16<T>& taps, const double (*w)[4][16], Columns16* columns) {
    for (int x = 0; x < 16; ++x) {
        const TapGroup<T>& group = taps.group[x / kGroup];
        const ptrdiff_t step = group.step;
        const T* p = group.first + taps.offset[x];
        __m256d wy[4], total = _mm256_setzero_pd(), size = _mm256_setzero_pd();
        for (int j = 0; j < 4; ++j) wy[j] = _mm256_broadcast_sd(&w[1][j][x]);
        const auto tap = [&](const T* q) {
            const __m256d v = fourDoubles(q);
            if constexpr (sizeof(T) == 4) size = _mm256_range_pd(v, size, 0xB); // the larger in size, as a size
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

// The sums of eight voxels along x.
inline __m512d sumRows8(const double (*columns)[4], const double (*w)[16], int at) {
    const __m512i first = _mm512_setr_epi64(0, 4, 8, 12, 1, 5, 9, 13);
    const __m512i last = _mm512_setr_epi64(2, 6, 10, 14, 3, 7, 11, 15);
    const __m512d a = _mm512_load_pd(columns[0]), b = _mm512_load_pd(columns[2]), c = _mm512_load_pd(columns[4]),
                  d = _mm512_load_pd(columns[6]);
    const __m512d ab = _mm512_permutex2var_pd(a, first, b), cd = _mm512_permutex2var_pd(c, first, d),
                  ef = _mm512_permutex2var_pd(a, last, b), gh = _mm512_permutex2var_pd(c, last, d);
    __m512d sum = _mm512_mul_pd(_mm512_shuffle_f64x2(ab, cd, 0x44), _mm512_load_pd(w[0] + at));
    sum = _mm512_fmadd_pd(_mm512_shuffle_f64x2(ab, cd, 0xEE), _mm512_load_pd(w[1] + at), sum);
    sum = _mm512_fmadd_pd(_mm512_shuffle_f64x2(ef, gh, 0x44), _mm512_load_pd(w[2] + at), sum);
    return _mm512_fmadd_pd(_mm512_shuffle_f64x2(ef, gh, 0xEE), _mm512_load_pd(w[3] + at), sum);
}

// The largest of each of eight voxels' four sizes.
inline __m512d largest8(const double (*size)[4]) {
    const auto larger = [](__m512d a, __m512d b) { return _mm512_range_pd(a, b, 0xB); };
    const auto halves = [&](const double(*s)[4]) {
        const __m512d a = _mm512_load_pd(s[0]), b = _mm512_load_pd(s[2]);
        return larger(_mm512_unpacklo_pd(a, b), _mm512_unpackhi_pd(a, b));
    };
    const __m512d a = halves(size), b = halves(size + 4);
    const __m512d mixed = larger(_mm512_shuffle_f64x2(a, b, 0x88), _mm512_shuffle_f64x2(a, b, 0xDD));
    return _mm512_permutexvar_pd(_mm512_setr_epi64(0, 2, 1, 3, 4, 6, 5, 7), mixed);
}

// ---- 8 bit: the four taps of a row are one number of 32 bits, so that all stages take sixteen voxels side by side. ----

// Rows along x are summed in integers: weights in two pieces of 15 bits, of taps 0 and 2, and 1 and 3.
constexpr int kPiece = 15;
constexpr float kWhole = 1 << 29;           // weight 1, in units of the lower piece
constexpr float kRowUnit = 1.f / (1 << 21); // of the sums of rows
struct RowWeights16 {
    __m512i upper[2], lower[2];
    explicit RowWeights16(const Float16 w[4]) {
        const __m512i odd = _mm512_set1_epi32(int(0xFFFF0000u)), low = _mm512_set1_epi16((1 << kPiece) - 1);
        for (int t = 0; t < 2; ++t) {
            const __m512i a = _mm512_cvtps_epi32(__m512(w[t] * kWhole)),
                          b = _mm512_cvtps_epi32(__m512(w[t + 2] * kWhole));
            const auto pair = [&](__m512i first, __m512i second) { // odd ? second : first
                return _mm512_ternarylogic_epi32(odd, second, first, 0xCA);
            };
            upper[t] = pair(_mm512_srai_epi32(a, kPiece), _mm512_slli_epi32(b, 16 - kPiece));
            lower[t] = _mm512_and_si512(pair(a, _mm512_slli_epi32(b, 16)), low);
        }
    }
};

// Rows of four taps: by row, of sixteen voxels.
struct alignas(64) Rows16 {
    int tap[16][16];
};
inline int fourBytes(const uint8_t* p) {
    int v;
    __builtin_memcpy(&v, p, 4);
    return v;
}
inline void collectRows16(const Taps16<uint8_t>& taps, Rows16* rows) {
    for (int x = 0; x < 16; x += kGroup) {
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
inline __m512 sumRows16(const Rows16& rows, const RowWeights16& wx, const Float16 wy[4], const Float16 wz[4]) {
    const __m512i even = _mm512_set1_epi16(0xFF);
    __m512 total = _mm512_setzero_ps();
    for (int k = 0; k < 4; ++k) {
        __m512 sum = _mm512_setzero_ps();
        for (int j = 0; j < 4; ++j) {
            const __m512i v = _mm512_load_si512(rows.tap[4 * k + j]);
            const __m512i a = _mm512_and_si512(v, even), b = _mm512_srli_epi16(v, 8);
            const __m512i upper =
                _mm512_add_epi32(_mm512_madd_epi16(a, wx.upper[0]), _mm512_madd_epi16(b, wx.upper[1]));
            const __m512i lower =
                _mm512_add_epi32(_mm512_madd_epi16(a, wx.lower[0]), _mm512_madd_epi16(b, wx.lower[1]));
            const __m512i row = _mm512_add_epi32(_mm512_slli_epi32(upper, 7), _mm512_srai_epi32(lower, 8));
            sum = _mm512_fmadd_ps(_mm512_cvtepi32_ps(row), __m512(wy[j]), sum);
        }
        total = _mm512_fmadd_ps(sum, __m512(wz[k]), total);
    }
    return total;
}

// ---- Lines. ----

inline __m512d sumLine8(const double* line, __m256i at, const double (*w)[16], int x) {
    Double8 tap[4];
    lineTaps<4>(line, at, tap);
    __m512d sum = _mm512_mul_pd(__m512d(tap[0]), _mm512_load_pd(w[0] + x));
    for (int t = 1; t < 4; ++t) sum = _mm512_fmadd_pd(__m512d(tap[t]), _mm512_load_pd(w[t] + x), sum);
    return sum;
}

} // namespace
} // namespace avx512
} // namespace zenr
#endif
