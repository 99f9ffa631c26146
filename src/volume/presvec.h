// Row passes by permutation, and fixed-point blends by multiply-add, at the level that has them.
//
// The taps of neighbouring destinations lie close together: one load brings them all, and permutations hand them out,
// where gathers would take as long as scalar loads. Loads are masked to the taps that are needed, so that nothing
// beyond a row is touched. A group whose taps are too far apart (a strong reduction) is left to the plain loops.
#pragma once
#include <stdint.h>

#if defined(ZENR_LEVEL_avx512)
#include <immintrin.h>

// The compiler's own header starts results from undefined registers, and warns of them.
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

namespace zenr {
namespace avx512 {
namespace {

inline uint64_t lowBits(int n) {
    return n >= 64 ? ~uint64_t(0) : (uint64_t(1) << n) - 1;
}

// 16 voxels as doubles; `needed` of them are read.
struct Window16 {
    __m512d low;
    __m512d high;
};
inline Window16 halves(__m512i v) {
    return {_mm512_cvtepi32_pd(_mm512_castsi512_si256(v)), _mm512_cvtepi32_pd(_mm512_extracti64x4_epi64(v, 1))};
}
inline Window16 window16(const uint8_t* s, int needed) {
    return halves(_mm512_cvtepu8_epi32(_mm_maskz_loadu_epi8(__mmask16(lowBits(needed)), s)));
}
inline Window16 window16(const uint16_t* s, int needed) {
    return halves(_mm512_cvtepu16_epi32(_mm256_maskz_loadu_epi16(__mmask16(lowBits(needed)), s)));
}
inline Window16 window16(const float* s, int needed) {
    const __m512 v = _mm512_maskz_loadu_ps(__mmask16(lowBits(needed)), s);
    return {_mm512_cvtps_pd(_mm512_castps512_ps256(v)),
            _mm512_cvtps_pd(_mm256_castpd_ps(_mm512_extractf64x4_pd(_mm512_castps_pd(v), 1)))};
}
inline __m512d take(const Window16& w, __m512i index) {
    return _mm512_permutex2var_pd(w.low, index, w.high);
}

// Taps per destination; eight destinations from index[0 .. 7], `first` added to each. False when they span too much.
template <int taps, class T> inline bool tapsOf8(const T* s, const int* index, __m512d* tap) {
    const int base = index[0];
    const int needed = index[7] - base + taps;
    if (needed > 16) return false;
    const Window16 window = window16(s + base, needed);
    __m512i at = _mm512_cvtepi32_epi64(
        _mm256_sub_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(index)), _mm256_set1_epi32(base)));
    for (int k = 0; k < taps; ++k) {
        tap[k] = take(window, at);
        at = _mm512_add_epi64(at, _mm512_set1_epi64(1));
    }
    return true;
}

// As roundDoubtfully, eight at a time; the result is the mask of lanes in doubt.
inline __mmask8 storeDoubtfully8(float* dst, __m512d sum, __m512d size) {
    const __m512d error = _mm512_mul_pd(size, _mm512_set1_pd(8.8817841970012523e-16));
    const __m256 low = _mm512_cvtpd_ps(_mm512_sub_pd(sum, error));
    const __m256 high = _mm512_cvtpd_ps(_mm512_add_pd(sum, error));
    _mm256_storeu_ps(dst, low);
    return _mm256_cmpneq_epi32_mask(_mm256_castps_si256(low), _mm256_castps_si256(high));
}

// Eight elements of four rows, weighted and added.
inline __m512d columnSum8(const float* const* r, int x, const __m512d* w) {
    __m512d t[4];
    for (int k = 0; k < 4; ++k) t[k] = _mm512_mul_pd(_mm512_cvtps_pd(_mm256_loadu_ps(r[k] + x)), w[k]);
    return _mm512_add_pd(_mm512_add_pd(_mm512_add_pd(t[0], t[1]), t[2]), t[3]);
}

// Sixteen elements of a cubic column; the result is the mask of lanes in doubt. The size of a sum's terms is bounded by
// that of its operands, as weights are at most 1 in size; added in float, whose own error the doubled bound covers.
inline unsigned column16(const float* const* r, int x, const __m512d* w, float* dst) {
    __m512 size = _mm512_abs_ps(_mm512_loadu_ps(r[0] + x));
    for (int k = 1; k < 4; ++k) size = _mm512_add_ps(size, _mm512_abs_ps(_mm512_loadu_ps(r[k] + x)));
    const __m512 twice = _mm512_add_ps(size, size);
    const __m512d low = _mm512_cvtps_pd(_mm512_castps512_ps256(twice));
    const __m512d high = _mm512_cvtps_pd(_mm512_extractf32x8_ps(twice, 1));
    const unsigned doubt = storeDoubtfully8(dst + x, columnSum8(r, x, w), low);
    return doubt | storeDoubtfully8(dst + x + 8, columnSum8(r, x + 8, w), high);
}

// Sixteen voxels of a cubic depth pass: + half, truncated, clamped. The result is the mask of lanes in doubt.
inline unsigned depthInteger16(const float* const* r, int x, const __m512d* w, double half, double error, int most,
                               __m512i* voxels) {
    __m256i low[2];
    unsigned doubt = 0;
    for (int i = 0; i < 2; ++i) {
        const __m512d sum = _mm512_add_pd(columnSum8(r, x + 8 * i, w), _mm512_set1_pd(half));
        low[i] = _mm512_cvttpd_epi32(_mm512_sub_pd(sum, _mm512_set1_pd(error)));
        doubt |= _mm256_cmpneq_epi32_mask(low[i], _mm512_cvttpd_epi32(_mm512_add_pd(sum, _mm512_set1_pd(error))));
    }
    const __m512i both = _mm512_inserti64x4(_mm512_castsi256_si512(low[0]), low[1], 1);
    *voxels = _mm512_min_epi32(_mm512_max_epi32(both, _mm512_setzero_si512()), _mm512_set1_epi32(most));
    return doubt;
}
inline void storeVoxels(uint8_t* dst, __m512i v) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), _mm512_cvtepi32_epi8(v));
}
inline void storeVoxels(uint16_t* dst, __m512i v) {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst), _mm512_cvtepi32_epi16(v));
}

