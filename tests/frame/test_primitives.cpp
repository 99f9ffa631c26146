// The vector and image primitives: order of checks, overlap, thresholds, the sort's order of equals, the dot product's
// bits at every level.
#include <limits.h>
#include <math.h>

#include <algorithm>

#include "frame/prprim.h"
#include "frame/prvec_kernels.h"
#include "reference/primitives.h"
#include "support.h"

using namespace zenr;
using namespace zenrtest;

namespace {

std::vector<uint8_t> randomBytes(size_t n, uint32_t seed) {
    Floats random(seed);
    std::vector<uint8_t> bytes(n);
    for (uint8_t& b : bytes) b = uint8_t(random.bits());
    return bytes;
}

std::vector<uint32_t> patternsOf(const std::vector<float>& values) {
    std::vector<uint32_t> patterns;
    for (float v : values) patterns.push_back(bitsOf(v));
    return patterns;
}

// For every null argument: zenStsNullPtrErr although the count is wrong too; then the count alone; nothing is written.
TEST(PrimitiveChecks, NullBeforeSizeAndNothingWritten) {
    float f[4] = {1, 2, 3, 4}, g[4] = {5, 6, 7, 8}, dp = 9;
    int32_t s[4] = {1, 2, 3, 4}, t[4] = {5, 6, 7, 8};
    int16_t h[4] = {1, 2, 3, 4};
    for (int len : {0, -1, INT_MIN, 2}) {
        EXPECT_EQ(zensCopy_32f(nullptr, g, len), zenStsNullPtrErr);
        EXPECT_EQ(zensCopy_32f(f, nullptr, len), zenStsNullPtrErr);
        EXPECT_EQ(zensCopy_32s(nullptr, t, len), zenStsNullPtrErr);
        EXPECT_EQ(zensCopy_32s(s, nullptr, len), zenStsNullPtrErr);
        EXPECT_EQ(zensZero_16s(nullptr, len), zenStsNullPtrErr);
        EXPECT_EQ(zensZero_32s(nullptr, len), zenStsNullPtrErr);
        EXPECT_EQ(zensZero_32f(nullptr, len), zenStsNullPtrErr);
        EXPECT_EQ(zensAdd_32f_I(nullptr, g, len), zenStsNullPtrErr);
        EXPECT_EQ(zensAdd_32f_I(f, nullptr, len), zenStsNullPtrErr);
        for (float val : {0.f, 1.f, 2.f}) {
            EXPECT_EQ(zensMulC_32f(nullptr, val, g, len), zenStsNullPtrErr);
            EXPECT_EQ(zensMulC_32f(f, val, nullptr, len), zenStsNullPtrErr);
            EXPECT_EQ(zensMulC_32f_I(val, nullptr, len), zenStsNullPtrErr);
        }
        EXPECT_EQ(zensDotProd_32f(nullptr, g, len, &dp), zenStsNullPtrErr);
        EXPECT_EQ(zensDotProd_32f(f, nullptr, len, &dp), zenStsNullPtrErr);
        EXPECT_EQ(zensDotProd_32f(f, g, len, nullptr), zenStsNullPtrErr);
        EXPECT_EQ(zensSortAscend_32f_I(nullptr, len), zenStsNullPtrErr);
        if (len > 0) continue;
        EXPECT_EQ(zensCopy_32f(f, g, len), zenStsSizeErr);
        EXPECT_EQ(zensCopy_32s(s, t, len), zenStsSizeErr);
        EXPECT_EQ(zensZero_16s(h, len), zenStsSizeErr);
        EXPECT_EQ(zensZero_32s(t, len), zenStsSizeErr);
        EXPECT_EQ(zensZero_32f(g, len), zenStsSizeErr);
        EXPECT_EQ(zensAdd_32f_I(f, g, len), zenStsSizeErr);
        for (float val : {0.f, 1.f, 2.f}) {
            EXPECT_EQ(zensMulC_32f(f, val, g, len), zenStsSizeErr);
            EXPECT_EQ(zensMulC_32f_I(val, g, len), zenStsSizeErr);
        }
        EXPECT_EQ(zensDotProd_32f(f, g, len, &dp), zenStsSizeErr);
        EXPECT_EQ(zensSortAscend_32f_I(g, len), zenStsSizeErr);
    }
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(f[i], i + 1);
        EXPECT_EQ(g[i], i + 5);
        EXPECT_EQ(s[i], i + 1);
        EXPECT_EQ(t[i], i + 5);
        EXPECT_EQ(h[i], i + 1);
    }
    EXPECT_EQ(dp, 9);
}

