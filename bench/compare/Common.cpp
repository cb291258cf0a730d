#include "Common.h"

#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace compare {

namespace {

uint32_t Hash(uint32_t v) {
  v ^= v >> 16;
  v *= 0x7feb352dU;
  v ^= v >> 15;
  v *= 0x846ca68bU;
  v ^= v >> 16;
  return v;
}

}  // namespace

float PatternValue(int x, int y, int channel, int width, int height) {
  const float fx = width > 1 ? static_cast<float>(x) / (width - 1) : 0.0f;
  const float fy = height > 1 ? static_cast<float>(y) / (height - 1) : 0.0f;
  const uint32_t noiseBits = Hash(static_cast<uint32_t>(x) * 73856093U ^
                                  static_cast<uint32_t>(y) * 19349663U ^
                                  static_cast<uint32_t>(channel) * 83492791U);
  const float noise = static_cast<float>(noiseBits & 0xFF) * (0.08f / 255.0f) - 0.04f;
  const int cell = std::max(8, height / 24);
  const bool gridLine = (x % cell) < 2 || (y % cell) < 2;
  float v;
  switch (channel) {
    case 0: v = fx; break;
    case 1: v = fy; break;
    case 2: v = 0.5f + 0.5f * std::sin(0.05f * static_cast<float>(x + y)); break;
    default: v = 1.0f - 0.25f * fx * fy; break;  // alpha
  }
  if (channel < 3 && gridLine) v = 1.0f - v;
  if (channel < 3) v += noise;
  return std::min(1.0f, std::max(0.0f, v));
}

double NowSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

int FramesFor(double warmupSeconds, double minSeconds, int maxFrames) {
  if (!(warmupSeconds > 0.0)) return maxFrames;
  const double frames = std::ceil(minSeconds / warmupSeconds);
  return static_cast<int>(std::max(1.0, std::min(static_cast<double>(maxFrames), frames)));
}

void PrintResult(const std::string& tool, const std::string& filter, const std::string& cls,
                 const std::string& mode, const std::string& depth, int threads, int width,
                 int height, const std::string& metric, double secondsPerFrame) {
  std::printf("%s\t%s\t%s\t%s\t%s\t%d\t%dx%d\t%s\t%.9f\n", tool.c_str(), filter.c_str(),
              cls.c_str(), mode.c_str(), depth.c_str(), threads, width, height, metric.c_str(),
              secondsPerFrame);
  std::fflush(stdout);
}

void PrintNotAvailable(const std::string& tool, const std::string& filter,
                       const std::string& cls, const std::string& mode, const std::string& depth,
                       int threads, int width, int height, const std::string& reason) {
  std::string oneLine = reason;
  for (char& c : oneLine) {
    if (c == '\t' || c == '\n' || c == '\r') c = ' ';
  }
  std::printf("%s\t%s\t%s\t%s\t%s\t%d\t%dx%d\tn/a\t%s\n", tool.c_str(), filter.c_str(),
              cls.c_str(), mode.c_str(), depth.c_str(), threads, width, height, oneLine.c_str());
  std::fflush(stdout);
}

std::vector<std::string> SplitList(const std::string& text) {
  std::vector<std::string> items;
  std::stringstream stream(text);
  std::string item;
  while (std::getline(stream, item, ',')) {
    if (!item.empty()) items.push_back(item);
  }
  return items;
}

bool ParseCommonOptions(int argc, char** argv, CommonOptions* options) {
  for (int i = 1; i < argc; ++i) {
    const std::string name = argv[i];
    if (i + 1 >= argc) {
      std::fprintf(stderr, "%s: missing value\n", name.c_str());
      return false;
    }
    const std::string value = argv[++i];
    if (name == "--size") {
      if (std::sscanf(value.c_str(), "%dx%d", &options->width, &options->height) != 2 ||
          options->width <= 0 || options->height <= 0) {
        std::fprintf(stderr, "--size: expected WxH, got %s\n", value.c_str());
        return false;
      }
    } else if (name == "--depths") {
      options->depths = SplitList(value);
    } else if (name == "--modes") {
      options->modes = SplitList(value);
    } else if (name == "--filters") {
      options->filters = SplitList(value);
    } else if (name == "--threads") {
      options->threads.clear();
      for (const std::string& t : SplitList(value)) options->threads.push_back(std::atoi(t.c_str()));
    } else if (name == "--min-time") {
      options->minSeconds = std::atof(value.c_str());
    } else if (name == "--plugin") {
      options->plugin = value;
    } else if (name == "--description") {
      options->description = value;
    } else {
      std::fprintf(stderr, "unknown option %s\n", name.c_str());
      return false;
    }
  }
  return true;
}

void KeepLargeBlocksMapped() {
  mallopt(M_MMAP_MAX, 0);  // large blocks come from the heap and are reused after free
  mallopt(M_TRIM_THRESHOLD, -1);
}

}  // namespace compare
