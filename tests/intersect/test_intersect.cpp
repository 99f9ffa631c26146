// The intersectors against their plain recursive definitions, bit for bit, and their defined edge cases.
#include <thread>

#include "scene_fixture.h"

using namespace zenrtest;

namespace {

struct SceneCase {
    const char* name;
    reference::Mesh mesh;
    int leafSize, depth;
};

std::vector<SceneCase> cases() {
    return {{"soup", reference::soup(3000, 0.08f, 11), 4, 20},
            {"coarse soup", reference::soup(200, 0.6f, 12), 2, 50},
            {"sphere", reference::sphere(4), 3, 30},
            {"terrain", reference::terrain(24), 3, 30},
            {"one leaf", reference::soup(12, 0.9f, 13), 1000, 0}};
}

int blockRays() {
    return rounds(6000);
}

void expectHit(const Rays& rays, int i, const reference::Found& want, float maximum) {
    ASSERT_EQ(rays.triangle.data()[i], want.triangle) << "ray " << i;
    const bool hit = want.triangle >= 0;
    ASSERT_TRUE(sameFloat(rays.distance.data()[i], hit ? want.t : maximum)) << "ray " << i;
    ASSERT_TRUE(sameFloat(rays.hit0.data()[i], hit ? want.weight[0] : -7.5f)) << "ray " << i;
    ASSERT_TRUE(sameFloat(rays.hit1.data()[i], hit ? want.weight[1] : -8.5f)) << "ray " << i;
}

const float kEyes[3][3] = {{0.1f, -0.2f, 3.f}, {0.05f, 0.02f, 0.01f}, {-2.f, 1.9f, 0.f}};

} // namespace

TEST(MultiOrigin, MatchesTheDefinition) {
    uint32_t seed = 100;
    for (auto& c : cases()) {
        TestScene scene(c.mesh, c.leafSize, c.depth);
        for (float maximum : {1e30f, 0.7f, float(INFINITY), float(NAN), 0.f, -1.f}) {
            Rays rays(blockRays() / 4);
            rays.reset(maximum);
            fillRays(rays, scene.mesh, ++seed);
            ASSERT_EQ(zenrIntersectMO_32f(rays.origins(), rays.directions(), rays.distance.data(), rays.hits(),
                                          rays.triangle.data(), &scene.context, {rays.n, 1}),
                      zenStsNoErr);
            for (int i = 0; i < rays.n; ++i) {
                float o[3], d[3];
                rays.get(i, o, d);
                expectHit(rays, i, reference::traceNearest(scene.plain(), o, d, maximum), maximum);
                if (HasFatalFailure()) FAIL() << c.name << " maximum " << maximum;
            }
        }
    }
}

TEST(Eye, MatchesTheDefinition) {
    uint32_t seed = 200;
    for (auto& c : cases()) {
        TestScene scene(c.mesh, c.leafSize, c.depth);
        for (const auto& eye : kEyes) {
            for (float maximum : {1e30f, 0.9f, float(NAN)}) {
                Rays rays(blockRays() / 6);
                rays.reset(maximum);
                fillRays(rays, scene.mesh, ++seed, eye);
                zenrIntersectEyeSO_32f(eye, rays.directions(), rays.distance.data(), rays.hits(), rays.triangle.data(),
                                       &scene.context, {1, rays.n});
                for (int i = 0; i < rays.n; ++i) {
                    float o[3], d[3];
                    rays.get(i, o, d);
                    expectHit(rays, i, reference::traceEye(scene.plain(), eye, d, maximum), maximum);
                    if (HasFatalFailure()) FAIL() << c.name;
                }
            }
        }
    }
}