template <class T> void checkRegionChecks(ZenStatus (*copy)(const T*, int, T*, int, ZenrSize)) {
    T src[4] = {1, 2, 3, 4}, dst[4] = {5, 6, 7, 8};
    const int step = 2 * sizeof(T);
    for (ZenrSize size : {ZenrSize{2, 2}, ZenrSize{0, 2}, ZenrSize{2, 0}, ZenrSize{-1, 2}, ZenrSize{2, INT_MIN}}) {
        EXPECT_EQ(copy(nullptr, step, dst, step, size), zenStsNullPtrErr);
        EXPECT_EQ(copy(src, step, nullptr, step, size), zenStsNullPtrErr);
        if (size.width > 0 && size.height > 0) continue;
        EXPECT_EQ(copy(src, step, dst, step, size), zenStsSizeErr);
    }
    for (int i = 0; i < 4; ++i) EXPECT_EQ(dst[i], T(i + 5));
    EXPECT_EQ(copy(src, step, dst, step, ZenrSize{2, 2}), zenStsNoErr);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(dst[i], T(i + 1));
}

TEST(PrimitiveChecks, RegionCopies) {
    checkRegionChecks(zeniCopy_8u_C1R);
    checkRegionChecks(zeniCopy_16s_C1R);
    checkRegionChecks(zeniCopy_16u_C1R);
    checkRegionChecks(zeniCopy_32f_C1R);
}

TEST(Copy, EveryLengthAndAlignmentLikeAByteLoop) {
    const std::vector<uint8_t> source = randomBytes(5000, 1);
    for (int len : {-5, 0, 1, 2, 3, 7, 31, 64, 100, 3199, 3200, 3201, 4000})
        for (int from : {0, 1, 3})
            for (int to : {0, 2, 5}) {
                std::vector<uint8_t> got(5000, 0xA5), want = got;
                ownsCopy_8u(source.data() + from, got.data() + to, len);
                zenrref::copyForward(source.data() + from, want.data() + to, size_t(std::max(len, 0)), 1);
                ASSERT_EQ(got, want) << len << " from " << from << " to " << to;
            }
}

// Upwards an overlapping copy repeats the leading bytes, downwards it is a move.
TEST(Copy, OverlapRepeatsTheLeadingBytes) {
    for (int len : {10, 33, 3200, 3201, 4000})
        for (int distance :
             {1, 2, 3, 4, 8, 15, 16, 17, 32, 64, 100, -1, -2, -16, -31, len - 1, len, len + 1, 1 - len, -len})
            for (int start : {9000, 9003}) {
                std::vector<uint8_t> got = randomBytes(18000, uint32_t(len)), want = got;
                ownsCopy_8u(got.data() + start, got.data() + start + distance, len);
                zenrref::copyForward(want.data() + start, want.data() + start + distance, size_t(len), 1);
                ASSERT_EQ(got, want) << len << " by " << distance;
            }
    std::vector<uint8_t> run = randomBytes(4001, 2);
    const uint8_t first = run[0];
    ownsCopy_8u(run.data(), run.data() + 1, 4000);
    EXPECT_EQ(std::count(run.begin(), run.end(), first), 4001);
}

