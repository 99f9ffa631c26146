// Plain definitions around surface-area-heuristic trees: a reader of packed trees that checks the format as it goes,
// the expected cost of a tree, exact clipping of a triangle to a cell, a ray walk, and a straightforward builder that
// sweeps over all candidate planes of all axes.
#pragma once
#include <math.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <functional>
#include <string>
#include <vector>

namespace reference {

using Box = std::array<float, 6>;

struct Leaf {
    Box cell;
    int depth;
    bool inlined;
    std::vector<int> list;
};

inline double area(const Box& b) {
    const double x = double(b[3]) - b[0], y = double(b[4]) - b[1], z = double(b[5]) - b[2];
    return x * (y + z) + y * z;
}

// Reads a packed tree of `size` bytes. Everything the format says is checked: order of pairs and lists, alignment,
// inline leaves wherever possible, no byte unreached.
class TreeReader {
public:
    TreeReader(const void* tree, int size, const Box& box) : bytes_(static_cast<const char*>(tree)), size_(size) {
        fail(size < 16, "size");
        fail(word(8) != 0 || word(12) != 0, "zero words");
        measure(0);
        list_ = nextPair_;
        const uint32_t nodesEnd = nextPair_;
        nextPair_ = 16;
        if (error.empty()) visit(0, box, 0);
        fail(nextPair_ != nodesEnd, "pairs");
        fail(list_ != uint32_t(size), "size exact");
        rootArea_ = area(box);
    }

    std::string error; // empty when all is well
    std::vector<Leaf> leaves;
    int interior = 0, inlineLeaves = 0, emptyLeaves = 0, deepest = 0;
    size_t references = 0;
    // Expected cost of a ray that hits the box: 1 for a step through an interior node, 1 for a triangle's test.
    double cost() const { return rootArea_ > 0 ? sum_ / rootArea_ : 0; }

private:
    uint32_t word(uint32_t at) {
        uint32_t w = 0;
        if (at + 4 <= uint32_t(size_))
            memcpy(&w, bytes_ + at, 4);
        else
            error = "beyond the end";
        return w;
    }
    void fail(bool bad, const char* what) {
        if (bad && error.empty()) error = what;
    }
    // Finds where the pairs end.
    void measure(uint32_t at) {
        for (;;) {
            const uint32_t w0 = word(at);
            if (!error.empty() || w0 >> 31) return;
            const uint32_t pair = at + (w0 & 0xFFFFFFF8u);
            fail(pair != nextPair_, "order of pairs");
            nextPair_ += 16;
            measure(pair);
            at = pair + 8;
        }
    }
    void visit(uint32_t at, const Box& cell, int depth) {
        const uint32_t w0 = word(at), w1 = word(at + 4);
        if (!error.empty()) return;
        deepest = std::max(deepest, depth);
        if (!(w0 >> 31)) {
            fail((w0 & 4) || (w0 & 3) == 3, "axis");
            const int axis = int(w0 & 3);
            float split;
            memcpy(&split, &w1, 4);
            fail(!(split >= cell[axis] && split <= cell[axis + 3]), "plane outside of its cell");
            const uint32_t pair = at + (w0 & 0xFFFFFFF8u);
            fail(pair != nextPair_, "order of pairs");
            nextPair_ += 16;
            ++interior;
            sum_ += area(cell);
            Box part = cell;
            part[axis + 3] = split;
            visit(pair, part, depth + 1);
            part = cell;
            part[axis] = split;
            visit(pair + 8, part, depth + 1);
            return;
        }
        Leaf leaf{cell, depth, bool(w1 >> 31), {}};
        if (leaf.inlined) {
            const int b = int(w1 >> 2 & 0x1FFFFFFF), t = int(w0 & 0x7FFFFFFF);
            if ((w1 & 3) == 1) leaf.list = {t};
            if ((w1 & 3) == 2) leaf.list = {b, t};
            if ((w1 & 3) == 3) leaf.list = {b - (t >> 16), b, b + (t & 0xFFFF)};
            ++inlineLeaves;
        } else {
            fail(at - w0 != list_, "order of lists");
            for (uint32_t i = 0; i < w1 && error.empty(); ++i, list_ += 4) leaf.list.push_back(int(word(list_)));
            fail(w1 == 1 || w1 == 2, "a leaf that should be inline");
            if (w1 == 3) {
                std::vector<int> sorted = leaf.list;
                std::sort(sorted.begin(), sorted.end());
                fail(sorted[1] - sorted[0] <= 0x7FFF && sorted[2] - sorted[1] <= 0xFFFF,
                     "a leaf that should be inline");
            }
            if (w1 == 0) ++emptyLeaves;
        }
        sum_ += area(cell) * double(leaf.list.size());
        references += leaf.list.size();
        leaves.push_back(std::move(leaf));
    }

