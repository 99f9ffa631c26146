// Meshes, rays and trees for tests: procedural meshes, and a plain builder of packed trees that splits at medians and
// lists a triangle in every cell its box touches, so that traversal can be tested without the library's own builder.
#pragma once
#include <math.h>
#include <stdint.h>

#include <algorithm>
#include <memory>
#include <random>
#include <vector>

namespace reference {

struct Mesh {
    std::vector<float> vertices;
    std::vector<int> triangles; // four ints each
    int vertexCount() const { return int(vertices.size() / 3); }
    int triangleCount() const { return int(triangles.size() / 4); }
    void add(int a, int b, int c) { triangles.insert(triangles.end(), {a, b, c, -77}); }
    int addVertex(float x, float y, float z) {
        vertices.insert(vertices.end(), {x, y, z});
        return vertexCount() - 1;
    }
};

inline Mesh soup(int count, float size, uint32_t seed) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> place(-1, 1);
    Mesh mesh;
    for (int j = 0; j < count; ++j) {
        const float c[3] = {place(random), place(random), place(random)};
        int v[3];
        for (int& index : v)
            index =
                mesh.addVertex(c[0] + size * place(random), c[1] + size * place(random), c[2] + size * place(random));
        if (j % 37 == 5) v[2] = v[1]; // some without area
        mesh.add(v[0], v[1], v[2]);
    }
    return mesh;
}

// A closed surface: an octahedron subdivided and moved onto the unit sphere.
inline Mesh sphere(int levels) {
    Mesh mesh;
    const float corners[6][3] = {{1, 0, 0}, {-1, 0, 0}, {0, 1, 0}, {0, -1, 0}, {0, 0, 1}, {0, 0, -1}};
    for (const auto& c : corners) mesh.addVertex(c[0], c[1], c[2]);
    for (int i = 0; i < 8; ++i) mesh.add(i & 1 ? 1 : 0, i & 2 ? 3 : 2, i & 4 ? 5 : 4);
    for (int level = 0; level < levels; ++level) {
        Mesh finer;
        finer.vertices = mesh.vertices;
        for (int j = 0; j < mesh.triangleCount(); ++j) {
            const int* t = &mesh.triangles[4 * j];
            int m[3];
            for (int e = 0; e < 3; ++e) {
                const float* p = &mesh.vertices[3 * t[e]];
                const float* q = &mesh.vertices[3 * t[(e + 1) % 3]];
                float c[3] = {p[0] + q[0], p[1] + q[1], p[2] + q[2]};
                const float length = std::sqrt(c[0] * c[0] + c[1] * c[1] + c[2] * c[2]);
                m[e] = finer.addVertex(c[0] / length, c[1] / length, c[2] / length);
            }
            finer.add(t[0], m[0], m[2]);
            finer.add(t[1], m[1], m[0]);
            finer.add(t[2], m[2], m[1]);
            finer.add(m[0], m[1], m[2]);
        }
        mesh = finer;
    }
    return mesh;
}

// A height field over [-1, 1]^2 with many axis-aligned and coplanar triangles (its outer half is flat).
inline Mesh terrain(int cells) {
    Mesh mesh;
    for (int y = 0; y <= cells; ++y) {
        for (int x = 0; x <= cells; ++x) {
            const float u = 2.f * x / cells - 1, v = 2.f * y / cells - 1;
            const float r = u * u + v * v;
            mesh.addVertex(u, v, r < 0.5f ? 0.5f - r : 0.f);
        }
    }
    for (int y = 0; y < cells; ++y) {
        for (int x = 0; x < cells; ++x) {
            const int i = y * (cells + 1) + x;
            mesh.add(i, i + 1, i + cells + 1);
            mesh.add(i + 1, i + cells + 2, i + cells + 1);
        }
    }
    return mesh;
}

