// Speed of the ray and shading kernels, one thread: nanoseconds per element at each level, and how many times faster the
// widest is than plain loops over the definitions in the same run, compiled for this very processor.
//   bench_shading [elements=4096]
// The last rows show what a wide call leaves behind: the speed of a caller's own SSE code before and after it.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <random>
#include <vector>

#include "reference/shading_reference.h"
#include "shading/harness.h"
#include "timing.h"

namespace {

using zenr::Level;
using zenrtest::Op;

// Least time of a call, of several rounds of about a millisecond: the machine is shared.
template <class F> double seconds(const F& f) {
    int calls = 1;
    double best = 1e9;
    for (int round = 0; round < 30; ++round) {
        const double start = wallSeconds();
        for (int i = 0; i < calls; ++i) f();
        const double took = (wallSeconds() - start) / calls;
        if (took < best) best = took;
        if (took * calls < 1e-3) calls *= 2, --round;
    }
    return best;
}

const char* const kNames[] = {"sse2", "avx2", "avx512"};

std::vector<Level> levels() {
    std::vector<Level> all{Level::sse2};
    if (zenr::bestLevel() >= Level::avx2) all.push_back(Level::avx2);
    if (zenr::bestLevel() >= Level::avx512) all.push_back(Level::avx512);
    return all;
}

template <class Run> void row(const char* name, int n, double plain, const Run& run) {
    printf("%-18s %8.3f", name, plain / n * 1e9);
    double last = 0;
    for (Level level : levels()) {
        last = seconds([&] {
            const zenr::WideScope scope(level);
            run(level);
        });
        printf(" %8.3f", last / n * 1e9);
    }
    printf("   %11.2f\n", plain / last);
}

// Numbers of size 1 with random signs, three of four rays active, triangles in random order: what is multiplied into
// itself over and over stays a number.
struct Data {
    std::vector<std::vector<float>> memory;
    zenrtest::Planes planes = {};

    Data(const Op& op, const zenrtest::Scene& scene, int n) {
        std::mt19937 engine(3);
        for (int i = 0; i < op.planes(); ++i) {
            memory.emplace_back(size_t(n));
            for (int e = 0; e < n; ++e) {
                int32_t word = engine() % 4 ? 0 : -1;
                const float number = engine() & 1 ? 1.f : -1.f;
                if (op.roles[i] == 't' && word == 0) word = int32_t(engine() % uint32_t(scene.triangleCount));
                memcpy(&memory.back()[size_t(e)], op.numbers(i) ? static_cast<const void*>(&number) : &word, 4);
            }
            planes.plane[i] = memory.back().data();
        }
    }
};

// The two that do not work ray by ray.
void tables(const zenrtest::Scene& scene, int n) {
    std::vector<float> memory(size_t(3) * n);
    float* const direction[3] = {memory.data(), memory.data() + n, memory.data() + 2 * n};
    const float* s = scene.shared;
    const double eye = seconds([&] {
        for (int k = 0; k < 3; ++k)
            for (int i = 0; i < n; ++i) direction[k][i] = reference::eyeDirection(s[k], s[k] * 2, s[k] * 3, i, 7);
    });
    row("castEye", n, eye, [&](Level level) {
        const float w[3] = {s[0] * 2, s[1] * 2, s[2] * 2}, h[3] = {s[0] * 3, s[1] * 3, s[2] * 3};
        zenr::shadingKernels(level).castEye(s, w, h, 0, 7, direction, n, 1);
    });

    const int count = n < scene.triangleCount ? n : scene.triangleCount;
    const float* vertices = scene.vertices->data();
    const int* triangles = scene.triangles->data();
    std::vector<float> normals(size_t(3) * count);
    const double plain = seconds([&] {
        for (int i = 0; i < count; ++i) {
            reference::triangleNormal(vertices, triangles + size_t(scene.stride) * i, &normals[3 * size_t(i)]);
        }
    });
    row("triangleNormal", count, plain,
        [&](Level level) { zenr::shadingKernels(level).triangleNormal(vertices, triangles, normals.data(), count); });
}

// A caller's SSE code: what it costs, alone and after a wide kernel.
typedef float V4 __attribute__((vector_size(16)));
__attribute__((noinline)) V4 callersCode(V4 x) {
    V4 a = x, b = x * 2.f, c = x * 3.f, d = x * 4.f;
    for (int i = 0; i < 2000; ++i) {
        a = a * 0.999f + 0.001f, b = b * 0.999f + 0.001f, c = c * 0.999f + 0.001f, d = d * 0.999f + 0.001f;
        asm volatile("" : "+x"(a), "+x"(b), "+x"(c), "+x"(d));
    }
    return a + b + c + d;
}

void afterWideCalls() {
    std::vector<float> a(512, 1.f);
    std::vector<int> active(512, 0);
    const Level level = zenr::bestLevel();
    const auto timeAfter = [&](bool wide, bool scoped) {
        std::vector<double> times;
        for (int round = 0; round < 2001; ++round) {
            if (wide) {
                const zenr::WideScope scope(scoped ? level : Level::sse2);
                zenr::shadingKernels(level).mulC1(a.data(), active.data(), a.data(), 512);
            }
            const double start = wallSeconds();
            V4 x = callersCode(V4{1, 2, 3, 4});
            asm volatile("" : : "x"(x));
            times.push_back(wallSeconds() - start);
        }
        // The middle, not the least: a switch to another process cleans up too.
        std::nth_element(times.begin(), times.begin() + 1000, times.end());
        return times[1000];
    };
    const double alone = timeAfter(false, false);
    printf(
        "\na caller's SSE code after a wide call, times what it takes alone: %.2f; without the call's clean-up %.2f\n",
        timeAfter(true, true) / alone, timeAfter(true, false) / alone);
}

} // namespace

int main(int argc, char** argv) {
    const int n = argc > 1 ? atoi(argv[1]) : 4096;
    if (n < 1 || n > 1 << 24) return fprintf(stderr, "elements: 1 to 16777216\n"), 2;

    zenrtest::Scene scene = zenrtest::randomScene(1, 4096, 2048);
    std::mt19937 engine(2);
    std::uniform_real_distribution<float> moderate(-4.f, 4.f);
    for (float& x : scene.shared) x = moderate(engine);
    scene.eps = 0.999f;
    for (auto* table : {scene.triangleNormals.get(), scene.vertices.get()})
        for (size_t i = 0; i < table->size(); ++i) (*table)[i] = moderate(engine);

    printf("%-18s %8s", "ns per element", "plain");
    for (Level level : levels()) printf(" %8s", kNames[int(level)]);
    printf("   times plain\n");
    for (const Op& op : zenrtest::ops()) {
        Data data(op, scene, n);
        const double plain = seconds([&] { op.reference(scene, data.planes, n); });
        row(op.name, n, plain, [&](Level level) { op.kernel(level, scene, data.planes, n); });
    }
    tables(scene, n);
    afterWideCalls();
    return 0;
}
