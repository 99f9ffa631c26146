// Building trees: time beside Embree's medium-quality build of the same mesh in the same run, expected cost beside that
// of a straightforward exact sweep, bytes beside Embree's, peak memory beside the budget. Figures to read are ratios.
//   bench_kdtree [--sweep] [MESH.obj ...]   --sweep: compare costs with the sweep for meshes up to 120,000 triangles
#include <malloc.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "reference/meshes.h"
#include "reference/sah_reference.h"
#include "zencore.h"
#include "zenr.h"
#ifdef ZENR_HAVE_EMBREE
#include <embree3/rtcore.h>
#endif

namespace {

using reference::Mesh;

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// Positions and faces of a Wavefront file; vertices at one place become one.
Mesh loadObj(const char* path) {
    Mesh mesh;
    FILE* file = fopen(path, "r");
    if (!file) return mesh;
    char line[1024];
    std::vector<int> places;
    std::map<std::array<float, 3>, int> seen;
    while (fgets(line, sizeof line, file)) {
        if (line[0] == 'v' && line[1] == ' ') {
            std::array<float, 3> p{};
            if (sscanf(line + 2, "%f %f %f", &p[0], &p[1], &p[2]) != 3) continue;
            const auto found = seen.emplace(p, mesh.vertexCount());
            if (found.second) mesh.addVertex(p[0], p[1], p[2]);
            places.push_back(found.first->second);
        } else if (line[0] == 'f' && line[1] == ' ') {
            std::vector<int> corners;
            for (char* word = strtok(line + 2, " \t\r\n"); word; word = strtok(nullptr, " \t\r\n")) {
                const int i = atoi(word);
                const int at = i < 0 ? int(places.size()) + i : i - 1;
                if (at >= 0 && at < int(places.size())) corners.push_back(places[size_t(at)]);
            }
            for (size_t k = 2; k < corners.size(); ++k) mesh.add(corners[0], corners[k - 1], corners[k]);
        }
    }
    fclose(file);
    return mesh;
}

struct Result {
    double seconds;
    int bytes;
    ZenrKDTreeNode* tree;
};

Result build(const Mesh& mesh, float ratio, int threads, uint32_t budget) {
    zenSetNumThreads(threads);
    const ZenrKDTreeBuildParams params = {zenKDTBuildSAH, 50, ratio, budget, nullptr};
    Result result{1e9, 0, nullptr};
    for (int round = 0; round < 3; ++round) {
        if (result.tree) zenrKDTreeFree(result.tree);
        const double start = now();
        const ZenStatus status = zenrKDTreeBuildAlloc(&result.tree, mesh.vertices.data(), mesh.triangles.data(),
                                                      mesh.vertexCount(), mesh.triangleCount(), &result.bytes, &params);
        if (status != zenStsNoErr) {
            printf("  build failed: %d\n", status);
            return Result{1e9, 0, nullptr};
        }
        result.seconds = std::min(result.seconds, now() - start);
    }
    return result;
}

// Peak memory of one build in a process of its own, in MiB above what the mesh takes.
double peakMiB(const Mesh& mesh, uint32_t budget) {
    int ends[2];
    if (pipe(ends)) return 0;
    const pid_t child = fork();
    if (child == 0) {
        rusage before, after;
        getrusage(RUSAGE_SELF, &before);
        zenSetNumThreads(1);
        const ZenrKDTreeBuildParams params = {zenKDTBuildSAH, 50, 0.5f, budget, nullptr};
        ZenrKDTreeNode* tree = nullptr;
        int bytes = 0;
        zenrKDTreeBuildAlloc(&tree, mesh.vertices.data(), mesh.triangles.data(), mesh.vertexCount(),
                             mesh.triangleCount(), &bytes, &params);
        getrusage(RUSAGE_SELF, &after);
        const double peak = double(after.ru_maxrss - before.ru_maxrss) / 1024;
        if (write(ends[1], &peak, sizeof peak) != sizeof peak) _exit(1);
        _exit(0);
    }
    double peak = 0;
    if (read(ends[0], &peak, sizeof peak) != sizeof peak) peak = 0;
    waitpid(child, nullptr, 0);
    close(ends[0]);
    close(ends[1]);
    return peak;
}

struct Peer {
    double seconds = 0;
    double bytes = 0;
};

#ifdef ZENR_HAVE_EMBREE
Peer peer(const Mesh& mesh) {
    Peer best;
    for (int round = 0; round < 3; ++round) {
        RTCDevice device = rtcNewDevice("threads=1");
        ssize_t bytes = 0;
        rtcSetDeviceMemoryMonitorFunction(
            device,
            [](void* sum, ssize_t change, bool) {
                *static_cast<ssize_t*>(sum) += change;
                return true;
            },
            &bytes);
        RTCScene scene = rtcNewScene(device);
        rtcSetSceneBuildQuality(scene, RTC_BUILD_QUALITY_MEDIUM);
        RTCGeometry geometry = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_TRIANGLE);
        memcpy(rtcSetNewGeometryBuffer(geometry, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3, 12,
                                       size_t(mesh.vertexCount())),
               mesh.vertices.data(), mesh.vertices.size() * 4);
        uint32_t* index = static_cast<uint32_t*>(rtcSetNewGeometryBuffer(
            geometry, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3, 12, size_t(mesh.triangleCount())));
        for (int t = 0; t < mesh.triangleCount(); ++t)
            for (int v = 0; v < 3; ++v) index[3 * t + v] = uint32_t(mesh.triangles[4 * size_t(t) + v]);
        const double start = now();
        rtcCommitGeometry(geometry);
        rtcAttachGeometry(scene, geometry);
        rtcReleaseGeometry(geometry);
        rtcCommitScene(scene);
        const double seconds = now() - start;
        if (round == 0 || seconds < best.seconds) best.seconds = seconds;
        best.bytes = double(bytes);
        rtcReleaseScene(scene);
        rtcReleaseDevice(device);
    }
    return best;
}
#else
Peer peer(const Mesh&) {
    return Peer();
}
#endif

