// libFuzzer entry: every input goes through the harness; a failed check aborts, so the
// fuzzer keeps the input as a crash just as it does for a sanitizer report.
#include <cstdio>
#include <cstdlib>

#include "fuzz/FuzzHarness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string failure = vtfuzz::RunOneInput(data, size);
  if (!failure.empty()) {
    std::fprintf(stderr, "check failed: %s\ninput: %s\n", failure.c_str(),
                 vtfuzz::DescribeInput(data, size).c_str());
    std::abort();
  }
  return 0;
}
