// Sums of weighted rows, eight or sixteen at a time, in double; the levels with 256-bit registers.
//
// A sum in double differs from the one in extended precision by less than 2^-50 of the bound on its operands: three or
// four roundings of 2^-53 of what they act on, which no weights make larger than twice the bound. Three quick tests
// settle nearly all elements:
//
// - Guarded: the float next to the sum is right unless a half-way point between two floats lies within that error.
//   Where the sum is not less than 2^-13 of the bound, the error is less than 2^17 of its last places, and half-way
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
#include <stddef.h>

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
// The low words of eight doubles, in the order 0 1 4 5 2 3 6 7, which takes one shuffle; `ordered` goes either way
// between that order and the elements' own.
ZENR_INLINE __m256i lowWords(const Eight& s) {
    return _mm256_castps_si256(_mm256_shuffle_ps(_mm256_castpd_ps(s.low), _mm256_castpd_ps(s.high), 0x88));
}
ZENR_INLINE __m256i ordered(__m256i words) {
    return _mm256_permute4x64_epi64(words, 0xD8);
}
ZENR_INLINE __m256 sizes(__m256 v) {
    return _mm256_andnot_ps(_mm256_set1_ps(-0.f), v);
}

// 0 where a half-way point between two floats lies within `error` last places of a sum, a positive number elsewhere; in
// the order of lowWords.
inline constexpr float kSmall = 0x1p-13f;
inline constexpr int kGuardedError = 1 << 17;
inline constexpr int kHalfwayError = 1 << 12;
template <int error> ZENR_INLINE __m256i offHalfway(const Eight& s) {
    const __m256i distance = _mm256_add_epi32(lowWords(s), _mm256_set1_epi32((1 << 28) + error));
    return _mm256_and_si256(distance, _mm256_set1_epi32((1 << 29) - 2 * error));
}
ZENR_INLINE __m256i isZero(__m256i v) {
    return _mm256_cmpeq_epi32(v, _mm256_setzero_si256());
}
ZENR_INLINE __m256 orderedLanes(__m256i lanes) {
    return _mm256_castsi256_ps(ordered(lanes));
}
// Sums below this are small beside the bound, as 0 is.
inline float guardThreshold(float bound) {
    const float threshold = bound * kSmall;
    return threshold > 0x1p-126f ? threshold : 0x1p-126f; // a smaller float ends at another bit
}

ZENR_INLINE unsigned lanes16(__m256 low, __m256 high) {
    return unsigned(_mm256_movemask_ps(low)) | unsigned(_mm256_movemask_ps(high)) << 8;
}
// A bit for each of eight integers below 0.
ZENR_INLINE unsigned signs8(const int* v) {
    return unsigned(_mm256_movemask_ps(_mm256_castsi256_ps(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(v)))));
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
// True when `count` elements of all rows are 0.
template <int rows, int count> ZENR_INLINE bool zeroRows(const float* const* r, int x) {
    __m256 any = _mm256_setzero_ps();
    for (int k = 0; k < rows; ++k)
        for (int i = 0; i < count; i += 8) any = _mm256_or_ps(any, _mm256_loadu_ps(r[k] + x + i));
    return _mm256_testz_si256(_mm256_castps_si256(any), _mm256_set1_epi32(0x7FFFFFFF));
}
template <int rows, int count> ZENR_INLINE bool zeroRows(const double* const* r, int x) {
    __m256d any = _mm256_setzero_pd();
    for (int k = 0; k < rows; ++k)
        for (int i = 0; i < count; i += 4) any = _mm256_or_pd(any, _mm256_loadu_pd(r[k] + x + i));
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
    const __m256 threshold = _mm256_max_ps(_mm256_mul_ps(size, _mm256_set1_ps(kSmall)), _mm256_set1_ps(0x1p-126f));
    const __m256 nonzero = _mm256_cmp_ps(size, _mm256_setzero_ps(), _CMP_NEQ_UQ);
    return _mm256_and_ps(nonzero, _mm256_cmp_ps(sizes(floats(op.eight(x))), threshold, _CMP_NGE_UQ));
}

