// Triangle records, many at a time, and the test of a triangle in double: written once for one triangle against a register
// of rays, a register of triangles against one ray, and a triangle a ray.
#pragma once
#include "intersect/lanes.h"
#include "zenr.h"

namespace zenr {
namespace ZENR_LEVEL {

// The numerator of the distance, operation for operation as for one ray; u is r.pA - oA. Here and below `r` has a record's
// values for all lanes or lane by lane.
template <class Record, class Value> ZENR_INLINE Value numeratorOf(const Record& r, Value u, Value oB, Value oK) {
    return r.nB * (r.pB - oB) + r.nA * u + r.pK - oK;
}

// Numerator and denominator of distances and weights.
struct Solution {
    Doubles num, det, beta, gamma;
};

// Whether the plane is hit inside the triangle, operation for operation as for one ray; w is oB - r.pB.
template <class Record>
ZENR_INLINE Bits insideEdges(const Record& r, Doubles dA, Doubles dB, Doubles u, Doubles w, Solution& s) {
    const Doubles x = dA * s.num - u * s.det;
    const Doubles y = dB * s.num + w * s.det;
    s.beta = r.e2B * x - r.e2A * y;
    s.gamma = r.e1A * y - r.e1B * x;
    const Doubles alpha = s.det - s.beta - s.gamma;
    const Doubles zero = {};
    return lessEqual(zero, alpha * s.beta) & lessEqual(zero, s.beta * s.gamma) & lessEqual(zero, alpha * s.gamma);
}

// The coordinates that our own records project to, as the lowest six bits of their first word: k, a and b, two bits each.
constexpr int32_t kOrderX = 0 << 4 | 1 << 2 | 2, kOrderY = 1 << 4 | 0 << 2 | 2, kOrderZ = 2 << 4 | 0 << 2 | 1;

// Records in single precision side by side, as many as a register has floats.
struct FloatRecords {
    Floats nA, nB, pK, pA, pB, e1A, e1B, e2A, e2B;
    Ints flags;
    Bits proper;        // lanes that are triangles, and not degenerate
    Bits isX, isY, isZ; // by the order of their coordinates; none of them, where no record of ours has that order
};

ZENR_INLINE void load(FloatRecords& r, const int* list, int count, const ZenrTriangleAccel* accel) {
    static_assert(sizeof(ZenrTriangleAccel) == 40, "a record is read as rows of four floats");
    alignas(64) int number[kLanes];
    const Ints numbers = firstOf(list, count); // lanes behind `count` read the first record
    __builtin_memcpy(number, &numbers, sizeof number);
    const auto rowFrom = [&](int lane, int word) {
        return _mm_loadu_ps(reinterpret_cast<const float*>(accel + number[lane]) + word);
    };
    Floats axes, unused;
    turnRows([&](int lane) { return rowFrom(lane, 0); }, axes, r.nA, r.pK, r.nB);
    turnRows([&](int lane) { return rowFrom(lane, 4); }, r.pA, r.pB, r.e2A, r.e2B);
    turnRows([&](int lane) { return rowFrom(lane, 6); }, unused, unused, r.e1A, r.e1B);
    r.flags = (Ints)axes;
    r.proper = ~equal(r.flags, Ints{}) & (count < kLanes ? (Bits(1) << count) - 1 : kAllLanes);
    const Ints order = r.flags & all(int32_t(63));
    r.isX = equal(order, all(kOrderX));
    r.isY = equal(order, all(kOrderY));
    r.isZ = equal(order, all(kOrderZ));
}

} // namespace ZENR_LEVEL
} // namespace zenr
