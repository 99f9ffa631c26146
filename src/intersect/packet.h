// Up to sixteen rays with origins of their own through a subtree: what lists end in. The rays go apart, so that a leaf is
// come to by few of them; nothing is gained from bounds over all of them.
#pragma once
#include "intersect/few.h"
#include "intersect/tile.h"

namespace zenr {
namespace ZENR_LEVEL {

constexpr int kPacketRays = 16;
constexpr int kPacketVectors = kPacketRays / kLanes;
constexpr uint32_t kAtOnce = kLanes; // triangles of a leaf
typedef uint32_t PacketSet;

// A ray and what it has found: one cache line.
struct alignas(64) StreamRay {
    float origin[3], best;
    float direction[3], tmin; // the interval within the box
    float inverse[3], tmax;
    float weight[2];
    int triangle, unused;
};
constexpr int kRayWords = int(sizeof(StreamRay) / sizeof(float));

ZENR_INLINE Floats loadLanes(const float* from) {
    Floats x;
    __builtin_memcpy(&x, from, sizeof x);
    return x;
}

// Three components and a fourth float of each lane's ray: lanes behind `count` repeat the first.
ZENR_INLINE void loadRays(const float* first, const uint32_t* number, int at, int count, Floats (&out)[4]) {
    const auto row = [&](int lane) {
        return _mm_loadu_ps(first + size_t(kRayWords) * number[at + lane < count ? at + lane : 0]);
    };
    turnRows(row, out[0], out[1], out[2], out[3]);
}

// Rays by their numbers, for testRow().
struct Packet {
    static constexpr int kVectors = kPacketVectors;
    StreamRay* first;
    float* bests;
    const uint32_t* number;
    Floats best[kVectors]; // the rays' own, once more

