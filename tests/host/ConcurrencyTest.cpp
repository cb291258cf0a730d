// The real plug-in rendered from several threads at once: two sequences side by side, the
// first renders of a freshly loaded plug-in racing to build its process-wide kernel tables
// and processor word, and the host's iterate on every thread of the machine and more. Every
// concurrent render must write the same bytes as the same render on one thread, and the
// ThreadSanitizer build must stay silent throughout.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "HostTestSupport.h"

namespace {

using hostsim::Depth;
using hostsim::Host;
using hostsim::PluginModule;
using hostsim::World;

// One effect instance: its layer's depth and the parameters it renders with.
struct Job {
  const char* name;
  Depth depth;
  int mode;    // 1 Remove, 2 Apply
  int filter;  // 1 Built-in .. 6 Mitchell-Netravali
  double distortion, cubic, quartic, zoom;
};

// Every filter, every depth and both directions, with lenses strong enough that rows read
// their input at fractional positions all over the layer.
const Job kJobs[] = {
    {"remove lanczos-3 float", Depth::kFloat, 1, 5, -60, 12, 0, 1.0},
    {"apply mitchell 16-bit", Depth::k16, 2, 6, 45, 0, -8, 1.1},
    {"remove lanczos-2 8-bit", Depth::k8, 1, 4, 35, -10, 4, 0.9},
    {"apply bilinear float", Depth::kFloat, 2, 3, -40, 0, 0, 1.0},
    {"remove nearest 16-bit", Depth::k16, 1, 2, -25, 5, 0, 1.2},
    {"apply built-in 8-bit", Depth::k8, 2, 1, 30, 0, 0, 1.0},
};

// 72 columns: one full run of 64 and a partial one.
constexpr int kWidth = 72;
constexpr int kHeight = 40;

// A pattern layer of the job's depth, the host of one sequence on it, and that sequence's
// renders of the whole layer.
struct Sequence {
  Sequence(const PluginModule& plugin, const Job& job, int threads, int height = kHeight)
      : job(job), layer(job.depth, kWidth, height), host(std::make_unique<Host>(plugin)) {
    hosttest::FillPattern(layer);
    host->SetInputLayer(&layer);
    host->threads = threads;
    hostsim::ParamValues& p = host->params;
    p.mode = job.mode;
    p.filter = job.filter;
    p.distortion = job.distortion;
    p.cubic = job.cubic;
    p.quartic = job.quartic;
    p.zoom = job.zoom;
    p.distortedWidth = p.undistortedWidth = kWidth;
    p.distortedHeight = p.undistortedHeight = height;
    setupError = host->GlobalSetup();
    if (setupError == PF_Err_NONE) setupError = host->ParamsSetup();
    if (setupError == PF_Err_NONE) setupError = host->SequenceSetup();
  }

  // Pre-render and render of the whole layer; the output's pixel bytes, or a line saying
  // what went wrong. Touches nothing but this sequence, so it may run on any thread.
  std::string Render(std::vector<uint8_t>* bytes) {
    if (setupError != PF_Err_NONE) return "setup returned " + std::to_string(setupError);
    PF_Err err = host->SmartPreRender(PF_LRect{0, 0, kWidth, layer.height()});
    if (err != PF_Err_NONE) return "pre-render returned " + std::to_string(err);
    std::unique_ptr<World> output;
    err = host->SmartRender(&output);
    if (err != PF_Err_NONE) return "render returned " + std::to_string(err);
    if (!output) return "render gave no output";
    *bytes = output->PackedBytes();
    return "";
  }

  const VtAFXLensData& lens() const { return hosttest::LensOf(*host); }

  Job job;
  World layer;
  std::unique_ptr<Host> host;
  PF_Err setupError = PF_Err_NONE;
};

// The job rendered on one thread by the plug-in every other test uses.
std::vector<uint8_t> SingleThreadedBytes(const Job& job, int height = kHeight) {
  Sequence sequence(hosttest::Plugin(), job, 1, height);
  std::vector<uint8_t> bytes;
  const std::string failure = sequence.Render(&bytes);
  EXPECT_EQ(failure, "") << job.name;
  // A render that wrote nothing but zeros would make every comparison below vacuous.
  EXPECT_TRUE(std::any_of(bytes.begin(), bytes.end(), [](uint8_t b) { return b != 0; }))
      << job.name;
  return bytes;
}

// Lets the threads that call Arrive() go on only when all `parties` have arrived, so that
// their first steps overlap as closely as the machine allows.
class StartLine {
 public:
  explicit StartLine(int parties) : waiting_(parties) {}
  void Arrive() {
    waiting_.fetch_sub(1);
    while (waiting_.load() > 0) std::this_thread::yield();
  }

