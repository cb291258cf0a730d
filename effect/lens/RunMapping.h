// The lens mapping for one step of up to 64 output positions, used by the row callbacks.
#ifndef VT_LENS_RUNMAPPING_H
#define VT_LENS_RUNMAPPING_H

#include "gulp/FGulp.h"
#include "lens/LensData.h"

// Maps output positions (layer pixels) to input positions (layer pixels). Remove evaluates
// the forward polynomial directly (beyond the monotonic limit too); Apply interpolates the
// inverse table when it is valid and otherwise solves each element. Requires that
// CheckCPUFeatures has run (modf picks its rounding route from it) and finite positions.
void MapOutToInPt(const VtAFXLensData* lens, const FGulpPt& out, FGulpPt& in);

// The layer position of an input buffer's top-left pixel.
struct BufferOrigin {
  float x, y;
};

// The output positions of one step of a row: x0, x0 + 1, ... (len of them, at most 64, as
// FGulp::Iota(x0, 1) forms them) on row y.
struct RowStep {
  float x0, y;
  int len;
};

// MapOutToInPt of the runs of a row step, without storing the output positions first, then
// each input position less the buffer's origin (one subtraction per element; a zero origin
// gives every position back bit for bit), in the same pass: positions in the pixels of an
// input buffer placed at `origin`.
void MapRowStepToBufferPt(const VtAFXLensData* lens, const RowStep& step, FGulpPt& in,
                          const BufferOrigin& origin);

// MapRowStepToBufferPt with its choices made: the mode, the case of the coefficients, the
// rounding route and the vector width. ChooseRowStepMapper makes them from the record and
// the processor, once per render; the mapper stays right while the record is not rewritten.
using RowStepMapper = void (*)(const VtAFXLensData* lens, const RowStep& step, FGulpPt& in,
                               const BufferOrigin& origin);
RowStepMapper ChooseRowStepMapper(const VtAFXLensData& lens);

// Internal: ratio takes r's length and, for exactly that many elements, the ratio u/r of
// the inverse polynomial (1 where r is 0), one element at a time. Elements past the length
// are left alone.
void SolveUndistortRatios(const VtAFXLensData& lens, const FGulp& r, FGulp& ratio);

#endif
