// Scene preparation: bounding box and per-triangle records.
#include <float.h>
#include <math.h>
#include <stdint.h>
#include <string.h>

#include "frame/export.h"
#include "zenr.h"

namespace {

void localBoundBox(const float* vertices, int count, float* box) {
    float lo[3] = {FLT_MAX, FLT_MAX, FLT_MAX};
    float hi[3] = {-FLT_MAX, -FLT_MAX, -FLT_MAX};
    for (int64_t i = 0; i < count; ++i) {
        for (int k = 0; k < 3; ++k) {
            const float x = vertices[3 * i + k];
            // Ordered comparisons: a NaN replaces neither.
            if (x < lo[k]) lo[k] = x;
            if (x > hi[k]) hi[k] = x;
        }
    }

    // The margin follows the largest magnitude, not the extent, and is the same on all axes. The product of two floats
    // is exact in double, so that each bound is rounded once, when it is stored.
    float largest = FLT_MIN;
    for (int k = 0; k < 3; ++k) {
        if (fabsf(lo[k]) > largest) largest = fabsf(lo[k]);
        if (fabsf(hi[k]) > largest) largest = fabsf(hi[k]);
    }
    const double margin = double(0.0001f) * double(largest);
    for (int k = 0; k < 3; ++k) {
        box[k] = float(double(lo[k]) - margin);
        box[3 + k] = float(double(hi[k]) + margin);
    }
}

void localTriangleRecord(const float* p0, const float* p1, const float* p2, ZenrTriangleAccel* accel) {
    double e1[3];
    double e2[3];
    for (int i = 0; i < 3; ++i) {
        e1[i] = double(p0[i]) - double(p2[i]);
        e2[i] = double(p1[i]) - double(p2[i]);
    }
    const double n[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2], e1[0] * e2[1] - e1[1] * e2[0]};

    // Dominant axis: x before y before z on ties; NaN counts as "not greater".
    int k = 0;
    int a = 1;
    double sign = 1;
    if (fabs(n[1]) > fabs(n[0])) {
        k = 1;
        a = 0;
        sign = -1;
    }
    if (fabs(n[k]) < fabs(n[2])) {
        k = 2;
        a = 0;
        sign = 1;
    }
    const int b = 3 - k - a;
    if (n[k] == 0) {
        memset(accel, 0, sizeof *accel);
        return;
    }

    const float r = float(1.0 / n[k]);
    const double q = double(r) * sign;
    // A NaN component is not below the bound and counts as tilted.
    const bool axisAligned = fabs(n[b]) < DBL_EPSILON && fabs(n[a]) < DBL_EPSILON;
    accel->axes = uint32_t(16 * k + 4 * a + b) | (axisAligned ? 0x80000000u : 0u);
    accel->nA = axisAligned ? 0.f : float(n[a] * r);
    accel->nB = axisAligned ? 0.f : float(n[b] * r);
    accel->pK = p2[k];
    accel->pA = p2[a];
    accel->pB = p2[b];
    accel->e1A = float(e1[a] * q);
    accel->e1B = float(e1[b] * q);
    accel->e2A = float(e2[a] * q);
    accel->e2B = float(e2[b] * q);
}

} // namespace

ZENR_EXPORT ZenStatus zenrSetBoundBox_32f(const float* vertices, int count, float* box) {
    if (!vertices) return zenStsNullPtrErr;
    localBoundBox(vertices, count, box);
    return zenStsNoErr;
}

ZENR_EXPORT ZenStatus zenrTriangleAccelGetSize(int* size) {
    if (!size) return zenStsNullPtrErr;
    *size = int(sizeof(ZenrTriangleAccel));
    return zenStsNoErr;
}

ZENR_EXPORT ZenStatus zenrTriangleAccelInit(ZenrTriangleAccel* accel, const float* vertices, const int* triangles,
                                            int count) {
    for (int64_t j = 0; j < count; ++j) {
        const int* index = triangles + 4 * j;
        localTriangleRecord(vertices + 3 * int64_t(index[0]), vertices + 3 * int64_t(index[1]),
                            vertices + 3 * int64_t(index[2]), accel + j);
    }
    return zenStsNoErr;
}
