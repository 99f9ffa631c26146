// raytrace: renders a mesh file with shadows and a reflecting ground, using the library's public header only.
//
// The way through the program: options -> mesh -> scene (box, records, tree) -> camera -> render -> PNG. The picture is
// the same file in the 32-bit and the 64-bit build, with any number of threads and any size of tiles.
#include <algorithm>
#include <cfloat>
#include <cstdio>
#include <optional>

#include <zencore.h>

#include "camera.h"
#include "failure.h"
#include "file.h"
#include "image.h"
#include "mesh.h"
#include "options.h"
#include "render.h"
#include "scene.h"
#include "tree.h"

static_assert(FLT_EVAL_METHOD == 0, "floats must be evaluated as floats, or pictures differ between builds");

namespace {

void printScene(const Scene& scene) {
    const TreeSummary tree = summarise(scene.tree.get(), scene.box);
    const double leaves = static_cast<double>(tree.leaves);
    std::printf("scene: %d triangles, %d vertices\n", scene.mesh.triangleCount(), scene.mesh.vertexCount());
    std::printf("tree: %s, %lld nodes (%lld interior, %lld leaves: %lld inline, %lld empty), depth %d, %d bytes\n",
                scene.sah ? "sah" : "simple", static_cast<long long>(tree.interior + tree.leaves),
                static_cast<long long>(tree.interior), static_cast<long long>(tree.leaves),
                static_cast<long long>(tree.inlineLeaves), static_cast<long long>(tree.emptyLeaves), tree.depth,
                scene.treeBytes);
    std::printf("      %.2f triangles per leaf, SAH cost %.2f, built in %.3f s (box, records, tree)\n",
                static_cast<double>(tree.references) / leaves, tree.sahCost, scene.buildSeconds);
    if (!scene.note.empty()) std::printf("note: %s\n", scene.note.c_str());
    std::fflush(stdout);
}

void printRays(const char* kind, const RayCount& count) {
    if (count.rays == 0) return;
    std::printf("      %-10s %11lld rays, %7.3f Mrays/s per thread\n", kind, static_cast<long long>(count.rays),
                static_cast<double>(count.rays) / std::max(count.seconds, 1e-9) / 1e6);
}

void printPicture(const Picture& picture, const Options& options) {
    std::printf("%s: %d x %d pixels, %d x %d rays each, %d threads, %.2f s\n", options.output.c_str(), options.width,
                options.height, options.samples, options.samples, picture.threads, picture.seconds);
    printRays("eye", picture.eye);
    printRays("shadow", picture.shadow);
    printRays("reflection", picture.reflection);
    if (options.showCost)
        std::printf(
            "      nodes and triangles per eye ray: %.2f on average, %.2f in the busiest pixel, red from %.2f\n",
            picture.meanSteps, picture.mostSteps, picture.hottestSteps);
}

void run(const Options& options) {
    if (options.render) checkWritable(options.output);
    if (!options.dump.empty()) checkWritable(options.dump);
    if (options.render) checkApart({options.output, options.dump});

    Mesh mesh = loadMesh(options.mesh);
    if (!options.dump.empty()) {
        writeFile(options.dump, dumpMesh(mesh));
        if (!options.quiet)
            std::printf("%s: %d triangles, %d vertices\n", options.dump.c_str(), mesh.triangleCount(),
                        mesh.vertexCount());
    }
    if (!options.render) return;

    if (options.threads > 0) zenSetNumThreads(options.threads);
    const Scene scene = makeScene(std::move(mesh), options);
    if (!options.quiet) printScene(scene);
    const Camera camera = makeCamera(options, scene);
    const Picture picture = render(scene, camera, lightPosition(options, scene, camera), options);
    writeFile(options.output, encodePng(options.width, options.height, picture.rgb));
    if (!options.quiet) printPicture(picture, options);
}

} // namespace

int main(int argc, char** argv) {
    return exitCodeOf("raytrace", [&] {
        if (const std::optional<Options> options = readOptions(argc, argv)) run(*options);
    });
}
