// Walks of the packed tree, as zenr.h documents it: what it is made of, and what a ray meets in it.
#pragma once
#include <cstdint>

#include <zenr.h>

#include "vec.h"

struct TreeSummary {
    int64_t interior = 0, leaves = 0, inlineLeaves = 0, emptyLeaves = 0;
    int64_t references = 0; // triangle numbers in all leaves
    int depth = 0;          // greatest number of interior nodes above a leaf
    // Expected work of a ray that meets the box: each node weighted with its share of the box's surface, 1 for a step
    // through an interior node and 1 for a triangle's test.
    double sahCost = 0;
};

TreeSummary summarise(const ZenrKDTreeNode* root, const float box[6]);

// Interior nodes passed and triangles listed in the leaves that a ray visits, front to back, until it is past
// `distance`, that of its hit. Computed apart from the intersectors: what a ray needs in this tree, whatever tricks
// they use, and free of the noise of time measurements.
int countSteps(const ZenrKDTreeNode* root, const float box[6], const Vec& origin, const Vec& direction,
               double distance);
