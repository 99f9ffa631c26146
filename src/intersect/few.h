// A leaf that few rays come to: its triangles side by side, one a lane, against one ray after the other. Rays that go apart
// leave most lanes of a register of rays empty, but a leaf has several triangles. Operation for operation as for one ray;
// all triangles are computed, and accepted in list order.
#pragma once
#include "intersect/constants.h"
#include "intersect/lanes.h"
#include "zenr.h"

namespace zenr {
namespace ZENR_LEVEL {

constexpr bool kFewRaysPay = kHalf >= 4; // two triangles at a time gain nothing

#if defined(__AVX2__)

// As many records as a register has doubles.
struct Row {
    Doubles nA, nB, pK, pA, pB, e1A, e1B, e2A, e2B;
    Ints k, a, b;      // of each triangle, to pick components by
    Bits proper;       // those that are not degenerate
    Doubles u, w, num; // what the rays of a shared origin have in common
};

// Turns four rows of four around within each quarter of the registers.
#if defined(__AVX512BW__)
typedef __m512 Words;
ZENR_INLINE void turn(Words a, Words b, Words c, Words d, Words (&out)[4]) {
    const __m512d ab = _mm512_castps_pd(_mm512_unpacklo_ps(a, b)), cd = _mm512_castps_pd(_mm512_unpacklo_ps(c, d));
    const __m512d AB = _mm512_castps_pd(_mm512_unpackhi_ps(a, b)), CD = _mm512_castps_pd(_mm512_unpackhi_ps(c, d));
    out[0] = _mm512_castpd_ps(_mm512_unpacklo_pd(ab, cd));
    out[1] = _mm512_castpd_ps(_mm512_unpackhi_pd(ab, cd));
    out[2] = _mm512_castpd_ps(_mm512_unpacklo_pd(AB, CD));
    out[3] = _mm512_castpd_ps(_mm512_unpackhi_pd(AB, CD));
}
#else
typedef __m256 Words;
ZENR_INLINE void turn(Words a, Words b, Words c, Words d, Words (&out)[4]) {
    const __m256d ab = _mm256_castps_pd(_mm256_unpacklo_ps(a, b)), cd = _mm256_castps_pd(_mm256_unpacklo_ps(c, d));
    const __m256d AB = _mm256_castps_pd(_mm256_unpackhi_ps(a, b)), CD = _mm256_castps_pd(_mm256_unpackhi_ps(c, d));
    out[0] = _mm256_castpd_ps(_mm256_unpacklo_pd(ab, cd));
    out[1] = _mm256_castpd_ps(_mm256_unpackhi_pd(ab, cd));
    out[2] = _mm256_castpd_ps(_mm256_unpacklo_pd(AB, CD));
    out[3] = _mm256_castpd_ps(_mm256_unpackhi_pd(AB, CD));
}
#endif

// The components of a vector that each lane asks for.
ZENR_INLINE Doubles pick(Ints which, __m256d xyz) {
#if defined(__AVX512BW__)
    return (Doubles)_mm512_permutexvar_pd((__m512i)which, _mm512_castpd256_pd512(xyz));
#else
    return (Doubles)_mm256_permutevar8x32_ps(_mm256_castpd_ps(xyz), (__m256i)which);
#endif
}

// The two bits of a word of flags at `shift`, as pick() wants them.
template <int Shift> ZENR_INLINE Ints component(Words words) {
#if defined(__AVX512BW__)
    const __m512i wide = _mm512_cvtepu32_epi64(_mm512_castsi512_si256(_mm512_castps_si512(words)));
    return (Ints)_mm512_and_si512(_mm512_srli_epi64(wide, Shift), _mm512_set1_epi64(3));
#else
    const __m256i wide = _mm256_cvtepu32_epi64(_mm256_castsi256_si128(_mm256_castps_si256(words)));
    const __m256i twice = _mm256_and_si256(
        Shift ? _mm256_srli_epi64(wide, Shift ? Shift - 1 : 0) : _mm256_slli_epi64(wide, 1), _mm256_set1_epi64x(6));
    return (Ints)_mm256_or_si256(_mm256_or_si256(twice, _mm256_slli_epi64(twice, 32)),
                                 _mm256_set1_epi64x(0x100000000ll));
#endif
}

// The records of `count` triangles of a list; lanes behind them repeat the first.
ZENR_INLINE void load(Row& r, const int* list, int count, const ZenrTriangleAccel* accel) {
    const float* record[kHalf];
    for (int i = 0; i < kHalf; ++i) record[i] = reinterpret_cast<const float*>(accel + list[i < count ? i : 0]);
    // Words 0 to 3 of all triangles, then 4 to 7: each half of a register holds all triangles' word.
    Words rows[4], out[4];
    for (int i = 0; i < 4; ++i) {
#if defined(__AVX512BW__)
        __m512 row = _mm512_castps128_ps512(_mm_loadu_ps(record[i]));
        row = _mm512_insertf32x4(row, _mm_loadu_ps(record[i + 4]), 1);
        row = _mm512_insertf32x4(row, _mm_loadu_ps(record[i] + 4), 2);
        rows[i] = _mm512_insertf32x4(row, _mm_loadu_ps(record[i + 4] + 4), 3);
#else
        rows[i] = _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(record[i])), _mm_loadu_ps(record[i] + 4), 1);
#endif
    }
    turn(rows[0], rows[1], rows[2], rows[3], out);
    const Ints axes = (Ints)out[0];
    r.proper = ~equal(axes, Ints{}) & kHalfLanes & ((Bits(1) << count) - 1);
    r.k = component<4>(out[0]);
    r.a = component<2>(out[0]);
    r.b = component<0>(out[0]);
    r.nA = toDoubles<0>((Floats)out[1]);
    r.pK = toDoubles<0>((Floats)out[2]);
    r.nB = toDoubles<0>((Floats)out[3]);
    r.pA = toDoubles<1>((Floats)out[0]);
    r.pB = toDoubles<1>((Floats)out[1]);
    r.e2A = toDoubles<1>((Floats)out[2]);
    r.e2B = toDoubles<1>((Floats)out[3]);
    // Words 8 and 9, two triangles a quarter.
    const auto pair = [&](int i) {
        return _mm_castpd_ps(_mm_loadh_pd(_mm_load_sd(reinterpret_cast<const double*>(record[i] + 8)),
                                          reinterpret_cast<const double*>(record[i + 1] + 8)));
    };
    const __m128 p01 = pair(0), p23 = pair(2);
#if defined(__AVX512BW__)
    const __m128 p45 = pair(4), p67 = pair(6);
    const __m256 low = _mm256_insertf128_ps(_mm256_castps128_ps256(p01), p45, 1);
    const __m256 high = _mm256_insertf128_ps(_mm256_castps128_ps256(p23), p67, 1);
    r.e1A = (Doubles)_mm512_cvtps_pd(_mm256_shuffle_ps(low, high, 0x88));
    r.e1B = (Doubles)_mm512_cvtps_pd(_mm256_shuffle_ps(low, high, 0xDD));
#else
    r.e1A = (Doubles)_mm256_cvtps_pd(_mm_shuffle_ps(p01, p23, 0x88));
    r.e1B = (Doubles)_mm256_cvtps_pd(_mm_shuffle_ps(p01, p23, 0xDD));
#endif
}

