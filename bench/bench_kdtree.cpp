// Building trees: time beside Embree's medium-quality build of the same mesh in the same run, expected cost beside that
// of a straightforward exact sweep, bytes beside Embree's, peak memory beside the budget, and where the time goes.
// Figures to read are ratios.
//   bench_kdtree [--brief] [--sweep] [MESH ...]   a mesh by its name or file; without one: all that are there
//     --brief: the smaller ones, one round;  --sweep: compare costs with the sweep for meshes up to 120,000 triangles
#include <malloc.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "kdtree/kdtree.h"
#include "kdtree/pr_avlopsahbld.h"
#include "kdtree/pr_avlopsahphase.h"
#include "meshes.h"
#include "reference/meshes.h"
#include "reference/sah_reference.h"
#include "timing.h"
#include "zencore.h"
#include "zenr.h"
#ifdef ZENR_HAVE_EMBREE
#include "embree_mesh.h"
#endif

// The builder that is linked in beside the library's own reads the clock at every phase.
zenr::PhaseClock zenr::phaseClock;

namespace {

using reference::Mesh;

int rounds = 3;

struct Result {
    ZenStatus status = zenStsNoErr;
    double seconds = 1e9;
    int bytes = 0;
    ZenrKDTreeNode* tree = nullptr;
};

Result build(const Mesh& mesh, float ratio, int threads, uint32_t budget) {
    zenSetNumThreads(threads);
    const ZenrKDTreeBuildParams params = {zenKDTBuildSAH, 50, ratio, budget, nullptr};
    Result result;
    for (int round = 0; round < rounds; ++round) {
        if (result.tree) zenrKDTreeFree(result.tree);
        result.tree = nullptr;
        const double start = wallSeconds();
        result.status = zenrKDTreeBuildAlloc(&result.tree, mesh.vertices.data(), mesh.triangles.data(),
                                             mesh.vertexCount(), mesh.triangleCount(), &result.bytes, &params);
        if (result.status != zenStsNoErr) break;
        result.seconds = std::min(result.seconds, wallSeconds() - start);
    }
    return result;
}

// Peak memory of one build in a process of its own, in MiB above what the mesh takes.
double peakMiB(const Mesh& mesh, float ratio, uint32_t budget) {
    int ends[2];
    if (pipe(ends)) return 0;
    const pid_t child = fork();
    if (child == 0) {
        rusage before, after;
        getrusage(RUSAGE_SELF, &before);
        zenSetNumThreads(1);
        const ZenrKDTreeBuildParams params = {zenKDTBuildSAH, 50, ratio, budget, nullptr};
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

// Shares of the phases in a build with one thread, from the instrumented builder; the clock itself takes a few percent.
void printPhases(const Mesh& mesh, float ratio, uint32_t budget) {
    zenSetNumThreads(1);
    ZenrKDTreeNode* tree = nullptr;
    int bytes = 0;
    zenr::phaseClock = {};
    zenr::enterPhase(zenr::Phase::other);
    std::fill(std::begin(zenr::phaseClock.ticks), std::end(zenr::phaseClock.ticks), 0);
    const ZenStatus status =
        zenr::ownKDTBldPSAH_ML(mesh.vertices.data(), mesh.triangles.data(), mesh.vertexCount(), mesh.triangleCount(),
                               &tree, &bytes, ratio, 50, budget << 20, nullptr);
    zenr::enterPhase(zenr::Phase::other);
    if (status != zenStsNoErr) return;
    zenrKDTreeFree(tree);
    const char* const names[] = {"set-up and walk", "extents",      "search",   "bins",   "sort",
                                 "sweep",           "distribution", "clipping", "leaves", "packing"};
    double all = 0;
    for (uint64_t ticks : zenr::phaseClock.ticks) all += double(ticks);
    printf("    share of time:");
    for (int p = 0; p < int(zenr::Phase::count); ++p)
        printf("%s %s %.0f%%", p ? "," : "", names[p], 100 * double(zenr::phaseClock.ticks[p]) / all);
    printf("\n");
}

struct Peer {
    double seconds = 0;
    double bytes = 0;
};

#ifdef ZENR_HAVE_EMBREE
Peer peer(const Mesh& mesh) {
    Peer best;
    for (int round = 0; round < rounds; ++round) {
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
        RTCGeometry geometry = embreeMesh(device, mesh);
        const double start = wallSeconds();
        rtcCommitGeometry(geometry);
        rtcAttachGeometry(scene, geometry);
        rtcReleaseGeometry(geometry);
        rtcCommitScene(scene);
        const double seconds = wallSeconds() - start;
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
    if (n == 0) return;
    const Peer embree = peer(mesh);
    printf("%s: %d triangles", name, n);
    if (embree.seconds > 0) printf("; Embree medium: %.4f s, %.1f MB", embree.seconds, embree.bytes / 1e6);
    printf("\n");
    reference::Box box{};
    for (int i = 0; i < mesh.vertexCount(); ++i)
        for (int a = 0; a < 3; ++a) {
            const float x = mesh.vertices[3 * size_t(i) + a];
            box[a] = i == 0 ? x : std::min(box[a], x);
            box[a + 3] = i == 0 ? x : std::max(box[a + 3], x);
        }
    for (float ratio : {0.f, 0.5f, 1.f}) {
        // The smallest budget that is accepted and one block more, and half as much again while that runs out.
        uint32_t budget =
            uint32_t((12 * double(mesh.vertexCount()) + 84 * double(n) + (32 << 20)) / (1 << 20)) + 2 + 16;
        Result one = build(mesh, ratio, 1, budget);
        while (one.status == zenStsNoMemErr && budget < 3000) {
            budget += budget / 2;
            one = build(mesh, ratio, 1, budget);
        }
        if (one.status != zenStsNoErr) {
            printf("  ratio %.1f: build failed, %d\n", ratio, one.status);
            continue;
        }
        const reference::TreeReader tree(one.tree, one.bytes, box);
        zenrKDTreeFree(one.tree);
        const Result two = build(mesh, ratio, 2, budget + 96); // a second thread has blocks of its own
        if (two.tree) zenrKDTreeFree(two.tree);
        printf("  ratio %.1f: %.3f s, %.2f Mtriangles/s", ratio, one.seconds, n / one.seconds / 1e6);
        if (embree.seconds > 0) printf(", time / Embree %.2f", one.seconds / embree.seconds);
        printf(", two threads %.2f times one\n", one.seconds / two.seconds);
        printf("    %.2f MB", one.bytes / 1e6);
        if (embree.seconds > 0) printf(", bytes / Embree %.2f", one.bytes / embree.bytes);
        printf("; budget %u MiB, peak %.0f MiB\n", budget, peakMiB(mesh, ratio, budget));
        printf("    %d interior, %zu leaves (%d inline, %d empty), %.2f triangles a leaf, cost %.2f %s\n",
               tree.interior, tree.leaves.size(), tree.inlineLeaves, tree.emptyLeaves,
               double(tree.references) / double(tree.leaves.size()), tree.cost(), tree.error.c_str());
        if (sweep && n <= 120000) {
            const reference::SweepBuilder exact(mesh.vertices.data(), mesh.triangles.data(), n,
                                                (10 - 9 * double(ratio)) * 0.5057569742202759, 50);
            printf("    cost / exact sweep %.3f\n", tree.cost() / exact.cost);
        }
        printPhases(mesh, ratio, budget);
    }
    fflush(stdout);
}

} // namespace

int main(int argc, char** argv) {
    mallopt(M_MMAP_THRESHOLD, 1 << 20); // freed memory goes back at once, so that peaks can be told apart
    bool sweep = false;
    bool brief = false;
    std::vector<std::string> names;
    for (int i = 1; i < argc; ++i) {
        if (!strcmp(argv[i], "--sweep"))
            sweep = true;
        else if (!strcmp(argv[i], "--brief"))
            brief = true;
        else if (argv[i][0] != '-')
            names.push_back(argv[i]);
    }
    if (brief) rounds = 1;
    for (const std::string& name : names) {
        const Mesh mesh = bench::loadMesh(name);
        if (mesh.triangleCount() == 0) fprintf(stderr, "%s: no triangles\n", name.c_str());
        run(name.c_str(), mesh, sweep);
    }
    if (!names.empty()) return 0;
    run("small sphere", reference::sphere(6), sweep);
    run("small terrain", reference::terrain(200), sweep);
    run("small soup", reference::soup(50000, 0.02f, 1), sweep);
    for (const std::string& name : bench::meshNames()) {
        if (brief && name != "horse" && name != "bunny" && name != "dragon2") continue;
        run(name.c_str(), bench::loadMesh(name), sweep);
    }
}