 private:
  std::atomic<int> waiting_;
};

// A private copy of the built plug-in, loaded from its own path. The loader maps it as a
// module of its own (it is a different file), so its kernel tables and processor word start
// unbuilt, exactly as in a process that has never rendered. Like every plug-in here it stays
// mapped for the rest of the process: its tables are never freed and must stay reachable.
class FreshPluginCopy {
 public:
  FreshPluginCopy() {
    std::string dir = ::testing::TempDir() + "vt-fresh-plugin-XXXXXX";
    if (!mkdtemp(&dir[0])) {
      error_ = std::string("mkdtemp: ") + std::strerror(errno);
      return;
    }
    dir_ = dir;
    path_ = dir + "/VeltriscaDistortion.so";
    {
      std::ifstream from(VT_EFFECT_PATH, std::ios::binary);
      std::ofstream to(path_, std::ios::binary);
      to << from.rdbuf();
      if (!from || !to) error_ = "cannot copy " VT_EFFECT_PATH " to " + path_;
    }
    if (error_.empty()) {
      try {
        module_ = std::make_unique<PluginModule>(
            path_, VT_SOURCE_DIR "/effect/description/VeltriscaDistortion.plugin");
        dlopen(path_.c_str(), RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE);
      } catch (const std::exception& e) {
        error_ = e.what();
      }
    }
  }
  // The mapping outlives the file; the file stays while the copy is in use so that sanitizer
  // reports can name its functions.
  ~FreshPluginCopy() {
    if (!path_.empty()) unlink(path_.c_str());
    if (!dir_.empty()) rmdir(dir_.c_str());
  }
  FreshPluginCopy(const FreshPluginCopy&) = delete;
  FreshPluginCopy& operator=(const FreshPluginCopy&) = delete;

  const PluginModule* module() const { return module_.get(); }
  const std::string& error() const { return error_; }

