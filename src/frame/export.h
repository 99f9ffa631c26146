// Marks the definition of an exported function.
#pragma once
#if defined(__i386__)
// A caller built for the older ABI may come with a stack aligned to 4 bytes; kernels keep vectors on theirs.
#define ZENR_EXPORT extern "C" __attribute__((visibility("default"), force_align_arg_pointer))
#else
#define ZENR_EXPORT extern "C" __attribute__((visibility("default")))
#endif