TEST(Copy, WordsOfBothTypesIncludingOverlap) {
    for (int len : {1, 10, 799, 800, 801, 2000})
        for (int distance : {1, 3, -1, 3000}) {
            std::vector<float> got(9000), want;
            Floats random(7);
            for (float& v : got) v = floatOf(random.bits());
            want = got;
            std::vector<int32_t> words(got.size());
            memcpy(words.data(), got.data(), got.size() * 4);
            EXPECT_EQ(zensCopy_32f(&got[3000], &got[size_t(3000 + distance)], len), zenStsNoErr);
            EXPECT_EQ(zensCopy_32s(&words[3000], &words[size_t(3000 + distance)], len), zenStsNoErr);
            zenrref::copyForward(&want[3000], &want[size_t(3000 + distance)], size_t(len), 4);
            ASSERT_EQ(memcmp(got.data(), want.data(), got.size() * 4), 0) << len << " by " << distance;
            ASSERT_EQ(memcmp(words.data(), want.data(), got.size() * 4), 0) << len << " by " << distance;
        }
}

TEST(Copy, TouchesNothingBeyondItsBlocks) {
    for (auto side : {Guarded<float>::atStart, Guarded<float>::atEnd})
        for (int len : {1, 5, 800, 801, 2048}) {
            Guarded<float> src(size_t(len), side), dst(size_t(len), side);
            for (int i = 0; i < len; ++i) src[size_t(i)] = float(i);
            EXPECT_EQ(zensCopy_32f(src.data(), dst.data(), len), zenStsNoErr);
            EXPECT_EQ(memcmp(src.data(), dst.data(), size_t(len) * 4), 0);
            EXPECT_EQ(zensAdd_32f_I(src.data(), dst.data(), len), zenStsNoErr);
            EXPECT_EQ(zensMulC_32f_I(0.5f, dst.data(), len), zenStsNoErr);
            EXPECT_EQ(memcmp(src.data(), dst.data(), size_t(len) * 4), 0);
            float dp = -1;
            EXPECT_EQ(zensDotProd_32f(src.data(), dst.data(), len, &dp), zenStsNoErr);
            EXPECT_EQ(zensSortAscend_32f_I(dst.data(), len), zenStsNoErr);
            EXPECT_EQ(zensZero_32f(dst.data(), len), zenStsNoErr);
            EXPECT_EQ(dst[size_t(len - 1)], 0.f);
        }
}

TEST(Zero, ClearsExactlyItsBytesAtEveryAddress) {
    for (int len : {-1, 0, 1, 2, 3, 4, 5, 31, 32, 33, 35, 36, 63, 64, 67, 4000})
        for (int at = 0; at < 9; ++at) {
            std::vector<uint8_t> got(4100, 0xA5);
            ownsZero_8u(got.data() + at, len);
            for (int i = 0; i < 4100; ++i)
                ASSERT_EQ(got[size_t(i)], i >= at && i < at + len ? 0 : 0xA5) << len << " at " << at << ": " << i;
        }
}

TEST(Zero, CountsElements) {
    for (int len : {1, 2, 3, 17, 1000}) {
        std::vector<int16_t> h(1001, -1);
        std::vector<int32_t> s(1001, -1);
        std::vector<float> f(1001, -1);
        EXPECT_EQ(zensZero_16s(h.data(), len), zenStsNoErr);
        EXPECT_EQ(zensZero_32s(s.data(), len), zenStsNoErr);
        EXPECT_EQ(zensZero_32f(f.data(), len), zenStsNoErr);
        for (int i = 0; i < 1001; ++i) {
            ASSERT_EQ(h[size_t(i)], i < len ? 0 : -1);
            ASSERT_EQ(s[size_t(i)], i < len ? 0 : -1);
            ASSERT_EQ(bitsOf(f[size_t(i)]), i < len ? 0u : bitsOf(-1.f));
        }
    }
}

TEST(Add, ElementwiseAndAscendingWhenOverlapping) {
    Floats random(11);
    for (int len : {1, 2, 3, 5, 8, 17, 256, 801})
        for (int distance : {-3, -1, 0, 1, 2, 7, 2000}) {
            std::vector<float> got(5000), want;
            for (float& v : got) v = random.any();
            want = got;
            EXPECT_EQ(zensAdd_32f_I(&got[1000], &got[size_t(1000 + distance)], len), zenStsNoErr);
            for (int i = 0; i < len; ++i) {
                volatile float& to = want[size_t(1000 + distance + i)];
                to = to + want[size_t(1000 + i)];
            }
            for (size_t i = 0; i < got.size(); ++i)
                ASSERT_TRUE(sameFloat(got[i], want[i])) << len << " by " << distance;
        }
}

