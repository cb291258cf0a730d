#include "cli/shared/Numbers.h"

#include <cctype>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdlib>

#include "cli/shared/Errors.h"
#include "common/Rect.h"

namespace veltrisca {

std::string Quoted(const std::string& text) { return "\"" + text + "\""; }

bool ReadWhole(const std::string& text, long long* value) {
  if (text.empty() || std::isspace(static_cast<unsigned char>(text[0]))) return false;
  errno = 0;
  char* end = nullptr;
  const long long v = std::strtoll(text.c_str(), &end, 10);
  if (errno != 0 || end == text.c_str() || *end != '\0') return false;
  *value = v;
  return true;
}

bool ReadReal(const std::string& text, double* value) {
  if (text.empty() || std::isspace(static_cast<unsigned char>(text[0]))) return false;
  char* end = nullptr;
  const double v = std::strtod(text.c_str(), &end);
  // A denormal underflow (ERANGE) is a legitimate, tiny value; overflow is infinity.
  if (end == text.c_str() || *end != '\0') return false;
  *value = v;
  return true;
}

std::string NumberText(double v) {
  char text[32];
  const auto result = std::to_chars(text, text + sizeof text, v);
  return std::string(text, result.ptr);
}

int ParseInt(const std::string& option, const std::string& text, int min, int max) {
  long long v = 0;
  if (!ReadWhole(text, &v)) {
    throw UsageError(option + ": expected a whole number, got " + Quoted(text));
  }
  if (v < min || v > max) {
    throw UsageError(option + ": " + text + " is outside " + std::to_string(min) + ".." +
                     std::to_string(max));
  }
  return static_cast<int>(v);
}

ImageSize ParseSize(const std::string& option, const std::string& text, int maxSide) {
  const size_t x = text.find_first_of("xX");
  long long w = 0, h = 0;
  if (x == std::string::npos || !ReadWhole(text.substr(0, x), &w) ||
      !ReadWhole(text.substr(x + 1), &h)) {
    throw UsageError(option + ": expected WIDTHxHEIGHT in whole pixels, got " + Quoted(text));
  }
  if (w < 1 || h < 1 || w > maxSide || h > maxSide) {
    throw UsageError(option + ": " + text + " is outside 1x1.." + std::to_string(maxSide) + "x" +
                     std::to_string(maxSide) + " (sizes are whole positive pixel counts)");
  }
  return ImageSize{static_cast<int>(w), static_cast<int>(h)};
}

PF_LRect ParseRect(const std::string& option, const std::string& text) {
  long long v[4] = {0, 0, 0, 0};
  size_t start = 0;
  for (int i = 0; i < 4; ++i) {
    const size_t comma = text.find(',', start);
    const bool last = (i == 3);
    if (last != (comma == std::string::npos)) {
      throw UsageError(option + ": expected LEFT,TOP,RIGHT,BOTTOM, got " + Quoted(text));
    }
    const std::string part = text.substr(start, last ? std::string::npos : comma - start);
    if (!ReadWhole(part, &v[i]) || v[i] < INT32_MIN || v[i] > INT32_MAX) {
      throw UsageError(option + ": " + Quoted(part) + " in " + Quoted(text) +
                       " is not a 32-bit whole number");
    }
    start = comma + 1;
  }
  return PF_LRect{static_cast<A_long>(v[0]), static_cast<A_long>(v[1]),
                  static_cast<A_long>(v[2]), static_cast<A_long>(v[3])};
}

long long RectArea(const PF_LRect& r) {
  if (IsEmptyRect(&r)) return 0;
  return (static_cast<long long>(r.right) - r.left) * (static_cast<long long>(r.bottom) - r.top);
}

std::string RectText(const PF_LRect& r) {
  return std::to_string(r.left) + "," + std::to_string(r.top) + "," + std::to_string(r.right) +
         "," + std::to_string(r.bottom);
}

}  // namespace veltrisca
