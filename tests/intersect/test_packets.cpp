// Packets against the one-ray path, bit for bit: every search, level and block shape, on rays of every kind.
#include "intersect/intersect.h"
#include "scene_fixture.h"

using namespace zenrtest;

namespace {

enum Kind { nearest, eye, any, multiple };
const char* const kNames[] = {"nearest", "eye", "any", "multiple"};
constexpr int kKinds = 4;

// Rays in planes, and what is found, in the order in which blocks take them; layers of a block lie together.
struct RaySet {
    int n, layers;
    float shared[3];
    std::vector<float> planes[6], distance, hit0, hit1;
    std::vector<int> triangle, mask;

    RaySet(int count, int layerCount) : n(count), layers(layerCount) {
        for (auto& plane : planes) plane.assign(size_t(n), 0);
        reset(1e30f);
    }
    void reset(float maximum) {
        const size_t size = size_t(n) * size_t(layers);
        distance.assign(size, maximum);
        hit0.assign(size, -7.5f);
        hit1.assign(size, -8.5f);
        triangle.assign(size, -55);
        mask.resize(size_t(n));
        for (int i = 0; i < n; ++i) mask[size_t(i)] = i % 7 == 5 ? -1 - i : i;
        // Maxima of all sorts among those that matter.
        for (size_t i = 3; i < size; i += 11) distance[i] = i % 2 ? 1.3f : float(i % 5) - 1;
        for (size_t i = 5; i < size; i += 101) distance[i] = i % 3 ? float(NAN) : float(INFINITY);
    }
    void set(int i, const float* o, const float* d) {
        for (int k = 0; k < 3; ++k) {
            planes[k][size_t(i)] = o[k];
            planes[3 + k][size_t(i)] = d[k];
        }
    }
};

// Traces block after block; without a level, one ray after the other. Layers that no search writes stay as they were.
void trace(Kind kind, const TestScene& scene, RaySet& rays, ZenrSize shape, const zenr::Level* level) {
    const int area = shape.width * shape.height;
    const float* box = scene.box;
    const ZenrTriangleAccel* accel = scene.accel.data();
    const ZenrKDTreeNode* root = scene.context.rootNode;
    for (int first = 0; first < rays.n; first += area) {
        const int n = std::min(area, rays.n - first);
        const int width = n == area ? shape.width : n, height = n == area ? shape.height : 1;
        const float* const origin[3] = {&rays.planes[0][first], &rays.planes[1][first], &rays.planes[2][first]};
        const float* const direction[3] = {&rays.planes[3][first], &rays.planes[4][first], &rays.planes[5][first]};
        const size_t at = size_t(first) * size_t(rays.layers);
        float* const hit[2] = {&rays.hit0[at], &rays.hit1[at]};
        float* distance = &rays.distance[at];
        int* triangle = &rays.triangle[at];
        int* mask = &rays.mask[size_t(first)];
        switch (kind) {
        case nearest:
            if (level)
                zenr::ownIntersectBlock(*level, origin, direction, box, accel, root, distance, hit, triangle, width,
                                        height);
            else
                zenr::oneRayBlock(origin, direction, box, accel, root, distance, hit, triangle, size_t(n));
            break;
        case eye:
            if (level)
                zenr::ownIntersectEyeBlock(*level, rays.shared, direction, box, accel, root, distance, hit, triangle,
                                           width, height);
            else
                zenr::oneRayEyeBlock(rays.shared, direction, box, accel, root, distance, hit, triangle, size_t(n));
            break;
        case any:
            if (level)
                zenr::ownIntersectAnyBlock(*level, rays.shared, direction, accel, root, triangle, mask, width, height);
            else
                zenr::oneRayAnyBlock(rays.shared, direction, accel, root, triangle, mask, size_t(n));
            break;
        case multiple:
            if (level) {
                zenr::ownIntersectMultipleBlock(*level, rays.shared, direction, box, accel, root, distance, hit,
                                                triangle, width, height, rays.layers);
            } else {
                std::fill(triangle, triangle + size_t(n) * size_t(rays.layers), -1);
                zenr::oneRayMultipleBlock(rays.shared, direction, box, accel, root, distance, hit, triangle, size_t(n),
                                          size_t(n), rays.layers);
            }
        }
    }
}

// The number of rays with other bits than wanted, and the first of them.
size_t differing(const RaySet& got, const RaySet& want, size_t& first) {
    size_t count = 0;
    for (size_t i = 0; i < got.triangle.size(); ++i) {
        const bool same = got.triangle[i] == want.triangle[i] && sameFloat(got.distance[i], want.distance[i]) &&
                          sameFloat(got.hit0[i], want.hit0[i]) && sameFloat(got.hit1[i], want.hit1[i]) &&
                          got.mask[i / size_t(got.layers)] == want.mask[i / size_t(got.layers)];
        if (!same && count++ == 0) first = i;
    }
    return count;
}

struct SceneCase {
    const char* name;
    reference::Mesh mesh;
    int leafSize, depth;
    bool inlineLeaves;
};

std::vector<SceneCase> cases() {
    return {{"soup", reference::soup(3000, 0.08f, 11), 4, 20, true},
            {"coarse soup", reference::soup(200, 0.6f, 12), 2, 50, false},
            {"sphere", reference::sphere(5), 3, 30, true},
            {"terrain", reference::terrain(40), 5, 30, true},
            {"one leaf", reference::soup(23, 0.9f, 13), 1000, 0, false}};
}

// A view of the scene, one ray a point of a raster, block after block of the shape; every direction differs a little
// from its neighbours. Rays with origins of their own leave points of the raster beside each other.
void fillCoherent(RaySet& rays, ZenrSize shape, uint32_t seed) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> wide(-1, 1);
    const float from[3] = {2.5f * wide(random), 2.5f * wide(random), 2.5f * wide(random)};
    std::copy(from, from + 3, rays.shared);
    const float at[3] = {0.3f * wide(random), 0.3f * wide(random), 0.3f * wide(random)};
    const float step = 0.6f / float(shape.width * shape.height > 64 ? 64 : 8);
    const int area = shape.width * shape.height;
    for (int i = 0; i < rays.n; ++i) {
        const float x = float(i % area % shape.width), y = float(i % area / shape.width + i / area);
        const float to[3] = {at[0] + step * (x - 20), at[1] + step * (y - 20), at[2] + step * (x - y) * 0.5f};
        const float o[3] = {from[0] + 0.01f * x, from[1] - 0.01f * y, from[2]};
        const float d[3] = {to[0] - from[0], to[1] - from[1], to[2] - from[2]};
        rays.set(i, o, d);
    }
}

