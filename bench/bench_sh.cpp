// Spherical harmonics against plain loops (-O3 -march=native) and against the bound that filling the output sets.
//
// usage: bench_sh [--level sse2|avx2|avx512] [--brief] [--only TEXT] [--count N] [--json FILE]
//   --brief  short turns, up to 10,000 directions
//   --only   rows whose name contains the text, as "basis type 1" or "forward C3"
//   --count  rows of so many directions
//
// One thread. Times are the least of several turns, in which the candidates take turns; read the ratios.
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "sh/prsh.h"
#include "sh_baseline.h"
#include "timing.h"
#include "zencore.h"
#include "zenr.h"

using namespace zenr;

namespace {

double turnSeconds = 0.02;
std::string only;
int onlyCount = 0;
FILE* json = nullptr;
bool firstRow = true;

// Nanoseconds per direction of each candidate.
std::vector<double> measure(int n, const std::vector<std::function<void()>>& candidates) {
    std::vector<double> best(candidates.size(), 1e30);
    for (int turn = 0; turn < 5; ++turn) {
        for (size_t c = 0; c < candidates.size(); ++c) {
            candidates[c](); // warms the caches after the candidate before
            int calls = 0;
            const double start = processSeconds();
            double spent;
            do {
                for (int i = 0; i < 1 + 20000 / n; ++i) candidates[c]();
                calls += 1 + 20000 / n;
                spent = processSeconds() - start;
            } while (spent < turnSeconds);
            best[c] = std::min(best[c], spent / calls / n * 1e9);
        }
    }
    return best;
}

// Measures the candidates of a row, if it is asked for; the first is the library.
void row(const std::string& name, int n, int L, const std::vector<const char*>& names,
         const std::vector<std::function<void()>>& candidates) {
    if (name.find(only) == std::string::npos || (onlyCount && n != onlyCount)) return;
    const std::vector<double> ns = measure(n, candidates);
    const char* what = name.c_str();
    printf("%-22s n %8d  L %2d  %8.2f ns", what, n, L, ns[0]);
    for (size_t i = 1; i < ns.size(); ++i) printf("   %s %6.2f x (%.2f ns)", names[i], ns[i] / ns[0], ns[i]);
    printf("\n");
    fflush(stdout);
    if (json) {
        fprintf(json, "%s  {\"what\": \"%s\", \"flavour\": %d, \"n\": %d, \"L\": %d", firstRow ? "" : ",\n", what,
                int(8 * sizeof(void*)), n, L);
        for (size_t i = 0; i < ns.size(); ++i) fprintf(json, ", \"%s\": %.4f", names[i], ns[i]);
        fprintf(json, "}");
        firstRow = false;
    }
}

shbase::Tables makeTables() {
    shbase::Tables t{};
    alignas(16) char block[1104];
    ZenrSHState* state = reinterpret_cast<ZenrSHState*>(block);
    zenrSHInit_32f(state, 15, 1);
    memcpy(t.a, block + 16, sizeof t.a);
    memcpy(t.b, block + 16 + sizeof t.a, sizeof t.b);
    double diagonal = sqrt(1 / (4 * M_PI));
    for (int l = 0; l <= 15; ++l) {
        if (l > 0) diagonal *= -sqrt((2. * l + 1) / (2. * l)) * (l == 1 ? sqrt(2.) : 1.);
        t.diagonal[l] = diagonal;
        for (int k = 0; k < l; ++k) {
            const double gap = double(l * l - k * k);
            t.da[l * (l + 1) / 2 + k] = sqrt((4. * l * l - 1) / gap);
            t.db[l * (l + 1) / 2 + k] =
                k < l - 1 ? -sqrt(((l - 1.) * (l - 1) - k * k) * (2. * l + 1) / (gap * (2. * l - 3))) : 0.;
        }
    }
    return t;
}

void verify(const char* what, const float* a, const float* b, size_t n, double tolerance) {
    for (size_t i = 0; i < n; ++i) {
        if (!(fabs(double(a[i]) - double(b[i])) <= tolerance)) {
            fprintf(stderr, "%s: value %zu is %g, the baseline's %g\n", what, i, double(a[i]), double(b[i]));
            exit(1);
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    Level level = bestLevel();
    bool chosen = false, brief = false;
    for (int i = 1; i < argc; ++i) {
        if (!strcmp(argv[i], "--brief")) {
            brief = true;
        } else if (!strcmp(argv[i], "--level") && i + 1 < argc) {
            const std::string name = argv[++i];
            chosen = true;
            level = name == "sse2" ? Level::sse2 : name == "avx2" ? Level::avx2 : Level::avx512;
        } else if (!strcmp(argv[i], "--only") && i + 1 < argc) {
            only = argv[++i];
        } else if (!strcmp(argv[i], "--count") && i + 1 < argc) {
            onlyCount = atoi(argv[++i]);
        } else if (!strcmp(argv[i], "--json") && i + 1 < argc) {
            json = fopen(argv[++i], "w");
        } else {
            fprintf(stderr,
                    "usage: bench_sh [--level sse2|avx2|avx512] [--brief] [--only TEXT] [--count N] [--json FILE]\n");
            return 1;
        }
    }
    if (level > bestLevel()) {
        fprintf(stderr, "this processor does not have that level\n");
        return 1;
    }
    if (brief) turnSeconds = 0.004;
    if (json) fprintf(json, "[\n");
    const shbase::Tables t = makeTables();
    // A million directions of order 15 are a gigabyte of output; a 32-bit process gets a quarter of it.
    const int most = brief ? 10000 : sizeof(void*) == 4 ? 250000 : 1000000;
    std::mt19937 engine(1);
    std::normal_distribution<double> normal;
    std::vector<float> d[3], src[3], res[3], coeffs[3], more[3];
    for (auto& v : d) v.resize(size_t(most));
    for (size_t i = 0; i < size_t(most); ++i) {
        double v[3] = {normal(engine), normal(engine), normal(engine)};
        const double r = sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
        for (int k = 0; k < 3; ++k) d[k][i] = float(v[k] / r);
    }
    const float *x = d[0].data(), *y = d[1].data(), *z = d[2].data();
    float* out = static_cast<float*>(aligned_alloc(4096, size_t(most) * 1024));
    if (!out) return 1;
    memset(out, 0, size_t(most) * 1024);
    alignas(16) char block[1104];
    ZenrSHState* state = reinterpret_cast<ZenrSHState*>(block);

    for (int n : {1, 64, 10000, most}) {
        if (n == most && brief) continue;
        for (int L : {2, 4, 8, 15}) {
            const size_t values = size_t((L + 1) * (L + 1)), total = values * size_t(n);
            for (int type : {0, 1}) {
                zenrSHInit_32f(state, 15, type);
                const float *a = t.a, *b = t.b;
                const auto lib = [&] {
                    if (!chosen)
                        zenrSH_32f(x, y, z, n, out, unsigned(L), state);
                    else if (type == 0)
                        ownrSH15direct_32f(level, x, y, z, n, out, L);
                    else
                        ownrSHrecurr_32f(level, a, b, x, y, z, n, out, L);
                };
                const auto base = [&] { (type ? shbase::recurrence : shbase::closedForm)(t, x, y, z, n, out, L); };
                const auto fill = [&] {
                    memset(out, 1, total * 4);
                    asm volatile("" ::: "memory");
                };
                row(type ? "basis type 1" : "basis type 0", n, L, {"zenr", "plain", "fill"}, {lib, base, fill});
                const size_t some = std::min<size_t>(total, 1000 * values);
                lib();
                const std::vector<float> got(out, out + some);
                base();
                verify("basis", got.data(), out, some, 2e-5);
            }
            const auto band = [&] {
                if (!chosen)
                    zenrSHBand_32f(x, y, z, n, out, unsigned(L));
                else
                    shKernels(level).band[L]({x, y, z, n}, out);
            };
            row("band", n, L, {"zenr", "plain set"}, {band, [&] { shbase::closedForm(t, x, y, z, n, out, L); }});
        }
    }
    const int n = 2000;
    for (int c = 0; c < 3; ++c) {
        src[c].resize(n);
        res[c].resize(n);
        coeffs[c].resize(256);
        more[c].resize(256);
        for (float& v : src[c]) v = float(normal(engine));
    }
    for (int type : {0, 1}) {
        zenrSHInit_32f(state, 15, type);
        const float* tables[2] = {type ? t.a : nullptr, type ? t.b : nullptr};
        for (int L : {2, 4, 8, 15}) {
            const size_t values = size_t((L + 1) * (L + 1));
            const ShBasis basis{tables[0], tables[1], L};
            for (int channels : {1, 3}) {
                const float* const ps[3] = {src[0].data(), src[1].data(), src[2].data()};
                float* const pc[3] = {coeffs[0].data(), coeffs[1].data(), coeffs[2].data()};
                float* const pm[3] = {more[0].data(), more[1].data(), more[2].data()};
                float* const pr[3] = {res[0].data(), res[1].data(), res[2].data()};
                const std::string kind = std::string(" C") + char('0' + channels) + " type " + char('0' + type);
                const auto clear = [&](std::vector<float>* v) {
                    for (int c = 0; c < 3; ++c) std::fill(v[c].begin(), v[c].end(), 0.f);
                };
                const auto fwd = [&] {
                    if (chosen)
                        shKernels(level).forward(basis, {x, y, z, n}, {{ps[0], ps[1], ps[2]}, channels, 1}, pc);
                    else if (channels == 1)
                        zenrSHTFwd_32f_C1I(x, y, z, ps[0], n, pc[0], unsigned(L), state);
                    else
                        zenrSHTFwd_32f_P3I(x, y, z, ps, n, pc, unsigned(L), state);
                };
                const auto fwdBase = [&] { shbase::forward(t, type, x, y, z, ps, channels, n, pm, L); };
                row("forward" + kind, n, L, {"zenr", "plain"}, {fwd, fwdBase});
                clear(coeffs);
                clear(more);
                fwd();
                fwdBase();
                verify("forward", pc[0], pm[0], values, 0.02);
                const float* const pcc[3] = {pc[0], pc[1], pc[2]};
                const auto inv = [&] {
                    if (chosen)
                        shKernels(level).inverse(basis, {x, y, z, n}, pcc, {{pr[0], pr[1], pr[2]}, channels, 1});
                    else if (channels == 1)
                        zenrSHTInv_32f_C1(pcc[0], unsigned(L), x, y, z, pr[0], n, state);
                    else
                        zenrSHTInv_32f_P3(pcc, unsigned(L), x, y, z, pr, n, state);
                };
                const auto invBase = [&] { shbase::inverse<long double>(t, type, x, y, z, pcc, channels, n, pr, L); };
                const auto invDouble = [&] { shbase::inverse<double>(t, type, x, y, z, pcc, channels, n, pr, L); };
                row("inverse" + kind, n, L, {"zenr", "plain", "plain in double"}, {inv, invBase, invDouble});
                inv();
                const std::vector<float> got = res[0];
                invBase();
                verify("inverse", got.data(), pr[0], size_t(n), 0.05);
            }
        }
    }
    free(out);
    if (json) {
        fprintf(json, "\n]\n");
        fclose(json);
    }
    return 0;
}
