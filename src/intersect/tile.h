// Sixty-four rays through the tree together: one walk, one stack, a bit a ray. Every ray keeps its own interval, best
// distance and stop rule, visits the nodes that it would visit alone, in that order, and meets the triangles of a leaf
// in list order; so it ends with the bits that the one-ray path (traverse.h) gives it.
//
// What makes it fast: nodes and triangles are fetched once for all rays; bounds on the intervals of all rays decide most
// nodes without looking at any ray; a test in single precision with a proven error bound turns most triangles away before
// the test in double. (Wald and others, "Interactive Rendering with Coherent Ray Tracing", 2001; Reshetov and others,
// "Multi-Level Ray Tracing Algorithm", 2005.)
#pragma once
#include <float.h>
#include <stdint.h>

#include "intersect/constants.h"
#include "intersect/few.h"
#include "intersect/lanes.h"
#include "kdtree/kdtree.h"
#include "zenr.h"

namespace zenr {
namespace ZENR_LEVEL {

// A set of rays of a tile, one bit a ray.
template <int Rays> struct SetOf { typedef uint64_t Type; };
template <> struct SetOf<16> { typedef uint32_t Type; };

template <class Set> ZENR_INLINE Bits part(Set set, int v) {
    return Bits(set >> (v * kLanes)) & kAllLanes;
}
template <class Set> ZENR_INLINE Set whole(Bits bits, int v) {
    return Set(bits) << (v * kLanes);
}

// Four entries where three would do, so that the two-bit axis numbers of a malformed node or record stay inside.
template <int Rays> struct Tile {
    typedef typename SetOf<Rays>::Type Set;
    static constexpr int kRays = Rays;
    static constexpr int kVectors = Rays / kLanes;

    Floats direction[4][kVectors];
    Floats inverse[4][kVectors]; // reciprocal of the direction, or its stand-in
    Floats tmin[kVectors], tmax[kVectors];
    Floats best[kVectors]; // running best distance
    Floats weight[2][kVectors];
    Ints triangle[kVectors];
    Set negative[4]; // rays whose upper child comes first
    float reach;     // largest direction component of any ray; infinite where one is NaN
    float away;      // the same of origins of their own
    // The origin that all rays share, or each ray's own: for plane decisions, and for the triangle test.
    float sharedOrigin[4];
    double sharedFrom[4];
    Floats origin[4][kVectors];
    Doubles from[4][kVectors][2];
    // Of successive searches: what the layers before hit.
    Ints previous[kVectors];
    Ints recent[kRing][kVectors];
    int recentCount;
};

// ---- What differs between the searches ----------------------------------------------------------------------------

struct NearestTile {
    static constexpr float kTolerance = kSplitTolerance;
    static constexpr bool kOwnOrigins = true, kGateDeterminant = true, kMargin = true, kSegment = false,
                          kSuccessive = false;
};
struct EyeTile {
    static constexpr float kTolerance = kSplitTolerance;
    static constexpr bool kOwnOrigins = false, kGateDeterminant = false, kMargin = false, kSegment = false,
                          kSuccessive = false;
};
struct SegmentTile {
    static constexpr float kTolerance = kSplitTolerance;
    static constexpr bool kOwnOrigins = false, kGateDeterminant = false, kMargin = false, kSegment = true,
                          kSuccessive = false;
};
struct SuccessiveTile {
    static constexpr float kTolerance = kSplitToleranceMultiple;
    static constexpr bool kOwnOrigins = true, kGateDeterminant = false, kMargin = false, kSegment = false,
                          kSuccessive = true;
};

// ---- Triangles ----------------------------------------------------------------------------------------------------

// A record in double, and what the rays of a shared origin have in common.
struct Triangle {
    int number, k, a, b;
    double nA, nB, pK, pA, pB, e1A, e1B, e2A, e2B;
    double u, w, num;
};

template <class Search, class T>
ZENR_INLINE void load(Triangle& r, const ZenrTriangleAccel& from, int number, const T& tile) {
    r.number = number;
    r.k = int(from.axes >> 4) & 3;
    r.a = int(from.axes >> 2) & 3;
    r.b = int(from.axes) & 3;
    r.nA = from.nA;
    r.nB = from.nB;
    r.pK = from.pK;
    r.pA = from.pA;
    r.pB = from.pB;
    r.e1A = from.e1A;
    r.e1B = from.e1B;
    r.e2A = from.e2A;
    r.e2B = from.e2B;
    if (!Search::kOwnOrigins) {
        r.u = r.pA - tile.sharedFrom[r.a];
        r.w = tile.sharedFrom[r.b] - r.pB;
        r.num = r.nB * (r.pB - tile.sharedFrom[r.b]) + r.nA * r.u + r.pK - tile.sharedFrom[r.k];
    }
}

// Numerator and denominator of a half's distances and weights.
struct Solution {
    Doubles num, det, beta, gamma;
};

// The rays of a half that hit the triangle's plane inside it; operation for operation as for one ray.
template <class Search, int Half, class T>
ZENR_INLINE Bits inside(const Triangle& r, const T& tile, int v, Solution& s) {
    const Doubles dA = toDoubles<Half>(tile.direction[r.a][v]), dB = toDoubles<Half>(tile.direction[r.b][v]),
                  dK = toDoubles<Half>(tile.direction[r.k][v]);
    s.det = all(r.nA) * dA + all(r.nB) * dB + dK;
    Doubles u = all(r.u), w = all(r.w);
    s.num = all(r.num);
    if (Search::kOwnOrigins) {
        const Doubles oB = tile.from[r.b][v][Half];
        u = all(r.pA) - tile.from[r.a][v][Half];
        w = oB - all(r.pB);
        s.num = all(r.nB) * (all(r.pB) - oB) + all(r.nA) * u + all(r.pK) - tile.from[r.k][v][Half];
    }
    const Doubles x = dA * s.num - u * s.det;
    const Doubles y = dB * s.num + w * s.det;
    s.beta = all(r.e2B) * x - all(r.e2A) * y;
    s.gamma = all(r.e1A) * y - all(r.e1B) * x;
    const Doubles alpha = s.det - s.beta - s.gamma;
    const Doubles zero = {};
    Bits bits = lessEqual(zero, alpha * s.beta) & lessEqual(zero, s.beta * s.gamma) & lessEqual(zero, alpha * s.gamma);
    if (Search::kGateDeterminant) bits &= ~less(absolute(s.det), all(double(kDeterminantGate)));
    return bits;
}

// The three scaled weights of rays of a shared origin are linear in the direction. In single precision with a bound on
// all errors, they tell most rays that pass outside: one weight is surely positive and another surely negative.
struct alignas(16) Outline {
    float alpha[4], beta[4], gamma[4]; // factors of the direction's components a, b, k; 0
    float error;
    int a, b, k;
};

typedef double FourDoubles __attribute__((vector_size(32), may_alias));

ZENR_INLINE __m128 narrow(FourDoubles a) {
#if defined(__AVX2__)
    return _mm256_cvtpd_ps((__m256d)a);
#else
    const __m128d low = {a[0], a[1]}, high = {a[2], a[3]};
    return _mm_movelh_ps(_mm_cvtpd_ps(low), _mm_cvtpd_ps(high));
#endif
}

ZENR_INLINE float sumOf(__m128 a) {
    const __m128 pairs = _mm_add_ps(a, _mm_movehl_ps(a, a));
    return _mm_cvtss_f32(_mm_add_ss(pairs, _mm_shuffle_ps(pairs, pairs, 1)));
}

ZENR_INLINE void outline(Outline& o, const Triangle& r, const ZenrTriangleAccel& record, float reach) {
    const auto four = [](double x) { return FourDoubles{x, x, x, x}; };
    const FourDoubles n = {r.nA, r.nB, 1, 0};
    const FourDoubles x = FourDoubles{r.num, 0, 0, 0} - four(r.u) * n;
    const FourDoubles y = FourDoubles{0, r.num, 0, 0} + four(r.w) * n;
    const FourDoubles beta = four(r.e2B) * x - four(r.e2A) * y;
    const FourDoubles gamma = four(r.e1A) * y - four(r.e1B) * x;
    const __m128 fA = narrow(n - beta - gamma), fB = narrow(beta), fC = narrow(gamma);
    _mm_store_ps(o.alpha, fA);
    _mm_store_ps(o.beta, fB);
    _mm_store_ps(o.gamma, fC);
    // Single precision: a factor is rounded, multiplied and added twice, four roundings of at most 2^-24 of the sum of
    // the products' sizes; doubled, that is 2^-21. Double: fewer than twenty roundings of 2^-53 in the factors or in the
    // test itself, of the sizes that these cancel from. Underflows are below the last terms.
    const __m128 size = _mm_castsi128_ps(_mm_set1_epi32(0x7FFFFFFF));
    const float factors =
        sumOf(_mm_max_ps(_mm_max_ps(_mm_and_ps(fA, size), _mm_and_ps(fB, size)), _mm_and_ps(fC, size)));
    const float edges = sumOf(_mm_and_ps(_mm_loadu_ps(&record.e2A), size));
    const float normal = __builtin_fabsf(record.nA) + __builtin_fabsf(record.nB) + 1.f;
    const float terms =
        __builtin_fabsf(float(r.num)) + (__builtin_fabsf(float(r.u)) + __builtin_fabsf(float(r.w))) * normal;
    const float error = reach * (factors * 0x1p-21f + (edges * terms + normal) * 0x1p-46f + 1e-37f) + 1e-37f;
    // Anything that could overflow is left to the test in double, and so is NaN, which shows in `terms` or `edges`.
    o.error = error < 1e23f ? error : __builtin_inff();
    o.a = r.a;
    o.b = r.b;
    o.k = r.k;
}

template <class T> ZENR_INLINE Bits mayBeInside(const Outline& o, const T& tile, int v) {
    const Floats dA = tile.direction[o.a][v], dB = tile.direction[o.b][v], dK = tile.direction[o.k][v];
    const Floats alpha = all(o.alpha[0]) * dA + all(o.alpha[1]) * dB + all(o.alpha[2]) * dK;
    const Floats beta = all(o.beta[0]) * dA + all(o.beta[1]) * dB + all(o.beta[2]) * dK;
    const Floats gamma = all(o.gamma[0]) * dA + all(o.gamma[1]) * dB + all(o.gamma[2]) * dK;
    // A NaN weight comes with an infinite error bound.
    const Floats low = smaller(smaller(alpha, beta), gamma);
    const Floats high = larger(larger(alpha, beta), gamma);
    return ~(less(low, all(-o.error)) & less(all(o.error), high)) & kAllLanes;
}

// The same for rays with their own origins: the test itself in single precision, and a bound on its error.
struct OwnOutline {
    const ZenrTriangleAccel* record;
    float error;
};

ZENR_INLINE void outline(OwnOutline& o, const ZenrTriangleAccel& r, float reach, float away) {
    o.record = &r;
    const __m128 size = _mm_castsi128_ps(_mm_set1_epi32(0x7FFFFFFF));
    const float edges = sumOf(_mm_and_ps(_mm_loadu_ps(&r.e2A), size));
    const float normal = __builtin_fabsf(r.nA) + __builtin_fabsf(r.nB) + 1.f;
    // Bounds the sum of the sizes of the three components from an origin to the triangle's reference point.
    const float apart = __builtin_fabsf(r.pA) + __builtin_fabsf(r.pB) + __builtin_fabsf(r.pK) + 3.f * away;
    // With e = 2^-24, and origins that are rounded themselves: those components are within 2e of their size, the
    // numerator of the distance within 5e, x and y within 7e of reach * normal * 2 * apart, beta and gamma within 9e,
    // alpha within 11e. 2^-20 is 16e. The last term is for underflows.
    const float scale = reach * normal;
    const float error =
        (2.f * edges * scale * apart + scale) * 0x1p-20f + (edges + 1.f) * (reach + apart + 1.f) * 1e-43f;
    // Anything that could overflow is left to the test in double, and so is NaN.
    const bool fine = error < 1e23f && normal * (apart + 1.f) * (reach + 1.f) < 1e30f;
    o.error = fine ? error : __builtin_inff();
}

template <class T> ZENR_INLINE Bits mayBeInside(const OwnOutline& o, const T& tile, int v) {
    const ZenrTriangleAccel& r = *o.record;
    const int k = int(r.axes >> 4) & 3, a = int(r.axes >> 2) & 3, b = int(r.axes) & 3;
    const Floats dA = tile.direction[a][v], dB = tile.direction[b][v];
    const Floats u = all(r.pA) - tile.origin[a][v], w = tile.origin[b][v] - all(r.pB);
    const Floats nA = all(r.nA), nB = all(r.nB);
    const Floats det = nA * dA + nB * dB + tile.direction[k][v];
    const Floats num = nA * u - nB * w + (all(r.pK) - tile.origin[k][v]);
    const Floats x = dA * num - u * det;
    const Floats y = dB * num + w * det;
    const Floats beta = all(r.e2B) * x - all(r.e2A) * y;
    const Floats gamma = all(r.e1A) * y - all(r.e1B) * x;
    const Floats alpha = det - beta - gamma;
    const Floats low = smaller(smaller(alpha, beta), gamma);
    const Floats high = larger(larger(alpha, beta), gamma);
    return ~(less(low, all(-o.error)) & less(all(o.error), high)) & kAllLanes;
}

template <bool Own> struct OutlineOf { typedef Outline Type; };
template <> struct OutlineOf<true> { typedef OwnOutline Type; };

// Tests a triangle for the rays of a vector that `bits` names, and takes its hits; returns them.
template <class Search, class T> ZENR_INLINE Bits takeHits(const Triangle& r, T& tile, int v, Bits bits) {
    Solution low = {}, high = {};
    Bits hit = 0;
    // A half without a ray in question is left out; its results are not looked at.
    const bool lowUsed = bits & kHalfLanes, highUsed = bits >> kHalf;
    if (lowUsed) hit = inside<Search, 0>(r, tile, v, low);
    if (highUsed) hit |= inside<Search, 1>(r, tile, v, high) << kHalf;
    hit &= bits;
    if (!hit) return 0;
    if (!lowUsed) low = high;
    if (!highUsed) high = low;

    const Floats t = toFloats(low.num / low.det, high.num / high.det);
    hit &= less(Floats{}, t);
    if (Search::kMargin) {
        const Doubles margin = all(double(kNearerBy));
        const Floats best = tile.best[v];
        hit &= less(toDoubles<0>(t), toDoubles<0>(best) - margin) | less(toDoubles<1>(t), toDoubles<1>(best) - margin)
                                                                        << kHalf;
    } else if (Search::kSegment) {
        hit &= less(t, all(1.f));
    } else {
        hit &= less(t, tile.best[v]);
    }
    if (Search::kSuccessive) {
        const Ints number = all(int32_t(r.number));
        hit &= ~equal(tile.previous[v], number);
        for (int i = 0; i < tile.recentCount; ++i) hit &= ~equal(tile.recent[i][v], number);
    }
    if (!hit) return 0;
    tile.triangle[v] = select(hit, all(int32_t(r.number)), tile.triangle[v]);
    if (Search::kSegment) return hit;
    tile.best[v] = select(hit, t, tile.best[v]);
    tile.weight[1][v] = select(hit, toFloats(low.gamma / low.det, high.gamma / high.det), tile.weight[1][v]);
    tile.weight[0][v] = select(hit, toFloats(low.beta / low.det, high.beta / high.det), tile.weight[0][v]);
    return hit;
}

// Asks for what a visit to a node reads next: its children, its list, or a record.
ZENR_INLINE void prefetchBelow(const ZenrKDTreeNode* node, const ZenrTriangleAccel* accel) {
    const uint32_t w0 = node->w0, w1 = node->w1;
    const char* const here = reinterpret_cast<const char*>(node);
    const char* at = here + (w0 & kChildOffsetMask);
    if (w0 & kLeafBit) {
        const bool inlined = w1 & kInlineBit;
        const uint32_t number = (w1 & 0x7FFFFFFCu) >> 2;
        if (inlined && (w1 & kInlineCountMask) != 3) __builtin_prefetch(accel + (w0 & 0x7FFFFFFFu));
        at = inlined ? reinterpret_cast<const char*>(accel + number) : here + (0u - (w0 & kListOffsetMask));
    }
    __builtin_prefetch(at);
}

// Whether a leaf's triangles are better taken side by side than its rays; where both are as good is flat.
template <class Set> ZENR_INLINE bool fewFor(Set rays, int triangles) {
    const int n = sizeof rays > 4 ? __builtin_popcountll(rays) : __builtin_popcount(uint32_t(rays));
    return kFewRaysPay && n <= triangles + 6;
}

constexpr int kBatch = 8; // triangles that the quick test takes at a time

// The triangles of a leaf in list order; returns the rays whose search ends here.
template <class Search, class T>
ZENR_INLINE typename T::Set testLeaf(const ZenrKDTreeNode* leaf, const ZenrTriangleAccel* accel, T& tile,
                                     typename T::Set active) {
    const uint32_t w0 = leaf->w0, w1 = leaf->w1;
    int inlined[3];
    const int* list = inlined;
    uint32_t count = w1;
    if (w1 & kInlineBit) {
        count = w1 & kInlineCountMask;
        const int base = int((w1 & 0x7FFFFFFCu) >> 2);
        const int first = int(w0 & 0x7FFFFFFFu);
        inlined[0] = count == 3 ? base - (first >> 16) : first;
        inlined[1] = base;
        inlined[2] = base + (first & 0xFFFF);
    } else {
        const uint32_t forward = 0u - (w0 & kListOffsetMask);
        list = reinterpret_cast<const int*>(reinterpret_cast<const char*>(leaf) + forward);
    }
    const typename T::Set before = active;
    for (uint32_t done = 0; done < count; done += kBatch) {
        const int batch = count - done < uint32_t(kBatch) ? int(count - done) : kBatch;
        // First the quick test, without a branch that depends on a ray, so that the processor works on several triangles
        // at a time. For a packet with its own origins its error bound costs as much as it saves.
        typename T::Set inQuestion[kBatch];
        typename OutlineOf<Search::kOwnOrigins>::Type outlines[kBatch];
        for (int i = 0; i < batch; ++i) {
            __builtin_prefetch(&accel[list[i]].axes);
            __builtin_prefetch(&accel[list[i]].e1B);
        }
        if (fewFor(active, batch)) {
            for (int i = 0; i < batch && active; i += kHalf)
                active &= ~testRow<Search>(list + i, batch - i < kHalf ? batch - i : kHalf, accel, tile, active);
            if (!active) break;
            list += batch;
            continue;
        }
        constexpr bool kQuick = !Search::kOwnOrigins || T::kRays > 16;
        for (int i = 0; kQuick && i < batch; ++i) {
            const ZenrTriangleAccel& record = accel[list[i]];
            if constexpr (Search::kOwnOrigins) {
                outline(outlines[i], record, tile.reach, tile.away);
            } else {
                Triangle r;
                load<Search>(r, record, list[i], tile);
                outline(outlines[i], r, record, tile.reach);
            }
            inQuestion[i] = 0;
        }
        for (int v = 0; kQuick && v < T::kVectors; ++v) {
            const Bits bits = part(active, v);
            if (!bits) continue;
            for (int i = 0; i < batch; ++i)
                inQuestion[i] |= whole<typename T::Set>(bits & mayBeInside(outlines[i], tile, v), v);
        }
        for (int i = 0; i < batch; ++i) {
            const typename T::Set rays = kQuick ? inQuestion[i] & active : active;
            const int j = list[i];
            if (!rays || accel[j].axes == 0) continue;
            Triangle r;
            load<Search>(r, accel[j], j, tile);
            for (int v = 0; v < T::kVectors; ++v) {
                const Bits bits = part(rays, v);
                if (!bits) continue;
                const Bits hit = takeHits<Search>(r, tile, v, bits);
                if (Search::kSegment) active &= ~whole<typename T::Set>(hit, v);
            }
        }
        if (Search::kSegment && !active) break;
        list += batch;
    }
    return before & ~active;
}

// ---- The walk -----------------------------------------------------------------------------------------------------

struct Span {
    float low, high;
};

ZENR_INLINE float smallerOf(float a, float b) {
    return a < b ? a : b;
}
ZENR_INLINE float largerOf(float a, float b) {
    return a > b ? a : b;
}

// Bounds over the rays of a walk. Rounding is monotone, so that what is computed from bounds bounds what is computed
// from each ray, exactly. They are NaN, and decide nothing, where a ray has a component that is zero, infinite or NaN
// where it should not be.
struct Bounds {
    Span inverse[4];
    Span origin[4];
    Span tmin, tmax;
};

template <class Search, class T> ZENR_INLINE void bound(Bounds& bounds, const T& tile, typename T::Set rays) {
    const float inf = __builtin_inff();
    const auto spanOf = [rays, inf](const Floats* x) {
        Floats low = all(inf), high = all(-inf);
        for (int v = 0; v < T::kVectors; ++v) {
            const Bits bits = part(rays, v);
            if (!bits) continue;
            low = smaller(select(bits, x[v], low), low);
            high = larger(select(bits, x[v], high), high);
        }
        return Span{least(low), greatest(high)};
    };
    typename T::Set odd = 0;
    for (int v = 0; v < T::kVectors; ++v) {
        Bits fine = lessEqual(tile.tmin[v], tile.tmax[v]);
        for (int k = 0; k < 3; ++k) {
            const Floats size = absolute(tile.inverse[k][v]);
            fine &= less(Floats{}, size) & less(size, all(inf));
            if (Search::kOwnOrigins) fine &= less(absolute(tile.origin[k][v]), all(inf));
        }
        odd |= whole<typename T::Set>(~fine & kAllLanes, v);
    }
    const bool usable = !(odd & rays);
    const float nan = __builtin_nanf("");
    for (int k = 0; k < 3; ++k) {
        bounds.inverse[k] = usable ? spanOf(tile.inverse[k]) : Span{nan, nan};
        if (Search::kOwnOrigins) {
            bounds.origin[k] = usable ? spanOf(tile.origin[k]) : Span{nan, nan};
        } else {
            bounds.origin[k] = {tile.sharedOrigin[k], tile.sharedOrigin[k]};
        }
    }
    bounds.inverse[3] = bounds.origin[3] = {nan, nan};
    bounds.tmin = usable ? spanOf(tile.tmin) : Span{nan, nan};
    bounds.tmax = usable ? spanOf(tile.tmax) : Span{nan, nan};
}

// Where all rays cross a split plane.
template <class Search> ZENR_INLINE Span crossing(const Bounds& bounds, int axis, float split) {
    const Span inverse = bounds.inverse[axis], origin = bounds.origin[axis];
    const float a = (split - origin.high) * inverse.low, b = (split - origin.high) * inverse.high;
    if (!Search::kOwnOrigins) return {smallerOf(a, b), largerOf(a, b)};
    const float c = (split - origin.low) * inverse.low, d = (split - origin.low) * inverse.high;
    return {smallerOf(smallerOf(a, b), smallerOf(c, d)), largerOf(largerOf(a, b), largerOf(c, d))};
}

// The far child of a node, and the rays that are to visit it.
template <class T> struct Pending {
    const ZenrKDTreeNode* node;
    typename T::Set always; // these did not visit the near child
    typename T::Set unless; // these did, and stop there if what they found ends before tmin
    Span tminBounds, tmaxBounds;
    Floats tmin[T::kVectors], tmax[T::kVectors];
};

// Walks the tree with rays that agree about near children, each over its interval. False where a tree that no builder
// of ours makes needs a larger stack: the caller traces these rays one by one.
template <class Search, class T>
ZENR_INLINE bool walk(const ZenrKDTreeNode* node, const ZenrTriangleAccel* accel, T& tile, typename T::Set rays,
                      int room = kMaxTreeDepth) {
    Pending<T> stack[kMaxTreeDepth];
    int pending = 0;
    Bounds bounds = {};
    // Rays that go apart gain nothing from bounds.
    constexpr bool kBounded = T::kRays > 16;
    if (kBounded) bound<Search>(bounds, tile, rays);
    int nearChild[4];
    for (int k = 0; k < 4; ++k) nearChild[k] = (tile.negative[k] & rays) != 0;
    typename T::Set active = rays;
    typename T::Set alive = rays; // of segments: not blocked yet

    for (;;) {
        while (!(node->w0 & kLeafBit)) {
            const int axis = int(node->w0 & kAxisMask);
            float split;
            __builtin_memcpy(&split, &node->w1, sizeof split);
            const ZenrKDTreeNode* children = reinterpret_cast<const ZenrKDTreeNode*>(
                reinterpret_cast<const char*>(node) + (node->w0 & kChildOffsetMask));
            const ZenrKDTreeNode* nearer = children + nearChild[axis];
            const ZenrKDTreeNode* farther = children + (1 - nearChild[axis]);

            const Span cross = kBounded ? crossing<Search>(bounds, axis, split) : Span{};
            if (kBounded && cross.low - bounds.tmax.high > Search::kTolerance) {
                node = nearer;
                continue;
            }
            if (kBounded && bounds.tmin.low - cross.high > Search::kTolerance) {
                node = farther;
                continue;
            }

            Floats t[T::kVectors];
            typename T::Set farOnly = 0, nearOnly = 0;
            prefetchBelow(nearer, accel);
            prefetchBelow(farther, accel);
            const Floats tolerance = all(Search::kTolerance);
            for (int v = 0; v < T::kVectors; ++v) {
                if (!part(active, v)) continue;
                t[v] = (all(split) - (Search::kOwnOrigins ? tile.origin[axis][v] : all(tile.sharedOrigin[axis]))) *
                       tile.inverse[axis][v];
                farOnly |= whole<typename T::Set>(less(tolerance, tile.tmin[v] - t[v]), v);
                nearOnly |= whole<typename T::Set>(less(tolerance, t[v] - tile.tmax[v]), v);
            }
            farOnly &= active;
            nearOnly &= active & ~farOnly;
            if (nearOnly == active) {
                node = nearer;
                continue;
            }
            if (farOnly == active) {
                node = farther;
                continue;
            }

            const typename T::Set both = active & ~farOnly & ~nearOnly;
            if (pending == room) return false;
            Pending<T>& later = stack[pending++];
            later.node = farther;
            later.always = farOnly;
            later.unless = both;
            const Span middle = {largerOf(bounds.tmin.low, smallerOf(cross.low, bounds.tmax.low)),
                                 largerOf(bounds.tmin.high, smallerOf(cross.high, bounds.tmax.high))};
            later.tminBounds = {middle.low, largerOf(middle.high, bounds.tmin.high)};
            later.tmaxBounds = bounds.tmax;
            for (int v = 0; v < T::kVectors; ++v) {
                if (!part(active, v)) continue;
                const Bits split2 = part(both, v);
                const Floats m = larger(tile.tmin[v], smaller(t[v], tile.tmax[v]));
                later.tmin[v] = select(split2, m, tile.tmin[v]);
                later.tmax[v] = tile.tmax[v];
                tile.tmax[v] = select(split2, m, tile.tmax[v]);
            }
            bounds.tmax = {smallerOf(middle.low, bounds.tmax.low), middle.high};
            active &= ~farOnly;
            node = nearer;
        }
        const typename T::Set ended = testLeaf<Search>(node, accel, tile, active);
        if (Search::kSegment) {
            alive &= ~ended;
            if (!alive) return true;
        }

        // The interval that a ray searched last ended at the tmin of the entry.
        for (;;) {
            if (pending == 0) return true;
            const Pending<T>& next = stack[--pending];
            active = next.always;
            for (int v = 0; v < T::kVectors; ++v) {
                const Bits bits = part(next.unless, v);
                if (!bits) continue;
                const Floats best = Search::kSegment ? all(1.f) : tile.best[v];
                active |= whole<typename T::Set>(bits & ~lessEqual(best, next.tmin[v]), v);
            }
            if (Search::kSegment) active &= alive;
            if (!active) continue;
            node = next.node;
            for (int v = 0; v < T::kVectors; ++v) {
                if (!part(active, v)) continue;
                tile.tmin[v] = next.tmin[v];
                tile.tmax[v] = next.tmax[v];
            }
            bounds.tmin = next.tminBounds;
            bounds.tmax = next.tmaxBounds;
            break;
        }
    }
}

} // namespace ZENR_LEVEL
} // namespace zenr
