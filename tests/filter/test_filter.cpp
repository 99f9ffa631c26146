// The volume filter: order of checks, edge cases, and every path of the planning against the definition, at every
// level.
#include "filter/filter_tables.h"

#include <gtest/gtest.h>
#include <limits.h>

#include <memory>

#include "reference/filter.h"
#include "support.h"
#include "zenr.h"

using zenrref::FilterShape;
using zenrtest::Guarded;
using zenrtest::levelName;
using zenrtest::levels;
using zenrtest::rounds;

namespace {

std::mt19937 gEngine(20101);
int uniform(int low, int high) {
    return std::uniform_int_distribution<int>(low, high)(gEngine);
}

// One call with its memory: each source plane is exactly the neighbourhood of its rows, at the edge of a guarded page;
// destination rows are part of a wider block of canaries, guarded too.
struct Case {
    int w, h, d;
    FilterShape shape;
    std::vector<int32_t> kernel;
    int srcStep, dstStep; // voxels, may be negative
    std::vector<std::unique_ptr<Guarded<int16_t>>> srcBlocks, dstBlocks;
    std::vector<const int16_t*> srcPlanes;
    std::vector<int16_t*> dstPlanes;
    const int16_t* const* src;

    static constexpr int16_t kCanary = 0x5A5A;

    Case(int w_, int h_, int d_, FilterShape s, int pad = 0, bool up = false,
         Guarded<int16_t>::Side side = Guarded<int16_t>::atEnd)
        : w(w_), h(h_), d(d_), shape(s), kernel(size_t(s.kw) * s.kh * s.kd) {
        const int rw = w + s.kw - 1, rh = h + s.kh - 1, rd = d + s.kd - 1;
        srcStep = rw + pad;
        for (int z = 0; z < rd; ++z) {
            srcBlocks.emplace_back(new Guarded<int16_t>(size_t(srcStep) * (rh - 1) + rw, side));
            // The pointer of a plane lies where voxel (0, 0) of the anchored region is, which may be outside the block.
            const int row0 = up ? rh - 1 - (s.kh - 1 - s.ay) : s.kh - 1 - s.ay;
            srcPlanes.push_back(srcBlocks.back()->data() + long(row0) * srcStep + (s.kw - 1 - s.ax));
        }
        dstStep = w + pad;
        for (int z = 0; z < d; ++z) {
            dstBlocks.emplace_back(new Guarded<int16_t>(size_t(dstStep) * (h - 1) + w, side));
            dstPlanes.push_back(dstBlocks.back()->data() + (up ? long(h - 1) * dstStep : 0));
        }
        if (up) srcStep = -srcStep, dstStep = -dstStep;
        src = srcPlanes.data() + (s.kd - 1 - s.az);
    }

    void fillSource(int low, int high) {
        for (auto& b : srcBlocks)
            for (size_t i = 0; i < b->size(); ++i) (*b)[i] = int16_t(uniform(low, high));
    }
    void fillExtremes() {
        for (auto& b : srcBlocks)
            for (size_t i = 0; i < b->size(); ++i) (*b)[i] = uniform(0, 3) ? -32768 : 32767;
    }

    std::vector<int64_t> sums() const {
        std::vector<int64_t> all;
        for (int z = 0; z < d; ++z)
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x)
                    all.push_back(zenrref::filteredSum(src, srcStep, kernel.data(), shape, x, y, z));
        return all;
    }

