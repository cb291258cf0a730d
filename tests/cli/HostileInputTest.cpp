// `veltrisca` against damaged files, unusable outputs and hostile option values, and renders of
// legal but unusual inputs. A refusal is one line on stderr starting with "veltrisca: ", with
// the documented exit code, and leaves the folder exactly as it was: no output, no temporary
// file, IN and any earlier OUT untouched. Nothing may crash.
//
// Most cases call RunCli in this process (it is the whole program; main only passes the
// arguments), with the process's own stderr captured as well, so that a library printing on
// its own breaks the one-line rule here too. Cases that need a process of their own (a file
// size limit, an environment variable, main's signal handling) start the built program.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <limits>
#include <set>
#include <sstream>

#include "CliTestSupport.h"
#include "cli/Commands.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using vt_cli_test::Image;
using vt_cli_test::Noise;
using vt_cli_test::ReadImage;
using vt_cli_test::ScratchDir;
using vt_cli_test::Slurp;
using vt_cli_test::WriteImage;

struct Outcome {
  int exitCode = -1;
  std::string out;
  std::string err;
};

// RunCli in this process. File descriptor 2 is captured around the call and put before what
// the tool wrote to its error stream.
Outcome RunHere(std::vector<std::string> args) {
  args.insert(args.begin(), {"--plugin", VT_EFFECT_PATH});
  std::fflush(stderr);
  const int saved = dup(2);
  std::FILE* capture = std::tmpfile();
  if (saved < 0 || !capture) throw std::runtime_error("cannot capture stderr");
  dup2(fileno(capture), 2);
  std::ostringstream out, err;
  Outcome o;
  o.exitCode = veltrisca::RunCli(args, out, err);
  std::fflush(stderr);
  dup2(saved, 2);
  close(saved);
  std::rewind(capture);
  char chunk[4096];
  for (size_t n; (n = std::fread(chunk, 1, sizeof chunk, capture)) > 0;) o.err.append(chunk, n);
  std::fclose(capture);
  o.err += err.str();
  o.out = out.str();
  return o;
}

// The built program in a process of its own, with extra environment entries ("NAME=value")
// and a limit on the size of the files it writes.
Outcome RunProcess(const std::vector<std::string>& args, const std::vector<std::string>& env = {},
                   rlim_t fileSizeLimit = RLIM_INFINITY) {
  static int counter = 0;
  const std::string base = (fs::path(::testing::TempDir()) /
                            ("vt_hostile_" + std::to_string(getpid()) + "_" +
                             std::to_string(counter++)))
                               .string();
  const std::string outPath = base + ".out", errPath = base + ".err";
  std::vector<std::string> argStrings = {VT_CLI_PATH, "--plugin", VT_EFFECT_PATH};
  argStrings.insert(argStrings.end(), args.begin(), args.end());
  std::vector<char*> argv, envp;
  for (auto& a : argStrings) argv.push_back(a.data());
  argv.push_back(nullptr);
  std::vector<std::string> envStrings(env);
  for (char** e = environ; *e; ++e) envStrings.emplace_back(*e);
  for (auto& e : envStrings) envp.push_back(e.data());
  envp.push_back(nullptr);

  const pid_t pid = fork();
  if (pid == 0) {  // only async-signal-safe calls until exec
    const int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const rlimit limit{fileSizeLimit, fileSizeLimit};
    if (out < 0 || err < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0 ||
        setrlimit(RLIMIT_FSIZE, &limit) != 0) {
      _exit(126);
    }
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  Outcome o;
  int status = 0;
  if (pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status)) {
    o.exitCode = WEXITSTATUS(status);
  }
  o.out = Slurp(outPath);
  o.err = Slurp(errPath);
  std::remove(outPath.c_str());
  std::remove(errPath.c_str());
  return o;
}

// Everything under a folder: relative path -> size and hash of the contents (links and folders
// by what they are).
using Snapshot = std::map<std::string, std::string>;

Snapshot Take(const fs::path& root) {
  Snapshot s;
  for (auto it = fs::recursive_directory_iterator(root); it != fs::recursive_directory_iterator();
       ++it) {
    const std::string name = fs::relative(it->path(), root).string();
    if (it->is_symlink()) {
      s[name] = "link to " + fs::read_symlink(it->path()).string();
    } else if (it->is_directory()) {
      s[name] = "folder";
    } else if (it->is_regular_file()) {
      const std::string bytes = Slurp(it->path().string());
      s[name] = std::to_string(bytes.size()) + " bytes, hash " +
                std::to_string(std::hash<std::string>{}(bytes));
    } else {
      s[name] = "special file";
    }
  }
  return s;
}

