// Precomputed two-dimensional weight tables of the Lanczos-2, Lanczos-3 and Mitchell-Netravali
// filters, built once per process on the first render and shared read-only by every row.
//
// A table holds 64 x 64 phase cells (vertical phase outer, horizontal phase inner); a cell
// holds the normalised weight of every tap, row by row (tap row j, tap column i at j*N + i).
#ifndef VT_RESAMPLE_KERNELTABLES_H
#define VT_RESAMPLE_KERNELTABLES_H

#include "AE_Effect.h"
#include "AE_EffectCBSuites.h"

// Sub-pixel phases per pixel and axis of every kernel table.
constexpr int kKernelPhases = 64;

// Taps per axis, first-tap offset and floats per phase cell of each kernel.
constexpr int kLanczos2Taps = 4, kLanczos2TapOffset = 1, kLanczos2CellFloats = 16;
constexpr int kLanczos3Taps = 6, kLanczos3TapOffset = 2, kLanczos3CellFloats = 40;
constexpr int kMitchellTaps = 4, kMitchellTapOffset = 1, kMitchellCellFloats = 16;

// The process-wide tables; null until the first successful BuildSampleFilters, then fixed
// for the rest of the process (never freed).
extern float* flanc2_filter;
extern float* flanc3_filter;
extern float* fmitch2_filter;

// Makes sure the three tables exist and copies their addresses into the three references.
// The first call builds them (later calls only copy the pointers); a caller that arrives
// while another thread is building waits for the finished tables. The sine comes from the
// host's ANSI suite; when the suite or its sin entry is missing, the C library's
// double-precision sine is used instead.
// Returns PF_Err_OUT_OF_MEMORY when a table cannot be allocated: then nothing is kept, the
// references receive null, and the next call tries again.
PF_Err BuildSampleFilters(PF_ANSICallbacksSuite1* ansi, float*& lanczos2, float*& lanczos3,
                          float*& mitchell);

#endif
