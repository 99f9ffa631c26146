// Spherical harmonics: state, evaluators, one band, transforms; every level.
#include <math.h>
#include <stdio.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "reference/sh_reference.h"
#include "sh/prsh.h"
#include "support.h"
#include "zencore.h"
#include "zenr.h"

using namespace zenr;
using zenrtest::bitsOf;
using zenrtest::Floats;
using zenrtest::Guarded;
using zenrtest::levels;
using zenrtest::rounds;
using zenrtest::sameFloat;

namespace {

size_t values(unsigned L) {
    return size_t(L + 1) * (L + 1);
}

// A state in a block of exactly the reported size, which ends at a page that faults.
class State {
public:
    State(unsigned L, int type) : block_(size(L, type)) {
        memset(block_.data(), 0xA5, block_.size());
        EXPECT_EQ(zenrSHInit_32f(get(), L, type), zenStsNoErr);
    }
    static size_t size(unsigned L, int type) {
        uint32_t bytes = 0;
        EXPECT_EQ(zenrSHGetSize_32f(L, type, &bytes), zenStsNoErr);
        return bytes;
    }
    ZenrSHState* get() { return reinterpret_cast<ZenrSHState*>(block_.data()); }
    const char* bytes() const { return block_.data(); }

private:
    Guarded<char> block_;
};

const float* tableOf(const ZenrSHState* s, int which) {
#if defined(__i386__)
    return which ? s->tableB : s->tableA;
#else
    return reinterpret_cast<const float*>(reinterpret_cast<const char*>(s) + (which ? s->tableB : s->tableA));
#endif
}

struct Directions {
    std::vector<float> x, y, z;
    explicit Directions(size_t n) : x(n), y(n), z(n) {}
    int count() const { return int(x.size()); }
    ShDirections view(int first = 0) const {
        return {x.data() + first, y.data() + first, z.data() + first, count() - first};
    }
};

// Unit vectors rounded to float; the axes come first.
Directions unitDirections(size_t n, uint32_t seed) {
    Directions d(n);
    std::mt19937 engine(seed);
    std::normal_distribution<double> normal;
    const double axes[6][3] = {{1, 0, 0}, {-1, 0, 0}, {0, 1, 0}, {0, -1, 0}, {0, 0, 1}, {0, 0, -1}};
    for (size_t i = 0; i < n; ++i) {
        double v[3] = {normal(engine), normal(engine), normal(engine)};
        if (i < 6) std::copy(axes[i], axes[i] + 3, v);
        const double length = sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
        d.x[i] = float(v[0] / length);
        d.y[i] = float(v[1] / length);
        d.z[i] = float(v[2] / length);
    }
    return d;
}

Directions anyDirections(size_t n, uint32_t seed) {
    Directions d(n);
    Floats f(seed);
    for (size_t i = 0; i < n; ++i) {
        d.x[i] = f.any();
        d.y[i] = f.any();
        d.z[i] = f.any();
    }
    return d;
}

// Basis by the exported function, one direction at a time.
std::vector<float> basisOf(const Directions& d, unsigned L, ZenrSHState* state) {
    std::vector<float> out(values(L) * d.x.size());
    for (int i = 0; i < d.count(); ++i)
        EXPECT_EQ(zenrSH_32f(&d.x[i], &d.y[i], &d.z[i], 1, &out[values(L) * i], L, state), zenStsNoErr);
    return out;
}

ZenStatus evaluate(Level level, const Directions& d, int first, int count, unsigned L, const ZenrSHState* state,
                   float* dst) {
    if (state->type == 0) return ownrSH15direct_32f(level, &d.x[first], &d.y[first], &d.z[first], count, dst, int(L));
    return ownrSHrecurr_32f(level, tableOf(state, 0), tableOf(state, 1), &d.x[first], &d.y[first], &d.z[first], count,
                            dst, int(L));
}

ShBasis basisView(const ZenrSHState* state, unsigned L) {
    if (state->type == 0) return {nullptr, nullptr, int(L)};
    return {tableOf(state, 0), tableOf(state, 1), int(L)};
}

void expectSame(const float* got, const float* want, size_t n, const std::string& what) {
    for (size_t i = 0; i < n; ++i)
        ASSERT_TRUE(sameFloat(got[i], want[i]))
            << what << " at " << i << ": " << got[i] << " (" << std::hex << bitsOf(got[i]) << "), not " << want[i]
            << " (" << bitsOf(want[i]) << ")";
}

} // namespace

// ---- State ---------------------------------------------------------------------------------------------------------

TEST(ShState, SizesAndTheirChecks) {
    uint32_t size = 77;
    EXPECT_EQ(zenrSHGetSize_32f(2, 1, &size), zenStsNoErr);
    EXPECT_EQ(size, 80u);
    zenrSHGetSize_32f(0, 1, &size);
    EXPECT_EQ(size, 48u);
    zenrSHGetSize_32f(15, 1, &size);
    EXPECT_EQ(size, 1104u);
    zenrSHGetSize_32f(15, 0, &size);
    EXPECT_EQ(size, 16u);
    EXPECT_EQ(zenrSHGetSize_32f(100, 1, &size), zenStsNoErr);
    EXPECT_EQ(size, (5151u * 4 + 15) / 16 * 32 + 16);
    size = 77;
    EXPECT_EQ(zenrSHGetSize_32f(2, 1, nullptr), zenStsNullPtrErr);
    EXPECT_EQ(zenrSHGetSize_32f(16, 2, nullptr), zenStsNullPtrErr);
    EXPECT_EQ(zenrSHGetSize_32f(2, 2, &size), zenStsBadTypeErr);
    EXPECT_EQ(zenrSHGetSize_32f(16, 2, &size), zenStsBadTypeErr);
    EXPECT_EQ(zenrSHGetSize_32f(2, -1, &size), zenStsBadTypeErr);
    EXPECT_EQ(zenrSHGetSize_32f(16, 0, &size), zenStsSizeErr);
    EXPECT_EQ(zenrSHGetSize_32f(0x80000000u, 0, &size), zenStsSizeErr);
    EXPECT_EQ(size, 77u);
}

TEST(ShState, InitChecks) {
    char block[16];
    memset(block, 0x5A, 16);
    char before[16];
    memcpy(before, block, 16);
    ZenrSHState* state = reinterpret_cast<ZenrSHState*>(block);
    EXPECT_EQ(zenrSHInit_32f(nullptr, 16, 0), zenStsNullPtrErr);
    EXPECT_EQ(zenrSHInit_32f(nullptr, 2, 7), zenStsNullPtrErr);
    EXPECT_EQ(zenrSHInit_32f(state, 16, 0), zenStsSizeErr);
    EXPECT_EQ(zenrSHInit_32f(state, 16, 2), zenStsBadTypeErr);
    EXPECT_EQ(zenrSHInit_32f(state, 3, -1), zenStsBadTypeErr);
    EXPECT_EQ(memcmp(block, before, 16), 0);
}

