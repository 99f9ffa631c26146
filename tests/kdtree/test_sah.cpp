// The surface-area-heuristic builder: format, coverage, cost, budgets, failing allocators, threads, awkward meshes.
// This program brings a core library of its own, to count and refuse allocations and to set the thread count.
#include <algorithm>

#include "frame/prmem.h"
#include "kdtree/kdtree.h"
#include "kdtree/pr_avlopsahbld.h"
#include "kdtree/pr_avlopsahsrch.h"
#include "reference/meshes.h"
#include "reference/sah_reference.h"
#include "support.h"
#include "zencore.h"
#include "zenr.h"

using reference::Box;
using reference::Mesh;
using reference::TreeReader;

namespace {
int asked = 0;
int outstanding = 0;
int failOnly = -1; // the call of the allocator that fails, from 0; -1: none
int threads = 1;
} // namespace

extern "C" void* zenMalloc(size_t size) {
    if (asked++ == failOnly) return nullptr;
    void* block = nullptr;
    if (posix_memalign(&block, 64, size)) return nullptr;
    ++outstanding;
    return block;
}
extern "C" void zenFree(void* block) {
    if (block) --outstanding;
    free(block);
}
extern "C" int ownGetNumThreads(void) {
    return threads;
}

namespace {

Box boxOf(const Mesh& mesh) {
    Box box{};
    for (int i = 0; i < mesh.vertexCount(); ++i)
        for (int a = 0; a < 3; ++a) {
            const float x = mesh.vertices[3 * size_t(i) + a];
            box[a] = i == 0 ? x : std::min(box[a], x);
            box[a + 3] = i == 0 ? x : std::max(box[a + 3], x);
        }
    return box;
}

struct Built {
    ZenStatus status = zenStsNoErr;
    std::vector<uint32_t> words;
    int size = -1;
};

Built build(const Mesh& mesh, float ratio, int depth = 50, uint32_t megabytes = 512, const float* box = nullptr) {
    const ZenrKDTreeBuildParams params = {zenKDTBuildSAH, depth, ratio, megabytes, box};
    ZenrKDTreeNode* const untouched = reinterpret_cast<ZenrKDTreeNode*>(uintptr_t(8));
    ZenrKDTreeNode* tree = untouched;
    Built built;
    const float nothing[3] = {};
    const int none[4] = {};
    built.status = zenrKDTreeBuildAlloc(&tree, mesh.vertices.empty() ? nothing : mesh.vertices.data(),
                                        mesh.triangles.empty() ? none : mesh.triangles.data(), mesh.vertexCount(),
                                        mesh.triangleCount(), &built.size, &params);
    if (built.status == zenStsNoErr) {
        EXPECT_GT(built.size, 0);
        built.words.resize(size_t(built.size) / 4);
        memcpy(built.words.data(), tree, size_t(built.size));
        zenrKDTreeFree(tree);
    } else {
        EXPECT_EQ(tree, untouched);
        EXPECT_EQ(built.size, -1);
    }
    EXPECT_EQ(outstanding, 0);
    return built;
}

uint32_t checksum(const std::vector<uint32_t>& words) {
    uint32_t hash = 2166136261u;
    for (uint32_t w : words) hash = (hash ^ w) * 16777619u;
    return hash;
}

// Format, depth, and each triangle in every leaf that it reaches into.
void expectSound(const Mesh& mesh, const Built& built, int depth, const Box& box, const char* what) {
    ASSERT_EQ(built.status, zenStsNoErr) << what;
    TreeReader reader(built.words.data(), built.size, box);
    ASSERT_EQ(reader.error, "") << what;
    EXPECT_LE(reader.deepest, depth) << what;
    double largest = 0;
    for (float x : box) largest = std::max(largest, double(fabsf(x)));
    for (const auto& leaf : reader.leaves) {
        std::vector<char> listed(size_t(mesh.triangleCount()), 0);
        for (int t : leaf.list) {
            ASSERT_TRUE(t >= 0 && t < mesh.triangleCount()) << what;
            ASSERT_FALSE(listed[size_t(t)]) << what << ": listed twice";
            listed[size_t(t)] = 1;
        }
        for (int t = 0; t < mesh.triangleCount(); ++t) {
            if (listed[size_t(t)]) continue;
            const float* corner[3];
            for (int v = 0; v < 3; ++v) corner[v] = &mesh.vertices[3 * size_t(mesh.triangles[4 * size_t(t) + v])];
            bool apart = false; // most are, by their boxes alone
            for (int a = 0; a < 3; ++a) {
                const float lo = std::min({corner[0][a], corner[1][a], corner[2][a]});
                const float hi = std::max({corner[0][a], corner[1][a], corner[2][a]});
                apart = apart || lo > leaf.cell[a + 3] || hi < leaf.cell[a];
            }
            ASSERT_TRUE(apart || !reference::reachesInto(corner, leaf.cell, 1e-6L * largest))
                << what << ": triangle " << t << " missing";
        }
    }
}

void expectNearestAgree(const Mesh& mesh, const Built& built, const Box& box, int rays, uint32_t seed) {
    reference::RayWalk walk(built.words.data(), box, mesh.vertices.data(), mesh.triangles.data());
    std::mt19937 random(seed);
    std::uniform_real_distribution<double> unit(-1, 1);
    for (int r = 0; r < rays; ++r) {
        double o[3], d[3];
        for (int k = 0; k < 3; ++k) {
            o[k] = 2 * unit(random);
            d[k] = unit(random) - o[k];
        }
        double brute = INFINITY;
        for (int t = 0; t < mesh.triangleCount(); ++t) {
            const int* v = &mesh.triangles[4 * size_t(t)];
            brute =
                std::min(brute, reference::meet(o, d, &mesh.vertices[3 * size_t(v[0])],
                                                &mesh.vertices[3 * size_t(v[1])], &mesh.vertices[3 * size_t(v[2])]));
        }
        ASSERT_EQ(walk.nearest(o, d), brute) << "ray " << r;
    }
}

// A room of axis-aligned boxes: nearly everything is planar on some axis.
Mesh boxes(int count, uint32_t seed) {
    std::mt19937 random(seed);
    Mesh mesh;
    for (int b = 0; b < count; ++b) {
        float lo[3], hi[3];
        for (int a = 0; a < 3; ++a) {
            lo[a] = float(int(random() % 32)) / 16 - 1;
            hi[a] = lo[a] + float(1 + random() % 4) / 16;
        }
        int v[8];
        for (int i = 0; i < 8; ++i)
            v[i] = mesh.addVertex(i & 1 ? hi[0] : lo[0], i & 2 ? hi[1] : lo[1], i & 4 ? hi[2] : lo[2]);
        const int faces[6][4] = {{0, 1, 3, 2}, {4, 5, 7, 6}, {0, 1, 5, 4}, {2, 3, 7, 6}, {0, 2, 6, 4}, {1, 3, 7, 5}};
        for (const auto& f : faces) {
            mesh.add(v[f[0]], v[f[1]], v[f[2]]);
            mesh.add(v[f[0]], v[f[2]], v[f[3]]);
        }
    }
    return mesh;
}

Mesh slivers(int count, uint32_t seed) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> place(-1, 1);
    Mesh mesh;
    for (int t = 0; t < count; ++t) {
        const float p[3] = {place(random), place(random), place(random)};
        const float q[3] = {place(random), place(random), place(random)};
        const int a = mesh.addVertex(p[0], p[1], p[2]);
        const int b = mesh.addVertex(q[0], q[1], q[2]);
        mesh.add(a, b, mesh.addVertex(q[0] + 1e-6f, q[1] - 1e-6f, q[2]));
    }
    return mesh;
}

