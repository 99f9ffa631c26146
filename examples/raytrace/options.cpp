// The command line: names, help texts, ranges.
#include "options.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <iostream>

#include <CLI/CLI.hpp>

#include "failure.h"

namespace {

constexpr int kMaxExtent = 16384;
constexpr int kMaxTileRays = 512; // per side of a tile: bounds the memory of a thread's buffers

// A decimal number that fills [*text, stop), which then ends at `stop` or at the end of the string.
double readNumber(const std::string& option, const char*& text, char stop) {
    char* end = nullptr;
    const double value = std::strtod(text, &end);
    if (end == text || (*end != stop && *end != '\0') || !(std::abs(value) < 1e30))
        throw Failure(option + ": a number was expected at '" + std::string(text) + "'");
    text = end;
    return value;
}

Vec readPoint(const std::string& option, const std::string& value) {
    const char* text = value.c_str();
    double v[3];
    for (int k = 0; k < 3; ++k) {
        v[k] = readNumber(option, text, ',');
        const char expected = k < 2 ? ',' : '\0';
        if (*text != expected) throw Failure(option + ": three numbers X,Y,Z were expected, not '" + value + "'");
        ++text;
    }
    return {v[0], v[1], v[2]};
}

int readExtent(const std::string& digits) {
    if (digits.empty() || digits.size() > 5 ||
        !std::all_of(digits.begin(), digits.end(), [](unsigned char c) { return std::isdigit(c); }))
        return 0;
    return std::atoi(digits.c_str());
}

void readSize(const std::string& value, Options& options) {
    const size_t x = value.find('x');
    options.width = x == std::string::npos ? 0 : readExtent(value.substr(0, x));
    options.height = x == std::string::npos ? 0 : readExtent(value.substr(x + 1));
    if (options.width < 1 || options.height < 1 || options.width > kMaxExtent || options.height > kMaxExtent)
        throw Failure("--size: WxH was expected with both from 1 to " + std::to_string(kMaxExtent) + ", not '" + value +
                      "'");
}

// Also refuses NaN, which a check for being below or above the range lets through.
template <class T> CLI::Validator within(T low, T high) {
    const std::string range = std::to_string(low) + " to " + std::to_string(high);
    return {[=](std::string& text) {
                T value{};
                if (CLI::detail::lexical_cast(text, value) && value >= low && value <= high) return std::string();
                return "'" + text + "' is not within " + range;
            },
            ""};
}

} // namespace

std::optional<Options> readOptions(int argc, char** argv) {
    Options options;
    std::string size = "640x480", eye, target, up = "0,1,0", light, show, builder = "auto";
    bool noGround = false;

    CLI::App app{"Renders a triangle mesh with shadows and a reflecting ground into a PNG file.\n"
                 "Points are X,Y,Z in the mesh's own coordinates.",
                 "raytrace"};
    app.option_defaults()->always_capture_default();
    app.add_option("MESH", options.mesh, "mesh file (OBJ, PLY, STL, 3DS, glTF... or a dump of --dump)")->required();
    app.add_option("-o,--output", options.output, "picture to write (raytrace.png)");
    app.add_option("--dump", options.dump, "write the mesh as a dump; renders only if --output is given too");

    const char* picture = "Picture";
    app.add_option("-s,--size", size, "WxH in pixels")->group(picture);
    app.add_option("--samples", options.samples, "N: N x N rays a pixel")->check(within(1, 16))->group(picture);
    app.add_option("--show", show, "cost: heat map of the tree nodes and triangles met per ray, instead of the picture")
        ->check(CLI::IsMember({"cost"}))
        ->group(picture);

    const char* camera = "Camera (left out: framed automatically)";
    app.add_option("--eye", eye, "position of the eye")->group(camera);
    app.add_option("--target", target, "point in the middle of the picture (middle of the mesh)")->group(camera);
    app.add_option("--up", up, "direction that points up")->group(camera);
    app.add_option("--fov", options.fov, "vertical field of view in degrees")->check(within(1.0, 160.0))->group(camera);
    app.add_option("--turn", options.turn, "automatic eye: degrees around the mesh")
        ->check(within(-360.0, 360.0))
        ->group(camera);
    app.add_option("--tilt", options.tilt, "automatic eye: degrees above the horizon")
        ->check(within(-80.0, 80.0))
        ->group(camera);

    const char* scene = "Scene";
    app.add_option("--light", light, "position of the light (above the eye's shoulder)")->group(scene);
    app.add_flag("--no-ground", noGround, "no ground plane under the mesh")->group(scene);
    app.add_option("--mirror", options.mirror, "reflectivity of the ground")->check(within(0.0, 1.0))->group(scene);
    app.add_option("--gloss", options.gloss, "reflectivity of the mesh")->check(within(0.0, 1.0))->group(scene);
    app.add_flag("--flat", options.flat, "facets instead of smooth normals")->group(scene);

    const char* tree = "Tree";
    app.add_option("--builder", builder, "simple, sah or auto (sah, or simple where that fails)")
        ->check(CLI::IsMember({"simple", "sah", "auto"}))
        ->group(tree);
    app.add_option("--ratio", options.ratio, "sah: 0 a small tree built quickly, 1 the most subdivided")
        ->check(within(0.0, 1.0))
        ->group(tree);
    app.add_option("--depth", options.depth, "greatest depth")->check(within(0, 50))->group(tree);
    app.add_option("--memory", options.memory, "sah: working memory in MiB")->check(within(33, 4095))->group(tree);

    const char* work = "Work";
    app.add_option("-j,--threads", options.threads, "threads (0: as many as there are processors)")
        ->check(within(0, 1024))
        ->group(work);
    app.add_option("--tile", options.tile, "side of a tile in pixels")->check(within(1, kMaxTileRays))->group(work);
    app.add_flag("-q,--quiet", options.quiet, "no progress, no summary")->group(work);

    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& done) {
        app.exit(done, std::cout, std::cerr);
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        std::string line = error.what();
        std::replace(line.begin(), line.end(), '\n', ' ');
        throw Failure(line + " (--help lists the options)");
    }

    readSize(size, options);
    if (!eye.empty()) options.eye = readPoint("--eye", eye);
    if (!target.empty()) options.target = readPoint("--target", target);
    if (!light.empty()) options.light = readPoint("--light", light);
    options.up = readPoint("--up", up);
    if (!(length(options.up) > 0)) throw Failure("--up: must not be zero");
    options.showCost = show == "cost";
    options.ground = !noGround;
    options.builder = builder == "simple" ? Builder::simple : builder == "sah" ? Builder::sah : Builder::automatic;
    if (options.tile * options.samples > kMaxTileRays)
        throw Failure("--tile times --samples must not exceed " + std::to_string(kMaxTileRays));

    options.render = options.dump.empty() || !options.output.empty();
    if (options.output.empty()) options.output = "raytrace.png";
    return options;
}
