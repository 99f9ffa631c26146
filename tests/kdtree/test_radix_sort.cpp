// The radix sort of floats.
#include "kdtree/pr_avlorsort.h"
#include "reference/primitives.h"
#include "support.h"

using namespace zenr;
using namespace zenrtest;

namespace {

void expectRadix(const std::vector<uint32_t>& input) {
    const size_t n = input.size();
    Guarded<float> data(n);
    Guarded<uint32_t> scratch(n);
    if (n) memcpy(data.data(), input.data(), n * 4);
    ASSERT_EQ(ownRadixSortAccend_32f_px(data.data(), scratch.data(), unsigned(n)), 0);
    std::vector<uint32_t> want = input;
    zenrref::radixOrder(want);
    ASSERT_EQ(n ? memcmp(data.data(), want.data(), n * 4) : 0, 0) << n;
    ASSERT_EQ(n ? memcmp(scratch.data(), want.data(), n * 4) : 0, 0) << n << ": scratch holds the result too";
}

TEST(RadixSort, NothingIsTouchedForNoElements) {
    float data = 5;
    uint32_t scratch = 6;
    EXPECT_EQ(ownRadixSortAccend_32f_px(&data, &scratch, 0), 0);
    EXPECT_EQ(data, 5);
    EXPECT_EQ(scratch, 6u);
}

TEST(RadixSort, SignedZerosAndSigns) {
    std::vector<float> data = {-1.f, 2.f, -0.f, 0.f, -3.5f};
    const float want[] = {-3.5f, -1.f, -0.f, 0.f, 2.f};
    uint32_t scratch[5];
    EXPECT_EQ(ownRadixSortAccend_32f_px(data.data(), scratch, 5), 0);
    EXPECT_EQ(memcmp(data.data(), want, sizeof want), 0);
}

// NaNs lie outside the infinities, each on the side of its sign.
TEST(RadixSort, EveryKindOfValue) {
    expectRadix({0xFFC00001u, 0x7FC00000u, 0xFF800000u, 0x7F800000u, 0x80000000u, 0x00000000u, 0x80000001u, 0x00000001u,
                 0xFFFFFFFFu, 0x7FFFFFFFu, 0x3F800000u, 0xBF800000u});
}

TEST(RadixSort, DigitsAloneAndTogether) {
    Floats random(41);
    const uint32_t masks[] = {0xFFFFFFFFu, 0x000007FFu, 0x003FF800u, 0xFFC00000u, 0x803FFFFFu, 0x00000001u};
    for (size_t n : {1, 2, 3, 10, 320, 321, 2048, 3000, 20000})
        for (uint32_t mask : masks)
            for (int round = 0; round < rounds(3); ++round) {
                std::vector<uint32_t> input(n);
                const uint32_t common = random.bits();
                for (uint32_t& v : input) v = (random.bits() & mask) | (common & ~mask);
                expectRadix(input);
            }
}

TEST(RadixSort, OrderedAndEqualInputs) {
    for (size_t n : {1, 9, 500, 5000}) {
        expectRadix(std::vector<uint32_t>(n, bitsOf(-2.5f)));
        std::vector<uint32_t> up, down;
        for (size_t i = 0; i < n; ++i) {
            up.push_back(bitsOf(float(i) - 200.f));
            down.push_back(bitsOf(200.f - float(i)));
        }
        expectRadix(up);
        expectRadix(down);
    }
}

} // namespace
