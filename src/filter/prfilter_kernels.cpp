// Volume filtering: the loops over voxels, compiled once per level.
#include "filter/prfilter.h"
#include "frame/simd.h"

namespace zenr {
namespace ZENR_LEVEL {

// Output rows that are summed at once: their sums stay in registers, so a weight is loaded once for all of them.
#if defined(__i386__)
constexpr int kNarrowRows = 2;
constexpr int kWideRows = 1;
constexpr int kSingleRows = 1;
#elif defined(__AVX512BW__)
constexpr int kNarrowRows = 4;
constexpr int kWideRows = 4;
constexpr int kSingleRows = 4;
#else
constexpr int kNarrowRows = 4;
constexpr int kWideRows = 2;
constexpr int kSingleRows = 2;
#endif

// 1.5 * 2^52: adding it to a double of at most 2^51 in size rounds that to an integer, half to even, in the low bits.
constexpr double kRounder = 6755399441055744.0;

// ---- Division ------------------------------------------------------------------------------------------------------

template <int Bytes>
static ZENR_INLINE typename Simd<Bytes>::I32 roundedQuotients(typename Simd<Bytes>::F64 a, typename Simd<Bytes>::F64 b,
                                                              const FilterDivision& division, bool ties, bool clamp) {
    typedef Simd<Bytes> S;
    typedef typename S::F64 F64;
    typedef typename S::I32 I32;
    const F64 rounder = S::all64(kRounder), most = S::all64(65536.0), least = S::all64(-65536.0);
    F64 p = a * S::all64(division.low), q = b * S::all64(division.low);
    if (clamp) p = S::smaller(S::larger(p, least), most), q = S::smaller(S::larger(q, least), most);
    const I32 low = S::evenWords(p + rounder, q + rounder);
    if (!ties) return low;
    p = a * S::all64(division.high), q = b * S::all64(division.high);
    if (clamp) p = S::smaller(S::larger(p, least), most), q = S::smaller(S::larger(q, least), most);
    const I32 high = S::evenWords(p + rounder, q + rounder);
    // Where the two differ one is even; where they are the same either will do.
    const I32 odd = (low << 31) >> 31;
    return (low & ~odd) | (high & odd);
}

// Words as doubles: 2^52 + u, then the bias goes.
template <int Bytes> static ZENR_INLINE typename Simd<Bytes>::F64 biased(typename Simd<Bytes>::I32 words, double bias) {
    return typename Simd<Bytes>::F64(words) - Simd<Bytes>::all64(bias);
}

constexpr double kTwo52 = 4503599627370496.0;
constexpr double kTwo31 = 2147483648.0;
constexpr int32_t kTwo52Word = 0x43300000;

template <int Bytes, int Mode>
static ZENR_INLINE typename Simd<Bytes>::I32 narrowQuotient(typename Simd<Bytes>::I32 n,
                                                            const FilterDivision& division) {
    typedef Simd<Bytes> S;
    typedef typename S::I32 I32;
    if (Mode == FilterDivision::none) return n;
    if (Mode == FilterDivision::shift) return (n + (((n >> division.bits) & 1) + (division.half - 1))) >> division.bits;
    const I32 u = n ^ INT32_MIN, top = S::all32(kTwo52Word);
    return roundedQuotients<Bytes>(biased<Bytes>(S::unpackLow(u, top), kTwo52 + kTwo31),
                                   biased<Bytes>(S::unpackHigh(u, top), kTwo52 + kTwo31), division,
                                   Mode == FilterDivision::reciprocalWithTies, false);
}

// The same for a mode that is known at run time.
template <int Bytes>
static ZENR_INLINE typename Simd<Bytes>::I32 narrowQuotient(typename Simd<Bytes>::I32 n,
                                                            const FilterDivision& division) {
    switch (division.mode) {
    case FilterDivision::none:
        return narrowQuotient<Bytes, FilterDivision::none>(n, division);
    case FilterDivision::shift:
        return narrowQuotient<Bytes, FilterDivision::shift>(n, division);
    case FilterDivision::reciprocal:
        return narrowQuotient<Bytes, FilterDivision::reciprocal>(n, division);
    case FilterDivision::reciprocalWithTies:
        break;
    }
    return narrowQuotient<Bytes, FilterDivision::reciprocalWithTies>(n, division);
}

// high * 2^16 + remainder as doubles: exact below 2^53, and beyond it any divisor saturates.
template <int Bytes>
static ZENR_INLINE typename Simd<Bytes>::I32 wideQuotient(typename Simd<Bytes>::I32 low, typename Simd<Bytes>::I32 high,
                                                          const FilterDivision& division, bool ties) {
    typedef Simd<Bytes> S;
    typedef typename S::I32 I32;
    typedef typename S::F64 F64;
    const I32 rest = low - (high << 16), u = high ^ INT32_MIN, top = S::all32(kTwo52Word);
    const F64 a = biased<Bytes>(S::unpackLow(u, top), kTwo52 + kTwo31) * S::all64(65536.0) +
                  biased<Bytes>(S::unpackLow(rest, top), kTwo52);
    const F64 b = biased<Bytes>(S::unpackHigh(u, top), kTwo52 + kTwo31) * S::all64(65536.0) +
                  biased<Bytes>(S::unpackHigh(rest, top), kTwo52);
    return roundedQuotients<Bytes>(a, b, division, ties, true);
}

// ---- Sums ----------------------------------------------------------------------------------------------------------

// A block of a tile: one vector of columns, and some rows.
struct Block {
    int row;
    int x;
    ptrdiff_t source; // voxels from a plane's pointer
    ptrdiff_t slot;   // of its sums
};

// Asks for what the tile will need at a block.
static ZENR_INLINE void fetch(const FilterTile& t, const Block& b, int rows) {
    if (t.ahead)
        for (int r = 0; r < rows; ++r) __builtin_prefetch(t.ahead + b.source + r * t.step, 0, 2);
    const int end = b.row + rows < t.targetRows ? b.row + rows : t.targetRows;
    for (int r = b.row; r < end; ++r) __builtin_prefetch(t.target + r * t.targetStep + b.x, 1, 2);
}

// Runs Group::run<Bytes, rows>(block) over a tile: groups of Rows rows, then what is left row by row.
template <int Bytes, int Rows, class Group>
static ZENR_INLINE void overBlocks(const FilterTile& t, const Group& group) {
    constexpr int lanes = Bytes / 2;
    for (int r = 0; r < t.rows;) {
        const bool whole = t.rows - r >= Rows;
        for (int column = 0; column < t.stride; column += lanes) {
            const int x = column < t.width - lanes ? column : t.width - lanes;
            const Block block = {r, x, t.origin + r * t.step + x, ptrdiff_t(r) * t.stride + column};
            if (Group::kSums) fetch(t, block, whole ? Rows : 1);
            if (whole)
                group.template run<Bytes, Rows>(block);
            else
                group.template run<Bytes, 1>(block);
        }
        r += whole ? Rows : 1;
    }
}

// The same with the registers that the tile's width allows.
template <int Rows, class Group> static ZENR_INLINE void overTile(const FilterTile& t, const Group& group) {
    if (t.lanes == 8) overBlocks<16, Rows>(t, group);
    if constexpr (kSimdBytes >= 32)
        if (t.lanes == 16) overBlocks<32, Rows>(t, group);
    if constexpr (kSimdBytes >= 64)
        if (t.lanes == 32) overBlocks<64, Rows>(t, group);
}

// The voxels of one row of a block.
template <int Bytes>
static ZENR_INLINE void put(const FilterTile& t, const Block& b, int row, typename Simd<Bytes>::I32 even,
                            typename Simd<Bytes>::I32 odd) {
    Simd<Bytes>::store16(t.target + (b.row + row) * t.targetStep + b.x, Simd<Bytes>::interleave16(even, odd));
}

// sum + a[2i] * b[2i] + a[2i+1] * b[2i+1] modulo 2^32, in two instructions or in one.
struct TwoSteps {
    template <int Bytes>
    static ZENR_INLINE void add(typename Simd<Bytes>::I32& sum, typename Simd<Bytes>::I16 a,
                                typename Simd<Bytes>::I16 b) {
        sum += Simd<Bytes>::madd(a, b);
    }
};
#if defined(__AVX512BW__)
// Written in assembler: the intrinsic would put the instruction's feature on every function around it.
struct OneStep {
    template <int Bytes>
    static ZENR_INLINE void add(typename Simd<Bytes>::I32& sum, typename Simd<Bytes>::I16 a,
                                typename Simd<Bytes>::I16 b) {
        asm("vpdpwssd %2, %1, %0" : "+v"(sum) : "v"(a), "v"(b));
    }
};
#endif

// Adds a segment's pairs to the sums of a block's even and odd voxels.
template <class Dot, int Bytes, int Rows>
static ZENR_INLINE void addPairs(const FilterProgram& program, const FilterSegment& segment, const FilterTile& tile,
                                 const Block& block, typename Simd<Bytes>::I32 (&even)[Rows],
                                 typename Simd<Bytes>::I32 (&odd)[Rows]) {
    typedef Simd<Bytes> S;
    typedef typename S::I16 I16;
    const int16_t* plane = tile.planes[segment.plane] + block.source;
    for (int e = segment.begin; e < segment.end; ++e) {
        const FilterEntry& entry = program.entry[e];
        const I16 we = I16(S::all32(entry.even)), wo = I16(S::all32(entry.odd));
        const int16_t* s = plane + entry.offset;
#pragma GCC unroll 8
        for (int r = 0; r < Rows; ++r) {
            const I16 v = S::loadOnce16(s + r * tile.step);
            Dot::template add<Bytes>(even[r], v, we);
            Dot::template add<Bytes>(odd[r], v, wo);
        }
    }
}

template <class Dot> struct NarrowPairs {
    static constexpr bool kSums = true;
    const FilterProgram& program;
    const FilterTile& tile;
    int32_t* sums;
    bool add;
    const FilterDivision* division;

    template <int Bytes, int Rows> ZENR_INLINE void run(const Block& block) const {
        typedef Simd<Bytes> S;
        typename S::I32 even[Rows] = {}, odd[Rows] = {};
        for (int g = 0; g < program.segmentCount; ++g)
            addPairs<Dot, Bytes, Rows>(program, program.segment[g], tile, block, even, odd);
#pragma GCC unroll 8
        for (int r = 0; r < Rows; ++r) {
            int32_t* to = sums + block.slot + r * tile.stride;
            if (add) even[r] += S::load32(to), odd[r] += S::load32(to + Bytes / 4);
            if (division) {
                put<Bytes>(tile, block, r, narrowQuotient<Bytes>(even[r], *division),
                           narrowQuotient<Bytes>(odd[r], *division));
                continue;
            }
            S::store32(to, even[r]);
            S::store32(to + Bytes / 4, odd[r]);
        }
    }
};

template <class Dot> struct WidePairs {
    static constexpr bool kSums = true;
    const FilterProgram& program;
    const FilterTile& tile;
    int32_t* low;
    int32_t* high;
    bool add;

    template <int Bytes, int Rows> ZENR_INLINE void run(const Block& block) const {
        typedef Simd<Bytes> S;
        typedef typename S::I32 I32;
        I32 lowEven[Rows] = {}, lowOdd[Rows] = {}, highEven[Rows] = {}, highOdd[Rows] = {};
        for (int g = 0; g < program.segmentCount; ++g) {
            I32 even[Rows] = {}, odd[Rows] = {};
            addPairs<Dot, Bytes, Rows>(program, program.segment[g], tile, block, even, odd);
            // Before the 32 bits could overflow: the upper halves apart, and everything modulo 2^32.
#pragma GCC unroll 8
            for (int r = 0; r < Rows; ++r) {
                lowEven[r] += even[r], highEven[r] += even[r] >> 16;
                lowOdd[r] += odd[r], highOdd[r] += odd[r] >> 16;
            }
        }
#pragma GCC unroll 8
        for (int r = 0; r < Rows; ++r) {
            const ptrdiff_t e = block.slot + r * tile.stride, o = e + Bytes / 4;
            if (add) {
                lowEven[r] += S::load32(low + e), lowOdd[r] += S::load32(low + o);
                highEven[r] += S::load32(high + e), highOdd[r] += S::load32(high + o);
            }
            S::store32(low + e, lowEven[r]), S::store32(low + o, lowOdd[r]);
            S::store32(high + e, highEven[r]), S::store32(high + o, highOdd[r]);
        }
    }
};

// Products that wrap at 32 bits, formed as their upper and lower 16 bits in all lanes at once. Each half is summed
// modulo 2^16, and its upper byte apart: what those cannot hold of 255 taps' exact sum is the other's to give.
struct WideSingles {
    static constexpr bool kSums = true;
    const FilterProgram& program;
    const FilterTile& tile;
    int32_t* low;
    int32_t* high;
    bool add;