constexpr float kRatios[] = {0.f, 0.5f, 1.f};

} // namespace

TEST(SAHBuilder, TreesAreSoundAndRaysFindWhatBruteForceFinds) {
    const struct {
        const char* name;
        Mesh mesh;
    } cases[] = {{"soup", reference::soup(400, 0.2f, 1)},
                 {"big soup", reference::soup(60, 1.f, 2)},
                 {"sphere", reference::sphere(4)},
                 {"terrain", reference::terrain(24)},
                 {"boxes", boxes(40, 3)},
                 {"slivers", slivers(120, 4)}};
    for (const auto& c : cases)
        for (float ratio : kRatios) {
            SCOPED_TRACE(c.name);
            const Built built = build(c.mesh, ratio);
            expectSound(c.mesh, built, 50, boxOf(c.mesh), c.name);
            expectNearestAgree(c.mesh, built, boxOf(c.mesh), zenrtest::rounds(600), 9);
        }
}

TEST(SAHBuilder, LimitsOfDepthHold) {
    const Mesh mesh = reference::soup(300, 0.1f, 5);
    for (int depth : {0, 1, 2, 7, 50}) expectSound(mesh, build(mesh, 1, depth), depth, boxOf(mesh), "depth");
    const Built leaf = build(mesh, 1, 0);
    ASSERT_EQ(leaf.size, 16 + 4 * 300);
    EXPECT_EQ(leaf.words[0], 0xFFFFFFF0u);
    EXPECT_EQ(leaf.words[1], 300u);
    for (uint32_t t = 0; t < 300; ++t) ASSERT_EQ(leaf.words[4 + t], t);
}

TEST(SAHBuilder, CostIsThatOfAnExactSweep) {
    for (int which = 0; which < 3; ++which) {
        const Mesh mesh = which == 0 ? reference::sphere(5) : which == 1 ? reference::terrain(40) : boxes(100, 8);
        for (float ratio : kRatios) {
            const Built built = build(mesh, ratio);
            ASSERT_EQ(built.status, zenStsNoErr);
            TreeReader reader(built.words.data(), built.size, boxOf(mesh));
            const reference::SweepBuilder sweep(mesh.vertices.data(), mesh.triangles.data(), mesh.triangleCount(),
                                                (10 - 9 * ratio) * 0.5057569742202759, 50);
            EXPECT_LE(reader.cost(), 1.05 * sweep.cost) << which << " at " << ratio;
        }
    }
}

// Meshes large enough for the search to fork, except under emulation.
TEST(SAHBuilder, SameBytesForAnyThreadCountAndAgain) {
    for (int which = 0; which < 3; ++which) {
        const Mesh mesh = which == 0   ? reference::sphere(zenrtest::rounds(30) < 30 ? 4 : 6)
                          : which == 1 ? reference::soup(zenrtest::rounds(17000), 0.02f, 6)
                                       : boxes(400, 7);
        const Built one = build(mesh, 0.5f);
        for (int t : {2, 3, 7, 1}) {
            threads = t;
            const Built other = build(mesh, 0.5f);
            threads = 1;
            EXPECT_EQ(one.words, other.words) << t;
        }
    }
}

// An OpenMP lock without a name belongs to the whole process: a builder that took it would wait for its own caller.
TEST(SAHBuilder, MayBeCalledUnderALockOfTheCallers) {
    const Mesh mesh = reference::sphere(4);
    const Built expected = build(mesh, 0.5f);
    for (int t : {1, 3}) {
        threads = t;
        Built built;
#pragma omp critical
        built = build(mesh, 0.5f);
        threads = 1;
        EXPECT_EQ(built.words, expected.words);
    }
}

// A team needs blocks of its own. Where the budget does not pay for them, or an allocation fails, one thread builds the
// tree after all.
TEST(SAHBuilder, TeamsWithoutMemoryGiveWayToOneThread) {
    const Mesh mesh = reference::sphere(6);
    if (zenrtest::rounds(30) < 30) return; // too slow there, and no kernel's business
    asked = 0;
    const Built one = build(mesh, 0.5f);
    const int alone = asked;
    threads = 4;
    asked = 0;
    EXPECT_EQ(build(mesh, 0.5f).words, one.words);
    const int together = asked;
    EXPECT_GT(together, alone);
    uint32_t smallest = 33;
    for (uint32_t budget = 33; budget < 160; budget += 8) {
        const Built built = build(mesh, 0.5f, 50, budget);
        threads = 1;
        const Built expected = build(mesh, 0.5f, 50, budget);
        threads = 4;
        ASSERT_EQ(built.status, expected.status) << budget;
        ASSERT_EQ(built.words, expected.words) << budget;
        if (built.status != zenStsNoErr) smallest = budget + 8;
    }
    EXPECT_GT(smallest, 33u);
    for (int call = 0; call < together; ++call) {
        asked = 0;
        failOnly = call;
        const Built built = build(mesh, 0.5f);
        failOnly = -1;
        if (built.status == zenStsNoErr)
            ASSERT_EQ(built.words, one.words) << call;
        else
            ASSERT_TRUE(call < 15 || call == together - 1) << call;
    }
    threads = 1;
}

// The same numbers on both flavours. Not a definition: when a deliberate change of the builder makes other trees, these
// change with it, and then on both flavours alike.
TEST(SAHBuilder, FlavoursAgree) {
    const Mesh meshes[] = {reference::soup(500, 0.2f, 1), reference::sphere(4), reference::terrain(24), boxes(40, 3)};
    uint32_t all = 0;
    for (const Mesh& mesh : meshes)
        for (float ratio : kRatios) all = all * 31 + checksum(build(mesh, ratio).words);
    EXPECT_EQ(all, 3216005778u);
}