// Everything else: see fillRays().
void fillMixed(RaySet& rays, const reference::Mesh& mesh, uint32_t seed, bool shared) {
    static const float eyes[4][3] = {{0.1f, -0.2f, 3.f}, {0.05f, 0.02f, 0.01f}, {-2.f, 1.9f, 0.f}, {0, 0, 0}};
    std::copy(eyes[seed % 4], eyes[seed % 4] + 3, rays.shared);
    Rays drawn(rays.n);
    fillRays(drawn, mesh, seed, shared ? rays.shared : nullptr);
    for (int i = 0; i < rays.n; ++i) {
        float o[3], d[3];
        drawn.get(i, o, d);
        rays.set(i, o, d);
    }
}

// The last has more rays than are listed or ordered at a time.
const ZenrSize kShapes[] = {{1, 1}, {7, 3}, {64, 64}, {1024, 1}, {21, 13}, {3, 40}, {96, 70}};

} // namespace

TEST(Packets, GiveEachRayTheBitsOfTheOneRayPath) {
    size_t traced = 0;
    uint32_t seed = 500;
    for (const auto& c : cases()) {
        TestScene scene(c.mesh, c.leafSize, c.depth, c.inlineLeaves);
        for (int kind = 0; kind < kKinds; ++kind) {
            for (const ZenrSize shape : kShapes) {
                for (const bool coherent : {true, false}) {
                    RaySet want(std::max(rounds(8192), 300), kind == multiple ? 10 : 1);
                    ++seed;
                    if (coherent)
                        fillCoherent(want, shape, seed);
                    else
                        fillMixed(want, scene.mesh, seed, kind != nearest);
                    const RaySet rays = want;
                    trace(Kind(kind), scene, want, shape, nullptr);
                    for (const zenr::Level level : levels()) {
                        RaySet got = rays;
                        trace(Kind(kind), scene, got, shape, &level);
                        traced += size_t(got.n);
                        size_t first = 0;
                        ASSERT_EQ(differing(got, want, first), 0u)
                            << kNames[kind] << ", " << c.name << ", " << shape.width << "x" << shape.height << ", "
                            << levelName(level) << (coherent ? ", coherent" : ", mixed") << ", first " << first << ": "
                            << got.triangle[first] << " for " << want.triangle[first] << ", " << got.distance[first]
                            << " for " << want.distance[first];
                    }
                }
            }
        }
    }
    RecordProperty("rays", std::to_string(traced));
}