TEST(ShState, ClosedFormHoldsFourWords) {
    State s(11, 0);
    const uint32_t want[4] = {11, 0, 0, 0};
    EXPECT_EQ(memcmp(s.bytes(), want, 16), 0);
}

// The whole block, for every order: header, tables where they belong, zeros elsewhere.
TEST(ShState, RecurrenceBlocksAreFilledAsDefined) {
    for (unsigned L = 0; L <= 40; ++L) {
        State s(L, 1);
        const size_t bytes = State::size(L, 1);
        const uintptr_t base = reinterpret_cast<uintptr_t>(s.bytes());
        ASSERT_EQ(base % 16, 0u);
        const size_t entries = size_t(L + 1) * (L + 2) / 2;
        const size_t atA = 16;
        const size_t atB = (atA + entries * 4 + 15) / 16 * 16;
        EXPECT_EQ(s.get()->maxOrder, L);
        EXPECT_EQ(s.get()->type, 1);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(tableOf(s.get(), 0)), base + atA);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(tableOf(s.get(), 1)), base + atB);
        std::vector<float> a, b;
        shref::tables(L, a, b);
        std::vector<char> want(bytes, 0);
        memcpy(want.data(), s.bytes(), 16);
        memcpy(&want[atA], a.data(), a.size() * 4);
        ASSERT_LE(atB + b.size() * 4, bytes);
        memcpy(&want[atB], b.data(), b.size() * 4);
        for (size_t i = 0; i < bytes; ++i) ASSERT_EQ(s.bytes()[i], want[i]) << "L " << L << " byte " << i;
        // A few entries by their other forms, and the zero that carries a sign.
        if (L >= 2) {
            EXPECT_EQ(tableOf(s.get(), 0)[4], sqrtf(5.f));
            EXPECT_EQ(bitsOf(tableOf(s.get(), 1)[4]), 0x80000000u);
            EXPECT_EQ(bitsOf(tableOf(s.get(), 1)[5]), 0u);
        }
    }
}

TEST(ShState, TablesMoveUpToTheNextBoundary) {
    for (unsigned shift = 4; shift < 16; shift += 4) {
        alignas(16) char memory[256];
        memset(memory, 0, sizeof memory);
        ZenrSHState* s = reinterpret_cast<ZenrSHState*>(memory + shift);
        ASSERT_EQ(zenrSHInit_32f(s, 4, 1), zenStsNoErr);
        EXPECT_EQ(reinterpret_cast<const char*>(tableOf(s, 0)), memory + 32);
        EXPECT_EQ(reinterpret_cast<const char*>(tableOf(s, 1)), memory + 32 + 64);
        std::vector<float> a, b;
        shref::tables(4, a, b);
        expectSame(tableOf(s, 0), a.data(), a.size(), "A");
        expectSame(tableOf(s, 1), b.data(), b.size(), "B");
    }
}

#if !defined(__i386__)
TEST(ShState, MayBeMoved) {
    State s(5, 1);
    alignas(16) char copy[256];
    memcpy(copy, s.bytes(), State::size(5, 1));
    const Directions d = unitDirections(9, 3);
    EXPECT_EQ(basisOf(d, 5, s.get()), basisOf(d, 5, reinterpret_cast<ZenrSHState*>(copy)));
}
#endif

// ---- Checks --------------------------------------------------------------------------------------------------------

namespace {

// The arguments of every function of the family at once; each check of a function spoils some of them.
struct Arguments {
    float x[2] = {0.6f, 0}, y[2] = {0, 0.6f}, z[2] = {0.8f, 0.8f};
    const float *pX = x, *pY = y, *pZ = z;
    int len = 2;
    unsigned L = 3;
    ZenrSHState state{};
    const ZenrSHState* pState = &state;
    float src[3][6];
    const float* pSrc = src[0];
    const float* srcPlanes[3] = {src[0], src[1], src[2]};
    const float* const* pSrcPlanes = srcPlanes;
    float dst[3][600];
    float* pDst = dst[0];
    float* dstPlanes[3] = {dst[0], dst[1], dst[2]};
    float* const* pDstPlanes = dstPlanes;
    // Coefficients are sources of the inverse transforms.
    float coeffs[3][256];
    const float* coeffPlanes[3] = {coeffs[0], coeffs[1], coeffs[2]};
    const float* const* pCoeffPlanes = coeffPlanes;
    const float* pCoeffs = coeffs[0];

    Arguments() {
        for (auto& plane : dst)
            for (float& v : plane) v = 0.25f;
        for (auto& plane : src)
            for (float& v : plane) v = 0.5f;
        for (auto& plane : coeffs)
            for (float& v : plane) v = 0.125f;
        zenrSHInit_32f(&state, 5, 0);
    }
    Arguments(const Arguments&) = delete;
    bool untouched() const {
        for (const auto& plane : dst)
            for (float v : plane)
                if (v != 0.25f) return false;
        return true;
    }
};

struct Row {
    const char* name;
    std::function<void(Arguments&)> spoil;
    ZenStatus status;
};

void expectOrder(const char* function, const std::vector<Row>& rows, const std::function<ZenStatus(Arguments&)>& call) {
    {
        Arguments a;
        ASSERT_EQ(call(a), zenStsNoErr) << function;
        ASSERT_FALSE(a.untouched()) << function;
    }
    for (size_t i = 0; i < rows.size(); ++i) {
        for (size_t j = i; j < rows.size(); ++j) {
            Arguments a;
            rows[j].spoil(a);
            rows[i].spoil(a);
            EXPECT_EQ(call(a), rows[i].status) << function << ": " << rows[i].name << " and " << rows[j].name;
            EXPECT_TRUE(a.untouched()) << function << ": " << rows[i].name << " and " << rows[j].name;
        }
    }
}

const Row kNullX{"pX", [](Arguments& a) { a.pX = nullptr; }, zenStsNullPtrErr};
const Row kNullY{"pY", [](Arguments& a) { a.pY = nullptr; }, zenStsNullPtrErr};
const Row kNullZ{"pZ", [](Arguments& a) { a.pZ = nullptr; }, zenStsNullPtrErr};
const Row kNullDst{"pDst", [](Arguments& a) { a.pDst = nullptr; }, zenStsNullPtrErr};
const Row kNullState{"pState", [](Arguments& a) { a.pState = nullptr; }, zenStsNullPtrErr};
const Row kNullSrc{"pSrc", [](Arguments& a) { a.pSrc = nullptr; }, zenStsNullPtrErr};
const Row kNullCoeffs{"pCoeffs", [](Arguments& a) { a.pCoeffs = nullptr; }, zenStsNullPtrErr};
const Row kNoLength{"len 0", [](Arguments& a) { a.len = 0; }, zenStsSizeErr};
const Row kAboveState{"L above the state's",
                      [](Arguments& a) {
                          if (a.L < 6) a.L = 6;
                      },
                      zenStsBadTypeErr};
const Row kHugeOrder{"L beyond int", [](Arguments& a) { a.L = 0xFFFFFFFFu; }, zenStsBadTypeErr};
const Row kAboveLimit{"L above 15",
                      [](Arguments& a) {
                          a.L = 16;
                          a.state.maxOrder = 20;
                      },
                      zenStsBadTypeErr};
const Row kUnknownType{"type", [](Arguments& a) { a.state.type = 3; }, zenStsBadTypeErr};
const Row kNegative{"negative len",
                    [](Arguments& a) {
                        if (a.len > 0) a.len = -1;
                    },
                    zenStsNoErr};

template <class F> void planeRows(std::vector<Row>& rows, const char* name, F planes) {
    for (int c = 0; c < 3; ++c)
        rows.insert(rows.begin(), {name, [planes, c](Arguments& a) { planes(a)[c] = nullptr; }, zenStsNullPtrErr});
}

} // namespace

