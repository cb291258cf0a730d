#include "LensFile.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

#include <nlohmann/json.hpp>

#include "CliError.h"

namespace veltrisca {

namespace {

using Json = nlohmann::ordered_json;

enum class Kind { kText, kNumber, kSize };

struct Key {
  const char* name;    // in the file
  const char* option;  // on the command line
  Kind kind;
  std::string LensOptionText::*field;
};

const Key kKeys[] = {
    {"mode", "--mode", Kind::kText, &LensOptionText::mode},
    {"filter", "--filter", Kind::kText, &LensOptionText::filter},
    {"distortion", "--distortion", Kind::kNumber, &LensOptionText::distortion},
    {"cubic", "--cubic", Kind::kNumber, &LensOptionText::cubic},
    {"quartic", "--quartic", Kind::kNumber, &LensOptionText::quartic},
    {"zoom", "--zoom", Kind::kNumber, &LensOptionText::zoom},
    {"pixelAspect", "--pixel-aspect", Kind::kNumber, &LensOptionText::pixelAspect},
    {"distortedSize", "--distorted-size", Kind::kSize, &LensOptionText::distortedSize},
    {"undistortedSize", "--undistorted-size", Kind::kSize, &LensOptionText::undistortedSize},
};
constexpr const char* kCommentKey = "comment";
constexpr long long kMaxFileBytes = 1 << 20;
constexpr int kMaxNesting = 8;  // levels of arrays and objects inside the file's object

std::string KeyList() {
  std::string list;
  for (const Key& k : kKeys) list += std::string(list.empty() ? "" : ", ") + k.name;
  return list + ", " + kCommentKey;
}

// The line of the n-th (0-based) member named `key` of the file's object: where "key" is
// followed by a colon (a string value never is).
int LineOfKey(const std::string& text, const std::string& key, int occurrence) {
  const std::string quoted = "\"" + key + "\"";
  size_t at = 0;
  int seen = 0;
  while ((at = text.find(quoted, at)) != std::string::npos) {
    size_t after = at + quoted.size();
    while (after < text.size() && (text[after] == ' ' || text[after] == '\t' ||
                                   text[after] == '\n' || text[after] == '\r')) {
      ++after;
    }
    if (after < text.size() && text[after] == ':' && seen++ == occurrence) {
      int line = 1;
      for (size_t i = 0; i < at; ++i) line += text[i] == '\n';
      return line;
    }
    at += quoted.size();
  }
  return 0;
}

std::string ReadSmallFile(const std::string& path) {
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) {
    throw IoError(path + ": cannot read the lens file: " + std::strerror(errno));
  }
  if (!S_ISREG(st.st_mode)) throw IoError(path + ": the lens file is not a regular file");
  if (st.st_size > kMaxFileBytes) {
    throw IoError(path + ": a lens file of " + std::to_string(st.st_size) +
                  " bytes is not a lens file (at most 1 MiB)");
  }
  std::ifstream in(path, std::ios::binary);
  if (!in) throw IoError(path + ": cannot read the lens file: " + std::strerror(errno));
  std::ostringstream text;
  text << in.rdbuf();
  if (in.bad()) throw IoError(path + ": cannot read the lens file: " + std::strerror(errno));
  return text.str();
}

// nlohmann's messages start with "[json.exception.parse_error.101] ".
std::string WithoutExceptionId(const std::string& what) {
  const size_t close = what.find("] ");
  return what.rfind("[json.exception.", 0) == 0 && close != std::string::npos
             ? what.substr(close + 2)
             : what;
}

// The value as the command line would have typed it, or "" when its type is wrong.
std::string AsOptionText(const Json& value, Kind kind) {
  switch (kind) {
    case Kind::kText:
      return value.is_string() ? value.get<std::string>() : std::string();
    case Kind::kNumber:
      return value.is_number() ? value.dump() : std::string();
    case Kind::kSize:
      if (value.is_string()) return value.get<std::string>();
      if (value.is_array() && value.size() == 2 && value[0].is_number_integer() &&
          value[1].is_number_integer()) {
        return value[0].dump() + "x" + value[1].dump();
      }
      return std::string();
  }
  return std::string();
}

// What a value is, for messages: a file's value is never repeated (it may be 1 MiB of text,
// or nested so deeply that writing it out would exhaust the stack).
std::string TypeText(const Json& value) {
  switch (value.type()) {
    case Json::value_t::object: return "an object";
    case Json::value_t::array:
      return "an array of " + std::to_string(value.size()) +
             (value.size() == 1 ? " element" : " elements");
    case Json::value_t::string: return "a string";
    case Json::value_t::boolean: return value.get<bool>() ? "true" : "false";
    case Json::value_t::null: return "null";
    case Json::value_t::number_float: return "a fractional number";
    default: return "a number";
  }
}

const char* Expected(Kind kind) {
  switch (kind) {
    case Kind::kText: return "a string";
    case Kind::kNumber: return "a number";
    case Kind::kSize: return "[WIDTH, HEIGHT] or \"WxH\"";
  }
  return "";
}

// Runs the option's own parser on the text, so that the file obeys the same ranges.
void CheckOptionText(const Key& key, const std::string& text) {
  LensOptionText probe;
  probe.*key.field = text;
  ParseLensOptions(probe);
}

}  // namespace

