#include "Photos.h"

#include <opencv2/aruco/charuco.hpp>
#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "cli/shared/Errors.h"
#include "cli/render/FramePattern.h"
#include "cli/image/ImageIO.h"
#include "common/EffectParams.h"

namespace veltrisca::solve {

Board ParseBoard(const std::string& text) {
  Board board;
  char x = 0, extra = 0;
  if (text.rfind("charuco:", 0) == 0) {
    board.charuco = true;
    const std::string rest = text.substr(8);
    const size_t colon = rest.find(':');
    board.dictionaryName = colon == std::string::npos ? "5x5_1000" : rest.substr(colon + 1);
    int squaresX = 0, squaresY = 0;
    const char* sizes[] = {"4x4", "5x5", "6x6", "7x7"};
    const char* counts[] = {"50", "100", "250", "1000"};
    board.dictionary = -1;
    for (int i = 0; i < 16; ++i) {
      if (board.dictionaryName == std::string(sizes[i / 4]) + "_" + counts[i % 4]) {
        board.dictionary = i;  // DICT_4X4_50 = 0 ... DICT_7X7_1000 = 15
      }
    }
    const int markers = [&] {
      return std::sscanf(rest.substr(0, colon).c_str(), "%d%c%d%c", &squaresX, &x, &squaresY,
                         &extra) == 3 && x == 'x'
                 ? squaresX * squaresY / 2
                 : 0;
    }();
    const int capacity[] = {50, 100, 250, 1000};
    if (markers == 0 || squaresX < 4 || squaresY < 4 || squaresX > 200 || squaresY > 200 ||
        board.dictionary < 0 || markers > capacity[board.dictionary % 4]) {
      throw UsageError("--board: expected charuco:SQUARESxSQUARES[:DICT], the squares of a "
                       "ChArUco board (4..200 each) and its marker dictionary 4x4_50 .. "
                       "7x7_1000 holding SQUARES*SQUARES/2 markers (default 5x5_1000), got \"" +
                       MessageLine(text) + "\"");
    }
    board.cols = squaresX - 1;
    board.rows = squaresY - 1;
    return board;
  }
  if (std::sscanf(text.c_str(), "%d%c%d%c", &board.cols, &x, &board.rows, &extra) != 3 ||
      x != 'x' || board.cols < 3 || board.rows < 3 || board.cols > 200 || board.rows > 200) {
    throw UsageError("--board: expected COLSxROWS, the inner corners of a chessboard (where "
                     "four squares meet: 9x6 for a board of 10 x 7 squares), each 3..200, or "
                     "charuco:SQUARESxSQUARES[:DICT], got \"" + MessageLine(text) + "\"");
  }
  return board;
}

cv::Ptr<cv::aruco::CharucoBoard> CharucoOf(const Board& board) {
  // The lengths only fix the marker's share of a square (0.7); the detector needs no scale.
  return cv::aruco::CharucoBoard::create(board.cols + 1, board.rows + 1, 1.0f, 0.7f,
                                         cv::aruco::getPredefinedDictionary(board.dictionary));
}

std::vector<std::string> ExpandPhotos(const std::vector<std::string>& photos,
                                      const std::string& frames) {
  std::vector<std::string> files;
  bool patterned = false;
  for (const std::string& photo : photos) {
    const std::optional<FramePattern> pattern = ParseFramePattern("PHOTO", photo, true);
    if (!pattern) {
      files.push_back(photo);
      continue;
    }
    patterned = true;
    std::vector<int> wanted = pattern->inlineFrames ? *pattern->inlineFrames
                              : frames.empty()      ? FramesOnDisk(*pattern)
                                                    : ParseFrameList("--frames", frames);
    if (wanted.empty()) throw IoError("no frame of " + photo + " exists");
    const std::vector<int> disk = FramesOnDisk(*pattern);
    for (const int frame : wanted) {
      if (!std::binary_search(disk.begin(), disk.end(), frame)) {
        throw IoError(FramePath(*pattern, frame) + ": frame " + std::to_string(frame) + " of " +
                      photo + " does not exist");
      }
      files.push_back(FramePath(*pattern, frame));
    }
  }
  if (!frames.empty() && !patterned) {
    throw UsageError("--frames needs a PHOTO with a frame number (e.g. grid.####.exr)");
  }
  return files;
}

Photo ReadPhoto(const std::string& path) {
  InputImage image = OpenInputImage(path, "");
  Photo photo;
  photo.path = path;
  const PF_LRect& display = image.displayWindow;
  photo.frame.width = display.right - display.left;
  photo.frame.height = display.bottom - display.top;
  float aspect = image.spec.get_float_attribute("PixelAspectRatio", 1.0f);
  if (!(aspect > 0.0f) || std::isinf(aspect)) aspect = 1.0f;
  if (aspect < kPixelAspectRange.minimum || aspect > kPixelAspectRange.maximum) {
    throw IoError(path + ": its pixel aspect " + std::to_string(aspect) +
                  " is outside the effect's 0.1..10");
  }
  photo.frame.pixelAspect = aspect;
  if (image.colour.empty()) throw IoError(path + ": the photo has no colour channel");
  const int dataLeft = image.dataWindow.left, dataTop = image.dataWindow.top;
  const PixelBuffer px = ReadPixels(image);

  // Grey in 0..1 (before any gamma) at each pixel of the data window.
  std::vector<int> channels(image.colour.begin(),
                            image.colour.begin() + std::min<size_t>(3, image.colour.size()));
  const double weights3[3] = {0.2126, 0.7152, 0.0722};
  const size_t count = static_cast<size_t>(px.width) * px.height;
  std::vector<float> grey(count);
  for (size_t i = 0; i < count; ++i) {
    double sum = 0;
    for (size_t c = 0; c < channels.size(); ++c) {
      const size_t at = i * px.channels + channels[c];
      double v = 0;
      if (px.depth == Depth::k8) {
        v = px.bytes[at] / 255.0;
      } else if (px.depth == Depth::k16) {
        uint16_t s;
        std::memcpy(&s, &px.bytes[at * 2], 2);
        v = s / 65535.0;
      } else {
        float f;
        std::memcpy(&f, &px.bytes[at * 4], 4);
        v = std::isfinite(f) ? f : 0.0;
      }
      sum += v * (channels.size() == 3 ? weights3[c] : 1.0 / channels.size());
    }
    grey[i] = static_cast<float>(sum);
  }
  if (px.depth == Depth::kFloat && count > 0) {
    std::vector<float> sorted = grey;
    const size_t at = std::min(count - 1, static_cast<size_t>(count * 0.995));
    std::nth_element(sorted.begin(), sorted.begin() + at, sorted.end());
    const float white = sorted[at] > 0 ? sorted[at] : 1.0f;
    for (float& v : grey) v = std::pow(std::clamp(v / white, 0.0f, 1.0f), 1.0f / 2.2f);
  }
  photo.grey = cv::Mat::zeros(photo.frame.height, photo.frame.width, CV_8U);
  for (int y = 0; y < px.height; ++y) {
    const int fy = y + dataTop - display.top;
    if (fy < 0 || fy >= photo.frame.height) continue;
    for (int x = 0; x < px.width; ++x) {
      const int fx = x + dataLeft - display.left;
      if (fx < 0 || fx >= photo.frame.width) continue;
      const float v = grey[static_cast<size_t>(y) * px.width + x];
      photo.grey.at<uint8_t>(fy, fx) =
          static_cast<uint8_t>(std::lround(std::clamp(v, 0.0f, 1.0f) * 255));
    }
  }
  return photo;
}

namespace {

// The largest side searched at full size; larger photos are searched reduced.
constexpr int kSearchSide = 1280;

std::vector<cv::Point2f> Search(const cv::Mat& grey, cv::Size pattern) {
  std::vector<cv::Point2f> corners;
  if (cv::findChessboardCornersSB(grey, pattern, corners,
                                  cv::CALIB_CB_NORMALIZE_IMAGE)) {
    return corners;
  }
  corners.clear();
  if (cv::findChessboardCorners(grey, pattern, corners,
                                cv::CALIB_CB_ADAPTIVE_THRESH | cv::CALIB_CB_NORMALIZE_IMAGE)) {
    return corners;
  }
  return {};
}

// The ChArUco corners found, by id (NaN where missing), refined by the detector.
std::vector<Point> FindCharuco(const cv::Mat& grey, const Board& board) {
  const cv::Ptr<cv::aruco::CharucoBoard> charuco = CharucoOf(board);
  std::vector<std::vector<cv::Point2f>> markers;
  std::vector<int> markerIds;
  cv::aruco::detectMarkers(grey, charuco->dictionary, markers, markerIds);
  std::vector<Point> points(static_cast<size_t>(board.cols) * board.rows,
                            Point{std::nan(""), std::nan("")});
  if (markerIds.size() < 2) return {};
  std::vector<cv::Point2f> corners;
  std::vector<int> ids;
  cv::aruco::interpolateCornersCharuco(markers, markerIds, grey, charuco, corners, ids);
  if (ids.size() < 3) return {};
  for (size_t i = 0; i < ids.size(); ++i) points[ids[i]] = {corners[i].x, corners[i].y};
  return points;
}

}  // namespace

int CornersFound(const std::vector<Point>& corners) {
  int n = 0;
  for (const Point& p : corners) n += std::isfinite(p.x) ? 1 : 0;
  return n;
}

std::vector<Point> FindBoard(const cv::Mat& grey, Board board) {
  if (board.charuco) return FindCharuco(grey, board);
  const cv::Size pattern(board.cols, board.rows);
  const int side = std::max(grey.cols, grey.rows);
  const double scale = side <= kSearchSide ? 1.0 : static_cast<double>(kSearchSide) / side;
  std::vector<cv::Point2f> corners;
  if (scale == 1.0) {
    corners = Search(grey, pattern);
  } else {
    cv::Mat small;
    cv::resize(grey, small, cv::Size(), scale, scale, cv::INTER_AREA);
    corners = Search(small, pattern);
    for (cv::Point2f& p : corners) {  // pixel centres at indices on both sizes
      p.x = static_cast<float>((p.x + 0.5) / scale - 0.5);
      p.y = static_cast<float>((p.y + 0.5) / scale - 0.5);
    }
  }
  if (corners.empty()) return {};
  // Refined at full size by OpenCV's saddle-point search, in a window of a third of the
  // smallest corner spacing (the window must not reach the next corner).
  double spacing = HUGE_VAL;
  for (int r = 0; r < board.rows; ++r) {
    for (int c = 0; c + 1 < board.cols; ++c) {
      const cv::Point2f d = corners[r * board.cols + c + 1] - corners[r * board.cols + c];
      spacing = std::min(spacing, std::hypot(double(d.x), double(d.y)));
    }
  }
  for (int c = 0; c < board.cols; ++c) {
    for (int r = 0; r + 1 < board.rows; ++r) {
      const cv::Point2f d = corners[(r + 1) * board.cols + c] - corners[r * board.cols + c];
      spacing = std::min(spacing, std::hypot(double(d.x), double(d.y)));
    }
  }
  // Corners whose window would leave the photo keep the detector's position: the search
  // would see the border as an edge.
  const int half = std::clamp(static_cast<int>(spacing / 3), 2, 30);
  std::vector<cv::Point2f> inside;
  std::vector<size_t> at;
  for (size_t i = 0; i < corners.size(); ++i) {
    const cv::Point2f& p = corners[i];
    if (p.x - half - 2 >= 0 && p.y - half - 2 >= 0 && p.x + half + 2 < grey.cols &&
        p.y + half + 2 < grey.rows) {
      inside.push_back(p);
      at.push_back(i);
    }
  }
  if (!inside.empty()) {
    cv::cornerSubPix(grey, inside, cv::Size(half, half), cv::Size(-1, -1),
                     cv::TermCriteria(cv::TermCriteria::EPS + cv::TermCriteria::COUNT, 60, 0.001));
  }
  for (size_t k = 0; k < at.size(); ++k) corners[at[k]] = inside[k];
  std::vector<Point> points;
  for (const cv::Point2f& p : corners) points.push_back({p.x, p.y});
  return points;
}

std::vector<WorldLine> BoardLines(const std::vector<Point>& corners, Board board, int source) {
  std::vector<WorldLine> lines;
  if (corners.size() != static_cast<size_t>(board.cols) * board.rows) return lines;
  const auto add = [&](WorldLine line) {
    if (line.points.size() >= 3) lines.push_back(std::move(line));
  };
  for (int r = 0; r < board.rows; ++r) {
    WorldLine line{source, {}};
    for (int c = 0; c < board.cols; ++c) {
      const Point& p = corners[r * board.cols + c];
      if (std::isfinite(p.x)) line.points.push_back(p);
    }
    add(line);
  }
  for (int c = 0; c < board.cols; ++c) {
    WorldLine line{source, {}};
    for (int r = 0; r < board.rows; ++r) {
      const Point& p = corners[r * board.cols + c];
      if (std::isfinite(p.x)) line.points.push_back(p);
    }
    add(line);
  }
  return lines;
}

}  // namespace veltrisca::solve
