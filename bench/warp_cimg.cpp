// Affine warp and remap by CImg.
#define cimg_display 0
#include <CImg.h>

#include "warp_peers.h"

using cimg_library::CImg;

template <class T> struct CimgWarp<T>::State {
    CImg<T> image;
    CImg<float> field;
    int interpolation;
    bool rotate;
};

template <class T> CimgWarp<T>::CimgWarp(const WarpPeerTask& task, const T* src) : state_(new State) {
    const unsigned n = unsigned(task.n);
    state_->image.assign(src, n, n, n, 1);
    state_->interpolation = task.mode == 1 ? 0 : task.mode == 2 ? 1 : 2;
    state_->rotate = task.inverse;
    if (task.inverse) return;
    state_->field.assign(n, n, n, 3);
    for (int k = 0; k < 3; ++k)
        state_->field.get_shared_channel(unsigned(k)) = CImg<float>(task.map[k], n, n, n, 1, true);
}
template <class T> CimgWarp<T>::~CimgWarp() = default;
template <class T> void CimgWarp<T>::run() {
    const State& s = *state_;
    const float c = float(s.image.width() - 1) / 2;
    const CImg<T> result = s.rotate ? s.image.get_rotate(1, 2, 3, 20, c, c, c, unsigned(s.interpolation), 0)
                                    : s.image.get_warp(s.field, 0, unsigned(s.interpolation), 0);
    volatile T last = result.back();
    (void)last;
}

template class CimgWarp<unsigned char>;
template class CimgWarp<unsigned short>;
template class CimgWarp<float>;
