// Imported lenses against the originals: our stmap of a lens from `veltrisca lens --from` is
// compared position by position with OpenCV's own initUndistortRectifyMap and with liblensfun's
// own geometry correction. Also lens files: round trip, command-line override, bad files.
#include <lensfun.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "CliTestSupport.h"

namespace {

using vt_cli_test::Image;
using vt_cli_test::ParseJson;
using vt_cli_test::ReadImage;
using vt_cli_test::RunVeltrisca;
using vt_cli_test::ScratchDir;
using vt_cli_test::ShellQuote;
using vt_cli_test::Slurp;

constexpr int kW = 640, kH = 400;

// Imports a lens into `json`; returns the largest position error the tool printed.
double Import(std::vector<std::string> args, const std::string& json) {
  args.insert(args.begin(), {"lens", "--size", std::to_string(kW) + "x" + std::to_string(kH)});
  args.insert(args.end(), {"-o", json});
  const auto r = RunVeltrisca(args);
  EXPECT_EQ(r.exitCode, 0) << r.err;
  const std::string key = "position error over the frame: max ";
  const size_t at = r.out.find(key);
  if (at == std::string::npos) {
    ADD_FAILURE() << "no error printed: " << r.out;
    return 0;
  }
  return std::strtod(r.out.c_str() + at + key.size(), nullptr);
}

// The input positions (pixel indices) of our stmap of the lens file.
std::vector<double> OurPositions(const ScratchDir& dir, const std::string& json) {
  const std::string map = dir / "map.exr";
  const auto r = RunVeltrisca({"stmap", map, "--lens", json});
  EXPECT_EQ(r.exitCode, 0) << r.err;
  const Image im = ReadImage(map);
  EXPECT_EQ(im.width, kW);
  EXPECT_EQ(im.height, kH);
  std::vector<double> xy(size_t(kW) * kH * 2);
  for (size_t i = 0; i < size_t(kW) * kH; ++i) {
    xy[2 * i] = double(im.pixels[i * 4]) * kW - 0.5;
    xy[2 * i + 1] = (1.0 - double(im.pixels[i * 4 + 1])) * kH - 0.5;
  }
  return xy;
}

double MaxDistance(const std::vector<double>& a, const std::vector<float>& b) {
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
      double dx = 0, dy = 0;
      for (int j = -2; j <= 2; ++j) {
        for (int i = -2; i <= 2; ++i) {
          const size_t k = (size_t(y + j) * kW + (x + i)) * 2;
          dx += a[k] - b[k];
          dy += a[k + 1] - b[k + 1];
        }
      }
      worst = std::max(worst, std::hypot(dx, dy) / 25);
    }
  }
  return worst;
}

// OpenCV's own undistortion map (newCameraMatrix = the camera matrix), x and y interleaved.
std::vector<float> OpenCvMap(const ScratchDir& dir, const std::string& k, double fx, double fy,
                             double cx, double cy) {
  const std::string script = dir / "cv.py", out = dir / "cv.raw";
  std::ofstream(script) << "import cv2, numpy as np\n"
                        << "K = np.array([[" << fx << ",0," << cx << "],[0," << fy << "," << cy
                        << "],[0,0,1]], dtype=np.float64)\n"
                        << "D = np.array([" << k << "], dtype=np.float64)\n"
                        << "mx, my = cv2.initUndistortRectifyMap(K, D, None, K, (" << kW << ","
                        << kH << "), cv2.CV_32FC1)\n"
                        << "np.dstack([mx, my]).astype(np.float32).tofile('" << out << "')\n";
  // Debian's interpreter, where python3-opencv installs cv2 (not one a version manager put first).
  const std::string cmd = "/usr/bin/python3 " + ShellQuote(script);
  EXPECT_EQ(std::system(cmd.c_str()), 0) << cmd;
  const std::string raw = Slurp(out);
  std::vector<float> xy(raw.size() / sizeof(float));
  std::memcpy(xy.data(), raw.data(), xy.size() * sizeof(float));
  EXPECT_EQ(xy.size(), size_t(kW) * kH * 2);
  return xy;
}

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
  };
  ScratchDir dir;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto s = [](double v) { return std::to_string(v); };
    const std::string json = dir / "lens.json";
    const double printed =
        Import({"--from", "opencv", "--k1", s(c.k1), "--k2", s(c.k2), "--k3", s(c.k3), "--p1",
                s(c.p1), "--p2", s(c.p2), "--fx", s(c.fx), "--fy", s(c.fy), "--cx", s(c.cx),
                "--cy", s(c.cy)},
               json);
    const std::vector<double> ours = OurPositions(dir, json);
    // OpenCV's distortion vector order: k1, k2, p1, p2, k3.
    const std::string k = s(c.k1) + "," + s(c.k2) + "," + s(c.p1) + "," + s(c.p2) + "," + s(c.k3);
    const double error = MaxDistance(ours, OpenCvMap(dir, k, c.fx, c.fy, c.cx, c.cy));
    EXPECT_LE(error, printed + 0.01);
    if (c.exact) {
      // The coefficients are exact: with its principal point on our lens centre, OpenCV's
      // map is ours.
      EXPECT_LE(MaxDistance(ours, OpenCvMap(dir, k, c.fx, c.fy, kW / 2.0, kH / 2.0)), 0.05);
    }
  }
}

