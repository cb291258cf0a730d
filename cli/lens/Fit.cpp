#include "cli/lens/Fit.h"

#include <algorithm>
#include <cmath>

namespace veltrisca {

namespace {

struct Polynomial {
  double k2, k3, k4;
  double P(double u) const { return u * (1 + u * u * (k2 + u * (k3 + u * k4))); }
  double Slope(double u) const { return 1 + u * u * (3 * k2 + u * (4 * k3 + u * 5 * k4)); }
};

// The end of P's first rising stretch (where its slope first stops being positive), searched
// up to u = 64.
double RisingLimit(const Polynomial& p) {
  const double step = 1.0 / 1024;
  double u = 0;
  while (u < 64 && p.Slope(u + step) > 0) u += step;
  double lo = u, hi = u + step;  // refine the sign change
  for (int i = 0; i < 60 && u < 64; ++i) {
    const double mid = (lo + hi) / 2;
    (p.Slope(mid) > 0 ? lo : hi) = mid;
  }
  return u < 64 ? lo : 64;
}

// P^-1(r) on [0, limit] by bisection (P rises there).
double Inverse(const Polynomial& p, double r, double limit) {
  if (r >= p.P(limit)) return limit;
  double lo = 0, hi = limit;
  for (int i = 0; i < 80; ++i) {
    const double mid = (lo + hi) / 2;
    (p.P(mid) < r ? lo : hi) = mid;
  }
  return (lo + hi) / 2;
}

}  // namespace

ImageSize FitUndistortedSize(const LensSettings& lens, ImageSize distorted) {
  const Polynomial p{lens.distortion * 0.001, lens.cubic * 0.001, lens.quartic * 0.001};
  const double limit = RisingLimit(p);
  const int wd = distorted.width, hd = distorted.height;
  const double pa = lens.pixelAspect, zoom = lens.zoom;
  // Extent (in output pixels from the centre) that the plate's border needs for an undistorted
  // height hu: the normalised unit is hu / 2 pixels.
  auto need = [&](int hu, double* halfW, double* halfH) {
    double left = 0, right = 0, top = 0, bottom = 0;
    auto visit = [&](int x, int y) {
      const double dx = x - wd / 2.0, dy = y - hd / 2.0;
      const double r = std::hypot(dx * pa, dy) * 2.0 / hu;
      const double s = r > 0 ? zoom * Inverse(p, r, limit) / r : zoom;
      left = std::min(left, dx * s);
      right = std::max(right, dx * s + 1);
      top = std::min(top, dy * s);
      bottom = std::max(bottom, dy * s + 1);
    };
    for (int x = 0; x < wd; ++x) {
      visit(x, 0);
      visit(x, hd - 1);
    }
    for (int y = 0; y < hd; ++y) {
      visit(0, y);
      visit(wd - 1, y);
    }
    // The undistorted frame keeps the plate's pixels (ToParamValues), so widths stay in them.
    *halfW = std::max(-left, right);
    *halfH = std::max(-top, bottom);
  };
  auto fits = [&](int hu, int* wu) {
    double halfW = 0, halfH = 0;
    need(hu, &halfW, &halfH);
    // The smallest width with an even margin around the plate that holds halfW each side.
    const int w = std::max(wd, static_cast<int>(std::ceil(2 * halfW - 1e-9)));
    *wu = std::min(kMaxImageSide, w + ((w - wd) & 1));
    return 2 * halfH <= hu + 1e-9;
  };
  // The fit only loosens as the height grows (a larger unit lowers every radius): search the
  // even margins for the first that fits.
  int lo = 0, hi = 1;
  int wu = wd;
  while (hd + 2 * hi <= kMaxImageSide && !fits(hd + 2 * hi, &wu)) hi *= 2;
  hi = std::min(hi, (kMaxImageSide - hd) / 2);
  if (fits(hd, &wu)) return ImageSize{wu, hd};
  while (hi - lo > 1) {
    const int mid = (lo + hi) / 2;
    (fits(hd + 2 * mid, &wu) ? hi : lo) = mid;
  }
  fits(hd + 2 * hi, &wu);
  return ImageSize{wu, hd + 2 * hi};
}

double UndoableRadius(const LensSettings& settings, const VtAFXLensData& lens) {
  if (settings.mode == kModeApply) return lens.limitDistorted;
  const Polynomial p{settings.distortion * 0.001, settings.cubic * 0.001, settings.quartic * 0.001};
  const double limit = RisingLimit(p);
  return limit >= 64 ? HUGE_VAL : p.P(limit);
}

double UnreachableFraction(const VtAFXLensData& lens, int mode, const PF_LRect& frame,
                           double limit) {
  const long long w = static_cast<long long>(frame.right) - frame.left;
  const long long h = static_cast<long long>(frame.bottom) - frame.top;
  if (w <= 0 || h <= 0 || !(limit > 0) || std::isinf(limit)) return 0.0;
  // Layer position -> distorted normalised position: in Apply the output side's transform,
  // in Remove the inverse of the transform that places input positions.
  auto radius = [&](double x, double y) {
    double xn, yn;
    if (mode == kModeApply) {
      xn = x * lens.normScaleX + lens.normOffsetX;
      yn = y * lens.normScaleY + lens.normOffsetY;
    } else {
      xn = (x - lens.pixOffsetX) / lens.pixScaleX;
      yn = (y - lens.pixOffsetY) / lens.pixScaleY;
    }
    return std::hypot(xn, yn);
  };
  // At most about 512 x 512 samples spread evenly over the frame.
  const long long stepX = std::max(1LL, w / 512), stepY = std::max(1LL, h / 512);
  long long beyond = 0, total = 0;
  for (long long y = frame.top; y < frame.bottom; y += stepY) {
    for (long long x = frame.left; x < frame.right; x += stepX) {
      ++total;
      if (!(radius(static_cast<double>(x), static_cast<double>(y)) < limit)) ++beyond;
    }
  }
  return total ? static_cast<double>(beyond) / total : 0.0;
}

}  // namespace veltrisca
