// Sums of weighted rows, eight or sixteen at a time, in double; the levels with 256-bit registers.
//
// A sum in double differs from the one in extended precision by less than 2^-50 of the bound on its operands: three or
// four roundings of 2^-53 of what they act on, which no weights make larger than twice the bound. Three quick tests
// settle nearly all elements:
//
// - Guarded: the float next to the sum is right unless a half-way point between two floats lies within that error.
//   Where the sum is not less than 2^-15 of the bound, the error is less than 2^18 of its last places, and half-way
//   points show in the low 29 bits.
// - Half-way: interpolations s0 + (s1 - s0)*f, fused, where f lies from 2^-10 to 1 - 2^-10 and results cannot be
//   denormal. Operands within a factor of 2^15 of each other give an exact product in extended precision and an exact
//   difference in double: both sums are the exact value, rounded once. Otherwise that value is not below 2^-11 of the
//   larger operand, which bounds the errors of both to 2^12 last places. Small sums need no test.
// - Exact: weights that are multiples of 2^-10 make many half-way sums. But where an element's operands are within a
//   factor of 2^17 of each other (or all 0), they are multiples of a unit, the sum is one of 2^-10 units and less than
//   2^53 of those, so that nothing was rounded, here or in extended precision.
//
// What remains is summed again in roundRun. Care::none says that the sums are exact in any case.
//
// 512-bit conversions are slower than two of 256 bits, so both levels compute in those.
#pragma once
#include "frame/simd.h"
#include "volume/presround.h"

