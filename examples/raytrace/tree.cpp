// Summary of a packed tree; steps of a ray through it.
#include "tree.h"

#include <algorithm>

namespace {

bool isLeaf(const ZenrKDTreeNode& node) {
    return node.w0 >> 31;
}
bool isInline(const ZenrKDTreeNode& leaf) {
    return leaf.w1 >> 31;
}
int leafCount(const ZenrKDTreeNode& leaf) {
    return static_cast<int>(isInline(leaf) ? leaf.w1 & 3 : leaf.w1);
}

const ZenrKDTreeNode* children(const ZenrKDTreeNode& node) {
    return &node + (node.w0 >> 3);
} // nodes have 8 bytes
int axisOf(const ZenrKDTreeNode& node) {
    return static_cast<int>(node.w0 & 3);
}

double splitOf(const ZenrKDTreeNode& node) {
    static_assert(sizeof(float) == sizeof node.w1);
    float split;
    __builtin_memcpy(&split, &node.w1, sizeof split);
    return split;
}

struct Cell {
    double low[3], high[3];

    double halfSurface() const {
        const double x = high[0] - low[0], y = high[1] - low[1], z = high[2] - low[2];
        return x * y + y * z + z * x;
    }
};

void visit(const ZenrKDTreeNode& node, const Cell& cell, int depth, double whole, TreeSummary& out) {
    const double share = whole > 0 ? cell.halfSurface() / whole : 0;
    if (isLeaf(node)) {
        const int count = leafCount(node);
        ++out.leaves;
        out.inlineLeaves += isInline(node);
        out.emptyLeaves += count == 0;
        out.references += count;
        out.depth = std::max(out.depth, depth);
        out.sahCost += share * count;
        return;
    }
    ++out.interior;
    out.sahCost += share;
    const int axis = axisOf(node);
    Cell lower = cell, upper = cell;
    lower.high[axis] = upper.low[axis] = splitOf(node);
    visit(children(node)[0], lower, depth + 1, whole, out);
    visit(children(node)[1], upper, depth + 1, whole, out);
}

Cell cellOf(const float box[6]) {
    return {{box[0], box[1], box[2]}, {box[3], box[4], box[5]}};
}

} // namespace

TreeSummary summarise(const ZenrKDTreeNode* root, const float box[6]) {
    TreeSummary summary;
    const Cell cell = cellOf(box);
    visit(*root, cell, 0, cell.halfSurface(), summary);
    return summary;
}

int countSteps(const ZenrKDTreeNode* root, const float box[6], const Vec& origin, const Vec& direction,
               double distance) {
    double enter = 0, leave = distance;
    for (int k = 0; k < 3; ++k) {
        if (direction[k] == 0) {
            if (origin[k] < box[k] || origin[k] > box[k + 3]) return 0;
            continue;
        }
        const double a = (box[k] - origin[k]) / direction[k], b = (box[k + 3] - origin[k]) / direction[k];
        enter = std::max(enter, std::min(a, b));
        leave = std::min(leave, std::max(a, b));
    }
    if (enter > leave) return 0;

    struct Pending {
        const ZenrKDTreeNode* node;
        double enter, leave;
    } stack[64]; // a tree has at most 50 levels, each leaves one child behind
    int pending = 0, steps = 0;
    const ZenrKDTreeNode* node = root;
    for (;;) {
        if (isLeaf(*node)) {
            steps += leafCount(*node);
            if (pending == 0) return steps;
            --pending;
            node = stack[pending].node;
            enter = stack[pending].enter;
            leave = stack[pending].leave;
            continue;
        }
        ++steps;
        const int axis = axisOf(*node);
        const double toPlane = splitOf(*node) - origin[axis];
        const bool upperFirst = toPlane < 0 || (toPlane == 0 && direction[axis] > 0);
        const ZenrKDTreeNode* first = children(*node) + upperFirst;
        const ZenrKDTreeNode* second = children(*node) + !upperFirst;
        // A ray along the plane has an infinite t: it stays on its side.
        const double t = toPlane / direction[axis];
        if (toPlane == 0 || t < 0 || t >= leave) {
            node = first;
        } else if (t <= enter) {
            node = second;
        } else {
            if (pending < 64) stack[pending++] = {second, t, leave};
            node = first;
            leave = t;
        }
    }
}
