// Row passes by permutation, and fixed-point blends by multiply-add, at the level that has them.
//
// The taps of neighbouring destinations lie close together: one load brings them all, and permutations hand them out,
// where gathers would take as long as scalar loads. Loads are masked to the taps that are needed, so that nothing
// beyond a row is touched. A group whose taps are too far apart (a strong reduction) is left to the plain loops.
#pragma once
#include "frame/simd.h"

#if defined(ZENR_LEVEL_avx512)
// The compiler's own header starts results from undefined registers, and warns of them.
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

namespace zenr {
namespace avx512 {
namespace {

inline uint64_t lowBits(int n) {
    return n >= 64 ? ~uint64_t(0) : (uint64_t(1) << n) - 1;
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