// The refusal rules; `label` names the case in failure messages.
void ExpectRefusal(const Outcome& r, int exitCode, const std::string& mentions,
                   const std::string& label) {
  EXPECT_EQ(r.exitCode, exitCode) << label << ": " << r.err;
  EXPECT_EQ(r.err.rfind("veltrisca: ", 0), 0u) << label << ": " << r.err;
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << label << ": " << r.err;
  EXPECT_FALSE(r.err.empty() || r.err.back() != '\n') << label << ": " << r.err;
  EXPECT_NE(r.err.find(mentions), std::string::npos) << label << ": " << r.err;
  EXPECT_TRUE(r.out.empty()) << label << ": " << r.out;
}

void Write(const std::string& path, const std::string& bytes) {
  std::ofstream f(path, std::ios::binary);
  f << bytes;
}

std::vector<uint8_t> NoiseBytes(size_t n, uint32_t seed) {
  std::vector<uint8_t> v(n);
  const auto x = Noise(n, seed);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(x[i] >> 24);
  return v;
}

// --- damaged and non-image files --------------------------------------------------------

// Smooth content, so that the EXR and TIFF writers really compress it: their checksummed
// compressed blocks are what makes a flipped byte detectable at all (in uncompressed pixels
// any byte is a valid sample).
std::vector<float> Gradient(int w, int h, int channels) {
  std::vector<float> px(static_cast<size_t>(w) * h * channels);
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      for (int c = 0; c < channels; ++c) {
        px[(static_cast<size_t>(y) * w + x) * channels + c] =
            c == 3 ? 1.0f : (x + 2.0f * y + 10.0f * c) / (w + 2.0f * h + 30.0f);
      }
    }
  }
  return px;
}

// Uncompressed TIFF and DPX carry no checksum: OpenImageIO reads their cut-off pixel data as
// zeros, so the tool compares the file's length with what its header declares.
TEST(DamagedFiles, CutOrFlippedPngExrTiffAndDpxAreRefused) {
  ScratchDir dir;
  struct Format {
    const char* ext;
    OIIO::TypeDesc type;
    int channels;
    const char* compression;
  };
  const Format formats[] = {{"png", OIIO::TypeDesc::UINT8, 4, "zip"},
                            {"exr", OIIO::TypeDesc::HALF, 4, "zip"},
                            {"tif", OIIO::TypeDesc::UINT16, 3, "zip"},
                            {"tif", OIIO::TypeDesc::UINT8, 3, "none"},
                            {"dpx", OIIO::TypeDesc::UINT16, 3, "none"}};
  for (const Format& f : formats) {
    const std::string good = dir / (std::string("good.") + f.ext);
    const auto px = Gradient(48, 32, f.channels);
    WriteImage(good, 48, 32, f.channels, f.type, OIIO::TypeDesc::FLOAT, px.data(),
               {{"compression", f.compression}});
    const std::string whole = Slurp(good);
    const size_t n = whole.size();
    // The undamaged file renders: the refusals below are the damage's doing.
    const std::string control = dir / (std::string("control.") + f.ext);
    const Outcome ok = RunHere({"render", good, control, "--filter", "nearest"});
    ASSERT_EQ(ok.exitCode, 0) << f.ext << ": " << ok.err;
    fs::remove(control);

    std::vector<std::pair<std::string, std::string>> damaged;  // label, bytes
    for (const size_t cut : {size_t{8}, n / 4, n / 2, n - 1}) {
      damaged.emplace_back("cut at " + std::to_string(cut) + " of " + std::to_string(n),
                           whole.substr(0, cut));
    }
    // The middle of the PNG and EXR files is compressed pixel data under a checksum. A TIFF
    // has none, and OpenImageIO 2.4 inflates TIFF strips itself without reporting zlib's
    // errors: a flip in its pixel data reads as other pixels, undetectably. So the TIFF is
    // damaged in its directory instead: the directory's offset and its first entry.
    std::vector<size_t> flips = {n / 2, 3 * n / 4};
    if (std::string(f.ext) == "tif") {
      ASSERT_EQ(whole.compare(0, 4, std::string("II*\0", 4)), 0);
      const size_t ifd = static_cast<unsigned char>(whole[4]) |
                         static_cast<unsigned char>(whole[5]) << 8;
      ASSERT_LT(ifd + 14, n);
      flips = {4, ifd + 2};
    }
    if (std::string(f.ext) == "dpx") flips = {0, 16};  // the magic number and the file size
    for (const size_t at : flips) {
      std::string flipped = whole;
      for (size_t i = at; i < at + 4; ++i) flipped[i] = static_cast<char>(~flipped[i]);
      damaged.emplace_back("4 bytes flipped at " + std::to_string(at) + " of " +
                               std::to_string(n),
                           flipped);
    }
    for (const auto& d : damaged) {
      const std::string in = dir / (std::string("damaged.") + f.ext);
      Write(in, d.second);
      const Snapshot before = Take(dir.path());
      const Outcome r = RunHere({"render", in, dir / (std::string("out.") + f.ext)});
      ExpectRefusal(r, 2, "damaged." + std::string(f.ext), std::string(f.ext) + " " + d.first);
      EXPECT_EQ(Take(dir.path()), before) << f.ext << " " << d.first;
    }
  }
}