TEST(AnyHit, MatchesTheDefinition) {
    uint32_t seed = 300;
    for (auto& c : cases()) {
        TestScene scene(c.mesh, c.leafSize, c.depth);
        for (const auto& light : kEyes) {
            Rays rays(blockRays() / 3);
            fillRays(rays, scene.mesh, ++seed, light);
            for (int i = 0; i < rays.n; ++i) rays.mask[i] = i % 5 == 3 ? -1 - i : i;
            const float bad = NAN;
            ZenrIntersectContext context = scene.context;
            context.boundBox = seed % 2 ? &bad : nullptr; // must not be looked at
            zenrIntersectAnySO_32f(light, rays.directions(), rays.triangle.data(), rays.mask.data(), {rays.n, 1},
                                   &context);
            for (int i = 0; i < rays.n; ++i) {
                if (i % 5 == 3) {
                    ASSERT_EQ(rays.triangle[i], -1);
                    ASSERT_EQ(rays.mask[i], -1 - i);
                    continue;
                }
                float o[3], d[3];
                rays.get(i, o, d);
                const auto want = reference::traceAny(scene.plain(), light, d);
                ASSERT_EQ(rays.triangle[i], want.triangle) << c.name << " ray " << i;
                ASSERT_EQ(rays.mask[i], want.triangle >= 0 ? -1 : i) << c.name << " ray " << i;
            }
        }
    }
}

TEST(Multiple, MatchesTheDefinition) {
    uint32_t seed = 400;
    for (auto& c : cases()) {
        TestScene scene(c.mesh, c.leafSize, c.depth);
        for (int maxHits : {1, 2, 8, 11, 20}) {
            for (const auto& eye : kEyes) {
                const int n = blockRays() / 20;
                Rays rays(n, maxHits);
                const float maximum = seed % 3 ? 1e30f : 1.1f;
                rays.reset(maximum);
                fillRays(rays, scene.mesh, ++seed, eye);
                zenrIntersectMultipleSO_32f(eye, rays.directions(), rays.distance.data(), rays.hits(),
                                            rays.triangle.data(), {n, 1}, maxHits, &scene.context);
                for (int i = 0; i < n; ++i) {
                    float o[3], d[3];
                    rays.get(i, o, d);
                    std::vector<float> t(maxHits, maximum), w0(maxHits, -7.5f), w1(maxHits, -8.5f);
                    std::vector<int> j(maxHits, -1);
                    reference::traceMultiple(scene.plain(), eye, d, maxHits, t.data(), w0.data(), w1.data(), j.data());
                    for (int layer = 0; layer < maxHits; ++layer) {
                        const int at = layer * n + i;
                        ASSERT_EQ(rays.triangle[at], j[layer]) << c.name << " ray " << i << " layer " << layer;
                        ASSERT_TRUE(sameFloat(rays.distance[at], t[layer]))
                            << c.name << " ray " << i << " layer " << layer;
                        ASSERT_TRUE(sameFloat(rays.hit0[at], w0[layer]));
                        ASSERT_TRUE(sameFloat(rays.hit1[at], w1[layer]));
                    }
                }
            }
        }
    }
}

TEST(Tree, GivesWhatTestingEveryTriangleGives) {
    // Where the two differ, the distances agree to within the margin by which a nearer hit must be nearer.
    for (auto& c : cases()) {
        TestScene scene(c.mesh, c.leafSize, c.depth);
        TestScene flat(c.mesh, 1 << 30, 0, false);
        Rays a(rounds(3000)), b(a.n);
        std::mt19937 random(77);
        std::uniform_real_distribution<float> wide(-1.5f, 1.5f);
        for (int i = 0; i < a.n; ++i) {
            const float o[3] = {wide(random), wide(random), wide(random)},
                        d[3] = {wide(random), wide(random), wide(random)};
            a.set(i, o, d);
            b.set(i, o, d);
        }
        zenrIntersectMO_32f(a.origins(), a.directions(), a.distance.data(), a.hits(), a.triangle.data(), &scene.context,
                            {a.n, 1});
        zenrIntersectMO_32f(b.origins(), b.directions(), b.distance.data(), b.hits(), b.triangle.data(), &flat.context,
                            {b.n, 1});
        int hits = 0;
        for (int i = 0; i < a.n; ++i) {
            ASSERT_EQ(a.triangle[i] >= 0, b.triangle[i] >= 0) << c.name << " ray " << i;
            if (a.triangle[i] < 0) continue;
            ++hits;
            ASSERT_NEAR(a.distance[i], b.distance[i], 2e-5f) << c.name << " ray " << i;
        }
        EXPECT_GT(hits, a.n / 50) << c.name;
    }
}

