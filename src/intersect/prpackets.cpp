// Packet kernels: a block of rays cut into tiles of sixty-four, the rays set up as the one-ray path sets them up, walked
// through the tree together, and their results written.
#include "intersect/prpackets.h"

#include "intersect/gather.h"
#include "intersect/intersect.h"
#include "intersect/order.h"
#include "intersect/stream.h"

namespace zenr {
namespace ZENR_LEVEL {

namespace {

// ---- Tiles of a block ---------------------------------------------------------------------------------------------

// Lanes 4p .. 4p + 3 of a tile are rays start[p] .. start[p] + 3 of the block.
constexpr int kPieces = 64 / 4;

struct Place {
    size_t start[kPieces];
    Set64 rays; // the lanes that are rays
};

ZENR_INLINE unsigned piece(Set64 rays, int p) {
    return unsigned(rays >> (4 * p)) & 15u;
}

// Squares of eight by eight, made of squares of four by four so that a register's rays lie close together; where a block
// has not both extents, runs.
struct Tiling {
    size_t width, height, across, count;
    bool squares;

    explicit Tiling(const RayBlock& block) : width(size_t(block.width)), height(size_t(block.height)) {
        squares = width >= 8 && height >= 8;
        across = (width + 7) / 8;
        count = squares ? across * ((height + 7) / 8) : (width * height + 64 - 1) / 64;
    }

