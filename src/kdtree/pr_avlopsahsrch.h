// The split search: what it is given and what it returns, and the table of its kernels, one for each level.
#pragma once
#include <stdint.h>

#include "frame/dispatch.h"

namespace zenr {

// What a split search returns. On entry `cost` holds the node's cost Q; axis -1 means no split.
struct __attribute__((packed, aligned(4))) SplitRecord {
    double cost;
    float position;
    int32_t axis;
    int32_t left;  // NL: references that go to the lower side
    int32_t right; // NR
    uint32_t flag; // where a triangle in the split plane goes: 0 lower side, 1 upper side
};
static_assert(sizeof(SplitRecord) == 28, "seven words");

struct SearchInput {
    // Extents of the node's references, in reference order, within the node's box.
    const float* lo[3];
    const float* hi[3];
    int count;
    const float* box;
    uint32_t* const* scratch; // two arrays for each axis
    int capacity;             // their words, at least `count`
    long double factor;       // F
};

// Nodes up to this size are searched by the calling thread.
constexpr int kSingleThreadCount = 75;

// The terms of a price: count on the lower side * (x - min + R) + count on the upper side * (max - x + R).
struct Pricing {
    double min;
    double max;
    double rest; // R
    // Inlined always: the kernels are compiled for several processors.
    __attribute__((always_inline)) double price(double left, double right, double x) const {
        return left * (x - min + rest) + right * (max - x + rest);
    }
};

struct Candidate {
    double price;
    float position;
    int left;
    int right;
    uint32_t flag; // where a triangle in the plane goes: 0 lower side, 1 upper side
};

// Extents of the references of a node on one axis, in reference order. The two scratch arrays have room for `capacity`
// words each, at least `count`; the sweep leaves the extents as they are.
struct AxisEvents {
    const float* lo;
    const float* hi;
    int count;
    int inPlane; // how many have lo == hi
    float* scratch[2];
    int capacity;
};

struct AxisScan {
    float first;     // least lo
    float last;      // greatest hi
    float lastStart; // greatest lo
    float firstEnd;  // least hi
    int inPlane;
};

struct SahKernels {
    // localFindBestSplitSortSearch_ST and _MT
    void (*searchAlone)(const SearchInput& input, SplitRecord& split);
    void (*searchTogether)(const SearchInput& input, SplitRecord& split);
    // What they are made of.
    void (*scan)(const float* lo, const float* hi, int count, AxisScan& scan);
    // The cheapest plane at an event, the lowest one of several. A price above `limit` is of no interest: the result's
    // price may then be the largest double.
    void (*sweep)(const AxisEvents& events, const Pricing& pricing, double limit, Candidate& best);
};

namespace sse2 {
extern const SahKernels kSah;
}
namespace avx2 {
extern const SahKernels kSah;
}
namespace avx512 {
extern const SahKernels kSah;
}

inline const SahKernels& sahKernels(Level level) {
    return pick(level, sse2::kSah, avx2::kSah, avx512::kSah);
}

} // namespace zenr