TEST(Tree, SurvivesAMoveOfItsBlock) {
    TestScene scene(reference::sphere(3), 3, 20);
    Rays a(500), b(500);
    fillRays(a, scene.mesh, 5);
    fillRays(b, scene.mesh, 5);
    zenrIntersectMO_32f(a.origins(), a.directions(), a.distance.data(), a.hits(), a.triangle.data(), &scene.context,
                        {500, 1});
    std::vector<uint32_t> moved(scene.tree.size() + 7);
    std::copy(scene.tree.begin(), scene.tree.end(), moved.begin() + 7);
    std::fill(scene.tree.begin(), scene.tree.end(), 0x80000001u);
    scene.context.rootNode = reinterpret_cast<const ZenrKDTreeNode*>(moved.data() + 7);
    zenrIntersectMO_32f(b.origins(), b.directions(), b.distance.data(), b.hits(), b.triangle.data(), &scene.context,
                        {500, 1});
    for (int i = 0; i < 500; ++i) {
        ASSERT_EQ(a.triangle[i], b.triangle[i]);
        ASSERT_TRUE(sameFloat(a.distance[i], b.distance[i]));
    }
}

TEST(Block, ShapeDoesNotMatter) {
    TestScene scene(reference::soup(2000, 0.1f, 21), 4, 30);
    const int total = 64 * 64, layers = 9;
    const float* eye = kEyes[0];
    const auto trace = [&](int width, int height, int kind) {
        auto all = std::make_unique<Rays>(total, layers);
        fillRays(*all, scene.mesh, 31, kind == 0 ? nullptr : eye);
        for (int start = 0; start < total; start += width * height) {
            const int n = std::min(width * height, total - start);
            const ZenrSize size = n == width * height ? ZenrSize{width, height} : ZenrSize{n, 1};
            Rays part(n, layers);
            for (int i = 0; i < n; ++i) {
                float o[3], d[3];
                all->get(start + i, o, d);
                part.set(i, o, d);
            }
            switch (kind) {
            case 0:
                zenrIntersectMO_32f(part.origins(), part.directions(), part.distance.data(), part.hits(),
                                    part.triangle.data(), &scene.context, size);
                break;
            case 1:
                zenrIntersectEyeSO_32f(eye, part.directions(), part.distance.data(), part.hits(), part.triangle.data(),
                                       &scene.context, size);
                break;
            case 2:
                zenrIntersectAnySO_32f(eye, part.directions(), part.triangle.data(), part.mask.data(), size,
                                       &scene.context);
                break;
            default:
                zenrIntersectMultipleSO_32f(eye, part.directions(), part.distance.data(), part.hits(),
                                            part.triangle.data(), size, layers, &scene.context);
            }
            for (int layer = 0; layer < layers; ++layer) {
                for (int i = 0; i < n; ++i) {
                    const int to = layer * total + start + i, from = layer * n + i;
                    all->triangle[to] = part.triangle[from];
                    all->distance[to] = part.distance[from];
                    all->hit0[to] = part.hit0[from];
                    all->hit1[to] = part.hit1[from];
                }
            }
        }
        return all;
    };
    for (int kind = 0; kind < 4; ++kind) {
        const auto whole = trace(64, 64, kind);
        for (const ZenrSize shape : {ZenrSize{1, 1}, ZenrSize{7, 3}, ZenrSize{1024, 1}, ZenrSize{1, 100}}) {
            const auto parts = trace(shape.width, shape.height, kind);
            for (int i = 0; i < total * layers; ++i) {
                ASSERT_EQ(whole->triangle[i], parts->triangle[i]) << kind << " " << i;
                ASSERT_TRUE(sameFloat(whole->distance[i], parts->distance[i])) << kind << " " << i;
                ASSERT_TRUE(sameFloat(whole->hit0[i], parts->hit0[i]));
                ASSERT_TRUE(sameFloat(whole->hit1[i], parts->hit1[i]));
            }
        }
    }
}