TEST(ShChecks, Evaluators) {
    expectOrder("zenrSH_32f",
                {kNullX, kNullY, kNullZ, kNullDst, kNullState, kNoLength, kAboveState, kHugeOrder, kUnknownType,
                 kAboveLimit, kNegative},
                [](Arguments& a) { return zenrSH_32f(a.pX, a.pY, a.pZ, a.len, a.pDst, a.L, a.pState); });
    // An order above 15 comes before the length here.
    expectOrder("zenrSHBand_32f", {kNullX, kNullY, kNullZ, kNullDst, kAboveLimit, kHugeOrder, kNoLength, kNegative},
                [](Arguments& a) { return zenrSHBand_32f(a.pX, a.pY, a.pZ, a.len, a.pDst, a.L); });
}

TEST(ShChecks, ForwardTransforms) {
    const std::vector<Row> common{kNullX,      kNullY,     kNullZ,      kNullState,  kNoLength,
                                  kAboveState, kHugeOrder, kAboveLimit, kUnknownType};
    auto rows = common;
    rows.insert(rows.begin(), {kNullSrc, kNullDst});
    rows.push_back(kNegative);
    rows.pop_back();
    expectOrder("C1", rows, [](Arguments& a) {
        return zenrSHTFwd_32f_C1I(a.pX, a.pY, a.pZ, a.pSrc, a.len, a.pDst, a.L, a.pState);
    });
    rows = common;
    rows.insert(rows.begin(), {kNullSrc, {"planes", [](Arguments& a) { a.pDstPlanes = nullptr; }, zenStsNullPtrErr}});
    planeRows(rows, "a plane", [](Arguments& a) { return a.dstPlanes; });
    expectOrder("C3P3", rows, [](Arguments& a) {
        return zenrSHTFwd_32f_C3P3I(a.pX, a.pY, a.pZ, a.pSrc, a.len, a.pDstPlanes, a.L, a.pState);
    });
    rows[3] = {"sources", [](Arguments& a) { a.pSrcPlanes = nullptr; }, zenStsNullPtrErr};
    planeRows(rows, "a source", [](Arguments& a) { return a.srcPlanes; });
    expectOrder("P3", rows, [](Arguments& a) {
        return zenrSHTFwd_32f_P3I(a.pX, a.pY, a.pZ, a.pSrcPlanes, a.len, a.pDstPlanes, a.L, a.pState);
    });
}

TEST(ShChecks, InverseTransforms) {
    const std::vector<Row> common{kNullX,      kNullY,     kNullZ,      kNullState,  kNoLength,
                                  kAboveState, kHugeOrder, kAboveLimit, kUnknownType};
    auto rows = common;
    rows.insert(rows.begin(), {kNullCoeffs, kNullDst});
    expectOrder("C1", rows, [](Arguments& a) {
        return zenrSHTInv_32f_C1(a.pCoeffs, a.L, a.pX, a.pY, a.pZ, a.pDst, a.len, a.pState);
    });
    rows = common;
    rows.insert(rows.begin(), {kNullDst, {"coeffs", [](Arguments& a) { a.pCoeffPlanes = nullptr; }, zenStsNullPtrErr}});
    planeRows(rows, "a coefficient plane", [](Arguments& a) { return a.coeffPlanes; });
    expectOrder("P3C3", rows, [](Arguments& a) {
        return zenrSHTInv_32f_P3C3(a.pCoeffPlanes, a.L, a.pX, a.pY, a.pZ, a.pDst, a.len, a.pState);
    });
    rows[3] = {"results", [](Arguments& a) { a.pDstPlanes = nullptr; }, zenStsNullPtrErr};
    planeRows(rows, "a result plane", [](Arguments& a) { return a.dstPlanes; });
    expectOrder("P3", rows, [](Arguments& a) {
        return zenrSHTInv_32f_P3(a.pCoeffPlanes, a.L, a.pX, a.pY, a.pZ, a.pDstPlanes, a.len, a.pState);
    });
}

TEST(ShChecks, TransformsOfNegativeLengthDoNothing) {
    Arguments a;
    for (int len : {-1, INT32_MIN}) {
        EXPECT_EQ(zenrSHTFwd_32f_C1I(a.pX, a.pY, a.pZ, a.pSrc, len, a.pDst, a.L, a.pState), zenStsNoErr);
        EXPECT_EQ(zenrSHTFwd_32f_C3P3I(a.pX, a.pY, a.pZ, a.pSrc, len, a.pDstPlanes, a.L, a.pState), zenStsNoErr);
        EXPECT_EQ(zenrSHTFwd_32f_P3I(a.pX, a.pY, a.pZ, a.pSrcPlanes, len, a.pDstPlanes, a.L, a.pState), zenStsNoErr);
        EXPECT_EQ(zenrSHTInv_32f_C1(a.pCoeffs, a.L, a.pX, a.pY, a.pZ, a.pDst, len, a.pState), zenStsNoErr);
        EXPECT_EQ(zenrSHTInv_32f_P3(a.pCoeffPlanes, a.L, a.pX, a.pY, a.pZ, a.pDstPlanes, len, a.pState), zenStsNoErr);
        EXPECT_EQ(zenrSHTInv_32f_P3C3(a.pCoeffPlanes, a.L, a.pX, a.pY, a.pZ, a.pDst, len, a.pState), zenStsNoErr);
        a.state.maxOrder = 20;
        EXPECT_EQ(zenrSHTInv_32f_C1(a.pCoeffs, 16, a.pX, a.pY, a.pZ, a.pDst, len, a.pState), zenStsBadTypeErr);
        a.state.maxOrder = 5;
    }
    EXPECT_TRUE(a.untouched());
}