// 32 voxels as 16-bit words.
inline __m512i words32(const uint8_t* s, uint32_t mask) {
    return _mm512_cvtepu8_epi16(_mm256_maskz_loadu_epi8(mask, s));
}
inline __m512i words32(const uint16_t* s, uint32_t mask) {
    return _mm512_maskz_loadu_epi16(mask, s);
}

// The Q14 weights of both taps as pairs of words, from those of the second.
inline __m512i weightPairs(__m512i second) {
    return _mm512_add_epi32(_mm512_sub_epi32(_mm512_slli_epi32(second, 16), second), _mm512_set1_epi32(16384));
}

// Sixteen destinations of a fixed-point row pass. 16-bit voxels are taken as signed, 32768 less: the weights sum to
// 2^14, so the bias passes through.
template <class T, int round, int shift>
inline bool fixed16(const T* s, const int* index, const uint16_t* weights, uint16_t* dst) {
    const int base = index[0];
    const int needed = index[15] - base + 2;
    if (needed > 32) return false;
    const __m512i bias = _mm512_set1_epi16(sizeof(T) == 2 ? int16_t(0x8000) : int16_t(0));
    const __m512i window = _mm512_xor_si512(words32(s + base, uint32_t(lowBits(needed))), bias);
    const __m512i at = _mm512_sub_epi32(_mm512_loadu_si512(index), _mm512_set1_epi32(base));
    const __m512i pairAt =
        _mm512_add_epi32(_mm512_add_epi32(at, _mm512_slli_epi32(at, 16)), _mm512_set1_epi32(0x10000));
    const __m512i pair = _mm512_permutexvar_epi16(pairAt, window);
    const __m512i second = _mm512_cvtepu16_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(weights)));
    const __m512i sum = _mm512_madd_epi16(pair, weightPairs(second));
    const __m512i r = _mm512_srai_epi32(_mm512_add_epi32(sum, _mm512_set1_epi32(round)), shift);
    const __m256i words = _mm256_xor_si256(_mm512_cvtepi32_epi16(r), _mm512_castsi512_si256(bias));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst), words);
    return true;
}

// 32 elements of a fixed-point blend of two rows; operands below 2^15 unless biased.
template <bool biased, int round, int shift>
inline __m512i blend32(const uint16_t* r0, const uint16_t* r1, __m512i pairs) {
    const __m512i bias = _mm512_set1_epi16(biased ? int16_t(0x8000) : int16_t(0));
    const __m512i a = _mm512_xor_si512(_mm512_loadu_si512(r0), bias);
    const __m512i b = _mm512_xor_si512(_mm512_loadu_si512(r1), bias);
    const __m512i half = _mm512_set1_epi32(round);
    const __m512i low = _mm512_madd_epi16(_mm512_unpacklo_epi16(a, b), pairs);
    const __m512i high = _mm512_madd_epi16(_mm512_unpackhi_epi16(a, b), pairs);
    const __m512i words = _mm512_packs_epi32(_mm512_srai_epi32(_mm512_add_epi32(low, half), shift),
                                             _mm512_srai_epi32(_mm512_add_epi32(high, half), shift));
    return _mm512_xor_si512(words, bias);
}
inline void storeWords(uint16_t* dst, __m512i words) {
    _mm512_storeu_si512(dst, words);
}
inline void storeWords(uint8_t* dst, __m512i words) {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst), _mm512_cvtepi16_epi8(words));
}

// Thirty-two (sixteen) destinations of a nearest-neighbour row.
template <class T> inline bool nearestGroup(const T* s, const int* index, T* dst) {
    const int base = index[0];
    const int needed = index[31] - base + 1;
    if (needed > 64) return false;
    const __m512i from = _mm512_set1_epi32(base);
    const __m256i low = _mm512_cvtepi32_epi16(_mm512_sub_epi32(_mm512_loadu_si512(index), from));
    const __m256i high = _mm512_cvtepi32_epi16(_mm512_sub_epi32(_mm512_loadu_si512(index + 16), from));
    const __m512i at = _mm512_inserti64x4(_mm512_castsi256_si512(low), high, 1);
    const uint64_t mask = lowBits(needed);
    const __m512i first = words32(s + base, uint32_t(mask));
    storeWords(dst, needed <= 32 ? _mm512_permutexvar_epi16(at, first)
                                 : _mm512_permutex2var_epi16(first, at, words32(s + base + 32, uint32_t(mask >> 32))));
    return true;
}
inline bool nearestGroup(const float* s, const int* index, float* dst) {
    for (int half = 0; half < 32; half += 16) {
        const int base = index[half];
        const int needed = index[half + 15] - base + 1;
        if (needed > 32) return false;
        const uint64_t mask = lowBits(needed);
        const __m512i at = _mm512_sub_epi32(_mm512_loadu_si512(index + half), _mm512_set1_epi32(base));
        const __m512 first = _mm512_maskz_loadu_ps(__mmask16(mask), s + base);
        const __m512 second = needed > 16 ? _mm512_maskz_loadu_ps(__mmask16(mask >> 16), s + base + 16) : first;
        _mm512_storeu_ps(dst + half, _mm512_permutex2var_ps(first, at, second));
    }
    return true;
}

} // namespace
} // namespace avx512
} // namespace zenr
#endif