TEST(Block, SizesBelowOneTouchNothing) {
    // Every pointer is null: anything touched would fault.
    const ZenrIntersectContext context = {nullptr, nullptr, nullptr};
    const float* const planes[3] = {nullptr, nullptr, nullptr};
    float* const hits[2] = {nullptr, nullptr};
    for (const ZenrSize size : {ZenrSize{0, 5}, ZenrSize{5, 0}, ZenrSize{-1, -1}, ZenrSize{-2147483647 - 1, 3}}) {
        EXPECT_EQ(zenrIntersectMO_32f(planes, planes, nullptr, hits, nullptr, &context, size), zenStsNoErr);
        EXPECT_EQ(zenrIntersectEyeSO_32f(nullptr, planes, nullptr, hits, nullptr, &context, size), zenStsNoErr);
        EXPECT_EQ(zenrIntersectAnySO_32f(nullptr, planes, nullptr, nullptr, size, &context), zenStsNoErr);
        EXPECT_EQ(zenrIntersectMultipleSO_32f(nullptr, planes, nullptr, hits, nullptr, size, 3, &context), zenStsNoErr);
    }
    for (int hitsAsked : {0, -4}) {
        EXPECT_EQ(zenrIntersectMultipleSO_32f(nullptr, planes, nullptr, hits, nullptr, {4, 4}, hitsAsked, &context),
                  zenStsNoErr);
    }
}

// ---- Defined edge cases, on one triangle or two in the plane z = 0 ------------------------------------------------

namespace {

reference::Mesh square() {
    reference::Mesh mesh;
    mesh.addVertex(-1, -1, 0);
    mesh.addVertex(1, -1, 0);
    mesh.addVertex(1, 1, 0);
    mesh.addVertex(-1, 1, 0);
    mesh.add(0, 1, 2);
    mesh.add(0, 2, 3);
    return mesh;
}

struct One {
    Rays rays{1};
    TestScene& scene;
    float o[3];
    One(TestScene& s, std::array<float, 3> origin, std::array<float, 3> direction, float maximum = 100.f) : scene(s) {
        std::copy(origin.begin(), origin.end(), o);
        rays.reset(maximum);
        rays.set(0, origin.data(), direction.data());
    }
    int nearest() {
        zenrIntersectMO_32f(rays.origins(), rays.directions(), rays.distance.data(), rays.hits(), rays.triangle.data(),
                            &scene.context, {1, 1});
        return rays.triangle[0];
    }
    int eye() {
        zenrIntersectEyeSO_32f(o, rays.directions(), rays.distance.data(), rays.hits(), rays.triangle.data(),
                               &scene.context, {1, 1});
        return rays.triangle[0];
    }
    int any() {
        zenrIntersectAnySO_32f(o, rays.directions(), rays.triangle.data(), rays.mask.data(), {1, 1}, &scene.context);
        return rays.triangle[0];
    }
};

} // namespace

TEST(EdgeCases, HitReportsWeightsOfTheFirstTwoVertices) {
    TestScene scene(square(), 8, 0);
    One one(scene, {0.5f, -0.25f, 2}, {0, 0, -1});
    ASSERT_EQ(one.nearest(), 0);
    EXPECT_EQ(one.rays.distance[0], 2.f);
    // (0.5, -0.25) = w0 (-1, -1) + w1 (1, -1) + w2 (1, 1)
    EXPECT_FLOAT_EQ(one.rays.hit0[0], 0.25f);
    EXPECT_FLOAT_EQ(one.rays.hit1[0], 0.375f);
}

TEST(EdgeCases, ParallelOnTheBoxFaceMissesWithOwnOriginOnly) {
    TestScene scene(square(), 8, 0);
    scene.box[0] = -1; // the face right at the square's border
    EXPECT_EQ(One(scene, {-1, 0, 2}, {0, 0, -1}).nearest(), -1);
    EXPECT_GE(One(scene, {-0.9999f, 0, 2}, {0, 0, -1}).nearest(), 0);
    EXPECT_GE(One(scene, {-1, 0, 2}, {0, 0, -1}).eye(), 0);
}

TEST(EdgeCases, AnEyeOutsideASlabItIsParallelToIsTracedAndFindsNothing) {
    TestScene scene(square(), 8, 0);
    EXPECT_EQ(One(scene, {5, 0, 2}, {0, 0, -1}).eye(), -1);
    scene.box[0] = 3;
    scene.box[3] = 4; // a box that the eye is not in: a hit shows that nothing rejected the ray
    EXPECT_GE(One(scene, {0.5f, 0, 2}, {0, 0, -1}).eye(), 0);
}

