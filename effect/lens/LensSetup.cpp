// Setup of the lens record: the parameter fields from the checked-out parameters, then the
// frame transform, the output frame, the single-precision coefficient copies, the monotonic
// limit of the lens polynomial and the inverse-table scale.
//
// The order and precision of every step matter: the stored transform feeds both the scalar
// point mappings and the run mapping, and the pre-render's rectangles are derived from it, so
// each expression below is written out in the order it must be evaluated.
#include <cmath>
#include <cstdint>

#include "lens/LensData.h"
#include "lens/LensPolynomial.h"

namespace {

// A rectangle bound in layer pixels: truncated toward zero, but never outside +-1e9 (NaN
// counts as 0) so that the pre-render's margins of a few pixels cannot overflow int32.
int32_t RectBound(double v) {
  if (std::isnan(v)) return 0;
  if (v > 1e9) v = 1e9;
  if (v < -1e9) v = -1e9;
  return static_cast<int32_t>(v);
}

}  // namespace

int32_t PointToPixels(PF_Fixed v) {
  const float pixels = static_cast<float>(v) * (1.0f / 65536.0f);
  // The default rounding mode (nearest, ties to even) is never changed by the effect.
  const float rounded = std::nearbyint(pixels);
  // |v| / 65536 always fits in int32; the guards only keep the conversion total.
  if (std::isnan(rounded)) return 0;
  if (rounded <= -2147483648.0f) return INT32_MIN;
  if (rounded >= 2147483648.0f) return INT32_MAX;
  return static_cast<int32_t>(rounded);
}

void StoreLensParam(VtAFXLensData& lens, int32_t paramIndex, const PF_ParamDef& param) {
  switch (paramIndex) {
    case kParamMode: lens.distortMode = param.u.pd.value; break;
    case kParamFilter: lens.filterType = param.u.pd.value; break;
    case kParamDistortion: lens.quadratic = param.u.fs_d.value * 0.001; break;
    case kParamCubic: lens.cubic = param.u.fs_d.value * 0.001; break;
    case kParamQuartic: lens.quartic = param.u.fs_d.value * 0.001; break;
    case kParamZoom: lens.zoom = param.u.fs_d.value; break;
    case kParamDistortedSize:
      lens.distortedWidth = PointToPixels(param.u.td.x_value);
      lens.distortedHeight = PointToPixels(param.u.td.y_value);
      break;
    case kParamPixelAspect: lens.pixelAspect = param.u.fs_d.value; break;
    case kParamUndistortedSize:
      lens.undistortedWidth = PointToPixels(param.u.td.x_value);
      lens.undistortedHeight = PointToPixels(param.u.td.y_value);
      break;
    default: break;
  }
}

void FindMonotonicLimit(VtAFXLensData& lens) {
  lens.limitUndistorted = 0.0f;
  lens.limitDistorted = 0.0f;

  // The frame's corner radius plus 2 %: no point of the frame lies further out.
  const float aspect = lens.frameAspect;
  const float searchEnd = std::sqrt(aspect * aspect + 1.0f) * 1.02f;
  // A degenerate frame (zero height) has no finite corner; there is nothing to search then.
  if (!std::isfinite(searchEnd)) return;

  const LensPolynomial poly(lens);

  static const float kSteps[3] = {0.002f, 0.0006f, 0.00018f};
  float u = 0.0f;
  float r = 0.0f;
  for (float step : kSteps) {
    if (!(u < searchEnd)) break;
    for (;;) {
      const float next = u + step;
      // Once the step no longer moves u (only for absurdly wide frames) nothing can change
      // any more; stop rather than spin.
      if (next == u) break;
      if (poly.Slope(next) <= 0.0) break;
      const double rn = poly.Value(next);
      if (rn <= static_cast<double>(r)) break;
      lens.limitUndistorted = next;
      lens.limitDistorted = static_cast<float>(rn);
      u = next;
      r = lens.limitDistorted;
      if (!(next < searchEnd)) return;  // reached the corner: the finer passes are not needed
    }
  }
}

void SetupLensData(VtAFXLensData& lens) {
  const double wd = lens.distortedWidth;
  const double hd = lens.distortedHeight;
  const double wu = lens.undistortedWidth;
  const double hu = lens.undistortedHeight;
  const double pa = lens.pixelAspect;

  // The pixel aspect describes the undistorted image only when both images have one size.
  const bool sameSize = lens.undistortedWidth == lens.distortedWidth &&
                        lens.undistortedHeight == lens.distortedHeight;
  const double pu = sameSize ? pa : 1.0;
  const double aspect = (pu * wu) / hu;
  lens.frameAspect = static_cast<float>(aspect);

  if (lens.distortMode == kModeApply) {
    // Centred on the undistorted layer.
    lens.normScaleX = static_cast<float>((2.0 / wu) * aspect);
    lens.normScaleY = static_cast<float>(2.0 / hu);
    lens.normOffsetX = -lens.frameAspect;
    lens.normOffsetY = -1.0f;
    lens.pixScaleX = static_cast<float>((wu * 0.5) / aspect);
    lens.pixScaleY = static_cast<float>(hu * 0.5);
    lens.pixOffsetX = static_cast<float>(wu * 0.5);
    lens.pixOffsetY = static_cast<float>(hu * 0.5);
  } else {
    // Centred on the distorted layer; the pixel aspect enters directly and through the
    // frame aspect.
    lens.normScaleX = static_cast<float>(((2.0 / wu) * pa) * aspect);
    lens.normScaleY = static_cast<float>(2.0 / hu);
    lens.normOffsetX = static_cast<float>(-(wd * (pa * aspect)) / wu);
    lens.normOffsetY = -(static_cast<float>(lens.distortedHeight) /
                         static_cast<float>(lens.undistortedHeight));
    lens.pixScaleX = static_cast<float>((0.5 / (pa * aspect)) * wu);
    lens.pixScaleY = static_cast<float>(lens.undistortedHeight) * 0.5f;
    lens.pixOffsetX = static_cast<float>(wd * 0.5);
    lens.pixOffsetY = static_cast<float>(hd * 0.5);
  }

  // The normalised frame [-A, A] x [-1, 1] in layer pixels, from the double aspect.
  const double pixScaleX = lens.pixScaleX;
  const double pixScaleY = lens.pixScaleY;
  const double pixOffsetX = lens.pixOffsetX;
  const double pixOffsetY = lens.pixOffsetY;
  lens.maxResultRect.left = RectBound(pixOffsetX - pixScaleX * aspect);
  lens.maxResultRect.top = RectBound(pixOffsetY - pixScaleY);
  lens.maxResultRect.right = RectBound((pixScaleX * aspect + pixOffsetX) + 1.5);
  lens.maxResultRect.bottom = RectBound((pixScaleY + pixOffsetY) + 1.5);

  lens.quadraticF = static_cast<float>(lens.quadratic);
  lens.cubicF = static_cast<float>(lens.cubic);
  lens.quarticF = static_cast<float>(lens.quartic);
  lens.invZoom = static_cast<float>(1.0 / lens.zoom);

  FindMonotonicLimit(lens);

  lens.limitUndistortedSq = lens.limitUndistorted * lens.limitUndistorted;
  lens.lutScale = 2048.0f / lens.limitDistorted;
}
