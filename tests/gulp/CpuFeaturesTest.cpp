// Processor feature detection: the bit mapping, family and model decoding, the once-only
// first call, agreement with what the compiler and the kernel report, and racing first calls.
#include "GulpTestSupport.h"

namespace {

constexpr uint32_t Bit(int n) { return 1u << n; }

TEST(CpuFeatureWord, BitsFamilyAndModelFromCpuidRegisters) {
  const struct { int ecxBit; int32_t flag; } leaf1[] = {
      {19, 0x01}, {20, 0x02}, {0, 0x04}, {9, 0x08}, {29, 0x10}, {28, 0x20}, {12, 0x80}};
  uint32_t others = ~0u;
  for (const auto& f : leaf1) {
    EXPECT_EQ(CpuFeatureBits(Bit(f.ecxBit), 0), f.flag) << "ECX bit " << f.ecxBit;
    others &= ~Bit(f.ecxBit);
  }
  EXPECT_EQ(CpuFeatureBits(0, Bit(5)), 0x40);
  EXPECT_EQ(CpuFeatureBits(others, ~Bit(5)), 0);  // no other register bit counts
  EXPECT_EQ(CpuFeatureBits(~others, Bit(5)), 0xFF);

  // Family and model from leaf 1 EAX.
  const struct { uint32_t eax; int32_t family, model; } cases[] = {
      {0x000906EAu, 6, 0x9E},     // family 6: extended model counts
      {0x00870F10u, 0x17, 0x71},  // family 15: extended family added, extended model counts
      {0x00B00F21u, 0x1A, 0x02},
      {0x00010543u, 5, 4},        // other families ignore the extended fields
      {0x0FF00F00u, 0x10E, 0},
  };
  for (const auto& c : cases) {
    int32_t family = -1, model = -1;
    CpuFamilyModel(c.eax, &family, &model);
    EXPECT_TRUE(family == c.family && model == c.model)
        << std::hex << c.eax << ": " << family << ", " << model;
  }
}

// The value of a field of /proc/cpuinfo ("cpu family", "model", ...), empty when missing.
std::string CpuinfoField(const std::string& name) {
  std::ifstream in("/proc/cpuinfo");
  for (std::string line; std::getline(in, line);) {
    const size_t colon = line.find(':');
    if (line.compare(0, name.size(), name) == 0 && line.find_first_not_of(" \t", name.size()) == colon)
      return line.substr(line.find_first_not_of(" \t", colon + 1));
  }
  return "";
}

// Detection restarts from scratch in each test and the detected state is left behind.
// Returns the detection state to "never checked", as a fresh process has it.
void ResetCpuFeatures() {
  cpu_features.store(0);
  cpu_family.store(0);
  cpu_model.store(0);
  checked_cpu.store(0);
}

class CpuDetection : public ::testing::Test {
 protected:
  void SetUp() override { ResetCpuFeatures(); }
  void TearDown() override {
    ResetCpuFeatures();
    CheckCPUFeatures();
  }
};

TEST_F(CpuDetection, AgreesWithCompilerAndKernel) {
  EXPECT_EQ(cpu_features.load(), 0);  // nothing before the first call
  CheckCPUFeatures();
  const int32_t word = cpu_features.load();
  EXPECT_EQ(checked_cpu.load(), 1);
  __builtin_cpu_init();
  EXPECT_EQ((word & kCpuSSE3) != 0, __builtin_cpu_supports("sse3") != 0);
  EXPECT_EQ((word & kCpuSSSE3) != 0, __builtin_cpu_supports("ssse3") != 0);
  EXPECT_EQ((word & kCpuSSE41) != 0, __builtin_cpu_supports("sse4.1") != 0);
  EXPECT_EQ((word & kCpuSSE42) != 0, __builtin_cpu_supports("sse4.2") != 0);
  // The compiler's check also asks whether the OS saves the wide registers, which the word
  // does not: a feature it reports must be in the word, not conversely.
  EXPECT_TRUE(!__builtin_cpu_supports("avx") || (word & kCpuAVX));
  EXPECT_TRUE(!__builtin_cpu_supports("avx2") || (word & kCpuAVX2));
  EXPECT_TRUE(!__builtin_cpu_supports("fma") || (word & kCpuFMA));
  EXPECT_TRUE(!__builtin_cpu_supports("f16c") || (word & kCpuF16C));
  EXPECT_EQ(cpu_family.load(), std::stoi(CpuinfoField("cpu family")));
  EXPECT_EQ(cpu_model.load(), std::stoi(CpuinfoField("model")));

  int eax = 0, regs[3] = {};  // leaf 0: the vendor string in EBX, EDX, ECX
  myCpuid(0, 0, &eax, &regs[0], &regs[2], &regs[1]);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(regs), 12), CpuinfoField("vendor_id"));
}

TEST_F(CpuDetection, SecondCallChangesNothing) {
  CheckCPUFeatures();
  const int32_t family = cpu_family.load(), model = cpu_model.load();
  const int32_t marked = cpu_features.load() | 0x100;  // a bit detection never sets
  cpu_features.store(marked);
  CheckCPUFeatures();
  EXPECT_TRUE(cpu_features.load() == marked && cpu_family.load() == family && cpu_model.load() == model);
}

// Two threads race a first call while a third watches the word: it may see 0 or the whole
// word, never a word still being put together. A word stored bit by bit shows within a few
// dozen rounds, even on a busy machine.
TEST_F(CpuDetection, RacingFirstCallsNeverShowAPartialWord) {
  CheckCPUFeatures();
  const int32_t full = cpu_features.load();
  for (int round = 0; round < 80; ++round) {
    ResetCpuFeatures();
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
      while (ready.load() < 3) {}
      CheckCPUFeatures();
    };
    std::thread first(caller), second(caller);
    first.join();
    second.join();
    done.store(true);
    watcher.join();
    ASSERT_EQ(partial, 0) << "round " << round << " saw " << std::hex << partial;
    ASSERT_EQ(cpu_features.load(), full) << "round " << round;
  }
}

}  // namespace
