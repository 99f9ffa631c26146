// The row kernels of affine warp and remap, once per level.
#include "volume/prsample.h"
#include "volume/prsamplecubic.h"
#include "volume/prsamplelinear.h"
#include "volume/prsamplenearest.h"

namespace zenr {
namespace ZENR_LEVEL {
namespace {

constexpr int kRun = 64; // voxels of a row whose positions are computed before the first is sampled

// Room for a last chunk that is not full.
struct alignas(64) Run {
    double s[3][kRun + kChunk];
};

inline uint64_t bitsOf(double x) {
    return __builtin_bit_cast(uint64_t, x);
}

// Whether additions of `advance` lead from `first` to `last`, with multiples of `step` in between: all of them lie
// within the same two powers of two, so that ulps are the same and the same advance is added every time, `advance`
// rounded to whole ulps; but no sum may be a tie, which is rounded now up and now down.
inline bool evenly(double first, double last, double advance, double step) {
    constexpr int kMantissa = 52;
    constexpr uint64_t kFraction = (uint64_t(1) << kMantissa) - 1;
    const uint64_t a = bitsOf(first), b = bitsOf(last), exponent = a >> kMantissa & 0x7FF;
    const double ulp = __builtin_bit_cast(double, (exponent - kMantissa) << kMantissa);
    const bool same = ((a ^ b) >> kMantissa) == 0 && (a & kFraction) != 0 && (b & kFraction) != 0;
    return same && exponent > kMantissa && __builtin_fabs(advance - step) * 2 != ulp;
}

// Positions of the next voxels of a row, exactly as repeated addition gives them.
inline void nextPositions(double* position, double advance, int count, double* s) {
    const double first = *position, step = (first + advance) - first, last = first + (count - 1) * step;
    if (__builtin_expect(evenly(first, last, advance, step), 1)) {
        for (int x = 0; x < count; x += kChunk)
            for (int i = 0; i < kChunk; ++i) s[x + i] = first + (x + i) * step;
        *position = last + advance;
    } else if (count > kChunk) {
        for (int x = 0; x < count; x += kChunk)
            nextPositions(position, advance, count - x < kChunk ? count - x : kChunk, s + x);
    } else {
        double next = first;
        for (int x = 0; x < count; ++x) {
            s[x] = next;
            next += advance;
        }
        *position = next;
    }
}

// The voxels of a run that are inside: an interval, because positions are monotonous also when rounded.
inline Interval insideOf(const double* s, int count, double advance, double low, double high) {
    if (s[0] >= low && s[0] <= high && s[count - 1] >= low && s[count - 1] <= high) return {0, count};
    int below = 0, above = 0;
    for (int x = 0; x < count; ++x) {
        below += !(s[x] >= low);
        above += s[x] > high;
    }
    return advance < 0 ? Interval{above, count - below} : Interval{below, count - above};
}

// Whether a position is the same for a whole row. One of -0 becomes +0.
inline bool stays(double position, double advance) {
    return advance == 0 && (position != 0 || bitsOf(position) == 0);
}

template <class T, class Policy>
void warpRow(const SampleSource<T>& src, T* dst, int count, double position[3], const double advance[3]) {
    if (!src.narrow) {
        for (int x = 0; x < count; ++x) {
            if (inside(src, position)) dst[x] = Policy::value(src, position);
            for (int k = 0; k < 3; ++k) position[k] += advance[k];
        }
        return;
    }
    const bool alongX = stays(position[1], advance[1]) && stays(position[2], advance[2]);
    for (int x = 0; x < count; x += kRun) {
        const int n = count - x < kRun ? count - x : kRun;
        Run run;
        Interval in = {0, n};
        for (int k = 0; k < 3; ++k) {
            // cppcheck-suppress uninitvar  // written there
            nextPositions(&position[k], advance[k], n, run.s[k]);
            const Interval axis = insideOf(run.s[k], n, advance[k], src.low[k], src.high[k]);
            in.begin = axis.begin > in.begin ? axis.begin : in.begin;
            in.end = axis.end < in.end ? axis.end : in.end;
        }
        if (in.begin >= in.end) continue;
        const int padded = (in.end - in.begin + kChunk - 1) / kChunk * kChunk;
        if (alongX) {
            const int a = axisBase(run.s[0][in.begin], src.high[0]).base,
                      b = axisBase(run.s[0][in.end - 1], src.high[0]).base;
            const int first = (a < b ? a : b) - 1, span = (a < b ? b : a) + 2 - first + 1;
            if (span <= kSpan) {
                for (int i = in.end; i < in.begin + padded; ++i) run.s[0][i] = run.s[0][in.end - 1];
                Policy::aligned(src, {run.s[0] + in.begin, in.end - in.begin, run.s[1][0], run.s[2][0], first, span},
                                dst + x + in.begin);
                continue;
            }
        }
        for (int k = 0; k < 3; ++k)
            for (int i = in.end; i < in.begin + padded; ++i) run.s[k][i] = run.s[k][in.end - 1];
        for (int i = in.begin; i < in.end; i += kChunk) {
            T out[kChunk];
            const bool whole = in.end - i >= kChunk;
            Policy::chunk(src, {run.s[0] + i, run.s[1] + i, run.s[2] + i}, whole ? dst + x + i : out);
            for (int j = i; !whole && j < in.end; ++j) dst[x + j] = out[j - i];
        }
    }
}

template <class T, class Policy>
void remapRow(const SampleSource<T>& src, T* dst, int count, const float* const map[3]) {
    if (!src.narrow) {
        for (int x = 0; x < count; ++x) {
            const double position[3] = {map[0][x], map[1][x], map[2][x]};
            if (inside(src, position)) dst[x] = Policy::value(src, position);
        }
        return;
    }
    for (int x = 0; x < count; x += kChunk) {
        const int n = count - x < kChunk ? count - x : kChunk;
        alignas(64) double s[3][kChunk];
        alignas(64) int out[kChunk] = {};
        for (int k = 0; k < 3; ++k) {
            float padded[kChunk];
            const float* from = map[k] + x;
            if (n < kChunk) {
                for (int i = 0; i < kChunk; ++i) padded[i] = i < n ? from[i] : __builtin_nanf("");
                from = padded;
            }
            const double low = src.low[k], high = src.high[k];
            for (int i = 0; i < kChunk; ++i) {
                s[k][i] = from[i];
                out[i] |= !(s[k][i] >= low) | !(s[k][i] <= high);
            }
        }
        int outside = 0;
        for (int i = 0; i < kChunk; ++i) outside += out[i];
        if (outside == kChunk) continue;
        // Voxels outside are computed somewhere inside, for nothing.
        if (outside)
            for (int k = 0; k < 3; ++k)
                for (int i = 0; i < kChunk; ++i) s[k][i] = out[i] ? src.low[k] : s[k][i];
        T voxels[kChunk];
        Policy::chunk(src, {s[0], s[1], s[2]}, outside ? voxels : dst + x);
        for (int i = 0; outside && i < kChunk; ++i)
            if (!out[i]) dst[x + i] = voxels[i];
    }
}

} // namespace

constexpr auto ownpr_WarpAffine8N = &warpRow<uint8_t, Nearest<uint8_t>>;
constexpr auto ownpr_WarpAffine8L = &warpRow<uint8_t, Linear<uint8_t>>;
constexpr auto ownpr_WarpAffine8C0 = &warpRow<uint8_t, Cubic<uint8_t, 4>>;
constexpr auto ownpr_WarpAffine8C1 = &warpRow<uint8_t, Cubic<uint8_t, 5>>;
constexpr auto ownpr_WarpAffine8C2 = &warpRow<uint8_t, Cubic<uint8_t, 6>>;
constexpr auto ownpr_WarpAffine8C3 = &warpRow<uint8_t, Cubic<uint8_t, 7>>;
constexpr auto ownpr_WarpAffine16N = &warpRow<uint16_t, Nearest<uint16_t>>;
constexpr auto ownpr_WarpAffine16L = &warpRow<uint16_t, Linear<uint16_t>>;
constexpr auto ownpr_WarpAffine16C0 = &warpRow<uint16_t, Cubic<uint16_t, 4>>;
constexpr auto ownpr_WarpAffine16C1 = &warpRow<uint16_t, Cubic<uint16_t, 5>>;
constexpr auto ownpr_WarpAffine16C2 = &warpRow<uint16_t, Cubic<uint16_t, 6>>;
constexpr auto ownpr_WarpAffine16C3 = &warpRow<uint16_t, Cubic<uint16_t, 7>>;
constexpr auto ownpr_WarpAffine32N = &warpRow<float, Nearest<float>>;
constexpr auto ownpr_WarpAffine32L = &warpRow<float, Linear<float>>;
constexpr auto ownpr_WarpAffine32C0 = &warpRow<float, Cubic<float, 4>>;
constexpr auto ownpr_WarpAffine32C1 = &warpRow<float, Cubic<float, 5>>;
constexpr auto ownpr_WarpAffine32C2 = &warpRow<float, Cubic<float, 6>>;
constexpr auto ownpr_WarpAffine32C3 = &warpRow<float, Cubic<float, 7>>;

constexpr auto ownpr_Remap8N = &remapRow<uint8_t, Nearest<uint8_t>>;
constexpr auto ownpr_Remap8L = &remapRow<uint8_t, Linear<uint8_t>>;
constexpr auto ownpr_Remap8C0 = &remapRow<uint8_t, Cubic<uint8_t, 4>>;
constexpr auto ownpr_Remap8C1 = &remapRow<uint8_t, Cubic<uint8_t, 5>>;
constexpr auto ownpr_Remap8C2 = &remapRow<uint8_t, Cubic<uint8_t, 6>>;
constexpr auto ownpr_Remap8C3 = &remapRow<uint8_t, Cubic<uint8_t, 7>>;
constexpr auto ownpr_Remap16N = &remapRow<uint16_t, Nearest<uint16_t>>;
constexpr auto ownpr_Remap16L = &remapRow<uint16_t, Linear<uint16_t>>;
constexpr auto ownpr_Remap16C0 = &remapRow<uint16_t, Cubic<uint16_t, 4>>;
constexpr auto ownpr_Remap16C1 = &remapRow<uint16_t, Cubic<uint16_t, 5>>;
constexpr auto ownpr_Remap16C2 = &remapRow<uint16_t, Cubic<uint16_t, 6>>;
constexpr auto ownpr_Remap16C3 = &remapRow<uint16_t, Cubic<uint16_t, 7>>;
constexpr auto ownpr_Remap32N = &remapRow<float, Nearest<float>>;
constexpr auto ownpr_Remap32L = &remapRow<float, Linear<float>>;
constexpr auto ownpr_Remap32C0 = &remapRow<float, Cubic<float, 4>>;
constexpr auto ownpr_Remap32C1 = &remapRow<float, Cubic<float, 5>>;
constexpr auto ownpr_Remap32C2 = &remapRow<float, Cubic<float, 6>>;
constexpr auto ownpr_Remap32C3 = &remapRow<float, Cubic<float, 7>>;

extern const AllSampleKernels kSample;
const AllSampleKernels kSample = {
    {
        {nullptr, ownpr_WarpAffine8N, ownpr_WarpAffine8L, nullptr, ownpr_WarpAffine8C0, ownpr_WarpAffine8C1,
         ownpr_WarpAffine8C2, ownpr_WarpAffine8C3},
        {nullptr, ownpr_Remap8N, ownpr_Remap8L, nullptr, ownpr_Remap8C0, ownpr_Remap8C1, ownpr_Remap8C2,
         ownpr_Remap8C3},
    },
    {
        {nullptr, ownpr_WarpAffine16N, ownpr_WarpAffine16L, nullptr, ownpr_WarpAffine16C0, ownpr_WarpAffine16C1,
         ownpr_WarpAffine16C2, ownpr_WarpAffine16C3},
        {nullptr, ownpr_Remap16N, ownpr_Remap16L, nullptr, ownpr_Remap16C0, ownpr_Remap16C1, ownpr_Remap16C2,
         ownpr_Remap16C3},
    },
    {
        {nullptr, ownpr_WarpAffine32N, ownpr_WarpAffine32L, nullptr, ownpr_WarpAffine32C0, ownpr_WarpAffine32C1,
         ownpr_WarpAffine32C2, ownpr_WarpAffine32C3},
        {nullptr, ownpr_Remap32N, ownpr_Remap32L, nullptr, ownpr_Remap32C0, ownpr_Remap32C1, ownpr_Remap32C2,
         ownpr_Remap32C3},
    },
};

} // namespace ZENR_LEVEL
} // namespace zenr