    // Runs the worker at each level and compares destination and canaries with the definition.
    void check(int32_t divisor, const std::vector<int64_t>& sums) {
        for (const auto& table : zenrtest::filterTables()) {
            for (auto& b : dstBlocks)
                for (size_t i = 0; i < b->size(); ++i) (*b)[i] = kCanary;
            zenr::WideScope scope(table.level);
            zenr::ownFilter(table.kernels, zenr::ownFilterJob(src, srcStep * 2, dstPlanes.data(), dstStep * 2,
                                                              {w, h, d}, kernel.data(), {shape.kw, shape.kh, shape.kd},
                                                              {shape.ax, shape.ay, shape.az}, divisor));
            size_t i = 0;
            for (int z = 0; z < d; ++z) {
                for (int y = 0; y < h; ++y)
                    for (int x = 0; x < w; ++x, ++i)
                        ASSERT_EQ(dstPlanes[z][long(y) * dstStep + x], zenrref::divideFiltered(sums[i], divisor))
                            << table.name << " size " << w << "x" << h << "x" << d << " kernel " << shape.kw << "x"
                            << shape.kh << "x" << shape.kd << " at " << x << " " << y << " " << z << " sum " << sums[i]
                            << " divisor " << divisor << " weights " << testing::PrintToString(kernel);
                const int16_t* block = dstBlocks[z]->data();
                const long stride = labs(long(dstStep));
                for (size_t j = 0; j < dstBlocks[z]->size(); ++j) {
                    if (long(j) % stride >= w) {
                        ASSERT_EQ(block[j], kCanary) << table.name << " outside " << j;
                    }
                }
            }
        }
    }
    void check(int32_t divisor) { check(divisor, sums()); }
};

const int32_t kDivisors[] = {1,   2,   4,    256,        1 << 17,  1 << 30, 3,           5,       6,          7,   10,
                             27,  100, 1000, 65535,      INT_MAX,  -1,      -2,          -3,      -4,         -10, -256,
                             -27, 125, 343,  1000000006, -INT_MAX, 65534,   INT_MAX - 1, 1 << 16, -(1 << 30), 12};
constexpr int kDivisorCount = int(sizeof kDivisors / sizeof *kDivisors);
int32_t someDivisor() {
    return uniform(0, 3) ? kDivisors[uniform(0, kDivisorCount - 1)] : uniform(1, 5000);
}

// ---- Statuses ------------------------------------------------------------------------------------------------------

struct Call {
    int16_t source[64] = {}, target[64];
    const int16_t* sp[4] = {source, source, source, source};
    int16_t* dp[4] = {target, target, target, target};
    int32_t kernel[27] = {};
    const int16_t* const* pSrc = sp;
    int16_t* const* pDst = dp;
    const int32_t* pKernel = kernel;
    ZenrVolume dst{2, 2, 2}, k{1, 1, 1};
    int divisor = 3;
    ZenStatus run() {
        for (int16_t& t : target) t = 77;
        return zenrFilter_16s_C1PV(pSrc, 8, pDst, 8, dst, pKernel, k, {0, 0, 0}, divisor, nullptr);
    }
};

TEST(FilterStatus, OrderOfChecks) {
    struct Row {
        void (*spoil)(Call&);
        ZenStatus status;
    };
    const Row rows[] = {
        {[](Call& c) { c.pSrc = nullptr; }, zenStsNullPtrErr},
        {[](Call& c) { c.pDst = nullptr; }, zenStsNullPtrErr},
        {[](Call& c) { c.pKernel = nullptr; }, zenStsNullPtrErr},
        {[](Call& c) { c.dst.width = 0; }, zenStsSizeErr},
        {[](Call& c) { c.dst.height = -1; }, zenStsSizeErr},
        {[](Call& c) { c.dst.depth = 0; }, zenStsSizeErr},
        {[](Call& c) { c.k.width = 0; }, zenStsSizeErr},
        {[](Call& c) { c.k.height = INT_MIN; }, zenStsSizeErr},
        {[](Call& c) { c.k.depth = 0; }, zenStsSizeErr},
        {[](Call& c) { c.divisor = 0; }, zenStsSizeErr},
        {[](Call& c) { c.divisor = INT_MIN; }, zenStsSizeErr},
    };
    const int n = int(sizeof rows / sizeof *rows);
    for (int i = 0; i < n; ++i)
        for (int j = i; j < n; ++j) {
            Call c;
            rows[j].spoil(c);
            rows[i].spoil(c); // last, so that of two spoilers of one argument the expected one stands
            EXPECT_EQ(c.run(), rows[i].status) << i << " " << j;
            for (int16_t t : c.target) ASSERT_EQ(t, 77);
        }
    Call c;
    EXPECT_EQ(c.run(), zenStsNoErr);
    EXPECT_EQ(c.target[0], 0);
}

