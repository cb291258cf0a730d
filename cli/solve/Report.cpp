#include "Report.h"

#include <OpenImageIO/imagebuf.h>
#include <OpenImageIO/imagebufalgo.h>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>

#include "cli/shared/AtomicFile.h"
#include "cli/shared/Errors.h"

namespace veltrisca::solve {

namespace {

std::string Num(double v, int digits) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", digits, v);
  return text;
}

std::string Pair(const Straightness& s) {
  return Num(s.rms, 3) + " (max " + Num(s.max, 2) + ")";
}

double NormalisedRadius(const SolveFrame& f, Point p) {
  const double h = f.height / 2.0;
  return std::hypot((p.x - f.width / 2.0) * f.pixelAspect / h, (p.y - h) / h);
}

}  // namespace

double Coverage(const SolveFrame& frame, const std::vector<WorldLine>& lines) {
  double largest = 0;
  for (const WorldLine& line : lines) {
    for (const Point& p : line.points) largest = std::max(largest, NormalisedRadius(frame, p));
  }
  return largest / frame.CornerRadius();
}

std::vector<std::string> Warnings(const Solution& s) {
  std::vector<std::string> w;
  if (s.coverage < 0.5) {
    w.push_back("warning: the lines reach only " + Num(s.coverage, 2) +
                " of the frame's corner radius (below half): the lens beyond them is a guess; "
                "photograph the board near the corners and edges of the frame");
  } else if (s.coverage < 0.7) {
    w.push_back("warning: the lines reach only " + Num(s.coverage, 2) +
                " of the frame's corner radius (below 0.7): the lens near the corners is "
                "extrapolated; photograph the board near the corners of the frame");
  }
  return w;
}

std::string ReportText(const Solution& s) {
  std::string t;
  const SolveFrame& f = s.frame;
  t += "frame " + std::to_string(f.width) + "x" + std::to_string(f.height) + ", pixel aspect " +
       Num(f.pixelAspect, 4) + "; lens centre at pixel index (" + Num(f.width / 2.0, 1) + ", " +
       Num(f.height / 2.0, 1) + "), unit half the height (" + Num(f.height / 2.0, 1) + " px)\n";
  if (!s.board.empty()) t += "board " + s.board + "\n";
  t += "straightness in pixels, RMS (max), before -> after the lens:\n";
  for (const SourceResult& src : s.sources) {
    t += "  " + src.path + ": ";
    if (!src.problem.empty()) {
      t += src.problem + "\n";
      continue;
    }
    if (src.corners >= 0) t += std::to_string(src.corners) + " corners, ";
    t += std::to_string(src.lines) + " lines, " + Pair(src.before) + " -> " + Pair(src.after) +
         "\n";
  }
  t += "  all: " + std::to_string(s.lines.size()) + " lines, " + std::to_string(s.after.points) +
       " points, " + Pair(s.before) + " -> " + Pair(s.after) + "\n";
  t += "coverage: the points reach " + Num(s.coverage, 2) +
       " of the frame's corner radius\n";
  for (const std::string& w : Warnings(s)) t += w + "\n";
  if (s.termsChosen) {
    t += "terms: " + s.terms.Text() +
         " (chosen by the data: of the fits below, the lowest BIC n·ln(SS/n) + p·ln(n); "
         "more terms only when they also lower the RMS by 2 % or more)\n";
    for (const std::string& c : s.considered) t += "  " + c + "\n";
  } else {
    t += "terms: " + s.terms.Text() + " (--terms)\n";
  }
  const double corner = f.CornerRadius(), h = f.height / 2.0;
  t += "lens (sliders x1000) and its effect at the frame's corner (radius " + Num(corner, 4) +
       ", " + Num(corner * h, 1) + " px from the centre):\n";
  const struct {
    const char* name;
    double k;
    int power;
  } terms[] = {{"distortion", s.lens.k2, 3}, {"cubic", s.lens.k3, 4}, {"quartic", s.lens.k4, 5}};
  for (const auto& term : terms) {
    t += "  " + std::string(term.name) + " " + Num(term.k * 1000, 4) + ": " +
         Num(term.k * std::pow(corner, term.power) * h, 2) + " px\n";
  }
  t += "  together: the frame's corner moves " + Num((LensP(s.lens, corner) - corner) * h, 2) +
       " px radially (distorted radius " + Num(LensP(s.lens, corner) * h, 1) + " px)\n";
  const double limit = RisingLimit(s.lens);
  if (limit >= 64) {
    t += "monotonic limit: none within u = 64 (the frame's corner radius is " + Num(corner, 4) +
         ")\n";
  } else {
    t += "monotonic limit: P rises to u = " + Num(limit, 4) + " (r = " +
         Num(LensP(s.lens, limit), 4) + "), " + Num(limit / corner, 2) +
         " times the frame's corner radius " + Num(corner, 4) +
         (LensP(s.lens, limit) < corner
              ? "; the distorted frame's corners lie beyond r, so a remove of the whole plate "
                "(render --fit) cannot undo them"
              : "") +
         "\n";
  }
  t += "free centre: the same terms with the centre fitted too put it at (" +
       Num(s.freeCentre.cx, 2) + ", " + Num(s.freeCentre.cy, 2) + "), " +
       Num(std::hypot(s.freeCentre.cx - f.width / 2.0, s.freeCentre.cy - f.height / 2.0), 2) +
       " px from the effect's centre; RMS " + Num(s.after.rms, 3) + " -> " +
       Num(s.afterFreeCentre.rms, 3) + " px (the effect's centre is fixed; this is what it "
       "costs)\n";
  return t;
}

