// The simple builder: a tree that is one leaf with every triangle.
#include <stdint.h>

#include "frame/prmem.h"
#include "kdtree/kdtree.h"

namespace zenr {

ZenStatus ownKDTBldSmpl_TL(int count, ZenrKDTreeNode** pTree, int* pSize) {
    const int64_t bytes = int64_t(count) * 4 + kTreeHeadBytes;
    // A size that the caller's int cannot hold has no block either: wrapping it would be a block too small for its
    // list.
    if (bytes > INT32_MAX) return zenStsMemAllocErr;
    const int size = int(bytes);
    uint32_t* block = static_cast<uint32_t*>(zensMalloc_64s((size >> 3) + 1));
    if (!block) return zenStsMemAllocErr;

    ZenrKDTreeNode* root = reinterpret_cast<ZenrKDTreeNode*>(block);
    root[0] = {0u - kTreeHeadBytes, uint32_t(count)};
    root[1] = {0, 0};
    int* list = reinterpret_cast<int*>(block) + kTreeHeadBytes / 4;
    for (int i = 0; i < count; ++i) list[i] = i;

    *pTree = root;
    *pSize = size;
    return zenStsNoErr;
}

} // namespace zenr
