#include "BoardChart.h"

#include <OpenImageIO/imagebuf.h>
#include <OpenImageIO/imagebufalgo.h>

#include <algorithm>
#include <cmath>

#include "Photos.h"
#include "cli/shared/Errors.h"

#include <opencv2/aruco/charuco.hpp>

namespace veltrisca::solve {

BoardGeometry BoardGeometryFor(ImageSize size, int cols, int rows) {
  // The squares plus one square of margin on each side, and a second one below for the label.
  const double across = cols + 1 + 2, down = rows + 1 + 3;
  BoardGeometry g;
  g.square = std::floor(std::min(size.width / across, size.height / down));
  if (g.square < 4) {
    throw UsageError("--board: " + std::to_string(cols) + "x" + std::to_string(rows) +
                     " inner corners need squares of 4 pixels or more; give a larger --size");
  }
  g.left = std::round((size.width - (cols + 1) * g.square) / 2) - 0.5;
  g.top = std::round((size.height - (rows + 1 + 1) * g.square) / 2) - 0.5;
  return g;
}

namespace {

// The length of [a, b] inside [lo, hi].
double Overlap(double a, double b, double lo, double hi) {
  return std::max(0.0, std::min(b, hi) - std::max(a, lo));
}

}  // namespace

std::vector<float> RenderBoard(ImageSize size, const std::string& text) {
  const Board board = ParseBoard(text);
  const int squaresX = board.cols + 1, squaresY = board.rows + 1;
  const BoardGeometry g = BoardGeometryFor(size, board.cols, board.rows);
  std::vector<float> rgba(static_cast<size_t>(size.width) * size.height * 4, 1.0f);
  if (board.charuco) {
    // OpenCV draws the board (whole squares, so every edge lies between pixels).
    const int side = static_cast<int>(g.square);
    cv::Mat drawn;
    CharucoOf(board)->draw(cv::Size(squaresX * side, squaresY * side), drawn, 0, 1);
    const int left = static_cast<int>(g.left + 0.5), top = static_cast<int>(g.top + 0.5);
    for (int y = 0; y < drawn.rows; ++y) {
      for (int x = 0; x < drawn.cols; ++x) {
        float* p = &rgba[(static_cast<size_t>(y + top) * size.width + x + left) * 4];
        p[0] = p[1] = p[2] = drawn.at<uint8_t>(y, x) / 255.0f;
      }
    }
  }
  for (int y = 0; y < size.height && !board.charuco; ++y) {
    // The rows of squares the pixel's span touches, and how much of it lies in each.
    const double y0 = (y - 0.5 - g.top) / g.square, y1 = (y + 0.5 - g.top) / g.square;
    for (int x = 0; x < size.width; ++x) {
      const double x0 = (x - 0.5 - g.left) / g.square, x1 = (x + 0.5 - g.left) / g.square;
      double black = 0;
      for (int j = std::max(0, int(std::floor(y0))); j <= std::min(squaresY - 1, int(std::floor(y1)));
           ++j) {
        const double fy = Overlap(y0, y1, j, j + 1);
        for (int i = std::max(0, int(std::floor(x0)));
             i <= std::min(squaresX - 1, int(std::floor(x1))); ++i) {
          if ((i + j) % 2 == 0) black += fy * Overlap(x0, x1, i, i + 1);
        }
      }
      black *= g.square * g.square;  // the pixel's area is 1
      float* p = &rgba[(static_cast<size_t>(y) * size.width + x) * 4];
      p[0] = p[1] = p[2] = static_cast<float>(1.0 - std::clamp(black, 0.0, 1.0));
    }
  }
  // The label, in the margin below the board: what solve needs to be told.
  OIIO::ImageBuf img(OIIO::ImageSpec(size.width, size.height, 4, OIIO::TypeDesc::FLOAT),
                     rgba.data());
  const std::string count = std::to_string(board.cols) + "x" + std::to_string(board.rows);
  const std::string label =
      board.charuco ? "ChArUco " + std::to_string(squaresX) + "x" + std::to_string(squaresY) +
                          " squares, " + board.dictionaryName + ": solve --board charuco:" +
                          std::to_string(squaresX) + "x" + std::to_string(squaresY) + ":" +
                          board.dictionaryName
                    : count + " inner corners: solve --board " + count;
  // About 0.6 of the size a letter, within the board's width and margins.
  const double room = (squaresX + 1.5) * g.square / (0.6 * label.size());
  const int fontSize = std::max(8, static_cast<int>(std::min(g.square * 0.45, room)));
  const int baseline = static_cast<int>(g.top + (squaresY + 0.5) * g.square + fontSize * 0.4);
  const float grey[4] = {0.35f, 0.35f, 0.35f, 1.0f};
  if (!OIIO::ImageBufAlgo::render_text(img, static_cast<int>(g.left + 0.5), baseline, label,
                                       fontSize, "DejaVuSans", {grey, 4})) {
    img.geterror();
    if (!OIIO::ImageBufAlgo::render_text(img, static_cast<int>(g.left + 0.5), baseline, label,
                                         fontSize, "", {grey, 4})) {
      throw IoError("chart --board: cannot draw the label: no font found (Debian: "
                    "fonts-dejavu-core)");
    }
  }
  return rgba;
}

}  // namespace veltrisca::solve
