// The memory-bandwidth floor: a plain copy of a frame's bytes (W x H RGBA pixels of the
// depth) into a second buffer, on 1 or more threads (each copies its share of the bytes).
//
//   compare_copy --size 3840x2160 [--depths 8,16,float] [--threads 1,2] [--min-time S]
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "Common.h"

int main(int argc, char** argv) {
  compare::KeepLargeBlocksMapped();
  compare::CommonOptions options;
  if (!compare::ParseCommonOptions(argc, argv, &options)) return 2;
  const int width = options.width, height = options.height;
  for (const std::string& depth : options.depths) {
    const size_t pixelBytes = depth == "8" ? 4 : depth == "16" ? 8 : 16;
    const size_t bytes = pixelBytes * width * height;
    std::vector<unsigned char> source(bytes), target(bytes);
    for (size_t i = 0; i < bytes; ++i) source[i] = static_cast<unsigned char>(i * 131u >> 3);
    for (int threads : options.threads) {
      // `frames` copies of the frame; with several threads each copies its share of the
      // bytes that many times (started once, so that thread start-up is not timed per frame).
      auto copyFrames = [&](int frames) {
        if (threads <= 1) {
          for (int i = 0; i < frames; ++i) std::memcpy(target.data(), source.data(), bytes);
          return;
        }
        std::vector<std::thread> workers;
        for (int t = 0; t < threads; ++t) {
          const size_t begin = bytes * t / threads, end = bytes * (t + 1) / threads;
          workers.emplace_back([&, begin, end] {
            for (int i = 0; i < frames; ++i) {
              std::memcpy(target.data() + begin, source.data() + begin, end - begin);
            }
          });
        }
        for (std::thread& w : workers) w.join();
      };
      const double w0 = compare::NowSeconds();
      copyFrames(1);
      const int frames =
          compare::FramesFor(compare::NowSeconds() - w0, options.minSeconds, 1000);
      const double t0 = compare::NowSeconds();
      copyFrames(frames);
      const double perFrame = (compare::NowSeconds() - t0) / frames;
      compare::PrintResult("copy", "memcpy", "copy", "-", depth, threads, width, height, "total",
                           perFrame);
    }
  }
  return 0;
}