TEST(FilterStatus, BufferSize) {
    struct Args {
        ZenrVolume dst{4, 5, 6}, k{3, 3, 3};
        int channels = 1;
        uint32_t size = 99;
        uint32_t* pSize = &size;
    };
    struct Row {
        void (*spoil)(Args&);
        ZenStatus status;
    };
    const Row rows[] = {
        {[](Args& a) { a.pSize = nullptr; }, zenStsNullPtrErr},
        {[](Args& a) { a.dst.width = 0; }, zenStsSizeErr},
        {[](Args& a) { a.dst.height = 0; }, zenStsSizeErr},
        {[](Args& a) { a.dst.depth = -5; }, zenStsSizeErr},
        {[](Args& a) { a.k.width = 0; }, zenStsSizeErr},
        {[](Args& a) { a.k.height = 0; }, zenStsSizeErr},
        {[](Args& a) { a.k.depth = 0; }, zenStsSizeErr},
        {[](Args& a) { a.channels = 3; }, zenStsNumChannelsErr},
        {[](Args& a) { a.channels = 0; }, zenStsNumChannelsErr},
    };
    const int n = int(sizeof rows / sizeof *rows);
    for (int i = 0; i < n; ++i)
        for (int j = i; j < n; ++j) {
            Args a;
            rows[j].spoil(a);
            rows[i].spoil(a);
            EXPECT_EQ(zenrFilterGetBufSize(a.dst, a.k, a.channels, a.pSize), rows[i].status) << i << " " << j;
            EXPECT_EQ(a.size, 99u);
        }
    Args a;
    EXPECT_EQ(zenrFilterGetBufSize(a.dst, a.k, a.channels, a.pSize), zenStsNoErr);
    EXPECT_EQ(a.size, 0u);
}

// ---- Edge cases ----------------------------------------------------------------------------------------------------

TEST(Filter, UnitKernelCopies) {
    Case c(45, 7, 3, {1, 1, 1, 0, 0, 0}, 3);
    c.kernel[0] = 1;
    c.fillSource(-32768, 32767);
    c.check(1);
    for (int z = 0; z < 3; ++z)
        for (int y = 0; y < 7; ++y)
            for (int x = 0; x < 45; ++x)
                ASSERT_EQ(c.dstPlanes[z][y * c.dstStep + x], c.srcPlanes[z][y * c.srcStep + x]);
}

TEST(Filter, RoundsHalfToEvenAndSaturates) {
    struct Row {
        int sample, weight, divisor, result;
    };
    const Row rows[] = {{5, 1, 2, 2},           {7, 1, 2, 4},           {-5, 1, 2, -2},         {-7, 1, 2, -4},
                        {32767, 3, 3, 32767},   {-32768, -3, 3, 32767}, {-25000, 4, 3, -32768}, {1, 1, 3, 0},
                        {5, 1, -1, -5},         {5, 1, -2, -2},         {7, 1, -2, -4},         {3, 1, 6, 0},
                        {9, 1, 6, 2},           {15, 1, 6, 2},          {-9, 1, 6, -2},         {-15, 1, 6, -2},
                        {-32768, 1, -1, 32767}, {32767, 5, 4, 32767},   {-32768, 5, 4, -32768}, {1, 1, INT_MAX, 0}};
    for (const Row& r : rows)
        for (int width : {1, 9, 33}) {
            Case c(width, 1, 1, {1, 1, 1, 0, 0, 0});
            c.kernel[0] = r.weight;
            c.fillSource(r.sample, r.sample);
            c.check(r.divisor);
            EXPECT_EQ(c.dstPlanes[0][width - 1], r.result) << r.sample << " * " << r.weight << " / " << r.divisor;
        }
}

