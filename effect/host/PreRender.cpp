#include "host/PreRender.h"

#include <algorithm>
#include <cstring>

#include "gulp/CpuFeatures.h"
#include "host/Params.h"
#include "host/Rects.h"
#include "lens/InverseTable.h"
#include "lens/PointMapping.h"

VtAFXLensData* SequenceLensData(PF_Handle sequenceData) {
  if (sequenceData == nullptr) {
    return nullptr;
  }
  return reinterpret_cast<VtAFXLensData*>(*sequenceData);
}

namespace {

VtPt UndistortMap(const VtAFXLensData& lens, VtPt p) {
  VtPt out;
  UndistortPt(&lens, p, &out);
  return out;
}

VtPt DistortMap(const VtAFXLensData& lens, VtPt p) { return DistortPt(lens, p); }

// Checks the nine parameters out at the current time. After the first failure the later
// ones are not checked out (their fields receive the cleared definition's 0) but every
// definition is still checked in. Returns the first checkout or checkin error.
PF_Err ReadParams(PF_InData* in_data, VtAFXLensData& lens) {
  PF_Err err = PF_Err_NONE;
  for (int32_t index = kParamMode; index < kParamCount; ++index) {
    PF_ParamDef def;
    std::memset(&def, 0, sizeof def);
    if (err == PF_Err_NONE) {
      err = in_data->inter.checkout_param(in_data->effect_ref, index, in_data->current_time,
                                          in_data->time_step, in_data->time_scale, &def);
    }
    StoreLensParam(lens, index, def);
    const PF_Err checkinErr = in_data->inter.checkin_param(in_data->effect_ref, &def);
    if (err == PF_Err_NONE) {
      err = checkinErr;
    }
  }
  return err;
}


}  // namespace

PF_Err SmartPreRender(PF_InData* in_data, PF_PreRenderExtra* extra) {
  VtAFXLensData* lensData = SequenceLensData(in_data->sequence_data);
  if (lensData == nullptr) {
    return PF_Err_INTERNAL_STRUCT_DAMAGED;
  }
  VtAFXLensData& lens = *lensData;

  PF_Err err = ReadParams(in_data, lens);
  CheckCPUFeatures();
  // The record is rebuilt even after a failed checkout, from whatever the fields now hold.
  SetupLensData(lens);
  BuildInverseTable(lens);
  if (err != PF_Err_NONE) {
    return err;
  }

  PF_PreRenderOutput& output = *extra->output;
  std::memset(&output, 0, sizeof output);

  PF_RenderRequest request = extra->input->output_request;
  IntersectRect(request.rect, lens.maxResultRect);
  output.result_rect = request.rect;

  // Output to input is the inverse of the effect's direction: Apply distorts, so its input
  // lies at the undistorted position of each output pixel.
  const bool apply = lens.distortMode == kModeApply;
  const RectPointMap outToIn = apply ? UndistortMap : DistortMap;
  const RectPointMap inToOut = apply ? DistortMap : UndistortMap;

  if (!IsEmptyRect(&request.rect)) {
    request.rect = MapRectBounds(request.rect, lens, outToIn);
  }
  request.field = PF_Field_FRAME;

  PF_CheckoutResult checkout;
  std::memset(&checkout, 0, sizeof checkout);
  err = extra->cb->checkout_layer(in_data->effect_ref, kParamInput, 0, &request,
                                  in_data->current_time, in_data->time_step,
                                  in_data->time_scale, &checkout);
  if (err == PF_Err_NONE) {
    const PF_LRect& supplied = checkout.result_rect;
    // When the host supplies less input than asked for, deliver only the output it covers.
    if (!SameRect(supplied, request.rect) && !IsEmptyRect(&supplied)) {
      IntersectRect(output.result_rect, MapRectBounds(supplied, lens, inToOut));
    }
  }
  output.max_result_rect = lens.maxResultRect;
  return err;
}