TEST(SAHBuilder, BudgetOfAnEmptyMesh) {
    const Mesh empty;
    EXPECT_EQ(build(empty, 0, 50, 32).status, zenStsMemAllocErr);
    const Built built = build(empty, 0, 50, 33);
    ASSERT_EQ(built.status, zenStsNoErr);
    EXPECT_EQ(built.words, (std::vector<uint32_t>{0xFFFFFFF0u, 0, 0, 0}));
    ZenrKDTreeNode* tree = nullptr;
    int size = 0;
    EXPECT_EQ(zenr::ownKDTBldPSAH_ML(nullptr, nullptr, 0, 0, &tree, &size, 0, 50, 33554675, nullptr),
              zenStsMemAllocErr);
    asked = 0;
    EXPECT_EQ(zenr::ownKDTBldPSAH_ML(nullptr, nullptr, 0, 0, &tree, &size, 0, 50, 33554676, nullptr), zenStsNoErr);
    EXPECT_EQ(asked, 4) << "context, two pools, result";
    zenrKDTreeFree(tree);
    EXPECT_EQ(outstanding, 0);
}

TEST(SAHBuilder, ContextAccount) {
    const Mesh mesh = reference::soup(100, 0.1f, 1);
    const uint32_t minimum = 12 * 300 + 84 * 100 + 0x20000F4;
    zenr::MemContext* context = nullptr;
    asked = 0;
    EXPECT_EQ(zenr::ownMemCreateContext(&context, minimum - 1, mesh.vertices.data(), mesh.triangles.data(), 300, 100),
              zenStsMemAllocErr);
    EXPECT_EQ(context, nullptr);
    EXPECT_EQ(asked, 0);
    ASSERT_EQ(zenr::ownMemCreateContext(&context, minimum, mesh.vertices.data(), mesh.triangles.data(), 300, 100),
              zenStsNoErr);
    EXPECT_EQ(asked, 15);
    EXPECT_EQ(context->budget, minimum);
    EXPECT_EQ(context->remaining, minimum - 204 - 48 * 100 - (32u << 20));
    EXPECT_EQ(context->verticesEnd, mesh.vertices.data() + 900);
    EXPECT_EQ(context->trianglesLimit, mesh.triangles.data() + 400);
    EXPECT_EQ(context->poolA.cursor, context->poolA.start);
    // A take that would reach the end fails and moves nothing; one record less is served.
    const uint32_t records = (16u << 20) / 12; // 4 bytes remain
    EXPECT_EQ(zenr::takeRecords(context->poolA, records + 1), nullptr);
    EXPECT_EQ(context->poolA.cursor, context->poolA.start);
    EXPECT_NE(zenr::takeRecords(context->poolA, records), nullptr);
    EXPECT_EQ(zenr::takeRecords(context->poolA, 1), nullptr);
    EXPECT_FALSE(zenr::budgetAllowsBlock(*context, context->remaining));
    context->remaining = 0x1000013;
    EXPECT_FALSE(zenr::budgetAllowsBlock(*context, context->remaining));
    context->remaining = 0x1000014;
    EXPECT_TRUE(zenr::budgetAllowsBlock(*context, context->remaining));
    context->remaining = uint32_t(-5); // overdrawn
    EXPECT_FALSE(zenr::budgetAllowsBlock(*context, context->remaining));
    zenr::releaseContext(context);
    EXPECT_EQ(outstanding, 0);
    EXPECT_EQ(zenr::poolBytesB(1000000), 48u << 20);
    EXPECT_EQ(zenr::poolBytesA(466033), 16u << 20);
    EXPECT_EQ(zenr::poolBytesA(466034), 32u << 20);
}

TEST(SAHBuilder, BudgetsThatDoNotPayForBlocks) {
    const Mesh mesh = reference::soup(1000, 0.2f, 1);
    // The fixed pools take 32 MiB and some; each of three kinds of lists then takes a block of 16 MiB.
    EXPECT_EQ(build(mesh, 0.5f, 50, 33).status, zenStsNoMemErr);
    EXPECT_EQ(build(mesh, 0.5f, 50, 49).status, zenStsNoMemErr);
    EXPECT_EQ(build(mesh, 0.5f, 50, 65).status, zenStsNoMemErr);
    EXPECT_EQ(build(mesh, 0.5f, 50, 81).status, zenStsNoErr);
    EXPECT_EQ(build(mesh, 0.5f, 0, 49).status, zenStsNoErr);
    // The full range of budgets, above 2 GiB too.
    EXPECT_EQ(build(mesh, 0.5f, 50, 4095).status, zenStsNoErr);
    EXPECT_EQ(build(mesh, 0.5f, 50, 3000).words, build(mesh, 0.5f, 50, 81).words);
}

// Pools made smaller than the set-up makes them: wherever they run out, the build ends with a status and writes nothing
// beyond them.
TEST(SAHBuilder, FullPools) {
    const Mesh mesh = reference::soup(400, 0.3f, 5);
    const uint32_t n = 400;
    int ranOut[2] = {}, done[2] = {};
    for (int which = 0; which < 2; ++which) {
        for (uint32_t records = which ? 1 : n; records < 10 * n; records += which ? 31 : 97) {
            zenr::Builder builder;
            ASSERT_EQ(zenr::ownMemCreateContext(&builder.context, 512u << 20, mesh.vertices.data(),
                                                mesh.triangles.data(), mesh.vertexCount(), mesh.triangleCount()),
                      zenStsNoErr);
            builder.tables.nodeCount = builder.tables.listCount = builder.tables.arrayCount = 0;
            const Box box = boxOf(mesh);
            std::copy(box.begin(), box.end(), builder.box);
            zenr::Pool& pool = which ? builder.context->poolB : builder.context->poolA;
            pool.end = pool.start + 12 * records + 4;
            memset(pool.end, 0x5A, 24000);
            zenr::TriRef* refs = reinterpret_cast<zenr::TriRef*>(zenr::takeRecords(builder.context->poolA, n));
            ASSERT_NE(refs, nullptr);
            const zenr::Geometry geometry{mesh.vertices.data(),
                                          reinterpret_cast<const float*>(builder.context->poolB.start),
                                          mesh.triangles.data(), builder.tables.arrays, uint32_t(mesh.vertexCount())};
            for (uint32_t t = 0; t < n; ++t)
                refs[t] = {t << 5 | 3,
                           zenr::selectBounds(geometry, reinterpret_cast<const uint32_t*>(&mesh.triangles[4 * t]), 3),
                           zenr::kWholeTriangle};
            zenr::WorkNode root{zenr::kWorkLeaf, n, 0};
            const ZenStatus status = zenr::ownOptimizationPSAH(builder, root, zenr::Level::sse2, 1, 50, 1);
            EXPECT_TRUE(status == zenStsNoErr || status == zenStsNoMemErr);
            ++(status == zenStsNoErr ? done : ranOut)[which];
            for (int i = 0; i < 24000; ++i) ASSERT_EQ(pool.end[i], 0x5A);
            zenr::releaseContext(builder.context);
        }
        EXPECT_GT(ranOut[which], 0);
        EXPECT_GT(done[which], 0);
    }
    EXPECT_EQ(outstanding, 0);
}

