#include "host/BuildStamp.h"

#include "EffectBuildId.h"

namespace {

// Kept in the library although nothing in it reads the stamp.
__attribute__((used)) const char kStamp[] = VT_BUILD_STAMP_PREFIX VT_EFFECT_BUILD_ID;
static_assert(sizeof kStamp == sizeof kBuildStampPrefix + kBuildIdLength, "a 16-digit stamp");

}  // namespace

const char* EffectBuildId() { return kStamp + sizeof kBuildStampPrefix - 1; }
