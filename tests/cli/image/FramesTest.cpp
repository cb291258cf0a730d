// A file's frame, pixel aspect and windows: anamorphic plates, the windows of formats that
// have none, stmap --like against render, and the black around a data window.

#include "../CliTestSupport.h"

namespace {

using namespace vt_cli_test;
using Box = std::array<int, 4>;  // x, y, width, height

// A smooth picture about the lens centre, three channels.
float Picture(double x, double y, int c) {
  return static_cast<float>(0.5 + 0.2 * std::sin(x / (5.0 + c)) + 0.2 * std::cos(y / 6.0));
}

// A float RGB plate of the picture, `stretch` picture units a pixel across, in a display window
// of width x height file pixels of aspect `pa`; data window `data`, black outside `lit`.
void WritePlate(const std::string& path, int width, int height, float pa, Box data,
                double stretch = 1, Box lit = {-99, -99, 999, 999}) {
  OIIO::ImageSpec spec(data[2], data[3], 3, OIIO::TypeDesc::FLOAT);
  std::tie(spec.x, spec.y, spec.full_width, spec.full_height) =
      std::tuple(data[0], data[1], width, height);
  if (pa != 1.0f) spec.attribute("PixelAspectRatio", pa);
  std::vector<float> px;
  for (int y = data[1]; y < data[1] + data[3]; ++y) {
    for (int x = data[0]; x < data[0] + data[2]; ++x) {
      const bool on = x >= lit[0] && y >= lit[1] && x < lit[0] + lit[2] && y < lit[1] + lit[3];
      for (int c = 0; c < 3; ++c) {
        px.push_back(on ? Picture((x - width / 2.0) * stretch, y - height / 2.0, c) : 0.0f);
      }
    }
  }
  WriteSpec(path, spec, OIIO::TypeDesc::FLOAT, px.data());
}

// A sample at file position (x, y), NaN outside the data window.
float At(const Image& im, int x, int y, int c) {
  x -= im.spec.x;
  y -= im.spec.y;
  if (x < 0 || y < 0 || x >= im.width || y >= im.height) return NAN;
  return im.pixels[(size_t(y) * im.width + x) * im.channels + c];
}

// PSNR of an image's RGB against `truth` at each file position (NaN: not compared), peak 1.
double Psnr(const Image& a, const std::function<float(int, int, int)>& truth) {
  double sum = 0;
  long long n = 0;
  for (int y = a.spec.y; y < a.spec.y + a.height; ++y) {
    for (int x = a.spec.x; x < a.spec.x + a.width; ++x) {
      for (int c = 0; c < 3; ++c) {
        const float t = truth(x, y, c);
        if (std::isnan(t)) continue;
        sum += (At(a, x, y, c) - t) * (At(a, x, y, c) - t);
        ++n;
      }
    }
  }
  EXPECT_GT(n, 0);
  return sum == 0 ? 999.0 : 10.0 * std::log10(n / sum);
}

// `im`'s samples at least 3 pixels inside `frame`.
std::function<float(int, int, int)> Inside(const Image& im, Box frame) {
  return [&im, frame](int x, int y, int c) {
    const bool in = x >= frame[0] + 3 && y >= frame[1] + 3 && x < frame[0] + frame[2] - 3 &&
                    y < frame[1] + frame[3] - 3;
    return in ? At(im, x, y, c) : NAN;
  };
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
    const int wide = static_cast<int>(pa) / po;            // output pixels a plate pixel
    const std::string plate = dir / "plate.exr", u = dir / "u.exr", back = dir / "back.exr";
    WritePlate(plate, width, height, pa, {0, 0, width, height}, 2.0);
    const std::string size = std::to_string(uw) + "x" + std::to_string(uh);
    RunOk({"render", plate, u, "--distortion", "-30", "--filter", "bilinear",
           "--undistorted-size", size, desqueeze ? "--desqueeze" : "-q"});
    const Image out = ReadImage(u);
    EXPECT_EQ(Windows(out.spec), (std::array{-(uw - width) / 2 * wide, -4, uw * wide, uh, 0, 0,
                                             width * wide, height}));
    EXPECT_EQ(out.spec.get_float_attribute("PixelAspectRatio", 1.0f), float(po));
    // The lens recorded in the output's own pixels.
    EXPECT_EQ(out.spec.get_float_attribute("veltrisca:pixelAspect"), float(po));
    const auto* recorded =
        static_cast<const int*>(out.spec.find_attribute("veltrisca:undistortedSize")->data());
    EXPECT_EQ((std::array{recorded[0], recorded[1]}), (std::array{uw * wide, uh}));
    // Each output pixel reads the plate at P(|m|) / |m| times its desqueezed offset m, in half
    // undistorted heights (a plate pixel's index is its lens position; --desqueeze puts the
    // centres of `wide` output pixels in each plate pixel). Compared where that is inside.
    EXPECT_GE(Psnr(out,
                   [&](int x, int y, int c) {
                     const double plateX = (x + 0.5) / wide - 0.5;
                     const double mx = (plateX - width / 2.0) * pa / (uh / 2.0);
                     const double my = (y - height / 2.0) / (uh / 2.0);
                     const double f = (1 + k2 * (mx * mx + my * my)) * uh / 2.0;
                     const double px = mx * f / pa, py = my * f;  // plate pixels from the centre
                     return std::abs(px) < width / 2.0 - 2 && std::abs(py) < height / 2.0 - 2
                                ? Picture(px * 2.0, py, c)
                                : NAN;
                   }),
              desqueeze ? 42.0 : 50.0);
    if (desqueeze) {
      // Applied back by its record alone: the plate, desqueezed.
      RunOk({"render", u, back, "-q"});
      const Image b = ReadImage(back);
      EXPECT_EQ(Windows(b.spec), (std::array{0, 0, width * 2, height, 0, 0, width * 2, height}));
      EXPECT_GE(Psnr(b,
                     [&](int x, int y, int c) {
                       const double plateX = (x + 0.5) / 2 - 0.5;
                       return plateX > 4 && plateX < width - 4 && y > 4 && y < height - 4
                                  ? Picture((plateX - width / 2.0) * 2.0, y - height / 2.0, c)
                                  : NAN;
                     }),
                35.0);
      continue;
    }
    // --fit, then the lens put back as the render recorded it (the overscan data window is the
    // undistorted frame).
    RunOk({"render", plate, u, "--distortion", "-30", "--filter", "bilinear", "--fit"});
    RunOk({"render", u, back, "-q"});
    EXPECT_EQ(ReadImage(back).spec.get_float_attribute("PixelAspectRatio", 1.0f), pa);
    const Image b = ReadImage(back), p = ReadImage(plate);
    EXPECT_EQ(Windows(b.spec), (std::array{0, 0, width, height, 0, 0, width, height}));
    roundTrip[pa == 2.0f] = Psnr(b, Inside(p, {0, 0, width, height}));
    // info says what is done with the aspect.
    const std::string aspect =
        Json::parse(RunOk({"info", plate, "--json"}).out)["pixelAspectHandling"];
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
      if (pa != 1.5f) {
        ExpectRefusal(RunTool(command), 2, "pixel aspect", command[0]);
      } else if (command[0] == "info") {
        EXPECT_EQ(Json::parse(RunOk(command).out)["pixelAspect"], 1.5);
      } else {
        RunOk(command);
      }
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
    RunOk({"render", dir / "p.exr", p, "-d", ext == std::string(".png") ? "uint16" : "float"});
    RunOk({"render", p, u, "--distortion", "-15", "--undistorted-size", "100x58"});
    EXPECT_EQ(Windows(ReadImage(u).spec), (std::array{0, 0, 100, 58, 0, 0, 100, 58}));
    RunOk({"render", u, back, "--mode", "apply", "--distortion", "-15", "--distorted-size",
           "96x54", "--undistorted-size", "100x58"});
    const Image b = ReadImage(back), plate = ReadImage(p);
    EXPECT_EQ(Windows(b.spec), (std::array{0, 0, 96, 54, 0, 0, 96, 54}));
    EXPECT_GE(Psnr(b, Inside(plate, {0, 0, 96, 54})), 35.0);
  }
}