TEST(SAHBuilder, EveryAllocationMayFail) {
    const Mesh mesh = reference::soup(300, 0.2f, 1);
    asked = 0;
    ASSERT_EQ(build(mesh, 0.5f).status, zenStsNoErr);
    const int calls = asked;
    EXPECT_EQ(calls, 1 + 12 + 2 + 3 * 2 + 1);
    for (int call = 0; call < calls; ++call) {
        asked = 0;
        failOnly = call;
        const ZenStatus status = build(mesh, 0.5f).status; // expects nothing outstanding and outputs untouched
        failOnly = -1;
        const bool block = call >= 15 && call < 21;
        EXPECT_EQ(status, block ? zenStsNoMemErr : zenStsMemAllocErr) << call;
    }
}

TEST(SAHBuilder, NoVerticesAreRead) {
    Mesh mesh;
    for (int t = 0; t < 9; ++t) mesh.add(5, 6, 7);
    const Built built = build(mesh, 0.5f);
    ASSERT_EQ(built.status, zenStsNoErr);
    EXPECT_EQ(built.words[1], 9u);
    EXPECT_EQ(built.size, 16 + 36);
    const float box[6] = {0, 0, 0, 1, 1, 1};
    EXPECT_EQ(build(mesh, 0.5f, 50, 512, box).words, built.words);
}

TEST(SAHBuilder, AwkwardMeshes) {
    const float inf = INFINITY;
    // Unusable triangles do not enter the tree, and do not spoil it for the others.
    Mesh spoilt = reference::soup(300, 0.2f, 1);
    const int usable = spoilt.triangleCount();
    const Built clean = build(spoilt, 0.5f);
    const float bad[] = {NAN, inf, -inf, -NAN};
    for (int k = 0; k < 12; ++k) {
        float p[3] = {0.1f, 0.2f, 0.3f};
        p[k % 3] = bad[k / 3];
        const int v = spoilt.addVertex(p[0], p[1], p[2]);
        spoilt.add(v, 1, 2);
        spoilt.add(1, 2, v);
    }
    const Built built = build(spoilt, 0.5f);
    ASSERT_EQ(built.status, zenStsNoErr);
    TreeReader reader(built.words.data(), built.size, Box{-2, -2, -2, 2, 2, 2});
    EXPECT_EQ(reader.error, "");
    for (const auto& leaf : reader.leaves)
        for (int t : leaf.list) EXPECT_LT(t, usable);
    EXPECT_EQ(built.words, clean.words);

    // Odd boxes give a valid tree.
    const Mesh mesh = reference::soup(300, 0.2f, 1);
    const float odd[][6] = {{NAN, NAN, NAN, NAN, NAN, NAN},
                            {-inf, -inf, -inf, inf, inf, inf},
                            {1, 1, 1, -1, -1, -1},
                            {-1, -inf, -1, 1, 1, 1},
                            {-1, NAN, -1, 1, 1, 1},
                            {0, 0, 0, 0, 0, 0},
                            {-3e38f, -3e38f, -3e38f, 3e38f, 3e38f, 3e38f}};
    for (const auto& box : odd) {
        const Built one = build(mesh, 1, 50, 512, box);
        ASSERT_EQ(one.status, zenStsNoErr);
        Box given;
        std::copy(box, box + 6, given.begin());
        TreeReader r(one.words.data(), one.size, given);
        EXPECT_EQ(r.error, "");
    }
    // A box that holds part of the mesh: what lies outside is listed at the boundary, no triangle is lost.
    const float part[6] = {-0.3f, -0.3f, -0.3f, 0.3f, 0.3f, 0.3f};
    const Built inside = build(mesh, 1, 50, 512, part);
    expectSound(mesh, inside, 50, Box{-0.3f, -0.3f, -0.3f, 0.3f, 0.3f, 0.3f}, "part");
    TreeReader partReader(inside.words.data(), inside.size, Box{-0.3f, -0.3f, -0.3f, 0.3f, 0.3f, 0.3f});
    std::vector<char> seen(300, 0);
    for (const auto& leaf : partReader.leaves)
        for (int t : leaf.list) seen[size_t(t)] = 1;
    EXPECT_EQ(std::count(seen.begin(), seen.end(), 1), 300);
    // A wider box gives empty space that is cut off.
    const float wide[6] = {-9, -9, -9, 9, 9, 9};
    expectSound(mesh, build(mesh, 0.5f, 50, 512, wide), 50, Box{-9, -9, -9, 9, 9, 9}, "wide");
    // A NaN ratio means that no split is worth it.
    EXPECT_EQ(build(mesh, NAN).size, 16 + 4 * 300);
}

// A million rays in all, over meshes of every kind: what they hit first is what they hit without a tree.
TEST(SAHBuilder, AMillionRaysAgreeWithBruteForce) {
    const int meshes = zenrtest::rounds(90);
    for (int m = 0; m < meshes; ++m) {
        Mesh mesh;
        const uint32_t seed = uint32_t(m) + 100;
        switch (m % 9) {
        case 0:
            mesh = reference::soup(60 + m, 0.3f, seed);
            break;
        case 1:
            mesh = reference::soup(20 + m / 3, 1.f, seed);
            break;
        case 2:
            mesh = reference::soup(150, 0.05f, seed);
            break;
        case 3:
            mesh = reference::sphere(2);
            break;
        case 4:
            mesh = reference::terrain(5 + m / 18);
            break;
        case 5:
            mesh = boxes(6 + m / 9, seed);
            break;
        case 6:
            mesh = slivers(40 + m / 3, seed);
            break;
        case 7: // two meshes through each other
            mesh = reference::sphere(2);
            for (int t = 0; t < 30; ++t) {
                std::mt19937 random(seed + uint32_t(t));
                std::uniform_real_distribution<float> place(-1, 1);
                int v[3];
                for (int& index : v) index = mesh.addVertex(place(random), place(random), place(random));
                mesh.add(v[0], v[1], v[2]);
            }
            break;
        default: // the same again, elsewhere in the list
            mesh = reference::soup(50 + m / 3, 0.4f, seed);
            const std::vector<int> once = mesh.triangles;
            mesh.triangles.insert(mesh.triangles.end(), once.begin(), once.end());
        }
        const float ratio = kRatios[m % 3];
        const int depth = m % 4 == 3 ? 6 : 50;
        SCOPED_TRACE(m);
        const Built built = build(mesh, ratio, depth);
        ASSERT_EQ(built.status, zenStsNoErr);
        expectNearestAgree(mesh, built, boxOf(mesh), zenrtest::rounds(11200), seed);
    }
}

