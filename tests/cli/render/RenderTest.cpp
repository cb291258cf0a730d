// `veltrisca render` and `veltrisca chart` end to end: sample formats and channel layouts
// survive an identity render, --window places the output, and the chart is the chart.

#include "../CliTestSupport.h"

namespace {

using namespace vt_cli_test;

// With no distortion, equal sizes and Nearest every output sample is the input sample: exactly
// for 8 bits, half and float (infinities and NaN included), for 16 bits as it survives the
// host's 0..32768 range. Type, channels, their names and alpha, and the file's metadata come
// back.
TEST(RenderIdentity, EveryDepthAndLayoutComesBack) {
  ScratchDir dir;
  // File, size, channels, type, options.
  const OIIO::TypeDesc u8 = OIIO::TypeDesc::UINT8, u16 = OIIO::TypeDesc::UINT16;
  const std::tuple<std::string, int, int, std::vector<std::string>, OIIO::TypeDesc, const char*>
      cases[] = {
          {"rgba.png", 97, 61, {"R", "G", "B", "A"}, u8, ""},
          {"rgb.png", 31, 17, {"R", "G", "B"}, u8, ""},
          {"grey.png", 23, 19, {"Y"}, u8, ""},
          {"greyalpha.png", 23, 19, {"Y", "A"}, u8, ""},
          {"rgb16.tif", 64, 48, {"R", "G", "B"}, u16, "--threads 2"},
          {"float.exr", 40, 30, {"R", "G", "B", "A"}, OIIO::TypeDesc::FLOAT, ""},
          {"half.exr", 40, 30, {"R", "G", "B", "A"}, OIIO::TypeDesc::HALF, ""},
          {"ya.exr", 6, 4, {"Y", "A"}, OIIO::TypeDesc::FLOAT, ""},
      };
  for (const auto& [file, w, h, names, type, args] : cases) {
    SCOPED_TRACE(file);
    const int n = static_cast<int>(names.size());
    std::vector<float> px(size_t(w) * h * n);
    const auto x = Noise(px.size(), w * 7 + n);
    for (size_t i = 0; i < px.size(); ++i) px[i] = -0.5f + 2.0f * (x[i] >> 8) / 16777216.0f;
    if (type == u16) std::copy_n(std::vector<float>{0.0f, 1.0f, 0.5f}.data(), 3, px.data());
    // Float samples that are no numbers go through unchanged too.
    if (type == OIIO::TypeDesc::FLOAT)
      std::copy_n(std::vector<float>{NAN, INFINITY, -INFINITY}.data(), 3, px.data() + 5);
    OIIO::ImageSpec spec(w, h, n, type);
    spec.channelnames = names;
    spec.alpha_channel = names.back() == "A" ? n - 1 : -1;
    spec.attribute("ImageDescription", "veltrisca identity");
    const std::string in = dir / file, out = dir / ("out_" + file);
    WriteSpec(in, spec, OIIO::TypeDesc::FLOAT, px.data());
    RunOk(Cat({"render", in, out, "--filter", "nearest"}, Split(args)));
    const Image a = ReadImage(in), b = ReadImage(out);
    EXPECT_EQ(b.format, type);
    EXPECT_EQ(b.spec.channelnames, a.spec.channelnames);
    EXPECT_EQ(b.spec.alpha_channel, a.spec.alpha_channel);
    EXPECT_EQ(b.spec.get_string_attribute("ImageDescription"), "veltrisca identity");
    if (type != u16) {
      EXPECT_EQ(b.raw, a.raw);
      continue;
    }
    const uint16_t* s = reinterpret_cast<const uint16_t*>(a.raw.data());
    const uint16_t* o = reinterpret_cast<const uint16_t*>(b.raw.data());
    ASSERT_EQ(s[2], 32768);  // host 16384, the exact half on the way back
    for (size_t i = 0; i < px.size(); ++i) ASSERT_EQ(o[i], Through16BitHost(s[i])) << i;
  }
  // --add-alpha gives an RGB input the opaque alpha it stands for.
  RunOk({"render", dir / "rgb.png", dir / "rgba_out.png", "--filter", "nearest", "--add-alpha"});
  const Image rgb = ReadImage(dir / "rgb.png"), rgba = ReadImage(dir / "rgba_out.png");
  ASSERT_EQ(rgba.channels, 4);
  for (int p = 0; p < 31 * 17; ++p) {
    ASSERT_EQ(rgba.raw[p * 4 + 3], 255) << p;
    ASSERT_EQ(std::memcmp(&rgba.raw[p * 4], &rgb.raw[p * 3], 3), 0) << p;
  }
}

TEST(RenderWindow, PlacesTheRequestedRectangleAndClearsWhatLiesOutsideTheFrame) {
  ScratchDir dir;
  const auto px = NoiseBytes(50 * 40 * 4, 21);
  WriteImage(dir / "in.png", 50, 40, 4, OIIO::TypeDesc::UINT8, OIIO::TypeDesc::UINT8, px.data());
  RunOk(
      {"render", dir / "in.png", dir / "out.png", "--filter", "nearest", "--window=-10,-5,30,20"});
  const Image o = ReadImage(dir / "out.png");
  ASSERT_EQ(o.width, 40);
  ASSERT_EQ(o.height, 25);
  for (size_t i = 0; i < o.raw.size(); ++i) {
    const int lx = int(i / 4 % 40) - 10, ly = int(i / 4 / 40) - 5;  // layer position
    const uint8_t want = (lx >= 0 && ly >= 0) ? px[(ly * 50 + lx) * 4 + i % 4] : 0;
    ASSERT_EQ(o.raw[i], want) << lx << "," << ly << " c" << i % 4;
  }
}

// A distorted size whose margin in the layer is odd cannot be centred on the lens centre.
TEST(RenderWindow, ApplyNotesAHalfPixelPlacement) {
  ScratchDir dir;
  RunOk({"chart", dir / "c.png", "--size", "41x25"});
  const auto r = RunOk({"render", dir / "c.png", dir / "out.png", "--mode", "apply",
                        "--distorted-size", "32x18", "--distortion", "-20"});
  EXPECT_NE(r.err.find("half a pixel"), std::string::npos) << r.err;
  const Image o = ReadImage(dir / "out.png");
  EXPECT_EQ(o.width, 32);
  EXPECT_EQ(o.height, 18);
}

// The chart's pattern (its formats by extension and --depth show in RenderOutputFiles).
TEST(Chart, CellsLinesCrossAndBorder) {
  ScratchDir dir;
  RunOk({"chart", dir / "c.png", "--size", "480x270"});
  const Image c = ReadImage(dir / "c.png");
  ASSERT_EQ(c.channels, 4);
  auto at = [&](int dx, int dy, int ch) {  // from the centre (240, 135)
    return c.raw[(size_t(135 + dy) * c.width + 240 + dx) * 4 + ch];
  };
  // Cells of 270/18 = 15 pixels from the centre; light and dark alternate.
  EXPECT_NE(at(7, 7, 0), at(22, 7, 0));
  EXPECT_EQ(at(7, 7, 0), at(22, -7, 0));
  EXPECT_LT(at(15, 7, 0), 60);       // a grid line on the cell edge
  EXPECT_GT(at(0, 7, 2), 200);       // the blue cross through the centre
  EXPECT_GT(at(-240, -10, 1), 150);  // the green border
  EXPECT_EQ(at(-200, -100, 3), 255);
}

}  // namespace
