// Helpers for the veltrisca tests: the tool run in this process or as a program of its own,
// the refusal rules, scratch folders, JSON through nlohmann-json and image files through
// OpenImageIO.
#ifndef VT_TESTS_CLI_CLITESTSUPPORT_H
#define VT_TESTS_CLI_CLITESTSUPPORT_H

#include <OpenImageIO/imageio.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "cli/CommandLine.h"
#include "cli/shared/Errors.h"

namespace vt_cli_test {

namespace fs = std::filesystem;
using Json = nlohmann::json;
using Args = std::vector<std::string>;

// A fresh folder under the test temp dir, removed with everything in it at the end.
class ScratchDir {
 public:
  ScratchDir() {
    std::string templ = (fs::path(::testing::TempDir()) / "vt_cli_XXXXXX").string();
    if (!mkdtemp(templ.data())) throw std::runtime_error("mkdtemp failed");
    path_ = templ;
  }
  ~ScratchDir() {
    std::error_code ec;
    fs::remove_all(path_, ec);
  }
  std::string operator/(const std::string& name) const { return (path_ / name).string(); }
  const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

inline std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

inline void Write(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

// A command line split at its spaces; "IN" and "OUT" stand for the given paths.
inline Args Split(const std::string& line, const std::string& in = "",
                  const std::string& out = "") {
  Args args;
  std::istringstream words(line);
  for (std::string w; words >> w;) args.push_back(w == "IN" ? in : w == "OUT" ? out : w);
  return args;
}

inline Args Cat(Args a, const Args& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

struct RunResult {
  int exitCode = -1;
  std::string out, err;
};

// RunCli in this process, with the plug-in built beside the tool (main only sets up the signals
// of cli/shared/Signals.h and passes the arguments on). File descriptor 2 is captured around the call and put before what
// the tool wrote to its error stream, so that a library printing on its own shows too.
inline RunResult RunTool(Args args) {
  args.insert(args.begin(), {"--plugin", VT_EFFECT_PATH});
  std::fflush(stderr);
  const int saved = dup(2);
  std::FILE* capture = std::tmpfile();
  if (saved < 0 || !capture) throw std::runtime_error("cannot capture stderr");
  dup2(fileno(capture), 2);
  std::ostringstream out, err;
  RunResult r;
  r.exitCode = veltrisca::RunCli(args, out, err);
  std::fflush(stderr);
  dup2(saved, 2);
  close(saved);
  std::rewind(capture);
  for (int c; (c = std::fgetc(capture)) != EOF;) r.err += static_cast<char>(c);
  std::fclose(capture);
  r.err += err.str();
  r.out = out.str();
  return r;
}

// A run that must succeed.
inline RunResult RunOk(const Args& args) {
  RunResult r = RunTool(args);
  EXPECT_EQ(r.exitCode, 0) << args[0] << ": " << r.err;
  return r;
}

// The built program in a process of its own, its files limited to `limit` bytes (a multiple
// of 512: the shell's ulimit counts blocks). The paths hold no quotes.
inline RunResult RunProcess(const Args& args, long limit) {
  const std::string base =
      (fs::path(::testing::TempDir()) / ("vt_cli_run_" + std::to_string(getpid()))).string();
  std::string cmd = "ulimit -f " + std::to_string(limit / 512) +
                    "; exec '" VT_CLI_PATH "' --plugin '" VT_EFFECT_PATH "'";
  for (const auto& a : args) cmd += " '" + a + "'";
  const int status = std::system((cmd + " >" + base + ".out 2>" + base + ".err").c_str());
  RunResult r{WIFEXITED(status) ? WEXITSTATUS(status) : -1, Slurp(base + ".out"),
              Slurp(base + ".err")};
  fs::remove(base + ".out");
  fs::remove(base + ".err");
  return r;
}

// A refusal: the exit code, one line on stderr starting with "veltrisca: " that mentions
// `mentions`, nothing on stdout. `label` names the case in failure messages.
inline void ExpectRefusal(const RunResult& r, int exitCode, const std::string& mentions,
                          const std::string& label) {
  EXPECT_EQ(r.exitCode, exitCode) << label << ": " << r.err;
  EXPECT_EQ(r.err.rfind("veltrisca: ", 0), 0u) << label << ": " << r.err;
  EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << label << ": not one line: " << r.err;
  EXPECT_NE(r.err.find(mentions), std::string::npos) << label << ": " << r.err;
  EXPECT_TRUE(r.out.empty()) << label << ": " << r.out;
}

// The message of the CliError that call(args...) throws, with its exit code checked.
template <typename Call, typename... A>
std::string Refusal(int exitCode, Call call, const A&... args) {
  try {
    call(args...);
  } catch (const veltrisca::CliError& e) {
    EXPECT_EQ(e.exitCode(), exitCode) << e.what();
    return e.what();
  }
  ADD_FAILURE() << "nothing was refused";
  return "";
}

// Everything under a folder: relative path -> what it is (a file by its size and a hash).
using Snapshot = std::map<std::string, std::string>;
inline Snapshot Take(const fs::path& root) {
  Snapshot s;
  for (const auto& e : fs::recursive_directory_iterator(root)) {
    const std::string bytes = e.is_regular_file() ? Slurp(e.path()) : "";
    s[fs::relative(e.path(), root)] =
        e.is_symlink()        ? "link to " + fs::read_symlink(e.path()).string()
        : e.is_regular_file() ? std::to_string(bytes.size()) + " bytes, " +
                                    std::to_string(std::hash<std::string>{}(bytes))
        : e.is_directory() ? "folder"
                           : "special file";
  }
  return s;
}

// --- Images ----------------------------------------------------------------------------
struct Image {
  int width = 0, height = 0, channels = 0;
  OIIO::TypeDesc format;      // the file's sample type
  std::vector<float> pixels;  // as floats, for measuring
  std::vector<uint8_t> raw;   // in the file's own type, for exact comparisons
  OIIO::ImageSpec spec;
};

inline Image ReadImage(const std::string& path) {
  OIIO::ImageSpec config;
  config.attribute("oiio:UnassociatedAlpha", 1);
  auto in = OIIO::ImageInput::open(path, &config);
  if (!in) throw std::runtime_error("cannot open " + path + ": " + OIIO::geterror());
  Image im{in->spec().width, in->spec().height, in->spec().nchannels, in->spec().format, {}, {},
           in->spec()};
  const size_t n = size_t(im.width) * im.height * im.channels;
  im.pixels.resize(n);
  im.raw.resize(n * im.format.size());
  if (!in->read_image(0, 0, 0, im.channels, OIIO::TypeDesc::FLOAT, im.pixels.data()) ||
      !in->read_image(0, 0, 0, im.channels, im.format, im.raw.data())) {
    throw std::runtime_error("cannot read " + path + ": " + in->geterror());
  }
  return im;
}

// Writes `data` (interleaved samples of `dataType`) as `spec` says; 2 or 4 channels carry an
// unassociated alpha.
inline void WriteSpec(const std::string& path, OIIO::ImageSpec spec, OIIO::TypeDesc dataType,
                      const void* data) {
  auto out = OIIO::ImageOutput::create(path);
  if (spec.nchannels == 2 || spec.nchannels == 4) spec.attribute("oiio:UnassociatedAlpha", 1);
  if (!out || !out->open(path, spec) || !out->write_image(dataType, data) || !out->close()) {
    throw std::runtime_error("cannot write " + path + ": " + OIIO::geterror());
  }
}

inline void WriteImage(const std::string& path, int width, int height, int channels,
                       OIIO::TypeDesc fileType, OIIO::TypeDesc dataType, const void* data,
                       const std::map<std::string, std::string>& attributes = {}) {
  OIIO::ImageSpec spec(width, height, channels, fileType);
  for (const auto& a : attributes) spec.attribute(a.first, a.second);
  WriteSpec(path, spec, dataType, data);
}

// Deterministic pseudo-random words (xorshift) and bytes.
inline std::vector<uint32_t> Noise(size_t n, uint32_t seed) {
  std::vector<uint32_t> v(n);
  for (auto& e : v) {
    seed ^= seed << 13;
    seed ^= seed >> 17;
    seed ^= seed << 5;
    e = seed;
  }
  return v;
}

inline std::vector<uint8_t> NoiseBytes(size_t n, uint32_t seed) {
  const auto x = Noise(n, seed);
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(x[i] >> 24);
  return v;
}

// A 16-bit file sample after the host's 0..32768 range and back, in long double.
inline uint16_t Through16BitHost(long double v) {
  const long double host = std::floor(v * 32768.0L / 65535.0L + 0.5L);
  return static_cast<uint16_t>(std::floor(host * 65535.0L / 32768.0L + 0.5L));
}

}  // namespace vt_cli_test

#endif
