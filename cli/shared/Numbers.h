// Numbers, sizes and rectangles as the tool reads and writes them. The one strict reading of
// a number: the whole text is the number, with nothing before or after it, no blank either
// (" 5", "5 " and "" are no numbers anywhere: options, lens files, frame lists, imports).
// The Parse functions throw CliError(kExitUsage) with a message that names the option.
#ifndef VT_CLI_SHARED_NUMBERS_H
#define VT_CLI_SHARED_NUMBERS_H

#include <string>

#include "AE_Effect.h"

namespace veltrisca {

struct ImageSize {
  int width = 0;
  int height = 0;
};

// The image sizes reach the effect as 16.16 fixed-point point parameters, whose integer part
// cannot exceed 32767.
constexpr int kMaxImageSide = 32767;

constexpr int kMaxThreads = 1024;

// A decimal whole number (optional sign) within long long.
bool ReadWhole(const std::string& text, long long* value);
// A number in any form strtod reads (inf and nan included: callers that need a finite
// number say so).
bool ReadReal(const std::string& text, double* value);

std::string Quoted(const std::string& text);  // "\"text\"" for messages
// The shortest decimal that reads back as the same double ("0.1", "20000").
std::string NumberText(double v);
// "WxH" with whole positive numbers up to maxSide.
ImageSize ParseSize(const std::string& option, const std::string& text,
                    int maxSide = kMaxImageSide);
// "L,T,R,B": four int32 values (right and bottom exclusive); any rectangle, empty included.
PF_LRect ParseRect(const std::string& option, const std::string& text);
// A whole number in [min, max].
int ParseInt(const std::string& option, const std::string& text, int min, int max);
long long RectArea(const PF_LRect& r);  // 0 for an empty rectangle
std::string RectText(const PF_LRect& r);  // "L,T,R,B"

}  // namespace veltrisca

#endif