TEST(DamagedFiles, WhatIsNoImageFileIsRefused) {
  ScratchDir dir;
  Write(dir / "empty.png", "");
  Write(dir / "text.tif", std::string("II*\0\x08\0\0\0 this is no TIFF directory", 34));
  std::string random;
  for (uint32_t v : Noise(1000, 77)) random += static_cast<char>(v >> 24);
  Write(dir / "random.exr", random);
  fs::create_directory(dir / "folder.png");
  ASSERT_EQ(mkfifo((dir / "pipe.png").c_str(), 0644), 0);
  {  // two parts: all but the first would be lost, so the file is refused naming both
    OIIO::ImageSpec part(8, 6, 3, OIIO::TypeDesc::HALF);
    std::vector<OIIO::ImageSpec> parts{part, part};
    parts[0].attribute("name", "beauty");
    parts[1].attribute("name", "depth");
    const std::vector<float> px(8 * 6 * 3, 0.5f);
    auto out = OIIO::ImageOutput::create("exr");
    ASSERT_TRUE(out && out->open(dir / "parts.exr", 2, parts.data()));
    ASSERT_TRUE(out->write_image(OIIO::TypeDesc::FLOAT, px.data()));
    ASSERT_TRUE(out->open(dir / "parts.exr", parts[1], OIIO::ImageOutput::AppendSubimage));
    ASSERT_TRUE(out->write_image(OIIO::TypeDesc::FLOAT, px.data()));
    ASSERT_TRUE(out->close());
  }
  struct Case {
    std::string in;
    const char* mentions;
  };
  const Case cases[] = {
      {dir / "missing.png", "missing.png"},
      {dir / "empty.png", "empty.png"},
      {dir / "text.tif", "text.tif"},
      {dir / "random.exr", "random.exr"},
      {dir / "folder.png", "directory"},
      {dir / "pipe.png", "not a regular file"},  // a reader would wait for a writer forever
      {"/dev/zero", "not a regular file"},       // ... or read without end
      {dir / "line\nbreak.png", "line\\x0abreak.png"},
      {"", "empty"},
      {dir / "parts.exr", "beauty (3 channels), depth (3 channels)"},
  };
  const Snapshot before = Take(dir.path());
  for (const Case& c : cases) {
    ExpectRefusal(RunHere({"render", c.in, dir / "out.png"}), 2, c.mentions, c.in);
  }
  EXPECT_EQ(Take(dir.path()), before);
}

// --- outputs that cannot be written ------------------------------------------------------

TEST(UnwritableOutput, IsRefusedAndLeavesEverythingAsItWas) {
  ScratchDir dir;
  const auto px = NoiseBytes(8 * 6 * 4, 3);
  WriteImage(dir / "in.png", 8, 6, 4, OIIO::TypeDesc::UINT8, OIIO::TypeDesc::UINT8, px.data());
  fs::create_directories(dir / "folder.png");
  Write((dir.path() / "folder.png" / "keep").string(), "kept");
  struct Case {
    std::string out;
    const char* mentions;
  };
  const Case cases[] = {
      // The parent is a regular file.
      {(dir.path() / "in.png" / "out.png").string(), "Not a directory"},
      {"/proc/veltrisca_out.png", "veltrisca_out.png"},  // procfs takes no new files
      {"/sys/veltrisca_out.png", "veltrisca_out.png"},   // nor does sysfs, even for root
      {dir / "folder.png", "folder.png"},  // an existing folder is not replaced
      {(dir.path() / "no" / "such" / "out.png").string(), "out.png"},
  };
  const Snapshot before = Take(dir.path());
  for (const Case& c : cases) {
    ExpectRefusal(RunHere({"render", dir / "in.png", c.out}), 2, c.mentions, c.out);
  }
  EXPECT_EQ(Take(dir.path()), before);
  EXPECT_FALSE(fs::exists("/proc/veltrisca_out.png"));
}

