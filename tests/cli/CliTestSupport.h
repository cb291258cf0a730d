// Helpers for the veltrisca tests: running the built program, scratch folders, a minimal JSON
// reader (independent of the tool's writer) and image files through OpenImageIO.
#ifndef VT_TESTS_CLI_CLITESTSUPPORT_H
#define VT_TESTS_CLI_CLITESTSUPPORT_H

#include <OpenImageIO/imageio.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace vt_cli_test {

namespace fs = std::filesystem;

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
  std::vector<std::string> Entries() const {
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(path_)) names.push_back(e.path().filename());
    return names;
  }

 private:
  fs::path path_;
};

struct RunResult {
  int exitCode = -1;
  std::string out;
  std::string err;
};

inline std::string ShellQuote(const std::string& s) {
  std::string q = "'";
  for (char c : s) q += (c == '\'') ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

inline std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

// Runs the built veltrisca with the plug-in that was built beside it.
inline RunResult RunVeltrisca(const std::vector<std::string>& args) {
  static int counter = 0;
  const std::string base = (fs::path(::testing::TempDir()) /
                            ("vt_cli_run_" + std::to_string(getpid()) + "_" +
                             std::to_string(counter++)))
                               .string();
  std::string cmd = ShellQuote(VT_CLI_PATH) + " --plugin " + ShellQuote(VT_EFFECT_PATH);
  for (const auto& a : args) cmd += " " + ShellQuote(a);
  cmd += " >" + ShellQuote(base + ".out") + " 2>" + ShellQuote(base + ".err");
  const int status = std::system(cmd.c_str());
  RunResult r;
  r.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  r.out = Slurp(base + ".out");
  r.err = Slurp(base + ".err");
  std::remove((base + ".out").c_str());
  std::remove((base + ".err").c_str());
  return r;
}

// --- JSON ------------------------------------------------------------------------------
// Enough of JSON for the tool's output: objects, arrays, strings with escapes, numbers (kept
// as their text, so that the test decides how to read them), null.
struct JsonValue {
  enum Kind { kNull, kNumber, kString, kArray, kObject } kind = kNull;
  std::string text;  // number token or string contents
  std::vector<JsonValue> items;
  std::map<std::string, JsonValue> members;

  double Number() const { return std::strtod(Token().c_str(), nullptr); }
  float Float() const { return std::strtof(Token().c_str(), nullptr); }
  const JsonValue& operator[](const std::string& key) const {
    auto it = members.find(key);
    if (it == members.end()) throw std::runtime_error("missing key " + key);
    return it->second;
  }
  std::vector<long long> Ints() const {
    std::vector<long long> v;
    for (const auto& i : items) v.push_back(std::stoll(i.Token()));
    return v;
  }
  const std::string& Token() const {
    if (kind != kNumber) throw std::runtime_error("not a number: " + text);
    return text;
  }
};

class JsonReader {
 public:
  explicit JsonReader(const std::string& text) : s_(text) {}
  JsonValue Document() {
    JsonValue v = Value();
    if (Peek() != '\0') Fail("trailing text");
    return v;
  }

 private:
  [[noreturn]] void Fail(const std::string& what) {
    throw std::runtime_error("JSON: " + what + " at offset " + std::to_string(i_));
  }
  char Peek() {  // next non-blank character, '\0' at the end
    while (i_ < s_.size() && std::isspace(static_cast<unsigned char>(s_[i_]))) ++i_;
    return i_ < s_.size() ? s_[i_] : '\0';
  }
  void Expect(char c) {
    if (Peek() != c) Fail(std::string("expected ") + c);
    ++i_;
  }
  std::string String() {
    Expect('"');
    std::string out;
    for (;;) {
      if (i_ >= s_.size()) Fail("unterminated string");
      char c = s_[i_++];
      if (c == '"') return out;
      if (static_cast<unsigned char>(c) < 0x20) Fail("raw control character in string");
      if (c == '\\') {
        const char e = i_ < s_.size() ? s_[i_++] : '\0';
        const std::string from = "nrtbf\"\\/", to = "\n\r\t\b\f\"\\/";
        if (e == 'u') {
          c = static_cast<char>(std::stoi(s_.substr(i_, 4), nullptr, 16));
          i_ += 4;
        } else if (from.find(e) != std::string::npos) {
          c = to[from.find(e)];
        } else {
          Fail("bad escape");
        }
      }
      out += c;
    }
  }
  JsonValue Value() {
    JsonValue v;
    const char c = Peek();
    if (c == '{' || c == '[') {
      v.kind = c == '{' ? JsonValue::kObject : JsonValue::kArray;
      const char close = c == '{' ? '}' : ']';
      ++i_;
      if (Peek() == close) { ++i_; return v; }
      for (;;) {
        if (v.kind == JsonValue::kObject) {
          const std::string key = String();
          if (v.members.count(key)) Fail("duplicate key " + key);
          Expect(':');
          v.members[key] = Value();
        } else {
          v.items.push_back(Value());
        }
        if (Peek() == ',') { ++i_; continue; }
        Expect(close);
        return v;
      }
    }
    if (c == '"') {
      v.kind = JsonValue::kString;
      v.text = String();
      return v;
    }
    if (s_.compare(i_, 4, "null") == 0) { i_ += 4; return v; }
    // A number, by the JSON grammar: -?(0|[1-9][0-9]*)(.[0-9]+)?([eE][+-]?[0-9]+)?
    const size_t start = i_;
    auto digits = [&] {
      const size_t d = i_;
      while (i_ < s_.size() && std::isdigit(static_cast<unsigned char>(s_[i_]))) ++i_;
      if (i_ == d) Fail("expected a value");
    };
    if (s_[i_] == '-') ++i_;
    if (i_ < s_.size() && s_[i_] == '0') ++i_; else digits();
    if (i_ < s_.size() && s_[i_] == '.') { ++i_; digits(); }
    if (i_ < s_.size() && (s_[i_] == 'e' || s_[i_] == 'E')) {
      ++i_;
      if (i_ < s_.size() && (s_[i_] == '+' || s_[i_] == '-')) ++i_;
      digits();
    }
    v.kind = JsonValue::kNumber;
    v.text = s_.substr(start, i_ - start);
    return v;
  }

  const std::string& s_;
  size_t i_ = 0;
};

inline JsonValue ParseJson(const std::string& text) { return JsonReader(text).Document(); }

// --- Images ----------------------------------------------------------------------------
struct Image {
  int width = 0, height = 0, channels = 0;
  OIIO::TypeDesc format;         // the file's sample type
  std::vector<float> pixels;     // as floats, for measuring
  std::vector<uint8_t> raw;      // in the file's own type, for exact comparisons
  OIIO::ImageSpec spec;
};

inline Image ReadImage(const std::string& path) {
  OIIO::ImageSpec config;
  config.attribute("oiio:UnassociatedAlpha", 1);
  auto in = OIIO::ImageInput::open(path, &config);
  if (!in) throw std::runtime_error("cannot open " + path + ": " + OIIO::geterror());
  Image im;
  im.spec = in->spec();
  im.width = im.spec.width;
  im.height = im.spec.height;
  im.channels = im.spec.nchannels;
  im.format = im.spec.format;
  const size_t n = size_t(im.width) * im.height * im.channels;
  im.pixels.resize(n);
  im.raw.resize(n * im.format.size());
  if (!in->read_image(0, 0, 0, im.channels, OIIO::TypeDesc::FLOAT, im.pixels.data()) ||
      !in->read_image(0, 0, 0, im.channels, im.format, im.raw.data())) {
    throw std::runtime_error("cannot read " + path + ": " + in->geterror());
  }
  return im;
}

// Writes samples given in `type` (data interleaved, channels per pixel).
inline void WriteImage(const std::string& path, int width, int height, int channels,
                       OIIO::TypeDesc fileType, OIIO::TypeDesc dataType, const void* data,
                       const std::map<std::string, std::string>& attributes = {}) {
  auto out = OIIO::ImageOutput::create(path);
  if (!out) throw std::runtime_error("no writer for " + path);
  OIIO::ImageSpec spec(width, height, channels, fileType);
  for (const auto& a : attributes) spec.attribute(a.first, a.second);
  if (channels == 2 || channels == 4) {
    spec.attribute("oiio:UnassociatedAlpha", 1);
  }
  if (!out->open(path, spec) || !out->write_image(dataType, data) || !out->close()) {
    throw std::runtime_error("cannot write " + path + ": " + out->geterror());
  }
}

// Deterministic pseudo-random bytes (xorshift).
inline std::vector<uint32_t> Noise(size_t n, uint32_t seed) {
  std::vector<uint32_t> v(n);
  uint32_t x = seed ? seed : 1;
  for (auto& e : v) {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    e = x;
  }
  return v;
}

}  // namespace vt_cli_test

#endif