TEST(LensImport, LensfunLensesAgreeWithLiblensfunsOwnCorrection) {
  struct Case {
    const char* maker;
    const char* model;
    float focal;
    bool exact;
  };
  const Case cases[] = {
      {"Schneider", "Schneider 80mm Xenotar f/2.8", 80, true},                  // poly3
      {"Canon", "Canon PowerShot G12 & compatibles (Standard)", 6.1f, true},    // poly5
      {"Mamiya", "Mamiya 35mm f/3.5", 35, true},                                // ptlens, c = 0
      {"DJI", "FC6310 & compatibles", 8.8f, false},                             // ptlens, c != 0
  };
  lfDatabase db;
  ASSERT_EQ(db.Load(), LF_NO_ERROR);
  ScratchDir dir;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.model);
    const std::string json = dir / "lens.json";
    const double printed = Import({"--from", "lensfun", "--maker", c.maker, "--model", c.model,
                                   "--focal", std::to_string(c.focal)},
                                  json);
    const std::vector<double> ours = OurPositions(dir, json);
    const lfLens** lenses = db.FindLenses(nullptr, c.maker, c.model);
    ASSERT_TRUE(lenses && lenses[0]);
    lfModifier modifier(lenses[0], lenses[0]->CropFactor, kW, kH);
    modifier.Initialize(lenses[0], LF_PF_F32, c.focal, 8, 1000, 1, lenses[0]->Type,
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
    EXPECT_LE(MaxDistance(ours, theirs), printed + 0.01);
    if (c.exact) {
      // liblensfun's positions carry single-precision noise of a few hundredths of a pixel
      // from pixel to pixel; a smooth error of the converted lens survives a 5 x 5 mean of the
      // difference, the noise does not.
      EXPECT_LE(MaxLocalMeanDistance(ours, centred), 0.05);
    }
  }
}

TEST(LensFile, RoundTripAndCommandLineOverride) {
  ScratchDir dir;
  const std::string json = dir / "lens.json";
  ASSERT_EQ(RunVeltrisca({"lens", "--distortion", "-50", "--zoom", "1.25", "--undistorted-size",
                          "2000x1125", "-o", json})
                .exitCode,
            0);
  struct Case {
    std::vector<std::string> extra;
    double quadratic, zoom;
  };
  const Case cases[] = {{{}, -0.05, 1.25}, {{"--distortion", "-20"}, -0.02, 1.25}};
  for (const Case& c : cases) {
    std::vector<std::string> args = {"info", "--json", "--lens", json};
    args.insert(args.end(), c.extra.begin(), c.extra.end());
    const auto r = RunVeltrisca(args);
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const auto j = ParseJson(r.out);
    EXPECT_DOUBLE_EQ(j["quadratic"].Number(), c.quadratic);
    EXPECT_DOUBLE_EQ(j["zoom"].Number(), c.zoom);
    EXPECT_EQ(j["undistortedWidth"].Number(), 2000);
  }
}

TEST(LensFile, BadFilesNameTheKeyAndLine) {
  struct Case {
    const char* text;
    const char* expected;  // in the message
  };
  const Case cases[] = {
      {"{\n  \"distortion\": -50,\n  \"zom\": 2\n}", "lens.json:3: unknown key 'zom'"},
      {"{\n  \"cubic\": 50000\n}", "lens.json:2: key 'cubic': 50000 is outside"},
      {"{\n  \"mode\": 2\n}", "lens.json:2: key 'mode': expected a string"},
      {"{\n \"zoom\": 1,\n\n \"zoom\": 2\n}", "lens.json:4: key 'zoom' appears twice"},
      {"{\n  \"distortedSize\": [1920]\n}", "lens.json:2: key 'distortedSize'"},
      {"{\n  \"distortion\": -50,\n}", "line 3"},
      {"[1, 2]", "one JSON object"},
  };
  ScratchDir dir;
  const std::string json = dir / "lens.json";
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    std::ofstream(json) << c.text;
    const auto r = RunVeltrisca({"info", "--lens", json});
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_NE(r.err.find(c.expected), std::string::npos) << r.err;
    EXPECT_TRUE(r.out.empty());
  }
}

}  // namespace
