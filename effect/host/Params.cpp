#include "host/Params.h"

#include <cstring>

#include "AE_EffectCB.h"
#include "host/Strings.h"

namespace {

constexpr PF_Fixed kPointDefault = kSizeDefaultPixels << 16;  // in 16.16 fixed point

// Fills the cleared definition of `param` as the parameter table describes it.
void FillParamDef(const ParamEntry& param, PF_ParamDef& def) {
  def.uu.id = param.id;
  if (param.cannotInterpolate) def.flags = PF_ParamFlag_CANNOT_INTERP;
  switch (param.kind) {
    case ParamKind::kPopup:
      def.param_type = PF_Param_POPUP;
      def.u.pd.num_choices = static_cast<A_short>(param.choiceCount);
      def.u.pd.dephault = static_cast<A_short>(param.defaultChoice);
      def.u.pd.value = param.defaultChoice;
      // Points into the static string table, so it stays valid after the command.
      def.u.pd.u.namesptr = GetStringPtr(param.choicesText);
      break;
    case ParamKind::kFloatSlider:
      def.param_type = PF_Param_FLOAT_SLIDER;
      def.u.fs_d.valid_min = static_cast<float>(param.range.minimum);
      def.u.fs_d.slider_min = static_cast<float>(param.range.minimum);
      def.u.fs_d.valid_max = static_cast<float>(param.range.maximum);
      def.u.fs_d.slider_max = static_cast<float>(param.range.maximum);
      def.u.fs_d.dephault = static_cast<float>(param.range.dephault);
      def.u.fs_d.value = param.range.dephault;
      def.u.fs_d.precision = param.range.precision;
      break;
    case ParamKind::kPoint:
      def.param_type = PF_Param_POINT;
      def.u.td.x_dephault = kPointDefault;
      def.u.td.y_dephault = kPointDefault;
      break;
  }
}

}  // namespace

PF_Err SetupParams(PF_InData* in_data, PF_OutData* out_data) {
  PF_Err err = PF_Err_NONE;
  for (const ParamEntry& param : kParamTable) {
    PF_ParamDef def;
    std::memset(&def, 0, sizeof def);
    FillParamDef(param, def);
    in_data->utils->ansi.strcpy(def.name, GetStringPtr(param.hostNameText));
    // After the first refusal nothing more is added; the definitions are still built.
    if (err == PF_Err_NONE) {
      err = in_data->inter.add_param(in_data->effect_ref, -1, &def);
    }
  }
  out_data->num_params = kParamCount;
  return err;
}
