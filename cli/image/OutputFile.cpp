#include "cli/image/OutputFile.h"

#include <algorithm>
#include <cstring>

#include "cli/shared/Command.h"
#include "cli/shared/Errors.h"

namespace veltrisca {

using OIIO::TypeDesc;

std::string TypeName(TypeDesc type) {
  switch (type.basetype) {
    case TypeDesc::UINT8: return "uint8";
    case TypeDesc::UINT16: return "uint16";
    case TypeDesc::HALF: return "half";
    case TypeDesc::FLOAT: return "float";
    default: return type.c_str();
  }
}

namespace {

// What each writer of OpenImageIO 2.4 holds, as tried on every writer it has: the sample types
// it writes as given, and the channel counts it writes whole (0: any). Beyond these counts
// the writers fail late, write fewer channels than given (JPEG, 2 or 4 channels: 3), or abort
// the process (DPX at 2 or 5 and more, FITS at 5 and more). Formats not listed are given the
// input's type and any channel count; the writer's own choice is reported afterwards.
struct FormatTypes {
  const char* format;
  std::vector<TypeDesc::BASETYPE> types;
  std::vector<int> channels;
  const char* name;  // for messages
};
const std::vector<FormatTypes>& KnownFormats() {
  static const std::vector<FormatTypes> kFormats = {
      {"openexr", {TypeDesc::HALF, TypeDesc::FLOAT}, {0}, "OpenEXR"},
      {"tiff", {TypeDesc::UINT8, TypeDesc::UINT16, TypeDesc::FLOAT}, {0}, "TIFF"},
      {"rla", {TypeDesc::UINT8, TypeDesc::UINT16, TypeDesc::FLOAT}, {0}, "RLA"},
      {"sgi", {TypeDesc::UINT8, TypeDesc::UINT16}, {0}, "SGI"},
      {"dpx", {TypeDesc::UINT8, TypeDesc::UINT16, TypeDesc::FLOAT}, {1, 3, 4}, "DPX"},
      {"png", {TypeDesc::UINT8, TypeDesc::UINT16}, {1, 2, 3, 4}, "PNG"},
      {"fits", {TypeDesc::UINT8, TypeDesc::FLOAT}, {1, 2, 3, 4}, "FITS"},
      {"targa", {TypeDesc::UINT8}, {1, 2, 3, 4}, "Targa"},
      {"ico", {TypeDesc::UINT8}, {1, 2, 3, 4}, "ICO"},
      {"bmp", {TypeDesc::UINT8}, {1, 3, 4}, "BMP"},
      {"jpeg2000", {TypeDesc::UINT8, TypeDesc::UINT16}, {1, 3, 4}, "JPEG 2000"},
      {"pnm", {TypeDesc::UINT8, TypeDesc::UINT16}, {1, 3}, "PNM"},
      {"jpeg", {TypeDesc::UINT8}, {1, 3}, "JPEG"},
      {"iff", {TypeDesc::UINT8, TypeDesc::UINT16}, {3, 4}, "IFF"},
      {"gif", {TypeDesc::UINT8}, {3, 4}, "GIF"},
      {"heif", {TypeDesc::UINT8}, {3, 4}, "HEIF"},
      {"webp", {TypeDesc::UINT8}, {3, 4}, "WebP"},
      {"hdr", {TypeDesc::FLOAT}, {3}, "Radiance HDR"},
      {"zfile", {TypeDesc::FLOAT}, {1}, "Zfile"},
  };
  return kFormats;
}

// Writers that write no file (the "null" writer, the terminal viewer).
bool WritesNoFile(const std::string& format) { return format == "null" || format == "term"; }

const FormatTypes* TypesOf(const std::string& format) {
  for (const FormatTypes& f : KnownFormats()) {
    if (format == f.format) return &f;
  }
  return nullptr;
}

// "1, 3 or 4".
std::string CountsText(const std::vector<int>& counts) {
  std::string text;
  for (size_t i = 0; i < counts.size(); ++i) {
    text += (i == 0 ? "" : i + 1 == counts.size() ? " or " : ", ") + std::to_string(counts[i]);
  }
  return text;
}

// Refuses (CliError(kExitIo)) an output whose format has no writer, writes no file, or cannot
// hold the layout's channels: their number, or an alpha channel.
void CheckChannels(const std::string& path, OIIO::ImageOutput& out, const OutputLayout& layout) {
  const std::string format = out.format_name();
  const FormatTypes* known = TypesOf(format);
  const std::string name = known ? known->name : format;
  if (WritesNoFile(format)) {
    throw IoError(path + ": the " + format + " writer writes no image file");
  }
  if (layout.alphaIndex >= 0 && !out.supports("alpha")) {
    throw IoError(path + ": " + name + " files cannot hold an alpha channel (the input has " +
                  "one, or --add-alpha was given; --alpha none renders it as a colour channel)");
  }
  const std::string has = "; the output has " + std::to_string(layout.channels) +
                          (layout.channels == 1 ? " channel" : " channels");
  if (known) {
    const std::vector<int>& counts = known->channels;
    if (counts.front() == 0 ||
        std::find(counts.begin(), counts.end(), layout.channels) != counts.end()) {
      return;
    }
    throw IoError(path + ": " + name + " files hold " + CountsText(counts) +
                  (counts == std::vector<int>{1} ? " channel" : " channels") + has +
                  (layout.channels > counts.back() ? "; write OpenEXR or TIFF instead" : ""));
  }
  // Other writers that take any channel count say so; the others hold grey, grey and alpha,
  // RGB or RGBA.
  const int most = out.supports("alpha") ? 4 : 3;
  if (!out.supports("nchannels") && layout.channels > most) {
    throw IoError(path + ": " + name + " files hold at most " + std::to_string(most) +
                  " channels" + has + "; write OpenEXR or TIFF instead");
  }
}

bool Holds(const FormatTypes* f, TypeDesc::BASETYPE t) {
  return !f || std::find(f->types.begin(), f->types.end(), t) != f->types.end();
}

// The nearest type the format holds: exact ones first, then the finer, then the coarser.
TypeDesc::BASETYPE NearestType(const FormatTypes* f, TypeDesc::BASETYPE t) {
  std::vector<TypeDesc::BASETYPE> order;
  switch (t) {
    case TypeDesc::UINT8: order = {TypeDesc::UINT8, TypeDesc::HALF, TypeDesc::UINT16, TypeDesc::FLOAT}; break;
    case TypeDesc::UINT16: order = {TypeDesc::UINT16, TypeDesc::FLOAT, TypeDesc::HALF, TypeDesc::UINT8}; break;
    case TypeDesc::HALF: order = {TypeDesc::HALF, TypeDesc::FLOAT, TypeDesc::UINT16, TypeDesc::UINT8}; break;
    default: order = {TypeDesc::FLOAT, TypeDesc::HALF, TypeDesc::UINT16, TypeDesc::UINT8}; break;
  }
  for (const auto candidate : order) {
    if (Holds(f, candidate)) return candidate;
  }
  return t;
}

TypeDesc::BASETYPE ParseDataType(const std::string& name) {
  if (name == "uint8") return TypeDesc::UINT8;
  if (name == "uint16") return TypeDesc::UINT16;
  if (name == "half") return TypeDesc::HALF;
  if (name == "float") return TypeDesc::FLOAT;
  throw UsageError("-d: expected uint8, uint16, half or float, got \"" + name + "\"");
}

// Compression names each writer knows; a level may follow some of them ("zip:9").
bool KnownCompression(const std::string& format, const std::string& name,
                      std::string* choices) {
  static const std::vector<std::pair<const char*, std::vector<const char*>>> kNames = {
      {"openexr", {"none", "rle", "zips", "zip", "piz", "pxr24", "b44", "b44a", "dwaa", "dwab"}},
      {"tiff", {"none", "lzw", "zip", "packbits"}},
      {"png", {"zip"}},
      {"jpeg", {"jpeg"}},
      {"webp", {"webp"}},
  };
  const std::string base = name.substr(0, name.find(':'));
  for (const auto& f : kNames) {
    if (format != f.first) continue;
    for (const char* n : f.second) {
      *choices += (choices->empty() ? "" : ", ") + std::string(n);
      if (base == n) return true;
    }
    return false;
  }
  return false;
}

}  // namespace

OutputPlan PlanOutput(const std::string& path, const InputImage& input,
                      const OutputLayout& layout, const OutputChoice& choice) {
  OutputPlan plan;
  {
    auto out = OIIO::ImageOutput::create(path);
    if (!out) throw IoError(FileError(path, OIIO::geterror()));
    CheckChannels(path, *out, layout);
    plan.format = out->format_name();
    plan.windows = RecordsWindows(plan.format);
    if (!choice.compression.empty()) {
      std::string choices;
      if (!KnownCompression(plan.format, choice.compression, &choices)) {
        throw UsageError("--compression: " +
                         (choices.empty() ? plan.format + " files have no compression to choose"
                                          : "\"" + choice.compression + "\" is not one of " +
                                                plan.format + "'s: " + choices));
      }
      plan.compression = choice.compression;
    }
  }
  const FormatTypes* types = TypesOf(plan.format);
  const TypeDesc::BASETYPE in = static_cast<TypeDesc::BASETYPE>(input.spec.format.basetype);
  if (!choice.dataType.empty()) {
    const TypeDesc::BASETYPE want = ParseDataType(choice.dataType);
    if (!Holds(types, want)) {
      throw IoError(path + ": " + plan.format + " files cannot hold " + choice.dataType +
                    " samples");
    }
    plan.type = TypeDesc(want);
    return plan;
  }
  const auto& formats = input.spec.channelformats;
  bool mixed = false;
  for (const TypeDesc& t : formats) mixed |= (t != formats.front());
  if (mixed) {
    auto out = OIIO::ImageOutput::create(path);
    if (out->supports("channelformats")) {
      plan.type = TypeDesc(NearestType(types, TypeDesc::FLOAT));
      plan.channelTypes = formats;
      if (layout.addedAlpha) plan.channelTypes.push_back(TypeDesc::HALF);
      return plan;
    }
    plan.type = TypeDesc(NearestType(types, TypeDesc::FLOAT));
    plan.notes.push_back(plan.format + " files hold one sample type for all channels; writing " +
                         TypeName(plan.type) + " (choose with -d)");
    return plan;
  }
  plan.type = TypeDesc(NearestType(types, in));
  if (plan.type.basetype != in) {
    plan.notes.push_back(plan.format + " files cannot hold " + TypeName(input.spec.format) +
                         " samples; writing " + TypeName(plan.type) + " (choose with -d)");
  }
  return plan;
}

namespace {

OIIO::ImageSpec OutputSpec(const InputImage& input, const OutputLayout& layout,
                           const OutputPlan& plan, const OutputWindows& windows,
                           bool negativeOrigin, const OIIO::ParamValueList& extra) {
  OIIO::ImageSpec spec = input.spec;  // metadata
  const PF_LRect& d = windows.data;
  const PF_LRect& f = windows.display;
  const bool keepWindows =
      plan.windows && (negativeOrigin || (d.left >= 0 && d.top >= 0 && f.left >= 0 && f.top >= 0));
  spec.x = keepWindows ? d.left : 0;
  spec.y = keepWindows ? d.top : 0;
  spec.z = 0;
  spec.width = d.right - d.left;
  spec.height = d.bottom - d.top;
  spec.depth = 1;
  spec.full_x = keepWindows ? f.left : 0;
  spec.full_y = keepWindows ? f.top : 0;
  spec.full_z = 0;
  spec.full_width = keepWindows ? f.right - f.left : spec.width;
  spec.full_height = keepWindows ? f.bottom - f.top : spec.height;
  spec.full_depth = 1;
  spec.tile_width = spec.tile_height = spec.tile_depth = 0;
  spec.nchannels = layout.channels;
  spec.channelnames = layout.names;
  spec.set_format(plan.type);
  spec.channelformats = plan.channelTypes;
  spec.alpha_channel = layout.alphaIndex;
  if (spec.z_channel >= spec.nchannels) spec.z_channel = -1;
  spec.erase_attribute("Exif:PixelXDimension");
  spec.erase_attribute("Exif:PixelYDimension");
  // A bit depth recorded by the reader (10-bit DPX) holds only for the same sample type.
  if (plan.type != input.spec.format || !plan.channelTypes.empty()) {
    spec.erase_attribute("oiio:BitsPerSample");
  }
  // Without it the PNM writer writes 8 bits whatever the type.
  if (plan.channelTypes.empty() && !spec.find_attribute("oiio:BitsPerSample") &&
      (plan.type == TypeDesc::UINT8 || plan.type == TypeDesc::UINT16)) {
    spec.attribute("oiio:BitsPerSample", static_cast<int>(plan.type.size() * 8));
  }
  // The input's compression applies only to a file of its own format.
  if (!plan.compression.empty()) {
    spec.attribute("compression", plan.compression);
  } else if (plan.format != input.format) {
    spec.erase_attribute("compression");
    spec.erase_attribute("Compression");
    spec.erase_attribute("CompressionQuality");
  }
  // Colour values are written as they are: only TIFF records how alpha relates to colour,
  // and keeps what the input said; every other writer must not un-premultiply.
  if (plan.format != "tiff") spec.attribute("oiio:UnassociatedAlpha", 1);
  for (const OIIO::ParamValue& p : extra) spec.attribute(p.name(), p.type(), p.data());
  return spec;
}

}  // namespace

void WriteOutput(const std::string& path, const std::string& shownPath, const InputImage& input,
                 const OutputLayout& layout, const OutputPlan& plan,
                 const OutputWindows& windows, const PixelBuffer& pixels,
                 const OIIO::ParamValueList& extra, std::vector<std::string>* notes) {
  auto out = OIIO::ImageOutput::create(path);
  if (!out) throw IoError(FileError(shownPath, OIIO::geterror()));
  const OIIO::ImageSpec spec =
      OutputSpec(input, layout, plan, windows, out->supports("negativeorigin"), extra);
  const bool framed = spec.full_x == windows.display.left && spec.full_y == windows.display.top &&
                      spec.full_width == windows.display.right - windows.display.left &&
                      spec.full_height == windows.display.bottom - windows.display.top;
  if (!framed && notes) {
    notes->push_back(plan.format + " files record no display window" +
                     std::string(plan.windows ? " left or above the origin" : "") +
                     ": wrote the data window alone; the frame " +
                     RectText(windows.display) + " lies at " +
                     std::to_string(windows.display.left - windows.data.left) + "," +
                     std::to_string(windows.display.top - windows.data.top) + " in it");
  }
  OIIO::TypeDesc written = plan.type;
  WriteImageFile(std::move(out), path, shownPath, spec, SampleTypeOf(pixels),
                 pixels.bytes.data(), &written);
  if (notes && plan.channelTypes.empty() && written != plan.type) {
    notes->push_back(plan.format + " writer chose " + TypeName(written) + " samples");
  }
}

// -v of the commands that write one file: what was written (an image's size, channels, type
// and format, from its header) and how long it took.
void ReportWritten(const std::string& path, std::chrono::steady_clock::time_point started,
                   std::ostream& out) {
  out << "wrote " << path;
  if (auto in = OIIO::ImageInput::open(path)) {
    const OIIO::ImageSpec& s = in->spec();
    out << ": " << s.width << "x" << s.height << ", " << s.nchannels << " channels, "
        << TypeName(s.format) << " " << in->format_name();
  } else {
    OIIO::geterror();  // written a moment ago; say no more than the path
  }
  out << ", " << ElapsedText(started) << "\n";
}

}  // namespace veltrisca
