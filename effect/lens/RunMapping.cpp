#include "lens/RunMapping.h"

#include <smmintrin.h>

#include <algorithm>

#include "gulp/IotaGroups.h"
#include "gulp/RoundingRoutes.h"
#include "lens/PointMapping.h"
#include "lens/RunMappingWide.h"

// The vector code below works on groups of four: lane l holds output pixel i + l of the step
// (its x in one register, its y in another), and every lane goes through the same sequence of
// single-precision IEEE operations, each rounded to nearest-even on its own: a product is
// rounded before it is added (nothing is fused; the effect is built with -ffp-contract=off),
// and the order of the operands is the order written. Each block of 8 elements (two groups)
// goes through every step of the mapping before the next block starts. The run operation
// that performs the same step on whole runs is named beside each line (muladd, sumsq, hypot,
// LUTscale, modf, gatherLUT, blend, divCHKZ, mulmul, mul). Both result runs take the shorter
// of the two position runs' lengths.

void SolveUndistortRatios(const VtAFXLensData& lens, const FGulp& r, FGulp& ratio) {
  ratio.SetLen(r.len, 0);
  for (int k = 0; k < ratio.len; ++k) {
    const float radius = r[k];
    ratio[k] = radius == 0.0f ? 1.0f : UndistortRatio(lens, radius);
  }
}