TEST(ShChecks, EvaluatorsRefuseOrdersOutsideTheirLimit) {
    Arguments a;
    for (int type = 0; type < 2; ++type) {
        State s(type ? 20 : 15, type);
        for (int L : {16, 20, -1, INT32_MIN}) {
            for (int len : {2, -1}) {
                if (type == 0)
                    EXPECT_EQ(ownrSH15direct_32f(Level::sse2, a.x, a.y, a.z, len, a.pDst, L), zenStsBadTypeErr);
                else
                    EXPECT_EQ(ownrSHrecurr_32f(Level::sse2, tableOf(s.get(), 0), tableOf(s.get(), 1), a.x, a.y, a.z,
                                               len, a.pDst, L),
                              zenStsBadTypeErr);
            }
        }
        EXPECT_EQ(zenrSH_32f(a.x, a.y, a.z, -5, a.pDst, 15, s.get()), zenStsNoErr);
    }
    EXPECT_TRUE(a.untouched());
}

// ---- Values --------------------------------------------------------------------------------------------------------

TEST(ShBasis, FirstBandsAndSignedZeros) {
    for (int type = 0; type < 2; ++type) {
        State s(1, type);
        const float x = 0, y = 0, z = 1;
        float out[4];
        ASSERT_EQ(zenrSH_32f(&x, &y, &z, 1, out, 1, s.get()), zenStsNoErr);
        EXPECT_EQ(bitsOf(out[0]), 0x3E906EBBu);
        EXPECT_EQ(bitsOf(out[1]), 0x80000000u);
        EXPECT_FLOAT_EQ(out[2], 0.48860252f);
        EXPECT_EQ(bitsOf(out[3]), 0x80000000u);
    }
}

TEST(ShBasis, OrderZeroIsConstant) {
    const Directions d = anyDirections(50, 5);
    for (int type = 0; type < 2; ++type) {
        State s(0, type);
        std::vector<float> out(50);
        ASSERT_EQ(zenrSH_32f(d.x.data(), d.y.data(), d.z.data(), 50, out.data(), 0, s.get()), zenStsNoErr);
        for (float v : out) EXPECT_EQ(bitsOf(v), 0x3E906EBBu);
    }
}

TEST(ShBasis, BandTwo) {
    const Directions d = unitDirections(40, 6);
    for (int i = 0; i < d.count(); ++i) {
        float out[5];
        ASSERT_EQ(zenrSHBand_32f(&d.x[i], &d.y[i], &d.z[i], 1, out, 2), zenStsNoErr);
        const double x = d.x[i], y = d.y[i], z = d.z[i];
        EXPECT_NEAR(out[0], 1.0925484305920792 * x * y, 1e-7);
        EXPECT_NEAR(out[1], -1.0925484305920792 * y * z, 1e-7);
        EXPECT_NEAR(out[2], 0.31539156525252005 * (3 * z * z - 1), 1e-7);
        EXPECT_NEAR(out[3], -1.0925484305920792 * x * z, 1e-7);
        EXPECT_NEAR(out[4], 0.5462742152960396 * (x * x - y * y), 1e-7);
    }
}

// Closed form, full set and one band, against the functions themselves: at most 2 units in the last place of the band's
// largest value.
TEST(ShBasis, AccuracyOfEachBand) {
    const Directions d = unitDirections(size_t(rounds(20000)) / 8 * 8, 7);
    State s(15, 0);
    std::vector<float> set(256 * d.x.size());
    ASSERT_EQ(zenrSH_32f(d.x.data(), d.y.data(), d.z.data(), d.count(), set.data(), 15, s.get()), zenStsNoErr);
    std::vector<long double> exact(256 * d.x.size());
    for (size_t i = 0; i < d.x.size(); ++i) shref::exact(15, d.x[i], d.y[i], d.z[i], &exact[256 * i]);
    for (int l = 0; l <= 15; ++l) {
        std::vector<float> band(size_t(2 * l + 1) * d.x.size());
        ASSERT_EQ(zenrSHBand_32f(d.x.data(), d.y.data(), d.z.data(), d.count(), band.data(), unsigned(l)), zenStsNoErr);
        long double largest = 0, errorOfSet = 0, errorOfBand = 0;
        for (size_t i = 0; i < d.x.size(); ++i) {
            for (int m = -l; m <= l; ++m) {
                const long double want = exact[256 * i + size_t(l * l + l + m)];
                largest = std::max(largest, fabsl(want));
                errorOfSet = std::max(errorOfSet, fabsl(set[256 * i + size_t(l * l + l + m)] - want));
                errorOfBand = std::max(errorOfBand, fabsl(band[size_t(2 * l + 1) * i + size_t(l + m)] - want));
            }
        }
        const float top = float(largest);
        const long double ulp = (long double)nextafterf(top, INFINITY) - (long double)top;
        printf("  band %2d: largest %.4Lf, worst error %.3Lf ulp in the set, %.3Lf alone\n", l, largest,
               errorOfSet / ulp, errorOfBand / ulp);
        EXPECT_LE(errorOfSet, 2 * ulp) << l;
        EXPECT_LE(errorOfBand, 2 * ulp) << l;
    }
}

// The recurrence, bit for bit, at every level, order, batch size and place in a batch; any floats as directions.
TEST(ShBasis, RecurrenceEqualsItsDefinition) {
    for (unsigned L = 0; L <= 15; ++L) {
        State s(L + 2, 1); // tables do not depend on the state's order
        std::vector<float> a, b;
        shref::tables(L, a, b);
        Directions d = unitDirections(71, L);
        const Directions wild = anyDirections(30, L);
        d.x.insert(d.x.end(), wild.x.begin(), wild.x.end());
        d.y.insert(d.y.end(), wild.y.begin(), wild.y.end());
        d.z.insert(d.z.end(), wild.z.begin(), wild.z.end());
        std::vector<float> want(values(L) * d.x.size());
        for (size_t i = 0; i < d.x.size(); ++i)
            shref::recurrence(a, b, L, d.x[i], d.y[i], d.z[i], &want[values(L) * i]);
        for (Level level : levels()) {
            for (int count : {1, 2, 3, 4, 5, 7, 8, 9, 15, 16, 17, 31, 101}) {
                const int first = count % 3 <= d.count() - count ? count % 3 : 0;
                Guarded<float> out(values(L) * size_t(count));
                ASSERT_EQ(evaluate(level, d, first, count, L, s.get(), out.data()), zenStsNoErr);
                expectSame(out.data(), &want[values(L) * size_t(first)], out.size(),
                           std::string(zenrtest::levelName(level)) + " L " + std::to_string(L));
            }
        }
    }
}

