// The sweep of one axis, compiled once per level with the search. An axis asks for the cheapest plane among the events of its
// references; hardly any of them need sorting for that. Few events are priced each against all others; many are
// counted in bins, whose counts bound the prices in them, and only bins that can hold the cheapest plane are looked at.
#pragma once
#include <float.h>

#include "frame/prprim.h"
#include "frame/simd.h"
#include "kdtree/pr_avlopsahphase.h"
#include "kdtree/pr_avlopsahsrch.h"
#include "kdtree/pr_avlorsort.h"

namespace zenr {
namespace ZENR_LEVEL {
namespace {

constexpr uint32_t kRadixCount = 320; // up to so many events the comparison sort is quicker
// Most nodes are small, so that wider registers would be filled with padding.
constexpr int kVectorBytes = kSimdBytes < 32 ? kSimdBytes : 32;
constexpr int kLanes = kVectorBytes / 4;
template <int Lanes> struct Vector {
    typedef float Floats __attribute__((vector_size(4 * Lanes), may_alias));
    typedef float FloatsAnywhere __attribute__((vector_size(4 * Lanes), may_alias, aligned(4)));
    typedef int32_t Ints __attribute__((vector_size(4 * Lanes), may_alias));
};
typedef Vector<kLanes>::Floats Floats;
typedef Vector<kLanes>::Ints Ints;
typedef double Doubles __attribute__((vector_size(kVectorBytes), may_alias));

ZENR_INLINE Floats load(const float* p) {
    return *reinterpret_cast<const Vector<kLanes>::FloatsAnywhere*>(p);
}
ZENR_INLINE Floats all(float x) {
    return Floats{} + x;
}

// At least kLanes references: the last vector overlaps the one before it, which changes no least or greatest value.
void scanVectors(const float* lo, const float* hi, int n, AxisScan& scan) {
    Floats first = load(lo);
    Floats last = load(hi);
    Floats firstEnd = last;
    Floats lastStart = first;
    Ints planar = first == last;
    for (int i = kLanes; i < n; i += kLanes) {
        const int at = i <= n - kLanes ? i : n - kLanes;
        const Floats l = load(lo + at);
        const Floats h = load(hi + at);
        first = l < first ? l : first;
        lastStart = l > lastStart ? l : lastStart;
        last = h > last ? h : last;
        firstEnd = h < firstEnd ? h : firstEnd;
        planar |= l == h;
    }
    for (int half = kLanes / 2; half > 0; half /= 2) {
        Ints from = {};
        for (int k = 0; k < kLanes; ++k) from[k] = k ^ half;
        Floats other = __builtin_shuffle(first, from);
        first = other < first ? other : first;
        other = __builtin_shuffle(lastStart, from);
        lastStart = other > lastStart ? other : lastStart;
        other = __builtin_shuffle(last, from);
        last = other > last ? other : last;
        other = __builtin_shuffle(firstEnd, from);
        firstEnd = other < firstEnd ? other : firstEnd;
        planar |= __builtin_shuffle(planar, from);
    }
    scan = AxisScan{first[0], last[0], lastStart[0], firstEnd[0], planar[0]};
}

ZENR_INLINE void scanAxis(const float* lo, const float* hi, int n, AxisScan& scan) {
    if (n >= kLanes) {
        scanVectors(lo, hi, n, scan);
    } else {
        scan = AxisScan{lo[0], hi[0], lo[0], hi[0], lo[0] == hi[0]};
        for (int i = 1; i < n; ++i) {
            scan.first = lo[i] < scan.first ? lo[i] : scan.first;
            scan.last = hi[i] > scan.last ? hi[i] : scan.last;
            scan.lastStart = lo[i] > scan.lastStart ? lo[i] : scan.lastStart;
            scan.firstEnd = hi[i] < scan.firstEnd ? hi[i] : scan.firstEnd;
            scan.inPlane |= lo[i] == hi[i];
        }
    }
    if (scan.inPlane) {
        scan.inPlane = 0;
        for (int i = 0; i < n; ++i) scan.inPlane += lo[i] == hi[i];
    }
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

// What each event would cost as a plane.
struct Priced {
    static constexpr int kRoom = kFewEvents + 2 * kLanes;
    alignas(64) float x[kRoom];
    alignas(64) int32_t left[kRoom];
    alignas(64) int32_t right[kRoom];
    alignas(64) int32_t inPlane[kRoom];
    alignas(64) double price[kRoom];
};

// Counts and prices of `Blocks` vectors of events from k on.
template <int Blocks, bool Planar>
ZENR_INLINE void priceBlocks(const Stretch& s, const Pricing& pricing, int k, Priced& priced) {
    Floats x[Blocks];
    Ints left[Blocks];
    Ints right[Blocks];
    Ints inPlane[Blocks];
    for (int b = 0; b < Blocks; ++b) {
        x[b] = *reinterpret_cast<const Floats*>(priced.x + k + b * kLanes);
        left[b] = Ints{} + s.left;
        right[b] = Ints{} + (s.right - s.endCount - s.planarCount);
        inPlane[b] = Ints{};
    }
    for (int i = 0; i < s.startCount; ++i) {
        const Floats e = all(s.starts[i]);
        for (int b = 0; b < Blocks; ++b) left[b] -= e < x[b];
    }
    for (int i = 0; i < s.endCount; ++i) {
        const Floats e = all(s.ends[i]);
        for (int b = 0; b < Blocks; ++b) right[b] -= e > x[b];
    }
    if (Planar) {
        for (int i = 0; i < s.planarCount; ++i) {
            const Floats e = all(s.planar[i]);
            for (int b = 0; b < Blocks; ++b) {
                left[b] -= e < x[b];
                right[b] -= e > x[b];
                inPlane[b] -= e == x[b];
            }
        }
    }
    for (int b = 0; b < Blocks; ++b) {
        *reinterpret_cast<Ints*>(priced.left + k + b * kLanes) = left[b];
        *reinterpret_cast<Ints*>(priced.right + k + b * kLanes) = right[b];
        if (Planar) *reinterpret_cast<Ints*>(priced.inPlane + k + b * kLanes) = inPlane[b];
    }
    for (int j = k; j < k + Blocks * kLanes; ++j) {
        if (Planar) {
            const double upper = pricing.price(priced.left[j], priced.right[j] + priced.inPlane[j], priced.x[j]);
            const double lower = pricing.price(priced.left[j] + priced.inPlane[j], priced.right[j], priced.x[j]);
            priced.price[j] = lower < upper ? lower : upper;
        } else {
            priced.price[j] = pricing.price(priced.left[j], priced.right[j], priced.x[j]);
        }
    }
}

// Each event is compared with all others: no order is needed, and no branch depends on the data.
// Prices above `limit` are of no interest.
template <bool Planar> void priceEach(const Stretch& s, const Pricing& pricing, double limit, Candidate& best) {
    Priced priced;
    const int n = s.events();
    int k = 0;
    for (int i = 0; i < s.startCount; ++i) priced.x[k++] = s.starts[i];
    for (int i = 0; i < s.endCount; ++i) priced.x[k++] = s.ends[i];
    if (Planar)
        for (int i = 0; i < s.planarCount; ++i) priced.x[k++] = s.planar[i];
    const int padded = (n + kLanes - 1) & -kLanes;
    for (; k < padded; ++k) priced.x[k] = priced.x[0];
    for (k = 0; k < padded - kLanes; k += 2 * kLanes) priceBlocks<2, Planar>(s, pricing, k, priced);
    if (k < padded) priceBlocks<1, Planar>(s, pricing, k, priced);

    Doubles least = Doubles{} + DBL_MAX;
    for (k = 0; k < padded; k += kLanes / 2) {
        const Doubles p = *reinterpret_cast<const Doubles*>(priced.price + k);
        least = p < least ? p : least; // no NaN passes
    }
    double cheapest = least[0];
    for (k = 1; k < kLanes / 2; ++k) cheapest = least[k] < cheapest ? least[k] : cheapest;
    if (!(cheapest <= limit) || !(cheapest <= best.price) || cheapest == DBL_MAX) return;
    int at = -1;
    for (k = 0; k < n; ++k)
        if (priced.price[k] == cheapest && (at < 0 || priced.x[k] < priced.x[at])) at = k;
    const float position = priced.x[at];
    if (cheapest == best.price && !(position < best.position)) return;
    best = Candidate{cheapest, position, priced.left[at], priced.right[at], 1};
    if (Planar) {
        const double upper = pricing.price(priced.left[at], priced.right[at] + priced.inPlane[at], position);
        if (cheapest < upper) {
            best.left += priced.inPlane[at];
            best.flag = 0;
        } else {
            best.right += priced.inPlane[at];
        }
    }
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
    const InPhase phase(Phase::sort);
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
    const InPhase phase(Phase::sweep);
    if (s.events() <= kFewEvents) {
        if (s.planarCount > 0)
            priceEach<true>(s, pricing, DBL_MAX, best);
        else
            priceEach<false>(s, pricing, DBL_MAX, best);
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

constexpr double kSlack = 1e-12; // a bound may be off by a few roundings

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
template <bool Planar> void sweepBins(const AxisEvents& events, const Pricing& pricing, double limit, Candidate& best) {
    const InPhase phase(Phase::bins);
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
    int i = 0;
    if (!Planar) {
        // Neighbours in a mesh are neighbours in its lists: with a second set of counters every other reference does
        // not have to wait for the one before.
        int starts2[kMaxBins];
        int ends2[kMaxBins];
        for (int b = 0; b < count; ++b) starts2[b] = ends2[b] = 0;
        for (; i < n - 1; i += 2) {
            ++bins.starts[binOf(events.lo[i])];
            ++bins.ends[binOf(events.hi[i])];
            ++starts2[binOf(events.lo[i + 1])];
            ++ends2[binOf(events.hi[i + 1])];
        }
        for (int b = 0; b < count; ++b) {
            bins.starts[b] += starts2[b];
            bins.ends[b] += ends2[b];
        }
    }
    for (; i < n; ++i) {
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
    const double whole = pricing.max - pricing.min;
    const double width = 1.0 / scale;
    const double fuzz = shift * whole;
    double ceiling = limit * (1 + kSlack);
    int left = 0;
    int right = n;
    for (int b = 0; b < count; ++b) {
        const double lo = b * width;
        const double hi = b == count - 1 ? whole : (b + 1) * width;
        // The edge between this bin and the one below.
        const double atEdge =
            (left * (lo + fuzz + pricing.rest) + right * (whole - lo + fuzz + pricing.rest)) * (1 + kSlack);
        ceiling = atEdge < ceiling ? atEdge : ceiling;
        bins.left[b] = left;
        bins.right[b] = right;
        const int rightAfter = right - bins.ends[b] - bins.planar[b];
        const double atLo = left * (lo + pricing.rest) + rightAfter * (whole - lo + pricing.rest);
        const double atHi = left * (hi + pricing.rest) + rightAfter * (whole - hi + pricing.rest);
        bins.lowest[b] = (atLo < atHi ? atLo : atHi) * (1 - kSlack) - (left + rightAfter) * fuzz;
        left += bins.starts[b] + bins.planar[b];
        right = rightAfter;
    }
    // The events of the bins that remain, grouped by bin. The others go to one place behind them, each over the one
    // before: which they are is hard to foretell. If none is to go there, there may be no such place.
    int starts = 0;
    int ends = 0;
    int planar = 0;
    int kept = 0;
    int keptBin[kMaxBins];
    int step[kMaxBins];
    for (int b = 0; b < count; ++b) {
        const bool keep = bins.lowest[b] <= ceiling && bins.starts[b] + bins.ends[b] + bins.planar[b] > 0;
        step[b] = keep;
        keptBin[kept] = b;
        kept += keep;
        starts += keep ? bins.starts[b] : 0;
        ends += keep ? bins.ends[b] : 0;
        planar += keep ? bins.planar[b] : 0;
    }
    if (kept == 0) return;
    int startAt[kMaxBins];
    int endAt[kMaxBins];
    int planarAt[kMaxBins];
    for (int b = 0, s = 0, e = 0, p = starts; b < count; ++b) {
        startAt[b] = step[b] ? s : starts + planar;
        endAt[b] = step[b] ? e : ends;
        planarAt[b] = step[b] ? p : starts + planar;
        s += step[b] ? bins.starts[b] : 0;
        e += step[b] ? bins.ends[b] : 0;
        p += step[b] ? bins.planar[b] : 0;
    }
    float* const startList = events.scratch[0]; // planar events follow the starts
    float* const endList = events.scratch[1];
    for (i = 0; i < n; ++i) {
        const float lo = events.lo[i];
        const float hi = events.hi[i];
        const int lower = binOf(lo);
        if (Planar && lo == hi) {
            startList[planarAt[lower]] = lo;
            planarAt[lower] += step[lower];
            continue;
        }
        const int upper = binOf(hi);
        startList[startAt[lower]] = lo;
        startAt[lower] += step[lower];
        endList[endAt[upper]] = hi;
        endAt[upper] += step[upper];
    }
    const Room room = roomBeside(events, starts + planar, ends);
    for (int k = 0; k < kept; ++k) {
        const int b = keptBin[k];
        if (bins.lowest[b] > best.price) continue;
        searchStretch(Stretch{startList + startAt[b] - bins.starts[b], bins.starts[b],
                              endList + endAt[b] - bins.ends[b], bins.ends[b], startList + planarAt[b] - bins.planar[b],
                              bins.planar[b], bins.left[b], bins.right[b]},
                      pricing, room, best);
    }
}

constexpr int kFewReferences = 32;
constexpr double kGreatestBinned = 1e30; // wider boxes leave the range of float in the arithmetic of bins

void sweepAxis(const AxisEvents& events, const Pricing& pricing, double limit, Candidate& best) {
    const InPhase phase(Phase::sweep);
    best = Candidate{DBL_MAX, 0, 0, 0, 1};
    const int n = events.count;
    if (n <= kFewReferences && events.inPlane == 0) {
        // Read, never written: so few are not sorted.
        priceEach<false>(Stretch{const_cast<float*>(events.lo), n, const_cast<float*>(events.hi), n, nullptr, 0, 0, n},
                         pricing, limit * (1 + kSlack), best);
    } else if (n <= kFewReferences || !(pricing.max - pricing.min < kGreatestBinned)) {
        sweepWhole(events, pricing, best);
    } else if (events.inPlane > 0) {
        sweepBins<true>(events, pricing, limit, best);
    } else {
        sweepBins<false>(events, pricing, limit, best);
    }
}

} // namespace
} // namespace ZENR_LEVEL
} // namespace zenr
