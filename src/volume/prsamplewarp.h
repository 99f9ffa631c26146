// The rows of a warp: along x of the source line by line, others side by side.
#pragma once
#include "volume/prsamplecolumn.h"
#include "volume/prsamplerun.h"
#include "volume/prsampleturn.h"

namespace zenr {
namespace ZENR_LEVEL {
namespace {

inline constexpr int kAlignedRun = 64; // voxels of a row along x of the source that are sampled at once

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

// Up to kColumns columns of rows side by side.
template <class T, class Policy>
void warpBlock(const SampleSource<T>& src, T* const* row, int rows, int x, int columns, Column* at,
               const double advance[3], ptrdiff_t ahead) {
    alignas(64) T block[kColumns][kChunk];
    Column column[kColumns]; // those with voxels inside
    unsigned out[kColumns];
    int place[kColumns], kept = 0;
    const Whereabouts where = whereabouts(src, *at, advance, columns);
    for (int c = 0; c < columns; ++c) {
        column[kept] = *at;
        move(at, advance);
        if (where == Whereabouts::outside) continue;
        out[kept] = where == Whereabouts::inside ? 0 : putInside(src, &column[kept]);
        if (out[kept] != kAll) place[kept++] = c;
    }
    if (kept == 0) return;
    Policy::columns(src, column, kept, ahead, block);
    if (where == Whereabouts::inside && columns == kColumns && rows == kChunk) return turned(block, row, x);
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < kept; ++c)
            if (!(out[c] >> r & 1)) row[r][x + place[c]] = block[c][r];
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
        for (int c = 0; c < count; c += kColumns)
            warpBlock<T, Policy>(src, tile->row + r, rows, x + c, count - c < kColumns ? count - c : kColumns, &at,
                                 advance, tile->ahead);
        __builtin_memcpy(s, &at, sizeof s);
        for (int k = 0; k < 3; ++k)
            for (int i = 0; i < rows; ++i) tile->position[k][r + i] = s[k][i];
    }
}

} // namespace
} // namespace ZENR_LEVEL
} // namespace zenr
