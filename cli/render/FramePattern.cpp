#include "cli/render/FramePattern.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <set>
#include <system_error>

#include "cli/shared/Errors.h"
#include "cli/shared/Numbers.h"

namespace veltrisca {

namespace {

constexpr long long kMaxListFrames = 1000000;

bool IsDigit(char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; }

// A whole number of digits only; false otherwise. A number beyond kMaxFrame is refused naming
// the limit (`what` names its place: "the frame list ...").
bool ToFrame(const std::string& text, int* frame, const std::string& what = std::string()) {
  if (text.empty() || !std::all_of(text.begin(), text.end(), IsDigit)) return false;
  const size_t first = std::min(text.find_first_not_of('0'), text.size());
  if (text.size() - first > 8) {
    if (what.empty()) return false;
    throw UsageError(what + ": " + text + " is beyond the largest frame number, " +
                     std::to_string(kMaxFrame));
  }
  long long value = 0;
  if (!ReadWhole(text, &value)) return false;
  *frame = static_cast<int>(value);
  return true;
}

// One printf-style frame field at text[at] ('%'): "%d" or "%0Nd". Returns its length and
// padding, or 0 when the '%' starts no field (it is then part of the name).
size_t PrintfField(const std::string& option, const std::string& text, size_t at, int* digits) {
  size_t i = at + 1;
  const size_t digitsStart = i;
  while (i < text.size() && IsDigit(text[i])) ++i;
  if (i >= text.size() || text[i] != 'd') return 0;
  const std::string width = text.substr(digitsStart, i - digitsStart);
  if (width.empty()) {
    *digits = 0;
  } else if (width[0] != '0' || width.size() < 2 || width.size() > 3) {
    throw UsageError(option + ": " + text.substr(at, i + 1 - at) +
                     " pads with spaces or not at all; write %0Nd (e.g. %04d) for zero padding");
  } else {
    *digits = std::stoi(width.substr(1));
    if (*digits < 1 || *digits > 8) {
      throw UsageError(option + ": " + text.substr(at, i + 1 - at) +
                       ": the padding must be 1 to 8 digits");
    }
  }
  return i + 1 - at;
}

}  // namespace

std::optional<FramePattern> ParseFramePattern(const std::string& option, const std::string& path,
                                              bool allowInlineList) {
  // Only the file name may hold the pattern: folders are taken as they are written.
  const size_t nameStart = path.rfind('/') == std::string::npos ? 0 : path.rfind('/') + 1;
  std::optional<FramePattern> found;
  size_t fieldStart = 0, fieldLength = 0;
  for (size_t i = nameStart; i < path.size(); ++i) {
    int digits = 0;
    size_t length = 0;
    if (path[i] == '#' || path[i] == '@') {
      while (i + length < path.size() && path[i + length] == path[i]) ++length;
      digits = (path[i] == '#' && length == 1) ? 4 : static_cast<int>(length);
      if (digits > 8) throw UsageError(option + ": a frame number of more than 8 digits");
    } else if (path[i] == '%') {
      length = PrintfField(option, path, i, &digits);
      if (length == 0) continue;
    } else {
      continue;
    }
    if (found) {
      throw UsageError(option + ": " + path + " holds two frame numbers; give one");
    }
    found = FramePattern{};
    found->digits = digits;
    fieldStart = i;
    fieldLength = length;
    i += length - 1;
  }
  if (!found) return std::nullopt;
  found->prefix = path.substr(0, fieldStart);
  found->suffix = path.substr(fieldStart + fieldLength);
  if (path[fieldStart] != '%') {
    // The longest run of list characters before the field, from its first digit.
    size_t listStart = fieldStart;
    while (listStart > nameStart && (IsDigit(path[listStart - 1]) || path[listStart - 1] == '-' ||
                                     path[listStart - 1] == ',' || path[listStart - 1] == 'x')) {
      --listStart;
    }
    while (listStart < fieldStart && !IsDigit(path[listStart])) ++listStart;
    const std::string list = path.substr(listStart, fieldStart - listStart);
    // A lone number before the field is part of the name (shot10#.exr); a list has a range or
    // a comma.
    if (list.find_first_of("-,") != std::string::npos && !allowInlineList) {
      // OUT: a list is refused; what does not parse as one is part of the name (out-v2-#.exr).
      bool isList = true;
      try {
        ParseFrameList(option, list);
      } catch (const CliError&) {
        isList = false;
      }
      if (isList) {
        throw UsageError(option + ": " + path + " holds a frame list (" + list +
                         ") before its frame number; only IN takes one: name the frames in IN " +
                         "or with --frames, and write " + option + " as " + path.substr(0, listStart) +
                         path.substr(fieldStart));
      }
    } else if (list.find_first_of("-,") != std::string::npos) {
      found->inlineFrames = ParseFrameList(option, list);
      found->prefix = path.substr(0, listStart);
    }
  }
  return found;
}

std::string FramePath(const FramePattern& pattern, int frame) {
  std::string number = std::to_string(frame);
  if (static_cast<int>(number.size()) < pattern.digits) {
    number.insert(0, static_cast<size_t>(pattern.digits) - number.size(), '0');
  }
  return pattern.prefix + number + pattern.suffix;
}

std::vector<int> ParseFrameList(const std::string& option, const std::string& text) {
  auto Bad = [&](const std::string& why) {
    return UsageError(option + ": \"" + text + "\" " + why +
                      " (frame lists: 1001-1100, 1001-1100x2, 1001,1005,1010-1020 or 1001)");
  };
  std::vector<int> frames;
  std::set<int> seen;
  size_t start = 0;
  while (true) {
    const size_t comma = text.find(',', start);
    const std::string item =
        text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
    const size_t dash = item.find('-');
    const size_t x = item.find('x');
    int first = 0, last = 0, step = 1;
    const std::string what = option + ": \"" + text + "\"";
    if (!ToFrame(item.substr(0, dash), &first, what)) throw Bad("is not a frame list");
    last = first;
    if (dash != std::string::npos) {
      const std::string lastText =
          item.substr(dash + 1, x == std::string::npos ? std::string::npos : x - dash - 1);
      if (!ToFrame(lastText, &last, what)) throw Bad("is not a frame list");
      if (x != std::string::npos && !ToFrame(item.substr(x + 1), &step, what)) {
        throw Bad("is not a frame list");
      }
      if (last < first) throw Bad("holds a range that runs backwards");
      if (step == 0) throw Bad("holds a step of 0");
    } else if (x != std::string::npos) {
      throw Bad("has a step without a range");
    }
    if ((static_cast<long long>(last) - first) / step + static_cast<long long>(frames.size()) >=
        kMaxListFrames) {
      throw Bad("holds more than a million frames");
    }
    for (long long f = first; f <= last; f += step) {
      if (seen.insert(static_cast<int>(f)).second) frames.push_back(static_cast<int>(f));
    }
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  return frames;
}

std::vector<int> FramesOnDisk(const FramePattern& pattern) {
  namespace fs = std::filesystem;
  const size_t slash = pattern.prefix.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : pattern.prefix.substr(0, slash + 1);
  const std::string namePrefix =
      slash == std::string::npos ? pattern.prefix : pattern.prefix.substr(slash + 1);
  std::vector<int> frames;
  std::error_code ec;
  for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
    const std::string name = it->path().filename().string();
    if (name.size() <= namePrefix.size() + pattern.suffix.size() ||
        name.compare(0, namePrefix.size(), namePrefix) != 0 ||
        name.compare(name.size() - pattern.suffix.size(), std::string::npos, pattern.suffix) != 0) {
      continue;
    }
    const std::string number = name.substr(
        namePrefix.size(), name.size() - namePrefix.size() - pattern.suffix.size());
    int frame = 0;
    std::error_code fileError;
    // Only names the pattern itself writes: plate.01.exr is not frame 1 of plate.####.exr.
    if (ToFrame(number, &frame) && FramePath(pattern, frame) == pattern.prefix + number +
                                                                   pattern.suffix &&
        fs::is_regular_file(it->path(), fileError)) {
      frames.push_back(frame);
    }
  }
  std::sort(frames.begin(), frames.end());
  return frames;
}

std::string FrameListText(const std::vector<int>& frames) {
  std::string text;
  for (size_t i = 0; i < frames.size();) {
    size_t j = i;
    while (j + 1 < frames.size() && frames[j + 1] == frames[j] + 1) ++j;
    text += (text.empty() ? "" : ",") + std::to_string(frames[i]);
    if (j > i) text += "-" + std::to_string(frames[j]);
    i = j + 1;
  }
  return text;
}

std::string FramesText(const std::vector<int>& frames) {
  return (frames.size() == 1 ? "frame " : "frames ") + FrameListText(frames);
}

}  // namespace veltrisca
