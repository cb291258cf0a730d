#include "host/EntryPoint.h"

#include "AE_EffectCB.h"
#include "OsHandles.h"
#include "host/Params.h"
#include "host/PreRender.h"
#include "host/SmartRender.h"
#include "host/Strings.h"
#include "lens/LensData.h"

namespace {

PF_Err About(PF_InData* in_data, PF_OutData* out_data) {
  in_data->utils->ansi.sprintf(out_data->return_msg, "%s %d.%d\r\r%s", GetStringPtr(kStrName),
                               kMajorVersion, kMinorVersion, GetStringPtr(kStrDescription));
  return PF_Err_NONE;
}

PF_Err GlobalSetup(PF_OutData* out_data) {
  out_data->my_version =
      PF_VERSION(kMajorVersion, kMinorVersion, kBugVersion, PF_Stage_DEVELOP, kBuildVersion);
  out_data->out_flags |= PF_OutFlag_DEEP_COLOR_AWARE | PF_OutFlag_USE_OUTPUT_EXTENT;
  // Assigned, not added: these are all the second flags the effect claims.
  out_data->out_flags2 = PF_OutFlag2_SUPPORTS_QUERY_DYNAMIC_FLAGS |
                         PF_OutFlag2_PARAM_GROUP_START_COLLAPSED_FLAG |
                         PF_OutFlag2_SUPPORTS_SMART_RENDER | PF_OutFlag2_FLOAT_COLOR_AWARE;
  return PF_Err_NONE;
}

// A fresh lens record in a new handle; only distortMode is set (to "not yet pre-rendered"),
// the pre-render fills the rest before anything reads it.
PF_Err AllocateSequenceData(PF_InData* in_data, PF_OutData* out_data) {
  PF_Handle handle = in_data->utils->host_new_handle != nullptr
                         ? in_data->utils->host_new_handle(kLensDataSize)
                         : NewHandle(kLensDataSize);
  out_data->sequence_data = handle;
  // A handle without a block behind it is as unusable as no handle at all.
  VtAFXLensData* lens = SequenceLensData(handle);
  if (lens == nullptr) {
    in_data->utils->ansi.strcpy(out_data->return_msg, GetStringPtr(kStrErrorLoadingSuite));
    out_data->out_flags |= PF_OutFlag_DISPLAY_ERROR_MESSAGE;
    return PF_Err_INTERNAL_STRUCT_DAMAGED;
  }
  lens->distortMode = -1;
  out_data->flat_sdata_size = kLensDataSize;
  return PF_Err_NONE;
}

// Frees the handle the host passed in, if any; true when one was freed.
bool FreeSequenceData(PF_InData* in_data) {
  PF_Handle handle = in_data->sequence_data;
  if (handle == nullptr) {
    return false;
  }
  if (in_data->utils->host_dispose_handle != nullptr) {
    in_data->utils->host_dispose_handle(handle);
  } else {
    DisposeHandle(handle);
  }
  return true;
}

PF_Err Dispatch(PF_Cmd cmd, PF_InData* in_data, PF_OutData* out_data, void* extra) {
  // Unsigned, so that negative codes fall to the default like every other unknown code.
  switch (static_cast<A_u_long>(cmd)) {
    case PF_Cmd_ABOUT:
      return About(in_data, out_data);
    case PF_Cmd_GLOBAL_SETUP:
      return GlobalSetup(out_data);
    case PF_Cmd_PARAMS_SETUP:
      return SetupParams(in_data, out_data);
    case PF_Cmd_SEQUENCE_SETUP:
      return AllocateSequenceData(in_data, out_data);
    case PF_Cmd_SEQUENCE_RESETUP:
      // Nothing of the old block is carried over.
      FreeSequenceData(in_data);
      return AllocateSequenceData(in_data, out_data);
    case PF_Cmd_SEQUENCE_SETDOWN:
      if (FreeSequenceData(in_data)) {
        out_data->sequence_data = nullptr;
        in_data->sequence_data = nullptr;
      }
      return PF_Err_NONE;
    case PF_Cmd_SMART_PRE_RENDER:
      return SmartPreRender(in_data, static_cast<PF_PreRenderExtra*>(extra));
    case PF_Cmd_SMART_RENDER:
      return SmartRender(in_data, out_data, static_cast<PF_SmartRenderExtra*>(extra));
    default:
      return PF_Err_NONE;
  }
}

}  // namespace

PF_Err EntryPointFunc(PF_Cmd cmd, PF_InData* in_data, PF_OutData* out_data, PF_ParamDef*[],
                      PF_LayerDef*, void* extra) {
  try {
    return Dispatch(cmd, in_data, out_data, extra);
  } catch (PF_Err thrown) {
    // A missing host suite; the render has already released what it held.
    return thrown;
  }
}
