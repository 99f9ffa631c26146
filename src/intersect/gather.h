// Successive hits in one walk. Each is defined as a search of its own from the hit point before, down from the root; but
// all those searches go along one line. So a single walk gathers the triangles that a ray may meet, and each search is
// then decided among them, from its own origin and operation for operation. Where that could end otherwise than the search
// itself, the ray is left to the searches.
//
// Why the two agree. Let p be a hit point's distance from the eye, and call a triangle's distance from the eye its place.
//  - What a search computes from its origin differs by kCrossing at most from what the walk computes from the eye, less p:
//    where a plane is crossed, and by kPlace for the place of a triangle. mayGather() and `steep` see to that.
//  - The walk's tolerance is larger than the searches' by more than twice kCrossing. By induction over the nodes, its
//    interval at a node then contains that of each search, widened by kCrossing, and it comes to all nodes that they come
//    to: so a search meets no triangle that was not gathered.
//  - A leaf is a triangle's home if its interval is not empty and the place is inside it or at most kHomeSlack outside. A
//    search from before the place comes to the home, because the searches' tolerance is larger than all these errors
//    together, unless it stops in front of it: that takes a hit before the home begins. None is, if the triangle is the
//    nearest of all and lies more than kInner behind the home's beginning; nor if no other is within kApart of it.
//  - Of triangles at the same distance the first one tested counts: not decided here.
#pragma once
#include "intersect/tile.h"

namespace zenr {
namespace ZENR_LEVEL {

constexpr float kCrossing = 4e-5f, kPlace = 3e-5f;
constexpr float kHomeSlack = 4e-5f;
constexpr float kInner = 9e-5f;   // more than kCrossing + kPlace
constexpr float kApart = 2.2e-4f; // more than kHomeSlack + kCrossing + 3 kPlace
// Hit points are that far inside a ray's interval, which ends kBehindBox behind the box: more than 2 kCrossing.
constexpr float kInside = 9e-5f;
// The walk goes on so far behind the last place that a ray has room for: nothing before that place is missed.
constexpr float kBeyond = 3e-4f;

constexpr int kPlaces = 16; // places a ray has room for
constexpr int kSpare = 2;   // places more than hits are asked for

struct GatherTile {
    static constexpr float kTolerance = kSplitToleranceMultiple + 2.2f * kCrossing;
    static constexpr bool kOwnOrigins = false, kGateDeterminant = false, kMargin = false, kSegment = false,
                          kSuccessive = false, kGather = true;
};

enum : uint8_t { kAtHome = 1, kWellInside = 2 };

// A tile, and the triangles that each ray may meet: the nearest `room` of them, in the order of their places.
struct GatheringTile : Tile {
    float place[kRays][kPlaces];
    int number[kRays][kPlaces];
    uint8_t how[kRays][kPlaces];
    uint8_t count[kRays];
    int room;
    Set64 unsure; // rays that met what cannot be placed
    // Triangles of the leaves visited last, which wait to be tested side by side.
    int queue[kBatch];
    uint8_t leafOf[kBatch];
    int queued, leaves;
    struct Visit {
        Set64 rays;
        Floats tmin[kVectors], tmax[kVectors];
    } visit[kBatch];