// A full disk and a file size limit look alike to the writer: a write comes back short. The
// image writers do not all notice that themselves; the tool must, and remove its temporary file
// (the limit must not kill it either). The earlier OUT stays as it was.
TEST(UnwritableOutput, AWriteCutShortLeavesNoFileAndKeepsTheOldOne) {
  ScratchDir dir;
  const auto px = NoiseBytes(64 * 64 * 3, 9);  // noise: 12 KB that no format compresses
  WriteImage(dir / "in.png", 64, 64, 3, OIIO::TypeDesc::UINT8, OIIO::TypeDesc::UINT8, px.data());
  const rlim_t limit = 4096;
  for (const char* name : {"out.png", "out.tif", "out.exr", "out.jpg"}) {
    Write(dir / name, "the previous result");
    const Snapshot before = Take(dir.path());
    const Outcome r = RunProcess({"render", dir / "in.png", dir / name}, {}, limit);
    ExpectRefusal(r, 2, "File too large", name);
    EXPECT_EQ(Take(dir.path()), before) << name;
  }
  const Snapshot before = Take(dir.path());
  const Outcome chart = RunProcess({"chart", dir / "chart.png", "--size", "400x300"}, {}, limit);
  ExpectRefusal(chart, 2, "File too large", "chart");
  EXPECT_EQ(Take(dir.path()), before);
}

// --- OUT is IN -------------------------------------------------------------------------

TEST(SameFile, EverySpellingOfInIsRefusedAsOut) {
  ScratchDir dir;
  const auto px = NoiseBytes(8 * 6 * 4, 5);
  WriteImage(dir / "in.png", 8, 6, 4, OIIO::TypeDesc::UINT8, OIIO::TypeDesc::UINT8, px.data());
  fs::create_directory(dir / "x");
  fs::create_symlink("in.png", dir / "link.png");
  fs::create_hard_link(dir / "in.png", dir / "hard.png");
  const std::string in = dir / "in.png";
  const std::pair<std::string, std::string> cases[] = {
      {in, (dir.path() / "x" / ".." / "in.png").string()},
      {in, (dir.path() / "nothing" / ".." / "in.png").string()},
      {in, (dir.path() / "." / "in.png").string()},
      {in, dir.path().string() + "//in.png"},
      {in, dir / "link.png"},
      {dir / "link.png", in},
      {in, dir / "hard.png"},
  };
  const Snapshot before = Take(dir.path());
  for (const auto& c : cases) {
    ExpectRefusal(RunHere({"render", c.first, c.second}), 1, "same file",
                  c.first + " -> " + c.second);
  }
  EXPECT_EQ(Take(dir.path()), before);
}

// --- option values ---------------------------------------------------------------------

