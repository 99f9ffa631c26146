// Volume resize against its definition: all types, modes, layouts, levels; boxes, steps, threads, work memory, checks.
#include <sys/mman.h>

#include <algorithm>
#include <functional>

#include "reference/volume_resize.h"
#include "support.h"
#include "volume/prresset.h"
#include "volume/volumes.h"
#include "zencore.h"
#include "zenr.h"

using namespace zenr;
using namespace zenrtest;

namespace {

struct Arguments {
    ZenrBox srcRoi, dstRoi;
    double factor[3], shift[3];
    int mode;
};

template <class T> ZenStatus resizeV(TestVolume<T>& src, TestVolume<T>& dst, const Arguments& a, uint8_t* buffer);
template <class T> ZenStatus resizePV(TestVolume<T>& src, TestVolume<T>& dst, const Arguments& a, uint8_t* buffer);
#define FORWARD(T, suffix)                                                                                             \
    template <> ZenStatus resizeV(TestVolume<T>& src, TestVolume<T>& dst, const Arguments& a, uint8_t* buffer) {       \
        return zenrResize_##suffix##_C1V(src.base(), src.size(), src.step(), src.planeStep(), a.srcRoi, dst.base(),    \
                                         dst.step(), dst.planeStep(), a.dstRoi, a.factor[0], a.factor[1], a.factor[2], \
                                         a.shift[0], a.shift[1], a.shift[2], a.mode, buffer);                          \
    }                                                                                                                  \
    template <> ZenStatus resizePV(TestVolume<T>& src, TestVolume<T>& dst, const Arguments& a, uint8_t* buffer) {      \
        return zenrResize_##suffix##_C1PV(src.planes(), src.size(), src.step(), a.srcRoi, dst.planes(), dst.step(),    \
                                          a.dstRoi, a.factor[0], a.factor[1], a.factor[2], a.shift[0], a.shift[1],     \
                                          a.shift[2], a.mode, buffer);                                                 \
    }
FORWARD(uint8_t, 8u)
FORWARD(uint16_t, 16u)
FORWARD(float, 32f)

ResizeGeometry geometryOf(const reference::ResizeAxis axis[3]) {
    ResizeGeometry g;
    for (int k = 0; k < 3; ++k) {
        g.inverse[k] = 1 / axis[k].factor;
        g.offset[k] = -axis[k].shift / axis[k].factor;
        g.first[k] = axis[k].first();
        g.end[k] = axis[k].end();
        g.count[k] = g.end[k] - g.first[k];
    }
    return g;
}

// One call, in every way: exported, then every level; each against the definition.
template <class T>
void checkCase(TestVolume<T>& src, TestVolume<T>& dst, const Arguments& a, bool block, const std::vector<int>& teams,
               int sideOfBuffer) {
    const ZenrVolume v = src.size();
    const reference::ResizeAxis axis[3] = {
        {a.factor[0], a.shift[0], a.srcRoi.x, a.srcRoi.width, v.width, a.dstRoi.x, a.dstRoi.width},
        {a.factor[1], a.shift[1], a.srcRoi.y, a.srcRoi.height, v.height, a.dstRoi.y, a.dstRoi.height},
        {a.factor[2], a.shift[2], a.srcRoi.z, a.srcRoi.depth, v.depth, a.dstRoi.z, a.dstRoi.depth}};
    bool empty = false;
    for (int k = 0; k < 3; ++k) empty = empty || axis[k].first() >= axis[k].end();

    std::vector<T> before(dst.memory().size());
    for (size_t i = 0; i < before.size(); ++i) before[i] = canary<T>(i);
    std::vector<T> expected = before;
    if (!empty) {
        std::copy(before.begin(), before.end(), dst.memory().data());
        const auto at = [&](int x, int y, int z) { return src.at(x, y, z); };
        for (int z = axis[2].first(); z < axis[2].end(); ++z)
            for (int y = axis[1].first(); y < axis[1].end(); ++y)
                for (int x = axis[0].first(); x < axis[0].end(); ++x) {
                    const int d[3] = {x, y, z};
                    expected[&dst.at(x, y, z) - dst.memory().data()] = reference::resizedVoxel<T>(axis, a.mode, d, at);
                }
    }
    // The buffer has the size for one thread, whatever the team.
    const size_t bytes = size_t(reference::resizeBufSize(a.dstRoi.width, a.dstRoi.height, a.dstRoi.depth, a.mode));
    int reported = 0;
    {
        Threads one(1);
        ASSERT_EQ(zenrResizeGetBufSize(a.srcRoi, a.dstRoi, 1, a.mode, &reported), zenStsNoErr);
        ASSERT_EQ(size_t(reported), bytes);
    }
    Guarded<uint8_t> buffer(bytes, sideOfBuffer ? Guarded<uint8_t>::atEnd : Guarded<uint8_t>::atStart);
    int threads = 1;

    const auto compare = [&](const char* what) {
        for (size_t i = 0; i < expected.size(); ++i)
            if (!same(dst.memory()[i], expected[i]))
                FAIL() << what << " mode " << a.mode << " threads " << threads << " element " << i << " of "
                       << expected.size() << " is " << +dst.memory()[i] << ", expected " << +expected[i] << "; source "
                       << v.width << "x" << v.height << "x" << v.depth << " factor " << a.factor[0] << " "
                       << a.factor[1] << " " << a.factor[2] << " shift " << a.shift[0] << " " << a.shift[1] << " "
                       << a.shift[2];
    };
    for (int team : teams) {
        threads = team;
        Threads scope(team);
        std::copy(before.begin(), before.end(), dst.memory().data());
        memset(buffer.data(), 0xA5, bytes);
        const ZenStatus status = block ? resizeV(src, dst, a, buffer.data()) : resizePV(src, dst, a, buffer.data());
        ASSERT_EQ(status, empty ? zenStsNoOperation : zenStsNoErr);
        compare("exported");
        if (empty) continue;

        const ResizeGeometry g = geometryOf(axis);
        const ptrdiff_t size = sizeof(T);
        for (Level level : zenrtest::levels()) {
            std::copy(before.begin(), before.end(), dst.memory().data());
            memset(buffer.data(), 0xFF, bytes);
            if (block)
                resizeVolume<T>(level, BlockVolume<const T>{src.base(), src.step() / size, src.planeStep() / size}, v,
                                BlockVolume<T>{dst.base(), dst.step() / size, dst.planeStep() / size}, g, a.mode,
                                buffer.data(), bytes);
            else
                resizeVolume<T>(level, PlaneVolume<const T>{src.planes(), src.step() / size}, v,
                                PlaneVolume<T>{dst.planes(), dst.step() / size}, g, a.mode, buffer.data(), bytes);
            compare(zenrtest::levelName(level));
        }
    }
}

