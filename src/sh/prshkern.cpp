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

// Re and Im of (x + iy)^m in float.
template <class F> struct Powers { F re, im; };

// Receives a set of values and gives each of them to Self's operator().
template <class Self> struct EachValue {
    const Self& self() const { return static_cast<const Self&>(*this); }
    template <class F> ZENR_SH_INLINE void zonal(int k, F v) const { self()(k, v); }
    template <class F> ZENR_SH_INLINE Powers<F> powers(F re, F im) const { return {re, im}; }
    template <class F, class Factor> ZENR_SH_INLINE void pair(int plus, int minus, Factor factor, Powers<F> p) const {
        self()(plus, factor * p.re);
        self()(minus, factor * p.im);
    }
    template <class F> ZENR_SH_INLINE void sectoral(int plus, int minus, float factor, Powers<F> p) const {
        pair(plus, minus, factor, p);
    }
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

template <class Out> void polynomialRows(int L, const float* x, const float* y, const float* z, Out out) {
    shBands(L, loadFloats(x), loadFloats(y), loadFloats(z), out);
}

void polynomialSingle(int L, float x, float y, float z, float* dst) {
    shBands(L, x, y, z, SingleOut(dst));
}

ZENR_SH_INLINE Floats loadRow(const float* p, Floats) {
    return loadFloats(p);
}
ZENR_SH_INLINE float loadRow(const float* p, float) {
    return *p;
}

// The recurrence; V is Floats with rows of kLanes or float with rows of 1. Values are carried from band to band as the
// floats that are stored; every operation is rounded to float.
template <class V, int kRow, class Out>
ZENR_SH_INLINE void recurrence(const float* a, const float* b, int L, V x, V y, V z, V zonal0, const float* rows,
                               Out set) {
    const auto at = [&](int k) __attribute__((always_inline)) {
        return loadRow(rows + ptrdiff_t(k) * kRow, V{});
    };
    set(0, zonal0);
    if (L == 0) return;
    set(1, a[2] * y);
    set(2, a[1] * z);
    set(3, a[2] * x);
    for (int l = 2; l <= L; ++l) {
        const float* al = a + l * (l + 1) / 2;
        const float* bl = b + l * (l + 1) / 2;
        const int here = l * l + l;
        const int below = here - 2 * l;       // index of Y(l-1, 0)
        const int below2 = below - 2 * l + 2; // index of Y(l-2, 0)
        const V c = at(below + l - 1);
        const V s = at(below - l + 1);
        set(here + l, al[l] * (c * x - s * y));
        set(here - l, al[l] * (s * x + c * y));
        const V az = al[l - 1] * z;
        set(here + l - 1, az * c);
        set(here - l + 1, az * s);
        set(here, al[0] * z * at(below) + bl[0] * at(below2));
        for (int k = 1; k <= l - 2; ++k) {
            const V f = al[k] * z;
            set(here + k, f * at(below + k) + bl[k] * at(below2 + k));
            set(here - k, f * at(below - k) + bl[k] * at(below2 - k));
        }
    }
}

template <class Out>
void recurrenceRows(const ShBasis& basis, const float* x, const float* y, const float* z, Out out) {
    recurrence<Floats, kLanes>(basis.a, basis.b, basis.order, loadFloats(x), loadFloats(y), loadFloats(z),
                               splatFloat(basis.a[0]), out.rows, out);
}

void recurrenceSingle(const ShBasis& basis, float x, float y, float z, float* dst) {
    recurrence<float, 1>(basis.a, basis.b, basis.order, x, y, z, basis.a[0], dst, SingleOut(dst));
}

struct SetOfBands {
    const ShBasis& basis;
    static constexpr int kMostValues = kShMaxValues;
    int values() const { return (basis.order + 1) * (basis.order + 1); }
    template <class Out> void rows(const float* x, const float* y, const float* z, Out out) const {
        if (basis.a)
            recurrenceRows(basis, x, y, z, out);
        else
            polynomialRows(basis.order, x, y, z, out);
    }
    void single(float x, float y, float z, float* dst) const {
        if (basis.a)
            recurrenceSingle(basis, x, y, z, dst);
        else
            polynomialSingle(basis.order, x, y, z, dst);
    }
};

// The same for a small order that is known here, so that nothing is left of the loops and the branches.
template <int L, bool kTables> struct SmallSet {
    const ShBasis& basis;
    static constexpr int kMostValues = (L + 1) * (L + 1);
    static constexpr int values() { return kMostValues; }
    template <class Out> ZENR_SH_INLINE void rows(const float* x, const float* y, const float* z, Out out) const {
        if (kTables)
            recurrence<Floats, kLanes>(basis.a, basis.b, L, loadFloats(x), loadFloats(y), loadFloats(z),
                                       splatFloat(basis.a[0]), out.rows, out);
        else
            shBands(L, loadFloats(x), loadFloats(y), loadFloats(z), out);
    }
    ZENR_SH_INLINE void single(float x, float y, float z, float* dst) const {
        if (kTables)
            recurrence<float, 1>(basis.a, basis.b, L, x, y, z, basis.a[0], dst, SingleOut(dst));
        else
            shBands(L, x, y, z, SingleOut(dst));
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
    template <class Out> void rows(const float* x, const float* y, const float* z, Out out) const {
        ShBand<L>::values(toDoubles(loadFloats(x)), toDoubles(loadFloats(y)), toDoubles(loadFloats(z)), out);
    }
    void single(float x, float y, float z, float* dst) const {
        ShBand<L>::values(double(x), double(y), double(z), SingleOut(dst));
    }
};

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
        uint64_t(d.count) * unsigned(n) * sizeof(float) >= kStreamBytes) {
        LineStream stream(dst, s.turned);
        for (; d.count - i >= kLanes; i += kLanes, dst += kLanes * n) {
            if (stream.waiting()) {
                set.rows(d.x + i, d.y + i, d.z + i, stream.out(s.rows, n));
                stream.release(n / kValuesPerLine);
            } else {
                set.rows(d.x + i, d.y + i, d.z + i, RowsOut(s.rows));
            }
            turnRows(s.rows, n, stream.next(), n);
            stream.put(kLanes * n);
        }
        stream.finish();
    }
    for (; d.count - i >= kLanes; i += kLanes, dst += kLanes * n) {
        set.rows(d.x + i, d.y + i, d.z + i, RowsOut(s.rows));
        turnRows(s.rows, n, dst, n);
    }
    // A block costs about as much as a quarter of its directions one by one.
    const int rest = d.count - i;
    if (rest > kLanes / 4) {
        PaddedBlock p;
        p.fill(d, i);
        set.rows(p.x, p.y, p.z, RowsOut(s.rows));
        turnRows(s.rows, n, s.turned, n);
        memcpy(dst, s.turned, size_t(rest) * size_t(n) * sizeof(float));
    } else {
        for (; i < d.count; ++i, dst += n) set.single(d.x[i], d.y[i], d.z[i], dst);
    }
}