namespace {
// Format, and each triangle in one leaf at least.
void expectAllListed(const Mesh& mesh, const Built& built, const Box& box) {
    ASSERT_EQ(built.status, zenStsNoErr);
    TreeReader reader(built.words.data(), built.size, box);
    ASSERT_EQ(reader.error, "");
    std::vector<char> listed(size_t(mesh.triangleCount()), 0);
    for (const auto& leaf : reader.leaves)
        for (int t : leaf.list) listed.at(size_t(t)) = 1;
    EXPECT_EQ(std::count(listed.begin(), listed.end(), 0), 0);
}

Mesh grid(int cells, float tilt) {
    Mesh mesh;
    for (int y = 0; y <= cells; ++y)
        for (int x = 0; x <= cells; ++x)
            mesh.addVertex(float(x) / float(cells), float(y) / float(cells), 0.5f + tilt * float(x) / float(cells));
    for (int y = 0; y < cells; ++y)
        for (int x = 0; x < cells; ++x) {
            const int v = y * (cells + 1) + x;
            mesh.add(v, v + 1, v + cells + 1);
            mesh.add(v + 1, v + cells + 2, v + cells + 1);
        }
    return mesh;
}
} // namespace

TEST(SAHBuilder, AMillionTrianglesInOnePlane) {
    const int cells = zenrtest::rounds(30) < 30 ? 60 : 708;
    for (float tilt : {0.f, 0.25f}) {
        const Mesh mesh = grid(cells, tilt);
        for (int t : {1, 2}) {
            threads = t;
            expectAllListed(mesh, build(mesh, 0.5f, 50, 800), boxOf(mesh));
        }
        // In a taller box they are planar on an axis that can be split.
        const float tall[6] = {0, 0, -1, 1, 1, 2};
        expectAllListed(mesh, build(mesh, 0.5f, 50, 800, tall), Box{0, 0, -1, 1, 1, 2});
        threads = 1;
    }
}

TEST(SAHBuilder, AMillionTrianglesThatAreTheSame) {
    const int count = zenrtest::rounds(30) < 30 ? 20000 : 1000000;
    Mesh mesh;
    mesh.addVertex(0, 0, 0);
    mesh.addVertex(1, 0.5f, 0.25f);
    mesh.addVertex(0.5f, 1, 0.75f);
    for (int t = 0; t < count; ++t) mesh.add(t % 3, (t + 1) % 3, (t + 2) % 3);
    for (int t : {1, 2}) {
        threads = t;
        const Built built = build(mesh, 0.5f, 50, 800);
        threads = 1;
        // Nothing divides them, so there is one copy of the list.
        expectAllListed(mesh, built, boxOf(mesh));
        EXPECT_LT(built.size, 8 * count);
    }
}

TEST(SAHBuilder, DuplicatedMeshes) {
    const Mesh once = reference::sphere(zenrtest::rounds(30) < 30 ? 2 : 4);
    for (int copies : {2, 7, 20}) {
        Mesh mesh = once;
        for (int c = 1; c < copies; ++c) {
            // Every other copy has vertices of its own.
            const int first = c % 2 ? mesh.vertexCount() : 0;
            if (c % 2) mesh.vertices.insert(mesh.vertices.end(), once.vertices.begin(), once.vertices.end());
            for (size_t t = 0; t < once.triangles.size(); t += 4)
                mesh.add(first + once.triangles[t], first + once.triangles[t + 1], first + once.triangles[t + 2]);
        }
        for (float ratio : kRatios) {
            const Built built = build(mesh, ratio, 50, 1500);
            expectAllListed(mesh, built, boxOf(mesh));
            // A copy is wherever its original is.
            TreeReader reader(built.words.data(), built.size, boxOf(mesh));
            for (const auto& leaf : reader.leaves) {
                std::vector<int> times(size_t(once.triangleCount()), 0);
                for (int t : leaf.list) ++times[size_t(t % once.triangleCount())];
                for (int n : times) ASSERT_TRUE(n == 0 || n == copies) << copies;
            }
        }
    }
}

TEST(SAHBuilder, Piles) {
    // All the same triangle.
    Mesh same;
    for (int k = 0; k < 3000; ++k) {
        const int v = same.addVertex(0, 0, 0);
        same.addVertex(1, 0.5f, 0.25f);
        same.addVertex(0.5f, 1, 0.75f);
        same.add(v, v + 1, v + 2);
    }
    for (float ratio : kRatios) {
        const Built built = build(same, ratio, 12);
        ASSERT_EQ(built.status, zenStsNoErr);
        TreeReader reader(built.words.data(), built.size, boxOf(same));
        EXPECT_EQ(reader.error, "");
    }
    // All in one plane, inside a taller box.
    Mesh plane;
    for (int y = 0; y <= 20; ++y)
        for (int x = 0; x <= 20; ++x) plane.addVertex(float(x), float(y), 1);
    for (int y = 0; y < 20; ++y)
        for (int x = 0; x < 20; ++x) {
            plane.add(y * 21 + x, y * 21 + x + 1, y * 21 + x + 21);
            plane.add(y * 21 + x + 1, y * 21 + x + 22, y * 21 + x + 21);
        }
    // Its box is flat, so that only two axes can be split; in a taller box the plane is cut free first.
    expectSound(plane, build(plane, 0.5f), 50, boxOf(plane), "plane");
    const float tall[6] = {0, 0, 0, 20, 20, 30};
    expectSound(plane, build(plane, 0.5f, 50, 512, tall), 50, Box{0, 0, 0, 20, 20, 30}, "plane in a tall box");
    // A mesh twice.
    Mesh twice = reference::sphere(3);
    const auto once = twice.triangles;
    twice.triangles.insert(twice.triangles.end(), once.begin(), once.end());
    expectSound(twice, build(twice, 1), 50, boxOf(twice), "twice");
    // Points and lines.
    Mesh degenerate;
    for (int k = 0; k < 200; ++k) {
        const int v = degenerate.addVertex(float(k % 7), float(k % 11), float(k % 13));
        const int w = degenerate.addVertex(float(k % 5), float(k % 3), float(k % 9));
        degenerate.add(v, k & 1 ? v : w, w);
        degenerate.add(v, v, v);
    }
    expectSound(degenerate, build(degenerate, 1), 50, boxOf(degenerate), "degenerate");
    // The whole range of floats.
    Mesh huge = reference::soup(300, 0.2f, 1);
    for (float& x : huge.vertices) x *= 1e38f;
    EXPECT_EQ(build(huge, 1).status, zenStsNoErr);
    Mesh tiny = reference::soup(300, 0.2f, 1);
    for (float& x : tiny.vertices) x *= 1e-40f;
    EXPECT_EQ(build(tiny, 1).size, 16 + 4 * 300) << "smaller than the smallest extent that is split";
}