template <class T> class Resize : public ::testing::Test {};
using Voxels = ::testing::Types<uint8_t, uint16_t, float>;
TYPED_TEST_SUITE(Resize, Voxels);

// Random calls over small volumes: thin ones, boxes inside and partly outside, paddings, directions.
TYPED_TEST(Resize, RandomCallsMatchTheDefinition) {
    using T = TypeParam;
    zenrtest::Floats r(11 + sizeof(T));
    const double factors[] = {1, 1.5, 2.0 / 3, 2, 0.5, 3, 0.3, 1.0 / 3, 1.37, 0.91, 7.25};
    const auto pick = [&](int n) { return int(r.bits() % uint32_t(n)); };
    const int count = zenrtest::rounds(420);
    for (int round = 0; round < count; ++round) {
        const bool thin = round % 3 == 0;
        const ZenrVolume v = {1 + pick(thin ? 5 : 40), 1 + pick(thin ? 5 : 12), 1 + pick(thin ? 5 : 12)};
        Arguments a;
        a.mode = kModes[round % 6];
        for (int k = 0; k < 3; ++k) {
            a.factor[k] = factors[pick(11)];
            a.shift[k] = pick(3) ? 0 : (pick(17) - 8) * 0.37;
        }
        ZenrVolume w = {1 + int(v.width * a.factor[0]) + pick(4), 1 + int(v.height * a.factor[1]) + pick(4),
                        1 + int(v.depth * a.factor[2]) + pick(4)};
        w.height = std::min(w.height, 24);
        w.depth = std::min(w.depth, 24);
        a.srcRoi = {0, 0, 0, v.width + pick(3), v.height + pick(3), v.depth};
        a.dstRoi = {0, 0, 0, w.width, w.height, w.depth};
        if (pick(2)) {
            a.srcRoi = {pick(v.width),         pick(v.height),     pick(v.depth),
                        1 + pick(v.width + 2), 1 + pick(v.height), 1 + pick(v.depth)};
            a.dstRoi = {pick(w.width), pick(w.height), pick(w.depth), 1, 1, 1};
            a.dstRoi.width = 1 + pick(w.width - a.dstRoi.x);
            a.dstRoi.height = 1 + pick(w.height - a.dstRoi.y);
            a.dstRoi.depth = 1 + pick(w.depth - a.dstRoi.z);
        }
        const auto side = pick(2) ? Guarded<T>::atEnd : Guarded<T>::atStart;
        const bool block = pick(2);
        TestVolume<T> src(v, pick(4), pick(3) == 0, !block && pick(2), side);
        TestVolume<T> dst(w, pick(4), pick(3) == 0, !block && pick(2), side);
        const int flavour = pick(4);
        for (size_t i = 0; i < src.memory().size(); ++i) src.memory()[i] = randomVoxel<T>(r, flavour);
        checkCase(src, dst, a, block, {1 + pick(5)}, pick(2));
        if (this->HasFatalFailure()) FAIL() << "round " << round;
    }
}

// Wide enough for whole vectors, for blocks of columns, and for the split over threads.
TYPED_TEST(Resize, WideRowsAndTeams) {
    using T = TypeParam;
    zenrtest::Floats r(5);
    struct Shape {
        ZenrVolume v;
        double factor[3];
    };
    const Shape shapes[] = {{{130, 12, 11}, {1.5, 1.5, 1.5}},
                            {{301, 25, 26}, {2.0 / 3, 2.0 / 3, 2.0 / 3}},
                            {{1100, 3, 2}, {1.01, 1, 1}},
                            {{700, 2, 2}, {3.1, 1.5, 1}},
                            {{197, 20, 17}, {0.41, 0.9, 1}}};
    const bool brief = zenrtest::rounds(30) == 1;
    for (const Shape& s : shapes) {
        for (int mode : kModes) {
            if (brief && mode > 4) continue;
            Arguments a = {
                {0, 0, 0, s.v.width, s.v.height, s.v.depth}, {}, {s.factor[0], s.factor[1], s.factor[2]}, {}, mode};
            const ZenrVolume w = {int(s.v.width * s.factor[0] + 0.5), int(s.v.height * s.factor[1] + 0.5),
                                  int(s.v.depth * s.factor[2] + 0.5)};
            a.dstRoi = {0, 0, 0, w.width, w.height, w.depth};
            TestVolume<T> src(s.v, 1, false, false, Guarded<T>::atEnd);
            TestVolume<T> dst(w, 3, false, false, Guarded<T>::atEnd);
            for (size_t i = 0; i < src.memory().size(); ++i) src.memory()[i] = randomVoxel<T>(r, 2);
            const std::vector<int> teams = brief ? std::vector<int>{3} : std::vector<int>{1, 2, 7, 16};
            checkCase(src, dst, a, mode % 3, teams, mode & 2);
            if (this->HasFatalFailure()) FAIL();
        }
    }
}

// Columns that share windows of voxels, by two or more to a window or by a whole register of them, at both ends of a row;
// 16-bit voxels of 15 bits and with one of 16; fractions next to 1, whose fixed-point weight is 1.
TYPED_TEST(Resize, ColumnsInGroups) {
    using T = TypeParam;
    zenrtest::Floats r(29);
    const bool brief = zenrtest::rounds(30) == 1;
    for (int width : {8, 17, 33, 64, 70, 128, 130})
        for (double factor : {0.37, 0.5, 2.0 / 3, 0.97, 1.0, 1.5, 2.3})
            for (double shift : {0.0, 1e-6, -1.3}) {
                const ZenrVolume v = {width, 3, 2}, w = {int(width * factor) + 1, 3, 2};
                for (int mode : {1, 2}) {
                    if (brief && (width % 3 == 0 || shift < 0)) continue;
                    const Arguments a = {
                        {0, 0, 0, width, 3, 2}, {0, 0, 0, w.width, 3, 2}, {factor, 1, 1}, {shift, shift, shift}, mode};
                    const auto side = shift == 0 ? Guarded<T>::atEnd : Guarded<T>::atStart;
                    TestVolume<T> src(v, 0, false, false, side);
                    TestVolume<T> dst(w, 0, false, false, side);
                    for (size_t i = 0; i < src.memory().size(); ++i) {
                        const float any = randomVoxel<float>(r, 2);
                        src.memory()[i] = sizeof(T) == 4 ? T(any) : T(r.bits() & 0x7FFF);
                    }
                    if (factor < 1) src.memory()[size_t(width + width / 2)] = T(40000);
                    checkCase(src, dst, a, true, {1}, shift > 0);
                    if (this->HasFatalFailure()) FAIL();
                }
            }
}