// The closed form gives the same bits at every level, batch size and place, for any floats.
TEST(ShBasis, ClosedFormDoesNotDependOnLevelOrPlace) {
    for (unsigned L = 0; L <= 15; ++L) {
        State s(15, 0);
        Directions d = unitDirections(71, L + 100);
        const Directions wild = anyDirections(30, L);
        d.x.insert(d.x.end(), wild.x.begin(), wild.x.end());
        d.y.insert(d.y.end(), wild.y.begin(), wild.y.end());
        d.z.insert(d.z.end(), wild.z.begin(), wild.z.end());
        std::vector<float> want(values(L) * d.x.size());
        std::vector<float> wantBand((2 * L + 1) * d.x.size());
        for (int i = 0; i < d.count(); ++i) {
            evaluate(Level::sse2, d, i, 1, L, s.get(), &want[values(L) * size_t(i)]);
            shKernels(Level::sse2)
                .band[L]({&d.x[size_t(i)], &d.y[size_t(i)], &d.z[size_t(i)], 1}, &wantBand[(2 * L + 1) * size_t(i)]);
        }
        for (Level level : levels()) {
            const std::string what = std::string(zenrtest::levelName(level)) + " L " + std::to_string(L);
            for (int count : {1, 2, 3, 4, 5, 6, 7, 8, 9, 15, 16, 17, 31, 101}) {
                for (auto side : {Guarded<float>::atEnd, Guarded<float>::atStart}) {
                    const size_t first = count % 5 <= d.count() - count ? size_t(count % 5) : 0;
                    Guarded<float> out(values(L) * size_t(count), side);
                    ASSERT_EQ(evaluate(level, d, int(first), count, L, s.get(), out.data()), zenStsNoErr);
                    expectSame(out.data(), &want[values(L) * first], out.size(), what);
                    Guarded<float> band((2 * L + 1) * size_t(count), side);
                    shKernels(level).band[L]({&d.x[first], &d.y[first], &d.z[first], count}, band.data());
                    expectSame(band.data(), &wantBand[(2 * L + 1) * first], band.size(), "band " + what);
                }
            }
        }
    }
}

// Input arrays end at a page that faults, outputs are canaried on both sides at every odd alignment.
TEST(ShBasis, ArraysAreReadAndWrittenExactly) {
    for (Level level : levels()) {
        for (unsigned L : {0u, 1u, 2u, 5u, 15u}) {
            for (int count : {1, 3, 8, 13}) {
                const size_t many = size_t(count);
                Guarded<float> x(many), y(many), z(many);
                const Directions d = unitDirections(many, 3);
                std::copy(d.x.begin(), d.x.end(), x.data());
                std::copy(d.y.begin(), d.y.end(), y.data());
                std::copy(d.z.begin(), d.z.end(), z.data());
                const size_t n = values(L) * size_t(count);
                std::vector<float> want(n);
                ownrSH15direct_32f(Level::sse2, d.x.data(), d.y.data(), d.z.data(), count, want.data(), int(L));
                for (size_t shift = 0; shift < 17; ++shift) {
                    std::vector<float> out(n + 40, 7.5f);
                    ownrSH15direct_32f(level, x.data(), y.data(), z.data(), count, &out[shift], int(L));
                    for (size_t i = 0; i < out.size(); ++i)
                        ASSERT_EQ(out[i], i >= shift && i < shift + n ? want[i - shift] : 7.5f);
                }
            }
        }
    }
}

// Output beyond the caches takes another way to memory.
TEST(ShBasis, LargeBatches) {
    if (rounds(30) == 1) GTEST_SKIP() << "too slow under emulation";
    const unsigned L = 8;
    const size_t count = (size_t(17) << 20) / (values(L) * 4) + 3;
    const Directions d = unitDirections(count, 12);
    State closed(15, 0), recurrence(15, 1);
    for (ZenrSHState* s : {closed.get(), recurrence.get()}) {
        std::vector<float> want(values(L) * count);
        for (size_t i = 0; i < count; i += 1000)
            evaluate(Level::sse2, d, int(i), int(std::min<size_t>(1000, count - i)), L, s, &want[values(L) * i]);
        for (Level level : levels()) {
            for (size_t shift : {0u, 3u}) {
                std::vector<float> out(want.size() + 8, 7.5f);
                evaluate(level, d, 0, int(count), L, s, &out[shift]);
                ASSERT_EQ(memcmp(&out[shift], want.data(), want.size() * 4), 0);
                EXPECT_EQ(out[shift + want.size()], 7.5f);
                for (size_t i = 0; i < shift; ++i) EXPECT_EQ(out[i], 7.5f);
            }
        }
    }
}

TEST(ShBasis, ClosedFormAgreesWithTheRecurrence) {
    const Directions d = unitDirections(500, 9);
    for (unsigned L = 0; L <= 15; ++L) {
        State closed(L, 0), recurrence(L, 1);
        const auto p = basisOf(d, L, closed.get());
        const auto q = basisOf(d, L, recurrence.get());
        for (size_t i = 0; i < p.size(); ++i) ASSERT_NEAR(p[i], q[i], 1e-5) << "L " << L << " value " << i % values(L);
    }
}

TEST(ShBasis, OneBandAgreesWithTheSet) {
    const Directions d = unitDirections(300, 19);
    State s(15, 0);
    const auto set = basisOf(d, 15, s.get());
    for (unsigned l = 0; l <= 15; ++l) {
        std::vector<float> band((2 * l + 1) * d.x.size());
        ASSERT_EQ(zenrSHBand_32f(d.x.data(), d.y.data(), d.z.data(), d.count(), band.data(), l), zenStsNoErr);
        for (size_t i = 0; i < d.x.size(); ++i)
            for (unsigned k = 0; k <= 2 * l; ++k)
                ASSERT_NEAR(band[(2 * l + 1) * i + k], set[256 * i + l * l + k], 1.2e-7);
    }
}

