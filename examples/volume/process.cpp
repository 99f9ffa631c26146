// Resizing in slabs of slices, so that there is progress to report; filtering of a padded copy.
#include "process.h"

#include <zencore.h>
#include <zenr.h>

#include <algorithm>
#include <cmath>
#include <sstream>

#include "failure.h"
#include "file.h"

namespace {

struct NamedMode {
    const char* name;
    int mode;
};
const NamedMode kModes[] = {{"nearest", 1}, {"linear", 2}, {"cubic", 4}, {"cubic5", 5}, {"cubic6", 6}, {"cubic7", 7}};

template <class T, class Resize>
ZenStatus resizeSlab(Resize resize, const Volume& s, Volume& d, ZenrBox box, const double f[3], int mode,
                     uint8_t* buffer) {
    const int row = int(sizeof(T));
    return resize(s.at<T>(), {s.width, s.height, s.depth}, s.width * row, int(s.planeBytes()),
                  {0, 0, 0, s.width, s.height, s.depth}, d.at<T>(), d.width * row, int(d.planeBytes()), box, f[0], f[1],
                  f[2], 0., 0., 0., mode, buffer);
}

int scaledSize(int size, double factor) {
    const double scaled = std::floor(size * factor + 0.5);
    if (!(scaled >= 1 && scaled < 1e6)) throw Failure("a factor leaves no voxel, or far too many");
    return int(scaled);
}

} // namespace

void check(int status, const char* what) {
    if (status < 0) throw Failure(std::string(what) + ": the library says " + std::to_string(status));
}

const std::vector<std::string>& interpolationNames() {
    static const std::vector<std::string> names = [] {
        std::vector<std::string> all;
        for (const auto& m : kModes) all.push_back(m.name);
        return all;
    }();
    return names;
}

int interpolationOf(const std::string& name) {
    for (const auto& m : kModes) {
        if (name == m.name) return m.mode;
    }
    throw Failure("unknown interpolation: " + name);
}

Volume resized(const Volume& source, const double factor[3], int interpolation, const Report& report) {
    Volume result = Volume::make(scaledSize(source.width, factor[0]), scaledSize(source.height, factor[1]),
                                 scaledSize(source.depth, factor[2]), source.type);
    // The factors that fit the whole numbers of voxels, so that the last voxels are filled too.
    const double exact[3] = {double(result.width) / source.width, double(result.height) / source.height,
                             double(result.depth) / source.depth};
    // Voxel d of the result lies at (d + 0.5) / factor - 0.5 of the source.
    for (int r = 0; r < 3; ++r) {
        double* row = &result.world[size_t(4 * r)];
        const double* from = &source.world[size_t(4 * r)];
        row[3] = from[3];
        for (int k = 0; k < 3; ++k) {
            row[k] = from[k] / exact[k];
            row[3] += from[k] * (0.5 / exact[k] - 0.5);
        }
    }

    for (int z = 0; z < result.depth; z += kSlab) {
        const ZenrBox box = {0, 0, z, result.width, result.height, std::min(kSlab, result.depth - z)};
        int bytes = 0;
        check(zenrResizeGetBufSize({0, 0, 0, source.width, source.height, source.depth}, box, 1, interpolation, &bytes),
              "resize");
        std::vector<uint8_t> buffer(static_cast<size_t>(bytes));
        ZenStatus status = zenStsNoErr;
        switch (source.type) {
        case Voxel::u8:
            status = resizeSlab<uint8_t>(zenrResize_8u_C1V, source, result, box, exact, interpolation, buffer.data());
            break;
        case Voxel::u16:
            status = resizeSlab<uint16_t>(zenrResize_16u_C1V, source, result, box, exact, interpolation, buffer.data());
            break;
        case Voxel::f32:
            status = resizeSlab<float>(zenrResize_32f_C1V, source, result, box, exact, interpolation, buffer.data());
            break;
        }
        check(status, "resize");
        report(double(z + box.depth) / result.depth);
    }
    return result;
}

