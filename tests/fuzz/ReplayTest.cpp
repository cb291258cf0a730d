// Replays every kept fuzz input (fuzz/corpus) and every input the fuzzer ever failed on
// (fuzz/regressions) through the fuzz harness, under whatever compiler and sanitizers this
// build uses. A crash or sanitizer report ends the program; a failed harness check fails the
// test and names the input.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz/FuzzHarness.h"

namespace {

namespace fs = std::filesystem;

TEST(FuzzReplay, EveryKeptInputPassesEveryHarnessCheck) {
  std::vector<fs::path> files;  // in a fixed order
  for (const char* dir : {"corpus", "regressions"}) {
    const fs::path path = fs::path(VT_SOURCE_DIR) / "fuzz" / dir;
    if (!fs::is_directory(path)) continue;
    for (const fs::directory_entry& entry : fs::directory_iterator(path)) {
      if (entry.is_regular_file() && entry.path().filename().string()[0] != '.') {
        files.push_back(entry.path());
      }
    }
  }
  std::sort(files.begin(), files.end());
  int inCorpus = 0;
  for (const fs::path& file : files) {
    std::ifstream in(file, std::ios::binary);
    const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), {});
    EXPECT_EQ(vtfuzz::RunOneInput(bytes.data(), bytes.size()), "")
        << "input " << file << ": " << vtfuzz::DescribeInput(bytes.data(), bytes.size());
    inCorpus += file.parent_path().filename() == "corpus";
  }
  EXPECT_GE(inCorpus, 10);  // a moved or emptied corpus would leave nothing to replay
}

}  // namespace
