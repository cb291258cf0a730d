// The lens a render records in its output (veltrisca:* attributes), read back: a render of an
// image whose lens was removed puts it back onto the plate's frame, options that differ from
// the record warn, --lens takes such an image, info prints it, and --skip-existing keeps only
// whole outputs that record the job's lens.
#include "../CliTestSupport.h"

namespace vt_cli_test {
namespace {

const char* const kRecordKeys[] = {"mode",    "filter",      "distortion",
                                   "cubic",   "quartic",     "zoom",
                                   "pixelAspect", "distortedSize", "undistortedSize"};

// A float chart plate and its undistorted render with --fit (overscan: the record holds two
// different sizes).
class Recorded : public ::testing::Test {
 protected:
  void SetUp() override {
    RunOk({"chart", plate, "--size", "240x136", "--depth", "float"});
    RunOk(Cat({"render", plate, u, "--fit"}, kLens));
  }
  // `from` rewritten with its attributes changed by `edit` (pixels and windows kept).
  void Rewrite(const std::string& from, const std::string& to,
               const std::function<void(OIIO::ImageSpec&)>& edit) {
    Image im = ReadImage(from);
    edit(im.spec);
    WriteSpec(to, im.spec, im.format, im.raw.data());
  }
  const Args kLens = {"--distortion", "-50", "--filter", "lanczos3"};
  ScratchDir dir;
  const std::string plate = dir / "plate.exr", u = dir / "u.exr";
};

void EraseRecord(OIIO::ImageSpec& spec) {
  for (const char* key : kRecordKeys) spec.erase_attribute(std::string("veltrisca:") + key);
}

TEST_F(Recorded, ApplyWithoutLensOptionsPutsTheRemovedLensBackOntoThePlate) {
  const RunResult bare = RunOk({"render", u, dir / "back.exr"});
  EXPECT_NE(bare.err.find("note: the input records the lens removed from its plate (Remove, "
                          "distortion -50.0); rendering Apply puts it back"),
            std::string::npos)
      << bare.err;
  const Image a = ReadImage(plate), b = ReadImage(dir / "back.exr");
  ASSERT_EQ(std::make_tuple(b.spec.x, b.spec.y, b.width, b.height, b.spec.full_width,
                            b.spec.full_height),
            std::make_tuple(0, 0, 240, 136, 240, 136));
  double sum = 0;
  for (size_t i = 0; i < a.pixels.size(); ++i) {
    if (i % 4 != 3) sum += (b.pixels[i] - a.pixels[i]) * (b.pixels[i] - a.pixels[i]);
  }
  EXPECT_GE(-10 * std::log10(sum / (a.pixels.size() * 3 / 4)), 30.0);
  // The same pixels as the lens given by hand on the image without its record, or taken from
  // the record with --lens.
  Rewrite(u, dir / "comp.exr", EraseRecord);
  RunOk(Cat({"render", dir / "comp.exr", dir / "given.exr", "--mode", "apply"}, kLens));
  RunOk({"render", dir / "comp.exr", dir / "lens.exr", "--mode", "apply", "--lens", u});
  EXPECT_EQ(ReadImage(dir / "given.exr").raw, b.raw);
  EXPECT_EQ(ReadImage(dir / "lens.exr").raw, b.raw);
  // --lens IMAGE leaves the mode to the command: the plate rendered with it is u again.
  RunOk({"render", plate, dir / "again.exr", "--lens", u});
  EXPECT_EQ(ReadImage(dir / "again.exr").raw, ReadImage(u).raw);
  // The record turns the render into Apply, which --desqueeze does not take.
  ExpectRefusal(RunTool({"render", u, dir / "squeezed.exr", "--desqueeze"}), veltrisca::kExitUsage,
                "--desqueeze does not take; give --mode remove", "--desqueeze on a record");
  EXPECT_FALSE(fs::exists(dir / "squeezed.exr"));
  // In a shot each frame's record is read; the note is said once.
  fs::copy_file(u, dir / "u.0001.exr");
  fs::copy_file(u, dir / "u.0002.exr");
  const RunResult shot =
      RunOk({"render", dir / "u.####.exr", dir / "b.####.exr", "--progress", "none"});
  EXPECT_EQ(ReadImage(dir / "b.0002.exr").raw, b.raw);
  ASSERT_NE(shot.err.find("note: the input records"), std::string::npos);
  EXPECT_EQ(shot.err.find("note:"), shot.err.rfind("note:")) << shot.err;
  // Cropped to the plate's frame (its overscan dropped), the image is its own undistorted
  // frame; the record gives the lens and the plate's frame, as the lens given by hand does.
  Image crop = ReadImage(u);
  const int left = -crop.spec.x, top = -crop.spec.y, n = crop.channels;
  const size_t sample = crop.format.size();
  std::vector<uint8_t> inside(size_t(240) * 136 * n * sample);
  for (int y = 0; y < 136; ++y) {
    std::memcpy(&inside[size_t(y) * 240 * n * sample],
                &crop.raw[(size_t(y + top) * crop.width + left) * n * sample], 240 * n * sample);
  }
  crop.spec.x = crop.spec.y = 0;
  crop.spec.width = 240;
  crop.spec.height = 136;
  WriteSpec(dir / "crop.exr", crop.spec, crop.format, inside.data());
  EraseRecord(crop.spec);
  WriteSpec(dir / "crop-comp.exr", crop.spec, crop.format, inside.data());
  RunOk({"render", dir / "crop.exr", dir / "crop-back.exr"});
  RunOk(Cat({"render", dir / "crop-comp.exr", dir / "crop-given.exr", "--mode", "apply"}, kLens));
  EXPECT_EQ(ReadImage(dir / "crop-back.exr").raw, ReadImage(dir / "crop-given.exr").raw);
}

TEST_F(Recorded, OptionsThatDifferFromTheRecordWarnOnceEach) {
  Write(dir / "zoom.json", "{\"zoom\": 1.1, \"filter\": \"lanczos3\"}");
  const std::pair<Args, std::vector<std::string>> cases[] = {
      {kLens, {}},
      {{"--distortion", "-40", "--lens", dir / "zoom.json"},
       {"warning: --distortion -40 overrides the input's recorded distortion -50.0",
        "warning: --zoom 1.1 overrides the input's recorded zoom 1.0"}},
      {{"--mode", "apply", "--distorted-size", "200x100"},
       {"warning: --distorted-size 200x100 overrides the input's recorded distorted-size "
        "240x136"}},
      {{"--mode", "remove"},
       {"warning: the input records the lens removed from its plate (Remove, distortion -50.0); "
        "removing again uses the lens options given, not the record"}},
  };
  for (const auto& [args, warnings] : cases) {
    const RunResult r = RunOk(Cat({"render", u, dir / "o.exr"}, args));
    for (const std::string& w : warnings) {
      EXPECT_NE(r.err.find("veltrisca: " + w + "\n"), std::string::npos) << r.err;
    }
    size_t count = 0;
    for (size_t at = 0; (at = r.err.find("warning:", at)) != std::string::npos; ++at) ++count;
    EXPECT_EQ(count, warnings.size()) << args[0] << ": " << r.err;
  }
}

TEST_F(Recorded, InfoPrintsTheRecordAndBadRecordsAreRefused) {
  const RunResult text = RunOk({"info", u});
  EXPECT_NE(text.out.find("Recorded lens        remove, lanczos3, distortion -50.0, cubic 0.0, "
                          "quartic 0.0, zoom 1.0, pixel-aspect 1.0, distorted-size 240x136"),
            std::string::npos)
      << text.out;
  EXPECT_NE(text.out.find("distortMode        2 (Apply)"), std::string::npos);
  const Json info = Json::parse(RunOk({"info", u, "--json"}).out);
  const Image undistorted = ReadImage(u);
  EXPECT_EQ(info["recordedLens"],
            Json::parse("{\"mode\": \"remove\", \"filter\": \"lanczos3\", \"distortion\": -50, "
                        "\"cubic\": 0, \"quartic\": 0, \"zoom\": 1, \"pixelAspect\": 1, "
                        "\"distortedSize\": [240, 136], \"undistortedSize\": [" +
                        std::to_string(undistorted.width) + ", " +
                        std::to_string(undistorted.height) + "]}"));
  EXPECT_TRUE(Json::parse(RunOk({"info", plate, "--json"}).out)["recordedLens"].is_null());

  Rewrite(u, dir / "bad.exr", [](OIIO::ImageSpec& s) {
    s.attribute("veltrisca:distortion", 99999.0f);
  });
  ExpectRefusal(RunTool({"render", u, dir / "o.exr", "--lens", plate}), 2,
                "plate.exr: the image records no lens", "--lens without a record");
  ExpectRefusal(RunTool({"render", dir / "bad.exr", dir / "o.exr"}), 2,
                "bad.exr: veltrisca:distortion: 99999.0 is outside the slider range",
                "a damaged record");
}

// The bytes of an OpenEXR file with the last `n` entries of its chunk table zeroed, as a writer
// stopped before it filled the table leaves it.
std::string UnfinishedExr(std::string bytes, size_t n, size_t chunks) {
  size_t at = 8;  // after the magic number and version: attributes up to an empty name
  for (;;) {
    const size_t name = bytes.find('\0', at);
    if (name == at) break;
    const size_t type = bytes.find('\0', name + 1);
    uint32_t size = 0;
    std::memcpy(&size, &bytes[type + 1], 4);
    at = type + 5 + size;
  }
  std::fill_n(bytes.begin() + at + 1 + 8 * (chunks - n), 8 * n, '\0');
  return bytes;
}

// An output that is cut off, or records another lens, is rendered again; a whole one of the
// job's lens is kept, even written with another compression.
TEST_F(Recorded, SkipExistingKeepsOnlyWholeOutputsOfTheJobsLens) {
  struct Case {
    const char* name;
    const char* ext;
    Args writtenWith;                         // how the existing output was rendered
    std::string (*damage)(std::string bytes);  // what became of it
    const char* note;  // the note of a re-render, or "" when kept
  };
  const auto whole = [](std::string b) { return b; };
  const auto threeQuarters = [](std::string b) { return b.substr(0, b.size() * 3 / 4); };
  const Case cases[] = {
      {"whole", "exr", {"--compression", "piz"}, whole, ""},
      {"cut", "exr", {}, threeQuarters, "truncated OpenEXR file"},
      {"cut in its header", "exr", {}, [](std::string b) { return b.substr(0, 300); },
       "(300 bytes; its header is cut off)"},
      {"never finished", "exr", {"--compression", "zip"},  // 136 rows in 16-row chunks
       [](std::string b) { return UnfinishedExr(b, 2, 9); }, "incomplete OpenEXR file ("},
      {"another lens", "exr", {"--distortion", "-30"}, whole,
       "records another lens (distortion -30.0, not -50.0)"},
      {"other channel filters", "exr", {"--channel-filter", "R=nearest"}, whole,
       "records other channel filters (R Nearest; G,B,A Lanczos-3, not none)"},
      {"cut", "tif", {}, threeQuarters, "truncated file"},
      {"cut", "tga", {}, threeQuarters, "Read error"},
  };
  for (const Case& c : cases) {
    const std::string out = dir / (std::string("out.") + c.ext);
    const std::string ref = dir / (std::string("ref.") + c.ext);
    RunOk(Cat({"render", plate, ref, "-q"}, kLens));
    RunOk(Cat(Cat({"render", plate, out, "-q"}, kLens), c.writtenWith));
    const std::string existing = c.damage(Slurp(out));
    Write(out, existing);
    const RunResult r = RunOk(Cat({"render", plate, out, "--skip-existing"}, kLens));
    const std::string label = std::string(c.name) + " " + c.ext;
    if (*c.note) {
      EXPECT_EQ(Slurp(out), Slurp(ref)) << label;
      EXPECT_NE(r.err.find(c.note), std::string::npos) << label << ": " << r.err;
      EXPECT_NE(r.err.find("; rendering it again"), std::string::npos) << label;
    } else {
      EXPECT_EQ(Slurp(out), existing) << label;
      EXPECT_EQ(r.err, "") << label;
    }
  }
}

}  // namespace
}  // namespace vt_cli_test
