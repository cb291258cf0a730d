// A lens test chart: a checkerboard with straight grid lines on its cell edges, concentric
// circles and a cross through the image centre (where the lens centre of a plate of the same
// size lies), and a border. Straight lines bend visibly under distortion; the circles show
// whether it is radial.
#ifndef VT_CLI_CHART_H
#define VT_CLI_CHART_H

#include <string>

#include "cli/shared/Command.h"
#include <vector>

#include "cli/lens/LensOptions.h"

namespace veltrisca {

struct ChartCommand {
  std::string output;
  std::string size = "1920x1080";
  std::string depth;  // empty: from the extension
  std::string board;  // --board COLSxROWS: a chessboard for solve
  bool verbose = false;  // -v
  bool quiet = false;    // -q
};

int RunChart(const ChartCommand& command);

CommandEntry AddChartCommand(CLI::App& app);

// Geometry of the chart for a frame size, in pixels.
struct ChartGeometry {
  double centreX = 0, centreY = 0;  // the frame centre, W/2 and H/2 (pixel positions are indices)
  double cell = 0;                  // checker cell and grid spacing
  double line = 0;                  // line width
  double ringSpacing = 0;           // radius step of the circles
};
ChartGeometry ChartGeometryFor(ImageSize size);

// RGBA samples (0..1, opaque), row by row, each pixel the mean of 4 x 4 sub-samples.
std::vector<float> RenderChart(ImageSize size);

// Writes the chart to `path` (atomically); with `board` ("COLSxROWS") the chessboard of
// solve/BoardChart.h instead. `depth` is "8", "16", "half", "float" or empty
// (from the extension: OpenEXR half, Radiance float, everything else 8 bits). Alpha is written
// when the format can hold it.
void WriteChart(const std::string& path, ImageSize size, const std::string& depth,
                const std::string& board = "");

}  // namespace veltrisca

#endif