// Sources that caches do not hold, whose rows are asked for ahead of time; upwards, too.
TYPED_TEST(Resize, NearestReductionsOfLargeSources) {
    using T = TypeParam;
    if (zenrtest::rounds(30) == 1) GTEST_SKIP() << "the same without large sources is tested elsewhere";
    zenrtest::Floats r(31);
    const ZenrVolume v = {1100, 110, 110}, w = {110, 22, 22};
    for (bool upwards : {false, true}) {
        TestVolume<T> src(v, 1, upwards, false, upwards ? Guarded<T>::atStart : Guarded<T>::atEnd);
        TestVolume<T> dst(w, 3, !upwards, false, Guarded<T>::atEnd);
        for (size_t i = 0; i < src.memory().size(); ++i) src.memory()[i] = randomVoxel<T>(r, 2);
        const Arguments a = {{0, 0, 0, v.width, v.height, v.depth},
                             {0, 0, 0, w.width, w.height, w.depth},
                             {0.1, 0.2, 0.2},
                             {},
                             kNearest};
        checkCase(src, dst, a, true, {1, 2}, upwards);
        if (this->HasFatalFailure()) FAIL();
    }
}

// Sources made of one value, or of rows whose sums lie half-way between two floats, reach the tests of doubt.
TEST(ResizeRounding, HalfWaySums) {
    zenrtest::Floats r(77);
    for (int round = 0; round < zenrtest::rounds(24); ++round) {
        const ZenrVolume v = {66, 6, 6};
        TestVolume<float> src(v, 0, false, false, Guarded<float>::atEnd);
        const int kind = round % 3;
        for (size_t i = 0; i < src.memory().size(); ++i) {
            const float odd = float(16777215 - int(r.bits() % 4) * 2); // sums of two and three need one bit more
            src.memory()[i] = kind == 0 ? odd : kind == 1 ? (i % 2 ? odd : 1.f) : (r.bits() % 5 ? -0.f : 0.f);
        }
        Arguments a = {{0, 0, 0, 66, 6, 6}, {0, 0, 0, 132, 12, 12}, {2, 2, 2}, {}, kModes[round % 6]};
        if (round % 2) a.shift[0] = a.shift[1] = a.shift[2] = 0.5; // fractions 0 and 1/2
        TestVolume<float> dst({132, 12, 12}, 0, false, false, Guarded<float>::atEnd);
        checkCase(src, dst, a, true, {1}, 0);
        if (::testing::Test::HasFatalFailure()) FAIL() << "round " << round;
    }
}

// Floats of one sign and of both, close together and far apart, next to the smallest ones, with zeros of either sign:
// each selects other tests of doubt.
TEST(ResizeRounding, RangesOfFloats) {
    zenrtest::Floats r(78);
    const int lowest[] = {-3, -40, -95, -140, -149};
    const double factors[] = {1.5, 2.0 / 3, 1.37, 3, 0.5};
    for (int round = 0; round < zenrtest::rounds(60); ++round) {
        const ZenrVolume v = {70, 5, 5};
        TestVolume<float> src(v, 0, false, false, Guarded<float>::atEnd);
        const int kind = round % 4, low = lowest[round / 4 % 5], spread = round % 3 == 0 ? 3 : 30;
        for (size_t i = 0; i < src.memory().size(); ++i) {
            const float size = ldexpf(1 + float(r.bits() % 8388608) / 8388608, low + int(r.bits() % spread));
            const uint32_t choice = r.bits() % 8;
            src.memory()[i] = (kind & 1) && choice < 3 ? 0.f : (kind & 2) && choice > 4 ? -size : size;
            if ((kind & 2) && choice == 0) src.memory()[i] = -0.f;
        }
        const double f = factors[round % 5];
        const ZenrVolume w = {int(70 * f), int(5 * f), int(5 * f)};
        const Arguments a = {{0, 0, 0, 70, 5, 5},
                             {0, 0, 0, w.width, w.height, w.depth},
                             {f, f, f},
                             {},
                             round % 6 < 4 ? 2 : kModes[round % 6]};
        TestVolume<float> dst(w, 0, false, false, Guarded<float>::atEnd);
        checkCase(src, dst, a, true, {1}, 0);
        if (::testing::Test::HasFatalFailure()) FAIL() << "round " << round;
    }
}

// Smooth slices, then white noise, then smooth ones again: quick passes give up in the midst of a volume.
TEST(ResizeRounding, NoiseAmongSmoothSlices) {
    zenrtest::Floats r(91);
    for (int round = 0; round < zenrtest::rounds(12); ++round) {
        const ZenrVolume v = {70, 9, 12};
        TestVolume<float> src(v, 0, false, false, Guarded<float>::atEnd);
        for (size_t i = 0; i < src.memory().size(); ++i) {
            const int z = int(i * 12 / src.memory().size());
            const float noise = float(r.bits()) * 0x1p-32f;
            src.memory()[i] = z / 4 == round % 3 || z / 4 == 1 ? noise : 1 + noise / 8;
        }
        const double f = round % 2 ? 2.0 / 3 : 1.5;
        const ZenrVolume w = {int(70 * f), int(9 * f), int(12 * f)};
        const Arguments a = {{0, 0, 0, 70, 9, 12}, {0, 0, 0, w.width, w.height, w.depth}, {f, f, f}, {}, 2};
        TestVolume<float> dst(w, 0, false, false, Guarded<float>::atEnd);
        checkCase(src, dst, a, true, {1}, 0);
        if (::testing::Test::HasFatalFailure()) FAIL() << "round " << round;
    }
}

