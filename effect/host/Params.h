// The declaration of the effect's nine user parameters (indices, ids, popup values and slider
// ranges: common/EffectParams.h).
#ifndef VT_HOST_PARAMS_H
#define VT_HOST_PARAMS_H

#include <cstdint>

#include "AE_Effect.h"
#include "common/EffectParams.h"

// PF_Cmd_PARAMS_SETUP: declares the nine parameters with add_param, stopping at the first
// failure (all nine definitions are still built), and sets num_params to 10. Returns the
// first add_param error, else 0.
PF_Err SetupParams(PF_InData* in_data, PF_OutData* out_data);

#endif