    ZENR_INLINE void clear(int hits) {
        __builtin_memset(count, 0, sizeof count);
        room = hits + kSpare;
        unsure = 0;
        queued = leaves = 0;
        for (int v = 0; v < kVectors; ++v) best[v] = all(__builtin_inff());
    }
    // Returns whether the ray's room is full now; `best` says then how far it has to go on.
    ZENR_INLINE bool note(int ray, float t, int j, uint8_t flags) {
        float* const t0 = place[ray];
        int* const j0 = number[ray];
        uint8_t* const how0 = how[ray];
        int n = count[ray], at = n;
        while (at > 0 && t0[at - 1] > t) --at;
        for (int i = at; i > 0 && t0[i - 1] == t; --i) {
            if (j0[i - 1] != j) continue;
            how0[i - 1] |= flags;
            return false;
        }
        if (at == room) return false;
        if (n == room) --n;
        for (int i = n; i > at; --i) {
            t0[i] = t0[i - 1];
            j0[i] = j0[i - 1];
            how0[i] = how0[i - 1];
        }
        t0[at] = t;
        j0[at] = j;
        how0[at] = flags;
        count[ray] = uint8_t(n + 1);
        if (n + 1 < room) return false;
        reinterpret_cast<float*>(best)[ray] = t0[n] + kBeyond;
        return true;
    }
};

// Whether the errors of a tile's rays are as small as the above wants them, and all go the same way. With e = 2^-24, `end`
// the end of the rays' intervals and `inverse` a reciprocal: where a plane is crossed is within 3e of its size; an origin
// is rounded by e of its size, times `inverse`.
ZENR_INLINE bool mayGather(const Tile& tile, Set64 rays, const float* box) {
    if (!(tile.reach < __builtin_inff())) return false;
    Floats last = {};
    for (int v = 0; v < Tile::kVectors; ++v) last = larger(select(part(rays, v), tile.tmax[v], Floats{}), last);
    const float end = greatest(last);
    float error = 0;
    for (int k = 0; k < 3; ++k) {
        const float least = tile.low[k] > 0 ? tile.low[k] : -tile.high[k];
        if (!(least > kParallel)) return false;
        const float from = __builtin_fabsf(box[k]), to = __builtin_fabsf(box[3 + k]);
        error = largerOf(error, (largerOf(from, to) + 1e-3f * tile.reach) / least);
    }
    return (8.f * end + 1.25f * error) * 0x1p-24f <= kCrossing;
}

// Which coordinates a record projects to: those other than the axis numbered here, or 3 where no record of ours does so.
ZENR_INLINE int projectionOf(const ZenrTriangleAccel& r) {
    const int32_t order = int32_t(r.axes & 63u);
    return order == kOrderX ? 0 : order == kOrderY ? 1 : order == kOrderZ ? 2 : 3;
}

// Notes a triangle for those rays that may meet it; returns the rays whose room is full.
ZENR_INLINE Set64 placeTriangle(GatheringTile& tile, const ZenrTriangleAccel& record, int j,
                                const GatheringTile::Visit& visit, Set64 rays) {
    if (projectionOf(record) == 3) {
        tile.unsure |= rays;
        return 0;
    }
    Triangle r;
    load<GatherTile>(r, record, j, tile);
    // Numerators of different origins differ by less than 2^-48 of their terms for each unit of distance.
    const double terms = __builtin_fabs(r.nA) * (__builtin_fabs(r.pA) + __builtin_fabs(tile.sharedFrom[r.a])) +
                         __builtin_fabs(r.nB) * (__builtin_fabs(r.pB) + __builtin_fabs(tile.sharedFrom[r.b])) +
                         __builtin_fabs(r.pK) + __builtin_fabs(tile.sharedFrom[r.k]);
    const double normal = __builtin_fabs(r.nA) + __builtin_fabs(r.nB) + 1;
    const Floats gate = all(float((terms + normal * double(tile.reach)) * 0x1p-24));
    const Floats num = all(float(r.num));
    Set64 full = 0;
    for (int v = 0; v < GatheringTile::kVectors; ++v) {
        Bits bits = part(rays, v);
        if (!bits) continue;
        const Floats dA = tile.direction[r.a][v], dB = tile.direction[r.b][v], dK = tile.direction[r.k][v];
        const Doubles low = all(r.nA) * toDoubles<0>(dA) + all(r.nB) * toDoubles<0>(dB) + toDoubles<0>(dK);
        const Doubles high = all(r.nA) * toDoubles<1>(dA) + all(r.nB) * toDoubles<1>(dB) + toDoubles<1>(dK);
        const Floats det = toFloats(low, high);
        const Floats t = num / det;
        const Bits placed = less(gate, absolute(det)) & less(absolute(t), all(1e30f));
        tile.unsure |= whole(bits & ~placed, v);
        bits &= placed & less(all(-kPlace), t);
        const Floats tmin = visit.tmin[v], tmax = visit.tmax[v];
        const Bits home = less(tmin, tmax) & lessEqual(t, tmax + all(kHomeSlack));
        const Bits inner = home & less(tmin + all(kInner), t);
        const Bits outer = home & less(tmin - all(kHomeSlack), t);
        for (; bits; bits &= bits - 1) {
            const int lane = __builtin_ctz(bits), ray = v * kLanes + lane;
            const unsigned flags = (outer >> lane & 1) * kAtHome | (inner >> lane & 1) * kWellInside;
            // cppcheck-suppress objectIndex  // a register of floats
            if (tile.note(ray, reinterpret_cast<const float*>(&t)[lane], j, uint8_t(flags))) full |= Set64(1) << ray;
        }
    }
    return full;
}

// Tests the triangles that wait.
inline Set64 gatherQueue(const ZenrTriangleAccel* accel, GatheringTile& tile) {
    Set64 rays = 0, full = 0;
    for (int i = 0; i < tile.leaves; ++i) rays |= tile.visit[i].rays;
    Set64 inQuestion[kBatch];
    unsigned left = quickTest<false>(accel, tile.queue, tile.queued, tile, rays, inQuestion);
    for (; left; left &= left - 1) {
        const int i = __builtin_ctz(left), j = tile.queue[i];
        const GatheringTile::Visit& visit = tile.visit[tile.leafOf[i]];
        const Set64 met = inQuestion[i] & visit.rays;
        if (met && accel[j].axes != 0) full |= placeTriangle(tile, accel[j], j, visit, met);
    }
    tile.queued = tile.leaves = 0;
    return full;
}

// Queues the triangles of a leaf; returns rays whose room is full.
ZENR_INLINE Set64 gatherLeaf(const ZenrKDTreeNode* leaf, const ZenrTriangleAccel* accel, Tile& of, Set64 active,
                             const Floats* tmin, const Floats* tmax) {
    GatheringTile& tile = static_cast<GatheringTile&>(of);
    const LeafList triangles(leaf);
    Set64 full = 0;
    const auto visit = [&] {
        GatheringTile::Visit& here = tile.visit[tile.leaves++];
        here.rays = active;
        for (int v = 0; v < Tile::kVectors; ++v) {
            here.tmin[v] = tmin[v];
            here.tmax[v] = tmax[v];
        }
    };
    if (triangles.count) visit();
    for (uint32_t i = 0; i < triangles.count; ++i) {
        if (tile.queued == kBatch) {
            full |= gatherQueue(accel, tile);
            visit();
        }
        prefetchRecords(accel, triangles.list + i, 1);
        tile.leafOf[tile.queued] = uint8_t(tile.leaves - 1);
        tile.queue[tile.queued++] = triangles.list[i];
    }
    return full;
}

// ---- One layer of searches, side by side --------------------------------------------------------------------------

// What a register of rays meets next.
struct NextHits {
    Bits hit;     // these meet their next triangle
    Bits nothing; // these meet nothing more
    Floats t, weight[2];
    Ints triangle;
};

// A half of the rays, each against a triangle of its own.
template <int Half>
ZENR_INLINE Bits insideEach(const Row& r, Bits isX, Bits isY, const GatheringTile& tile, int v, Solution& s) {
    const Doubles dX = toDoubles<Half>(tile.direction[0][v]), dY = toDoubles<Half>(tile.direction[1][v]),
                  dZ = toDoubles<Half>(tile.direction[2][v]);
    const Doubles oX = tile.from[0][v][Half], oY = tile.from[1][v][Half], oZ = tile.from[2][v][Half];
    const Doubles dA = select(isX, dY, dX), dB = select(isX | isY, dZ, dY), dK = select(isX, dX, select(isY, dY, dZ));
    const Doubles oA = select(isX, oY, oX), oB = select(isX | isY, oZ, oY), oK = select(isX, oX, select(isY, oY, oZ));
    s.det = r.nA * dA + r.nB * dB + dK;
    const Doubles u = r.pA - oA, w = oB - r.pB;
    s.num = numeratorOf(r, u, oB, oK);
    return insideEdges(r, dA, dB, u, w, s);
}

// The searches of a layer for rays that have met all the triangles before it in the order of their places. Those that are
// in neither set of the result need a closer look.
ZENR_INLINE NextHits nextHits(const GatheringTile& tile, int v, Bits rays, int layer, Floats best,
                              const ZenrTriangleAccel* accel) {
    alignas(64) int number[kLanes];
    Bits clear = 0, projection[3] = {};
    NextHits next = {};
    for (Bits left = rays; left; left &= left - 1) {
        const int lane = __builtin_ctz(left), ray = v * kLanes + lane, count = tile.count[ray];
        const float* const place = tile.place[ray];
        const Bits bit = Bits(1) << lane;
        if (layer >= count) {
            if (count < tile.room) next.nothing |= bit;
            continue;
        }
        const float t = place[layer];
        if (!(tile.how[ray][layer] & kAtHome) || (layer + 1 < count && !(t + kApart < place[layer + 1])) ||
            (layer > 0 && !(place[layer - 1] < t - kApart)) ||
            (count == tile.room && !(t + kBeyond < place[count - 1])))
            continue;
        clear |= bit;
        number[lane] = tile.number[ray][layer];
        projection[projectionOf(accel[number[lane]])] |= bit;
    }
    if (!clear) return next;
    const int any = number[__builtin_ctz(clear)];
    for (Bits left = ~clear & kAllLanes; left; left &= left - 1) number[__builtin_ctz(left)] = any;

    Solution low = {}, high = {};
    Row r;
    load(r, number, kHalf, accel);
    Bits hit = insideEach<0>(r, projection[0] & kHalfLanes, projection[1] & kHalfLanes, tile, v, low);
    load(r, number + kHalf, kHalf, accel);
    hit |= insideEach<1>(r, projection[0] >> kHalf, projection[1] >> kHalf, tile, v, high) << kHalf;
    next.t = toFloats(low.num / low.det, high.num / high.det);
    next.hit = hit & clear & less(Floats{}, next.t) & less(next.t, best);
    next.weight[0] = toFloats(low.beta / low.det, high.beta / high.det);
    next.weight[1] = toFloats(low.gamma / low.det, high.gamma / high.det);
    __builtin_memcpy(&next.triangle, number, sizeof number);
    return next;
}

// ---- One search, where its triangles lie close together -----------------------------------------------------------

// A ray at one of its hit points, for testRow().
struct LineRay {
    double point[3];
    Components direction;
    float best, weight[2] = {};
    int triangle; // the nearest so far
    const int* recent;
    int recentCount, previous;

