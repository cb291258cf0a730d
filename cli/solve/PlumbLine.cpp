#include "PlumbLine.h"

#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sstream>

#include "cli/shared/Errors.h"
#include "common/EffectParams.h"

namespace veltrisca::solve {

double SolveFrame::CornerRadius() const {
  const double aspect = pixelAspect * width / height;
  return std::sqrt(aspect * aspect + 1);
}

std::string Terms::Text() const {
  std::string text;
  for (const auto& [on, name] : {std::pair{distortion, "distortion"}, std::pair{cubic, "cubic"},
                                 std::pair{quartic, "quartic"}}) {
    if (on) text += (text.empty() ? "" : ", ") + std::string(name);
  }
  return text;
}

Terms ParseTerms(const std::string& text) {
  Terms terms{false, false, false};
  std::stringstream words(text);
  for (std::string word; std::getline(words, word, ',');) {
    bool* slot = word == "distortion" ? &terms.distortion
                 : word == "cubic"    ? &terms.cubic
                 : word == "quartic"  ? &terms.quartic
                                      : nullptr;
    if (!slot || *slot) {
      throw UsageError("--terms: expected distortion, cubic and quartic separated by commas, "
                       "each at most once, got \"" + MessageLine(text) + "\"");
    }
    *slot = true;
  }
  if (terms.Count() == 0) throw UsageError("--terms: name at least one term");
  return terms;
}

RadialLens CentredLens(const SolveFrame& frame) {
  RadialLens lens;
  lens.cx = frame.width / 2.0;
  lens.cy = frame.height / 2.0;
  return lens;
}

double LensP(const RadialLens& l, double u) {
  return u * (1 + u * u * (l.k2 + u * (l.k3 + u * l.k4)));
}

double LensSlope(const RadialLens& l, double u) {
  return 1 + u * u * (3 * l.k2 + u * (4 * l.k3 + u * 5 * l.k4));
}

double RisingLimit(const RadialLens& lens) {
  const double step = 1.0 / 1024;
  double u = 0;
  while (u < 64 && LensSlope(lens, u + step) > 0) u += step;
  if (u >= 64) return 64;
  double lo = u, hi = u + step;
  for (int i = 0; i < 60; ++i) {
    const double mid = (lo + hi) / 2;
    (LensSlope(lens, mid) > 0 ? lo : hi) = mid;
  }
  return lo;
}

namespace {

// u = P^-1(r) by Newton's method from u = r; where P stops rising the last u stands (the fit
// then sees a line that does not straighten and moves away).
double InverseP(const RadialLens& lens, double r) {
  double u = r;
  for (int i = 0; i < 40; ++i) {
    const double slope = LensSlope(lens, u);
    if (!(slope > 1e-3)) break;
    const double step = (r - LensP(lens, u)) / slope;
    u += step;
    if (std::fabs(step) < 1e-13) break;
  }
  return u;
}

// A distorted pixel's undistorted position in square pixels centred on the lens.
Point UndistortedCentred(const SolveFrame& frame, const RadialLens& lens, Point p) {
  const double h = frame.height / 2.0;
  const double dx = (p.x - lens.cx) * frame.pixelAspect / h, dy = (p.y - lens.cy) / h;
  const double r = std::hypot(dx, dy);
  const double s = r > 0 ? InverseP(lens, r) / r : 1.0;
  return {dx * s * h, dy * s * h};
}

}  // namespace

Point UndistortedPixel(const SolveFrame& frame, const RadialLens& lens, Point distorted) {
  const Point c = UndistortedCentred(frame, lens, distorted);
  return {lens.cx + c.x / frame.pixelAspect, lens.cy + c.y};
}

Point DistortedPixel(const SolveFrame& frame, const RadialLens& lens, Point undistorted) {
  const double h = frame.height / 2.0;
  const double dx = (undistorted.x - lens.cx) * frame.pixelAspect / h;
  const double dy = (undistorted.y - lens.cy) / h;
  const double u = std::hypot(dx, dy);
  const double f = u > 0 ? LensP(lens, u) / u : 1.0;
  return {lens.cx + dx * f * h / frame.pixelAspect, lens.cy + dy * f * h};
}

LineResiduals Straighten(const SolveFrame& frame, const RadialLens& lens, const WorldLine& line) {
  LineResiduals out;
  const size_t n = line.points.size();
  std::vector<Point> q(n);
  for (size_t i = 0; i < n; ++i) {
    q[i] = UndistortedCentred(frame, lens, line.points[i]);
    out.centre.x += q[i].x / n;
    out.centre.y += q[i].y / n;
  }
  double sxx = 0, syy = 0, sxy = 0;
  for (const Point& p : q) {
    const double dx = p.x - out.centre.x, dy = p.y - out.centre.y;
    sxx += dx * dx;
    syy += dy * dy;
    sxy += dx * dy;
  }
  // The principal direction, oriented from the first point to the last so that the signs of
  // the distances do not flip between neighbouring lenses (the fit differentiates them).
  const double angle = 0.5 * std::atan2(2 * sxy, sxx - syy);
  Point dir{std::cos(angle), std::sin(angle)};
  if (dir.x * (q.back().x - q.front().x) + dir.y * (q.back().y - q.front().y) < 0) {
    dir = {-dir.x, -dir.y};
  }
  out.direction = dir;
  out.distances.resize(n);
  out.toDistorted.resize(n);
  for (size_t i = 0; i < n; ++i) {
    out.distances[i] = -dir.y * (q[i].x - out.centre.x) + dir.x * (q[i].y - out.centre.y);
    // The lens stretches a step across the line by P'(u) radially and by r/u around the
    // centre (u the undistorted radius, in units of half the height).
    const double h = frame.height / 2.0;
    const double u = std::hypot(q[i].x, q[i].y) / h;
    if (u <= 0) {
      out.toDistorted[i] = 1;
      continue;
    }
    const double nr = (-dir.y * q[i].x + dir.x * q[i].y) / (u * h);  // normal . radial
    const double radial = LensSlope(lens, u) * nr, around = LensP(lens, u) / u;
    out.toDistorted[i] = std::sqrt(radial * radial + around * around * (1 - nr * nr));
  }
  return out;
}

Straightness Measure(const SolveFrame& frame, const RadialLens& lens,
                     const std::vector<WorldLine>& lines, int source) {
  Straightness s;
  double sum = 0;
  for (const WorldLine& line : lines) {
    if (source >= 0 && line.source != source) continue;
    for (const double d : Straighten(frame, lens, line).distances) {
      sum += d * d;
      s.max = std::max(s.max, std::fabs(d));
      ++s.points;
    }
  }
  s.rms = s.points ? std::sqrt(sum / s.points) : 0.0;
  return s;
}

namespace {

// The parameters the fit moves, in order: the chosen coefficients, then the centre's offset
// from (W/2, H/2) in pixels.
RadialLens LensOf(const SolveFrame& frame, Terms terms, bool freeCentre, const double* p) {
  RadialLens lens = CentredLens(frame);
  int i = 0;
  if (terms.distortion) lens.k2 = p[i++];
  if (terms.cubic) lens.k3 = p[i++];
  if (terms.quartic) lens.k4 = p[i++];
  if (freeCentre) {
    lens.cx += p[i++];
    lens.cy += p[i++];
  }
  return lens;
}

class StraightnessCost : public cv::LMSolver::Callback {
 public:
  StraightnessCost(const SolveFrame& frame, const std::vector<WorldLine>& lines, Terms terms,
                   bool freeCentre)
      : frame_(frame), lines_(lines), terms_(terms), freeCentre_(freeCentre) {
    for (const WorldLine& line : lines) residuals_ += static_cast<int>(line.points.size());
  }

