/* zencore.h - the core library beside libzenrpx: memory and the thread count.
 *
 * libzenrpx takes memory and its thread count from these functions alone. A program may put a library of its own with
 * the same soname (libzencore.so.6.1) and functions in its place. All four may be called from any thread at any time.
 */
#ifndef ZENCORE_H
#define ZENCORE_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Allocates `size` bytes at an address that is a multiple of 64. Null when the memory is not to be had, and for a size
 * that cannot be given: 0, or one so large that its rounding to whole 64-byte lines would not fit size_t. */
void* zenMalloc(size_t size);

/* Releases a block of zenMalloc; null is allowed and does nothing. */
void zenFree(void* ptr);

/* The number of threads that one call of the library may use, at least 1: the number given to zenSetNumThreads, or,
 * when none was given, what the OpenMP runtime would use now (omp_get_max_threads, so that OMP_NUM_THREADS,
 * omp_set_num_threads and affinity masks count). */
int ownGetNumThreads(void);

/* Sets the number of threads for the whole process, from the next call on. Below 1: back to the default. */
void zenSetNumThreads(int count);

#ifdef __cplusplus
}
#endif
#endif