namespace {
// Extents in [0, 1] of different kinds: spread, clustered, on few places, all the same, some in planes.
void fillExtents(int kind, int n, uint32_t seed, std::vector<float>& lo, std::vector<float>& hi) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> unit(0, 1);
    lo.clear();
    hi.clear();
    for (int i = 0; i < n; ++i) {
        float a = unit(random), b = unit(random);
        if (kind == 1) b = std::min(1.f, a + 0.01f * b);
        if (kind == 2) a = float(int(a * 8)) / 8, b = float(int(b * 8)) / 8;
        if (kind == 3) a = 0.25f, b = 0.75f;
        if (kind == 4) a = 0.5f + a * 1e-4f, b = 0.5f + b * 1e-4f;
        if (kind == 5 && random() % 2) b = a;
        if (kind == 6) b = a = float(int(a * 20)) / 20;
        if (kind == 7) a = std::min(a, 0.05f), b = std::max(b, 0.5f);
        if (kind == 8) a = float(int(a * 50)) / 50, b = random() % 2 ? a : float(int(b * 50)) / 50;
        lo.push_back(std::min(a, b));
        hi.push_back(std::max(a, b));
    }
}
} // namespace

TEST(Sweep, FindsWhatTheDefinitionFindsAtEveryLevel) {
    std::vector<float> lo, hi;
    for (int n :
         {1, 2, 3, 4, 5, 7, 8, 9, 15, 16, 17, 31, 32, 33, 63, 64, 65, 99, 100, 101, 399, 400, 1999, 2000, 17000}) {
        for (int kind = 0; kind < 9; ++kind) {
            for (int round = 0; round < (n > 500 ? 1 : zenrtest::rounds(20)); ++round) {
                if (n > 10000 && (kind == 0 || kind == 1 || kind == 4 || kind == 5 || kind == 7))
                    continue; // too many places
                if (n > 500 && zenrtest::rounds(30) < 30) continue;
                fillExtents(kind, n, uint32_t(n * 100 + kind * 10 + round), lo, hi);
                const double rest = round % 3 * 0.7;
                const reference::CheapestPlane expected(lo, hi, 0, 1, rest);
                for (zenr::Level level : zenrtest::levels()) {
                    SCOPED_TRACE(testing::Message() << zenrtest::levelName(level) << ", " << n << " of kind " << kind);
                    zenr::WideScope scope(level);
                    const zenr::SahKernels& kernels = zenr::sahKernels(level);
                    zenrtest::Guarded<float> gl(lo.size()), gh(lo.size()), s0(lo.size()), s1(lo.size());
                    std::copy(lo.begin(), lo.end(), gl.data());
                    std::copy(hi.begin(), hi.end(), gh.data());
                    zenr::AxisScan scan;
                    kernels.scan(gl.data(), gh.data(), n, scan);
                    ASSERT_EQ(scan.first, *std::min_element(lo.begin(), lo.end()));
                    ASSERT_EQ(scan.last, *std::max_element(hi.begin(), hi.end()));
                    ASSERT_EQ(scan.lastStart, *std::max_element(lo.begin(), lo.end()));
                    ASSERT_EQ(scan.firstEnd, *std::min_element(hi.begin(), hi.end()));
                    int inPlane = 0;
                    for (size_t i = 0; i < lo.size(); ++i) inPlane += lo[i] == hi[i];
                    ASSERT_EQ(scan.inPlane, inPlane);
                    const zenr::AxisEvents events{gl.data(), gh.data(), n, inPlane, {s0.data(), s1.data()}, n};
                    const zenr::Pricing pricing{0, 1, rest};
                    for (double limit : {1e300, expected.price * 1.0001, expected.price, expected.price * 0.9}) {
                        zenr::Candidate found;
                        kernels.sweep(events, pricing, limit, found);
                        if (limit < expected.price && found.price > limit) continue; // free to give up
                        ASSERT_EQ(found.price, expected.price);
                        ASSERT_EQ(found.position, expected.x);
                        ASSERT_EQ(found.left, expected.left);
                        ASSERT_EQ(found.right, expected.right);
                        ASSERT_EQ(found.flag, expected.flag);
                    }
                    ASSERT_EQ(memcmp(gl.data(), lo.data(), size_t(n) * 4), 0) << "extents stay";
                    ASSERT_EQ(memcmp(gh.data(), hi.data(), size_t(n) * 4), 0);
                }
            }
        }
    }
}

// Far outside of the range of bins.
TEST(Sweep, HugeBoxes) {
    std::vector<float> lo, hi;
    fillExtents(0, 200, 3, lo, hi);
    for (float& x : lo) x = (x - 0.5f) * 3e38f * 2;
    for (float& x : hi) x = (x - 0.5f) * 3e38f * 2;
    const double min = -3e38, max = 3e38;
    const reference::CheapestPlane expected(lo, hi, min, max, 0);
    for (zenr::Level level : zenrtest::levels()) {
        zenr::WideScope scope(level);
        std::vector<float> s0(200), s1(200);
        const zenr::AxisEvents events{lo.data(), hi.data(), 200, 0, {s0.data(), s1.data()}, 200};
        const zenr::Pricing pricing{min, max, 0};
        zenr::Candidate found;
        zenr::sahKernels(level).sweep(events, pricing, 1e300, found);
        EXPECT_EQ(found.price, expected.price);
        EXPECT_EQ(found.position, expected.x);
    }
}

namespace {
struct SplitCase {
    Mesh mesh;
    Box box{0, 0, 0, 1, 1, 1};
    void add(float x0, float x1, float y0, float y1, float z0, float z1) {
        const int v = mesh.addVertex(x0, y0, z0);
        mesh.addVertex(x1, y1, z0);
        mesh.addVertex(x0, y0 + (y1 - y0) / 2, z1);
        mesh.add(v, v + 1, v + 2);
    }
    zenr::SplitRecord search(float ratio, bool many = false, zenr::Level level = zenr::Level::sse2) {
        const size_t n = size_t(mesh.triangleCount());
        std::vector<std::vector<uint32_t>> scratch(6, std::vector<uint32_t>(n));
        uint32_t* pointers[6];
        for (int i = 0; i < 6; ++i) pointers[i] = scratch[size_t(i)].data();
        std::vector<float> lo[3], hi[3];
        zenr::SearchInput input{{}, {}, int(n), box.data(), pointers, int(n), zenr::costFactor(ratio)};
        for (size_t a = 0; a < 3; ++a) {
            for (size_t t = 0; t < n; ++t) {
                const float* p = &mesh.vertices[9 * t];
                lo[a].push_back(std::min({p[a], p[a + 3], p[a + 6]}));
                hi[a].push_back(std::max({p[a], p[a + 3], p[a + 6]}));
            }
            input.lo[a] = lo[a].data();
            input.hi[a] = hi[a].data();
        }
        zenr::SplitRecord split{zenr::nodeCost(box.data(), input.count), 0, 7, 0, 0, 9};
        if (many)
            zenr::sahKernels(level).searchTogether(input, split);
        else
            zenr::sahKernels(level).searchAlone(input, split);
        return split;
    }
};
} // namespace

