// The host's own samplers, which the "Built-in" filter and the sampling suites reach.
//
// Positions are 16.16 fixed point in the buffer's own coordinates, pixel (i, j) lying at
// exactly (i, j). The sub-pixel sampler is bilinear between the four pixels around the
// position. Edges: a position whose integer part lies outside the buffer (x < 0 or
// x >= width, likewise y) gives a transparent pixel (all channels 0); inside, the right or
// bottom neighbour of the last column or row is that edge pixel itself, so positions between
// width - 1 and width repeat the last column. Integer depths round the weighted sum to
// nearest (halves up), in exact integer arithmetic; float interpolates in double and stores
// the nearest float.
#ifndef VT_HOSTSIM_SAMPLING_H
#define VT_HOSTSIM_SAMPLING_H

#include "AE_Effect.h"

namespace hostsim {

void SampleBilinear8(const PF_EffectWorld& src, PF_Fixed x, PF_Fixed y, PF_Pixel* dst);
void SampleBilinear16(const PF_EffectWorld& src, PF_Fixed x, PF_Fixed y, PF_Pixel16* dst);
void SampleBilinearFloat(const PF_EffectWorld& src, PF_Fixed x, PF_Fixed y, PF_PixelFloat* dst);

// Nearest pixel (positions rounded, halves up), transparent outside, for nn_sample.
void SampleNearest8(const PF_EffectWorld& src, PF_Fixed x, PF_Fixed y, PF_Pixel* dst);
void SampleNearest16(const PF_EffectWorld& src, PF_Fixed x, PF_Fixed y, PF_Pixel16* dst);
void SampleNearestFloat(const PF_EffectWorld& src, PF_Fixed x, PF_Fixed y, PF_PixelFloat* dst);

}  // namespace hostsim

#endif
