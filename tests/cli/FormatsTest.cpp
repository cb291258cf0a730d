// 16-bit sample conversion and the JSON number and string forms.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>

#include "CliTestSupport.h"
#include "cli/ImageIO.h"
#include "cli/Json.h"

namespace veltrisca {
namespace {

// round(v * 32768 / 65535), halves up, in long double.
long long FileToHostReference(long long v) {
  return static_cast<long long>(std::floor(v * 32768.0L / 65535.0L + 0.5L));
}
long long HostToFileReference(long long h) {
  return static_cast<long long>(std::floor(h * 65535.0L / 32768.0L + 0.5L));
}

TEST(SixteenBit, FileToHostRoundsToNearestForEveryValue) {
  for (long long v = 0; v <= 65535; ++v) {
    ASSERT_EQ(FileToHost16(static_cast<uint16_t>(v)), FileToHostReference(v)) << v;
  }
  EXPECT_EQ(FileToHost16(65535), 32768);
  EXPECT_EQ(FileToHost16(1), 1);  // 0.50001: just above half
}

TEST(SixteenBit, HostToFileRoundsToNearestForEveryValue) {
  for (long long h = 0; h <= 32768; ++h) {
    ASSERT_EQ(HostToFile16(static_cast<uint16_t>(h)), HostToFileReference(h)) << h;
  }
  EXPECT_EQ(HostToFile16(16384), 32768);  // exactly 32767.5: the half goes up
  EXPECT_EQ(HostToFile16(32768), 65535);
  EXPECT_EQ(HostToFile16(40000), 65535);  // beyond the host's white: clamped
}

TEST(SixteenBit, HostValuesSurviveTheFileAndFileValuesMoveAtMostOne) {
  for (int h = 0; h <= 32768; ++h) {
    ASSERT_EQ(FileToHost16(HostToFile16(static_cast<uint16_t>(h))), h);
  }
  for (int v = 0; v <= 65535; ++v) {
    ASSERT_LE(std::abs(HostToFile16(FileToHost16(static_cast<uint16_t>(v))) - v), 1) << v;
  }
}

TEST(JsonNumbers, ReadBackExactly) {
  const auto bits = vt_cli_test::Noise(20000, 12345);
  for (size_t i = 0; i < bits.size(); i += 2) {
    float f;
    std::memcpy(&f, &bits[i], sizeof f);
    if (!std::isfinite(f)) continue;
    ASSERT_EQ(std::strtof(JsonFloat(f).c_str(), nullptr), f) << JsonFloat(f);
    const uint64_t b = (uint64_t{bits[i]} << 32) | bits[i + 1];
    double d;
    std::memcpy(&d, &b, sizeof d);
    if (!std::isfinite(d)) continue;
    ASSERT_EQ(std::strtod(JsonDouble(d).c_str(), nullptr), d) << JsonDouble(d);
  }
  EXPECT_EQ(JsonFloat(0.1f), "0.100000001");
  EXPECT_EQ(JsonDouble(-50 * 0.001), "-0.05");
}

TEST(JsonNumbers, NonFiniteValuesBecomeNamedStrings) {
  EXPECT_EQ(JsonFloat(INFINITY), "\"Infinity\"");
  EXPECT_EQ(JsonFloat(-INFINITY), "\"-Infinity\"");
  EXPECT_EQ(JsonFloat(NAN), "\"NaN\"");
  EXPECT_EQ(JsonDouble(-INFINITY), "\"-Infinity\"");
}

TEST(JsonStrings, EscapeWhatJsonForbids) {
  const std::string raw = std::string("Veltrisca 1.2\r\r\"q\" \\ \t") + '\x01';
  const std::string quoted = JsonString(raw);
  EXPECT_EQ(quoted, "\"Veltrisca 1.2\\r\\r\\\"q\\\" \\\\ \\t\\u0001\"");
  EXPECT_EQ(vt_cli_test::ParseJson(quoted).text, raw);
}

}  // namespace
}  // namespace veltrisca
