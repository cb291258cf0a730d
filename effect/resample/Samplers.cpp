// Nearest, bilinear and table-driven kernel resampling of one run of source positions.
#include "resample/Samplers.h"

#include <initializer_list>

namespace {

// Positions are first brought into [-2^30, 2^30]: nothing inside that range changes, both
// rounding routes agree on every value in it, tap indices stay far from int32 overflow, and
// NaN (taken as -2^30) and infinities land outside every image.
constexpr float kPositionLimit = 1073741824.0f;  // 2^30

void BringIntoRange(const FGulp& a, FGulp& out) {
  out.fmax(a, -kPositionLimit);  // a NaN element fails a > s and becomes -2^30
  out.fmin(out, kPositionLimit);
}

// An image without pixels has nothing to clip the tap coordinates into.
bool ImageIsEmpty(const ResampleData* rd) {
  return rd->width <= 0 || rd->height <= 0 || rd->baseAddr == nullptr;
}

void StoreTransparent(const ResampleData* rd, int n, void* dst) {
  RGBAGulp zero;
  for (FGulp* channel : {&zero.r, &zero.g, &zero.b, &zero.a}) {
    channel->SetLen(n, 0);
    channel->Constant(0.0f);
  }
  StorePix(rd, zero, dst);
}

}  // namespace

void NearSampler(ResampleData* rd, const FGulpPt& pos, void* dst) {
  if (ImageIsEmpty(rd)) return StoreTransparent(rd, pos.x.len, dst);
  const float xmax = static_cast<float>(rd->width - 1);
  const float ymax = static_cast<float>(rd->height - 1);

  FGulpPt grid;
  BringIntoRange(pos.x, grid.x);
  BringIntoRange(pos.y, grid.y);
  grid.x.round(grid.x);
  grid.y.round(grid.y);

  // The in-range test comes before the clip: one pixel beyond every edge still counts.
  FGulp insideX, insideY;
  insideX.inrangeLE(-1.0f, grid.x, xmax + 1.0f);
  grid.x.clip(0.0f, grid.x, xmax);
  insideY.inrangeLE(-1.0f, grid.y, ymax + 1.0f);
  grid.y.clip(0.0f, grid.y, ymax);

  RGBAGulp pixels;
  SamplePix(rd, grid, pixels);

  FGulp inside;
  inside.mul(insideX, insideY);
  pixels.r *= inside;
  pixels.g *= inside;
  pixels.b *= inside;
  pixels.a *= inside;
  StorePix(rd, pixels, dst);
}

void BiLinSampler(ResampleData* rd, const FGulpPt& pos, void* dst) {
  if (ImageIsEmpty(rd)) return StoreTransparent(rd, pos.x.len, dst);
  const float xmax = static_cast<float>(rd->width - 1);
  const float ymax = static_cast<float>(rd->height - 1);

  FGulp x, y;
  BringIntoRange(pos.x, x);
  BringIntoRange(pos.y, y);
  FGulp ix, iy, fx, fy;
  fx.modf(x, ix);  // floor, so the fractions are never negative
  fy.modf(y, iy);

  // Neighbours clipped into the image; at the right and lower edge the edge pixel repeats.
  FGulpPt at00, at11;
  at00.x.clip(0.0f, ix, xmax);
  at00.y.clip(0.0f, iy, ymax);
  at11.x.clipoffs(0.0f, ix, 1.0f, xmax);
  at11.y.clipoffs(0.0f, iy, 1.0f, ymax);
  FGulpPt at10, at01;
  at10.x = at11.x;
  at10.y = at00.y;
  at01.x = at00.x;
  at01.y = at11.y;

  RGBAGulp p00, p10, p01, p11;
  SamplePix(rd, at00, p00);
  SamplePix(rd, at10, p10);
  SamplePix(rd, at01, p01);
  SamplePix(rd, at11, p11);

  // Inside only from the first column and row on: tested on the unclipped integer parts.
  FGulp insideX, insideY, inside;
  insideX.inrangeLE(0.0f, ix, xmax);
  insideY.inrangeLE(0.0f, iy, ymax);
  inside.mul(insideX, insideY);

  const bool isFloat = rd->bitDepth == 32;
  RGBAGulp result;
  FGulp top, bottom;
  FGulp RGBAGulp::*const channels[] = {&RGBAGulp::r, &RGBAGulp::g, &RGBAGulp::b, &RGBAGulp::a};
  for (FGulp RGBAGulp::*ch : channels) {
    top.blend(p00.*ch, p10.*ch, fx);
    bottom.blend(p01.*ch, p11.*ch, fx);
    FGulp& out = result.*ch;
    out.blend(top, bottom, fy);
    if (isFloat)
      out.mul(out, inside);
    else
      out.mulround(out, inside);
  }
  StorePix(rd, result, dst);
}

