// Sums of weighted rows, eight or sixteen at a time, in double; the levels with 256-bit registers.
//
// A sum in double differs from the one in extended precision by less than 2^-50 of the bound on its operands: three or
// four roundings of 2^-53 of what they act on, which no weights make larger than twice the bound. Two quick tests
// settle nearly all elements:
//
// - Guarded: the float next to the sum is right unless a half-way point between two floats lies within that error.
//   Where the sum is not less than 2^-15 of the bound, the error is less than 2^18 of its last places, and half-way
//   points show in the low 29 bits.
// - Exact: weights that are multiples of 2^-10 make many half-way sums. But where an element's operands are within a
//   factor of 2^17 of each other (or all 0), they are multiples of a unit, the sum is one of 2^-10 units and less than
//   2^53 of those, so that nothing was rounded, here or in extended precision.
//
// What remains is summed again in roundRun. A bound of 0 says that the sums are exact in any case.
//
// 512-bit conversions are slower than two of 256 bits, so both levels compute in those.
#pragma once
#include "frame/simd.h"
#include "volume/presround.h"

namespace zenr {

namespace ZENR_LEVEL {
namespace {

// The sizes of a row's voxels, but for zeros, infinities and NaNs: sums with those are the same in any precision.
inline RowBound boundOf(const float* v, int n) {
    int most = 0;
    int least = 0x7F800000;
    for (int i = 0; i < n; ++i) {
        const int size = bitsOf(v[i]) & 0x7FFFFFFF;
        const int finite = size < 0x7F800000 ? size : 0;
        const int nonzero = size != 0 ? size : 0x7F800000;
        most = finite > most ? finite : most;
        least = nonzero < least ? nonzero : least;
    }
    return {__builtin_bit_cast(float, most), __builtin_bit_cast(float, least)};
}

#if defined(__AVX2__)
struct Eight {
    __m256d low, high;
};
ZENR_INLINE Eight widen8(const float* p) {
    return {_mm256_cvtps_pd(_mm_loadu_ps(p)), _mm256_cvtps_pd(_mm_loadu_ps(p + 4))};
}
ZENR_INLINE Eight times(const Eight& a, __m256d b) {
    return {_mm256_mul_pd(a.low, b), _mm256_mul_pd(a.high, b)};
}
// a * b + c; the tests hold for a rounding more or less.
ZENR_INLINE __m256d multiplyAdd(__m256d a, __m256d b, __m256d c) {
#if defined(__FMA__)
    return _mm256_fmadd_pd(a, b, c);
#else
    return _mm256_add_pd(_mm256_mul_pd(a, b), c);
#endif
}
ZENR_INLINE Eight multiplyAdd(const Eight& a, __m256d b, const Eight& c) {
    return {multiplyAdd(a.low, b, c.low), multiplyAdd(a.high, b, c.high)};
}
ZENR_INLINE Eight plus(const Eight& a, const Eight& b) {
    return {_mm256_add_pd(a.low, b.low), _mm256_add_pd(a.high, b.high)};
}
ZENR_INLINE Eight minus(const Eight& a, const Eight& b) {
    return {_mm256_sub_pd(a.low, b.low), _mm256_sub_pd(a.high, b.high)};
}
ZENR_INLINE __m256 floats(const Eight& s) {
    return _mm256_insertf128_ps(_mm256_castps128_ps256(_mm256_cvtpd_ps(s.low)), _mm256_cvtpd_ps(s.high), 1);
}
// The low words of eight doubles, in the order 0 1 4 5 2 3 6 7.
ZENR_INLINE __m256i lowWords(const Eight& s) {
    return _mm256_castps_si256(_mm256_shuffle_ps(_mm256_castpd_ps(s.low), _mm256_castpd_ps(s.high), 0x88));
}
ZENR_INLINE __m256 sizes(__m256 v) {
    return _mm256_andnot_ps(_mm256_set1_ps(-0.f), v);
}

// The guarded test of eight sums; set lanes are in doubt. Sums that are small beside the bound, as 0 is, are too.
struct Guarded8 {
    __m256 rounded;
    __m256i near; // in the order of lowWords
    __m256 small;
};
ZENR_INLINE Guarded8 guarded8(const Eight& s, __m256 threshold) {
    constexpr int kError = 1 << 18;
    const __m256 r = floats(s);
    const __m256i distance = _mm256_add_epi32(lowWords(s), _mm256_set1_epi32((1 << 28) + kError));
    const __m256i far = _mm256_and_si256(distance, _mm256_set1_epi32((1 << 29) - 2 * kError));
    return {r, _mm256_cmpeq_epi32(far, _mm256_setzero_si256()), _mm256_cmp_ps(sizes(r), threshold, _CMP_LT_OQ)};
}
ZENR_INLINE __m256 ordered(__m256i near) {
    return _mm256_castsi256_ps(_mm256_permute4x64_epi64(near, 0xD8));
}
inline float guardThreshold(float bound) {
    const float threshold = bound * 0x1p-14f;
    return threshold > 0x1p-126f ? threshold : 0x1p-126f; // a smaller float ends at another bit
}

ZENR_INLINE unsigned lanes16(__m256 low, __m256 high) {
    return unsigned(_mm256_movemask_ps(low)) | unsigned(_mm256_movemask_ps(high)) << 8;
}
// True when n values are 0; none but those are read.
ZENR_INLINE bool zeroRun(const float* v, int n) {
    if (n < 8) {
        bool zero = true;
        for (int i = 0; i < n; ++i) zero &= v[i] == 0;
        return zero;
    }
    __m256 any = _mm256_setzero_ps();
    for (int i = 0; i < n; i += 8) any = _mm256_or_ps(any, _mm256_loadu_ps(v + (n - i < 8 ? n - 8 : i)));
    return _mm256_testz_si256(_mm256_castps_si256(any), _mm256_set1_epi32(0x7FFFFFFF));
}
ZENR_INLINE bool zeroRun(const double* v, int n) {
    if (n < 4) {
        bool zero = true;
        for (int i = 0; i < n; ++i) zero &= v[i] == 0;
        return zero;
    }
    __m256d any = _mm256_setzero_pd();
    for (int i = 0; i < n; i += 4) any = _mm256_or_pd(any, _mm256_loadu_pd(v + (n - i < 4 ? n - 4 : i)));
    return _mm256_testz_si256(_mm256_castpd_si256(any), _mm256_set1_epi64x(0x7FFFFFFFFFFFFFFF));
}
template <int rows> ZENR_INLINE bool zeroRows16(const float* const* r, int x) {
    __m256 any = _mm256_setzero_ps();
    for (int k = 0; k < rows; ++k)
        any = _mm256_or_ps(any, _mm256_or_ps(_mm256_loadu_ps(r[k] + x), _mm256_loadu_ps(r[k] + x + 8)));
    return _mm256_testz_si256(_mm256_castps_si256(any), _mm256_set1_epi32(0x7FFFFFFF));
}
ZENR_INLINE __m256d absolute(__m256d v) {
    return _mm256_andnot_pd(_mm256_set1_pd(-0.), v);
}
ZENR_INLINE Eight absolute(const Eight& v) {
    return {absolute(v.low), absolute(v.high)};
}

// Which of eight sums are small beside their own operands; all 0 is not.
template <class Op> ZENR_INLINE __m256 small8(const Op& op, int x) {
    const __m256 size = floats(op.size(x)); // the sum of the operands' sizes
    const __m256 threshold = _mm256_max_ps(_mm256_mul_ps(size, _mm256_set1_ps(0x1p-14f)), _mm256_set1_ps(0x1p-126f));
    const __m256 nonzero = _mm256_cmp_ps(size, _mm256_setzero_ps(), _CMP_NEQ_UQ);
    return _mm256_and_ps(nonzero, _mm256_cmp_ps(sizes(floats(op.eight(x))), threshold, _CMP_NGE_UQ));
}

// Elements of sixteen that the guarded test left in doubt.
template <class Op>
__attribute__((noinline)) void settle(const Op& op, float* dst, int x, unsigned near, unsigned small) {
    if (!near && op.zero16(x)) return;
    if (small) small &= lanes16(small8(op, x), small8(op, x + 8));
    for (unsigned doubt = near | small; doubt; doubt &= doubt - 1) {
        const int i = x + __builtin_ctz(doubt);
        const Sum s = op.sum(i);
        dst[i] = s.residue == 0 ? float(s.value) : float(op.exact(i));
    }
}

// The exact test: set lanes are not known to be exact.
template <class Op> ZENR_INLINE __m256 spread8(const Op& op, int x) {
    __m256 most = sizes(_mm256_loadu_ps(op.rows[0] + x));
    __m256 least = most;
    for (int k = 1; k < Op::kRows; ++k) {
        const __m256 v = sizes(_mm256_loadu_ps(op.rows[k] + x));
        most = _mm256_max_ps(most, v);
        least = _mm256_min_ps(least, v);
    }
    return _mm256_cmp_ps(most, _mm256_mul_ps(least, _mm256_set1_ps(0x1p17f)), _CMP_NLE_UQ);
}

template <class Op> ZENR_INLINE void roundExact16(const Op& op, float* dst, int x) {
    _mm256_storeu_ps(dst + x, floats(op.eight(x)));
    _mm256_storeu_ps(dst + x + 8, floats(op.eight(x + 8)));
    const __m256 low = spread8(op, x), high = spread8(op, x + 8);
    if (__builtin_expect(_mm256_movemask_ps(_mm256_or_ps(low, high)) != 0, 0))
        settle(op, dst, x, lanes16(low, high), 0);
}
// With `exempt`, op tells which elements need no test.
template <bool exempt, class Op> ZENR_INLINE void roundGuarded16(const Op& op, __m256 threshold, float* dst, int x) {
    const Guarded8 low = guarded8(op.eight(x), threshold), high = guarded8(op.eight(x + 8), threshold);
    _mm256_storeu_ps(dst + x, low.rounded);
    _mm256_storeu_ps(dst + x + 8, high.rounded);
    __m256 needed[2];
    for (int i = 0; i < 2; ++i) {
        if constexpr (exempt)
            needed[i] = op.needed(x + 8 * i);
        else
            needed[i] = _mm256_castsi256_ps(_mm256_set1_epi32(-1));
    }
    const __m256 any = _mm256_or_ps(_mm256_and_ps(needed[0], _mm256_or_ps(ordered(low.near), low.small)),
                                    _mm256_and_ps(needed[1], _mm256_or_ps(ordered(high.near), high.small)));
    if (__builtin_expect(_mm256_movemask_ps(any) == 0, 1)) return;
    const unsigned lanes = lanes16(needed[0], needed[1]);
    settle(op, dst, x, lanes & lanes16(ordered(low.near), ordered(high.near)), lanes & lanes16(low.small, high.small));
}

// Elements [begin, end) of a row pass, sixteen or more. Without a bound, sums are exact.
template <class Op>
ZENR_INLINE void roundTaps(const Op& op, const RowBound& bound, float* __restrict dst, int begin, int end) {
    // The last group may overlap the one before.
    const __m256 threshold = _mm256_set1_ps(guardThreshold(bound.most));
    if (bound.most == 0) {
        for (int i = begin; i < end; i += 16) {
            const int x = end - i < 16 ? end - 16 : i;
            _mm256_storeu_ps(dst + x, floats(op.eight(x)));
            _mm256_storeu_ps(dst + x + 8, floats(op.eight(x + 8)));
        }
    } else if (isClose(bound)) {
        for (int i = begin; i < end; i += 16) roundGuarded16<true>(op, threshold, dst, end - i < 16 ? end - 16 : i);
    } else {
        for (int i = begin; i < end; i += 16) roundGuarded16<false>(op, threshold, dst, end - i < 16 ? end - 16 : i);
    }
}

// A row of sums of rows. Operands are at most `bound` in size; with 0, sums are exact.
template <class Op>
ZENR_INLINE void roundRows(const Op& op, float bound, bool shortWeights, float* __restrict dst, int n) {
    if (n < 16) return roundRow(op, dst, n);
    // The last group may overlap the one before.
    if (bound == 0) {
        for (int begin = 0; begin < n; begin += 16) {
            const int x = n - begin < 16 ? n - 16 : begin;
            _mm256_storeu_ps(dst + x, floats(op.eight(x)));
            _mm256_storeu_ps(dst + x + 8, floats(op.eight(x + 8)));
        }
    } else if (shortWeights) {
        for (int begin = 0; begin < n; begin += 16) roundExact16(op, dst, n - begin < 16 ? n - 16 : begin);
    } else {
        const __m256 threshold = _mm256_set1_ps(guardThreshold(bound));
        for (int begin = 0; begin < n; begin += 16)
            roundGuarded16<false>(op, threshold, dst, n - begin < 16 ? n - 16 : begin);
    }
}

// Sums for integer voxels: + 1/2, truncated, with 14 fraction bits. Below 2^17 in size, which three passes of weights
// keep 16-bit voxels in.
struct Fixed {
    __m256i doubt; // not 0 where the sum lies within 2^-15 of an integer
    ZENR_INLINE __m256i round(const Eight& s) {
        const __m256d shift = _mm256_set1_pd(0x1.8p38 + 0.5);
        const __m256i v = lowWords({_mm256_add_pd(s.low, shift), _mm256_add_pd(s.high, shift)});
        doubt = _mm256_or_si256(
            doubt, _mm256_cmpeq_epi32(_mm256_and_si256(v, _mm256_set1_epi32(0x3FFF)), _mm256_setzero_si256()));
        return _mm256_srai_epi32(v, 14);
    }
};
// Sixteen integers of two lowWords, saturated, in order.
ZENR_INLINE __m256i words16(__m256i a, __m256i b) {
    return _mm256_permutevar8x32_epi32(_mm256_packus_epi32(a, b), _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7));
}
ZENR_INLINE void storeVoxels16(uint16_t* dst, __m256i words) {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst), words);
}
ZENR_INLINE void storeVoxels16(uint8_t* dst, __m256i words) {
    // Words up to 65535 would pack as negative ones.
    const __m256i least = _mm256_min_epu16(words, _mm256_set1_epi16(255));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst),
                     _mm_packus_epi16(_mm256_castsi256_si128(least), _mm256_extracti128_si256(least, 1)));
}
#else
template <class Op> ZENR_INLINE void roundRows(const Op& op, float, bool, float* dst, int n) {
    roundRow(op, dst, n);
}
#endif

} // namespace
} // namespace ZENR_LEVEL
} // namespace zenr
