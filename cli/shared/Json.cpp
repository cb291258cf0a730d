#include "cli/shared/Json.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

#include <nlohmann/json.hpp>

namespace veltrisca {

namespace {

using Json = nlohmann::ordered_json;

std::string NonFinite(double v) {
  if (std::isnan(v)) return "NaN";
  return v > 0 ? "Infinity" : "-Infinity";
}

// JSON has no infinities or NaN: those become their names as strings.
Json FloatValue(float v) {
  if (!std::isfinite(v)) return NonFinite(v);
  // The double nearest to the float's 9-digit decimal: written as that decimal (or a shorter
  // one), it still reads back as the same float.
  char text[32];
  std::snprintf(text, sizeof text, "%.9g", static_cast<double>(v));
  return std::strtod(text, nullptr);
}

Json DoubleValue(double v) {
  if (!std::isfinite(v)) return NonFinite(v);
  return v;  // written as the shortest decimal that reads back as the same double
}

std::string Dump(const Json& value) {
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace

std::string JsonFloat(float v) { return Dump(FloatValue(v)); }
std::string JsonDouble(double v) { return Dump(DoubleValue(v)); }
std::string JsonString(const std::string& s) { return Dump(Json(s)); }

struct JsonObjectWriter::Members {
  Json object = Json::object();
};

JsonObjectWriter::JsonObjectWriter(std::ostream& out)
    : out_(out), members_(std::make_unique<Members>()) {}

JsonObjectWriter::~JsonObjectWriter() = default;

void JsonObjectWriter::Int(const char* key, long long v) { members_->object[key] = v; }
void JsonObjectWriter::Float(const char* key, float v) { members_->object[key] = FloatValue(v); }
void JsonObjectWriter::Double(const char* key, double v) {
  members_->object[key] = DoubleValue(v);
}
void JsonObjectWriter::String(const char* key, const std::string& v) {
  members_->object[key] = v;
}
void JsonObjectWriter::Rect(const char* key, const PF_LRect& r) {
  members_->object[key] = Json::array({r.left, r.top, r.right, r.bottom});
}
void JsonObjectWriter::IntPair(const char* key, long long a, long long b) {
  members_->object[key] = Json::array({a, b});
}
void JsonObjectWriter::FloatArray(const char* key, const float* v, size_t n) {
  Json array = Json::array();
  for (size_t i = 0; i < n; ++i) array.push_back(FloatValue(v[i]));
  members_->object[key] = std::move(array);
}

void JsonObjectWriter::Parsed(const char* key, const std::string& json) {
  members_->object[key] = Json::parse(json);
}

namespace {

// A value on one line; array elements and object members separated by ", ".
std::string OneLine(const Json& value) {
  if (value.is_object()) {
    std::string text = "{";
    bool first = true;
    for (const auto& member : value.items()) {
      text += (first ? "" : ", ") + JsonString(member.key()) + ": " + OneLine(member.value());
      first = false;
    }
    return text + "}";
  }
  if (!value.is_array()) return Dump(value);
  std::string text = "[";
  for (size_t i = 0; i < value.size(); ++i) text += (i ? ", " : "") + OneLine(value[i]);
  return text + "]";
}

}  // namespace

// One member per line, each value (arrays too) on its member's line.
void JsonObjectWriter::End() {
  out_ << "{";
  bool first = true;
  for (const auto& member : members_->object.items()) {
    out_ << (first ? "\n  " : ",\n  ") << JsonString(member.key()) << ": " << OneLine(member.value());
    first = false;
  }
  out_ << (first ? "}\n" : "\n}\n");
}

}  // namespace veltrisca
