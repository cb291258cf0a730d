#include "lens/PointMapping.h"

#include <cmath>

#include "lens/LensPolynomial.h"

float UndistortRatio(const VtAFXLensData& lens, float r) {
  if (r == 0.0f) return 1.0f;

  double u;
  if (r >= lens.limitDistorted) {
    // Beyond the limit P no longer rises (or was not searched): hold the radius there.
    u = lens.limitUndistorted;
  } else {
    const LensPolynomial poly(lens);
    const double target = r;
    u = target;
    for (int update = 0; update < 20; ++update) {
      const double e = target - poly.Value(u);
      if (-0.000001 < e && e < 0.000001) break;
      u = u + e / poly.Slope(u);
    }
    // Twenty updates without meeting the tolerance: the last estimate stands.
  }
  return static_cast<float>(u / static_cast<double>(r));
}

void UndistortPt(const VtAFXLensData* lens, const VtPt& in, VtPt* out) {
  const float xn = in.x * lens->normScaleX + lens->normOffsetX;
  const float yn = in.y * lens->normScaleY + lens->normOffsetY;
  const float r = std::sqrt(yn * yn + xn * xn);
  const double ratio = r == 0.0f ? 1.0 : static_cast<double>(UndistortRatio(*lens, r));
  const float s = static_cast<float>(ratio * lens->zoom);
  out->x = (xn * s) * lens->pixScaleX + lens->pixOffsetX;
  out->y = (yn * s) * lens->pixScaleY + lens->pixOffsetY;
}

VtPt DistortPt(const VtAFXLensData& lens, VtPt p) {
  // The zoom scales the normalised position, after the affine step.
  const float xn = lens.invZoom * (p.x * lens.normScaleX + lens.normOffsetX);
  const float yn = lens.invZoom * (p.y * lens.normScaleY + lens.normOffsetY);
  float s2 = yn * yn + xn * xn;
  // Beyond the monotonic limit the factor stays at its limit value: a linear continuation
  // instead of a fold.
  s2 = std::fmin(lens.limitUndistortedSq, s2);

  const float k2 = lens.quadraticF;
  const float k3 = lens.cubicF;
  const float k4 = lens.quarticF;
  float p2;
  if (k4 != 0.0f) {
    if (k3 != 0.0f) {
      p2 = (k4 * s2 + (k2 + k3 * std::sqrt(s2))) * s2;
    } else {
      p2 = (k2 + k4 * s2) * s2;
    }
  } else if (k3 != 0.0f) {
    p2 = (k2 + k3 * std::sqrt(s2)) * s2;
  } else {
    p2 = k2 * s2;
  }
  const float f = p2 + 1.0f;

  VtPt result;
  result.x = (xn * f) * lens.pixScaleX + lens.pixOffsetX;
  result.y = (yn * f) * lens.pixScaleY + lens.pixOffsetY;
  return result;
}
