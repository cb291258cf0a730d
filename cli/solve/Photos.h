// The photos of `veltrisca solve`: which files, their pixels as a detectable grey, and the
// chessboard's corners found in them (OpenCV).
#ifndef VT_CLI_SOLVE_PHOTOS_H
#define VT_CLI_SOLVE_PHOTOS_H

#include <opencv2/aruco/charuco.hpp>
#include <opencv2/core.hpp>

#include <string>
#include <vector>

#include "PlumbLine.h"

namespace veltrisca::solve {

// A chessboard counted by its inner corners (where four squares meet), OpenCV's convention:
// a board of 10 x 7 squares has 9 x 6 inner corners. A ChArUco board (OpenCV's aruco module)
// is counted by its squares, "charuco:SQUARESxSQUARES[:DICT]", and has one inner corner
// fewer each way; its markers name its corners, so it is found in part too.
struct Board {
  int cols = 0, rows = 0;  // inner corners
  bool charuco = false;
  int dictionary = 0;        // cv::aruco::PREDEFINED_DICTIONARY_NAME
  std::string dictionaryName;  // "5x5_1000"
};
// "COLSxROWS", each 3..200, or "charuco:SQUARESxSQUARES[:DICT]" (4..200 squares each; DICT
// 4x4_50 .. 7x7_1000, default 5x5_1000); throws CliError(kExitUsage).
Board ParseBoard(const std::string& text);
// OpenCV's description of a ChArUco board, as chart --board draws it and solve finds it.
cv::Ptr<cv::aruco::CharucoBoard> CharucoOf(const Board& board);

// The files PHOTO names: itself, or the frames of a pattern (cli/FramePattern.h): those of
// --frames or of an inline list, else every frame on disk. A frame asked for that does not
// exist throws CliError(kExitIo).
std::vector<std::string> ExpandPhotos(const std::vector<std::string>& photos,
                                      const std::string& frames);

struct Photo {
  std::string path;
  SolveFrame frame;  // the display window's size and the file's pixel aspect
  cv::Mat grey;      // 8-bit, the display window (black where the file holds no pixels)
};
// Reads a photo and brings it to 8-bit grey: Rec. 709 luma of its first three channels (one
// channel as it is); 8- and 16-bit values scaled to 0..255; float values, taken as
// scene-linear, scaled so that their 99.5th percentile is white and then given a 1/2.2 gamma.
// Throws CliError(kExitIo) for an unreadable file.
Photo ReadPhoto(const std::string& path);

// The board's inner corners in `grey`, row by row (the corners of a row lie on one straight
// edge of the board, as do those of a column), in pixel indices; empty when no board of that
// count is found. A ChArUco corner not found is NaN. Large chessboard photos are searched at a
// reduced size and refined at full size.
std::vector<Point> FindBoard(const cv::Mat& grey, Board board);
int CornersFound(const std::vector<Point>& corners);

// The rows and columns of three corners or more as lines of photo `source`.
std::vector<WorldLine> BoardLines(const std::vector<Point>& corners, Board board, int source);

}  // namespace veltrisca::solve

#endif
