// The row kernels of affine warp and remap, once per level.
#include "volume/prsample.h"
#include "volume/prsamplecolumn.h"
#include "volume/prsamplecubic.h"
#include "volume/prsamplelinear.h"
#include "volume/prsamplenearest.h"
#include "volume/prsamplerun.h"
#include "volume/prsampleturn.h"

namespace zenr {
namespace ZENR_LEVEL {
namespace {

constexpr int kAlignedRun = 64; // voxels of a row along x of the source that are sampled at once

// Whether a tile's rows go along x of the source, and slowly enough for its lines.
template <class T> bool alongX(const WarpTile<T>& tile, const double advance[3]) {
    constexpr double kMargin = 8;
    bool all = __builtin_fabs(advance[0]) * kAlignedRun + kMargin < kSpan;
    for (int r = 0; r < tile.rows; ++r)
        all = all && stays(tile.position[1][r], advance[1]) && stays(tile.position[2][r], advance[2]);
    return all;
}

template <class T, class Policy>
void warpAlong(const SampleSource<T>& src, T* dst, int count, const double* x, double y, double z) {
    for (int i = 0; i < count; i += kAlignedRun) {
        const int n = count - i < kAlignedRun ? count - i : kAlignedRun;
        const int a = axisBase(x[i], src.high[0]).base, b = axisBase(x[i + n - 1], src.high[0]).base;
        const int first = (a < b ? a : b) - 1, span = (a < b ? b : a) + 2 - first + 1;
        Policy::aligned(src, {x + i, n, y, z, first, span}, dst + i);
    }
}

// Rows along x: y and z decide for a whole row, and rows that begin at the same x share its positions.
template <class T, class Policy>
void warpRowsAlong(const SampleSource<T>& src, WarpTile<T>* tile, int x, int count, double advance) {
    for (int done = 0; done < count; done += kRun) {
        const int n = count - done < kRun ? count - done : kRun;
        AxisRun run;
        Interval in = {0, 0};
        double start = 0, next = 0;
        for (int r = 0; r < tile->rows; ++r) {
            double* const position = &tile->position[0][r];
            if (r == 0 || bitsOf(*position) != bitsOf(start)) {
                start = next = *position;
                run.place(&next, advance, n);
                in = run.inside(n, advance, src.low[0], src.high[0]);
                if (in.begin < in.end) run.pad(in);
            }
            *position = next;
            const double at[3] = {run.s[in.begin], tile->position[1][r], tile->position[2][r]};
            if (in.begin < in.end && inside(src, at))
                warpAlong<T, Policy>(src, tile->row[r] + x + done + in.begin, in.end - in.begin, run.s + in.begin,
                                     at[1], at[2]);
        }
    }
}

// Up to kChunk columns of rows side by side.
template <class T, class Policy>
void warpBlock(const SampleSource<T>& src, T* const* row, int rows, int x, int columns, Column* at,
               const double advance[3], ptrdiff_t ahead) {
    alignas(64) T block[kChunk][kChunk];
    switch (whereabouts(src, *at, advance, columns, 0)) {
    case Whereabouts::inside:
        for (int c = 0; c < columns; ++c) {
            Policy::column(src, *at, {ahead, c}, block[c]);
            move(at, advance);
        }
        if (columns == kChunk && rows == kChunk) return turned(block, row, x);
        for (int r = 0; r < rows; ++r)
            for (int c = 0; c < columns; ++c) row[r][x + c] = block[c][r];
        return;
    case Whereabouts::edge:
        for (int c = 0; c < columns; ++c) {
            Column in = *at;
            const unsigned out = putInside(src, &in);
            if (out != kAll) Policy::column(src, in, {ahead, c}, block[c]);
            for (int r = 0; r < rows; ++r)
                if (!(out >> r & 1)) row[r][x + c] = block[c][r];
            move(at, advance);
        }
        return;
    case Whereabouts::outside:
        for (int c = 0; c < columns; ++c) move(at, advance);
    }
}

template <class T, class Policy>
void warpRows(const SampleSource<T>& src, WarpTile<T>* tile, int x, int count, const double advance[3]) {
    if (!src.narrow) {
        for (int r = 0; r < tile->rows; ++r)
            for (int c = 0; c < count; ++c) {
                const double at[3] = {tile->position[0][r], tile->position[1][r], tile->position[2][r]};
                if (inside(src, at)) tile->row[r][x + c] = Policy::value(src, at);
                for (int k = 0; k < 3; ++k) tile->position[k][r] += advance[k];
            }
        return;
    }
    if (alongX(*tile, advance)) return warpRowsAlong<T, Policy>(src, tile, x, count, advance[0]);
    for (int r = 0; r < tile->rows; r += kChunk) {
        const int rows = tile->rows - r < kChunk ? tile->rows - r : kChunk;
        // Rows that are missing are like the last one.
        alignas(64) double s[3][kChunk];
        for (int k = 0; k < 3; ++k)
            for (int i = 0; i < kChunk; ++i) s[k][i] = tile->position[k][r + (i < rows ? i : rows - 1)];
        Column at;
        __builtin_memcpy(&at, s, sizeof at);
        for (int c = 0; c < count; c += kChunk)
            warpBlock<T, Policy>(src, tile->row + r, rows, x + c, count - c < kChunk ? count - c : kChunk, &at, advance,
                                 tile->ahead);
        __builtin_memcpy(s, &at, sizeof s);
        for (int k = 0; k < 3; ++k)
            for (int i = 0; i < rows; ++i) tile->position[k][r + i] = s[k][i];
    }
}

// A chunk of a remap's row. Returns the bits of voxels that are outside, or not there; the others are at `voxels`, and if
// there are no such ones, at dst.
template <class T, class Policy>
inline unsigned remapChunk(const SampleSource<T>& src, const float* const map[3], int x, int n, bool asFloats, T* dst,
                           T* voxels) {
    if constexpr (Policy::kFloats)
        if (asFloats) return Policy::floats(src, map, x, kAll >> (kChunk - n), dst, voxels);
    alignas(64) double s[3][kChunk];
    for (int k = 0; k < 3; ++k) {
        float padded[kChunk];
        const float* from = map[k] + x;
        if (n < kChunk) {
            for (int i = 0; i < kChunk; ++i) padded[i] = i < n ? from[i] : __builtin_nanf("");
            from = padded;
        }
        // cppcheck-suppress uninitvar  // written above
        for (int i = 0; i < kChunk; ++i) s[k][i] = from[i];
    }
    Column at;
    __builtin_memcpy(&at, s, sizeof at);
    const unsigned out = putInside(src, &at);
    if (out != kAll) Policy::column(src, at, {0, 0}, out ? voxels : dst);
    return out;
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
    bool asFloats = src.regular;
    if constexpr (Policy::kFloats)
        for (int high : src.high) asFloats &= high < Policy::kBelow;
    for (int x = 0; x < count; x += kChunk) {
        const int n = count - x < kChunk ? count - x : kChunk;
        alignas(64) T voxels[kChunk];
        const unsigned out = remapChunk<T, Policy>(src, map, x, n, asFloats, dst + x, voxels);
        for (int i = 0; out && i < n; ++i)
            if (!(out >> i & 1)) dst[x + i] = voxels[i];
    }
}

} // namespace

constexpr auto ownpr_WarpAffine8N = &warpRows<uint8_t, Nearest<uint8_t>>;
constexpr auto ownpr_WarpAffine8L = &warpRows<uint8_t, Linear<uint8_t>>;
constexpr auto ownpr_WarpAffine8C0 = &warpRows<uint8_t, Cubic<uint8_t, 4>>;
constexpr auto ownpr_WarpAffine8C1 = &warpRows<uint8_t, Cubic<uint8_t, 5>>;
constexpr auto ownpr_WarpAffine8C2 = &warpRows<uint8_t, Cubic<uint8_t, 6>>;
constexpr auto ownpr_WarpAffine8C3 = &warpRows<uint8_t, Cubic<uint8_t, 7>>;
constexpr auto ownpr_WarpAffine16N = &warpRows<uint16_t, Nearest<uint16_t>>;
constexpr auto ownpr_WarpAffine16L = &warpRows<uint16_t, Linear<uint16_t>>;
constexpr auto ownpr_WarpAffine16C0 = &warpRows<uint16_t, Cubic<uint16_t, 4>>;
constexpr auto ownpr_WarpAffine16C1 = &warpRows<uint16_t, Cubic<uint16_t, 5>>;
constexpr auto ownpr_WarpAffine16C2 = &warpRows<uint16_t, Cubic<uint16_t, 6>>;
constexpr auto ownpr_WarpAffine16C3 = &warpRows<uint16_t, Cubic<uint16_t, 7>>;
constexpr auto ownpr_WarpAffine32N = &warpRows<float, Nearest<float>>;
constexpr auto ownpr_WarpAffine32L = &warpRows<float, Linear<float>>;
constexpr auto ownpr_WarpAffine32C0 = &warpRows<float, Cubic<float, 4>>;
constexpr auto ownpr_WarpAffine32C1 = &warpRows<float, Cubic<float, 5>>;
constexpr auto ownpr_WarpAffine32C2 = &warpRows<float, Cubic<float, 6>>;
constexpr auto ownpr_WarpAffine32C3 = &warpRows<float, Cubic<float, 7>>;

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