// A last plane of zeros changes nothing but which planes the kernel covers.
TEST(Filter, PaddedKernelIsTheSame) {
    for (int i = 0; i < rounds(60); ++i) {
        Case c(uniform(1, 70), uniform(1, 9), uniform(1, 5), {3, 3, 4, 1, 1, 1});
        const int range = i % 3 == 0 ? 100 : i % 3 == 1 ? 32000 : INT_MAX;
        for (size_t t = 0; t < 27; ++t) c.kernel[t] = uniform(-range, range);
        c.fillSource(-32768, 32767);
        const int divisor = someDivisor();
        c.check(divisor);
        for (const auto& table : zenrtest::filterTables()) {
            std::vector<int16_t> out(size_t(c.w) * c.h * c.d);
            std::vector<int16_t*> planes;
            for (int z = 0; z < c.d; ++z) planes.push_back(out.data() + size_t(z) * c.w * c.h);
            zenr::WideScope scope(table.level);
            zenr::ownFilter(table.kernels,
                            zenr::ownFilterJob(c.src, c.srcStep * 2, planes.data(), c.w * 2, {c.w, c.h, c.d},
                                               c.kernel.data(), {3, 3, 3}, {1, 1, 1}, divisor));
            for (int z = 0; z < c.d; ++z)
                for (int y = 0; y < c.h; ++y)
                    ASSERT_EQ(memcmp(planes[z] + y * c.w, c.dstPlanes[z] + y * c.dstStep, size_t(c.w) * 2), 0);
        }
    }
}

TEST(Filter, OddStepsLoseTheirLastByte) {
    int16_t source[2 * 8], even[2 * 5], odd[2 * 5];
    for (int16_t& s : source) s = int16_t(uniform(-32768, 32767));
    for (int i = 0; i < 10; ++i) even[i] = odd[i] = 0;
    const int32_t kernel[2] = {3, -2};
    const int16_t* src[1] = {source};
    int16_t* dst[1] = {even};
    ASSERT_EQ(zenrFilter_16s_C1PV(src, 16, dst, 10, {5, 2, 1}, kernel, {2, 1, 1}, {1, 0, 0}, 1, nullptr), zenStsNoErr);
    dst[0] = odd;
    ASSERT_EQ(zenrFilter_16s_C1PV(src, 17, dst, 11, {5, 2, 1}, kernel, {2, 1, 1}, {1, 0, 0}, 1, nullptr), zenStsNoErr);
    EXPECT_EQ(memcmp(even, odd, sizeof even), 0);
    // Rounded towards minus infinity: -15 bytes are -8 voxels.
    int16_t up[2 * 5] = {};
    src[0] = source + 8;
    dst[0] = up + 5;
    ASSERT_EQ(zenrFilter_16s_C1PV(src, -15, dst, -9, {5, 2, 1}, kernel, {2, 1, 1}, {1, 0, 0}, 1, nullptr), zenStsNoErr);
    EXPECT_EQ(memcmp(up, even, 10), 0);
    EXPECT_EQ(memcmp(up + 5, even + 5, 10), 0);
}

