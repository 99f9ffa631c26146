// Flavours agree: a scene (box, records, tree) and the results of tracing it are written to a file by one flavour and
// traced again by the other. Each run writes its own file and checks those that it finds; scripts/test runs the first
// flavour once more after the second, with ZENR_EXCHANGE_ALL set, so that each has read the other's.
#include <stdio.h>

#include <string>

#include "scene_fixture.h"

using namespace zenrtest;

namespace {

constexpr int kRays = 2000;
constexpr int kLayers = 9;
const char* const kFlavour = sizeof(void*) == 4 ? "i386" : "native";
const char* const kFlavours[] = {"i386", "native"};
const float kEye[3] = {0.3f, -0.2f, 2.5f};

std::string fileOf(const char* flavour) {
    return std::string(ZENR_EXCHANGE_DIR) + "/scene-" + flavour + ".bin";
}

using Bytes = std::vector<char>;

template <class T> void append(Bytes& bytes, const T* data, size_t count) {
    const char* p = reinterpret_cast<const char*>(data);
    bytes.insert(bytes.end(), p, p + count * sizeof(T));
}

// Results of all four intersectors.
Bytes trace(const ZenrIntersectContext& context, const reference::Mesh& mesh) {
    Bytes bytes;
    Rays own(kRays), eye(kRays), any(kRays), several(kRays, kLayers);
    fillRays(own, mesh, 1);
    fillRays(eye, mesh, 2, kEye);
    fillRays(any, mesh, 3, kEye);
    fillRays(several, mesh, 4, kEye);
    const ZenrSize size = {kRays, 1};
    zenrIntersectMO_32f(own.origins(), own.directions(), own.distance.data(), own.hits(), own.triangle.data(), &context,
                        size);
    zenrIntersectEyeSO_32f(kEye, eye.directions(), eye.distance.data(), eye.hits(), eye.triangle.data(), &context,
                           size);
    zenrIntersectAnySO_32f(kEye, any.directions(), any.triangle.data(), any.mask.data(), size, &context);
    zenrIntersectMultipleSO_32f(kEye, several.directions(), several.distance.data(), several.hits(),
                                several.triangle.data(), size, kLayers, &context);
    for (Rays* rays : {&own, &eye, &any, &several}) {
        append(bytes, rays->triangle.data(), rays->triangle.size());
        append(bytes, rays->distance.data(), rays->distance.size());
        append(bytes, rays->hit0.data(), rays->hit0.size());
        append(bytes, rays->hit1.data(), rays->hit1.size());
    }
    return bytes;
}

bool read(const std::string& name, Bytes& bytes) {
    FILE* file = fopen(name.c_str(), "rb");
    if (!file) return false;
    char block[65536];
    for (size_t n; (n = fread(block, 1, sizeof block, file)) > 0;) bytes.insert(bytes.end(), block, block + n);
    fclose(file);
    return true;
}

} // namespace

TEST(Exchange, TreeAndRecordsOfOneFlavourAreTracedByTheOther) {
    const reference::Mesh mesh = reference::soup(2000, 0.1f, 51);
    TestScene scene(mesh, 3, 30);
    const size_t accelBytes = scene.accel.size() * sizeof(ZenrTriangleAccel), treeBytes = scene.tree.size() * 4;

    Bytes mine;
    append(mine, scene.box, 6);
    append(mine, scene.accel.data(), scene.accel.size());
    append(mine, scene.tree.data(), scene.tree.size());
    const Bytes results = trace(scene.context, mesh);
    append(mine, results.data(), results.size());
    FILE* file = fopen(fileOf(kFlavour).c_str(), "wb");
    ASSERT_NE(file, nullptr);
    ASSERT_EQ(fwrite(mine.data(), 1, mine.size(), file), mine.size());
    ASSERT_EQ(fclose(file), 0);

    for (const char* flavour : kFlavours) {
        Bytes theirs;
        if (!read(fileOf(flavour), theirs)) {
            EXPECT_EQ(getenv("ZENR_EXCHANGE_ALL"), nullptr) << "no file of " << flavour;
            continue;
        }
        ASSERT_EQ(theirs.size(), mine.size()) << flavour;
        EXPECT_EQ(memcmp(theirs.data(), mine.data(), mine.size()), 0) << "other bytes from " << flavour;

        std::vector<float> box(6);
        std::vector<ZenrTriangleAccel> accel(scene.accel.size());
        std::vector<uint32_t> tree(scene.tree.size());
        const char* at = theirs.data();
        memcpy(box.data(), at, 24);
        memcpy(accel.data(), at += 24, accelBytes);
        memcpy(tree.data(), at += accelBytes, treeBytes);
        at += treeBytes;
        const ZenrIntersectContext context = {box.data(), accel.data(),
                                              reinterpret_cast<const ZenrKDTreeNode*>(tree.data())};
        const Bytes again = trace(context, mesh);
        ASSERT_EQ(again.size(), size_t(theirs.data() + theirs.size() - at));
        EXPECT_EQ(memcmp(again.data(), at, again.size()), 0) << "other results than " << flavour;
    }
}
