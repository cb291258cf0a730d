// Long lives of one effect instance: thousands of sequence setups, resetups and setdowns and
// a thousand renders must leave no handle and no heap behind. Handles are counted by the
// substitute host; the heap is measured around the loops (the allocator's own figures in a
// plain build, the sanitizer's in a sanitized one, where LeakSanitizer watches as well).
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "HostTestSupport.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VT_SANITIZER_HEAP 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define VT_SANITIZER_HEAP 1
#endif
#endif

#ifdef VT_SANITIZER_HEAP
#include <cstddef>
// Part of the sanitizer runtimes' public interface (sanitizer/allocator_interface.h, a header
// that not every compiler installs).
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
#else
#include <malloc.h>
#endif

namespace {

using hostsim::Depth;
using hostsim::Host;
using hostsim::World;

// Bytes of heap the program holds right now.
int64_t HeapInUse() {
#ifdef VT_SANITIZER_HEAP
  // The sanitizers bring their own allocator, which glibc's statistics do not see.
  return static_cast<int64_t>(__sanitizer_get_current_allocated_bytes());
#else
  // Chunks in use in every arena, plus the blocks too large for an arena.
  const struct mallinfo2 info = mallinfo2();
  return static_cast<int64_t>(info.uordblks + info.hblkhd);
#endif
}

// Allowed growth of the heap over a whole loop. A loop leaking a single smallest block per
// round (32 bytes in glibc) grows by 320 KiB over ten thousand rounds and 32 KiB over a
// thousand renders, and the effect's smallest allocation, the 8376-byte lens record, by
// megabytes; what stays below this is the allocator keeping a few freed blocks per thread
// in its caches.
constexpr int64_t kHeapSlack = 24 * 1024;

constexpr int kSequenceCycles = 10000;
constexpr int kRenders = 1000;

TEST(Lifecycle, TenThousandSequenceCyclesLeaveNoHandleAndNoHeapBehind) {
  for (bool hostHandles : {true, false}) {
    SCOPED_TRACE(hostHandles ? "host's handle callbacks" : "the effect's own handles");
    Host host(hosttest::Plugin());
    host.handleCallbacks = hostHandles;
    ASSERT_EQ(host.GlobalSetup(), PF_Err_NONE);
    ASSERT_EQ(host.ParamsSetup(), PF_Err_NONE);

    int failedCommands = 0, wrongHandleCounts = 0;
    // With the host's callbacks, exactly one handle is alive while the sequence is set up
    // and none after the setdown; with the effect's own handles the host sees none.
    const int liveWhileSetUp = hostHandles ? 1 : 0;
    auto cycle = [&] {
      if (host.SequenceSetup() != PF_Err_NONE || !host.SequenceBlock()) ++failedCommands;
      if (host.LiveHandleCount() != liveWhileSetUp) ++wrongHandleCounts;
      if (host.SequenceResetup() != PF_Err_NONE || !host.SequenceBlock()) ++failedCommands;
      if (host.LiveHandleCount() != liveWhileSetUp) ++wrongHandleCounts;
      if (host.SequenceSetdown() != PF_Err_NONE) ++failedCommands;
      if (host.LiveHandleCount() != 0) ++wrongHandleCounts;
    };
    cycle();  // whatever the host's books allocate once is in place before measuring
    const int64_t heapBefore = HeapInUse();
    for (int i = 1; i < kSequenceCycles; ++i) cycle();
    const int64_t growth = HeapInUse() - heapBefore;

    EXPECT_EQ(failedCommands, 0);
    EXPECT_EQ(wrongHandleCounts, 0);
    EXPECT_EQ(host.BadDisposeCount(), 0);
    EXPECT_LE(growth, kHeapSlack) << "bytes gained over " << kSequenceCycles << " cycles";
  }
}

// Small layers of the three depths, so that a thousand renders stay quick.
struct Layers {
  Layers() {
    for (World& layer : worlds) hosttest::FillPattern(layer);
  }
  World worlds[3] = {World(Depth::k8, 20, 12), World(Depth::k16, 20, 12),
                     World(Depth::kFloat, 20, 12)};
};

TEST(Lifecycle, AThousandRendersOfOneSequenceKeepHandlesAndHeapFlat) {
  Layers layers;
  Host host(hosttest::Plugin());
  host.threads = 2;
  ASSERT_EQ(host.GlobalSetup(), PF_Err_NONE);
  ASSERT_EQ(host.ParamsSetup(), PF_Err_NONE);
  ASSERT_EQ(host.SequenceSetup(), PF_Err_NONE);

  // Render i cycles through the three depths, the six filters and both directions, so
  // that every combination comes round again and again.
  int failedRenders = 0, wrongHandleCounts = 0;
  auto render = [&](int i) {
    const World& layer = layers.worlds[i % 3];
    host.SetInputLayer(&layer);
    host.params.filter = 1 + i % 6;
    host.params.mode = 1 + (i / 6) % 2;
    host.params.distortion = host.params.mode == 1 ? -40 : 30;
    host.params.distortedWidth = host.params.undistortedWidth = layer.width();
    host.params.distortedHeight = host.params.undistortedHeight = layer.height();
    std::unique_ptr<World> output;
    if (host.SmartPreRender(PF_LRect{0, 0, layer.width(), layer.height()}) != PF_Err_NONE ||
        host.SmartRender(&output) != PF_Err_NONE || !output) {
      ++failedRenders;
    }
    if (host.LiveHandleCount() != 1) ++wrongHandleCounts;  // the sequence's, nothing else
  };
  // One round of every combination first: the kernel tables, the host's iterate threads
  // and its books exist from then on.
  for (int i = 0; i < 36; ++i) render(i);
  const int64_t heapBefore = HeapInUse();
  for (int i = 36; i < 36 + kRenders; ++i) render(i);
  const int64_t growth = HeapInUse() - heapBefore;

  EXPECT_EQ(failedRenders, 0);
  EXPECT_EQ(wrongHandleCounts, 0);
  EXPECT_TRUE(host.AllSuitesReleased());
  EXPECT_LE(growth, kHeapSlack) << "bytes gained over " << kRenders << " renders";

  EXPECT_EQ(host.SequenceSetdown(), PF_Err_NONE);
  EXPECT_EQ(host.LiveHandleCount(), 0);
  EXPECT_EQ(host.BadDisposeCount(), 0);
}

}  // namespace
