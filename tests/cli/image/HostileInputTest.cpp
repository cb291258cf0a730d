// `veltrisca` against damaged files, unusable outputs and memory limits, and renders of legal
// but unusual inputs. A refusal follows the rules of ExpectRefusal and leaves the folder
// exactly as it was: no output, no temporary file, IN and any earlier OUT untouched.
#include <sys/resource.h>
#include <sys/stat.h>
#include <zlib.h>

#include <csignal>
#include <set>

#include <OpenImageIO/imagebufalgo.h>

#include "../CliTestSupport.h"
#include "cli/image/ImageIO.h"

namespace {

using namespace vt_cli_test;

// Smooth content, so that the EXR and TIFF writers really compress it: their checksummed
// compressed blocks are what makes a flipped byte detectable at all.
std::vector<float> Gradient(int w, int h, int channels) {
  std::vector<float> px(static_cast<size_t>(w) * h * channels);
  for (size_t i = 0; i < px.size(); ++i) {
    const int c = i % channels, x = i / channels % w, y = i / channels / w;
    px[i] = c == 3 ? 1.0f : (x + 2.0f * y + 10.0f * c) / (w + 2.0f * h + 30.0f);
  }
  return px;
}

// Each file cut short, and flipped where a reader can tell. The middle of the PNG and EXR files
// is compressed pixel data under a checksum. A TIFF has none, and OpenImageIO 2.4 inflates TIFF
// strips itself without reporting zlib's errors, so the TIFF is damaged in its directory: its
// offset and its first entry; the DPX in its magic number and its file size. Uncompressed TIFF
// and DPX carry no checksum: OpenImageIO reads their cut-off pixel data as zeros, so the tool
// compares the file's length with what its header declares.
TEST(DamagedFiles, CutOrFlippedPngExrTiffAndDpxAreRefused) {
  ScratchDir dir;
  const std::tuple<std::string, OIIO::TypeDesc, int, const char*> formats[] = {
      {"png", OIIO::TypeDesc::UINT8, 4, "zip"},
      {"exr", OIIO::TypeDesc::HALF, 4, "zip"},
      {"tif", OIIO::TypeDesc::UINT16, 3, "zip"},
      {"tif", OIIO::TypeDesc::UINT8, 3, "none"},
      {"dpx", OIIO::TypeDesc::UINT16, 3, "none"}};
  for (const auto& [ext, type, channels, compression] : formats) {
    const std::string good = dir / ("good." + ext), in = dir / ("damaged." + ext);
    const auto px = Gradient(48, 32, channels);
    WriteImage(good, 48, 32, channels, type, OIIO::TypeDesc::FLOAT, px.data(),
               {{"compression", compression}});
    const std::string whole = Slurp(good);
    const size_t n = whole.size(), ifd = uint8_t(whole[4]) | uint8_t(whole[5]) << 8;
    // The undamaged file renders: the refusals below are the damage's doing.
    RunOk({"render", good, dir / ("control." + ext), "--filter", "nearest"});
    fs::remove(dir / ("control." + ext));
    // What, the bytes, and what the message names: an uncompressed file cut in its pixels is
    // shorter than its header declares.
    std::vector<std::tuple<std::string, std::string, std::string>> damaged;
    for (const size_t cut : {size_t{8}, n / 4, n / 2, n - 1}) {
      damaged.emplace_back("cut at " + std::to_string(cut), whole.substr(0, cut),
                           std::string(compression) == "none" && cut > 8 ? "truncated file" : in);
    }
    for (const size_t at : ext == "tif"   ? std::vector<size_t>{4, ifd + 2}
                           : ext == "dpx" ? std::vector<size_t>{0, 16}
                                          : std::vector<size_t>{n / 2, 3 * n / 4}) {
      std::string flipped = whole;
      for (size_t i = at; i < at + 4; ++i) flipped[i] = static_cast<char>(~flipped[i]);
      damaged.emplace_back("4 bytes flipped at " + std::to_string(at), flipped, in);
    }
    for (const auto& [what, bytes, mentions] : damaged) {
      Write(in, bytes);
      const Snapshot before = Take(dir.path());
      const std::string label = ext + " " + compression + " " + what + " of " + std::to_string(n);
      ExpectRefusal(RunTool({"render", in, dir / ("out." + ext)}), 2, mentions, label);
      EXPECT_EQ(Take(dir.path()), before) << label;
    }
  }
}

// render --skip-existing takes an OpenEXR output as whole from its chunk table: every
// compression (chunks of 1, 16, 32 or 256 lines; 33 lines make two chunks of 32 lines but
// one of 256) and tiled files, one level or mipmapped, with sides that are multiples of the
// tile and sides that are not. Whole, each passes; its last chunk cut short, each is refused.
TEST(DamagedFiles, EveryOpenExrLayoutIsWholeUntilItsLastChunkIsCut) {
  ScratchDir dir;
  const auto px = Gradient(64, 33, 3);
  std::vector<std::pair<std::string, std::function<void(const std::string&)>>> files;
  for (const char* compression :
       {"none", "rle", "zips", "zip", "piz", "pxr24", "b44", "b44a", "dwaa", "dwab"}) {
    files.emplace_back(compression, [&, compression](const std::string& path) {
      WriteImage(path, 64, 33, 3, OIIO::TypeDesc::HALF, OIIO::TypeDesc::FLOAT, px.data(),
                 {{"compression", compression}});
    });
  }
  for (const int tile : {16, 20}) {
    files.emplace_back("tiles " + std::to_string(tile), [&, tile](const std::string& path) {
      OIIO::ImageSpec spec(64, 33, 3, OIIO::TypeDesc::HALF);
      spec.tile_width = spec.tile_height = tile;
      WriteSpec(path, spec, OIIO::TypeDesc::FLOAT, px.data());
    });
    files.emplace_back("mipmap " + std::to_string(tile), [&, tile](const std::string& path) {
      const OIIO::ImageBuf image(OIIO::ImageSpec(64, 33, 3, OIIO::TypeDesc::FLOAT),
                                 const_cast<float*>(px.data()));
      OIIO::ImageSpec config;
      config.attribute("tile:width", tile);
      config.attribute("tile:height", tile);
      ASSERT_TRUE(OIIO::ImageBufAlgo::make_texture(OIIO::ImageBufAlgo::MakeTxTexture, image,
                                                   path, config))
          << OIIO::geterror();
    });
  }
  for (const auto& [name, write] : files) {
    const std::string path = dir / "out.exr";
    write(path);
    EXPECT_NO_THROW(veltrisca::CheckWholeImage(path)) << name;
    const std::string whole = Slurp(path);
    Write(path, whole.substr(0, whole.size() - 4));
    EXPECT_NE(Refusal(veltrisca::kExitIo, veltrisca::CheckWholeImage, path).find("OpenEXR file"),
              std::string::npos)
        << name;
  }
}

std::string Be32(uint32_t v) {
  return {static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8),
          static_cast<char>(v)};
}

