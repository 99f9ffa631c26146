// Other libraries' convolutions of a volume, each where it is installed: what the filter's speed is compared with. They
// work in floats and have borders of their own, so only their time is of use.
#pragma once
#include <stdint.h>

struct FilterPeer {
    const char* name;
    // Filters size^3 voxels of planes that follow each other without gaps, with kernel^3 weights; `axis` holds the
    // kernel's factor when it is a product of one vector with itself along all axes, and is null otherwise: some
    // libraries do nothing else. Returns false when this is not for it.
    bool (*prepare)(const int16_t* src, int size, const int32_t* weights, const int32_t* axis, int kernel,
                    int32_t divisor);
    void (*run)();
};

// Ends with a null name.
extern const FilterPeer kFilterPeers[];