    const char* bytes_;
    int size_;
    uint32_t nextPair_ = 16, list_ = 0;
    double sum_ = 0, rootArea_ = 0;
};

using Polygon = std::vector<std::array<long double, 3>>;

inline Polygon clipSide(const Polygon& polygon, int axis, long double plane, bool keepBelow) {
    Polygon kept;
    for (size_t i = 0; i < polygon.size(); ++i) {
        const auto& p = polygon[i];
        const auto& q = polygon[(i + 1) % polygon.size()];
        const long double dp = keepBelow ? plane - p[axis] : p[axis] - plane;
        const long double dq = keepBelow ? plane - q[axis] : q[axis] - plane;
        if (dp >= 0) kept.push_back(p);
        if ((dp > 0 && dq < 0) || (dp < 0 && dq > 0)) {
            const long double t = dp / (dp - dq);
            std::array<long double, 3> c;
            for (int k = 0; k < 3; ++k) c[k] = p[k] + t * (q[k] - p[k]);
            c[axis] = plane;
            kept.push_back(c);
        }
    }
    return kept;
}

// Whether a triangle reaches into the cell shrunk by `tolerance` on every side.
inline bool reachesInto(const float* const corner[3], const Box& cell, long double tolerance) {
    Polygon polygon;
    for (int v = 0; v < 3; ++v) polygon.push_back({corner[v][0], corner[v][1], corner[v][2]});
    for (int axis = 0; axis < 3; ++axis) {
        polygon = clipSide(polygon, axis, cell[axis] + tolerance, false);
        polygon = clipSide(polygon, axis, cell[axis + 3] - tolerance, true);
        if (cell[axis] + tolerance > cell[axis + 3] - tolerance) return false;
    }
    return !polygon.empty();
}

// Distance at which a ray meets a triangle, or infinity.
inline double meet(const double o[3], const double d[3], const float* a, const float* b, const float* c) {
    double e1[3], e2[3], s[3];
    for (int k = 0; k < 3; ++k) {
        e1[k] = double(b[k]) - a[k];
        e2[k] = double(c[k]) - a[k];
        s[k] = o[k] - a[k];
    }
    const double p[3] = {d[1] * e2[2] - d[2] * e2[1], d[2] * e2[0] - d[0] * e2[2], d[0] * e2[1] - d[1] * e2[0]};
    const double det = e1[0] * p[0] + e1[1] * p[1] + e1[2] * p[2];
    const double u = (s[0] * p[0] + s[1] * p[1] + s[2] * p[2]) / det;
    const double q[3] = {s[1] * e1[2] - s[2] * e1[1], s[2] * e1[0] - s[0] * e1[2], s[0] * e1[1] - s[1] * e1[0]};
    const double v = (d[0] * q[0] + d[1] * q[1] + d[2] * q[2]) / det;
    const double t = (e2[0] * q[0] + e2[1] * q[1] + e2[2] * q[2]) / det;
    return det != 0 && u >= 0 && v >= 0 && u + v <= 1 && t >= 0 ? t : INFINITY;
}

// Nearest hit by a plain walk of a packed tree: both children whenever the ray's stretch touches both.
class RayWalk {
public:
    RayWalk(const void* tree, const Box& box, const float* vertices, const int* triangles)
        : bytes_(static_cast<const char*>(tree)), box_(box), vertices_(vertices), triangles_(triangles) {}
    double nearest(const double o[3], const double d[3]) {
        double tmin = 0, tmax = INFINITY;
        for (int a = 0; a < 3; ++a) {
            double t0 = (box_[a] - 1e-6 - o[a]) / d[a], t1 = (box_[a + 3] + 1e-6 - o[a]) / d[a];
            if (t0 > t1) std::swap(t0, t1);
            tmin = std::max(tmin, t0);
            tmax = std::min(tmax, t1);
        }
        best_ = INFINITY;
        if (tmin <= tmax) walk(0, o, d, tmin, tmax);
        return best_;
    }

private:
    void test(int t, const double o[3], const double d[3]) {
        const int* v = triangles_ + 4 * size_t(t);
        best_ = std::min(best_, meet(o, d, vertices_ + 3 * size_t(v[0]), vertices_ + 3 * size_t(v[1]),
                                     vertices_ + 3 * size_t(v[2])));
    }
    void walk(uint32_t at, const double o[3], const double d[3], double tmin, double tmax) {
        uint32_t w[2];
        memcpy(w, bytes_ + at, 8);
        if (!(w[0] >> 31)) {
            const int axis = int(w[0] & 3);
            float split;
            memcpy(&split, &w[1], 4);
            const uint32_t pair = at + (w[0] & ~7u);
            const double t = (split - o[axis]) / d[axis];
            const uint32_t near = pair + (d[axis] < 0 ? 8 : 0), far = pair + (d[axis] < 0 ? 0 : 8);
            const double slack = 1e-9;
            if (t >= tmin - slack) walk(near, o, d, tmin, std::min(tmax, t));
            if (t <= tmax + slack) walk(far, o, d, std::max(tmin, t), tmax);
            return;
        }
        if (w[1] >> 31) {
            const int b = int(w[1] >> 2 & 0x1FFFFFFF), t = int(w[0] & 0x7FFFFFFF);
            const int n = int(w[1] & 3);
            if (n == 1) test(t, o, d);
            if (n == 2) test(b, o, d), test(t, o, d);
            if (n == 3) test(b - (t >> 16), o, d), test(b, o, d), test(b + (t & 0xFFFF), o, d);
            return;
        }
        const char* list = bytes_ + (at - w[0]);
        for (uint32_t i = 0; i < w[1]; ++i) {
            int t;
            memcpy(&t, list + 4 * size_t(i), 4);
            test(t, o, d);
        }
    }
    const char* bytes_;
    Box box_;
    const float* vertices_;
    const int* triangles_;
    double best_ = INFINITY;
};

// The cheapest plane at a bound of some interval, straight from its definition: at a coordinate x, what starts below x
// or lies in a plane below it counts to the lower side, what ends above x or lies above it to the upper side, and what
// lies in the plane to the side where that is cheaper, the upper one when both are equal. Of equal prices the lowest x.
struct CheapestPlane {
    double price = 1.7976931348623157e308;
    float x = 0;
    int left = 0, right = 0;
    unsigned flag = 1;
    CheapestPlane(const std::vector<float>& lo, const std::vector<float>& hi, double min, double max, double rest) {
        std::vector<float> places = lo;
        places.insert(places.end(), hi.begin(), hi.end());
        std::sort(places.begin(), places.end());
        places.erase(std::unique(places.begin(), places.end()), places.end());
        for (float at : places) {
            int below = 0, above = 0, within = 0;
            for (size_t i = 0; i < lo.size(); ++i) {
                if (lo[i] == at && hi[i] == at)
                    ++within;
                else {
                    below += lo[i] < at;
                    above += hi[i] > at;
                }
            }
            offer(at, below, above + within, 1, min, max, rest);
            if (within > 0) offer(at, below + within, above, 0, min, max, rest);
        }
    }

private:
    void offer(float at, int below, int above, unsigned side, double min, double max, double rest) {
        const double p = below * (at - min + rest) + above * (max - at + rest);
        if (p < price) {
            price = p;
            x = at;
            left = below;
            right = above;
            flag = side;
        }
    }
};

// Expected cost of the tree that a straightforward builder makes: every node sorts the exact bounds of the clipped
// triangles on every axis, prices every plane and takes the cheapest; it stops when that is no gain at `step` for an
// interior node and 1 for a triangle. The cost returned counts 1 for an interior node.
class SweepBuilder {
public:
    SweepBuilder(const float* vertices, const int* triangles, int count, double step, int maxDepth)
        : step_(step), maxDepth_(maxDepth) {
        std::vector<Part> parts;
        for (int t = 0; t < count; ++t) {
            Part part;
            for (int v = 0; v < 3; ++v) {
                const float* p = vertices + 3 * size_t(triangles[4 * size_t(t) + v]);
                part.push_back({p[0], p[1], p[2]});
            }
            parts.push_back(part);
        }
        std::array<double, 6> box;
        for (int a = 0; a < 3; ++a) box[a] = INFINITY, box[a + 3] = -INFINITY;
        for (const Part& part : parts)
            for (const auto& p : part)
                for (int a = 0; a < 3; ++a) {
                    box[a] = std::min(box[a], p[a]);
                    box[a + 3] = std::max(box[a + 3], p[a]);
                }
        const double whole = half(box);
        build(parts, box, 0);
        cost = sum_ / whole;
    }
    double cost;

private:
    using Part = std::vector<std::array<double, 3>>;
    static double half(const std::array<double, 6>& b) {
        const double x = b[3] - b[0], y = b[4] - b[1], z = b[5] - b[2];
        return x * (y + z) + y * z;
    }
    struct Event {
        double x;
        int kind; // 0 end, 1 planar, 2 start
    };
    static Part side(const Part& part, int axis, double plane, bool below) {
        Part kept;
        for (size_t i = 0; i < part.size(); ++i) {
            const auto& p = part[i];
            const auto& q = part[(i + 1) % part.size()];
            if (below ? p[axis] <= plane : p[axis] >= plane) kept.push_back(p);
            if ((p[axis] < plane && q[axis] > plane) || (p[axis] > plane && q[axis] < plane)) {
                const double t = (plane - p[axis]) / (q[axis] - p[axis]);
                std::array<double, 3> c;
                for (int k = 0; k < 3; ++k) c[k] = p[k] + t * (q[k] - p[k]);
                c[axis] = plane;
                kept.push_back(c);
            }
        }
        return kept;
    }
    static void bounds(const Part& part, int axis, double& lo, double& hi) {
        lo = INFINITY, hi = -INFINITY;
        for (const auto& p : part) lo = std::min(lo, p[axis]), hi = std::max(hi, p[axis]);
    }
    void build(std::vector<Part>& parts, const std::array<double, 6>& box, int depth) {
        const double here = half(box);
        const double n = double(parts.size());
        double best = n * here;
        int bestAxis = -1;
        double bestPlane = 0;
        bool bestBelow = false;
        for (int axis = 0; axis < 3 && depth < maxDepth_; ++axis) {
            if (!(box[axis + 3] - box[axis] > 1e-5)) continue;
            std::vector<Event> events;
            for (const Part& part : parts) {
                double lo, hi;
                bounds(part, axis, lo, hi);
                if (lo == hi) {
                    events.push_back({lo, 1});
                } else {
                    events.push_back({lo, 2});
                    events.push_back({hi, 0});
                }
            }
            std::sort(events.begin(), events.end(),
                      [](const Event& a, const Event& b) { return a.x < b.x || (a.x == b.x && a.kind < b.kind); });
            double left = 0, right = n;
            for (size_t i = 0; i < events.size();) {
                const double x = events[i].x;
                double kinds[3] = {};
                for (; i < events.size() && events[i].x == x; ++i) ++kinds[events[i].kind];
                right -= kinds[0] + kinds[1];
                std::array<double, 6> lower = box, upper = box;
                lower[axis + 3] = upper[axis] = x;
                const double a0 = half(lower), a1 = half(upper);
                for (int below = 0; below < 2; ++below) {
                    const double price =
                        step_ * here + a0 * (left + (below ? kinds[1] : 0)) + a1 * (right + (below ? 0 : kinds[1]));
                    if (price < best) best = price, bestAxis = axis, bestPlane = x, bestBelow = below;
                }
                left += kinds[1] + kinds[2];
            }
        }
        if (bestAxis < 0) {
            sum_ += here * n;
            return;
        }
        sum_ += here;
        std::vector<Part> lower, upper;
        for (Part& part : parts) {
            double lo, hi;
            bounds(part, bestAxis, lo, hi);
            if (lo == hi ? lo < bestPlane || (lo == bestPlane && bestBelow) : hi <= bestPlane)
                lower.push_back(std::move(part));
            else if (lo >= bestPlane)
                upper.push_back(std::move(part));
            else {
                lower.push_back(side(part, bestAxis, bestPlane, true));
                upper.push_back(side(part, bestAxis, bestPlane, false));
            }
        }
        std::vector<Part>().swap(parts);
        std::array<double, 6> childBox = box;
        childBox[bestAxis + 3] = bestPlane;
        build(lower, childBox, depth + 1);
        childBox = box;
        childBox[bestAxis] = bestPlane;
        build(upper, childBox, depth + 1);
    }
    double step_;
    int maxDepth_;
    double sum_ = 0;
};

} // namespace reference