TEST(EdgeCases, TrianglesBehindTheOriginAreNotReported) {
    TestScene scene(square(), 8, 0);
    EXPECT_EQ(One(scene, {0.5f, 0, 1}, {0, 0, 1}).nearest(), -1);
    EXPECT_EQ(One(scene, {0.5f, 0, 0}, {0, 0, 1}).nearest(), -1) << "t = 0 does not count";
    EXPECT_EQ(One(scene, {0.5f, 0, 0}, {0, 0, 1}).eye(), -1);
}

TEST(EdgeCases, MaximumDistance) {
    TestScene scene(square(), 8, 0);
    EXPECT_EQ(One(scene, {0.5f, 0, 2}, {0, 0, -1}, 2.f).nearest(), -1);
    EXPECT_EQ(One(scene, {0.5f, 0, 2}, {0, 0, -1}, 2.000009f).nearest(), -1) << "within the margin";
    EXPECT_EQ(One(scene, {0.5f, 0, 2}, {0, 0, -1}, 2.0001f).nearest(), 0);
    EXPECT_EQ(One(scene, {0.5f, 0, 2}, {0, 0, -1}, 2.000009f).eye(), 0) << "no margin from an eye";
    EXPECT_EQ(One(scene, {0.5f, 0, 2}, {0, 0, -1}, 2.f).eye(), -1);
    for (float maximum : {0.f, -1.f}) {
        One one(scene, {0.5f, 0, 2}, {0, 0, -1}, maximum);
        EXPECT_EQ(one.nearest(), -1);
        EXPECT_EQ(one.rays.distance[0], maximum);
        EXPECT_EQ(one.rays.hit0[0], -7.5f);
    }
}

TEST(EdgeCases, ASharedEdgeGoesToTheTriangleTestedFirst) {
    TestScene scene(square(), 8, 0);
    // An inline pair is read w0 first, which holds the second of the two here.
    EXPECT_EQ(One(scene, {0.5f, 0.5f, 2}, {0, 0, -1}).nearest(), 1);
    EXPECT_EQ(One(scene, {0.5f, 0.5f, 2}, {0, 0, -1}).eye(), 1);
    TestScene general(square(), 8, 0, false);
    EXPECT_EQ(One(general, {0.5f, 0.5f, 2}, {0, 0, -1}).nearest(), 0);
    EXPECT_EQ(One(general, {0.5f, 0.5f, 2}, {0, 0, -1}).eye(), 0);
    std::swap(general.tree[4], general.tree[5]); // the list now begins with triangle 1
    EXPECT_EQ(One(general, {0.5f, 0.5f, 2}, {0, 0, -1}).nearest(), 1);
    EXPECT_EQ(One(general, {0.5f, 0.5f, 2}, {0, 0, -1}).eye(), 1);
}

TEST(EdgeCases, DegenerateTrianglesAndEmptyBoxes) {
    reference::Mesh mesh = square();
    mesh.triangles = {0, 1, 1, 0, 2, 2, 2, 0};
    TestScene scene(mesh, 8, 0);
    EXPECT_EQ(One(scene, {0, -1, 2}, {0, 0, -1}).nearest(), -1);
    EXPECT_EQ(One(scene, {0, -1, 2}, {0, 0, -1}).eye(), -1);
    EXPECT_EQ(One(scene, {0, -1, 2}, {0, 0, -2.5f}).any(), -1);

    TestScene nothing(reference::Mesh(), 8, 0);
    EXPECT_EQ(One(nothing, {0.5f, 0, 2}, {0.1f, 0.1f, -1}).nearest(), -1);
    EXPECT_EQ(One(nothing, {0.5f, 0, 2}, {0.1f, 0.1f, -1}).eye(), -1);
    EXPECT_EQ(One(nothing, {0.5f, 0, 2}, {0, 0, -4}).any(), -1);
    // The clip takes each slab's bounds in either order, so that an inverted box of no vertices rejects by containment
    // (rays parallel to an axis) alone; a scene without vertices has no triangle to report in any case.
    TestScene inverted(square(), 8, 0);
    zenrSetBoundBox_32f(inverted.mesh.vertices.data(), 0, inverted.box);
    EXPECT_EQ(One(inverted, {0.5f, 0, 2}, {0, 0, -1}).nearest(), -1);
    EXPECT_GE(One(inverted, {0.5f, 0, 2}, {0, 0, -4}).any(), 0) << "segments do not consult the box";
}

