#include "Json.h"

#include <cmath>
#include <cstdio>

namespace veltrisca {

namespace {

std::string NonFinite(double v) {
  if (std::isnan(v)) return "\"NaN\"";
  return v > 0 ? "\"Infinity\"" : "\"-Infinity\"";
}

}  // namespace

std::string JsonFloat(float v) {
  if (!std::isfinite(v)) return NonFinite(v);
  char text[32];
  std::snprintf(text, sizeof text, "%.9g", static_cast<double>(v));
  return text;
}

std::string JsonDouble(double v) {
  if (!std::isfinite(v)) return NonFinite(v);
  char text[40];
  std::snprintf(text, sizeof text, "%.17g", v);
  return text;
}

std::string JsonString(const std::string& s) {
  std::string out = "\"";
  for (const char ch : s) {
    const unsigned char c = static_cast<unsigned char>(ch);
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\b': out += "\\b"; break;
      case '\f': out += "\\f"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20) {
          char esc[8];
          std::snprintf(esc, sizeof esc, "\\u%04x", c);
          out += esc;
        } else {
          out += ch;
        }
    }
  }
  return out + "\"";
}

JsonObjectWriter::JsonObjectWriter(std::ostream& out) : out_(out) { out_ << "{"; }

void JsonObjectWriter::Key(const char* key) {
  out_ << (first_ ? "\n  " : ",\n  ") << JsonString(key) << ": ";
  first_ = false;
}

void JsonObjectWriter::Int(const char* key, long long v) {
  Key(key);
  out_ << v;
}

void JsonObjectWriter::Float(const char* key, float v) {
  Key(key);
  out_ << JsonFloat(v);
}

void JsonObjectWriter::Double(const char* key, double v) {
  Key(key);
  out_ << JsonDouble(v);
}

void JsonObjectWriter::String(const char* key, const std::string& v) {
  Key(key);
  out_ << JsonString(v);
}

void JsonObjectWriter::Rect(const char* key, const PF_LRect& r) {
  Key(key);
  out_ << "[" << r.left << ", " << r.top << ", " << r.right << ", " << r.bottom << "]";
}

void JsonObjectWriter::IntPair(const char* key, long long a, long long b) {
  Key(key);
  out_ << "[" << a << ", " << b << "]";
}

void JsonObjectWriter::FloatArray(const char* key, const float* v, size_t n) {
  Key(key);
  out_ << "[";
  for (size_t i = 0; i < n; ++i) out_ << (i ? ", " : "") << JsonFloat(v[i]);
  out_ << "]";
}

void JsonObjectWriter::End() { out_ << (first_ ? "}\n" : "\n}\n"); }

}  // namespace veltrisca
