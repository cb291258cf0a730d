#include "host/SuiteHandler.h"

#include "AE_EffectCB.h"
#include "host/AEFX_SuiteHelper.h"

// ---------------------------------------------------------------------------------------------
// AEGP_SuiteHandler

namespace {

struct SuiteName {
  const char* name;
  int32_t version;
};

// Indexed by AEGP_SuiteHandler::SuiteSlot; also the order of release.
constexpr SuiteName kHandlerSuites[] = {
    {kPFSampling8Suite, kPFSampling8SuiteVersion1},
    {kPFSampling16Suite, kPFSampling16SuiteVersion1},
    {kPFSamplingFloatSuite, kPFSamplingFloatSuiteVersion1},
    {kPFIterate8Suite, kPFIterate8SuiteVersion1},
    {kPFIterate16Suite, kPFIterate16SuiteVersion1},
    {kPFIterateFloatSuite, kPFIterateFloatSuiteVersion1},
};

}  // namespace

AEGP_SuiteHandler::AEGP_SuiteHandler(const SPBasicSuite* basic) : basicSuite(basic), slots{} {
  static_assert(sizeof kHandlerSuites / sizeof kHandlerSuites[0] == kSlotCount,
                "one name per slot");
  if (basicSuite == nullptr) {
    MissingSuiteError();
  }
}

AEGP_SuiteHandler::~AEGP_SuiteHandler() { ReleaseAllSuites(); }

const void* AEGP_SuiteHandler::Suite(SuiteSlot slot) const {
  if (slots[slot] == nullptr) {
    const void* suite = nullptr;
    const SPErr err =
        basicSuite->AcquireSuite(kHandlerSuites[slot].name, kHandlerSuites[slot].version, &suite);
    if (err != kSPNoError || suite == nullptr) {
      MissingSuiteError();
    }
    slots[slot] = suite;
  }
  return slots[slot];
}

const PF_Sampling8Suite1* AEGP_SuiteHandler::Sampling8Suite1() const {
  return static_cast<const PF_Sampling8Suite1*>(Suite(kSampling8Slot));
}
const PF_Sampling16Suite1* AEGP_SuiteHandler::Sampling16Suite1() const {
  return static_cast<const PF_Sampling16Suite1*>(Suite(kSampling16Slot));
}
const PF_SamplingFloatSuite1* AEGP_SuiteHandler::SamplingFloatSuite1() const {
  return static_cast<const PF_SamplingFloatSuite1*>(Suite(kSamplingFloatSlot));
}
const PF_Iterate8Suite1* AEGP_SuiteHandler::Iterate8Suite1() const {
  return static_cast<const PF_Iterate8Suite1*>(Suite(kIterate8Slot));
}
const PF_iterate16Suite1* AEGP_SuiteHandler::Iterate16Suite1() const {
  return static_cast<const PF_iterate16Suite1*>(Suite(kIterate16Slot));
}
const PF_iterateFloatSuite1* AEGP_SuiteHandler::IterateFloatSuite1() const {
  return static_cast<const PF_iterateFloatSuite1*>(Suite(kIterateFloatSlot));
}

void AEGP_SuiteHandler::ReleaseAllSuites() {
  for (int slot = 0; slot < kSlotCount; ++slot) {
    if (slots[slot] != nullptr) {
      basicSuite->ReleaseSuite(kHandlerSuites[slot].name, kHandlerSuites[slot].version);
    }
  }
}

SPErr AEGP_SuiteHandler::ReleaseSuite(const char* name, int32_t version) {
  return basicSuite->ReleaseSuite(name, version);
}

void AEGP_SuiteHandler::MissingSuiteError() const {
  throw static_cast<PF_Err>(PF_Err_BAD_CALLBACK_PARAM);
}

// ---------------------------------------------------------------------------------------------
// AEFX_ suite functions

namespace {

constexpr char kAcquireFailedText[] = "Not able to acquire AEFX Suite.";
constexpr char kReleaseFailedText[] = "Not able to release AEFX Suite.";

constexpr SuiteName kDrawbotSuites[] = {
    {"DRAWBOT Draw Suite", 1},
    {"DRAWBOT Supplier Suite", 1},
    {"DRAWBOT Surface Suite", 1},
    {"DRAWBOT Path Suite", 1},
};

// Shows `message` to the user: the host prints it into return_msg (as the format, with no
// arguments) and displays it because of the flag.
void ReportToUser(PF_InData* in_data, PF_OutData* out_data, const char* message) {
  out_data->out_flags |= PF_OutFlag_DISPLAY_ERROR_MESSAGE;
  in_data->utils->ansi.sprintf(out_data->return_msg, message);
}

}  // namespace

PF_Err AEFX_AcquireSuite(PF_InData* in_data, PF_OutData* out_data, const char* name,
                         int32_t version, const char* errorText, void** suite) {
  const SPBasicSuite* basic = in_data->pica_basicP;
  if (basic != nullptr) {
    // The host's result code is not consulted: a non-null suite is what counts.
    basic->AcquireSuite(name, version, const_cast<const void**>(suite));
    if (*suite != nullptr) {
      return PF_Err_NONE;
    }
  }
  ReportToUser(in_data, out_data, errorText != nullptr ? errorText : kAcquireFailedText);
  return PF_Err_BAD_CALLBACK_PARAM;
}

PF_Err AEFX_ReleaseSuite(PF_InData* in_data, PF_OutData* out_data, const char* name,
                         int32_t version, const char* errorText) {
  const SPBasicSuite* basic = in_data->pica_basicP;
  if (basic != nullptr) {
    basic->ReleaseSuite(name, version);
    return PF_Err_NONE;
  }
  ReportToUser(in_data, out_data, errorText != nullptr ? errorText : kReleaseFailedText);
  return PF_Err_BAD_CALLBACK_PARAM;
}

PF_Err AEFX_AcquireDrawbotSuites(PF_InData* in_data, PF_OutData* out_data,
                                 DRAWBOT_Suites* suitesP) {
  if (suitesP == nullptr) {
    ReportToUser(in_data, out_data, "NULL suite pointer passed to AEFX_AcquireDrawbotSuites");
    return PF_Err_UNRECOGNIZED_PARAM_TYPE;
  }
  const void** members[] = {&suitesP->drawbot_suiteP, &suitesP->supplier_suiteP,
                            &suitesP->surface_suiteP, &suitesP->path_suiteP};
  const SPBasicSuite* basic = in_data->pica_basicP;
  for (int k = 0; k < 4; ++k) {
    if (basic != nullptr) {
      basic->AcquireSuite(kDrawbotSuites[k].name, kDrawbotSuites[k].version, members[k]);
    }
    // Suites acquired before the missing one stay acquired.
    if (basic == nullptr || *members[k] == nullptr) {
      ReportToUser(in_data, out_data, kAcquireFailedText);
      return PF_Err_BAD_CALLBACK_PARAM;
    }
  }
  return PF_Err_NONE;
}

PF_Err AEFX_ReleaseDrawbotSuites(PF_InData* in_data, PF_OutData* out_data) {
  const SPBasicSuite* basic = in_data->pica_basicP;
  for (const SuiteName& suite : kDrawbotSuites) {
    if (basic != nullptr) {
      basic->ReleaseSuite(suite.name, suite.version);
    } else {
      ReportToUser(in_data, out_data, kReleaseFailedText);
    }
  }
  return PF_Err_NONE;
}
