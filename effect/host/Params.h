// The effect's nine user parameters, declared to the host in a fixed order. The position of a
// parameter is the index under which the pre-render checks its value out, so this order binds
// both commands.
#ifndef VT_HOST_PARAMS_H
#define VT_HOST_PARAMS_H

#include <cstdint>

#include "AE_Effect.h"

enum ParamIndex : int32_t {
  kParamInput = 0,  // the input layer, supplied by the host
  kParamMode,
  kParamFilter,
  kParamDistortion,
  kParamCubic,
  kParamQuartic,
  kParamZoom,
  kParamDistortedSize,
  kParamPixelAspect,
  kParamUndistortedSize,
  kParamCount
};

// Four-character ids under which the host stores the parameters in its projects.
constexpr int32_t kParamIdMode = 0x6D6F6465;              // 'mode'
constexpr int32_t kParamIdFilter = 0x66696C74;            // 'filt'
constexpr int32_t kParamIdDistortion = 0x71756164;        // 'quad'
constexpr int32_t kParamIdCubic = 0x63756265;             // 'cube'
constexpr int32_t kParamIdQuartic = 0x71756172;           // 'quar'
constexpr int32_t kParamIdZoom = 0x7A6F6F6D;              // 'zoom'
constexpr int32_t kParamIdDistortedSize = 0x696D737A;     // 'imsz'
constexpr int32_t kParamIdPixelAspect = 0x70617370;       // 'pasp'
constexpr int32_t kParamIdUndistortedSize = 0x7064737A;   // 'pdsz'

// Popup values (1-based).
constexpr int32_t kModeRemove = 1;
constexpr int32_t kModeApply = 2;
constexpr int32_t kFilterBuiltIn = 1;
constexpr int32_t kFilterNearest = 2;
constexpr int32_t kFilterBiLinear = 3;
constexpr int32_t kFilterLanczos2 = 4;
constexpr int32_t kFilterLanczos3 = 5;
constexpr int32_t kFilterMitchell = 6;

// PF_Cmd_PARAMS_SETUP: declares the nine parameters with add_param, stopping at the first
// failure (all nine definitions are still built), and sets num_params to 10. Returns the
// first add_param error, else 0.
PF_Err SetupParams(PF_InData* in_data, PF_OutData* out_data);

#endif
