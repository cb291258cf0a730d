#include "lens/RunMapping.h"

#include "lens/PointMapping.h"

void SolveUndistortRatios(const VtAFXLensData& lens, const FGulp& r, FGulp& ratio) {
  ratio.SetLen(r.len, 0);
  for (int k = 0; k < ratio.len; ++k) {
    const float radius = r[k];
    ratio[k] = radius == 0.0f ? 1.0f : UndistortRatio(lens, radius);
  }
}

namespace {

// Apply: an output pixel at distorted radius r reads the input at the undistorted radius
// P^-1(r), scaled by the zoom.
void ApplyToNormalised(const VtAFXLensData& lens, const FGulpPt& out, FGulp& xs, FGulp& ys) {
  FGulp xn;
  FGulp yn;
  xn.muladd(out.x, lens.normScaleX, lens.normOffsetX);
  yn.muladd(out.y, lens.normScaleY, lens.normOffsetY);
  FGulp r;
  r.hypot(xn, yn);

  FGulp ratio;
  if (lens.tableValid != 0) {
    // The clamp keeps every index within 0..2048; entry 2049 serves index 2048.
    FGulp t;
    t.LUTscale(r, lens.lutScale, 2048.0f);
    FGulp index;
    FGulp frac;
    frac.modf(t, index);
    FGulp lo;
    FGulp hi;
    lo.gatherLUT(lens.inverseTable, index);
    hi.gatherLUT(lens.inverseTable + 1, index);
    FGulp u;
    u.blend(lo, hi, frac);
    ratio.divCHKZ(u, r);  // the centre keeps u = entry 0 = 0
  } else {
    SolveUndistortRatios(lens, r, ratio);
  }

  const float zoom = static_cast<float>(lens.zoom);
  xs.mulmul(zoom, xn, ratio);
  ys.mulmul(zoom, yn, ratio);
}

// Remove: an output pixel at undistorted radius m (after the zoom) reads the input at the
// distorted radius P(m). The polynomial is evaluated as it is, beyond the limit too.
void RemoveToNormalised(const VtAFXLensData& lens, const FGulpPt& out, FGulp& xs, FGulp& ys) {
  // The zoom is folded into the affine step.
  const float scaleX = lens.normScaleX * lens.invZoom;
  const float offsetX = lens.invZoom * lens.normOffsetX;
  const float scaleY = lens.normScaleY * lens.invZoom;
  const float offsetY = lens.invZoom * lens.normOffsetY;
  FGulp xn;
  FGulp yn;
  xn.muladd(out.x, scaleX, offsetX);
  yn.muladd(out.y, scaleY, offsetY);
  FGulp s2;
  s2.sumsq(xn, yn);

  const float k2 = lens.quadraticF;
  const float k3 = lens.cubicF;
  const float k4 = lens.quarticF;
  FGulp f;
  FGulp t;
  if (k4 != 0.0f) {
    if (k3 != 0.0f) {
      t.sqrt(s2);
      t.muladd(t, k3, k2);
      t.muladd(k4, s2, t);
      f.muladd(t, s2, 1.0f);
    } else {
      t.muladd(k4, s2, k2);
      f.muladd(t, s2, 1.0f);
    }
  } else if (k3 != 0.0f) {
    t.sqrt(s2);
    t.muladd(t, k3, k2);
    f.muladd(t, s2, 1.0f);
  } else {
    f.muladd(s2, k2, 1.0f);
  }

  xs.mul(xn, f);
  ys.mul(yn, f);
}

}  // namespace

void MapOutToInPt(const VtAFXLensData* lens, const FGulpPt& out, FGulpPt& in) {
  FGulp xs;
  FGulp ys;
  if (lens->distortMode == kDistortModeApply) {
    ApplyToNormalised(*lens, out, xs, ys);
  } else {
    RemoveToNormalised(*lens, out, xs, ys);
  }
  in.x.muladd(xs, lens->pixScaleX, lens->pixOffsetX);
  in.y.muladd(ys, lens->pixScaleY, lens->pixOffsetY);
}
