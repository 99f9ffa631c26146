// A mesh with its box, records and a tree, and blocks of rays in buffers of exactly their size.
#pragma once
#include <memory>

#include "reference/intersect_reference.h"
#include "reference/meshes.h"
#include "support.h"
#include "zenr.h"

namespace zenrtest {

struct TestScene {
    reference::Mesh mesh;
    float box[6];
    std::vector<ZenrTriangleAccel> accel;
    std::vector<uint32_t> tree;
    ZenrIntersectContext context;

    TestScene(reference::Mesh m, int leafSize, int depth, bool inlineLeaves = true) : mesh(std::move(m)) {
        zenrSetBoundBox_32f(mesh.vertices.data(), mesh.vertexCount(), box);
        accel.resize(size_t(mesh.triangleCount()));
        zenrTriangleAccelInit(accel.data(), mesh.vertices.data(), mesh.triangles.data(), mesh.triangleCount());
        tree = reference::PackedTree(mesh, box, leafSize, depth, inlineLeaves).words();
        context = {box, accel.data(), reinterpret_cast<const ZenrKDTreeNode*>(tree.data())};
    }
    TestScene(const TestScene&) = delete;

    reference::Scene plain() const {
        return {box, reinterpret_cast<const uint32_t*>(accel.data()), reinterpret_cast<const char*>(tree.data())};
    }
};

// Inputs and outputs of a block of n rays (with `layers` layers of outputs).
struct Rays {
    int n, layers;
    Guarded<float> origin[3];
    Guarded<float> direction[3];
    Guarded<float> distance, hit0, hit1;
    Guarded<int> triangle, mask;

    explicit Rays(int count, int layerCount = 1)
        : n(count), layers(layerCount), origin{Guarded<float>(count), Guarded<float>(count), Guarded<float>(count)},
          direction{Guarded<float>(count), Guarded<float>(count), Guarded<float>(count)},
          distance(size_t(count) * layerCount), hit0(size_t(count) * layerCount), hit1(size_t(count) * layerCount),
          triangle(size_t(count) * layerCount), mask(count) {
        reset(1e30f);
    }
    void reset(float maximum) {
        for (int i = 0; i < n * layers; ++i) {
            distance[i] = maximum;
            hit0[i] = -7.5f;
            hit1[i] = -8.5f;
            triangle[i] = -55;
        }
        for (int i = 0; i < n; ++i) mask[i] = 0;
    }
    void set(int i, const float* o, const float* d) {
        for (int k = 0; k < 3; ++k) {
            origin[k][i] = o[k];
            direction[k][i] = d[k];
        }
    }
    void get(int i, float* o, float* d) const {
        for (int k = 0; k < 3; ++k) {
            o[k] = origin[k].data()[i];
            d[k] = direction[k].data()[i];
        }
    }
    const float* const* origins() {
        return originPlanes_ = {origin[0].data(), origin[1].data(), origin[2].data()}, originPlanes_.data();
    }
    const float* const* directions() {
        return directionPlanes_ = {direction[0].data(), direction[1].data(), direction[2].data()},
               directionPlanes_.data();
    }
    float* const* hits() { return hitPlanes_ = {hit0.data(), hit1.data()}, hitPlanes_.data(); }

private:
    std::array<const float*, 3> originPlanes_, directionPlanes_;
    std::array<float*, 2> hitPlanes_;
};

// Rays of every kind that users send: through the scene, along axes, at vertices and edges, from surfaces, with zero,
// tiny, infinite and NaN components.
inline void fillRays(Rays& rays, const reference::Mesh& mesh, uint32_t seed, const float* eye = nullptr) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> wide(-1.5f, 1.5f), unit(0, 1);
    Floats wild(seed + 1);
    const auto vertex = [&](int j, int v) { return &mesh.vertices[3 * mesh.triangles[4 * j + v]]; };
    for (int i = 0; i < rays.n; ++i) {
        float o[3] = {wide(random), wide(random), wide(random)};
        if (eye) std::copy(eye, eye + 3, o);
        const int j = int(random() % uint32_t(mesh.triangleCount()));
        float target[3];
        const uint32_t kind = random() % 10;
        float w0 = unit(random), w1 = unit(random) * (1 - w0);
        if (kind == 1) w0 = 1, w1 = 0; // a vertex
        if (kind == 2) w1 = 1 - w0;    // an edge
        for (int k = 0; k < 3; ++k)
            target[k] = vertex(j, 0)[k] * w0 + vertex(j, 1)[k] * w1 + vertex(j, 2)[k] * (1 - w0 - w1);
        float d[3] = {target[0] - o[0], target[1] - o[1], target[2] - o[2]};
        if (kind == 3 && !eye) { // from a surface
            for (int k = 0; k < 3; ++k) o[k] = target[k], d[k] = wide(random);
        }
        if (kind == 4) { // along an axis
            const int axis = int(random() % 3);
            for (int k = 0; k < 3; ++k) d[k] = k == axis ? (random() % 2 ? 1.f : -1.f) : (random() % 2 ? 0.f : -0.f);
            if (!eye) {
                for (int k = 0; k < 3; ++k) o[k] = k == axis ? o[k] : target[k];
            }
        }
        if (kind == 5) d[random() % 3] = (random() % 2 ? 1.f : -1.f) * (random() % 2 ? 1.1920929e-7f : 1.2e-7f);
        if (kind == 6) d[random() % 3] = wild.any();
        if (kind == 7 && !eye) o[random() % 3] = wild.any();
        rays.set(i, o, d);
    }
}

} // namespace zenrtest
