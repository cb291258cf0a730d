// Internal to the run mapping: its 8-lane (AVX2) version, in a source of its own that is
// compiled for AVX2 (without fused multiply-add and without contraction) and reached only
// through ChooseRowStepMapper, when UseWideVectors() says the processor runs it.
#ifndef VT_LENS_RUNMAPPINGWIDE_H
#define VT_LENS_RUNMAPPINGWIDE_H

#include "lens/RunMapping.h"

// The wide mapper of Remove and of Apply through the inverse table (the solver has none:
// it works one element at a time); the instruction rounding route.
RowStepMapper WideRowStepMapper(const VtAFXLensData& lens);

#endif