TEST(EdgeCases, SegmentsExcludeTheirEnds) {
    TestScene scene(square(), 8, 0);
    EXPECT_EQ(One(scene, {0.5f, 0, 2}, {0, 0, -2}).any(), -1) << "at t = 1";
    EXPECT_EQ(One(scene, {0.5f, 0, 0}, {0, 0, -2}).any(), -1) << "at t = 0";
    EXPECT_EQ(One(scene, {0.5f, 0, 2}, {0, 0, -2.001f}).any(), 0);
    One masked(scene, {0.5f, 0, 2}, {0, 0, -4});
    masked.rays.mask[0] = -9;
    EXPECT_EQ(masked.any(), -1);
    EXPECT_EQ(masked.rays.mask[0], -9);
    One blocked(scene, {0.5f, 0, 2}, {0, 0, -4});
    blocked.rays.mask[0] = 3;
    EXPECT_EQ(blocked.any(), 0);
    EXPECT_EQ(blocked.rays.mask[0], -1);
}

TEST(EdgeCases, AnInlineLeafOfThree) {
    reference::Mesh mesh;
    for (int j = 0; j < 20; ++j) {
        const float z = float(j) * 0.1f;
        const int a = mesh.addVertex(-1, -1, z), b = mesh.addVertex(1, -1, z), c = mesh.addVertex(0, 1, z);
        mesh.add(a, b, c);
    }
    TestScene scene(mesh, 1000, 0);
    scene.tree = {0x80000000u | (3u << 16) | 4u, 0x80000003u | (9u << 2), 0, 0}; // triangles 6, 9, 13
    scene.context.rootNode = reinterpret_cast<const ZenrKDTreeNode*>(scene.tree.data());
    EXPECT_EQ(One(scene, {0, 0, 5}, {0, 0, -1}).nearest(), 13);
    EXPECT_EQ(One(scene, {0, 0, -5}, {0, 0, 1}).nearest(), 6);
    EXPECT_EQ(One(scene, {0, 0, 0.75f}, {0, 0, 1}).nearest(), 9);
    scene.tree[1] = 0x80000000u; // an inline leaf of none
    EXPECT_EQ(One(scene, {0, 0, 5}, {0, 0, -1}).nearest(), -1);
}

namespace {

// `count` parallel triangles, one unit apart, hit one after the other by a ray along +z.
TestScene* stack(int count) {
    reference::Mesh mesh;
    for (int j = 0; j < count; ++j) {
        const int a = mesh.addVertex(-1, -1, float(j)), b = mesh.addVertex(1, -1, float(j)),
                  c = mesh.addVertex(0, 1, float(j));
        mesh.add(a, b, c);
    }
    return new TestScene(mesh, 2, 20);
}

} // namespace

TEST(EdgeCases, SuccessiveHitsAreCumulativeAndOnlyTheFirstHonoursTheMaximum) {
    std::unique_ptr<TestScene> scene(stack(12));
    Rays rays(1, 14);
    rays.reset(3.5f);
    const float o[3] = {0.1f, -0.2f, -2}, d[3] = {0, 0, 1};
    rays.set(0, o, d);
    zenrIntersectMultipleSO_32f(o, rays.directions(), rays.distance.data(), rays.hits(), rays.triangle.data(), {1, 1},
                                14, &scene->context);
    for (int layer = 0; layer < 12; ++layer) {
        EXPECT_EQ(rays.triangle[layer], layer);
        EXPECT_EQ(rays.distance[layer], float(2 + layer));
    }
    EXPECT_EQ(rays.triangle[12], -1);
    EXPECT_EQ(rays.triangle[13], -1);
    EXPECT_EQ(rays.distance[12], 3.4028235e38f);
    EXPECT_EQ(rays.distance[13], 3.5f) << "layers behind the last search are not written";

    rays.reset(1.5f);
    zenrIntersectMultipleSO_32f(o, rays.directions(), rays.distance.data(), rays.hits(), rays.triangle.data(), {1, 1},
                                14, &scene->context);
    for (int layer = 0; layer < 14; ++layer) EXPECT_EQ(rays.triangle[layer], -1);
}