    ZENR_INLINE StreamRay& at(int ray) const { return first[number[ray]]; }
    ZENR_INLINE float bestOf(int ray) const { return at(ray).best; }
    ZENR_INLINE Components toward(int ray) const { return componentsAt(at(ray).direction); }
    ZENR_INLINE Components fromOf(int ray) const { return componentsAt(at(ray).origin); }
    ZENR_INLINE void take(int ray, float t, float weight0, float weight1, int number) {
        reinterpret_cast<float*>(best)[ray] = t;
        StreamRay& r = at(ray);
        r.best = bests[this->number[ray]] = t;
        r.weight[0] = weight0;
        r.weight[1] = weight1;
        r.triangle = number;
    }
};

struct PendingPacket {
    const ZenrKDTreeNode* node;
    PacketSet always; // these did not visit the near child
    PacketSet unless; // these did, and stop there if what they found ends before tmin
    int depth;
    Floats tmin[kPacketVectors], tmax[kPacketVectors];
};

// The rays of `set` that have found nothing up to `t`.
ZENR_INLINE PacketSet goOnFrom(const Floats (&best)[kPacketVectors], const Floats (&t)[kPacketVectors], PacketSet set) {
    PacketSet stops = 0;
    for (int v = 0; v < kPacketVectors; ++v) stops |= lessEqual(best[v], t[v]) << (v * kLanes);
    return set & ~stops;
}

// Walks with the rays that `number` lists over their intervals; they agree about near children. False where the tree
// needs more than `room` pending entries.
template <class Search>
bool walkPacket(StreamRay* first, float* bests, const uint32_t* number, const float* tmins, const float* tmaxs,
                int count, const ZenrKDTreeNode* node, const ZenrTriangleAccel* accel, const Reach& reach,
                const int (&nearChild)[4], int room) {
    constexpr int kVectors = kPacketVectors;
    PendingPacket stack[kMaxTreeDepth];
    Packet packet;
    packet.first = first;
    packet.bests = bests;
    packet.number = number;
    Floats origin[4][kVectors], inverse[4][kVectors], tmin[kVectors], tmax[kVectors];
    for (int v = 0; v < kVectors; ++v) {
        const int at = v * kLanes;
        Floats x[4];
        loadRays(first->origin, number, at, count, x);
        for (int k = 0; k < 3; ++k) origin[k][v] = x[k];
        packet.best[v] = x[3];
        loadRays(first->inverse, number, at, count, x);
        for (int k = 0; k < 3; ++k) inverse[k][v] = x[k];
        origin[3][v] = inverse[3][v] = Floats{};
        tmin[v] = loadLanes(tmins + at);
        tmax[v] = loadLanes(tmaxs + at);
    }
    const Floats tolerance = all(Search::kTolerance);
    PacketSet active = (PacketSet(1) << count) - 1;
    int pending = 0, depth = 0; // entries, and those that were left out because their leaf is empty

    for (;;) {
        while (!(node->w0 & kLeafBit)) {
            const auto [axis, split, children] = interiorOf(node);
            const ZenrKDTreeNode* nearer = children + nearChild[axis];
            const ZenrKDTreeNode* farther = children + (1 - nearChild[axis]);
            prefetchBelow(nearer, accel);
            prefetchBelow(farther, accel);

            Floats middle[kVectors];
            PacketSet farOnly = 0, nearOnly = 0;
            for (int v = 0; v < kVectors; ++v) {
                const Floats t = (all(split) - origin[axis][v]) * inverse[axis][v];
                farOnly |= less(tolerance, tmin[v] - t) << (v * kLanes);
                nearOnly |= less(tolerance, t - tmax[v]) << (v * kLanes);
                middle[v] = larger(tmin[v], smaller(t, tmax[v]));
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

            const PacketSet both = active & ~farOnly & ~nearOnly;
            if (depth == room) return false;
            if (isEmptyLeaf(nearer)) {
                active = farOnly | goOnFrom(packet.best, middle, both);
                if (!active) break;
                for (int v = 0; v < kVectors; ++v) tmin[v] = select(part(both, v), middle[v], tmin[v]);
                node = farther;
                continue;
            }
            ++depth;
            if (!isEmptyLeaf(farther)) {
                PendingPacket& later = stack[pending++];
                later.node = farther;
                later.always = farOnly;
                later.unless = both;
                later.depth = depth - 1;
                for (int v = 0; v < kVectors; ++v) {
                    later.tmin[v] = select(part(both, v), middle[v], tmin[v]);
                    later.tmax[v] = tmax[v];
                }
            }
            for (int v = 0; v < kVectors; ++v) tmax[v] = select(part(both, v), middle[v], tmax[v]);
            active &= ~farOnly;
            node = nearer;
        }

        if (active && (node->w0 & kLeafBit)) {
            if (pending) {
                prefetchLeaf(stack[pending - 1].node, accel);
            }
            const LeafList leaf(node);
            const auto atMost = [&](uint32_t from, uint32_t most) {
                return int(leaf.count - from < most ? leaf.count - from : most);
            };
            prefetchRecords(accel, leaf.list, atMost(0, 2 * kAtOnce));
            int batch;
            for (uint32_t done = 0; done < leaf.count; done += batch) {
                batch = atMost(done, kAtOnce);
                const int* const list = leaf.list + done;
                if (done + 2 * kAtOnce < leaf.count)
                    prefetchRecords(accel, list + 2 * kAtOnce, atMost(done + 2 * kAtOnce, kAtOnce));
                QuickRow quick;
                load(quick, list, batch, accel, reach);
                PacketSet rays = 0;
                Bits triangles = 0;
                for (PacketSet left = active; left; left &= left - 1) {
                    const int ray = lowestOf(left);
                    const StreamRay& r = packet.at(ray);
                    const Bits here = inQuestion(quick, r.origin, r.direction);
                    triangles |= here;
                    rays |= here ? PacketSet(1) << ray : 0;
                }
                while (triangles) {
                    int chosen[kHalf], n = 0;
                    for (; triangles && n < kHalf; triangles &= triangles - 1) chosen[n++] = list[lowestOf(triangles)];
                    Row r;
                    load(r, chosen, n, accel);
                    testRow<Search>(r, chosen, packet, rays);
                }
            }
        }

        do {
            if (pending == 0) return true;
            const PendingPacket& next = stack[--pending];
            active = next.always | goOnFrom(packet.best, next.tmin, next.unless);
            node = next.node;
            depth = next.depth;
            for (int v = 0; v < kVectors; ++v) {
                tmin[v] = next.tmin[v];
                tmax[v] = next.tmax[v];
            }
        } while (!active);
    }
}

} // namespace ZENR_LEVEL
} // namespace zenr
