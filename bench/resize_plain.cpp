// Plain loops for volume resize. They take what the compiler makes of them for this machine.
#include <math.h>

#include <algorithm>
#include <vector>

#include "resize_peers.h"
#include "volume/pirescub.h"

namespace {

struct Tap {
    int i[4];
    float w[4];
};

std::vector<Tap> table(const ResizeTask& task, int taps) {
    std::vector<Tap> t(task.m);
    for (int k = 0; k < task.m; ++k) {
        const double p = (k + 0.5) * task.n / task.m - 0.5;
        const float f = float(p - floor(p));
        float w[4] = {1};
        if (task.mode == 2) w[0] = 1 - f, w[1] = f;
        if (task.mode >= 4) zenr::ownpi_CubicWeights(task.mode, &f, 1, w);
        const int base = task.mode == 1 ? int(p + 0.5 - 1e-10) : int(floor(p)) - (task.mode >= 4);
        for (int j = 0; j < taps; ++j) t[k].i[j] = std::clamp(base + j, 0, task.n - 1), t[k].w[j] = w[j];
    }
    return t;
}

template <int taps, class T> void resize(const ResizeTask& task, const T* src, T* dst) {
    const int n = task.n, m = task.m;
    const auto t = table(task, taps);
    const size_t plane = size_t(m) * m;
    std::vector<float> ring(plane * 4), row(size_t(m) * n);
    int tag[4] = {-1, -1, -1, -1};
    for (int z = 0; z < m; ++z) {
        const float* p[4] = {};
        for (int k = 0; k < taps; ++k) {
            const int q = t[z].i[k];
            float* const out = &ring[(q & 3) * plane];
            p[k] = out;
            if (tag[q & 3] == q) continue;
            tag[q & 3] = q;
            const T* const in = src + size_t(q) * n * n;
            for (int y = 0; y < n; ++y)
                for (int x = 0; x < m; ++x) {
                    float sum = 0;
                    for (int j = 0; j < taps; ++j) sum += t[x].w[j] * in[size_t(y) * n + t[x].i[j]];
                    row[size_t(y) * m + x] = sum;
                }
            for (int y = 0; y < m; ++y)
                for (int x = 0; x < m; ++x) {
                    float sum = 0;
                    for (int j = 0; j < taps; ++j) sum += t[y].w[j] * row[size_t(t[y].i[j]) * m + x];
                    out[size_t(y) * m + x] = sum;
                }
        }
        T* const out = dst + z * plane;
        const float top = sizeof(T) == 1 ? 255.f : 65535.f;
        for (size_t i = 0; i < plane; ++i) {
            float sum = 0;
            for (int k = 0; k < taps; ++k) sum += t[z].w[k] * p[k][i];
            if (sizeof(T) == 4)
                out[i] = T(sum);
            else {
                sum += 0.5f;
                out[i] = T(sum < 0 ? 0 : sum > top ? top : sum);
            }
        }
    }
}

template <class T> void nearest(const ResizeTask& task, const T* src, T* dst) {
    const int n = task.n, m = task.m;
    const auto t = table(task, 1);
    for (int z = 0; z < m; ++z)
        for (int y = 0; y < m; ++y) {
            const T* const in = src + (size_t(t[z].i[0]) * n + t[y].i[0]) * n;
            T* const out = dst + (size_t(z) * m + y) * m;
            for (int x = 0; x < m; ++x) out[x] = in[t[x].i[0]];
        }
}

} // namespace

template <class T> void plainResize(const ResizeTask& task, const T* src, T* dst) {
    if (task.mode == 1)
        nearest(task, src, dst);
    else if (task.mode == 2)
        resize<2>(task, src, dst);
    else
        resize<4>(task, src, dst);
}
template void plainResize(const ResizeTask&, const unsigned char*, unsigned char*);
template void plainResize(const ResizeTask&, const unsigned short*, unsigned short*);
template void plainResize(const ResizeTask&, const float*, float*);