TEST(MulC, EveryKindOfConstant) {
    Floats random(12);
    std::vector<float> src(1000);
    for (float& v : src) v = random.any();
    src[0] = NAN, src[1] = INFINITY, src[2] = -INFINITY, src[3] = -1.f;
    for (float val : {1.f, 0.f, -0.f, -1.f, 2.5f, NAN, INFINITY, 1e-45f, floatOf(bitsOf(1.f) + 1)})
        for (int len : {1, 2, 3, 4, 31, 1000}) {
            std::vector<float> got(1001, 7.f), inPlace = src;
            EXPECT_EQ(zensMulC_32f(src.data(), val, got.data(), len), zenStsNoErr);
            EXPECT_EQ(zensMulC_32f_I(val, inPlace.data(), len), zenStsNoErr);
            for (int i = 0; i < 1000; ++i) {
                const volatile float product = src[size_t(i)] * val;
                const float want = val == 1.f ? src[size_t(i)] : val == 0.f ? 0.f : float(product);
                ASSERT_TRUE(sameFloat(got[size_t(i)], i < len ? want : 7.f)) << val << " at " << i;
                ASSERT_TRUE(sameFloat(inPlace[size_t(i)], i < len ? want : src[size_t(i)])) << val << " at " << i;
            }
        }
    // A constant of one copies the bits, a signalling NaN's too.
    const float signalling = floatOf(0x7F800001u);
    float copied = 0;
    zensMulC_32f(&signalling, 1.f, &copied, 1);
    EXPECT_EQ(bitsOf(copied), 0x7F800001u);
}

// --- Sort ------------------------------------------------------------------------------------------------------------

void expectSortedAsDefined(const std::vector<float>& input, const char* what) {
    std::vector<float> got = input, want = input;
    ASSERT_EQ(zensSortAscend_32f_I(got.data(), int(got.size())), zenStsNoErr);
    zenrref::sortAscend(want);
    ASSERT_TRUE(std::is_sorted(got.begin(), got.end())) << what << " " << input.size();
    ASSERT_EQ(patternsOf(got), patternsOf(want)) << what << " " << input.size();
    std::vector<uint32_t> before = patternsOf(input), after = patternsOf(got);
    std::sort(before.begin(), before.end());
    std::sort(after.begin(), after.end());
    ASSERT_EQ(before, after) << what << " " << input.size();
}

TEST(Sort, PartitionsFromTenElementsOn) {
    for (int n : {1, 2, 9, 10}) {
        std::vector<float> a;
        for (int i = 0; i < n; ++i) a.push_back(float(i * 7 % 11));
        EXPECT_EQ(zenrref::sortAscend(a).partitions, n == 10 ? 1 : 0);
    }
    // Up to nine elements equal ones keep no order: the first of the greatest goes to the top.
    std::vector<float> nine = {0.f, -0.f, 0.f, -0.f, -0.f, 0.f, 0.f, -0.f, -0.f};
    expectSortedAsDefined(nine, "zeros");
}

TEST(Sort, EveryShapeOfInput) {
    Floats random(21);
    for (int n : {1, 2, 3, 8, 9, 10, 11, 19, 20, 21, 50, 100, 321, 1000, 5000}) {
        if (n > 1000 && rounds(30) < 30) continue;
        std::vector<float> a(size_t(n), 2.f);
        expectSortedAsDefined(a, "equal");
        for (int i = 0; i < n; ++i) a[size_t(i)] = float(i);
        expectSortedAsDefined(a, "ascending");
        for (int i = 0; i < n; ++i) a[size_t(i)] = float(-i);
        expectSortedAsDefined(a, "descending");
        for (int i = 0; i < n; ++i) a[size_t(i)] = float(std::min(i, n - i));
        expectSortedAsDefined(a, "organ pipe");
        for (int round = 0; round < rounds(40); ++round) {
            for (float& v : a) v = random.moderate();
            expectSortedAsDefined(a, "random");
            for (float& v : a) v = float(int(random.bits() % 4) - 2);
            expectSortedAsDefined(a, "few values");
            for (float& v : a) v = random.bits() & 1 ? -0.f : 0.f;
            expectSortedAsDefined(a, "signed zeros");
            for (float& v : a) do
                    v = random.any();
                while (v != v);
            expectSortedAsDefined(a, "special");
            // Sorted but for the last element, the greatest: the upward scan of the partition meets nothing greater.
            std::sort(a.begin(), a.end());
            expectSortedAsDefined(a, "sorted");
        }
    }
}