TEST(OptionValues, EveryNumericOptionRefusesBadValuesWithoutTouchingFiles) {
  ScratchDir dir;
  const auto px = NoiseBytes(8 * 6 * 4, 7);
  WriteImage(dir / "in.png", 8, 6, 4, OIIO::TypeDesc::UINT8, OIIO::TypeDesc::UINT8, px.data());
  const std::vector<std::string> render = {"render", dir / "in.png", dir / "out.png"};
  struct Option {
    std::vector<std::string> command;
    std::string option;
    std::string mentions;  // the range, where the message gives one
    std::vector<std::string> bad;
  };
  const std::vector<std::string> notFinite = {"abc", "1e", "1,5", " 1", "inf", "-inf",
                                              "nan", "NaN", "1e999"};
  auto with = [](std::vector<std::string> a, std::vector<std::string> b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
  };
  const std::vector<std::string> badSizes = {"0x6", "8x0", "32768x6", "8x32768", "-8x6", "8",
                                             "8x", "x6", "8.5x6", "8x6x1", "axb",
                                             "99999999999999999999x6"};
  const Option options[] = {
      {render, "--distortion", "-20000..20000", with(notFinite, {"-20000.5", "20001"})},
      {render, "--cubic", "-20000..20000", with(notFinite, {"-1e5", "20000.001"})},
      {render, "--quartic", "-20000..20000", with(notFinite, {"-20001", "3e4"})},
      {render, "--zoom", "0..10", with(notFinite, {"-0.001", "10.5", "-1"})},
      {render, "--pixel-aspect", "0.1..10", with(notFinite, {"0", "0.0999", "10.01", "-1"})},
      {render, "--distorted-size", "--distorted-size", badSizes},
      {render, "--undistorted-size", "--undistorted-size", badSizes},
      {render, "--threads", "--threads", {"-1", "1025", "abc", "2.5", "1e2", "nan", "0x10"}},
      {render, "--window", "--window",
       {"1,2,3", "1,2,3,4,5", "a,b,c,d", "0,0,1e3,5", "0,0,2147483648,1", "0,0,0,6",
        "5,5,1,1", "1.5,0,8,6"}},
      {{"info"}, "--size", "--size", badSizes},
      {{"info"}, "--request", "--request", {"1,2,3", "a,b,c,d", "0,0,1e9,1", "0,0,2147483648,1"}},
      {{"chart", dir / "chart.png"}, "--size", "--size", badSizes},
      {{"chart", dir / "chart.png"}, "--depth", "--depth", {"12", "double"}},
      {render, "--mode", "--mode", {"distort", "1"}},
      {render, "--filter", "--filter", {"cubic", "0", "7"}},
  };
  const Snapshot before = Take(dir.path());
  int cases = 0;
  for (const Option& o : options) {
    for (const std::string& value : o.bad) {
      std::vector<std::string> args = o.command;
      args.push_back(o.option + "=" + value);  // the = form passes "-1" as a value
      const Outcome r = RunHere(args);
      ExpectRefusal(r, 1, o.mentions, o.option + "=" + value);
      EXPECT_NE(r.err.find(o.option), std::string::npos) << r.err;
      ++cases;
    }
    // An empty value is no value (never "use the default").
    std::vector<std::string> args = o.command;
    args.push_back(o.option + "=");
    ExpectRefusal(RunHere(args), 1, o.option, o.option + "=");
  }
  EXPECT_GT(cases, 100);
  // The separated form reads a negative value as the value, not as another option.
  ExpectRefusal(RunHere(with(render, {"--distortion", "-30000"})), 1, "-20000..20000",
                "--distortion -30000");
  // A window that parses but whose image no buffer can hold is refused as a resource error.
  ExpectRefusal(RunHere(with(render, {"--window=-2147483648,0,2147483647,1"})), 2, "4.0 GiB",
                "huge window");
  EXPECT_EQ(Take(dir.path()), before);
}

// --- memory ----------------------------------------------------------------------------

std::string Be32(uint32_t v) {
  return {static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8),
          static_cast<char>(v)};
}

// A PNG chunk with its CRC (bitwise CRC-32, written independently of the tool's).
std::string PngChunk(const std::string& type, const std::string& data) {
  uint32_t crc = 0xFFFFFFFFu;
  for (unsigned char b : type + data) {
    crc ^= b;
    for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
  }
  return Be32(static_cast<uint32_t>(data.size())) + type + data + Be32(~crc);
}

// The memory check runs on the header: a well-formed PNG that claims 3000 x 2000 RGBA pixels
// but holds none is refused for memory, not for its missing pixels, under a 64 MiB limit.
TEST(Memory, AJobOverTheLimitIsRefusedBeforeAnyPixelIsRead) {
  ScratchDir dir;
  const std::string ihdr = Be32(3000) + Be32(2000) + std::string("\x08\x06\x00\x00\x00", 5);
  Write(dir / "header_only.png",
        std::string("\x89PNG\r\n\x1a\n", 8) + PngChunk("IHDR", ihdr) +
            PngChunk("IDAT", std::string("\x78\x9c\x03\x00\x00\x00\x00\x01", 8)) +
            PngChunk("IEND", ""));
  const Snapshot before = Take(dir.path());
  const std::vector<std::string> args = {"render", dir / "header_only.png", dir / "out.png"};
  ExpectRefusal(RunProcess(args, {"VELTRISCA_MEMORY_LIMIT=64M"}), 2, "only 64 MiB", "64M");
  ExpectRefusal(RunProcess(args, {"VELTRISCA_MEMORY_LIMIT=64Q"}), 1, "VELTRISCA_MEMORY_LIMIT",
                "64Q");
  EXPECT_EQ(Take(dir.path()), before);
}

// --- legal but unusual inputs ----------------------------------------------------------

const char* const kFilters[] = {"builtin", "nearest", "bilinear", "lanczos2", "lanczos3",
                                "mitchell"};

