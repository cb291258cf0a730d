#include "LensMap.h"

#include <algorithm>
#include <cmath>

namespace compare {

namespace {

constexpr int kTableIntervals = 4096;

// u with u * (1 + k2 * u^2) = r, by Newton from u = r (double precision).
double InvertRadius(double k2, double r, double uMax) {
  double u = r;
  for (int i = 0; i < 30; ++i) {
    const double f = u * (1.0 + k2 * u * u) - r;
    const double slope = 1.0 + 3.0 * k2 * u * u;
    if (slope <= 0.0) break;
    const double next = u - f / slope;
    if (std::fabs(next - u) < 1e-12) {
      u = next;
      break;
    }
    u = next;
  }
  return std::min(std::max(u, 0.0), uMax);
}

}  // namespace

LensMapPlan PlanLensMap(const QuadraticLens& lens) {
  LensMapPlan plan;
  plan.lens = lens;
  plan.centreX = static_cast<float>(lens.width * 0.5);
  plan.centreY = static_cast<float>(lens.height * 0.5);
  plan.unitPixels = static_cast<float>(lens.height * 0.5);
  plan.invUnit = static_cast<float>(lens.height > 0 ? 2.0 / lens.height : 0.0);
  plan.k2 = static_cast<float>(lens.k2);
  if (lens.direction != LensDirection::Apply) return plan;

  // The polynomial rises up to u = 1/sqrt(-3 k2) (k2 < 0); the frame needs no more than its
  // corner radius, with a small margin.
  const double aspect = lens.height > 0 ? static_cast<double>(lens.width) / lens.height : 1.0;
  double uLimit = 1.02 * std::sqrt(aspect * aspect + 1.0);
  if (lens.k2 < 0.0) uLimit = std::min(uLimit, 1.0 / std::sqrt(-3.0 * lens.k2));
  const double rLimit = uLimit * (1.0 + lens.k2 * uLimit * uLimit);
  plan.uLimit = static_cast<float>(uLimit);
  plan.rLimit = static_cast<float>(rLimit);
  plan.tableScale = static_cast<float>(kTableIntervals / rLimit);
  plan.ratioTable.resize(kTableIntervals + 2);
  plan.ratioTable[0] = 1.0f;
  for (int i = 1; i <= kTableIntervals; ++i) {
    const double r = rLimit * i / kTableIntervals;
    plan.ratioTable[i] = static_cast<float>(InvertRadius(lens.k2, r, uLimit) / r);
  }
  plan.ratioTable[kTableIntervals + 1] = plan.ratioTable[kTableIntervals];
  return plan;
}

namespace {

inline float RadiusFactor(const LensMapPlan& plan, float nx, float ny) {
  const float r2 = nx * nx + ny * ny;
  if (plan.lens.direction != LensDirection::Apply) return 1.0f + plan.k2 * r2;
  const float r = std::sqrt(r2);
  if (r >= plan.rLimit) return plan.uLimit / r;
  const float t = r * plan.tableScale;
  const int i = static_cast<int>(t);
  const float f = t - static_cast<float>(i);
  return plan.ratioTable[i] + f * (plan.ratioTable[i + 1] - plan.ratioTable[i]);
}

}  // namespace

void MapOutputToInput(const LensMapPlan& plan, float x, float y, float* inX, float* inY) {
  const float nx = (x - plan.centreX) * plan.invUnit;
  const float ny = (y - plan.centreY) * plan.invUnit;
  const float s = RadiusFactor(plan, nx, ny) * plan.unitPixels;
  *inX = plan.centreX + nx * s;
  *inY = plan.centreY + ny * s;
}

void BuildLensMapRows(const LensMapPlan& plan, int rowBegin, int rowEnd, float* mapX,
                      float* mapY, int stride) {
  const int width = plan.lens.width;
  for (int y = rowBegin; y < rowEnd; ++y) {
    float* rowX = mapX + static_cast<long>(y - rowBegin) * stride;
    float* rowY = mapY + static_cast<long>(y - rowBegin) * stride;
    const float ny = (static_cast<float>(y) - plan.centreY) * plan.invUnit;
    for (int x = 0; x < width; ++x) {
      const float nx = (static_cast<float>(x) - plan.centreX) * plan.invUnit;
      const float s = RadiusFactor(plan, nx, ny) * plan.unitPixels;
      rowX[x] = plan.centreX + nx * s;
      rowY[x] = plan.centreY + ny * s;
    }
  }
}

}  // namespace compare