namespace {

using OIIO::ImageBuf;
namespace IBA = OIIO::ImageBufAlgo;

// The pictures are drawn on the calling thread: a few lines and dots gain nothing from a pool.
constexpr int kDrawThreads = 1;

// A line `width` pixels wide (copies of a one-pixel line side by side).
void Line(ImageBuf& img, Point a, Point b, const float* colour, int width = 1) {
  const bool steep = std::fabs(b.y - a.y) > std::fabs(b.x - a.x);
  for (int k = 0; k < width; ++k) {
    const int off = k - (width - 1) / 2;
    const int dx = steep ? off : 0, dy = steep ? 0 : off;
    IBA::render_line(img, static_cast<int>(std::lround(a.x)) + dx,
                     static_cast<int>(std::lround(a.y)) + dy,
                     static_cast<int>(std::lround(b.x)) + dx,
                     static_cast<int>(std::lround(b.y)) + dy, {colour, 3},
                     /*skip_first_point=*/false, {}, kDrawThreads);
  }
}

void Dot(ImageBuf& img, Point p, int radius, const float* colour) {
  const int x = static_cast<int>(std::lround(p.x)), y = static_cast<int>(std::lround(p.y));
  IBA::render_box(img, x - radius, y - radius, x + radius, y + radius, {colour, 3}, true, {},
                  kDrawThreads);
}

// Text in DejaVu Sans (Debian's fonts-dejavu-core), else in OpenImageIO's default font; a
// picture without its labels when neither is found.
void Label(ImageBuf& img, int x, int y, const std::string& text, int size, const float* colour) {
  const auto draw = [&](const char* font) {
    return IBA::render_text(img, x, y, text, size, font, {colour, 3}, IBA::TextAlignX::Left,
                            IBA::TextAlignY::Baseline, 0, {}, kDrawThreads);
  };
  if (draw("DejaVuSans")) return;
  img.geterror();
  if (!draw("")) img.geterror();
}

void Save(const ImageBuf& img, const std::string& path) {
  img.threads(kDrawThreads);  // the conversion to 8 bits on write, too
  TempOutputFile temp(path);
  if (!img.write(temp.path(), OIIO::TypeDesc::UINT8, "png")) {
    throw IoError(path + ": " + img.geterror());
  }
  temp.Commit();
}

constexpr float kCorner[3] = {1.0f, 0.2f, 0.1f};
constexpr float kFitted[3] = {0.1f, 0.8f, 1.0f};
constexpr float kResidual[3] = {1.0f, 0.9f, 0.1f};
constexpr float kText[3] = {1.0f, 1.0f, 1.0f};

// The photo undistorted by the lens (OpenCV's bilinear remap of the Remove mapping), in grey,
// with the fitted lines, the corners and their distances from the lines times `magnify`.
ImageBuf PhotoPicture(const Solution& s, const Photo& photo, int source, double magnify) {
  const SolveFrame& f = s.frame;
  cv::Mat mapX(f.height, f.width, CV_32F), mapY(f.height, f.width, CV_32F);
  for (int y = 0; y < f.height; ++y) {
    for (int x = 0; x < f.width; ++x) {
      const Point d = DistortedPixel(f, s.lens, {double(x), double(y)});
      mapX.at<float>(y, x) = static_cast<float>(d.x);
      mapY.at<float>(y, x) = static_cast<float>(d.y);
    }
  }
  cv::Mat undistorted;
  cv::remap(photo.grey, undistorted, mapX, mapY, cv::INTER_LINEAR, cv::BORDER_CONSTANT, 0);
  ImageBuf img(OIIO::ImageSpec(f.width, f.height, 3, OIIO::TypeDesc::FLOAT));
  for (int y = 0; y < f.height; ++y) {
    for (int x = 0; x < f.width; ++x) {
      // Dimmed, so that the drawing stands out.
      const float v = undistorted.at<uint8_t>(y, x) / 255.0f * 0.6f;
      const float rgb[3] = {v, v, v};
      img.setpixel(x, y, rgb, 3);
    }
  }
  const int width = std::max(1, static_cast<int>(std::lround(f.height / 720.0)));  // drawing
  const auto toPixel = [&](Point centred) {
    return Point{s.lens.cx + centred.x / f.pixelAspect, s.lens.cy + centred.y};
  };
  for (const WorldLine& line : s.lines) {
    if (line.source != source) continue;
    const LineResiduals fit = Straighten(f, s.lens, line);
    // The fitted line over the extent of its points.
    double lo = HUGE_VAL, hi = -HUGE_VAL;
    std::vector<Point> along;
    for (size_t i = 0; i < line.points.size(); ++i) {
      const Point u = UndistortedPixel(f, s.lens, line.points[i]);
      const Point c{(u.x - s.lens.cx) * f.pixelAspect, u.y - s.lens.cy};
      const double t = (c.x - fit.centre.x) * fit.direction.x + (c.y - fit.centre.y) * fit.direction.y;
      lo = std::min(lo, t);
      hi = std::max(hi, t);
      along.push_back(c);
    }
    const auto at = [&](double t, double off) {
      return toPixel({fit.centre.x + t * fit.direction.x - off * fit.direction.y,
                      fit.centre.y + t * fit.direction.y + off * fit.direction.x});
    };
    Line(img, at(lo, 0), at(hi, 0), kFitted, width);
    for (size_t i = 0; i < along.size(); ++i) {
      const double t = (along[i].x - fit.centre.x) * fit.direction.x +
                       (along[i].y - fit.centre.y) * fit.direction.y;
      Line(img, at(t, 0), at(t, fit.distances[i] * magnify), kResidual, width);
    }
  }
  for (const WorldLine& line : s.lines) {
    if (line.source != source) continue;
    for (const Point& p : line.points) Dot(img, UndistortedPixel(f, s.lens, p), width, kCorner);
  }
  const int size = std::max(12, f.height / 32);
  const SourceResult& r = s.sources[source];
  Label(img, size / 2, size + size / 4,
        std::filesystem::path(photo.path).filename().string() + ": straightness RMS " +
            Num(r.before.rms, 3) + " -> " + Num(r.after.rms, 3) + " px; residuals x" +
            Num(magnify, 0),
        size, kText);
  return img;
}

// The lens curve: distorted radius r = P(u) against the undistorted radius u (both in pixels
// of the frame's height), the identity dashed, the frame's corner radius and the monotonic
// limit marked.
ImageBuf RadialPicture(const Solution& s) {
  const int w = 640, hgt = 480, margin = 56;
  ImageBuf img(OIIO::ImageSpec(w, hgt, 3, OIIO::TypeDesc::FLOAT));
  const float white[3] = {1, 1, 1};
  IBA::fill(img, {white, 3}, {}, kDrawThreads);
  const double corner = s.frame.CornerRadius(), limit = RisingLimit(s.lens);
  const double uMax = std::min(corner * 1.25, std::max(corner * 1.05, limit * 1.05));
  double rMax = uMax;
  for (int i = 0; i <= 200; ++i) rMax = std::max(rMax, LensP(s.lens, uMax * i / 200));
  const auto px = [&](double u, double r) {
    return Point{margin + u / uMax * (w - 2 * margin), hgt - margin - r / rMax * (hgt - 2 * margin)};
  };
  const float axis[3] = {0, 0, 0}, grey[3] = {0.6f, 0.6f, 0.6f}, curve[3] = {0.1f, 0.3f, 0.9f},
              cornerColour[3] = {0.1f, 0.6f, 0.2f}, limitColour[3] = {0.9f, 0.1f, 0.1f};
  Line(img, px(0, 0), px(uMax, 0), axis);
  Line(img, px(0, 0), px(0, rMax), axis);
  for (int i = 0; i < 40; i += 2) {  // the identity, dashed
    Line(img, px(uMax * i / 40, uMax * i / 40), px(uMax * (i + 1) / 40, uMax * (i + 1) / 40), grey);
  }
  Line(img, px(corner, 0), px(corner, rMax), cornerColour);
  if (limit < uMax) Line(img, px(limit, 0), px(limit, rMax), limitColour);
  Point last = px(0, 0);
  for (int i = 1; i <= 400; ++i) {
    const double u = uMax * i / 400;
    const Point p = px(u, std::clamp(LensP(s.lens, u), 0.0, rMax));
    Line(img, last, p, curve);
    last = p;
  }
  // The radius the photos' points reach.
  const double reached = s.coverage * corner;
  Dot(img, px(reached, LensP(s.lens, reached)), 3, curve);
  Label(img, margin, 28, "distorted radius r = P(u), sliders x1000: " + Num(s.lens.k2 * 1000, 2) +
                             ", " + Num(s.lens.k3 * 1000, 2) + ", " + Num(s.lens.k4 * 1000, 2),
        15, axis);
  Label(img, w - margin - 190, hgt - 18, "undistorted radius u", 15, axis);
  Label(img, static_cast<int>(px(corner, 0).x) + 4, margin + 14, "frame corner", 13,
        cornerColour);
  if (limit < uMax) {
    Label(img, static_cast<int>(px(limit, 0).x) + 4, margin + 32, "monotonic limit", 13,
          limitColour);
  }
  Label(img, margin + 8, hgt - margin - 8, "dashed: no lens; dot: farthest point fitted", 13,
        grey);
  return img;
}

}  // namespace