// A successful render; stderr holds warnings and notes at most, and the one expected.
void ExpectRender(const std::vector<std::string>& args, const std::string& label,
                  const std::string& warning = "") {
  const Outcome r = RunHere(args);
  ASSERT_EQ(r.exitCode, 0) << label << ": " << r.err;
  std::istringstream lines(r.err);
  for (std::string line; std::getline(lines, line);) {
    EXPECT_TRUE(line.rfind("veltrisca: warning: ", 0) == 0 || line.rfind("veltrisca: note: ", 0) == 0)
        << label << ": " << line;
  }
  if (!warning.empty()) {
    EXPECT_NE(r.err.find(warning), std::string::npos) << label << ": " << r.err;
  }
}

// A single pixel: Nearest returns it, the kernels renormalise over the one tap inside. The
// position the lens maps the pixel to is 0 only up to float rounding, and BiLinear ends
// exactly at the first column and row, so there it is the pixel or, a hair below 0, nothing.
TEST(UnusualInputs, OneByOneAndGreyImagesComeBackUnchanged) {
  ScratchDir dir;
  const uint8_t one[4] = {200, 100, 50, 180};
  WriteImage(dir / "one.png", 1, 1, 4, OIIO::TypeDesc::UINT8, OIIO::TypeDesc::UINT8, one);
  for (const char* mode : {"remove", "apply"}) {
    for (const char* filter : kFilters) {
      const std::string label = std::string(mode) + " " + filter;
      ExpectRender({"render", dir / "one.png", dir / "one_out.png", "--mode", mode, "--filter",
                    filter},
                   label);
      const Image o = ReadImage(dir / "one_out.png");
      ASSERT_EQ(o.width, 1) << label;
      ASSERT_EQ(o.height, 1) << label;
      const std::vector<uint8_t> pixel(one, one + 4), nothing(4, 0);
      if (std::string(filter) == "bilinear" && o.raw == nothing) continue;
      EXPECT_EQ(o.raw, pixel) << label;
    }
  }

  // Grey, 16 bits: through the host's 0..32768 range and back.
  std::vector<uint16_t> grey(7 * 5);
  const auto x = Noise(grey.size(), 21);
  for (size_t i = 0; i < grey.size(); ++i) grey[i] = static_cast<uint16_t>(x[i] >> 16);
  grey[0] = 65535;
  WriteImage(dir / "grey.tif", 7, 5, 1, OIIO::TypeDesc::UINT16, OIIO::TypeDesc::UINT16,
             grey.data());
  ExpectRender({"render", dir / "grey.tif", dir / "grey_out.tif", "--filter", "nearest"}, "grey");
  const Image g = ReadImage(dir / "grey_out.tif");
  ASSERT_EQ(g.channels, 1);
  EXPECT_EQ(g.format, OIIO::TypeDesc::UINT16);
  const uint16_t* gv = reinterpret_cast<const uint16_t*>(g.raw.data());
  for (size_t i = 0; i < grey.size(); ++i) {
    const long double host = std::floor(grey[i] * 32768.0L / 65535.0L + 0.5L);
    ASSERT_EQ(gv[i], static_cast<uint16_t>(std::floor(host * 65535.0L / 32768.0L + 0.5L))) << i;
  }

  // Grey and alpha, float, named as such.
  std::vector<float> ya(6 * 4 * 2);
  for (size_t i = 0; i < ya.size(); ++i) ya[i] = (i % 2) ? 0.25f + i / 100.0f : -0.5f + i / 7.0f;
  {
    OIIO::ImageSpec spec(6, 4, 2, OIIO::TypeDesc::FLOAT);
    spec.channelnames = {"Y", "A"};
    spec.alpha_channel = 1;
    spec.attribute("oiio:UnassociatedAlpha", 1);
    auto out = OIIO::ImageOutput::create(dir / "ya.exr");
    ASSERT_TRUE(out && out->open(dir / "ya.exr", spec) &&
                out->write_image(OIIO::TypeDesc::FLOAT, ya.data()) && out->close());
  }
  ExpectRender({"render", dir / "ya.exr", dir / "ya_out.exr", "--filter", "nearest"}, "ya");
  const Image a = ReadImage(dir / "ya_out.exr");
  ASSERT_EQ(a.channels, 2);
  EXPECT_EQ(a.spec.alpha_channel, 1);
  EXPECT_EQ(a.pixels, ya);
}