  bool compute(cv::InputArray param, cv::OutputArray err, cv::OutputArray jac) const override {
    const cv::Mat p = param.getMat();
    const int n = p.rows * p.cols;
    std::vector<double> values(p.ptr<double>(), p.ptr<double>() + n);
    err.create(residuals_, 1, CV_64F);
    cv::Mat e = err.getMat();
    Residuals(values.data(), e.ptr<double>());
    if (!jac.needed()) return true;
    // Central differences: the residuals are smooth in every parameter.
    jac.create(residuals_, n, CV_64F);
    cv::Mat j = jac.getMat();
    std::vector<double> plus(residuals_), minus(residuals_);
    for (int k = 0; k < n; ++k) {
      const double step = k < terms_.Count() ? 1e-6 : 1e-4;
      std::vector<double> v = values;
      v[k] = values[k] + step;
      Residuals(v.data(), plus.data());
      v[k] = values[k] - step;
      Residuals(v.data(), minus.data());
      for (int r = 0; r < residuals_; ++r) j.at<double>(r, k) = (plus[r] - minus[r]) / (2 * step);
    }
    return true;
  }

  int residuals() const { return residuals_; }

 private:
  void Residuals(const double* p, double* out) const {
    const RadialLens lens = LensOf(frame_, terms_, freeCentre_, p);
    for (const WorldLine& line : lines_) {
      const LineResiduals r = Straighten(frame_, lens, line);
      for (size_t i = 0; i < r.distances.size(); ++i) *out++ = r.distances[i] * r.toDistorted[i];
    }
  }

