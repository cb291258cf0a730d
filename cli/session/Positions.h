// Positions computed with the effect's own code, which the tool links (its build is the
// plug-in's: EffectSession refuses a plug-in of another build).
#ifndef VT_CLI_SESSION_POSITIONS_H
#define VT_CLI_SESSION_POSITIONS_H

#include <vector>

#include "AE_Effect.h"
#include "lens/LensData.h"

namespace veltrisca {

// The input positions (layer pixels) that the effect's run mapping gives for the output
// pixels of `window`, row by row, x and y interleaved: exactly the positions the row render
// hands its samplers (before it moves them into an input buffer placed at the layer origin).
// The lens record must come from a pre-render of the effect.
std::vector<float> MapWindow(const VtAFXLensData& lens, const PF_LRect& window);

}  // namespace veltrisca

#endif