// Passes of floats where rounding is at its most delicate: few bits far apart, whose sums fall next to half-way
// points and powers of two; specials beside anything; denormals; neighbours; fractions of all sizes, short ones too.
TEST(ResizeRounding, FloatsOfAllKinds) {
    zenrtest::Floats r(87);
    const double factors[] = {1, 1.5, 2.0 / 3, 2, 0.5, 3, 0.3, 1.37, 0.91, 0.06};
    const double shifts[] = {0, 0.25, 0.001, 1e-5, -1e-6, 1e-9, 0.0009765625, 0.37, -1e-13};
    const auto voxel = [&](int kind) {
        const uint32_t bits = r.bits();
        const float few = ldexpf(1 + float(bits % 8) / 8, -int(bits / 8 % 30));
        switch (kind) {
        case 0:
            return bits / 1024 % 2 ? -few : few;
        case 1:
            return r.any();
        case 2:
            return ldexpf(float(int(bits % 16384) - 8192), -149);
        case 3:
            return 1 + float(bits % 9) * 0x1p-23f;
        case 4:
            return ldexpf(1 + float(bits % 8388608) / 8388608, -int(r.bits() % 70));
        default:
            return bits % 3 ? r.moderate() : bits % 2 ? -0.f : 3e38f;
        }
    };
    for (int round = 0; round < zenrtest::rounds(360); ++round) {
        const ZenrVolume v = {1 + int(r.bits() % 90), 1 + int(r.bits() % 5), 1 + int(r.bits() % 5)};
        const int kinds[2] = {round % 6, int(r.bits() % 6)};
        const uint32_t mix = 1 + r.bits() % 30;
        TestVolume<float> src(v, 0, false, false, Guarded<float>::atEnd);
        for (size_t i = 0; i < src.memory().size(); ++i) src.memory()[i] = voxel(kinds[r.bits() % mix ? 0 : 1]);
        Arguments a = {{0, 0, 0, v.width, v.height, v.depth},
                       {0, 0, 0, 0, 0, 0},
                       {},
                       {},
                       round / 6 % 2 ? 2 : kModes[round / 12 % 6]};
        const int size[3] = {v.width, v.height, v.depth};
        int made[3];
        for (int k = 0; k < 3; ++k) {
            a.factor[k] = factors[r.bits() % 10];
            a.shift[k] = shifts[r.bits() % 9];
            const int most = int(size[k] * a.factor[k]) + 2;
            made[k] = k == 0 || most < 9 ? most : 9;
        }
        const ZenrVolume w = {made[0], made[1], made[2]};
        a.dstRoi = {0, 0, 0, w.width, w.height, w.depth};
        TestVolume<float> dst(w, 0, false, false, Guarded<float>::atEnd);
        checkCase(src, dst, a, true, {1}, round & 1);
        if (::testing::Test::HasFatalFailure()) FAIL() << "round " << round;
    }
}

// 8-bit volumes in which few, many or nearly all cubic sums lie half-way between two voxels.
TEST(ResizeRounding, CubicSumsInDoubt) {
    zenrtest::Floats r(79);
    for (int round = 0; round < zenrtest::rounds(36); ++round) {
        const ZenrVolume v = {67, 13, 9};
        TestVolume<uint8_t> src(v, 0, false, false, Guarded<uint8_t>::atEnd);
        for (int z = 0; z < v.depth; ++z)
            for (int y = 0; y < v.height; ++y)
                for (int x = 0; x < v.width; ++x)
                    src.at(x, y, z) = round % 3 == 0   ? uint8_t(3 * x + z)
                                      : round % 3 == 1 ? uint8_t(r.bits() % 2 * 255)
                                                       : uint8_t(r.bits() % 9 ? 0 : 1 + z * 20);
        const double f = round % 2 ? 1.5 : 2;
        const ZenrVolume w = {int(67 * f), int(13 * f), int(9 * f)};
        Arguments a = {
            {0, 0, 0, 67, 13, 9}, {0, 0, 0, w.width, w.height, w.depth}, {f, f, f}, {}, kModes[2 + round / 3 % 4]};
        if (round % 4 == 0) a.shift[0] = a.shift[1] = a.shift[2] = 0.5; // fractions 0 and 1/2
        TestVolume<uint8_t> dst(w, 0, false, false, Guarded<uint8_t>::atEnd);
        checkCase(src, dst, a, true, {1}, 0);
        if (::testing::Test::HasFatalFailure()) FAIL() << "round " << round;
    }
}

// 16-bit volumes of all ranges: noise, ramps with many half-way sums, and few voxels that are not 0.
TEST(ResizeRounding, CubicSumsOfAllRanges) {
    zenrtest::Floats r(80);
    for (int round = 0; round < zenrtest::rounds(64); ++round) {
        const ZenrVolume v = {67, 9, 8};
        TestVolume<uint16_t> src(v, 0, false, false, Guarded<uint16_t>::atEnd);
        const int most = (1 << (1 + round % 16)) - 1;
        for (int z = 0; z < v.depth; ++z)
            for (int y = 0; y < v.height; ++y)
                for (int x = 0; x < v.width; ++x)
                    src.at(x, y, z) = round % 3 == 0   ? uint16_t(r.bits() & unsigned(most))
                                      : round % 3 == 1 ? uint16_t((3 * x + 2 * y + z) & most)
                                                       : uint16_t(r.bits() % 9 ? 0 : most);
        const double factors[] = {1.5, 2, 2.0 / 3, 1.23, 0.3};
        const double f = factors[round % 5];
        const ZenrVolume w = {int(67 * f), int(9 * f), int(8 * f)};
        const Arguments a = {
            {0, 0, 0, 67, 9, 8}, {0, 0, 0, w.width, w.height, w.depth}, {f, f, f}, {}, kModes[2 + round / 3 % 4]};
        TestVolume<uint16_t> dst(w, 0, false, false, Guarded<uint16_t>::atEnd);
        checkCase(src, dst, a, true, {1}, 0);
        if (::testing::Test::HasFatalFailure()) FAIL() << "round " << round;
    }
}

// Something in the midst of zeros, or zeros of either sign: sums of nothing but zeros are not formed, those next to them
// are, whatever stands there.
TYPED_TEST(Resize, ZerosAround) {
    using T = TypeParam;
    zenrtest::Floats r(81);
    const double factors[] = {1.5, 2.0 / 3, 1.37, 2, 0.3};
    for (int round = 0; round < zenrtest::rounds(40); ++round) {
        const ZenrVolume v = {150, 5, 5};
        TestVolume<T> src(v, 0, false, false, Guarded<T>::atEnd);
        const int kind = round % 5;
        for (int z = 0; z < v.depth; ++z)
            for (int y = 0; y < v.height; ++y) {
                const int from = r.bits() % 3 ? int(r.bits() % 150) : 0;
                const int to = r.bits() % 3 ? from + int(r.bits() % 60) : 150;
                for (int x = 0; x < v.width; ++x) {
                    const bool inside = r.bits() % 4 != 0 && x >= from && x < to && (y + z + round) % 4 != 0;
                    const uint32_t bits = r.bits();
                    T value = inside ? T(bits >> 8) : T(0);
                    if constexpr (sizeof(T) == 4) {
                        if (kind == 0 && inside && bits % 16 == 0) value = bits & 16 ? INFINITY : NAN;
                        if (kind == 1) value = inside ? ldexpf(float(bits >> 8), -150) : 0.f;
                        if (kind == 2) value = inside ? (bits & 16 ? -value : value * 1e-9f) : bits % 64 ? 0.f : -0.f;
                    }
                    src.at(x, y, z) = value;
                }
            }
        const double f = factors[round % 5 == 0 ? round / 5 % 5 : round % 5];
        const ZenrVolume w = {int(150 * f), int(5 * f), int(5 * f)};
        Arguments a = {
            {0, 0, 0, 150, 5, 5}, {0, 0, 0, w.width, w.height, w.depth}, {f, f, f}, {}, kModes[1 + round / 2 % 5]};
        if (round % 3 == 0) a.shift[0] = 0.4 * int(r.bits() % 20) - 4;
        TestVolume<T> dst(w, 0, false, false, Guarded<T>::atEnd);
        checkCase(src, dst, a, true, {1}, 0);
        if (this->HasFatalFailure()) FAIL() << "round " << round;
    }
}