    void place(size_t tile, Place& place) const {
        if (squares) {
            const size_t x = tile % across * 8, y = tile / across * 8;
            const size_t corner = y * width + x;
            for (int p = 0; p < kPieces; ++p)
                place.start[p] = corner + size_t(p / 8 * 4 + p % 4) * width + size_t(p / 4 % 2 * 4);
            if (x + 8 <= width && y + 8 <= height) {
                place.rays = ~Set64(0);
                return;
            }
        } else {
            for (int p = 0; p < kPieces; ++p) place.start[p] = tile * 64 + size_t(p) * 4;
        }
        place.rays = 0;
        for (int p = 0; p < kPieces; ++p) {
            const size_t end = width * height, start = place.start[p];
            size_t valid = start < end ? end - start : 0;
            if (squares) {
                const size_t x = tile % across * 8 + size_t(p / 4 % 2 * 4);
                valid = start < end && x < width ? width - x : 0;
            }
            place.rays |= Set64(valid >= 4 ? 15u : (1u << valid) - 1) << (4 * p);
        }
    }
};

// Asks for the lines that a later tile reads or writes of an array: rows of a block are too far apart to be foreseen.
template <class T> ZENR_INLINE void prefetchTile(const T* array, const Place& place) {
    for (int p = 0; p < kPieces; p += p % 4 == 3 ? 5 : 1) __builtin_prefetch(array + place.start[p]);
}

// Two tiles of squares share the lines.
ZENR_INLINE void prefetchLater(const RayBlock& block, const Tiling& tiling, size_t tile) {
    if (tile % 2 != 0 || tile + 2 >= tiling.count) return;
    Place later;
    tiling.place(tile + 2, later);
    for (int k = 0; k < 3; ++k) prefetchTile(block.direction[k], later);
    if (block.distance) prefetchTile(block.distance, later);
    if (block.mask) prefetchTile(block.mask, later);
    prefetchTile(block.triangle, later);
}

// What the rays of a tile have, of four bytes each; zero where there is no ray.
template <class T> ZENR_INLINE void gather(Floats* to, const T* from, const Place& place) {
    const auto whole = [&](int p) { return _mm_loadu_ps(reinterpret_cast<const float*>(from + place.start[p])); };
    const auto partial = [&](int p) {
        T four[4] = {};
        for (int lane = 0; lane < 4; ++lane) {
            if (piece(place.rays, p) >> lane & 1) four[lane] = from[place.start[p] + size_t(lane)];
        }
        return _mm_loadu_ps(reinterpret_cast<const float*>(four));
    };
    if (place.rays == ~Set64(0)) {
        for (int v = 0; v < Tile::kVectors; ++v) to[v] = joinFours([&](int i) { return whole(v * (kLanes / 4) + i); });
    } else {
        for (int v = 0; v < Tile::kVectors; ++v)
            to[v] = joinFours([&](int i) { return partial(v * (kLanes / 4) + i); });
    }
}

// Writes the lanes of `rays` only.
template <class T> ZENR_INLINE void scatter(T* to, const T* from, const Place& place, Set64 rays) {
    const auto four = [&](int p) { return _mm_loadu_ps(reinterpret_cast<const float*>(from + 4 * p)); };
    if (rays == ~Set64(0)) {
        for (int p = 0; p < kPieces; ++p) _mm_storeu_ps(reinterpret_cast<float*>(to + place.start[p]), four(p));
    } else {
        for (int p = 0; p < kPieces; ++p) {
            const unsigned lanes = piece(rays, p);
            if (lanes == 15u)
                _mm_storeu_ps(reinterpret_cast<float*>(to + place.start[p]), four(p));
            else if (lanes)
                storeFour(reinterpret_cast<float*>(to + place.start[p]), four(p), lanes);
        }
    }
}

ZENR_INLINE float* floatsOf(Floats* x) {
    return reinterpret_cast<float*>(x);
}

// ---- Setting rays up ----------------------------------------------------------------------------------------------

// The largest size of any component; infinite where one is NaN.
ZENR_INLINE float largestOf(const Floats (&x)[4][Tile::kVectors]) {
    Floats largest = {};
    Bits ordered = kAllLanes;
    for (int k = 0; k < 3; ++k) {
        for (int v = 0; v < Tile::kVectors; ++v) {
            largest = larger(absolute(x[k][v]), largest);
            ordered &= lessEqual(x[k][v], x[k][v]);
        }
    }
    return ordered == kAllLanes ? greatest(largest) : __builtin_inff();
}

ZENR_INLINE __m128 sizeOf(__m128 x) {
    return _mm_and_ps(x, _mm_castsi128_ps(_mm_set1_epi32(0x7FFFFFFF)));
}

// Bounds of the directions: sixteen by sixteen and of all. Where one is NaN they are not looked at, because `reach` is
// infinite.
ZENR_INLINE void setBoxes(Tile& tile) {
    static_assert(Tile::kBoxes == 4, "a lane each");
    constexpr int kEach = kBoxRays / kLanes;
    __m128 lows[3], highs[3];
    Floats sum = {};
    for (int k = 0; k < 3; ++k) {
        __m128 low[4], high[4];
        for (int box = 0; box < 4; ++box) {
            const Floats* d = &tile.direction[k][box * kEach];
            Floats from = d[0], to = d[0];
            for (int v = 1; v < kEach; ++v) from = smaller(from, d[v]), to = larger(to, d[v]);
            for (int v = 0; v < kEach; ++v) sum = sum + d[v];
            low[box] = leastQuarter(from);
            high[box] = greatestQuarter(to);
        }
        lows[k] = leastOfEach(low[0], low[1], low[2], low[3]);
        highs[k] = greatestOfEach(high[0], high[1], high[2], high[3]);
        const __m128 half = _mm_set1_ps(0.5f);
        const __m128 middle = _mm_add_ps(_mm_mul_ps(half, lows[k]), _mm_mul_ps(half, highs[k]));
        // A little more than either side, for its rounding.
        const __m128 side = _mm_max_ps(_mm_sub_ps(highs[k], middle), _mm_sub_ps(middle, lows[k]));
        _mm_storeu_ps(tile.middle[k], middle);
        _mm_storeu_ps(tile.spread[k], _mm_add_ps(_mm_mul_ps(side, _mm_set1_ps(1 + 0x1p-20f)), _mm_set1_ps(1e-37f)));
    }
    const __m128 low = leastOfEach(lows[0], lows[1], lows[2], lows[2]);
    const __m128 high = greatestOfEach(highs[0], highs[1], highs[2], highs[2]);
    _mm_storeu_ps(tile.low, low);
    _mm_storeu_ps(tile.high, high);
    // The sum is NaN where a component is, or where components are infinite anyway.
    const __m128 size = _mm_max_ps(sizeOf(low), sizeOf(high));
    tile.reach = lessEqual(sum, sum) == kAllLanes ? greatestOfFour(size) : __builtin_inff();
}

void finishDirections(Tile& tile) {
    setBoxes(tile);
    for (int v = 0; v < Tile::kVectors; ++v) tile.direction[3][v] = tile.inverse[3][v] = Floats{};
    tile.negative[3] = 0;
}

// Lanes that are not among the `rays`, which are some, follow one that is: they widen no bounds.
void setDirections(Tile& tile, const RayBlock& block, const Place& place, Set64 rays) {
    for (int k = 0; k < 3; ++k) {
        gather(tile.direction[k], block.direction[k], place);
        if (rays != ~Set64(0)) {
            const Floats one = all(floatsOf(tile.direction[k])[__builtin_ctzll(rays)]);
            for (int v = 0; v < Tile::kVectors; ++v)
                tile.direction[k][v] = select(part(rays, v), tile.direction[k][v], one);
        }
    }
    finishDirections(tile);
}

void shareOrigin(Tile& tile, const float* origin) {
    for (int k = 0; k < 4; ++k) {
        tile.sharedOrigin[k] = k < 3 ? origin[k] : 0;
        tile.sharedFrom[k] = double(tile.sharedOrigin[k]);
    }
    tile.drift = 0;
}

void ownOrigins(Tile& tile, const RayBlock& block, const Place& place) {
    for (int k = 0; k < 3; ++k) gather(tile.origin[k], block.origins[k], place);
    for (int v = 0; v < Tile::kVectors; ++v) {
        tile.origin[3][v] = Floats{};
        for (int k = 0; k < 4; ++k) {
            tile.from[k][v][0] = toDoubles<0>(tile.origin[k][v]);
            tile.from[k][v][1] = toDoubles<1>(tile.origin[k][v]);
        }
    }
    tile.away = largestOf(tile.origin);
}

// Reciprocals and near children of one axis; returns the rays of v that are parallel to it.
ZENR_INLINE Bits setAxis(Tile& tile, int k, int v, float parallelInverse, bool segment) {
    const Floats d = tile.direction[k][v];
    const Bits parallel = lessEqual(absolute(d), all(kParallel));
    tile.inverse[k][v] = select(parallel, all(parallelInverse), all(1.f) / d);
    tile.negative[k] |= whole(less(d, Floats{}) & (segment ? kAllLanes : ~parallel), v);
    return parallel;
}

// Narrows the intervals of the rays that are not parallel to a slab.
ZENR_INLINE void clipSlab(Tile& tile, int v, Floats t1, Floats t2, Bits parallel) {
    tile.tmin[v] = select(parallel, tile.tmin[v], larger(smaller(t1, t2), tile.tmin[v]));
    tile.tmax[v] = select(parallel, tile.tmax[v], smaller(larger(t1, t2), tile.tmax[v]));
}

// Rays of v whose interval is not empty; it is set to reach a little behind the box. A maximum distance that is NaN is
// tmax's too: such a ray hits nothing, because no distance is less.
ZENR_INLINE Bits finishClip(Tile& tile, int v) {
    const Bits some = lessEqual(tile.tmin[v], tile.tmax[v]);
    tile.tmax[v] = tile.tmax[v] + all(kBehindBox);
    return some;
}

// What the bounds of a tile's directions tell about the slabs of the box: what each ray computes lies between what is
// computed from the bounds.
struct Slabs {
    bool oriented;             // no ray is parallel to an axis, and all agree about signs
    bool miss;                 // no ray meets the box
    bool enters[3], leaves[3]; // the slab may be the last that a ray enters, or the first that it leaves
    float first[3], second[3]; // the planes that come first and second, from the origin

