// The intersectors for one ray at a time, in plain recursive form: decisions about the box and split planes in single
// precision, the triangle test in double, results rounded once.
#pragma once
#include <math.h>
#include <stdint.h>

#include <functional>

namespace reference {

struct Scene {
    const float* box;
    const uint32_t* records; // ten words each
    const char* root;
};

struct Found {
    int triangle = -1;
    float t = 0;
    float weight[2] = {0, 0};
};

enum Kind { nearest, eye, any, multiple };

class Walk {
public:
    Walk(const Scene& scene, Kind kind) : scene_(scene), kind_(kind) {}

    float direction[3];
    float reciprocal[3];
    bool upperFirst[3];
    double point[3]; // origin
    float limit;     // running best distance
    Found found;
    std::function<bool(int)> excluded = [](int) { return false; };  // before the test
    std::function<bool(int)> discarded = [](int) { return false; }; // after it

    void run(float tmin, float tmax) {
        float end = 0;
        visit(scene_.root, tmin, tmax, &end);
    }

private:
    static uint32_t word(const char* p) {
        uint32_t w;
        __builtin_memcpy(&w, p, 4);
        return w;
    }
    float field(int j, int i) const {
        float x;
        __builtin_memcpy(&x, scene_.records + 10 * j + i, 4);
        return x;
    }

    // True when the ray is finished. *end is the end of the interval searched last.
    bool visit(const char* node, float tmin, float tmax, float* end) {
        const uint32_t w0 = word(node), w1 = word(node + 4);
        if (w0 >> 31) {
            *end = tmax;
            return leaf(node, w0, w1);
        }
        const int axis = w0 & 3;
        float split;
        __builtin_memcpy(&split, &w1, 4);
        volatile float t = split - float(point[axis]);
        t = t * reciprocal[axis];
        const char* lower = node + (w0 & 0xFFFFFFF8u);
        const char* upper = lower + 8;
        const char* first = upperFirst[axis] ? upper : lower;
        const char* second = upperFirst[axis] ? lower : upper;
        const float tolerance = kind_ == multiple ? 0.00019f : 1e-5f;
        if (tmin - t > tolerance) return visit(second, tmin, tmax, end);
        if (t - tmax > tolerance) return visit(first, tmin, tmax, end);
        float middle = tmax;
        if (t < tmax) middle = t;
        if (tmin > middle) middle = tmin;
        if (visit(first, tmin, middle, end)) return true;
        if (limit <= *end) return true;
        return visit(second, *end, tmax, end);
    }

    bool leaf(const char* node, uint32_t w0, uint32_t w1) {
        int list[3];
        if (!(w1 >> 31)) {
            const char* at = node + uint32_t(-(w0 & 0xFFFFFFFCu));
            for (uint32_t i = 0; i < w1; ++i) {
                if (test(int(word(at + 4 * i)))) return true;
            }
            return false;
        }
        const int count = w1 & 3, b = int((w1 & 0x7FFFFFFC) >> 2);
        list[0] = int(w0 & 0x7FFFFFFF);
        list[1] = b;
        if (count == 3) {
            list[0] = b - int((w0 & 0x7FFFFFFF) >> 16);
            list[2] = b + int(w0 & 0xFFFF);
        }
        for (int i = 0; i < count; ++i) {
            if (test(list[i])) return true;
        }
        return false;
    }

    bool test(int j) {
        const uint32_t axes = scene_.records[10 * j];
        if (!axes || excluded(j)) return false;
        const int k = axes >> 4 & 3, a = axes >> 2 & 3, b = axes & 3;
        const double nA = field(j, 1), pK = field(j, 2), nB = field(j, 3), pA = field(j, 4), pB = field(j, 5),
                     e2A = field(j, 6), e2B = field(j, 7), e1A = field(j, 8), e1B = field(j, 9);
        const double Da = direction[a], Db = direction[b], Dk = direction[k];
        const double Oa = point[a], Ob = point[b], Ok = point[k];
        const double det = (nA * Da + nB * Db) + Dk;
        if (kind_ == nearest && std::fabs(det) < double(1.1920929e-6f)) return false;
        const double u0 = pA - Oa;
        const double num = ((nB * (pB - Ob) + nA * u0) + pK) - Ok;
        const double X = Da * num - u0 * det;
        const double Y = Db * num + (Ob - pB) * det;
        const double beta = e2B * X - e2A * Y;
        const double gamma = e1A * Y - e1B * X;
        const double alpha = (det - beta) - gamma;
        if (!(alpha * beta >= 0.0) || !(beta * gamma >= 0.0) || !(alpha * gamma >= 0.0)) return false;
        const float t = float(num / det);
        const double bound = kind_ == nearest ? double(limit) - double(1e-5f) : double(limit);
        if (!(double(t) < bound) || !(t > 0)) return false;
        if (discarded(j)) return false;
        limit = t;
        found.triangle = j;
        found.t = t;
        found.weight[0] = float(beta / det);
        found.weight[1] = float(gamma / det);
        return kind_ == any;
    }

