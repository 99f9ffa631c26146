// The exported ray and shading functions: checks and what they leave untouched, the eye rays of a tile, triangle
// normals with any number of threads, and values worked out by hand.
#include <float.h>
#include <omp.h>

#include <functional>

#include "reference/shading_reference.h"
#include "shading/shading.h"
#include "support.h"
#include "zencore.h"
#include "zenr.h"

using namespace zenrtest;

namespace {

// ---- Checks --------------------------------------------------------------------------------------------------------

// Arguments for any of the functions: every array has room for 8 elements, and outputs can be told from untouched ones.
struct Arguments {
    float shared[3] = {1, 2, 3};
    float numbers[12] = {.5f, 2, -1, 1, 3, 2, .25f, -2, 4, 1, 1, 1};
    int mask[8];
    int triangles[8] = {0, 1, 2, 0, 0, 1, 2, 0};
    float out[3][24];
    const float* in3[3] = {numbers, numbers, numbers};
    float* out3[3] = {out[0], out[1], out[2]};
    Arguments() {
        for (int& m : mask) m = 1;
        for (auto& plane : out)
            for (float& x : plane) x = 123.f;
    }
    bool untouched() const {
        for (int m : mask)
            if (m != 1) return false;
        for (const auto& plane : out)
            for (float x : plane)
                if (x != 123.f) return false;
        return true;
    }
};

// A function with `pointers` pointers, of which those in the bit set `null` are null; `tested` are those it tests.
struct Checked {
    const char* name;
    int pointers;
    unsigned tested;
    std::function<ZenStatus(Arguments&, unsigned null, int count)> call;
};

template <class T> T* unless(unsigned null, int bit, T* pointer) {
    return null >> bit & 1 ? nullptr : pointer;
}

const std::vector<Checked>& checked() {
    using A = Arguments&;
    static const std::vector<Checked> all = {
        {"zenrCastEye_32f width", 4, 0x8,
         [](A a, unsigned z, int n) {
             return zenrCastEye_32f(unless(z, 0, a.shared), unless(z, 1, a.shared), unless(z, 2, a.shared), 1, 1, 1, 1,
                                    unless(z, 3, a.out3), {n, 2});
         }},
        {"zenrCastEye_32f height", 4, 0x8,
         [](A a, unsigned z, int n) {
             return zenrCastEye_32f(unless(z, 0, a.shared), unless(z, 1, a.shared), unless(z, 2, a.shared), 1, 1, 1, 1,
                                    unless(z, 3, a.out3), {2, n});
         }},
        {"zenrCastReflectionRay_32f", 4, 0xF,
         [](A a, unsigned z, int n) {
             return zenrCastReflectionRay_32f(unless(z, 0, a.in3), unless(z, 1, a.mask), unless(z, 2, a.in3),
                                              unless(z, 3, a.out3), n);
         }},
        {"zenrCastShadowSO_32f", 7, 0x7E,
         [](A a, unsigned z, int n) {
             return zenrCastShadowSO_32f(unless(z, 0, a.shared), unless(z, 1, a.numbers), unless(z, 2, a.in3),
                                         unless(z, 3, a.in3), unless(z, 4, a.mask), unless(z, 5, a.out[0] + 12),
                                         unless(z, 6, a.out3), n);
         }},
        {"zenrHitPoint3DEpsS0_32f_M", 5, 0x1E,
         [](A a, unsigned z, int n) {
             return zenrHitPoint3DEpsS0_32f_M(unless(z, 0, a.shared), unless(z, 1, a.in3), unless(z, 2, a.numbers),
                                              unless(z, 3, a.mask), unless(z, 4, a.out3), n, 1.f);
         }},
        {"zenrHitPoint3DEpsM0_32f_M", 5, 0x1F,
         [](A a, unsigned z, int n) {
             return zenrHitPoint3DEpsM0_32f_M(unless(z, 0, a.in3), unless(z, 1, a.in3), unless(z, 2, a.numbers),
                                              unless(z, 3, a.mask), unless(z, 4, a.out3), n, 1.f);
         }},
        {"zenrDistAttenuationSO_32f_M", 4, 0xE,
         [](A a, unsigned z, int n) {
             return zenrDistAttenuationSO_32f_M(unless(z, 0, a.shared), unless(z, 1, a.in3), unless(z, 2, a.mask),
                                                unless(z, 3, a.out[0]), n);
         }},
        {"zenrTriangleNormal_32f", 3, 0x7,
         [](A a, unsigned z, int n) {
             return zenrTriangleNormal_32f(unless(z, 0, a.numbers), unless(z, 1, a.triangles), unless(z, 2, a.out[0]),
                                           n);
         }},
        {"zenrSurfFlatNormal_32f", 3, 0x3,
         [](A a, unsigned z, int n) {
             return zenrSurfFlatNormal_32f(unless(z, 0, a.numbers), unless(z, 1, a.mask), unless(z, 2, a.out3), n);
         }},
        {"zenrSurfSmoothNormal_32f", 5, 0x1F,
         [](A a, unsigned z, int n) {
             return zenrSurfSmoothNormal_32f(unless(z, 0, a.numbers), unless(z, 1, a.triangles), unless(z, 2, a.mask),
                                             unless(z, 3, a.in3), unless(z, 4, a.out3), n, 4);
         }},
        {"zenrDot_32f_P3C1M", 4, 0xF,
         [](A a, unsigned z, int n) {
             return zenrDot_32f_P3C1M(unless(z, 0, a.in3), unless(z, 1, a.in3), unless(z, 2, a.mask),
                                      unless(z, 3, a.out[0]), n);
         }},
        {"zenrDotChangeNorm_32f_IM", 4, 0xF,
         [](A a, unsigned z, int n) {
             return zenrDotChangeNorm_32f_IM(unless(z, 0, a.in3), unless(z, 1, a.mask), unless(z, 2, a.out3),
                                             unless(z, 3, a.out[0] + 12), n);
         }},
        {"zenrMul_32f_C1IM", 3, 0,
         [](A a, unsigned z, int n) {
             return zenrMul_32f_C1IM(unless(z, 0, a.numbers), unless(z, 1, a.mask), unless(z, 2, a.out[0]), n);
         }},
        {"zenrMul_32f_C1P3IM", 3, 0x7,
         [](A a, unsigned z, int n) {
             return zenrMul_32f_C1P3IM(unless(z, 0, a.numbers), unless(z, 1, a.mask), unless(z, 2, a.out3), n);
         }},
        {"zenrDiv_32f_C1IM", 3, 0x5,
         [](A a, unsigned z, int n) {
             return zenrDiv_32f_C1IM(unless(z, 0, a.numbers), unless(z, 1, a.mask), unless(z, 2, a.out[0]), n);
         }},
        {"zenrAddMulMul_32f_AC1P3IM", 5, 0x1E,
         [](A a, unsigned z, int n) {
             return zenrAddMulMul_32f_AC1P3IM(unless(z, 0, a.shared), unless(z, 1, a.numbers), unless(z, 2, a.in3),
                                              unless(z, 3, a.mask), unless(z, 4, a.out3), n);
         }},
    };
    return all;
}

} // namespace

