// An interior node of the packed tree, as every walk reads it.
#pragma once
#include "kdtree/kdtree.h"

namespace zenr {

struct Interior {
    int axis; // 3 in a malformed node
    float plane;
    const ZenrKDTreeNode* children; // the lower one, then the upper one
};

// Always part of its caller: a copy of its own would be compiled for one level and be picked for all.
inline __attribute__((always_inline)) Interior interiorOf(const ZenrKDTreeNode* node) {
    Interior i;
    i.axis = int(node->w0 & kAxisMask);
    __builtin_memcpy(&i.plane, &node->w1, sizeof i.plane);
    i.children =
        reinterpret_cast<const ZenrKDTreeNode*>(reinterpret_cast<const char*>(node) + (node->w0 & kChildOffsetMask));
    return i;
}

} // namespace zenr
