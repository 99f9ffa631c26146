// Kernels of the spherical harmonics. All of them evaluate kLanes directions at a time into rows of one coefficient
// each (kLanes floats); the rows are then turned into direction-major order, accumulated or multiplied. The operations
// per value are the same for a lane of a block as for a single direction, so that a result does not depend on its
// place.
#include "sh/prsh.h"

#include <string.h>

#include "sh/prshpoly.h"

namespace zenr::ZENR_LEVEL {

namespace {

// Everything a kernel keeps at hand, in one piece: two arrays that start at the same place within their pages delay
// each other's loads and stores.
constexpr int kRowStride = kShMaxValues + 16;
struct Scratch {
    alignas(64) float rows[kShMaxValues * kLanes];
    float gap[80];
    alignas(64) float turned[kLanes * kRowStride];
};

// Receives a set of values and gives each of them to Self's operator().
template <class Self> struct EachValue {
    template <class F> ZENR_SH_INLINE void zonal(int l, F v) const { self()(l * l + l, v); }
    template <class F> ZENR_SH_INLINE void pair(int l, int m, F plus, F minus) const {
        self()(l * l + l + m, plus);
        self()(l * l + l - m, minus);
    }

private:
    const Self& self() const { return static_cast<const Self&>(*this); }
};

struct RowsOut : EachValue<RowsOut> {
    float* rows;
    explicit RowsOut(float* r) : rows(r) {}
    ZENR_SH_INLINE void operator()(int k, Floats v) const { storeFloats(rows + k * kLanes, v); }
};

// Takes the rows of a block and, a line with every few of them, streams the lines of the block before: a burst of
// streamed lines would hold up whatever is stored after it.
constexpr int kValuesPerLine = kLineFloats / kLanes;
struct StreamingRowsOut : EachValue<StreamingRowsOut> {
    float* rows;
    float* lines;
    const float* stage;
    int values;
    StreamingRowsOut(float* r, float* l, const float* s, int n) : rows(r), lines(l), stage(s), values(n) {}
    ZENR_SH_INLINE void operator()(int k, Floats v) const {
        storeFloats(rows + k * kLanes, v);
        if (k % kValuesPerLine == 0 && k + kValuesPerLine <= values) streamLine(lines + k * kLanes, stage + k * kLanes);
    }
};

struct SingleOut : EachValue<SingleOut> {
    float* dst;
    explicit SingleOut(float* d) : dst(d) {}
    ZENR_SH_INLINE void operator()(int k, float v) const { dst[k] = v; }
};

// ---- Evaluation of a block and of one direction --------------------------------------------------------------------

// The recurrence, a column of the same m after the other; F is Floats or float. Values are carried from band to band as
// the floats that are stored: every operation is rounded to float. Bands and columns are template arguments, so that
// nothing is left of the arithmetic of places.
template <class F> struct Recurrence {
    const float* a;
    const float* b;
    int L;
    F x, y, z;

    static constexpr int group(int l) { return l * (l + 1) / 2; } // of a table, where band l begins

    // From band l of column m on; of the two bands below, the nearer one is `below`.
    template <int l, class Out> ZENR_SH_INLINE void zonals(F below, F below2, Out& out) const {
        if constexpr (l <= kShMaxOrder) {
            if (L < l) return;
            const F here = a[group(l)] * z * below + b[group(l)] * below2;
            out.zonal(l, here);
            zonals<l + 1>(here, below, out);
        }
    }
    template <int l, int m, class Out> ZENR_SH_INLINE void pairs(F re, F im, F re2, F im2, Out& out) const {
        if constexpr (l <= kShMaxOrder) {
            if (L < l) return;
            const F f = a[group(l) + m] * z;
            const float g = b[group(l) + m];
            const F reHere = f * re + g * re2;
            const F imHere = f * im + g * im2;
            out.pair(l, m, reHere, imHere);
            pairs<l + 1, m>(reHere, imHere, re, im, out);
        }
    }
    // The columns from m on; re and im are the values of band m.
    template <int m, class Out> ZENR_SH_INLINE void columns(F re, F im, Out& out) const {
        out.pair(m, m, re, im);
        if constexpr (m < kShMaxOrder) {
            if (L == m) return;
            const F f = a[group(m + 1) + m] * z;
            const F reNext = f * re, imNext = f * im;
            out.pair(m + 1, m, reNext, imNext);
            pairs<m + 2, m>(reNext, imNext, re, im, out);
            const float k = a[group(m + 1) + m + 1];
            columns<m + 1>(k * (re * x - im * y), k * (im * x + re * y), out);
        }
    }
    template <class Out> ZENR_SH_INLINE void values(Out& out) const {
        const F first = splatLike(z, a[0]);
        out.zonal(0, first);
        if (L == 0) return;
        const F second = a[1] * z;
        out.zonal(1, second);
        zonals<2>(second, first, out);
        columns<1>(a[2] * x, a[2] * y, out);
    }
};

template <class F, class Out> ZENR_SH_INLINE void recurrence(const ShBasis& basis, int L, F x, F y, F z, Out& out) {
    Recurrence<F>{basis.a, basis.b, L, x, y, z}.values(out);
}

template <class F, class Out> void polynomialSet(int L, F x, F y, F z, Out& out) {
    shBands(L, x, y, z, out);
}
template <class F, class Out> void recurrenceSet(const ShBasis& basis, F x, F y, F z, Out& out) {
    recurrence(basis, basis.order, x, y, z, out);
}

// A basis: values<F> hands out all of its values for the directions in a vector, or for a single one.
struct SetOfBands {
    const ShBasis& basis;
    static constexpr int kMostValues = kShMaxValues;
    static constexpr int kTile = kWidest;
    int order() const { return basis.order; }
    int values() const { return (basis.order + 1) * (basis.order + 1); }
    template <class F, class Out> void evaluate(F x, F y, F z, Out& out) const {
        if (basis.a)
            recurrenceSet(basis, x, y, z, out);
        else
            polynomialSet(basis.order, x, y, z, out);
    }
};

// The same for a small order that is known here, so that nothing is left of the loops and the branches.
template <int L, bool kTables> struct SmallSet {
    const ShBasis& basis;
    static constexpr int kMostValues = (L + 1) * (L + 1);
    static constexpr int kTile = kLanes;
    static constexpr int order() { return L; }
    static constexpr int values() { return kMostValues; }
    template <class F, class Out> ZENR_SH_INLINE void evaluate(F x, F y, F z, Out& out) const {
        if (kTables)
            recurrence(basis, L, x, y, z, out);
        else
            shBands(L, x, y, z, out);
    }
};

// Calls use(set) with the set of a basis.
template <class Use> ZENR_SH_INLINE void withSet(const ShBasis& basis, const Use& use) {
    if (basis.a) {
        switch (basis.order) {
        case 1:
            return use(SmallSet<1, true>{basis});
        case 2:
            return use(SmallSet<2, true>{basis});
        case 3:
            return use(SmallSet<3, true>{basis});
        case 4:
            return use(SmallSet<4, true>{basis});
        }
    } else {
        switch (basis.order) {
        case 1:
            return use(SmallSet<1, false>{basis});
        case 2:
            return use(SmallSet<2, false>{basis});
        case 3:
            return use(SmallSet<3, false>{basis});
        case 4:
            return use(SmallSet<4, false>{basis});
        }
    }
    use(SetOfBands{basis});
}

template <int L> struct OneBand {
    static constexpr int kMostValues = 2 * L + 1;
    static constexpr int values() { return kMostValues; }
    template <class F, class Out> void evaluate(F x, F y, F z, Out& out) const {
        ShBand<L>::values(widen(x), widen(y), widen(z), out);
    }
};

// The values of kLanes directions, and of one.
template <class Set, class Out>
ZENR_SH_INLINE void block(const Set& set, const float* x, const float* y, const float* z, Out out) {
    set.evaluate(loadFloats(x), loadFloats(y), loadFloats(z), out);
}
template <class Set> ZENR_SH_INLINE void single(const Set& set, float x, float y, float z, float* dst) {
    SingleOut out(dst);
    set.evaluate(x, y, z, out);
}

// The last directions of a batch, repeated to a full block.
struct PaddedBlock {
    float x[kLanes], y[kLanes], z[kLanes];
    void fill(const ShDirections& d, int first) {
        for (int i = 0; i < kLanes; ++i) {
            const int j = i < d.count - first ? first + i : d.count - 1;
            x[i] = d.x[j];
            y[i] = d.y[j];
            z[i] = d.z[j];
        }
    }
};

// ---- Direction-major output ----------------------------------------------------------------------------------------

// n values of kLanes directions, `stride` floats from one direction to the next. The last group of values overlaps the
// one before rather than reaching beyond a direction's n values.
ZENR_SH_INLINE void turnRows(const float* rows, int n, float* dst, ptrdiff_t stride) {
    int k = 0;
#if !defined(ZENR_LEVEL_sse2)
    for (; k + 2 * kLanes <= n; k += 2 * kLanes) turnTiles<2>(rows + k * kLanes, dst + k, stride);
#endif
    for (; k + kLanes <= n; k += kLanes) turnTiles<1>(rows + k * kLanes, dst + k, stride);
    const int left = n - k;
    if (left > kLanes / 2 && n >= kLanes) {
        turnTiles<1>(rows + (n - kLanes) * kLanes, dst + (n - kLanes), stride);
    } else if (left > 1 && n >= 4) {
        if (left >= 4) turnFour(rows + k * kLanes, dst + k, stride);
        if (left != 4) turnFour(rows + (n - 4) * kLanes, dst + (n - 4), stride);
    } else {
        for (; k < n; ++k)
            for (int i = 0; i < kLanes; ++i) dst[i * stride + k] = rows[k * kLanes + i];
    }
}

// Writes past the caches: output that does not fit them would otherwise be read before it is written. Only whole lines
// can be streamed, so what is left of a block's last line waits for the next block. A block's lines wait, too, until
// the next block is evaluated, and go out in between (StreamingRowsOut): to read them right after they were stored in
// pieces would be to wait for these stores.
class LineStream {
public:
    LineStream(float* dst, float* stage)
        : held_(int((uintptr_t(dst) & 63) / sizeof(float))), foreign_(held_), lines_(dst - held_), stage_(stage) {}

