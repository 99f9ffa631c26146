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
#include "intersect/interior.h"
#include "intersect/lanes.h"
#include "intersect/record.h"
#include "kdtree/kdtree.h"
#include "zenr.h"

namespace zenr {
namespace ZENR_LEVEL {

// A set of rays of a tile, one bit a ray.
typedef uint64_t Set64;

// The rays of a register.
ZENR_INLINE Bits part(Set64 set, int v) {
    return Bits(set >> (v * kLanes)) & kAllLanes;
}
// The same of a group of registers.
ZENR_INLINE Bits groupPart(Set64 set, int v) {
    return Bits(set >> (v * kLanes)) & Bits((1ull << kGroupLanes) - 1);
}
ZENR_INLINE Set64 whole(Bits bits, int v) {
    return Set64(bits) << (v * kLanes);
}

constexpr int kBoxRays = 16;

// Four entries where three would do, so that the two-bit axis numbers of a malformed node or record stay inside.
struct Tile {
    static constexpr int kRays = 64;
    static constexpr int kVectors = kRays / kLanes;
    static constexpr int kBoxes = kRays / kBoxRays;

    Floats direction[4][kVectors];
    Floats inverse[4][kVectors]; // reciprocal of the direction, or its stand-in
    Floats tmin[kVectors], tmax[kVectors];
    Floats best[kVectors]; // running best distance
    Floats weight[2][kVectors];
    Ints triangle[kVectors];
    Set64 negative[4]; // rays whose upper child comes first
    // Where the directions of each sixteen rays lie: at most so far from the middle.
    float middle[3][kBoxes], spread[3][kBoxes];
    float low[4], high[4]; // the same of all rays, from and to
    float reach;           // largest direction component of any ray; infinite where one is NaN
    float away;            // the same of origins of their own
    float drift; // how far off their lines through the shared origin they may be, the test's own errors included
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
                          kSuccessive = false, kGather = false;
};
// Lines through a shared origin: the weights of a hit are the same from wherever on it a ray begins.
template <class Search> constexpr bool kOneOrigin = !Search::kOwnOrigins || Search::kSuccessive;

struct EyeTile {
    static constexpr float kTolerance = kSplitTolerance;
    static constexpr bool kOwnOrigins = false, kGateDeterminant = false, kMargin = false, kSegment = false,
                          kSuccessive = false, kGather = false;
};
struct SegmentTile {
    static constexpr float kTolerance = kSplitTolerance;
    static constexpr bool kOwnOrigins = false, kGateDeterminant = false, kMargin = false, kSegment = true,
                          kSuccessive = false, kGather = false;
};
// The first of successive searches.
struct FirstTile {
    static constexpr float kTolerance = kSplitToleranceMultiple;
    static constexpr bool kOwnOrigins = false, kGateDeterminant = false, kMargin = false, kSegment = false,
                          kSuccessive = false, kGather = false;
};
struct SuccessiveTile {
    static constexpr float kTolerance = kSplitToleranceMultiple;
    static constexpr bool kOwnOrigins = true, kGateDeterminant = false, kMargin = false, kSegment = false,
                          kSuccessive = true, kGather = false;
};

// ---- Triangles ----------------------------------------------------------------------------------------------------

// A record in double, and what the rays of a shared origin have in common.
struct Triangle {
    int number, k, a, b;
    double nA, nB, pK, pA, pB, e1A, e1B, e2A, e2B;
    double u, w, num;
};

template <class Search>
ZENR_INLINE void load(Triangle& r, const ZenrTriangleAccel& from, int number, const Tile& tile) {
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
    if constexpr (!Search::kOwnOrigins) {
        r.u = r.pA - tile.sharedFrom[r.a];
        r.w = tile.sharedFrom[r.b] - r.pB;
        r.num = numeratorOf(r, r.u, tile.sharedFrom[r.b], tile.sharedFrom[r.k]);
    }
}

// The rays of a half that hit the triangle's plane inside it.
template <class Search, int Half> ZENR_INLINE Bits inside(const Triangle& r, const Tile& tile, int v, Solution& s) {
    const Doubles dA = toDoubles<Half>(tile.direction[r.a][v]), dB = toDoubles<Half>(tile.direction[r.b][v]),
                  dK = toDoubles<Half>(tile.direction[r.k][v]);
    s.det = all(r.nA) * dA + all(r.nB) * dB + dK;
    Doubles u = all(r.u), w = all(r.w);
    s.num = all(r.num);
    if (Search::kOwnOrigins) {
        const Doubles oB = tile.from[r.b][v][Half];
        u = all(r.pA) - tile.from[r.a][v][Half];
        w = oB - all(r.pB);
        s.num = numeratorOf(r, u, oB, tile.from[r.k][v][Half]);
    }
    Bits bits = insideEdges(r, dA, dB, u, w, s);
    if (Search::kGateDeterminant) bits &= ~less(absolute(s.det), all(double(kDeterminantGate)));
    return bits;
}

// The three scaled weights of rays of a shared origin are linear in the direction. In single precision with a bound on
// all errors, they tell most rays that pass outside: one weight is surely positive and another surely negative. Over an
// interval of directions they tell it of many rays at once. Triangles are side by side, a lane each.
constexpr int kBatch = 16;
constexpr int kFewShared = 4; // rays with one origin that take the triangles of a leaf one after the other

struct alignas(64) Outlines {
    float factor[3][3][kBatch]; // of a weight (first vertex, second, third) and a component of the direction
    float error[kBatch];
    // Of segments: the denominator's factors, and a bound that its size has to reach for the plane to lie before the end.
    float plane[3][kBatch];
    float reaches[kBatch];
};

// The outlines of a register of triangles.
struct Outline {
    Floats factor[3][3];
    Floats error;
    Floats plane[3];
    Floats reaches;
    Bits proper;
};

template <bool Segment>
ZENR_INLINE void outline(Outline& o, const ZenrTriangleAccel* accel, const int* list, int count, const float* origin,
                         float reach, float drift) {
    FloatRecords r;
    load(r, list, count, accel);
    const Floats nA = r.nA, nB = r.nB, pK = r.pK, e1A = r.e1A, e1B = r.e1B, e2A = r.e2A, e2B = r.e2B;
    const Bits isX = r.isX, isY = r.isY, isZ = r.isZ;
    const Floats x = all(origin[0]), y = all(origin[1]), z = all(origin[2]);
    const Floats oA = select(isX, y, x), oB = select(isZ, y, z), oK = select(isX, x, select(isY, y, z));

    const Floats u = r.pA - oA, w = oB - r.pB, q = pK - oK;
    const Floats num = about(nA, u, q - nB * w);
    const Floats pullBeta = about(e2B, u, e2A * w), pullGamma = about(e1A, w, e1B * u);
    const Floats beta[3] = {e2B * num - pullBeta * nA, -(e2A * num) - pullBeta * nB, -pullBeta};
    const Floats gamma[3] = {pullGamma * nA - e1B * num, about(e1A, num, pullGamma * nB), pullGamma};
    const Floats alpha[3] = {nA - beta[0] - gamma[0], nB - beta[1] - gamma[1], all(1.f) - beta[2] - gamma[2]};
    const auto inSpace = [&](Floats* to, const Floats* from) {
        to[0] = select(isX, from[2], from[0]);
        to[1] = select(isY, from[2], select(isX, from[0], from[1]));
        to[2] = select(isZ, from[2], from[1]);
    };
    inSpace(o.factor[0], alpha);
    inSpace(o.factor[1], beta);
    inSpace(o.factor[2], gamma);

    // With e = 2^-24 and `size` the numerator's terms without their signs: u, w and q are within 1e of their sizes, the
    // numerator within 4e of `size`, the factors of beta and gamma together within 6e of their `terms`, those of alpha
    // within 8e of both and 2e of `normal`; products with the direction and their sums add 3e. 2^-20 is 16e. The test in
    // double adds what is lost where coordinates along k cancel, and much less elsewhere. Origins that are off their lines
    // shift the numerator and u, w: `drift`. The last terms are for underflows.
    const Floats one = all(1.f);
    const Floats sizeU = absolute(u), sizeW = absolute(w);
    const Floats normal = absolute(nA) + absolute(nB) + one;
    const Floats size = about(absolute(nA), sizeU, about(absolute(nB), sizeW, absolute(q)));
    const Floats edgesA = absolute(e1A) + absolute(e2A), edgesB = absolute(e1B) + absolute(e2B);
    const Floats terms = about(edgesA, about(sizeW, normal, size), edgesB * about(sizeU, normal, size));
    const Floats lost = about(normal, all(drift), about(absolute(pK) + absolute(oK), all(0x1p-48f), all(1e-37f)));
    const Floats error = about(all(reach), about(terms + normal, all(0x1p-20f), (edgesA + edgesB) * lost), all(1e-37f));
    // Anything that could overflow is left to the test in double, and so are NaN and records of other axes.
    o.error = select(less(error, all(1e23f)) & (isX | isY | isZ), error, all(__builtin_inff()));
    if (Segment) {
        // A distance is at least 1 where the numerator is not smaller than the denominator. Within 4e of `size` the one, 3e
        // of `normal` times the direction the other; 2^-21 is 8e.
        const Floats plane[3] = {nA, nB, one};
        inSpace(o.plane, plane);
        const Floats unsure = about(about(all(reach), normal, size), all(0x1p-21f), lost);
        o.reaches = select(isX | isY | isZ, absolute(num) - unsure, all(-1.f));
    }
    o.proper = r.proper;
}

// The triangles that some ray of a box may meet.
ZENR_INLINE Bits mayMeet(const Outline& o, const Tile& tile, int box) {
    Floats low[3], high[3];
    for (int i = 0; i < 3; ++i) {
        Floats middle = o.factor[i][0] * all(tile.middle[0][box]);
        Floats spread = absolute(o.factor[i][0]) * all(tile.spread[0][box]);
        for (int k = 1; k < 3; ++k) {
            middle = about(o.factor[i][k], all(tile.middle[k][box]), middle);
            spread = about(absolute(o.factor[i][k]), all(tile.spread[k][box]), spread);
        }
        low[i] = middle - spread;
        high[i] = middle + spread;
    }
    // Twice the bound, because the rays are themselves bounded by rounded numbers.
    const Floats error = o.error + o.error;
    const Bits negative = less(smaller(smaller(high[0], high[1]), high[2]), -error);
    return ~(negative & less(error, larger(larger(low[0], low[1]), low[2]))) & o.proper;
}

// The rays of a vector of directions that may meet a triangle.
template <bool Segment> ZENR_INLINE Bits mayBeInside(const Outlines& o, int i, Floats dX, Floats dY, Floats dZ) {
    Floats weight[3];
    for (int w = 0; w < 3; ++w)
        weight[w] = about(all(o.factor[w][0][i]), dX, about(all(o.factor[w][1][i]), dY, all(o.factor[w][2][i]) * dZ));
    // A NaN weight comes with an infinite error bound.
    const Floats low = smaller(smaller(weight[0], weight[1]), weight[2]);
    const Floats high = larger(larger(weight[0], weight[1]), weight[2]);
    Bits outside = less(low, all(-o.error[i])) & less(all(o.error[i]), high);
    if (Segment) {
        const Floats det = about(all(o.plane[0][i]), dX, about(all(o.plane[1][i]), dY, all(o.plane[2][i]) * dZ));
        outside |= less(absolute(det), all(o.reaches[i]));
    }
    return ~outside & kAllLanes;
}

// Finds the rays in question of each triangle of a batch; returns the triangles that have any.
template <bool Segment>
ZENR_INLINE unsigned quickTest(const ZenrTriangleAccel* accel, const int* list, int count, const Tile& tile,
                               Set64 active, Set64* inQuestion) {
    Outlines outlines;
    unsigned candidates[Tile::kBoxes] = {};
    unsigned any = 0;
    for (int first = 0; first < count; first += kLanes) {
        Outline o;
        outline<Segment>(o, accel, list + first, count - first, tile.sharedOrigin, tile.reach, tile.drift);
        unsigned here = 0;
        for (int box = 0; box < Tile::kBoxes; ++box) {
            if (!(active >> (box * kBoxRays) & 0xFFFFu)) continue;
            const unsigned bits = mayMeet(o, tile, box);
            candidates[box] |= bits << first;
            here |= bits;
        }
        if (!here) continue;
        any |= here << first;
        for (int w = 0; w < 3; ++w)
            for (int k = 0; k < 3; ++k)
                __builtin_memcpy(&outlines.factor[w][k][first], &o.factor[w][k], sizeof(Floats));
        __builtin_memcpy(&outlines.error[first], &o.error, sizeof(Floats));
        if (Segment) {
            for (int k = 0; k < 3; ++k) __builtin_memcpy(&outlines.plane[k][first], &o.plane[k], sizeof(Floats));
            __builtin_memcpy(&outlines.reaches[first], &o.reaches, sizeof(Floats));
        }
    }
    if (!any) return 0;
    for (int i = 0; i < kBatch; ++i) inQuestion[i] = 0;
    for (int v = 0; v < Tile::kVectors; ++v) {
        const Bits bits = part(active, v);
        if (!bits) continue;
        const Floats dX = tile.direction[0][v], dY = tile.direction[1][v], dZ = tile.direction[2][v];
        for (unsigned left = candidates[v * kLanes / kBoxRays]; left; left &= left - 1) {
            const int i = __builtin_ctz(left);
            inQuestion[i] |= whole(bits & mayBeInside<Segment>(outlines, i, dX, dY, dZ), v);
        }
    }
    return any;
}

// The same for rays with their own origins: the test itself in single precision, and a bound on its error.
struct OwnOutline {
    const ZenrTriangleAccel* record;
    float error;
};

ZENR_INLINE float sumOf(__m128 a) {
    const __m128 pairs = _mm_add_ps(a, _mm_movehl_ps(a, a));
    return _mm_cvtss_f32(_mm_add_ss(pairs, _mm_shuffle_ps(pairs, pairs, 1)));
}

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

ZENR_INLINE Bits mayBeInside(const OwnOutline& o, const Tile& tile, int v) {
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

ZENR_INLINE unsigned quickTestOwn(const ZenrTriangleAccel* accel, const int* list, int count, const Tile& tile,
                                  Set64 active, Set64* inQuestion) {
    OwnOutline outlines[kBatch];
    for (int i = 0; i < count; ++i) {
        outline(outlines[i], accel[list[i]], tile.reach, tile.away);
        inQuestion[i] = 0;
    }
    for (int v = 0; v < Tile::kVectors; ++v) {
        const Bits bits = part(active, v);
        if (!bits) continue;
        for (int i = 0; i < count; ++i) inQuestion[i] |= whole(bits & mayBeInside(outlines[i], tile, v), v);
    }
    return (1u << count) - 1;
}

// Tests a triangle for the rays of a vector that `bits` names, and takes its hits; returns them.
template <class Search> ZENR_INLINE Bits takeHits(const Triangle& r, Tile& tile, int v, Bits bits) {
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
    if constexpr (Search::kSuccessive) {
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

// The rays of a tile, for testRow().
struct TileRays {
    Tile& tile;

    ZENR_INLINE float& bestOf(int ray) const { return reinterpret_cast<float*>(tile.best)[ray]; }
    ZENR_INLINE Components toward(int ray) const {
        const float* x = reinterpret_cast<const float*>(tile.direction);
        return componentsOf(x[ray], x[Tile::kRays + ray], x[2 * Tile::kRays + ray]);
    }
    ZENR_INLINE Components fromOf(int ray) const {
        const double* x = reinterpret_cast<const double*>(tile.from);
        return componentsOf(x[ray], x[Tile::kRays + ray], x[2 * Tile::kRays + ray]);
    }
    ZENR_INLINE bool passesOver(int ray, int number) const {
        bool over = reinterpret_cast<const int*>(tile.previous)[ray] == number;
        for (int i = 0; i < tile.recentCount; ++i) over |= reinterpret_cast<const int*>(tile.recent[i])[ray] == number;
        return over;
    }
    ZENR_INLINE void block(int ray, int number) const { reinterpret_cast<int*>(tile.triangle)[ray] = number; }
    ZENR_INLINE void take(int ray, float t, float weight0, float weight1, int number) const {
        bestOf(ray) = t;
        reinterpret_cast<float*>(tile.weight[0])[ray] = weight0;
        reinterpret_cast<float*>(tile.weight[1])[ray] = weight1;
        reinterpret_cast<int*>(tile.triangle)[ray] = number;
    }
};

// Whether a leaf's triangles are better taken side by side than its rays; where both are as good is flat.
template <class Search> ZENR_INLINE bool fewFor(Set64 rays, int triangles) {
    return kHalf >= 4 && __builtin_popcountll(rays) <= (kOneOrigin<Search> ? kFewShared : triangles + 6);
}

// The list of a leaf's triangles.
struct LeafList {
    int inlined[3];
    const int* list;
    uint32_t count;

    ZENR_INLINE explicit LeafList(const ZenrKDTreeNode* leaf) {
        const uint32_t w0 = leaf->w0, w1 = leaf->w1;
        list = inlined;
        count = w1;
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
    }
    LeafList(const LeafList&) = delete;
};

ZENR_INLINE void prefetchRecords(const ZenrTriangleAccel* accel, const int* list, int count) {
    for (int i = 0; i < count; ++i) {
        __builtin_prefetch(&accel[list[i]].axes);
        __builtin_prefetch(&accel[list[i]].e1B);
    }
}

// Asks for the first records of a node that is a leaf.
ZENR_INLINE void prefetchLeaf(const ZenrKDTreeNode* node, const ZenrTriangleAccel* accel) {
    if (!(node->w0 & kLeafBit)) return;
    const LeafList leaf(node);
    prefetchRecords(accel, leaf.list, leaf.count < kBatch ? int(leaf.count) : kBatch);
}

// The triangles of a leaf in list order; returns the rays that may have found one, of segments those that have.
template <class Search>
ZENR_INLINE Set64 testLeaf(const ZenrKDTreeNode* leaf, const ZenrTriangleAccel* accel, Tile& tile, Set64 active) {
    const LeafList triangles(leaf);
    const int* list = triangles.list;
    const uint32_t count = triangles.count;
    const Set64 before = active;
    Set64 found = 0;
    constexpr uint32_t kMost = kOneOrigin<Search> ? kBatch : kBatch / 2;
    for (uint32_t done = 0; done < count; done += kMost) {
        const int batch = int(count - done < kMost ? count - done : kMost);
        // The quick test of a shared origin begins with all records at once.
        const bool few = fewFor<Search>(active, batch);
        if (!kOneOrigin<Search> || few) prefetchRecords(accel, list, batch);
        if (few) {
            if (!Search::kSegment) found = active;
            for (int i = 0; i < batch && active; i += kHalf) {
                Row r;
                load(r, list + i, batch - i < kHalf ? batch - i : kHalf, accel);
                if (!Search::kOwnOrigins) share(r, tile.sharedFrom);
                active &= ~testRow<Search>(r, list + i, TileRays{tile}, active);
            }
            if (!active) break;
            list += batch;
            continue;
        }
        // First the quick test.
        Set64 inQuestion[kBatch];
        unsigned left;
        if constexpr (kOneOrigin<Search>)
            left = quickTest<Search::kSegment>(accel, list, batch, tile, active, inQuestion);
        else
            left = quickTestOwn(accel, list, batch, tile, active, inQuestion);
        for (; left; left &= left - 1) {
            const int i = __builtin_ctz(left);
            const Set64 rays = inQuestion[i] & active;
            const int j = list[i];
            if (!rays || accel[j].axes == 0) continue;
            Triangle r;
            load<Search>(r, accel[j], j, tile);
            for (int v = 0; v < Tile::kVectors; ++v) {
                const Bits bits = part(rays, v);
                if (!bits) continue;
                const Bits hit = takeHits<Search>(r, tile, v, bits);
                if (Search::kSegment)
                    active &= ~whole(hit, v);
                else
                    found |= whole(hit, v);
            }
        }
        if (Search::kSegment && !active) break;
        list += batch;
    }
    return Search::kSegment ? before & ~active : found;
}

// Instead, where triangles are only gathered (gather.h).
Set64 gatherLeaf(const ZenrKDTreeNode* leaf, const ZenrTriangleAccel* accel, Tile& tile, Set64 active,
                 const Floats* tmin, const Floats* tmax);

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
    float best; // not above any ray's best distance
};

// False where a ray's interval is reversed: a later search of successive hits may start outside the box.
template <class Search> ZENR_INLINE bool bound(Bounds& bounds, const Tile& tile, Set64 rays) {
    const float inf = __builtin_inff();
    const auto spanOf = [rays, inf](const Floats* x) {
        Floats low = all(inf), high = all(-inf);
        for (int v = 0; v < Tile::kVectors; ++v) {
            const Bits bits = part(rays, v);
            if (!bits) continue;
            low = smaller(select(bits, x[v], low), low);
            high = larger(select(bits, x[v], high), high);
        }
        return Span{least(low), greatest(high)};
    };
    // Where no ray of the tile is parallel to an axis or differs in sign, the directions' bounds give the reciprocals'.
    bool same[3];
    for (int k = 0; k < 3; ++k) same[k] = tile.reach < inf && (tile.low[k] > kParallel || tile.high[k] < -kParallel);
    Set64 odd = 0, ordered = 0;
    for (int v = 0; v < Tile::kVectors; ++v) {
        ordered |= whole(lessEqual(tile.tmin[v], tile.tmax[v]), v);
        Bits fine = kAllLanes;
        for (int k = 0; k < 3; ++k) {
            const Floats size = absolute(tile.inverse[k][v]);
            if (!same[k]) fine &= less(Floats{}, size) & less(size, all(inf));
            if (Search::kOwnOrigins) fine &= less(absolute(tile.origin[k][v]), all(inf));
        }
        odd |= whole(~fine & kAllLanes, v);
    }
    if (rays & ~ordered) return false;
    const bool usable = !(odd & rays);
    const float nan = __builtin_nanf("");
    for (int k = 0; k < 3; ++k) {
        bounds.inverse[k] = !usable   ? Span{nan, nan}
                            : same[k] ? Span{1.f / tile.high[k], 1.f / tile.low[k]}
                                      : spanOf(tile.inverse[k]);
        if (Search::kOwnOrigins) {
            bounds.origin[k] = usable ? spanOf(tile.origin[k]) : Span{nan, nan};
        } else {
            bounds.origin[k] = {tile.sharedOrigin[k], tile.sharedOrigin[k]};
        }
    }
    // A malformed node's axis, as it is for each ray.
    bounds.inverse[3] = bounds.origin[3] = {0, 0};
    Floats low[3], high[2];
    low[0] = low[1] = low[2] = all(inf);
    high[0] = high[1] = all(-inf);
    for (int v = 0; v < Tile::kVectors; ++v) {
        const Bits bits = part(rays, v);
        const Floats of[3] = {tile.tmin[v], tile.tmax[v], tile.best[v]};
        for (int i = 0; i < 3; ++i) low[i] = smaller(select(bits, of[i], low[i]), low[i]);
        for (int i = 0; i < 2; ++i) high[i] = larger(select(bits, of[i], high[i]), high[i]);
    }
    float lows[4], highs[4];
    const __m128 last = leastQuarter(low[2]);
    _mm_storeu_ps(lows, leastOfEach(leastQuarter(low[0]), leastQuarter(low[1]), last, last));
    const __m128 ends = greatestQuarter(high[1]);
    _mm_storeu_ps(highs, greatestOfEach(greatestQuarter(high[0]), ends, ends, ends));
    bounds.tmin = usable ? Span{lows[0], highs[0]} : Span{nan, nan};
    bounds.tmax = usable ? Span{lows[1], highs[1]} : Span{nan, nan};
    bounds.best = Search::kSegment ? 1.f : lows[2];
    return true;
}

// Where all rays cross a split plane.
template <class Search> ZENR_INLINE Span crossing(const Bounds& bounds, int axis, float split) {
    const Span inverse = bounds.inverse[axis], origin = bounds.origin[axis];
    const float a = (split - origin.high) * inverse.low, b = (split - origin.high) * inverse.high;
    if (!Search::kOwnOrigins) return {smallerOf(a, b), largerOf(a, b)};
    const float c = (split - origin.low) * inverse.low, d = (split - origin.low) * inverse.high;
    return {smallerOf(smallerOf(a, b), smallerOf(c, d)), largerOf(largerOf(a, b), largerOf(c, d))};
}

// The far child of a node, and the rays that are to visit it, from the node's middles on.
struct Pending {
    const ZenrKDTreeNode* node;
    Set64 always; // these did not visit the near child
    Set64 unless; // these did, and stop there if what they found ends before the middle
    Span tminBounds, tmaxBounds;
    const Floats* tmax;
    int depth; // of the middles
};

ZENR_INLINE bool isEmptyLeaf(const ZenrKDTreeNode* node) {
    return (node->w0 & kLeafBit) && node->w1 == 0;
}

// The rays of a set that go on behind `middle`, because they have found nothing before it. `latest` bounds the middles,
// `best` the distances.
template <class Search>
ZENR_INLINE Set64 goOn(const Tile& tile, Set64 rays, const Floats* middle, float latest, float best) {
    if (latest < best) return rays;
    Set64 on = 0;
    for (int v = 0; v < Tile::kVectors; v += kGroup) {
        if (!groupPart(rays, v)) continue;
        Flags by[kGroup];
        for (int i = 0; i < kGroup; ++i)
            by[i] = flagLessEqual(Search::kSegment ? all(1.f) : tile.best[v + i], middle[v + i]);
        on |= whole(~bitsOf(by) & Bits((1ull << kGroupLanes) - 1), v);
    }
    on &= rays;
    return on;
}

// Walks the tree with rays that agree about near children, each over its interval. False where the caller has to trace
// these rays one by one: an interval is reversed, or a tree that no builder of ours makes needs a larger stack.
template <class Search>
ZENR_INLINE bool walk(const ZenrKDTreeNode* node, const ZenrTriangleAccel* accel, Tile& tile, Set64 rays) {
    Pending stack[kMaxTreeDepth];
    // Where each ray goes over from the near to the far child of the nodes on the way here at which some were split: the
    // end of its interval in the one, its beginning in the other.
    Floats middles[kMaxTreeDepth][Tile::kVectors];
    int pending = 0, depth = 0;
    const Floats* tmin = tile.tmin;
    const Floats* tmax = tile.tmax;
    Bounds bounds = {};
    bounds.best = -__builtin_inff();
    if (!bound<Search>(bounds, tile, rays)) return false;
    int nearChild[4];
    for (int k = 0; k < 4; ++k) nearChild[k] = (tile.negative[k] & rays) != 0;
    Set64 active = rays;
    Set64 alive = rays; // of segments: not blocked yet

    for (;;) {
        while (!(node->w0 & kLeafBit)) {
            const auto [axis, split, children] = interiorOf(node);
            const ZenrKDTreeNode* nearer = children + nearChild[axis];
            const ZenrKDTreeNode* farther = children + (1 - nearChild[axis]);

            const Span cross = crossing<Search>(bounds, axis, split);
            if (cross.low - bounds.tmax.high > Search::kTolerance) {
                node = nearer;
                continue;
            }
            if (bounds.tmin.low - cross.high > Search::kTolerance) {
                node = farther;
                continue;
            }

            if (depth == kMaxTreeDepth) return false;
            Floats* const middle = middles[depth];
            Set64 farOnly = 0, nearOnly = 0;
            prefetchBelow(nearer, accel);
            prefetchBelow(farther, accel);
            const Floats tolerance = all(Search::kTolerance);
            for (int v = 0; v < Tile::kVectors; v += kGroup) {
                if (!groupPart(active, v)) continue;
                Flags far[kGroup], near[kGroup];
                for (int i = 0; i < kGroup; ++i) {
                    const Floats origin = Search::kOwnOrigins ? tile.origin[axis][v + i] : all(tile.sharedOrigin[axis]);
                    const Floats t = (all(split) - origin) * tile.inverse[axis][v + i];
                    far[i] = flagLess(tolerance, tmin[v + i] - t);
                    near[i] = flagLess(tolerance, t - tmax[v + i]);
                    // For a ray of the near child alone this is its tmax, for one of the far child alone its tmin.
                    middle[v + i] = larger(tmin[v + i], smaller(t, tmax[v + i]));
                }
                farOnly |= whole(bitsOf(far), v);
                nearOnly |= whole(bitsOf(near), v);
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

            const Set64 both = active & ~farOnly & ~nearOnly;
            const Span middleBounds = {largerOf(bounds.tmin.low, smallerOf(cross.low, bounds.tmax.low)),
                                       largerOf(bounds.tmin.high, smallerOf(cross.high, bounds.tmax.high))};
            ++depth;
            // A stop that an empty far child would see is seen at the next pending node.
            if (!isEmptyLeaf(farther)) {
                if (isEmptyLeaf(nearer)) {
                    active = farOnly | goOn<Search>(tile, both, middle, middleBounds.high, bounds.best);
                    if (active) {
                        bounds.tmin = middleBounds;
                        tmin = middle;
                        node = farther;
                        continue;
                    }
                    node = nearer;
                    continue;
                }
                stack[pending++] = {farther, farOnly, both, middleBounds, bounds.tmax, tmax, depth - 1};
            }
            bounds.tmax = middleBounds;
            tmax = middle;
            active &= ~farOnly;
            node = nearer;
        }
        if (pending && node->w1 != 0) {
            prefetchLeaf(stack[pending - 1].node, accel);
        }
        Set64 found;
        if constexpr (Search::kGather)
            found = gatherLeaf(node, accel, tile, active, tmin, tmax);
        else
            found = testLeaf<Search>(node, accel, tile, active);
        if (Search::kSegment) {
            alive &= ~found;
            if (!alive) return true;
        } else if (found) {
            bounds.best = -__builtin_inff();
        }

        // The interval that a ray searched last ended at the middle of the entry.
        do {
            if (pending == 0) return true;
            const Pending& next = stack[--pending];
            node = next.node;
            depth = next.depth;
            tmin = middles[depth++];
            tmax = next.tmax;
            bounds.tmin = next.tminBounds;
            bounds.tmax = next.tmaxBounds;
            active = next.always | goOn<Search>(tile, next.unless, tmin, bounds.tmin.high, bounds.best);
            if (Search::kSegment) active &= alive;
        } while (!active);
    }
}

} // namespace ZENR_LEVEL
} // namespace zenr
