// Kernels of the split search: a scan over the extents of a node's references on one axis, and the sweep that finds the
// cheapest plane among them. Only the search and its tests include this; each level has a table of its own.
#pragma once
#include <stdint.h>

#include "frame/dispatch.h"

namespace zenr {

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
    void (*scan)(const float* lo, const float* hi, int count, AxisScan* scan);
    // The cheapest plane at an event, the lowest one of several. A price above `limit` is of no interest: the result's
    // price may then be the largest double.
    void (*sweep)(const AxisEvents* events, const Pricing* pricing, double limit, Candidate* best);
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