// What the error bound of those sums supposes.
TEST(ResizeWeights, SizesAddUpToLittle) {
    for (int mode : {4, 5, 6, 7})
        for (int i = 0; i <= 4096; ++i) {
            const float f = i == 4096 ? 0.99999994f : float(i) / 4096;
            float w[4], sum = 0;
            ownpi_CubicWeights(mode, &f, 1, w);
            for (float x : w) {
                EXPECT_LE(fabsf(x), 1);
                sum += fabsf(x);
            }
            EXPECT_LE(sum, kMostWeights);
        }
}

TEST(ResizeWeights, FormulasAndIntegerPositions) {
    float w[4];
    for (int mode : {4, 5, 6, 7}) {
        for (int i = 0; i <= 1024; ++i) {
            const float f = i == 1024 ? 0.99999994f : float(i) / 1024 + (i % 7) * 1e-5f;
            ownpi_CubicWeights(mode, &f, 1, w);
            for (int k = 0; k < 4; ++k) ASSERT_TRUE(zenrtest::sameFloat(w[k], reference::cubicWeight(mode, f, k)));
        }
    }
    const float zero = 0;
    ownpi_CubicWeights(6, &zero, 1, w);
    EXPECT_EQ(w[0], 0);
    EXPECT_EQ(w[1], 1);
    EXPECT_EQ(w[2], 0);
    EXPECT_EQ(w[3], 0);
    ownpi_CubicWeights(4, &zero, 1, w);
    EXPECT_NEAR(w[0], 0, 1e-16);
    EXPECT_EQ(w[1], 1);
    EXPECT_NEAR(w[2], 0, 1e-16);
    EXPECT_EQ(w[3], 0);
    ownpi_CubicWeights(5, &zero, 1, w);
    EXPECT_FLOAT_EQ(w[0], 1.f / 6);
    EXPECT_FLOAT_EQ(w[1], 2.f / 3);
    EXPECT_FLOAT_EQ(w[2], 1.f / 6);
    ownpi_CubicWeights(7, &zero, 1, w);
    EXPECT_FLOAT_EQ(w[0], 1.f / 12);
    EXPECT_FLOAT_EQ(w[1], 5.f / 6);
    EXPECT_FLOAT_EQ(w[2], 1.f / 12);
    // Several fractions at once, and beyond the kernels' support.
    const float two[2] = {0.25f, 0.5f};
    float eight[8];
    ownpi_CubicWeights(6, two, 2, eight);
    EXPECT_EQ(eight[4], eight[7]);
    EXPECT_EQ(eight[5], eight[6]);
    EXPECT_EQ(ownpi_Cubic0Kernel(2.0L), 0);
    EXPECT_EQ(ownpi_Cubic3Kernel(-2.5L), 0);
    EXPECT_EQ(ownpi_Cubic1Kernel((long double)NAN), 0);
}

// The last pass for single sums.
TEST(ResizeRounding, CubicIntegersRoundAndSaturate) {
    const float weights[4] = {1, 0, 0, 0};
    for (Level level : zenrtest::levels()) {
        const auto store = [&](float sum) {
            const float zero = 0;
            const float* const planes[4] = {&sum, &zero, &zero, &zero};
            uint8_t out = 77;
            cubicKernels(level).dep8(planes, weights, &out, 1);
            return int(out);
        };
        EXPECT_EQ(store(-3.2f), 0);
        EXPECT_EQ(store(255.6f), 255);
        EXPECT_EQ(store(17.4999f), 17);
        EXPECT_EQ(store(17.49999995f), 18); // is 17.5 as a float
        EXPECT_EQ(store(0.49999997f), 1);   // 0.5 - 3e-8
        EXPECT_EQ(store(1e9f), 255);
        uint16_t wide = 0;
        const float high = 65535.7f, zero = 0;
        const float* const planes[4] = {&high, &zero, &zero, &zero};
        cubicKernels(level).dep16(planes, weights, &wide, 1);
        EXPECT_EQ(wide, 65535);
    }
}

// Each fixed-point stage by itself, over all weights and the extremes of its operands.
TEST(ResizeRounding, FixedPointStages) {
    zenrtest::Floats r(3);
    const int n = 131;
    std::vector<uint16_t> a(n), b(n), out16(n);
    std::vector<uint8_t> out8(n);
    for (Level level : zenrtest::levels()) {
        const AllLinearKernels& k = linearKernels(level);
        for (int w = 0; w <= 16384; w += zenrtest::rounds(30) == 1 ? 2048 : w < 16 || w > 16368 ? 1 : 13) {
            for (int limit : {16320, 32767, 65535}) {
                for (int i = 0; i < n; ++i) {
                    a[i] = uint16_t(i % 3 ? r.bits() % (limit + 1) : r.bits() % 2 * limit);
                    b[i] = uint16_t(i % 5 ? r.bits() % (limit + 1) : r.bits() % 2 * limit);
                }
                const auto sum = [&](int i) { return (long long)b[i] * w + (long long)a[i] * (16384 - w); };
                if (limit == 16320) {
                    k.u8.col(a.data(), b.data(), uint16_t(w), false, out16.data(), n);
                    for (int i = 0; i < n; ++i)
                        ASSERT_EQ(out16[i], (sum(i) + 8192) >> 14) << w << ' ' << a[i] << ' ' << b[i];
                    k.u8.dep(a.data(), b.data(), uint16_t(w), false, out8.data(), n);
                    for (int i = 0; i < n; ++i)
                        ASSERT_EQ(out8[i], (sum(i) + 524288) >> 20) << w << ' ' << a[i] << ' ' << b[i];
                    k.plane8(a.data(), b.data(), uint16_t(w), out8.data(), n);
                    for (int i = 0; i < n; ++i) ASSERT_EQ(out8[i], (sum(i) + 524288) >> 20);
                } else {
                    k.u16.col(a.data(), b.data(), uint16_t(w), limit > 32767, out16.data(), n);
                    for (int i = 0; i < n; ++i)
                        ASSERT_EQ(out16[i], (sum(i) + 8192) >> 14) << w << ' ' << a[i] << ' ' << b[i];
                    k.u16.dep(a.data(), b.data(), uint16_t(w), limit > 32767, out16.data(), n);
                    for (int i = 0; i < n; ++i) ASSERT_EQ(out16[i], (sum(i) + 8192) >> 14);
                }
            }
        }
    }
    EXPECT_EQ(weightQ14(0), 0);
    EXPECT_EQ(weightQ14(1), 16384);
    EXPECT_EQ(weightQ14(0.5f / 16384), 1);
    EXPECT_EQ(weightQ14(0.49999997f / 16384), 0);
}