TEST(Sort, EqualElementsStayAndNothingBeyondIsRead) {
    for (int n : {9, 10, 11, 100, 1023}) {
        Guarded<float> a{size_t(n)};
        for (int i = 0; i < n; ++i) a[size_t(i)] = 3.f;
        EXPECT_EQ(zensSortAscend_32f_I(a.data(), n), zenStsNoErr);
        for (int i = 0; i < n; ++i) ASSERT_EQ(a[size_t(i)], 3.f);
    }
}

// The stack has room for 31 waiting segments. A tree of the longest sides stays far below that.
TEST(Sort, FewSegmentsWait) {
    Floats random(22);
    for (int round = 0; round < rounds(30); ++round) {
        std::vector<float> a(20000);
        for (float& v : a) v = random.moderate();
        const std::vector<float> input = a;
        EXPECT_LE(zenrref::sortAscend(a).deepest, 12u);
        std::vector<float> got = input;
        zensSortAscend_32f_I(got.data(), int(got.size()));
        ASSERT_EQ(patternsOf(got), patternsOf(a));
    }
}

// NaNs: it ends, stays in its array and permutes.
TEST(Sort, NaNsEndAndPermute) {
    Floats random(23);
    const auto check = [](const std::vector<float>& input) {
        Guarded<float> a(input.size());
        memcpy(a.data(), input.data(), input.size() * 4);
        ASSERT_EQ(zensSortAscend_32f_I(a.data(), int(input.size())), zenStsNoErr);
        std::vector<uint32_t> before = patternsOf(input),
                              after = patternsOf(std::vector<float>(a.data(), a.data() + input.size()));
        std::sort(before.begin(), before.end());
        std::sort(after.begin(), after.end());
        ASSERT_EQ(before, after);
    };
    for (int n : {9, 10, 11, 12, 20, 100, 1000}) {
        check(std::vector<float>(size_t(n), NAN));
        for (int at = 0; at < std::min(n, 30); ++at) {
            std::vector<float> a(size_t(n), 1.f);
            a[size_t(n - 1 - at)] = NAN; // the last one: all others are at most the pivot
            check(a);
            a[0] = NAN;
            check(a);
            for (int i = 0; i < n; ++i) a[size_t(i)] = float(i);
            a[size_t(n - 1 - at)] = NAN;
            check(a);
        }
        for (int round = 0; round < rounds(200); ++round) {
            std::vector<float> a(size_t(n), 0.f);
            const uint32_t part = 1 + random.bits() % 10;
            for (float& v : a) v = random.bits() % part == 0 ? floatOf(0x7FC00000u + random.bits() % 99) : random.any();
            check(a);
        }
    }
}

// --- Region copies
// -----------------------------------------------------------------------------------------------------

template <class T> void checkRegion(ZenStatus (*copy)(const T*, int, T*, int, ZenrSize), int width) {
    const int height = 5, bytes = width * int(sizeof(T));
    for (int srcExtra : {0, 1, 4, 64})
        for (int dstExtra : {0, 3, 8})
            for (int srcSign : {1, -1})
                for (int dstSign : {1, -1}) {
                    const int srcStep = bytes + srcExtra, dstStep = bytes + dstExtra;
                    const std::vector<uint8_t> source = randomBytes(size_t(height * srcStep), uint32_t(width));
                    std::vector<uint8_t> got(size_t(height * dstStep), 0xA5), want = got;
                    const uint8_t* src = source.data() + (srcSign < 0 ? (height - 1) * srcStep : 0);
                    const size_t dstAt = size_t(dstSign < 0 ? (height - 1) * dstStep : 0);
                    ASSERT_EQ(copy(reinterpret_cast<const T*>(src), srcSign * srcStep,
                                   reinterpret_cast<T*>(got.data() + dstAt), dstSign * dstStep,
                                   ZenrSize{width, height}),
                              zenStsNoErr);
                    for (int y = 0; y < height; ++y)
                        memcpy(want.data() + ptrdiff_t(dstAt) + y * dstSign * dstStep, src + y * srcSign * srcStep,
                               size_t(bytes));
                    ASSERT_EQ(got, want) << width;
                }
}

