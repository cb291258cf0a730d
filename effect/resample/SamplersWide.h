// Internal to the samplers: the 8-lane (AVX2) versions, in a source of their own compiled for
// AVX2 (without fused multiply-add and without contraction), and the 4-lane pieces they hand
// the groups to that they do not take themselves.
#ifndef VT_RESAMPLE_SAMPLERSWIDE_H
#define VT_RESAMPLE_SAMPLERSWIDE_H

#include "resample/Samplers.h"

// The 8-lane sampler of a kind and depth, or null where there is none; the instruction
// rounding route. The kernel samplers have none: an 8-lane version (two pixels per register,
// the same steps) measured slower than their 4-lane loop.
ChosenSampler WideRunSampler(SamplerKind kind, int bitDepth);

// The 4-lane nearest or bilinear sampler of a depth on the instruction route, on n
// positions from xs and ys (16-byte aligned), writing n pixels from dst; null for the kernel
// kinds and unknown depths.
using SpanSampler = void (*)(const ResampleData* rd, const float* xs, const float* ys, int n,
                             char* dst);
SpanSampler NarrowSpanSampler(SamplerKind kind, int bitDepth);

// What every sampler writes for an image without pixels: n pixels of 0 in all channels.
void StoreTransparentRun(const ResampleData* rd, int n, void* dst);

#endif
