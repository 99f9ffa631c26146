// Volume resize: ns per destination voxel for every type and mode, and ratios to plain loops, to CImg and to zimg where
// those are installed; two threads against one; and whether the work per voxel grows with the volume.
#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "frame/dispatch.h"
#include "resize_peers.h"
#include "timing.h"
#include "zencore.h"
#include "zenr.h"

namespace {

const char kUsage[] =
    "usage: bench_resize [--size N] [--full] [--brief] [--table | --series] [--only TEXT] [--benchmark_out=FILE]\n"
    "  --size N      sources of N^3 voxels, 16 to 512 (default 256)\n"
    "  --full        no empty background, which scans have and which is quicker\n"
    "  --brief       128^3, no plain loops, no series of sizes\n"
    "  --table       no series of sizes\n"
    "  --series      nothing but the series of sizes\n"
    "  --only TEXT   rows that contain TEXT, as in \"8u linear\" or \"cubic x1.5\"\n";

// The least time of a run.
template <class Work> double best(bool wall, double budget, const Work& work) {
    return leastSeconds(wall ? wallSeconds : processSeconds, budget, work, 20);
}

template <class T> constexpr const char* kTypeName = sizeof(T) == 1 ? "8u" : sizeof(T) == 2 ? "16u" : "32f";
const char* modeName(int mode) {
    return mode == 1 ? "nearest" : mode == 2 ? "linear" : "cubic";
}

// A smooth head-like cube with some noise, in an empty background as scans have it unless it is to be full.
template <class T> std::vector<T> head(int n, bool full) {
    std::vector<T> v(size_t(n) * n * n);
    std::vector<double> r2(n), a(n), b(n), c(n);
    for (int i = 0; i < n; ++i) {
        const double d = 2.0 * i / n - 1;
        r2[i] = d * d;
        a[i] = 0.3 * sin(9 * d);
        b[i] = cos(7 * d);
        c[i] = cos(5 * d);
    }
    uint32_t seed = 1;
    size_t i = 0;
    for (int z = 0; z < n; ++z)
        for (int y = 0; y < n; ++y)
            for (int x = 0; x < n; ++x, ++i) {
                seed = seed * 1664525u + 1013904223u;
                const double noise = (seed >> 8) / 16777216.0;
                const double value = !full && r2[x] + r2[y] + r2[z] > 0.9 ? 0 : 0.35 + a[x] * b[y] * c[z] + 0.2 * noise;
                v[i] = T(value * (sizeof(T) == 1 ? 255 : sizeof(T) == 2 ? 4095 : 1));
            }
    return v;
}

void call(const ResizeTask& t, const uint8_t* s, uint8_t* d, ZenrBox sb, ZenrBox db, uint8_t* b) {
    const double f = double(t.m) / t.n;
    zenrResize_8u_C1V(s, {t.n, t.n, t.n}, t.n, t.n * t.n, sb, d, t.m, t.m * t.m, db, f, f, f, 0, 0, 0, t.mode, b);
}
void call(const ResizeTask& t, const uint16_t* s, uint16_t* d, ZenrBox sb, ZenrBox db, uint8_t* b) {
    const double f = double(t.m) / t.n;
    zenrResize_16u_C1V(s, {t.n, t.n, t.n}, 2 * t.n, 2 * t.n * t.n, sb, d, 2 * t.m, 2 * t.m * t.m, db, f, f, f, 0, 0, 0,
                       t.mode, b);
}
void call(const ResizeTask& t, const float* s, float* d, ZenrBox sb, ZenrBox db, uint8_t* b) {
    const double f = double(t.m) / t.n;
    zenrResize_32f_C1V(s, {t.n, t.n, t.n}, 4 * t.n, 4 * t.n * t.n, sb, d, 4 * t.m, 4 * t.m * t.m, db, f, f, f, 0, 0, 0,
                       t.mode, b);
}

// The library's own call, with the work memory for two threads.
template <class T> class Own {
public:
    Own(const ResizeTask& task, const T* src, T* dst) : task_(task), src_(src), dst_(dst) {
        zenSetNumThreads(2);
        int size = 0;
        zenrResizeGetBufSize(box(task.n), box(task.m), 1, task.mode, &size);
        buffer_.resize(size);
    }
    double seconds(int threads, bool wall) {
        zenSetNumThreads(threads);
        const double s = best(wall, 0.3, [&] { call(task_, src_, dst_, box(task_.n), box(task_.m), buffer_.data()); });
        zenSetNumThreads(1);
        return s;
    }

private:
    static ZenrBox box(int n) { return {0, 0, 0, n, n, n}; }
    ResizeTask task_;
    const T* src_;
    T* dst_;
    std::vector<uint8_t> buffer_;
};

// One row of results; ratios are the other's time over ours, 0 where the other was not run.
struct Row {
    std::string name;
    double ns, plain, cimg, vtk, zimg, threads;
};

struct Options {
    int size = 256;
    bool plain = true, table = true, series = true, full = false;
    const char* only = "";
    FILE* json = nullptr;
};

// Both must have done the same work: no voxel far from the other's.
void compare(const std::string& name, const char* peer, double worst, double allowed) {
    if (worst <= allowed) return;
    fprintf(stderr, "%s: differs from %s by %g\n", name.c_str(), peer, worst);
    exit(1);
}

template <class T> void measure(const Options& o, int m, std::vector<Row>* rows) {
    std::vector<T> src, dst, other;
    for (int mode : {1, 2, 6}) {
        const ResizeTask task = {o.size, m, mode};
        Row row = {
            std::string(kTypeName<T>) + " " + modeName(mode) + (m > o.size ? " x1.5" : " x2/3"), 0, 0, 0, 0, 0, 0};
        if (row.name.find(o.only) == std::string::npos) continue;
        if (src.empty()) {
            src = head<T>(o.size, o.full);
            dst.resize(size_t(m) * m * m);
            other.resize(dst.size());
        }
        Own<T> own(task, src.data(), dst.data());
        const double one = own.seconds(1, false);
        row.ns = one / double(dst.size()) * 1e9;
        row.threads = own.seconds(1, true) / own.seconds(2, true);
        const double allowed = sizeof(T) == 4 ? 1e-4 : sizeof(T) == 2 ? 4 : 2;
        if (o.plain) {
            row.plain = best(false, 0.1, [&] { plainResize(task, src.data(), other.data()); }) / one;
            double worst = 0;
            for (size_t i = 0; i < dst.size(); ++i) worst = std::max(worst, fabs(double(dst[i]) - double(other[i])));
            compare(row.name, "the plain loops", worst, allowed);
        }
#if defined(ZENR_BENCH_CIMG)
        row.cimg = best(false, 0.1, [&] { cimgResize(task, src.data()); }) / one;
#endif
#if defined(ZENR_BENCH_VTK)
        VtkResize<T> vtk(task, src.data());
        row.vtk = std::min(best(false, 0.1, [&] { vtk.reslice(); }), best(false, 0.1, [&] { vtk.resize(); })) / one;
        if (mode != 1) { // nearest breaks ties another way
            double sum = 0;
            for (size_t i = 0; i < dst.size(); ++i) sum += fabs(double(dst[i]) - double(vtk.voxels()[i]));
            compare(row.name, "VTK (on average)", sum / double(dst.size()), allowed);
        }
#endif
#if defined(ZENR_BENCH_ZIMG)
        ZimgResize<T> zimg(task, src.data());
        row.zimg = best(false, 0.2, [&] { zimg.run(); }) / one;
        if (m > o.size && mode != 1) {
            double sum = 0;
            for (int z = 0; z < m; ++z)
                for (int y = 0; y < m; ++y)
                    for (int x = 0; x < m; ++x)
                        sum += fabs(double(zimg.row(y, z)[x]) - double(dst[(size_t(z) * m + y) * m + x]));
            compare(row.name, "zimg (on average)", sum / double(dst.size()), allowed);
        }
#endif
        printf("%-18s %8.3f", row.name.c_str(), row.ns);
        for (double ratio : {row.plain, row.cimg, row.vtk, row.zimg, row.threads})
            ratio > 0 ? printf(" %11.2f", ratio) : printf(" %11s", "-");
        printf("\n");
        fflush(stdout);
        rows->push_back(row);
    }
}

// Time per voxel of the same work on larger and larger volumes, relative to the smallest.
template <class T> void series(const Options& o, int largest) {
    for (int mode : {1, 2, 6}) {
        const std::string name = std::string(kTypeName<T>) + " " + modeName(mode) + " x1.5";
        if (name.find(o.only) == std::string::npos) continue;
        printf("%-18s", name.c_str());
        double smallest = 0;
        for (int n = 64; n <= largest; n *= 2) {
            const std::vector<T> src = head<T>(n, o.full);
            std::vector<T> dst(src.size() / 8 * 27);
            const double ns =
                Own<T>({n, n * 3 / 2, mode}, src.data(), dst.data()).seconds(1, false) / double(dst.size()) * 1e9;
            if (n == 64) smallest = ns;
            printf(" %7.3f (%4.2f)", ns, ns / smallest);
            fflush(stdout);
        }
        printf("\n");
    }
}

// The same figures side by side: a line per peer and mode, a column per type.
void table(const std::vector<Row>& rows, const char* factor, double Row::*ratio, const char* what) {
    for (const char* mode : {"nearest", "linear", "cubic"}) {
        printf("%-10s %-8s %-4s", what, mode, factor);
        for (const char* type : {"8u", "16u", "32f"}) {
            double value = 0;
            for (const Row& r : rows)
                if (r.name == std::string(type) + " " + mode + " " + factor) value = r.*ratio;
            value > 0 ? printf(" %7.2f", value) : printf(" %7s", "-");
        }
        printf("\n");
    }
}

} // namespace

