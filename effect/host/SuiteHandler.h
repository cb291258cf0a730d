// AEGP_SuiteHandler: holds host function suites for the length of one command. Each suite is
// acquired from the basic suite on first use and released when the handler is destroyed; a
// suite the host cannot supply is thrown as the integer PF_Err_BAD_CALLBACK_PARAM, which the
// entry point turns into the command's result.
//
// Only the suites the render uses are known here: the sub-pixel samplers and the iterate
// suites of the three pixel depths, version 1 each.
#ifndef VT_HOST_SUITEHANDLER_H
#define VT_HOST_SUITEHANDLER_H

#include <cstdint>

#include "AE_Effect.h"
#include "AE_EffectCBSuites.h"
#include "SPBasic.h"

class AEGP_SuiteHandler {
 public:
  // A null basic suite is reported through MissingSuiteError.
  explicit AEGP_SuiteHandler(const SPBasicSuite* basic);
  ~AEGP_SuiteHandler();
  AEGP_SuiteHandler(const AEGP_SuiteHandler&) = delete;
  AEGP_SuiteHandler& operator=(const AEGP_SuiteHandler&) = delete;

  const PF_Sampling8Suite1* Sampling8Suite1() const;
  const PF_Sampling16Suite1* Sampling16Suite1() const;
  const PF_SamplingFloatSuite1* SamplingFloatSuite1() const;
  const PF_Iterate8Suite1* Iterate8Suite1() const;
  const PF_iterate16Suite1* Iterate16Suite1() const;
  const PF_iterateFloatSuite1* IterateFloatSuite1() const;

  // Releases every suite acquired so far, in slot order; the host's results are ignored.
  void ReleaseAllSuites();
  // Passes a release straight to the basic suite and returns its result.
  SPErr ReleaseSuite(const char* name, int32_t version);
  // Throws the integer PF_Err_BAD_CALLBACK_PARAM.
  [[noreturn]] void MissingSuiteError() const;

 private:
  enum SuiteSlot : int {
    kSampling8Slot,
    kSampling16Slot,
    kSamplingFloatSlot,
    kIterate8Slot,
    kIterate16Slot,
    kIterateFloatSlot,
    kSlotCount
  };
  const void* Suite(SuiteSlot slot) const;

  const SPBasicSuite* basicSuite;
  // Filled on first use; a slot keeps its suite until the destructor releases it.
  mutable const void* slots[kSlotCount];
};

#endif
