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

// Popup values (1-based). A mode other than Apply is taken as Remove.
constexpr int32_t kModeRemove = 1;
constexpr int32_t kModeApply = 2;
constexpr int32_t kModeChoices = 2;

constexpr int32_t kFilterBuiltIn = 1;
constexpr int32_t kFilterNearest = 2;
constexpr int32_t kFilterBiLinear = 3;
constexpr int32_t kFilterLanczos2 = 4;
constexpr int32_t kFilterLanczos3 = 5;
constexpr int32_t kFilterMitchell = 6;
constexpr int32_t kFilterChoices = 6;

// A float slider: its valid range (also the slider's range), default and displayed
// decimals. The bounds are the values declared to the host, which stores them in single
// precision.
struct SliderRange {
  double minimum;
  double maximum;
  double dephault;
  int16_t precision;
};
constexpr SliderRange kCoefficientRange{-20000.0, 20000.0, 0.0, 2};  // quad, cube, quar (x1000)
constexpr SliderRange kZoomRange{0.0, 10.0, 1.0, 3};
constexpr SliderRange kPixelAspectRange{0.1, 10.0, 1.0, 3};

// Both size points default to 100 by 100 pixels.
constexpr int32_t kSizeDefaultPixels = 100;

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
