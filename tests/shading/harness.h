// One harness for all kernels that work ray by ray: random planes at any offset between canaries or guard pages, the
// kernel under test beside the plain definition, and every byte compared afterwards.
#pragma once
#include <functional>
#include <memory>
#include <string>

#include "shading/shading.h"
#include "support.h"
#include "zenr.h"

namespace zenrtest {

// What a kernel reads besides its planes. Tables are exactly as large as the triangles need, between guard pages.
struct Scene {
    float shared[3]; // an origin, a light or a factor that all rays share
    float eps;
    int triangleCount;
    int stride;
    std::unique_ptr<Guarded<float>> triangleNormals;
    std::unique_ptr<Guarded<float>> vertices; // or vertex normals
    std::unique_ptr<Guarded<int>> triangles;
};

inline Scene randomScene(uint32_t seed, int triangles = 40, int vertices = 23, int stride = 4) {
    Floats random(seed);
    Scene scene;
    for (float& x : scene.shared) x = random.bits() % 4 ? random.moderate() : random.any();
    scene.eps = random.bits() % 4 ? 0.999f : random.any();
    scene.triangleCount = triangles;
    scene.stride = stride;
    scene.triangleNormals = std::make_unique<Guarded<float>>(size_t(3) * triangles);
    scene.vertices = std::make_unique<Guarded<float>>(size_t(3) * vertices);
    // The words after the last triangle's three indices are not part of the table.
    scene.triangles = std::make_unique<Guarded<int>>(triangles ? size_t(stride) * (triangles - 1) + 3 : 0);
    for (size_t i = 0; i < scene.triangleNormals->size(); ++i) (*scene.triangleNormals)[i] = random.any();
    for (size_t i = 0; i < scene.vertices->size(); ++i) (*scene.vertices)[i] = random.any();
    for (size_t i = 0; i < scene.triangles->size(); ++i)
        (*scene.triangles)[i] = int(i) % stride < 3 ? int(random.bits() % uint32_t(vertices)) : int(random.bits());
    return scene;
}

constexpr int kMaxPlanes = 12;

// The planes of one call, floats and ints alike.
struct Planes {
    float* plane[kMaxPlanes];
    float* f(int i) const { return plane[i]; }
    int* n(int i) const { return reinterpret_cast<int*>(plane[i]); }
    const float* const* in3(int i) const { return const_cast<const float* const*>(plane + i); }
    float* const* out3(int i) const { return plane + i; }
};

using Shade = std::function<void(const Scene&, const Planes&, int count)>;

struct Op {
    const char* name;
    // A letter a plane. Inputs: f numbers, m mask, t triangle. Outputs: o numbers. In and out: x numbers, M mask.
    // O and X: outputs that are compared to the bit, NaNs included.
    const char* roles;
    std::function<void(zenr::Level, const Scene&, const Planes&, int)> kernel; // through the table
    std::function<ZenStatus(const Scene&, const Planes&, int)> function;       // through the exported function
    Shade reference;

