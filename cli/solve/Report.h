// What `veltrisca solve` tells: the report text (standard output and the lens file's comment)
// and the pictures of --report DIR.
#ifndef VT_CLI_SOLVE_REPORT_H
#define VT_CLI_SOLVE_REPORT_H

#include <string>
#include <vector>

#include "Photos.h"
#include "PlumbLine.h"

namespace veltrisca::solve {

struct SourceResult {
  std::string path;      // a photo or the lines file
  int corners = -1;      // corners found (-1: a lines file)
  int lines = 0;         // lines used (three points or more)
  std::string problem;   // why it gave no line, "" when it did
  Straightness before, after;
};

struct Solution {
  SolveFrame frame;
  std::string board;  // "9x6 inner corners", "" without photos
  std::vector<SourceResult> sources;
  std::vector<WorldLine> lines;
  Terms terms;
  bool termsChosen = false;              // by the data, not --terms
  std::vector<std::string> considered;   // the candidates, when chosen
  RadialLens lens, freeCentre;
  Straightness before, after, afterFreeCentre;
  double coverage = 0;  // the largest corner radius reached over the frame's corner radius
};

// The largest normalised radius of any point of the lines, over the frame's corner radius.
double Coverage(const SolveFrame& frame, const std::vector<WorldLine>& lines);

// The warnings of a solution (coverage), one line each starting "warning: ".
std::vector<std::string> Warnings(const Solution& s);

// The report, lines ending in '\n'.
std::string ReportText(const Solution& s);

// The pictures of --report DIR for these photos: DIR/NAME.png per photo (NAME-2.png, ... for
// a name met before), then DIR/radial.png. Empty without DIR.
std::vector<std::string> PicturePaths(const std::string& dir,
                                      const std::vector<std::string>& photos);

// --report DIR: per photo NAME.png (the photo undistorted by the lens, the corners and the
// fitted lines over it, the residuals magnified), and radial.png (the lens curve). The folder
// is made when missing; each file is written whole or not at all. Returns the paths written.
std::vector<std::string> WritePictures(const std::string& dir, const Solution& s,
                                       const std::vector<Photo>& photos);

}  // namespace veltrisca::solve

#endif
