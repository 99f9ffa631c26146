// One ray through the tree: the traversal and the triangle test that all intersectors share. What differs between them
// is a search policy (printersect1.cpp).
//
// Clip and plane decisions are made in single precision, the triangle test in double from the float record and ray,
// each result rounded once; nothing is fused. The walk keeps intervals as in Havran's "Heuristic Ray Shooting
// Algorithms" (2000); the test is the projected one of Wald's thesis (2004).
#pragma once
#include <math.h>
#include <stdint.h>

#include "intersect/constants.h"
#include "intersect/interior.h"
#include "zenr.h"

namespace zenr {

// Four entries where three would do, so that the two-bit axis numbers of a malformed node or record stay inside.
struct Ray {
    float origin[4];  // for plane decisions
    float inverse[4]; // reciprocal of the direction, or its stand-in
    int nearChild[4]; // 1 where the upper child comes first
    double from[4];   // origin for the triangle test
    double toward[4]; // direction
};

struct Interval {
    float tmin;
    float tmax;
};

// The order of the comparison decides about NaN: both return the second operand when either is one.
inline float smaller(float a, float b) {
    return a < b ? a : b;
}
inline float larger(float a, float b) {
    return a > b ? a : b;
}

struct Candidate {
    int triangle;
    float t;
    double det, beta, gamma; // scaled weights of the first and second vertex
    float weight0() const { return float(beta / det); }
    float weight1() const { return float(gamma / det); }
};

// Tests triangle j; true when the search is over.
template <class Search>
inline bool testTriangle(const ZenrTriangleAccel* accel, int j, const Ray& ray, Search& search) {
    const ZenrTriangleAccel& r = accel[j];
    if (r.axes == 0 || search.passesOver(j)) return false;
    const int k = int(r.axes >> 4) & 3;
    const int a = int(r.axes >> 2) & 3;
    const int b = int(r.axes) & 3;
    const double nA = r.nA, nB = r.nB, pA = r.pA, pB = r.pB;
    const double dA = ray.toward[a], dB = ray.toward[b];

    const double det = nA * dA + nB * dB + ray.toward[k];
    if (Search::kGateDeterminant && fabs(det) < double(kDeterminantGate)) return false; // a NaN goes on
    const double u0 = pA - ray.from[a];
    const double num = nB * (pB - ray.from[b]) + nA * u0 + double(r.pK) - ray.from[k];
    const double x = dA * num - u0 * det;
    const double y = dB * num + (ray.from[b] - pB) * det;
    const double beta = double(r.e2B) * x - double(r.e2A) * y;
    const double gamma = double(r.e1A) * y - double(r.e1B) * x;
    const double alpha = det - beta - gamma;
    // The products, not the signs: an underflow to zero counts as inside. NaN fails.
    if (!(alpha * beta >= 0 && beta * gamma >= 0 && alpha * gamma >= 0)) return false;

    // Rounded before it is compared, so that a second hit at the same stored distance is not nearer.
    const float t = float(num / det);
    if (!(search.inReach(t) && t > 0)) return false;
    return search.accept({j, t, det, beta, gamma});
}

// Tests the triangles of a leaf in list order; true when the search is over.
template <class Search>
inline bool testLeaf(const ZenrKDTreeNode* leaf, const ZenrTriangleAccel* accel, const Ray& ray, Search& search) {
    const uint32_t w0 = leaf->w0;
    const uint32_t w1 = leaf->w1;
    if (!(w1 & kInlineBit)) {
        const uint32_t forward = 0u - (w0 & kListOffsetMask);
        const int* list = reinterpret_cast<const int*>(reinterpret_cast<const char*>(leaf) + forward);
        for (uint32_t i = 0; i < w1; ++i) {
            if (testTriangle(accel, list[i], ray, search)) return true;
        }
        return false;
    }
    const int first = int(w0 & 0x7FFFFFFFu);
    const int base = int((w1 & 0x7FFFFFFCu) >> 2);
    switch (w1 & kInlineCountMask) {
    case 1:
        return testTriangle(accel, first, ray, search);
    case 2:
        return testTriangle(accel, first, ray, search) || testTriangle(accel, base, ray, search);
    case 3:
        return testTriangle(accel, base - (first >> 16), ray, search) || testTriangle(accel, base, ray, search) ||
               testTriangle(accel, base + (first & 0xFFFF), ray, search);
    default:
        return false;
    }
}

// Walks the tree front to back over the interval, until the search accepts something that ends it, the interval just
// searched ends behind its best distance, or nothing is pending.
template <class Search>
inline void traverse(const ZenrKDTreeNode* node, const ZenrTriangleAccel* accel, const Ray& ray, Interval interval,
                     Search& search) {
    struct Pending {
        const ZenrKDTreeNode* node;
        float tmax;
    };
    Pending stack[kMaxTreeDepth];
    int pending = 0;
    float tmin = interval.tmin;
    float tmax = interval.tmax;

    for (;;) {
        while (!(node->w0 & kLeafBit)) {
            const auto [axis, split, children] = interiorOf(node);
            const float t = (split - ray.origin[axis]) * ray.inverse[axis];
            const ZenrKDTreeNode* nearer = children + ray.nearChild[axis];
            const ZenrKDTreeNode* farther = children + (1 - ray.nearChild[axis]);
            if (tmin - t > Search::kTolerance) {
                node = farther;
            } else if (t - tmax > Search::kTolerance) {
                node = nearer;
            } else {
                // Only a tree that no builder of ours makes comes here with a full stack: the ray ends with what it
                // has.
                if (pending == kMaxTreeDepth) return;
                stack[pending++] = {farther, tmax};
                tmax = larger(tmin, smaller(t, tmax));
                node = nearer;
            }
        }
        if (testLeaf(node, accel, ray, search)) return;
        if (pending == 0 || search.endsBy(tmax)) return;
        tmin = tmax;
        --pending;
        node = stack[pending].node;
        tmax = stack[pending].tmax;
    }
}

} // namespace zenr
