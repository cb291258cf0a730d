// Replays every kept fuzz input (fuzz/corpus) and every input the fuzzer ever failed on
// (fuzz/regressions) through the fuzz harness, under whatever compiler and sanitizers this
// build uses. A crash or sanitizer report ends the program; a failed harness check fails the
// test of that file.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz/FuzzHarness.h"

namespace {

namespace fs = std::filesystem;

std::vector<std::string> InputFiles() {
  std::vector<std::string> files;
  for (const char* dir : {"corpus", "regressions"}) {
    const fs::path path = fs::path(VT_SOURCE_DIR) / "fuzz" / dir;
    if (!fs::is_directory(path)) continue;
    for (const fs::directory_entry& entry : fs::directory_iterator(path)) {
      const std::string name = entry.path().filename().string();
      if (entry.is_regular_file() && name[0] != '.') files.push_back(entry.path().string());
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

std::vector<uint8_t> ReadBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

// A moved or emptied corpus would otherwise leave this program with nothing to run.
TEST(FuzzReplay, CorpusIsPresent) {
  const std::vector<std::string> files = InputFiles();
  const auto inCorpus = std::count_if(files.begin(), files.end(), [](const std::string& f) {
    return fs::path(f).parent_path().filename() == "corpus";
  });
  EXPECT_GE(inCorpus, 10);
}

class FuzzReplayFile : public ::testing::TestWithParam<std::string> {};

TEST_P(FuzzReplayFile, PassesEveryHarnessCheck) {
  const std::vector<uint8_t> bytes = ReadBytes(GetParam());
  const std::string failure = vtfuzz::RunOneInput(bytes.data(), bytes.size());
  EXPECT_EQ(failure, "") << "input " << GetParam() << ": "
                         << vtfuzz::DescribeInput(bytes.data(), bytes.size());
}

std::string TestName(const ::testing::TestParamInfo<std::string>& info) {
  const fs::path path(info.param);
  std::string name = path.parent_path().filename().string() + "_" + path.filename().string();
  for (char& ch : name) {
    if (!std::isalnum(static_cast<unsigned char>(ch))) ch = '_';
  }
  return name;
}

INSTANTIATE_TEST_SUITE_P(Inputs, FuzzReplayFile, ::testing::ValuesIn(InputFiles()), TestName);

}  // namespace
