// The surface-area-heuristic builder.
#include "kdtree/kdtree.h"

namespace zenr {

ZenStatus ownKDTBldPSAH_ML(const float*, const int*, int, int, ZenrKDTreeNode**, int*, float, int, uint32_t,
                           const float*) {
    return zenStsMemAllocErr; // NOT DONE: the builder is not there yet; this line is its whole stand-in.
}

} // namespace zenr
