// Volume resize out of zimg's image resize.
#include <math.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <zimg.h>

#include "resize_peers.h"

namespace {

void* alignedMemory(size_t bytes) {
    void* const p = aligned_alloc(64, (bytes + 63) / 64 * 64);
    if (!p) abort();
    memset(p, 0, bytes);
    return p;
}

// One resize of an image of `width` columns from `height` to `newHeight` rows and to `newWidth` columns.
class Graph {
public:
    template <class T> void build(int width, int height, int newWidth, int newHeight, int mode, T) {
        zimg_image_format from, to;
        zimg_image_format_default(&from, ZIMG_API_VERSION);
        from.width = unsigned(width);
        from.height = unsigned(height);
        from.pixel_type = sizeof(T) == 1 ? ZIMG_PIXEL_BYTE : sizeof(T) == 2 ? ZIMG_PIXEL_WORD : ZIMG_PIXEL_FLOAT;
        from.depth = sizeof(T) * 8;
        from.color_family = ZIMG_COLOR_GREY;
        from.pixel_range = ZIMG_RANGE_FULL;
        to = from;
        to.width = unsigned(newWidth);
        to.height = unsigned(newHeight);
        zimg_graph_builder_params params;
        zimg_graph_builder_params_default(&params, ZIMG_API_VERSION);
        params.cpu_type = ZIMG_CPU_AUTO_64B;
        params.resample_filter = mode == 1 ? ZIMG_RESIZE_POINT : mode == 2 ? ZIMG_RESIZE_BILINEAR : ZIMG_RESIZE_BICUBIC;
        params.filter_param_a = 0; // Catmull-Rom
        params.filter_param_b = 0.5;
        graph_ = zimg_filter_graph_build(&from, &to, &params);
        size_t bytes = 0;
        if (!graph_ || zimg_filter_graph_get_tmp_size(graph_, &bytes)) fail();
        scratch_ = alignedMemory(bytes);
    }
    void run(const void* src, ptrdiff_t srcStep, void* dst, ptrdiff_t dstStep) const {
        zimg_image_buffer_const from = {};
        from.version = ZIMG_API_VERSION;
        from.plane[0].data = src;
        from.plane[0].stride = srcStep;
        from.plane[0].mask = ZIMG_BUFFER_MAX;
        zimg_image_buffer to = {};
        to.version = ZIMG_API_VERSION;
        to.plane[0].data = dst;
        to.plane[0].stride = dstStep;
        to.plane[0].mask = ZIMG_BUFFER_MAX;
        if (zimg_filter_graph_process(graph_, &from, &to, scratch_, nullptr, nullptr, nullptr, nullptr)) fail();
    }
    ~Graph() {
        zimg_filter_graph_free(graph_);
        free(scratch_);
    }

private:
    static void fail() {
        char text[256];
        zimg_get_last_error(text, sizeof text);
        fprintf(stderr, "zimg: %s\n", text);
        exit(1);
    }
    zimg_filter_graph* graph_ = nullptr;
    void* scratch_ = nullptr;
};

} // namespace

// Rows of both sizes are padded to whole cache lines.
template <class T> struct ZimgResize<T>::State {
    ResizeTask task;
    ptrdiff_t srcStep, dstStep; // in bytes
    char *src, *between, *dst;
    Graph planes, columns;
};

template <class T> ZimgResize<T>::ZimgResize(const ResizeTask& task, const T* src) : state_(new State) {
    State& s = *state_;
    const ptrdiff_t n = task.n, m = task.m, size = sizeof(T);
    s.task = task;
    s.srcStep = (n * size + 63) / 64 * 64;
    s.dstStep = (m * size + 63) / 64 * 64;
    s.src = static_cast<char*>(alignedMemory(size_t(s.srcStep * n * n)));
    s.between = static_cast<char*>(alignedMemory(size_t(s.dstStep * m * n)));
    s.dst = static_cast<char*>(alignedMemory(size_t(s.dstStep * m * m)));
    for (ptrdiff_t row = 0; row < n * n; ++row) memcpy(s.src + row * s.srcStep, src + row * n, size_t(n * size));
    s.planes.build(task.n, task.n, task.m, task.m, task.mode, T());
    s.columns.build(task.m, task.n, task.m, task.m, task.mode, T());
}
template <class T> ZimgResize<T>::~ZimgResize() {
    free(state_->src);
    free(state_->between);
    free(state_->dst);
}
template <class T> void ZimgResize<T>::run() {
    const State& s = *state_;
    const ptrdiff_t n = s.task.n, m = s.task.m;
    for (ptrdiff_t z = 0; z < n; ++z)
        s.planes.run(s.src + z * n * s.srcStep, s.srcStep, s.between + z * m * s.dstStep, s.dstStep);
    for (ptrdiff_t y = 0; y < m; ++y)
        s.columns.run(s.between + y * s.dstStep, m * s.dstStep, s.dst + y * s.dstStep, m * s.dstStep);
}
template <class T> const T* ZimgResize<T>::row(int y, int z) const {
    return reinterpret_cast<const T*>(state_->dst + (ptrdiff_t(z) * state_->task.m + y) * state_->dstStep);
}

template class ZimgResize<unsigned char>;
template class ZimgResize<unsigned short>;
template class ZimgResize<float>;
