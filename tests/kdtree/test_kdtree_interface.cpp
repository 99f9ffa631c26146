// The build interface: order of checks, untouched outputs, the simple builder's block.
#include <functional>
#include <vector>

#include "kdtree/kdtree.h"
#include "support.h"
#include "zenr.h"

namespace {

struct Call {
    float vertex[9] = {0, 0, 0, 1, 0, 0, 0, 1, 0};
    int triangle[4] = {0, 1, 2, 0};
    ZenrKDTreeBuildParams params = {zenKDTBuildSimple, 10, 0.5f, 64, nullptr};
    ZenrKDTreeNode* tree = reinterpret_cast<ZenrKDTreeNode*>(uintptr_t(0x1230));
    int size = -99;
    ZenrKDTreeNode** pTree = &tree;
    const float* pVertex = vertex;
    const int* pTriangle = triangle;
    int vertices = 3, triangles = 1;
    int* pSize = &size;
    const void* pParams = &params;

    ZenStatus run() { return zenrKDTreeBuildAlloc(pTree, pVertex, pTriangle, vertices, triangles, pSize, pParams); }
    bool untouched() const { return tree == reinterpret_cast<ZenrKDTreeNode*>(uintptr_t(0x1230)) && size == -99; }
};

struct Row {
    const char* name;
    std::function<void(Call&)> spoil;
    ZenStatus status;
};

void expectOrder(const std::vector<Row>& rows, uint32_t tag) {
    for (size_t i = 0; i < rows.size(); ++i) {
        for (size_t j = i; j < rows.size(); ++j) {
            Call call;
            call.params.tag = tag;
            rows[j].spoil(call);
            rows[i].spoil(call); // last, so that the earlier row's spoiling stands where both touch the same field
            EXPECT_EQ(call.run(), rows[i].status) << rows[i].name << " before " << rows[j].name;
            EXPECT_TRUE(call.untouched()) << rows[i].name << " with " << rows[j].name;
        }
    }
}

const std::vector<Row> kCommon = {
    {"tree", [](Call& c) { c.pTree = nullptr; }, zenStsNullPtrErr},
    {"vertices", [](Call& c) { c.pVertex = nullptr; }, zenStsNullPtrErr},
    {"triangles", [](Call& c) { c.pTriangle = nullptr; }, zenStsNullPtrErr},
    {"size", [](Call& c) { c.pSize = nullptr; }, zenStsNullPtrErr},
    {"vertex count", [](Call& c) { c.vertices = -1; }, zenStsSizeErr},
    {"triangle count", [](Call& c) { c.triangles = -1; }, zenStsSizeErr},
    {"params", [](Call& c) { c.pParams = nullptr; }, zenStsNullPtrErr},
};

std::vector<Row> with(std::vector<Row> rows, const std::vector<Row>& more) {
    rows.insert(rows.end(), more.begin(), more.end());
    return rows;
}

} // namespace

TEST(BuildChecks, SimpleTagInOrder) {
    expectOrder(with(kCommon, {{"depth", [](Call& c) { c.params.maxDepth = 51; }, zenStsOutOfRangeErr}}),
                zenKDTBuildSimple);
    expectOrder(with(kCommon, {{"depth", [](Call& c) { c.params.maxDepth = -1; }, zenStsOutOfRangeErr}}),
                zenKDTBuildSimple);
}

TEST(BuildChecks, UnknownTagComesAfterPointersAndCounts) {
    expectOrder(with(kCommon, {{"tag", [](Call& c) { c.params.tag = 0x12345678; }, zenStsBadArgErr}}), zenKDTBuildSAH);
    Call call;
    call.params.tag = 7;
    call.params.maxDepth = 99;
    EXPECT_EQ(call.run(), zenStsBadArgErr) << "the depth belongs to the known tags";
}

TEST(BuildChecks, SAHTagInOrder) {
    expectOrder(
        with(kCommon, {{"depth", [](Call& c) { c.params.maxDepth = -1; }, zenStsOutOfRangeErr},
                       {"ratio below", [](Call& c) { c.params.optimizationRatio = -0.001f; }, zenStsOutOfRangeErr},
                       {"budget", [](Call& c) { c.params.memoryLimitMB = 31; }, zenStsMemAllocErr}}),
        zenKDTBuildSAH);
    expectOrder(
        with(kCommon, {{"depth", [](Call& c) { c.params.maxDepth = 51; }, zenStsOutOfRangeErr},
                       {"ratio above", [](Call& c) { c.params.optimizationRatio = 1.001f; }, zenStsOutOfRangeErr},
                       {"budget wraps", [](Call& c) { c.params.memoryLimitMB = 8192; }, zenStsMemAllocErr}}),
        zenKDTBuildSAH);
}

TEST(BuildChecks, BudgetsThatTheMeshNeedsMoreThan) {
    for (uint32_t limit : {0u, 31u, 32u, 4096u, 8192u, 16384u}) {
        Call call;
        call.params.tag = zenKDTBuildSAH;
        call.params.memoryLimitMB = limit;
        EXPECT_EQ(call.run(), zenStsMemAllocErr) << limit;
        EXPECT_TRUE(call.untouched());
    }
}

TEST(SimpleBuilder, DepthsZeroAndFiftyAreAccepted) {
    for (int depth : {0, 50}) {
        Call call;
        call.params.maxDepth = depth;
        ASSERT_EQ(call.run(), zenStsNoErr);
        zenrKDTreeFree(call.tree);
    }
}

TEST(SimpleBuilder, OnlyTheFirstTwoFieldsAreRead) {
    zenrtest::Guarded<uint32_t> params(2);
    params[0] = zenKDTBuildSimple;
    params[1] = 3;
    Call call;
    call.pParams = params.data();
    ASSERT_EQ(call.run(), zenStsNoErr);
    zenrKDTreeFree(call.tree);
}

TEST(SimpleBuilder, BlockIsOneGeneralLeaf) {
    for (int n : {0, 1, 2, 3, 4, 1000}) {
        Call call;
        call.triangles = n;
        call.vertices = 0;
        ASSERT_EQ(call.run(), zenStsNoErr);
        EXPECT_EQ(call.size, 16 + 4 * n);
        const uint32_t* words = reinterpret_cast<const uint32_t*>(call.tree);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(words) % 64, 0u);
        EXPECT_EQ(words[0], 0xFFFFFFF0u);
        EXPECT_EQ(words[1], uint32_t(n));
        EXPECT_EQ(words[2], 0u);
        EXPECT_EQ(words[3], 0u);
        for (int i = 0; i < n; ++i) EXPECT_EQ(words[4 + i], uint32_t(i));
        zenrKDTreeFree(call.tree);
    }
}

TEST(SimpleBuilder, ListsThatNoSizeCanHoldAreRefused) {
    for (int n : {0x20000000, 0x3FFFFFFF, 0x7FFFFFFF}) {
        Call call;
        call.triangles = n;
        EXPECT_EQ(call.run(), zenStsMemAllocErr) << n;
        EXPECT_TRUE(call.untouched());
    }
}

TEST(Free, NullIsAllowed) {
    zenrKDTreeFree(nullptr);
}
