// Affine transforms and displacement fields, in slabs of slices, so that there is progress to report.
#include <zenr.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "failure.h"
#include "file.h"
#include "process.h"

namespace {

struct Turn {
    double sine, cosine;
};

// Rounded to 24 bits: mathematical libraries may differ in the last place, pictures should not.
Turn turnBy(double degrees) {
    const double t = std::fmod(degrees, 360) * (M_PI / 180), unit = 1 << 24;
    return {std::round(std::sin(t) * unit) / unit, std::round(std::cos(t) * unit) / unit};
}

template <class T, class V> std::vector<T*> planesOf(V& volume) {
    std::vector<T*> planes;
    for (int z = 0; z < volume.depth; ++z)
        planes.push_back(volume.template at<T>() + size_t(z) * volume.width * volume.height);
    return planes;
}
std::vector<const float*> planesOf(const Volume& volume, const std::vector<float>& values) {
    std::vector<const float*> planes;
    for (int z = 0; z < volume.depth; ++z) planes.push_back(values.data() + size_t(z) * volume.width * volume.height);
    return planes;
}

ZenrBox whole(const Volume& v) {
    return {0, 0, 0, v.width, v.height, v.depth};
}

double determinant(const Matrix& m) {
    return m[0] * (m[5] * m[10] - m[6] * m[9]) - m[1] * (m[4] * m[10] - m[6] * m[8]) +
           m[2] * (m[4] * m[9] - m[5] * m[8]);
}

template <class T, class Warp>
void warpSlabs(Warp warp, const Volume& s, Volume& d, const Matrix& matrix, int mode, const Report& report) {
    const auto from = planesOf<const T>(s);
    const auto to = planesOf<T>(d);
    const int step = s.width * int(sizeof(T));
    for (int z = 0; z < d.depth; z += kSlab) {
        const ZenrBox box = {0, 0, z, d.width, d.height, std::min(kSlab, d.depth - z)};
        const int status =
            warp(from.data(), {s.width, s.height, s.depth}, step, whole(s), to.data(), step, box, matrix.data(), mode);
        if (status == zenStsCoeffErr) throw Failure("the matrix leaves no volume");
        check(status, "warp");
        report(double(z + box.depth) / d.depth);
    }
}

template <class T, class Remap>
void remapSlabs(Remap remap, const Volume& s, Volume& d, const Field& field, int mode, const Report& report) {
    const auto from = planesOf<const T>(s);
    const auto to = planesOf<T>(d);
    const auto x = planesOf(d, field.x), y = planesOf(d, field.y), z = planesOf(d, field.z);
    const int step = s.width * int(sizeof(T)), mapStep = d.width * int(sizeof(float));
    for (int k = 0; k < d.depth; k += kSlab) {
        const ZenrVolume slab = {d.width, d.height, std::min(kSlab, d.depth - k)};
        check(remap(from.data(), {s.width, s.height, s.depth}, step, whole(s), x.data() + k, y.data() + k, z.data() + k,
                    mapStep, to.data() + k, step, slab, mode),
              "remap");
        report(double(k + slab.depth) / d.depth);
    }
}

double middle(int size) {
    return (size - 1) / 2.;
}

} // namespace

Matrix aboutCentre(const Volume& volume, double degrees, const double axis[3], const double scale[3],
                   const double shift[3]) {
    const double length = std::sqrt(axis[0] * axis[0] + axis[1] * axis[1] + axis[2] * axis[2]);
    if (!(length > 0)) throw Failure("--axis: 0,0,0 is no direction");
    const double x = axis[0] / length, y = axis[1] / length, z = axis[2] / length;
    const auto [s, c] = turnBy(degrees);
    const double d = 1 - c;
    const double turn[3][3] = {{c + d * x * x, d * x * y - s * z, d * x * z + s * y},
                               {d * x * y + s * z, c + d * y * y, d * y * z - s * x},
                               {d * x * z - s * y, d * y * z + s * x, c + d * z * z}};
    const double centre[3] = {middle(volume.width), middle(volume.height), middle(volume.depth)};
    Matrix m;
    for (size_t r = 0; r < 3; ++r) {
        m[4 * r + 3] = centre[r] + shift[r];
        for (size_t k = 0; k < 3; ++k) {
            m[4 * r + k] = turn[r][k] * scale[k];
            m[4 * r + 3] -= m[4 * r + k] * centre[k];
        }
    }
    return m;
}

Volume warped(const Volume& source, const Matrix& matrix, int interpolation, const Report& report) {
    // The library writes nothing then, without an error.
    if (std::abs(determinant(matrix)) < 1e-10) throw Failure("the matrix leaves no volume");
    Volume result = Volume::make(source.width, source.height, source.depth, source.type);
    result.world = source.world;
    switch (source.type) {
    case Voxel::u8:
        warpSlabs<uint8_t>(zenrWarpAffine_8u_C1PV, source, result, matrix, interpolation, report);
        break;
    case Voxel::u16:
        warpSlabs<uint16_t>(zenrWarpAffine_16u_C1PV, source, result, matrix, interpolation, report);
        break;
    case Voxel::f32:
        warpSlabs<float>(zenrWarpAffine_32f_C1PV, source, result, matrix, interpolation, report);
        break;
    }
    return result;
}

Field readField(const std::string& path, const Volume& volume) {
    const auto bytes = readFile(path);
    const size_t each = volume.count() * sizeof(float);
    if (bytes.size() != 3 * each)
        throw Failure(path + ": holds " + std::to_string(bytes.size()) +
                      " bytes, but displacements for this volume need " + std::to_string(3 * each));
    Field field;
    const unsigned char* from = bytes.data();
    for (std::vector<float>* part : {&field.x, &field.y, &field.z}) {
        part->resize(volume.count());
        std::memcpy(part->data(), from, each);
        from += each;
    }
    return field;
}

Field twist(const Volume& volume, double degrees) {
    Field field;
    for (std::vector<float>* part : {&field.x, &field.y, &field.z}) part->resize(volume.count());
    size_t i = 0;
    for (int z = 0; z < volume.depth; ++z) {
        // A voxel of a turned slice comes from where it was before.
        const auto [s, c] = turnBy(volume.depth > 1 ? -degrees * z / (volume.depth - 1) : 0);
        for (int y = 0; y < volume.height; ++y) {
            for (int x = 0; x < volume.width; ++x, ++i) {
                const double dx = x - middle(volume.width), dy = y - middle(volume.height);
                field.x[i] = float(c * dx - s * dy - dx);
                field.y[i] = float(s * dx + c * dy - dy);
            }
        }
    }
    return field;
}

Volume remapped(const Volume& source, Field&& field, int interpolation, const Report& report) {
    Volume result = Volume::make(source.width, source.height, source.depth, source.type);
    result.world = source.world;
    size_t i = 0;
    for (int z = 0; z < source.depth; ++z) {
        for (int y = 0; y < source.height; ++y) {
            for (int x = 0; x < source.width; ++x, ++i) {
                field.x[i] += float(x);
                field.y[i] += float(y);
                field.z[i] += float(z);
            }
        }
    }
    switch (source.type) {
    case Voxel::u8:
        remapSlabs<uint8_t>(zenrRemap_8u_C1PV, source, result, field, interpolation, report);
        break;
    case Voxel::u16:
        remapSlabs<uint16_t>(zenrRemap_16u_C1PV, source, result, field, interpolation, report);
        break;
    case Voxel::f32:
        remapSlabs<float>(zenrRemap_32f_C1PV, source, result, field, interpolation, report);
        break;
    }
    return result;
}