namespace {

using V = __m128;

inline V Splat(float s) { return _mm_set1_ps(s); }

// muladd(a, s, t) = a*s + t and its mirror muladd(s, a, t) = s*a + t.
inline V MulAdd(V a, V s, V t) { return _mm_add_ps(_mm_mul_ps(a, s), t); }

// The last step of both modes: in = xs * pixScale + pixOffset (muladd), then less the
// input buffer's origin (sub). A zero origin gives every position back bit for bit (x - 0 is
// x for every x, -0 and NaN included, and no result here is a signalling NaN), so the
// subtraction is made whatever the origin, without a branch.
struct PixelTransform {
  V scaleX, offsetX, scaleY, offsetY, originX, originY;
  PixelTransform(const VtAFXLensData& lens, const BufferOrigin& origin)
      : scaleX(Splat(lens.pixScaleX)),
        offsetX(Splat(lens.pixOffsetX)),
        scaleY(Splat(lens.pixScaleY)),
        offsetY(Splat(lens.pixOffsetY)),
        originX(Splat(origin.x)),
        originY(Splat(origin.y)) {}
  V X(V xs) const { return _mm_sub_ps(MulAdd(xs, scaleX, offsetX), originX); }
  V Y(V ys) const { return _mm_sub_ps(MulAdd(ys, scaleY, offsetY), originY); }
};

// Where the output positions of a step come from, a group of four at a time: read from the
// runs, or generated for a row step (x as Iota(x0, 1) gives it, y constant) with the same
// values, so that they need not be stored and read back.
struct RunPositions {
  const float* xs;
  const float* ys;
  int next;
};
inline void NextGroup(RunPositions& p, V& x, V& y) {
  x = _mm_load_ps(p.xs + p.next);
  y = _mm_load_ps(p.ys + p.next);
  p.next += 4;
}

struct RowStepPositions {
  IotaGroups xs;
  V y;
};
inline void NextGroup(RowStepPositions& p, V& x, V& y) {
  x = NextIotaGroup(p.xs);
  y = p.y;
}

// Runs group(x, y, &inX, &inY, lanes) over every group of four of the n positions, up to
// the end of the last block of 8; lanes is the number of meaningful elements in the group
// (it may be 0 or less for the second half of the last block).
template <class Positions, class Group>
void ForEachGroup(Positions positions, int n, FGulpPt& in, Group group) {
  float* inX = in.x.data();
  float* inY = in.y.data();
  V x, y;
  for (int i = 0; i < n; i += 4) {
    NextGroup(positions, x, y);
    group(x, y, inX + i, inY + i, n - i);
  }
  // The block rule: whole blocks of 8 are stored.
  if (n > 0 && n % 8 > 0 && n % 8 <= 4) {
    const int i = n - n % 8 + 4;
    NextGroup(positions, x, y);
    group(x, y, inX + i, inY + i, 0);
  }
  in.x.len = n;
  in.y.len = n;
}

// Remove: an output pixel at undistorted radius m (after the zoom) reads the input at the
// distorted radius P(m). Per lane: xn = x*sx + ox and yn = y*sy + oy in lens space (the zoom
// folded into sx, ox, sy, oy), s2 = xn*xn + yn*yn (both squares rounded, then the sum), the
// factor f = P(m)/m from s2, then the input position (xn*f)*pixScale + pixOffset - origin.
// The polynomial is evaluated as it is, beyond the limit too. Factor computes f from s2 by
// the case of the coefficients, Horner-like with m = sqrt(s2) (rounded square root):
//   k3, k4:  ((m*k3 + k2) + k4*s2)*s2 + 1      k4 only: (k4*s2 + k2)*s2 + 1
//   k3 only: (m*k3 + k2)*s2 + 1                neither: s2*k2 + 1
template <class Positions, class Factor>
void RemoveRun(const VtAFXLensData& lens, Positions out, int n, FGulpPt& in,
               const BufferOrigin& origin, Factor factor) {
  // The zoom is folded into the affine step, each product formed first in float.
  const V scaleX = Splat(lens.normScaleX * lens.invZoom);
  const V offsetX = Splat(lens.invZoom * lens.normOffsetX);
  const V scaleY = Splat(lens.normScaleY * lens.invZoom);
  const V offsetY = Splat(lens.invZoom * lens.normOffsetY);
  const PixelTransform pix(lens, origin);
  ForEachGroup(out, n, in, [&](V x, V y, float* inX, float* inY, int) {
    const V xn = MulAdd(x, scaleX, offsetX);  // muladd(out.x, scale, offset)
    const V yn = MulAdd(y, scaleY, offsetY);
    const V s2 = _mm_add_ps(_mm_mul_ps(xn, xn), _mm_mul_ps(yn, yn));  // sumsq(xn, yn)
    const V f = factor(s2);
    _mm_store_ps(inX, pix.X(_mm_mul_ps(xn, f)));  // mul, muladd
    _mm_store_ps(inY, pix.Y(_mm_mul_ps(yn, f)));
  });
}

// The four cases of the factor, each line one run operation.
struct FactorK3K4 {
  static V Of(V s2, V k2, V k3, V k4, V one) {
    V t = _mm_sqrt_ps(s2);                  // sqrt(s2)
    t = MulAdd(t, k3, k2);                  // muladd(t, k3, k2)
    t = _mm_add_ps(_mm_mul_ps(k4, s2), t);  // muladd(k4, s2, t)
    return MulAdd(t, s2, one);              // muladd(t, s2, 1)
  }
};
struct FactorK4 {
  static V Of(V s2, V k2, V, V k4, V one) {
    const V t = MulAdd(k4, s2, k2);  // muladd(k4, s2, k2)
    return MulAdd(t, s2, one);       // muladd(t, s2, 1)
  }
};
struct FactorK3 {
  static V Of(V s2, V k2, V k3, V, V one) {
    const V t = MulAdd(_mm_sqrt_ps(s2), k3, k2);  // sqrt, muladd(t, k3, k2)
    return MulAdd(t, s2, one);                    // muladd(t, s2, 1)
  }
};
struct FactorK2 {
  static V Of(V s2, V k2, V, V, V one) { return MulAdd(s2, k2, one); }  // muladd(s2, k2, 1)
};

template <class Factor, class Positions>
void Remove(const VtAFXLensData& lens, Positions out, int n, FGulpPt& in,
            const BufferOrigin& origin) {
  const V k2 = Splat(lens.quadraticF), k3 = Splat(lens.cubicF), k4 = Splat(lens.quarticF);
  const V one = Splat(1.0f);
  RemoveRun(lens, out, n, in, origin, [=](V s2) { return Factor::Of(s2, k2, k3, k4, one); });
}

// Calls body(Factor{}) with the factor case of the record's coefficients.
template <class Body>
decltype(auto) WithFactor(const VtAFXLensData& lens, Body body) {
  if (lens.quarticF != 0.0f && lens.cubicF != 0.0f) return body(FactorK3K4{});
  if (lens.quarticF != 0.0f) return body(FactorK4{});
  if (lens.cubicF != 0.0f) return body(FactorK3{});
  return body(FactorK2{});
}

// Apply through the inverse table: an output pixel at distorted radius r reads the input at
// the undistorted radius P^-1(r), interpolated in the table, scaled by the zoom. Per lane:
// xn, yn as in Remove (without the zoom); r = sqrt(xn*xn + yn*yn); t = min(2048, max(0,
// r*lutScale)); i = floor(t) and fraction t - i (exact); u = lo + (hi - lo)*frac with lo, hi
// the table entries i and i + 1 (three roundings: difference, product, sum); ratio = u / r
// (u / 1 at the centre); x_in = ((zoom*xn)*ratio)*pixScale + pixOffset - origin, y alike.
template <class Route, class Positions>
void ApplyTableRun(const VtAFXLensData& lens, Positions out, int n, FGulpPt& in,
                   const BufferOrigin& origin) {
  const V scaleX = Splat(lens.normScaleX), offsetX = Splat(lens.normOffsetX);
  const V scaleY = Splat(lens.normScaleY), offsetY = Splat(lens.normOffsetY);
  const V lutScale = Splat(lens.lutScale), top = Splat(2048.0f), zero = _mm_setzero_ps();
  const V one = Splat(1.0f);
  const V zoom = Splat(static_cast<float>(lens.zoom));
  const PixelTransform pix(lens, origin);
  const float* table = lens.inverseTable;
  ForEachGroup(out, n, in, [&](V x, V y, float* inX, float* inY, int lanes) {
    const V xn = MulAdd(x, scaleX, offsetX);
    const V yn = MulAdd(y, scaleY, offsetY);
    const V r = _mm_sqrt_ps(_mm_add_ps(_mm_mul_ps(xn, xn), _mm_mul_ps(yn, yn)));  // hypot
    // LUTscale: min(2048, max(0, r * lutScale)); the clamp keeps every index within 0..2048,
    // and entry 2049 serves index 2048.
    const V t = _mm_min_ps(top, _mm_max_ps(zero, _mm_mul_ps(r, lutScale)));
    const V whole = Route::Floor(t);  // modf
    const V frac = _mm_sub_ps(t, whole);
    // gatherLUT of entries i and i + 1, i = whole truncated; lanes past the run's end (whose
    // positions are arbitrary) read entry 0 instead.
    alignas(16) int32_t index[4];
    __m128i i = _mm_cvttps_epi32(whole);
    if (lanes < 4) i = _mm_and_si128(i, _mm_cmpgt_epi32(_mm_set1_epi32(lanes), _mm_setr_epi32(0, 1, 2, 3)));
    _mm_store_si128(reinterpret_cast<__m128i*>(index), i);
    const V lo = _mm_setr_ps(table[index[0]], table[index[1]], table[index[2]], table[index[3]]);
    const V hi = _mm_setr_ps(table[index[0] + 1], table[index[1] + 1], table[index[2] + 1],
                             table[index[3] + 1]);
    const V u = _mm_add_ps(lo, _mm_mul_ps(_mm_sub_ps(hi, lo), frac));  // blend(lo, hi, frac)
    // divCHKZ(u, r): the divisor is 1 where r is 0, so the centre keeps u = entry 0 = 0.
    const V divisor = _mm_add_ps(r, _mm_and_ps(_mm_cmpeq_ps(r, zero), one));
    const V ratio = _mm_div_ps(u, divisor);
    const V xs = _mm_mul_ps(_mm_mul_ps(zoom, xn), ratio);  // mulmul(zoom, xn, ratio)
    const V ys = _mm_mul_ps(_mm_mul_ps(zoom, yn), ratio);
    _mm_store_ps(inX, pix.X(xs));
    _mm_store_ps(inY, pix.Y(ys));
  });
}

// Apply through the per-element solver, run by run: the table was judged inaccurate.
void ApplySolved(const VtAFXLensData& lens, const FGulpPt& out, FGulpPt& in,
                 const BufferOrigin& origin) {
  FGulp xn;
  FGulp yn;
  xn.muladd(out.x, lens.normScaleX, lens.normOffsetX);
  yn.muladd(out.y, lens.normScaleY, lens.normOffsetY);
  FGulp r;
  r.hypot(xn, yn);
  FGulp ratio;
  SolveUndistortRatios(lens, r, ratio);
  const float zoom = static_cast<float>(lens.zoom);
  FGulp xs;
  FGulp ys;
  xs.mulmul(zoom, xn, ratio);
  ys.mulmul(zoom, yn, ratio);
  in.x.muladd(xs, lens.pixScaleX, lens.pixOffsetX);
  in.y.muladd(ys, lens.pixScaleY, lens.pixOffsetY);
  if (origin.x != 0.0f) in.x -= origin.x;
  if (origin.y != 0.0f) in.y -= origin.y;
}

void MapOutToBufferPt(const VtAFXLensData* lens, const FGulpPt& out, FGulpPt& in,
                      const BufferOrigin& origin) {
  const int n = std::min(out.x.len, out.y.len);
  const RunPositions positions{out.x.data(), out.y.data(), 0};
  if (lens->distortMode != kModeApply) {
    WithFactor(*lens, [&](auto factor) {
      Remove<decltype(factor)>(*lens, positions, n, in, origin);
    });
  } else if (lens->tableValid != 0) {
    rounding::WithRoute([&](auto route) {
      ApplyTableRun<decltype(route)>(*lens, positions, n, in, origin);
    });
  } else {
    ApplySolved(*lens, out, in, origin);
  }
}

}  // namespace

