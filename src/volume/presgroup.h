// How row passes find the taps of neighbouring columns: in windows of a few voxels that several columns share.
//
// A window is loaded at once and its voxels are handed out by a shuffle that is tabulated once a block. Taps are clamped
// to the row beforehand, and so are windows: border columns are like others.
#pragma once
#include "volume/pireslin.h"
#include "volume/piresnn.h"

namespace zenr {

// Columns [0, n) with taps base(x) and base(x) + 1, clamped to rows of `size` voxels, in windows of `voxels`. Columns
// beyond the last are the last again.
template <class Base> struct Windows {
    const Base& base;
    int n;
    int size;
    int voxels;

    int tap(int x, int k) const {
        const int at = base(x < n ? x : n - 1);
        return at < 0 ? 0 : at < size - k ? at + k : size - 1;
    }
    // Where the window of columns from x on begins.
    int at(int x) const { return tap(x, 0) < size - voxels ? tap(x, 0) : size - voxels; }

    // Whether a window holds the taps of so many columns everywhere.
    bool holds(int columns) const {
        int x = 0;
        while (x < n && tap(x + columns - 1, 1) - at(x) < voxels) x += columns;
        return size >= voxels && x >= n;
    }
    // How many columns may share a window: eight, four, or none.
    int share() const { return holds(8) ? 8 : holds(4) ? 4 : 0; }
};

// These fill in the groups and return how many columns share a window; 0 where groups do not serve.
template <class T> int groupColumns(const int* base, const uint16_t* weights, int n, int size, FixedGroup* groups) {
    const auto at = [&](int x) { return base[x]; };
    const Windows<decltype(at)> windows = {at, n, size, 16 / int(sizeof(T))};
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
                const int voxel = windows.tap(x, w < kOneQ14 ? k : 1) - g.window[window];
                if constexpr (sizeof(T) == 1) {
                    g.taps[columns == 8 ? 0 : quarter & 1][2 * i + k] = uint8_t(voxel);
                } else {
                    const int word = columns == 8 ? i : (i & 8) + i % 4 + 4 * k;
                    uint8_t* const shuffle = g.taps[columns == 8 ? k : quarter & 1];
                    shuffle[2 * word] = uint8_t(2 * voxel);
                    shuffle[2 * word + 1] = uint8_t(2 * voxel + 1);
                }
            }
        }
    }
    return columns;
}
inline int groupColumns(const int* base, int n, int size, FloatGroup* groups) {
    const auto at = [&](int x) { return base[x]; };
    const Windows<decltype(at)> windows = {at, n, size, 8};
    const int columns = windows.share();
    for (int x = 0; columns && x < int(unsigned(n + 15) & ~15u); ++x) {
        FloatGroup& g = groups[x / 8];
        const int half = columns == 8 ? 0 : x / 4 % 2;
        g.window[half] = windows.at(x / columns * columns);
        for (int k = 0; k < 2; ++k) {
            const int voxel = windows.tap(x, k) - g.window[half];
            if (columns == 8)
                g.taps[k][x % 8] = voxel;
            else
                g.taps[half][x % 4 + 4 * k] = voxel;
        }
    }
    return columns;
}

// Returns the voxels that all taps of a group are found in, 16 or 32, or 0 for any number.
inline int groupColumns(const int* base, const float* weights, int n, int size, BracketGroup* groups) {
    const auto at = [&](int x) { return base[x]; };
    using At = Windows<decltype(at)>;
    const int reach = At{at, n, size, 16}.holds(16) ? 16 : At{at, n, size, 32}.holds(16) ? 32 : 0;
    const At windows = {at, n, size, reach};
    for (int x = 0; x < int(unsigned(n + 15) & ~15u); ++x) {
        BracketGroup& g = groups[x / 16];
        const int i = x % 16;
        if (i == 0) g.window = reach ? windows.at(x) : windows.tap(x, 0);
        for (int k = 0; k < 2; ++k) g.taps[k][i] = windows.tap(x, k) - g.window;
        const Bracket w = bracketOf(weights[x < n ? x : n - 1]);
        g.low[i] = w.low;
        g.high[i] = w.high;
    }
    return reach;
}

inline void placeVoxel(NearestGroup<float>* g, int i, int voxel) {
    g->voxels[i] = uint8_t(voxel);
}
template <class T> void placeVoxel(NearestGroup<T>* g, int i, int voxel) {
    for (int byte = 0; byte < int(sizeof(T)); ++byte)
        g->bytes[i * int(sizeof(T)) + byte] = uint8_t(voxel * int(sizeof(T)) + byte);
}
template <class T> void place(NearestGroup<T>* g, int i, int columns, int from, int voxel) {
    g->window[i / columns * (columns == NearestGroup<T>::kVoxels ? 2 : 1)] = from;
    placeVoxel(g, i, voxel);
}
inline void placeVoxel(NearestWide<uint8_t>* g, int i, int voxel) {
    uint8_t* const pairs = i & 1 ? g->odd : g->even; // (an array chosen in place is a copy in sanitizers' builds)
    pairs[i / 2] = uint8_t(voxel / 2);
    g->turn[i] = uint8_t((i & 14) + (voxel & 1));
}
template <class T> void placeVoxel(NearestWide<T>* g, int i, int voxel) {
    g->voxels[i] = uint8_t(voxel);
}
template <class T> void place(NearestWide<T>* g, int i, int, int from, int voxel) {
    g->window = from;
    placeVoxel(g, i, voxel);
}
// Groups of columns with one tap each, so many of which share a window; false where the windows are too narrow. The last
// group has the last columns, some of which may be in the one before, too.
template <class Group, class Base> bool fillGroups(const Windows<Base>& windows, int columns, Group* groups) {
    const int n = windows.n;
    if (n < Group::kColumns || windows.size < windows.voxels) return false;
    for (int end = Group::kColumns;; end += Group::kColumns) {
        const int begin = (end < n ? end : n) - Group::kColumns;
        Group& g = groups[end / Group::kColumns - 1];
        for (int i = 0; i < Group::kColumns; ++i) {
            const int from = windows.at(begin + i / columns * columns);
            const int voxel = windows.tap(begin + i, 0) - from;
            if (voxel >= windows.voxels) return false;
            place(&g, i, columns, from, voxel);
        }
        if (end >= n) return true;
    }
}
template <class T, class Base> int groupNearest(const Base& base, int n, int size, NearestGroup<T>* groups) {
    constexpr int kVoxels = NearestGroup<T>::kVoxels;
    for (int columns = kVoxels; columns >= kVoxels / 2; columns /= 2)
        if (fillGroups(Windows<Base>{base, n, size, kVoxels}, columns, groups)) return columns;
    return 0;
}
// How many registers a window has.
template <class T, class Base> int groupNearest(const Base& base, int n, int size, NearestWide<T>* groups) {
    constexpr int kColumns = NearestWide<T>::kColumns;
    for (int registers = 1; registers <= 2; ++registers)
        if (fillGroups(Windows<Base>{base, n, size, registers * kColumns}, kColumns, groups)) return registers;
    return 0;
}

} // namespace zenr