TEST(Packets, AnOriginThatIsNoPlaceIsTracedAsOneRayWouldBe) {
    TestScene scene(reference::soup(500, 0.3f, 3), 3, 20);
    Floats wild(9);
    for (int round = 0; round < rounds(60); ++round) {
        for (int kind = 0; kind < kKinds; ++kind) {
            RaySet want(200, kind == multiple ? 9 : 1);
            fillMixed(want, scene.mesh, 900 + uint32_t(round), true);
            want.shared[round % 3] = wild.any();
            for (int i = 0; i < want.n; ++i) {
                // Wild scales now and then: what overflows or underflows in the quick test has to be seen by it.
                const float scale = round % 4 == 1 ? 1e-30f : round % 4 == 2 ? 1e25f : 1.f;
                for (int k = 3; k < 6; ++k) want.planes[k][size_t(i)] *= scale;
            }
            const RaySet rays = want;
            trace(Kind(kind), scene, want, {20, 10}, nullptr);
            for (const zenr::Level level : levels()) {
                RaySet got = rays;
                trace(Kind(kind), scene, got, {20, 10}, &level);
                size_t first = 0;
                ASSERT_EQ(differing(got, want, first), 0u) << kNames[kind] << " round " << round << " first " << first;
            }
        }
    }
}

TEST(Packets, ScenesOfAnyScaleAndPlace) {
    // Tiny and huge triangles, slivers, scenes far from the origin of space: where the quick test's error bound matters.
    Floats wild(10);
    for (int round = 0; round < rounds(90); ++round) {
        reference::Mesh mesh = reference::soup(300, round % 3 == 0 ? 0.5f : 0.05f, uint32_t(round));
        const float scales[] = {1.f, 1e-6f, 1e6f, 1e-15f, 1e12f};
        const float scale = scales[round % 5], away = round % 4 == 3 ? 1000.f * scale : 0.f;
        for (size_t i = 0; i < mesh.vertices.size(); ++i) {
            float x = mesh.vertices[i];
            if (round % 7 == 2 && i % 3 == 1) x *= 1e-5f; // slivers
            mesh.vertices[i] = x * scale + away;
        }
        TestScene scene(mesh, 3, 20);
        for (int kind = 0; kind < kKinds; ++kind) {
            RaySet want(256, kind == multiple ? 9 : 1);
            fillMixed(want, scene.mesh, 1900 + uint32_t(round), false);
            for (int k = 0; k < 3; ++k) want.shared[k] = want.shared[k] * scale + away;
            std::mt19937 random{uint32_t(round)};
            for (int i = 0; i < want.n; ++i) {
                const size_t t = 4 * (random() % uint32_t(mesh.triangleCount()));
                for (int k = 0; k < 3; ++k) {
                    // At vertices, at middles of edges, at middles of faces.
                    const float* p = mesh.vertices.data();
                    const float a = p[3 * mesh.triangles[t] + k], b = p[3 * mesh.triangles[t + 1] + k],
                                c = p[3 * mesh.triangles[t + 2] + k];
                    const float to = i % 3 == 0 ? a : i % 3 == 1 ? (a + b) / 2 : (a + b + c) / 3;
                    float& from = want.planes[k][size_t(i)];
                    from = from * scale + away;
                    want.planes[3 + k][size_t(i)] = (to - (kind == nearest ? from : want.shared[k])) * 2;
                }
            }
            const RaySet rays = want;
            trace(Kind(kind), scene, want, {16, 16}, nullptr);
            for (const zenr::Level level : levels()) {
                RaySet got = rays;
                trace(Kind(kind), scene, got, {16, 16}, &level);
                size_t first = 0;
                ASSERT_EQ(differing(got, want, first), 0u) << kNames[kind] << " round " << round << " first " << first;
            }
        }
    }
}