    const Scene& scene_;
    Kind kind_;
};

inline bool narrow(float t1, float t2, float* tmin, float* tmax) {
    const float lo = t1 < t2 ? t1 : t2, hi = t1 > t2 ? t1 : t2;
    if (lo > *tmin) *tmin = lo;
    if (hi < *tmax) *tmax = hi;
    return !(*tmin > *tmax);
}

inline bool parallel(float d) {
    return std::fabs(d) <= 1.1920929e-7f;
}

inline Found traceNearest(const Scene& s, const float O[3], const float D[3], float maximum) {
    Walk walk(s, nearest);
    float tmin = 0, tmax = maximum;
    for (int k = 0; k < 3; ++k) {
        walk.direction[k] = D[k];
        walk.point[k] = O[k];
        walk.upperFirst[k] = !parallel(D[k]) && D[k] < 0;
        if (parallel(D[k])) {
            walk.reciprocal[k] = 83886.08f;
            if (!(s.box[k] < O[k]) || !(O[k] < s.box[3 + k])) return {};
        } else {
            volatile float inverse = 1 / D[k];
            walk.reciprocal[k] = inverse;
            volatile float lo = s.box[k] - O[k], hi = s.box[3 + k] - O[k];
            if (!narrow(lo * inverse, hi * inverse, &tmin, &tmax)) return {};
        }
    }
    walk.limit = maximum;
    walk.excluded = [&](int j) { return j == walk.found.triangle; };
    walk.run(tmin, tmax + 1e-4f);
    return walk.found;
}

// Sets a ray from the common origin up; false when it misses the box.
inline bool fromEye(Walk& walk, const Scene& s, const float O[3], const float D[3], float* tmin, float* tmax) {
    bool meets = true;
    for (int k = 0; k < 3; ++k) {
        walk.direction[k] = D[k];
        walk.point[k] = O[k];
        walk.upperFirst[k] = !parallel(D[k]) && D[k] < 0;
        walk.reciprocal[k] = parallel(D[k]) ? 838860800.f : 1 / D[k];
        if (!parallel(D[k]) && meets)
            meets = narrow((s.box[k] - O[k]) / D[k], (s.box[3 + k] - O[k]) / D[k], tmin, tmax);
    }
    return meets;
}

inline Found traceEye(const Scene& s, const float O[3], const float D[3], float maximum) {
    Walk walk(s, eye);
    float tmin = 0, tmax = maximum;
    if (!fromEye(walk, s, O, D, &tmin, &tmax)) return {};
    walk.limit = maximum;
    walk.run(tmin, tmax + 1e-4f);
    return walk.found;
}

inline Found traceAny(const Scene& s, const float O[3], const float D[3]) {
    Walk walk(s, any);
    for (int k = 0; k < 3; ++k) {
        walk.direction[k] = D[k];
        walk.point[k] = O[k];
        walk.upperFirst[k] = D[k] < 0;
        walk.reciprocal[k] = parallel(D[k]) ? 83886.08f : 1 / D[k];
    }
    walk.limit = 1;
    walk.run(0, 1.0001f);
    return walk.found;
}

// Layers of one ray; triangle must be prefilled with -1 by the caller. distance[0] is read.
inline void traceMultiple(const Scene& s, const float O[3], const float D[3], int maxHits, float* distance, float* w0,
                          float* w1, int* triangle) {
    Walk walk(s, multiple);
    float tmin = 0, tmax = distance[0];
    if (!fromEye(walk, s, O, D, &tmin, &tmax)) return;
    tmax += 1e-4f;
    int ring[8] = {-1, -1, -1, -1, -1, -1, -1, -1};
    int previous = -1;
    for (int layer = 0; layer < maxHits; ++layer) {
        walk.found = {};
        walk.limit = distance[layer];
        walk.excluded = [&](int j) { return j == previous; };
        walk.discarded = [&](int j) {
            for (int i = 0; i < layer % 8; ++i) {
                if (ring[i] == j) return true;
            }
            return false;
        };
        walk.run(tmin, tmax);
        if (walk.found.triangle == -1) return;
        triangle[layer] = walk.found.triangle;
        distance[layer] = walk.found.t;
        w0[layer] = walk.found.weight[0];
        w1[layer] = walk.found.weight[1];
        for (int k = 0; k < 3; ++k) walk.point[k] = walk.point[k] + double(D[k]) * double(walk.found.t);
        if (layer > 0) distance[layer] = walk.found.t + distance[layer - 1];
        ring[layer % 8] = previous = walk.found.triangle;
        if (layer + 1 == maxHits) return;
        distance[layer + 1] = 3.4028235e38f;
        tmin = 0;
        tmax = 3.4028235e38f;
        for (int k = 0; k < 3; ++k) {
            const float P = float(walk.point[k]);
            const float t1 = (s.box[k] - P) * walk.reciprocal[k], t2 = (s.box[3 + k] - P) * walk.reciprocal[k];
            const float out = t1 > t2 ? t1 : t2;
            if (out < tmax) tmax = out;
        }
        tmax += 1e-4f;
    }
}

} // namespace reference
