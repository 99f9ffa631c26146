// Volume resize by CImg.
#define cimg_display 0
#include <CImg.h>

#include "resize_peers.h"

template <class T> void cimgResize(const ResizeTask& task, const T* src) {
    const unsigned n = unsigned(task.n), m = unsigned(task.m);
    const int interpolation = task.mode == 1 ? 1 : task.mode == 2 ? 3 : 5;
    const cimg_library::CImg<T> image(src, n, n, n, 1, true);
    const cimg_library::CImg<T> result = image.get_resize(int(m), int(m), int(m), 1, interpolation, 1);
    volatile T last = result.back();
    (void)last;
}
template void cimgResize(const ResizeTask&, const unsigned char*);
template void cimgResize(const ResizeTask&, const unsigned short*);
template void cimgResize(const ResizeTask&, const float*);