    template <int Bytes> static ZENR_INLINE typename Simd<Bytes>::I32 evenOf(typename Simd<Bytes>::I16 v) {
        return (typename Simd<Bytes>::I32(v) << 16) >> 16;
    }
    template <int Bytes> static ZENR_INLINE typename Simd<Bytes>::I32 oddOf(typename Simd<Bytes>::I16 v) {
        return typename Simd<Bytes>::I32(v) >> 16;
    }

    template <int Bytes, int Rows> ZENR_INLINE void run(const Block& block) const {
        typedef Simd<Bytes> S;
        typedef typename S::I16 I16;
        typedef typename S::U16 U16;
        typedef typename S::I32 I32;
        I16 upper[Rows] = {}, upperByte[Rows] = {}, lower[Rows] = {}, lowerByte[Rows] = {};
        for (int g = 0; g < program.segmentCount; ++g) {
            const FilterSegment& segment = program.segment[g];
            const int16_t* plane = tile.planes[segment.plane] + block.source;
            for (int e = segment.begin; e < segment.end; ++e) {
                const FilterEntry& entry = program.entry[e];
                const I16 wl = I16(S::all32(entry.even)), wh = I16(S::all32(entry.odd));
                const int16_t* s = plane + entry.offset;
#pragma GCC unroll 8
                for (int r = 0; r < Rows; ++r) {
                    const I16 v = S::loadOnce16(s + r * tile.step);
                    const I16 l = v * wl;
                    const I16 u = S::mulHigh(v, wl) + v * wh;
                    lower[r] += l;
                    lowerByte[r] += I16(U16(l) >> 8);
                    upper[r] += u;
                    upperByte[r] += u >> 8;
                }
            }
        }
        const I32 word = S::all32(0xFFFF);
#pragma GCC unroll 8
        for (int r = 0; r < Rows; ++r) {
            const ptrdiff_t e = block.slot + r * tile.stride, o = e + Bytes / 4;
            const I16 upperRest = upper[r] - (upperByte[r] << 8), lowerRest = lower[r] - (lowerByte[r] << 8);
            I32 highEven = (evenOf<Bytes>(upperByte[r]) << 8) + (I32(upperRest) & word);
            I32 highOdd = (oddOf<Bytes>(upperByte[r]) << 8) + (oddOf<Bytes>(upperRest) & word);
            I32 lowEven = (highEven << 16) + ((I32(lowerByte[r]) & word) << 8) + (I32(lowerRest) & word);
            I32 lowOdd =
                (highOdd << 16) + ((oddOf<Bytes>(lowerByte[r]) & word) << 8) + (oddOf<Bytes>(lowerRest) & word);
            if (add) {
                lowEven += S::load32(low + e), lowOdd += S::load32(low + o);
                highEven += S::load32(high + e), highOdd += S::load32(high + o);
            }
            S::store32(low + e, lowEven), S::store32(low + o, lowOdd);
            S::store32(high + e, highEven), S::store32(high + o, highOdd);
        }
    }
};

template <class Dot>
static void narrowPairs(const FilterProgram& program, const FilterTile& tile, int32_t* sums, bool add,
                        const FilterDivision* division) {
    overTile<kNarrowRows>(tile, NarrowPairs<Dot>{program, tile, sums, add, division});
}
template <class Dot>
static void widePairs(const FilterProgram& program, const FilterTile& tile, int32_t* low, int32_t* high, bool add) {
    overTile<kWideRows>(tile, WidePairs<Dot>{program, tile, low, high, add});
}
static void wideSingles(const FilterProgram& program, const FilterTile& tile, int32_t* low, int32_t* high, bool add) {
    overTile<kSingleRows>(tile, WideSingles{program, tile, low, high, add});
}

template <int Bytes, int Registers>
static ZENR_INLINE int combineBlocks(const int32_t* const* in, const int32_t* weight, int taps, int32_t* out, int i,
                                     int count) {
    typedef Simd<Bytes> S;
    constexpr int kWords = Bytes / 4;
    for (; i + Registers * kWords <= count; i += Registers * kWords) {
        typename S::I32 sum[Registers] = {};
        for (int t = 0; t < taps; ++t) {
            const typename S::I32 w = S::all32(weight[t]);
            const int32_t* p = in[t] + i;
#pragma GCC unroll 8
            for (int r = 0; r < Registers; ++r) sum[r] += w * S::load32(p + r * kWords);
        }
#pragma GCC unroll 8
        for (int r = 0; r < Registers; ++r) S::store32(out + i + r * kWords, sum[r]);
    }
    return i;
}

static void combine(const int32_t* const* in, const int32_t* weight, int taps, int32_t* out, int count) {
    const int i = combineBlocks<kSimdBytes, 4>(in, weight, taps, out, 0, count);
    combineBlocks<16, 2>(in, weight, taps, out, i, count);
}

struct FinishNarrow {
    static constexpr bool kSums = false;
    const FilterDivision& division;
    const FilterTile& tile;
    const int32_t* sums;

