// Positions of rows side by side: one voxel of each, in registers.
#pragma once
#include <immintrin.h>

#include "frame/simd.h"
#include "volume/prsamplechunk.h"
#include "volume/prsamplevec.h"

namespace zenr {
namespace ZENR_LEVEL {
namespace {

typedef double Doubles __attribute__((vector_size(kSimdBytes)));
typedef int64_t Flags __attribute__((vector_size(kSimdBytes))); // -1 or 0
constexpr int kLanes = kSimdBytes / int(sizeof(double));
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

#if defined(ZENR_LEVEL_avx512)
// Whole numbers as doubles: offsets are exact in them, and cost one conversion.
inline __m512d whole(__m512d s, double add) {
    return _mm512_roundscale_pd(_mm512_add_pd(s, _mm512_set1_pd(add)), _MM_FROUND_TO_ZERO);
}
template <class T> inline __m512d planeOffset(const SampleSource<T>& src, const Column& at, double add, int part) {
    return _mm512_fmadd_pd(whole(at.s[1][part], add), _mm512_set1_pd(double(src.step)), whole(at.s[0][part], add));
}
#endif

// Voxels of a regular source at positions that are inside, truncated after an addition: offsets from its first plane.
template <class T> inline void regularOffsets(const SampleSource<T>& src, const Column& at, double add, int* offset) {
#if defined(ZENR_LEVEL_avx512)
    const __m512d planeStep = _mm512_set1_pd(src.planeStep), low = _mm512_set1_pd(src.low[2]);
    const auto half = [&](int part) {
        return _mm512_cvttpd_epi32(
            _mm512_fmadd_pd(_mm512_sub_pd(whole(at.s[2][part], add), low), planeStep, planeOffset(src, at, add, part)));
    };
    _mm512_store_si512(offset, both(half(0), half(1)));
#else
    alignas(64) double s[3][kChunk];
    __builtin_memcpy(s, &at, sizeof s);
    const int step = int(src.step), planeStep = src.planeStep, low = src.low[2];
    for (int x = 0; x < kChunk; ++x)
        offset[x] = (int(s[2][x] + add) - low) * planeStep + int(s[1][x] + add) * step + int(s[0][x] + add);
#endif
    stageDone();
}
// And of any: planes, and offsets from where they start.
template <class T>
inline void planeOffsets(const SampleSource<T>& src, const Column& at, double add, int* plane, int* offset) {
#if defined(ZENR_LEVEL_avx512)
    const auto planes = [&](int part) { return _mm512_cvttpd_epi32(whole(at.s[2][part], add)); };
    const auto flat = [&](int part) { return _mm512_cvttpd_epi32(planeOffset(src, at, add, part)); };
    _mm512_store_si512(plane, both(planes(0), planes(1)));
    _mm512_store_si512(offset, both(flat(0), flat(1)));
#else
    alignas(64) double s[3][kChunk];
    __builtin_memcpy(s, &at, sizeof s);
    const int step = int(src.step);
    for (int x = 0; x < kChunk; ++x) {
        plane[x] = int(s[2][x] + add);
        offset[x] = int(s[1][x] + add) * step + int(s[0][x] + add);
    }
#endif
    stageDone();
}

// Voxels by the definition: those of a mask.
template <class Policy, class T>
__attribute__((noinline)) void redoColumn(const SampleSource<T>& src, Column at, unsigned mask, T* out) {
    alignas(64) double s[3][kChunk];
    __builtin_memcpy(s, &at, sizeof s);
    redo<Policy>(src, {{s[0], s[1], s[2]}}, mask, out);
}

// Asks for voxels that will be needed when this slice is done: of every fourth position, as a line serves several
// columns, and which of them changes from column to column.
struct Ahead {
    ptrdiff_t by; // 0: for none
    int column;
};
constexpr int kAskEvery = 4;
template <class T> inline void ask(const T* origin, const int* offset, Ahead ahead) {
    if (!ahead.by) return;
    const T* const at = origin + ahead.by;
    for (int x = ahead.column % kAskEvery; x < kChunk; x += kAskEvery) __builtin_prefetch(at + offset[x]);
}

} // namespace
} // namespace ZENR_LEVEL
} // namespace zenr