class PackedTree {
public:
    PackedTree(const Mesh& mesh, const float* box, int leafSize, int maxDepth, bool inlineLeaves = true)
        : mesh_(mesh), leafSize_(leafSize), inline_(inlineLeaves) {
        std::vector<int> all;
        for (int j = 0; j < mesh.triangleCount(); ++j) all.push_back(j);
        float bounds[6];
        std::copy(box, box + 6, bounds);
        const auto root = split(all, bounds, maxDepth);
        words_.assign(4, 0);
        count(*root);
        words_.resize(words_.size() + 2 * (nodes_ - 1), 0);
        pairCursor_ = 4;
        write(*root, 0);
    }
    const std::vector<uint32_t>& words() const { return words_; }
    int interior() const { return interior_; }

private:
    struct Node {
        int axis = 3;
        float position = 0;
        std::unique_ptr<Node> lower, upper;
        std::vector<int> list;
    };

    float bound(int j, int axis, bool high) const {
        float x = 0;
        for (int v = 0; v < 3; ++v) {
            const float c = mesh_.vertices[3 * mesh_.triangles[4 * j + v] + axis];
            if (v == 0 || (high ? c > x : c < x)) x = c;
        }
        return x;
    }

    std::unique_ptr<Node> split(const std::vector<int>& list, const float* box, int depth) {
        auto node = std::make_unique<Node>();
        int axis = 0;
        for (int k = 1; k < 3; ++k) {
            if (box[3 + k] - box[k] > box[3 + axis] - box[axis]) axis = k;
        }
        std::vector<float> edges;
        for (int j : list) edges.push_back(bound(j, axis, false));
        bool useful = int(list.size()) > leafSize_ && depth > 0;
        float position = 0;
        if (useful) {
            std::nth_element(edges.begin(), edges.begin() + edges.size() / 2, edges.end());
            position = edges[edges.size() / 2];
            useful = position > box[axis] && position < box[3 + axis];
        }
        if (useful) {
            std::vector<int> low, high;
            for (int j : list) {
                if (bound(j, axis, false) <= position) low.push_back(j);
                if (bound(j, axis, true) >= position) high.push_back(j);
            }
            if (low.size() < list.size() || high.size() < list.size()) {
                float part[6];
                std::copy(box, box + 6, part);
                part[3 + axis] = position;
                node->axis = axis;
                node->position = position;
                node->lower = split(low, part, depth - 1);
                std::copy(box, box + 6, part);
                part[axis] = position;
                node->upper = split(high, part, depth - 1);
                return node;
            }
        }
        node->list = list;
        return node;
    }

    void count(const Node& node) {
        ++nodes_;
        if (node.axis == 3) return;
        ++interior_;
        count(*node.lower);
        count(*node.upper);
    }

    void write(const Node& node, uint32_t at) {
        if (node.axis != 3) {
            const uint32_t pair = pairCursor_;
            pairCursor_ += 4;
            words_[at] = (pair - at) * 4 | uint32_t(node.axis);
            __builtin_memcpy(&words_[at + 1], &node.position, 4);
            write(*node.lower, pair);
            write(*node.upper, pair + 2);
            return;
        }
        std::vector<int> sorted = node.list;
        std::sort(sorted.begin(), sorted.end());
        if (inline_ && sorted.size() == 1) {
            words_[at] = 0x80000000u | uint32_t(sorted[0]);
            words_[at + 1] = 0x80000001u;
        } else if (inline_ && sorted.size() == 2) {
            words_[at] = 0x80000000u | uint32_t(node.list[1]);
            words_[at + 1] = 0x80000002u | uint32_t(node.list[0]) << 2;
        } else if (inline_ && sorted.size() == 3 && sorted[1] - sorted[0] <= 0x7FFF &&
                   sorted[2] - sorted[1] <= 0xFFFF) {
            words_[at] = 0x80000000u | uint32_t(sorted[1] - sorted[0]) << 16 | uint32_t(sorted[2] - sorted[1]);
            words_[at + 1] = 0x80000003u | uint32_t(sorted[1]) << 2;
        } else {
            words_[at] = uint32_t(at * 4 - words_.size() * 4);
            words_[at + 1] = uint32_t(node.list.size());
            for (int j : node.list) words_.push_back(uint32_t(j));
        }
    }

    const Mesh& mesh_;
    int leafSize_;
    bool inline_;
    std::vector<uint32_t> words_;
    uint32_t nodes_ = 0, pairCursor_ = 0;
    int interior_ = 0;
};

} // namespace reference