void run(const char* name, const Mesh& mesh, bool sweep) {
    const int n = mesh.triangleCount();
    if (n == 0) {
        printf("%s: no triangles\n", name);
        return;
    }
    const uint32_t budget = uint32_t(96 + double(n) * 1200 / (1 << 20));
    const Peer embree = peer(mesh);
    printf("%s: %d triangles, budget %u MiB, peak %.0f MiB\n", name, n, budget, peakMiB(mesh, budget));
    if (embree.seconds > 0) printf("  Embree medium: %.4f s, %.1f MB\n", embree.seconds, embree.bytes / 1e6);
    reference::Box box{};
    for (int i = 0; i < mesh.vertexCount(); ++i)
        for (int a = 0; a < 3; ++a) {
            const float x = mesh.vertices[3 * size_t(i) + a];
            box[a] = i == 0 ? x : std::min(box[a], x);
            box[a + 3] = i == 0 ? x : std::max(box[a + 3], x);
        }
    for (float ratio : {0.f, 0.5f, 1.f}) {
        const Result one = build(mesh, ratio, 1, budget);
        if (!one.tree) continue;
        const reference::TreeReader tree(one.tree, one.bytes, box);
        zenrKDTreeFree(one.tree);
        printf("  ratio %.1f: %.3f s, %.2f Mtriangles/s, %.2f MB; %d interior, %zu leaves (%d inline, %d empty), "
               "%.2f triangles a leaf, cost %.2f %s\n",
               ratio, one.seconds, n / one.seconds / 1e6, one.bytes / 1e6, tree.interior, tree.leaves.size(),
               tree.inlineLeaves, tree.emptyLeaves, double(tree.references) / double(tree.leaves.size()), tree.cost(),
               tree.error.c_str());
        if (embree.seconds > 0)
            printf("    time / Embree %.2f, bytes / Embree %.2f\n", one.seconds / embree.seconds,
                   one.bytes / embree.bytes);
        if (sweep && n <= 120000) {
            const reference::SweepBuilder exact(mesh.vertices.data(), mesh.triangles.data(), n,
                                                (10 - 9 * double(ratio)) * 0.5057569742202759, 50);
            printf("    cost / exact sweep %.3f\n", tree.cost() / exact.cost);
        }
        if (ratio == 0.5f) {
            const Result two = build(mesh, ratio, 2, budget);
            if (two.tree) zenrKDTreeFree(two.tree);
            printf("    two threads: %.2f times one\n", one.seconds / two.seconds);
        }
    }
    fflush(stdout);
}

} // namespace

int main(int argc, char** argv) {
    mallopt(M_MMAP_THRESHOLD, 1 << 20); // freed memory goes back at once, so that peaks can be told apart
    bool sweep = false;
    bool files = false;
    for (int i = 1; i < argc; ++i)
        if (!strcmp(argv[i], "--sweep"))
            sweep = true;
        else
            files = true;
    for (int i = 1; i < argc; ++i)
        if (argv[i][0] != '-') run(argv[i], loadObj(argv[i]), sweep);
    if (files) return 0;
    const char* const bunny = "/usr/share/glmark2/models/bunny.obj";
    if (!access(bunny, R_OK)) run("bunny", loadObj(bunny), sweep);
    run("sphere", reference::sphere(6), sweep);
    run("terrain", reference::terrain(200), sweep);
    run("soup", reference::soup(50000, 0.02f, 1), sweep);
    run("terrain, a million", reference::terrain(708), sweep);
}