TEST(Packets, SegmentsThatEndAtASurface) {
    // Within a few roundings of it, on either side, where the quick test must not decide by itself.
    for (int round = 0; round < rounds(60); ++round) {
        const float scale = round % 3 == 0 ? 1.f : round % 3 == 1 ? 1e-4f : 300.f;
        reference::Mesh mesh = round % 2 ? reference::terrain(12) : reference::soup(200, 0.3f, uint32_t(round));
        for (float& x : mesh.vertices) x *= scale;
        TestScene scene(mesh, 4, 20);
        std::mt19937 random{uint32_t(round)};
        std::uniform_real_distribution<float> part(0, 1);
        RaySet want(512, 1);
        for (int k = 0; k < 3; ++k) want.shared[k] = scale * 3 * (part(random) - 0.5f);
        for (int i = 0; i < want.n; ++i) {
            // Coherent runs of sixteen, so that some triangles are turned away for all of them.
            const size_t t = 4 * ((random() % 4 + size_t(i) / 16 * 7) % size_t(mesh.triangleCount()));
            const float a = part(random), b = part(random) * (1 - a);
            const float stretch = i % 4 == 0 ? 1.f : 1 + float(int(random() % 17) - 8) * 0x1p-23f;
            for (int k = 0; k < 3; ++k) {
                const auto corner = [&](int v) { return mesh.vertices[size_t(3 * mesh.triangles[t + size_t(v)] + k)]; };
                const float to = corner(0) * a + corner(1) * b + corner(2) * (1 - a - b);
                want.planes[3 + k][size_t(i)] = (to - want.shared[k]) * stretch;
            }
        }
        const RaySet rays = want;
        trace(any, scene, want, {16, 32}, nullptr);
        for (const zenr::Level level : levels()) {
            RaySet got = rays;
            trace(any, scene, got, {16, 32}, &level);
            size_t first = 0;
            ASSERT_EQ(differing(got, want, first), 0u) << "round " << round << " first " << first;
        }
    }
}

TEST(Packets, ABoxSmallerThanTheScene) {
    // Hits outside the box, behind which successive searches have reversed intervals.
    for (int round = 0; round < rounds(12); ++round) {
        TestScene scene(round % 2 ? reference::sphere(3) : reference::soup(500, 0.3f, 21), 3, 20);
        for (int k = 0; k < 6; ++k) scene.box[k] *= 0.2f + 0.1f * float((round + k) % 5);
        for (int kind = 0; kind < kKinds; ++kind) {
            RaySet want(512, kind == multiple ? 9 : 1);
            if (round % 3)
                fillMixed(want, scene.mesh, 300 + uint32_t(round), kind != nearest);
            else
                fillCoherent(want, {32, 16}, 300 + uint32_t(round));
            const RaySet rays = want;
            trace(Kind(kind), scene, want, {32, 16}, nullptr);
            for (const zenr::Level level : levels()) {
                RaySet got = rays;
                trace(Kind(kind), scene, got, {32, 16}, &level);
                size_t first = 0;
                ASSERT_EQ(differing(got, want, first), 0u) << kNames[kind] << " round " << round << " first " << first;
            }
        }
    }
}

