// A file's frame, pixel aspect and windows: anamorphic plates, the windows of formats that
// have none, stmap --like against render, and the black around a data window.

#include "CliTestSupport.h"

namespace {

using namespace vt_cli_test;

// A smooth picture in desqueezed (square) units about the lens centre, three channels.
float Picture(double x, double y, int c) {
  return static_cast<float>(0.5 + 0.2 * std::sin(x / (5.0 + c)) + 0.2 * std::cos(y / 6.0));
}

// A float RGB plate of the picture, `stretch` picture units a pixel across: width x height file
// pixels of aspect `pa`, its data window `data` (x, y, w, h) inside or around the display
// window 0,0,width,height.
void WritePlate(const std::string& path, int width, int height, float pa,
                std::array<int, 4> data, double stretch = 1) {
  OIIO::ImageSpec spec(data[2], data[3], 3, OIIO::TypeDesc::FLOAT);
  std::tie(spec.x, spec.y, spec.full_width, spec.full_height) =
      std::tuple(data[0], data[1], width, height);
  if (pa != 1.0f) spec.attribute("PixelAspectRatio", pa);
  std::vector<float> px;
  for (int y = data[1]; y < data[1] + data[3]; ++y) {
    for (int x = data[0]; x < data[0] + data[2]; ++x) {
      for (int c = 0; c < 3; ++c) px.push_back(Picture((x - width / 2.0) * stretch, y - height / 2.0, c));
    }
  }
  WriteSpec(path, spec, OIIO::TypeDesc::FLOAT, px.data());
}

// PSNR of RGB over the pixels of `a` that `keep` accepts (file coordinates), peak 1; the two
// images are placed by their data windows.
double Psnr(const Image& a, const Image& b, const std::function<bool(int, int)>& keep) {
  double sum = 0;
  long long n = 0;
  for (int y = a.spec.y; y < a.spec.y + a.height; ++y) {
    for (int x = a.spec.x; x < a.spec.x + a.width; ++x) {
      const int bx = x - b.spec.x, by = y - b.spec.y;
      if (!keep(x, y) || bx < 0 || by < 0 || bx >= b.width || by >= b.height) continue;
      for (int c = 0; c < 3; ++c) {
        const double d = a.pixels[(size_t(y - a.spec.y) * a.width + (x - a.spec.x)) * a.channels + c] -
                         b.pixels[(size_t(by) * b.width + bx) * b.channels + c];
        sum += d * d;
        ++n;
      }
    }
  }
  EXPECT_GT(n, 0);
  return sum == 0 ? 999.0 : 10.0 * std::log10(n / sum);
}

std::array<int, 8> Windows(const OIIO::ImageSpec& s) {
  return {s.x, s.y, s.width, s.height, s.full_x, s.full_y, s.full_width, s.full_height};
}

// A 2:1 plate, and the same pixels taken as square: Remove undoes the lens radially in the
// desqueezed picture (unit half the undistorted height), keeping the plate's pixels (or
// resampled to square ones with --desqueeze), and Apply puts it back onto the plate's frame as
// well as for square pixels.
TEST(Frames, AnamorphicPlateIsRadialWhenDesqueezedAndRoundTripsLikeASquareOne) {
  ScratchDir dir;
  const double k2 = -0.03;
  double roundTrip[2] = {0, 0};
  for (const auto& [pa, desqueeze] : {std::pair{1.0f, false}, {2.0f, false}, {2.0f, true}}) {
    SCOPED_TRACE(std::to_string(pa) + (desqueeze ? " desqueezed" : ""));
    const int width = 80, height = 90, uw = 84, uh = 98;
    const int po = desqueeze ? 1 : static_cast<int>(pa);  // the output's pixel aspect
    const int wide = static_cast<int>(pa) / po;            // output pixels per plate pixel
    const std::string plate = dir / "plate.exr", u = dir / "u.exr", back = dir / "back.exr";
    WritePlate(plate, width, height, pa, {0, 0, width, height}, 2.0);
    const std::string size = std::to_string(uw) + "x" + std::to_string(uh);
    RunOk({"render", plate, u, "--distortion", "-30", "--filter", "bilinear",
           "--undistorted-size", size, desqueeze ? "--desqueeze" : "-q"});
    const Image out = ReadImage(u);
    EXPECT_EQ(Windows(out.spec), (std::array{-(uw - width) / 2 * wide, -4, uw * wide, uh, 0, 0,
                                             width * wide, height}));
    EXPECT_EQ(out.spec.get_float_attribute("PixelAspectRatio", 1.0f), float(po));
    EXPECT_EQ(out.spec.get_float_attribute("veltrisca:pixelAspect"), pa);
    const int* recorded = static_cast<const int*>(
        out.spec.find_attribute("veltrisca:undistortedSize")->data());
    EXPECT_EQ((std::array{recorded[0], recorded[1]}), (std::array{uw, uh}));
    // The expected undistorted picture: each output pixel reads the plate at P(|m|) / |m|
    // times its desqueezed offset m (in half undistorted heights); only where that lies inside.
    Image expected = out;
    std::vector<bool> inside(expected.pixels.size() / expected.channels);
    for (int y = 0; y < out.height; ++y) {
      for (int x = 0; x < out.width; ++x) {
        // (Desqueezed pixel centres lie 1/wide plate pixels apart; a plate pixel's index is
        // its lens position, half a pixel left of its centre.)
        const double plateX = (x + out.spec.x + 0.5) / wide - 0.5;
        const double mx = (plateX - width / 2.0) * pa / (uh / 2.0);
        const double my = (y + out.spec.y - height / 2.0) / (uh / 2.0);
        const double f = 1 + k2 * (mx * mx + my * my);
        const double px = mx * f * uh / 2.0, py = my * f * uh / 2.0;  // desqueezed
        const size_t i = size_t(y) * out.width + x;
        inside[i] = std::abs(px / pa) < width / 2.0 - 2 && std::abs(py) < height / 2.0 - 2;
        for (int c = 0; c < 3; ++c) {
          expected.pixels[i * out.channels + c] = Picture(px / pa * 2.0, py, c);
        }
      }
    }
    EXPECT_GE(Psnr(expected, out,
                   [&](int x, int y) {
                     return inside[size_t(y - out.spec.y) * out.width + (x - out.spec.x)];
                   }),
              desqueeze ? 42.0 : 50.0);
    if (desqueeze) continue;
    // --fit, then the lens put back with explicit options (the overscan data window is the
    // undistorted frame).
    RunOk({"render", plate, u, "--distortion", "-30", "--filter", "bilinear", "--fit"});
    RunOk({"render", u, back, "--mode", "apply", "--distortion", "-30", "--filter", "bilinear"});
    const Image b = ReadImage(back), p = ReadImage(plate);
    EXPECT_EQ(Windows(b.spec), (std::array{0, 0, width, height, 0, 0, width, height}));
    roundTrip[pa == 2.0f] = Psnr(p, b, [&](int x, int y) {
      return x >= 3 && y >= 3 && x < width - 3 && y < height - 3;
    });
    // info says what is done with the aspect.
    const std::string aspect = Json::parse(RunOk({"info", plate, "--json"}).out)["pixelAspectHandling"];
    EXPECT_NE(aspect.find(pa == 1.0f ? "square pixels" : "squeezed"), std::string::npos) << aspect;
  }
  EXPECT_GE(roundTrip[0], 35.0);
  EXPECT_GE(roundTrip[1], roundTrip[0] - 3.0) << "square " << roundTrip[0];
}

// An anamorphic remove writes the windows the same sizes give on square pixels, also where the
// effect's square-unit width would equal the distorted one (40 at aspect 2) or is rounded.
TEST(Frames, AnamorphicWindowsAreThoseOfSquarePixels) {
  ScratchDir dir;
  for (const char* size : {"40x90", "41x90", "64x90", "81x90", "84x98"}) {
    std::array<int, 8> square{};
    for (const float pa : {1.0f, 1.0001f, 1.25f, 2.0f, 0.75f}) {
      SCOPED_TRACE(std::string(size) + " at " + std::to_string(pa));
      WritePlate(dir / "p.exr", 80, 90, pa, {0, 0, 80, 90});
      RunOk({"render", dir / "p.exr", dir / "u.exr", "--undistorted-size", size, "-q"});
      const std::array<int, 8> windows = Windows(ReadImage(dir / "u.exr").spec);
      if (pa == 1.0f) square = windows;
      EXPECT_EQ(windows, square);
    }
  }
}

// info, render and stmap --like read a file's pixel aspect alike: taken when inside the
// effect's range, refused by all three beyond it.
TEST(Frames, EveryCommandReadsThePixelAspectAlike) {
  ScratchDir dir;
  for (const float pa : {1.5f, 20.0f, 0.05f}) {
    SCOPED_TRACE(pa);
    OIIO::ImageSpec spec(16, 12, 3, OIIO::TypeDesc::FLOAT);
    spec.attribute("PixelAspectRatio", pa);
    const std::vector<float> px(16 * 12 * 3, 0.5f);
    WriteSpec(dir / "p.exr", spec, OIIO::TypeDesc::FLOAT, px.data());
    const Args commands[] = {{"info", dir / "p.exr", "--json"},
                             {"render", dir / "p.exr", dir / "o.exr"},
                             {"stmap", dir / "m.exr", "--like", dir / "p.exr"}};
    for (const Args& command : commands) {
      const RunResult r = RunTool(command);
      if (pa == 1.5f) {
        EXPECT_EQ(r.exitCode, 0) << command[0] << r.err;
      } else {
        ExpectRefusal(r, 2, "pixel aspect", command[0]);
      }
    }
    if (pa == 1.5f) {
      EXPECT_EQ(Json::parse(RunOk(commands[0]).out)["pixelAspect"], 1.5);
    }
  }
}

// Formats without windows hold the output frame at 0,0 in every mode, also the apply back from
// a larger undistorted image.
TEST(Frames, FormatsWithoutWindowsHoldTheFrameAtTheOrigin) {
  ScratchDir dir;
  WritePlate(dir / "p.exr", 96, 54, 1.0f, {0, 0, 96, 54});
  for (const char* ext : {".dpx", ".tif", ".png"}) {
    SCOPED_TRACE(ext);
    const std::string p = dir / (std::string("p") + ext), u = dir / (std::string("u") + ext),
                      back = dir / (std::string("b") + ext);
    RunOk({"render", dir / "p.exr", p, "--distortion", "0", "-d", ext == std::string(".png") ? "uint16" : "float"});
    RunOk({"render", p, u, "--distortion", "-15", "--undistorted-size", "100x58"});
    EXPECT_EQ(Windows(ReadImage(u).spec), (std::array{0, 0, 100, 58, 0, 0, 100, 58}));
    RunOk({"render", u, back, "--mode", "apply", "--distortion", "-15", "--distorted-size",
           "96x54", "--undistorted-size", "100x58"});
    const Image b = ReadImage(back);
    EXPECT_EQ(Windows(b.spec), (std::array{0, 0, 96, 54, 0, 0, 96, 54}));
    EXPECT_GE(Psnr(ReadImage(p), b,
                   [](int x, int y) { return x >= 3 && y >= 3 && x < 93 && y < 51; }),
              35.0);
  }
}

// stmap --like X describes exactly what render X writes: the same windows, and oiiotool's
// warp of X with the map gives the render (bilinear, away from the edges).
TEST(Frames, StMapLikeAnImageMatchesItsRender) {
  ScratchDir dir;
  WritePlate(dir / "over.exr", 96, 54, 1.0f, {-6, -4, 108, 62});  // overscan
  WritePlate(dir / "ana.exr", 48, 54, 2.0f, {0, 0, 48, 54});
  const std::pair<const char*, const char*> cases[] = {
      {"over.exr", "remove"}, {"over.exr", "apply"}, {"ana.exr", "remove"}, {"ana.exr", "apply"}};
  std::string warp = "oiiotool";
  for (size_t k = 0; k < std::size(cases); ++k) {
    const auto& [in, mode] = cases[k];
    const std::string n = std::to_string(k);
    const Args lens = {"--mode", mode, "--distortion", "40", "--filter", "bilinear"};
    RunOk(Cat({"render", dir / in, dir / ("r" + n + ".exr")}, lens));
    RunOk(Cat({"stmap", dir / ("m" + n + ".exr"), "--like", dir / in}, lens));
    warp += " " + dir / in + " " + dir / ("m" + n + ".exr") +
            " --st_warp:filter=triangle:flip_t=1 -o " + dir / ("w" + n + ".exr");
  }
  ASSERT_EQ(std::system(warp.c_str()), 0) << warp;
  for (size_t k = 0; k < std::size(cases); ++k) {
    SCOPED_TRACE(std::string(cases[k].first) + " " + cases[k].second);
    const std::string n = std::to_string(k);
    const Image r = ReadImage(dir / ("r" + n + ".exr")), m = ReadImage(dir / ("m" + n + ".exr"));
    EXPECT_EQ(Windows(m.spec), Windows(r.spec));
    const Image w = ReadImage(dir / ("w" + n + ".exr"));
    // Where the map says the render shows the input, three pixels in from the window's edge.
    EXPECT_GE(Psnr(r, w,
                   [&](int x, int y) {
                     const int mx = x - m.spec.x, my = y - m.spec.y;
                     return mx >= 3 && my >= 3 && mx < m.width - 3 && my < m.height - 3 &&
                            m.pixels[(size_t(my) * m.width + mx) * 4 + 3] > 0;
                   }),
              60.0);
  }
}

// A data window inside the display window is surrounded by transparent black: the render equals
// that of the full frame holding the same pixels and black around them, for every filter.
TEST(Frames, DataWindowInsideTheFrameRendersAsTheFullFrame) {
  ScratchDir dir;
  WritePlate(dir / "inner.exr", 64, 40, 1.0f, {9, 7, 40, 24});
  Image inner = ReadImage(dir / "inner.exr");
  OIIO::ImageSpec full(64, 40, 3, OIIO::TypeDesc::FLOAT);
  std::vector<float> px(64 * 40 * 3, 0.0f);
  for (int y = 0; y < 24; ++y) {
    for (int x = 0; x < 40; ++x) {
      for (int c = 0; c < 3; ++c) px[((y + 7) * 64 + x + 9) * 3 + c] = inner.pixels[(y * 40 + x) * 3 + c];
    }
  }
  WriteSpec(dir / "full.exr", full, OIIO::TypeDesc::FLOAT, px.data());
  for (const char* filter : {"nearest", "bilinear", "lanczos2", "lanczos3", "mitchell", "builtin"}) {
    for (const char* mode : {"remove", "apply"}) {
      SCOPED_TRACE(std::string(filter) + " " + mode);
      const Args lens = {"--mode", mode, "--distortion", "-60", "--zoom", "0.8", "--filter", filter};
      RunOk(Cat({"render", dir / "inner.exr", dir / "a.exr"}, lens));
      RunOk(Cat({"render", dir / "full.exr", dir / "b.exr"}, lens));
      const Image a = ReadImage(dir / "a.exr"), b = ReadImage(dir / "b.exr");
      EXPECT_EQ(Windows(a.spec), Windows(b.spec));
      EXPECT_EQ(a.pixels, b.pixels);
    }
  }
}

}  // namespace