// Columns that share their few taps: zeros at a row's first voxel, where nothing may be read before it.
TYPED_TEST(Resize, RowsShorterThanARegister) {
    using T = TypeParam;
    for (int width = 1; width < 12; ++width)
        for (int factor : {3, 20})
            for (int mode : kModes) {
                const ZenrVolume v = {width, 2, 2}, w = {width * factor, 2, 2};
                TestVolume<T> src(v, 0, false, false, Guarded<T>::atStart);
                TestVolume<T> dst(w, 0, false, false, Guarded<T>::atStart);
                for (size_t i = 0; i < src.memory().size(); ++i)
                    src.memory()[i] = int(i) % width == width - 1 ? T(1.3) : T(0);
                const double along = factor;
                const Arguments a = {{0, 0, 0, width, 2, 2}, {0, 0, 0, w.width, 2, 2}, {along, 1, 1}, {}, mode};
                checkCase(src, dst, a, true, {1}, 0);
                if (this->HasFatalFailure()) FAIL();
            }
}

TEST(ResizeBufSize, FormulaTimesThreads) {
    zenrtest::Floats r(8);
    for (int round = 0; round < 300; ++round) {
        const int limit = round % 2 ? 100 : 700;
        const ZenrBox box = {3, 2, 1, 1 + int(r.bits() % limit), 1 + int(r.bits() % limit), 1 + int(r.bits() % limit)};
        for (int mode : kModes)
            for (int threads : {1, 2, 5}) {
                Threads team(threads);
                int size = -1;
                ASSERT_EQ(zenrResizeGetBufSize({0, 0, 0, 9, 9, 9}, box, 1, mode, &size), zenStsNoErr);
                ASSERT_EQ(size, threads * reference::resizeBufSize(box.width, box.height, box.depth, mode));
                // The smallest block fits even at the worst alignment.
                if (mode != 1) {
                    ASSERT_LE(resizeScratchBytes(4, mode, std::min(box.width, 64), 1), size_t(size / threads - 64));
                }
            }
    }
    int size = 0;
    EXPECT_EQ(zenrResizeGetBufSize({0, 0, 0, 1, 1, 1}, {0, 0, 0, 100000, 100000, 9}, 1, 4, &size), zenStsNoErr);
    EXPECT_EQ(size, INT32_MAX);
    EXPECT_EQ(zenrResizeGetBufSize({0, 0, 0, 1, 1, 1}, {0, 0, 0, INT32_MAX, INT32_MAX, INT32_MAX}, 1, 2, &size),
              zenStsNoErr);
    EXPECT_EQ(size, INT32_MAX);
}

TEST(ResizeBufSize, ChecksInOrder) {
    for (int spoilt = 0; spoilt < 16; ++spoilt) {
        int size = -77;
        const ZenrBox src = {0, 0, spoilt & 2 ? -1 : 0, 4, 4, 4};
        const int channels = spoilt & 4 ? 3 : 1;
        const int mode = spoilt & 8 ? 3 : 2;
        const ZenStatus expected = spoilt & 1   ? zenStsNullPtrErr
                                   : spoilt & 2 ? zenStsSizeErr
                                   : spoilt & 4 ? zenStsNumChannelsErr
                                   : spoilt & 8 ? zenStsInterpolationErr
                                                : zenStsNoErr;
        EXPECT_EQ(zenrResizeGetBufSize(src, {0, 0, 0, 4, 4, 4}, channels, mode, spoilt & 1 ? nullptr : &size),
                  expected);
        if (expected != zenStsNoErr) {
            EXPECT_EQ(size, -77);
        }
    }
    int size;
    for (int field = 0; field < 6; ++field)
        for (int which = 0; which < 2; ++which) {
            ZenrBox box[2] = {{0, 0, 0, 4, 4, 4}, {0, 0, 0, 4, 4, 4}};
            (&box[which].x)[field] = field < 3 ? -1 : 0;
            EXPECT_EQ(zenrResizeGetBufSize(box[0], box[1], 1, 2, &size), zenStsSizeErr);
        }
    for (int mode = -3; mode < 12; ++mode)
        EXPECT_EQ(zenrResizeGetBufSize({0, 0, 0, 4, 4, 4}, {0, 0, 0, 4, 4, 4}, 1, mode, &size) == zenStsNoErr,
                  mode == 1 || mode == 2 || (mode >= 4 && mode <= 7));
}