    template <int Bytes, int Rows> ZENR_INLINE void run(const Block& block) const {
        typedef Simd<Bytes> S;
        put<Bytes>(tile, block, 0, narrowQuotient<Bytes>(S::load32(sums + block.slot), division),
                   narrowQuotient<Bytes>(S::load32(sums + block.slot + Bytes / 4), division));
    }
};

struct FinishWide {
    static constexpr bool kSums = false;
    const FilterDivision& division;
    const FilterTile& tile;
    const int32_t* low;
    const int32_t* high;

    template <int Bytes, int Rows> ZENR_INLINE void run(const Block& block) const {
        typedef Simd<Bytes> S;
        const ptrdiff_t even = block.slot, odd = even + Bytes / 4;
        const bool ties = division.mode == FilterDivision::reciprocalWithTies;
        put<Bytes>(tile, block, 0, wideQuotient<Bytes>(S::load32(low + even), S::load32(high + even), division, ties),
                   wideQuotient<Bytes>(S::load32(low + odd), S::load32(high + odd), division, ties));
    }
};

static void finishNarrow(const FilterDivision& division, const FilterTile& tile, const int32_t* sums) {
    overTile<1>(tile, FinishNarrow{division, tile, sums});
}
static void finishWide(const FilterDivision& division, const FilterTile& tile, const int32_t* low,
                       const int32_t* high) {
    overTile<1>(tile, FinishWide{division, tile, low, high});
}

// ---- Plain ---------------------------------------------------------------------------------------------------------

// sum / divisor, half to even, saturated: the one rule behind all kinds of divisors. A quotient in double is exact
// enough: a sum above 2^53, which the conversion may round, saturates whatever the divisor; below, quotients within the
// range of the result are either exact ties, which double represents, or at least 1 / (2 * 2^31) away from one, far
// more than their rounding.
static inline int16_t quotient(int64_t sum, double divisor) {
    double v = double(sum) / divisor;
    v = v < 40000.0 ? v : 40000.0;
    v = v > -40000.0 ? v : -40000.0;
    const int t = int(v + kRounder - kRounder);
    return int16_t(t > 32767 ? 32767 : t < -32768 ? -32768 : t);
}

// Voxels of a row kColumns at a time: a job whose destination overlaps its source takes one.
template <int kColumns> static void plain(const FilterJob& job) {
    const ZenrVolume& k = job.kernelSize;
    for (int z = 0; z < job.size.depth; ++z)
        for (int y = 0; y < job.size.height; ++y)
            for (int x0 = 0; x0 < job.size.width; x0 += kColumns) {
                const int n = job.size.width - x0 < kColumns ? job.size.width - x0 : kColumns;
                int64_t sum[kColumns];
                for (int x = 0; x < n; ++x) sum[x] = 0;
                const int32_t* weight = job.kernel + size_t(k.width) * size_t(k.height) * size_t(k.depth);
                for (int kz = 0; kz < k.depth; ++kz)
                    for (int ky = 0; ky < k.height; ++ky)
                        for (int kx = 0; kx < k.width; ++kx) {
                            const uint32_t w = uint32_t(*--weight);
                            if (w == 0) continue;
                            const int16_t* s = job.src[ptrdiff_t(z) + kz] + job.srcOrigin +
                                               (ptrdiff_t(y) + ky) * job.srcStep + x0 + kx;
                            // The product wraps, the sum does not.
                            for (int x = 0; x < n; ++x) sum[x] += int32_t(w * uint32_t(int32_t(s[x])));
                        }
                int16_t* d = job.dst[z] + y * job.dstStep + x0;
                for (int x = 0; x < n; ++x) d[x] = quotient(sum[x], job.divisor);
            }
}

#if defined(__SSE4_1__)
constexpr int kMultiplyCost = 1;
#else
constexpr int kMultiplyCost = 6; // two multiplications to 64 bits, and shuffles
#endif

template <class Dot> constexpr FilterKernels tableWith() {
    return {kSimdBytes / 2, kMultiplyCost, narrowPairs<Dot>, widePairs<Dot>, wideSingles,
            combine,        finishNarrow,  finishWide,       plain<256>,     plain<1>};
}

const FilterKernels kFilter = tableWith<TwoSteps>();
#if defined(__AVX512BW__)
const FilterKernels kFilterDot = tableWith<OneStep>();
#endif

} // namespace ZENR_LEVEL
} // namespace zenr
