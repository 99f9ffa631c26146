// shlight: an environment map in spherical harmonics, and a mesh in its light, using the library's public headers only.
//
// The way through the program: options -> environment -> coefficients -> report and maps -> mesh -> scene -> camera ->
// picture. The pictures are the same files in the 32-bit and the 64-bit build, with any number of threads.
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdio>

#include <omp.h>

#include "angles.h"
#include "camera.h"
#include "display.h"
#include "environment.h"
#include "failure.h"
#include "file.h"
#include "harmonics.h"
#include "image.h"
#include "maps.h"
#include "mesh.h"
#include "options.h"
#include "render.h"
#include "scene.h"

static_assert(FLT_EVAL_METHOD == 0, "floats must be evaluated as floats, or pictures differ between builds");

namespace {

constexpr int kPanelWidth = 512;
constexpr double kMiddleGrey = 0.36; // what light of the environment's mean is scaled to

double sum(const Vec& v) {
    return v.x + v.y + v.z;
}

// 2^x by its series around the nearest whole number: exp2() may differ between libraries.
double stops(double x) {
    const double whole = std::floor(x + 0.5), rest = (x - whole) * 0.69314718055994531;
    double power = 0, term = 1;
    for (int n = 1; n < 24; ++n) {
        power += term;
        term *= rest / n;
    }
    return std::ldexp(power, static_cast<int>(whole));
}

// The mean over the sphere of each colour: band 0, less its factor.
Vec meanOf(const Light& light) {
    const double y00 = 1 / std::sqrt(4 * kPi);
    return {light.planes()[0][0] * y00, light.planes()[1][0] * y00, light.planes()[2][0] * y00};
}

void printEnergies(const Environment& map, const Light& light) {
    const Vec mean = meanOf(light), all = mapEnergy(map);
    const float brightest = *std::max_element(map.rgb.begin(), map.rgb.end());
    std::printf("environment: %d x %d pixels, mean light %.4g %.4g %.4g, brightest %.4g\n", map.width, map.height,
                mean.x, mean.y, mean.z, static_cast<double>(brightest));
    std::printf("band        red      green       blue     share      up to here\n");
    const std::vector<Vec> bands = bandEnergies(light);
    const double whole = sum(all) > 0 ? sum(all) : 1;
    Vec so{};
    for (size_t l = 0; l < bands.size(); ++l) {
        so = so + bands[l];
        std::printf("%4zu %10.4g %10.4g %10.4g  %7.3f %%       %7.3f %%\n", l, bands[l].x, bands[l].y, bands[l].z,
                    100 * sum(bands[l]) / whole, 100 * sum(so) / whole);
    }
    const Vec rest = all - so;
    std::printf("rest %10.4g %10.4g %10.4g  %7.3f %%\n", rest.x, rest.y, rest.z, 100 * sum(rest) / whole);
}

void printNegative(const char* what, const Negative& negative) {
    if (negative.share > 0)
        std::printf("%s: negative on %.2f %% of the sphere, down to %.4g; drawn as none\n", what, 100 * negative.share,
                    negative.lowest);
    else
        std::printf("%s: nowhere negative\n", what);
}

void renderMesh(Mesh mesh, const Environment& map, const Basis& basis, const Light& light, const Light& matt,
                const Display& display, const Options& options) {
    const Scene scene = makeScene(std::move(mesh), options);
    if (!options.quiet && !scene.note.empty()) std::printf("note: %s\n", scene.note.c_str());
    const Camera camera = makeCamera(options, scene);
    const Light glossy = gathered(light, options.shine);
    const Picture picture = render(scene, camera, {map, basis, light, matt, glossy}, display, options);
    writeFile(options.output, encodePng(options.width, options.height, picture.rgb));
    if (options.quiet) return;
    std::printf("%s: %d triangles, %d x %d pixels, %d threads, %.2f s; %lld rays, %lld hits lit, %.2f M/s\n",
                options.output.c_str(), scene.mesh.triangleCount(), options.width, options.height, picture.threads,
                picture.seconds, static_cast<long long>(picture.rays), static_cast<long long>(picture.hits),
                static_cast<double>(picture.rays) / std::max(picture.seconds, 1e-9) / 1e6);
    if (picture.lowest < 0) std::printf("note: light on the mesh reached %.4g; drawn as none\n", picture.lowest);
}

void run(const Options& options) {
    const bool render = !options.mesh.empty();
    if (render) checkWritable(options.output);
    if (!options.maps.empty()) checkWritable(options.maps);
    if (!options.saveEnvironment.empty()) checkWritable(options.saveEnvironment);
    checkApart({render ? options.output : "", options.maps, options.saveEnvironment});
    const int threads = options.threads > 0 ? options.threads : omp_get_max_threads();
    if (options.threads > 0) zenSetNumThreads(options.threads);

    Mesh mesh;
    if (render) mesh = loadMesh(options.mesh);
    const Environment map = options.environment.empty() ? makeSky(options.sun) : loadEnvironment(options.environment);
    if (!options.saveEnvironment.empty()) writeFile(options.saveEnvironment, encodeHdr(map.width, map.height, map.rgb));

    const Basis basis(options.order, options.recurrence);
    const Light projected = project(map, basis, threads);
    const Light light = options.window ? windowed(projected) : projected;
    const Light matt = gathered(light, 1);

    Maps maps{reduced(map, kPanelWidth), {}, {}};
    maps.reconstructed = maps.matt = maps.original;
    evaluate(light, basis, maps.reconstructed, threads);
    evaluate(matt, basis, maps.matt, threads);
    const Vec mean = meanOf(projected);
    // Rec. 709's weights of the colours.
    const double luminance = 0.2126 * mean.x + 0.7152 * mean.y + 0.0722 * mean.z;
    const Display display(stops(options.exposure) * (luminance > 0 ? kMiddleGrey / luminance : 1));
    if (!options.maps.empty()) writeFile(options.maps, drawMaps(maps, display));

    if (!options.quiet) {
        printEnergies(map, projected);
        printNegative("reconstruction", negativeOf(maps.reconstructed));
        printNegative("matt surfaces", negativeOf(maps.matt));
        std::fflush(stdout);
    }
    if (render) renderMesh(std::move(mesh), map, basis, light, matt, display, options);
}

} // namespace

int main(int argc, char** argv) {
    return exitCodeOf("shlight", [&] {
        if (const std::optional<Options> options = readOptions(argc, argv)) run(*options);
    });
}