  const SolveFrame& frame_;
  const std::vector<WorldLine>& lines_;
  Terms terms_;
  bool freeCentre_;
  int residuals_ = 0;
};

}  // namespace

RadialLens FitLens(const SolveFrame& frame, const std::vector<WorldLine>& lines, Terms terms,
                   bool freeCentre) {
  const int n = terms.Count() + (freeCentre ? 2 : 0);
  cv::Mat params = cv::Mat::zeros(n, 1, CV_64F);
  auto cost = cv::makePtr<StraightnessCost>(frame, lines, terms, freeCentre);
  if (cost->residuals() < n) throw IoError("too few points on the lines for the fit");
  cv::Ptr<cv::LMSolver> solver = cv::LMSolver::create(cost, 200, 1e-12);
  solver->run(params);
  return LensOf(frame, terms, freeCentre, params.ptr<double>());
}

namespace {

std::string Num(double v, int digits) {
  char text[48];
  std::snprintf(text, sizeof text, "%.*f", digits, v);
  return text;
}

}  // namespace

std::string LensProblem(const SolveFrame& frame, const RadialLens& lens) {
  for (const auto& [k, name] : {std::pair{lens.k2, "distortion"}, std::pair{lens.k3, "cubic"},
                                std::pair{lens.k4, "quartic"}}) {
    if (!std::isfinite(k)) return std::string(name) + " did not converge";
    if (std::fabs(k * 1000) > kCoefficientRange.maximum) {
      return std::string(name) + " " + Num(k * 1000, 1) + " lies beyond the sliders' range " +
             Num(kCoefficientRange.minimum, 0) + ".." + Num(kCoefficientRange.maximum, 0);
    }
  }
  const double corner = frame.CornerRadius();
  const double limit = RisingLimit(lens);
  if (limit < corner) {
    return "the lens folds inside the frame: P rises only to u = " + Num(limit, 3) +
           ", the frame's corner lies at radius " + Num(corner, 3);
  }
  return std::string();
}

TermChoice ChooseTerms(const SolveFrame& frame, const std::vector<WorldLine>& lines) {
  const Terms candidates[] = {{true, false, false}, {true, true, false}, {true, false, true},
                              {true, true, true}};
  TermChoice choice;
  bool found = false;
  double bestBic = 0, bestRms = 0;
  for (const Terms& terms : candidates) {
    const RadialLens lens = FitLens(frame, lines, terms, false);
    const Straightness s = Measure(frame, lens, lines);
    const std::string problem = LensProblem(frame, lens);
    const double n = s.points;
    const double bic = n * std::log(std::max(s.rms * s.rms, 1e-30)) + terms.Count() * std::log(n);
    std::string line = terms.Text() + ": RMS " + Num(s.rms, 4) + " px, BIC " + Num(bic, 1);
    if (!problem.empty()) {
      choice.considered.push_back(line + " (refused: " + problem + ")");
      continue;
    }
    choice.considered.push_back(line);
    if (!found || (bic < bestBic && s.rms < 0.98 * bestRms)) {
      found = true;
      bestBic = bic;
      bestRms = s.rms;
      choice.terms = terms;
      choice.lens = lens;
    }
  }
  if (!found) {
    throw IoError("no lens of the effect straightens these lines without folding inside the "
                  "frame or leaving the sliders' range (" + choice.considered.front() + ")");
  }
  return choice;
}

}  // namespace veltrisca::solve
