// Every kernel at every level against the plain definitions: counts, offsets, special values, aliasing, guard pages;
// and the harness against planted faults.
#include "reference/shading_reference.h"
#include "shading/harness.h"

using namespace zenrtest;

namespace {

std::vector<int> ladder() {
    std::vector<int> counts;
    for (int n = 1; n <= 33; ++n) counts.push_back(n);
    for (int n : {37, 61, 67, 127, 128, 129, 131, 257, 801}) counts.push_back(n);
    return counts;
}

Shade at(const Op& op, zenr::Level level) {
    return [&op, level](const Scene& s, const Planes& p, int n) { op.kernel(level, s, p, n); };
}

Shade exported(const Op& op) {
    return [&op](const Scene& s, const Planes& p, int n) { EXPECT_EQ(op.function(s, p, n), zenStsNoErr); };
}

} // namespace

TEST(ShadingKernels, EveryCountAndOffset) {
    uint32_t seed = 1;
    for (const Op& op : ops())
        for (zenr::Level level : zenrtest::levels())
            for (int count : ladder())
                for (int round = 0; round < rounds(6); ++round, ++seed) {
                    const Scene scene = randomScene(seed, 1 + seed % 40, 23, seed % 3 ? 4 : 3 + seed % 5);
                    ASSERT_EQ(difference(op, at(op, level), scene, {count, seed, Place::canaries, {}, round % 2 == 0}),
                              "")
                        << levelName(level);
                }
}

TEST(ShadingKernels, ThroughTheExportedFunctions) {
    uint32_t seed = 7001;
    for (const Op& op : ops())
        for (int count : {1, 2, 3, 5, 16, 33, 255, 256, 257, 801}) {
            const Scene scene = randomScene(seed);
            ASSERT_EQ(difference(op, exported(op), scene, {count, seed++}), "");
        }
}

TEST(ShadingKernels, ReadAndWriteNothingOutside) {
    uint32_t seed = 9001;
    for (const Op& op : ops())
        for (zenr::Level level : zenrtest::levels())
            for (int count : {1, 3, 4, 7, 8, 15, 17, 31, 129, 801})
                for (Place place : {Place::guardAtEnd, Place::guardAtStart}) {
                    const Scene scene = randomScene(seed, 5, 4, 3 + seed % 3);
                    ASSERT_EQ(difference(op, at(op, level), scene, {count, seed++, place}), "") << levelName(level);
                }
}

// Tables without any entry: the indices of missed rays must select nothing.
TEST(ShadingKernels, MissedRaysReadNoTable) {
    const Scene scene = randomScene(5, 0, 0, 4);
    for (const Op& op : ops()) {
        if (op.roles[0] != 't') continue;
        for (zenr::Level level : zenrtest::levels())
            for (int count : ladder())
                ASSERT_EQ(difference(op, at(op, level), scene, {count, uint32_t(count)}), "") << levelName(level);
    }
}

// Each output as each input of the same kind, and the outputs as several different inputs at once.
TEST(ShadingKernels, OutputsMayBeInputs) {
    uint32_t seed = 20001;
    int combinations = 0;
    for (const Op& op : ops()) {
        std::vector<int> in, out;
        for (int i = 0; i < op.planes(); ++i) {
            if (op.roles[i] == 'f') in.push_back(i);
            if (op.writes(i) && op.numbers(i)) out.push_back(i);
        }
        std::vector<std::vector<int>> shares;
        std::vector<int> none;
        for (int i = 0; i < op.planes(); ++i) none.push_back(i);
        for (int o : out)
            for (int i : in) {
                shares.push_back(none);
                shares.back()[o] = i;
            }
        for (size_t shift = 0; shift < in.size() && in.size() >= out.size(); ++shift) {
            shares.push_back(none);
            for (size_t k = 0; k < out.size(); ++k) shares.back()[out[k]] = in[(k + shift) % in.size()];
        }
        for (const std::vector<int>& share : shares)
            for (zenr::Level level : zenrtest::levels())
                for (int count : {1, 8, 19, 67, 301}) {
                    const Scene scene = randomScene(seed);
                    ASSERT_EQ(difference(op, at(op, level), scene, {count, seed++, Place::canaries, share}), "")
                        << levelName(level);
                    ++combinations;
                }
    }
    EXPECT_GT(combinations, 500);
}

