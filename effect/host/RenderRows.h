// The row callbacks that the host's iterate suites call during the smart render. The iterate
// area is one column wide, so each call renders one whole output row: in steps of 64 pixels
// the output positions are mapped through the lens to input positions and the input is
// resampled there, by the host's sub-pixel sampler ("Built-in") or by the effect's own
// samplers (the other five filters).
#ifndef VT_HOST_RENDERROWS_H
#define VT_HOST_RENDERROWS_H

#include "AE_Effect.h"
#include "AE_EffectCB.h"
#include "AE_EffectSuites.h"
#include "host/SuiteHandler.h"
#include "lens/LensData.h"
#include "lens/RunMapping.h"
#include "resample/Samplers.h"

using SubpixelSample8Func = PF_Err (*)(PF_ProgPtr effect_ref, PF_Fixed x, PF_Fixed y,
                                       const PF_SampPB* params, PF_Pixel* dst_pixel);
using SubpixelSample16Func = PF_Err (*)(PF_ProgPtr effect_ref, PF_Fixed x, PF_Fixed y,
                                        const PF_SampPB* params, PF_Pixel16* dst_pixel);
using SubpixelSampleFloatFunc = PF_Err (*)(PF_ProgPtr effect_ref, PF_Fixed x, PF_Fixed y,
                                           const PF_SampPB* params, PF_PixelFloat* dst_pixel);

// What the smart render hands every row callback (as the iterate refcon). Only read by the
// callbacks, so any number of rows may run at once.
struct RenderData {
  VtAFXLensData* lensData;
  PF_InData* inData;             // the 8- and 16-bit callbacks reach utils through it
  PF_EffectWorld* inputWorld;
  PF_EffectWorld* outputWorld;
  PF_ProgPtr effectRef;
  PF_SampPB sampPB;              // for "Built-in": all 0 but src = the input world
  AEGP_SuiteHandler* suites;
  const PF_PixelDataSuite1* pixelDataSuite;  // the float callback's pixel address
  SubpixelSample8Func sample8;
  SubpixelSample16Func sample16;
  SubpixelSampleFloatFunc sampleFloat;
  // Chosen once per render by PlanRows, from the lens record, the input's depth and the
  // processor: the run mapping and the sampler (null for "Built-in" and unknown filters).
  RowStepMapper mapStep;
  ChosenSampler sampler;
};

// Fills mapStep and sampler for the record's mode, coefficients and filter, the depth, the
// rounding route and the vector width; to be called after the record is final for the frame.
void PlanRows(RenderData& rd, int bitDepth);

// Iterate callbacks: refcon is the RenderData, y the output row, out its first pixel; x and
// in are not used. They write the row's `width` pixels and return 0, or the error of the
// input pixel address call (then nothing of the row is written).
PF_Err DistortPixel8(void* refcon, A_long x, A_long y, PF_Pixel* in, PF_Pixel* out);
PF_Err DistortPixel16(void* refcon, A_long x, A_long y, PF_Pixel16* in, PF_Pixel16* out);
PF_Err DistortPixelFloat(void* refcon, A_long x, A_long y, PF_PixelFloat* in,
                         PF_PixelFloat* out);

#endif