// All sets of null pointers with counts on both sides of 1: a tested pointer decides first, then the count, and nothing
// is written. Pointers that are not tested may be null as long as there is nothing to do.
TEST(ShadingChecks, EverySetOfNullPointers) {
    for (const Checked& f : checked())
        for (unsigned null = 0; null < 1u << f.pointers; ++null)
            for (int count : {2, 0, -1, INT32_MIN}) {
                if (count > 0 && !(null & f.tested)) continue; // would compute, or crash on an untested pointer
                Arguments a;
                EXPECT_EQ(f.call(a, null, count), null & f.tested ? zenStsNullPtrErr : zenStsNoErr)
                    << f.name << " null " << null << " count " << count;
                EXPECT_TRUE(a.untouched()) << f.name;
            }
}

TEST(ShadingChecks, GoodArgumentsCompute) {
    for (const Checked& f : checked()) {
        Arguments a;
        EXPECT_EQ(f.call(a, 0, 2), zenStsNoErr) << f.name;
        EXPECT_FALSE(a.untouched()) << f.name;
    }
}

// ---- Eye rays ------------------------------------------------------------------------------------------------------

TEST(CastEye, TilesOfAnySize) {
    Floats random(11);
    const int offsets[][2] = {{0, 0},         {16, 3},         {-5, 7},       {65536, 65536},
                              {INT32_MAX, 2}, {INT32_MIN, -1}, {46341, 46341}};
    for (zenr::Level level : zenrtest::levels())
        for (int width : {1, 2, 3, 4, 5, 7, 8, 9, 15, 16, 17, 31, 33, 67, 801})
            for (int height : {1, 2, 5})
                for (int special = 0; special < 2; ++special) {
                    float o[3], w[3], h[3];
                    for (int k = 0; k < 3; ++k) {
                        o[k] = special ? random.any() : random.moderate();
                        w[k] = special ? random.any() : random.moderate();
                        h[k] = special ? random.any() : random.moderate();
                    }
                    const int* column = offsets[random.bits() % 7];
                    const int* row = offsets[random.bits() % 7];
                    const double x0 = reference::tileCoordinate(0, column[0], column[1]);
                    const double y0 = reference::tileCoordinate(0, row[0], row[1]);
                    const size_t count = size_t(width) * height;
                    Guarded<float> x(count), y(count, Guarded<float>::atStart), z(count);
                    float* const direction[3] = {x.data(), y.data(), z.data()};
                    for (int exported = 0; exported < 2; ++exported) {
                        for (int k = 0; k < 3; ++k) memset(direction[k], 0x5A, count * 4);
                        if (exported)
                            ASSERT_EQ(zenrCastEye_32f(o, w, h, column[0], row[0], column[1], row[1], direction,
                                                      {width, height}),
                                      zenStsNoErr);
                        else
                            zenr::shadingKernels(level).castEye(o, w, h, x0, y0, direction, width, height);
                        for (int r = 0; r < height; ++r)
                            for (int c = 0; c < width; ++c)
                                for (int k = 0; k < 3; ++k) {
                                    const float should = reference::eyeDirection(
                                        o[k], w[k], h[k], reference::tileCoordinate(c, column[0], column[1]),
                                        reference::tileCoordinate(r, row[0], row[1]));
                                    ASSERT_PRED2(sameFloat, direction[k][size_t(r) * width + c], should)
                                        << levelName(level) << " " << width << "x" << height << " at " << c << "," << r;
                                }
                    }
                }
}

