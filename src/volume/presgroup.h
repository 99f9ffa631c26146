// How row passes find the taps of neighbouring columns: in windows of a few voxels that several columns share.
//
// A window is loaded at once and its voxels are handed out by a shuffle that is tabulated once a block. Taps are clamped
// to the row beforehand, and so are windows: border columns are like others.
#pragma once
#include "volume/pireslin.h"

namespace zenr {

// Columns [0, n) with taps base[x] and base[x] + 1, clamped to rows of `size` voxels, in windows of `voxels`. Columns
// beyond the last are the last again.
struct Windows {
    const int* base;
    int n;
    int size;
    int voxels;

    int tap(int x, int k) const {
        const int at = base[x < n ? x : n - 1];
        return at < 0 ? 0 : at < size - k ? at + k : size - 1;
    }
    // Where the window of columns from x on begins.
    int at(int x) const { return tap(x, 0) < size - voxels ? tap(x, 0) : size - voxels; }

    // How many columns may share a window: eight, four, or none.
    int share() const {
        if (size < voxels) return 0;
        for (int columns = 8; columns >= 4; columns /= 2) {
            int x = 0;
            while (x < n && tap(x + columns - 1, 1) - at(x) < voxels) x += columns;
            if (x >= n) return columns;
        }
        return 0;
    }
};

// These fill in the groups and return how many columns share a window; 0 where groups do not serve.
template <class T> int groupColumns(const int* base, const uint16_t* weights, int n, int size, FixedGroup* groups) {
    const Windows windows = {base, n, size, 16 / int(sizeof(T))};
    const int columns = windows.share();
    for (int begin = 0; columns && begin < n; begin += 16) {
        FixedGroup& g = groups[begin / 16];
        for (auto& shuffle : g.taps)
            for (uint8_t& byte : shuffle) byte = 0x80; // nothing
        for (int i = 0; i < 16; ++i) {
            const int x = begin + i;
            const int w = weights[x < n ? x : n - 1];
            g.twice[i] = uint16_t(w < kOneQ14 ? 2 * w : 0);
            const int quarter = i / 4;
            const int window = columns == 8 ? quarter & 2 : quarter;
            g.window[window] = windows.at(begin + 4 * window);
            for (int k = 0; k < 2; ++k) {
                const int at = windows.tap(x, w < kOneQ14 ? k : 1) - g.window[window];
                if constexpr (sizeof(T) == 1) {
                    g.taps[columns == 8 ? 0 : quarter & 1][2 * i + k] = uint8_t(at);
                } else {
                    const int word = columns == 8 ? i : (i & 8) + i % 4 + 4 * k;
                    uint8_t* const shuffle = g.taps[columns == 8 ? k : quarter & 1];
                    shuffle[2 * word] = uint8_t(2 * at);
                    shuffle[2 * word + 1] = uint8_t(2 * at + 1);
                }
            }
        }
    }
    return columns;
}
inline int groupColumns(const int* base, int n, int size, FloatGroup* groups) {
    const Windows windows = {base, n, size, 8};
    const int columns = windows.share();
    for (int x = 0; columns && x < int(unsigned(n + 15) & ~15u); ++x) {
        FloatGroup& g = groups[x / 8];
        const int half = columns == 8 ? 0 : x / 4 % 2;
        g.window[half] = windows.at(x / columns * columns);
        for (int k = 0; k < 2; ++k) {
            const int at = windows.tap(x, k) - g.window[half];
            if (columns == 8)
                g.taps[k][x % 8] = at;
            else
                g.taps[half][x % 4 + 4 * k] = at;
        }
    }
    return columns;
}

} // namespace zenr
