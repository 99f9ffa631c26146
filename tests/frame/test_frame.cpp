// The frame: version record, memory, thread count, special constants, the thread split.
#include <omp.h>
#include <string.h>

#include <mutex>
#include <set>
#include <thread>

#include "frame/parallel.h"
#include "frame/prconst.h"
#include "frame/prmem.h"
#include "support.h"
#include "zencore.h"
#include "zenr.h"

using namespace zenr;

TEST(Version, RecordReadsAsDefined) {
    const ZenrLibraryVersion* v = zenrGetLibVersion();
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(v, zenrGetLibVersion());
    EXPECT_EQ(v->major, 6);
    EXPECT_EQ(v->minor, 1);
    EXPECT_EQ(v->majorBuild, 137);
    EXPECT_EQ(v->build, 703);
    EXPECT_EQ(memcmp(v->targetCpu, "px\0\0", 4), 0);
    EXPECT_STREQ(v->name, "libzenrpx.so.6.1");
    EXPECT_STREQ(v->version, "6.1 build 137.56");
    EXPECT_STREQ(v->buildDate, "Mar 17 2010");
}

TEST(Flavour, FloatExpressionsAreEvaluatedInFloat) {
    EXPECT_EQ(__FLT_EVAL_METHOD__, 0);
}

TEST(Memory, BlocksAreAlignedAndUsable) {
    for (size_t size : {size_t(1), size_t(63), size_t(64), size_t(65), size_t(1000000)}) {
        void* p = zenMalloc(size);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 64, 0u);
        memset(p, 0xAB, size);
        zenFree(p);
    }
}

TEST(Memory, ImpossibleSizesGiveNull) {
    EXPECT_EQ(zenMalloc(0), nullptr);
    EXPECT_EQ(zenMalloc(SIZE_MAX), nullptr);
    EXPECT_EQ(zenMalloc(SIZE_MAX - 62), nullptr);
    EXPECT_EQ(zenMalloc(SIZE_MAX / 2 + 1), nullptr);
    zenFree(nullptr);
}

TEST(Memory, WrappersRefuseCountsBelowOne) {
    EXPECT_EQ(zensMalloc_32s(0), nullptr);
    EXPECT_EQ(zensMalloc_32s(-3), nullptr);
    EXPECT_EQ(zensMalloc_64s(0), nullptr);
    EXPECT_EQ(zensMalloc_64s(-2147483647 - 1), nullptr);
    EXPECT_EQ(zensMalloc_32s(0x40000000), nullptr) << "the byte count wraps to 0";
    void* p = zensMalloc_32s(3);
    void* q = zensMalloc_64s(3);
    ASSERT_NE(p, nullptr);
    ASSERT_NE(q, nullptr);
    memset(p, 1, 12);
    memset(q, 1, 24);
    zensFree(p);
    zensFree(q);
}

TEST(Threads, CountFollowsTheRuntimeUntilItIsSet) {
    const int before = omp_get_max_threads();
    zenSetNumThreads(0);
    EXPECT_EQ(ownGetNumThreads(), before);
    omp_set_num_threads(3);
    EXPECT_EQ(ownGetNumThreads(), 3);
    zenSetNumThreads(7);
    EXPECT_EQ(ownGetNumThreads(), 7);
    zenSetNumThreads(-1);
    EXPECT_EQ(ownGetNumThreads(), 3);
    omp_set_num_threads(before);
}

TEST(Constants, BitPatterns) {
    EXPECT_EQ(zenConstantOfNAN_32f.bits, 0xFFC00000u);
    EXPECT_TRUE(zenConstantOfNAN_32f.value != zenConstantOfNAN_32f.value);
    EXPECT_EQ(zenConstantOfINF_32f.value, INFINITY);
    EXPECT_EQ(zenConstantOfINF_NEG_32f.value, -INFINITY);
    EXPECT_EQ(zenConstantOfNAN_64f.bits, 0xFFF8000000000000u);
    EXPECT_EQ(zenConstantOfINF_64f.value, double(INFINITY));
    EXPECT_EQ(zenConstantOfINF_NEG_64f.value, -double(INFINITY));
}

static std::set<std::pair<int, int>> rangesOf(int total) {
    std::set<std::pair<int, int>> ranges;
    std::mutex guard;
    parallelSplit(total, [&](int begin, int count) {
        std::lock_guard<std::mutex> lock(guard);
        ranges.insert({begin, count});
    });
    return ranges;
}

TEST(Split, TenItemsOnATeamOfFour) {
    omp_set_dynamic(0);
    zenSetNumThreads(4);
    EXPECT_EQ(rangesOf(10), (std::set<std::pair<int, int>>{{0, 2}, {2, 2}, {4, 2}, {6, 4}}));
    zenSetNumThreads(1);
    EXPECT_EQ(rangesOf(10), (std::set<std::pair<int, int>>{{0, 10}}));
    zenSetNumThreads(0);
}

TEST(Split, WhenTheRuntimeDeclinesToForkTheCallerDoesAll) {
    zenSetNumThreads(4);
    std::set<std::pair<int, int>> ranges;
#pragma omp parallel num_threads(2)
    {
#pragma omp single
        {
            omp_set_max_active_levels(1);
            ranges = rangesOf(10);
        }
    }
    zenSetNumThreads(0);
    EXPECT_EQ(ranges, (std::set<std::pair<int, int>>{{0, 10}}));
}
