// The lens options of the veltrisca tool, read from the parameter table (common/EffectParams.h):
// their registration and help, parsing with range checks against the effect's slider ranges,
// the defaulting of the two lens image sizes, and their hand-over to the effect's parameters.
// Every parser throws CliError(kExitUsage) with a message that names the option.
#ifndef VT_CLI_LENS_LENSOPTIONS_H
#define VT_CLI_LENS_LENSOPTIONS_H

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "AE_Effect.h"
#include "common/EffectParams.h"
#include "common/Rect.h"
#include "hostsim/Host.h"

#include "cli/shared/Numbers.h"

namespace CLI {
class App;
}

namespace veltrisca {


// A finite number inside [range.minimum, range.maximum] (the effect's slider ranges, from
// common/EffectParams.h); `option` names it in messages.
double ParseSlider(const std::string& option, const std::string& text, SliderRange range);
// The choice of popup parameter `index` named by `text` (its word, case-insensitive), 1-based:
// "remove" -> 1, "apply" -> 2; "builtin" .. "mitchell" -> 1..6. `option` names the value in
// messages (default: the parameter's option).
int ParseChoice(int index, const std::string& text, const std::string& option = "");
int ParseMode(const std::string& text);
int ParseFilter(const std::string& text, const std::string& option = "--filter");
// The text the host shows for a choice ("Remove", "Mitchell-Netravali"); "?" out of range.
const char* ChoiceName(int index, int choice);
// The word of a choice as the tool and lens files write it ("apply", "lanczos2").
const char* ChoiceWord(int index, int choice);
const char* ModeName(int mode);  // a mode other than Apply is taken as Remove
const char* FilterName(int filter);
// "builtin, nearest, bilinear, lanczos2, lanczos3 or mitchell".
std::string ChoiceList(int index);
// "lanczos2, lanczos3, mitchell": the words of the filters IsKernelFilter names.
std::string KernelFilterWords();
// "-20000..20000": a slider's range as messages and help write it.
std::string RangeText(const SliderRange& range);

// The parameters in the order the tool lists them (help, lens files, recorded lenses): the
// popups, the sliders, then the sizes, each group in index order.
const std::vector<const ParamEntry*>& LensOptionOrder();

// The lens options shared by info, render, stmap and lens, as typed, by parameter index
// (common/EffectParams.h; entry kParamInput is unused). An empty text means "not given" for
// the parameters whose default comes from the image (pixel aspect and sizes).
struct LensOptionText {
  std::array<std::string, kParamCount> text = DefaultTexts();
  std::string file;  // --lens: a lens file for the options not given (cli/lens/LensFile.h)
  // The keys ("distortion", "pixelAspect", ...) given on the command line or by --lens; the
  // others hold defaults, which a lens recorded in the input replaces (cli/lens/LensFile.h).
  std::vector<std::string> given;

  std::string& operator[](int index) { return text[static_cast<size_t>(index)]; }
  const std::string& operator[](int index) const { return text[static_cast<size_t>(index)]; }
  // The tool's defaults: the host's default choices and slider values; "" for the parameters
  // whose default is the image's.
  static std::array<std::string, kParamCount> DefaultTexts();
};

struct LensSettings {
  int mode = kDefaultMode;
  int filter = kDefaultFilter;
  double distortion = 0, cubic = 0, quartic = 0;  // X1000 slider values
  double zoom = 1;
  double pixelAspect = 1;
  bool pixelAspectGiven = false;
  std::optional<ImageSize> distortedSize;
  std::optional<ImageSize> undistortedSize;
};

LensSettings ParseLensOptions(const LensOptionText& text);
// The value of parameter `index` in `settings`, by the parameter's kind: a popup's choice, a
// slider's number, a point's size (nullopt when not set).
int SettingChoice(const LensSettings& settings, int index);
double SettingNumber(const LensSettings& settings, int index);
std::optional<ImageSize> SettingSize(const LensSettings& settings, int index);

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



// Registers the lens options (from the parameter table) and --lens with a command.
void AddLensOptions(CLI::App* sub, LensOptionText* lens);
// After parsing: fills the lens options not given on the command line from --lens and notes
// which options are given; returns the keys taken from --lens.
std::vector<std::string> ApplyLensFile(const CLI::App* sub, LensOptionText* lens);

}  // namespace veltrisca

#endif
