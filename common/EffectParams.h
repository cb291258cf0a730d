// The effect's parameter set as every party sees it: the effect declares it, the substitute
// host checks values out under it, the command-line tool parses options into it. Nothing
// here needs the host API's headers.
#ifndef VT_COMMON_EFFECTPARAMS_H
#define VT_COMMON_EFFECTPARAMS_H

#include <xmmintrin.h>

#include <cstdint>

// The position of a parameter is the index under which the pre-render checks its value out,
// so this order binds the declaration and the checkout.
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

// Popup values (1-based). A mode other than Apply is taken as Remove.
constexpr int32_t kModeRemove = 1;
constexpr int32_t kModeApply = 2;

constexpr int32_t kFilterBuiltIn = 1;
constexpr int32_t kFilterNearest = 2;
constexpr int32_t kFilterBiLinear = 3;
constexpr int32_t kFilterLanczos2 = 4;
constexpr int32_t kFilterLanczos3 = 5;
constexpr int32_t kFilterMitchell = 6;

// Lanczos-2, Lanczos-3 and Mitchell-Netravali: the filters whose kernels have negative lobes,
// so that what they compute is clipped to the range of the pixel depth.
constexpr bool IsKernelFilter(int32_t filter) {
  return filter == kFilterLanczos2 || filter == kFilterLanczos3 || filter == kFilterMitchell;
}

// A float slider: its valid range (also the slider's range), default and displayed
// decimals. The bounds are the values declared to the host, which stores them in single
// precision.
struct SliderRange {
  double minimum;
  double maximum;
  double dephault;
  int16_t precision;
};

// Both size points default to 100 by 100 pixels.
constexpr int32_t kSizeDefaultPixels = 100;

enum class ParamKind { kPopup, kFloatSlider, kPoint };

// One choice of a popup: the text the host shows and the word the command-line tool and the
// lens files take for it; `gloss` explains it in the tool's help (may be null).
struct ParamChoice {
  const char* hostText;
  const char* word;
  const char* gloss;
};

// The values a host holds for the nine parameters at one time, as the tool sets them and the
// substitute host checks them out (the sizes in pixels, before the conversion to 16.16).
struct EffectParamValues;

// Everything known about one parameter, for every party that handles it:
//   the effect declares it (id, kind, name text, choices, range, flags),
//   the substitute host checks its value out of EffectParamValues (the member pointers),
//   the tool registers, documents and parses its option and keeps it in lens files and in
//   the lens it records in an output (option, valueName, help, lensKey).
struct ParamEntry {
  ParamIndex index;
  int32_t id;             // four characters, the first in the most significant byte
  ParamKind kind;
  const char* hostName;   // the name the host shows
  int32_t hostNameText;   // the entry of the effect's string table that holds hostName
  bool cannotInterpolate;
  // Popups.
  const ParamChoice* choices;
  int32_t choiceCount;
  int32_t choicesText;    // the string-table entry of the choices joined by '|'
  int32_t defaultChoice;  // 1-based
  // Sliders.
  SliderRange range;
  // Where the substitute host finds the value.
  int EffectParamValues::*choiceValue;
  double EffectParamValues::*numberValue;
  double EffectParamValues::*xValue;
  double EffectParamValues::*yValue;
  // The command-line tool and its lens files.
  const char* option;     // "--distortion"
  const char* valueName;  // in the help: "X", "WxH", "MODE", "NAME"
  const char* help;       // after the generated part (name and range, or the choices); may be ""
  bool defaultFromImage;  // the tool's default is the image's, not the host's
  const char* lensKey;    // the key in lens files and recorded lenses
};

constexpr ParamChoice kModeChoiceList[] = {
    {"Remove", "remove", "distorted plate -> undistorted image"},
    {"Apply", "apply", nullptr},
};
constexpr ParamChoice kFilterChoiceList[] = {
    {"Built-in", "builtin", nullptr},    {"Nearest", "nearest", nullptr},
    {"BiLinear", "bilinear", nullptr},   {"Lanczos-2", "lanczos2", nullptr},
    {"Lanczos-3", "lanczos3", nullptr},  {"Mitchell-Netravali", "mitchell", nullptr},
};

