// The plumb-line fit of `veltrisca solve`: the effect's Remove lens that makes straight lines
// of the world straight again.
//
// The lens is the effect's own: both sizes the photos' frame (W x H file pixels of pixel
// aspect pa), zoom 1, the centre at pixel index (W/2, H/2), the unit half the height, and x
// scaled by pa so that the lens is round in the desqueezed picture. A distorted position
// (x, y) lies at the normalised position d = ((x - cx)·pa, y - cy) / (H/2) at radius r; its
// undistorted position is d·u/r with u = P^-1(r), P(u) = u·(1 + k2·u² + k3·u³ + k4·u⁴), k the
// sliders' values / 1000. Straightness is measured on the undistorted positions in square
// pixels of the frame's height: d·(u/r)·H/2.
#ifndef VT_CLI_SOLVE_PLUMBLINE_H
#define VT_CLI_SOLVE_PLUMBLINE_H

#include <string>
#include <vector>

namespace veltrisca::solve {

struct Point {
  double x = 0, y = 0;
};

// The frame every photo and line shares.
struct SolveFrame {
  int width = 0, height = 0;
  double pixelAspect = 1;
  double CornerRadius() const;  // normalised radius of the frame's corner, sqrt(A² + 1)
};

// Positions along an edge that is straight in the world, distorted file pixels (indices).
struct WorldLine {
  int source = 0;  // the photo (or lines file) it came from
  std::vector<Point> points;
};

// Which of the three coefficients the fit may move.
struct Terms {
  bool distortion = true, cubic = false, quartic = false;
  int Count() const { return int(distortion) + int(cubic) + int(quartic); }
  std::string Text() const;  // "distortion, quartic"
};
// "distortion[,cubic][,quartic]" in any order; throws CliError(kExitUsage).
Terms ParseTerms(const std::string& text);

struct RadialLens {
  double k2 = 0, k3 = 0, k4 = 0;  // natural units: slider value / 1000
  double cx = 0, cy = 0;          // the centre, pixel indices
};
RadialLens CentredLens(const SolveFrame& frame);  // no distortion, centre (W/2, H/2)

double LensP(const RadialLens& lens, double u);
double LensSlope(const RadialLens& lens, double u);
// The end of P's first rising stretch (searched to u = 64; 64 when it rises that far).
double RisingLimit(const RadialLens& lens);

// A distorted position's undistorted position in the frame's pixels (file pixels, indices).
Point UndistortedPixel(const SolveFrame& frame, const RadialLens& lens, Point distorted);
// The distorted position of an undistorted one (the Remove mapping of an output pixel).
Point DistortedPixel(const SolveFrame& frame, const RadialLens& lens, Point undistorted);

// The best straight line through a line's undistorted points and each point's signed distance
// from it, in square pixels.
// `toDistorted` turns each distance into the distance the lens made of it on the photo (the
// fit minimises those: distances after the lens alone would reward a lens that shrinks the
// picture, and bias the fit towards pincushion).
struct LineResiduals {
  Point centre, direction;  // undistorted square-pixel space centred on the lens
  std::vector<double> distances;
  std::vector<double> toDistorted;
};
LineResiduals Straighten(const SolveFrame& frame, const RadialLens& lens, const WorldLine& line);

struct Straightness {
  double rms = 0, max = 0;
  int points = 0;
};
Straightness Measure(const SolveFrame& frame, const RadialLens& lens,
                     const std::vector<WorldLine>& lines, int source = -1);  // -1: every line

// Least squares over every point of every line (OpenCV's Levenberg-Marquardt), from no
// distortion, the terms not in `terms` held at 0; with freeCentre the centre moves too.
RadialLens FitLens(const SolveFrame& frame, const std::vector<WorldLine>& lines, Terms terms,
                   bool freeCentre);

// Why a lens cannot be written, "" when it can: a coefficient beyond the sliders' range, or P
// not rising up to the frame's corner radius (Remove would fold the undistorted frame).
std::string LensProblem(const SolveFrame& frame, const RadialLens& lens);

// The terms the data supports: every combination that keeps distortion (distortion;
// distortion, cubic; distortion, quartic; all three) is fitted; those LensProblem refuses drop
// out; of the rest, the one with the lowest Bayesian information criterion
// n·ln(SS/n) + p·ln(n) wins (n residuals, SS their sum of squares, p terms), and a candidate
// with more terms replaces one with fewer only when it also lowers the RMS by at least 2 %.
struct TermChoice {
  Terms terms;
  RadialLens lens;
  std::vector<std::string> considered;  // one line per candidate, for the report
};
TermChoice ChooseTerms(const SolveFrame& frame, const std::vector<WorldLine>& lines);

}  // namespace veltrisca::solve

#endif
