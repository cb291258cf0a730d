// --lines: edges that are straight in the world, picked by hand on a plate.
//
// JSON (the frame is needed without photos; with photos it must be theirs):
//
//   { "frame": [1920, 1080], "pixelAspect": 1.0,
//     "lines": [ [[102.5, 88.0], [480.0, 61.2], [955.1, 52.3]], ... ] }
//
// A bare array of lines is accepted too. CSV: one point a row, "LINE,X,Y" (LINE any label,
// the points of one line in order, a first row of text is a header, '#' starts a comment);
// its frame comes from the photos or --size. X and Y are pixel indices of the distorted plate.
#ifndef VT_CLI_SOLVE_LINES_H
#define VT_CLI_SOLVE_LINES_H

#include <optional>
#include <string>
#include <vector>

#include "PlumbLine.h"

namespace veltrisca::solve {

struct LinesFile {
  std::optional<SolveFrame> frame;
  std::vector<WorldLine> lines;  // every line as given, short ones included
};
// Throws CliError(kExitIo) naming the file (and the line of a CSV) for anything malformed.
LinesFile ReadLines(const std::string& path, int source);

}  // namespace veltrisca::solve

#endif