void bands(const ShBasis& basis, const ShDirections& dirs, float* dst) {
    withSet(basis, [&](const auto& set) { evaluate(set, dirs, dst); });
}

template <int L> void band(const ShDirections& dirs, float* dst) {
    evaluate(OneBand<L>{}, dirs, dst);
}

// ---- Forward transform ---------------------------------------------------------------------------------------------

// Adds `count` samples' contributions to the coefficients, a tile of the rows at a time: it is turned in registers into
// the coefficients of one direction after the other. Each coefficient's additions happen in the order of the samples; a
// sample of zero contributes +0 even where a basis value is not finite.
template <int C, bool kZeros>
ZENR_SH_INLINE void accumulate(const float* rows, int padded, const float (&v)[3][kLanes], int count,
                               float (*coeffs)[kRowStride]) {
    for (int k = 0; k < padded; k += kLanes) {
        Floats sum[C];
        for (int c = 0; c < C; ++c) sum[c] = loadFloats(coeffs[c] + k);
        for (int quarter = 0; quarter < kQuarters; ++quarter) {
            Floats y[4];
            transposeQuarter(rows + k * kLanes, quarter, y);
            for (int j = 0; j < 4; ++j) {
                const int i = 4 * quarter + j;
                if (i >= count) break;
                for (int c = 0; c < C; ++c) {
                    if (kZeros && v[c][i] == 0.f)
                        sum[c] = sum[c] + splatFloat(0.f);
                    else
                        sum[c] = sum[c] + y[j] * splatFloat(v[c][i]);
                }
            }
        }
        for (int c = 0; c < C; ++c) storeFloats(coeffs[c] + k, sum[c]);
    }
}

ZENR_SH_INLINE bool anyZero(const float* v, int count) {
    if (count == kLanes) return zeroLanes(loadFloats(v)) != 0;
    bool any = false;
    for (int i = 0; i < count; ++i) any |= v[i] == 0.f;
    return any;
}

template <int C, class Set>
void forwardChannels(const Set& set, const ShDirections& d, const ShSamples& samples, float* const coeffs[3]) {
    Scratch s;
    alignas(64) float sums[C][kRowStride];
    const int n = set.values();
    // Whole vectors: the values beyond n are zeros that nothing reads.
    const int padded = (n + kLanes - 1) / kLanes * kLanes;
    for (int c = 0; c < C; ++c) {
        memcpy(sums[c], coeffs[c], size_t(n) * sizeof(float));
        for (int k = n; k < padded; ++k) sums[c][k] = 0.f;
    }
    for (int k = n * kLanes; k < padded * kLanes; ++k) s.rows[k] = 0.f;
    for (int i = 0; i < d.count;) {
        const int count = d.count - i < kLanes ? d.count - i : kLanes;
        if (count == kLanes) {
            set.rows(d.x + i, d.y + i, d.z + i, RowsOut(s.rows));
        } else {
            PaddedBlock p;
            p.fill(d, i);
            set.rows(p.x, p.y, p.z, RowsOut(s.rows));
        }
        float v[3][kLanes] = {};
        bool zeros = false;
        for (int c = 0; c < C; ++c) {
            const float* from = samples.channel[c] + ptrdiff_t(i) * samples.step;
            if (samples.step == 1 && count == kLanes)
                storeFloats(v[c], loadFloats(from));
            else
                for (int j = 0; j < count; ++j) v[c][j] = from[j * samples.step];
            zeros |= anyZero(v[c], count);
        }
        if (zeros)
            accumulate<C, true>(s.rows, padded, v, count, sums);
        else if (count == kLanes)
            accumulate<C, false>(s.rows, padded, v, kLanes, sums);
        else
            accumulate<C, false>(s.rows, padded, v, count, sums);
        i += count;
    }
    for (int c = 0; c < C; ++c) memcpy(coeffs[c], sums[c], size_t(n) * sizeof(float));
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
        set.rows(x, y, z, RowsOut(s.rows));
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