// Rows that overlap: the unit of the copy is the element, at any byte distance.
template <class T> void checkRegionOverlap(ZenStatus (*copy)(const T*, int, T*, int, ZenrSize), int width) {
    const int height = 3, step = width * int(sizeof(T)) + 8;
    for (int distance : {1, 2, 3, 4, 5, 8, 16, 63, -1, -2, -4, -7, step, step + 2, -step, width * int(sizeof(T))}) {
        const size_t at = size_t(4 * step + 100);
        std::vector<uint8_t> got = randomBytes(size_t(12 * step + 300), uint32_t(width)), want = got;
        ASSERT_EQ(copy(reinterpret_cast<const T*>(got.data() + at), step,
                       reinterpret_cast<T*>(got.data() + at + distance), step, ZenrSize{width, height}),
                  zenStsNoErr);
        for (int y = 0; y < height; ++y)
            zenrref::copyForward(want.data() + at + y * step, want.data() + at + distance + y * step, size_t(width),
                                 sizeof(T));
        ASSERT_EQ(got, want) << width << " by " << distance;
    }
}

TEST(RegionCopy, RowsAndNothingElse) {
    for (int width : {1, 2, 3, 7, 16, 33, 799, 800, 801, 1600, 1601, 3200, 3201}) {
        checkRegion(zeniCopy_8u_C1R, width);
        checkRegion(zeniCopy_16s_C1R, width);
        checkRegion(zeniCopy_16u_C1R, width);
        checkRegion(zeniCopy_32f_C1R, width);
    }
}

TEST(RegionCopy, OverlappingRowsElementByElement) {
    for (int width : {1, 10, 100, 801, 1601, 3201}) {
        checkRegionOverlap(zeniCopy_8u_C1R, width);
        checkRegionOverlap(zeniCopy_16s_C1R, width);
        checkRegionOverlap(zeniCopy_16u_C1R, width);
        checkRegionOverlap(zeniCopy_32f_C1R, width);
    }
}

// --- Dot product
// -------------------------------------------------------------------------------------------------------

void expectDot(const std::vector<float>& x, const std::vector<float>& y, const char* what) {
    const int n = int(x.size());
    const float want = zenrref::dot(x.data(), y.data(), n);
    for (Level level : levels()) {
        float got = 7;
        DotProd_32f(level, x.data(), y.data(), n, &got);
        ASSERT_TRUE(sameFloat(got, want))
            << what << " n=" << n << " " << levelName(level) << ": " << got << " " << want;
    }
    if (n < 1) return;
    float got = 7;
    ASSERT_EQ(zensDotProd_32f(x.data(), y.data(), n, &got), zenStsNoErr);
    ASSERT_TRUE(sameFloat(got, want)) << what << " n=" << n;
}

TEST(Dot, LengthBelowOneGivesZero) {
    for (Level level : levels())
        for (int len : {0, -1, INT_MIN}) {
            float got = 7;
            DotProd_32f(level, nullptr, nullptr, len, &got);
            EXPECT_EQ(bitsOf(got), 0u);
        }
}

TEST(Dot, RandomInputsOfEveryLength) {
    Floats random(31);
    for (int n :
         {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 31, 32, 33, 63, 64, 65, 127, 128, 129, 256, 801})
        for (int round = 0; round < rounds(100); ++round) {
            std::vector<float> x(size_t(n), 0.f), y = x;
            for (float& v : x) v = random.moderate();
            for (float& v : y) v = random.moderate();
            expectDot(x, y, "moderate");
            for (int k = 0; k < n; k += 3) y[size_t(k)] = random.any();
            expectDot(x, y, "special");
        }
}