// stmap --like X describes exactly what render X writes: the same windows, and oiiotool's
// warp of X with the map gives the render (bilinear, away from the edges).
TEST(Frames, StMapLikeAnImageMatchesItsRender) {
  ScratchDir dir;
  WritePlate(dir / "over.exr", 96, 54, 1.0f, {-6, -4, 108, 62});  // overscan
  WritePlate(dir / "ana.exr", 48, 54, 2.0f, {0, 0, 48, 54});
  const std::pair<const char*, const char*> cases[] = {
      {"over.exr", "remove"}, {"over.exr", "apply"}, {"ana.exr", "remove"}, {"ana.exr", "apply"},
      {"r0.exr", ""}, {"r2.exr", ""}};  // the lens an image records, put back
  std::string warp = "oiiotool";
  for (size_t k = 0; k < std::size(cases); ++k) {
    const auto& [in, mode] = cases[k];
    const std::string n = std::to_string(k);
    const Args lens = *mode ? Args{"--mode", mode, "--distortion", "40", "--filter", "bilinear"}
                            : Args{"-q"};
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
    const auto inside = Inside(w, {m.spec.x, m.spec.y, m.width, m.height});
    const auto covered = [&](int x, int y, int c) {
      return At(m, x, y, 3) > 0 ? inside(x, y, c) : NAN;
    };
    EXPECT_GE(Psnr(r, covered), 60.0);
  }
}

// A data window inside the display window is surrounded by transparent black: the render equals
// that of the full frame holding the same pixels and black around them, for every filter.
TEST(Frames, DataWindowInsideTheFrameRendersAsTheFullFrame) {
  ScratchDir dir;
  WritePlate(dir / "inner.exr", 64, 40, 1.0f, {9, 7, 40, 24});
  WritePlate(dir / "full.exr", 64, 40, 1.0f, {0, 0, 64, 40}, 1, {9, 7, 40, 24});
  for (const char* filter :
       {"nearest", "bilinear", "lanczos2", "lanczos3", "mitchell", "builtin"}) {
    for (const char* mode : {"remove", "apply"}) {
      SCOPED_TRACE(std::string(filter) + " " + mode);
      const Args lens = {"--mode",  mode,   "--distortion", "-60",
                         "--zoom", "0.8", "--filter",     filter};
      RunOk(Cat({"render", dir / "inner.exr", dir / "a.exr"}, lens));
      RunOk(Cat({"render", dir / "full.exr", dir / "b.exr"}, lens));
      const Image a = ReadImage(dir / "a.exr"), b = ReadImage(dir / "b.exr");
      EXPECT_EQ(Windows(a.spec), Windows(b.spec));
      EXPECT_EQ(a.pixels, b.pixels);
    }
  }
  // A small element in a frame larger than one host image still renders (with a black margin).
  WritePlate(dir / "huge.exr", 30000, 30000, 1.0f, {15000, 15000, 32, 24});
  RunOk({"render", dir / "huge.exr", dir / "h.exr", "--window", "14990,14990,15050,15040"});
  const auto blackLeft = [](int x, int, int) { return x < 15000 ? 0.0f : NAN; };
  EXPECT_GT(Psnr(ReadImage(dir / "h.exr"), blackLeft), 99.0);
}

}  // namespace
