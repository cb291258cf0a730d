// A render whose kernel tables cannot be allocated. The effect is linked into this program
// here (not loaded from the plug-in), so that the tables' allocator can be made to fail.
#include <gtest/gtest.h>

#include <cstdlib>

#include "HostTestSupport.h"
#include "host/EntryPoint.h"
#include "resample/KernelTablesInternal.h"

namespace {

using hostsim::Depth;
using hostsim::Host;
using hostsim::HostCall;

void* NoMemory(std::size_t) { return nullptr; }

TEST(SmartRender, KernelTableAllocationFailureIsOutOfMemory) {
  hostsim::World layer(Depth::k8, 32, 32);
  Host host(EntryPointFunc);
  host.SetInputLayer(&layer);
  host.params.distortedWidth = host.params.undistortedWidth = 32;
  host.params.distortedHeight = host.params.undistortedHeight = 32;
  host.outputClearByte = 0x3C;
  ASSERT_EQ(host.ParamsSetup(), PF_Err_NONE);
  ASSERT_EQ(host.SequenceSetup(), PF_Err_NONE);

  DiscardSampleFiltersForTesting();
  const KernelTableAllocFunc saved = kernel_table_alloc;
  kernel_table_alloc = NoMemory;
  std::unique_ptr<hostsim::World> output;
  ASSERT_EQ(host.SmartPreRender(PF_LRect{0, 0, 32, 32}), PF_Err_NONE);
  const PF_Err err = host.SmartRender(&output);
  kernel_table_alloc = saved;

  EXPECT_EQ(err, PF_Err_OUT_OF_MEMORY);
  EXPECT_EQ(host.CallCount(HostCall::Iterate), 0);
  EXPECT_TRUE(host.AllSuitesReleased());
  ASSERT_TRUE(output);
  for (int i = 0; i < 32 * 4; ++i) ASSERT_EQ(output->Row(7)[i], 0x3C);

  // The next render builds the tables and renders.
  ASSERT_EQ(host.SmartPreRender(PF_LRect{0, 0, 32, 32}), PF_Err_NONE);
  EXPECT_EQ(host.SmartRender(&output), PF_Err_NONE);
  EXPECT_NE(hosttest::LensOf(host).lanczos2Kernel, nullptr);
}

}  // namespace
