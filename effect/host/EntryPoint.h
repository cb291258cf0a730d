// The one function through which the host drives the effect: one call per host command.
#ifndef VT_HOST_ENTRYPOINT_H
#define VT_HOST_ENTRYPOINT_H

#include "AE_Effect.h"
#include "common/Version.h"
#include "host/Exports.h"

// The effect's version (common/Version.h), reported in the About text and, packed, at global
// setup.
constexpr int kMajorVersion = kVersionMajor;
constexpr int kMinorVersion = kVersionMinor;
constexpr int kBugVersion = kVersionBug;
constexpr int kBuildVersion = kVersionBuild;

extern "C" {
// Dispatches `cmd` (compared unsigned; unknown codes return 0 and do nothing). An integer
// thrown anywhere below, a missing host suite, becomes the command's result.
VT_EXPORT PF_Err EntryPointFunc(PF_Cmd cmd, PF_InData* in_data, PF_OutData* out_data,
                                PF_ParamDef* params[], PF_LayerDef* output, void* extra);
}

#endif
