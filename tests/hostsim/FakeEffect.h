// A scriptable stand-in for an effect, so that the host's side of each call can be tested
// without the real effect: each test says what the "effect" does for a command.
#ifndef VT_TESTS_HOSTSIM_FAKEEFFECT_H
#define VT_TESTS_HOSTSIM_FAKEEFFECT_H

#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "hostsim/Host.h"

namespace hostsim_test {

using hostsim::Depth;
using hostsim::Host;
using hostsim::HostCall;
using hostsim::World;
using EffectBody = std::function<PF_Err(PF_Cmd, PF_InData*, PF_OutData*, void* extra)>;

inline EffectBody currentBody;  // what the entry point below runs

inline PF_Err FakeEntry(PF_Cmd cmd, PF_InData* in, PF_OutData* out, PF_ParamDef*[], PF_LayerDef*,
                        void* extra) {
  return currentBody ? currentBody(cmd, in, out, extra) : PF_Err_NONE;
}

// Installs a body for the lifetime of the object.
struct ScopedEffect {
  explicit ScopedEffect(EffectBody body) { currentBody = std::move(body); }
  ~ScopedEffect() { currentBody = nullptr; }
};

template <typename Suite>
const Suite* Acquire(PF_InData* in, const char* name, int32_t version = 1) {
  const void* suite = nullptr;  // the host leaves it null when it refuses
  in->pica_basicP->AcquireSuite(name, version, &suite);
  return static_cast<const Suite*>(suite);
}

inline std::vector<A_long> Edges(const PF_LRect& r) { return {r.left, r.top, r.right, r.bottom}; }

// A host of the fake effect.
struct HostTest : testing::Test {
  Host host{FakeEntry};
  // Runs `body` as the effect's handling of an unassigned command, inside a command.
  PF_Err During(const std::function<void(PF_InData*)>& body) {
    ScopedEffect effect([&](PF_Cmd, PF_InData* in, PF_OutData*, void*) {
      body(in);
      return PF_Err_NONE;
    });
    return host.Send(PF_Cmd_COMPLETELY_GENERAL);
  }
};

}  // namespace hostsim_test

#endif
