// Shared helpers of the lens tests: building a lens record from parameter values, and an
// independent long-double model of the lens mapping written from its geometric description
// (frame centre, vertical unit, pixel aspect, polynomial, inverse by bisection), not from the
// record's transform fields.
#ifndef VT_TESTS_LENS_LENSTESTSUPPORT_H
#define VT_TESTS_LENS_LENSTESTSUPPORT_H

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <tuple>
#include <vector>

#include "gulp/CpuFeatures.h"
#include "lens/InverseTable.h"
#include "lens/LensData.h"
#include "lens/PointMapping.h"
#include "lens/RunMapping.h"
#include "support/RectExpect.h"

namespace lenstest {

// Parameter values as the user enters them.
struct LensParams {
  int mode = kModeRemove;
  double quadX1000 = 0.0, cubeX1000 = 0.0, quarX1000 = 0.0;
  double zoom = 1.0;
  int wd = 1920, hd = 1080;  // distorted image size
  int wu = 1920, hu = 1080;  // undistorted image size
  double pa = 1.0;
};

// A record as the pre-render leaves it, on the heap (so that a stray table read beyond the
// record is caught by the address sanitizer).
inline std::unique_ptr<VtAFXLensData> MakeLens(const LensParams& p) {
  auto lens = std::make_unique<VtAFXLensData>();
  std::memset(lens.get(), 0, sizeof(VtAFXLensData));
  lens->distortMode = p.mode, lens->filterType = 4;
  lens->quadratic = p.quadX1000 * 0.001, lens->cubic = p.cubeX1000 * 0.001, lens->quartic = p.quarX1000 * 0.001;
  lens->zoom = p.zoom, lens->pixelAspect = p.pa;
  lens->distortedWidth = p.wd, lens->distortedHeight = p.hd;
  lens->undistortedWidth = p.wu, lens->undistortedHeight = p.hu;
  SetupLensData(*lens);
  BuildInverseTable(*lens);
  return lens;
}

using LD = long double;

// The lens model in long double.
struct RefLens {
  LD k2, k3, k4;   // the model's coefficients: the single-precision copies
  LD zoom;
  LD cx, cy;       // frame centre in layer pixels
  LD sx, sy;       // normalised units per layer pixel
  LD uLimit;       // where P stops rising (or the frame corner plus 2 %)

  LD P(LD u) const { return u * (1 + k2 * u * u + k3 * u * u * u + k4 * u * u * u * u); }
  LD dP(LD u) const { return 1 + 3 * k2 * u * u + 4 * k3 * u * u * u + 5 * k4 * u * u * u * u; }

  // P^-1 on [0, uLimit] by bisection; held at uLimit beyond P(uLimit).
  LD InverseP(LD r) const {
    if (r >= P(uLimit)) return uLimit;
    LD lo = 0, hi = uLimit;
    for (int i = 0; i < 200; ++i) {
      const LD mid = (lo + hi) / 2;
      (P(mid) < r ? lo : hi) = mid;
    }
    return (lo + hi) / 2;
  }

  void Normalise(LD x, LD y, LD* nx, LD* ny) const { *nx = (x - cx) * sx, *ny = (y - cy) * sy; }
  void ToPixels(LD nx, LD ny, LD* x, LD* y) const { *x = nx / sx + cx, *y = ny / sy + cy; }

