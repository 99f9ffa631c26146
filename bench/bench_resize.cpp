// Volume resize: ns per destination voxel of every type, mode and level, against plain loops over the same weights
// (whole planes, one thread, -O3), and two threads against one. Writes JSON with --benchmark_out=FILE; --size N for the
// source.
#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <string>
#include <vector>

#include "volume/prresset.h"
#include "zencore.h"
#include "zenr.h"

using namespace zenr;

namespace {

// One thread is timed by its own processor time, so that other load on the machine counts less.
double now(bool wall) {
    timespec t;
    clock_gettime(wall ? CLOCK_MONOTONIC : CLOCK_THREAD_CPUTIME_ID, &t);
    return t.tv_sec + t.tv_nsec * 1e-9;
}

// The best of several runs, within about half a second.
template <class F> double best(bool wall, const F& f) {
    double least = 1e9, spent = 0;
    for (int i = 0; i < 12 && (i < 3 || spent < 0.4); ++i) {
        const double begin = now(wall);
        f();
        const double took = now(wall) - begin;
        least = std::min(least, took);
        spent += took;
    }
    return least;
}

template <class T> struct Volume {
    ZenrVolume size;
    std::vector<T> data;
    explicit Volume(ZenrVolume s) : size(s), data(size_t(s.width) * s.height * s.depth) {}
};

// A smooth head-like volume with an empty background and some noise.
template <class T> void fill(Volume<T>& v) {
    uint32_t seed = 1;
    size_t i = 0;
    for (int z = 0; z < v.size.depth; ++z)
        for (int y = 0; y < v.size.height; ++y)
            for (int x = 0; x < v.size.width; ++x, ++i) {
                const double dx = 2.0 * x / v.size.width - 1, dy = 2.0 * y / v.size.height - 1,
                             dz = 2.0 * z / v.size.depth - 1;
                const double r = dx * dx + dy * dy + dz * dz;
                seed = seed * 1664525u + 1013904223u;
                const double noise = (seed >> 8) / 16777216.0;
                const double value = r > 0.9 ? 0 : 0.35 + 0.3 * sin(9 * dx) * cos(7 * dy) * cos(5 * dz) + 0.2 * noise;
                v.data[i] = T(value * (sizeof(T) == 1 ? 255 : sizeof(T) == 2 ? 4095 : 1));
            }
}

ZenStatus call(const Volume<uint8_t>& s, Volume<uint8_t>& d, ZenrBox sb, ZenrBox db, double f, int mode, uint8_t* b) {
    return zenrResize_8u_C1V(s.data.data(), s.size, s.size.width, s.size.width * s.size.height, sb, d.data.data(),
                             d.size.width, d.size.width * d.size.height, db, f, f, f, 0, 0, 0, mode, b);
}
ZenStatus call(const Volume<uint16_t>& s, Volume<uint16_t>& d, ZenrBox sb, ZenrBox db, double f, int mode, uint8_t* b) {
    return zenrResize_16u_C1V(s.data.data(), s.size, 2 * s.size.width, 2 * s.size.width * s.size.height, sb,
                              d.data.data(), 2 * d.size.width, 2 * d.size.width * d.size.height, db, f, f, f, 0, 0, 0,
                              mode, b);
}
ZenStatus call(const Volume<float>& s, Volume<float>& d, ZenrBox sb, ZenrBox db, double f, int mode, uint8_t* b) {
    return zenrResize_32f_C1V(s.data.data(), s.size, 4 * s.size.width, 4 * s.size.width * s.size.height, sb,
                              d.data.data(), 4 * d.size.width, 4 * d.size.width * d.size.height, db, f, f, f, 0, 0, 0,
                              mode, b);
}

// The peer: the same mapping in float, axis after axis over whole planes, as one would write it first.
template <class T> void plain(const Volume<T>& s, Volume<T>& d, double factor, int mode) {
    const int W = d.size.width, H = d.size.height, D = d.size.depth;
    const int taps = mode == 1 ? 1 : mode == 2 ? 2 : 4;
    struct Tap {
        int i[4];
        float w[4];
    };
    const auto table = [&](int n, int size) {
        std::vector<Tap> t(n);
        for (int k = 0; k < n; ++k) {
            const double p = (k + 0.5) / factor - 0.5;
            const float f = float(p - floor(p));
            float w[4] = {1};
            if (mode == 2) w[0] = 1 - f, w[1] = f;
            if (mode >= 4) ownpi_CubicWeights(mode, &f, 1, w);
            const int base = mode == 1 ? int((k + 0.5) / factor - 1e-10) : int(floor(p)) - (mode >= 4);
            for (int j = 0; j < taps; ++j) t[k].i[j] = std::clamp(base + j, 0, size - 1), t[k].w[j] = w[j];
        }
        return t;
    };
    const auto tx = table(W, s.size.width), ty = table(H, s.size.height), tz = table(D, s.size.depth);
    const size_t plane = size_t(W) * H;
    std::vector<float> ring(plane * 4), row(size_t(W) * s.size.height);
    int tag[4] = {-1, -1, -1, -1};
    for (int z = 0; z < D; ++z) {
        const float* p[4] = {};
        for (int k = 0; k < taps; ++k) {
            const int q = tz[z].i[k];
            float* const out = &ring[(q & 3) * plane];
            p[k] = out;
            if (tag[q & 3] == q) continue;
            tag[q & 3] = q;
            const T* const in = &s.data[size_t(q) * s.size.width * s.size.height];
            for (int y = 0; y < s.size.height; ++y)
                for (int x = 0; x < W; ++x) {
                    float sum = 0;
                    for (int j = 0; j < taps; ++j) sum += tx[x].w[j] * in[size_t(y) * s.size.width + tx[x].i[j]];
                    row[size_t(y) * W + x] = sum;
                }
            for (int y = 0; y < H; ++y)
                for (int x = 0; x < W; ++x) {
                    float sum = 0;
                    for (int j = 0; j < taps; ++j) sum += ty[y].w[j] * row[size_t(ty[y].i[j]) * W + x];
                    out[size_t(y) * W + x] = sum;
                }
        }
        T* const dst = &d.data[z * plane];
        const float top = sizeof(T) == 1 ? 255.f : 65535.f;
        for (size_t i = 0; i < plane; ++i) {
            float sum = 0;
            for (int k = 0; k < taps; ++k) sum += tz[z].w[k] * p[k][i];
            if (sizeof(T) == 4)
                dst[i] = T(sum);
            else {
                sum += 0.5f;
                dst[i] = T(sum < 0 ? 0 : sum > top ? top : sum);
            }
        }
    }
}

FILE* json = nullptr;
bool first = true;

template <class T> void measure(const char* type, int n, double factor) {
    Volume<T> src({n, n, n});
    fill(src);
    const int m = int(n * factor + 0.5);
    Volume<T> dst({m, m, m}), peer({m, m, m});
    const double voxels = double(m) * m * m;
    const ZenrBox sb = {0, 0, 0, n, n, n}, db = {0, 0, 0, m, m, m};
    for (int mode : {1, 2, 6}) {
        zenSetNumThreads(2);
        int size = 0;
        zenrResizeGetBufSize(sb, db, 1, mode, &size);
        std::vector<uint8_t> buffer(size);
        zenSetNumThreads(1);
        const double one = best(false, [&] { call(src, dst, sb, db, factor, mode, buffer.data()); });
        zenSetNumThreads(2);
        const double two = best(true, [&] { call(src, dst, sb, db, factor, mode, buffer.data()); });
        zenSetNumThreads(1);
        const double oneWall = best(true, [&] { call(src, dst, sb, db, factor, mode, buffer.data()); });
        const double peerTime = best(false, [&] { plain(src, peer, factor, mode); });
        // Both must have done the same work: no voxel far from the peer's.
        double worst = 0;
        for (size_t i = 0; i < dst.data.size(); ++i)
            worst = std::max(worst, fabs(double(dst.data[i]) - double(peer.data[i])));
        const double allowed = sizeof(T) == 4 ? 1e-4 : 2;
        if (!(worst <= allowed)) {
            fprintf(stderr, "%s mode %d differs from the plain loops by %g\n", type, mode, worst);
            exit(1);
        }
        const char* const name = mode == 1 ? "nearest" : mode == 2 ? "linear" : "cubic";
        printf("%-4s %-8s x%-5.3g %4d^3  %7.3f ns/voxel  plain loops %7.3f  %5.1fx  two threads %5.2fx\n", type, name,
               factor, n, one / voxels * 1e9, peerTime / voxels * 1e9, peerTime / one, oneWall / two);
        if (json) {
            fprintf(json,
                    "%s{\"bench\":\"resize\",\"type\":\"%s\",\"mode\":\"%s\",\"factor\":%.4f,\"size\":%d,\"ns\":%.4f,"
                    "\"plain\":%.2f,\"threads2\":%.2f}",
                    first ? "[\n" : ",\n", type, name, factor, n, one / voxels * 1e9, peerTime / one, oneWall / two);
            first = false;
        }
        fflush(stdout);
    }
}

} // namespace

int main(int argc, char** argv) {
    int n = 128;
    const char* const outOption = "--benchmark_out=";
    for (int i = 1; i < argc; ++i) {
        if (i + 1 < argc && !strcmp(argv[i], "--size")) n = atoi(argv[i + 1]);
        if (!strncmp(argv[i], outOption, strlen(outOption))) json = fopen(argv[i] + strlen(outOption), "w");
    }
    if (n < 16 || n > 1024) {
        fprintf(stderr, "usage: bench_resize [--size 16..1024] [--benchmark_out=FILE]\n");
        return 2;
    }
    for (double factor : {1.5, 2.0 / 3}) {
        measure<uint8_t>("8u", n, factor);
        measure<uint16_t>("16u", n, factor);
        measure<float>("32f", n, factor);
    }
    if (json) {
        fputs("\n]\n", json);
        fclose(json);
    }
    return 0;
}
