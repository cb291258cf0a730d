// Pieces of the kernel tables that the tests reach directly. Nothing here is exported from
// the plug-in (hidden visibility, and the export list names none of it).
#ifndef VT_RESAMPLE_KERNELTABLESINTERNAL_H
#define VT_RESAMPLE_KERNELTABLESINTERNAL_H

#include <atomic>
#include <cstddef>
#include <mutex>

// The allocator the tables are taken from; std::malloc unless a test swaps in one that
// fails. Only read while the tables are being built.
using KernelTableAllocFunc = void* (*)(std::size_t);
extern KernelTableAllocFunc kernel_table_alloc;

// The three kernels, evaluated in double precision at a distance d >= 0 (in pixels).
using SineFunc = double (*)(double);
double Lanczos2Weight(double d, SineFunc sine);
double Lanczos3Weight(double d, SineFunc sine);
double MitchellWeight(double d);

// Set once the three tables are published; the first build holds build_lock.
extern std::atomic<bool> did_this;
extern std::mutex build_lock;

#endif