namespace {

// Sheets one behind the other, so far apart as `gaps` say in turn; some along axes, on which trees like to split, some twice.
reference::Mesh sheets(int count, float tilt, uint32_t seed) {
    static const float gaps[] = {0.1f, 1e-5f, 3e-5f, 6e-5f, 1e-4f, 1.5e-4f, 2e-4f, 2.5e-4f, 4e-4f, 0.f, 0.02f};
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> wide(-1, 1);
    reference::Mesh mesh;
    float z = -0.5f;
    for (int s = 0; s < count; ++s) {
        const int first = mesh.vertexCount();
        constexpr int kSide = 6;
        for (int y = 0; y <= kSide; ++y)
            for (int x = 0; x <= kSide; ++x) {
                const float a = 2.f * float(x) / kSide - 1, b = 2.f * float(y) / kSide - 1;
                mesh.addVertex(a, b, z + tilt * (a * wide(random) * 0.02f + b));
            }
        for (int y = 0; y < kSide; ++y)
            for (int x = 0; x < kSide; ++x) {
                const int at = first + y * (kSide + 1) + x;
                mesh.add(at, at + 1, at + kSide + 1);
                mesh.add(at + 1, at + kSide + 2, at + kSide + 1);
            }
        z += gaps[random() % 11];
    }
    return mesh;
}

// Leaves that name other triangles than those inside them: no builder makes such a tree, but it can be traced.
void misplace(std::vector<uint32_t>& tree, uint32_t triangles, uint32_t seed) {
    std::mt19937 random(seed);
    for (size_t at = 0; at + 1 < tree.size(); at += 2) {
        const bool one = (tree[at] & 0x80000000u) && (tree[at + 1] & 0x80000003u) == 0x80000001u;
        if (one && random() % 2) tree[at] = 0x80000000u | random() % triangles;
    }
}

} // namespace