// Gauss-Legendre nodes in z and 32 equal steps around it integrate products of two functions of band 15 exactly.
TEST(ShBasis, OrthonormalUnderQuadrature) {
    const int nz = 16, nphi = 32;
    Directions d(size_t(nz * nphi));
    std::vector<double> weight(d.x.size());
    for (int i = 0; i < nz; ++i) {
        double z = cos(M_PI * (i + 0.75) / (nz + 0.5)), slope = 0;
        for (int step = 0; step < 20; ++step) {
            double p0 = 1, p1 = z;
            for (int n = 1; n < nz; ++n) {
                const double p2 = ((2 * n + 1) * z * p1 - n * p0) / (n + 1);
                p0 = p1;
                p1 = p2;
            }
            slope = nz * (z * p1 - p0) / (z * z - 1);
            z -= p1 / slope;
        }
        const double w = 2 / ((1 - z * z) * slope * slope);
        for (int j = 0; j < nphi; ++j) {
            const double phi = 2 * M_PI * (j + 0.5) / nphi;
            const size_t k = size_t(i * nphi + j);
            d.x[k] = float(sqrt(1 - z * z) * cos(phi));
            d.y[k] = float(sqrt(1 - z * z) * sin(phi));
            d.z[k] = float(z);
            weight[k] = w * 2 * M_PI / nphi;
        }
    }
    for (int type = 0; type < 2; ++type) {
        State s(15, type);
        const auto basis = basisOf(d, 15, s.get());
        for (size_t p = 0; p < 256; ++p) {
            for (size_t q = p; q < 256; q += 1 + p % 3) {
                double sum = 0;
                for (size_t i = 0; i < d.x.size(); ++i) sum += weight[i] * basis[256 * i + p] * basis[256 * i + q];
                ASSERT_NEAR(sum, p == q ? 1. : 0., 2e-5) << p << " " << q;
            }
        }
    }
}

// Turning the direction about z by an angle turns each pair (-m, m) by m times that angle.
TEST(ShBasis, RotationAboutZ) {
    const Directions d = unitDirections(60, 14);
    const double angle = 0.7371;
    Directions turned = d;
    for (size_t i = 0; i < d.x.size(); ++i) {
        turned.x[i] = float(cos(angle) * d.x[i] - sin(angle) * d.y[i]);
        turned.y[i] = float(sin(angle) * d.x[i] + cos(angle) * d.y[i]);
    }
    for (int type = 0; type < 2; ++type) {
        State s(15, type);
        const auto before = basisOf(d, 15, s.get());
        const auto after = basisOf(turned, 15, s.get());
        for (size_t i = 0; i < d.x.size(); ++i) {
            for (int l = 0; l <= 15; ++l) {
                for (int m = 0; m <= l; ++m) {
                    const double c = before[256 * i + size_t(l * l + l + m)],
                                 sn = before[256 * i + size_t(l * l + l - m)];
                    const double cosine = cos(m * angle), sine = m ? sin(m * angle) : 0;
                    ASSERT_NEAR(after[256 * i + size_t(l * l + l + m)], c * cosine - sn * sine, 2e-5);
                    ASSERT_NEAR(after[256 * i + size_t(l * l + l - m)], m ? sn * cosine + c * sine : c, 2e-5);
                }
            }
        }
    }
}

// ---- Transforms ----------------------------------------------------------------------------------------------------

namespace {

// Samples with many zeros and ones among ordinary and extreme values.
float sampleValue(Floats& f, bool wild) {
    const uint32_t r = f.bits() % 16;
    if (r == 0) return 0.f;
    if (r == 1) return -0.f;
    if (r == 2) return 1.f;
    return wild ? f.any() : f.moderate();
}

struct Planes {
    std::vector<float> p[3];
    explicit Planes(size_t n) {
        for (auto& v : p) v.resize(n);
    }
};

} // namespace

TEST(ShForward, EqualsItsDefinition) {
    Floats f(21);
    for (unsigned L = 0; L <= 15; ++L) {
        for (int type = 0; type < 2; ++type) {
            State s(15, type);
            for (int kind = 0; kind < 4; ++kind) { // zeros or none, wild or tame
                const bool wild = kind == 3;
                const Directions d = wild ? anyDirections(61, L) : unitDirections(61, L + 50);
                const auto basis = basisOf(d, L, s.get());
                Planes src(d.x.size()), start(values(L));
                for (auto& plane : src.p)
                    for (float& v : plane) v = kind == 0 ? f.moderate() + 5 : sampleValue(f, wild);
                for (auto& plane : start.p)
                    for (float& v : plane) v = kind == 1 ? -0.f : f.moderate();
                for (int count : {1, 2, 5, 8, 16, 61}) {
                    Planes want = start;
                    for (int c = 0; c < 3; ++c)
                        for (int i = 0; i < count; ++i)
                            shref::forward(&basis[values(L) * size_t(i)], values(L), src.p[c][size_t(i)],
                                           want.p[c].data());
                    for (Level level : levels()) {
                        for (int channels : {1, 3}) {
                            for (int step : {1, 3}) {
                                std::vector<float> interleaved(3 * d.x.size());
                                ShSamples samples{{}, channels, step};
                                Guarded<float> c0(values(L)), c1(values(L)), c2(values(L));
                                float* const coeffs[3] = {c0.data(), c1.data(), c2.data()};
                                for (int c = 0; c < 3; ++c) {
                                    std::copy(start.p[c].begin(), start.p[c].end(), coeffs[c]);
                                    for (size_t i = 0; i < d.x.size(); ++i)
                                        interleaved[3 * i + size_t(c)] = src.p[c][i];
                                    samples.channel[c] = step == 1 ? src.p[c].data() : &interleaved[size_t(c)];
                                }
                                shKernels(level).forward(basisView(s.get(), L),
                                                         {d.x.data(), d.y.data(), d.z.data(), count}, samples, coeffs);
                                for (int c = 0; c < 3; ++c)
                                    expectSame(coeffs[c], c < channels ? want.p[c].data() : start.p[c].data(),
                                               values(L),
                                               std::string(zenrtest::levelName(level)) + " L " + std::to_string(L) +
                                                   " count " + std::to_string(count) + " kind " + std::to_string(kind));
                            }
                        }
                    }
                }
            }
        }
    }
}

TEST(ShForward, LayoutsAgreeAndCallsAccumulate) {
    const Directions d = unitDirections(100, 31);
    Floats f(32);
    for (int type = 0; type < 2; ++type) {
        const unsigned L = 6;
        State s(L, type);
        Planes src(100);
        std::vector<float> interleaved(300);
        for (int c = 0; c < 3; ++c)
            for (size_t i = 0; i < 100; ++i) interleaved[3 * i + size_t(c)] = src.p[c][i] = f.moderate();
        Planes a(values(L)), b(values(L)), once(values(L));
        float* const pa[3] = {a.p[0].data(), a.p[1].data(), a.p[2].data()};
        float* const pb[3] = {b.p[0].data(), b.p[1].data(), b.p[2].data()};
        const float* const ps[3] = {src.p[0].data(), src.p[1].data(), src.p[2].data()};
        ASSERT_EQ(zenrSHTFwd_32f_P3I(d.x.data(), d.y.data(), d.z.data(), ps, 100, pa, L, s.get()), zenStsNoErr);
        ASSERT_EQ(zenrSHTFwd_32f_C3P3I(d.x.data(), d.y.data(), d.z.data(), interleaved.data(), 100, pb, L, s.get()),
                  zenStsNoErr);
        for (int c = 0; c < 3; ++c) {
            ASSERT_EQ(zenrSHTFwd_32f_C1I(d.x.data(), d.y.data(), d.z.data(), ps[c], 100, once.p[c].data(), L, s.get()),
                      zenStsNoErr);
            expectSame(pa[c], once.p[c].data(), values(L), "P3 and C1");
            expectSame(pb[c], once.p[c].data(), values(L), "C3P3 and C1");
            // Again: twice the coefficients, to rounding. In two halves: the same as in one call.
            ASSERT_EQ(zenrSHTFwd_32f_C1I(d.x.data(), d.y.data(), d.z.data(), ps[c], 100, pa[c], L, s.get()),
                      zenStsNoErr);
            for (size_t k = 0; k < values(L); ++k) ASSERT_NEAR(pa[c][k], 2 * once.p[c][k], 1e-4);
            std::vector<float> halves(values(L));
            zenrSHTFwd_32f_C1I(d.x.data(), d.y.data(), d.z.data(), ps[c], 37, halves.data(), L, s.get());
            zenrSHTFwd_32f_C1I(&d.x[37], &d.y[37], &d.z[37], ps[c] + 37, 63, halves.data(), L, s.get());
            expectSame(halves.data(), once.p[c].data(), values(L), "two calls");
        }
    }
}

