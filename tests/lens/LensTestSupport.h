// Shared helpers of the lens tests: building a lens record from parameter values, and an
// independent long-double model of the lens mapping written from its geometric description
// (frame centre, vertical unit, pixel aspect, polynomial, inverse by bisection), not from the
// record's transform fields.
#ifndef VT_TESTS_LENS_LENSTESTSUPPORT_H
#define VT_TESTS_LENS_LENSTESTSUPPORT_H

#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "gulp/CpuFeatures.h"
#include "lens/InverseTable.h"
#include "lens/LensData.h"

namespace lenstest {

// Parameter values as the user enters them.
struct LensParams {
  int mode = kModeRemove;
  double quadX1000 = 0.0;
  double cubeX1000 = 0.0;
  double quarX1000 = 0.0;
  double zoom = 1.0;
  int wd = 1920, hd = 1080;  // distorted image size
  int wu = 1920, hu = 1080;  // undistorted image size
  double pa = 1.0;
};

inline void FillParams(VtAFXLensData& lens, const LensParams& p) {
  std::memset(&lens, 0, sizeof(lens));
  lens.distortMode = p.mode;
  lens.filterType = 4;
  lens.quadratic = p.quadX1000 * 0.001;
  lens.cubic = p.cubeX1000 * 0.001;
  lens.quartic = p.quarX1000 * 0.001;
  lens.zoom = p.zoom;
  lens.distortedWidth = p.wd;
  lens.distortedHeight = p.hd;
  lens.undistortedWidth = p.wu;
  lens.undistortedHeight = p.hu;
  lens.pixelAspect = p.pa;
}

// A record as the pre-render leaves it, on the heap (so that a stray table read beyond the
// record is caught by the address sanitizer).
inline std::unique_ptr<VtAFXLensData> MakeLens(const LensParams& p) {
  auto lens = std::make_unique<VtAFXLensData>();
  FillParams(*lens, p);
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

  void Normalise(LD x, LD y, LD* nx, LD* ny) const {
    *nx = (x - cx) * sx;
    *ny = (y - cy) * sy;
  }
  void ToPixels(LD nx, LD ny, LD* x, LD* y) const {
    *x = nx / sx + cx;
    *y = ny / sy + cy;
  }

  // Forward polynomial (Remove's output-to-input mapping): the point at undistorted radius
  // |n| / zoom reads radius P of that.
  void Forward(LD x, LD y, LD* ox, LD* oy) const {
    LD nx, ny;
    Normalise(x, y, &nx, &ny);
    const LD mx = nx / zoom, my = ny / zoom;
    const LD m = std::sqrt(mx * mx + my * my);
    const LD f = m == 0 ? 1 : P(m) / m;
    ToPixels(mx * f, my * f, ox, oy);
  }

  // Inverse polynomial (Apply's output-to-input mapping): the point at distorted radius r
  // reads radius P^-1(r), scaled by the zoom.
  void Inverse(LD x, LD y, LD* ox, LD* oy) const {
    LD nx, ny;
    Normalise(x, y, &nx, &ny);
    const LD r = std::sqrt(nx * nx + ny * ny);
    const LD ratio = r == 0 ? 1 : InverseP(r) / r;
    ToPixels(nx * zoom * ratio, ny * zoom * ratio, ox, oy);
  }
};

inline RefLens MakeRef(const LensParams& p) {
  RefLens ref;
  ref.k2 = static_cast<float>(p.quadX1000 * 0.001);
  ref.k3 = static_cast<float>(p.cubeX1000 * 0.001);
  ref.k4 = static_cast<float>(p.quarX1000 * 0.001);
  ref.zoom = p.zoom;
  // The pixel aspect describes the undistorted image only when the two sizes agree.
  const LD pu = (p.wd == p.wu && p.hd == p.hu) ? p.pa : 1;
  // Vertical unit: half the undistorted height. Apply is centred on the undistorted layer
  // with pixels pu wide; Remove on the distorted layer, whose pixels are pa * pu wide.
  ref.sy = 2 / LD(p.hu);
  if (p.mode == kModeApply) {
    ref.cx = LD(p.wu) / 2;
    ref.cy = LD(p.hu) / 2;
    ref.sx = pu * ref.sy;
  } else {
    ref.cx = LD(p.wd) / 2;
    ref.cy = LD(p.hd) / 2;
    ref.sx = p.pa * pu * ref.sy;
  }
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

inline void EnsureCpuChecked() { CheckCPUFeatures(); }

// Random parameter sets within the slider ranges: each coefficient zero, small or large,
// assorted sizes (equal or not), pixel aspects and zooms.
inline LensParams RandomParams(std::mt19937& rng, int mode) {
  std::uniform_int_distribution<int> pick(0, 2);
  std::uniform_real_distribution<double> unit(-1.0, 1.0);
  auto coefficient = [&](double large) {
    switch (pick(rng)) {
      case 0: return 0.0;
      case 1: return 300.0 * unit(rng);
      default: return large * unit(rng);
    }
  };
  LensParams p;
  p.mode = mode;
  p.quadX1000 = coefficient(20000.0);
  p.cubeX1000 = coefficient(20000.0);
  p.quarX1000 = coefficient(20000.0);
  const double zooms[] = {1.0, 0.5, 2.0, 3.7, 0.2 + 4.8 * (unit(rng) + 1.0) / 2.0};
  p.zoom = zooms[std::uniform_int_distribution<int>(0, 4)(rng)];
  std::uniform_int_distribution<int> size(64, 4096);
  p.wd = size(rng);
  p.hd = size(rng);
  if (pick(rng) == 0) {
    p.wu = p.wd;
    p.hu = p.hd;
  } else {
    p.wu = size(rng);
    p.hu = size(rng);
  }
  const double aspects[] = {1.0, 2.0, 4.0 / 3.0, 0.9, 0.1 + 9.9 * (unit(rng) + 1.0) / 2.0};
  p.pa = aspects[std::uniform_int_distribution<int>(0, 4)(rng)];
  return p;
}

struct TestPoint {
  float x, y;  // output position in layer pixels
  LD slope;    // P' at the undistorted radius the point involves
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

// The largest undistorted radius that both the record and the reference treat as inside
// the monotonic limit, with a margin; 0 when there is none.
inline LD InsideLimit(const VtAFXLensData& lens, const RefLens& ref) {
  const LD u = std::fmin(LD(lens.limitUndistorted), ref.uLimit) - 0.001L;
  return u > 0 ? 0.98L * u : 0;
}

// Output positions whose undistorted radius after the zoom lies inside the limit (the
// forward polynomial's domain). The frame centre comes first.
inline std::vector<TestPoint> ForwardPoints(const VtAFXLensData& lens, const RefLens& ref,
                                            std::mt19937& rng, int count) {
  std::vector<TestPoint> points;
  points.push_back({float(ref.cx), float(ref.cy), 1});
  const LD uMax = InsideLimit(lens, ref);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  for (int i = 0; i < count && uMax > 0; ++i) {
    const LD m = uMax * unit(rng);
    const LD angle = 6.283185307179586L * unit(rng);
    LD x, y;
    ref.ToPixels(m * ref.zoom * std::cos(angle), m * ref.zoom * std::sin(angle), &x, &y);
    points.push_back({float(x), float(y), ref.dP(m)});
  }
  return points;
}

// Output positions whose distorted radius lies inside the limit where P' >= 0.1, so that
// the inverse is well conditioned, and the solver converges (the inverse polynomial's
// domain).
inline std::vector<TestPoint> InversePoints(const VtAFXLensData& lens, const RefLens& ref,
                                            std::mt19937& rng, int count) {
  std::vector<TestPoint> points;
  points.push_back({float(ref.cx), float(ref.cy), 1});
  const LD uMax = InsideLimit(lens, ref);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  for (int tries = 0; tries < 20 * count && int(points.size()) <= count && uMax > 0; ++tries) {
    const LD u = uMax * unit(rng);
    if (ref.dP(u) < 0.1L) continue;
    const LD r = ref.P(u);
    if (!NewtonFindsTheRoot(ref, r)) continue;
    const LD angle = 6.283185307179586L * unit(rng);
    LD x, y;
    ref.ToPixels(r * std::cos(angle), r * std::sin(angle), &x, &y);
    points.push_back({float(x), float(y), ref.dP(u)});
  }
  return points;
}

// How much the mapping amplifies a position error around (x, y): the infinity norm of its
// Jacobian, by central differences of the reference.
template <class Map>
LD LocalGain(const Map& map, LD x, LD y) {
  const LD h = 1e-3L;
  LD ax, ay, bx, by, cx, cy, dx, dy;
  map(x + h, y, &ax, &ay);
  map(x - h, y, &bx, &by);
  map(x, y + h, &cx, &cy);
  map(x, y - h, &dx, &dy);
  const LD j00 = (ax - bx) / (2 * h), j10 = (ay - by) / (2 * h);
  const LD j01 = (cx - dx) / (2 * h), j11 = (cy - dy) / (2 * h);
  return std::fmax(std::fabs(j00) + std::fabs(j01), std::fabs(j10) + std::fabs(j11));
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
  const LD eps = std::ldexp(1.0L, -24);
  const LD frame = std::fmax(std::fmax(p.wd, p.hd), std::fmax(p.wu, p.hu));
  const LD perUnit = std::fmax(1 / ref.sx, 1 / ref.sy);
  const LD terms = 1 + std::fabs(ref.k2) * m * m + std::fabs(ref.k3) * m * m * m +
                   std::fabs(ref.k4) * m * m * m * m;
  LD tol = 16 * eps * (gain * (std::fabs(x) + std::fabs(y) + frame) +
                       (std::fabs(ox) + std::fabs(oy) + frame));
  tol += 8 * eps * terms * m * std::fmax(LD(1), ref.zoom) * perUnit;
  if (newton) tol += 2e-6L / slope * ref.zoom * perUnit;
  return tol;
}

}  // namespace lenstest

#endif
