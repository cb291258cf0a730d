// The real plug-in rendered from several threads at once: two sequences side by side, whose
// first renders on a freshly loaded plug-in race to build its process-wide kernel tables and
// processor word. Every concurrent render must write the same bytes as the same render on one
// thread, and the ThreadSanitizer build must stay silent throughout.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "HostTestSupport.h"

namespace {

using hostsim::Depth;
using hostsim::PluginModule;
using hosttest::Scene;

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
// A sequence of the job, with its own host and iterate threads, on a 72 x 40 pattern layer:
// one full run of 64 and a partial one per row.
std::unique_ptr<Scene> Sequence(const Job& job, int threads, const PluginModule* plugin) {
  auto s = std::make_unique<Scene>(job.depth, 72, 40, job.mode, job.filter, plugin);
  s->host->threads = threads;
  s->params() = hostsim::ParamValues{job.mode, job.filter, job.distortion, job.cubic, job.quartic,
                                     job.zoom, 72, 40, 1.0, 72, 40};
  return s;
}

// The whole layer's output bytes; empty on any failure.
std::vector<uint8_t> Render(Scene& s) {
  return s.Run() == PF_Err_NONE && s.output ? s.output->PackedBytes() : std::vector<uint8_t>{};
}

// The job rendered on one thread by the plug-in every other test uses.
std::vector<uint8_t> SingleThreadedBytes(const Job& job) {
  std::vector<uint8_t> bytes = Render(*Sequence(job, 1, nullptr));
  // A render that wrote nothing but zeros would make every comparison vacuous.
  EXPECT_TRUE(std::any_of(bytes.begin(), bytes.end(), [](uint8_t b) { return b != 0; }))
      << job.name;
  return bytes;
}

// Each round loads a private copy of the plug-in, which the loader maps as a module of its
// own, so its kernel tables and processor word start unbuilt; two of its sequences, each with
// its own host and iterate threads, start their first frames at the same moment and render a
// second one side by side. Rounds pair different jobs, so every depth and filter takes part.
// Like every plug-in here the copy stays mapped: its tables are never freed and must stay
// reachable.
TEST(Concurrency, TwoSequencesOfAFreshPluginRaceToBuildItsTablesAndRender) {
  const std::unique_ptr<Scene> reference = Sequence(kJobs[0], 1, nullptr);
  ASSERT_FALSE(Render(*reference).empty());
  for (size_t jobA = 0; jobA < 3; ++jobA) {
    const size_t jobB = jobA + 3;
    SCOPED_TRACE(::testing::Message() << kJobs[jobA].name << " against " << kJobs[jobB].name);
    const std::vector<uint8_t> expectedA = SingleThreadedBytes(kJobs[jobA]);
    const std::vector<uint8_t> expectedB = SingleThreadedBytes(kJobs[jobB]);
    std::string dir = ::testing::TempDir() + "vt-fresh-plugin-XXXXXX";
    ASSERT_NE(mkdtemp(&dir[0]), nullptr);
    const std::string path = dir + "/VeltriscaDistortion.so";
    {
      std::ifstream from(VT_EFFECT_PATH, std::ios::binary);
      std::ofstream to(path, std::ios::binary);
      to << from.rdbuf();
      ASSERT_TRUE(from && to);
    }
    auto fresh = std::make_unique<PluginModule>(
        path, VT_SOURCE_DIR "/effect/description/VeltriscaDistortion.plugin");
    dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE);
    {
      const std::unique_ptr<Scene> a = Sequence(kJobs[jobA], 2, fresh.get());
      const std::unique_ptr<Scene> b = Sequence(kJobs[jobB], 2, fresh.get());
      std::vector<uint8_t> bytesA[2], bytesB[2];
      std::atomic<int> waiting{2};
      auto race = [&waiting](Scene* s, std::vector<uint8_t>* bytes) {
        waiting.fetch_sub(1);
        while (waiting.load() > 0) std::this_thread::yield();  // start together
        for (int i = 0; i < 2; ++i) bytes[i] = Render(*s);
      };
      std::thread threadA(race, a.get(), bytesA), threadB(race, b.get(), bytesB);
      threadA.join();
      threadB.join();
      for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(bytesA[i] == expectedA) << "frame " << i;
        EXPECT_TRUE(bytesB[i] == expectedB) << "frame " << i;
      }
      // One build, seen by both: a second build would have left each record pointing at its
      // own tables (and one set of them orphaned).
      const VtAFXLensData &lensA = hosttest::LensOf(*a->host), &lensB = hosttest::LensOf(*b->host);
      EXPECT_NE(lensA.lanczos2Kernel, nullptr);
      EXPECT_EQ(lensA.lanczos2Kernel, lensB.lanczos2Kernel);
      EXPECT_EQ(lensA.lanczos3Kernel, lensB.lanczos3Kernel);
      EXPECT_EQ(lensA.mitchellKernel, lensB.mitchellKernel);
      // The copy built tables of its own: it did start from nothing.
      EXPECT_NE(lensA.lanczos2Kernel, hosttest::LensOf(*reference->host).lanczos2Kernel);
    }
    // The file stays while the copy is in use, so that sanitizer reports can name its code.
    unlink(path.c_str());
    rmdir(dir.c_str());
  }
}

}  // namespace
