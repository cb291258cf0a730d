// Pieces of the kernel tables that the tests reach directly. Nothing here is exported from
// the plug-in (hidden visibility, and the export list names none of it).
#ifndef VT_RESAMPLE_KERNELTABLESINTERNAL_H
#define VT_RESAMPLE_KERNELTABLESINTERNAL_H

#include <cstddef>

// The allocator the tables are taken from; std::malloc unless a test swaps in one that
// fails. Only read while the tables are being built.
using KernelTableAllocFunc = void* (*)(std::size_t);
extern KernelTableAllocFunc kernel_table_alloc;

// The three kernels, evaluated in double precision at a distance d >= 0 (in pixels).
using SineFunc = double (*)(double);
double Lanczos2Weight(double d, SineFunc sine);
double Lanczos3Weight(double d, SineFunc sine);
double MitchellWeight(double d);

// Frees the tables and returns to the never-built state, so that a test can watch a first
// build again. Must not run while any other thread uses the tables.
void DiscardSampleFiltersForTesting();

#endif
