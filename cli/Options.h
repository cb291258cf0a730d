// Command-line values of the veltrisca tool: strict parsing, range checks against the effect's
// slider ranges, the defaulting of the two lens image sizes, and the default output window.
// Every parser throws CliError(kExitUsage) with a message that names the option.
#ifndef VT_CLI_OPTIONS_H
#define VT_CLI_OPTIONS_H

#include <optional>
#include <string>
#include <vector>

#include "AE_Effect.h"
#include "common/EffectParams.h"
#include "common/Rect.h"
#include "hostsim/Host.h"

namespace veltrisca {

struct ImageSize {
  int width = 0;
  int height = 0;
};

// The image sizes reach the effect as 16.16 fixed-point point parameters, whose integer part
// cannot exceed 32767.
constexpr int kMaxImageSide = 32767;

constexpr int kMaxThreads = 1024;

// A finite number inside [range.minimum, range.maximum] (the effect's slider ranges, from
// common/EffectParams.h); `option` names it in messages.
double ParseSlider(const std::string& option, const std::string& text, SliderRange range);
// "WxH" with whole positive numbers up to maxSide.
ImageSize ParseSize(const std::string& option, const std::string& text,
                    int maxSide = kMaxImageSide);
// "L,T,R,B": four int32 values (right and bottom exclusive); any rectangle, empty included.
PF_LRect ParseRect(const std::string& option, const std::string& text);
// A whole number in [min, max].
int ParseInt(const std::string& option, const std::string& text, int min, int max);
// "remove" -> 1, "apply" -> 2 (case-insensitive).
int ParseMode(const std::string& text);
// "builtin", "nearest", "bilinear", "lanczos2", "lanczos3", "mitchell" -> 1..6; `option`
// names the value in messages.
int ParseFilter(const std::string& text, const std::string& option = "--filter");
// Lanczos-2, Lanczos-3 and Mitchell-Netravali: the filters that clip what they compute.
inline bool IsKernelFilter(int filter) { return filter >= 4 && filter <= 6; }
const char* ModeName(int mode);      // the effect's own popup text ("Remove", "Apply")
const char* FilterName(int filter);  // "Built-in" .. "Mitchell-Netravali"

// The lens options shared by info and render, as typed (an empty size means "not given").
struct LensOptionText {
  std::string mode = "remove";
  std::string filter = "lanczos2";
  std::string distortion = "0";
  std::string cubic = "0";
  std::string quartic = "0";
  std::string zoom = "1";
  std::string pixelAspect;  // empty: the image file's, else 1
  std::string distortedSize;
  std::string undistortedSize;
  std::string file;  // --lens: a lens file for the options not given (cli/LensFile.h)
  // The keys ("distortion", "pixelAspect", ...) given on the command line or by --lens; the
  // others hold defaults, which a lens recorded in the input replaces (cli/LensFile.h).
  std::vector<std::string> given;
};

struct LensSettings {
  int mode = kModeRemove;
  int filter = 4;
  double distortion = 0, cubic = 0, quartic = 0;  // X1000 slider values
  double zoom = 1;
  double pixelAspect = 1;
  bool pixelAspectGiven = false;
  std::optional<ImageSize> distortedSize;
  std::optional<ImageSize> undistortedSize;
};

LensSettings ParseLensOptions(const LensOptionText& text);

struct LensSizes {
  ImageSize distorted;
  ImageSize undistorted;
};

// The input layer is the distorted plate in Remove and the undistorted image in Apply, so the
// size tied to the layer defaults to the layer's size and the other size to the first one.
// Throws CliError(kExitIo) when a size taken from the layer is too large for the effect.
// `other` is the default of the other size when an image file gives one (Apply on an image
// with overscan: the display window's size).
LensSizes ResolveSizes(const LensSettings& settings, ImageSize layer,
                       std::optional<ImageSize> other = std::nullopt);

// The user's lens onto the effect's parameters. `sizes` are in the files' own pixels, whose
// width over height is settings.pixelAspect; the lens is radial in the desqueezed picture, its
// unit half the undistorted height. With a pixel aspect other than 1 the sizes handed to the
// effect differ from the files' (EffectSizes): Remove hands the undistorted width in square
// units (pixel aspect x the file's width), so that the undistorted frame keeps the plate's
// squeezed pixels and is as many file pixels wide as asked; Apply hands the undistorted size
// as the distorted one too, which makes the effect take both sides' pixels as pixel-aspect
// wide. With a pixel aspect of 1 the sizes are handed as they are.
hostsim::ParamValues ToParamValues(const LensSettings& settings, const LensSizes& sizes);
LensSizes EffectSizes(const LensSettings& settings, const LensSizes& sizes);

// The output rectangle rendered when --window is not given.
struct DefaultWindow {
  PF_LRect rect{};
  bool halfPixelX = false;  // the window sits half a pixel off the lens centre horizontally
  bool halfPixelY = false;
};

// Remove: the effect's output frame without the extra last column and row it reports; with a
// pixel aspect other than 1, the columns the frame of the file's undistorted width would
// have on square pixels.
DefaultWindow RemoveWindow(const PF_LRect& maxResultRect, const LensSizes& sizes,
                           double pixelAspect = 1.0);
// Apply: a window of the distorted size centred on the lens centre (lensCentreX/Y are the
// layer position of the normalised origin, which the effect keeps in pixOffsetX/Y). With an odd
// margin the window starts half a pixel left of (above) the centred position.
DefaultWindow ApplyWindow(float lensCentreX, float lensCentreY, ImageSize distorted);

long long RectArea(const PF_LRect& r);  // 0 for an empty rectangle
std::string RectText(const PF_LRect& r);  // "L,T,R,B"

}  // namespace veltrisca

#endif