// ---- Triangle normals ----------------------------------------------------------------------------------------------

namespace {

struct Mesh {
    Guarded<float> vertices;
    Guarded<int> triangles; // ends with the third index of the last triangle
    std::vector<float> expected;
    int count;
    Mesh(int triangleCount, uint32_t seed) : vertices(3 * 37), triangles(4 * size_t(triangleCount) - 1) {
        Floats random(seed);
        count = triangleCount;
        for (size_t i = 0; i < vertices.size(); ++i) vertices[i] = seed % 2 ? random.moderate() : random.any();
        // Vertices closer together than the smallest normal needs, and equal ones.
        for (int k = 0; k < 3; ++k) {
            vertices[3 + k] = vertices[k];
            vertices[6 + k] = vertices[k] * 1.0000001f;
        }
        for (size_t i = 0; i < triangles.size(); ++i)
            triangles[i] = i % 4 < 3 ? int(random.bits() % 37) : int(random.bits());
        expected.resize(3 * size_t(count));
        for (int j = 0; j < count; ++j)
            reference::triangleNormal(vertices.data(), triangles.data() + 4 * j, &expected[3 * size_t(j)]);
    }
    void expectSame(const float* normals, const char* what) const {
        for (size_t i = 0; i < expected.size(); ++i)
            ASSERT_PRED2(sameFloat, normals[i], expected[i]) << what << " count " << count << " word " << i;
    }
};

struct ThreadCount {
    explicit ThreadCount(int n) : before(ownGetNumThreads()) { zenSetNumThreads(n); }
    ~ThreadCount() { zenSetNumThreads(before); }
    int before;
};

} // namespace

