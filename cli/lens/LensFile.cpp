#include "cli/lens/LensFile.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

#include <OpenImageIO/strutil.h>
#include <nlohmann/json.hpp>

#include "cli/shared/Errors.h"

namespace veltrisca {

namespace {

using Json = nlohmann::ordered_json;

// A key of lens files and recorded lenses: the parameter table's entry, read as text, number
// or size.
enum class Kind { kText, kNumber, kSize };

struct Key {
  const char* name;    // in the file
  const char* option;  // on the command line
  Kind kind;
  int index;           // the parameter
};

Key KeyOf(const ParamEntry& param) {
  const Kind kind = param.kind == ParamKind::kPopup        ? Kind::kText
                    : param.kind == ParamKind::kFloatSlider ? Kind::kNumber
                                                            : Kind::kSize;
  return Key{param.lensKey, param.option, kind, param.index};
}

// The keys in the order of a lens file.
const std::vector<Key>& Keys() {
  static const std::vector<Key> keys = [] {
    std::vector<Key> k;
    for (const ParamEntry* param : LensOptionOrder()) k.push_back(KeyOf(*param));
    return k;
  }();
  return keys;
}
constexpr const char* kCommentKey = "comment";
constexpr const char* kRecordPrefix = "veltrisca:";
constexpr long long kMaxFileBytes = 1 << 20;
constexpr int kMaxNesting = 8;  // levels of arrays and objects inside the file's object

std::string KeyList() {
  std::string list;
  for (const Key& k : Keys()) list += std::string(list.empty() ? "" : ", ") + k.name;
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
  probe[key.index] = text;
  ParseLensOptions(probe);
}

bool Contains(const std::vector<std::string>& list, const std::string& item) {
  return std::find(list.begin(), list.end(), item) != list.end();
}

// Two option texts of a key that mean the same value; numbers at single precision, the
// precision a record may hold.
bool SameValue(const Key& key, const std::string& a, const std::string& b) {
  try {
    switch (key.kind) {
      case Kind::kText:
        return ParseChoice(key.index, a) == ParseChoice(key.index, b);
      case Kind::kNumber:
      {
        double x = 0, y = 0;
        return ReadReal(a, &x) && ReadReal(b, &y) &&
               static_cast<float>(x) == static_cast<float>(y);
      }
      case Kind::kSize: {
        const ImageSize sa = ParseSize(key.option, a), sb = ParseSize(key.option, b);
        return sa.width == sb.width && sa.height == sb.height;
      }
    }
  } catch (const CliError&) {
  }
  return false;
}

// The option text of a recorded attribute, or "" when its type is not the key's.
std::string RecordedText(const OIIO::ParamValue& p, Kind kind, int index) {
  const OIIO::TypeDesc t = p.type();
  switch (kind) {
    case Kind::kText: {
      if (t != OIIO::TypeString) return std::string();
      // Recorded as the host shows the choice ("Lanczos-2"); older records wrote the word.
      const std::string text = p.get_string();
      const ParamEntry& param = Param(index);
      for (int c = 1; c <= param.choiceCount; ++c) {
        if (text == ChoiceName(index, c)) return ChoiceWord(index, c);
      }
      return OIIO::Strutil::lower(text);
    }
    case Kind::kNumber:
      if (t.basevalues() != 1 || (t.basetype != OIIO::TypeDesc::FLOAT &&
                                  t.basetype != OIIO::TypeDesc::DOUBLE)) {
        return std::string();
      }
      return AsOptionText(Json(t.basetype == OIIO::TypeDesc::DOUBLE
                                   ? *static_cast<const double*>(p.data())
                                   : double{*static_cast<const float*>(p.data())}),
                          Kind::kNumber);
    case Kind::kSize: {
      if (t.basevalues() != 2 || t.basetype != OIIO::TypeDesc::INT) return std::string();
      const int* v = static_cast<const int*>(p.data());
      return std::to_string(v[0]) + "x" + std::to_string(v[1]);
    }
  }
  return std::string();
}

// The lens the image at `path` records; nullopt when `path` is no image (a lens file, say).
// An image that records none is refused.
std::optional<RecordedLens> RecordedLensOfImage(const std::string& path) {
  struct stat st {};
  if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return std::nullopt;
  {
    // A lens file is one JSON object: it begins with '{'.
    std::ifstream in(path, std::ios::binary);
    char c = 0;
    while (in.get(c) && std::isspace(static_cast<unsigned char>(c))) {
    }
    if (!in || c == '{') return std::nullopt;
  }
  auto image = OIIO::ImageInput::open(path);
  if (!image) {
    OIIO::geterror();  // not an image: the lens file reader says what it is
    return std::nullopt;
  }
  std::optional<RecordedLens> recorded = ReadRecordedLens(image->spec(), path);
  image->close();
  if (!recorded) {
    throw IoError(path + ": the image records no lens (the veltrisca: attributes render writes " +
                  "into OpenEXR files); --lens takes a lens file or such an image");
  }
  return recorded;
}

}  // namespace

std::vector<std::string> MergeLensFile(
    const std::string& path, LensOptionText* lens,
    const std::function<bool(const std::string& option)>& givenOnCommandLine) {
  if (const std::optional<RecordedLens> recorded = RecordedLensOfImage(path)) {
    std::vector<std::string> taken;
    for (const Key& k : Keys()) {
      if (k.index == kParamMode || givenOnCommandLine(k.option)) continue;
      (*lens)[k.index] = recorded->Value(k.name);
      taken.push_back(k.name);
    }
    return taken;
  }
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
    for (const Key& k : Keys()) {
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
      (*lens)[key->index] = value;
      taken.push_back(name);
    }
  }
  return taken;
}

