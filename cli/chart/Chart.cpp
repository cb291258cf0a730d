#include "cli/chart/Chart.h"

#include <CLI/CLI.hpp>

#include "cli/image/OutputFile.h"

#include <OpenImageIO/imageio.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <filesystem>

#include "cli/shared/AtomicFile.h"
#include "cli/shared/Errors.h"
#include "cli/image/ImageIO.h"
#include "cli/shared/Memory.h"
#include "cli/solve/BoardChart.h"

namespace veltrisca {

ChartGeometry ChartGeometryFor(ImageSize size) {
  ChartGeometry g;
  g.centreX = size.width * 0.5;
  g.centreY = size.height * 0.5;
  g.cell = std::max(4.0, std::round(size.height / 18.0));
  g.line = std::max(1.5, size.height / 540.0);
  g.ringSpacing = 2.0 * g.cell;
  return g;
}

namespace {

struct Rgb {
  float r, g, b;
};

// Distance from v to the nearest multiple of step.
double DistanceToMultiple(double v, double step) { return std::fabs(v - step * std::round(v / step)); }

Rgb ChartColour(const ChartGeometry& g, ImageSize size, double x, double y) {
  const double dx = x - g.centreX, dy = y - g.centreY;
  const double half = g.line * 0.5;
  // Border: the outermost line-width of the frame (pixels span index +-0.5).
  if (x < -0.5 + g.line || y < -0.5 + g.line || x > size.width - 0.5 - g.line ||
      y > size.height - 0.5 - g.line) {
    return {0.10f, 0.70f, 0.20f};
  }
  // Cross through the centre, twice as wide as the other lines.
  if (std::fabs(dx) < g.line || std::fabs(dy) < g.line) return {0.10f, 0.25f, 0.90f};
  const double radius = std::hypot(dx, dy);
  if (radius > g.ringSpacing * 0.5 && DistanceToMultiple(radius, g.ringSpacing) < half) {
    return {0.85f, 0.10f, 0.10f};
  }
  if (DistanceToMultiple(dx, g.cell) < half || DistanceToMultiple(dy, g.cell) < half) {
    return {0.05f, 0.05f, 0.05f};
  }
  const long long cx = static_cast<long long>(std::floor(dx / g.cell));
  const long long cy = static_cast<long long>(std::floor(dy / g.cell));
  const float v = ((cx + cy) & 1) ? 0.80f : 0.45f;
  return {v, v, v};
}

// Distance from (x, y) to the nearest boundary between two colours of the chart: a pixel
// farther than half its diagonal from every boundary has one colour and needs one sample.
double BoundaryDistance(const ChartGeometry& g, ImageSize size, double x, double y) {
  const double dx = x - g.centreX, dy = y - g.centreY;
  const double half = g.line * 0.5;
  double d = std::min({std::fabs(x - (-0.5 + g.line)), std::fabs(y - (-0.5 + g.line)),
                       std::fabs(x - (size.width - 0.5 - g.line)),
                       std::fabs(y - (size.height - 0.5 - g.line)),
                       std::fabs(std::fabs(dx) - g.line), std::fabs(std::fabs(dy) - g.line),
                       std::fabs(DistanceToMultiple(dx, g.cell) - half),
                       std::fabs(DistanceToMultiple(dy, g.cell) - half)});
  const double radius = std::hypot(dx, dy);
  return std::min(d, std::fabs(DistanceToMultiple(radius, g.ringSpacing) - half));
}

}  // namespace

std::vector<float> RenderChart(ImageSize size) {
  const ChartGeometry g = ChartGeometryFor(size);
  constexpr int kSub = 4;
  constexpr double kInv = 1.0 / (kSub * kSub);
  std::vector<float> rgba(static_cast<size_t>(size.width) * size.height * 4);
  for (int y = 0; y < size.height; ++y) {
    for (int x = 0; x < size.width; ++x) {
      float* p = &rgba[(static_cast<size_t>(y) * size.width + x) * 4];
      p[3] = 1.0f;
      if (BoundaryDistance(g, size, x, y) > 0.75) {
        const Rgb c = ChartColour(g, size, x, y);
        p[0] = c.r;
        p[1] = c.g;
        p[2] = c.b;
        continue;
      }
      double r = 0, gr = 0, b = 0;
      for (int sy = 0; sy < kSub; ++sy) {
        for (int sx = 0; sx < kSub; ++sx) {
          const Rgb c = ChartColour(g, size, x - 0.5 + (sx + 0.5) / kSub,
                                    y - 0.5 + (sy + 0.5) / kSub);
          r += c.r;
          gr += c.g;
          b += c.b;
        }
      }
      p[0] = static_cast<float>(r * kInv);
      p[1] = static_cast<float>(gr * kInv);
      p[2] = static_cast<float>(b * kInv);
    }
  }
  return rgba;
}
void WriteChart(const std::string& path, ImageSize size, const std::string& depthText,
                const std::string& board) {
  std::string ext = std::filesystem::path(path).extension().string();
  for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  OIIO::TypeDesc format = OIIO::TypeDesc::UINT8;
  if (depthText.empty()) {
    if (ext == ".exr") format = OIIO::TypeDesc::HALF;
    if (ext == ".hdr") format = OIIO::TypeDesc::FLOAT;
  } else if (depthText == "8") {
    format = OIIO::TypeDesc::UINT8;
  } else if (depthText == "16") {
    format = OIIO::TypeDesc::UINT16;
  } else if (depthText == "half") {
    format = OIIO::TypeDesc::HALF;
  } else if (depthText == "float") {
    format = OIIO::TypeDesc::FLOAT;
  } else {
    throw UsageError("--depth: expected 8, 16, half or float, got \"" + depthText + "\"");
  }

  auto probe = OIIO::ImageOutput::create(path);
  if (!probe) throw IoError(path + ": " + OIIO::geterror());
  const int channels = probe->supports("alpha") ? 4 : 3;
  const long long pixels = static_cast<long long>(size.width) * size.height;
  // The float chart plus the converted copy the writer may make.
  const uint64_t need = FloatBytes(static_cast<uint64_t>(pixels) * 4) +
                        static_cast<uint64_t>(pixels) * channels * format.size();
  CheckMemory(need, "a " + std::to_string(size.width) + "x" +
                                                std::to_string(size.height) + " chart");

  std::vector<float> rgba = board.empty() ? RenderChart(size) : solve::RenderBoard(size, board);
  if (channels == 3) {
    for (long long i = 1; i < pixels; ++i) {  // packs in place, front to back
      std::copy_n(&rgba[i * 4], 3, &rgba[i * 3]);
    }
  }
  OIIO::ImageSpec spec(size.width, size.height, channels, format);
  spec.attribute("oiio:UnassociatedAlpha", 1);  // opaque anyway; never rescale colour
  TempOutputFile temp(path);
  auto out = OIIO::ImageOutput::create(temp.path());
  if (!out) throw IoError(path + ": " + OIIO::geterror());
  WriteImageFile(std::move(out), temp.path(), path, spec, OIIO::TypeDesc::FLOAT, rgba.data());
  temp.Commit();
}

int RunChart(const ChartCommand& command) {
  const ImageSize size = ParseSize("--size", command.size);
  WriteChart(command.output, size, command.depth, command.board);
  return kExitOk;
}

CommandEntry AddChartCommand(CLI::App& app) {
  auto command = std::make_shared<ChartCommand>();
  ChartCommand& chart = *command;
  CLI::App* chartApp = app.add_subcommand("chart", "Write a lens test chart");
  chartApp->add_option("OUT", chart.output, "output image")->required();
  chartApp->add_option("--size", chart.size, "chart size")->type_name("WxH")->capture_default_str();
  chartApp->add_option("--depth", chart.depth,
                       "8, 16, half or float (default: half for .exr, float for .hdr, else 8)")
      ->type_name("D");
  chartApp->add_option("--board", chart.board,
                       "a chessboard for solve instead: COLSxROWS inner corners (9x6: 10 x 7 "
                       "squares), in a white margin, its count printed below it")
      ->type_name("COLSxROWS");
  AddVerbosity(chartApp, &chart.verbose, &chart.quiet, "print what was written and the time");

  return CommandEntry{chartApp, [command](const CommandContext& context) {
                        const int code = RunChart(*command);
                        if (command->verbose && !command->quiet) {
                          ReportWritten(command->output, context.started, context.out);
                        }
                        return code;
                      }};
}

}  // namespace veltrisca