    Slabs(const Tile& tile, const float* box) {
        float firstHigh[3] = {}, secondLow[3] = {};
        float enter = 0, leave = __builtin_inff();
        bool known = tile.reach < leave;
        oriented = known;
        for (int k = 0; k < 3; ++k) {
            const float low = tile.low[k], high = tile.high[k], origin = tile.sharedOrigin[k];
            const float from = box[k] - origin, to = box[3 + k] - origin;
            known = known && from <= to;
            first[k] = low < 0 ? to : from;
            second[k] = low < 0 ? from : to;
            enters[k] = leaves[k] = low > kParallel || high < -kParallel;
            if (!enters[k]) {
                oriented = false;
                continue;
            }
            const float a = first[k] / low, b = first[k] / high, c = second[k] / low, d = second[k] / high;
            enter = largerOf(enter, smallerOf(a, b));
            leave = smallerOf(leave, largerOf(c, d));
            firstHigh[k] = largerOf(a, b);
            secondLow[k] = smallerOf(c, d);
        }
        oriented = oriented && known;
        miss = known && enter > leave;
        for (int k = 0; k < 3; ++k) {
            enters[k] = enters[k] && firstHigh[k] >= enter;
            leaves[k] = leaves[k] && secondLow[k] <= leave;
        }
    }
};

// Clips rays of a shared origin to the box; returns those that meet it.
Set64 clipFromEye(Tile& tile, const float* box, const Slabs& slabs) {
    Set64 meets = 0;
    for (int k = 0; k < 3; ++k) tile.negative[k] = 0;
    for (int v = 0; v < Tile::kVectors; ++v) {
        tile.tmin[v] = Floats{};
        tile.tmax[v] = tile.best[v];
        for (int k = 0; k < 3; ++k) {
            const Bits parallel = setAxis(tile, k, v, kParallelInverseEye, false);
            const Floats d = tile.direction[k][v];
            if (slabs.oriented) {
                if (slabs.enters[k]) tile.tmin[v] = larger(all(slabs.first[k]) / d, tile.tmin[v]);
                if (slabs.leaves[k]) tile.tmax[v] = smaller(all(slabs.second[k]) / d, tile.tmax[v]);
            } else {
                clipSlab(tile, v, all(box[k] - tile.sharedOrigin[k]) / d, all(box[3 + k] - tile.sharedOrigin[k]) / d,
                         parallel);
            }
        }
        meets |= whole(finishClip(tile, v), v);
    }
    return meets;
}

// The same for rays with their own origins; those parallel to a slab have to be inside it.
Set64 clipOwn(Tile& tile, const float* box) {
    Set64 meets = 0;
    for (int k = 0; k < 3; ++k) tile.negative[k] = 0;
    for (int v = 0; v < Tile::kVectors; ++v) {
        tile.tmin[v] = Floats{};
        tile.tmax[v] = tile.best[v];
        Bits out = 0;
        for (int k = 0; k < 3; ++k) {
            const Bits parallel = setAxis(tile, k, v, kParallelInverse, false);
            const Floats o = tile.origin[k][v], inverse = tile.inverse[k][v];
            out |= parallel & ~(less(all(box[k]), o) & less(o, all(box[3 + k])));
            clipSlab(tile, v, (all(box[k]) - o) * inverse, (all(box[3 + k]) - o) * inverse, parallel);
        }
        meets |= whole(finishClip(tile, v) & ~out, v);
    }
    return meets;
}

void clearHits(Tile& tile) {
    for (int v = 0; v < Tile::kVectors; ++v) {
        tile.triangle[v] = all(int32_t(-1));
        tile.weight[0][v] = tile.weight[1][v] = Floats{};
    }
}

Set64 hits(const Tile& tile) {
    Set64 none = 0;
    for (int v = 0; v < Tile::kVectors; ++v) none |= whole(equal(tile.triangle[v], all(int32_t(-1))), v);
    return ~none;
}

// Walks with the rays of each octant of directions in turn. False as for walk().
template <class Search> bool walkOctants(const RayBlock& block, Tile& tile, Set64 rays) {
    while (rays) {
        const int first = __builtin_ctzll(rays);
        Set64 octant = rays;
        for (int k = 0; k < 3; ++k) octant &= tile.negative[k] >> first & 1 ? tile.negative[k] : ~tile.negative[k];
        if (!walk<Search>(block.root, block.accel, tile, octant)) return false;
        rays &= ~octant;
    }
    return true;
}

// Calls one(index) for each ray of a set.
template <class One> void eachRay(const Place& place, Set64 rays, const One& one) {
    for (; rays; rays &= rays - 1) {
        const int lane = __builtin_ctzll(rays);
        one(place.start[lane / 4] + size_t(lane % 4));
    }
}

// ---- The four searches --------------------------------------------------------------------------------------------

void storeNearest(const RayBlock& block, Tile& tile, const Place& place) {
    scatter(block.triangle, reinterpret_cast<int*>(tile.triangle), place, place.rays);
    const Set64 hit = hits(tile) & place.rays;
    scatter(block.distance, floatsOf(tile.best), place, hit);
    scatter(block.hit[1], floatsOf(tile.weight[1]), place, hit);
    scatter(block.hit[0], floatsOf(tile.weight[0]), place, hit);
}

void eye(const RayBlock& block) {
    const Tiling tiling(block);
    Tile tile;
    shareOrigin(tile, block.origin);
    for (size_t i = 0; i < tiling.count; ++i) {
        Place place;
        tiling.place(i, place);
        setDirections(tile, block, place, place.rays);
        prefetchLater(block, tiling, i);
        clearHits(tile);
        const Slabs slabs(tile, block.box);
        if (slabs.miss) {
            scatter(block.triangle, reinterpret_cast<int*>(tile.triangle), place, place.rays);
            continue;
        }
        gather(tile.best, block.distance, place);
        const Set64 rays = clipFromEye(tile, block.box, slabs) & place.rays;
        if (walkOctants<EyeTile>(block, tile, rays)) {
            storeNearest(block, tile, place);
            continue;
        }
        eachRay(place, place.rays, [&](size_t at) {
            const float* const direction[3] = {block.direction[0] + at, block.direction[1] + at,
                                               block.direction[2] + at};
            float* const hit[2] = {block.hit[0] + at, block.hit[1] + at};
            oneRayEyeBlock(block.origin, direction, block.box, block.accel, block.root, block.distance + at, hit,
                           block.triangle + at, 1);
        });
    }
}

void nearestOneByOne(const RayBlock& block, const Place& place) {
    eachRay(place, place.rays, [&](size_t at) {
        const float* const origin[3] = {block.origins[0] + at, block.origins[1] + at, block.origins[2] + at};
        const float* const direction[3] = {block.direction[0] + at, block.direction[1] + at, block.direction[2] + at};
        float* const hit[2] = {block.hit[0] + at, block.hit[1] + at};
        oneRayBlock(origin, direction, block.box, block.accel, block.root, block.distance + at, hit,
                    block.triangle + at, 1);
    });
}

// Whether a tile's rays keep together: one octant, and directions that differ by less than a quarter of the largest.
bool keepTogether(const Tile& tile, Set64 rays) {
    for (int k = 0; k < 3; ++k) {
        if ((tile.negative[k] & rays) != 0 && (tile.negative[k] & rays) != rays) return false;
        Floats low = all(__builtin_inff()), high = all(-__builtin_inff());
        for (int v = 0; v < Tile::kVectors; ++v) {
            low = smaller(select(part(rays, v), tile.direction[k][v], low), low);
            high = larger(select(part(rays, v), tile.direction[k][v], high), high);
        }
        if (!(greatest(high) - least(low) <= 0.25f * tile.reach)) return false;
    }
    return true;
}

// The rays of some tiles that are to walk as lists: their number in the stream is the tile's, times 64, and the lane.
struct Batch {
    int tiles;
    Set64 rays[kStreamRays / 64];
    Set64 negative[3][kStreamRays / 64];
};

void addToStream(Stream& stream, int slot, Tile& tile) {
    const auto fours = [](const Floats* from, int p) {
        return _mm_loadu_ps(reinterpret_cast<const float*>(from) + 4 * p);
    };
    for (int p = 0; p < kPieces; ++p) {
        StreamRay* const rays = &stream.ray[slot * 64 + 4 * p];
        __m128 origin[4], direction[4], inverse[4];
        for (int k = 0; k < 3; ++k) {
            origin[k] = fours(tile.origin[k], p);
            direction[k] = fours(tile.direction[k], p);
            inverse[k] = fours(tile.inverse[k], p);
            float* const line = stream.line[k][slot * 64 + 4 * p];
            _mm_storeu_ps(line, _mm_unpacklo_ps(origin[k], inverse[k]));
            _mm_storeu_ps(line + 4, _mm_unpackhi_ps(origin[k], inverse[k]));
        }
        origin[3] = fours(tile.best, p);
        _mm_storeu_ps(stream.best + slot * 64 + 4 * p, origin[3]);
        direction[3] = fours(tile.tmin, p);
        inverse[3] = fours(tile.tmax, p);
        _MM_TRANSPOSE4_PS(origin[0], origin[1], origin[2], origin[3]);
        _MM_TRANSPOSE4_PS(direction[0], direction[1], direction[2], direction[3]);
        _MM_TRANSPOSE4_PS(inverse[0], inverse[1], inverse[2], inverse[3]);
        for (int i = 0; i < 4; ++i) {
            _mm_storeu_ps(rays[i].origin, origin[i]);
            _mm_storeu_ps(rays[i].direction, direction[i]);
            _mm_storeu_ps(rays[i].inverse, inverse[i]);
            rays[i].triangle = -1;
        }
    }
    stream.reach.direction = largerOf(stream.reach.direction, tile.reach);
    stream.reach.origin = largerOf(stream.reach.origin, tile.away);
}

// Walks with all rays of a batch, octant after octant. False as for walk().
bool walkBatch(const RayBlock& block, Stream& stream, const Batch& batch) {
    for (int octant = 0; octant < 8; ++octant) {
        const int nearChild[4] = {octant & 1, octant >> 1 & 1, octant >> 2 & 1, 0};
        int count = 0;
        for (int slot = 0; slot < batch.tiles; ++slot) {
            Set64 rays = batch.rays[slot];
            for (int k = 0; k < 3; ++k) rays &= nearChild[k] ? batch.negative[k][slot] : ~batch.negative[k][slot];
            for (; rays; rays &= rays - 1) {
                const uint32_t ray = uint32_t(slot * 64 + __builtin_ctzll(rays));
                stream.listRay[count] = ray;
                stream.listMin[count] = stream.ray[ray].tmin;
                stream.listMax[count++] = stream.ray[ray].tmax;
            }
        }
        if (count && !walkStream<NearestTile>(stream, block.accel, block.root, count, nearChild)) return false;
    }
    return true;
}

void nearest(const RayBlock& block) {
    const Tiling tiling(block);
    constexpr size_t most = kStreamRays / 64;
    Stream stream;
    Tile tile;
    Batch batch;
    for (size_t first = 0; first < tiling.count; first += most) {
        batch.tiles = 0;
        stream.reach = {0, 0};
        size_t places[most];
        for (size_t i = first; i < tiling.count && i < first + most; ++i) {
            Place place;
            tiling.place(i, place);
            setDirections(tile, block, place, place.rays);
            ownOrigins(tile, block, place);
            gather(tile.best, block.distance, place);
            clearHits(tile);
            const Set64 rays = clipOwn(tile, block.box) & place.rays;
            if (rays && tiling.count > 1 && !keepTogether(tile, rays)) {
                addToStream(stream, batch.tiles, tile);
                batch.rays[batch.tiles] = rays;
                for (int k = 0; k < 3; ++k) batch.negative[k][batch.tiles] = tile.negative[k];
                places[batch.tiles++] = i;
                continue;
            }
            if (walkOctants<NearestTile>(block, tile, rays))
                storeNearest(block, tile, place);
            else
                nearestOneByOne(block, place);
        }
        const bool done = walkBatch(block, stream, batch);
        for (int slot = 0; slot < batch.tiles; ++slot) {
            Place place;
            tiling.place(places[slot], place);
            if (!done) {
                nearestOneByOne(block, place);
                continue;
            }
            for (int lane = 0; lane < 64; ++lane) {
                const StreamRay& ray = stream.ray[slot * 64 + lane];
                floatsOf(tile.best)[lane] = ray.best;
                for (int w = 0; w < 2; ++w) floatsOf(tile.weight[w])[lane] = ray.weight[w];
                reinterpret_cast<int*>(tile.triangle)[lane] = ray.triangle;
            }
            storeNearest(block, tile, place);
        }
    }
}

// Sets segments up, and finds what blocks them. False as for walk().
bool walkSegments(const RayBlock& block, Tile& tile, Set64 rays) {
    for (int k = 0; k < 3; ++k) tile.negative[k] = 0;
    for (int v = 0; v < Tile::kVectors; ++v) {
        tile.tmin[v] = Floats{};
        tile.tmax[v] = all(kSegmentEnd);
        for (int k = 0; k < 3; ++k) setAxis(tile, k, v, kParallelInverse, true);
    }
    return walkOctants<SegmentTile>(block, tile, rays);
}

void anyOneByOne(const RayBlock& block, size_t at) {
    const float* const direction[3] = {block.direction[0] + at, block.direction[1] + at, block.direction[2] + at};
    oneRayAnyBlock(block.origin, direction, block.accel, block.root, block.triangle + at, block.mask + at, 1);
}

// The rays of a tile that are to be searched.
Set64 unmasked(const RayBlock& block, const Place& place, int (&mask)[64]) {
    gather(reinterpret_cast<Floats*>(mask), block.mask, place);
    Set64 rays = place.rays;
    for (int v = 0; v < Tile::kVectors; ++v) {
        Ints m;
        __builtin_memcpy(&m, mask + v * kLanes, sizeof m);
        rays &= ~whole(equal(m >> 31, all(int32_t(-1))), v);
    }
    return rays;
}

void anyInTile(const RayBlock& block, Tile& tile, const Place& place) {
    alignas(64) int mask[64];
    const Set64 rays = unmasked(block, place, mask);
    clearHits(tile);
    if (rays) {
        setDirections(tile, block, place, rays);
        if (!walkSegments(block, tile, rays)) {
            eachRay(place, place.rays, [&](size_t at) { anyOneByOne(block, at); });
            return;
        }
    }
    scatter(block.triangle, reinterpret_cast<int*>(tile.triangle), place, place.rays);
    const Set64 hit = hits(tile) & rays;
    if (hit) {
        for (int& m : mask) m = -1;
        scatter(block.mask, mask, place, hit);
    }
}

// Rays of some tiles in the order of their directions; a ray's number is its tile's, times 64, and the lane.
constexpr int kOrderTiles = kOrderRays / 64;
struct Order {
    uint32_t words[kOrderRays]; // keys, and numbers
    size_t start[kOrderTiles][kPieces];
    int count;

