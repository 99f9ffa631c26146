// Positions of rows side by side: one voxel of each, in registers.
#pragma once
#include <immintrin.h>

#include "volume/prsamplechunk.h"
#include "volume/prsamplevec.h"

namespace zenr {
namespace ZENR_LEVEL {
namespace {

#if defined(ZENR_LEVEL_avx512)
constexpr int kBytes = 64;
#elif defined(ZENR_LEVEL_avx2)
constexpr int kBytes = 32;
#else
constexpr int kBytes = 16;
#endif
typedef double Doubles __attribute__((vector_size(kBytes)));
typedef int64_t Flags __attribute__((vector_size(kBytes))); // -1 or 0
constexpr int kLanes = kBytes / int(sizeof(double));
constexpr int kParts = kChunk / kLanes;

struct Column {
    Doubles s[3][kParts];
};

// The flags as bits, the first voxel's lowest.
inline unsigned bitsOf(const Flags* flags) {
    unsigned bits = 0;
    for (int p = 0; p < kParts; ++p) {
#if defined(ZENR_LEVEL_avx512)
        const unsigned part = _mm512_movepi64_mask(__m512i(flags[p]));
#elif defined(ZENR_LEVEL_avx2)
        const unsigned part = unsigned(_mm256_movemask_pd(__m256d(flags[p])));
#else
        const unsigned part = unsigned(_mm_movemask_pd(__m128d(flags[p])));
#endif
        bits |= part << (p * kLanes);
    }
    return bits;
}

inline void move(Column* at, const double advance[3]) {
    for (int k = 0; k < 3; ++k)
        for (int p = 0; p < kParts; ++p) at->s[k][p] += advance[k];
}

enum class Whereabouts { inside, edge, outside };

// Of this and the next columns, `count` in all. The last one is estimated, so near the box's edges nothing is said;
// nor up to `rim` before its ends.
template <class T>
inline Whereabouts whereabouts(const SampleSource<T>& src, const Column& at, const double advance[3], int count,
                               double rim) {
    constexpr double kSlack = 9.094947017729282e-13; // 2^-40; rounding makes up 2^-46 at the most
    Flags in[kParts], out[kParts];
    for (int p = 0; p < kParts; ++p) in[p] = ~Flags{}, out[p] = Flags{};
    for (int k = 0; k < 3; ++k) {
        const double way = (count - 1) * advance[k], low = src.low[k], high = src.high[k];
        for (int p = 0; p < kParts; ++p) {
            const Doubles a = at.s[k][p], b = a + way;
            const Doubles slack = ((a < 0 ? -a : a) + (b < 0 ? -b : b)) * kSlack;
            const Doubles least = (a < b ? a : b) - slack, most = (a < b ? b : a) + slack;
            in[p] &= (least >= low) & (most + rim <= high);
            out[p] |= (most < low) | (least > high);
        }
    }
    constexpr unsigned kAll = (1u << kChunk) - 1;
    return bitsOf(in) == kAll ? Whereabouts::inside : bitsOf(out) == kAll ? Whereabouts::outside : Whereabouts::edge;
}

// Puts voxels that are outside somewhere inside, where they may be sampled for nothing. Returns their bits.
template <class T> inline unsigned putInside(const SampleSource<T>& src, Column* at) {
    Flags out[kParts];
    for (int p = 0; p < kParts; ++p) out[p] = Flags{};
    for (int k = 0; k < 3; ++k) {
        const Doubles low = Doubles{} + src.low[k], high = Doubles{} + src.high[k];
        for (int p = 0; p < kParts; ++p) {
            const Doubles s = at->s[k][p], above = s >= low ? s : low, in = above <= high ? above : high;
            out[p] |= in != s;
            at->s[k][p] = in;
        }
    }
    return bitsOf(out);
}

} // namespace
} // namespace ZENR_LEVEL
} // namespace zenr