std::string PngChunk(const std::string& type, const std::string& data) {
  const std::string both = type + data;
  return Be32(static_cast<uint32_t>(data.size())) + both +
         Be32(crc32(0, reinterpret_cast<const Bytef*>(both.data()), both.size()));
}

// A well-formed PNG that claims width x height RGBA pixels but holds none.
std::string HeaderOnlyPng(uint32_t width, uint32_t height) {
  const std::string ihdr = Be32(width) + Be32(height) + std::string("\x08\x06\x00\x00\x00", 5);
  return std::string("\x89PNG\r\n\x1a\n", 8) + PngChunk("IHDR", ihdr) +
         PngChunk("IDAT", std::string("\x78\x9c\x03\x00\x00\x00\x00\x01", 8)) +
         PngChunk("IEND", "");
}

// Inputs that are no image, outputs that cannot be written, OUT that is IN, jobs beyond the
// memory there is: each refused, with the folder (an earlier OUT included) as it was.
TEST(Refusals, OfInputsAndOutputsLeaveTheFolderAsItWas) {
  ScratchDir dir;
  const auto px = NoiseBytes(8 * 6 * 4, 5);
  WriteImage(dir / "in.png", 8, 6, 4, OIIO::TypeDesc::UINT8, OIIO::TypeDesc::UINT8, px.data());
  Write(dir / "out.png", "the previous result");
  Write(dir / "empty.png", "");
  Write(dir / "text.tif", std::string("II*\0\x08\0\0\0 this is no TIFF directory", 34));
  std::string random;
  for (uint32_t v : Noise(1000, 77)) random += static_cast<char>(v >> 24);
  Write(dir / "random.exr", random);
  fs::create_directories(dir.path() / "folder.png" / "x");
  ASSERT_EQ(mkfifo((dir / "pipe.png").c_str(), 0644), 0);
  fs::create_symlink("in.png", dir / "link.png");
  fs::create_hard_link(dir / "in.png", dir / "hard.png");
  Write(dir / "small.png", HeaderOnlyPng(3000, 2000));
  Write(dir / "huge.png", HeaderOnlyPng(100000, 100000));  // 40 GB at 8 bits
  {  // two parts: all but the first would be lost, so the file is refused naming both
    std::vector<OIIO::ImageSpec> parts(2, OIIO::ImageSpec(8, 6, 3, OIIO::TypeDesc::HALF));
    parts[0].attribute("name", "beauty");
    parts[1].attribute("name", "depth");
    const std::vector<float> half(8 * 6 * 3, 0.5f);
    auto out = OIIO::ImageOutput::create("exr");
    ASSERT_TRUE(out && out->open(dir / "parts.exr", 2, parts.data()) &&
                out->write_image(OIIO::TypeDesc::FLOAT, half.data()) &&
                out->open(dir / "parts.exr", parts[1], OIIO::ImageOutput::AppendSubimage) &&
                out->write_image(OIIO::TypeDesc::FLOAT, half.data()) && out->close());
  }
  const std::string in = dir / "in.png", out = dir / "out.png", folder = dir / "folder.png";
  struct Case {
    std::vector<std::string> args;
    int exitCode;
    const char* mentions;
    const char* memoryLimit = nullptr;  // VELTRISCA_MEMORY_LIMIT, if any
  };
  const Case cases[] = {
      {{"render", dir / "missing.png", out}, 2, "missing.png"},
      {{"render", dir / "empty.png", out}, 2, "empty.png"},
      {{"render", dir / "text.tif", out}, 2, "text.tif"},
      {{"render", dir / "random.exr", out}, 2, "random.exr"},
      {{"render", folder, out}, 2, "directory"},
      {{"render", dir / "pipe.png", out}, 2, "not a regular file"},  // no reader may wait
      {{"render", "/dev/zero", out}, 2, "not a regular file"},       // ... or read forever
      {{"render", dir / "line\nbreak.png", out}, 2, "line\\x0abreak.png"},
      {{"render", "", out}, 2, "empty"},
      {{"render", dir / "parts.exr", out}, 2, "beauty (3 channels), depth (3 channels)"},
      {{"render", in, (dir.path() / "in.png" / "o.png").string()}, 2, "Not a directory"},
      {{"render", in, "/proc/veltrisca_out.png"}, 2, "veltrisca_out.png"},  // no new files
      {{"render", in, "/sys/veltrisca_out.png"}, 2, "veltrisca_out.png"},   // even for root
      {{"render", in, folder}, 2, "folder.png"},  // an existing folder is not replaced
      {{"render", in, (dir.path() / "no" / "such" / "o.png").string()}, 2, "o.png"},
      {{"render", in, in}, 2, "same file"},
      {{"render", in, (dir.path() / "folder.png" / "x" / ".." / ".." / "in.png").string()},
       2,
       "same file"},
      {{"render", in, (dir.path() / "nothing" / ".." / "in.png").string()}, 2, "same file"},
      {{"render", in, (dir.path() / "." / "in.png").string()}, 2, "same file"},
      {{"render", in, dir.path().string() + "//in.png"}, 2, "same file"},
      {{"render", in, dir / "link.png"}, 2, "same file"},
      {{"render", dir / "link.png", in}, 2, "same file"},
      {{"render", in, dir / "hard.png"}, 2, "same file"},
      // The memory check runs on the header: the job is refused for memory, not for its
      // missing pixels, before anything is allocated.
      {{"render", dir / "small.png", out}, 2, "only 64 MiB", "64M"},
      {{"render", dir / "small.png", out}, 1, "VELTRISCA_MEMORY_LIMIT", "64Q"},
      {{"chart", out}, 2, "a 1920x1080 chart", "1M"},  // (the chart's default size)
      {{"info", dir / "small.png"}, 2, "a 3000x2000 input layer", "1M"},  // not --size's
      {{"lens", "--from", "ffmpeg", "--size", "32767x32767"}, 2, "a 32767x32767 frame", "1M"},
      {{"lens", "--from", "lensfun", "--model", "Mamiya 35mm f/3.5", "--focal", "35", "--size",
        "4000x3000"},
       2,
       "needs about 185 MiB",  // liblensfun's two position tables
       "100M"},
      {{"render", dir / "huge.png", out, "--distorted-size", "1920x1080"}, 2, "100000 x 100000"},
      // Without sizes the layer is already too wide for the size parameters.
      {{"render", dir / "huge.png", out}, 2, "32767"},
  };
  const Snapshot before = Take(dir.path());
  for (const Case& c : cases) {
    if (c.memoryLimit) setenv("VELTRISCA_MEMORY_LIMIT", c.memoryLimit, 1);
    const RunResult r = RunTool(c.args);
    unsetenv("VELTRISCA_MEMORY_LIMIT");
    ExpectRefusal(r, c.exitCode, c.mentions, c.args[0] + " " + c.args[1] + " -> " + c.args.back());
  }
  EXPECT_EQ(Take(dir.path()), before);
  EXPECT_FALSE(fs::exists("/proc/veltrisca_out.png"));
}