TEST(TriangleNormal, EveryCountAndLevel) {
    std::vector<int> counts;
    for (int n = 1; n <= 33; ++n) counts.push_back(n);
    for (int n : {61, 63, 64, 65, 127, 128, 129, 257, 801}) counts.push_back(n);
    for (int count : counts)
        for (uint32_t seed : {uint32_t(2 * count), uint32_t(2 * count + 1)}) {
            const Mesh mesh(count, seed);
            auto& m = const_cast<Mesh&>(mesh);
            for (zenr::Level level : zenrtest::levels())
                for (auto side : {Guarded<float>::atEnd, Guarded<float>::atStart}) {
                    Guarded<float> normals(3 * size_t(count), side);
                    zenr::shadingKernels(level).triangleNormal(m.vertices.data(), m.triangles.data(), normals.data(),
                                                               count);
                    mesh.expectSame(normals.data(), levelName(level));
                }
        }
}

TEST(TriangleNormal, AnyNumberOfThreads) {
    for (int count : {1, 5, 64, 65, 129, 448, 801, 5003}) {
        Mesh mesh(count, uint32_t(count) | 1);
        for (int threads : {1, 2, 3, 7}) {
            const ThreadCount set(threads);
            for (zenr::Level level : zenrtest::levels()) {
                std::vector<float> normals(3 * size_t(count) + 8, 7.f);
                zenr::ownTriangleNormal(level, mesh.vertices.data(), mesh.triangles.data(), normals.data(), count);
                mesh.expectSame(normals.data(), levelName(level));
                for (int i = 0; i < 8; ++i) ASSERT_EQ(normals[3 * size_t(count) + i], 7.f);
            }
            std::vector<float> normals(3 * size_t(count));
            ASSERT_EQ(zenrTriangleNormal_32f(mesh.vertices.data(), mesh.triangles.data(), normals.data(), count),
                      zenStsNoErr);
            mesh.expectSame(normals.data(), "exported");
        }
    }
}

TEST(TriangleNormal, InsideAnotherParallelRegion) {
    Mesh mesh(801, 1);
    const ThreadCount set(3);
    std::vector<std::vector<float>> normals(3, std::vector<float>(3 * 801));
#pragma omp parallel num_threads(3)
    {
        float* out = normals[size_t(omp_get_thread_num())].data();
        zenrTriangleNormal_32f(mesh.vertices.data(), mesh.triangles.data(), out, 801);
    }
    mesh.expectSame(normals[0].data(), "nested");
}