    size_t placeOf(int i) const {
        const uint32_t number = words[i] & (kOrderRays - 1);
        return start[number / 64][number % 64 / 4] + number % 4;
    }
};
constexpr float kApart = 1.15f; // tiles that span so much more than they would in order are put in order

// The rays of a tile that are to be searched, and the charts of all.
Set64 chartTile(const RayBlock& block, const Place& place, Tile& tile, Chart (&charts)[Tile::kVectors]) {
    alignas(64) int mask[64];
    const Set64 rays = unmasked(block, place, mask);
    if (!rays) return 0;
    for (int k = 0; k < 3; ++k) gather(tile.direction[k], block.direction[k], place);
    for (int v = 0; v < Tile::kVectors; ++v)
        charts[v] = chartOf(tile.direction[0][v], tile.direction[1][v], tile.direction[2][v]);
    return rays;
}

// What the directions of every so many tiles' rays range over; `perimeters` is that of each tile by itself, times its
// rays.
ChartRange rangeOf(const RayBlock& block, const Tiling& tiling, size_t first, size_t count, size_t step, Tile& tile,
                   int& rays, float& perimeters) {
    ChartRange range;
    rays = 0;
    perimeters = 0;
    for (size_t i = 0; i < count; i += step) {
        Place place;
        tiling.place(first + i, place);
        Chart charts[Tile::kVectors];
        const Set64 set = chartTile(block, place, tile, charts);
        if (!set) continue;
        ChartRange here;
        for (int v = 0; v < Tile::kVectors; ++v) here.add(charts[v], part(set, v));
        rays += __builtin_popcountll(set);
        perimeters += float(__builtin_popcountll(set)) * here.perimeter();
        range.add(here);
    }
    return range;
}

// Orders the rays of tiles from `first` on that are to be searched, unless they keep together where they are.
bool orderRays(const RayBlock& block, const Tiling& tiling, size_t first, size_t count, Tile& tile, Order& order) {
    // A look at some of the tiles: ordered, each sixty-four rays would have their share of the range.
    constexpr size_t kStep = 5;
    int rays;
    float perimeters;
    const float wide = rangeOf(block, tiling, first, count, kStep, tile, rays, perimeters).perimeter();
    const float share = wide * sqrtf(64.f / float(kStep * size_t(rays)));
    if (rays < 64 || !(perimeters > kApart * float(rays) * share)) return false;

    const KeyScale scale(rangeOf(block, tiling, first, count, 1, tile, order.count, perimeters));
    uint32_t other[kOrderRays];
    int at = 0;
    for (size_t i = 0; i < count; ++i) {
        Place place;
        tiling.place(first + i, place);
        __builtin_memcpy(order.start[i], place.start, sizeof place.start);
        Chart charts[Tile::kVectors];
        const Set64 set = chartTile(block, place, tile, charts);
        for (int v = 0; v < Tile::kVectors; ++v) {
            Bits bits = part(set, v);
            if (!bits) continue;
            const Ints key = scale.key(charts[v]);
            for (; bits; bits &= bits - 1) {
                const int lane = __builtin_ctz(bits);
                order.words[at++] = uint32_t(key[lane]) << kOrderBits | uint32_t(int(i) * 64 + v * kLanes + lane);
            }
        }
    }
    sortByKey(order.words, other, at);
    return true;
}

// Sixty-four after sixty-four.
void anyInOrder(const RayBlock& block, Tile& tile, const Order& order) {
    for (int i = 0; i < order.count; i += 64) {
        const int count = order.count - i < 64 ? order.count - i : 64;
        for (int lane = 0; lane < 64; ++lane) {
            const size_t at = order.placeOf(i + (lane < count ? lane : 0));
            for (int k = 0; k < 3; ++k) floatsOf(tile.direction[k])[lane] = block.direction[k][at];
        }
        finishDirections(tile);
        clearHits(tile);
        const Set64 rays = count == 64 ? ~Set64(0) : (Set64(1) << count) - 1;
        if (!walkSegments(block, tile, rays)) {
            for (int lane = 0; lane < count; ++lane) anyOneByOne(block, order.placeOf(i + lane));
            continue;
        }
        for (Set64 hit = hits(tile) & rays; hit; hit &= hit - 1) {
            const int lane = __builtin_ctzll(hit);
            const size_t at = order.placeOf(i + lane);
            block.triangle[at] = reinterpret_cast<const int*>(tile.triangle)[lane];
            block.mask[at] = -1;
        }
    }
}

void any(const RayBlock& block) {
    const Tiling tiling(block);
    Tile tile;
    shareOrigin(tile, block.origin);
    Order order;
    for (size_t first = 0; first < tiling.count; first += kOrderTiles) {
        const size_t left = tiling.count - first, count = left < size_t(kOrderTiles) ? left : size_t(kOrderTiles);
        if (tiling.count > 1 && orderRays(block, tiling, first, count, tile, order)) {
            for (size_t i = 0; i < count; ++i) {
                Place place;
                tiling.place(first + i, place);
                clearHits(tile);
                scatter(block.triangle, reinterpret_cast<int*>(tile.triangle), place, place.rays);
            }
            anyInOrder(block, tile, order);
            continue;
        }
        for (size_t i = 0; i < count; ++i) {
            Place place;
            tiling.place(first + i, place);
            prefetchLater(block, tiling, first + i);
            anyInTile(block, tile, place);
        }
    }
}

// Moves the rays of a vector along their directions.
ZENR_INLINE void stepAlong(Tile& tile, int v, Floats t) {
    for (int k = 0; k < 3; ++k) {
        Doubles& low = tile.from[k][v][0];
        Doubles& high = tile.from[k][v][1];
        low = low + toDoubles<0>(tile.direction[k][v]) * toDoubles<0>(t);
        high = high + toDoubles<1>(tile.direction[k][v]) * toDoubles<1>(t);
    }
}

// Writes the hits of a layer, whose results begin at `at`.
void storeLayer(const RayBlock& block, Tile& tile, const Place& place, size_t at, Set64 hit,
                Floats (&total)[Tile::kVectors]) {
    scatter(block.triangle + at, reinterpret_cast<int*>(tile.triangle), place, hit);
    scatter(block.hit[0] + at, floatsOf(tile.weight[0]), place, hit);
    scatter(block.hit[1] + at, floatsOf(tile.weight[1]), place, hit);
    scatter(block.distance + at, floatsOf(total), place, hit);
}

// The successive hits of one ray from what was gathered; false where searches have to tell.
bool multipleOfOne(const RayBlock& block, GatheringTile& tile, int ray, size_t at, float maximum) {
    const size_t stride = size_t(block.width) * size_t(block.height);
    const float tmin = floatsOf(tile.tmin)[ray], tmax = floatsOf(tile.tmax)[ray];
    float direction[3];
    LineRay line;
    for (int k = 0; k < 3; ++k) {
        line.point[k] = tile.sharedFrom[k];
        direction[k] = floatsOf(tile.direction[k])[ray];
    }
    line.direction = componentsOf(direction[0], direction[1], direction[2]);
    int recent[kRing];
    line.recent = recent;
    line.previous = -1;
    line.best = maximum;
    double p = 0;
    float total = 0;
    for (int layer = 0;; at += stride) {
        line.recentCount = layer % kRing;
        const Verdict verdict = decide(line, tile, ray, block.accel, p);
        if (verdict != Verdict::hit) return verdict == Verdict::nothing;
        const float t = line.best;
        total = layer > 0 ? t + total : t;
        block.triangle[at] = line.previous = recent[layer % kRing] = line.triangle;
        block.hit[0][at] = line.weight[0];
        block.hit[1][at] = line.weight[1];
        block.distance[at] = total;
        if (++layer == block.maxHits) return true;
        p += double(t);
        if (!(p >= double(tmin) && p <= double(tmax - kInside))) return false;
        for (int k = 0; k < 3; ++k) line.point[k] += double(direction[k]) * double(t);
        block.distance[at + stride] = line.best = FLT_MAX;
    }
}

// The successive hits of rays from what one walk gathers; returns the rays that are left to searches.
Set64 multipleAtOnce(const RayBlock& block, GatheringTile& tile, const Place& place, Set64 rays,
                     const Floats (&maximum)[Tile::kVectors], float eye) {
    if (block.maxHits < 2 || block.maxHits + kSpare > kPlaces || !mayGather(tile, rays, block.box)) return rays;
    float far = eye; // the largest component of any origin
    for (int k = 0; k < 6; ++k) far = largerOf(far, fabsf(block.box[k]) + tile.reach);
    tile.drift = far * float(block.maxHits + 16) * 0x1p-48f;
    tile.clear(block.maxHits);
    if (!walk<GatherTile>(block.root, block.accel, tile, rays)) return rays;
    gatherQueue(block.accel, tile);

    const size_t stride = size_t(block.width) * size_t(block.height);
    Floats total[Tile::kVectors];     // distance from the eye
    Doubles along[Tile::kVectors][2]; // the same, not rounded
    Set64 left = tile.unsure & rays;
    for (int v = 0; v < Tile::kVectors; ++v) {
        left |= whole(~lessEqual(tile.tmax[v], maximum[v]) & part(rays, v), v);
        for (int k = 0; k < 3; ++k) tile.from[k][v][0] = tile.from[k][v][1] = all(tile.sharedFrom[k]);
        tile.best[v] = maximum[v];
        total[v] = Floats{};
        along[v][0] = along[v][1] = Doubles{};
    }
    Set64 close = 0; // rays that need a closer look
    Set64 on = rays & ~left;
    for (int layer = 0; on; ++layer) {
        const size_t at = size_t(layer) * stride;
        Set64 hit = 0, inside = 0;
        for (int v = 0; v < Tile::kVectors; ++v) {
            const Bits bits = part(on, v);
            if (!bits) continue;
            const NextHits next = nextHits(tile, v, bits, layer, tile.best[v], block.accel);
            hit |= whole(next.hit, v);
            close |= whole(bits & ~next.hit & ~next.nothing, v);
            const Floats t = select(next.hit, next.t, Floats{});
            total[v] = layer > 0 ? t + total[v] : t;
            tile.triangle[v] = next.triangle;
            for (int w = 0; w < 2; ++w) tile.weight[w][v] = next.weight[w];
            along[v][0] = along[v][0] + toDoubles<0>(t);
            along[v][1] = along[v][1] + toDoubles<1>(t);
            stepAlong(tile, v, t);
            const Floats p = toFloats(along[v][0], along[v][1]);
            inside |= whole(less(tile.tmin[v], p) & less(p, tile.tmax[v] - all(kInside)), v);
            tile.best[v] = all(FLT_MAX);
        }
        storeLayer(block, tile, place, at, hit, total);
        if (layer + 1 == block.maxHits) break;
        scatter(block.distance + at + stride, floatsOf(tile.best), place, hit);
        left |= hit & ~inside;
        on = hit & inside;
    }
    for (; close; close &= close - 1) {
        const int ray = __builtin_ctzll(close);
        if (!multipleOfOne(block, tile, ray, place.start[ray / 4] + size_t(ray % 4),
                           reinterpret_cast<const float*>(maximum)[ray]))
            left |= Set64(1) << ray;
    }
    return left;
}

// Layer after layer: one walk finds the next hits of all rays of a tile that have had one so far. False as for walk().
bool multipleInLayers(const RayBlock& block, Tile& tile, const Place& place, Set64 rays, float eye) {
    const size_t stride = size_t(block.width) * size_t(block.height);
    for (int v = 0; v < Tile::kVectors; ++v) {
        for (int k = 0; k < 4; ++k) {
            tile.origin[k][v] = all(tile.sharedOrigin[k]);
            tile.from[k][v][0] = tile.from[k][v][1] = all(tile.sharedFrom[k]);
        }
        tile.previous[v] = all(int32_t(-1));
    }
    tile.drift = 0;
    Floats total[Tile::kVectors]; // distance from the eye
    for (int layer = 0; rays; ++layer) {
        const size_t at = size_t(layer) * stride;
        tile.recentCount = layer % kRing;
        clearHits(tile);
        if (layer == 0) {
            if (!walkOctants<FirstTile>(block, tile, rays)) return false;
        } else {
            // Each layer adds two roundings of coordinates up to this to an origin, and the test some more.
            tile.drift = largerOf(largestOf(tile.origin), eye) * float(layer + 16) * 0x1p-48f;
            if (!walkOctants<SuccessiveTile>(block, tile, rays)) return false;
        }
        const Set64 hit = hits(tile) & rays;
        for (int v = 0; v < Tile::kVectors; ++v) {
            // Rays that have ended stay where they are: what follows bounds all origins.
            const Floats t = select(part(hit, v), tile.best[v], Floats{});
            total[v] = layer > 0 ? t + total[v] : t;
            tile.previous[v] = tile.recent[layer % kRing][v] = tile.triangle[v];
            Floats exit = all(FLT_MAX);
            stepAlong(tile, v, t);
            for (int k = 0; k < 3; ++k) {
                const Floats o = tile.origin[k][v] = toFloats(tile.from[k][v][0], tile.from[k][v][1]);
                const Floats inverse = tile.inverse[k][v];
                exit = smaller(larger((all(block.box[k]) - o) * inverse, (all(block.box[3 + k]) - o) * inverse), exit);
            }
            tile.tmin[v] = Floats{};
            tile.tmax[v] = exit + all(kBehindBox);
            tile.best[v] = all(FLT_MAX);
        }
        storeLayer(block, tile, place, at, hit, total);
        rays = hit;
        if (layer + 1 == block.maxHits) break;
        // Only the first layer honours the caller's maximum distance.
        scatter(block.distance + at + stride, floatsOf(tile.best), place, rays);
    }
    return true;
}

void multiple(const RayBlock& block) {
    const Tiling tiling(block);
    const size_t stride = size_t(block.width) * size_t(block.height);
    GatheringTile tile;
    shareOrigin(tile, block.origin);
    float eye = 0; // the largest component of the shared origin
    for (int k = 0; k < 3; ++k) eye = largerOf(eye, fabsf(block.origin[k]));
    for (size_t i = 0; i < tiling.count; ++i) {
        Place place;
        tiling.place(i, place);
        setDirections(tile, block, place, place.rays);
        gather(tile.best, block.distance, place);
        Floats maximum[Tile::kVectors];
        for (int v = 0; v < Tile::kVectors; ++v) maximum[v] = tile.best[v];
        const Set64 rays = clipFromEye(tile, block.box, Slabs(tile, block.box)) & place.rays;
        if (!rays) continue;
        const Set64 left = multipleAtOnce(block, tile, place, rays, maximum, eye);
        for (int v = 0; v < Tile::kVectors; ++v) tile.best[v] = maximum[v];
        if (multipleInLayers(block, tile, place, left, eye)) continue;
        // What is written already is written again, with the same bits.
        scatter(block.distance, floatsOf(maximum), place, left);
        eachRay(place, left, [&](size_t at) {
            const float* const direction[3] = {block.direction[0] + at, block.direction[1] + at,
                                               block.direction[2] + at};
            float* const hit[2] = {block.hit[0] + at, block.hit[1] + at};
            oneRayMultipleBlock(block.origin, direction, block.box, block.accel, block.root, block.distance + at, hit,
                                block.triangle + at, 1, stride, block.maxHits);
        });
    }
}

} // namespace

extern const PacketKernels kPackets;
const PacketKernels kPackets = {nearest, eye, any, multiple};

} // namespace ZENR_LEVEL
} // namespace zenr
