// What affine warp and remap are measured against: the same cube of n^3 voxels moved by other means, one thread each.
#pragma once
#include <memory>

struct WarpPeerTask {
    int n;
    int mode;              // the library's: 1 nearest, 2 linear, 6 Catmull-Rom
    const double* inverse; // destination to source coordinates, three rows of four; null for a remap
    const float* map[3];   // positions in the source, for a remap
};

// Plain loops, voxel by voxel in float: the first thing that one would write.
template <class T> void plainWarp(const WarpPeerTask& task, const T* src, T* dst);

// CImg: a remap by a field of absolute positions. A warp is a rotation by 20 degrees about (1, 2, 3), whatever the
// matrix; it knows no scale.
template <class T> class CimgWarp {
public:
    CimgWarp(const WarpPeerTask& task, const T* src);
    ~CimgWarp();
    void run();

private:
    struct State;
    std::unique_ptr<State> state_;
};

// VTK, warps only.
template <class T> class VtkWarp {
public:
    VtkWarp(const WarpPeerTask& task, const T* src);
    ~VtkWarp();
    void run();
    const T* voxels() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};
