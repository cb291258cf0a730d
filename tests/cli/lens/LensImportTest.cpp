// Imported lenses against the originals: our stmap of a lens from `veltrisca lens --from` is
// compared position by position with OpenCV's own initUndistortRectifyMap and with liblensfun's
// own geometry correction. Also lens files: round trip, command-line override, bad files.
#include <lensfun.h>

#include "../CliTestSupport.h"

namespace {

using namespace vt_cli_test;

constexpr int kW = 640, kH = 400;

struct Imported {
  double printed;                 // the largest position error the tool printed
  std::string report;             // what it printed
  std::vector<double> positions;  // our stmap of the lens file: input pixel indices, x and y
};

Imported Import(const ScratchDir& dir, const Args& from) {
  const std::string json = dir / "lens.json", map = dir / "map.exr";
  const auto r = RunOk(Cat(
      Cat({"lens", "--size", std::to_string(kW) + "x" + std::to_string(kH)}, from), {"-o", json}));
  RunOk({"stmap", map, "--lens", json});
  const Image im = ReadImage(map);
  EXPECT_EQ(std::pair(im.width, im.height), std::pair(kW, kH));
  const std::string key = "position error over the frame: max ";
  const size_t at = r.out.find(key);
  EXPECT_NE(at, std::string::npos) << r.out;
  Imported result{at == std::string::npos ? 0 : std::strtod(&r.out[at + key.size()], nullptr),
                  r.out, std::vector<double>(size_t(kW) * kH * 2)};
  for (size_t i = 0; i < size_t(kW) * kH; ++i) {
    result.positions[2 * i] = double(im.pixels[i * 4]) * kW - 0.5;
    result.positions[2 * i + 1] = (1.0 - double(im.pixels[i * 4 + 1])) * kH - 0.5;
  }
  return result;
}

double MaxDistance(const std::vector<double>& a, const float* b) {
  double worst = 0;
  for (size_t i = 0; i + 1 < a.size(); i += 2) {
    worst = std::max(worst, std::hypot(a[i] - b[i], a[i + 1] - b[i + 1]));
  }
  return worst;
}

// The largest distance between the two mappings after averaging their difference over the
// 5 x 5 pixels around each pixel.
double MaxLocalMeanDistance(const std::vector<double>& a, const std::vector<float>& b) {
  double worst = 0;
  for (int y = 2; y < kH - 2; ++y) {
    for (int x = 2; x < kW - 2; ++x) {
      double d[2] = {0, 0};
      for (int k = 0; k < 50; ++k) {  // x and y of the 25 pixels
        const size_t at = (size_t(y + k / 10 - 2) * kW + x + k / 2 % 5 - 2) * 2 + k % 2;
        d[k % 2] += a[at] - b[at];
      }
      worst = std::max(worst, std::hypot(d[0], d[1]) / 25);
    }
  }
  return worst;
}

struct Camera {
  std::string k;  // OpenCV's distortion vector: k1, k2, p1, p2, k3
  double fx, fy, cx, cy;
};

// OpenCV's own undistortion maps (newCameraMatrix = the camera matrix), x and y interleaved, one
// after the other, from one run of Debian's interpreter, where python3-opencv installs cv2.
std::vector<float> OpenCvMaps(const ScratchDir& dir, const std::vector<Camera>& cameras) {
  std::ofstream script(dir / "cv.py");
  script << "import cv2, numpy as np\nmaps = []\n";
  for (const Camera& c : cameras) {
    script << "K = np.array([[" << c.fx << ",0," << c.cx << "],[0," << c.fy << "," << c.cy
           << "],[0,0,1]], dtype=np.float64)\n"
           << "maps.append(np.dstack(cv2.initUndistortRectifyMap(K, np.array([" << c.k
           << "], dtype=np.float64), None, K, (" << kW << "," << kH << "), cv2.CV_32FC1)))\n";
  }
  script << "np.concatenate(maps).astype(np.float32).tofile('" << dir / "cv.raw"
         << "')\n";
  script.close();
  EXPECT_EQ(std::system(("/usr/bin/python3 " + dir / "cv.py").c_str()), 0);
  const std::string raw = Slurp(dir / "cv.raw");
  std::vector<float> maps(size_t(kW) * kH * 2 * cameras.size());
  EXPECT_EQ(raw.size(), maps.size() * sizeof(float));
  std::memcpy(maps.data(), raw.data(), std::min(raw.size(), maps.size() * sizeof(float)));
  return maps;
}

// The tool converts k1 and k2 exactly when they are all the lens has, and fits the rest.
TEST(LensImport, OpenCvLensesAgreeWithInitUndistortRectifyMap) {
  struct Case {
    const char* name;
    double k1, k2, k3, p1, p2, fx, fy, cx, cy;
    bool exact;
  };
  const Case cases[] = {
      {"k1 k2, centre at W/2", -0.25, 0.08, 0, 0, 0, 520, 520, kW / 2.0, kH / 2.0, true},
      {"k1 k2, geometric centre (W-1)/2", 0.12, -0.03, 0, 0, 0, 500, 500, (kW - 1) / 2.0,
       (kH - 1) / 2.0, true},
      {"k3, tangential, fx != fy, off centre", -0.2, 0.05, 0.01, 0.0005, -0.0004, 510, 515, 322.3,
       197.8, false},
      {"p1 alone", -0.1, 0.02, 0, 0.0008, 0, 500, 500, kW / 2.0, kH / 2.0, false},
  };
  ScratchDir dir;
  std::vector<Imported> imported;
  std::vector<Camera> cameras;
  for (const Case& c : cases) {
    auto s = [](double v) { return std::to_string(v); };
    imported.push_back(Import(dir, {"--from", "opencv", "--k1",  s(c.k1), "--k2",  s(c.k2), "--k3",
                                    s(c.k3),  "--p1",   s(c.p1), "--p2",  s(c.p2), "--fx",  s(c.fx),
                                    "--fy",   s(c.fy),  "--cx",  s(c.cx), "--cy",  s(c.cy)}));
    const std::string k = s(c.k1) + "," + s(c.k2) + "," + s(c.p1) + "," + s(c.p2) + "," + s(c.k3);
    cameras.push_back({k, c.fx, c.fy, c.cx, c.cy});
    // With its principal point on our lens centre, OpenCV's map of an exact lens is ours.
    cameras.push_back({k, c.fx, c.fy, kW / 2.0, kH / 2.0});
  }
  const std::vector<float> maps = OpenCvMaps(dir, cameras);
  for (size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(cases[i].name);
    const Imported& im = imported[i];
    EXPECT_NE(im.report.find(cases[i].exact ? "exact: " : "least-squares fit"), std::string::npos)
        << im.report;
    const float* map = &maps[2 * i * kW * kH * 2];
    EXPECT_LE(MaxDistance(im.positions, map), im.printed + 0.01);
    EXPECT_LE(cases[i].exact ? MaxDistance(im.positions, map + kW * kH * 2) : 0.0, 0.05);
  }
}

// ffmpeg's lenscorrection centres its lens on the frame and measures radii in half diagonals:
// k1 and k2 convert exactly.
TEST(LensImport, FfmpegLensesConvertExactly) {
  ScratchDir dir;
  const Imported im = Import(dir, {"--from", "ffmpeg", "--k1", "-0.3", "--k2", "0.1"});
  EXPECT_NE(im.report.find("exact: "), std::string::npos) << im.report;
  EXPECT_LT(im.printed, 0.01) << im.report;
}

TEST(LensImport, LensfunLensesAgreeWithLiblensfunsOwnCorrection) {
  const std::tuple<const char*, const char*, float, bool> cases[] = {
      // maker, model, focal, exact
      {"Schneider", "Schneider 80mm Xenotar f/2.8", 80, true},                // poly3
      {"Canon", "Canon PowerShot G12 & compatibles (Standard)", 6.1f, true},  // poly5
      {"Mamiya", "Mamiya 35mm f/3.5", 35, true},                              // ptlens, c = 0
      {"DJI", "FC6310 & compatibles", 8.8f, false},                           // ptlens, c != 0
  };
  lfDatabase db;
  ASSERT_EQ(db.Load(), LF_NO_ERROR);
  ScratchDir dir;
  for (const auto& [maker, model, focal, exact] : cases) {
    SCOPED_TRACE(model);
    const Imported im = Import(dir, {"--from", "lensfun", "--maker", maker, "--model", model,
                                     "--focal", std::to_string(focal)});
    const lfLens** lenses = db.FindLenses(nullptr, maker, model);
    ASSERT_TRUE(lenses && lenses[0]);
    lfModifier modifier(lenses[0], lenses[0]->CropFactor, kW, kH);
    modifier.Initialize(lenses[0], LF_PF_F32, focal, 8, 1000, 1, lenses[0]->Type,
                        LF_MODIFY_DISTORTION, false);
    lf_free(lenses);
    // liblensfun's map, and the same lens moved half a pixel onto our lens centre.
    std::vector<float> theirs(size_t(kW) * kH * 2), centred(theirs.size());
    for (int y = 0; y < kH; ++y) {
      ASSERT_TRUE(modifier.ApplyGeometryDistortion(0, y, kW, 1, &theirs[size_t(y) * kW * 2]));
      ASSERT_TRUE(
          modifier.ApplyGeometryDistortion(-0.5f, y - 0.5f, kW, 1, &centred[size_t(y) * kW * 2]));
    }
    for (float& v : centred) v += 0.5f;
    EXPECT_LE(MaxDistance(im.positions, theirs.data()), im.printed + 0.01);
    // liblensfun's positions carry single-precision noise of a few hundredths of a pixel from
    // pixel to pixel; a smooth error of the converted lens survives a 5 x 5 mean of the
    // difference, the noise does not.
    EXPECT_LE(exact ? MaxLocalMeanDistance(im.positions, centred) : 0.0, 0.05);
  }
}

TEST(LensFile, RoundTripAndCommandLineOverride) {
  ScratchDir dir;
  const std::string json = dir / "lens.json";
  RunOk({"lens", "--distortion", "-50", "--zoom", "1.25", "--undistorted-size", "2000x1125", "-o",
         json});
  for (const auto& [extra, quadratic] : {std::pair{std::vector<std::string>{}, -50 * 0.001},
                                         {{"--distortion", "-20"}, -20 * 0.001}}) {
    std::vector<std::string> args = {"info", "--json", "--lens", json};
    args.insert(args.end(), extra.begin(), extra.end());
    const Json j = Json::parse(RunOk(args).out);
    EXPECT_EQ(j["quadratic"].get<double>(), quadratic);
    EXPECT_EQ(j["zoom"].get<double>(), 1.25);
    EXPECT_EQ(j["undistortedWidth"], 2000);
  }
}

// The import refuses what it would otherwise get wrong silently: a name lensfun matches more
// than one lens with, a calibration chosen by nothing, a focal length the lens does not have, a
// principal point off the frame, positions that are not finite.
TEST(LensImport, RefusesAmbiguousOrImpossibleSources) {
  const std::tuple<std::string, int, const char*> cases[] = {
      {"lensfun --maker Canon --model EF --focal 50", 1, "lenses match 'EF' by 'Canon': "},
      {"lensfun --model Canon_EF_24-105mm_f/4L_IS_USM --focal 50", 1, "crop factors 1, 1.611"},
      {"lensfun --model Canon_EF_24-105mm_f/4L_IS_USM --focal 150 --crop 1", 1,
       "is a 24-105 mm lens"},
      {"lensfun --model EF28mm_f/2.8 --maker Canon --focal 50 --crop 1", 1, "a 28 mm lens"},
      {"lensfun --model Mamiya_35mm_f/3.5 --focal 0", 1, "0 mm is not a focal length"},
      {"lensfun --model Mamiya_35mm_f/3.5 --focal -5", 1, "-5 mm is not a focal length"},
      {"opencv --fx 500 --fy 500 --cx 1e300 --cy 24", 1, "--cx 1e+300: the principal point"},
      {"opencv --fx 500 --fy 500 --cx 32 --cy -0.6", 1, "outside the 64x48 frame"},
      {"opencv --fx 1 --fy 1 --k3 1e300 --cx 32 --cy 24", 2, "no finite position"},
  };
  for (const auto& [line, exitCode, says] : cases) {
    Args args = Cat({"lens", "--size", "64x48", "--from"}, Split(line));
    for (std::string& a : args) std::replace(a.begin(), a.end(), '_', ' ');
    ExpectRefusal(RunTool(args), exitCode, says, line);
  }
  // Past its calibrations liblensfun takes the nearest one as it is: said, not refused.
  const RunResult r = RunOk({"lens", "--size", "64x48", "--from", "lensfun", "--maker", "Nikon",
                             "--model", "Nikkor AI-S 70-210mm f/4.5-5.6", "--focal", "205"});
  EXPECT_NE(r.err.find("at 70-200 mm only; at 205 mm it uses the 200 mm calibration"),
            std::string::npos)
      << r.err;
}

TEST(LensFile, BadFilesNameTheKeyAndLine) {
  const std::pair<std::string, const char*> cases[] = {
      // the file, what the message says
      {"{\n  \"distortion\": -50,\n  \"zom\": 2\n}", "lens.json:3: unknown key 'zom'"},
      {"{\n  \"cubic\": 50000\n}", "lens.json:2: key 'cubic': 50000 is outside"},
      {"{\n  \"mode\": 2\n}", "lens.json:2: key 'mode': expected a string"},
      {"{\n \"zoom\": 1,\n\n \"zoom\": 2\n}", "lens.json:4: key 'zoom' appears twice"},
      // Values are named by their type, never written out.
      {"{\n  \"distortedSize\": [1920]\n}",
       "lens.json:2: key 'distortedSize': expected [WIDTH, HEIGHT] or \"WxH\", got an array of 1 "
       "element"},
      {"{\n  \"zoom\": 1e400\n}", "lens.json:2: key 'zoom': a number beyond the range"},
      {"{\"mode\": \"remove\", \"zoom\": " + std::string(100000, '[') + std::string(100000, ']') +
           "}",
       "lens.json:1: key 'zoom': arrays nested more than 8 deep"},
      {"{\n  \"distortion\": -50,\n}", "line 3"},
      {"[1, 2]", "one JSON object"},
  };
  ScratchDir dir;
  const std::string json = dir / "lens.json";
  for (const auto& [text, says] : cases) {
    Write(json, text);
    ExpectRefusal(RunTool({"info", "--lens", json}), 2, says, text.substr(0, 40));
  }
}

}  // namespace
