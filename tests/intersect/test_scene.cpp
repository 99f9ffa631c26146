// Bounding box and triangle records against their plain definitions.
#include "reference/meshes.h"
#include "reference/scene_reference.h"
#include "support.h"
#include "zenr.h"

using namespace zenrtest;

namespace {

std::array<uint32_t, 10> record(const float (&v)[9]) {
    const int triangle[4] = {0, 1, 2, 12345};
    ZenrTriangleAccel accel;
    EXPECT_EQ(zenrTriangleAccelInit(&accel, v, triangle, 1), zenStsNoErr);
    std::array<uint32_t, 10> words;
    memcpy(words.data(), &accel, sizeof accel);
    return words;
}

void expectSameRecord(const std::array<uint32_t, 10>& got, const std::array<uint32_t, 10>& want) {
    EXPECT_EQ(got[0], want[0]);
    for (int i = 1; i < 10; ++i) EXPECT_TRUE(sameFloat(floatOf(got[i]), floatOf(want[i]))) << "word " << i;
}

} // namespace

TEST(BoundBox, MatchesItsDefinition) {
    Floats random(1);
    for (int round = 0; round < rounds(2000); ++round) {
        const int n = int(random.bits() % 20);
        Guarded<float> v(size_t(3 * n));
        const bool wild = round % 2;
        for (int i = 0; i < 3 * n; ++i) v[i] = wild ? random.any() : random.moderate();
        Guarded<float> box(6);
        ASSERT_EQ(zenrSetBoundBox_32f(v.data(), n, box.data()), zenStsNoErr);
        const auto want = reference::boundBox(v.data(), n);
        for (int i = 0; i < 6; ++i) ASSERT_TRUE(sameFloat(box[i], want[i])) << n << " " << i;
    }
}

TEST(BoundBox, NullVerticesAreRefusedAndNothingIsWritten) {
    float box[6] = {1, 2, 3, 4, 5, 6};
    EXPECT_EQ(zenrSetBoundBox_32f(nullptr, 3, box), zenStsNullPtrErr);
    EXPECT_EQ(zenrSetBoundBox_32f(nullptr, 3, nullptr), zenStsNullPtrErr);
    for (int i = 0; i < 6; ++i) EXPECT_EQ(box[i], float(i + 1));
}

TEST(BoundBox, NoVerticesGiveAnInvertedBox) {
    const float unused = 0;
    for (int count : {0, -1, -2147483647 - 1}) {
        float box[6];
        ASSERT_EQ(zenrSetBoundBox_32f(&unused, count, box), zenStsNoErr);
        for (int k = 0; k < 3; ++k) {
            EXPECT_EQ(box[k], 3.4024831e38f);
            EXPECT_EQ(box[3 + k], -3.4024831e38f);
        }
    }
}

TEST(BoundBox, TinyScenesGetTheSmallestMargin) {
    const float tiny[3] = {1e-40f, -1e-40f, 0.f};
    float box[6];
    zenrSetBoundBox_32f(tiny, 1, box);
    for (int k = 0; k < 3; ++k) {
        EXPECT_LT(box[k], tiny[k]);
        EXPECT_GT(box[3 + k], tiny[k]);
    }
    const float margin = float(double(0.0001f) * double(1.17549435e-38f));
    EXPECT_EQ(box[2], -margin);
    EXPECT_EQ(box[5], margin);
}

TEST(BoundBox, NaNIsPassedOver) {
    const float v[9] = {NAN, 1, 2, 3, NAN, 4, 5, 6, NAN};
    float box[6];
    zenrSetBoundBox_32f(v, 3, box);
    const float margin = 6 * 0.0001f;
    EXPECT_FLOAT_EQ(box[0], 3 - margin);
    EXPECT_FLOAT_EQ(box[4], 6 + margin);
    EXPECT_FLOAT_EQ(box[5], 4 + margin);
}

TEST(Record, SizeIsForty) {
    int size = 0;
    EXPECT_EQ(zenrTriangleAccelGetSize(&size), zenStsNoErr);
    EXPECT_EQ(size, 40);
    EXPECT_EQ(zenrTriangleAccelGetSize(nullptr), zenStsNullPtrErr);
    static_assert(sizeof(ZenrTriangleAccel) == 40, "the record's layout is fixed");
}

