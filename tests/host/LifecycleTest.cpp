// A long life of one effect instance: a thousand renders and a resetup after every 36 must
// leave no handle and no heap behind. Handles are counted by the substitute host; the heap is
// measured around the loop (the allocator's own figures in a plain build, the sanitizer's in a
// sanitized one, where LeakSanitizer watches as well).
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>

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

// Allowed growth of the heap over the loop. A loop leaking a single smallest block per render
// (32 bytes in glibc) grows by 32 KiB over a thousand renders, and per resetup the effect's
// smallest allocation, the 8376-byte lens record, by over 200 KiB; what stays below this is
// the allocator keeping a few freed blocks per thread in its caches.
constexpr int64_t kHeapSlack = 24 * 1024;
constexpr int kRenders = 1000;

TEST(Lifecycle, AThousandRendersAndResetupsOfOneSequenceKeepHandlesAndHeapFlat) {
  World layers[3] = {World(Depth::k8, 20, 12), World(Depth::k16, 20, 12),
                     World(Depth::kFloat, 20, 12)};  // small, so that the renders stay quick
  for (World& layer : layers) hosttest::FillPattern(layer);
  Host host(hosttest::Plugin());
  host.threads = 2;
  host.handleCallbacks = false;  // the sequence lives in the effect's own handle
  ASSERT_EQ(host.GlobalSetup(), PF_Err_NONE);
  ASSERT_EQ(host.ParamsSetup(), PF_Err_NONE);
  ASSERT_EQ(host.SequenceSetup(), PF_Err_NONE);

  // Render i cycles through the three depths, the six filters and both directions, so that
  // every combination comes round again and again; after each round the sequence is set up
  // afresh. Failed commands, host handles, and a lens record the pre-render did not fill.
  int problems = 0;
  auto render = [&](int i) {
    const World& layer = layers[i % 3];
    host.SetInputLayer(&layer);
    host.params = hostsim::ParamValues{1 + (i / 6) % 2, 1 + i % 6, (i / 6) % 2 ? 30.0 : -40.0};
    host.params.distortedWidth = host.params.undistortedWidth = layer.width();
    host.params.distortedHeight = host.params.undistortedHeight = layer.height();
    std::unique_ptr<World> output;
    problems += host.SmartPreRender(PF_LRect{0, 0, layer.width(), layer.height()}) != 0 ||
                host.SmartRender(&output) != 0 || !output || host.LiveHandleCount() != 0 ||
                hosttest::LensOf(host).distortMode != host.params.mode;
    if (i % 36 == 35) problems += host.SequenceResetup() != 0 || !host.SequenceBlock();
  };
  // One round of every combination first: the kernel tables, the host's iterate threads
  // and its books exist from then on.
  for (int i = 0; i < 36; ++i) render(i);
  const int64_t heapBefore = HeapInUse();
  for (int i = 36; i < 36 + kRenders; ++i) render(i);
  const int64_t growth = HeapInUse() - heapBefore;

  EXPECT_EQ(problems, 0);
  EXPECT_TRUE(host.AllSuitesReleased());
  EXPECT_LE(growth, kHeapSlack) << "bytes gained over " << kRenders << " renders";
  EXPECT_EQ(host.SequenceSetdown(), PF_Err_NONE);  // the sanitizer checks the free
  EXPECT_EQ(host.CallCount(hostsim::HostCall::NewHandle), 0);
  EXPECT_EQ(host.BadDisposeCount(), 0);
}

}  // namespace
