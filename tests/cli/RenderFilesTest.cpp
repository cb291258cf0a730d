// `veltrisca render` on files as compositors have them: data windows that differ from the
// display window, any number of named channels, output sample types and the header, and the
// overscan round trip through --fit. Every output is read back with OpenImageIO.
#include <gtest/gtest.h>

#include <cmath>
#include <map>

#include "CliTestSupport.h"

namespace {

using vt_cli_test::Image;
using vt_cli_test::ReadImage;
using vt_cli_test::RunVeltrisca;
using vt_cli_test::ScratchDir;

void ExpectRun(const std::vector<std::string>& args) {
  const auto r = RunVeltrisca(args);
  ASSERT_EQ(r.exitCode, 0) << r.err;
}

struct Window {
  int x, y, w, h;
};

// A float image whose every sample tells its file position and channel.
float Tag(int x, int y, int c) { return 1.0f + 0.01f * x + 0.0001f * y + 10.0f * c; }

void WriteTagged(const std::string& path, Window data, Window display,
                 const std::vector<std::string>& names,
                 const std::vector<OIIO::TypeDesc>& types = {}) {
  OIIO::ImageSpec spec(data.w, data.h, static_cast<int>(names.size()), OIIO::TypeDesc::FLOAT);
  spec.x = data.x;
  spec.y = data.y;
  spec.full_x = display.x;
  spec.full_y = display.y;
  spec.full_width = display.w;
  spec.full_height = display.h;
  spec.channelnames = names;
  spec.channelformats = types;
  spec.alpha_channel = -1;
  std::vector<float> px;
  for (int y = data.y; y < data.y + data.h; ++y) {
    for (int x = data.x; x < data.x + data.w; ++x) {
      for (size_t c = 0; c < names.size(); ++c) px.push_back(Tag(x, y, static_cast<int>(c)));
    }
  }
  auto out = OIIO::ImageOutput::create(path);
  ASSERT_TRUE(out && out->open(path, spec) && out->write_image(OIIO::TypeDesc::FLOAT, px.data()) &&
              out->close());
}

Window DataOf(const Image& im) { return {im.spec.x, im.spec.y, im.width, im.height}; }
Window DisplayOf(const Image& im) {
  return {im.spec.full_x, im.spec.full_y, im.spec.full_width, im.spec.full_height};
}
bool operator==(const Window& a, const Window& b) {
  return a.x == b.x && a.y == b.y && a.w == b.w && a.h == b.h;
}
std::ostream& operator<<(std::ostream& o, const Window& w) {
  return o << w.w << "x" << w.h << "+" << w.x << "+" << w.y;
}

float At(const Image& im, int x, int y, int c) {
  return im.pixels[(size_t(y - im.spec.y) * im.width + (x - im.spec.x)) * im.channels + c];
}

// With no distortion and Nearest, the output pixel at a file position is the input pixel at
// the same position: the frame, not the data window, places the lens, and overscan is a data
// window around the plate's frame that apply takes back without size options.
TEST(RenderWindows, KeepTheFrameAndPlaceTheDataWindowAroundIt) {
  ScratchDir dir;
  const Window frame{0, 0, 64, 36};
  struct Case {
    const char* label;
    Window data;
    std::vector<std::string> args;
    Window outData, outDisplay;
  };
  const Case cases[] = {
      {"remove, data inside", {0, 0, 48, 30}, {}, frame, frame},
      {"remove, data around", {-4, -2, 72, 40}, {}, frame, frame},
      {"remove, data offset", {10, 5, 64, 36}, {}, frame, frame},
      {"remove, overscan", {0, 0, 64, 36}, {"--undistorted-size", "72x40"}, {-4, -2, 72, 40}, frame},
      {"apply, data inside", {0, 0, 48, 30}, {"--mode", "apply"}, frame, frame},
      {"apply, overscan", {-4, -2, 72, 40}, {"--mode", "apply"}, frame, frame},
      {"apply, data offset", {10, 5, 64, 36}, {"--mode", "apply"}, frame, frame},
  };
  for (const Case& c : cases) {
    WriteTagged(dir / "in.exr", c.data, frame, {"R", "G", "B"});
    std::vector<std::string> args = {"render", dir / "in.exr", dir / "out.exr", "--filter",
                                     "nearest"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    ExpectRun(args);
    const Image o = ReadImage(dir / "out.exr");
    EXPECT_EQ(DataOf(o), c.outData) << c.label;
    EXPECT_EQ(DisplayOf(o), c.outDisplay) << c.label;
    for (int y = o.spec.y; y < o.spec.y + o.height; ++y) {
      for (int x = o.spec.x; x < o.spec.x + o.width; ++x) {
        const bool inside = x >= c.data.x && x < c.data.x + c.data.w && y >= c.data.y &&
                            y < c.data.y + c.data.h;
        if (!inside) continue;  // beyond the input: 0, or its edge repeated by Nearest
        ASSERT_FLOAT_EQ(At(o, x, y, 1), Tag(x, y, 1)) << c.label << " at " << x << "," << y;
      }
    }
  }
  // With a lens the centre matters: a plate cut to a data window renders like the whole plate
  // wherever the cut plate has the pixels the lens reads.
  WriteTagged(dir / "whole.exr", frame, frame, {"R", "G", "B"});
  WriteTagged(dir / "cut.exr", {0, 0, 48, 30}, frame, {"R", "G", "B"});
  for (const char* mode : {"remove", "apply"}) {
    ExpectRun({"render", dir / "whole.exr", dir / "w.exr", "--distortion", "-30", "--mode", mode,
               "--filter", "nearest"});
    ExpectRun({"render", dir / "cut.exr", dir / "c.exr", "--distortion", "-30", "--mode", mode,
               "--filter", "nearest"});
    const Image w = ReadImage(dir / "w.exr"), c = ReadImage(dir / "c.exr");
    for (int y = 14; y < 22; ++y) {
      for (int x = 28; x < 36; ++x) EXPECT_EQ(At(w, x, y, 0), At(c, x, y, 0)) << mode;
    }
  }
}

// Channels other than alpha are colour to the effect, so a kernel filter never clips them to
// 1; names, order and per-channel types come back; --alpha chooses the alpha channel.
TEST(RenderChannels, EveryChannelIsRenderedAndOnlyAlphaIsClipped) {
  ScratchDir dir;
  const Window frame{0, 0, 40, 24};
  const OIIO::TypeDesc h = OIIO::TypeDesc::HALF, f = OIIO::TypeDesc::FLOAT;
  struct Case {
    std::vector<std::string> names;
    std::vector<OIIO::TypeDesc> types;
    std::vector<std::string> args;
    int alpha;  // the channel rendered as alpha (clipped to 1 by Lanczos), -1 none
  };
  const Case cases[] = {
      {{"R", "G", "B", "Z"}, {}, {}, -1},
      {{"diffuse.R", "diffuse.G", "diffuse.B", "A", "N.x", "N.y", "N.z"}, {h, h, h, h, f, f, f},
       {}, 3},
      {{"R", "G", "B", "A"}, {}, {"--alpha", "none"}, -1},
      {{"Y", "mask"}, {}, {"--alpha", "mask"}, 1},
  };
  for (const Case& c : cases) {
    WriteTagged(dir / "in.exr", frame, frame, c.names, c.types);
    std::vector<std::string> args = {"render", dir / "in.exr", dir / "out.exr", "--filter",
                                     "lanczos3"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    ExpectRun(args);
    // OpenEXR keeps its channels sorted by name: the order is the file's.
    const Image in = ReadImage(dir / "in.exr"), o = ReadImage(dir / "out.exr");
    EXPECT_EQ(o.spec.channelnames, in.spec.channelnames);
    EXPECT_EQ(o.spec.channelformats, in.spec.channelformats) << c.names[0];
    // Identity lens: each sample comes back within the file type's precision, alpha as 1.
    for (int ch = 0; ch < o.channels; ++ch) {
      const bool alpha = c.alpha >= 0 && in.spec.channelnames[ch] == c.names[c.alpha];
      const float want = alpha ? 1.0f : At(in, 20, 12, ch);
      EXPECT_TRUE(alpha || want > 1.0f) << "every sample of the input is above 1";
      EXPECT_NEAR(At(o, 20, 12, ch), want, want * 1e-3f) << in.spec.channelnames[ch];
    }
  }
}

// The output keeps the input's type where the format holds it, else says what it chose; -d
// and the file's pixel aspect; the header records the lens and the tool.
TEST(RenderOutputFiles, TypesNotesAndHeader) {
  ScratchDir dir;
  ExpectRun({"chart", dir / "half.exr", "--size", "32x18"});
  ExpectRun({"chart", dir / "c.png", "--size", "32x18"});
  {
    OIIO::ImageSpec spec(32, 18, 3, OIIO::TypeDesc::HALF);
    spec.attribute("PixelAspectRatio", 2.0f);
    std::vector<float> px(32 * 18 * 3, 0.5f);
    auto out = OIIO::ImageOutput::create(dir / "wide.exr");
    ASSERT_TRUE(out->open(dir / "wide.exr", spec) &&
                out->write_image(OIIO::TypeDesc::FLOAT, px.data()) && out->close());
  }
  struct Case {
    const char* in;
    const char* out;
    std::vector<std::string> args;
    OIIO::TypeDesc type;
    const char* note;  // on stderr, or empty
  };
  const Case cases[] = {
      {"half.exr", "o.dpx", {}, OIIO::TypeDesc::FLOAT, "cannot hold half"},
      {"half.exr", "o.png", {}, OIIO::TypeDesc::UINT16, "cannot hold half"},
      {"half.exr", "o.tif", {}, OIIO::TypeDesc::FLOAT, "cannot hold half"},
      {"c.png", "o.exr", {}, OIIO::TypeDesc::HALF, "cannot hold uint8"},
      {"c.png", "o.tif", {"-d", "uint16"}, OIIO::TypeDesc::UINT16, ""},
      {"half.exr", "o.exr", {"-d", "float", "--compression", "piz"}, OIIO::TypeDesc::FLOAT, ""},
      {"wide.exr", "w.exr", {"--distortion", "0"}, OIIO::TypeDesc::HALF, ""},
  };
  for (const Case& c : cases) {
    std::vector<std::string> args = {"render", dir / c.in, dir / c.out, "--distortion", "-10"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const auto r = RunVeltrisca(args);
    ASSERT_EQ(r.exitCode, 0) << r.err;
    if (*c.note) {
      EXPECT_NE(r.err.find(c.note), std::string::npos) << c.out << ": " << r.err;
    } else {
      EXPECT_EQ(r.err, "") << c.out;
    }
    const Image o = ReadImage(dir / c.out);
    EXPECT_EQ(o.format, c.type) << c.out;
    EXPECT_EQ(o.spec.get_string_attribute("Software"), "veltrisca 1.2") << c.out;
  }
  const Image piz = ReadImage(dir / "o.exr");
  EXPECT_EQ(piz.spec.get_string_attribute("compression"), "piz");
  EXPECT_EQ(piz.spec.get_string_attribute("veltrisca:mode"), "Remove");
  EXPECT_EQ(piz.spec.get_string_attribute("veltrisca:filter"), "Lanczos-2");
  EXPECT_EQ(piz.spec.get_float_attribute("veltrisca:distortion"), -10.0f);
  EXPECT_EQ(ReadImage(dir / "w.exr").spec.get_float_attribute("veltrisca:pixelAspect"), 2.0f);
  // -q: nothing but errors.
  const auto quiet = RunVeltrisca({"render", dir / "half.exr", dir / "q.png", "-q"});
  EXPECT_EQ(quiet.exitCode, 0);
  EXPECT_EQ(quiet.err, "");
}

// Remove with --fit, then apply with the same lens and no size options: the plate's frame
// again, everywhere, corners included.
TEST(FitRoundTrip, RemoveWithFitThenApplyGivesThePlateBack) {
  ScratchDir dir;
  ExpectRun({"chart", dir / "plate.exr", "--depth", "float"});  // 1920 x 1080
  const std::vector<std::string> lens = {"--distortion", "-50", "--filter", "lanczos3"};
  std::vector<std::string> remove = {"render", dir / "plate.exr", dir / "u.exr", "--fit"};
  remove.insert(remove.end(), lens.begin(), lens.end());
  ExpectRun(remove);
  const Image u = ReadImage(dir / "u.exr");
  EXPECT_EQ(DisplayOf(u), (Window{0, 0, 1920, 1080}));
  EXPECT_GT(u.width, 1920);
  std::vector<std::string> apply = {"render", dir / "u.exr", dir / "back.exr", "--mode", "apply"};
  apply.insert(apply.end(), lens.begin(), lens.end());
  const auto r = RunVeltrisca(apply);
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.err, "");  // nothing beyond what the lens inverts
  const Image plate = ReadImage(dir / "plate.exr"), back = ReadImage(dir / "back.exr");
  ASSERT_EQ(DataOf(back), (Window{0, 0, 1920, 1080}));
  ASSERT_EQ(DisplayOf(back), (Window{0, 0, 1920, 1080}));
  double sum = 0;
  for (size_t i = 0; i < plate.pixels.size(); ++i) {
    if (i % 4 == 3) continue;
    const double e = back.pixels[i] - plate.pixels[i];
    sum += e * e;
  }
  const double psnr = -10 * std::log10(sum / (plate.pixels.size() * 3 / 4));
  EXPECT_GE(psnr, 38.0);
  for (const auto& [x, y] : {std::pair{0, 0}, {1919, 0}, {0, 1079}, {1919, 1079}}) {
    EXPECT_GT(At(back, x, y, 3), 0.99f) << x << "," << y;
    EXPECT_GT(At(back, x, y, 1), 0.3f) << x << "," << y;  // the green border, not black
  }
  std::cout << "fit round trip: " << u.width << "x" << u.height << ", PSNR " << psnr << " dB\n";
}

}  // namespace