 private:
  std::string dir_, path_;
  std::unique_ptr<PluginModule> module_;
  std::string error_;
};

TEST(Concurrency, TwoSequencesRenderAtTheSameTimeOnDifferentThreads) {
  constexpr int kRendersEach = 3;
  for (size_t pair = 0; pair + 1 < std::size(kJobs); pair += 2) {
    const Job& jobA = kJobs[pair];
    const Job& jobB = kJobs[pair + 1];
    SCOPED_TRACE(::testing::Message() << jobA.name << " beside " << jobB.name);
    const std::vector<uint8_t> expectedA = SingleThreadedBytes(jobA);
    const std::vector<uint8_t> expectedB = SingleThreadedBytes(jobB);

    // Each sequence has its own host with its own iterate threads, on the one plug-in.
    Sequence a(hosttest::Plugin(), jobA, 2);
    Sequence b(hosttest::Plugin(), jobB, 2);
    StartLine start(2);
    std::vector<std::vector<uint8_t>> outA(kRendersEach), outB(kRendersEach);
    std::string failureA, failureB;
    auto renderAll = [&start](Sequence& s, std::vector<std::vector<uint8_t>>& out,
                              std::string& failure) {
      start.Arrive();
      for (auto& bytes : out) {
        failure = s.Render(&bytes);
        if (!failure.empty()) return;
      }
    };
    std::thread threadA(renderAll, std::ref(a), std::ref(outA), std::ref(failureA));
    std::thread threadB(renderAll, std::ref(b), std::ref(outB), std::ref(failureB));
    threadA.join();
    threadB.join();

    ASSERT_EQ(failureA, "");
    ASSERT_EQ(failureB, "");
    for (int i = 0; i < kRendersEach; ++i) {
      EXPECT_TRUE(outA[i] == expectedA) << jobA.name << ", render " << i;
      EXPECT_TRUE(outB[i] == expectedB) << jobB.name << ", render " << i;
    }
    EXPECT_EQ(a.host->LiveHandleCount(), 1);
    EXPECT_EQ(b.host->LiveHandleCount(), 1);
  }
}

TEST(Concurrency, FirstRendersOfAFreshPluginRaceToBuildItsTables) {
  // Each round loads a fresh copy and starts the first pre-render and render of two of its
  // sequences at the same moment: both ask for the processor word and both find the kernel
  // tables missing. Rounds pair different jobs, so different depths and filters meet.
  const std::vector<uint8_t> expected[] = {
      SingleThreadedBytes(kJobs[0]), SingleThreadedBytes(kJobs[1]),
      SingleThreadedBytes(kJobs[2]), SingleThreadedBytes(kJobs[3]),
      SingleThreadedBytes(kJobs[4]), SingleThreadedBytes(kJobs[5])};
  Sequence reference(hosttest::Plugin(), kJobs[0], 1);
  std::vector<uint8_t> ignored;
  ASSERT_EQ(reference.Render(&ignored), "");
  const float* sharedLanczos2 = reference.lens().lanczos2Kernel;

  constexpr int kRounds = 6;
  for (int round = 0; round < kRounds; ++round) {
    const size_t jobA = static_cast<size_t>(round) % std::size(kJobs);
    const size_t jobB = static_cast<size_t>(round + 3) % std::size(kJobs);
    SCOPED_TRACE(::testing::Message() << "round " << round << ": " << kJobs[jobA].name
                                      << " against " << kJobs[jobB].name);
    FreshPluginCopy fresh;
    ASSERT_NE(fresh.module(), nullptr) << fresh.error();
    Sequence a(*fresh.module(), kJobs[jobA], 2);
    Sequence b(*fresh.module(), kJobs[jobB], 2);

    StartLine start(2);
    std::vector<uint8_t> bytesA, bytesB;
    std::string failureA, failureB;
    std::thread threadA([&] { start.Arrive(); failureA = a.Render(&bytesA); });
    std::thread threadB([&] { start.Arrive(); failureB = b.Render(&bytesB); });
    threadA.join();
    threadB.join();

    ASSERT_EQ(failureA, "");
    ASSERT_EQ(failureB, "");
    EXPECT_TRUE(bytesA == expected[jobA]) << kJobs[jobA].name;
    EXPECT_TRUE(bytesB == expected[jobB]) << kJobs[jobB].name;
    // One build, seen by both: a second build would have left each record pointing at its
    // own tables (and one set of them orphaned).
    ASSERT_NE(a.lens().lanczos2Kernel, nullptr);
    EXPECT_EQ(a.lens().lanczos2Kernel, b.lens().lanczos2Kernel);
    EXPECT_EQ(a.lens().lanczos3Kernel, b.lens().lanczos3Kernel);
    EXPECT_EQ(a.lens().mitchellKernel, b.lens().mitchellKernel);
    // The copy built tables of its own: it did start from nothing.
    EXPECT_NE(a.lens().lanczos2Kernel, sharedLanczos2);
  }
}

TEST(Concurrency, IterateOnEveryThreadOfTheMachineAndMoreWritesTheSameBytes) {
  const int cores = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
  // 0 asks the host for one thread per core; 3 * cores + 1 oversubscribes the machine. The
  // layer is tall enough that every one of those threads can be handed rows.
  const int threadCounts[] = {0, cores, 3 * cores + 1};
  const int height = std::max(kHeight, 3 * cores + 8);
  for (const Job& job : kJobs) {
    SCOPED_TRACE(job.name);
    const std::vector<uint8_t> expected = SingleThreadedBytes(job, height);
    for (int threads : threadCounts) {
      SCOPED_TRACE(::testing::Message() << threads << " threads (" << cores << " cores)");
      Sequence sequence(hosttest::Plugin(), job, threads, height);
      std::vector<uint8_t> bytes;
      ASSERT_EQ(sequence.Render(&bytes), "");
      EXPECT_TRUE(bytes == expected);

      // The iterate handed out every output row exactly once.
      std::vector<int> rows(static_cast<size_t>(sequence.host->lastIterate().area.bottom));
      for (size_t y = 0; y < rows.size(); ++y) rows[y] = static_cast<int>(y);
      EXPECT_FALSE(rows.empty());
      EXPECT_EQ(sequence.host->iteratedRows(), rows);
    }
  }
}

}  // namespace
