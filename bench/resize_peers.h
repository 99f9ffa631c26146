// What volume resize is measured against: the same cube resized by other means, one thread each.
#pragma once
#include <memory>

// A cube of n^3 voxels becomes one of m^3. `mode` is the library's: 1 nearest, 2 linear, 6 Catmull-Rom.
struct ResizeTask {
    int n;
    int m;
    int mode;
};

// Plain loops, axis after axis over whole planes, in float: the first thing that one would write.
template <class T> void plainResize(const ResizeTask& task, const T* src, T* dst);

// CImg resizes axis by axis over whole volumes. Its outermost voxels lie on those of the source, so that its result is
// another one; linear and cubic means the same.
template <class T> void cimgResize(const ResizeTask& task, const T* src);

// zimg resizes images: every source plane, then every xz plane of what came out. It wants aligned rows, so it has
// volumes of its own. In a reduction it widens its filters against aliasing, and so takes 1.5 times as many taps.
template <class T> class ZimgResize {
public:
    ZimgResize(const ResizeTask& task, const T* src);
    ~ZimgResize();
    void run();
    // Voxels of the result.
    const T* row(int y, int z) const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

// VTK has two filters for it, of which now the one and now the other is faster. Both divide ties of nearest neighbours
// differently.
template <class T> class VtkResize {
public:
    VtkResize(const ResizeTask& task, const T* src);
    ~VtkResize();
    void reslice();
    void resize();
    const T* voxels() const; // of the last

private:
    struct State;
    std::unique_ptr<State> state_;
};