constexpr SliderRange kCoefficientRange{-20000.0, 20000.0, 0.0, 2};  // quad, cube, quar (x1000)
constexpr SliderRange kZoomRange{0.0, 10.0, 1.0, 3};
constexpr SliderRange kPixelAspectRange{0.1, 10.0, 1.0, 3};

constexpr int32_t kModeChoices = sizeof kModeChoiceList / sizeof kModeChoiceList[0];
constexpr int32_t kFilterChoices = sizeof kFilterChoiceList / sizeof kFilterChoiceList[0];
constexpr int32_t kDefaultMode = kModeRemove;
constexpr int32_t kDefaultFilter = kFilterLanczos2;

struct EffectParamValues {
  int mode = kDefaultMode;
  int filter = kDefaultFilter;
  double distortion = kCoefficientRange.dephault;  // the X1000 slider values
  double cubic = kCoefficientRange.dephault;
  double quartic = kCoefficientRange.dephault;
  double zoom = kZoomRange.dephault;
  double distortedWidth = 1920, distortedHeight = 1080;
  double pixelAspect = kPixelAspectRange.dephault;
  double undistortedWidth = 1920, undistortedHeight = 1080;
};

namespace param_table_detail {
constexpr SliderRange kNoRange{0, 0, 0, 0};
constexpr ParamEntry Popup(ParamIndex index, int32_t id, const char* name, int32_t nameText,
                           bool cannotInterpolate, const ParamChoice* choices, int32_t count,
                           int32_t choicesText, int32_t dephault, int EffectParamValues::*value,
                           const char* option, const char* valueName, const char* help,
                           const char* key) {
  return ParamEntry{index,   id,          ParamKind::kPopup, name,    nameText, cannotInterpolate,
                    choices, count,       choicesText,       dephault, kNoRange, value,
                    nullptr, nullptr,     nullptr,           option,  valueName, help,
                    false,   key};
}
constexpr ParamEntry Slider(ParamIndex index, int32_t id, const char* name, int32_t nameText,
                            bool cannotInterpolate, SliderRange range,
                            double EffectParamValues::*value, const char* option,
                            const char* help, bool defaultFromImage, const char* key) {
  return ParamEntry{index,   id,       ParamKind::kFloatSlider, name,    nameText,
                    cannotInterpolate, nullptr, 0,              0,       0,
                    range,   nullptr,  value,                   nullptr, nullptr,
                    option,  "X",      help,                    defaultFromImage, key};
}
constexpr ParamEntry Point(ParamIndex index, int32_t id, const char* name, int32_t nameText,
                           double EffectParamValues::*x, double EffectParamValues::*y,
                           const char* option, const char* help, const char* key) {
  return ParamEntry{index,   id,      ParamKind::kPoint, name,   nameText, false,
                    nullptr, 0,       0,                 0,      kNoRange, nullptr,
                    nullptr, x,       y,                 option, "WxH",    help,
                    true,    key};
}
}  // namespace param_table_detail

