// Internal to the samplers: the 8-lane (AVX2) versions, in a source of their own compiled for
// AVX2 (without fused multiply-add and without contraction), and the 4-lane pieces they hand
// the groups to that they do not take themselves.
#ifndef VT_RESAMPLE_SAMPLERSWIDE_H
#define VT_RESAMPLE_SAMPLERSWIDE_H

#include "resample/Samplers.h"

// The 8-lane sampler of a kind and depth, or null for an unknown depth; the instruction
// rounding route.
ChosenSampler WideRunSampler(SamplerKind kind, int bitDepth);

// The 4-lane nearest or bilinear sampler of a depth on the instruction route, on n
// positions from xs and ys (16-byte aligned), writing n pixels from dst; null for the kernel
// kinds and unknown depths.
using SpanSampler = void (*)(const ResampleData* rd, const float* xs, const float* ys, int n,
                             char* dst);
SpanSampler NarrowSpanSampler(SamplerKind kind, int bitDepth);

// The widest kernel has 6 taps per axis; the plan keeps every tap column and row.
constexpr int kMaxTaps = 6;

// One tap column (or row) of a run: the inside mask and the byte-offset term of the clipped
// source coordinate, trunc(coordinate) * stride, as IndexCalcT forms it; computed once per
// tap column and once per tap row instead of once per tap.
struct TapLine {
  alignas(16) int32_t offset[FGulp::kCapacity];
  alignas(16) float inside[FGulp::kCapacity];
};

// What the kernel sampler works from, for a whole run: the table position of each pixel's
// phase cell and every tap column and tap row.
struct TapPlan {
  alignas(16) int32_t cellIndex[FGulp::kCapacity];
  TapLine columns[kMaxTaps];
  TapLine rows[kMaxTaps];
  // Per group of four: every tap column of all four pixels lies inside the image, so the
  // columns are unclipped and each pixel's taps of one tap row are consecutive pixels.
  bool columnsInside[FGulp::kCapacity / 4];
};

// The kernel sampler's plan of a run of n positions (instruction route), and its 4-lane
// taps and final steps for the pixels from `from` (a multiple of 4) to n of the run, written
// from dst (the pixel `from`).
void PlanKernelTaps(const ResampleData* rd, const FGulpPt& pos, int n, TapPlan& plan);
using KernelSpan = void (*)(const ResampleData* rd, const TapPlan& plan, int from, int n,
                            char* dst);
KernelSpan NarrowKernelSpan(int bitDepth, int taps);
// Whether the record has an image and the kernel table of a taps x taps kernel; where not,
// the kernel sampler writes transparent pixels.
bool KernelRecordIsUsable(const ResampleData* rd, int taps);

// What every sampler writes for an image without pixels: n pixels of 0 in all channels.
void StoreTransparentRun(const ResampleData* rd, int n, void* dst);

#endif
