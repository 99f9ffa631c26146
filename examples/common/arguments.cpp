// Names, help texts and ranges of the shared options.
#include "arguments.h"

#include <cctype>
#include <cmath>
#include <cstdlib>
#include <iostream>

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

int readExtent(const std::string& digits) {
    if (digits.empty() || digits.size() > 5 ||
        !std::all_of(digits.begin(), digits.end(), [](unsigned char c) { return std::isdigit(c); }))
        return 0;
    return std::atoi(digits.c_str());
}

void readSize(const std::string& value, CameraOptions& options) {
    const size_t x = value.find('x');
    options.width = x == std::string::npos ? 0 : readExtent(value.substr(0, x));
    options.height = x == std::string::npos ? 0 : readExtent(value.substr(x + 1));
    if (options.width < 1 || options.height < 1 || options.width > kMaxExtent || options.height > kMaxExtent)
        throw Failure("--size: WxH was expected with both from 1 to " + std::to_string(kMaxExtent) + ", not '" + value +
                      "'");
}

} // namespace

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

bool parseArguments(CLI::App& app, int argc, char** argv) {
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& done) {
        app.exit(done, std::cout, std::cerr);
        return false;
    } catch (const CLI::ParseError& error) {
        std::string line = error.what();
        std::replace(line.begin(), line.end(), '\n', ' ');
        throw Failure(line + " (--help lists the options)");
    }
    return true;
}

void CameraArguments::addPicture() {
    const char* picture = "Picture";
    app_.add_option("-s,--size", size_, "WxH in pixels")->group(picture);
    app_.add_option("--samples", camera_.samples, "N: N x N rays a pixel")->check(within(1, 16))->group(picture);
}

void CameraArguments::addCamera() {
    const char* group = "Camera (left out: framed automatically)";
    app_.add_option("--eye", eye_, "position of the eye")->group(group);
    app_.add_option("--target", target_, "point in the middle of the picture (middle of the mesh)")->group(group);
    app_.add_option("--up", up_, "direction that points up")->group(group);
    app_.add_option("--fov", camera_.fov, "vertical field of view in degrees")->check(within(1.0, 160.0))->group(group);
    app_.add_option("--turn", camera_.turn, "automatic eye: degrees around the mesh")
        ->check(within(-360.0, 360.0))
        ->group(group);
    app_.add_option("--tilt", camera_.tilt, "automatic eye: degrees above the horizon")
        ->check(within(-80.0, 80.0))
        ->group(group);
}

void CameraArguments::read() {
    readSize(size_, camera_);
    if (!eye_.empty()) camera_.eye = readPoint("--eye", eye_);
    if (!target_.empty()) camera_.target = readPoint("--target", target_);
    scene_.up = readPoint("--up", up_);
    if (!(length(scene_.up) > 0)) throw Failure("--up: must not be zero");
}

void TreeArguments::add() {
    const char* tree = "Tree";
    app_.add_option("--builder", builder_, "simple, sah or auto (sah, or simple where that fails)")
        ->check(CLI::IsMember({"simple", "sah", "auto"}))
        ->group(tree);
    app_.add_option("--ratio", scene_.ratio, "sah: 0 a small tree built quickly, 1 the most subdivided")
        ->check(within(0.0, 1.0))
        ->group(tree);
    app_.add_option("--depth", scene_.depth, "greatest depth")->check(within(0, 50))->group(tree);
    app_.add_option("--memory", scene_.memory, "sah: working memory in MiB")->check(within(33, 4095))->group(tree);
}

void TreeArguments::read() {
    scene_.builder = builder_ == "simple" ? Builder::simple : builder_ == "sah" ? Builder::sah : Builder::automatic;
}

void WorkArguments::add() {
    const char* work = "Work";
    app_.add_option("-j,--threads", work_.threads, "threads (0: as many as there are processors)")
        ->check(within(0, 1024))
        ->group(work);
    app_.add_option("--tile", work_.tile, "side of a tile in pixels")->check(within(1, kMaxTileRays))->group(work);
    app_.add_flag("-q,--quiet", work_.quiet, "no progress, no summary")->group(work);
}

void WorkArguments::read(int samples) {
    if (work_.tile * samples > kMaxTileRays)
        throw Failure("--tile times --samples must not exceed " + std::to_string(kMaxTileRays));
}
