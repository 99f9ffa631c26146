// Affine warp and remap against their definition: all types, modes, levels; boxes, steps, threads, checks; positions
// that are no numbers, transforms that cannot be inverted.
#include <algorithm>
#include <functional>
#include <limits>

#include "reference/volume_sample.h"
#include "support.h"
#include "volume/prremap.h"
#include "volume/prwarp.h"
#include "volume/volumes.h"
#include "zencore.h"
#include "zenr.h"

using namespace zenr;
using namespace zenrtest;

namespace {

template <class T> struct Calls;
#define CALLS(T, suffix)                                                                                               \
    template <> struct Calls<T> {                                                                                      \
        static constexpr auto warp = &zenrWarpAffine_##suffix##_C1PV;                                                  \
        static constexpr auto remap = &zenrRemap_##suffix##_C1PV;                                                      \
    };
CALLS(uint8_t, 8u)
CALLS(uint16_t, 16u)
CALLS(float, 32f)

struct Matrix {
    double c[12];
};
constexpr Matrix kIdentity = {{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0}};

// A turn by `degrees` about an axis through `centre`, and a scale.
Matrix turned(double degrees, double ax, double ay, double az, double scale, const double centre[3]) {
    const double n = sqrt(ax * ax + ay * ay + az * az), t = degrees * M_PI / 180, s = sin(t), c = cos(t), d = 1 - c;
    const double x = ax / n, y = ay / n, z = az / n;
    const double r[3][3] = {{c + d * x * x, d * x * y - s * z, d * x * z + s * y},
                            {d * x * y + s * z, c + d * y * y, d * y * z - s * x},
                            {d * x * z - s * y, d * y * z + s * x, c + d * z * z}};
    Matrix m;
    for (int i = 0; i < 3; ++i) {
        m.c[4 * i + 3] = centre[i];
        for (int k = 0; k < 3; ++k) {
            m.c[4 * i + k] = r[i][k] * scale;
            m.c[4 * i + 3] -= r[i][k] * scale * centre[k];
        }
    }
    return m;
}

template <class T> void fill(TestVolume<T>& v, Floats& r, int flavour) {
    for (size_t i = 0; i < v.memory().size(); ++i) v.memory()[i] = randomVoxel<T>(r, flavour);
}
template <class T> std::vector<T> canaries(TestVolume<T>& v) {
    std::vector<T> all(v.memory().size());
    for (size_t i = 0; i < all.size(); ++i) all[i] = canary<T>(i);
    return all;
}
template <class T> void restore(TestVolume<T>& v, const std::vector<T>& to) {
    std::copy(to.begin(), to.end(), v.memory().data());
}
template <class T>::testing::AssertionResult holds(TestVolume<T>& v, const std::vector<T>& expected) {
    for (size_t i = 0; i < expected.size(); ++i)
        if (!same(v.memory()[i], expected[i]))
            return ::testing::AssertionFailure() << "element " << i << " of " << expected.size() << " is "
                                                 << +v.memory()[i] << ", expected " << +expected[i];
    return ::testing::AssertionSuccess();
}

reference::SampleBox boxOf(ZenrVolume v, ZenrBox b) {
    const int begin[3] = {b.x, b.y, b.z}, length[3] = {b.width, b.height, b.depth};
    const int size[3] = {v.width, v.height, v.depth};
    return reference::SampleBox(begin, length, size);
}
int modeOf(ZenrVolume v, int mode) {
    const int size[3] = {v.width, v.height, v.depth};
    return reference::effectiveMode(size, mode);
}
template <class T> T voxelOf(TestVolume<T>& src, const reference::SampleBox& box, int mode, const double s[3]) {
    return reference::sampledVoxel<T>(box, mode, s, [&](int x, int y, int z) {
        EXPECT_TRUE(x >= box.low[0] && x <= box.high[0] && y >= box.low[1] && y <= box.high[1] && z >= box.low[2] &&
                    z <= box.high[2]);
        return src.at(x, y, z);
    });
}

// A warp, exported and at every level, with every team: each against the definition. Returns how many voxels it wrote.
template <class T>
int checkWarp(TestVolume<T>& src, ZenrBox srcRoi, TestVolume<T>& dst, ZenrBox dstRoi, const Matrix& m, int mode,
              const std::vector<int>& teams) {
    const std::vector<T> before = canaries(dst);
    restore(dst, before);
    const reference::SampleBox box = boxOf(src.size(), srcRoi);
    const int effective = modeOf(src.size(), mode);
    double inverse[12];
    int written = 0;
    const bool regular = reference::invert(m.c, inverse);
    for (int z = dstRoi.z; regular && z < dstRoi.z + dstRoi.depth; ++z)
        for (int y = dstRoi.y; y < dstRoi.y + dstRoi.height; ++y) {
            volatile double s[3];
            for (int a = 0; a < 3; ++a) {
                const double* const row = inverse + 4 * a;
                s[a] = row[0] * dstRoi.x + row[1] * y + row[2] * z + row[3];
            }
            for (int x = dstRoi.x; x < dstRoi.x + dstRoi.width; ++x) {
                const double position[3] = {s[0], s[1], s[2]};
                if (box.contains(position)) {
                    dst.at(x, y, z) = voxelOf(src, box, effective, position);
                    ++written;
                }
                for (int a = 0; a < 3; ++a) s[a] = s[a] + inverse[4 * a];
            }
        }
    const std::vector<T> expected(dst.memory().data(), dst.memory().data() + before.size());
    for (int team : teams) {
        const Threads threads(team);
        restore(dst, before);
        EXPECT_EQ(
            Calls<T>::warp(src.planes(), src.size(), src.step(), srcRoi, dst.planes(), dst.step(), dstRoi, m.c, mode),
            zenStsNoErr);
        EXPECT_TRUE(holds(dst, expected)) << "mode " << mode << ", " << team << " threads";
    }
    if (!regular) return 0;
    WarpTask<T> task = {sampleSource<T>(src.planes(), src.step(), src.size(), srcRoi),
                        dst.planes(),
                        dst.step() / int(sizeof(T)),
                        dstRoi,
                        {}};
    EXPECT_EQ(ownrGetInverseMatrix(m.c, task.inverse), zenStsNoErr);
    for (Level level : levels()) {
        restore(dst, before);
        warpVolumes<T>()[modeFor(src.size(), mode)](level, task, dstRoi.z, dstRoi.depth);
        EXPECT_TRUE(holds(dst, expected)) << levelName(level) << " mode " << mode;
    }
    return written;
}

using Maps = TestVolume<float>;

// As checkWarp.
template <class T>
int checkRemap(TestVolume<T>& src, ZenrBox srcRoi, TestVolume<T>& dst, Maps* const maps[3], int mode,
               const std::vector<int>& teams) {
    const std::vector<T> before = canaries(dst);
    restore(dst, before);
    const reference::SampleBox box = boxOf(src.size(), srcRoi);
    const int effective = modeOf(src.size(), mode);
    const ZenrVolume size = dst.size();
    int written = 0;
    for (int z = 0; z < size.depth; ++z)
        for (int y = 0; y < size.height; ++y)
            for (int x = 0; x < size.width; ++x) {
                const double s[3] = {maps[0]->at(x, y, z), maps[1]->at(x, y, z), maps[2]->at(x, y, z)};
                if (!box.contains(s)) continue;
                dst.at(x, y, z) = voxelOf(src, box, effective, s);
                ++written;
            }
    const std::vector<T> expected(dst.memory().data(), dst.memory().data() + before.size());
    for (int team : teams) {
        const Threads threads(team);
        restore(dst, before);
        EXPECT_EQ(Calls<T>::remap(src.planes(), src.size(), src.step(), srcRoi, maps[0]->planes(), maps[1]->planes(),
                                  maps[2]->planes(), maps[0]->step(), dst.planes(), dst.step(), size, mode),
                  zenStsNoErr);
        EXPECT_TRUE(holds(dst, expected)) << "mode " << mode << ", " << team << " threads";
    }
    const RemapTask<T> task = {sampleSource<T>(src.planes(), src.step(), src.size(), srcRoi),
                               {maps[0]->planes(), maps[1]->planes(), maps[2]->planes()},
                               maps[0]->step() / 4,
                               dst.planes(),
                               dst.step() / int(sizeof(T)),
                               size};
    for (Level level : levels()) {
        restore(dst, before);
        remapVolumes<T>()[modeFor(src.size(), mode)](level, task, 0, size.depth);
        EXPECT_TRUE(holds(dst, expected)) << levelName(level) << " mode " << mode;
    }
    return written;
}

template <class T> typename Guarded<T>::Side side(int n) {
    return n ? Guarded<T>::atEnd : Guarded<T>::atStart;
}

template <class T> class Warp : public ::testing::Test {};
template <class T> class Remap : public ::testing::Test {};
using Types = ::testing::Types<uint8_t, uint16_t, float>;
TYPED_TEST_SUITE(Warp, Types);
TYPED_TEST_SUITE(Remap, Types);

// A position near `low .. high` of an axis that is hard on the rules: on and around voxels and the box's edges.
double hardPosition(Floats& r, int low, int high) {
    const auto pick = [&](int n) { return int(r.bits() % uint32_t(n)); };
    const double at = low - 1 + pick(high - low + 3);
    const double ulp = at * 0x1p-52,
                 small[] = {0,          ulp,           -ulp,    1e-7,  -1e-7,          -1.0000001e-7,
                            -9.9999e-8, 0.5,           0.25,    -0.25, 0.4999999,      0.49999991,
                            0.4999998,  0.49999989999, 1 / 3.0, 1e-30, -0.99999994e-7, 0.125};
    return pick(4) ? at + small[pick(int(sizeof small / sizeof *small))] : low + (high - low) * (r.bits() * 0x1p-32);
}

// Random transforms of small volumes: thin ones, boxes inside and partly outside, paddings, directions, shuffled planes.
TYPED_TEST(Warp, RandomCallsMatchTheDefinition) {
    using T = TypeParam;
    Floats r(21 + sizeof(T));
    const auto pick = [&](int n) { return int(r.bits() % uint32_t(n)); };
    const auto real = [&](double from, double to) { return from + (to - from) * (r.bits() * 0x1p-32); };
    long long written = 0;
    for (int round = 0; round < rounds(600); ++round) {
        const bool thin = round % 4 == 0;
        const ZenrVolume v = {1 + pick(thin ? 6 : 40), 1 + pick(thin ? 6 : 14), 1 + pick(thin ? 6 : 14)};
        const ZenrVolume w = {1 + pick(90), 1 + pick(12), 1 + pick(12)};
        ZenrBox srcRoi = {0, 0, 0, v.width + pick(3), v.height + pick(3), v.depth},
                dstRoi = {0, 0, 0, w.width, w.height, w.depth};
        if (pick(2)) {
            srcRoi = {pick(v.width),         pick(v.height),         pick(v.depth),
                      1 + pick(v.width + 2), 1 + pick(v.height + 2), 1 + pick(v.depth + 2)};
            dstRoi = {pick(w.width), pick(w.height), pick(w.depth), 1, 1, 1};
            dstRoi.width = 1 + pick(w.width - dstRoi.x);
            dstRoi.height = 1 + pick(w.height - dstRoi.y);
            dstRoi.depth = 1 + pick(w.depth - dstRoi.z);
        }
        Matrix m = kIdentity;
        const double centre[3] = {v.width / 2.0, v.height / 2.0, v.depth / 2.0};
        switch (pick(6)) {
        case 0: // whole and half shifts
            for (int a = 0; a < 3; ++a) m.c[4 * a + 3] = (pick(13) - 6) * 0.5;
            break;
        case 1: // scales and shifts
            for (int a = 0; a < 3; ++a) {
                m.c[5 * a] = pick(2) ? real(0.3, 3) : (pick(2) ? 2 : -1);
                m.c[4 * a + 3] = m.c[5 * a] < 0 ? (a == 0 ? v.width : a == 1 ? v.height : v.depth) - 1 : real(-3, 3);
            }
            break;
        case 2: // a turn about x
            m = turned(real(0, 360), 1, 0, 0, real(0.7, 2), centre);
            break;
        case 3: // shears
            for (int a : {1, 2, 4, 6, 8, 9})
                if (pick(2)) m.c[a] = real(-1, 1);
            break;
        default:
            m = turned(real(0, 360), real(-1, 1), real(-1, 1), real(0.1, 1), real(0.6, 1.8), centre);
        }
        TestVolume<T> src(v, pick(4), pick(3) == 0, pick(2), side<T>(pick(2)));
        TestVolume<T> dst(w, pick(4), pick(3) == 0, pick(2), side<T>(pick(2)));
        fill(src, r, pick(4));
        written += checkWarp(src, srcRoi, dst, dstRoi, m, kModes[round % 6], {1 + pick(3)});
        if (this->HasFailure()) FAIL() << "round " << round;
    }
    EXPECT_GT(written, rounds(600) * 50);
}

// Rows longer than a tile, and enough slices for teams.
TYPED_TEST(Warp, TilesAndTeams) {
    using T = TypeParam;
    Floats r(4);
    const bool brief = rounds(30) == 1;
    const ZenrVolume v = {150, 23, 21}, w = {171, 21, 35};
    TestVolume<T> src(v, 1, false, false, side<T>(1));
    TestVolume<T> dst(w, 3, false, false, side<T>(1));
    fill(src, r, 2);
    const double centre[3] = {75, 12, 10};
    const std::vector<int> teams = brief ? std::vector<int>{3} : std::vector<int>{1, 2, 5, 16};
    for (int mode : kModes) {
        if (brief && mode > 4) continue;
        for (const Matrix& m : {turned(20, 1, 2, 3, 1.1, centre), turned(30, 1, 0, 0, 1.2, centre)}) {
            if (brief && m.c[1] == 0) continue;
            EXPECT_GT(checkWarp(src, {0, 0, 0, 150, 23, 21}, dst, {0, 0, 0, 171, 21, 35}, m, mode, teams), 10000);
            if (this->HasFailure()) FAIL();
        }
    }
}

// Destination rows that begin far outside, positions that pass through zero and powers of two, and stay at ties.
TYPED_TEST(Warp, LongWaysThroughTheSource) {
    using T = TypeParam;
    Floats r(9);
    const ZenrVolume v = {70, 5, 5}, w = {300, 1, 1};
    TestVolume<T> src(v, 0, false, false, side<T>(1));
    TestVolume<T> dst(w, 0, false, false, side<T>(1));
    fill(src, r, 3);
    for (double scale : {1.0, -1.0, 3.1, -3.7, 0.7, 1e-3, 1 / 1.1, 16.0})
        for (double shift : {0.0, 0.5, -31.0, 17.3, 250.0}) {
            Matrix m = kIdentity;
            m.c[0] = scale;
            m.c[3] = scale < 0 ? 150 + shift : shift;
            for (int k = 0; k < 2; ++k) {
                if (k) m.c[4] = 0.01, m.c[8] = -0.003, m.c[7] = 2, m.c[11] = 3;
                for (int mode : kModes) checkWarp(src, {0, 0, 0, 70, 5, 5}, dst, {0, 0, 0, 300, 1, 1}, m, mode, {1});
                if (this->HasFailure()) FAIL() << scale << " " << shift;
            }
        }
}

// Identity copies where the weights at whole positions are (0, 1, 0, 0), whole shifts move, right angles permute.
TYPED_TEST(Warp, CopiesShiftsAndRightAngles) {
    using T = TypeParam;
    Floats r(6);
    const ZenrVolume v = {37, 18, 17};
    const ZenrBox all = {0, 0, 0, 37, 18, 17};
    TestVolume<T> src(v, 0, false, false, side<T>(1)), dst(v, 0, false, false, side<T>(1));
    fill(src, r, 2);
    const auto warp = [&](const Matrix& m, int mode, ZenrVolume size, TestVolume<T>& out) {
        const std::vector<T> before = canaries(out);
        restore(out, before);
        ASSERT_EQ(Calls<T>::warp(src.planes(), v, src.step(), all, out.planes(), out.step(),
                                 {0, 0, 0, size.width, size.height, size.depth}, m.c, mode),
                  zenStsNoErr);
    };
    for (int mode : {1, 2, 4, 6}) {
        warp(kIdentity, mode, v, dst);
        for (int z = 0; z < 17; ++z)
            for (int y = 0; y < 18; ++y)
                for (int x = 0; x < 37; ++x) ASSERT_TRUE(same(dst.at(x, y, z), src.at(x, y, z))) << mode;
        Matrix m = kIdentity;
        m.c[3] = 5, m.c[7] = -3, m.c[11] = 2;
        warp(m, mode, v, dst);
        for (int z = 0; z < 17; ++z)
            for (int y = 0; y < 18; ++y)
                for (int x = 0; x < 37; ++x) {
                    const bool in = x >= 5 && y < 15 && z >= 2;
                    const T old = canary<T>(size_t(&dst.at(x, y, z) - dst.memory().data()));
                    ASSERT_TRUE(same(dst.at(x, y, z), in ? src.at(x - 5, y + 3, z - 2) : old)) << mode;
                }
        // x' = y, y' = 36 - x
        const ZenrVolume swapped = {18, 37, 17};
        TestVolume<T> tall(swapped, 0, false, false, side<T>(1));
        warp({{0, 1, 0, 0, -1, 0, 0, 36, 0, 0, 1, 0}}, mode, swapped, tall);
        for (int z = 0; z < 17; ++z)
            for (int y = 0; y < 37; ++y)
                for (int x = 0; x < 18; ++x) ASSERT_TRUE(same(tall.at(x, y, z), src.at(36 - y, x, z))) << mode;
    }
}

// A warp is the remap with the positions that it computes, as far as floats hold them.
TYPED_TEST(Warp, EqualsRemapByItsPositions) {
    using T = TypeParam;
    Floats r(60);
    const ZenrVolume v = {40, 20, 20};
    const ZenrBox all = {0, 0, 0, 40, 20, 20};
    TestVolume<T> src(v, 0, false, false, side<T>(1)), warped(v, 0, false, false, side<T>(1)),
        mapped(v, 0, false, false, side<T>(1));
    fill(src, r, 2);
    // Multiples of 1/64: exact in every step.
    const Matrix m = {{0.5, 0, 0, 7, 0, 2, 0, -9.5, 0, 0, 1, 1.25}};
    Maps x(v, 0, false, false, Guarded<float>::atEnd), y(v, 0, false, false, Guarded<float>::atEnd),
        z(v, 0, false, false, Guarded<float>::atEnd);
    double inverse[12];
    ASSERT_EQ(ownrGetInverseMatrix(m.c, inverse), zenStsNoErr);
    for (int k = 0; k < 20; ++k)
        for (int j = 0; j < 20; ++j)
            for (int i = 0; i < 40; ++i) {
                const auto at = [&](int a) {
                    return float(inverse[4 * a] * i + inverse[4 * a + 1] * j + inverse[4 * a + 2] * k +
                                 inverse[4 * a + 3]);
                };
                x.at(i, j, k) = at(0), y.at(i, j, k) = at(1), z.at(i, j, k) = at(2);
            }
    for (int mode : kModes) {
        restore(warped, canaries(warped));
        restore(mapped, canaries(mapped));
        ASSERT_EQ(Calls<T>::warp(src.planes(), v, src.step(), all, warped.planes(), warped.step(), all, m.c, mode),
                  zenStsNoErr);
        ASSERT_EQ(Calls<T>::remap(src.planes(), v, src.step(), all, x.planes(), y.planes(), z.planes(), x.step(),
                                  mapped.planes(), mapped.step(), v, mode),
                  zenStsNoErr);
        const std::vector<T> expected(mapped.memory().data(), mapped.memory().data() + mapped.memory().size());
        EXPECT_TRUE(holds(warped, expected)) << mode;
    }
}

// Positions on and next to whole, half and edge ones, in boxes of every thickness; all three axes at once.
TYPED_TEST(Remap, HardPositionsMatchTheDefinition) {
    using T = TypeParam;
    Floats r(31 + sizeof(T));
    const auto pick = [&](int n) { return int(r.bits() % uint32_t(n)); };
    long long written = 0;
    for (int round = 0; round < rounds(500); ++round) {
        const bool thin = round % 3 == 0;
        const ZenrVolume v = {1 + pick(thin ? 6 : 30), 1 + pick(thin ? 6 : 20), 1 + pick(thin ? 6 : 10)};
        const ZenrVolume w = {1 + pick(90), 1 + pick(9), 1 + pick(6)};
        ZenrBox srcRoi = {0, 0, 0, v.width + pick(3), v.height + pick(3), v.depth};
        if (pick(2))
            srcRoi = {pick(v.width),         pick(v.height),         pick(v.depth),
                      1 + pick(v.width + 2), 1 + pick(v.height + 2), 1 + pick(v.depth + 2)};
        const reference::SampleBox box = boxOf(v, srcRoi);
        TestVolume<T> src(v, pick(4), pick(3) == 0, pick(2), side<T>(pick(2)));
        TestVolume<T> dst(w, pick(4), pick(3) == 0, pick(2), side<T>(pick(2)));
        const int padding = pick(4);
        const bool upwards = pick(2);
        Maps x(w, padding, upwards, pick(2), side<float>(pick(2))),
            y(w, padding, upwards, pick(2), side<float>(pick(2))),
            z(w, padding, upwards, pick(2), side<float>(pick(2)));
        Maps* const maps[3] = {&x, &y, &z};
        const int special = pick(3) ? 0 : 12; // one in so many coordinates is any float
        for (int a = 0; a < 3; ++a)
            for (size_t i = 0; i < maps[a]->memory().size(); ++i)
                maps[a]->memory()[i] =
                    special && !pick(special) ? r.any() : float(hardPosition(r, box.low[a], box.high[a]));
        fill(src, r, pick(4));
        written += checkRemap(src, srcRoi, dst, maps, kModes[round % 6], {1 + pick(3)});
        if (this->HasFailure()) FAIL() << "round " << round;
    }
    EXPECT_GT(written, rounds(500) * 50);
}

// Smooth maps over rows longer than a tile, and enough slices for teams.
TYPED_TEST(Remap, TilesAndTeams) {
    using T = TypeParam;
    Floats r(14);
    const bool brief = rounds(30) == 1;
    const ZenrVolume v = {90, 30, 20}, w = {140, 20, 19};
    TestVolume<T> src(v, 1, false, false, side<T>(1)), dst(w, 3, false, false, side<T>(1));
    fill(src, r, 2);
    Maps x(w, 2, false, false, Guarded<float>::atEnd), y(w, 2, false, false, Guarded<float>::atEnd),
        z(w, 2, false, false, Guarded<float>::atEnd);
    for (int k = 0; k < w.depth; ++k)
        for (int j = 0; j < w.height; ++j)
            for (int i = 0; i < w.width; ++i) {
                x.at(i, j, k) = float(i * 0.65 + 3 * sin(j * 0.3));
                y.at(i, j, k) = float(j + 5 + 4 * sin(i * 0.05 + k));
                z.at(i, j, k) = float(k + 2 * cos(i * 0.1 + j));
            }
    Maps* const maps[3] = {&x, &y, &z};
    for (int mode : kModes) {
        if (brief && mode > 4) continue;
        const std::vector<int> teams = brief ? std::vector<int>{3} : std::vector<int>{1, 2, 5, 16};
        EXPECT_GT(checkRemap(src, {0, 0, 0, 90, 30, 20}, dst, maps, mode, teams), 10000);
        if (this->HasFailure()) FAIL();
    }
}

// The last voxel is inside, the next float is not; nor is what is no number, or infinite.
TYPED_TEST(Remap, EdgesOfTheBox) {
    using T = TypeParam;
    const ZenrVolume v = {8, 8, 8}, w = {8, 1, 1};
    TestVolume<T> src(v, 0, false, false, side<T>(1)), dst(w, 0, false, false, side<T>(1));
    for (size_t i = 0; i < src.memory().size(); ++i) src.memory()[i] = T(i % 250);
    Maps x(w, 0, false, false, Guarded<float>::atEnd), y(w, 0, false, false, Guarded<float>::atEnd),
        z(w, 0, false, false, Guarded<float>::atEnd);
    const float xs[8] = {6, nextafterf(6, 7), 2, nextafterf(2, 1), NAN, INFINITY, -INFINITY, 3};
    const bool in[8] = {true, false, true, false, false, false, false, true};
    const ZenrBox box = {2, 0, 0, 5, 8, 8}; // x from 2 to 6
    for (int i = 0; i < 8; ++i) x.at(i, 0, 0) = xs[i], y.at(i, 0, 0) = 3, z.at(i, 0, 0) = 4;
    Maps* const maps[3] = {&x, &y, &z};
    for (int mode : kModes) {
        EXPECT_EQ(checkRemap(src, box, dst, maps, mode, {1}), 3);
        for (int i = 0; i < 8; ++i) {
            const bool untouched = same(dst.at(i, 0, 0), canary<T>(size_t(i)));
            EXPECT_TRUE(in[i] != untouched || dst.at(i, 0, 0) == src.at(int(xs[i]), 3, 4)) << i;
            if (in[i] && mode != 5 && mode != 7) {
                EXPECT_TRUE(same(dst.at(i, 0, 0), src.at(int(xs[i]), 3, 4))) << mode << ' ' << i;
            }
            if (!in[i]) {
                EXPECT_TRUE(untouched);
            }
        }
    }
    // NaN on any axis.
    for (int a = 0; a < 3; ++a) {
        for (int i = 0; i < 8; ++i) x.at(i, 0, 0) = 3, y.at(i, 0, 0) = 3, z.at(i, 0, 0) = 3;
        for (int i = 0; i < 8; ++i) maps[a]->at(i, 0, 0) = NAN;
        for (int mode : kModes) EXPECT_EQ(checkRemap(src, box, dst, maps, mode, {1}), 0);
    }
}

// Both voxels of a linear axis lie in the box, even where one has no weight: beyond it lies what must not be read.
TEST(SampleBoxes, OnlyTheBoxIsRead) {
    const ZenrVolume v = {6, 6, 6};
    for (int axis = 0; axis < 3; ++axis)
        for (int at = 0; at < 6; ++at)
            for (int mode : {1, 2, 4, 5, 6, 7}) {
                TestVolume<float> src(v, 0, false, false, Guarded<float>::atEnd),
                    dst(v, 0, false, false, Guarded<float>::atEnd);
                ZenrBox box = {0, 0, 0, 6, 6, 6};
                (&box.x)[axis] = at;
                (&box.width)[axis] = 1;
                for (int z = 0; z < 6; ++z)
                    for (int y = 0; y < 6; ++y)
                        for (int x = 0; x < 6; ++x) {
                            const int i[3] = {x, y, z};
                            src.at(x, y, z) = i[axis] == at ? 2.5f : NAN;
                        }
                EXPECT_EQ(checkWarp(src, box, dst, {0, 0, 0, 6, 6, 6}, kIdentity, mode, {1}), 36);
                for (int z = 0; z < 6; ++z)
                    for (int y = 0; y < 6; ++y)
                        for (int x = 0; x < 6; ++x) {
                            const int i[3] = {x, y, z};
                            if (i[axis] == at) {
                                ASSERT_NEAR(dst.at(x, y, z), 2.5f, 1e-6f) << mode;
                            }
                        }
            }
}

// Volumes of fewer than 4 voxels are linear, of fewer than 2 nearest.
TEST(SampleModes, Degrade) {
    for (int mode : kModes) {
        EXPECT_EQ(modeFor({4, 4, 4}, mode), mode);
        EXPECT_EQ(modeFor({3, 3, 3}, mode), mode == 1 ? 1 : 2);
        EXPECT_EQ(modeFor({9, 2, 9}, mode), mode == 1 ? 1 : 2);
        EXPECT_EQ(modeFor({9, 9, 1}, mode), 1);
        EXPECT_EQ(modeFor({1, 3, 9}, mode), 1);
    }
    Floats r(2);
    for (int depth : {1, 3}) {
        const ZenrVolume v = {3, 3, depth};
        TestVolume<float> src(v, 0, false, false, Guarded<float>::atEnd),
            cubic(v, 0, false, false, Guarded<float>::atEnd), simple(v, 0, false, false, Guarded<float>::atEnd);
        fill(src, r, 2);
        Matrix m = kIdentity;
        m.c[3] = 0.25;
        const ZenrBox all = {0, 0, 0, 3, 3, depth};
        const auto run = [&](TestVolume<float>& dst, int mode) {
            restore(dst, canaries(dst));
            return zenrWarpAffine_32f_C1PV(src.planes(), v, src.step(), all, dst.planes(), dst.step(), all, m.c, mode);
        };
        EXPECT_EQ(run(cubic, 5), zenStsNoErr);
        EXPECT_EQ(run(simple, depth == 1 ? 1 : 2), zenStsNoErr);
        EXPECT_EQ(memcmp(cubic.memory().data(), simple.memory().data(), simple.memory().size() * 4), 0);
        EXPECT_TRUE(same(simple.at(2, 1, 0),
                         depth == 1 ? src.at(2, 1, 0) : 0.25f * src.at(1, 1, 0) + 0.75f * src.at(2, 1, 0)) ||
                    depth == 3);
    }
}

// Transforms with entries that are no numbers, infinite, or at the limits of double: nothing is read outside, and voxels
// without a position stay.
TYPED_TEST(Warp, TransformsBeyondNumbers) {
    using T = TypeParam;
    Floats r(3);
    const ZenrVolume v = {5, 5, 5}, w = {40, 3, 3};
    TestVolume<T> src(v, 0, false, false, side<T>(1)), dst(w, 0, false, false, side<T>(1));
    fill(src, r, 2);
    const double values[] = {NAN, INFINITY, -INFINITY, 1e300, -1e300, 1e-300, 1e12, -1e12, 2147483648.0, -0.0};
    for (int entry = 0; entry < 12; ++entry)
        for (double value : values) {
            Matrix m = kIdentity;
            m.c[entry] = value;
            for (int mode : {1, 2, 6}) {
                if (!reference::degenerateTransform(m.c)) {
                    checkWarp(src, {0, 0, 0, 5, 5, 5}, dst, {0, 0, 0, 40, 3, 3}, m, mode, {1});
                } else {
                    EXPECT_EQ(Calls<T>::warp(src.planes(), v, src.step(), {0, 0, 0, 5, 5, 5}, dst.planes(), dst.step(),
                                             {0, 0, 0, 40, 3, 3}, m.c, mode),
                              zenStsCoeffErr);
                }
            }
            if (this->HasFailure()) FAIL() << entry << ' ' << value;
        }
    Matrix m = kIdentity;
    m.c[7] = NAN;
    EXPECT_EQ(checkWarp(src, {0, 0, 0, 5, 5, 5}, dst, {0, 0, 0, 40, 3, 3}, m, 2, {1}), 0);
}

// Positions so large that they hardly fit a 32-bit index.
// Both cubic modes that pass through the samples: a volume mapped onto itself is a copy. Mode 4's coefficients are
// rounded, so that 1e-16 of the neighbours is left where a voxel is 0.
TEST(SampleModes, WholePositionsAreCopied) {
    constexpr int kSize = 19;
    const ZenrVolume size = {kSize, kSize, kSize};
    const ZenrBox box = {0, 0, 0, kSize, kSize, kSize};
    constexpr size_t kVoxels = size_t(kSize) * kSize * kSize;
    std::vector<float> src(kVoxels), dst(kVoxels), maps[3];
    Floats f(77);
    for (float& v : src) v = f.bits() % 8 ? 0 : f.moderate() * 1e3f;
    for (size_t i = 0; i < kVoxels; ++i) {
        maps[0].push_back(float(i % kSize));
        maps[1].push_back(float(i / kSize % kSize));
        maps[2].push_back(float(i / kSize / kSize));
    }
    const auto slices = [&](auto* p) {
        std::vector<decltype(p)> planes;
        for (int z = 0; z < kSize; ++z) planes.push_back(p + size_t(z) * kSize * kSize);
        return planes;
    };
    const auto s = slices(static_cast<const float*>(src.data()));
    const auto d = slices(dst.data());
    const auto x = slices(static_cast<const float*>(maps[0].data()));
    const auto y = slices(static_cast<const float*>(maps[1].data()));
    const auto z = slices(static_cast<const float*>(maps[2].data()));
    const double identity[12] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
    constexpr int step = kSize * int(sizeof(float));
    for (int mode : {4, 6}) {
        int bytes = 0;
        ASSERT_EQ(zenrResizeGetBufSize(box, box, 1, mode, &bytes), zenStsNoErr);
        std::vector<uint8_t> buffer(static_cast<size_t>(bytes));
        for (int way = 0; way < 3; ++way) {
            std::fill(dst.begin(), dst.end(), NAN);
            if (way == 0) {
                ASSERT_EQ(zenrResize_32f_C1PV(s.data(), size, step, box, d.data(), step, box, 1, 1, 1, 0, 0, 0, mode,
                                              buffer.data()),
                          zenStsNoErr);
            }
            if (way == 1) {
                ASSERT_EQ(zenrWarpAffine_32f_C1PV(s.data(), size, step, box, d.data(), step, box, identity, mode),
                          zenStsNoErr);
            }
            if (way == 2) {
                ASSERT_EQ(zenrRemap_32f_C1PV(s.data(), size, step, box, x.data(), y.data(), z.data(), step, d.data(),
                                             step, size, mode),
                          zenStsNoErr);
            }
            for (size_t i = 0; i < kVoxels; ++i)
                ASSERT_NEAR(dst[i], src[i], mode == 4 ? 1e-12 : 0) << "way " << way << " mode " << mode;
        }
    }
}

TEST(SampleBoxes, FarPositions) {
    const int far = 0x7FFFFFFF;
    std::vector<uint8_t> row(16, 9);
    const uint8_t* const plane = row.data();
    std::vector<const uint8_t*> planes(4, plane);
    std::vector<uint8_t> out(16, 1);
    uint8_t* const outPlane = out.data();
    // A volume that is said to be enormous, of which nothing is read: positions just miss the box.
    const double past[12] = {1, 0, 0, -2147483647.5, 0, 1, 0, 0, 0, 0, 1, 0};
    EXPECT_EQ(zenrWarpAffine_8u_C1PV(planes.data(), {far, 4, 4}, 0, {0, 0, 0, far, 1, 1}, &outPlane, 16,
                                     {0, 0, 0, 16, 1, 1}, past, 2),
              zenStsNoErr);
    EXPECT_EQ(out, std::vector<uint8_t>(16, 1));
}

TEST(WarpMatrix, Inverse) {
    const double shift[12] = {1, 0, 0, 5, 0, 1, 0, -7, 0, 0, 1, 0.5};
    double inverse[12];
    ASSERT_EQ(ownrGetInverseMatrix(shift, inverse), zenStsNoErr);
    const double back[12] = {1, 0, 0, -5, 0, 1, 0, 7, 0, 0, 1, -0.5};
    for (int i = 0; i < 12; ++i) EXPECT_EQ(inverse[i], back[i]) << i;

    Floats r(12);
    for (int round = 0; round < 2000; ++round) {
        double m[12], expected[12];
        for (double& x : m) x = r.moderate();
        ASSERT_EQ(reference::invert(m, expected), ownrGetInverseMatrix(m, inverse) == zenStsNoErr);
        for (int i = 0; i < 12; ++i) ASSERT_EQ(inverse[i], expected[i]) << i;
        const double det = m[0] * (m[5] * m[10] - m[6] * m[9]) - m[1] * (m[4] * m[10] - m[6] * m[8]) +
                           m[2] * (m[4] * m[9] - m[5] * m[8]);
        if (fabs(det) < 0.5) continue;
        for (int i = 0; i < 3; ++i)
            for (int k = 0; k < 4; ++k) {
                double product = k == 3 ? inverse[4 * i + 3] : 0;
                for (int j = 0; j < 3; ++j) product += inverse[4 * i + j] * m[4 * j + k];
                ASSERT_NEAR(product, i == k ? 1 : 0, 1e-11);
            }
    }
    // The limit is exclusive on both sides.
    for (double det : {9.99e-11, -9.99e-11, 1.001e-10, -1.001e-10}) {
        const double m[12] = {det, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
        inverse[0] = 77;
        EXPECT_EQ(ownrGetInverseMatrix(m, inverse), fabs(det) < 1e-10 ? zenStsCoeffErr : zenStsNoErr);
        EXPECT_EQ(inverse[0] == 77, fabs(det) < 1e-10);
    }
}

TEST(WarpMatrix, DegenerateOrNearlySingular) {
    std::vector<float> src(64, 1.f), dst(64);
    const float* srcPlanes[4];
    float* dstPlanes[4];
    for (int z = 0; z < 4; ++z) srcPlanes[z] = &src[16 * z], dstPlanes[z] = &dst[16 * z];
    const auto run = [&](std::initializer_list<double> linear) {
        double c[12] = {};
        int i = 0;
        for (double x : linear) c[i / 3 * 4 + i % 3] = x, ++i;
        std::fill(dst.begin(), dst.end(), 7.f);
        const ZenStatus status = zenrWarpAffine_32f_C1PV(srcPlanes, {4, 4, 4}, 16, {0, 0, 0, 4, 4, 4}, dstPlanes, 16,
                                                         {0, 0, 0, 4, 4, 4}, c, 2);
        EXPECT_EQ(status == zenStsCoeffErr, reference::degenerateTransform(c));
        return status;
    };
    const auto untouched = [&] { return std::count(dst.begin(), dst.end(), 7.f) == 64; };
    // No diagonal, and rows y' and z' parallel.
    EXPECT_EQ(run({0, 1, 2, 3, 0, 4, 6, 8, 0}), zenStsCoeffErr);
    EXPECT_EQ(run({0, 1, 0, 0, 0, 1, 1, 0, 0}), zenStsCoeffErr); // a permutation, but without a diagonal
    EXPECT_EQ(run({1, 0, 0, 1, 2, 3, 2, 4, 6}), zenStsCoeffErr);
    EXPECT_EQ(run({1, 0, 0, 0, 0, 0, 0, 0, 0}), zenStsCoeffErr);
    EXPECT_EQ(run({1, 0, 0, 0, 1, 0, 0, 1, 1e-201}), zenStsCoeffErr);
    EXPECT_TRUE(untouched());
    // Each minor by itself saves it.
    EXPECT_NE(run({1, 0, 0, 0, 1, 0, 0, 0, 1}), zenStsCoeffErr);
    EXPECT_NE(run({1, 1, 0, 1, 0, 0, 0, 0, 1}), zenStsCoeffErr);
    EXPECT_NE(run({1, 0, 1, 1, 0, 0, 0, 1, 0}), zenStsCoeffErr);
    // t of 0 against a u above and below the limit.
    EXPECT_NE(run({1, 0, 0, 0, 0, 1, 0, 1.1e-10, 0}), zenStsCoeffErr);
    EXPECT_EQ(run({1, 0, 0, 0, 0, 1, 0, 0.9e-10, 0}), zenStsCoeffErr);
    // Minors that differ by 2e-10 and by 5e-11 of their size.
    EXPECT_NE(run({1, 0, 0, 0, 1, 1, 0, 1, 1 + 2e-10}), zenStsCoeffErr);
    EXPECT_EQ(run({1, 0, 0, 0, 1, 1, 0, 1, 1 + 5e-11}), zenStsCoeffErr);
    // Rows x' and y' parallel: passes, maps nothing, succeeds.
    EXPECT_EQ(run({1, 2, 0, 2, 4, 0, 0, 0, 1}), zenStsNoErr);
    EXPECT_TRUE(untouched());
    EXPECT_EQ(run({1e-11, 0, 0, 0, 1, 0, 0, 0, 1}), zenStsNoErr);
    EXPECT_TRUE(untouched());
    EXPECT_EQ(run({1, 0, 0, 0, 1, 0, 0, 0, 1}), zenStsNoErr);
    EXPECT_FALSE(untouched());
}

TEST(WarpBufSize, ChecksInOrder) {
    for (int spoilt = 0; spoilt < 32; ++spoilt) {
        int size = -77;
        const ZenrBox src = {0, 0, spoilt & 2 ? -1 : 0, 4, 4, 4}, dst = {0, 0, 0, 4, spoilt & 4 ? 0 : 4, 4};
        const ZenStatus expected = spoilt & 1    ? zenStsNullPtrErr
                                   : spoilt & 6  ? zenStsSizeErr
                                   : spoilt & 8  ? zenStsNumChannelsErr
                                   : spoilt & 16 ? zenStsInterpolationErr
                                                 : zenStsNoErr;
        EXPECT_EQ(
            zenrWarpAffineGetBufSize(src, dst, spoilt & 8 ? 3 : 1, spoilt & 16 ? 3 : 2, spoilt & 1 ? nullptr : &size),
            expected);
        EXPECT_EQ(size, expected == zenStsNoErr ? 0 : -77);
    }
    int size;
    for (int field = 0; field < 6; ++field)
        for (int which = 0; which < 2; ++which) {
            ZenrBox box[2] = {{0, 0, 0, 4, 4, 4}, {0, 0, 0, 4, 4, 4}};
            (&box[which].x)[field] = field < 3 ? -1 : 0;
            EXPECT_EQ(zenrWarpAffineGetBufSize(box[0], box[1], 1, 2, &size), zenStsSizeErr);
        }
    for (int mode = -3; mode < 12; ++mode)
        EXPECT_EQ(zenrWarpAffineGetBufSize({0, 0, 0, 4, 4, 4}, {0, 0, 0, 4, 4, 4}, 1, mode, &size) == zenStsNoErr,
                  mode == 1 || mode == 2 || (mode >= 4 && mode <= 7));
}

// Every way to spoil a call: of two, the check that comes first decides, and nothing is written.
template <class Call> struct Row {
    std::function<void(Call&)> spoil;
    ZenStatus status;
    int check; // place in the order of the checks
    int group; // rows of a group exclude each other
};

template <class Call, class Run> void checkOrder(const std::vector<Row<Call>>& rows, const Run& run) {
    run(Call(), zenStsNoErr);
    for (size_t i = 0; i < rows.size(); ++i)
        for (size_t j = i; j < rows.size(); ++j) {
            if (j != i && rows[i].group == rows[j].group) continue;
            Call c;
            rows[j].spoil(c);
            rows[i].spoil(c);
            run(c, rows[i].check <= rows[j].check ? rows[i].status : rows[j].status);
            if (::testing::Test::HasFailure()) FAIL() << "rows " << i << " and " << j;
        }
}

template <class T> struct Block {
    std::vector<T> voxels = std::vector<T>(64);
    T* planes[4] = {&voxels[0], &voxels[16], &voxels[32], &voxels[48]};
    static constexpr int kStep = 4 * sizeof(T);
};

TYPED_TEST(Warp, ChecksInOrder) {
    using T = TypeParam;
    struct Call {
        bool src = true, dst = true;
        ZenrVolume volume = {4, 4, 4};
        ZenrBox srcRoi = {0, 0, 0, 4, 4, 4}, dstRoi = {0, 0, 0, 4, 4, 4};
        Matrix m = kIdentity;
        int mode = 2;
    };
    std::vector<Row<Call>> rows = {
        {[](Call& c) { c.src = false; }, zenStsNullPtrErr, 1, 1},
        {[](Call& c) { c.dst = false; }, zenStsNullPtrErr, 1, 2},
        {[](Call& c) { c.volume.width = 0; }, zenStsSizeErr, 2, 3},
        {[](Call& c) { c.volume.height = -1; }, zenStsSizeErr, 2, 4},
        {[](Call& c) { c.volume.depth = 0; }, zenStsSizeErr, 2, 5},
        {[](Call& c) { c.m.c[0] = c.m.c[5] = c.m.c[10] = 1e-101; }, zenStsCoeffErr, 5, 6},
        {[](Call& c) { c.m.c[9] = 2, c.m.c[6] = 0.5; }, zenStsCoeffErr, 5, 6},
        {[](Call& c) { c.srcRoi.x = 4; }, zenStsRoiOutside, 7, 10},
        {[](Call& c) { c.srcRoi.y = 4; }, zenStsRoiOutside, 7, 11},
        {[](Call& c) { c.srcRoi.z = 9; }, zenStsRoiOutside, 7, 12},
        {[](Call& c) { c.m.c[0] = 1e-11; }, zenStsNoErr, 8, 6}, // nearly singular: succeeds without a word
    };
    for (int field = 0; field < 6; ++field) {
        rows.push_back({[=](Call& c) { (&c.srcRoi.x)[field] = field < 3 ? -1 : 0; }, zenStsSizeErr, 3, 10 + field % 3});
        rows.push_back({[=](Call& c) { (&c.dstRoi.x)[field] = field < 3 ? -1 : 0; }, zenStsSizeErr, 4, 20 + field % 3});
    }
    for (int mode : {3, 0, 8, -1}) rows.push_back({[=](Call& c) { c.mode = mode; }, zenStsInterpolationErr, 6, 40});

    Block<T> src, dst, before;
    for (size_t i = 0; i < 64; ++i) before.voxels[i] = canary<T>(i), src.voxels[i] = T(i);
    checkOrder<Call>(rows, [&](const Call& c, ZenStatus expected) {
        dst.voxels = before.voxels;
        const bool singular = c.m.c[0] == 1e-11;
        EXPECT_EQ(Calls<T>::warp(c.src ? src.planes : nullptr, c.volume, src.kStep, c.srcRoi,
                                 c.dst ? dst.planes : nullptr, dst.kStep, c.dstRoi, c.m.c, c.mode),
                  expected);
        EXPECT_EQ(dst.voxels == before.voxels, expected != zenStsNoErr || singular);
    });
    // The transform is not looked at before the sizes are known to be good.
    EXPECT_EQ(
        Calls<T>::warp(src.planes, {0, 4, 4}, 4, {0, 0, 0, 4, 4, 4}, dst.planes, 4, {0, 0, 0, 4, 4, 4}, nullptr, 2),
        zenStsSizeErr);
}

TYPED_TEST(Remap, ChecksInOrder) {
    using T = TypeParam;
    struct Call {
        bool src = true, dst = true, map[3] = {true, true, true};
        ZenrVolume volume = {4, 4, 4}, size = {4, 4, 4};
        ZenrBox srcRoi = {0, 0, 0, 4, 4, 4};
        int mode = 2;
    };
    std::vector<Row<Call>> rows = {
        {[](Call& c) { c.src = false; }, zenStsNullPtrErr, 1, 1},
        {[](Call& c) { c.dst = false; }, zenStsNullPtrErr, 1, 2},
        {[](Call& c) { c.srcRoi.x = 4; }, zenStsRoiOutside, 7, 10},
        {[](Call& c) { c.srcRoi.y = 4; }, zenStsRoiOutside, 7, 11},
        {[](Call& c) { c.srcRoi.z = 9; }, zenStsRoiOutside, 7, 12},
    };
    for (int a = 0; a < 3; ++a) {
        rows.push_back({[=](Call& c) { c.map[a] = false; }, zenStsNullPtrErr, 2, 30 + a});
        rows.push_back({[=](Call& c) { (&c.volume.width)[a] = -a; }, zenStsSizeErr, 3, 33 + a});
        rows.push_back({[=](Call& c) { (&c.size.width)[a] = a - 2; }, zenStsSizeErr, 5, 36 + a});
    }
    for (int field = 0; field < 6; ++field)
        rows.push_back({[=](Call& c) { (&c.srcRoi.x)[field] = field < 3 ? -1 : 0; }, zenStsSizeErr, 4, 10 + field % 3});
    for (int mode : {3, 0, 8, -1}) rows.push_back({[=](Call& c) { c.mode = mode; }, zenStsInterpolationErr, 6, 40});

    Block<T> src, dst, before;
    Block<float> map;
    for (size_t i = 0; i < 64; ++i)
        before.voxels[i] = canary<T>(i), src.voxels[i] = T(i), map.voxels[i] = float(i % 7) / 2;
    checkOrder<Call>(rows, [&](const Call& c, ZenStatus expected) {
        dst.voxels = before.voxels;
        EXPECT_EQ(Calls<T>::remap(c.src ? src.planes : nullptr, c.volume, src.kStep, c.srcRoi,
                                  c.map[0] ? map.planes : nullptr, c.map[1] ? map.planes : nullptr,
                                  c.map[2] ? map.planes : nullptr, map.kStep, c.dst ? dst.planes : nullptr, dst.kStep,
                                  c.size, c.mode),
                  expected);
        EXPECT_EQ(dst.voxels == before.voxels, expected != zenStsNoErr);
    });
}

// Values that are known beforehand.
TEST(SampleRounding, KnownValues) {
    const ZenrVolume v = {4, 4, 4}, w = {1, 1, 1};
    TestVolume<uint8_t> src(v, 0, false, false, Guarded<uint8_t>::atEnd),
        dst(w, 0, false, false, Guarded<uint8_t>::atEnd);
    Maps x(w, 0, false, false, Guarded<float>::atEnd), y(w, 0, false, false, Guarded<float>::atEnd),
        z(w, 0, false, false, Guarded<float>::atEnd);
    Maps* const maps[3] = {&x, &y, &z};
    for (int k = 0; k < 4; ++k)
        for (int j = 0; j < 4; ++j)
            for (int i = 0; i < 4; ++i) src.at(i, j, k) = uint8_t(i == 2 ? 255 : i == 1 ? 0 : 17);
    y.at(0, 0, 0) = z.at(0, 0, 0) = 1;
    const auto at = [&](float position, int mode) {
        x.at(0, 0, 0) = position;
        checkRemap(src, {0, 0, 0, 4, 4, 4}, dst, maps, mode, {1});
        return int(dst.at(0, 0, 0));
    };
    EXPECT_EQ(at(1.5f, 2), 128); // 127.5 rounds up
    EXPECT_EQ(at(1.25f, 2), 64);
    EXPECT_EQ(at(0.5f, 1), 0); // the nearest of a tie is the upper one
    EXPECT_EQ(at(0.49999991f, 1), 0);
    EXPECT_EQ(at(0.4999998f, 1), 17);
    EXPECT_EQ(at(3, 2), 17);
    EXPECT_EQ(at(1.125f, 6), 22);
    EXPECT_EQ(at(2.125f, 6), 247); // the edge voxel stands in for the one behind it
    EXPECT_EQ(at(0.75f, 6), 0);    // below 0 before it is clamped
}

} // namespace
