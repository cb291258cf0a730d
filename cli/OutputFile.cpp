#include "OutputFile.h"

#include <algorithm>
#include <cstring>

#include "CliError.h"

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

// The sample types each writer holds (OpenImageIO 2.4); formats not listed are given the
// input's type and the writer's own choice is reported afterwards.
struct FormatTypes {
  const char* format;
  std::vector<TypeDesc::BASETYPE> types;
};
const std::vector<FormatTypes>& KnownFormats() {
  static const std::vector<FormatTypes> kFormats = {
      {"openexr", {TypeDesc::HALF, TypeDesc::FLOAT}},
      {"tiff", {TypeDesc::UINT8, TypeDesc::UINT16, TypeDesc::FLOAT}},
      {"dpx", {TypeDesc::UINT8, TypeDesc::UINT16, TypeDesc::FLOAT}},
      {"png", {TypeDesc::UINT8, TypeDesc::UINT16}},
      {"sgi", {TypeDesc::UINT8, TypeDesc::UINT16}},
      {"pnm", {TypeDesc::UINT8, TypeDesc::UINT16}},
      {"jpeg2000", {TypeDesc::UINT8, TypeDesc::UINT16}},
      {"iff", {TypeDesc::UINT8, TypeDesc::UINT16}},
      {"rla", {TypeDesc::UINT8, TypeDesc::UINT16, TypeDesc::FLOAT}},
      {"hdr", {TypeDesc::FLOAT}},
      {"jpeg", {TypeDesc::UINT8}},
      {"bmp", {TypeDesc::UINT8}},
      {"targa", {TypeDesc::UINT8}},
      {"webp", {TypeDesc::UINT8}},
      {"gif", {TypeDesc::UINT8}},
      {"ico", {TypeDesc::UINT8}},
      {"heif", {TypeDesc::UINT8}},
  };
  return kFormats;
}

const FormatTypes* TypesOf(const std::string& format) {
  for (const FormatTypes& f : KnownFormats()) {
    if (format == f.format) return &f;
  }
  return nullptr;
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
  CheckWritable(path, layout);
  OutputPlan plan;
  {
    auto out = OIIO::ImageOutput::create(path);
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
  WriteImageFile(std::move(out), path, shownPath, spec, BufferTypeOf(pixels.depth),
                 pixels.bytes.data(), &written);
  if (notes && plan.channelTypes.empty() && written != plan.type) {
    notes->push_back(plan.format + " writer chose " + TypeName(written) + " samples");
  }
}

}  // namespace veltrisca