int main(int argc, char** argv) {
    Options o;
    const char* const outOption = "--benchmark_out=";
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--size" && i + 1 < argc)
            o.size = atoi(argv[++i]);
        else if (a == "--only" && i + 1 < argc)
            o.only = argv[++i];
        else if (a == "--full")
            o.full = true;
        else if (a == "--brief")
            o.size = 128, o.plain = o.series = false;
        else if (a == "--table")
            o.series = false;
        else if (a == "--series")
            o.table = false;
        else if (!a.compare(0, strlen(outOption), outOption))
            o.json = fopen(argv[i] + strlen(outOption), "w");
        else if (a.compare(0, 12, "--benchmark_")) {
            fputs(kUsage, stderr);
            return 2;
        }
    }
    if (o.size < 16 || o.size > 512) {
        fputs(kUsage, stderr);
        return 2;
    }
    std::vector<Row> rows;
    if (o.table) {
        printf(
            "sources of %d^3 voxels; ratios are the other's time over ours, one thread; at last one thread over two\n"
            "%-18s %8s %11s %11s %11s %11s %11s\n",
            o.size, "", "ns/voxel", "plain loops", "CImg", "VTK", "zimg", "2 threads");
        for (int m : {o.size * 3 / 2, o.size * 2 / 3}) {
            measure<uint8_t>(o, m, &rows);
            measure<uint16_t>(o, m, &rows);
            measure<float>(o, m, &rows);
        }
        printf("\n%-24s %7s %7s %7s\n", "", "8u", "16u", "32f");
        for (const char* factor : {"x1.5", "x2/3"}) {
            table(rows, factor, &Row::cimg, "CImg");
            table(rows, factor, &Row::vtk, "VTK");
            table(rows, factor, &Row::zimg, "zimg");
            table(rows, factor, &Row::threads, "2 threads");
        }
    }
    if (o.series) {
        printf("\nns per voxel (relative to 64^3) for sources of 64^3, 128^3, 256^3, 512^3\n");
        series<uint8_t>(o, 512);
        series<uint16_t>(o, 512);
        series<float>(o, 512);
    }
    if (o.json) {
        fputs("[", o.json);
        for (size_t i = 0; i < rows.size(); ++i)
            fprintf(o.json,
                    "%s\n{\"bench\":\"resize\",\"name\":\"%s\",\"size\":%d,\"ns\":%.4f,\"plain\":%.2f,\"cimg\":%.2f,"
                    "\"vtk\":%.2f,\"zimg\":%.2f,\"threads2\":%.2f}",
                    i ? "," : "", rows[i].name.c_str(), o.size, rows[i].ns, rows[i].plain, rows[i].cimg, rows[i].vtk,
                    rows[i].zimg, rows[i].threads);
        fputs("\n]\n", o.json);
        fclose(o.json);
    }
    return 0;
}