// Elements of eight or sixteen that the guarded test left in doubt. (A copy of op: one that others refer to would be read
// again and again in their loops.)
template <int count, class Op, class Element>
__attribute__((noinline)) void settle(Op op, Element* dst, int x, unsigned near, unsigned small) {
    if (small) {
        const __m256 low = small8(op, x);
        small &= count == 8 ? unsigned(_mm256_movemask_ps(low)) : lanes16(low, small8(op, x + 8));
    }
    for (unsigned doubt = near | small; doubt; doubt &= doubt - 1) {
        const int i = x + __builtin_ctz(doubt);
        const Sum s = op.sum(i);
        int open = 0; // with this element's own operands for a bound
        const float rounded = roundDoubtfully(s.value, s.size, &open);
        dst[i] = !open ? rounded : s.residue == 0 ? float(s.value) : float(op.exact(i));
    }
}

// The exact test: set lanes are not known to be exact. Doubles are compared by their upper words, in which 16 is left of
// the factor's 17 powers of two.
ZENR_INLINE __m256i upperWords(const double* p) {
    const Eight v = widen8(p);
    return _mm256_castps_si256(_mm256_shuffle_ps(_mm256_castpd_ps(v.low), _mm256_castpd_ps(v.high), 0xDD));
}
template <int rows> ZENR_INLINE __m256 spread8(const double* const* r, int x) {
    const __m256i size = _mm256_set1_epi32(0x7FFFFFFF);
    __m256i most = _mm256_and_si256(upperWords(r[0] + x), size);
    __m256i least = most;
    for (int k = 1; k < rows; ++k) {
        const __m256i v = _mm256_and_si256(upperWords(r[k] + x), size);
        most = _mm256_max_epi32(most, v);
        least = _mm256_min_epi32(least, v);
    }
    return orderedLanes(_mm256_cmpgt_epi32(_mm256_sub_epi32(most, least), _mm256_set1_epi32(16 << 20)));
}
template <int rows> ZENR_INLINE __m256 spread8(const float* const* r, int x) {
    __m256 most = sizes(_mm256_loadu_ps(r[0] + x));
    __m256 least = most;
    for (int k = 1; k < rows; ++k) {
        const __m256 v = sizes(_mm256_loadu_ps(r[k] + x));
        most = _mm256_max_ps(most, v);
        least = _mm256_min_ps(least, v);
    }
    return _mm256_cmp_ps(most, _mm256_mul_ps(least, _mm256_set1_ps(0x1p17f)), _CMP_NLE_UQ);
}

