// Volumes in memory, raw files, and what voxels of other files become.
#include "volume.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "failure.h"
#include "file.h"
#include "format.h"

const char* nameOf(Voxel type) {
    return type == Voxel::u8 ? "8u" : type == Voxel::u16 ? "16u" : "32f";
}

Volume Volume::make(int width, int height, int depth, Voxel type) {
    if (width < 1 || height < 1 || depth < 1) throw Failure("a volume needs at least one voxel along each axis");
    if (int64_t(width) * height > INT_MAX / bytesOf(type) ||
        double(width) * height * depth * bytesOf(type) > double(PTRDIFF_MAX) / 2)
        throw Failure("a volume of " + std::to_string(width) + "x" + std::to_string(height) + "x" +
                      std::to_string(depth) + " voxels is too large");
    Volume volume;
    volume.width = width;
    volume.height = height;
    volume.depth = depth;
    volume.type = type;
    volume.voxels.resize(volume.planeBytes() * size_t(depth));
    return volume;
}

float Volume::value(size_t i) const {
    switch (type) {
    case Voxel::u8:
        return at<uint8_t>()[i];
    case Voxel::u16:
        return at<uint16_t>()[i];
    default:
        return at<float>()[i];
    }
}

namespace {

Volume readRaw(const std::string& path, const RawFormat& raw) {
    if (!raw.given()) throw Failure(path + ": raw voxels need --size and --type");
    Volume volume = Volume::make(raw.width, raw.height, raw.depth, raw.type);
    std::vector<unsigned char> bytes = readFile(path);
    if (bytes.size() != volume.voxels.size())
        throw Failure(path + ": has " + std::to_string(bytes.size()) + " bytes, but the size and type given need " +
                      std::to_string(volume.voxels.size()));
    volume.voxels = std::move(bytes);
    return volume;
}

template <class T> Volume converted(int width, int height, int depth, Voxel type, const void* voxels) {
    Volume volume = Volume::make(width, height, depth, type);
    const T* from = static_cast<const T*>(voxels);
    for (size_t i = 0; i < volume.count(); ++i) {
        if (type == Voxel::u8)
            volume.at<uint8_t>()[i] = uint8_t(from[i]);
        else if (type == Voxel::u16)
            volume.at<uint16_t>()[i] = uint16_t(from[i]);
        else
            volume.at<float>()[i] = float(from[i]);
    }
    return volume;
}

bool anyNegative(const int16_t* data, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        if (data[i] < 0) return true;
    }
    return false;
}

// The kind of a file by its name; null for raw voxels.
const Format* formatOf(const std::string& path) {
    for (const Format* format : {&nifti, &nrrd}) {
        if (!format->names(path)) continue;
        if (!format->built) throw Failure(path + ": this build has no " + format->name + " support");
        return format;
    }
    return nullptr;
}

} // namespace

bool endsWith(const std::string& name, const char* ending) {
    const size_t n = std::strlen(ending);
    return name.size() >= n && name.compare(name.size() - n, n, ending) == 0;
}

Volume volumeOf(int width, int height, int depth, Stored type, const void* voxels) {
    const size_t count = size_t(width) * size_t(height) * size_t(depth);
    switch (type) {
    case Stored::u8:
        return converted<uint8_t>(width, height, depth, Voxel::u8, voxels);
    case Stored::u16:
        return converted<uint16_t>(width, height, depth, Voxel::u16, voxels);
    case Stored::i16:
        return converted<int16_t>(width, height, depth,
                                  anyNegative(static_cast<const int16_t*>(voxels), count) ? Voxel::f32 : Voxel::u16,
                                  voxels);
    case Stored::i8:
        return converted<int8_t>(width, height, depth, Voxel::f32, voxels);
    case Stored::i32:
        return converted<int32_t>(width, height, depth, Voxel::f32, voxels);
    case Stored::u32:
        return converted<uint32_t>(width, height, depth, Voxel::f32, voxels);
    case Stored::i64:
        return converted<int64_t>(width, height, depth, Voxel::f32, voxels);
    case Stored::u64:
        return converted<uint64_t>(width, height, depth, Voxel::f32, voxels);
    case Stored::f32:
        return converted<float>(width, height, depth, Voxel::f32, voxels);
    case Stored::f64:
        break;
    }
    return converted<double>(width, height, depth, Voxel::f32, voxels);
}

Volume readVolume(const std::string& path, const RawFormat& raw) {
    const Format* format = formatOf(path);
    return format ? format->read(path) : readRaw(path, raw);
}

void writeVolume(const std::string& path, const Volume& volume) {
    const Format* format = formatOf(path);
    if (format)
        format->write(path, volume);
    else
        writeFile(path, volume.voxels);
}

void checkVolumeWritable(const std::string& path) {
    formatOf(path);
    if (endsWith(path, ".nhdr"))
        throw Failure(path + ": is read only; write a .nrrd file, which has header and voxels");
    checkWritable(path);
}