// Run with a limit on the size of the files this process writes, SIGXFSZ ignored as main
// ignores it (the limit lowers only the soft limit, which is put back).
RunResult RunWithFileLimit(const std::vector<std::string>& args, rlim_t limit) {
  rlimit old{};
  getrlimit(RLIMIT_FSIZE, &old);
  const auto handler = std::signal(SIGXFSZ, SIG_IGN);
  const rlimit lower{std::min(limit, old.rlim_cur), old.rlim_max};
  setrlimit(RLIMIT_FSIZE, &lower);
  RunResult r = RunTool(args);
  setrlimit(RLIMIT_FSIZE, &old);
  std::signal(SIGXFSZ, handler);
  return r;
}

// A full disk and a file size limit look alike to the writer: a write comes back short, or
// only the last flush when the file is closed. The image writers do not all notice that
// themselves; the tool must, and remove its temporary file. The earlier OUT stays as it was.
// The chart runs as a program of its own: main must keep the limit from killing it.
TEST(Refusals, AWriteCutShortLeavesNoFileAndKeepsTheOldOne) {
  ScratchDir dir;
  const auto px = NoiseBytes(64 * 64 * 3, 9);  // noise: 12 KB that no format compresses
  WriteImage(dir / "in.png", 64, 64, 3, OIIO::TypeDesc::UINT8, OIIO::TypeDesc::UINT8, px.data());
  for (const std::string name : {"out.png", "out.tif", "out.exr", "out.jpg", "chart.png"}) {
    Write(dir / name, "the previous result");
    const Snapshot before = Take(dir.path());
    const RunResult r = name == "chart.png"
                            ? RunProcess({"chart", dir / name, "--size", "400x300"}, 4096)
                            : RunWithFileLimit({"render", dir / "in.png", dir / name}, 4096);
    ExpectRefusal(r, 2, "File too large", name);
    EXPECT_EQ(Take(dir.path()), before) << name;
  }
}

