// Processor feature detection: the bit mapping, family and model decoding, the once-only
// first call, agreement with what the compiler and the kernel report, and racing first calls.
#include <atomic>
#include <fstream>
#include <sstream>
#include <thread>

#include "GulpTestSupport.h"

namespace {

constexpr uint32_t Bit(int n) { return 1u << n; }

TEST(CpuFeatureWord, BitsFromCpuidRegisters) {
  const uint32_t sseFamily = Bit(0) | Bit(9) | Bit(19) | Bit(20);
  EXPECT_EQ(CpuFeatureBits(sseFamily, 0), 0x0F);
  EXPECT_EQ(CpuFeatureBits(sseFamily | Bit(12) | Bit(28) | Bit(29), Bit(5)), 0xFF);

  const struct {
    int ecxBit;
    int32_t flag;
  } leaf1[] = {{19, 0x01}, {20, 0x02}, {0, 0x04}, {9, 0x08}, {29, 0x10}, {28, 0x20}, {12, 0x80}};
  uint32_t others = ~0u;
  for (const auto& f : leaf1) {
    EXPECT_EQ(CpuFeatureBits(Bit(f.ecxBit), 0), f.flag) << "ECX bit " << f.ecxBit;
    others &= ~Bit(f.ecxBit);
  }
  EXPECT_EQ(CpuFeatureBits(others, ~Bit(5)), 0);  // no other register bit counts
  EXPECT_EQ(CpuFeatureBits(0, Bit(5)), 0x40);
}

TEST(CpuFeatureWord, FamilyAndModelDecoding) {
  struct Case {
    uint32_t eax;
    int32_t family, model;
  } cases[] = {
      {0x000906EAu, 6, 0x9E},        // family 6: extended model counts
      {0x00870F10u, 0x17, 0x71},     // family 15: extended family added, extended model counts
      {0x00A20F12u, 0x19, 0x21},
      {0x00B00F21u, 0x1A, 0x02},
      {0x00010543u, 5, 4},           // other families ignore the extended fields
      {0x0FF00F00u, 0x10E, 0},
  };
  for (const Case& c : cases) {
    int32_t family = -1, model = -1;
    CpuFamilyModel(c.eax, &family, &model);
    EXPECT_EQ(family, c.family) << std::hex << c.eax;
    EXPECT_EQ(model, c.model) << std::hex << c.eax;
  }
}

std::string CpuinfoField(const std::string& name) {
  std::ifstream in("/proc/cpuinfo");
  std::string line;
  while (std::getline(in, line)) {
    const size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    std::string key = line.substr(0, colon);
    key.erase(key.find_last_not_of(" \t") + 1);
    if (key == name) return line.substr(line.find_first_not_of(" \t", colon + 1));
  }
  return "";
}

// Detection restarts from scratch in each test and the detected state is left behind.
class CpuDetection : public ::testing::Test {
 protected:
  void SetUp() override { ResetCpuFeaturesForTesting(); }
  void TearDown() override {
    ResetCpuFeaturesForTesting();
    CheckCPUFeatures();
  }
};

TEST_F(CpuDetection, BeforeTheFirstCallTheWordIsZeroAndRoundingStillWorks) {
  EXPECT_EQ(cpu_features.load(), 0);
  EXPECT_EQ(checked_cpu.load(), 0);
  FGulp a, r, ipart;
  SetRun(a, {2.5f, -1.25f});
  r.round(a);
  EXPECT_EQ(r[0], 2.0f);
  r.modf(a, ipart);
  EXPECT_EQ(r[1], 0.75f);
  EXPECT_EQ(ipart[1], -2.0f);
}

TEST_F(CpuDetection, AgreesWithCompilerAndKernel) {
  CheckCPUFeatures();
  const int32_t word = cpu_features.load();
  EXPECT_EQ(checked_cpu.load(), 1);
  EXPECT_TRUE(word & kCpuSSE41);
  __builtin_cpu_init();
  EXPECT_EQ((word & kCpuSSE3) != 0, __builtin_cpu_supports("sse3") != 0);
  EXPECT_EQ((word & kCpuSSSE3) != 0, __builtin_cpu_supports("ssse3") != 0);
  EXPECT_EQ((word & kCpuSSE41) != 0, __builtin_cpu_supports("sse4.1") != 0);
  EXPECT_EQ((word & kCpuSSE42) != 0, __builtin_cpu_supports("sse4.2") != 0);
  // The compiler's run-time check also asks whether the OS saves the wide registers, which
  // the feature word does not: a feature it reports must be in the word, not conversely.
  EXPECT_TRUE(!__builtin_cpu_supports("avx") || (word & kCpuAVX));
  EXPECT_TRUE(!__builtin_cpu_supports("avx2") || (word & kCpuAVX2));
  EXPECT_TRUE(!__builtin_cpu_supports("fma") || (word & kCpuFMA));
  EXPECT_TRUE(!__builtin_cpu_supports("f16c") || (word & kCpuF16C));

  const std::string family = CpuinfoField("cpu family"), model = CpuinfoField("model");
  ASSERT_FALSE(family.empty());
  ASSERT_FALSE(model.empty());
  EXPECT_EQ(cpu_family.load(), std::stoi(family));
  EXPECT_EQ(cpu_model.load(), std::stoi(model));
}

TEST_F(CpuDetection, MyCpuidReadsTheVendorString) {
  int eax = 0, ebx = 0, ecx = 0, edx = 0;
  myCpuid(0, 0, &eax, &ebx, &ecx, &edx);
  char vendor[13] = {};
  std::memcpy(vendor, &ebx, 4);
  std::memcpy(vendor + 4, &edx, 4);
  std::memcpy(vendor + 8, &ecx, 4);
  EXPECT_EQ(std::string(vendor), CpuinfoField("vendor_id"));
  EXPECT_GE(eax, 1);  // highest basic leaf
}

TEST_F(CpuDetection, SecondCallChangesNothing) {
  CheckCPUFeatures();
  const int32_t family = cpu_family.load(), model = cpu_model.load();
  const int32_t marked = cpu_features.load() | 0x100;  // a bit detection never sets
  cpu_features.store(marked);
  CheckCPUFeatures();
  EXPECT_EQ(cpu_features.load(), marked);
  EXPECT_EQ(cpu_family.load(), family);
  EXPECT_EQ(cpu_model.load(), model);
  EXPECT_EQ(checked_cpu.load(), 1);
}

// Two threads race a first call while a third watches the word: it may see 0 or the whole
// word, never a word still being put together.
TEST_F(CpuDetection, RacingFirstCallsNeverShowAPartialWord) {
  CheckCPUFeatures();
  const int32_t full = cpu_features.load();
  for (int round = 0; round < 500; ++round) {
    ResetCpuFeaturesForTesting();
    std::atomic<int> ready{0};
    std::atomic<bool> done{false};
    int32_t partial = 0;
    std::thread watcher([&] {
      ready.fetch_add(1);
      while (!done.load()) {
        const int32_t seen = cpu_features.load(std::memory_order_relaxed);
        if (seen != 0 && seen != full) partial = seen;
      }
    });
    auto caller = [&] {
      ready.fetch_add(1);
      while (ready.load() < 3) {
      }
      CheckCPUFeatures();
    };
    std::thread first(caller), second(caller);
    first.join();
    second.join();
    done.store(true);
    watcher.join();
    ASSERT_EQ(partial, 0) << "round " << round << " saw " << std::hex << partial;
    ASSERT_EQ(cpu_features.load(), full) << "round " << round;
    ASSERT_EQ(checked_cpu.load(), 1);
  }
}

}  // namespace