namespace {

// The product of a row with itself along the three axes.
Kernel cube(const std::vector<int32_t>& row) {
    Kernel kernel;
    kernel.width = kernel.height = kernel.depth = int(row.size());
    int64_t sum = 0;
    for (int32_t z : row) {
        for (int32_t y : row) {
            for (int32_t x : row) {
                kernel.weights.push_back(x * y * z);
                sum += int64_t(x) * y * z;
            }
        }
    }
    kernel.divisor = int(sum);
    return kernel;
}

// 26 neighbours against the centre.
Kernel laplace(int32_t centre, int divisor) {
    Kernel kernel;
    kernel.width = kernel.height = kernel.depth = 3;
    kernel.weights.assign(27, -1);
    kernel.weights[13] = centre;
    kernel.divisor = divisor;
    return kernel;
}

Kernel sobelX() {
    Kernel kernel;
    kernel.width = kernel.height = kernel.depth = 3;
    const int32_t smooth[3] = {1, 2, 1}, slope[3] = {1, 0, -1};
    for (int z = 0; z < 3; ++z) {
        for (int y = 0; y < 3; ++y) {
            for (int32_t x : slope) kernel.weights.push_back(x * smooth[y] * smooth[z]);
        }
    }
    kernel.divisor = 16;
    return kernel;
}

// "width height depth divisor", then the weights, x fastest; '#' starts a comment.
Kernel readKernel(const std::string& path) {
    const auto bytes = readFile(path);
    std::string text;
    bool comment = false;
    for (unsigned char c : bytes) {
        if (c == '#') comment = true;
        if (c == '\n') comment = false;
        text += comment ? ' ' : char(c);
    }
    std::istringstream in(text);
    Kernel kernel;
    if (!(in >> kernel.width >> kernel.height >> kernel.depth >> kernel.divisor) || kernel.width < 1 ||
        kernel.height < 1 || kernel.depth < 1 || kernel.width > 255 || kernel.height > 255 || kernel.depth > 255)
        throw Failure(path + ": a kernel begins with its width, height, depth (1 to 255) and divisor");
    const size_t count = size_t(kernel.width) * kernel.height * kernel.depth;
    for (int32_t w; kernel.weights.size() < count && in >> w;) kernel.weights.push_back(w);
    std::string rest;
    if (kernel.weights.size() != count || in >> rest)
        throw Failure(path + ": does not hold the " + std::to_string(count) + " whole numbers that its size says");
    if (kernel.divisor == 0) throw Failure(path + ": the divisor is 0");
    return kernel;
}

} // namespace

const std::vector<std::string>& kernelNames() {
    static const std::vector<std::string> names = {"box", "gauss", "sharpen", "laplace", "sobel"};
    return names;
}

Kernel kernelOf(const std::string& name) {
    if (name == "box") return cube({1, 1, 1, 1, 1});
    if (name == "gauss") return cube({1, 4, 6, 4, 1});
    if (name == "sharpen") return laplace(26 + 13, 13);
    if (name == "laplace") return laplace(26, 13);
    if (name == "sobel") return sobelX();
    return readKernel(name);
}

Volume filtered(const Volume& source, const Kernel& kernel, const Report& report) {
    const ZenrPoint anchor = {kernel.width / 2, kernel.height / 2, kernel.depth / 2};
    const int left = kernel.width - 1 - anchor.x, above = kernel.height - 1 - anchor.y,
              before = kernel.depth - 1 - anchor.z;
    const int width = source.width + kernel.width - 1, height = source.height + kernel.height - 1,
              depth = source.depth + kernel.depth - 1;

    // A copy in 16 signed bits, its edges repeated outwards as far as the kernel reaches.
    std::vector<int16_t> padded(size_t(width) * height * depth), result(source.count());
    for (int z = 0; z < depth; ++z) {
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x) {
                const size_t from = (size_t(std::clamp(z - before, 0, source.depth - 1)) * source.height +
                                     std::clamp(y - above, 0, source.height - 1)) *
                                        source.width +
                                    std::clamp(x - left, 0, source.width - 1);
                const float v = source.value(from);
                if (!(v >= -32768.f && v <= 32767.f && v == std::floor(v)))
                    throw Failure("filtering needs whole voxel values of 16 signed bits");
                padded[(size_t(z) * height + y) * width + x] = int16_t(v);
            }
        }
    }
    std::vector<const int16_t*> from;
    std::vector<int16_t*> to;
    for (int z = 0; z < depth; ++z) from.push_back(padded.data() + (size_t(z) * height + above) * width + left);
    for (int z = 0; z < source.depth; ++z) to.push_back(result.data() + size_t(z) * source.width * source.height);

    for (int z = 0; z < source.depth; z += kSlab) {
        const ZenrVolume slab = {source.width, source.height, std::min(kSlab, source.depth - z)};
        check(zenrFilter_16s_C1PV(from.data() + before + z, width * 2, to.data() + z, source.width * 2, slab,
                                  kernel.weights.data(), {kernel.width, kernel.height, kernel.depth}, anchor,
                                  kernel.divisor, nullptr),
              "filter");
        report(double(z + slab.depth) / source.depth);
    }

    // Back to the type of the source; negative results of edge filters become their size there.
    Volume out = Volume::make(source.width, source.height, source.depth, source.type);
    out.world = source.world;
    for (size_t i = 0; i < result.size(); ++i) {
        const int v = std::abs(int(result[i]));
        if (out.type == Voxel::u8)
            out.at<uint8_t>()[i] = uint8_t(std::min(v, 255));
        else if (out.type == Voxel::u16)
            out.at<uint16_t>()[i] = uint16_t(v);
        else
            out.at<float>()[i] = float(result[i]);
    }
    return out;
}