// The exported function itself, with an anchor outside the kernel and planes indexed below 0.
TEST(Filter, AnchorsAnywhere) {
    for (int i = 0; i < rounds(60); ++i) {
        FilterShape s{uniform(1, 4), uniform(1, 4), uniform(1, 4), uniform(-9, 9), uniform(-9, 9), uniform(-9, 9)};
        Case c(uniform(1, 40), uniform(1, 6), uniform(1, 4), s, uniform(0, 2), i & 1);
        for (int32_t& k : c.kernel) k = uniform(-9, 9);
        c.fillSource(-32768, 32767);
        const std::vector<int64_t> sums = c.sums();
        ASSERT_EQ(zenrFilter_16s_C1PV(c.src, c.srcStep * 2, c.dstPlanes.data(), c.dstStep * 2, {c.w, c.h, c.d},
                                      c.kernel.data(), {s.kw, s.kh, s.kd}, {s.ax, s.ay, s.az}, 7, nullptr),
                  zenStsNoErr);
        size_t n = 0;
        for (int z = 0; z < c.d; ++z)
            for (int y = 0; y < c.h; ++y)
                for (int x = 0; x < c.w; ++x, ++n)
                    ASSERT_EQ(c.dstPlanes[z][y * c.dstStep + x], zenrref::divideFiltered(sums[n], 7));
        c.check(7, sums);
    }
}

// Source and destination in one block, the destination moved against the source in any direction: voxels that were
// written are read again.
TEST(Filter, OverlapInTheOrderOfVoxels) {
    for (int i = 0; i < rounds(200); ++i) {
        const FilterShape s{uniform(1, 3), uniform(1, 3), uniform(1, 3), uniform(0, 2), uniform(0, 2), uniform(0, 2)};
        const int w = uniform(1, 70), h = uniform(1, 9), d = uniform(1, 4);
        const int step = w + 8, rows = h + 8, planes = d + 8;
        std::vector<int32_t> kernel(size_t(s.kw) * s.kh * s.kd);
        for (int32_t& k : kernel) k = i % 3 ? uniform(-9, 9) : uniform(-INT_MAX, INT_MAX);
        std::vector<int16_t> before(size_t(step) * rows * planes);
        for (int16_t& v : before) v = int16_t(uniform(-32768, 32767));
        const int move[3] = {i < 20 ? 0 : uniform(-2, 2), i < 20 ? 0 : uniform(-2, 2), i < 20 ? 0 : uniform(-2, 2)};
        const int32_t divisor = someDivisor();
        const bool up = uniform(0, 1);
        // The planes of a block, as the source and as the destination.
        struct Planes {
            std::vector<int16_t> block;
            std::vector<const int16_t*> src;
            std::vector<int16_t*> dst;
            Planes(const std::vector<int16_t>& b, int step, int rows, bool up, const int (&move)[3]) : block(b) {
                const size_t plane = size_t(step) * rows;
                const int along = up ? -step : step;
                for (size_t z = 0; z < block.size() / plane; ++z) {
                    int16_t* const first = block.data() + z * plane + (up ? rows - 5 : 4) * long(step) + 4;
                    src.push_back(first);
                    const size_t to = z + size_t(move[2]);
                    if (to < block.size() / plane)
                        dst.push_back(block.data() + to * plane + (up ? rows - 5 : 4) * long(step) + 4 +
                                      move[1] * long(along) + move[0]);
                    else
                        dst.push_back(nullptr);
                }
            }
        };
        const int stepUp = up ? -step : step;
        Planes expected(before, step, rows, up, move);
        for (int z = 0; z < d; ++z)
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x)
                    expected.dst[size_t(z + 4)][long(y) * stepUp + x] = zenrref::divideFiltered(
                        zenrref::filteredSum(expected.src.data() + 4, stepUp, kernel.data(), s, x, y, z), divisor);
        const ZenrVolume size = {w, h, d}, kernelSize = {s.kw, s.kh, s.kd};
        Planes exported(before, step, rows, up, move);
        ASSERT_EQ(zenrFilter_16s_C1PV(exported.src.data() + 4, stepUp * 2, exported.dst.data() + 4, stepUp * 2, size,
                                      kernel.data(), kernelSize, {s.ax, s.ay, s.az}, divisor, nullptr),
                  zenStsNoErr);
        ASSERT_EQ(exported.block, expected.block) << i;
        for (const auto& table : zenrtest::filterTables()) {
            Planes got(before, step, rows, up, move);
            zenr::WideScope scope(table.level);
            zenr::ownFilter(table.kernels,
                            zenr::ownFilterJob(got.src.data() + 4, stepUp * 2, got.dst.data() + 4, stepUp * 2, size,
                                               kernel.data(), kernelSize, {s.ax, s.ay, s.az}, divisor));
            ASSERT_EQ(got.block, expected.block) << table.name << " " << i;
        }
    }
}

