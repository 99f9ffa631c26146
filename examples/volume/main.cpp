// volume: resizes, filters, turns and distorts scans (NIfTI, NRRD or raw) and draws what became of them.
#include <zencore.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

#include "failure.h"
#include "file.h"
#include "picture.h"
#include "process.h"

namespace {

struct Options {
    std::string input, output, picture, size, type = "8u", interpolation = "cubic", kernel = "gauss";
    std::vector<double> factor, matrix, axis = {0, 0, 1}, scale = {1}, shift = {0, 0, 0};
    double rotate = 0, twist = 0;
    std::string field;
    int threads = 0;
    bool quiet = false;
};

RawFormat rawFormat(const Options& options) {
    RawFormat raw;
    if (options.size.empty()) return raw;
    char rest;
    if (std::sscanf(options.size.c_str(), "%dx%dx%d%c", &raw.width, &raw.height, &raw.depth, &rest) != 3 ||
        raw.width < 1 || raw.height < 1 || raw.depth < 1)
        throw Failure("--size: WIDTHxHEIGHTxDEPTH in voxels is expected, not " + options.size);
    raw.type = options.type == "8u" ? Voxel::u8 : options.type == "16u" ? Voxel::u16 : Voxel::f32;
    return raw;
}

void describe(const char* what, const Volume& v) {
    std::printf("%-8s %d x %d x %d voxels of %s\n", what, v.width, v.height, v.depth, nameOf(v.type));
}

// A bar on a terminal, nothing elsewhere: the work is short.
void showProgress(double share, bool quiet) {
    if (quiet || !isatty(STDERR_FILENO)) return;
    std::fprintf(stderr, "\r[%-40.*s] %3.0f %%%s", int(share * 40), "########################################",
                 share * 100, share >= 1 ? "\n" : "");
}

template <class Work> void run(const Options& options, const char* verb, const Work& work) {
    const RawFormat raw = rawFormat(options);
    if (options.threads > 0) zenSetNumThreads(options.threads);
    if (!options.output.empty()) checkVolumeWritable(options.output);
    if (!options.picture.empty()) checkWritable(options.picture);
    checkApart({options.output, options.picture});

    const Volume source = readVolume(options.input, raw);
    const auto start = std::chrono::steady_clock::now();
    const Volume result = work(source, [&](double share) { showProgress(share, options.quiet); });
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    if (!options.output.empty()) writeVolume(options.output, result);
    if (!options.picture.empty()) writeFile(options.picture, contactSheet({&source, &result}));
    if (options.quiet) return;
    describe("before", source);
    describe("after", result);
    std::printf("%-8s %.3f s on %d threads, %.1f Mvoxel/s\n", verb, seconds, ownGetNumThreads(),
                double(result.count()) / 1e6 / (seconds > 0 ? seconds : 1e-9));
}

void commonOptions(CLI::App* verb, Options& options) {
    verb->add_option("input", options.input, "volume to read: .nii, .nii.gz, .nrrd, .nhdr, or raw voxels")->required();
    verb->add_option("output", options.output, "volume to write: .nii, .nii.gz, .nrrd, or raw voxels");
    verb->add_option("--picture", options.picture, "PNG with slices and a projection, before and after");
    verb->add_option("--size", options.size, "size of a raw input, as 181x217x181");
    verb->add_option("--type", options.type, "voxels of a raw input")->check(CLI::IsMember({"8u", "16u", "32f"}));
    verb->add_option("--threads", options.threads, "threads to use (default: all)")->check(CLI::Range(1, 1024));
    verb->add_flag("--quiet", options.quiet, "no progress, no summary");
}

void interpolationOption(CLI::App* verb, Options& options) {
    verb->add_option("--interpolation", options.interpolation, "how to interpolate")
        ->check(CLI::IsMember(interpolationNames()));
}

// Numbers from `least` to `most`, of which NaN is none.
CLI::Option* within(CLI::Option* option, double least, double most) {
    return option->check([=](const std::string& text) {
        const double value = std::strtod(text.c_str(), nullptr);
        return value >= least && value <= most ? std::string() : text + " is out of range";
    });
}
constexpr double kFar = 1e6; // more than any volume has voxels, or needs turns

CLI::Option* numbers(CLI::Option* option, int count) {
    return within(option->delimiter(',')->expected(count), -kFar, kFar);
}

Matrix matrixOf(const Options& options, const Volume& volume) {
    Matrix matrix;
    if (options.matrix.empty()) {
        std::vector<double> scale = options.scale;
        scale.resize(3, scale[0]);
        return aboutCentre(volume, options.rotate, options.axis.data(), scale.data(), options.shift.data());
    }
    std::copy(options.matrix.begin(), options.matrix.end(), matrix.begin());
    return matrix;
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app("volume: resizes, filters, turns and distorts scans");
    app.require_subcommand(1);
    CLI::App* resize = app.add_subcommand("resize", "scale by factors");
    commonOptions(resize, options);
    resize->add_option("--factor", options.factor, "one factor, or three for x, y and z")
        ->required()
        ->delimiter(',')
        ->check(CLI::Range(1e-3, 1e3));
    interpolationOption(resize, options);
    CLI::App* filter = app.add_subcommand("filter", "convolve with a kernel of whole numbers");
    commonOptions(filter, options);
    filter->add_option("--kernel", options.kernel, "box, gauss, sharpen, laplace, sobel, or a kernel file");

    CLI::App* warp = app.add_subcommand("warp", "move by an affine transform; what is not covered becomes 0");
    commonOptions(warp, options);
    interpolationOption(warp, options);
    CLI::Option* matrix =
        numbers(warp->add_option("--matrix", options.matrix, "12 numbers, rows of 4: where voxels go, in voxels"), 12);
    for (CLI::Option* option :
         {within(warp->add_option("--rotate", options.rotate, "degrees to turn by, about the centre"), -kFar, kFar),
          numbers(warp->add_option("--axis", options.axis, "axis to turn about, as 1,2,3 (default: z)"), 3),
          within(warp->add_option("--scale", options.scale, "one factor, or three for x, y and z; the centre stays")
                     ->delimiter(','),
                 1e-3, 1e3),
          numbers(warp->add_option("--shift", options.shift, "voxels to move by along x, y and z"), 3)})
        option->excludes(matrix);
    CLI::App* remap = app.add_subcommand("remap", "take each voxel from a place of its own");
    commonOptions(remap, options);
    interpolationOption(remap, options);
    CLI::Option* field =
        remap->add_option("--field", options.field,
                          "displacements in voxels: raw 32-bit floats, those along x of all voxels, then y, then z");
    within(
        remap->add_option("--twist", options.twist, "twist about the z axis by so many degrees, first slice to last"),
        -kFar, kFar)
        ->excludes(field);

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        std::fputs(app.help().c_str(), stdout);
        return 0;
    } catch (const CLI::ParseError& error) {
        std::fprintf(stderr, "volume: %s\n", error.what());
        return 1;
    }
    try {
        if (resize->parsed()) {
            if (options.factor.size() != 1 && options.factor.size() != 3)
                throw Failure("--factor: one factor or three, separated by commas");
            options.factor.resize(3, options.factor[0]);
            const int mode = interpolationOf(options.interpolation);
            run(options, "resize",
                [&](const Volume& v, const Report& report) { return resized(v, options.factor.data(), mode, report); });
        } else if (warp->parsed()) {
            if (options.scale.size() != 1 && options.scale.size() != 3)
                throw Failure("--scale: one factor or three, separated by commas");
            const int mode = interpolationOf(options.interpolation);
            run(options, "warp",
                [&](const Volume& v, const Report& report) { return warped(v, matrixOf(options, v), mode, report); });
        } else if (remap->parsed()) {
            const int mode = interpolationOf(options.interpolation);
            run(options, "remap", [&](const Volume& v, const Report& report) {
                return remapped(v, options.field.empty() ? twist(v, options.twist) : readField(options.field, v), mode,
                                report);
            });
        } else {
            const Kernel kernel = kernelOf(options.kernel);
            run(options, "filter", [&](const Volume& v, const Report& report) { return filtered(v, kernel, report); });
        }
    } catch (const Failure& failure) {
        std::fprintf(stderr, "volume: %s\n", failure.what());
        return 1;
    } catch (const std::bad_alloc&) {
        std::fprintf(stderr, "volume: no memory\n");
        return 1;
    }
    return 0;
}
