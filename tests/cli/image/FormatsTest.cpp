// 16-bit sample conversion and the JSON number and string forms.

#include "../CliTestSupport.h"
#include "cli/image/ImageIO.h"
#include "cli/shared/Json.h"

namespace veltrisca {
namespace {

// File 0..65535 to host 0..32768 and back: round(v * 32768 / 65535) and round(h * 65535 /
// 32768), halves up (in long double), beyond the host's white clamped. Host values survive the
// file; file values move at most one.
TEST(SixteenBit, ConversionsRoundToNearestForEveryValue) {
  for (int v = 0; v <= 65535; ++v) {
    ASSERT_EQ(FileToHost16(v), std::floor(v * 32768.0L / 65535.0L + 0.5L)) << v;
    ASSERT_LE(std::abs(HostToFile16(FileToHost16(v)) - v), 1) << v;
  }
  for (int h = 0; h <= 32768; ++h) {
    ASSERT_EQ(HostToFile16(h), std::floor(h * 65535.0L / 32768.0L + 0.5L)) << h;
    ASSERT_EQ(FileToHost16(HostToFile16(h)), h);
  }
  EXPECT_EQ(FileToHost16(1), 1);          // 0.50001: just above half
  EXPECT_EQ(HostToFile16(16384), 32768);  // exactly 32767.5: the half goes up
  EXPECT_EQ(HostToFile16(40000), 65535);
}

TEST(JsonNumbers, ReadBackExactlyAndNonFiniteValuesBecomeNamedStrings) {
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
  EXPECT_EQ(JsonFloat(INFINITY), "\"Infinity\"");
  EXPECT_EQ(JsonFloat(-INFINITY), "\"-Infinity\"");
  EXPECT_EQ(JsonFloat(NAN), "\"NaN\"");
  EXPECT_EQ(JsonDouble(-INFINITY), "\"-Infinity\"");
}

TEST(JsonStrings, EscapeWhatJsonForbids) {
  const std::string raw = std::string("Veltrisca 1.2\r\r\"q\" \\ \t") + '\x01';
  const std::string quoted = JsonString(raw);
  EXPECT_EQ(quoted, "\"Veltrisca 1.2\\r\\r\\\"q\\\" \\\\ \\t\\u0001\"");
  EXPECT_EQ(vt_cli_test::Json::parse(quoted).get<std::string>(), raw);
}

}  // namespace
}  // namespace veltrisca