// Channels that share coefficients, wholly or in part, add to them in turn: sample by sample, channel by channel.
TEST(ShForward, ChannelsMayShareCoefficients) {
    Floats f(33);
    for (int round = 0; round < zenrtest::rounds(60); ++round) {
        const int n = 1 + round % 40;
        const unsigned L = unsigned(round * 7) % 16;
        const Directions d = unitDirections(size_t(n), uint32_t(round));
        State s(L, round % 2);
        std::vector<float> src(3 * size_t(n)), planes[3];
        for (float& v : src) v = f.moderate();
        for (int c = 0; c < 3; ++c)
            for (int i = 0; i < n; ++i) planes[c].push_back(src[3 * size_t(i) + size_t(c)]);
        const float* const ps[3] = {planes[0].data(), planes[1].data(), planes[2].data()};
        const size_t count = values(L);
        // Where the planes begin: one for all, two of the three, and one value into another.
        const size_t at[4][3] = {{0, 0, 0}, {0, count, 0}, {count, 0, 0}, {0, count - 1, 3 * count}};
        for (const size_t* begin : at) {
            std::vector<float> start(4 * count);
            for (float& v : start) v = f.moderate();
            std::vector<float> expected = start, planar = start, triples = start;
            for (int i = 0; i < n; ++i) {
                float basis[256];
                zenrSH_32f(&d.x[size_t(i)], &d.y[size_t(i)], &d.z[size_t(i)], 1, basis, L, s.get());
                for (int c = 0; c < 3; ++c)
                    for (size_t k = 0; k < count; ++k)
                        expected[begin[c] + k] += basis[k] * src[3 * size_t(i) + size_t(c)];
            }
            float* const pp[3] = {&planar[begin[0]], &planar[begin[1]], &planar[begin[2]]};
            float* const pt[3] = {&triples[begin[0]], &triples[begin[1]], &triples[begin[2]]};
            ASSERT_EQ(zenrSHTFwd_32f_P3I(d.x.data(), d.y.data(), d.z.data(), ps, n, pp, L, s.get()), zenStsNoErr);
            ASSERT_EQ(zenrSHTFwd_32f_C3P3I(d.x.data(), d.y.data(), d.z.data(), src.data(), n, pt, L, s.get()),
                      zenStsNoErr);
            expectSame(planar.data(), expected.data(), 4 * count, "P3");
            expectSame(triples.data(), expected.data(), 4 * count, "C3P3");
        }
    }
}

TEST(ShTransforms, OneSampleOfOrderZero) {
    for (int type = 0; type < 2; ++type) {
        State s(0, type);
        const float x = 0.36f, y = 0.48f, z = 0.8f, v = 2.5f;
        float coeff = 1, back = 0;
        ASSERT_EQ(zenrSHTFwd_32f_C1I(&x, &y, &z, &v, 1, &coeff, 0, s.get()), zenStsNoErr);
        EXPECT_FLOAT_EQ(coeff, 1 + 0.28209479f * v);
        coeff = 0;
        zenrSHTFwd_32f_C1I(&x, &y, &z, &v, 1, &coeff, 0, s.get());
        ASSERT_EQ(zenrSHTInv_32f_C1(&coeff, 0, &x, &y, &z, &back, 1, s.get()), zenStsNoErr);
        EXPECT_NEAR(back, 0.0795775 * v, 1e-6);
    }
}

TEST(ShInverse, EqualsItsDefinition) {
    Floats f(41);
    for (unsigned L = 0; L <= 15; ++L) {
        for (int type = 0; type < 2; ++type) {
            State s(15, type);
            for (int kind = 0; kind < 9; ++kind) {
                Directions d = kind == 6 ? anyDirections(301, L) : unitDirections(301, L + 70);
                if (kind == 7) // on both sides of what counts as unit length
                    for (size_t i = 0; i < 301; ++i) {
                        const float scale = 1 + 1e-6f * float(int(i) - 150);
                        d.x[i] *= scale;
                        d.y[i] *= scale;
                        d.z[i] *= scale;
                    }
                const auto basis = basisOf(d, L, s.get());
                Planes coeffs(values(L));
                for (auto& plane : coeffs.p) {
                    for (size_t k = 0; k < plane.size(); ++k) {
                        const float m = f.moderate();
                        switch (kind) {
                        case 1:
                            plane[k] = m * powf(10, 8 * f.moderate());
                            break; // heavy-tailed
                        case 2:
                            plane[k] = k % 7 == 3 ? m : 0.f;
                            break; // sparse
                        case 3:
                            plane[k] = m * 1e-44f;
                            break; // denormal
                        case 4:
                            plane[k] = m * 8e37f;
                            break; // overflowing sums
                        case 5:
                            plane[k] = f.any();
                            break; // infinite, NaN ...
                        case 8:
                            plane[k] = -0.f;
                            break;
                        default:
                            plane[k] = m;
                        }
                    }
                }
                if (kind == 2 && L >= 1) // sums that cancel to nothing, and results midway between floats
                    coeffs.p[1].assign(values(L), 0.f), coeffs.p[1][0] = 1.f,
                                                        coeffs.p[1][2] = -0.28209479f / 0.48860252f;
                Planes want(d.x.size());
                for (int c = 0; c < 3; ++c)
                    for (size_t i = 0; i < d.x.size(); ++i)
                        want.p[c][i] = shref::inverse(&basis[values(L) * i], values(L), coeffs.p[c].data());
                const float* const pc[3] = {coeffs.p[0].data(), coeffs.p[1].data(), coeffs.p[2].data()};
                for (Level level : levels()) {
                    const std::string what = std::string(zenrtest::levelName(level)) + " L " + std::to_string(L) +
                                             " type " + std::to_string(type) + " kind " + std::to_string(kind);
                    for (int count : {1, 3, 8, 301}) {
                        const size_t n = size_t(count);
                        Guarded<float> r0(n), r1(n), r2(n), mixed(3 * n);
                        const ShBasis b = basisView(s.get(), L);
                        const ShDirections view{d.x.data(), d.y.data(), d.z.data(), count};
                        shKernels(level).inverse(b, view, pc, {{r0.data(), r1.data(), r2.data()}, 3, 1});
                        shKernels(level).inverse(b, view, pc,
                                                 {{mixed.data(), mixed.data() + 1, mixed.data() + 2}, 3, 3});
                        expectSame(r0.data(), want.p[0].data(), n, what + " plane 0");
                        expectSame(r1.data(), want.p[1].data(), n, what + " plane 1");
                        expectSame(r2.data(), want.p[2].data(), n, what + " plane 2");
                        for (size_t i = 0; i < 3 * n; ++i)
                            ASSERT_TRUE(sameFloat(mixed[i], want.p[i % 3][i / 3])) << what << " interleaved";
                        shKernels(level).inverse(b, view, pc, {{r1.data(), nullptr, nullptr}, 1, 1});
                        expectSame(r1.data(), want.p[0].data(), n, what + " C1");
                    }
                }
            }
        }
    }
}

