// The three samplers: one run of source positions (in pixels of the input image, pixel (i, j)
// at exactly (i, j)) becomes one run of output pixels written consecutively from dst.
//
// Edge rules, part of each filter's look:
//   NearSampler   content where round(x) is in -1..width and round(y) in -1..height (the edge
//                 pixel repeats for one pixel outside), 0 beyond.
//   BiLinSampler  content where 0 <= x < width and 0 <= y < height (last column and row
//                 repeat towards width and height), 0 beyond.
//   Sampler       table-driven kernel, renormalised over the taps inside the image; 0 where
//                 no tap with weight lies inside. Clips to 0..colorMax / 0..alphaMax.
// Non-finite positions are outside (0 in all channels).
#ifndef VT_RESAMPLE_SAMPLERS_H
#define VT_RESAMPLE_SAMPLERS_H

#include "gulp/FGulp.h"
#include "resample/ResampleData.h"

// Each of the three chooses the version of its filter for the record's depth, the rounding
// route and the vector width, then runs it on the one run of positions.
void NearSampler(ResampleData* rd, const FGulpPt& pos, void* dst);
void BiLinSampler(ResampleData* rd, const FGulpPt& pos, void* dst);
void Sampler(ResampleData* rd, const FGulpPt& pos, void* dst);

// The samplers with those choices made, for a caller that samples many runs alike (the row
// callbacks choose once per render). The route and width come from the processor's features
// at the time of the choice; the kernel versions also need the record's tapsX = tapsY to be
// the kind's. An unknown depth gives a sampler that writes nothing.
enum class SamplerKind { kNearest, kBiLinear, kKernel4x4, kKernel6x6 };
using ChosenSampler = void (*)(ResampleData* rd, const FGulpPt& pos, void* dst);
ChosenSampler ChooseRunSampler(SamplerKind kind, int bitDepth);

#endif