// --- legal but unusual inputs ----------------------------------------------------------
// What the effect makes of them is its own tests' business; here the tool must carry them
// through its files and windows.

const char* const kFilters[] = {"builtin",  "nearest",  "bilinear",
                                "lanczos2", "lanczos3", "mitchell"};

// A successful render; stderr holds warnings and notes at most, and the one expected.
void ExpectRender(const std::vector<std::string>& args, const std::string& label,
                  const std::string& warning = "") {
  const RunResult r = RunTool(args);
  ASSERT_EQ(r.exitCode, 0) << label << ": " << r.err;
  std::istringstream lines(r.err);
  for (std::string line; std::getline(lines, line);) {
    EXPECT_TRUE(line.rfind("veltrisca: warning: ", 0) == 0 ||
                line.rfind("veltrisca: note: ", 0) == 0)
        << label << ": " << line;
  }
  EXPECT_NE(r.err.find(warning), std::string::npos) << label << ": " << r.err;
}

// A single pixel: Nearest returns it, the kernels renormalise over the one tap inside. The
// position the lens maps the pixel to is 0 only up to float rounding, and BiLinear ends
// exactly at the first column and row, so there it is the pixel or, a hair below 0, nothing.
TEST(UnusualInputs, OneByOneComesBackUnchanged) {
  ScratchDir dir;
  const uint8_t one[4] = {200, 100, 50, 180};
  WriteImage(dir / "one.png", 1, 1, 4, OIIO::TypeDesc::UINT8, OIIO::TypeDesc::UINT8, one);
  for (const char* mode : {"remove", "apply"}) {
    for (const char* filter : kFilters) {
      const std::string label = std::string(mode) + " " + filter;
      ExpectRender({"render", dir / "one.png", dir / "o.png", "--mode", mode, "--filter", filter},
                   label);
      const Image o = ReadImage(dir / "o.png");
      ASSERT_EQ(o.width * o.height, 1) << label;
      const std::vector<uint8_t> pixel(one, one + 4), nothing(4, 0);
      if (std::string(filter) == "bilinear" && o.raw == nothing) continue;
      EXPECT_EQ(o.raw, pixel) << label;
    }
  }
}

