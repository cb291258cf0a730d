// `veltrisca render` on files as compositors have them: data windows that differ from the
// display window, any number of named channels, output sample types and the header, and the
// round trip through an undistorted frame. Every output is read back with OpenImageIO.

#include "../CliTestSupport.h"

namespace {

using namespace vt_cli_test;

using Window = std::array<int, 4>;  // x, y, width, height

// A float image whose every sample tells its file position and channel.
float Tag(int x, int y, int c) { return 1.0f + 0.01f * x + 0.0001f * y + 10.0f * c; }

void WriteTagged(const std::string& path, Window data, Window display,
                 const std::vector<std::string>& names,
                 const std::vector<OIIO::TypeDesc>& types = {}) {
  const auto [x0, y0, w, h] = data;
  OIIO::ImageSpec spec(w, h, static_cast<int>(names.size()), OIIO::TypeDesc::FLOAT);
  spec.x = x0;
  spec.y = y0;
  std::tie(spec.full_x, spec.full_y, spec.full_width, spec.full_height) =
      std::tie(display[0], display[1], display[2], display[3]);
  spec.channelnames = names;
  spec.channelformats = types;
  spec.alpha_channel = -1;
  std::vector<float> px;
  for (int y = y0; y < y0 + h; ++y) {
    for (int x = x0; x < x0 + w; ++x) {
      for (size_t c = 0; c < names.size(); ++c) px.push_back(Tag(x, y, static_cast<int>(c)));
    }
  }
  WriteSpec(path, spec, OIIO::TypeDesc::FLOAT, px.data());
}

Window DataOf(const Image& im) { return {im.spec.x, im.spec.y, im.width, im.height}; }
Window DisplayOf(const Image& im) {
  return {im.spec.full_x, im.spec.full_y, im.spec.full_width, im.spec.full_height};
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
  // What, the input's data window, options, the output's data and display windows.
  const std::tuple<const char*, Window, const char*, Window, Window> cases[] = {
      {"remove, data inside", {0, 0, 48, 30}, "", frame, frame},
      {"remove, data around", {-4, -2, 72, 40}, "", frame, frame},
      {"remove, data offset", {10, 5, 64, 36}, "", frame, frame},
      {"remove, overscan", {0, 0, 64, 36}, "--undistorted-size 72x40", {-4, -2, 72, 40}, frame},
      {"apply, data inside", {0, 0, 48, 30}, "--mode apply", frame, frame},
      {"apply, overscan", {-4, -2, 72, 40}, "--mode apply", frame, frame},
      {"apply, data offset", {10, 5, 64, 36}, "--mode apply", frame, frame},
  };
  for (const auto& [label, data, args, outData, outDisplay] : cases) {
    WriteTagged(dir / "in.exr", data, frame, {"R", "G", "B"});
    RunOk(Cat({"render", dir / "in.exr", dir / "out.exr", "--filter", "nearest"}, Split(args)));
    const Image o = ReadImage(dir / "out.exr");
    EXPECT_EQ(DataOf(o), outData) << label;
    EXPECT_EQ(DisplayOf(o), outDisplay) << label;
    for (int y = o.spec.y; y < o.spec.y + o.height; ++y) {
      for (int x = o.spec.x; x < o.spec.x + o.width; ++x) {
        const auto [dx, dy, dw, dh] = data;
        const bool inside = x >= dx && x < dx + dw && y >= dy && y < dy + dh;
        if (!inside) continue;  // beyond the input: 0, or its edge repeated by Nearest
        ASSERT_FLOAT_EQ(At(o, x, y, 1), Tag(x, y, 1)) << label << " at " << x << "," << y;
      }
    }
  }
  // With a lens the centre matters: a plate cut to a data window renders like the whole plate
  // wherever the cut plate has the pixels the lens reads.
  WriteTagged(dir / "whole.exr", frame, frame, {"R", "G", "B"});
  WriteTagged(dir / "cut.exr", {0, 0, 48, 30}, frame, {"R", "G", "B"});
  for (const char* mode : {"remove", "apply"}) {
    for (const std::string name : {"whole", "cut"}) {
      RunOk({"render", dir / (name + ".exr"), dir / (name + "_out.exr"), "--distortion", "-30",
             "--mode", mode, "--filter", "nearest"});
    }
    const Image w = ReadImage(dir / "whole_out.exr"), c = ReadImage(dir / "cut_out.exr");
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
  // Channels, their types, options, the channel rendered as alpha (clipped to 1 by Lanczos).
  const std::tuple<std::vector<std::string>, std::vector<OIIO::TypeDesc>, const char*, int>
      cases[] = {
          {{"R", "G", "B", "Z"}, {}, "", -1},
          {{"diffuse.R", "diffuse.G", "diffuse.B", "A", "N.x", "N.y", "N.z"},
           {h, h, h, h, f, f, f},
           "",
           3},
          {{"R", "G", "B", "A"}, {}, "--alpha none", -1},
          {{"Y", "mask"}, {}, "--alpha mask", 1},
      };
  for (const auto& [names, types, args, alpha] : cases) {
    WriteTagged(dir / "in.exr", frame, frame, names, types);
    RunOk(Cat({"render", dir / "in.exr", dir / "out.exr", "--filter", "lanczos3"}, Split(args)));
    // OpenEXR keeps its channels sorted by name: the order is the file's.
    const Image in = ReadImage(dir / "in.exr"), o = ReadImage(dir / "out.exr");
    EXPECT_EQ(o.spec.channelnames, in.spec.channelnames);
    EXPECT_EQ(o.spec.channelformats, in.spec.channelformats) << names[0];
    // Identity lens: each sample comes back within the file type's precision, alpha as 1.
    for (int ch = 0; ch < o.channels; ++ch) {
      const bool isAlpha = alpha >= 0 && in.spec.channelnames[ch] == names[alpha];
      const float want = isAlpha ? 1.0f : At(in, 20, 12, ch);
      EXPECT_TRUE(isAlpha || want > 1.0f) << "every sample of the input is above 1";
      EXPECT_NEAR(At(o, 20, 12, ch), want, want * 1e-3f) << in.spec.channelnames[ch];
    }
  }
}

// Every written file reads back with its size, channels and type: the input's type where the
// format holds it, else the one chosen, said in a note; -d chooses. The inputs carry what made
// writers stumble before (an sRGB PNG made the TIFF writer write an Exif block and then a TIFF
// without its size). The header records the tool, the lens and the file's pixel aspect.
TEST(RenderOutputFiles, ReadBackWithTheirTypeNotesAndHeader) {
  ScratchDir dir;
  for (const std::string chart : {"c8.png", "c.jpg", "half.exr"}) {
    RunOk({"chart", dir / chart, "--size", "48x30"});
  }
  RunOk({"chart", dir / "c16.png", "--size", "48x30", "--depth", "16"});
  OIIO::ImageSpec wide(48, 30, 3, OIIO::TypeDesc::HALF);
  wide.attribute("PixelAspectRatio", 2.0f);
  const std::vector<float> grey(48 * 30 * 3, 0.5f);
  WriteSpec(dir / "wide.exr", wide, OIIO::TypeDesc::FLOAT, grey.data());
  const OIIO::TypeDesc u8 = OIIO::TypeDesc::UINT8, u16 = OIIO::TypeDesc::UINT16,
                       h = OIIO::TypeDesc::HALF, f = OIIO::TypeDesc::FLOAT;
  // In, out, options, the type and channels written, the note on stderr (or nothing there).
  const std::tuple<std::string, std::string, std::string, OIIO::TypeDesc, int, const char*>
      cases[] = {
          {"c8.png", "8.tif", "", u8, 4, ""},
          {"c8.png", "8.dpx", "", u8, 4, ""},
          {"c8.png", "8.tga", "", u8, 4, ""},
          {"c8.png", "8.exr", "", h, 4, "cannot hold uint8"},
          {"c8.png", "8_16.tif", "-d uint16", u16, 4, ""},
          {"c16.png", "16.tif", "", u16, 4, ""},
          {"c16.png", "16.sgi", "", u16, 4, ""},
          {"c.jpg", "j.tif", "", u8, 3, ""},
          {"c.jpg", "j.jpg", "", u8, 3, ""},
          {"c.jpg", "j.bmp", "", u8, 3, ""},
          {"half.exr", "h.tif", "", f, 4, "cannot hold half"},
          {"half.exr", "h.dpx", "", f, 4, "cannot hold half"},
          {"half.exr", "h.png", "", u16, 4, "cannot hold half"},
          {"half.exr", "h.exr", "-d float --compression piz", f, 4, ""},
          {"wide.exr", "w.exr", "--distortion 0", h, 3, ""},
      };
  for (const auto& [in, out, args, type, channels, note] : cases) {
    SCOPED_TRACE(out);
    const auto r = RunOk(Split("render IN OUT --distortion -10 " + args, dir / in, dir / out));
    EXPECT_EQ(r.err.empty(), !*note) << r.err;
    EXPECT_NE(r.err.find(note), std::string::npos) << r.err;
    const Image o = ReadImage(dir / out);
    EXPECT_EQ(o.width, 48);  // (also for the plate of pixel aspect 2: the whole plate)
    EXPECT_EQ(o.height, 30);
    EXPECT_EQ(o.channels, channels);
    EXPECT_EQ(o.format, type);
    const std::string ext = fs::path(out).extension();
    if (ext != ".bmp" && ext != ".sgi" && ext != ".tga") {  // (these hold no such field)
      EXPECT_EQ(o.spec.get_string_attribute("Software"), "veltrisca 1.2");
    }
  }
  const Image piz = ReadImage(dir / "h.exr");
  EXPECT_EQ(piz.spec.get_string_attribute("compression"), "piz");
  EXPECT_EQ(piz.spec.get_string_attribute("veltrisca:mode"), "Remove");
  EXPECT_EQ(piz.spec.get_string_attribute("veltrisca:filter"), "Lanczos-2");
  EXPECT_EQ(piz.spec.get_float_attribute("veltrisca:distortion"), -10.0f);
  EXPECT_EQ(ReadImage(dir / "w.exr").spec.get_float_attribute("veltrisca:pixelAspect"), 2.0f);
  // -q: nothing but errors.
  EXPECT_EQ(RunOk({"render", dir / "half.exr", dir / "q.png", "-q"}).err, "");
}

// Remove then Apply with the same lens gives the plate back: with the sizes given, on an 8-bit
// PNG (no windows: the sizes place both frames), a mild lens whose 500 x 280 frame holds the
// plate; with --fit, on a float EXR, a strong one, and Apply takes the frames from the data and
// display windows. The PSNR over the whole frame, corners included, is about 29.7 and 34.6 dB
// on this 480 x 270 chart; a window one pixel off gives about 16.
TEST(RoundTrip, RemoveThenApplyGivesThePlateBack) {
  ScratchDir dir;
  const std::pair<std::string, Args> cases[] = {
      {"png",
       {"--distortion", "-7", "--distorted-size", "480x270", "--undistorted-size", "500x280"}},
      {"exr", {"--distortion", "-50", "--filter", "lanczos3"}}};
  for (const auto& [ext, lens] : cases) {
    const std::string plate = dir / ("plate." + ext), u = dir / ("u." + ext);
    RunOk({"chart", plate, "--size", "480x270", "--depth", ext == "exr" ? "float" : "8"});
    RunOk(Cat(Cat({"render", plate, u}, lens), ext == "exr" ? Args{"--fit"} : Args{}));
    const Image undistorted = ReadImage(u);  // the PNG as the sizes say; the fit holds more
    EXPECT_EQ(DisplayOf(undistorted),
              (Window{0, 0, ext == "exr" ? 480 : 500, ext == "exr" ? 270 : 280}));
    EXPECT_GT(undistorted.height, 270);
    EXPECT_EQ(RunOk(Cat({"render", u, dir / ("back." + ext), "--mode", "apply"}, lens)).err, "");
    const Image a = ReadImage(plate), b = ReadImage(dir / ("back." + ext));
    ASSERT_EQ(DataOf(b), (Window{0, 0, 480, 270}));
    ASSERT_EQ(DisplayOf(b), (Window{0, 0, 480, 270}));
    double sum = 0;
    for (size_t i = 0; i < a.pixels.size(); ++i) {
      if (i % 4 != 3) sum += (b.pixels[i] - a.pixels[i]) * (b.pixels[i] - a.pixels[i]);
    }
    EXPECT_GE(-10 * std::log10(sum / (a.pixels.size() * 3 / 4)), 26.0) << ext;
    for (const auto& [x, y] : {std::pair{0, 0}, {479, 0}, {0, 269}, {479, 269}}) {
      EXPECT_GT(At(b, x, y, 3), 0.99f) << ext << " " << x << "," << y;
      EXPECT_GT(At(b, x, y, 1), 0.3f) << ext << " " << x << "," << y;  // the green border
    }
  }
}

}  // namespace
