// The version of the effect and of the tool that drives it, which are released together.
// The effect reports it in its About text and, packed, at global setup; the tool in --version
// and in the files it writes. The host-side descriptions (effect/description/) carry the
// packed value too: the substitute host refuses a plug-in whose report differs from its
// description.
#ifndef VT_COMMON_VERSION_H
#define VT_COMMON_VERSION_H

#include <string>

constexpr int kVersionMajor = 1;
constexpr int kVersionMinor = 2;
constexpr int kVersionBug = 0;
constexpr int kVersionBuild = 1;

// "1.2".
inline std::string VersionText() {
  return std::to_string(kVersionMajor) + "." + std::to_string(kVersionMinor);
}

#endif  // VT_COMMON_VERSION_H