template <class Op, class Element> ZENR_INLINE void roundExact16(const Op& op, Element* dst, int x) {
    put8(dst + x, floats(op.eight(x)));
    put8(dst + x + 8, floats(op.eight(x + 8)));
    const __m256 low = spread8<Op::kRows>(op.rows, x), high = spread8<Op::kRows>(op.rows, x + 8);
    if (__builtin_expect(_mm256_movemask_ps(_mm256_or_ps(low, high)) != 0, 0))
        settle<16>(op, dst, x, lanes16(low, high), 0);
}
// `edge` is set for groups that may reach beyond the bound's begin and end: zeros there are not small.
ZENR_INLINE __m256 thresholdWithin(__m256 threshold, const RowBound& bound, int x) {
    const __m256i at = _mm256_add_epi32(_mm256_set1_epi32(x), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
    const __m256i out = _mm256_cmpgt_epi32(_mm256_set1_epi32(bound.begin), at);
    const __m256i in = _mm256_andnot_si256(out, _mm256_cmpgt_epi32(_mm256_set1_epi32(bound.end), at));
    return _mm256_and_ps(threshold, _mm256_castsi256_ps(in));
}
template <bool edge, class Op, class Element>
ZENR_INLINE void roundGuarded16(const Op& op, const RowBound& bound, __m256 threshold, Element* dst, int x) {
    const Eight a = op.eight(x), b = op.eight(x + 8);
    const __m256 low = floats(a), high = floats(b);
    put8(dst + x, low);
    put8(dst + x + 8, high);
    const __m256i off[2] = {offHalfway<kGuardedError>(a), offHalfway<kGuardedError>(b)};
    // As integers, NaNs are the largest sizes.
    const __m256i size[2] = {_mm256_castps_si256(sizes(low)), _mm256_castps_si256(sizes(high))};
    const __m256 under[2] = {edge ? thresholdWithin(threshold, bound, x) : threshold,
                             edge ? thresholdWithin(threshold, bound, x + 8) : threshold};
    const __m256i small = edge ? _mm256_or_si256(_mm256_cmpgt_epi32(_mm256_castps_si256(under[0]), size[0]),
                                                 _mm256_cmpgt_epi32(_mm256_castps_si256(under[1]), size[1]))
                               : _mm256_cmpgt_epi32(_mm256_castps_si256(threshold), _mm256_min_epu32(size[0], size[1]));
#if defined(ZENR_LEVEL_avx512)
    const __m256i mask = _mm256_set1_epi32((1 << 29) - 2 * kGuardedError);
    const __m256i shift = _mm256_set1_epi32((1 << 28) + kGuardedError);
    const unsigned near = _mm256_testn_epi32_mask(_mm256_add_epi32(lowWords(a), shift), mask) |
                          _mm256_testn_epi32_mask(_mm256_add_epi32(lowWords(b), shift), mask);
    const __m256 least = _mm256_range_ps(low, high, 0xA); // the lesser size; of a number and a NaN, the number's
    const unsigned tiny = edge ? _mm256_movepi32_mask(small) : _mm256_cmp_ps_mask(least, threshold, _CMP_LT_OQ);
    if (__builtin_expect((near | tiny) == 0, 1) || op.template zeros<16>(x)) return;
#else
    const __m256i any = _mm256_or_si256(small, isZero(_mm256_min_epu32(off[0], off[1])));
    if (__builtin_expect(_mm256_testz_si256(any, any), 1) || op.template zeros<16>(x)) return;
#endif
    settle<16>(
        op, dst, x, lanes16(orderedLanes(isZero(off[0])), orderedLanes(isZero(off[1]))),
        lanes16(_mm256_cmp_ps(sizes(low), under[0], _CMP_LT_OQ), _mm256_cmp_ps(sizes(high), under[1], _CMP_LT_OQ)));
}

template <class Op, class Element> ZENR_INLINE void roundHalfway16(const Op& op, Element* dst, int x) {
    const Eight a = op.line8(x), b = op.line8(x + 8);
    put8(dst + x, op.finish(floats(a), x));
    put8(dst + x + 8, op.finish(floats(b), x + 8));
    const __m256i off[2] = {offHalfway<kHalfwayError>(a), offHalfway<kHalfwayError>(b)};
    const __m256i near = isZero(_mm256_min_epu32(off[0], off[1]));
    if (__builtin_expect(_mm256_testz_si256(near, near), 1)) return;
    settle<16>(op, dst, x, lanes16(orderedLanes(isZero(off[0])), orderedLanes(isZero(off[1]))), 0);
}

// Calls group(x) for groups of `size` elements from x on that cover [begin, end): the last may overlap the one before.
template <int size, class Group> ZENR_INLINE void inGroups(ptrdiff_t begin, ptrdiff_t end, const Group& group) {
    for (ptrdiff_t x = begin; x < end; x += size) {
        if (__builtin_expect(end - x < size, 0)) x = end - size;
        group(x);
    }
}

// The same where elements outside [from, to) need no test: plain(x) for groups of those, group(x) for the others.
template <int size, class Plain, class Group>
ZENR_INLINE void inGroupsWithin(int begin, int end, int from, int to, const Plain& plain, const Group& group) {
    int first = from > begin ? begin + (from - begin) / size * size : begin;
    if (first > end) first = end;
    int last = to < first ? first : first + (to - first + size - 1) / size * size;
    if (end - last < size) last = end; // no plain group reaches back over others
    inGroups<size>(begin, last == first ? end : first, plain);
    if (last == first) return;
    inGroups<size>(first, last, group);
    inGroups<size>(last, end, plain);
}

// A number for each of eight columns of a row pass. Arithmetic at 512 bits is no slower, only conversions are.
#if defined(ZENR_LEVEL_avx512)
struct Taps {
    __m512d all;
};
ZENR_INLINE Eight halves(const Taps& a) {
    return {_mm512_castpd512_pd256(a.all), _mm512_extractf64x4_pd(a.all, 1)};
}
ZENR_INLINE Taps joined(const Eight& a) {
    return {_mm512_insertf64x4(_mm512_castpd256_pd512(a.low), a.high, 1)};
}
ZENR_INLINE Taps minus(const Taps& a, const Taps& b) {
    return {_mm512_sub_pd(a.all, b.all)};
}
ZENR_INLINE Taps times(const Taps& a, const double* b) {
    return {_mm512_mul_pd(a.all, _mm512_loadu_pd(b))};
}
ZENR_INLINE Taps multiplyAdd(const Taps& a, const double* b, const Taps& c) {
    return {_mm512_fmadd_pd(a.all, _mm512_loadu_pd(b), c.all)};
}
// Rounded to float, as doubles. Where the float is certain to be a normal number or 0: the sum times 2^29 + 1, less what
// that is without the sum (Veltkamp's splitting). The difference is rounded to 24 bits of the sum, also where the product
// next below a power of two is rounded to one bit less; ties go to even, as in conversions.
ZENR_INLINE void putTaps(double* dst, const Taps& s, bool normal) {
    if (__builtin_expect(!normal, 0)) {
        const Eight half = halves(s);
        return put8(dst, floats(half));
    }
    const __m512d scaled = _mm512_fmadd_pd(s.all, _mm512_set1_pd(0x1p29), s.all);
    _mm512_storeu_pd(dst, _mm512_sub_pd(scaled, _mm512_sub_pd(scaled, s.all)));
}
// Bits of the sums that have a half-way point within `error`, and of those below a threshold.
template <int error> ZENR_INLINE unsigned nearHalfway(const Taps& s) {
    const __m512i distance = _mm512_add_epi64(_mm512_castpd_si512(s.all), _mm512_set1_epi64((1 << 28) + error));
    return _mm512_testn_epi64_mask(distance, _mm512_set1_epi64((1 << 29) - 2 * error));
}
ZENR_INLINE unsigned smallerThan(const Taps& s, float threshold) {
    return _mm512_cmp_pd_mask(_mm512_abs_pd(s.all), _mm512_set1_pd(threshold), _CMP_LT_OQ);
}
#else
using Taps = Eight;
ZENR_INLINE Eight halves(const Taps& a) {
    return a;
}
ZENR_INLINE Taps joined(const Eight& a) {
    return a;
}
ZENR_INLINE Taps times(const Taps& a, const double* b) {
    return {_mm256_mul_pd(a.low, _mm256_loadu_pd(b)), _mm256_mul_pd(a.high, _mm256_loadu_pd(b + 4))};
}
ZENR_INLINE Taps multiplyAdd(const Taps& a, const double* b, const Taps& c) {
    return {multiplyAdd(a.low, _mm256_loadu_pd(b), c.low), multiplyAdd(a.high, _mm256_loadu_pd(b + 4), c.high)};
}
ZENR_INLINE void putTaps(double* dst, const Taps& s, bool) {
    put8(dst, floats(s));
}
template <int error> ZENR_INLINE unsigned nearHalfway(const Taps& s) {
    return unsigned(_mm256_movemask_ps(orderedLanes(isZero(offHalfway<error>(s)))));
}
ZENR_INLINE unsigned smallerThan(const Taps& s, float threshold) {
    return unsigned(_mm256_movemask_ps(_mm256_cmp_ps(sizes(floats(s)), _mm256_set1_ps(threshold), _CMP_LT_OQ)));
}
#endif

// Bits of those of eight elements from x on that lie in [begin, end).
ZENR_INLINE unsigned within8(ptrdiff_t x, const RowBound& bound) {
    const ptrdiff_t before = bound.begin - x, after = x + 8 - bound.end;
    return 0xFFu >> (after < 0 ? 0 : after < 8 ? after : 8) & 0xFFu << (before < 0 ? 0 : before < 8 ? before : 8);
}

// Eight elements of a row pass. With `exempt`, op tells which need no test; with `edge`, those outside the bound's begin
// and end are zeros, which are not small.
template <bool exempt, int error, bool normal, bool edge, class Op>
ZENR_INLINE void roundTaps8(const Op& op, const RowBound& bound, float threshold, double* dst, ptrdiff_t x) {
    const Taps s = op.taps8(x);
    putTaps(dst + x, s, normal);
    const unsigned within = edge ? within8(x, bound) : 0xFF;
    const unsigned needed = exempt ? op.guarded8(x) & within : within;
    if constexpr (exempt && !Op::kInterpolates) {
        if (Op::kFewGuarded && !needed) return; // for the same groups in every row
    }
    const unsigned near = nearHalfway<error>(s) & needed;
    const unsigned small = error == kGuardedError ? smallerThan(s, threshold) & needed : 0;
    if (__builtin_expect((near | small) != 0, 0) && (near || !op.template zeros<8>(int(x))))
        settle<8>(op, dst, int(x), near, small);
}
template <bool exempt, int error, bool normal, class Op>
ZENR_INLINE void roundTapsOf(const Op& op, const RowBound& bound, double* __restrict dst, int begin, int end) {
    const float threshold = guardThreshold(bound.most);
    const auto group = [&](ptrdiff_t x) __attribute__((always_inline)) {
        roundTaps8<exempt, error, normal, false>(op, bound, threshold, dst, x);
    };
    if constexpr (Op::kInterpolates) {
        const auto plain = [&](ptrdiff_t x) __attribute__((always_inline)) {
            putTaps(dst + x, op.taps8(x), normal);
        };
        inGroupsWithin<8>(begin, end, bound.begin, bound.end, plain, group);
    } else {
        // Cubic rows are without their zeros already, but for fewer than sixteen at either end.
        const auto edge = [&](ptrdiff_t x) __attribute__((always_inline)) {
            roundTaps8<exempt, error, normal, true>(op, bound, threshold, dst, x);
        };
        const int first = end - begin > 16 ? begin + 16 : end, last = end - first > 16 ? end - 16 : first;
        inGroups<8>(begin, first, edge);
        inGroups<8>(first, last, group);
        inGroups<8>(last, end, edge);
    }
}
template <bool normal, class Op>
ZENR_INLINE void roundTapsAs(const Op& op, const RowBound& bound, Care care, double* __restrict dst, int begin,
                             int end) {
    if (care == Care::none)
        return inGroups<8>(
            begin, end, [&](ptrdiff_t x) __attribute__((always_inline)) { putTaps(dst + x, op.taps8(x), normal); });
    const bool close = isClose(bound);
    if constexpr (Op::kInterpolates) {
        if (care == Care::halfway)
            return close ? roundTapsOf<true, kHalfwayError, normal>(op, bound, dst, begin, end)
                         : roundTapsOf<false, kHalfwayError, normal>(op, bound, dst, begin, end);
    }
    close ? roundTapsOf<true, kGuardedError, normal>(op, bound, dst, begin, end)
          : roundTapsOf<false, kGuardedError, normal>(op, bound, dst, begin, end);
}

// Elements [begin, end) of a row pass, eight or more; begin and end of `bound` are those of the result. Where short
// weights need no test, no sum but 0 is below 2^-34 of the least element.
template <class Op>
ZENR_INLINE void roundTaps(const Op& op, const RowBound& bound, Care care, double* __restrict dst, int begin, int end) {
    if (bound.least >= 0x1p-90f && bound.most < 0x1p126f)
        roundTapsAs<true>(op, bound, care, dst, begin, end);
    else
        roundTapsAs<false>(op, bound, care, dst, begin, end);
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
        inGroupsWithin<16>(0, n, bound.begin, bound.end, plain, group);
    };
    if (care == Care::none) return inGroups<16>(0, n, plain);
    if constexpr (Op::kInterpolates) {
        if (care == Care::halfway)
            return each([&](int x) __attribute__((always_inline)) { roundHalfway16(op, dst, x); });
    }
    if (shortWeights) return each([&](int x) __attribute__((always_inline)) { roundExact16(op, dst, x); });
    const __m256 threshold = _mm256_set1_ps(guardThreshold(bound.most));
    if constexpr (Op::kInterpolates) {
        each([&](int x) __attribute__((always_inline)) { roundGuarded16<false>(op, bound, threshold, dst, x); });
    } else {
        roundGuarded16<true>(op, bound, threshold, dst, 0);
        if (n > 32)
            inGroups<16>(
                16, n - 16, [&](int x) __attribute__((always_inline)) {
                    roundGuarded16<false>(op, bound, threshold, dst, x);
                });
        roundGuarded16<true>(op, bound, threshold, dst, n - 16);
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
template <class Op, class Element>
ZENR_INLINE void roundRows(const Op& op, const RowBound&, Care, bool, Element* dst, int n) {
    roundRow(op, dst, n);
}
#endif

} // namespace
} // namespace ZENR_LEVEL
} // namespace zenr