TEST(Packets, SuccessiveHitsCloseTogether) {
    // Surfaces that lie as close together as the errors of a distance, rays through vertices and edges, grazing rays.
    for (int round = 0; round < rounds(100); ++round) {
        const uint32_t seed = uint32_t(round);
        std::mt19937 random{seed};
        std::uniform_real_distribution<float> wide(-1, 1), part(0, 1);
        reference::Mesh mesh = round % 4 == 0   ? reference::soup(150, 0.9f, seed)
                               : round % 4 == 1 ? reference::sphere(3)
                                                : sheets(14, round % 4 == 2 ? 0.f : 0.3f, seed);
        if (round % 5 == 1) {
            // The same again, a little aside or in place.
            const int vertices = mesh.vertexCount(), triangles = mesh.triangleCount();
            const float aside = round % 2 ? 1e-4f * part(random) : 0.f;
            for (int i = 0; i < 3 * vertices; ++i) mesh.vertices.push_back(mesh.vertices[size_t(i)] + aside);
            for (int t = 0; t < triangles; ++t) {
                const int* v = &mesh.triangles[4 * size_t(t)];
                const int corner[3] = {v[0] + vertices, v[1] + vertices, v[2] + vertices};
                mesh.add(corner[0], corner[1], corner[2]);
            }
        }
        const float scales[] = {1.f, 10.f, 0.1f, 4.f, 60.f, 1e-3f};
        const float scale = scales[random() % 6];
        for (float& x : mesh.vertices) x *= scale;
        TestScene scene(mesh, 1 + round % 3, 25, round % 7 != 3);
        if (round % 6 == 3) misplace(scene.tree, uint32_t(mesh.triangleCount()), seed);
        if (round % 9 == 8)
            for (float& b : scene.box) b *= 0.6f;
        const float inside = round % 11 == 10 ? 0.2f : 1.f;
        RaySet want(1024, 2 + round % 12);
        const float eye[3] = {inside * 2.1f, inside * (round % 2 ? 1.7f : -1.9f), inside * 3.3f};
        for (int k = 0; k < 3; ++k) want.shared[k] = scale * eye[k];
        for (int i = 0; i < want.n; i += 64) {
            // Each sixty-four towards one place, so that all go the same way.
            const float middle[3] = {0.8f * wide(random), 0.8f * wide(random), 0.8f * wide(random)};
            for (int j = i; j < i + 64; ++j) {
                float to[3];
                for (int k = 0; k < 3; ++k) to[k] = scale * (middle[k] + 0.15f * wide(random));
                if (j % 4) {
                    // At a vertex, the middle of an edge, or inside a triangle, one after the other.
                    const size_t t = 4 * (random() % uint32_t(mesh.triangleCount()));
                    const float a = j % 4 == 1   ? 1.f
                                    : j % 4 == 2 ? 0.5f
                                                 : part(random),
                                b = (1 - a) * (j % 4 != 3 ? 1.f : part(random));
                    for (int k = 0; k < 3; ++k) {
                        const auto corner = [&](int v) {
                            return mesh.vertices[size_t(3 * mesh.triangles[t + size_t(v)] + k)];
                        };
                        to[k] = corner(0) * a + corner(1) * b + corner(2) * (1 - a - b);
                    }
                }
                const float length = round % 3 ? 1.f : 0.3f + part(random);
                for (int k = 0; k < 3; ++k) want.planes[3 + k][size_t(j)] = (to[k] - want.shared[k]) * length / scale;
            }
        }
        if (round % 4) std::fill(want.distance.begin(), want.distance.end(), 1e30f);
        const RaySet rays = want;
        trace(multiple, scene, want, {64, 16}, nullptr);
        for (const zenr::Level level : levels()) {
            RaySet got = rays;
            trace(multiple, scene, got, {64, 16}, &level);
            size_t first = 0;
            ASSERT_EQ(differing(got, want, first), 0u)
                << levelName(level) << " round " << round << " first " << first << ": " << got.triangle[first]
                << " for " << want.triangle[first] << ", " << got.distance[first] << " for " << want.distance[first];
        }
    }
}

TEST(Packets, ATriangleThatIsListedInFrontOfWhereItIs) {
    // Two leaves, before and behind z = 0. The last triangle is behind, but only the leaf before names it: a search that
    // begins behind does not meet it, though it is on the ray.
    reference::Mesh mesh;
    for (const float z : {-0.5f, 0.2f, 0.5f}) {
        const int first = mesh.vertexCount();
        mesh.addVertex(-9, -9, z);
        mesh.addVertex(9, -9, z);
        mesh.addVertex(0, 9, z);
        mesh.add(first, first + 1, first + 2);
    }
    TestScene scene(mesh, 1000, 0, false);
    std::vector<uint32_t> words(8, 0);
    words[0] = 4 * 4 | 2u; // at word 4: what is before, and behind
    words[4] = 0x80000000u | 0u;
    words[5] = 0x80000002u | 2u << 2;
    words[6] = 0x80000000u | 1u;
    words[7] = 0x80000001u;
    scene.tree = words;
    scene.context.rootNode = reinterpret_cast<const ZenrKDTreeNode*>(scene.tree.data());
    RaySet want(64, 4);
    std::fill(want.distance.begin(), want.distance.end(), 1e30f);
    const float eye[3] = {-0.9f, -0.8f, -3};
    std::copy(eye, eye + 3, want.shared);
    for (int i = 0; i < want.n; ++i) {
        const float d[3] = {0.3f + 0.01f * float(i % 8), 0.2f + 0.01f * float(i / 8), 1};
        want.set(i, eye, d);
    }
    const RaySet rays = want;
    trace(multiple, scene, want, {8, 8}, nullptr);
    for (size_t i = 0; i < 64; ++i) {
        ASSERT_EQ(want.triangle[i], 0);
        ASSERT_EQ(want.triangle[64 + i], 1);
        ASSERT_EQ(want.triangle[128 + i], -1);
    }
    for (const zenr::Level level : levels()) {
        RaySet got = rays;
        trace(multiple, scene, got, {8, 8}, &level);
        size_t first = 0;
        EXPECT_EQ(differing(got, want, first), 0u) << levelName(level) << " first " << first;
    }
}