std::vector<std::string> MergeLensFile(
    const std::string& path, LensOptionText* lens,
    const std::function<bool(const std::string& option)>& givenOnCommandLine) {
  const std::string text = ReadSmallFile(path);
  // The member being read (its key and how often that key came before), to say where a
  // value's fault lies; the first key that comes twice.
  std::string key, duplicate;
  int keyOccurrence = 0;
  std::map<std::string, int> seen;
  const auto where = [&]() {
    return key.empty() ? path + ": "
                       : path + ":" + std::to_string(LineOfKey(text, key, keyOccurrence)) +
                             ": key '" + key + "': ";
  };
  const Json::parser_callback_t watch = [&](int depth, nlohmann::json::parse_event_t event,
                                            Json& parsed) {
    using Event = nlohmann::json::parse_event_t;
    if (depth == 1 && event == Event::key) {
      key = parsed.get<std::string>();
      keyOccurrence = seen[key]++;
      if (keyOccurrence == 1 && duplicate.empty()) duplicate = key;
    }
    // The parser itself does not recurse, but a deep value would be costly to hold and to
    // take apart; nothing in a lens file nests beyond a [W, H] pair.
    if ((event == Event::object_start || event == Event::array_start) &&
        depth >= kMaxNesting) {
      throw IoError(where() + (event == Event::array_start ? "arrays" : "objects") +
                    " nested more than " + std::to_string(kMaxNesting) +
                    " deep; a lens file holds numbers, strings and [WIDTH, HEIGHT] pairs");
    }
    return true;
  };
  Json file;
  try {
    file = Json::parse(text, watch);
  } catch (const Json::parse_error& e) {
    throw IoError(path + ": not a lens file: " + WithoutExceptionId(e.what()));
  } catch (const Json::out_of_range&) {
    // The one range error of the parser: a number beyond double's range (1e400).
    throw IoError(where() + "a number beyond the range of a double (about 1.8e308)");
  }
  if (!file.is_object()) {
    throw IoError(path + ": a lens file is one JSON object ({\"distortion\": -50, ...})");
  }
  if (!duplicate.empty()) {
    throw IoError(path + ":" + std::to_string(LineOfKey(text, duplicate, 1)) + ": key '" +
                  duplicate + "' appears twice");
  }
  std::vector<std::string> taken;
  for (const auto& member : file.items()) {
    const std::string& name = member.key();
    const std::string at = path + ":" + std::to_string(LineOfKey(text, name, 0)) + ": ";
    if (name == kCommentKey) continue;
    const Key* key = nullptr;
    for (const Key& k : kKeys) {
      if (name == k.name) key = &k;
    }
    if (!key) throw IoError(at + "unknown key '" + name + "' (lens keys: " + KeyList() + ")");
    const std::string value = AsOptionText(member.value(), key->kind);
    if (value.empty()) {
      throw IoError(at + "key '" + name + "': expected " + Expected(key->kind) + ", got " +
                    TypeText(member.value()));
    }
    try {
      CheckOptionText(*key, value);
    } catch (const CliError& e) {
      // The option's message begins with the option's name; the key replaces it.
      std::string message = e.what();
      const std::string prefix = std::string(key->option) + ": ";
      if (message.rfind(prefix, 0) == 0) message = message.substr(prefix.size());
      throw IoError(at + "key '" + name + "': " + message);
    }
    if (!givenOnCommandLine(key->option)) {
      lens->*key->field = value;
      taken.push_back(name);
    }
  }
  return taken;
}

std::string LensFileText(const LensSettings& s, const std::string& comment) {
  static const char* const kFilters[] = {"builtin", "nearest", "bilinear",
                                         "lanczos2", "lanczos3", "mitchell"};
  Json file = Json::object();
  if (!comment.empty()) file[kCommentKey] = comment;
  file["mode"] = s.mode == kModeApply ? "apply" : "remove";
  file["filter"] = (s.filter >= 1 && s.filter <= 6) ? kFilters[s.filter - 1] : "lanczos2";
  file["distortion"] = s.distortion;
  file["cubic"] = s.cubic;
  file["quartic"] = s.quartic;
  file["zoom"] = s.zoom;
  file["pixelAspect"] = s.pixelAspect;
  if (s.distortedSize) {
    file["distortedSize"] = Json::array({s.distortedSize->width, s.distortedSize->height});
  }
  if (s.undistortedSize) {
    file["undistortedSize"] = Json::array({s.undistortedSize->width, s.undistortedSize->height});
  }
  return file.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace veltrisca
