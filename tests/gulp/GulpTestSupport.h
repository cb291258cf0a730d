// Shared helpers for the run tests.
#ifndef VT_TESTS_GULP_SUPPORT_H
#define VT_TESTS_GULP_SUPPORT_H

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <limits>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "gulp/CpuFeatures.h"
#include "gulp/FGulp.h"

const float kNaN = std::numeric_limits<float>::quiet_NaN();
const float kInf = std::numeric_limits<float>::infinity();

// Sets the feature word for one scope and restores it afterwards.
class ScopedFeatureWord {
 public:
  explicit ScopedFeatureWord(int32_t word) : saved_(cpu_features.load()) {
    cpu_features.store(word);
  }
  ~ScopedFeatureWord() { cpu_features.store(saved_); }
  ScopedFeatureWord(const ScopedFeatureWord&) = delete;
  ScopedFeatureWord& operator=(const ScopedFeatureWord&) = delete;

 private:
  int32_t saved_;
};

// Fixture parameterised over the two rounding routes.
class BothRoutes : public ::testing::TestWithParam<int32_t> {
 protected:
  bool Instruction() const { return GetParam() == kCpuSSE41; }
  ScopedFeatureWord word_{GetParam()};
};

inline std::string RouteName(const ::testing::TestParamInfo<int32_t>& info) {
  return info.param == kCpuSSE41 ? "Instruction" : "Conversion";
}

#define VT_INSTANTIATE_BOTH_ROUTES(Suite) \
  INSTANTIATE_TEST_SUITE_P(Routes, Suite, ::testing::Values(0, kCpuSSE41), RouteName)

inline uint32_t Bits(float v) { uint32_t u; std::memcpy(&u, &v, sizeof u); return u; }

// Fills a run's whole storage with fill, then sets its first elements and its len.
inline void SetRun(FGulp& run, std::initializer_list<float> values, float fill = 0.0f) {
  for (float& slot : run.storage) slot = fill;
  run.len = static_cast<int32_t>(values.size());
  int k = 0;
  for (float v : values) run[k++] = v;
}

// Expects the first elements of run to be want: the same bits, or any NaN for a NaN.
inline void ExpectRun(const FGulp& run, std::initializer_list<float> want) {
  int k = 0;
  for (float w : want) {
    const bool same = std::isnan(w) ? std::isnan(run[k]) : Bits(run[k]) == Bits(w);
    EXPECT_TRUE(same) << "element " << k << " is " << run[k] << ", expected " << w;
    ++k;
  }
}

#endif  // VT_TESTS_GULP_SUPPORT_H