TEST(EdgeCases, OneHitOfManyIsTheEyesHit) {
    TestScene scene(reference::sphere(4), 3, 20);
    Rays a(2000), b(2000);
    std::mt19937 random(3);
    std::uniform_real_distribution<float> wide(-0.4f, 0.4f);
    const float eye[3] = {0, 0, 3};
    for (int i = 0; i < 2000; ++i) {
        const float d[3] = {wide(random), wide(random), -1};
        a.set(i, eye, d);
        b.set(i, eye, d);
    }
    zenrIntersectEyeSO_32f(eye, a.directions(), a.distance.data(), a.hits(), a.triangle.data(), &scene.context,
                           {2000, 1});
    zenrIntersectMultipleSO_32f(eye, b.directions(), b.distance.data(), b.hits(), b.triangle.data(), {2000, 1}, 1,
                                &scene.context);
    int hits = 0;
    for (int i = 0; i < 2000; ++i) {
        ASSERT_EQ(a.triangle[i], b.triangle[i]);
        ASSERT_TRUE(sameFloat(a.distance[i], b.distance[i]));
        hits += a.triangle[i] >= 0;
    }
    EXPECT_GT(hits, 500);
}

TEST(Robustness, ATreeThatNeedsMoreThanFiftyPendingEntriesEndsTheRay) {
    // A chain in which both children are always visited: the lower child is interior, the upper an empty leaf.
    for (int depth : {50, 51, 60}) {
        TestScene scene(square(), 1000, 0, false);
        std::vector<uint32_t> words(size_t(4 + 4 * depth), 0);
        const float plane = 0.f;
        uint32_t at = 0;
        for (int level = 0; level < depth; ++level) {
            const uint32_t pair = uint32_t(4 + 4 * level);
            words[at] = (pair - at) * 4 | 0u;
            memcpy(&words[at + 1], &plane, 4);
            words[pair + 2] = 0u - 16u; // empty general leaf
            words[pair + 3] = 0;
            at = pair;
        }
        words[at] = 0x80000000u | 1u; // the last lower child holds both triangles inline
        words[at + 1] = 0x80000002u | 0u << 2;
        scene.tree = words;
        scene.context.rootNode = reinterpret_cast<const ZenrKDTreeNode*>(scene.tree.data());
        const bool fits = depth <= 50;
        One one(scene, {-0.5f, 0.25f, 2}, {1e-5f, 0, -1});
        // The split plane is crossed at t = 50000: kept within reach so that both children are pending at each level.
        scene.box[2] = -1e6f;
        one.rays.distance[0] = 1e5f;
        scene.box[3] = 10;
        EXPECT_EQ(one.nearest() >= 0, fits) << depth;
        EXPECT_EQ(One(scene, {-0.5f, 0.25f, 2}, {0.8f, 0, -3}).any() >= 0, fits) << depth;
    }
}

TEST(Robustness, CallersOnManyThreadsShareOneContext) {
    TestScene scene(reference::sphere(4), 3, 20);
    const int n = 500;
    Rays want(n, 4);
    fillRays(want, scene.mesh, 9, kEyes[0]);
    zenrIntersectMultipleSO_32f(kEyes[0], want.directions(), want.distance.data(), want.hits(), want.triangle.data(),
                                {n, 1}, 4, &scene.context);
    std::vector<std::thread> threads;
    bool same[4] = {};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            Rays rays(n, 4);
            fillRays(rays, scene.mesh, 9, kEyes[0]);
            zenrIntersectMultipleSO_32f(kEyes[0], rays.directions(), rays.distance.data(), rays.hits(),
                                        rays.triangle.data(), {n, 1}, 4, &scene.context);
            same[t] = memcmp(rays.triangle.data(), want.triangle.data(), sizeof(int) * n * 4) == 0;
        });
    }
    for (auto& thread : threads) thread.join();
    for (bool s : same) EXPECT_TRUE(s);
}