namespace zenr {

namespace ZENR_LEVEL {
namespace {

#if defined(__AVX2__)
struct Eight {
    __m256d low, high;
};
ZENR_INLINE Eight widen8(const float* p) {
    return {_mm256_cvtps_pd(_mm_loadu_ps(p)), _mm256_cvtps_pd(_mm_loadu_ps(p + 4))};
}
ZENR_INLINE Eight widen8(const double* p) {
    return {_mm256_loadu_pd(p), _mm256_loadu_pd(p + 4)};
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
ZENR_INLINE __m256 floats8(const float* p) {
    return _mm256_loadu_ps(p);
}
ZENR_INLINE __m256 floats8(const double* p) {
    return floats(widen8(p));
}
ZENR_INLINE void put8(float* dst, __m256 r) {
    _mm256_storeu_ps(dst, r);
}
ZENR_INLINE void put8(double* dst, __m256 r) {
    _mm256_storeu_pd(dst, _mm256_cvtps_pd(_mm256_castps256_ps128(r)));
    _mm256_storeu_pd(dst + 4, _mm256_cvtps_pd(_mm256_extractf128_ps(r, 1)));
}
// The low words of eight doubles: where that would take two permutations, in the order 0 1 4 5 2 3 6 7. `ordered` goes
// either way between that order and the elements' own.
#if defined(ZENR_LEVEL_avx512)
ZENR_INLINE __m256i lowWords(const Eight& s) {
    return _mm256_permutex2var_epi32(_mm256_castpd_si256(s.low), _mm256_setr_epi32(0, 2, 4, 6, 8, 10, 12, 14),
                                     _mm256_castpd_si256(s.high));
}
ZENR_INLINE __m256i ordered(__m256i words) {
    return words;
}
#else
ZENR_INLINE __m256i lowWords(const Eight& s) {
    return _mm256_castps_si256(_mm256_shuffle_ps(_mm256_castpd_ps(s.low), _mm256_castpd_ps(s.high), 0x88));
}
ZENR_INLINE __m256i ordered(__m256i words) {
    return _mm256_permute4x64_epi64(words, 0xD8);
}
#endif
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
ZENR_INLINE __m256 orderedLanes(__m256i near) {
    return _mm256_castsi256_ps(ordered(near));
}
inline float guardThreshold(float bound) {
    const float threshold = bound * 0x1p-14f;
    return threshold > 0x1p-126f ? threshold : 0x1p-126f; // a smaller float ends at another bit
}

ZENR_INLINE unsigned lanes16(__m256 low, __m256 high) {
    return unsigned(_mm256_movemask_ps(low)) | unsigned(_mm256_movemask_ps(high)) << 8;
}
// True when n doubles are 0; none but those are read.
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
// True when sixteen elements of all rows are 0.
template <int rows> ZENR_INLINE bool zeroRows16(const float* const* r, int x) {
    __m256 any = _mm256_setzero_ps();
    for (int k = 0; k < rows; ++k)
        any = _mm256_or_ps(any, _mm256_or_ps(_mm256_loadu_ps(r[k] + x), _mm256_loadu_ps(r[k] + x + 8)));
    return _mm256_testz_si256(_mm256_castps_si256(any), _mm256_set1_epi32(0x7FFFFFFF));
}
template <int rows> ZENR_INLINE bool zeroRows16(const double* const* r, int x) {
    __m256d any = _mm256_setzero_pd();
    for (int k = 0; k < rows; ++k)
        for (int i = 0; i < 16; i += 4) any = _mm256_or_pd(any, _mm256_loadu_pd(r[k] + x + i));
    return _mm256_testz_si256(_mm256_castpd_si256(any), _mm256_set1_epi64x(0x7FFFFFFFFFFFFFFF));
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
template <class Op, class Element>
__attribute__((noinline)) void settle(const Op& op, Element* dst, int x, unsigned near, unsigned small) {
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
    __m256 most = sizes(floats8(op.rows[0] + x));
    __m256 least = most;
    for (int k = 1; k < Op::kRows; ++k) {
        const __m256 v = sizes(floats8(op.rows[k] + x));
        most = _mm256_max_ps(most, v);
        least = _mm256_min_ps(least, v);
    }
    return _mm256_cmp_ps(most, _mm256_mul_ps(least, _mm256_set1_ps(0x1p17f)), _CMP_NLE_UQ);
}

template <class Op, class Element> ZENR_INLINE void roundExact16(const Op& op, Element* dst, int x) {
    put8(dst + x, floats(op.eight(x)));
    put8(dst + x + 8, floats(op.eight(x + 8)));
    const __m256 low = spread8(op, x), high = spread8(op, x + 8);
    if (__builtin_expect(_mm256_movemask_ps(_mm256_or_ps(low, high)) != 0, 0))
        settle(op, dst, x, lanes16(low, high), 0);
}
// With `exempt`, op tells which elements need no test.
template <bool exempt, class Op, class Element>
ZENR_INLINE void roundGuarded16(const Op& op, __m256 threshold, Element* dst, int x) {
    const Guarded8 low = guarded8(op.eight(x), threshold), high = guarded8(op.eight(x + 8), threshold);
    put8(dst + x, low.rounded);
    put8(dst + x + 8, high.rounded);
    __m256 needed[2];
    for (int i = 0; i < 2; ++i) {
        if constexpr (exempt)
            needed[i] = _mm256_castsi256_ps(op.guarded8(x + 8 * i));
        else
            needed[i] = _mm256_castsi256_ps(_mm256_set1_epi32(-1));
    }
    const __m256 any = _mm256_or_ps(_mm256_and_ps(needed[0], _mm256_or_ps(orderedLanes(low.near), low.small)),
                                    _mm256_and_ps(needed[1], _mm256_or_ps(orderedLanes(high.near), high.small)));
    if (__builtin_expect(_mm256_movemask_ps(any) == 0, 1)) return;
    const unsigned lanes = lanes16(needed[0], needed[1]);
    settle(op, dst, x, lanes & lanes16(orderedLanes(low.near), orderedLanes(high.near)),
           lanes & lanes16(low.small, high.small));
}

// How far sums lie above the half-way points that they are nearest to, less the error and in eighths of a last place, as
// signed numbers: the least are in doubt. In the order of lowWords.
constexpr int kHalfwayError = 1 << 12;
constexpr int kHalfwayLimit = int(0x80000000u + (2u * kHalfwayError << 3));
ZENR_INLINE __m256i aboveHalfway(const Eight& s) {
    return _mm256_slli_epi32(_mm256_add_epi32(lowWords(s), _mm256_set1_epi32(kHalfwayError)), 3);
}
template <bool exempt, class Op, class Element> ZENR_INLINE void roundHalfway16(const Op& op, Element* dst, int x) {
    const __m256i limit = _mm256_set1_epi32(kHalfwayLimit);
    const Eight a = op.line8(x), b = op.line8(x + 8);
    put8(dst + x, op.finish(floats(a), x));
    put8(dst + x + 8, op.finish(floats(b), x + 8));
    __m256i above[2] = {aboveHalfway(a), aboveHalfway(b)};
    if constexpr (exempt)
        for (int i = 0; i < 2; ++i)
            above[i] =
                _mm256_or_si256(above[i], ordered(_mm256_xor_si256(op.guarded8(x + 8 * i), _mm256_set1_epi32(-1))));
    const __m256i near = _mm256_cmpgt_epi32(limit, _mm256_min_epi32(above[0], above[1]));
    if (__builtin_expect(_mm256_testz_si256(near, near), 1)) return;
    settle(
        op, dst, x,
        lanes16(orderedLanes(_mm256_cmpgt_epi32(limit, above[0])), orderedLanes(_mm256_cmpgt_epi32(limit, above[1]))),
        0);
}

// Calls group(x) for groups of sixteen elements from x on that cover [begin, end): the last may overlap the one before.
template <class Group> ZENR_INLINE void sixteens(int begin, int end, const Group& group) {
    for (int x = begin; x < end; x += 16) group(end - x < 16 ? end - 16 : x);
}

// The same where elements outside [from, to) need no test: plain(x) for groups of those, group(x) for the others.
template <class Plain, class Group>
ZENR_INLINE void sixteensWithin(int begin, int end, int from, int to, const Plain& plain, const Group& group) {
    int first = from > begin ? begin + (from - begin) / 16 * 16 : begin;
    if (first > end) first = end;
    int last = to < first ? first : first + (to - first + 15) / 16 * 16;
    if (end - last < 16) last = end; // no plain group reaches back over others
    sixteens(begin, last == first ? end : first, plain);
    if (last == first) return;
    for (int x = first; x < last; x += 16) group(end - x < 16 ? end - 16 : x);
    sixteens(last, end, plain);
}

// Elements [begin, end) of a row pass, sixteen or more; begin and end of `bound` are those of the result.
template <class Op, class Element>
ZENR_INLINE void roundTaps(const Op& op, const RowBound& bound, Care care, Element* __restrict dst, int begin,
                           int end) {
    const __m256 threshold = _mm256_set1_ps(guardThreshold(bound.most));
    const bool close = isClose(bound);
    const auto plain = [&](int x) __attribute__((always_inline)) {
        put8(dst + x, floats(op.eight(x)));
        put8(dst + x + 8, floats(op.eight(x + 8)));
    };
    const auto each = [&](const auto& group) __attribute__((always_inline)) {
        sixteensWithin(begin, end, bound.begin, bound.end, plain, group);
    };
    if (care == Care::none) return sixteens(begin, end, plain);
    if constexpr (Op::kInterpolates) {
        if (care == Care::halfway) {
            if (close) return each([&](int x) __attribute__((always_inline)) { roundHalfway16<true>(op, dst, x); });
            return each([&](int x) __attribute__((always_inline)) { roundHalfway16<false>(op, dst, x); });
        }
    }
    if (close) return each([&](int x) __attribute__((always_inline)) { roundGuarded16<true>(op, threshold, dst, x); });
    each([&](int x) __attribute__((always_inline)) { roundGuarded16<false>(op, threshold, dst, x); });
}

// A row of sums of rows.
template <class Op, class Element>
ZENR_INLINE void roundRows(const Op& op, const RowBound& bound, Care care, bool shortWeights, Element* __restrict dst,
                           int n) {
    if (n < 16) return roundRow(op, dst, n);
    const auto plain = [&](int x) __attribute__((always_inline)) {
        put8(dst + x, op.finish(floats(op.line8(x)), x));
        put8(dst + x + 8, op.finish(floats(op.line8(x + 8)), x + 8));
    };
    const auto each = [&](const auto& group) __attribute__((always_inline)) {
        sixteensWithin(0, n, bound.begin, bound.end, plain, group);
    };
    if (care == Care::none) return sixteens(0, n, plain);
    if constexpr (Op::kInterpolates) {
        if (care == Care::halfway)
            return each([&](int x) __attribute__((always_inline)) { roundHalfway16<false>(op, dst, x); });
    }
    if (shortWeights) return each([&](int x) __attribute__((always_inline)) { roundExact16(op, dst, x); });
    const __m256 threshold = _mm256_set1_ps(guardThreshold(bound.most));
    each([&](int x) __attribute__((always_inline)) { roundGuarded16<false>(op, threshold, dst, x); });
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
    return _mm256_permute4x64_epi64(_mm256_packus_epi32(ordered(a), ordered(b)), 0xD8);
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
template <class Op, class Element>
ZENR_INLINE void roundRows(const Op& op, const RowBound&, Care, bool, Element* dst, int n) {
    roundRow(op, dst, n);
}
#endif

} // namespace
} // namespace ZENR_LEVEL
} // namespace zenr
