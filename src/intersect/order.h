// Rays in the order of their directions. Rays to the points that a picture shows come from its light in an order of their
// own: neighbours in the picture that lie behind each other go apart, and others that go side by side are far from each
// other in the picture. (Garanzha, Loop, "Fast Ray Sorting and Breadth-First Packet Traversal", 2010.)
#pragma once
#include <math.h>

#include "intersect/lanes.h"

namespace zenr {
namespace ZENR_LEVEL {

constexpr int kOrderRays = 4096; // numbers of 12 bits
constexpr int kOrderBits = 12;
constexpr int kHalfKey = 9; // a key has two halves: 17 bits

// A direction on the octahedron: two coordinates, and the side of its third.
struct Chart {
    Floats p, q;
    Ints side;
};

ZENR_INLINE Chart chartOf(Floats x, Floats y, Floats z) {
    const Floats scale = all(1.f) / (absolute(x) + absolute(y) + absolute(z));
    return {x * scale, y * scale, (Ints)z >> 31};
}

// What a chart's coordinates range over. NaN is passed over.
struct ChartRange {
    Floats lowP, highP, lowQ, highQ;

    ZENR_INLINE ChartRange() {
        lowP = lowQ = all(1.f);
        highP = highQ = all(-1.f);
    }
    ZENR_INLINE void add(const Chart& c, Bits lanes) {
        lowP = smaller(select(lanes, c.p, lowP), lowP);
        highP = larger(select(lanes, c.p, highP), highP);
        lowQ = smaller(select(lanes, c.q, lowQ), lowQ);
        highQ = larger(select(lanes, c.q, highQ), highQ);
    }
    ZENR_INLINE void add(const ChartRange& r) {
        lowP = smaller(r.lowP, lowP);
        highP = larger(r.highP, highP);
        lowQ = smaller(r.lowQ, lowQ);
        highQ = larger(r.highQ, highQ);
    }
    ZENR_INLINE float perimeter() const { return greatest(highP) - least(lowP) + (greatest(highQ) - least(lowQ)); }
};

// The eight bits of each lane, every other one free.
ZENR_INLINE Ints spreadBits(Ints x) {
    x = (x | x << 4) & all(int32_t(0x0F0F));
    x = (x | x << 2) & all(int32_t(0x3333));
    return (x | x << 1) & all(int32_t(0x5555));
}

ZENR_INLINE Ints eighths(Floats x, float low, float scale) {
    // NaN becomes nothing.
    const Floats y = smaller(larger((x - all(low)) * all(scale), Floats{}), all(255.f));
    return __builtin_convertvector(y, Ints);
}

// Keys of a register of rays within the range of all.
struct KeyScale {
    float lowP, lowQ, scaleP, scaleQ;
    explicit KeyScale(const ChartRange& r) : lowP(least(r.lowP)), lowQ(least(r.lowQ)) {
        const float p = greatest(r.highP) - lowP, q = greatest(r.highQ) - lowQ, wider = p > q ? p : q;
        scaleP = scaleQ = wider > 0 ? 255.f / wider : 0;
    }
    ZENR_INLINE Ints key(const Chart& c) const {
        return (c.side & all(int32_t(0x10000))) | spreadBits(eighths(c.p, lowP, scaleP)) << 1 |
               spreadBits(eighths(c.q, lowQ, scaleQ));
    }
};

// Sorts words by their bits from kOrderBits on; `other` has room for as many.
inline void sortByKey(uint32_t* words, uint32_t* other, int count) {
    for (int pass = 0; pass < 2; ++pass) {
        const int shift = kOrderBits + pass * kHalfKey;
        uint32_t next[1 << kHalfKey] = {};
        for (int i = 0; i < count; ++i) ++next[words[i] >> shift & ((1u << kHalfKey) - 1)];
        uint32_t sum = 0;
        for (uint32_t& n : next) {
            const uint32_t here = n;
            n = sum;
            sum += here;
        }
        for (int i = 0; i < count; ++i) other[next[words[i] >> shift & ((1u << kHalfKey) - 1)]++] = words[i];
        uint32_t* const swap = words;
        words = other;
        other = swap;
    }
}

} // namespace ZENR_LEVEL
} // namespace zenr
