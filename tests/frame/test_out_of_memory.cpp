// What happens when the core library has no memory: this program brings a core allocator of its own.
#include "frame/prmem.h"
#include "support.h"
#include "zencore.h"
#include "zenr.h"

namespace {
int asked = 0; // calls of the allocator
int outstanding = 0;
int failFrom = -1; // the call from which on it fails; -1: never
} // namespace

extern "C" void* zenMalloc(size_t size) {
    ++asked;
    if (failFrom >= 0 && asked > failFrom) return nullptr;
    void* block = nullptr;
    if (posix_memalign(&block, 64, size)) return nullptr;
    ++outstanding;
    return block;
}
extern "C" void zenFree(void* block) {
    if (block) --outstanding;
    free(block);
}

TEST(OutOfMemory, CountsBelowOneDoNotReachTheAllocator) {
    asked = 0;
    EXPECT_EQ(zenr::zensMalloc_32s(0), nullptr);
    EXPECT_EQ(zenr::zensMalloc_32s(-3), nullptr);
    EXPECT_EQ(zenr::zensMalloc_64s(0), nullptr);
    EXPECT_EQ(asked, 0);
}

TEST(OutOfMemory, SimpleBuilderSaysSoAndWritesNothing) {
    const float vertices[9] = {};
    const int triangles[4] = {0, 1, 2, 0};
    const ZenrKDTreeBuildParams params = {zenKDTBuildSimple, 10, 0, 0, nullptr};
    ZenrKDTreeNode* tree = nullptr;
    int size = -5;
    asked = 0;
    failFrom = 0;
    EXPECT_EQ(zenrKDTreeBuildAlloc(&tree, vertices, triangles, 3, 1, &size, &params), zenStsMemAllocErr);
    failFrom = -1;
    EXPECT_EQ(asked, 1);
    EXPECT_EQ(tree, nullptr);
    EXPECT_EQ(size, -5);
    EXPECT_EQ(zenrKDTreeBuildAlloc(&tree, vertices, triangles, 3, 1, &size, &params), zenStsNoErr);
    zenrKDTreeFree(tree);
    EXPECT_EQ(outstanding, 0);
}

// Blocks of rays that go apart, which are traced as lists and in another order than the block's.
TEST(OutOfMemory, IntersectorsDoNotReachTheAllocator) {
    constexpr int kRays = 64 * 64;
    zenrtest::Floats r(5);
    std::vector<float> vertices, coordinates(9 * size_t(kRays));
    std::vector<int> triangles;
    for (int i = 0; i < 900; ++i) vertices.push_back(r.moderate());
    for (int i = 0; i < 100; ++i) triangles.insert(triangles.end(), {3 * i, 3 * i + 1, 3 * i + 2, 0});
    for (float& c : coordinates) c = r.moderate();
    float box[6];
    std::vector<ZenrTriangleAccel> accel(100);
    zenrSetBoundBox_32f(vertices.data(), 300, box);
    zenrTriangleAccelInit(accel.data(), vertices.data(), triangles.data(), 100);
    ZenrKDTreeNode* tree = nullptr;
    int size = 0;
    const ZenrKDTreeBuildParams params = {zenKDTBuildSAH, 20, 0, 200, nullptr};
    ASSERT_EQ(zenrKDTreeBuildAlloc(&tree, vertices.data(), triangles.data(), 300, 100, &size, &params), zenStsNoErr);
    const ZenrIntersectContext scene = {box, accel.data(), tree};
    float* const c = coordinates.data();
    const float* const origin[3] = {c, c + kRays, c + 2 * kRays};
    const float* const direction[3] = {c + 3 * kRays, c + 4 * kRays, c + 5 * kRays};
    float* const distance = c + 6 * kRays;
    float* const weights[2] = {c + 7 * kRays, c + 8 * kRays};
    std::vector<int> hit(kRays), mask(kRays, 0);
    const float eye[3] = {0, 0, 0};
    asked = 0;
    EXPECT_EQ(zenrIntersectMO_32f(origin, direction, distance, weights, hit.data(), &scene, {64, 64}), zenStsNoErr);
    EXPECT_EQ(zenrIntersectEyeSO_32f(eye, direction, distance, weights, hit.data(), &scene, {64, 64}), zenStsNoErr);
    EXPECT_EQ(zenrIntersectAnySO_32f(eye, direction, hit.data(), mask.data(), {64, 64}, &scene), zenStsNoErr);
    EXPECT_EQ(asked, 0);
    zenrKDTreeFree(tree);
    EXPECT_EQ(outstanding, 0);
}
