// What the tests of the volume transforms share: volumes in guarded memory, voxels to fill them with, thread counts.
#pragma once
#include <algorithm>
#include <type_traits>

#include "support.h"
#include "zencore.h"
#include "zenr.h"

namespace zenrtest {

constexpr int kModes[] = {1, 2, 4, 5, 6, 7};

struct Threads {
    explicit Threads(int n) { zenSetNumThreads(n); }
    ~Threads() { zenSetNumThreads(1); }
};

// A volume in guarded memory with padded rows, in either direction, either block or planes.
template <class T> class TestVolume {
public:
    TestVolume(ZenrVolume size, int padding, bool upwards, bool shuffled, typename Guarded<T>::Side side)
        : size_(size), pitch_(size.width + padding),
          memory_(size_t(pitch_) * (size.height * size.depth - 1) + size.width, side), planes_(size.depth),
          upwards_(upwards) {
        for (int z = 0; z < size.depth; ++z) {
            const int place = shuffled ? (z * 7 + 3) % size.depth == z ? z : size.depth - 1 - z : z;
            planes_[z] =
                &memory_[size_t(place) * size.height * pitch_] + (upwards ? size_t(size.height - 1) * pitch_ : 0);
        }
    }
    T& at(int x, int y, int z) { return planes_[z][(upwards_ ? -ptrdiff_t(y) : ptrdiff_t(y)) * pitch_ + x]; }
    int step() const { return (upwards_ ? -pitch_ : pitch_) * int(sizeof(T)); }
    int planeStep() const { return pitch_ * size_.height * int(sizeof(T)); }
    T* base() { return planes_[0]; }
    T* const* planes() { return planes_.data(); }
    Guarded<T>& memory() { return memory_; }
    ZenrVolume size() const { return size_; }

private:
    ZenrVolume size_;
    int pitch_;
    Guarded<T> memory_;
    std::vector<T*> planes_;
    bool upwards_;
};

template <class T> bool same(T a, T b) {
    return a == b;
}
template <> inline bool same(float a, float b) {
    return sameFloat(a, b);
}

template <class T> T randomVoxel(Floats& r, int flavour) {
    if (std::is_same<T, float>::value)
        return T(flavour == 0 ? r.any() : flavour == 1 ? float(r.bits() % 4096) : r.moderate());
    if (flavour == 0) return r.bits() % 2 ? T(~0u) : T(0); // the extremes: largest overshoot
    return T(r.bits());
}
template <class T> T canary(size_t i) {
    return std::is_same<T, float>::value ? T(floatOf(0x4B000000u + uint32_t(i % 8191))) : T(i * 37 + 11);
}

} // namespace zenrtest