// The triangles that a ray meets inside.
template <class Search>
ZENR_INLINE Bits inside(const Row& r, __m256d toward, __m256d from, Doubles& det, Doubles& num, Doubles& beta,
                        Doubles& gamma) {
    const Doubles dA = pick(r.a, toward), dB = pick(r.b, toward), dK = pick(r.k, toward);
    det = r.nA * dA + r.nB * dB + dK;
    Doubles u = r.u, w = r.w;
    num = r.num;
    if (Search::kOwnOrigins) {
        const Doubles oB = pick(r.b, from);
        u = r.pA - pick(r.a, from);
        w = oB - r.pB;
        num = r.nB * (r.pB - oB) + r.nA * u + r.pK - pick(r.k, from);
    }
    const Doubles x = dA * num - u * det;
    const Doubles y = dB * num + w * det;
    beta = r.e2B * x - r.e2A * y;
    gamma = r.e1A * y - r.e1B * x;
    const Doubles alpha = det - beta - gamma;
    const Doubles zero = {};
    Bits bits = lessEqual(zero, alpha * beta) & lessEqual(zero, beta * gamma) & lessEqual(zero, alpha * gamma);
    if (Search::kGateDeterminant) bits &= ~less(absolute(det), all(double(kDeterminantGate)));
    return bits & r.proper;
}