// Every way to spoil a call, in the order of the checks; of two, the first decides, and nothing is written.
TYPED_TEST(Resize, ChecksInOrder) {
    using T = TypeParam;
    struct Call {
        bool src = true, dst = true, buffer = true;
        ZenrVolume volume = {4, 4, 4};
        Arguments a = {{0, 0, 0, 4, 4, 4}, {0, 0, 0, 4, 4, 4}, {1, 1, 1}, {0, 0, 0}, 2};
    };
    struct Row {
        std::function<void(Call&)> spoil;
        ZenStatus status;
        int group; // rows of a group exclude each other
    };
    std::vector<Row> rows = {
        {[](Call& c) { c.src = false; }, zenStsNullPtrErr, 1},
        {[](Call& c) { c.dst = false; }, zenStsNullPtrErr, 2},
        {[](Call& c) { c.buffer = false; }, zenStsNullPtrErr, 3},
        {[](Call& c) { c.volume.width = 0; }, zenStsSizeErr, 4},
        {[](Call& c) { c.volume.height = -1; }, zenStsSizeErr, 5},
        {[](Call& c) { c.volume.depth = 0; }, zenStsSizeErr, 6},
    };
    for (int field = 0; field < 6; ++field) {
        rows.push_back({[=](Call& c) { (&c.a.srcRoi.x)[field] = field < 3 ? -1 : 0; }, zenStsSizeErr, 10 + field % 3});
        rows.push_back({[=](Call& c) { (&c.a.dstRoi.x)[field] = field < 3 ? -1 : 0; }, zenStsSizeErr, 20 + field % 3});
    }
    for (int k = 0; k < 3; ++k) {
        rows.push_back({[=](Call& c) { c.a.factor[k] = 0; }, zenStsResizeFactorErr, 30 + k});
        rows.push_back({[=](Call& c) { c.a.factor[k] = -2; }, zenStsResizeFactorErr, 30 + k});
    }
    for (int mode : {3, 0, 8, -1}) rows.push_back({[=](Call& c) { c.a.mode = mode; }, zenStsInterpolationErr, 40});
    rows.push_back({[](Call& c) { c.a.srcRoi.x = 4; }, zenStsRoiOutside, 10});
    rows.push_back({[](Call& c) { c.a.srcRoi.y = 4; }, zenStsRoiOutside, 11});
    rows.push_back({[](Call& c) { c.a.srcRoi.z = 9; }, zenStsRoiOutside, 12});
    rows.push_back({[](Call& c) { c.a.dstRoi.x = 4; }, zenStsNoOperation, 20});
    rows.push_back({[](Call& c) { c.a.shift[1] = 100; }, zenStsNoOperation, 50});
    rows.push_back({[](Call& c) { c.a.shift[2] = -100; }, zenStsNoOperation, 51});
    rows.push_back({[](Call& c) { c.a.factor[0] = NAN; }, zenStsNoOperation, 30});
    rows.push_back({[](Call& c) { c.a.factor[1] = INFINITY; }, zenStsNoOperation, 31});
    rows.push_back({[](Call& c) { c.a.shift[0] = NAN; }, zenStsNoOperation, 52});
    rows.push_back({[](Call& c) { c.a.shift[0] = -INFINITY; }, zenStsNoOperation, 52});
    rows.push_back({[](Call& c) { c.a.factor[2] = 1e300, c.a.shift[2] = 1e300; }, zenStsNoOperation, 51});

    std::vector<T> src(64), dst(64), before(64);
    for (size_t i = 0; i < 64; ++i) before[i] = canary<T>(i);
    std::vector<uint8_t> buffer(1 << 16);
    const T* srcPlanes[4];
    T* dstPlanes[4];
    for (int z = 0; z < 4; ++z) srcPlanes[z] = &src[16 * z], dstPlanes[z] = &dst[16 * z];
    const auto run = [&](const Call& c, ZenStatus expected) {
        for (int layout = 0; layout < 2; ++layout) {
            dst = before;
            const int step = 4 * sizeof(T), plane = 16 * sizeof(T);
            uint8_t* const work = c.buffer ? buffer.data() : nullptr;
            const Arguments& a = c.a;
            ZenStatus status;
#define CALL(suffix, V)                                                                                                \
    status =                                                                                                           \
        layout                                                                                                         \
            ? zenrResize_##suffix##_C1PV((const V* const*)(c.src ? srcPlanes : nullptr), c.volume, step, a.srcRoi,     \
                                         (V* const*)(c.dst ? dstPlanes : nullptr), step, a.dstRoi, a.factor[0],        \
                                         a.factor[1], a.factor[2], a.shift[0], a.shift[1], a.shift[2], a.mode, work)   \
            : zenrResize_##suffix##_C1V((const V*)(c.src ? src.data() : nullptr), c.volume, step, plane, a.srcRoi,     \
                                        (V*)(c.dst ? dst.data() : nullptr), step, plane, a.dstRoi, a.factor[0],        \
                                        a.factor[1], a.factor[2], a.shift[0], a.shift[1], a.shift[2], a.mode, work)
            if (sizeof(T) == 1)
                CALL(8u, uint8_t);
            else if (sizeof(T) == 2)
                CALL(16u, uint16_t);
            else
                CALL(32f, float);
#undef CALL
            EXPECT_EQ(status, expected);
            if (expected != zenStsNoErr) {
                EXPECT_EQ(memcmp(dst.data(), before.data(), 64 * sizeof(T)), 0);
            }
        }
    };
    run(Call(), zenStsNoErr);
    for (size_t i = 0; i < rows.size(); ++i) {
        for (size_t j = i; j < rows.size(); ++j) {
            if (j != i && rows[i].group == rows[j].group) continue;
            Call c;
            rows[j].spoil(c);
            rows[i].spoil(c);
            // Rows are not all in the order of their status: the first check decides.
            const auto rank = [](ZenStatus s) {
                const ZenStatus order[] = {zenStsNullPtrErr,       zenStsSizeErr,    zenStsResizeFactorErr,
                                           zenStsInterpolationErr, zenStsRoiOutside, zenStsNoOperation};
                return std::find(order, order + 6, s) - order;
            };
            run(c, rank(rows[i].status) < rank(rows[j].status) ? rows[i].status : rows[j].status);
            if (this->HasFailure()) FAIL() << "rows " << i << " and " << j;
        }
    }
}

// What is written where mapped edges fall on voxel centres, and far away numbers.
TEST(ResizeGeometryRecord, EdgesOnCentres) {
    const auto run = [&](double factor, double shift, int srcX, int srcW, int dstX, int dstW, int volume, int* first,
                         int* end) {
        const double f[3] = {factor, 1, 1}, s[3] = {shift, 0, 0};
        ResizeGeometry g;
        const ZenStatus status =
            ownrPreludeToResize({volume, 4, 4}, {srcX, 0, 0, srcW, 4, 4}, {dstX, 0, 0, dstW, 4, 4}, f, s, &g);
        *first = g.first[0];
        *end = g.end[0];
        return status;
    };
    int first, end;
    ASSERT_EQ(run(1, 0.5, 0, 4, 0, 10, 4, &first, &end), zenStsNoErr); // mapped to 0.5 .. 4.5
    EXPECT_EQ(first, 0);
    EXPECT_EQ(end, 5);
    ASSERT_EQ(run(1, 0.51, 0, 4, 0, 10, 4, &first, &end), zenStsNoErr);
    EXPECT_EQ(first, 1);
    EXPECT_EQ(end, 5);
    ASSERT_EQ(run(1, 0.49, 0, 4, 0, 10, 4, &first, &end), zenStsNoErr);
    EXPECT_EQ(first, 0);
    EXPECT_EQ(end, 4);
    ASSERT_EQ(run(2, 0, 1, 100, 0, 100, 4, &first, &end), zenStsNoErr); // a box wider than the volume
    EXPECT_EQ(first, 2);
    EXPECT_EQ(end, 8);
    ASSERT_EQ(run(1e9, 0, 0, 4, 7, INT32_MAX, 4, &first, &end), zenStsNoErr); // the box ends beyond the integers
    EXPECT_EQ(first, 7);
    EXPECT_EQ(end, INT32_MAX);
    EXPECT_EQ(run(1, 0.4, 0, 4, 5, 5, 4, &first, &end), zenStsNoOperation);
    EXPECT_EQ(run(1e-320, 0, 0, 4, 0, 5, 4, &first, &end), zenStsNoOperation); // nothing reaches a centre
}