// Planes of source and destination that take turns in memory without touching keep the fast paths' results.
TEST(Filter, PlanesThatTakeTurnsInMemory) {
    std::vector<int16_t> block(size_t(2) * 6 * 10 * 40);
    for (int16_t& v : block) v = int16_t(uniform(-32768, 32767));
    const int16_t* src[6];
    int16_t* dst[4];
    for (int z = 0; z < 6; ++z) src[z] = block.data() + size_t(2 * z) * 400;
    for (int z = 0; z < 4; ++z) dst[z] = block.data() + size_t(2 * z + 1) * 400;
    const int32_t kernel[27] = {1, 2, 3, -4, 5, 6, 7, 8, 9, 1, -1, 1, 2, -2, 2, 3, 3, 3, 4, 4, 4, 5, 5, 5, 6, -6, 6};
    const FilterShape shape{3, 3, 3, 2, 2, 2};
    ASSERT_EQ(zenrFilter_16s_C1PV(src, 80, dst, 80, {38, 8, 4}, kernel, {3, 3, 3}, {2, 2, 2}, 9, nullptr), zenStsNoErr);
    for (int z = 0; z < 4; ++z)
        for (int y = 0; y < 8; ++y)
            for (int x = 0; x < 38; ++x)
                ASSERT_EQ(dst[z][y * 40 + x],
                          zenrref::divideFiltered(zenrref::filteredSum(src, 40, kernel, shape, x, y, z), 9));
}

// ---- All paths -----------------------------------------------------------------------------------------------------

// All 3^8 kernels of 2 x 2 x 2 from {-1, 0, 1}, and all of 4 x 1 x 1 and 3 x 2 x 1 from {-2, 0, 1}.
TEST(Filter, ExhaustiveSmallKernels) {
    const int stride = rounds(30) == 30 ? 1 : 37;
    const FilterShape shapes[] = {{2, 2, 2, 0, 1, 0}, {4, 1, 1, 2, 0, 0}, {3, 2, 1, 1, 1, 0}, {1, 3, 2, 0, 1, 1}};
    for (const FilterShape& s : shapes) {
        const int taps = s.kw * s.kh * s.kd;
        int count = 1;
        for (int t = 0; t < taps; ++t) count *= 3;
        Case c(19, 3, 2, s);
        c.fillSource(-32768, 32767);
        for (int code = 0; code < count; code += stride) {
            int rest = code;
            for (int t = 0; t < taps; ++t, rest /= 3) c.kernel[t] = rest % 3 == 2 ? -1 : rest % 3;
            c.check(kDivisors[code % kDivisorCount]);
            if (HasFatalFailure()) return;
        }
    }
}

// Ranges of weights around each limit of the planning, sparse and dense, with random and worst-case voxels.
TEST(Filter, RandomKernels) {
    const int ranges[] = {1, 3, 20, 300, 2000, 20000, 32768, 65535, 65536, 70000, 1 << 20, INT_MAX};
    for (int i = 0; i < rounds(1200); ++i) {
        const FilterShape s{uniform(1, 7), uniform(1, 5), uniform(1, 5), uniform(0, 3), uniform(-1, 2), uniform(0, 2)};
        Case c(uniform(1, 140), uniform(1, 11), uniform(1, 4), s, uniform(0, 3), i % 5 == 0,
               i & 1 ? Guarded<int16_t>::atEnd : Guarded<int16_t>::atStart);
        const int range = ranges[uniform(0, int(sizeof ranges / sizeof *ranges) - 1)];
        const int keep = uniform(0, 3);
        for (int32_t& k : c.kernel) k = keep && uniform(0, keep) ? 0 : uniform(-range, range);
        if (i % 7 == 0)
            for (int32_t& k : c.kernel) k = uniform(0, 1) ? range : -range;
        if (i % 4 == 1)
            c.fillExtremes();
        else
            c.fillSource(i % 4 == 0 ? -300 : -32768, i % 4 == 0 ? 300 : 32767);
        c.check(someDivisor());
        if (HasFatalFailure()) return;
    }
}