TEST(SplitSearch, UpperSlabIsCutOff) {
    SplitCase c;
    for (int k = 0; k < 20; ++k) c.add(0, 0.5f, 0, 1, 0, 1);
    for (bool many : {false, true}) {
        const zenr::SplitRecord split = c.search(1, many);
        EXPECT_EQ(split.axis, 0);
        EXPECT_EQ(split.position, 0.5f);
        EXPECT_EQ(split.left, 20);
        EXPECT_EQ(split.right, 0);
        EXPECT_EQ(split.flag, 0u);
        EXPECT_NEAR(split.cost, 20 * (0.5 + 0.5) * 0.7f * 2, 1e-9);
    }
}

TEST(SplitSearch, EqualSlabsCutTheLower) {
    SplitCase c;
    for (int k = 0; k < 20; ++k) c.add(0.25f, 0.75f, 0, 1, 0, 1);
    const zenr::SplitRecord split = c.search(1);
    EXPECT_EQ(split.axis, 0);
    EXPECT_EQ(split.position, 0.25f);
    EXPECT_EQ(split.left, 0);
    EXPECT_EQ(split.right, 20);
    EXPECT_EQ(split.flag, 1u);
}

TEST(SplitSearch, FlatAxesAreNotSplit) {
    SplitCase c;
    for (int k = 0; k < 20; ++k) c.add(0, 0.5f, 0, 1, 0, 1);
    c.box[3] = 1e-5f;
    for (bool many : {false, true}) EXPECT_NE(c.search(1, many).axis, 0);
    c.box[4] = 1e-5f; // now every section of the last axis is flat too
    for (bool many : {false, true}) EXPECT_EQ(c.search(1, many).axis, -1);
}

TEST(SplitSearch, TiesGoToTheHigherAxis) {
    SplitCase c;
    for (int k = 0; k < 40; ++k) c.add(0, 0.5f, 0, 0.5f, 0, 0.5f);
    for (bool many : {false, true}) EXPECT_EQ(c.search(1, many).axis, 2);
}

TEST(SplitSearch, PlanarTrianglesGoToTheCheaperSideAndCountThere) {
    SplitCase c;
    // A wall at x = 0.5 with more triangles beside it on the lower side, and the mirror image of that.
    for (bool mirrored : {false, true}) {
        c.mesh = Mesh();
        for (int k = 0; k < 30; ++k) {
            c.add(0.5f, 0.5f, 0, 1, 0, 1);
            c.add(mirrored ? 0.95f : 0, mirrored ? 1 : 0.05f, 0, 1, 0, 1);
        }
        for (int k = 0; k < 3; ++k) c.add(mirrored ? 0 : 0.95f, mirrored ? 0.05f : 1, 0, 1, 0, 1);
        const zenr::SplitRecord split = c.search(1);
        ASSERT_EQ(split.axis, 0);
        EXPECT_EQ(split.left + split.right, 63) << "nothing straddles";
        int left = 0;
        for (int t = 0; t < 63; ++t) {
            const float* p = &c.mesh.vertices[9 * size_t(t)];
            const float lo = std::min({p[0], p[3], p[6]}), hi = std::max({p[0], p[3], p[6]});
            if (lo == hi ? lo < split.position || (lo == split.position && split.flag == 0) : hi <= split.position)
                ++left;
        }
        EXPECT_EQ(split.left, left);
    }
}

namespace {
// A builder with a context of its own, for cutting alone.
struct Cutter {
    Mesh mesh;
    zenr::Builder builder;
    zenr::Geometry geometry;
    zenr::Workspace space;
    explicit Cutter(const Mesh& m) : mesh(m) {
        EXPECT_EQ(zenr::ownMemCreateContext(&builder.context, 512u << 20, mesh.vertices.data(), mesh.triangles.data(),
                                            mesh.vertexCount(), mesh.triangleCount()),
                  zenStsNoErr);
        builder.tables.nodeCount = builder.tables.listCount = builder.tables.arrayCount = 0;
        geometry = {mesh.vertices.data(), reinterpret_cast<const float*>(builder.context->poolB.start),
                    mesh.triangles.data(), builder.tables.arrays, uint32_t(mesh.vertexCount())};
        space = zenr::wholeWorkspace(builder, mesh.triangleCount());
    }
    ~Cutter() { zenr::releaseContext(builder.context); }
    zenr::TriRef whole(int t) {
        return {uint32_t(t) << 5 | 3,
                zenr::selectBounds(geometry, reinterpret_cast<const uint32_t*>(&mesh.triangles[4 * size_t(t)]), 3),
                zenr::kWholeTriangle};
    }
    std::vector<std::array<float, 3>> points(const zenr::TriRef& ref) {
        std::vector<std::array<float, 3>> out;
        for (uint32_t i = 0; i < (ref.id & 31); ++i) {
            const float* p = zenr::pointAt(geometry, zenr::pointArray(geometry, ref)[i]);
            out.push_back({p[0], p[1], p[2]});
        }
        return out;
    }
};
} // namespace

TEST(Cutting, NeighboursGetTheSamePoints) {
    std::mt19937 random(5);
    std::uniform_real_distribution<float> place(-1, 1);
    for (int round = 0; round < zenrtest::rounds(2000); ++round) {
        Mesh mesh;
        for (int v = 0; v < 4; ++v) mesh.addVertex(place(random), place(random), place(random));
        mesh.vertices[0] = -2, mesh.vertices[3] = 2; // the shared edge crosses x = split
        mesh.add(0, 1, 2);
        mesh.add(1, 0, 3);
        Cutter cutter(mesh);
        const float split = place(random);
        zenr::CutPart parts[4];
        for (int t = 0; t < 2; ++t)
            ASSERT_EQ(zenr::cutReference(cutter.builder, cutter.space, cutter.geometry, cutter.whole(t), 0, split,
                                         parts[2 * t], parts[2 * t + 1]),
                      zenStsNoErr);
        std::vector<std::array<float, 3>> shared;
        for (int p = 0; p < 4; ++p) {
            const auto points = cutter.points(parts[p].ref);
            EXPECT_EQ(parts[p].ref.id >> 5, uint32_t(p / 2));
            for (size_t a = 0; a < 3; ++a) {
                float lo = points[0][a], hi = lo;
                for (const auto& q : points) lo = std::min(lo, q[a]), hi = std::max(hi, q[a]);
                EXPECT_EQ(parts[p].lo[a], lo);
                EXPECT_EQ(parts[p].hi[a], hi);
                const uint32_t selectors = parts[p].ref.selectors;
                EXPECT_EQ(points[selectors >> (15 + 5 * a) & 31][a], lo);
                EXPECT_EQ(points[selectors >> (5 * a) & 31][a], hi);
            }
            for (const auto& q : points) {
                EXPECT_TRUE(p % 2 ? q[0] >= split : q[0] <= split);
                if (p < 2 || q[0] != split) continue;
                for (const auto& o : cutter.points(parts[p - 2].ref))
                    if (o == q) shared.push_back(q);
            }
        }
        EXPECT_GE(shared.size(), 2u) << "the crossing of the shared edge, on both sides";
    }
    EXPECT_EQ(outstanding, 0);
}

