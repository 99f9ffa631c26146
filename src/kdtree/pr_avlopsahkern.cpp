// Kernels of the split search, compiled once per level. An axis asks for the cheapest plane among the events of its
// references; hardly any of them need sorting for that. Few events are priced each against all others; many are
// counted in bins, whose counts bound the prices in them, and only bins that can hold the cheapest plane are looked at.
#include "kdtree/pr_avlopsahkern.h"

#include <float.h>

#include "frame/prprim.h"
#include "frame/simd.h"
#include "kdtree/pr_avlorsort.h"

namespace zenr {
namespace ZENR_LEVEL {
namespace {

constexpr uint32_t kRadixCount = 320; // up to so many events the comparison sort is quicker
constexpr int kLanes = kSimdBytes / 4;
typedef float Floats __attribute__((vector_size(kSimdBytes), may_alias));
typedef float FloatsAnywhere __attribute__((vector_size(kSimdBytes), may_alias, aligned(4)));
typedef int32_t Ints __attribute__((vector_size(kSimdBytes), may_alias));
typedef double Doubles __attribute__((vector_size(kSimdBytes), may_alias));

ZENR_INLINE Floats load(const float* p) {
    return *reinterpret_cast<const FloatsAnywhere*>(p);
}
ZENR_INLINE Floats all(float x) {
    return Floats{} + x;
}

void scan(const float* lo, const float* hi, int n, AxisScan* result) {
    float first = FLT_MAX;
    float last = -FLT_MAX;
    int inPlane = 0;
    int i = 0;
    if (n >= kLanes) {
        Floats least = all(FLT_MAX);
        Floats greatest = all(-FLT_MAX);
        Ints planar = {};
        for (; i <= n - kLanes; i += kLanes) {
            const Floats l = load(lo + i);
            const Floats h = load(hi + i);
            least = l < least ? l : least;
            greatest = h > greatest ? h : greatest;
            planar -= l == h;
        }
        for (int k = 0; k < kLanes; ++k) {
            first = least[k] < first ? least[k] : first;
            last = greatest[k] > last ? greatest[k] : last;
            inPlane += planar[k];
        }
    }
    for (; i < n; ++i) {
        first = lo[i] < first ? lo[i] : first;
        last = hi[i] > last ? hi[i] : last;
        inPlane += lo[i] == hi[i];
    }
    *result = AxisScan{first, last, inPlane};
}

// The events between two coordinates. `left` triangles start, or lie in a plane, below them; `right` do neither end
// nor lie below. At a coordinate x the true counts are: on the lower side what starts below x or lies in a plane below
// it, on the upper side what ends above x or lies above it. A triangle that ends in the plane does not reach the upper
// side, one that starts there not the lower; what lies in the plane counts to the cheaper side, the upper one when both
// are equal, and the flag tells the distribution which.
struct Stretch {
    float* starts;
    int startCount;
    float* ends;
    int endCount;
    float* planar;
    int planarCount;
    int left;
    int right;
    int events() const { return startCount + endCount + planarCount; }
};

// Keeps the cheaper of two planes, and the lower one of two that cost the same.
ZENR_INLINE void offer(const Candidate& found, Candidate& best) {
    if (found.price < best.price || (found.price == best.price && found.position < best.position)) best = found;
}

constexpr int kFewEvents = 64;

// Each event is compared with all others: no order is needed, and no branch depends on the data.
void priceEach(const Stretch& s, const Pricing& pricing, Candidate& best) {
    constexpr int kStep = 2 * kLanes;
    constexpr int kRoom = kFewEvents + kStep;
    alignas(64) float x[kRoom];
    alignas(64) int32_t left[kRoom];
    alignas(64) int32_t right[kRoom];
    alignas(64) int32_t inPlane[kRoom];
    alignas(64) double price[kRoom];
    const int n = s.events();
    const int padded = (n + kStep - 1) & -kStep;
    int k = 0;
    for (int i = 0; i < s.startCount; ++i) x[k++] = s.starts[i];
    for (int i = 0; i < s.endCount; ++i) x[k++] = s.ends[i];
    for (int i = 0; i < s.planarCount; ++i) x[k++] = s.planar[i];
    for (; k < padded; ++k) x[k] = x[0];

    const int rightAfter = s.right - s.endCount - s.planarCount;
    for (k = 0; k < padded; k += kStep) {
        const Floats x0 = *reinterpret_cast<const Floats*>(x + k);
        const Floats x1 = *reinterpret_cast<const Floats*>(x + k + kLanes);
        Ints left0 = Ints{} + s.left;
        Ints left1 = left0;
        Ints right0 = Ints{} + rightAfter;
        Ints right1 = right0;
        for (int i = 0; i < s.startCount; ++i) {
            const Floats e = all(s.starts[i]);
            left0 -= e < x0;
            left1 -= e < x1;
        }
        for (int i = 0; i < s.endCount; ++i) {
            const Floats e = all(s.ends[i]);
            right0 -= e > x0;
            right1 -= e > x1;
        }
        if (s.planarCount > 0) {
            Ints plane0 = {};
            Ints plane1 = {};
            for (int i = 0; i < s.planarCount; ++i) {
                const Floats e = all(s.planar[i]);
                left0 -= e < x0;
                left1 -= e < x1;
                right0 -= e > x0;
                right1 -= e > x1;
                plane0 -= e == x0;
                plane1 -= e == x1;
            }
            *reinterpret_cast<Ints*>(inPlane + k) = plane0;
            *reinterpret_cast<Ints*>(inPlane + k + kLanes) = plane1;
        }
        *reinterpret_cast<Ints*>(left + k) = left0;
        *reinterpret_cast<Ints*>(left + k + kLanes) = left1;
        *reinterpret_cast<Ints*>(right + k) = right0;
        *reinterpret_cast<Ints*>(right + k + kLanes) = right1;
    }
    if (s.planarCount > 0) {
        for (k = 0; k < padded; ++k) {
            const double upper = pricing.price(left[k], right[k] + inPlane[k], x[k]);
            const double lower = pricing.price(left[k] + inPlane[k], right[k], x[k]);
            price[k] = lower < upper ? lower : upper;
        }
    } else {
        for (k = 0; k < padded; ++k) price[k] = pricing.price(left[k], right[k], x[k]);
    }
    Doubles least = Doubles{} + DBL_MAX;
    for (k = 0; k < padded; k += kLanes / 2) {
        const Doubles p = *reinterpret_cast<const Doubles*>(price + k);
        least = p < least ? p : least; // no NaN passes
    }
    double cheapest = least[0];
    for (k = 1; k < kLanes / 2; ++k) cheapest = least[k] < cheapest ? least[k] : cheapest;
    if (!(cheapest <= best.price) || cheapest == DBL_MAX) return;
    int at = -1;
    for (k = 0; k < n; ++k)
        if (price[k] == cheapest && (at < 0 || x[k] < x[at])) at = k;
    Candidate found{cheapest, x[at], left[at], right[at], 1};
    if (s.planarCount > 0) {
        const double upper = pricing.price(left[at], right[at] + inPlane[at], x[at]);
        if (cheapest < upper) {
            found.left += inPlane[at];
            found.flag = 0;
        } else {
            found.right += inPlane[at];
        }
    }
    offer(found, best);
}

// Number of sorted values below x, or up to x.
int countBelow(const float* sorted, int n, float x, bool orEqual) {
    int lo = 0;
    for (int hi = n; lo < hi;) {
        const int mid = lo + (hi - lo) / 2;
        if (sorted[mid] < x || (orEqual && sorted[mid] == x))
            lo = mid + 1;
        else
            hi = mid;
    }
    return lo;
}

// Sweep over sorted starts and ends. At a coordinate where triangles end and others start, the ends come first. Every
// event is priced as it comes; among events at one coordinate the last end has the true counts, and no other one is
// cheaper, so the counts are taken from the sorted lists once the position is known.
void localLeftRightSearch_NS(const Stretch& s, const Pricing& pricing, Candidate& best) {
    const float* start = s.starts;
    const float* const lastStart = start + s.startCount;
    const float* end = s.ends;
    const float* const lastEnd = end + s.endCount;
    double below = s.left;
    double above = s.right;
    double cheapest = DBL_MAX;
    float position = 0;
    while (start < lastStart && end < lastEnd) {
        const bool isEnd = *end <= *start;
        const float x = isEnd ? *end : *start;
        above -= isEnd ? 1.0 : 0.0;
        const double price = pricing.price(below, above, x);
        if (price < cheapest) {
            cheapest = price;
            position = x;
        }
        below += isEnd ? 0.0 : 1.0;
        end += isEnd;
        start += !isEnd;
    }
    for (; end < lastEnd; ++end) {
        above -= 1.0;
        const double price = pricing.price(below, above, *end);
        if (price < cheapest) {
            cheapest = price;
            position = *end;
        }
    }
    for (; start < lastStart; ++start) {
        const double price = pricing.price(below, above, *start);
        if (price < cheapest) {
            cheapest = price;
            position = *start;
        }
        below += 1.0;
    }
    if (cheapest == DBL_MAX) return;
    const int left = s.left + countBelow(s.starts, s.startCount, position, false);
    const int right = s.right - countBelow(s.ends, s.endCount, position, true);
    offer(Candidate{pricing.price(left, right, position), position, left, right, 1}, best);
}

// The same with planar events among them, coordinate by coordinate.
void localLeftRightSearch(const Stretch& s, const Pricing& pricing, Candidate& best) {
    Candidate found{DBL_MAX, 0, 0, 0, 1};
    int i = 0; // starts below x
    int j = 0; // ends up to x
    int k = 0; // planar events below x
    while (i < s.startCount || j < s.endCount || k < s.planarCount) {
        float x = FLT_MAX;
        if (j < s.endCount) x = s.ends[j];
        if (i < s.startCount && s.starts[i] < x) x = s.starts[i];
        if (k < s.planarCount && s.planar[k] < x) x = s.planar[k];
        while (j < s.endCount && s.ends[j] == x) ++j;
        const int below = k;
        while (k < s.planarCount && s.planar[k] == x) ++k;
        const int inPlane = k - below;
        const int left = s.left + i + below;
        const int right = s.right - j - k;
        const double upper = pricing.price(left, right + inPlane, x);
        if (upper < found.price) found = Candidate{upper, x, left, right + inPlane, 1};
        if (inPlane > 0) {
            const double lower = pricing.price(left + inPlane, right, x);
            if (lower < found.price) found = Candidate{lower, x, left + inPlane, right, 0};
        }
        while (i < s.startCount && s.starts[i] == x) ++i;
    }
    if (found.price < DBL_MAX) offer(found, best);
}

// The radix sort needs room beside the events; where there is none, the other sort does.
void sortEvents(float* events, int count, float* room, int roomCount) {
    if (count < 2) return;
    if (uint32_t(count) > kRadixCount && count <= roomCount)
        ownRadixSortAccend_32f_px(events, reinterpret_cast<uint32_t*>(room), uint32_t(count));
    else
        zensSortAscend_32f_I(events, count);
}

// Room beside the events of a sweep: the tail of a scratch array.
struct Room {
    float* words;
    int count;
};

void searchStretch(const Stretch& s, const Pricing& pricing, const Room& room, Candidate& best) {
    if (s.events() <= kFewEvents) {
        if (s.events() > 0) priceEach(s, pricing, best);
        return;
    }
    sortEvents(s.starts, s.startCount, room.words, room.count);
    sortEvents(s.ends, s.endCount, room.words, room.count);
    if (s.planarCount == 0) {
        localLeftRightSearch_NS(s, pricing, best);
        return;
    }
    sortEvents(s.planar, s.planarCount, room.words, room.count);
    localLeftRightSearch(s, pricing, best);
}

// The larger tail that a scratch array has left.
Room roomBeside(const AxisEvents& events, int used0, int used1) {
    const int free0 = events.capacity - used0;
    const int free1 = events.capacity - used1;
    return free0 >= free1 ? Room{events.scratch[0] + used0, free0} : Room{events.scratch[1] + used1, free1};
}

// All events as one stretch. Starts and planar events share an array, as there are `count` of both together.
void sweepWhole(const AxisEvents& events, const Pricing& pricing, Candidate& best) {
    const int n = events.count;
    const int cut = n - events.inPlane;
    float* const starts = events.scratch[0];
    float* const planar = starts + cut;
    float* const ends = events.scratch[1];
    int c = 0;
    int p = 0;
    for (int i = 0; i < n; ++i) {
        const float lo = events.lo[i];
        const float hi = events.hi[i];
        if (lo == hi) {
            planar[p++] = lo;
        } else {
            starts[c] = lo;
            ends[c++] = hi;
        }
    }
    searchStretch(Stretch{starts, cut, ends, cut, planar, p, 0, n}, pricing, roomBeside(events, n, cut), best);
}

constexpr int kMaxBins = 1024;
constexpr int binsFor(int n) {
    return n < 100 ? 16 : n < 400 ? 32 : n < 2000 ? 64 : n < 16000 ? 256 : kMaxBins;
}

// What lies in the bins: how many events of each kind; then, for those that are looked at, where the next one goes.
struct Bins {
    int starts[kMaxBins];
    int ends[kMaxBins];
    int planar[kMaxBins];
    int left[kMaxBins];  // start, or lie in a plane, in lower bins
    int right[kMaxBins]; // do neither end nor lie in a lower bin
    double lowest[kMaxBins];
};

// Counting in bins of equal width. Within a bin, and along its edges, the counts of both sides are bounded, and with
// fixed counts the price is linear; so the least and the greatest value at the two edges bound the prices between them.
// A price at an edge itself is one that the next event on one of its sides does not exceed, because up to there the
// counts do not grow.
template <bool Planar>
void sweepBins(const AxisEvents& events, const Pricing& pricing, double limit, Candidate& best) {
    const int n = events.count;
    const int count = binsFor(n);
    const float base = float(pricing.min);
    const float scale = float(count / (pricing.max - pricing.min));
    const auto binOf = [=](float x) { // never falls as x grows
        const int bin = int((x - base) * scale);
        return bin < count ? bin : count - 1;
    };
    Bins bins;
    for (int b = 0; b < count; ++b) bins.starts[b] = bins.ends[b] = bins.planar[b] = 0;
    for (int i = 0; i < n; ++i) {
        const float lo = events.lo[i];
        const float hi = events.hi[i];
        if (Planar && lo == hi) {
            ++bins.planar[binOf(lo)];
        } else {
            ++bins.starts[binOf(lo)];
            ++bins.ends[binOf(hi)];
        }
    }
    // Rounding shifts an event across a bin's edge by a few float roundings at most, and a price by a few double ones.
    constexpr double shift = 1e-6;
    constexpr double slack = 1e-12;
    const double whole = pricing.max - pricing.min;
    const double width = 1.0 / scale;
    const double fuzz = shift * whole;
    double ceiling = limit * (1 + slack);
    int left = 0;
    int right = n;
    for (int b = 0; b < count; ++b) {
        const double lo = b * width;
        const double hi = b == count - 1 ? whole : (b + 1) * width;
        // The edge between this bin and the one below.
        const double atEdge =
            (left * (lo + fuzz + pricing.rest) + right * (whole - lo + fuzz + pricing.rest)) * (1 + slack);
        ceiling = atEdge < ceiling ? atEdge : ceiling;
        bins.left[b] = left;
        bins.right[b] = right;
        const int rightAfter = right - bins.ends[b] - bins.planar[b];
        const double atLo = left * (lo + pricing.rest) + rightAfter * (whole - lo + pricing.rest);
        const double atHi = left * (hi + pricing.rest) + rightAfter * (whole - hi + pricing.rest);
        bins.lowest[b] = (atLo < atHi ? atLo : atHi) * (1 - slack) - (left + rightAfter) * fuzz;
        left += bins.starts[b] + bins.planar[b];
        right = rightAfter;
    }
    // The events of the bins that remain, grouped by bin.
    int starts = 0;
    int ends = 0;
    int planar = 0;
    int kept = 0;
    int keptBin[kMaxBins];
    int startAt[kMaxBins];
    int endAt[kMaxBins];
    int planarAt[kMaxBins];
    for (int b = 0; b < count; ++b) {
        const bool keep = bins.lowest[b] <= ceiling && bins.starts[b] + bins.ends[b] + bins.planar[b] > 0;
        startAt[b] = keep ? starts : -1;
        endAt[b] = ends;
        planarAt[b] = planar;
        keptBin[kept] = b;
        kept += keep;
        starts += keep ? bins.starts[b] : 0;
        ends += keep ? bins.ends[b] : 0;
        planar += keep ? bins.planar[b] : 0;
    }
    if (kept == 0) return;
    float* const startList = events.scratch[0];
    float* const planarList = startList + starts;
    float* const endList = events.scratch[1];
    for (int i = 0; i < n; ++i) {
        const float lo = events.lo[i];
        const float hi = events.hi[i];
        const int lower = binOf(lo);
        if (Planar && lo == hi) {
            if (startAt[lower] >= 0) planarList[planarAt[lower]++] = lo;
            continue;
        }
        if (startAt[lower] >= 0) startList[startAt[lower]++] = lo;
        const int upper = binOf(hi);
        if (startAt[upper] >= 0) endList[endAt[upper]++] = hi;
    }
    const Room room = roomBeside(events, starts + planar, ends);
    for (int k = 0; k < kept; ++k) {
        const int b = keptBin[k];
        if (bins.lowest[b] > best.price) continue;
        searchStretch(Stretch{startList + startAt[b] - bins.starts[b], bins.starts[b],
                              endList + endAt[b] - bins.ends[b], bins.ends[b],
                              planarList + planarAt[b] - bins.planar[b], bins.planar[b], bins.left[b], bins.right[b]},
                      pricing, room, best);
    }
}

constexpr int kFewReferences = 32;
constexpr double kGreatestBinned = 1e30; // wider boxes leave the range of float in the arithmetic of bins

void sweep(const AxisEvents* events, const Pricing* pricing, double limit, Candidate* best) {
    *best = Candidate{DBL_MAX, 0, 0, 0, 1};
    const int n = events->count;
    if (n <= kFewReferences && events->inPlane == 0) {
        // Read, never written: so few are not sorted.
        priceEach(Stretch{const_cast<float*>(events->lo), n, const_cast<float*>(events->hi), n, nullptr, 0, 0, n},
                  *pricing, *best);
    } else if (n <= kFewReferences || !(pricing->max - pricing->min < kGreatestBinned)) {
        sweepWhole(*events, *pricing, *best);
    } else if (events->inPlane > 0) {
        sweepBins<true>(*events, *pricing, limit, *best);
    } else {
        sweepBins<false>(*events, *pricing, limit, *best);
    }
}

} // namespace

extern const SahKernels kSah = {scan, sweep};

} // namespace ZENR_LEVEL
} // namespace zenr
