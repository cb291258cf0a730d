// A scriptable stand-in for an effect, so that the host's side of each call can be tested
// without the real effect: each test says what the "effect" does for a command.
#ifndef VT_TESTS_HOSTSIM_FAKEEFFECT_H
#define VT_TESTS_HOSTSIM_FAKEEFFECT_H

#include <functional>

#include "hostsim/Host.h"

namespace hostsim_test {

using EffectBody = std::function<PF_Err(PF_Cmd, PF_InData*, PF_OutData*, void* extra)>;

inline EffectBody& CurrentBody() {
  static EffectBody body;
  return body;
}

inline PF_Err FakeEntry(PF_Cmd cmd, PF_InData* in, PF_OutData* out, PF_ParamDef*[],
                        PF_LayerDef*, void* extra) {
  return CurrentBody() ? CurrentBody()(cmd, in, out, extra) : PF_Err_NONE;
}

// Installs a body for the lifetime of the object.
struct ScopedEffect {
  explicit ScopedEffect(EffectBody body) { CurrentBody() = std::move(body); }
  ~ScopedEffect() { CurrentBody() = nullptr; }
};

template <typename Suite>
const Suite* Acquire(PF_InData* in, const char* name, int32_t version) {
  const void* suite = nullptr;
  if (in->pica_basicP->AcquireSuite(name, version, &suite) != 0) return nullptr;
  return static_cast<const Suite*>(suite);
}

}  // namespace hostsim_test

#endif