// Inactive elements keep their bits, of signalling NaNs too.
TEST(ShadingKernels, UnchangedIsUnchangedToTheBit) {
    constexpr int n = 67;
    for (zenr::Level level : zenrtest::levels()) {
        std::vector<uint32_t> odd(n, 0x7F800001u), ones(n, bitsOf(1.f));
        std::vector<int> mask(n, -1);
        float* planes[3];
        std::vector<uint32_t> copy[3] = {odd, odd, odd};
        for (int k = 0; k < 3; ++k) planes[k] = reinterpret_cast<float*>(copy[k].data());
        const float* one = reinterpret_cast<const float*>(ones.data());
        const float* const src[3] = {one, one, one};
        const float c[3] = {1, 2, 3};
        zenr::shadingKernels(level).addMulMul(c, one, src, mask.data(), planes, n);
        for (int k = 0; k < 3; ++k) EXPECT_EQ(copy[k], odd) << levelName(level);
        std::vector<float> dots(n, 9.f);
        zenr::shadingKernels(level).dotChangeNorm(src, mask.data(), planes, dots.data(), n);
        // Active with a NaN product: the normal is kept as well.
        std::vector<int> active(n, 0);
        zenr::shadingKernels(level).dotChangeNorm(src, active.data(), planes, dots.data(), n);
        for (int k = 0; k < 3; ++k) EXPECT_EQ(copy[k], odd) << levelName(level);
    }
}

// ---- The harness itself: a fault of each sort is seen. -------------------------------------------------------------

TEST(ShadingHarness, SeesPlantedFaults) {
    const Scene scene = randomScene(3);
    for (const Op& op : ops()) {
        const auto word = [&](const Planes& p, int plane, int i) -> uint32_t& {
            return reinterpret_cast<uint32_t*>(p.f(plane))[i];
        };
        int output = 0;
        while (!op.writes(output) || !op.numbers(output)) ++output;
        for (int count : {1, 16, 33}) {
            const Trial trial = {count, 77, Place::canaries, {}, true};
            EXPECT_EQ(difference(op, op.reference, scene, trial), "");
            const Shade wrong = [&](const Scene& s, const Planes& p, int n) {
                op.reference(s, p, n);
                word(p, output, n - 1) ^= 1; // one unit in the last place
            };
            EXPECT_NE(difference(op, wrong, scene, trial), "") << op.name;
            const Shade overrun = [&](const Scene& s, const Planes& p, int n) {
                op.reference(s, p, n);
                word(p, output, n) = 0;
            };
            EXPECT_NE(difference(op, overrun, scene, trial), "") << op.name;
            const Shade underrun = [&](const Scene& s, const Planes& p, int n) {
                op.reference(s, p, n);
                word(p, output, -1) = 0;
            };
            EXPECT_NE(difference(op, underrun, scene, trial), "") << op.name;
            const Shade spoilsInput = [&](const Scene& s, const Planes& p, int n) {
                op.reference(s, p, n);
                word(p, 0, 0) ^= 0x40u;
            };
            EXPECT_NE(difference(op, spoilsInput, scene, trial), "") << op.name;
        }
        // An element left out is seen unless what was there happens to be right, which 33 elements exclude.
        const Shade skipped = [&](const Scene& s, const Planes& p, int n) {
            std::vector<uint32_t> before(n);
            memcpy(before.data(), p.f(output), size_t(n) * 4);
            op.reference(s, p, n);
            for (int i = 0; i < n; i += 2) word(p, output, i) = before[i];
        };
        EXPECT_NE(difference(op, skipped, scene, {33, 78, Place::canaries, {}, true}), "") << op.name;
    }
}