// Zoom 0 is inside the slider's range; in Remove every input position is then infinite or
// NaN, read as outside: the output is 0, and the tool says so.
TEST(UnusualInputs, ZoomZeroInRemoveRendersNothingAndSaysSo) {
  ScratchDir dir;
  const auto px = NoiseBytes(9 * 7 * 4, 4);
  WriteImage(dir / "in.png", 9, 7, 4, OIIO::TypeDesc::UINT8, OIIO::TypeDesc::UINT8, px.data());
  ExpectRender({"render", dir / "in.png", dir / "z.png", "--zoom", "0"}, "zoom 0",
               "fully transparent");
  EXPECT_EQ(ReadImage(dir / "z.png").raw, std::vector<uint8_t>(px.size(), 0));
}

// The largest coefficients the sliders allow, in both modes, with every filter, at each sample
// depth: the file comes back with its size and type and no NaN, and Nearest gives samples of
// the input (a 16-bit one as it survives the host's 0..32768 range) or 0.
TEST(UnusualInputs, ExtremeCoefficientsRenderAtEveryDepth) {
  ScratchDir dir;
  std::vector<float> px(9 * 7 * 4);
  const auto x = Noise(px.size(), 31);
  for (size_t i = 0; i < px.size(); ++i) px[i] = 0.1f + 0.8f * (x[i] >> 8) / 16777216.0f;
  for (const std::string ext : {".png", ".tif", ".exr"}) {
    const auto type = ext == ".png"   ? OIIO::TypeDesc::UINT8
                      : ext == ".tif" ? OIIO::TypeDesc::UINT16
                                      : OIIO::TypeDesc::FLOAT;
    const std::string in = dir / ("in" + ext), out = dir / ("o" + ext);
    WriteImage(in, 9, 7, 4, type, OIIO::TypeDesc::FLOAT, px.data());
    auto value = [&](const Image& im, size_t i) -> double {  // 16 bits as integers
      return type == OIIO::TypeDesc::UINT16 ? reinterpret_cast<const uint16_t*>(im.raw.data())[i]
                                            : im.pixels[i];
    };
    const Image source = ReadImage(in);
    std::set<double> samples = {0.0};
    for (size_t i = 0; i < px.size(); ++i) {
      const double v = value(source, i);
      samples.insert(type == OIIO::TypeDesc::UINT16 ? Through16BitHost(v) : v);
    }
    for (const char* mode : {"remove", "apply"}) {
      for (const char* k : {"-20000", "20000"}) {
        for (const std::string filter : kFilters) {
          const std::string label = in + " " + mode + " " + filter + " " + k;
          ExpectRender({"render", in, out, "--mode", mode, "--filter", filter, "--distortion", k,
                        "--cubic", k, "--quartic", k},
                       label);
          const Image o = ReadImage(out);
          ASSERT_EQ(o.width * 100 + o.height, 9 * 100 + 7) << label;
          ASSERT_EQ(o.format, type) << label;
          for (size_t i = 0; i < px.size(); ++i) {
            ASSERT_FALSE(std::isnan(o.pixels[i])) << label << " sample " << i;
            ASSERT_TRUE(filter != "nearest" || samples.count(value(o, i))) << label << " " << i;
          }
        }
      }
    }
  }
}

}  // namespace