void MapOutToInPt(const VtAFXLensData* lens, const FGulpPt& out, FGulpPt& in) {
  MapOutToBufferPt(lens, out, in, BufferOrigin{0.0f, 0.0f});
}

namespace {

int StepLength(const RowStep& step) { return std::max(0, std::min(step.len, FGulp::kCapacity)); }

RowStepPositions PositionsOf(const RowStep& step) {
  return RowStepPositions{StartIota(step.x0, 1.0f), _mm_set1_ps(step.y)};
}

template <class Factor>
void RowStepRemove(const VtAFXLensData* lens, const RowStep& step, FGulpPt& in,
                   const BufferOrigin& origin) {
  Remove<Factor>(*lens, PositionsOf(step), StepLength(step), in, origin);
}

template <class Route>
void RowStepApplyTable(const VtAFXLensData* lens, const RowStep& step, FGulpPt& in,
                       const BufferOrigin& origin) {
  ApplyTableRun<Route>(*lens, PositionsOf(step), StepLength(step), in, origin);
}

void RowStepApplySolved(const VtAFXLensData* lens, const RowStep& step, FGulpPt& in,
                        const BufferOrigin& origin) {
  const int n = StepLength(step);
  FGulpPt out;  // the solver works on stored runs
  out.x.SetLen(n, 0);
  out.y.SetLen(n, 0);
  out.x.Iota(step.x0, 1.0f);
  out.y.Constant(step.y);
  ApplySolved(*lens, out, in, origin);
}

}  // namespace

RowStepMapper ChooseRowStepMapper(const VtAFXLensData& lens) {
  if (lens.distortMode == kModeApply && lens.tableValid == 0) return RowStepApplySolved;
  if (UseWideVectors()) return WideRowStepMapper(lens);
  if (lens.distortMode != kModeApply) {
    return WithFactor(lens, [](auto factor) -> RowStepMapper {
      return RowStepRemove<decltype(factor)>;
    });
  }
  return rounding::WithRoute([](auto route) -> RowStepMapper {
    return RowStepApplyTable<decltype(route)>;
  });
}

void MapRowStepToBufferPt(const VtAFXLensData* lens, const RowStep& step, FGulpPt& in,
                          const BufferOrigin& origin) {
  ChooseRowStepMapper(*lens)(lens, step, in, origin);
}
