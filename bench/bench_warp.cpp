// Affine warp and remap: ns per destination voxel of every type and mode, as ratios to the fastest of the peers; two
// threads against one; matrices that keep rows along x against a general one. Writes JSON with --benchmark_out=FILE.
//   --size N       edge of the cube (256)
//   --only TEXT    rows whose name contains TEXT: "warp 8u linear", "remap 32f cubic" ...
//   --level NAME   sse2, avx2 or avx512 instead of what the processor has (one thread; no peers)
//   --alone        no peers
#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "timing.h"
#include "volume/prremap.h"
#include "volume/prwarp.h"
#include "warp_peers.h"
#include "zencore.h"
#include "zenr.h"

using namespace zenr;

namespace {

std::string only, levelName;
bool alone = false;
FILE* json = nullptr;
bool first = true;

constexpr double kBudget = 0.4; // seconds a row

std::vector<double> wave(int n, double (*function)(double), double times) {
    std::vector<double> w;
    for (int i = 0; i < n; ++i) w.push_back(function(times * i / n));
    return w;
}

// Smooth, with some noise; 16-bit voxels have 12 bits, as scanners make them.
template <class T> std::vector<T> sourceVoxels(int n) {
    std::vector<T> v(size_t(n) * n * n);
    const auto wx = wave(n, sin, 54), wy = wave(n, cos, 42), wz = wave(n, cos, 30);
    uint32_t seed = 1;
    size_t i = 0;
    for (int z = 0; z < n; ++z)
        for (int y = 0; y < n; ++y)
            for (int x = 0; x < n; ++x, ++i) {
                seed = seed * 1664525u + 1013904223u;
                const double value = 0.5 + 0.3 * wx[x] * wy[y] * wz[z] + 0.2 * (seed >> 8) / 16777216.0;
                v[i] = T(value * (sizeof(T) == 1 ? 255 : sizeof(T) == 2 ? 4095 : 1));
            }
    return v;
}

template <class P> std::vector<P> planesOf(P voxels, int n) {
    std::vector<P> planes;
    for (int z = 0; z < n; ++z) planes.push_back(voxels + size_t(z) * n * n);
    return planes;
}

struct Case {
    const char* name;
    double matrix[12];
};

// A turn about the axis and a scale; the centre of a cube of n stays.
Case turned(const char* name, int n, double degrees, double ax, double ay, double az, double scale) {
    const double length = sqrt(ax * ax + ay * ay + az * az), t = degrees * M_PI / 180, s = sin(t), c = cos(t);
    const double x = ax / length, y = ay / length, z = az / length, d = 1 - c;
    const double r[3][3] = {{c + d * x * x, d * x * y - s * z, d * x * z + s * y},
                            {d * x * y + s * z, c + d * y * y, d * y * z - s * x},
                            {d * x * z - s * y, d * y * z + s * x, c + d * z * z}};
    Case result = {name, {}};
    for (int i = 0; i < 3; ++i) {
        double* const row = result.matrix + 4 * i;
        row[3] = (n - 1) / 2.;
        for (int k = 0; k < 3; ++k) {
            row[k] = r[i][k] * scale;
            row[3] -= row[k] * (n - 1) / 2;
        }
    }
    return result;
}

template <class T> struct Warps;
#define WARPS(T, suffix)                                                                                               \
    template <> struct Warps<T> {                                                                                      \
        static constexpr auto warp = &zenrWarpAffine_##suffix##_C1PV;                                                  \
        static constexpr auto remap = &zenrRemap_##suffix##_C1PV;                                                      \
        static constexpr const char* name = #suffix;                                                                   \
    };
WARPS(uint8_t, 8u)
WARPS(uint16_t, 16u)
WARPS(float, 32f)

Level levelOf(const std::string& name) {
    return name == "sse2" ? Level::sse2 : name == "avx2" ? Level::avx2 : Level::avx512;
}

// One row of the report: `matrix` null for a remap.
template <class T>
double row(const std::string& what, int n, const std::vector<T>& src, const double* matrix, const float* const map[3],
           int mode, bool peers) {
    const char* const modeName = mode == 1 ? "nearest" : mode == 2 ? "linear" : "cubic";
    const std::string name = std::string(matrix ? "warp " : "remap ") + Warps<T>::name + " " + modeName + " " + what;
    if (name.find(only) == std::string::npos) return 0;
    const double voxels = double(n) * n * n;
    std::vector<T> dst(src.size()), peer(src.size());
    const auto from = planesOf(src.data(), n);
    const auto to = planesOf(dst.data(), n);
    std::vector<const float*> maps[3];
    for (int k = 0; k < 3 && map; ++k) maps[k] = planesOf(map[k], n);
    const int step = n * int(sizeof(T));
    const ZenrVolume volume = {n, n, n};
    const ZenrBox box = {0, 0, 0, n, n, n};
    double inverse[12] = {};
    if (matrix) ownrGetInverseMatrix(matrix, inverse);
    const auto run = [&] {
        if (!levelName.empty() && matrix) {
            WarpTask<T> task = {sampleSource<T>(from.data(), step, volume, box), to.data(), n, box, {}};
            std::copy(inverse, inverse + 12, task.inverse);
            warpVolumes<T>()[mode](levelOf(levelName), task, 0, n);
        } else if (!levelName.empty()) {
            const RemapTask<T> task = {sampleSource<T>(from.data(), step, volume, box),
                                       {maps[0].data(), maps[1].data(), maps[2].data()},
                                       n,
                                       to.data(),
                                       n,
                                       volume};
            remapVolumes<T>()[mode](levelOf(levelName), task, 0, n);
        } else if (matrix) {
            Warps<T>::warp(from.data(), volume, step, box, to.data(), step, box, matrix, mode);
        } else {
            Warps<T>::remap(from.data(), volume, step, box, maps[0].data(), maps[1].data(), maps[2].data(), n * 4,
                            to.data(), step, volume, mode);
        }
    };
    zenSetNumThreads(1);
    const double one = leastSeconds(processSeconds, kBudget, run);
    printf("%-28s %8.3f ns/voxel", name.c_str(), one / voxels * 1e9);
    double fastest = 0, threads = 0;
    if (peers && !alone && levelName.empty()) {
        WarpPeerTask task = {n, mode, matrix ? inverse : nullptr, {}};
        for (int k = 0; k < 3 && map; ++k) task.map[k] = map[k];
        const auto report = [&](const char* who, double time) {
            printf("  %s %.2fx", who, time / one);
            fastest = fastest > 0 ? std::min(fastest, time) : time;
        };
        report("plain", leastSeconds(processSeconds, kBudget, [&] { plainWarp(task, src.data(), peer.data()); }));
        // Both must have done the same work. Positions that lie on an edge may fall on its other side.
        size_t apart = 0;
        const double allowed = sizeof(T) == 4 ? 2e-3 : sizeof(T) == 2 ? 4 : 1;
        for (size_t i = 0; i < dst.size(); ++i) apart += fabs(double(dst[i]) - double(peer[i])) > allowed;
        if (apart > dst.size() / 1000) {
            fprintf(stderr, "%s differs from the plain loops in %zu voxels\n", name.c_str(), apart);
            exit(1);
        }
#if defined(ZENR_BENCH_CIMG)
        CimgWarp<T> cimg(task, src.data());
        report("CImg", leastSeconds(processSeconds, kBudget, [&] { cimg.run(); }));
#endif
#if defined(ZENR_BENCH_VTK)
        if (matrix) {
            VtkWarp<T> vtk(task, src.data());
            report("VTK", leastSeconds(processSeconds, kBudget, [&] { vtk.run(); }));
        }
#endif
        printf("  fastest peer %.2fx", fastest / one);
    }
    if (!alone && levelName.empty()) {
        const double oneWall = leastSeconds(wallSeconds, kBudget, run);
        zenSetNumThreads(2);
        threads = oneWall / leastSeconds(wallSeconds, kBudget, run);
        zenSetNumThreads(1);
        printf("  two threads %.2fx", threads);
    }
    putchar('\n');
    fflush(stdout);
    if (json) {
        fprintf(json, "%s{\"bench\":\"%s\",\"size\":%d,\"ns\":%.4f,\"peer\":%.2f,\"threads2\":%.2f}",
                first ? "[\n" : ",\n", name.c_str(), n, one / voxels * 1e9, fastest / one, threads);
        first = false;
    }
    return one;
}

template <class T> void measure(int n) {
    const std::vector<T> src = sourceVoxels<T>(n);
    const Case general = turned("rotation", n, 20, 1, 2, 3, 1.1);
    const Case aligned[] = {turned("scale", n, 0, 1, 0, 0, 1.1), turned("about x", n, 20, 1, 0, 0, 1.1)};
    std::vector<float> positions[3];
    for (int mode : {1, 2, 6}) {
        const double one = row(general.name, n, src, general.matrix, nullptr, mode, true);
        for (const Case& c : aligned) {
            const double time = row(c.name, n, src, c.matrix, nullptr, mode, false);
            if (one > 0 && time > 0) printf("%28s %.2fx of the general rotation's speed\n", "", one / time);
        }
    }
    // A smooth displacement that stays inside.
    const auto s1 = wave(n, sin, 2 * M_PI), s2 = wave(n, sin, 4 * M_PI), c1 = wave(n, cos, 2 * M_PI),
               c2 = wave(n, cos, 4 * M_PI);
    for (auto& axis : positions) axis.resize(src.size());
    size_t i = 0;
    const double amplitude = n / 24., middle = (n - 1) / 2.;
    const auto place = [&](int p, double wave) {
        return float(middle + (p - middle) * (1 - 2.2 / 24) + amplitude * wave);
    };
    for (int z = 0; z < n; ++z)
        for (int y = 0; y < n; ++y)
            for (int x = 0; x < n; ++x, ++i) {
                positions[0][i] = place(x, s2[y] * c1[z]);
                positions[1][i] = place(y, s1[x] * c2[z]);
                positions[2][i] = place(z, c2[x] * s1[y]);
            }
    const float* const map[3] = {positions[0].data(), positions[1].data(), positions[2].data()};
    for (int mode : {1, 2, 6}) row("smooth", n, src, nullptr, map, mode, true);
}

} // namespace

int main(int argc, char** argv) {
    int n = 256;
    const char* const outOption = "--benchmark_out=";
    for (int i = 1; i < argc; ++i) {
        if (!strcmp(argv[i], "--alone")) alone = true;
        if (i + 1 < argc && !strcmp(argv[i], "--size")) n = atoi(argv[i + 1]);
        if (i + 1 < argc && !strcmp(argv[i], "--only")) only = argv[i + 1];
        if (i + 1 < argc && !strcmp(argv[i], "--level")) levelName = argv[i + 1];
        if (!strncmp(argv[i], outOption, strlen(outOption))) json = fopen(argv[i] + strlen(outOption), "w");
    }
    if (n < 16 || n > 1024) {
        fprintf(stderr,
                "usage: bench_warp [--size 16..1024] [--only TEXT] [--level NAME] [--alone] [--benchmark_out=FILE]\n");
        return 2;
    }
    measure<uint8_t>(n);
    measure<uint16_t>(n);
    measure<float>(n);
    if (json) {
        fputs("\n]\n", json);
        fclose(json);
    }
    return 0;
}