// Tests up to so many triangles as a register has doubles for `rays`; returns the rays whose search ends here.
template <class Search, class T>
ZENR_INLINE typename T::Set testRow(const int* list, int count, const ZenrTriangleAccel* accel, T& tile,
                                    typename T::Set rays) {
    Row r;
    load(r, list, count, accel);
    if (!Search::kOwnOrigins) {
        const __m256d from = _mm256_loadu_pd(tile.sharedFrom);
        const Doubles oB = pick(r.b, from);
        r.u = r.pA - pick(r.a, from);
        r.w = oB - r.pB;
        r.num = r.nB * (r.pB - oB) + r.nA * r.u + r.pK - pick(r.k, from);
    }
    const float* const directions = reinterpret_cast<const float*>(tile.direction);
    const double* const origins = reinterpret_cast<const double*>(tile.from);
    float* const best = reinterpret_cast<float*>(tile.best);
    typename T::Set ended = 0;
    for (; rays; rays &= rays - 1) {
        const int ray = __builtin_ctzll(rays);
        const __m256d toward = _mm256_cvtps_pd(
            _mm_setr_ps(directions[ray], directions[T::kRays + ray], directions[2 * T::kRays + ray], 0));
        __m256d from = {};
        if (Search::kOwnOrigins)
            from = _mm256_setr_pd(origins[ray], origins[T::kRays + ray], origins[2 * T::kRays + ray], 0);
        Doubles det, num, beta, gamma;
        Bits bits = inside<Search>(r, toward, from, det, num, beta, gamma);
        if (!bits) continue;
        const Doubles quotient = num / det;
        for (; bits; bits &= bits - 1) {
            const int i = __builtin_ctz(bits);
            const float t = float(quotient[i]);
            if (!(t > 0)) continue;
            const int number = list[i];
            if (Search::kSegment) {
                if (!(t < 1.f)) continue;
                reinterpret_cast<int*>(tile.triangle)[ray] = number;
                ended |= typename T::Set(1) << ray;
                break;
            }
            if (Search::kMargin ? !(double(t) < double(best[ray]) - double(kNearerBy)) : !(t < best[ray])) continue;
            if (Search::kSuccessive) {
                bool seen = reinterpret_cast<const int*>(tile.previous)[ray] == number;
                for (int j = 0; j < tile.recentCount; ++j)
                    seen |= reinterpret_cast<const int*>(tile.recent[j])[ray] == number;
                if (seen) continue;
            }
            best[ray] = t;
            reinterpret_cast<float*>(tile.weight[1])[ray] = float(gamma[i] / det[i]);
            reinterpret_cast<float*>(tile.weight[0])[ray] = float(beta[i] / det[i]);
            reinterpret_cast<int*>(tile.triangle)[ray] = number;
        }
    }
    return ended;
}

#else

template <class Search, class T>
ZENR_INLINE typename T::Set testRow(const int*, int, const ZenrTriangleAccel*, T&, typename T::Set) {
    return 0;
}

#endif

} // namespace ZENR_LEVEL
} // namespace zenr