// Weights whose sizes sum to just below and above what 32 bits hold, and single weights at the limits of 16 bits.
TEST(Filter, LimitsOfTheSums) {
    const int32_t special[] = {32767,  32768, -32768,  -32769,  65534,   65535,    -65535,     65536,
                               -65536, 65537, INT_MAX, INT_MIN, 0x18000, -0x18000, 0x7FFF8000, int32_t(0x80008000)};
    for (int32_t weight : special)
        for (int kw : {1, 2, 3, 4}) {
            // Four wide: one weight among zeros.
            Case c(37, 4, 2, {kw, kw == 1 ? 1 : 2, 1 + kw / 4, 0, 0, 0});
            for (int32_t& k : c.kernel) k = kw == 4 && &k != &c.kernel[5] ? 0 : weight;
            c.fillExtremes();
            const std::vector<int64_t> sums = c.sums();
            for (int32_t divisor : {1, 65536, 100000, -3}) c.check(divisor, sums);
            if (HasFatalFailure()) return;
        }
    for (int total : {65534, 65535, 65536, 65537})
        for (int i = 0; i < rounds(20); ++i) {
            Case c(uniform(8, 70), 5, 2, {3, 3, 3, 1, 1, 1});
            int rest = total;
            for (size_t t = 0; t + 1 < c.kernel.size(); ++t) {
                const int k = uniform(0, rest / 3);
                c.kernel[t] = k;
                rest -= k;
            }
            c.kernel.back() = rest;
            if (i & 1)
                for (int32_t& k : c.kernel) k = uniform(0, 1) ? k : -k;
            c.fillExtremes();
            c.check(i & 2 ? 65536 : someDivisor());
            if (HasFatalFailure()) return;
        }
}

// Kernels that are products of vectors, or of a vector and a plane, and near misses of such.
TEST(Filter, SeparableKernels) {
    for (int i = 0; i < rounds(500); ++i) {
        const FilterShape s{uniform(1, 7), uniform(1, 7), uniform(1, 7), 1, 0, uniform(-1, 1)};
        Case c(uniform(8, 150), uniform(1, 20), uniform(1, 9), s, uniform(0, 3), i % 5 == 0);
        int32_t fx[7], fy[7], fz[7], plane[7][7];
        const int range = i % 3 ? 3 : 30;
        for (int t = 0; t < 7; ++t) {
            fx[t] = uniform(-range, range), fy[t] = uniform(-3, 4), fz[t] = uniform(-3, 3);
            for (int32_t& p : plane[t]) p = uniform(-9, 9);
        }
        const int kind = uniform(0, 4);
        const int scale = uniform(1, 3);
        for (int z = 0, t = 0; z < s.kd; ++z)
            for (int y = 0; y < s.kh; ++y)
                for (int x = 0; x < s.kw; ++x, ++t)
                    c.kernel[t] = kind == 0   ? scale * fx[x] * fy[y] * fz[z]
                                  : kind == 1 ? plane[y][x] * fz[z]
                                  : kind == 2 ? plane[z][x] * fy[y]
                                  : kind == 3 ? plane[z][y] * fx[x]
                                              : fx[x] * fy[y] * fz[z] * 3;
        if (kind == 4) c.kernel[size_t(uniform(0, int(c.kernel.size()) - 1))] += uniform(-1, 1);
        if (i & 1)
            c.fillExtremes();
        else
            c.fillSource(-32768, 32767);
        c.check(someDivisor());
        if (HasFatalFailure()) return;
    }
}

