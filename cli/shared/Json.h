// JSON for the tool's reports, through nlohmann-json. Numbers are written so that they read
// back as the same value: floats with at most 9 significant digits, doubles as the shortest
// decimal that reads back. JSON has no infinities or NaN: those are written as the strings
// "Infinity", "-Infinity" and "NaN".
#ifndef VT_CLI_JSON_H
#define VT_CLI_JSON_H

#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "AE_Effect.h"

namespace veltrisca {

std::string JsonFloat(float v);    // at most 9 digits, or a quoted non-finite name
std::string JsonDouble(double v);  // shortest exact, or a quoted non-finite name
std::string JsonString(const std::string& s);  // quoted and escaped

// Writes one object, one member per line; arrays stay on their member's line.
class JsonObjectWriter {
 public:
  explicit JsonObjectWriter(std::ostream& out);
  ~JsonObjectWriter();
  void Int(const char* key, long long v);
  void Float(const char* key, float v);
  void Double(const char* key, double v);
  void String(const char* key, const std::string& v);
  void Rect(const char* key, const PF_LRect& r);  // [left, top, right, bottom]
  void IntPair(const char* key, long long a, long long b);
  void FloatArray(const char* key, const float* v, size_t n);
  void Parsed(const char* key, const std::string& json);  // a value given as JSON text
  void End();  // writes the object, members in the order given

 private:
  struct Members;
  std::ostream& out_;
  std::unique_ptr<Members> members_;
};

}  // namespace veltrisca

#endif