TEST(Record, CountsBelowOneDoNothing) {
    ZenrTriangleAccel accel;
    memset(&accel, 0x5A, sizeof accel);
    EXPECT_EQ(zenrTriangleAccelInit(&accel, nullptr, nullptr, 0), zenStsNoErr);
    EXPECT_EQ(zenrTriangleAccelInit(&accel, nullptr, nullptr, -5), zenStsNoErr);
    for (size_t i = 0; i < sizeof accel; ++i) EXPECT_EQ(reinterpret_cast<unsigned char*>(&accel)[i], 0x5A);
}

TEST(Record, MatchesItsDefinition) {
    Floats random(2);
    for (int round = 0; round < rounds(20000); ++round) {
        float v[9];
        for (float& x : v) {
            x = round % 4 == 0 ? random.any() : random.moderate();
            if (round % 4 == 1) x = float(int(x)); // many ties, axis-aligned and degenerate triangles
            if (round % 4 == 2) x *= 1e-7f;
        }
        expectSameRecord(record(v), reference::triangleRecord(v, v + 3, v + 6));
        if (HasFailure()) FAIL() << "round " << round;
    }
}

TEST(Record, ArraysFillTheirBlockExactly) {
    const reference::Mesh mesh = reference::soup(50, 0.3f, 3);
    Guarded<ZenrTriangleAccel> accel(50);
    Guarded<float> vertices(mesh.vertices.size());
    Guarded<int> triangles(mesh.triangles.size());
    memcpy(vertices.data(), mesh.vertices.data(), 4 * mesh.vertices.size());
    memcpy(triangles.data(), mesh.triangles.data(), 4 * mesh.triangles.size());
    zenrTriangleAccelInit(accel.data(), vertices.data(), triangles.data(), 50);
    for (int j = 0; j < 50; ++j) {
        const int* t = &mesh.triangles[4 * j];
        const auto want = reference::triangleRecord(&vertices[3 * t[0]], &vertices[3 * t[1]], &vertices[3 * t[2]]);
        EXPECT_EQ(memcmp(&accel[j], want.data(), 40), 0) << j;
    }
}

TEST(Record, TrianglesWithoutAreaAreZeros) {
    for (const auto& words : {record({1, 2, 3, 1, 2, 3, 1, 2, 3}), record({0, 0, 0, 1, 1, 1, 2, 2, 2}),
                              record({0, 0, 0, 0, 0, 0, 5, 1, 2})}) {
        for (uint32_t w : words) EXPECT_EQ(w, 0u);
    }
}

TEST(Record, AxisChoice) {
    EXPECT_EQ(record({0, 0, 7, 1, 0, 7, 0, 1, 7})[0], 0x80000021u) << "in a plane z = c";
    EXPECT_EQ(record({0, 0, 7, 1, 0, 7, 0, 1, 7})[1], 0u);
    EXPECT_EQ(record({0, 0, 7, 1, 0, 7, 0, 1, 7})[3], 0u);
    EXPECT_EQ(record({7, 0, 0, 7, 1, 0, 7, 0, 1})[0], 0x80000006u) << "in a plane x = c";
    EXPECT_EQ(record({0, 7, 0, 1, 7, 0, 0, 7, 1})[0], 0x80000012u) << "in a plane y = c";
    // Normal (1, 1, 0): x before y. Normal (1, 0, 1): x before z. Normal (0, 1, 1): y before z.
    EXPECT_EQ(record({0, 0, 1, 1, -1, 0, 0, 0, 0})[0], 0x06u);
    EXPECT_EQ(record({0, 1, 0, 1, 0, -1, 0, 0, 0})[0], 0x06u);
    EXPECT_EQ(record({1, 0, 0, 0, 1, -1, 0, 0, 0})[0], 0x12u);
}

TEST(Record, YDominantTrianglesCarryTheOppositeSign) {
    const float v[9] = {0, 1, 0.5f, 2, 1.1f, 0, 0, 1, 0};
    const auto words = record(v);
    ASSERT_EQ(words[0] & 0x3Fu, 0x12u);
    const double nY = 0.5 * 2 - 0.0 * 0.0; // E1 = (0, 0, 0.5), E2 = (2, 0.1, 0): N.y = E1.z * E2.x - E1.x * E2.z
    EXPECT_FLOAT_EQ(floatOf(words[9]), float(-0.5 / nY));
    EXPECT_FLOAT_EQ(floatOf(words[6]), float(-2 / nY));
}
