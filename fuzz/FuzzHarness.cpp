#include "fuzz/FuzzHarness.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <sstream>
#include <vector>

#include "common/Rect.h"
#include "hostsim/Host.h"
#include "hostsim/World.h"
#include "host/EntryPoint.h"
#include "lens/LensData.h"

namespace vtfuzz {

namespace {

using hostsim::Depth;
using hostsim::World;

// --- Decoding -------------------------------------------------------------------------
// The input is read front to back; once it runs out every further byte reads as 0, so a
// short input still decodes to a complete case (default-ish values).
struct ByteCursor {
  const uint8_t* data;
  size_t left;
};

uint8_t TakeByte(ByteCursor& in) {
  if (in.left == 0) return 0;
  --in.left;
  return *in.data++;
}

template <typename T>
T TakeRaw(ByteCursor& in) {
  uint8_t bytes[sizeof(T)];
  for (uint8_t& b : bytes) b = TakeByte(in);
  T value;
  std::memcpy(&value, bytes, sizeof value);
  return value;
}

const double kSpecialReals[] = {
    0.0, -0.0, 1.0, -1.0, 0.5, 2.0, 10.0, 0.1, 0.001, 1e-6,
    std::numeric_limits<double>::quiet_NaN(), -std::numeric_limits<double>::quiet_NaN(),
    std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity(),
    std::numeric_limits<double>::max(), -std::numeric_limits<double>::max(),
    std::numeric_limits<double>::min(), std::numeric_limits<double>::denorm_min(),
    static_cast<double>(std::numeric_limits<float>::max()), 3.5e38, 1e-40, 1e-30, 1e30,
    20000.0, -20000.0, 1e9, -1e9, 32767.0, 32768.0, -32768.0, 65536.0, 1e6, -1e6,
    16777217.0, 2147483648.0};

// A parameter value: mostly centre + int16 * scale (the slider's neighbourhood), else a
// special value, any double, or any float.
double TakeReal(ByteCursor& in, double centre, double scale) {
  const uint8_t sel = TakeByte(in);
  if (sel < 0x80) return centre + TakeRaw<int16_t>(in) * scale;
  if (sel < 0xC0) {
    constexpr size_t n = sizeof kSpecialReals / sizeof kSpecialReals[0];
    return kSpecialReals[(sel - 0x80u) % n];
  }
  if (sel < 0xE0) return TakeRaw<double>(in);
  return TakeRaw<float>(in);
}

int32_t TakeMode(ByteCursor& in) {
  const uint8_t sel = TakeByte(in);
  if (sel < 0x80) return kModeRemove;
  if (sel < 0xF0) return kModeApply;
  return TakeRaw<int32_t>(in);  // popup values no choice has
}

int32_t TakeFilter(ByteCursor& in) {
  const uint8_t sel = TakeByte(in);
  if (sel < 0xF0) return 1 + sel % 6;
  return TakeRaw<int32_t>(in);
}

const int32_t kSpecialBounds[] = {0,         1,          -1,         2147483647, -2147483647 - 1,
                                  1000000000, -1000000000, 1000000003, -1000000003, 16777216,
                                  -16777216, 2147483645, -2147483646, 32768,      -32768};

int32_t TakeBound(ByteCursor& in) {
  const uint8_t sel = TakeByte(in);
  if (sel < 0xC0) return static_cast<int32_t>(sel) - 0x60;
  if (sel < 0xF0) {
    constexpr size_t n = sizeof kSpecialBounds / sizeof kSpecialBounds[0];
    return kSpecialBounds[(sel - 0xC0u) % n];
  }
  return TakeRaw<int32_t>(in);
}

int32_t TakeOrigin(ByteCursor& in) {
  const uint8_t sel = TakeByte(in);
  if (sel < 0xE0) return static_cast<int32_t>(sel) - 0x70;
  return TakeRaw<int32_t>(in);
}

PF_LRect TakeRequest(ByteCursor& in) {
  const uint8_t sel = TakeByte(in);
  if (sel < 0xC0) {
    // Around the layer: a corner within +-128 and a size of -16..239 (empty and inverted too).
    const int32_t left = TakeRaw<int8_t>(in);
    const int32_t top = TakeRaw<int8_t>(in);
    const int32_t width = static_cast<int32_t>(TakeByte(in)) - 16;
    const int32_t height = static_cast<int32_t>(TakeByte(in)) - 16;
    return PF_LRect{left, top, left + width, top + height};
  }
  PF_LRect rect;
  rect.left = TakeBound(in);
  rect.top = TakeBound(in);
  rect.right = TakeBound(in);
  rect.bottom = TakeBound(in);
  return rect;
}

struct FuzzCase {
  hostsim::ParamValues params;
  Depth depth = Depth::k8;
  int width = 1, height = 1;
  int originX = 0, originY = 0;
  int inputPadding = 0, outputPadding = 0;
  uint32_t pixelSeed = 0;
  uint8_t clearByte = 0;
  PF_LRect request{};
};

FuzzCase Decode(const uint8_t* data, size_t size) {
  ByteCursor in{data, size};
  FuzzCase c;
  hostsim::ParamValues& p = c.params;
  p.mode = TakeMode(in);
  p.filter = TakeFilter(in);
  p.distortion = TakeReal(in, 0.0, 1.0);
  p.cubic = TakeReal(in, 0.0, 1.0);
  p.quartic = TakeReal(in, 0.0, 1.0);
  p.zoom = TakeReal(in, 0.0, 1.0 / 4096);
  // Sizes in 1/16 pixel (the host keeps 16.16 fixed point; the effect rounds to whole pixels).
  p.distortedWidth = TakeReal(in, 0.0, 1.0 / 16);
  p.distortedHeight = TakeReal(in, 0.0, 1.0 / 16);
  p.pixelAspect = TakeReal(in, 0.0, 1.0 / 4096);
  p.undistortedWidth = TakeReal(in, 0.0, 1.0 / 16);
  p.undistortedHeight = TakeReal(in, 0.0, 1.0 / 16);

  c.width = 1 + TakeByte(in) % 64;
  c.height = 1 + TakeByte(in) % 64;
  static const Depth kDepths[3] = {Depth::k8, Depth::k16, Depth::kFloat};
  c.depth = kDepths[TakeByte(in) % 3];
  c.originX = TakeOrigin(in);
  c.originY = TakeOrigin(in);
  // Row padding in whole 4-byte units: host rows keep their channels aligned.
  c.inputPadding = (TakeByte(in) % 17) * 4;
  c.outputPadding = (TakeByte(in) % 17) * 4;
  c.pixelSeed = TakeRaw<uint32_t>(in);
  c.clearByte = TakeByte(in);
  c.request = TakeRequest(in);
  return c;
}

// --- The input image ------------------------------------------------------------------
uint32_t NextRandom(uint32_t& state) {  // xorshift32; state never 0
  state ^= state << 13;
  state ^= state >> 17;
  state ^= state << 5;
  return state;
}

const float kSpecialPixels[] = {std::numeric_limits<float>::quiet_NaN(),
                                std::numeric_limits<float>::infinity(),
                                -std::numeric_limits<float>::infinity(), 1e30f, -1e30f,
                                std::numeric_limits<float>::max(), -0.0f, 1e-40f};

void FillImage(World& image, uint32_t seed) {
  uint32_t state = seed | 1u;
  // Float images with an even seed also carry non-finite and extreme values.
  const bool specials = image.depth() == Depth::kFloat && (seed & 1u) == 0;
  const float colorMax = PixelDepthOf(image.depth()).colorMax;
  for (int y = 0; y < image.height(); ++y) {
    for (int x = 0; x < image.width(); ++x) {
      for (int ch = 0; ch < 4; ++ch) {
        const uint32_t r = NextRandom(state);
        float v;
        if (image.depth() != Depth::kFloat) {
          // Every value of the depth, 0 .. its maximum.
          v = static_cast<float>(r % (static_cast<uint32_t>(colorMax) + 1u));
        } else if (specials && r % 16 == 0) {
          v = kSpecialPixels[(r >> 4) % (sizeof kSpecialPixels / sizeof(float))];
        } else {
          v = static_cast<float>(r % 2001) / 1000.0f - 0.5f;
        }
        image.Set(x, y, ch, v);
      }
    }
  }
}

// --- Checks ---------------------------------------------------------------------------
std::string RectText(const PF_LRect& r) {
  std::ostringstream s;
  s << "(" << r.left << ", " << r.top << ", " << r.right << ", " << r.bottom << ")";
  return s.str();
}

// Every bound of the effect's own rectangles stays within +-(1e9 + margins).
bool BoundsSane(const PF_LRect& r) {
  const int32_t limit = 1000000000 + 3;
  for (int32_t v : {r.left, r.top, r.right, r.bottom}) {
    if (v < -limit || v > limit) return false;
  }
  return true;
}

// The largest output the harness lets the host allocate (the output world is sized from the
// reported result rectangle).
constexpr int64_t kMaxRenderPixels = 1 << 16;

// The lens record after a pre-render: when the table path is enabled, the run mapping's index
// r * lutScale can neither be NaN nor escape the clamp to 0..2048, because the frame
// transform is finite (so r is a finite or infinite non-negative radius) and lutScale is a
// finite positive number. This is what keeps every inverse-table read inside entries 0..2049.
std::string CheckLensRecord(const VtAFXLensData& lens) {
  if (std::memcmp(&lens.inverseTable[2048], &lens.inverseTable[2049], sizeof(float)) != 0) {
    return "inverse table entry 2049 is not a copy of entry 2048";
  }
  if (lens.tableValid == 0) return "";
  if (lens.tableValid != 1) return "tableValid is neither 0 nor 1";
  const float transform[] = {lens.normScaleX, lens.normScaleY, lens.normOffsetX,
                             lens.normOffsetY, lens.pixScaleX,  lens.pixScaleY,
                             lens.pixOffsetX,  lens.pixOffsetY};
  for (float v : transform) {
    if (!std::isfinite(v)) return "inverse table enabled with a non-finite frame transform";
  }
  if (!(std::isfinite(lens.lutScale) && lens.lutScale > 0.0f)) {
    return "inverse table enabled with a table scale that is not finite and positive";
  }
  if (lens.inverseTable[0] != 0.0f) return "inverse table entry 0 is not 0";
  return "";
}

std::string CheckPreRender(const hostsim::PreRenderReport& report, const PF_LRect& request,
                           const VtAFXLensData& lens) {
  const PF_LRect& maxRect = report.output.max_result_rect;
  const PF_LRect& result = report.output.result_rect;
  if (std::memcmp(&maxRect, &lens.maxResultRect, sizeof maxRect) != 0) {
    return "max_result_rect " + RectText(maxRect) + " is not the record's output frame";
  }
  if (!BoundsSane(maxRect)) return "max_result_rect out of range: " + RectText(maxRect);
  PF_LRect clipped{std::max(request.left, maxRect.left), std::max(request.top, maxRect.top),
                   std::min(request.right, maxRect.right),
                   std::min(request.bottom, maxRect.bottom)};
  if (IsEmptyRect(&clipped)) {
    if (std::memcmp(&result, &clipped, sizeof result) != 0) {
      return "empty clipped request " + RectText(clipped) + " reported as " + RectText(result);
    }
    if (std::memcmp(&report.inputRequest.rect, &clipped, sizeof clipped) != 0) {
      return "empty clipped request not passed to the host unchanged";
    }
  } else {
    if (!IsEmptyRect(&result) && (result.left < clipped.left || result.top < clipped.top ||
                             result.right > clipped.right || result.bottom > clipped.bottom)) {
      return "result_rect " + RectText(result) + " exceeds the clipped request " +
             RectText(clipped);
    }
    if (!BoundsSane(report.inputRequest.rect)) {
      return "input request out of range: " + RectText(report.inputRequest.rect);
    }
  }
  return "";
}

// Row padding of the output world must keep the host's fill byte: the effect writes exactly
// `width` pixels per row and nothing outside the buffer's rows.
std::string CheckOutputWorld(const World& out, const PF_LRect& result, uint8_t clearByte) {
  if (out.width() != result.right - result.left || out.height() != result.bottom - result.top)
    return "output world does not match result_rect";
  for (uint8_t b : out.PaddingBytes()) {
    if (b != clearByte) return "the effect wrote into the output's row padding";
  }
  return "";
}

std::string CheckPixelRanges(const World& out, int32_t filter) {
  const bool knownFilter = filter >= 1 && filter <= 6;
  for (int y = 0; y < out.height(); ++y) {
    for (int x = 0; x < out.width(); ++x) {
      for (int ch = 0; ch < 4; ++ch) {
        const float v = out.Get(x, y, ch);
        if (!knownFilter && !(v == 0.0f)) return "a filter type without sampler drew a pixel";
        if (out.depth() == Depth::k16 && v > 32768.0f) return "16-bit channel above 32768";
      }
    }
  }
  return "";
}

std::string Run(const FuzzCase& c) {
  World layer(c.depth, c.width, c.height, c.originX, c.originY);
  FillImage(layer, c.pixelSeed);

  hostsim::Host host(&EntryPointFunc);
  host.SetInputLayer(&layer);
  host.threads = 1;
  host.params = c.params;
  host.inputPaddingBytes = c.inputPadding;
  host.outputPaddingBytes = c.outputPadding;

  if (host.GlobalSetup() != PF_Err_NONE) return "global setup failed";
  if (host.ParamsSetup() != PF_Err_NONE) return "parameter setup failed";
  if (host.SequenceSetup() != PF_Err_NONE) return "sequence setup failed";

  hostsim::PreRenderReport report;
  const PF_Err preErr = host.SmartPreRender(c.request, &report);
  if (preErr != PF_Err_NONE) return "pre-render returned " + std::to_string(preErr);
  const VtAFXLensData& lens = *static_cast<const VtAFXLensData*>(host.SequenceBlock());
  std::string failure = CheckLensRecord(lens);
  if (failure.empty()) failure = CheckPreRender(report, c.request, lens);
  if (!failure.empty()) return failure;

  const PF_LRect result = report.output.result_rect;
  if (IsEmptyRect(&result)) return "";
  const int64_t pixels =
      (int64_t{result.right} - result.left) * (int64_t{result.bottom} - result.top);
  if (pixels > kMaxRenderPixels) return "";

  // Two renders into buffers filled with different bytes: every payload byte must come out
  // the same (each pixel written, nothing read from the output).
  std::unique_ptr<World> first, second;
  host.outputClearByte = c.clearByte;
  PF_Err err = host.SmartRender(&first);
  if (err != PF_Err_NONE) return "render returned " + std::to_string(err);
  if (!first) return "render did not check out the output";
  failure = CheckOutputWorld(*first, result, c.clearByte);
  if (!failure.empty()) return failure;

  const uint8_t otherByte = static_cast<uint8_t>(~c.clearByte);
  host.outputClearByte = otherByte;
  err = host.SmartRender(&second);
  if (err != PF_Err_NONE) return "second render returned " + std::to_string(err);
  if (!second) return "second render did not check out the output";
  failure = CheckOutputWorld(*second, result, otherByte);
  if (!failure.empty()) return failure;

  const std::vector<uint8_t> pixels1 = first->PackedBytes();
  if (pixels1 != second->PackedBytes()) {
    return "output depends on the buffer's previous contents (a pixel left unwritten)";
  }
  // Without input pixels every output pixel lies outside any input: all zero.
  if (IsEmptyRect(&report.supplied.result_rect)) {
    for (uint8_t b : pixels1) {
      if (b != 0) return "output not transparent although no input was supplied";
    }
    return "";
  }
  return CheckPixelRanges(*first, lens.filterType);
}

}  // namespace

std::string RunOneInput(const uint8_t* data, size_t size) { return Run(Decode(data, size)); }

std::string DescribeInput(const uint8_t* data, size_t size) {
  const FuzzCase c = Decode(data, size);
  const hostsim::ParamValues& p = c.params;
  std::ostringstream s;
  s.precision(17);
  s << "mode " << p.mode << ", filter " << p.filter << ", k2x1000 " << p.distortion
    << ", k3x1000 " << p.cubic << ", k4x1000 " << p.quartic << ", zoom " << p.zoom
    << ", distorted " << p.distortedWidth << " x " << p.distortedHeight << ", aspect "
    << p.pixelAspect << ", undistorted " << p.undistortedWidth << " x " << p.undistortedHeight
    << "; image " << c.width << " x " << c.height << " depth " << static_cast<int>(c.depth)
    << " origin (" << c.originX << ", " << c.originY << ") padding " << c.inputPadding << "/"
    << c.outputPadding << "; request " << RectText(c.request);
  return s.str();
}

}  // namespace vtfuzz