TEST(TriangleNormal, OrientationAndDegenerateTriangles) {
    // Two triangles in the plane z = 0, wound either way, a point and a line; one just below and one above the limit.
    const float tiny = 1.2e-8f, small = 1.3e-4f;
    const float vertices[] = {0, 0, 0, 1, 0, 0, 0, 1, 0, 2, 0, 0, tiny, 0, 0, small, 0, 0, 0, small, 0};
    const int triangles[] = {0, 1, 2, -9, 1, 0, 2, -9, 0, 0, 0, -9, 0, 1, 3, -9, 0, 4, 2, -9, 0, 5, 6, -9};
    const float should[] = {0, 0, 1, 0, 0, -1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    float normals[18];
    ASSERT_EQ(zenrTriangleNormal_32f(vertices, triangles, normals, 6), zenStsNoErr);
    for (int i = 0; i < 18; ++i) EXPECT_EQ(normals[i], should[i]) << i;
}

// ---- By hand -------------------------------------------------------------------------------------------------------

TEST(CastReflection, LongNormalScalesTheCorrection) {
    const float i[3] = {1, -1, 0}, n[3] = {0, 2, 0};
    const float* const in[3] = {&i[0], &i[1], &i[2]};
    const float* const normal[3] = {&n[0], &n[1], &n[2]};
    const int mask = 0;
    float out[3];
    float* const reflected[3] = {&out[0], &out[1], &out[2]};
    ASSERT_EQ(zenrCastReflectionRay_32f(in, &mask, normal, reflected, 1), zenStsNoErr);
    EXPECT_EQ(out[0], 1.f);
    EXPECT_EQ(out[1], -1.f + 4 * 2.f); // a unit normal gives -1 + 2
    EXPECT_EQ(out[2], 0.f);
}

TEST(CastShadow, GrazingInactiveAndTurnedAway) {
    // The light 0, points on the x axis, normals along x: N.(P - L) is the point's x.
    constexpr int n = 8;
    const float light[3] = {0, 0, 0};
    const float x[n] = {0.0017f, 0.0018f, 0.0018f, 5.f, 5.f, -5.f, 5.f, NAN};
    const float one[n] = {1, 1, 1, 1, 1, 1, 1, 1}, zero[n] = {};
    const float side[n] = {1e30f, 1, -1, 1, 1, -1, NAN, 1};
    int mask[n] = {3, 3, 3, -7, 3, 3, 3, 3};
    const int maskAfter[n] = {-1, 3, -1, -7, 3, 3, -1, -1};
    const float cosineAfter[n] = {0, 0.0018f, 0, 0, 5, 5, 0, 0};
    const float directionAfter[n] = {0, 0.0018f, 0, 0, 5, -5, 0, 0};
    const float* const normal[3] = {one, zero, zero};
    const float* const point[3] = {x, zero, zero};
    float cosine[n], d[3][n];
    float* const direction[3] = {d[0], d[1], d[2]};
    ASSERT_EQ(zenrCastShadowSO_32f(light, side, normal, point, mask, cosine, direction, n), zenStsNoErr);
    for (int i = 0; i < n; ++i) {
        EXPECT_EQ(mask[i], maskAfter[i]) << i;
        EXPECT_EQ(cosine[i], cosineAfter[i]) << i;
        EXPECT_EQ(d[0][i], directionAfter[i]) << i;
        EXPECT_EQ(d[1][i], 0.f) << i;
    }
}

// side * dot may be too small for a float and still positive.
TEST(CastShadow, TheSideIsDecidedInDouble) {
    const float light[3] = {0, 0, 0}, x = 0.002f, one = 1, zero = 0, side = 1e-45f;
    const float* const normal[3] = {&one, &zero, &zero};
    const float* const point[3] = {&x, &zero, &zero};
    int mask = 0;
    float cosine, d[3];
    float* const direction[3] = {&d[0], &d[1], &d[2]};
    ASSERT_EQ(zenrCastShadowSO_32f(light, &side, normal, point, &mask, &cosine, direction, 1), zenStsNoErr);
    EXPECT_EQ(mask, 0);
    EXPECT_EQ(cosine, x);
}

TEST(DistAttenuation, ClampsBelowOne) {
    const float light[3] = {1, 1, 1};
    const float x[5] = {1.5f, 4.f, 1.f, NAN, 9.f}, same[5] = {1, 1, 1, 1, 1};
    const float* const point[3] = {x, same, same};
    const int mask[5] = {0, 0, 0, 0, -1};
    float out[5];
    ASSERT_EQ(zenrDistAttenuationSO_32f_M(light, point, mask, out, 5), zenStsNoErr);
    EXPECT_EQ(out[0], 1.f);
    EXPECT_EQ(out[1], 3.f);
    EXPECT_EQ(out[2], 1.f);
    EXPECT_TRUE(out[3] != out[3]);
    EXPECT_EQ(out[4], 1.f);
}

TEST(HitPoint, EpsilonOneIsThePointItself) {
    const float origin[3] = {1, 2, 3}, d[2] = {0.5f, 0.5f}, distance[2] = {4, 4};
    const float* const direction[3] = {d, d, d};
    const int mask[2] = {0, -1};
    float p[3][2];
    float* const point[3] = {p[0], p[1], p[2]};
    ASSERT_EQ(zenrHitPoint3DEpsS0_32f_M(origin, direction, distance, mask, point, 2, 1.f), zenStsNoErr);
    for (int k = 0; k < 3; ++k) {
        EXPECT_EQ(p[k][0], origin[k] + 2);
        EXPECT_EQ(bitsOf(p[k][1]), 0u);
    }
}

TEST(SmoothNormal, FirstWeightIsTheFirstVertexAndShortSumsAreZero) {
    // 2^-23 squared length is the first that counts; its neighbour below does not.
    const float edge = 1.f / 4096;
    const float below = floatOf(bitsOf(edge) - 1);
    const float normals[] = {3, 4, 0, 0, 0, 1, 0, 1, 0, edge, edge, 0, edge, below, 0};
    const int triangles[] = {0, 1, 2, 3, 1, 2, 4, 1, 2};
    const int triangle[4] = {0, 1, 2, -1};
    const float u[4] = {1, 1, 1, NAN}, v[4] = {0, 0, 0, NAN};
    const float* const hit[2] = {u, v};
    float n[3][4];
    float* const out[3] = {n[0], n[1], n[2]};
    ASSERT_EQ(zenrSurfSmoothNormal_32f(normals, triangles, triangle, hit, out, 4, 3), zenStsNoErr);
    EXPECT_EQ(n[0][0], 0.6f);
    EXPECT_EQ(n[1][0], 0.8f);
    EXPECT_EQ(n[0][1], float(double(edge) / double(float(std::sqrt(double(FLT_EPSILON))))));
    for (int k = 0; k < 3; ++k) {
        EXPECT_EQ(bitsOf(n[k][2]), 0u);
        EXPECT_EQ(bitsOf(n[k][3]), 0u);
    }
}

TEST(MaskedArithmetic, DivisionByZero) {
    const float src[9] = {0, 0, 0, -0.f, -0.f, 0, 2, 0, 0};
    float dst[9] = {1, -1, 0, 1, -1, NAN, 5, 1, INFINITY};
    const int mask[9] = {0, 0, 0, 0, 0, 0, 0, -1, 0};
    const uint32_t should[9] = {0x7F800000u, 0xFF800000u,  0xFFC00000u, 0x7F800000u, 0xFF800000u,
                                0xFFC00000u, bitsOf(2.5f), 0,           0x7F800000u};
    ASSERT_EQ(zenrDiv_32f_C1IM(src, mask, dst, 9), zenStsNoErr);
    for (int i = 0; i < 9; ++i) EXPECT_EQ(bitsOf(dst[i]), should[i]) << i;
}

// Float arithmetic stands for double arithmetic in the products and quotients: hardest for denormal results.
TEST(MaskedArithmetic, DenormalProductsAndQuotients) {
    std::mt19937 engine(5);
    const int n = rounds(400000);
    std::vector<float> src(n), product(n), quotient(n);
    std::vector<int> mask(n, 0);
    std::vector<float> a(n);
    for (int i = 0; i < n; ++i) {
        a[i] = floatOf((engine() & 0x807FFFFFu) | (engine() % 60) << 23);
        src[i] = floatOf((engine() & 0x807FFFFFu) | (60 + engine() % 140) << 23);
    }
    product = quotient = a;
    zenrMul_32f_C1IM(src.data(), mask.data(), product.data(), n);
    zenrDiv_32f_C1IM(src.data(), mask.data(), quotient.data(), n);
    for (int i = 0; i < n; ++i) {
        ASSERT_EQ(bitsOf(product[i]), bitsOf(reference::product(a[i], src[i], 0))) << i;
        ASSERT_EQ(bitsOf(quotient[i]), bitsOf(reference::quotient(a[i], src[i], 0))) << i;
    }
}

TEST(MaskedArithmetic, PerpendicularNormalIsKept) {
    const float a[3] = {1, 0, 0};
    float n[4] = {-0.f, 1, 2, 9};
    const float* const in[3] = {&a[0], &a[1], &a[2]};
    float* const normal[3] = {&n[0], &n[1], &n[2]};
    const int mask = 0;
    ASSERT_EQ(zenrDotChangeNorm_32f_IM(in, &mask, normal, &n[3], 1), zenStsNoErr);
    EXPECT_EQ(bitsOf(n[0]), 0x80000000u);
    EXPECT_EQ(n[1], 1.f);
    EXPECT_EQ(n[2], 2.f);
    EXPECT_EQ(n[3], 0.f);
}

// A product too small for a float is positive all the same.
TEST(MaskedArithmetic, NormalsTurnByTheProductInDouble) {
    const float a[3] = {1e-30f, 0, 0};
    float n[4] = {1e-30f, 1, 2, 9};
    const float* const in[3] = {&a[0], &a[1], &a[2]};
    float* const normal[3] = {&n[0], &n[1], &n[2]};
    const int mask = 0;
    ASSERT_EQ(zenrDotChangeNorm_32f_IM(in, &mask, normal, &n[3], 1), zenStsNoErr);
    EXPECT_EQ(n[0], -1e-30f);
    EXPECT_EQ(n[1], -1.f);
    EXPECT_EQ(bitsOf(n[3]), 0x80000000u);
}
