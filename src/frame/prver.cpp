// The version record.
#include "frame/export.h"
#include "zenr.h"

// The build number and the build in the text differ on purpose: both are reported as they stand.
static constexpr ZenrLibraryVersion kVersion = {
    6, 1, 137, 703, {'p', 'x', 0, 0}, "libzenrpx.so.6.1", "6.1 build 137.56", "Mar 17 2010",
};

ZENR_EXPORT const ZenrLibraryVersion* zenrGetLibVersion(void) {
    return &kVersion;
}
