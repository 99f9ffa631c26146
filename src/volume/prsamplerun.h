// Positions of a warp's row: exactly those that repeated addition gives, without adding one by one.
#pragma once
#include "volume/prsamplechunk.h"

namespace zenr {
namespace ZENR_LEVEL {
namespace {

inline constexpr int kRun = 256; // voxels of a row whose positions are told at once

inline constexpr int kMantissa = 52;
inline constexpr uint64_t kFraction = (uint64_t(1) << kMantissa) - 1;

inline uint64_t bitsOf(double x) {
    return __builtin_bit_cast(uint64_t, x);
}

// Whether a position is the same for a whole row. One of -0 becomes +0.
inline bool stays(double position, double advance) {
    return advance == 0 && (position != 0 || bitsOf(position) == 0);
}

// Whether additions of `advance` lead from `first` to `last`, with multiples of `step` in between: all of them lie
// within the same two powers of two, so that ulps are the same and the same advance is added every time, `advance`
// rounded to whole ulps; but no sum may be a tie, which is rounded now up and now down.
inline bool evenly(double first, double last, double advance, double step) {
    const uint64_t a = bitsOf(first), b = bitsOf(last), exponent = a >> kMantissa & 0x7FF;
    const double ulp = __builtin_bit_cast(double, (exponent - kMantissa) << kMantissa);
    // On the way to zero, what comes out as a power of two may have been rounded by the finer ulps behind it.
    const bool same = ((a ^ b) >> kMantissa) == 0 && (b > a || (b & kFraction) != 0);
    return same && exponent > kMantissa && __builtin_fabs(advance - step) * 2 != ulp;
}

// How many of `most` positions, from `first` on, surely are multiples of `step` apart; at least 1.
inline int evenCount(double first, double advance, double step, int most) {
    if (evenly(first, first + (most - 1) * step, advance, step)) return most;
    // What does not move any more stays, but for -0.
    if (step == 0) return first != 0 || bitsOf(first) == 0 ? most : 1;
    // As far as to the next power of two.
    const double size = __builtin_fabs(first), power = __builtin_bit_cast(double, bitsOf(size) & ~kFraction);
    const double fit = ((first < 0) == (step < 0) ? 2 * power - size : size - power) / __builtin_fabs(step);
    const int n = fit < most - 1 ? int(fit) + 1 : 1;
    for (int count = n; count > 1 && count > n - 2; --count)
        if (evenly(first, first + (count - 1) * step, advance, step)) return count;
    return 1;
}

alignas(64) inline constexpr double kCount[kChunk] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};

// The positions of a run along an axis, followed by room for a last chunk that is not full.
struct AxisRun {
    alignas(64) double s[kRun + 2 * kChunk];

    // Positions of `count` voxels. Leaves *position at the voxel behind the last.
    void place(double* position, double advance, int count) {
        double first = *position;
        for (int x = 0, n; x < count; x += n) {
            const double step = (first + advance) - first;
            n = evenCount(first, advance, step, count - x);
            if (n < kChunk && n < count - x) {
                // Near zero powers of two lie close together, and where sums are ties every one is rounded by itself.
                n = count - x < kChunk ? count - x : kChunk;
                for (int i = 0; i < n; ++i, first += advance) s[x + i] = first;
            } else {
                for (int i = 0; i < n; i += kChunk) {
                    const double begin = first + i * step;
                    for (int j = 0; j < kChunk; ++j) s[x + i + j] = begin + kCount[j] * step;
                }
                s[x] = first; // were it -0
                first = (n > 1 ? first + (n - 1) * step : first) + advance;
            }
        }
        *position = first;
    }

    // The voxels that are inside: an interval, because positions are monotonous also when rounded.
    Interval inside(int count, double advance, double low, double high) const {
        const double first = s[0], last = s[count - 1];
        if (first >= low && first <= high && last >= low && last <= high) return {0, count};
        const double near = advance < 0 ? high : low, far = advance < 0 ? low : high;
        const auto reached = [&](int x) { return advance < 0 ? s[x] <= high : s[x] >= low; };
        const auto passed = [&](int x) { return advance < 0 ? s[x] < low : s[x] > high; };
        return {firstThat(reached, count, (near - first) / advance), firstThat(passed, count, (far - first) / advance)};
    }

    // Repeats the last position of a part up to a whole chunk.
    void pad(Interval part) {
        for (int i = 0; i < kChunk; ++i) s[part.end + i] = s[part.end - 1];
    }

private:
    // The first voxel of which something is true that stays true behind it; from a guess on, which rounding hardly moves.
    template <class Test> static int firstThat(const Test& test, int count, double guess) {
        int x = guess > 0 ? guess < count ? int(guess) : count : 0;
        while (x > 0 && test(x - 1)) --x;
        while (x < count && !test(x)) ++x;
        return x;
    }
};

} // namespace
} // namespace ZENR_LEVEL
} // namespace zenr
