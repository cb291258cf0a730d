// `veltrisca chart --board COLSxROWS`: a printable chessboard of (COLS+1) x (ROWS+1) squares for
// `solve --board COLSxROWS`, inside a white margin of one square (the quiet zone detectors
// need), its inner-corner count printed in the bottom margin.
#ifndef VT_CLI_SOLVE_BOARDCHART_H
#define VT_CLI_SOLVE_BOARDCHART_H

#include <string>
#include <vector>

#include "cli/lens/LensOptions.h"

namespace veltrisca::solve {

// Geometry of the board in a frame, in pixels (continuous: a pixel spans index -0.5..+0.5).
struct BoardGeometry {
  double square = 0;       // side of a square
  double left = 0, top = 0;  // the board's outer corner (top left)
};
BoardGeometry BoardGeometryFor(ImageSize size, int cols, int rows);

// RGBA samples (0..1, opaque), row by row: black and white squares (the top-left one black),
// each pixel the exact share of black it covers; the label drawn in grey.
std::vector<float> RenderBoard(ImageSize size, const std::string& board);

}  // namespace veltrisca::solve

#endif
