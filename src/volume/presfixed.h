// Fixed-point passes in whole registers of 256 bits, for the levels that have those.
//
// A blend needs no product of 32 bits where the difference of its operands fits in 16: r0*(16384 - w) + r1*w is
// r0*16384 + (r1 - r0)*w, and its rounded shift by 14 is r0 plus the rounded upper half of (r1 - r0)*2w. 8-bit rows and
// their Q6 images are always that small; 16-bit ones where no voxel exceeds 32767, as in most scans. A weight of 16384,
// twice which would not fit, is turned into one of 0 beforehand, by taking the second tap twice.
#pragma once
#include "frame/simd.h"
#include "volume/pireslin.h"

namespace zenr {
namespace ZENR_LEVEL {
namespace {

#if defined(__AVX2__)
ZENR_INLINE __m256i load16(const uint16_t* p) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
}
ZENR_INLINE void store16(uint16_t* p, __m256i words) {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), words);
}

// (r1*w + r0*(16384 - w) + 8192) >> 14 of signed words whose difference is one, too.
ZENR_INLINE __m256i blendNear(__m256i r0, __m256i r1, __m256i twice) {
    return _mm256_add_epi16(r0, _mm256_mulhrs_epi16(_mm256_sub_epi16(r1, r0), twice));
}
// The same of any words. They are taken as signed, 32768 less: the weights sum to 2^14, so the bias passes through.
ZENR_INLINE __m256i blendFar(__m256i r0, __m256i r1, __m256i twice) {
    const __m256i bias = _mm256_set1_epi16(int16_t(0x8000));
    const __m256i half = _mm256_set1_epi32(8192);
    const __m256i a = _mm256_xor_si256(r0, bias), b = _mm256_xor_si256(r1, bias);
    const __m256i w = _mm256_srli_epi16(twice, 1);
    const __m256i rest = _mm256_sub_epi16(_mm256_set1_epi16(kOneQ14), w);
    const __m256i low = _mm256_madd_epi16(_mm256_unpacklo_epi16(a, b), _mm256_unpacklo_epi16(rest, w));
    const __m256i high = _mm256_madd_epi16(_mm256_unpackhi_epi16(a, b), _mm256_unpackhi_epi16(rest, w));
    const __m256i words = _mm256_packs_epi32(_mm256_srai_epi32(_mm256_add_epi32(low, half), 14),
                                             _mm256_srai_epi32(_mm256_add_epi32(high, half), 14));
    return _mm256_xor_si256(words, bias);
}
// (r1*w + r0*(16384 - w) + 524288) >> 20 of Q6 words. The lower 14 bits of the product cannot carry into the rounding.
ZENR_INLINE __m256i blendLast(__m256i r0, __m256i r1, __m256i twice) {
    const __m256i difference = _mm256_sub_epi16(r1, r0);
    const __m256i share = _mm256_mulhi_epi16(_mm256_add_epi16(difference, difference), twice);
    return _mm256_mulhrs_epi16(_mm256_add_epi16(r0, share), _mm256_set1_epi16(512)); // (... + 32) >> 6
}

// Rows of n elements in groups of `whole` ones, the last of which may overlap the one before; false for shorter rows.
template <int whole, class Group> ZENR_INLINE bool wholeGroups(int n, const Group& group) {
    if (n < whole) return false;
    int x = 0;
    for (; x <= n - whole; x += whole) group(x);
    if (x < n) group(n - whole);
    return true;
}

// Two windows of sixteen bytes.
template <class T> ZENR_INLINE __m256i windows(const T* low, const T* high) {
    return _mm256_inserti128_si256(_mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(low))),
                                   _mm_loadu_si128(reinterpret_cast<const __m128i*>(high)), 1);
}
ZENR_INLINE __m256i tapShuffle(const FixedGroup& g, int k) {
    return _mm256_load_si256(reinterpret_cast<const __m256i*>(g.taps[k]));
}
ZENR_INLINE __m256i twiceWeights(const FixedGroup& g) {
    return _mm256_load_si256(reinterpret_cast<const __m256i*>(g.twice));
}

// Sixteen columns: both taps of each as bytes side by side, into Q6.
template <int columns> ZENR_INLINE __m256i groupRow(const uint8_t* src, const FixedGroup& g, bool) {
    const int* const at = g.window;
    __m256i pairs;
    if constexpr (columns == 8) {
        pairs = _mm256_shuffle_epi8(windows(src + at[0], src + at[2]), tapShuffle(g, 0));
    } else {
        pairs = _mm256_or_si256(_mm256_shuffle_epi8(windows(src + at[0], src + at[2]), tapShuffle(g, 0)),
                                _mm256_shuffle_epi8(windows(src + at[1], src + at[3]), tapShuffle(g, 1)));
    }
    // 64*s0 and 64*(s1 - s0).
    const __m256i first = _mm256_maddubs_epi16(pairs, _mm256_set1_epi16(64));
    const __m256i difference = _mm256_maddubs_epi16(pairs, _mm256_set1_epi16(0x40C0));
    return _mm256_add_epi16(first, _mm256_mulhrs_epi16(difference, twiceWeights(g)));
}
// The first taps of all and the second taps of all, in a register each.
template <int columns> ZENR_INLINE __m256i groupRow(const uint16_t* src, const FixedGroup& g, bool far) {
    const int* const at = g.window;
    __m256i s0, s1;
    if constexpr (columns == 8) {
        const __m256i both = windows(src + at[0], src + at[2]);
        s0 = _mm256_shuffle_epi8(both, tapShuffle(g, 0));
        s1 = _mm256_shuffle_epi8(both, tapShuffle(g, 1));
    } else {
        const __m256i even = _mm256_shuffle_epi8(windows(src + at[0], src + at[2]), tapShuffle(g, 0));
        const __m256i odd = _mm256_shuffle_epi8(windows(src + at[1], src + at[3]), tapShuffle(g, 1));
        s0 = _mm256_unpacklo_epi64(even, odd);
        s1 = _mm256_unpackhi_epi64(even, odd);
    }
    return far ? blendFar(s0, s1, twiceWeights(g)) : blendNear(s0, s1, twiceWeights(g));
}
template <int columns, class T>
ZENR_INLINE void groupRows(const T* src, const FixedGroup* groups, int count, bool far, uint16_t* dst) {
    if (far)
        for (int i = 0; i < count; ++i) store16(dst + 16 * i, groupRow<columns>(src, groups[i], true));
    else
        for (int i = 0; i < count; ++i) store16(dst + 16 * i, groupRow<columns>(src, groups[i], false));
}
#endif

} // namespace
} // namespace ZENR_LEVEL
} // namespace zenr