// Sums that lie within 2^-50 of the middle between two floats, where a sum in double often rounds to the wrong one: the
// coefficient of Y(1,0) is chosen to bring the sum there.
TEST(ShInverse, NearTiesAreRoundedFromTheExtendedSum) {
    Floats f(61);
    const Directions d = unitDirections(8, 62);
    const int cases = rounds(600);
    for (unsigned L : {1u, 3u, 8u, 15u}) {
        State s(15, 0);
        const auto basis = basisOf(d, L, s.get());
        int wrongInDouble = 0;
        for (int n = 0; n < cases; ++n) {
            const int lane = 4 + n % 4;
            const float* y = &basis[values(L) * size_t(lane)];
            std::vector<float> coeffs(values(L));
            for (float& c : coeffs) c = f.moderate();
            coeffs[2] = 0;
            const float nearest = shref::inverse(y, values(L), coeffs.data());
            long double sum = 0;
            for (size_t k = 0; k < values(L); ++k) sum += (long double)y[k] * (long double)coeffs[k];
            const long double middle = ((long double)nearest + (long double)nextafterf(nearest, 9e9f)) / 2;
            coeffs[2] = float((middle - sum) / y[2]);
            const float want = shref::inverse(y, values(L), coeffs.data());
            double plain = 0;
            for (size_t k = 0; k < values(L); ++k) plain += double(y[k]) * coeffs[k];
            wrongInDouble += float(plain) != want;
            const float* const pc[3] = {coeffs.data(), coeffs.data(), coeffs.data()};
            for (Level level : levels()) {
                for (int channels : {1, 3}) {
                    float got[3][8];
                    shKernels(level).inverse({nullptr, nullptr, int(L)}, d.view(), pc,
                                             {{got[0], got[1], got[2]}, channels, 1});
                    for (int c = 0; c < channels; ++c)
                        ASSERT_EQ(bitsOf(got[c][lane]), bitsOf(want)) << zenrtest::levelName(level) << " L " << L;
                }
            }
        }
        EXPECT_GT(wrongInDouble, 0) << "the cases are not hard enough";
    }
}

// What the inverse relies on for directions near the sphere: the length of the vector of basis values.
TEST(ShInverse, BasisVectorsAreShortEnough) {
    for (int type = 0; type < 2; ++type) {
        State s(15, type);
        Directions d = unitDirections(size_t(rounds(3000)), 77);
        Floats f(78);
        for (size_t i = 0; i < d.x.size(); ++i) {
            if (i % 3 == 0) d.x[i] *= 1e-3f, d.y[i] *= 1e-3f, d.z[i] = 1; // near the poles
            const double scale = (i & 1 ? sqrt(1 + 0.99e-4) : sqrt(1 - 0.99e-4)) /
                                 sqrt(double(d.x[i]) * d.x[i] + double(d.y[i]) * d.y[i] + double(d.z[i]) * d.z[i]);
            d.x[i] = float(d.x[i] * scale);
            d.y[i] = float(d.y[i] * scale);
            d.z[i] = float(d.z[i] * scale);
        }
        const auto basis = basisOf(d, 15, s.get());
        double longest = 0;
        for (size_t i = 0; i < d.x.size(); ++i) {
            double sum = 0;
            for (int l = 0; l <= 15; ++l) {
                for (int k = l * l; k < (l + 1) * (l + 1); ++k)
                    sum += double(basis[256 * i + size_t(k)]) * basis[256 * i + size_t(k)];
                longest = std::max(longest, sqrt(sum * 4 * M_PI) / (l + 1));
            }
        }
        EXPECT_LT(longest, 1.1) << "1.5 is allowed for";
    }
}

TEST(ShInverse, ExportedLayoutsAgree) {
    const Directions d = unitDirections(53, 91);
    Floats f(92);
    for (int type = 0; type < 2; ++type) {
        const unsigned L = 9;
        State s(12, type);
        const auto basis = basisOf(d, L, s.get());
        Planes coeffs(values(L)), planes(53);
        for (auto& plane : coeffs.p)
            for (float& v : plane) v = f.moderate();
        const float* const pc[3] = {coeffs.p[0].data(), coeffs.p[1].data(), coeffs.p[2].data()};
        float* const pd[3] = {planes.p[0].data(), planes.p[1].data(), planes.p[2].data()};
        std::vector<float> mixed(159), one(53);
        ASSERT_EQ(zenrSHTInv_32f_P3(pc, L, d.x.data(), d.y.data(), d.z.data(), pd, 53, s.get()), zenStsNoErr);
        ASSERT_EQ(zenrSHTInv_32f_P3C3(pc, L, d.x.data(), d.y.data(), d.z.data(), mixed.data(), 53, s.get()),
                  zenStsNoErr);
        for (int c = 0; c < 3; ++c) {
            ASSERT_EQ(zenrSHTInv_32f_C1(pc[c], L, d.x.data(), d.y.data(), d.z.data(), one.data(), 53, s.get()),
                      zenStsNoErr);
            for (size_t i = 0; i < 53; ++i) {
                const float want = shref::inverse(&basis[values(L) * i], values(L), pc[c]);
                ASSERT_EQ(bitsOf(one[i]), bitsOf(want));
                ASSERT_EQ(bitsOf(pd[c][i]), bitsOf(want));
                ASSERT_EQ(bitsOf(mixed[3 * i + size_t(c)]), bitsOf(want));
            }
        }
    }
}
