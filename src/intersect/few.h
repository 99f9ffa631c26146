// A leaf that few rays come to: its triangles side by side, one a lane, against one ray after the other. Rays that go apart
// leave most lanes of a register of rays empty, but a leaf has several triangles. Operation for operation as for one ray;
// all triangles are computed, and accepted in list order.
#pragma once
#include "intersect/constants.h"
#include "intersect/lanes.h"
#include "intersect/record.h"
#include "zenr.h"

namespace zenr {
namespace ZENR_LEVEL {

ZENR_INLINE int lowestOf(uint32_t set) {
    return __builtin_ctz(set);
}
ZENR_INLINE int lowestOf(uint64_t set) {
    return __builtin_ctzll(set);
}

// The three components of a vector, and a fourth, for each lane to pick from.
#if defined(__AVX2__)
typedef __m256d Components;
ZENR_INLINE Components componentsOf(float x, float y, float z) {
    return _mm256_cvtps_pd(_mm_setr_ps(x, y, z, 0));
}
ZENR_INLINE Components componentsOf(double x, double y, double z) {
    return _mm256_setr_pd(x, y, z, 0);
}
ZENR_INLINE Components componentsAt(const float* at) {
    return _mm256_cvtps_pd(_mm_blend_ps(_mm_loadu_ps(at), _mm_setzero_ps(), 8)); // another float stands behind them
}
#else
struct Components {
    double x[4];
};
ZENR_INLINE Components componentsOf(double x, double y, double z) {
    return {{x, y, z, 0}};
}
ZENR_INLINE Components componentsAt(const float* at) {
    return componentsOf(at[0], at[1], at[2]);
}
#endif

ZENR_INLINE Doubles pick(Ints which, const Components& x) {
#if defined(__AVX512BW__)
    return (Doubles)_mm512_permutexvar_pd((__m512i)which, _mm512_castpd256_pd512(x));
#elif defined(__AVX2__)
    return (Doubles)_mm256_permutevar8x32_ps(_mm256_castpd_ps(x), (__m256i)which);
#else
    return Doubles{x.x[which[0]], x.x[which[1]]};
#endif
}

// The axis that each triangle's flags name at `shift`, as pick() wants it.
template <int Shift> ZENR_INLINE Ints axisOf(Ints flags) {
#if defined(__AVX512BW__)
    const __m512i wide = _mm512_cvtepu32_epi64(_mm512_castsi512_si256((__m512i)flags));
    return (Ints)_mm512_and_si512(_mm512_srli_epi64(wide, Shift), _mm512_set1_epi64(3));
#elif defined(__AVX2__)
    // A double is two words.
    const __m256i wide = _mm256_cvtepu32_epi64(_mm256_castsi256_si128((__m256i)flags));
    const __m256i axis = _mm256_and_si256(_mm256_srli_epi64(wide, Shift), _mm256_set1_epi64x(3));
    const __m256i lower = _mm256_slli_epi64(axis, 1), upper = _mm256_slli_epi64(axis, 33);
    return (Ints)_mm256_or_si256(_mm256_or_si256(lower, upper), _mm256_set1_epi64x(1ll << 32));
#else
    return (flags >> Shift) & all(int32_t(3));
#endif
}

// As many records as a register has doubles.
struct Row {
    Doubles nA, nB, pK, pA, pB, e1A, e1B, e2A, e2B;
    Ints k, a, b;      // for pick()
    Bits proper;       // the triangles that are not degenerate
    Doubles u, w, num; // what the rays of a shared origin have in common
};

// The first records of a list; lanes behind `count` repeat the first, and are never proper.
ZENR_INLINE void load(Row& r, const int* list, int count, const ZenrTriangleAccel* accel) {
    const float* record[kHalf];
    for (int i = 0; i < kHalf; ++i) record[i] = reinterpret_cast<const float*>(accel + list[i < count ? i : 0]);
    // Words 0 to 3 of all triangles in the lower half of the registers, 4 to 7 in the upper.
    Floats word04, word15, word26, word37;
    turnRows([&](int lane) { return _mm_loadu_ps(record[lane % kHalf] + lane / kHalf * 4); }, word04, word15, word26,
             word37);
    const Ints flags = (Ints)word04;
    r.nA = toDoubles<0>(word15);
    r.pK = toDoubles<0>(word26);
    r.nB = toDoubles<0>(word37);
    r.pA = toDoubles<1>(word04);
    r.pB = toDoubles<1>(word15);
    r.e2A = toDoubles<1>(word26);
    r.e2B = toDoubles<1>(word37);
    const auto lastWords = [&](int i) {
        const __m128d one = _mm_load_sd(reinterpret_cast<const double*>(record[i] + 8));
        return _mm_castpd_ps(_mm_loadh_pd(one, reinterpret_cast<const double*>(record[i + 1] + 8)));
    };
#if defined(__AVX512BW__)
    const __m256 low = _mm256_insertf128_ps(_mm256_castps128_ps256(lastWords(0)), lastWords(4), 1);
    const __m256 high = _mm256_insertf128_ps(_mm256_castps128_ps256(lastWords(2)), lastWords(6), 1);
    r.e1A = (Doubles)_mm512_cvtps_pd(_mm256_shuffle_ps(low, high, 0x88));
    r.e1B = (Doubles)_mm512_cvtps_pd(_mm256_shuffle_ps(low, high, 0xDD));
#elif defined(__AVX2__)
    const __m128 low = lastWords(0), high = lastWords(2);
    r.e1A = (Doubles)_mm256_cvtps_pd(_mm_shuffle_ps(low, high, 0x88));
    r.e1B = (Doubles)_mm256_cvtps_pd(_mm_shuffle_ps(low, high, 0xDD));
#else
    const Floats last = (Floats)lastWords(0);
    r.e1A = Doubles{last[0], last[2]};
    r.e1B = Doubles{last[1], last[3]};
#endif
    r.proper = ~equal(flags, Ints{}) & kHalfLanes & ((Bits(1) << count) - 1);
    r.k = axisOf<4>(flags);
    r.a = axisOf<2>(flags);
    r.b = axisOf<0>(flags);
}

// What is the same for the rays of a shared origin.
ZENR_INLINE void share(Row& r, const double (&origin)[4]) {
    const Components from = componentsOf(origin[0], origin[1], origin[2]);
    const Doubles oB = pick(r.b, from);
    r.u = r.pA - pick(r.a, from);
    r.w = oB - r.pB;
    r.num = numeratorOf(r, r.u, oB, pick(r.k, from));
}

// Tests a row, whose triangles are numbered as in `list`, for one ray after the other; returns the rays whose search ends
// here. Where the rays lie and what they have found is for `Rays` to tell.
template <class Search, class Rays, class Set>
ZENR_INLINE Set testRow(const Row& r, const int* list, Rays&& rays, Set set) {
    Set ended = 0;
    for (; set; set &= set - 1) {
        const int ray = lowestOf(set);
        const Components toward = rays.toward(ray);
        const Doubles dA = pick(r.a, toward), dB = pick(r.b, toward), dK = pick(r.k, toward);
        Solution s;
        s.det = r.nA * dA + r.nB * dB + dK;
        s.num = r.num;
        Doubles u = r.u, w = r.w;
        if (Search::kOwnOrigins) {
            const Components from = rays.fromOf(ray);
            const Doubles oB = pick(r.b, from);
            u = r.pA - pick(r.a, from);
            w = oB - r.pB;
            s.num = numeratorOf(r, u, oB, pick(r.k, from));
        }
        Bits bits = r.proper & insideEdges(r, dA, dB, u, w, s);
        if (Search::kGateDeterminant) bits &= ~less(absolute(s.det), all(double(kDeterminantGate)));
        if (!bits) continue;

        const Doubles quotient = s.num / s.det;
        for (; bits; bits &= bits - 1) {
            const int i = __builtin_ctz(bits);
            const float t = float(quotient[i]);
            if (!(t > 0)) continue;
            if constexpr (Search::kSegment) {
                if (!(t < 1.f)) continue;
                rays.block(ray, list[i]);
                ended |= Set(1) << ray;
                break;
            }
            const float best = rays.bestOf(ray);
            if (Search::kMargin ? !(double(t) < double(best) - double(kNearerBy)) : !(t < best)) continue;
            if constexpr (Search::kSuccessive) {
                if (rays.passesOver(ray, list[i])) continue;
            }
            rays.take(ray, t, float(s.beta[i] / s.det[i]), float(s.gamma[i] / s.det[i]), list[i]);
        }
    }
    return ended;
}

// As many records as a register has floats, for a quick test: the test in single precision, with a bound on all errors,
// turns away rays that surely pass outside a triangle, because one weight is surely positive and another surely negative,
// or come away from its plane.
struct QuickRow : FloatRecords {
    Ints k, a, b;                       // the lowest two bits count
    Floats perApart, error;             // of a weight: so much more for each unit of distance
    Floats perApartBehind, errorBehind; // of the product of the distance's numerator and denominator
};

constexpr float kBelieved = 1e11f; // from there on a bound may be wrong itself

// What the rays' components are at most, in size; infinite where one is NaN.
struct Reach {
    float direction, origin;
};

ZENR_INLINE void load(QuickRow& r, const int* list, int count, const ZenrTriangleAccel* accel, const Reach& reach) {
    load(static_cast<FloatRecords&>(r), list, count, accel);
    r.k = r.flags >> 4;
    r.a = r.flags >> 2;
    r.b = r.flags;

    // With e = 2^-24, R = `steep` and `apart` the three sizes of u, w and q together, each within 1e of its own:
    // the denominator is within 3e of R, the numerator within 4e of normal * apart, x and y within 12e of R * apart, beta
    // and gamma within 16e of their edges times that, alpha within 20e of all edges times that and 6e of R; 2^-19 is 32e,
    // 2^-20 is 16e. The product of numerator and denominator is within 8e of normal * R * apart. The test in double adds
    // what is lost where coordinates along k cancel. What is added of `bulk` is for underflows; and where anything could
    // overflow it makes the bound too large to be believed (below), as do NaN and records of other axes.
    const Floats one = all(1.f), direction = all(reach.direction);
    const Floats normal = absolute(r.nA) + absolute(r.nB) + one;
    const Floats edges = absolute(r.e1A) + absolute(r.e1B) + (absolute(r.e2A) + absolute(r.e2B));
    const Floats lost = (absolute(r.pK) + all(reach.origin)) * all(0x1p-48f);
    const Floats steep = normal * direction, bulk = (edges + one) * (steep + normal);
    r.perApart = about(edges * steep, all(0x1p-19f), bulk * all(1e-25f));
    r.error = about(steep, all(0x1p-20f), about(edges * direction, lost, bulk * all(1e-30f)));
    r.error = select(r.isX | r.isY | r.isZ, r.error, all(__builtin_inff()));
    r.perApartBehind = normal * steep * all(0x1p-19f);
    r.errorBehind = about(steep, lost, bulk * all(1e-30f));
}

ZENR_INLINE Floats pick(Ints which, const float* at) {
#if defined(__AVX512BW__)
    return (Floats)_mm512_permutevar_ps(_mm512_broadcast_f32x4(_mm_loadu_ps(at)), (__m512i)which);
#elif defined(__AVX2__)
    return (Floats)_mm256_permutevar_ps(_mm256_broadcast_ps(reinterpret_cast<const __m128*>(at)), (__m256i)which);
#else
    return Floats{at[which[0] & 3], at[which[1] & 3], at[which[2] & 3], at[which[3] & 3]};
#endif
}

// The triangles that a ray may hit.
ZENR_INLINE Bits inQuestion(const QuickRow& r, const float* origin, const float* toward) {
    const Floats dA = pick(r.a, toward), dB = pick(r.b, toward), dK = pick(r.k, toward);
    const Floats u = r.pA - pick(r.a, origin), w = pick(r.b, origin) - r.pB, q = r.pK - pick(r.k, origin);
    const Floats det = about(r.nA, dA, about(r.nB, dB, dK));
    const Floats num = about(r.nA, u, about(r.nB, -w, q));
    const Floats x = about(dA, num, -(u * det));
    const Floats y = about(dB, num, w * det);
    const Floats beta = about(r.e2B, x, -(r.e2A * y));
    const Floats gamma = about(r.e1A, y, -(r.e1B * x));
    const Floats alpha = det - beta - gamma;
    const Floats low = smaller(smaller(alpha, beta), gamma);
    const Floats high = larger(larger(alpha, beta), gamma);
    const Floats apart = absolute(u) + absolute(w) + absolute(q);
    const Floats error = about(r.perApart, apart, r.error);
    const Bits outside = less(low, -error) & less(error, high);
    // A negative quotient is no distance, whatever it is.
    const Bits behind = less(num * det, -about(r.perApartBehind, apart, r.errorBehind));
    return r.proper & ~((outside | behind) & less(error, all(kBelieved)));
}

} // namespace ZENR_LEVEL
} // namespace zenr