TEST(Cutting, MorePointsThanAReferenceNumbersBecomeABox) {
    // A star whose every edge crosses the plane.
    Mesh mesh;
    mesh.add(0, 1, 2);
    for (int v = 0; v < 30; ++v) mesh.addVertex(v % 2 ? 1.f : -1.f, float(v), float(v * v % 7));
    Cutter cutter(mesh);
    zenr::Builder& builder = cutter.builder;
    std::vector<uint32_t> star(32);
    for (uint32_t v = 0; v < 30; ++v) star[v] = v;
    builder.tables.arrays[0] = star.data();
    builder.tables.arrayCount = 1;
    const zenr::TriRef ref{30, zenr::selectBounds(cutter.geometry, star.data(), 30), 0};
    zenr::CutPart parts[2];
    ASSERT_EQ(zenr::cutReference(builder, cutter.space, cutter.geometry, ref, 0, 0, parts[0], parts[1]), zenStsNoErr);
    for (int side = 0; side < 2; ++side) {
        EXPECT_EQ(parts[side].ref.id & 31, 8u);
        zenr::CutPart halves[2];
        const auto bounds = [](const std::vector<std::array<float, 3>>& points) {
            Box box{9, 99, 9, -9, -99, -9};
            for (const auto& p : points)
                for (int a = 0; a < 3; ++a) box[a] = std::min(box[a], p[a]), box[a + 3] = std::max(box[a + 3], p[a]);
            return box;
        };
        const Box whole = bounds(cutter.points(parts[side].ref));
        ASSERT_EQ(
            zenr::cutReference(builder, cutter.space, cutter.geometry, parts[side].ref, 1, 3.f, halves[0], halves[1]),
            zenStsNoErr);
        EXPECT_EQ(whole[0], side ? 0.f : -1.f);
        EXPECT_EQ(whole[3], side ? 1.f : 0.f);
        for (int half = 0; half < 2; ++half) {
            Box expected = whole;
            expected[half ? 1 : 4] = 3.f;
            EXPECT_EQ(bounds(cutter.points(halves[half].ref)), expected);
        }
    }
}

namespace {
// A working tree by hand.
struct HandMade {
    std::vector<zenr::WorkNode> nodes = std::vector<zenr::WorkNode>(64);
    std::vector<uint32_t> lists;
    zenr::BlockTables tables{};
    uint32_t next = 0;
    HandMade() { lists.reserve(1000); }
    zenr::WorkNode leaf(const std::vector<uint32_t>& list) {
        const uint32_t at = uint32_t(lists.size());
        lists.insert(lists.end(), list.begin(), list.end());
        return {zenr::kWorkLeaf, uint32_t(list.size()), at};
    }
    zenr::WorkNode split(uint32_t axis, float x, zenr::WorkNode lower, zenr::WorkNode upper) {
        const uint32_t pair = next;
        next += 2;
        nodes[pair] = lower;
        nodes[pair + 1] = upper;
        uint32_t bits;
        memcpy(&bits, &x, 4);
        return {axis, bits, pair * 3};
    }
    std::vector<uint32_t> pack(const zenr::WorkNode& root) {
        tables.nodes[0] = reinterpret_cast<char*>(nodes.data());
        tables.lists[0] = lists.data();
        ZenrKDTreeNode* tree = nullptr;
        int size = 0;
        EXPECT_EQ(zenr::ownCompactTreeRepresentation(tables, root, &tree, &size), zenStsNoErr);
        std::vector<uint32_t> words(size_t(size) / 4);
        memcpy(words.data(), tree, size_t(size));
        zenrKDTreeFree(tree);
        return words;
    }
};
using Words = std::vector<uint32_t>;
} // namespace

TEST(Compaction, Leaves) {
    const struct {
        Words list, words;
    } cases[] = {
        {{}, {0xFFFFFFF0u, 0, 0, 0}},
        {{7}, {0x80000007u, 0x80000001u, 0, 0}},
        {{0xFFFFFFFFu}, {0xFFFFFFF0u, 1, 0, 0, 0xFFFFFFFFu}},
        {{9, 4}, {0x80000004u, 0x80000002u | 9 << 2, 0, 0}},
        {{0x20000000u, 4}, {0x80000000u | 0x20000000u, 0x80000002u | 4 << 2, 0, 0}},
        {{0x20000000u, 0x20000001u}, {0xFFFFFFF0u, 2, 0, 0, 0x20000000u, 0x20000001u}},
        {{9, 5, 7}, {0x80020002u, 0x8000001Fu, 0, 0}},
        {{10, 40000, 40005}, {0xFFFFFFF0u, 3, 0, 0, 10, 40000, 40005}},
        {{10, 20, 70000}, {0xFFFFFFF0u, 3, 0, 0, 10, 20, 70000}},
        {{70000, 37233, 135535}, {0x80000000u | 0x7FFFu << 16 | 0xFFFFu, 0x80000003u | 70000 << 2, 0, 0}},
        {{4, 3, 2, 1}, {0xFFFFFFF0u, 4, 0, 0, 4, 3, 2, 1}},
    };
    for (const auto& c : cases) {
        HandMade hand;
        EXPECT_EQ(hand.pack(hand.leaf(c.list)), c.words);
    }
}

TEST(Compaction, Trees) {
    HandMade hand;
    const auto five = hand.leaf({1, 2, 3, 4, 5});
    const auto one = hand.leaf({6});
    EXPECT_EQ(hand.pack(hand.split(1, 2.5f, five, one)),
              (Words{16 | 1, zenrtest::bitsOf(2.5f), 0, 0, 0xFFFFFFF0u, 5, 0x80000006u, 0x80000001u, 1, 2, 3, 4, 5}));
    HandMade deep;
    const auto a = deep.leaf({1, 2, 3, 4});
    const auto b = deep.leaf({5, 6, 7, 8});
    const auto none = deep.leaf({});
    const auto left = deep.split(0, 1.f, a, none);
    const auto right = deep.split(2, 3.f, none, b);
    // Pairs: root's at 16, left's at 32, right's at 48; lists from 64 on.
    EXPECT_EQ(deep.pack(deep.split(1, 2.f, left, right)), (Words{16 | 1,
                                                                 zenrtest::bitsOf(2.f),
                                                                 0,
                                                                 0,
                                                                 16 | 0,
                                                                 zenrtest::bitsOf(1.f),
                                                                 24 | 2,
                                                                 zenrtest::bitsOf(3.f),
                                                                 uint32_t(32 - 64),
                                                                 4,
                                                                 uint32_t(40 - 80),
                                                                 0,
                                                                 uint32_t(48 - 80),
                                                                 0,
                                                                 uint32_t(56 - 80),
                                                                 4,
                                                                 1,
                                                                 2,
                                                                 3,
                                                                 4,
                                                                 5,
                                                                 6,
                                                                 7,
                                                                 8}));
}