    ZENR_INLINE float& bestOf(int) { return best; }
    ZENR_INLINE Components toward(int) const { return direction; }
    ZENR_INLINE Components fromOf(int) const { return componentsOf(point[0], point[1], point[2]); }
    ZENR_INLINE bool passesOver(int, int number) const {
        bool over = previous == number;
        for (int i = 0; i < recentCount; ++i) over |= recent[i] == number;
        return over;
    }
    ZENR_INLINE void take(int, float t, float weight0, float weight1, int number) {
        best = t;
        weight[0] = weight0;
        weight[1] = weight1;
        triangle = number;
    }
};

enum class Verdict { hit, nothing, unsure };

// The search from a ray's hit point at distance p from the eye, among the triangles gathered.
ZENR_INLINE Verdict decide(LineRay& line, const GatheringTile& tile, int ray, const ZenrTriangleAccel* accel,
                           double p) {
    const float* const place = tile.place[ray];
    const int* const number = tile.number[ray];
    const int count = tile.count[ray];
    const float here = float(p);
    int first = 0;
    while (first < count && place[first] < here - 1.2f * kPlace) ++first;
    line.triangle = -1;
    for (int i = first; i < count; i += kHalf) {
        if (line.triangle >= 0 && place[i] > here + line.best + 1.2f * kPlace) break;
        Row r;
        load(r, number + i, count - i < kHalf ? count - i : kHalf, accel);
        testRow<SuccessiveTile>(r, number + i, line, 1u);
    }
    const bool full = count == tile.room;
    if (line.triangle < 0) return full ? Verdict::unsure : Verdict::nothing;
    int at = first;
    while (number[at] != line.triangle) ++at;
    const float t = place[at];
    const unsigned how = tile.how[ray][at];
    if (!(how & kAtHome)) return Verdict::unsure;
    if (full && !(t + kBeyond < place[count - 1])) return Verdict::unsure;
    for (int i = first; i < count && place[i] <= t + kApart; ++i) {
        if (i == at || place[i] < t - kApart) continue;
        LineRay other = line;
        other.best = FLT_MAX;
        other.triangle = -1;
        Row r;
        load(r, number + i, 1, accel);
        testRow<SuccessiveTile>(r, number + i, other, 1u);
        if (other.triangle >= 0 && (other.best == line.best || !(how & kWellInside))) return Verdict::unsure;
    }
    return Verdict::hit;
}

} // namespace ZENR_LEVEL
} // namespace zenr
