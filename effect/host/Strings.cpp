#include "host/Strings.h"

#include "common/EffectParams.h"

namespace {

// An entry of the table, its text copied into the record's array at compile time.
constexpr StringEntry Entry(StringId id, const char* text) {
  StringEntry e{id, {}};
  for (int i = 0; text[i] != '\0'; ++i) e.text[i] = text[i];
  return e;
}

// The name of the parameter whose name is entry `id`, or its popup choices joined by '|'.
constexpr StringEntry ParamText(StringId id) {
  StringEntry e{id, {}};
  for (const ParamEntry& param : kParamTable) {
    if (param.hostNameText == id) return Entry(id, param.hostName);
    if (param.kind == ParamKind::kPopup && param.choicesText == id) {
      int at = 0;
      for (int32_t c = 0; c < param.choiceCount; ++c) {
        if (c > 0) e.text[at++] = '|';
        for (const char* t = param.choices[c].hostText; *t != '\0'; ++t) e.text[at++] = *t;
      }
      return e;
    }
  }
  return e;
}

}  // namespace

StringEntry g_strs[kStrCount] = {
    Entry(kStrNone, ""),
    Entry(kStrName, "Veltrisca Distortion"),
    Entry(kStrDescription, "Veltrisca camera-matching lens distortion plugin."),
    Entry(kStrErrorLoadingSuite, "Error loading suite."),
    Entry(kStrErrorReleasingSuite, "Error releasing suite."),
    ParamText(kStrModeName),
    ParamText(kStrModeChoices),
    ParamText(kStrFilterName),
    ParamText(kStrFilterChoices),
    ParamText(kStrDistortionName),
    ParamText(kStrCubicName),
    ParamText(kStrQuarticName),
    ParamText(kStrZoomName),
    ParamText(kStrDistortedSizeName),
    ParamText(kStrUndistortedSizeName),
    ParamText(kStrPixelAspectName),
};

char* GetStringPtr(int32_t id) { return g_strs[id].text; }