TEST(Dot, LongVectors) {
    Floats random(32);
    for (int n : {801, 4097, 100000})
        for (int round = 0; round < rounds(4); ++round) {
            std::vector<float> x(size_t(n), 0.f), y = x;
            for (float& v : x) v = random.moderate();
            for (float& v : y) v = random.moderate();
            expectDot(x, y, "long");
            for (float& v : x) v = random.any();
            expectDot(x, y, "long, special");
        }
}

void shuffle(std::vector<float>& x, std::vector<float>& y, Floats& random) {
    for (size_t i = x.size(); i > 1; --i) {
        const size_t j = random.bits() % i;
        std::swap(x[i - 1], x[j]);
        std::swap(y[i - 1], y[j]);
    }
}

// Sums at, or a hair from, the middle between two floats, with pairs of large products that cancel: what the additions
// lose on the way decides the result, so a kernel that is too sure of itself fails here.
TEST(Dot, MiddlesBetweenFloats) {
    Floats random(33);
    for (int n : {16, 17, 20, 33, 64, 100, 257, 801})
        for (int round = 0; round < rounds(n > 300 ? 100 : 600); ++round) {
            std::vector<float> x, y;
            const float target = random.moderate();
            const float half = ldexpf(1.f, ilogbf(target) - 24);
            x.push_back(target), y.push_back(1.f);
            x.push_back(random.bits() & 1 ? half : -half), y.push_back(1.f);
            x.push_back(ldexpf(float(int(random.bits() % 3) - 1), -int(random.bits() % 80))), y.push_back(half);
            while (int(x.size()) + 2 <= n) {
                const float a = ldexpf(random.moderate(), int(random.bits() % 20)), b = random.moderate();
                x.push_back(a), y.push_back(b);
                x.push_back(-a), y.push_back(b);
            }
            while (int(x.size()) < n) x.push_back(0.f), y.push_back(random.moderate());
            shuffle(x, y, random);
            expectDot(x, y, "middle");
        }
}

// The same among denormal results, at the least one and its half (which rounds to zero of either sign), and where
// floats end (the middle above the largest rounds to infinity).
TEST(Dot, EndsOfTheRange) {
    Floats random(34);
    const float tiny = floatOf(1), most = floatOf(0x7F7FFFFFu);
    for (int n : {16, 19, 40, 200})
        for (int round = 0; round < rounds(400); ++round) {
            std::vector<float> x(size_t(n), 0.f), y(size_t(n), 1.f);
            x[0] = random.bits() % 2 ? tiny : -tiny;
            y[0] = float(random.bits() % 8) * 0.5f;
            x[1] = tiny;
            y[1] = float(int(random.bits() % 3) - 1) * ldexpf(1.f, -int(random.bits() % 100));
            expectDot(x, y, "half of the least");
            x[2] = floatOf(random.bits() & 0x807FFFFFu);
            for (size_t k = 3; k + 1 < x.size(); k += 2) {
                x[k] = ldexpf(random.moderate(), -149 + int(random.bits() % 30));
                y[k] = y[k + 1] = random.moderate();
                x[k + 1] = -x[k];
            }
            shuffle(x, y, random);
            expectDot(x, y, "denormal");

            x.assign(size_t(n), 0.f), y.assign(size_t(n), 1.f);
            x[0] = random.bits() % 2 ? most : -most;
            x[1] = x[0] > 0 ? ldexpf(1.f, 103) : -ldexpf(1.f, 103);
            x[2] = ldexpf(float(int(random.bits() % 3) - 1), int(random.bits() % 103));
            for (size_t k = 3; k + 1 < x.size(); k += 2) {
                x[k] = ldexpf(random.moderate(), 100);
                y[k] = y[k + 1] = ldexpf(random.moderate(), 10);
                x[k + 1] = -x[k];
            }
            shuffle(x, y, random);
            expectDot(x, y, "greatest");
        }
}