bool SameValue(float a, float b) { return a == b || (std::isnan(a) && std::isnan(b)); }

// NaN and infinite samples in a float image, no distortion. Nearest passes every sample
// through unchanged; BiLinear gives a non-finite value where it reads one (a blend with a
// NaN, or with an infinity at weight 0, is NaN) and leaves pixels two or more away alone; no
// filter spreads them further than its taps reach.
TEST(UnusualInputs, NonFiniteFloatPixelsPassThroughAndStayLocal) {
  ScratchDir dir;
  const int w = 20, h = 16;
  auto px = Gradient(w, h, 4);
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  struct Site {
    int x, y;
    float r, g, b, a;
  };
  const Site sites[] = {{3, 3, nan, nan, nan, nan}, {6, 4, inf, inf, inf, 1.0f},
                        {4, 7, -inf, 0.5f, nan, 1.0f}};
  for (const Site& s : sites) {
    float* p = &px[(static_cast<size_t>(s.y) * w + s.x) * 4];
    p[0] = s.r, p[1] = s.g, p[2] = s.b, p[3] = s.a;
  }
  WriteImage(dir / "nan.exr", w, h, 4, OIIO::TypeDesc::FLOAT, OIIO::TypeDesc::FLOAT, px.data());
  auto farFromSites = [&](int x, int y, int reach) {
    for (const Site& s : sites) {
      if (std::abs(x - s.x) <= reach && std::abs(y - s.y) <= reach) return false;
    }
    return true;
  };
  for (const char* filter : kFilters) {
    const std::string out = dir / (std::string(filter) + ".exr");
    ExpectRender({"render", dir / "nan.exr", out, "--filter", filter}, filter);
    const Image o = ReadImage(out);
    ASSERT_EQ(o.pixels.size(), px.size()) << filter;
    for (int y = 0; y < h; ++y) {
      for (int x = 0; x < w; ++x) {
        for (int c = 0; c < 4; ++c) {
          const size_t i = (static_cast<size_t>(y) * w + x) * 4 + c;
          const std::string where = std::string(filter) + " at " + std::to_string(x) + "," +
                                    std::to_string(y) + " c" + std::to_string(c);
          if (std::string(filter) == "nearest") {
            ASSERT_TRUE(SameValue(o.pixels[i], px[i])) << where << ": " << o.pixels[i];
          } else if (std::string(filter) == "bilinear" && !std::isfinite(px[i])) {
            ASSERT_FALSE(std::isfinite(o.pixels[i])) << where << ": " << o.pixels[i];
          } else if (std::string(filter) == "bilinear" && farFromSites(x, y, 1) && x > 0 &&
                     y > 0) {  // (the first column and row may read as outside, see above)
            ASSERT_NEAR(o.pixels[i], px[i], 1e-3) << where;
          } else if (farFromSites(x, y, 4)) {
            ASSERT_TRUE(std::isfinite(o.pixels[i])) << where << ": " << o.pixels[i];
          }
        }
      }
    }
  }
}

// Zoom 0 is inside the slider's range. Remove divides the output position by it: every input
// position is infinite or NaN, read as outside, so the output is 0. Apply multiplies the
// input offset from the lens centre by it: every output pixel reads the lens centre, which on
// a uniform image is its colour (the 9 x 7 centre, 4.5, 3.5, is no pixel position of its own).
TEST(UnusualInputs, ZoomZeroRendersNothingInRemoveAndTheCentreInApply) {
  ScratchDir dir;
  const uint8_t colour[4] = {90, 160, 220, 255};
  std::vector<uint8_t> px;
  for (int i = 0; i < 9 * 7; ++i) px.insert(px.end(), colour, colour + 4);
  WriteImage(dir / "flat.png", 9, 7, 4, OIIO::TypeDesc::UINT8, OIIO::TypeDesc::UINT8, px.data());
  for (const char* mode : {"remove", "apply"}) {
    for (const char* filter : kFilters) {
      const std::string label = std::string(mode) + " " + filter;
      // Remove at zoom 0 renders nothing, and says so.
      ExpectRender({"render", dir / "flat.png", dir / "z.png", "--zoom", "0", "--mode", mode,
                    "--filter", filter},
                   label, std::string(mode) == "remove" ? "fully transparent" : "");
      const Image o = ReadImage(dir / "z.png");
      ASSERT_EQ(o.width, 9) << label;
      ASSERT_EQ(o.height, 7) << label;
      const std::vector<uint8_t> want =
          std::string(mode) == "remove" ? std::vector<uint8_t>(px.size(), 0) : px;
      EXPECT_EQ(o.raw, want) << label;
    }
  }
}

