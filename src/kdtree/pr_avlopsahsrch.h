// The split search: what it is given and what it returns.
#pragma once
#include <stdint.h>

namespace zenr {

struct SahKernels;

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
    const SahKernels* kernels;
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

void localFindBestSplitSortSearch_ST(const SearchInput& input, SplitRecord& split);
void localFindBestSplitSortSearch_MT(const SearchInput& input, SplitRecord& split);

// Half the surface of a box times a number of triangles.
double nodeCost(const float* box, int count);
// F for an optimisation ratio.
long double costFactor(float optimizationRatio);

} // namespace zenr