  // The output-to-input mapping. Forward polynomial (Remove): the point at undistorted radius
  // m = |n| / zoom reads radius P(m). Inverse polynomial (Apply): the point at distorted
  // radius r = |n| reads radius P^-1(r), scaled by the zoom.
  void Map(bool forward, LD x, LD y, LD* ox, LD* oy) const {
    LD nx, ny;
    Normalise(x, y, &nx, &ny);
    const LD r = std::sqrt(nx * nx + ny * ny);
    const LD f = r == 0 ? 1 : forward ? P(r / zoom) / r : zoom * InverseP(r) / r;
    ToPixels(nx * f, ny * f, ox, oy);
  }
};

inline RefLens MakeRef(const LensParams& p) {
  RefLens ref;
  ref.k2 = float(p.quadX1000 * 0.001), ref.k3 = float(p.cubeX1000 * 0.001), ref.k4 = float(p.quarX1000 * 0.001);
  ref.zoom = p.zoom;
  // The pixel aspect describes the undistorted image only when the two sizes agree.
  const LD pu = (p.wd == p.wu && p.hd == p.hu) ? p.pa : 1;
  // Vertical unit: half the undistorted height. Apply is centred on the undistorted layer
  // with pixels pu wide; Remove on the distorted layer, whose pixels are pa * pu wide.
  const bool apply = p.mode == kModeApply;
  ref.sy = 2 / LD(p.hu);
  ref.sx = (apply ? 1 : p.pa) * pu * ref.sy;
  ref.cx = LD(apply ? p.wu : p.wd) / 2, ref.cy = LD(apply ? p.hu : p.hd) / 2;
  // The first zero of P' (fine scan, then bisection), or the corner radius plus 2 %.
  const LD aspect = pu * p.wu / LD(p.hu);
  const LD end = std::sqrt(aspect * aspect + 1) * 1.02L;
  ref.uLimit = end;
  const LD scan = std::fmax(1e-5L, end / 100000);
  for (LD u = scan; u < end; u += scan) {
    if (ref.dP(u) <= 0) {
      LD lo = u - scan, hi = u;
      for (int i = 0; i < 200; ++i) {
        const LD mid = (lo + hi) / 2;
        (ref.dP(mid) > 0 ? lo : hi) = mid;
      }
      ref.uLimit = lo;
      break;
    }
  }
  return ref;
}

// Random parameter sets within the slider ranges: each coefficient zero, small or large,
// assorted sizes (equal or not), pixel aspects and zooms.
inline LensParams RandomParams(std::mt19937& rng, int mode) {
  std::uniform_int_distribution<int> pick(0, 2);
  std::uniform_real_distribution<double> unit(-1.0, 1.0);
  auto coefficient = [&] {
    const int kind = pick(rng);
    return kind == 0 ? 0.0 : (kind == 1 ? 300.0 : 20000.0) * unit(rng);
  };
  LensParams p;
  p.mode = mode;
  p.quadX1000 = coefficient(), p.cubeX1000 = coefficient(), p.quarX1000 = coefficient();
  const double zooms[] = {1.0, 0.5, 2.0, 3.7, 0.2 + 4.8 * (unit(rng) + 1.0) / 2.0};
  p.zoom = zooms[std::uniform_int_distribution<int>(0, 4)(rng)];
  std::uniform_int_distribution<int> size(64, 4096);
  p.wd = size(rng), p.hd = size(rng);
  const bool sameSizes = pick(rng) == 0;
  p.wu = sameSizes ? p.wd : size(rng);
  p.hu = sameSizes ? p.hd : size(rng);
  const double aspects[] = {1.0, 2.0, 4.0 / 3.0, 0.9, 0.1 + 9.9 * (unit(rng) + 1.0) / 2.0};
  p.pa = aspects[std::uniform_int_distribution<int>(0, 4)(rng)];
  return p;
}

struct TestPoint : VtPt {  // an output position in layer pixels
  LD slope;                 // P' at the undistorted radius the point involves
};

// Whether Newton's method started at u = r, as the solver runs it, meets |P(u) - r| < 1e-6
// within 20 updates at the root P^-1(r) of the rising branch. It need not: far out on a
// steep polynomial each update only removes a fraction of the distance to the root, and
// where P has a peak an update can jump past it to a root on the falling branch. The solver
// then returns that estimate; agreement with the inverse is only expected where it holds.
inline bool NewtonFindsTheRoot(const RefLens& ref, LD r) {
  LD u = r;
  for (int update = 0; update <= 20; ++update) {
    if (std::fabs(ref.P(u) - r) < 1e-6L) return std::fabs(u - ref.InverseP(r)) < 1e-4L;
    u += (r - ref.P(u)) / ref.dP(u);
  }
  return false;
}

// Output positions inside the limit, the frame centre first. Forward: the undistorted radius
// after the zoom lies inside the limit (the forward polynomial's domain). Inverse: the
// distorted radius lies inside the limit where P' >= 0.1, so that the inverse is well
// conditioned, and the solver converges (the inverse polynomial's domain).
inline std::vector<TestPoint> InsidePoints(const VtAFXLensData& lens, const RefLens& ref,
                                           std::mt19937& rng, int count, bool forward) {
  std::vector<TestPoint> points;
  points.push_back({{float(ref.cx), float(ref.cy)}, 1});
  // The largest undistorted radius both the record and the reference treat as inside the
  // limit, with a margin.
  const LD limit = std::fmin(LD(lens.limitUndistorted), ref.uLimit) - 0.001L;
  const LD uMax = limit > 0 ? 0.98L * limit : 0;
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  for (int tries = 0; tries < 20 * count && int(points.size()) <= count && uMax > 0; ++tries) {
    const LD u = uMax * unit(rng);
    if (!forward && (ref.dP(u) < 0.1L || !NewtonFindsTheRoot(ref, ref.P(u)))) continue;
    const LD r = forward ? u * ref.zoom : ref.P(u), angle = 6.283185307179586L * unit(rng);
    LD x, y;
    ref.ToPixels(r * std::cos(angle), r * std::sin(angle), &x, &y);
    points.push_back({{float(x), float(y)}, ref.dP(u)});
  }
  return points;
}

// How much the mapping amplifies a position error around (x, y): the infinity norm of its
// Jacobian, by central differences of the reference.
template <class Map>
LD LocalGain(const Map& map, LD x, LD y) {
  const LD h = 1e-3L;
  LD ax, ay, bx, by, cx, cy, dx, dy;
  map(x + h, y, &ax, &ay), map(x - h, y, &bx, &by), map(x, y + h, &cx, &cy), map(x, y - h, &dx, &dy);
  return std::fmax(std::fabs(ax - bx) + std::fabs(cx - dx), std::fabs(ay - by) + std::fabs(cy - dy)) / (2 * h);
}

// Tolerance, in pixels, of a single-precision mapping against the reference:
// - the float pipeline has about a dozen roundings of relative size 2^-24; those before the
//   polynomial act on coordinates of size |x| + |y| plus the frame offsets (at most the
//   largest image size F) and reach the result multiplied by the local gain, those after it
//   act on |ox| + |oy| + F; 16 of each bounds them;
// - the polynomial's terms may cancel: its rounding is relative to the sum of the terms'
//   magnitudes, times the normalised radius, in pixels per normalised unit;
// - the Newton solver stops once |P(u) - r| < 1e-6, which leaves u off by up to about
//   1e-6 / P'(u) (doubled for the first-order estimate), scaled by the zoom to pixels.
inline LD MappingTolerance(const LensParams& p, const RefLens& ref, LD gain, LD x, LD y, LD ox,
                           LD oy, LD m, bool newton, LD slope) {
  const LD eps = std::ldexp(1.0L, -24), frame = std::fmax(std::fmax(p.wd, p.hd), std::fmax(p.wu, p.hu));
  const LD perUnit = std::fmax(1 / ref.sx, 1 / ref.sy);
  const LD terms = 1 + std::fabs(ref.k2) * m * m + std::fabs(ref.k3) * m * m * m + std::fabs(ref.k4) * m * m * m * m;
  return 16 * eps * (gain * (std::fabs(x) + std::fabs(y) + frame) + (std::fabs(ox) + std::fabs(oy) + frame)) +
         8 * eps * terms * m * std::fmax(LD(1), ref.zoom) * perUnit + (newton ? 2e-6L / slope * ref.zoom * perUnit : 0);
}

}  // namespace lenstest

#endif
