#include "cli/render/ChannelFilters.h"

#include <fnmatch.h>

#include <algorithm>
#include <cctype>

#include "cli/shared/Errors.h"
#include "cli/lens/LensOptions.h"

namespace veltrisca {

namespace {

// Lower-case words of a layer name: split at anything not a letter, at digits, between a
// lower-case and an upper-case letter, and before the last capital of a run of capitals that
// starts a word ("VRayZDepth" -> v, ray, z, depth; "IndexOB" -> index, ob).
std::vector<std::string> Words(const std::string& text) {
  std::vector<std::string> words;
  std::string word;
  auto flush = [&] {
    if (!word.empty()) words.push_back(word);
    word.clear();
  };
  for (size_t i = 0; i < text.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (!std::isalpha(c)) {
      flush();
      continue;
    }
    if (std::isupper(c) && !word.empty()) {
      const unsigned char before = static_cast<unsigned char>(text[i - 1]);
      const bool nextLower = i + 1 < text.size() &&
                             std::islower(static_cast<unsigned char>(text[i + 1]));
      if (std::islower(before) || (std::isupper(before) && nextLower)) flush();
    }
    word += static_cast<char>(std::tolower(c));
  }
  flush();
  return words;
}

bool AnyOf(const std::vector<std::string>& words, std::initializer_list<const char*> names) {
  for (const std::string& w : words) {
    for (const char* n : names) {
      if (w == n) return true;
    }
  }
  return false;
}

}  // namespace

ChannelKind KindOfChannel(const std::string& name) {
  const size_t dot = name.rfind('.');
  const std::vector<std::string> words =
      Words(dot == std::string::npos || dot == 0 ? name : name.substr(0, dot));
  for (const std::string& w : words) {
    if (w.rfind("crypto", 0) == 0) return ChannelKind::kId;
  }
  if (AnyOf(words, {"id", "ids", "index", "objectid", "materialid", "matid", "objid", "mtlid",
                    "instanceid", "renderid"})) {
    return ChannelKind::kId;
  }
  if (AnyOf(words, {"z", "depth", "zdepth"})) return ChannelKind::kDepth;
  if (AnyOf(words, {"n", "nn", "normal", "normals"})) return ChannelKind::kNormal;
  if (AnyOf(words, {"p", "ps", "pw", "pworld", "pref", "pos", "position", "positions"})) {
    return ChannelKind::kPosition;
  }
  if (AnyOf(words, {"motion", "motionvector", "motionvectors", "vector", "vectors", "velocity",
                    "vel", "mv", "forward", "backward"})) {
    return ChannelKind::kMotion;
  }
  if (AnyOf(words, {"uv", "uvs", "st"})) return ChannelKind::kUv;
  return ChannelKind::kColour;
}

const char* KindName(ChannelKind kind) {
  switch (kind) {
    case ChannelKind::kDepth: return "depth";
    case ChannelKind::kNormal: return "normal";
    case ChannelKind::kPosition: return "position";
    case ChannelKind::kMotion: return "motion";
    case ChannelKind::kUv: return "UV";
    case ChannelKind::kId: return "ID";
    default: return "colour";
  }
}

int DefaultFilter(ChannelKind kind, int colourFilter) {
  switch (kind) {
    case ChannelKind::kColour: return colourFilter;
    case ChannelKind::kNormal:
    case ChannelKind::kPosition:
    case ChannelKind::kUv: return kFilterBiLinear;
    default: return kFilterNearest;
  }
}

std::vector<ChannelFilterRule> ParseChannelFilters(const std::vector<std::string>& values) {
  std::vector<ChannelFilterRule> rules;
  for (const std::string& text : values) {
    const size_t eq = text.rfind('=');
    const std::string option = "--channel-filter " + text;
    if (eq == std::string::npos || eq == 0 || eq + 1 == text.size()) {
      throw UsageError("--channel-filter: expected PATTERN=FILTER (e.g. 'N.*=nearest'), got \"" +
                       text + "\"");
    }
    rules.push_back({text.substr(0, eq), ParseFilter(text.substr(eq + 1), option), text});
  }
  return rules;
}

std::vector<ChannelFilter> ChooseChannelFilters(const std::vector<std::string>& names,
                                                int alphaIndex, int colourFilter,
                                                const std::vector<ChannelFilterRule>& rules) {
  std::vector<ChannelFilter> filters(names.size());
  for (size_t c = 0; c < names.size(); ++c) {
    ChannelFilter& f = filters[c];
    f.alpha = static_cast<int>(c) == alphaIndex;
    f.kind = f.alpha ? ChannelKind::kColour : KindOfChannel(names[c]);
    f.filter = DefaultFilter(f.kind, colourFilter);
    for (size_t r = 0; r < rules.size(); ++r) {
      if (fnmatch(rules[r].pattern.c_str(), names[c].c_str(), 0) == 0) {
        f.filter = rules[r].filter;
        f.rule = static_cast<int>(r);
      }
    }
  }
  return filters;
}

std::string ChannelFiltersText(const std::vector<std::string>& names,
                               const std::vector<ChannelFilter>& filters,
                               const std::vector<ChannelFilterRule>& rules, bool reasons) {
  struct Group {
    std::string label, channels;
  };
  std::vector<Group> groups;
  for (size_t c = 0; c < names.size() && c < filters.size(); ++c) {
    const ChannelFilter& f = filters[c];
    std::string label = FilterName(f.filter);
    if (reasons) {
      label += f.rule >= 0 ? " (--channel-filter " + rules[static_cast<size_t>(f.rule)].text + ")"
               : f.alpha   ? std::string(" (alpha)")
                           : " (" + std::string(KindName(f.kind)) + ")";
    }
    auto g = std::find_if(groups.begin(), groups.end(),
                          [&](const Group& x) { return x.label == label; });
    if (g == groups.end()) g = groups.insert(groups.end(), Group{label, ""});
    g->channels += (g->channels.empty() ? "" : ",") + names[c];
  }
  std::string text;
  for (const Group& g : groups) text += (text.empty() ? "" : "; ") + g.channels + " " + g.label;
  return text;
}

}  // namespace veltrisca
