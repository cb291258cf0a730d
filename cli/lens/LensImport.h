// `veltrisca lens`: writes a lens file from the lens options, or imports a lens from an OpenCV
// calibration, FFmpeg's lenscorrection filter or the lensfun database. An import converts
// exactly where the source model and the effect's polynomial agree and fits the three
// coefficients by least squares otherwise, and always measures the result: the largest and
// RMS distance, in pixels over the whole frame, between the source's undistorted-to-distorted
// mapping and the effect's own run mapping of the imported lens.
#ifndef VT_CLI_LENSIMPORT_H
#define VT_CLI_LENSIMPORT_H

#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "cli/lens/LensOptions.h"
#include "cli/shared/Command.h"

namespace CLI {
class App;
}

namespace veltrisca {

struct LensCommand {
  LensOptionText lens;
  std::string output;  // empty: standard output
  std::string from;    // "", opencv, ffmpeg, lensfun
  std::string size = "1920x1080";
  std::string k1 = "0", k2 = "0", k3 = "0", p1 = "0", p2 = "0";
  std::string fx, fy, cx, cy;
  std::string maker, model, focal, crop;
  bool quiet = false;  // -q: no report, no warnings
  bool verbose = false;  // -v
};

void AddImportOptions(CLI::App* lens, LensCommand* command);
int RunLens(const LensCommand& command, const std::string& plugin, std::ostream& out,
            std::ostream& err);

// `veltrisca lens`: a lens file from the lens options, or a lens imported from elsewhere.
CommandEntry AddLensCommand(CLI::App& app);

// The source lens: for an undistorted position (pixel indices), the distorted position.
using SourceMapping = std::function<void(double x, double y, double* xd, double* yd)>;

// The effect's lens for a W x H frame, Remove, equal sizes, square pixels: for the output
// pixel (x, y), input = c + h·d·(a1 + a3·ρ² + a4·ρ³ + a5·ρ⁴), c = (W/2, H/2), h = H/2,
// d = ((x, y) − c)/h, ρ = |d|; a1 = 1/zoom, a3 = k2/zoom³, a4 = k3/zoom⁴, a5 = k4/zoom⁵.
// Least squares over a grid of the frame's pixels; with fitZoom false a1 stays 1.
struct PolynomialFit {
  double k2 = 0, k3 = 0, k4 = 0, zoom = 1;
};
PolynomialFit FitPolynomial(const SourceMapping& source, ImageSize frame, bool fitZoom);

}  // namespace veltrisca

#endif