    bool waiting() const { return waiting_ > 0; }
    StreamingRowsOut out(float* rows, int values) const { return {rows, lines_, stage_, values}; }
    // The first so many lines have been streamed; the others follow.
    void release(int done) {
        for (int line = done; line < waiting_; ++line)
            streamLine(lines_ + line * kLineFloats, stage_ + line * kLineFloats);
        lines_ += waiting_ * kLineFloats;
        memcpy(stage_, stage_ + waiting_ * kLineFloats, kLineFloats * sizeof(float));
        waiting_ = 0;
    }

    // Where the next values are to be put when no line waits, and that so many are there.
    float* next() { return stage_ + held_; }
    void put(int count) {
        waiting_ = (held_ + count) / kLineFloats;
        held_ = (held_ + count) % kLineFloats;
        if (foreign_) { // the first line begins with floats of somebody else's
            for (int k = foreign_; k < kLineFloats; ++k) lines_[k] = stage_[k];
            foreign_ = 0;
            release(1);
        }
    }
    void finish() {
        release(0);
        for (int i = 0; i < held_; ++i) lines_[i] = stage_[i];
        _mm_sfence();
    }

private:
    int held_;        // floats that wait in the stage, after the lines that wait
    int foreign_;     // of which so many are not ours
    int waiting_ = 0; // lines
    float* lines_;
    float* stage_;
};

// Output of this size is beyond the caches that it can have for itself, and rows of fewer values than this fill lines
// well enough without.
constexpr size_t kStreamBytes = size_t(6) << 20;
constexpr int kStreamValues = 32;

template <class Set> void evaluate(const Set& set, const ShDirections& d, float* dst) {
    Scratch s;
    const int n = set.values();
    int i = 0;
    // (Byte counts of the largest batches do not fit 32 bits.)
    if (Set::kMostValues >= kStreamValues && n >= kStreamValues &&
        uint64_t(d.count) * unsigned(n) * sizeof(float) >= kStreamBytes && uintptr_t(dst) % sizeof(float) == 0) {
        LineStream stream(dst, s.turned);
        for (; d.count - i >= kLanes; i += kLanes, dst += kLanes * n) {
            if (stream.waiting()) {
                block(set, d.x + i, d.y + i, d.z + i, stream.out(s.rows, n));
                stream.release(n / kValuesPerLine);
            } else {
                block(set, d.x + i, d.y + i, d.z + i, RowsOut(s.rows));
            }
            turnRows(s.rows, n, stream.next(), n);
            stream.put(kLanes * n);
        }
        stream.finish();
    }
    for (; d.count - i >= kLanes; i += kLanes, dst += kLanes * n) {
        block(set, d.x + i, d.y + i, d.z + i, RowsOut(s.rows));
        turnRows(s.rows, n, dst, n);
    }
    // A block costs about as much as a quarter of its directions one by one.
    const int rest = d.count - i;
    if (rest > kLanes / 4) {
        PaddedBlock p;
        p.fill(d, i);
        block(set, p.x, p.y, p.z, RowsOut(s.rows));
        turnRows(s.rows, n, s.turned, n);
        memcpy(dst, s.turned, size_t(rest) * size_t(n) * sizeof(float));
    } else {
        for (; i < d.count; ++i, dst += n) single(set, d.x[i], d.y[i], d.z[i], dst);
    }
}

void bands(const ShBasis& basis, const ShDirections& dirs, float* dst) {
    withSet(basis, [&](const auto& set) { evaluate(set, dirs, dst); });
}

template <int L> void band(const ShDirections& dirs, float* dst) {
    evaluate(OneBand<L>{}, dirs, dst);
}

// ---- Forward transform ---------------------------------------------------------------------------------------------

// Values are added up with the coefficients of one direction in a vector, a tile of them at a time, so the rows have to
// be transposed, four directions by four coefficients. Wide vectors do that within their parts of four floats; to have a
// direction's values meet there, not one coefficient of eight directions is stored but two of four, twice. A slot is what
// two coefficients take: +m and -m of a band, or m = 0 of a band of odd l and of the next. Slots are numbered through two
// bands at a time, in order: slot 0 is the m = 0 of bands 1 and 2, slot 1 is m = 1 of band 1, then m = 1 and 2 of band 2.
// The constant of band 0 takes the second place of the last slot of m = 0 for an odd order, and none for an even one.
constexpr int slotsBelow(int l) { // of the two bands that l is one of
    return (l - 1) / 2 * ((l - 1) / 2 + 1) * 2;
}
constexpr int pairSlot(int l, int m) {
    return slotsBelow(l) + m + (l % 2 ? 0 : l - 1);
}

// Where the coefficients of a slot are among the sums: four first ones, four second ones.
constexpr int placeOf(int slot, int second) {
    return slot / 4 * 8 + second * 4 + slot % 4;
}

// Calls use(coefficient, place) for all coefficients that have a slot.
template <class Use> ZENR_SH_INLINE void eachPlace(int L, const Use& use) {
    for (int l = 1; l <= L; ++l) {
        const int zonal = l * l + l;
        use(zonal, placeOf(slotsBelow(l), l % 2 == 0));
        for (int m = 1; m <= l; ++m) {
            use(zonal + m, placeOf(pairSlot(l, m), 0));
            use(zonal - m, placeOf(pairSlot(l, m), 1));
        }
    }
    if (L % 2) use(0, placeOf(slotsBelow(L), 1));
}

// Takes the values of a block into slots.
template <int kTile> class SlotsOut {
public:
    explicit SlotsOut(float* slots) : slots_(slots) {}
    ZENR_SH_INLINE void zonal(int l, Floats v) {
        if (l == 0) constant_ = v;
        if (l > 0 && l % 2 == 0) storeSlot<kTile>(slots_, slotsBelow(l), odd_, v);
        odd_ = v;
    }
    ZENR_SH_INLINE void pair(int l, int m, Floats plus, Floats minus) {
        storeSlot<kTile>(slots_, pairSlot(l, m), plus, minus);
    }
    ZENR_SH_INLINE void finish(int L) {
        if (L % 2) storeSlot<kTile>(slots_, slotsBelow(L), odd_, constant_);
    }
    ZENR_SH_INLINE Floats constant() const { return constant_; }

private:
    float* slots_;
    Floats constant_;
    Floats odd_; // of m = 0 and odd l, until the next one is there
};

// The sums of so many values, in whole tiles and whole groups of four slots.
template <int kTile> constexpr int placesOf(int values) {
    constexpr int kStep = kTile < 8 ? 8 : kTile;
    return (values / 2 * 2 + kStep - 1) / kStep * kStep;
}

// Adds the contributions of kLanes samples a channel to a tile of sums. Each coefficient's additions happen in the order
// of the samples; a sample of zero contributes +0 even where a basis value is not finite.
template <bool kZeros, int C, class Vector>
ZENR_SH_INLINE void accumulateTile(const float* slots, const float (&v)[C][kLanes], Vector (&sum)[C]) {
    constexpr int kTile = int(sizeof(Vector) / sizeof(float));
    for (int i = 0; i < kLanes; i += 4) {
        Vector y[4];
        for (int j = 0; j < 4; ++j) load(slots + (i + j) * kTile, y[j]);
        transposeFour(y);
        for (int j = 0; j < 4; ++j) {
            for (int c = 0; c < C; ++c) {
                if (kZeros && v[c][i + j] == 0.f)
                    sum[c] = sum[c] + 0.f;
                else
                    sum[c] = sum[c] + y[j] * v[c][i + j];
            }
        }
    }
}

template <int C, bool kZeros, int kTile>
ZENR_SH_INLINE void accumulate(const float* slots, int places, const float (&v)[C][kLanes], float* sums) {
    for (int k = 0; k < places; k += kTile) {
        typename TileOf<kTile>::Vector sum[C];
        for (int c = 0; c < C; ++c) load(sums + c * places + k, sum[c]);
        accumulateTile<kZeros>(slots + k * kLanes, v, sum);
        for (int c = 0; c < C; ++c) store(sums + c * places + k, sum[c]);
    }
}

template <int C, class Set>
void forwardChannels(const Set& set, const ShDirections& d, const ShSamples& samples, float* const coeffs[3]) {
    alignas(64) float slots[kShMaxValues * (kLanes + C)];
    const int L = set.order();
    const int n = set.values();
    int i = 0;
    if (d.count >= kLanes) {
        const int places = placesOf<Set::kTile>(n);
        // Right behind the slots that are in use, so that both are not at the same place within their pages.
        float* const sums = slots + places * kLanes;
        float constant[C];
        // The places beyond the slots are zeros that nothing reads.
        for (int k = places - (places < 16 ? places : 16); k < places; ++k)
            for (int j = 0; j < kLanes; ++j) slots[k * kLanes + j] = 0.f;
        for (int c = 0; c < C; ++c) {
            float* const sum = sums + c * places;
            for (int k = 0; k < places; ++k) sum[k] = 0.f;
            eachPlace(L, [&](int k, int place) { sum[place] = coeffs[c][k]; });
            constant[c] = coeffs[c][0];
        }
        for (; d.count - i >= kLanes; i += kLanes) {
            SlotsOut<Set::kTile> out(slots);
            set.evaluate(loadFloats(d.x + i), loadFloats(d.y + i), loadFloats(d.z + i), out);
            out.finish(L);
            float v[C][kLanes];
            bool zeros = false;
            for (int c = 0; c < C; ++c) {
                const float* from = samples.channel[c] + ptrdiff_t(i) * samples.step;
                if (samples.step == 1)
                    storeFloats(v[c], loadFloats(from));
                else
                    for (int j = 0; j < kLanes; ++j) v[c][j] = from[j * samples.step];
                zeros |= zeroLanes(loadFloats(v[c])) != 0;
            }
            if (zeros)
                accumulate<C, true, Set::kTile>(slots, places, v, sums);
            else
                accumulate<C, false, Set::kTile>(slots, places, v, sums);
            if (L % 2) continue;
            for (int c = 0; c < C; ++c) {
                alignas(32) float product[kLanes];
                const Floats sample = loadFloats(v[c]);
                storeFloats(product, whereNotZero(sample, sample * out.constant()));
                for (int j = 0; j < kLanes; ++j) constant[c] += product[j];
            }
        }
        for (int c = 0; c < C; ++c) {
            coeffs[c][0] = constant[c];
            eachPlace(L, [&](int k, int place) { coeffs[c][k] = sums[c * places + place]; });
        }
    }
    for (; i < d.count; ++i) {
        single(set, d.x[i], d.y[i], d.z[i], slots);
        for (int c = 0; c < C; ++c) {
            const float v = samples.channel[c][ptrdiff_t(i) * samples.step];
            for (int k = 0; k < n; ++k) coeffs[c][k] += v == 0.f ? 0.f : slots[k] * v;
        }
    }
}

void forward(const ShBasis& basis, const ShDirections& dirs, const ShSamples& samples, float* const coeffs[3]) {
    if (samples.channels == 1)
        withSet(basis, [&](const auto& set) { forwardChannels<1>(set, dirs, samples, coeffs); });
    else
        withSet(basis, [&](const auto& set) { forwardChannels<3>(set, dirs, samples, coeffs); });
}

// ---- Inverse transform ---------------------------------------------------------------------------------------------

// The result is the sum of n products, added in order in extended precision and rounded to float once. Here the sum S
// is formed in double, in another order. A product of two floats is exact in double, so S differs from the true sum by
// at most (additions) * 2^-53 * T with T the sum of the products' magnitudes, and the extended sum by 2^-11 of that. By
// Cauchy and Schwarz T <= |coefficients| * |basis|, and by the addition theorem |basis| = (L+1)/sqrt(4 pi) on the unit
// sphere; half as much again is allowed for directions that are off it by kOffSphere and for rounding. Let E be that
// bound: when S - E and S + E round to the same float, the extended sum, which lies between them, does too. The rare
// other lanes are summed as told.
constexpr double kOffSphere = 1e-4; // of the squared length
constexpr double kSlack = 1.5;
constexpr double kInvSqrt4Pi = 0.28209479177387814;

float extendedDot(const float* rows, int lane, const double* coeffs, int n) {
    long double sum = 0;
    for (int k = 0; k < n; ++k) sum += (long double)rows[k * kLanes + lane] * (long double)coeffs[k];
    return float(sum);
}

template <int C, class Set>
void inverseChannels(const Set& set, const ShDirections& d, const float* const coeffs[3], const ShResults& results) {
    Scratch s;
    alignas(64) double wide[C][kShMaxValues + 8];
    const int n = set.values();
    double bound[C];
    for (int c = 0; c < C; ++c) {
        double squares = 0;
        for (int k = 0; k < n; ++k) {
            wide[c][k] = coeffs[c][k];
            squares += wide[c][k] * wide[c][k];
        }
        bound[c] = (n + 8) * 0x1p-53 * kSlack * __builtin_sqrt(squares) * (set.basis.order + 1) * kInvSqrt4Pi;
    }
    // Several sums a channel, so that an addition need not wait for the one before.
    constexpr int kSums = C == 1 ? 4 : 2;
    constexpr unsigned kAll = (1u << kLanes) - 1;
    // (Steps of a whole block overflow an int at the end of the longest batches.)
    for (ptrdiff_t i = 0; i < d.count; i += kLanes) {
        const int count = d.count - i < kLanes ? int(d.count - i) : kLanes;
        const float *x = d.x + i, *y = d.y + i, *z = d.z + i;
        PaddedBlock padded;
        if (count < kLanes) {
            padded.fill(d, int(i));
            x = padded.x;
            y = padded.y;
            z = padded.z;
        }
        block(set, x, y, z, RowsOut(s.rows));
        Doubles sum[C][kSums];
        for (int c = 0; c < C; ++c)
            for (int u = 0; u < kSums; ++u) sum[c][u] = splat<Doubles>(0.);
        int k = 0;
        for (; k + kSums <= n; k += kSums) {
            for (int u = 0; u < kSums; ++u) {
                const Doubles v = toDoubles(loadFloats(s.rows + (k + u) * kLanes));
                for (int c = 0; c < C; ++c) sum[c][u] = sum[c][u] + wide[c][k + u] * v;
            }
        }
        for (; k < n; ++k) {
            const Doubles v = toDoubles(loadFloats(s.rows + k * kLanes));
            for (int c = 0; c < C; ++c) sum[c][0] = sum[c][0] + wide[c][k] * v;
        }
        const Doubles dx = toDoubles(loadFloats(x)), dy = toDoubles(loadFloats(y)), dz = toDoubles(loadFloats(z));
        const unsigned unit = within(dx * dx + dy * dy + dz * dz, 1 - kOffSphere, 1 + kOffSphere);
        for (int c = 0; c < C; ++c) {
            Doubles total = sum[c][0];
            for (int u = 1; u < kSums; ++u) total = total + sum[c][u];
            const Floats low = toFloats(total - bound[c]);
            const Floats high = toFloats(total + bound[c]);
            alignas(32) float value[kLanes];
            storeFloats(value, high);
            const unsigned sure = unit & sameBits(low, high);
            if (sure != kAll)
                for (int j = 0; j < count; ++j)
                    if (!(sure >> j & 1)) value[j] = extendedDot(s.rows, j, wide[c], n);
            float* out = results.channel[c] + i * results.step;
            if (count == kLanes && results.step == 1)
                storeFloats(out, loadFloats(value));
            else
                for (int j = 0; j < count; ++j) out[ptrdiff_t(j) * results.step] = value[j];
        }
    }
}

void inverse(const ShBasis& basis, const ShDirections& dirs, const float* const coeffs[3], const ShResults& results) {
    if (results.channels == 1)
        withSet(basis, [&](const auto& set) { inverseChannels<1>(set, dirs, coeffs, results); });
    else
        withSet(basis, [&](const auto& set) { inverseChannels<3>(set, dirs, coeffs, results); });
}

} // namespace

extern const ShKernels kSh;
const ShKernels kSh = {
    bands,
    {band<0>, band<1>, band<2>, band<3>, band<4>, band<5>, band<6>, band<7>, band<8>, band<9>, band<10>, band<11>,
     band<12>, band<13>, band<14>, band<15>},
    forward,
    inverse,
};

} // namespace zenr::ZENR_LEVEL
