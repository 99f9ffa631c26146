// The volume filter as plain loops, built with -O3 -march=native in a file of its own: what bench_filter compares with.
#pragma once
#include <stdint.h>

struct PlainFilter {
    const int16_t* const* src; // anchored: tap (0, 0, 0) of the mirrored kernel reads src[z][y * step + x]
    long srcStep;
    int16_t* const* dst;
    long dstStep;
    int width, height, depth;
    const int32_t* kernel; // mirrored
    int kw, kh, kd;
    int32_t divisor;
};

void plainFilterVoxels(const PlainFilter& f); // voxel by voxel, all taps innermost
void plainFilterRows(const PlainFilter& f);   // row by row, a tap at a time over the whole row
