// The effect's user-visible texts: its name and description, the parameter names, the popup
// choices and the allocation failure message. The table is exported and writable, as the
// host's tools expect; entry i holds id i.
#ifndef VT_HOST_STRINGS_H
#define VT_HOST_STRINGS_H

#include <cstdint>

#include "host/Exports.h"

struct StringEntry {
  int32_t id;
  char text[256];
};

enum StringId : int32_t {
  kStrNone = 0,
  kStrName,
  kStrDescription,
  kStrErrorLoadingSuite,
  kStrErrorReleasingSuite,
  kStrModeName,
  kStrModeChoices,
  kStrFilterName,
  kStrFilterChoices,
  kStrDistortionName,
  kStrCubicName,
  kStrQuarticName,
  kStrZoomName,
  kStrDistortedSizeName,
  kStrUndistortedSizeName,
  kStrPixelAspectName,
  kStrCount
};

extern "C" {
VT_EXPORT extern StringEntry g_strs[kStrCount];

// The text of entry `id`, by position; no search and no range check (callers pass 1..15).
VT_EXPORT char* GetStringPtr(int32_t id);
}

#endif