TEST(Dot, CancellingToNothing) {
    Floats random(35);
    for (int n : {16, 32, 50, 801})
        for (int round = 0; round < rounds(100); ++round) {
            std::vector<float> x, y;
            while (int(x.size()) + 2 <= n) {
                x.push_back(random.moderate()), y.push_back(random.moderate());
                x.push_back(-x.back()), y.push_back(y.back());
            }
            expectDot(x, y, "pairs"); // exactly +0
            shuffle(x, y, random);
            expectDot(x, y, "shuffled pairs");
            for (float& v : y) v = random.bits() & 1 ? 0.f : -0.f;
            expectDot(x, y, "zeros");
            y[size_t(n / 2)] = 1e-30f, x[size_t(n / 2)] = random.bits() & 1 ? 1e-30f : -1e-30f;
            expectDot(x, y, "below the least float");
        }
}

TEST(Dot, OneInfinityOrNaNAnywhere) {
    for (int n : {1, 15, 16, 37, 64})
        for (int at = 0; at < n; ++at)
            for (float special : {INFINITY, -INFINITY, NAN}) {
                std::vector<float> x(size_t(n), 0.5f), y(size_t(n), 2.f);
                x[size_t(at)] = special;
                expectDot(x, y, "one special");
                y[size_t(at)] = 0.f;
                expectDot(x, y, "special times zero");
                y[size_t(at)] = 2.f;
                x[size_t(n - 1 - at)] = -INFINITY;
                expectDot(x, y, "two specials");
            }
}

// The kernels must settle nearly everything themselves, or they are of no use; and must leave alone what is in doubt.
TEST(Dot, KernelsSettleTheOrdinaryAndOnlyThat) {
    Floats random(36);
    for (Level level : levels()) {
        const WideScope scope(level);
        const auto dot = vectorKernels(level).dot;
        int settled = 0;
        const int total = rounds(3000);
        float result;
        for (int round = 0; round < total; ++round) {
            std::vector<float> x(801), y(801);
            for (float& v : x) v = random.moderate();
            for (float& v : y) v = random.moderate();
            settled += dot(x.data(), y.data(), 801, &result);
        }
        EXPECT_GE(settled, total - total / 100 - 1) << levelName(level);

        std::vector<float> x(40, 1.f), y(40, 0.f);
        EXPECT_TRUE(dot(x.data(), y.data(), 40, &result));
        EXPECT_EQ(bitsOf(result), 0u);
        y[0] = 16777216.f, y[39] = 1.f; // a tie
        EXPECT_FALSE(dot(x.data(), y.data(), 40, &result));
        y[39] = 2.f;
        EXPECT_TRUE(dot(x.data(), y.data(), 40, &result));
        EXPECT_EQ(result, 16777218.f);
        y[39] = -16777216.f; // zero, for all that double can tell
        EXPECT_FALSE(dot(x.data(), y.data(), 40, &result));
        for (float special : {INFINITY, -INFINITY, NAN}) {
            y[20] = special;
            EXPECT_FALSE(dot(x.data(), y.data(), 40, &result));
        }
    }
}

TEST(Dot, ReadsJustItsElementsAtEveryAlignment) {
    Floats random(37);
    for (auto side : {Guarded<float>::atStart, Guarded<float>::atEnd})
        for (int n = 1; n <= 70; ++n) {
            Guarded<float> x(size_t(n), side), y(size_t(n), side);
            for (int i = 0; i < n; ++i) x[size_t(i)] = random.moderate(), y[size_t(i)] = random.moderate();
            for (Level level : levels()) {
                float got = 0;
                DotProd_32f(level, x.data(), y.data(), n, &got);
                ASSERT_EQ(bitsOf(got), bitsOf(zenrref::dot(x.data(), y.data(), n))) << n;
                if (n < 2) continue;
                DotProd_32f(level, x.data() + 1, y.data(), n - 1, &got);
                ASSERT_EQ(bitsOf(got), bitsOf(zenrref::dot(x.data() + 1, y.data(), n - 1))) << n;
            }
        }
}

} // namespace
