// Speed of the volume filter, one thread: nanoseconds per voxel at each level, and how many times faster it is than
// plain loops in the same run (the faster of two loop orders) and than other libraries. Results are compared with the
// plain loops' after timing.
//   bench_filter [size=256] [kernels whose name starts with] [--alone]     --alone: without the other libraries
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <random>
#include <vector>

#include "filter/filter_tables.h"
#include "filter_peers.h"
#include "filter_plain.h"
#include "timing.h"

namespace {

constexpr int kMargin = 8;

struct Volume {
    int size;
    long step;
    std::vector<int16_t> data;
    std::vector<const int16_t*> planes;
    std::vector<int16_t*> targets;
    Volume(int n, int margin) : size(n), step(n + 2 * margin), data(size_t(step) * step * (n + 2 * margin)) {
        for (int z = 0; z < n + 2 * margin; ++z) {
            targets.push_back(data.data() + (size_t(z) * step + margin) * step + margin);
            planes.push_back(targets.back());
        }
    }
};

struct Kernel {
    const char* name;
    int size;
    std::vector<int32_t> weights;
    int32_t divisor;
    std::vector<int32_t> axis = {}; // where the kernel is a product
};

std::vector<Kernel> kernels() {
    std::mt19937 engine(7);
    std::vector<Kernel> all;
    const auto random = [&](const char* name, int n, int32_t range, int32_t divisor) {
        Kernel k{name, n, std::vector<int32_t>(size_t(n) * n * n), divisor};
        for (int32_t& w : k.weights) w = std::uniform_int_distribution<int32_t>(-range, range)(engine);
        all.push_back(k);
    };
    const auto product = [&](const char* name, std::vector<int32_t> f, int32_t divisor) {
        const int n = int(f.size());
        Kernel k{name, n, {}, divisor};
        for (int z = 0; z < n; ++z)
            for (int y = 0; y < n; ++y)
                for (int x = 0; x < n; ++x) k.weights.push_back(f[z] * f[y] * f[x]);
        k.axis = f;
        all.push_back(k);
    };
    random("full-3", 3, 60, 256);
    random("full-3 / 100", 3, 60, 100);
    random("full-3 / 27", 3, 60, 27);
    random("full-5", 5, 60, 1024);
    random("full-5 / 1000", 5, 60, 1000);
    random("full-7", 7, 60, 4096);
    random("full-7 / 1000", 7, 60, 1000);
    product("rank1-3", {1, 2, 1}, 64);
    product("rank1-3 / 27", {1, 1, 1}, 27);
    product("rank1-3 / 60", {1, 2, 1}, 60);
    product("rank1-5", {1, 4, 6, 4, 1}, 4096);
    product("rank1-5 / 1000", {1, 3, 5, 3, 1}, 1000);
    product("rank1-7", {1, 3, 6, 7, 6, 3, 1}, 16384);
    product("rank1-7 / 19683", {1, 3, 6, 7, 6, 3, 1}, 19683);
    // Factors along one axis alone.
    random("x-factor-5", 5, 20, 1024);
    for (int t = 0; t < 125; ++t) all.back().weights[t] = all.back().weights[t / 5 * 5] * (1 + t % 5 % 3);
    random("z-factor-5", 5, 20, 1024);
    for (int t = 25; t < 125; ++t) all.back().weights[t] = all.back().weights[t % 25] * (1 + t / 25 % 3);
    random("wide-3", 3, 30000, 65536);
    random("wide-5", 5, 30000, 65536);
    random("wrap-3", 3, 2147483647, 1 << 30);
    random("wrap-5", 5, 2147483647, 1 << 30);
    random("wrap-5 / 1000000000", 5, 2147483647, 1000000000);
    return all;
}

} // namespace

int main(int argc, char** argv) {
    static const FilterPeer kNobody[] = {{nullptr, nullptr, nullptr}};
    const FilterPeer* peers = kFilterPeers;
    if (argc > 1 && strcmp(argv[argc - 1], "--alone") == 0) peers = kNobody, --argc;
    const int n = argc > 1 ? atoi(argv[1]) : 256;
    const char* only = argc > 2 ? argv[2] : "";
    if (n < 16 || n > 2048) return fprintf(stderr, "size: 16 to 2048\n"), 2;
    Volume src(n, kMargin), dst(n, 0), expected(n, 0);
    std::mt19937 engine(1);
    for (int16_t& v : src.data) v = int16_t(engine());
    for (int16_t* p : dst.targets) memset(p, 0, size_t(n) * n * 2);
    for (int16_t* p : expected.targets) memset(p, 0, size_t(n) * n * 2);
    std::vector<int16_t> dense; // without margins
    for (int z = 0; z < n; ++z)
        for (int y = 0; y < n; ++y) {
            const int16_t* row = src.planes[size_t(z) + kMargin] + y * src.step;
            dense.insert(dense.end(), row, row + n);
        }
    const double perVoxel = 1e9 / (double(n) * n * n);
    const std::vector<zenrtest::FilterTable> tables = zenrtest::filterTables();

    printf("%-20s %8s %8s", "ns per voxel, ", "voxels", "rows");
    for (const auto& table : tables) printf(" %8s", table.name);
    printf("   times plain");
    for (const FilterPeer* p = peers; p->name; ++p) printf("  %s", p->name);
    printf("\n");
    bool wrong = false;
    for (const Kernel& k : kernels()) {
        if (strncmp(k.name, only, strlen(only)) != 0) continue;
        const int half = k.size / 2;
        std::vector<const int16_t*> planes;
        for (const int16_t* p : src.planes) planes.push_back(p - half * src.step - half);
        std::vector<int32_t> mirrored(k.weights.rbegin(), k.weights.rend());
        const PlainFilter plain{planes.data() + kMargin - half,
                                src.step,
                                expected.targets.data(),
                                n,
                                n,
                                n,
                                n,
                                mirrored.data(),
                                k.size,
                                k.size,
                                k.size,
                                k.divisor};
        const double byVoxel = leastSeconds(wallSeconds, 0, [&] { plainFilterVoxels(plain); }) * perVoxel;
        const double byRow = leastSeconds(wallSeconds, 0, [&] { plainFilterRows(plain); }) * perVoxel;
        printf("%-20s %8.2f %8.2f", k.name, byVoxel, byRow);
        double best = 0;
        for (const auto& table : tables) {
            best = leastSeconds(wallSeconds, 0.25,
                                [&] {
                                    zenr::WideScope scope(table.level);
                                    zenr::ownFilter(table.kernels,
                                                    zenr::ownFilterJob(src.planes.data() + kMargin, int(src.step * 2),
                                                                       dst.targets.data(), n * 2, {n, n, n},
                                                                       k.weights.data(), {k.size, k.size, k.size},
                                                                       {half, half, half}, k.divisor));
                                }) *
                   perVoxel;
            printf(" %8.3f", best);
            if (dst.data != expected.data) printf(" WRONG"), wrong = true;
        }
        printf("   %11.2f", (byVoxel < byRow ? byVoxel : byRow) / best);
        for (const FilterPeer* p = peers; p->name; ++p) {
            const int width = int(strlen(p->name)) + 2;
            if (p->prepare(dense.data(), n, k.weights.data(), k.axis.empty() ? nullptr : k.axis.data(), k.size,
                           k.divisor))
                printf("%*.2f", width, leastSeconds(wallSeconds, 0, p->run) * perVoxel / best);
            else
                printf("%*s", width, "");
            fflush(stdout);
        }
        printf("\n");
        fflush(stdout);
    }
    return wrong;
}
