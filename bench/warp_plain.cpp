// Plain loops for affine warp and remap. They take what the compiler makes of them for this machine.
#include <math.h>
#include <stddef.h>

#include <algorithm>

#include "warp_peers.h"

namespace {

template <int mode, class T> T voxel(int n, const T* src, float x, float y, float z) {
    const auto at = [&](int i, int j, int k) { return float(src[(ptrdiff_t(k) * n + j) * n + i]); };
    if (mode == 1) return src[(ptrdiff_t(z + 0.5f) * n + ptrdiff_t(y + 0.5f)) * n + ptrdiff_t(x + 0.5f)];
    const int i = std::min(int(x), n - 2), j = std::min(int(y), n - 2), k = std::min(int(z), n - 2);
    const float f = x - i, g = y - j, h = z - k;
    float sum = 0;
    if (mode == 2) {
        const auto row = [&](int b, int c) { return at(i, b, c) + (at(i + 1, b, c) - at(i, b, c)) * f; };
        const float low = row(j, k) + (row(j + 1, k) - row(j, k)) * g;
        const float high = row(j, k + 1) + (row(j + 1, k + 1) - row(j, k + 1)) * g;
        sum = low + (high - low) * h;
    } else {
        const auto weights = [](float t, float* w) {
            w[0] = t * (-0.5f + t * (1 - 0.5f * t));
            w[1] = 1 + t * t * (1.5f * t - 2.5f);
            w[2] = t * (0.5f + t * (2 - 1.5f * t));
            w[3] = t * t * (0.5f * t - 0.5f);
        };
        float wx[4], wy[4], wz[4];
        weights(f, wx), weights(g, wy), weights(h, wz);
        int xs[4], ys[4], zs[4];
        for (int t = 0; t < 4; ++t)
            xs[t] = std::clamp(i - 1 + t, 0, n - 1), ys[t] = std::clamp(j - 1 + t, 0, n - 1),
            zs[t] = std::clamp(k - 1 + t, 0, n - 1);
        for (int c = 0; c < 4; ++c)
            for (int b = 0; b < 4; ++b) {
                float row = 0;
                for (int a = 0; a < 4; ++a) row += wx[a] * at(xs[a], ys[b], zs[c]);
                sum += wz[c] * wy[b] * row;
            }
    }
    if (sizeof(T) == 4) return T(sum);
    return T(std::clamp(sum + 0.5f, 0.f, sizeof(T) == 1 ? 255.f : 65535.f));
}

template <int mode, class T> void run(const WarpPeerTask& task, const T* src, T* dst) {
    const int n = task.n;
    const float most = float(n - 1);
    const double* const m = task.inverse;
    ptrdiff_t i = 0;
    for (int z = 0; z < n; ++z)
        for (int y = 0; y < n; ++y)
            for (int x = 0; x < n; ++x, ++i) {
                float s[3];
                for (int k = 0; k < 3; ++k)
                    s[k] =
                        m ? float(m[4 * k] * x + m[4 * k + 1] * y + m[4 * k + 2] * z + m[4 * k + 3]) : task.map[k][i];
                if (s[0] >= 0 && s[0] <= most && s[1] >= 0 && s[1] <= most && s[2] >= 0 && s[2] <= most)
                    dst[i] = voxel<mode>(n, src, s[0], s[1], s[2]);
            }
}

} // namespace

template <class T> void plainWarp(const WarpPeerTask& task, const T* src, T* dst) {
    if (task.mode == 1)
        run<1>(task, src, dst);
    else if (task.mode == 2)
        run<2>(task, src, dst);
    else
        run<6>(task, src, dst);
}
template void plainWarp(const WarpPeerTask&, const unsigned char*, unsigned char*);
template void plainWarp(const WarpPeerTask&, const unsigned short*, unsigned short*);
template void plainWarp(const WarpPeerTask&, const float*, float*);
