// Which filter renders each channel of an image.
//
// The kernel filters (Lanczos-2, Lanczos-3, Mitchell-Netravali) clip what they compute to 0
// and up, and every filter but Nearest blends neighbouring values. Both are right for colour
// and wrong for other passes: a normals or motion pass loses its negative half, and an ID
// blended with its neighbour becomes an ID that nothing has. So a channel's name decides its
// route: colour takes the filter the user chose; data (depth, normals, positions, motion, UVs)
// takes BiLinear or Nearest, which never clip; IDs take Nearest, which never blends.
// --channel-filter PATTERN=FILTER overrides that by glob on the channel names.
#ifndef VT_CLI_CHANNELFILTERS_H
#define VT_CLI_CHANNELFILTERS_H

#include <string>
#include <vector>

namespace veltrisca {

// What a channel's name says it holds.
enum class ChannelKind { kColour, kDepth, kNormal, kPosition, kMotion, kUv, kId };

// The kind of a channel by its name, case-insensitively. The name's layer (the part before
// its last '.', or the whole name without one) is split into words at punctuation, digits and
// lower-to-upper case changes ("VRayMtlID" -> v, ray, mtl, id); then, the first that applies:
//   ID       a word id, ids or index, a word starting with crypto, or one of objectid,
//            materialid, matid, objid, mtlid, instanceid, renderid
//   depth    z, depth, zdepth
//   normal   n, nn, normal, normals
//   position p, ps, pw, pworld, pref, pos, position, positions
//   motion   motion, motionvector(s), vector(s), velocity, vel, mv, forward, backward
//   UV       uv, uvs, st
//   colour   everything else (R, G, B, A, beauty.R, diffuse.G, Y, ...)
ChannelKind KindOfChannel(const std::string& name);
const char* KindName(ChannelKind kind);  // "colour", "depth", ... "ID"
// The default filter of a kind: colourFilter for colour (and the alpha channel), Nearest for
// depth, motion and IDs, BiLinear for normals, positions and UVs.
int DefaultFilter(ChannelKind kind, int colourFilter);

// One --channel-filter PATTERN=FILTER.
struct ChannelFilterRule {
  std::string pattern;  // glob (fnmatch), case-sensitive like the names it matches
  int filter = 0;
  std::string text;  // as given, for messages
};
// Parses the values of --channel-filter; throws CliError(kExitUsage) naming the option.
std::vector<ChannelFilterRule> ParseChannelFilters(const std::vector<std::string>& values);

struct ChannelFilter {
  int filter = 0;
  ChannelKind kind = ChannelKind::kColour;
  bool alpha = false;
  int rule = -1;  // the --channel-filter that chose the filter (the last that matches), or -1
};
// The filter of every channel of `names`; the one at alphaIndex (if any) is colour.
std::vector<ChannelFilter> ChooseChannelFilters(const std::vector<std::string>& names,
                                                int alphaIndex, int colourFilter,
                                                const std::vector<ChannelFilterRule>& rules);
// "R,G,B,A Lanczos-2 (colour); N.x,N.y,N.z BiLinear (normal); Z Nearest (depth)": channels
// grouped by filter and reason, in the order they first appear; `reasons` adds the brackets.
std::string ChannelFiltersText(const std::vector<std::string>& names,
                               const std::vector<ChannelFilter>& filters,
                               const std::vector<ChannelFilterRule>& rules, bool reasons);

}  // namespace veltrisca

#endif
