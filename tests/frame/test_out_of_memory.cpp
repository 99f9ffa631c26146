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
