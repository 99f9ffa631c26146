// The vector primitives against plain loops and the standard library's sort, as ratios measured in the same run.
//
// Each row runs the peer and the candidate alternately on the same data and reports
//   ratio   candidate's time / peer's time, of each side's least round (below 1: the candidate is quicker)
//   ns      the candidate's time per element
#include <benchmark/benchmark.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <string>
#include <vector>

#include "frame/prprim.h"
#include "kdtree/pr_avlorsort.h"

using namespace zenr;

namespace {

std::vector<float> randomFloats(int n, uint32_t seed) {
    std::mt19937 engine(seed);
    std::uniform_real_distribution<float> moderate(-4.f, 4.f);
    std::vector<float> values(static_cast<size_t>(n));
    for (float& v : values) v = moderate(engine);
    return values;
}

__attribute__((noinline)) float dotExtended(const float* x, const float* y, int n) {
    long double sum = 0;
    for (int i = 0; i < n; ++i) sum += static_cast<long double>(x[i]) * y[i];
    return float(sum);
}

__attribute__((noinline)) float dotDouble(const float* x, const float* y, int n) {
    double sum = 0;
    for (int i = 0; i < n; ++i) sum += double(x[i]) * double(y[i]);
    return float(sum);
}

template <class Body> double seconds(int repeats, const Body& body) {
    const auto start = std::chrono::steady_clock::now();
    for (int r = 0; r < repeats; ++r) {
        body();
        benchmark::ClobberMemory();
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() / repeats;
}

// Times candidate and peer alternately. `elements` work per call; calls repeat to about 100000 elements a round.
template <class Candidate, class Peer>
void compare(benchmark::State& state, int elements, const Candidate& candidate, const Peer& peer) {
    const int repeats = std::max(1, 100000 / elements);
    double bestCandidate = 1e9;
    double bestPeer = 1e9;
    for (auto _ : state) {
        bestPeer = std::min(bestPeer, seconds(repeats, peer));
        const double time = seconds(repeats, candidate);
        bestCandidate = std::min(bestCandidate, time);
        state.SetIterationTime(time);
    }
    state.counters["ratio"] = bestCandidate / bestPeer;
    state.counters["ns"] = bestCandidate / elements * 1e9;
}

using Dot = float (*)(const float*, const float*, int);

void benchDot(benchmark::State& state, Level level, Dot peer, int n) {
    const std::vector<float> x = randomFloats(n, 1), y = randomFloats(n, 2);
    float got = 0;
    compare(
        state, n, [&] { DotProd_32f(level, x.data(), y.data(), n, &got); },
        [&] { benchmark::DoNotOptimize(peer(x.data(), y.data(), n)); });
    const float want = dotExtended(x.data(), y.data(), n);
    if (memcmp(&got, &want, 4) != 0) state.SkipWithError("wrong dot product");
}

// The worst case: orthogonal vectors, whose every sum is done twice.
void benchDotCancelling(benchmark::State& state, Level level, int n) {
    std::vector<float> x = randomFloats(n, 1), y = randomFloats(n, 2);
    for (int i = 0; i < n / 2; ++i) {
        x[size_t(n - 1 - i)] = -x[size_t(i)];
        y[size_t(n - 1 - i)] = y[size_t(i)];
    }
    if (n % 2) x[size_t(n / 2)] = 0;
    float got = 0;
    compare(
        state, n, [&] { DotProd_32f(level, x.data(), y.data(), n, &got); },
        [&] { benchmark::DoNotOptimize(dotExtended(x.data(), y.data(), n)); });
    const float want = dotExtended(x.data(), y.data(), n);
    if (memcmp(&got, &want, 4) != 0) state.SkipWithError("wrong dot product");
}

// Sorting: each call sorts a fresh copy, on both sides alike.
template <class Sort> void benchSort(benchmark::State& state, int n, const Sort& sort) {
    const std::vector<float> input = randomFloats(n, 3);
    std::vector<float> work(input.size()), check(input.size());
    compare(
        state, n,
        [&] {
            memcpy(work.data(), input.data(), input.size() * 4);
            sort(work.data(), n);
        },
        [&] {
            memcpy(check.data(), input.data(), input.size() * 4);
            std::sort(check.begin(), check.end());
        });
    if (work != check) state.SkipWithError("not sorted");
}

void registerAll() {
    const struct {
        Level level;
        const char* name;
    } levels[] = {{Level::sse2, "sse2"}, {Level::avx2, "avx2"}, {Level::avx512, "avx512"}};
    const struct {
        Dot dot;
        const char* name;
    } peers[] = {{dotExtended, "long_double_loop"}, {dotDouble, "double_loop"}};

    for (const auto& level : levels) {
        if (level.level > bestLevel()) continue;
        for (const auto& peer : peers)
            for (int n : {9, 16, 25, 81, 256, 801, 100000}) {
                const std::string name =
                    std::string("dot/") + level.name + "/vs_" + peer.name + "/" + std::to_string(n);
                benchmark::RegisterBenchmark(name.c_str(), benchDot, level.level, peer.dot, n)
                    ->UseManualTime()
                    ->Iterations(15);
            }
        for (int n : {81, 801}) {
            const std::string name =
                std::string("dot_cancelling/") + level.name + "/vs_long_double_loop/" + std::to_string(n);
            benchmark::RegisterBenchmark(name.c_str(), benchDotCancelling, level.level, n)
                ->UseManualTime()
                ->Iterations(15);
        }
    }

    static std::vector<uint32_t> scratch(1000000);
    const auto quick = [](float* data, int n) { zensSortAscend_32f_I(data, n); };
    const auto radix = [](float* data, int n) { ownRadixSortAccend_32f_px(data, scratch.data(), unsigned(n)); };
    for (int n : {9, 40, 320, 5000, 100000}) {
        const std::string name = "sort/vs_std_sort/" + std::to_string(n);
        benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& s) { benchSort(s, n, quick); })
            ->UseManualTime()
            ->Iterations(15);
    }
    for (int n : {100, 321, 1000, 5000, 100000, 1000000}) {
        const std::string name = "radix_sort/vs_std_sort/" + std::to_string(n);
        benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& s) { benchSort(s, n, radix); })
            ->UseManualTime()
            ->Iterations(15);
    }
}

} // namespace

int main(int argc, char** argv) {
    registerAll();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
