// Blocks of rays and what they meet, in the planar arrays that the library works on.
#pragma once
#include <cstdint>
#include <vector>

#include "camera.h"
#include "scene.h"
#include "tiles.h"

// Planar vectors: x, y and z of all rays, one after the other.
class Planes {
public:
    explicit Planes(size_t rays) : data_(3 * rays), plane_{&data_[0], &data_[rays], &data_[2 * rays]} {}
    Planes(const Planes&) = delete;
    Planes& operator=(const Planes&) = delete;
    operator float* const*() { return plane_; }
    operator const float* const*() const { return plane_; }

private:
    std::vector<float> data_;
    float* plane_[3];
};

// Rays and the surfaces that they meet.
struct Hits {
    explicit Hits(size_t n)
        : direction(n), distance(n), weights{std::vector<float>(n), std::vector<float>(n)}, triangle(n), normal(n),
          facing(n), weightPlane{weights[0].data(), weights[1].data()} {}
    Hits(const Hits&) = delete;
    Hits& operator=(const Hits&) = delete;

    Planes direction;
    std::vector<float> distance;
    std::vector<float> weights[2];
    std::vector<int> triangle; // -1 for a miss: serves as the mask of what follows
    Planes normal;
    std::vector<float> facing; // direction . normal, not positive
    float* weightPlane[2];
};

// Casts the eye rays of a tile and finds what they meet. Returns the seconds that the intersector took.
double traceEye(const Camera& camera, const ZenrIntersectContext& context, const Tiles& tiles, const Tile& tile,
                Hits& hits);

// Normals where the first n rays hit: on the side that the triangles' windings say,
void surfaceNormals(const Scene& scene, Hits& hits, int n);
// or turned towards where the rays come from.
void facingNormals(const Scene& scene, Hits& hits, int n);

// Of a steady clock.
double seconds();