TEST(Packets, BlocksTouchNothingButTheirRays) {
    TestScene scene(reference::sphere(4), 3, 20);
    for (const ZenrSize shape : {ZenrSize{3, 1}, ZenrSize{9, 9}, ZenrSize{65, 1}, ZenrSize{8, 8}, ZenrSize{17, 12}}) {
        for (const zenr::Level level : levels()) {
            Rays rays(shape.width * shape.height, 3);
            const float o[3] = {0.1f, -0.2f, 3.f};
            fillRays(rays, scene.mesh, 5, o);
            const float* box = scene.box;
            const ZenrKDTreeNode* root = scene.context.rootNode;
            // Every array ends at a page that faults.
            zenr::ownIntersectBlock(level, rays.origins(), rays.directions(), box, scene.accel.data(), root,
                                    rays.distance.data(), rays.hits(), rays.triangle.data(), shape.width, shape.height);
            rays.reset(1e30f);
            zenr::ownIntersectEyeBlock(level, o, rays.directions(), box, scene.accel.data(), root, rays.distance.data(),
                                       rays.hits(), rays.triangle.data(), shape.width, shape.height);
            EXPECT_EQ(rays.triangle[size_t(rays.n)], -55) << "the next layer";
            zenr::ownIntersectAnyBlock(level, o, rays.directions(), scene.accel.data(), root, rays.triangle.data(),
                                       rays.mask.data(), shape.width, shape.height);
            rays.reset(1e30f);
            zenr::ownIntersectMultipleBlock(level, o, rays.directions(), box, scene.accel.data(), root,
                                            rays.distance.data(), rays.hits(), rays.triangle.data(), shape.width,
                                            shape.height, 3);
        }
    }
}

TEST(Packets, ATreeThatNeedsMorePendingEntriesThanTheStackHas) {
    // A chain in which both children are always visited, longer than any tree of ours is deep.
    TestScene scene(reference::soup(40, 0.9f, 17), 1000, 0, false);
    for (const int depth : {49, 50, 51, 60}) {
        std::vector<uint32_t> words(size_t(4 + 4 * depth), 0);
        uint32_t at = 0;
        for (int level = 0; level < depth; ++level) {
            const uint32_t pair = uint32_t(4 + 4 * level);
            const float plane = 0.01f * float(level % 7);
            words[at] = (pair - at) * 4 | uint32_t(level % 3);
            memcpy(&words[at + 1], &plane, 4);
            words[pair + 2] = 0x80000000u | uint32_t(level % 40);
            words[pair + 3] = 0x80000001u;
            at = pair;
        }
        words[at] = 0x80000000u | 1u;
        words[at + 1] = 0x80000002u | 0u << 2;
        scene.tree = words;
        scene.context.rootNode = reinterpret_cast<const ZenrKDTreeNode*>(scene.tree.data());
        for (int kind = 0; kind < kKinds; ++kind) {
            RaySet want(128, kind == multiple ? 9 : 1);
            fillMixed(want, scene.mesh, uint32_t(depth), false);
            const RaySet rays = want;
            trace(Kind(kind), scene, want, {16, 8}, nullptr);
            for (const zenr::Level level : levels()) {
                RaySet got = rays;
                trace(Kind(kind), scene, got, {16, 8}, &level);
                size_t first = 0;
                ASSERT_EQ(differing(got, want, first), 0u) << kNames[kind] << " depth " << depth << " ray " << first;
            }
        }
    }
}
