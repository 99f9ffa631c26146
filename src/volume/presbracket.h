// Linear passes of 32f in single precision; the level whose instructions round up and down.
//
// The definition wants s0 + (s1 - s0)*f in extended precision, rounded to float. The difference is formed twice here,
// rounded down and up, and s0 + difference*f, fused, of either. Rounding is monotone: where both ends are the same
// float, so is everything between them. (The column pass is defined as s1*f + s0*(1 - f), the same number.) Voxels next
// to each other mostly are within a factor of two: their difference is exact, and there is but one end. Elements whose
// ends differ are summed in double, and so are those that infinities turn into NaNs.
//
// Extended precision rounds the exact value v to 64 bits first. That could turn a number that is not a half-way point h
// between two floats into one, but not for fractions from 2^-10 to 1. Let 2^m be the power of two at or below the
// larger operand.
// - If the difference is exact, it and both operands are multiples of 2^(m-24). v is one of 2^(m-57), below 2^(m+1),
//   and exact in 64 bits.
// - If it is not, it is not below 2^(m-1). An end is a multiple of 2^(m-57), unless s0 is not: then s0 is smaller than
//   2^(m-33). An end that is one is exact in 64 bits; what is defined, rounded as it is, does not pass it.
// - Else the difference is s1 at one end and the float next to s1 at the other. v is off the latter by more than
//   2^(m-36), which no rounding to 64 bits bridges. The former end is s1*f + s0, and v is further inside by s0*f. If it
//   is within 2^-64 of h without being h, s0 is about as large as s1*f - h, which is a multiple of 2^-48 of s1*f. So
//   s0*f is more than 2^-59 of h, while extended precision errs by less than 2^-61 of it: it does not come back to h.
//
// Smaller fractions are bracketed, too, by 2^-21 of them: that is more than the difference and extended precision err,
// unless it is lost beside s0.
#pragma once
#include "volume/presguard.h"

#if defined(ZENR_LEVEL_avx512)
#include "volume/pireslin.h"