// The nine parameters in the order of their indices (entry i - 1 is index i). The ids are
// the four characters under which the host stores the parameters in its projects; the name
// texts are entries of the effect's string table, not in parameter order.
constexpr ParamEntry kParamTable[kParamCount - 1] = {
    param_table_detail::Popup(
        kParamMode, 0x6D6F6465 /* 'mode' */, "DistortMode", 5, true, kModeChoiceList,
        kModeChoices, 6, kDefaultMode, &EffectParamValues::mode, "--mode", "MODE",
        "(default: remove, or the inverse of what an input's recorded lens says was done)",
        "mode"),
    param_table_detail::Popup(kParamFilter, 0x66696C74 /* 'filt' */, "FilterType", 7, false,
                              kFilterChoiceList, kFilterChoices, 8, kDefaultFilter,
                              &EffectParamValues::filter, "--filter", "NAME", "", "filter"),
    param_table_detail::Slider(kParamDistortion, 0x71756164 /* 'quad' */, "DistortionX1000", 9,
                               false, kCoefficientRange, &EffectParamValues::distortion,
                               "--distortion", "", false, "distortion"),
    param_table_detail::Slider(kParamCubic, 0x63756265 /* 'cube' */, "CubicX1000", 10, false,
                               kCoefficientRange, &EffectParamValues::cubic, "--cubic", "",
                               false, "cubic"),
    param_table_detail::Slider(kParamQuartic, 0x71756172 /* 'quar' */, "QuarticX1000", 11,
                               false, kCoefficientRange, &EffectParamValues::quartic,
                               "--quartic", "", false, "quartic"),
    param_table_detail::Slider(kParamZoom, 0x7A6F6F6D /* 'zoom' */, "ZoomFactor", 12, false,
                               kZoomRange, &EffectParamValues::zoom, "--zoom", "", false,
                               "zoom"),
    param_table_detail::Point(
        kParamDistortedSize, 0x696D737A /* 'imsz' */, "DistortedImgSize", 13,
        &EffectParamValues::distortedWidth, &EffectParamValues::distortedHeight,
        "--distorted-size", "(default: the input layer in remove, else the undistorted size)",
        "distortedSize"),
    param_table_detail::Slider(kParamPixelAspect, 0x70617370 /* 'pasp' */, "PixelAspect", 15,
                               true, kPixelAspectRange, &EffectParamValues::pixelAspect,
                               "--pixel-aspect", "(default: the image file's, else 1)", true,
                               "pixelAspect"),
    param_table_detail::Point(
        kParamUndistortedSize, 0x7064737A /* 'pdsz' */, "UndistortedImgSize", 14,
        &EffectParamValues::undistortedWidth, &EffectParamValues::undistortedHeight,
        "--undistorted-size", "(default: the input layer in apply, else the distorted size)",
        "undistortedSize"),
};

constexpr bool ParamTableInIndexOrder() {
  for (int32_t i = 0; i < kParamCount - 1; ++i) {
    if (kParamTable[i].index != i + 1) return false;
  }
  return true;
}
static_assert(ParamTableInIndexOrder(), "entry i - 1 of the table is parameter i");

// The entry of parameter `index` (kParamMode .. kParamUndistortedSize).
constexpr const ParamEntry& Param(int32_t index) { return kParamTable[index - kParamMode]; }

// True when every parameter holds the same value in `a` and `b`: what a host would check out
// is the same.
inline bool SameParamValues(const EffectParamValues& a, const EffectParamValues& b) {
  for (const ParamEntry& p : kParamTable) {
    switch (p.kind) {
      case ParamKind::kPopup:
        if (a.*p.choiceValue != b.*p.choiceValue) return false;
        break;
      case ParamKind::kFloatSlider:
        if (a.*p.numberValue != b.*p.numberValue) return false;
        break;
      case ParamKind::kPoint:
        if (a.*p.xValue != b.*p.xValue || a.*p.yValue != b.*p.yValue) return false;
        break;
    }
  }
  return true;
}

// A position in pixels as the host's 16.16 fixed point: the product x * 65536 in single
// precision, rounded to nearest (ties to even). Positions beyond the int32 range saturate;
// NaN becomes the most negative value, far outside any image.
inline int32_t PixelsToFixed(float x) {
  const float fixed = x * 65536.0f;
  if (!(fixed >= -2147483648.0f)) {  // also NaN
    return INT32_MIN;
  }
  if (fixed >= 2147483648.0f) {
    return INT32_MAX;
  }
  // The conversion rounds in the current mode, which the program leaves at nearest-even.
  return _mm_cvtss_si32(_mm_set_ss(fixed));
}

#endif  // VT_COMMON_EFFECTPARAMS_H
