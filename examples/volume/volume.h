// A scan in memory: one channel of voxels in a block, x fastest, and where it lies in the world.
#pragma once
#include <array>
#include <cstdint>
#include <string>
#include <vector>

enum class Voxel { u8, u16, f32 };

constexpr int bytesOf(Voxel type) {
    return type == Voxel::u8 ? 1 : type == Voxel::u16 ? 2 : 4;
}
const char* nameOf(Voxel type);

struct Volume {
    int width = 0, height = 0, depth = 0;
    Voxel type = Voxel::u8;
    std::vector<unsigned char> voxels;
    // Voxel coordinates to millimetres, three rows of four; identity where the file says nothing.
    std::array<double, 12> world = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};

    // All zeros. Fails for sizes that memory or the library's 32-bit strides cannot hold.
    static Volume make(int width, int height, int depth, Voxel type);
    size_t planeBytes() const { return size_t(width) * height * bytesOf(type); }
    size_t count() const { return size_t(width) * height * depth; }
    template <class T> const T* at() const { return reinterpret_cast<const T*>(voxels.data()); }
    template <class T> T* at() { return reinterpret_cast<T*>(voxels.data()); }
    // Any voxel as a float: 8 and 16 bits convert exactly.
    float value(size_t i) const;
};

// Reads files with headers by their names (format.h); anything else is raw voxels in this machine's byte order and needs
// size and type.
struct RawFormat {
    int width = 0, height = 0, depth = 0;
    Voxel type = Voxel::u8;
    bool given() const { return width > 0; }
};
Volume readVolume(const std::string& path, const RawFormat& raw);
void writeVolume(const std::string& path, const Volume& volume);
// Fails where writeVolume would have no way to write.
void checkVolumeWritable(const std::string& path);
