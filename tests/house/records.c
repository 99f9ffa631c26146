/* The public headers compile on their own, as C99 and as C++, and their records are what both flavours exchange.
 * DEVIATION makes every comparison wrong, to show that this file can fail. */
#include "zencore.h"
#include "zenr.h"

#include <stddef.h>

#ifndef DEVIATION
#define DEVIATION 0
#endif

#define JOIN_(a, b) a##b
#define JOIN(a, b) JOIN_(a, b)
#define EQUAL(a, b) typedef char JOIN(line, __LINE__)[(a) == (b) + DEVIATION ? 1 : -1]
#define POINTER sizeof(void*)

EQUAL(sizeof(ZenStatus), 4);

EQUAL(sizeof(ZenrLibraryVersion), 20 + 3 * POINTER + (POINTER == 8 ? 4 : 0));
EQUAL(offsetof(ZenrLibraryVersion, major), 0);
EQUAL(offsetof(ZenrLibraryVersion, minor), 4);
EQUAL(offsetof(ZenrLibraryVersion, majorBuild), 8);
EQUAL(offsetof(ZenrLibraryVersion, build), 12);
EQUAL(offsetof(ZenrLibraryVersion, targetCpu), 16);
EQUAL(offsetof(ZenrLibraryVersion, name), POINTER == 8 ? 24 : 20);
EQUAL(offsetof(ZenrLibraryVersion, version), POINTER == 8 ? 32 : 24);
EQUAL(offsetof(ZenrLibraryVersion, buildDate), POINTER == 8 ? 40 : 28);

EQUAL(sizeof(ZenrSize), 8);
EQUAL(offsetof(ZenrSize, width), 0);
EQUAL(offsetof(ZenrSize, height), 4);

EQUAL(sizeof(ZenrVolume), 12);
EQUAL(offsetof(ZenrVolume, width), 0);
EQUAL(offsetof(ZenrVolume, height), 4);
EQUAL(offsetof(ZenrVolume, depth), 8);

EQUAL(sizeof(ZenrBox), 24);
EQUAL(offsetof(ZenrBox, x), 0);
EQUAL(offsetof(ZenrBox, y), 4);
EQUAL(offsetof(ZenrBox, z), 8);
EQUAL(offsetof(ZenrBox, width), 12);
EQUAL(offsetof(ZenrBox, height), 16);
EQUAL(offsetof(ZenrBox, depth), 20);

EQUAL(sizeof(ZenrPoint), 12);
EQUAL(offsetof(ZenrPoint, x), 0);
EQUAL(offsetof(ZenrPoint, y), 4);
EQUAL(offsetof(ZenrPoint, z), 8);

EQUAL(sizeof(ZenrSHState), 16);
EQUAL(offsetof(ZenrSHState, maxOrder), 0);
EQUAL(offsetof(ZenrSHState, type), 4);
EQUAL(offsetof(ZenrSHState, tableA), 8);
EQUAL(offsetof(ZenrSHState, tableB), 12);

EQUAL(sizeof(ZenrTriangleAccel), 40);
EQUAL(offsetof(ZenrTriangleAccel, axes), 0);
EQUAL(offsetof(ZenrTriangleAccel, nA), 4);
EQUAL(offsetof(ZenrTriangleAccel, pK), 8);
EQUAL(offsetof(ZenrTriangleAccel, nB), 12);
EQUAL(offsetof(ZenrTriangleAccel, pA), 16);
EQUAL(offsetof(ZenrTriangleAccel, pB), 20);
EQUAL(offsetof(ZenrTriangleAccel, e2A), 24);
EQUAL(offsetof(ZenrTriangleAccel, e2B), 28);
EQUAL(offsetof(ZenrTriangleAccel, e1A), 32);
EQUAL(offsetof(ZenrTriangleAccel, e1B), 36);

EQUAL(sizeof(ZenrKDTreeNode), 8);
EQUAL(offsetof(ZenrKDTreeNode, w0), 0);
EQUAL(offsetof(ZenrKDTreeNode, w1), 4);

EQUAL(sizeof(ZenrKDTreeBuildParams), 16 + POINTER);
EQUAL(offsetof(ZenrKDTreeBuildParams, tag), 0);
EQUAL(offsetof(ZenrKDTreeBuildParams, maxDepth), 4);
EQUAL(offsetof(ZenrKDTreeBuildParams, optimizationRatio), 8);
EQUAL(offsetof(ZenrKDTreeBuildParams, memoryLimitMB), 12);
EQUAL(offsetof(ZenrKDTreeBuildParams, pBoundBox), 16);

EQUAL(sizeof(ZenrIntersectContext), 3 * POINTER);
EQUAL(offsetof(ZenrIntersectContext, boundBox), 0);
EQUAL(offsetof(ZenrIntersectContext, triangleAccel), POINTER);
EQUAL(offsetof(ZenrIntersectContext, rootNode), 2 * POINTER);
