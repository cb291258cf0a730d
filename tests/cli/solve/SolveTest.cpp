// veltrisca solve: the lens from chessboard photos (OpenCV's samples, and boards made by chart
// --board, warped in perspective and distorted by the effect itself) and from lines; chart
// --board; what is refused.
#include <OpenImageIO/imagebuf.h>
#include <OpenImageIO/imagebufalgo.h>
#include <opencv2/imgproc.hpp>

#include <regex>

#include "../CliTestSupport.h"
#include "cli/solve/PlumbLine.h"
#include "cli/solve/Report.h"

namespace {

using namespace vt_cli_test;

const std::string kSamples = std::string(VT_SOURCE_DIR) + "/tests/data/chessboards/";
constexpr int kW = 640, kH = 360;

// "all: ... points, 0.705 (max 2.60) -> 0.136 (max 0.70)": RMS before and after.
std::pair<double, double> AllStraightness(const std::string& report) {
  std::smatch m;
  if (!std::regex_search(report, m, std::regex("all: .* points, ([0-9.]+) .* -> ([0-9.]+) "))) {
    ADD_FAILURE() << "no straightness in: " << report;
    return {0, 0};
  }
  return {std::stod(m[1]), std::stod(m[2])};
}

// The remove map of a lens (stmap --size 640x360 and the lens options), in pixels.
std::vector<double> RemoveMap(const ScratchDir& dir, const Args& lens) {
  RunOk(Cat({"stmap", dir / "map.exr", "--size", "640x360"}, lens));
  const Image map = ReadImage(dir / "map.exr");
  std::vector<double> xy;
  for (size_t i = 0; i < size_t(kW) * kH; ++i) {
    xy.push_back(map.pixels[i * map.channels] * kW - 0.5);
    xy.push_back((1 - map.pixels[i * map.channels + 1]) * kH - 0.5);
  }
  return xy;
}

double RmsDistance(const std::vector<double>& a, const std::vector<double>& b) {
  double sum = 0;
  for (size_t i = 0; i < a.size(); ++i) sum += (a[i] - b[i]) * (a[i] - b[i]);
  return std::sqrt(sum / (a.size() / 2));
}

// Photos of a 7x5 board by a lens: the board of chart --board warped in perspective by
// OpenImageIO into five views (one filling the frame, four reaching into its corners), each
// distorted by render --mode apply with `lens` and given Gaussian noise (sigma 0.5 %).
std::vector<std::string> BoardPhotos(const ScratchDir& dir, const Args& lens) {
  RunOk(Split("chart --board 7x5 --size 960x720 OUT", "", dir / "board.png"));
  OIIO::ImageBuf board(dir / "board.png");
  const float quads[5][8] = {{40, 11, 600, 5, 607, 352, 33, 355},
                             {-40, -33, 333, 11, 327, 220, -13, 200},
                             {300, 11, 673, -33, 660, 213, 313, 224},
                             {313, 147, 660, 131, 680, 393, 291, 376},
                             {-33, 133, 327, 153, 340, 387, -27, 397}};
  std::vector<std::string> photos;
  for (int v = 0; v < 5; ++v) {
    const cv::Point2f from[4] = {{0, 0}, {960, 0}, {960, 720}, {0, 720}};
    cv::Point2f to[4];
    for (int k = 0; k < 4; ++k) to[k] = {quads[v][2 * k], quads[v][2 * k + 1]};
    const cv::Mat h = cv::getPerspectiveTransform(from, to);
    float m[3][3];  // OpenImageIO multiplies row vectors: the transpose
    for (int r = 0; r < 3; ++r) {
      for (int c = 0; c < 3; ++c) m[c][r] = static_cast<float>(h.at<double>(r, c));
    }
    const int rgb[3] = {0, 1, 2};
    const OIIO::ImageBuf flat = OIIO::ImageBufAlgo::channels(
        OIIO::ImageBufAlgo::warp(board, m, "triangle", 0, false, OIIO::ImageBuf::WrapBlack,
                                 OIIO::ROI(0, kW, 0, kH)),
        3, rgb);
    const std::string name = dir / ("flat" + std::to_string(v) + ".png");
    EXPECT_TRUE(flat.write(name));
    RunOk(Cat({"render", name, dir / "lensed.png", "--mode", "apply"}, lens));
    OIIO::ImageBuf photo(dir / "lensed.png");
    OIIO::ImageBufAlgo::noise(photo, "gaussian", 0.0f, 0.005f, true, v + 1);
    photos.push_back(dir / ("photo" + std::to_string(v) + ".png"));
    EXPECT_TRUE(photo.write(photos.back(), OIIO::TypeDesc::UINT8));
  }
  return photos;
}

TEST(Solve, OpenCvSamplesStraightenAndTheLensRendersAndMaps) {
  ScratchDir dir;
  const RunResult r = RunOk({"solve", kSamples + "left01.jpg", kSamples + "left02.jpg",
                             kSamples + "left03.jpg", kSamples + "left04.jpg", "--board", "9x6",
                             "-o", dir / "lens.json", "--report", dir / "report"});
  const auto [before, after] = AllStraightness(r.out);
  EXPECT_GT(before, 0.6);
  EXPECT_LT(after, 0.2);
  const Json lens = Json::parse(Slurp(dir / "lens.json"));
  EXPECT_LT(lens["distortion"].get<double>(), -30);  // a barrel lens
  EXPECT_EQ(lens["comment"].get<std::string>().find("veltrisca solve\n"), 0u);
  for (const char* name : {"left01.png", "left04.png", "radial.png"}) {
    EXPECT_EQ(ReadImage(dir / "report" + std::string("/") + name).width, 640) << name;
  }
  RunOk({"render", kSamples + "left01.jpg", dir / "u.png", "--lens", dir / "lens.json"});
  RunOk({"stmap", dir / "map.exr", "--lens", dir / "lens.json"});
}

// The effect's lens rendered into photos comes back: the mapping within 0.1 px RMS of the true
// one, with the terms the lens has. A wrong sign, slider scale or unit (half the height) misses
// by pixels.
TEST(Solve, SyntheticBoardsGiveBackTheLensTheyWereRenderedWith) {
  const struct {
    const char* name;
    Args lens;
    const char* terms;
  } cases[] = {{"barrel", {"--distortion", "-50"}, "distortion"},
               {"pincushion", {"--distortion", "30"}, "distortion"},
               {"moustache", {"--distortion", "-80", "--quartic", "15"}, "distortion, quartic"}};
  for (const auto& c : cases) {
    ScratchDir dir;
    const std::vector<std::string> photos = BoardPhotos(dir, c.lens);
    const RunResult r =
        RunOk(Cat(Cat({"solve"}, photos), {"--board", "7x5", "-o", dir / "solved.json"}));
    EXPECT_NE(r.out.find("photo4.png: 35 corners"), std::string::npos) << c.name << r.out;
    EXPECT_NE(r.out.find("terms: " + std::string(c.terms) + " (chosen"), std::string::npos)
        << c.name << r.out;
    const double error =
        RmsDistance(RemoveMap(dir, c.lens), RemoveMap(dir, {"--lens", dir / "solved.json"}));
    EXPECT_LT(error, 0.1) << c.name << ":\n" << r.out;
    std::smatch m;  // the lens's own centre, found again within pixels when the fit may move it
    ASSERT_TRUE(std::regex_search(r.out, m, std::regex(", ([0-9.]+) px from the effect's centre")));
    EXPECT_LT(std::stod(m[1]), 3.0) << c.name << m[0];
  }
}

// The model the fit straightens lines with is the effect's Remove mapping: centre at pixel
// index (W/2, H/2), unit half the height, sliders / 1000 (stmap is the effect's own mapping).
TEST(Solve, TheFittedModelIsTheEffectsMapping) {
  ScratchDir dir;
  const std::vector<double> map =
      RemoveMap(dir, {"--distortion", "-90", "--cubic", "20", "--quartic", "8"});
  namespace vs = veltrisca::solve;
  const vs::SolveFrame frame{kW, kH, 1.0};
  // A 640x480 frame's corner lies 5/3 half-heights out; 2:1 pixels double its width.
  EXPECT_DOUBLE_EQ((vs::SolveFrame{640, 480, 1.0}.CornerRadius()), 5.0 / 3.0);
  EXPECT_DOUBLE_EQ((vs::SolveFrame{240, 480, 2.0}.CornerRadius()), std::sqrt(2.0));
  vs::RadialLens lens = vs::CentredLens(frame);
  lens.k2 = -0.09, lens.k3 = 0.02, lens.k4 = 0.008;
  double worst = 0;
  for (int y = 0; y < kH; y += 7) {
    for (int x = 0; x < kW; x += 7) {
      const vs::Point d = vs::DistortedPixel(frame, lens, {double(x), double(y)});
      const size_t i = (size_t(y) * kW + x) * 2;
      worst = std::max({worst, std::fabs(d.x - map[i]), std::fabs(d.y - map[i + 1])});
      const vs::Point back = vs::UndistortedPixel(frame, lens, d);
      worst = std::max({worst, std::fabs(back.x - x), std::fabs(back.y - y)});
    }
  }
  EXPECT_LT(worst, 0.01);
}

// Lines picked on a plate (here: rows and columns of the undistorted frame through the
// effect's own remove map), as JSON and as CSV, give the lens back; alone or beside photos.
TEST(Solve, LinesGiveTheLensBack) {
  ScratchDir dir;
  const Args truth = {"--distortion", "-70", "--quartic", "10"};
  const std::vector<double> map = RemoveMap(dir, truth);
  Json lines = Json::array();
  std::string csv = "line,x,y\n";
  auto add = [&](int x0, int y0, int dx, int dy, int n) {
    Json line = Json::array();
    for (int k = 0; k < n; ++k) {
      const size_t i = (size_t(y0 + k * dy) * kW + x0 + k * dx) * 2;
      line.push_back({map[i], map[i + 1]});
      csv += std::to_string(lines.size()) + "," + std::to_string(map[i]) + "," +
             std::to_string(map[i + 1]) + "\n";
    }
    lines.push_back(line);
  };
  for (int y = 5; y < kH; y += 70) add(5, y, 70, 0, 10);
  for (int x = 5; x < kW; x += 79) add(x, 5, 0, 43, 9);
  Write(dir / "lines.json", Json{{"frame", {kW, kH}}, {"lines", lines}}.dump());
  Write(dir / "lines.csv", csv);
  for (const Args& source : {Args{"--lines", dir / "lines.json"},
                             Args{"--lines", dir / "lines.csv", "--size", "640x360"}}) {
    RunOk(Cat({"solve", "-o", dir / "solved.json"}, source));
    EXPECT_LT(RmsDistance(map, RemoveMap(dir, {"--lens", dir / "solved.json"})), 0.02)
        << source[1];
  }
}

// The board of chart --board is found, flat, in 8-bit, 16-bit and scene-linear half photos
// (the half one four times brighter than white), and through a frame pattern.
TEST(Solve, ChartBoardIsFoundFlatWithItsCount) {
  ScratchDir dir;
  RunOk(Split("chart --board 9x6 --size 640x480 OUT", "", dir / "b.png"));
  const Image b = ReadImage(dir / "b.png");
  std::vector<float> bright(b.pixels);
  for (float& v : bright) v *= 4;
  WriteImage(dir / "b.1001.exr", 640, 480, 4, OIIO::TypeDesc::HALF, OIIO::TypeDesc::FLOAT,
             bright.data());
  WriteImage(dir / "b16.tif", 640, 480, 4, OIIO::TypeDesc::UINT16, OIIO::TypeDesc::FLOAT,
             b.pixels.data());
  for (const Args& photos : {Args{dir / "b.png"}, Args{dir / "b16.tif"},
                             Args{dir / "b.####.exr", "--frames", "1001"}}) {
    const RunResult r = RunOk(Cat(Cat({"solve"}, photos), {"--board", "9x6", "--terms", "cubic"}));
    EXPECT_NE(r.out.find("54 corners"), std::string::npos) << photos[0] << r.out;
    EXPECT_LT(AllStraightness(r.out).first, 0.05) << photos[0];
  }
  ExpectRefusal(RunTool(Split("chart --board 2x6 OUT", "", dir / "c.png")), 1, "inner corners",
                "2x6");
  // A ChArUco board is found in part: here its left quarter lies beyond the frame.
  RunOk(Split("chart --board charuco:7x5 --size 640x480 OUT", "", dir / "ch.png"));
  const float shift[3][3] = {{1, 0, 0}, {0, 1, 0}, {-200, 0, 1}};
  OIIO::ImageBuf part = OIIO::ImageBufAlgo::warp(OIIO::ImageBuf(dir / "ch.png"), shift, "box");
  ASSERT_TRUE(part.write(dir / "part.png"));
  const RunResult ch = RunOk({"solve", dir / "ch.png", dir / "part.png", "--board",
                              "charuco:7x5", "--terms", "distortion"});
  EXPECT_NE(ch.out.find("ch.png: 24 corners"), std::string::npos) << ch.out;
  EXPECT_NE(ch.out.find("part.png: 16 corners"), std::string::npos) << ch.out;
  EXPECT_FALSE(fs::exists(dir / "c.png"));
}

// The lens curve of --report: axes from the origin, the identity dashed up to the plot's end,
// the frame corner's radius and the curve, each where its radii put it. The plot spans
// u and r to 1.25 corner radii in 528 x 368 pixels inside 56-pixel margins.
TEST(Solve, TheLensCurvePictureIsDrawnToScale) {
  namespace sv = veltrisca::solve;
  sv::Solution s;
  s.frame = sv::SolveFrame{1920, 1080, 1};
  s.lens = sv::RadialLens{-0.05, 0, 0, 960, 540};
  ScratchDir dir;
  sv::WritePictures(dir / "r", s, {});
  const Image img = ReadImage(dir / "r/radial.png");
  const double corner = s.frame.CornerRadius(), end = 1.25 * corner;
  const auto drawn = [&](double u, double r, std::array<float, 3> colour) {
    const int x = int(std::lround(56 + u / end * 528)), y = int(std::lround(424 - r / end * 368));
    for (int j = y - 1; j <= y + 1; ++j) {
      for (int i = x - 1; i <= x + 1; ++i) {
        const float* p = &img.pixels[(size_t(j) * img.width + i) * 3];
        if (std::fabs(p[0] - colour[0]) + std::fabs(p[1] - colour[1]) +
                std::fabs(p[2] - colour[2]) < 0.02) {
          return true;
        }
      }
    }
    return false;
  };
  const std::array<float, 3> axis{0, 0, 0}, white{1, 1, 1}, grey{.6f, .6f, .6f};
  EXPECT_TRUE(drawn(end / 2, 0, axis) && drawn(0, end / 2, axis));
  EXPECT_TRUE(drawn(end * 36.5 / 40, end * 36.5 / 40, grey));  // a dash of the identity
  for (double u : {37.5, 40.5}) EXPECT_FALSE(drawn(end * u / 40, end * u / 40, grey)) << u;
  EXPECT_TRUE(drawn(end * 40.5 / 40, end * 40.5 / 40, white));
  EXPECT_TRUE(drawn(corner, end / 2, {.1f, .6f, .2f}));
  const double u = 0.75 * end;
  EXPECT_TRUE(drawn(u, u * (1 - 0.05 * u * u), {.1f, .3f, .9f}));
}

// Bad input: one line, the exit code, and nothing written; a photo without the board is named
// and the others used.
TEST(Solve, RefusesWhatCannotGiveALensAndWritesNothing) {
  ScratchDir dir;
  RunOk(Split("chart --board 9x6 --size 640x480 OUT", "", dir / "b.png"));
  RunOk(Split("chart --size 480x270 OUT", "", dir / "small.png"));
  const std::vector<uint8_t> grey(640 * 480, 128);
  WriteImage(dir / "blank.png", 640, 480, 1, OIIO::TypeDesc::UINT8, OIIO::TypeDesc::UINT8,
             grey.data());
  Write(dir / "one.json", R"({"frame": [480, 270], "lines": [[[1, 1], [5, 2], [9, 3]], [[1, 1]]]})");
  Write(dir / "gap.csv", "line,x,y\n0,1,1\n0,5,2\n0,9,3\n1,1,9\n1,5, \n1,9,9\n");  // no Y
  Write(dir / "bent.json",
        R"({"frame": [480, 270], "lines": [[[0, 0], [240, 130], [479, 0]], [[0, 269], [240, 140], [479, 269]]]})");
  const std::string out = dir / "lens.json", report = dir / "pictures";
  const struct {
    Args args;
    int code;
    const char* mentions;
  } cases[] = {
      {{"solve"}, 1, "--lines"},
      {{"solve", dir / "b.png"}, 1, "--board"},
      {{"solve", dir / "b.png", "--board", "10x7x"}, 1, "inner corners"},
      {{"solve", dir / "b.png", "--board", "9x6", "--terms", "cubic,zoom"}, 1, "--terms"},
      {{"solve", dir / "blank.png", "--board", "9x6"}, 2, "no board of 9x6"},
      {{"solve", dir / "b.png", dir / "small.png", "--board", "9x6"}, 2, "differs"},
      {{"solve", "--lines", dir / "one.json"}, 2, "fewer than two lines"},
      {{"solve", "--lines", dir / "gap.csv", "--size", "480x270"}, 2, "gap.csv:6: X and Y"},
      {{"solve", "--lines", dir / "bent.json", "--terms", "distortion"}, 2, "cannot be written"},
      {{"solve", dir / "missing.png", "--board", "9x6"}, 2, "missing.png"},
  };
  for (const auto& c : cases) {
    ExpectRefusal(RunTool(Cat(c.args, {"-o", out, "--report", report})), c.code, c.mentions,
                  c.args.back());
    EXPECT_FALSE(fs::exists(out) || fs::exists(report)) << c.args.back();
  }
  // The picture of b.png would be b.png itself.
  ExpectRefusal(RunTool({"solve", dir / "b.png", "--board", "9x6", "--report", dir / ""}), 1,
                "is an input", "report over a photo");
  const RunResult r = RunTool({"solve", kSamples + "left01.jpg", dir / "blank.png",
                               kSamples + "left02.jpg", "--board", "9x6", "-o", out});
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_NE(r.err.find("blank.png: no board of 9x6"), std::string::npos) << r.err;
  EXPECT_TRUE(fs::exists(out));
}

}  // namespace