// A row whose common factor makes it cheaper, and a single weight of two parts.
TEST(Filter, RowsWithACommonFactor) {
    for (int32_t weight : {-63322, 65535, 40000}) {
        Case c(100, 3, 2, {6, 1, 1, 1, 0, 0}, 0, false);
        for (size_t t = 0; t < c.kernel.size(); ++t) c.kernel[t] = t == 4 ? weight : 0;
        c.fillSource(-32768, 32767);
        c.check(2558);
    }
}

// Larger than any block of the planning, in each class of weights; deep kernels.
TEST(Filter, LargeKernels) {
    const FilterShape shapes[] = {
        {33, 33, 3, 16, 16, 1}, {1, 1, 80, 0, 0, 40}, {5, 70, 1, 2, 30, 0}, {90, 2, 2, 4, 0, 0}, {3, 3, 40, 1, 1, 20}};
    for (const FilterShape& s : shapes)
        for (int range : {1, 500, 30000, INT_MAX}) {
            Case c(uniform(8, 40), 2, 2, s);
            for (int32_t& k : c.kernel) k = uniform(-range, range);
            c.fillSource(-32768, 32767);
            const std::vector<int64_t> sums = c.sums();
            for (int32_t divisor : {1, 4096, 100000}) c.check(divisor, sums);
            if (HasFatalFailure()) return;
        }
    // One separable kernel deeper than a ring of planes may be.
    Case c(33, 3, 3, {3, 3, 150, 1, 1, 70});
    for (int t = 0; t < 9 * 150; ++t) c.kernel[size_t(t)] = 1 + (t / 9) % 2;
    c.fillSource(-32768, 32767);
    c.check(2025);
}

TEST(Filter, EveryWidth) {
    for (int width = 1; width <= (rounds(30) == 30 ? 300 : 40); ++width) {
        Case c(width, 5, 2, {3, 3, 3, 1, 1, 1});
        for (int32_t& k : c.kernel) k = uniform(-50, 50);
        c.fillSource(-32768, 32767);
        const std::vector<int64_t> sums = c.sums();
        c.check(64, sums);
        c.check(50, sums);
        for (int32_t& k : c.kernel) k = 2;
        c.check(54);
        for (int32_t& k : c.kernel) k = uniform(INT_MIN, INT_MAX);
        c.check(1 << 25);
        if (HasFatalFailure()) return;
    }
}

// Quotients at and beside every kind of tie, of both signs and at both ends of the range.
TEST(Filter, TiesOfEveryDivisor) {
    for (int i = 0; i < rounds(600); ++i) {
        const int divisor = i < kDivisorCount ? kDivisors[i] : uniform(1, 32767) * (uniform(0, 1) ? 1 : -1);
        Case c(64, 1, 1, {2, 1, 1, 0, 0, 0});
        // Sums 2 * a + b of neighbours cover k * divisor / 2 and the numbers beside it.
        c.kernel[0] = 1, c.kernel[1] = uniform(0, 1) ? 1 : 2;
        const int64_t half = llabs(int64_t(divisor)) / 2;
        int16_t* s = c.srcBlocks[0]->data();
        for (size_t j = 0; j < c.srcBlocks[0]->size(); ++j) {
            const int64_t most = half ? 32767 / half : 0;
            const int64_t v = half * uniform(-int(most), int(most)) + uniform(-1, 1);
            s[j] = int16_t(j & 1 ? uniform(-1, 1) : v < -32768 ? -32768 : v > 32767 ? 32767 : v);
        }
        c.check(divisor);
        // Large weights: the sums of the widened path.
        for (int32_t& k : c.kernel) k = uniform(0, 1) ? 65535 : 32768;
        c.check(divisor);
        c.kernel[0] = int32_t(half > 0 ? half : 1), c.kernel[1] = 1 << 30;
        c.check(divisor);
        if (HasFatalFailure()) return;
    }
}

} // namespace
