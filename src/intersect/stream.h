// Rays that go apart: a thousand with origins of their own walk the tree as lists. At a node a list is split into the rays
// of each child, packed again; what is left of a list when it has become short finishes its subtree as a packet of
// sixteen. So a packet is made of rays that have come to the same place, wherever they set out. (Boulos and others,
// "Adaptive Ray Packet Reordering", 2008; Tsakok, "Faster Incoherent Rays", 2009.)
//
// As in a tile, every ray keeps its own interval and stop rule, and sees nodes and triangles in the order of its own.
#pragma once
#include "intersect/packet.h"

namespace zenr {
namespace ZENR_LEVEL {

// In the frame of whoever has the rays traced, 166 KiB: more rays would find no more company.
constexpr int kStreamRays = 1024;
constexpr int kListRoom = 6 * kStreamRays + 2 * kLanes;

struct Stream {
    StreamRay ray[kStreamRays];
    // Once more what lists ask for: an axis' origins and reciprocals fit the nearest cache.
    float line[3][kStreamRays][2];
    float best[kStreamRays];
    Reach reach;
    // Lists: the number of a ray, and its interval. In a list that is pending, kStopsIfFound marks the rays that visit the
    // near child before and stop if what they find there ends before tmin.
    uint32_t listRay[kListRoom];
    float listMin[kListRoom];
    float listMax[kListRoom];
};

constexpr uint32_t kStopsIfFound = 0x80000000u;

// The number of the ray at an element of a list, or of any where a list has ended.
ZENR_INLINE auto rayFrom(const Stream& stream, int at) {
    return [number = stream.listRay + at](int lane) { return number[lane] & uint32_t(kStreamRays - 1); };
}

ZENR_INLINE Ints loadLanes(const uint32_t* from) {
    Ints x;
    __builtin_memcpy(&x, from, sizeof x);
    return x;
}

// Writes the lanes of `bits` one after the other; what follows them, up to a register, is overwritten too.
ZENR_INLINE void pack(Bits bits, Ints ray, Floats tmin, Floats tmax, Stream& stream, int at) {
    storePacked(stream.listRay + at, bits, ray);
    storePacked(stream.listMin + at, bits, (Ints)tmin);
    storePacked(stream.listMax + at, bits, (Ints)tmax);
}

ZENR_INLINE int countOf(Bits bits) {
    return __builtin_popcount(bits);
}

struct List {
    const ZenrKDTreeNode* node;
    int begin, count;
    int depth; // at least the entries that are pending for a ray
};

// Lanes of a list from its element `at` on that belong to it.
ZENR_INLINE Bits lanesLeft(int at, int count) {
    return count - at >= kLanes ? kAllLanes : count > at ? (Bits(1) << (count - at)) - 1 : 0;
}

// Splits a list at an interior node: the near child's rays stay in its place, the far child's go to `top`. An empty leaf
// gets none; where the near child is one, the rays go on to the far child at once, and stay.
template <class Search>
ZENR_INLINE void split(Stream& stream, const List& list, int axis, float plane, int top, bool nearEmpty, bool farEmpty,
                       int& nearCount, int& farCount) {
    nearCount = farCount = 0;
    const Floats tolerance = all(Search::kTolerance);
    for (int i = 0; i < list.count; i += kLanes) {
        const Bits lanes = lanesLeft(i, list.count);
        const int at = list.begin + i;
        const Ints ray = loadLanes(stream.listRay + at);
        const Floats tmin = loadLanes(stream.listMin + at), tmax = loadLanes(stream.listMax + at);
        Floats origin, inverse;
        gatherPairs(stream.line[axis], rayFrom(stream, at), origin, inverse);
        const Floats t = (all(plane) - origin) * inverse;
        const Bits farOnly = less(tolerance, tmin - t) & lanes;
        const Bits nearOnly = less(tolerance, t - tmax) & lanes & ~farOnly;
        const Bits both = lanes & ~farOnly & ~nearOnly;
        const Floats middle = larger(tmin, smaller(t, tmax));
        if (nearEmpty) {
            const Bits stops = both ? both & lessEqual(gatherOnes(stream.best, rayFrom(stream, at)), middle) : 0;
            const Bits alive = (farOnly | both) & ~stops;
            pack(alive, ray, select(both, middle, tmin), tmax, stream, list.begin + farCount);
            farCount += countOf(alive);
            continue;
        }
        // The far list first: the near one overwrites what was just read.
        if (!farEmpty) {
            pack(farOnly | both, select(both, ray | all(int32_t(kStopsIfFound)), ray), select(both, middle, tmin), tmax,
                 stream, top + farCount);
            farCount += countOf(farOnly | both);
        }
        pack(nearOnly | both, ray, tmin, select(both, middle, tmax), stream, list.begin + nearCount);
        nearCount += countOf(nearOnly | both);
    }
}

// Removes the rays that stop before this list's node; clears the marks.
ZENR_INLINE int filter(Stream& stream, const List& list) {
    int count = 0;
    for (int i = 0; i < list.count; i += kLanes) {
        const Bits lanes = lanesLeft(i, list.count);
        const int at = list.begin + i;
        const Ints marked = loadLanes(stream.listRay + at);
        const Ints ray = marked & all(int32_t(~kStopsIfFound));
        const Floats tmin = loadLanes(stream.listMin + at), tmax = loadLanes(stream.listMax + at);
        const Floats best = gatherOnes(stream.best, rayFrom(stream, at));
        const Bits stops = equal(marked >> 31, all(int32_t(-1))) & lessEqual(best, tmin);
        const Bits alive = lanes & ~stops;
        pack(alive, ray, tmin, tmax, stream, list.begin + count);
        count += countOf(alive);
    }
    return count;
}

// Searches with the rays of the list at the beginning of the arrays, which agree about near children. False as walk().
template <class Search>
bool walkStream(Stream& stream, const ZenrTriangleAccel* accel, const ZenrKDTreeNode* root, int count,
                const int (&nearChild)[4]) {
    List pendingLists[kMaxTreeDepth];
    int pending = 0;
    List list = {root, 0, count, 0};
    int top = count + kLanes; // a register may be written behind the end of a list
    for (;;) {
        while (list.count > kPacketRays && !(list.node->w0 & kLeafBit) && int(list.node->w0 & kAxisMask) < 3 &&
               top + list.count + kLanes <= kListRoom) {
            const auto [axis, plane, children] = interiorOf(list.node);
            const ZenrKDTreeNode* nearer = children + nearChild[axis];
            const ZenrKDTreeNode* farther = children + (1 - nearChild[axis]);
            prefetchBelow(nearer, accel);
            prefetchBelow(farther, accel);
            if (list.depth == kMaxTreeDepth) return false;
            const bool nearEmpty = isEmptyLeaf(nearer), farEmpty = isEmptyLeaf(farther);
            int nearCount, farCount;
            split<Search>(stream, list, axis, plane, top, nearEmpty, farEmpty, nearCount, farCount);
            if (nearEmpty) {
                list.count = farCount;
                list.node = farther;
                continue;
            }
            if (farCount) {
                pendingLists[pending++] = {farther, top, farCount, list.depth};
                top += farCount + kLanes;
            }
            list.count = nearCount;
            list.node = nearer;
            ++list.depth;
        }
        for (int i = 0; i < list.count; i += kPacketRays) {
            const int n = list.count - i < kPacketRays ? list.count - i : kPacketRays;
            const int at = list.begin + i;
            if (!walkPacket<Search>(stream.ray, stream.best, stream.listRay + at, stream.listMin + at,
                                    stream.listMax + at, n, list.node, accel, stream.reach, nearChild,
                                    kMaxTreeDepth - list.depth))
                return false;
        }
        do {
            if (pending == 0) return true;
            list = pendingLists[--pending];
            list.count = filter(stream, list);
        } while (list.count == 0);
        top = list.begin + list.count + kLanes;
    }
}

} // namespace ZENR_LEVEL
} // namespace zenr
