#include "host/Params.h"

#include <cstring>

#include "AE_EffectCB.h"
#include "host/Strings.h"

namespace {

constexpr PF_Fixed kPointDefault = kSizeDefaultPixels << 16;  // in 16.16 fixed point

void SetPopup(PF_ParamDef& def, A_short numChoices, StringId choices, A_short dephault) {
  def.param_type = PF_Param_POPUP;
  def.u.pd.num_choices = numChoices;
  def.u.pd.dephault = dephault;
  def.u.pd.value = dephault;
  // Points into the static string table, so it stays valid after the command.
  def.u.pd.u.namesptr = GetStringPtr(choices);
}

void SetFloatSlider(PF_ParamDef& def, const SliderRange& range) {
  def.param_type = PF_Param_FLOAT_SLIDER;
  def.u.fs_d.valid_min = static_cast<float>(range.minimum);
  def.u.fs_d.slider_min = static_cast<float>(range.minimum);
  def.u.fs_d.valid_max = static_cast<float>(range.maximum);
  def.u.fs_d.slider_max = static_cast<float>(range.maximum);
  def.u.fs_d.dephault = static_cast<float>(range.dephault);
  def.u.fs_d.value = range.dephault;
  def.u.fs_d.precision = range.precision;
}

void SetPoint(PF_ParamDef& def) {
  def.param_type = PF_Param_POINT;
  def.u.td.x_dephault = kPointDefault;
  def.u.td.y_dephault = kPointDefault;
}

// Fills the cleared definition of parameter `index` and returns the id of its name text.
StringId FillParamDef(int32_t index, PF_ParamDef& def) {
  switch (index) {
    case kParamMode:
      def.uu.id = kParamIdMode;
      def.flags = PF_ParamFlag_CANNOT_INTERP;
      SetPopup(def, kModeChoices, kStrModeChoices, kModeRemove);
      return kStrModeName;
    case kParamFilter:
      def.uu.id = kParamIdFilter;
      SetPopup(def, kFilterChoices, kStrFilterChoices, kFilterLanczos2);
      return kStrFilterName;
    case kParamDistortion:
      def.uu.id = kParamIdDistortion;
      SetFloatSlider(def, kCoefficientRange);
      return kStrDistortionName;
    case kParamCubic:
      def.uu.id = kParamIdCubic;
      SetFloatSlider(def, kCoefficientRange);
      return kStrCubicName;
    case kParamQuartic:
      def.uu.id = kParamIdQuartic;
      SetFloatSlider(def, kCoefficientRange);
      return kStrQuarticName;
    case kParamZoom:
      def.uu.id = kParamIdZoom;
      SetFloatSlider(def, kZoomRange);
      return kStrZoomName;
    case kParamDistortedSize:
      def.uu.id = kParamIdDistortedSize;
      SetPoint(def);
      return kStrDistortedSizeName;
    case kParamPixelAspect:
      def.uu.id = kParamIdPixelAspect;
      def.flags = PF_ParamFlag_CANNOT_INTERP;
      SetFloatSlider(def, kPixelAspectRange);
      return kStrPixelAspectName;
    case kParamUndistortedSize:
    default:
      def.uu.id = kParamIdUndistortedSize;
      SetPoint(def);
      return kStrUndistortedSizeName;
  }
}

}  // namespace

PF_Err SetupParams(PF_InData* in_data, PF_OutData* out_data) {
  PF_Err err = PF_Err_NONE;
  for (int32_t index = kParamMode; index < kParamCount; ++index) {
    PF_ParamDef def;
    std::memset(&def, 0, sizeof def);
    const StringId name = FillParamDef(index, def);
    in_data->utils->ansi.strcpy(def.name, GetStringPtr(name));
    // After the first refusal nothing more is added; the definitions are still built.
    if (err == PF_Err_NONE) {
      err = in_data->inter.add_param(in_data->effect_ref, -1, &def);
    }
  }
  out_data->num_params = kParamCount;
  return err;
}