std::string LensFileText(const LensSettings& s, const std::string& comment) {
  Json file = Json::object();
  if (!comment.empty()) file[kCommentKey] = comment;
  for (const Key& k : Keys()) {
    switch (k.kind) {
      case Kind::kText: {
        const int choice = SettingChoice(s, k.index);
        file[k.name] = ChoiceWord(k.index, choice >= 1 && choice <= Param(k.index).choiceCount
                                               ? choice
                                               : Param(k.index).defaultChoice);
        break;
      }
      case Kind::kNumber: file[k.name] = SettingNumber(s, k.index); break;
      case Kind::kSize:
        if (const std::optional<ImageSize> size = SettingSize(s, k.index)) {
          file[k.name] = Json::array({size->width, size->height});
        }
        break;
    }
  }
  return file.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::vector<std::string> GivenLensKeys(
    const std::function<bool(const std::string& option)>& givenOnCommandLine,
    const std::vector<std::string>& taken) {
  std::vector<std::string> given;
  for (const Key& k : Keys()) {
    if (givenOnCommandLine(k.option) || Contains(taken, k.name)) given.push_back(k.name);
  }
  return given;
}

std::string RecordedLens::Value(const std::string& key) const {
  for (const auto& [name, value] : values) {
    if (name == key) return value;
  }
  return std::string();
}

std::string RecordedLens::Text() const {
  std::string text;
  for (const Key& k : Keys()) {
    const std::string value = Value(k.name);
    text += text.empty() ? "" : ", ";
    text += k.kind == Kind::kText ? value : std::string(k.option + 2) + " " + value;
  }
  return text;
}

std::string RecordedLens::LensFile() const {
  LensOptionText lens;
  for (const Key& k : Keys()) lens[k.index] = Value(k.name);
  return LensFileText(ParseLensOptions(lens), "");
}

void RecordLens(const LensSettings& settings, const LensSizes& sizes,
                OIIO::ParamValueList* header) {
  const auto name = [](const char* key) { return std::string(kRecordPrefix) + key; };
  const auto number = [&](const char* key, double v) {
    header->attribute(name(key), OIIO::TypeDesc::DOUBLE, &v);
  };
  const auto size = [&](const char* key, ImageSize s) {
    const int v[2] = {s.width, s.height};
    header->attribute(name(key), OIIO::TypeDesc(OIIO::TypeDesc::INT, 2), v);
  };
  for (const Key& k : Keys()) {
    switch (k.kind) {
      case Kind::kText:
        header->attribute(name(k.name),
                          std::string(ChoiceName(k.index, SettingChoice(settings, k.index))));
        break;
      case Kind::kNumber: number(k.name, SettingNumber(settings, k.index)); break;
      case Kind::kSize:
        size(k.name, k.index == kParamDistortedSize ? sizes.distorted : sizes.undistorted);
        break;
    }
  }
}

std::optional<RecordedLens> ReadRecordedLens(const OIIO::ImageSpec& spec,
                                             const std::string& path) {
  RecordedLens recorded;
  for (const Key& k : Keys()) {
    const std::string attribute = kRecordPrefix + std::string(k.name);
    const OIIO::ParamValue* p = spec.find_attribute(attribute);
    if (!p) return std::nullopt;
    const std::string value = RecordedText(*p, k.kind, k.index);
    if (value.empty()) {
      throw IoError(path + ": " + attribute + " is not " + Expected(k.kind) +
                    " (the lens it records is damaged)");
    }
    try {
      CheckOptionText(k, value);
    } catch (const CliError& e) {
      std::string message = e.what();
      const std::string prefix = std::string(k.option) + ": ";
      if (message.rfind(prefix, 0) == 0) message = message.substr(prefix.size());
      throw IoError(path + ": " + attribute + ": " + message);
    }
    recorded.values.emplace_back(k.name, value);
  }
  return recorded;
}

ImageLens LensForImage(const LensOptionText& given, const std::optional<RecordedLens>& recorded,
                       bool fit) {
  ImageLens out;
  out.lens = given;
  if (!recorded) return out;
  const auto isGiven = [&given](const char* key) { return Contains(given.given, key); };
  const int recordedMode = ParseMode(recorded->Value(Param(kParamMode).lensKey));
  const bool removed = recordedMode == kModeRemove;
  const std::string what = std::string("the input records the lens ") +
                           (removed ? "removed from its plate" : "applied to it") + " (" +
                           ModeName(recordedMode) + ", distortion " +
                           recorded->Value(Param(kParamDistortion).lensKey) + ")";
  int mode = 0;
  if (isGiven(Param(kParamMode).lensKey)) {
    mode = ParseMode(given[kParamMode]);
  } else if (fit) {
    mode = kModeRemove;  // --fit sizes a remove
  } else {
    mode = removed ? kModeApply : kModeRemove;
    out.lens[kParamMode] = ChoiceWord(kParamMode, mode);
    out.notes.push_back("note: " + what + "; rendering " + ModeName(mode) +
                        (removed ? " puts it back" : " takes it off") + " (--mode chooses)");
  }
  if (mode == recordedMode) {
    out.notes.push_back("warning: " + what + "; " + (removed ? "removing" : "applying") +
                        " again uses the lens options given, not the record");
    return out;
  }
  // The size of the image itself (the undistorted size in Apply) is its frame, as for any
  // image: the record's is the same unless the image was cropped or scaled since.
  const int tied = mode == kModeApply ? kParamUndistortedSize : kParamDistortedSize;
  for (const Key& k : Keys()) {
    if (k.index == kParamMode) continue;
    if (fit && k.index == kParamUndistortedSize) continue;  // --fit chooses it
    const std::string value = recorded->Value(k.name);
    if (!isGiven(k.name)) {
      if (k.index == tied) continue;
      out.lens[k.index] = value;
      out.lens.given.push_back(k.name);
    } else if (!SameValue(k, given[k.index], value)) {
      out.notes.push_back("warning: " + std::string(k.option) + " " + given[k.index] +
                          " overrides the input's recorded " + (k.option + 2) + " " + value);
    }
  }
  return out;
}

bool SameRecord(const RecordedLens& recorded, const RecordedLens& wanted, std::string* difference) {
  for (const Key& k : Keys()) {
    const std::string value = recorded.Value(k.name), want = wanted.Value(k.name);
    if (!SameValue(k, value, want)) {
      *difference = std::string(k.option + 2) + " " + value + ", not " + want;
      return false;
    }
  }
  return true;
}

}  // namespace veltrisca