    int planes() const { return int(strlen(roles)); }
    bool writes(int i) const { return strchr("oxOXM", roles[i]); }
    bool exact(int i) const { return !strchr("ox", roles[i]); }
    bool numbers(int i) const { return strchr("foxOX", roles[i]); }
};

const std::vector<Op>& ops();

enum class Place { canaries, guardAtEnd, guardAtStart };

// share[i] is the plane whose memory plane i uses, i itself for none.
struct Trial {
    int count;
    uint32_t seed;
    Place place = Place::canaries;
    std::vector<int> share = {};
    bool tame = false; // moderate numbers only
};

constexpr uint32_t kCanary = 0x7FA5C35Au;

// Memory of one plane.
class Memory {
public:
    Memory(Place place, size_t count, size_t offset) : count_(count) {
        if (place == Place::canaries) {
            words_.assign(kMargin + offset + count + kMargin, kCanary);
            data_ = words_.data() + kMargin + offset;
        } else {
            guarded_ = std::make_unique<Guarded<uint32_t>>(
                count, place == Place::guardAtEnd ? Guarded<uint32_t>::atEnd : Guarded<uint32_t>::atStart);
            data_ = guarded_->data();
        }
    }
    uint32_t* data() { return data_; }
    bool canariesLive() const {
        for (const uint32_t& word : words_)
            if ((&word < data_ || &word >= data_ + count_) && word != kCanary) return false;
        return true;
    }

private:
    static constexpr size_t kMargin = 24;
    size_t count_;
    std::vector<uint32_t> words_;
    std::unique_ptr<Guarded<uint32_t>> guarded_;
    uint32_t* data_;
};

inline uint32_t randomWord(char role, const Scene& scene, Floats& random, bool tame) {
    switch (role) {
    case 'm':
    case 'M': {
        static const int masks[] = {-1, 0, 1, INT32_MIN, INT32_MAX, 7, -2, 0};
        return uint32_t(masks[random.bits() % 8]);
    }
    case 't':
        if (scene.triangleCount == 0 || random.bits() % 4 == 0) return random.bits() | 0x80000000u;
        return random.bits() % uint32_t(scene.triangleCount);
    default:
        return bitsOf(tame ? random.moderate() : random.any());
    }
}

// Runs `run` and the plain definition on the same planes; says what differs, or nothing.
inline std::string difference(const Op& op, const Shade& run, const Scene& scene, const Trial& trial) {
    const int planes = op.planes();
    const size_t count = size_t(trial.count);
    Floats random(trial.seed);
    std::vector<std::vector<uint32_t>> before(planes), expected;
    std::vector<std::unique_ptr<Memory>> memory(planes);
    std::vector<int> share = trial.share;
    for (int i = int(share.size()); i < planes; ++i) share.push_back(i);

    for (int i = 0; i < planes; ++i) {
        memory[i] = std::make_unique<Memory>(trial.place, count, random.bits() % 16);
        for (size_t e = 0; e < count; ++e) before[i].push_back(randomWord(op.roles[i], scene, random, trial.tame));
    }
    for (int i = 0; i < planes; ++i) before[i] = before[share[i]];

    expected = before;
    Planes actualPlanes = {}, expectedPlanes = {};
    for (int i = 0; i < planes; ++i) {
        memcpy(memory[i]->data(), before[i].data(), count * 4);
        expectedPlanes.plane[i] = reinterpret_cast<float*>(expected[i].data());
        actualPlanes.plane[i] = reinterpret_cast<float*>(memory[share[i]]->data());
    }
    op.reference(scene, expectedPlanes, trial.count);
    run(scene, actualPlanes, trial.count);
    // A shared plane ends as the output that shares it.
    for (int i = 0; i < planes; ++i)
        if (share[i] != i) expected[share[i]] = expected[i];

    char text[200];
    for (int i = 0; i < planes; ++i) {
        if (!memory[i]->canariesLive()) {
            snprintf(text, sizeof text, "%s count %d: plane %d written outside", op.name, trial.count, i);
            return text;
        }
        if (share[i] != i) continue;
        bool shared = false;
        bool exact = op.exact(i);
        for (int j = 0; j < planes; ++j)
            if (j != i && share[j] == i) shared = true, exact = op.exact(j);
        const bool written = op.writes(i) || shared;
        for (size_t e = 0; e < count; ++e) {
            uint32_t is = memory[i]->data()[e], should = expected[i][e];
            const bool same = written && !exact ? sameFloat(floatOf(is), floatOf(should)) : is == should;
            if (same) continue;
            snprintf(text, sizeof text, "%s count %d: plane %d element %d is %08x (%g), should be %08x (%g)", op.name,
                     trial.count, i, int(e), is, double(floatOf(is)), should, double(floatOf(should)));
            return text;
        }
    }
    return {};
}

} // namespace zenrtest
