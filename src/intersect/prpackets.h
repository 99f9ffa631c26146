// The packet kernels of a level; who chooses a level includes this.
#pragma once
#include <stddef.h>

#include "zenr.h"

namespace zenr {

// A block of rays and what they are traced through. Arrays that a search does not have are null.
struct RayBlock {
    const float* box;
    const ZenrTriangleAccel* accel;
    const ZenrKDTreeNode* root;
    const float* origin;         // shared by all rays, or
    const float* const* origins; // planes of each ray's own
    const float* const* direction;
    float* distance;
    float* const* hit;
    int* triangle;
    int* mask;
    int width, height, maxHits;
};

struct PacketKernels {
    void (*nearest)(const RayBlock&);
    void (*eye)(const RayBlock&);
    void (*any)(const RayBlock&);
    void (*multiple)(const RayBlock&); // triangle numbers are -1 beforehand
};

namespace sse2 {
extern const PacketKernels kPackets;
}
namespace avx2 {
extern const PacketKernels kPackets;
}
namespace avx512 {
extern const PacketKernels kPackets;
}

} // namespace zenr