// A sample of an 8-bit, 16-bit or float image as a number.
double SampleAt(const Image& im, size_t i) {
  if (im.format == OIIO::TypeDesc::UINT8) return im.raw[i];
  if (im.format == OIIO::TypeDesc::UINT16) {
    return reinterpret_cast<const uint16_t*>(im.raw.data())[i];
  }
  return reinterpret_cast<const float*>(im.raw.data())[i];
}

// The largest coefficients the sliders allow, every sign combination, both modes, every
// filter, at each sample depth, on images with samples in [0.1, 0.9] of the range. Whatever
// the lens does, each output sample is what the filter can make of the input: Nearest a
// sample or 0; BiLinear a blend of samples or 0; the kernels' clipped results (float colour
// 0..1e10, alpha 0..1); never NaN. A 16-bit sample comes back as it survives the host's
// 0..32768 range.
TEST(UnusualInputs, ExtremeCoefficientsRenderInBothModesWithEveryFilterAtEveryDepth) {
  ScratchDir dir;
  const int w = 9, h = 7;
  std::vector<float> px(w * h * 4);
  const auto x = Noise(px.size(), 31);
  for (size_t i = 0; i < px.size(); ++i) px[i] = 0.1f + 0.8f * (x[i] >> 8) / 16777216.0f;
  const std::pair<const char*, OIIO::TypeDesc> inputs[] = {{"in8.png", OIIO::TypeDesc::UINT8},
                                                           {"in16.tif", OIIO::TypeDesc::UINT16},
                                                           {"in32.exr", OIIO::TypeDesc::FLOAT}};
  int renders = 0;
  for (const auto& input : inputs) {
    const std::string in = dir / input.first;
    const bool isFloat = input.second == OIIO::TypeDesc::FLOAT;
    WriteImage(in, w, h, 4, input.second, OIIO::TypeDesc::FLOAT, px.data());
    const Image source = ReadImage(in);
    std::set<double> samples;
    for (size_t i = 0; i < px.size(); ++i) {
      double v = SampleAt(source, i);
      if (input.second == OIIO::TypeDesc::UINT16) {
        v = std::floor(std::floor(v * 32768.0L / 65535.0L + 0.5L) * 65535.0L / 32768.0L + 0.5L);
      }
      samples.insert(v);
    }
    const double lowest = *samples.begin(), highest = *samples.rbegin();
    const double slack = isFloat ? 1e-6 : 0.0;
    const std::string out = dir / (std::string("out") + fs::path(input.first).extension().string());
    for (const char* mode : {"remove", "apply"}) {
      // The lens sees no sample depth: the integer depths take the two uniform signs only.
      for (int signs = 0; signs < 8; signs += isFloat ? 1 : 7) {
        const std::string d = (signs & 1) ? "20000" : "-20000";
        const std::string c = (signs & 2) ? "20000" : "-20000";
        const std::string q = (signs & 4) ? "20000" : "-20000";
        for (const char* filter : kFilters) {
          const std::string label = std::string(input.first) + " " + mode + " " + filter + " " +
                                    d + " " + c + " " + q;
          ExpectRender({"render", in, out, "--mode", mode, "--filter", filter, "--distortion", d,
                        "--cubic", c, "--quartic", q},
                       label);
          ++renders;
          const Image o = ReadImage(out);
          ASSERT_EQ(o.width, w) << label;
          ASSERT_EQ(o.height, h) << label;
          ASSERT_EQ(o.format, input.second) << label;
          for (size_t i = 0; i < px.size(); ++i) {
            const double v = SampleAt(o, i);
            const std::string f = filter;
            ASSERT_FALSE(std::isnan(v)) << label << " sample " << i;
            if (f == "nearest") {
              ASSERT_TRUE(v == 0 || samples.count(v)) << label << " sample " << i << ": " << v;
            } else if (f == "bilinear") {
              ASSERT_TRUE(v == 0 || (v >= lowest - slack && v <= highest + slack))
                  << label << " sample " << i << ": " << v;
            } else if (f != "builtin" && isFloat) {
              ASSERT_GE(v, 0.0) << label << " sample " << i;
              ASSERT_LE(v, i % 4 == 3 ? 1.0 : 1e10) << label << " sample " << i;
            }
          }
        }
      }
    }
  }
  EXPECT_EQ(renders, 96 + 2 * 24);
}

}  // namespace
