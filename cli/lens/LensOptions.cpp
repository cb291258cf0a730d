#include "cli/lens/LensOptions.h"

#include <CLI/CLI.hpp>
#include <OpenImageIO/strutil.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>

#include "cli/lens/LensFile.h"
#include "cli/shared/Errors.h"

namespace veltrisca {

namespace {

}  // namespace

double ParseSlider(const std::string& option, const std::string& text, SliderRange range) {
  const std::string rangeText = RangeText(range);
  double v = 0;
  if (!ReadReal(text, &v)) {
    throw UsageError(option + ": expected a number in " + rangeText + ", got " + Quoted(text));
  }
  // strtod accepts "inf" and "nan" and saturates overflow to infinity (ERANGE); a
  // denormal underflow (also ERANGE) is a legitimate, tiny value.
  if (!std::isfinite(v)) {
    throw UsageError(option + ": " + Quoted(text) + " is not a finite number; the range is " +
                     rangeText);
  }
  if (v < range.minimum || v > range.maximum) {
    throw UsageError(option + ": " + text + " is outside the slider range " + rangeText);
  }
  return v;
}

int ParseChoice(int index, const std::string& text, const std::string& option) {
  const ParamEntry& param = Param(index);
  for (int c = 0; c < param.choiceCount; ++c) {
    if (OIIO::Strutil::iequals(text, param.choices[c].word)) return c + 1;
  }
  throw UsageError((option.empty() ? std::string(param.option) : option) + ": expected " +
                   ChoiceList(index) + ", got " + Quoted(text));
}

int ParseMode(const std::string& text) { return ParseChoice(kParamMode, text); }

int ParseFilter(const std::string& text, const std::string& option) {
  return ParseChoice(kParamFilter, text, option);
}

const char* ModeName(int mode) {
  return ChoiceName(kParamMode, mode == kModeApply ? kModeApply : kModeRemove);
}

const char* FilterName(int filter) { return ChoiceName(kParamFilter, filter); }

const char* ChoiceName(int index, int choice) {
  const ParamEntry& param = Param(index);
  return choice >= 1 && choice <= param.choiceCount ? param.choices[choice - 1].hostText : "?";
}

const char* ChoiceWord(int index, int choice) {
  const ParamEntry& param = Param(index);
  return choice >= 1 && choice <= param.choiceCount ? param.choices[choice - 1].word : "?";
}

std::string ChoiceList(int index) {
  const ParamEntry& param = Param(index);
  std::string list;
  for (int c = 0; c < param.choiceCount; ++c) {
    list += c == 0 ? "" : c + 1 == param.choiceCount ? " or " : ", ";
    list += param.choices[c].word;
  }
  return list;
}

std::string KernelFilterWords() {
  std::string words;
  for (int f = 1; f <= kFilterChoices; ++f) {
    if (IsKernelFilter(f)) words += (words.empty() ? "" : ", ") + std::string(ChoiceWord(kParamFilter, f));
  }
  return words;
}

std::string RangeText(const SliderRange& range) {
  return NumberText(range.minimum) + ".." + NumberText(range.maximum);
}

const std::vector<const ParamEntry*>& LensOptionOrder() {
  static const std::vector<const ParamEntry*> order = [] {
    std::vector<const ParamEntry*> entries;
    for (const ParamEntry& param : kParamTable) entries.push_back(&param);
    std::stable_sort(entries.begin(), entries.end(), [](const ParamEntry* a, const ParamEntry* b) {
      return static_cast<int>(a->kind) < static_cast<int>(b->kind);
    });
    return entries;
  }();
  return order;
}

std::array<std::string, kParamCount> LensOptionText::DefaultTexts() {
  std::array<std::string, kParamCount> texts;
  for (const ParamEntry& param : kParamTable) {
    if (param.defaultFromImage) continue;
    std::string& text = texts[static_cast<size_t>(param.index)];
    if (param.kind == ParamKind::kPopup) text = ChoiceWord(param.index, param.defaultChoice);
    if (param.kind == ParamKind::kFloatSlider) text = NumberText(param.range.dephault);
  }
  return texts;
}

LensSettings ParseLensOptions(const LensOptionText& text) {
  const auto slider = [&text](int index) {
    return ParseSlider(Param(index).option, text[index], Param(index).range);
  };
  const auto size = [&text](int index) {
    return text[index].empty() ? std::nullopt
                               : std::optional<ImageSize>(ParseSize(Param(index).option, text[index]));
  };
  LensSettings s;
  s.mode = ParseChoice(kParamMode, text[kParamMode]);
  s.filter = ParseChoice(kParamFilter, text[kParamFilter]);
  s.distortion = slider(kParamDistortion);
  s.cubic = slider(kParamCubic);
  s.quartic = slider(kParamQuartic);
  s.zoom = slider(kParamZoom);
  s.pixelAspectGiven = !text[kParamPixelAspect].empty();
  if (s.pixelAspectGiven) s.pixelAspect = slider(kParamPixelAspect);
  s.distortedSize = size(kParamDistortedSize);
  s.undistortedSize = size(kParamUndistortedSize);
  return s;
}

int SettingChoice(const LensSettings& settings, int index) {
  return index == kParamMode ? settings.mode : settings.filter;
}

double SettingNumber(const LensSettings& settings, int index) {
  switch (index) {
    case kParamDistortion: return settings.distortion;
    case kParamCubic: return settings.cubic;
    case kParamQuartic: return settings.quartic;
    case kParamZoom: return settings.zoom;
    default: return settings.pixelAspect;
  }
}

std::optional<ImageSize> SettingSize(const LensSettings& settings, int index) {
  return index == kParamDistortedSize ? settings.distortedSize : settings.undistortedSize;
}

LensSizes ResolveSizes(const LensSettings& settings, ImageSize layer,
                       std::optional<ImageSize> otherDefault) {
  const bool apply = settings.mode == kModeApply;
  const std::optional<ImageSize>& tied = apply ? settings.undistortedSize : settings.distortedSize;
  const std::optional<ImageSize>& other =
      apply ? settings.distortedSize : settings.undistortedSize;
  const char* tiedOption = apply ? "--undistorted-size" : "--distorted-size";
  if (!tied && (layer.width > kMaxImageSide || layer.height > kMaxImageSide)) {
    throw IoError("the input layer is " + std::to_string(layer.width) + "x" +
                  std::to_string(layer.height) + ", larger than the " +
                  std::to_string(kMaxImageSide) + " pixels the effect's size parameters hold; " +
                  "give " + tiedOption + " explicitly");
  }
  const ImageSize first = tied ? *tied : layer;
  const ImageSize second = other ? *other : otherDefault ? *otherDefault : first;
  return apply ? LensSizes{second, first} : LensSizes{first, second};
}

hostsim::ParamValues ToParamValues(const LensSettings& settings, const LensSizes& sizes) {
  hostsim::ParamValues p;
  p.mode = settings.mode;
  p.filter = settings.filter;
  p.distortion = settings.distortion;
  p.cubic = settings.cubic;
  p.quartic = settings.quartic;
  p.zoom = settings.zoom;
  p.pixelAspect = settings.pixelAspect;
  const LensSizes handed = EffectSizes(settings, sizes);
  p.distortedWidth = handed.distorted.width;
  p.distortedHeight = handed.distorted.height;
  p.undistortedWidth = handed.undistorted.width;
  p.undistortedHeight = handed.undistorted.height;
  return p;
}

LensSizes EffectSizes(const LensSettings& settings, const LensSizes& sizes) {
  const double pa = settings.pixelAspect;
  if (pa == 1.0) return sizes;
  LensSizes handed = sizes;
  if (settings.mode == kModeApply) {
    // Equal sizes make the effect measure its input and output pixels as pa wide; only that
    // equality test reads the distorted size in Apply.
    handed.distorted = sizes.undistorted;
    return handed;
  }
  // Remove with unequal sizes measures input and output pixels as pa wide and makes the frame
  // Wu / pa output pixels wide: Wu is the undistorted width in square units.
  const long long wide =
      static_cast<long long>(std::ceil(pa * sizes.undistorted.width - 1e-9));
  if (wide > kMaxImageSide) {
    throw IoError("the undistorted width of " + std::to_string(sizes.undistorted.width) +
                  " pixels at pixel aspect " + NumberText(pa) + " is " + std::to_string(wide) +
                  " square pixels, more than the " + std::to_string(kMaxImageSide) +
                  " the effect's size parameters hold; give a smaller --undistorted-size");
  }
  // Rounded up, so that the effect's frame holds the window RemoveWindow chooses.
  int wu = static_cast<int>(std::max(1LL, wide));
  if (wu == sizes.distorted.width && sizes.undistorted.height == sizes.distorted.height) {
    // Equal sizes would make the effect count the aspect twice. One square unit more leaves
    // the mapping alone (it depends on the height only) and widens the effect's frame by
    // 1 / pa pixels, beyond the window.
    if (wu == kMaxImageSide) {
      throw IoError("the undistorted width of " + std::to_string(sizes.undistorted.width) +
                    " pixels at pixel aspect " + NumberText(pa) + " reaches the " +
                    std::to_string(kMaxImageSide) +
                    " square pixels the effect's size parameters hold; give a smaller "
                    "--undistorted-size");
    }
    ++wu;
  }
  handed.undistorted.width = wu;
  return handed;
}




// The help of a lens option, from the parameter table: the choices of a popup (with their
// glosses), a slider's host name and range, a point's host name; then the table's remark.
std::string LensOptionHelp(const ParamEntry& param) {
  std::string help;
  if (param.kind == ParamKind::kPopup) {
    for (int c = 0; c < param.choiceCount; ++c) {
      help += c == 0 ? "" : c + 1 == param.choiceCount ? " or " : ", ";
      help += param.choices[c].word;
      if (param.choices[c].gloss) help += std::string(" (") + param.choices[c].gloss + ")";
    }
  } else {
    help = param.hostName;
    if (param.kind == ParamKind::kFloatSlider) help += ", " + RangeText(param.range);
  }
  return *param.help ? help + " " + param.help : help;
}

void AddLensOptions(CLI::App* sub, LensOptionText* lens) {
  for (const ParamEntry* param : LensOptionOrder()) {
    CLI::Option* option =
        sub->add_option(param->option, (*lens)[param->index], LensOptionHelp(*param))
            ->type_name(param->valueName);
    if (!param->defaultFromImage) option->capture_default_str();
  }
  sub->add_option("--lens", lens->file,
                  "lens file (JSON), or an image that records a lens (all but its mode), for "
                  "every lens option not given on the command line")
      ->type_name("FILE.json|IMAGE");
}

// Fills the lens options not given on the command line from --lens and notes which options
// are given; returns the keys taken from --lens.
std::vector<std::string> ApplyLensFile(const CLI::App* sub, LensOptionText* lens) {
  const auto onCommandLine = [sub](const std::string& option) {
    return sub->get_option(option)->count() > 0;
  };
  std::vector<std::string> taken;
  if (!lens->file.empty()) taken = MergeLensFile(lens->file, lens, onCommandLine);
  lens->given = GivenLensKeys(onCommandLine, taken);
  return taken;
}

}  // namespace veltrisca
