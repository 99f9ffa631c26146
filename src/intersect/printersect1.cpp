// The one-ray path: blocks of rays traced one after the other, and the search policies that tell the intersectors apart.
// All share the traversal of traverse.h.
#include <float.h>
#include <math.h>
#include <stddef.h>

#include "intersect/constants.h"
#include "intersect/intersect.h"
#include "intersect/traverse.h"

namespace zenr {

namespace {

struct Hit {
    float distance; // running best, the caller's maximum at first
    float weight[2];
    int triangle;

    void take(const Candidate& c) {
        distance = c.t;
        weight[1] = c.weight1();
        weight[0] = c.weight0();
        triangle = c.triangle;
    }
};

// ---- What differs between the searches ----------------------------------------------------------------------------

struct NearestSearch {
    Hit hit;
    static constexpr float kTolerance = kSplitTolerance;
    static constexpr bool kGateDeterminant = true;
    bool passesOver(int j) const { return j == hit.triangle; }
    bool inReach(float t) const { return t < double(hit.distance) - double(kNearerBy); }
    bool accept(const Candidate& c) { return hit.take(c), false; }
    bool endsBy(float tmax) const { return hit.distance <= tmax; }
};

struct EyeSearch {
    Hit hit;
    static constexpr float kTolerance = kSplitTolerance;
    static constexpr bool kGateDeterminant = false;
    bool passesOver(int) const { return false; }
    bool inReach(float t) const { return t < hit.distance; }
    bool accept(const Candidate& c) { return hit.take(c), false; }
    bool endsBy(float tmax) const { return hit.distance <= tmax; }
};

struct AnySearch {
    int triangle;
    static constexpr float kTolerance = kSplitTolerance;
    static constexpr bool kGateDeterminant = false;
    bool passesOver(int) const { return false; }
    bool inReach(float t) const { return t < 1.f; }
    bool accept(const Candidate& c) { return triangle = c.triangle, true; }
    bool endsBy(float tmax) const { return 1.f <= tmax; }
};

struct MultipleSearch {
    Hit hit;
    int previous;      // triangle of the layer before
    const int* recent; // ring of hit triangles
    int recentCount;   // its first entries that are looked at: the layer modulo the ring's size, deliberately
    static constexpr float kTolerance = kSplitToleranceMultiple;
    static constexpr bool kGateDeterminant = false;
    bool passesOver(int j) const { return j == previous; }
    bool inReach(float t) const { return t < hit.distance; }
    bool accept(const Candidate& c) {
        for (int i = 0; i < recentCount; ++i) {
            if (recent[i] == c.triangle) return false;
        }
        return hit.take(c), false;
    }
    bool endsBy(float tmax) const { return hit.distance <= tmax; }
};

// ---- Setting a ray up ---------------------------------------------------------------------------------------------

inline void setOrigin(Ray& ray, double x, double y, double z) {
    const double origin[3] = {x, y, z};
    for (int k = 0; k < 3; ++k) {
        ray.origin[k] = float(origin[k]);
        ray.from[k] = origin[k];
    }
}

inline void setDirection(Ray& ray, const float* const direction[3], size_t i) {
    for (int k = 0; k < 3; ++k) ray.toward[k] = double(direction[k][i]);
}

// Narrows the interval to a slab; false when nothing is left. NaN never narrows it and never rejects.
inline bool clipSlab(float t1, float t2, Interval& interval) {
    interval.tmin = larger(smaller(t1, t2), interval.tmin);
    interval.tmax = smaller(larger(t1, t2), interval.tmax);
    return !(interval.tmin > interval.tmax);
}

// Reciprocals, near children and clip of a ray with its own origin.
inline bool clipToBox(Ray& ray, const float* box, Interval& interval) {
    for (int k = 0; k < 3; ++k) {
        const float d = float(ray.toward[k]);
        const float o = ray.origin[k];
        ray.nearChild[k] = 0;
        if (fabsf(d) <= kParallel) {
            ray.inverse[k] = kParallelInverse;
            if (!(box[k] < o && o < box[3 + k])) return false;
            continue;
        }
        ray.inverse[k] = 1.f / d;
        ray.nearChild[k] = d < 0;
        if (!clipSlab((box[k] - o) * ray.inverse[k], (box[3 + k] - o) * ray.inverse[k], interval)) return false;
    }
    return true;
}

// The box seen from the origin that a block's rays share.
struct RelativeBox {
    float lo[3];
    float hi[3];
    RelativeBox(const float* box, const float origin[3]) {
        for (int k = 0; k < 3; ++k) {
            lo[k] = box[k] - origin[k];
            hi[k] = box[3 + k] - origin[k];
        }
    }
};

// The same for a ray from an eye: divisions instead of reciprocals, and an axis that the ray is parallel to never
// rejects it.
inline bool clipToBox(Ray& ray, const RelativeBox& box, Interval& interval) {
    for (int k = 0; k < 3; ++k) {
        const float d = float(ray.toward[k]);
        ray.nearChild[k] = 0;
        if (fabsf(d) <= kParallel) {
            ray.inverse[k] = kParallelInverseEye;
            continue;
        }
        ray.inverse[k] = 1.f / d;
        ray.nearChild[k] = d < 0;
        if (!clipSlab(box.lo[k] / d, box.hi[k] / d, interval)) return false;
    }
    return true;
}

// A segment is not clipped; its near child follows the sign of the direction, however small.
inline void setSegment(Ray& ray) {
    for (int k = 0; k < 3; ++k) {
        const float d = float(ray.toward[k]);
        ray.nearChild[k] = d < 0;
        ray.inverse[k] = fabsf(d) <= kParallel ? kParallelInverse : 1.f / d;
    }
}

inline void store(const Hit& hit, size_t i, float* distance, float* const weights[2], int* triangle) {
    triangle[i] = hit.triangle;
    if (hit.triangle == -1) return;
    distance[i] = hit.distance;
    weights[1][i] = hit.weight[1];
    weights[0][i] = hit.weight[0];
}

} // namespace

// ---- Block routines -----------------------------------------------------------------------------------------------

void oneRayBlock(const float* const origin[3], const float* const direction[3], const float* box,
                 const ZenrTriangleAccel* accel, const ZenrKDTreeNode* root, float* distance, float* const hit[2],
                 int* triangle, size_t count) {
    Ray ray = {};
    for (size_t i = 0; i < count; ++i) {
        setOrigin(ray, origin[0][i], origin[1][i], origin[2][i]);
        setDirection(ray, direction, i);
        NearestSearch search = {{distance[i], {0, 0}, -1}};
        Interval interval = {0, distance[i]};
        if (clipToBox(ray, box, interval)) {
            interval.tmax += kBehindBox;
            traverse(root, accel, ray, interval, search);
        }
        store(search.hit, i, distance, hit, triangle);
    }
}

void oneRayEyeBlock(const float origin[3], const float* const direction[3], const float* box,
                    const ZenrTriangleAccel* accel, const ZenrKDTreeNode* root, float* distance, float* const hit[2],
                    int* triangle, size_t count) {
    const RelativeBox relative(box, origin);
    Ray ray = {};
    setOrigin(ray, origin[0], origin[1], origin[2]);
    for (size_t i = 0; i < count; ++i) {
        setDirection(ray, direction, i);
        EyeSearch search = {{distance[i], {0, 0}, -1}};
        Interval interval = {0, distance[i]};
        if (clipToBox(ray, relative, interval)) {
            interval.tmax += kBehindBox;
            traverse(root, accel, ray, interval, search);
        }
        store(search.hit, i, distance, hit, triangle);
    }
}

void oneRayAnyBlock(const float origin[3], const float* const direction[3], const ZenrTriangleAccel* accel,
                    const ZenrKDTreeNode* root, int* triangle, int* mask, size_t count) {
    Ray ray = {};
    setOrigin(ray, origin[0], origin[1], origin[2]);
    for (size_t i = 0; i < count; ++i) {
        triangle[i] = -1;
        if (mask[i] < 0) continue;
        setDirection(ray, direction, i);
        setSegment(ray);
        AnySearch search = {-1};
        traverse(root, accel, ray, {0, kSegmentEnd}, search);
        if (search.triangle == -1) continue;
        mask[i] = -1;
        triangle[i] = search.triangle;
    }
}

namespace {

// Distance from the ray's present origin to where it leaves the box.
float distanceToExit(const Ray& ray, const float* box) {
    float exit = FLT_MAX;
    for (int k = 0; k < 3; ++k) {
        const float t1 = (box[k] - ray.origin[k]) * ray.inverse[k];
        const float t2 = (box[3 + k] - ray.origin[k]) * ray.inverse[k];
        exit = smaller(larger(t1, t2), exit);
    }
    return exit;
}

// The successive hits of one ray: layer after layer, each searched from the hit point of the one before.
void localIntersectMultiple(Ray& ray, Interval interval, const float* box, const ZenrTriangleAccel* accel,
                            const ZenrKDTreeNode* root, float* distance, float* const weights[2], int* triangle,
                            size_t layerStride, int maxHits) {
    int recent[kRing] = {-1, -1, -1, -1, -1, -1, -1, -1};
    int previous = -1;
    double point[3] = {ray.from[0], ray.from[1], ray.from[2]}; // in double, so that errors do not add up over layers
    for (int layer = 0;; ++layer) {
        const size_t at = size_t(layer) * layerStride;
        MultipleSearch search = {{distance[at], {0, 0}, -1}, previous, recent, layer % kRing};
        traverse(root, accel, ray, interval, search);
        store(search.hit, at, distance, weights, triangle);
        if (search.hit.triangle == -1) return;

        for (int k = 0; k < 3; ++k) point[k] += ray.toward[k] * double(search.hit.distance);
        setOrigin(ray, point[0], point[1], point[2]);
        if (layer > 0) distance[at] = search.hit.distance + distance[at - layerStride];
        previous = search.hit.triangle;
        recent[layer % kRing] = previous;
        if (layer + 1 == maxHits) return;
        // Only the first layer honours the caller's maximum distance.
        distance[at + layerStride] = FLT_MAX;
        interval = {0, distanceToExit(ray, box) + kBehindBox};
    }
}

} // namespace

void oneRayMultipleBlock(const float origin[3], const float* const direction[3], const float* box,
                         const ZenrTriangleAccel* accel, const ZenrKDTreeNode* root, float* distance,
                         float* const hit[2], int* triangle, size_t count, size_t stride, int maxHits) {
    const RelativeBox relative(box, origin);
    Ray ray = {};
    for (size_t i = 0; i < count; ++i) {
        setOrigin(ray, origin[0], origin[1], origin[2]);
        setDirection(ray, direction, i);
        Interval interval = {0, distance[i]};
        if (!clipToBox(ray, relative, interval)) continue;
        interval.tmax += kBehindBox;
        float* const weights[2] = {hit[0] + i, hit[1] + i};
        localIntersectMultiple(ray, interval, box, accel, root, distance + i, weights, triangle + i, stride, maxHits);
    }
}

} // namespace zenr