std::vector<std::string> PicturePaths(const std::string& dir,
                                      const std::vector<std::string>& photos) {
  namespace fs = std::filesystem;
  std::vector<std::string> paths;
  if (dir.empty()) return paths;
  std::map<std::string, int> seen;
  for (const std::string& photo : photos) {
    const std::string stem = fs::path(photo).stem().string();
    const int n = ++seen[stem];
    paths.push_back((fs::path(dir) / (stem + (n > 1 ? "-" + std::to_string(n) : "") + ".png"))
                        .string());
  }
  paths.push_back((fs::path(dir) / "radial.png").string());
  return paths;
}

std::vector<std::string> WritePictures(const std::string& dir, const Solution& s,
                                       const std::vector<Photo>& photos) {
  namespace fs = std::filesystem;
  std::vector<std::string> paths;
  for (const Photo& photo : photos) paths.push_back(photo.path);
  paths = PicturePaths(dir, paths);
  std::error_code ec;
  fs::create_directories(dir, ec);
  if (ec || !fs::is_directory(dir)) {
    throw IoError(dir + ": cannot make the report folder" + (ec ? ": " + ec.message() : ""));
  }
  // Residuals drawn so that the largest after the fit spans about a tenth of the height.
  const double magnify =
      std::clamp(std::round(s.frame.height * 0.1 / std::max(s.after.max, 1e-3) / 10) * 10, 10.0,
                 1000.0);
  std::vector<std::string> written;
  for (size_t i = 0; i < photos.size(); ++i) {
    if (!s.sources[i].problem.empty()) continue;
    Save(PhotoPicture(s, photos[i], static_cast<int>(i), magnify), paths[i]);
    written.push_back(paths[i]);
  }
  Save(RadialPicture(s), paths.back());
  written.push_back(paths.back());
  return written;
}

}  // namespace veltrisca::solve
