// How the lens treats the plate's frame as a whole: the undistorted size that holds all of it
// (render --fit, info IMAGE), and how much of it lies beyond the radius the lens inverts.
#ifndef VT_CLI_FIT_H
#define VT_CLI_FIT_H

#include "AE_Effect.h"
#include "cli/lens/LensOptions.h"
#include "lens/LensData.h"

namespace veltrisca {

// The smallest undistorted size, not smaller than the distorted one and with even margins
// around it (so that the frames share their centre exactly), whose frame in a remove holds
// every border pixel of the distorted frame: each border pixel at distorted radius r appears
// at radius zoom * P^-1(r). Border pixels beyond the largest radius P reaches while it rises
// are held at that radius (they cannot be undone; UnreachableFraction tells how many).
ImageSize FitUndistortedSize(const LensSettings& lens, ImageSize distorted);

// The largest distorted radius the lens can undo: in Remove the top of P's first rising
// stretch (infinity when it rises beyond u = 64); in Apply the record's limitDistorted, beyond
// which the effect holds the undistorted radius.
double UndoableRadius(const LensSettings& settings, const VtAFXLensData& lens);

// The fraction of the pixels of `distortedFrame` (layer pixels) whose distorted radius lies
// at or beyond `limit`.
double UnreachableFraction(const VtAFXLensData& lens, int mode, const PF_LRect& distortedFrame,
                           double limit);

}  // namespace veltrisca

#endif