void Sampler(ResampleData* rd, const FGulpPt& pos, void* dst) {
  const int n = pos.x.len;
  if (ImageIsEmpty(rd) || rd->kernelTable == nullptr) return StoreTransparent(rd, n, dst);
  const float xmax = static_cast<float>(rd->width - 1);
  const float ymax = static_cast<float>(rd->height - 1);
  const float phases = rd->phasesPerPixel;
  const float stride = rd->phaseStride;

  FGulp x, y;
  BringIntoRange(pos.x, x);
  BringIntoRange(pos.y, y);
  FGulp firstTapX, firstTapY, phaseX, phaseY;
  phaseX.modfscaledoffs(x, phases, -static_cast<float>(rd->tapOffsetX), firstTapX);
  phaseY.modfscaledoffs(y, phases, -static_cast<float>(rd->tapOffsetY), firstTapY);
  // A coordinate just below an integer has the fraction 1.0 in single precision, giving
  // phase P, one past the table's last cell; it is read as the last phase instead.
  phaseX.fmin(phaseX, phases - 1.0f);
  phaseY.fmin(phaseY, phases - 1.0f);

  FGulp cell;  // index of the phase cell; integers below 2^24, so exact
  cell.muladdmul(phases * stride, phaseY, stride, phaseX);

  FGulp red, green, blue, alpha, weightSum;
  for (FGulp* acc : {&red, &green, &blue, &alpha, &weightSum}) {
    acc->SetLen(n, 0);
    acc->Constant(0.0f);
  }

  FGulpPt tap;
  FGulp insideRow, insideColumn, weight;
  RGBAGulp pixels;
  for (int j = 0; j < rd->tapsY; ++j) {
    tap.y.clipoffsLE(0.0f, firstTapY, static_cast<float>(j), ymax, insideRow);
    for (int i = 0; i < rd->tapsX; ++i) {
      tap.x.clipoffsLE(0.0f, firstTapX, static_cast<float>(i), xmax, insideColumn);
      SamplePix(rd, tap, pixels);
      weight.gatherLUT(rd->kernelTable + j * rd->tapsX + i, cell);
      // Taps outside the image weigh nothing; their clipped coordinates only keep the load
      // inside the image.
      weight.mulmul(weight, insideColumn, insideRow);
      red.muladd(weight, pixels.r, red);
      green.muladd(weight, pixels.g, green);
      blue.muladd(weight, pixels.b, blue);
      alpha.muladd(weight, pixels.a, alpha);
      weightSum += weight;
    }
  }

  // Renormalise over the inside taps; a zero sum leaves the (zero) accumulators as they are.
  FGulp norm;
  norm.recipCHKZ(weightSum);
  RGBAGulp result;
  if (rd->bitDepth == 32) {
    result.r.mulclip(0.0f, norm, red, rd->colorMax);
    result.g.mulclip(0.0f, norm, green, rd->colorMax);
    result.b.mulclip(0.0f, norm, blue, rd->colorMax);
    result.a.mulclip(0.0f, norm, alpha, rd->alphaMax);
  } else {
    result.r.mulroundclip(0.0f, norm, red, rd->colorMax);
    result.g.mulroundclip(0.0f, norm, green, rd->colorMax);
    result.b.mulroundclip(0.0f, norm, blue, rd->colorMax);
    result.a.mulroundclip(0.0f, norm, alpha, rd->alphaMax);
  }
  StorePix(rd, result, dst);
}
