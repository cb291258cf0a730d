// Acquiring and releasing host suites with a message to the user on failure. These four
// functions are exported under their plain names; the smart render uses the first two, the
// drawing-suite pair completes the set.
#ifndef VT_HOST_AEFX_SUITEHELPER_H
#define VT_HOST_AEFX_SUITEHELPER_H

#include <cstdint>

#include "AE_Effect.h"
#include "host/Exports.h"

extern "C" {

// The four drawing suites, acquired together (version 1 each).
typedef struct DRAWBOT_Suites {
  const void* drawbot_suiteP;
  const void* supplier_suiteP;
  const void* surface_suiteP;
  const void* path_suiteP;
} DRAWBOT_Suites;

// Acquires suite `name` of `version` into *suite. On failure (no basic suite, or the host
// leaves the suite null) shows errorText, or a generic text when it is null, and returns
// PF_Err_BAD_CALLBACK_PARAM.
VT_EXPORT PF_Err AEFX_AcquireSuite(PF_InData* in_data, PF_OutData* out_data, const char* name,
                                   int32_t version, const char* errorText, void** suite);

// Releases suite `name` of `version`; 0 whenever there is a basic suite, whatever it answers.
VT_EXPORT PF_Err AEFX_ReleaseSuite(PF_InData* in_data, PF_OutData* out_data, const char* name,
                                   int32_t version, const char* errorText);

VT_EXPORT PF_Err AEFX_AcquireDrawbotSuites(PF_InData* in_data, PF_OutData* out_data,
                                           DRAWBOT_Suites* suitesP);
VT_EXPORT PF_Err AEFX_ReleaseDrawbotSuites(PF_InData* in_data, PF_OutData* out_data);
}

#endif