namespace zenr {
namespace ZENR_LEVEL {
namespace {

struct Taps16 {
    __m512 first, second;
};
struct Ends {
    __m512 low, high; // of zeros, the latter's sign is right
};
ZENR_INLINE Ends interpolate16(const Taps16& t, __m512 low, __m512 high) {
    const __m512 down = _mm512_sub_round_ps(t.second, t.first, _MM_FROUND_TO_NEG_INF | _MM_FROUND_NO_EXC);
    const __m512 up = _mm512_sub_round_ps(t.second, t.first, _MM_FROUND_TO_POS_INF | _MM_FROUND_NO_EXC);
    return {_mm512_fmadd_ps(down, low, t.first), _mm512_fmadd_ps(up, high, t.first)};
}

// Sixteen sums in double and which of them are not certain to be right: those near a half-way point between two floats,
// unless nothing was rounded, what is no normal number, and what takes a weight outside the half-way test's reach
// (presguard.h has the proofs).
struct Settled {
    __m512 sums;
    __mmask16 open;
};
ZENR_INLINE Settled settle16(__m512 s0, __m512 s1, __m512 f) {
    const auto half = [&](__m256 a, __m256 b, __m256 w) __attribute__((always_inline)) {
        const __m512d first = _mm512_cvtps_pd(a);
        return Taps{_mm512_fmadd_pd(_mm512_sub_pd(_mm512_cvtps_pd(b), first), _mm512_cvtps_pd(w), first)};
    };
    const auto upper = [](__m512 v) __attribute__((always_inline)) {
        return _mm512_extractf32x8_ps(v, 1);
    };
    const Taps low = half(_mm512_castps512_ps256(s0), _mm512_castps512_ps256(s1), _mm512_castps512_ps256(f));
    const Taps high = half(upper(s0), upper(s1), upper(f));
    const __m512 sums =
        _mm512_insertf32x8(_mm512_castps256_ps512(_mm512_cvtpd_ps(low.all)), _mm512_cvtpd_ps(high.all), 1);
    const __m512 size0 = _mm512_abs_ps(s0), size1 = _mm512_abs_ps(s1), size = _mm512_abs_ps(sums);
    const __m512 scaled = _mm512_mul_ps(f, _mm512_set1_ps(1024));
    // Short weights, and taps within a factor of 2^17.
    __mmask16 exact = _mm512_cmp_ps_mask(scaled, _mm512_roundscale_ps(scaled, _MM_FROUND_TO_ZERO), _CMP_EQ_OQ);
    exact = _mm512_mask_cmp_ps_mask(exact, _mm512_max_ps(size0, size1),
                                    _mm512_mul_ps(_mm512_min_ps(size0, size1), _mm512_set1_ps(0x1p17f)), _CMP_LE_OQ);
    const unsigned near = nearHalfway<kHalfwayError>(low) | nearHalfway<kHalfwayError>(high) << 8;
    const __mmask16 normal = _mm512_mask_cmp_ps_mask(_mm512_cmp_ps_mask(size, _mm512_set1_ps(0x1p-126f), _CMP_GE_OQ),
                                                     size, _mm512_set1_ps(0x1p127f), _CMP_LE_OQ);
    const __mmask16 reached = _mm512_mask_cmp_ps_mask(_mm512_cmp_ps_mask(f, _mm512_set1_ps(0x1p-10f), _CMP_GE_OQ), f,
                                                      _mm512_set1_ps(1 - 0x1p-10f), _CMP_LE_OQ);
    return {sums, __mmask16(~(normal & (exact | (reached & ~near))))};
}

// Elements of a row, a bit for each, whose ends differ: those of them that have no NaN among their taps, which makes
// the result one, are computed in double, sixteen at a time. Tells how many.
template <class Op> __attribute__((noinline)) int settleRow(Op op, const uint64_t* differ, int n, float* dst) {
    constexpr int kMost = 256;
    alignas(64) int at[kMost + 16];
    alignas(64) float s0[kMost + 16], s1[kMost + 16], f[kMost + 16];
    int count = 0, all = 0;
    const __m512i lane = _mm512_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
    for (int x = 0; x < n; x += 16) {
        const __mmask16 near = __mmask16(differ[x / 64] >> x % 64);
        if (near) {
            const Taps16 t = op.taps(x);
            const __mmask16 lanes = _mm512_mask_cmp_ps_mask(near, t.first, t.second, _CMP_ORD_Q);
            const __m512i columns = _mm512_add_epi32(lane, _mm512_set1_epi32(x));
            _mm512_storeu_si512(at + count, _mm512_maskz_compress_epi32(lanes, columns));
            _mm512_storeu_ps(s0 + count, _mm512_maskz_compress_ps(lanes, t.first));
            _mm512_storeu_ps(s1 + count, _mm512_maskz_compress_ps(lanes, t.second));
            _mm512_storeu_ps(f + count, _mm512_maskz_compress_ps(lanes, op.fractions(x)));
            count += __builtin_popcount(lanes);
        }
        if (count <= kMost - 16 && x + 16 < n) continue;
        for (int i = 0; i < count; i += 16) {
            const Settled s = settle16(_mm512_load_ps(s0 + i), _mm512_load_ps(s1 + i), _mm512_load_ps(f + i));
            alignas(64) float sums[16];
            _mm512_store_ps(sums, s.sums);
            const int lanes = count - i < 16 ? count - i : 16;
            for (int k = 0; k < lanes; ++k) dst[at[i + k]] = sums[k];
            for (unsigned open = s.open & ((1u << lanes) - 1); open; open &= open - 1) {
                const int at0 = at[i + __builtin_ctz(open)];
                const Sum sum = op.sum(at0);
                dst[at0] = sum.residue == 0 ? float(sum.value) : float(op.exact(at0));
            }
        }
        all += count;
        count = 0;
    }
    return all;
}

// Sixteen of a row.
template <class Op> ZENR_INLINE __mmask16 bracket16(const Op& op, float* dst, ptrdiff_t x) {
    const Ends ends = op.ends(op.taps(x), x);
    _mm512_storeu_ps(dst + x, ends.high);
    return _mm512_cmp_ps_mask(ends.low, ends.high, _CMP_NEQ_UQ);
}

// Elements [0, n) of a row, at most kMostColumns; how many of them were summed in double. What op.taps reads is there for
// whole groups of sixteen.
template <class Op> ZENR_INLINE int bracketRow(const Op& op, float* __restrict dst, ptrdiff_t n) {
    uint64_t differ[16];
    uint64_t any = 0;
    ptrdiff_t x = 0;
    for (; x <= n - 64; x += 64) {
        const __mmask16 a = bracket16(op, dst, x), b = bracket16(op, dst, x + 16);
        const __mmask16 c = bracket16(op, dst, x + 32), d = bracket16(op, dst, x + 48);
        any |= differ[x / 64] = _mm512_kunpackd(_mm512_kunpackw(d, c), _mm512_kunpackw(b, a));
    }
    if (x < n) {
        uint64_t last = 0;
        int bit = 0;
        for (; x <= n - 16; x += 16, bit += 16) last |= uint64_t(bracket16(op, dst, x)) << bit;
        if (x < n) {
            const __mmask16 rest = __mmask16((1u << (n - x)) - 1);
            const Ends ends = op.ends(op.taps(x), x);
            _mm512_mask_storeu_ps(dst + x, rest, ends.high);
            last |= uint64_t(_mm512_mask_cmp_ps_mask(rest, ends.low, ends.high, _CMP_NEQ_UQ)) << bit;
        }
        any |= differ[(n - 1) / 64] = last;
    }
    return __builtin_expect(any != 0, 0) ? settleRow(op, differ, int(n), dst) : 0;
}

// A row pass: `reach` voxels from its window on hold all taps of a group, or more do where it is 0.
template <int reach> struct GroupTaps {
    const float* s;
    const BracketGroup* groups;
    const float* weights;

    float tap(int x, int k) const { return s[groups[x / 16].window + groups[x / 16].taps[k][x % 16]]; }
    Sum sum(int x) const { return linearSum(tap(x, 0), tap(x, 1), weights[x]); }
    long double exact(int x) const { return exactLine(tap(x, 0), tap(x, 1), weights[x]); }
    ZENR_INLINE Taps16 taps(ptrdiff_t x) const {
        const BracketGroup& g = groups[x / 16];
        const float* const window = s + g.window;
        const __m512i at0 = _mm512_load_si512(g.taps[0]), at1 = _mm512_load_si512(g.taps[1]);
        if constexpr (reach == 0) return {_mm512_i32gather_ps(at0, window, 4), _mm512_i32gather_ps(at1, window, 4)};
        const __m512 low = _mm512_loadu_ps(window);
        if constexpr (reach == 16) return {_mm512_permutexvar_ps(at0, low), _mm512_permutexvar_ps(at1, low)};
        const __m512 high = _mm512_loadu_ps(window + 16);
        return {_mm512_permutex2var_ps(low, at0, high), _mm512_permutex2var_ps(low, at1, high)};
    }
    ZENR_INLINE __m512 fractions(ptrdiff_t x) const { return _mm512_loadu_ps(weights + x); }
    ZENR_INLINE Ends ends(const Taps16& t, ptrdiff_t x) const {
        const BracketGroup& g = groups[x / 16];
        return interpolate16(t, _mm512_load_ps(g.low), _mm512_load_ps(g.high));
    }
};

// Passes over two rows, the sums as they are in the other levels' passes.
template <class Sums, bool column> struct RowTaps : Sums {
    __m512 low, high;
    RowTaps(const Sums& sums, const Bracket& w)
        : Sums(sums), low(_mm512_set1_ps(w.low)), high(_mm512_set1_ps(w.high)) {}
    ZENR_INLINE Taps16 taps(ptrdiff_t x) const {
        return {_mm512_loadu_ps(this->rows[0] + x), _mm512_loadu_ps(this->rows[1] + x)};
    }
    ZENR_INLINE __m512 fractions(ptrdiff_t) const { return _mm512_set1_ps(float(this->f)); }
    ZENR_INLINE Ends ends(const Taps16& t, ptrdiff_t) const {
        Ends e = interpolate16(t, low, high);
        // Two zeros below 0 are one below 0 there.
        if (column) {
            const __m512 both = _mm512_and_ps(t.first, t.second);
            e.high = _mm512_or_ps(e.high, _mm512_and_ps(both, _mm512_set1_ps(-0.f)));
        }
        return e;
    }
};

} // namespace
} // namespace ZENR_LEVEL
} // namespace zenr
#endif