// Scales at the limits of double neither crash nor read outside.
TYPED_TEST(Resize, ExtremeScales) {
    using T = TypeParam;
    TestVolume<T> src({3, 3, 3}, 0, false, false, Guarded<T>::atEnd);
    TestVolume<T> dst({20, 3, 3}, 0, false, false, Guarded<T>::atEnd);
    for (size_t i = 0; i < src.memory().size(); ++i) src.memory()[i] = T(i + 1);
    for (int mode : kModes)
        for (double factor : {1e-320, 1e-300, 1e-12, 1e12, 1e300, 1.7e308})
            for (double shift : {0.0, 0.5, 1.5, 3.0, -1e12, -1e300, 1e300}) {
                const Arguments a = {{0, 0, 0, 3, 3, 3}, {0, 0, 0, 20, 3, 3}, {factor, 1, 1}, {shift, 0, 0}, mode};
                int size = 0;
                ASSERT_EQ(zenrResizeGetBufSize(a.srcRoi, a.dstRoi, 1, mode, &size), zenStsNoErr);
                Guarded<uint8_t> buffer((size_t(size)));
                const ZenStatus status = resizeV(src, dst, a, buffer.data());
                ASSERT_TRUE(status == zenStsNoErr || status == zenStsNoOperation);
            }
}

// A large destination box of which little is written uses no more than was reported.
TEST(ResizeBufSize, HugeBoxLittleWritten) {
    TestVolume<uint8_t> src({5, 5, 5}, 0, false, false, Guarded<uint8_t>::atEnd);
    TestVolume<uint8_t> dst({5, 5, 5}, 0, false, false, Guarded<uint8_t>::atEnd);
    for (size_t i = 0; i < src.memory().size(); ++i) src.memory()[i] = uint8_t(i);
    for (int mode : {1, 2, 6}) {
        Guarded<uint8_t> buffer(1 << 20); // far less than reported, as much as is needed
        const Arguments a = {
            {0, 0, 0, 5, 5, 5}, {0, 0, 0, INT32_MAX, INT32_MAX, INT32_MAX}, {1, 1, 1}, {0, 0, 0}, mode};
        ASSERT_EQ(resizeV(src, dst, a, buffer.data()), zenStsNoErr);
        EXPECT_EQ(memcmp(src.memory().data(), dst.memory().data(), 125), 0);
    }
}

ZenStatus callV(const uint8_t* s, ZenrVolume v, const int* steps, uint8_t* d, ZenrVolume w, int mode, uint8_t* buffer) {
    return zenrResize_8u_C1V(s, v, steps[0], steps[1], {0, 0, 0, v.width, v.height, v.depth}, d, steps[2], steps[3],
                             {0, 0, 0, w.width, w.height, w.depth}, 1.5, 1.5, 1.5, 0, 0, 0, mode, buffer);
}
ZenStatus callV(const uint16_t* s, ZenrVolume v, const int* steps, uint16_t* d, ZenrVolume w, int mode,
                uint8_t* buffer) {
    return zenrResize_16u_C1V(s, v, steps[0], steps[1], {0, 0, 0, v.width, v.height, v.depth}, d, steps[2], steps[3],
                              {0, 0, 0, w.width, w.height, w.depth}, 1.5, 1.5, 1.5, 0, 0, 0, mode, buffer);
}
ZenStatus callV(const float* s, ZenrVolume v, const int* steps, float* d, ZenrVolume w, int mode, uint8_t* buffer) {
    return zenrResize_32f_C1V(s, v, steps[0], steps[1], {0, 0, 0, v.width, v.height, v.depth}, d, steps[2], steps[3],
                              {0, 0, 0, w.width, w.height, w.depth}, 1.5, 1.5, 1.5, 0, 0, 0, mode, buffer);
}

// Volumes whose rows and slices lie far more than 2^31 bytes apart, in either direction, come out as compact ones do.
TYPED_TEST(Resize, StridesBeyondTwoGigabytes) {
    using T = TypeParam;
    if (sizeof(void*) == 4) GTEST_SKIP() << "no such addresses";
    const ZenrVolume v = {24, 4, 4}, w = {36, 6, 6};
    const int rowStep = 2000000000, planeStep = 300000000;
    // 5 * (rowStep + planeStep) bytes and a row, from the middle in both directions; only pages in use exist.
    const size_t half = size_t(13) << 30;
    void* const memory[2] = {
        mmap(nullptr, 2 * half, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0),
        mmap(nullptr, 2 * half, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0)};
    if (memory[0] != MAP_FAILED && memory[1] != MAP_FAILED) {
        T* const src = reinterpret_cast<T*>(static_cast<char*>(memory[0]) + half);
        T* const dst = reinterpret_cast<T*>(static_cast<char*>(memory[1]) + half);
        const int size = sizeof(T);
        std::vector<T> compact(size_t(v.width) * v.height * v.depth), expected(size_t(w.width) * w.height * w.depth);
        zenrtest::Floats r(12);
        for (T& x : compact) x = randomVoxel<T>(r, 2);
        const int compactSteps[4] = {v.width * size, v.width * v.height * size, w.width * size,
                                     w.width * w.height * size};
        for (int direction : {1, -1}) {
            const int steps[4] = {direction * rowStep, direction * planeStep, direction * rowStep,
                                  direction * planeStep};
            const auto row = [&](T* base, int y, int z) {
                return base + direction * (ptrdiff_t(y) * rowStep + ptrdiff_t(z) * planeStep) / size;
            };
            for (int z = 0; z < v.depth; ++z)
                for (int y = 0; y < v.height; ++y)
                    memcpy(row(src, y, z), &compact[(size_t(z) * v.height + y) * v.width], sizeof(T) * v.width);
            for (int mode : {1, 2, 6}) {
                int bytes = 0;
                ASSERT_EQ(
                    zenrResizeGetBufSize({0, 0, 0, 4, 4, 4}, {0, 0, 0, w.width, w.height, w.depth}, 1, mode, &bytes),
                    zenStsNoErr);
                std::vector<uint8_t> buffer(bytes);
                ASSERT_EQ(callV(compact.data(), v, compactSteps, expected.data(), w, mode, buffer.data()), zenStsNoErr);
                ASSERT_EQ(callV(src, v, steps, dst, w, mode, buffer.data()), zenStsNoErr);
                for (int z = 0; z < w.depth; ++z)
                    for (int y = 0; y < w.height; ++y)
                        ASSERT_EQ(memcmp(row(dst, y, z), &expected[(size_t(z) * w.height + y) * w.width],
                                         sizeof(T) * w.width),
                                  0)
                            << "mode " << mode << " direction " << direction << " row " << y << " slice " << z;
            }
        }
    }
    const bool skipped = memory[0] == MAP_FAILED || memory[1] == MAP_FAILED;
    for (void* m : memory)
        if (m != MAP_FAILED) munmap(m, 2 * half);
    if (skipped) GTEST_SKIP() << "not so much address space here";
}

} // namespace
